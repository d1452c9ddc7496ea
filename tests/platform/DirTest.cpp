// Directories: creation and removal answers, sorted filtered listings, tree copies, full paths.
#include <gtest/gtest.h>

#include "common/TempDir.h"
#include "platform/os.h"

#ifndef _WIN32
#include <unistd.h>
#endif

using namespace NSPlatform;
using NSTest::CTempDir;
using NSTest::FileContents;
using NSTest::WriteFileBytes;

namespace {

WString Join(const WString& strDirectory, WStringView strName) { return CombinePath(strDirectory, strName); }

std::vector<std::string> Names(const std::vector<SDirEntry>& vEntries) {
  std::vector<std::string> v;
  for (const SDirEntry& entry : vEntries) v.push_back(WideToUtf8(entry.strName));
  return v;
}

}  // namespace

TEST(Dir, CreateAndRemoveAnswers) {
  CTempDir dir;
  const WString strSub = dir.Sub(KV_W("sub"));
  ASSERT_EQ(CreateDir(strSub.c_str()), S_OK);
  EXPECT_EQ(CreateDir(strSub.c_str()), static_cast<HRESULT>(0x800700B7));
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  EXPECT_EQ(CreateDir(Join(dir.Sub(KV_W("none")), KV_W("x")).c_str()), static_cast<HRESULT>(0x80070003));

  const WString strDeep = Join(Join(Join(dir.Path(), KV_W("t1")), KV_W("t2")), KV_W("t3"));
  ASSERT_EQ(CreateDirTree(strDeep.c_str()), S_OK);
  EXPECT_TRUE(IsDirectory(strDeep.c_str()));
  EXPECT_EQ(CreateDirTree(strDeep.c_str()), static_cast<HRESULT>(0x800700B7));
  EXPECT_EQ(CreateDirTree(AddTrailingSeparator(strDeep).c_str()), static_cast<HRESULT>(0x800700B7));
  EXPECT_EQ(CreateDirTree(KV_W("relative")), static_cast<HRESULT>(0x800700A1));  // ERROR_BAD_PATHNAME
  const WString strFile = dir.Sub(KV_W("file.bin"));
  ASSERT_EQ(WriteFileBytes(strFile, "f"), S_OK);
  EXPECT_TRUE(FAILED(CreateDirTree(Join(strFile, KV_W("below")).c_str())));
  EXPECT_FALSE(IsDirectory(strFile.c_str()));
  EXPECT_TRUE(PathExists(strFile.c_str()));

  EXPECT_EQ(RemoveDir(dir.Sub(KV_W("t1")).c_str()), static_cast<HRESULT>(0x80070091));
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_DIR_NOT_EMPTY));
  EXPECT_EQ(RemoveDir(strFile.c_str()), static_cast<HRESULT>(0x8007010B));  // ERROR_DIRECTORY
  EXPECT_EQ(RemoveFile(strSub.c_str()), E_ACCESSDENIED);
  EXPECT_EQ(RemoveFile(dir.Sub(KV_W("nothing")).c_str()), static_cast<HRESULT>(0x80070002));
  EXPECT_EQ(RemoveFile(Join(dir.Sub(KV_W("none")), KV_W("x")).c_str()), static_cast<HRESULT>(0x80070003));
  EXPECT_TRUE(FAILED(RemoveDir(dir.Sub(KV_W("nothing")).c_str())));
  EXPECT_TRUE(IsDirectoryEmpty(strSub.c_str()));
  EXPECT_FALSE(IsDirectoryEmpty(dir.Sub(KV_W("t1")).c_str()));
  EXPECT_FALSE(IsDirectoryEmpty(strFile.c_str()));
  ASSERT_EQ(RemoveDir(strSub.c_str()), S_OK);
  EXPECT_FALSE(PathExists(strSub.c_str()));

  // Renaming replaces an existing file; a missing source is reported as such.
  const WString strOther = dir.Sub(KV_W("other.bin"));
  ASSERT_EQ(WriteFileBytes(strOther, "other"), S_OK);
  ASSERT_EQ(RenameFile(strOther.c_str(), strFile.c_str()), S_OK);
  EXPECT_EQ(FileContents(strFile), "other");
  EXPECT_FALSE(PathExists(strOther.c_str()));
  EXPECT_EQ(RenameFile(strOther.c_str(), strFile.c_str()), static_cast<HRESULT>(0x80070002));
}

