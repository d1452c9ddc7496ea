// A record on real files: frames across hour and day boundaries, the description file, the checks
// of writes and reads in their order, the state word and bad input.
#include "records/RecordTestSupport.h"

#include <kronvale/KronvaleResults.h>
#include "common/NotImplemented.h"

using namespace NSKronvale;
using namespace NSTest;

namespace {

class RecordTest : public ::testing::Test {
 protected:
  NSTest::CTempDir m_dir;
  CTestArchive m_archive{m_dir.Sub(KV_W("arc"))};

  WString RecordPath(const char* pszRelative = "") const {
    const WString str = m_dir.Sub(KV_W("arc"));
    return *pszRelative ? NSPlatform::CombinePath(str, Native(pszRelative)) : str;
  }
};

TEST_F(RecordTest, FramesAcrossHourAndDayBoundariesReadBackByteExact) {
  auto pRecord = m_archive.Writer("cam");
  const std::string strBig(70000, '\x5A');
  const struct {
    FILETIME ft;
    DWORD dwFlags;
    std::vector<std::string> vBuffers;
  } aFrames[] = {
      {Ft(2021, 3, 7, 10, 59, 59, 999), 0x1, {"first", std::string("\0\1\2", 3)}},
      {Ft(2021, 3, 7, 11, 0, 0, 0), 0x2, {"second", ""}},
      {Ft(2021, 3, 7, 23, 59, 59, 990), 0x80000000u, {strBig, "x"}},
      {Ft(2021, 3, 8, 0, 0, 0, 0), 0x4, {"next day", "y"}},
  };
  NSTest::CLogCapture capture;
  for (const auto& frame : aFrames) ASSERT_EQ(S_OK, WriteFrame(pRecord, frame.ft, frame.dwFlags, frame.vBuffers));
  EXPECT_TRUE(Logged(capture, "message", W("Closing previous hour ") + Native("2021/03/07/10") + W("\n")));
  for (const char* psz : {"cam/2021/03/07/10", "cam/2021/03/07/11", "cam/2021/03/07/23", "cam/2021/03/08/00"})
    EXPECT_TRUE(NSPlatform::IsDirectory(RecordPath(psz).c_str())) << psz;

  // Read back by a reader object and by the writer, newest first so that every read switches hours.
  auto pReader = m_archive.Reader("cam");
  for (IRecord* p : {static_cast<IRecord*>(pRecord.p), static_cast<IRecord*>(pReader.p)}) {
    for (int i = 3; i >= 0; --i) {
      DWORD dwFlags = 0;
      EXPECT_EQ(aFrames[i].vBuffers, ReadFrame(p, aFrames[i].ft, 2, &dwFlags)) << i;
      EXPECT_EQ(aFrames[i].dwFlags, dwFlags);
    }
  }
  // Into the caller's memory, one buffer of two, and flags alone.
  char ach[8] = {};
  SFrameBuffer buffer = {reinterpret_cast<BYTE*>(ach), sizeof(ach)};
  DWORD dwFlags = 0;
  ASSERT_EQ(S_OK, pReader->Read(aFrames[1].ft, &dwFlags, &buffer, 1));
  EXPECT_EQ("second", std::string(ach, buffer.dwDataSize));
  EXPECT_EQ(S_FALSE, pReader->Read(aFrames[0].ft, &dwFlags, nullptr, 0));
  EXPECT_EQ(0x1u, dwFlags);
}

TEST_F(RecordTest, TimesBeyondTheLastRepresentableHourLandInIt) {
  auto pRecord = m_archive.Writer("cam");
  const FILETIME ftFar = {0xFFFFFFF0u, 0x7FFFFFFFu};
  ASSERT_EQ(S_OK, WriteFrame(pRecord, ftFar, 7, {"far"}));
  EXPECT_TRUE(NSPlatform::IsDirectory(RecordPath("cam/9999/12/31/23").c_str()));
  EXPECT_EQ(std::vector<std::string>{"far"}, ReadFrame(pRecord, Ft(9999, 12, 31, 23, 59, 59, 999), 1));
  // Times with the top bit set cannot be broken down at all.
  FILETIME ftNext;
  EXPECT_EQ(khrNotFound, pRecord->GetNext(ftFar, nullptr, &ftNext));
}

TEST_F(RecordTest, ReadOfAMissingHourLeavesTheOpenHourAlone) {
  auto pRecord = m_archive.Writer("cam");
  ASSERT_EQ(S_OK, WriteFrame(pRecord, Ft(2021, 3, 7, 10, 5), 1, {"a"}));
  WString strOpen;
  auto pInternal = Internal(pRecord);
  NSTest::CLogCapture capture;
  EXPECT_EQ(khrFileNotFound, pRecord->Read(Ft(2021, 3, 7, 9, 5), nullptr, nullptr, 0));
  EXPECT_EQ(khrNotFound, pRecord->Read(Ft(2021, 3, 7, 10, 6), nullptr, nullptr, 0));
  ASSERT_EQ(S_OK, pInternal->GetCurrentHourPath(&strOpen));
  EXPECT_EQ(Native("2021/03/07/10"), strOpen);
  EXPECT_TRUE(Texts(capture, "message").empty());
}

TEST_F(RecordTest, CheckFrameAppliesEachFilterMode) {
  auto pRecord = m_archive.Writer("cam");
  const FILETIME ft = Ft(2021, 3, 7, 10);
  ASSERT_EQ(S_OK, WriteFrame(pRecord, ft, 0x6, {"a"}));
  const struct {
    DWORD dwMask;
    DWORD dwMode;
    HRESULT hr;
  } aCases[] = {{0x2, 0, S_OK},   {0x9, 0, S_FALSE}, {0x6, 1, S_OK},     {0x7, 1, S_FALSE}, {0x6, 2, S_OK},
                {0x2, 2, S_FALSE}, {0x8, 3, S_OK},   {0x4, 3, S_FALSE}, {0x6, 4, S_FALSE}, {0, 0x7FFF, S_FALSE}};
  for (const auto& c : aCases) {
    const SFrameFilter filter = Filter(c.dwMask, c.dwMode);
    EXPECT_EQ(c.hr, pRecord->CheckFrame(ft, &filter)) << c.dwMask << "/" << c.dwMode;
  }
  EXPECT_EQ(S_OK, pRecord->CheckFrame(ft, nullptr));
  EXPECT_EQ(S_FALSE, pRecord->CheckFrame(Plus(ft, 10 * kllMs), nullptr));
  EXPECT_EQ(S_FALSE, pRecord->CheckFrame(Ft(2021, 3, 7, 11), nullptr));
}

TEST_F(RecordTest, DescriptionFileIsBareUtf16) {
  auto pRecord = m_archive.Writer("cam");
  NSCom::CComBSTR bstr;
  EXPECT_EQ(khrFileNotFound, pRecord->GetDescription(&bstr));
  ASSERT_EQ(S_OK, pRecord->SetDescription(NSCom::CComBSTR(KV_W(""))));
  std::string strBytes = "?";
  ASSERT_EQ(S_OK, NSTest::ReadFileBytes(RecordPath("cam/record.ald"), &strBytes));
  EXPECT_EQ("", strBytes);
  EXPECT_EQ(S_OK, pRecord->GetDescription(&bstr));
  EXPECT_EQ(nullptr, bstr.m_str);

  ASSERT_EQ(S_OK, pRecord->SetDescription(NSCom::CComBSTR(KV_W("Gate \u00E9"))));
  ASSERT_EQ(S_OK, NSTest::ReadFileBytes(RecordPath("cam/record.ald"), &strBytes));
  EXPECT_EQ(std::string("G\0a\0t\0e\0 \0\xE9\0", 12), strBytes);
  ASSERT_EQ(S_OK, pRecord->GetDescription(&bstr));
  EXPECT_EQ(WString(KV_W("Gate \u00E9")), WString(bstr.m_str));

  // Somebody reading the file while a new text is written: Linux renames over it, Windows refuses
  // (after some tries); either way the file holds one whole text afterwards.
  {
    NSPlatform::CFile reading;
    ASSERT_EQ(S_OK, reading.Open(RecordPath("cam/record.ald").c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                 OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL));
    const HRESULT hr = pRecord->SetDescription(NSCom::CComBSTR(KV_W("Gate 2")));
#ifdef _WIN32
    EXPECT_TRUE(hr == S_OK || hr == khrAccessDenied || hr == khrSharingViolation) << std::hex << hr;
#else
    EXPECT_EQ(S_OK, hr);
#endif
    bstr.Empty();
    ASSERT_EQ(S_OK, pRecord->GetDescription(&bstr));
    EXPECT_EQ(WString(hr == S_OK ? KV_W("Gate 2") : KV_W("Gate \u00E9")), WString(bstr.m_str));
  }
  // Once the reader is gone the text is replaced, and no ".new" file is left beside it.
  ASSERT_EQ(S_OK, pRecord->SetDescription(NSCom::CComBSTR(KV_W("Gate 3"))));
  bstr.Empty();
  ASSERT_EQ(S_OK, pRecord->GetDescription(&bstr));
  EXPECT_EQ(WString(KV_W("Gate 3")), WString(bstr.m_str));
  EXPECT_FALSE(NSPlatform::PathExists(RecordPath("cam/record.ald.new").c_str()));
  // A disk that fills up in the middle of a new text, or a rename that fails: the old text stays.
  for (const NSPlatform::NSFault::SRule& rule :
       {NSPlatform::NSFault::SRule{NSPlatform::NSFault::EOp::Write, 1, ERROR_DISK_FULL, false, 3, KV_W("record.ald")},
        NSPlatform::NSFault::SRule{NSPlatform::NSFault::EOp::Directory, 1, ERROR_DISK_FULL, false, -1, KV_W("record.ald")}}) {
    NSPlatform::NSFault::Arm(rule);
    EXPECT_EQ(khrDiskFull, pRecord->SetDescription(NSCom::CComBSTR(KV_W("Gate 4, longer"))));
    NSPlatform::NSFault::Reset();
    bstr.Empty();
    ASSERT_EQ(S_OK, pRecord->GetDescription(&bstr));
    EXPECT_EQ(WString(KV_W("Gate 3")), WString(bstr.m_str));
    EXPECT_FALSE(NSPlatform::PathExists(RecordPath("cam/record.ald.new").c_str()));
  }

  // An odd byte at the end is not a code unit.
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(RecordPath("cam/record.ald"), std::string("A\0B", 3)));
  bstr.Empty();
  ASSERT_EQ(S_OK, pRecord->GetDescription(&bstr));
  EXPECT_EQ(WString(KV_W("A")), WString(bstr.m_str));

