// Speed of the archive layer on the native build, against baselines measured in the same run on the
// same file system: the size-and-quota pass over an archive of many records against a plain walk of
// the same tree, and appends through an archive's writer record with the flusher running against
// plain sequential writes of the same bytes. bench/README.md explains the table. Nothing here asserts
// a speed: the goal is printed beside what was measured.

// The archive's headers come first: <fcntl.h> defines LOCK_WRITE, a name the COM kit declares.
#include "BenchArchive.h"
#include "BenchSupport.h"
#include "hours/HourManager.h"
#include "hours/KronvaleUtils.h"
#include "platform/os.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace NSHours;
using NSKronvaleUtils::kullTicksPerHour;
using NSPlatform::FileTimeToU64;
using NSPlatform::U64ToFileTime;
using NSPlatform::NSFault::EOp;

using namespace NSBench;

namespace {

constexpr double kdMiB = 1024.0 * 1024.0;
constexpr double kdGiB = 1024.0 * kdMiB;
constexpr DWORD kdwFrameFlags = 0x1;

// The scanned archive: kcRecords writer records of kcFullHours hours each, one small frame per hour
// from 2021-01-01 00h UTC (30 days). When the disk cannot hold that, fewer hours per record.
constexpr DWORD kcRecords = 50;
constexpr DWORD kcFullHours = 720;
constexpr DWORD kcbScanFrame = 16;
constexpr SYSTEMTIME kstFirstScanHour = {2021, 1, 0, 1, 0, 0, 0, 0};
// What the scanned archive may take of the disk, allocated blocks counted.
constexpr double kdScanDiskBudget = 3.0 * kdGiB;
// Left free on the disk in any case.
constexpr double kdDiskReserve = 1.0 * kdGiB;

// The appends: frame i in 10 ms slot i of 2021-03-07 12h UTC.
constexpr SYSTEMTIME kstAppendHour = {2021, 3, 0, 7, 12, 0, 0, 0};

// The archive's own worker runs a pass this often (kdwQuotaPeriodMs), the first one a full period
// after the archive object is made.
constexpr double kdWorkerPeriod = NSArchive::kdwQuotaPeriodMs / 1000.0;

// The run's directory, for Die: the scanned archive is large enough not to be left behind.
std::string g_strRunDirectory;

void DeleteRunDirectory() {
  const std::string strDirectory = std::move(g_strRunDirectory);
  g_strRunDirectory.clear();
  if (!strDirectory.empty()) NSKronvaleUtils::DeleteFileSystemObject(NSPlatform::Utf8ToWide(strDirectory.c_str()));
}

// Leftover dirty pages of the previous case must not be written back during the next one.
void Settle() { ::sync(); }

std::string Native(const WString& str) { return NSPlatform::WideToUtf8(str); }

// 12,345,678
std::string Grouped(ULONGLONG ull) {
  std::string str = std::to_string(ull);
  for (int i = static_cast<int>(str.size()) - 3; i > 0; i -= 3) str.insert(static_cast<size_t>(i), ",");
  return str;
}

std::string SizeText(DWORD cb) {
  if (cb >= 1024 && cb % 1024 == 0) return std::to_string(cb / 1024) + " KiB";
  return std::to_string(cb) + " B";
}

// Free bytes for an unprivileged caller on the file system holding strPath.
double FreeBytes(const std::string& strPath) {
  struct statvfs vfs;
  if (::statvfs(strPath.c_str(), &vfs) != 0) Die("statvfs", errno);
  return static_cast<double>(vfs.f_bavail) * static_cast<double>(vfs.f_frsize);
}

// The benchmark's archive, with a clock that starts just before the object is made, with the
// archive's own size-and-quota worker.
struct SAgeClock {
  CStopwatch m_age;
};
class CArchive : private SAgeClock, public CBenchArchive {
 public:
  CArchive(const WString& strPath, ULONG ulFlushTimeout) : CBenchArchive(strPath, ulFlushTimeout) {}
  // Seconds since the archive object (and its worker) came to be.
  double Age() const { return m_age.Seconds(); }
};

std::string RecordName(DWORD dwRecord) {
  char sz[16];
  std::snprintf(sz, sizeof(sz), "r%02u", static_cast<unsigned>(dwRecord));
  return sz;
}

// ---- 1. Size-and-quota pass ---------------------------------------------------------------------------

// What a walk of a tree found: bytes of its files as stat reports them (st_size, the figure the pass
// sums), the blocks they occupy, and how many files and directories it met.
struct STreeCount {
  ULONGLONG ullBytes = 0;
  ULONGLONG ullAllocated = 0;
  ULONGLONG cFiles = 0;
  ULONGLONG cDirectories = 0;
  void Add(const STreeCount& other) {
    ullBytes += other.ullBytes;
    ullAllocated += other.ullAllocated;
    cFiles += other.cFiles;
    cDirectories += other.cDirectories;
  }
};

// The baseline: opendir/readdir of every directory, fstatat of every entry that is not known to be a
// directory from readdir's own type. fdDirectory is taken over (closed here).
void WalkTree(int fdDirectory, STreeCount* pCount) {
  DIR* pDir = ::fdopendir(fdDirectory);
  if (!pDir) Die("fdopendir", errno);
  ++pCount->cDirectories;
  struct stat stDir;
  if (::fstat(fdDirectory, &stDir) == 0) pCount->ullAllocated += static_cast<ULONGLONG>(stDir.st_blocks) * 512;
  while (const dirent* pEntry = ::readdir(pDir)) {
    const char* pszName = pEntry->d_name;
    if (pszName[0] == '.' && (pszName[1] == 0 || (pszName[1] == '.' && pszName[2] == 0))) continue;
    bool bDirectory = pEntry->d_type == DT_DIR;
    struct stat st;
    if (!bDirectory) {
      if (::fstatat(fdDirectory, pszName, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;  // gone meanwhile
      bDirectory = S_ISDIR(st.st_mode);
    }
    if (bDirectory) {
      const int fdChild = ::openat(fdDirectory, pszName, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      if (fdChild < 0) Die("openat (walking the tree)", errno);
      WalkTree(fdChild, pCount);
    } else {
      ++pCount->cFiles;
      pCount->ullBytes += static_cast<ULONGLONG>(st.st_size);
      pCount->ullAllocated += static_cast<ULONGLONG>(st.st_blocks) * 512;
    }
  }
  ::closedir(pDir);
}

STreeCount WalkTree(const std::string& strDirectory) {
  STreeCount count;
  const int fd = ::open(strDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) Die("opening a directory to walk", errno);
  WalkTree(fd, &count);
  return count;
}

// One record's hour tree held in memory: its directories and the data extents of its files, so that
// the other records can be made from it without reading it again. All-zero blocks are left out and
// stay holes in the copies, as they are in the original (descriptor.alh is extended, not written).
class CTreeTemplate {
 public:
  explicit CTreeTemplate(const std::string& strRoot) { Load(strRoot, std::string()); }

  // Writes the tree under strRoot (which must not exist): plain files of the same sizes and contents.
  void WriteTo(const std::string& strRoot) const {
    if (::mkdir(strRoot.c_str(), 0755) != 0) Die("mkdir (copying a record)", errno);
    for (const std::string& str : m_vDirectories)
      if (::mkdir((strRoot + "/" + str).c_str(), 0755) != 0) Die("mkdir (copying a record)", errno);
    for (const SFile& file : m_vFiles) {
      const std::string strPath = strRoot + "/" + file.strPath;
      const int fd = ::open(strPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
      if (fd < 0) Die("creating a copied file", errno);
      for (const SExtent& extent : file.vExtents) {
        if (::pwrite(fd, extent.vData.data(), extent.vData.size(), extent.llOffset) !=
            static_cast<ssize_t>(extent.vData.size()))
          Die("writing a copied file", errno);
      }
      if (::ftruncate(fd, file.llSize) != 0) Die("sizing a copied file", errno);
      ::close(fd);
    }
  }

 private:
  static constexpr size_t kcbBlock = 4096;
  struct SExtent {
    off_t llOffset;
    std::vector<char> vData;
  };
  struct SFile {
    std::string strPath;  // relative
    off_t llSize;
    std::vector<SExtent> vExtents;
  };

  // Directories first (parents before children), files after, relative to the record.
  void Load(const std::string& strRoot, const std::string& strRelative) {
    const std::string strDirectory = strRelative.empty() ? strRoot : strRoot + "/" + strRelative;
    DIR* pDir = ::opendir(strDirectory.c_str());
    if (!pDir) Die("opendir (reading the first record)", errno);
    std::vector<std::string> vNames;
    while (const dirent* pEntry = ::readdir(pDir))
      if (std::strcmp(pEntry->d_name, ".") && std::strcmp(pEntry->d_name, "..")) vNames.emplace_back(pEntry->d_name);
    ::closedir(pDir);
    std::sort(vNames.begin(), vNames.end());
    for (const std::string& strName : vNames) {
      const std::string strChild = strRelative.empty() ? strName : strRelative + "/" + strName;
      struct stat st;
      if (::lstat((strRoot + "/" + strChild).c_str(), &st) != 0) Die("lstat (reading the first record)", errno);
      if (S_ISDIR(st.st_mode)) {
        m_vDirectories.push_back(strChild);
        Load(strRoot, strChild);
      } else if (S_ISREG(st.st_mode)) {
        LoadFile(strRoot + "/" + strChild, strChild, st.st_size);
      }
    }
  }

  // The file's data regions as the file system reports them (SEEK_DATA/SEEK_HOLE; the whole file
  // when it cannot tell), read block by block, all-zero blocks left out.
  void LoadFile(const std::string& strPath, const std::string& strRelative, off_t llSize) {
    SFile file = {strRelative, llSize, {}};
    const int fd = ::open(strPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) Die("opening a file of the first record", errno);
    std::vector<char> vBlock(kcbBlock);
    off_t llPosition = 0;
    while (llPosition < llSize) {
      off_t llData = ::lseek(fd, llPosition, SEEK_DATA);
      off_t llHole = llData >= 0 ? ::lseek(fd, llData, SEEK_HOLE) : -1;
      if (llData < 0 && errno == ENXIO) break;  // only a hole is left
      if (llData < 0 || llHole < 0) {
        llData = llPosition;
        llHole = llSize;
      }
      for (off_t llBlock = llData; llBlock < llHole; llBlock += static_cast<off_t>(kcbBlock)) {
        const size_t cb = static_cast<size_t>(std::min<off_t>(static_cast<off_t>(kcbBlock), llHole - llBlock));
        if (::pread(fd, vBlock.data(), cb, llBlock) != static_cast<ssize_t>(cb)) Die("reading the first record", errno);
        if (std::all_of(vBlock.begin(), vBlock.begin() + static_cast<std::ptrdiff_t>(cb), [](char c) { return c == 0; }))
          continue;
        if (!file.vExtents.empty() &&
            file.vExtents.back().llOffset + static_cast<off_t>(file.vExtents.back().vData.size()) == llBlock) {
          file.vExtents.back().vData.insert(file.vExtents.back().vData.end(), vBlock.begin(),
                                            vBlock.begin() + static_cast<std::ptrdiff_t>(cb));
        } else {
          file.vExtents.push_back({llBlock, std::vector<char>(vBlock.begin(), vBlock.begin() + static_cast<std::ptrdiff_t>(cb))});
        }
      }
      llPosition = llHole;
    }
    ::close(fd);
    m_vFiles.push_back(std::move(file));
  }

  std::vector<std::string> m_vDirectories;
  std::vector<SFile> m_vFiles;
};

// Keeps timed sections clear of the archive's own worker, which runs a pass kdWorkerPeriod seconds
// after the archive object was made and every period after. A pass asked for while the worker's
// runs returns at once; the worker's returns at once while ours runs (harmless); a walk beside the
// worker's pass shares the machine with it. So a timed pass must not start while the worker's may
// be running, and a timed walk must not overlap it.
class CWorkerSchedule {
 public:
  explicit CWorkerSchedule(const CArchive& archive) : m_archive(archive) {}

  // Waits until dSeconds from now (0 for a pass, whose start alone matters) clear every pass the
  // worker may be running, each taken to last dWorkerPass seconds.
  void WaitForQuiet(double dSeconds, double dWorkerPass) {
    for (;;) {
      const double dAge = m_archive.Age();
      double dUntil = 0;
      const double dFirst = std::max(1.0, std::floor((dAge - dWorkerPass - kdSlack) / kdWorkerPeriod));
      for (double k = dFirst; k * kdWorkerPeriod - kdSlack <= dAge + dSeconds; ++k) {
        if (std::find(m_vSkipped.begin(), m_vSkipped.end(), k) != m_vSkipped.end()) continue;
        const double dBusyEnd = k * kdWorkerPeriod + dWorkerPass + kdSlack;
        if (dAge < dBusyEnd) dUntil = std::max(dUntil, dBusyEnd);
      }
      if (dUntil <= dAge) return;
      std::this_thread::sleep_for(std::chrono::duration<double>(dUntil - dAge));
    }
  }

  // One of our passes ran from age dStart to dEnd: the worker's passes due meanwhile did nothing.
  void OurPass(double dStart, double dEnd) {
    for (double k = std::ceil((dStart + kdSlack) / kdWorkerPeriod); k * kdWorkerPeriod + kdSlack <= dEnd; ++k)
      m_vSkipped.push_back(k);
  }

 private:
  static constexpr double kdSlack = 0.25;
  const CArchive& m_archive;
  std::vector<double> m_vSkipped;  // periods whose worker pass found ours running
};

struct SScanResult {
  double dPassSeconds = 0;
  double dWalkSeconds = 0;
  double dRatio = 0;  // median of the rounds' pass/walk
  DWORD cHours = 0;   // per record
};

SScanResult BenchScan(const CBenchDir& dir) {
  constexpr int kcRounds = 3;
  const WString strArchive = dir.Sub("scan");
  const std::string strNativeRoot = Native(dir.Root());
  const double dFreeAtStart = FreeBytes(strNativeRoot);
  std::printf("1. Size-and-quota pass: CArchiveImpl::SizeAndQuotaPass (no quota set) against a plain walk of\n");
  std::printf("   the same record directories (opendir/readdir, fstatat of each file), sizes summed from st_size\n");
  std::printf("   free disk space at the start: %.1f GiB\n", dFreeAtStart / kdGiB);
  if (dFreeAtStart < kdDiskReserve + 256 * kdMiB) Die("finding 1.25 GiB free for the benchmark", 0);
  std::fflush(stdout);

  // The first record through the record layer: one small frame at the start of each hour.
  CStopwatch build;
  const ULONGLONG ullFirstHour = Ticks(kstFirstScanHour);
  DWORD cHours = kcFullHours;
  STreeCount first;
  const std::string strFirst = Native(NSPlatform::CombinePath(strArchive, NSPlatform::Utf8ToWide("r00")));
  double dFirstSeconds = 0;
  {
    CArchive archive(strArchive, 1000);
    NSCom::CComPtr<IRecord> pRecord = archive.Writer(RecordName(0));
    std::vector<BYTE> vData(kcbScanFrame, 0x5A);
    SFrameBuffer buffer = {vData.data(), kcbScanFrame};
    for (DWORD h = 0; h < kcFullHours; ++h) {
      vData[0] = static_cast<BYTE>(h);
      Check(pRecord->Write(U64ToFileTime(ullFirstHour + h * kullTicksPerHour), kdwFrameFlags, &buffer, 1),
            "IRecord::Write (building the archive)");
    }
    Settle();
    first = WalkTree(strFirst);
    // The other records take what one record takes on disk; fewer hours when all of them would not
    // fit in the budget.
    const double dBudget = std::min(kdScanDiskBudget, FreeBytes(strNativeRoot) - kdDiskReserve);
    const double dNeed = static_cast<double>(first.ullAllocated) * (kcRecords - 1);
    if (dNeed > dBudget) {
      cHours = static_cast<DWORD>(std::max(1.0, std::floor(kcFullHours * dBudget / dNeed)));
      for (DWORD h = cHours; h < kcFullHours; ++h)
        Check(pRecord->RemoveHour(U64ToFileTime(ullFirstHour + h * kullTicksPerHour)), "IRecord::RemoveHour");
      Settle();
      first = WalkTree(strFirst);
    }
    dFirstSeconds = build.Seconds();
  }
  // The other records: copies of the first, file by file.
  CStopwatch copy;
  {
    const CTreeTemplate tree(strFirst);
    for (DWORD r = 1; r < kcRecords; ++r)
      tree.WriteTo(Native(NSPlatform::CombinePath(strArchive, NSPlatform::Utf8ToWide(RecordName(r).c_str()))));
  }
  Settle();
  const double dCopySeconds = copy.Seconds();

  if (cHours < kcFullHours)
    std::printf("   SCALED DOWN: %u records x %u hours would take %.1f GiB of disk; %u hours per record fit in the\n"
                "   %.1f GiB budget\n",
                kcRecords, kcFullHours,
                static_cast<double>(first.ullAllocated) * kcRecords * kcFullHours / cHours / kdGiB, cHours,
                std::min(kdScanDiskBudget, dFreeAtStart - kdDiskReserve) / kdGiB);
  std::printf("   %u writer records (CreateRecord) x %u hours, one %u B frame per hour; r00 written through\n",
              kcRecords, cHours, kcbScanFrame);
  std::printf("   IRecord::Write (%.1f s), r01..r%02u copied from it file by file, holes kept (%.1f s)\n", dFirstSeconds,
              kcRecords - 1, dCopySeconds);
  std::printf("   one record: %s files, %s directories, %s bytes (st_size), %.1f MiB allocated\n",
              Grouped(first.cFiles).c_str(), Grouped(first.cDirectories).c_str(), Grouped(first.ullBytes).c_str(),
              static_cast<double>(first.ullAllocated) / kdMiB);
  std::printf("   warm cache: one untimed walk first; %d rounds alternating the order, medians shown\n\n",
              kcRounds);
  std::fflush(stdout);

  // The timed archive: a fresh object on the built directory, every record opened as a writer.
  SScanResult result;
  result.cHours = cHours;
  CArchive archive(strArchive, 0);
  std::vector<NSCom::CComPtr<IRecord>> vWriters;
  std::vector<std::string> vRecordPaths;
  for (DWORD r = 0; r < kcRecords; ++r) {
    vWriters.push_back(archive.Writer(RecordName(r)));
    vRecordPaths.push_back(Native(archive.RecordPath(RecordName(r))));
  }
  NSArchive::CArchiveImpl* pObject = archive.Object();
  auto walk = [&] {
    STreeCount count;
    for (const std::string& str : vRecordPaths) count.Add(WalkTree(str));
    return count;
  };

  // Untimed: a walk warms the caches (the pass reads the same directories and inodes).
  CStopwatch warm;
  const STreeCount warmWalk = walk();
  double dLongestWalk = warm.Seconds();

  CWorkerSchedule schedule(archive);
  std::vector<double> vPass, vWalk, vRatio;
  std::vector<ULONGLONG> vPassBytes;
  STreeCount walked;
  double dLongestPass = 0;
  ULONGLONG cSkipped = 0;
  for (int r = 0; r < kcRounds; ++r) {
    double dPass = 0, dWalk = 0;
    for (int nSide = 0; nSide < 2; ++nSide) {
      const bool bPass = (nSide == 0) == (r % 2 == 0);
      Settle();
      schedule.WaitForQuiet(bPass ? 0 : 1.5 * dLongestWalk + 0.1, 1.2 * dLongestPass + 0.5);
      const double dStart = archive.Age();
      CStopwatch watch;
      if (bPass) {
        pObject->SizeAndQuotaPass();
        dPass = watch.Seconds();
        vPassBytes.push_back(pObject->GetArchiveSize());
        schedule.OurPass(dStart, archive.Age());
        dLongestPass = std::max(dLongestPass, dPass);
      } else {
        walked = walk();
        dWalk = watch.Seconds();
        dLongestWalk = std::max(dLongestWalk, dWalk);
      }
    }
    // A pass that returned at once found the worker's running (its figure is then the worker's).
    if (dPass < dWalk / 20) ++cSkipped;
    vPass.push_back(dPass);
    vWalk.push_back(dWalk);
    vRatio.push_back(dWalk > 0 ? dPass / dWalk : 0);
  }
  result.dPassSeconds = Median(vPass);
  result.dWalkSeconds = Median(vWalk);
  result.dRatio = Median(vRatio);

  const ULONGLONG ullExpected = first.ullBytes * kcRecords;
  std::printf("   %-44s %10s %10s %10s %20s\n", "", "ms", "files", "dirs", "bytes found");
  const std::string strPassLabel = "SizeAndQuotaPass, no quota (" + std::to_string(kcRecords) + " writers)";
  const std::string strWalkLabel = "plain walk of the " + std::to_string(kcRecords) + " record directories";
  std::printf("   %-44s %10.1f %10s %10s %20s\n", strPassLabel.c_str(), result.dPassSeconds * 1e3, "-", "-",
              Grouped(vPassBytes.back()).c_str());
  std::printf("   %-44s %10.1f %10s %10s %20s\n", strWalkLabel.c_str(), result.dWalkSeconds * 1e3,
              Grouped(walked.cFiles).c_str(), Grouped(walked.cDirectories).c_str(), Grouped(walked.ullBytes).c_str());
  std::printf("   %-44s %9.2fx   (rounds:", "pass/walk", result.dRatio);
  for (double d : vRatio) std::printf(" %.2fx", d);
  std::printf(")\n");
  std::printf("   the %u records: %.1f GiB by st_size, %.0f MiB allocated\n", kcRecords,
              static_cast<double>(walked.ullBytes) / kdGiB, static_cast<double>(walked.ullAllocated) / kdMiB);

  bool bAgree = true;
  for (ULONGLONG ull : vPassBytes) bAgree = bAgree && ull == walked.ullBytes;
  bAgree = bAgree && warmWalk.ullBytes == walked.ullBytes && walked.ullBytes == ullExpected;
  if (bAgree) {
    std::printf("   sizes: every pass and every walk found %s bytes, %u x the first record's: agree\n",
                Grouped(walked.ullBytes).c_str(), kcRecords);
  } else {
    std::printf("   WARNING: the sizes disagree: passes found");
    for (ULONGLONG ull : vPassBytes) std::printf(" %s", Grouped(ull).c_str());
    std::printf("; walks %s (untimed) %s; %u x the first record is %s\n", Grouped(warmWalk.ullBytes).c_str(),
                Grouped(walked.ullBytes).c_str(), kcRecords, Grouped(ullExpected).c_str());
  }
  if (cSkipped)
    std::printf("   WARNING: %llu timed passes returned at once (the archive's worker was running a pass)\n",
                static_cast<unsigned long long>(cSkipped));
  std::printf("\n");
  std::fflush(stdout);
  return result;
}

// ---- 2. Appends with the flusher -------------------------------------------------------------------

ULONGLONG AppendedBytesPerFrame(DWORD cbData) { return FrameSize(BufferRecordSize(cbData)) + sizeof(SFrameInfo); }

struct SAppendRun {
  ULONGLONG cFrames = 0;  // timed
  double dSeconds = 0;
  double dFlushes = 0;  // hour flushes the flusher made meanwhile
  double FramesPerSecond() const { return dSeconds > 0 ? static_cast<double>(cFrames) / dSeconds : 0; }
  double MiBPerSecond(DWORD cbData) const {
    return FramesPerSecond() * static_cast<double>(AppendedBytesPerFrame(cbData)) / kdMiB;
  }
};

// Frame i into 10 ms slot i of the append hour through a new writer record of the archive. Frame 0,
// which creates and opens the hour, is written before the clock starts. Afterwards data.al must hold
// every frame, and the hour goes (IRecord::RemoveHour).
SAppendRun AppendRecord(CArchive& archive, const std::string& strName, DWORD cbData, ULONGLONG cFrames) {
  std::vector<BYTE> vData(cbData, 0x5A);
  SFrameBuffer buffer = {vData.data(), cbData};
  const ULONGLONG ullHour = Ticks(kstAppendHour);
  NSCom::CComPtr<IRecord> pRecord = archive.Writer(strName);
  Check(pRecord->Write(U64ToFileTime(ullHour), kdwFrameFlags, &buffer, 1), "IRecord::Write (first frame)");
  Settle();

  SAppendRun run;
  const unsigned nFlushesBefore = NSPlatform::NSFault::GetCallCount(EOp::Flush);
  CStopwatch watch;
  for (ULONGLONG i = 1; i < cFrames; ++i) {
    vData[0] = static_cast<BYTE>(i);
    Check(pRecord->Write(U64ToFileTime(ullHour + i * kullTicksPerSlot), kdwFrameFlags, &buffer, 1), "IRecord::Write");
  }
  run.dSeconds = watch.Seconds();
  // An hour flush is three calls: data.al, descriptor.ald, the mapping of descriptor.alh.
  run.dFlushes = (NSPlatform::NSFault::GetCallCount(EOp::Flush) - nFlushesBefore) / 3.0;
  run.cFrames = cFrames - 1;
  const WString strData = NSPlatform::CombinePath(
      NSPlatform::CombinePath(archive.RecordPath(strName), NSKronvaleUtils::FormatHourPath(Breakdown(ullHour))),
      kszDataFileName);
  struct stat st;
  const long long llExpected = static_cast<long long>(cFrames * FrameSize(BufferRecordSize(cbData)));
  if (::stat(Native(strData).c_str(), &st) != 0 || st.st_size != llExpected)
    Die("checking the size of the record's data.al", static_cast<long long>(st.st_size));
  Check(pRecord->RemoveHour(U64ToFileTime(ullHour)), "IRecord::RemoveHour");
  return run;
}

// The baseline: the bytes the hour appends per frame (28 B header, 4 B size, the data; then the
// 16 B index entry), with the same two write calls per frame, one after the other to one file in
// the archive's directory; no flush. The same count of timed frames as the record's runs.
SAppendRun AppendRaw(const WString& strDirectory, DWORD cbData, ULONGLONG cFrames) {
  const std::string strPath = Native(NSPlatform::CombinePath(strDirectory, KV_W("raw-append.bin")));
  const int fd = ::open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) Die("opening the raw file", errno);
  std::vector<BYTE> vFrame(FrameSize(BufferRecordSize(cbData)));
  const SFrameHeader header = {SFrameHeader::MakeSignature(), {}, kdwFrameFlags, 1, BufferRecordSize(cbData)};
  std::memcpy(vFrame.data(), &header, sizeof(header));
  std::memcpy(vFrame.data() + sizeof(header), &cbData, sizeof(cbData));
  BYTE* pData = vFrame.data() + sizeof(header) + sizeof(DWORD);
  std::memset(pData, 0x5A, cbData);
  SFrameInfo info = {kdwFrameFlags, 0, static_cast<DWORD>(vFrame.size())};
  const ULONGLONG ullHour = Ticks(kstAppendHour);
  Settle();

  SAppendRun run;
  CStopwatch watch;
  for (ULONGLONG i = 1; i < cFrames; ++i) {
    const ULONGLONG ullTime = ullHour + i * kullTicksPerSlot;
    std::memcpy(vFrame.data() + offsetof(SFrameHeader, ftTime), &ullTime, sizeof(ullTime));
    pData[0] = static_cast<BYTE>(i);
    WriteAll(fd, vFrame.data(), vFrame.size(), "writing the raw file");
    WriteAll(fd, &info, sizeof(info), "writing the raw file");
    info.ullOffset += vFrame.size() + sizeof(info);
  }
  run.dSeconds = watch.Seconds();
  run.cFrames = cFrames - 1;
  struct stat st;
  if (::fstat(fd, &st) != 0 || static_cast<ULONGLONG>(st.st_size) != run.cFrames * AppendedBytesPerFrame(cbData))
    Die("checking the size of the raw file", static_cast<long long>(st.st_size));
  ::close(fd);
  ::unlink(strPath.c_str());
  return run;
}

struct SAppendResult {
  DWORD cbData;
  ULONG ulFlushTimeout;  // 0 for the raw baseline
  ULONGLONG cFrames;
  double dFps, dMiBps, dRatio, dFlushes;
};

std::vector<SAppendResult> BenchAppends(const CBenchDir& dir) {
  struct SCase {
    DWORD cbData;
    ULONGLONG cFrames;
  };
  // 2 GiB of 64 KiB frames; every slot of the hour with 4 KiB frames (1.4 GiB).
  const SCase vCases[] = {{65536, 32768}, {4096, kcSlots}};
  constexpr ULONG kaulTimeouts[] = {1000, 100};
  constexpr int kcRounds = 5;
  std::printf("2. Append: IRecord::Write of a writer record, buffered, the flusher running (SetFlushTimeout before\n");
  std::printf("   CreateRecord), against plain write() calls of the same bytes to a file in the same directory\n");
  std::printf("   frame i in 10 ms slot i of one hour, flags 0x1, one buffer; the first frame untimed;\n");
  std::printf("   MiB/s counts data.al and the index entry; raw: the same bytes in the same two write calls\n");
  std::printf("   per frame, never flushed; %d rounds rotating the order, medians shown\n\n", kcRounds);
  std::printf("   %-7s %-30s %7s | %10s %10s | %8s %9s | %s\n", "frame", "", "frames", "fr/s", "MiB/s", "vs raw",
              "flushes", "each round: MiB/s/flushes");

  // One archive per flush timeout, each with its own flusher; both live through the section.
  CArchive archive1000(dir.Sub("append-1000"), kaulTimeouts[0]);
  CArchive archive100(dir.Sub("append-100"), kaulTimeouts[1]);
  CArchive* apArchives[] = {&archive1000, &archive100};
  const WString strRawDirectory = dir.Sub("append-1000");

  std::vector<SAppendResult> vResults;
  for (const SCase& c : vCases) {
    // Per side: 0 raw, 1 record at 1000 ms, 2 record at 100 ms.
    std::vector<double> vFps[3], vMiBps[3], vRatio[3], vFlushes[3];
    for (int r = 0; r < kcRounds; ++r) {
      SAppendRun runs[3];
      for (int k = 0; k < 3; ++k) {
        const int nSide = (k + r) % 3;
        if (nSide == 0) {
          runs[0] = AppendRaw(strRawDirectory, c.cbData, c.cFrames);
        } else {
          const std::string strName = "a" + std::to_string(c.cbData) + "-" + std::to_string(r);
          runs[nSide] = AppendRecord(*apArchives[nSide - 1], strName, c.cbData, c.cFrames);
        }
      }
      for (int s = 0; s < 3; ++s) {
        vFps[s].push_back(runs[s].FramesPerSecond());
        vMiBps[s].push_back(runs[s].MiBPerSecond(c.cbData));
        vRatio[s].push_back(runs[0].MiBPerSecond(c.cbData) > 0
                                ? runs[s].MiBPerSecond(c.cbData) / runs[0].MiBPerSecond(c.cbData)
                                : 0);
        vFlushes[s].push_back(runs[s].dFlushes);
      }
    }
    for (int s = 0; s < 3; ++s) {
      const SAppendResult res = {c.cbData, s ? kaulTimeouts[s - 1] : 0, c.cFrames - 1, Median(vFps[s]),
                                 Median(vMiBps[s]), Median(vRatio[s]), Median(vFlushes[s])};
      char szSide[64];
      if (s == 0)
        std::snprintf(szSide, sizeof(szSide), "raw write(), no flush");
      else
        std::snprintf(szSide, sizeof(szSide), "record, flush timeout %lu ms", static_cast<unsigned long>(res.ulFlushTimeout));
      char szFlushes[32] = "-";
      if (s) std::snprintf(szFlushes, sizeof(szFlushes), "%.0f", res.dFlushes);
      std::printf("   %-7s %-30s %7llu | %10.0f %10.1f | %7.1f%% %9s |", SizeText(c.cbData).c_str(), szSide,
                  static_cast<unsigned long long>(res.cFrames), res.dFps, res.dMiBps, res.dRatio * 100.0, szFlushes);
      for (size_t r = 0; r < vMiBps[s].size(); ++r) {
        if (s)
          std::printf(" %5.0f/%-2.0f", vMiBps[s][r], vFlushes[s][r]);
        else
          std::printf(" %5.0f   ", vMiBps[s][r]);
      }
      std::printf("\n");
      std::fflush(stdout);
      vResults.push_back(res);
    }
  }
  std::printf("\n");
  return vResults;
}

// ---- Goals -------------------------------------------------------------------------------------------

void PrintGoals(const SScanResult& scan) {
  std::printf("Goals\n");
  std::printf("   size-and-quota pass at most 1.5x the time of a plain walk of the same tree (%u x %u hours): "
              "%.2fx -> %s\n",
              kcRecords, scan.cHours, scan.dRatio, scan.dRatio <= 1.5 ? "met" : "NOT met");
  std::printf("   appends with the flusher running: no goal yet (the ratios show what the flushes cost)\n");
}

}  // namespace

int main() {
  NSBench::ProgramName() = "kv_archive_bench";
  NSBench::AtDie() = DeleteRunDirectory;
  const CBenchDir dir;
  g_strRunDirectory = NSPlatform::WideToUtf8(dir.Root());  // deleted by Die too
  std::printf("kv_archive_bench: files under %s\n\n", Native(dir.Root()).c_str());
  std::fflush(stdout);
  CStopwatch total;
  const SScanResult scan = BenchScan(dir);
  // The scanned archive goes before the appends: its write-back must not land in them.
  NSKronvaleUtils::DeleteFileSystemObject(dir.Sub("scan"));
  Settle();
  const double dScanSeconds = total.Seconds();
  BenchAppends(dir);
  PrintGoals(scan);
  std::printf("\n(total %.0f s: size-and-quota pass %.0f s, appends %.0f s)\n", total.Seconds(), dScanSeconds,
              total.Seconds() - dScanSeconds);
  return 0;
}
