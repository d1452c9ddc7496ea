// A recorder on a volume that fills, on the native build: an archive with a free-space limit on a
// small tmpfs of its own, a writer offering 64 KiB frames at a steady rate, and what it gets done
// before the volume fills, across the gap (from the first refused frame to the next one taken) and
// after. The baseline is the rate before the volume filled, in the same run. Nothing here asserts a
// speed: the goal (recording resumes within a second of the first refused frame) is printed beside
// what was measured. Mounting needs root; elsewhere the program says so and stops.

// The archive's headers come first: <sys/mount.h> defines LOCK_WRITE, a name the COM kit declares.
#include "BenchSupport.h"
#include "archive/ArchiveImpl.h"
#include "com/ComKit.h"

#include <sys/mount.h>

#include <cstdio>
#include <string>
#include <vector>

using namespace NSBench;
using NSArchive::CArchiveImpl;

namespace {

constexpr unsigned kcVolumeMiB = 256;
constexpr ULONGLONG kullMinimumFree = 32ull * 1048576;
constexpr size_t kcbFrame = 65536;
constexpr double kdOfferedPerSecond = 400.0;  // 26 MB/s
constexpr LONGLONG kllRecordingStep = 10ll * 10000000;  // each frame ten seconds of recording time
constexpr double kdRunSeconds = 14.0;

struct SOutcome {
  double dAt;
  bool bTaken;
};

}  // namespace

int main() {
  ProgramName() = "kv_diskfull_bench";
  const WString strRoot = MakeRunDirectory();
  const WString strVolume = NSPlatform::CombinePath(strRoot, KV_W("volume"));
  Check(NSPlatform::CreateDirTree(strVolume.c_str()), "creating the volume's directory");
  const std::string strMount = NSPlatform::WideToUtf8(strVolume);
  const std::string strOptions = "size=" + std::to_string(kcVolumeMiB) + "m";
  if (mount("kronvale-bench", strMount.c_str(), "tmpfs", 0, strOptions.c_str()) != 0) {
    std::fprintf(stderr, "%s: mounting a %u MiB tmpfs failed (errno %d): run it as root\n", ProgramName(), kcVolumeMiB,
                 errno);
    NSPlatform::RemoveDir(strVolume.c_str());
    NSPlatform::RemoveDir(strRoot.c_str());
    return 1;
  }
  static std::string s_strMount = strMount;
  AtDie() = [] { umount2(s_strMount.c_str(), MNT_DETACH); };

  std::vector<SOutcome> vOutcomes;
  {
    NSCom::CComObject<CArchiveImpl>* p = nullptr;
    Check(NSCom::CComObject<CArchiveImpl>::CreateInstance(&p), "CreateInstance");
    NSCom::CComPtr<IKronvale> pArchive(p);
    Check(p->Create(NSPlatform::CombinePath(strVolume, KV_W("arc"))), "CreateArchive");
    NSCom::CComPtr<IKronvaleQuota> pQuota;
    Check(pArchive->QueryInterface(IID_IKronvaleQuota, reinterpret_cast<void**>(&pQuota)), "IKronvaleQuota");
    const SArchiveQuota quota = {kullMinimumFree, 0, 0, 0};
    Check(pQuota->SetArchiveQuota(&quota), "SetArchiveQuota");
    NSCom::CComPtr<IRecord> pRecord;
    Check(pArchive->CreateRecord(NSCom::CComBSTR(KV_W("cam")), &pRecord), "CreateRecord");

    std::vector<BYTE> vFrame(kcbFrame, 0x5A);
    SYSTEMTIME st = {2021, 1, 5, 1, 0, 0, 0, 0};
    ULONGLONG ullTime = Ticks(st);
    const CStopwatch clock;
    for (long n = 0;; ++n) {
      const double dDue = static_cast<double>(n) / kdOfferedPerSecond;
      if (dDue > kdRunSeconds) break;
      while (clock.Seconds() < dDue) {
      }
      SFrameBuffer buffer = {vFrame.data(), static_cast<DWORD>(kcbFrame)};
      const HRESULT hr = pRecord->Write(NSPlatform::U64ToFileTime(ullTime), 1, &buffer, 1);
      ullTime += kllRecordingStep;
      vOutcomes.push_back({clock.Seconds(), hr == S_OK});
    }
    pRecord.Release();
    pArchive->Free();
  }
  umount2(strMount.c_str(), MNT_DETACH);
  AtDie() = nullptr;
  NSPlatform::RemoveDir(strVolume.c_str());
  NSPlatform::RemoveDir(strRoot.c_str());

  // Each episode: the first refused frame, the next frame taken, and the rates of the second
  // before and the second after.
  auto rate = [&](double dFrom, double dTo) {
    size_t c = 0;
    for (const SOutcome& o : vOutcomes) c += o.bTaken && o.dAt >= dFrom && o.dAt < dTo;
    return static_cast<double>(c) / (dTo - dFrom);
  };
  std::printf("kv_diskfull_bench: %u MiB tmpfs, free-space limit %llu MiB, %zu-byte frames offered at %.0f/s for %.0f s\n\n",
              kcVolumeMiB, static_cast<unsigned long long>(kullMinimumFree / 1048576), kcbFrame, kdOfferedPerSecond, kdRunSeconds);
  std::printf("%-8s %12s %12s %10s %12s %12s %8s\n", "episode", "filled at s", "gap ms", "refused", "before /s",
              "after /s", "after/before");
  int nEpisode = 0;
  for (size_t i = 0; i < vOutcomes.size(); ++i) {
    if (vOutcomes[i].bTaken || (i && !vOutcomes[i - 1].bTaken)) continue;
    size_t j = i;
    while (j < vOutcomes.size() && !vOutcomes[j].bTaken) ++j;
    const double dFirst = vOutcomes[i].dAt;
    if (j == vOutcomes.size()) {
      std::printf("%-8d %12.2f %12s %10zu\n", ++nEpisode, dFirst, "never", j - i);
      break;
    }
    const double dResumed = vOutcomes[j].dAt;
    const double dBefore = rate(dFirst - 1.0, dFirst);
    const double dAfter = rate(dResumed, dResumed + 1.0);
    std::printf("%-8d %12.2f %12.1f %10zu %12.0f %12.0f %8.2f\n", ++nEpisode, dFirst, (dResumed - dFirst) * 1000.0,
                j - i, dBefore, dAfter, dBefore > 0 ? dAfter / dBefore : 0.0);
  }
  if (!nEpisode) std::printf("(the volume never filled)\n");
  std::printf("\ngoal: each gap under 1000 ms (the worker's period, without the wake, is %u ms)\n",
              static_cast<unsigned>(NSArchive::kdwQuotaPeriodMs));
  return 0;
}
