// Searches across hours, days and months, the erasure of empty directories met on the way, frames
// a reader sees after its hour was opened, and statistics with their join rules.
#include <kronvale/KronvaleResults.h>

#include "records/RecordStatistic.h"
#include "records/RecordTestSupport.h"

using namespace NSKronvale;
using namespace NSTest;

namespace {

class RecordNavigationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pWriter = m_archive.Writer("cam");
    ASSERT_TRUE(m_pWriter);
  }
  void Put(const FILETIME& ft, DWORD dwFlags = 1) { ASSERT_EQ(S_OK, WriteFrame(m_pWriter, ft, dwFlags, {Show(ft)})); }
  WString Dir(const char* pszRelative) const {
    return NSPlatform::CombinePath(m_dir.Sub(KV_W("arc")), Native(pszRelative));
  }

  NSTest::CTempDir m_dir;
  CTestArchive m_archive{m_dir.Sub(KV_W("arc"))};
  NSCom::CComPtr<IRecordEx> m_pWriter;
};

TEST_F(RecordNavigationTest, NextAndPrevCrossEmptyHoursDaysAndMonths) {
  const FILETIME aFrames[] = {
      Ft(2020, 12, 31, 23, 59, 59, 990), Ft(2021, 1, 1, 0, 0, 0, 0),    Ft(2021, 1, 1, 0, 30),
      Ft(2021, 1, 1, 5, 59, 59, 990),    Ft(2021, 1, 1, 6, 0, 0, 0),    Ft(2021, 3, 15, 12, 0, 0, 10),
      Ft(2021, 3, 15, 12, 0, 0, 20),
  };
  // Written out of order: each write makes its own hour current.
  for (int i : {3, 0, 6, 1, 5, 2, 4}) Put(aFrames[i], 1u << i);
  auto pReader = m_archive.Reader("cam");
  for (IRecordEx* p : {m_pWriter.p, pReader.p}) {
    std::vector<ULONGLONG> vExpected;
    for (const FILETIME& ft : aFrames) vExpected.push_back(U(ft));
    EXPECT_EQ(vExpected, WalkForward(p));
    std::vector<ULONGLONG> vBack;
    FILETIME ft = Ft(9999, 1, 1, 0);
    while (SUCCEEDED(p->GetPrev(ft, nullptr, &ft))) vBack.push_back(U(ft));
    std::reverse(vBack.begin(), vBack.end());
    EXPECT_EQ(vExpected, vBack);
  }
  FILETIME ft;
  // The instant itself never answers; the first frame of the next existing hour, months later.
  ASSERT_EQ(S_OK, pReader->GetNext(aFrames[4], nullptr, &ft));
  EXPECT_EQ(Show(aFrames[5]), Show(ft));
  ASSERT_EQ(S_OK, pReader->GetPrev(aFrames[5], nullptr, &ft));
  EXPECT_EQ(Show(aFrames[4]), Show(ft));
  EXPECT_EQ(khrNotFound, pReader->GetNext(aFrames[6], nullptr, &ft));
  EXPECT_EQ(khrNotFound, pReader->GetPrev(aFrames[0], nullptr, &ft));
  // A time between frames of one 10 ms slot searches from that slot.
  ASSERT_EQ(S_OK, pReader->GetNext(Ft(2021, 1, 1, 0, 0, 0, 5), nullptr, &ft));
  EXPECT_EQ(Show(aFrames[2]), Show(ft));

  // Filters skip whole hours whose frames do not match.
  const SFrameFilter bit5 = {1u << 5, efmAny};
  ASSERT_EQ(S_OK, pReader->GetNext(Ft(2020, 1, 1, 0), &bit5, &ft));
  EXPECT_EQ(Show(aFrames[5]), Show(ft));
  const SFrameFilter none = {0x7F, efmNone};
  EXPECT_EQ(khrNotFound, pReader->GetNext(Ft(2020, 1, 1, 0), &none, &ft));
  const SFrameFilter exact = {1u << 3, efmExact};
  ASSERT_EQ(S_OK, pReader->GetPrev(Ft(2022, 1, 1, 0), &exact, &ft));
  EXPECT_EQ(Show(aFrames[3]), Show(ft));

  // Several steps at once; a failing step leaves the output alone; 0 steps answer the time itself.
  ASSERT_EQ(S_OK, pReader->GetSibling(TRUE, 3, Ft(2020, 1, 1, 0), nullptr, &ft));
  EXPECT_EQ(Show(aFrames[2]), Show(ft));
  ASSERT_EQ(S_OK, pReader->GetSibling(FALSE, 2, aFrames[6], nullptr, &ft));
  EXPECT_EQ(Show(aFrames[4]), Show(ft));
  FILETIME ftKept = {1, 2};
  EXPECT_EQ(khrNotFound, pReader->GetSibling(TRUE, 8, Ft(2020, 1, 1, 0), nullptr, &ftKept));
  EXPECT_EQ(1u, ftKept.dwLowDateTime);
  const FILETIME ftNowhere = Ft(2019, 6, 1, 7, 1, 2, 3);
  ASSERT_EQ(S_OK, pReader->GetSibling(TRUE, 0, ftNowhere, nullptr, &ft));
  EXPECT_EQ(U(ftNowhere), U(ft));
}

