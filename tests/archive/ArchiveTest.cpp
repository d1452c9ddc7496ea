// The archive object on real directories: opening and its failures, the stored state, the
// description and information, the record and reader tables, Free, and refused names.
#include "common/CountingOuter.h"
#include "archive/ArchiveImpl.h"
#include "records/RecordTestSupport.h"

#include <kronvale/KronvaleResults.h>

#ifndef _WIN32
#include <unistd.h>
#endif

using namespace NSKronvale;
using namespace NSTest;
using NSArchive::CArchiveImpl;

namespace {

WString CurrentDirectory() {
#ifdef _WIN32
  WCHAR sz[MAX_PATH] = {};
  return ::GetCurrentDirectoryW(MAX_PATH, sz) ? WString(sz) : WString();
#else
  char sz[4096] = {};
  return ::getcwd(sz, sizeof(sz)) ? NSPlatform::Utf8ToWide(sz) : WString();
#endif
}

bool ChangeDirectory(const WString& str) {
#ifdef _WIN32
  return ::SetCurrentDirectoryW(str.c_str()) != FALSE;
#else
  return ::chdir(NSPlatform::WideToUtf8(str).c_str()) == 0;
#endif
}

class ArchiveTest : public ::testing::Test {
 protected:
  WString Path(const char* psz = "") const {
    return *psz ? NSPlatform::CombinePath(m_dir.Sub(KV_W("arc")), Native(psz)) : m_dir.Sub(KV_W("arc"));
  }
  // A new archive object opened on the directory.
  HRESULT OpenArchive(IKronvale** ppArchive, DWORD dwAccess = 0) {
    NSCom::CComObject<CArchiveImpl>* p = nullptr;
    EXPECT_EQ(S_OK, NSCom::CComObject<CArchiveImpl>::CreateInstance(&p));
    NSCom::CComPtr<IKronvale> pHold(p);
    const HRESULT hr = p->Open(Path(), dwAccess);
    if (SUCCEEDED(hr)) *ppArchive = pHold.Detach();
    return hr;
  }
  std::string Settings() const {
    std::string str;
    NSTest::ReadFileBytes(Path("settings.als"), &str);
    return str;
  }
  // The text of one settings element.
  std::string Setting(const char* pszName) const {
    const std::string str = Settings();
    const size_t nOpen = str.find(std::string("<") + pszName + " ");
    const size_t nStart = str.find('>', nOpen) + 1;
    return nOpen == std::string::npos ? "?" : str.substr(nStart, str.find('<', nStart) - nStart);
  }
  void ReplaceSetting(const char* pszName, const std::string& strFrom, const std::string& strTo) {
    std::string str = Settings();
    const std::string strOld = std::string(pszName) + strFrom;
    const size_t n = str.find(strOld);
    ASSERT_NE(std::string::npos, n) << strOld;
    str.replace(n, strOld.size(), std::string(pszName) + strTo);
    ASSERT_EQ(S_OK, NSTest::WriteFileBytes(Path("settings.als"), str));
  }

  NSTest::CTempDir m_dir;
};

TEST_F(ArchiveTest, OpeningNeedsSoundSettings) {
  ASSERT_EQ(S_OK, NSPlatform::CreateDirTree(Path().c_str()));
  NSCom::CComPtr<IKronvale> pArchive;
  EXPECT_EQ(khrPathNotFound, OpenArchive(&pArchive));
  EXPECT_FALSE(NSPlatform::PathExists(Path("settings.als").c_str()));
  { CTestArchive made(Path()); }
  // A value of the wrong type, then a document that does not parse.
  ReplaceSetting("<MaximumArchiveSize", " type=\"UINT64\"", " type=\"ULONG\"");
  EXPECT_EQ(E_INVALIDARG, OpenArchive(&pArchive));
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(Path("settings.als"), "<config><Quotas>"));
  EXPECT_EQ(static_cast<HRESULT>(0x8007000D), OpenArchive(&pArchive));
  EXPECT_FALSE(pArchive);
}

