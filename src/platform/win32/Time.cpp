// Clocks and calendar conversions on Windows: the system's own functions, so that the engine's
// dates agree with every other Windows program's.

#include "platform/os.h"

namespace NSPlatform {

void GetUtcFileTime(FILETIME* pft) { ::GetSystemTimeAsFileTime(pft); }

void GetUtcSystemTime(SYSTEMTIME* pst) { ::GetSystemTime(pst); }

// The system converts; the arithmetic version only vets the fields first, because Wine's converter
// accepts 29 February of every year and years past 30827, which Windows refuses.
bool SysTimeToFileTime(const SYSTEMTIME* pst, FILETIME* pft) {
  FILETIME ftVetted;
  if (!NSPortable::SysTimeToFileTime(pst, &ftVetted)) {
    return false;
  }
  return ::SystemTimeToFileTime(pst, pft) != FALSE;
}

bool FileTimeToSysTime(const FILETIME* pft, SYSTEMTIME* pst) { return ::FileTimeToSystemTime(pft, pst) != FALSE; }

ULONGLONG GetTickCount64() { return ::GetTickCount64(); }

bool QueryPerfCounter(LONGLONG* pllCount) {
  LARGE_INTEGER li;
  if (!::QueryPerformanceCounter(&li)) {
    return false;
  }
  *pllCount = li.QuadPart;
  return true;
}

bool QueryPerfFrequency(LONGLONG* pllFrequency) {
  LARGE_INTEGER li;
  if (!::QueryPerformanceFrequency(&li)) {
    return false;
  }
  *pllFrequency = li.QuadPart;
  return true;
}

void SleepMs(DWORD dwMilliseconds) { ::Sleep(dwMilliseconds); }

}  // namespace NSPlatform
