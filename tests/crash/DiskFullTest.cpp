// A disk that fills up for real: a recorder writes into a 64 MiB volume of its own until the file
// system refuses, space returns, it writes on, a crash tears its last frame, and the record's next
// writer must still give back every frame that was acknowledged. The scenarios run in a child
// process (a crash is then the parent's failure, and the volume is unmounted whatever happens); they
// are skipped where nothing can be mounted.
#include <kronvale/KronvaleResults.h>

#include "records/RecordTestSupport.h"
#include "crash/CrashTestSupport.h"

#include <fcntl.h>
#include <unistd.h>

using namespace NSTest;
using NSTest::ChildDirectory;

namespace {

constexpr size_t kcbFrame = 200 * 1024;

// Frame n: 200 KiB that tell its number.
std::string FrameBytes(int n) {
  std::string str(kcbFrame, static_cast<char>('a' + n % 26));
  const std::string strHead = "frame " + std::to_string(n) + ";";
  str.replace(0, strHead.size(), strHead);
  return str;
}

// Frame n lies n x 2 s after 10:00, so every frame of these scenarios lies in one hour.
FILETIME FrameTime(int n) { return Plus(Ft(2024, 5, 6, 10), n * 2000 * kllMs); }

// Fills the volume to its last byte with a file of its own: big writes first, then single bytes
// into the last part of a block.
void FillUp(const std::string& strFile) {
  const int fd = ::open(strFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  std::string strChunk(1 << 20, 'z');
  for (size_t cb = strChunk.size(); cb > 0; cb /= 2) {
    while (::write(fd, strChunk.data(), cb) == static_cast<ssize_t>(cb)) {
    }
  }
  ::fsync(fd);
  ::close(fd);
}

std::string ScenarioDirectory() {
  const char* psz = ChildDirectory();
  return psz ? psz : "";
}

// The parent's part: a volume, the scenario suite in a child process on it, the volume gone after.
void RunOnVolume(const char* pszSuite) {
  NSTest::CTempDir dir;
  NSTest::CSmallVolume volume(NSPlatform::WideToUtf8(dir.Path()));
  if (!volume.Mounted()) GTEST_SKIP() << "no small volume can be mounted here (no right to mount)";
  EXPECT_EQ(0, NSTest::RunChild(pszSuite, volume.Path()))
      << "the scenario failed or crashed on " << volume.Kind() << " (a code above 128 is a signal)";
}

}  // namespace

TEST(DiskFull, AcknowledgedFramesSurviveAFullDiskAndATornTail) {
#if defined(__SANITIZE_THREAD__)
  // A minute under ThreadSanitizer, whose shadow memory makes every 200 KiB buffer costly, for a
  // path without threads of interest: the linux and linux-asan presets run it.
  GTEST_SKIP() << "too slow under ThreadSanitizer";
#endif
  RunOnVolume("DiskFullOnVolume");
}

TEST(DiskFull, AWriterWhoseIndexNeedsSpaceOnAFullDiskDoesNotCrash) { RunOnVolume("FullVolumeIndex"); }

// Issue of recorders: the disk fills up in the middle of a frame. The failed frame must leave no
// bytes behind that would later hide every frame written after it from a repair.
TEST(DiskFullOnVolume, EveryAcknowledgedFrameReadsBack) {
  const std::string strVolume = ScenarioDirectory();
  if (strVolume.empty()) GTEST_SKIP() << "runs as the child process of DiskFull only";
  // Room to give back once the disk is full.
  const std::string strBallast = strVolume + "/ballast";
  {
    const int fd = ::open(strBallast.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    const std::string strMiB(1 << 20, 'b');
    for (int i = 0; i < 8; ++i) ASSERT_EQ(static_cast<ssize_t>(strMiB.size()), ::write(fd, strMiB.data(), strMiB.size()));
    ::close(fd);
  }
  const WString strArchive = NSPlatform::Utf8ToWide(strVolume + "/arc");
  std::vector<int> vAcknowledged;
  int nRefused = -1;
  {
    CTestArchive archive(strArchive, 1000);  // buffered: the disk fills as fast as it takes the bytes
    auto pWriter = archive.Writer("cam");
    ASSERT_TRUE(pWriter);
    HRESULT hr = S_OK;
    int n = 0;
    for (; n < 1000; ++n) {
      hr = WriteFrame(pWriter, FrameTime(n), 1, {FrameBytes(n)});
      if (FAILED(hr)) break;
      vAcknowledged.push_back(n);
    }
    // The file system's own answer, not a failure of some other kind.
    ASSERT_EQ(NSKronvale::khrDiskFull, hr) << "after " << n << " frames";
    nRefused = n;
    // Space returns; the recorder goes on with the next frame time.
    ASSERT_EQ(0, ::unlink(strBallast.c_str()));
    for (int k = 1; k <= 20; ++k) {
      ASSERT_EQ(S_OK, WriteFrame(pWriter, FrameTime(nRefused + k), 1, {FrameBytes(nRefused + k)})) << "frame " << k;
      vAcknowledged.push_back(nRefused + k);
    }
  }
  // A crash tears the last frame: its last kilobyte never reached data.al.
  const std::string strData = strVolume + "/arc/cam/2024/05/06/10/data.al";
  struct stat st = {};
  ASSERT_EQ(0, ::stat(strData.c_str(), &st));
  ASSERT_EQ(0, ::truncate(strData.c_str(), st.st_size - 1024));
  const int nTorn = vAcknowledged.back();
  vAcknowledged.pop_back();

  // The record's next writer repairs the hour; every acknowledged frame before the torn one is
  // there byte for byte, and neither the refused frame nor the torn one comes back.
  CTestArchive archive(strArchive);
  auto pWriter = archive.Writer("cam");
  ASSERT_TRUE(pWriter);
  for (const int n : vAcknowledged) {
    DWORD dwFlags = 0;
    ASSERT_EQ(std::vector<std::string>{FrameBytes(n)}, ReadFrame(pWriter, FrameTime(n), 1, &dwFlags)) << "frame " << n;
  }
  EXPECT_EQ(std::vector<std::string>{"hr=80070490"}, ReadFrame(pWriter, FrameTime(nRefused), 1));
  EXPECT_EQ(std::vector<std::string>{"hr=80070490"}, ReadFrame(pWriter, FrameTime(nTorn), 1));
  EXPECT_EQ(vAcknowledged.size(), WalkForward(pWriter).size());
}

// A small frame on a disk without a free block: its bytes fit into the last, partly used blocks of
// data.al and descriptor.ald, while its slot and counters lie in parts of descriptor.alh that no
// frame touched yet. The index is written through a mapping, where a file system without space
// for a page answers with a signal instead of an error: the hour must have its whole index on disk
// from the moment it is made.
TEST(FullVolumeIndex, ASmallFrameInAnUntouchedPartOfTheHour) {
  const std::string strVolume = ScenarioDirectory();
  if (strVolume.empty()) GTEST_SKIP() << "runs as the child process of DiskFull only";
  const WString strArchive = NSPlatform::Utf8ToWide(strVolume + "/arc");
  const std::string strFiller = strVolume + "/filler";
  const FILETIME ftFirst = Ft(2024, 5, 6, 10);
  const FILETIME ftLast = Ft(2024, 5, 6, 10, 59, 59, 990);
  {
    CTestArchive archive(strArchive);
    auto pWriter = archive.Writer("cam");
    ASSERT_TRUE(pWriter);
    ASSERT_EQ(S_OK, WriteFrame(pWriter, ftFirst, 1, {"first"}));
    FillUp(strFiller);
    const HRESULT hr = WriteFrame(pWriter, ftLast, 2, {"last"});
    EXPECT_TRUE(hr == S_OK || hr == NSKronvale::khrDiskFull) << std::hex << hr;
    ASSERT_EQ(0, ::unlink(strFiller.c_str()));
    if (hr != S_OK) {
      ASSERT_EQ(S_OK, WriteFrame(pWriter, ftLast, 2, {"last"}));
    }
  }
  CTestArchive archive(strArchive);
  auto pWriter = archive.Writer("cam");
  ASSERT_TRUE(pWriter);
  EXPECT_EQ(std::vector<std::string>{"first"}, ReadFrame(pWriter, ftFirst, 1));
  EXPECT_EQ(std::vector<std::string>{"last"}, ReadFrame(pWriter, ftLast, 1));
}
