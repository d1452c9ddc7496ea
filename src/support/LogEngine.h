// The contract between the engine and the log engine library ("xmllog.dll" on Windows,
// "libxmllog.so" on Linux), which the engine loads at run time and may find missing.
//
// The library exports one C function, GetXmlLogEngine, taking nothing and answering a pointer to
// its engine object, which lives until the process ends. The object is called through its virtual
// table, so the slot order below is the contract: do not reorder, insert or remove methods. There
// is deliberately no virtual destructor (the compilers place destructor slots differently, and
// nobody but the library owns the object).
#pragma once

#include <cstdint>

#include "platform/wintypes.h"

namespace NSLog {

class ILogEngine {
 public:
  // Slot 0: whether the engine wants categorised reports (those with a level word or "TRASSDO").
  // Reports with the category "DIRECT" are sent whatever the answer.
  virtual bool WantsCategorised() = 0;
  // Slot 1: records one report. pszFunction and pszFile are narrow (UTF-8), pszMessage and
  // pszCategory wide and zero-terminated; pszMessage holds at most 1024 characters. Must be safe
  // to call from any number of threads at once. The pointers are valid during the call only.
  virtual void Record(const char* pszFunction, const char* pszFile, int32_t nLine, const WCHAR* pszMessage,
                      const WCHAR* pszCategory) = 0;
  // Slot 2: writes out and releases what the engine holds open (files). Called by the engine's
  // process-exit handler; reports that come later open again what they need.
  virtual void Close() = 0;
  // Slot 3: called once with 1 when the engine is first obtained in the process.
  virtual void Initialize(uint32_t dwValue) = 0;

 protected:
  ~ILogEngine() = default;
};

}  // namespace NSLog

// The export's name and type.
#define KV_LOG_ENGINE_EXPORT "GetXmlLogEngine"
extern "C" {
typedef NSLog::ILogEngine* (*PFN_GET_XML_LOG_ENGINE)();
}
