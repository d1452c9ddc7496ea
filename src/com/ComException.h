// The exception the engine throws inside its objects and turns back into an HRESULT at every COM
// boundary: no method lets an exception escape to a client.
#pragma once

#include <cstdio>
#include <exception>
#include <new>

#include "com/ComBase.h"

namespace NSCom {

class CComException : public std::exception {
 public:
  explicit CComException(HRESULT hr) noexcept : m_hr(hr) {
    std::snprintf(m_szWhat, sizeof(m_szWhat), "HRESULT 0x%08X", static_cast<unsigned>(hr));
  }
  HRESULT GetHResult() const noexcept { return m_hr; }
  const char* what() const noexcept override { return m_szWhat; }

 private:
  HRESULT m_hr;
  char m_szWhat[24];
};

[[noreturn]] inline void ThrowHResult(HRESULT hr) { throw CComException(hr); }

inline void ThrowIfFailed(HRESULT hr) {
  if (FAILED(hr)) {
    throw CComException(hr);
  }
}

// For a catch (...) block at a COM boundary: the status of the exception being handled. Memory
// exhaustion is E_OUTOFMEMORY; anything the engine did not throw itself is E_FAIL.
inline HRESULT HResultFromCurrentException() noexcept {
  try {
    throw;
  } catch (const CComException& e) {
    return FAILED(e.GetHResult()) ? e.GetHResult() : E_FAIL;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_FAIL;
  }
}

}  // namespace NSCom
