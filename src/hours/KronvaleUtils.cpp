#include "hours/KronvaleUtils.h"

#include <atomic>
#include <vector>

#include "com/ComBase.h"
#include "support/Report.h"
#include "support/WideFormat.h"

namespace NSKronvaleUtils {

namespace {

using NSPlatform::chPathSeparator;

// Deletion failures are reported under the helper's public name and its header, wherever in the
// walk they happen, so that one log filter finds them all.
#define KV_DELETE_HERE \
  (::NSReport::SLocation{"DeleteFileSystemObject", __PRETTY_FUNCTION__, "KronvaleUtils.h", __LINE__})

constexpr WCHAR kszFailedSetAttributes[] = KV_W("Failed to set file attributes for %s, hr=%0X\n");
constexpr WCHAR kszFailedDelete[] = KV_W("Failed to delete %s, hr=%0X\n");

// Characters of "YYYY\MM\DD\HH" plus one trailing separator: the tail of a path we read an hour from.
constexpr size_t kcchHourTail = 14;

bool IsSeparator(WCHAR ch) { return ch == chPathSeparator; }

// One "%0Nd" conversion as the C runtime's formatted input reads it: leading white space, an
// optional sign, then digits, all within nWidth characters. False when no digit was read.
bool ScanNumber(WStringView& str, size_t nWidth, int* pnValue) {
  size_t i = 0;
  while (i < str.size() && (str[i] == u' ' || str[i] == u'\t' || str[i] == u'\n' || str[i] == u'\r')) ++i;
  str.remove_prefix(i);
  size_t nUsed = 0;
  bool bNegative = false;
  if (!str.empty() && (str[0] == u'+' || str[0] == u'-')) {
    bNegative = str[0] == u'-';
    ++nUsed;
  }
  int nValue = 0;
  size_t cDigits = 0;
  while (nUsed < nWidth && nUsed < str.size() && str[nUsed] >= u'0' && str[nUsed] <= u'9') {
    nValue = nValue * 10 + (str[nUsed] - u'0');
    ++nUsed;
    ++cDigits;
  }
  if (cDigits == 0) return false;
  str.remove_prefix(nUsed);
  *pnValue = bNegative ? -nValue : nValue;
  return true;
}

HRESULT ClearReadOnly(const WString& strPath, DWORD dwAttributes) {
  const HRESULT hr = NSPlatform::SetAttributes(strPath.c_str(), dwAttributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY));
  if (FAILED(hr)) {
    NSReport::Log(KV_DELETE_HERE, NSReport::kszLevelError, kszFailedSetAttributes, strPath.c_str(), hr);
  }
  return hr;
}

// Deletes one enumerated child that is already empty when it is a directory.
HRESULT DeleteChild(const WString& strPath, const NSPlatform::SDirEntry& entry) {
  if (entry.dwAttributes & FILE_ATTRIBUTE_READONLY) ClearReadOnly(strPath, entry.dwAttributes);
  const HRESULT hr = entry.IsDirectory() ? NSPlatform::RemoveDir(strPath.c_str())
                                         : NSPlatform::RemoveFile(strPath.c_str());
  if (FAILED(hr)) NSReport::Log(KV_DELETE_HERE, NSReport::kszLevelError, kszFailedDelete, strPath.c_str(), hr);
  return hr;
}

// Empties a directory depth first. S_FALSE when it cannot be listed (missing, or not a directory);
// otherwise S_OK or the error of the first child that could not be deleted.
HRESULT DeleteChildren(const WString& strDirectory) {
  std::vector<NSPlatform::SDirEntry> vEntries;
  if (FAILED(NSPlatform::ListDir(strDirectory.c_str(), &vEntries))) return S_FALSE;
  const WString strPrefix = NSPlatform::AddTrailingSeparator(strDirectory);
  for (const NSPlatform::SDirEntry& entry : vEntries) {
    const WString strChild = strPrefix + entry.strName;
    if (entry.IsDirectory()) {
      const HRESULT hr = DeleteChildren(strChild);
      if (FAILED(hr)) return hr;
    }
    const HRESULT hr = DeleteChild(strChild, entry);
    if (FAILED(hr)) return hr;
  }
  return S_OK;
}

}  // namespace

