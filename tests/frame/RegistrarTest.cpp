// The registrar against the in-memory registry: what the module's scripts write and remove, exact
// to every key and value, ForceRemove and NoRemove, failures stopping at the first one, and
// malformed scripts refused before anything is written.
#include <gtest/gtest.h>

#include "common/LogCapture.h"
#include "frame/MemoryRegistry.h"
#include "frame/Registrar.h"
#include "frame/Resources.h"

using namespace NSFrame;

namespace {

constexpr HRESULT khrWriteProtect = KvHResultFromWin32(ERROR_WRITE_PROTECT);
const WCHAR kszModule[] = KV_W("C:\\Program Files\\Kronvale\\kronvale.dll");
const WCHAR kszAppId[] = KV_W("{3E3C0CF5-0797-458B-A2DD-3574998A4B14}");

std::string Script(UINT nId) {
  std::string str;
  EXPECT_EQ(GetRegistryScript(nId, &str), S_OK) << nId;
  return str;
}

// A registrar with the module's two replacements.
struct SModuleRegistrar {
  CMemoryRegistry registry;
  CRegistrar registrar{&registry};
  SModuleRegistrar() {
    EXPECT_EQ(registrar.AddReplacement(KV_W("MODULE"), kszModule), S_OK);
    EXPECT_EQ(registrar.AddReplacement(KV_W("APPID"), kszAppId), S_OK);
  }
  HRESULT Register(UINT nId) { return registrar.Register(Script(nId)); }
  HRESULT Unregister(UINT nId) { return registrar.Unregister(Script(nId)); }
};

// What script 101 (and 103) leaves in an empty registry.
const char kszKronvaleRegistered[] =
    "HKCR\\AppID\n"
    "HKCR\\AppID\\Kronvale.DLL\n"
    "HKCR\\AppID\\Kronvale.DLL [AppID] = '{3E3C0CF5-0797-458B-A2DD-3574998A4B14}'\n"
    "HKCR\\AppID\\{3E3C0CF5-0797-458B-A2DD-3574998A4B14}\n"
    "HKCR\\AppID\\{3E3C0CF5-0797-458B-A2DD-3574998A4B14} = 'Kronvale'\n"
    "HKCR\\CLSID\n"
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
    "HKCR\\Kronvale.Kronvale\n"
    "HKCR\\Kronvale.Kronvale = 'Kronvale Class'\n"
    "HKCR\\Kronvale.Kronvale\\CLSID\n"
    "HKCR\\Kronvale.Kronvale\\CLSID = '{78AD445A-55DC-40C3-AC1D-774A80581CF7}'\n"
    "HKCR\\Kronvale.Kronvale\\CurVer\n"
    "HKCR\\Kronvale.Kronvale\\CurVer = 'Kronvale.Kronvale.1'\n"
    "HKCR\\Kronvale.Kronvale.1\n"
    "HKCR\\Kronvale.Kronvale.1 = 'Kronvale Class'\n"
    "HKCR\\Kronvale.Kronvale.1\\CLSID\n"
    "HKCR\\Kronvale.Kronvale.1\\CLSID = '{78AD445A-55DC-40C3-AC1D-774A80581CF7}'\n";

// What script 104 leaves in an empty registry.
const char kszRecordExtractRegistered[] =
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

}  // namespace

TEST(Registrar, ModuleScriptsWriteExactlyTheirKeysAndValues) {
  for (UINT nId : {kidrAppIdScript, kidrKronvaleScript}) {
    SModuleRegistrar module;
    ASSERT_EQ(module.Register(nId), S_OK) << nId;
    EXPECT_EQ(module.registry.Dump(), kszKronvaleRegistered) << nId;
    // Registering again changes nothing.
    ASSERT_EQ(module.Register(nId), S_OK);
    EXPECT_EQ(module.registry.Dump(), kszKronvaleRegistered);
  }
  SModuleRegistrar extract;
  ASSERT_EQ(extract.Register(kidrRecordExtractScript), S_OK);
  EXPECT_EQ(extract.registry.Dump(), kszRecordExtractRegistered);

  // Script 102 has the same shape with the record's names.
  SModuleRegistrar record;
  ASSERT_EQ(record.Register(kidrRecordScript), S_OK);
  WString strValue;
  const WString strClass = KV_W("CLSID\\{E07A6959-FE49-42DB-B27B-0A427430FF87}");
  ASSERT_TRUE(record.registry.GetValue(ERegistryRoot::ClassesRoot, strClass, WString(), &strValue));
  EXPECT_EQ(strValue, KV_W("Record Class"));
  ASSERT_TRUE(record.registry.GetValue(ERegistryRoot::ClassesRoot, strClass + KV_W("\\InprocServer32"),
                                       KV_W("ThreadingModel"), &strValue));
  EXPECT_EQ(strValue, KV_W("Both"));
  ASSERT_TRUE(record.registry.GetValue(ERegistryRoot::ClassesRoot, KV_W("Kronvale.Record\\CurVer"), WString(), &strValue));
  EXPECT_EQ(strValue, KV_W("Kronvale.Record.1"));
  EXPECT_FALSE(record.registry.KeyExists(ERegistryRoot::ClassesRoot, KV_W("AppID")));
}

