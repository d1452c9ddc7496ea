#include "ToolArgs.h"

#include <kronvale/KronvaleResults.h>

#include <cstdio>

namespace NSTool {
namespace {

[[noreturn]] void Refuse(const char* pszWhat, const std::string& str, const char* pszWhy) {
  throw CToolError(ketUsage, std::string(pszWhat) + ": '" + str + "' " + pszWhy);
}

bool IsDigit(char ch) { return ch >= '0' && ch <= '9'; }

// Reads exactly nDigits decimal digits at *pi.
bool ReadDigits(const std::string& str, size_t* pi, int nDigits, unsigned* pn) {
  unsigned n = 0;
  for (int k = 0; k < nDigits; ++k, ++*pi) {
    if (*pi >= str.size() || !IsDigit(str[*pi])) return false;
    n = n * 10 + static_cast<unsigned>(str[*pi] - '0');
  }
  *pn = n;
  return true;
}

// Digits (at least one) with an optional fraction, as a count of 1/10^7 units; false on overflow
// or no digits. *pi ends after the number.
bool ReadDecimal(const std::string& str, size_t* pi, ULONGLONG* pullTenMillionths) {
  ULONGLONG ullWhole = 0;
  size_t cDigits = 0;
  for (; *pi < str.size() && IsDigit(str[*pi]); ++*pi, ++cDigits) {
    if (ullWhole > 100000000000ull) return false;
    ullWhole = ullWhole * 10 + static_cast<ULONGLONG>(str[*pi] - '0');
  }
  ULONGLONG ullFraction = 0;
  if (*pi < str.size() && str[*pi] == '.') {
    ++*pi;
    ULONGLONG ullScale = 1000000;
    size_t cFraction = 0;
    for (; *pi < str.size() && IsDigit(str[*pi]); ++*pi, ++cFraction) {
      ullFraction += static_cast<ULONGLONG>(str[*pi] - '0') * ullScale;
      ullScale /= 10;
    }
    if (cFraction == 0) return false;
  }
  if (cDigits == 0) return false;
  *pullTenMillionths = ullWhole * 10000000ull + ullFraction;
  return true;
}

}  // namespace

ULONGLONG ParseNumber(const std::string& str, ULONGLONG ullMin, ULONGLONG ullMax, const char* pszWhat) {
  size_t i = 0;
  unsigned nBase = 10;
  if (str.size() > 2 && str[0] == '0' && (str[1] == 'x' || str[1] == 'X')) {
    nBase = 16;
    i = 2;
  }
  if (i == str.size()) Refuse(pszWhat, str, "is not a number");
  ULONGLONG ull = 0;
  for (; i < str.size(); ++i) {
    const char ch = str[i];
    unsigned nDigit;
    if (IsDigit(ch)) nDigit = static_cast<unsigned>(ch - '0');
    else if (nBase == 16 && ch >= 'a' && ch <= 'f') nDigit = static_cast<unsigned>(ch - 'a' + 10);
    else if (nBase == 16 && ch >= 'A' && ch <= 'F') nDigit = static_cast<unsigned>(ch - 'A' + 10);
    else Refuse(pszWhat, str, "is not a number");
    if (ull > (~0ull - nDigit) / nBase) Refuse(pszWhat, str, "is out of range");
    ull = ull * nBase + nDigit;
  }
  if (ull < ullMin || ull > ullMax)
    throw CToolError(ketUsage, std::string(pszWhat) + ": '" + str + "' is out of range (" + std::to_string(ullMin) +
                                   " to " + std::to_string(ullMax) + ")");
  return ull;
}

ULONGLONG ParseBytes(const std::string& str, const char* pszWhat) {
  static const char* const s_apszSuffixes[] = {"K", "M", "G", "T"};
  std::string strNumber = str;
  unsigned nShift = 0;
  for (unsigned k = 0; k < 4; ++k) {
    for (const std::string& strSuffix : {std::string(s_apszSuffixes[k]), std::string(s_apszSuffixes[k]) + "iB"}) {
      if (str.size() > strSuffix.size() && str.compare(str.size() - strSuffix.size(), strSuffix.size(), strSuffix) == 0) {
        strNumber = str.substr(0, str.size() - strSuffix.size());
        nShift = 10 * (k + 1);
      }
    }
  }
  const ULONGLONG ull = ParseNumber(strNumber, 0, ~0ull >> nShift, pszWhat);
  return ull << nShift;
}

ULONGLONG ParseDuration(const std::string& str, const char* pszWhat) {
  size_t i = 0;
  ULONGLONG ullUnits = 0;
  if (!ReadDecimal(str, &i, &ullUnits)) Refuse(pszWhat, str, "is not a length of time (10s, 0.5, 5m, 1h)");
  const std::string strUnit = str.substr(i);
  // ullUnits counts 1/10^7 of the unit, so ticks = ullUnits * (ticks per unit) / 10^7.
  ULONGLONG ullTicksPerUnit;
  if (strUnit.empty() || strUnit == "s") ullTicksPerUnit = kullTicksPerSecond;
  else if (strUnit == "ms") ullTicksPerUnit = kullTicksPerMs;
  else if (strUnit == "m") ullTicksPerUnit = 60 * kullTicksPerSecond;
  else if (strUnit == "h") ullTicksPerUnit = kullTicksPerHour;
  else if (strUnit == "d") ullTicksPerUnit = kullTicksPerDay;
  else Refuse(pszWhat, str, "has an unknown unit (ms, s, m, h or d)");
  const ULONGLONG ullMax = 366 * kullTicksPerDay;
  // Divide first where the unit allows it, so that nothing overflows for any accepted length.
  if (ullUnits / 10000000ull > ullMax / ullTicksPerUnit) Refuse(pszWhat, str, "is longer than 366 days");
  const ULONGLONG ullTicks = ullUnits / 10000000ull * ullTicksPerUnit + ullUnits % 10000000ull * ullTicksPerUnit / 10000000ull;
  if (ullTicks > ullMax) Refuse(pszWhat, str, "is longer than 366 days");
  if (ullTicks < 10 * kullTicksPerMs) Refuse(pszWhat, str, "is shorter than 10 ms");
  return ullTicks;
}

EFrameFilterMode ParseMode(const std::string& str, const char* pszWhat) {
  if (str == "any" || str == "0") return efmAny;
  if (str == "all" || str == "1") return efmAll;
  if (str == "exact" || str == "2") return efmExact;
  if (str == "none" || str == "3") return efmNone;
  Refuse(pszWhat, str, "is not a mode (any, all, exact or none)");
}

ULONGLONG ParseTime(const std::string& str, ULONGLONG ullNow, const char* pszWhat) {
  if (str == "now") return ullNow;
  if (!str.empty() && str[0] == '-') {
    const ULONGLONG ullAgo = ParseDuration(str.substr(1), pszWhat);
    if (ullAgo > ullNow) Refuse(pszWhat, str, "reaches before the year 1601");
    return ullNow - ullAgo;
  }
  const char* const pszForm = "is not a time (2021-03-07T12:34:56.5Z, 2021-03-07, now, -5m)";
  size_t i = 0;
  unsigned nYear, nMonth, nDay, nHour = 0, nMinute = 0, nSecond = 0;
  if (!ReadDigits(str, &i, 4, &nYear) || i >= str.size() || str[i++] != '-' || !ReadDigits(str, &i, 2, &nMonth) ||
      i >= str.size() || str[i++] != '-' || !ReadDigits(str, &i, 2, &nDay))
    Refuse(pszWhat, str, pszForm);
  ULONGLONG ullFraction = 0;  // in ticks
  LONGLONG llOffsetMinutes = 0;
  if (i < str.size()) {
    const char chSep = str[i++];
    if ((chSep != 'T' && chSep != 't' && chSep != ' ') || !ReadDigits(str, &i, 2, &nHour) || i >= str.size() ||
        str[i++] != ':' || !ReadDigits(str, &i, 2, &nMinute))
      Refuse(pszWhat, str, pszForm);
    if (i < str.size() && str[i] == ':') {
      ++i;
      if (!ReadDigits(str, &i, 2, &nSecond)) Refuse(pszWhat, str, pszForm);
      if (i < str.size() && (str[i] == '.' || str[i] == ',')) {
        ++i;
        ULONGLONG ullScale = kullTicksPerSecond / 10;
        size_t cDigits = 0;
        for (; i < str.size() && IsDigit(str[i]); ++i, ++cDigits) {
          ullFraction += static_cast<ULONGLONG>(str[i] - '0') * ullScale;
          ullScale /= 10;
        }
        if (cDigits == 0 || cDigits > 9) Refuse(pszWhat, str, "has a fraction of 1 to 9 digits only");
      }
    }
    if (i < str.size()) {
      const char chZone = str[i++];
      if ((chZone == 'Z' || chZone == 'z') && i == str.size()) {
      } else if (chZone == '+' || chZone == '-') {
        unsigned nOffsetHours = 0, nOffsetMinutes = 0;
        if (!ReadDigits(str, &i, 2, &nOffsetHours)) Refuse(pszWhat, str, "has an offset that is not +HH:MM");
        if (i < str.size() && str[i] == ':') ++i;
        if (i < str.size() && !ReadDigits(str, &i, 2, &nOffsetMinutes))
          Refuse(pszWhat, str, "has an offset that is not +HH:MM");
        if (i != str.size()) Refuse(pszWhat, str, "has text after the offset");
        if (nOffsetHours > 23 || nOffsetMinutes > 59) Refuse(pszWhat, str, "has an offset out of range");
        llOffsetMinutes = (chZone == '-' ? -1 : 1) * static_cast<LONGLONG>(nOffsetHours * 60 + nOffsetMinutes);
      } else {
        Refuse(pszWhat, str, "has text after the time (a zone is Z or +HH:MM)");
      }
    }
  }
  if (nYear < 1601 || nMonth < 1 || nMonth > 12 || nDay < 1 || nHour > 23 || nMinute > 59 || nSecond > 59)
    Refuse(pszWhat, str, "is not a valid date and time");
  SYSTEMTIME st = {static_cast<WORD>(nYear), static_cast<WORD>(nMonth), 0, static_cast<WORD>(nDay),
                   static_cast<WORD>(nHour), static_cast<WORD>(nMinute), static_cast<WORD>(nSecond), 0};
  FILETIME ft = {};
  SYSTEMTIME stBack = {};
  // The conversion also accepts days past a month's end on some systems: a round trip tells.
  if (!NSPlatform::SysTimeToFileTime(&st, &ft) || !NSPlatform::FileTimeToSysTime(&ft, &stBack) ||
      stBack.wDay != st.wDay || stBack.wMonth != st.wMonth)
    Refuse(pszWhat, str, "is not a valid date and time");
  const LONGLONG llOffsetTicks = llOffsetMinutes * 60 * static_cast<LONGLONG>(kullTicksPerSecond);
  const ULONGLONG ullLocal = NSPlatform::FileTimeToU64(ft) + ullFraction;
  if (llOffsetTicks > 0 && static_cast<ULONGLONG>(llOffsetTicks) > ullLocal)
    Refuse(pszWhat, str, "reaches before the year 1601");
  const ULONGLONG ullUtc = ullLocal - static_cast<ULONGLONG>(llOffsetTicks);
  if (ullUtc > kullLastTime) Refuse(pszWhat, str, "lies after the year 9999");
  return ullUtc;
}

void CheckPeriod(ULONGLONG ullFrom, ULONGLONG ullTo) {
  if (ullTo < ullFrom)
    throw CToolError(ketUsage, "--to " + FormatTime(ullTo) + " lies before --from " + FormatTime(ullFrom));
}

std::string FormatTime(ULONGLONG ullTicks, bool bFull) {
  const FILETIME ft = NSPlatform::U64ToFileTime(ullTicks);
  SYSTEMTIME st = {};
  if (!NSPlatform::FileTimeToSysTime(&ft, &st)) return "(time " + std::to_string(ullTicks) + ")";
  char sz[64];
  if (bFull)
    std::snprintf(sz, sizeof(sz), "%04u-%02u-%02uT%02u:%02u:%02u.%07uZ", st.wYear, st.wMonth, st.wDay, st.wHour,
                  st.wMinute, st.wSecond, static_cast<unsigned>(ullTicks % kullTicksPerSecond));
  else
    std::snprintf(sz, sizeof(sz), "%04u-%02u-%02uT%02u:%02u:%02u.%03uZ", st.wYear, st.wMonth, st.wDay, st.wHour,
                  st.wMinute, st.wSecond, st.wMilliseconds);
  return sz;
}

std::string FormatSize(ULONGLONG ullBytes) {
  static const char* const s_apszUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  unsigned nUnit = 0;
  while (nUnit < 6 && (ullBytes >> (10 * (nUnit + 1))) != 0) ++nUnit;
  const ULONGLONG ullWhole = ullBytes >> (10 * nUnit);
  if (nUnit == 0 || ullWhole >= 10) return std::to_string(ullWhole) + " " + s_apszUnits[nUnit];
  // Truncated, never rounded up past what is there.
  const ULONGLONG ullTenths = ((ullBytes >> (10 * (nUnit - 1))) & 1023) * 10 / 1024;
  return std::to_string(ullWhole) + "." + std::to_string(ullTenths) + " " + s_apszUnits[nUnit];
}

std::string DescribeResult(HRESULT hr) {
  char szCode[16];
  std::snprintf(szCode, sizeof(szCode), "0x%08X", static_cast<unsigned>(hr));
  const std::string strText = NSPlatform::WideToUtf8(NSPlatform::GetSystemErrorText(hr));
  return strText.empty() ? std::string("error ") + szCode : strText + " (" + szCode + ")";
}

int ExitCodeOf(HRESULT hr) {
  if (hr == NSKronvale::khrNotFound || hr == NSKronvale::khrFileNotFound || hr == NSKronvale::khrPathNotFound)
    return ketNotFound;
  if (hr == NSKronvale::khrFileCorrupt) return ketCorruption;
  return ketFailure;
}

std::string JsonString(const std::string& str) {
  std::string strOut = "\"";
  for (const char ch : str) {
    const unsigned char by = static_cast<unsigned char>(ch);
    if (ch == '"' || ch == '\\') {
      strOut += '\\';
      strOut += ch;
    } else if (by < 0x20) {
      char sz[8];
      std::snprintf(sz, sizeof(sz), "\\u%04x", by);
      strOut += sz;
    } else {
      strOut += ch;
    }
  }
  return strOut + "\"";
}

}  // namespace NSTool
