// The module object: its object map, and the registration of its own keys applied to a registry in
// memory (both platforms; the system registry is exercised through the library under Wine).
#include <gtest/gtest.h>

#include <kronvale/kronvale.h>

#include <string>
#include <vector>

#include "frame/MemoryRegistry.h"
#include "frame/Module.h"
#include "platform/os.h"

namespace {

using NSFrame::CKronvaleModule;
using NSFrame::CMemoryRegistry;
using NSFrame::ERegistryRoot;

const WCHAR kszModulePath[] = KV_W("C:\\Program Files\\Kronvale\\kronvale.dll");

// Everything scripts 101 to 104 write, in CMemoryRegistry::Dump's form.
const char kszRegistered[] =
    "HKCR\\AppID\n"
    "HKCR\\AppID\\Kronvale.DLL\n"
    "HKCR\\AppID\\Kronvale.DLL [AppID] = '{3E3C0CF5-0797-458B-A2DD-3574998A4B14}'\n"
    "HKCR\\AppID\\{3E3C0CF5-0797-458B-A2DD-3574998A4B14}\n"
    "HKCR\\AppID\\{3E3C0CF5-0797-458B-A2DD-3574998A4B14} = 'Kronvale'\n"
    "HKCR\\CLSID\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560} = 'RecordExtract Class'\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560} [AppID] = '{3E3C0CF5-0797-458B-A2DD-3574998A4B14}'\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\InprocServer32\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\InprocServer32 = 'C:\\Program Files\\Kronvale\\kronvale.dll'\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\InprocServer32 [ThreadingModel] = 'Both'\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\ProgID\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\ProgID = 'Kronvale.RecordExtract.1'\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\TypeLib\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\TypeLib = '{A65A3C72-B362-4928-9C8C-349AC0C5DFF8}'\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\VersionIndependentProgID\n"
    "HKCR\\CLSID\\{2F42387D-15C5-4C16-B9B8-44E099A9F560}\\VersionIndependentProgID = 'Kronvale.RecordExtract'\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7} = 'Kronvale Class'\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7} [AppID] = '{3E3C0CF5-0797-458B-A2DD-3574998A4B14}'\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\InprocServer32\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\InprocServer32 = 'C:\\Program Files\\Kronvale\\kronvale.dll'\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\InprocServer32 [ThreadingModel] = 'Both'\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\ProgID\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\ProgID = 'Kronvale.Kronvale.1'\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\TypeLib\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\TypeLib = '{A65A3C72-B362-4928-9C8C-349AC0C5DFF8}'\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\VersionIndependentProgID\n"
    "HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}\\VersionIndependentProgID = 'Kronvale.Kronvale'\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87} = 'Record Class'\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87} [AppID] = '{3E3C0CF5-0797-458B-A2DD-3574998A4B14}'\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\InprocServer32\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\InprocServer32 = 'C:\\Program Files\\Kronvale\\kronvale.dll'\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\InprocServer32 [ThreadingModel] = 'Both'\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\ProgID\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\ProgID = 'Kronvale.Record.1'\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\TypeLib\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\TypeLib = '{A65A3C72-B362-4928-9C8C-349AC0C5DFF8}'\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\VersionIndependentProgID\n"
    "HKCR\\CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}\\VersionIndependentProgID = 'Kronvale.Record'\n"
    "HKCR\\Kronvale.Kronvale\n"
    "HKCR\\Kronvale.Kronvale = 'Kronvale Class'\n"
    "HKCR\\Kronvale.Kronvale\\CLSID\n"
    "HKCR\\Kronvale.Kronvale\\CLSID = '{78AD445A-55DC-40C3-AC1D-774A80581CF7}'\n"
    "HKCR\\Kronvale.Kronvale\\CurVer\n"
    "HKCR\\Kronvale.Kronvale\\CurVer = 'Kronvale.Kronvale.1'\n"
    "HKCR\\Kronvale.Kronvale.1\n"
    "HKCR\\Kronvale.Kronvale.1 = 'Kronvale Class'\n"
    "HKCR\\Kronvale.Kronvale.1\\CLSID\n"
    "HKCR\\Kronvale.Kronvale.1\\CLSID = '{78AD445A-55DC-40C3-AC1D-774A80581CF7}'\n"
    "HKCR\\Kronvale.Record\n"
    "HKCR\\Kronvale.Record = 'Record Class'\n"
    "HKCR\\Kronvale.Record\\CLSID\n"
    "HKCR\\Kronvale.Record\\CLSID = '{E07A6959-FE49-42DB-B27B-0A427430FF87}'\n"
    "HKCR\\Kronvale.Record\\CurVer\n"
    "HKCR\\Kronvale.Record\\CurVer = 'Kronvale.Record.1'\n"
    "HKCR\\Kronvale.Record.1\n"
    "HKCR\\Kronvale.Record.1 = 'Record Class'\n"
    "HKCR\\Kronvale.Record.1\\CLSID\n"
    "HKCR\\Kronvale.Record.1\\CLSID = '{E07A6959-FE49-42DB-B27B-0A427430FF87}'\n"
    "HKCR\\Kronvale.RecordExtract\n"
    "HKCR\\Kronvale.RecordExtract = 'RecordExtract Class'\n"
    "HKCR\\Kronvale.RecordExtract\\CLSID\n"
    "HKCR\\Kronvale.RecordExtract\\CLSID = '{2F42387D-15C5-4C16-B9B8-44E099A9F560}'\n"
    "HKCR\\Kronvale.RecordExtract\\CurVer\n"
    "HKCR\\Kronvale.RecordExtract\\CurVer = 'Kronvale.RecordExtract.1'\n"
    "HKCR\\Kronvale.RecordExtract.1\n"
    "HKCR\\Kronvale.RecordExtract.1 = 'RecordExtract Class'\n"
    "HKCR\\Kronvale.RecordExtract.1\\CLSID\n"
    "HKCR\\Kronvale.RecordExtract.1\\CLSID = '{2F42387D-15C5-4C16-B9B8-44E099A9F560}'\n";

// Forwards to a memory registry and notes the thread locale each operation runs under.
class CLocaleWatchingRegistry : public NSFrame::IRegistryTarget {
 public:
  CMemoryRegistry m_registry;
  std::vector<DWORD> m_vLocales;

