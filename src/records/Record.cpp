// The record: creation, description, the open hour, writing and reading, navigation and statistics.
#include "records/Record.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <stdexcept>
#include <kronvale/KronvaleResults.h>

#include "hours/KronvaleUtils.h"
#include "records/RecordExtract.h"
#include "support/Report.h"

namespace NSRecords {

using namespace NSKronvale;

using NSHours::CHourManager;
using NSHours::SHourCell;
using NSHours::SHourFrameBuffer;
using NSHours::SHourFrameFilter;
using NSPlatform::FileTimeToU64;
using NSPlatform::U64ToFileTime;

static_assert(sizeof(SHourFrameBuffer) == sizeof(SFrameBuffer) &&
                  offsetof(SHourFrameBuffer, dwDataSize) == offsetof(SFrameBuffer, dwDataSize),
              "the record hands its callers' buffers to the hour unchanged");
static_assert(sizeof(SHourFrameFilter) == sizeof(SFrameFilter) &&
                  offsetof(SHourFrameFilter, eMode) == offsetof(SFrameFilter, eMode),
              "the record hands its callers' filters to the hour unchanged");
static_assert(sizeof(SRecordStatistic) == 24, "statistic records are 24 bytes");

namespace {

constexpr WCHAR kszDescriptionFile[] = KV_W("record.ald");
constexpr ULONGLONG kullHour = NSKronvaleUtils::kullTicksPerHour;
constexpr ULONGLONG kullSlot = 100000;  // the 10 ms grid of an hour's index

const SHourFrameFilter* HourFilter(const SFrameFilter* pFilter) {
  return reinterpret_cast<const SHourFrameFilter*>(pFilter);
}

bool Passes(const SFrameFilter* pFilter, DWORD dwFlags) {
  return !pFilter || NSKronvaleUtils::IsFrameMatchesFilter(*pFilter, dwFlags);
}

// The run-join test of the statistics: 0 any common bit, 1 all of the run's bits, 2 equal flags,
// 3 no common bit; any other mode never joins.
bool Joins(DWORD dwMode, DWORD dwRunFlags, DWORD dwFlags) {
  switch (dwMode) {
    case 0: return (dwFlags & dwRunFlags) != 0;
    case 1: return (dwFlags & dwRunFlags) == dwRunFlags;
    case 2: return dwFlags == dwRunFlags;
    case 3: return (dwFlags & dwRunFlags) == 0;
    default: return false;
  }
}

LONGLONG Ticks(const FILETIME& ft) { return static_cast<LONGLONG>(FileTimeToU64(ft)); }

}  // namespace

CRecord::CRecord() : m_pLock(std::make_shared<NSSystem::SLock>()) {}

CRecord::~CRecord() = default;

void CRecord::FinalRelease() {
  NSSystem::CLockGuard guard(*m_pLock);
  CloseCurrentHour(false);
  m_pWriterLock.reset();
  m_pParent.Release();
}

// ---- Creation and state ---------------------------------------------------------------------------

STDMETHODIMP CRecord::Create(IKronvale* pParent, const WCHAR* pszPath, DWORD dwHourOpenOptions, DWORD dwAccessMode) {
  KV_FUNC("CRecord::Create");
  KV_CHECK_POINTER(pParent);
  KV_CHECK_POINTER(pszPath);
  NSSystem::CLockGuard guard(*m_pLock);
  if (pParent != m_pParent.p) {
    m_pParent = pParent;
    NSCom::CComPtr<IRecordParent> pArchive;
    m_bParentIsArchive = SUCCEEDED(pParent->QueryInterface(__uuidof(IRecordParent), reinterpret_cast<void**>(&pArchive)));
    m_pArchiveParent = m_bParentIsArchive ? pArchive.p : nullptr;
  }
  if (!NSPlatform::IsDirectory(pszPath)) {
    // Durably: the hours made under it are found after a power cut only through its name.
    const HRESULT hr = NSKronvaleUtils::CreateDirTreeDurably(pszPath);
    if (!KV_SUCCEEDED(hr)) return hr;
  }
  WString strPath = NSPlatform::CanonicalizePath(pszPath);
  while (strPath.size() > 1 && NSPlatform::IsPathSeparator(strPath.back())) strPath.pop_back();
  CloseCurrentHour(false);
  m_pWriterLock.reset();
  if ((dwAccessMode & kdwAccessMask) == kdwAccessReadWrite) {
    const HRESULT hr = LockRecordForWriting(strPath, &m_pWriterLock);
    if (FAILED(hr)) {
      if (hr == khrSharingViolation)
        KV_LOG_ERROR(KV_W("Record '%s' is being written by another process\n"), strPath.c_str());
      KV_REPORT_IF_FAILED(hr);
      return hr;
    }
  }
  m_strPath = strPath;
  m_dwHourOpenOptions = dwHourOpenOptions;
  m_dwAccessMode = dwAccessMode;
  return S_OK;
}

// One writing process per record: the first writer object of a process takes a lock on the first
// byte of the record's "record.lck", which the operating system shows to every other process
// (LockFile on Windows, an open-file-description lock on Linux); further writer objects of the same
// process share it, and it goes with the last of them. The file itself stays; it is empty.
namespace {

struct SWriterLock {
  NSPlatform::CFile file;
};

std::mutex g_writerLocksMutex;
std::map<WString, std::weak_ptr<SWriterLock>> g_writerLocks;  // by folded record path; guarded by the mutex

}  // namespace

HRESULT LockRecordForWriting(const WString& strRecordPath, std::shared_ptr<void>* ppLock) {
  ppLock->reset();
  const WString strKey = NSPlatform::FoldPathCase(strRecordPath);
  const std::lock_guard<std::mutex> guard(g_writerLocksMutex);
  if (std::shared_ptr<SWriterLock> pHeld = g_writerLocks[strKey].lock()) {
    *ppLock = std::move(pHeld);
    return S_OK;
  }
  auto pLock = std::make_shared<SWriterLock>();
  const WString strLockFile = NSPlatform::CombinePath(strRecordPath, kszWriterLockFile);
  HRESULT hr = pLock->file.Open(strLockFile.c_str(), GENERIC_READ | GENERIC_WRITE,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL);
  if (SUCCEEDED(hr)) hr = pLock->file.LockRange(0, 1);
  if (FAILED(hr)) {
    g_writerLocks.erase(strKey);
    return hr == khrLockViolation ? khrSharingViolation : hr;
  }
  g_writerLocks[strKey] = pLock;
  *ppLock = std::move(pLock);
  return S_OK;
}

void CRecord::OnChange(LONG /*lFirst*/, LONG /*lSecond*/, LONG lState) {
  // A freed record lets go of its hour files at once; only its release remains useful.
  if (lState & klStateLocked) {
    NSSystem::CLockGuard guard(*m_pLock);
    CloseCurrentHour(false);
    m_pWriterLock.reset();
  }
}

HRESULT CRecord::RefuseReader() {
  KV_LOG_ERROR(KV_W("Data modification for record '%s' reader object forbidden!\n"), m_strPath.c_str());
  return E_ACCESSDENIED;
}

WString CRecord::HourDirectory(const WString& strHourPath) const {
  return NSPlatform::CombinePath(m_strPath, strHourPath);
}

// ---- Description ------------------------------------------------------------------------------------

STDMETHODIMP CRecord::SetDescription(BSTR szDescription) {
  KV_CHECK_POINTER(szDescription);
  NSSystem::CLockGuard guard(*m_pLock);
  if (m_dwAccessMode & kdwAccessQuotaExceeded) return khrNotEnoughQuota;
  if (!IsWriter()) return RefuseReader();
  const HRESULT hr =
      NSKronvaleUtils::WriteDescriptionFile(NSPlatform::CombinePath(m_strPath, kszDescriptionFile), szDescription,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
  if (!KV_SUCCEEDED(hr)) return hr;
  return S_OK;
}

STDMETHODIMP CRecord::GetDescription(BSTR* pszDescription) {
  KV_CHECK_POINTER(pszDescription);
  *pszDescription = nullptr;
  NSSystem::CLockGuard guard(*m_pLock);
  return NSKronvaleUtils::ReadDescriptionFile(NSPlatform::CombinePath(m_strPath, kszDescriptionFile), pszDescription);
}

STDMETHODIMP CRecord::GetPath(BSTR* pszPath) {
  KV_CHECK_POINTER(pszPath);
  NSSystem::CLockGuard guard(*m_pLock);
  *pszPath = SysAllocStringLen(m_strPath.data(), static_cast<UINT>(m_strPath.size()));
  return *pszPath ? S_OK : E_OUTOFMEMORY;
}

STDMETHODIMP CRecord::GetName(BSTR* pszName) {
  KV_CHECK_POINTER(pszName);
  *pszName = nullptr;
  NSSystem::CLockGuard guard(*m_pLock);
  if (HasState(klStateLocked)) return khrLocked;
  WString strPath = m_strPath;
  while (!strPath.empty() && NSPlatform::IsPathSeparator(strPath.back())) strPath.pop_back();
  size_t nPos = strPath.size();
  while (nPos > 0 && !NSPlatform::IsPathSeparator(strPath[nPos - 1])) --nPos;
  if (!KV_ASSERT_TEXT(nPos > 0, "-1!=pos\n")) return E_UNEXPECTED;
  *pszName = SysAllocStringLen(strPath.data() + nPos, static_cast<UINT>(strPath.size() - nPos));
  return *pszName ? S_OK : E_OUTOFMEMORY;
}

// ---- The open hour ------------------------------------------------------------------------------------

void CRecord::CloseCurrentHour(bool bReport) {
  if (m_pCurrentHour) {
    if (bReport) KV_LOG_MESSAGE(KV_W("Closing previous hour %s\n"), m_strCurrentHourPath.c_str());
    NSHours::SHourSnapshot snapshot = m_pCurrentHour->CloseToSnapshot();
    if (snapshot.pHash) {
      if (m_vCachedHours.size() >= kcCachedHours) m_vCachedHours.pop_back();
      m_vCachedHours.emplace(m_vCachedHours.begin(), m_strCurrentHourPath, std::move(snapshot));
    }
  }
  m_pCurrentHour.reset();
  m_strCurrentHourPath.clear();
  m_bCurrentHourCreated = false;
  m_ullCurrentHourIndex = 0;
}

// Whether ullTime lies in the open hour; if so, *pst is its breakdown.
bool CRecord::InCurrentHour(ULONGLONG ullTime, SYSTEMTIME* pst) const {
  if (!m_pCurrentHour || !m_ullCurrentHourIndex || ullTime / kullHour != m_ullCurrentHourIndex) return false;
  ULONGLONG ullMs = (ullTime % kullHour) / NSKronvaleUtils::kullTicksPerMillisecond;
  *pst = m_stCurrentHour;
  pst->wMilliseconds = static_cast<WORD>(ullMs % 1000);
  pst->wSecond = static_cast<WORD>(ullMs / 1000 % 60);
  pst->wMinute = static_cast<WORD>(ullMs / 60000);
  return true;
}

HRESULT CRecord::GetHourManager(const WString& strHourPath, bool bCreate, CHourPtr* ppHour, bool bSeen) {
  KV_FUNC("CRecord::GetHourManager");
  NSSystem::CLockGuard guard(*m_pLock);
  if (m_pCurrentHour && strHourPath == m_strCurrentHourPath) {
    *ppHour = m_pCurrentHour;
    return S_OK;
  }
  // A failure below leaves the record without an open hour.
  CloseCurrentHour(true);
  auto pHour = std::make_shared<CHourManager>(m_pLock);
  const WString strDirectory = HourDirectory(strHourPath);
  bool bRepaired = false;
  for (;;) {
    const bool bExisted = (bSeen && !bRepaired) || NSPlatform::IsDirectory(strDirectory.c_str());
    if (!bExisted && !bCreate) return khrFileNotFound;
    HRESULT hr;
    const auto itCached = std::find_if(m_vCachedHours.begin(), m_vCachedHours.end(),
                                       [&](const auto& cached) { return cached.first == strHourPath; });
    if (itCached != m_vCachedHours.end()) {
      NSHours::SHourSnapshot snapshot = std::move(itCached->second);
      m_vCachedHours.erase(itCached);
      hr = pHour->Open(strDirectory, bCreate, m_dwHourOpenOptions != 0, std::move(snapshot), bExisted);
    } else {
      hr = pHour->Open(strDirectory, bCreate, m_dwHourOpenOptions != 0, NSHours::SHourSnapshot(), bExisted);
    }
    // A writer does not append behind a frame torn by a crash: such an hour is repaired first. A
    // frame short of no more than its header's size survives a repair, so an hour still torn after
    // one is taken as it is rather than repaired on every call.
    if (SUCCEEDED(hr) && bExisted && IsWriter() && !bRepaired && pHour->IsCorrupted()) hr = khrFileCorrupt;
    if (FAILED(hr)) KV_LOG_WARNING(KV_W("Failed to open next hour %s\n"), strHourPath.c_str());
    if (!bExisted) {
      if (!KV_SUCCEEDED(hr)) {
        pHour->Close();
        return hr;
      }
      break;
    }
    if (SUCCEEDED(hr)) break;
    pHour->Close();
    if (!IsWriter()) return hr;  // a reader answers the failure; repairs are the writer's
    // A file the hour may not open, or a full disk, says nothing of the hour's bytes: the hour is
    // left as it is, since a repair that could not open data.al either would take it for empty.
    if (hr == khrAccessDenied || hr == khrSharingViolation || hr == khrLockViolation || hr == khrWriteProtect ||
        hr == khrDiskFull || hr == khrHandleDiskFull)
      return hr;
    if (HasState(klStateNoRepair)) return khrFileCorrupt;
    // One repair per call: an hour that a repair cannot heal fails instead of looping.
    if (bRepaired) {
      KV_REPORT_IF_FAILED(hr);
      return hr;
    }
    hr = RepairHour(strHourPath.c_str());
    if (!KV_SUCCEEDED(hr)) return hr;
    bRepaired = true;
  }
  if (!KV_ASSERT_TEXT(pHour && !strHourPath.empty(), "hdNextHour\n")) return E_UNEXPECTED;
  m_strCurrentHourPath = strHourPath;
  m_pCurrentHour = pHour;
  m_bCurrentHourCreated = bCreate;
  const FILETIME ftStart = NSKronvaleUtils::HourStartFromPath(strHourPath);
  m_ullCurrentHourIndex = FileTimeToU64(ftStart) / kullHour;
  if (!FileTimeToU64(ftStart) || !NSPlatform::FileTimeToSysTime(&ftStart, &m_stCurrentHour)) m_ullCurrentHourIndex = 0;
  *ppHour = std::move(pHour);
  return S_OK;
}

STDMETHODIMP_(ULONGLONG) CRecord::GetCurrentHourSize() {
  NSSystem::CLockGuard guard(*m_pLock);
  return m_pCurrentHour ? m_pCurrentHour->GetFullSizeIfOpen() : 0;
}

STDMETHODIMP CRecord::FlushCurrentHour() {
  CHourPtr pHour;
  {
    NSSystem::CLockGuard guard(*m_pLock);
    pHour = m_pCurrentHour;
  }
  // Outside the record's lock: writers go on appending while the disk takes the hour's files.
  return pHour ? pHour->Flush() : S_FALSE;
}

STDMETHODIMP CRecord::GetCurrentHourPath(WString* pstrHourPath) {
  KV_CHECK_POINTER(pstrHourPath);
  NSSystem::CLockGuard guard(*m_pLock);
  *pstrHourPath = m_strCurrentHourPath;
  return S_OK;
}

// ---- Writing and reading --------------------------------------------------------------------------

STDMETHODIMP CRecord::Write(FILETIME ftFrame, DWORD dwFlags, const SFrameBuffer* pBuff, DWORD dwCount) {
  NSSystem::CLockGuard guard(*m_pLock);
  if (m_dwAccessMode & kdwAccessQuotaExceeded) return khrNotEnoughQuota;
  if (HasState(klStateLocked)) return khrLocked;
  if (!IsWriter()) return RefuseReader();
  if (!m_bParentIsArchive) {
    KV_LOG_ERROR(KV_W("parent absence on record '%s'!\n"), m_strPath.c_str());
    return khrInvalidState;
  }
  if (dwCount) KV_CHECK_POINTER(pBuff);
  // A buffer that claims bytes it does not point to is refused before an hour is made for it.
  for (DWORD i = 0; i < dwCount; ++i) {
    if (pBuff[i].dwDataSize && !pBuff[i].pData) return ::NSReport::ReportNullPointer(KV_HERE, "pBuff[i].pData\n");
  }
  NSKronvaleUtils::ConformantFileTime(ftFrame);
  SYSTEMTIME st;
  HRESULT hr;
  // Frames of the open hour go straight to it.
  if (InCurrentHour(FileTimeToU64(ftFrame), &st)) {
    if (m_lBusy.load() >= 1) return khrPending;
    hr = m_pCurrentHour->Write(st, dwFlags, reinterpret_cast<const SHourFrameBuffer*>(pBuff), dwCount);
    KV_REPORT_IF_FAILED(hr);
    return WakeRetentionWhenFull(hr);
  }
  if (!KV_ASSERT_TEXT(NSPlatform::FileTimeToSysTime(&ftFrame, &st), "bRes\n"))
    return NSPlatform::HResultFromLastError();
  if (m_lBusy.load() >= 1) return khrPending;
  CHourPtr pHour;
  hr = GetHourManager(NSKronvaleUtils::FormatHourPath(st), true, &pHour);
  if (!KV_SUCCEEDED(hr)) return WakeRetentionWhenFull(hr);
  hr = pHour->Write(st, dwFlags, reinterpret_cast<const SHourFrameBuffer*>(pBuff), dwCount);
  KV_REPORT_IF_FAILED(hr);
  return WakeRetentionWhenFull(hr);
}

HRESULT CRecord::WakeRetentionWhenFull(HRESULT hr) {
  if ((hr == khrDiskFull || hr == khrHandleDiskFull) && m_pArchiveParent) m_pArchiveParent->OnOutOfSpace();
  return hr;
}

STDMETHODIMP CRecord::Read(FILETIME ftFrame, DWORD* pdwFlags, SFrameBuffer* pBuff, DWORD dwCount) {
  NSSystem::CLockGuard guard(*m_pLock);
  if (HasState(klStateLocked)) return khrLocked;
  if (dwCount) KV_CHECK_POINTER(pBuff);
  NSKronvaleUtils::ConformantFileTime(ftFrame);
  SYSTEMTIME st;
  // A frame of the open hour needs no path (empty strHourPath: the open hour's); another hour's
  // path is made, and the hour must exist.
  WString strHourPath;
  if (!InCurrentHour(FileTimeToU64(ftFrame), &st)) {
    if (!KV_ASSERT_TEXT(NSPlatform::FileTimeToSysTime(&ftFrame, &st), "bRes\n"))
      return NSPlatform::HResultFromLastError();
    strHourPath = NSKronvaleUtils::FormatHourPath(st);
    // An hour that does not exist is answered without closing the open one.
    if (strHourPath != m_strCurrentHourPath && !NSPlatform::IsDirectory(HourDirectory(strHourPath).c_str()))
      return khrFileNotFound;
  }
  bool bRefreshed = false;
  bool bRepaired = false;
  for (;;) {
    if (m_lBusy.load() >= 1) return khrPending;
    CHourPtr pHour;
    HRESULT hr = S_OK;
    if (strHourPath.empty())
      pHour = m_pCurrentHour;
    else
      hr = GetHourManager(strHourPath, false, &pHour, !bRepaired);
    if (!KV_SUCCEEDED(hr)) return hr;
    hr = pHour->Read(st, pdwFlags, reinterpret_cast<SHourFrameBuffer*>(pBuff), dwCount);
    if (SUCCEEDED(hr)) return hr;
    // Frames appended since this object last looked (by itself or by the record's writer) become
    // visible with a refresh of the hour's index copy.
    if (!bRefreshed) {
      bRefreshed = true;
      if (pHour->RefreshIfGrown(true) == S_OK) continue;
    }
    if (m_bCurrentHourCreated) return hr;
    // A reader never tests nor repairs: it answers the read's own failure. In an hour being written
    // the corruption test could catch the writer between two steps of an append and take a frame
    // in flight for damage; and a repair is the writer's to make.
    if (!IsWriter()) return hr;
    if (hr != khrFileCorrupt && !pHour->IsCorrupted()) return hr;
    if (HasState(klStateNoRepair) || bRepaired) return hr;
    if (strHourPath.empty()) strHourPath = m_strCurrentHourPath;
    CloseCurrentHour(false);
    hr = RepairHour(strHourPath.c_str());
    if (!KV_SUCCEEDED(hr)) return hr;
    bRepaired = true;
  }
}

STDMETHODIMP CRecord::CheckFrame(FILETIME ftFrame, const SFrameFilter* pFilter) {
  DWORD dwFlags = 0;
  if (FAILED(Read(ftFrame, &dwFlags, nullptr, 0))) return S_FALSE;
  return Passes(pFilter, dwFlags) ? S_OK : S_FALSE;
}

// The frames from 5 ms before ftBegin on that pass the filter, each read whole into the new extract:
// up to a number of frames (ftSpan's high half 0xFFFFFFFF, its low half the number) or up to the
// first frame's time plus the duration ftSpan. The walk ends at the limit or at the record's end; a
// frame that cannot be read fails the whole extract.
STDMETHODIMP CRecord::Extract(FILETIME ftBegin, FILETIME ftSpan, const SFrameFilter* pFilter, LONG lCount,
                              IRecord** ppExtract) {
  KV_FUNC("Extract");
  KV_CHECK_POINTER(ppExtract);
  *ppExtract = nullptr;
  if (lCount <= 0 || static_cast<DWORD>(lCount) > CRecordExtract::kdwMaxBuffers) return E_INVALIDARG;
  NSCom::CComObject<CRecordExtract>* pNew = nullptr;
  HRESULT hr = NSCom::CComObject<CRecordExtract>::CreateInstance(&pNew);
  if (!KV_SUCCEEDED(hr)) return hr;
  NSCom::CComPtr<IRecord> pExtract(static_cast<IRecord*>(pNew));
  hr = pNew->Init(static_cast<IRecordEx*>(this), static_cast<DWORD>(lCount));
  if (!KV_SUCCEEDED(hr)) return hr;
  NSSystem::CLockGuard guard(*m_pLock);

  const bool bByCount = ftSpan.dwHighDateTime == 0xFFFFFFFFu;
  const DWORD cMaxFrames = ftSpan.dwLowDateTime;
  // A frame up to 5 ms before the start belongs to the extract.
  const ULONGLONG ullFrom = std::max<ULONGLONG>(FileTimeToU64(ftBegin), 100000) - 50000;
  FILETIME ftFrame;
  if (bByCount && cMaxFrames == 0) return (*ppExtract = pExtract.Detach(), S_OK);
  if (FAILED(GetNext(U64ToFileTime(ullFrom), pFilter, &ftFrame))) return (*ppExtract = pExtract.Detach(), S_OK);
  const ULONGLONG ullFirst = FileTimeToU64(ftFrame);
  const ULONGLONG ullLast = bByCount ? ~ULONGLONG{0} : ullFirst + std::min<ULONGLONG>(FileTimeToU64(ftSpan), ~ULONGLONG{0} - ullFirst);
  std::vector<SFrameBuffer> vBuffers;
  try {
    vBuffers.resize(static_cast<size_t>(lCount));
  } catch (...) {
    return E_OUTOFMEMORY;
  }
  for (DWORD cTaken = 0;;) {
    std::fill(vBuffers.begin(), vBuffers.end(), SFrameBuffer{nullptr, 0});
    DWORD dwFlags = 0;
    hr = Read(ftFrame, &dwFlags, vBuffers.data(), static_cast<DWORD>(lCount));
    if (FAILED(hr)) {
      KV_REPORT_IF_FAILED(hr);
      return hr;
    }
    hr = pNew->AppendFrame(ftFrame, dwFlags, vBuffers.data());
    if (FAILED(hr)) {
      for (SFrameBuffer& buffer : vBuffers) CoTaskMemFree(buffer.pData);
      return hr;
    }
    if (bByCount && ++cTaken >= cMaxFrames) break;
    if (FAILED(GetNext(ftFrame, pFilter, &ftFrame)) || FileTimeToU64(ftFrame) > ullLast) break;
  }
  *ppExtract = pExtract.Detach();
  return S_OK;
}

STDMETHODIMP CRecord::ReservedRange(FILETIME, FILETIME) { return E_NOTIMPL; }

// ---- Navigation -----------------------------------------------------------------------------------

STDMETHODIMP CRecord::GetNext(FILETIME ft, const SFrameFilter* pFilter, FILETIME* pftNextFrameTime) {
  Change(0, klStateStop);
  return Step(true, ft, pFilter, pftNextFrameTime);
}

STDMETHODIMP CRecord::GetPrev(FILETIME ft, const SFrameFilter* pFilter, FILETIME* pftPrevFrameTime) {
  KV_CHECK_POINTER(pftPrevFrameTime);
  Change(0, klStateStop);
  return Step(false, ft, pFilter, pftPrevFrameTime);
}

STDMETHODIMP CRecord::GetSibling(LONG bForward, LONG dwSteps, FILETIME ft, const SFrameFilter* pFilter,
                                 FILETIME* pftOutFrameTime) {
  if (!KV_ASSERT_TEXT(pftOutFrameTime, "pftPrevFrameTime\n")) return E_POINTER;
  if (dwSteps < 0) return E_INVALIDARG;
  Change(0, klStateStop);
  NSSystem::CLockGuard guard(*m_pLock);
  FILETIME ftAt = ft;
  for (LONG i = 0; i < dwSteps; ++i) {
    const HRESULT hr = Step(bForward != 0, ftAt, pFilter, &ftAt);
    if (FAILED(hr)) return hr;
  }
  *pftOutFrameTime = ftAt;
  return S_OK;
}

// One step of the sibling search: the nearest frame strictly after (before) ft that passes the filter,
// crossing empty and non-matching hours, days and months.
HRESULT CRecord::Step(bool bForward, FILETIME ft, const SFrameFilter* pFilter, FILETIME* pftFound) {
  KV_FUNC("CRecord::GetSibling");
  if (!KV_ASSERT_TEXT(pftFound, "pftOutFrameTime\n")) return E_POINTER;
  NSSystem::CLockGuard guard(*m_pLock);
  if (HasState(klStateLocked)) return khrLocked;
  NSKronvaleUtils::ConformantFileTime(ft);
  ULONGLONG t = FileTimeToU64(ft);
  FILETIME ftLatest = {0xFFFFFFFFu, 0xFFFFFFFFu};
  NSKronvaleUtils::ConformantFileTime(ftLatest);
  const ULONGLONG ullLatest = FileTimeToU64(ftLatest);
  // The instant ft itself never answers; once the search has moved to another hour, that hour's
  // boundary instant may.
  bool bExact = true;
  struct SListings {
    CRecord* pRecord;
    ~SListings() {
      pRecord->m_bKeepListings = false;
      pRecord->m_mapListings.clear();
    }
  } listings{this};
  m_bKeepListings = !IsWriter();
  for (;;) {
    SYSTEMTIME st;
    // The open hour needs no path and no look at the disk.
    const bool bOpen = InCurrentHour(t, &st);
    FILETIME ftAt = U64ToFileTime(t);
    if (!bOpen && !KV_ASSERT_TEXT(NSPlatform::FileTimeToSysTime(&ftAt, &st), "bRes\n"))
      return NSPlatform::HResultFromLastError();
    WString strHourPath;  // of another hour than the open one
    if (!bOpen) strHourPath = NSKronvaleUtils::FormatHourPath(st);
    if (!bOpen && !IsHourDirectory(strHourPath)) {
      WString strFound;
      FindClosestHourPath(strHourPath, bForward, &strFound);
      if (strFound.empty()) return khrNotFound;
      const FILETIME ftStart = NSKronvaleUtils::HourStartFromPath(strFound);
      if (!FileTimeToU64(ftStart) || !NSPlatform::FileTimeToSysTime(&ftStart, &st)) return khrNotFound;
      strHourPath = std::move(strFound);
      t = FileTimeToU64(ftStart);
      bExact = false;
    }
    if (m_lBusy.load() >= 1) {
      KV_REPORT_IF_FAILED(khrPending);
      return khrPending;
    }
    // A reader passes over an hour whose flags cannot pass the filter on its counters alone, read
    // with one small read and without opening the hour. (A writer opens it: opening is where it
    // repairs a torn hour.)
    DWORD dwHourMask = 0;
    const bool bSkip = pFilter && !bOpen && !IsWriter() &&
                       SUCCEEDED(CHourManager::ReadHourFlagMask(HourDirectory(strHourPath), &dwHourMask)) &&
                       !Passes(pFilter, dwHourMask);
    // The open hour is used through the record's own reference (it changes only under the record
    // lock, held here), so that a step inside it costs no reference count.
    CHourPtr pOtherHour;
    CHourManager* pHour = bOpen ? m_pCurrentHour.get() : nullptr;
    if (!bOpen && !bSkip) {
      HRESULT hr = GetHourManager(strHourPath, false, &pOtherHour);
      if (!KV_SUCCEEDED(hr)) return hr;
      pHour = pOtherHour.get();
    }
    if (pHour) {
      SYSTEMTIME stFrom = st;
      if (!bExact) {
        if (bForward) {
          stFrom.wMinute = stFrom.wSecond = stFrom.wMilliseconds = 0;
        } else {
          stFrom.wMinute = stFrom.wSecond = 59;
          stFrom.wMilliseconds = 990;
        }
      }
      FILETIME ftFound;
      const HRESULT hr = pHour->StepFrom(stFrom, HourFilter(pFilter), &ftFound, !bExact, bForward);
      if (SUCCEEDED(hr)) {
        *pftFound = ftFound;
        return S_OK;
      }
    }
    // The neighbouring hour, searched from its boundary.
    if (bForward) {
      t = (t / kullHour + 1) * kullHour;
      if (t > ullLatest) return khrNotFound;
    } else {
      if (t / kullHour == 0) return khrNotFound;
      t = (t / kullHour) * kullHour - kullSlot;
    }
    bExact = false;
  }
}

// ---- Closest hour ----------------------------------------------------------------------------------

namespace {

// Widths of the year, month, day and hour directory names.
constexpr size_t kacchLevel[4] = {4, 2, 2, 2};

bool IsLevelName(const WString& strName, int nLevel) {
  if (strName.size() != kacchLevel[nLevel]) return false;
  return std::all_of(strName.begin(), strName.end(), [](WCHAR ch) { return ch >= '0' && ch <= '9'; });
}

// The level names of a directory, in ascending order.
std::vector<WString> ListLevel(const WString& strDirectory, int nLevel) {
  std::vector<WString> vNames;
  if (FAILED(NSPlatform::ListSubdirectories(strDirectory.c_str(), &vNames))) return {};
  vNames.erase(std::remove_if(vNames.begin(), vNames.end(),
                              [nLevel](const WString& strName) { return !IsLevelName(strName, nLevel); }),
               vNames.end());
  return vNames;
}

WString Join(const WString& strLeft, const WString& strRight) {
  return strLeft.empty() ? strRight : NSPlatform::CombinePath(strLeft, strRight);
}

}  // namespace

std::vector<WString> CRecord::Listing(const WString& strDirectory, int nLevel) {
  if (!m_bKeepListings) return ListLevel(strDirectory, nLevel);
  auto it = m_mapListings.find(strDirectory);
  if (it == m_mapListings.end()) it = m_mapListings.emplace(strDirectory, ListLevel(strDirectory, nLevel)).first;
  return it->second;
}

// Erases an empty year, month, day or hour directory met by a search. Directories on the path of the
// current UTC hour are left alone (a writer may be making them), and the removal never recurses, so
// that a directory filled between the test and the removal survives.
bool CRecord::EraseEmptyDirectory(const WString& strDirectory, const WString& strRelative) {
  KV_FUNC("CRecord::FindClosestHourPath");
  // A reader changes nothing on disk: the directory may be one a writer (perhaps in another
  // process) has just made for an hour whose files come next.
  if (!IsWriter()) return true;
  SYSTEMTIME stNow;
  NSPlatform::GetUtcSystemTime(&stNow);
  const WString strNow = NSKronvaleUtils::FormatHourPath(stNow);
  if (strNow.compare(0, strRelative.size(), strRelative) == 0) return true;
  KV_LOG_MESSAGE(KV_W("erasing of empty folder: %s\n"), strDirectory.c_str());
  const HRESULT hr = NSPlatform::RemoveDir(strDirectory.c_str());
  if (FAILED(hr)) {
    KV_LOG_ERROR(KV_W("Failed to delete %s, hr=%0X\n"), strDirectory.c_str(), static_cast<unsigned>(hr));
    return false;
  }
  return true;
}

// Descends from strDirectory (level nLevel: 1 a year directory, 2 a month, 3 a day, 4 an hour) to
// its first (forward) or last hour. False when the directory holds none; *pbFailed when an empty directory
// could not be erased.
bool CRecord::SearchDown(const WString& strDirectory, const WString& strRelative, int nLevel, bool bForward,
                         WString* pstrFound, bool* pbFailed) {
  if (nLevel == 4) {
    // An hour directory without files (left by a crash between its creation and its files) holds
    // nothing: it goes like any other empty directory.
    if (!NSPlatform::IsDirectoryEmpty(strDirectory.c_str())) {
      *pstrFound = strRelative;
      return true;
    }
    if (!EraseEmptyDirectory(strDirectory, strRelative)) *pbFailed = true;
    return false;
  }
  std::vector<WString> vNames = Listing(strDirectory, nLevel);
  if (!bForward) std::reverse(vNames.begin(), vNames.end());
  for (const WString& strName : vNames) {
    if (SearchDown(NSPlatform::CombinePath(strDirectory, strName), Join(strRelative, strName), nLevel + 1, bForward,
                   pstrFound, pbFailed))
      return true;
    if (*pbFailed) return false;
  }
  // Nothing below: a directory left empty (perhaps by the erasures above) goes.
  if (NSPlatform::IsDirectoryEmpty(strDirectory.c_str()) && !EraseEmptyDirectory(strDirectory, strRelative))
    *pbFailed = true;
  return false;
}

STDMETHODIMP CRecord::FindClosestHourPath(const WString& strHourPath, bool bForward, WString* pstrFound) {
  KV_CHECK_POINTER(pstrFound);
  pstrFound->clear();
  NSSystem::CLockGuard guard(*m_pLock);
  WString astrParts[4];
  if (strHourPath.empty()) {
    // From before the first year (after the last one).
    astrParts[0] = bForward ? WString() : WString(KV_W("~"));
    return FindFromLevel(astrParts, 0, bForward, pstrFound);
  }
  int anParts[4];
  if (NSKronvaleUtils::ScanHourPath(strHourPath, &anParts[0], &anParts[1], &anParts[2], &anParts[3]) != 4)
    return E_INVALIDARG;
  for (int i = 0; i < 4; ++i) {
    WString str;
    const std::string strDigits = std::to_string(anParts[i]);
    str.assign(kacchLevel[i] > strDigits.size() ? kacchLevel[i] - strDigits.size() : 0, '0');
    for (char ch : strDigits) str.push_back(static_cast<WCHAR>(ch));
    astrParts[i] = std::move(str);
  }
  int nDepth = 0;
  for (WString strDirectory = m_strPath; nDepth < 4; ++nDepth) {
    if (!ListedDirectory(strDirectory, nDepth, astrParts[nDepth])) break;
    strDirectory = NSPlatform::CombinePath(strDirectory, astrParts[nDepth]);
  }
  return FindFromLevel(astrParts, std::min(nDepth, 3), bForward, pstrFound);
}

// Whether strDirectory holds the level directory strName; during a reader's search, from its
// listings.
bool CRecord::ListedDirectory(const WString& strDirectory, int nLevel, const WString& strName) {
  if (!m_bKeepListings) return NSPlatform::IsDirectory(NSPlatform::CombinePath(strDirectory, strName).c_str());
  const std::vector<WString> vNames = Listing(strDirectory, nLevel);
  return std::binary_search(vNames.begin(), vNames.end(), strName);
}

bool CRecord::IsHourDirectory(const WString& strHourPath) {
  if (!m_bKeepListings) return NSPlatform::IsDirectory(HourDirectory(strHourPath).c_str());
  WString strDirectory = m_strPath;
  size_t nFrom = 0;
  for (int nLevel = 0; nLevel < 4; ++nLevel) {
    size_t nTo = nFrom;
    while (nTo < strHourPath.size() && !NSPlatform::IsPathSeparator(strHourPath[nTo])) ++nTo;
    const WString strName = strHourPath.substr(nFrom, nTo - nFrom);
    if (!ListedDirectory(strDirectory, nLevel, strName)) return false;
    strDirectory = NSPlatform::CombinePath(strDirectory, strName);
    nFrom = nTo + 1;
  }
  return nFrom >= strHourPath.size();
}

// Searches from level nStart of the path astrParts upwards: at each level, the entries after
// (before) the path's own, nearest first, each searched down to its first (last) hour.
HRESULT CRecord::FindFromLevel(const WString* astrParts, int nStart, bool bForward, WString* pstrFound) {
  WString astrDirectories[4] = {m_strPath};
  WString astrRelatives[4];
  for (int i = 1; i <= nStart; ++i) {
    astrDirectories[i] = NSPlatform::CombinePath(astrDirectories[i - 1], astrParts[i - 1]);
    astrRelatives[i] = Join(astrRelatives[i - 1], astrParts[i - 1]);
  }
  for (int nLevel = nStart; nLevel >= 0; --nLevel) {
    std::vector<WString> vNames = Listing(astrDirectories[nLevel], nLevel);
    if (!bForward) std::reverse(vNames.begin(), vNames.end());
    for (const WString& strName : vNames) {
      if (bForward ? strName <= astrParts[nLevel] : strName >= astrParts[nLevel]) continue;
      bool bFailed = false;
      if (SearchDown(NSPlatform::CombinePath(astrDirectories[nLevel], strName), Join(astrRelatives[nLevel], strName),
                     nLevel + 1, bForward, pstrFound, &bFailed))
        return S_OK;
      if (bFailed) return S_FALSE;
    }
  }
  return S_FALSE;
}

STDMETHODIMP_(DWORD) CRecord::GetHourCount() {
  NSSystem::CLockGuard guard(*m_pLock);
  DWORD cHours = 0;
  for (const WString& strYear : ListLevel(m_strPath, 0)) {
    const WString strYearPath = NSPlatform::CombinePath(m_strPath, strYear);
    for (const WString& strMonth : ListLevel(strYearPath, 1)) {
      const WString strMonthPath = NSPlatform::CombinePath(strYearPath, strMonth);
      for (const WString& strDay : ListLevel(strMonthPath, 2))
        cHours += static_cast<DWORD>(ListLevel(NSPlatform::CombinePath(strMonthPath, strDay), 3).size());
    }
  }
  return cHours;
}

// ---- Statistics -----------------------------------------------------------------------------------

STDMETHODIMP CRecord::GetStatistic(FILETIME ftBegin, FILETIME ftEnd, FILETIME ftResolution, const SFrameFilter* pFilter,
                                   LONG dwFlags, DWORD* pdwCount, SRecordStatistic** ppRecordStatistic) {
  KV_CHECK_POINTERS(pdwCount && ppRecordStatistic);
  *pdwCount = 0;
  *ppRecordStatistic = nullptr;
  Change(0, klStateStop);
  NSSystem::CLockGuard guard(*m_pLock);
  if (HasState(klStateLocked)) return khrLocked;
  NSKronvaleUtils::ConformantFileTime(ftBegin);
  NSKronvaleUtils::ConformantFileTime(ftEnd);
  const ULONGLONG ullResolution = FileTimeToU64(ftResolution);
  try {
    NSKronvaleUtils::SpanToDatePart(ullResolution);
  } catch (const std::exception&) {
    return E_INVALIDARG;
  }
  HRESULT hr = MoveSpanOntoFrames(static_cast<IRecordEx*>(this), pFilter, &ftBegin, &ftEnd);
  if (!KV_SUCCEEDED(hr)) return hr;
  if (!KV_ASSERT_TEXT(FileTimeToU64(ftEnd) >= FileTimeToU64(ftBegin), "ftEnd>=ftBegin\n")) return E_INVALIDARG;

  std::vector<SStatisticCell> vCells;
  hr = CollectStatistic(FileTimeToU64(ftBegin), FileTimeToU64(ftEnd), ullResolution, pFilter, &vCells);
  if (FAILED(hr)) return hr;

  std::vector<SStatisticCell> vRuns = JoinStatisticRuns(vCells, ullResolution, pFilter, dwFlags);
  ExactEnds(static_cast<IRecordEx*>(this), vRuns, pFilter, ullResolution < kullHour);
  return HandOutStatistic(vRuns, hr, pdwCount, ppRecordStatistic);
}

bool CRecord::FindHourSummary(ULONGLONG ullHour, const WString& strDirectory, std::vector<SHourCell>* pvCells) {
  const auto it = m_mapSummaries.find(ullHour);
  if (it == m_mapSummaries.end()) return false;
  std::vector<NSPlatform::SDirEntry> vEntries;
  if (it->second.ullEpoch != NSKronvaleUtils::HourChangeEpoch() ||
      FAILED(NSPlatform::ListDir(strDirectory.c_str(), &vEntries, NSHours::kszDescriptorFileName)) ||
      vEntries.size() != 1 || vEntries[0].ullSize != it->second.ullDescriptorSize) {
    m_mapSummaries.erase(it);
    return false;
  }
  pvCells->clear();
  if (!it->second.bEmpty) pvCells->push_back(it->second.cell);
  return true;
}

void CRecord::KeepHourSummary(ULONGLONG ullHour, CHourManager& hour, const std::vector<SHourCell>& vCells) {
  SHourSummary summary = {};
  if (vCells.size() > 1 || !hour.GetCopyState(&summary.ullDescriptorSize, &summary.ullEpoch)) return;
  summary.bEmpty = vCells.empty();
  if (!summary.bEmpty) summary.cell = vCells.front();
  if (m_mapSummaries.size() >= kcMostSummaries) m_mapSummaries.clear();
  m_mapSummaries[ullHour] = summary;
}

// The cells of every hour from ullBegin to ullEnd, in time order: seconds or minutes for resolutions
// under an hour (10 ms slots under a second), one cell per hour otherwise.
HRESULT CRecord::CollectStatistic(ULONGLONG ullBegin, ULONGLONG ullEnd, ULONGLONG ullResolution,
                                  const SFrameFilter* pFilter, std::vector<SStatisticCell>* pvCells) {
  KV_FUNC("CRecord::GetStatistic");
  DWORD cSlotsPerCell = 0;
  switch (NSKronvaleUtils::SpanToDatePart(ullResolution)) {
    case file_time::edMSec: cSlotsPerCell = 1; break;
    case file_time::edSec: cSlotsPerCell = 100; break;
    case file_time::edMin: cSlotsPerCell = 6000; break;
    default: cSlotsPerCell = 0; break;
  }
  HRESULT hr = S_OK;
  std::vector<SHourCell> vHourCells;
  ULONGLONG t = ullBegin;
  while (t <= ullEnd) {
    const ULONGLONG ullHourStart = (t / kullHour) * kullHour;
    const ULONGLONG ullNextHour = ullHourStart + kullHour;
    const ULONGLONG ullPartEnd = std::min(ullNextHour - 1, ullEnd);
    FILETIME ftFrom = U64ToFileTime(t), ftTo = U64ToFileTime(ullPartEnd);
    SYSTEMTIME stFrom, stTo;
    if (!KV_ASSERT_TEXT(NSPlatform::FileTimeToSysTime(&ftFrom, &stFrom) && NSPlatform::FileTimeToSysTime(&ftTo, &stTo),
                        "bRes\n"))
      return NSPlatform::HResultFromLastError();
    if (!KV_ASSERT_TEXT(stFrom.wHour == stTo.wHour, "sysTimeBegin.wHour==sysTimeEnd.wHour\n")) return E_UNEXPECTED;
    const WString strHourPath = NSKronvaleUtils::FormatHourPath(stFrom);
    if (!NSPlatform::IsDirectory(HourDirectory(strHourPath).c_str())) {
      // Missing hours contribute nothing: go straight to the next one that exists.
      WString strFound;
      FindClosestHourPath(strHourPath, true, &strFound);
      if (strFound.empty()) break;
      t = std::max(ullNextHour, FileTimeToU64(NSKronvaleUtils::HourStartFromPath(strFound)));
      continue;
    }
    if (m_lBusy.load() >= 1) {
      KV_REPORT_IF_FAILED(khrPending);
      return khrPending;
    }
    const bool bWholeHour = !pFilter && !cSlotsPerCell && NSHours::SlotIndex(stFrom) == 0 &&
                            NSHours::SlotIndex(stTo) == NSHours::kcSlots - 1;
    const ULONGLONG ullHour = ullHourStart / kullHour;
    bool bCells = bWholeHour && FindHourSummary(ullHour, HourDirectory(strHourPath), &vHourCells);
    if (!bCells) {
      CHourPtr pHour;
      hr = GetHourManager(strHourPath, false, &pHour);
      if (!KV_SUCCEEDED(hr)) return hr;
      pHour->RefreshIfGrown();
      if (!pFilter || Passes(pFilter, pHour->GetFlagMask(NSHours::eflHour, stFrom))) {
        hr = pHour->GetCells(stFrom, stTo, cSlotsPerCell, HourFilter(pFilter), &vHourCells);
        if (!KV_SUCCEEDED(hr)) return hr;
        bCells = true;
        if (bWholeHour) KeepHourSummary(ullHour, *pHour, vHourCells);
      }
    }
    if (bCells) {
      for (const SHourCell& cell : vHourCells) {
        SRecordStatistic record;
        if (cSlotsPerCell) {
          const ULONGLONG ullCellStart = ullHourStart + ULONGLONG{cell.dwFirstSlot / cSlotsPerCell} * cSlotsPerCell * kullSlot;
          record.ftBegin = U64ToFileTime(ullCellStart);
          record.ftEnd = U64ToFileTime(ullCellStart + ullResolution);
        } else {
          record.ftBegin = U64ToFileTime(ullHourStart + ULONGLONG{cell.dwFirstSlot} * kullSlot);
          record.ftEnd = U64ToFileTime(ullHourStart + ULONGLONG{cell.dwLastSlot} * kullSlot);
        }
        record.dwFlags = cell.dwFlags;
        record.dwCount = cell.dwCount;
        pvCells->push_back({record, ullHourStart + ULONGLONG{cell.dwFirstSlot} * kullSlot,
                            ullHourStart + ULONGLONG{cell.dwLastSlot} * kullSlot});
      }
    }
    t = ullNextHour;
  }
  return hr;
}

std::vector<SStatisticCell> JoinStatisticRuns(const std::vector<SStatisticCell>& vCells, ULONGLONG ullResolution,
                                              const SFrameFilter* pFilter, LONG dwFlags) {
  const LONGLONG llGap = (dwFlags & 4) ? 0 : static_cast<LONGLONG>(ullResolution);
  const DWORD dwJoinMode = (dwFlags & 8) && pFilter ? NSKronvaleUtils::FilterMode(*pFilter) : 2;
  std::vector<SStatisticCell> vRuns;
  if (vCells.empty()) return vRuns;
  SStatisticCell run = vCells.front();
  for (size_t i = 1; i < vCells.size(); ++i) {
    const SRecordStatistic& cell = vCells[i].record;
    SRecordStatistic& r = run.record;
    bool bJoin = Joins(dwJoinMode, r.dwFlags, cell.dwFlags);
    if (bJoin && llGap) {
      const LONGLONG llRunBegin = Ticks(r.ftBegin), llRunEnd = Ticks(r.ftEnd);
      const LONGLONG llBegin = Ticks(cell.ftBegin), llEnd = Ticks(cell.ftEnd);
      const bool bCellOutsideRun = llRunBegin - llGap >= llBegin || llBegin >= llRunEnd + llGap;
      const bool bRunOutsideCell = llBegin - llGap >= llRunBegin || llRunBegin >= llEnd + llGap;
      bJoin = !(bCellOutsideRun && bRunOutsideCell);
    }
    if (bJoin) {
      if (Ticks(cell.ftBegin) < Ticks(r.ftBegin)) r.ftBegin = cell.ftBegin;
      if (Ticks(cell.ftEnd) > Ticks(r.ftEnd)) r.ftEnd = cell.ftEnd;
      r.dwCount += cell.dwCount;
      r.dwFlags |= cell.dwFlags;
      run.ullFirstFrame = std::min(run.ullFirstFrame, vCells[i].ullFirstFrame);
      run.ullLastFrame = std::max(run.ullLastFrame, vCells[i].ullLastFrame);
    } else {
      if (Ticks(r.ftEnd) > Ticks(cell.ftBegin)) r.ftEnd = cell.ftBegin;
      vRuns.push_back(run);
      run = vCells[i];
    }
  }
  vRuns.push_back(run);
  return vRuns;
}

HRESULT HandOutStatistic(const std::vector<SStatisticCell>& vRuns, HRESULT hrWalk, DWORD* pdwCount,
                         SRecordStatistic** ppRecordStatistic) {
  if (vRuns.empty()) return hrWalk;
  auto* pRuns = static_cast<SRecordStatistic*>(CoTaskMemAlloc(vRuns.size() * sizeof(SRecordStatistic)));
  if (!pRuns) return E_OUTOFMEMORY;
  for (size_t i = 0; i < vRuns.size(); ++i) pRuns[i] = vRuns[i].record;
  *ppRecordStatistic = pRuns;
  *pdwCount = static_cast<DWORD>(vRuns.size());
  return S_OK;
}

// Moves each run's ends onto its first and last passing frames; a run of one frame lasts 10 ms.
// With bEndsAfterRuns (cells of seconds or minutes) a run ends at the start of the cell after its
// last one: a frame at that instant belongs to the next run or lies outside the period asked, so the
// end always moves back onto the run's own last frame.
HRESULT MoveSpanOntoFrames(IRecord* pRecord, const SFrameFilter* pFilter, FILETIME* pftBegin, FILETIME* pftEnd) {
  HRESULT hr = S_OK;
  if (pRecord->CheckFrame(*pftBegin, pFilter) != S_OK) hr = pRecord->GetNext(*pftBegin, pFilter, pftBegin);
  if (SUCCEEDED(hr) && pRecord->CheckFrame(*pftEnd, pFilter) != S_OK) hr = pRecord->GetPrev(*pftEnd, pFilter, pftEnd);
  return hr;
}

void ExactEnds(IRecord* pRecord, std::vector<SStatisticCell>& vRuns, const SFrameFilter* pFilter, bool bEndsAfterRuns) {
  KV_FUNC("ExactEnds");
  for (SStatisticCell& cell : vRuns) {
    SRecordStatistic& run = cell.record;
    if (!KV_ASSERT_TEXT(Ticks(run.ftEnd) >= Ticks(run.ftBegin), "oRecordStatistic.ftEnd>=oRecordStatistic.ftBegin\n"))
      return;
    const SRecordStatistic kept = run;
    if (!pFilter) {
      // Every frame passes: the run's first and last occupied slots are its ends, which is what the
      // searches below would find, without opening its hours again.
      run.ftBegin = U64ToFileTime(cell.ullFirstFrame);
      run.ftEnd = U64ToFileTime(cell.ullLastFrame);
    } else {
      HRESULT hr = S_OK;
      if (bEndsAfterRuns || pRecord->CheckFrame(run.ftEnd, pFilter) != S_OK)
        hr = pRecord->GetPrev(run.ftEnd, pFilter, &run.ftEnd);
      if (!KV_SUCCEEDED(hr)) return;
      if (pRecord->CheckFrame(run.ftBegin, pFilter) != S_OK) hr = pRecord->GetNext(run.ftBegin, pFilter, &run.ftBegin);
      if (!KV_SUCCEEDED(hr)) return;
    }
    if (Ticks(run.ftEnd) == Ticks(run.ftBegin))
      run.ftEnd = U64ToFileTime(FileTimeToU64(run.ftEnd) + kullSlot);
    else if (Ticks(run.ftEnd) < Ticks(run.ftBegin))
      run = kept;
  }
}

}  // namespace NSRecords