void ConformantFileTime(FILETIME& ft) {
  KV_FUNC("ConformantFileTime");
  // 0 until computed; racing first calls compute the same value.
  static std::atomic<ULONGLONG> s_ullMaxFileTime{0};
  ULONGLONG ullMax = s_ullMaxFileTime.load(std::memory_order_relaxed);
  if (ullMax == 0) {
    const SYSTEMTIME sysTime = {9999, 12, 0, 31, 23, 59, 59, 999};
    FILETIME ftMaxFileTime = {0, 0};
    const bool bConverted = NSPlatform::SysTimeToFileTime(&sysTime, &ftMaxFileTime);
    NSReport::CCheck(KV_HERE, "SystemTimeToFileTime(&sysTime, &ftMaxFileTime)", NSReport::kszCategoryAtlVerify)
        .Verify(bConverted);
    ullMax = NSPlatform::FileTimeToU64(ftMaxFileTime);
    s_ullMaxFileTime.store(ullMax, std::memory_order_relaxed);
  }
  if (NSPlatform::FileTimeToU64(ft) > ullMax) ft = NSPlatform::U64ToFileTime(ullMax);
}

WString FormatHourPath(const SYSTEMTIME& st) {
  const int ch = chPathSeparator;
  return NSSupport::FormatWide(KV_W("%04d%c%02d%c%02d%c%02d"), int{st.wYear}, ch, int{st.wMonth}, ch, int{st.wDay}, ch,
                               int{st.wHour});
}

bool HourPathFromFileTime(const FILETIME& ft, WString* pstrPath) {
  SYSTEMTIME st;
  if (!NSPlatform::FileTimeToSysTime(&ft, &st)) return false;
  *pstrPath = FormatHourPath(st);
  return true;
}

int ScanHourPath(WStringView strPath, int* pnYear, int* pnMonth, int* pnDay, int* pnHour) {
  WStringView str = strPath.size() > kcchHourTail ? strPath.substr(strPath.size() - kcchHourTail) : strPath;
  while (!str.empty() && IsSeparator(str.back())) str.remove_suffix(1);
  // A full path without a trailing separator leaves the separator before the year in the tail.
  while (!str.empty() && IsSeparator(str.front())) str.remove_prefix(1);
  int* const apnFields[] = {pnYear, pnMonth, pnDay, pnHour};
  int cRead = 0;
  for (int* pnField : apnFields) {
    if (cRead > 0) {
      if (str.empty() || !IsSeparator(str.front())) break;
      str.remove_prefix(1);
    }
    if (!ScanNumber(str, cRead == 0 ? 4 : 2, pnField)) break;
    ++cRead;
  }
  return cRead;
}

FILETIME HourStartFromPath(WStringView strPath) {
  FILETIME ft = {0, 0};
  int nYear = 0, nMonth = 0, nDay = 0, nHour = 0;
  if (ScanHourPath(strPath, &nYear, &nMonth, &nDay, &nHour) != 4) return ft;
  const SYSTEMTIME st = {static_cast<WORD>(nYear), static_cast<WORD>(nMonth), 0, static_cast<WORD>(nDay),
                         static_cast<WORD>(nHour), 0, 0, 0};
  if (!NSPlatform::SysTimeToFileTime(&st, &ft)) ft = {0, 0};
  return ft;
}

bool IsCurrentHour(WStringView strPath) {
  int nYear = 0, nMonth = 0, nDay = 0, nHour = 0;
  if (ScanHourPath(strPath, &nYear, &nMonth, &nDay, &nHour) != 4) return false;
  SYSTEMTIME stNow;
  NSPlatform::GetUtcSystemTime(&stNow);
  return nYear == stNow.wYear && nMonth == stNow.wMonth && nDay == stNow.wDay && nHour == stNow.wHour;
}

