// Object forms, COM maps, QueryInterface identity rules, FinalConstruct/FinalRelease, aggregation
// and multi-threaded reference counting.
#include <thread>
#include <vector>

#include "TestObjects.h"

using namespace NSCom;
using namespace NSTest;

namespace {

using CAlphaBetaObject = CComObject<CAlphaBeta>;

// The object's identity: QI for IUnknown, released at once (the object stays alive through pItf).
IUnknown* Identity(IUnknown* pItf) {
  IUnknown* pUnk = nullptr;
  EXPECT_EQ(S_OK, pItf->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&pUnk)));
  if (pUnk != nullptr) {
    pUnk->Release();
  }
  return pUnk;
}

template <class I>
I* Query(IUnknown* pItf) {
  I* p = nullptr;
  HRESULT hr = pItf->QueryInterface(__uuidof(I), reinterpret_cast<void**>(&p));
  EXPECT_EQ(S_OK, hr);
  return p;
}

}  // namespace

class ComObjectTest : public CComKitTest {};

TEST_F(ComObjectTest, PlainObjectLivesFromFirstAddRefToLastReleaseAndHoldsTheModule) {
  CAlphaBetaObject* p = nullptr;
  ASSERT_EQ(S_OK, CAlphaBetaObject::CreateInstance(&p));
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(0, p->InternalGetRefCount());
  EXPECT_EQ(1, NSCom::CComModule::GetLockCount());

  EXPECT_EQ(1u, p->AddRef());
  EXPECT_EQ(2u, p->AddRef());
  EXPECT_EQ(1u, p->Release());
  EXPECT_EQ(1, CAlphaBeta::s_counters.Live());
  EXPECT_EQ(0u, p->Release());
  EXPECT_EQ(0, CAlphaBeta::s_counters.Live());
  EXPECT_EQ(1, CAlphaBeta::s_counters.cFinalReleased.load());
  EXPECT_EQ(0, CComModule::GetLockCount());

  EXPECT_EQ(E_POINTER, CAlphaBetaObject::CreateInstance(nullptr));
  EXPECT_EQ(E_POINTER, CAlphaBetaObject::CreateInstance(__uuidof(ITestAlpha), nullptr));
}

TEST_F(ComObjectTest, MapIsSearchedInOrderAndIUnknownIsTheFirstRow) {
  CAlphaBetaObject* p = nullptr;
  ASSERT_EQ(S_OK, CAlphaBetaObject::CreateInstance(&p));
  p->AddRef();

  // The first row is ITestBeta: that pointer is the identity, and GetUnknown agrees.
  EXPECT_EQ(static_cast<IUnknown*>(static_cast<ITestBeta*>(p)), Identity(static_cast<ITestGamma*>(p)));
  EXPECT_EQ(p->GetUnknown(), static_cast<IUnknown*>(static_cast<ITestBeta*>(p)));
  EXPECT_EQ(p->GetControllingUnknown(), p->GetUnknown());

  // ITestAlpha is reached through ITestGamma, which derives from it.
  ITestAlpha* pAlpha = Query<ITestAlpha>(static_cast<ITestBeta*>(p));
  EXPECT_EQ(static_cast<ITestAlpha*>(static_cast<ITestGamma*>(p)), pAlpha);
  ITestGamma* pGamma = Query<ITestGamma>(pAlpha);
  EXPECT_EQ(static_cast<ITestGamma*>(p), pGamma);
  LONG lValue = 0;
  pGamma->GetGamma(&lValue);
  EXPECT_EQ(3, lValue);
  EXPECT_EQ(3, p->InternalGetRefCount());
  pAlpha->Release();
  pGamma->Release();

  void* pv = reinterpret_cast<void*>(1);
  EXPECT_EQ(E_NOINTERFACE, p->QueryInterface(__uuidof(ITestNobody), &pv));
  EXPECT_EQ(nullptr, pv);
  EXPECT_EQ(E_NOINTERFACE, p->QueryInterface(__uuidof(IClassFactory), &pv));
  EXPECT_EQ(E_POINTER, p->QueryInterface(__uuidof(ITestAlpha), nullptr));
  EXPECT_EQ(E_POINTER, p->QueryInterface(__uuidof(IUnknown), nullptr));
  EXPECT_EQ(1, p->InternalGetRefCount());
  p->Release();
}

