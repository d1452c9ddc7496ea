// What a CreateFile disposition asks of a file system that is not Windows' own (POSIX files, the
// in-memory file system).
#pragma once

#include "platform/wintypes.h"

namespace NSPlatform {

struct SDisposition {
  bool bMayCreate = false;
  bool bMustCreate = false;
  bool bTruncate = false;
};

// False for a disposition CreateFile does not know, and for truncation without write access
// (both ERROR_INVALID_PARAMETER).
inline bool DecodeDisposition(DWORD dwCreation, DWORD dwAccess, SDisposition* pDisposition) {
  switch (dwCreation) {
    case CREATE_NEW: pDisposition->bMustCreate = true; return true;
    case CREATE_ALWAYS: pDisposition->bMayCreate = pDisposition->bTruncate = true; return true;
    case OPEN_EXISTING: return true;
    case OPEN_ALWAYS: pDisposition->bMayCreate = true; return true;
    case TRUNCATE_EXISTING: return (dwAccess & GENERIC_WRITE) != 0 && (pDisposition->bTruncate = true);
    default: return false;
  }
}

}  // namespace NSPlatform
