// The archive inside its limits: size scans, the quota check with its margin, the deletion of the
// oldest hours across records (never an hour being written), the hour limit per record, retention
// while writers append, and the flushing of buffered hours.
#include <atomic>
#include <thread>

#ifndef _WIN32
#include <unistd.h>

#include <fstream>
#include <iterator>
#endif

#include <kronvale/KronvaleResults.h>

#include "archive/ArchiveImpl.h"
#include "records/RecordTestSupport.h"
#include "common/SmallVolume.h"

using namespace NSTest;
using NSKronvale::khrDiskFull;
using NSKronvale::khrNotFound;
using NSArchive::CArchiveImpl;
namespace NSFault = NSPlatform::NSFault;

namespace {

constexpr LONGLONG kllTwoGiB = 2147483648ll;

class RetentionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    NSCom::CComObject<CArchiveImpl>* p = nullptr;
    ASSERT_EQ(S_OK, NSCom::CComObject<CArchiveImpl>::CreateInstance(&p));
    m_pArchive = p;
    m_pObject = p;
    ASSERT_EQ(S_OK, p->Create(m_dir.Sub(KV_W("arc"))));
  }
  void TearDown() override {
    NSFault::Reset();
    m_pArchive->Free();
  }
  NSCom::CComPtr<IRecord> Writer(const char* pszName) {
    NSCom::CComPtr<IRecord> p;
    EXPECT_EQ(S_OK, m_pArchive->CreateRecord(NSCom::CComBSTR(W(pszName).c_str()), &p));
    return p;
  }
  // One frame of 100 kB in each of the hours of 2021-01-01 given.
  void FillHours(IRecord* pRecord, std::initializer_list<WORD> hours) {
    for (WORD h : hours) ASSERT_EQ(S_OK, WriteFrame(pRecord, Ft(2021, 1, 1, h), 1, {std::string(100000, 'x')}));
  }
  WString HourDir(const char* pszRecord, WORD wHour) const {
    char sz[64];
    std::snprintf(sz, sizeof(sz), "arc/%s/2021/01/01/%02d", pszRecord, wHour);
    return m_dir.Sub(Native(sz));
  }
  bool Has(const char* pszRecord, WORD wHour) const { return NSPlatform::IsDirectory(HourDir(pszRecord, wHour).c_str()); }
  ULONGLONG HourBytes(const char* pszRecord, WORD wHour) const {
    std::vector<NSPlatform::SDirEntry> v;
    NSPlatform::ListDir(HourDir(pszRecord, wHour).c_str(), &v);
    ULONGLONG ull = 0;
    for (const auto& e : v) ull += e.ullSize;
    return ull;
  }
  void SetQuota(ULONGLONG ullMinimumFree, ULONGLONG ullMaximumSize, LONG lHours = 0, DWORD dwAccess = 0) {
    const SArchiveQuota quota = {ullMinimumFree, ullMaximumSize, lHours, dwAccess};
    ASSERT_TRUE(SUCCEEDED(Query<IKronvaleQuota>(m_pArchive, IID_IKronvaleQuota)->SetArchiveQuota(&quota)));
  }

  NSTest::CTempDir m_dir;
  NSCom::CComPtr<IKronvale> m_pArchive;
  CArchiveImpl* m_pObject = nullptr;
};

