// Work on whole hours: repair of an hour torn by a crash (writers repair once, readers never, state
// bit 2 forbids it), the status during a repair, removal, merge and fast copy.
#include <kronvale/KronvaleResults.h>

#include "records/RecordTestSupport.h"

using namespace NSKronvale;
using namespace NSTest;

namespace {

class RecordMaintenanceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pWriter = m_archive.Writer("cam");
    ASSERT_TRUE(m_pWriter);
  }
  WString Dir(const char* pszRelative) const {
    return NSPlatform::CombinePath(m_dir.Sub(KV_W("arc")), Native(pszRelative));
  }
  // Three frames in 10h (43, 43 and 45 bytes in data.al), then the writer moves on to 11h so that
  // 10h is closed, and the last frame of 10h loses its last 30 bytes as in a crash.
  void WriteTornHour() {
    for (int i = 0; i < 3; ++i) ASSERT_EQ(S_OK, WriteFrame(m_pWriter, m_aft[i], 1u << i, {m_astr[i], "tail"}));
    ASSERT_EQ(S_OK, WriteFrame(m_pWriter, Ft(2021, 3, 7, 11), 8, {"eleven"}));
    std::string strData;
    ASSERT_EQ(S_OK, NSTest::ReadFileBytes(Dir("cam/2021/03/07/10/data.al"), &strData));
    ASSERT_EQ(131u, strData.size());
    strData.resize(strData.size() - 30);
    ASSERT_EQ(S_OK, NSTest::WriteFileBytes(Dir("cam/2021/03/07/10/data.al"), strData));
    m_strTorn = Snapshot();
  }
  std::string Snapshot() const {
    std::string strAll;
    for (const char* psz : {"data.al", "descriptor.ald", "descriptor.alh"}) {
      std::string str;
      NSTest::ReadFileBytes(NSPlatform::CombinePath(Dir("cam/2021/03/07/10"), W(psz)), &str);
      strAll += str + "|";
    }
    return strAll;
  }

  NSTest::CTempDir m_dir;
  CTestArchive m_archive{m_dir.Sub(KV_W("arc"))};
  NSCom::CComPtr<IRecordEx> m_pWriter;
  const FILETIME m_aft[3] = {Ft(2021, 3, 7, 10, 1), Ft(2021, 3, 7, 10, 2), Ft(2021, 3, 7, 10, 3)};
  const std::string m_astr[3] = {"one", "two", "three"};
  std::string m_strTorn;
};

TEST_F(RecordMaintenanceTest, ReadersNeverRepairAndBit2ForbidsIt) {
  WriteTornHour();
  auto pReader = m_archive.Reader("cam");
  NSTest::CLogCapture capture;
  // A reader reads the sound frames and answers the torn one's own failure (a short read), touching
  // nothing and testing nothing: repairs are the writer's.
  EXPECT_EQ((std::vector<std::string>{"one", "tail"}), ReadFrame(pReader, m_aft[0], 2));
  EXPECT_EQ(std::vector<std::string>{"hr=8007001E"}, ReadFrame(pReader, m_aft[2], 2));
  EXPECT_FALSE(Logged(capture, "error", W("Data modification for record '") + Dir("cam") + W("' reader object forbidden!\n")));
  EXPECT_EQ(m_strTorn, Snapshot());
  EXPECT_TRUE(Texts(capture, "Repairing").empty());
  EXPECT_TRUE(Texts(capture, "HourService").empty());
  // A writer with the no-repair bit fails to open the hour at all.
  NSTest::CLogCapture second;
  auto pState = Query<IStateControl>(m_pWriter, IID_IStateControl);
  ASSERT_EQ(S_OK, pState->Change(2, 0));
  EXPECT_EQ(std::vector<std::string>{"hr=80070570"}, ReadFrame(m_pWriter, m_aft[0], 2));
  EXPECT_EQ(khrFileCorrupt, WriteFrame(m_pWriter, Ft(2021, 3, 7, 10, 30), 1, {"x"}));
  EXPECT_TRUE(Logged(second, "warning", W("Failed to open next hour ") + Native("2021/03/07/10") + W("\n")));
  EXPECT_EQ(m_strTorn, Snapshot());
  EXPECT_TRUE(Texts(second, "Repairing").empty());
}

