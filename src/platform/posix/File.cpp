// Files on POSIX, answering as CreateFileW and friends do.
//
// Windows semantics that POSIX lacks are kept in this process:
// - Share modes: every open file has an entry in a process-wide table keyed by (device, inode); an
//   open whose access or share mode conflicts with an existing open of the same file is refused with
//   ERROR_SHARING_VIOLATION, and so is deleting or renaming a file open without FILE_SHARE_DELETE.
//   Opens from other processes are not seen.
// - Read-only files: FILE_ATTRIBUTE_READONLY is the owner's write permission bit. The bit is checked
//   here rather than left to the kernel, so that root (which ignores permissions) is refused writers
//   and deletion as an administrator is on Windows.
// - Byte-range locks: LockFile locks conflict between two handles even in one process and with the
//   locking handle itself. Open-file-description locks give the conflict between processes; the
//   share table records each open's ranges so that the same handle and UnlockFile's exact-range rule
//   behave as on Windows.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <map>
#include <mutex>

#include "platform/Disposition.h"
#include "platform/MemFs.h"
#include "platform/posix/Errno.h"

namespace NSPlatform {

namespace {
// The offset of a gathered write at the current position.
constexpr ULONGLONG kullAtPosition = ~0ull;
}  // namespace


using namespace NSPosix;

namespace {

struct SLockRange {
  ULONGLONG ullOffset;
  ULONGLONG cb;
};

// One open of a file. Owned by its CFile (through m_pShareEntry); listed in g_mapShares while open.
struct SShareEntry {
  dev_t dev;
  ino_t ino;
  DWORD dwAccess;
  DWORD dwShare;
  bool bDelete;                    // opened delete-on-close: holds delete access
  bool bUnlinkAtClose;             // delete-on-close whose name could not be removed at open
  std::string strNativePath;
  std::vector<SLockRange> vLocks;  // guarded by g_mutexShares
};

using TFileKey = std::pair<dev_t, ino_t>;

std::mutex g_mutexShares;
std::multimap<TFileKey, SShareEntry*> g_mapShares;  // guarded by g_mutexShares

bool Conflicts(const SShareEntry& existing, DWORD dwAccess, DWORD dwShare, bool bDelete) {
  return SharesConflict({existing.dwAccess, existing.dwShare, existing.bDelete}, {dwAccess, dwShare, bDelete});
}

// Caller holds g_mutexShares.
bool IsOpenWithoutShareDelete(const struct stat& st) {
  auto range = g_mapShares.equal_range(TFileKey(st.st_dev, st.st_ino));
  for (auto it = range.first; it != range.second; ++it) {
    if (!(it->second->dwShare & FILE_SHARE_DELETE)) return true;
  }
  return false;
}

void Unregister(SShareEntry* pEntry) {
  std::lock_guard<std::mutex> lock(g_mutexShares);
  auto range = g_mapShares.equal_range(TFileKey(pEntry->dev, pEntry->ino));
  for (auto it = range.first; it != range.second; ++it) {
    if (it->second == pEntry) {
      g_mapShares.erase(it);
      return;
    }
  }
}

bool IsReadOnly(const struct stat& st) { return (st.st_mode & S_IWUSR) == 0; }

ULONGLONG RangeEnd(ULONGLONG ullOffset, ULONGLONG cb) {
  return cb > ULLONG_MAX - ullOffset ? ULLONG_MAX : ullOffset + cb;
}

// Zero-length ranges lock nothing and conflict with nothing, as on NTFS.
bool Overlaps(const SLockRange& a, ULONGLONG ullOffset, ULONGLONG cb) {
  if (a.cb == 0 || cb == 0) return false;
  return a.ullOffset < RangeEnd(ullOffset, cb) && ullOffset < RangeEnd(a.ullOffset, a.cb);
}

// The part of a range that fcntl can express (offsets are signed 64-bit there); false when none is.
bool ToFlock(ULONGLONG ullOffset, ULONGLONG cb, short nType, struct flock* pfl) {
  constexpr ULONGLONG ullMax = static_cast<ULONGLONG>(LLONG_MAX);
  if (cb == 0 || ullOffset >= ullMax) return false;
  *pfl = {};
  pfl->l_type = nType;
  pfl->l_whence = SEEK_SET;
  pfl->l_start = static_cast<off_t>(ullOffset);
  pfl->l_len = static_cast<off_t>(std::min(cb, ullMax - ullOffset));
  return true;
}

bool IsValidOffset(ULONGLONG ullOffset) { return ullOffset <= static_cast<ULONGLONG>(LLONG_MAX); }

}  // namespace

// ---------------------------------------------------------------------------------------------
// CFile
// ---------------------------------------------------------------------------------------------

CFile::CFile() : m_hNative(-1) {}

CFile::~CFile() { Close(); }

CFile::CFile(CFile&& other) noexcept
    : m_hNative(other.m_hNative),
      m_dwAccess(other.m_dwAccess),
      m_strPath(std::move(other.m_strPath)),
      m_pShareEntry(other.m_pShareEntry),
      m_pMemFile(other.m_pMemFile) {
  other.m_hNative = -1;
  other.m_dwAccess = 0;
  other.m_pShareEntry = nullptr;
  other.m_pMemFile = nullptr;
}

CFile& CFile::operator=(CFile&& other) noexcept {
  if (this != &other) {
    Close();
    m_hNative = other.m_hNative;
    m_dwAccess = other.m_dwAccess;
    m_strPath = std::move(other.m_strPath);
    m_pShareEntry = other.m_pShareEntry;
    m_pMemFile = other.m_pMemFile;
    other.m_hNative = -1;
    other.m_dwAccess = 0;
    other.m_pShareEntry = nullptr;
    other.m_pMemFile = nullptr;
  }
  return *this;
}

bool CFile::IsOpen() const { return m_hNative >= 0 || m_pMemFile; }

HRESULT CFile::Open(const WCHAR* pszPath, DWORD dwAccess, DWORD dwShare, DWORD dwCreation,
                    DWORD dwFlagsAndAttributes, bool* pbExisted) {
  Close();
  if (pbExisted) *pbExisted = false;
  const WString strPath = WidePath(pszPath);
  if (NSMemFs::Serves()) {
    const HRESULT hr = NSMemFs::Open(strPath, dwAccess, dwShare, dwCreation, dwFlagsAndAttributes, pbExisted, &m_pMemFile);
    if (SUCCEEDED(hr)) {
      m_dwAccess = dwAccess;
      m_strPath = strPath;
    }
    return hr;
  }
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Open, strPath, nullptr, &dwInjected)) return Fail(dwInjected);
  if (strPath.empty()) return Fail(ERROR_PATH_NOT_FOUND);

  SDisposition disposition;
  if (!DecodeDisposition(dwCreation, dwAccess, &disposition)) return Fail(ERROR_INVALID_PARAMETER);
  const bool bMayCreate = disposition.bMayCreate, bMustCreate = disposition.bMustCreate,
             bTruncate = disposition.bTruncate;
  const bool bDelete = (dwFlagsAndAttributes & FILE_FLAG_DELETE_ON_CLOSE) != 0;
  const std::string strNative = WideToUtf8(strPath);
  int nFlags = O_CLOEXEC;
  if (dwAccess & GENERIC_WRITE) {
    nFlags |= (dwAccess & GENERIC_READ) ? O_RDWR : O_WRONLY;
  } else {
    nFlags |= O_RDONLY;
  }
  if (dwFlagsAndAttributes & FILE_FLAG_WRITE_THROUGH) nFlags |= O_DSYNC;
  const mode_t mode = (dwFlagsAndAttributes & FILE_ATTRIBUTE_READONLY) ? 0444 : 0666;

  // Open first without creating, so that an existing file is neither truncated nor reported as new
  // before its share modes are checked; a file that appears between the two attempts is retried.
  int fd = -1;
  bool bCreated = false;
  for (int nAttempt = 0; fd < 0; ++nAttempt) {
    if (!bMustCreate) {
      fd = RetryEintr([&] { return ::open(strNative.c_str(), nFlags); });
      if (fd >= 0) break;
      if (errno != ENOENT || !bMayCreate || nAttempt > 8) return FailErrno(errno, strNative);
    }
    fd = RetryEintr([&] { return ::open(strNative.c_str(), nFlags | O_CREAT | O_EXCL, mode); });
    if (fd >= 0) {
      bCreated = true;
      break;
    }
    if (errno != EEXIST || bMustCreate) return FailErrno(errno, strNative);
  }

  struct stat st;
  DWORD dwError = ERROR_SUCCESS;
  if (::fstat(fd, &st) != 0) {
    dwError = Win32FromErrno(errno);
  } else if (S_ISDIR(st.st_mode)) {
    dwError = ERROR_ACCESS_DENIED;
  } else if (!bCreated && IsReadOnly(st) && ((dwAccess & GENERIC_WRITE) || bTruncate || bDelete)) {
    dwError = ERROR_ACCESS_DENIED;
  }
  if (dwError != ERROR_SUCCESS) {
    ::close(fd);
    return Fail(dwError);
  }

  auto* pEntry = new SShareEntry{st.st_dev, st.st_ino, dwAccess, dwShare, bDelete, false, strNative, {}};
  {
    std::lock_guard<std::mutex> lock(g_mutexShares);
    auto range = g_mapShares.equal_range(TFileKey(st.st_dev, st.st_ino));
    for (auto it = range.first; it != range.second; ++it) {
      if (Conflicts(*it->second, dwAccess, dwShare, bDelete)) {
        dwError = ERROR_SHARING_VIOLATION;
        break;
      }
    }
    if (dwError == ERROR_SUCCESS) g_mapShares.emplace(TFileKey(st.st_dev, st.st_ino), pEntry);
  }
  if (dwError == ERROR_SUCCESS && bTruncate && !bCreated && st.st_size != 0) {
    const int nResult = (dwAccess & GENERIC_WRITE) ? ::ftruncate(fd, 0) : ::truncate(strNative.c_str(), 0);
    if (nResult != 0) {
      dwError = Win32FromErrno(errno);
      Unregister(pEntry);
    }
  }
  if (dwError != ERROR_SUCCESS) {
    ::close(fd);
    delete pEntry;
    return Fail(dwError);
  }
  // The name goes now, so the file vanishes with its last descriptor even if the process dies.
  if (bDelete && ::unlink(strNative.c_str()) != 0) pEntry->bUnlinkAtClose = true;

  m_hNative = fd;
  m_dwAccess = dwAccess;
  m_strPath = strPath;
  m_pShareEntry = pEntry;
  if (pbExisted) *pbExisted = !bCreated;
  const bool bReportExisting = !bCreated && (dwCreation == OPEN_ALWAYS || dwCreation == CREATE_ALWAYS);
  SetLastError(bReportExisting ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
  return S_OK;
}

