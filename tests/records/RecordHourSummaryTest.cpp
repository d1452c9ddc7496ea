// A reader answers a statistic over whole hours from summaries it keeps of them, and takes its
// index copies in pages as it needs them. Whatever the recording and whatever changed since, the
// answers must be those of the hour-by-hour pass over the frames' own entries (a filter every frame
// passes takes that pass) and those of a reader opened afresh.
#include <random>

#include <kronvale/KronvaleResults.h>

#include "records/RecordTestSupport.h"

using namespace NSKronvale;
using namespace NSTest;

namespace NSTest {
namespace {

// "none of no bits": every frame passes, flags 0 included.
const SFrameFilter kPassAll = Filter(0, efmNone);

std::string Statistic(IRecord* p, ULONGLONG ullResolution, const SFrameFilter* pFilter, LONG lFlags) {
  DWORD cRuns = 0;
  SRecordStatistic* pRuns = nullptr;
  const HRESULT hr = p->GetStatistic(Ft(2000, 1, 1, 0), Ft(2100, 1, 1, 0), NSPlatform::U64ToFileTime(ullResolution),
                                     pFilter, lFlags, &cRuns, &pRuns);
  std::string str = "hr=" + std::to_string(hr) + ":";
  for (DWORD i = 0; i < cRuns; ++i)
    str += " " + Show(pRuns[i].ftBegin) + ".." + Show(pRuns[i].ftEnd) + "/" + std::to_string(pRuns[i].dwFlags) + "/" +
           std::to_string(pRuns[i].dwCount);
  CoTaskMemFree(pRuns);
  return str;
}

class RecordHourSummaryTest : public ::testing::Test {
 protected:
  NSTest::CTempDir m_dir;
  CTestArchive m_archive{m_dir.Sub(KV_W("arc"))};
};

TEST_F(RecordHourSummaryTest, WholeHoursAnswerLikeTheirFramesAfterRandomChanges) {
  const FILETIME ftAnchor = Ft(2021, 5, 9, 0);  // never removed: readers wait there while hours go
  for (unsigned uSeed = 1; uSeed <= 3; ++uSeed) {
    SCOPED_TRACE("seed " + std::to_string(uSeed));
    std::mt19937 rng(uSeed);
    const std::string strRecord = "cam" + std::to_string(uSeed);
    auto pWriter = m_archive.Writer(strRecord.c_str());
    auto pReader = m_archive.Reader(strRecord.c_str());
    ASSERT_EQ(S_OK, WriteFrame(pWriter, ftAnchor, 1, {"anchor"}));
    // Frames at random in six hours of two days: flags 0 among them, and later frames that take
    // over the 10 ms slot of an earlier one.
    auto write = [&](int cFrames) {
      for (int i = 0; i < cFrames; ++i) {
        const WORD wHour = static_cast<WORD>(rng() % 6);
        const FILETIME ft = Ft(2021, 5, static_cast<WORD>(4 + wHour / 4), static_cast<WORD>(8 + wHour % 4 * 3),
                               static_cast<WORD>(rng() % 60), static_cast<WORD>(rng() % 3), static_cast<WORD>(rng() % 3 * 5));
        ASSERT_EQ(S_OK, WriteFrame(pWriter, ft, static_cast<DWORD>(rng() % 5) & 6u, {Show(ft)}));
      }
    };
    write(120);
    for (int nRound = 0; nRound < 4; ++nRound) {
      SCOPED_TRACE("round " + std::to_string(nRound));
      for (ULONGLONG ullResolution : {3600000 * 10000ull, 24 * 3600000 * 10000ull}) {
        for (LONG lFlags : {0, 4}) {
          const std::string strWarm = Statistic(pReader, ullResolution, nullptr, lFlags);
          EXPECT_EQ(Statistic(pReader, ullResolution, &kPassAll, lFlags), strWarm);
          EXPECT_EQ(strWarm, Statistic(pReader, ullResolution, nullptr, lFlags));  // from the summaries
        }
      }
      auto pFresh = m_archive.Reader(strRecord.c_str(), ("fresh" + std::to_string(nRound)).c_str());
      EXPECT_EQ(Describe(pFresh, 1), Describe(pReader, 1));
      // The next change: more frames, or an hour removed (readers and writer moved off it first,
      // as Windows needs), or a whole hour written anew.
      switch (rng() % 3) {
        case 0:
          write(30);
          break;
        case 1: {
          ASSERT_EQ(S_OK, WriteFrame(pWriter, Plus(ftAnchor, kllMs * 10), 1, {"moved"}));
          for (IRecord* p : {pReader.p, pFresh.p}) EXPECT_EQ(std::vector<std::string>{"anchor"}, ReadFrame(p, ftAnchor, 1));
          const FILETIME ftHour = Ft(2021, 5, 4, static_cast<WORD>(8 + rng() % 4 * 3));
          const HRESULT hr = pWriter->RemoveHour(ftHour);
          EXPECT_TRUE(hr == S_OK || hr == khrFileNotFound) << std::hex << hr;
          break;
        }
        default:
          for (WORD wSecond = 0; wSecond < 20; ++wSecond)
            ASSERT_EQ(S_OK, WriteFrame(pWriter, Ft(2021, 5, 5, 11, 59, wSecond, 990), wSecond % 3, {"late"}));
          break;
      }
    }
  }
}

}  // namespace
}  // namespace NSTest
