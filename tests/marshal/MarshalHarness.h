// What the cross-apartment tests stand on: our proxy/stub registered inside the test process, a
// single-threaded apartment on its own thread that owns the scripted objects, and a guard that ends
// the process instead of letting a lost call hang the run.
//
// The objects live in the server apartment; the test thread is in the multithreaded apartment and
// reaches them through proxies built from kronvale_p.c. Client-side objects handed to the server
// (a merge source, a partition) are called back on the runtime's threads of the multithreaded
// apartment, so the test thread may block while the server runs.
#pragma once

#ifdef _WIN32

#include <windows.h>

#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <kronvale/kronvale.h>

#include "com/ComKit.h"
#include "marshal/ScriptedObjects.h"

// dlldata.c's entry point, prefixed so that the module can offer requests to the proxy/stub before
// its own object map.
extern "C" HRESULT STDAPICALLTYPE PrxDllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv);

namespace NSTest {

// Every wait of the harness is bounded by this; a test whose calls do not come back within
// kHangLimitMs is reported and the process ends.
constexpr DWORD kWaitLimitMs = 30000;
constexpr DWORD kHangLimitMs = 120000;

// The proxy/stub of kronvale_p.c as dlldata.c exposes it: its class identifier and the interfaces
// of its proxy file list.
struct SProxyStubInfo {
  CLSID clsid;
  std::vector<IID> vInterfaces;
  std::vector<const char*> vNames;
};
SProxyStubInfo GetProxyStubInfo();

// Registers the proxy/stub's factory in the current apartment under the proxy class identifier and
// points every interface of the proxy file list at it (CoRegisterPSClsid), so that no registry
// entry is needed. Both are registrations of the running process; the class object is revoked by
// the destructor.
class CProxyStubRegistration {
 public:
  CProxyStubRegistration() = default;
  ~CProxyStubRegistration() { Revoke(); }
  CProxyStubRegistration(const CProxyStubRegistration&) = delete;
  CProxyStubRegistration& operator=(const CProxyStubRegistration&) = delete;
  HRESULT Register();
  void Revoke();

 private:
  DWORD m_dwCookie = 0;
};

// Ends the process with a message when it is not disarmed within kHangLimitMs: a marshaled call
// that never returns cannot be failed any other way.
class CHangGuard {
 public:
  explicit CHangGuard(const char* pszWhat);
  ~CHangGuard();
  CHangGuard(const CHangGuard&) = delete;
  CHangGuard& operator=(const CHangGuard&) = delete;

 private:
  HANDLE m_hDisarm;
  std::thread m_watcher;
};

// Reports a wait that ran out and ends the process (the waited-for thread cannot be joined).
[[noreturn]] void DieOfHang(const char* pszWhat);

// A single-threaded apartment on its own thread, with a message loop. fnSetUp runs on that thread
// after COM and the proxy/stub are set up (it creates the objects and marshals them); fnTearDown
// runs there after the loop ends, before CoUninitialize.
class CServerApartment {
 public:
  CServerApartment() = default;
  ~CServerApartment();
  CServerApartment(const CServerApartment&) = delete;
  CServerApartment& operator=(const CServerApartment&) = delete;

  // The set-up's result, or the failure of COM's initialisation or registration.
  HRESULT Start(std::function<HRESULT()> fnSetUp, std::function<void()> fnTearDown);
  void Stop();
  DWORD ThreadId() const { return m_dwThreadId; }

 private:
  void Run();

  std::function<HRESULT()> m_fnSetUp;
  std::function<void()> m_fnTearDown;
  std::thread m_thread;
  HANDLE m_hReady = nullptr;
  HANDLE m_hDone = nullptr;
  HRESULT m_hrStart = E_FAIL;
  DWORD m_dwThreadId = 0;
};

// ---- Values ----------------------------------------------------------------------------------------

inline FILETIME Ft(ULONGLONG ull) {
  FILETIME ft;
  ft.dwLowDateTime = static_cast<DWORD>(ull);
  ft.dwHighDateTime = static_cast<DWORD>(ull >> 32);
  return ft;
}
inline ULONGLONG U64(const FILETIME& ft) { return (ULONGLONG(ft.dwHighDateTime) << 32) | ft.dwLowDateTime; }

// Bytes that differ at every offset, seeded so that two buffers never look alike.
std::vector<BYTE> Pattern(size_t cb, unsigned uSeed);

// ---- The fixture -----------------------------------------------------------------------------------

// Each test gets a fresh server apartment with a scripted record (served as IRecordEx), a scripted
// multipart archive with three server-side partitions and a scripted factory, and proxies to them
// on the test thread. Every scripted object made in either apartment must be gone after both
// apartments are.
class CMarshalTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Client-side proxies.
  NSCom::CComPtr<IRecordEx> m_spRecord;
  NSCom::CComPtr<IMultipartArchive> m_spArchive;
  NSCom::CComPtr<IArchiveFactory> m_spFactory;

  // The server objects themselves, for scripting and for reading what they received. Only read or
  // written while no call is in flight.
  CScriptedRecord* m_pRecord = nullptr;
  CScriptedArchive* m_pArchive = nullptr;
  CScriptedFactory* m_pFactory = nullptr;

  DWORD ServerThreadId() const { return m_server.ThreadId(); }

 private:
  std::unique_ptr<CHangGuard> m_pGuard;
  CProxyStubRegistration m_clientRegistration;
  CServerApartment m_server;
  bool m_bComInitialized = false;
  // Server-side references, released on the server thread.
  NSCom::CComPtr<IRecordEx> m_spServerRecord;
  NSCom::CComPtr<IMultipartArchive> m_spServerArchive;
  NSCom::CComPtr<IArchiveFactory> m_spServerFactory;
  IStream* m_apStreams[3] = {};
};

}  // namespace NSTest

#endif  // _WIN32
