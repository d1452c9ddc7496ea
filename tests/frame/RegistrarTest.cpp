// The registrar against the in-memory registry, on small scripts: what they write and remove, exact
// to every key and value, ForceRemove and NoRemove, failures stopping at the first one, and
// malformed scripts refused before anything is written. (What the module's own scripts write is
// checked by the module's tests.)
#include <gtest/gtest.h>
#include <kronvale/KronvaleResults.h>

#include "common/LogCapture.h"
#include "frame/MemoryRegistry.h"
#include "frame/Registrar.h"

using namespace NSKronvale;
using namespace NSFrame;

namespace {

// A class script in miniature: a program identifier, and the class under a shared parent.
const char kszClassScript[] =
    "HKCR\n{\n"
    "\tProg.1 = s 'Text'\n\t{\n\t\tCLSID = s '{C}'\n\t}\n"
    "\tNoRemove CLSID\n\t{\n"
    "\t\tForceRemove {C} = s 'Text'\n\t\t{\n"
    "\t\t\tInprocServer32 = s '%MODULE%'\n\t\t\t{\n\t\t\t\tval ThreadingModel = s 'Both'\n\t\t\t}\n"
    "\t\t\tval AppID = s '%APPID%'\n"
    "\t\t}\n\t}\n}\n";

// What it leaves in an empty registry.
const char kszClassRegistered[] =
    "HKCR\\CLSID\n"
    "HKCR\\CLSID\\{C}\n"
    "HKCR\\CLSID\\{C} = 'Text'\n"
    "HKCR\\CLSID\\{C} [AppID] = 'app'\n"
    "HKCR\\CLSID\\{C}\\InprocServer32\n"
    "HKCR\\CLSID\\{C}\\InprocServer32 = 'C:\\mod.dll'\n"
    "HKCR\\CLSID\\{C}\\InprocServer32 [ThreadingModel] = 'Both'\n"
    "HKCR\\Prog.1\n"
    "HKCR\\Prog.1 = 'Text'\n"
    "HKCR\\Prog.1\\CLSID\n"
    "HKCR\\Prog.1\\CLSID = '{C}'\n";

// A registrar with the two replacements the class script uses.
struct SClassRegistrar {
  CMemoryRegistry registry;
  CRegistrar registrar{&registry};
  SClassRegistrar() {
    EXPECT_EQ(registrar.AddReplacement(KV_W("MODULE"), KV_W("C:\\mod.dll")), S_OK);
    EXPECT_EQ(registrar.AddReplacement(KV_W("APPID"), KV_W("app")), S_OK);
  }
  HRESULT Register() { return registrar.Register(kszClassScript); }
  HRESULT Unregister() { return registrar.Unregister(kszClassScript); }
};

}  // namespace

TEST(Registrar, RegisterWritesExactlyTheScriptAndUnregisterKeepsOthersEntries) {
  SClassRegistrar cls;
  ASSERT_EQ(cls.Register(), S_OK);
  EXPECT_EQ(cls.registry.Dump(), kszClassRegistered);
  // Registering again changes nothing.
  ASSERT_EQ(cls.Register(), S_OK);
  EXPECT_EQ(cls.registry.Dump(), kszClassRegistered);
  // Out again: the NoRemove key stays, empty.
  ASSERT_EQ(cls.Unregister(), S_OK);
  EXPECT_EQ(cls.registry.Dump(), "HKCR\\CLSID\n");

  // Other servers' entries under the shared key survive a registration and its removal.
  SClassRegistrar shared;
  CMemoryRegistry& registry = shared.registry;
  const ERegistryRoot eRoot = ERegistryRoot::ClassesRoot;
  ASSERT_EQ(registry.CreateKey(eRoot, KV_W("CLSID\\{00000000-0000-0000-0000-000000000001}\\InprocServer32")), S_OK);
  ASSERT_EQ(registry.SetStringValue(eRoot, KV_W("CLSID\\{00000000-0000-0000-0000-000000000001}"), WString(), KV_W("Other")), S_OK);
  ASSERT_EQ(registry.SetStringValue(eRoot, KV_W("CLSID"), KV_W("Own"), KV_W("x")), S_OK);
  const std::string strBefore = registry.Dump();
  ASSERT_EQ(shared.Register(), S_OK);
  ASSERT_EQ(shared.Unregister(), S_OK);
  EXPECT_EQ(registry.Dump(), strBefore);
}

