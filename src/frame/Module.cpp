// The module object, its object map and the registration of the module's own keys.
#include "frame/Module.h"

#include <kronvale/kronvale.h>

#include "com/ClassFactory.h"
#include "frame/Resources.h"
#include "archive/ArchiveFactory.h"
#include "archive/ArchiveImpl.h"
#include "platform/BlockPool.h"
#include "platform/os.h"
#include "records/Record.h"
#include "records/RecordExtract.h"
#include "support/Report.h"

namespace NSFrame {

namespace {

// Guarded by the module's critical section once installed (CComModule::Init).
NSCom::SObjectMapEntry g_aObjectMap[] = {
    OBJECT_ENTRY(CLSID_RecordExtract, ::NSRecords::CRecordExtract, kidrRecordExtractScript),
    OBJECT_ENTRY(CLSID_Kronvale, ::NSArchive::CArchiveImpl, kidrKronvaleScript),
    OBJECT_ENTRY(CLSID_Record, ::NSRecords::CRecord, kidrRecordScript),
};
constexpr size_t kcObjectMap = sizeof(g_aObjectMap) / sizeof(g_aObjectMap[0]);

// Written once at load, before any client can call in.
HMODULE g_hInstance = nullptr;

// Registrar scripts are applied under the system default locale, so that nothing the registry
// functions do depends on the locale of the thread that happens to register.
class CSystemLocaleScope {
 public:
  CSystemLocaleScope() : m_lcidSaved(NSPlatform::GetThreadLocaleId()) {
    NSPlatform::SetThreadLocaleId(NSPlatform::klcidSystemDefault);
  }
  ~CSystemLocaleScope() { NSPlatform::SetThreadLocaleId(m_lcidSaved); }
  CSystemLocaleScope(const CSystemLocaleScope&) = delete;
  CSystemLocaleScope& operator=(const CSystemLocaleScope&) = delete;

 private:
  DWORD m_lcidSaved;
};

}  // namespace

HRESULT CKronvaleModule::Init(HMODULE hInstance) {
  g_hInstance = hInstance;
  CComModule::Init(g_aObjectMap, kcObjectMap);
  return S_OK;
}

void CKronvaleModule::Term() {
  CComModule::Term();
  // The pool outlives the module's objects (it is never destroyed); what it keeps idle goes back to
  // the heap here, or a client that loads and unloads the library would lose up to the pool's bound
  // at each turn.
  NSPlatform::ReleasePooledBlocks();
}

HMODULE CKronvaleModule::GetModuleInstance() { return g_hInstance; }

const NSCom::SObjectMapEntry* CKronvaleModule::GetObjectMapEntries(size_t* pcEntries) {
  if (pcEntries != nullptr) {
    *pcEntries = kcObjectMap;
  }
  return g_aObjectMap;
}

HRESULT CKronvaleModule::UpdateRegistry(bool bRegister, IRegistryTarget& target, const WString& strModulePath) {
  CSystemLocaleScope locale;
  CRegistrar registrar(&target);
  HRESULT hr = registrar.AddReplacement(KV_W("APPID"), kszAppId);
  if (!KV_SUCCEEDED(hr)) {
    return hr;
  }
  hr = registrar.AddReplacement(KV_W("MODULE"), strModulePath.c_str());
  if (!KV_SUCCEEDED(hr)) {
    return hr;
  }
  // The registrar reports its own failures.
  hr = registrar.RunResource(kidrAppIdScript, bRegister);
  for (size_t i = 0; i < kcObjectMap && SUCCEEDED(hr); ++i) {
    hr = registrar.RunResource(g_aObjectMap[i].nRegistryScriptId, bRegister);
  }
  return hr;
}

HRESULT CKronvaleModule::UpdateRegistry(bool bRegister) {
  WString strModulePath;
  HRESULT hr = NSPlatform::GetOwnModulePath(&strModulePath);
  if (!KV_SUCCEEDED(hr)) {
    return hr;
  }
  CPlatformRegistry registry;
  return UpdateRegistry(bRegister, registry, strModulePath);
}

}  // namespace NSFrame
