// A new hour owns the disk space of its whole index from the moment it is made. The writer stores
// slots through a mapping of descriptor.alh; a page of a file extended without being written has no
// block yet, and a full disk answers the first store to it with a signal that kills the recorder
// (SIGBUS on Linux), where it must answer a write with 0x80070070.
#include <gtest/gtest.h>

#include <kronvale/KronvaleResults.h>

#include <algorithm>
#include <memory>
#include <string>

#include "common/TempDir.h"
#include "hours/HourManager.h"
#include "platform/os.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/stat.h>
#endif

using namespace NSHours;
namespace NSFault = NSPlatform::NSFault;

namespace {

// Bytes the file system has given the file (not its length).
ULONGLONG AllocatedBytes(const WString& strPath) {
#ifdef _WIN32
  HANDLE h = ::CreateFileW(strPath.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return 0;
  FILE_STANDARD_INFO info = {};
  const BOOL bOk = ::GetFileInformationByHandleEx(h, FileStandardInfo, &info, sizeof(info));
  ::CloseHandle(h);
  return bOk ? static_cast<ULONGLONG>(info.AllocationSize.QuadPart) : 0;
#else
  struct stat st = {};
  return ::stat(NSPlatform::WideToUtf8(strPath).c_str(), &st) == 0 ? static_cast<ULONGLONG>(st.st_blocks) * 512 : 0;
#endif
}

WString HourPath(const NSTest::CTempDir& dir, const char* pszHour) {
  WString str = NSPlatform::Utf8ToWide(pszHour);
  std::replace(str.begin(), str.end(), WCHAR(u'/'), NSPlatform::chPathSeparator);
  return dir.Sub(str);
}

}  // namespace

TEST(HourIndexSpace, ANewHourOwnsItsIndexAndAFullDiskWhileMakingItIsAnError) {
  NSTest::CTempDir dir;
  auto pLock = std::make_shared<NSSystem::SLock>();
  const SYSTEMTIME stLast = {2024, 5, 0, 6, 10, 59, 59, 990};  // the last slot: the index's far end
  BYTE abData[] = {'s', 'l', 'o', 't'};
  SHourFrameBuffer buffer = {abData, sizeof(abData)};

  // Made whole: every byte of descriptor.alh has its block before the first frame comes.
  {
    const WString strHour = HourPath(dir, "rec/2024/05/06/10");
    CHourManager hour(pLock);
    ASSERT_EQ(S_OK, hour.Open(strHour, true, false));
    EXPECT_GE(AllocatedBytes(NSPlatform::CombinePath(strHour, KV_W("descriptor.alh"))), sizeof(SHashFile));
    ASSERT_EQ(S_OK, hour.Write(stLast, 1, &buffer, 1));
  }

  // The disk fills up while the index is being made: the open says so, and leaves no index file
  // that a later open would take for a damaged one.
  const WString strHour = HourPath(dir, "rec/2024/05/06/11");
  NSFault::SRule rule;
  rule.eOp = NSFault::EOp::Write;
  rule.nNth = 3;
  rule.dwError = ERROR_DISK_FULL;
  rule.cbShort = 1000;
  rule.strPathContains = KV_W("descriptor.alh");
  NSFault::Arm(rule);
  {
    CHourManager hour(pLock);
    EXPECT_EQ(NSKronvale::khrDiskFull, hour.Open(strHour, true, false));
    hour.Close();
  }
  NSFault::Reset();
  EXPECT_FALSE(NSPlatform::PathExists(NSPlatform::CombinePath(strHour, KV_W("descriptor.alh")).c_str()));

  // Space is back: the hour is made and takes frames.
  CHourManager hour(pLock);
  ASSERT_EQ(S_OK, hour.Open(strHour, true, false));
  ASSERT_EQ(S_OK, hour.Write({2024, 5, 0, 6, 11, 59, 59, 990}, 1, &buffer, 1));
  BYTE abOut[8] = {};
  SHourFrameBuffer out = {abOut, sizeof(abOut)};
  DWORD dwFlags = 0;
  ASSERT_EQ(S_OK, hour.Refresh());
  ASSERT_EQ(S_OK, hour.Read({2024, 5, 0, 6, 11, 59, 59, 990}, &dwFlags, &out, 1));
  EXPECT_EQ("slot", std::string(reinterpret_cast<char*>(abOut), out.dwDataSize));
}
