// The hour files' bytes: a frame and its descriptor entry as they land on disk, the slot grid of the
// hash file and where its counters are.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "hours/HourFormat.h"
#include "platform/os.h"

using namespace NSHours;

namespace {

template <class T>
std::string Bytes(const T& value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof(T));
}

std::string Le32(DWORD dw) {
  return {static_cast<char>(dw), static_cast<char>(dw >> 8), static_cast<char>(dw >> 16), static_cast<char>(dw >> 24)};
}

std::string Le64(ULONGLONG ull) { return Le32(static_cast<DWORD>(ull)) + Le32(static_cast<DWORD>(ull >> 32)); }

DWORD CounterAt(const SHashFile& hash, size_t cbOffset) {
  DWORD dw;
  std::memcpy(&dw, reinterpret_cast<const char*>(&hash) + cbOffset, sizeof(dw));
  return dw;
}

}  // namespace

TEST(HourFormat, AFrameOfTwoBuffersIs41BytesWithItsDescriptorEntry) {
  const SYSTEMTIME st = {2021, 3, 0, 7, 12, 34, 56, 789};
  FILETIME ftTime;
  ASSERT_TRUE(NSPlatform::SysTimeToFileTime(&st, &ftTime));
  const DWORD dwFullSize = BufferRecordSize(5) + BufferRecordSize(0);
  const SFrameHeader header = {SFrameHeader::MakeSignature(), ftTime, 0x80000005u, 2, dwFullSize};
  const std::string strFrame = Bytes(header) + Le32(5) + "hello" + Le32(0);
  EXPECT_EQ(dwFullSize, 13u);
  EXPECT_EQ(FrameSize(dwFullSize), 41u);
  EXPECT_EQ(strFrame.size(), 41u);
  EXPECT_EQ(strFrame.substr(0, 28), std::string("QmTrVxNo") + Le64(NSPlatform::FileTimeToU64(ftTime)) +
                                        Le32(0x80000005u) + Le32(2) + Le32(13));

  // The offset is unaligned inside the entry.
  const SFrameInfo info = {0x80000005u, 0x0102030405060708ull, FrameSize(dwFullSize)};
  EXPECT_EQ(Bytes(info), Le32(0x80000005u) + Le64(0x0102030405060708ull) + Le32(41));
  EXPECT_EQ(FrameCountFromDescriptorSize(16), 0u);
  EXPECT_EQ(FrameCountFromDescriptorSize(32), 1u);
  EXPECT_EQ(FrameCountFromDescriptorSize(0), 0u);
}

TEST(HourFormat, SlotsAre10MillisecondsWide) {
  EXPECT_EQ(SlotIndex(0, 0, 1), 0u);
  EXPECT_EQ(SlotIndex(0, 0, 9), 0u);
  EXPECT_EQ(SlotIndex(0, 0, 10), 1u);
  const SYSTEMTIME st = {2021, 3, 0, 7, 12, 34, 56, 789};
  EXPECT_EQ(SlotIndex(st), 209678u);
  // 3 x ((34 x 60 + 56) x 100 + 78); 628,434 would be second 54.
  EXPECT_EQ(SlotOffset(SlotIndex(st)), 629034u);
  EXPECT_EQ(SlotIndex(59, 59, 995), kcSlots - 1);
  EXPECT_EQ(SlotOffset(kcSlots - 1), 1079997u);
  EXPECT_EQ(SlotFromOffset(1079997), kcSlots - 1);

  // The slot's time by arithmetic agrees with the calendar conversion of its breakdown.
  const SYSTEMTIME stHour = {2021, 3, 0, 7, 10, 0, 0, 0};
  FILETIME ftHour, ftExpected;
  ASSERT_TRUE(NSPlatform::SysTimeToFileTime(&stHour, &ftHour));
  const DWORD adwSlots[] = {0, 1, 99, 100, 5999, 6000, 209678, kcSlots - 1};
  for (DWORD dwSlot : adwSlots) {
    SYSTEMTIME stSlot = stHour;
    SlotToSystemTime(dwSlot, &stSlot);
    EXPECT_EQ(SlotIndex(stSlot), dwSlot);
    ASSERT_TRUE(NSPlatform::SysTimeToFileTime(&stSlot, &ftExpected));
    EXPECT_EQ(SlotTime(NSPlatform::FileTimeToU64(ftHour), dwSlot), NSPlatform::FileTimeToU64(ftExpected)) << dwSlot;
  }
  SYSTEMTIME stLast = stHour;
  SlotToSystemTime(kcSlots - 1, &stLast);
  EXPECT_EQ(stLast.wMinute, 59);
  EXPECT_EQ(stLast.wSecond, 59);
  EXPECT_EQ(stLast.wMilliseconds, 990);
}

TEST(HourFormat, HashFileSlotsAndCountersAtTheirOffsets) {
  auto pHash = std::make_unique<SHashFile>();
  std::memset(pHash.get(), 0, sizeof(SHashFile));
  const unsigned char* pb = reinterpret_cast<const unsigned char*>(pHash.get());

  // 24 bits, little-endian; larger indexes lose their high bits.
  pHash->vFrameInfoHash[34][56][78].SetIndex(1);
  EXPECT_EQ(pb[629034], 1);
  EXPECT_EQ(pb[629035], 0);
  EXPECT_EQ(pb[629036], 0);
  pHash->vFrameInfoHash[34][56][78].SetIndex(0x01123456u);
  EXPECT_EQ(pb[629034], 0x56);
  EXPECT_EQ(pb[629035], 0x34);
  EXPECT_EQ(pb[629036], 0x12);
  EXPECT_EQ(pHash->vFrameInfoHash[34][56][78].GetIndex(), 0x123456u);
  EXPECT_EQ(pb[629037], 0);

  AddFlagCounters(pHash.get(), 34, 56, 0x80000001u);
  AddFlagCounters(pHash.get(), 34, 57, 0x00000001u);
  EXPECT_EQ(CounterAt(*pHash, 1080000), 2u);        // hour, bit 0
  EXPECT_EQ(CounterAt(*pHash, 1080000 + 124), 1u);  // hour, bit 31
  EXPECT_EQ(MinuteCountersOffset(34), 1084480u);
  EXPECT_EQ(CounterAt(*pHash, 1084480), 2u);
  EXPECT_EQ(CounterAt(*pHash, 1084480 + 124), 1u);
  EXPECT_EQ(SecondCountersOffset(34, 56), 1356096u);
  EXPECT_EQ(CounterAt(*pHash, 1356096), 1u);
  EXPECT_EQ(CounterAt(*pHash, 1356096 + 124), 1u);
  EXPECT_EQ(CounterAt(*pHash, SecondCountersOffset(34, 57)), 1u);
  EXPECT_EQ(SecondCountersOffset(59, 59) + 128, sizeof(SHashFile));

  EXPECT_EQ(FlagMask(pHash->vHourFlagCounters), 0x80000001u);
  EXPECT_EQ(FlagMask(pHash->vMinuteFlagCounters[34]), 0x80000001u);
  EXPECT_EQ(FlagMask(pHash->vSecondFlagCounters[34 * 60 + 57]), 0x1u);
  EXPECT_EQ(FlagMask(pHash->vMinuteFlagCounters[33]), 0u);
}
