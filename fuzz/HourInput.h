// The byte layout of one input of the hour fuzzer (hour_fuzz.cpp), shared with the seed writer
// (hour_seeds.cpp) so that both read and write the same thing. All integers are little-endian;
// an input shorter than the layout reads as if zero-filled, so every byte string is an input.
//
//   0   BYTE   byOptions         EOption bits
//   1   BYTE   byHashSizeDelta   with eoHashWrongSize: the hash file has sizeof(SHashFile) plus this
//                                value as a signed byte; 0 makes it empty
//   2   BYTE   cSlotPatches      SSlotPatch records that follow the probes
//   3   BYTE   cCounterPatches   SCounterPatch records that follow the slot patches
//   4   BYTE   byFaultOp         with eoFault: NSPlatform::NSFault::EOp, modulo 5
//   5   BYTE   byFaultNth        the call that fails, counted from 1 (0 counts as 1)
//   6   BYTE   byFaultFlags      bit 0 sticky, bit 1 short write, bits 2-3 the file the rule is
//                                limited to (any, data.al, descriptor.ald, descriptor.alh)
//   7   BYTE   byFaultShort      bytes a short write keeps
//   8   WORD   cbData            bytes of data.al (cut to what the input holds)
//   10  WORD   cbDescriptor      bytes of descriptor.ald (cut likewise)
//   12  SProbe [kcProbes]        12 bytes each
//   60  SSlotPatch [cSlotPatches], SCounterPatch [cCounterPatches]
//   ..  data.al, then descriptor.ald
//
// descriptor.alh is never carried whole: it is the zero-filled file of the empty hour with the
// patches written over it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace NSHourFuzz {

enum EOption : uint8_t {
  eoNoData = 0x01,            // data.al is not created
  eoNoDescriptor = 0x02,      // descriptor.ald is not created
  eoNoHash = 0x04,            // descriptor.alh is not created
  eoHashWrongSize = 0x08,     // see byHashSizeDelta
  eoBuffered = 0x10,          // Open's bBuffered
  eoDataIsDirectory = 0x20,   // data.al is a directory (with eoNoData clear)
  eoRepairWithSink = 0x40,    // Repair gets a progress sink instead of null
  eoFault = 0x80,             // one fault-seam rule is armed for the whole run
};

// A time inside the hour and what to do there. Minute, second and millisecond are taken modulo
// 64, 64 and 1024, so some probes are invalid times on purpose.
struct SProbe {
  uint8_t byMinute = 0;
  uint8_t bySecond = 0;
  uint16_t wMilliseconds = 0;
  uint32_t dwFilterMask = 0;
  // Bits 0-2 the filter mode (4-7 are modes that match nothing), bit 3 GetSibling with the filter,
  // bit 4 bIncludeStart, bit 5 walk on from what was found, bit 6 flags-only reads too, bit 7
  // backward instead of forward.
  uint8_t bySibling = 0;
  // Bits 0-2 Read's buffer count (0-7), bits 3-7 the gap asked for by a null buffer that follows
  // a caller's block (31 stands for 0xFFFFFFFF, "no gap").
  uint8_t byRead = 0;
  uint8_t byCapacity = 0;  // bytes of each caller's block
  uint8_t byKinds = 0;     // bit i set: buffer i is the caller's memory, clear: null pData
};
constexpr size_t kcProbes = 4;
constexpr size_t kcbProbe = 12;
constexpr size_t kcbHeader = 12 + kcProbes * kcbProbe;

// A 24-bit slot value at slot dwSlot modulo 360,000.
struct SSlotPatch {
  uint32_t dwSlot = 0;
  uint32_t dwValue = 0;  // low 24 bits written
};
constexpr size_t kcbSlotPatch = 7;

// A flag counter value; dwCounter indexes the 117,152 counters (hour, minutes, seconds, in file
// order) modulo their count.
struct SCounterPatch {
  uint32_t dwCounter = 0;
  uint32_t dwValue = 0;
};
constexpr size_t kcbCounterPatch = 8;

struct SHourInput {
  uint8_t byOptions = 0;
  uint8_t byHashSizeDelta = 0;
  uint8_t byFaultOp = 0;
  uint8_t byFaultNth = 0;
  uint8_t byFaultFlags = 0;
  uint8_t byFaultShort = 0;
  SProbe vProbes[kcProbes];
  std::vector<SSlotPatch> vSlotPatches;
  std::vector<SCounterPatch> vCounterPatches;
  std::string strData;
  std::string strDescriptor;
};

