// Reports: log messages and failed checks, sent to the log engine library when it is there.
//
// Every message and every failed check goes through NSReport::Report, which hands the report to the
// log engine (support/LogEngine.h) loaded at run time from "xmllog.dll" (libxmllog.so on Linux).
// A missing library turns reporting off; the next report looks for it again, so a library that
// appears later is picked up. Reports never change a method's result, never throw, and leave the
// thread's last-error value (NSPlatform::GetLastError) as they found it.
//
// Usage in a method:
//
//   HRESULT CArchiveImpl::CreateRecord(BSTR bstrName, IRecord** ppRecord) {
//     KV_FUNC("CArchiveImpl::CreateRecord");       // optional, see "Function names" below
//     KV_CHECK_POINTER(ppRecord);                  // null: reports "ppRecord\n", returns E_POINTER
//     KV_CHECK_POINTERS(pdwCount && ppStatistic);  // one report text for a compound check
//     KV_LOG_MESSAGE(KV_W("Creating record '%s' in archive '%s'.\n"), bstrName, m_strPath.c_str());
//     HRESULT hr = Open(...);
//     if (!KV_SUCCEEDED(hr)) return hr;            // reports "SUCCEEDED(_ARE(hr))\n" with the value
//     KV_REPORT_IF_FAILED(hrSave);                 // reports a failure and goes on
//     KV_RETURN_IF_FAILED(Save());                 // evaluates once, reports and returns a failure
//     KV_ASSERT(!(dwFileSize % sizeof(SFrameInfo)));
//     KV_LOG(KV_W("Repairing"), KV_W("Repairing hour %s of %s\n"), pszHour, pszRecord);
//   }
//
// Check texts. A check reports the text of its expression as written in the source, followed by a
// newline, with the category "TRASSDO". The text is the preprocessor's spelling of the argument,
// so spacing matters: KV_ASSERT(dwCount<=m_dwCount) reports "dwCount<=m_dwCount\n". Where the
// reported text must not depend on how the source is formatted, give it: KV_ASSERT_TEXT(expr, "...").
//
// Recorded values. Inside a check, KV_AR(x), KV_TR(x) and KV_ARE(x) record the value of x and yield
// it unchanged (same value and value category; do not bind a reference to the result of a temporary).
// A check's text spells them "_AR(", "_TR(" and "_ARE(", as the system's texts always have (the
// "KV" of the names is taken out of the text first). When the check fails, "_AR(" followed by the
// text of x becomes the text of x followed by its value, likewise "_TR("; for "_ARE(" the value is
// an HRESULT written as a signed decimal number, ":'", the system's message text for it and "'"
// (just the number when the system has no text):
//   "SUCCEEDED(_ARE(hr))\n" -> "SUCCEEDED(hr-2147024894:'The system cannot find the file specified.'))\n"
//   "_AR(cbFile)==sizeof(SHashFile)\n" -> "cbFile1024)==sizeof(SHashFile)\n"
// Integers are written in decimal, bool as true/false, floating values as %g, pointers as 16
// upper-case hexadecimal digits, narrow and wide strings between single quotes; values of other
// types as "?". Outside a check the wrappers only yield the value. The whole text is cut at 1024
// characters.
//
// Function names. A report carries the reporting function's name as "Class::Method". By default it
// is taken from the compiler's signature of the enclosing function (__PRETTY_FUNCTION__): the
// parameter list, return type and template arguments are dropped, and the last two components of
// the qualified name are kept, after leaving out namespaces spelled NSXxx, "std" and anonymous
// namespaces (so "HRESULT NSArchive::CArchiveImpl::SetQuota(UINT64, UINT64)" gives
// "CArchiveImpl::SetQuota", and a free function NSKronvaleUtils::ConformantFileTime gives
// "ConformantFileTime"). Lambdas report as the function that contains them. Where the name must be
// something else, or the derivation does not suit, write KV_FUNC("Name") at the start of the
// function body; it covers every report of that scope, lambdas inside it included.
//
// File names. The report's file is the name of the source file without its directories.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/wintypes.h"
#include "support/LogEngine.h"