void CFile::Close() {
  if (m_pMemFile) {
    NSMemFs::Close(m_pMemFile);
    m_pMemFile = nullptr;
    m_dwAccess = 0;
    m_strPath.clear();
    return;
  }
  if (m_hNative < 0) return;
  auto* pEntry = static_cast<SShareEntry*>(m_pShareEntry);
  if (pEntry) {
    Unregister(pEntry);
    if (pEntry->bUnlinkAtClose) ::unlink(pEntry->strNativePath.c_str());
    delete pEntry;
  }
  ::close(static_cast<int>(m_hNative));
  m_hNative = -1;
  m_dwAccess = 0;
  m_pShareEntry = nullptr;
  m_strPath.clear();
}

HRESULT CFile::Read(void* pv, DWORD cb, DWORD* pcbRead) {
  if (pcbRead) *pcbRead = 0;
  if (!IsOpen()) return Fail(ERROR_INVALID_HANDLE);
  if (m_pMemFile) return NSMemFs::Read(m_pMemFile, pv, cb, pcbRead);
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Read, m_strPath, nullptr, &dwInjected)) return Fail(dwInjected);
  if (!(m_dwAccess & GENERIC_READ)) return Fail(ERROR_ACCESS_DENIED);
  if (cb != 0 && !pv) return Fail(ERROR_NOACCESS);
  DWORD cbDone = 0;
  while (cbDone < cb) {
    const ssize_t n = RetryEintr([&] { return ::read(static_cast<int>(m_hNative), static_cast<char*>(pv) + cbDone, cb - cbDone); });
    if (n < 0) return FailErrno(errno);
    if (n == 0) break;
    cbDone += static_cast<DWORD>(n);
  }
  if (pcbRead) *pcbRead = cbDone;
  return S_OK;
}

