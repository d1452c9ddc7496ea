// The hour manager on real files: the bytes an open and an append leave, reads into caller and task
// memory, the failures of damaged files with their check texts, and the sibling walk.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>
#include <kronvale/KronvaleResults.h>

#include "com/ComBase.h"
#include "common/LogCapture.h"
#include "common/TempDir.h"
#include "hours/HourManager.h"
#include "platform/os.h"

using namespace NSKronvale;
using namespace NSHours;

namespace {

WString Native(const char* psz) {
  WString str = NSPlatform::Utf8ToWide(psz);
  std::replace(str.begin(), str.end(), WCHAR(u'/'), NSPlatform::chPathSeparator);
  return str;
}

// A time in the test hour, 2021-03-07 12h UTC.
SYSTEMTIME At(WORD wMinute, WORD wSecond, WORD wMs) { return {2021, 3, 0, 7, 12, wMinute, wSecond, wMs}; }

ULONGLONG TimeOf(const SYSTEMTIME& st) {
  FILETIME ft = {};
  NSPlatform::SysTimeToFileTime(&st, &ft);
  return NSPlatform::FileTimeToU64(ft);
}

std::string Le32(DWORD dw) {
  return {static_cast<char>(dw), static_cast<char>(dw >> 8), static_cast<char>(dw >> 16), static_cast<char>(dw >> 24)};
}
std::string Le64(ULONGLONG ull) { return Le32(static_cast<DWORD>(ull)) + Le32(static_cast<DWORD>(ull >> 32)); }

std::string Text(const SHourFrameBuffer& buffer) {
  return std::string(reinterpret_cast<const char*>(buffer.pData), buffer.dwDataSize);
}

std::vector<WString> CheckTexts(const NSTest::CLogCapture& capture) {
  std::vector<WString> v;
  for (const NSTest::SLoggedReport& r : capture.Reports(KV_W("TRASSDO"))) v.push_back(r.strText);
  return v;
}

constexpr SHourFrameFilter kOddFilter = {0x1, 0};  // frames with bit 0 set

struct SFrame {
  SYSTEMTIME st;
  DWORD dwFlags;
  std::vector<std::string> vBuffers;
};

HRESULT Write(CHourManager& hour, const SYSTEMTIME& st, DWORD dwFlags, const std::vector<std::string>& vBuffers) {
  std::vector<SHourFrameBuffer> v;
  for (const std::string& str : vBuffers)
    v.push_back({reinterpret_cast<BYTE*>(const_cast<char*>(str.data())), static_cast<DWORD>(str.size())});
  return hour.Write(st, dwFlags, v.data(), static_cast<DWORD>(v.size()));
}

// The first buffer of the frame in st's slot, or "hr=<value>" when the read fails.
std::string ReadOne(CHourManager& hour, const SYSTEMTIME& st) {
  SHourFrameBuffer buffer = {};
  const HRESULT hr = hour.Read(st, nullptr, &buffer, 1);
  if (FAILED(hr)) return "hr=" + std::to_string(static_cast<DWORD>(hr));
  std::string str = Text(buffer);
  CoTaskMemFree(buffer.pData);
  return str;
}

class CProgressLog final : public IProgress {
 public:
  void SetPercent(BYTE byPercent) override { vPercents.push_back(byPercent); }
  bool IsStopped() override { return false; }
  std::vector<int> vPercents;
};

}  // namespace

class HourTest : public ::testing::Test {
 protected:
  void TearDown() override { NSPlatform::NSFault::Reset(); }

 public:
  WString HourPath() const { return m_dir.Sub(Native("rec/2021/03/07/12")); }
  WString FilePath(const WCHAR* pszName) const { return NSPlatform::CombinePath(HourPath(), pszName); }
  std::string FileBytes(const WCHAR* pszName) const {
    std::string str;
    EXPECT_EQ(NSTest::ReadFileBytes(FilePath(pszName), &str), S_OK);
    return str;
  }
  void Put(const WCHAR* pszName, const std::string& s) {
    ASSERT_EQ(NSTest::WriteFileBytes(FilePath(pszName), s), S_OK);
  }
  // Overwrites bytes at an offset, extending the file when they reach past its end.
  void Patch(const WCHAR* pszName, size_t cbOffset, const std::string& strBytes) {
    std::string str = FileBytes(pszName);
    if (str.size() < cbOffset + strBytes.size()) str.resize(cbOffset + strBytes.size());
    str.replace(cbOffset, strBytes.size(), strBytes);
    Put(pszName, str);
  }
  std::string AllBytes() const {
    return FileBytes(kszDataFileName) + "|" + FileBytes(kszDescriptorFileName) + "|" + FileBytes(kszHashFileName);
  }
  void Cut(const WCHAR* pszName, size_t cbSize) { Put(pszName, FileBytes(pszName).substr(0, cbSize)); }
  void ResetHour() { NSTest::DeleteTree(m_dir.Sub(KV_W("rec"))); }
  void WriteHour(const std::vector<SFrame>& vFrames) {
    CHourManager hour(m_pLock);
    ASSERT_EQ(hour.Open(HourPath(), true, false), S_OK);
    for (const SFrame& f : vFrames) ASSERT_EQ(Write(hour, f.st, f.dwFlags, f.vBuffers), S_OK);
  }

  NSTest::CTempDir m_dir;
  NSSystem::ILockPtr m_pLock = std::make_shared<NSSystem::SLock>();
};

TEST_F(HourTest, AFreshHourHasItsThreeFilesAndClosesWithItsReports) {
  CHourManager hour(m_pLock);
  ASSERT_EQ(hour.Open(HourPath(), true, false), S_OK);
  EXPECT_EQ(FileBytes(kszDataFileName), "");
  EXPECT_EQ(FileBytes(kszDescriptorFileName), std::string(16, '\0'));
  EXPECT_EQ(FileBytes(kszHashFileName), std::string(sizeof(SHashFile), '\0'));
  EXPECT_EQ(hour.GetFullSizeIfOpen(), 16u + sizeof(SHashFile));
  EXPECT_EQ(hour.GetFrameCount(), 0u);

  NSTest::CLogCapture capture;
  hour.Close();
  hour.Close();  // nothing left to close: no reports
  const std::vector<NSTest::SLoggedReport> vReports = capture.Reports();
  const WCHAR* vszTexts[] = {KV_W("Flushing files for hour "), KV_W("Closing descriptor file for hour "),
                             KV_W("Closing data file for hour "), KV_W("Closing hash file mapping for hour ")};
  ASSERT_EQ(vReports.size(), 4u);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(vReports[i].strText, vszTexts[i] + HourPath() + KV_W("\n"));
    EXPECT_EQ(vReports[i].strCategory, KV_W("message"));
    EXPECT_EQ(vReports[i].strFunction, "CHourManager::Close");
  }
  NSTest::CLogCapture checks;
  EXPECT_EQ(hour.GetFullSizeIfOpen(), 0u);
  EXPECT_EQ(CheckTexts(checks), std::vector<WString>{KV_W("m_hFile && INVALID_HANDLE_VALUE!=m_hFile\n")});
}