namespace NSReport {

// Level words. Any other word may be used as a level (e.g. "Repairing").
inline constexpr WCHAR kszLevelMessage[] = KV_W("message");
inline constexpr WCHAR kszLevelWarning[] = KV_W("warning");
inline constexpr WCHAR kszLevelError[] = KV_W("error");
// The category of failed checks.
inline constexpr WCHAR kszCategoryCheck[] = KV_W("TRASSDO");
// The category of KV_ATLVERIFY.
inline constexpr WCHAR kszCategoryAtlVerify[] = KV_W("ATLVERIFY");
// What the engine receives for a report without a category.
inline constexpr WCHAR kszCategoryDirect[] = KV_W("DIRECT");
// The most characters a report's text has; longer text is cut.
constexpr size_t kcchMaxText = 1024;

// A name given with KV_FUNC.
struct SFunctionName {
  const char* psz;
};

// Where a report comes from. Built by KV_HERE.
struct SLocation {
  const char* pszFunction;   // the name given with KV_FUNC, or null
  const char* pszSignature;  // the compiler's signature of the enclosing function
  const char* pszFile;       // __FILE__
  int32_t nLine;
};

// The log engine, loaded on first use; null while the library or its export is missing (every
// call then tries again). Thread-safe.
NSLog::ILogEngine* GetLogEngine() noexcept;

// Sends one report: text cut at 1024 characters, a null category sent as "DIRECT". With no engine,
// or when the engine declines categorised reports and pszCategory is not null, nothing happens.
void Report(const SLocation& location, const WCHAR* pszCategory, const WCHAR* pszText) noexcept;

// Formats (support/WideFormat.h) into a 1025-character buffer and reports at the level pszLevel.
void Log(const SLocation& location, const WCHAR* pszLevel, const WCHAR* pszFormat, ...) noexcept;
void LogV(const SLocation& location, const WCHAR* pszLevel, const WCHAR* pszFormat, va_list args) noexcept;

// A failed argument check: reports pszExpression (narrow, with its newline) as "TRASSDO" keeping
// the last-error value, and answers E_POINTER.
HRESULT ReportNullPointer(const SLocation& location, const char* pszExpression) noexcept;

// A failed result: reports "SUCCEEDED(_ARE(hr))\n" with hr's value recorded.
void ReportFailedResult(const SLocation& location, HRESULT hr) noexcept;

// The pieces of a location as they are reported.
std::string GetFunctionName(const SLocation& location);
std::string FunctionNameFromSignature(const char* pszSignature);
const char* GetFileName(const char* pszPath) noexcept;

// One evaluation of a check. Built before the checked expression is evaluated and alive until the
// end of the full expression, it is the thread's current check meanwhile, so that the wrappers
// _AR/_TR/_ARE evaluated inside the expression record into it. Checks nest (a function called in
// the expression may run checks of its own).
class CCheck {
 public:
  enum class EKind : uint8_t { Signed, Unsigned, Float, Bool, Pointer, Narrow, Wide, HResult, Unknown };

  // One recorded value. pszPrefix is "_AR(", "_TR(" or "_ARE("; pszName the text of the wrapped
  // expression. Strings are held by pointer: they are read when the check fails, which happens
  // within the same full expression.
  struct SItem {
    const char* pszPrefix;
    const char* pszName;
    EKind eKind;
    union {
      int64_t ll;
      uint64_t ull;
      double d;
      const void* pv;
    };
  };
  static constexpr unsigned kcMaxItems = 8;

  CCheck(const SLocation& location, const char* pszExpression,
         const WCHAR* pszCategory = kszCategoryCheck) noexcept;
  ~CCheck();
  CCheck(const CCheck&) = delete;
  CCheck& operator=(const CCheck&) = delete;

