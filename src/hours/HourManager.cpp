#include "hours/HourManager.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>
#include <kronvale/KronvaleResults.h>

#include "com/ComBase.h"
#include "hours/KronvaleUtils.h"
#include "support/Report.h"
#include "support/WideFormat.h"

namespace NSHours {

using namespace NSKronvale;

using NSPlatform::CFile;
using NSPlatform::SIoBuffer;

namespace {

constexpr DWORD kdwNoIndex = 0xFFFFFFFFu;
constexpr DWORD kdwNoGap = 0xFFFFFFFFu;

constexpr DWORD kdwShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// A read of exactly cb bytes at an offset; a short one is a read fault.
HRESULT ReadExact(CFile& file, ULONGLONG ullOffset, void* pv, DWORD cb) {
  DWORD cbRead = 0;
  const HRESULT hr = file.ReadAt(ullOffset, pv, cb, &cbRead);
  if (FAILED(hr)) return hr;
  return cbRead == cb ? S_OK : khrReadFault;
}

bool TimeToSystemTime(const FILETIME& ft, SYSTEMTIME* pst) { return NSPlatform::FileTimeToSysTime(&ft, pst); }

// The start of the last hour of 30827, the last year a time breakdown takes; a later start fails the
// conversion with ERROR_INVALID_PARAMETER.
constexpr ULONGLONG kullLatestHourStart = 0x7FFFFFFFFFFFFFFFull / NSKronvaleUtils::kullTicksPerHour *
                                          NSKronvaleUtils::kullTicksPerHour - NSKronvaleUtils::kullTicksPerHour;

// Appends made by every hour of this process so far.
std::atomic<ULONGLONG> g_ullAppends{0};

bool SlotInHour(const SYSTEMTIME& st) {
  return st.wMinute < kcMinutes && st.wSecond < kcSeconds && st.wMilliseconds < 1000;
}

bool Matches(const SHourFrameFilter& filter, DWORD dwFlags) {
  return NSKronvaleUtils::IsFrameMatchesFilter(filter.dwMask, filter.eMode, dwFlags);
}

}  // namespace

// Every public operation holds the record's lock for its whole duration.
#define KV_HOUR_LOCK(failure)              \
  if (!KV_ASSERT(m_pLock)) return failure; \
  NSSystem::CLockGuard kv_hourGuard(*m_pLock)

CHourManager::CHourManager(NSSystem::ILockPtr pLock) : m_pLock(std::move(pLock)) {}

CHourManager::~CHourManager() { Close(); }

WString CHourManager::FilePath(const WCHAR* pszName) const { return NSPlatform::CombinePath(m_strPath, pszName); }

FILETIME CHourManager::GetHourStart() {
  if (!NSPlatform::FileTimeToU64(m_ftHourStart)) m_ftHourStart = NSKronvaleUtils::HourStartFromPath(m_strPath);
  return m_ftHourStart;
}

// ---- Open and close -----------------------------------------------------------------------------

HRESULT CHourManager::Open(const WString& strPath, bool bCreate, bool bBuffered) {
  return Open(strPath, bCreate, bBuffered, SHourSnapshot());
}

HRESULT CHourManager::Open(const WString& strPath, bool bCreate, bool bBuffered, SHourSnapshot&& snapshot,
                           bool bDirectorySeen) {
  KV_HOUR_LOCK(E_FAIL);
  if (!KV_ASSERT_TEXT(!m_descriptor.IsOpen() && !m_file.IsOpen() && !HashOpen(),
                      "!m_hDescriptor && !m_hFile\n"))
    return khrInvalidState;
  if (m_strPath != strPath) {
    m_strPath = strPath;
    m_ftHourStart = {0, 0};
  }
  SHourSnapshot taken = std::move(snapshot);
  return OpenLocked(bCreate, bBuffered, &taken, bDirectorySeen);
}

SHourSnapshot CHourManager::CloseToSnapshot() {
  KV_HOUR_LOCK(SHourSnapshot());
  SHourSnapshot snapshot;
  if (HashOpen() && m_pHashCopy && m_ullRefreshedSize) {
    snapshot.ullDescriptorSize = m_ullRefreshedSize;
    snapshot.ullEpoch = m_ullOpenEpoch;
    snapshot.bSettled = m_bCopySettled;
    snapshot.pHash = std::move(m_pHashCopy);
  }
  CloseLocked();
  return snapshot;
}

HRESULT CHourManager::OpenLocked(bool bCreate, bool bBuffered, SHourSnapshot* pSnapshot, bool bDirectorySeen) {
  KV_FUNC("CHourManager::Open");
  // Taken before any file is looked at: a change that ends after this makes the copy out of date.
  m_ullOpenEpoch = NSKronvaleUtils::HourChangeEpoch();
  // Likewise before any file is looked at: a copy taken from here on is settled when the hour had
  // already ended an hour ago.
  const bool bSettledNow = !bCreate && EndedAnHourAgo();
  const ULONGLONG ullAppends = g_ullAppends.load(std::memory_order_acquire);
  m_bCopySettled = false;
  // 1. The directory, with every missing parent (their names made durable).
  m_bNamesMade = false;
  if (!bDirectorySeen && !NSPlatform::IsDirectory(m_strPath.c_str())) {
    if (!bCreate) return KvHResultFromWin32(ERROR_FILE_NOT_FOUND);
    const HRESULT hr = NSKronvaleUtils::CreateDirTreeDurably(m_strPath);
    if (!KV_SUCCEEDED(hr)) return hr;
    m_bNamesMade = true;
  }
  // 2.-6.
  m_bBuffered = bBuffered;
  HRESULT hr = OpenHash(bCreate);
  if (!KV_SUCCEEDED(hr)) return hr;
  hr = OpenDescriptor(bCreate);
  if (!KV_SUCCEEDED(hr)) return hr;
  hr = OpenFile(bCreate);
  if (!KV_SUCCEEDED(hr)) return hr;
  // The new files' names reach the disk before the first frame is acknowledged: a write-through
  // frame is durable only if the file holding it can be found after a power cut.
  if (m_bNamesMade) {
    hr = NSPlatform::FlushDirectory(m_strPath.c_str());
    if (!KV_SUCCEEDED(hr)) return hr;
    m_bNamesMade = false;
  }
  m_bWritable = bCreate;
  // The private copy is taken once descriptor.ald's size is known, so that every frame listed up to
  // that size was complete before the copy began (but perhaps the last: see RefreshLocked).
  m_ullRefreshedSize = m_ullPagesAt = 0;
  if (pSnapshot && pSnapshot->pHash) {
    m_pHashCopy = std::move(pSnapshot->pHash);
    const ULONGLONG ullShown = pSnapshot->ullDescriptorSize;
    if (pSnapshot->ullEpoch == m_ullOpenEpoch && ullShown <= m_ullDescriptorSize) {
      m_ullRefreshedSize = ullShown;
      // The hour as the snapshot left it: the view is mapped only when a refresh needs it. Its last
      // frame is read again (see RefreshLocked), in a few small reads, unless the copy was already
      // settled when it was taken or last looked at.
      if (ullShown == m_ullDescriptorSize && (pSnapshot->bSettled || RereadLastFrame())) {
        m_ullPagesAt = ullShown;
        m_bCopySettled = pSnapshot->bSettled || bSettledNow;
        Settle(bSettledNow, ullAppends);
        return S_OK;
      }
      // Otherwise only the frames appended since the snapshot are copied in (with the last one it
      // showed).
      hr = MapView();
      if (FAILED(hr)) return hr;
      RefreshLocked();
      return S_OK;
    }
  } else if (!m_pHashCopy) {
    m_pHashCopy.reset(new SHashCopy);
  }
  // A copy of its own (or one out of date after another change): its pages are taken from the file
  // as they are needed, checked against the size descriptor.ald has now. The page of the last
  // listed frame's slot is taken at once, to see whether the copy shows that frame (RefreshLocked).
  m_pHashCopy->loaded.reset();
  m_ullPagesAt = m_ullDescriptorSize;
  m_ullRefreshedSize = LastEntryShown(m_ullDescriptorSize) ? m_ullDescriptorSize : 0;
  if (!m_ullRefreshedSize) m_ullPagesAt = 0;
  m_bCopySettled = bSettledNow;
  Settle(bSettledNow, ullAppends);
  return S_OK;
}

// An hour opened after it ended more than an hour ago, whose copy shows every listed frame, is as
// RefreshIfGrown leaves it when it found the hour unchanged: settled, with the appends counted
// before its size was taken.
void CHourManager::Settle(bool bEndedAnHourAgo, ULONGLONG ullAppends) {
  m_bSettled = bEndedAnHourAgo && !m_bWritable && m_ullRefreshedSize && m_ullRefreshedSize == m_ullDescriptorSize &&
               m_ullPagesAt == m_ullRefreshedSize;
  m_ullAppendsSeen = ullAppends;
}

bool CHourManager::EndedAnHourAgo() {
  FILETIME ftNow;
  NSPlatform::GetUtcFileTime(&ftNow);
  const ULONGLONG ullStart = NSPlatform::FileTimeToU64(GetHourStart());
  return ullStart && ullStart + 2 * NSKronvaleUtils::kullTicksPerHour <= NSPlatform::FileTimeToU64(ftNow);
}

// The last listed frame's slot and the flag counters it counts in, from descriptor.alh's bytes
// rather than the view. False when they could not be read.
bool CHourManager::RereadLastFrame() {
  const ULONGLONG ullFrames = FrameCountFromDescriptorSize(m_ullDescriptorSize);
  if (!ullFrames) return true;
  SFrameInfo info;
  SFrameHeader header;
  SYSTEMTIME st;
  if (FAILED(ReadFrameInfo(static_cast<DWORD>(ullFrames), &info)) ||
      FAILED(ReadExact(m_file, info.ullOffset, &header, sizeof(header))) || !TimeToSystemTime(header.ftTime, &st) ||
      !SlotInHour(st))
    return false;
  SHashFile* pCopy = &m_pHashCopy->hash;
  const DWORD dwSlot = SlotIndex(st);
  return SUCCEEDED(ReadExact(m_hashFile, SlotOffset(dwSlot), &pCopy->vFrameInfoHash[0][0][0] + dwSlot,
                             sizeof(SFrameInfoHash))) &&
         SUCCEEDED(ReadExact(m_hashFile, MinuteCountersOffset(st.wMinute), pCopy->vMinuteFlagCounters[st.wMinute],
                             sizeof(pCopy->vMinuteFlagCounters[0]))) &&
         SUCCEEDED(ReadExact(m_hashFile, SecondCountersOffset(st.wMinute, st.wSecond),
                             pCopy->vSecondFlagCounters[st.wMinute * kcSeconds + st.wSecond],
                             sizeof(pCopy->vSecondFlagCounters[0]))) &&
         SUCCEEDED(ReadExact(m_hashFile, offsetof(SHashFile, vHourFlagCounters), pCopy->vHourFlagCounters,
                             sizeof(pCopy->vHourFlagCounters)));
}

HRESULT CHourManager::OpenHash(bool bCreate) {
  bool bExisted = false;
  // Without bCreate nothing is made: a reader must not leave an empty file where a repair in another
  // process is about to make the hour's index files anew.
  HRESULT hr = m_hashFile.Open(FilePath(kszHashFileName).c_str(), GENERIC_READ | GENERIC_WRITE, kdwShareAll,
                               bCreate ? OPEN_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, &bExisted);
  if (!KV_SUCCEEDED(hr)) return hr;
  if (!bExisted && bCreate) {
    m_bNamesMade = true;
    hr = WriteEmptyHash();
    if (!KV_SUCCEEDED(hr)) {
      // Made again by the next open, once the disk has room.
      m_hashFile.Close();
      NSPlatform::RemoveFile(FilePath(kszHashFileName).c_str());
      return hr;
    }
  }
  ULONGLONG ullSize = 0;
  hr = m_hashFile.GetSize(&ullSize);
  if (!KV_SUCCEEDED(hr)) return hr;
  if (!KV_ASSERT_TEXT(
          ::NSReport::NSDetail::RecordValue("_AR(", "GetFileSize(hHash, NULL)", ullSize) == sizeof(SHashFile),
          "_AR(GetFileSize(hHash, NULL))==sizeof(SHashFile)\n"))
    return khrFileCorrupt;
  m_bMapLater = true;  // mapped by OpenLocked, or when first needed (MapView)
  return S_OK;
}

// Zeros, an empty hour, written rather than left to a file extended without them: the index is
// written through a mapping, and a file system that has no block for a page of a sparse file when
// the page is first stored to answers with a signal (SIGBUS on Linux), not an error. Written, every
// page owns its block from the start, and a full disk answers here, as 0x80070070.
HRESULT CHourManager::WriteEmptyHash() {
  static const BYTE s_abZeros[64 * 1024] = {};
  for (ULONGLONG ullOffset = 0; ullOffset < sizeof(SHashFile);) {
    const DWORD cb = static_cast<DWORD>(std::min<ULONGLONG>(sizeof(s_abZeros), sizeof(SHashFile) - ullOffset));
    DWORD cbWritten = 0;
    HRESULT hr = m_hashFile.WriteAt(ullOffset, s_abZeros, cb, &cbWritten);
    if (SUCCEEDED(hr) && cbWritten != cb) hr = khrWriteFault;
    if (FAILED(hr)) return hr;
    ullOffset += cb;
  }
  return S_OK;
}

HRESULT CHourManager::MapView() {
  if (!m_bMapLater) return S_OK;
  const HRESULT hr = m_hashMapping.Map(m_hashFile);
  if (!KV_SUCCEEDED(hr)) return hr;
  m_bMapLater = false;
  return S_OK;
}

HRESULT CHourManager::OpenHourFile(NSPlatform::CFile& file, const WCHAR* pszName, bool bCreate) {
  const DWORD dwFlags = FILE_ATTRIBUTE_NORMAL | (m_bBuffered ? 0u : FILE_FLAG_WRITE_THROUGH);
  bool bExisted = true;
  const HRESULT hr = file.Open(FilePath(pszName).c_str(), GENERIC_READ | GENERIC_WRITE, kdwShareAll,
                               bCreate ? OPEN_ALWAYS : OPEN_EXISTING, dwFlags, &bExisted);
  if (SUCCEEDED(hr) && !bExisted) m_bNamesMade = true;
  return hr;
}

HRESULT CHourManager::OpenDescriptor(bool bCreate) {
  HRESULT hr = OpenHourFile(m_descriptor, kszDescriptorFileName, bCreate);
  if (!KV_SUCCEEDED(hr)) return hr;
  hr = m_descriptor.GetSize(&m_ullDescriptorSize);
  if (!KV_SUCCEEDED(hr)) return hr;
  // Creating, or created before a crash that came ahead of the reserved entry: index 0 must be
  // taken before any frame is appended, since a slot holding 0 means "no frame".
  if (bCreate && m_ullDescriptorSize == 0) {
    const SFrameInfo reserved = {};
    DWORD cbWritten = 0;
    hr = m_descriptor.WriteAt(0, &reserved, sizeof(reserved), &cbWritten);
    if (SUCCEEDED(hr) && cbWritten != sizeof(reserved)) hr = khrWriteFault;
    m_ullDescriptorSize = cbWritten;
    if (!KV_SUCCEEDED(hr)) return hr;
  }
  return S_OK;
}

HRESULT CHourManager::OpenFile(bool bCreate) {
  HRESULT hr = OpenHourFile(m_file, kszDataFileName, bCreate);
  if (!KV_SUCCEEDED(hr)) return hr;
  // The position stays at the end from here on: appends are gathered writes at the position.
  hr = m_file.Seek(0, FILE_END, &m_ullDataSize);
  if (!KV_SUCCEEDED(hr)) return hr;
  return S_OK;
}

void CHourManager::Close() {
  if (m_pLock) {
    NSSystem::CLockGuard guard(*m_pLock);
    CloseLocked();
  } else {
    CloseLocked();
  }
}

void CHourManager::CloseLocked() {
  KV_FUNC("CHourManager::Close");
  const std::lock_guard<std::mutex> flushing(m_flushMutex);  // a flush running finishes first
  if (m_bWritable) KV_LOG_MESSAGE(KV_W("Flushing files for hour %s\n"), m_strPath.c_str());
  m_bWritable = false;
  // Closing a handle cannot fail through CFile; the failure texts of the other platforms' handle
  // closing therefore have no occasion here.
  if (m_descriptor.IsOpen()) {
    KV_LOG_MESSAGE(KV_W("Closing descriptor file for hour %s\n"), m_strPath.c_str());
    m_descriptor.Close();
  }
  if (m_file.IsOpen()) {
    KV_LOG_MESSAGE(KV_W("Closing data file for hour %s\n"), m_strPath.c_str());
    m_file.Close();
  }
  if (m_hashMapping.IsMapped() || m_hashFile.IsOpen()) {
    KV_LOG_MESSAGE(KV_W("Closing hash file mapping for hour %s\n"), m_strPath.c_str());
    m_hashMapping.Unmap();
    m_hashFile.Close();
  }
  m_bMapLater = false;
  m_bSettled = false;
  DropWindows();
  m_ullDataSize = m_ullDescriptorSize = m_ullRefreshedSize = 0;
  m_bUnflushed = false;
  m_bTailToRestore = false;
}

HRESULT CHourManager::Refresh() {
  KV_HOUR_LOCK(E_FAIL);
  if (!KV_ASSERT_TEXT(HashOpen(), "pDescriptorHeader\n")) return khrInvalidState;
  RefreshLocked();
  return S_OK;
}

void CHourManager::RefreshLocked(bool bWhole) {
  if (!HashOpen() || !m_pHashCopy || FAILED(MapView())) return;
  DropWindows();
  m_bCopySettled = false;
  ULONGLONG ullSize = 0;
  const bool bSized = m_descriptor.IsOpen() && SUCCEEDED(m_descriptor.GetSize(&ullSize));
  // The last frame the copy showed is copied again with the new ones: a writer in this process (or
  // another) may have been between its slot and its flag counters when it was copied. Pages not
  // taken yet need nothing: they are taken later, against the new size.
  const ULONGLONG ullFrom =
      m_ullRefreshedSize > sizeof(SFrameInfo) ? m_ullRefreshedSize - sizeof(SFrameInfo) : m_ullRefreshedSize;
  if (bWhole || !bSized || !RefreshAppended(ullFrom, ullSize)) {
    std::memcpy(&m_pHashCopy->hash, View(), sizeof(SHashFile));
    m_pHashCopy->loaded.set();
  }
  // A reader's idea of data.al's size grows with the copy: the data of every frame the copy can show
  // was written before its descriptor entry.
  if (!m_bWritable && m_file.IsOpen()) {
    ULONGLONG ullDataSize = 0;
    if (SUCCEEDED(m_file.GetSize(&ullDataSize))) m_ullDataSize = ullDataSize;
  }
  // So does its frame count.
  if (!m_bWritable && bSized) m_ullDescriptorSize = ullSize;
  m_ullPagesAt = bSized ? ullSize : 0;
  m_ullRefreshedSize = bSized && LastEntryShown(ullSize) ? ullSize : 0;
  if (!m_ullRefreshedSize) m_ullPagesAt = 0;
}

const SHashFile& CHourManager::LoadPages(DWORD dwOffset, DWORD cb) {
  SHashCopy& copy = *m_pHashCopy;
  if (!m_ullPagesAt) {
    TakeWholeCopy();
    return copy.hash;
  }
  auto* pbCopy = reinterpret_cast<BYTE*>(&copy.hash);
  const DWORD dwLast = (dwOffset + cb - 1) / kcbCopyPage;
  for (DWORD p = dwOffset / kcbCopyPage; p <= dwLast; ++p) {
    if (copy.loaded[p]) continue;
    DWORD pEnd = p + 1;
    while (pEnd <= dwLast && !copy.loaded[pEnd]) ++pEnd;
    const DWORD dwFrom = p * kcbCopyPage;
    const DWORD cbRun = static_cast<DWORD>(std::min<ULONGLONG>(ULONGLONG{pEnd} * kcbCopyPage, sizeof(SHashFile)) - dwFrom);
    if (m_hashMapping.IsMapped()) {
      std::memcpy(pbCopy + dwFrom, reinterpret_cast<const BYTE*>(View()) + dwFrom, cbRun);
    } else if (FAILED(ReadExact(m_hashFile, dwFrom, pbCopy + dwFrom, cbRun))) {
      TakeWholeCopy();
      return copy.hash;
    }
    for (DWORD q = p; q < pEnd; ++q) copy.loaded.set(q);
    p = pEnd;
  }
  // A frame appended since the size was taken may be in what was just read: the pages then do
  // not show what the rest shows, and the copy is taken whole. A settled hour has had no append
  // while no writer of this process appended anything.
  if (m_bSettled && g_ullAppends.load(std::memory_order_acquire) == m_ullAppendsSeen) return copy.hash;
  ULONGLONG ullSize = 0;
  if (!m_descriptor.IsOpen() || FAILED(m_descriptor.GetSize(&ullSize)) || ullSize != m_ullPagesAt) TakeWholeCopy();
  return copy.hash;
}

// The copy brought up to date at once, out of the reader's turn: it may show frames appended since
// the last refresh, and is not counted as up to date, so that the next refresh takes it again.
void CHourManager::TakeWholeCopy() {
  SHashCopy& copy = *m_pHashCopy;
  DropWindows();
  m_bCopySettled = false;
  m_ullPagesAt = 0;
  m_ullRefreshedSize = 0;
  if (SUCCEEDED(MapView())) {
    std::memcpy(&copy.hash, View(), sizeof(SHashFile));
  } else {
    // Nothing better to show than what the file gives; a part that cannot be read shows no frames.
    for (DWORD p = 0; p < kcCopyPages; ++p) {
      if (copy.loaded[p]) continue;
      const DWORD dwFrom = p * kcbCopyPage;
      const DWORD cb = static_cast<DWORD>(std::min<ULONGLONG>(kcbCopyPage, sizeof(SHashFile) - dwFrom));
      BYTE* pb = reinterpret_cast<BYTE*>(&copy.hash) + dwFrom;
      if (FAILED(ReadExact(m_hashFile, dwFrom, pb, cb))) std::memset(pb, 0, cb);
    }
  }
  copy.loaded.set();
  if (!m_bWritable && m_file.IsOpen()) {
    ULONGLONG ullDataSize = 0;
    if (SUCCEEDED(m_file.GetSize(&ullDataSize))) m_ullDataSize = ullDataSize;
  }
}

// A few frames appended since the copy was last up to date (descriptor sizes ullFrom and ullTo): only
// their slots and the counters they touched are copied, not the whole 1.5 MB. A reader that follows
// a live hour refreshes after nearly every frame. False when the copy must be taken whole.
bool CHourManager::RefreshAppended(ULONGLONG ullFrom, ULONGLONG ullTo) {
  constexpr ULONGLONG kcMostFrames = 33;  // beyond this, reading their headers costs more than the copy
  if (!ullFrom || ullTo <= ullFrom || ullFrom % sizeof(SFrameInfo) || ullTo % sizeof(SFrameInfo) ||
      (ullTo - ullFrom) / sizeof(SFrameInfo) > kcMostFrames)
    return false;
  SFrameInfo vInfo[kcMostFrames];
  const DWORD cbInfo = static_cast<DWORD>(ullTo - ullFrom);
  if (FAILED(ReadExact(m_descriptor, ullFrom, vInfo, cbInfo))) return false;
  const SHashFile* pView = View();
  SHashFile* pCopy = &m_pHashCopy->hash;
  for (DWORD i = 0; i < cbInfo / sizeof(SFrameInfo); ++i) {
    SFrameHeader header;
    SYSTEMTIME st;
    if (FAILED(ReadExact(m_file, vInfo[i].ullOffset, &header, sizeof(header))) ||
        !TimeToSystemTime(header.ftTime, &st) || !SlotInHour(st))
      return false;
    const WORD m = st.wMinute, sec = st.wSecond, slot = st.wMilliseconds / 10;
    pCopy->vFrameInfoHash[m][sec][slot] = pView->vFrameInfoHash[m][sec][slot];
    std::memcpy(pCopy->vMinuteFlagCounters[m], pView->vMinuteFlagCounters[m], sizeof(pCopy->vMinuteFlagCounters[m]));
    std::memcpy(pCopy->vSecondFlagCounters[m * kcSeconds + sec], pView->vSecondFlagCounters[m * kcSeconds + sec],
                sizeof(pCopy->vSecondFlagCounters[0]));
  }
  std::memcpy(pCopy->vHourFlagCounters, pView->vHourFlagCounters, sizeof(pCopy->vHourFlagCounters));
  return true;
}

// A writer stores a frame's slot after its descriptor entry. A copy taken between the two lacks the
// last listed frame although the size says it is there; such a copy is not counted as up to date.
bool CHourManager::LastEntryShown(ULONGLONG ullDescriptorSize) {
  const ULONGLONG ullFrames = FrameCountFromDescriptorSize(ullDescriptorSize);
  if (!ullFrames) return true;
  SFrameInfo info;
  SFrameHeader header;
  SYSTEMTIME st;
  if (FAILED(ReadFrameInfo(static_cast<DWORD>(ullFrames), &info)) ||
      FAILED(ReadExact(m_file, info.ullOffset, &header, sizeof(header))) ||
      !TimeToSystemTime(header.ftTime, &st) || !GetSlot(st))
    return true;  // nothing better to wait for: the hour is torn or being cut
  return GetSlot(st)->GetIndex() == (static_cast<DWORD>(ullFrames) & kdwSlotIndexMask);
}

bool CHourManager::GetCopyState(ULONGLONG* pullDescriptorSize, ULONGLONG* pullEpoch) {
  KV_HOUR_LOCK(false);
  *pullDescriptorSize = m_ullRefreshedSize;
  *pullEpoch = m_ullOpenEpoch;
  return HashOpen() && HasCopy() && m_ullRefreshedSize != 0;
}

HRESULT CHourManager::RefreshIfGrown(bool bAskAnyway) {
  KV_HOUR_LOCK(E_FAIL);
  if (!HashOpen() || !m_descriptor.IsOpen()) return S_FALSE;
  return RefreshIfGrownLocked(bAskAnyway) ? S_OK : S_FALSE;
}

bool CHourManager::RefreshIfGrownLocked(bool bAskAnyway) {
  // An hour that ended more than an hour ago grows only through this process's writers (which
  // record only the present, late frames included); while none of them appended anything since the
  // last look, descriptor.ald is not asked again.
  const ULONGLONG ullAppends = g_ullAppends.load(std::memory_order_acquire);
  if (m_bSettled && ullAppends == m_ullAppendsSeen && !bAskAnyway) return false;
  ULONGLONG ullSize = 0;
  if (m_descriptor.IsOpen() && SUCCEEDED(m_descriptor.GetSize(&ullSize)) && ullSize == m_ullRefreshedSize) {
    FILETIME ftNow;
    NSPlatform::GetUtcFileTime(&ftNow);
    m_ullAppendsSeen = ullAppends;
    m_bSettled = NSPlatform::FileTimeToU64(GetHourStart()) + 2 * NSKronvaleUtils::kullTicksPerHour <=
                 NSPlatform::FileTimeToU64(ftNow);
    return false;
  }
  m_bSettled = false;
  RefreshLocked();
  return true;
}

// ---- Write --------------------------------------------------------------------------------------

HRESULT CHourManager::Write(const SYSTEMTIME& st, DWORD dwFlags, const SHourFrameBuffer* pBuffers, DWORD dwCount) {
  if (dwCount) KV_CHECK_POINTER(pBuffers);
  for (DWORD i = 0; i < dwCount; ++i) {
    if (pBuffers[i].dwDataSize && !pBuffers[i].pData) return ::NSReport::ReportNullPointer(KV_HERE, "pBuff[i].pData\n");
  }
  KV_HOUR_LOCK(E_FAIL);
  // 1.
  if (m_bMapLater && FAILED(MapView())) return khrInvalidState;
  if (!KV_ASSERT_TEXT(m_hashMapping.IsMapped(), "pDescriptorHeader\n")) return khrInvalidState;
  // The private copy shows the hour as it was before this append until the next refresh: what it
  // has not taken yet is taken now.
  if (m_pHashCopy && !m_pHashCopy->loaded.all()) Pages(0, sizeof(SHashFile));
  // A failed append whose bytes could not be taken back is taken back before anything follows it.
  HRESULT hr = RestoreTail();
  if (FAILED(hr)) return hr;
  // 2.-3. The slot is st's minute, second and millisecond (StoreSlot); the frame goes first.
  const ULONGLONG ullDataBefore = m_ullDataSize;
  const ULONGLONG ullDescriptorBefore = m_ullDescriptorSize;
  SFrameInfo info = {};
  hr = AppendFrame(st, dwFlags, pBuffers, dwCount, &info);
  if (!KV_SUCCEEDED(hr)) return TakeBack(ullDataBefore, ullDescriptorBefore, hr);
  // 4.-5.
  DWORD dwIndex = kdwNoIndex;
  hr = AppendDescriptor(info, &dwIndex);
  if (!KV_SUCCEEDED(hr)) return TakeBack(ullDataBefore, ullDescriptorBefore, hr);
  if (!KV_ASSERT_TEXT(kdwNoIndex != dwIndex, "-1!=uFrameInfoUnion.dwIndex\n")) return E_UNEXPECTED;
  // 6.-7.
  StoreSlot(st, dwIndex, dwFlags);
  g_ullAppends.fetch_add(1, std::memory_order_acq_rel);
  m_bUnflushed = m_bBuffered;
  // A write-through hour makes the slot and the flag counters durable with the frame: a power cut
  // would otherwise keep the frame and its entry but lose the way to find it, and the corruption
  // test looks only at the last frame. The frame is stored either way; a failed flush is reported.
  if (!m_bBuffered) KV_REPORT_IF_FAILED(m_hashMapping.Flush());
  return S_OK;
}

// An append that failed half-way (a disk that filled up in the middle of a frame, a short write)
// leaves the files exactly as they were before it: whatever reached data.al and descriptor.ald is
// cut off again. Bytes left behind a failed frame would hide every later frame from a repair, which
// stops at the first bad frame; and a frame whose Write failed must not come back in one.
HRESULT CHourManager::TakeBack(ULONGLONG ullDataSize, ULONGLONG ullDescriptorSize, HRESULT hrFailure) {
  m_ullTailData = ullDataSize;
  m_ullTailDescriptor = ullDescriptorSize;
  m_bTailToRestore = true;
  RestoreTail();
  return hrFailure;
}

// Cuts data.al and descriptor.ald back to the sizes of the last whole frame when a failed append
// left more; S_OK when there is nothing (left) to cut. The hour refuses appends while this fails.
HRESULT CHourManager::RestoreTail() {
  if (!m_bTailToRestore) return S_OK;
  DropWindows();
  HRESULT hr = m_file.Seek(static_cast<LONGLONG>(m_ullTailData), FILE_BEGIN, nullptr);
  if (SUCCEEDED(hr)) hr = m_file.SetEndOfFile();
  if (SUCCEEDED(hr)) hr = m_descriptor.Seek(static_cast<LONGLONG>(m_ullTailDescriptor), FILE_BEGIN, nullptr);
  if (SUCCEEDED(hr)) hr = m_descriptor.SetEndOfFile();
  if (!KV_SUCCEEDED(hr)) return hr;
  m_ullDataSize = m_ullTailData;
  m_ullDescriptorSize = m_ullTailDescriptor;
  m_bTailToRestore = false;
  return S_OK;
}

HRESULT CHourManager::Flush() {
  if (!KV_ASSERT(m_pLock)) return E_FAIL;
  // The disk's part runs outside the record lock, so that appends go on while the files are
  // flushed; the flush lock keeps Close from taking the files away meanwhile. Everything appended
  // before the flush began is on disk when it ends.
  std::unique_lock<std::mutex> flushing(m_flushMutex, std::defer_lock);
  {
    NSSystem::CLockGuard guard(*m_pLock);
    if (!m_bUnflushed || !m_file.IsOpen() || !m_descriptor.IsOpen() || !HashOpen()) return S_FALSE;
    m_bUnflushed = false;
    flushing.lock();  // always taken after the record lock, as Close takes it
  }
  // The order of an append: data first, so that an index entry on disk has its bytes (an append
  // that runs meanwhile may reach the disk in part; the hour's repair takes such a torn tail off).
  HRESULT hr = m_file.Flush();
  if (SUCCEEDED(hr)) hr = m_descriptor.Flush();
  if (SUCCEEDED(hr) && m_hashMapping.IsMapped()) hr = m_hashMapping.Flush();
  if (!KV_SUCCEEDED(hr)) {
    flushing.unlock();
    NSSystem::CLockGuard guard(*m_pLock);
    if (m_file.IsOpen()) m_bUnflushed = true;
    return hr;
  }
  return S_OK;
}

HRESULT CHourManager::AppendFrame(const SYSTEMTIME& st, DWORD dwFlags, const SHourFrameBuffer* pBuffers, DWORD dwCount,
                                  SFrameInfo* pInfo) {
  FILETIME ftTime;
  if (!NSPlatform::SysTimeToFileTime(&st, &ftTime)) return NSPlatform::HResultFromLastError();
  SFrameHeader header = {SFrameHeader::MakeSignature(), ftTime, dwFlags, dwCount, 0};
  ULONGLONG ullFullSize = 0;
  for (DWORD i = 0; i < dwCount; ++i) ullFullSize += BufferRecordSize(0) + ULONGLONG{pBuffers[i].dwDataSize};
  if (ullFullSize > 0xFFFFFFFFull - sizeof(SFrameHeader)) return E_INVALIDARG;
  header.dwFullSize = static_cast<DWORD>(ullFullSize);

  // Header, then each buffer's size and data: one gathered write at the end of data.al.
  std::vector<SIoBuffer> vPieces;
  try {
    vPieces.reserve(1 + 2 * size_t{dwCount});
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;  // an absurd buffer count
  }
  vPieces.push_back({&header, sizeof(header)});
  for (DWORD i = 0; i < dwCount; ++i) {
    vPieces.push_back({&pBuffers[i].dwDataSize, sizeof(DWORD)});
    if (pBuffers[i].dwDataSize) vPieces.push_back({pBuffers[i].pData, pBuffers[i].dwDataSize});
  }
  const ULONGLONG ullOffset = m_ullDataSize;
  DWORD cbWritten = 0;
  HRESULT hr = m_file.WriteGatherAt(ullOffset, vPieces.data(), vPieces.size(), &cbWritten);
  if (SUCCEEDED(hr) && cbWritten != FrameSize(header.dwFullSize)) hr = khrWriteFault;
  if (FAILED(hr)) return hr;  // the caller takes back what reached the file
  m_ullDataSize += cbWritten;
  *pInfo = {dwFlags, ullOffset, FrameSize(header.dwFullSize)};
  return S_OK;
}

HRESULT CHourManager::AppendDescriptor(const SFrameInfo& info, DWORD* pdwIndex) {
  *pdwIndex = kdwNoIndex;
  const ULONGLONG ullFileSize = m_ullDescriptorSize;
  DWORD cbWritten = 0;
  HRESULT hr = m_descriptor.WriteAt(ullFileSize, &info, sizeof(info), &cbWritten);
  if (SUCCEEDED(hr) && cbWritten != sizeof(info)) hr = khrWriteFault;
  if (FAILED(hr)) return hr;  // the caller takes back what reached the file
  m_ullDescriptorSize += sizeof(info);
  const DWORD dwFileSize = static_cast<DWORD>(ullFileSize);
  if (KV_ASSERT_TEXT(!(dwFileSize % sizeof(SFrameInfo)), "!(dwFileSize % sizeof(SFrameInfo))\n"))
    *pdwIndex = static_cast<DWORD>(ullFileSize / sizeof(SFrameInfo));
  return S_OK;
}

void CHourManager::StoreSlot(const SYSTEMTIME& st, DWORD dwIndex, DWORD dwFlags) {
  SHashFile* pHash = View();
  // Only 24 bits fit: a larger index is cut, as the format has always done.
  pHash->vFrameInfoHash[st.wMinute][st.wSecond][st.wMilliseconds / 10].SetIndex(dwIndex & kdwSlotIndexMask);
  AddFlagCounters(pHash, st.wMinute, st.wSecond, dwFlags);
}

// ---- Read ---------------------------------------------------------------------------------------

const SFrameInfoHash* CHourManager::GetSlot(const SYSTEMTIME& st) {
  if (!HasCopy() || !SlotInHour(st)) return nullptr;
  const DWORD dwSlot = SlotIndex(st);
  return &Pages(SlotOffset(dwSlot), sizeof(SFrameInfoHash)).vFrameInfoHash[0][0][0] + dwSlot;
}

LONG CHourManager::NextOccupied(LONG n, LONG nLimit, bool bForward) {
  // Byte by byte, a word at a time where it can: a slot is occupied when any of its bytes is not 0.
  // Empty stretches, most of a sparse hour, are passed a block at a time (memcmp against zeros is
  // many times faster than the word loop). Pages are taken a few at a time (in one read when none
  // of them is there yet).
  constexpr DWORD kcbStride = 8 * kcbCopyPage;
  constexpr DWORD kcbZeroRun = 4096;
  static const BYTE s_abZeros[kcbZeroRun] = {};
  if (bForward) {
    DWORD dwAt = SlotOffset(static_cast<DWORD>(n));
    const DWORD dwEnd = SlotOffset(static_cast<DWORD>(nLimit) + 1);
    while (dwAt < dwEnd) {
      const DWORD dwPageEnd = std::min<DWORD>((dwAt / kcbStride + 1) * kcbStride, dwEnd);
      const BYTE* pb = reinterpret_cast<const BYTE*>(&Pages(dwAt, dwPageEnd - dwAt));
      while (dwPageEnd - dwAt >= kcbZeroRun && !std::memcmp(pb + dwAt, s_abZeros, kcbZeroRun)) dwAt += kcbZeroRun;
      for (; dwAt + 8 <= dwPageEnd; dwAt += 8) {
        ULONGLONG ull;
        std::memcpy(&ull, pb + dwAt, 8);
        if (ull) break;
      }
      for (; dwAt < dwPageEnd; ++dwAt)
        if (pb[dwAt]) return static_cast<LONG>(SlotFromOffset(dwAt));
    }
    return -1;
  }
  DWORD dwAt = SlotOffset(static_cast<DWORD>(n) + 1);  // one past the bytes still to look at
  const DWORD dwBegin = SlotOffset(static_cast<DWORD>(nLimit));
  while (dwAt > dwBegin) {
    const DWORD dwPageBegin = std::max<DWORD>((dwAt - 1) / kcbStride * kcbStride, dwBegin);
    const BYTE* pb = reinterpret_cast<const BYTE*>(&Pages(dwPageBegin, dwAt - dwPageBegin));
    while (dwAt - dwPageBegin >= kcbZeroRun && !std::memcmp(pb + dwAt - kcbZeroRun, s_abZeros, kcbZeroRun))
      dwAt -= kcbZeroRun;
    for (; dwAt >= dwPageBegin + 8; dwAt -= 8) {
      ULONGLONG ull;
      std::memcpy(&ull, pb + dwAt - 8, 8);
      if (ull) break;
    }
    for (; dwAt > dwPageBegin; --dwAt)
      if (pb[dwAt - 1]) return static_cast<LONG>(SlotFromOffset(dwAt - 1));
  }
  return -1;
}

HRESULT CHourManager::ReadFrameInfo(DWORD dwIndex, SFrameInfo* pInfo) {
  return ReadExact(m_descriptor, ULONGLONG{dwIndex} * sizeof(SFrameInfo), pInfo, sizeof(*pInfo));
}

HRESULT CHourManager::ReadEntry(DWORD dwIndex, SFrameInfo* pInfo, bool bAhead) {
  if (dwIndex - m_dwEntriesFirst < m_vEntries.size()) {
    *pInfo = m_vEntries[dwIndex - m_dwEntriesFirst];
    return S_OK;
  }
  if (!bAhead) return ReadFrameInfo(dwIndex, pInfo);
  // The block of entries around dwIndex. Entries never change once their frame is in a slot: the
  // block is dropped whenever the copy may come to show other frames (DropWindows).
  const DWORD dwFirst = dwIndex / kcEntriesAhead * kcEntriesAhead;
  try {
    m_vEntries.resize(kcEntriesAhead);
  } catch (const std::bad_alloc&) {
    m_vEntries.clear();
    return ReadFrameInfo(dwIndex, pInfo);
  }
  DWORD cbRead = 0;
  const HRESULT hr = m_descriptor.ReadAt(ULONGLONG{dwFirst} * sizeof(SFrameInfo), m_vEntries.data(),
                                         kcEntriesAhead * sizeof(SFrameInfo), &cbRead);
  m_vEntries.resize(SUCCEEDED(hr) ? cbRead / sizeof(SFrameInfo) : 0);
  m_dwEntriesFirst = dwFirst;
  if (dwIndex - dwFirst >= m_vEntries.size()) return ReadFrameInfo(dwIndex, pInfo);
  *pInfo = m_vEntries[dwIndex - dwFirst];
  return S_OK;
}

void CHourManager::DropWindows() {
  m_vEntries.clear();
  m_cbWindow = 0;
}

HRESULT CHourManager::Read(const SYSTEMTIME& st, DWORD* pdwFlags, SHourFrameBuffer* pBuffers, DWORD dwCount) {
  if (dwCount) KV_CHECK_POINTER(pBuffers);
  KV_HOUR_LOCK(E_FAIL);
  // 1.-2.
  m_dwLastAccess.store(static_cast<DWORD>(NSPlatform::GetTickCount64()), std::memory_order_relaxed);
  if (!KV_ASSERT_TEXT(HashOpen() && m_file.IsOpen() && m_descriptor.IsOpen(), "pDescriptorHeader\n"))
    return khrInvalidState;
  const SFrameInfoHash* pSlot = GetSlot(st);
  if (!pSlot) return E_INVALIDARG;
  const DWORD dwIndex = pSlot->GetIndex();
  if (!dwIndex) return khrNotFound;
  // 3.-4.
  if (!dwCount && !pdwFlags) return S_FALSE;
  SFrameInfo info;
  // Reads of frames written one after the other (a scan) take their entries a block at a time.
  const bool bSequential = dwIndex == m_dwLastIndex + 1;
  m_dwLastIndex = dwIndex;
  HRESULT hr = ReadEntry(dwIndex, &info, bSequential);
  if (!KV_SUCCEEDED(hr)) return hr;
  if (!dwCount) {
    *pdwFlags = info.dwFlags;
    return S_FALSE;
  }
  // 5.-6. The whole frame as its entry gives its size, in one read; the steps below take their
  // pieces from it, and read on their own only what lies outside it (a frame whose header disagrees
  // with its entry), so that every answer stays what piecewise reads would give.
  LoadFrameWindow(info, bSequential);
  SFrameHeader oFrameHeader;
  hr = ReadFrameBytes(info.ullOffset, &oFrameHeader, sizeof(oFrameHeader));
  if (!KV_SUCCEEDED(hr)) return hr;
  if (!KV_ASSERT_TEXT(SFrameHeader::MakeSignature() == oFrameHeader.ullSignature,
                      "SFrameHeader::MakeSignature()==oFrameHeader.ullSignature\n"))
    return khrFileCorrupt;
  if (!KV_ASSERT_TEXT(oFrameHeader.dwFlags == info.dwFlags, "oFrameHeader.dwFlags==oFrameInfo.dwFlags\n"))
    return khrFileCorrupt;
  if (!KV_ASSERT_TEXT(dwCount <= oFrameHeader.dwCount, "dwCount<=oFrameHeader.dwCount\n")) return khrInsufficientBuffer;
  // 7.-8.
  hr = ReadBuffers(oFrameHeader, info.ullOffset + sizeof(SFrameHeader), pBuffers, dwCount);
  if (FAILED(hr)) return hr;
  // 9.
  if (pdwFlags) *pdwFlags = oFrameHeader.dwFlags;
  return S_OK;
}

void CHourManager::LoadFrameWindow(const SFrameInfo& info, bool bAhead) {
  // The entry's size is not trusted for more than the window's bound.
  DWORD cb = std::min<DWORD>(info.dwSize, kcbMostFrameWindow);
  if (cb >= sizeof(SFrameHeader) && info.ullOffset >= m_ullWindowOffset &&
      info.ullOffset - m_ullWindowOffset <= m_cbWindow && cb <= m_cbWindow - (info.ullOffset - m_ullWindowOffset))
    return;  // read ahead with an earlier frame
  m_cbWindow = 0;
  if (cb < sizeof(SFrameHeader)) return;
  // A scan reads the frames that follow with this one, as far as data.al is known to hold whole
  // frames (what a reader's copy can show lies below m_ullDataSize).
  if (bAhead && info.ullOffset < m_ullDataSize)
    cb = static_cast<DWORD>(std::max<ULONGLONG>(cb, std::min<ULONGLONG>(kcbReadAhead, m_ullDataSize - info.ullOffset)));
  // Nor for more than data.al is known to hold: a window is not made (and zero-filled) for bytes
  // the read cannot deliver. What lies beyond is read piecewise, as without a window.
  cb = static_cast<DWORD>(std::min<ULONGLONG>(cb, info.ullOffset < m_ullDataSize ? m_ullDataSize - info.ullOffset : 0));
  if (cb < sizeof(SFrameHeader)) return;
  try {
    if (m_vWindow.size() < cb) m_vWindow.resize(cb);
  } catch (const std::bad_alloc&) {
    return;  // the pieces are read one by one
  }
  DWORD cbRead = 0;
  if (FAILED(m_file.ReadAt(info.ullOffset, m_vWindow.data(), cb, &cbRead))) return;
  m_ullWindowOffset = info.ullOffset;
  m_cbWindow = cbRead;
}

HRESULT CHourManager::ReadFrameBytes(ULONGLONG ullOffset, void* pv, DWORD cb) {
  if (ullOffset >= m_ullWindowOffset && ullOffset - m_ullWindowOffset <= m_cbWindow &&
      cb <= m_cbWindow - (ullOffset - m_ullWindowOffset)) {
    if (cb) std::memcpy(pv, m_vWindow.data() + (ullOffset - m_ullWindowOffset), cb);
    return S_OK;
  }
  return ReadExact(m_file, ullOffset, pv, cb);
}

HRESULT CHourManager::ReadBuffers(const SFrameHeader& oFrameHeader, ULONGLONG ullPos, SHourFrameBuffer* pBuffers,
                                  DWORD dwCount) {
  // Task memory handed out by this call; taken back if a later buffer fails.
  std::vector<DWORD> vAllocated;
  auto fail = [&](HRESULT hr) {
    for (DWORD i : vAllocated) {
      CoTaskMemFree(pBuffers[i].pData);
      pBuffers[i].pData = nullptr;
    }
    return hr;
  };
  ULONGLONG dwReadTotal = 0;  // 64-bit, so that a corrupt size cannot wrap the bounds checks
  for (DWORD i = 0; i < dwCount; ++i) {
    SHourFrameBuffer* pBuff = &pBuffers[i];
    if (!KV_ASSERT_TEXT((dwReadTotal + sizeof(DWORD)) <= oFrameHeader.dwFullSize,
                        "(dwReadTotal+sizeof(DWORD))<=oFrameHeader.dwFullSize\n"))
      return fail(khrFileCorrupt);
    DWORD dwStored = 0;
    HRESULT hr = ReadFrameBytes(ullPos + dwReadTotal, &dwStored, sizeof(dwStored));
    if (!KV_SUCCEEDED(hr)) return fail(hr);
    dwReadTotal += sizeof(DWORD);
    if (!KV_ASSERT_TEXT((dwReadTotal + dwStored) <= oFrameHeader.dwFullSize,
                        "(dwReadTotal+pBuff->dwDataSize)<=oFrameHeader.dwFullSize\n"))
      return fail(khrFileCorrupt);
    const bool bCallerMemory = pBuff->pData != nullptr;
    const DWORD dwCapacity = pBuff->dwDataSize;
    if (!bCallerMemory) {
      // A corrupt size must not make a large allocation that the read would only fail to fill.
      if (ullPos + dwReadTotal + dwStored > m_ullDataSize) return fail(khrReadFault);
      pBuff->pData = static_cast<BYTE*>(CoTaskMemAlloc(dwStored));
      if (!pBuff->pData) return fail(E_OUTOFMEMORY);
      vAllocated.push_back(i);
    } else if (dwCapacity < dwStored) {
      return fail(khrInsufficientBuffer);
    }
    if (dwStored) {
      hr = ReadFrameBytes(ullPos + dwReadTotal, pBuff->pData, dwStored);
      if (!KV_SUCCEEDED(hr)) return fail(hr);
    }
    pBuff->dwDataSize = dwStored;
    dwReadTotal += dwStored;
    // Carving: the next buffer is laid out in this caller's block, after a gap of its own size.
    if (bCallerMemory && i + 1 < dwCount && !pBuffers[i + 1].pData && pBuffers[i + 1].dwDataSize != kdwNoGap) {
      const ULONGLONG ullGap = pBuffers[i + 1].dwDataSize;
      const ULONGLONG ullUsed = std::min<ULONGLONG>(ullGap + dwStored, dwCapacity);
      pBuffers[i + 1].pData = pBuff->pData + ullUsed;
      pBuffers[i + 1].dwDataSize = static_cast<DWORD>(dwCapacity - ullUsed);
    }
  }
  return S_OK;
}

// ---- Slot times, siblings, statistics -------------------------------------------------------------

HRESULT CHourManager::GetDescriptorTime(const SFrameInfoHash* pSlot, FILETIME* pftTime) {
  KV_CHECK_POINTER(pSlot);
  KV_CHECK_POINTER(pftTime);
  KV_HOUR_LOCK(E_FAIL);
  return GetDescriptorTimeLocked(pSlot, pftTime);
}

HRESULT CHourManager::GetDescriptorTimeLocked(const SFrameInfoHash* pFrameInfoHash, FILETIME* pftTime) {
  if (!KV_ASSERT_TEXT(HasCopy(), "pDescriptorHeader\n")) return khrInvalidState;
  const auto* pDescriptorHeader = reinterpret_cast<const BYTE*>(&m_pHashCopy->hash);
  const auto* pSlotBytes = reinterpret_cast<const BYTE*>(pFrameInfoHash);
  // Unsigned: a pointer before the grid gives a huge index, refused like one after it.
  const ULONGLONG ullIndex = static_cast<ULONGLONG>(pSlotBytes - pDescriptorHeader) / sizeof(SFrameInfoHash);
  if (ullIndex >= kcSlots) return E_INVALIDARG;
  // The hour's start plus the slot's place: what the breakdown of the start with the slot's minute,
  // second and millisecond converts back to (an hour starts on a whole hour, and a slot's place is
  // below an hour), without the two conversions.
  const ULONGLONG ullHourStart = NSPlatform::FileTimeToU64(GetHourStart());
  if (ullHourStart > kullLatestHourStart) return KvHResultFromWin32(ERROR_INVALID_PARAMETER);
  *pftTime = NSPlatform::U64ToFileTime(SlotTime(ullHourStart, static_cast<DWORD>(ullIndex)));
  return S_OK;
}

HRESULT CHourManager::GetSibling(const SYSTEMTIME& st, const SHourFrameFilter* pFilter, FILETIME* pftFound,
                                 bool bIncludeStart, bool bForward) {
  KV_CHECK_POINTER(pftFound);
  KV_HOUR_LOCK(E_FAIL);
  return GetSiblingLocked(st, pFilter, pftFound, bIncludeStart, bForward);
}

HRESULT CHourManager::StepFrom(const SYSTEMTIME& st, const SHourFrameFilter* pFilter, FILETIME* pftFound,
                               bool bIncludeStart, bool bForward) {
  KV_CHECK_POINTER(pftFound);
  KV_HOUR_LOCK(E_FAIL);
  if (HashOpen() && m_descriptor.IsOpen()) RefreshIfGrownLocked();
  if (pFilter) {
    const DWORD dwHourMask =
        HashOpen() && HasCopy() && SlotInHour(st)
            ? FlagMask(Pages(offsetof(SHashFile, vHourFlagCounters), kcFlagBits * sizeof(DWORD)).vHourFlagCounters)
            : 0;
    if (!Matches(*pFilter, dwHourMask)) return khrNotFound;
  }
  return GetSiblingLocked(st, pFilter, pftFound, bIncludeStart, bForward);
}

HRESULT CHourManager::GetSiblingLocked(const SYSTEMTIME& st, const SHourFrameFilter* pFilter, FILETIME* pftFound,
                                       bool bIncludeStart, bool bForward) {
  m_dwLastAccess.store(static_cast<DWORD>(NSPlatform::GetTickCount64()), std::memory_order_relaxed);
  if (!KV_ASSERT_TEXT(HashOpen() && HasCopy() && m_descriptor.IsOpen(), "pDescriptorHeader\n")) return khrInvalidState;
  if (!SlotInHour(st)) return E_INVALIDARG;
  const LONG nStep = bForward ? 1 : -1;
  const LONG nLimit = bForward ? static_cast<LONG>(kcSlots) - 1 : 0;
  LONG n = static_cast<LONG>(SlotIndex(st)) + (bIncludeStart ? 0 : nStep);
  LONG nMinute = -1;
  LONG nSecond = -1;  // of the hour: minute * 60 + second
  while (n >= 0 && n < static_cast<LONG>(kcSlots)) {
    if (!pFilter) {
      n = NextOccupied(n, nLimit, bForward);
      if (n < 0) break;
    } else {
      // The counters are unions of the flags there: a minute or second whose union does not match
      // is skipped whole, even when exact or none would match one of its frames alone.
      const LONG nM = n / static_cast<LONG>(kcSeconds * kcSlotsPerSecond);
      if (nM != nMinute) {
        nMinute = nM;
        if (!Matches(*pFilter, FlagMask(Pages(MinuteCountersOffset(nM), sizeof(DWORD) * kcFlagBits)
                                            .vMinuteFlagCounters[nM]))) {
          n = bForward ? (nM + 1) * static_cast<LONG>(kcSeconds * kcSlotsPerSecond)
                       : nM * static_cast<LONG>(kcSeconds * kcSlotsPerSecond) - 1;
          continue;
        }
      }
      const LONG nS = n / static_cast<LONG>(kcSlotsPerSecond);
      if (nS != nSecond) {
        nSecond = nS;
        const DWORD dwCounters = static_cast<DWORD>(offsetof(SHashFile, vSecondFlagCounters)) +
                                 static_cast<DWORD>(nS) * kcFlagBits * sizeof(DWORD);
        if (!Matches(*pFilter, FlagMask(Pages(dwCounters, sizeof(DWORD) * kcFlagBits).vSecondFlagCounters[nS]))) {
          n = bForward ? (nS + 1) * static_cast<LONG>(kcSlotsPerSecond) : nS * static_cast<LONG>(kcSlotsPerSecond) - 1;
          continue;
        }
      }
      // The next occupied slot of this second, if any.
      const LONG nSecondEnd = bForward ? (nS + 1) * static_cast<LONG>(kcSlotsPerSecond) - 1
                                       : nS * static_cast<LONG>(kcSlotsPerSecond);
      const LONG nFound = NextOccupied(n, nSecondEnd, bForward);
      if (nFound < 0) {
        n = nSecondEnd + nStep;
        continue;
      }
      n = nFound;
    }
    const SFrameInfoHash* pSlot = &m_pHashCopy->hash.vFrameInfoHash[0][0][0] + n;
    if (const DWORD dwIndex = pSlot->GetIndex()) {
      bool bMatch = true;
      if (pFilter) {
        SFrameInfo info;
        const HRESULT hr = ReadEntry(dwIndex, &info, true);
        if (!KV_SUCCEEDED(hr)) return hr;
        bMatch = Matches(*pFilter, info.dwFlags);
      }
      if (bMatch) {
        const HRESULT hr = GetDescriptorTimeLocked(pSlot, pftFound);
        const bool bRes = SUCCEEDED(hr);
        if (!KV_ASSERT(bRes)) return hr;
        return S_OK;
      }
    }
    n += nStep;
  }
  return khrNotFound;
}

HRESULT CHourManager::GetStatistic(SHourStatistic* pStatistic) {
  KV_CHECK_POINTER(pStatistic);
  KV_HOUR_LOCK(E_FAIL);
  if (!KV_ASSERT_TEXT(HashOpen() && HasCopy(), "pDescriptorHeader\n")) return khrInvalidState;
  RefreshIfGrownLocked();
  SHourStatistic oRecordStatistic = {};
  oRecordStatistic.ullFrameCount = FrameCountFromDescriptorSize(m_ullDescriptorSize);
  const LONG nFirst = NextOccupied(0, static_cast<LONG>(kcSlots) - 1, true);
  const LONG nLast = nFirst < 0 ? -1 : NextOccupied(static_cast<LONG>(kcSlots) - 1, nFirst, false);
  const SHashFile& hash = Pages(offsetof(SHashFile, vHourFlagCounters), sizeof(SHashFile::vHourFlagCounters));
  std::memcpy(oRecordStatistic.vFlagCounters, hash.vHourFlagCounters, sizeof(hash.vHourFlagCounters));
  HRESULT hr = S_FALSE;
  if (nFirst >= 0) {
    const SFrameInfoHash* pSlots = &hash.vFrameInfoHash[0][0][0];
    const SFrameInfoHash* pFirst = pSlots + nFirst;
    const SFrameInfoHash* pLast = pSlots + nLast;
    hr = GetDescriptorTimeLocked(pFirst, &oRecordStatistic.ftBegin);
    if (SUCCEEDED(hr)) hr = GetDescriptorTimeLocked(pLast, &oRecordStatistic.ftEnd);
    if (!KV_SUCCEEDED(hr)) return hr;
    KV_ASSERT_TEXT(
        NSPlatform::FileTimeToU64(oRecordStatistic.ftEnd) >= NSPlatform::FileTimeToU64(oRecordStatistic.ftBegin),
        "oRecordStatistic.ftEnd>=oRecordStatistic.ftBegin\n");
    hr = S_OK;
  }
  *pStatistic = oRecordStatistic;
  return hr;
}

HRESULT CHourManager::GetCells(const SYSTEMTIME& stFrom, const SYSTEMTIME& stTo, DWORD cSlotsPerCell,
                               const SHourFrameFilter* pFilter, std::vector<SHourCell>* pvCells) {
  KV_CHECK_POINTER(pvCells);
  KV_HOUR_LOCK(E_FAIL);
  pvCells->clear();
  if (!KV_ASSERT_TEXT(HashOpen() && HasCopy() && m_descriptor.IsOpen(), "pDescriptorHeader\n")) return khrInvalidState;
  if (!SlotInHour(stFrom) || !SlotInHour(stTo)) return E_INVALIDARG;
  const DWORD dwFrom = SlotIndex(stFrom);
  const DWORD dwTo = SlotIndex(stTo);
  if (!cSlotsPerCell) cSlotsPerCell = kcSlots;
  const SHashFile& hash = m_pHashCopy->hash;
  const SFrameInfoHash* pSlots = &hash.vFrameInfoHash[0][0][0];
  // With a filter the frames' own flags are needed: all entries at once, one read per call.
  std::vector<SFrameInfo> vEntries;
  bool bEntriesRead = false;
  SHourCell cell = {};
  DWORD dwCell = kdwNoIndex;
  DWORD dwSecond = kdwNoIndex;
  auto flush = [&] {
    if (dwCell != kdwNoIndex && (!pFilter || Matches(*pFilter, cell.dwFlags))) pvCells->push_back(cell);
  };
  for (LONG nAt = static_cast<LONG>(dwFrom); nAt <= static_cast<LONG>(dwTo); ++nAt) {
    nAt = NextOccupied(nAt, static_cast<LONG>(dwTo), true);
    if (nAt < 0) break;
    const DWORD n = static_cast<DWORD>(nAt);
    const DWORD dwIndex = pSlots[n].GetIndex();
    if (n / cSlotsPerCell != dwCell) {
      flush();
      dwCell = n / cSlotsPerCell;
      cell = {n, n, 0, 0};
      dwSecond = kdwNoIndex;
    }
    cell.dwLastSlot = n;
    if (n / kcSlotsPerSecond != dwSecond) {
      dwSecond = n / kcSlotsPerSecond;
      const DWORD dwCounters =
          static_cast<DWORD>(offsetof(SHashFile, vSecondFlagCounters)) + dwSecond * kcFlagBits * sizeof(DWORD);
      cell.dwFlags |= FlagMask(Pages(dwCounters, kcFlagBits * sizeof(DWORD)).vSecondFlagCounters[dwSecond]);
    }
    if (!pFilter) {
      ++cell.dwCount;
      continue;
    }
    if (!bEntriesRead) {
      bEntriesRead = true;
      ULONGLONG ullSize = 0;
      HRESULT hr = m_descriptor.GetSize(&ullSize);
      if (SUCCEEDED(hr) && ullSize > 0xFFFFFFFFull) hr = E_OUTOFMEMORY;
      if (SUCCEEDED(hr)) {
        vEntries.resize(static_cast<size_t>(ullSize / sizeof(SFrameInfo)));
        hr = ReadExact(m_descriptor, 0, vEntries.data(), static_cast<DWORD>(vEntries.size() * sizeof(SFrameInfo)));
      }
      if (!KV_SUCCEEDED(hr)) return hr;
    }
    if (dwIndex < vEntries.size() && Matches(*pFilter, vEntries[dwIndex].dwFlags)) ++cell.dwCount;
  }
  flush();
  return S_OK;
}

DWORD CHourManager::GetFlagMask(DWORD dwLevel, const SYSTEMTIME& st) {
  if (dwLevel < eflSecond || dwLevel > eflHour) throw std::invalid_argument("flag level");
  KV_HOUR_LOCK(0);
  if (!HashOpen() || !HasCopy() || !SlotInHour(st)) return 0;
  constexpr DWORD cb = kcFlagBits * sizeof(DWORD);
  switch (dwLevel) {
    case eflSecond:
      return FlagMask(Pages(SecondCountersOffset(st.wMinute, st.wSecond), cb)
                          .vSecondFlagCounters[st.wMinute * kcSeconds + st.wSecond]);
    case eflMinute:
      return FlagMask(Pages(MinuteCountersOffset(st.wMinute), cb).vMinuteFlagCounters[st.wMinute]);
    default:
      return FlagMask(Pages(offsetof(SHashFile, vHourFlagCounters), cb).vHourFlagCounters);
  }
}

ULONGLONG CHourManager::GetFrameCount() {
  KV_HOUR_LOCK(0);
  ULONGLONG ullSize = 0;
  if (!m_descriptor.IsOpen() || FAILED(m_descriptor.GetSize(&ullSize))) return 0;
  return FrameCountFromDescriptorSize(ullSize);
}

ULONGLONG CHourManager::GetFullSizeIfOpen() {
  KV_HOUR_LOCK(0);
  if (!KV_ASSERT_TEXT(m_file.IsOpen(), "m_hFile && INVALID_HANDLE_VALUE!=m_hFile\n")) return 0;
  if (!KV_ASSERT_TEXT(m_descriptor.IsOpen(), "m_hDescriptor && INVALID_HANDLE_VALUE!=m_hDescriptor\n")) return 0;
  ULONGLONG ullData = 0;
  ULONGLONG ullDescriptor = 0;
  HRESULT hr = m_file.GetSize(&ullData);
  if (SUCCEEDED(hr)) hr = m_descriptor.GetSize(&ullDescriptor);
  if (!KV_SUCCEEDED(hr)) return 0;
  return ullData + ullDescriptor + (HashOpen() ? sizeof(SHashFile) : 0);
}

HRESULT CHourManager::ReadHourFlagMask(const WString& strPath, DWORD* pdwMask) {
  *pdwMask = 0;
  for (const WCHAR* pszName : {kszDescriptorFileName, kszDataFileName}) {
    if (!NSPlatform::PathExists(NSPlatform::CombinePath(strPath, pszName).c_str()))
      return KvHResultFromWin32(ERROR_FILE_NOT_FOUND);
  }
  CFile hash;
  HRESULT hr = hash.Open(NSPlatform::CombinePath(strPath, kszHashFileName).c_str(), GENERIC_READ, kdwShareAll,
                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL);
  ULONGLONG ullSize = 0;
  if (SUCCEEDED(hr)) hr = hash.GetSize(&ullSize);
  if (SUCCEEDED(hr) && ullSize != sizeof(SHashFile)) hr = khrFileCorrupt;
  DWORD vCounters[kcFlagBits];
  if (SUCCEEDED(hr)) hr = ReadExact(hash, offsetof(SHashFile, vHourFlagCounters), vCounters, sizeof(vCounters));
  if (FAILED(hr)) return hr;
  *pdwMask = FlagMask(vCounters);
  return S_OK;
}

// ---- Integrity, repair, removal -------------------------------------------------------------------

namespace {
constexpr WCHAR kszLevelHourService[] = KV_W("HourService");
}  // namespace

bool CHourManager::IsCorrupted() {
  KV_HOUR_LOCK(true);
  return IsCorruptedLocked();
}

// Looks at the last frame only: a crash stops a write after its data, after its entry or after its
// slot, and each of those leaves the last frame failing one of the four tests.
bool CHourManager::IsCorruptedLocked() {
  KV_FUNC("CHourManager::IsCorrupted");
  ULONGLONG ullDescriptorSize = 0;
  ULONGLONG ullFileSize = 0;
  HRESULT hr = m_descriptor.GetSize(&ullDescriptorSize);
  if (SUCCEEDED(hr)) hr = m_file.GetSize(&ullFileSize);
  if (!KV_SUCCEEDED(hr)) return true;
  // 1.
  if (ullDescriptorSize == sizeof(SFrameInfo)) {
    if (!ullFileSize) return false;
    KV_LOG(kszLevelHourService, KV_W("Hour %s is corrupted: descriptor has no indices, but data file is not empty\n"),
           m_strPath.c_str());
    return true;
  }
  // 2.
  SFrameInfo info;
  hr = ullDescriptorSize < sizeof(SFrameInfo)
           ? KvHResultFromWin32(ERROR_NEGATIVE_SEEK)
           : ReadExact(m_descriptor, ullDescriptorSize - sizeof(info), &info, sizeof(info));
  if (!KV_SUCCEEDED(hr)) return true;
  if (info.ullOffset + info.dwSize != ullFileSize) {
    KV_LOG(kszLevelHourService, KV_W("Hour %s is corrupted: Last record must be at the end of file\n"),
           m_strPath.c_str());
    return true;
  }
  // 3.
  SFrameHeader header;
  hr = ReadExact(m_file, info.ullOffset, &header, sizeof(header));
  if (!KV_SUCCEEDED(hr)) return true;
  if (header.ullSignature != SFrameHeader::MakeSignature()) {
    KV_LOG(kszLevelHourService, KV_W("Hour %s is corrupted: invalid signature\n"), m_strPath.c_str());
    return true;
  }
  // 4. The text of this report does not describe the test; it is the text the hour has always had.
  SYSTEMTIME st;
  if (!TimeToSystemTime(header.ftTime, &st)) {
    hr = NSPlatform::HResultFromLastError();
    KV_REPORT_IF_FAILED(hr);
    return true;
  }
  const SFrameInfoHash* pSlot = GetSlot(st);
  if (!pSlot || pSlot->GetIndex() != ullDescriptorSize / sizeof(SFrameInfo) - 1) {
    // frozen text: it does not describe this test, and stays as it is
    KV_LOG(kszLevelHourService, KV_W("Hour %s is corrupted: last index must be multiple of index file size\n"),
           m_strPath.c_str());
    return true;
  }
  return false;
}

HRESULT CHourManager::Repair(IProgress* pProgress) {
  KV_HOUR_LOCK(E_FAIL);
  // 1. Never under an open writer: the rebuild replaces the files it would be using.
  if (!KV_ASSERT_TEXT(!m_descriptor.IsOpen() && !m_file.IsOpen(), "!m_hDescriptor && !m_hFile\n"))
    return khrInvalidState;
  {
    const std::lock_guard<std::mutex> flushing(m_flushMutex);
    m_hashMapping.Unmap();
    m_hashFile.Close();
    m_bMapLater = false;
  }
  // From here on the hour's files change, however the repair ends: copies kept of its index are
  // out of date once it is over.
  struct SNote {
    ~SNote() { NSKronvaleUtils::NoteHoursChanged(); }
  } note;
  // 2. The old index files go. They are first moved aside under names of their own: a process
  // reading the hour may hold them open, and on Windows a deleted file that another process holds
  // keeps its name until that process lets go, so the new file could not be made under it (or,
  // under Wine, the old one would be opened again). What cannot be deleted now (held elsewhere) is
  // left under its new name and goes with the hour.
  static std::atomic<unsigned> s_nAside{0};
  for (const WCHAR* pszName : {kszHashFileName, kszDescriptorFileName}) {
    const WString strFile = FilePath(pszName);
    const WString strAside = NSSupport::FormatWide(KV_W("%s.%I64u-%u.old"), strFile.c_str(), NSPlatform::GetTickCount64(),
                                                   s_nAside.fetch_add(1));
    const HRESULT hr = NSPlatform::RenameFile(strFile.c_str(), strAside.c_str());
    if (FAILED(hr) && hr != KvHResultFromWin32(ERROR_FILE_NOT_FOUND) && !KV_SUCCEEDED(hr)) return hr;
    if (SUCCEEDED(hr)) NSPlatform::RemoveFile(strAside.c_str());
  }
  // 3. Without its data file the hour holds nothing worth keeping. A data file that is there but
  // cannot be opened keeps the hour.
  HRESULT hr = OpenLocked(true, m_bBuffered);
  if (SUCCEEDED(hr)) hr = MapView();  // the slots are stored through the view
  if (FAILED(hr)) {
    const bool bNoDataFile = m_descriptor.IsOpen() && !m_file.IsOpen() &&
                             !NSPlatform::PathExists(FilePath(kszDataFileName).c_str());
    CloseLocked();
    if (!bNoDataFile) return hr;
    return RemoveHourLocked() ? S_OK : E_FAIL;
  }
  // 4.
  const ULONGLONG ullFileSize = m_ullDataSize;
  ULONGLONG llLastHealthyPos = 0;
  for (;;) {
    if (pProgress) {
      const ULONGLONG ullPercent = ullFileSize ? llLastHealthyPos * 100 / ullFileSize : 100;
      pProgress->SetPercent(static_cast<BYTE>(std::min<ULONGLONG>(ullPercent, 100)));
    }
    if (llLastHealthyPos >= ullFileSize) break;
    SFrameHeader oFrameHeader;
    if (FAILED(ReadExact(m_file, llLastHealthyPos, &oFrameHeader, sizeof(oFrameHeader)))) break;
    if (oFrameHeader.ullSignature != SFrameHeader::MakeSignature()) break;
    // The header's 28 bytes are left out on purpose: a frame short of at most its last 28 bytes
    // passes here and is caught by the corruption test after the rebuild.
    if (!KV_ASSERT_TEXT(ULONGLONG(llLastHealthyPos + oFrameHeader.dwFullSize) <= ullFileSize,
                        "ULONGLONG(llLastHealthyPos+oFrameHeader.dwFullSize) <= ullFileSize\n"))
      break;
    SYSTEMTIME st;
    if (!TimeToSystemTime(oFrameHeader.ftTime, &st)) break;
    DWORD dwIndex = kdwNoIndex;
    hr = AppendDescriptor(
        {oFrameHeader.dwFlags, static_cast<ULONGLONG>(llLastHealthyPos), FrameSize(oFrameHeader.dwFullSize)}, &dwIndex);
    if (!KV_SUCCEEDED(hr) || !KV_ASSERT_TEXT(kdwNoIndex != dwIndex, "-1!=uFrameInfoUnion.dwIndex\n")) {
      CloseLocked();
      return FAILED(hr) ? hr : E_UNEXPECTED;
    }
    StoreSlot(st, dwIndex, oFrameHeader.dwFlags);
    llLastHealthyPos += FrameSize(oFrameHeader.dwFullSize);
  }
  // 5. Cut what follows the last frame taken; a frame that only lacks its end stays as it is.
  if (llLastHealthyPos < ullFileSize) {
    hr = m_file.Seek(static_cast<LONGLONG>(llLastHealthyPos), FILE_BEGIN, nullptr);
    if (SUCCEEDED(hr)) hr = m_file.SetEndOfFile();
    if (!KV_SUCCEEDED(hr)) {
      CloseLocked();
      return hr;
    }
  }
  // 6.-7.
  RefreshLocked();
  KV_ASSERT_TEXT(!IsCorruptedLocked(), "!IsCorrupted()\n");
  CloseLocked();
  return S_OK;
}

bool CHourManager::RemoveHour() {
  KV_HOUR_LOCK(false);
  CloseLocked();
  return RemoveHourLocked();
}

bool CHourManager::RemoveHour(const WString& strPath, HRESULT* phrWhy) {
  KV_HOUR_LOCK(false);
  CloseLocked();
  if (m_strPath != strPath) {
    m_strPath = strPath;
    m_ftHourStart = {0, 0};
  }
  return RemoveHourLocked(phrWhy);
}

namespace {

// Deletes the leftovers of fast copies cut short in a day directory. A copy into this day running
// at this moment loses its partial hour and fails; the source keeps the hour.
void ClearInterruptedCopies(const WString& strDay) {
  std::vector<NSPlatform::SDirEntry> vEntries;
  const WString strSpec = WString(KV_W("*")) + kszCopySuffix;
  if (FAILED(NSPlatform::ListDir(strDay.c_str(), &vEntries, strSpec.c_str()))) return;
  for (const NSPlatform::SDirEntry& entry : vEntries) {
    if (entry.IsDirectory()) KV_REPORT_IF_FAILED(NSKronvaleUtils::DeleteFileSystemObject(NSPlatform::CombinePath(strDay, entry.strName)));
  }
}

}  // namespace

bool CHourManager::RemoveHourLocked(HRESULT* phrWhy) {
  KV_FUNC("CHourManager::RemoveHour");
  KV_LOG_MESSAGE(KV_W("deleting hour: %s\n"), m_strPath.c_str());
  const HRESULT hr = NSKronvaleUtils::DeleteFileSystemObject(m_strPath);
  if (phrWhy) *phrWhy = hr == S_OK ? S_OK : FAILED(hr) ? hr : E_FAIL;
  if (hr != S_OK) return false;
  KV_LOG_MESSAGE(KV_W("hour %s deleted successfully\n"), m_strPath.c_str());
  // Year, month, day and the record directory at most, each only while it is empty. What an
  // interrupted fast copy left in the day ("10.copy") is no hour: it does not keep the day.
  ClearInterruptedCopies(NSKronvaleUtils::ParentDirectory(m_strPath));
  WString strParent = m_strPath;
  while (!strParent.empty() && NSPlatform::IsPathSeparator(strParent.back())) strParent.pop_back();
  bool bParentRemoved = true;
  for (int i = 0; i < 4 && bParentRemoved; ++i) {
    size_t nPos = strParent.size();
    while (nPos > 0 && !NSPlatform::IsPathSeparator(strParent[nPos - 1])) --nPos;
    if (!KV_ASSERT_TEXT(nPos > 1, "-1!=nPos\n")) return true;
    strParent.resize(nPos - 1);
    bParentRemoved = NSPlatform::IsDirectoryEmpty(strParent.c_str()) && SUCCEEDED(NSPlatform::RemoveDir(strParent.c_str()));
    if (bParentRemoved) KV_LOG_MESSAGE(KV_W("erasing of hour parent folder: %s\n"), strParent.c_str());
  }
  // The deletion is durable in the directory that stays, once per hour removed: after a power cut
  // the hour does not come back to be counted and deleted again.
  const WString strSurvivor = bParentRemoved ? NSKronvaleUtils::ParentDirectory(strParent) : strParent;
  KV_REPORT_IF_FAILED(NSPlatform::FlushDirectory(strSurvivor.c_str()));
  return true;
}

}  // namespace NSHours
