// What the tool learns from an archive's directories and hour files directly: the hours of a
// record, the bytes on disk, the read-only check of an hour and its repair. The check opens every
// file for reading only and shares it with a running recorder; it never writes.
#pragma once

#include <string>
#include <vector>

#include "platform/os.h"

namespace NSTool {

struct SHourDir {
  WString strPath;      // full path of the hour directory
  WString strRelative;  // year\month\day\hour (the platform's separator)
  ULONGLONG ullStart;   // FILETIME ticks of the hour's first instant
};

// The hour directories of a record in time order (names of 4, 2, 2 and 2 digits; anything else is
// not an hour and is left out). Only hours that overlap [ullFrom, ullTo] are listed.
HRESULT ListHours(const WString& strRecordPath, ULONGLONG ullFrom, ULONGLONG ullTo, std::vector<SHourDir>* pvHours);

// The records of an archive: its sub-directories, sorted by name.
HRESULT ListRecords(const WString& strArchivePath, std::vector<WString>* pvNames);

// Bytes of every file below strPath, measured now.
ULONGLONG MeasureTree(const WString& strPath);

// The check of one hour.
struct SHourCheck {
  bool bCorrupt = false;
  std::string strReason;      // why, in words, when corrupt
  ULONGLONG cFrames = 0;      // entries of descriptor.ald
  ULONGLONG ullFirst = 0;     // time of the first and the last entry's frame (when cFrames > 0)
  ULONGLONG ullLast = 0;
  ULONGLONG ullBytes = 0;     // data.al, descriptor.ald and descriptor.alh
};

// Checks the hour as the engine does when it opens one (the last frame ends data.al, carries the
// frame signature and owns its 10 ms slot), and also every index entry: its frame header lies
// inside data.al, carries the signature, the entry's flags and size, and a time inside this hour,
// and the entries follow each other without gap or overlap. Read-only. A failure to read a file
// is a finding (bCorrupt with the reason), not an error.
SHourCheck CheckHour(const SHourDir& hour);

// Frames kept by a repair, and how many of the index's entries were dropped.
struct SRepairResult {
  ULONGLONG cBefore = 0;  // entries of descriptor.ald before the repair
  ULONGLONG cAfter = 0;   // frames after it
};
// Rebuilds the hour's index files from data.al and cuts a torn tail, through the engine's own
// hour repair. The hour must not be open in a running recorder.
HRESULT RepairHour(const SHourDir& hour, SRepairResult* pResult);

}  // namespace NSTool
