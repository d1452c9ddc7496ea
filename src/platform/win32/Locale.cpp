// The thread locale on Windows.
#include "platform/os.h"

namespace NSPlatform {

DWORD GetThreadLocaleId() { return ::GetThreadLocale(); }

bool SetThreadLocaleId(DWORD lcid) { return ::SetThreadLocale(lcid) != FALSE; }

}  // namespace NSPlatform
