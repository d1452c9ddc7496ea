// Class factories, the module's object map and class-object cache, and the module lock count that
// DllCanUnloadNow reads.
#include <algorithm>
#include <iterator>
#include <thread>
#include <vector>

#include "TestObjects.h"

using namespace NSCom;
using namespace NSTest;

namespace {

const CLSID kClsidAlphaBeta = {0x0D8E4F51, 0x7C2B, 0x4E1A, {0x9B, 0x11, 0x5A, 0x3C, 0x2E, 0x7F, 0x10, 0x01}};
const CLSID kClsidPlainOnly = {0x0D8E4F51, 0x7C2B, 0x4E1A, {0x9B, 0x11, 0x5A, 0x3C, 0x2E, 0x7F, 0x10, 0x02}};
const CLSID kClsidCustom = {0x0D8E4F51, 0x7C2B, 0x4E1A, {0x9B, 0x11, 0x5A, 0x3C, 0x2E, 0x7F, 0x10, 0x03}};
const CLSID kClsidMissing = {0x0D8E4F51, 0x7C2B, 0x4E1A, {0x9B, 0x11, 0x5A, 0x3C, 0x2E, 0x7F, 0x10, 0xFF}};

// A class object of its own kind, as a factory object that is also the class object: it refuses
// IClassFactory::CreateInstance and serves an interface of its own.
class CCustomFactory : public CComObjectRootEx,
                       public CCounted<CCustomFactory>,
                       public IClassFactory,
                       public ITestDelta {
 public:
  BEGIN_COM_MAP(CCustomFactory)
    COM_INTERFACE_ENTRY(IClassFactory)
    COM_INTERFACE_ENTRY(ITestDelta)
  END_COM_MAP()

  STDMETHOD(CreateInstance)(IUnknown*, REFIID, void** ppv) override {
    if (ppv != nullptr) {
      *ppv = nullptr;
    }
    return E_NOTIMPL;
  }
  STDMETHOD(LockServer)(BOOL fLock) override {
    fLock ? CComModule::Lock() : CComModule::Unlock();
    return S_OK;
  }
  STDMETHOD(GetDelta)(LONG* pValue) override {
    *pValue = 40;
    return S_OK;
  }
};

class CCustomClass : public CComObjectRootEx, public CComCoClass<CCustomClass>, public ITestAlpha {
 public:
  DECLARE_CLASSFACTORY_EX(CCustomFactory)
  BEGIN_COM_MAP(CCustomClass)
    COM_INTERFACE_ENTRY(ITestAlpha)
  END_COM_MAP()
  STDMETHOD(GetAlpha)(LONG*) override { return S_OK; }
};

// A hand-written outer object: just an identity that counts its references.
class CBareOuter : public IUnknown {
 public:
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    *ppv = IsEqualIID(riid, __uuidof(IUnknown)) ? static_cast<IUnknown*>(this) : nullptr;
    if (*ppv == nullptr) {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  STDMETHOD_(ULONG, AddRef)() override { return ++m_cRef; }
  STDMETHOD_(ULONG, Release)() override { return --m_cRef; }
  std::atomic<LONG> m_cRef{1};
};

class ComFactoryTest : public CComKitTest {
 protected:
  void SetUp() override {
    CComKitTest::SetUp();
    CCustomFactory::s_counters.Reset();
    SObjectMapEntry aEntries[] = {
        OBJECT_ENTRY(kClsidAlphaBeta, CAlphaBeta, 104),
        OBJECT_ENTRY(kClsidCustom, CCustomClass, 103),
        OBJECT_ENTRY(kClsidPlainOnly, CPlainOnly, 102),
    };
    static_assert(sizeof(aEntries) == sizeof(m_aObjectMap), "three entries");
    std::copy(std::begin(aEntries), std::end(aEntries), m_aObjectMap);
    CComModule::Init(m_aObjectMap, 3);
  }
  void TearDown() override {
    CComModule::Term();
    EXPECT_EQ(0, CCustomFactory::s_counters.Live());
    CComKitTest::TearDown();
  }

  CComPtr<IClassFactory> ClassFactory(REFCLSID rclsid) {
    CComPtr<IClassFactory> spFactory;
    EXPECT_EQ(S_OK, CComModule::GetClassObject(rclsid, __uuidof(IClassFactory), reinterpret_cast<void**>(&spFactory)));
    return spFactory;
  }

