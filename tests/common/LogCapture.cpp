#include "common/LogCapture.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

#include "platform/os.h"
#include "support/Report.h"

namespace NSTest {
namespace {

std::string Unescape(std::string_view str) {
  std::string strOut;
  for (size_t i = 0; i < str.size(); ++i) {
    if (str[i] != '&') {
      strOut += str[i];
      continue;
    }
    size_t nEnd = str.find(';', i);
    if (nEnd == std::string_view::npos) throw std::runtime_error("unterminated entity");
    std::string_view entity = str.substr(i + 1, nEnd - i - 1);
    if (entity == "amp") strOut += '&';
    else if (entity == "lt") strOut += '<';
    else if (entity == "gt") strOut += '>';
    else if (entity == "quot") strOut += '"';
    else if (entity == "apos") strOut += '\'';
    else if (!entity.empty() && entity[0] == '#') {
      bool bHex = entity.size() > 1 && entity[1] == 'x';
      unsigned long ul = std::strtoul(std::string(entity.substr(bHex ? 2 : 1)).c_str(), nullptr, bHex ? 16 : 10);
      if (ul >= 0x80) throw std::runtime_error("unexpected non-ASCII character reference");
      strOut += static_cast<char>(ul);
    } else {
      throw std::runtime_error("unknown entity");
    }
    i = nEnd;
  }
  return strOut;
}

}  // namespace

std::vector<SLoggedReport> ParseLogText(const std::string& strUtf8) {
  std::vector<SLoggedReport> reports;
  static const std::string kOpen = "<report";
  static const std::string kClose = "</report>\n";
  size_t nPos = 0;
  while (nPos < strUtf8.size()) {
    if (strUtf8.compare(nPos, kOpen.size(), kOpen) != 0) throw std::runtime_error("expected <report");
    nPos += kOpen.size();
    SLoggedReport report;
    // Attributes: name="value" separated by single spaces, up to '>'.
    while (nPos < strUtf8.size() && strUtf8[nPos] == ' ') {
      size_t nEq = strUtf8.find("=\"", nPos);
      size_t nQuote = nEq == std::string::npos ? nEq : strUtf8.find('"', nEq + 2);
      if (nQuote == std::string::npos) throw std::runtime_error("bad attribute");
      std::string strName = strUtf8.substr(nPos + 1, nEq - nPos - 1);
      std::string strValue = Unescape(std::string_view(strUtf8).substr(nEq + 2, nQuote - nEq - 2));
      if (strName == "time") report.strTime = strValue;
      else if (strName == "thread") report.strThread = strValue;
      else if (strName == "function") report.strFunction = strValue;
      else if (strName == "file") report.strFile = strValue;
      else if (strName == "line") report.nLine = std::atoi(strValue.c_str());
      else if (strName == "category") report.strCategory = NSPlatform::Utf8ToWide(strValue);
      else throw std::runtime_error("unknown attribute " + strName);
      nPos = nQuote + 1;
    }
    if (nPos >= strUtf8.size() || strUtf8[nPos] != '>') throw std::runtime_error("expected >");
    ++nPos;
    size_t nEnd = strUtf8.find(kClose, nPos);
    if (nEnd == std::string::npos) throw std::runtime_error("unterminated report");
    std::string_view text = std::string_view(strUtf8).substr(nPos, nEnd - nPos);
    if (text.find('<') != std::string_view::npos) throw std::runtime_error("unescaped < in text");
    report.strText = NSPlatform::Utf8ToWide(Unescape(text));
    reports.push_back(std::move(report));
    nPos = nEnd + kClose.size();
  }
  return reports;
}

void CLogCapture::SetEnvironment(const char* pszName, const WString& strValue) {
#ifdef _WIN32
  std::wstring strName(pszName, pszName + std::char_traits<char>::length(pszName));
  // The C runtime's copy and the process environment (which the engine reads) both.
  _wputenv_s(strName.c_str(), strValue.c_str());
  SetEnvironmentVariableW(strName.c_str(), strValue.empty() ? nullptr : strValue.c_str());
#else
  if (strValue.empty()) unsetenv(pszName);
  else setenv(pszName, NSPlatform::WideToUtf8(strValue).c_str(), 1);
#endif
}

void CLogCapture::SetDirectOnly(bool bDirectOnly) {
  SetEnvironment("KRONVALE_XMLLOG_DIRECT_ONLY", bDirectOnly ? WString(KV_W("1")) : WString());
}

CLogCapture::CLogCapture() {
  WString strDirectory;
  if (FAILED(NSPlatform::GetTempDirectory(&strDirectory)) ||
      FAILED(NSPlatform::CreateTempFile(strDirectory.c_str(), KV_W("kvl"), &m_strPath)))
    throw std::runtime_error("cannot create a log capture file");
  SetEnvironment("KRONVALE_XMLLOG", m_strPath);
}

CLogCapture::~CLogCapture() {
  SetEnvironment("KRONVALE_XMLLOG", WString());
  if (NSLog::ILogEngine* pEngine = NSReport::GetLogEngine()) pEngine->Close();
  NSPlatform::RemoveFile(m_strPath.c_str());
}

std::string CLogCapture::RawText() const {
  NSPlatform::CFile file;
  if (FAILED(file.Open(m_strPath.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL)))
    throw std::runtime_error("cannot open the log capture file");
  ULONGLONG ullSize = 0;
  if (FAILED(file.GetSize(&ullSize))) throw std::runtime_error("cannot size the log capture file");
  std::string strText(static_cast<size_t>(ullSize), '\0');
  DWORD cbRead = 0;
  if (ullSize && FAILED(file.Read(strText.data(), static_cast<DWORD>(ullSize), &cbRead)))
    throw std::runtime_error("cannot read the log capture file");
  strText.resize(cbRead);
  return strText;
}

std::vector<SLoggedReport> CLogCapture::Reports() const { return ParseLogText(RawText()); }

std::vector<SLoggedReport> CLogCapture::Reports(const WString& strCategory) const {
  std::vector<SLoggedReport> reports;
  for (SLoggedReport& report : Reports()) {
    if (report.strCategory == strCategory) reports.push_back(std::move(report));
  }
  return reports;
}

bool ExpectReports(const std::vector<SLoggedReport>& reports, const std::vector<SExpectedReport>& vExpected) {
  EXPECT_EQ(reports.size(), vExpected.size());
  if (reports.size() != vExpected.size()) return false;
  for (size_t i = 0; i < reports.size(); ++i) {
    SCOPED_TRACE("report " + std::to_string(i));
    const SExpectedReport& expected = vExpected[i];
    if (expected.strCategory) {
      EXPECT_EQ(NSPlatform::WideToUtf8(reports[i].strCategory), *expected.strCategory);
    }
    if (expected.strText) {
      EXPECT_EQ(NSPlatform::WideToUtf8(reports[i].strText), *expected.strText);
    }
    if (expected.strFunction) {
      EXPECT_EQ(reports[i].strFunction, *expected.strFunction);
    }
  }
  return true;
}

}  // namespace NSTest