TEST_F(HourTest, OpeningWithoutCreateFindsOrRefusesTheHour) {
  CHourManager hour(m_pLock);
  EXPECT_EQ(hour.Open(HourPath(), false, false), static_cast<HRESULT>(0x80070002));
  EXPECT_FALSE(NSPlatform::PathExists(HourPath().c_str()));

  WriteHour({{At(1, 2, 30), 0x3, {"abc"}}});
  const std::string strBefore = AllBytes();
  ASSERT_EQ(hour.Open(HourPath(), false, true), S_OK);
  EXPECT_EQ(ReadOne(hour, At(1, 2, 30)), "abc");
  hour.Close();
  EXPECT_TRUE(AllBytes() == strBefore);

  // A hash file of any other size is refused, with the size it has.
  Put(kszHashFileName, std::string(sizeof(SHashFile) - 1, '\0'));
  NSTest::CLogCapture capture;
  EXPECT_EQ(hour.Open(HourPath(), false, false), khrFileCorrupt);
  hour.Close();
  const std::vector<NSTest::SLoggedReport> vChecks = capture.Reports(KV_W("TRASSDO"));
  ASSERT_FALSE(vChecks.empty());
  EXPECT_EQ(vChecks[0].strText, KV_W("GetFileSize(hHash, NULL)1548607)==sizeof(SHashFile)\n"));
  EXPECT_EQ(vChecks[0].strFunction, "CHourManager::OpenHash");
  EXPECT_EQ(vChecks[0].strFile, "HourManager.cpp");

  // A repair (perhaps in another process) has deleted the index files and is about to make them
  // anew: an open without create makes nothing, since an empty hash file left there would make the
  // repair's own open fail and its first read answer 0x80070570.
  for (const WCHAR* pszName : {kszHashFileName, kszDescriptorFileName, kszDataFileName}) {
    SCOPED_TRACE(NSPlatform::WideToUtf8(pszName));
    ResetHour();
    WriteHour({{At(1, 2, 30), 0x3, {"abc"}}});
    ASSERT_EQ(NSPlatform::RemoveFile(FilePath(pszName).c_str()), S_OK);
    EXPECT_EQ(hour.Open(HourPath(), false, false), static_cast<HRESULT>(0x80070002));
    hour.Close();
    EXPECT_FALSE(NSPlatform::PathExists(FilePath(pszName).c_str()));
  }
}

TEST_F(HourTest, AFrameOfTwoBuffersLandsByteExact) {
  const SYSTEMTIME st = At(34, 56, 789);
  WriteHour({{st, 0x80000005u, {"hello", ""}}});
  FILETIME ft;
  ASSERT_TRUE(NSPlatform::SysTimeToFileTime(&st, &ft));
  const std::string strData = Le64(SFrameHeader::MakeSignature()) + Le64(NSPlatform::FileTimeToU64(ft)) +
                              Le32(0x80000005u) + Le32(2) + Le32(13) + Le32(5) + "hello" + Le32(0);
  ASSERT_EQ(strData.size(), 41u);
  EXPECT_EQ(FileBytes(kszDataFileName), strData);
  EXPECT_EQ(FileBytes(kszDescriptorFileName), std::string(16, '\0') + Le32(0x80000005u) + Le64(0) + Le32(41));

  const std::string strHash = FileBytes(kszHashFileName);
  ASSERT_EQ(strHash.size(), sizeof(SHashFile));
  EXPECT_EQ(strHash.substr(629034, 3), std::string("\x01\x00\x00", 3));
  // Bits 0, 2 and 31 counted once at hour, minute 34 and second 34:56; nothing else is set.
  std::string strExpected(sizeof(SHashFile), '\0');
  strExpected[629034] = 1;
  for (size_t cbBase : {size_t{1080000}, size_t{MinuteCountersOffset(34)}, size_t{SecondCountersOffset(34, 56)}}) {
    for (size_t b : {0, 2, 31}) strExpected[cbBase + 4 * b] = 1;
  }
  EXPECT_TRUE(strHash == strExpected);
}

// Reads and checks between appends leave the appends where they belong (a positional read moves
// the file position on Windows), in the same open and after reopening the hour.
TEST_F(HourTest, ReadsBetweenAppendsDoNotMoveThem) {
  CHourManager hour(m_pLock);
  ASSERT_EQ(hour.Open(HourPath(), true, false), S_OK);
  ASSERT_EQ(Write(hour, At(0, 0, 0), 1, {"first frame"}), S_OK);
  hour.Refresh();
  EXPECT_EQ(ReadOne(hour, At(0, 0, 0)), "first frame");
  ASSERT_EQ(Write(hour, At(0, 0, 10), 2, {"second"}), S_OK);
  hour.Close();
  ASSERT_EQ(hour.Open(HourPath(), true, false), S_OK);
  EXPECT_FALSE(hour.IsCorrupted());
  ASSERT_EQ(Write(hour, At(0, 0, 20), 4, {"third"}), S_OK);
  hour.Refresh();
  EXPECT_FALSE(hour.IsCorrupted());
  EXPECT_EQ(ReadOne(hour, At(0, 0, 0)), "first frame");
  EXPECT_EQ(ReadOne(hour, At(0, 0, 10)), "second");
  EXPECT_EQ(ReadOne(hour, At(0, 0, 20)), "third");
  EXPECT_EQ(FileBytes(kszDataFileName).size(), 3 * 32u + 11 + 6 + 5);
}

