#ifdef _WIN32

#include "marshal/MarshalHarness.h"

#include <cstdio>
#include <utility>

// The leading members of rpcproxy.h's ProxyFileInfo and CInterfaceStubVtbl, which that header
// declares for C only.
struct SProxyFileInfoHead {
  const void* const* pProxyVtblList;
  const struct SStubVtblHead* const* pStubVtblList;
  const char* const* pNamesArray;
  const IID** pDelegatedIIDs;
  const void* pIIDLookupRtn;
  unsigned short TableSize;
  unsigned short TableVersion;
};
struct SStubVtblHead {
  const IID* piid;
};

// dlldata.c's description of the proxy file list and of the class its factory is served under.
extern "C" void RPC_ENTRY GetProxyDllInfo(const SProxyFileInfoHead*** ppInfo, const CLSID** ppClsid);

using NSCom::CComPtr;

namespace NSTest {

SProxyStubInfo GetProxyStubInfo() {
  SProxyStubInfo info{};
  const SProxyFileInfoHead** ppList = nullptr;
  const CLSID* pClsid = nullptr;
  GetProxyDllInfo(&ppList, &pClsid);
  if (pClsid != nullptr) {
    info.clsid = *pClsid;
  }
  for (const SProxyFileInfoHead** pp = ppList; pp != nullptr && *pp != nullptr; ++pp) {
    for (unsigned short i = 0; i < (*pp)->TableSize; ++i) {
      info.vInterfaces.push_back(*(*pp)->pStubVtblList[i]->piid);
      info.vNames.push_back((*pp)->pNamesArray[i]);
    }
  }
  return info;
}

HRESULT CProxyStubRegistration::Register() {
  const SProxyStubInfo info = GetProxyStubInfo();
  if (info.vInterfaces.empty()) {
    return E_UNEXPECTED;
  }
  CComPtr<IUnknown> spFactory;
  HRESULT hr = PrxDllGetClassObject(info.clsid, IID_IPSFactoryBuffer, reinterpret_cast<void**>(&spFactory));
  if (FAILED(hr)) {
    return hr;
  }
  hr = CoRegisterClassObject(info.clsid, spFactory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &m_dwCookie);
  if (FAILED(hr)) {
    m_dwCookie = 0;
    return hr;
  }
  for (const IID& iid : info.vInterfaces) {
    hr = CoRegisterPSClsid(iid, info.clsid);
    if (FAILED(hr)) {
      return hr;
    }
  }
  return S_OK;
}

void CProxyStubRegistration::Revoke() {
  if (m_dwCookie != 0) {
    CoRevokeClassObject(m_dwCookie);
    m_dwCookie = 0;
  }
}

[[noreturn]] void DieOfHang(const char* pszWhat) {
  std::fprintf(stderr, "FATAL: %s did not finish within the wait limit; ending the process\n", pszWhat);
  std::fflush(stderr);
  TerminateProcess(GetCurrentProcess(), 3);
  for (;;) {
  }
}

CHangGuard::CHangGuard(const char* pszWhat) : m_hDisarm(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
  HANDLE hDisarm = m_hDisarm;
  m_watcher = std::thread([hDisarm, pszWhat] {
    if (WaitForSingleObject(hDisarm, kHangLimitMs) != WAIT_OBJECT_0) {
      DieOfHang(pszWhat);
    }
  });
}

CHangGuard::~CHangGuard() {
  SetEvent(m_hDisarm);
  m_watcher.join();
  CloseHandle(m_hDisarm);
}

// ---- CServerApartment -------------------------------------------------------------------------------

CServerApartment::~CServerApartment() {
  Stop();
  if (m_hReady != nullptr) {
    CloseHandle(m_hReady);
  }
  if (m_hDone != nullptr) {
    CloseHandle(m_hDone);
  }
}

HRESULT CServerApartment::Start(std::function<HRESULT()> fnSetUp, std::function<void()> fnTearDown) {
  m_fnSetUp = std::move(fnSetUp);
  m_fnTearDown = std::move(fnTearDown);
  m_hReady = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  m_hDone = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (m_hReady == nullptr || m_hDone == nullptr) {
    return HRESULT_FROM_WIN32(GetLastError());
  }
  m_thread = std::thread([this] { Run(); });
  if (WaitForSingleObject(m_hReady, kWaitLimitMs) != WAIT_OBJECT_0) {
    DieOfHang("the server apartment's set-up");
  }
  return m_hrStart;
}

void CServerApartment::Stop() {
  if (!m_thread.joinable()) {
    return;
  }
  PostThreadMessageW(m_dwThreadId, WM_QUIT, 0, 0);
  if (WaitForSingleObject(m_hDone, kWaitLimitMs) != WAIT_OBJECT_0) {
    DieOfHang("the server apartment's shutdown");
  }
  m_thread.join();
}

void CServerApartment::Run() {
  m_dwThreadId = GetCurrentThreadId();
  // The queue exists before anyone is told the thread is ready, so that WM_QUIT cannot be lost.
  MSG msg;
  PeekMessageW(&msg, nullptr, WM_USER, WM_USER, PM_NOREMOVE);
  HRESULT hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  if (FAILED(hr)) {
    m_hrStart = hr;
    SetEvent(m_hReady);
    SetEvent(m_hDone);
    return;
  }
  {
    CProxyStubRegistration registration;
    hr = registration.Register();
    if (SUCCEEDED(hr)) {
      hr = m_fnSetUp();
    }
    m_hrStart = hr;
    SetEvent(m_hReady);
    if (SUCCEEDED(hr)) {
      while (GetMessageW(&msg, nullptr, 0, 0) > 0) {
        TranslateMessage(&msg);
        DispatchMessageW(&msg);
      }
    }
    m_fnTearDown();
  }
  CoUninitialize();
  SetEvent(m_hDone);
}

// ---- Values ----------------------------------------------------------------------------------------

std::vector<BYTE> Pattern(size_t cb, unsigned uSeed) {
  std::vector<BYTE> v(cb);
  uint32_t x = 0x9E3779B9u * (uSeed + 1);
  for (size_t i = 0; i < cb; ++i) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    v[i] = static_cast<BYTE>(x ^ (i >> 8));
  }
  return v;
}

