// Speed of reading through a reader record on the native build, each row against a raw baseline
// measured in the same run on the same files: random exact-time reads against two preads (index
// entry, frame), scans against 1 MiB sequential reads of data.al, a sparse year against a readdir walk
// of its tree, statistics against plain reads of every hour's counters. bench/README.md explains the
// table. Nothing here asserts a speed: each goal is printed beside what was measured.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>
#include <kronvale/KronvaleResults.h>

#include "BenchArchive.h"
#include "BenchSupport.h"
#include "hours/HourFormat.h"
#include "hours/KronvaleUtils.h"
#include "platform/os.h"

using namespace NSKronvale;
using namespace NSHours;
using NSKronvaleUtils::kullTicksPerHour;
using NSKronvaleUtils::kullTicksPerSecond;
using NSPlatform::CFile;
using NSPlatform::FileTimeToU64;
using NSPlatform::U64ToFileTime;

using namespace NSBench;

namespace {

constexpr ULONG kulFlushTimeout = 1000;  // hours opened buffered
constexpr ULONGLONG kullTicksPerDay = 24 * kullTicksPerHour;
constexpr DWORD kdwPlain = 0x1;
constexpr DWORD kdwMarked = 0x3;  // every 10th frame of the dense hour
constexpr DWORD kdwRare = 0x5;    // three hours of the sparse year
constexpr SFrameFilter kMarked = {0x2, efmAny};
constexpr SFrameFilter kRare = {0x4, efmAny};

constexpr SYSTEMTIME kstThree = {2021, 3, 0, 7, 10, 0, 0, 0};  // three hours of random reads
constexpr SYSTEMTIME kstDense = {2021, 4, 0, 1, 12, 0, 0, 0};  // every slot of one hour
constexpr SYSTEMTIME kstYear = {2022, 1, 0, 1, 12, 0, 0, 0};   // 12h of every day of 2022
constexpr SYSTEMTIME kstMonth = {2021, 6, 0, 1, 0, 0, 0, 0};   // 30 days, a frame every 10 s
constexpr DWORD kcYearDays = 365;
constexpr DWORD kcMonthHours = 30 * 24;
constexpr DWORD kcMonthFramesPerHour = 360;

struct SSizeCase {
  const char* pszRecord;
  DWORD cbData;
  DWORD cFramesPerHour;
};
constexpr SSizeCase kaSizes[] = {{"r256", 256, 20000}, {"r4k", 4096, 5000}, {"r64k", 65536, 1000}};

// The process's read system calls so far, as the kernel counts them.
long long ReadSyscalls() {
  std::FILE* pFile = std::fopen("/proc/self/io", "r");
  if (!pFile) return 0;
  long long ll = 0;
  char szLine[128];
  while (std::fgets(szLine, sizeof(szLine), pFile)) std::sscanf(szLine, "syscr: %lld", &ll);
  std::fclose(pFile);
  return ll;
}

// Buffered hours, as a viewer's process opens them.
class CArchive : public CBenchArchive {
 public:
  explicit CArchive(const WString& strPath) : CBenchArchive(strPath, kulFlushTimeout) {}
};

// Frame i of an hour of n frames lies in slot i * (360,000 / n).
ULONGLONG FrameTime(ULONGLONG ullHour, DWORD i, DWORD cPerHour) {
  return ullHour + ULONGLONG{i} * (kcSlots / cPerHour) * kullTicksPerSlot;
}

void Write(IRecord* pRecord, ULONGLONG ullTime, DWORD dwFlags, std::vector<BYTE>& vData) {
  SFrameBuffer buffer = {vData.data(), static_cast<DWORD>(vData.size())};
  Check(pRecord->Write(U64ToFileTime(ullTime), dwFlags, &buffer, 1), "IRecord::Write (preparing)");
}

void WriteData(CArchive& archive) {
  for (const SSizeCase& c : kaSizes) {
    NSCom::CComPtr<IRecord> p = archive.Writer(c.pszRecord);
    std::vector<BYTE> vData(c.cbData, 0x5A);
    for (DWORD h = 0; h < 3; ++h)
      for (DWORD i = 0; i < c.cFramesPerHour; ++i) Write(p, FrameTime(Ticks(kstThree) + h * kullTicksPerHour, i, c.cFramesPerHour), kdwPlain, vData);
  }
  std::vector<BYTE> vSmall(16, 0x33);
  {
    NSCom::CComPtr<IRecord> p = archive.Writer("dense");
    for (DWORD n = 0; n < kcSlots; ++n)
      Write(p, Ticks(kstDense) + n * kullTicksPerSlot, n % 10 ? kdwPlain : kdwMarked, vSmall);
  }
  {
    NSCom::CComPtr<IRecord> p = archive.Writer("year");
    for (DWORD d = 0; d < kcYearDays; ++d) {
      const bool bRare = d == 40 || d == 200 || d == 330;
      Write(p, Ticks(kstYear) + d * kullTicksPerDay, bRare ? kdwRare : kdwPlain, vSmall);
    }
  }
  {
    NSCom::CComPtr<IRecord> p = archive.Writer("month");
    for (DWORD h = 0; h < kcMonthHours; ++h)
      for (DWORD i = 0; i < kcMonthFramesPerHour; ++i)
        Write(p, FrameTime(Ticks(kstMonth) + h * kullTicksPerHour, i, kcMonthFramesPerHour), kdwPlain, vSmall);
  }
}

// ---- Raw baselines ------------------------------------------------------------------------------

struct SRawHour {
  CFile descriptor;
  CFile data;
  std::vector<SFrameInfo> vEntries;  // to find each frame's index by its time, outside the timing
};

void OpenRaw(const WString& strHour, SRawHour* pHour) {
  Check(pHour->descriptor.Open(NSPlatform::CombinePath(strHour, kszDescriptorFileName).c_str(), GENERIC_READ,
                               FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING, 0),
        "opening descriptor.ald");
  Check(pHour->data.Open(NSPlatform::CombinePath(strHour, kszDataFileName).c_str(), GENERIC_READ,
                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING, 0),
        "opening data.al");
}

constexpr double kdBudget = 1.0;  // seconds per measurement: the picks are gone through until it is spent

// Two preads per frame: its 16-byte index entry, then header, size and data in one.
double RawRandomReads(std::vector<SRawHour>& vHours, const std::vector<std::pair<DWORD, DWORD>>& vPicks,
                      std::vector<BYTE>& vBuffer) {
  CStopwatch watch;
  size_t cDone = 0;
  for (; cDone < 200 || watch.Seconds() < kdBudget; ++cDone) {
    const auto& pick = vPicks[cDone % vPicks.size()];
    SRawHour& hour = vHours[pick.first];
    SFrameInfo info;
    DWORD cb = 0;
    Check(hour.descriptor.ReadAt(ULONGLONG{pick.second} * sizeof(SFrameInfo), &info, sizeof(info), &cb), "pread");
    Check(hour.data.ReadAt(info.ullOffset, vBuffer.data(), info.dwSize, &cb), "pread");
    if (cb != info.dwSize) Die("a raw frame read", cb);
  }
  return static_cast<double>(cDone) / watch.Seconds();
}

// With bAll, every time once, whatever the budget.
double RecordRandomReads(IRecord* pRecord, const std::vector<ULONGLONG>& vTimes, std::vector<BYTE>& vBuffer,
                         bool bAll = false) {
  CStopwatch watch;
  size_t cDone = 0;
  for (; bAll ? cDone < vTimes.size() : (cDone < 200 || watch.Seconds() < kdBudget); ++cDone) {
    SFrameBuffer buffer = {vBuffer.data(), static_cast<DWORD>(vBuffer.size())};
    DWORD dwFlags = 0;
    Check(pRecord->Read(U64ToFileTime(vTimes[cDone % vTimes.size()]), &dwFlags, &buffer, 1), "IRecord::Read");
  }
  return static_cast<double>(cDone) / watch.Seconds();
}

void BenchRandomReads(CArchive& archive) {
  std::printf("1. Random exact-time reads, caller's memory, one buffer; raw: 2 preads (entry, frame)\n");
  std::printf("   %-6s %-7s | %12s %12s | %6s | %s\n", "frame", "hours", "record r/s", "raw r/s", "ratio", "goal");
  std::mt19937 rng(7);
  double dInside256 = 0, dSwitch256 = 0;
  for (const SSizeCase& c : kaSizes) {
    std::vector<SRawHour> vRaw(3);
    for (DWORD h = 0; h < 3; ++h) OpenRaw(archive.HourDirectory(c.pszRecord, Ticks(kstThree) + h * kullTicksPerHour), &vRaw[h]);
    std::vector<BYTE> vBuffer(c.cbData + 64);
    NSCom::CComPtr<IRecord> pReader = archive.Reader(c.pszRecord);
    for (DWORD nHours : {3u, 1u}) {
      const size_t cReads = 100000;
      std::vector<std::pair<DWORD, DWORD>> vPicks;
      std::vector<ULONGLONG> vTimes;
      for (size_t k = 0; k < cReads; ++k) {
        const DWORD h = nHours == 1 ? 0 : static_cast<DWORD>(rng() % 3);
        const DWORD i = static_cast<DWORD>(rng() % c.cFramesPerHour);
        vPicks.push_back({h, i + 1});
        vTimes.push_back(FrameTime(Ticks(kstThree) + h * kullTicksPerHour, i, c.cFramesPerHour));
      }
      std::vector<double> vRec, vRaw2;
      for (int r = 0; r < 3; ++r) {
        vRec.push_back(RecordRandomReads(pReader, vTimes, vBuffer));
        vRaw2.push_back(RawRandomReads(vRaw, vPicks, vBuffer));
      }
      const double dRec = Median(vRec), dRaw = Median(vRaw2);
      const char* pszGoal = nHours == 3 ? (c.cbData >= 65536 ? ">= 80%" : ">= 50%") : ">= 80%";
      std::printf("   %-6u %-7u | %12.0f %12.0f | %5.0f%% | %s\n", static_cast<unsigned>(c.cbData),
                  static_cast<unsigned>(nHours), dRec, dRaw, 100.0 * dRec / dRaw, pszGoal);
      if (c.cbData == 256 && nHours == 1) dInside256 = dRec;
      if (c.cbData == 256 && nHours == 3) dSwitch256 = dRec;
    }
    if (c.cbData == 256) {
      // System calls per read inside one hour, and the cost of a switch: reads alternating between
      // two hours against reads inside one.
      std::vector<ULONGLONG> vOne, vAlternate;
      for (DWORD k = 0; k < 2000; ++k) {
        const DWORD i = static_cast<DWORD>(rng() % c.cFramesPerHour);
        vOne.push_back(FrameTime(Ticks(kstThree), i, c.cFramesPerHour));
        vAlternate.push_back(FrameTime(Ticks(kstThree) + (k % 2) * kullTicksPerHour, i, c.cFramesPerHour));
      }
      RecordRandomReads(pReader, vOne, vBuffer);
      const long long llBefore = ReadSyscalls();
      const double dOne = RecordRandomReads(pReader, vOne, vBuffer, true);
      const long long llAfter = ReadSyscalls();
      const double dAlternate = RecordRandomReads(pReader, vAlternate, vBuffer);
      std::printf("   inside one hour: %.2f read calls per read (goal <= 2)\n",
                  static_cast<double>(llAfter - llBefore) / static_cast<double>(vOne.size()));
      std::printf("   hour switch (every read in the other of two hours): %.1f us per switch (goal <= 50 us)\n",
                  1e6 * (1.0 / dAlternate - 1.0 / dOne));
    }
    std::fflush(stdout);
  }
  (void)dInside256;
  (void)dSwitch256;
  std::printf("\n");
}

// ---- Scans ----------------------------------------------------------------------------------------

void BenchScans(CArchive& archive) {
  std::printf("2. Scan of three hours: GetNext + Read per frame; raw: data.al read in 1 MiB reads\n");
  std::printf("   %-6s | %12s %12s | %10s %10s | %6s | %s\n", "frame", "record fr/s", "raw fr/s", "rec MiB/s",
              "raw MiB/s", "ratio", "goal");
  for (const SSizeCase& c : kaSizes) {
    if (c.cbData == 4096) continue;
    const ULONGLONG cFrames = 3ull * c.cFramesPerHour;
    const double dMiB = static_cast<double>(cFrames * FrameSize(BufferRecordSize(c.cbData))) / 1048576.0;
    std::vector<BYTE> vBuffer(c.cbData + 64), vChunk(1 << 20);
    std::vector<double> vRec, vRaw;
    for (int r = 0; r < 3; ++r) {
      NSCom::CComPtr<IRecord> pReader = archive.Reader(c.pszRecord);
      CStopwatch watch;
      FILETIME ft = {0, 0};
      ULONGLONG cFound = 0;
      while (SUCCEEDED(pReader->GetNext(ft, nullptr, &ft))) {
        SFrameBuffer buffer = {vBuffer.data(), static_cast<DWORD>(vBuffer.size())};
        DWORD dwFlags = 0;
        Check(pReader->Read(ft, &dwFlags, &buffer, 1), "IRecord::Read");
        ++cFound;
      }
      vRec.push_back(static_cast<double>(cFound) / watch.Seconds());
      if (cFound != cFrames) Die("scanning the frames", static_cast<long long>(cFound));
      CStopwatch rawWatch;
      for (DWORD h = 0; h < 3; ++h) {
        CFile data;
        Check(data.Open(NSPlatform::CombinePath(archive.HourDirectory(c.pszRecord, Ticks(kstThree) + h * kullTicksPerHour),
                                                kszDataFileName).c_str(),
                        GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING, 0),
              "opening data.al");
        ULONGLONG ullPos = 0;
        for (DWORD cb = 0;; ullPos += cb) {
          Check(data.ReadAt(ullPos, vChunk.data(), static_cast<DWORD>(vChunk.size()), &cb), "read");
          if (!cb) break;
        }
      }
      vRaw.push_back(static_cast<double>(cFrames) / rawWatch.Seconds());
    }
    const double dRec = Median(vRec), dRaw = Median(vRaw);
    const double dFramesToMiB = dMiB / static_cast<double>(cFrames);
    std::printf("   %-6u | %12.0f %12.0f | %10.0f %10.0f | %5.1f%% | %s\n", static_cast<unsigned>(c.cbData), dRec, dRaw,
                dRec * dFramesToMiB, dRaw * dFramesToMiB, 100.0 * dRec / dRaw, c.cbData == 256 ? ">= 1 M fr/s" : ">= 60%");
    std::fflush(stdout);
  }
  std::printf("\n");
}

// ---- Dense hour -------------------------------------------------------------------------------------

void BenchDense(CArchive& archive) {
  std::printf("3. GetNext through one hour with a frame in every 10 ms slot (a fresh reader per walk)\n");
  NSCom::CComPtr<IRecord> pReader = archive.Reader("dense");
  for (const SFrameFilter* pFilter : {static_cast<const SFrameFilter*>(nullptr), &kMarked}) {
    std::vector<double> vRates;
    for (int r = 0; r < 3; ++r) {
      CStopwatch watch;
      FILETIME ft = {0, 0};
      ULONGLONG cSteps = 0;
      while (SUCCEEDED(pReader->GetNext(ft, pFilter, &ft))) ++cSteps;
      if (cSteps != (pFilter ? kcSlots / 10 : kcSlots)) Die("walking the dense hour", static_cast<long long>(cSteps));
      vRates.push_back(static_cast<double>(cSteps) / watch.Seconds());
    }
    std::printf("   %-10s %8.2f M steps/s   goal >= %s\n", pFilter ? "filtered" : "unfiltered", Median(vRates) / 1e6,
                pFilter ? "3 M" : "5 M");
  }
  std::fflush(stdout);
  std::printf("\n");
}

// ---- Sparse year --------------------------------------------------------------------------------------

// The raw walk: every directory of the record's tree listed once, per hour found.
double RawTreeWalk(const WString& strRecord) {
  CStopwatch watch;
  ULONGLONG cHours = 0;
  std::vector<NSPlatform::SDirEntry> vYears, vMonths, vDays, vHours;
  Check(NSPlatform::ListDir(strRecord.c_str(), &vYears), "ListDir");
  for (const auto& y : vYears) {
    if (!y.IsDirectory()) continue;
    const WString strY = NSPlatform::CombinePath(strRecord, y.strName);
    Check(NSPlatform::ListDir(strY.c_str(), &vMonths), "ListDir");
    for (const auto& m : vMonths) {
      const WString strM = NSPlatform::CombinePath(strY, m.strName);
      Check(NSPlatform::ListDir(strM.c_str(), &vDays), "ListDir");
      for (const auto& d : vDays) {
        Check(NSPlatform::ListDir(NSPlatform::CombinePath(strM, d.strName).c_str(), &vHours), "ListDir");
        cHours += vHours.size();
      }
    }
  }
  if (cHours != kcYearDays) Die("walking the year's tree", static_cast<long long>(cHours));
  return watch.Seconds() / static_cast<double>(cHours);
}

void BenchSparse(CArchive& archive) {
  std::printf("4. A sparse year (one frame at 12h of every day of 2022), fresh reader per walk\n");
  std::vector<double> vCall, vRare, vRaw;
  for (int r = 0; r < 3; ++r) {
    {
      NSCom::CComPtr<IRecord> pReader = archive.Reader("year");
      CStopwatch watch;
      FILETIME ft = {0, 0};
      ULONGLONG cCalls = 1;
      for (; SUCCEEDED(pReader->GetNext(ft, nullptr, &ft)); ++cCalls) {
      }
      if (cCalls != kcYearDays + 1) Die("walking the year", static_cast<long long>(cCalls));
      vCall.push_back(watch.Seconds() / static_cast<double>(cCalls));
    }
    {
      NSCom::CComPtr<IRecord> pReader = archive.Reader("year");
      CStopwatch watch;
      FILETIME ft = {0, 0};
      ULONGLONG cCalls = 1;
      for (; SUCCEEDED(pReader->GetNext(ft, &kRare, &ft)); ++cCalls) {
      }
      if (cCalls != 4) Die("finding the rare flag", static_cast<long long>(cCalls));
      vRare.push_back(watch.Seconds() / static_cast<double>(cCalls));
    }
    vRaw.push_back(RawTreeWalk(archive.RecordPath("year")));
  }
  std::printf("   GetNext per call, unfiltered      %9.3f ms   (raw readdir walk %.1f us per hour)   goal < 0.5 ms\n",
              Median(vCall) * 1e3, Median(vRaw) * 1e6);
  std::printf("   GetNext per call, flag in 3 hours %9.3f ms   goal < 5 ms\n\n", Median(vRare) * 1e3);
  std::fflush(stdout);
}

// ---- Statistics ---------------------------------------------------------------------------------------

double RawCounters(CArchive& archive) {
  CStopwatch watch;
  DWORD vCounters[kcFlagBits];
  for (DWORD h = 0; h < kcMonthHours; ++h) {
    CFile hash;
    Check(hash.Open(NSPlatform::CombinePath(archive.HourDirectory("month", Ticks(kstMonth) + h * kullTicksPerHour),
                                            kszHashFileName).c_str(),
                    GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, OPEN_EXISTING, 0),
          "opening descriptor.alh");
    DWORD cb = 0;
    Check(hash.ReadAt(offsetof(SHashFile, vHourFlagCounters), vCounters, sizeof(vCounters), &cb), "read");
  }
  return watch.Seconds();
}

void BenchStatistic(CArchive& archive) {
  std::printf("5. GetStatistic over 30 days (720 hours, a frame every 10 s) at one-hour resolution\n");
  const FILETIME ftBegin = U64ToFileTime(Ticks(kstMonth));
  const FILETIME ftEnd = U64ToFileTime(Ticks(kstMonth) + kcMonthHours * kullTicksPerHour - 1);
  const FILETIME ftHour = U64ToFileTime(kullTicksPerHour);
  std::vector<double> vCold, vWarm, vRaw;
  for (int r = 0; r < 3; ++r) {
    NSCom::CComPtr<IRecord> pReader = archive.Reader("month");
    for (int k = 0; k < 2; ++k) {
      DWORD cRuns = 0;
      SRecordStatistic* pRuns = nullptr;
      CStopwatch watch;
      Check(pReader->GetStatistic(ftBegin, ftEnd, ftHour, nullptr, 0, &cRuns, &pRuns), "IRecord::GetStatistic");
      (k ? vWarm : vCold).push_back(watch.Seconds());
      if (!cRuns) Die("the month's statistic", 0);
      CoTaskMemFree(pRuns);
    }
    vRaw.push_back(RawCounters(archive));
  }
  std::printf("   cold (fresh reader) %8.1f ms   raw counters of every hour %6.1f ms   ratio %.1fx   goal within 2x\n",
              Median(vCold) * 1e3, Median(vRaw) * 1e3, Median(vCold) / Median(vRaw));
  std::printf("   warm (same reader)  %8.1f ms   goal < 50 ms\n\n", Median(vWarm) * 1e3);
  std::fflush(stdout);
}

}  // namespace

