// A hostile or careless client, with nothing but the public header and the library: paths and names
// with embedded NULs, "..", lengths no file system holds, buffers that claim bytes they do not point
// to. Each gets a clear answer before anything touches the disk, and nothing outside the archive
// (a witness directory beside it) is ever changed.
#include <gtest/gtest.h>

#include <kronvale/KronvaleResults.h>
#include <kronvale/kronvale.h>
#include <kronvale/KronvaleClient.h>

#include <string>

#include "common/TempDir.h"
#include "module/Library.h"

using namespace NSKronvale;

namespace {

WString WithNul(const WString& strBefore, const WString& strAfter) {
  WString str = strBefore;
  str.push_back(0);
  return str + strAfter;
}

// Every name under a directory with its size, depth first: what a witness compares.
std::string Tree(const WString& strDirectory) {
  std::vector<NSPlatform::SDirEntry> vEntries;
  if (FAILED(NSPlatform::ListDir(strDirectory.c_str(), &vEntries))) return "<none>";
  std::string str;
  for (const NSPlatform::SDirEntry& entry : vEntries) {
    str += NSPlatform::WideToUtf8(entry.strName) + ":" + std::to_string(entry.ullSize) + ";";
    if (entry.IsDirectory()) str += "[" + Tree(NSPlatform::CombinePath(strDirectory, entry.strName)) + "]";
  }
  return str;
}

class HostileInputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_library.IsLoaded());
    ASSERT_EQ(S_OK, m_library.GetClassObject()(CLSID_Kronvale, IID_IArchiveFactory, reinterpret_cast<void**>(&m_pFactory)));
    ASSERT_EQ(S_OK, NSPlatform::CreateDirTree(m_dir.Sub(KV_W("witness")).c_str()));
    ASSERT_EQ(S_OK, NSTest::WriteFileBytes(Witness(KV_W("keep.bin")), "precious"));
    m_strWitness = Tree(m_dir.Path());
  }
  void TearDown() override {
    // The factory forgets the archive, so that the library holds no object after the test.
    if (NSPlatform::PathExists(NSPlatform::CombinePath(Arc(), KV_W("settings.als")).c_str())) {
      EXPECT_EQ(S_OK, m_pFactory->DeleteArchive(CBstr(Arc())));
    }
    std::vector<NSPlatform::SDirEntry> v;
    NSPlatform::ListDir(m_dir.Path().c_str(), &v);
    std::string strNow;
    for (const NSPlatform::SDirEntry& entry : v)
      if (entry.strName == KV_W("witness")) strNow = Tree(m_dir.Sub(KV_W("witness")));
    EXPECT_EQ("keep.bin:8;", strNow) << "the witness beside the archives changed";
  }
  WString Witness(const WCHAR* pszName) const {
    return NSPlatform::CombinePath(m_dir.Sub(KV_W("witness")), pszName);
  }
  WString Arc(const WCHAR* pszMore = KV_W("")) const {
    return *pszMore ? NSPlatform::CombinePath(m_dir.Sub(KV_W("arc")), pszMore) : m_dir.Sub(KV_W("arc"));
  }

  NSTest::CLibrary m_library;
  CPtr<IArchiveFactory> m_pFactory;
  NSTest::CTempDir m_dir;
  std::string m_strWitness;
};

}  // namespace

TEST_F(HostileInputTest, FactoryPathsWithNulsDotsAndNothingAreRefusedBeforeTheDisk) {
  CPtr<IKronvale> pArchive;
  ASSERT_EQ(S_OK, m_pFactory->CreateArchive(CBstr(Arc()), &pArchive));
  CPtr<IRecord> pWriter;
  ASSERT_EQ(S_OK, pArchive->CreateRecord(CBstr(KV_W("cam")), &pWriter));
  const SFrameBuffer buffer = {reinterpret_cast<BYTE*>(const_cast<char*>("x")), 1};
  ASSERT_EQ(S_OK, pWriter->Write(FILETIME{0x2A69C000u, 0x01D71234u}, 1, &buffer, 1));
  pWriter.Reset();
  const std::string strArchive = Tree(Arc());

  // A NUL hides the rest of a path from the file system: the witness, or the archive itself.
  for (const WString& strPath : {WithNul(Arc(), KV_W("junk")), WithNul(m_dir.Sub(KV_W("witness")), KV_W("")),
                                 WithNul(Arc(KV_W("cam")), KV_W("/..")), WString()}) {
    CPtr<IKronvale> p;
    EXPECT_EQ(E_INVALIDARG, m_pFactory->DeleteArchive(CBstr(strPath)));
    EXPECT_EQ(E_INVALIDARG, m_pFactory->CreateArchive(CBstr(strPath), &p));
    EXPECT_EQ(E_INVALIDARG, m_pFactory->OpenArchive(CBstr(strPath), &p));
  }
  EXPECT_EQ(E_INVALIDARG, m_pFactory->DeleteArchive(nullptr));
  EXPECT_EQ(E_POINTER, m_pFactory->CreateArchive(CBstr(Arc()), nullptr));
  EXPECT_EQ(E_POINTER, m_pFactory->OpenArchive(CBstr(Arc()), nullptr));
  // A directory that is not an archive is not deleted, however it is spelled.
  EXPECT_EQ(E_INVALIDARG, m_pFactory->DeleteArchive(CBstr(m_dir.Sub(KV_W("witness")))));
  EXPECT_EQ(E_INVALIDARG, m_pFactory->DeleteArchive(CBstr(Arc(KV_W("cam")))));
  EXPECT_EQ(E_INVALIDARG, m_pFactory->DeleteArchive(CBstr(NSPlatform::CombinePath(Arc(KV_W("cam")), KV_W("..")) +
                                                         KV_W("/../witness"))));
  EXPECT_EQ(strArchive, Tree(Arc()));

  // A record's "..": the path is made canonical once, and what was checked is what goes: the archive.
  pArchive.Reset();
  EXPECT_EQ(S_OK, m_pFactory->DeleteArchive(CBstr(NSPlatform::CombinePath(Arc(KV_W("cam")), KV_W("..")))));
  EXPECT_FALSE(NSPlatform::PathExists(Arc().c_str()));
}

