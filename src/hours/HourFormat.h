// The bytes of one hour on disk: "data.al", "descriptor.ald" and "descriptor.alh".
//
// All integers are little-endian and every structure is packed; the layout is the same on Windows
// and Linux, so an hour written on one opens on the other. docs/hour-format.md draws the bytes.
// Nothing in the files names a version of this layout: a new layout needs a new file name or
// signature.
#pragma once

#include <bit>
#include <cstddef>

#include "platform/wintypes.h"

namespace NSHours {

inline constexpr WCHAR kszDataFileName[] = KV_W("data.al");
inline constexpr WCHAR kszDescriptorFileName[] = KV_W("descriptor.ald");
inline constexpr WCHAR kszHashFileName[] = KV_W("descriptor.alh");
// A fast copy builds an hour beside its day's hours under the hour's name with this suffix ("10.copy")
// and renames it into place when whole; searches never see it.
inline constexpr WCHAR kszCopySuffix[] = KV_W(".copy");

// The frame signature, the ASCII bytes "QmTrVxNo", made of two 32-bit words (low word first).
constexpr DWORD kdwFrameSignatureLow = 0x72546D51u;
constexpr DWORD kdwFrameSignatureHigh = 0x6F4E7856u;

// The index grid: one slot per 10 ms of the hour.
constexpr DWORD kcMinutes = 60;
constexpr DWORD kcSeconds = 60;
constexpr DWORD kcSlotsPerSecond = 100;
constexpr DWORD kcSlots = kcMinutes * kcSeconds * kcSlotsPerSecond;  // 360,000
constexpr ULONGLONG kullTicksPerSlot = 100000ull;                     // 10 ms in 100-ns units
constexpr DWORD kcFlagBits = 32;
// A slot holds 24 bits of a descriptor index; larger indexes are cut to these bits when stored.
constexpr DWORD kdwSlotIndexMask = 0x00FFFFFFu;

#pragma pack(push, 1)

// Heads every frame in data.al; dwCount buffer records follow, each a 4-byte size and its bytes.
struct SFrameHeader {
  ULONGLONG ullSignature;  // MakeSignature()
  FILETIME ftTime;         // the frame's exact time, UTC
  DWORD dwFlags;
  DWORD dwCount;     // buffer records that follow
  DWORD dwFullSize;  // bytes of those records: the sum of (4 + data size)

  static constexpr ULONGLONG MakeSignature() {
    return (static_cast<ULONGLONG>(kdwFrameSignatureHigh) << 32) | kdwFrameSignatureLow;
  }
};

// One entry of descriptor.ald per frame, in write order; entry 0 is reserved and zero.
struct SFrameInfo {
  DWORD dwFlags;        // the header's dwFlags
  ULONGLONG ullOffset;  // of the frame's SFrameHeader in data.al
  DWORD dwSize;         // sizeof(SFrameHeader) + dwFullSize
};

// A hash slot: the low 24 bits of a descriptor index, 0 when no frame is in the slot.
struct SFrameInfoHash {
  WORD wLow;    // bits 0-15
  BYTE byHigh;  // bits 16-23

