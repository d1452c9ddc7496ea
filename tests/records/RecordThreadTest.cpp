// Many threads on one record at once: writers sharing the record's writer object across two hours,
// readers with objects of their own and one reading through the writer object, all on the same hour
// directories. Every frame a reader finds must be the one that was written.
#include <atomic>
#include <thread>

#include "records/RecordTestSupport.h"

using namespace NSTest;

namespace {

constexpr int kcWriters = 3;
constexpr int kcFramesPerWriter = 400;
// Frame n lies n x 90 ms after 10:59:30, so the frames cross into 11h after a third of them.
constexpr LONGLONG kllStep = 90 * kllMs;

FILETIME FrameTime(int n) { return Plus(Ft(2021, 3, 7, 10, 59, 30), n * kllStep); }

// The bytes of frame n: its number and a length that varies with it.
std::vector<std::string> FrameBuffers(int n) {
  std::string str = "frame " + std::to_string(n) + " ";
  str.resize(20 + (n * 37) % 3000, char('a' + n % 26));
  return {str, std::to_string(n * 7)};
}

TEST(RecordThreadTest, WritersAndReadersShareARecord) {
  NSTest::CTempDir dir;
  CTestArchive archive(dir.Sub(KV_W("arc")));
  auto pWriter = archive.Writer("cam");
  ASSERT_TRUE(pWriter);
  // Written frames, per writer: frame k + kcWriters x i is written by writer k.
  std::atomic<int> acWritten[kcWriters] = {};
  std::atomic<int> cFailures{0};
  std::atomic<int> cReads{0};
  std::atomic<bool> bDone{false};

  auto check = [&](IRecord* pRecord, int n) {
    DWORD dwFlags = 0;
    const std::vector<std::string> v = ReadFrame(pRecord, FrameTime(n), 2, &dwFlags);
    if (v != FrameBuffers(n) || dwFlags != static_cast<DWORD>(n)) {
      ++cFailures;
      ADD_FAILURE() << "frame " << n << " read back as '" << v[0].substr(0, 40) << "'";
    }
    ++cReads;
  };
  std::vector<std::thread> vThreads;
  for (int k = 0; k < kcWriters; ++k) {
    vThreads.emplace_back([&, k] {
      for (int i = 0; i < kcFramesPerWriter; ++i) {
        const int n = k + kcWriters * i;
        if (FAILED(WriteFrame(pWriter, FrameTime(n), static_cast<DWORD>(n), FrameBuffers(n)))) {
          ++cFailures;
          return;
        }
        acWritten[k] = i + 1;
      }
    });
  }
  // Readers pick frames already written, and walk the record forward.
  auto reader = [&](IRecordEx* pRecord, unsigned uSeed) {
    unsigned u = uSeed;
    while (!bDone) {
      u = u * 1103515245u + 12345u;
      const int k = static_cast<int>(u >> 16) % kcWriters;
      const int cDone = acWritten[k].load();
      if (cDone == 0) continue;
      check(pRecord, k + kcWriters * static_cast<int>((u >> 8) % cDone));
      FILETIME ft;
      if (SUCCEEDED(pRecord->GetNext(FrameTime(0), nullptr, &ft)) && U(ft) != U(FrameTime(0))) {
        // Frame 0 is the first one: anything else found first must come later.
        if (U(ft) < U(FrameTime(0))) ++cFailures;
      }
    }
  };
  auto pReaderA = archive.Reader("cam", "a");
  auto pReaderB = archive.Reader("cam", "b");
  vThreads.emplace_back(reader, pReaderA.p, 1u);
  vThreads.emplace_back(reader, pReaderB.p, 2u);
  vThreads.emplace_back(reader, pWriter.p, 3u);
  for (int k = 0; k < kcWriters; ++k) vThreads[k].join();
  bDone = true;
  for (size_t i = kcWriters; i < vThreads.size(); ++i) vThreads[i].join();
  EXPECT_EQ(0, cFailures.load());
  EXPECT_GT(cReads.load(), 0);

  // Afterwards every frame is there, in time order, byte for byte.
  auto pFinal = archive.Reader("cam", "final");
  const std::vector<ULONGLONG> vTimes = WalkForward(pFinal);
  ASSERT_EQ(static_cast<size_t>(kcWriters * kcFramesPerWriter), vTimes.size());
  for (int n = 0; n < kcWriters * kcFramesPerWriter; ++n) {
    ASSERT_EQ(U(FrameTime(n)), vTimes[n]);
    check(pFinal, n);
  }
}

}  // namespace