HRESULT CFile::Write(const void* pv, DWORD cb, DWORD* pcbWritten) {
  if (pcbWritten) *pcbWritten = 0;
  if (!IsOpen()) return Fail(ERROR_INVALID_HANDLE);
  if (m_pMemFile) {
    const SIoBuffer buffer = {pv, cb};
    return NSMemFs::WriteGatherAt(m_pMemFile, NSMemFs::kullAtPosition, &buffer, 1, pcbWritten);
  }
  if (!(m_dwAccess & GENERIC_WRITE)) return Fail(ERROR_ACCESS_DENIED);
  if (cb != 0 && !pv) return Fail(ERROR_NOACCESS);
  DWORD dwInjected = ERROR_SUCCESS;
  const bool bInjected = NSFault::Intercept(NSFault::EOp::Write, m_strPath, &cb, &dwInjected);
  DWORD cbDone = 0;
  while (cbDone < cb) {
    const ssize_t n = RetryEintr([&] { return ::write(static_cast<int>(m_hNative), static_cast<const char*>(pv) + cbDone, cb - cbDone); });
    if (n < 0) return FailErrno(errno);
    cbDone += static_cast<DWORD>(n);
  }
  if (pcbWritten) *pcbWritten = cbDone;
  return bInjected ? Fail(dwInjected) : S_OK;
}