TEST_F(ArchiveTest, SettingsDescriptionAndStateSurviveAReopen) {
  {
    CTestArchive archive(Path(), 250);
    ASSERT_EQ(S_OK, archive->SetQuota(1000, 2000));
    EXPECT_EQ(S_FALSE, archive->SetQuota(1000, 2000));
    const SArchiveQuota quota = {1000, 2000, 48, 0};
    ASSERT_EQ(S_OK, Query<IKronvaleQuota>(archive.Get(), IID_IKronvaleQuota)->SetArchiveQuota(&quota));
    ASSERT_EQ(S_OK, archive->SetDescription(NSCom::CComBSTR(KV_W("North gate"))));
    // A save deferred to the next open, remembered with the next save of the settings.
    ASSERT_EQ(S_OK, Query<IStateControl>(archive.Get(), IID_IStateControl)->Set(0x100000));
    ASSERT_EQ(S_OK, archive->SetQuota(1000, 3000));
  }
  EXPECT_EQ("524288", Setting("SetState"));
  std::string strDescription;
  ASSERT_EQ(S_OK, NSTest::ReadFileBytes(Path("descriptor.ald"), &strDescription));
  EXPECT_EQ(std::string("N\0o\0r\0t\0h\0 \0g\0a\0t\0e\0", 20), strDescription);

  NSCom::CComPtr<IKronvale> pArchive;
  ASSERT_EQ(S_OK, OpenArchive(&pArchive, 0x20));
  // The stored state was replayed once, and the new access word is stored.
  EXPECT_EQ("0", Setting("SetState"));
  EXPECT_EQ("32", Setting("Access"));
  SArchiveQuota quota = {};
  ASSERT_EQ(S_OK, Query<IKronvaleQuota>(pArchive, IID_IKronvaleQuota)->GetArchiveQuota(&quota));
  EXPECT_EQ(1000u, quota.ullMinimumFreeDiskSpace);
  EXPECT_EQ(3000u, quota.ullMaximumArchiveSize);
  EXPECT_EQ(48, quota.lMaximumArchiveHours);
  EXPECT_EQ(0x20u, quota.dwAccess);
  SArchiveInfo info = {};
  ASSERT_EQ(S_OK, pArchive->GetInfo(&info));
  EXPECT_EQ(250u, info.dwFlushTimeout);
  EXPECT_EQ(0x20u, info.dwAccess);
  EXPECT_EQ(3000u, info.ullMaximumArchiveSize);
  EXPECT_GT(info.ullFreeDiskSpace, 0u);
  NSCom::CComBSTR bstr;
  ASSERT_EQ(S_OK, pArchive->GetDescription(&bstr));
  EXPECT_EQ(WString(KV_W("North gate")), WString(bstr.m_str));
  EXPECT_EQ(E_POINTER, pArchive->GetInfo(nullptr));

  // Freed: no settings change, no records, and the file keeps its values.
  ASSERT_EQ(S_OK, pArchive->Free());
  EXPECT_EQ(khrLocked, pArchive->SetFlushTimeout(1));
  EXPECT_EQ(khrLocked, pArchive->SetQuota(1, 1));
  NSCom::CComPtr<IRecord> pRecord;
  EXPECT_EQ(khrLocked, pArchive->CreateRecord(NSCom::CComBSTR(KV_W("x")), &pRecord));
  EXPECT_EQ(khrLocked, pArchive->OpenRecord(NSCom::CComBSTR(KV_W("x")), &pRecord));
  BSTR* pNames = nullptr;
  DWORD cNames = 0;
  EXPECT_EQ(khrLocked, pArchive->GetRecords(&pNames, &cNames));
  EXPECT_EQ("250", Setting("FlushTimeout"));
}

// An archive made from a relative path keeps working after the working directory changes.
TEST_F(ArchiveTest, RelativePathIsTakenFromTheWorkingDirectoryOnce) {
  const WString strBefore = CurrentDirectory();
  ASSERT_TRUE(ChangeDirectory(m_dir.Path()));
  NSCom::CComObject<CArchiveImpl>* p = nullptr;
  ASSERT_EQ(S_OK, NSCom::CComObject<CArchiveImpl>::CreateInstance(&p));
  NSCom::CComPtr<IKronvale> pArchive(p);
  const HRESULT hrCreate = p->Create(KV_W("arc"));
  ASSERT_TRUE(ChangeDirectory(strBefore));
  ASSERT_EQ(S_OK, hrCreate);
  NSCom::CComBSTR bstr;
  ASSERT_EQ(S_OK, pArchive->GetPath(&bstr));
  WString strExpected;
  ASSERT_EQ(S_OK, NSPlatform::GetFullPath(Path().c_str(), &strExpected));
  EXPECT_EQ(strExpected, WString(bstr.m_str));
  NSCom::CComPtr<IRecord> pRecord;
  ASSERT_EQ(S_OK, pArchive->CreateRecord(NSCom::CComBSTR(KV_W("cam")), &pRecord));
  ASSERT_EQ(S_OK, WriteFrame(pRecord, Ft(2021, 1, 1, 1), 1, {"x"}));
  EXPECT_TRUE(NSPlatform::IsDirectory(NSPlatform::CombinePath(Path("cam"), KV_W("2021")).c_str()));
}

