// The time and file-system helpers: clamping, hour paths both ways, the span classifier, the flag
// filter, and the recursive deletion with its reports.
#include <gtest/gtest.h>

#include <stdexcept>

#include "common/LogCapture.h"
#include "common/TempDir.h"
#include "hours/KronvaleUtils.h"
#include "platform/os.h"

using namespace NSKronvaleUtils;
using NSTest::CTempDir;

namespace {

// A path written with '/' in the platform's separator.
WString Native(const char* psz) {
  WString str = NSPlatform::Utf8ToWide(psz);
  for (WCHAR& ch : str) {
    if (ch == u'/') ch = NSPlatform::chPathSeparator;
  }
  return str;
}

// 9999-12-31 23:59:59.999 and 2021-03-07 05:00:00.000 UTC.
constexpr ULONGLONG kullMaxTime = 0x24C85A5ED1C018F0ull;
constexpr ULONGLONG kullHour20210307T05 = 132595668000000000ull;

ULONGLONG Clamped(ULONGLONG ull) {
  FILETIME ft = NSPlatform::U64ToFileTime(ull);
  ConformantFileTime(ft);
  return NSPlatform::FileTimeToU64(ft);
}

}  // namespace

TEST(KronvaleUtils, ConformantFileTimeClampsToTheLastMillisecondOf9999) {
  EXPECT_EQ(Clamped(kullMaxTime + 1), kullMaxTime);
  // Compared unsigned: values with the top bit set are far in the future, not negative.
  EXPECT_EQ(Clamped(0x8000000000000000ull), kullMaxTime);
  EXPECT_EQ(Clamped(~0ull), kullMaxTime);
  EXPECT_EQ(Clamped(kullMaxTime), kullMaxTime);
  EXPECT_EQ(Clamped(kullMaxTime - 1), kullMaxTime - 1);
  EXPECT_EQ(Clamped(0), 0u);
}

TEST(KronvaleUtils, SpanToDatePartUsesItsDivisorsInTurn) {
  using namespace file_time;
  for (ULONGLONG ull : {0ull, 9999ull}) {
    try {
      SpanToDatePart(ull);
      ADD_FAILURE() << ull << " did not throw";
    } catch (const std::range_error& e) {
      EXPECT_STREQ(e.what(), "cannot decrement over edMSec");
    }
  }
  constexpr ULONGLONG kullDay = 864000000000ull;
  const struct {
    ULONGLONG ullSpan;
    date_part ePart;
  } aCases[] = {
      {10000, edMSec},
      {9999999, edMSec},
      {10000000, edSec},
      {599999999, edSec},
      {600000000, edMin},
      {36000000000ull, edHour},
      {kullDay - 1, edHour},
      {kullDay, edDay},
      {30 * kullDay, edDay},  // a month is 30.42 days
      {31 * kullDay, edYear},
      {40 * kullDay, edYear},
      {0x8000000000000001ull, edYear},  // above 2^63: corrected, not negative
      {~0ull, edYear},
  };
  for (const auto& c : aCases) EXPECT_EQ(SpanToDatePart(c.ullSpan), c.ePart) << c.ullSpan;
}

TEST(KronvaleUtils, HourPathsAreFormattedAndReadBack) {
  const SYSTEMTIME st = {2021, 3, 0, 7, 5, 59, 58, 999};
  EXPECT_EQ(FormatHourPath(st), Native("2021/03/07/05"));
  WString strPath;
  ASSERT_TRUE(HourPathFromFileTime(NSPlatform::U64ToFileTime(kullHour20210307T05 + 35999999999ull), &strPath));
  EXPECT_EQ(strPath, Native("2021/03/07/05"));
  EXPECT_FALSE(HourPathFromFileTime(NSPlatform::U64ToFileTime(0x8000000000000000ull), &strPath));

  for (const char* psz : {"2021/03/07/05/", "/arc/rec/2021/03/07/05", "2021/03/07/05", "rec/2021/03/07/05/"}) {
    EXPECT_EQ(NSPlatform::FileTimeToU64(HourStartFromPath(Native(psz))), kullHour20210307T05) << psz;
  }
  int nYear = 0, nMonth = 0, nDay = 0, nHour = 0;
  EXPECT_EQ(ScanHourPath(Native("2021/03/07/"), &nYear, &nMonth, &nDay, &nHour), 3);
  // Only the last 14 characters are read.
  EXPECT_EQ(ScanHourPath(Native("/arc/rec/2021/03/07"), &nYear, &nMonth, &nDay, &nHour), 0);
  EXPECT_EQ(ScanHourPath(Native("/arc/2021/03/x7/05"), &nYear, &nMonth, &nDay, &nHour), 2);
  for (const char* psz : {"/arc/rec/2021/03/07", "/arc/rec/hour", "", "2021/13/07/05", "2021/02/29/05"}) {
    EXPECT_EQ(NSPlatform::FileTimeToU64(HourStartFromPath(Native(psz))), 0u) << psz;
  }
}

