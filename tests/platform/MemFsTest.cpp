// The in-memory file system answers as the disk does: a recorder's hour files through handles and a
// mapping, share modes and locks between writers, deletion and renaming of open files, a disk that
// fills up in the middle of a write, and the fault seam over it all.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
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
    // Their names are durable: only the bytes are at stake here.
    ASSERT_EQ(S_OK, FlushDirectory(Scratch("").c_str()));
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

namespace {

// A file made with its bytes flushed: its name is still only as durable as its directory.
void WriteFlushed(const WString& strPath, const std::string& str) {
  CFile file;
  ASSERT_EQ(S_OK, file.Open(strPath.c_str(), GENERIC_WRITE, 0, CREATE_ALWAYS, 0));
  DWORD cb = 0;
  ASSERT_EQ(S_OK, file.Write(str.data(), static_cast<DWORD>(str.size()), &cb));
  ASSERT_EQ(S_OK, file.Flush());
}

}  // namespace

// Names are held to the strictest rule a POSIX file system allows: a change of names is durable
// once the directory holding the name is flushed, and a file's own flush keeps its bytes, not its
// name. A reboot with no cut keeps what is durable and nothing else.
TEST(MemFs, ANameIsDurableOnlyOnceItsDirectoryIsFlushed) {
  CInstalled installed;
  const WString strArc = Scratch("arc");
  ASSERT_EQ(S_OK, CreateDir(strArc.c_str()));
  WriteFlushed(Scratch("arc/settings.als"), "old settings");
  WriteFlushed(Scratch("arc/stale"), "stale");
  NSMemFs::StartPowerCutTracking();

  // An archive's settings replaced through a new file, its directory flushed: the new text stays.
  WriteFlushed(Scratch("arc/settings.als.new"), "new settings");
  ASSERT_EQ(S_OK, RenameFile(Scratch("arc/settings.als.new").c_str(), Scratch("arc/settings.als").c_str()));
  WriteFlushed(Scratch("arc/described"), "flushed file, flushed directory");
  ASSERT_EQ(S_OK, FlushDirectory(strArc.c_str()));
  // An hour whose own directory was flushed but not the directories above it: nothing finds it.
  ASSERT_EQ(S_OK, CreateDirTree(Scratch("arc/cam/2024/05/06/10").c_str()));
  WriteFlushed(Scratch("arc/cam/2024/05/06/10/data.al"), "frame");
  ASSERT_EQ(S_OK, FlushDirectory(Scratch("arc/cam/2024/05/06/10").c_str()));
  // A deletion and a rename left unflushed are undone.
  ASSERT_EQ(S_OK, RemoveFile(Scratch("arc/stale").c_str()));
  ASSERT_EQ(S_OK, RenameFile(Scratch("arc/described").c_str(), Scratch("arc/renamed").c_str()));

  NSMemFs::SCutStats stats;
  ASSERT_EQ(S_OK, NSMemFs::Reboot(&stats));
  EXPECT_EQ("new settings", ReadAll(Scratch("arc/settings.als")));
  EXPECT_FALSE(PathExists(Scratch("arc/settings.als.new").c_str()));
  EXPECT_FALSE(PathExists(Scratch("arc/cam").c_str()));
  EXPECT_EQ("stale", ReadAll(Scratch("arc/stale")));
  EXPECT_EQ("flushed file, flushed directory", ReadAll(Scratch("arc/described")));
  EXPECT_FALSE(PathExists(Scratch("arc/renamed").c_str()));
  // Unflushed: the five directories of the hour, the deletion and the rename.
  EXPECT_EQ(7u, stats.cNamesLost);
  EXPECT_EQ(0u, stats.cNamesKept);
  EXPECT_EQ(Hr(ERROR_FILE_NOT_FOUND), FlushDirectory(Scratch("arc/cam").c_str()));
  EXPECT_EQ(Hr(ERROR_DIRECTORY), FlushDirectory(Scratch("arc/stale").c_str()));
}

// A cut keeps or loses each unflushed change of names on its own, as the seeded generator decides:
// a renamed hour directory ("10.copy" -> "10") is found under one name or the other, never both or
// neither, with its flushed files in it; a file made in a directory whose name was lost is lost
// with it.
TEST(MemFs, APowerCutKeepsARenameWholeAndADirectoryWithItsNames) {
  std::set<std::string> outcomes;
  for (uint64_t ullSeed = 1; ullSeed <= 32; ++ullSeed) {
    CInstalled installed;
    ASSERT_EQ(S_OK, CreateDirTree(Scratch("rec/06/10.copy").c_str()));
    WriteFlushed(Scratch("rec/06/10.copy/data.al"), "copied frames");
    ASSERT_EQ(S_OK, FlushDirectory(Scratch("rec/06/10.copy").c_str()));
    NSMemFs::StartPowerCutTracking();
    ASSERT_EQ(S_OK, RenameFile(Scratch("rec/06/10.copy").c_str(), Scratch("rec/06/10").c_str()));
    ASSERT_EQ(S_OK, CreateDir(Scratch("rec/07").c_str()));
    WriteFlushed(Scratch("rec/07/data.al"), "next day");
    ASSERT_EQ(S_OK, FlushDirectory(Scratch("rec/07").c_str()));
    NSMemFs::ArmPowerCut(1, ullSeed);
    WriteFlushed(Scratch("rec/after"), "after the cut");
    ASSERT_TRUE(NSMemFs::HasPowerBeenCut());
    NSMemFs::SCutStats stats;
    ASSERT_EQ(S_OK, NSMemFs::Reboot(&stats));
    const std::string strOld = ReadAll(Scratch("rec/06/10.copy/data.al"));
    const std::string strNew = ReadAll(Scratch("rec/06/10/data.al"));
    ASSERT_NE(strOld == "copied frames", strNew == "copied frames") << "seed " << ullSeed;
    EXPECT_NE(PathExists(Scratch("rec/06/10.copy").c_str()), PathExists(Scratch("rec/06/10").c_str()));
    const bool bDay = PathExists(Scratch("rec/07").c_str());
    EXPECT_EQ(bDay ? "next day" : "(cannot open)", ReadAll(Scratch("rec/07/data.al"))) << "seed " << ullSeed;
    // Unflushed at the cut: the rename, the day's directory, and the file whose creation was cut.
    EXPECT_EQ(3u, stats.cNamesKept + stats.cNamesLost) << "seed " << ullSeed;
    outcomes.insert(std::string(strNew == "copied frames" ? "new name" : "old name") + (bDay ? ", day" : ""));
  }
  // Every combination turns up.
  EXPECT_EQ(4u, outcomes.size());
}
