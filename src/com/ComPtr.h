// Owning interface pointers: CComPtr<T> holds one reference; CComQIPtr<T> also takes any
// IUnknown* and queries it for T.
#pragma once

#include <cassert>
#include <cstddef>
#include <memory>
#include <utility>

#include "com/ComBase.h"

namespace NSCom {

template <class T>
class CComPtr {
 public:
  CComPtr() noexcept = default;
  CComPtr(std::nullptr_t) noexcept {}
  CComPtr(T* lp) noexcept : p(lp) {
    if (p != nullptr) {
      p->AddRef();
    }
  }
  CComPtr(const CComPtr& other) noexcept : CComPtr(other.p) {}
  CComPtr(CComPtr&& other) noexcept : p(other.p) { other.p = nullptr; }
  // From a pointer to a derived interface.
  template <class Q>
  CComPtr(const CComPtr<Q>& other) noexcept : CComPtr(static_cast<T*>(other.p)) {}
  ~CComPtr() {
    if (p != nullptr) {
      p->Release();
    }
  }

  // The new pointer is counted before the old one is released, so assigning an object to a pointer
  // that holds its last reference keeps it alive.
  CComPtr& operator=(T* lp) noexcept {
    if (lp != nullptr) {
      lp->AddRef();
    }
    T* pOld = p;
    p = lp;
    if (pOld != nullptr) {
      pOld->Release();
    }
    return *this;
  }
  CComPtr& operator=(const CComPtr& other) noexcept { return *this = other.p; }
  CComPtr& operator=(CComPtr&& other) noexcept {
    if (this != std::addressof(other)) {
      T* pOld = p;
      p = other.p;
      other.p = nullptr;
      if (pOld != nullptr) {
        pOld->Release();
      }
    }
    return *this;
  }
  CComPtr& operator=(std::nullptr_t) noexcept {
    Release();
    return *this;
  }

  operator T*() const noexcept { return p; }
  T& operator*() const noexcept { return *p; }
  T* operator->() const noexcept {
    assert(p != nullptr);
    return p;
  }
  // For out-parameters. The pointer must be empty, or its reference would leak.
  T** operator&() noexcept {
    assert(p == nullptr);
    return &p;
  }
  bool operator!() const noexcept { return p == nullptr; }

  void Release() noexcept {
    T* pOld = p;
    if (pOld != nullptr) {
      p = nullptr;
      pOld->Release();
    }
  }
  // Takes over lp's reference; the one held before is released.
  void Attach(T* lp) noexcept {
    T* pOld = p;
    p = lp;
    if (pOld != nullptr) {
      pOld->Release();
    }
  }
  // Gives up the reference without releasing it.
  T* Detach() noexcept {
    T* pOld = p;
    p = nullptr;
    return pOld;
  }
  // A counted copy for an out-parameter; E_POINTER for a null ppT.
  HRESULT CopyTo(T** ppT) const noexcept {
    if (ppT == nullptr) {
      return E_POINTER;
    }
    *ppT = p;
    if (p != nullptr) {
      p->AddRef();
    }
    return S_OK;
  }
  template <class Q>
  HRESULT QueryInterface(Q** pp) const {
    if (pp == nullptr) {
      return E_POINTER;
    }
    *pp = nullptr;
    if (p == nullptr) {
      return E_POINTER;
    }
    return p->QueryInterface(__uuidof(Q), reinterpret_cast<void**>(pp));
  }
  // Whether this and pOther are the same COM object (by their IUnknown identities).
  bool IsEqualObject(IUnknown* pOther) const {
    if (p == nullptr || pOther == nullptr) {
      return p == nullptr && pOther == nullptr;
    }
    IUnknown* pUnk1 = nullptr;
    IUnknown* pUnk2 = nullptr;
    p->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&pUnk1));
    pOther->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&pUnk2));
    const bool bEqual = pUnk1 != nullptr && pUnk1 == pUnk2;
    if (pUnk1 != nullptr) {
      pUnk1->Release();
    }
    if (pUnk2 != nullptr) {
      pUnk2->Release();
    }
    return bEqual;
  }

  T* p = nullptr;
};

template <class T>
class CComQIPtr : public CComPtr<T> {
 public:
  CComQIPtr() noexcept = default;
  CComQIPtr(std::nullptr_t) noexcept {}
  CComQIPtr(T* lp) noexcept : CComPtr<T>(lp) {}
  CComQIPtr(const CComQIPtr& other) noexcept : CComPtr<T>(other.p) {}
  CComQIPtr(CComQIPtr&& other) noexcept : CComPtr<T>(std::move(other)) {}
  // Queries lp for T; empty when lp is null or lacks T.
  CComQIPtr(IUnknown* lp) noexcept {
    if (lp != nullptr) {
      lp->QueryInterface(__uuidof(T), reinterpret_cast<void**>(&this->p));
    }
  }

  CComQIPtr& operator=(T* lp) noexcept {
    CComPtr<T>::operator=(lp);
    return *this;
  }
  CComQIPtr& operator=(std::nullptr_t) noexcept {
    this->Release();
    return *this;
  }
  CComQIPtr& operator=(const CComQIPtr& other) noexcept {
    CComPtr<T>::operator=(other.p);
    return *this;
  }
  CComQIPtr& operator=(CComQIPtr&& other) noexcept {
    CComPtr<T>::operator=(std::move(other));
    return *this;
  }
  CComQIPtr& operator=(IUnknown* lp) noexcept {
    T* pNew = nullptr;
    if (lp != nullptr) {
      lp->QueryInterface(__uuidof(T), reinterpret_cast<void**>(&pNew));
    }
    this->Attach(pNew);
    return *this;
  }
};

// For IUnknown the query is the identity query: the result is the object's own IUnknown, whatever
// interface it was given.
template <>
class CComQIPtr<IUnknown> : public CComPtr<IUnknown> {
 public:
  CComQIPtr() noexcept = default;
  CComQIPtr(std::nullptr_t) noexcept {}
  CComQIPtr(const CComQIPtr& other) noexcept : CComPtr<IUnknown>(other.p) {}
  CComQIPtr(CComQIPtr&& other) noexcept : CComPtr<IUnknown>(std::move(other)) {}
  CComQIPtr(IUnknown* lp) noexcept {
    if (lp != nullptr) {
      lp->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&p));
    }
  }
  CComQIPtr& operator=(const CComQIPtr& other) noexcept {
    CComPtr<IUnknown>::operator=(other.p);
    return *this;
  }
  CComQIPtr& operator=(CComQIPtr&& other) noexcept {
    CComPtr<IUnknown>::operator=(std::move(other));
    return *this;
  }
  CComQIPtr& operator=(IUnknown* lp) noexcept {
    IUnknown* pNew = nullptr;
    if (lp != nullptr) {
      lp->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&pNew));
    }
    Attach(pNew);
    return *this;
  }
};

}  // namespace NSCom