// A directory's names are flushed where it is; what is not a directory answers as every other
// directory call does.
TEST(Dir, FlushDirectoryFlushesADirectoryAndRefusesTheRest) {
  CTempDir dir;
  const WString strSub = dir.Sub(KV_W("hour"));
  ASSERT_EQ(CreateDir(strSub.c_str()), S_OK);
  ASSERT_EQ(WriteFileBytes(Join(strSub, KV_W("data.al")), "frame"), S_OK);
  EXPECT_EQ(FlushDirectory(strSub.c_str()), S_OK);
  EXPECT_EQ(FlushDirectory(AddTrailingSeparator(strSub).c_str()), S_OK);
  EXPECT_EQ(FlushDirectory(dir.Path().c_str()), S_OK);
  EXPECT_EQ(FlushDirectory(dir.Sub(KV_W("gone")).c_str()), static_cast<HRESULT>(0x80070002));
  EXPECT_EQ(FlushDirectory(Join(dir.Sub(KV_W("gone")), KV_W("10")).c_str()), static_cast<HRESULT>(0x80070003));
  EXPECT_EQ(FlushDirectory(Join(strSub, KV_W("data.al")).c_str()), static_cast<HRESULT>(0x8007010B));
  EXPECT_EQ(FlushDirectory(KV_W("")), static_cast<HRESULT>(0x80070003));
  // The fault seam counts it among the directory operations.
  NSFault::SRule rule;
  rule.eOp = NSFault::EOp::Directory;
  rule.dwError = ERROR_IO_DEVICE;
  NSFault::Arm(rule);
  EXPECT_EQ(FlushDirectory(strSub.c_str()), KvHResultFromWin32(ERROR_IO_DEVICE));
  NSFault::Reset();
}

TEST(Dir, ReadOnlyDirectoryRefusesRemoval) {
  CTempDir dir;
  const WString strSub = dir.Sub(KV_W("ro"));
  ASSERT_EQ(CreateDir(strSub.c_str()), S_OK);
  ASSERT_EQ(SetAttributes(strSub.c_str(), FILE_ATTRIBUTE_READONLY), S_OK);
  DWORD dwAttributes = 0;
  ASSERT_EQ(GetAttributes(strSub.c_str(), &dwAttributes), S_OK);
  if (!(dwAttributes & FILE_ATTRIBUTE_READONLY)) {
    GTEST_SKIP() << "this file system keeps no read-only attribute on directories";
  }
  EXPECT_EQ(dwAttributes, static_cast<DWORD>(FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY));
  EXPECT_EQ(RemoveDir(strSub.c_str()), E_ACCESSDENIED);
  EXPECT_TRUE(IsDirectory(strSub.c_str()));
  ASSERT_EQ(SetAttributes(strSub.c_str(), FILE_ATTRIBUTE_NORMAL), S_OK);
  EXPECT_EQ(RemoveDir(strSub.c_str()), S_OK);
}