int main() {
  ProgramName() = "kv_read_bench";
  // $KRONVALE_READ_BENCH_DATA names an archive directory to keep: prepared there by the first run
  // (about 1.5 GB), used as it is by the next ones, so that two builds are measured on the same files.
  const char* pszKeep = std::getenv("KRONVALE_READ_BENCH_DATA");
  const bool bKeep = pszKeep && *pszKeep;
  const WString strRoot = bKeep ? WString() : MakeRunDirectory();
  static WString s_strRoot = strRoot;
  if (!bKeep) AtDie() = [] { NSKronvaleUtils::DeleteFileSystemObject(s_strRoot); };
  const WString strArchive = bKeep ? NSPlatform::Utf8ToWide(pszKeep) : NSPlatform::CombinePath(strRoot, KV_W("read"));
  if (!bKeep || !NSPlatform::PathExists(NSPlatform::CombinePath(strArchive, KV_W("settings.als")).c_str())) {
    std::printf("kv_read_bench: preparing the data...\n");
    std::fflush(stdout);
    const HRESULT hrDir = NSPlatform::CreateDirTree(strArchive.c_str());
    if (FAILED(hrDir) && hrDir != KvHResultFromWin32(ERROR_ALREADY_EXISTS)) Die("creating the archive directory", hrDir);
    CArchive archive(strArchive);
    WriteData(archive);
  }
  {
    // $KRONVALE_READ_BENCH_ONLY, a list of section numbers ("14"), runs only those sections.
    const char* pszOnly = std::getenv("KRONVALE_READ_BENCH_ONLY");
    const auto Runs = [pszOnly](char c) { return !pszOnly || !*pszOnly || std::strchr(pszOnly, c); };
    CArchive archive(strArchive);
    if (Runs('1')) BenchRandomReads(archive);
    if (Runs('2')) BenchScans(archive);
    if (Runs('3')) BenchDense(archive);
    if (Runs('4')) BenchSparse(archive);
    if (Runs('5')) BenchStatistic(archive);
  }
  if (!bKeep) NSKronvaleUtils::DeleteFileSystemObject(strRoot);
  return 0;
}