TEST_F(ArchiveTest, RecordTableAndNamesThatLeaveTheArchive) {
  CTestArchive archive(Path());
  NSCom::CComPtr<IRecord> pWriter, pWriter2, pReader;
  ASSERT_EQ(S_OK, archive->CreateRecord(NSCom::CComBSTR(KV_W("cam")), &pWriter));
  ASSERT_EQ(S_OK, archive->CreateRecord(NSCom::CComBSTR(KV_W("cam")), &pWriter2));
  EXPECT_EQ(pWriter.p, pWriter2.p);
  ASSERT_EQ(S_OK, archive->OpenRecord(NSCom::CComBSTR(KV_W("cam")), &pReader));
  EXPECT_NE(pWriter.p, pReader.p);
  NSCom::CComPtr<IRecord> pDoor;
  ASSERT_EQ(S_OK, archive->CreateRecord(NSCom::CComBSTR(KV_W("door")), &pDoor));
  BSTR* pNames = nullptr;
  DWORD cNames = 0;
  ASSERT_EQ(S_OK, archive->GetRecords(&pNames, &cNames));
  ASSERT_EQ(2u, cNames);
  EXPECT_EQ(WString(KV_W("cam")), WString(pNames[0]));
  EXPECT_EQ(WString(KV_W("door")), WString(pNames[1]));
  for (DWORD i = 0; i < cNames; ++i) SysFreeString(pNames[i]);
  CoTaskMemFree(pNames);

  NSTest::CLogCapture capture;
  for (const WCHAR* psz : {KV_W(""), KV_W("."), KV_W(".."), KV_W("../out"), KV_W("a/b"), KV_W("a\\b")}) {
    NSCom::CComPtr<IRecord> p;
    EXPECT_EQ(E_INVALIDARG, archive->CreateRecord(NSCom::CComBSTR(psz), &p));
    EXPECT_EQ(E_INVALIDARG, archive->OpenRecord(NSCom::CComBSTR(psz), &p));
    EXPECT_EQ(E_INVALIDARG, archive->DeleteRecord(NSCom::CComBSTR(psz)));
  }
  EXPECT_EQ(18u, Texts(capture, "error").size());
  EXPECT_FALSE(NSPlatform::PathExists(m_dir.Sub(KV_W("out")).c_str()));
  NSCom::CComPtr<IRecord> pMissing;
  EXPECT_EQ(khrPathNotFound, archive->OpenRecord(NSCom::CComBSTR(KV_W("ghost")), &pMissing));
  EXPECT_EQ(E_POINTER, archive->CreateRecord(NSCom::CComBSTR(KV_W("cam")), nullptr));

  // Deleting a record locks the objects its clients still hold and removes its directory.
  ASSERT_EQ(S_OK, WriteFrame(pWriter, Ft(2021, 3, 7, 10), 1, {"a"}));
  ASSERT_EQ(S_OK, archive->DeleteRecord(NSCom::CComBSTR(KV_W("cam"))));
  EXPECT_FALSE(NSPlatform::PathExists(Path("cam").c_str()));
  EXPECT_EQ(khrLocked, WriteFrame(pWriter, Ft(2021, 3, 7, 10), 1, {"a"}));
  EXPECT_EQ(khrLocked, pReader->Read(Ft(2021, 3, 7, 10), nullptr, nullptr, 0));
  EXPECT_EQ(khrPathNotFound, archive->DeleteRecord(NSCom::CComBSTR(KV_W("cam"))));
}