  NSTest::CLogCapture capture;
  EXPECT_EQ(E_POINTER, pRecord->SetDescription(nullptr));
  EXPECT_EQ(E_POINTER, pRecord->GetDescription(nullptr));
  EXPECT_EQ((std::vector<WString>{W("szDescription\n"), W("pszDescription\n")}), Texts(capture, "TRASSDO"));
}

TEST_F(RecordTest, ReaderObjectsChangeNothing) {
  auto pWriter = m_archive.Writer("cam");
  ASSERT_EQ(S_OK, WriteFrame(pWriter, Ft(2021, 3, 7, 10), 1, {"a"}));
  auto pReader = m_archive.Reader("cam");
  NSTest::CLogCapture capture;
  EXPECT_EQ(E_ACCESSDENIED, WriteFrame(pReader, Ft(2021, 3, 7, 11), 1, {"b"}));
  EXPECT_EQ(E_ACCESSDENIED, pReader->SetDescription(NSCom::CComBSTR(KV_W("x"))));
  EXPECT_EQ(E_ACCESSDENIED, pReader->RemoveHour(Ft(2021, 3, 7, 10)));
  EXPECT_EQ(E_ACCESSDENIED, pReader->Merge(pWriter, nullptr, 1));
  const WString strText = W("Data modification for record '") + RecordPath("cam") + W("' reader object forbidden!\n");
  EXPECT_EQ(std::vector<WString>(4, strText), Texts(capture, "error"));
  EXPECT_FALSE(NSPlatform::PathExists(RecordPath("cam/2021/03/07/11").c_str()));
  EXPECT_FALSE(NSPlatform::PathExists(RecordPath("cam/record.ald").c_str()));
  EXPECT_TRUE(NSPlatform::IsDirectory(RecordPath("cam/2021/03/07/10").c_str()));
}

