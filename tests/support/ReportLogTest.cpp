// Messages through the XML log engine: levels, cutting at 1024, "DIRECT", the engine declining
// categorised reports, escaping, and concurrent reporters.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/LogCapture.h"
#include "platform/os.h"
#include "support/Report.h"
#include "support/WideFormat.h"

using NSTest::CLogCapture;
using NSTest::ExpectReports;
using NSTest::SLoggedReport;

namespace {

std::string U8(const WString& str) { return NSPlatform::WideToUtf8(str); }

// Clears KRONVALE_XMLLOG_DIRECT_ONLY however the test ends.
struct SDirectOnlyScope {
  SDirectOnlyScope() { CLogCapture::SetDirectOnly(true); }
  ~SDirectOnlyScope() { CLogCapture::SetDirectOnly(false); }
};

TEST(ReportLog, EngineIsLoadedOnceAndKept) {
  NSLog::ILogEngine* pEngine = NSReport::GetLogEngine();
  ASSERT_NE(pEngine, nullptr) << "the log engine library must sit beside the test program";
  EXPECT_EQ(NSReport::GetLogEngine(), pEngine);
}

TEST(ReportLog, MessagesAtEachLevel) {
  CLogCapture capture;
  const WCHAR* pszPath = KV_W("C:\\Archives\\Zürich");
  NSPlatform::SetLastError(ERROR_SHARING_VIOLATION);
  const int nLine = __LINE__ + 1;
  KV_LOG_MESSAGE(KV_W("Archive opened from cache: %s\n"), pszPath);
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  KV_LOG_WARNING(KV_W("Failed to open next hour %s\n"), KV_W("2021\\03\\07\\05"));
  KV_LOG_ERROR(KV_W("Failed to delete %s, hr=%0X\n"), pszPath, E_ACCESSDENIED);
  KV_LOG(KV_W("Repairing"), KV_W("Repairing hour %s of %s\n"), KV_W("h"), KV_W("r"));
  KV_LOG(KV_W("message"), KV_W("Opening record '%s' in archive '%s' for client '%s' in mode 0x%08X.\n"), KV_W("cam1"),
         pszPath, KV_W("GenericReader"), 2u);
  KV_LOG(nullptr, KV_W("direct %d\n"), 1);
  NSReport::Report(KV_HERE, nullptr, KV_W("plain\n"));

  std::vector<SLoggedReport> reports = capture.Reports();
  ASSERT_TRUE(ExpectReports(
      reports,
      {{"message", "Archive opened from cache: C:\\Archives\\Zürich\n", "ReportLog_MessagesAtEachLevel_Test::TestBody"},
       {"warning", "Failed to open next hour 2021\\03\\07\\05\n", {}},
       {"error", "Failed to delete C:\\Archives\\Zürich, hr=80070005\n", {}},
       {"Repairing", "Repairing hour h of r\n", {}},
       {"message",
        "Opening record 'cam1' in archive 'C:\\Archives\\Zürich' for client 'GenericReader' in mode 0x00000002.\n",
        {}},
       {"DIRECT", "direct 1\n", {}},
       {"DIRECT", "plain\n", {}}}));
  EXPECT_EQ(reports[0].strFile, "ReportLogTest.cpp");
  EXPECT_EQ(reports[0].nLine, nLine);

  // The element as written: one line per report here, with a UTC time stamp.
  std::string strRaw = capture.RawText();
  std::string strFirst = strRaw.substr(0, strRaw.find('\n'));
  EXPECT_TRUE(std::regex_match(
      strFirst, std::regex("<report time=\"\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z\" thread=\"\\d+\" "
                           "function=\"ReportLog_MessagesAtEachLevel_Test::TestBody\" file=\"ReportLogTest.cpp\" "
                           "line=\"\\d+\" category=\"message\">Archive opened from cache: .*")))
      << strFirst;
}

TEST(ReportLog, TextOver1024CharactersIsCut) {
  CLogCapture capture;
  WString strLong;
  for (int i = 0; i < 2000; ++i) strLong += static_cast<WCHAR>('a' + i % 26);
  KV_LOG_MESSAGE(KV_W("%s"), strLong.c_str());
  KV_LOG_MESSAGE(KV_W("%s\n"), strLong.substr(0, 1023).c_str());  // exactly 1024 with the newline
  std::string strLongCheck = std::string(1500, 'c') + "\n";
  EXPECT_FALSE(KV_ASSERT_TEXT(false, strLongCheck.c_str()));
  NSReport::Report(KV_HERE, KV_W("message"), strLong.c_str());

  std::vector<SLoggedReport> reports = capture.Reports();
  ASSERT_EQ(reports.size(), 4u);
  EXPECT_EQ(reports[0].strText.size(), 1024u);
  EXPECT_EQ(reports[0].strText, strLong.substr(0, 1024));
  EXPECT_EQ(reports[1].strText, strLong.substr(0, 1023) + KV_W("\n"));
  EXPECT_EQ(U8(reports[2].strText), std::string(1024, 'c'));
  EXPECT_EQ(reports[3].strText, strLong.substr(0, 1024));
}

TEST(ReportLog, DeclinedCategoriesDropOnlyCategorisedReports) {
  CLogCapture capture;
  {
    SDirectOnlyScope directOnly;
    KV_LOG_MESSAGE(KV_W("dropped\n"));
    EXPECT_FALSE(KV_ASSERT(1 == 2));
    KV_LOG(nullptr, KV_W("kept %s\n"), KV_W("direct"));
    // Results stay as they are when nothing is recorded.
    auto fnCheck = [](DWORD* pdw) -> HRESULT {
      KV_CHECK_POINTER(pdw);
      return S_OK;
    };
    NSPlatform::SetLastError(ERROR_BUSY);
    EXPECT_EQ(fnCheck(nullptr), E_POINTER);
    EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_BUSY));
  }
  KV_LOG_MESSAGE(KV_W("accepted again\n"));

  std::vector<SLoggedReport> reports = capture.Reports();
  ExpectReports(reports, {{"DIRECT", "kept direct\n", {}}, {{}, "accepted again\n", {}}});
}