TEST(Registrar, UnregisterRemovesWhatWasWrittenAndKeepsNoRemoveKeys) {
  SModuleRegistrar module;
  CMemoryRegistry& registry = module.registry;
  // Other servers' entries under the shared keys.
  const ERegistryRoot eRoot = ERegistryRoot::ClassesRoot;
  ASSERT_EQ(registry.CreateKey(eRoot, KV_W("CLSID\\{00000000-0000-0000-0000-000000000001}\\InprocServer32")), S_OK);
  ASSERT_EQ(registry.SetStringValue(eRoot, KV_W("CLSID\\{00000000-0000-0000-0000-000000000001}"), WString(), KV_W("Other")), S_OK);
  ASSERT_EQ(registry.SetStringValue(eRoot, KV_W("CLSID"), KV_W("Own"), KV_W("x")), S_OK);
  ASSERT_EQ(registry.CreateKey(eRoot, KV_W("AppID\\other.exe")), S_OK);
  const std::string strBefore = registry.Dump();

  for (UINT nId : {kidrAppIdScript, kidrRecordScript, kidrKronvaleScript, kidrRecordExtractScript}) {
    ASSERT_EQ(module.Register(nId), S_OK);
  }
  for (UINT nId : {kidrAppIdScript, kidrRecordScript, kidrKronvaleScript, kidrRecordExtractScript}) {
    ASSERT_EQ(module.Unregister(nId), S_OK) << nId;
  }
  EXPECT_EQ(registry.Dump(), strBefore);

  // Into an empty registry and out again: the NoRemove keys stay, empty.
  SModuleRegistrar fresh;
  ASSERT_EQ(fresh.Register(kidrAppIdScript), S_OK);
  ASSERT_EQ(fresh.Unregister(kidrAppIdScript), S_OK);
  EXPECT_EQ(fresh.registry.Dump(), "HKCR\\AppID\nHKCR\\CLSID\n");
}

TEST(Registrar, UnregisteringWhatWasNeverRegisteredSucceedsWithoutDeleting) {
  SModuleRegistrar module;
  for (UINT nId : {kidrAppIdScript, kidrRecordScript, kidrKronvaleScript, kidrRecordExtractScript}) {
    EXPECT_EQ(module.Unregister(nId), S_OK) << nId;
  }
  EXPECT_EQ(module.registry.Dump(), "");
  for (const std::string& strOperation : module.registry.Journal()) {
    EXPECT_EQ(strOperation.rfind("OpenKey ", 0), 0u) << strOperation;
  }

  // Half there: the CLSID key exists, the class does not.
  ASSERT_EQ(module.registry.CreateKey(ERegistryRoot::ClassesRoot, KV_W("CLSID")), S_OK);
  ASSERT_EQ(module.registry.CreateKey(ERegistryRoot::ClassesRoot, KV_W("Kronvale.Kronvale\\CurVer")), S_OK);
  EXPECT_EQ(module.Unregister(kidrKronvaleScript), S_OK);
  EXPECT_EQ(module.registry.Dump(), "HKCR\\CLSID\n");
}

