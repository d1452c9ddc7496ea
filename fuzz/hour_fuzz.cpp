// libFuzzer target: an hour directory made from arbitrary bytes (HourInput.h), then everything a
// reader and the recovery do with it through CHourManager: Open without create, IsCorrupted, Reads
// into caller and task memory, sibling walks with and without a filter, GetStatistic, Close,
// Repair, and Open plus IsCorrupted again on the repaired hour.
//
// Besides the sanitizers, the harness itself stops the run (abort) when
//   - a failed Read leaves task memory with the caller,
//   - a successful Read reports more bytes than the caller's block can hold,
//   - the repair's progress goes backwards or above 100,
//   - a file descriptor stays open after the hour manager is gone.
//
// One scratch directory per process, $TMPDIR (or /tmp) /kv_hour_fuzz.<pid>, is rebuilt for every
// input and removed at exit.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "HourInput.h"
#include "com/ComBase.h"
#include "hours/HourManager.h"
#include "platform/os.h"
#include "support/Lock.h"

namespace {

using namespace NSHourFuzz;
using NSHours::CHourManager;
using NSHours::SHourFrameBuffer;
using NSHours::SHourFrameFilter;
using NSHours::SHourStatistic;
namespace fs = std::filesystem;
namespace NSFault = NSPlatform::NSFault;

// The hour every input lives in; its path must end in year, month, day and hour.
constexpr WORD kwYear = 2024, kwMonth = 5, kwDay = 17, kwHour = 13;
constexpr uint32_t kcCounters = NSHours::kcFlagBits * (1 + NSHours::kcMinutes + NSHours::kcMinutes * NSHours::kcSeconds);
constexpr DWORD kdwNoGap = 0xFFFFFFFFu;
constexpr unsigned kcMaxWalk = 3;

struct SScratch {
  fs::path root;   // ours alone, kept for the process
  fs::path hour;   // root/rec/2024/05/17/13
  WString strHour;
};

SScratch& Scratch() {
  static SScratch* pScratch = [] {
    auto* p = new SScratch;
    const char* pszTmp = std::getenv("TMPDIR");
    p->root = fs::path(pszTmp && *pszTmp ? pszTmp : "/tmp") / ("kv_hour_fuzz." + std::to_string(getpid()));
    p->hour = p->root / "rec" / "2024" / "05" / "17" / "13";
    p->strHour = NSPlatform::Utf8ToWide(p->hour.string());
    std::atexit([] {
      std::error_code ec;
      fs::remove_all(Scratch().root, ec);
    });
    return p;
  }();
  return *pScratch;
}

[[noreturn]] void Fail(const char* pszWhat) {
  std::fprintf(stderr, "hour_fuzz: %s\n", pszWhat);
  std::abort();
}

void WriteWhole(const fs::path& path, const std::string& str) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(str.data(), static_cast<std::streamsize>(str.size()));
  if (!file) Fail("cannot write a scratch file");
}

// The hash file: sparse zeros at the chosen size (so building it costs no 1.5 MB write), then the
// patches that fall inside it.
void WriteHash(const fs::path& path, const SHourInput& input) {
  uintmax_t cbSize = sizeof(NSHours::SHashFile);
  if (input.byOptions & eoHashWrongSize)
    cbSize = input.byHashSizeDelta ? cbSize + static_cast<int8_t>(input.byHashSizeDelta) : 0;
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out | std::ios::trunc);
  std::error_code ec;
  if (!file) Fail("cannot create the scratch hash file");
  fs::resize_file(path, cbSize, ec);
  if (ec) Fail("cannot size the scratch hash file");
  auto patch = [&](uintmax_t offset, const void* pv, size_t cb) {
    if (offset + cb > cbSize) return;
    file.seekp(static_cast<std::streamoff>(offset));
    file.write(static_cast<const char*>(pv), static_cast<std::streamsize>(cb));
  };
  for (const SSlotPatch& slot : input.vSlotPatches) {
    const char vb[3] = {static_cast<char>(slot.dwValue), static_cast<char>(slot.dwValue >> 8),
                        static_cast<char>(slot.dwValue >> 16)};
    patch(NSHours::SlotOffset(slot.dwSlot % NSHours::kcSlots), vb, sizeof(vb));
  }
  for (const SCounterPatch& counter : input.vCounterPatches) {
    const uintmax_t offset = offsetof(NSHours::SHashFile, vHourFlagCounters) + (counter.dwCounter % kcCounters) * 4;
    patch(offset, &counter.dwValue, sizeof(counter.dwValue));
  }
  file.flush();
  if (!file) Fail("cannot patch the scratch hash file");
}

