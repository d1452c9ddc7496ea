// What kvtool makes of what a person types: every accepted form lands on the exact tick, and every
// wrong form is refused with the option's name and the text quoted, never read as 0.
#include <gtest/gtest.h>

#include "../../tools/kvtool/ToolArgs.h"

using namespace NSTool;

namespace {

constexpr ULONGLONG kull20210307 = 132595488000000000ull;  // 2021-03-07T00:00:00Z
constexpr ULONGLONG kullMinute = 60 * kullTicksPerSecond;

// The message of the usage error that fn throws; a test failure when it throws none.
template <class F>
std::string Refusal(F fn) {
  try {
    fn();
  } catch (const CToolError& e) {
    EXPECT_EQ(ketUsage, e.ExitCode());
    return e.what();
  }
  ADD_FAILURE() << "accepted";
  return "";
}

TEST(ToolArgsTest, TimesLandOnTheExactTickWhateverTheirForm) {
  const ULONGLONG ullNow = kull20210307 + 12 * kullTicksPerHour;
  const struct {
    const char* psz;
    ULONGLONG ull;
  } aCases[] = {
      {"2021-03-07", kull20210307},
      {"2021-03-07T10:00Z", kull20210307 + 10 * kullTicksPerHour},
      // A fraction is a fraction: .5 is half a second, not 5 ms; seven digits reach the tick.
      {"2021-03-07T10:00:00.5Z", kull20210307 + 10 * kullTicksPerHour + 5000000},
      {"2021-03-07T10:00:00.005Z", kull20210307 + 10 * kullTicksPerHour + 50000},
      {"2021-03-07T10:00:00.1234567Z", kull20210307 + 10 * kullTicksPerHour + 1234567},
      {"2021-03-07t10:00:00,25z", kull20210307 + 10 * kullTicksPerHour + 2500000},
      {"2021-03-07 10:00:00", kull20210307 + 10 * kullTicksPerHour},
      // Offsets are converted to UTC, across the day boundary too.
      {"2021-03-07T12:00:00+02:00", kull20210307 + 10 * kullTicksPerHour},
      {"2021-03-07T01:30:00+0200", kull20210307 - 30 * kullMinute},
      {"2021-03-06T22:00:00-05", kull20210307 + 3 * kullTicksPerHour},
      {"now", ullNow},
      {"-5m", ullNow - 5 * kullMinute},
      {"-2h", ullNow - 2 * kullTicksPerHour},
      {"-1.5s", ullNow - 15000000},
      {"-1d", ullNow - kullTicksPerDay},
  };
  for (const auto& c : aCases) EXPECT_EQ(c.ull, ParseTime(c.psz, ullNow, "TIME")) << c.psz;
  EXPECT_EQ("2021-03-07T10:00:00.500Z", FormatTime(ParseTime("2021-03-07T12:00:00.5+02:00", ullNow, "TIME")));
  EXPECT_EQ("2021-03-07T10:00:00.1234567Z", FormatTime(kull20210307 + 10 * kullTicksPerHour + 1234567, true));
}

TEST(ToolArgsTest, WrongTimesAreRefusedByName) {
  const struct {
    const char* psz;
    const char* pszMessage;
  } aCases[] = {
      {"", "--from: '' is not a time (2021-03-07T12:34:56.5Z, 2021-03-07, now, -5m)"},
      {"yesterday", "--from: 'yesterday' is not a time (2021-03-07T12:34:56.5Z, 2021-03-07, now, -5m)"},
      {"2021-3-7", "--from: '2021-3-7' is not a time (2021-03-07T12:34:56.5Z, 2021-03-07, now, -5m)"},
      {"2021-02-29", "--from: '2021-02-29' is not a valid date and time"},
      {"2021-13-01", "--from: '2021-13-01' is not a valid date and time"},
      {"2021-03-07T24:00Z", "--from: '2021-03-07T24:00Z' is not a valid date and time"},
      {"2021-03-07T10:00:60Z", "--from: '2021-03-07T10:00:60Z' is not a valid date and time"},
      {"1600-12-31", "--from: '1600-12-31' is not a valid date and time"},
      {"2021-03-07T10:00:00.Z", "--from: '2021-03-07T10:00:00.Z' has a fraction of 1 to 9 digits only"},
      {"2021-03-07T10:00:00Zjunk", "--from: '2021-03-07T10:00:00Zjunk' has text after the time (a zone is Z or +HH:MM)"},
      {"2021-03-07T10:00:00 UTC", "--from: '2021-03-07T10:00:00 UTC' has text after the time (a zone is Z or +HH:MM)"},
      {"2021-03-07T10:00+24:00", "--from: '2021-03-07T10:00+24:00' has an offset out of range"},
      {"2021-03-07T10:00+02:0", "--from: '2021-03-07T10:00+02:0' has an offset that is not +HH:MM"},
      {"9999-12-31T23:00-02:00", "--from: '9999-12-31T23:00-02:00' lies after the year 9999"},
      {"-5x", "--from: '5x' has an unknown unit (ms, s, m, h or d)"},
      {"-400d", "--from: '400d' is longer than 366 days"},
  };
  for (const auto& c : aCases) EXPECT_EQ(c.pszMessage, Refusal([&] { ParseTime(c.psz, kull20210307, "--from"); })) << c.psz;
  // A reversed period is refused; an instant is a period.
  EXPECT_EQ("--to 2021-03-07T00:00:00.000Z lies before --from 2021-03-07T00:00:00.010Z",
            Refusal([] { CheckPeriod(kull20210307 + 100000, kull20210307); }));
  CheckPeriod(kull20210307, kull20210307);
}

TEST(ToolArgsTest, NumbersAreWholeAndInRange) {
  EXPECT_EQ(0x1234ABCDu, ParseNumber("0x1234abcd", 0, 0xFFFFFFFF, "--mask"));
  EXPECT_EQ(4294967295u, ParseNumber("4294967295", 0, 0xFFFFFFFF, "--mask"));
  EXPECT_EQ(~0ull, ParseNumber("18446744073709551615", 0, ~0ull, "BYTES"));
  const struct {
    const char* psz;
    const char* pszMessage;
  } aCases[] = {
      {"zz", "--mask: 'zz' is not a number"},
      {"", "--mask: '' is not a number"},
      {"0x", "--mask: '0x' is not a number"},
      {"12abc", "--mask: '12abc' is not a number"},
      {"1 ", "--mask: '1 ' is not a number"},
      {"-1", "--mask: '-1' is not a number"},
      {"+1", "--mask: '+1' is not a number"},
      {"0x100000000", "--mask: '0x100000000' is out of range (0 to 4294967295)"},
      {"18446744073709551616", "--mask: '18446744073709551616' is out of range"},
  };
  for (const auto& c : aCases)
    EXPECT_EQ(c.pszMessage, Refusal([&] { ParseNumber(c.psz, 0, 0xFFFFFFFF, "--mask"); })) << c.psz;
  EXPECT_EQ("MINUTES: '0' is out of range (1 to 1440)", Refusal([] { ParseNumber("0", 1, 1440, "MINUTES"); }));

  EXPECT_EQ(512ull << 20, ParseBytes("512M", "--quota-free"));
  EXPECT_EQ(2ull << 30, ParseBytes("2GiB", "--quota-free"));
  EXPECT_EQ(1000u, ParseBytes("1000", "--quota-free"));
  EXPECT_EQ("--quota-size: '17179869184' is out of range (0 to 17179869183)",
            Refusal([] { ParseBytes("17179869184G", "--quota-size"); }));
  EXPECT_EQ("--quota-size: '2X' is not a number", Refusal([] { ParseBytes("2X", "--quota-size"); }));

  EXPECT_EQ(5000000u, ParseDuration("0.5", "--resolution"));
  EXPECT_EQ(100000u, ParseDuration("10ms", "--resolution"));
  EXPECT_EQ(kullTicksPerHour, ParseDuration("1h", "--resolution"));
  EXPECT_EQ("--resolution: '5ms' is shorter than 10 ms", Refusal([] { ParseDuration("5ms", "--resolution"); }));
  EXPECT_EQ("--resolution: '.5' is not a length of time (10s, 0.5, 5m, 1h)",
            Refusal([] { ParseDuration(".5", "--resolution"); }));

  EXPECT_EQ(efmNone, ParseMode("none", "--mode"));
  EXPECT_EQ(efmExact, ParseMode("2", "--mode"));
  EXPECT_EQ("--mode: 'some' is not a mode (any, all, exact or none)", Refusal([] { ParseMode("some", "--mode"); }));
}

TEST(ToolArgsTest, SizesResultsAndJsonReadAsPromised) {
  EXPECT_EQ("17 B", FormatSize(17));
  EXPECT_EQ("1.0 KiB", FormatSize(1024));
  EXPECT_EQ("1.9 KiB", FormatSize(2047));  // truncated, never rounded up past what is there
  EXPECT_EQ("312 KiB", FormatSize(312 * 1024 + 1000));
  EXPECT_EQ("15 EiB", FormatSize(~0ull));
  // The system's text (Windows words it its own way), then the code.
  const HRESULT hrPathNotFound = static_cast<HRESULT>(0x80070003u);
  EXPECT_EQ(NSPlatform::WideToUtf8(NSPlatform::GetSystemErrorText(hrPathNotFound)) + " (0x80070003)",
            DescribeResult(hrPathNotFound));
#ifndef _WIN32
  EXPECT_EQ("The system cannot find the path specified. (0x80070003)", DescribeResult(hrPathNotFound));
#endif
  EXPECT_EQ(ketNotFound, ExitCodeOf(static_cast<HRESULT>(0x80070490u)));
  EXPECT_EQ(ketCorruption, ExitCodeOf(static_cast<HRESULT>(0x80070570u)));
  EXPECT_EQ(ketFailure, ExitCodeOf(static_cast<HRESULT>(0x80070070u)));
  EXPECT_EQ("\"a\\\"b\\\\c\\u000a\\u0001\"", JsonString("a\"b\\c\n\x01"));
}

}  // namespace