TEST(Dir, ListingIsSortedOrdinallyAndFiltered) {
  CTempDir dir;
  std::vector<SDirEntry> vEntries;
  ASSERT_EQ(ListDir(dir.Path().c_str(), &vEntries), S_OK);
  EXPECT_TRUE(vEntries.empty());

  ASSERT_EQ(WriteFileBytes(dir.Sub(KV_W("c.ald")), "12345"), S_OK);
  ASSERT_EQ(WriteFileBytes(dir.Sub(KV_W("a.al")), "1"), S_OK);
  ASSERT_EQ(WriteFileBytes(dir.Sub(KV_W("Z.al")), "123"), S_OK);
  ASSERT_EQ(WriteFileBytes(dir.Sub(KV_W("_x.AL")), ""), S_OK);
  ASSERT_EQ(WriteFileBytes(dir.Sub(KV_W("B.al")), "12"), S_OK);
  ASSERT_EQ(CreateDir(dir.Sub(KV_W("sub")).c_str()), S_OK);
  ASSERT_EQ(WriteFileBytes(Join(dir.Sub(KV_W("sub")), KV_W("inner.al")), "x"), S_OK);
  ASSERT_EQ(SetAttributes(dir.Sub(KV_W("Z.al")).c_str(), FILE_ATTRIBUTE_READONLY), S_OK);

  ASSERT_EQ(ListDir(dir.Path().c_str(), &vEntries), S_OK);
  EXPECT_EQ(Names(vEntries), (std::vector<std::string>{"B.al", "Z.al", "_x.AL", "a.al", "c.ald", "sub"}));
  ASSERT_EQ(vEntries.size(), 6u);
  const ULONGLONG aSizes[] = {2, 3, 0, 1, 5};
  const DWORD aAttributes[] = {FILE_ATTRIBUTE_NORMAL, FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_NORMAL,
                               FILE_ATTRIBUTE_NORMAL, FILE_ATTRIBUTE_NORMAL};
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(vEntries[i].ullSize, aSizes[i]) << i;
    EXPECT_EQ(vEntries[i].dwAttributes, aAttributes[i]) << i;
    EXPECT_FALSE(vEntries[i].IsDirectory());
    // Written this run: after 2020-01-01 (132223104000000000).
    EXPECT_GT(FileTimeToU64(vEntries[i].ftLastWrite), 132223104000000000ull) << i;
  }
  EXPECT_TRUE(vEntries[5].IsDirectory());
  EXPECT_EQ(vEntries[5].dwAttributes, static_cast<DWORD>(FILE_ATTRIBUTE_DIRECTORY));

  ASSERT_EQ(ListDir(dir.Path().c_str(), &vEntries, KV_W("*.al")), S_OK);
  EXPECT_EQ(Names(vEntries), (std::vector<std::string>{"B.al", "Z.al", "_x.AL", "a.al"}));
  ASSERT_EQ(ListDir(dir.Path().c_str(), &vEntries, KV_W("?.al;*.ald")), S_OK);
  EXPECT_EQ(Names(vEntries), (std::vector<std::string>{"B.al", "Z.al", "a.al", "c.ald"}));
  ASSERT_EQ(ListDir(dir.Path().c_str(), &vEntries, KV_W("*.none")), S_OK);
  EXPECT_TRUE(vEntries.empty());

  EXPECT_EQ(ListDir(dir.Sub(KV_W("missing")).c_str(), &vEntries), static_cast<HRESULT>(0x80070003));
  const HRESULT hrFile = ListDir(dir.Sub(KV_W("a.al")).c_str(), &vEntries);
  EXPECT_TRUE(hrFile == static_cast<HRESULT>(0x8007010B) || hrFile == static_cast<HRESULT>(0x80070003)) << std::hex << hrFile;

  // The directories alone, in the same order and with the same failures (a link to a directory
  // counts as one, as ListDir shows it).
  ASSERT_EQ(CreateDir(dir.Sub(KV_W("Amber")).c_str()), S_OK);
#ifndef _WIN32
  ASSERT_EQ(::symlink("sub", WideToUtf8(dir.Sub(KV_W("link"))).c_str()), 0);
  ASSERT_EQ(::symlink("gone", WideToUtf8(dir.Sub(KV_W("dangling"))).c_str()), 0);
  const std::vector<std::string> vExpected = {"Amber", "link", "sub"};
#else
  const std::vector<std::string> vExpected = {"Amber", "sub"};
#endif
  std::vector<WString> vNames = {KV_W("stale")};
  ASSERT_EQ(ListSubdirectories(dir.Path().c_str(), &vNames), S_OK);
  std::vector<std::string> vSeen;
  for (const WString& strName : vNames) vSeen.push_back(WideToUtf8(strName));
  EXPECT_EQ(vSeen, vExpected);
  EXPECT_EQ(ListSubdirectories(dir.Sub(KV_W("missing")).c_str(), &vNames), static_cast<HRESULT>(0x80070003));
  EXPECT_EQ(ListSubdirectories(dir.Sub(KV_W("a.al")).c_str(), &vNames), hrFile);
}

