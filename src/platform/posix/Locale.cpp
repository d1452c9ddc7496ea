// The thread locale on Linux: kept per thread, with no effect (see os.h).
#include "platform/os.h"

namespace NSPlatform {

namespace {
// English (United States) until a thread sets another, as a fresh Windows thread of that locale.
thread_local DWORD t_lcid = 0x409;
}  // namespace

DWORD GetThreadLocaleId() { return t_lcid; }

bool SetThreadLocaleId(DWORD lcid) {
  t_lcid = lcid;
  return true;
}

}  // namespace NSPlatform