file_time::date_part SpanToDatePart(ULONGLONG ullSpan) {
  // Through the signed conversion, as the value has always been taken; spans above 2^63 come out
  // negative and are brought back.
  double dSpan = static_cast<double>(static_cast<LONGLONG>(ullSpan));
  if (dSpan < 0) dSpan += 18446744073709551616.0;
  dSpan /= 10000.0;
  if (dSpan < 1.0) throw std::range_error("cannot decrement over edMSec");
  // Seconds, minutes, hours, days, 30.42-day months. A span of a month or more is a year.
  static const double s_adDivisors[] = {1000.0, 60.0, 60.0, 24.0, 30.42};
  int i = 1;
  for (double dDivisor : s_adDivisors) {
    dSpan /= dDivisor;
    if (dSpan < 1.0) return static_cast<file_time::date_part>(i - 1);
    ++i;
  }
  return file_time::edYear;
}

WString GetUpPath(unsigned nLevels) {
  const WCHAR aszUp[] = {u'.', u'.', chPathSeparator, 0};
  WString str;
  str.reserve(3 * nLevels);
  for (unsigned i = 0; i < nLevels; ++i) str += aszUp;
  return str;
}

WString WithTrailingSeparator(WStringView strPath) { return NSPlatform::AddTrailingSeparator(strPath); }

WString ParentDirectory(WStringView strPath) {
  size_t i = strPath.size();
  while (i > 0 && NSPlatform::IsPathSeparator(strPath[i - 1])) --i;
  while (i > 0 && !NSPlatform::IsPathSeparator(strPath[i - 1])) --i;
  size_t cch = i;
  while (cch > 1 && NSPlatform::IsPathSeparator(strPath[cch - 1])) --cch;
  if (cch == 0) return WString();
  WString strParent(strPath.substr(0, cch));
  if (strParent.size() == 2 && strParent[1] == u':') strParent.push_back(NSPlatform::chPathSeparator);  // "c:\"
  return strParent;
}

HRESULT CreateDirTreeDurably(const WString& strPath) {
  if (NSPlatform::IsDirectory(strPath.c_str())) return S_OK;
  // The deepest directory that exists: the first whose names change.
  WString strExisting = ParentDirectory(strPath);
  while (!strExisting.empty() && !NSPlatform::IsDirectory(strExisting.c_str())) strExisting = ParentDirectory(strExisting);
  HRESULT hr = NSPlatform::CreateDirTree(strPath.c_str());
  // Made meanwhile by another writer, whose names are its own to flush.
  if (hr == KvHResultFromWin32(ERROR_ALREADY_EXISTS) && NSPlatform::IsDirectory(strPath.c_str())) return S_OK;
  for (WString strDirectory = ParentDirectory(strPath); SUCCEEDED(hr) && !strDirectory.empty();
       strDirectory = ParentDirectory(strDirectory)) {
    hr = NSPlatform::FlushDirectory(strDirectory.c_str());
    if (strDirectory == strExisting) break;
  }
  return hr;
}

bool CopyTree(const WString& strFrom, const WString& strTo) {
  return SUCCEEDED(NSPlatform::CopyTree(strFrom.c_str(), strTo.c_str()));
}

namespace {
std::atomic<ULONGLONG> g_ullHourChangeEpoch{1};
}  // namespace

ULONGLONG HourChangeEpoch() { return g_ullHourChangeEpoch.load(std::memory_order_acquire); }

void NoteHoursChanged() { g_ullHourChangeEpoch.fetch_add(1, std::memory_order_acq_rel); }