HRESULT CFile::WriteGather(const SIoBuffer* pBuffers, size_t cBuffers, DWORD* pcbWritten) {
  return WriteGatherAt(kullAtPosition, pBuffers, cBuffers, pcbWritten);
}

HRESULT CFile::WriteGatherAt(ULONGLONG ullOffset, const SIoBuffer* pBuffers, size_t cBuffers, DWORD* pcbWritten) {
  if (pcbWritten) *pcbWritten = 0;
  if (!IsOpen()) return Fail(ERROR_INVALID_HANDLE);
  if (m_pMemFile) return NSMemFs::WriteGatherAt(m_pMemFile, ullOffset, pBuffers, cBuffers, pcbWritten);
  if (cBuffers != 0 && !pBuffers) return Fail(ERROR_INVALID_PARAMETER);
  ULONGLONG ullTotal = 0;
  for (size_t i = 0; i < cBuffers; ++i) ullTotal += pBuffers[i].cb;
  if (ullTotal > 0xFFFFFFFFull) return Fail(ERROR_INVALID_PARAMETER);
  DWORD cbTotal = static_cast<DWORD>(ullTotal);
  if (!(m_dwAccess & GENERIC_WRITE)) return Fail(ERROR_ACCESS_DENIED);
  for (size_t i = 0; i < cBuffers; ++i) {
    if (pBuffers[i].cb != 0 && !pBuffers[i].pv) return Fail(ERROR_NOACCESS);
  }
  DWORD dwInjected = ERROR_SUCCESS;
  const bool bInjected = NSFault::Intercept(NSFault::EOp::Write, m_strPath, &cbTotal, &dwInjected);

  // The vector covers exactly cbTotal bytes, which the seam may have lowered for a short write.
  std::vector<iovec> vIov;
  vIov.reserve(cBuffers);
  DWORD cbLeft = cbTotal;
  for (size_t i = 0; i < cBuffers && cbLeft > 0; ++i) {
    const DWORD cb = std::min(pBuffers[i].cb, cbLeft);
    if (cb == 0) continue;
    vIov.push_back(iovec{const_cast<void*>(pBuffers[i].pv), cb});
    cbLeft -= cb;
  }
  DWORD cbDone = 0;
  size_t iFirst = 0;
  while (iFirst < vIov.size()) {
    const int cIov = static_cast<int>(std::min<size_t>(vIov.size() - iFirst, IOV_MAX));
    const ssize_t n = RetryEintr([&] {
      return ullOffset == kullAtPosition
                 ? ::writev(static_cast<int>(m_hNative), &vIov[iFirst], cIov)
                 : ::pwritev(static_cast<int>(m_hNative), &vIov[iFirst], cIov, static_cast<off_t>(ullOffset + cbDone));
    });
    if (n < 0) return FailErrno(errno);
    cbDone += static_cast<DWORD>(n);
    size_t cbAdvance = static_cast<size_t>(n);
    while (iFirst < vIov.size() && cbAdvance >= vIov[iFirst].iov_len) cbAdvance -= vIov[iFirst++].iov_len;
    if (iFirst < vIov.size()) {
      vIov[iFirst].iov_base = static_cast<char*>(vIov[iFirst].iov_base) + cbAdvance;
      vIov[iFirst].iov_len -= cbAdvance;
    }
  }
  if (pcbWritten) *pcbWritten = cbDone;
  return bInjected ? Fail(dwInjected) : S_OK;
}

HRESULT CFile::ReadAt(ULONGLONG ullOffset, void* pv, DWORD cb, DWORD* pcbRead) {
  if (pcbRead) *pcbRead = 0;
  if (!IsOpen()) return Fail(ERROR_INVALID_HANDLE);
  if (m_pMemFile) return NSMemFs::ReadAt(m_pMemFile, ullOffset, pv, cb, pcbRead);
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Read, m_strPath, nullptr, &dwInjected)) return Fail(dwInjected);
  if (!(m_dwAccess & GENERIC_READ)) return Fail(ERROR_ACCESS_DENIED);
  if (!IsValidOffset(ullOffset)) return Fail(ERROR_INVALID_PARAMETER);
  if (cb != 0 && !pv) return Fail(ERROR_NOACCESS);
  DWORD cbDone = 0;
  while (cbDone < cb) {
    const ssize_t n = RetryEintr([&] {
      return ::pread(static_cast<int>(m_hNative), static_cast<char*>(pv) + cbDone, cb - cbDone,
                     static_cast<off_t>(ullOffset + cbDone));
    });
    if (n < 0) return FailErrno(errno);
    if (n == 0) break;
    cbDone += static_cast<DWORD>(n);
  }
  if (pcbRead) *pcbRead = cbDone;
  return S_OK;
}

