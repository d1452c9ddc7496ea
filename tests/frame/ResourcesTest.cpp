// The module's resources: the registrar scripts byte for byte and the string table in each of its
// languages, UTF-16 code unit for code unit; unknown ids and languages refused with the codes
// Windows gives.
#include <gtest/gtest.h>
#include <kronvale/KronvaleResults.h>

#include <string>

#include "frame/Resources.h"
#include "platform/os.h"

using namespace NSKronvale;
using namespace NSFrame;

namespace {

std::u16string Units(const WString& str) { return std::u16string(str.begin(), str.end()); }

// The registrar script of the class Kronvale.<strName>: its two ProgIDs and its CLSID entry.
std::string ClassScript(const std::string& strName, const std::string& strClsid) {
  const std::string strProgId = "Kronvale." + strName;
  return "HKCR\n"
         "{\n"
         "\t" + strProgId + ".1 = s '" + strName + " Class'\n"
         "\t{\n"
         "\t\tCLSID = s '{" + strClsid + "}'\n"
         "\t}\n"
         "\t" + strProgId + " = s '" + strName + " Class'\n"
         "\t{\n"
         "\t\tCLSID = s '{" + strClsid + "}'\n"
         "\t\tCurVer = s '" + strProgId + ".1'\n"
         "\t}\n"
         "\tNoRemove CLSID\n"
         "\t{\n"
         "\t\tForceRemove {" + strClsid + "} = s '" + strName + " Class'\n"
         "\t\t{\n"
         "\t\t\tProgID = s '" + strProgId + ".1'\n"
         "\t\t\tVersionIndependentProgID = s '" + strProgId + "'\n"
         "\t\t\tInprocServer32 = s '%MODULE%'\n"
         "\t\t\t{\n"
         "\t\t\t\tval ThreadingModel = s 'Both'\n"
         "\t\t\t}\n"
         "\t\t\tval AppID = s '%APPID%'\n"
         "\t\t\t'TypeLib' = s '{A65A3C72-B362-4928-9C8C-349AC0C5DFF8}'\n"
         "\t\t}\n"
         "\t}\n"
         "}\n";
}

// The archive's class also registers the module's AppID.
const std::string kstrKronvaleScript = ClassScript("Kronvale", "78AD445A-55DC-40C3-AC1D-774A80581CF7") +
                                       "HKCR\n"
                                       "{\n"
                                       "\tNoRemove AppID\n"
                                       "\t{\n"
                                       "\t\t'%APPID%' = s 'Kronvale'\n"
                                       "\t\t'Kronvale.DLL'\n"
                                       "\t\t{\n"
                                       "\t\t\tval AppID = s '%APPID%'\n"
                                       "\t\t}\n"
                                       "\t}\n"
                                       "}\n";

}  // namespace

TEST(Resources, RegistrarScriptsAreTheirExactText) {
  std::string str101, str102, str103, str104;
  ASSERT_EQ(GetRegistryScript(101, &str101), S_OK);
  ASSERT_EQ(GetRegistryScript(102, &str102), S_OK);
  ASSERT_EQ(GetRegistryScript(103, &str103), S_OK);
  ASSERT_EQ(GetRegistryScript(104, &str104), S_OK);
  EXPECT_EQ(str101, kstrKronvaleScript);
  EXPECT_EQ(str103, kstrKronvaleScript);
  EXPECT_EQ(str102, ClassScript("Record", "E07A6959-FE49-42DB-B27B-0A427430FF87"));
  EXPECT_EQ(str104, ClassScript("RecordExtract", "2F42387D-15C5-4C16-B9B8-44E099A9F560"));

  std::string strNone = "unchanged";
  EXPECT_EQ(GetRegistryScript(100, &strNone), khrResourceNameNotFound);
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_RESOURCE_NAME_NOT_FOUND));
  EXPECT_EQ(GetRegistryScript(105, &strNone), khrResourceNameNotFound);
  EXPECT_EQ(strNone, "unchanged");
  EXPECT_EQ(GetRegistryScript(101, nullptr), E_POINTER);
}

TEST(Resources, StringTableInEveryLanguage) {
  struct SExpected {
    WORD wLanguage;
    const char16_t* psz101;
  };
  const SExpected aExpected[] = {
      {1033, u"Restoring the hour"},
      {1036, u"R\u00E9stauration de l'heure"},
      {1049, u"\u0412\u043E\u0441\u0441\u0442\u0430\u043D\u043E\u0432\u043B\u0435\u043D\u0438\u0435 "
             u"\u0447\u0430\u0441\u0430"},
      {1068, u"Saat\u0131n i\u015F\u00E7i v\u0259ziyy\u0259t\u0259 g\u0259tirilm\u0259si"},
      {1034, u"?"},
      {1062, u"?"},
      {1079, u"?"},
  };
  for (const SExpected& expected : aExpected) {
    WString str;
    ASSERT_EQ(LoadModuleString(kidsProjectName, expected.wLanguage, &str), S_OK) << expected.wLanguage;
    EXPECT_EQ(Units(str), u"Kronvale") << expected.wLanguage;
    ASSERT_EQ(LoadModuleString(kidsRestoringHour, expected.wLanguage, &str), S_OK) << expected.wLanguage;
    EXPECT_EQ(Units(str), expected.psz101) << expected.wLanguage;
    EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_SUCCESS));
  }

  // The module's default language: on Linux English; Windows picks among the languages present.
  WString strDefault;
  ASSERT_EQ(LoadModuleString(kidsRestoringHour, 0, &strDefault), S_OK);
#ifdef _WIN32
  bool bKnown = false;
  for (const SExpected& expected : aExpected) bKnown = bKnown || Units(strDefault) == expected.psz101;
  EXPECT_TRUE(bKnown) << NSPlatform::WideToUtf8(strDefault);
#else
  EXPECT_EQ(Units(strDefault), u"Restoring the hour");
#endif
}

TEST(Resources, UnknownStringsAndLanguagesAreRefused) {
  WString str = KV_W("unchanged");
  // An id of the block the strings are in (96 to 111), not defined.
  EXPECT_EQ(LoadModuleString(102, 1033, &str), khrResourceNameNotFound);
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_RESOURCE_NAME_NOT_FOUND));
  EXPECT_EQ(LoadModuleString(96, 1049, &str), khrResourceNameNotFound);
  // Ids of blocks the table does not have, in a language it has or not.
  EXPECT_EQ(LoadModuleString(5, 1033, &str), khrResourceNameNotFound);
  EXPECT_EQ(LoadModuleString(112, 1033, &str), khrResourceNameNotFound);
  EXPECT_EQ(LoadModuleString(112, 1031, &str), khrResourceNameNotFound);
  // Languages the table lacks (German; English UK; Russian with a wrong sublanguage).
  EXPECT_EQ(LoadModuleString(100, 1031, &str), khrResourceLangNotFound);
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_RESOURCE_LANG_NOT_FOUND));
  EXPECT_EQ(LoadModuleString(101, 2057, &str), khrResourceLangNotFound);
  EXPECT_EQ(LoadModuleString(102, 2073, &str), khrResourceLangNotFound);
  EXPECT_EQ(str, KV_W("unchanged"));
  EXPECT_EQ(LoadModuleString(100, 1033, nullptr), E_POINTER);
}