TEST_F(RecordNavigationTest, SearchesEraseEmptyDirectoriesOnTheirPath) {
  Put(Ft(2021, 1, 10, 8));
  Put(Ft(2021, 4, 2, 9));
  // February holds two empty days, March an empty day with an empty hour, and an empty year lies
  // beyond the last frame. Junk that is not an hour directory is left alone.
  for (const char* psz : {"cam/2021/02/03", "cam/2021/02/17", "cam/2021/03/05/11", "cam/2022", "cam/2021/02/junk"})
    ASSERT_EQ(S_OK, NSPlatform::CreateDirTree(Dir(psz).c_str())) << psz;
  // A reader walks past them and changes nothing on disk: one may be an hour a writer (perhaps in
  // another process) has just made and is about to fill.
  auto pReader = m_archive.Reader("cam");
  FILETIME ft;
  {
    NSTest::CLogCapture readerCapture;
    ASSERT_EQ(S_OK, pReader->GetNext(Ft(2021, 1, 10, 8), nullptr, &ft));
    EXPECT_EQ(Show(Ft(2021, 4, 2, 9)), Show(ft));
    EXPECT_TRUE(NSPlatform::PathExists(Dir("cam/2021/03/05/11").c_str()));
    for (const WString& str : Texts(readerCapture, "message")) EXPECT_NE(0u, str.rfind(W("erasing"), 0));
  }
  // The writer's search erases them.
  NSTest::CLogCapture capture;
  ASSERT_EQ(S_OK, m_pWriter->GetNext(Ft(2021, 1, 10, 8), nullptr, &ft));
  EXPECT_EQ(Show(Ft(2021, 4, 2, 9)), Show(ft));
  // Erased on the way: February's empty days (February itself still holds junk), and March's empty
  // hour, then its day and the month, each left empty by the erasure below it.
  std::vector<WString> vErased;
  for (const WString& str : Texts(capture, "message"))
    if (str.rfind(W("erasing of empty folder: "), 0) == 0) vErased.push_back(str);
  std::vector<WString> vExpected;
  for (const char* psz : {"cam/2021/02/03", "cam/2021/02/17", "cam/2021/03/05/11", "cam/2021/03/05", "cam/2021/03"})
    vExpected.push_back(W("erasing of empty folder: ") + Dir(psz) + W("\n"));
  EXPECT_EQ(vExpected, vErased);
  EXPECT_FALSE(NSPlatform::PathExists(Dir("cam/2021/02/03").c_str()));
  EXPECT_TRUE(NSPlatform::PathExists(Dir("cam/2021/02/junk").c_str()));
  EXPECT_FALSE(NSPlatform::PathExists(Dir("cam/2021/03").c_str()));
  ASSERT_EQ(S_OK, NSTest::DeleteTree(Dir("cam/2021/02/junk")));

  // Once February is empty, the next search through it erases the month too; the empty year after
  // the last frame goes with a search past it.
  NSTest::CLogCapture second;
  EXPECT_EQ(S_OK, m_pWriter->GetNext(Ft(2021, 1, 10, 8), nullptr, &ft));
  EXPECT_EQ(khrNotFound, m_pWriter->GetNext(Ft(2021, 4, 2, 9), nullptr, &ft));
  EXPECT_TRUE(Logged(second, "message", W("erasing of empty folder: ") + Dir("cam/2021/02") + W("\n")));
  EXPECT_TRUE(Logged(second, "message", W("erasing of empty folder: ") + Dir("cam/2022") + W("\n")));
  EXPECT_FALSE(NSPlatform::PathExists(Dir("cam/2021/02").c_str()));
  EXPECT_FALSE(NSPlatform::PathExists(Dir("cam/2022").c_str()));
  EXPECT_EQ((std::vector<ULONGLONG>{U(Ft(2021, 1, 10, 8)), U(Ft(2021, 4, 2, 9))}), WalkForward(pReader));
}