TEST_F(HourTest, SlotsAreTenMillisecondsAndTheLaterFrameWins) {
  WriteHour({{At(0, 0, 1), 0x1, {"first"}}, {At(0, 0, 9), 0x2, {"second"}}, {At(59, 59, 995), 0x4, {"last"}}});
  EXPECT_EQ(FileBytes(kszDescriptorFileName).size(), 64u);  // every frame has its entry
  EXPECT_EQ(FileBytes(kszHashFileName).substr(3 * 359999, 3), std::string("\x03\x00\x00", 3));
  CHourManager hour(m_pLock);
  ASSERT_EQ(hour.Open(HourPath(), false, false), S_OK);
  // The first frame is not reachable by time: its own time reads the second.
  EXPECT_EQ(ReadOne(hour, At(0, 0, 1)), "second");
  EXPECT_EQ(ReadOne(hour, At(59, 59, 990)), "last");
  EXPECT_EQ(hour.Read(At(0, 0, 10), nullptr, nullptr, 0), khrNotFound);
}

TEST_F(HourTest, ReadsIntoCallerMemoryTaskMemoryAndOneCarvedBlock) {
  WriteHour({{At(5, 0, 0), 0x9, {"hello", "abc"}}});
  CHourManager hour(m_pLock);
  ASSERT_EQ(hour.Open(HourPath(), false, false), S_OK);
  const SYSTEMTIME st = At(5, 0, 0);

  // Count 0 never touches data.al (every read of it would fail).
  NSPlatform::NSFault::Arm({NSPlatform::NSFault::EOp::Read, 1, ERROR_READ_FAULT, true, -1, KV_W("data.al")});
  DWORD dwFlags = 0;
  EXPECT_EQ(hour.Read(st, nullptr, nullptr, 0), S_FALSE);
  EXPECT_EQ(hour.Read(st, &dwFlags, nullptr, 0), S_FALSE);
  EXPECT_EQ(dwFlags, 0x9u);
  NSPlatform::NSFault::Reset();

  // Task memory for null pointers; the caller frees it.
  SHourFrameBuffer v[3] = {};
  EXPECT_EQ(hour.Read(st, &dwFlags, v, 2), S_OK);
  EXPECT_EQ(Text(v[0]), "hello");
  EXPECT_EQ(Text(v[1]), "abc");
  for (SHourFrameBuffer& b : v) CoTaskMemFree(b.pData);

  // Fewer buffers than the frame has: the first only. More: refused.
  BYTE block[64] = {};
  v[0] = {block, 5};
  EXPECT_EQ(hour.Read(st, nullptr, v, 1), S_OK);
  EXPECT_EQ(Text(v[0]), "hello");
  {
    NSTest::CLogCapture capture;
    EXPECT_EQ(hour.Read(st, nullptr, v, 3), khrInsufficientBuffer);
    EXPECT_EQ(CheckTexts(capture), std::vector<WString>{KV_W("dwCount<=oFrameHeader.dwCount\n")});
  }
  // A capacity below the stored size is refused; the size is never grown past the capacity.
  v[0] = {block, 4};
  EXPECT_EQ(hour.Read(st, nullptr, v, 1), khrInsufficientBuffer);
  EXPECT_EQ(v[0].dwDataSize, 4u);

  // One block: the second buffer is placed after the first and a gap of its own dwDataSize.
  v[0] = {block, sizeof(block)};
  v[1] = {nullptr, 3};
  EXPECT_EQ(hour.Read(st, &dwFlags, v, 2), S_OK);
  EXPECT_EQ(v[1].pData, block + 5 + 3);
  EXPECT_EQ(Text(v[1]), "abc");
  EXPECT_EQ(std::string(reinterpret_cast<char*>(block), 11), std::string("hello\0\0\0abc", 11));
  // A gap of 0xFFFFFFFF asks for task memory instead.
  v[0] = {block, sizeof(block)};
  v[1] = {nullptr, 0xFFFFFFFFu};
  EXPECT_EQ(hour.Read(st, &dwFlags, v, 2), S_OK);
  EXPECT_TRUE(v[1].pData < block || v[1].pData >= block + sizeof(block));
  EXPECT_EQ(Text(v[1]), "abc");
  CoTaskMemFree(v[1].pData);
}

// Damaged files: each answers a clear HRESULT with its check text, never a crash.
TEST_F(HourTest, DamagedFilesGiveClearResults) {
  struct SCase {
    const char* pszName;
    std::function<void(HourTest&)> fnDamage;
    HRESULT hrRead;
    WString strCheck;  // the start of the first check the read reports
  };
  const WString strTorn = KV_W("SUCCEEDED(hr-2147024866:'");  // a short read, 0x8007001E
  const SCase vCases[] = {
      {"signature", [](HourTest& t) { t.Patch(kszDataFileName, 0, "X"); }, khrFileCorrupt,
       KV_W("SFrameHeader::MakeSignature()==oFrameHeader.ullSignature\n")},
      {"flags", [](HourTest& t) { t.Patch(kszDataFileName, 16, "\x07"); }, khrFileCorrupt,
       KV_W("oFrameHeader.dwFlags==oFrameInfo.dwFlags\n")},
      {"count", [](HourTest& t) { t.Patch(kszDataFileName, 20, "\x01"); }, khrInsufficientBuffer,
       KV_W("dwCount<=oFrameHeader.dwCount\n")},
      {"full size", [](HourTest& t) { t.Patch(kszDataFileName, 24, std::string("\x0B\0\0\0", 4)); }, khrFileCorrupt,
       KV_W("(dwReadTotal+sizeof(DWORD))<=oFrameHeader.dwFullSize\n")},
      {"buffer size", [](HourTest& t) { t.Patch(kszDataFileName, 28, std::string("\xF0\xFF\xFF\xFF", 4)); }, khrFileCorrupt,
       KV_W("(dwReadTotal+pBuff->dwDataSize)<=oFrameHeader.dwFullSize\n")},
      {"offset beyond data.al", [](HourTest& t) { t.Patch(kszDescriptorFileName, 20, "\x7F"); }, khrReadFault, strTorn},
      {"data.al cut", [](HourTest& t) { t.Cut(kszDataFileName, 40); }, khrReadFault, strTorn},
      {"index beyond descriptor.ald", [](HourTest& t) { t.Cut(kszDescriptorFileName, 16); }, khrReadFault, strTorn},
  };
  for (const SCase& c : vCases) {
    SCOPED_TRACE(c.pszName);
    ResetHour();
    WriteHour({{At(7, 7, 70), 0x1, {"hello", "abc"}}});
    c.fnDamage(*this);
    CHourManager hour(m_pLock);
    ASSERT_EQ(hour.Open(HourPath(), false, false), S_OK);
    NSTest::CLogCapture capture;
    SHourFrameBuffer v[2] = {};
    EXPECT_EQ(hour.Read(At(7, 7, 70), nullptr, v, 2), c.hrRead);
    EXPECT_EQ(v[0].pData, nullptr);  // nothing allocated is left behind
    const std::vector<WString> vChecks = CheckTexts(capture);
    ASSERT_FALSE(vChecks.empty());
    EXPECT_EQ(vChecks[0].substr(0, c.strCheck.size()), c.strCheck);
  }

  // A descriptor whose size is not a multiple of 16: the entry is appended, the frame gets no slot.
  ResetHour();
  WriteHour({{At(0, 0, 0), 0x1, {"a"}}});
  Patch(kszDescriptorFileName, 32, "\x01");
  CHourManager hour(m_pLock);
  ASSERT_EQ(hour.Open(HourPath(), true, false), S_OK);
  NSTest::CLogCapture capture;
  EXPECT_EQ(Write(hour, At(0, 0, 10), 0x1, {"b"}), E_UNEXPECTED);
  EXPECT_EQ(CheckTexts(capture), (std::vector<WString>{KV_W("!(dwFileSize % sizeof(SFrameInfo))\n"),
                                                       KV_W("-1!=uFrameInfoUnion.dwIndex\n")}));
  hour.Close();
  EXPECT_EQ(FileBytes(kszDescriptorFileName).size(), 49u);
  EXPECT_EQ(FileBytes(kszHashFileName).substr(3, 3), std::string(3, '\0'));
}