// Sees the status text at each progress report of a repair.
class CProbeRecord : public NSRecords::CRecord {
 public:
  void SetPercent(BYTE byPercent) override {
    NSCom::CComBSTR bstr;
    GetStatus(&bstr);
    m_vStatus.push_back(bstr.m_str ? WString(bstr.m_str) : WString());
    CRecord::SetPercent(byPercent);
  }
  std::vector<WString> m_vStatus;
};

TEST_F(RecordMaintenanceTest, AWriterRepairsOnceAndRetries) {
  WriteTornHour();
  // The record's own writer object, made like the archive makes it.
  NSCom::CComObject<CProbeRecord>* pProbe = nullptr;
  ASSERT_EQ(S_OK, NSCom::CComObject<CProbeRecord>::CreateInstance(&pProbe));
  NSCom::CComPtr<IRecord> pRecord(pProbe);
  ASSERT_EQ(S_OK, pProbe->Create(m_archive.Get(), Dir("cam").c_str(), 0, 3));

  NSTest::CLogCapture capture;
  EXPECT_EQ((std::vector<std::string>{"two", "tail"}), ReadFrame(pRecord, m_aft[1], 2));
  EXPECT_EQ(std::vector<WString>{W("Repairing hour ") + Native("2021/03/07/10") + W(" of ") + Dir("cam") + W("\n")},
            Texts(capture, "Repairing"));
  // The status names the hour while the repair runs, with its progress once there is some (the
  // repair had passed the first frame, 43 of 101 bytes, when it last reported).
  const WString strTitle = W("Restoring the hour: ") + Native("2021/03/07/10");
  EXPECT_EQ((std::vector<WString>{strTitle, strTitle, strTitle + W(" (42%)")}), pProbe->m_vStatus);
  NSCom::CComBSTR bstr;
  ASSERT_EQ(S_OK, pProbe->GetStatus(&bstr));
  EXPECT_EQ(0u, SysStringLen(bstr.m_str));
  // The torn frame is gone, the others and the next hour are intact, and a write appends again.
  EXPECT_EQ((std::vector<std::string>{"one", "tail"}), ReadFrame(pRecord, m_aft[0], 2));
  EXPECT_EQ(std::vector<std::string>{"hr=80070490"}, ReadFrame(pRecord, m_aft[2], 2));
  EXPECT_EQ(S_OK, WriteFrame(pRecord, m_aft[2], 4, {"three again", "t"}));
  EXPECT_EQ((std::vector<std::string>{"three again", "t"}), ReadFrame(pRecord, m_aft[2], 2));
  EXPECT_EQ(std::vector<std::string>{"eleven"}, ReadFrame(pRecord, Ft(2021, 3, 7, 11), 1));
  EXPECT_EQ(1u, Texts(capture, "Repairing").size());
}

TEST_F(RecordMaintenanceTest, AWriteIntoATornHourRepairsItFirst) {
  WriteTornHour();
  ASSERT_EQ(S_OK, WriteFrame(m_pWriter, Ft(2021, 3, 7, 10, 4), 16, {"four", "tail"}));
  auto pReader = m_archive.Reader("cam");
  EXPECT_EQ((std::vector<ULONGLONG>{U(m_aft[0]), U(m_aft[1]), U(Ft(2021, 3, 7, 10, 4)), U(Ft(2021, 3, 7, 11))}),
            WalkForward(pReader));
  EXPECT_EQ((std::vector<std::string>{"four", "tail"}), ReadFrame(pReader, Ft(2021, 3, 7, 10, 4), 2));
}

