// The registry in memory.
#include "frame/MemoryRegistry.h"

#include "platform/os.h"

namespace NSFrame {

namespace {

WCHAR Fold(WCHAR ch) { return ch >= 'a' && ch <= 'z' ? static_cast<WCHAR>(ch - 'a' + 'A') : ch; }

HRESULT Error(DWORD dwError) { return KvHResultFromWin32(dwError); }

// The names of a key path; false for an empty name inside it ("a\\b", a leading or trailing '\').
bool SplitKey(const WString& strKey, std::vector<WString>* pvNames) {
  pvNames->clear();
  if (strKey.empty()) return true;
  size_t iStart = 0;
  for (;;) {
    const size_t iEnd = strKey.find('\\', iStart);
    const WString strName = strKey.substr(iStart, iEnd == WString::npos ? WString::npos : iEnd - iStart);
    if (strName.empty()) return false;
    pvNames->push_back(strName);
    if (iEnd == WString::npos) return true;
    iStart = iEnd + 1;
  }
}

}  // namespace

bool CMemoryRegistry::SLess::operator()(const WString& a, const WString& b) const {
  const size_t cch = a.size() < b.size() ? a.size() : b.size();
  for (size_t i = 0; i < cch; ++i) {
    const WCHAR chA = Fold(a[i]);
    const WCHAR chB = Fold(b[i]);
    if (chA != chB) return chA < chB;
  }
  return a.size() < b.size();
}

CMemoryRegistry::CMemoryRegistry() {
  for (std::unique_ptr<SNode>& pRoot : m_apRoots) pRoot = std::make_unique<SNode>();
}

CMemoryRegistry::~CMemoryRegistry() = default;

void CMemoryRegistry::FailOperation(unsigned nNth, HRESULT hr) {
  m_nFailCountdown = nNth;
  m_hrFail = hr;
}

// Journals the operation; true when it must fail (the injected failure, in *phr).
bool CMemoryRegistry::Begin(const char* pszOperation, ERegistryRoot eRoot, const WString& strKey,
                            const WString* pstrName, HRESULT* phr) {
  std::string strEntry = std::string(pszOperation) + " " + NSPlatform::WideToUtf8(RegistryRootName(eRoot));
  if (!strKey.empty()) strEntry += "\\" + NSPlatform::WideToUtf8(strKey);
  if (pstrName) strEntry += " [" + NSPlatform::WideToUtf8(*pstrName) + "]";
  m_vJournal.push_back(strEntry);
  if (m_nFailCountdown == 0 || --m_nFailCountdown != 0) return false;
  *phr = m_hrFail;
  return true;
}

CMemoryRegistry::SNode* CMemoryRegistry::Find(ERegistryRoot eRoot, const WString& strKey) const {
  std::vector<WString> vNames;
  if (!SplitKey(strKey, &vNames)) return nullptr;
  SNode* pNode = m_apRoots[static_cast<int>(eRoot)].get();
  for (const WString& strName : vNames) {
    auto it = pNode->mapSubKeys.find(strName);
    if (it == pNode->mapSubKeys.end()) return nullptr;
    pNode = it->second.get();
  }
  return pNode;
}

HRESULT CMemoryRegistry::CreateKey(ERegistryRoot eRoot, const WString& strKey) {
  HRESULT hr = S_OK;
  if (Begin("CreateKey", eRoot, strKey, nullptr, &hr)) return hr;
  std::vector<WString> vNames;
  if (!SplitKey(strKey, &vNames)) return Error(ERROR_INVALID_PARAMETER);
  SNode* pNode = m_apRoots[static_cast<int>(eRoot)].get();
  for (const WString& strName : vNames) {
    std::unique_ptr<SNode>& pChild = pNode->mapSubKeys[strName];
    if (!pChild) pChild = std::make_unique<SNode>();
    pNode = pChild.get();
  }
  return S_OK;
}

HRESULT CMemoryRegistry::OpenKey(ERegistryRoot eRoot, const WString& strKey) {
  HRESULT hr = S_OK;
  if (Begin("OpenKey", eRoot, strKey, nullptr, &hr)) return hr;
  return Find(eRoot, strKey) ? S_OK : Error(ERROR_FILE_NOT_FOUND);
}

HRESULT CMemoryRegistry::SetStringValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName,
                                        const WString& strValue) {
  HRESULT hr = S_OK;
  if (Begin("SetStringValue", eRoot, strKey, &strName, &hr)) return hr;
  SNode* pNode = Find(eRoot, strKey);
  if (!pNode) return Error(ERROR_FILE_NOT_FOUND);
  pNode->mapValues[strName] = strValue;
  return S_OK;
}

