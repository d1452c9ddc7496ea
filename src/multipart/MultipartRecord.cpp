// The multipart record: its children, the write fail-over and the forwarded operations.
#include "multipart/MultipartRecord.h"

#include <kronvale/KronvaleResults.h>

#include "multipart/MultipartArchive.h"
#include "support/Report.h"

namespace NSMultipart {

using namespace NSKronvale;

void CMultipartRecord::Init(CMultipartArchive* pOwner, const WString& strName, bool bWriter) {
  m_pOwner = pOwner;
  m_pOwnerHold = static_cast<IMultipartArchive*>(pOwner);
  m_strName = strName;
  m_bWriter = bWriter;
}

void CMultipartRecord::FinalRelease() {
  if (m_pOwner) m_pOwner->ForgetRecord(this);
  CGuard guard(m_section);
  m_spActiveRecord = nullptr;
  m_children.clear();
}

HRESULT CMultipartRecord::AddRecord(IRecord* pRecord, IKronvale* pArchive) {
  KV_FUNC("CMultipartRecord::AddRecord");
  KV_CHECK_POINTER(pRecord);
  KV_CHECK_POINTER(pArchive);
  CGuard guard(m_section);
  SChild& child = m_children[pArchive];
  child.pArchive = pArchive;
  child.pRecord = pRecord;
  return S_OK;
}

HRESULT CMultipartRecord::RemoveRecord(IRecord* pRecord, IKronvale* pArchive) {
  KV_FUNC("CMultipartRecord::RemoveRecord");
  KV_CHECK_POINTERS(pRecord || pArchive);
  CGuard guard(m_section);
  for (auto it = m_children.begin(); it != m_children.end(); ++it) {
    if (it->first != pArchive && it->second.pRecord.p != pRecord) continue;
    if (m_spActiveRecord.p == it->second.pRecord.p) m_spActiveRecord = nullptr;
    m_children.erase(it);
    return S_OK;
  }
  return S_FALSE;
}

HRESULT CMultipartRecord::SetActivePartition(IKronvale* pArchive) {
  KV_FUNC("CMultipartRecord::SetActivePartition");
  CGuard guard(m_section);
  const auto it = m_children.find(pArchive);
  NSCom::CComPtr<IRecord> spActiveRecord = it != m_children.end() ? it->second.pRecord : nullptr;
  if (!KV_ASSERT_TEXT(spActiveRecord, "m_spActiveRecord\n")) return E_UNEXPECTED;
  m_spActiveRecord = spActiveRecord;
  return S_OK;
}

bool CMultipartRecord::HasChild(IKronvale* pArchive) {
  CGuard guard(m_section);
  return m_children.count(pArchive) != 0;
}

NSCom::CComPtr<IRecord> CMultipartRecord::Active() {
  NSCom::CComPtr<IRecord> spRecord;
  {
    CGuard guard(m_section);
    spRecord = m_spActiveRecord;
  }
  KV_ASSERT_TEXT(spRecord, "m_spActiveRecord\n");
  return spRecord;
}

// ---- Writing --------------------------------------------------------------------------------------

STDMETHODIMP CMultipartRecord::Write(FILETIME ftFrame, DWORD dwFlags, const SFrameBuffer* pBuff, DWORD dwCount) {
  KV_FUNC("CMultipartRecord::Write");
  if (dwCount) KV_CHECK_POINTER(pBuff);
  // 1. The active child, taken under the lock, writes outside it.
  NSCom::CComPtr<IRecord> spFailed;
  {
    CGuard guard(m_section);
    spFailed = m_spActiveRecord;
  }
  if (!KV_ASSERT_TEXT(spFailed, "m_spActiveRecord\n")) return khrInvalidState;
  HRESULT hr = spFailed->Write(ftFrame, dwFlags, pBuff, dwCount);
  // 2. Taken.
  if (SUCCEEDED(hr)) return hr;
  // 3. A freed partition is not a full disk: the frame goes nowhere else.
  if (hr == khrLocked) return hr;
  // 4. Another writer may have failed over meanwhile: then the frame goes to the new active child.
  NSCom::CComPtr<IRecord> spActive;
  IKronvale* pFailedPartition = nullptr;
  {
    CGuard guard(m_section);
    spActive = m_spActiveRecord;
    for (const auto& child : m_children)
      if (child.second.pRecord.p == spFailed.p) pFailedPartition = child.first;
  }
  if (spActive && spActive.p != spFailed.p) return spActive->Write(ftFrame, dwFlags, pBuff, dwCount);
  // 5. Unchanged: the archive walks the partitions for this frame.
  if (!KV_ASSERT_TEXT(pFailedPartition, "pPartition\n")) return hr;
  hr = m_pOwner->OnChildRequestChangeActivePartition(pFailedPartition, {this, ftFrame, dwFlags, pBuff, dwCount});
  KV_REPORT_IF_FAILED(hr);
  return hr;
}

HRESULT CMultipartRecord::RetryWrite(IKronvale* pArchive, FILETIME ftFrame, DWORD dwFlags, const SFrameBuffer* pBuff,
                                     DWORD dwCount) {
  KV_FUNC("CMultipartRecord::RetryWrite");
  NSCom::CComPtr<IRecord> spRecord;
  {
    CGuard guard(m_section);
    const auto it = m_children.find(pArchive);
    if (it != m_children.end()) spRecord = it->second.pRecord;
  }
  if (!KV_ASSERT_TEXT(spRecord, "spRecord\n")) return E_UNEXPECTED;
  return spRecord->Write(ftFrame, dwFlags, pBuff, dwCount);
}

// ---- Description ----------------------------------------------------------------------------------

STDMETHODIMP CMultipartRecord::SetDescription(BSTR szDescription) {
  KV_FUNC("CMultipartRecord::SetDescription");
  KV_CHECK_POINTER(szDescription);
  std::vector<NSCom::CComPtr<IRecord>> vChildren;
  {
    CGuard guard(m_section);
    for (const auto& child : m_children) vChildren.push_back(child.second.pRecord);
  }
  HRESULT hrResult = vChildren.empty() ? khrInvalidState : S_OK;
  for (IRecord* pChild : vChildren) {
    const HRESULT hr = pChild->SetDescription(szDescription);
    if (!KV_SUCCEEDED(hr) && SUCCEEDED(hrResult)) hrResult = hr;
  }
  return hrResult;
}

// The children's descriptions must agree; when they do not, the first one read is answered.
STDMETHODIMP CMultipartRecord::GetDescription(BSTR* pszDescription) {
  KV_FUNC("CMultipartRecord::GetDescription");
  KV_CHECK_POINTER(pszDescription);
  *pszDescription = nullptr;
  std::vector<NSCom::CComPtr<IRecord>> vChildren;
  {
    CGuard guard(m_section);
    for (const auto& child : m_children) vChildren.push_back(child.second.pRecord);
  }
  NSCom::CComBSTR szPrevDescription;
  HRESULT hrFirst = khrInvalidState;
  for (IRecord* pChild : vChildren) {
    NSCom::CComBSTR szDescription;
    hrFirst = pChild->GetDescription(&szDescription);
    if (FAILED(hrFirst) || !szDescription.m_str) continue;
    if (!szPrevDescription.m_str) {
      szPrevDescription.Attach(szDescription.Detach());
      continue;
    }
    const bool bSame = SysStringLen(szPrevDescription) == SysStringLen(szDescription) &&
                       WStringView(szPrevDescription, SysStringLen(szPrevDescription)) ==
                           WStringView(szDescription, SysStringLen(szDescription));
    KV_ASSERT_TEXT(bSame, "szPrevDescription==szDescription\n");
  }
  if (!szPrevDescription.m_str) return FAILED(hrFirst) ? hrFirst : khrInvalidState;
  *pszDescription = szPrevDescription.Detach();
  return S_OK;
}

// ---- Forwarded ------------------------------------------------------------------------------------

STDMETHODIMP CMultipartRecord::GetPath(BSTR* pszPath) {
  KV_FUNC("CMultipartRecord::GetPath");
  KV_CHECK_POINTER(pszPath);
  *pszPath = nullptr;
  NSCom::CComPtr<IRecord> spRecord = Active();
  return spRecord ? spRecord->GetPath(pszPath) : khrInvalidState;
}

STDMETHODIMP CMultipartRecord::GetName(BSTR* pszName) {
  KV_FUNC("CMultipartRecord::GetName");
  KV_CHECK_POINTER(pszName);
  *pszName = nullptr;
  NSCom::CComPtr<IRecord> spRecord = Active();
  return spRecord ? spRecord->GetName(pszName) : khrInvalidState;
}

STDMETHODIMP CMultipartRecord::Read(FILETIME ftFrame, DWORD* pdwFlags, SFrameBuffer* pBuff, DWORD dwCount) {
  KV_FUNC("CMultipartRecord::Read");
  NSCom::CComPtr<IRecord> spRecord = Active();
  return spRecord ? spRecord->Read(ftFrame, pdwFlags, pBuff, dwCount) : khrInvalidState;
}

STDMETHODIMP CMultipartRecord::GetNext(FILETIME ft, const SFrameFilter* pFilter, FILETIME* pftNextFrameTime) {
  KV_FUNC("CMultipartRecord::GetNext");
  NSCom::CComPtr<IRecord> spRecord = Active();
  return spRecord ? spRecord->GetNext(ft, pFilter, pftNextFrameTime) : khrInvalidState;
}

STDMETHODIMP CMultipartRecord::GetPrev(FILETIME ft, const SFrameFilter* pFilter, FILETIME* pftPrevFrameTime) {
  KV_FUNC("CMultipartRecord::GetPrev");
  NSCom::CComPtr<IRecord> spRecord = Active();
  return spRecord ? spRecord->GetPrev(ft, pFilter, pftPrevFrameTime) : khrInvalidState;
}

STDMETHODIMP CMultipartRecord::GetStatistic(FILETIME ftBegin, FILETIME ftEnd, FILETIME ftResolution,
                                            const SFrameFilter* pFilter, LONG lFlags, DWORD* pdwCount,
                                            SRecordStatistic** ppRecordStatistic) {
  KV_FUNC("CMultipartRecord::GetStatistic");
  NSCom::CComPtr<IRecord> spRecord = Active();
  return spRecord ? spRecord->GetStatistic(ftBegin, ftEnd, ftResolution, pFilter, lFlags, pdwCount, ppRecordStatistic)
                  : khrInvalidState;
}

STDMETHODIMP CMultipartRecord::RemoveHour(FILETIME ftHour) {
  KV_FUNC("CMultipartRecord::RemoveHour");
  NSCom::CComPtr<IRecord> spRecord = Active();
  return spRecord ? spRecord->RemoveHour(ftHour) : khrInvalidState;
}

STDMETHODIMP CMultipartRecord::Extract(FILETIME ftBegin, FILETIME ftEnd, const SFrameFilter* pFilter, LONG lCount,
                                       IRecord** ppExtract) {
  KV_FUNC("CMultipartRecord::Extract");
  NSCom::CComPtr<IRecord> spRecord = Active();
  return spRecord ? spRecord->Extract(ftBegin, ftEnd, pFilter, lCount, ppExtract) : khrInvalidState;
}

STDMETHODIMP CMultipartRecord::Merge(IRecord* pSource, const SFrameFilter* pFilter, LONG lFlags) {
  KV_FUNC("CMultipartRecord::Merge");
  NSCom::CComPtr<IRecord> spRecord = Active();
  return spRecord ? spRecord->Merge(pSource, pFilter, lFlags) : khrInvalidState;
}

STDMETHODIMP CMultipartRecord::CheckFrame(FILETIME ftFrame, const SFrameFilter* pFilter) {
  KV_FUNC("CMultipartRecord::CheckFrame");
  NSCom::CComPtr<IRecord> spRecord = Active();
  return spRecord ? spRecord->CheckFrame(ftFrame, pFilter) : khrInvalidState;
}

}  // namespace NSMultipart