  // Answers bPassed; reports when it is false.
  bool Verify(bool bPassed) noexcept {
    if (!bPassed) Fail();
    return bPassed;
  }
  void Fail() noexcept;
  // Items beyond kcMaxItems are not recorded.
  void Add(const SItem& item) noexcept;
  // The expression text after the rewriting described at the top of this file (not cut).
  WString RewriteText() const;

  // The innermost check being evaluated on this thread, or null.
  static CCheck* Current() noexcept;

 private:
  SLocation m_location;
  const char* m_pszExpression;
  const WCHAR* m_pszCategory;
  CCheck* m_pOuter;
  unsigned m_cItems = 0;
  SItem m_items[kcMaxItems];
};

namespace NSDetail {

template <class T>
CCheck::SItem MakeItem(const char* pszPrefix, const char* pszName, const T& value) noexcept {
  using U = std::remove_cv_t<T>;
  CCheck::SItem item;
  item.pszPrefix = pszPrefix;
  item.pszName = pszName;
  item.eKind = CCheck::EKind::Unknown;
  item.ull = 0;
  if constexpr (std::is_same_v<U, bool>) {
    item.eKind = CCheck::EKind::Bool;
    item.ull = value ? 1 : 0;
  } else if constexpr (std::is_enum_v<U>) {
    return MakeItem(pszPrefix, pszName, static_cast<std::underlying_type_t<U>>(value));
  } else if constexpr (std::is_integral_v<U> && std::is_signed_v<U>) {
    item.eKind = CCheck::EKind::Signed;
    item.ll = static_cast<int64_t>(value);
  } else if constexpr (std::is_integral_v<U>) {
    item.eKind = CCheck::EKind::Unsigned;
    item.ull = static_cast<uint64_t>(value);
  } else if constexpr (std::is_floating_point_v<U>) {
    item.eKind = CCheck::EKind::Float;
    item.d = static_cast<double>(value);
  } else if constexpr (std::is_array_v<U> && std::is_same_v<std::remove_cv_t<std::remove_extent_t<U>>, char>) {
    item.eKind = CCheck::EKind::Narrow;
    item.pv = value;
  } else if constexpr (std::is_array_v<U> && std::is_same_v<std::remove_cv_t<std::remove_extent_t<U>>, WCHAR>) {
    item.eKind = CCheck::EKind::Wide;
    item.pv = value;
  } else if constexpr (std::is_pointer_v<U> && std::is_same_v<std::remove_cv_t<std::remove_pointer_t<U>>, char>) {
    item.eKind = CCheck::EKind::Narrow;
    item.pv = value;
  } else if constexpr (std::is_pointer_v<U> && std::is_same_v<std::remove_cv_t<std::remove_pointer_t<U>>, WCHAR>) {
    item.eKind = CCheck::EKind::Wide;
    item.pv = value;
  } else if constexpr (std::is_pointer_v<U> && std::is_function_v<std::remove_pointer_t<U>>) {
    item.eKind = CCheck::EKind::Pointer;
    item.pv = reinterpret_cast<const void*>(value);
  } else if constexpr (std::is_pointer_v<U>) {
    item.eKind = CCheck::EKind::Pointer;
    item.pv = static_cast<const void*>(value);
  } else if constexpr (std::is_null_pointer_v<U>) {
    item.eKind = CCheck::EKind::Pointer;
    item.pv = nullptr;
  } else if constexpr (std::is_same_v<U, std::string>) {
    item.eKind = CCheck::EKind::Narrow;
    item.pv = value.c_str();
  } else if constexpr (std::is_same_v<U, WString>) {
    item.eKind = CCheck::EKind::Wide;
    item.pv = value.c_str();
  }
  return item;
}

template <class T>
T&& RecordValue(const char* pszPrefix, const char* pszName, T&& value) noexcept {
  if (CCheck* pCheck = CCheck::Current()) pCheck->Add(MakeItem(pszPrefix, pszName, value));
  return std::forward<T>(value);
}

template <class T>
T&& RecordResult(const char* pszName, T&& value) noexcept {
  if (CCheck* pCheck = CCheck::Current()) {
    CCheck::SItem item = MakeItem("_ARE(", pszName, static_cast<HRESULT>(value));
    item.eKind = CCheck::EKind::HResult;
    pCheck->Add(item);
  }
  return std::forward<T>(value);
}

// Whether a check's expression text names a value recorder.
constexpr bool RecordsValues(std::string_view svExpression) noexcept {
  for (std::string_view svRecorder : {"KV_AR(", "KV_TR(", "KV_ARE(", "RecordValue(", "RecordResult("}) {
    if (svExpression.find(svRecorder) != std::string_view::npos) return true;
  }
  return false;
}

// Answers bPassed; when it is false, reports the check that failed.
inline bool Checked(bool bPassed, const SLocation& location, const char* pszText, const WCHAR* pszCategory) noexcept {
  if (!bPassed) CCheck(location, pszText, pszCategory).Fail();
  return bPassed;
}

// Answers whether hr is a success; a failure is reported as its KV_VERIFY(SUCCEEDED(KV_ARE(hr)))
// would report it, with the value of hr recorded under pszName.
inline bool CheckedResult(HRESULT hr, const SLocation& location, const char* pszText, const char* pszName) noexcept {
  if (SUCCEEDED(hr)) return true;
  CCheck check(location, pszText);
  CCheck::SItem item = MakeItem("_ARE(", pszName, hr);
  item.eKind = CCheck::EKind::HResult;
  check.Add(item);
  check.Fail();
  return false;
}

}  // namespace NSDetail

// Raises the module's exception carrying E_OUTOFMEMORY. Not reported through the log.
[[noreturn]] void ThrowOutOfMemory();

// For results that must be allocated (SysAllocString and the like): answers p, or raises the
// module's exception with E_OUTOFMEMORY when p is null.
//   *pbstrName = NSReport::CheckAllocation(SysAllocString(m_strName.c_str()));
template <class T>
T* CheckAllocation(T* p) {
  if (!p) ThrowOutOfMemory();
  return p;
}

}  // namespace NSReport

