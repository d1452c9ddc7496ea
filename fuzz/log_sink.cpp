// A log engine that keeps nothing, built as the fuzzer's "libxmllog.so" beside it: the engine finds
// it once and stops looking for the real library at every report, and every report still goes
// through the formatting of failed checks. The texts are read to their end, so that a report that
// is too long or not terminated shows up under the sanitizer. With KV_FUZZ_LOG=1 in the environment
// every report is printed to stderr (for replaying one input).
#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/LogEngine.h"

namespace {

// Wide to narrow for the printout; characters beyond ASCII become '?'.
std::string Narrow(const WCHAR* psz) {
  std::string str;
  for (; *psz; ++psz) str.push_back(*psz < 0x80 ? static_cast<char>(*psz) : '?');
  return str;
}

class CDiscardingLogEngine final : public NSLog::ILogEngine {
 public:
  bool WantsCategorised() override { return true; }
  void Record(const char* pszFunction, const char* pszFile, int32_t nLine, const WCHAR* pszMessage,
              const WCHAR* pszCategory) override {
    size_t cch = 0;
    while (pszMessage[cch]) ++cch;
    if (cch > 1024) std::abort();
    if (m_bPrint)
      std::fprintf(stderr, "[%s] %s (%s:%d): %s", Narrow(pszCategory).c_str(), pszFunction, pszFile,
                   static_cast<int>(nLine), Narrow(pszMessage).c_str());
    while (*pszCategory) ++pszCategory;
    while (*pszFunction) ++pszFunction;
    while (*pszFile) ++pszFile;
  }
  void Close() override {}
  void Initialize(uint32_t) override {}

 private:
  const bool m_bPrint = [] {
    const char* psz = std::getenv("KV_FUZZ_LOG");
    return psz && *psz == '1';
  }();
};

}  // namespace

extern "C" __attribute__((visibility("default"))) NSLog::ILogEngine* GetXmlLogEngine() {
  static CDiscardingLogEngine engine;
  return &engine;
}
