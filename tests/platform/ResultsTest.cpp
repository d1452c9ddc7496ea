// The named results: their values are the Windows ones on both platforms, and each has a text that a
// person can read, on both (Linux carries the texts itself; Wine's message table lacks some).
#include <gtest/gtest.h>

#include <kronvale/KronvaleResults.h>

#include "platform/os.h"

using namespace NSKronvale;

TEST(Results, NamedResultsHaveTheirWindowsValuesAndATextOnBothPlatforms) {
  struct SCase {
    HRESULT hr;
    unsigned long ulValue;
  };
  const SCase aCases[] = {
      {khrPending, 0x8000000Aul},          {khrFileNotFound, 0x80070002ul},    {khrPathNotFound, 0x80070003ul},
      {khrAccessDenied, 0x80070005ul},     {khrInvalidData, 0x8007000Dul},     {khrWriteFault, 0x8007001Dul},
      {khrReadFault, 0x8007001Eul},        {khrSharingViolation, 0x80070020ul}, {khrLockViolation, 0x80070021ul},
      {khrDiskFull, 0x80070070ul},         {khrHandleDiskFull, 0x80070027ul},  {khrInsufficientBuffer, 0x8007007Aul},
      {khrInvalidName, 0x8007007Bul},      {khrDirectoryNotEmpty, 0x80070091ul}, {khrAlreadyExists, 0x800700B7ul},
      {khrFilenameTooLong, 0x800700CEul},  {khrNotFound, 0x80070490ul},        {khrFileCorrupt, 0x80070570ul},
      {khrInvalidState, 0x8007139Ful},     {khrLocked, 0x8007006Cul},          {khrNotEnoughQuota, 0x80070718ul},
      {khrBusy, 0x800700AAul},             {khrNothingDeleted, 0x800720CEul},  {khrTooManyBuffers, 0x80072024ul},
      {khrNoPartition, 0x80072755ul},      {khrStgInvalidFunction, 0x80030001ul},
  };
  for (const SCase& c : aCases) {
    EXPECT_EQ(static_cast<unsigned long>(static_cast<uint32_t>(c.hr)), c.ulValue);
    EXPECT_FALSE(NSPlatform::GetSystemErrorText(c.hr).empty()) << std::hex << c.ulValue;
  }
  EXPECT_EQ(NSPlatform::WideToUtf8(NSPlatform::GetKnownErrorText(khrPathNotFound)),
            "The system cannot find the path specified.");
}
