// What a CreateFile disposition and share mode ask of a file system that is not Windows' own (POSIX
// files, the in-memory file system).
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

// One open of a file as the sharing rules see it.
struct SShareState {
  DWORD dwAccess;
  DWORD dwShare;
  bool bDelete;  // opened for deletion (delete-on-close)
};

// Whether a new open (access, share mode, deletion) is refused by an existing one, as Windows
// decides it: each side must share what the other asks for.
inline bool SharesConflict(const SShareState& existing, const SShareState& wanted) {
  if ((wanted.dwAccess & GENERIC_READ) && !(existing.dwShare & FILE_SHARE_READ)) return true;
  if ((wanted.dwAccess & GENERIC_WRITE) && !(existing.dwShare & FILE_SHARE_WRITE)) return true;
  if (wanted.bDelete && !(existing.dwShare & FILE_SHARE_DELETE)) return true;
  if ((existing.dwAccess & GENERIC_READ) && !(wanted.dwShare & FILE_SHARE_READ)) return true;
  if ((existing.dwAccess & GENERIC_WRITE) && !(wanted.dwShare & FILE_SHARE_WRITE)) return true;
  if (existing.bDelete && !(wanted.dwShare & FILE_SHARE_DELETE)) return true;
  return false;
}

}  // namespace NSPlatform