HRESULT CFile::WriteAt(ULONGLONG ullOffset, const void* pv, DWORD cb, DWORD* pcbWritten) {
  if (pcbWritten) *pcbWritten = 0;
  if (!IsOpen()) return Fail(ERROR_INVALID_HANDLE);
  if (m_pMemFile) {
    const SIoBuffer buffer = {pv, cb};
    return NSMemFs::WriteGatherAt(m_pMemFile, ullOffset, &buffer, 1, pcbWritten);
  }
  if (!(m_dwAccess & GENERIC_WRITE)) return Fail(ERROR_ACCESS_DENIED);
  if (!IsValidOffset(ullOffset) || !IsValidOffset(ullOffset + cb)) return Fail(ERROR_INVALID_PARAMETER);
  if (cb != 0 && !pv) return Fail(ERROR_NOACCESS);
  DWORD dwInjected = ERROR_SUCCESS;
  const bool bInjected = NSFault::Intercept(NSFault::EOp::Write, m_strPath, &cb, &dwInjected);
  DWORD cbDone = 0;
  while (cbDone < cb) {
    const ssize_t n = RetryEintr([&] {
      return ::pwrite(static_cast<int>(m_hNative), static_cast<const char*>(pv) + cbDone, cb - cbDone,
                      static_cast<off_t>(ullOffset + cbDone));
    });
    if (n < 0) return FailErrno(errno);
    cbDone += static_cast<DWORD>(n);
  }
  if (pcbWritten) *pcbWritten = cbDone;
  return bInjected ? Fail(dwInjected) : S_OK;
}

HRESULT CFile::Seek(LONGLONG llDistance, DWORD dwMethod, ULONGLONG* pullNewPosition) {
  if (!IsOpen()) return Fail(ERROR_INVALID_HANDLE);
  if (m_pMemFile) return NSMemFs::Seek(m_pMemFile, llDistance, dwMethod, pullNewPosition);
  const int fd = static_cast<int>(m_hNative);
  if (dwMethod == FILE_END && llDistance == 0) {  // to the end, in one call
    const off_t pos = ::lseek(fd, 0, SEEK_END);
    if (pos < 0) return FailErrno(errno);
    if (pullNewPosition) *pullNewPosition = static_cast<ULONGLONG>(pos);
    return S_OK;
  }
  LONGLONG llBase;
  switch (dwMethod) {
    case FILE_BEGIN: llBase = 0; break;
    case FILE_CURRENT: llBase = ::lseek(fd, 0, SEEK_CUR); break;
    case FILE_END: {
      struct stat st;
      llBase = ::fstat(fd, &st) == 0 ? st.st_size : -1;
      break;
    }
    default: return Fail(ERROR_INVALID_PARAMETER);
  }
  if (llBase < 0) return FailErrno(errno);
  if (llDistance < 0 && llBase + llDistance < 0) return Fail(ERROR_NEGATIVE_SEEK);
  if (llDistance > 0 && llBase > LLONG_MAX - llDistance) return Fail(ERROR_INVALID_PARAMETER);
  const off_t pos = ::lseek(fd, static_cast<off_t>(llBase + llDistance), SEEK_SET);
  if (pos < 0) return FailErrno(errno);
  if (pullNewPosition) *pullNewPosition = static_cast<ULONGLONG>(pos);
  return S_OK;
}

HRESULT CFile::GetSize(ULONGLONG* pullSize) const {
  if (!IsOpen()) return Fail(ERROR_INVALID_HANDLE);
  if (m_pMemFile) return NSMemFs::GetSize(m_pMemFile, pullSize);
  if (!pullSize) return Fail(ERROR_INVALID_PARAMETER);
  struct stat st;
  if (::fstat(static_cast<int>(m_hNative), &st) != 0) return FailErrno(errno);
  *pullSize = static_cast<ULONGLONG>(st.st_size);
  return S_OK;
}