namespace {

// Two rows for one IID: the first decides.
class CDuplicateRows : public CComObjectRootEx, public ITestAlpha, public ITestBeta {
 public:
  BEGIN_COM_MAP(CDuplicateRows)
    COM_INTERFACE_ENTRY_IID(__uuidof(ITestDelta), ITestBeta)
    COM_INTERFACE_ENTRY_IID(__uuidof(ITestDelta), ITestAlpha)
    COM_INTERFACE_ENTRY(ITestAlpha)
  END_COM_MAP()
  STDMETHOD(GetAlpha)(LONG*) override { return S_OK; }
  STDMETHOD(GetBeta)(LONG*) override { return S_OK; }
};

// Chains to CAlphaBeta's map after its own row.
class CChained : public CAlphaBeta, public ITestDelta {
 public:
  BEGIN_COM_MAP(CChained)
    COM_INTERFACE_ENTRY(ITestDelta)
    COM_INTERFACE_ENTRY_CHAIN(CAlphaBeta)
  END_COM_MAP()
  STDMETHOD(GetDelta)(LONG* pValue) override {
    *pValue = 4;
    return S_OK;
  }
};

}  // namespace

TEST_F(ComObjectTest, FirstMatchingRowWinsAndChainedMapsAreSearchedInPlace) {
  {
    CComPtr<CComObject<CDuplicateRows>> sp;
    ASSERT_EQ(S_OK, CComObject<CDuplicateRows>::CreateInstance(&sp.p));
    sp.p->AddRef();
    void* pv = nullptr;
    ASSERT_EQ(S_OK, sp->QueryInterface(__uuidof(ITestDelta), &pv));
    EXPECT_EQ(static_cast<void*>(static_cast<ITestBeta*>(sp.p)), pv);
    static_cast<IUnknown*>(pv)->Release();
  }
  {
    CComObject<CChained>* p = nullptr;
    ASSERT_EQ(S_OK, CComObject<CChained>::CreateInstance(&p));
    p->AddRef();
    EXPECT_EQ(static_cast<IUnknown*>(static_cast<ITestDelta*>(p)), Identity(static_cast<ITestDelta*>(p)));
    ITestGamma* pGamma = Query<ITestGamma>(static_cast<ITestDelta*>(p));
    EXPECT_EQ(static_cast<ITestGamma*>(p), pGamma);
    // From the chained base's interface back to the derived row and the same identity.
    ITestDelta* pDelta = Query<ITestDelta>(pGamma);
    EXPECT_EQ(static_cast<ITestDelta*>(p), pDelta);
    EXPECT_EQ(Identity(pDelta), Identity(pGamma));
    void* pv = nullptr;
    EXPECT_EQ(E_NOINTERFACE, p->QueryInterface(__uuidof(ITestNobody), &pv));
    pGamma->Release();
    pDelta->Release();
    EXPECT_EQ(0u, p->Release());
  }
}

TEST_F(ComObjectTest, QueryInterfaceIsReflexiveSymmetricAndTransitive) {
  CComPtr<ITestAlpha> spAlpha;
  ASSERT_EQ(S_OK, CAlphaBetaObject::CreateInstance(__uuidof(ITestAlpha), reinterpret_cast<void**>(&spAlpha)));
  IUnknown* pIdentity = Identity(spAlpha);

  IUnknown* apItf[] = {spAlpha, nullptr, nullptr};
  apItf[1] = Query<ITestBeta>(spAlpha);
  apItf[2] = Query<ITestGamma>(apItf[1]);
  const IID* apIid[] = {&__uuidof(ITestAlpha), &__uuidof(ITestBeta), &__uuidof(ITestGamma)};
  for (IUnknown* pFrom : apItf) {
    EXPECT_EQ(pIdentity, Identity(pFrom));
    for (size_t i = 0; i < 3; ++i) {
      void* pv = nullptr;
      ASSERT_EQ(S_OK, pFrom->QueryInterface(*apIid[i], &pv));
      // The same interface is the same pointer whichever way it was reached.
      EXPECT_EQ(static_cast<void*>(apItf[i]), pv);
      static_cast<IUnknown*>(pv)->Release();
    }
  }
  apItf[1]->Release();
  apItf[2]->Release();
}