TEST(Registrar, ForceRemoveReplacesAStaleClassKey) {
  SModuleRegistrar module;
  CMemoryRegistry& registry = module.registry;
  const ERegistryRoot eRoot = ERegistryRoot::ClassesRoot;
  const WString strClass = KV_W("CLSID\\{78AD445A-55DC-40C3-AC1D-774A80581CF7}");
  ASSERT_EQ(registry.CreateKey(eRoot, strClass + KV_W("\\InprocServer32")), S_OK);
  ASSERT_EQ(registry.SetStringValue(eRoot, strClass + KV_W("\\InprocServer32"), WString(), KV_W("D:\\old\\kronvale.dll")), S_OK);
  ASSERT_EQ(registry.SetStringValue(eRoot, strClass + KV_W("\\InprocServer32"), KV_W("ThreadingModel"), KV_W("Apartment")), S_OK);
  ASSERT_EQ(registry.CreateKey(eRoot, strClass + KV_W("\\LocalServer32\\Stale")), S_OK);
  ASSERT_EQ(registry.SetStringValue(eRoot, strClass, KV_W("Stale"), KV_W("1")), S_OK);
  // The program identifiers are not ForceRemove: what else is under them stays.
  ASSERT_EQ(registry.CreateKey(eRoot, KV_W("Kronvale.Kronvale\\Extra")), S_OK);

  ASSERT_EQ(module.Register(kidrAppIdScript), S_OK);
  const std::string strExpected = std::string(kszKronvaleRegistered);
  const std::string strExtra = "HKCR\\Kronvale.Kronvale\\Extra\n";
  std::string strWithExtra = strExpected;
  strWithExtra.insert(strWithExtra.find("HKCR\\Kronvale.Kronvale.1\n"), strExtra);
  EXPECT_EQ(registry.Dump(), strWithExtra);

  // A plain key that keeps someone else's subkey stays on unregister, with its default value, but
  // loses its listed subkeys.
  ASSERT_EQ(module.Unregister(kidrAppIdScript), S_OK);
  EXPECT_EQ(registry.Dump(),
            "HKCR\\AppID\n"
            "HKCR\\CLSID\n"
            "HKCR\\Kronvale.Kronvale\n"
            "HKCR\\Kronvale.Kronvale = 'Kronvale Class'\n"
            "HKCR\\Kronvale.Kronvale\\Extra\n");
}

TEST(Registrar, ValuesOfKeysThatStayAreDeletedOnUnregister) {
  CMemoryRegistry registry;
  CRegistrar registrar(&registry);
  const std::string strScript =
      "HKLM\n{\n\tNoRemove Software\n\t{\n\t\tval Mine = s 'a'\n\t\tKeep\n\t\t{\n\t\t\tval Mine = s 'b'\n"
      "\t\t\tval Missing = s 'c'\n\t\t}\n\t}\n}\n";
  ASSERT_EQ(registrar.Register(strScript), S_OK);
  ASSERT_EQ(registry.SetStringValue(ERegistryRoot::LocalMachine, KV_W("Software"), KV_W("Theirs"), KV_W("t")), S_OK);
  ASSERT_EQ(registry.CreateKey(ERegistryRoot::LocalMachine, KV_W("Software\\Keep\\Foreign")), S_OK);
  ASSERT_EQ(registry.SetStringValue(ERegistryRoot::LocalMachine, KV_W("Software\\Keep"), KV_W("Other"), KV_W("o")), S_OK);
  ASSERT_EQ(registry.DeleteValue(ERegistryRoot::LocalMachine, KV_W("Software\\Keep"), KV_W("Missing")), S_OK);
  ASSERT_EQ(registrar.Unregister(strScript), S_OK);
  EXPECT_EQ(registry.Dump(),
            "HKLM\\Software\n"
            "HKLM\\Software [Theirs] = 't'\n"
            "HKLM\\Software\\Keep\n"
            "HKLM\\Software\\Keep [Other] = 'o'\n"
            "HKLM\\Software\\Keep\\Foreign\n");
}