  DWORD GetIndex() const { return static_cast<DWORD>(wLow) | (static_cast<DWORD>(byHigh) << 16); }
  void SetIndex(DWORD dwIndex) {
    wLow = static_cast<WORD>(dwIndex);
    byHigh = static_cast<BYTE>(dwIndex >> 16);
  }
};

#pragma pack(pop)

// descriptor.alh, created zero-filled at full size and mapped for the life of the open hour. Not
// packed: the slots are byte-aligned and end on a 4-byte boundary, so the counters fall on their
// natural alignment with no padding (checked below), and can be used as ordinary DWORD arrays.
struct SHashFile {
  SFrameInfoHash vFrameInfoHash[kcMinutes][kcSeconds][kcSlotsPerSecond];
  DWORD vHourFlagCounters[kcFlagBits];                             // frames with bit b set
  DWORD vMinuteFlagCounters[kcMinutes][kcFlagBits];                // ... in minute m
  DWORD vSecondFlagCounters[kcMinutes * kcSeconds][kcFlagBits];  // ... in second m * 60 + s
};

static_assert(std::endian::native == std::endian::little, "the hour files are read in place");
static_assert(sizeof(SFrameHeader) == 28);
static_assert(offsetof(SFrameHeader, ullSignature) == 0);
static_assert(offsetof(SFrameHeader, ftTime) == 8);
static_assert(offsetof(SFrameHeader, dwFlags) == 16);
static_assert(offsetof(SFrameHeader, dwCount) == 20);
static_assert(offsetof(SFrameHeader, dwFullSize) == 24);
static_assert(SFrameHeader::MakeSignature() == 0x6F4E785672546D51ull);

static_assert(sizeof(SFrameInfo) == 16);
static_assert(offsetof(SFrameInfo, dwFlags) == 0);
static_assert(offsetof(SFrameInfo, ullOffset) == 4);
static_assert(offsetof(SFrameInfo, dwSize) == 12);

static_assert(sizeof(SFrameInfoHash) == 3);
static_assert(sizeof(SHashFile) == 1548608 && sizeof(SHashFile) == 0x17A140);
static_assert(offsetof(SHashFile, vFrameInfoHash) == 0);
static_assert(offsetof(SHashFile, vHourFlagCounters) == 1080000);
static_assert(offsetof(SHashFile, vMinuteFlagCounters) == 1080128);
static_assert(offsetof(SHashFile, vSecondFlagCounters) == 1087808);

// Bytes a buffer takes in data.al: its 4-byte size, then its data.
constexpr DWORD BufferRecordSize(DWORD dwDataSize) { return static_cast<DWORD>(sizeof(DWORD)) + dwDataSize; }
// Bytes a frame takes in data.al, and so its SFrameInfo::dwSize.
constexpr DWORD FrameSize(DWORD dwFullSize) { return static_cast<DWORD>(sizeof(SFrameHeader)) + dwFullSize; }

// Frames in an hour whose descriptor.ald has ullSize bytes (entry 0 does not count).
constexpr ULONGLONG FrameCountFromDescriptorSize(ULONGLONG ullSize) {
  return ullSize < sizeof(SFrameInfo) ? 0 : ullSize / sizeof(SFrameInfo) - 1;
}

// The slot of a time inside its hour, from its UTC breakdown: 10 ms resolution.
constexpr DWORD SlotIndex(DWORD dwMinute, DWORD dwSecond, DWORD dwMilliseconds) {
  return (dwMinute * kcSeconds + dwSecond) * kcSlotsPerSecond + dwMilliseconds / 10;
}
constexpr DWORD SlotIndex(const SYSTEMTIME& st) { return SlotIndex(st.wMinute, st.wSecond, st.wMilliseconds); }
// Byte offset of a slot in descriptor.alh, and back.
constexpr DWORD SlotOffset(DWORD dwSlot) { return dwSlot * static_cast<DWORD>(sizeof(SFrameInfoHash)); }
constexpr DWORD SlotFromOffset(DWORD dwOffset) { return dwOffset / static_cast<DWORD>(sizeof(SFrameInfoHash)); }

// Minute, second and millisecond (a multiple of 10) of a slot; the hour's other fields stay.
inline void SlotToSystemTime(DWORD dwSlot, SYSTEMTIME* pst) {
  pst->wMinute = static_cast<WORD>(dwSlot / (kcSeconds * kcSlotsPerSecond));
  pst->wSecond = static_cast<WORD>((dwSlot % (kcSeconds * kcSlotsPerSecond)) / kcSlotsPerSecond);
  pst->wMilliseconds = static_cast<WORD>((dwSlot % kcSlotsPerSecond) * 10);
}
// The time of a slot as a frame time, from the start of its hour.
constexpr ULONGLONG SlotTime(ULONGLONG ullHourStart, DWORD dwSlot) { return ullHourStart + dwSlot * kullTicksPerSlot; }

// Byte offsets of the flag counters of a minute and of a second in descriptor.alh.
constexpr DWORD MinuteCountersOffset(DWORD dwMinute) {
  return static_cast<DWORD>(offsetof(SHashFile, vMinuteFlagCounters)) + kcFlagBits * sizeof(DWORD) * dwMinute;
}
constexpr DWORD SecondCountersOffset(DWORD dwMinute, DWORD dwSecond) {
  return static_cast<DWORD>(offsetof(SHashFile, vSecondFlagCounters)) +
         kcFlagBits * sizeof(DWORD) * (dwMinute * kcSeconds + dwSecond);
}

// Counts one frame with flags dwFlags at minute m, second s: for each set bit, the hour, minute
// and second counters of that bit, in that order.
inline void AddFlagCounters(SHashFile* pHash, DWORD dwMinute, DWORD dwSecond, DWORD dwFlags) {
  for (DWORD b = 0; b < kcFlagBits; ++b) {
    if (!(dwFlags & (1u << b))) continue;
    ++pHash->vHourFlagCounters[b];
    ++pHash->vMinuteFlagCounters[dwMinute][b];
    ++pHash->vSecondFlagCounters[dwMinute * kcSeconds + dwSecond][b];
  }
}

// Bit b set when counter b is not zero: the flags seen in an hour, minute or second.
inline DWORD FlagMask(const DWORD (&vCounters)[kcFlagBits]) {
  DWORD dwMask = 0;
  for (DWORD b = 0; b < kcFlagBits; ++b) {
    if (vCounters[b]) dwMask |= 1u << b;
  }
  return dwMask;
}

}  // namespace NSHours
