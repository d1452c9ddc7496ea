// Checks and their report texts, read back from the XML log engine that sits beside the program.
#include <gtest/gtest.h>

#include <string>
#include <vector>
#include <kronvale/KronvaleResults.h>

#include "common/LogCapture.h"
#include "com/ComException.h"
#include "platform/os.h"
#include "support/Report.h"

using namespace NSKronvale;
using NSTest::CLogCapture;
using NSTest::ExpectReports;
using NSTest::SLoggedReport;

namespace {

std::string U8(const WString& str) { return NSPlatform::WideToUtf8(str); }

// The value of an HRESULT as rewritten texts carry it.
std::string ResultValue(HRESULT hr) {
  std::string strValue = std::to_string(static_cast<int>(hr));
  WString strText = NSPlatform::GetSystemErrorText(hr);
  return strText.empty() ? strValue : strValue + ":'" + U8(strText) + "'";
}

const DWORD kdwDistinctError = 0x2D2D1u;

struct SFrameInfo {
  ULONGLONG ullOffset;
  DWORD dwSize;
  DWORD dwReserved;
};

}  // namespace

namespace NSTest {

// Stands in for an engine object: its methods check the way engine methods do.
class CArchiveLike {
 public:
  HRESULT GetCount(DWORD* pdwCount) {
    KV_CHECK_POINTER(pdwCount);
    *pdwCount = 3;
    return S_OK;
  }
  HRESULT GetStatistics(DWORD* pdwCount, void** ppRecordStatistic) {
    KV_CHECK_POINTERS(pdwCount && ppRecordStatistic);
    return S_OK;
  }
  HRESULT SetQuota(HRESULT hrSave) {
    HRESULT hr = hrSave;
    if (!KV_VERIFY(SUCCEEDED(KV_ARE(hr)))) return hr;
    return S_OK;
  }
  HRESULT Save(HRESULT hrStep) {
    KV_FUNC("CMultipartArchive::Save");
    KV_RETURN_IF_FAILED(Step(hrStep));
    return S_FALSE;
  }
  HRESULT Step(HRESULT hr) {
    ++m_cSteps;
    return hr;
  }
  HRESULT InLambda() {
    auto fnCheck = [](DWORD* p) -> HRESULT {
      KV_CHECK_POINTER(p);
      return S_OK;
    };
    return fnCheck(nullptr);
  }
  int m_cSteps = 0;
};

template <class T>
struct CHolder {
  bool Check(T value) { return KV_ASSERT(value == T()); }
};

bool ConformantLike() { return KV_ATLVERIFY(NSPlatform::GetTickCount64() == 0); }

}  // namespace NSTest