TEST_F(RetentionTest, TheOldestHoursGoFirstAcrossRecords) {
  auto pA = Writer("a");
  auto pB = Writer("b");
  FillHours(pA, {0, 1, 2, 3});
  FillHours(pB, {1, 2, 4});
  // The writers' open hours (a: 3, b: 4) are never deleted.
  m_pObject->SizeAndQuotaPass();
  const ULONGLONG ullSize = m_pObject->GetArchiveSize();
  ULONGLONG ullSum = 0;
  for (WORD h : {0, 1, 2, 3}) ullSum += HourBytes("a", h);
  for (WORD h : {1, 2, 4}) ullSum += HourBytes("b", h);
  EXPECT_LE(ullSum, ullSize);
  EXPECT_EQ(HourBytes("a", 3) + HourBytes("b", 4), m_pObject->GetOpenHoursSize());

  // Three hours' worth over the limit (with the 2 GiB margin): a0, then both 1h hours.
  const ULONGLONG ullHour = HourBytes("a", 0);
  NSTest::CLogCapture capture;
  SetQuota(0, ullSize + kllTwoGiB - 3 * ullHour + 10);
  EXPECT_EQ(S_OK, m_pObject->CheckQuota());
  EXPECT_FALSE(Has("a", 0));
  EXPECT_FALSE(Has("a", 1));
  EXPECT_FALSE(Has("b", 1));
  EXPECT_TRUE(Has("a", 2));
  EXPECT_TRUE(Has("b", 2));
  EXPECT_EQ(3u, [&] {
    size_t c = 0;
    for (const WString& s : Texts(capture, "message")) c += s.rfind(W("Removing old hour: "), 0) == 0;
    return c;
  }());
  EXPECT_FALSE(m_pObject->IsQuotaExceeded());

  // Asking for far more than can go: everything but the open hours goes, with the warning.
  NSTest::CLogCapture second;
  m_pObject->SizeAndQuotaPass();
  const ULONGLONG ullSizeNow = m_pObject->GetArchiveSize();
  const ULONGLONG ullFreedNow = HourBytes("a", 2) + HourBytes("b", 2);
  SetQuota(0, 1);
  EXPECT_EQ(S_OK, m_pObject->CheckQuota());
  EXPECT_FALSE(Has("a", 2));
  EXPECT_FALSE(Has("b", 2));
  EXPECT_TRUE(Has("a", 3));
  EXPECT_TRUE(Has("b", 4));
  EXPECT_TRUE(m_pObject->IsQuotaExceeded());
  const std::vector<WString> vWarnings = Texts(second, "warning");
  ASSERT_EQ(1u, vWarnings.size());
  const std::string strExpected = std::to_string((ullFreedNow) / 1048576) + " MB out of requested " +
                                  std::to_string((kllTwoGiB - 1 + ullSizeNow) / 1048576) + " MB were freed for archive '";
  EXPECT_EQ(W(strExpected.c_str()) + m_dir.Sub(KV_W("arc")) + W("'\n"), vWarnings[0]);
  // Nothing left to delete.
  EXPECT_EQ(static_cast<HRESULT>(0x800720CE), m_pObject->CheckQuota());
  // The writers never noticed.
  EXPECT_EQ(S_OK, WriteFrame(pA, Ft(2021, 1, 1, 3, 30), 1, {"more"}));
}

// Records holding the same hour lose it one after the other, the record that reached it last
// first, as deletions have always gone (operators compare these reports between versions).
TEST_F(RetentionTest, TheOrderOfDeletionBetweenRecordsAtTheSameHour) {
  auto pA = Writer("a");
  auto pB = Writer("b");
  FillHours(pA, {0, 2, 9});
  FillHours(pB, {1, 2, 8});
  m_pObject->SizeAndQuotaPass();
  NSTest::CLogCapture capture;
  SetQuota(0, 1);
  EXPECT_EQ(S_OK, m_pObject->CheckQuota());
  std::vector<WString> vRemoved;
  for (const WString& str : Texts(capture, "message"))
    if (str.rfind(W("Removing old hour: "), 0) == 0) vRemoved.push_back(str.substr(19));
  const std::vector<WString> vExpected = {HourDir("a", 0) + W("\n"), HourDir("b", 1) + W("\n"),
                                          HourDir("b", 2) + W("\n"), HourDir("a", 2) + W("\n")};
  EXPECT_EQ(vExpected, vRemoved);
}

