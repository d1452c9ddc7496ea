// The platform layer: the only code that calls the operating system.
//
// Everything above this header is one source for Windows and Linux. win32/*.cpp implements it with
// the Win32 API, posix/*.cpp with POSIX calls giving the same results: the same Win32 error codes
// (read with NSPlatform::GetLastError after a failure) and the same HRESULTs (0x80070000 | code).
// Functions that return HRESULT also leave the Win32 code in the thread's last-error value.
//
// Names avoid the Win32 names that <windows.h> turns into A/W macros (CreateDirectory, DeleteFile...).
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/wintypes.h"

namespace NSPlatform {

// ---------------------------------------------------------------------------------------------
// Errors
// ---------------------------------------------------------------------------------------------

// The calling thread's last Win32 error (GetLastError/SetLastError on Windows, a thread-local on
// Linux, where the platform functions set it as Win32 would).
DWORD GetLastError();
void SetLastError(DWORD dwError);

// The HRESULT of the thread's last error; E_FAIL when the last error is 0, so that a failure
// is never reported as success.
HRESULT HResultFromLastError();

// The message text of an HRESULT, without a trailing line break: on Windows the system's
// (FormatMessageW), else the engine's own text for the results it answers (KronvaleResults.h) and
// the Win32 errors it meets, worded as Windows words them; empty when neither has one.
WString GetSystemErrorText(HRESULT hr);
// The engine's own text alone (what Linux answers above).
WString GetKnownErrorText(HRESULT hr);

// ---------------------------------------------------------------------------------------------
// Text
// ---------------------------------------------------------------------------------------------

// Conversions at the edges (POSIX system calls, log formatting). Invalid sequences become U+FFFD.
std::string WideToUtf8(WStringView str);
WString Utf8ToWide(std::string_view str);
// Length of a zero-terminated wide string.
size_t WideLength(const WCHAR* psz);

// ---------------------------------------------------------------------------------------------
// Files
// ---------------------------------------------------------------------------------------------

// A buffer of a gathered write.
struct SIoBuffer {
  const void* pv;
  DWORD cb;
};

// An open file. Access, share, creation and flag words take the Win32 constants (GENERIC_READ,
// FILE_SHARE_READ, OPEN_ALWAYS, FILE_FLAG_WRITE_THROUGH, FILE_FLAG_DELETE_ON_CLOSE...). Share modes
// are honoured between opens of one process on Linux too: a conflicting open, or a delete of a file
// open without FILE_SHARE_DELETE, fails with ERROR_SHARING_VIOLATION. A read-only file
// (FILE_ATTRIBUTE_READONLY) refuses writers and deletion with ERROR_ACCESS_DENIED on both platforms,
// whatever the user's privileges. Not thread-safe: one owner uses it at a time, except ReadAt and
// WriteAt, which may run concurrently on one object.
class CFile {
 public:
  CFile();
  ~CFile();
  CFile(CFile&& other) noexcept;
  CFile& operator=(CFile&& other) noexcept;
  CFile(const CFile&) = delete;
  CFile& operator=(const CFile&) = delete;

  // Opens or creates. *pbExisted (optional) tells whether the file was there before (the Win32
  // ERROR_ALREADY_EXISTS of OPEN_ALWAYS/CREATE_ALWAYS). A missing file is ERROR_FILE_NOT_FOUND, a
  // missing directory on the way ERROR_PATH_NOT_FOUND, CREATE_NEW of an existing file
  // ERROR_FILE_EXISTS, a directory opened as a file ERROR_ACCESS_DENIED.
  HRESULT Open(const WCHAR* pszPath, DWORD dwAccess, DWORD dwShare, DWORD dwCreation, DWORD dwFlagsAndAttributes,
               bool* pbExisted = nullptr);
  bool IsOpen() const;
  // Closes the handle; safe to call when not open. A delete-on-close file disappears with it.
  void Close();
  const WString& GetPath() const { return m_strPath; }

