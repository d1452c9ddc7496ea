// Interfaces and kit classes shared by the COM kit tests. Every class counts its live instances
// and its FinalRelease calls, so that tests see leaks and double destruction directly.
#pragma once

#include <atomic>
#include <new>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "com/ComKit.h"

// A test interface with one getter, derived from base, whose GUID ends in the byte last (two hex
// digits).
#define KV_TEST_INTERFACE(name, base, method, last)                   \
  MIDL_INTERFACE("6B1D3C10-4F0A-4C55-9E21-0A7C51D2E0" #last)          \
  name : public base {                                                \
    STDMETHOD(method)(LONG * pValue) = 0;                             \
  };                                                                  \
  __CRT_UUID_DECL(name, 0x6B1D3C10, 0x4F0A, 0x4C55, 0x9E, 0x21, 0x0A, 0x7C, 0x51, 0xD2, 0xE0, 0x##last)

KV_TEST_INTERFACE(ITestAlpha, IUnknown, GetAlpha, 01)
KV_TEST_INTERFACE(ITestBeta, IUnknown, GetBeta, 02)
// Derived from ITestAlpha, so a class serving it inherits ITestAlpha through it.
KV_TEST_INTERFACE(ITestGamma, ITestAlpha, GetGamma, 03)
KV_TEST_INTERFACE(ITestDelta, IUnknown, GetDelta, 04)

// Served by nobody.
MIDL_INTERFACE("6B1D3C10-4F0A-4C55-9E21-0A7C51D2E0FF")
ITestNobody : public IUnknown {};
__CRT_UUID_DECL(ITestNobody, 0x6B1D3C10, 0x4F0A, 0x4C55, 0x9E, 0x21, 0x0A, 0x7C, 0x51, 0xD2, 0xE0, 0xFF)

namespace NSTest {

// Runs fnBody(t) for t = 0 .. cThreads - 1, each on a thread of its own, all released at once, and
// waits for them.
template <class TBody>
void RunTogether(int cThreads, TBody fnBody) {
  std::atomic<bool> bGo{false};
  std::vector<std::thread> vThreads;
  for (int t = 0; t < cThreads; ++t) {
    vThreads.emplace_back([&, t] {
      while (!bGo.load()) std::this_thread::yield();
      fnBody(t);
    });
  }
  bGo = true;
  for (std::thread& thread : vThreads) thread.join();
}

// Per-class counters of constructions, destructions and FinalRelease calls.
struct SCounters {
  std::atomic<int> cConstructed{0};
  std::atomic<int> cDestroyed{0};
  std::atomic<int> cFinalReleased{0};
  int Live() const { return cConstructed.load() - cDestroyed.load(); }
  void Reset() {
    cConstructed = 0;
    cDestroyed = 0;
    cFinalReleased = 0;
  }
};

template <class TTag>
class CCounted {
 public:
  static inline SCounters s_counters;
  CCounted() { ++s_counters.cConstructed; }
  ~CCounted() { ++s_counters.cDestroyed; }
  CCounted(const CCounted&) = delete;
  CCounted& operator=(const CCounted&) = delete;
};

// Serves ITestBeta (first: its identity), ITestAlpha through ITestGamma, and ITestGamma.
class CAlphaBeta : public NSCom::CComObjectRootEx,
                   public NSCom::CComCoClass<CAlphaBeta>,
                   public CCounted<CAlphaBeta>,
                   public ITestGamma,
                   public ITestBeta {
 public:
  BEGIN_COM_MAP(CAlphaBeta)
    COM_INTERFACE_ENTRY(ITestBeta)
    COM_INTERFACE_ENTRY2(ITestAlpha, ITestGamma)
    COM_INTERFACE_ENTRY(ITestGamma)
  END_COM_MAP()

  void FinalRelease() { ++s_counters.cFinalReleased; }

  STDMETHOD(GetAlpha)(LONG* pValue) override { return Answer(pValue, 1); }
  STDMETHOD(GetGamma)(LONG* pValue) override { return Answer(pValue, 3); }
  STDMETHOD(GetBeta)(LONG* pValue) override { return Answer(pValue, 2); }

 private:
  static HRESULT Answer(LONG* pValue, LONG lValue) {
    if (pValue == nullptr) {
      return E_POINTER;
    }
    *pValue = lValue;
    return S_OK;
  }
};

// Not aggregatable; ITestAlpha only.
class CPlainOnly : public NSCom::CComObjectRootEx,
                   public NSCom::CComCoClass<CPlainOnly>,
                   public CCounted<CPlainOnly>,
                   public ITestAlpha {
 public:
  DECLARE_NOT_AGGREGATABLE(CPlainOnly)
  BEGIN_COM_MAP(CPlainOnly)
    COM_INTERFACE_ENTRY(ITestAlpha)
  END_COM_MAP()

  void FinalRelease() { ++s_counters.cFinalReleased; }
  STDMETHOD(GetAlpha)(LONG* pValue) override {
    *pValue = 10;
    return S_OK;
  }
};

// An outer object that aggregates a CAlphaBeta: serves ITestDelta itself, ITestAlpha through an
// explicit aggregate row and everything else the inner has through a blind one.
class COuter : public NSCom::CComObjectRootEx, public CCounted<COuter>, public ITestDelta {
 public:
  BEGIN_COM_MAP(COuter)
    COM_INTERFACE_ENTRY(ITestDelta)
    COM_INTERFACE_ENTRY_AGGREGATE(__uuidof(ITestAlpha), m_pInner)
    COM_INTERFACE_ENTRY_AGGREGATE_BLIND(m_pInner)
  END_COM_MAP()

  HRESULT FinalConstruct() {
    return NSCom::CComAggObject<CAlphaBeta>::CreateInstance(GetControllingUnknown(), __uuidof(IUnknown),
                                                           reinterpret_cast<void**>(&m_pInner));
  }
  void FinalRelease() {
    ++s_counters.cFinalReleased;
    if (m_pInner != nullptr) {
      m_pInner->Release();
      m_pInner = nullptr;
    }
  }
  STDMETHOD(GetDelta)(LONG* pValue) override {
    *pValue = 4;
    return S_OK;
  }

  IUnknown* m_pInner = nullptr;  // the inner unknown, owned
};

// FinalConstruct fails in the way s_eMode says.
class CFailing : public NSCom::CComObjectRootEx,
                 public NSCom::CComCoClass<CFailing>,
                 public CCounted<CFailing>,
                 public ITestAlpha {
 public:
  enum class EMode { Succeed, ReturnError, ThrowComException, ThrowBadAlloc, SelfReference };
  static inline EMode s_eMode = EMode::Succeed;

  BEGIN_COM_MAP(CFailing)
    COM_INTERFACE_ENTRY(ITestAlpha)
  END_COM_MAP()

  HRESULT FinalConstruct() {
    switch (s_eMode) {
      case EMode::ReturnError:
        return E_ACCESSDENIED;
      case EMode::ThrowComException:
        NSCom::ThrowHResult(E_HANDLE);
      case EMode::ThrowBadAlloc:
        throw std::bad_alloc();
      case EMode::SelfReference: {
        // Takes and drops a reference to itself, as an object registering itself somewhere would.
        IUnknown* pSelf = nullptr;
        HRESULT hr = QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&pSelf));
        if (SUCCEEDED(hr)) {
          pSelf->Release();
        }
        return hr;
      }
      case EMode::Succeed:
        break;
    }
    return S_OK;
  }
  void FinalRelease() { ++s_counters.cFinalReleased; }
  STDMETHOD(GetAlpha)(LONG* pValue) override {
    *pValue = 5;
    return S_OK;
  }
};

// Checks the process-wide invariants around each test: no object of the kit outlives a test and the
// module lock count comes back to zero.
class CComKitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, NSCom::CComModule::GetLockCount());
    CAlphaBeta::s_counters.Reset();
    CPlainOnly::s_counters.Reset();
    COuter::s_counters.Reset();
    CFailing::s_counters.Reset();
    CFailing::s_eMode = CFailing::EMode::Succeed;
  }
  void TearDown() override {
    EXPECT_EQ(0, CAlphaBeta::s_counters.Live());
    EXPECT_EQ(0, CPlainOnly::s_counters.Live());
    EXPECT_EQ(0, COuter::s_counters.Live());
    EXPECT_EQ(0, CFailing::s_counters.Live());
    EXPECT_EQ(0, NSCom::CComModule::GetLockCount());
  }
};

}  // namespace NSTest