// Minute 1 holds 0x6 and 0x1 (mask 0x7), minute 2 holds 0x6, minute 3 holds 0x2.
class HourWalkTest : public HourTest {
 protected:
  void SetUp() override {
    WriteHour({{At(1, 10, 500), 0x6, {"a"}},
               {At(1, 20, 0), 0x1, {"b"}},
               {At(2, 30, 250), 0x6, {"c"}},
               {At(3, 0, 0), 0x2, {"d"}}});
  }
};

TEST_F(HourWalkTest, SiblingsAcrossMinutesWithAndWithoutFilters) {
  constexpr ULONGLONG kullNone = 0;
  struct SCase {
    SYSTEMTIME st;
    std::optional<SHourFrameFilter> filter;
    bool bIncludeStart;
    bool bForward;
    ULONGLONG ullFound;  // kullNone: not in this hour
  } const vCases[] = {
      {At(0, 0, 0), {}, true, true, TimeOf(At(1, 10, 500))},
      {At(1, 10, 505), {}, true, true, TimeOf(At(1, 10, 500))},  // the start slot itself
      {At(1, 10, 500), {}, false, true, TimeOf(At(1, 20, 0))},
      {At(2, 0, 0), {}, false, false, TimeOf(At(1, 20, 0))},
      {At(59, 59, 990), {}, true, false, TimeOf(At(3, 0, 0))},
      {At(3, 0, 0), {}, false, true, kullNone},  // the end of the hour
      {At(1, 0, 0), {}, true, false, kullNone},
      {At(0, 0, 0), SHourFrameFilter{0x6, 0}, true, true, TimeOf(At(1, 10, 500))},
      {At(0, 0, 0), SHourFrameFilter{0x1, 0}, true, true, TimeOf(At(1, 20, 0))},
      // Minute 1 has mask 0x7: {0x6, exact} skips it whole, frame 0x6 included.
      {At(0, 0, 0), SHourFrameFilter{0x6, 2}, true, true, TimeOf(At(2, 30, 250))},
      {At(2, 30, 250), SHourFrameFilter{0x6, 2}, false, false, kullNone},
      {At(59, 0, 0), SHourFrameFilter{0x4, 1}, true, false, TimeOf(At(2, 30, 250))},
      {At(0, 0, 0), SHourFrameFilter{0x4, 3}, true, true, TimeOf(At(3, 0, 0))},  // none: minute 1 has 0x4
      {At(0, 0, 0), SHourFrameFilter{0x8, 0}, true, true, kullNone},
  };
  CHourManager hour(m_pLock);
  ASSERT_EQ(hour.Open(HourPath(), false, false), S_OK);
  for (size_t i = 0; i < std::size(vCases); ++i) {
    SCOPED_TRACE(i);
    const SCase& c = vCases[i];
    FILETIME ft = {};
    const HRESULT hr = hour.GetSibling(c.st, c.filter ? &*c.filter : nullptr, &ft, c.bIncludeStart, c.bForward);
    EXPECT_EQ(hr, c.ullFound == kullNone ? khrNotFound : S_OK);
    EXPECT_EQ(NSPlatform::FileTimeToU64(ft), c.ullFound);  // untouched when not found
  }
}

// A sparse hour is searched a block of empty slots at a time: frames on each side of a block's and
// of a page's edge (slots whose three bytes straddle one), in the first and in the last slot, are all
// found, in order, walking either way, and the statistics see the first and the last.
TEST_F(HourTest, ASparseHourIsWalkedFrameByFrameBothWaysAcrossBlockEdges) {
  const std::vector<DWORD> vSlots = {0, 1364, 1365, 1366, 2730, 2731, 43690, 43691, 87381, 200000, 359998, 359999};
  auto at = [](DWORD dwSlot) {
    SYSTEMTIME st = At(0, 0, 0);
    SlotToSystemTime(dwSlot, &st);
    return st;
  };
  std::vector<SFrame> vFrames;
  for (DWORD dwSlot : vSlots) vFrames.push_back({at(dwSlot), 0x1, {std::to_string(dwSlot)}});
  WriteHour(vFrames);

  CHourManager hour(m_pLock);
  ASSERT_EQ(hour.Open(HourPath(), false, false), S_OK);
  for (const SHourFrameFilter* pFilter : {static_cast<const SHourFrameFilter*>(nullptr), &kOddFilter}) {
    for (const bool bForward : {true, false}) {
      SCOPED_TRACE(std::string(pFilter ? "filtered " : "") + (bForward ? "forward" : "backward"));
      std::vector<DWORD> vFound;
      SYSTEMTIME st = bForward ? At(0, 0, 0) : At(59, 59, 990);
      bool bInclude = true;
      FILETIME ft;
      while (SUCCEEDED(hour.GetSibling(st, pFilter, &ft, bInclude, bForward))) {
        const DWORD dwSlot = static_cast<DWORD>((NSPlatform::FileTimeToU64(ft) - TimeOf(At(0, 0, 0))) / kullTicksPerSlot);
        vFound.push_back(dwSlot);
        EXPECT_EQ(ReadOne(hour, at(dwSlot)), std::to_string(dwSlot));
        st = at(dwSlot);
        bInclude = false;
      }
      std::vector<DWORD> vExpected = vSlots;
      if (!bForward) std::reverse(vExpected.begin(), vExpected.end());
      EXPECT_EQ(vFound, vExpected);
    }
  }
  SHourStatistic stat = {};
  EXPECT_EQ(hour.GetStatistic(&stat), S_OK);
  EXPECT_EQ(NSPlatform::FileTimeToU64(stat.ftBegin), TimeOf(at(0)));
  EXPECT_EQ(NSPlatform::FileTimeToU64(stat.ftEnd), TimeOf(at(359999)));
}