HRESULT CFile::GetTimes(FILETIME* pftCreation, FILETIME* pftLastAccess, FILETIME* pftLastWrite) const {
  if (!IsOpen()) return Fail(ERROR_INVALID_HANDLE);
  if (m_pMemFile) return NSMemFs::GetTimes(m_pMemFile, pftCreation, pftLastAccess, pftLastWrite);
  if (!pftCreation || !pftLastAccess || !pftLastWrite) return Fail(ERROR_INVALID_PARAMETER);
  struct stat st;
  if (::fstat(static_cast<int>(m_hNative), &st) != 0) return FailErrno(errno);
  *pftCreation = NSPosix::FileTimeFromUnix(st.st_ctim.tv_sec, st.st_ctim.tv_nsec);
  *pftLastAccess = NSPosix::FileTimeFromUnix(st.st_atim.tv_sec, st.st_atim.tv_nsec);
  *pftLastWrite = NSPosix::FileTimeFromUnix(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
  return S_OK;
}

HRESULT CFile::SetEndOfFile() {
  if (!IsOpen()) return Fail(ERROR_INVALID_HANDLE);
  if (m_pMemFile) return NSMemFs::SetEndOfFile(m_pMemFile);
  if (!(m_dwAccess & GENERIC_WRITE)) return Fail(ERROR_ACCESS_DENIED);
  const int fd = static_cast<int>(m_hNative);
  const off_t pos = ::lseek(fd, 0, SEEK_CUR);
  if (pos < 0) return FailErrno(errno);
  if (RetryEintr([&] { return ::ftruncate(fd, pos); }) != 0) return FailErrno(errno);
  return S_OK;
}

HRESULT CFile::Flush() {
  if (!IsOpen()) return Fail(ERROR_INVALID_HANDLE);
  if (m_pMemFile) return NSMemFs::Flush(m_pMemFile);
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Flush, m_strPath, nullptr, &dwInjected)) return Fail(dwInjected);
  if (!(m_dwAccess & GENERIC_WRITE)) return Fail(ERROR_ACCESS_DENIED);
  if (RetryEintr([&] { return ::fdatasync(static_cast<int>(m_hNative)); }) != 0) return FailErrno(errno);
  return S_OK;
}

HRESULT CFile::LockRange(ULONGLONG ullOffset, ULONGLONG cb) {
  if (m_pMemFile) return NSMemFs::LockRange(m_pMemFile, ullOffset, cb);
  if (!IsOpen() || !m_pShareEntry) return Fail(ERROR_INVALID_HANDLE);
  auto* pEntry = static_cast<SShareEntry*>(m_pShareEntry);
  std::lock_guard<std::mutex> lock(g_mutexShares);
  auto range = g_mapShares.equal_range(TFileKey(pEntry->dev, pEntry->ino));
  for (auto it = range.first; it != range.second; ++it) {
    for (const SLockRange& held : it->second->vLocks) {
      if (Overlaps(held, ullOffset, cb)) return Fail(ERROR_LOCK_VIOLATION);
    }
  }
  struct flock fl;
  if (ToFlock(ullOffset, cb, (m_dwAccess & GENERIC_WRITE) ? F_WRLCK : F_RDLCK, &fl) &&
      ::fcntl(static_cast<int>(m_hNative), F_OFD_SETLK, &fl) != 0) {
    if (errno == EAGAIN || errno == EACCES) return Fail(ERROR_LOCK_VIOLATION);
    // A file system without open-file-description locks still has the in-process locks.
    if (errno != EINVAL && errno != ENOLCK) return FailErrno(errno);
  }
  pEntry->vLocks.push_back(SLockRange{ullOffset, cb});
  return S_OK;
}

HRESULT CFile::UnlockRange(ULONGLONG ullOffset, ULONGLONG cb) {
  if (m_pMemFile) return NSMemFs::UnlockRange(m_pMemFile, ullOffset, cb);
  if (!IsOpen() || !m_pShareEntry) return Fail(ERROR_INVALID_HANDLE);
  auto* pEntry = static_cast<SShareEntry*>(m_pShareEntry);
  std::lock_guard<std::mutex> lock(g_mutexShares);
  auto it = std::find_if(pEntry->vLocks.begin(), pEntry->vLocks.end(), [&](const SLockRange& held) {
    return held.ullOffset == ullOffset && held.cb == cb;
  });
  if (it == pEntry->vLocks.end()) return Fail(ERROR_NOT_LOCKED);
  pEntry->vLocks.erase(it);
  struct flock fl;
  if (ToFlock(ullOffset, cb, F_UNLCK, &fl)) ::fcntl(static_cast<int>(m_hNative), F_OFD_SETLK, &fl);
  return S_OK;
}