TEST_F(RetentionTest, EachLimitOnItsOwn) {
  auto pA = Writer("a");
  FillHours(pA, {0, 1, 2, 3, 4});
  auto pB = Writer("b");
  FillHours(pB, {0, 1});
  m_pObject->SizeAndQuotaPass();
  // No limit: nothing to do.
  EXPECT_EQ(S_FALSE, m_pObject->CheckQuota());
  // Hours per record alone: only the record above the limit loses hours (the byte phase has
  // nothing to free), oldest first.
  SetQuota(0, 0, 2);
  NSTest::CLogCapture capture;
  EXPECT_EQ(S_OK, m_pObject->CheckQuota());
  EXPECT_FALSE(Has("a", 2));
  EXPECT_TRUE(Has("a", 3));
  EXPECT_TRUE(Has("b", 0));
  EXPECT_TRUE(Texts(capture, "warning").empty());
  // Below the limit of one hour: b's open hour (now its oldest) stays and the hour after it goes;
  // a hour that cannot be deleted leaves its record above the limit, with both warnings.
  ASSERT_EQ(S_OK, WriteFrame(pB, Ft(2021, 1, 1, 0, 30), 1, {"back to 0h"}));
  auto pC = Writer("c");
  FillHours(pC, {5, 6});
  NSPlatform::NSFault::SRule rule;
  rule.eOp = NSFault::EOp::Directory;
  rule.dwError = ERROR_ACCESS_DENIED;
  rule.bSticky = true;
  rule.strPathContains = Native("c/2021/01/01/05");
  NSFault::Arm(rule);
  SetQuota(0, 0, 1);
  m_pObject->CheckQuota();
  NSFault::Reset();
  EXPECT_FALSE(Has("a", 3));
  EXPECT_TRUE(Has("b", 0));
  EXPECT_FALSE(Has("b", 1));
  EXPECT_TRUE(Has("c", 5));
  EXPECT_TRUE(Logged(capture, "warning",
                     W("Failed to delete hour '") + HourDir("c", 5) + W("' (0x80070005)\n")));
  EXPECT_TRUE(Logged(capture, "warning",
                     W("Per record hour count limit of 1 hours was exceeded for record '") + m_dir.Sub(Native("arc/c")) +
                         W("' currently containig 2 hours\n")));
  // Free space alone, the volume made nearly full through the platform seam: everything but the
  // open hours goes.
  NSFault::OverrideFreeSpace(1000);
  SetQuota(2000, 0);
  m_pObject->CheckQuota();
  EXPECT_FALSE(Has("c", 5));
  EXPECT_TRUE(Has("c", 6));
  EXPECT_TRUE(Has("b", 0));
  EXPECT_TRUE(Has("a", 4));
  EXPECT_TRUE(m_pObject->IsQuotaExceeded());
  // Retention forbidden by the access word (which also empties the record table).
  SetQuota(0, 1, 0, NSArchive::kdwAccessNoRetention);
  EXPECT_EQ(static_cast<HRESULT>(0x80070718), m_pObject->CheckQuota());
}

// Size and hours per record together: the bytes go oldest first across records, then each record
// comes down to its hour limit.
TEST_F(RetentionTest, LimitsTogether) {
  auto pA = Writer("a");
  FillHours(pA, {0, 1, 2, 3, 4, 5});
  auto pB = Writer("b");
  FillHours(pB, {0, 1, 2});
  m_pObject->SizeAndQuotaPass();
  const ULONGLONG ullHour = HourBytes("a", 0);
  SetQuota(0, m_pObject->GetArchiveSize() + kllTwoGiB - 2 * ullHour + 10, 3);
  EXPECT_EQ(S_OK, m_pObject->CheckQuota());
  for (WORD h : {0, 1, 2}) EXPECT_FALSE(Has("a", h)) << h;
  for (WORD h : {3, 4, 5}) EXPECT_TRUE(Has("a", h)) << h;
  EXPECT_FALSE(Has("b", 0));
  EXPECT_TRUE(Has("b", 1));
  EXPECT_TRUE(Has("b", 2));
  EXPECT_FALSE(m_pObject->IsQuotaExceeded());
}

// The margin is 2 GiB up to an archive of 214748364899 bytes and 1% of the size from 214748364900.
TEST_F(RetentionTest, TheMarginGrowsWithLargeArchives) {
  const struct {
    ULONGLONG ullArchiveSize;
    ULONGLONG ullMaximum;
    HRESULT hr;
  } aCases[] = {
      {214748364899ull, 214748364899ull + 2147483648ull, S_FALSE},
      {214748364899ull, 214748364899ull + 2147483647ull, static_cast<HRESULT>(0x800720CE)},
      {214748364900ull, 214748364900ull + 2147483649ull, S_FALSE},
      {214748364900ull, 214748364900ull + 2147483648ull, static_cast<HRESULT>(0x800720CE)},
  };
  m_pArchive->Free();
  for (const auto& c : aCases) {
    NSArchive::SArchiveSettings settings;
    settings.ullArchiveSize = c.ullArchiveSize;
    settings.ullMaximumArchiveSize = c.ullMaximum;
    ASSERT_EQ(S_OK, NSArchive::SerializeSettings(m_dir.Sub(Native("arc/settings.als")), true, &settings));
    NSCom::CComObject<CArchiveImpl>* p = nullptr;
    ASSERT_EQ(S_OK, NSCom::CComObject<CArchiveImpl>::CreateInstance(&p));
    NSCom::CComPtr<IKronvale> pHold(p);
    ASSERT_EQ(S_OK, p->Open(m_dir.Sub(KV_W("arc")), 0));
    EXPECT_EQ(c.hr, p->CheckQuota()) << c.ullArchiveSize << " " << c.ullMaximum;
    p->Free();
  }
}