void BuildHour(const SHourInput& input) {
  const SScratch& scratch = Scratch();
  std::error_code ec;
  fs::remove_all(scratch.root / "rec", ec);
  fs::create_directories(scratch.hour, ec);
  if (ec) Fail("cannot create the scratch hour directory");
  if (input.byOptions & eoDataIsDirectory) {
    fs::create_directory(scratch.hour / "data.al", ec);
  } else if (!(input.byOptions & eoNoData)) {
    WriteWhole(scratch.hour / "data.al", input.strData);
  }
  if (!(input.byOptions & eoNoDescriptor)) WriteWhole(scratch.hour / "descriptor.ald", input.strDescriptor);
  if (!(input.byOptions & eoNoHash)) WriteHash(scratch.hour / "descriptor.alh", input);
}

void ArmFault(const SHourInput& input) {
  NSFault::Reset();
  if (!(input.byOptions & eoFault)) return;
  static const NSFault::EOp kvOps[] = {NSFault::EOp::Open, NSFault::EOp::Read, NSFault::EOp::Write, NSFault::EOp::Flush,
                                      NSFault::EOp::Directory};
  static const WCHAR* const kvszFiles[] = {KV_W(""), KV_W("data.al"), KV_W("descriptor.ald"),
                                           KV_W("descriptor.alh")};
  static const DWORD kvdwErrors[] = {ERROR_DISK_FULL, ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION, ERROR_READ_FAULT};
  NSFault::SRule rule;
  rule.eOp = kvOps[input.byFaultOp % 5];
  rule.nNth = input.byFaultNth ? input.byFaultNth : 1;
  rule.bSticky = input.byFaultFlags & 1;
  rule.cbShort = (input.byFaultFlags & 2) ? input.byFaultShort : -1;
  rule.strPathContains = kvszFiles[(input.byFaultFlags >> 2) & 3];
  rule.dwError = kvdwErrors[(input.byFaultFlags >> 4) & 3];
  NSFault::Arm(rule);
}

SYSTEMTIME ProbeTime(const SProbe& probe) {
  SYSTEMTIME st = {};
  st.wYear = kwYear;
  st.wMonth = kwMonth;
  st.wDay = kwDay;
  st.wDayOfWeek = 5;
  st.wHour = kwHour;
  st.wMinute = probe.byMinute % 64;
  st.wSecond = probe.bySecond % 64;
  st.wMilliseconds = probe.wMilliseconds % 1024;
  return st;
}

// Touches every byte a Read says it delivered, so that the sanitizer sees a size beyond the memory.
unsigned Touch(const SHourFrameBuffer& buffer) {
  unsigned uSum = 0;
  for (DWORD i = 0; i < buffer.dwDataSize; ++i) uSum += buffer.pData[i];
  return uSum;
}

// One Read with dwCount buffers laid out as the probe says: caller blocks of byCapacity bytes, and
// null buffers asking for task memory or for a place in the caller's block before them.
void ReadProbe(CHourManager& hour, const SYSTEMTIME& st, const SProbe& probe) {
  const DWORD dwCount = probe.byRead & 7;
  const DWORD dwGapField = probe.byRead >> 3;
  const DWORD dwGap = dwGapField == 31 ? kdwNoGap : dwGapField;
  std::vector<SHourFrameBuffer> vBuffers(dwCount ? dwCount : 1);
  std::vector<std::unique_ptr<BYTE[]>> vBlocks;
  std::vector<bool> vNull(vBuffers.size());
  for (DWORD i = 0; i < dwCount; ++i) {
    if (probe.byKinds & (1u << i)) {
      vBlocks.emplace_back(new BYTE[probe.byCapacity]);
      vBuffers[i] = {vBlocks.back().get(), probe.byCapacity};
    } else {
      vBuffers[i] = {nullptr, dwGap};
      vNull[i] = true;
    }
  }
  auto inCallerBlock = [&](const BYTE* p) {
    for (const auto& block : vBlocks) {
      if (p >= block.get() && p <= block.get() + probe.byCapacity) return true;
    }
    return false;
  };
  DWORD dwFlags = 0;
  const HRESULT hr = hour.Read(st, (probe.bySibling & 0x40) ? nullptr : &dwFlags, vBuffers.data(), dwCount);
  for (DWORD i = 0; i < dwCount; ++i) {
    SHourFrameBuffer& buffer = vBuffers[i];
    const bool bTaskMemory = vNull[i] && buffer.pData && !inCallerBlock(buffer.pData);
    if (FAILED(hr)) {
      if (bTaskMemory) Fail("a failed Read left task memory with the caller");
      continue;
    }
    if (hr != S_OK) continue;
    if (!bTaskMemory && buffer.dwDataSize > probe.byCapacity) Fail("a Read delivered more than the caller's block");
    if (buffer.pData) Touch(buffer);
    if (bTaskMemory) CoTaskMemFree(buffer.pData);
  }
}

