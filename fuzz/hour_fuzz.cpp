// libFuzzer target: an hour directory made from arbitrary bytes (HourInput.h), then everything a
// reader and the recovery do with it through CHourManager: Open without create, IsCorrupted, Reads
// into caller and task memory, sibling walks with and without a filter, GetStatistic, Close,
// Repair, and Open plus IsCorrupted again on the repaired hour.
//
// Besides the sanitizers, the harness itself stops the run (abort) when
//   - a failed Read leaves task memory with the caller,
//   - a successful Read reports more bytes than the caller's block can hold,
//   - the repair's progress goes backwards or above 100,
//   - a file stays open after the hour manager is gone.
//
// Everything runs on the platform's in-memory file system (platform/MemFs.h), made anew for every
// input: nothing reaches the disk, and a run costs what the engine's own work costs.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "HourInput.h"
#include "com/ComBase.h"
#include "hours/HourManager.h"
#include "platform/MemFs.h"
#include "platform/os.h"
#include "support/Lock.h"

namespace {

using namespace NSHourFuzz;
using NSHours::CHourManager;
using NSHours::SHourFrameBuffer;
using NSHours::SHourFrameFilter;
using NSHours::SHourStatistic;
namespace NSFault = NSPlatform::NSFault;

// The hour every input lives in; its path must end in year, month, day and hour.
constexpr WORD kwYear = 2024, kwMonth = 5, kwDay = 17, kwHour = 13;
constexpr uint32_t kcCounters = NSHours::kcFlagBits * (1 + NSHours::kcMinutes + NSHours::kcMinutes * NSHours::kcSeconds);
constexpr DWORD kdwNoGap = 0xFFFFFFFFu;
constexpr unsigned kcMaxWalk = 3;

// The hour's directory in the in-memory file system; its path must end in year, month, day and hour.
const WString& HourPath() {
  static const WString* pstrHour = [] {
    NSPlatform::NSMemFs::Install();
    WString strTemp;
    NSPlatform::GetTempDirectory(&strTemp);
    WString strHour = NSPlatform::CombinePath(strTemp, KV_W("kv_hour_fuzz"));
    for (const WCHAR* psz : {KV_W("rec"), KV_W("2024"), KV_W("05"), KV_W("17"), KV_W("13")}) {
      strHour = NSPlatform::CombinePath(strHour, psz);
    }
    return new WString(strHour);
  }();
  return *pstrHour;
}

[[noreturn]] void Fail(const char* pszWhat) {
  std::fprintf(stderr, "hour_fuzz: %s\n", pszWhat);
  std::abort();
}

WString FileOfHour(const WCHAR* pszName) { return NSPlatform::CombinePath(HourPath(), pszName); }

NSPlatform::CFile CreateFileOfHour(const WCHAR* pszName) {
  NSPlatform::CFile file;
  if (FAILED(file.Open(FileOfHour(pszName).c_str(), GENERIC_READ | GENERIC_WRITE, 0, CREATE_ALWAYS, 0)))
    Fail("cannot create a scratch file");
  return file;
}

void WriteAt(NSPlatform::CFile& file, uint64_t ullOffset, const void* pv, size_t cb) {
  DWORD cbWritten = 0;
  if (FAILED(file.WriteAt(ullOffset, pv, static_cast<DWORD>(cb), &cbWritten)) || cbWritten != cb)
    Fail("cannot write a scratch file");
}

void WriteWhole(const WCHAR* pszName, const std::string& str) {
  NSPlatform::CFile file = CreateFileOfHour(pszName);
  WriteAt(file, 0, str.data(), str.size());
}

// The hash file: zeros at the chosen size, then the patches that fall inside it.
void WriteHash(const SHourInput& input) {
  uint64_t cbSize = sizeof(NSHours::SHashFile);
  if (input.byOptions & eoHashWrongSize)
    cbSize = input.byHashSizeDelta ? cbSize + static_cast<int8_t>(input.byHashSizeDelta) : 0;
  NSPlatform::CFile file = CreateFileOfHour(KV_W("descriptor.alh"));
  if (cbSize != 0) {
    static const BYTE s_bZero = 0;
    WriteAt(file, cbSize - 1, &s_bZero, 1);
  }
  auto patch = [&](uint64_t offset, const void* pv, size_t cb) {
    if (offset + cb > cbSize) return;
    WriteAt(file, offset, pv, cb);
  };
  for (const SSlotPatch& slot : input.vSlotPatches) {
    const char vb[3] = {static_cast<char>(slot.dwValue), static_cast<char>(slot.dwValue >> 8),
                        static_cast<char>(slot.dwValue >> 16)};
    patch(NSHours::SlotOffset(slot.dwSlot % NSHours::kcSlots), vb, sizeof(vb));
  }
  for (const SCounterPatch& counter : input.vCounterPatches) {
    const uint64_t offset = offsetof(NSHours::SHashFile, vHourFlagCounters) + (counter.dwCounter % kcCounters) * 4;
    patch(offset, &counter.dwValue, sizeof(counter.dwValue));
  }
}

// A new, empty in-memory file system holding the hour the input describes.
void BuildHour(const SHourInput& input) {
  NSPlatform::NSMemFs::Install();
  if (FAILED(NSPlatform::CreateDirTree(HourPath().c_str()))) Fail("cannot create the scratch hour directory");
  if (input.byOptions & eoDataIsDirectory) {
    NSPlatform::CreateDir(FileOfHour(KV_W("data.al")).c_str());
  } else if (!(input.byOptions & eoNoData)) {
    WriteWhole(KV_W("data.al"), input.strData);
  }
  if (!(input.byOptions & eoNoDescriptor)) WriteWhole(KV_W("descriptor.ald"), input.strDescriptor);
  if (!(input.byOptions & eoNoHash)) WriteHash(input);
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
  const WString& strHour = HourPath();
  const bool bBuffered = input.byOptions & eoBuffered;
  CHourManager hour(std::make_shared<NSSystem::SLock>());

  // The hour as found.
  const HRESULT hrOpen = hour.Open(strHour, false, bBuffered);
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
  if (SUCCEEDED(hour.Open(strHour, false, bBuffered))) {
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
  ArmFault(input);
  Run(input);
  NSFault::Reset();
  if (NSPlatform::NSMemFs::GetOpenCount() != 0) Fail("a file outlived the hour manager");
  // Everything the run made is freed within it: libFuzzer takes a run that ends with more
  // allocations than frees for a leak, and runs it again with a leak check.
  NSPlatform::NSMemFs::Uninstall();
  return 0;
}