// ---------------------------------------------------------------------------------------------
// CFileMapping. Linux has no mapping object to keep: m_hMapping stays 0.
// ---------------------------------------------------------------------------------------------

CFileMapping::CFileMapping() : m_pView(nullptr), m_ullSize(0), m_hMapping(0) {}

CFileMapping::~CFileMapping() { Unmap(); }

HRESULT CFileMapping::Map(const CFile& file) {
  Unmap();
  if (!file.IsOpen()) return Fail(ERROR_INVALID_HANDLE);
  if (file.m_pMemFile) {
    const HRESULT hr = NSMemFs::Map(file.m_pMemFile, &m_pMemMapping, &m_pView, &m_ullSize);
    if (SUCCEEDED(hr)) m_strPath = file.GetPath();
    return hr;
  }
  ULONGLONG ullSize = 0;
  HRESULT hr = file.GetSize(&ullSize);
  if (FAILED(hr)) return hr;
  if (ullSize == 0) return Fail(ERROR_FILE_INVALID);
  void* pView = ::mmap(nullptr, static_cast<size_t>(ullSize), PROT_READ | PROT_WRITE, MAP_SHARED,
                       static_cast<int>(file.NativeHandle()), 0);
  if (pView == MAP_FAILED) return FailErrno(errno);
  m_pView = pView;
  m_ullSize = ullSize;
  m_strPath = file.GetPath();
  return S_OK;
}

HRESULT CFileMapping::Flush() {
  if (!m_pView) return Fail(ERROR_INVALID_HANDLE);
  if (m_pMemMapping) return NSMemFs::FlushMapping(m_pMemMapping);
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Flush, m_strPath, nullptr, &dwInjected)) return Fail(dwInjected);
  if (::msync(m_pView, static_cast<size_t>(m_ullSize), MS_SYNC) != 0) return FailErrno(errno);
  return S_OK;
}

void CFileMapping::Unmap() {
  if (m_pMemMapping) {
    NSMemFs::Unmap(m_pMemMapping);
    m_pMemMapping = nullptr;
  } else if (m_pView) {
    ::munmap(m_pView, static_cast<size_t>(m_ullSize));
  }
  m_pView = nullptr;
  m_ullSize = 0;
  m_strPath.clear();
}

// ---------------------------------------------------------------------------------------------
// Whole files
// ---------------------------------------------------------------------------------------------

HRESULT RemoveFile(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) return NSMemFs::RemoveFile(pszPath);
  const WString strPath = WidePath(pszPath);
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, strPath, nullptr, &dwInjected)) return Fail(dwInjected);
  if (strPath.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  const std::string strNative = WideToUtf8(strPath);
  struct stat st;
  if (::lstat(strNative.c_str(), &st) != 0) return FailErrno(errno, strNative);
  if (S_ISDIR(st.st_mode) || (!S_ISLNK(st.st_mode) && IsReadOnly(st))) return Fail(ERROR_ACCESS_DENIED);
  std::lock_guard<std::mutex> lock(g_mutexShares);
  if (IsOpenWithoutShareDelete(st)) return Fail(ERROR_SHARING_VIOLATION);
  if (::unlink(strNative.c_str()) != 0) return FailErrno(errno, strNative);
  return S_OK;
}

HRESULT RenameFile(const WCHAR* pszFrom, const WCHAR* pszTo) {
  if (NSMemFs::Serves()) return NSMemFs::RenameFile(pszFrom, pszTo);
  const WString strFrom = WidePath(pszFrom);
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, strFrom, nullptr, &dwInjected)) return Fail(dwInjected);
  if (strFrom.empty() || !pszTo || !*pszTo) return Fail(ERROR_PATH_NOT_FOUND);
  const std::string strNativeFrom = WideToUtf8(strFrom);
  const std::string strNativeTo = NativePath(pszTo);
  struct stat stFrom, stTo;
  if (::lstat(strNativeFrom.c_str(), &stFrom) != 0) return FailErrno(errno, strNativeFrom);
  std::lock_guard<std::mutex> lock(g_mutexShares);
  if (IsOpenWithoutShareDelete(stFrom)) return Fail(ERROR_SHARING_VIOLATION);
  if (::lstat(strNativeTo.c_str(), &stTo) == 0 &&
      !(stTo.st_dev == stFrom.st_dev && stTo.st_ino == stFrom.st_ino)) {
    // MoveFileExW replaces files only, and not read-only ones.
    if (S_ISDIR(stFrom.st_mode) || S_ISDIR(stTo.st_mode) || IsReadOnly(stTo)) return Fail(ERROR_ACCESS_DENIED);
    if (IsOpenWithoutShareDelete(stTo)) return Fail(ERROR_SHARING_VIOLATION);
  }
  if (::rename(strNativeFrom.c_str(), strNativeTo.c_str()) != 0) {
    return FailErrno(errno, errno == ENOENT ? strNativeTo : strNativeFrom);
  }
  return S_OK;
}

