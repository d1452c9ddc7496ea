// Small owners for C++ clients of the library: an interface pointer, a BSTR for a call, and the
// buffers a Read hands out in task memory. Header only; they call nothing but Release,
// SysAllocStringLen, SysFreeString and CoTaskMemFree (the system's on Windows, the library's own on
// Linux), so a client that includes <kronvale/kronvale.h> needs nothing else.
#pragma once

#include <kronvale/kronvale.h>

#include <cstddef>
#include <string>
#include <vector>

namespace NSKronvale {

// Owns one reference to an interface. `&p` hands the pointer to a call that fills it (release the
// old one first with Reset); `p` is the raw pointer, still owned.
template <class I>
class CPtr {
 public:
  CPtr() = default;
  ~CPtr() { Reset(); }
  CPtr(const CPtr&) = delete;
  CPtr& operator=(const CPtr&) = delete;

  void Reset() {
    if (p) p->Release();
    p = nullptr;
  }
  I** operator&() { return &p; }
  I* operator->() const { return p; }
  explicit operator bool() const { return p != nullptr; }

  I* p = nullptr;
};

// A BSTR for the length of a call. Embedded NULs are kept (the library refuses them in paths and
// names, which is how a caller learns of them).
class CBstr {
 public:
  CBstr(const OLECHAR* pch, size_t cch) : m_bstr(SysAllocStringLen(pch, static_cast<UINT>(cch))) {}
  explicit CBstr(const std::basic_string<OLECHAR>& str) : CBstr(str.data(), str.size()) {}
  ~CBstr() { SysFreeString(m_bstr); }
  CBstr(const CBstr&) = delete;
  CBstr& operator=(const CBstr&) = delete;

  operator BSTR() const { return m_bstr; }

 private:
  BSTR m_bstr;
};

// Buffers for a Read that allocates: each starts with a null pData, so the record hands the frame's
// bytes out in task memory, which is freed here.
class CTaskBuffers {
 public:
  explicit CTaskBuffers(size_t cBuffers = 0) { Reset(cBuffers); }
  ~CTaskBuffers() { Reset(0); }
  CTaskBuffers(const CTaskBuffers&) = delete;
  CTaskBuffers& operator=(const CTaskBuffers&) = delete;

  // Frees what the last Read handed out, then holds cBuffers null buffers for the next one.
  void Reset(size_t cBuffers) {
    for (SFrameBuffer& buffer : m_v) CoTaskMemFree(buffer.pData);
    m_v.assign(cBuffers, SFrameBuffer{nullptr, 0});
  }
  // After a failed Read, which leaves no task memory with its caller: drops the buffers unfreed.
  void Abandon() { m_v.clear(); }

  SFrameBuffer* data() { return m_v.empty() ? nullptr : m_v.data(); }
  DWORD size() const { return static_cast<DWORD>(m_v.size()); }
  const SFrameBuffer& operator[](size_t i) const { return m_v[i]; }
  std::vector<SFrameBuffer>::const_iterator begin() const { return m_v.begin(); }
  std::vector<SFrameBuffer>::const_iterator end() const { return m_v.end(); }

 private:
  std::vector<SFrameBuffer> m_v;
};

}  // namespace NSKronvale