// Writers append to several records while passes delete their oldest hours and the flusher
// flushes their open hours as they move from hour to hour: no write fails, no open hour goes, and
// the archive settles inside its limit.
TEST_F(RetentionTest, RetentionWhileWritersAppend) {
  constexpr int kcRecords = 3;
  constexpr WORD kcHours = 12;
  ASSERT_EQ(S_OK, m_pArchive->SetFlushTimeout(1));
  std::vector<NSCom::CComPtr<IRecord>> vWriters;
  for (int i = 0; i < kcRecords; ++i) vWriters.push_back(Writer(("r" + std::to_string(i)).c_str()));
  // About 2 hours of one record may stay beyond the margin.
  FillHours(vWriters[0], {0});
  const ULONGLONG ullHour = HourBytes("r0", 0);
  SetQuota(0, kllTwoGiB + 2 * ullHour, 0);
  std::atomic<int> cFailures{0};
  std::atomic<bool> bDone{false};
  NSFault::Reset();
  std::vector<std::thread> vThreads;
  for (int i = 0; i < kcRecords; ++i) {
    vThreads.emplace_back([&, i] {
      for (WORD h = 1; h < kcHours; ++h)
        for (WORD m = 0; m < 60; m += 6)
          if (FAILED(WriteFrame(vWriters[i], Ft(2021, 1, 1, h, m), 1, {std::string(20000, char('a' + i))}))) ++cFailures;
    });
  }
  std::thread pass([&] {
    while (!bDone) m_pObject->SizeAndQuotaPass();
  });
  for (auto& t : vThreads) t.join();
  bDone = true;
  pass.join();
  EXPECT_EQ(0, cFailures.load());
  EXPECT_GT(NSFault::GetCallCount(NSFault::EOp::Flush), 0u);
  m_pObject->SizeAndQuotaPass();
  m_pObject->SizeAndQuotaPass();
  EXPECT_LE(m_pObject->GetArchiveSize(), 2 * ullHour + kcRecords * (ullHour + 4 * 200000));
  for (int i = 0; i < kcRecords; ++i) {
    EXPECT_TRUE(Has(("r" + std::to_string(i)).c_str(), kcHours - 1));
    // The last hour of every record is whole.
    std::vector<ULONGLONG> v;
    FILETIME ft = Ft(2021, 1, 1, kcHours - 1);
    ASSERT_EQ(S_OK, vWriters[i]->CheckFrame(ft, nullptr));
    while (SUCCEEDED(vWriters[i]->GetNext(ft, nullptr, &ft))) v.push_back(U(ft));
    EXPECT_EQ(9u, v.size());
  }
}

