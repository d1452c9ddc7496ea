// The XML log engine: xmllog.dll on Windows, libxmllog.so on Linux.
//
// Each report becomes one element, written in UTF-8 to the file named by the environment variable
// KRONVALE_XMLLOG and handed to the system at once (one write per element, so concurrent writers
// never interleave inside an element):
//
//   <report time="2026-11-22T12:00:00.123Z" thread="1234" function="CArchiveImpl::SetQuota"
//           file="ArchiveImpl.cpp" line="12" category="TRASSDO">text</report>
//
// followed by a line break. The file is a sequence of such elements (no enclosing root), appended
// to when it exists. Text and attribute values are escaped (&amp; &lt; &gt; &quot;; line breaks and
// tabs inside attributes and carriage returns anywhere as character references); control
// characters XML cannot carry become U+FFFD.
//
// The variable is read on every report: pointing it elsewhere starts a new file with the next
// report, removing it stops writing (reports are then accepted and dropped).
// KRONVALE_XMLLOG_DIRECT_ONLY=1 makes the engine decline categorised reports (slot 0 answers false),
// so that only "DIRECT" reports are written.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/os.h"
#include "support/LogEngine.h"

#ifdef _WIN32
#define KV_XMLLOG_EXPORT extern "C" __declspec(dllexport)
#else
#define KV_XMLLOG_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace {

// The value of an environment variable; empty when it is not set. On Windows the process
// environment is read in UTF-16, so that paths outside the ANSI code page work.
WString ReadEnvironment(const char* pszName) {
#ifdef _WIN32
  WString strName(pszName, pszName + std::char_traits<char>::length(pszName));
  DWORD cch = GetEnvironmentVariableW(strName.c_str(), nullptr, 0);
  if (cch == 0) return WString();
  WString strValue(cch, 0);
  cch = GetEnvironmentVariableW(strName.c_str(), strValue.data(), cch);
  strValue.resize(cch < strValue.size() ? cch : strValue.size());
  return strValue;
#else
  const char* pszValue = std::getenv(pszName);
  return pszValue ? NSPlatform::Utf8ToWide(pszValue) : WString();
#endif
}

void AppendEscaped(std::string* pstrOut, const std::string& strUtf8, bool bAttribute) {
  for (char ch : strUtf8) {
    switch (ch) {
      case '&': *pstrOut += "&amp;"; break;
      case '<': *pstrOut += "&lt;"; break;
      case '>': *pstrOut += "&gt;"; break;
      case '"': *pstrOut += bAttribute ? "&quot;" : "\""; break;
      case '\r': *pstrOut += "&#13;"; break;
      case '\n': *pstrOut += bAttribute ? "&#10;" : "\n"; break;
      case '\t': *pstrOut += bAttribute ? "&#9;" : "\t"; break;
      default:
        if (static_cast<unsigned char>(ch) < 0x20) *pstrOut += "\xEF\xBF\xBD";
        else *pstrOut += ch;
    }
  }
}

void AppendAttribute(std::string* pstrOut, const char* pszName, const std::string& strUtf8) {
  *pstrOut += ' ';
  *pstrOut += pszName;
  *pstrOut += "=\"";
  AppendEscaped(pstrOut, strUtf8, true);
  *pstrOut += '"';
}

std::string WideToUtf8(const WCHAR* psz) {
  return psz ? NSPlatform::WideToUtf8(WStringView(psz, NSPlatform::WideLength(psz))) : std::string();
}

std::string FormatTime() {
  SYSTEMTIME st;
  NSPlatform::GetUtcSystemTime(&st);
  char sz[64];
  std::snprintf(sz, sizeof(sz), "%04u-%02u-%02uT%02u:%02u:%02u.%03uZ", st.wYear, st.wMonth, st.wDay, st.wHour,
                st.wMinute, st.wSecond, st.wMilliseconds);
  return sz;
}

class CLockGuard {
 public:
  explicit CLockGuard(NSPlatform::COsCriticalSection& lock) : m_lock(lock) { m_lock.Enter(); }
  ~CLockGuard() { m_lock.Leave(); }
  CLockGuard(const CLockGuard&) = delete;
  CLockGuard& operator=(const CLockGuard&) = delete;

 private:
  NSPlatform::COsCriticalSection& m_lock;
};

class CXmlLogEngine final : public NSLog::ILogEngine {
 public:
  bool WantsCategorised() override {
    WString strValue = ReadEnvironment("KRONVALE_XMLLOG_DIRECT_ONLY");
    return !(strValue.size() == 1 && strValue[0] == '1');
  }

  void Record(const char* pszFunction, const char* pszFile, int32_t nLine, const WCHAR* pszMessage,
              const WCHAR* pszCategory) override {
    try {
      WString strPath = ReadEnvironment("KRONVALE_XMLLOG");
      std::string strElement = MakeElement(pszFunction, pszFile, nLine, pszMessage, pszCategory);
      CLockGuard guard(m_lock);
      WriteLocked(strPath, strElement);
    } catch (...) {
      // Out of memory while building the element: the report is dropped.
    }
  }

  void Close() override {
    CLockGuard guard(m_lock);
    m_file.Close();
    m_strPath.clear();
  }

  void Initialize(uint32_t) override {}

 private:
  static std::string MakeElement(const char* pszFunction, const char* pszFile, int32_t nLine,
                                 const WCHAR* pszMessage, const WCHAR* pszCategory) {
    std::string strElement = "<report";
    AppendAttribute(&strElement, "time", FormatTime());
    AppendAttribute(&strElement, "thread", std::to_string(NSPlatform::GetCurrentThreadId()));
    AppendAttribute(&strElement, "function", pszFunction ? pszFunction : "");
    AppendAttribute(&strElement, "file", pszFile ? pszFile : "");
    AppendAttribute(&strElement, "line", std::to_string(nLine));
    AppendAttribute(&strElement, "category", WideToUtf8(pszCategory));
    strElement += '>';
    AppendEscaped(&strElement, WideToUtf8(pszMessage), false);
    strElement += "</report>\n";
    return strElement;
  }

  // Under m_lock: (re)opens the file the variable names now and appends the element to it.
  void WriteLocked(const WString& strPath, const std::string& strElement) {
    if (strPath != m_strPath) {
      m_file.Close();
      m_strPath.clear();
      if (strPath.empty()) return;
      if (FAILED(m_file.Open(strPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                             OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL)))
        return;  // tried again with the next report
      m_strPath = strPath;
    }
    if (!m_file.IsOpen()) return;
    // Another writer (or a reader that emptied the file) may have moved the end.
    if (FAILED(m_file.Seek(0, FILE_END, nullptr))) return;
    DWORD cbWritten = 0;
    m_file.Write(strElement.data(), static_cast<DWORD>(strElement.size()), &cbWritten);
  }

  NSPlatform::COsCriticalSection m_lock;
  NSPlatform::CFile m_file;  // guarded by m_lock
  WString m_strPath;         // guarded by m_lock: the path m_file is open on, empty when closed
};

}  // namespace

// The engine lives until the process ends and is never destroyed: the engine library may call it
// from its exit handler after this library's own static objects are gone.
KV_XMLLOG_EXPORT NSLog::ILogEngine* GetXmlLogEngine() {
  static CXmlLogEngine* s_pEngine = new CXmlLogEngine();
  return s_pEngine;
}
