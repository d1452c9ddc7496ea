// Time and file-system helpers shared by the hour storage and the records.
//
// Every helper is stateless except ConformantFileTime, which computes the largest representable
// time once per process. Frame times are FILETIMEs in UTC; all arithmetic on them is done on their
// unsigned 64-bit value. Hour paths use the platform's separator ('\' on Windows, '/' on Linux), so
// an hour of 2021-03-07 05h UTC lives in "2021\03\07\05" under its record on Windows and in
// "2021/03/07/05" on Linux; the files inside are the same bytes on both.
#pragma once

#include <cstring>
#include <stdexcept>

#include "platform/os.h"

// Date parts of a span, from the finest to the coarsest, and the error of a date that cannot be
// converted.
namespace file_time {

enum date_part { edMSec = 0, edSec = 1, edMin = 2, edHour = 3, edDay = 4, edMonth = 5, edYear = 6 };

class wrong_date : public std::exception {
 public:
  const char* what() const noexcept override { return "wrong date"; }
};

}  // namespace file_time

namespace NSKronvaleUtils {

// 100-ns ticks.
constexpr ULONGLONG kullTicksPerMillisecond = 10000ull;
constexpr ULONGLONG kullTicksPerSecond = 10000000ull;
constexpr ULONGLONG kullTicksPerHour = 36000000000ull;

// Clamps ft in place to 9999-12-31 23:59:59.999 UTC; earlier times are left as they are.
void ConformantFileTime(FILETIME& ft);

// The relative hour path of a UTC breakdown: year, month, day and hour as "%04d\%02d\%02d\%02d"
// with the platform's separator, without a trailing separator.
WString FormatHourPath(const SYSTEMTIME& st);
// The same for a frame time; false when the time cannot be broken down (top bit set).
bool HourPathFromFileTime(const FILETIME& ft, WString* pstrPath);

// Reads year, month, day and hour back from the end of an hour directory's path (relative or full,
// with or without trailing separators). Answers how many of the four numbers were read, in order;
// only a result of 4 gives a usable hour.
int ScanHourPath(WStringView strPath, int* pnYear, int* pnMonth, int* pnDay, int* pnHour);

// The start of the hour that a path names (minutes, seconds and milliseconds 0); 0 when the path
// does not end in four numbers or they are not a valid date.
FILETIME HourStartFromPath(WStringView strPath);

// True when the path names the current UTC hour; false also for a path that does not scan.
bool IsCurrentHour(WStringView strPath);

// The coarsest date part in which ullSpan (100-ns units) amounts to at least one whole unit:
// edMSec under 1 s, edSec under 1 min, edMin under 1 h, edHour under 1 day, edDay under 30.42 days,
// edYear above; edMonth is never answered. Throws std::range_error "cannot decrement over edMSec"
// for spans under 1 ms: callers must not pass them.
file_time::date_part SpanToDatePart(ULONGLONG ullSpan);

// The frame filter {mask, mode} applied to a frame's flags: mode 0 any bit of the mask, 1 all of
// them, 2 flags equal to the mask, 3 none of them; any other mode matches nothing. Inline: a
// filtered walk asks it for every frame it passes.
inline bool IsFrameMatchesFilter(DWORD dwMask, DWORD dwMode, DWORD dwFlags) {
  switch (dwMode) {
    case 0:
      return (dwMask & dwFlags) != 0;
    case 1:
      return (dwMask & dwFlags) == dwMask;
    case 2:
      return dwMask == dwFlags;
    case 3:
      return (dwMask & dwFlags) == 0;
    default:
      return false;
  }
}
// The mode word of a filter record as its caller stored it. Callers may store any 32-bit value in
// the enumeration (a C client, or a value from the wire), so it is read as the word it is, never
// as the enumeration.
template <class TFilter>
DWORD FilterMode(const TFilter& filter) {
  static_assert(sizeof(filter.eMode) == sizeof(DWORD), "a filter's mode is a 32-bit word");
  DWORD dwMode;
  std::memcpy(&dwMode, &filter.eMode, sizeof(dwMode));
  return dwMode;
}

// The same for any filter record with dwMask and eMode (the interfaces' SFrameFilter).
template <class TFilter>
bool IsFrameMatchesFilter(const TFilter& filter, DWORD dwFlags) {
  return IsFrameMatchesFilter(filter.dwMask, FilterMode(filter), dwFlags);
}

// n repetitions of "..\" (platform separator): from an hour directory back up n levels.
WString GetUpPath(unsigned nLevels);

// The path with one separator appended when it does not end in one.
WString WithTrailingSeparator(WStringView strPath);

// The directory that holds strPath (a full path); empty for a root.
WString ParentDirectory(WStringView strPath);

// Makes the directory strPath with every missing parent, as NSPlatform::CreateDirTree does, and
// then makes each new name durable: the parent of every directory it made is flushed, from the
// deepest directory that existed before down to strPath's parent. An existing directory answers
// S_OK and flushes nothing. strPath's own names are its maker's to flush, once its files are there.
// A failure to flush answers its error: the directories stay, but may not survive a power cut.
HRESULT CreateDirTreeDurably(const WString& strPath);

// Copies a file or directory tree to strTo; true on success.
bool CopyTree(const WString& strFrom, const WString& strTo);

// Deletes the directory strPath and everything under it, clearing read-only attributes on the way.
// S_OK when the directory is gone. The walk stops at the first child that cannot be deleted and
// answers its error, leaving the rest in place; every failure is reported at level "error". A path
// that is not a directory (a plain file, or nothing) is left alone and answers S_FALSE: single files
// are deleted by their owners.
HRESULT DeleteFileSystemObject(const WString& strPath);

// Closed hours change only through this process: its writers append (which grows descriptor.ald),
// and repair, removal, deletion of trees and fast copy rewrite or remove whole hours. Each of the
// latter calls NoteHoursChanged when it is done, so that a copy of an hour's index kept from before
// (a record's cache of recently used hours) is known to be out of date: it was taken under an older
// epoch. DeleteFileSystemObject calls it itself.
ULONGLONG HourChangeEpoch();
void NoteHoursChanged();

// Replaces a small file whole: the bytes go to "<file>.new", reach the disk and take the file's name
// by a rename, whose directory entry is flushed before the answer. A crash, a full disk or a failed
// write at any point leaves the old file as it was (a leftover ".new" is harmless and is written
// over next time). A short write answers ERROR_DISK_FULL. Windows refuses the rename while somebody
// has the file open: it is tried again for some 100 ms, then the refusal is the answer.
HRESULT ReplaceFileDurably(const WString& strFile, const void* pvData, DWORD cbData, DWORD dwShareMode);

// A description file: the text's UTF-16LE characters, no BOM, no terminator. Writing replaces the
// file through ReplaceFileDurably; reading gives a BSTR, null for an empty file. Neither
// reports: callers decide what a failure is worth. (BSTRs are WCHAR pointers; this header stays
// clear of the COM declarations.)
HRESULT WriteDescriptionFile(const WString& strFile, WCHAR* bstrText, DWORD dwShareMode);
HRESULT ReadDescriptionFile(const WString& strFile, WCHAR** pbstrText);

}  // namespace NSKronvaleUtils