TEST(Dir, CopyTreeCopiesNestedTrees) {
  CTempDir dir;
  const WString strSrc = dir.Sub(KV_W("src"));
  const WString strSub = Join(strSrc, KV_W("sub"));
  const WString strDeeper = Join(strSub, KV_W("deeper"));
  ASSERT_EQ(CreateDirTree(strDeeper.c_str()), S_OK);
  ASSERT_EQ(CreateDir(Join(strSub, KV_W("empty")).c_str()), S_OK);
  ASSERT_EQ(WriteFileBytes(Join(strSrc, KV_W("f1")), "one"), S_OK);
  ASSERT_EQ(WriteFileBytes(Join(strSub, KV_W("f2")), "two"), S_OK);
  ASSERT_EQ(WriteFileBytes(Join(strDeeper, KV_W("f3")), std::string(100000, '3')), S_OK);

  // Onto a missing destination: the destination becomes the copy.
  const WString strCopy = dir.Sub(KV_W("copy"));
  ASSERT_EQ(CopyTree(strSrc.c_str(), strCopy.c_str()), S_OK);
  EXPECT_EQ(FileContents(Join(strCopy, KV_W("f1"))), "one");
  EXPECT_EQ(FileContents(Join(Join(strCopy, KV_W("sub")), KV_W("f2"))), "two");
  EXPECT_EQ(FileContents(Join(Join(Join(strCopy, KV_W("sub")), KV_W("deeper")), KV_W("f3"))), std::string(100000, '3'));
  EXPECT_TRUE(IsDirectoryEmpty(Join(Join(strCopy, KV_W("sub")), KV_W("empty")).c_str()));

  // Onto an existing directory: the source goes inside it under its own name.
  const WString strInto = dir.Sub(KV_W("into"));
  ASSERT_EQ(CreateDir(strInto.c_str()), S_OK);
  ASSERT_EQ(CopyTree(strSub.c_str(), strInto.c_str()), S_OK);
  EXPECT_EQ(FileContents(Join(Join(strInto, KV_W("sub")), KV_W("f2"))), "two");
  std::vector<SDirEntry> vEntries;
  ASSERT_EQ(ListDir(strInto.c_str(), &vEntries), S_OK);
  EXPECT_EQ(Names(vEntries), (std::vector<std::string>{"sub"}));

  // A single file into a directory, and the source left as it was.
  ASSERT_EQ(CopyTree(Join(strSrc, KV_W("f1")).c_str(), strInto.c_str()), S_OK);
  EXPECT_EQ(FileContents(Join(strInto, KV_W("f1"))), "one");
  EXPECT_EQ(FileContents(Join(strSrc, KV_W("f1"))), "one");
  EXPECT_TRUE(FAILED(CopyTree(dir.Sub(KV_W("missing")).c_str(), dir.Sub(KV_W("dest")).c_str())));
  EXPECT_FALSE(PathExists(dir.Sub(KV_W("dest")).c_str()));
}

TEST(Dir, FullPathsAndTheTemporaryDirectory) {
  WString strTemp;
  ASSERT_EQ(GetTempDirectory(&strTemp), S_OK);
  ASSERT_FALSE(strTemp.empty());
  EXPECT_TRUE(IsPathSeparator(strTemp.back()));
  EXPECT_TRUE(IsDirectory(strTemp.c_str()));

  CTempDir dir;
  WString strFull;
  const WString strIndirect = dir.Path() + chPathSeparator + KV_W("a") + chPathSeparator + KV_W("..") +
                              chPathSeparator + KV_W(".") + chPathSeparator + KV_W("b");
  ASSERT_EQ(GetFullPath(strIndirect.c_str(), &strFull), S_OK);
  EXPECT_EQ(strFull, dir.Sub(KV_W("b")));
  ASSERT_EQ(GetFullPath(KV_W("rel"), &strFull), S_OK);
  EXPECT_TRUE(IsPathSeparator(strFull[0]) || (strFull.size() > 2 && strFull[1] == ':'));
  ASSERT_GT(strFull.size(), 4u);
  EXPECT_EQ(strFull.substr(strFull.size() - 4), WString(1, chPathSeparator) + KV_W("rel"));
}
