#ifdef _WIN32

#include "marshal/ScriptedObjects.h"

#include <cstring>

using NSCom::CComBSTR;
using NSCom::CComObject;
using NSCom::CComPtr;

namespace NKvMarshalTest {

namespace {

ULONGLONG U64Of(const FILETIME& ft) { return (ULONGLONG(ft.dwHighDateTime) << 32) | ft.dwLowDateTime; }
FILETIME FtOf(ULONGLONG ull) {
  FILETIME ft;
  ft.dwLowDateTime = static_cast<DWORD>(ull);
  ft.dwHighDateTime = static_cast<DWORD>(ull >> 32);
  return ft;
}

// Makes a kit object and hands out its interface I, counted.
template <class T, class I>
HRESULT MakeObject(I** pp, CComObject<T>** ppObject) {
  if (pp == nullptr) {
    return E_POINTER;
  }
  *pp = nullptr;
  CComObject<T>* p = nullptr;
  HRESULT hr = CComObject<T>::CreateInstance(&p);
  if (FAILED(hr)) {
    return hr;
  }
  hr = p->QueryInterface(__uuidof(I), reinterpret_cast<void**>(pp));
  if (FAILED(hr)) {
    delete p;
    return hr;
  }
  if (ppObject != nullptr) {
    *ppObject = p;
  }
  return S_OK;
}

// An exact copy (byte length, embedded zeros) of a BSTR; null for null.
BSTR CopyBstr(BSTR bstr) {
  return bstr != nullptr ? SysAllocStringByteLen(reinterpret_cast<LPCSTR>(bstr), SysStringByteLen(bstr)) : nullptr;
}

}  // namespace

SFilterSeen SeeFilter(const SFrameFilter* pFilter) {
  SFilterSeen seen;
  if (pFilter != nullptr) {
    seen.bPresent = true;
    seen.dwMask = pFilter->dwMask;
    seen.dwMode = static_cast<DWORD>(pFilter->eMode);
  }
  return seen;
}

void SCallSeen::Reset(const char* psz) {
  *this = SCallSeen();
  pszMethod = psz;
  dwThreadId = GetCurrentThreadId();
}

void SCallSeen::String(BSTR bstr) {
  bStringNull = bstr == nullptr;
  cbString = SysStringByteLen(bstr);
  vString.assign(bstr, bstr + SysStringLen(bstr));
}

// ---- CScriptedRecord --------------------------------------------------------------------------------

HRESULT CScriptedRecord::Create(const WCHAR* pszName, IRecordEx** ppRecord, CScriptedRecord** ppObject) {
  CComObject<CScriptedRecord>* p = nullptr;
  HRESULT hr = MakeObject<CScriptedRecord>(ppRecord, &p);
  if (SUCCEEDED(hr)) {
    p->m_bstrName = pszName;
    if (ppObject != nullptr) {
      *ppObject = p;
    }
  }
  return hr;
}

void CScriptedRecord::Seen(const char* pszMethod) { m_seen.Reset(pszMethod); }

HRESULT CScriptedRecord::AnswerString(const CComBSTR& bstr, BSTR* pbstr) {
  if (pbstr == nullptr) {
    return E_POINTER;
  }
  *pbstr = nullptr;
  if (FAILED(m_hrResult)) {
    return m_hrResult;
  }
  HRESULT hr = bstr.CopyTo(pbstr);
  return FAILED(hr) ? hr : m_hrResult;
}

STDMETHODIMP CScriptedRecord::SetDescription(BSTR szDescription) {
  Seen("SetDescription");
  m_seen.String(szDescription);
  m_bstrDescription.Attach(CopyBstr(szDescription));
  return m_hrResult;
}

STDMETHODIMP CScriptedRecord::GetDescription(BSTR* pszDescription) {
  Seen("GetDescription");
  return AnswerString(m_bstrDescription, pszDescription);
}

STDMETHODIMP CScriptedRecord::GetPath(BSTR* pszPath) {
  Seen("GetPath");
  return AnswerString(m_bstrPath, pszPath);
}

STDMETHODIMP CScriptedRecord::Write(FILETIME ftFrame, DWORD dwFlags, const SFrameBuffer* pBuff, DWORD dwCount) {
  Seen("Write");
  m_seen.vTimes = {U64Of(ftFrame)};
  m_seen.vLongs = {static_cast<LONG>(dwFlags), static_cast<LONG>(dwCount)};
  m_bBuffersNull = pBuff == nullptr;
  m_vBuffers.clear();
  for (DWORD i = 0; pBuff != nullptr && i < dwCount; ++i) {
    SBufferSeen seen;
    seen.bData = pBuff[i].pData != nullptr;
    seen.dwDataSize = pBuff[i].dwDataSize;
    if (seen.bData) {
      seen.vData.assign(pBuff[i].pData, pBuff[i].pData + pBuff[i].dwDataSize);
    }
    m_vBuffers.push_back(std::move(seen));
  }
  return m_hrResult;
}

STDMETHODIMP CScriptedRecord::Read(FILETIME ftFrame, DWORD* pdwFlags, SFrameBuffer* pBuff, DWORD dwCount) {
  Seen("Read");
  m_seen.vTimes = {U64Of(ftFrame)};
  m_seen.vLongs = {static_cast<LONG>(dwCount)};
  m_bBuffersNull = pBuff == nullptr;
  m_vBuffers.clear();
  if (pdwFlags == nullptr) {
    return E_POINTER;
  }
  *pdwFlags = m_dwReadFlags;
  for (DWORD i = 0; pBuff != nullptr && i < dwCount; ++i) {
    SBufferSeen seen;
    seen.bData = pBuff[i].pData != nullptr;
    seen.dwDataSize = pBuff[i].dwDataSize;
    m_vBuffers.push_back(seen);
    const std::vector<BYTE> vEmpty;
    const std::vector<BYTE>& vData = i < m_vReadData.size() ? m_vReadData[i] : vEmpty;
    if (pBuff[i].pData != nullptr) {
      const DWORD cb = std::min<DWORD>(pBuff[i].dwDataSize, static_cast<DWORD>(vData.size()));
      if (cb != 0) {
        std::memcpy(pBuff[i].pData, vData.data(), cb);
      }
      pBuff[i].dwDataSize = cb;
    } else if (!vData.empty()) {
      pBuff[i].pData = static_cast<BYTE*>(CoTaskMemAlloc(vData.size()));
      if (pBuff[i].pData == nullptr) {
        return E_OUTOFMEMORY;
      }
      std::memcpy(pBuff[i].pData, vData.data(), vData.size());
      pBuff[i].dwDataSize = static_cast<DWORD>(vData.size());
    } else {
      pBuff[i].dwDataSize = 0;
    }
  }
  return m_hrResult;
}

STDMETHODIMP CScriptedRecord::GetNext(FILETIME ft, const SFrameFilter* pFilter, FILETIME* pftNextFrameTime) {
  Seen("GetNext");
  m_seen.vTimes = {U64Of(ft)};
  m_seen.filter = SeeFilter(pFilter);
  if (pftNextFrameTime == nullptr) {
    return E_POINTER;
  }
  *pftNextFrameTime = FtOf(m_ullTimeOut);
  return m_hrResult;
}

STDMETHODIMP CScriptedRecord::GetPrev(FILETIME ft, const SFrameFilter* pFilter, FILETIME* pftPrevFrameTime) {
  Seen("GetPrev");
  m_seen.vTimes = {U64Of(ft)};
  m_seen.filter = SeeFilter(pFilter);
  if (pftPrevFrameTime == nullptr) {
    return E_POINTER;
  }
  *pftPrevFrameTime = FtOf(m_ullTimeOut);
  return m_hrResult;
}

STDMETHODIMP CScriptedRecord::GetStatistic(FILETIME ftBegin, FILETIME ftEnd, FILETIME ftResolution,
                                           const SFrameFilter* pFilter, LONG lFlags, DWORD* pdwCount,
                                           SRecordStatistic** ppRecordStatistic) {
  Seen("GetStatistic");
  m_seen.vTimes = {U64Of(ftBegin), U64Of(ftEnd), U64Of(ftResolution)};
  m_seen.vLongs = {lFlags};
  m_seen.filter = SeeFilter(pFilter);
  if (pdwCount == nullptr || ppRecordStatistic == nullptr) {
    return E_POINTER;
  }
  *pdwCount = 0;
  *ppRecordStatistic = nullptr;
  if (!m_vStatistic.empty()) {
    const size_t cb = m_vStatistic.size() * sizeof(SRecordStatistic);
    *ppRecordStatistic = static_cast<SRecordStatistic*>(CoTaskMemAlloc(cb));
    if (*ppRecordStatistic == nullptr) {
      return E_OUTOFMEMORY;
    }
    std::memcpy(*ppRecordStatistic, m_vStatistic.data(), cb);
    *pdwCount = static_cast<DWORD>(m_vStatistic.size());
  }
  return m_hrResult;
}

STDMETHODIMP CScriptedRecord::RemoveHour(FILETIME ftHour) {
  Seen("RemoveHour");
  m_seen.vTimes = {U64Of(ftHour)};
  return m_hrResult;
}

STDMETHODIMP CScriptedRecord::GetName(BSTR* pszName) {
  Seen("GetName");
  return AnswerString(m_bstrName, pszName);
}

STDMETHODIMP CScriptedRecord::Extract(FILETIME ftBegin, FILETIME ftEnd, const SFrameFilter* pFilter, LONG lCount,
                                      IRecord** ppExtract) {
  Seen("Extract");
  m_seen.vTimes = {U64Of(ftBegin), U64Of(ftEnd)};
  m_seen.vLongs = {lCount};
  m_seen.filter = SeeFilter(pFilter);
  if (ppExtract == nullptr) {
    return E_POINTER;
  }
  *ppExtract = nullptr;
  if (FAILED(m_hrResult)) {
    return m_hrResult;
  }
  CComPtr<IRecordEx> spExtract;
  HRESULT hr = Create(L"extract", &spExtract);
  if (FAILED(hr)) {
    return hr;
  }
  *ppExtract = spExtract.Detach();
  return m_hrResult;
}

STDMETHODIMP CScriptedRecord::Merge(IRecord* pSource, const SFrameFilter* pFilter, LONG lFlags) {
  Seen("Merge");
  m_seen.vLongs = {lFlags};
  m_seen.filter = SeeFilter(pFilter);
  m_pMergeSource = pSource;
  m_bstrMergeSourceName.Empty();
  m_hrMergeSourceName = E_FAIL;
  if (pSource != nullptr) {
    // A call back through the source while this call is in flight.
    m_hrMergeSourceName = pSource->GetName(&m_bstrMergeSourceName);
  }
  return m_hrResult;
}

STDMETHODIMP CScriptedRecord::CheckFrame(FILETIME ftFrame, const SFrameFilter* pFilter) {
  Seen("CheckFrame");
  m_seen.vTimes = {U64Of(ftFrame)};
  m_seen.filter = SeeFilter(pFilter);
  return m_hrResult;
}

STDMETHODIMP CScriptedRecord::ReservedRange(FILETIME ftBegin, FILETIME ftEnd) {
  Seen("ReservedRange");
  m_seen.vTimes = {U64Of(ftBegin), U64Of(ftEnd)};
  return E_NOTIMPL;
}

STDMETHODIMP CScriptedRecord::GetStatus(BSTR* pszStatus) {
  Seen("GetStatus");
  return AnswerString(m_bstrStatus, pszStatus);
}

STDMETHODIMP CScriptedRecord::GetSibling(LONG bForward, LONG lSteps, FILETIME ft, const SFrameFilter* pFilter,
                                         FILETIME* pftOutFrameTime) {
  Seen("GetSibling");
  m_seen.vTimes = {U64Of(ft)};
  m_seen.vLongs = {bForward, lSteps};
  m_seen.filter = SeeFilter(pFilter);
  if (pftOutFrameTime == nullptr) {
    return E_POINTER;
  }
  *pftOutFrameTime = FtOf(m_ullTimeOut);
  return m_hrResult;
}

// ---- CScriptedArchive -------------------------------------------------------------------------------

HRESULT CScriptedArchive::Create(const WCHAR* pszPath, IMultipartArchive** ppArchive, CScriptedArchive** ppObject) {
  CComObject<CScriptedArchive>* p = nullptr;
  HRESULT hr = MakeObject<CScriptedArchive>(ppArchive, &p);
  if (SUCCEEDED(hr)) {
    p->m_bstrPath = pszPath;
    if (ppObject != nullptr) {
      *ppObject = p;
    }
  }
  return hr;
}

void CScriptedArchive::Seen(const char* pszMethod) { m_seen.Reset(pszMethod); }

void CScriptedArchive::SeePartition(IKronvale* pPartition) {
  m_pPartitionSeen = pPartition;
  m_bstrPartitionPath.Empty();
  m_hrPartitionPath = E_FAIL;
  if (pPartition != nullptr) {
    m_hrPartitionPath = pPartition->GetPath(&m_bstrPartitionPath);
  }
}

STDMETHODIMP CScriptedArchive::SetDescription(BSTR szDescription) {
  Seen("SetDescription");
  m_seen.String(szDescription);
  m_bstrDescription.Attach(CopyBstr(szDescription));
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::GetDescription(BSTR* pszDescription) {
  Seen("GetDescription");
  if (pszDescription == nullptr) {
    return E_POINTER;
  }
  HRESULT hr = m_bstrDescription.CopyTo(pszDescription);
  return FAILED(hr) ? hr : m_hrResult;
}

STDMETHODIMP CScriptedArchive::GetPath(BSTR* pszPath) {
  Seen("GetPath");
  if (pszPath == nullptr) {
    return E_POINTER;
  }
  HRESULT hr = m_bstrPath.CopyTo(pszPath);
  return FAILED(hr) ? hr : m_hrResult;
}

HRESULT CScriptedArchive::NewRecord(const char* pszMethod, BSTR name, IRecord** ppRecord) {
  Seen(pszMethod);
  m_seen.String(name);
  if (ppRecord == nullptr) {
    return E_POINTER;
  }
  *ppRecord = nullptr;
  if (FAILED(m_hrResult)) {
    return m_hrResult;
  }
  CComPtr<IRecordEx> spRecord;
  CScriptedRecord* pObject = nullptr;
  HRESULT hr = CScriptedRecord::Create(nullptr, &spRecord, &pObject);
  if (FAILED(hr)) {
    return hr;
  }
  pObject->m_bstrName.Attach(CopyBstr(name));
  *ppRecord = spRecord.Detach();
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::CreateRecord(BSTR name, IRecord** ppRecord) {
  return NewRecord("CreateRecord", name, ppRecord);
}

STDMETHODIMP CScriptedArchive::OpenRecord(BSTR name, IRecord** ppRecord) {
  return NewRecord("OpenRecord", name, ppRecord);
}

STDMETHODIMP CScriptedArchive::GetRecords(BSTR** ppszRecordName, DWORD* pdwRecordNameCount) {
  Seen("GetRecords");
  if (ppszRecordName == nullptr || pdwRecordNameCount == nullptr) {
    return E_POINTER;
  }
  *ppszRecordName = nullptr;
  *pdwRecordNameCount = 0;
  if (m_vRecordNames.empty()) {
    return m_hrResult;
  }
  BSTR* aNames = static_cast<BSTR*>(CoTaskMemAlloc(m_vRecordNames.size() * sizeof(BSTR)));
  if (aNames == nullptr) {
    return E_OUTOFMEMORY;
  }
  for (size_t i = 0; i < m_vRecordNames.size(); ++i) {
    aNames[i] = m_vRecordNames[i].Copy();
  }
  *ppszRecordName = aNames;
  *pdwRecordNameCount = static_cast<DWORD>(m_vRecordNames.size());
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::SetQuota(ULONGLONG ullMinimumFreeDiskSpace, ULONGLONG ullMaximumArchiveSize) {
  Seen("SetQuota");
  m_seen.vUlls = {ullMinimumFreeDiskSpace, ullMaximumArchiveSize};
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::SetFlushTimeout(ULONG ulFlushTimeout) {
  Seen("SetFlushTimeout");
  m_seen.vLongs = {static_cast<LONG>(ulFlushTimeout)};
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::GetInfo(SArchiveInfo* pArchiveInfo) {
  Seen("GetInfo");
  if (pArchiveInfo == nullptr) {
    return E_POINTER;
  }
  *pArchiveInfo = m_info;
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::Free() {
  Seen("Free");
  ++m_cFree;
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::DeleteRecord(BSTR name) {
  Seen("DeleteRecord");
  m_seen.String(name);
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::AddPartition(IKronvale* pPartition) {
  Seen("AddPartition");
  SeePartition(pPartition);
  if (pPartition != nullptr && SUCCEEDED(m_hrResult)) {
    m_vPartitions.emplace_back(pPartition);
  }
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::RemovePartition(IKronvale* pPartition) {
  Seen("RemovePartition");
  SeePartition(pPartition);
  for (auto it = m_vPartitions.begin(); it != m_vPartitions.end(); ++it) {
    if (it->IsEqualObject(pPartition)) {
      m_vPartitions.erase(it);
      return m_hrResult;
    }
  }
  return E_INVALIDARG;
}

STDMETHODIMP CScriptedArchive::SetPartitionOptions(IKronvale* pPartition, const SPartitionOptions* pOptions) {
  Seen("SetPartitionOptions");
  SeePartition(pPartition);
  m_bOptionsNull = pOptions == nullptr;
  m_optionsSeen = pOptions != nullptr ? *pOptions : SPartitionOptions{};
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::GetPartitionOptions(IKronvale* pPartition, SPartitionOptions* pOptions) {
  Seen("GetPartitionOptions");
  SeePartition(pPartition);
  if (pOptions == nullptr) {
    return E_POINTER;
  }
  *pOptions = m_optionsOut;
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::GetPartitions(DWORD* pdwCount, IKronvale*** ppPartitions) {
  Seen("GetPartitions");
  if (pdwCount == nullptr || ppPartitions == nullptr) {
    return E_POINTER;
  }
  *pdwCount = 0;
  *ppPartitions = nullptr;
  if (m_vPartitions.empty()) {
    return m_hrResult;
  }
  IKronvale** aPartitions = static_cast<IKronvale**>(CoTaskMemAlloc(m_vPartitions.size() * sizeof(IKronvale*)));
  if (aPartitions == nullptr) {
    return E_OUTOFMEMORY;
  }
  for (size_t i = 0; i < m_vPartitions.size(); ++i) {
    m_vPartitions[i].CopyTo(&aPartitions[i]);
  }
  *ppPartitions = aPartitions;
  *pdwCount = static_cast<DWORD>(m_vPartitions.size());
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::SetArchiveQuota(const SArchiveQuota* pQuota) {
  Seen("SetArchiveQuota");
  m_bQuotaNull = pQuota == nullptr;
  m_quotaSeen = pQuota != nullptr ? *pQuota : SArchiveQuota{};
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::GetArchiveQuota(SArchiveQuota* pQuota) {
  Seen("GetArchiveQuota");
  m_bQuotaNull = pQuota == nullptr;
  if (pQuota == nullptr) {
    return E_POINTER;
  }
  m_quotaSeen = *pQuota;
  *pQuota = m_quotaOut;
  return m_hrResult;
}

// ---- CScriptedFactory -------------------------------------------------------------------------------

HRESULT CScriptedFactory::Create(IArchiveFactory** ppFactory, CScriptedFactory** ppObject) {
  CComObject<CScriptedFactory>* p = nullptr;
  HRESULT hr = MakeObject<CScriptedFactory>(ppFactory, &p);
  if (SUCCEEDED(hr) && ppObject != nullptr) {
    *ppObject = p;
  }
  return hr;
}

HRESULT CScriptedFactory::Make(const char* pszMethod, BSTR path, CComPtr<IMultipartArchive>& spArchive) {
  m_seen.Reset(pszMethod);
  m_seen.String(path);
  if (FAILED(m_hrResult)) {
    return m_hrResult;
  }
  CScriptedArchive* pObject = nullptr;
  HRESULT hr = CScriptedArchive::Create(nullptr, &spArchive, &pObject);
  if (FAILED(hr)) {
    return hr;
  }
  pObject->m_bstrPath.Attach(CopyBstr(path));
  m_pLastMade = pObject;
  return m_hrResult;
}

STDMETHODIMP CScriptedFactory::CreateArchive(BSTR path, IKronvale** ppKronvale) {
  if (ppKronvale == nullptr) {
    return E_POINTER;
  }
  CComPtr<IMultipartArchive> spArchive;
  HRESULT hr = Make("CreateArchive", path, spArchive);
  *ppKronvale = spArchive.Detach();
  return hr;
}

STDMETHODIMP CScriptedFactory::OpenArchive(BSTR path, IKronvale** ppKronvale) {
  if (ppKronvale == nullptr) {
    return E_POINTER;
  }
  CComPtr<IMultipartArchive> spArchive;
  HRESULT hr = Make("OpenArchive", path, spArchive);
  *ppKronvale = spArchive.Detach();
  return hr;
}

STDMETHODIMP CScriptedFactory::DeleteArchive(BSTR path) {
  m_seen.Reset("DeleteArchive");
  m_seen.String(path);
  return m_hrResult;
}

STDMETHODIMP CScriptedFactory::CreateMultipartArchive(BSTR path, IMultipartArchive** ppMultipartArchive) {
  if (ppMultipartArchive == nullptr) {
    return E_POINTER;
  }
  CComPtr<IMultipartArchive> spArchive;
  HRESULT hr = Make("CreateMultipartArchive", path, spArchive);
  *ppMultipartArchive = spArchive.Detach();
  return hr;
}

}  // namespace NKvMarshalTest

#endif  // _WIN32