TEST_F(ComObjectTest, FinalConstructFailureDestroysTheObjectAndReturnsTheError) {
  struct SCase {
    CFailing::EMode eMode;
    HRESULT hrExpected;
  } const aCases[] = {
      {CFailing::EMode::ReturnError, E_ACCESSDENIED},
      {CFailing::EMode::ThrowComException, E_HANDLE},
      {CFailing::EMode::ThrowBadAlloc, E_OUTOFMEMORY},
  };
  int cCreated = 0;
  for (const SCase& c : aCases) {
    CFailing::s_eMode = c.eMode;
    CComObject<CFailing>* p = reinterpret_cast<CComObject<CFailing>*>(1);
    EXPECT_EQ(c.hrExpected, CComObject<CFailing>::CreateInstance(&p));
    EXPECT_EQ(nullptr, p);
    void* pv = reinterpret_cast<void*>(1);
    EXPECT_EQ(c.hrExpected, CComObject<CFailing>::CreateInstance(__uuidof(ITestAlpha), &pv));
    EXPECT_EQ(nullptr, pv);

    // Aggregated, through the instance creator that a class factory uses.
    CComObject<CPlainOnly>* pOuterObject = nullptr;
    ASSERT_EQ(S_OK, CComObject<CPlainOnly>::CreateInstance(&pOuterObject));
    pOuterObject->AddRef();
    pv = reinterpret_cast<void*>(1);
    EXPECT_EQ(c.hrExpected, CFailing::_CreatorClass::CreateInstance(pOuterObject, __uuidof(IUnknown), &pv));
    EXPECT_EQ(nullptr, pv);
    EXPECT_EQ(1, pOuterObject->InternalGetRefCount());
    pOuterObject->Release();

    cCreated += 3;
    EXPECT_EQ(0, CFailing::s_counters.Live());
    // FinalRelease runs for a failed FinalConstruct too.
    EXPECT_EQ(cCreated, CFailing::s_counters.cFinalReleased.load());
    EXPECT_EQ(0, CComModule::GetLockCount());
  }
}

TEST_F(ComObjectTest, FinalConstructMayTakeAndDropAReferenceToItself) {
  CFailing::s_eMode = CFailing::EMode::SelfReference;
  CComObject<CFailing>* p = nullptr;
  ASSERT_EQ(S_OK, CComObject<CFailing>::CreateInstance(&p));
  EXPECT_EQ(1, CFailing::s_counters.Live());
  EXPECT_EQ(0, p->InternalGetRefCount());
  p->AddRef();
  EXPECT_EQ(0u, p->Release());
  EXPECT_EQ(1, CFailing::s_counters.cFinalReleased.load());
}

namespace {

// A constructor that throws: no object and no module lock are left behind.
class CThrowingConstructor : public CComObjectRootEx, public ITestAlpha {
 public:
  static inline bool s_bThrow = true;
  CThrowingConstructor() {
    if (s_bThrow) {
      ThrowHResult(E_OUTOFMEMORY);
    }
  }
  BEGIN_COM_MAP(CThrowingConstructor)
    COM_INTERFACE_ENTRY(ITestAlpha)
  END_COM_MAP()
  STDMETHOD(GetAlpha)(LONG*) override { return S_OK; }
};

}  // namespace

TEST_F(ComObjectTest, ThrowingConstructorIsReportedAsItsHResult) {
  void* pv = reinterpret_cast<void*>(1);
  EXPECT_EQ(E_OUTOFMEMORY, CComObject<CThrowingConstructor>::CreateInstance(__uuidof(ITestAlpha), &pv));
  EXPECT_EQ(nullptr, pv);
}

