// The kill -9 harness: recorder processes killed with SIGKILL at random moments, and what a fresh
// process finds in the archive afterwards.
//
//   kv_kill_harness run [--seed N] [--kills N] [--max-delay-ms N] [--dir PATH] [--keep] [--verbose]
//
// runs rounds in series: a series is one archive written by one process after another. In each
// round a writer process (this program, role "writer") opens the archive through the library's
// public interfaces, appends frames to the record "cam" and, after every Write that answered S_OK,
// appends the frame's index to the series' "acked" log with write(2), which the kernel keeps when
// the process dies. At a random moment the harness kills it with SIGKILL; a verifier process (role
// "verify") then opens the archive and the record's writer and checks every acknowledged frame with
// Read, byte for byte, the first read of the process counted apart (it is the one that finds the
// torn hour), then walks the record with GetNext and GetPrev. In a third of the rounds a reader
// process (role "reader") reads the record through an archive object of its own during the whole
// round, the verification included.
//
// Rounds alternate between write-through archives (FlushTimeout 0) and buffered ones (FlushTimeout
// kdwFlushMs). Write-through promises every acknowledged frame. Buffered promises every frame that
// was acknowledged more than kdwFlushMs + kdwMarginMs before the kill; a younger frame may be missing
// (counted, never a failure), but a frame that is there must read back exactly. A killed process
// loses nothing the kernel already took, so on Linux no frame is expected to be missing in either
// mode; the counts show it.
//
// Exit code 0 when no round failed. The last line is "N passed, N failed" over the rounds.
// The interfaces' headers come first: <fcntl.h> defines names (LOCK_WRITE) that they use.
#include <kronvale/KronvaleResults.h>
#include <kronvale/kronvale.h>
#include <kronvale/KronvaleClient.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "FrameModel.h"
#include "platform/os.h"

extern char** environ;