TEST_F(RecordNavigationTest, ClosestHourIgnoresNamesThatAreNotHours) {
  Put(Ft(2021, 1, 10, 8));
  Put(Ft(2021, 1, 10, 9));
  for (const char* psz : {"cam/21", "cam/2021/1", "cam/2021/01/10/8x", "cam/abcd"})
    ASSERT_EQ(S_OK, NSPlatform::CreateDirTree(Dir(psz).c_str()));
  auto pInternal = Internal(m_pWriter);
  WString str;
  ASSERT_EQ(S_OK, pInternal->FindClosestHourPath(Native("2021/01/10/08"), true, &str));
  EXPECT_EQ(Native("2021/01/10/09"), str);
  ASSERT_EQ(S_OK, pInternal->FindClosestHourPath(Native("2021/01/10/09"), false, &str));
  EXPECT_EQ(Native("2021/01/10/08"), str);
  EXPECT_EQ(S_OK, pInternal->FindClosestHourPath(Native("2020/05/01/00"), true, &str));
  EXPECT_EQ(Native("2021/01/10/08"), str);
  EXPECT_EQ(S_FALSE, pInternal->FindClosestHourPath(Native("2021/01/10/09"), true, &str));
  EXPECT_EQ(WString(), str);
  EXPECT_EQ(E_INVALIDARG, pInternal->FindClosestHourPath(W("nonsense"), true, &str));
}

// A reader opened an hour before the writer appended to it: reads and searches see the new frames.
TEST_F(RecordNavigationTest, ReaderSeesFramesAppendedAfterItOpenedTheHour) {
  Put(Ft(2021, 3, 7, 10, 0, 1));
  auto pReader = m_archive.Reader("cam");
  FILETIME ft;
  ASSERT_EQ(S_OK, pReader->GetNext(Ft(2021, 3, 7, 10), nullptr, &ft));
  EXPECT_EQ(khrNotFound, pReader->GetNext(ft, nullptr, &ft));
  Put(Ft(2021, 3, 7, 10, 0, 2), 2);
  Put(Ft(2021, 3, 7, 10, 0, 3), 4);
  ASSERT_EQ(S_OK, pReader->GetNext(Ft(2021, 3, 7, 10, 0, 1), nullptr, &ft));
  EXPECT_EQ(Show(Ft(2021, 3, 7, 10, 0, 2)), Show(ft));
  Put(Ft(2021, 3, 7, 10, 0, 4), 8);
  EXPECT_EQ(std::vector<std::string>{Show(Ft(2021, 3, 7, 10, 0, 4))}, ReadFrame(pReader, Ft(2021, 3, 7, 10, 0, 4), 1));
  const SFrameFilter filter = {8, efmAny};
  ASSERT_EQ(S_OK, pReader->GetPrev(Ft(2021, 3, 7, 11), &filter, &ft));
  EXPECT_EQ(Show(Ft(2021, 3, 7, 10, 0, 4)), Show(ft));
}

// ---- Statistics -----------------------------------------------------------------------------------

class RecordStatisticTest : public RecordNavigationTest {
 protected:
  std::vector<SRecordStatistic> Stats(const FILETIME& ftBegin, const FILETIME& ftEnd, LONGLONG llResolution,
                                      const SFrameFilter* pFilter, LONG lFlags, HRESULT hrExpected = S_OK) {
    DWORD dwCount = 0;
    SRecordStatistic* p = nullptr;
    EXPECT_EQ(hrExpected, m_pWriter->GetStatistic(ftBegin, ftEnd, NSPlatform::U64ToFileTime(llResolution), pFilter,
                                                  lFlags, &dwCount, &p));
    std::vector<SRecordStatistic> v(p, p + dwCount);
    CoTaskMemFree(p);
    return v;
  }
  static std::string Describe(const std::vector<SRecordStatistic>& v) {
    std::string str;
    for (const SRecordStatistic& s : v)
      str += Show(s.ftBegin) + ".." + Show(s.ftEnd) + " f" + std::to_string(s.dwFlags) + " n" +
             std::to_string(s.dwCount) + "; ";
    return str;
  }
  static constexpr LONGLONG kllSecond = 10000000;
};

