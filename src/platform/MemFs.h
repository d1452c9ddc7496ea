// The in-memory file system: a backend of the platform layer that serves every file and directory
// function of os.h from memory, for fuzz targets and large randomized tests.
//
// Installed, it takes the place of the disk for the whole process: CFile, CFileMapping, the
// directory functions, RemoveFile, RenameFile, temporary files, attributes and free space all work
// on one tree kept here, with the answers the disk gives (the same Win32 errors, share modes, byte
// range locks, read-only files). Files already open on disk when it is installed stay on disk.
// Not installed, each platform function pays one predictable branch on a relaxed load.
//
// What it keeps as a real file system would:
// - A mapping is the file's own bytes: a store through the view is seen by every read at once, and
//   a write through a handle is seen in the view. A mapped file cannot change its size
//   (ERROR_USER_MAPPED_FILE), which no caller asks of it.
// - A deleted or renamed file stays readable and writable through the handles open on it.
// - Free space is the capacity less the bytes of every file. A write that does not fit stores what
//   fits and fails with ERROR_DISK_FULL, as a disk that fills up in the middle of a write.
// - The fault seam (NSFault) is asked at the same points as on disk, and its free-space override
//   stands above the capacity.
//
// The power-cut simulator lives here too: with tracking started, every file also keeps its durable
// image, what a power cut cannot take: its bytes as of its last Flush (of a handle or of a mapping),
// and every write of a write-through open (a truncation is journaled: it reaches the disk in order).
// Names are held to the strictest POSIX rule: a creation, rename or deletion of a file or directory
// is durable only once the directory holding the name is flushed (FlushDirectory); a flush of the
// file itself does not make its name durable. A cut, armed at the Nth changing call, freezes the
// image the machine would find after it: each change of names not yet durable is kept or lost on
// its own (a rename whole: the old name or the new one, never both or neither; what lies under a
// directory whose name was lost is lost with it), each file keeps its durable bytes, and of each
// page written since, keeps the new page, the old one, or a tear of the two (sectors of each), as a
// seeded generator decides. The process runs on until its objects are gone; Reboot then puts the
// frozen image in place of the file system.
#pragma once

#include <cstdint>

#include "platform/os.h"

