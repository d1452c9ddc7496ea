// The object kit: what ATL gives on Windows, which mingw lacks.
//
// A class derives from CComObjectRootEx and from its interfaces, lists the interfaces in a COM map
// and leaves IUnknown to the form it is created in:
//   CComObject<T>      a plain object, deleted by its last Release;
//   CComAggObject<T>   an object aggregated into an outer one: its own non-delegating IUnknown is
//                      the inner unknown, and every interface of T delegates IUnknown to the outer;
//   CComObjectCached<T> a class object kept by the module, whose module's reference does not count.
// Reference counts are atomic. Every form holds one module lock while it lives, except the cached
// one (its clients together hold one).
//
//   class CWidget : public NSCom::CComObjectRootEx, public IWidget, public IGadget {
//    public:
//     BEGIN_COM_MAP(CWidget)
//       COM_INTERFACE_ENTRY(IWidget)
//       COM_INTERFACE_ENTRY(IGadget)
//     END_COM_MAP()
//     HRESULT FinalConstruct();  // optional; a failure destroys the object
//     void FinalRelease();       // optional
//   };
#pragma once

#include <atomic>
#include <limits>

#include "com/ComBase.h"
#include "com/ComException.h"
#include "com/ComModule.h"

namespace NSCom {

// One row of a COM map. A plain row gives the interface's pointer inside the object (pfnGet); a
// delegating row answers through another object or another map (pfnQuery). A delegating row without
// an IID is blind: it sees every request that reaches it, and the search goes on when it fails.
struct SInterfaceEntry {
  const IID* piid;
  IUnknown* (*pfnGet)(void* pThis);
  HRESULT (*pfnQuery)(void* pThis, REFIID riid, void** ppv);
};

class CComObjectRootEx {
 public:
  CComObjectRootEx() noexcept = default;
  CComObjectRootEx(const CComObjectRootEx&) = delete;
  CComObjectRootEx& operator=(const CComObjectRootEx&) = delete;

  ULONG InternalAddRef() noexcept { return static_cast<ULONG>(++m_cRef); }
  ULONG InternalRelease() noexcept { return static_cast<ULONG>(--m_cRef); }
  LONG InternalGetRefCount() const noexcept { return m_cRef.load(); }

  // A creation holds a reference across FinalConstruct, so that an object that hands itself out
  // and takes itself back there does not destroy itself; the count is 0 again afterwards.
  void InternalFinalConstructAddRef() noexcept { ++m_cRef; }
  void InternalFinalConstructRelease() noexcept { --m_cRef; }

  // Hooks a class may hide with its own. FinalConstruct runs once after the constructor; a failure
  // destroys the object and is the creation's result. FinalRelease runs before the destructor,
  // also after a failed FinalConstruct, so it must cope with a half-made object.
  HRESULT FinalConstruct() { return S_OK; }
  void FinalRelease() {}
  // Class objects that create instances take the instance creator here, before FinalConstruct.
  void SetCreator(PFNCREATEINSTANCE) noexcept {}

  // The controlling unknown when the object is aggregated, else null.
  IUnknown* GetOuterUnknown() const noexcept { return m_pOuterUnknown; }
  ULONG OuterAddRef() { return m_pOuterUnknown->AddRef(); }
  ULONG OuterRelease() { return m_pOuterUnknown->Release(); }
  HRESULT OuterQueryInterface(REFIID riid, void** ppv) { return m_pOuterUnknown->QueryInterface(riid, ppv); }

  // Searches a COM map in its order. IID_IUnknown always answers the first row, which must be a
  // plain one, so that every path to IUnknown gives the same pointer. *ppv is null on failure.
  static HRESULT InternalQueryInterface(void* pThis, const SInterfaceEntry* pEntries, REFIID riid, void** ppv);

 protected:
  ~CComObjectRootEx() = default;

  // Set by the destructor of the object forms: a large negative count, so that an AddRef/Release
  // pair made during FinalRelease cannot reach zero again and destroy the object twice.
  void InternalSetDestroying() noexcept { m_cRef.store(-(std::numeric_limits<LONG>::max() / 2)); }

