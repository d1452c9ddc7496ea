// The module object: its object map, and the registration of its own keys applied to a registry in
// memory (both platforms; the system registry is exercised through the library under Wine).
#include <gtest/gtest.h>

#include <kronvale/kronvale.h>

#include <string>
#include <vector>

#include "frame/MemoryRegistry.h"
#include "common/ModuleRegistration.h"
#include "frame/Module.h"
#include "platform/os.h"

namespace {

using NSFrame::CKronvaleModule;
using NSFrame::CMemoryRegistry;
using NSFrame::ERegistryRoot;

const WCHAR kszModulePath[] = KV_W("C:\\Program Files\\Kronvale\\kronvale.dll");


// Forwards to a memory registry and notes the thread locale each operation runs under.
class CLocaleWatchingRegistry : public NSFrame::IRegistryTarget {
 public:
  CMemoryRegistry m_registry;
  std::vector<DWORD> m_vLocales;

  HRESULT CreateKey(ERegistryRoot eRoot, const WString& strKey) override {
    return Forward(&CMemoryRegistry::CreateKey, eRoot, strKey);
  }
  HRESULT OpenKey(ERegistryRoot eRoot, const WString& strKey) override {
    return Forward(&CMemoryRegistry::OpenKey, eRoot, strKey);
  }
  HRESULT SetStringValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName,
                         const WString& strValue) override {
    return Forward(&CMemoryRegistry::SetStringValue, eRoot, strKey, strName, strValue);
  }
  HRESULT DeleteValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName) override {
    return Forward(&CMemoryRegistry::DeleteValue, eRoot, strKey, strName);
  }
  HRESULT DeleteKey(ERegistryRoot eRoot, const WString& strKey) override {
    return Forward(&CMemoryRegistry::DeleteKey, eRoot, strKey);
  }
  HRESULT DeleteTree(ERegistryRoot eRoot, const WString& strKey) override {
    return Forward(&CMemoryRegistry::DeleteTree, eRoot, strKey);
  }
  HRESULT HasSubKeys(ERegistryRoot eRoot, const WString& strKey, bool* pbHasSubKeys) override {
    return Forward(&CMemoryRegistry::HasSubKeys, eRoot, strKey, pbHasSubKeys);
  }

 private:
  // Notes the thread's locale, then lets the memory registry answer.
  template <class TMethod, class... TArgs>
  HRESULT Forward(TMethod method, TArgs... args) {
    m_vLocales.push_back(NSPlatform::GetThreadLocaleId());
    return (m_registry.*method)(args...);
  }
};

// Sets a thread locale for the test and puts the previous one back.
class CThreadLocale {
 public:
  explicit CThreadLocale(DWORD lcid) : m_lcidSaved(NSPlatform::GetThreadLocaleId()) {
    EXPECT_TRUE(NSPlatform::SetThreadLocaleId(lcid));
  }
  ~CThreadLocale() { NSPlatform::SetThreadLocaleId(m_lcidSaved); }

 private:
  DWORD m_lcidSaved;
};

// What the thread reports while it runs under the system default locale.
DWORD SystemDefaultLocaleAsReported() {
  CThreadLocale locale(NSPlatform::klcidSystemDefault);
  return NSPlatform::GetThreadLocaleId();
}

TEST(KronvaleModuleTest, ObjectMapHoldsTheThreeClassesInOrder) {
  size_t cEntries = 0;
  const NSCom::SObjectMapEntry* pEntries = CKronvaleModule::GetObjectMapEntries(&cEntries);
  ASSERT_EQ(3u, cEntries);
  const CLSID* apclsid[] = {&CLSID_RecordExtract, &CLSID_Kronvale, &CLSID_Record};
  const UINT anScripts[] = {104, 103, 102};
  for (size_t i = 0; i < cEntries; ++i) {
    SCOPED_TRACE(i);
    EXPECT_TRUE(IsEqualCLSID(*apclsid[i], *pEntries[i].pclsid));
    EXPECT_EQ(anScripts[i], pEntries[i].nRegistryScriptId);
    EXPECT_NE(nullptr, pEntries[i].pfnGetClassObject);
    EXPECT_NE(nullptr, pEntries[i].pfnCreateInstance);
  }
}

