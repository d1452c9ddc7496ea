// The library's entry points. Compiled only into kronvale.dll / libkronvale.so, never into the
// frame's static library, so that a test program linking the frame has no exports of its own.
//
// Windows: the merged proxy/stub (kv_proxystub, entry points prefixed Prx) is asked first, then the
// module. Linux has no proxy/stub and no registry: the library exports DllGetClassObject and
// DllCanUnloadNow only.
#include <kronvale/kronvale.h>

#include "frame/Module.h"

using NSFrame::CKronvaleModule;

#ifdef _WIN32

// The RPC runtime's proxy/stub registration and, from the proxy/stub's dlldata.c, its own class
// object and unload check and the proxy file list with the proxy/stub class identifier it serves
// them under. Declared here because <rpcproxy.h> compiles as C only; the list's entries are only
// passed through.
struct tagProxyFileInfo;
typedef struct tagProxyFileInfo ProxyFileInfo;
extern "C" {
DECLSPEC_IMPORT HRESULT RPC_ENTRY NdrDllRegisterProxy(HMODULE hDll, const ProxyFileInfo** ppProxyFiles,
                                                      const CLSID* pclsid);
DECLSPEC_IMPORT HRESULT RPC_ENTRY NdrDllUnregisterProxy(HMODULE hDll, const ProxyFileInfo** ppProxyFiles,
                                                        const CLSID* pclsid);
HRESULT STDAPICALLTYPE PrxDllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv);
HRESULT STDAPICALLTYPE PrxDllCanUnloadNow();
void RPC_ENTRY GetProxyDllInfo(const ProxyFileInfo*** ppInfo, const CLSID** ppclsid);
}

extern "C" BOOL WINAPI DllMain(HINSTANCE hInstance, DWORD dwReason, LPVOID pvReserved) {
  switch (dwReason) {
    case DLL_PROCESS_ATTACH:
      DisableThreadLibraryCalls(hInstance);
      return SUCCEEDED(CKronvaleModule::Init(hInstance)) ? TRUE : FALSE;
    case DLL_PROCESS_DETACH:
      // At process exit (pvReserved set) the other threads are gone and the class objects may hold
      // state they can no longer clean up; the system takes the memory back. Only a FreeLibrary
      // tears the module down.
      if (pvReserved == nullptr) {
        CKronvaleModule::Term();
      }
      return TRUE;
    default:
      return TRUE;
  }
}

STDAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv) {
  // Answered here: the proxy/stub part is never asked to cope with a null ppv.
  if (ppv == nullptr) {
    return E_POINTER;
  }
  const HRESULT hr = PrxDllGetClassObject(rclsid, riid, ppv);
  if (SUCCEEDED(hr)) {
    return hr;
  }
  return CKronvaleModule::GetClassObject(rclsid, riid, ppv);
}

STDAPI DllCanUnloadNow() {
  const HRESULT hr = PrxDllCanUnloadNow();
  if (hr != S_OK) {
    return hr;
  }
  return CKronvaleModule::CanUnloadNow();
}

STDAPI DllRegisterServer() {
  const HRESULT hr = CKronvaleModule::UpdateRegistry(true);
  if (FAILED(hr)) {
    return hr;
  }
  const ProxyFileInfo** ppProxyFiles = nullptr;
  const CLSID* pclsidProxy = nullptr;
  GetProxyDllInfo(&ppProxyFiles, &pclsidProxy);
  return NdrDllRegisterProxy(CKronvaleModule::GetModuleInstance(), ppProxyFiles, pclsidProxy);
}

STDAPI DllUnregisterServer() {
  HRESULT hr = CKronvaleModule::UpdateRegistry(false);
  if (FAILED(hr)) {
    return hr;
  }
  const ProxyFileInfo** ppProxyFiles = nullptr;
  const CLSID* pclsidProxy = nullptr;
  GetProxyDllInfo(&ppProxyFiles, &pclsidProxy);
  // The proxy/stub keys are written once more before they are removed: unregistering what was
  // never registered then finds every key it deletes.
  hr = NdrDllRegisterProxy(CKronvaleModule::GetModuleInstance(), ppProxyFiles, pclsidProxy);
  if (FAILED(hr)) {
    return hr;
  }
  return NdrDllUnregisterProxy(CKronvaleModule::GetModuleInstance(), ppProxyFiles, pclsidProxy);
}

#else  // !_WIN32

#define KV_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// The library's load and unload stand in for DllMain's attach and detach. A failed Init leaves
// the module uninitialised, and DllGetClassObject then answers E_UNEXPECTED.
__attribute__((constructor)) void LoadModule() { CKronvaleModule::Init(nullptr); }
__attribute__((destructor)) void UnloadModule() { CKronvaleModule::Term(); }

}  // namespace

KV_EXPORT HRESULT DllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv) {
  return CKronvaleModule::GetClassObject(rclsid, riid, ppv);
}

KV_EXPORT HRESULT DllCanUnloadNow() { return CKronvaleModule::CanUnloadNow(); }

#endif  // _WIN32