TEST_F(HourWalkTest, StatisticsRefreshTheReadersCopyAndFlagMasksAnswerPerLevel) {
  CHourManager hour(m_pLock);
  ASSERT_EQ(hour.Open(HourPath(), true, false), S_OK);
  EXPECT_EQ(hour.GetFlagMask(eflSecond, At(1, 10, 0)), 0x6u);
  EXPECT_EQ(hour.GetFlagMask(eflMinute, At(1, 59, 0)), 0x7u);
  EXPECT_EQ(hour.GetFlagMask(eflSecond, At(1, 11, 0)), 0u);
  EXPECT_EQ(hour.GetFlagMask(eflHour, At(0, 0, 0)), 0x7u);
  EXPECT_THROW(hour.GetFlagMask(4, At(0, 0, 0)), std::invalid_argument);

  // Readers see a new frame only after a refresh; statistics refresh first.
  ASSERT_EQ(Write(hour, At(4, 0, 10), 0x8, {"e"}), S_OK);
  EXPECT_EQ(ReadOne(hour, At(4, 0, 10)), "hr=" + std::to_string(0x80070490u));
  SHourStatistic stat = {};
  EXPECT_EQ(hour.GetStatistic(&stat), S_OK);
  EXPECT_EQ(NSPlatform::FileTimeToU64(stat.ftBegin), TimeOf(At(1, 10, 500)));
  EXPECT_EQ(NSPlatform::FileTimeToU64(stat.ftEnd), TimeOf(At(4, 0, 10)));
  EXPECT_EQ(stat.ullFrameCount, 5u);
  const DWORD vExpected[kcFlagBits] = {1, 3, 2, 1};
  EXPECT_TRUE(std::equal(std::begin(vExpected), std::end(vExpected), stat.vFlagCounters));
  EXPECT_EQ(ReadOne(hour, At(4, 0, 10)), "e");
  EXPECT_EQ(hour.GetFrameCount(), 5u);

  CHourManager empty(m_pLock);
  ASSERT_EQ(empty.Open(m_dir.Sub(Native("rec/2021/03/07/13")), true, false), S_OK);
  EXPECT_EQ(empty.GetStatistic(&stat), S_FALSE);
  EXPECT_EQ(stat.ullFrameCount, 0u);
}

// What a reader answers about the hour: every frame found walking forward (time, flags, first
// buffer), with and without a filter, the masks of every minute and of the seconds written, and the
// statistics. The walk comes first: GetStatistic refreshes the copy itself.
std::string Answers(CHourManager& hour, const std::vector<SYSTEMTIME>& vWritten) {
  std::string str;
  for (const SHourFrameFilter* pFilter : {static_cast<const SHourFrameFilter*>(nullptr), &kOddFilter}) {
    SYSTEMTIME st = At(0, 0, 0);
    FILETIME ft;
    bool bInclude = true;
    while (SUCCEEDED(hour.GetSibling(st, pFilter, &ft, bInclude, true))) {
      NSPlatform::FileTimeToSysTime(&ft, &st);
      DWORD dwFlags = 0;
      SHourFrameBuffer buffer = {};
      const HRESULT hr = hour.Read(st, &dwFlags, &buffer, 1);
      str += std::to_string(NSPlatform::FileTimeToU64(ft)) + ":" + std::to_string(dwFlags) + ":" +
             (SUCCEEDED(hr) ? Text(buffer) : "hr") + " ";
      CoTaskMemFree(buffer.pData);
      bInclude = false;
    }
    str += "| ";
  }
  for (WORD m = 0; m < 60; ++m) str += std::to_string(hour.GetFlagMask(eflMinute, At(m, 0, 0))) + ",";
  for (const SYSTEMTIME& st : vWritten) str += std::to_string(hour.GetFlagMask(eflSecond, st)) + ",";
  SHourStatistic stat = {};
  hour.GetStatistic(&stat);
  str += "| " + std::to_string(stat.ullFrameCount) + " " + std::to_string(NSPlatform::FileTimeToU64(stat.ftBegin)) +
         " " + std::to_string(NSPlatform::FileTimeToU64(stat.ftEnd));
  for (DWORD c : stat.vFlagCounters) str += " " + std::to_string(c);
  return str;
}

// A reader that follows a live hour, refreshing after each batch of appends (small batches take
// the new frames' slots and counters one by one, large ones the whole copy), answers exactly as a
// reader that opens the hour afresh: later frames winning their slots, flags and counters included.
TEST_F(HourTest, AReaderFollowingAWriterAnswersAsAFreshReader) {
  CHourManager writer(m_pLock);
  ASSERT_EQ(writer.Open(HourPath(), true, true), S_OK);
  CHourManager follower(m_pLock);
  ASSERT_EQ(follower.Open(HourPath(), false, true), S_OK);
  std::vector<SYSTEMTIME> vWritten;
  unsigned nSeed = 7;
  DWORD dwFrame = 0;
  for (int cBatch : {1, 1, 3, 2, 40, 1, 32, 33, 5, 1}) {
    for (int i = 0; i < cBatch; ++i, ++dwFrame) {
      nSeed = nSeed * 1103515245u + 12345u;
      // Slots fall in a few minutes so that later frames often take an earlier frame's slot.
      const SYSTEMTIME st = At(static_cast<WORD>((nSeed >> 8) % 4 * 15), static_cast<WORD>((nSeed >> 12) % 3),
                               static_cast<WORD>((nSeed >> 16) % 4 * 10));
      ASSERT_EQ(Write(writer, st, (nSeed >> 20) & 0x7, {"f" + std::to_string(dwFrame)}), S_OK);
      vWritten.push_back(st);
    }
    SCOPED_TRACE(dwFrame);
    EXPECT_EQ(follower.RefreshIfGrown(), S_OK);
    CHourManager fresh(m_pLock);
    ASSERT_EQ(fresh.Open(HourPath(), false, true), S_OK);
    EXPECT_EQ(Answers(follower, vWritten), Answers(fresh, vWritten));
    EXPECT_EQ(follower.RefreshIfGrown(), S_FALSE);  // nothing new
  }
}