TEST_F(RecordStatisticTest, RunsJoinBySecondAndTheirEndsAreExact) {
  // 10:00:00-10:00:02 flags 1 (three frames), 10:00:10 flags 1, 10:00:11.5 flags 2, and one frame in
  // the next hour with flags 1.
  for (WORD s : {0, 1, 2}) Put(Ft(2021, 3, 7, 10, 0, s, 500), 1);
  Put(Ft(2021, 3, 7, 10, 0, 10), 1);
  Put(Ft(2021, 3, 7, 10, 0, 11, 500), 2);
  Put(Ft(2021, 3, 7, 11, 30), 1);
  const FILETIME ftBegin = Ft(2021, 3, 7, 9), ftEnd = Ft(2021, 3, 7, 12);

  // Without bit 4, runs further apart than the resolution stay apart; flags must be equal to join.
  EXPECT_EQ("2021-03-07 10:00:00.500..2021-03-07 10:00:02.500 f1 n3; "
            "2021-03-07 10:00:10.000..2021-03-07 10:00:10.010 f1 n1; "
            "2021-03-07 10:00:11.500..2021-03-07 10:00:11.510 f2 n1; "
            "2021-03-07 11:30:00.000..2021-03-07 11:30:00.010 f1 n1; ",
            Describe(Stats(ftBegin, ftEnd, kllSecond, nullptr, 0)));
  // Bit 4: no gap limit, so equal flags join however far apart; the run of flags 2 still splits.
  EXPECT_EQ("2021-03-07 10:00:00.500..2021-03-07 10:00:10.000 f1 n4; "
            "2021-03-07 10:00:11.500..2021-03-07 10:00:11.510 f2 n1; "
            "2021-03-07 11:30:00.000..2021-03-07 11:30:00.010 f1 n1; ",
            Describe(Stats(ftBegin, ftEnd, kllSecond, nullptr, 4)));
  // Bits 4 and 8 with an any-bit filter: flags 1 and 2 share no bit, so they still split...
  const SFrameFilter any3 = {3, efmAny};
  EXPECT_EQ(3u, Stats(ftBegin, ftEnd, kllSecond, &any3, 4 | 8).size());
  // ...while the none-of mode joins only records whose flags share no bit with the run.
  const SFrameFilter none4 = {4, efmNone};
  EXPECT_EQ("2021-03-07 10:00:00.500..2021-03-07 10:00:00.510 f1 n1; "
            "2021-03-07 10:00:01.500..2021-03-07 10:00:01.510 f1 n1; "
            "2021-03-07 10:00:02.500..2021-03-07 10:00:02.510 f1 n1; "
            "2021-03-07 10:00:10.000..2021-03-07 10:00:11.500 f3 n2; "
            "2021-03-07 11:30:00.000..2021-03-07 11:30:00.010 f1 n1; ",
            Describe(Stats(ftBegin, ftEnd, kllSecond, &none4, 4 | 8)));
  // A filter counts only passing frames and moves the ends onto them.
  const SFrameFilter only2 = {2, efmAll};
  EXPECT_EQ("2021-03-07 10:00:11.500..2021-03-07 10:00:11.510 f2 n1; ",
            Describe(Stats(ftBegin, ftEnd, kllSecond, &only2, 0)));
  // Minutes: the first hour's frames form one run; an hour or coarser gives one record per hour.
  EXPECT_EQ("2021-03-07 10:00:00.500..2021-03-07 10:00:11.500 f3 n5; "
            "2021-03-07 11:30:00.000..2021-03-07 11:30:00.010 f1 n1; ",
            Describe(Stats(ftBegin, ftEnd, 60 * kllSecond, &none4, 8)));
  EXPECT_EQ("2021-03-07 10:00:00.500..2021-03-07 10:00:11.500 f3 n5; "
            "2021-03-07 11:30:00.000..2021-03-07 11:30:00.010 f1 n1; ",
            Describe(Stats(ftBegin, ftEnd, 3600 * kllSecond, &none4, 8)));
  // A period holding a single frame: one record of 10 ms.
  EXPECT_EQ("2021-03-07 11:30:00.000..2021-03-07 11:30:00.010 f1 n1; ",
            Describe(Stats(Ft(2021, 3, 7, 11), ftEnd, kllSecond, nullptr, 0)));
}