  std::atomic<LONG> m_cRef{0};
  IUnknown* m_pOuterUnknown = nullptr;  // not owned: the outer object owns us
};

// ---- COM map --------------------------------------------------------------------------------------

// The map also declares IUnknown's methods pure, so that the class's own code can call AddRef,
// Release and QueryInterface without naming a base interface; the object forms implement them.
#define BEGIN_COM_MAP(x)                                                                           \
 public:                                                                                           \
  typedef x _ComMapClass;                                                                          \
  HRESULT _InternalQueryInterface(REFIID riid, void** ppv) {                                       \
    return ::NSCom::CComObjectRootEx::InternalQueryInterface(this, _GetEntries(), riid, ppv);      \
  }                                                                                                \
  /* The object's identity (the first row), not counted. */                                        \
  IUnknown* GetUnknown() { return _GetEntries()[0].pfnGet(this); }                                 \
  /* What to hand out as this object's identity: the outer object's when aggregated. */            \
  IUnknown* GetControllingUnknown() {                                                              \
    IUnknown* pOuter = this->GetOuterUnknown();                                                    \
    return pOuter != nullptr ? pOuter : GetUnknown();                                              \
  }                                                                                                \
  static const ::NSCom::SInterfaceEntry* _GetEntries() {                                           \
    static const ::NSCom::SInterfaceEntry s_aEntries[] = {

#define COM_INTERFACE_ENTRY_IID(iid, I)                                                             \
  {&(iid), [](void* p) -> IUnknown* { return static_cast<I*>(static_cast<_ComMapClass*>(p)); }, nullptr},

#define COM_INTERFACE_ENTRY(I) COM_INTERFACE_ENTRY_IID(__uuidof(I), I)

// Interface I reached through base IVia, for an interface the class inherits more than once.
#define COM_INTERFACE_ENTRY2(I, IVia)                                                              \
  {&__uuidof(I),                                                                                   \
   [](void* p) -> IUnknown* { return static_cast<I*>(static_cast<IVia*>(static_cast<_ComMapClass*>(p))); }, \
   nullptr},

// Interface iid answered by an inner object the class aggregates (punk: its IUnknown* member,
// the inner unknown).
#define COM_INTERFACE_ENTRY_AGGREGATE(iid, punk)                                                   \
  {&(iid), nullptr, [](void* p, REFIID riid, void** ppv) -> HRESULT {                              \
     IUnknown* pInner = static_cast<_ComMapClass*>(p)->punk;                                        \
     return pInner != nullptr ? pInner->QueryInterface(riid, ppv) : E_NOINTERFACE;                  \
   }},

// Every interface the inner object has, at this point of the search.
#define COM_INTERFACE_ENTRY_AGGREGATE_BLIND(punk)                                                  \
  {nullptr, nullptr, [](void* p, REFIID riid, void** ppv) -> HRESULT {                             \
     IUnknown* pInner = static_cast<_ComMapClass*>(p)->punk;                                        \
     return pInner != nullptr ? pInner->QueryInterface(riid, ppv) : E_NOINTERFACE;                  \
   }},

// The map of base class `base` (which has its own COM map), at this point of the search.
#define COM_INTERFACE_ENTRY_CHAIN(base)                                                            \
  {nullptr, nullptr, [](void* p, REFIID riid, void** ppv) -> HRESULT {                             \
     return ::NSCom::CComObjectRootEx::InternalQueryInterface(                                      \
         static_cast<base*>(static_cast<_ComMapClass*>(p)), base::_GetEntries(), riid, ppv);        \
   }},

#define END_COM_MAP()                                                                              \
  {nullptr, nullptr, nullptr}                                                                      \
  }                                                                                                \
  ;                                                                                                \
  return s_aEntries;                                                                               \
  }                                                                                                \
  STDMETHOD(QueryInterface)(REFIID riid, void** ppvObject) = 0;                                     \
  STDMETHOD_(ULONG, AddRef)() = 0;                                                                 \
  STDMETHOD_(ULONG, Release)() = 0;

// ---- Object forms ---------------------------------------------------------------------------------

namespace NSDetail {

// new, then the creation hooks in order: pfnInit (before FinalConstruct), FinalConstruct under a
// protecting reference. On failure nothing is left: the object is deleted (which runs FinalRelease).
// The new object has a reference count of 0.
template <class TObject, class TInit, class... TArgs>
HRESULT Construct(TObject** pp, TInit fnInit, TArgs... args) {
  *pp = nullptr;
  TObject* p = nullptr;
  try {
    p = new TObject(args...);
  } catch (...) {
    return HResultFromCurrentException();
  }
  fnInit(p);
  p->InternalFinalConstructAddRef();
  HRESULT hr;
  try {
    hr = p->FinalConstruct();
  } catch (...) {
    hr = HResultFromCurrentException();
  }
  p->InternalFinalConstructRelease();
  if (FAILED(hr)) {
    delete p;
    return hr;
  }
  *pp = p;
  return hr;
}

struct SNoInit {
  template <class T>
  void operator()(T*) const noexcept {}
};

// Hands out riid of a new object (count 0): the query holds the only reference, so a failed query
// destroys the object.
template <class TObject>
HRESULT QueryNew(TObject* p, REFIID riid, void** ppv) {
  if (p == nullptr) {
    return E_UNEXPECTED;
  }
  p->AddRef();
  HRESULT hr = p->QueryInterface(riid, ppv);
  p->Release();
  return hr;
}

// What a plain and a cached object share: the object is told it is going, then finalised, and
// QueryInterface goes to T's COM map.
template <class T>
class CComObjectBody : public T {
 public:
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override { return this->_InternalQueryInterface(riid, ppv); }

