// Registration of the library in the system registry, under Wine's real registry: through its
// DllRegisterServer/DllUnregisterServer as regsvr32 calls them, and through regsvr32 itself.
// Windows only: Linux has no registry, and libkronvale.so has no registration exports.
#ifdef _WIN32

#include <gtest/gtest.h>

#include <kronvale/kronvale.h>

#include <map>
#include <string>
#include <vector>

#include "module/Library.h"

namespace {

using NSModuleTest::CLibrary;
using NSModuleTest::PFNDLLREGISTERSERVER;

const std::wstring kstrAppId = L"{3E3C0CF5-0797-458B-A2DD-3574998A4B14}";
const std::wstring kstrTypeLib = L"{A65A3C72-B362-4928-9C8C-349AC0C5DFF8}";

// Every interface with an entry in the proxy/stub, and the name it is registered under.
struct SInterface {
  const IID* piid;
  const WCHAR* pszName;
};
const SInterface kaInterfaces[] = {
    {&IID_IDescription, L"IDescription"},
    {&IID_IKronvale, L"IKronvale"},
    {&IID_IKronvaleEx, L"IKronvaleEx"},
    {&IID_IKronvaleQuota, L"IKronvaleQuota"},
    {&IID_IKronvaleInternal, L"IKronvaleInternal"},
    {&IID_IStateControl, L"IStateControl"},
    {&IID_IRecord, L"IRecord"},
    {&IID_IRecordEx, L"IRecordEx"},
    {&IID_IRecordFastCopy, L"IRecordFastCopy"},
    {&IID_IRecordExtract, L"IRecordExtract"},
    {&IID_IMultipartArchive, L"IMultipartArchive"},
    {&IID_IArchiveFactory, L"IArchiveFactory"},
    {&IID_IArchiveFactoryEx, L"IArchiveFactoryEx"},
    {&IID_AsyncIDescription, L"AsyncIDescription"},
    {&IID_AsyncIKronvale, L"AsyncIKronvale"},
    {&IID_AsyncIKronvaleEx, L"AsyncIKronvaleEx"},
    {&IID_AsyncIKronvaleQuota, L"AsyncIKronvaleQuota"},
    {&IID_AsyncIKronvaleInternal, L"AsyncIKronvaleInternal"},
    {&IID_AsyncIStateControl, L"AsyncIStateControl"},
    {&IID_AsyncIRecord, L"AsyncIRecord"},
    {&IID_AsyncIRecordEx, L"AsyncIRecordEx"},
    {&IID_AsyncIMultipartArchive, L"AsyncIMultipartArchive"},
};
static_assert(sizeof(kaInterfaces) / sizeof(kaInterfaces[0]) == 22, "13 interfaces and 9 asynchronous twins");

std::wstring GuidText(REFGUID guid) {
  WCHAR sz[40];
  return StringFromGUID2(guid, sz, 40) > 0 ? std::wstring(sz) : std::wstring();
}

std::string Narrow(const std::wstring& str) { return NSPlatform::WideToUtf8(str); }

// A key's tree as "sub\path [name]" -> value (the key itself "" , the default value "[]"), read
// with the registry API. Values of another type than REG_SZ show as "<type n>".
typedef std::map<std::wstring, std::wstring> KeyTree;

bool ReadTree(HKEY hRoot, const std::wstring& strKey, KeyTree* pTree, const std::wstring& strPrefix = L"") {
  HKEY hKey = nullptr;
  if (RegOpenKeyExW(hRoot, strKey.c_str(), 0, KEY_READ, &hKey) != ERROR_SUCCESS) {
    return false;
  }
  (*pTree)[strPrefix] = L"";
  for (DWORD i = 0;; ++i) {
    WCHAR szName[256];
    DWORD cchName = 256;
    DWORD dwType = 0;
    BYTE abData[2048];
    DWORD cbData = sizeof(abData) - sizeof(WCHAR);
    if (RegEnumValueW(hKey, i, szName, &cchName, nullptr, &dwType, abData, &cbData) != ERROR_SUCCESS) {
      break;
    }
    std::wstring strValue;
    if (dwType == REG_SZ) {
      strValue.assign(reinterpret_cast<const WCHAR*>(abData), cbData / sizeof(WCHAR));
      while (!strValue.empty() && strValue.back() == L'\0') strValue.pop_back();
    } else {
      strValue = L"<type " + std::to_wstring(dwType) + L">";
    }
    (*pTree)[strPrefix + L"[" + std::wstring(szName, cchName) + L"]"] = strValue;
  }
  std::vector<std::wstring> vSubKeys;
  for (DWORD i = 0;; ++i) {
    WCHAR szName[256];
    DWORD cchName = 256;
    if (RegEnumKeyExW(hKey, i, szName, &cchName, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) {
      break;
    }
    vSubKeys.emplace_back(szName, cchName);
  }
  RegCloseKey(hKey);
  for (const std::wstring& strSub : vSubKeys) {
    ReadTree(hRoot, strKey + L"\\" + strSub, pTree, strPrefix + strSub + L"\\");
  }
  return true;
}

KeyTree ReadTree(const std::wstring& strKey) {
  KeyTree tree;
  ReadTree(HKEY_CLASSES_ROOT, strKey, &tree);
  return tree;
}

bool KeyExists(const std::wstring& strKey) {
  HKEY hKey = nullptr;
  if (RegOpenKeyExW(HKEY_CLASSES_ROOT, strKey.c_str(), 0, KEY_READ, &hKey) != ERROR_SUCCESS) {
    return false;
  }
  RegCloseKey(hKey);
  return true;
}

std::string Show(const KeyTree& tree) {
  std::string str;
  for (const auto& [strName, strValue] : tree) {
    str += Narrow(strName) + " = '" + Narrow(strValue) + "'\n";
  }
  return str;
}

// The trees one class's script writes.
struct SClass {
  const CLSID* pclsid;
  const WCHAR* pszProgId;  // version-independent
  const WCHAR* pszText;
};
const SClass kaClasses[] = {
    {&CLSID_Kronvale, L"Kronvale.Kronvale", L"Kronvale Class"},
    {&CLSID_Record, L"Kronvale.Record", L"Record Class"},
    {&CLSID_RecordExtract, L"Kronvale.RecordExtract", L"RecordExtract Class"},
};

// Every key the module's own scripts own (not their NoRemove parents).
std::vector<std::wstring> ModuleKeys() {
  std::vector<std::wstring> v{L"AppID\\" + kstrAppId, L"AppID\\Kronvale.DLL"};
  for (const SClass& cls : kaClasses) {
    v.push_back(cls.pszProgId);
    v.push_back(std::wstring(cls.pszProgId) + L".1");
    v.push_back(L"CLSID\\" + GuidText(*cls.pclsid));
  }
  return v;
}

class RegistrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_library.IsLoaded());
    m_pfnRegister = m_library.Get<PFNDLLREGISTERSERVER>("DllRegisterServer");
    m_pfnUnregister = m_library.Get<PFNDLLREGISTERSERVER>("DllUnregisterServer");
    ASSERT_NE(nullptr, m_pfnRegister);
    ASSERT_NE(nullptr, m_pfnUnregister);
    WCHAR szPath[MAX_PATH];
    const DWORD cch = GetModuleFileNameW(m_library.Handle(), szPath, MAX_PATH);
    ASSERT_GT(cch, 0u);
    m_strPath.assign(szPath, cch);
    // Start from an unregistered library.
    ASSERT_EQ(S_OK, m_pfnUnregister());
  }
  void TearDown() override {
    if (m_pfnUnregister != nullptr) {
      EXPECT_EQ(S_OK, m_pfnUnregister());
    }
  }

  void ExpectModuleRegistered() {
    for (const SClass& cls : kaClasses) {
      const std::wstring strClsid = GuidText(*cls.pclsid);
      const std::wstring strProgId = cls.pszProgId;
      SCOPED_TRACE(Narrow(strProgId));
      const KeyTree versioned{{L"", L""}, {L"[]", cls.pszText}, {L"CLSID\\", L""}, {L"CLSID\\[]", strClsid}};
      EXPECT_EQ(Show(versioned), Show(ReadTree(strProgId + L".1")));
      const KeyTree independent{{L"", L""},         {L"[]", cls.pszText},  {L"CLSID\\", L""},
                                {L"CLSID\\[]", strClsid}, {L"CurVer\\", L""}, {L"CurVer\\[]", strProgId + L".1"}};
      EXPECT_EQ(Show(independent), Show(ReadTree(strProgId)));
      const KeyTree clsid{{L"", L""},
                          {L"[]", cls.pszText},
                          {L"[AppID]", kstrAppId},
                          {L"InprocServer32\\", L""},
                          {L"InprocServer32\\[]", m_strPath},
                          {L"InprocServer32\\[ThreadingModel]", L"Both"},
                          {L"ProgID\\", L""},
                          {L"ProgID\\[]", strProgId + L".1"},
                          {L"TypeLib\\", L""},
                          {L"TypeLib\\[]", kstrTypeLib},
                          {L"VersionIndependentProgID\\", L""},
                          {L"VersionIndependentProgID\\[]", strProgId}};
      EXPECT_EQ(Show(clsid), Show(ReadTree(L"CLSID\\" + strClsid)));
    }
    EXPECT_EQ(Show(KeyTree{{L"", L""}, {L"[]", L"Kronvale"}}), Show(ReadTree(L"AppID\\" + kstrAppId)));
    EXPECT_EQ(Show(KeyTree{{L"", L""}, {L"[AppID]", kstrAppId}}), Show(ReadTree(L"AppID\\Kronvale.DLL")));
  }

  // Every interface names one proxy/stub class, served by this library; answers that class.
  std::wstring ExpectProxiesRegistered() {
    std::wstring strProxyClsid;
    for (const SInterface& itf : kaInterfaces) {
      SCOPED_TRACE(Narrow(itf.pszName));
      const KeyTree tree = ReadTree(L"Interface\\" + GuidText(*itf.piid));
      const auto itName = tree.find(L"[]");
      auto itProxy = tree.begin();
      while (itProxy != tree.end() && _wcsicmp(itProxy->first.c_str(), L"ProxyStubClsid32\\[]") != 0) ++itProxy;
      EXPECT_TRUE(itName != tree.end() && itName->second == itf.pszName) << Show(tree);
      if (itProxy == tree.end()) {
        ADD_FAILURE() << "no ProxyStubClsid32\n" << Show(tree);
        continue;
      }
      if (strProxyClsid.empty()) {
        strProxyClsid = itProxy->second;
      }
      EXPECT_EQ(Narrow(strProxyClsid), Narrow(itProxy->second));
    }
    // The RPC runtime writes these keys; registry names compare without regard to case.
    const KeyTree proxy = ReadTree(L"CLSID\\" + strProxyClsid);
    bool bServer = false;
    for (const auto& [strName, strValue] : proxy) {
      bServer = bServer || (_wcsicmp(strName.c_str(), L"InprocServer32\\[]") == 0 && strValue == m_strPath);
    }
    EXPECT_TRUE(bServer) << Show(proxy);
    return strProxyClsid;
  }

  void ExpectNothingRegistered() {
    for (const std::wstring& strKey : ModuleKeys()) {
      EXPECT_FALSE(KeyExists(strKey)) << Narrow(strKey);
    }
    for (const SInterface& itf : kaInterfaces) {
      EXPECT_FALSE(KeyExists(L"Interface\\" + GuidText(*itf.piid))) << Narrow(itf.pszName);
    }
    // The shared parents stay.
    EXPECT_TRUE(KeyExists(L"CLSID"));
    EXPECT_TRUE(KeyExists(L"AppID"));
  }

  CLibrary m_library;
  PFNDLLREGISTERSERVER m_pfnRegister = nullptr;
  PFNDLLREGISTERSERVER m_pfnUnregister = nullptr;
  std::wstring m_strPath;
};