HRESULT GetTempDirectory(WString* pstrDirectory) {
  if (NSMemFs::Serves()) return NSMemFs::GetTempDirectory(pstrDirectory);
  if (!pstrDirectory) return Fail(ERROR_INVALID_PARAMETER);
  const char* pszTmp = ::getenv("TMPDIR");
  *pstrDirectory = AddTrailingSeparator(Utf8ToWide(pszTmp && *pszTmp ? pszTmp : "/tmp"));
  return S_OK;
}

HRESULT CreateTempFile(const WCHAR* pszDirectory, const WCHAR* pszPrefix, WString* pstrPath) {
  if (NSMemFs::Serves()) return NSMemFs::CreateTempFile(pszDirectory, pszPrefix, pstrPath);
  if (!pszDirectory || !pstrPath) return Fail(ERROR_INVALID_PARAMETER);
  struct stat st;
  if (::stat(NativePath(pszDirectory).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return Fail(ERROR_DIRECTORY);
  WString strBase = AddTrailingSeparator(pszDirectory);
  strBase.append(WStringView(pszPrefix ? pszPrefix : KV_W("")).substr(0, 3));

  // The numbers run on from a per-process start, so that concurrent processes rarely collide and a
  // collision costs one more attempt; every number of the 16-bit range is tried once at most.
  static std::atomic<unsigned> s_uNext{static_cast<unsigned>(::time(nullptr)) ^ (static_cast<unsigned>(::getpid()) << 4)};
  for (unsigned nAttempt = 0; nAttempt < 0xFFFF; ++nAttempt) {
    const unsigned uUnique = s_uNext.fetch_add(1) % 0xFFFF + 1;
    char szName[16];
    ::snprintf(szName, sizeof(szName), "%X.tmp", uUnique);
    WString strCandidate = strBase + Utf8ToWide(szName);
    const std::string strNative = WideToUtf8(strCandidate);
    const int fd = RetryEintr([&] { return ::open(strNative.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666); });
    if (fd >= 0) {
      ::close(fd);
      return GetFullPath(strCandidate.c_str(), pstrPath);
    }
    if (errno != EEXIST) return FailErrno(errno, strNative);
  }
  return Fail(ERROR_FILE_EXISTS);
}

HRESULT GetAttributes(const WCHAR* pszPath, DWORD* pdwAttributes) {
  if (NSMemFs::Serves()) return NSMemFs::GetAttributes(pszPath, pdwAttributes);
  if (!pdwAttributes) return Fail(ERROR_INVALID_PARAMETER);
  *pdwAttributes = INVALID_FILE_ATTRIBUTES;
  const std::string strNative = NativePath(pszPath);
  if (strNative.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  struct stat st;
  if (::stat(strNative.c_str(), &st) != 0) return FailErrno(errno, strNative);
  DWORD dwAttributes = 0;
  if (S_ISDIR(st.st_mode)) dwAttributes |= FILE_ATTRIBUTE_DIRECTORY;
  if (IsReadOnly(st)) dwAttributes |= FILE_ATTRIBUTE_READONLY;
  *pdwAttributes = dwAttributes ? dwAttributes : FILE_ATTRIBUTE_NORMAL;
  return S_OK;
}

HRESULT SetAttributes(const WCHAR* pszPath, DWORD dwAttributes) {
  if (NSMemFs::Serves()) return NSMemFs::SetAttributes(pszPath, dwAttributes);
  const WString strPath = WidePath(pszPath);
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, strPath, nullptr, &dwInjected)) return Fail(dwInjected);
  const std::string strNative = WideToUtf8(strPath);
  if (strNative.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  struct stat st;
  if (::stat(strNative.c_str(), &st) != 0) return FailErrno(errno, strNative);
  mode_t mode = st.st_mode & 07777;
  if (dwAttributes & FILE_ATTRIBUTE_READONLY) {
    mode &= ~static_cast<mode_t>(S_IWUSR | S_IWGRP | S_IWOTH);
  } else {
    mode |= S_IWUSR;
  }
  if (mode != (st.st_mode & 07777) && ::chmod(strNative.c_str(), mode) != 0) return FailErrno(errno, strNative);
  return S_OK;
}

}  // namespace NSPlatform