// Buffered hours are flushed by the archive about every FlushTimeout; hours written through are
// never flushed by it.
TEST_F(RetentionTest, BufferedHoursAreFlushedWithinTheTimeout) {
  ASSERT_EQ(S_OK, m_pArchive->SetFlushTimeout(100));
  auto pA = Writer("a");
  ASSERT_EQ(S_OK, WriteFrame(pA, Ft(2021, 1, 1, 5), 1, {"buffered"}));
  NSFault::Reset();
  ASSERT_EQ(S_OK, WriteFrame(pA, Ft(2021, 1, 1, 5, 1), 1, {"buffered"}));
  // Data, index and hash file: three flushes per round; allow a generous wait on a loaded machine.
  for (int i = 0; i < 500 && NSFault::GetCallCount(NSFault::EOp::Flush) < 3; ++i) NSPlatform::SleepMs(10);
  EXPECT_GE(NSFault::GetCallCount(NSFault::EOp::Flush), 3u);
  // Nothing new, nothing flushed.
  NSPlatform::SleepMs(50);
  const unsigned cFlushes = NSFault::GetCallCount(NSFault::EOp::Flush);
  NSPlatform::SleepMs(300);
  EXPECT_EQ(cFlushes, NSFault::GetCallCount(NSFault::EOp::Flush));

  // Written through: no flusher at all. The write itself flushes the view of the hash file once,
  // so that the frame's slot and flag counters are as durable as the frame.
  ASSERT_EQ(S_OK, m_pArchive->SetFlushTimeout(0));
  auto pB = Writer("b");
  NSFault::Reset();
  ASSERT_EQ(S_OK, WriteFrame(pB, Ft(2021, 1, 1, 6), 1, {"through"}));
  EXPECT_EQ(1u, NSFault::GetCallCount(NSFault::EOp::Flush));
  NSPlatform::SleepMs(300);
  EXPECT_EQ(1u, NSFault::GetCallCount(NSFault::EOp::Flush));
#ifndef _WIN32
  // The data file of b's hour is open for synchronous data writes.
  bool bFound = false;
  std::vector<NSPlatform::SDirEntry> vFds;
  NSPlatform::ListDir(KV_W("/proc/self/fd"), &vFds);
  for (const auto& fd : vFds) {
    char szLink[4096] = {};
    const std::string strFd = "/proc/self/fd/" + NSPlatform::WideToUtf8(fd.strName);
    const ssize_t n = readlink(strFd.c_str(), szLink, sizeof(szLink) - 1);
    if (n <= 0 || std::string(szLink, n) != NSPlatform::WideToUtf8(HourDir("b", 6)) + "/data.al") continue;
    std::ifstream info("/proc/self/fdinfo/" + NSPlatform::WideToUtf8(fd.strName));
    const std::string strInfo((std::istreambuf_iterator<char>(info)), std::istreambuf_iterator<char>());
    const size_t nFlags = strInfo.find("flags:");
    ASSERT_NE(std::string::npos, nFlags);
    const unsigned long ulFlags = std::strtoul(strInfo.c_str() + nFlags + 6, nullptr, 8);
    EXPECT_NE(0u, ulFlags & 010000u) << "O_DSYNC";
    bFound = true;
  }
  EXPECT_TRUE(bFound);
#endif
}