HRESULT DeleteFileSystemObject(const WString& strPath) {
  // Whatever part of the tree goes, copies kept of its hours are out of date.
  struct SNote {
    ~SNote() { NoteHoursChanged(); }
  } note;
  DWORD dwAttributes = INVALID_FILE_ATTRIBUTES;
  if (FAILED(NSPlatform::GetAttributes(strPath.c_str(), &dwAttributes))) dwAttributes = INVALID_FILE_ATTRIBUTES;
  HRESULT hr = DeleteChildren(strPath);
  if (FAILED(hr)) return hr;
  const bool bDirectory = dwAttributes != INVALID_FILE_ATTRIBUTES && (dwAttributes & FILE_ATTRIBUTE_DIRECTORY);
  if (!bDirectory) return hr;
  if (dwAttributes & FILE_ATTRIBUTE_READONLY) {
    hr = ClearReadOnly(strPath, dwAttributes);
    if (FAILED(hr)) return hr;
  }
  hr = NSPlatform::RemoveDir(strPath.c_str());
  if (FAILED(hr)) {
    NSReport::Log(KV_DELETE_HERE, NSReport::kszLevelError, kszFailedDelete, strPath.c_str(), hr);
    return hr;
  }
  return S_OK;
}

namespace {

constexpr int kcReplaceTries = 20;
constexpr DWORD kdwReplaceRetryMs = 5;

HRESULT WriteFileAt(const WString& strFile, const void* pvData, DWORD cbData, DWORD dwShareMode, bool bFlush) {
  NSPlatform::CFile file;
  HRESULT hr = file.Open(strFile.c_str(), GENERIC_WRITE, dwShareMode, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL);
  DWORD cbWritten = 0;
  if (SUCCEEDED(hr) && cbData) hr = file.Write(pvData, cbData, &cbWritten);
  if (SUCCEEDED(hr) && cbWritten != cbData) hr = KvHResultFromWin32(ERROR_DISK_FULL);
  if (SUCCEEDED(hr) && bFlush) hr = file.Flush();
  return hr;
}

}  // namespace

HRESULT ReplaceFileDurably(const WString& strFile, const void* pvData, DWORD cbData, DWORD dwShareMode) {
  const WString strNew = strFile + KV_W(".new");
  HRESULT hr = WriteFileAt(strNew, pvData, cbData, dwShareMode, true);
  // Windows refuses to rename over a file that somebody has open; readers hold it for one read.
  for (int nTry = 0; SUCCEEDED(hr); ++nTry) {
    hr = NSPlatform::RenameFile(strNew.c_str(), strFile.c_str());
    const bool bBusy = hr == KvHResultFromWin32(ERROR_ACCESS_DENIED) || hr == KvHResultFromWin32(ERROR_SHARING_VIOLATION);
    if (!bBusy || nTry == kcReplaceTries) break;
    NSPlatform::SleepMs(kdwReplaceRetryMs);
  }
  if (FAILED(hr)) {
    NSPlatform::RemoveFile(strNew.c_str());
    return hr;
  }
  return NSPlatform::FlushDirectory(ParentDirectory(strFile).c_str());
}

HRESULT WriteDescriptionFile(const WString& strFile, WCHAR* szText, DWORD dwShareMode) {
  return ReplaceFileDurably(strFile, szText, SysStringLen(szText) * sizeof(WCHAR), dwShareMode);
}

HRESULT ReadDescriptionFile(const WString& strFile, WCHAR** pbstrText) {
  *pbstrText = nullptr;
  NSPlatform::CFile file;
  HRESULT hr =
      file.Open(strFile.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL);
  ULONGLONG ullSize = 0;
  if (SUCCEEDED(hr)) hr = file.GetSize(&ullSize);
  if (FAILED(hr)) return hr;
  if (ullSize > 0x7FFFFFFEull) return E_OUTOFMEMORY;
  const UINT cch = static_cast<UINT>(ullSize / sizeof(WCHAR));
  if (!cch) return S_OK;
  BSTR bstr = SysAllocStringLen(nullptr, cch);
  if (!bstr) return E_OUTOFMEMORY;
  DWORD cbRead = 0;
  hr = file.ReadAt(0, bstr, cch * sizeof(WCHAR), &cbRead);
  if (SUCCEEDED(hr) && cbRead != cch * sizeof(WCHAR)) hr = KvHResultFromWin32(ERROR_HANDLE_EOF);
  if (FAILED(hr)) {
    SysFreeString(bstr);
    return hr;
  }
  *pbstrText = bstr;
  return S_OK;
}

}  // namespace NSKronvaleUtils
