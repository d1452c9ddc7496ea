// Free space of a volume, as GetDiskFreeSpaceExW reports it; the fault seam may stand in a figure so
// that quota and disk-full handling can be tested without filling a disk.
#include <sys/statvfs.h>

#include "platform/MemFs.h"
#include "platform/posix/Errno.h"

namespace NSPlatform {

using namespace NSPosix;

HRESULT GetFreeDiskSpace(const WCHAR* pszPath, ULONGLONG* pullFreeToCaller, ULONGLONG* pullTotal,
                         ULONGLONG* pullTotalFree) {
  if (NSMemFs::Serves()) return NSMemFs::GetFreeDiskSpace(pszPath, pullFreeToCaller, pullTotal, pullTotalFree);
  const std::string strNative = NativePath(pszPath);
  if (strNative.empty()) return Fail(ERROR_PATH_NOT_FOUND);
  struct statvfs vfs;
  // The path names a directory: whatever part of it is missing, the path is not found.
  if (RetryEintr([&] { return ::statvfs(strNative.c_str(), &vfs); }) != 0) {
    return errno == ENOENT ? Fail(ERROR_PATH_NOT_FOUND) : FailErrno(errno, strNative);
  }
  const ULONGLONG ullBlock = vfs.f_frsize ? vfs.f_frsize : vfs.f_bsize;
  ULONGLONG ullFreeToCaller = static_cast<ULONGLONG>(vfs.f_bavail) * ullBlock;
  ULONGLONG ullTotalFree = static_cast<ULONGLONG>(vfs.f_bfree) * ullBlock;
  ULONGLONG ullOverride = 0;
  if (NSFault::GetFreeSpaceOverride(&ullOverride)) ullFreeToCaller = ullTotalFree = ullOverride;
  if (pullFreeToCaller) *pullFreeToCaller = ullFreeToCaller;
  if (pullTotal) *pullTotal = static_cast<ULONGLONG>(vfs.f_blocks) * ullBlock;
  if (pullTotalFree) *pullTotalFree = ullTotalFree;
  return S_OK;
}

}  // namespace NSPlatform