TEST_F(RecordMaintenanceTest, RemoveHourClosesTheOpenHourAndEmptyParents) {
  ASSERT_EQ(S_OK, WriteFrame(m_pWriter, Ft(2021, 3, 7, 10), 1, {"a"}));
  ASSERT_EQ(S_OK, WriteFrame(m_pWriter, Ft(2021, 3, 8, 10), 1, {"b"}));
  NSTest::CLogCapture capture;
  ASSERT_EQ(S_OK, m_pWriter->RemoveHour(Ft(2021, 3, 8, 10, 59)));
  EXPECT_TRUE(Logged(capture, "message", W("Removing old hour: ") + Dir("cam/2021/03/08/10") + W("\n")));
  EXPECT_FALSE(NSPlatform::PathExists(Dir("cam/2021/03/08").c_str()));
  EXPECT_TRUE(NSPlatform::PathExists(Dir("cam/2021/03/07/10").c_str()));
  WString strOpen = W("?");
  ASSERT_EQ(S_OK, Internal(m_pWriter)->GetCurrentHourPath(&strOpen));
  EXPECT_EQ(WString(), strOpen);
  // Nothing there: nothing to do.
  EXPECT_EQ(S_OK, m_pWriter->RemoveHour(Ft(2021, 3, 9, 10)));
  // The next write makes the hour again.
  ASSERT_EQ(S_OK, WriteFrame(m_pWriter, Ft(2021, 3, 8, 10, 1), 1, {"c"}));
  EXPECT_EQ((std::vector<ULONGLONG>{U(Ft(2021, 3, 7, 10)), U(Ft(2021, 3, 8, 10, 1))}), WalkForward(m_pWriter));

  // A file the system will not delete (held by another process on Windows) stops the removal, and
  // the answer says so instead of a bare E_FAIL.
  NSPlatform::NSFault::Arm({NSPlatform::NSFault::EOp::Directory, 1, ERROR_SHARING_VIOLATION, true, -1, W("data.al")});
  NSTest::CLogCapture refused;
  EXPECT_EQ(khrSharingViolation, m_pWriter->RemoveHour(Ft(2021, 3, 7, 10)));
  NSPlatform::NSFault::Reset();
  EXPECT_TRUE(Logged(refused, "error", W("Failed to delete hour '") + Dir("cam/2021/03/07/10") + W("' (0x80070020)\n")));
  EXPECT_EQ(S_OK, m_pWriter->RemoveHour(Ft(2021, 3, 7, 10)));
  EXPECT_FALSE(NSPlatform::PathExists(Dir("cam/2021/03/07").c_str()));
}

TEST_F(RecordMaintenanceTest, MergeCopiesThePassingFramesOfAnotherRecord) {
  auto pSource = m_archive.Writer("src");
  for (WORD h = 0; h < 3; ++h)
    for (WORD s = 0; s < 4; ++s)
      ASSERT_EQ(S_OK, WriteFrame(pSource, Ft(2021, 5, 1, 22 + h > 23 ? h - 2 : 22 + h, 0, s), s + 1u,
                                 {std::string(s * 100, char('a' + h)), std::to_string(h * 10 + s)}));
  const SFrameFilter odd = {1, efmAny};  // flags 1 and 3
  ASSERT_EQ(S_OK, m_pWriter->Merge(pSource, &odd, 2));
  std::vector<ULONGLONG> vExpected;
  for (ULONGLONG ull : WalkForward(pSource, &odd)) vExpected.push_back(ull);
  ASSERT_EQ(6u, vExpected.size());
  EXPECT_EQ(vExpected, WalkForward(m_pWriter));
  for (ULONGLONG ull : vExpected) {
    DWORD dwSource = 0, dwTarget = 0;
    const FILETIME ft = NSPlatform::U64ToFileTime(ull);
    EXPECT_EQ(ReadFrame(pSource, ft, 2, &dwSource), ReadFrame(m_pWriter, ft, 2, &dwTarget));
    EXPECT_EQ(dwSource, dwTarget);
  }
  // Nothing passes: nothing is written. Bad counts are refused.
  auto pEmpty = m_archive.Writer("empty");
  const SFrameFilter none = {0xFF, efmNone};
  EXPECT_EQ(S_OK, pEmpty->Merge(pSource, &none, 2));
  EXPECT_TRUE(WalkForward(pEmpty).empty());
  EXPECT_EQ(E_INVALIDARG, pEmpty->Merge(pSource, nullptr, -1));
  EXPECT_EQ(E_INVALIDARG, pEmpty->Merge(pSource, nullptr, 0x7FFFFFFF));
  EXPECT_EQ(E_POINTER, pEmpty->Merge(nullptr, nullptr, 1));
  // More buffers than the frames have: the first read fails and the merge with it.
  EXPECT_EQ(NSKronvale::khrInsufficientBuffer, pEmpty->Merge(pSource, nullptr, 3));
}

