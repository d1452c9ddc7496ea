// A reader keeps the index copies of the hours it left, to come back to them without copying 1.5 MB.
// Whatever this process does to those hours meanwhile (appends, a merge, a repair, a removal and a
// new recording in the same place, a fast copy into the record), the long-lived reader must tell
// exactly what a reader opened afresh tells.
#include <atomic>
#include <thread>
#include <kronvale/KronvaleResults.h>

#include "hours/HourFormat.h"
#include "records/RecordInternal.h"
#include "records/RecordTestSupport.h"

using namespace NSKronvale;
using namespace NSTest;

namespace {

class RecordHourCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pWriter = m_archive.Writer("cam");
    ASSERT_TRUE(m_pWriter);
    m_pReader = m_archive.Reader("cam");
    ASSERT_TRUE(m_pReader);
  }
  void Put(IRecord* p, const FILETIME& ft, const std::string& str, DWORD dwFlags = 1) {
    ASSERT_EQ(S_OK, WriteFrame(p, ft, dwFlags, {str}));
  }
  // The long-lived reader tells what a fresh one tells. Describe walks every hour, so afterwards the
  // long-lived reader holds copies of the hours it left.
  void ExpectReaderCurrent(const char* pszAfter) {
    EXPECT_EQ(Describe(FreshReader(), 1), Describe(m_pReader, 1)) << "after " << pszAfter;
  }
  // A reader object of its own: the archive hands out one object per client and record.
  NSCom::CComPtr<IRecordEx> FreshReader() {
    m_vFreshReaders.push_back(m_archive.Reader("cam", ("fresh" + std::to_string(m_vFreshReaders.size())).c_str()));
    return m_vFreshReaders.back();
  }
  // Every reader opens the hour of ft: an hour a reader has open cannot be deleted on Windows, an
  // hour it only holds a copy of can.
  void MoveReadersTo(const FILETIME& ft, const std::string& strExpected) {
    EXPECT_EQ(std::vector<std::string>{strExpected}, ReadFrame(m_pReader, ft, 1));
    for (auto& p : m_vFreshReaders) EXPECT_EQ(std::vector<std::string>{strExpected}, ReadFrame(p, ft, 1));
  }
  WString HourDir(const char* pszRecord, const char* pszHour) const {
    return NSPlatform::CombinePath(m_dir.Sub(KV_W("arc")), Native((std::string(pszRecord) + "/" + pszHour).c_str()));
  }

  NSTest::CTempDir m_dir;
  CTestArchive m_archive{m_dir.Sub(KV_W("arc"))};
  NSCom::CComPtr<IRecordEx> m_pWriter;
  NSCom::CComPtr<IRecordEx> m_pReader;
  std::vector<NSCom::CComPtr<IRecordEx>> m_vFreshReaders;
};

