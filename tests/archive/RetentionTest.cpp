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

#include "archive/ArchiveImpl.h"
#include "records/RecordTestSupport.h"

using namespace NKvRecordTest;
using NSArchive::CArchiveImpl;
namespace NFault = NSPlatform::NFault;

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
    NFault::Reset();
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

  NKvTest::CTempDir m_dir;
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
  NSPlatform::NFault::SRule rule;
  rule.eOp = NFault::EOp::Directory;
  rule.dwError = ERROR_ACCESS_DENIED;
  rule.bSticky = true;
  rule.strPathContains = Native("c/2021/01/01/05");
  NFault::Arm(rule);
  SetQuota(0, 0, 1);
  m_pObject->CheckQuota();
  NFault::Reset();
  EXPECT_FALSE(Has("a", 3));
  EXPECT_TRUE(Has("b", 0));
  EXPECT_FALSE(Has("b", 1));
  EXPECT_TRUE(Has("c", 5));
  EXPECT_TRUE(Logged(capture, "warning",
                     W("Failed to delete hour '") + HourDir("c", 5) + W("' (0x80004005)\n")));
  EXPECT_TRUE(Logged(capture, "warning",
                     W("Per record hour count limit of 1 hours was exceeded for record '") + m_dir.Sub(Native("arc/c")) +
                         W("' currently containig 2 hours\n")));
  // Free space alone, the volume made nearly full through the platform seam: everything but the
  // open hours goes.
  NFault::OverrideFreeSpace(1000);
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
  NFault::Reset();
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
  EXPECT_GT(NFault::GetCallCount(NFault::EOp::Flush), 0u);
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
  NFault::Reset();
  ASSERT_EQ(S_OK, WriteFrame(pA, Ft(2021, 1, 1, 5, 1), 1, {"buffered"}));
  // Data, index and hash file: three flushes per round; allow a generous wait on a loaded machine.
  for (int i = 0; i < 500 && NFault::GetCallCount(NFault::EOp::Flush) < 3; ++i) NSPlatform::SleepMs(10);
  EXPECT_GE(NFault::GetCallCount(NFault::EOp::Flush), 3u);
  // Nothing new, nothing flushed.
  NSPlatform::SleepMs(50);
  const unsigned cFlushes = NFault::GetCallCount(NFault::EOp::Flush);
  NSPlatform::SleepMs(300);
  EXPECT_EQ(cFlushes, NFault::GetCallCount(NFault::EOp::Flush));

  // Written through: no flusher at all.
  ASSERT_EQ(S_OK, m_pArchive->SetFlushTimeout(0));
  auto pB = Writer("b");
  NFault::Reset();
  ASSERT_EQ(S_OK, WriteFrame(pB, Ft(2021, 1, 1, 6), 1, {"through"}));
  NSPlatform::SleepMs(300);
  EXPECT_EQ(0u, NFault::GetCallCount(NFault::EOp::Flush));
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

}  // namespace

namespace {

// Archives let go while their flusher and a pass hold their last records: whichever thread drops
// the last reference (the flusher itself, often) takes the archive down cleanly.
TEST(ArchiveLifetimeTest, ReleasedWhileItsThreadsWork) {
  NKvTest::CTempDir dir;
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
