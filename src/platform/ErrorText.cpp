// The texts of the results this engine meets, as Windows words them, so that reports and the tool
// read the same on both platforms. Linux has only these; Windows asks its message table first and
// uses these where the system has none (Wine lacks many).
#include "platform/os.h"

namespace NSPlatform {

namespace {

struct SMessage {
  HRESULT hr;
  const char* pszText;
};

constexpr SMessage g_aMessages[] = {
    {S_OK, "The operation completed successfully."},
    {KvHResultFromWin32(ERROR_INVALID_FUNCTION), "Incorrect function."},
    {KvHResultFromWin32(ERROR_FILE_NOT_FOUND), "The system cannot find the file specified."},
    {KvHResultFromWin32(ERROR_PATH_NOT_FOUND), "The system cannot find the path specified."},
    {KvHResultFromWin32(ERROR_TOO_MANY_OPEN_FILES), "The system cannot open the file."},
    {KvHResultFromWin32(ERROR_ACCESS_DENIED), "Access is denied."},
    {KvHResultFromWin32(ERROR_INVALID_HANDLE), "The handle is invalid."},
    {KvHResultFromWin32(ERROR_NOT_ENOUGH_MEMORY), "Not enough memory resources are available to process this command."},
    {KvHResultFromWin32(ERROR_INVALID_DATA), "The data is invalid."},
    {KvHResultFromWin32(ERROR_OUTOFMEMORY), "Not enough memory resources are available to complete this operation."},
    {KvHResultFromWin32(ERROR_NOT_SAME_DEVICE), "The system cannot move the file to a different disk drive."},
    {KvHResultFromWin32(ERROR_NO_MORE_FILES), "There are no more files."},
    {KvHResultFromWin32(ERROR_WRITE_PROTECT), "The media is write protected."},
    {KvHResultFromWin32(ERROR_NOT_READY), "The device is not ready."},
    {KvHResultFromWin32(ERROR_WRITE_FAULT), "The system cannot write to the specified device."},
    {KvHResultFromWin32(ERROR_READ_FAULT), "The system cannot read from the specified device."},
    {KvHResultFromWin32(ERROR_SHARING_VIOLATION), "The process cannot access the file because it is being used by another process."},
    {KvHResultFromWin32(ERROR_LOCK_VIOLATION), "The process cannot access the file because another process has locked a portion of the file."},
    {KvHResultFromWin32(ERROR_HANDLE_EOF), "Reached the end of the file."},
    {KvHResultFromWin32(ERROR_HANDLE_DISK_FULL), "The disk is full."},
    {KvHResultFromWin32(ERROR_NOT_SUPPORTED), "The request is not supported."},
    {KvHResultFromWin32(ERROR_FILE_EXISTS), "The file exists."},
    {KvHResultFromWin32(ERROR_INVALID_PARAMETER), "The parameter is incorrect."},
    {KvHResultFromWin32(ERROR_DISK_FULL), "There is not enough space on the disk."},
    {KvHResultFromWin32(ERROR_INSUFFICIENT_BUFFER), "The data area passed to a system call is too small."},
    {KvHResultFromWin32(ERROR_INVALID_NAME), "The filename, directory name, or volume label syntax is incorrect."},
    {KvHResultFromWin32(ERROR_MOD_NOT_FOUND), "The specified module could not be found."},
    {KvHResultFromWin32(ERROR_PROC_NOT_FOUND), "The specified procedure could not be found."},
    {KvHResultFromWin32(ERROR_NEGATIVE_SEEK), "An attempt was made to move the file pointer before the beginning of the file."},
    {KvHResultFromWin32(ERROR_DIR_NOT_EMPTY), "The directory is not empty."},
    {KvHResultFromWin32(ERROR_NOT_LOCKED), "The segment is already unlocked."},
    {KvHResultFromWin32(ERROR_BAD_PATHNAME), "The specified path is invalid."},
    {KvHResultFromWin32(ERROR_BUSY), "The requested resource is in use."},
    {KvHResultFromWin32(ERROR_ALREADY_EXISTS), "Cannot create a file when that file already exists."},
    {KvHResultFromWin32(ERROR_FILENAME_EXCED_RANGE), "The filename or extension is too long."},
    {KvHResultFromWin32(ERROR_FILE_TOO_LARGE), "The file size exceeds the limit allowed and cannot be saved."},
    {KvHResultFromWin32(ERROR_DIRECTORY), "The directory name is invalid."},
    {KvHResultFromWin32(ERROR_NOACCESS), "Invalid access to memory location."},
    {KvHResultFromWin32(ERROR_FILE_INVALID), "The volume for a file has been externally altered so that the opened file is no longer valid."},
    {KvHResultFromWin32(ERROR_IO_DEVICE), "The request could not be performed because of an I/O device error."},
    {KvHResultFromWin32(ERROR_NOT_FOUND), "Element not found."},
    {KvHResultFromWin32(ERROR_CANCELLED), "The operation was canceled by the user."},
    {KvHResultFromWin32(ERROR_FILE_CORRUPT), "The file or directory is corrupted and unreadable."},
    {KvHResultFromWin32(ERROR_TIMEOUT), "This operation returned because the timeout period expired."},
    {KvHResultFromWin32(ERROR_INVALID_STATE), "The group or resource is not in the correct state to perform the requested operation."},
    {KvHResultFromWin32(ERROR_DRIVE_LOCKED), "The disk is in use or locked by another process."},
    {KvHResultFromWin32(ERROR_NOT_ENOUGH_QUOTA), "Not enough quota is available to process this command."},
    {static_cast<HRESULT>(0x800720CEu), "Nothing in the archive may be deleted to bring it within its limits."},
    {static_cast<HRESULT>(0x80072024u), "The administrative limit for this request was exceeded."},
    {static_cast<HRESULT>(0x80072755u), "Ran out of disk quota."},
    {E_PENDING, "The data necessary to complete this operation is not yet available."},
    {STG_E_INVALIDFUNCTION, "Unable to perform requested operation."},
    {E_NOTIMPL, "Not implemented"},
    {E_NOINTERFACE, "No such interface supported"},
    {E_POINTER, "Invalid pointer"},
    {E_ABORT, "Operation aborted"},
    {E_FAIL, "Unspecified error"},
    {E_UNEXPECTED, "Catastrophic failure"},
    {CLASS_E_NOAGGREGATION, "Class does not support aggregation (or class object is remote)"},
    {CLASS_E_CLASSNOTAVAILABLE, "ClassFactory cannot supply requested class"},
    {REGDB_E_CLASSNOTREG, "Class not registered"},
};

}  // namespace

WString GetKnownErrorText(HRESULT hr) {
  for (const SMessage& message : g_aMessages)
    if (message.hr == hr) return Utf8ToWide(message.pszText);
  return WString();
}

}  // namespace NSPlatform
