// Clocks on POSIX. Wall-clock time is UTC from CLOCK_REALTIME; tick counts and the performance
// counter come from CLOCK_MONOTONIC (the tick count from its coarse twin), which, like QueryPerformanceCounter, never steps back.
#include <errno.h>
#include <sched.h>
#include <time.h>

#include "platform/posix/Errno.h"

namespace NSPlatform {

namespace {

constexpr LONGLONG llSeconds1601To1970 = 11644473600LL;
constexpr LONGLONG llNanosecondsPerSecond = 1000000000LL;

timespec Now(clockid_t clock) {
  timespec ts{};
  ::clock_gettime(clock, &ts);
  return ts;
}

}  // namespace

FILETIME NSPosix::FileTimeFromUnix(int64_t llSeconds, long lNanoseconds) {
  const LONGLONG llSince1601 = llSeconds + llSeconds1601To1970;
  if (llSince1601 < 0) return U64ToFileTime(0);
  return U64ToFileTime(static_cast<ULONGLONG>(llSince1601) * 10000000ULL + static_cast<ULONGLONG>(lNanoseconds) / 100);
}

void GetUtcFileTime(FILETIME* pft) {
  const timespec ts = Now(CLOCK_REALTIME);
  *pft = NSPosix::FileTimeFromUnix(ts.tv_sec, ts.tv_nsec);
}

void GetUtcSystemTime(SYSTEMTIME* pst) {
  FILETIME ft;
  GetUtcFileTime(&ft);
  NSPortable::FileTimeToSysTime(&ft, pst);
}

bool SysTimeToFileTime(const SYSTEMTIME* pst, FILETIME* pft) { return NSPortable::SysTimeToFileTime(pst, pft); }

bool FileTimeToSysTime(const FILETIME* pft, SYSTEMTIME* pst) { return NSPortable::FileTimeToSysTime(pft, pst); }

// The coarse clock, like the Windows tick count, moves in steps of a few milliseconds, and costs a
// fraction of the precise one: hours stamp their last access with it on every read.
ULONGLONG GetTickCount64() {
#ifdef CLOCK_MONOTONIC_COARSE
  const timespec ts = Now(CLOCK_MONOTONIC_COARSE);
#else
  const timespec ts = Now(CLOCK_MONOTONIC);
#endif
  return static_cast<ULONGLONG>(ts.tv_sec) * 1000 + static_cast<ULONGLONG>(ts.tv_nsec) / 1000000;
}

bool QueryPerfCounter(LONGLONG* pllCount) {
  if (!pllCount) {
    SetLastError(ERROR_NOACCESS);
    return false;
  }
  const timespec ts = Now(CLOCK_MONOTONIC);
  *pllCount = static_cast<LONGLONG>(ts.tv_sec) * llNanosecondsPerSecond + ts.tv_nsec;
  return true;
}

bool QueryPerfFrequency(LONGLONG* pllFrequency) {
  if (!pllFrequency) {
    SetLastError(ERROR_NOACCESS);
    return false;
  }
  *pllFrequency = llNanosecondsPerSecond;
  return true;
}

void SleepMs(DWORD dwMilliseconds) {
  if (dwMilliseconds == 0) {
    ::sched_yield();
    return;
  }
  // Sleep(INFINITE) never returns; a very long sleep in slices gives the same.
  for (;;) {
    const DWORD dwSlice = dwMilliseconds == INFINITE ? 86400000u : dwMilliseconds;
    timespec ts{static_cast<time_t>(dwSlice / 1000), static_cast<long>(dwSlice % 1000) * 1000000L};
    while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
    if (dwMilliseconds != INFINITE) return;
  }
}

}  // namespace NSPlatform