TEST(KronvaleModuleTest, RegistrationWritesExactlyTheScriptsKeys) {
  const std::string strExpected = NSTest::ModuleRegistered(NSPlatform::WideToUtf8(kszModulePath));
  CMemoryRegistry registry;
  ASSERT_EQ(S_OK, CKronvaleModule::UpdateRegistry(true, registry, kszModulePath));
  EXPECT_EQ(strExpected, registry.Dump());

  // Script 103 repeats script 101: a second registration changes nothing.
  ASSERT_EQ(S_OK, CKronvaleModule::UpdateRegistry(true, registry, kszModulePath));
  EXPECT_EQ(strExpected, registry.Dump());

  // Unregistration leaves the shared parents the scripts mark NoRemove, and nothing else.
  ASSERT_EQ(S_OK, CKronvaleModule::UpdateRegistry(false, registry, kszModulePath));
  EXPECT_EQ("HKCR\\AppID\nHKCR\\CLSID\n", registry.Dump());
}

TEST(KronvaleModuleTest, UnregisteringWhatWasNeverRegisteredSucceeds) {
  CMemoryRegistry registry;
  EXPECT_EQ(S_OK, CKronvaleModule::UpdateRegistry(false, registry, kszModulePath));
  EXPECT_EQ("", registry.Dump());
}

TEST(KronvaleModuleTest, ScriptsRunUnderTheSystemLocaleAndTheThreadsLocaleComesBack) {
  const DWORD lcidSystem = SystemDefaultLocaleAsReported();
  const DWORD lcidFrench = 0x040C;
  CThreadLocale locale(lcidFrench);
  ASSERT_EQ(lcidFrench, NSPlatform::GetThreadLocaleId());

  for (bool bRegister : {true, false}) {
    SCOPED_TRACE(bRegister);
    CLocaleWatchingRegistry registry;
    ASSERT_EQ(S_OK, CKronvaleModule::UpdateRegistry(bRegister, registry, kszModulePath));
    ASSERT_FALSE(registry.m_vLocales.empty());
    for (DWORD lcid : registry.m_vLocales) {
      EXPECT_EQ(lcidSystem, lcid);
    }
    EXPECT_EQ(lcidFrench, NSPlatform::GetThreadLocaleId());
  }
}

TEST(KronvaleModuleTest, AFailingOperationStopsRegistrationAndIsTheAnswer) {
  const DWORD lcidFrench = 0x040C;
  CThreadLocale locale(lcidFrench);
  const HRESULT hrRefused = E_ACCESSDENIED;

  // Register: script 101 creates Kronvale.Kronvale.1 first; its value (the 2nd operation) fails.
  CMemoryRegistry registry;
  registry.FailOperation(2, hrRefused);
  EXPECT_EQ(hrRefused, CKronvaleModule::UpdateRegistry(true, registry, kszModulePath));
  ASSERT_EQ(2u, registry.Journal().size());
  EXPECT_EQ("SetStringValue HKCR\\Kronvale.Kronvale.1 []", registry.Journal().back());
  EXPECT_EQ("HKCR\\Kronvale.Kronvale.1\n", registry.Dump());
  EXPECT_EQ(lcidFrench, NSPlatform::GetThreadLocaleId());

  // A failure in a later script: nothing after it is attempted.
  CMemoryRegistry full;
  ASSERT_EQ(S_OK, CKronvaleModule::UpdateRegistry(true, full, kszModulePath));
  const size_t cOperations = full.Journal().size();
  CMemoryRegistry partial;
  partial.FailOperation(static_cast<unsigned>(cOperations), hrRefused);
  EXPECT_EQ(hrRefused, CKronvaleModule::UpdateRegistry(true, partial, kszModulePath));
  EXPECT_EQ(cOperations, partial.Journal().size());
  EXPECT_EQ(full.Journal().back(), partial.Journal().back());
  EXPECT_EQ(lcidFrench, NSPlatform::GetThreadLocaleId());
}

TEST(KronvaleModuleTest, OwnModulePathIsThisProgram) {
  WString strPath;
  ASSERT_EQ(S_OK, NSPlatform::GetOwnModulePath(&strPath));
  WString strFull;
  ASSERT_EQ(S_OK, NSPlatform::GetFullPath(strPath.c_str(), &strFull));
  EXPECT_EQ(strFull, strPath);
  const std::string strUtf8 = NSPlatform::WideToUtf8(strPath);
#ifdef _WIN32
  EXPECT_NE(std::string::npos, strUtf8.find("kv_module_tests.exe")) << strUtf8;
#else
  EXPECT_NE(std::string::npos, strUtf8.find("kv_module_tests")) << strUtf8;
#endif
}

}  // namespace