namespace {

using NSTest::CArchiveLike;

TEST(ReportChecks, NullPointerReportsItsNameAndKeepsTheLastError) {
  CLogCapture capture;
  CArchiveLike archive;
  DWORD dwCount = 0;

  NSPlatform::SetLastError(kdwDistinctError);
  EXPECT_EQ(archive.GetCount(nullptr), E_POINTER);
  EXPECT_EQ(NSPlatform::GetLastError(), kdwDistinctError);
  EXPECT_EQ(archive.GetStatistics(&dwCount, nullptr), E_POINTER);
  EXPECT_EQ(NSPlatform::GetLastError(), kdwDistinctError);
  EXPECT_EQ(archive.InLambda(), E_POINTER);
  // Pointers present: no report, result unchanged.
  EXPECT_EQ(archive.GetCount(&dwCount), S_OK);
  EXPECT_EQ(dwCount, 3u);
  void* pStatistic = nullptr;
  EXPECT_EQ(archive.GetStatistics(&dwCount, &pStatistic), S_OK);

  const std::vector<SLoggedReport> reports = capture.Reports();
  ASSERT_TRUE(ExpectReports(reports, {{"TRASSDO", "pdwCount\n", "CArchiveLike::GetCount"},
                                      {"TRASSDO", "pdwCount && ppRecordStatistic\n", "CArchiveLike::GetStatistics"},
                                      {"TRASSDO", "p\n", "CArchiveLike::InLambda"}}));
  EXPECT_EQ(reports[0].strFile, "ReportCheckTest.cpp");
  EXPECT_GT(reports[0].nLine, 0);
}

TEST(ReportChecks, FailedResultCarriesNumberAndSystemText) {
  CLogCapture capture;
  CArchiveLike archive;
  EXPECT_FALSE(NSPlatform::GetSystemErrorText(khrFileNotFound).empty());

  NSPlatform::SetLastError(kdwDistinctError);
  EXPECT_EQ(archive.SetQuota(khrFileNotFound), khrFileNotFound);
  EXPECT_EQ(NSPlatform::GetLastError(), kdwDistinctError);
  EXPECT_EQ(archive.SetQuota(S_FALSE), S_OK);
  // A code the system has no text for: only the number.
  const HRESULT hrUnknown = static_cast<HRESULT>(0xA7E50123u);
  EXPECT_EQ(archive.SetQuota(hrUnknown), hrUnknown);
  // The result macro evaluates its expression once and returns the failure.
  EXPECT_EQ(archive.Save(E_ACCESSDENIED), E_ACCESSDENIED);
  EXPECT_EQ(archive.m_cSteps, 1);
  EXPECT_EQ(archive.Save(S_OK), S_FALSE);
  EXPECT_EQ(archive.m_cSteps, 2);
  HRESULT hrOpen = E_FAIL;
  EXPECT_FALSE(KV_SUCCEEDED(hrOpen));
  hrOpen = S_OK;
  EXPECT_TRUE(KV_SUCCEEDED(hrOpen));

  ExpectReports(
      capture.Reports(),
      {{"TRASSDO", "SUCCEEDED(hr-2147024894:'" + U8(NSPlatform::GetSystemErrorText(khrFileNotFound)) + "'))\n",
        "CArchiveLike::SetQuota"},
       {"TRASSDO", "SUCCEEDED(hr" + ResultValue(hrUnknown) + "))\n", {}},
       {"TRASSDO", "SUCCEEDED(hr" + ResultValue(E_ACCESSDENIED) + "))\n", "CMultipartArchive::Save"},
       {"TRASSDO", "SUCCEEDED(hrOpen" + ResultValue(E_FAIL) + "))\n", {}}});
}

int Add(int a, int b) { return a + b; }

TEST(ReportChecks, InvariantTextsWithRecordedValues) {
  CLogCapture capture;
  DWORD dwFileSize = 17;
  EXPECT_FALSE(KV_ASSERT(!(dwFileSize % sizeof(SFrameInfo))));
  DWORD dwCount = 5, m_dwCount = 4;
  EXPECT_FALSE(KV_ASSERT_TEXT(dwCount <= m_dwCount, "dwCount<=m_dwCount\n"));
  ULONGLONG cbFile = 1548600;
  EXPECT_FALSE(KV_ASSERT(KV_AR(cbFile)==1548608));
  // Calls with commas, several values, strings, bools and pointers.
  const WCHAR* pszName = KV_W("rec");
  bool bOpen = false;
  EXPECT_FALSE(KV_ASSERT(KV_AR(Add(2, 3))==6 && KV_TR(pszName) && KV_AR(bOpen)));
  EXPECT_FALSE(KV_ASSERT(KV_AR(Add(2, 3))==5 && KV_TR(pszName) && KV_AR(bOpen)));
  std::string strTag = "t<1>";
  LONG lDelta = -7;
  void* pv = nullptr;
  EXPECT_FALSE(KV_ASSERT(KV_TR(strTag).empty() || KV_AR(lDelta) > 0 || KV_AR(pv)));
  // A value that was never evaluated leaves its wrapper in the text.
  SFrameInfo* pInfo = nullptr;
  EXPECT_FALSE(KV_ASSERT(pInfo && KV_AR(pInfo->dwSize)));
  // "_AR(a" is not taken for "_AR(ab".
  int a = 1, ab = 2;
  EXPECT_FALSE(KV_ASSERT(KV_AR(ab) + KV_AR(a) == 0));
  // Passing checks report nothing; wrappers yield their value outside checks too.
  EXPECT_TRUE(KV_ASSERT(KV_AR(cbFile) == 1548600));
  EXPECT_EQ(KV_AR(Add(1, 1)), 2);
  EXPECT_FALSE(NSTest::CHolder<int>().Check(4));

  ExpectReports(capture.Reports(),
                {{"TRASSDO", "!(dwFileSize % sizeof(SFrameInfo))\n", {}},
                 {"TRASSDO", "dwCount<=m_dwCount\n", {}},
                 {"TRASSDO", "cbFile1548600)==1548608\n", {}},
                 {"TRASSDO", "Add(2, 3)5)==6 && _TR(pszName) && _AR(bOpen)\n", {}},
                 {"TRASSDO", "Add(2, 3)5)==5 && pszName'rec') && bOpenfalse)\n", {}},
                 {"TRASSDO", "strTag't<1>').empty() || lDelta-7) > 0 || pv0000000000000000)\n", {}},
                 {"TRASSDO", "pInfo && _AR(pInfo->dwSize)\n", {}},
                 {"TRASSDO", "ab2) + a1) == 0\n", {}},
                 {"TRASSDO", "value == T()\n", "CHolder::Check"}});
}

bool InnerCheck(int n) { return KV_ASSERT(KV_AR(n) < 0); }

TEST(ReportChecks, NestedChecksKeepTheirOwnValues) {
  CLogCapture capture;
  int nOuter = 8;
  EXPECT_FALSE(KV_ASSERT(InnerCheck(KV_AR(nOuter)) && KV_AR(nOuter) < 0));
  // Every occurrence of a recorded name takes its value.
  ExpectReports(capture.Reports(), {{"TRASSDO", "n8) < 0\n", "InnerCheck"},
                                    {"TRASSDO", "InnerCheck(nOuter8)) && nOuter8) < 0\n", {}}});
}

TEST(ReportChecks, AtlVerifyCategoryAndFunctionNames) {
  CLogCapture capture;
  {
    KV_FUNC("ConformantFileTime");
    SYSTEMTIME sysTime = {};
    FILETIME ftMaxFileTime;
    EXPECT_FALSE(KV_ATLVERIFY(NSPlatform::SysTimeToFileTime(&sysTime, &ftMaxFileTime)));
  }
  EXPECT_FALSE(NSTest::ConformantLike());
  ExpectReports(capture.Reports(),
                {{"ATLVERIFY", "NSPlatform::SysTimeToFileTime(&sysTime, &ftMaxFileTime)", "ConformantFileTime"},
                 {{}, {}, "ConformantLike"}});

  using NSReport::FunctionNameFromSignature;
  EXPECT_EQ(FunctionNameFromSignature("virtual HRESULT NSArchive::CArchiveImpl::SetQuota(UINT64, UINT64)"),
            "CArchiveImpl::SetQuota");
  EXPECT_EQ(FunctionNameFromSignature("std::vector<int, std::allocator<int> > CFoo<T>::Bar(int) [with T = int]"),
            "CFoo::Bar");
  EXPECT_EQ(FunctionNameFromSignature("long int __attribute__((stdcall)) CRecord::Write(FILETIME)"),
            "CRecord::Write");
  EXPECT_EQ(FunctionNameFromSignature("HRESULT CRecord::Extract(int)::<lambda(int)>"), "CRecord::Extract");
  EXPECT_EQ(FunctionNameFromSignature("bool CFilter::operator()(int) const"), "CFilter::operator()");
  EXPECT_EQ(FunctionNameFromSignature("void {anonymous}::Merge()"), "Merge");
  EXPECT_EQ(FunctionNameFromSignature("const char* NSKronvaleUtils::Name(const WCHAR*)"), "Name");
  EXPECT_EQ(FunctionNameFromSignature("int main()"), "main");
  EXPECT_EQ(NSReport::GetFileName("C:\\src\\records\\Record.cpp"), std::string("Record.cpp"));
  EXPECT_EQ(NSReport::GetFileName("/src/hours/HourManager.cpp"), std::string("HourManager.cpp"));
}

TEST(ReportChecks, AllocationFailureThrowsOutOfMemory) {
  int n = 0;
  EXPECT_EQ(NSReport::CheckAllocation(&n), &n);
  try {
    NSReport::CheckAllocation(static_cast<WCHAR*>(nullptr));
    ADD_FAILURE() << "no exception";
  } catch (const NSCom::CComException& e) {
    EXPECT_EQ(e.GetHResult(), E_OUTOFMEMORY);
  }
}

}  // namespace
