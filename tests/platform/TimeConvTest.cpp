// FILETIME <-> SYSTEMTIME: fixed instants, the validity rules, round trips, and agreement between the
// platform's conversion (the Win32 API on Windows) and the arithmetic one Linux uses.
#include <gtest/gtest.h>

#include <random>

#include "platform/os.h"

using namespace NSPlatform;

namespace {

SYSTEMTIME MakeTime(WORD wYear, WORD wMonth, WORD wDay, WORD wHour = 0, WORD wMinute = 0, WORD wSecond = 0,
                    WORD wMs = 0, WORD wDayOfWeek = 0) {
  SYSTEMTIME st;
  st.wYear = wYear;
  st.wMonth = wMonth;
  st.wDayOfWeek = wDayOfWeek;
  st.wDay = wDay;
  st.wHour = wHour;
  st.wMinute = wMinute;
  st.wSecond = wSecond;
  st.wMilliseconds = wMs;
  return st;
}

bool SameFields(const SYSTEMTIME& a, const SYSTEMTIME& b) {
  return a.wYear == b.wYear && a.wMonth == b.wMonth && a.wDayOfWeek == b.wDayOfWeek && a.wDay == b.wDay &&
         a.wHour == b.wHour && a.wMinute == b.wMinute && a.wSecond == b.wSecond && a.wMilliseconds == b.wMilliseconds;
}

using TToFileTime = bool (*)(const SYSTEMTIME*, FILETIME*);
using TToSysTime = bool (*)(const FILETIME*, SYSTEMTIME*);

struct SImpl {
  const char* pszName;
  TToFileTime pfnToFileTime;
  TToSysTime pfnToSysTime;
};

const SImpl g_aImpls[] = {
    {"platform", &NSPlatform::SysTimeToFileTime, &NSPlatform::FileTimeToSysTime},
    {"portable", &NSPortable::SysTimeToFileTime, &NSPortable::FileTimeToSysTime},
};

}  // namespace

TEST(TimeConv, KnownInstantsBothWays) {
  struct SCase {
    SYSTEMTIME st;  // wDayOfWeek holds the expected day of the week
    ULONGLONG ull;
  };
  const SCase aCases[] = {
      {MakeTime(1601, 1, 1, 0, 0, 0, 0, 1), 0},
      {MakeTime(1604, 2, 29, 0, 0, 0, 0, 0), 997056000000000ull},
      {MakeTime(1970, 1, 1, 0, 0, 0, 0, 4), 116444736000000000ull},
      {MakeTime(2000, 2, 29, 12, 34, 56, 789, 2), 125963012967890000ull},
      {MakeTime(2024, 2, 29, 23, 59, 59, 999, 4), 133537247999990000ull},
      {MakeTime(9999, 12, 31, 23, 59, 59, 999, 5), 2650467743999990000ull},
      {MakeTime(30827, 12, 31, 23, 59, 59, 999, 5), 9223149887999990000ull},
  };
  for (const SImpl& impl : g_aImpls) {
    for (const SCase& c : aCases) {
      SCOPED_TRACE(testing::Message() << impl.pszName << " " << c.st.wYear << "-" << c.st.wMonth << "-" << c.st.wDay);
      // The day of the week is ignored on input: a wrong one must not change the result.
      SYSTEMTIME stIn = c.st;
      stIn.wDayOfWeek = static_cast<WORD>((c.st.wDayOfWeek + 3) % 7);
      FILETIME ft{};
      ASSERT_TRUE(impl.pfnToFileTime(&stIn, &ft));
      EXPECT_EQ(FileTimeToU64(ft), c.ull);
      SYSTEMTIME stOut{};
      ASSERT_TRUE(impl.pfnToSysTime(&ft, &stOut));
      EXPECT_TRUE(SameFields(stOut, c.st)) << stOut.wYear << "-" << stOut.wMonth << "-" << stOut.wDay << " dow "
                                           << stOut.wDayOfWeek;
    }
    // The largest FILETIME lies in a year no SYSTEMTIME input may name.
    const FILETIME ftMax = U64ToFileTime(0x7FFFFFFFFFFFFFFFull);
    SYSTEMTIME stMax{};
    ASSERT_TRUE(impl.pfnToSysTime(&ftMax, &stMax));
    EXPECT_TRUE(SameFields(stMax, MakeTime(30828, 9, 14, 2, 48, 5, 477, 4))) << impl.pszName;
  }
}

