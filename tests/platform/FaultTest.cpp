// The fault seam: failed and short writes, failures of the other operations without touching the
// disk, path filters, call counts and the free-space override.
#include <gtest/gtest.h>

#include "common/TempDir.h"
#include "platform/os.h"

using namespace NSPlatform;
using NSTest::CTempDir;
using NSTest::FileContents;
using NSTest::WriteFileBytes;

namespace {

constexpr DWORD dwReadWrite = GENERIC_READ | GENERIC_WRITE;

class FaultSeam : public testing::Test {
 protected:
  void SetUp() override { NSFault::Reset(); }
  void TearDown() override { NSFault::Reset(); }

  // Creates strName in the test's directory, open for reading and writing, and answers its path.
  WString CreateNew(CFile* pFile, WStringView strName) {
    const WString strFile = m_dir.Sub(strName);
    EXPECT_EQ(pFile->Open(strFile.c_str(), dwReadWrite, 0, CREATE_NEW, 0), S_OK);
    return strFile;
  }

  NSFault::SRule Rule(NSFault::EOp eOp, unsigned nNth, DWORD dwError) {
    NSFault::SRule rule;
    rule.eOp = eOp;
    rule.nNth = nNth;
    rule.dwError = dwError;
    return rule;
  }
  // The next write transfers at most cbShort bytes, then succeeds (dwError 0) or fails.
  void ArmShortWrite(LONG cbShort, DWORD dwError) {
    NSFault::SRule rule = Rule(NSFault::EOp::Write, 1, dwError);
    rule.cbShort = cbShort;
    NSFault::Arm(rule);
  }

  CTempDir m_dir;
};

}  // namespace

TEST_F(FaultSeam, TheThirdWriteFailsWithDiskFull) {
  CFile file;
  const WString strFile = CreateNew(&file, KV_W("w.bin"));
  NSFault::Arm(Rule(NSFault::EOp::Write, 3, ERROR_DISK_FULL));
  DWORD cb = 99;
  EXPECT_EQ(file.Write("aaaa", 4, &cb), S_OK);
  const SIoBuffer aBuffers[] = {{"b", 1}, {"bbb", 3}};
  EXPECT_EQ(file.WriteGather(aBuffers, 2, &cb), S_OK);
  EXPECT_EQ(file.WriteAt(8, "cccc", 4, &cb), static_cast<HRESULT>(0x80070070));
  EXPECT_EQ(NSPlatform::GetLastError(), static_cast<DWORD>(ERROR_DISK_FULL));
  EXPECT_EQ(cb, 0u);
  EXPECT_EQ(file.Write("dddd", 4, &cb), S_OK);  // only the third call fails
  EXPECT_EQ(NSFault::GetCallCount(NSFault::EOp::Write), 4u);
  file.Close();
  EXPECT_EQ(FileContents(strFile), "aaaabbbbdddd");

  // Sticky: every matching call from the Nth on.
  NSFault::SRule rule = Rule(NSFault::EOp::Write, 2, ERROR_WRITE_FAULT);
  rule.bSticky = true;
  NSFault::Arm(rule);
  ASSERT_EQ(file.Open(strFile.c_str(), dwReadWrite, 0, TRUNCATE_EXISTING, 0), S_OK);
  EXPECT_EQ(file.Write("1", 1, &cb), S_OK);
  EXPECT_EQ(file.Write("2", 1, &cb), static_cast<HRESULT>(0x8007001D));
  EXPECT_EQ(file.Write("3", 1, &cb), static_cast<HRESULT>(0x8007001D));
  NSFault::Disarm(NSFault::EOp::Write);
  EXPECT_EQ(file.Write("4", 1, &cb), S_OK);
  file.Close();
  EXPECT_EQ(FileContents(strFile), "14");
}