TEST_F(RegistrationTest, RegisterWritesTheScriptsAndTheProxyStub) {
  ASSERT_EQ(S_OK, m_pfnRegister());
  ExpectModuleRegistered();
  const std::wstring strProxyClsid = ExpectProxiesRegistered();

  // The proxy/stub class is served by the same DllGetClassObject, ahead of the object map.
  CLSID clsidProxy{};
  ASSERT_EQ(S_OK, CLSIDFromString(strProxyClsid.c_str(), &clsidProxy));
  IUnknown* pFactoryBuffer = nullptr;
  ASSERT_EQ(S_OK, m_library.GetClassObject()(clsidProxy, IID_IPSFactoryBuffer,
                                             reinterpret_cast<void**>(&pFactoryBuffer)));
  pFactoryBuffer->Release();

  // Registering again over a registration is no change.
  ASSERT_EQ(S_OK, m_pfnRegister());
  ExpectModuleRegistered();
  ExpectProxiesRegistered();
}

TEST_F(RegistrationTest, UnregisterRemovesEverythingAndTwiceIsFine) {
  ASSERT_EQ(S_OK, m_pfnRegister());
  ASSERT_EQ(S_OK, m_pfnUnregister());
  ExpectNothingRegistered();
  // Never registered (SetUp unregistered already): still S_OK, still nothing left behind.
  ASSERT_EQ(S_OK, m_pfnUnregister());
  ExpectNothingRegistered();
}

// Runs "regsvr32 <arguments>" and answers its exit code (0: success).
DWORD RunRegsvr32(const std::wstring& strArguments) {
  std::wstring strCommand = L"regsvr32.exe " + strArguments;
  STARTUPINFOW si{};
  si.cb = sizeof(si);
  PROCESS_INFORMATION pi{};
  if (!CreateProcessW(nullptr, strCommand.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) {
    ADD_FAILURE() << "CreateProcessW: " << GetLastError();
    return ~0u;
  }
  WaitForSingleObject(pi.hProcess, INFINITE);
  DWORD dwExitCode = ~0u;
  GetExitCodeProcess(pi.hProcess, &dwExitCode);
  CloseHandle(pi.hThread);
  CloseHandle(pi.hProcess);
  return dwExitCode;
}

TEST_F(RegistrationTest, Regsvr32RegistersAndUnregistersTheLibrary) {
  ASSERT_EQ(0u, RunRegsvr32(L"/s \"" + m_strPath + L"\""));
  ExpectModuleRegistered();
  ExpectProxiesRegistered();
  ASSERT_EQ(0u, RunRegsvr32(L"/u /s \"" + m_strPath + L"\""));
  ExpectNothingRegistered();
}

}  // namespace

#endif  // _WIN32