// ---- CMarshalTest ----------------------------------------------------------------------------------

void CMarshalTest::SetUp() {
  m_pGuard = std::make_unique<CHangGuard>(::testing::UnitTest::GetInstance()->current_test_info()->name());
  ASSERT_EQ(0, g_cLiveObjects.load());
  ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED));
  m_bComInitialized = true;
  ASSERT_EQ(S_OK, m_clientRegistration.Register());

  const HRESULT hrServer = m_server.Start(
      [this]() -> HRESULT {
        HRESULT hr = CScriptedRecord::Create(L"record", &m_spServerRecord, &m_pRecord);
        if (SUCCEEDED(hr)) {
          hr = CScriptedArchive::Create(L"C:\\archive", &m_spServerArchive, &m_pArchive);
        }
        if (SUCCEEDED(hr)) {
          hr = CScriptedFactory::Create(&m_spServerFactory, &m_pFactory);
        }
        // Three partitions born in the server apartment.
        for (const WCHAR* psz : {L"D:\\part0", L"E:\\part1", L"F:\\part2"}) {
          CComPtr<IMultipartArchive> spPart;
          if (SUCCEEDED(hr)) {
            hr = CScriptedArchive::Create(psz, &spPart);
          }
          if (SUCCEEDED(hr)) {
            m_pArchive->m_vPartitions.emplace_back(spPart);
          }
        }
        if (SUCCEEDED(hr)) {
          hr = CoMarshalInterThreadInterfaceInStream(__uuidof(IRecordEx), m_spServerRecord, &m_apStreams[0]);
        }
        if (SUCCEEDED(hr)) {
          hr = CoMarshalInterThreadInterfaceInStream(__uuidof(IMultipartArchive), m_spServerArchive,
                                                     &m_apStreams[1]);
        }
        if (SUCCEEDED(hr)) {
          hr = CoMarshalInterThreadInterfaceInStream(__uuidof(IArchiveFactory), m_spServerFactory,
                                                     &m_apStreams[2]);
        }
        return hr;
      },
      [this] {
        m_spServerRecord.Release();
        m_spServerArchive.Release();
        m_spServerFactory.Release();
      });
  ASSERT_EQ(S_OK, hrServer);

  IStream* pStream = std::exchange(m_apStreams[0], nullptr);
  ASSERT_EQ(S_OK, CoGetInterfaceAndReleaseStream(pStream, __uuidof(IRecordEx), reinterpret_cast<void**>(&m_spRecord)));
  pStream = std::exchange(m_apStreams[1], nullptr);
  ASSERT_EQ(S_OK,
            CoGetInterfaceAndReleaseStream(pStream, __uuidof(IMultipartArchive), reinterpret_cast<void**>(&m_spArchive)));
  pStream = std::exchange(m_apStreams[2], nullptr);
  ASSERT_EQ(S_OK,
            CoGetInterfaceAndReleaseStream(pStream, __uuidof(IArchiveFactory), reinterpret_cast<void**>(&m_spFactory)));
}

void CMarshalTest::TearDown() {
  m_spRecord.Release();
  m_spArchive.Release();
  m_spFactory.Release();
  for (IStream*& pStream : m_apStreams) {
    if (pStream != nullptr) {
      CoReleaseMarshalData(pStream);
      pStream->Release();
      pStream = nullptr;
    }
  }
  m_server.Stop();
  m_clientRegistration.Revoke();
  if (m_bComInitialized) {
    CoUninitialize();
  }
  // Whatever either apartment made, the runtime's references included, is gone with them.
  EXPECT_EQ(0, g_cLiveObjects.load());
  m_pGuard.reset();
}

}  // namespace NSTest

#endif  // _WIN32