 protected:
  CComObjectBody() = default;
  ~CComObjectBody() {
    this->InternalSetDestroying();
    this->FinalRelease();
  }
};

}  // namespace NSDetail

// A plain object. The module lock is taken before T is constructed and given back after T is
// destroyed.
template <class T>
class CComObject final : private CModuleLockHolder, public NSDetail::CComObjectBody<T> {
 public:
  STDMETHOD_(ULONG, AddRef)() override { return this->InternalAddRef(); }
  STDMETHOD_(ULONG, Release)() override {
    const ULONG cRef = this->InternalRelease();
    if (cRef == 0) {
      delete this;
    }
    return cRef;
  }

  // A new object with a reference count of 0: the caller takes the first reference.
  static HRESULT CreateInstance(CComObject<T>** pp) {
    if (pp == nullptr) {
      return E_POINTER;
    }
    return NSDetail::Construct(pp, NSDetail::SNoInit());
  }
  // A new object's interface riid, counted.
  static HRESULT CreateInstance(REFIID riid, void** ppv) {
    if (ppv == nullptr) {
      return E_POINTER;
    }
    *ppv = nullptr;
    CComObject<T>* p;
    HRESULT hr = CreateInstance(&p);
    return FAILED(hr) ? hr : NSDetail::QueryNew(p, riid, ppv);
  }
};

// A class object cached by the module: the module's single reference does not lock the module,
// the clients' references together hold one lock (taken when the count goes from 1 to 2, given
// back when it returns to 1). Concurrent clients may see the lock count briefly out of step with
// the reference count; it agrees again once their calls have returned.
template <class T>
class CComObjectCached final : public NSDetail::CComObjectBody<T> {
 public:
  STDMETHOD_(ULONG, AddRef)() override {
    const ULONG cRef = this->InternalAddRef();
    if (cRef == 2) {
      CComModule::Lock();
    }
    return cRef;
  }
  STDMETHOD_(ULONG, Release)() override {
    const ULONG cRef = this->InternalRelease();
    if (cRef == 0) {
      delete this;
    } else if (cRef == 1) {
      CComModule::Unlock();
    }
    return cRef;
  }

