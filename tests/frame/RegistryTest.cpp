// The platform layer's registry. On Windows (under Wine, its real registry) the functions and the
// registrar's scripts are used in a scratch key under HKEY_CURRENT_USER that is removed again; on
// Linux every call answers ERROR_NOT_SUPPORTED.
#include <gtest/gtest.h>

#include <algorithm>
#include <kronvale/KronvaleResults.h>

#include "frame/Registrar.h"
#include "frame/Resources.h"
#include "platform/os.h"

using namespace NSKronvale;
using namespace NSPlatform;

#ifdef _WIN32

namespace {

constexpr ERegistryRoot eUser = ERegistryRoot::CurrentUser;

// A scratch key, unique per process, deleted with its tree when the object goes.
class CScratchKey {
 public:
  CScratchKey() {
    m_strPath = WString(KV_W("Software\\KronvaleTest\\")) +
                NSPlatform::Utf8ToWide(std::to_string(static_cast<unsigned long>(::GetCurrentProcessId())));
    RegistryDeleteTree(eUser, m_strPath.c_str());
  }
  ~CScratchKey() {
    RegistryDeleteTree(eUser, m_strPath.c_str());
    RegistryDeleteKey(eUser, KV_W("Software\\KronvaleTest"));  // only when no other run uses it
  }
  const WString& Path() const { return m_strPath; }
  WString Sub(const WCHAR* pszRelative) const { return m_strPath + KV_W("\\") + pszRelative; }

 private:
  WString m_strPath;
};

// Sends every root of a script to <prefix>\HKCR, <prefix>\HKLM or <prefix>\HKCU under
// HKEY_CURRENT_USER, so that a real run leaves the machine's classes alone.
class CRedirectedRegistry : public NSFrame::IRegistryTarget {
 public:
  explicit CRedirectedRegistry(const WString& strPrefix) : m_strPrefix(strPrefix) {}
  HRESULT CreateKey(ERegistryRoot eRoot, const WString& strKey) override {
    return m_target.CreateKey(eUser, Map(eRoot, strKey));
  }
  HRESULT OpenKey(ERegistryRoot eRoot, const WString& strKey) override { return m_target.OpenKey(eUser, Map(eRoot, strKey)); }
  HRESULT SetStringValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName,
                         const WString& strValue) override {
    return m_target.SetStringValue(eUser, Map(eRoot, strKey), strName, strValue);
  }
  HRESULT DeleteValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName) override {
    return m_target.DeleteValue(eUser, Map(eRoot, strKey), strName);
  }
  HRESULT DeleteKey(ERegistryRoot eRoot, const WString& strKey) override {
    return m_target.DeleteKey(eUser, Map(eRoot, strKey));
  }
  HRESULT DeleteTree(ERegistryRoot eRoot, const WString& strKey) override {
    return m_target.DeleteTree(eUser, Map(eRoot, strKey));
  }
  HRESULT HasSubKeys(ERegistryRoot eRoot, const WString& strKey, bool* pbHasSubKeys) override {
    return m_target.HasSubKeys(eUser, Map(eRoot, strKey), pbHasSubKeys);
  }

 private:
  WString Map(ERegistryRoot eRoot, const WString& strKey) const {
    return m_strPrefix + KV_W("\\") + NSFrame::RegistryRootName(eRoot) + KV_W("\\") + strKey;
  }
  WString m_strPrefix;
  NSFrame::CPlatformRegistry m_target;
};

WString Get(const WString& strKey, const WCHAR* pszName) {
  WString str;
  EXPECT_EQ(RegistryGetString(eUser, strKey.c_str(), pszName, &str), S_OK) << WideToUtf8(strKey);
  return str;
}

std::vector<WString> SubKeys(const WString& strKey) {
  std::vector<WString> vNames;
  EXPECT_EQ(RegistryEnumSubKeys(eUser, strKey.c_str(), &vNames), S_OK);
  std::sort(vNames.begin(), vNames.end());
  return vNames;
}

}  // namespace

