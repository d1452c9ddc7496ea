// Speed of one hour (CHourManager) on the native build, against baselines measured in the same run
// on the same file system: appends against plain sequential writes of the same bytes, reads by time
// against two plain preads per frame, sibling walks against a scan of the same slot grid in memory.
// bench/README.md explains the table. Nothing here asserts a speed: the goals are printed beside
// what was measured.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>
#include <kronvale/KronvaleResults.h>

#include "BenchSupport.h"
#include "hours/HourManager.h"
#include "hours/KronvaleUtils.h"
#include "platform/os.h"
#include "support/Lock.h"

using namespace NSKronvale;
using namespace NSHours;
using NSPlatform::NSFault::EOp;

using namespace NSBench;

namespace {

constexpr DWORD kdwFrameFlags = 0x1;
constexpr double kdMiB = 1024.0 * 1024.0;

// Every frame of the benchmark lies in 2021-03-07 12h UTC.
constexpr SYSTEMTIME kstHour = {2021, 3, 0, 7, 12, 0, 0, 0};

SYSTEMTIME SlotTime(DWORD dwSlot) {
  SYSTEMTIME st = kstHour;
  SlotToSystemTime(dwSlot, &st);
  return st;
}

ULONGLONG HourStartTicks() {
  FILETIME ft = {};
  NSPlatform::SysTimeToFileTime(&kstHour, &ft);
  return NSPlatform::FileTimeToU64(ft);
}

// The process's read and write system calls so far, as the kernel counts them (/proc/self/io:
// read, pread, readv... and write, pwrite, writev... each count once). -1 when the kernel does not
// keep the count. Reading the file costs read calls only, so write counts stay exact.
struct SSyscalls {
  long long llReads = -1;
  long long llWrites = -1;
};

SSyscalls CountSyscalls() {
  SSyscalls counts;
  std::FILE* pFile = std::fopen("/proc/self/io", "r");
  if (!pFile) return counts;
  char szLine[128];
  while (std::fgets(szLine, sizeof(szLine), pFile)) {
    std::sscanf(szLine, "syscr: %lld", &counts.llReads);
    std::sscanf(szLine, "syscw: %lld", &counts.llWrites);
  }
  std::fclose(pFile);
  return counts;
}

double PerItem(long long llBefore, long long llAfter, ULONGLONG cItems) {
  if (llBefore < 0 || llAfter < 0 || !cItems) return -1.0;
  return static_cast<double>(llAfter - llBefore) / static_cast<double>(cItems);
}

void FillPattern(BYTE* pb, size_t cb, unsigned nSeed) {
  for (size_t i = 0; i < cb; ++i) pb[i] = static_cast<BYTE>(i * 131u + nSeed);
}

// <root>/<record>/2021/03/07/12, the layout a record gives its hours.
WString HourPath(const CBenchDir& dir, const char* pszRecord) {
  return NSPlatform::CombinePath(NSPlatform::CombinePath(dir.Root(), NSPlatform::Utf8ToWide(pszRecord)),
                                 NSKronvaleUtils::FormatHourPath(kstHour));
}

// Leftover dirty pages of the previous case must not be written back during the next one.
void Settle() { ::sync(); }

// ---- Appends --------------------------------------------------------------------------------------

struct SAppendRun {
  ULONGLONG cFrames = 0;
  double dSeconds = 0;
  double dSeamWrites = -1;    // CFile write calls per frame (the platform fault seam's count)
  double dKernelWrites = -1;  // write system calls per frame
  ULONGLONG cbPerFrame = 0;   // data.al and index bytes of one frame
  double FramesPerSecond() const { return dSeconds > 0 ? static_cast<double>(cFrames) / dSeconds : 0; }
  double MiBPerSecond() const { return FramesPerSecond() * static_cast<double>(cbPerFrame) / kdMiB; }
};

ULONGLONG AppendedBytesPerFrame(DWORD cbData) { return FrameSize(BufferRecordSize(cbData)) + sizeof(SFrameInfo); }

// Appends up to cMax frames of one buffer, one per 10 ms slot from the start of the hour, and stops
// early once dBudget seconds have passed. Open and close are not timed.
SAppendRun AppendHour(const CBenchDir& dir, const NSSystem::ILockPtr& pLock, DWORD cbData, bool bBuffered,
                      ULONGLONG cMax, double dBudget) {
  std::vector<BYTE> vData(cbData);
  FillPattern(vData.data(), vData.size(), 7);
  SHourFrameBuffer buffer = {vData.data(), cbData};
  CHourManager hour(pLock);
  Check(hour.Open(HourPath(dir, "append"), true, bBuffered), "CHourManager::Open");
  Settle();

  SAppendRun run;
  run.cbPerFrame = AppendedBytesPerFrame(cbData);
  const unsigned nSeamBefore = NSPlatform::NSFault::GetCallCount(EOp::Write);
  const SSyscalls before = CountSyscalls();
  CStopwatch watch;
  ULONGLONG i = 0;
  for (; i < cMax; ++i) {
    if ((i & 63) == 0 && i && watch.Seconds() > dBudget) break;
    vData[0] = static_cast<BYTE>(i);
    Check(hour.Write(SlotTime(static_cast<DWORD>(i)), kdwFrameFlags, &buffer, 1), "CHourManager::Write");
  }
  run.dSeconds = watch.Seconds();
  const SSyscalls after = CountSyscalls();
  run.cFrames = i;
  run.dSeamWrites = PerItem(nSeamBefore, NSPlatform::NSFault::GetCallCount(EOp::Write), i);
  run.dKernelWrites = PerItem(before.llWrites, after.llWrites, i);
  if (hour.GetFrameCount() != i) Die("counting the appended frames", static_cast<long long>(hour.GetFrameCount()));
  if (!hour.RemoveHour()) Die("CHourManager::RemoveHour", 0);
  return run;
}

// The baseline: the same bytes per frame as the hour writes (header, size, data to one file; the
// 16-byte entry to another) with one plain write each, write-through (O_DSYNC, what the platform
// layer gives FILE_FLAG_WRITE_THROUGH) when the hour is.
SAppendRun AppendRaw(const CBenchDir& dir, DWORD cbData, bool bBuffered, ULONGLONG cFrames) {
  const std::string strData = dir.Native("raw.data");
  const std::string strIndex = dir.Native("raw.index");
  const int nFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | (bBuffered ? 0 : O_DSYNC);
  const int fdData = ::open(strData.c_str(), nFlags, 0644);
  const int fdIndex = ::open(strIndex.c_str(), nFlags, 0644);
  if (fdData < 0 || fdIndex < 0) Die("opening the raw files", errno);

  std::vector<BYTE> vFrame(FrameSize(BufferRecordSize(cbData)));
  const SFrameHeader header = {SFrameHeader::MakeSignature(), {}, kdwFrameFlags, 1, BufferRecordSize(cbData)};
  std::memcpy(vFrame.data(), &header, sizeof(header));
  std::memcpy(vFrame.data() + sizeof(header), &cbData, sizeof(cbData));
  BYTE* pData = vFrame.data() + sizeof(header) + sizeof(DWORD);
  FillPattern(pData, cbData, 7);
  SFrameInfo info = {kdwFrameFlags, 0, static_cast<DWORD>(vFrame.size())};
  const ULONGLONG ullHourStart = HourStartTicks();
  Settle();

  SAppendRun run;
  run.cbPerFrame = AppendedBytesPerFrame(cbData);
  const SSyscalls before = CountSyscalls();
  CStopwatch watch;
  for (ULONGLONG i = 0; i < cFrames; ++i) {
    const ULONGLONG ullTime = ullHourStart + i * kullTicksPerSlot;
    std::memcpy(vFrame.data() + offsetof(SFrameHeader, ftTime), &ullTime, sizeof(ullTime));
    if (cbData) pData[0] = static_cast<BYTE>(i);
    WriteAll(fdData, vFrame.data(), vFrame.size(), "writing the raw data file");
    WriteAll(fdIndex, &info, sizeof(info), "writing the raw index file");
    info.ullOffset += vFrame.size();
  }
  run.dSeconds = watch.Seconds();
  const SSyscalls after = CountSyscalls();
  run.cFrames = cFrames;
  run.dKernelWrites = PerItem(before.llWrites, after.llWrites, cFrames);
  ::close(fdData);
  ::close(fdIndex);
  ::unlink(strData.c_str());
  ::unlink(strIndex.c_str());
  return run;
}

struct SAppendCase {
  DWORD cbData;
  ULONGLONG cMaxFrames;
};

struct SAppendResult {
  bool bBuffered;
  DWORD cbData;
  ULONGLONG cFrames;
  double dHourFps, dHourMiBps, dRawFps, dRawMiBps, dRatio;
  double dSeamWrites, dKernelWrites, dRawKernelWrites;
};

// Rounds alternate which side goes first; the first round's hour run fixes the frame count (it may
// stop at the time budget), and every later run writes that many frames. Rates are the medians over
// the rounds, the ratio the median of each round's hour/raw bandwidth ratio.
SAppendResult RunAppendCase(const CBenchDir& dir, const NSSystem::ILockPtr& pLock, const SAppendCase& c,
                            bool bBuffered, int cRounds, double dBudget) {
  std::vector<double> vHourFps, vHourMiBps, vRawFps, vRawMiBps, vRatio;
  SAppendResult res = {bBuffered, c.cbData, c.cMaxFrames, 0, 0, 0, 0, 0, -1, -1, -1};
  for (int r = 0; r < cRounds; ++r) {
    SAppendRun hour, raw;
    if (r % 2 == 0) {
      hour = AppendHour(dir, pLock, c.cbData, bBuffered, res.cFrames, r == 0 ? dBudget : 1e9);
      res.cFrames = hour.cFrames;
      raw = AppendRaw(dir, c.cbData, bBuffered, res.cFrames);
    } else {
      raw = AppendRaw(dir, c.cbData, bBuffered, res.cFrames);
      hour = AppendHour(dir, pLock, c.cbData, bBuffered, res.cFrames, 1e9);
    }
    if (r == 0) {
      res.dSeamWrites = hour.dSeamWrites;
      res.dKernelWrites = hour.dKernelWrites;
      res.dRawKernelWrites = raw.dKernelWrites;
    }
    vHourFps.push_back(hour.FramesPerSecond());
    vHourMiBps.push_back(hour.MiBPerSecond());
    vRawFps.push_back(raw.FramesPerSecond());
    vRawMiBps.push_back(raw.MiBPerSecond());
    vRatio.push_back(raw.MiBPerSecond() > 0 ? hour.MiBPerSecond() / raw.MiBPerSecond() : 0);
  }
  res.dHourFps = Median(vHourFps);
  res.dHourMiBps = Median(vHourMiBps);
  res.dRawFps = Median(vRawFps);
  res.dRawMiBps = Median(vRawMiBps);
  res.dRatio = Median(vRatio);
  return res;
}

std::string SizeText(DWORD cb) {
  if (cb >= 1024 && cb % 1024 == 0) return std::to_string(cb / 1024) + " KiB";
  return std::to_string(cb) + " B";
}

std::string Calls(double d) {
  if (d < 0) return "n/a";
  char sz[32];
  std::snprintf(sz, sizeof(sz), "%.2f", d);
  return sz;
}

std::vector<SAppendResult> BenchAppends(const CBenchDir& dir, const NSSystem::ILockPtr& pLock) {
  const SAppendCase vCases[] = {{256, 200000}, {4096, 200000}, {65536, 16384}};
  std::vector<SAppendResult> vResults;
  std::printf("1. Append: CHourManager::Write against plain sequential writes of the same bytes\n");
  std::printf("   per frame: 28 B header + 4 B size + data to one file, a 16 B entry to another; MiB/s counts both\n");
  std::printf("   buffered: 3 rounds, write-through: 2 rounds (O_DSYNC on both sides); medians shown\n\n");
  std::printf("   %-13s %-7s %7s | %12s %10s | %12s %10s | %8s | %-22s %s\n", "mode", "frame", "frames", "hour fr/s",
              "hour MiB/s", "raw fr/s", "raw MiB/s", "hour/raw", "hour writes/frame", "raw writes/frame");
  std::printf("   %-13s %-7s %7s | %12s %10s | %12s %10s | %8s | %-22s %s\n", "", "", "", "", "", "", "", "",
              "(seam, syscalls)", "(syscalls)");
  for (bool bBuffered : {true, false}) {
    for (const SAppendCase& c : vCases) {
      const SAppendResult res =
          RunAppendCase(dir, pLock, c, bBuffered, bBuffered ? 3 : 2, bBuffered ? 4.0 : 2.0);
      std::printf("   %-13s %-7s %7llu | %12.0f %10.1f | %12.0f %10.1f | %7.1f%% | %-6s %-15s %s\n",
                  bBuffered ? "buffered" : "write-through", SizeText(c.cbData).c_str(),
                  static_cast<unsigned long long>(res.cFrames), res.dHourFps, res.dHourMiBps, res.dRawFps,
                  res.dRawMiBps, res.dRatio * 100.0, Calls(res.dSeamWrites).c_str(), Calls(res.dKernelWrites).c_str(),
                  Calls(res.dRawKernelWrites).c_str());
      std::fflush(stdout);
      vResults.push_back(res);
    }
  }
  std::printf("\n");
  return vResults;
}

// ---- Hours for reading ------------------------------------------------------------------------------

// Writes the frames (slot, flags) in slot order, each one buffer of cbData bytes whose first four
// bytes hold the frame's position in the list, then closes the hour: a reader opening it afterwards
// sees everything.
void WriteHour(const WString& strPath, const NSSystem::ILockPtr& pLock, const std::vector<DWORD>& vSlots,
               const std::vector<DWORD>& vFlags, DWORD cbData) {
  CHourManager hour(pLock);
  Check(hour.Open(strPath, true, true), "CHourManager::Open (writing)");
  std::vector<BYTE> vData(std::max<DWORD>(cbData, sizeof(DWORD)));
  FillPattern(vData.data(), vData.size(), 3);
  SHourFrameBuffer buffer = {vData.data(), cbData};
  for (size_t i = 0; i < vSlots.size(); ++i) {
    const DWORD dwPosition = static_cast<DWORD>(i);
    std::memcpy(vData.data(), &dwPosition, sizeof(dwPosition));
    Check(hour.Write(SlotTime(vSlots[i]), vFlags[i], &buffer, 1), "CHourManager::Write (preparing)");
  }
  hour.Close();
}

// ---- Reads by time ----------------------------------------------------------------------------------

struct SReadRun {
  ULONGLONG cReads = 0;
  double dSeconds = 0;
  ULONGLONG cBad = 0;
  double dKernelReads = -1;
  double Rate() const { return dSeconds > 0 ? static_cast<double>(cReads) / dSeconds : 0; }
};

void BenchReads(const CBenchDir& dir, const NSSystem::ILockPtr& pLock) {
  constexpr DWORD kcFrames = 100000;
  constexpr DWORD kcbData = 256;
  constexpr double kdBudget = 1.0;
  std::mt19937_64 random(20210307);
  std::vector<DWORD> vSlots(kcSlots);
  std::iota(vSlots.begin(), vSlots.end(), 0u);
  std::shuffle(vSlots.begin(), vSlots.end(), random);
  vSlots.resize(kcFrames);
  std::sort(vSlots.begin(), vSlots.end());
  const WString strPath = HourPath(dir, "read");
  WriteHour(strPath, pLock, vSlots, std::vector<DWORD>(kcFrames, kdwFrameFlags), kcbData);

  std::vector<DWORD> vOrder(1u << 20);
  std::uniform_int_distribution<DWORD> pick(0, kcFrames - 1);
  for (DWORD& dw : vOrder) dw = pick(random);

  CHourManager hour(pLock);
  Check(hour.Open(strPath, false, true), "CHourManager::Open (reading)");
  const std::string strData = NSPlatform::WideToUtf8(NSPlatform::CombinePath(strPath, kszDataFileName));
  const std::string strIndex = NSPlatform::WideToUtf8(NSPlatform::CombinePath(strPath, kszDescriptorFileName));
  const int fdData = ::open(strData.c_str(), O_RDONLY | O_CLOEXEC);
  const int fdIndex = ::open(strIndex.c_str(), O_RDONLY | O_CLOEXEC);
  if (fdData < 0 || fdIndex < 0) Die("opening the hour's files for the raw reads", errno);
  Settle();

  // Reads at the positions of vOrder, one call of fnRead each (false: a wrong frame), until the
  // budget is spent, counting the kernel's reads.
  auto timeReads = [&](auto fnRead) {
    SReadRun run;
    const SSyscalls before = CountSyscalls();
    CStopwatch watch;
    for (size_t i = 0; i < vOrder.size(); ++i) {
      if ((i & 255) == 0 && i && watch.Seconds() > kdBudget) break;
      if (!fnRead(vOrder[i])) ++run.cBad;
      ++run.cReads;
    }
    run.dSeconds = watch.Seconds();
    run.dKernelReads = PerItem(before.llReads, CountSyscalls().llReads, run.cReads);
    return run;
  };
  // Caller memory: one block, the capacity given again on every call.
  std::vector<BYTE> vBlock(kcbData);
  auto readHour = [&]() {
    return timeReads([&](DWORD dwPosition) {
      SHourFrameBuffer buffer = {vBlock.data(), kcbData};
      DWORD dwFlags = 0;
      const HRESULT hr = hour.Read(SlotTime(vSlots[dwPosition]), &dwFlags, &buffer, 1);
      return hr == S_OK && buffer.dwDataSize == kcbData && !std::memcmp(vBlock.data(), &dwPosition, sizeof(DWORD));
    });
  };
  // The baseline knows the frame's index entry without a slot and reads it, then the frame: the
  // least a reader of these files can do.
  std::vector<BYTE> vFrame(FrameSize(BufferRecordSize(kcbData)));
  auto readRaw = [&]() {
    return timeReads([&](DWORD dwPosition) {
      SFrameInfo info;
      const ssize_t nInfo = ::pread(fdIndex, &info, sizeof(info), (dwPosition + 1) * off_t{sizeof(info)});
      const ssize_t nFrame = nInfo == sizeof(info) && info.dwSize <= vFrame.size()
                                 ? ::pread(fdData, vFrame.data(), info.dwSize, static_cast<off_t>(info.ullOffset))
                                 : -1;
      return nFrame == static_cast<ssize_t>(vFrame.size()) &&
             !std::memcmp(vFrame.data() + sizeof(SFrameHeader) + sizeof(DWORD), &dwPosition, sizeof(DWORD));
    });
  };

  std::vector<double> vHour, vRaw, vRatio;
  SReadRun hourRun, rawRun;
  ULONGLONG cBad = 0;
  for (int r = 0; r < 2; ++r) {
    if (r == 0) {
      hourRun = readHour();
      rawRun = readRaw();
    } else {
      rawRun = readRaw();
      hourRun = readHour();
    }
    cBad += hourRun.cBad + rawRun.cBad;
    vHour.push_back(hourRun.Rate());
    vRaw.push_back(rawRun.Rate());
    vRatio.push_back(rawRun.Rate() > 0 ? hourRun.Rate() / rawRun.Rate() : 0);
  }
  ::close(fdData);
  ::close(fdIndex);
  hour.RemoveHour();

  std::printf("2. Read by time: %u frames of %u B in random slots of one hour, random frame each read,\n", kcFrames,
              kcbData);
  std::printf("   caller memory, files in the page cache; 2 rounds, the higher rate shown\n\n");
  std::printf("   %-44s %12s %14s\n", "", "reads/s", "read syscalls");
  std::printf("   %-44s %12.0f %14s\n", "CHourManager::Read", *std::max_element(vHour.begin(), vHour.end()),
              Calls(hourRun.dKernelReads).c_str());
  std::printf("   %-44s %12.0f %14s\n", "raw: pread index entry + pread frame", *std::max_element(vRaw.begin(), vRaw.end()),
              Calls(rawRun.dKernelReads).c_str());
  std::printf("   %-44s %11.1f%%\n", "hour/raw (median of the rounds)", Median(vRatio) * 100.0);
  if (cBad) std::printf("   WARNING: %llu reads returned wrong data\n", static_cast<unsigned long long>(cBad));
  std::printf("\n");
  std::fflush(stdout);
}

// ---- Sibling walks -----------------------------------------------------------------------------------

// Forward walks from the start of the hour until the hour has no further frame, repeated until
// dBudget seconds have passed. Every call counts as a step, the last one of a walk (which finds
// nothing) included.
struct SWalkRun {
  ULONGLONG cSteps = 0;
  ULONGLONG cFoundPerWalk = 0;
  double dSeconds = 0;
  double Rate() const { return dSeconds > 0 ? static_cast<double>(cSteps) / dSeconds : 0; }
};

SWalkRun WalkHour(CHourManager& hour, const SHourFrameFilter* pFilter, double dBudget) {
  SWalkRun run;
  CStopwatch watch;
  do {
    SYSTEMTIME st = SlotTime(0);
    bool bIncludeStart = true;
    ULONGLONG cFound = 0;
    for (;;) {
      FILETIME ft;
      const HRESULT hr = hour.GetSibling(st, pFilter, &ft, bIncludeStart, true);
      ++run.cSteps;
      if (hr == khrNotFound) break;
      Check(hr, "CHourManager::GetSibling");
      if (!NSPlatform::FileTimeToSysTime(&ft, &st)) Die("FileTimeToSysTime", 0);
      bIncludeStart = false;
      ++cFound;
    }
    run.cFoundPerWalk = cFound;
  } while (watch.Seconds() < dBudget);
  run.dSeconds = watch.Seconds();
  return run;
}

// The baseline of an unfiltered walk: the same slot grid (descriptor.alh read into memory) scanned
// for the next occupied slot, without the lock, the time conversions or the call.
SWalkRun WalkGrid(const std::vector<SFrameInfoHash>& vGrid, double dBudget) {
  SWalkRun run;
  CStopwatch watch;
  volatile DWORD dwSink = 0;
  do {
    ULONGLONG cFound = 0;
    DWORD n = 0;
    for (;;) {
      while (n < kcSlots && !vGrid[n].GetIndex()) ++n;
      ++run.cSteps;
      if (n >= kcSlots) break;
      dwSink = dwSink + n;
      ++cFound;
      ++n;
    }
    run.cFoundPerWalk = cFound;
  } while (watch.Seconds() < dBudget);
  run.dSeconds = watch.Seconds();
  return run;
}

std::vector<SFrameInfoHash> ReadGrid(const WString& strHour) {
  const std::string strHash = NSPlatform::WideToUtf8(NSPlatform::CombinePath(strHour, kszHashFileName));
  std::vector<SFrameInfoHash> vGrid(kcSlots);
  const int fd = ::open(strHash.c_str(), O_RDONLY | O_CLOEXEC);
  const size_t cb = vGrid.size() * sizeof(SFrameInfoHash);
  if (fd < 0 || ::pread(fd, vGrid.data(), cb, 0) != static_cast<ssize_t>(cb)) Die("reading descriptor.alh", errno);
  ::close(fd);
  return vGrid;
}

void PrintWalk(const char* pszWhat, const SWalkRun& run, ULONGLONG cExpected, const SWalkRun* pBaseline) {
  std::printf("   %-56s %12.0f %9llu", pszWhat, run.Rate(), static_cast<unsigned long long>(run.cFoundPerWalk));
  if (pBaseline)
    std::printf(" %14.0f %8.1f%%", pBaseline->Rate(), pBaseline->Rate() > 0 ? 100.0 * run.Rate() / pBaseline->Rate() : 0);
  std::printf("\n");
  if (run.cFoundPerWalk != cExpected)
    std::printf("   WARNING: the walk found %llu frames, %llu expected\n",
                static_cast<unsigned long long>(run.cFoundPerWalk), static_cast<unsigned long long>(cExpected));
}

void BenchSiblings(const CBenchDir& dir, const NSSystem::ILockPtr& pLock) {
  constexpr double kdBudget = 1.0;
  // Dense: a frame in every 10 ms slot of the first 200,000 (33 minutes 20 seconds), all flag 0x1.
  constexpr DWORD kcDense = 200000;
  std::vector<DWORD> vSlots(kcDense);
  std::iota(vSlots.begin(), vSlots.end(), 0u);
  const WString strDense = HourPath(dir, "dense");
  WriteHour(strDense, pLock, vSlots, std::vector<DWORD>(kcDense, kdwFrameFlags), 16);

  // Sparse: four frames a minute (seconds 7, 22, 37, 52), flag 0x1; in minutes 3, 13, ... 53 the
  // frame at second 22 also carries 0x2. A filter on 0x2 finds six frames, and the minute masks let
  // it skip the other 54 minutes without looking at their slots.
  std::vector<DWORD> vSparse, vSparseFlags;
  for (DWORD m = 0; m < kcMinutes; ++m) {
    for (DWORD s : {7u, 22u, 37u, 52u}) {
      vSparse.push_back(SlotIndex(m, s, 0));
      vSparseFlags.push_back(m % 10 == 3 && s == 22 ? 0x3u : 0x1u);
    }
  }
  const WString strSparse = HourPath(dir, "sparse");
  WriteHour(strSparse, pLock, vSparse, vSparseFlags, 16);

  const SHourFrameFilter anyOfFirst = {0x1, 0};   // matches every frame: each step reads its entry
  const SHourFrameFilter anyOfSecond = {0x2, 0};  // prunes 54 of the 60 minutes of the sparse hour

  std::printf("3. GetSibling forward walks (steps/s; every call is a step, the final not-found one included)\n\n");
  std::printf("   %-56s %12s %9s %14s %9s\n", "", "steps/s", "found", "grid scan st/s", "hour/scan");
  // One hour walked without a filter (beside a scan of its grid) and with one.
  auto walkBoth = [&](const WString& strHour, const char* pszOpen, const char* pszWhat, ULONGLONG cFrames,
                      const char* pszFiltered, const SHourFrameFilter& filter, ULONGLONG cFiltered) {
    CHourManager hour(pLock);
    Check(hour.Open(strHour, false, true), pszOpen);
    const std::vector<SFrameInfoHash> vGrid = ReadGrid(strHour);
    Settle();
    const SWalkRun walk = WalkHour(hour, nullptr, kdBudget);
    const SWalkRun grid = WalkGrid(vGrid, kdBudget);
    PrintWalk(pszWhat, walk, cFrames, &grid);
    PrintWalk(pszFiltered, WalkHour(hour, &filter, kdBudget), cFiltered, nullptr);
    hour.RemoveHour();
  };
  walkBoth(strDense, "CHourManager::Open (dense)", "dense hour (200,000 frames, 10 ms apart), no filter", kcDense,
           "dense hour, filter 0x1/any (every frame matches)", anyOfFirst, kcDense);
  walkBoth(strSparse, "CHourManager::Open (sparse)", "sparse hour (4 frames/minute), no filter", vSparse.size(),
           "sparse hour, filter 0x2/any (54 of 60 minutes pruned)", anyOfSecond, 6);
  std::printf("\n");
  std::fflush(stdout);
}

// ---- Hour roll-over -----------------------------------------------------------------------------------

// Hours 2021-03-07 00h on, each opened write-through (made with its directories), given one 4 KiB
// frame and closed: what a recorder pays once an hour. The hours of a day share their parents, so
// most roll-overs make one directory and three files; the first of the run makes the record's
// directories too.
constexpr DWORD kcRolloverHours = 96;
constexpr DWORD kcbRolloverFrame = 4096;

WString RolloverHourPath(const CBenchDir& dir, const char* pszRecord, DWORD iHour) {
  SYSTEMTIME st = kstHour;
  st.wDay = static_cast<WORD>(7 + iHour / 24);
  st.wHour = static_cast<WORD>(iHour % 24);
  return NSPlatform::CombinePath(NSPlatform::CombinePath(dir.Root(), NSPlatform::Utf8ToWide(pszRecord)),
                                 NSKronvaleUtils::FormatHourPath(st));
}

struct SRolloverRun {
  double dSeconds = 0;
  double dDirectoryCalls = -1;  // directory operations of the platform layer per roll-over
  double MsPerHour() const { return dSeconds * 1000.0 / kcRolloverHours; }
};

SRolloverRun RolloverHours(const CBenchDir& dir, const NSSystem::ILockPtr& pLock, const char* pszRecord) {
  std::vector<BYTE> vData(kcbRolloverFrame);
  FillPattern(vData.data(), vData.size(), 3);
  SHourFrameBuffer buffer = {vData.data(), kcbRolloverFrame};
  Settle();
  const unsigned nDirectoryBefore = NSPlatform::NSFault::GetCallCount(EOp::Directory);
  CStopwatch watch;
  for (DWORD iHour = 0; iHour < kcRolloverHours; ++iHour) {
    SYSTEMTIME st = SlotTime(0);
    st.wDay = static_cast<WORD>(7 + iHour / 24);
    st.wHour = static_cast<WORD>(iHour % 24);
    CHourManager hour(pLock);
    Check(hour.Open(RolloverHourPath(dir, pszRecord, iHour), true, false), "CHourManager::Open (roll-over)");
    Check(hour.Write(st, kdwFrameFlags, &buffer, 1), "CHourManager::Write (roll-over)");
  }
  SRolloverRun run;
  run.dSeconds = watch.Seconds();
  run.dDirectoryCalls = PerItem(nDirectoryBefore, NSPlatform::NSFault::GetCallCount(EOp::Directory), kcRolloverHours);
  return run;
}

// The baseline: the same directories and files made with plain calls (mkdir of what is missing,
// the three files created with O_DSYNC, the empty index's zeros, the frame and its entry), and,
// with bSyncDirectories, an fsync of every directory whose names changed, as the engine does.
SRolloverRun RolloverRaw(const CBenchDir& dir, const char* pszRecord, bool bSyncDirectories) {
  std::vector<BYTE> vZeros(sizeof(SHashFile)), vFrame(kcbRolloverFrame + 32), vEntry(sizeof(SFrameInfo));
  FillPattern(vFrame.data(), vFrame.size(), 3);
  const auto syncDirectory = [](const std::string& str) {
    const int fd = ::open(str.c_str(), O_RDONLY | O_DIRECTORY);
    if (fd < 0 || ::fsync(fd) != 0) Die("fsync of a directory", errno);
    ::close(fd);
  };
  Settle();
  CStopwatch watch;
  for (DWORD iHour = 0; iHour < kcRolloverHours; ++iHour) {
    const std::string strHour = NSPlatform::WideToUtf8(RolloverHourPath(dir, pszRecord, iHour));
    // Each missing directory from the top down; the one above the first made changes too.
    std::vector<std::string> vMade;
    for (size_t i = dir.Native("").size(); i <= strHour.size(); ++i) {
      if (i < strHour.size() && strHour[i] != '/') continue;
      const std::string strPrefix = strHour.substr(0, i);
      if (::mkdir(strPrefix.c_str(), 0777) == 0) vMade.push_back(strPrefix);
      else if (errno != EEXIST) Die("mkdir", errno);
    }
    for (const char* pszName : {"descriptor.alh", "descriptor.ald", "data.al"}) {
      const int fd = ::open((strHour + "/" + pszName).c_str(), O_RDWR | O_CREAT | O_DSYNC, 0666);
      if (fd < 0) Die("open", errno);
      const std::vector<BYTE>& v = pszName[0] == 'd' && pszName[1] == 'e' ? (pszName[11] == 'h' ? vZeros : vEntry) : vFrame;
      if (::write(fd, v.data(), v.size()) != static_cast<ssize_t>(v.size())) Die("write", errno);
      ::close(fd);
    }
    if (bSyncDirectories && !vMade.empty()) {
      for (const std::string& str : vMade) syncDirectory(str.substr(0, str.rfind('/')));
      syncDirectory(strHour);
    }
  }
  SRolloverRun run;
  run.dSeconds = watch.Seconds();
  return run;
}

void BenchRollover(const CBenchDir& dir, const NSSystem::ILockPtr& pLock) {
  std::printf("Hour roll-over: %u hours, each made write-through with one 4 KiB frame\n", kcRolloverHours);
  std::vector<double> vHour, vRaw, vRawSynced;
  double dDirectoryCalls = 0;
  for (int iRound = 0; iRound < 3; ++iRound) {
    const std::string strRound = std::to_string(iRound);
    const SRolloverRun hour = RolloverHours(dir, pLock, ("hours" + strRound).c_str());
    const SRolloverRun raw = RolloverRaw(dir, ("raw" + strRound).c_str(), false);
    const SRolloverRun synced = RolloverRaw(dir, ("synced" + strRound).c_str(), true);
    vHour.push_back(hour.MsPerHour());
    vRaw.push_back(raw.MsPerHour());
    vRawSynced.push_back(synced.MsPerHour());
    dDirectoryCalls = hour.dDirectoryCalls;
    for (const char* pszSide : {"hours", "raw", "synced"})
      NSKronvaleUtils::DeleteFileSystemObject(dir.Sub((pszSide + strRound).c_str()));
  }
  const auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  };
  const double dHour = median(vHour), dRaw = median(vRaw), dSynced = median(vRawSynced);
  std::printf("   CHourManager open + frame + close     %8.3f ms/hour  (%.2f directory calls/hour)\n", dHour,
              dDirectoryCalls);
  std::printf("   raw, names not synced                 %8.3f ms/hour  ratio %.2f\n", dRaw, dHour / dRaw);
  std::printf("   raw, directories fsynced              %8.3f ms/hour  ratio %.2f\n", dSynced, dHour / dSynced);
  std::printf("   directory fsyncs alone (raw synced - raw) %6.3f ms/hour\n\n", dSynced - dRaw);
  std::fflush(stdout);
}

