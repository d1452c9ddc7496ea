// Registration of the library in the system registry, under Wine's real registry: through its
// DllRegisterServer/DllUnregisterServer as regsvr32 calls them, and through regsvr32 itself.
// Windows only: Linux has no registry, and libkronvale.so has no registration exports.
#ifdef _WIN32

#include <gtest/gtest.h>

#include <kronvale/kronvale.h>

#include <sstream>
#include <string>
#include <vector>

#include "common/ModuleRegistration.h"
#include "frame/MemoryRegistry.h"
#include "module/Library.h"

namespace {

using NSTest::CLibrary;
using NSTest::PFNDLLREGISTERSERVER;
using NSFrame::CMemoryRegistry;
using NSFrame::ERegistryRoot;

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

// Copies HKCR\<strKey> and everything under it into *pCopy; values of another type than REG_SZ
// as "<type n>". Does nothing when the key is missing.
void CopyTree(const std::wstring& strKey, CMemoryRegistry* pCopy) {
  HKEY hKey = nullptr;
  if (RegOpenKeyExW(HKEY_CLASSES_ROOT, strKey.c_str(), 0, KEY_READ, &hKey) != ERROR_SUCCESS) {
    return;
  }
  EXPECT_EQ(S_OK, pCopy->CreateKey(ERegistryRoot::ClassesRoot, strKey));
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
    EXPECT_EQ(S_OK, pCopy->SetStringValue(ERegistryRoot::ClassesRoot, strKey, std::wstring(szName, cchName), strValue));
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
    CopyTree(strKey + L"\\" + strSub, pCopy);
  }
}

bool KeyExists(const std::wstring& strKey) {
  HKEY hKey = nullptr;
  if (RegOpenKeyExW(HKEY_CLASSES_ROOT, strKey.c_str(), 0, KEY_READ, &hKey) != ERROR_SUCCESS) {
    return false;
  }
  RegCloseKey(hKey);
  return true;
}

// The keys the module's scripts own, read from the expected content: its top keys, and the keys
// right under the shared parents AppID and CLSID (which the scripts mark NoRemove).
std::vector<std::wstring> ModuleKeys() {
  std::vector<std::wstring> v;
  std::istringstream in(NSTest::kszModuleRegistered);
  for (std::string strLine; std::getline(in, strLine);) {
    if (strLine.find(" = ") != std::string::npos) continue;
    const std::string strKey = strLine.substr(strLine.find('\\') + 1);
    const size_t nSlash = strKey.find('\\');
    const bool bShared = strKey.rfind("AppID", 0) == 0 || strKey.rfind("CLSID", 0) == 0;
    if (bShared ? nSlash != std::string::npos && strKey.find('\\', nSlash + 1) == std::string::npos
                : nSlash == std::string::npos) {
      v.push_back(NSPlatform::Utf8ToWide(strKey));
    }
  }
  EXPECT_EQ(11u, v.size());  // the AppID and its name, and per class its CLSID and two ProgIDs
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

  // Exactly what the scripts write, with this library's path.
  void ExpectModuleRegistered() {
    CMemoryRegistry copy;
    for (const std::wstring& strKey : ModuleKeys()) {
      CopyTree(strKey, &copy);
    }
    EXPECT_EQ(NSTest::ModuleRegistered(Narrow(m_strPath)), copy.Dump());
  }

  // Every interface names one proxy/stub class, served by this library; answers that class.
  std::wstring ExpectProxiesRegistered() {
    const ERegistryRoot eRoot = ERegistryRoot::ClassesRoot;
    std::wstring strProxyClsid;
    for (const SInterface& itf : kaInterfaces) {
      SCOPED_TRACE(Narrow(itf.pszName));
      const std::wstring strKey = L"Interface\\" + GuidText(*itf.piid);
      CMemoryRegistry copy;
      CopyTree(strKey, &copy);
      WString strName, strProxy;
      EXPECT_TRUE(copy.GetValue(eRoot, strKey, WString(), &strName) && strName == itf.pszName) << copy.Dump();
      // Registry names compare without regard to case, in memory as in the system registry.
      if (!copy.GetValue(eRoot, strKey + L"\\ProxyStubClsid32", WString(), &strProxy)) {
        ADD_FAILURE() << "no ProxyStubClsid32\n" << copy.Dump();
        continue;
      }
      if (strProxyClsid.empty()) {
        strProxyClsid = strProxy;
      }
      EXPECT_EQ(Narrow(strProxyClsid), Narrow(strProxy));
    }
    // The RPC runtime writes these keys.
    CMemoryRegistry proxy;
    CopyTree(L"CLSID\\" + strProxyClsid, &proxy);
    WString strServer;
    EXPECT_TRUE(proxy.GetValue(eRoot, L"CLSID\\" + strProxyClsid + L"\\InprocServer32", WString(), &strServer) &&
                strServer == m_strPath)
        << proxy.Dump();
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
  // Registered, the library serves COM's own calls: one cached factory, and no bare archives.
  ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
  IArchiveFactory* pFirst = nullptr;
  IArchiveFactory* pSecond = nullptr;
  EXPECT_EQ(S_OK, CoGetClassObject(CLSID_Kronvale, CLSCTX_INPROC_SERVER, nullptr, IID_IArchiveFactory,
                                   reinterpret_cast<void**>(&pFirst)));
  EXPECT_EQ(S_OK, CoGetClassObject(CLSID_Kronvale, CLSCTX_INPROC_SERVER, nullptr, IID_IArchiveFactory,
                                   reinterpret_cast<void**>(&pSecond)));
  EXPECT_TRUE(pFirst && pFirst == pSecond);
  if (pFirst) pFirst->Release();
  if (pSecond) pSecond->Release();
  IKronvale* pArchive = nullptr;
  EXPECT_EQ(E_NOTIMPL,
            CoCreateInstance(CLSID_Kronvale, nullptr, CLSCTX_INPROC_SERVER, IID_IKronvale, reinterpret_cast<void**>(&pArchive)));
  EXPECT_EQ(nullptr, pArchive);
  CoUninitialize();
  ASSERT_EQ(0u, RunRegsvr32(L"/u /s \"" + m_strPath + L"\""));
  ExpectNothingRegistered();
}

}  // namespace

#endif  // _WIN32