TEST(Registry, KeysAndValuesInTheSystemRegistry) {
  CScratchKey scratch;
  const WString strDeep = scratch.Sub(KV_W("A\\B\\C"));
  ASSERT_EQ(RegistryOpenKey(eUser, strDeep.c_str()), khrFileNotFound);
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  ASSERT_EQ(RegistryCreateKey(eUser, strDeep.c_str()), S_OK);
  ASSERT_EQ(RegistryCreateKey(eUser, strDeep.c_str()), S_OK);  // opens the existing key
  ASSERT_EQ(RegistryOpenKey(eUser, strDeep.c_str()), S_OK);
  ASSERT_EQ(RegistryCreateKey(eUser, scratch.Sub(KV_W("A\\D")).c_str()), S_OK);

  const WString strA = scratch.Sub(KV_W("A"));
  const WCHAR szText[] = KV_W("R\u00E9stauration \u0447\u0430\u0441\u0430");
  ASSERT_EQ(RegistrySetString(eUser, strA.c_str(), nullptr, KV_W("default")), S_OK);
  ASSERT_EQ(RegistrySetString(eUser, strA.c_str(), KV_W("Named"), szText), S_OK);
  ASSERT_EQ(RegistrySetString(eUser, strA.c_str(), KV_W("Empty"), KV_W("")), S_OK);
  EXPECT_EQ(Get(strA, KV_W("")), KV_W("default"));
  EXPECT_EQ(Get(strA, nullptr), KV_W("default"));
  EXPECT_EQ(Get(strA, KV_W("named")), szText);  // names ignore case
  EXPECT_EQ(Get(strA, KV_W("Empty")), KV_W(""));
  DWORD cValues = 0;
  ASSERT_EQ(RegistryCountValues(eUser, strA.c_str(), &cValues), S_OK);
  EXPECT_EQ(cValues, 3u);
  EXPECT_EQ(SubKeys(strA), (std::vector<WString>{KV_W("B"), KV_W("D")}));

  WString strMissing;
  EXPECT_EQ(RegistryGetString(eUser, strA.c_str(), KV_W("Missing"), &strMissing), khrFileNotFound);
  EXPECT_EQ(RegistrySetString(eUser, scratch.Sub(KV_W("Missing")).c_str(), nullptr, KV_W("x")), khrFileNotFound);
  ASSERT_EQ(RegistryDeleteValue(eUser, strA.c_str(), KV_W("Named")), S_OK);
  EXPECT_EQ(RegistryDeleteValue(eUser, strA.c_str(), KV_W("Named")), khrFileNotFound);
  ASSERT_EQ(RegistryCountValues(eUser, strA.c_str(), &cValues), S_OK);
  EXPECT_EQ(cValues, 2u);

  // A key with subkeys is not deleted as a single key; its tree is.
  EXPECT_EQ(RegistryDeleteKey(eUser, strA.c_str()), E_ACCESSDENIED);
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  ASSERT_EQ(RegistryDeleteKey(eUser, scratch.Sub(KV_W("A\\D")).c_str()), S_OK);
  EXPECT_EQ(RegistryDeleteKey(eUser, scratch.Sub(KV_W("A\\D")).c_str()), khrFileNotFound);
  ASSERT_EQ(RegistryDeleteTree(eUser, strA.c_str()), S_OK);
  EXPECT_EQ(RegistryOpenKey(eUser, strDeep.c_str()), khrFileNotFound);
  EXPECT_EQ(RegistryDeleteTree(eUser, strA.c_str()), khrFileNotFound);
  EXPECT_TRUE(SubKeys(scratch.Path()).empty());
}

