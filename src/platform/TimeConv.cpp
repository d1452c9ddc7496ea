// SYSTEMTIME <-> FILETIME by calendar arithmetic (proleptic Gregorian, UTC), with the validity rules
// of the Win32 conversions so that both platforms accept and refuse the same values.
#include "platform/os.h"

namespace NSPlatform {
namespace NSPortable {

namespace {

constexpr ULONGLONG ullTicksPerMs = 10000;
constexpr ULONGLONG ullTicksPerSecond = 1000 * ullTicksPerMs;
constexpr ULONGLONG ullTicksPerDay = 86400 * ullTicksPerSecond;
// Days from 1601-01-01 (the FILETIME origin) to 1970-01-01 (the origin of the day arithmetic below).
constexpr LONGLONG llDays1601To1970 = 134774;

bool IsLeapYear(unsigned uYear) { return (uYear % 4 == 0 && uYear % 100 != 0) || uYear % 400 == 0; }

unsigned DaysInMonth(unsigned uYear, unsigned uMonth) {
  static constexpr unsigned s_acDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return uMonth == 2 && IsLeapYear(uYear) ? 29 : s_acDays[uMonth - 1];
}

// Days since 1970-01-01 of a civil date, and back (eras of 400 years of 146097 days each).
LONGLONG DaysFromCivil(LONGLONG y, unsigned m, unsigned d) {
  y -= m <= 2;
  const LONGLONG era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<LONGLONG>(doe) - 719468;
}

void CivilFromDays(LONGLONG z, LONGLONG* py, unsigned* pm, unsigned* pd) {
  z += 719468;
  const LONGLONG era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  *pd = doy - (153 * mp + 2) / 5 + 1;
  *pm = mp < 10 ? mp + 3 : mp - 9;
  *py = static_cast<LONGLONG>(yoe) + era * 400 + (*pm <= 2);
}

bool IsValid(const SYSTEMTIME& st) {
  return st.wYear >= 1601 && st.wYear <= 30827 && st.wMonth >= 1 && st.wMonth <= 12 && st.wDay >= 1 &&
         st.wDay <= DaysInMonth(st.wYear, st.wMonth) && st.wHour < 24 && st.wMinute < 60 && st.wSecond < 60 &&
         st.wMilliseconds < 1000;
}

}  // namespace

bool SysTimeToFileTime(const SYSTEMTIME* pst, FILETIME* pft) {
  if (!pst || !pft || !IsValid(*pst)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  const LONGLONG llDays = DaysFromCivil(pst->wYear, pst->wMonth, pst->wDay) + llDays1601To1970;
  const ULONGLONG ullSeconds = static_cast<ULONGLONG>(pst->wHour) * 3600 + pst->wMinute * 60u + pst->wSecond;
  *pft = U64ToFileTime(static_cast<ULONGLONG>(llDays) * ullTicksPerDay + ullSeconds * ullTicksPerSecond +
                       pst->wMilliseconds * ullTicksPerMs);
  return true;
}

bool FileTimeToSysTime(const FILETIME* pft, SYSTEMTIME* pst) {
  if (!pft || !pst || (pft->dwHighDateTime & 0x80000000u) != 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  const ULONGLONG ull = FileTimeToU64(*pft);
  const ULONGLONG ullDays = ull / ullTicksPerDay;
  ULONGLONG ullRest = ull % ullTicksPerDay;
  LONGLONG llYear;
  unsigned uMonth, uDay;
  CivilFromDays(static_cast<LONGLONG>(ullDays) - llDays1601To1970, &llYear, &uMonth, &uDay);
  pst->wYear = static_cast<WORD>(llYear);
  pst->wMonth = static_cast<WORD>(uMonth);
  pst->wDay = static_cast<WORD>(uDay);
  // 1601-01-01 was a Monday; Sunday is 0.
  pst->wDayOfWeek = static_cast<WORD>((ullDays + 1) % 7);
  pst->wHour = static_cast<WORD>(ullRest / (3600 * ullTicksPerSecond));
  ullRest %= 3600 * ullTicksPerSecond;
  pst->wMinute = static_cast<WORD>(ullRest / (60 * ullTicksPerSecond));
  ullRest %= 60 * ullTicksPerSecond;
  pst->wSecond = static_cast<WORD>(ullRest / ullTicksPerSecond);
  pst->wMilliseconds = static_cast<WORD>((ullRest % ullTicksPerSecond) / ullTicksPerMs);
  return true;
}

}  // namespace NSPortable
}  // namespace NSPlatform
