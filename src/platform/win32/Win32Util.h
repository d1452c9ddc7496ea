// Helpers shared by the Win32 implementation of the platform layer.
//
// Every failing platform call leaves its Win32 code in the thread's last error and answers the
// matching HRESULT, so a caller may use either; the failure helpers keep the two in step.
#pragma once

#include "platform/os.h"

namespace NSPlatform {
namespace NWin32 {

// Sets the thread's last error to dwError and answers its HRESULT.
inline HRESULT FailWith(DWORD dwError) {
  NSPlatform::SetLastError(dwError);
  return KvHResultFromWin32(dwError);
}

// The HRESULT of the error a Win32 call just left; E_FAIL if it left none, so that a failure is
// never mistaken for success.
inline HRESULT FailLast() {
  DWORD dwError = ::GetLastError();
  return dwError != ERROR_SUCCESS ? KvHResultFromWin32(dwError) : E_FAIL;
}

// The attributes both platforms report: FILE_ATTRIBUTE_DIRECTORY and FILE_ATTRIBUTE_READONLY, or
// FILE_ATTRIBUTE_NORMAL for neither. The others the file system keeps (FILE_ATTRIBUTE_ARCHIVE on
// every written file...) mean nothing to the engine.
inline DWORD PortableAttributes(DWORD dwAttributes) {
  dwAttributes &= FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY;
  return dwAttributes != 0 ? dwAttributes : FILE_ATTRIBUTE_NORMAL;
}

inline WString PathOrEmpty(const WCHAR* psz) { return psz != nullptr ? WString(psz) : WString(); }

}  // namespace NWin32
}  // namespace NSPlatform
