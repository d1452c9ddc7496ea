// The multipart archive: partitions and their order, the fail-over walk, records over the
// partitions, and the multipart file.
#include "multipart/MultipartArchive.h"

#include <boost/lexical_cast.hpp>
#include <pugixml.hpp>

#include <algorithm>
#include <cstring>
#include <kronvale/KronvaleResults.h>
#include <string>

#include "archive/ArchiveSettings.h"
#include "archive/XmlNames.h"
#include "multipart/MultipartRecord.h"
#include "support/Report.h"

namespace NSMultipart {

using namespace NSKronvale;
using namespace NSArchive::NSXml;
using NSArchive::ArchiveImplOf;
using NSArchive::CArchiveImpl;
using NSRecords::klStateHookRan;
using NSRecords::klStateLocked;

namespace {

// A new document starts from this: the root with the namespace prefix our documents declare. The
// namespace is also what tells a multipart file of ours from any other file.
constexpr char kszTemplate[] = "<config xmlns:xpt=\"urn:kronvale:multipart\"/>";
constexpr char kszNamespace[] = "urn:kronvale:multipart";
constexpr char kszDescription[] = "description";
constexpr char kszArchive[] = "archive";
constexpr char kszPath[] = "path";
constexpr char kszFlags[] = "flags";
constexpr char kszOrder[] = "order";
constexpr char kszTypeBstr[] = "BSTR";

constexpr BYTE kbMaxOrder = 0xFF;

using NSCom::HasEmbeddedNul;

// Saves or loads the two options of one partition under its "archive" element: one routine for
// both directions, so the keys cannot drift apart.
HRESULT SerializeOptions(pugi::xml_node archive, bool bSave, SPartitionOptions* pOptions) {
  struct SItem {
    const char* pszName;
    ULONGLONG ullMax;
  };
  const SItem aItems[] = {{kszFlags, 0xFFFFFFFFull}, {kszOrder, kbMaxOrder}};
  for (const SItem& item : aItems) {
    const bool bFlags = item.pszName == kszFlags;
    if (bSave) {
      pugi::xml_node element = archive.append_child(item.pszName);
      if (!KV_ASSERT_TEXT(element, "spChild\n")) return E_UNEXPECTED;
      element.append_attribute(kszTypeAttribute) = kszTypeULong;
      const ULONGLONG ullValue = bFlags ? pOptions->dwFlags : pOptions->bOrder;
      if (!element.text().set(std::to_string(ullValue).c_str())) return E_OUTOFMEMORY;
      continue;
    }
    const pugi::xml_node element = archive.child(item.pszName);
    if (!element) continue;  // not written: the default stays
    if (std::strcmp(element.attribute(kszTypeAttribute).value(), kszTypeULong) != 0) return khrInvalidData;
    const char* pszText = element.child_value();
    ULONGLONG ullValue = 0;
    if (!*pszText || *pszText == '-') return khrInvalidData;
    try {
      ullValue = boost::lexical_cast<ULONGLONG>(pszText);
    } catch (const boost::bad_lexical_cast&) {
      return khrInvalidData;
    }
    if (ullValue > item.ullMax) return khrInvalidData;
    if (bFlags)
      pOptions->dwFlags = static_cast<DWORD>(ullValue);
    else
      pOptions->bOrder = static_cast<BYTE>(ullValue);
  }
  return S_OK;
}

// The document in strText, or invalid data when it is not XML with our root and namespace.
HRESULT ParseDocument(const std::string& strText, pugi::xml_document* pDocument) {
  // A description of nothing but spaces is kept as it was written.
  const pugi::xml_parse_result result =
      pDocument->load_buffer(strText.data(), strText.size(), pugi::parse_default | pugi::parse_ws_pcdata_single);
  if (result.status == pugi::status_out_of_memory) return E_OUTOFMEMORY;
  const pugi::xml_node root = pDocument->document_element();
  if (!result || std::strcmp(root.name(), kszRootName) != 0 ||
      std::strcmp(root.attribute(kszNamespaceAttribute).value(), kszNamespace) != 0)
    return khrInvalidData;
  return S_OK;
}

}  // namespace

bool CMultipartArchive::IsMultipartDocument(const std::string& strText) {
  pugi::xml_document document;
  return ParseDocument(strText, &document) == S_OK;
}

// ---- Life -----------------------------------------------------------------------------------------

void CMultipartArchive::FinalRelease() {
  CGuard guard(m_section);
  for (auto& entry : m_vPartitions)
    if (CArchiveImpl* pImpl = ArchiveImplOf(entry.first)) pImpl->ReleaseOwner(this);
  m_vPartitions.clear();
  m_pActive = nullptr;
}

HRESULT CMultipartArchive::Create(const WString& strPath) {
  KV_FUNC("CMultipartArchive::Create");
  if (NSPlatform::PathExists(strPath.c_str())) {
    KV_LOG_ERROR(KV_W("Cannot create multipart archive '%s': the path exists\n"), strPath.c_str());
    return khrAlreadyExists;
  }
  CGuard guard(m_section);
  m_strPath = strPath;
  const HRESULT hr = Save();
  if (!KV_SUCCEEDED(hr)) return hr;
  return S_OK;
}

HRESULT CMultipartArchive::Load(const WString& strPath, IArchiveFactoryEx* pFactory) {
  KV_FUNC("CMultipartArchive::Load");
  KV_CHECK_POINTER(pFactory);
  std::string strText;
  HRESULT hr = NSArchive::ReadWholeFile(strPath, &strText);
  // The object is not published yet: the partitions are opened through the factory (which may be
  // in the middle of this very call) without the archive's lock.
  m_strPath = strPath;
  if (SUCCEEDED(hr)) hr = ReadDocument(strText, pFactory);
  if (FAILED(hr)) {
    if (hr == khrInvalidData) KV_LOG_ERROR(KV_W("Not a multipart archive file: %s\n"), strPath.c_str());
    KV_REPORT_IF_FAILED(hr);
    FinalRelease();
    return hr;
  }
  CGuard guard(m_section);
  const std::vector<IKronvale*> vInOrder = PartitionsInOrder();
  m_pActive = vInOrder.empty() ? nullptr : vInOrder.front();
  return S_OK;
}

HRESULT CMultipartArchive::ReadDocument(const std::string& strText, IArchiveFactoryEx* pFactory) {
  KV_FUNC("CMultipartArchive::Load");
  pugi::xml_document document;
  HRESULT hr = ParseDocument(strText, &document);
  if (FAILED(hr)) return hr;
  const pugi::xml_node root = document.document_element();
  const pugi::xml_node description = root.child(kszDescription);
  if (description && std::strcmp(description.attribute(kszTypeAttribute).value(), kszTypeBstr) != 0) return khrInvalidData;

  // The whole file is checked before any archive is opened: a bad file opens nothing.
  struct SEntry {
    WString strPath;
    SPartitionOptions options;
  };
  std::vector<SEntry> vEntries;
  for (pugi::xml_node archive = root.child(kszArchive); archive; archive = archive.next_sibling(kszArchive)) {
    if (vEntries.size() >= kcMaxPartitions) return khrInvalidData;
    const pugi::xml_attribute path = archive.attribute(kszPath);
    if (!path || !*path.value()) return khrInvalidData;
    SEntry entry{NSPlatform::Utf8ToWide(path.value()), {0, 0}};
    if (entry.strPath.find(WCHAR(0)) != WString::npos) return khrInvalidData;
    if (FAILED(hr = SerializeOptions(archive, false, &entry.options))) return hr;
    vEntries.push_back(std::move(entry));
  }
  m_szDescrition = NSPlatform::Utf8ToWide(description.child_value());

  for (SEntry& entry : vEntries) {
    // Only a directory is opened: a file here would be another multipart archive (or this one).
    NSCom::CComPtr<IKronvale> pPartition;
    hr = NSPlatform::IsDirectory(entry.strPath.c_str()) ? S_OK : khrPathNotFound;
    if (SUCCEEDED(hr)) {
      NSCom::CComBSTR bstrPath(entry.strPath);
      hr = pFactory->OpenArchiveEx(bstrPath, 0, &pPartition);
    }
    if (SUCCEEDED(hr) && !ArchiveImplOf(pPartition)) hr = E_INVALIDARG;
    if (SUCCEEDED(hr)) {
      CGuard guard(m_section);
      hr = AddPartitionUnlocked(pPartition, &entry.options);
      // The same archive twice: the second entry is dropped.
      if (FAILED(hr)) continue;
    }
    if (!KV_SUCCEEDED(hr)) {
      KV_LOG_ERROR(KV_W("Partition '%s' of multipart archive '%s' cannot be opened (0x%08X); it is skipped\n"),
                   entry.strPath.c_str(), m_strPath.c_str(), static_cast<unsigned>(hr));
      CGuard guard(m_section);
      m_vAbsent.push_back({entry.strPath, entry.options});
    }
  }
  return S_OK;
}

// Under the lock.
HRESULT CMultipartArchive::BuildDocument(std::string* pstrText) {
  KV_FUNC("CMultipartArchive::Save");
  pugi::xml_document document;
  if (!KV_ASSERT_TEXT(document.load_string(kszTemplate), "document.load_string(kszTemplate)\n")) return E_UNEXPECTED;
  NSArchive::AddDeclaration(document);
  pugi::xml_node root = document.document_element();

  pugi::xml_node description = root.append_child(kszDescription);
  if (!KV_ASSERT_TEXT(description, "spChild\n")) return E_UNEXPECTED;
  description.append_attribute(kszTypeAttribute) = kszTypeBstr;
  if (!description.text().set(NSPlatform::WideToUtf8(m_szDescrition).c_str())) return E_OUTOFMEMORY;

  auto addArchive = [&](const WString& strPath, SPartitionOptions options) -> HRESULT {
    pugi::xml_node archive = root.append_child(kszArchive);
    if (!KV_ASSERT_TEXT(archive, "spChild\n")) return E_UNEXPECTED;
    archive.append_attribute(kszPath) = NSPlatform::WideToUtf8(strPath).c_str();
    return SerializeOptions(archive, true, &options);
  };
  HRESULT hr = S_OK;
  for (auto& entry : m_vPartitions) {
    NSCom::CComBSTR bstrPath;
    if (FAILED(hr = entry.first->GetPath(&bstrPath))) return hr;
    if (FAILED(hr = addArchive(NSCom::BstrText(bstrPath), entry.second.options))) return hr;
  }
  for (const SAbsentPartition& absent : m_vAbsent)
    if (FAILED(hr = addArchive(absent.strPath, absent.options))) return hr;

  *pstrText = NSArchive::DocumentText(document);
  return S_OK;
}

HRESULT CMultipartArchive::Save() {
  KV_FUNC("CMultipartArchive::Save");
  try {
    std::string strText;
    HRESULT hr = BuildDocument(&strText);
    if (!KV_SUCCEEDED(hr)) return hr;
    hr = NSArchive::WriteWholeFile(m_strPath, strText);
    if (!KV_SUCCEEDED(hr)) return hr;
    return S_OK;
  } catch (...) {
    return NSCom::HResultFromCurrentException();
  }
}

HRESULT CMultipartArchive::RefuseWhenLocked() {
  if (HasState(klStateLocked) || m_bFileDeleted) return khrLocked;
  return S_OK;
}

template <class TChange>
HRESULT CMultipartArchive::ChangeUnlessLocked(TChange fnChange) {
  try {
    CGuard guard(m_section);
    const HRESULT hr = RefuseWhenLocked();
    return FAILED(hr) ? hr : fnChange();
  } catch (...) {
    return NSCom::HResultFromCurrentException();
  }
}

// The partitions are let go as owner, so that another multipart archive may take them.
void CMultipartArchive::OnFileDeleted() {
  CGuard guard(m_section);
  m_bFileDeleted = true;
  for (auto& entry : m_vPartitions)
    if (CArchiveImpl* pImpl = ArchiveImplOf(entry.first)) pImpl->ReleaseOwner(this);
}

// ---- Partitions -----------------------------------------------------------------------------------

// The map's key of a partition: the archive's own IKronvale, whatever interface pointer the caller
// holds of it.
IKronvale* CMultipartArchive::Key(IKronvale* pPartition) {
  CArchiveImpl* pImpl = ArchiveImplOf(pPartition);
  return pImpl ? static_cast<IKronvale*>(pImpl) : pPartition;
}

// Ascending "order"; partitions of equal order in the order they were added. Under the lock.
std::vector<IKronvale*> CMultipartArchive::PartitionsInOrder() {
  std::vector<std::pair<std::pair<BYTE, ULONGLONG>, IKronvale*>> vSorted;
  for (const auto& entry : m_vPartitions)
    vSorted.push_back({{entry.second.options.bOrder, entry.second.ullSequence}, entry.first});
  std::sort(vSorted.begin(), vSorted.end());
  std::vector<IKronvale*> vPartitionsInOrder;
  for (const auto& item : vSorted) vPartitionsInOrder.push_back(item.second);
  return vPartitionsInOrder;
}

// Under the lock. A new partition without options comes last in the order.
HRESULT CMultipartArchive::AddPartitionUnlocked(IKronvale* pPartition, const SPartitionOptions* pOptions) {
  KV_FUNC("CMultipartArchive::AddPartition");
  CArchiveImpl* pArchiveImpl = ArchiveImplOf(pPartition);
  if (!KV_ASSERT_TEXT(pArchiveImpl, "pArchiveImpl\n")) return E_INVALIDARG;
  IKronvale* pKey = static_cast<IKronvale*>(pArchiveImpl);
  if (!KV_ASSERT_TEXT(m_vPartitions.end() == m_vPartitions.find(pKey),
                      "m_vPartitions.end()==m_vPartitions.find(pPartition)\n"))
    return E_INVALIDARG;
  // One owner per partition: a partition of another multipart archive is refused.
  if (!KV_ASSERT_TEXT(!pArchiveImpl->HasOwner(), "!pArchiveImpl->HasOwner()\n")) return E_INVALIDARG;
  if (m_vPartitions.size() >= kcMaxPartitions) return E_INVALIDARG;
  SPartitionOptions options = {0, 0};
  if (pOptions) {
    options = *pOptions;
  } else {
    for (const auto& entry : m_vPartitions)
      options.bOrder = std::max<BYTE>(options.bOrder, std::min<int>(entry.second.options.bOrder + 1, kbMaxOrder));
  }
  m_vPartitions[pKey] = {pKey, options, m_ullNextSequence++};
  pArchiveImpl->SetOwner(this);
  if (!m_pActive) m_pActive = pKey;
  m_lSpaceExhausted.fetch_and(~klSpaceExhausted);
  return S_OK;
}

STDMETHODIMP CMultipartArchive::AddPartition(IKronvale* pPartition) {
  KV_FUNC("CMultipartArchive::AddPartition");
  KV_CHECK_POINTER(pPartition);
  return ChangeUnlessLocked([&]() -> HRESULT {
    HRESULT hr = AddPartitionUnlocked(pPartition, nullptr);
    if (FAILED(hr)) return hr;
    IKronvale* pKey = Key(pPartition);
    // Every open record gains its child in the new partition.
    for (CMultipartRecord* pRecord : m_records) {
      NSCom::CComBSTR bstrName(pRecord->GetRecordName());
      NSCom::CComPtr<IRecord> pChild;
      hr = pRecord->IsWriter() ? pKey->CreateRecord(bstrName, &pChild) : pKey->OpenRecord(bstrName, &pChild);
      if (KV_SUCCEEDED(hr)) pRecord->AddRecord(pChild, pKey);
      if (m_pActive == pKey) pRecord->SetActivePartition(pKey);
    }
    hr = Save();
    if (!KV_SUCCEEDED(hr)) return hr;
    return S_OK;
  });
}

STDMETHODIMP CMultipartArchive::RemovePartition(IKronvale* pPartition) {
  KV_FUNC("CMultipartArchive::RemovePartition");
  KV_CHECK_POINTER(pPartition);
  return ChangeUnlessLocked([&]() -> HRESULT {
    IKronvale* pKey = Key(pPartition);
    const auto it = m_vPartitions.find(pKey);
    if (!KV_ASSERT_TEXT(m_vPartitions.end() != it, "m_vPartitions.end()!=m_vPartitions.find(pPartition)\n"))
      return E_INVALIDARG;
    std::vector<IKronvale*> vPartitionsInOrder = PartitionsInOrder();
    const auto itOrder = std::find(vPartitionsInOrder.begin(), vPartitionsInOrder.end(), pKey);
    if (!KV_ASSERT_TEXT(vPartitionsInOrder.end() != itOrder, "vPartitionsInOrder.end()!=it\n")) return E_UNEXPECTED;
    vPartitionsInOrder.erase(itOrder);
    // Held until the records have let go of it.
    const NSCom::CComPtr<IKronvale> pHold = it->second.pArchive;
    for (CMultipartRecord* pRecord : m_records) pRecord->RemoveRecord(nullptr, pKey);
    m_vPartitions.erase(it);
    if (CArchiveImpl* pImpl = ArchiveImplOf(pHold)) pImpl->ReleaseOwner(this);
    if (m_pActive == pKey) {
      m_pActive = nullptr;
      if (!vPartitionsInOrder.empty()) SetActivePartitionUnlocked(vPartitionsInOrder.front());
    }
    const HRESULT hr = Save();
    if (!KV_SUCCEEDED(hr)) return hr;
    return S_OK;
  });
}

STDMETHODIMP CMultipartArchive::SetPartitionOptions(IKronvale* pPartition, const SPartitionOptions* pOptions) {
  KV_FUNC("CMultipartArchive::SetPartitionOptions");
  KV_CHECK_POINTER(pPartition);
  KV_CHECK_POINTER(pOptions);
  return ChangeUnlessLocked([&]() -> HRESULT {
    const auto it = m_vPartitions.find(Key(pPartition));
    if (!KV_ASSERT_TEXT(m_vPartitions.end() != it, "m_vPartitions.end()!=m_vPartitions.find(pPartition)\n"))
      return E_INVALIDARG;
    it->second.options = *pOptions;
    m_lSpaceExhausted.fetch_and(~klSpaceExhausted);
    const HRESULT hr = Save();
    if (!KV_SUCCEEDED(hr)) return hr;
    return S_OK;
  });
}

STDMETHODIMP CMultipartArchive::GetPartitionOptions(IKronvale* pPartition, SPartitionOptions* pOptions) {
  KV_FUNC("CMultipartArchive::GetPartitionOptions");
  KV_CHECK_POINTER(pPartition);
  KV_CHECK_POINTER(pOptions);
  CGuard guard(m_section);
  const auto it = m_vPartitions.find(Key(pPartition));
  if (!KV_ASSERT_TEXT(m_vPartitions.end() != it, "m_vPartitions.end()!=m_vPartitions.find(pPartition)\n"))
    return E_INVALIDARG;
  *pOptions = it->second.options;
  return S_OK;
}

STDMETHODIMP CMultipartArchive::GetPartitions(DWORD* pdwCount, IKronvale*** ppPartitions) {
  KV_FUNC("CMultipartArchive::GetPartitions");
  KV_CHECK_POINTERS(pdwCount && ppPartitions);
  *pdwCount = 0;
  *ppPartitions = nullptr;
  CGuard guard(m_section);
  if (m_vPartitions.empty()) return S_OK;
  auto** ppArray = static_cast<IKronvale**>(CoTaskMemAlloc(m_vPartitions.size() * sizeof(IKronvale*)));
  if (!ppArray) return E_OUTOFMEMORY;
  DWORD i = 0;
  for (auto& entry : m_vPartitions) entry.second.pArchive.CopyTo(&ppArray[i++]);
  *ppPartitions = ppArray;
  *pdwCount = i;
  return S_OK;
}

void CMultipartArchive::OnPartitionQuotaChanged() { m_lSpaceExhausted.fetch_and(~klSpaceExhausted); }

NSCom::CComPtr<IKronvale> CMultipartArchive::GetActivePartition() {
  CGuard guard(m_section);
  return NSCom::CComPtr<IKronvale>(m_pActive);
}

HRESULT CMultipartArchive::SetActivePartition(IKronvale* pPartition) {
  CGuard guard(m_section);
  return SetActivePartitionUnlocked(Key(pPartition));
}

// Under the lock. A record without a child in the partition keeps its active child (reported).
HRESULT CMultipartArchive::SetActivePartitionUnlocked(IKronvale* pPartition) {
  KV_FUNC("CMultipartArchive::SetActivePartition");
  if (!KV_ASSERT_TEXT(m_vPartitions.count(pPartition), "m_vPartitions.end()!=m_vPartitions.find(pPartition)\n"))
    return E_INVALIDARG;
  if (m_pActive == pPartition) return S_FALSE;
  m_pActive = pPartition;
  NSCom::CComBSTR bstrPath;
  pPartition->GetPath(&bstrPath);
  KV_LOG_WARNING(KV_W("Multipart archive '%s' writes to partition '%s' now\n"), m_strPath.c_str(),
                 bstrPath.m_str ? bstrPath.m_str : KV_W(""));
  for (CMultipartRecord* pRecord : m_records) pRecord->SetActivePartition(pPartition);
  return S_OK;
}

HRESULT CMultipartArchive::OnChildRequestChangeActivePartition(IKronvale* pFailed, const SWriteRequest& request) {
  KV_FUNC("CMultipartArchive::OnChildRequestChangeActivePartition");
  try {
    CGuard guard(m_section);
    // Every partition refused a frame already: none is tried again until something changes.
    if (m_lSpaceExhausted.load() & klSpaceExhausted) return khrNoPartition;
    // 1. The partitions in their order.
    std::vector<IKronvale*> vPartitionsInOrder = PartitionsInOrder();
    // 2. The failed one among them.
    auto it = std::find(vPartitionsInOrder.begin(), vPartitionsInOrder.end(), pFailed);
    if (!KV_ASSERT_TEXT(vPartitionsInOrder.end() != it, "vPartitionsInOrder.end()!=it\n")) return E_UNEXPECTED;
    // 3. Each following partition once, wrapping from the last to the first.
    for (;;) {
      it = vPartitionsInOrder.erase(it);
      if (vPartitionsInOrder.empty()) {
        m_lSpaceExhausted.fetch_or(klSpaceExhausted);
        KV_LOG_ERROR(KV_W("Every partition of multipart archive '%s' refused the frame\n"), m_strPath.c_str());
        return khrNoPartition;
      }
      if (it == vPartitionsInOrder.end()) it = vPartitionsInOrder.begin();
      const HRESULT hr =
          request.pRecord->RetryWrite(*it, request.ftFrame, request.dwFlags, request.pBuff, request.dwCount);
      if (KV_SUCCEEDED(hr)) break;
    }
    // 4. The partition that took the frame is active for every record.
    const HRESULT hr = SetActivePartitionUnlocked(*it);
    if (!KV_SUCCEEDED(hr)) return hr;
    return S_OK;
  } catch (...) {
    return NSCom::HResultFromCurrentException();
  }
}

// ---- Records --------------------------------------------------------------------------------------

void CMultipartArchive::ForgetRecord(CMultipartRecord* pRecord) {
  CGuard guard(m_section);
  m_records.erase(pRecord);
}

// The record of that name in every partition (made where missing when bWriter); partitions that
// fail are reported and left out. The active partition's child is the record's active child, or,
// when that partition failed, the first child in order.
template <bool bWriter>
HRESULT CMultipartArchive::MakeRecord(BSTR name, IRecord** ppRecord) {
  KV_FUNC(bWriter ? "CMultipartArchive::CreateRecord" : "CMultipartArchive::OpenRecord");
  try {
    NSCom::CComObject<CMultipartRecord>* pObject = nullptr;
    HRESULT hr = NSCom::CComObject<CMultipartRecord>::CreateInstance(&pObject);
    if (FAILED(hr)) return hr;
    NSCom::CComPtr<IRecord> pRecord(pObject);
    pObject->Init(this, NSCom::BstrText(name), bWriter);
    CGuard guard(m_section);
    if (FAILED(hr = RefuseWhenLocked())) return hr;
    HRESULT hrFirst = khrInvalidState;
    IKronvale* pFirst = nullptr;
    for (IKronvale* pPartition : PartitionsInOrder()) {
      NSCom::CComPtr<IRecord> pChild;
      hr = bWriter ? pPartition->CreateRecord(name, &pChild) : pPartition->OpenRecord(name, &pChild);
      if (!KV_SUCCEEDED(hr)) {
        if (SUCCEEDED(hrFirst) || hrFirst == khrInvalidState) hrFirst = hr;
        continue;
      }
      pObject->AddRecord(pChild, pPartition);
      if (!pFirst) pFirst = pPartition;
      hrFirst = S_OK;
    }
    if (!pFirst) return hrFirst;
    pObject->SetActivePartition(m_pActive && pObject->HasChild(m_pActive) ? m_pActive : pFirst);
    m_records.insert(pObject);
    *ppRecord = pRecord.Detach();
    return S_OK;
  } catch (...) {
    return NSCom::HResultFromCurrentException();
  }
}

STDMETHODIMP CMultipartArchive::CreateRecord(BSTR name, IRecord** ppRecord) {
  KV_FUNC("CMultipartArchive::CreateRecord");
  KV_CHECK_POINTER(ppRecord);
  *ppRecord = nullptr;
  return MakeRecord<true>(name, ppRecord);
}

STDMETHODIMP CMultipartArchive::OpenRecord(BSTR name, IRecord** ppRecord) {
  KV_FUNC("CMultipartArchive::OpenRecord");
  KV_CHECK_POINTER(ppRecord);
  *ppRecord = nullptr;
  return MakeRecord<false>(name, ppRecord);
}

// The names of every partition's records, each once, in order.
STDMETHODIMP CMultipartArchive::GetRecords(BSTR** ppszRecordName, DWORD* pdwRecordNameCount) {
  KV_FUNC("CMultipartArchive::GetRecords");
  KV_CHECK_POINTERS(pdwRecordNameCount && ppszRecordName);
  *ppszRecordName = nullptr;
  *pdwRecordNameCount = 0;
  try {
    std::set<WString> names;
    {
      CGuard guard(m_section);
      if (HasState(klStateLocked)) return khrLocked;
      for (auto& entry : m_vPartitions) {
        BSTR* pNames = nullptr;
        DWORD cNames = 0;
        if (!KV_SUCCEEDED(entry.first->GetRecords(&pNames, &cNames))) continue;
        for (DWORD i = 0; i < cNames; ++i) {
          names.insert(NSCom::BstrText(pNames[i]));
          SysFreeString(pNames[i]);
        }
        CoTaskMemFree(pNames);
      }
    }
    if (names.empty()) return S_OK;
    auto* pNames = static_cast<BSTR*>(CoTaskMemAlloc(names.size() * sizeof(BSTR)));
    if (!pNames) return E_OUTOFMEMORY;
    DWORD i = 0;
    for (const WString& strName : names) {
      pNames[i] = SysAllocStringLen(strName.data(), static_cast<UINT>(strName.size()));
      if (!pNames[i]) {
        while (i > 0) SysFreeString(pNames[--i]);
        CoTaskMemFree(pNames);
        return E_OUTOFMEMORY;
      }
      ++i;
    }
    *ppszRecordName = pNames;
    *pdwRecordNameCount = i;
    return S_OK;
  } catch (...) {
    return NSCom::HResultFromCurrentException();
  }
}

// Deleted in every partition that holds it: 0x80070003 when none does, else the first failure.
STDMETHODIMP CMultipartArchive::DeleteRecord(BSTR name) {
  KV_FUNC("CMultipartArchive::DeleteRecord");
  CGuard guard(m_section);
  if (HasState(klStateLocked)) return khrLocked;
  HRESULT hrResult = khrPathNotFound;
  for (auto& entry : m_vPartitions) {
    const HRESULT hr = entry.first->DeleteRecord(name);
    if (hr == khrPathNotFound) continue;
    if (!KV_SUCCEEDED(hr)) {
      hrResult = hr;
    } else if (hrResult == khrPathNotFound) {
      hrResult = S_OK;
    }
  }
  return hrResult;
}

// ---- Description, path, settings, state -----------------------------------------------------------

STDMETHODIMP CMultipartArchive::SetDescription(BSTR szDescription) {
  KV_FUNC("CMultipartArchive::SetDescription");
  KV_CHECK_POINTER(szDescription);
  if (HasEmbeddedNul(szDescription)) return E_INVALIDARG;
  return ChangeUnlessLocked([&]() -> HRESULT {
    m_szDescrition = NSCom::BstrText(szDescription);
    const HRESULT hr = Save();
    if (!KV_SUCCEEDED(hr)) return hr;
    return S_OK;
  });
}

STDMETHODIMP CMultipartArchive::GetDescription(BSTR* pszDescription) {
  KV_FUNC("CMultipartArchive::GetDescription");
  KV_CHECK_POINTER(pszDescription);
  CGuard guard(m_section);
  *pszDescription = SysAllocStringLen(m_szDescrition.data(), static_cast<UINT>(m_szDescrition.size()));
  if (!KV_ASSERT_TEXT(*pszDescription, "m_szDescrition\n")) return E_OUTOFMEMORY;
  return S_OK;
}

STDMETHODIMP CMultipartArchive::GetPath(BSTR* pszPath) {
  KV_FUNC("CMultipartArchive::GetPath");
  KV_CHECK_POINTER(pszPath);
  CGuard guard(m_section);
  *pszPath = SysAllocStringLen(m_strPath.data(), static_cast<UINT>(m_strPath.size()));
  return *pszPath ? S_OK : E_OUTOFMEMORY;
}

STDMETHODIMP CMultipartArchive::SetQuota(ULONGLONG, ULONGLONG) { return E_NOTIMPL; }

STDMETHODIMP CMultipartArchive::SetFlushTimeout(ULONG ulFlushTimeout) {
  KV_FUNC("CMultipartArchive::SetFlushTimeout");
  CGuard guard(m_section);
  if (HasState(klStateLocked)) return khrLocked;
  HRESULT hrResult = S_OK;
  for (auto& entry : m_vPartitions) {
    const HRESULT hr = entry.first->SetFlushTimeout(ulFlushTimeout);
    if (!KV_SUCCEEDED(hr) && SUCCEEDED(hrResult)) hrResult = hr;
  }
  return hrResult;
}

STDMETHODIMP CMultipartArchive::GetInfo(SArchiveInfo* pArhiveInfo) {
  KV_FUNC("CMultipartArchive::GetInfo");
  KV_CHECK_POINTER(pArhiveInfo);
  CGuard guard(m_section);
  SArchiveInfo sum = {};
  bool bUnlimited = false;
  for (auto& entry : m_vPartitions) {
    SArchiveInfo info = {};
    const HRESULT hr = entry.first->GetInfo(&info);
    if (!KV_SUCCEEDED(hr)) return hr;
    sum.ullFreeDiskSpace += info.ullFreeDiskSpace;
    sum.ullArchiveSize += info.ullArchiveSize;
    sum.ullMinimumFreeDiskSpace += info.ullMinimumFreeDiskSpace;
    sum.ullMaximumArchiveSize += info.ullMaximumArchiveSize;
    bUnlimited = bUnlimited || !info.ullMaximumArchiveSize;
    sum.dwFlushTimeout = std::max(sum.dwFlushTimeout, info.dwFlushTimeout);
    sum.dwAccess |= info.dwAccess;
  }
  if (bUnlimited) sum.ullMaximumArchiveSize = 0;
  *pArhiveInfo = sum;
  return S_OK;
}

STDMETHODIMP CMultipartArchive::Free() {
  // The hook hands the freed bit on to every partition.
  return Change(klStateLocked, 0);
}

void CMultipartArchive::OnChange(LONG, LONG, LONG) {
  KV_FUNC("CMultipartArchive::OnChange");
  CGuard guard(m_section);
  const LONG lState = GetState();
  for (auto& entry : m_vPartitions) {
    NSCom::CComPtr<IStateControl> pState;
    HRESULT hr = entry.first->QueryInterface(__uuidof(IStateControl), reinterpret_cast<void**>(&pState));
    if (SUCCEEDED(hr)) hr = pState->Change(lState & klStateLocked, ~lState & klStateLocked);
    KV_REPORT_IF_FAILED(hr);
  }
  ClearStateBitsUnlocked(klStateHookRan);
}

}  // namespace NSMultipart