// Reads forward; past the end it yields zeros.
class CInputReader {
 public:
  CInputReader(const uint8_t* pb, size_t cb) : m_pb(pb), m_cb(cb) {}
  uint8_t Byte() { return m_nPos < m_cb ? m_pb[m_nPos++] : 0; }
  uint16_t Word() { return static_cast<uint16_t>(Byte() | (Byte() << 8)); }
  uint32_t Dword() {
    uint32_t dw = Word();
    return dw | (static_cast<uint32_t>(Word()) << 16);
  }
  uint32_t Bytes3() {
    uint32_t dw = Word();
    return dw | (static_cast<uint32_t>(Byte()) << 16);
  }
  std::string Take(size_t cb) {
    const size_t cbLeft = m_nPos < m_cb ? m_cb - m_nPos : 0;
    if (cb > cbLeft) cb = cbLeft;
    std::string str(reinterpret_cast<const char*>(m_pb + m_nPos), cb);
    m_nPos += cb;
    return str;
  }

 private:
  const uint8_t* m_pb;
  size_t m_cb;
  size_t m_nPos = 0;
};

inline SHourInput ParseHourInput(const uint8_t* pb, size_t cb) {
  CInputReader reader(pb, cb);
  SHourInput input;
  input.byOptions = reader.Byte();
  input.byHashSizeDelta = reader.Byte();
  const uint8_t cSlotPatches = reader.Byte();
  const uint8_t cCounterPatches = reader.Byte();
  input.byFaultOp = reader.Byte();
  input.byFaultNth = reader.Byte();
  input.byFaultFlags = reader.Byte();
  input.byFaultShort = reader.Byte();
  const uint16_t cbData = reader.Word();
  const uint16_t cbDescriptor = reader.Word();
  for (SProbe& probe : input.vProbes) {
    probe.byMinute = reader.Byte();
    probe.bySecond = reader.Byte();
    probe.wMilliseconds = reader.Word();
    probe.dwFilterMask = reader.Dword();
    probe.bySibling = reader.Byte();
    probe.byRead = reader.Byte();
    probe.byCapacity = reader.Byte();
    probe.byKinds = reader.Byte();
  }
  for (uint8_t i = 0; i < cSlotPatches; ++i) {
    SSlotPatch patch;
    patch.dwSlot = reader.Dword();
    patch.dwValue = reader.Bytes3();
    input.vSlotPatches.push_back(patch);
  }
  for (uint8_t i = 0; i < cCounterPatches; ++i) {
    SCounterPatch patch;
    patch.dwCounter = reader.Dword();
    patch.dwValue = reader.Dword();
    input.vCounterPatches.push_back(patch);
  }
  input.strData = reader.Take(cbData);
  input.strDescriptor = reader.Take(cbDescriptor);
  return input;
}

// The exact inverse of ParseHourInput for inputs whose counts and sizes fit their fields.
inline std::string SerialiseHourInput(const SHourInput& input) {
  std::string str;
  auto byte = [&](uint32_t v) { str.push_back(static_cast<char>(v & 0xFF)); };
  auto word = [&](uint32_t v) { byte(v), byte(v >> 8); };
  auto dword = [&](uint32_t v) { word(v), word(v >> 16); };
  byte(input.byOptions);
  byte(input.byHashSizeDelta);
  byte(static_cast<uint32_t>(input.vSlotPatches.size()));
  byte(static_cast<uint32_t>(input.vCounterPatches.size()));
  byte(input.byFaultOp);
  byte(input.byFaultNth);
  byte(input.byFaultFlags);
  byte(input.byFaultShort);
  word(static_cast<uint32_t>(input.strData.size()));
  word(static_cast<uint32_t>(input.strDescriptor.size()));
  for (const SProbe& probe : input.vProbes) {
    byte(probe.byMinute);
    byte(probe.bySecond);
    word(probe.wMilliseconds);
    dword(probe.dwFilterMask);
    byte(probe.bySibling);
    byte(probe.byRead);
    byte(probe.byCapacity);
    byte(probe.byKinds);
  }
  for (const SSlotPatch& patch : input.vSlotPatches) {
    dword(patch.dwSlot);
    word(patch.dwValue);
    byte(patch.dwValue >> 16);
  }
  for (const SCounterPatch& patch : input.vCounterPatches) {
    dword(patch.dwCounter);
    dword(patch.dwValue);
  }
  str += input.strData;
  str += input.strDescriptor;
  return str;
}

}  // namespace NSHourFuzz