TEST_F(HostileInputTest, RecordNamesAndBuffersThatCannotBeStoredAreRefusedAndLeaveNothing) {
  CPtr<IKronvale> pArchive;
  ASSERT_EQ(S_OK, m_pFactory->CreateArchive(CBstr(Arc()), &pArchive));
  const std::string strEmpty = Tree(Arc());
  struct SCase {
    WString strName;
    HRESULT hr;
  } const aCases[] = {
      {WString(40000, WCHAR('n')), khrFilenameTooLong},
      {WString(256, WCHAR('n')), khrFilenameTooLong},
      {WithNul(KV_W("cam"), KV_W("x")), E_INVALIDARG},
      {KV_W(".."), E_INVALIDARG},
      {KV_W("../witness"), E_INVALIDARG},
      {WString(), E_INVALIDARG},
  };
  for (const SCase& c : aCases) {
    SCOPED_TRACE(c.strName.size());
    CPtr<IRecord> p;
    EXPECT_EQ(c.hr, pArchive->CreateRecord(CBstr(c.strName), &p));
    EXPECT_EQ(c.hr, pArchive->OpenRecord(CBstr(c.strName), &p));
    EXPECT_EQ(c.hr, pArchive->DeleteRecord(CBstr(c.strName)));
    EXPECT_EQ(nullptr, p.p);
  }
  EXPECT_EQ(strEmpty, Tree(Arc()));

  // A buffer that claims bytes without pointing to them: refused before an hour is made for it.
  CPtr<IRecord> pWriter;
  ASSERT_EQ(S_OK, pArchive->CreateRecord(CBstr(KV_W("cam")), &pWriter));
  const std::string strRecord = Tree(Arc());
  BYTE abData[3] = {1, 2, 3};
  const SFrameBuffer aBuffers[2] = {{abData, 3}, {nullptr, 5}};
  EXPECT_EQ(E_POINTER, pWriter->Write(FILETIME{0x2A69C000u, 0x01D71234u}, 1, aBuffers, 2));
  EXPECT_EQ(E_POINTER, pWriter->Write(FILETIME{0x2A69C000u, 0x01D71234u}, 1, nullptr, 1));
  EXPECT_EQ(strRecord, Tree(Arc()));
}

// A creation killed before its settings were in place leaves a directory that is not an archive:
// opening it says so, deleting it is allowed, and creating an archive there finishes the job.
TEST_F(HostileInputTest, TheLeftoversOfAKilledCreationAreFinishedByTheNextCreation) {
  ASSERT_EQ(S_OK, NSPlatform::CreateDirTree(Arc().c_str()));
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(Arc(KV_W("settings.als.new")), ""));
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(Arc(KV_W("descriptor.ald")), ""));
  CPtr<IKronvale> pArchive;
  EXPECT_EQ(khrPathNotFound, m_pFactory->OpenArchive(CBstr(Arc()), &pArchive));
  ASSERT_EQ(S_OK, m_pFactory->CreateArchive(CBstr(Arc()), &pArchive));
  CPtr<IRecord> pWriter;
  EXPECT_EQ(S_OK, pArchive->CreateRecord(CBstr(KV_W("cam")), &pWriter));
  EXPECT_TRUE(NSPlatform::PathExists(Arc(KV_W("settings.als")).c_str()));
  EXPECT_FALSE(NSPlatform::PathExists(Arc(KV_W("settings.als.new")).c_str()));
  pWriter.Reset();
  pArchive.Reset();
  ASSERT_EQ(S_OK, m_pFactory->DeleteArchive(CBstr(Arc())));

  // Leftovers alone may be deleted; anything else beside them makes the directory someone else's.
  ASSERT_EQ(S_OK, NSPlatform::CreateDirTree(Arc().c_str()));
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(Arc(KV_W("settings.als.new")), "<con"));
  EXPECT_EQ(S_OK, m_pFactory->DeleteArchive(CBstr(Arc())));
  EXPECT_FALSE(NSPlatform::PathExists(Arc().c_str()));
  ASSERT_EQ(S_OK, NSPlatform::CreateDirTree(Arc().c_str()));
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(Arc(KV_W("settings.als.new")), ""));
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(Arc(KV_W("notes.txt")), "mine"));
  EXPECT_EQ(E_INVALIDARG, m_pFactory->DeleteArchive(CBstr(Arc())));
  EXPECT_EQ(khrDirectoryNotEmpty, m_pFactory->CreateArchive(CBstr(Arc()), &pArchive));
  EXPECT_TRUE(NSPlatform::PathExists(Arc(KV_W("notes.txt")).c_str()));
}
