// The results Kronvale answers beyond S_OK, S_FALSE and the common COM codes (E_POINTER,
// E_INVALIDARG, E_NOTIMPL, E_OUTOFMEMORY, E_ACCESSDENIED, E_FAIL, E_UNEXPECTED), by name.
//
// Most are Win32 errors as HRESULTs (0x80070000 | code); the values are the same on Windows and
// Linux. The engine, its tests, its benchmarks and the command-line tool all name results from this
// header; clients may too. The text of any of them comes from the system's message table (on Linux
// the library carries the same texts): NSPlatform::GetSystemErrorText inside the engine.
#ifndef KRONVALE_RESULTS_H
#define KRONVALE_RESULTS_H

#ifdef _WIN32
#include <windows.h>
#else
#include <cstdint>
typedef int32_t HRESULT;  // the type of the Kronvale COM base on Linux
#endif

namespace NSKronvale {

// The record or its archive is busy (a record operation that may not switch hours now).
constexpr HRESULT khrPending = static_cast<HRESULT>(0x8000000Au);  // E_PENDING

// Files and paths.
constexpr HRESULT khrFileNotFound = static_cast<HRESULT>(0x80070002u);  // no such file, or no such hour
constexpr HRESULT khrPathNotFound = static_cast<HRESULT>(0x80070003u);  // no such archive, record or directory
constexpr HRESULT khrAccessDenied = static_cast<HRESULT>(0x80070005u);  // E_ACCESSDENIED
constexpr HRESULT khrInvalidData = static_cast<HRESULT>(0x8007000Du);   // a settings or multipart file is malformed
constexpr HRESULT khrWriteFault = static_cast<HRESULT>(0x8007001Du);    // a write stopped short
constexpr HRESULT khrReadFault = static_cast<HRESULT>(0x8007001Eu);     // a read stopped short
constexpr HRESULT khrSharingViolation = static_cast<HRESULT>(0x80070020u);  // another open refuses this one
constexpr HRESULT khrLockViolation = static_cast<HRESULT>(0x80070021u);     // a locked range, or a read-only stream
constexpr HRESULT khrDiskFull = static_cast<HRESULT>(0x80070070u);          // ERROR_DISK_FULL
constexpr HRESULT khrHandleDiskFull = static_cast<HRESULT>(0x80070027u);    // ERROR_HANDLE_DISK_FULL
constexpr HRESULT khrInsufficientBuffer = static_cast<HRESULT>(0x8007007Au);  // more buffers or bytes than given
constexpr HRESULT khrInvalidName = static_cast<HRESULT>(0x8007007Bu);         // a name the file system refuses
constexpr HRESULT khrDirectoryNotEmpty = static_cast<HRESULT>(0x80070091u);   // CreateArchive on a used directory
constexpr HRESULT khrAlreadyExists = static_cast<HRESULT>(0x800700B7u);       // ERROR_ALREADY_EXISTS
constexpr HRESULT khrFilenameTooLong = static_cast<HRESULT>(0x800700CEu);     // a path the file system cannot hold

// Frames and hours.
constexpr HRESULT khrNotFound = static_cast<HRESULT>(0x80070490u);      // no frame at that time, or none further
constexpr HRESULT khrFileCorrupt = static_cast<HRESULT>(0x80070570u);   // an hour whose files disagree
constexpr HRESULT khrInvalidState = static_cast<HRESULT>(0x8007139Fu);  // a record with no archive, an hour not open

// Archives and records.
constexpr HRESULT khrLocked = static_cast<HRESULT>(0x8007006Cu);          // ERROR_DRIVE_LOCKED: freed or locked
constexpr HRESULT khrNotEnoughQuota = static_cast<HRESULT>(0x80070718u);  // the archive refuses further data
constexpr HRESULT khrBusy = static_cast<HRESULT>(0x800700AAu);            // ERROR_BUSY: another process writes the record
constexpr HRESULT khrNothingDeleted = static_cast<HRESULT>(0x800720CEu);  // retention found nothing it may delete
constexpr HRESULT khrTooManyBuffers = static_cast<HRESULT>(0x80072024u);  // an extract read asks for more buffers
constexpr HRESULT khrNoPartition = static_cast<HRESULT>(0x80072755u);     // every partition refused the write

// Registration and resources.
constexpr HRESULT khrWriteProtect = static_cast<HRESULT>(0x80070013u);             // ERROR_WRITE_PROTECT
constexpr HRESULT khrResourceNameNotFound = static_cast<HRESULT>(0x80070716u);     // no resource of that id
constexpr HRESULT khrResourceLangNotFound = static_cast<HRESULT>(0x80070717u);     // not in that language
constexpr HRESULT khrRegistrarSyntax = static_cast<HRESULT>(0x80020009u);          // DISP_E_EXCEPTION: a bad script

// Streams.
constexpr HRESULT khrStgInvalidFunction = static_cast<HRESULT>(0x80030001u);  // a stream size above 4 GiB - 1

}  // namespace NSKronvale

#endif  // KRONVALE_RESULTS_H
