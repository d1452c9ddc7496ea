// The in-memory file system answers as the disk does: a recorder's hour files through handles and a
// mapping, share modes and locks between writers, deletion and renaming of open files, a disk that
// fills up in the middle of a write, and the fault seam over it all.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/MemFs.h"
#include "platform/os.h"

using namespace NSPlatform;

namespace {

constexpr DWORD kdwShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

HRESULT Hr(DWORD dwError) { return KvHResultFromWin32(dwError); }

// Installed for one test, gone after it, whatever the test did.
class CInstalled {
 public:
  explicit CInstalled(ULONGLONG ullCapacity = 1ull << 30) { NSMemFs::Install(ullCapacity); }
  ~CInstalled() {
    NSFault::Reset();
    NSMemFs::Uninstall();
  }
};

WString Scratch(const char* pszName) {
  WString strTemp;
  EXPECT_EQ(S_OK, GetTempDirectory(&strTemp));
  return CombinePath(strTemp, Utf8ToWide(pszName));
}

std::string ReadAll(const WString& strPath) {
  CFile file;
  if (FAILED(file.Open(strPath.c_str(), GENERIC_READ, kdwShareAll, OPEN_EXISTING, 0))) return "(cannot open)";
  ULONGLONG ullSize = 0;
  file.GetSize(&ullSize);
  std::string str(static_cast<size_t>(ullSize), '\0');
  DWORD cbRead = 0;
  file.ReadAt(0, str.data(), static_cast<DWORD>(str.size()), &cbRead);
  str.resize(cbRead);
  return str;
}

}  // namespace

