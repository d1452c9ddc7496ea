// Directories and whole-path operations on POSIX, answering as CreateDirectoryW, SHCreateDirectoryExW,
// RemoveDirectoryW, the FindFirstFileW family and SHFileOperationW do.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "platform/MemFs.h"
#include "platform/posix/Errno.h"

namespace NSPlatform {

using namespace NSPosix;

namespace {

// The names in a directory, read straight from the kernel in blocks: one open, one or two reads
// and a close, where opendir would also ask the directory's attributes. "." and ".." are left out.
// A search through a sparse record lists a few directories for every hour it passes.
class CDirReader {
 public:
  explicit CDirReader(const char* pszPath)
      : m_fd(RetryEintr([&] { return ::open(pszPath, O_RDONLY | O_DIRECTORY | O_CLOEXEC); })) {}
  ~CDirReader() {
    if (m_fd >= 0) ::close(m_fd);
  }
  CDirReader(const CDirReader&) = delete;
  CDirReader& operator=(const CDirReader&) = delete;

  // False when the directory could not be opened; errno says why.
  bool IsOpen() const { return m_fd >= 0; }
  int Fd() const { return m_fd; }
  // The next name, or null at the end (or when a read fails); its type (DT_DIR, DT_UNKNOWN...) in
  // *puchType when asked.
  const char* Next(unsigned char* puchType = nullptr) {
    for (;;) {
      if (m_nNext >= m_nEnd) {
        const ssize_t n = RetryEintr([&] { return ::getdents64(m_fd, m_ab, sizeof(m_ab)); });
        if (n <= 0) return nullptr;
        m_nNext = 0;
        m_nEnd = static_cast<size_t>(n);
      }
      const auto* pEntry = reinterpret_cast<const struct dirent64*>(m_ab + m_nNext);
      m_nNext += pEntry->d_reclen;
      if (IsDotOrDotDot(pEntry->d_name)) continue;
      if (puchType) *puchType = pEntry->d_type;
      return pEntry->d_name;
    }
  }

 private:
  static bool IsDotOrDotDot(const char* pszName) {
    return pszName[0] == '.' && (pszName[1] == 0 || (pszName[1] == '.' && pszName[2] == 0));
  }