namespace NSTest {
namespace {

using NSKronvale::CBstr;
using NSKronvale::CPtr;

// A BSTR from UTF-8 text, for one call.
CBstr Bstr(const std::string& str) { return CBstr(NSPlatform::Utf8ToWide(str)); }

constexpr DWORD kdwFlushMs = 100;   // FlushTimeout of the buffered rounds
constexpr DWORD kdwMarginMs = 400;  // what a flush may take on a busy disk, beyond its period
constexpr char kszRecord[] = "cam";

// ---- Small things ---------------------------------------------------------------------------------

uint64_t MonotonicNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

void SleepNs(uint64_t ullNs) {
  timespec ts = {static_cast<time_t>(ullNs / 1000000000ull), static_cast<long>(ullNs % 1000000000ull)};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

std::string Hex(HRESULT hr) {
  char sz[16];
  std::snprintf(sz, sizeof(sz), "0x%08X", static_cast<unsigned>(hr));
  return sz;
}

FILETIME ToFileTime(uint64_t ull) { return {static_cast<DWORD>(ull), static_cast<DWORD>(ull >> 32)}; }
uint64_t FromFileTime(const FILETIME& ft) { return (uint64_t{ft.dwHighDateTime} << 32) | ft.dwLowDateTime; }

// The library as a host loads it: by file name from the program's directory, kept to the end of the
// process (a recorder never unloads it; the killed ones cannot). The factory is kept as long, in a
// static, as a host keeps it: its archives stay in its cache (a checking process must not delete
// the archive it checks to empty it), and the leak checker sees them held.
IArchiveFactory* LoadFactory() {
  static IArchiveFactory* s_pFactory = nullptr;
  if (s_pFactory) return s_pFactory;
  HMODULE hModule = nullptr;
  if (FAILED(NSPlatform::LoadDynamicLibrary(KV_W("kronvale.dll"), &hModule))) {
    std::fprintf(stderr, "cannot load the library beside the program\n");
    return nullptr;
  }
  using PFNDLLGETCLASSOBJECT = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
  auto pfn = reinterpret_cast<PFNDLLGETCLASSOBJECT>(NSPlatform::GetLibrarySymbol(hModule, "DllGetClassObject"));
  IArchiveFactory* pFactory = nullptr;
  if (!pfn || FAILED(pfn(CLSID_Kronvale, IID_IArchiveFactory, reinterpret_cast<void**>(&pFactory)))) return nullptr;
  s_pFactory = pFactory;
  return pFactory;
}

// ---- The series' files ----------------------------------------------------------------------------

// One acknowledged frame, as the writer logs it after Write answered S_OK.
struct SAck {
  uint64_t ullIndex;
  uint64_t ullAckNs;  // CLOCK_MONOTONIC, the same clock for every process of the machine
  uint32_t dwRound;
  uint32_t bBuffered;
};
static_assert(sizeof(SAck) == 24, "the log holds whole records");

struct SSeries {
  std::string strDir;
  std::string Archive() const { return strDir + "/arc"; }
  std::string AckLog() const { return strDir + "/acked"; }
  std::string ReadyMark() const { return strDir + "/ready"; }
  // Made by the writer of a round once it holds the record's writer, before its first frame.
  std::string WritingMark(uint32_t dwRound) const { return strDir + "/writing." + std::to_string(dwRound); }
  std::string Result(const char* pszRole) const { return strDir + "/" + pszRole + ".result"; }
};

std::vector<SAck> LoadAcks(const std::string& strPath) {
  std::vector<SAck> v;
  const int fd = ::open(strPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return v;
  struct stat st = {};
  if (::fstat(fd, &st) == 0 && st.st_size >= static_cast<off_t>(sizeof(SAck))) {
    v.resize(static_cast<size_t>(st.st_size) / sizeof(SAck));
    const ssize_t cb = ::pread(fd, v.data(), v.size() * sizeof(SAck), 0);
    v.resize(cb > 0 ? static_cast<size_t>(cb) / sizeof(SAck) : 0);
  }
  ::close(fd);
  return v;
}

bool SaveAcks(const std::string& strPath, const std::vector<SAck>& v) {
  const std::string strNew = strPath + ".new";
  const int fd = ::open(strNew.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const size_t cb = v.size() * sizeof(SAck);
  const bool bOk = ::write(fd, v.data(), cb) == static_cast<ssize_t>(cb);
  ::close(fd);
  return bOk && ::rename(strNew.c_str(), strPath.c_str()) == 0;
}

bool Exists(const std::string& strPath) {
  struct stat st;
  return ::stat(strPath.c_str(), &st) == 0;
}

// Results travel from a role's process to the harness as "name value" lines.
using TCounters = std::map<std::string, uint64_t>;

void SaveCounters(const std::string& strPath, const TCounters& counters) {
  FILE* pFile = std::fopen(strPath.c_str(), "w");
  if (!pFile) return;
  for (const auto& [strName, ull] : counters) std::fprintf(pFile, "%s %" PRIu64 "\n", strName.c_str(), ull);
  std::fclose(pFile);
}

TCounters LoadCounters(const std::string& strPath) {
  TCounters counters;
  FILE* pFile = std::fopen(strPath.c_str(), "r");
  if (!pFile) return counters;
  char szName[128];
  uint64_t ull = 0;
  while (std::fscanf(pFile, "%127s %" SCNu64, szName, &ull) == 2) counters[szName] = ull;
  std::fclose(pFile);
  return counters;
}

// ---- Checking one frame -----------------------------------------------------------------------------

enum class ECheck { Exact, Wrong, Failed };

struct SCheck {
  ECheck eResult;
  HRESULT hr;
  std::string strWhy;
};

// Reads frame i whole (into task memory, or on odd indices into one caller block that the record
// lays the buffers out in) and compares flags, buffer sizes and bytes.
class CFrameChecker {
 public:
  explicit CFrameChecker(const CFrameModel& model) : m_model(model), m_vScratch(kcbMaxBuffer) {}

  SCheck Check(IRecord* pRecord, uint64_t i) {
    const SFrameShape shape = m_model.Shape(i);
    SFrameBuffer aBuffers[kcMaxBuffers] = {};
    const bool bBlock = (i & 1) != 0;
    if (bBlock) {
      m_vBlock.resize(size_t{kcMaxBuffers} * kcbMaxBuffer);
      aBuffers[0] = {m_vBlock.data(), static_cast<DWORD>(m_vBlock.size())};
    }
    DWORD dwFlags = 0;
    const HRESULT hr = pRecord->Read(ToFileTime(shape.ullTime), &dwFlags, aBuffers, shape.cBuffers);
    SCheck check = {ECheck::Exact, hr, ""};
    if (FAILED(hr)) {
      check = {ECheck::Failed, hr, "Read answered " + Hex(hr)};
    } else if (dwFlags != shape.dwFlags) {
      check = {ECheck::Wrong, hr, "flags " + Hex(static_cast<HRESULT>(dwFlags)) + " instead of " + Hex(static_cast<HRESULT>(shape.dwFlags))};
    } else {
      for (DWORD b = 0; b < shape.cBuffers && check.eResult == ECheck::Exact; ++b) {
        if (aBuffers[b].dwDataSize != shape.acbSizes[b])
          check = {ECheck::Wrong, hr, "buffer " + std::to_string(b) + " has " + std::to_string(aBuffers[b].dwDataSize) + " bytes instead of " + std::to_string(shape.acbSizes[b])};
        else if (!aBuffers[b].pData || !m_model.Same(i, b, aBuffers[b].pData, shape.acbSizes[b], m_vScratch.data()))
          check = {ECheck::Wrong, hr, "buffer " + std::to_string(b) + " holds other bytes"};
      }
    }
    if (!bBlock && SUCCEEDED(hr)) {
      for (DWORD b = 0; b < shape.cBuffers; ++b) CoTaskMemFree(aBuffers[b].pData);
    }
    return check;
  }

 private:
  const CFrameModel& m_model;
  std::vector<BYTE> m_vScratch;
  std::vector<BYTE> m_vBlock;
};

// ---- Role: writer -------------------------------------------------------------------------------------

// Opens the series' archive (making it in the first round, or finishing what a killed first round
// left), takes the record's writer and appends frames until it is killed.
int RunWriter(const SSeries& series, uint64_t ullSeed, uint32_t dwRound, bool bBuffered) {
  const CFrameModel model(ullSeed);
  IArchiveFactory* pFactory = LoadFactory();
  if (!pFactory) return 10;
  CPtr<IKronvale> pArchive;
  HRESULT hr = pFactory->OpenArchive(Bstr(series.Archive()), &pArchive);
  if (FAILED(hr)) hr = pFactory->CreateArchive(Bstr(series.Archive()), &pArchive);
  if (FAILED(hr)) {
    std::fprintf(stderr, "writer: no archive: %s\n", Hex(hr).c_str());
    return 11;
  }
  hr = pArchive->SetFlushTimeout(bBuffered ? kdwFlushMs : 0);
  CPtr<IRecord> pRecord;
  if (SUCCEEDED(hr)) hr = pArchive->CreateRecord(Bstr(kszRecord), &pRecord);
  if (FAILED(hr)) {
    std::fprintf(stderr, "writer: no record writer: %s\n", Hex(hr).c_str());
    return 12;
  }
  for (const std::string& strMark : {series.ReadyMark(), series.WritingMark(dwRound)}) {
    const int fd = ::open(strMark.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) ::close(fd);
  }

  const std::vector<SAck> vAcks = LoadAcks(series.AckLog());
  uint64_t i = vAcks.empty() ? 0 : vAcks.back().ullIndex + 1;
  const int fdAcks = ::open(series.AckLog().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fdAcks < 0) return 13;
  std::vector<BYTE> vData(size_t{kcMaxBuffers} * kcbMaxBuffer);
  for (;; ++i) {
    const SFrameShape shape = model.Shape(i);
    SFrameBuffer aBuffers[kcMaxBuffers];
    for (DWORD b = 0; b < shape.cBuffers; ++b) {
      aBuffers[b] = {vData.data() + size_t{b} * kcbMaxBuffer, shape.acbSizes[b]};
      model.Fill(i, b, aBuffers[b].pData, shape.acbSizes[b]);
    }
    hr = pRecord->Write(ToFileTime(shape.ullTime), shape.dwFlags, aBuffers, shape.cBuffers);
    if (FAILED(hr)) {
      std::fprintf(stderr, "writer: Write of frame %" PRIu64 " answered %s\n", i, Hex(hr).c_str());
      return 14;
    }
    const SAck ack = {i, MonotonicNs(), dwRound, bBuffered ? 1u : 0u};
    if (::write(fdAcks, &ack, sizeof(ack)) != static_cast<ssize_t>(sizeof(ack))) return 15;
  }
}

// ---- Role: reader -------------------------------------------------------------------------------------

volatile sig_atomic_t g_bStop = 0;
volatile sig_atomic_t g_nPhase = 0;  // 0 while the writer lives, 1 while the verifier runs, 2 after it
const char* const kapszPhases[] = {"during", "verifying", "after"};

// Reads acknowledged frames (mostly the newest, where the writer is) through a reader object of its
// own archive object, and finds them with GetNext, until told to stop. Counts reads that answered
// the frame, reads that answered other bytes (never allowed), and reads that failed, by phase:
// while the writer lived, while the verifier repaired the hour under it (a read may then answer its
// own error), and after the verifier finished.
int RunReader(const SSeries& series, uint64_t ullSeed) {
  // The harness starts this process with its signals blocked, so none comes before its handler.
  struct sigaction sa = {};
  sa.sa_handler = [](int) { g_bStop = 1; };
  ::sigaction(SIGTERM, &sa, nullptr);
  sa.sa_handler = [](int) { g_nPhase = 1; };
  ::sigaction(SIGUSR1, &sa, nullptr);
  sa.sa_handler = [](int) { g_nPhase = 2; };
  ::sigaction(SIGUSR2, &sa, nullptr);
  sigset_t set;
  sigemptyset(&set);
  ::sigprocmask(SIG_SETMASK, &set, nullptr);

  const CFrameModel model(ullSeed);
  TCounters counters;
  IArchiveFactory* pFactory = LoadFactory();
  if (!pFactory) return 10;
  CPtr<IKronvale> pArchive;
  CPtr<IRecord> pRecord;
  // The first round's writer may still be making the archive or the record.
  while (!g_bStop && !pRecord.p) {
    if (!pArchive.p && (!Exists(series.ReadyMark()) || FAILED(pFactory->OpenArchive(Bstr(series.Archive()), &pArchive)))) {
      SleepNs(2000000);
      continue;
    }
    if (FAILED(pArchive->OpenRecord(Bstr(kszRecord), &pRecord))) SleepNs(2000000);
  }
  CFrameChecker checker(model);
  uint64_t ullRandom = Mix(ullSeed ^ 0x7EADull);
  std::vector<SAck> vAcks;
  while (!g_bStop && pRecord.p) {
    vAcks = LoadAcks(series.AckLog());
    if (vAcks.empty()) {
      SleepNs(1000000);
      continue;
    }
    const char* pszPhase = kapszPhases[g_nPhase];
    ullRandom = Mix(ullRandom);
    const uint64_t i = ullRandom % 2 ? vAcks.back().ullIndex : vAcks[ullRandom / 2 % vAcks.size()].ullIndex;
    const SCheck check = checker.Check(pRecord.p, i);
    if (check.eResult == ECheck::Exact) {
      ++counters["reads_exact"];
    } else if (check.eResult == ECheck::Wrong) {
      ++counters["reads_wrong"];
      std::fprintf(stderr, "reader: frame %" PRIu64 " read back wrong: %s\n", i, check.strWhy.c_str());
    } else {
      ++counters[std::string("read_errors_") + pszPhase];
      ++counters[std::string("read_error_") + pszPhase + "_" + Hex(check.hr)];
      if (g_nPhase != 1) std::fprintf(stderr, "reader: frame %" PRIu64 ": %s\n", i, check.strWhy.c_str());
    }
    // The frame before an acknowledged one leads to it.
    if (ullRandom % 8 == 0) {
      FILETIME ftFound = {};
      const HRESULT hr = pRecord->GetNext(ToFileTime(model.Time(i) - 1), nullptr, &ftFound);
      if (SUCCEEDED(hr) && FromFileTime(ftFound) == model.Time(i)) {
        ++counters["next_exact"];
      } else if (SUCCEEDED(hr)) {
        ++counters["next_wrong"];
        std::fprintf(stderr, "reader: GetNext before frame %" PRIu64 " found another time\n", i);
      } else {
        ++counters[std::string("next_errors_") + pszPhase];
        if (g_nPhase != 1) std::fprintf(stderr, "reader: GetNext before frame %" PRIu64 " answered %s\n", i, Hex(hr).c_str());
      }
    }
  }
  SaveCounters(series.Result("reader"), counters);
  // Ends holding its archive, as a host that exits does: the library stops its workers.
  pRecord.Reset();
  return 0;
}

// ---- Role: verifier -----------------------------------------------------------------------------------

struct SVerifyArgs {
  uint64_t ullSeed;
  uint32_t dwRound;
  uint64_t ullKillNs;
};

class CVerifier {
 public:
  CVerifier(const SSeries& series, const SVerifyArgs& args)
      : m_series(series), m_args(args), m_model(args.ullSeed), m_checker(m_model) {}

  int Run() {
    IArchiveFactory* pFactory = LoadFactory();
    if (!pFactory) return 10;
    m_vAcks = LoadAcks(m_series.AckLog());
    CPtr<IKronvale> pArchive;
    HRESULT hr = pFactory->OpenArchive(Bstr(m_series.Archive()), &pArchive);
    if (FAILED(hr)) {
      // A writer killed before its archive was made leaves nothing to check.
      if (m_vAcks.empty() && !Exists(m_series.ReadyMark())) return Finish();
      return Fail("OpenArchive answered " + Hex(hr));
    }
    CPtr<IRecord> pRecord;
    hr = pArchive->CreateRecord(Bstr(kszRecord), &pRecord);
    if (FAILED(hr)) return Fail("the record's writer: CreateRecord answered " + Hex(hr));
    if (!m_vAcks.empty()) {
      CheckFirstRead(pRecord.p);
      CheckAll(pRecord.p);
    }
    Walk(pRecord.p);
    // Frames that may go (young buffered ones) and went are dropped from the log, so that the next
    // writer writes them again instead of the next round missing them.
    if (m_bDroppedYoung) SaveAcks(m_series.AckLog(), m_vKept);
    return Finish();
  }

 private:
  // A buffered frame of this round acknowledged too shortly before the kill to be promised.
  bool IsYoung(const SAck& ack) const {
    return ack.bBuffered && ack.dwRound == m_args.dwRound &&
           ack.ullAckNs + uint64_t{kdwFlushMs + kdwMarginMs} * 1000000ull > m_args.ullKillNs;
  }

  // The first read of the process goes to the hour the writer was in when it died, which is the one
  // the record's writer must test and repair before it answers: in even rounds the first frame of
  // that hour, in odd rounds the last acknowledged frame.
  void CheckFirstRead(IRecord* pRecord) {
    size_t n = m_vAcks.size() - 1;
    if (m_args.dwRound % 2 == 0) {
      const uint64_t ullHour = m_model.Time(m_vAcks[n].ullIndex) / kullTicksPerHour;
      while (n > 0 && m_model.Time(m_vAcks[n - 1].ullIndex) / kullTicksPerHour == ullHour) --n;
    }
    m_nFirst = n;
    ++m_counters["first_reads"];
    if (!CheckAck(pRecord, m_vAcks[n])) ++m_counters["first_read_failures"];
  }

  void CheckAll(IRecord* pRecord) {
    for (size_t n = 0; n < m_vAcks.size(); ++n) {
      if (n == m_nFirst) continue;
      CheckAck(pRecord, m_vAcks[n]);
    }
    for (size_t n = 0; n < m_vAcks.size(); ++n) {
      if (m_vMissingYoung.count(n)) {
        m_bDroppedYoung = true;
        break;  // the log keeps the frames before the first one lost
      }
      m_vKept.push_back(m_vAcks[n]);
    }
  }

  bool CheckAck(IRecord* pRecord, const SAck& ack) {
    ++m_counters["frames_checked"];
    const SCheck check = m_checker.Check(pRecord, ack.ullIndex);
    if (check.eResult == ECheck::Exact) return true;
    const bool bMissing = check.eResult == ECheck::Failed && (check.hr == NSKronvale::khrNotFound || check.hr == NSKronvale::khrFileNotFound);
    if (bMissing && IsYoung(ack)) {
      ++m_counters["young_buffered_frames_missing"];
      m_vMissingYoung[static_cast<size_t>(&ack - m_vAcks.data())] = true;
      return true;
    }
    Fail("acknowledged frame " + std::to_string(ack.ullIndex) + " (round " + std::to_string(ack.dwRound) +
         (ack.bBuffered ? ", buffered" : ", write-through") + "): " + check.strWhy);
    return false;
  }

  // GetNext from before the first frame to the end, then GetPrev from after the last back to the
  // start: both list every acknowledged frame in time order. Besides them a walk may meet frames
  // written after the last acknowledged one (Write had not returned when the kill came); such a
  // frame, when it reads, must read as written.
  void Walk(IRecord* pRecord) {
    const uint64_t ullLimit = m_vAcks.size() + 16;
    std::vector<uint64_t> vForward, vBackward;
    FILETIME ft = ToFileTime(m_model.Time(0) - kullTicksPerHour);
    for (FILETIME ftNext; vForward.size() <= ullLimit && SUCCEEDED(pRecord->GetNext(ft, nullptr, &ftNext)); ft = ftNext)
      vForward.push_back(FromFileTime(ftNext));
    const uint64_t ullAfter = m_model.Time((m_vAcks.empty() ? 0 : m_vAcks.back().ullIndex) + 64) + kullTicksPerHour;
    ft = ToFileTime(ullAfter);
    for (FILETIME ftPrev; vBackward.size() <= ullLimit && SUCCEEDED(pRecord->GetPrev(ft, nullptr, &ftPrev)); ft = ftPrev)
      vBackward.push_back(FromFileTime(ftPrev));
    std::reverse(vBackward.begin(), vBackward.end());
    if (vForward.size() > ullLimit) return (void)Fail("GetNext does not come to an end");
    if (vForward != vBackward) return (void)Fail("GetNext and GetPrev list different frames");

    const uint64_t ullLastAcked = m_vAcks.empty() ? 0 : m_vAcks.back().ullIndex;
    size_t nAck = 0;
    for (const uint64_t ullTime : vForward) {
      uint64_t i = 0;
      if (!m_model.IndexOf(ullTime, &i)) return (void)Fail("the walk lists a time no frame was written at");
      while (nAck < m_vAcks.size() && m_vMissingYoung.count(nAck)) ++nAck;
      if (nAck < m_vAcks.size() && m_vAcks[nAck].ullIndex == i) {
        ++nAck;
        ++m_counters["frames_walked"];
        continue;
      }
      if (!m_vAcks.empty() && i <= ullLastAcked)
        return (void)Fail("the walk lists frame " + std::to_string(i) + " where acknowledged frame " +
                          std::to_string(nAck < m_vAcks.size() ? m_vAcks[nAck].ullIndex : ~0ull) + " belongs");
      ++m_counters["unacknowledged_frames_found"];
      const SCheck check = m_checker.Check(pRecord, i);
      if (check.eResult == ECheck::Wrong) {
        // A frame cut short by the kill by no more than its header's length is kept by the repair
        // with a zeroed tail: it was never acknowledged.
        ++m_counters["unacknowledged_frames_read_wrong"];
      } else if (check.eResult == ECheck::Failed) {
        ++m_counters["unacknowledged_frames_unreadable"];
      }
    }
    while (nAck < m_vAcks.size() && m_vMissingYoung.count(nAck)) ++nAck;
    if (nAck != m_vAcks.size())
      Fail("the walk misses acknowledged frame " + std::to_string(m_vAcks[nAck].ullIndex));
  }

  int Fail(const std::string& strWhy) {
    ++m_counters["failures"];
    std::fprintf(stderr, "verify (round %u): %s\n", m_args.dwRound, strWhy.c_str());
    return 1;
  }

  int Finish() {
    SaveCounters(m_series.Result("verify"), m_counters);
    return m_counters["failures"] ? 1 : 0;
  }

  const SSeries& m_series;
  SVerifyArgs m_args;
  CFrameModel m_model;
  CFrameChecker m_checker;
  std::vector<SAck> m_vAcks;
  std::map<size_t, bool> m_vMissingYoung;  // positions in m_vAcks
  std::vector<SAck> m_vKept;
  bool m_bDroppedYoung = false;
  size_t m_nFirst = ~size_t{0};
  TCounters m_counters;
};

// ---- Role: harness ------------------------------------------------------------------------------------

std::string g_strSelf;

pid_t Spawn(const std::vector<std::string>& vArgs) {
  std::vector<char*> vArgv;
  vArgv.push_back(const_cast<char*>(g_strSelf.c_str()));
  for (const std::string& str : vArgs) vArgv.push_back(const_cast<char*>(str.c_str()));
  vArgv.push_back(nullptr);
  // Signals the harness sends stay pending until the child has its handlers.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t set;
  sigemptyset(&set);
  for (int nSignal : {SIGTERM, SIGUSR1, SIGUSR2}) sigaddset(&set, nSignal);
  posix_spawnattr_setsigmask(&attr, &set);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
  pid_t pid = 0;
  const int nResult = posix_spawn(&pid, g_strSelf.c_str(), nullptr, &attr, vArgv.data(), environ);
  posix_spawnattr_destroy(&attr);
  return nResult == 0 ? pid : -1;
}

// Waits for a child; false (and the child killed) when it has not ended within the time.
bool Wait(pid_t pid, uint64_t ullTimeoutMs, int* pnStatus) {
  const uint64_t ullEnd = MonotonicNs() + ullTimeoutMs * 1000000ull;
  for (;;) {
    const pid_t r = ::waitpid(pid, pnStatus, WNOHANG);
    if (r == pid) return true;
    if (r < 0 && errno != EINTR) return false;
    if (MonotonicNs() > ullEnd) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, pnStatus, 0);
      return false;
    }
    SleepNs(2000000);
  }
}

std::string Describe(int nStatus) {
  if (WIFEXITED(nStatus)) return "exit code " + std::to_string(WEXITSTATUS(nStatus));
  if (WIFSIGNALED(nStatus)) return "signal " + std::to_string(WTERMSIG(nStatus));
  return "status " + std::to_string(nStatus);
}

struct SOptions {
  uint64_t ullSeed = 1;
  uint64_t cKills = 30;
  uint64_t ullMaxDelayMs = 600;  // of writing before the kill; more where processes run slowly
  std::string strDir;
  bool bKeep = false;
  bool bVerbose = false;
};

class CHarness {
 public:
  explicit CHarness(const SOptions& options) : m_options(options) {}

  int Run() {
    std::string strRoot = m_options.strDir;
    bool bOwnRoot = false;
    if (strRoot.empty()) {
      const char* pszTmp = std::getenv("TMPDIR");
      std::string strTemplate = std::string(pszTmp && *pszTmp ? pszTmp : "/tmp") + "/kv-kill-XXXXXX";
      if (!::mkdtemp(strTemplate.data())) return Usage("cannot make a scratch directory");
      strRoot = strTemplate;
      bOwnRoot = true;
    } else {
      ::mkdir(strRoot.c_str(), 0755);
    }
    std::printf("kill harness: seed %" PRIu64 ", %" PRIu64 " kills, in %s\n", m_options.ullSeed, m_options.cKills,
                strRoot.c_str());
    std::fflush(stdout);

    uint64_t ullRandom = Mix(m_options.ullSeed);
    SSeries series;
    uint64_t ullSeriesSeed = 0;
    uint32_t dwRoundInSeries = 0, cRoundsInSeries = 0, cSeries = 0;
    bool bSeriesFailed = false;
    for (uint64_t k = 0; k < m_options.cKills; ++k) {
      if (dwRoundInSeries == cRoundsInSeries) {
        if (!series.strDir.empty() && !bSeriesFailed && !m_options.bKeep) RemoveTree(series.strDir);
        ullSeriesSeed = Mix(m_options.ullSeed * 1000003ull + cSeries);
        series.strDir = strRoot + "/series" + std::to_string(cSeries++);
        ::mkdir(series.strDir.c_str(), 0755);
        dwRoundInSeries = 0;
        cRoundsInSeries = 2 + static_cast<uint32_t>(Mix(ullSeriesSeed) % 5);
        bSeriesFailed = false;
      }
      ullRandom = Mix(ullRandom);
      const bool bBuffered = k % 2 == 1;
      const bool bReader = ullRandom % 3 == 0;
      // Mostly while frames flow (counted from the moment the writer holds the record); one kill in
      // eight comes early (counted from its start), while the library loads or the archive is made
      // or opened.
      const bool bEarly = (ullRandom >> 8) % 8 == 0;
      const uint64_t ullDelayMs = bEarly ? (ullRandom >> 16) % 60 : 5 + (ullRandom >> 16) % m_options.ullMaxDelayMs;
      if (!RunRound(series, ullSeriesSeed, dwRoundInSeries, bBuffered, bReader, bEarly, ullDelayMs)) {
        // The series ends here, its files as the failed round left them.
        cRoundsInSeries = dwRoundInSeries + 1;
        bSeriesFailed = true;
        ++m_cFailedRounds;
        std::printf("round %" PRIu64 " FAILED (%s, %s, seed %" PRIu64 ", round %u of the series, kill after %" PRIu64
                    " ms %s); kept in %s\n",
                    k, bBuffered ? "buffered" : "write-through", bReader ? "with a reader" : "no reader",
                    ullSeriesSeed, dwRoundInSeries, ullDelayMs, bEarly ? "from its start" : "of writing",
                    series.strDir.c_str());
      } else if (m_options.bVerbose) {
        std::printf("round %" PRIu64 " passed (%s%s, kill after %" PRIu64 " ms %s, %" PRIu64 " frames acknowledged)\n",
                    k, bBuffered ? "buffered" : "write-through", bReader ? ", reader" : "", ullDelayMs,
                    bEarly ? "from its start" : "of writing", m_cLastAcked);
      }
      std::fflush(stdout);
      ++dwRoundInSeries;
    }
    if (!bSeriesFailed && !m_options.bKeep) RemoveTree(series.strDir);
    if (bOwnRoot && m_cFailedRounds == 0 && !m_options.bKeep) RemoveTree(strRoot);

    std::printf("\nrounds %" PRIu64 ", kills %" PRIu64 ", frames checked %" PRIu64 " (walked %" PRIu64
                "), first reads checked %" PRIu64 " (failed %" PRIu64 "), failures %" PRIu64 "\n",
                m_options.cKills, m_cKills, m_totals["frames_checked"], m_totals["frames_walked"],
                m_totals["first_reads"], m_totals["first_read_failures"], m_cFailedRounds);
    std::printf("write-through rounds %" PRIu64 ", buffered rounds %" PRIu64 "; young buffered frames missing %" PRIu64
                " (promise: every frame acknowledged more than %u ms before the kill)\n",
                m_cWriteThrough, m_cBuffered, m_totals["young_buffered_frames_missing"], kdwFlushMs + kdwMarginMs);
    std::printf("frames written but not acknowledged, found by the walk %" PRIu64 " (read wrong %" PRIu64
                ", unreadable %" PRIu64 "); kills before a frame of the round was acknowledged %" PRIu64 "\n",
                m_totals["unacknowledged_frames_found"], m_totals["unacknowledged_frames_read_wrong"],
                m_totals["unacknowledged_frames_unreadable"], m_cEarlyKills);
    std::printf("reader rounds %" PRIu64 ": reads exact %" PRIu64 ", wrong %" PRIu64 ", failed while the writer lived %" PRIu64
                ", while the verifier repaired %" PRIu64 ", after it %" PRIu64 "\n",
                m_cReaderRounds, m_totals["reads_exact"], m_totals["reads_wrong"], m_totals["read_errors_during"],
                m_totals["read_errors_verifying"], m_totals["read_errors_after"]);
    for (const auto& [strName, ull] : m_totals)
      if (strName.rfind("read_error_", 0) == 0) std::printf("  %s %" PRIu64 "\n", strName.c_str(), ull);
    std::printf("%" PRIu64 " passed, %" PRIu64 " failed\n", m_options.cKills - m_cFailedRounds, m_cFailedRounds);
    return m_cFailedRounds ? 1 : 0;
  }

 private:
  bool RunRound(const SSeries& series, uint64_t ullSeed, uint32_t dwRound, bool bBuffered, bool bReader, bool bEarly,
                uint64_t ullDelayMs) {
    const std::string strSeed = std::to_string(ullSeed);
    const std::string strRound = std::to_string(dwRound);
    (bBuffered ? m_cBuffered : m_cWriteThrough)++;
    ::unlink(series.Result("verify").c_str());
    ::unlink(series.Result("reader").c_str());
    const size_t cAckedBefore = LoadAcks(series.AckLog()).size();
    bool bOk = true;

    pid_t pidReader = -1;
    if (bReader) {
      ++m_cReaderRounds;
      pidReader = Spawn({"reader", series.strDir, strSeed});
    }
    const pid_t pidWriter = Spawn({"writer", series.strDir, strSeed, strRound, bBuffered ? "buffered" : "write-through"});
    if (pidWriter < 0) return Complain("cannot start the writer");
    int nStatus = 0;
    // A writer that is not writing within a minute has hung (or ended, which shows below).
    for (int n = 0; !bEarly && n < 30000 && !Exists(series.WritingMark(dwRound)); ++n) {
      if (::waitpid(pidWriter, &nStatus, WNOHANG) == pidWriter) return Complain("the writer ended before writing (" + Describe(nStatus) + ")");
      SleepNs(2000000);
    }
    SleepNs(ullDelayMs * 1000000ull);
    if (::waitpid(pidWriter, &nStatus, WNOHANG) == pidWriter) {
      bOk = Complain("the writer ended by itself (" + Describe(nStatus) + ")");
    } else {
      const uint64_t ullKillNs = MonotonicNs();
      ::kill(pidWriter, SIGKILL);
      ::waitpid(pidWriter, &nStatus, 0);
      ++m_cKills;
      if (pidReader > 0) ::kill(pidReader, SIGUSR1);
      m_cLastAcked = LoadAcks(series.AckLog()).size() - cAckedBefore;
      if (m_cLastAcked == 0) ++m_cEarlyKills;

      const pid_t pidVerifier = Spawn({"verify", series.strDir, strSeed, strRound, std::to_string(ullKillNs)});
      if (pidVerifier < 0) return Complain("cannot start the verifier");
      if (!Wait(pidVerifier, 300000, &nStatus)) bOk = Complain("the verifier did not finish in 5 minutes");
      else if (!WIFEXITED(nStatus) || WEXITSTATUS(nStatus) != 0) bOk = Complain("the verifier failed (" + Describe(nStatus) + ")");
      Add(LoadCounters(series.Result("verify")));
    }
    if (pidReader > 0) {
      // A moment of reading after the verifier, when the hour is whole again.
      ::kill(pidReader, SIGUSR2);
      SleepNs(100000000);
      ::kill(pidReader, SIGTERM);
      if (!Wait(pidReader, 60000, &nStatus)) bOk = Complain("the reader did not stop within a minute");
      else if (!WIFEXITED(nStatus) || WEXITSTATUS(nStatus) != 0) bOk = Complain("the reader failed (" + Describe(nStatus) + ")");
      TCounters reader = LoadCounters(series.Result("reader"));
      if (reader["reads_wrong"]) bOk = Complain("the reader read frames other than were written");
      if (reader["next_wrong"]) bOk = Complain("the reader's GetNext passed over an acknowledged frame");
      if (reader["read_errors_during"] || reader["next_errors_during"])
        bOk = Complain("the reader failed to read acknowledged frames while the writer lived");
      if (reader["read_errors_after"] || reader["next_errors_after"])
        bOk = Complain("the reader failed to read acknowledged frames after the verifier had finished");
      Add(reader);
    }
    return bOk;
  }

  bool Complain(const std::string& strWhat) {
    std::printf("  %s\n", strWhat.c_str());
    return false;
  }

  void Add(const TCounters& counters) {
    for (const auto& [strName, ull] : counters) m_totals[strName] += ull;
  }

  static void RemoveTree(const std::string& strPath) {
    std::error_code ec;
    std::filesystem::remove_all(strPath, ec);
  }

  static int Usage(const char* pszWhy) {
    std::fprintf(stderr, "kv_kill_harness: %s\n", pszWhy);
    return 2;
  }

  SOptions m_options;
  TCounters m_totals;
  uint64_t m_cKills = 0, m_cFailedRounds = 0, m_cEarlyKills = 0, m_cReaderRounds = 0;
  uint64_t m_cWriteThrough = 0, m_cBuffered = 0, m_cLastAcked = 0;
};

bool ParseNumber(const char* psz, uint64_t* pull) {
  char* pszEnd = nullptr;
  errno = 0;
  *pull = std::strtoull(psz, &pszEnd, 10);
  return errno == 0 && pszEnd != psz && *pszEnd == 0;
}

int Main(int argc, char** argv) {
  char szSelf[4096] = {};
  const ssize_t cch = ::readlink("/proc/self/exe", szSelf, sizeof(szSelf) - 1);
  if (cch <= 0) return 2;
  g_strSelf.assign(szSelf, static_cast<size_t>(cch));
  const std::string strRole = argc > 1 ? argv[1] : "";
  uint64_t ullSeed = 0, ullRound = 0, ullKillNs = 0;
  if (strRole == "writer" && argc == 6 && ParseNumber(argv[3], &ullSeed) && ParseNumber(argv[4], &ullRound))
    return RunWriter({argv[2]}, ullSeed, static_cast<uint32_t>(ullRound), std::string(argv[5]) == "buffered");
  if (strRole == "reader" && argc == 4 && ParseNumber(argv[3], &ullSeed)) return RunReader({argv[2]}, ullSeed);
  if (strRole == "verify" && argc == 6 && ParseNumber(argv[3], &ullSeed) && ParseNumber(argv[4], &ullRound) &&
      ParseNumber(argv[5], &ullKillNs))
    return CVerifier({argv[2]}, {ullSeed, static_cast<uint32_t>(ullRound), ullKillNs}).Run();
  if (strRole != "run") {
    std::fprintf(stderr, "usage: kv_kill_harness run [--seed N] [--kills N] [--max-delay-ms N] [--dir PATH] [--keep] [--verbose]\n");
    return 2;
  }
  SOptions options;
  for (int n = 2; n < argc; ++n) {
    const std::string strArg = argv[n];
    const bool bValue = n + 1 < argc;
    if (strArg == "--seed" && bValue && ParseNumber(argv[n + 1], &options.ullSeed)) ++n;
    else if (strArg == "--kills" && bValue && ParseNumber(argv[n + 1], &options.cKills)) ++n;
    else if (strArg == "--max-delay-ms" && bValue && ParseNumber(argv[n + 1], &options.ullMaxDelayMs) &&
             options.ullMaxDelayMs > 0) ++n;
    else if (strArg == "--dir" && bValue) options.strDir = argv[++n];
    else if (strArg == "--keep") options.bKeep = true;
    else if (strArg == "--verbose") options.bVerbose = true;
    else {
      std::fprintf(stderr, "kv_kill_harness: unknown or incomplete option %s\n", strArg.c_str());
      return 2;
    }
  }
  // The children write to their own files; a harness killed by its user takes no child along.
  ::signal(SIGPIPE, SIG_IGN);
  return CHarness(options).Run();
}

}  // namespace
}  // namespace NSTest

int main(int argc, char** argv) { return NSTest::Main(argc, argv); }