TEST(MemFs, AnHoursFilesBehaveAsOnDisk) {
  CInstalled installed;
  const WString strHour = Scratch("arc/cam/2024/05/06/10");
  ASSERT_EQ(S_OK, CreateDirTree(strHour.c_str()));
  EXPECT_EQ(Hr(ERROR_ALREADY_EXISTS), CreateDirTree(strHour.c_str()));
  EXPECT_TRUE(IsDirectory(Scratch("arc/cam").c_str()));
  // Nothing of it reached the disk.
  NSMemFs::Uninstall();
  EXPECT_FALSE(PathExists(Scratch("arc/cam/2024").c_str()));
  NSMemFs::Install(1ull << 30);
  ASSERT_EQ(S_OK, CreateDirTree(strHour.c_str()));

  // The writer's index file, written by handle and mapped; a reader sees what the view stores, and
  // the view sees what a handle writes.
  const WString strHash = CombinePath(strHour, KV_W("descriptor.alh"));
  CFile writer;
  bool bExisted = true;
  ASSERT_EQ(S_OK, writer.Open(strHash.c_str(), GENERIC_READ | GENERIC_WRITE, kdwShareAll, OPEN_ALWAYS, 0, &bExisted));
  EXPECT_FALSE(bExisted);
  CFileMapping mapping;
  EXPECT_EQ(Hr(ERROR_FILE_INVALID), mapping.Map(writer));  // empty: nothing to map, as Windows says
  const std::string strZeros(8192, '\0');
  DWORD cb = 0;
  ASSERT_EQ(S_OK, writer.WriteAt(0, strZeros.data(), 8192, &cb));
  ASSERT_EQ(S_OK, mapping.Map(writer));
  ASSERT_EQ(8192u, mapping.GetSize());
  std::memcpy(static_cast<char*>(mapping.GetView()) + 5000, "slot", 4);
  EXPECT_EQ("slot", ReadAll(strHash).substr(5000, 4));
  ASSERT_EQ(S_OK, writer.WriteAt(100, "data", 4, &cb));
  EXPECT_EQ(0, std::memcmp(static_cast<char*>(mapping.GetView()) + 100, "data", 4));
  // A mapped file keeps its size; the view's flush goes through the seam like any flush.
  ASSERT_EQ(S_OK, writer.Seek(10, FILE_BEGIN, nullptr));
  EXPECT_EQ(Hr(ERROR_USER_MAPPED_FILE), writer.SetEndOfFile());
  NSFault::SRule rule;
  rule.eOp = NSFault::EOp::Flush;
  rule.dwError = ERROR_WRITE_FAULT;
  rule.strPathContains = KV_W("descriptor.alh");
  NSFault::Arm(rule);
  EXPECT_EQ(Hr(ERROR_WRITE_FAULT), mapping.Flush());
  EXPECT_EQ(S_OK, mapping.Flush());
  NSFault::Reset();
  mapping.Unmap();

  // A second writer that shares nothing is refused, as a second recorder of the record is; the
  // record's lock byte is held against every other handle.
  CFile exclusive;
  EXPECT_EQ(Hr(ERROR_SHARING_VIOLATION), exclusive.Open(strHash.c_str(), GENERIC_READ | GENERIC_WRITE, 0, OPEN_EXISTING, 0));
  CFile other;
  ASSERT_EQ(S_OK, other.Open(strHash.c_str(), GENERIC_READ | GENERIC_WRITE, kdwShareAll, OPEN_EXISTING, 0));
  ASSERT_EQ(S_OK, writer.LockRange(0, 1));
  EXPECT_EQ(Hr(ERROR_LOCK_VIOLATION), other.LockRange(0, 1));
  EXPECT_EQ(Hr(ERROR_NOT_LOCKED), other.UnlockRange(0, 1));
  EXPECT_EQ(S_OK, writer.UnlockRange(0, 1));
  EXPECT_EQ(S_OK, other.LockRange(0, 1));
  other.Close();

  // An open file that shares deletion can be renamed and deleted; its handle reads on.
  const WString strMoved = CombinePath(strHour, KV_W("descriptor.alh.old"));
  ASSERT_EQ(S_OK, RenameFile(strHash.c_str(), strMoved.c_str()));
  EXPECT_FALSE(PathExists(strHash.c_str()));
  EXPECT_EQ(8192u, ReadAll(strMoved).size());
  ASSERT_EQ(S_OK, RemoveFile(strMoved.c_str()));
  EXPECT_EQ(Hr(ERROR_FILE_NOT_FOUND), RemoveFile(strMoved.c_str()));
  char ab[4] = {};
  ASSERT_EQ(S_OK, writer.ReadAt(100, ab, 4, &cb));
  EXPECT_EQ("data", std::string(ab, 4));
  EXPECT_EQ(8192u, NSMemFs::GetUsedBytes());  // held by the handle until it closes
  writer.Close();
  EXPECT_EQ(0u, NSMemFs::GetUsedBytes());

  // The directory functions answer as on disk.
  std::vector<SDirEntry> vEntries;
  ASSERT_EQ(S_OK, ListDir(Scratch("arc/cam/2024/05/06").c_str(), &vEntries));
  ASSERT_EQ(1u, vEntries.size());
  EXPECT_EQ(KV_W("10"), vEntries[0].strName);
  EXPECT_TRUE(vEntries[0].IsDirectory());
  EXPECT_EQ(Hr(ERROR_DIR_NOT_EMPTY), RemoveDir(Scratch("arc/cam/2024/05/06").c_str()));
  EXPECT_EQ(Hr(ERROR_PATH_NOT_FOUND), ListDir(Scratch("arc/none").c_str(), &vEntries));
  CFile missing;
  EXPECT_EQ(Hr(ERROR_PATH_NOT_FOUND), missing.Open(Scratch("arc/none/f").c_str(), GENERIC_READ, 0, OPEN_EXISTING, 0));
  EXPECT_EQ(Hr(ERROR_FILE_NOT_FOUND), missing.Open(Scratch("arc/f").c_str(), GENERIC_READ, 0, OPEN_EXISTING, 0));
}

