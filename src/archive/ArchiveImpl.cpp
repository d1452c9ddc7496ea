// The archive object: its records and readers, and the hand-on of its freed state to the records.
#include "archive/ArchiveImpl.h"

#include <algorithm>

#include "records/Record.h"
#include "records/RecordErrors.h"
#include "support/Report.h"

namespace NSArchive {

using NSRecords::khrLocked;
using NSRecords::khrPathNotFound;
using NSRecords::klStateHookRan;
using NSRecords::klStateLocked;

namespace {

constexpr WCHAR kszClientGeneric[] = KV_W("GenericReader");
constexpr DWORD kdwModeKindMask = 0x7;
constexpr DWORD kdwModeRead = 0x1;
constexpr DWORD kdwModeReadWrite = 0x3;

WString FromBstr(BSTR bstr) { return bstr ? WString(bstr, SysStringLen(bstr)) : WString(); }

}  // namespace

bool IsValidRecordName(const WString& strName) {
  if (strName.empty() || strName == KV_W(".") || strName == KV_W("..")) return false;
  return std::none_of(strName.begin(), strName.end(),
                      [](WCHAR ch) { return ch == '\\' || ch == '/' || ch == 0; });
}

CArchiveImpl::CArchiveImpl() = default;
CArchiveImpl::~CArchiveImpl() = default;

HRESULT CArchiveImpl::Open(const WString& strPath, DWORD dwAccess) {
  CGuard guard(m_section);
  if (!NSPlatform::IsDirectory(strPath.c_str())) return khrPathNotFound;
  m_strPath = NSPlatform::CanonicalizePath(strPath);
  while (m_strPath.size() > 1 && NSPlatform::IsPathSeparator(m_strPath.back())) m_strPath.pop_back();
  if (dwAccess) m_dwAccess = dwAccess;
  return S_OK;
}

// ---- Description and settings ---------------------------------------------------------------------

STDMETHODIMP CArchiveImpl::SetDescription(BSTR) { return E_NOTIMPL; }
STDMETHODIMP CArchiveImpl::GetDescription(BSTR* pszDescription) {
  if (pszDescription) *pszDescription = nullptr;
  return E_NOTIMPL;
}

STDMETHODIMP CArchiveImpl::GetPath(BSTR* pszPath) {
  KV_CHECK_POINTER(pszPath);
  CGuard guard(m_section);
  *pszPath = SysAllocStringLen(m_strPath.data(), static_cast<UINT>(m_strPath.size()));
  return *pszPath ? S_OK : E_OUTOFMEMORY;
}

STDMETHODIMP CArchiveImpl::SetQuota(ULONGLONG, ULONGLONG) { return E_NOTIMPL; }

STDMETHODIMP CArchiveImpl::SetFlushTimeout(ULONG ulFlushTimeout) {
  CGuard guard(m_section);
  if (HasState(klStateLocked)) return khrLocked;
  m_dwFlushTimeout = ulFlushTimeout;
  return S_OK;
}

STDMETHODIMP CArchiveImpl::GetInfo(SArchiveInfo*) { return E_NOTIMPL; }
STDMETHODIMP CArchiveImpl::SetArchiveQuota(const SArchiveQuota*) { return E_NOTIMPL; }
STDMETHODIMP CArchiveImpl::GetArchiveQuota(SArchiveQuota*) { return E_NOTIMPL; }
STDMETHODIMP CArchiveImpl::DeleteRecord(BSTR) { return E_NOTIMPL; }

// ---- State ----------------------------------------------------------------------------------------

STDMETHODIMP CArchiveImpl::Free() {
  CGuard guard(m_section);
  // The hook hands the freed bit on to every record in the table.
  const HRESULT hr = Change(klStateLocked, 0);
  if (!KV_SUCCEEDED(hr)) return hr;
  m_records.clear();
  m_readers.clear();
  return S_OK;
}

void CArchiveImpl::OnChange(LONG, LONG, LONG) {
  CGuard guard(m_section);
  const LONG lState = GetState();
  for (auto& entry : m_records) {
    NSCom::CComPtr<IStateControl> pState;
    HRESULT hr = entry.second->QueryInterface(__uuidof(IStateControl), reinterpret_cast<void**>(&pState));
    if (SUCCEEDED(hr)) hr = pState->Change(lState & klStateLocked, ~lState & klStateLocked);
    KV_SUCCEEDED(hr);
  }
  ClearStateBitsUnlocked(klStateHookRan);
}

// ---- Records --------------------------------------------------------------------------------------

STDMETHODIMP CArchiveImpl::CreateRecord(BSTR name, IRecord** ppRecord) {
  return CreateRecordInternal(name, ppRecord, 1);
}

STDMETHODIMP CArchiveImpl::OpenRecord(BSTR name, IRecord** ppRecord) {
  NSCom::CComBSTR bstrClient(kszClientGeneric);
  return OpenRecordInternal(bstrClient, name, kdwModeRead, ppRecord, 1);
}

STDMETHODIMP CArchiveImpl::OpenRecordEx(BSTR client, BSTR name, ULONG mode, IRecord** ppRecord) {
  return OpenRecordInternal(client, name, mode, ppRecord, 1);
}

STDMETHODIMP CArchiveImpl::CreateRecordInternal(BSTR name, IRecord** ppRecord, LONG /*lPublic*/) {
  const WString strName = FromBstr(name);
  CGuard guard(m_section);
  KV_LOG_MESSAGE(KV_W("Creating record '%s' in archive '%s'.\n"), strName.c_str(), m_strPath.c_str());
  KV_CHECK_POINTER(ppRecord);
  *ppRecord = nullptr;
  if (HasState(klStateLocked)) return khrLocked;
  if (!IsValidRecordName(strName)) {
    KV_LOG_ERROR(KV_W("Invalid record name '%s' in archive '%s'\n"), strName.c_str(), m_strPath.c_str());
    return E_INVALIDARG;
  }
  return MakeRecord(strName, kdwModeReadWrite, strName + KV_W("-rw"), ppRecord);
}

STDMETHODIMP CArchiveImpl::OpenRecordInternal(BSTR client, BSTR name, ULONG mode, IRecord** ppRecord, LONG) {
  const WString strClient = FromBstr(client);
  const WString strName = FromBstr(name);
  CGuard guard(m_section);
  if (HasState(klStateLocked)) return khrLocked;
  KV_LOG_MESSAGE(KV_W("Opening record '%s' in archive '%s' for client '%s' in mode 0x%08X.\n"), strName.c_str(),
                 m_strPath.c_str(), strClient.c_str(), static_cast<unsigned>(mode));
  KV_CHECK_POINTER(ppRecord);
  *ppRecord = nullptr;
  if (!IsValidRecordName(strName)) {
    KV_LOG_ERROR(KV_W("Invalid record name '%s' in archive '%s'\n"), strName.c_str(), m_strPath.c_str());
    return E_INVALIDARG;
  }
  if (!NSPlatform::IsDirectory(NSPlatform::CombinePath(m_strPath, strName).c_str())) return khrPathNotFound;
  if ((mode & kdwModeKindMask) == kdwModeRead) {
    FILETIME ftNow;
    NSPlatform::GetUtcFileTime(&ftNow);
    m_readers[strClient] = NSPlatform::FileTimeToU64(ftNow);
  }
  const WString strHandle = (mode & kdwModeKindMask) == kdwModeReadWrite ? strName + KV_W("-rw")
                                                                        : strName + KV_W("-") + strClient + KV_W("-r");
  return MakeRecord(strName, mode, strHandle, ppRecord);
}

// The table's object for strHandle, or a new record object entered under it. Runs under the lock.
HRESULT CArchiveImpl::MakeRecord(const WString& strName, DWORD dwMode, const WString& strHandle, IRecord** ppRecord) {
  const auto it = m_records.find(strHandle);
  if (it != m_records.end()) return it->second.CopyTo(ppRecord);
  NSCom::CComObject<NSRecords::CRecord>* pObject = nullptr;
  HRESULT hr = NSCom::CComObject<NSRecords::CRecord>::CreateInstance(&pObject);
  if (!KV_SUCCEEDED(hr)) return hr;
  NSCom::CComPtr<IRecord> pRecord(pObject);
  hr = pObject->Create(static_cast<IKronvale*>(this), NSPlatform::CombinePath(m_strPath, strName).c_str(),
                       m_dwFlushTimeout, dwMode);
  if (!KV_SUCCEEDED(hr)) return hr;
  m_records[strHandle] = pRecord;
  return pRecord.CopyTo(ppRecord);
}

STDMETHODIMP CArchiveImpl::GetRecords(BSTR** ppszRecordName, DWORD* pdwRecordNameCount) {
  KV_CHECK_POINTERS(pdwRecordNameCount && ppszRecordName);
  *ppszRecordName = nullptr;
  *pdwRecordNameCount = 0;
  std::vector<NSPlatform::SDirEntry> vEntries;
  {
    CGuard guard(m_section);
    if (HasState(klStateLocked)) return khrLocked;
    if (FAILED(NSPlatform::ListDir(m_strPath.c_str(), &vEntries))) return E_FAIL;
  }
  std::vector<const NSPlatform::SDirEntry*> vRecords;
  for (const auto& entry : vEntries)
    if (entry.IsDirectory()) vRecords.push_back(&entry);
  if (vRecords.empty()) return S_OK;
  auto* pNames = static_cast<BSTR*>(CoTaskMemAlloc(vRecords.size() * sizeof(BSTR)));
  if (!pNames) return E_OUTOFMEMORY;
  for (size_t i = 0; i < vRecords.size(); ++i) {
    pNames[i] = SysAllocStringLen(vRecords[i]->strName.data(), static_cast<UINT>(vRecords[i]->strName.size()));
    if (!pNames[i]) {
      while (i > 0) SysFreeString(pNames[--i]);
      CoTaskMemFree(pNames);
      return E_OUTOFMEMORY;
    }
  }
  *ppszRecordName = pNames;
  *pdwRecordNameCount = static_cast<DWORD>(vRecords.size());
  return S_OK;
}

}  // namespace NSArchive