  template <class TInit>
  static HRESULT CreateInstance(CComObjectCached<T>** pp, TInit fnInit) {
    if (pp == nullptr) {
      return E_POINTER;
    }
    return NSDetail::Construct(pp, fnInit);
  }
  static HRESULT CreateInstance(CComObjectCached<T>** pp) { return CreateInstance(pp, NSDetail::SNoInit()); }
};

// T inside an aggregate: every IUnknown call on T's interfaces goes to the outer object.
template <class T>
class CComContainedObject final : public T {
 public:
  explicit CComContainedObject(IUnknown* pOuter) noexcept { this->m_pOuterUnknown = pOuter; }

  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override { return this->OuterQueryInterface(riid, ppv); }
  STDMETHOD_(ULONG, AddRef)() override { return this->OuterAddRef(); }
  STDMETHOD_(ULONG, Release)() override { return this->OuterRelease(); }
};

// The aggregatable form. The outer object holds this object's own IUnknown (the inner unknown),
// whose count is the inner object's life; interfaces handed out through it count the outer object.
template <class T>
class CComAggObject final : private CModuleLockHolder, public IUnknown, public CComObjectRootEx {
 public:
  explicit CComAggObject(IUnknown* pOuter) noexcept : m_contained(pOuter) {}
  ~CComAggObject() {
    InternalSetDestroying();
    m_contained.FinalRelease();
  }

  HRESULT FinalConstruct() { return m_contained.FinalConstruct(); }

  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (ppv == nullptr) {
      return E_POINTER;
    }
    *ppv = nullptr;
    if (IsEqualIID(riid, __uuidof(IUnknown))) {
      *ppv = static_cast<IUnknown*>(this);
      AddRef();
      return S_OK;
    }
    return m_contained._InternalQueryInterface(riid, ppv);
  }
  STDMETHOD_(ULONG, AddRef)() override { return InternalAddRef(); }
  STDMETHOD_(ULONG, Release)() override {
    const ULONG cRef = InternalRelease();
    if (cRef == 0) {
      delete this;
    }
    return cRef;
  }

  // The aggregated T, for the outer object's own use.
  T* GetContainedObject() noexcept { return &m_contained; }

  // A new aggregate with a reference count of 0. pOuter is required.
  static HRESULT CreateInstance(IUnknown* pOuter, CComAggObject<T>** pp) {
    if (pp == nullptr) {
      return E_POINTER;
    }
    *pp = nullptr;
    if (pOuter == nullptr) {
      return E_POINTER;
    }
    return NSDetail::Construct(pp, NSDetail::SNoInit(), pOuter);
  }
  // The inner unknown of a new aggregate, counted. COM lets an outer object ask only for the inner
  // unknown (anything else would hand it a delegating pointer it could never release the inner
  // object through): any other riid is E_INVALIDARG.
  static HRESULT CreateInstance(IUnknown* pOuter, REFIID riid, void** ppv) {
    if (ppv == nullptr) {
      return E_POINTER;
    }
    *ppv = nullptr;
    if (!IsEqualIID(riid, __uuidof(IUnknown))) {
      return E_INVALIDARG;
    }
    CComAggObject<T>* p;
    HRESULT hr = CreateInstance(pOuter, &p);
    return FAILED(hr) ? hr : NSDetail::QueryNew(p, riid, ppv);
  }

 private:
  CComContainedObject<T> m_contained;
};

// ---- Instance creators (PFNCREATEINSTANCE) ---------------------------------------------------------

// Plain only: an outer object is refused with CLASS_E_NOAGGREGATION.
template <class T>
struct CComCreator {
  static HRESULT CreateInstance(IUnknown* pOuter, REFIID riid, void** ppv) {
    if (ppv == nullptr) {
      return E_POINTER;
    }
    *ppv = nullptr;
    if (pOuter != nullptr) {
      return CLASS_E_NOAGGREGATION;
    }
    return CComObject<T>::CreateInstance(riid, ppv);
  }
};

// Plain without an outer object, aggregated with one.
template <class T>
struct CComAggregatableCreator {
  static HRESULT CreateInstance(IUnknown* pOuter, REFIID riid, void** ppv) {
    if (ppv == nullptr) {
      return E_POINTER;
    }
    *ppv = nullptr;
    if (pOuter == nullptr) {
      return CComObject<T>::CreateInstance(riid, ppv);
    }
    return CComAggObject<T>::CreateInstance(pOuter, riid, ppv);
  }
};

template <HRESULT hrFailure>
struct CComFailCreator {
  static HRESULT CreateInstance(IUnknown*, REFIID, void** ppv) {
    if (ppv == nullptr) {
      return E_POINTER;
    }
    *ppv = nullptr;
    return hrFailure;
  }
};

}  // namespace NSCom