  int m_fd;
  alignas(struct dirent64) char m_ab[8192];
  size_t m_nNext = 0;
  size_t m_nEnd = 0;
};

bool StatIsDirectory(const std::string& strPath) {
  struct stat st;
  return ::stat(strPath.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string Join(const std::string& strDirectory, const std::string& strName) {
  if (!strDirectory.empty() && strDirectory.back() == '/') return strDirectory + strName;
  return strDirectory + "/" + strName;
}

std::string LastComponent(const std::string& strPath) {
  size_t iEnd = strPath.size();
  while (iEnd > 1 && strPath[iEnd - 1] == '/') --iEnd;
  const size_t iSlash = strPath.rfind('/', iEnd - 1);
  return iSlash == std::string::npos ? strPath.substr(0, iEnd) : strPath.substr(iSlash + 1, iEnd - iSlash - 1);
}

// The path without trailing separators, the root excepted.
WString WithoutTrailingSeparators(WString strPath) {
  while (strPath.size() > 1 && IsPathSeparator(strPath.back())) strPath.pop_back();
  return strPath;
}

HRESULT CopyFileData(const std::string& strFrom, const std::string& strTo, const struct stat& stFrom) {
  const int fdFrom = RetryEintr([&] { return ::open(strFrom.c_str(), O_RDONLY | O_CLOEXEC); });
  if (fdFrom < 0) return FailErrno(errno, strFrom);
  const int fdTo = RetryEintr([&] { return ::open(strTo.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600); });
  if (fdTo < 0) {
    const int nErrno = errno;
    ::close(fdFrom);
    return FailErrno(nErrno, strTo);
  }
  HRESULT hr = S_OK;
  std::vector<char> vBuffer(1 << 16);
  for (;;) {
    const ssize_t cbRead = RetryEintr([&] { return ::read(fdFrom, vBuffer.data(), vBuffer.size()); });
    if (cbRead <= 0) {
      if (cbRead < 0) hr = FailErrno(errno);
      break;
    }
    ssize_t cbDone = 0;
    while (cbDone < cbRead && SUCCEEDED(hr)) {
      const ssize_t n = RetryEintr([&] { return ::write(fdTo, vBuffer.data() + cbDone, cbRead - cbDone); });
      if (n < 0) hr = FailErrno(errno);
      else cbDone += n;
    }
    if (FAILED(hr)) break;
  }
  // The shell keeps a copied file's attributes (read-only among them) and its last-write time.
  if (SUCCEEDED(hr)) {
    const struct timespec aTimes[2] = {stFrom.st_atim, stFrom.st_mtim};
    if (::fchmod(fdTo, stFrom.st_mode & 07777) != 0 || ::futimens(fdTo, aTimes) != 0) hr = FailErrno(errno);
  }
  ::close(fdFrom);
  if (::close(fdTo) != 0 && SUCCEEDED(hr)) hr = FailErrno(errno);
  return hr;
}

HRESULT CopyItem(const std::string& strFrom, const std::string& strTo) {
  struct stat stFrom;
  if (::stat(strFrom.c_str(), &stFrom) != 0) return FailErrno(errno, strFrom);
  if (!S_ISDIR(stFrom.st_mode)) return CopyFileData(strFrom, strTo, stFrom);

  if (::mkdir(strTo.c_str(), 0777) != 0 && !(errno == EEXIST && StatIsDirectory(strTo))) {
    return FailErrno(errno, strTo, EObject::Directory);
  }
  std::vector<std::string> vNames;
  {
    CDirReader dir(strFrom.c_str());
    if (!dir.IsOpen()) return FailErrno(errno, strFrom, EObject::Directory);
    while (const char* pszName = dir.Next()) vNames.emplace_back(pszName);
  }
  for (const std::string& strName : vNames) {
    HRESULT hr = CopyItem(Join(strFrom, strName), Join(strTo, strName));
    if (FAILED(hr)) return hr;
  }
  // Last, so that a read-only source directory does not stop its own contents from being copied.
  if (::chmod(strTo.c_str(), stFrom.st_mode & 07777) != 0) return FailErrno(errno, strTo);
  return S_OK;
}

// Creates every missing directory of strNative, whose own existence has been checked already.
HRESULT MakeDirectories(const std::string& strNative) {
  for (size_t i = 1; i <= strNative.size(); ++i) {
    if (i < strNative.size() && strNative[i] != '/') continue;
    const std::string strPrefix = strNative.substr(0, i);
    if (::mkdir(strPrefix.c_str(), 0777) == 0) continue;
    if (errno == EEXIST) {
      // A file where a directory belongs ends the walk as a missing path does on Windows.
      if (!StatIsDirectory(strPrefix)) return Fail(ERROR_PATH_NOT_FOUND);
      continue;
    }
    return FailErrno(errno, strPrefix, EObject::Directory);
  }
  return S_OK;
}

}  // namespace

HRESULT CreateDir(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) return NSMemFs::CreateDir(pszPath);
  const WString strPath = WidePath(pszPath);
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, strPath, nullptr, &dwInjected)) return Fail(dwInjected);
  if (strPath.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  const std::string strNative = WideToUtf8(strPath);
  if (::mkdir(strNative.c_str(), 0777) != 0) {
    // mkdir's ENOENT always means a missing parent.
    return Fail(errno == ENOENT ? ERROR_PATH_NOT_FOUND : Win32FromErrno(errno, strNative, EObject::Directory));
  }
  return S_OK;
}

HRESULT CreateDirTree(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) return NSMemFs::CreateDirTree(pszPath);
  const WString strPath = WidePath(pszPath);
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, strPath, nullptr, &dwInjected)) return Fail(dwInjected);
  // SHCreateDirectoryExW takes full paths only.
  if (strPath.empty() || !IsPathSeparator(strPath[0])) return Fail(ERROR_BAD_PATHNAME);
  const std::string strNative = WideToUtf8(WithoutTrailingSeparators(CanonicalizePath(strPath)));
  struct stat st;
  if (::stat(strNative.c_str(), &st) == 0) return Fail(S_ISDIR(st.st_mode) ? ERROR_ALREADY_EXISTS : ERROR_FILE_EXISTS);
  return MakeDirectories(strNative);
}