// ---- Crash points, torn files, failed writes and repair ----------------------------------------

class HourRepairTest : public HourTest {
 protected:
  // 35, 40 and 38 bytes at 0, 35 and 75 of data.al.
  const std::vector<SFrame> m_vFrames = {
      {At(0, 0, 0), 0x1, {"one"}}, {At(0, 1, 0), 0x2, {"two", "2"}}, {At(0, 2, 0), 0x3, {"three!"}}};
  const size_t m_vStarts[4] = {0, 35, 75, 113};

  void SetUp() override {
    WriteHour(m_vFrames);
    for (int i = 0; i < 3; ++i) m_vHealthy[i] = FileBytes(m_vNames[i]);
  }
  void Restore() {
    for (int i = 0; i < 3; ++i) Put(m_vNames[i], m_vHealthy[i]);
  }
  // IsCorrupted of the hour as it is on disk, with the reports it made at level "HourService".
  bool IsCorrupted(std::vector<WString>* pvTexts = nullptr) {
    CHourManager hour(m_pLock);
    EXPECT_EQ(hour.Open(HourPath(), false, false), S_OK);
    NSTest::CLogCapture capture;
    const bool bCorrupted = hour.IsCorrupted();
    if (pvTexts) {
      for (const NSTest::SLoggedReport& r : capture.Reports(KV_W("HourService"))) pvTexts->push_back(r.strText);
    }
    return bCorrupted;
  }
  HRESULT Repair(IProgress* pProgress = nullptr) {
    CHourManager hour(m_pLock);
    EXPECT_EQ(hour.Open(HourPath(), false, false), S_OK);
    hour.Close();
    return hour.Repair(pProgress);
  }
  // The first cFrames frames read back with their bytes and flags; the hour lists cListed.
  void ExpectFrames(size_t cFrames, size_t cListed) {
    CHourManager hour(m_pLock);
    ASSERT_EQ(hour.Open(HourPath(), false, false), S_OK);
    EXPECT_EQ(hour.GetFrameCount(), cListed);
    for (size_t i = 0; i < cFrames; ++i) {
      const SFrame& f = m_vFrames[i];
      SHourFrameBuffer v[2] = {};
      DWORD dwFlags = 0;
      ASSERT_EQ(hour.Read(f.st, &dwFlags, v, static_cast<DWORD>(f.vBuffers.size())), S_OK);
      EXPECT_EQ(dwFlags, f.dwFlags);
      for (size_t b = 0; b < f.vBuffers.size(); ++b) EXPECT_EQ(Text(v[b]), f.vBuffers[b]);
      for (SHourFrameBuffer& b : v) CoTaskMemFree(b.pData);
    }
  }
  WString Message(const WCHAR* pszWhat) {
    return KV_W("Hour ") + HourPath() + KV_W(" is corrupted: ") + pszWhat + KV_W("\n");
  }

  const WCHAR* m_vNames[3] = {kszDataFileName, kszDescriptorFileName, kszHashFileName};
  std::string m_vHealthy[3];
};

TEST_F(HourRepairTest, CrashPointsOfTheWriteSequenceAreFoundAndRepaired) {
  EXPECT_FALSE(IsCorrupted());
  const std::string strTwoFramesHash = [&] {
    ResetHour();
    WriteHour({m_vFrames[0], m_vFrames[1]});
    return FileBytes(kszHashFileName);
  }();
  const std::string strNoCounters = m_vHealthy[2].substr(0, 1080000) + strTwoFramesHash.substr(1080000);
  struct SCase {
    const char* pszName;
    std::function<void(HourRepairTest&)> fnCrash;
    const WCHAR* pszMessage;  // null: not detected (the counters are not checked)
    size_t cFrames;           // after the repair
  } const vCases[] = {
      {"after the data", [](HourRepairTest& t) { t.Cut(kszDescriptorFileName, 48); },
       KV_W("Last record must be at the end of file"), 3},
      {"after the entry", [&](HourRepairTest& t) { t.Put(kszHashFileName, strTwoFramesHash); },
       KV_W("last index must be multiple of index file size"), 3},
      {"after the slot", [&](HourRepairTest& t) { t.Put(kszHashFileName, strNoCounters); }, nullptr, 3},
      {"data without any entry", [](HourRepairTest& t) { t.Cut(kszDescriptorFileName, 16); },
       KV_W("descriptor has no indices, but data file is not empty"), 3},
      {"signature", [](HourRepairTest& t) { t.Patch(kszDataFileName, 75, "X"); }, KV_W("invalid signature"), 2},
  };
  for (const SCase& c : vCases) {
    SCOPED_TRACE(c.pszName);
    Restore();
    c.fnCrash(*this);
    std::vector<WString> vTexts;
    EXPECT_EQ(IsCorrupted(&vTexts), c.pszMessage != nullptr);
    EXPECT_EQ(vTexts, c.pszMessage ? std::vector<WString>{Message(c.pszMessage)} : std::vector<WString>{});
    ASSERT_EQ(Repair(), S_OK);
    EXPECT_FALSE(IsCorrupted());
    // Frames in data.al that never reached the descriptor come back, counters included; a bad
    // signature cuts off the rest.
    ExpectFrames(c.cFrames, c.cFrames);
    EXPECT_TRUE(c.cFrames < 3 || FileBytes(kszHashFileName) == m_vHealthy[2]);
  }
}