TEST_F(RecordTest, WriteChecksComeInOrder) {
  auto pRecord = m_archive.Writer("cam");
  auto pInternal = Internal(pRecord);
  auto pState = Query<IStateControl>(pRecord, IID_IStateControl);
  const FILETIME ft = Ft(2021, 3, 7, 10);

  // A writer opened with mode bit 4 (its archive takes no more data) refuses data first of all,
  // even when locked.
  NSCom::CComPtr<IRecord> pFull;
  ASSERT_EQ(S_OK, Query<IKronvaleEx>(m_archive.Get(), IID_IKronvaleEx)
                      ->OpenRecordEx(NSCom::CComBSTR(KV_W("full")), NSCom::CComBSTR(KV_W("cam")), 7, &pFull));
  EXPECT_EQ(7u, Internal(pFull)->GetAccessMode());
  ASSERT_EQ(S_OK, Query<IStateControl>(pFull, IID_IStateControl)->Change(0x10000, 0));
  EXPECT_EQ(khrNotEnoughQuota, WriteFrame(pFull, ft, 1, {"a"}));
  EXPECT_EQ(khrNotEnoughQuota, pFull->SetDescription(NSCom::CComBSTR(KV_W("x"))));
  EXPECT_EQ(khrNotEnoughQuota, pFull->RemoveHour(ft));
  // Then the locked state.
  ASSERT_EQ(S_OK, pState->Change(0x10000, 0));
  EXPECT_EQ(khrLocked, WriteFrame(pRecord, ft, 1, {"a"}));
  EXPECT_EQ(khrLocked, pRecord->Read(ft, nullptr, nullptr, 0));
  EXPECT_EQ(khrLocked, pRecord->Merge(pRecord, nullptr, 1));
  NSCom::CComBSTR bstrName;
  EXPECT_EQ(khrLocked, pRecord->GetName(&bstrName));
  ASSERT_EQ(S_OK, pState->Change(0, 0x10000));

  // Get answers S_OK and leaves the caller's variable as it was; a bit in both arguments ends set.
  LONG lState = 12345;
  EXPECT_EQ(S_OK, pState->Get(&lState));
  EXPECT_EQ(12345, lState);
  ASSERT_EQ(S_OK, pState->Change(0x100, 0x100));
  ASSERT_EQ(S_OK, pState->Change(0x1, 0x100));
  EXPECT_EQ(S_OK, pState->Set(0));

  // A busy record neither writes nor reads nor searches.
  ASSERT_EQ(1, pInternal->EnterBusy());
  EXPECT_EQ(khrPending, WriteFrame(pRecord, ft, 1, {"a"}));
  ASSERT_EQ(0, pInternal->LeaveBusy());
  ASSERT_EQ(S_OK, WriteFrame(pRecord, ft, 1, {"a"}));
  ASSERT_EQ(1, pInternal->EnterBusy());
  EXPECT_EQ(khrPending, pRecord->Read(ft, nullptr, nullptr, 0));
  FILETIME ftFound;
  EXPECT_EQ(khrPending, pRecord->GetNext(Ft(2021, 1, 1, 0), nullptr, &ftFound));
  ASSERT_EQ(0, pInternal->LeaveBusy());

  // More buffers than the frame has, null buffers with a count, and zero buffers.
  std::vector<SFrameBuffer> vMany(100000, SFrameBuffer{nullptr, 0});
  EXPECT_EQ(NSKronvale::khrInsufficientBuffer, pRecord->Read(ft, nullptr, vMany.data(), 100000));
  EXPECT_TRUE(std::all_of(vMany.begin(), vMany.end(), [](const SFrameBuffer& b) { return !b.pData; }));
  EXPECT_EQ(E_POINTER, pRecord->Write(ft, 1, nullptr, 2));
  EXPECT_EQ(E_POINTER, pRecord->Read(ft, nullptr, nullptr, 2));
  ASSERT_EQ(S_OK, pRecord->Write(Plus(ft, 10 * kllMs), 9, nullptr, 0));
  DWORD dwFlags = 0;
  EXPECT_EQ(S_FALSE, pRecord->Read(Plus(ft, 10 * kllMs), &dwFlags, nullptr, 0));
  EXPECT_EQ(9u, dwFlags);
}