  // At the current position, which moves by the count transferred. A read at or past the end of
  // the file succeeds with *pcbRead 0.
  HRESULT Read(void* pv, DWORD cb, DWORD* pcbRead);
  HRESULT Write(const void* pv, DWORD cb, DWORD* pcbWritten);
  // Writes the buffers one after the other at the current position with as few system calls as the
  // platform allows (one on Linux). *pcbWritten is the total written.
  HRESULT WriteGather(const SIoBuffer* pBuffers, size_t cBuffers, DWORD* pcbWritten);
  // The same at an offset, like WriteAt: the current position is not used (and on Linux not changed;
  // Windows leaves it after the data written, as any positional write does there).
  HRESULT WriteGatherAt(ULONGLONG ullOffset, const SIoBuffer* pBuffers, size_t cBuffers, DWORD* pcbWritten);
  // At an offset; the current position is not used (and on Linux not changed).
  HRESULT ReadAt(ULONGLONG ullOffset, void* pv, DWORD cb, DWORD* pcbRead);
  HRESULT WriteAt(ULONGLONG ullOffset, const void* pv, DWORD cb, DWORD* pcbWritten);

  // dwMethod: FILE_BEGIN, FILE_CURRENT, FILE_END. A negative resulting position is
  // ERROR_NEGATIVE_SEEK. pullNewPosition is optional.
  HRESULT Seek(LONGLONG llDistance, DWORD dwMethod, ULONGLONG* pullNewPosition);
  HRESULT GetSize(ULONGLONG* pullSize) const;
  // Creation, last-access and last-write times (UTC). Linux has no creation time: the last status
  // change stands in for it.
  HRESULT GetTimes(FILETIME* pftCreation, FILETIME* pftLastAccess, FILETIME* pftLastWrite) const;
  // Cuts or extends the file at the current position.
  HRESULT SetEndOfFile();
  // Writes the file's buffers through to the device.
  HRESULT Flush();
  // Byte-range locks, exclusive, not waiting: a range held through another open of the file
  // is ERROR_LOCK_VIOLATION; unlocking a range not locked is ERROR_NOT_LOCKED.
  HRESULT LockRange(ULONGLONG ullOffset, ULONGLONG cb);
  HRESULT UnlockRange(ULONGLONG ullOffset, ULONGLONG cb);

  // The OS handle (HANDLE on Windows, the descriptor cast to intptr_t on Linux); for the mapping.
  intptr_t NativeHandle() const { return m_hNative; }

 private:
  friend class CFileMapping;
  intptr_t m_hNative;
  DWORD m_dwAccess = 0;
  WString m_strPath;
  void* m_pShareEntry = nullptr;  // Linux: this open's entry in the process-wide share table
  void* m_pMemFile = nullptr;     // an open of the in-memory file system (MemFs.h), else null
};

// A read-write mapping of a whole file, at its size when mapped. An empty file cannot be mapped
// (ERROR_FILE_INVALID, as Windows answers). The file must be open for reading and writing.
class CFileMapping {
 public:
  CFileMapping();
  ~CFileMapping();
  CFileMapping(const CFileMapping&) = delete;
  CFileMapping& operator=(const CFileMapping&) = delete;

  HRESULT Map(const CFile& file);
  bool IsMapped() const { return m_pView != nullptr; }
  void* GetView() const { return m_pView; }
  ULONGLONG GetSize() const { return m_ullSize; }
  // Writes the view's dirty pages to the file (FlushViewOfFile / msync).
  HRESULT Flush();
  void Unmap();

