// Captures what the XML log engine writes, so that tests can assert exact report texts.
//
// A capture points KRONVALE_XMLLOG at a new empty file of its own for its lifetime; the engine
// (loaded once per process) notices the new name with the next report. Reports() reads the file
// back. The destructor removes the variable, has the engine close the file and deletes it.
// Captures are meant one at a time per process (the variable is process-wide).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/wintypes.h"

namespace NSTest {

struct SLoggedReport {
  std::string strTime;
  std::string strThread;
  std::string strFunction;
  std::string strFile;
  int32_t nLine = 0;
  WString strCategory;
  WString strText;
};

class CLogCapture {
 public:
  CLogCapture();
  ~CLogCapture();
  CLogCapture(const CLogCapture&) = delete;
  CLogCapture& operator=(const CLogCapture&) = delete;

  // Every report written so far, in file order.
  std::vector<SLoggedReport> Reports() const;
  // Only those of one category.
  std::vector<SLoggedReport> Reports(const WString& strCategory) const;
  // The raw bytes of the file (UTF-8).
  std::string RawText() const;
  const WString& GetPath() const { return m_strPath; }

  // Sets or clears KRONVALE_XMLLOG_DIRECT_ONLY=1 (the engine then declines categorised reports).
  static void SetDirectOnly(bool bDirectOnly);
  // Sets (or with an empty value removes) an environment variable for this process.
  static void SetEnvironment(const char* pszName, const WString& strValue);

 private:
  WString m_strPath;
};

// Parses a sequence of <report> elements as the engine writes them. Throws std::runtime_error on
// text that is not in that form, so that a malformed log fails the test that reads it.
std::vector<SLoggedReport> ParseLogText(const std::string& strUtf8);

// What a test expects of one report, in UTF-8; a field left empty ({}) is not checked.
struct SExpectedReport {
  std::optional<std::string> strCategory;
  std::optional<std::string> strText;
  std::optional<std::string> strFunction;
};

// Checks that reports are exactly the expected ones, in order, field by field. Answers whether
// their numbers agree, so that a caller may go on to look at single reports.
bool ExpectReports(const std::vector<SLoggedReport>& reports, const std::vector<SExpectedReport>& vExpected);

}  // namespace NSTest
