// The record's work on whole hours: removal, repair and its status, merge, fast copy.
#include <vector>
#include <kronvale/KronvaleResults.h>

#include "frame/Resources.h"
#include "hours/KronvaleUtils.h"
#include "records/Record.h"
#include "support/Report.h"
#include "support/WideFormat.h"

namespace NSRecords {

using namespace NSKronvale;

using NSHours::CHourManager;
using NSPlatform::FileTimeToU64;
using NSPlatform::U64ToFileTime;

namespace {

// Frames of a merge carry at most this many buffers (an hour's frame header counts them in 16 bits).
constexpr LONG kcMaxMergeBuffers = 0xFFFF;

class CTaskBuffers {
 public:
  explicit CTaskBuffers(DWORD dwCount) : m_vBuffers(dwCount, SFrameBuffer{nullptr, 0}) {}
  ~CTaskBuffers() { Clear(); }
  CTaskBuffers(const CTaskBuffers&) = delete;
  CTaskBuffers& operator=(const CTaskBuffers&) = delete;
  // Frees what the last read handed out and makes every buffer ask for task memory again.
  void Clear() {
    for (SFrameBuffer& buffer : m_vBuffers) {
      CoTaskMemFree(buffer.pData);
      buffer = {nullptr, 0};
    }
  }
  SFrameBuffer* Data() { return m_vBuffers.empty() ? nullptr : m_vBuffers.data(); }