// The disk fills under a recorder whose archive keeps a free-space limit. The failed write wakes the
// worker, whose pass deletes the oldest hours at once instead of at its next period (30 s away), and
// the recorder goes on: it loses only the frames refused while the pass ran. The volume is the
// seam's: writes fail and no space is free until the engine deletes an hour, as a real full disk
// behaves.
TEST_F(RetentionTest, RecordingGoesOnWhenTheDiskFills) {
  auto pCam = Writer("cam");
  NSFault::OverrideFreeSpace(1ull << 40);
  SetQuota(64 * 1048576ull, 0);
  const std::string strFrame(10000, 'f');
  for (WORD h = 0; h < 6; ++h)
    for (WORD m = 0; m < 60; m += 10) ASSERT_EQ(S_OK, WriteFrame(pCam, Ft(2021, 1, 1, h, m), 1, {strFrame}));
  m_pObject->SizeAndQuotaPass();
  ASSERT_TRUE(Has("cam", 0));

  NSTest::CLogCapture capture;
  // From 05:50 on the recorder offers a frame every ten seconds of recording time.
  std::vector<int> vAcknowledged, vRefused;
  bool bFull = false;
  for (int n = 0; n < 400 && vAcknowledged.size() < 20; ++n) {
    const FILETIME ft = Plus(Ft(2021, 1, 1, 5, 50), static_cast<LONGLONG>(n) * 10000000);
    if (n == 10) {
      NSFault::Arm({NSFault::EOp::Write, 1, ERROR_DISK_FULL, true, -1, W("cam")});
      NSFault::OverrideFreeSpace(0);
      bFull = true;
    }
    // Space comes back when the engine deleted an hour.
    if (bFull && !Has("cam", 0)) {
      NSFault::Disarm(NSFault::EOp::Write);
      NSFault::OverrideFreeSpace(1ull << 40);
      bFull = false;
    }
    const HRESULT hr = WriteFrame(pCam, ft, 1, {strFrame});
    if (hr == S_OK) {
      if (n >= 10) vAcknowledged.push_back(n);
    } else {
      ASSERT_EQ(khrDiskFull, hr);
      ASSERT_TRUE(vAcknowledged.empty()) << "refused after recording resumed";
      vRefused.push_back(n);
      // The recorder drops the frame and goes on with the next, a few milliseconds later; the pass
      // must come well before the worker's period would have run it.
      NSPlatform::SleepMs(50);
    }
  }
  ASSERT_FALSE(vRefused.empty());
  ASSERT_EQ(20u, vAcknowledged.size()) << "recording did not resume";
  for (int i = 0; i < 1000 && Has("cam", 4); ++i) NSPlatform::SleepMs(10);  // the pass ends
  // Every hour but the open one went, the oldest first.
  std::vector<WString> vRemoved;
  for (const WString& s : Texts(capture, "message"))
    if (s.rfind(W("Removing old hour: "), 0) == 0) vRemoved.push_back(s);
  ASSERT_EQ(5u, vRemoved.size());
  for (WORD h = 0; h < 5; ++h) {
    EXPECT_EQ(W("Removing old hour: ") + HourDir("cam", h) + W("\n"), vRemoved[h]);
    EXPECT_FALSE(Has("cam", h));
  }
  // Nothing acknowledged is lost: the frames of the open hour from before the disk filled, and
  // those after; the refused ones are not there.
  for (WORD m = 0; m < 60; m += 10) EXPECT_EQ(std::vector<std::string>{strFrame}, ReadFrame(pCam, Ft(2021, 1, 1, 5, m), 1));
  for (int n : vAcknowledged)
    EXPECT_EQ(std::vector<std::string>{strFrame}, ReadFrame(pCam, Plus(Ft(2021, 1, 1, 5, 50), n * 10000000ll), 1));
  DWORD dwFlags = 0;
  SFrameBuffer buffer = {};
  for (int n : vRefused)
    EXPECT_EQ(khrNotFound, pCam->Read(Plus(Ft(2021, 1, 1, 5, 50), n * 10000000ll), &dwFlags, &buffer, 0));
}

// A buffered archive learns of the full disk from its flusher, and wakes the worker the same way.
TEST_F(RetentionTest, AFlusherThatMeetsAFullDiskWakesTheWorker) {
  ASSERT_EQ(S_OK, m_pArchive->SetFlushTimeout(20));
  auto pCam = Writer("cam");
  NSFault::OverrideFreeSpace(1ull << 40);
  SetQuota(64 * 1048576ull, 0);
  for (WORD h = 0; h < 3; ++h) ASSERT_EQ(S_OK, WriteFrame(pCam, Ft(2021, 1, 1, h), 1, {"buffered"}));
  NSFault::OverrideFreeSpace(0);
  NSFault::Arm({NSFault::EOp::Flush, 1, ERROR_DISK_FULL, true, -1, W("cam")});
  ASSERT_EQ(S_OK, WriteFrame(pCam, Ft(2021, 1, 1, 2, 1), 1, {"buffered"}));
  for (int i = 0; i < 1000 && (Has("cam", 0) || Has("cam", 1)); ++i) NSPlatform::SleepMs(10);
  EXPECT_FALSE(Has("cam", 0));
  EXPECT_FALSE(Has("cam", 1));
  EXPECT_TRUE(Has("cam", 2));
  ASSERT_EQ(S_OK, m_pArchive->SetFlushTimeout(0));
}

