// Speed of the record layer on the native build, against the hour layer underneath it measured in
// the same run on the same file system: appends through IRecord::Write against CHourManager::Write,
// GetNext walks of a reader against CHourManager::GetSibling walks of the same hours, and
// IRecord::GetStatistic over a day against the hours' own GetStatistic. bench/README.md explains the
// table. Nothing here asserts a speed: the one goal is printed beside what was measured.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>
#include <kronvale/KronvaleResults.h>

#include "BenchArchive.h"
#include "BenchSupport.h"
#include "hours/HourManager.h"
#include "hours/KronvaleUtils.h"
#include "platform/os.h"
#include "support/Lock.h"

using namespace NSKronvale;
using namespace NSHours;
using NSKronvaleUtils::kullTicksPerHour;
using NSKronvaleUtils::kullTicksPerSecond;
using NSPlatform::FileTimeToU64;
using NSPlatform::U64ToFileTime;

using namespace NSBench;

namespace {

constexpr ULONG kulFlushTimeout = 1000;  // any nonzero value opens the hours buffered
constexpr DWORD kdwFlagsPlain = 0x1;
constexpr DWORD kdwFlagsMarked = 0x3;    // 0x1 and the bit the filters look for
constexpr DWORD kcbSmallFrame = 16;      // payload of the frames that are read, not written, by the timing
constexpr ULONGLONG kullTicksPerDay = 24 * kullTicksPerHour;

// The appends and the dense hour: 2021-03-07 12h UTC.
constexpr SYSTEMTIME kstDenseHour = {2021, 3, 0, 7, 12, 0, 0, 0};
// The sparse year: 12h UTC of every seventh day from Monday 2022-01-03, 52 hours in all.
constexpr SYSTEMTIME kstFirstWeek = {2022, 1, 0, 3, 12, 0, 0, 0};
constexpr DWORD kcWeeks = 52;
constexpr DWORD kcSparseFrames = 100;  // per hour, one every 36 s
// The statistics day: 2021-06-01, 24 hours of one frame a second.
constexpr SYSTEMTIME kstDay = {2021, 6, 0, 1, 0, 0, 0, 0};
constexpr DWORD kcFlagBlockSeconds = 300;  // flags alternate every five minutes

// Every 10th frame of the read data carries the marked flags; this filter finds exactly those.
constexpr SFrameFilter kMarkedFilter = {0x2, efmAny};
constexpr SHourFrameFilter kMarkedHourFilter = {0x2, 0};

ULONGLONG SparseHourStart(DWORD dwWeek) { return Ticks(kstFirstWeek) + ULONGLONG{dwWeek} * 7 * kullTicksPerDay; }

// Leftover dirty pages of the previous case must not be written back during the next one.
void Settle() { ::sync(); }

// <directory>/<year>/<month>/<day>/<hour> of the hour holding ullTicks, the layout of a record.
WString HourDirectory(const WString& strDirectory, ULONGLONG ullTicks) {
  return NSPlatform::CombinePath(strDirectory, NSKronvaleUtils::FormatHourPath(Breakdown(ullTicks)));
}

long long FileSize(const WString& strPath) {
  struct stat st;
  if (::stat(NSPlatform::WideToUtf8(strPath).c_str(), &st) != 0) return -1;
  return static_cast<long long>(st.st_size);
}

using CArchive = CBenchArchive;

// ---- 1. Write ---------------------------------------------------------------------------------------

struct SWriteRun {
  ULONGLONG cTimed = 0;
  double dSeconds = 0;
  double Rate() const { return dSeconds > 0 ? static_cast<double>(cTimed) / dSeconds : 0; }
};

// Frame i goes to slot i of the dense hour. Frame 0 is written before the clock starts on both
// sides: for the record it is the write that creates and opens the hour, which the hour manager
// does in Open, outside its timing.
SWriteRun WriteThroughRecord(CArchive& archive, const std::string& strName, DWORD cbData, ULONGLONG cFrames) {
  std::vector<BYTE> vData(cbData, 0x5A);
  SFrameBuffer buffer = {vData.data(), cbData};
  const ULONGLONG ullHour = Ticks(kstDenseHour);
  NSCom::CComPtr<IRecord> pRecord = archive.Writer(strName.c_str());
  Check(pRecord->Write(U64ToFileTime(ullHour), kdwFlagsPlain, &buffer, 1), "IRecord::Write (first frame)");
  Settle();

  SWriteRun run;
  CStopwatch watch;
  for (ULONGLONG i = 1; i < cFrames; ++i) {
    vData[0] = static_cast<BYTE>(i);
    Check(pRecord->Write(U64ToFileTime(ullHour + i * kullTicksPerSlot), kdwFlagsPlain, &buffer, 1), "IRecord::Write");
  }
  run.dSeconds = watch.Seconds();
  run.cTimed = cFrames - 1;
  // Every frame must have reached data.al; the write calls alone could succeed on a wrong hour.
  const WString strData =
      NSPlatform::CombinePath(HourDirectory(archive.RecordPath(strName.c_str()), ullHour), kszDataFileName);
  const long long llExpected = static_cast<long long>(cFrames * FrameSize(BufferRecordSize(cbData)));
  if (FileSize(strData) != llExpected) Die("checking the size of the record's data.al", FileSize(strData));
  Check(pRecord->RemoveHour(U64ToFileTime(ullHour)), "IRecord::RemoveHour");
  return run;
}

SWriteRun WriteThroughHour(const CBenchDir& dir, DWORD cbData, ULONGLONG cFrames) {
  std::vector<BYTE> vData(cbData, 0x5A);
  SHourFrameBuffer buffer = {vData.data(), cbData};
  CHourManager hour(std::make_shared<NSSystem::SLock>());
  Check(hour.Open(HourDirectory(dir.Sub("hour-write"), Ticks(kstDenseHour)), true, true), "CHourManager::Open");
  SYSTEMTIME st = kstDenseHour;
  Check(hour.Write(st, kdwFlagsPlain, &buffer, 1), "CHourManager::Write (first frame)");
  Settle();

  SWriteRun run;
  CStopwatch watch;
  for (ULONGLONG i = 1; i < cFrames; ++i) {
    vData[0] = static_cast<BYTE>(i);
    SlotToSystemTime(static_cast<DWORD>(i), &st);
    Check(hour.Write(st, kdwFlagsPlain, &buffer, 1), "CHourManager::Write");
  }
  run.dSeconds = watch.Seconds();
  run.cTimed = cFrames - 1;
  if (hour.GetFrameCount() != cFrames) Die("counting the hour's frames", static_cast<long long>(hour.GetFrameCount()));
  if (!hour.RemoveHour()) Die("CHourManager::RemoveHour", 0);
  return run;
}

std::string SizeText(DWORD cb) {
  if (cb >= 1024 && cb % 1024 == 0) return std::to_string(cb / 1024) + " KiB";
  return std::to_string(cb) + " B";
}

struct SWriteResult {
  DWORD cbData;
  double dOverhead;  // extra time per frame of the record, median over the rounds
};

std::vector<SWriteResult> BenchWrites(const CBenchDir& dir) {
  struct SCase {
    DWORD cbData;
    ULONGLONG cFrames;
  };
  const SCase vCases[] = {{256, 200000}, {4096, 50000}};
  constexpr int kcRounds = 3;
  std::printf("1. Write: IRecord::Write of an archive's writer record against CHourManager::Write\n");
  std::printf("   buffered on both sides (flush timeout %lu ms / bBuffered = true), flags 0x1, one buffer,\n",
              static_cast<unsigned long>(kulFlushTimeout));
  std::printf("   frame i in 10 ms slot i of one hour; the first frame is untimed; %d rounds, medians shown\n\n",
              kcRounds);
  std::printf("   %-7s %7s | %13s %13s | %9s %13s\n", "frame", "frames", "record fr/s", "hour fr/s", "overhead",
              "extra ns/fr");

  std::vector<SWriteResult> vResults;
  CArchive archive(dir.Sub("write"), kulFlushTimeout);
  for (const SCase& c : vCases) {
    std::vector<double> vRecord, vHour, vOverhead, vExtraNs;
    for (int r = 0; r < kcRounds; ++r) {
      const std::string strName = "w" + std::to_string(c.cbData) + "-" + std::to_string(r);
      SWriteRun record, hour;
      if (r % 2 == 0) {
        record = WriteThroughRecord(archive, strName, c.cbData, c.cFrames);
        hour = WriteThroughHour(dir, c.cbData, c.cFrames);
      } else {
        hour = WriteThroughHour(dir, c.cbData, c.cFrames);
        record = WriteThroughRecord(archive, strName, c.cbData, c.cFrames);
      }
      vRecord.push_back(record.Rate());
      vHour.push_back(hour.Rate());
      vOverhead.push_back(record.Rate() > 0 ? hour.Rate() / record.Rate() - 1.0 : 0);
      vExtraNs.push_back(1e9 * (record.dSeconds - hour.dSeconds) / static_cast<double>(record.cTimed));
    }
    const SWriteResult res = {c.cbData, Median(vOverhead)};
    std::printf("   %-7s %7llu | %13.0f %13.0f | %8.1f%% %13.0f\n", SizeText(c.cbData).c_str(),
                static_cast<unsigned long long>(c.cFrames), Median(vRecord), Median(vHour), res.dOverhead * 100.0,
                Median(vExtraNs));
    std::fflush(stdout);
    vResults.push_back(res);
  }
  std::printf("\n");
  return vResults;
}

// ---- Data for reading -------------------------------------------------------------------------------

// Writes the read data through a writer record of its own archive, which is freed before any reader
// opens: every hour is complete and closed when the readers come.
struct SReadData {
  std::vector<ULONGLONG> vDense;   // frame times of the dense hour
  std::vector<DWORD> vDenseFlags;  // and their flags
  std::vector<ULONGLONG> vSparse;  // of the sparse year
  std::vector<DWORD> vSparseFlags;
  std::vector<ULONGLONG> vDay;  // of the statistics day
  std::vector<DWORD> vDayFlags;
};

void WriteFrames(IRecord* pRecord, const std::vector<ULONGLONG>& vTimes, const std::vector<DWORD>& vFlags) {
  std::vector<BYTE> vData(kcbSmallFrame, 0x33);
  SFrameBuffer buffer = {vData.data(), kcbSmallFrame};
  for (size_t i = 0; i < vTimes.size(); ++i) {
    std::memcpy(vData.data(), &i, sizeof(DWORD));
    Check(pRecord->Write(U64ToFileTime(vTimes[i]), vFlags[i], &buffer, 1), "IRecord::Write (preparing)");
  }
}

SReadData WriteReadData(const CBenchDir& dir) {
  SReadData data;
  // Dense: every 10 ms slot of the hour; frames 0, 10, 20, ... marked.
  const ULONGLONG ullDense = Ticks(kstDenseHour);
  for (DWORD n = 0; n < kcSlots; ++n) {
    data.vDense.push_back(ullDense + ULONGLONG{n} * kullTicksPerSlot);
    data.vDenseFlags.push_back(n % 10 == 0 ? kdwFlagsMarked : kdwFlagsPlain);
  }
  // Sparse: 100 frames 36 s apart in one hour a week; every 10th marked.
  for (DWORD w = 0; w < kcWeeks; ++w) {
    for (DWORD i = 0; i < kcSparseFrames; ++i) {
      data.vSparse.push_back(SparseHourStart(w) + ULONGLONG{i} * 36 * kullTicksPerSecond);
      data.vSparseFlags.push_back(i % 10 == 0 ? kdwFlagsMarked : kdwFlagsPlain);
    }
  }
  // Day: a frame on every whole second; five-minute blocks alternate plain and marked.
  const ULONGLONG ullDay = Ticks(kstDay);
  for (DWORD s = 0; s < 24 * 3600; ++s) {
    data.vDay.push_back(ullDay + ULONGLONG{s} * kullTicksPerSecond);
    data.vDayFlags.push_back((s / kcFlagBlockSeconds) % 2 ? kdwFlagsMarked : kdwFlagsPlain);
  }
  CArchive archive(dir.Sub("read"), kulFlushTimeout);
  WriteFrames(archive.Writer("dense"), data.vDense, data.vDenseFlags);
  WriteFrames(archive.Writer("sparse"), data.vSparse, data.vSparseFlags);
  WriteFrames(archive.Writer("day"), data.vDay, data.vDayFlags);
  return data;
}

// The frames of vTimes that pass the filter (all without one).
std::vector<ULONGLONG> Expected(const std::vector<ULONGLONG>& vTimes, const std::vector<DWORD>& vFlags,
                                const SFrameFilter* pFilter) {
  std::vector<ULONGLONG> v;
  for (size_t i = 0; i < vTimes.size(); ++i)
    if (!pFilter || NSKronvaleUtils::IsFrameMatchesFilter(*pFilter, vFlags[i])) v.push_back(vTimes[i]);
  return v;
}

// ---- 2. Walks ---------------------------------------------------------------------------------------

// Whole walks repeated until dBudget seconds have passed (one at least). Every call counts as a step,
// the last one of a walk (which finds nothing) included. cWrong counts frames found other than the
// expected ones, in order.
struct SWalkRun {
  ULONGLONG cWalks = 0;
  ULONGLONG cSteps = 0;
  ULONGLONG cFoundPerWalk = 0;
  ULONGLONG cWrong = 0;
  double dSeconds = 0;
  double StepRate() const { return dSeconds > 0 ? static_cast<double>(cSteps) / dSeconds : 0; }
  double WalkSeconds() const { return cWalks ? dSeconds / static_cast<double>(cWalks) : 0; }
};

// GetNext from the start of time, each call from the frame the last one found.
SWalkRun WalkRecord(IRecord* pRecord, const SFrameFilter* pFilter, const std::vector<ULONGLONG>& vExpected,
                    double dBudget) {
  SWalkRun run;
  CStopwatch watch;
  do {
    FILETIME ft = {0, 0};
    ULONGLONG cFound = 0;
    for (;;) {
      const HRESULT hr = pRecord->GetNext(ft, pFilter, &ft);
      ++run.cSteps;
      if (hr == khrNotFound) break;
      Check(hr, "IRecord::GetNext");
      if (cFound >= vExpected.size() || vExpected[cFound] != FileTimeToU64(ft)) ++run.cWrong;
      ++cFound;
      if (cFound > vExpected.size() + 1) Die("ending a GetNext walk", static_cast<long long>(cFound));
    }
    run.cFoundPerWalk = cFound;
    ++run.cWalks;
  } while (watch.Seconds() < dBudget);
  run.dSeconds = watch.Seconds();
  return run;
}

// GetSibling through one open hour from its first slot; *pcFound and *pcWrong go on from where the
// last hour left them.
void WalkOneHour(CHourManager& hour, ULONGLONG ullHourStart, const SHourFrameFilter* pFilter,
                 const std::vector<ULONGLONG>& vExpected, SWalkRun* pRun, ULONGLONG* pcFound) {
  SYSTEMTIME st = Breakdown(ullHourStart);
  bool bIncludeStart = true;
  for (;;) {
    FILETIME ft;
    const HRESULT hr = hour.GetSibling(st, pFilter, &ft, bIncludeStart, true);
    ++pRun->cSteps;
    if (hr == khrNotFound) break;
    Check(hr, "CHourManager::GetSibling");
    if (*pcFound >= vExpected.size() || vExpected[*pcFound] != FileTimeToU64(ft)) ++pRun->cWrong;
    ++*pcFound;
    if (!NSPlatform::FileTimeToSysTime(&ft, &st)) Die("FileTimeToSysTime", 0);
    bIncludeStart = false;
  }
}

// The baseline of a dense walk: the same hour, opened once (untimed), walked by the hour manager.
SWalkRun WalkDenseHour(const WString& strHour, const SHourFrameFilter* pFilter, const std::vector<ULONGLONG>& vExpected,
                       double dBudget) {
  CHourManager hour(std::make_shared<NSSystem::SLock>());
  Check(hour.Open(strHour, false, true), "CHourManager::Open (dense hour)");
  SWalkRun run;
  CStopwatch watch;
  do {
    ULONGLONG cFound = 0;
    WalkOneHour(hour, Ticks(kstDenseHour), pFilter, vExpected, &run, &cFound);
    run.cFoundPerWalk = cFound;
    ++run.cWalks;
  } while (watch.Seconds() < dBudget);
  run.dSeconds = watch.Seconds();
  return run;
}

// The baseline of a sparse walk: each of the 52 hours opened and closed outside the clock, walked by
// its hour manager; only the walks are timed.
SWalkRun WalkSparseHours(const WString& strRecord, const SHourFrameFilter* pFilter,
                         const std::vector<ULONGLONG>& vExpected, double dBudget) {
  SWalkRun run;
  CStopwatch total;
  do {
    ULONGLONG cFound = 0;
    for (DWORD w = 0; w < kcWeeks; ++w) {
      CHourManager hour(std::make_shared<NSSystem::SLock>());
      Check(hour.Open(HourDirectory(strRecord, SparseHourStart(w)), false, true), "CHourManager::Open (sparse hour)");
      CStopwatch watch;
      WalkOneHour(hour, SparseHourStart(w), pFilter, vExpected, &run, &cFound);
      run.dSeconds += watch.Seconds();
    }
    run.cFoundPerWalk = cFound;
    ++run.cWalks;
  } while (total.Seconds() < dBudget);
  return run;
}

struct SWalkRow {
  const char* pszWhat;
  SWalkRun record;
  SWalkRun hour;
  double dRatio;  // hour walk time / record walk time, median over the rounds
  size_t cExpected;
};

void PrintWalkRow(const SWalkRow& row) {
  std::printf("   %-48s %8llu %8llu %11.0f %9.3f | %11.0f %9.3f %8.1f%%\n", row.pszWhat,
              static_cast<unsigned long long>(row.record.cWalks ? row.record.cSteps / row.record.cWalks : 0),
              static_cast<unsigned long long>(row.record.cFoundPerWalk), row.record.StepRate(),
              row.record.WalkSeconds() * 1e3, row.hour.StepRate(), row.hour.WalkSeconds() * 1e3, row.dRatio * 100.0);
  for (const SWalkRun* p : {&row.record, &row.hour}) {
    if (p->cFoundPerWalk != row.cExpected || p->cWrong)
      std::printf("   WARNING: %s walk found %llu frames (%llu expected), %llu not the expected ones\n",
                  p == &row.record ? "the record's" : "the hours'", static_cast<unsigned long long>(p->cFoundPerWalk),
                  static_cast<unsigned long long>(row.cExpected), static_cast<unsigned long long>(p->cWrong));
  }
  std::fflush(stdout);
}

// Two rounds, alternating which side goes first; the rates shown are the better round's, the ratio
// the median of both rounds' ratios.
template <class TRecordWalk, class THourWalk>
SWalkRow RunWalkRow(const char* pszWhat, size_t cExpected, TRecordWalk recordWalk, THourWalk hourWalk) {
  SWalkRow row = {pszWhat, {}, {}, 0, cExpected};
  std::vector<double> vRatio;
  for (int r = 0; r < 2; ++r) {
    Settle();
    SWalkRun record, hour;
    if (r == 0) {
      record = recordWalk();
      hour = hourWalk();
    } else {
      hour = hourWalk();
      record = recordWalk();
    }
    vRatio.push_back(record.WalkSeconds() > 0 ? hour.WalkSeconds() / record.WalkSeconds() : 0);
    if (r == 0 || record.StepRate() > row.record.StepRate()) row.record = record;
    if (r == 0 || hour.StepRate() > row.hour.StepRate()) row.hour = hour;
  }
  row.dRatio = Median(vRatio);
  return row;
}

void BenchWalks(CArchive& readers, const SReadData& data) {
  constexpr double kdBudget = 1.0;
  std::printf("2. GetNext walks of a reader record (OpenRecordEx) against CHourManager::GetSibling walks\n");
  std::printf("   forward from the start of time until 0x80070490; every call is a step, the final one included;\n");
  std::printf("   filter 0x2/any passes every 10th frame; 2 rounds, the better shown, ratio the median\n\n");
  std::printf("   %-48s %8s %8s %11s %9s | %11s %9s %9s\n", "", "steps", "found", "steps/s", "ms/walk", "hour st/s",
              "ms/walk", "rec/hour");

  const WString strDenseHour = HourDirectory(readers.RecordPath("dense"), Ticks(kstDenseHour));
  const WString strSparse = readers.RecordPath("sparse");
  NSCom::CComPtr<IRecord> pDense = readers.Reader("dense");
  NSCom::CComPtr<IRecord> pSparse = readers.Reader("sparse");
  // The reader opens the dense hour before the clock starts: the walks measure the steps alone.
  FILETIME ftFirst;
  Check(pDense->GetNext(FILETIME{0, 0}, nullptr, &ftFirst), "IRecord::GetNext (opening the dense hour)");

  for (bool bFilter : {false, true}) {
    const SFrameFilter* pFilter = bFilter ? &kMarkedFilter : nullptr;
    const SHourFrameFilter* pHourFilter = bFilter ? &kMarkedHourFilter : nullptr;
    const std::vector<ULONGLONG> vExpected = Expected(data.vDense, data.vDenseFlags, pFilter);
    PrintWalkRow(RunWalkRow(
        bFilter ? "dense hour, filter 0x2/any" : "dense hour (360,000 frames, 10 ms), no filter", vExpected.size(),
        [&] { return WalkRecord(pDense, pFilter, vExpected, kdBudget); },
        [&] { return WalkDenseHour(strDenseHour, pHourFilter, vExpected, kdBudget); }));
  }
  for (bool bFilter : {false, true}) {
    const SFrameFilter* pFilter = bFilter ? &kMarkedFilter : nullptr;
    const SHourFrameFilter* pHourFilter = bFilter ? &kMarkedHourFilter : nullptr;
    const std::vector<ULONGLONG> vExpected = Expected(data.vSparse, data.vSparseFlags, pFilter);
    PrintWalkRow(RunWalkRow(
        bFilter ? "sparse year, filter 0x2/any" : "sparse year (52 weekly hours x 100), no filter", vExpected.size(),
        [&] { return WalkRecord(pSparse, pFilter, vExpected, kdBudget); },
        [&] { return WalkSparseHours(strSparse, pHourFilter, vExpected, kdBudget); }));
  }
  std::printf("\n");
}

// ---- 3. Statistics ----------------------------------------------------------------------------------

struct SStatisticRun {
  ULONGLONG cCalls = 0;
  double dSeconds = 0;
  DWORD cRuns = 0;          // runs the last call returned
  ULONGLONG cCounted = 0;   // frames they count
  ULONGLONG cLateEnds = 0;  // runs whose end lies past their last frame's slot
  ULONGLONG cEndsOnNext = 0;  // of those, runs that end on the next run's first frame
  double MsPerCall() const { return cCalls ? 1e3 * dSeconds / static_cast<double>(cCalls) : 0; }
};

// The expected runs: the day's frames that pass the filter, in blocks of equal flags.
struct SExpectedRuns {
  std::vector<ULONGLONG> vFirst, vLast;  // first and last frame of each run
  ULONGLONG cFrames = 0;
};

SExpectedRuns ExpectedRuns(const SReadData& data, const SFrameFilter* pFilter) {
  SExpectedRuns runs;
  bool bOpen = false;
  for (size_t i = 0; i < data.vDay.size(); ++i) {
    const bool bPass = !pFilter || NSKronvaleUtils::IsFrameMatchesFilter(*pFilter, data.vDayFlags[i]);
    const bool bNewFlags = i == 0 || data.vDayFlags[i] != data.vDayFlags[i - 1];
    if (!bPass) {
      bOpen = false;
      continue;
    }
    ++runs.cFrames;
    if (!bOpen || bNewFlags) {
      runs.vFirst.push_back(data.vDay[i]);
      runs.vLast.push_back(data.vDay[i]);
      bOpen = true;
    } else {
      runs.vLast.back() = data.vDay[i];
    }
  }
  return runs;
}

SStatisticRun StatisticOfRecord(IRecord* pRecord, ULONGLONG ullResolution, const SFrameFilter* pFilter,
                                const SExpectedRuns& expected, double dBudget) {
  const FILETIME ftBegin = U64ToFileTime(Ticks(kstDay));
  const FILETIME ftEnd = U64ToFileTime(Ticks(kstDay) + kullTicksPerDay - 1);
  SStatisticRun run;
  CStopwatch watch;
  do {
    DWORD cRuns = 0;
    SRecordStatistic* pRuns = nullptr;
    Check(pRecord->GetStatistic(ftBegin, ftEnd, U64ToFileTime(ullResolution), pFilter, 0, &cRuns, &pRuns),
          "IRecord::GetStatistic");
    ++run.cCalls;
    run.cRuns = cRuns;
    run.cCounted = 0;
    run.cLateEnds = run.cEndsOnNext = 0;
    for (DWORD i = 0; i < cRuns; ++i) {
      run.cCounted += pRuns[i].dwCount;
      // A run ends on its last frame, or 10 ms after it; a run of one frame lasts 10 ms.
      const ULONGLONG ullEnd = FileTimeToU64(pRuns[i].ftEnd);
      if (i < expected.vLast.size() && ullEnd > expected.vLast[i] + kullTicksPerSlot) {
        ++run.cLateEnds;
        if (i + 1 < expected.vFirst.size() && ullEnd == expected.vFirst[i + 1]) ++run.cEndsOnNext;
      }
    }
    CoTaskMemFree(pRuns);
  } while (run.cCalls < 3 || watch.Seconds() < dBudget);
  run.dSeconds = watch.Seconds();
  return run;
}

// The baseline: CHourManager::GetStatistic of each of the day's 24 hours, the hours open beforehand
// (untimed), or opened and closed around each call (timed).
SStatisticRun StatisticOfHours(const WString& strRecord, bool bOpenEach, double dBudget) {
  std::vector<std::unique_ptr<CHourManager>> vHours;
  std::vector<WString> vPaths;
  for (DWORD h = 0; h < 24; ++h) {
    vPaths.push_back(HourDirectory(strRecord, Ticks(kstDay) + h * kullTicksPerHour));
    vHours.push_back(std::make_unique<CHourManager>(std::make_shared<NSSystem::SLock>()));
    if (!bOpenEach) Check(vHours.back()->Open(vPaths.back(), false, true), "CHourManager::Open (day)");
  }
  SStatisticRun run;
  CStopwatch watch;
  do {
    run.cCounted = 0;
    for (DWORD h = 0; h < 24; ++h) {
      CHourManager& hour = *vHours[h];
      if (bOpenEach) Check(hour.Open(vPaths[h], false, true), "CHourManager::Open (day)");
      SHourStatistic statistic;
      Check(hour.GetStatistic(&statistic), "CHourManager::GetStatistic");
      run.cCounted += statistic.ullFrameCount;
      if (bOpenEach) hour.Close();
    }
    ++run.cCalls;
  } while (run.cCalls < 3 || watch.Seconds() < dBudget);
  run.dSeconds = watch.Seconds();
  return run;
}

void BenchStatistics(CArchive& readers, const SReadData& data) {
  constexpr double kdBudget = 1.5;
  std::printf("3. GetStatistic of a reader record over a day (24 hours, a frame every second, flags 0x1 and\n");
  std::printf("   0x3 alternating every 5 minutes) against CHourManager::GetStatistic of the 24 hours\n");
  std::printf("   lFlags 0 (runs of equal flags); calls repeated for %.1f s (3 at least)\n\n", kdBudget);

  const WString strDay = readers.RecordPath("day");
  NSCom::CComPtr<IRecord> pDay = readers.Reader("day");
  Settle();
  const SStatisticRun hoursOpen = StatisticOfHours(strDay, false, kdBudget);
  const SStatisticRun hoursOpening = StatisticOfHours(strDay, true, kdBudget);

  std::printf("   %-48s %10s %9s %7s %9s %12s\n", "", "ms/call", "calls/s", "runs", "frames", "rec/hours");
  struct SCase {
    const char* pszWhat;
    ULONGLONG ullResolution;
    const SFrameFilter* pFilter;
  };
  const SCase vCases[] = {
      {"record, 1 s resolution, no filter", kullTicksPerSecond, nullptr},
      {"record, 1 min resolution, no filter", 60 * kullTicksPerSecond, nullptr},
      {"record, 1 s resolution, filter 0x2/any", kullTicksPerSecond, &kMarkedFilter},
  };
  std::vector<std::string> vWarnings;
  for (const SCase& c : vCases) {
    const SExpectedRuns expected = ExpectedRuns(data, c.pFilter);
    const SStatisticRun run = StatisticOfRecord(pDay, c.ullResolution, c.pFilter, expected, kdBudget);
    std::printf("   %-48s %10.2f %9.1f %7lu %9llu %11.1fx\n", c.pszWhat, run.MsPerCall(),
                run.MsPerCall() > 0 ? 1e3 / run.MsPerCall() : 0, static_cast<unsigned long>(run.cRuns),
                static_cast<unsigned long long>(run.cCounted),
                hoursOpen.MsPerCall() > 0 ? run.MsPerCall() / hoursOpen.MsPerCall() : 0);
    std::fflush(stdout);
    char sz[256];
    if (run.cRuns != expected.vFirst.size() || run.cCounted != expected.cFrames) {
      std::snprintf(sz, sizeof(sz), "%s: %lu runs of %llu frames, %zu runs of %llu frames expected", c.pszWhat,
                    static_cast<unsigned long>(run.cRuns), static_cast<unsigned long long>(run.cCounted),
                    expected.vFirst.size(), static_cast<unsigned long long>(expected.cFrames));
      vWarnings.push_back(sz);
    }
    if (run.cLateEnds) {
      std::snprintf(sz, sizeof(sz),
                    "%s: %llu runs end later than 10 ms after their last frame, %llu of them on the next run's "
                    "first frame",
                    c.pszWhat, static_cast<unsigned long long>(run.cLateEnds),
                    static_cast<unsigned long long>(run.cEndsOnNext));
      vWarnings.push_back(sz);
    }
  }
  std::printf("   %-48s %10.2f %9.1f %7s %9llu\n", "24 x CHourManager::GetStatistic, hours open", hoursOpen.MsPerCall(),
              hoursOpen.MsPerCall() > 0 ? 1e3 / hoursOpen.MsPerCall() : 0, "-",
              static_cast<unsigned long long>(hoursOpen.cCounted));
  std::printf("   %-48s %10.2f %9.1f %7s %9llu\n", "24 x (Open, GetStatistic, Close)", hoursOpening.MsPerCall(),
              hoursOpening.MsPerCall() > 0 ? 1e3 / hoursOpening.MsPerCall() : 0, "-",
              static_cast<unsigned long long>(hoursOpening.cCounted));
  for (const SStatisticRun* p : {&hoursOpen, &hoursOpening})
    if (p->cCounted != data.vDay.size())
      vWarnings.push_back("the hours count " + std::to_string(p->cCounted) + " frames, " +
                          std::to_string(data.vDay.size()) + " written");
  for (const std::string& str : vWarnings) std::printf("   WARNING: %s\n", str.c_str());
  std::printf("\n");
}

// ---- Goals -------------------------------------------------------------------------------------------

void PrintGoals(const std::vector<SWriteResult>& vWrites) {
  std::printf("Goals\n");
  for (const SWriteResult& r : vWrites)
    std::printf("   buffered IRecord::Write of %s frames at most 10%% slower per frame than the hour: %+.1f%% -> %s\n",
                SizeText(r.cbData).c_str(), r.dOverhead * 100.0, r.dOverhead < 0.10 ? "met" : "NOT met");
}

}  // namespace

int main() {
  NSBench::ProgramName() = "kv_records_bench";
  const CBenchDir dir;
  std::printf("kv_records_bench: files under %s\n\n", NSPlatform::WideToUtf8(dir.Root()).c_str());
  std::fflush(stdout);
  CStopwatch total;
  const std::vector<SWriteResult> vWrites = BenchWrites(dir);
  {
    const SReadData data = WriteReadData(dir);
    CArchive readers(dir.Sub("read"), kulFlushTimeout);
    BenchWalks(readers, data);
    BenchStatistics(readers, data);
  }
  PrintGoals(vWrites);
  std::printf("\n(total %.0f s)\n", total.Seconds());
  return 0;
}