 private:
  std::vector<SFrameBuffer> m_vBuffers;
};

// Hands every file of a copied hour to the disk. A file the source held read-only is made writable:
// the copy is an hour of its target record, which appends to it and repairs it.
HRESULT FlushFiles(const WString& strDirectory) {
  std::vector<NSPlatform::SDirEntry> vEntries;
  HRESULT hr = NSPlatform::ListDir(strDirectory.c_str(), &vEntries);
  for (size_t i = 0; SUCCEEDED(hr) && i < vEntries.size(); ++i) {
    if (vEntries[i].IsDirectory()) continue;
    const WString strFile = NSPlatform::CombinePath(strDirectory, vEntries[i].strName);
    if (vEntries[i].dwAttributes & FILE_ATTRIBUTE_READONLY) {
      hr = NSPlatform::SetAttributes(strFile.c_str(), vEntries[i].dwAttributes & ~DWORD(FILE_ATTRIBUTE_READONLY));
      if (FAILED(hr)) break;
    }
    NSPlatform::CFile file;
    hr = file.Open(strFile.c_str(), GENERIC_WRITE,
                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL);
    if (SUCCEEDED(hr)) hr = file.Flush();
  }
  return hr;
}

// Copies one hour directory so that the target holds all of it or nothing, whenever the machine
// stops: the copy is made under a name no hour has ("10.copy"), its files reach the disk, and only
// then does it take the hour's name. What an interrupted copy left under that name is cleared by
// the next copy of the hour; searches never see it.
HRESULT CopyHourDirectory(const WString& strFrom, const WString& strTo) {
  const WString strPartial = strTo + NSHours::kszCopySuffix;
  HRESULT hr = NSPlatform::PathExists(strPartial.c_str()) ? NSKronvaleUtils::DeleteFileSystemObject(strPartial) : S_OK;
  if (SUCCEEDED(hr)) hr = NSPlatform::CopyTree(strFrom.c_str(), strPartial.c_str());
  if (SUCCEEDED(hr)) hr = FlushFiles(strPartial);
  if (SUCCEEDED(hr)) hr = NSPlatform::FlushDirectory(strPartial.c_str());
  if (SUCCEEDED(hr)) hr = NSPlatform::RenameFile(strPartial.c_str(), strTo.c_str());
  // The hour's name is durable before the copy says it is done.
  if (SUCCEEDED(hr)) return NSPlatform::FlushDirectory(NSKronvaleUtils::ParentDirectory(strTo).c_str());
  if (FAILED(hr) && NSPlatform::PathExists(strPartial.c_str())) NSKronvaleUtils::DeleteFileSystemObject(strPartial);
  return hr;
}

}  // namespace

// ---- Removal --------------------------------------------------------------------------------------

STDMETHODIMP CRecord::RemoveHour(FILETIME ftHour) {
  WString strDirectory;
  {
    NSSystem::CLockGuard guard(*m_pLock);
    if (m_dwAccessMode & kdwAccessQuotaExceeded) return khrNotEnoughQuota;
    if (HasState(klStateLocked)) return khrLocked;
    if (!IsWriter()) return RefuseReader();
    SYSTEMTIME st;
    if (!NSPlatform::FileTimeToSysTime(&ftHour, &st)) {
      const HRESULT hr = NSPlatform::HResultFromLastError();
      KV_REPORT_IF_FAILED(hr);
      return hr;
    }
    const WString strHourPath = NSKronvaleUtils::FormatHourPath(st);
    strDirectory = HourDirectory(strHourPath);
    if (!NSPlatform::IsDirectory(strDirectory.c_str())) return S_OK;
    KV_LOG_MESSAGE(KV_W("Removing old hour: %s\n"), strDirectory.c_str());
    if (strHourPath == m_strCurrentHourPath) CloseCurrentHour(false);
  }
  // The files go outside the record lock: the record goes on serving other hours meanwhile. A
  // deletion that stops answers why (a file held by another process, a read-only file...).
  CHourManager hour(std::make_shared<NSSystem::SLock>());
  HRESULT hr = S_OK;
  if (!hour.RemoveHour(strDirectory, &hr)) {
    KV_LOG_ERROR(KV_W("Failed to delete hour '%s' (0x%X)\n"), strDirectory.c_str(), static_cast<unsigned>(hr));
    return hr;
  }
  return S_OK;
}

// ---- Repair ---------------------------------------------------------------------------------------

STDMETHODIMP CRecord::RepairHour(const WCHAR* pszHourPath) {
  KV_CHECK_POINTER(pszHourPath);
  NSSystem::CLockGuard guard(*m_pLock);
  KV_LOG(KV_W("Repairing"), KV_W("Repairing hour %s of %s\n"), pszHourPath, m_strPath.c_str());
  if (!IsWriter()) return RefuseReader();
  WString strTitle;
  if (FAILED(NSFrame::LoadModuleString(NSFrame::kidsRestoringHour, 0, &strTitle)) || strTitle.empty())
    strTitle = KV_W("Restoring the hour");
  SetStatus(strTitle + KV_W(": ") + pszHourPath);
  HRESULT hr;
  {
    CHourManager hour(m_pLock);
    // The open only names the hour for the repair; a damaged hour is expected to fail it.
    hour.Open(HourDirectory(pszHourPath), false, m_dwHourOpenOptions != 0);
    hour.Close();
    hr = hour.Repair(this);
  }
  SetStatus(WString());
  return hr;
}

void CRecord::SetStatus(const WString& strStatus) {
  NSSystem::CSectionGuard<decltype(m_statusSection)> guard(m_statusSection);
  m_strStatus = strStatus;
  m_byPercent = 0;
}

void CRecord::SetPercent(BYTE byPercent) { m_byPercent = byPercent; }

bool CRecord::IsStopped() { return HasState(klStateStop | klStateLocked); }

STDMETHODIMP CRecord::GetStatus(BSTR* pszStatus) {
  if (!KV_ASSERT_TEXT(pszStatus, "pszStatus\n")) return E_POINTER;
  WString strStatus;
  {
    NSSystem::CSectionGuard<decltype(m_statusSection)> guard(m_statusSection);
    strStatus = m_strStatus;
    if (const BYTE byPercent = m_byPercent.load()) strStatus += NSSupport::FormatWide(KV_W(" (%d%%)"), byPercent);
  }
  *pszStatus = SysAllocStringLen(strStatus.data(), static_cast<UINT>(strStatus.size()));
  return *pszStatus ? S_OK : E_OUTOFMEMORY;
}

// ---- Merge ----------------------------------------------------------------------------------------

STDMETHODIMP CRecord::Merge(IRecord* pSource, const SFrameFilter* pFilter, LONG lFlags) {
  KV_FUNC("Merge");
  KV_CHECK_POINTER(pSource);
  {
    NSSystem::CLockGuard guard(*m_pLock);
    if (HasState(klStateLocked)) return khrLocked;
    if (!IsWriter()) return RefuseReader();
  }
  if (lFlags < 0 || lFlags > kcMaxMergeBuffers) return E_INVALIDARG;
  // Only public calls from here on: the source may be another process's record or an extract, and
  // neither record's lock is held between two frames.
  FILETIME ft = {0, 0};
  if (FAILED(pSource->GetNext(ft, pFilter, &ft))) return S_OK;
  CTaskBuffers buffers(static_cast<DWORD>(lFlags));
  for (;;) {
    DWORD dwFlags = 0;
    HRESULT hr = pSource->Read(ft, &dwFlags, buffers.Data(), static_cast<DWORD>(lFlags));
    if (!KV_SUCCEEDED(hr)) return hr;
    hr = Write(ft, dwFlags, buffers.Data(), static_cast<DWORD>(lFlags));
    buffers.Clear();
    if (!KV_SUCCEEDED(hr)) return hr;
    if (FAILED(pSource->GetNext(ft, pFilter, &ft))) return S_OK;
  }
}

// ---- Fast copy ------------------------------------------------------------------------------------

STDMETHODIMP CRecord::CopyHoursTo(BSTR bstrTargetPath, FILETIME ftBegin, FILETIME ftEnd) {
  if (!bstrTargetPath || !SysStringLen(bstrTargetPath)) return E_INVALIDARG;
  const WString strTarget(bstrTargetPath, SysStringLen(bstrTargetPath));
  NSSystem::CLockGuard guard(*m_pLock);
  if (HasState(klStateLocked)) return khrLocked;
  NSKronvaleUtils::ConformantFileTime(ftBegin);
  NSKronvaleUtils::ConformantFileTime(ftEnd);
  FILETIME ft = ftBegin;
  if (CheckFrame(ft, nullptr) != S_OK && FAILED(GetNext(ft, nullptr, &ft))) return S_OK;
  HRESULT hrResult = S_OK;
  while (FileTimeToU64(ft) <= FileTimeToU64(ftEnd)) {
    WString strHourPath;
    if (!NSKronvaleUtils::HourPathFromFileTime(ft, &strHourPath)) break;
    const WString strFrom = HourDirectory(strHourPath);
    const WString strTo = NSPlatform::CombinePath(strTarget, strHourPath);
    WString strParent = strTo;
    while (!strParent.empty() && !NSPlatform::IsPathSeparator(strParent.back())) strParent.pop_back();
    HRESULT hr = NSKronvaleUtils::CreateDirTreeDurably(strParent);
    // An hour already in the target is not merged into: copying onto it would nest the copy.
    if (SUCCEEDED(hr) && NSPlatform::PathExists(strTo.c_str())) hr = KvHResultFromWin32(ERROR_ALREADY_EXISTS);
    if (SUCCEEDED(hr)) {
      hr = CopyHourDirectory(strFrom, strTo);
      // The target may be a record of this process: copies kept of its hours are out of date.
      NSKronvaleUtils::NoteHoursChanged();
    }
    if (FAILED(hr)) {
      KV_LOG(KV_W("Kronvale fast copy"), KV_W("Directory copy failed, path = %s"), strFrom.c_str());
      if (SUCCEEDED(hrResult)) hrResult = hr;
    }
    // The first frame of a later hour.
    const ULONGLONG ullNextHour = (FileTimeToU64(ft) / NSKronvaleUtils::kullTicksPerHour + 1) *
                                  NSKronvaleUtils::kullTicksPerHour;
    if (FAILED(GetNext(U64ToFileTime(ullNextHour - 1), nullptr, &ft))) break;
  }
  return hrResult;
}

}  // namespace NSRecords