TEST_F(FaultSeam, ShortWritesWriteOnlyTheFirstBytes) {
  CFile file;
  const WString strFile = CreateNew(&file, KV_W("short.bin"));
  ArmShortWrite(3, ERROR_SUCCESS);
  DWORD cb = 0;
  EXPECT_EQ(file.Write("0123456789", 10, &cb), S_OK);
  EXPECT_EQ(cb, 3u);
  ULONGLONG ullSize = 0;
  ASSERT_EQ(file.GetSize(&ullSize), S_OK);
  EXPECT_EQ(ullSize, 3u);

  // Across the buffers of a gathered write.
  ArmShortWrite(5, ERROR_SUCCESS);
  const SIoBuffer aBuffers[] = {{"abc", 3}, {"defg", 4}, {"hij", 3}};
  EXPECT_EQ(file.WriteGather(aBuffers, 3, &cb), S_OK);
  EXPECT_EQ(cb, 5u);
  // Shorter than the request only: a larger count changes nothing.
  ArmShortWrite(100, ERROR_SUCCESS);
  EXPECT_EQ(file.WriteAt(8, "XY", 2, &cb), S_OK);
  EXPECT_EQ(cb, 2u);
  file.Close();
  EXPECT_EQ(FileContents(strFile), "012abcdeXY");
}

// A disk that fills up in the middle of a write: the bytes that fit stay in the file and the call
// fails. Both platforms answer the same: a rule without an error fails with ERROR_INVALID_FUNCTION,
// and a call on a closed file is refused before the seam counts it.
TEST_F(FaultSeam, ADiskFillingUpInsideAWriteKeepsWhatFitAndBothPlatformsCountAlike) {
  CFile file;
  const WString strFile = CreateNew(&file, KV_W("full.bin"));
  ArmShortWrite(4, ERROR_DISK_FULL);
  const SIoBuffer aBuffers[] = {{"abc", 3}, {"defg", 4}};
  DWORD cb = 0;
  EXPECT_EQ(file.WriteGatherAt(0, aBuffers, 2, &cb), static_cast<HRESULT>(0x80070070));
  EXPECT_EQ(cb, 4u);
  EXPECT_EQ(file.WriteAt(4, "XY", 2, &cb), S_OK);  // only the first call

  NSFault::Arm(Rule(NSFault::EOp::Write, 1, ERROR_SUCCESS));
  EXPECT_EQ(file.Write("z", 1, &cb), KvHResultFromWin32(ERROR_INVALID_FUNCTION));
  file.Close();
  NSFault::Arm(Rule(NSFault::EOp::Read, 1, ERROR_READ_FAULT));
  char ch = 0;
  EXPECT_EQ(file.Read(&ch, 1, &cb), KvHResultFromWin32(ERROR_INVALID_HANDLE));
  EXPECT_EQ(file.Write(&ch, 1, &cb), KvHResultFromWin32(ERROR_INVALID_HANDLE));
  EXPECT_EQ(file.Flush(), KvHResultFromWin32(ERROR_INVALID_HANDLE));
  EXPECT_EQ(NSFault::GetCallCount(NSFault::EOp::Read), 0u);
  NSFault::Reset();
  EXPECT_EQ(FileContents(strFile), "abcdXY");
}

