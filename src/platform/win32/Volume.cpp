// Free space of a volume on Windows.

#include "platform/MemFs.h"
#include "platform/os.h"
#include "platform/win32/Win32Util.h"

namespace NSPlatform {

HRESULT GetFreeDiskSpace(const WCHAR* pszPath, ULONGLONG* pullFreeToCaller, ULONGLONG* pullTotal,
                         ULONGLONG* pullTotalFree) {
  if (NSMemFs::Serves()) {
    return NSMemFs::GetFreeDiskSpace(pszPath, pullFreeToCaller, pullTotal, pullTotalFree);
  }
  ULARGE_INTEGER uliFreeToCaller;
  ULARGE_INTEGER uliTotal;
  ULARGE_INTEGER uliTotalFree;
  if (!::GetDiskFreeSpaceExW(pszPath, &uliFreeToCaller, &uliTotal, &uliTotalFree)) {
    return NWin32::FailLast();
  }
  // A test's override stands for the free space only: the path must still name a volume, and the
  // volume's size is the real one.
  ULONGLONG ullOverride = 0;
  if (NSFault::GetFreeSpaceOverride(&ullOverride)) {
    uliFreeToCaller.QuadPart = ullOverride;
    uliTotalFree.QuadPart = ullOverride;
  }
  if (pullFreeToCaller != nullptr) {
    *pullFreeToCaller = uliFreeToCaller.QuadPart;
  }
  if (pullTotal != nullptr) {
    *pullTotal = uliTotal.QuadPart;
  }
  if (pullTotalFree != nullptr) {
    *pullTotalFree = uliTotalFree.QuadPart;
  }
  return S_OK;
}

}  // namespace NSPlatform
