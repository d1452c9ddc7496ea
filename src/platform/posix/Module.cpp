// The module that holds the platform layer, on Linux.
#include <dlfcn.h>

#include "platform/os.h"
#include "platform/posix/Errno.h"

namespace NSPlatform {

HRESULT GetOwnModulePath(WString* pstrPath) {
  if (!pstrPath) return NSPosix::Fail(ERROR_INVALID_PARAMETER);
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&GetOwnModulePath), &info) == 0 || !info.dli_fname || !*info.dli_fname) {
    return NSPosix::Fail(ERROR_MOD_NOT_FOUND);
  }
  // dli_fname is the name the module was loaded by, which may be relative to the directory current
  // at load time; the loader's own record is the best there is.
  return GetFullPath(Utf8ToWide(info.dli_fname).c_str(), pstrPath);
}

}  // namespace NSPlatform