  HRESULT CreateKey(ERegistryRoot eRoot, const WString& strKey) override {
    Note();
    return m_registry.CreateKey(eRoot, strKey);
  }
  HRESULT OpenKey(ERegistryRoot eRoot, const WString& strKey) override {
    Note();
    return m_registry.OpenKey(eRoot, strKey);
  }
  HRESULT SetStringValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName,
                         const WString& strValue) override {
    Note();
    return m_registry.SetStringValue(eRoot, strKey, strName, strValue);
  }
  HRESULT DeleteValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName) override {
    Note();
    return m_registry.DeleteValue(eRoot, strKey, strName);
  }
  HRESULT DeleteKey(ERegistryRoot eRoot, const WString& strKey) override {
    Note();
    return m_registry.DeleteKey(eRoot, strKey);
  }
  HRESULT DeleteTree(ERegistryRoot eRoot, const WString& strKey) override {
    Note();
    return m_registry.DeleteTree(eRoot, strKey);
  }
  HRESULT HasSubKeys(ERegistryRoot eRoot, const WString& strKey, bool* pbHasSubKeys) override {
    Note();
    return m_registry.HasSubKeys(eRoot, strKey, pbHasSubKeys);
  }

 private:
  void Note() { m_vLocales.push_back(NSPlatform::GetThreadLocaleId()); }
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
  CMemoryRegistry registry;
  ASSERT_EQ(S_OK, CKronvaleModule::UpdateRegistry(true, registry, kszModulePath));
  EXPECT_EQ(kszRegistered, registry.Dump());

  // Script 103 repeats script 101: a second registration changes nothing.
  ASSERT_EQ(S_OK, CKronvaleModule::UpdateRegistry(true, registry, kszModulePath));
  EXPECT_EQ(kszRegistered, registry.Dump());

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