TEST_F(ComObjectTest, AggregateIsControlledByTheOuterObject) {
  CComObject<COuter>* pOuter = nullptr;
  ASSERT_EQ(S_OK, CComObject<COuter>::CreateInstance(&pOuter));
  pOuter->AddRef();
  ASSERT_NE(nullptr, pOuter->m_pInner);
  EXPECT_EQ(1, CAlphaBeta::s_counters.Live());
  // The outer and the aggregate each hold the module.
  EXPECT_EQ(2, CComModule::GetLockCount());
  IUnknown* pOuterIdentity = Identity(static_cast<ITestDelta*>(pOuter));
  EXPECT_EQ(static_cast<IUnknown*>(static_cast<ITestDelta*>(pOuter)), pOuterIdentity);

  // The inner unknown answers IUnknown with itself and counts only itself.
  IUnknown* pInnerIdentity = nullptr;
  ASSERT_EQ(S_OK, pOuter->m_pInner->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&pInnerIdentity)));
  EXPECT_EQ(pOuter->m_pInner, pInnerIdentity);
  EXPECT_EQ(1, pOuter->InternalGetRefCount());
  pInnerIdentity->Release();

  // Interfaces of the inner object, got through the outer (explicit and blind rows) or through the
  // inner unknown, count the outer object and give the outer's identity.
  ITestAlpha* pAlpha = Query<ITestAlpha>(static_cast<ITestDelta*>(pOuter));
  ITestBeta* pBeta = Query<ITestBeta>(static_cast<ITestDelta*>(pOuter));
  ITestGamma* pGamma = Query<ITestGamma>(pOuter->m_pInner);
  EXPECT_EQ(4, pOuter->InternalGetRefCount());
  EXPECT_EQ(pOuterIdentity, Identity(pAlpha));
  EXPECT_EQ(pOuterIdentity, Identity(pBeta));
  EXPECT_EQ(pOuterIdentity, Identity(pGamma));
  LONG lValue = 0;
  pBeta->GetBeta(&lValue);
  EXPECT_EQ(2, lValue);

  // From an inner interface to the outer's own interface, and back.
  ITestDelta* pDelta = Query<ITestDelta>(pBeta);
  EXPECT_EQ(static_cast<ITestDelta*>(pOuter), pDelta);
  ITestAlpha* pAlpha2 = Query<ITestAlpha>(pDelta);
  EXPECT_EQ(pAlpha, pAlpha2);
  void* pv = reinterpret_cast<void*>(1);
  EXPECT_EQ(E_NOINTERFACE, pBeta->QueryInterface(__uuidof(ITestNobody), &pv));
  EXPECT_EQ(nullptr, pv);

  for (IUnknown* pItf : std::initializer_list<IUnknown*>{pAlpha, pBeta, pGamma, pDelta, pAlpha2}) {
    pItf->Release();
  }
  EXPECT_EQ(1, pOuter->InternalGetRefCount());
  EXPECT_EQ(1, CAlphaBeta::s_counters.Live());
  // The last release of the outer object takes the aggregate with it.
  EXPECT_EQ(0u, pOuter->Release());
  EXPECT_EQ(1, CAlphaBeta::s_counters.cFinalReleased.load());
  EXPECT_EQ(1, COuter::s_counters.cFinalReleased.load());
}

TEST_F(ComObjectTest, AggregationRulesAtCreation) {
  CComObject<CPlainOnly>* pOuter = nullptr;
  ASSERT_EQ(S_OK, CComObject<CPlainOnly>::CreateInstance(&pOuter));
  pOuter->AddRef();

  void* pv = reinterpret_cast<void*>(1);
  // Only the inner unknown may be asked for.
  EXPECT_EQ(E_INVALIDARG, CComAggObject<CAlphaBeta>::CreateInstance(pOuter, __uuidof(ITestAlpha), &pv));
  EXPECT_EQ(nullptr, pv);
  EXPECT_EQ(E_POINTER, CComAggObject<CAlphaBeta>::CreateInstance(nullptr, __uuidof(IUnknown), &pv));
  EXPECT_EQ(E_POINTER, CComAggObject<CAlphaBeta>::CreateInstance(pOuter, __uuidof(IUnknown), nullptr));
  // A class that cannot be aggregated refuses an outer object.
  pv = reinterpret_cast<void*>(1);
  EXPECT_EQ(CLASS_E_NOAGGREGATION, CPlainOnly::_CreatorClass::CreateInstance(pOuter, __uuidof(IUnknown), &pv));
  EXPECT_EQ(nullptr, pv);
  // The aggregatable creator makes the plain form without an outer object.
  ASSERT_EQ(S_OK, CAlphaBeta::_CreatorClass::CreateInstance(nullptr, __uuidof(ITestBeta), &pv));
  EXPECT_EQ(pv, Identity(static_cast<ITestBeta*>(pv)));
  static_cast<ITestBeta*>(pv)->Release();
  EXPECT_EQ(0, CAlphaBeta::s_counters.Live());

  // The aggregated object's own outer pointer and controlling unknown are the outer's.
  CComAggObject<CAlphaBeta>* pAgg = nullptr;
  ASSERT_EQ(S_OK, CComAggObject<CAlphaBeta>::CreateInstance(pOuter, &pAgg));
  pAgg->AddRef();
  EXPECT_EQ(static_cast<IUnknown*>(pOuter), pAgg->GetContainedObject()->GetOuterUnknown());
  EXPECT_EQ(static_cast<IUnknown*>(pOuter), pAgg->GetContainedObject()->GetControllingUnknown());
  EXPECT_EQ(1, pOuter->InternalGetRefCount());
  EXPECT_EQ(0u, pAgg->Release());
  EXPECT_EQ(0u, pOuter->Release());
}

