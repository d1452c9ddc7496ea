// The settings file: the document a save writes, loading it back, and the files a load refuses
// without touching the caller's settings.
#include <gtest/gtest.h>
#include <pugixml.hpp>

#include <string>
#include <tuple>
#include <kronvale/KronvaleResults.h>

#include "archive/ArchiveSettings.h"
#include "common/LogCapture.h"
#include "common/TempDir.h"
#include "platform/os.h"

using namespace NSKronvale;

using NSArchive::SArchiveSettings;
using NSArchive::SerializeSettings;

namespace {

auto Fields(const SArchiveSettings& s) {
  return std::make_tuple(s.ullMinimumFreeDiskSpace, s.ullMaximumArchiveSize, s.lMaximumArchiveHours, s.dwAccess,
                         s.dwFlushTimeout, s.ullArchiveSize, s.dwSetState);
}
// Values no default could produce, to see what a load changed.
SArchiveSettings Sample() { return {0xFFFFFFFFFFFFFFFFull, 5000000000ull, -5, 0xFFFFFFFFu, 1500, 123456789012ull, 7}; }

// The elements under node in order: name(attributes), then their elements in braces or their text.
std::string Describe(const pugi::xml_node& node) {
  std::string str;
  for (const pugi::xml_node& e : node.children()) {
    str += std::string(e.name()) + "(";
    for (const pugi::xml_attribute& a : e.attributes()) str += std::string(a.name()) + "=" + a.value() + " ";
    str += ")" + (e.first_child().type() == pugi::node_element ? "{" + Describe(e) + "}" : e.child_value()) + " ";
  }
  return str;
}
// A settings document with the given contents of "Quotas" and of the root after it.
std::string Doc(const std::string& strQuotas, const std::string& strRoot = "") {
  return "<config xmlns:xpt=\"urn:kronvale:settings\"><Quotas>" + strQuotas + "</Quotas>" + strRoot + "</config>";
}

class ArchiveSettings : public testing::Test {
 protected:
  void TearDown() override { NSPlatform::NSFault::Reset(); }
  HRESULT LoadFrom(const std::string& strText, SArchiveSettings* pSettings) {
    EXPECT_EQ(S_OK, NSTest::WriteFileBytes(m_strFile, strText));
    return SerializeSettings(m_strFile, false, pSettings);
  }

  NSTest::CTempDir m_dir;
  WString m_strFile = m_dir.Sub(NSArchive::kszSettingsFileName);
};

}  // namespace

TEST_F(ArchiveSettings, SaveWritesEveryValueWithItsTypeAndLoadReadsThemBack) {
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(m_strFile, std::string(4096, '#')));  // to be replaced
  SArchiveSettings settings = Sample();
  ASSERT_EQ(S_OK, SerializeSettings(m_strFile, true, &settings));
  std::string strText;
  ASSERT_EQ(S_OK, NSTest::ReadFileBytes(m_strFile, &strText));
  EXPECT_EQ(0u, strText.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>", 0)) << strText;
  EXPECT_EQ(std::string::npos, strText.find('#')) << strText;
  pugi::xml_document document;
  ASSERT_TRUE(document.load_string(strText.c_str()));
  const auto v = [](const char* pszName, const char* pszType, const char* pszSigned, const char* pszText) {
    return std::string(pszName) + "(type=" + pszType + " signed=" + pszSigned + " real=false )" + pszText + " ";
  };
  EXPECT_EQ("config(xmlns:xpt=urn:kronvale:settings ){Quotas(){" +
                v("MinimumFreeDiskSpace", "UINT64", "false", "18446744073709551615") +
                v("MaximumArchiveSize", "UINT64", "false", "5000000000") + v("MaximumArchiveHours", "long", "true", "-5") +
                v("Access", "ULONG", "false", "4294967295") + "} " + v("FlushTimeout", "ULONG", "false", "1500") +
                v("ArchiveSize", "UINT64", "false", "123456789012") + v("SetState", "ULONG", "false", "7") + "} ",
            Describe(document));
  SArchiveSettings loaded;
  ASSERT_EQ(S_OK, SerializeSettings(m_strFile, false, &loaded));
  EXPECT_EQ(Fields(Sample()), Fields(loaded));
}