namespace NSPlatform {
namespace NSMemFs {

// Puts an empty file system in place of the disk (the temporary directory and its parents exist),
// with ullCapacity bytes for files. Installing again starts again from empty.
void Install(ULONGLONG ullCapacity = 1ull << 40);
// Returns the process to the disk and frees everything kept. No file or mapping of the memory
// file system may be open.
void Uninstall();
bool IsInstalled();
// The capacity for files; a value below what files hold already leaves no free space.
void SetCapacity(ULONGLONG ullCapacity);
// How many files and mappings of the in-memory file system are open (0 when not installed).
unsigned GetOpenCount();
// The bytes every file holds (files deleted while open included, until their last close).
ULONGLONG GetUsedBytes();

// What a power cut did, for the test's report.
struct SCutStats {
  unsigned cFiles = 0;         // files in the image the cut left
  unsigned cPagesKept = 0;     // unflushed pages that reached the disk whole
  unsigned cPagesDropped = 0;  // unflushed pages lost whole
  unsigned cPagesTorn = 0;     // unflushed pages of which some sectors arrived
  unsigned cNamesKept = 0;     // changes of names not yet durable that reached the disk
  unsigned cNamesLost = 0;     // changes of names not yet durable that were lost
};

// Starts keeping each file's durable image; what the files hold now counts as durable.
void StartPowerCutTracking();
// Cuts the power during the nCall-th call from now that changes the file system (a write, a
// truncation, a flush, a creation, a rename, a deletion), just after that call did its work and
// before it counts as durable. A page torn or kept is chosen by a generator seeded with ullSeed.
void ArmPowerCut(unsigned nCall, uint64_t ullSeed);
// Whether the armed cut has happened.
bool HasPowerBeenCut();
// How many changing calls have been made since tracking started (to choose a cut point).
unsigned GetChangingCallCount();
// Replaces the file system with the image the cut left (with no cut, with what is durable now:
// flushed bytes under the names made durable),
// and goes on tracking from there. Every file and mapping must be closed: ERROR_BUSY otherwise.
HRESULT Reboot(SCutStats* pStats);

// ---------------------------------------------------------------------------------------------
// For the platform implementations (posix/, win32/) only.
// ---------------------------------------------------------------------------------------------

namespace NSDetail {
extern std::atomic<bool> g_bInstalled;
}  // namespace NSDetail
inline bool Serves() { return NSDetail::g_bInstalled.load(std::memory_order_relaxed); }

// A CFile's open file (CFile::m_pMemFile); answers as CFile documents.
HRESULT Open(const WString& strPath, DWORD dwAccess, DWORD dwShare, DWORD dwCreation, DWORD dwFlagsAndAttributes,
             bool* pbExisted, void** ppFile);
void Close(void* pFile);
HRESULT Read(void* pFile, void* pv, DWORD cb, DWORD* pcbRead);
HRESULT WriteGatherAt(void* pFile, ULONGLONG ullOffset, const SIoBuffer* pBuffers, size_t cBuffers,
                      DWORD* pcbWritten);
HRESULT ReadAt(void* pFile, ULONGLONG ullOffset, void* pv, DWORD cb, DWORD* pcbRead);
HRESULT Seek(void* pFile, LONGLONG llDistance, DWORD dwMethod, ULONGLONG* pullNewPosition);
HRESULT GetSize(void* pFile, ULONGLONG* pullSize);
HRESULT GetTimes(void* pFile, FILETIME* pftCreation, FILETIME* pftLastAccess, FILETIME* pftLastWrite);
HRESULT SetEndOfFile(void* pFile);
HRESULT Flush(void* pFile);
HRESULT LockRange(void* pFile, ULONGLONG ullOffset, ULONGLONG cb);
HRESULT UnlockRange(void* pFile, ULONGLONG ullOffset, ULONGLONG cb);
// The offset of a gathered write at the current position.
constexpr ULONGLONG kullAtPosition = ~0ull;

// A CFileMapping's view (CFileMapping::m_pMemMapping).
HRESULT Map(void* pFile, void** ppMapping, void** ppView, ULONGLONG* pullSize);
HRESULT FlushMapping(void* pMapping);
void Unmap(void* pMapping);

HRESULT RemoveFile(const WCHAR* pszPath);
HRESULT RenameFile(const WCHAR* pszFrom, const WCHAR* pszTo);
HRESULT GetTempDirectory(WString* pstrDirectory);
HRESULT CreateTempFile(const WCHAR* pszDirectory, const WCHAR* pszPrefix, WString* pstrPath);
HRESULT GetAttributes(const WCHAR* pszPath, DWORD* pdwAttributes);
HRESULT SetAttributes(const WCHAR* pszPath, DWORD dwAttributes);
HRESULT CreateDir(const WCHAR* pszPath);
HRESULT CreateDirTree(const WCHAR* pszPath);
HRESULT RemoveDir(const WCHAR* pszPath);
HRESULT ListDir(const WCHAR* pszDirectory, std::vector<SDirEntry>* pvEntries, const WCHAR* pszSpec);
bool PathExists(const WCHAR* pszPath);
bool IsDirectory(const WCHAR* pszPath);
bool IsDirectoryEmpty(const WCHAR* pszPath);
HRESULT FlushDirectory(const WCHAR* pszPath);
HRESULT CopyTree(const WCHAR* pszFrom, const WCHAR* pszTo);
HRESULT GetFreeDiskSpace(const WCHAR* pszPath, ULONGLONG* pullFreeToCaller, ULONGLONG* pullTotal,
                         ULONGLONG* pullTotalFree);

}  // namespace NSMemFs
}  // namespace NSPlatform