  SObjectMapEntry m_aObjectMap[3];
};

}  // namespace

TEST_F(ComFactoryTest, ClassObjectsAreFoundInTheMapAndMadeOnce) {
  EXPECT_EQ(E_POINTER, CComModule::GetClassObject(kClsidAlphaBeta, __uuidof(IClassFactory), nullptr));
  void* pv = reinterpret_cast<void*>(1);
  EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, CComModule::GetClassObject(kClsidMissing, __uuidof(IClassFactory), &pv));
  EXPECT_EQ(nullptr, pv);

  size_t cEntries = 0;
  const SObjectMapEntry* pMap = CComModule::GetObjectMap(&cEntries);
  ASSERT_EQ(3u, cEntries);
  EXPECT_EQ(104u, pMap[0].nRegistryScriptId);
  EXPECT_EQ(nullptr, pMap[0].pClassObject);

  CComPtr<IClassFactory> spFirst = ClassFactory(kClsidAlphaBeta);
  ASSERT_TRUE(spFirst);
  EXPECT_NE(nullptr, pMap[0].pClassObject);
  // A client's reference to a class object holds the module; the cache's does not.
  EXPECT_EQ(1, CComModule::GetLockCount());
  EXPECT_EQ(S_FALSE, CComModule::CanUnloadNow());
  CComPtr<IClassFactory> spSecond = ClassFactory(kClsidAlphaBeta);
  EXPECT_EQ(spFirst.p, spSecond.p);
  EXPECT_NE(spFirst.p, ClassFactory(kClsidPlainOnly).p);
  EXPECT_EQ(E_NOINTERFACE, CComModule::GetClassObject(kClsidAlphaBeta, __uuidof(ITestNobody), &pv));
  EXPECT_EQ(nullptr, pv);
  spFirst.Release();
  spSecond.Release();
  EXPECT_EQ(0, CComModule::GetLockCount());
  EXPECT_EQ(S_OK, CComModule::CanUnloadNow());
  EXPECT_NE(nullptr, pMap[0].pClassObject);

  // Term lets go of the cached class objects; the module then refuses requests.
  CComModule::Term();
  EXPECT_FALSE(CComModule::IsInitialized());
  EXPECT_EQ(nullptr, m_aObjectMap[0].pClassObject);
  EXPECT_EQ(E_UNEXPECTED, CComModule::GetClassObject(kClsidAlphaBeta, __uuidof(IClassFactory), &pv));
  EXPECT_EQ(nullptr, pv);
}

TEST_F(ComFactoryTest, CreateInstanceAppliesTheAggregationRules) {
  CComPtr<IClassFactory> spFactory = ClassFactory(kClsidAlphaBeta);
  CComPtr<ITestBeta> spBeta;
  ASSERT_EQ(S_OK, spFactory->CreateInstance(nullptr, __uuidof(ITestBeta), reinterpret_cast<void**>(&spBeta)));
  EXPECT_EQ(1, CAlphaBeta::s_counters.Live());
  // The factory and the object.
  EXPECT_EQ(2, CComModule::GetLockCount());

  void* pv = reinterpret_cast<void*>(1);
  EXPECT_EQ(E_NOINTERFACE, spFactory->CreateInstance(nullptr, __uuidof(ITestNobody), &pv));
  EXPECT_EQ(nullptr, pv);
  EXPECT_EQ(1, CAlphaBeta::s_counters.Live());
  EXPECT_EQ(E_POINTER, spFactory->CreateInstance(nullptr, __uuidof(ITestBeta), nullptr));

  CBareOuter outer;
  pv = reinterpret_cast<void*>(1);
  EXPECT_EQ(CLASS_E_NOAGGREGATION, spFactory->CreateInstance(&outer, __uuidof(ITestBeta), &pv));
  EXPECT_EQ(nullptr, pv);
  IUnknown* pInner = nullptr;
  ASSERT_EQ(S_OK, spFactory->CreateInstance(&outer, __uuidof(IUnknown), reinterpret_cast<void**>(&pInner)));
  EXPECT_EQ(2, CAlphaBeta::s_counters.Live());
  {
    CComPtr<ITestAlpha> spAlpha;
    ASSERT_EQ(S_OK, pInner->QueryInterface(__uuidof(ITestAlpha), reinterpret_cast<void**>(&spAlpha)));
    EXPECT_EQ(2, outer.m_cRef.load());
    CComPtr<IUnknown> spIdentity;
    ASSERT_EQ(S_OK, spAlpha->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&spIdentity)));
    EXPECT_EQ(static_cast<IUnknown*>(&outer), spIdentity.p);
  }
  EXPECT_EQ(1, outer.m_cRef.load());
  EXPECT_EQ(0u, pInner->Release());
  EXPECT_EQ(1, CAlphaBeta::s_counters.Live());

  CComPtr<IClassFactory> spPlainFactory = ClassFactory(kClsidPlainOnly);
  pv = reinterpret_cast<void*>(1);
  EXPECT_EQ(CLASS_E_NOAGGREGATION, spPlainFactory->CreateInstance(&outer, __uuidof(IUnknown), &pv));
  EXPECT_EQ(nullptr, pv);
  EXPECT_EQ(0, CPlainOnly::s_counters.Live());
  CComPtr<ITestAlpha> spPlain;
  EXPECT_EQ(S_OK, spPlainFactory->CreateInstance(nullptr, __uuidof(ITestAlpha), reinterpret_cast<void**>(&spPlain)));
  EXPECT_EQ(1, CPlainOnly::s_counters.Live());
}

