// A kit object under the real COM runtime (Windows, and Wine): standard marshaling of IUnknown
// between apartments reaches the object's COM map through the runtime's own proxy, and the
// runtime's references are counted and given back like any client's.
#ifdef _WIN32

#include <thread>

#include "TestObjects.h"

using namespace NSCom;
using namespace NSTest;

namespace {

class ComRuntimeTest : public CComKitTest {};

}  // namespace

TEST_F(ComRuntimeTest, IUnknownCrossesApartmentsThroughStandardMarshaling) {
  // The object lives in the multithreaded apartment of a worker thread; this thread is a
  // single-threaded apartment and reaches it through a proxy.
  IStream* pStream = nullptr;
  IUnknown* pObjectIdentity = nullptr;  // not counted: only compared
  HRESULT hrWorker = E_FAIL;
  NSPlatform::COsEvent evMarshaled(true, false);
  NSPlatform::COsEvent evDone(true, false);
  std::thread worker([&] {
    hrWorker = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (SUCCEEDED(hrWorker)) {
      CComPtr<ITestBeta> spBeta;
      hrWorker = CComObject<CAlphaBeta>::CreateInstance(__uuidof(ITestBeta), reinterpret_cast<void**>(&spBeta));
      if (SUCCEEDED(hrWorker)) {
        pObjectIdentity = static_cast<IUnknown*>(spBeta.p);
        hrWorker = CoMarshalInterThreadInterfaceInStream(__uuidof(IUnknown), spBeta, &pStream);
      }
      evMarshaled.Set();
      evDone.Wait(INFINITE);
      spBeta.Release();
      CoUninitialize();
    } else {
      evMarshaled.Set();
    }
  });

  ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED));
  evMarshaled.Wait(INFINITE);
  ASSERT_EQ(S_OK, hrWorker);
  ASSERT_NE(nullptr, pStream);
  {
    CComPtr<IUnknown> spProxy;
    ASSERT_EQ(S_OK, CoGetInterfaceAndReleaseStream(pStream, __uuidof(IUnknown), reinterpret_cast<void**>(&spProxy)));
    ASSERT_TRUE(spProxy);
    EXPECT_NE(pObjectIdentity, spProxy.p);
    // The object and the runtime's references to it.
    EXPECT_EQ(1, CAlphaBeta::s_counters.Live());
    CComPtr<IUnknown> spIdentity;
    EXPECT_EQ(S_OK, spProxy->QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&spIdentity)));
    EXPECT_EQ(spProxy.p, spIdentity.p);
    // An interface nobody serves: the remote query reaches the object's map and fails there.
    void* pv = reinterpret_cast<void*>(1);
    EXPECT_EQ(E_NOINTERFACE, spProxy->QueryInterface(__uuidof(ITestNobody), &pv));
    EXPECT_EQ(nullptr, pv);
  }
  CoUninitialize();
  evDone.Set();
  worker.join();
  // When both apartments are gone, the runtime has released everything it held.
  EXPECT_EQ(0, CAlphaBeta::s_counters.Live());
  EXPECT_EQ(1, CAlphaBeta::s_counters.cFinalReleased.load());
}

TEST_F(ComRuntimeTest, MarshalingWithinOneApartmentGivesBackTheObjectItself) {
  ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED));
  {
    CComPtr<ITestBeta> spBeta;
    ASSERT_EQ(S_OK, CComObject<CAlphaBeta>::CreateInstance(__uuidof(ITestBeta), reinterpret_cast<void**>(&spBeta)));
    IStream* pStream = nullptr;
    ASSERT_EQ(S_OK, CoMarshalInterThreadInterfaceInStream(__uuidof(IUnknown), spBeta, &pStream));
    CComPtr<IUnknown> spUnk;
    std::thread other([&] {
      if (SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
        CoGetInterfaceAndReleaseStream(pStream, __uuidof(IUnknown), reinterpret_cast<void**>(&spUnk));
        CoUninitialize();
      }
    });
    other.join();
    EXPECT_EQ(static_cast<IUnknown*>(spBeta.p), spUnk.p);
  }
  CoUninitialize();
}

#endif  // _WIN32