TEST_F(RecordMaintenanceTest, FastCopyKeepsTheHourLayoutAndOpensAsARecord) {
  const FILETIME aft[] = {Ft(2021, 12, 31, 23, 10), Ft(2021, 12, 31, 23, 20), Ft(2022, 1, 1, 0, 5),
                          Ft(2022, 1, 1, 2, 0)};
  for (const FILETIME& ft : aft) ASSERT_EQ(S_OK, WriteFrame(m_pWriter, ft, 3, {Show(ft), "x"}));
  auto pCopy = Query<IRecordFastCopy>(m_pWriter, IID_IRecordFastCopy);
  const WString strTarget = NSPlatform::CombinePath(m_dir.Sub(KV_W("other")), W("cam"));
  // From inside the first hour to before the last frame: three frames in two hours.
  ASSERT_EQ(S_OK, pCopy->CopyHoursTo(NSCom::CComBSTR(strTarget.c_str()), Ft(2021, 12, 31, 23, 15), Ft(2022, 1, 1, 1)));
  EXPECT_TRUE(NSPlatform::IsDirectory(NSPlatform::CombinePath(strTarget, Native("2021/12/31/23")).c_str()));
  EXPECT_TRUE(NSPlatform::IsDirectory(NSPlatform::CombinePath(strTarget, Native("2022/01/01/00")).c_str()));
  EXPECT_FALSE(NSPlatform::PathExists(NSPlatform::CombinePath(strTarget, Native("2022/01/01/02")).c_str()));
  {
    CTestArchive other(m_dir.Sub(KV_W("other")));
    auto pReader = other.Reader("cam");
    EXPECT_EQ((std::vector<ULONGLONG>{U(aft[0]), U(aft[1]), U(aft[2])}), WalkForward(pReader));
    for (int i = 0; i < 3; ++i) EXPECT_EQ((std::vector<std::string>{Show(aft[i]), "x"}), ReadFrame(pReader, aft[i], 2));
  }
  // Hours already in the target are not copied over; each is reported and the others still go.
  NSTest::CLogCapture capture;
  EXPECT_TRUE(FAILED(pCopy->CopyHoursTo(NSCom::CComBSTR(strTarget.c_str()), Ft(2021, 1, 1, 0), Ft(2023, 1, 1, 0))));
  EXPECT_EQ((std::vector<WString>{W("Directory copy failed, path = ") + Dir("cam/2021/12/31/23"),
                                  W("Directory copy failed, path = ") + Dir("cam/2022/01/01/00")}),
            Texts(capture, "Kronvale fast copy"));
  EXPECT_TRUE(NSPlatform::IsDirectory(NSPlatform::CombinePath(strTarget, Native("2022/01/01/02")).c_str()));
  EXPECT_EQ(E_INVALIDARG, pCopy->CopyHoursTo(nullptr, Ft(2021, 1, 1, 0), Ft(2023, 1, 1, 0)));
}

