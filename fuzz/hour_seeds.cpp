// Writes the seed inputs of the hour fuzzer (layout in HourInput.h) into the directory given as the
// only argument: hours laid out byte for byte as the hour manager writes them, healthy and torn.
//   kv_hour_fuzz_seeds fuzz/corpus/hour
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "HourInput.h"
#include "hours/HourFormat.h"
#include "platform/os.h"

namespace {

using namespace NSHourFuzz;
using namespace NSHours;

struct SSeedFrame {
  WORD wMinute, wSecond, wMilliseconds;
  DWORD dwFlags;
  std::vector<std::string> vBuffers;
};

void Append(std::string* pstr, const void* pv, size_t cb) { pstr->append(static_cast<const char*>(pv), cb); }

// Frames into data.al, their entries into descriptor.ald (after the reserved entry 0), and the
// hash file's slots and flag counters as patches.
SHourInput MakeHour(const std::vector<SSeedFrame>& vFrames) {
  SHourInput input;
  input.strDescriptor.assign(sizeof(SFrameInfo), '\0');
  DWORD dwIndex = 0;
  for (const SSeedFrame& frame : vFrames) {
    SYSTEMTIME st = {2024, 5, 5, 17, 13, frame.wMinute, frame.wSecond, frame.wMilliseconds};
    FILETIME ft;
    NSPlatform::SysTimeToFileTime(&st, &ft);
    DWORD dwFullSize = 0;
    for (const std::string& str : frame.vBuffers) dwFullSize += BufferRecordSize(static_cast<DWORD>(str.size()));
    const SFrameHeader header = {SFrameHeader::MakeSignature(), ft, frame.dwFlags,
                                 static_cast<DWORD>(frame.vBuffers.size()), dwFullSize};
    const SFrameInfo info = {frame.dwFlags, input.strData.size(), FrameSize(dwFullSize)};
    Append(&input.strData, &header, sizeof(header));
    for (const std::string& str : frame.vBuffers) {
      const DWORD cb = static_cast<DWORD>(str.size());
      Append(&input.strData, &cb, sizeof(cb));
      input.strData += str;
    }
    Append(&input.strDescriptor, &info, sizeof(info));
    ++dwIndex;
    input.vSlotPatches.push_back({SlotIndex(st), dwIndex});
    // Counters as AddFlagCounters counts them, numbered in file order.
    for (DWORD b = 0; b < kcFlagBits; ++b) {
      if (!(frame.dwFlags & (1u << b))) continue;
      const DWORD dwSecond = frame.wMinute * kcSeconds + frame.wSecond;
      input.vCounterPatches.push_back({b, 1});
      input.vCounterPatches.push_back({kcFlagBits * (1 + frame.wMinute) + b, 1});
      input.vCounterPatches.push_back({kcFlagBits * (1 + kcMinutes + dwSecond) + b, 1});
    }
  }
  // Probes at and around the frames: a caller's block then task memory, flags-only reads, sibling
  // walks with and without a filter.
  const SSeedFrame& first = vFrames.front();
  const SSeedFrame& last = vFrames.back();
  input.vProbes[0] = {static_cast<uint8_t>(first.wMinute), static_cast<uint8_t>(first.wSecond),
                      first.wMilliseconds, first.dwFlags, 0x78, 0x02 | (31 << 3), 64, 0x01};
  input.vProbes[1] = {static_cast<uint8_t>(last.wMinute), static_cast<uint8_t>(last.wSecond),
                      last.wMilliseconds, last.dwFlags, 0xB8, 0x03, 16, 0x01};
  input.vProbes[2] = {0, 0, 0, 0, 0x20, 0x01, 0, 0x00};
  input.vProbes[3] = {59, 59, 990, 1, 0xAB, 0x02, 8, 0x03};
  input.byOptions = eoRepairWithSink;
  return input;
}

bool Save(const std::string& strDir, const char* pszName, const SHourInput& input) {
  const std::string str = SerialiseHourInput(input);
  std::ofstream file(strDir + "/" + pszName, std::ios::binary | std::ios::trunc);
  file.write(str.data(), static_cast<std::streamsize>(str.size()));
  return static_cast<bool>(file);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <directory>\n", argv[0]);
    return 2;
  }
  const std::string strDir = argv[1];
  const SSeedFrame one = {12, 34, 560, 0x5, {"hello", ""}};
  const SSeedFrame two = {12, 35, 0, 0x80000002, {std::string(40, 'x')}};
  bool bOk = true;

  bOk &= Save(strDir, "healthy-1-frame", MakeHour({one}));
  bOk &= Save(strDir, "healthy-2-frames", MakeHour({one, two}));

  SHourInput empty = MakeHour({one});
  empty.strData.clear();
  empty.strDescriptor.resize(sizeof(SFrameInfo));
  empty.vSlotPatches.clear();
  empty.vCounterPatches.clear();
  bOk &= Save(strDir, "empty-hour", empty);

  // The last frame's data cut short, its entry and slot already written: what a crash leaves.
  SHourInput torn = MakeHour({one, two});
  torn.strData.resize(torn.strData.size() - 10);
  bOk &= Save(strDir, "torn-last-frame", torn);

  // Data written, entry and slot not.
  SHourInput unindexed = MakeHour({one, two});
  unindexed.strDescriptor.resize(2 * sizeof(SFrameInfo));
  unindexed.vSlotPatches.pop_back();
  bOk &= Save(strDir, "unindexed-last-frame", unindexed);

  // A read fault on data.al partway through, with the repair's progress sink.
  SHourInput faulty = MakeHour({one, two});
  faulty.byOptions |= eoFault;
  faulty.byFaultOp = 1;
  faulty.byFaultNth = 3;
  faulty.byFaultFlags = 1 << 2;
  bOk &= Save(strDir, "read-fault", faulty);
  return bOk ? 0 : 1;
}