TEST_F(FaultSeam, OtherOperationsFailWithoutTouchingTheDisk) {
  const WString strFile = m_dir.Sub(KV_W("target.bin"));
  const WString strBystander = m_dir.Sub(KV_W("bystander.bin"));
  ASSERT_EQ(WriteFileBytes(strFile, "content"), S_OK);
  ASSERT_EQ(WriteFileBytes(strBystander, "content"), S_OK);

  // Path filters leave other files alone and count only the calls they match.
  NSFault::SRule rule = Rule(NSFault::EOp::Read, 1, ERROR_READ_FAULT);
  rule.strPathContains = KV_W("target");
  NSFault::Arm(rule);
  CFile file;
  char ach[8];
  DWORD cb = 0;
  ASSERT_EQ(file.Open(strBystander.c_str(), GENERIC_READ, 0, OPEN_EXISTING, 0), S_OK);
  EXPECT_EQ(file.Read(ach, sizeof(ach), &cb), S_OK);
  file.Close();
  ASSERT_EQ(file.Open(strFile.c_str(), dwReadWrite, 0, OPEN_EXISTING, 0), S_OK);
  EXPECT_EQ(file.ReadAt(0, ach, sizeof(ach), &cb), static_cast<HRESULT>(0x8007001E));
  EXPECT_EQ(file.Read(ach, sizeof(ach), &cb), S_OK);

  NSFault::Arm(Rule(NSFault::EOp::Flush, 1, ERROR_IO_DEVICE));
  EXPECT_EQ(file.Flush(), static_cast<HRESULT>(0x8007045D));
  EXPECT_EQ(file.Flush(), S_OK);
  {
    CFileMapping mapping;
    ASSERT_EQ(mapping.Map(file), S_OK);
    NSFault::SRule flush = Rule(NSFault::EOp::Flush, 1, ERROR_IO_DEVICE);
    flush.strPathContains = KV_W("target.bin");
    NSFault::Arm(flush);
    EXPECT_EQ(mapping.Flush(), static_cast<HRESULT>(0x8007045D));
  }
  file.Close();

  NSFault::Arm(Rule(NSFault::EOp::Open, 1, ERROR_ACCESS_DENIED));
  const WString strNew = m_dir.Sub(KV_W("new.bin"));
  EXPECT_EQ(file.Open(strNew.c_str(), dwReadWrite, 0, CREATE_NEW, 0), E_ACCESSDENIED);
  EXPECT_FALSE(PathExists(strNew.c_str()));

  NSFault::SRule dirRule = Rule(NSFault::EOp::Directory, 1, ERROR_DISK_FULL);
  dirRule.bSticky = true;
  NSFault::Arm(dirRule);
  const WString strSub = m_dir.Sub(KV_W("sub"));
  EXPECT_EQ(CreateDir(strSub.c_str()), static_cast<HRESULT>(0x80070070));
  EXPECT_EQ(CreateDirTree(strSub.c_str()), static_cast<HRESULT>(0x80070070));
  EXPECT_FALSE(PathExists(strSub.c_str()));
  EXPECT_EQ(RemoveFile(strFile.c_str()), static_cast<HRESULT>(0x80070070));
  EXPECT_EQ(RenameFile(strFile.c_str(), strNew.c_str()), static_cast<HRESULT>(0x80070070));
  EXPECT_EQ(SetAttributes(strFile.c_str(), FILE_ATTRIBUTE_READONLY), static_cast<HRESULT>(0x80070070));
  std::vector<SDirEntry> vEntries;
  EXPECT_EQ(ListDir(m_dir.Path().c_str(), &vEntries), static_cast<HRESULT>(0x80070070));
  EXPECT_EQ(RemoveDir(m_dir.Path().c_str()), static_cast<HRESULT>(0x80070070));
  EXPECT_EQ(NSFault::GetCallCount(NSFault::EOp::Directory), 7u);
  NSFault::Reset();
  DWORD dwAttributes = 0;
  ASSERT_EQ(GetAttributes(strFile.c_str(), &dwAttributes), S_OK);
  EXPECT_EQ(dwAttributes, static_cast<DWORD>(FILE_ATTRIBUTE_NORMAL));
  EXPECT_EQ(FileContents(strFile), "content");
}

TEST_F(FaultSeam, FreeSpaceOverride) {
  ULONGLONG ullFree = 0, ullTotal = 0, ullTotalFree = 0;
  ASSERT_EQ(GetFreeDiskSpace(m_dir.Path().c_str(), &ullFree, &ullTotal, &ullTotalFree), S_OK);
  EXPECT_GT(ullTotal, 0u);
  EXPECT_LE(ullTotalFree, ullTotal);
  const ULONGLONG ullRealTotal = ullTotal;

  NSFault::OverrideFreeSpace(12345);
  ASSERT_EQ(GetFreeDiskSpace(m_dir.Path().c_str(), &ullFree, &ullTotal, &ullTotalFree), S_OK);
  EXPECT_EQ(ullFree, 12345u);
  EXPECT_EQ(ullTotalFree, 12345u);
  EXPECT_EQ(ullTotal, ullRealTotal);
  ASSERT_EQ(GetFreeDiskSpace(m_dir.Path().c_str(), nullptr, nullptr, &ullTotalFree), S_OK);
  EXPECT_EQ(ullTotalFree, 12345u);
  NSFault::ClearFreeSpaceOverride();
  ASSERT_EQ(GetFreeDiskSpace(m_dir.Path().c_str(), &ullFree, nullptr, nullptr), S_OK);

  const WString strMissing = CombinePath(m_dir.Sub(KV_W("none")), KV_W("deeper"));
  EXPECT_EQ(GetFreeDiskSpace(strMissing.c_str(), &ullFree, nullptr, nullptr), static_cast<HRESULT>(0x80070003));
}