// ---- Goals -------------------------------------------------------------------------------------------

void PrintGoals(const std::vector<SAppendResult>& vAppends) {
  std::printf("Goals\n");
  for (const SAppendResult& r : vAppends) {
    if (r.bBuffered && r.cbData == 65536)
      std::printf("   buffered append of 64 KiB frames at >= 90%% of the raw bandwidth: %.1f%% -> %s\n",
                  r.dRatio * 100.0, r.dRatio >= 0.90 ? "met" : "NOT met");
  }
  for (const SAppendResult& r : vAppends) {
    if (r.cbData > 4096) continue;
    const double d = r.dKernelWrites >= 0 ? r.dKernelWrites : r.dSeamWrites;
    std::printf("   %s append of %s frames in <= 2 system calls per frame: %s write calls/frame -> %s\n",
                r.bBuffered ? "buffered" : "write-through", SizeText(r.cbData).c_str(), Calls(d).c_str(),
                d < 0 ? "not measured" : (d <= 2.0 + 1e-9 ? "met" : "NOT met"));
  }
}

}  // namespace

int main() {
  NSBench::ProgramName() = "kv_hours_bench";
  const CBenchDir dir;
  const NSSystem::ILockPtr pLock = std::make_shared<NSSystem::SLock>();
  NSPlatform::NSFault::Reset();
  std::printf("kv_hours_bench: files under %s\n\n", NSPlatform::WideToUtf8(dir.Root()).c_str());
  std::fflush(stdout);
  CStopwatch total;
  if (std::getenv("KV_BENCH_ROLLOVER_ONLY")) {
    BenchRollover(dir, pLock);
    return 0;
  }
  const std::vector<SAppendResult> vAppends = BenchAppends(dir, pLock);
  BenchReads(dir, pLock);
  BenchSiblings(dir, pLock);
  BenchRollover(dir, pLock);
  PrintGoals(vAppends);
  std::printf("\n(total %.0f s)\n", total.Seconds());
  return 0;
}