TEST(MemFs, AFullDiskStoresWhatFitsAndSaysSo) {
  CInstalled installed(10000);
  const WString strData = Scratch("data.al");
  CFile file;
  ASSERT_EQ(S_OK, file.Open(strData.c_str(), GENERIC_READ | GENERIC_WRITE, kdwShareAll, CREATE_NEW, 0));
  const std::string strFrame(6000, 'f');
  DWORD cb = 0;
  ASSERT_EQ(S_OK, file.Write(strFrame.data(), 6000, &cb));
  ULONGLONG ullFree = 0, ullTotal = 0;
  ASSERT_EQ(S_OK, GetFreeDiskSpace(Scratch("").c_str(), &ullFree, &ullTotal, nullptr));
  EXPECT_EQ(4000u, ullFree);
  EXPECT_EQ(10000u, ullTotal);
  // The second frame finds 4000 bytes: they are stored, and the write fails as a full disk's does.
  EXPECT_EQ(Hr(ERROR_DISK_FULL), file.Write(strFrame.data(), 6000, &cb));
  EXPECT_EQ(0u, cb);
  ULONGLONG ullSize = 0;
  ASSERT_EQ(S_OK, file.GetSize(&ullSize));
  EXPECT_EQ(10000u, ullSize);
  // The writer cuts its partial frame off; space comes back and the next frame fits.
  ASSERT_EQ(S_OK, file.Seek(6000, FILE_BEGIN, nullptr));
  ASSERT_EQ(S_OK, file.SetEndOfFile());
  ASSERT_EQ(S_OK, GetFreeDiskSpace(Scratch("").c_str(), &ullFree, nullptr, nullptr));
  EXPECT_EQ(4000u, ullFree);
  NSMemFs::SetCapacity(20000);
  EXPECT_EQ(S_OK, file.Write(strFrame.data(), 6000, &cb));
  // The seam's override stands above the capacity, and its short writes work here too.
  NSFault::OverrideFreeSpace(123);
  ASSERT_EQ(S_OK, GetFreeDiskSpace(Scratch("").c_str(), &ullFree, nullptr, nullptr));
  EXPECT_EQ(123u, ullFree);
  NSFault::SRule rule;
  rule.eOp = NSFault::EOp::Write;
  rule.cbShort = 10;
  rule.dwError = ERROR_SUCCESS;
  NSFault::Arm(rule);
  EXPECT_EQ(S_OK, file.Write(strFrame.data(), 6000, &cb));
  EXPECT_EQ(10u, cb);
  EXPECT_EQ(1u, NSFault::GetCallCount(NSFault::EOp::Write));
}

// The power cut keeps what was flushed and what write-through wrote; of the rest, what the seeded
// generator chooses, page by page.
TEST(MemFs, APowerCutKeepsWhatWasFlushed) {
  CInstalled installed;
  NSMemFs::StartPowerCutTracking();
  const std::string strPage(4096, 'p');
  DWORD cb = 0;
  {
    CFile flushed, through, buffered;
    ASSERT_EQ(S_OK, flushed.Open(Scratch("flushed").c_str(), GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW, 0));
    ASSERT_EQ(S_OK, through.Open(Scratch("through").c_str(), GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW,
                                 FILE_FLAG_WRITE_THROUGH));
    ASSERT_EQ(S_OK, buffered.Open(Scratch("buffered").c_str(), GENERIC_READ | GENERIC_WRITE, 0, CREATE_NEW, 0));
    ASSERT_EQ(S_OK, flushed.Write(strPage.data(), 4096, &cb));
    ASSERT_EQ(S_OK, flushed.Flush());
    ASSERT_EQ(S_OK, through.Write(strPage.data(), 4096, &cb));
    for (int i = 0; i < 64; ++i) ASSERT_EQ(S_OK, buffered.Write(strPage.data(), 4096, &cb));
    // The cut comes during the next write of the flushed file: that write is not kept for certain.
    NSMemFs::ArmPowerCut(1, 7);
    ASSERT_EQ(S_OK, flushed.Write(strPage.data(), 4096, &cb));
    EXPECT_TRUE(NSMemFs::HasPowerBeenCut());
    // After the cut, nothing the process does reaches the image.
    ASSERT_EQ(S_OK, buffered.Flush());
    EXPECT_EQ(Hr(ERROR_BUSY), NSMemFs::Reboot(nullptr));
  }
  NSMemFs::SCutStats stats;
  ASSERT_EQ(S_OK, NSMemFs::Reboot(&stats));
  EXPECT_EQ(3u, stats.cFiles);
  EXPECT_EQ(strPage, ReadAll(Scratch("through")));
  const std::string strFlushed = ReadAll(Scratch("flushed"));
  EXPECT_EQ(strPage, strFlushed.substr(0, 4096));
  const std::string strBuffered = ReadAll(Scratch("buffered"));
  EXPECT_TRUE(strBuffered.empty() || strBuffered.size() == 64 * 4096u) << strBuffered.size();
  // Every unflushed page was kept, dropped or torn: 64 of the buffered file (when its size
  // arrived), one of the flushed file's second write (when its size arrived).
  const unsigned cPages = stats.cPagesKept + stats.cPagesDropped + stats.cPagesTorn;
  EXPECT_EQ((strBuffered.empty() ? 0u : 64u) + (strFlushed.size() > 4096 ? 1u : 0u), cPages);
  EXPECT_GT(stats.cPagesKept, 0u);
  EXPECT_GT(stats.cPagesDropped, 0u);
}
