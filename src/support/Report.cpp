#include "support/Report.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "com/ComException.h"
#include "platform/os.h"
#include "support/WideFormat.h"

namespace NSReport {
namespace {

// The engine once obtained. Written without a lock: two threads racing on the first report both
// load the library and obtain the same engine.
std::atomic<NSLog::ILogEngine*> g_pEngine{nullptr};
// Guards the engine's one-time initialisation (slot 3) and the exit handler's registration.
std::once_flag g_onceInitialize;

thread_local CCheck* t_pCurrentCheck = nullptr;

void CloseEngineAtExit() {
  if (NSLog::ILogEngine* pEngine = g_pEngine.load(std::memory_order_acquire)) pEngine->Close();
}

// Keeps the thread's last-error value across a scope.
class CLastErrorKeeper {
 public:
  CLastErrorKeeper() : m_dwError(NSPlatform::GetLastError()) {}
  ~CLastErrorKeeper() { NSPlatform::SetLastError(m_dwError); }
  CLastErrorKeeper(const CLastErrorKeeper&) = delete;
  CLastErrorKeeper& operator=(const CLastErrorKeeper&) = delete;

 private:
  DWORD m_dwError;
};

// The engine, if it wants a report of this category.
NSLog::ILogEngine* EngineFor(const WCHAR* pszCategory) {
  NSLog::ILogEngine* pEngine = GetLogEngine();
  if (!pEngine) return nullptr;
  if (pszCategory && !pEngine->WantsCategorised()) return nullptr;
  return pEngine;
}

// Sends text already known to fit (at most 1024 characters, terminated).
void Send(NSLog::ILogEngine* pEngine, const SLocation& location, const WCHAR* pszCategory, const WCHAR* pszText) {
  std::string strFunction = GetFunctionName(location);
  pEngine->Record(strFunction.c_str(), GetFileName(location.pszFile), location.nLine, pszText,
                  pszCategory ? pszCategory : kszCategoryDirect);
}

// Cuts text at 1024 characters into a zero-filled buffer of 1025 and sends it.
void SendCut(NSLog::ILogEngine* pEngine, const SLocation& location, const WCHAR* pszCategory, WStringView text) {
  WCHAR buffer[kcchMaxText + 1] = {};
  size_t cch = text.size() < kcchMaxText ? text.size() : kcchMaxText;
  if (cch) std::memcpy(buffer, text.data(), cch * sizeof(WCHAR));
  Send(pEngine, location, pszCategory, buffer);
}

bool IsIdentifierChar(WCHAR ch) {
  return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '_';
}

// The value of a recorded item as it appears after the item's name.
WString FormatValue(const CCheck::SItem& item) {
  switch (item.eKind) {
    case CCheck::EKind::Signed: return NSSupport::FormatWide(KV_W("%lld"), static_cast<long long>(item.ll));
    case CCheck::EKind::Unsigned:
      return NSSupport::FormatWide(KV_W("%llu"), static_cast<unsigned long long>(item.ull));
    case CCheck::EKind::Float: return NSSupport::FormatWide(KV_W("%g"), item.d);
    case CCheck::EKind::Bool: return item.ull ? KV_W("true") : KV_W("false");
    case CCheck::EKind::Pointer: return NSSupport::FormatWide(KV_W("%p"), item.pv);
    case CCheck::EKind::Narrow:
      return NSSupport::FormatWide(KV_W("'%hs'"), static_cast<const char*>(item.pv));
    case CCheck::EKind::Wide: return NSSupport::FormatWide(KV_W("'%s'"), static_cast<const WCHAR*>(item.pv));
    case CCheck::EKind::HResult: {
      HRESULT hr = static_cast<HRESULT>(item.ll);
      WString strNumber = NSSupport::FormatWide(KV_W("%d"), static_cast<int>(hr));
      WString strText = NSPlatform::GetSystemErrorText(hr);
      if (strText.empty()) return strNumber;
      return strNumber + KV_W(":'") + strText + KV_W("'");
    }
    case CCheck::EKind::Unknown: break;
  }
  return KV_W("?");
}

// Components of a qualified name that are namespaces by this code base's conventions.
bool IsNamespaceComponent(std::string_view component) {
  if (component.empty() || component == "std") return true;
  if (component.front() == '{' || component.front() == '(') return true;  // anonymous namespaces
  return component.size() > 2 && component[0] == 'N' && component[1] == 'S' && component[2] >= 'A' &&
         component[2] <= 'Z';
}

// Removes every "__attribute__((...))" (calling conventions may appear in signatures).
std::string StripAttributes(std::string str) {
  static const char kAttribute[] = "__attribute__";
  for (size_t nPos; (nPos = str.find(kAttribute)) != std::string::npos;) {
    size_t nEnd = nPos + sizeof(kAttribute) - 1;
    int nDepth = 0;
    for (; nEnd < str.size(); ++nEnd) {
      if (str[nEnd] == '(') ++nDepth;
      else if (str[nEnd] == ')' && --nDepth == 0) {
        ++nEnd;
        break;
      }
    }
    str.erase(nPos, nEnd - nPos);
  }
  return str;
}

}  // namespace

NSLog::ILogEngine* GetLogEngine() noexcept {
  NSLog::ILogEngine* pEngine = g_pEngine.load(std::memory_order_acquire);
  if (pEngine) return pEngine;

  HMODULE hModule = nullptr;
  if (FAILED(NSPlatform::LoadDynamicLibrary(KV_W("xmllog.dll"), &hModule)) || !hModule) return nullptr;
  auto pfnGetEngine =
      reinterpret_cast<PFN_GET_XML_LOG_ENGINE>(NSPlatform::GetLibrarySymbol(hModule, KV_LOG_ENGINE_EXPORT));
  if (!pfnGetEngine) {
    NSPlatform::FreeDynamicLibrary(hModule);
    return nullptr;
  }
  // The library stays loaded for the rest of the process: the engine lives in it.
  pEngine = pfnGetEngine();
  if (!pEngine) return nullptr;
  try {
    std::call_once(g_onceInitialize, [pEngine] {
      pEngine->Initialize(1);
      std::atexit(&CloseEngineAtExit);
    });
  } catch (...) {
    // A failed one-time initialisation (the system could not start it) leaves reporting usable.
  }
  g_pEngine.store(pEngine, std::memory_order_release);
  return pEngine;
}

void Report(const SLocation& location, const WCHAR* pszCategory, const WCHAR* pszText) noexcept {
  CLastErrorKeeper keeper;
  try {
    if (NSLog::ILogEngine* pEngine = EngineFor(pszCategory))
      SendCut(pEngine, location, pszCategory,
              pszText ? WStringView(pszText, NSPlatform::WideLength(pszText)) : WStringView());
  } catch (...) {
  }
}

void LogV(const SLocation& location, const WCHAR* pszLevel, const WCHAR* pszFormat, va_list args) noexcept {
  CLastErrorKeeper keeper;
  try {
    NSLog::ILogEngine* pEngine = EngineFor(pszLevel);
    if (!pEngine) return;
    WCHAR buffer[kcchMaxText + 1] = {};
    va_list copy;
    va_copy(copy, args);
    NSSupport::FormatWideBufferV(buffer, kcchMaxText + 1, pszFormat, copy);
    va_end(copy);
    Send(pEngine, location, pszLevel, buffer);
  } catch (...) {
  }
}

void Log(const SLocation& location, const WCHAR* pszLevel, const WCHAR* pszFormat, ...) noexcept {
  va_list args;
  va_start(args, pszFormat);
  LogV(location, pszLevel, pszFormat, args);
  va_end(args);
}

HRESULT ReportNullPointer(const SLocation& location, const char* pszExpression) noexcept {
  const DWORD dwLastError = NSPlatform::GetLastError();
  CCheck(location, pszExpression).Fail();
  NSPlatform::SetLastError(dwLastError);
  return E_POINTER;
}

void ReportFailedResult(const SLocation& location, HRESULT hr) noexcept {
  CCheck check(location, "SUCCEEDED(_ARE(hr))\n");
  CCheck::SItem item = NSDetail::MakeItem("_ARE(", "hr", hr);
  item.eKind = CCheck::EKind::HResult;
  check.Add(item);
  check.Fail();
}

void ThrowOutOfMemory() { throw NSCom::CComException(E_OUTOFMEMORY); }

const char* GetFileName(const char* pszPath) noexcept {
  if (!pszPath) return "";
  const char* pszName = pszPath;
  for (const char* p = pszPath; *p; ++p) {
    if (*p == '/' || *p == '\\') pszName = p + 1;
  }
  return pszName;
}

std::string FunctionNameFromSignature(const char* pszSignature) {
  if (!pszSignature) return std::string();
  std::string str = StripAttributes(pszSignature);

  // The name ends at the parameter list: the first '(' outside template arguments, except the
  // one of "operator()".
  size_t nEnd = std::string::npos;
  int nAngle = 0;
  for (size_t i = 0; i < str.size(); ++i) {
    char ch = str[i];
    if (ch == '<') ++nAngle;
    else if (ch == '>' && nAngle > 0) --nAngle;
    else if (ch == '(' && nAngle == 0) {
      if (i >= 8 && str.compare(i - 8, 8, "operator") == 0 && i + 1 < str.size() && str[i + 1] == ')') {
        ++i;
        continue;
      }
      nEnd = i;
      break;
    }
  }
  str.resize(nEnd == std::string::npos ? str.size() : nEnd);

  // The qualified name is the last word outside template arguments (the return type precedes it).
  nAngle = 0;
  size_t nBegin = 0;
  for (size_t i = str.size(); i-- > 0;) {
    char ch = str[i];
    if (ch == '>') ++nAngle;
    else if (ch == '<' && nAngle > 0) --nAngle;
    else if ((ch == ' ' || ch == '*' || ch == '&') && nAngle == 0) {
      nBegin = i + 1;
      break;
    }
  }
  std::string strQualified;
  nAngle = 0;
  for (size_t i = nBegin; i < str.size(); ++i) {
    char ch = str[i];
    if (ch == '<') ++nAngle;
    else if (ch == '>' && nAngle > 0) --nAngle;
    else if (nAngle == 0) strQualified += ch;
  }

  // Keep the last two components that are not namespaces.
  std::string strLast, strBeforeLast;
  size_t nPos = 0;
  while (nPos <= strQualified.size()) {
    size_t nNext = strQualified.find("::", nPos);
    std::string_view component(strQualified.data() + nPos,
                               (nNext == std::string::npos ? strQualified.size() : nNext) - nPos);
    if (!IsNamespaceComponent(component)) {
      strBeforeLast = std::move(strLast);
      strLast = std::string(component);
    }
    if (nNext == std::string::npos) break;
    nPos = nNext + 2;
  }
  return strBeforeLast.empty() ? strLast : strBeforeLast + "::" + strLast;
}

std::string GetFunctionName(const SLocation& location) {
  if (location.pszFunction) return location.pszFunction;
  return FunctionNameFromSignature(location.pszSignature);
}

// ---- CCheck -------------------------------------------------------------------------------------

CCheck::CCheck(const SLocation& location, const char* pszExpression, const WCHAR* pszCategory) noexcept
    : m_location(location), m_pszExpression(pszExpression), m_pszCategory(pszCategory), m_pOuter(t_pCurrentCheck) {
  t_pCurrentCheck = this;
}

CCheck::~CCheck() { t_pCurrentCheck = m_pOuter; }

CCheck* CCheck::Current() noexcept { return t_pCurrentCheck; }

void CCheck::Add(const SItem& item) noexcept {
  if (m_cItems < kcMaxItems) m_items[m_cItems++] = item;
}

WString CCheck::RewriteText() const {
  WString strText = NSPlatform::Utf8ToWide(m_pszExpression ? m_pszExpression : "");
  // The value recorders are KV_AR, KV_TR and KV_ARE in code and "_AR(", "_TR(" and "_ARE(" in texts.
  for (const WCHAR* pszMarker : {KV_W("KV_AR("), KV_W("KV_TR("), KV_W("KV_ARE(")}) {
    const WString strMarker = pszMarker;
    for (size_t nPos = 0; (nPos = strText.find(strMarker, nPos)) != WString::npos;) {
      if (nPos > 0 && IsIdentifierChar(strText[nPos - 1])) {
        nPos += strMarker.size();
        continue;
      }
      strText.erase(nPos, 2);
    }
  }
  for (unsigned i = 0; i < m_cItems; ++i) {
    const SItem& item = m_items[i];
    WString strName = NSPlatform::Utf8ToWide(item.pszName);
    WString strPattern = NSPlatform::Utf8ToWide(item.pszPrefix) + strName;
    WString strValue;
    bool bFormatted = false;
    for (size_t nPos = 0; (nPos = strText.find(strPattern, nPos)) != WString::npos;) {
      size_t nAfter = nPos + strPattern.size();
      // "_AR(a" must not take the place of "_AR(ab".
      if (nAfter < strText.size() && IsIdentifierChar(strText[nAfter]) && !strName.empty() &&
          IsIdentifierChar(strName.back())) {
        nPos = nAfter;
        continue;
      }
      if (!bFormatted) {
        strValue = strName + FormatValue(item);
        bFormatted = true;
      }
      strText.replace(nPos, strPattern.size(), strValue);
      nPos += strValue.size();
    }
  }
  return strText;
}

void CCheck::Fail() noexcept {
  CLastErrorKeeper keeper;
  try {
    if (NSLog::ILogEngine* pEngine = EngineFor(m_pszCategory)) {
      WString strText = RewriteText();
      SendCut(pEngine, m_location, m_pszCategory, strText);
    }
  } catch (...) {
  }
}

}  // namespace NSReport