TEST_F(RecordHourCacheTest, ACachedHourAnswersLikeAFreshReaderAfterEveryChange) {
  // Three hours of a morning; the reader walks them all and keeps the two it left.
  for (WORD h : {8, 9, 10})
    for (WORD m : {5, 20, 40}) Put(m_pWriter, Ft(2021, 5, 4, h, m), "h" + std::to_string(h) + "m" + std::to_string(m));
  ExpectReaderCurrent("the first recording");

  // Appends to hours the reader left: a new frame, and one that takes over an occupied 10 ms slot.
  Put(m_pWriter, Ft(2021, 5, 4, 8, 30), "late", 2);
  Put(m_pWriter, Ft(2021, 5, 4, 9, 20, 0, 5), "slot taken over", 4);
  EXPECT_EQ(std::vector<std::string>{"slot taken over"}, ReadFrame(m_pReader, Ft(2021, 5, 4, 9, 20), 1));
  ExpectReaderCurrent("appends to closed hours");

  // The writer's current hour grows while the reader has it open: seen after the reader's refresh.
  Put(m_pWriter, Ft(2021, 5, 4, 10, 50), "current");
  ExpectReaderCurrent("an append to the current hour");

  // A merge from another record appends to hours the reader holds copies of.
  auto pSource = m_archive.Writer("other");
  Put(pSource, Ft(2021, 5, 4, 8, 45), "merged", 8);
  Put(pSource, Ft(2021, 5, 4, 9, 5), "merged over", 8);
  ASSERT_EQ(S_OK, m_pWriter->Merge(pSource, nullptr, 1));
  ExpectReaderCurrent("a merge");

  // A repair gives an hour a new index of the same size. The slot of 9:40 is lost behind the
  // engine's back, and the reader takes its copy of 9h afresh (a removal elsewhere makes every copy
  // kept so far out of date), so it lacks the frame; it leaves 9h with that copy.
  ASSERT_EQ(S_OK, WriteFrame(m_pWriter, Ft(2021, 5, 4, 11), 1, {"elsewhere"}));  // 9h closed for the writer
  {
    NSPlatform::CFile hash;
    ASSERT_EQ(S_OK, hash.Open(NSPlatform::CombinePath(HourDir("cam", "2021/05/04/09"), NSHours::kszHashFileName).c_str(),
                              GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              OPEN_EXISTING, 0));
    const BYTE abZero[3] = {};
    DWORD cb = 0;
    ASSERT_EQ(S_OK, hash.WriteAt(NSHours::SlotOffset(NSHours::SlotIndex(40, 0, 0)), abZero, 3, &cb));
  }
  ASSERT_EQ(S_OK, m_pWriter->RemoveHour(Ft(2021, 5, 4, 11)));
  EXPECT_EQ(std::vector<std::string>{"hr=80070490"}, ReadFrame(m_pReader, Ft(2021, 5, 4, 9, 40), 1));
  MoveReadersTo(Ft(2021, 5, 4, 10, 5), "h10m5");
  // The writer's repair brings the slot back; the reader's copy of 9h must not stand after it.
  {
    NSCom::CComPtr<IRecordInternal> pInternal = Query<IRecordInternal>(m_pWriter, __uuidof(IRecordInternal));
    ASSERT_EQ(S_OK, pInternal->RepairHour(Native("2021/05/04/09").c_str()));
  }
  EXPECT_EQ(std::vector<std::string>{"h9m40"}, ReadFrame(m_pReader, Ft(2021, 5, 4, 9, 40), 1));
  ExpectReaderCurrent("a repair");

  // RemoveHour (the call retention makes), then a new recording of as many frames at other times:
  // the hour's descriptor.ald has the size the reader's copy knew, and still the copy must go.
  const size_t cFrames8 = 5;  // 8:05, 8:20, 8:30, 8:40, 8:45
  MoveReadersTo(Ft(2021, 5, 4, 10, 5), "h10m5");  // 8h left
  ASSERT_EQ(S_OK, m_pWriter->RemoveHour(Ft(2021, 5, 4, 8)));
  EXPECT_EQ(std::vector<std::string>{"hr=80070002"}, ReadFrame(m_pReader, Ft(2021, 5, 4, 8, 5), 1));
  ExpectReaderCurrent("RemoveHour");
  for (size_t i = 0; i < cFrames8; ++i) Put(m_pWriter, Ft(2021, 5, 4, 8, 50, static_cast<WORD>(i)), "again" + std::to_string(i));
  ExpectReaderCurrent("a new recording of a removed hour");

  // Fast copy into the record: an hour deleted behind the engine's back comes back as another
  // record's copy of the same size.
  auto pDonor = m_archive.Writer("donor");
  for (WORD m : {1, 2, 3}) Put(pDonor, Ft(2021, 5, 4, 10, m), "donor" + std::to_string(m));
  Put(pDonor, Ft(2021, 5, 4, 10, 4), "donor4");
  ASSERT_EQ(S_OK, WriteFrame(m_pWriter, Ft(2021, 5, 4, 12), 1, {"away"}));  // 10h closed for the writer
  ExpectReaderCurrent("moving the writer on");
  MoveReadersTo(Ft(2021, 5, 4, 12), "away");  // 10h left
  ASSERT_EQ(S_OK, NSTest::DeleteTree(HourDir("cam", "2021/05/04/10")));
  NSCom::CComPtr<IRecordFastCopy> pCopy = Query<IRecordFastCopy>(pDonor, IID_IRecordFastCopy);
  NSCom::CComBSTR bstrTarget(NSPlatform::CombinePath(m_dir.Sub(KV_W("arc")), KV_W("cam")).c_str());
  ASSERT_EQ(S_OK, pCopy->CopyHoursTo(bstrTarget, Ft(2021, 5, 4, 10), Ft(2021, 5, 4, 11)));
  EXPECT_EQ(std::vector<std::string>{"donor2"}, ReadFrame(m_pReader, Ft(2021, 5, 4, 10, 2), 1));
  ExpectReaderCurrent("a fast copy into the record");
}

// Readers that move between two hours (and so keep copies of them) while a writer appends to both:
// every frame a reader finds reads back as written, and at the end the readers tell what a fresh
// reader tells.
TEST_F(RecordHourCacheTest, ReadersMovingBetweenHoursWhileAWriterAppendsToBoth) {
  constexpr int kcFrames = 300;
  auto frameTime = [](int n) { return Ft(2021, 5, 4, 8 + n % 2, static_cast<WORD>(n / 10 % 60), static_cast<WORD>(n % 10)); };
  std::atomic<int> cWritten{0};
  std::atomic<int> cFailures{0};
  std::thread writer([&] {
    for (int n = 0; n < kcFrames; ++n) {
      if (FAILED(WriteFrame(m_pWriter, frameTime(n), 1, {"f" + std::to_string(n)}))) ++cFailures;
      cWritten = n + 1;
    }
  });
  std::vector<NSCom::CComPtr<IRecordEx>> vReaders = {m_pReader, m_archive.Reader("cam", "second")};
  std::vector<std::thread> vThreads;
  for (auto& pReader : vReaders) {
    IRecordEx* p = pReader;
    vThreads.emplace_back([&, p] {
      while (cWritten.load() < kcFrames) {
        const int cNow = cWritten.load();
        for (int n = std::max(0, cNow - 6); n < cNow; ++n) {
          if (ReadFrame(p, frameTime(n), 1) != std::vector<std::string>{"f" + std::to_string(n)}) ++cFailures;
        }
        FILETIME ft = {0, 0};
        while (SUCCEEDED(p->GetNext(ft, nullptr, &ft))) {
        }
      }
    });
  }
  writer.join();
  for (std::thread& t : vThreads) t.join();
  // Away from the hours the readers had open: they come back to 8h and 9h through their copies.
  Put(m_pWriter, Ft(2021, 5, 4, 12), "away");
  for (auto& pReader : vReaders) EXPECT_EQ(std::vector<std::string>{"away"}, ReadFrame(pReader, Ft(2021, 5, 4, 12), 1));
  EXPECT_EQ(0, cFailures.load());
  EXPECT_EQ(kcFrames + 1, static_cast<int>(WalkForward(vReaders[1]).size()));
  ExpectReaderCurrent("the threads");
  EXPECT_EQ(Describe(FreshReader(), 1), Describe(vReaders[1], 1));
}

}  // namespace
