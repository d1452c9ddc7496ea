// Results the records and archives answer, by name.
#pragma once

#include "platform/wintypes.h"

namespace NSRecords {

constexpr HRESULT khrPending = static_cast<HRESULT>(0x8000000Au);         // E_PENDING: the record is busy
constexpr HRESULT khrFileNotFound = KvHResultFromWin32(ERROR_FILE_NOT_FOUND);  // 0x80070002
constexpr HRESULT khrPathNotFound = KvHResultFromWin32(ERROR_PATH_NOT_FOUND);  // 0x80070003
constexpr HRESULT khrLocked = KvHResultFromWin32(108);                   // ERROR_DRIVE_LOCKED, 0x8007006C
constexpr HRESULT khrNotFound = KvHResultFromWin32(ERROR_NOT_FOUND);      // 0x80070490
constexpr HRESULT khrFileCorrupt = KvHResultFromWin32(ERROR_FILE_CORRUPT);  // 0x80070570
constexpr HRESULT khrNotEnoughQuota = KvHResultFromWin32(1816);          // ERROR_NOT_ENOUGH_QUOTA, 0x80070718
constexpr HRESULT khrInvalidState = KvHResultFromWin32(ERROR_INVALID_STATE);  // 0x8007139F

}  // namespace NSRecords