TEST(Registrar, AFailingOperationStopsTheScriptWithItsResult) {
  // Count the operations of a clean run in each direction, then fail each of them in turn.
  SModuleRegistrar reference;
  ASSERT_EQ(reference.Register(kidrAppIdScript), S_OK);
  const size_t cRegister = reference.registry.Journal().size();
  reference.registry.ClearJournal();
  ASSERT_EQ(reference.Unregister(kidrAppIdScript), S_OK);
  const size_t cUnregister = reference.registry.Journal().size();
  ASSERT_GT(cRegister, 20u);
  ASSERT_GT(cUnregister, 10u);

  for (unsigned n = 1; n <= cRegister; ++n) {
    SModuleRegistrar module;
    module.registry.FailOperation(n, khrWriteProtect);
    EXPECT_EQ(module.Register(kidrAppIdScript), khrWriteProtect) << n;
    EXPECT_EQ(module.registry.Journal().size(), n) << "operations after the failure of operation " << n;
  }
  for (unsigned n = 1; n <= cUnregister; ++n) {
    SModuleRegistrar module;
    ASSERT_EQ(module.Register(kidrAppIdScript), S_OK);
    module.registry.ClearJournal();
    module.registry.FailOperation(n, khrWriteProtect);
    EXPECT_EQ(module.Unregister(kidrAppIdScript), khrWriteProtect) << n;
    EXPECT_EQ(module.registry.Journal().size(), n) << "operations after the failure of operation " << n;
  }

  // The first operations of registration, in order: the first program identifier is written
  // completely before the next key is touched.
  SModuleRegistrar module;
  module.registry.FailOperation(5, E_ACCESSDENIED);
  EXPECT_EQ(module.Register(kidrAppIdScript), E_ACCESSDENIED);
  const std::vector<std::string> vExpected = {
      "CreateKey HKCR\\Kronvale.Kronvale.1",
      "SetStringValue HKCR\\Kronvale.Kronvale.1 []",
      "CreateKey HKCR\\Kronvale.Kronvale.1\\CLSID",
      "SetStringValue HKCR\\Kronvale.Kronvale.1\\CLSID []",
      "CreateKey HKCR\\Kronvale.Kronvale",
  };
  EXPECT_EQ(module.registry.Journal(), vExpected);
  EXPECT_EQ(module.registry.Dump(),
            "HKCR\\Kronvale.Kronvale.1\n"
            "HKCR\\Kronvale.Kronvale.1 = 'Kronvale Class'\n"
            "HKCR\\Kronvale.Kronvale.1\\CLSID\n"
            "HKCR\\Kronvale.Kronvale.1\\CLSID = '{78AD445A-55DC-40C3-AC1D-774A80581CF7}'\n");
}

TEST(Registrar, SyntaxVariantsAndReplacements) {
  CMemoryRegistry registry;
  CRegistrar registrar(&registry);
  ASSERT_EQ(registrar.AddReplacement(KV_W("Name"), KV_W("it's")), S_OK);
  ASSERT_EQ(registrar.AddReplacement(KV_W("NAME"), KV_W("value")), S_OK);  // replaces, names ignore case
  EXPECT_EQ(registrar.AddReplacement(KV_W(""), KV_W("x")), E_INVALIDARG);
  EXPECT_EQ(registrar.AddReplacement(KV_W("A%B"), KV_W("x")), E_INVALIDARG);
  // A byte order mark, CRLF line ends, long root names, keywords in any case, '' inside quotes,
  // %% for a percent sign, replacements in bare and quoted names, several roots.
  const std::string strScript =
      "\xEF\xBB\xBFHKEY_CURRENT_USER {\r\n  norEMOVE Software {\r\n    FORCEREMOVE 'My App' = S 'It''s 100%%'\r\n"
      "    {\r\n      VAL 'Path' = s '%name%\\bin'\r\n      %NAME%.key\r\n    }\r\n  }\r\n}\r\n"
      "HKEY_LOCAL_MACHINE { 'val' = s '' }\nhklm { K\xC3\xA9y }\n";
  ASSERT_EQ(registrar.Register(strScript), S_OK) << NSPlatform::WideToUtf8(registrar.GetLastError());
  EXPECT_EQ(registry.Dump(),
            "HKLM\\K\xC3\xA9y\n"
            "HKLM\\val\n"
            "HKLM\\val = ''\n"
            "HKCU\\Software\n"
            "HKCU\\Software\\My App\n"
            "HKCU\\Software\\My App = 'It's 100%'\n"
            "HKCU\\Software\\My App [Path] = 'value\\bin'\n"
            "HKCU\\Software\\My App\\value.key\n");
  // An empty script is a script with nothing to do.
  registry.ClearJournal();
  EXPECT_EQ(registrar.Register(" \n\t"), S_OK);
  EXPECT_TRUE(registry.Journal().empty());
}