#ifndef _WIN32
// The same story on a real volume that fills: the failed append comes from the file system itself
// (ENOSPC in the middle of a frame, or while a new hour is made), and the hour it failed in must
// take later frames as if nothing happened.
TEST(DiskFullTest, RecordingGoesOnWhenARealVolumeFills) {
  NSTest::CTempDir dir;
  NSTest::CSmallVolume volume(dir.Sub(KV_W("volume")), 24);
  if (!volume.IsMounted()) GTEST_SKIP() << "this process may not mount a small file system";
  NSCom::CComObject<CArchiveImpl>* p = nullptr;
  ASSERT_EQ(S_OK, NSCom::CComObject<CArchiveImpl>::CreateInstance(&p));
  NSCom::CComPtr<IKronvale> pArchive(p);
  ASSERT_EQ(S_OK, p->Create(dir.Sub(Native("volume/arc"))));
  const SArchiveQuota quota = {4 * 1048576ull, 0, 0, 0};
  ASSERT_EQ(S_OK, Query<IKronvaleQuota>(pArchive, IID_IKronvaleQuota)->SetArchiveQuota(&quota));
  NSCom::CComPtr<IRecord> pCam;
  ASSERT_EQ(S_OK, pArchive->CreateRecord(NSCom::CComBSTR(KV_W("cam")), &pCam));

  // 100 kB a minute of recording time: about 6 MB an hour, so the volume fills in the fourth hour.
  std::vector<FILETIME> vAcknowledged;
  int cRefused = 0, cAfter = 0;
  for (int n = 0; n < 3000 && cAfter < 100; ++n) {
    const FILETIME ft = Plus(Ft(2021, 1, 1, 0), static_cast<LONGLONG>(n) * 600000000);
    const std::string strFrame(100000, static_cast<char>('a' + n % 26));
    const HRESULT hr = WriteFrame(pCam, ft, 1, {strFrame});
    if (hr == S_OK) {
      vAcknowledged.push_back(ft);
      cAfter += cRefused > 0;
    } else {
      ASSERT_TRUE(hr == khrDiskFull || hr == static_cast<HRESULT>(0x80070027)) << std::hex << hr;
      ASSERT_EQ(0, cAfter) << "refused after recording resumed";
      ++cRefused;
      NSPlatform::SleepMs(20);
    }
  }
  ASSERT_GT(cRefused, 0) << "the volume never filled";
  ASSERT_EQ(100, cAfter) << "recording did not resume";
  // The oldest hours went; every acknowledged frame of the hours left reads back whole.
  EXPECT_FALSE(NSPlatform::IsDirectory(dir.Sub(Native("volume/arc/cam/2021/01/01/00")).c_str()));
  size_t cChecked = 0;
  for (size_t i = 0; i < vAcknowledged.size(); ++i) {
    const ULONGLONG n = (U(vAcknowledged[i]) - U(Ft(2021, 1, 1, 0))) / 600000000;
    const char szHour[] = {static_cast<char>('0' + n / 60 / 10), static_cast<char>('0' + n / 60 % 10), 0};
    if (!NSPlatform::IsDirectory(dir.Sub(Native(("volume/arc/cam/2021/01/01/" + std::string(szHour)).c_str())).c_str()))
      continue;
    ++cChecked;
    EXPECT_EQ(std::vector<std::string>{std::string(100000, static_cast<char>('a' + n % 26))},
              ReadFrame(pCam, vAcknowledged[i], 1))
        << Show(vAcknowledged[i]);
  }
  EXPECT_GE(cChecked, 100u);
  pCam.Release();
  pArchive->Free();
}
#endif

}  // namespace

namespace {

// Archives let go while their flusher and a pass hold their last records: whichever thread drops
// the last reference (the flusher itself, often) takes the archive down cleanly.
TEST(ArchiveLifetimeTest, ReleasedWhileItsThreadsWork) {
  NSTest::CTempDir dir;
  for (int i = 0; i < 40; ++i) {
    NSCom::CComObject<CArchiveImpl>* p = nullptr;
    ASSERT_EQ(S_OK, NSCom::CComObject<CArchiveImpl>::CreateInstance(&p));
    NSCom::CComPtr<IKronvale> pArchive(p);
    ASSERT_EQ(S_OK, p->Create(dir.Sub(W(("a" + std::to_string(i)).c_str()))));
    ASSERT_EQ(S_OK, pArchive->SetFlushTimeout(1));
    NSCom::CComPtr<IRecord> pRecord;
    ASSERT_EQ(S_OK, pArchive->CreateRecord(NSCom::CComBSTR(KV_W("r")), &pRecord));
    ASSERT_EQ(S_OK, WriteFrame(pRecord, Ft(2021, 1, 1, 1), 1, {"x"}));
    std::thread pass([p, pHold = NSCom::CComPtr<IKronvale>(pArchive)]() mutable {
      p->SizeAndQuotaPass();
      pHold.Release();
    });
    NSPlatform::SleepMs(static_cast<DWORD>(i % 3));
    pArchive->Free();
    pRecord.Release();
    pArchive.Release();
    pass.join();
  }
}

}  // namespace