// An IKronvale that is not one of ours.
class CForeignArchive : public NSCom::CComObjectRootEx, public NSTest::CNotImplementedArchive {
 public:
  BEGIN_COM_MAP(CForeignArchive)
    COM_INTERFACE_ENTRY(IKronvale)
  END_COM_MAP()
};

TEST_F(RecordTest, OnlyAnArchiveOfOursMayParentAWriter) {
  NSCom::CComPtr<IKronvale> pForeign;
  ASSERT_EQ(S_OK, NSCom::CComObject<CForeignArchive>::CreateInstance(IID_IKronvale, reinterpret_cast<void**>(&pForeign)));
  NSCom::CComPtr<IRecord> pRecord;
  ASSERT_EQ(S_OK, NSCom::CComObject<NSRecords::CRecord>::CreateInstance(IID_IRecord, reinterpret_cast<void**>(&pRecord)));
  NSTest::CLogCapture capture;
  EXPECT_EQ(E_POINTER, Internal(pRecord)->Create(nullptr, RecordPath("loose").c_str(), 0, 3));
  ASSERT_EQ(S_OK, Internal(pRecord)->Create(pForeign, RecordPath("loose").c_str(), 0, 3));
  EXPECT_EQ(khrInvalidState, WriteFrame(pRecord, Ft(2021, 3, 7, 10), 1, {"a"}));
  EXPECT_EQ(std::vector<WString>{W("parent absence on record '") + RecordPath("loose") + W("'!\n")},
            Texts(capture, "error"));
  EXPECT_EQ(std::vector<WString>{W("pParent\n")}, Texts(capture, "TRASSDO"));
  EXPECT_FALSE(NSPlatform::PathExists(RecordPath("loose/2021").c_str()));
}

