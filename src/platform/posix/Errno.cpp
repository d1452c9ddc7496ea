#include "platform/posix/Errno.h"

#include <errno.h>
#include <sys/stat.h>

namespace NSPlatform {
namespace NSPosix {

bool ParentIsDirectory(const std::string& strPath) {
  if (strPath.empty()) return false;
  size_t iEnd = strPath.size();
  while (iEnd > 1 && strPath[iEnd - 1] == '/') --iEnd;
  const size_t iSlash = strPath.rfind('/', iEnd - 1);
  std::string strParent;
  if (iSlash == std::string::npos) {
    strParent = ".";
  } else if (iSlash == 0) {
    strParent = "/";
  } else {
    strParent = strPath.substr(0, iSlash);
  }
  struct stat st;
  return ::stat(strParent.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

DWORD Win32FromErrno(int nErrno, const std::string& strPath, EObject eObject) {
  switch (nErrno) {
    case 0: return ERROR_SUCCESS;
    case ENOENT: return strPath.empty() || ParentIsDirectory(strPath) ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
    case ENOTDIR: return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EISDIR: return ERROR_ACCESS_DENIED;
    case EEXIST: return eObject == EObject::Directory ? ERROR_ALREADY_EXISTS : ERROR_FILE_EXISTS;
    case ENOSPC:
#ifdef EDQUOT
    case EDQUOT:
#endif
      return ERROR_DISK_FULL;
    case EFBIG: return ERROR_FILE_TOO_LARGE;
    case EMFILE:
    case ENFILE: return ERROR_TOO_MANY_OPEN_FILES;
    case ENOTEMPTY: return ERROR_DIR_NOT_EMPTY;
    case ENAMETOOLONG: return ERROR_FILENAME_EXCED_RANGE;
    case ELOOP: return ERROR_CANT_RESOLVE_FILENAME;
    case EROFS: return ERROR_WRITE_PROTECT;
    case EIO: return ERROR_IO_DEVICE;
    case EINVAL: return ERROR_INVALID_PARAMETER;
    case EBADF: return ERROR_INVALID_HANDLE;
    case ENOMEM: return ERROR_NOT_ENOUGH_MEMORY;
    case EXDEV: return ERROR_NOT_SAME_DEVICE;
    case EBUSY: return ERROR_BUSY;
    case ETXTBSY: return ERROR_SHARING_VIOLATION;
    case EAGAIN: return ERROR_LOCK_VIOLATION;
    case EFAULT: return ERROR_NOACCESS;
    case ENODEV:
    case ENXIO: return ERROR_NOT_READY;
    case ENOTSUP: return ERROR_NOT_SUPPORTED;
    case ENOLCK: return ERROR_NOT_ENOUGH_MEMORY;
    case ESPIPE: return ERROR_INVALID_FUNCTION;
    case EOVERFLOW: return ERROR_INVALID_PARAMETER;
    default: return ERROR_INVALID_FUNCTION;
  }
}

HRESULT Fail(DWORD dwError) {
  SetLastError(dwError);
  return KvHResultFromWin32(dwError);
}

HRESULT FailErrno(int nErrno, const std::string& strPath, EObject eObject) {
  return Fail(Win32FromErrno(nErrno, strPath, eObject));
}

std::string NativePath(const WCHAR* pszPath) { return pszPath ? WideToUtf8(pszPath) : std::string(); }

WString WidePath(const WCHAR* pszPath) { return pszPath ? WString(pszPath) : WString(); }

}  // namespace NSPosix
}  // namespace NSPlatform
