// The tool's reading of what a person types: numbers, sizes, times, periods and filters. Every
// function reads the whole text or throws CToolError with exit code ketUsage and a message that
// names the option and quotes the text; nothing is ever read as 0 by default.
#pragma once

#include <kronvale/kronvale.h>

#include <stdexcept>
#include <string>

#include "platform/os.h"

namespace NSTool {

// The tool's exit codes, documented in its --help.
enum EExitCode : int {
  ketSuccess = 0,
  ketNotFound = 1,    // no such frame, record or archive
  ketUsage = 2,       // the command line is wrong
  ketCorruption = 3,  // verify found corrupt hours
  ketFailure = 4,     // anything else
};

// A failure to show a person: the message (without "kvtool: " and without a line break) and the
// exit code it ends the tool with.
class CToolError : public std::runtime_error {
 public:
  CToolError(int nExitCode, const std::string& strMessage) : std::runtime_error(strMessage), m_nExitCode(nExitCode) {}
  int ExitCode() const { return m_nExitCode; }

 private:
  int m_nExitCode;
};

constexpr ULONGLONG kullTicksPerMs = 10000;
constexpr ULONGLONG kullTicksPerSecond = 10000000;
constexpr ULONGLONG kullTicksPerHour = 3600 * kullTicksPerSecond;
constexpr ULONGLONG kullTicksPerDay = 24 * kullTicksPerHour;
// 9999-12-31 23:59:59.9999999, the last instant the engine stores.
constexpr ULONGLONG kullLastTime = 2650467743999999999ull;

// An unsigned number in decimal or, with 0x, in hexadecimal, between ullMin and ullMax.
// pszWhat names the option in the message ("--minutes").
ULONGLONG ParseNumber(const std::string& str, ULONGLONG ullMin, ULONGLONG ullMax, const char* pszWhat);
// A byte count: a number with an optional binary suffix K, M, G or T (KiB, MiB, ... also read).
ULONGLONG ParseBytes(const std::string& str, const char* pszWhat);
// A length of time as ticks: a decimal number of seconds with a fraction, or with a unit
// ms, s, m, h or d ("0.5", "10s", "5m"); at least 10 ms and at most 366 days.
ULONGLONG ParseDuration(const std::string& str, const char* pszWhat);
// A frame filter mode: any, all, exact, none, or 0 to 3.
EFrameFilterMode ParseMode(const std::string& str, const char* pszWhat);

// A moment as FILETIME ticks (UTC). Accepted forms:
//   2021-03-07T12:34:56.78Z   RFC 3339 / ISO 8601: T, t or a blank between date and time; seconds
//                             and fraction optional; the fraction is a fraction (.5 is 500 ms) to
//                             100 ns; Z, +HH:MM, -HHMM or +HH converted to UTC; no zone means UTC
//   2021-03-07                the start of that day, UTC
//   now, -5m, -2h, -30s, -1d  relative to ullNow
ULONGLONG ParseTime(const std::string& str, ULONGLONG ullNow, const char* pszWhat);
// The period [ullFrom, ullTo] of --from and --to, refused when reversed.
void CheckPeriod(ULONGLONG ullFrom, ULONGLONG ullTo);

// 2021-03-07T12:34:56.780Z; with bFull the seven digits of the fraction (exact to the tick).
std::string FormatTime(ULONGLONG ullTicks, bool bFull = false);
// 1.5 MiB, 312 KiB, 17 B: one decimal below 10 of a unit.
std::string FormatSize(ULONGLONG ullBytes);
// The message part of a failed call: "The system cannot find the path specified. (0x80070003)".
std::string DescribeResult(HRESULT hr);
// The exit code a failed call maps to: not found, corruption or failure.
int ExitCodeOf(HRESULT hr);
// Text as a JSON string literal, quotes included.
std::string JsonString(const std::string& str);

}  // namespace NSTool
