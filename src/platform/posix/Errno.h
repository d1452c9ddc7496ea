// errno -> Win32 error codes for the POSIX platform implementation, and the small helpers every
// POSIX platform file uses to fail a call the way Win32 would (last error set, HRESULT returned).
#pragma once

#include <errno.h>

#include <cstdint>
#include <string>

#include "platform/os.h"

namespace NSPlatform {
namespace NSPosix {

// What the failing call was about: EEXIST is ERROR_FILE_EXISTS for a file and ERROR_ALREADY_EXISTS
// for a directory, as CreateFileW and CreateDirectoryW answer.
enum class EObject { File, Directory };

// The Win32 code for an errno value. ENOENT needs the path: a missing file in an existing directory
// is ERROR_FILE_NOT_FOUND, a missing directory on the way ERROR_PATH_NOT_FOUND.
DWORD Win32FromErrno(int nErrno, const std::string& strPath = std::string(), EObject eObject = EObject::File);

// Sets the thread's last error and returns its HRESULT.
HRESULT Fail(DWORD dwError);
HRESULT FailErrno(int nErrno, const std::string& strPath = std::string(), EObject eObject = EObject::File);

// The path as the system calls take it; an empty string for a null pointer.
std::string NativePath(const WCHAR* pszPath);
WString WidePath(const WCHAR* pszPath);

// True when the directory that would hold strPath exists ("." for a bare name).
bool ParentIsDirectory(const std::string& strPath);

// A POSIX time stamp as a FILETIME (100 ns since 1601-01-01 UTC); instants before 1601 become 0.
FILETIME FileTimeFromUnix(int64_t llSeconds, long lNanoseconds);

// A write or read call interrupted by a signal is restarted: Win32 calls are never interrupted.
template <typename F>
auto RetryEintr(F fn) -> decltype(fn()) {
  decltype(fn()) r;
  do {
    r = fn();
  } while (r == -1 && errno == EINTR);
  return r;
}

}  // namespace NSPosix
}  // namespace NSPlatform