// What a fast copy meets besides whole hours: a read-only file in a source hour's directory is
// copied and made writable in the target (whose record appends to and repairs its hours), and the
// leftover of a copy cut short ("11.copy") does not keep its day from being erased when the day's
// last hour goes.
TEST_F(RecordMaintenanceTest, FastCopyLeftoversAndReadOnlyFilesStopNothing) {
  ASSERT_EQ(S_OK, WriteFrame(m_pWriter, Ft(2021, 3, 7, 10, 5), 1, {"kept"}));
  ASSERT_EQ(S_OK, WriteFrame(m_pWriter, Ft(2021, 3, 8, 10, 5), 1, {"gone"}));
  const WString strNote = Dir("cam/2021/03/07/10/note.txt");
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(strNote, "made read-only by hand"));
  ASSERT_EQ(S_OK, NSPlatform::SetAttributes(strNote.c_str(), FILE_ATTRIBUTE_READONLY));
  auto pCopy = Query<IRecordFastCopy>(m_pWriter, IID_IRecordFastCopy);
  const WString strTarget = NSPlatform::CombinePath(m_dir.Sub(KV_W("other")), W("cam"));
  EXPECT_EQ(S_OK, pCopy->CopyHoursTo(NSCom::CComBSTR(strTarget.c_str()), Ft(2021, 3, 7, 10), Ft(2021, 3, 7, 10, 59)));
  ASSERT_EQ(S_OK, NSPlatform::SetAttributes(strNote.c_str(), FILE_ATTRIBUTE_NORMAL));
  DWORD dwAttributes = 0;
  ASSERT_EQ(S_OK, NSPlatform::GetAttributes(NSPlatform::CombinePath(strTarget, Native("2021/03/07/10/note.txt")).c_str(),
                                            &dwAttributes));
  EXPECT_EQ(0u, dwAttributes & FILE_ATTRIBUTE_READONLY);
  EXPECT_FALSE(NSPlatform::PathExists(NSPlatform::CombinePath(strTarget, Native("2021/03/07/10.copy")).c_str()));
  {
    CTestArchive other(m_dir.Sub(KV_W("other")));
    auto pTarget = other.Writer("cam");
    EXPECT_EQ(S_OK, WriteFrame(pTarget, Ft(2021, 3, 7, 10, 6), 1, {"appended"}));
    EXPECT_EQ((std::vector<std::string>{"kept"}), ReadFrame(pTarget, Ft(2021, 3, 7, 10, 5), 1));
  }

  // A copy into 8 March was cut short: its partial hour sits beside the day's only hour.
  ASSERT_EQ(S_OK, NSPlatform::CreateDir(Dir("cam/2021/03/08/11.copy").c_str()));
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(Dir("cam/2021/03/08/11.copy/data.al"), "partial"));
  ASSERT_EQ(S_OK, m_pWriter->RemoveHour(Ft(2021, 3, 8, 10)));
  EXPECT_FALSE(NSPlatform::PathExists(Dir("cam/2021/03/08").c_str()));
  EXPECT_TRUE(NSPlatform::PathExists(Dir("cam/2021/03/07/10").c_str()));
}

// An hour whose data.al was made read-only by hand: the writer that meets it answers 0x80070005 and
// leaves every byte of the hour where it was; it neither repairs nor deletes an hour it cannot open.
TEST_F(RecordMaintenanceTest, AnHourTheWriterMayNotOpenIsLeftAsItIs) {
  ASSERT_EQ(S_OK, WriteFrame(m_pWriter, Ft(2021, 3, 7, 10, 5), 1, {"kept"}));
  ASSERT_EQ(S_OK, WriteFrame(m_pWriter, Ft(2021, 3, 7, 11, 5), 1, {"eleven"}));  // 10h closed
  const std::string strBefore = Snapshot();
  const WString strData = Dir("cam/2021/03/07/10/data.al");
  ASSERT_EQ(S_OK, NSPlatform::SetAttributes(strData.c_str(), FILE_ATTRIBUTE_READONLY));
  EXPECT_EQ((std::vector<std::string>{"hr=80070005"}), ReadFrame(m_pWriter, Ft(2021, 3, 7, 10, 5), 1));
  EXPECT_EQ(khrAccessDenied, WriteFrame(m_pWriter, Ft(2021, 3, 7, 10, 6), 1, {"late"}));
  ASSERT_EQ(S_OK, NSPlatform::SetAttributes(strData.c_str(), FILE_ATTRIBUTE_NORMAL));
  EXPECT_EQ(strBefore, Snapshot());
  EXPECT_EQ((std::vector<std::string>{"kept"}), ReadFrame(m_pWriter, Ft(2021, 3, 7, 10, 5), 1));
}

}  // namespace
