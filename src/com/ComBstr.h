// CComBSTR: the owner of one BSTR. A null BSTR is a valid empty string throughout.
//
// Whatever makes a new string (construction, assignment, Append, Copy) throws CComException with
// E_OUTOFMEMORY when the allocation fails, so that code building text needs no checks; COM methods
// catch it at their boundary. CopyTo, made for out-parameters, answers an HRESULT instead.
#pragma once

#include <cassert>
#include <cstring>
#include <memory>
#include <string>

#include "com/ComBase.h"
#include "com/ComException.h"

namespace NSCom {

class CComBSTR {
 public:
  CComBSTR() noexcept = default;
  CComBSTR(std::nullptr_t) noexcept {}
  // A null psz gives a null string.
  CComBSTR(LPCOLESTR psz) : m_str(psz != nullptr ? Checked(SysAllocString(psz)) : nullptr) {}
  // cch characters from pch (embedded zeros kept), or cch uninitialised characters for a null pch.
  CComBSTR(UINT cch, LPCOLESTR pch) : m_str(Checked(SysAllocStringLen(pch, cch))) {}
  explicit CComBSTR(WStringView str) : m_str(Checked(SysAllocStringLen(str.data(), CheckedLength(str.size())))) {}
  CComBSTR(const CComBSTR& other) : m_str(other.Copy()) {}
  CComBSTR(CComBSTR&& other) noexcept : m_str(other.m_str) { other.m_str = nullptr; }
  ~CComBSTR() { SysFreeString(m_str); }

  CComBSTR& operator=(const CComBSTR& other) {
    if (this != std::addressof(other)) {
      Attach(other.Copy());
    }
    return *this;
  }
  CComBSTR& operator=(CComBSTR&& other) noexcept {
    if (this != std::addressof(other)) {
      Attach(other.m_str);
      other.m_str = nullptr;
    }
    return *this;
  }
  CComBSTR& operator=(LPCOLESTR psz) {
    // Allocated before the old string is freed: psz may point into it.
    Attach(psz != nullptr ? Checked(SysAllocString(psz)) : nullptr);
    return *this;
  }

  operator BSTR() const noexcept { return m_str; }
  // For out-parameters; the string must be empty, or it would leak.
  BSTR* operator&() noexcept {
    assert(m_str == nullptr);
    return &m_str;
  }
  bool operator!() const noexcept { return m_str == nullptr; }

  // Characters, embedded zeros included.
  UINT Length() const noexcept { return SysStringLen(m_str); }
  UINT ByteLength() const noexcept { return SysStringByteLen(m_str); }
  WStringView View() const noexcept { return m_str != nullptr ? WStringView(m_str, Length()) : WStringView(); }
  WString ToWString() const { return WString(View()); }

  // A new BSTR with the same bytes (null for a null string); the caller owns it.
  BSTR Copy() const {
    if (m_str == nullptr) {
      return nullptr;
    }
    return Checked(SysAllocStringByteLen(reinterpret_cast<LPCSTR>(m_str), SysStringByteLen(m_str)));
  }
  // Copy for an out-parameter: E_POINTER for a null pbstr, E_OUTOFMEMORY when the copy fails.
  HRESULT CopyTo(BSTR* pbstr) const noexcept {
    if (pbstr == nullptr) {
      return E_POINTER;
    }
    *pbstr = nullptr;
    if (m_str == nullptr) {
      return S_OK;
    }
    *pbstr = SysAllocStringByteLen(reinterpret_cast<LPCSTR>(m_str), SysStringByteLen(m_str));
    return *pbstr != nullptr ? S_OK : E_OUTOFMEMORY;
  }
  // Takes ownership of bstr; the string held before is freed.
  void Attach(BSTR bstr) noexcept {
    if (bstr != m_str) {
      SysFreeString(m_str);
      m_str = bstr;
    }
  }
  // Gives up ownership without freeing.
  BSTR Detach() noexcept {
    BSTR bstr = m_str;
    m_str = nullptr;
    return bstr;
  }
  void Empty() noexcept { Attach(nullptr); }

  // A null pch appends cch uninitialised characters.
  void Append(const OLECHAR* pch, UINT cch) {
    const UINT cchOld = Length();
    if (cch > 0x7FFFFFFFu / sizeof(OLECHAR) - cchOld) {
      ThrowHResult(E_OUTOFMEMORY);
    }
    BSTR bstrNew = Checked(SysAllocStringLen(nullptr, cchOld + cch));
    if (cchOld != 0) {
      std::memcpy(bstrNew, m_str, cchOld * sizeof(OLECHAR));
    }
    if (cch != 0 && pch != nullptr) {
      std::memcpy(bstrNew + cchOld, pch, cch * sizeof(OLECHAR));
    }
    Attach(bstrNew);
  }
  void Append(LPCOLESTR psz) {
    if (psz != nullptr) {
      Append(psz, static_cast<UINT>(std::char_traits<OLECHAR>::length(psz)));
    }
  }
  void Append(const CComBSTR& other) { Append(other.m_str, other.Length()); }
  CComBSTR& operator+=(LPCOLESTR psz) {
    Append(psz);
    return *this;
  }
  CComBSTR& operator+=(const CComBSTR& other) {
    Append(other);
    return *this;
  }

  // By content, embedded zeros included; a null string equals an empty one.
  friend bool operator==(const CComBSTR& a, const CComBSTR& b) noexcept { return a.View() == b.View(); }
  friend bool operator!=(const CComBSTR& a, const CComBSTR& b) noexcept { return !(a == b); }

  BSTR m_str = nullptr;

 private:
  static BSTR Checked(BSTR bstr) {
    if (bstr == nullptr) {
      ThrowHResult(E_OUTOFMEMORY);
    }
    return bstr;
  }
  static UINT CheckedLength(size_t cch) {
    if (cch > 0x7FFFFFFFu / sizeof(OLECHAR)) {
      ThrowHResult(E_OUTOFMEMORY);
    }
    return static_cast<UINT>(cch);
  }
};

// A client's BSTR as text, embedded zeros kept (a null BSTR is empty).
inline WString BstrText(BSTR bstr) { return bstr ? WString(bstr, SysStringLen(bstr)) : WString(); }

// Whether a client's BSTR holds a NUL before its end: the file system would see only the part
// before it, where our checks saw all of it.
inline bool HasEmbeddedNul(BSTR bstr) {
  const UINT cch = bstr ? SysStringLen(bstr) : 0;
  for (UINT i = 0; i < cch; ++i)
    if (bstr[i] == 0) return true;
  return false;
}

}  // namespace NSCom