 private:
  void* m_pView;
  ULONGLONG m_ullSize;
  intptr_t m_hMapping;  // Windows: the mapping object; unused on Linux
  WString m_strPath;    // the mapped file, for the fault seam's path rules
  void* m_pMemMapping = nullptr;  // a view of the in-memory file system (MemFs.h), else null
};

// Deletes a file (not a directory). A read-only file: ERROR_ACCESS_DENIED.
HRESULT RemoveFile(const WCHAR* pszPath);
// Renames a file or directory, replacing an existing destination file.
HRESULT RenameFile(const WCHAR* pszFrom, const WCHAR* pszTo);
// The directory for temporary files, with a trailing separator.
HRESULT GetTempDirectory(WString* pstrDirectory);
// Creates a new empty file with a unique name in pszDirectory (GetTempFileNameW: prefix, then a
// hexadecimal number, ".tmp") and returns its full path.
HRESULT CreateTempFile(const WCHAR* pszDirectory, const WCHAR* pszPrefix, WString* pstrPath);

// FILE_ATTRIBUTE_DIRECTORY, FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_NORMAL (a file with neither).
HRESULT GetAttributes(const WCHAR* pszPath, DWORD* pdwAttributes);
// Only FILE_ATTRIBUTE_READONLY has an effect on Linux (the owner's write permission).
HRESULT SetAttributes(const WCHAR* pszPath, DWORD dwAttributes);

// ---------------------------------------------------------------------------------------------
// Directories
// ---------------------------------------------------------------------------------------------

// One level; the parent must exist (else ERROR_PATH_NOT_FOUND); an existing path is
// ERROR_ALREADY_EXISTS.
HRESULT CreateDir(const WCHAR* pszPath);
// With every missing parent (SHCreateDirectoryExW). An existing directory answers
// HRESULT(ERROR_ALREADY_EXISTS), an existing file on the way ERROR_FILE_EXISTS or ERROR_PATH_NOT_FOUND.
HRESULT CreateDirTree(const WCHAR* pszPath);
// An empty directory. Not empty: ERROR_DIR_NOT_EMPTY; read-only: ERROR_ACCESS_DENIED.
HRESULT RemoveDir(const WCHAR* pszPath);

struct SDirEntry {
  WString strName;  // name only
  DWORD dwAttributes;
  ULONGLONG ullSize;
  FILETIME ftLastWrite;
  bool IsDirectory() const { return (dwAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
};
// The children of a directory, without "." and "..", sorted by name (ordinal, UTF-16 code units),
// optionally only those whose name matches pszSpec (MatchSpec). A missing or non-directory path:
// ERROR_PATH_NOT_FOUND or ERROR_DIRECTORY.
HRESULT ListDir(const WCHAR* pszDirectory, std::vector<SDirEntry>* pvEntries, const WCHAR* pszSpec = nullptr);
// The names of the directories in a directory, sorted as ListDir sorts them, and failing as it
// does. Cheaper than ListDir where the file system tells an entry's type with its name: nothing
// else is asked of the entries.
HRESULT ListSubdirectories(const WCHAR* pszDirectory, std::vector<WString>* pvNames);

bool PathExists(const WCHAR* pszPath);
bool IsDirectory(const WCHAR* pszPath);
// True for an existing directory with no children (PathIsDirectoryEmptyW).
bool IsDirectoryEmpty(const WCHAR* pszPath);
// Makes the names in a directory durable: a file created, renamed or deleted in it, or a directory
// made in it, survives a power cut once this returns (fsync of the directory on Linux, where a
// flushed file's own name may otherwise be lost). NTFS journals its names, so on Windows this only
// checks the directory. A missing path: ERROR_FILE_NOT_FOUND or ERROR_PATH_NOT_FOUND; a file:
// ERROR_DIRECTORY. A directory operation for the fault seam.
HRESULT FlushDirectory(const WCHAR* pszPath);
// Copies a file or a directory tree (SHFileOperationW copy, silent). Copying a directory onto a
// missing destination creates it with the source's contents; onto an existing directory, the source
// directory is copied into it by name as the shell does.
HRESULT CopyTree(const WCHAR* pszFrom, const WCHAR* pszTo);

// ---------------------------------------------------------------------------------------------
// Paths (Windows: '\'; Linux: '/')
// ---------------------------------------------------------------------------------------------

#ifdef _WIN32
constexpr WCHAR chPathSeparator = L'\\';
#else
constexpr WCHAR chPathSeparator = u'/';
#endif
bool IsPathSeparator(WCHAR ch);
// Removes "." segments and resolves ".." against the segment before it (PathCanonicalizeW); does
// not touch the file system. ".." above the root stays at the root.
WString CanonicalizePath(WStringView strPath);
// Joins with exactly one separator; an absolute pszMore replaces pszDirectory; the result is
// canonicalised (PathCombineW).
WString CombinePath(WStringView strDirectory, WStringView strMore);
// Appends a separator if the path has none at its end (PathAddBackslashW).
WString AddTrailingSeparator(WStringView strPath);
// Wildcard match of a name (not a path) with '*' and '?', case-insensitive as PathMatchSpecW;
// several patterns may be separated by ';'; "*.*" matches every name, including names with no dot.
bool MatchSpec(const WCHAR* pszName, const WCHAR* pszSpec);
// Absolute path of a possibly relative one, canonicalised (GetFullPathNameW).
HRESULT GetFullPath(const WCHAR* pszPath, WString* pstrFull);
// Whether the file system can hold the path: every name at most 255 units (UTF-16 code units on
// Windows, UTF-8 bytes on Linux) and the whole path shorter than MAX_PATH (260) on Windows, PATH_MAX
// (4096 bytes) on Linux. A longer one: ERROR_FILENAME_EXCED_RANGE, without touching the disk.
HRESULT CheckPathFits(WStringView strPath);
// The form under which two paths name the same object: lower-cased on Windows, where names are
// case-insensitive; unchanged on Linux.
WString FoldPathCase(WStringView strPath);

// ---------------------------------------------------------------------------------------------
// Volume
// ---------------------------------------------------------------------------------------------

// GetDiskFreeSpaceExW for the volume holding pszPath (which must exist). Any pointer may be null.
HRESULT GetFreeDiskSpace(const WCHAR* pszPath, ULONGLONG* pullFreeToCaller, ULONGLONG* pullTotal,
                         ULONGLONG* pullTotalFree);

// ---------------------------------------------------------------------------------------------
// Time
// ---------------------------------------------------------------------------------------------

void GetUtcFileTime(FILETIME* pft);
void GetUtcSystemTime(SYSTEMTIME* pst);
// With the Windows rules of validity: years 1601 to 30827, months 1-12, days of the month
// (leap years), hours < 24, minutes and seconds < 60, milliseconds < 1000; wDayOfWeek is ignored.
// Invalid input: false and ERROR_INVALID_PARAMETER.
bool SysTimeToFileTime(const SYSTEMTIME* pst, FILETIME* pft);
// Fails (false, ERROR_INVALID_PARAMETER) for values with the top bit set; fills wDayOfWeek.
bool FileTimeToSysTime(const FILETIME* pft, SYSTEMTIME* pst);
ULONGLONG GetTickCount64();
bool QueryPerfCounter(LONGLONG* pllCount);
bool QueryPerfFrequency(LONGLONG* pllFrequency);
void SleepMs(DWORD dwMilliseconds);

// The same conversions computed by arithmetic alone: what Linux uses, compiled on both platforms so
// tests can hold the two implementations against each other.
namespace NSPortable {
bool SysTimeToFileTime(const SYSTEMTIME* pst, FILETIME* pft);
bool FileTimeToSysTime(const FILETIME* pft, SYSTEMTIME* pst);
}  // namespace NSPortable

inline ULONGLONG FileTimeToU64(const FILETIME& ft) {
  return (static_cast<ULONGLONG>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}
inline FILETIME U64ToFileTime(ULONGLONG ull) {
  FILETIME ft;
  ft.dwLowDateTime = static_cast<DWORD>(ull);
  ft.dwHighDateTime = static_cast<DWORD>(ull >> 32);
  return ft;
}

// ---------------------------------------------------------------------------------------------
// Machine-wide settings
// ---------------------------------------------------------------------------------------------

// A 32-bit value of the machine: on Windows the REG_DWORD pszValue under HKEY_LOCAL_MACHINE\pszKey;
// on Linux the decimal number in the file <root>/<pszKey with '\' as '/'>/<pszValue>, where root
// is $KRONVALE_SETTINGS_ROOT or "/etc". Absent: ERROR_FILE_NOT_FOUND; not a 32-bit number:
// ERROR_INVALID_DATA.
HRESULT ReadMachineDword(const WCHAR* pszKey, const WCHAR* pszValue, DWORD* pdwValue);
HRESULT WriteMachineDword(const WCHAR* pszKey, const WCHAR* pszValue, DWORD dwValue);
HRESULT DeleteMachineValue(const WCHAR* pszKey, const WCHAR* pszValue);

// ---------------------------------------------------------------------------------------------
// Registry
// ---------------------------------------------------------------------------------------------

// The registry of Windows, reached by key paths ("CLSID\\{...}\\InprocServer32", '\\' between
// names) under one of three roots; each call opens what it needs and closes it again. Linux has no
// registry: every function answers ERROR_NOT_SUPPORTED there (COM registration does not exist on
// Linux; a client finds the library by its file name). Values are REG_SZ only; a null or empty
// value name is the key's default value.
enum class ERegistryRoot { ClassesRoot, LocalMachine, CurrentUser };

// Creates the key with every missing parent, or opens it when it exists.
HRESULT RegistryCreateKey(ERegistryRoot eRoot, const WCHAR* pszKey);
// S_OK when the key exists; a missing key (or parent): ERROR_FILE_NOT_FOUND.
HRESULT RegistryOpenKey(ERegistryRoot eRoot, const WCHAR* pszKey);
// Sets a REG_SZ value of an existing key (a missing key: ERROR_FILE_NOT_FOUND).
HRESULT RegistrySetString(ERegistryRoot eRoot, const WCHAR* pszKey, const WCHAR* pszName, const WCHAR* pszValue);
// Reads a REG_SZ value without its terminating zero. Missing: ERROR_FILE_NOT_FOUND; another type:
// ERROR_INVALID_DATA.
HRESULT RegistryGetString(ERegistryRoot eRoot, const WCHAR* pszKey, const WCHAR* pszName, WString* pstrValue);
// Missing key or value: ERROR_FILE_NOT_FOUND.
HRESULT RegistryDeleteValue(ERegistryRoot eRoot, const WCHAR* pszKey, const WCHAR* pszName);
// Deletes a key that has no subkeys (its values go with it). A key with subkeys is refused as
// Windows refuses it (ERROR_ACCESS_DENIED); missing: ERROR_FILE_NOT_FOUND.
HRESULT RegistryDeleteKey(ERegistryRoot eRoot, const WCHAR* pszKey);
// Deletes a key with everything under it. Missing: ERROR_FILE_NOT_FOUND.
HRESULT RegistryDeleteTree(ERegistryRoot eRoot, const WCHAR* pszKey);
// The names of the key's direct subkeys, in the order the registry gives them.
HRESULT RegistryEnumSubKeys(ERegistryRoot eRoot, const WCHAR* pszKey, std::vector<WString>* pvNames);
// How many values the key has, the default value included when it is set.
HRESULT RegistryCountValues(ERegistryRoot eRoot, const WCHAR* pszKey, DWORD* pcValues);

// ---------------------------------------------------------------------------------------------
// Resources of the module that holds this code
// ---------------------------------------------------------------------------------------------

// The bytes of a resource of the module (DLL or program) that contains the platform layer, found
// by type, numeric id and exact language (FindResourceExW; language 0 is LANG_NEUTRAL, for which
// Windows applies its own fallback order). Missing type: ERROR_RESOURCE_TYPE_NOT_FOUND, missing
// id: ERROR_RESOURCE_NAME_NOT_FOUND, missing language: ERROR_RESOURCE_LANG_NOT_FOUND. pszType is
// a name ("REGISTRY") or a numeric type made with KvResourceType. Linux modules carry no
// resources: ERROR_NOT_SUPPORTED (what Windows keeps in resources is compiled in there).
HRESULT LoadOwnResource(const WCHAR* pszType, UINT nId, WORD wLanguage, std::string* pBytes);
// A numeric resource type (MAKEINTRESOURCEW): 6 is the string table.
inline const WCHAR* KvResourceType(WORD wType) {
  return reinterpret_cast<const WCHAR*>(static_cast<ULONG_PTR>(wType));
}

// ---------------------------------------------------------------------------------------------
// Dynamic libraries
// ---------------------------------------------------------------------------------------------

// Loads a library by its Windows file name ("xmllog.dll"); Linux loads "libxmllog.so" (a name
// ending in ".dll" becomes lib<stem>.so; other names are used as they are), looked for first in the
// program's own directory, as Windows does, then as dlopen searches (the loading module's run path,
// LD_LIBRARY_PATH, the system). Missing: ERROR_MOD_NOT_FOUND.
HRESULT LoadDynamicLibrary(const WCHAR* pszName, HMODULE* phModule);
void* GetLibrarySymbol(HMODULE hModule, const char* pszName);
void FreeDynamicLibrary(HMODULE hModule);

// ---------------------------------------------------------------------------------------------
// The module that holds this code
// ---------------------------------------------------------------------------------------------

// The full path of the file of the module (DLL or program) that contains the platform layer:
// GetModuleHandleExW(FROM_ADDRESS) and GetModuleFileNameW on Windows, dladdr on Linux (made
// absolute). Registration writes it as the server's path.
HRESULT GetOwnModulePath(WString* pstrPath);

// ---------------------------------------------------------------------------------------------
// Thread locale
// ---------------------------------------------------------------------------------------------

// The calling thread's locale identifier (GetThreadLocale / SetThreadLocale). Windows resolves
// the default identifiers (0x800 system default, 0x400 user default) to the locale they stand for.
// Linux has no thread locale that Win32-style code could depend on: the identifier is only kept per
// thread (0x409 until set), so that code which saves and restores it is the same on both.
DWORD GetThreadLocaleId();
bool SetThreadLocaleId(DWORD lcid);
constexpr DWORD klcidSystemDefault = 0x800;

// ---------------------------------------------------------------------------------------------
// Threads and synchronisation
// ---------------------------------------------------------------------------------------------

DWORD GetCurrentThreadId();

// A recursive lock, as a Win32 critical section, spinning dwSpinCount times before it waits.
class COsCriticalSection {
 public:
  explicit COsCriticalSection(DWORD dwSpinCount = 0);
  ~COsCriticalSection();
  COsCriticalSection(const COsCriticalSection&) = delete;
  COsCriticalSection& operator=(const COsCriticalSection&) = delete;
  void Enter();
  bool TryEnter();
  void Leave();
  DWORD GetSpinCount() const { return m_dwSpinCount; }

 private:
  DWORD m_dwSpinCount;
  alignas(16) unsigned char m_storage[64];
};

// A Win32 event: manual or automatic reset.
class COsEvent {
 public:
  COsEvent(bool bManualReset, bool bInitialState);
  ~COsEvent();
  COsEvent(const COsEvent&) = delete;
  COsEvent& operator=(const COsEvent&) = delete;
  bool IsValid() const;
  void Set();
  void Reset();
  // WAIT_OBJECT_0 when signalled, WAIT_TIMEOUT, or WAIT_FAILED.
  DWORD Wait(DWORD dwMilliseconds);

 private:
  void* m_pImpl;
};

// An OS thread running a function object; Join waits for it to end. Destroying a thread that was
// started and not joined joins it.
class COsThread {
 public:
  COsThread();
  ~COsThread();
  COsThread(const COsThread&) = delete;
  COsThread& operator=(const COsThread&) = delete;
  HRESULT Start(std::function<void()> fnBody);
  bool IsStarted() const;
  // Whether the thread was ended from outside: on Windows by the process's exit (ExitProcess ends
  // the other threads before a DLL's exit handlers run). Always false on Linux, where nothing ends
  // a thread from outside. Safe to call from any thread.
  bool HasEnded() const;
  void Join();
  bool SetAffinityMask(ULONGLONG ullMask);
  // THREAD_PRIORITY_* values. Linux maps them to nice values where the process may; a refusal
  // answers false and changes nothing.
  bool SetPriority(int nPriority);
  int GetPriority() const { return m_nPriority; }
  DWORD GetId() const { return m_dwId; }

 private:
  void* m_pImpl;
  int m_nPriority = THREAD_PRIORITY_NORMAL;
  std::atomic<DWORD> m_dwId{0};
};

// The processors the process may run on (GetProcessAffinityMask); bit n is processor n.
ULONGLONG GetProcessAffinityMask();
// The processor mask of the calling thread (for tests of the affinity choice).
ULONGLONG GetCurrentThreadAffinityMask();

// timeBeginPeriod/timeEndPeriod (no-ops on Linux, whose timers are fine-grained). The count of
// outstanding begin calls made through these functions is kept on both platforms.
UINT TimeBeginPeriod(UINT uPeriod);
UINT TimeEndPeriod(UINT uPeriod);
LONG GetTimePeriodRequests();

// ---------------------------------------------------------------------------------------------
// Fault injection, for tests
// ---------------------------------------------------------------------------------------------

namespace NSFault {

enum class EOp { Open, Read, Write, Flush, Directory };

// A rule fails the Nth matching call (counted from 1 after Arm) of an operation with dwError; with
// bSticky every matching call from the Nth on fails. With cbShort >= 0 a Write transfers at most
// cbShort bytes: with dwError 0 the call then succeeds reporting them (a short write); with an error
// it then fails, the bytes written staying in the file (a disk that fills up in the middle of a
// write). A failing rule with dwError 0 fails with ERROR_INVALID_FUNCTION. strPathContains, when not
// empty, limits the rule to files or directories whose path contains it. Directory operations are
// CreateDir, CreateDirTree, RemoveDir, ListDir, FlushDirectory, RemoveFile, RenameFile, SetAttributes. Both platforms
// ask the seam at the same point of every call: after the arguments and the handle were checked,
// before the system is called; a call refused before that point is not counted.
struct SRule {
  EOp eOp = EOp::Write;
  unsigned nNth = 1;
  DWORD dwError = ERROR_DISK_FULL;
  bool bSticky = false;
  LONG cbShort = -1;
  WString strPathContains;
};

// Replaces every rule of the operation (one rule per operation at a time).
void Arm(const SRule& rule);
void Disarm(EOp eOp);
// Removes every rule and the free-space override.
void Reset();
// How many calls of the operation the seam has seen since the last Arm or Reset of it.
unsigned GetCallCount(EOp eOp);
// Makes GetFreeDiskSpace report ullFree bytes free (to caller and in total) for every volume.
void OverrideFreeSpace(ULONGLONG ullFree);
void ClearFreeSpaceOverride();

// Used by the platform implementations. Answers true when the call must fail, with the error in
// *pdwError; a write first transfers the *pcb bytes left (0 unless the rule has a cbShort). For a
// write that must only be short, answers false and lowers *pcb.
bool Intercept(EOp eOp, const WString& strPath, DWORD* pcb, DWORD* pdwError);
bool GetFreeSpaceOverride(ULONGLONG* pullFree);

}  // namespace NSFault

// ---------------------------------------------------------------------------------------------
// Bulk memory
// ---------------------------------------------------------------------------------------------

// A block of cb bytes (uninitialised) for data that is filled at once and kept, such as a packet
// read in place: committed when it is made, in large pages where the system grants them, so that
// filling it does not stop at a page fault every 4 KiB. Null when the memory cannot be had. Free
// it with FreeBulkMemory and the same cb. Under the sanitizers it is ordinary heap memory, so
// that they watch it.
void* AllocateBulkMemory(size_t cb);
void FreeBulkMemory(void* pv, size_t cb);
// Gives back to the system the whole pages of a block of cb bytes that lie beyond its first cbKeep
// bytes (those are kept as they are). The block is still freed whole with FreeBulkMemory(pv, cb).
// Blocks on the heap keep everything.
void TrimBulkMemory(void* pv, size_t cb, size_t cbKeep);

}  // namespace NSPlatform