TEST_F(ArchiveSettings, MissingElementsKeepTheirMembers) {
  SArchiveSettings settings = Sample(), expected = Sample();
  ASSERT_EQ(S_OK, LoadFrom(Doc("<Access type=\"ULONG\">3</Access>", "<SetState type=\"ULONG\">0</SetState>"), &settings));
  expected.dwAccess = 3;
  expected.dwSetState = 0;
  EXPECT_EQ(Fields(expected), Fields(settings));
  // No "Quotas" at all: a quota value directly under the root is not one.
  ASSERT_EQ(S_OK, LoadFrom("<config><Access type=\"ULONG\">9</Access><FlushTimeout type=\"ULONG\">20</FlushTimeout>"
                           "</config>", &settings));
  expected.dwFlushTimeout = 20;
  EXPECT_EQ(Fields(expected), Fields(settings));
}

TEST_F(ArchiveSettings, RefusedFilesLeaveTheSettingsUntouched) {
  const std::pair<std::string, HRESULT> aCases[] = {
      {"", khrInvalidData},
      {"<config><Quotas></config>", khrInvalidData},
      {"<settings/>", khrInvalidData},
      {Doc("<MaximumArchiveSize type=\"ULONG\">1</MaximumArchiveSize>"), E_INVALIDARG},
      {Doc("<MaximumArchiveSize>1</MaximumArchiveSize>"), E_INVALIDARG},
      {Doc("<MaximumArchiveSize type=\"UINT64\">18446744073709551616</MaximumArchiveSize>"), E_INVALIDARG},
      {Doc("<Access type=\"ULONG\">4294967296</Access>"), E_INVALIDARG},
      {Doc("<Access type=\"ULONG\">-1</Access>"), E_INVALIDARG},
      {Doc("<MaximumArchiveHours type=\"long\">2147483648</MaximumArchiveHours>"), E_INVALIDARG},
      {Doc("<Access type=\"ULONG\">12abc</Access>"), E_INVALIDARG},
      {Doc("<Access type=\"ULONG\"></Access>"), E_INVALIDARG},
      // A bad value after good ones: the good ones must not reach the caller either.
      {Doc("<MinimumFreeDiskSpace type=\"UINT64\">1</MinimumFreeDiskSpace>", "<SetState type=\"ULONG\">x</SetState>"),
       E_INVALIDARG},
  };
  for (const auto& [strText, hr] : aCases) {
    SArchiveSettings settings = Sample();
    EXPECT_EQ(hr, LoadFrom(strText, &settings)) << strText;
    EXPECT_EQ(Fields(Sample()), Fields(settings)) << strText;
  }
}

TEST_F(ArchiveSettings, MissingFileOrSettingsFailWithoutCreatingTheFile) {
  SArchiveSettings settings = Sample();
  EXPECT_EQ(static_cast<HRESULT>(0x80070003), SerializeSettings(m_strFile, false, &settings));
  EXPECT_EQ(Fields(Sample()), Fields(settings));
  EXPECT_EQ(E_POINTER, SerializeSettings(m_strFile, true, nullptr));
  EXPECT_FALSE(NSPlatform::PathExists(m_strFile.c_str()));
}

TEST_F(ArchiveSettings, FailedWriteIsReportedAndReturned) {
  NSTest::CLogCapture capture;
  NSPlatform::NSFault::Arm({NSPlatform::NSFault::EOp::Write, 1, ERROR_DISK_FULL, false, -1, {}});
  SArchiveSettings settings = Sample();
  EXPECT_EQ(static_cast<HRESULT>(0x80070070), SerializeSettings(m_strFile, true, &settings));
  const auto vReports = capture.Reports(KV_W("TRASSDO"));
  ASSERT_EQ(1u, vReports.size());
  // "SUCCEEDED(KV_ARE(hr))\n" with the value of hr written in.
  const WString& strText = vReports[0].strText;
  EXPECT_EQ(0u, strText.rfind(KV_W("SUCCEEDED(hr-2147024784:'"), 0)) << NSPlatform::WideToUtf8(strText);
  EXPECT_EQ(strText.size() - 4, strText.rfind(KV_W("'))\n")));
}