TEST(Registrar, MalformedScriptsAreRefusedBeforeAnyWrite) {
  struct SCase {
    const char* pszScript;
    const char* pszError;  // what GetLastError answers
  };
  const SCase aCases[] = {
      {"HKCR\n{\n\tA\n\t{\n", "line 4: '}' missing for key A"},
      {"HKCR\n{\n\tA\n\t{\n\t}\n", "line 5: '}' missing at the end of the script"},
      {"HKXX\n{\n}\n", "line 1: root key expected (HKCR, HKLM, HKCU) at 'HKXX'"},
      {"HKCR\n}\n", "line 2: '{' expected after the root key at '}'"},
      {"HKCR", "line 1: '{' expected after the root key"},
      {"HKCR\n{\n\tA = s '%FOO%'\n}\n", "line 3: unknown replacement %FOO%"},
      {"HKCR\n{\n\t'50%' = s 'x'\n}\n", "line 3: '%' without its closing '%' in '50%'"},
      {"HKCR\n{\n\tA = s 'open\n}\n", "line 3: quoted text not closed"},
      {"HKCR\n{\n\tA = d '1'\n}\n", "line 3: only string values ('s') are supported at 'd'"},
      {"HKCR\n{\n\tA = s text\n}\n", "line 3: quoted text expected after 's' at 'text'"},
      {"HKCR\n{\n\tA = s 'x'}\n}\n", "line 3: white space expected after quoted text 'x'"},
      {"HKCR\n{\n\tval A = s 'x'\n}\n", "line 3: a value needs a key to hold it at 'val'"},
      {"HKCR\n{\n\tA\\B\n}\n", "line 3: a key name may not contain '\\' at 'A\\B'"},
      {"HKCR\n{\n\tNoRemove ForceRemove A\n}\n", "line 3: a key takes one of NoRemove and ForceRemove at 'ForceRemove'"},
      {"HKCR\n{\n\tA\n\t{\n\t\tNoRemove val B = s 'x'\n\t}\n}\n", "line 5: NoRemove and ForceRemove apply to keys at 'val'"},
      {"HKCR\n{\n\tA\n\t{\n\t\tval B s 'x'\n\t}\n}\n", "line 5: '=' expected after the value name at 's'"},
      {"HKCR\n{\n\t= s 'x'\n}\n", "line 3: key name expected at '='"},
      {"HKCR\n{\n\t'' = s 'x'\n}\n", "line 3: empty key name at ''"},
      {"HKCR\n{\n\tab'c\n}\n", "line 3: quote inside a word after 'ab'"},
      // The first root is fine; the error in the second keeps the first from being written.
      {"HKCR\n{\n\tGood = s 'x'\n}\nHKCU\n{\n\tBad = s\n}\n", "line 8: quoted text expected after 's' at '}'"},
  };
  for (const SCase& testCase : aCases) {
    CMemoryRegistry registry;
    CRegistrar registrar(&registry);
    EXPECT_EQ(registrar.Register(testCase.pszScript), khrRegistrarSyntax) << testCase.pszScript;
    EXPECT_EQ(registrar.Unregister(testCase.pszScript), khrRegistrarSyntax) << testCase.pszScript;
    EXPECT_EQ(NSPlatform::WideToUtf8(registrar.GetLastError()), testCase.pszError) << testCase.pszScript;
    EXPECT_TRUE(registry.Journal().empty()) << testCase.pszScript;
  }

  // Deep nesting is refused instead of exhausting the stack.
  std::string strDeep = "HKCR {";
  for (int i = 0; i < 200; ++i) strDeep += " K {";
  for (int i = 0; i < 200; ++i) strDeep += " }";
  strDeep += " }";
  CMemoryRegistry registry;
  CRegistrar registrar(&registry);
  EXPECT_EQ(registrar.Register(strDeep), khrRegistrarSyntax);
  EXPECT_EQ(NSPlatform::WideToUtf8(registrar.GetLastError()), "line 1: keys nested too deeply at 'K'");
  EXPECT_TRUE(registry.Journal().empty());
}

TEST(Registrar, ScriptErrorsAreReported) {
  NSTest::CLogCapture capture;
  CMemoryRegistry registry;
  CRegistrar registrar(&registry);
  ASSERT_EQ(registrar.Register("HKCR\n{\n\tA = s '%APPID%'\n}\n"), khrRegistrarSyntax);
  registry.FailOperation(1, khrWriteProtect);
  ASSERT_EQ(registrar.Register("HKCR\n{\n\tA\n}\n"), khrWriteProtect);
  const std::vector<NSTest::SLoggedReport> vReports = capture.Reports();
  std::vector<WString> vTexts;
  for (const NSTest::SLoggedReport& report : vReports) vTexts.push_back(report.strText);
  ASSERT_EQ(vReports.size(), 3u);
  EXPECT_EQ(vTexts[0], KV_W("Registry script error at line 3: unknown replacement %APPID%\n"));
  // The system's text for the code follows the number; it differs between systems.
  EXPECT_EQ(vTexts[1].rfind(KV_W("SUCCEEDED(hr-2147024877:'"), 0), 0u);
  EXPECT_EQ(vTexts[2], KV_W("Registrar: creating HKCR\\A failed\n"));
  EXPECT_EQ(vReports[0].strFunction, "CRegistrar::Parse");
  EXPECT_EQ(vReports[1].strFunction, "CRegistrar::Apply");
  EXPECT_EQ(vReports[1].strCategory, KV_W("TRASSDO"));
}