TEST_F(HourRepairTest, DataCutAtEveryOffsetOfTheLastTwoFramesRepairsToTheCompleteOnes) {
  for (size_t cbCut = m_vStarts[1]; cbCut < m_vStarts[3]; ++cbCut) {
    SCOPED_TRACE(cbCut);
    Restore();
    Cut(kszDataFileName, cbCut);
    std::vector<WString> vTexts;
    EXPECT_TRUE(IsCorrupted(&vTexts));
    EXPECT_EQ(vTexts, std::vector<WString>{Message(KV_W("Last record must be at the end of file"))});
    ASSERT_EQ(Repair(), S_OK);
    const size_t iTorn = cbCut < m_vStarts[2] ? 1 : 2;
    const size_t cbHave = cbCut - m_vStarts[iTorn];
    const size_t cbFullSize = m_vStarts[iTorn + 1] - m_vStarts[iTorn] - sizeof(SFrameHeader);
    // The size test leaves the header out: a frame lacking at most 28 bytes keeps its entry, and
    // the hour is still found corrupted; any other torn frame is cut off.
    const bool bKeptTorn = cbHave >= sizeof(SFrameHeader) && cbHave >= cbFullSize;
    ExpectFrames(iTorn, iTorn + (bKeptTorn ? 1 : 0));
    EXPECT_EQ(IsCorrupted(), bKeptTorn);
    EXPECT_EQ(FileBytes(kszDataFileName), m_vHealthy[0].substr(0, bKeptTorn ? cbCut : m_vStarts[iTorn]));
  }
}

// A frame of 40 data bytes (44 after its header: the size counts each buffer's size field) cut
// exactly where its header's size says it ends, less the header: the walk still takes it (the
// header is not counted), and one byte less drops it.
TEST_F(HourTest, RepairKeepsAFrameCutAtItsOffsetPlusItsFullSizeAndNoShorter) {
  const std::string str40(40, 'q');
  WriteHour({{At(0, 0, 0), 0x1, {"one"}}, {At(0, 1, 0), 0x2, {str40}}});
  const std::string strHealthy = FileBytes(kszDataFileName);
  ASSERT_EQ(35u + 28u + 44u, strHealthy.size());
  for (size_t cbLess : {size_t{0}, size_t{1}}) {
    SCOPED_TRACE(cbLess);
    Put(kszDataFileName, strHealthy.substr(0, 35 + 44 - cbLess));
    {
      CHourManager hour(m_pLock);
      ASSERT_EQ(hour.Open(HourPath(), false, false), S_OK);
      hour.Close();
      ASSERT_EQ(hour.Repair(nullptr), S_OK);
    }
    CHourManager hour(m_pLock);
    ASSERT_EQ(hour.Open(HourPath(), false, false), S_OK);
    EXPECT_EQ(hour.GetFrameCount(), cbLess ? 1u : 2u);
    EXPECT_EQ(ReadOne(hour, At(0, 0, 0)), "one");
  }
  // The walk's stop names the frame's end; the text is frozen.
  Put(kszDataFileName, strHealthy.substr(0, 35 + 44 - 1));
  CHourManager hour(m_pLock);
  ASSERT_EQ(hour.Open(HourPath(), false, false), S_OK);
  hour.Close();
  NSTest::CLogCapture capture;
  ASSERT_EQ(hour.Repair(nullptr), S_OK);
  const std::vector<NSTest::SLoggedReport> vChecks = capture.Reports(KV_W("TRASSDO"));
  ASSERT_EQ(vChecks.size(), 1u);
  EXPECT_EQ(vChecks[0].strText, KV_W("ULONGLONG(llLastHealthyPos+oFrameHeader.dwFullSize) <= ullFileSize\n"));
}

// Every call on an hour that is not open answers khrInvalidState with the frozen text of the check
// that refuses it, and changes nothing.
TEST_F(HourTest, AClosedHourRefusesEveryCallWithItsFrozenText) {
  WriteHour({{At(0, 0, 0), 0x1, {"one"}}});
  const std::string strBefore = AllBytes();
  CHourManager hour(m_pLock);
  NSTest::CLogCapture capture;
  std::string str = "x";
  SHourFrameBuffer buffer = {reinterpret_cast<BYTE*>(str.data()), 1};
  EXPECT_EQ(hour.Write(At(0, 0, 0), 0, &buffer, 1), khrInvalidState);
  EXPECT_EQ(hour.Refresh(), khrInvalidState);
  FILETIME ft = {};
  EXPECT_EQ(hour.GetSibling(At(0, 0, 0), nullptr, &ft, true, true), khrInvalidState);
  SHourStatistic statistic = {};
  EXPECT_EQ(hour.GetStatistic(&statistic), khrInvalidState);
  std::vector<SHourCell> vCells;
  EXPECT_EQ(hour.GetCells(At(0, 0, 0), At(59, 59, 990), 100, nullptr, &vCells), khrInvalidState);
  EXPECT_EQ(hour.GetFullSizeIfOpen(), 0u);
  std::vector<WString> vTexts;
  for (const NSTest::SLoggedReport& report : capture.Reports(KV_W("TRASSDO"))) vTexts.push_back(report.strText);
  const WString strClosed = KV_W("pDescriptorHeader\n");
  EXPECT_EQ(vTexts, (std::vector<WString>{strClosed, strClosed, strClosed, strClosed, strClosed,
                                          KV_W("m_hFile && INVALID_HANDLE_VALUE!=m_hFile\n")}));
  EXPECT_TRUE(AllBytes() == strBefore);
}

TEST_F(HourRepairTest, DescriptorCutAtEveryOffsetOfItsLastTwoEntriesRepairsEveryFrame) {
  for (size_t cbCut = 32; cbCut < 64; ++cbCut) {
    SCOPED_TRACE(cbCut);
    Restore();
    Cut(kszDescriptorFileName, cbCut);
    EXPECT_TRUE(IsCorrupted());
    CProgressLog progress;
    ASSERT_EQ(Repair(&progress), S_OK);
    EXPECT_EQ(progress.vPercents, (std::vector<int>{0, 30, 66, 100}));  // at 0, 35, 75 and 113 of 113 bytes
    EXPECT_FALSE(IsCorrupted());
    EXPECT_EQ(FileBytes(kszDescriptorFileName), m_vHealthy[1]);
    EXPECT_TRUE(FileBytes(kszHashFileName) == m_vHealthy[2]);
    ExpectFrames(3, 3);
  }
}

