#ifdef _WIN32

#include "marshal/ScriptedObjects.h"

#include <cstring>

using NSCom::CComBSTR;
using NSCom::CComObject;
using NSCom::CComPtr;

namespace NSTest {

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

// Records a BSTR in-parameter and keeps an exact copy of it in bstrStore; answers hr.
HRESULT StoreString(SCallSeen& seen, const char* pszMethod, BSTR bstr, CComBSTR& bstrStore, HRESULT hr) {
  seen.Reset(pszMethod);
  seen.string = ContentOf(bstr);
  bstrStore.Attach(CopyBstr(bstr));
  return hr;
}

// Records a call that hands out a copy of bstr; answers the script's hr.
HRESULT AnswerString(SCallSeen& seen, const char* pszMethod, const CComBSTR& bstr, BSTR* pbstr, HRESULT hr) {
  seen.Reset(pszMethod);
  if (pbstr == nullptr) {
    return E_POINTER;
  }
  *pbstr = nullptr;
  if (FAILED(hr)) {
    return hr;
  }
  const HRESULT hrCopy = bstr.CopyTo(pbstr);
  return FAILED(hrCopy) ? hrCopy : hr;
}

// A callee-allocated array of copies of v's elements (copied by fnCopy); none answers a null array.
template <class T, class TItem, class TCopy>
HRESULT AnswerArray(const std::vector<TItem>& v, T** ppArray, DWORD* pdwCount, TCopy fnCopy) {
  if (ppArray == nullptr || pdwCount == nullptr) {
    return E_POINTER;
  }
  *ppArray = nullptr;
  *pdwCount = 0;
  if (v.empty()) {
    return S_OK;
  }
  T* a = static_cast<T*>(CoTaskMemAlloc(v.size() * sizeof(T)));
  if (a == nullptr) {
    return E_OUTOFMEMORY;
  }
  for (size_t i = 0; i < v.size(); ++i) {
    a[i] = fnCopy(v[i]);
  }
  *ppArray = a;
  *pdwCount = static_cast<DWORD>(v.size());
  return S_OK;
}

// Makes a scripted record or archive, attaching an exact copy of strName as its name or path.
template <class T, class I>
HRESULT MakeNamed(BSTR bstrName, CComBSTR T::*pmName, I** pp, T** ppObject) {
  CComObject<T>* p = nullptr;
  const HRESULT hr = MakeObject<T>(pp, &p);
  if (SUCCEEDED(hr)) {
    (p->*pmName).Attach(CopyBstr(bstrName));
    if (ppObject != nullptr) {
      *ppObject = p;
    }
  }
  return hr;
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

SBstrContent ContentOf(BSTR bstr) {
  SBstrContent content;
  content.bNull = bstr == nullptr;
  content.cbBytes = SysStringByteLen(bstr);
  content.vChars.assign(bstr, bstr + SysStringLen(bstr));
  return content;
}

void SCallSeen::Reset(const char* psz, const SFrameFilter* pFilter) {
  *this = SCallSeen();
  pszMethod = psz;
  dwThreadId = GetCurrentThreadId();
  filter = SeeFilter(pFilter);
}

// ---- CScriptedRecord --------------------------------------------------------------------------------

HRESULT CScriptedRecord::Create(const WCHAR* pszName, IRecordEx** ppRecord, CScriptedRecord** ppObject) {
  return MakeNamed(CComBSTR(pszName), &CScriptedRecord::m_bstrName, ppRecord, ppObject);
}

HRESULT CScriptedRecord::AnswerTime(FILETIME* pft) {
  if (pft == nullptr) {
    return E_POINTER;
  }
  *pft = FtOf(m_ullTimeOut);
  return m_hrResult;
}

void CScriptedRecord::SeeBuffers(const char* pszMethod, FILETIME ft, const SFrameBuffer* pBuff, DWORD dwCount,
                                 bool bBytes) {
  m_seen.Reset(pszMethod);
  m_seen.vTimes = {U64Of(ft)};
  m_seen.vLongs = {static_cast<LONG>(dwCount)};
  m_bBuffersNull = pBuff == nullptr;
  m_vBuffers.clear();
  for (DWORD i = 0; pBuff != nullptr && i < dwCount; ++i) {
    SBufferSeen seen{pBuff[i].pData != nullptr, pBuff[i].dwDataSize, {}};
    if (bBytes && seen.bData) {
      seen.vData.assign(pBuff[i].pData, pBuff[i].pData + pBuff[i].dwDataSize);
    }
    m_vBuffers.push_back(std::move(seen));
  }
}

STDMETHODIMP CScriptedRecord::SetDescription(BSTR szDescription) {
  return StoreString(m_seen, "SetDescription", szDescription, m_bstrDescription, m_hrResult);
}
STDMETHODIMP CScriptedRecord::GetDescription(BSTR* pszDescription) {
  return AnswerString(m_seen, "GetDescription", m_bstrDescription, pszDescription, m_hrResult);
}
STDMETHODIMP CScriptedRecord::GetPath(BSTR* pszPath) {
  return AnswerString(m_seen, "GetPath", m_bstrPath, pszPath, m_hrResult);
}
STDMETHODIMP CScriptedRecord::GetName(BSTR* pszName) {
  return AnswerString(m_seen, "GetName", m_bstrName, pszName, m_hrResult);
}
STDMETHODIMP CScriptedRecord::GetStatus(BSTR* pszStatus) {
  return AnswerString(m_seen, "GetStatus", m_bstrStatus, pszStatus, m_hrResult);
}

STDMETHODIMP CScriptedRecord::Write(FILETIME ftFrame, DWORD dwFlags, const SFrameBuffer* pBuff, DWORD dwCount) {
  SeeBuffers("Write", ftFrame, pBuff, dwCount, true);
  m_seen.vLongs.insert(m_seen.vLongs.begin(), static_cast<LONG>(dwFlags));
  return m_hrResult;
}

STDMETHODIMP CScriptedRecord::Read(FILETIME ftFrame, DWORD* pdwFlags, SFrameBuffer* pBuff, DWORD dwCount) {
  SeeBuffers("Read", ftFrame, pBuff, dwCount, false);
  if (pdwFlags == nullptr) {
    return E_POINTER;
  }
  *pdwFlags = m_dwReadFlags;
  for (DWORD i = 0; pBuff != nullptr && i < dwCount; ++i) {
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
  m_seen.Reset("GetNext", pFilter);
  m_seen.vTimes = {U64Of(ft)};
  return AnswerTime(pftNextFrameTime);
}

STDMETHODIMP CScriptedRecord::GetPrev(FILETIME ft, const SFrameFilter* pFilter, FILETIME* pftPrevFrameTime) {
  m_seen.Reset("GetPrev", pFilter);
  m_seen.vTimes = {U64Of(ft)};
  return AnswerTime(pftPrevFrameTime);
}

STDMETHODIMP CScriptedRecord::GetStatistic(FILETIME ftBegin, FILETIME ftEnd, FILETIME ftResolution,
                                           const SFrameFilter* pFilter, LONG lFlags, DWORD* pdwCount,
                                           SRecordStatistic** ppRecordStatistic) {
  m_seen.Reset("GetStatistic", pFilter);
  m_seen.vTimes = {U64Of(ftBegin), U64Of(ftEnd), U64Of(ftResolution)};
  m_seen.vLongs = {lFlags};
  const HRESULT hr = AnswerArray(m_vStatistic, ppRecordStatistic, pdwCount, [](const SRecordStatistic& x) { return x; });
  return FAILED(hr) ? hr : m_hrResult;
}

STDMETHODIMP CScriptedRecord::RemoveHour(FILETIME ftHour) {
  m_seen.Reset("RemoveHour");
  m_seen.vTimes = {U64Of(ftHour)};
  return m_hrResult;
}

STDMETHODIMP CScriptedRecord::Extract(FILETIME ftBegin, FILETIME ftEnd, const SFrameFilter* pFilter, LONG lCount,
                                      IRecord** ppExtract) {
  m_seen.Reset("Extract", pFilter);
  m_seen.vTimes = {U64Of(ftBegin), U64Of(ftEnd)};
  m_seen.vLongs = {lCount};
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
  m_seen.Reset("Merge", pFilter);
  m_seen.vLongs = {lFlags};
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
  m_seen.Reset("CheckFrame", pFilter);
  m_seen.vTimes = {U64Of(ftFrame)};
  return m_hrResult;
}

STDMETHODIMP CScriptedRecord::ReservedRange(FILETIME ftBegin, FILETIME ftEnd) {
  m_seen.Reset("ReservedRange");
  m_seen.vTimes = {U64Of(ftBegin), U64Of(ftEnd)};
  return E_NOTIMPL;
}

STDMETHODIMP CScriptedRecord::GetSibling(LONG bForward, LONG lSteps, FILETIME ft, const SFrameFilter* pFilter,
                                         FILETIME* pftOutFrameTime) {
  m_seen.Reset("GetSibling", pFilter);
  m_seen.vTimes = {U64Of(ft)};
  m_seen.vLongs = {bForward, lSteps};
  return AnswerTime(pftOutFrameTime);
}

// ---- CScriptedArchive -------------------------------------------------------------------------------

HRESULT CScriptedArchive::Create(const WCHAR* pszPath, IMultipartArchive** ppArchive, CScriptedArchive** ppObject) {
  return MakeNamed(CComBSTR(pszPath), &CScriptedArchive::m_bstrPath, ppArchive, ppObject);
}

void CScriptedArchive::SeePartition(const char* pszMethod, IKronvale* pPartition) {
  m_seen.Reset(pszMethod);
  m_pPartitionSeen = pPartition;
  m_bstrPartitionPath.Empty();
  m_hrPartitionPath = E_FAIL;
  if (pPartition != nullptr) {
    m_hrPartitionPath = pPartition->GetPath(&m_bstrPartitionPath);
  }
}

STDMETHODIMP CScriptedArchive::SetDescription(BSTR szDescription) {
  return StoreString(m_seen, "SetDescription", szDescription, m_bstrDescription, m_hrResult);
}
STDMETHODIMP CScriptedArchive::GetDescription(BSTR* pszDescription) {
  return AnswerString(m_seen, "GetDescription", m_bstrDescription, pszDescription, m_hrResult);
}
STDMETHODIMP CScriptedArchive::GetPath(BSTR* pszPath) {
  return AnswerString(m_seen, "GetPath", m_bstrPath, pszPath, m_hrResult);
}

HRESULT CScriptedArchive::NewRecord(const char* pszMethod, BSTR name, IRecord** ppRecord) {
  m_seen.Reset(pszMethod);
  m_seen.string = ContentOf(name);
  if (ppRecord == nullptr) {
    return E_POINTER;
  }
  *ppRecord = nullptr;
  if (FAILED(m_hrResult)) {
    return m_hrResult;
  }
  CComPtr<IRecordEx> spRecord;
  const HRESULT hr = MakeNamed<CScriptedRecord>(name, &CScriptedRecord::m_bstrName, &spRecord, nullptr);
  *ppRecord = spRecord.Detach();
  return FAILED(hr) ? hr : m_hrResult;
}

STDMETHODIMP CScriptedArchive::CreateRecord(BSTR name, IRecord** ppRecord) {
  return NewRecord("CreateRecord", name, ppRecord);
}

STDMETHODIMP CScriptedArchive::OpenRecord(BSTR name, IRecord** ppRecord) {
  return NewRecord("OpenRecord", name, ppRecord);
}

STDMETHODIMP CScriptedArchive::GetRecords(BSTR** ppszRecordName, DWORD* pdwRecordNameCount) {
  m_seen.Reset("GetRecords");
  const HRESULT hr = AnswerArray(m_vRecordNames, ppszRecordName, pdwRecordNameCount, [](const CComBSTR& x) { return x.Copy(); });
  return FAILED(hr) ? hr : m_hrResult;
}

STDMETHODIMP CScriptedArchive::SetQuota(ULONGLONG ullMinimumFreeDiskSpace, ULONGLONG ullMaximumArchiveSize) {
  m_seen.Reset("SetQuota");
  m_seen.vUlls = {ullMinimumFreeDiskSpace, ullMaximumArchiveSize};
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::SetFlushTimeout(ULONG ulFlushTimeout) {
  m_seen.Reset("SetFlushTimeout");
  m_seen.vLongs = {static_cast<LONG>(ulFlushTimeout)};
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::GetInfo(SArchiveInfo* pArchiveInfo) {
  m_seen.Reset("GetInfo");
  if (pArchiveInfo == nullptr) {
    return E_POINTER;
  }
  *pArchiveInfo = m_info;
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::Free() {
  m_seen.Reset("Free");
  ++m_cFree;
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::DeleteRecord(BSTR name) {
  m_seen.Reset("DeleteRecord");
  m_seen.string = ContentOf(name);
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::AddPartition(IKronvale* pPartition) {
  SeePartition("AddPartition", pPartition);
  if (pPartition != nullptr && SUCCEEDED(m_hrResult)) {
    m_vPartitions.emplace_back(pPartition);
  }
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::RemovePartition(IKronvale* pPartition) {
  SeePartition("RemovePartition", pPartition);
  for (auto it = m_vPartitions.begin(); it != m_vPartitions.end(); ++it) {
    if (it->IsEqualObject(pPartition)) {
      m_vPartitions.erase(it);
      return m_hrResult;
    }
  }
  return E_INVALIDARG;
}

STDMETHODIMP CScriptedArchive::SetPartitionOptions(IKronvale* pPartition, const SPartitionOptions* pOptions) {
  SeePartition("SetPartitionOptions", pPartition);
  m_bOptionsNull = pOptions == nullptr;
  m_optionsSeen = pOptions != nullptr ? *pOptions : SPartitionOptions{};
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::GetPartitionOptions(IKronvale* pPartition, SPartitionOptions* pOptions) {
  SeePartition("GetPartitionOptions", pPartition);
  if (pOptions == nullptr) {
    return E_POINTER;
  }
  *pOptions = m_optionsOut;
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::GetPartitions(DWORD* pdwCount, IKronvale*** ppPartitions) {
  m_seen.Reset("GetPartitions");
  const HRESULT hr = AnswerArray(m_vPartitions, ppPartitions, pdwCount, [](const CComPtr<IKronvale>& sp) {
    sp.p->AddRef();
    return sp.p;
  });
  return FAILED(hr) ? hr : m_hrResult;
}

STDMETHODIMP CScriptedArchive::SetArchiveQuota(const SArchiveQuota* pQuota) {
  m_seen.Reset("SetArchiveQuota");
  m_bQuotaNull = pQuota == nullptr;
  m_quotaSeen = pQuota != nullptr ? *pQuota : SArchiveQuota{};
  return m_hrResult;
}

STDMETHODIMP CScriptedArchive::GetArchiveQuota(SArchiveQuota* pQuota) {
  m_seen.Reset("GetArchiveQuota");
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

template <class I>
HRESULT CScriptedFactory::Make(const char* pszMethod, BSTR path, I** pp) {
  m_seen.Reset(pszMethod);
  m_seen.string = ContentOf(path);
  if (pp == nullptr) {
    return E_POINTER;
  }
  *pp = nullptr;
  if (FAILED(m_hrResult)) {
    return m_hrResult;
  }
  CComPtr<IMultipartArchive> spArchive;
  const HRESULT hr = MakeNamed<CScriptedArchive>(path, &CScriptedArchive::m_bstrPath, &spArchive, &m_pLastMade);
  *pp = spArchive.Detach();
  return FAILED(hr) ? hr : m_hrResult;
}

STDMETHODIMP CScriptedFactory::CreateArchive(BSTR path, IKronvale** ppKronvale) {
  return Make("CreateArchive", path, ppKronvale);
}
STDMETHODIMP CScriptedFactory::OpenArchive(BSTR path, IKronvale** ppKronvale) {
  return Make("OpenArchive", path, ppKronvale);
}
STDMETHODIMP CScriptedFactory::CreateMultipartArchive(BSTR path, IMultipartArchive** ppMultipartArchive) {
  return Make("CreateMultipartArchive", path, ppMultipartArchive);
}
STDMETHODIMP CScriptedFactory::DeleteArchive(BSTR path) {
  m_seen.Reset("DeleteArchive");
  m_seen.string = ContentOf(path);
  return m_hrResult;
}

}  // namespace NSTest

#endif  // _WIN32