TEST_F(RecordTest, NamesPathsAndNullOutputs) {
  auto pRecord = m_archive.Writer("cam");
  NSCom::CComBSTR bstr;
  ASSERT_EQ(S_OK, pRecord->GetName(&bstr));
  EXPECT_EQ(W("cam"), WString(bstr.m_str));
  bstr.Empty();
  ASSERT_EQ(S_OK, pRecord->GetPath(&bstr));
  EXPECT_EQ(RecordPath("cam"), WString(bstr.m_str));

  NSTest::CLogCapture capture;
  FILETIME ft = Ft(2021, 3, 7, 10);
  DWORD dwCount = 0;
  EXPECT_EQ(E_POINTER, pRecord->GetName(nullptr));
  EXPECT_EQ(E_POINTER, pRecord->GetPath(nullptr));
  EXPECT_EQ(E_POINTER, pRecord->GetNext(ft, nullptr, nullptr));
  EXPECT_EQ(E_POINTER, pRecord->GetPrev(ft, nullptr, nullptr));
  EXPECT_EQ(E_POINTER, pRecord->GetSibling(1, 1, ft, nullptr, nullptr));
  EXPECT_EQ(E_POINTER, pRecord->GetStatistic(ft, ft, ft, nullptr, 0, &dwCount, nullptr));
  EXPECT_EQ(E_POINTER, pRecord->GetStatus(nullptr));
  EXPECT_EQ((std::vector<WString>{W("pszName\n"), W("pszPath\n"), W("pftOutFrameTime\n"), W("pftPrevFrameTime\n"),
                                  W("pftPrevFrameTime\n"), W("pdwCount && ppRecordStatistic\n"), W("pszStatus\n")}),
            Texts(capture, "TRASSDO"));
}

// The record's directory vanishes under a live record (an operator deletes it): every call answers
// with a clear error or recreates what it needs, and nothing crashes.
TEST_F(RecordTest, RecordDirectoryRemovedUnderALiveRecord) {
  auto pRecord = m_archive.Writer("cam");
  auto pReader = m_archive.Reader("cam");
  ASSERT_EQ(S_OK, WriteFrame(pRecord, Ft(2021, 3, 7, 10), 1, {"a"}));
  ASSERT_EQ(S_OK, WriteFrame(pRecord, Ft(2021, 3, 7, 11), 1, {"b"}));
  // Removing the open hour closes it, so that no file of the tree is open (Windows could not delete
  // it otherwise).
  ASSERT_EQ(S_OK, pRecord->RemoveHour(Ft(2021, 3, 7, 11, 30)));
#ifdef _WIN32
  // Windows keeps the directory of a record whose writer lives ("record.lck" is open); what the
  // operator deletes is everything else in it.
  ASSERT_EQ(S_OK, NSTest::DeleteTree(NSPlatform::CombinePath(RecordPath("cam"), KV_W("2021"))));
#else
  ASSERT_EQ(S_OK, NSTest::DeleteTree(RecordPath("cam")));
#endif
  FILETIME ftFound;
  EXPECT_EQ(khrFileNotFound, pRecord->Read(Ft(2021, 3, 7, 10), nullptr, nullptr, 0));
  EXPECT_EQ(khrNotFound, pReader->GetNext(Ft(2021, 3, 7, 0), nullptr, &ftFound));
  EXPECT_EQ(khrNotFound, pReader->GetPrev(Ft(2021, 3, 8, 0), nullptr, &ftFound));
  DWORD dwCount = 7;
  SRecordStatistic* pStats = nullptr;
  EXPECT_EQ(khrNotFound, pReader->GetStatistic(Ft(2021, 3, 7, 0), Ft(2021, 3, 8, 0), Ft(1601, 1, 1, 1), nullptr, 0,
                                               &dwCount, &pStats));
  EXPECT_EQ(0u, dwCount);
  EXPECT_EQ(nullptr, pStats);
  NSCom::CComBSTR bstr;
  EXPECT_TRUE(FAILED(pRecord->GetDescription(&bstr)));
#ifndef _WIN32
  EXPECT_TRUE(FAILED(pRecord->SetDescription(NSCom::CComBSTR(KV_W("x")))));
#endif
  // A write makes its hour again, with the record directory.
  EXPECT_EQ(S_OK, WriteFrame(pRecord, Ft(2021, 3, 7, 13), 1, {"d"}));
  EXPECT_EQ(std::vector<std::string>{"d"}, ReadFrame(pReader, Ft(2021, 3, 7, 13), 1));
}

}  // namespace