// The nearest frame from the probe's time in one direction, then a few steps on from what was found.
// One direction per probe: an empty hour costs a scan of all 360,000 slots per call.
void SiblingProbe(CHourManager& hour, const SYSTEMTIME& st, const SProbe& probe) {
  const SHourFrameFilter filter = {probe.dwFilterMask, static_cast<DWORD>(probe.bySibling & 7)};
  const SHourFrameFilter* pFilter = (probe.bySibling & 8) ? &filter : nullptr;
  const bool bIncludeStart = probe.bySibling & 0x10;
  const bool bForward = !(probe.bySibling & 0x80);
  FILETIME ft = {};
  HRESULT hr = hour.GetSibling(st, pFilter, &ft, bIncludeStart, bForward);
  for (unsigned nStep = 0; SUCCEEDED(hr) && nStep < kcMaxWalk; ++nStep) {
    SYSTEMTIME stFound;
    if (!NSPlatform::FileTimeToSysTime(&ft, &stFound)) Fail("GetSibling found a time that cannot be broken down");
    DWORD dwFlags = 0;
    hour.Read(stFound, &dwFlags, nullptr, 0);
    if (!(probe.bySibling & 0x20)) break;
    hr = hour.GetSibling(stFound, pFilter, &ft, false, bForward);
  }
}

size_t CountOpenDescriptors() {
  size_t c = 0;
  std::error_code ec;
  for (fs::directory_iterator it("/proc/self/fd", ec), end; !ec && it != end; it.increment(ec)) ++c;
  return c;
}

// The repair's progress: never backwards, never above 100.
class CProgressSink final : public NSHours::IProgress {
 public:
  void SetPercent(BYTE byPercent) override {
    if (byPercent > 100 || byPercent < m_byLast) Fail("the repair's progress went backwards or above 100");
    m_byLast = byPercent;
  }
  bool IsStopped() override { return false; }

 private:
  BYTE m_byLast = 0;
};

void Run(const SHourInput& input) {
  const SScratch& scratch = Scratch();
  const bool bBuffered = input.byOptions & eoBuffered;
  CHourManager hour(std::make_shared<NSSystem::SLock>());

  // The hour as found.
  const HRESULT hrOpen = hour.Open(scratch.strHour, false, bBuffered);
  (void)hrOpen;
  hour.IsCorrupted();
  for (const SProbe& probe : input.vProbes) {
    const SYSTEMTIME st = ProbeTime(probe);
    if (probe.bySibling & 0x40) {
      DWORD dwFlags = 0;
      hour.Read(st, nullptr, nullptr, 0);
      hour.Read(st, &dwFlags, nullptr, 0);
    }
    ReadProbe(hour, st, probe);
    SiblingProbe(hour, st, probe);
  }
  SHourStatistic statistic;
  hour.GetStatistic(&statistic);
  hour.GetFrameCount();
  hour.Close();

  // The recovery.
  CProgressSink sink;
  hour.Repair((input.byOptions & eoRepairWithSink) ? &sink : nullptr);

  // The hour as the repair left it.
  if (SUCCEEDED(hour.Open(scratch.strHour, false, bBuffered))) {
    hour.IsCorrupted();
    hour.GetStatistic(&statistic);
    const SProbe& probe = input.vProbes[0];
    ReadProbe(hour, ProbeTime(probe), probe);
  }
  hour.Close();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pbData, size_t cbData) {
  const SHourInput input = ParseHourInput(pbData, cbData);
  NSFault::Reset();
  BuildHour(input);
  const size_t cDescriptors = CountOpenDescriptors();
  ArmFault(input);
  Run(input);
  NSFault::Reset();
  if (CountOpenDescriptors() > cDescriptors) Fail("a file descriptor outlived the hour manager");
  return 0;
}