TEST(KronvaleUtils, IsCurrentHourComparesWithTheUtcClock) {
  // Retried when the hour turns between reading the clock and the test.
  bool bCurrent = false;
  for (int i = 0; i < 3 && !bCurrent; ++i) {
    SYSTEMTIME stNow;
    NSPlatform::GetUtcSystemTime(&stNow);
    bCurrent = IsCurrentHour(Native("/arc/rec/") + FormatHourPath(stNow) + NSPlatform::chPathSeparator);
  }
  EXPECT_TRUE(bCurrent);
  // Today, another hour; this hour of another day, month and year.
  SYSTEMTIME stNow;
  NSPlatform::GetUtcSystemTime(&stNow);
  SYSTEMTIME stOther = stNow;
  stOther.wHour = static_cast<WORD>((stNow.wHour + 12) % 24);
  EXPECT_FALSE(IsCurrentHour(Native("/arc/rec/") + FormatHourPath(stOther)));
  for (WORD* pw : {&stOther.wDay, &stOther.wMonth, &stOther.wYear}) {
    stOther = stNow;
    *pw = static_cast<WORD>(*pw == 1 ? 2 : *pw - 1);
    EXPECT_FALSE(IsCurrentHour(Native("/arc/rec/") + FormatHourPath(stOther)));
  }
  EXPECT_FALSE(IsCurrentHour(Native("/arc/rec/2021/03/07/05")));
  EXPECT_FALSE(IsCurrentHour(Native("/arc/rec")));
}

TEST(KronvaleUtils, FlagFilterModes) {
  EXPECT_TRUE(IsFrameMatchesFilter(0x6, 0, 0x2));
  EXPECT_FALSE(IsFrameMatchesFilter(0x6, 0, 0x9));
  EXPECT_FALSE(IsFrameMatchesFilter(0x6, 1, 0x2));
  EXPECT_TRUE(IsFrameMatchesFilter(0x6, 1, 0xF));
  EXPECT_TRUE(IsFrameMatchesFilter(0x6, 2, 0x6));
  EXPECT_FALSE(IsFrameMatchesFilter(0x6, 2, 0x7));
  EXPECT_FALSE(IsFrameMatchesFilter(0x6, 2, 0x2));
  EXPECT_TRUE(IsFrameMatchesFilter(0x6, 3, 0x1));
  EXPECT_FALSE(IsFrameMatchesFilter(0x6, 3, 0x4));
  for (DWORD dwMode : {4u, 5u, 0xFFFFFFFFu}) {
    for (DWORD dwFlags : {0x0u, 0x1u, 0x2u, 0x6u, 0xFFFFFFFFu}) EXPECT_FALSE(IsFrameMatchesFilter(0x6, dwMode, dwFlags));
  }
  struct {
    DWORD dwMask;
    int eMode;
  } filter = {0x6, 1};
  EXPECT_TRUE(IsFrameMatchesFilter(filter, 0x6));
}

TEST(KronvaleUtils, CopyTreeCopiesADirectory) {
  CTempDir dir;
  ASSERT_EQ(NSPlatform::CreateDirTree(dir.Sub(Native("src/2021/03")).c_str()), S_OK);
  ASSERT_EQ(NSTest::WriteFileBytes(dir.Sub(Native("src/2021/03/data.al")), "frame"), S_OK);
  EXPECT_TRUE(CopyTree(dir.Sub(KV_W("src")), dir.Sub(KV_W("dst"))));
  std::string strBytes;
  EXPECT_EQ(NSTest::ReadFileBytes(dir.Sub(Native("dst/2021/03/data.al")), &strBytes), S_OK);
  EXPECT_EQ(strBytes, "frame");
  EXPECT_FALSE(CopyTree(dir.Sub(KV_W("missing")), dir.Sub(KV_W("dst2"))));
}

class DeleteFileSystemObjectTest : public testing::Test {
 protected:
  void SetUp() override { NSPlatform::NSFault::Reset(); }
  void TearDown() override { NSPlatform::NSFault::Reset(); }

  void MakeFile(const char* pszRelative, bool bReadOnly = false) {
    const WString strPath = m_dir.Sub(Native(pszRelative));
    ASSERT_EQ(NSTest::WriteFileBytes(strPath, "x"), S_OK);
    if (bReadOnly) {
      ASSERT_EQ(NSPlatform::SetAttributes(strPath.c_str(), FILE_ATTRIBUTE_READONLY), S_OK);
    }
  }
  bool Exists(const char* pszRelative) { return NSPlatform::PathExists(m_dir.Sub(Native(pszRelative)).c_str()); }

  CTempDir m_dir;
};

