// What every benchmark program needs: stopping on a failed call with a clear line, a stopwatch on
// the performance counter, medians, and times as ticks.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#ifndef _WIN32
#include <unistd.h>
#endif

#include "hours/KronvaleUtils.h"
#include "platform/os.h"

namespace NSBench {

// The program's name for failure lines, and what to clean up before it exits on one.
inline const char*& ProgramName() {
  static const char* psz = "kv_bench";
  return psz;
}
inline void (*&AtDie())() {
  static void (*pfn)() = nullptr;
  return pfn;
}

[[noreturn]] inline void Die(const char* pszWhat, long long llCode) {
  std::fprintf(stderr, "%s: %s failed (0x%llX)\n", ProgramName(), pszWhat, llCode);
  if (void (*pfn)() = AtDie()) {
    AtDie() = nullptr;
    pfn();
  }
  std::exit(1);
}

inline void Check(HRESULT hr, const char* pszWhat) {
  if (FAILED(hr)) Die(pszWhat, static_cast<DWORD>(hr));
}

class CStopwatch {
 public:
  CStopwatch() {
    NSPlatform::QueryPerfFrequency(&m_llFrequency);
    NSPlatform::QueryPerfCounter(&m_llStart);
  }
  double Seconds() const {
    LONGLONG llNow = 0;
    NSPlatform::QueryPerfCounter(&llNow);
    return static_cast<double>(llNow - m_llStart) / static_cast<double>(m_llFrequency);
  }

 private:
  LONGLONG m_llFrequency = 1;
  LONGLONG m_llStart = 0;
};

inline double Median(std::vector<double> v) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2.0;
}

inline ULONGLONG Ticks(const SYSTEMTIME& st) {
  FILETIME ft = {};
  if (!NSPlatform::SysTimeToFileTime(&st, &ft)) Die("SysTimeToFileTime", 0);
  return NSPlatform::FileTimeToU64(ft);
}

inline SYSTEMTIME Breakdown(ULONGLONG ullTicks) {
  const FILETIME ft = NSPlatform::U64ToFileTime(ullTicks);
  SYSTEMTIME st = {};
  if (!NSPlatform::FileTimeToSysTime(&ft, &st)) Die("FileTimeToSysTime", static_cast<long long>(ullTicks));
  return st;
}

#ifndef _WIN32
// All of cb bytes, through as many write calls as it takes (the native benchmarks' raw baselines).
inline void WriteAll(int fd, const void* pv, size_t cb, const char* pszWhat) {
  const char* pc = static_cast<const char*>(pv);
  while (cb) {
    const ssize_t n = ::write(fd, pc, cb);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) Die(pszWhat, errno);
    pc += n;
    cb -= static_cast<size_t>(n);
  }
}
#endif

// The process's id, to name its run directory.
inline long ProcessId() {
#ifdef _WIN32
  return static_cast<long>(::GetCurrentProcessId());
#else
  return static_cast<long>(::getpid());
#endif
}

// A directory of the run's own, <program>.<pid>, under $KRONVALE_BENCH_DIR or the temporary
// directory.
inline WString MakeRunDirectory() {
  WString strBase;
  if (const char* psz = std::getenv("KRONVALE_BENCH_DIR"); psz && *psz) {
    strBase = NSPlatform::Utf8ToWide(psz);
    const HRESULT hr = NSPlatform::CreateDirTree(strBase.c_str());
    if (FAILED(hr) && hr != KvHResultFromWin32(ERROR_ALREADY_EXISTS)) Die("creating $KRONVALE_BENCH_DIR", hr);
  } else {
    Check(NSPlatform::GetTempDirectory(&strBase), "GetTempDirectory");
  }
  const WString strRoot = NSPlatform::CombinePath(
      strBase, NSPlatform::Utf8ToWide((std::string(ProgramName()) + "." + std::to_string(ProcessId())).c_str()));
  Check(NSPlatform::CreateDirTree(strRoot.c_str()), "creating the benchmark directory");
  return strRoot;
}

// Where the run's files go: a directory of its own (MakeRunDirectory), deleted at the end.
class CBenchDir {
 public:
  CBenchDir() : m_strRoot(MakeRunDirectory()) {}
  ~CBenchDir() { NSKronvaleUtils::DeleteFileSystemObject(m_strRoot); }
  CBenchDir(const CBenchDir&) = delete;
  CBenchDir& operator=(const CBenchDir&) = delete;

  const WString& Root() const { return m_strRoot; }
  WString Sub(const char* pszName) const { return NSPlatform::CombinePath(m_strRoot, NSPlatform::Utf8ToWide(pszName)); }
  std::string Native(const char* pszName) const { return NSPlatform::WideToUtf8(Sub(pszName)); }

 private:
  WString m_strRoot;
};

}  // namespace NSBench