TEST(Registry, ModuleScriptInTheSystemRegistry) {
  CScratchKey scratch;
  CRedirectedRegistry target(scratch.Path());
  NSFrame::CRegistrar registrar(&target);
  const WCHAR szModule[] = KV_W("C:\\Program Files\\Kronvale\\kronvale.dll");
  const WCHAR szAppId[] = KV_W("{3E3C0CF5-0797-458B-A2DD-3574998A4B14}");
  ASSERT_EQ(registrar.AddReplacement(KV_W("MODULE"), szModule), S_OK);
  ASSERT_EQ(registrar.AddReplacement(KV_W("APPID"), szAppId), S_OK);
  // A stale class key that ForceRemove must wipe.
  const WString strClass = scratch.Sub(KV_W("HKCR\\CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}"));
  ASSERT_EQ(RegistryCreateKey(eUser, (strClass + KV_W("\\Stale")).c_str()), S_OK);

  ASSERT_EQ(registrar.RunResource(NSFrame::kidrAppIdScript, true), S_OK);
  const WString strClasses = scratch.Sub(KV_W("HKCR"));
  EXPECT_EQ(SubKeys(strClasses), (std::vector<WString>{KV_W("AppID"), KV_W("CLSID"), KV_W("Kronvale.Kronvale"),
                                                       KV_W("Kronvale.Kronvale.1")}));
  EXPECT_EQ(SubKeys(strClass), (std::vector<WString>{KV_W("InprocServer32"), KV_W("ProgID"), KV_W("TypeLib"),
                                                     KV_W("VersionIndependentProgID")}));
  EXPECT_EQ(Get(strClass, nullptr), KV_W("Kronvale Class"));
  EXPECT_EQ(Get(strClass, KV_W("AppID")), szAppId);
  EXPECT_EQ(Get(strClass + KV_W("\\InprocServer32"), nullptr), szModule);
  EXPECT_EQ(Get(strClass + KV_W("\\InprocServer32"), KV_W("ThreadingModel")), KV_W("Both"));
  EXPECT_EQ(Get(strClass + KV_W("\\TypeLib"), nullptr), KV_W("{A65A3C72-B362-4928-9C8C-349AC0C5DFF8}"));
  EXPECT_EQ(Get(strClasses + KV_W("\\Kronvale.Kronvale\\CurVer"), nullptr), KV_W("Kronvale.Kronvale.1"));
  EXPECT_EQ(Get(strClasses + KV_W("\\AppID\\") + szAppId, nullptr), KV_W("Kronvale"));
  EXPECT_EQ(Get(strClasses + KV_W("\\AppID\\Kronvale.DLL"), KV_W("AppID")), szAppId);

  ASSERT_EQ(registrar.RunResource(NSFrame::kidrAppIdScript, false), S_OK);
  EXPECT_EQ(SubKeys(strClasses), (std::vector<WString>{KV_W("AppID"), KV_W("CLSID")}));
  EXPECT_TRUE(SubKeys(strClasses + KV_W("\\AppID")).empty());
  EXPECT_TRUE(SubKeys(strClasses + KV_W("\\CLSID")).empty());
  // Once more: nothing left to remove is no failure.
  EXPECT_EQ(registrar.RunResource(NSFrame::kidrAppIdScript, false), S_OK);
}

#else  // !_WIN32

TEST(Registry, LinuxHasNoRegistry) {
  const HRESULT hrNotSupported = KvHResultFromWin32(ERROR_NOT_SUPPORTED);
  EXPECT_EQ(RegistryCreateKey(ERegistryRoot::ClassesRoot, u"CLSID"), hrNotSupported);
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
  EXPECT_EQ(RegistryOpenKey(ERegistryRoot::CurrentUser, u"Software"), hrNotSupported);
  std::vector<WString> vNames{u"x"};
  EXPECT_EQ(RegistryEnumSubKeys(ERegistryRoot::LocalMachine, u"Software", &vNames), hrNotSupported);
  EXPECT_TRUE(vNames.empty());
  std::string strBytes;
  EXPECT_EQ(LoadOwnResource(u"REGISTRY", 101, 0, &strBytes), hrNotSupported);

  // Registering through the system registry fails at its first operation.
  NSFrame::CPlatformRegistry target;
  NSFrame::CRegistrar registrar(&target);
  ASSERT_EQ(registrar.AddReplacement(u"MODULE", u"/usr/lib/libkronvale.so"), S_OK);
  ASSERT_EQ(registrar.AddReplacement(u"APPID", u"{3E3C0CF5-0797-458B-A2DD-3574998A4B14}"), S_OK);
  EXPECT_EQ(registrar.RunResource(NSFrame::kidrAppIdScript, true), hrNotSupported);
  EXPECT_EQ(registrar.RunResource(NSFrame::kidrAppIdScript, false), hrNotSupported);
  (void)khrFileNotFound;
}

#endif  // _WIN32