TEST_F(ComFactoryTest, LockServerHoldsTheModule) {
  CComPtr<IClassFactory> spFactory = ClassFactory(kClsidAlphaBeta);
  EXPECT_EQ(S_OK, spFactory->LockServer(TRUE));
  EXPECT_EQ(S_OK, spFactory->LockServer(TRUE));
  EXPECT_EQ(3, CComModule::GetLockCount());
  spFactory.Release();
  EXPECT_EQ(2, CComModule::GetLockCount());
  EXPECT_EQ(S_FALSE, CComModule::CanUnloadNow());
  spFactory = ClassFactory(kClsidAlphaBeta);
  EXPECT_EQ(S_OK, spFactory->LockServer(FALSE));
  EXPECT_EQ(S_OK, spFactory->LockServer(FALSE));
  spFactory.Release();
  EXPECT_EQ(S_OK, CComModule::CanUnloadNow());
}

TEST_F(ComFactoryTest, OwnClassObjectIsUsedAndCached) {
  CComPtr<ITestDelta> spDelta;
  ASSERT_EQ(S_OK, CComModule::GetClassObject(kClsidCustom, __uuidof(ITestDelta), reinterpret_cast<void**>(&spDelta)));
  LONG lValue = 0;
  spDelta->GetDelta(&lValue);
  EXPECT_EQ(40, lValue);
  CComPtr<IClassFactory> spFactory = ClassFactory(kClsidCustom);
  EXPECT_TRUE(spFactory.IsEqualObject(spDelta));
  void* pv = reinterpret_cast<void*>(1);
  EXPECT_EQ(E_NOTIMPL, spFactory->CreateInstance(nullptr, __uuidof(ITestAlpha), &pv));
  EXPECT_EQ(nullptr, pv);
  EXPECT_EQ(1, CCustomFactory::s_counters.cConstructed.load());
}

TEST_F(ComFactoryTest, ConcurrentFirstRequestsShareOneClassObject) {
  constexpr int kThreads = 8;
  std::vector<IClassFactory*> vFactories(kThreads, nullptr);
  std::vector<HRESULT> vResults(kThreads, E_FAIL);
  RunTogether(kThreads, [&](int t) {
    vResults[t] = CComModule::GetClassObject(kClsidCustom, __uuidof(IClassFactory),
                                             reinterpret_cast<void**>(&vFactories[t]));
  });
  EXPECT_EQ(1, CCustomFactory::s_counters.cConstructed.load());
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(S_OK, vResults[t]);
    EXPECT_EQ(vFactories[0], vFactories[t]);
  }
  // The clients' references together hold the module once.
  EXPECT_EQ(1, CComModule::GetLockCount());
  for (IClassFactory* pFactory : vFactories) {
    pFactory->Release();
  }
  EXPECT_EQ(0, CComModule::GetLockCount());
}