HRESULT CMemoryRegistry::DeleteValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName) {
  HRESULT hr = S_OK;
  if (Begin("DeleteValue", eRoot, strKey, &strName, &hr)) return hr;
  SNode* pNode = Find(eRoot, strKey);
  if (!pNode || pNode->mapValues.erase(strName) == 0) return Error(ERROR_FILE_NOT_FOUND);
  return S_OK;
}

HRESULT CMemoryRegistry::DeleteKey(ERegistryRoot eRoot, const WString& strKey) {
  return RemoveKey("DeleteKey", eRoot, strKey, false);
}

HRESULT CMemoryRegistry::DeleteTree(ERegistryRoot eRoot, const WString& strKey) {
  return RemoveKey("DeleteTree", eRoot, strKey, true);
}

HRESULT CMemoryRegistry::RemoveKey(const char* pszOperation, ERegistryRoot eRoot, const WString& strKey, bool bTree) {
  HRESULT hr = S_OK;
  if (Begin(pszOperation, eRoot, strKey, nullptr, &hr)) return hr;
  if (strKey.empty()) return Error(ERROR_INVALID_PARAMETER);
  SNode* pNode = Find(eRoot, strKey);
  if (!pNode) return Error(ERROR_FILE_NOT_FOUND);
  if (!bTree && !pNode->mapSubKeys.empty()) return Error(ERROR_ACCESS_DENIED);
  const size_t iLast = strKey.rfind('\\');
  SNode* pParent = Find(eRoot, iLast == WString::npos ? WString() : strKey.substr(0, iLast));
  pParent->mapSubKeys.erase(iLast == WString::npos ? strKey : strKey.substr(iLast + 1));
  return S_OK;
}

HRESULT CMemoryRegistry::HasSubKeys(ERegistryRoot eRoot, const WString& strKey, bool* pbHasSubKeys) {
  HRESULT hr = S_OK;
  if (Begin("HasSubKeys", eRoot, strKey, nullptr, &hr)) return hr;
  const SNode* pNode = Find(eRoot, strKey);
  if (!pNode) return Error(ERROR_FILE_NOT_FOUND);
  *pbHasSubKeys = !pNode->mapSubKeys.empty();
  return S_OK;
}

bool CMemoryRegistry::KeyExists(ERegistryRoot eRoot, const WString& strKey) const {
  return Find(eRoot, strKey) != nullptr;
}

bool CMemoryRegistry::GetValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName,
                               WString* pstrValue) const {
  const SNode* pNode = Find(eRoot, strKey);
  if (!pNode) return false;
  auto it = pNode->mapValues.find(strName);
  if (it == pNode->mapValues.end()) return false;
  *pstrValue = it->second;
  return true;
}

void CMemoryRegistry::DumpNode(const SNode& node, const std::string& strPath, std::string* pstrOut) {
  for (const auto& [strName, strValue] : node.mapValues) {
    *pstrOut += strPath;
    if (!strName.empty()) *pstrOut += " [" + NSPlatform::WideToUtf8(strName) + "]";
    *pstrOut += " = '" + NSPlatform::WideToUtf8(strValue) + "'\n";
  }
  for (const auto& [strName, pChild] : node.mapSubKeys) {
    const std::string strChild = strPath + "\\" + NSPlatform::WideToUtf8(strName);
    *pstrOut += strChild + "\n";
    DumpNode(*pChild, strChild, pstrOut);
  }
}

std::string CMemoryRegistry::Dump() const {
  std::string strOut;
  for (ERegistryRoot eRoot : {ERegistryRoot::ClassesRoot, ERegistryRoot::LocalMachine, ERegistryRoot::CurrentUser}) {
    DumpNode(*m_apRoots[static_cast<int>(eRoot)], NSPlatform::WideToUtf8(RegistryRootName(eRoot)), &strOut);
  }
  return strOut;
}

}  // namespace NSFrame