// The default for functions without KV_FUNC: the name comes from the signature.
inline constexpr NSReport::SFunctionName kv_reportFunctionName{nullptr};

// Names the reporting function for the rest of the enclosing scope.
#define KV_FUNC(name) [[maybe_unused]] constexpr ::NSReport::SFunctionName kv_reportFunctionName { name }

// The location of the report being written.
#define KV_HERE (::NSReport::SLocation{kv_reportFunctionName.psz, __PRETTY_FUNCTION__, __FILE__, __LINE__})

// ---- Argument checks (statements; the enclosing function returns HRESULT) -------------------------

// A null p: reports "p\n" as "TRASSDO", keeps the last error, returns E_POINTER.
#define KV_CHECK_POINTER(p)                                                 \
  do {                                                                      \
    if (!(p)) return ::NSReport::ReportNullPointer(KV_HERE, #p "\n"); \
  } while (0)
// A compound condition over several pointers with one text: KV_CHECK_POINTERS(pdwCount && ppData).
#define KV_CHECK_POINTERS(condition)                                                \
  do {                                                                              \
    if (!(condition)) return ::NSReport::ReportNullPointer(KV_HERE, #condition "\n"); \
  } while (0)

// ---- Checks (expressions answering whether expr held) ---------------------------------------------

// A check whose expression records values (KV_AR, KV_TR, KV_ARE) is made before the expression is
// evaluated, so that the values land in it. Any other expression is evaluated first and its check
// made only when it failed: a check that holds, the common case on every read path, then costs
// nothing beyond its condition. The report of a failure is the same either way.
#define KV_CHECK_EXPRESSION(expr, text, category)                                                   \
  (std::integral_constant<bool, ::NSReport::NSDetail::RecordsValues(#expr)>::value                   \
       ? ::NSReport::CCheck(KV_HERE, text, category).Verify(static_cast<bool>(expr))                 \
       : ::NSReport::NSDetail::Checked(static_cast<bool>(expr), KV_HERE, text, category))

// Result check: KV_VERIFY(SUCCEEDED(KV_ARE(hr))). Any condition may be verified.
#define KV_VERIFY(expr) KV_CHECK_EXPRESSION(expr, #expr "\n", ::NSReport::kszCategoryCheck)
// Invariant check; reported the same way.
#define KV_ASSERT(expr) KV_CHECK_EXPRESSION(expr, #expr "\n", ::NSReport::kszCategoryCheck)
// A check with its report text given in full (a narrow literal, normally ending in "\n"). Its text
// is frozen: it is the system's promised text, and it often names a variable of an older spelling
// of the code ("pftPrevFrameTime\n" where the output is pftOutFrameTime). Keep it as it stands.
#define KV_ASSERT_TEXT(expr, text) KV_CHECK_EXPRESSION(expr, text, ::NSReport::kszCategoryCheck)
// KV_VERIFY(SUCCEEDED(KV_ARE(hr))) for an HRESULT variable: answers whether hr is a success.
// The same as KV_VERIFY(SUCCEEDED(KV_ARE(hr))), with the check made only for a failure.
#define KV_SUCCEEDED(hr) ::NSReport::NSDetail::CheckedResult((hr), KV_HERE, "SUCCEEDED(KV_ARE(" #hr "))\n", #hr)
// Reports hr when it is a failure ("SUCCEEDED(_ARE(hr))\n" with its value), for a caller that goes
// on or answers hr either way.
#define KV_REPORT_IF_FAILED(hr) static_cast<void>(KV_SUCCEEDED(hr))
// A check reported with the category "ATLVERIFY" and the expression's text without a newline.
#define KV_ATLVERIFY(expr) KV_CHECK_EXPRESSION(expr, #expr, ::NSReport::kszCategoryAtlVerify)

// Evaluates expr (an HRESULT) once; a failure is reported as "SUCCEEDED(_ARE(hr))\n" with its
// value and returned from the enclosing function.
#define KV_RETURN_IF_FAILED(expr)                                 \
  do {                                                            \
    const HRESULT kv_hrChecked = (expr);                          \
    if (FAILED(kv_hrChecked)) {                                   \
      ::NSReport::ReportFailedResult(KV_HERE, kv_hrChecked);      \
      return kv_hrChecked;                                        \
    }                                                             \
  } while (0)

// ---- Recorded values inside checks --------------------------------------------------------------

// Inside a check, KV_AR(x) and KV_TR(x) record a value and KV_ARE(hr) a result: the report writes
// it into the check's text after the expression. The texts are the system's own and spell these
// "_AR(", "_TR(" and "_ARE(" (a check's text has the "KV" of the names taken out), so
// KV_VERIFY(SUCCEEDED(KV_ARE(hr))) reports "SUCCEEDED(_ARE(hr))\n" with the value written in.
#define KV_AR(x) ::NSReport::NSDetail::RecordValue("_AR(", #x, x)
#define KV_TR(x) ::NSReport::NSDetail::RecordValue("_TR(", #x, x)
#define KV_ARE(x) ::NSReport::NSDetail::RecordResult(#x, x)

// ---- Messages ------------------------------------------------------------------------------------

// KV_LOG(level, format, arguments...): a message at any level word; a null level is "DIRECT".
#define KV_LOG(level, ...) ::NSReport::Log(KV_HERE, level, __VA_ARGS__)
#define KV_LOG_MESSAGE(...) ::NSReport::Log(KV_HERE, ::NSReport::kszLevelMessage, __VA_ARGS__)
#define KV_LOG_WARNING(...) ::NSReport::Log(KV_HERE, ::NSReport::kszLevelWarning, __VA_ARGS__)
#define KV_LOG_ERROR(...) ::NSReport::Log(KV_HERE, ::NSReport::kszLevelError, __VA_ARGS__)