TEST_F(DeleteFileSystemObjectTest, DeletesATreeWithReadOnlyFiles) {
  ASSERT_EQ(NSPlatform::CreateDirTree(m_dir.Sub(Native("rec/2021/03/07/05")).c_str()), S_OK);
  MakeFile("rec/2021/03/07/05/data.al", true);
  MakeFile("rec/2021/03/07/05/descriptor.ald");
  MakeFile("rec/record.ald", true);
  ASSERT_EQ(NSPlatform::CreateDir(m_dir.Sub(Native("rec/empty")).c_str()), S_OK);
  NSTest::CLogCapture capture;
  EXPECT_EQ(DeleteFileSystemObject(m_dir.Sub(KV_W("rec"))), S_OK);
  EXPECT_FALSE(Exists("rec"));
  EXPECT_TRUE(capture.Reports().empty());

  // The root's own read-only bit is cleared before it is removed.
  ASSERT_EQ(NSPlatform::CreateDir(m_dir.Sub(KV_W("ro")).c_str()), S_OK);
  ASSERT_EQ(NSPlatform::SetAttributes(m_dir.Sub(KV_W("ro")).c_str(), FILE_ATTRIBUTE_READONLY), S_OK);
  EXPECT_EQ(DeleteFileSystemObject(m_dir.Sub(KV_W("ro"))), S_OK);
  EXPECT_FALSE(Exists("ro"));
}

TEST_F(DeleteFileSystemObjectTest, LeavesPlainFilesAndMissingPathsWithSFalse) {
  MakeFile("plain.bin", true);
  EXPECT_EQ(DeleteFileSystemObject(m_dir.Sub(KV_W("plain.bin"))), S_FALSE);
  EXPECT_TRUE(Exists("plain.bin"));
  DWORD dwAttributes = 0;
  ASSERT_EQ(NSPlatform::GetAttributes(m_dir.Sub(KV_W("plain.bin")).c_str(), &dwAttributes), S_OK);
  EXPECT_TRUE(dwAttributes & FILE_ATTRIBUTE_READONLY);
  EXPECT_EQ(DeleteFileSystemObject(m_dir.Sub(KV_W("missing"))), S_FALSE);
}

TEST_F(DeleteFileSystemObjectTest, StopsAtTheFirstChildThatCannotBeDeleted) {
  ASSERT_EQ(NSPlatform::CreateDir(m_dir.Sub(KV_W("tree")).c_str()), S_OK);
  MakeFile("tree/a.bin");
  MakeFile("tree/b.bin");
  MakeFile("tree/c.bin");
  NSPlatform::NSFault::SRule rule;
  rule.eOp = NSPlatform::NSFault::EOp::Directory;
  rule.dwError = ERROR_SHARING_VIOLATION;
  rule.strPathContains = KV_W("b.bin");
  NSPlatform::NSFault::Arm(rule);
  NSTest::CLogCapture capture;
  EXPECT_EQ(DeleteFileSystemObject(m_dir.Sub(KV_W("tree"))), static_cast<HRESULT>(0x80070020));
  EXPECT_FALSE(Exists("tree/a.bin"));
  EXPECT_TRUE(Exists("tree/b.bin"));
  EXPECT_TRUE(Exists("tree/c.bin"));
  const std::vector<NSTest::SLoggedReport> vReports = capture.Reports();
  ASSERT_EQ(vReports.size(), 1u);
  EXPECT_EQ(vReports[0].strText, KV_W("Failed to delete ") + m_dir.Sub(Native("tree/b.bin")) + KV_W(", hr=80070020\n"));
  EXPECT_EQ(vReports[0].strCategory, KV_W("error"));
  EXPECT_EQ(vReports[0].strFunction, "DeleteFileSystemObject");
  EXPECT_EQ(vReports[0].strFile, "KronvaleUtils.h");
}

TEST_F(DeleteFileSystemObjectTest, ReportsAReadOnlyBitThatCannotBeCleared) {
  ASSERT_EQ(NSPlatform::CreateDir(m_dir.Sub(KV_W("tree")).c_str()), S_OK);
  MakeFile("tree/ro.bin", true);
  NSPlatform::NSFault::SRule rule;
  rule.eOp = NSPlatform::NSFault::EOp::Directory;
  rule.dwError = ERROR_WRITE_PROTECT;
  rule.strPathContains = KV_W("ro.bin");
  NSPlatform::NSFault::Arm(rule);  // the first call only: clearing the bit
  NSTest::CLogCapture capture;
  // The file stays read-only, so its deletion is refused in turn.
  EXPECT_EQ(DeleteFileSystemObject(m_dir.Sub(KV_W("tree"))), E_ACCESSDENIED);
  const WString strFile = m_dir.Sub(Native("tree/ro.bin"));
  const std::vector<NSTest::SLoggedReport> vReports = capture.Reports();
  ASSERT_EQ(vReports.size(), 2u);
  EXPECT_EQ(vReports[0].strText, KV_W("Failed to set file attributes for ") + strFile + KV_W(", hr=80070013\n"));
  EXPECT_EQ(vReports[1].strText, KV_W("Failed to delete ") + strFile + KV_W(", hr=80070005\n"));
  EXPECT_TRUE(Exists("tree/ro.bin"));
}