TEST(ReportLog, EscapingKeepsTextIntact) {
  CLogCapture capture;
  const WString strText = KV_W("a<b>&\"c\" 'd'\r\n\ttab € \U0001F600 ]]>\n");
  KV_LOG(KV_W("lev<&>\"el\n"), KV_W("%s"), strText.c_str());
  std::vector<SLoggedReport> reports = capture.Reports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].strText, strText);
  EXPECT_EQ(U8(reports[0].strCategory), "lev<&>\"el\n");
}

TEST(ReportLog, EachCaptureGetsItsOwnFile) {
  {
    CLogCapture first;
    KV_LOG_MESSAGE(KV_W("first\n"));
    EXPECT_EQ(first.Reports().size(), 1u);
  }
  KV_LOG_MESSAGE(KV_W("between captures: not written\n"));
  CLogCapture second;
  KV_LOG_MESSAGE(KV_W("second\n"));
  std::vector<SLoggedReport> reports = second.Reports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(U8(reports[0].strText), "second\n");
}

TEST(ReportLog, ConcurrentReportsAllArriveIntact) {
  CLogCapture capture;
  const int kcThreads = 8;
  const int kcReports = 150;
  // Long texts, so that interleaved writes would show.
  const WString strPadding(300, 'p');
  std::vector<std::thread> threads;
  for (int t = 0; t < kcThreads; ++t) {
    threads.emplace_back([t, &strPadding] {
      for (int i = 0; i < kcReports; ++i) {
        if (i % 2) KV_LOG_MESSAGE(KV_W("thread %d report %d %s\n"), t, i, strPadding.c_str());
        else KV_ASSERT_TEXT(false, "thread check\n");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  std::vector<SLoggedReport> reports = capture.Reports();
  ASSERT_EQ(reports.size(), static_cast<size_t>(kcThreads * kcReports));
  std::set<std::string> seen;
  std::set<std::string> threadIds;
  size_t cChecks = 0;
  for (const SLoggedReport& report : reports) {
    threadIds.insert(report.strThread);
    if (U8(report.strCategory) == "TRASSDO") {
      EXPECT_EQ(U8(report.strText), "thread check\n");
      ++cChecks;
      continue;
    }
    EXPECT_EQ(U8(report.strCategory), "message");
    EXPECT_TRUE(seen.insert(U8(report.strText)).second) << "twice: " << U8(report.strText);
  }
  EXPECT_EQ(cChecks, static_cast<size_t>(kcThreads * kcReports / 2));
  for (int t = 0; t < kcThreads; ++t) {
    for (int i = 1; i < kcReports; i += 2) {
      std::string strExpected = U8(NSSupport::FormatWide(KV_W("thread %d report %d %s\n"), t, i, strPadding.c_str()));
      EXPECT_EQ(seen.count(strExpected), 1u) << strExpected;
    }
  }
  EXPECT_EQ(threadIds.size(), static_cast<size_t>(kcThreads));
}

}  // namespace