TEST(TimeConv, InvalidValuesAreRefusedWithInvalidParameter) {
  const SYSTEMTIME aInvalid[] = {
      MakeTime(1600, 12, 31, 23, 59, 59, 999), MakeTime(2021, 0, 1), MakeTime(2021, 13, 1),
      MakeTime(2021, 1, 0),                    MakeTime(2021, 1, 32), MakeTime(1900, 2, 29),
      MakeTime(2023, 2, 29),                   MakeTime(2021, 4, 31), MakeTime(2021, 6, 1, 24),
      MakeTime(2021, 6, 1, 0, 60),             MakeTime(2021, 6, 1, 0, 0, 60), MakeTime(2021, 6, 1, 0, 0, 0, 1000),
  };
  for (const SImpl& impl : g_aImpls) {
    for (const SYSTEMTIME& st : aInvalid) {
      SCOPED_TRACE(testing::Message() << impl.pszName << " " << st.wYear << "-" << st.wMonth << "-" << st.wDay << " "
                                      << st.wHour << ":" << st.wMinute << ":" << st.wSecond << "." << st.wMilliseconds);
      NSPlatform::SetLastError(0);
      FILETIME ft{};
      EXPECT_FALSE(impl.pfnToFileTime(&st, &ft));
      EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
    for (ULONGLONG ull : {0x8000000000000000ull, 0xFFFFFFFFFFFFFFFFull}) {
      NSPlatform::SetLastError(0);
      const FILETIME ft = U64ToFileTime(ull);
      SYSTEMTIME st{};
      EXPECT_FALSE(impl.pfnToSysTime(&ft, &st)) << impl.pszName;
      EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER)) << impl.pszName;
    }
  }
  // Beyond the documented last year; only the arithmetic is held to the documented rule.
  SYSTEMTIME st = MakeTime(30828, 1, 1);
  FILETIME ft{};
  NSPlatform::SetLastError(0);
  EXPECT_FALSE(NSPortable::SysTimeToFileTime(&st, &ft));
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(TimeConv, RoundTripsAndWeekdaysOverASweep) {
  std::mt19937_64 random(20240229);
  const ULONGLONG ullMs = 10000;
  for (int n = 0; n < 20000; ++n) {
    const ULONGLONG ull = (random() & 0x7FFFFFFFFFFFFFFFull) / ullMs * ullMs;
    const FILETIME ft = U64ToFileTime(ull);
    SYSTEMTIME st{};
    ASSERT_TRUE(NSPortable::FileTimeToSysTime(&ft, &st));
    if (st.wYear > 30827) continue;
    FILETIME ftBack{};
    ASSERT_TRUE(NSPortable::SysTimeToFileTime(&st, &ftBack));
    ASSERT_EQ(FileTimeToU64(ftBack), ull);
    // Sub-millisecond ticks are dropped, not rounded.
    const FILETIME ftFine = U64ToFileTime(ull + ullMs - 1);
    SYSTEMTIME stFine{};
    ASSERT_TRUE(NSPortable::FileTimeToSysTime(&ftFine, &stFine));
    ASSERT_TRUE(SameFields(st, stFine));
  }
  // Consecutive days step the weekday by one, across month, year and century ends.
  ULONGLONG ull = 0;
  WORD wExpected = 1;  // 1601-01-01 was a Monday
  const ULONGLONG ullDay = 864000000000ull;
  for (int nDay = 0; nDay < 400 * 366; ++nDay, ull += ullDay, wExpected = (wExpected + 1) % 7) {
    const FILETIME ft = U64ToFileTime(ull);
    SYSTEMTIME st{};
    ASSERT_TRUE(NSPortable::FileTimeToSysTime(&ft, &st));
    ASSERT_EQ(st.wDayOfWeek, wExpected) << st.wYear << "-" << st.wMonth << "-" << st.wDay;
  }
}

TEST(TimeConv, PlatformAndPortableAgree) {
  std::mt19937 random(1601);
  for (int n = 0; n < 100000; ++n) {
    // Fields drawn a little beyond their ranges, so that refusals are compared too.
    SYSTEMTIME st = MakeTime(static_cast<WORD>(1601 + random() % (30827 - 1601 + 1)), static_cast<WORD>(random() % 14),
                             static_cast<WORD>(random() % 33), static_cast<WORD>(random() % 25),
                             static_cast<WORD>(random() % 61), static_cast<WORD>(random() % 61),
                             static_cast<WORD>(random() % 1001), static_cast<WORD>(random() % 7));
    if (n % 4 == 0) st.wYear = static_cast<WORD>(1601 + random() % 800);  // more leap-year rules in play
    FILETIME ftPlatform{}, ftPortable{};
    NSPlatform::SetLastError(0);
    const bool bPlatform = NSPlatform::SysTimeToFileTime(&st, &ftPlatform);
    const DWORD dwPlatform = bPlatform ? 0 : NSPlatform::GetLastError();
    NSPlatform::SetLastError(0);
    const bool bPortable = NSPortable::SysTimeToFileTime(&st, &ftPortable);
    const DWORD dwPortable = bPortable ? 0 : NSPlatform::GetLastError();
    ASSERT_EQ(bPlatform, bPortable) << st.wYear << "-" << st.wMonth << "-" << st.wDay << " " << st.wHour << ":"
                                    << st.wMinute << ":" << st.wSecond << "." << st.wMilliseconds;
    ASSERT_EQ(dwPlatform, dwPortable);
    if (bPlatform) {
      ASSERT_EQ(FileTimeToU64(ftPlatform), FileTimeToU64(ftPortable));
    }

    const FILETIME ft = U64ToFileTime((static_cast<ULONGLONG>(random()) << 32 | random()) & 0x7FFFFFFFFFFFFFFFull);
    SYSTEMTIME stPlatform{}, stPortable{};
    ASSERT_TRUE(NSPlatform::FileTimeToSysTime(&ft, &stPlatform));
    ASSERT_TRUE(NSPortable::FileTimeToSysTime(&ft, &stPortable));
    ASSERT_TRUE(SameFields(stPlatform, stPortable)) << FileTimeToU64(ft);
  }
}

TEST(TimeConv, UtcClockFormsAgree) {
  // The SYSTEMTIME form is the FILETIME form cut to milliseconds, read a moment later.
  FILETIME ft;
  GetUtcFileTime(&ft);
  SYSTEMTIME st;
  GetUtcSystemTime(&st);
  FILETIME ftFromSt;
  ASSERT_TRUE(SysTimeToFileTime(&st, &ftFromSt));
  EXPECT_GE(st.wYear, 2020);
  EXPECT_GE(FileTimeToU64(ftFromSt), FileTimeToU64(ft) / 10000 * 10000);
}