TEST_F(ComObjectTest, ConcurrentAddRefAndReleaseLoseNoCountAndDestroyOnce) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 20000;
  CAlphaBetaObject* p = nullptr;
  ASSERT_EQ(S_OK, CAlphaBetaObject::CreateInstance(&p));
  p->AddRef();

  auto fnRun = [](auto fnBody) { RunTogether(kThreads, fnBody); };

  // Half the threads count through AddRef, half through QueryInterface.
  fnRun([p](int t) {
    for (int i = 0; i < kPerThread; ++i) {
      if (t % 2 == 0) {
        p->AddRef();
      } else {
        void* pv = nullptr;
        p->QueryInterface(__uuidof(ITestAlpha), &pv);
      }
    }
  });
  EXPECT_EQ(1 + kThreads * kPerThread, p->InternalGetRefCount());
  fnRun([p](int) {
    for (int i = 0; i < kPerThread; ++i) {
      p->Release();
    }
  });
  EXPECT_EQ(1, p->InternalGetRefCount());
  EXPECT_EQ(0u, p->Release());

  // Many holders dropping their references at once: exactly one destruction per object.
  constexpr int kRounds = 200;
  for (int r = 0; r < kRounds; ++r) {
    ASSERT_EQ(S_OK, CAlphaBetaObject::CreateInstance(&p));
    for (int t = 0; t < kThreads; ++t) {
      p->AddRef();
    }
    fnRun([p](int) { p->Release(); });
  }
  EXPECT_EQ(1 + kRounds, CAlphaBeta::s_counters.cConstructed.load());
  EXPECT_EQ(1 + kRounds, CAlphaBeta::s_counters.cDestroyed.load());
  EXPECT_EQ(1 + kRounds, CAlphaBeta::s_counters.cFinalReleased.load());
}

TEST_F(ComObjectTest, VtableHasExactlyTheComSlots) {
  // No destructor slots: IUnknown is one vtable pointer, and slot 1 of an object's vtable is AddRef,
  // callable as a plain function taking the interface pointer.
  static_assert(sizeof(IUnknown) == sizeof(void*), "IUnknown is a bare vtable pointer");
  CComPtr<ITestBeta> spBeta;
  ASSERT_EQ(S_OK, CAlphaBetaObject::CreateInstance(__uuidof(ITestBeta), reinterpret_cast<void**>(&spBeta)));
  void** ppVtable = *reinterpret_cast<void***>(spBeta.p);
  typedef ULONG(STDMETHODCALLTYPE * PFNADDREF)(ITestBeta*);
  typedef HRESULT(STDMETHODCALLTYPE * PFNGETBETA)(ITestBeta*, LONG*);
  EXPECT_EQ(2u, reinterpret_cast<PFNADDREF>(ppVtable[1])(spBeta.p));
  EXPECT_EQ(1u, reinterpret_cast<PFNADDREF>(ppVtable[2])(spBeta.p));
  LONG lValue = 0;
  EXPECT_EQ(S_OK, reinterpret_cast<PFNGETBETA>(ppVtable[3])(spBeta.p, &lValue));
  EXPECT_EQ(2, lValue);
}
