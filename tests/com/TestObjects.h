// Interfaces and kit classes shared by the COM kit tests. Every class counts its live instances
// and its FinalRelease calls, so that tests see leaks and double destruction directly.
#pragma once

#include <atomic>
#include <new>

#include <gtest/gtest.h>

#include "com/ComKit.h"

MIDL_INTERFACE("6B1D3C10-4F0A-4C55-9E21-0A7C51D2E001")
ITestAlpha : public IUnknown {
  STDMETHOD(GetAlpha)(LONG * pValue) = 0;
};
__CRT_UUID_DECL(ITestAlpha, 0x6B1D3C10, 0x4F0A, 0x4C55, 0x9E, 0x21, 0x0A, 0x7C, 0x51, 0xD2, 0xE0, 0x01)

MIDL_INTERFACE("6B1D3C10-4F0A-4C55-9E21-0A7C51D2E002")
ITestBeta : public IUnknown {
  STDMETHOD(GetBeta)(LONG * pValue) = 0;
};
__CRT_UUID_DECL(ITestBeta, 0x6B1D3C10, 0x4F0A, 0x4C55, 0x9E, 0x21, 0x0A, 0x7C, 0x51, 0xD2, 0xE0, 0x02)

// Derived from ITestAlpha, so a class serving it inherits ITestAlpha through it.
MIDL_INTERFACE("6B1D3C10-4F0A-4C55-9E21-0A7C51D2E003")
ITestGamma : public ITestAlpha {
  STDMETHOD(GetGamma)(LONG * pValue) = 0;
};
__CRT_UUID_DECL(ITestGamma, 0x6B1D3C10, 0x4F0A, 0x4C55, 0x9E, 0x21, 0x0A, 0x7C, 0x51, 0xD2, 0xE0, 0x03)

MIDL_INTERFACE("6B1D3C10-4F0A-4C55-9E21-0A7C51D2E004")
ITestDelta : public IUnknown {
  STDMETHOD(GetDelta)(LONG * pValue) = 0;
};
__CRT_UUID_DECL(ITestDelta, 0x6B1D3C10, 0x4F0A, 0x4C55, 0x9E, 0x21, 0x0A, 0x7C, 0x51, 0xD2, 0xE0, 0x04)

// Served by nobody.
MIDL_INTERFACE("6B1D3C10-4F0A-4C55-9E21-0A7C51D2E0FF")
ITestNobody : public IUnknown {};
__CRT_UUID_DECL(ITestNobody, 0x6B1D3C10, 0x4F0A, 0x4C55, 0x9E, 0x21, 0x0A, 0x7C, 0x51, 0xD2, 0xE0, 0xFF)

namespace NSTest {

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