TEST_F(ArchiveTest, ReaderLimitDropsTheOldestClientsOnly) {
  const DWORD dwSaved = NSArchive::GetReaderLimit();
  CTestArchive archive(Path());
  NSCom::CComPtr<IRecord> pWriter;
  ASSERT_EQ(S_OK, archive->CreateRecord(NSCom::CComBSTR(KV_W("cam")), &pWriter));
  auto pEx = Query<IKronvaleEx>(archive.Get(), IID_IKronvaleEx);
  auto open = [&](const WCHAR* pszClient) {
    NSCom::CComPtr<IRecord> p;
    EXPECT_EQ(S_OK, pEx->OpenRecordEx(NSCom::CComBSTR(pszClient), NSCom::CComBSTR(KV_W("cam")), 1, &p));
    return p;
  };
  // With a limit of 2, a third client is kept; each open beyond drops the client that opened
  // longest ago (equal times: the first name), then records the opener.
  NSArchive::SetReaderLimit(2);
  auto pA = open(KV_W("a"));
  auto pB = open(KV_W("b"));
  auto pC = open(KV_W("c"));
  auto pD = open(KV_W("d"));          // drops a
  EXPECT_EQ(pC.p, open(KV_W("c")).p);  // drops b; c was kept
  EXPECT_NE(pA.p, open(KV_W("a")).p);  // a was dropped and is made anew
  EXPECT_NE(pD.p, open(KV_W("d")).p);  // d had become the oldest
  // The shared read-write handle is never dropped.
  NSCom::CComPtr<IRecord> pWriter2;
  ASSERT_EQ(S_OK, archive->CreateRecord(NSCom::CComBSTR(KV_W("cam")), &pWriter2));
  EXPECT_EQ(pWriter.p, pWriter2.p);
  // No limit: nothing is dropped.
  NSArchive::SetReaderLimit(0);
  auto pE = open(KV_W("e"));
  for (const WCHAR* psz : {KV_W("f"), KV_W("g"), KV_W("h")}) open(psz);
  EXPECT_EQ(pE.p, open(KV_W("e")).p);
  NSArchive::SetReaderLimit(dwSaved);
}

// The machine's value: 100 when absent, 0 meaning no limit.
TEST_F(ArchiveTest, ReaderLimitComesFromTheMachine) {
#ifndef _WIN32
  NSTest::CLogCapture::SetEnvironment("KRONVALE_SETTINGS_ROOT", m_dir.Path());
#endif
  const WCHAR* pszKey = KV_W("software\\morvane\\vistrel");
  const WCHAR* pszValue = KV_W("archive_max_readers_count");
  NSPlatform::DeleteMachineValue(pszKey, pszValue);
  EXPECT_EQ(100u, NSArchive::ReadReaderLimit());
  ASSERT_EQ(S_OK, NSPlatform::WriteMachineDword(pszKey, pszValue, 0));
  EXPECT_EQ(0u, NSArchive::ReadReaderLimit());
  ASSERT_EQ(S_OK, NSPlatform::WriteMachineDword(pszKey, pszValue, 7));
  EXPECT_EQ(7u, NSArchive::ReadReaderLimit());
  NSPlatform::DeleteMachineValue(pszKey, pszValue);
#ifndef _WIN32
  NSTest::CLogCapture::SetEnvironment("KRONVALE_SETTINGS_ROOT", WString());
#endif
}

}  // namespace

namespace {

// The archive also lives inside an outer object, its interfaces answering for the outer one.
TEST(ArchiveAggregationTest, AnAggregatedArchiveServesItsInterfaces) {
  NSTest::CTempDir dir;
  NSTest::CCountingOuter outer;
  IUnknown* pInner = nullptr;
  ASSERT_EQ(S_OK, CArchiveImpl::_CreatorClass::CreateInstance(&outer, IID_IUnknown, reinterpret_cast<void**>(&pInner)));
  IKronvaleQuota* pQuota = nullptr;
  ASSERT_EQ(S_OK, pInner->QueryInterface(IID_IKronvaleQuota, reinterpret_cast<void**>(&pQuota)));
  EXPECT_EQ(2u, outer.m_cRef);
  SArchiveQuota quota = {1, 2, 3, 4};
  EXPECT_EQ(S_OK, pQuota->GetArchiveQuota(&quota));
  EXPECT_EQ(0u, quota.ullMaximumArchiveSize);
  pQuota->Release();
  EXPECT_EQ(0u, pInner->Release());
}

}  // namespace