// A disk fills up in the middle of a frame, at each step of an append: the frame is refused and the
// files are as they were before it, so the frames written once space returns are not hidden behind
// garbage from a later repair (which stops at the first bad frame), and the refused frame never
// comes back. Then a crash tears the last frame: a repair loses that frame and nothing else.
TEST_F(HourRepairTest, AFailedAppendLeavesTheHourAsItWasAndLaterFramesSurviveARepair) {
  using NSPlatform::NSFault::EOp;
  struct SCase {
    const char* pszName;
    NSPlatform::NSFault::SRule rule;
    HRESULT hr;
  } const vCases[] = {
      {"short data", {EOp::Write, 1, 0, false, 10, KV_W("data.al")}, khrWriteFault},
      {"full disk before the data", {EOp::Write, 1, ERROR_DISK_FULL, false, -1, KV_W("data.al")}, khrDiskFull},
      {"full disk inside the header", {EOp::Write, 1, ERROR_DISK_FULL, false, 20, KV_W("data.al")}, khrDiskFull},
      {"full disk inside the data", {EOp::Write, 1, ERROR_HANDLE_DISK_FULL, false, 90, KV_W("data.al")},
       khrHandleDiskFull},
      {"short entry", {EOp::Write, 1, 0, false, 7, KV_W("descriptor.ald")}, khrWriteFault},
      {"full disk before the entry", {EOp::Write, 1, ERROR_DISK_FULL, false, -1, KV_W("descriptor.ald")}, khrDiskFull},
      {"full disk inside the entry", {EOp::Write, 1, ERROR_DISK_FULL, false, 9, KV_W("descriptor.ald")}, khrDiskFull},
  };
  for (const SCase& c : vCases) {
    SCOPED_TRACE(c.pszName);
    Restore();
    {
      CHourManager hour(m_pLock);
      ASSERT_EQ(hour.Open(HourPath(), true, false), S_OK);
      NSPlatform::NSFault::Arm(c.rule);
      EXPECT_EQ(Write(hour, At(0, 3, 0), 0x10, {std::string(100, 'x')}), c.hr);
      NSPlatform::NSFault::Reset();
      EXPECT_EQ(AllBytes(), m_vHealthy[0] + "|" + m_vHealthy[1] + "|" + m_vHealthy[2]);
      EXPECT_EQ(ReadOne(hour, At(0, 3, 0)), "hr=" + std::to_string(static_cast<DWORD>(khrNotFound)));
      // Space is back: twenty frames follow, the last one torn by a crash.
      for (WORD i = 0; i < 20; ++i) ASSERT_EQ(Write(hour, At(1, i, 0), i, {std::string(50 + i, 'a' + i)}), S_OK);
    }
    EXPECT_FALSE(IsCorrupted());
    Cut(kszDataFileName, FileBytes(kszDataFileName).size() - 40);
    ASSERT_EQ(Repair(), S_OK);
    EXPECT_FALSE(IsCorrupted());
    ExpectFrames(3, 3 + 19);
    CHourManager hour(m_pLock);
    ASSERT_EQ(hour.Open(HourPath(), false, false), S_OK);
    for (WORD i = 0; i < 19; ++i) EXPECT_EQ(ReadOne(hour, At(1, i, 0)), std::string(50 + i, 'a' + i)) << i;
    EXPECT_EQ(ReadOne(hour, At(0, 3, 0)), "hr=" + std::to_string(static_cast<DWORD>(khrNotFound)));
  }
}

// A frame handed with a null buffer that claims bytes is refused before anything is written.
TEST_F(HourRepairTest, ANullBufferWithASizeIsRefusedBeforeAnythingIsWritten) {
  CHourManager hour(m_pLock);
  ASSERT_EQ(hour.Open(HourPath(), true, false), S_OK);
  NSTest::CLogCapture capture;
  const BYTE abData[3] = {1, 2, 3};
  const SHourFrameBuffer aBuffers[2] = {{const_cast<BYTE*>(abData), 3}, {nullptr, 5}};
  EXPECT_EQ(hour.Write(At(0, 3, 0), 0, aBuffers, 2), E_POINTER);
  EXPECT_EQ(CheckTexts(capture), std::vector<WString>{KV_W("pBuff[i].pData\n")});
  EXPECT_EQ(AllBytes(), m_vHealthy[0] + "|" + m_vHealthy[1] + "|" + m_vHealthy[2]);
  const SHourFrameBuffer aEmpty[1] = {{nullptr, 0}};
  EXPECT_EQ(hour.Write(At(0, 3, 0), 0, aEmpty, 1), S_OK);  // no bytes, no pointer needed
}

TEST_F(HourRepairTest, RepairRefusesAnOpenHourAndRemoveHourTakesEmptyParents) {
  CHourManager hour(m_pLock);
  ASSERT_EQ(hour.Open(HourPath(), false, false), S_OK);
  {
    NSTest::CLogCapture capture;
    EXPECT_EQ(hour.Repair(nullptr), static_cast<HRESULT>(0x8007139F));
    EXPECT_EQ(CheckTexts(capture), std::vector<WString>{KV_W("!m_hDescriptor && !m_hFile\n")});
  }
  hour.Close();
  EXPECT_EQ(FileBytes(kszDescriptorFileName), m_vHealthy[1]);

  // Another day in the same month: the removal stops at the month.
  ASSERT_EQ(NSPlatform::CreateDirTree(m_dir.Sub(Native("rec/2021/03/08/01")).c_str()), S_OK);
  NSTest::CLogCapture capture;
  EXPECT_TRUE(hour.RemoveHour());
  EXPECT_FALSE(NSPlatform::PathExists(m_dir.Sub(Native("rec/2021/03/07")).c_str()));
  EXPECT_TRUE(NSPlatform::PathExists(m_dir.Sub(Native("rec/2021/03/08/01")).c_str()));
  std::vector<WString> vTexts;
  for (const NSTest::SLoggedReport& r : capture.Reports(KV_W("message"))) vTexts.push_back(r.strText);
  EXPECT_EQ(vTexts, (std::vector<WString>{
                        KV_W("deleting hour: ") + HourPath() + KV_W("\n"),
                        KV_W("hour ") + HourPath() + KV_W(" deleted successfully\n"),
                        KV_W("erasing of hour parent folder: ") + m_dir.Sub(Native("rec/2021/03/07")) + KV_W("\n")}));
  EXPECT_FALSE(hour.RemoveHour());  // nothing left to delete
}