HRESULT RemoveDir(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) return NSMemFs::RemoveDir(pszPath);
  const WString strPath = WidePath(pszPath);
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, strPath, nullptr, &dwInjected)) return Fail(dwInjected);
  if (strPath.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  const std::string strNative = WideToUtf8(WithoutTrailingSeparators(strPath));
  struct stat st;
  if (::lstat(strNative.c_str(), &st) != 0) return FailErrno(errno, strNative, EObject::Directory);
  if (!S_ISDIR(st.st_mode)) return Fail(ERROR_DIRECTORY);
  if ((st.st_mode & S_IWUSR) == 0) return Fail(ERROR_ACCESS_DENIED);
  if (::rmdir(strNative.c_str()) != 0) {
    return Fail(errno == ENOTEMPTY || errno == EEXIST ? ERROR_DIR_NOT_EMPTY
                                                     : Win32FromErrno(errno, strNative, EObject::Directory));
  }
  return S_OK;
}

namespace {
// A directory opened for listing, failing as FindFirstFileW on "<directory>\*" does: the fault seam
// is asked first, a missing path is ERROR_PATH_NOT_FOUND (the path, not the file, is reported
// missing) and a file ERROR_DIRECTORY.
HRESULT OpenListing(const WCHAR* pszDirectory, std::unique_ptr<CDirReader>* ppDir) {
  const WString strPath = WidePath(pszDirectory);
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, strPath, nullptr, &dwInjected)) return Fail(dwInjected);
  if (strPath.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  const std::string strNative = WideToUtf8(strPath);
  auto pDir = std::make_unique<CDirReader>(strNative.c_str());
  if (!pDir->IsOpen()) {
    if (errno == ENOENT) return Fail(ERROR_PATH_NOT_FOUND);
    if (errno == ENOTDIR) return Fail(ERROR_DIRECTORY);
    return FailErrno(errno, strNative, EObject::Directory);
  }
  *ppDir = std::move(pDir);
  return S_OK;
}
}  // namespace

HRESULT ListDir(const WCHAR* pszDirectory, std::vector<SDirEntry>* pvEntries, const WCHAR* pszSpec) {
  if (NSMemFs::Serves()) return NSMemFs::ListDir(pszDirectory, pvEntries, pszSpec);
  if (!pvEntries) return Fail(ERROR_INVALID_PARAMETER);
  pvEntries->clear();
  std::unique_ptr<CDirReader> pDir;
  const HRESULT hr = OpenListing(pszDirectory, &pDir);
  if (FAILED(hr)) return hr;
  CDirReader& dir = *pDir;
  while (const char* pszName = dir.Next()) {
    SDirEntry entry;
    entry.strName = Utf8ToWide(pszName);
    if (pszSpec && !MatchSpec(entry.strName.c_str(), pszSpec)) continue;
    struct stat st;
    // A dangling symbolic link is listed as itself; an entry removed meanwhile is left out.
    if (::fstatat(dir.Fd(), pszName, &st, 0) != 0 && ::fstatat(dir.Fd(), pszName, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;
    }
    entry.dwAttributes = 0;
    if (S_ISDIR(st.st_mode)) entry.dwAttributes |= FILE_ATTRIBUTE_DIRECTORY;
    if ((st.st_mode & S_IWUSR) == 0) entry.dwAttributes |= FILE_ATTRIBUTE_READONLY;
    if (entry.dwAttributes == 0) entry.dwAttributes = FILE_ATTRIBUTE_NORMAL;
    entry.ullSize = S_ISDIR(st.st_mode) ? 0 : static_cast<ULONGLONG>(st.st_size);
    entry.ftLastWrite = FileTimeFromUnix(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
    pvEntries->push_back(std::move(entry));
  }
  std::sort(pvEntries->begin(), pvEntries->end(),
            [](const SDirEntry& a, const SDirEntry& b) { return a.strName < b.strName; });
  return S_OK;
}

HRESULT ListSubdirectories(const WCHAR* pszDirectory, std::vector<WString>* pvNames) {
  if (!pvNames) return Fail(ERROR_INVALID_PARAMETER);
  pvNames->clear();
  if (NSMemFs::Serves()) {
    std::vector<SDirEntry> vEntries;
    const HRESULT hr = NSMemFs::ListDir(pszDirectory, &vEntries, nullptr);
    for (SDirEntry& entry : vEntries)
      if (entry.IsDirectory()) pvNames->push_back(std::move(entry.strName));
    return hr;
  }
  std::unique_ptr<CDirReader> pDir;
  const HRESULT hr = OpenListing(pszDirectory, &pDir);
  if (FAILED(hr)) return hr;
  CDirReader& dir = *pDir;
  unsigned char uchType = DT_UNKNOWN;
  while (const char* pszName = dir.Next(&uchType)) {
    // A link is followed, as ListDir follows it; a type the file system does not tell is asked.
    bool bDirectory = uchType == DT_DIR;
    if (uchType == DT_UNKNOWN || uchType == DT_LNK) {
      struct stat st;
      bDirectory = ::fstatat(dir.Fd(), pszName, &st, 0) == 0 && S_ISDIR(st.st_mode);
    }
    if (bDirectory) pvNames->push_back(Utf8ToWide(pszName));
  }
  std::sort(pvNames->begin(), pvNames->end());
  return S_OK;
}

bool PathExists(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) return NSMemFs::PathExists(pszPath);
  const std::string strNative = NativePath(pszPath);
  struct stat st;
  return !strNative.empty() && ::stat(strNative.c_str(), &st) == 0;
}

bool IsDirectory(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) return NSMemFs::IsDirectory(pszPath);
  const std::string strNative = NativePath(pszPath);
  return !strNative.empty() && StatIsDirectory(strNative);
}