// Runs in neighbouring cells: each ends on its own last frame, not on the next run's first.
TEST_F(RecordStatisticTest, AdjacentRunsEndOnTheirOwnFrames) {
  for (WORD s = 0; s < 6; ++s) Put(Ft(2021, 3, 7, 10, 0, s), s < 3 ? 1 : 3);
  Put(Ft(2021, 3, 7, 10, 1, 0), 1);
  EXPECT_EQ("2021-03-07 10:00:00.000..2021-03-07 10:00:02.000 f1 n3; "
            "2021-03-07 10:00:03.000..2021-03-07 10:00:05.000 f3 n3; ",
            Describe(Stats(Ft(2021, 3, 7, 10), Ft(2021, 3, 7, 10, 0, 30), kllSecond, nullptr, 0)));
  // The period ends inside a cell whose next neighbour holds a frame outside the period.
  EXPECT_EQ("2021-03-07 10:00:00.000..2021-03-07 10:00:02.000 f1 n3; ",
            Describe(Stats(Ft(2021, 3, 7, 10), Ft(2021, 3, 7, 10, 0, 2, 500), kllSecond, nullptr, 0)));
}

TEST_F(RecordStatisticTest, BadPeriodsAndResolutions) {
  Put(Ft(2021, 3, 7, 10, 0, 1));
  Put(Ft(2021, 3, 7, 10, 0, 5));
  NSTest::CLogCapture capture;
  // After the ends move onto frames they cross: the period holds nothing.
  EXPECT_TRUE(Stats(Ft(2021, 3, 7, 10, 0, 2), Ft(2021, 3, 7, 10, 0, 4), kllSecond, nullptr, 0, E_INVALIDARG).empty());
  EXPECT_TRUE(Logged(capture, "TRASSDO", W("ftEnd>=ftBegin\n")));
  // Nothing at all after the start.
  EXPECT_TRUE(Stats(Ft(2021, 3, 7, 11), Ft(2021, 3, 7, 12), kllSecond, nullptr, 0, khrNotFound).empty());
  // Resolutions under a millisecond cannot be classified.
  EXPECT_TRUE(Stats(Ft(2021, 3, 7, 10), Ft(2021, 3, 7, 11), 9999, nullptr, 0, E_INVALIDARG).empty());
  // Ten-millisecond cells.
  EXPECT_EQ(2u, Stats(Ft(2021, 3, 7, 10), Ft(2021, 3, 7, 11), 10 * kllMs, nullptr, 0).size());
}

// The join pass on its own, at its boundaries: cells of one second, [begin, begin + 1 s).
TEST(StatisticRunsTest, ARunEndsOneResolutionBeforeTheNextCellAndModeAllTakesSupersetsOnly) {
  constexpr ULONGLONG kullSecond = 10000000;
  auto cell = [](ULONGLONG ullSecond, DWORD dwFlags) {
    const FILETIME ftBegin = NSPlatform::U64ToFileTime(U(Ft(2021, 3, 7, 10)) + ullSecond * kullSecond);
    const FILETIME ftEnd = NSPlatform::U64ToFileTime(U(ftBegin) + kullSecond);
    return NSRecords::SStatisticCell{{ftBegin, ftEnd, dwFlags, 1}, U(ftBegin), U(ftBegin)};
  };
  auto describe = [](const std::vector<NSRecords::SStatisticCell>& v) {
    std::string str;
    for (const auto& c : v)
      str += std::to_string((U(c.record.ftBegin) - U(Ft(2021, 3, 7, 10))) / kullSecond) + "-" +
             std::to_string((U(c.record.ftEnd) - U(Ft(2021, 3, 7, 10))) / kullSecond) + " f" +
             std::to_string(c.record.dwFlags) + " n" + std::to_string(c.record.dwCount) + "; ";
    return str;
  };
  // A cell that begins where the run ends joins it; one a whole resolution later stays apart.
  EXPECT_EQ("0-2 f1 n2; ", describe(NSRecords::JoinStatisticRuns({cell(0, 1), cell(1, 1)}, kullSecond, nullptr, 0)));
  EXPECT_EQ("0-1 f1 n1; 2-3 f1 n1; ",
            describe(NSRecords::JoinStatisticRuns({cell(0, 1), cell(2, 1)}, kullSecond, nullptr, 0)));
  // Bit 4 lifts the distance.
  EXPECT_EQ("0-3 f1 n2; ", describe(NSRecords::JoinStatisticRuns({cell(0, 1), cell(2, 1)}, kullSecond, nullptr, 4)));
  // Mode all (bit 8 with an all-bits filter): a cell joins when it holds every flag of the run, so a
  // superset joins (the run takes its flags) and a subset does not.
  const SFrameFilter all = {1, efmAll};
  EXPECT_EQ("0-2 f7 n2; 2-3 f1 n1; ",
            describe(NSRecords::JoinStatisticRuns({cell(0, 3), cell(1, 7), cell(2, 1)}, kullSecond, &all, 8)));
}

}  // namespace