TEST(Registrar, UnregisteringWhatWasNeverRegisteredSucceedsWithoutDeleting) {
  SClassRegistrar cls;
  EXPECT_EQ(cls.Unregister(), S_OK);
  EXPECT_EQ(cls.registry.Dump(), "");
  for (const std::string& strOperation : cls.registry.Journal()) {
    EXPECT_EQ(strOperation.rfind("OpenKey ", 0), 0u) << strOperation;
  }

  // Half there: the CLSID key exists, the class does not.
  ASSERT_EQ(cls.registry.CreateKey(ERegistryRoot::ClassesRoot, KV_W("CLSID")), S_OK);
  ASSERT_EQ(cls.registry.CreateKey(ERegistryRoot::ClassesRoot, KV_W("Prog.1\\CLSID")), S_OK);
  EXPECT_EQ(cls.Unregister(), S_OK);
  EXPECT_EQ(cls.registry.Dump(), "HKCR\\CLSID\n");
}

TEST(Registrar, ForceRemoveReplacesAStaleClassKey) {
  SClassRegistrar cls;
  CMemoryRegistry& registry = cls.registry;
  const ERegistryRoot eRoot = ERegistryRoot::ClassesRoot;
  const WString strClass = KV_W("CLSID\\{C}");
  ASSERT_EQ(registry.CreateKey(eRoot, strClass + KV_W("\\InprocServer32")), S_OK);
  ASSERT_EQ(registry.SetStringValue(eRoot, strClass + KV_W("\\InprocServer32"), WString(), KV_W("D:\\old.dll")), S_OK);
  ASSERT_EQ(registry.SetStringValue(eRoot, strClass + KV_W("\\InprocServer32"), KV_W("ThreadingModel"), KV_W("Apartment")), S_OK);
  ASSERT_EQ(registry.CreateKey(eRoot, strClass + KV_W("\\LocalServer32\\Stale")), S_OK);
  ASSERT_EQ(registry.SetStringValue(eRoot, strClass, KV_W("Stale"), KV_W("1")), S_OK);
  // The program identifier is not ForceRemove: what else is under it stays.
  ASSERT_EQ(registry.CreateKey(eRoot, KV_W("Prog.1\\Extra")), S_OK);

  ASSERT_EQ(cls.Register(), S_OK);
  std::string strWithExtra = kszClassRegistered;
  strWithExtra += "HKCR\\Prog.1\\Extra\n";
  EXPECT_EQ(registry.Dump(), strWithExtra);

  // A plain key that keeps someone else's subkey stays on unregister, with its default value, but
  // loses its listed subkeys.
  ASSERT_EQ(cls.Unregister(), S_OK);
  EXPECT_EQ(registry.Dump(),
            "HKCR\\CLSID\n"
            "HKCR\\Prog.1\n"
            "HKCR\\Prog.1 = 'Text'\n"
            "HKCR\\Prog.1\\Extra\n");
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
  SClassRegistrar reference;
  ASSERT_EQ(reference.Register(), S_OK);
  const size_t cRegister = reference.registry.Journal().size();
  reference.registry.ClearJournal();
  ASSERT_EQ(reference.Unregister(), S_OK);
  const size_t cUnregister = reference.registry.Journal().size();
  ASSERT_GT(cRegister, 8u);
  ASSERT_GT(cUnregister, 4u);

  for (unsigned n = 1; n <= cRegister; ++n) {
    SClassRegistrar cls;
    cls.registry.FailOperation(n, khrWriteProtect);
    EXPECT_EQ(cls.Register(), khrWriteProtect) << n;
    EXPECT_EQ(cls.registry.Journal().size(), n) << "operations after the failure of operation " << n;
  }
  for (unsigned n = 1; n <= cUnregister; ++n) {
    SClassRegistrar cls;
    ASSERT_EQ(cls.Register(), S_OK);
    cls.registry.ClearJournal();
    cls.registry.FailOperation(n, khrWriteProtect);
    EXPECT_EQ(cls.Unregister(), khrWriteProtect) << n;
    EXPECT_EQ(cls.registry.Journal().size(), n) << "operations after the failure of operation " << n;
  }

  // The first operations of registration, in order: the program identifier is written completely
  // before the next key is touched.
  SClassRegistrar cls;
  cls.registry.FailOperation(5, E_ACCESSDENIED);
  EXPECT_EQ(cls.Register(), E_ACCESSDENIED);
  const std::vector<std::string> vExpected = {
      "CreateKey HKCR\\Prog.1",
      "SetStringValue HKCR\\Prog.1 []",
      "CreateKey HKCR\\Prog.1\\CLSID",
      "SetStringValue HKCR\\Prog.1\\CLSID []",
      "CreateKey HKCR\\CLSID",
  };
  EXPECT_EQ(cls.registry.Journal(), vExpected);
  EXPECT_EQ(cls.registry.Dump(),
            "HKCR\\Prog.1\n"
            "HKCR\\Prog.1 = 'Text'\n"
            "HKCR\\Prog.1\\CLSID\n"
            "HKCR\\Prog.1\\CLSID = '{C}'\n");
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