bool IsDirectoryEmpty(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) return NSMemFs::IsDirectoryEmpty(pszPath);
  const std::string strNative = NativePath(pszPath);
  if (strNative.empty()) return false;
  CDirReader dir(strNative.c_str());
  return dir.IsOpen() && !dir.Next();
}

HRESULT FlushDirectory(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) return NSMemFs::FlushDirectory(pszPath);
  const WString strPath = WidePath(pszPath);
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, strPath, nullptr, &dwInjected)) return Fail(dwInjected);
  if (strPath.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  const std::string strNative = WideToUtf8(WithoutTrailingSeparators(strPath));
  const int fd = RetryEintr([&] { return ::open(strNative.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
  if (fd < 0) return errno == ENOTDIR ? Fail(ERROR_DIRECTORY) : FailErrno(errno, strNative, EObject::Directory);
  // A file system that cannot sync a directory (EINVAL) keeps its names by other means.
  const int nResult = ::fsync(fd) == 0 || errno == EINVAL ? 0 : errno;
  ::close(fd);
  return nResult == 0 ? S_OK : FailErrno(nResult, strNative, EObject::Directory);
}

HRESULT CopyTree(const WCHAR* pszFrom, const WCHAR* pszTo) {
  if (NSMemFs::Serves()) return NSMemFs::CopyTree(pszFrom, pszTo);
  WString strFrom, strTo;
  HRESULT hr = GetFullPath(pszFrom, &strFrom);
  if (SUCCEEDED(hr)) hr = GetFullPath(pszTo, &strTo);
  if (FAILED(hr)) return hr;
  const std::string strNativeFrom = WideToUtf8(WithoutTrailingSeparators(strFrom));
  std::string strTarget = WideToUtf8(WithoutTrailingSeparators(strTo));
  struct stat st;
  if (::stat(strNativeFrom.c_str(), &st) != 0) return FailErrno(errno, strNativeFrom);
  if (StatIsDirectory(strTarget)) {
    strTarget = Join(strTarget, LastComponent(strNativeFrom));
  } else {
    const size_t iSlash = strTarget.rfind('/');
    if (iSlash != std::string::npos && iSlash > 0 && !StatIsDirectory(strTarget.substr(0, iSlash))) {
      hr = MakeDirectories(strTarget.substr(0, iSlash));
      if (FAILED(hr)) return hr;
    }
  }
  // A tree copied onto itself or into itself would never end.
  if (strTarget == strNativeFrom || strTarget.compare(0, strNativeFrom.size() + 1, strNativeFrom + "/") == 0) {
    return Fail(ERROR_INVALID_PARAMETER);
  }
  return CopyItem(strNativeFrom, strTarget);
}

HRESULT GetFullPath(const WCHAR* pszPath, WString* pstrFull) {
  if (!pszPath || !pstrFull) return Fail(ERROR_INVALID_PARAMETER);
  if (!*pszPath) return Fail(ERROR_INVALID_NAME);
  WString strPath(pszPath);
  if (!IsPathSeparator(strPath[0])) {
    std::vector<char> vCwd(4096);
    while (!::getcwd(vCwd.data(), vCwd.size())) {
      if (errno != ERANGE) return FailErrno(errno);
      vCwd.resize(vCwd.size() * 2);
    }
    strPath = CombinePath(Utf8ToWide(vCwd.data()), strPath);
  }
  *pstrFull = CanonicalizePath(strPath);
  return S_OK;
}

WString FoldPathCase(WStringView strPath) { return WString(strPath); }

}  // namespace NSPlatform
