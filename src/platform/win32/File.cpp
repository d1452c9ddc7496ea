// Files, mappings, temporary files and attributes on Windows.
//
// Handles are synchronous. ReadAt and WriteAt pass their offset in an OVERLAPPED structure, which
// keeps them independent of each other when several threads use one handle, but on a synchronous
// handle Windows still leaves the file position just after the bytes they transferred (Linux does
// not move it). A caller that uses Read or Write after ReadAt or WriteAt on the same object must
// Seek first.

#include <algorithm>
#include <optional>

#include "platform/MemFs.h"
#include "platform/BlockPool.h"
#include "platform/os.h"
#include "platform/win32/Win32Util.h"

namespace NSPlatform {

using NWin32::FailLast;
using NWin32::FailWith;

namespace {

const intptr_t hInvalid = reinterpret_cast<intptr_t>(INVALID_HANDLE_VALUE);

HANDLE AsHandle(intptr_t h) { return reinterpret_cast<HANDLE>(h); }

// The offset of a gathered write at the current position.
constexpr ULONGLONG kullAtPosition = ~0ull;

OVERLAPPED OverlappedAt(ULONGLONG ullOffset) {
  OVERLAPPED ov = {};
  ov.Offset = static_cast<DWORD>(ullOffset);
  ov.OffsetHigh = static_cast<DWORD>(ullOffset >> 32);
  return ov;
}

// Whether an open that would write, truncate or delete meets an existing read-only file. Windows
// refuses such opens itself, but Wine run by a privileged user lets the host system decide, and
// the host lets that user write anything; asking first gives the same answer everywhere.
bool RefusesWriter(const WCHAR* pszPath, DWORD dwAccess, DWORD dwCreation, DWORD dwFlagsAndAttributes) {
  const DWORD dwWriteAccess = GENERIC_WRITE | GENERIC_ALL | FILE_WRITE_DATA | FILE_APPEND_DATA;
  bool bChanges = (dwAccess & dwWriteAccess) != 0 || dwCreation == CREATE_ALWAYS || dwCreation == TRUNCATE_EXISTING ||
                  (dwFlagsAndAttributes & FILE_FLAG_DELETE_ON_CLOSE) != 0;
  if (!bChanges) {
    return false;
  }
  DWORD dwAttributes = ::GetFileAttributesW(pszPath);
  return dwAttributes != INVALID_FILE_ATTRIBUTES && (dwAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0 &&
         (dwAttributes & FILE_ATTRIBUTE_READONLY) != 0;
}

// A gathered write copies its buffers into one staging block, so that the file sees one write: on
// the stack when small, else a block of the pool (reused from write to write). Nothing is kept per
// thread: a thread_local with a destructor would pin the library in memory for as long as any
// thread that once wrote lives, and FreeLibrary would never unload it.
constexpr DWORD kcbStackGather = 16 * 1024;

class CGatherBlock {
 public:
  CGatherBlock(BYTE* pbStack, DWORD cbStack, DWORD cb) : m_pb(pbStack), m_cb(cb) {
    if (cb > cbStack) m_pb = static_cast<BYTE*>(TakeBlock(cb));  // throws std::bad_alloc
    m_bPooled = cb > cbStack;
  }
  ~CGatherBlock() {
    if (m_bPooled) GiveBackBlock(m_pb, m_cb);
  }
  CGatherBlock(const CGatherBlock&) = delete;
  CGatherBlock& operator=(const CGatherBlock&) = delete;
  BYTE* Data() const { return m_pb; }

 private:
  BYTE* m_pb;
  DWORD m_cb;
  bool m_bPooled = false;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// CFile
// ---------------------------------------------------------------------------------------------

CFile::CFile() : m_hNative(hInvalid) {}

CFile::~CFile() { Close(); }

CFile::CFile(CFile&& other) noexcept
    : m_hNative(other.m_hNative),
      m_dwAccess(other.m_dwAccess),
      m_strPath(std::move(other.m_strPath)),
      m_pMemFile(other.m_pMemFile) {
  other.m_hNative = hInvalid;
  other.m_dwAccess = 0;
  other.m_pMemFile = nullptr;
}

CFile& CFile::operator=(CFile&& other) noexcept {
  if (this != &other) {
    Close();
    m_hNative = other.m_hNative;
    m_dwAccess = other.m_dwAccess;
    m_strPath = std::move(other.m_strPath);
    m_pMemFile = other.m_pMemFile;
    other.m_hNative = hInvalid;
    other.m_dwAccess = 0;
    other.m_pMemFile = nullptr;
  }
  return *this;
}

HRESULT CFile::Open(const WCHAR* pszPath, DWORD dwAccess, DWORD dwShare, DWORD dwCreation,
                    DWORD dwFlagsAndAttributes, bool* pbExisted) {
  Close();
  if (pbExisted != nullptr) {
    *pbExisted = false;
  }
  if (pszPath == nullptr) {
    return FailWith(ERROR_INVALID_PARAMETER);
  }
  m_strPath = pszPath;
  if (NSMemFs::Serves()) {
    const HRESULT hr = NSMemFs::Open(m_strPath, dwAccess, dwShare, dwCreation, dwFlagsAndAttributes, pbExisted, &m_pMemFile);
    if (SUCCEEDED(hr)) {
      m_dwAccess = dwAccess;
    }
    return hr;
  }
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Open, m_strPath, nullptr, &dwInjected)) {
    return FailWith(dwInjected);
  }
  if (RefusesWriter(pszPath, dwAccess, dwCreation, dwFlagsAndAttributes)) {
    return FailWith(ERROR_ACCESS_DENIED);
  }
  HANDLE h = ::CreateFileW(pszPath, dwAccess, dwShare, nullptr, dwCreation, dwFlagsAndAttributes, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    return FailLast();
  }
  if (pbExisted != nullptr) {
    switch (dwCreation) {
      case OPEN_ALWAYS:
      case CREATE_ALWAYS:
        *pbExisted = ::GetLastError() == ERROR_ALREADY_EXISTS;
        break;
      case OPEN_EXISTING:
      case TRUNCATE_EXISTING:
        *pbExisted = true;
        break;
      default:
        *pbExisted = false;
        break;
    }
  }
  m_hNative = reinterpret_cast<intptr_t>(h);
  m_dwAccess = dwAccess;
  return S_OK;
}

bool CFile::IsOpen() const { return m_hNative != hInvalid || m_pMemFile != nullptr; }

void CFile::Close() {
  if (m_pMemFile != nullptr) {
    NSMemFs::Close(m_pMemFile);
    m_pMemFile = nullptr;
  }
  if (m_hNative != hInvalid) {
    ::CloseHandle(AsHandle(m_hNative));
    m_hNative = hInvalid;
  }
  m_dwAccess = 0;
}

HRESULT CFile::Read(void* pv, DWORD cb, DWORD* pcbRead) {
  if (pcbRead != nullptr) {
    *pcbRead = 0;
  }
  if (!IsOpen()) {
    return FailWith(ERROR_INVALID_HANDLE);
  }
  if (m_pMemFile != nullptr) {
    return NSMemFs::Read(m_pMemFile, pv, cb, pcbRead);
  }
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Read, m_strPath, nullptr, &dwInjected)) {
    return FailWith(dwInjected);
  }
  DWORD cbRead = 0;
  if (!::ReadFile(AsHandle(m_hNative), pv, cb, &cbRead, nullptr)) {
    return FailLast();
  }
  if (pcbRead != nullptr) {
    *pcbRead = cbRead;
  }
  return S_OK;
}

HRESULT CFile::Write(const void* pv, DWORD cb, DWORD* pcbWritten) {
  if (pcbWritten != nullptr) {
    *pcbWritten = 0;
  }
  if (!IsOpen()) {
    return FailWith(ERROR_INVALID_HANDLE);
  }
  if (m_pMemFile != nullptr) {
    const SIoBuffer buffer = {pv, cb};
    return NSMemFs::WriteGatherAt(m_pMemFile, NSMemFs::kullAtPosition, &buffer, 1, pcbWritten);
  }
  DWORD dwInjected = ERROR_SUCCESS;
  const bool bInjected = NSFault::Intercept(NSFault::EOp::Write, m_strPath, &cb, &dwInjected);
  DWORD cbWritten = 0;
  if (cb != 0 && !::WriteFile(AsHandle(m_hNative), pv, cb, &cbWritten, nullptr)) {
    return FailLast();
  }
  if (pcbWritten != nullptr) {
    *pcbWritten = cbWritten;
  }
  return bInjected ? FailWith(dwInjected) : S_OK;
}

HRESULT CFile::WriteGather(const SIoBuffer* pBuffers, size_t cBuffers, DWORD* pcbWritten) {
  return WriteGatherAt(kullAtPosition, pBuffers, cBuffers, pcbWritten);
}

HRESULT CFile::WriteGatherAt(ULONGLONG ullOffset, const SIoBuffer* pBuffers, size_t cBuffers, DWORD* pcbWritten) {
  if (pcbWritten != nullptr) {
    *pcbWritten = 0;
  }
  ULONGLONG ullTotal = 0;
  for (size_t i = 0; i < cBuffers; ++i) {
    ullTotal += pBuffers[i].cb;
  }
  if (ullTotal > 0xFFFFFFFFull) {
    return FailWith(ERROR_INVALID_PARAMETER);
  }
  DWORD cbTotal = static_cast<DWORD>(ullTotal);
  if (!IsOpen()) {
    return FailWith(ERROR_INVALID_HANDLE);
  }
  if (m_pMemFile != nullptr) {
    return NSMemFs::WriteGatherAt(m_pMemFile, ullOffset, pBuffers, cBuffers, pcbWritten);
  }
  for (size_t i = 0; i < cBuffers; ++i) {
    if (pBuffers[i].cb != 0 && pBuffers[i].pv == nullptr) {
      return FailWith(ERROR_NOACCESS);
    }
  }
  DWORD dwInjected = ERROR_SUCCESS;
  const bool bInjected = NSFault::Intercept(NSFault::EOp::Write, m_strPath, &cbTotal, &dwInjected);
  // One buffer, or a short write that ends inside the first one, needs no copy.
  if (cBuffers == 0 || cbTotal <= pBuffers[0].cb) {
    const void* pv = cBuffers == 0 ? nullptr : pBuffers[0].pv;
    DWORD cbWritten = 0;
    OVERLAPPED ov = OverlappedAt(ullOffset);
    if (cbTotal != 0 &&
        !::WriteFile(AsHandle(m_hNative), pv, cbTotal, &cbWritten, ullOffset == kullAtPosition ? nullptr : &ov)) {
      return FailLast();
    }
    if (pcbWritten != nullptr) {
      *pcbWritten = cbWritten;
    }
    return bInjected ? FailWith(dwInjected) : S_OK;
  }

  BYTE abStack[kcbStackGather];
  std::optional<CGatherBlock> gather;
  try {
    gather.emplace(abStack, kcbStackGather, cbTotal);
  } catch (const std::bad_alloc&) {
    return FailWith(ERROR_NOT_ENOUGH_MEMORY);
  }
  DWORD cbCopied = 0;
  for (size_t i = 0; i < cBuffers && cbCopied < cbTotal; ++i) {
    DWORD cbPart = std::min(pBuffers[i].cb, cbTotal - cbCopied);
    if (cbPart != 0) {
      memcpy(gather->Data() + cbCopied, pBuffers[i].pv, cbPart);
    }
    cbCopied += cbPart;
  }
  DWORD cbWritten = 0;
  OVERLAPPED ov = OverlappedAt(ullOffset);
  BOOL bWritten = ::WriteFile(AsHandle(m_hNative), gather->Data(), cbTotal, &cbWritten,
                              ullOffset == kullAtPosition ? nullptr : &ov);
  DWORD dwWriteError = ::GetLastError();
  gather.reset();
  if (!bWritten) {
    ::SetLastError(dwWriteError);
    return FailLast();
  }
  if (pcbWritten != nullptr) {
    *pcbWritten = cbWritten;
  }
  return bInjected ? FailWith(dwInjected) : S_OK;
}

HRESULT CFile::ReadAt(ULONGLONG ullOffset, void* pv, DWORD cb, DWORD* pcbRead) {
  if (pcbRead != nullptr) {
    *pcbRead = 0;
  }
  if (!IsOpen()) {
    return FailWith(ERROR_INVALID_HANDLE);
  }
  if (m_pMemFile != nullptr) {
    return NSMemFs::ReadAt(m_pMemFile, ullOffset, pv, cb, pcbRead);
  }
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Read, m_strPath, nullptr, &dwInjected)) {
    return FailWith(dwInjected);
  }
  OVERLAPPED ov = OverlappedAt(ullOffset);
  DWORD cbRead = 0;
  if (!::ReadFile(AsHandle(m_hNative), pv, cb, &cbRead, &ov)) {
    // A positioned read at or past the end reports ERROR_HANDLE_EOF where Read would succeed
    // with nothing read; both answer the same here.
    if (::GetLastError() != ERROR_HANDLE_EOF) {
      return FailLast();
    }
    cbRead = 0;
  }
  if (pcbRead != nullptr) {
    *pcbRead = cbRead;
  }
  return S_OK;
}

HRESULT CFile::WriteAt(ULONGLONG ullOffset, const void* pv, DWORD cb, DWORD* pcbWritten) {
  if (pcbWritten != nullptr) {
    *pcbWritten = 0;
  }
  if (!IsOpen()) {
    return FailWith(ERROR_INVALID_HANDLE);
  }
  if (m_pMemFile != nullptr) {
    const SIoBuffer buffer = {pv, cb};
    return NSMemFs::WriteGatherAt(m_pMemFile, ullOffset, &buffer, 1, pcbWritten);
  }
  DWORD dwInjected = ERROR_SUCCESS;
  const bool bInjected = NSFault::Intercept(NSFault::EOp::Write, m_strPath, &cb, &dwInjected);
  OVERLAPPED ov = OverlappedAt(ullOffset);
  DWORD cbWritten = 0;
  if (cb != 0 && !::WriteFile(AsHandle(m_hNative), pv, cb, &cbWritten, &ov)) {
    return FailLast();
  }
  if (pcbWritten != nullptr) {
    *pcbWritten = cbWritten;
  }
  return bInjected ? FailWith(dwInjected) : S_OK;
}

HRESULT CFile::Seek(LONGLONG llDistance, DWORD dwMethod, ULONGLONG* pullNewPosition) {
  if (!IsOpen()) {
    return FailWith(ERROR_INVALID_HANDLE);
  }
  if (m_pMemFile != nullptr) {
    return NSMemFs::Seek(m_pMemFile, llDistance, dwMethod, pullNewPosition);
  }
  LARGE_INTEGER liDistance;
  liDistance.QuadPart = llDistance;
  LARGE_INTEGER liNew;
  liNew.QuadPart = 0;
  if (!::SetFilePointerEx(AsHandle(m_hNative), liDistance, &liNew, dwMethod)) {
    return FailLast();
  }
  if (pullNewPosition != nullptr) {
    *pullNewPosition = static_cast<ULONGLONG>(liNew.QuadPart);
  }
  return S_OK;
}

HRESULT CFile::GetSize(ULONGLONG* pullSize) const {
  if (!IsOpen()) {
    return FailWith(ERROR_INVALID_HANDLE);
  }
  if (m_pMemFile != nullptr) {
    return NSMemFs::GetSize(m_pMemFile, pullSize);
  }
  LARGE_INTEGER liSize;
  if (!::GetFileSizeEx(AsHandle(m_hNative), &liSize)) {
    return FailLast();
  }
  if (pullSize != nullptr) {
    *pullSize = static_cast<ULONGLONG>(liSize.QuadPart);
  }
  return S_OK;
}

HRESULT CFile::GetTimes(FILETIME* pftCreation, FILETIME* pftLastAccess, FILETIME* pftLastWrite) const {
  if (!IsOpen()) {
    return FailWith(ERROR_INVALID_HANDLE);
  }
  if (m_pMemFile != nullptr) {
    return NSMemFs::GetTimes(m_pMemFile, pftCreation, pftLastAccess, pftLastWrite);
  }
  if (!::GetFileTime(AsHandle(m_hNative), pftCreation, pftLastAccess, pftLastWrite)) {
    return FailLast();
  }
  return S_OK;
}

HRESULT CFile::SetEndOfFile() {
  if (!IsOpen()) {
    return FailWith(ERROR_INVALID_HANDLE);
  }
  if (m_pMemFile != nullptr) {
    return NSMemFs::SetEndOfFile(m_pMemFile);
  }
  return ::SetEndOfFile(AsHandle(m_hNative)) ? S_OK : FailLast();
}

HRESULT CFile::Flush() {
  if (!IsOpen()) {
    return FailWith(ERROR_INVALID_HANDLE);
  }
  if (m_pMemFile != nullptr) {
    return NSMemFs::Flush(m_pMemFile);
  }
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Flush, m_strPath, nullptr, &dwInjected)) {
    return FailWith(dwInjected);
  }
  return ::FlushFileBuffers(AsHandle(m_hNative)) ? S_OK : FailLast();
}

HRESULT CFile::LockRange(ULONGLONG ullOffset, ULONGLONG cb) {
  if (!IsOpen()) {
    return FailWith(ERROR_INVALID_HANDLE);
  }
  if (m_pMemFile != nullptr) {
    return NSMemFs::LockRange(m_pMemFile, ullOffset, cb);
  }
  BOOL bLocked = ::LockFile(AsHandle(m_hNative), static_cast<DWORD>(ullOffset), static_cast<DWORD>(ullOffset >> 32),
                            static_cast<DWORD>(cb), static_cast<DWORD>(cb >> 32));
  return bLocked ? S_OK : FailLast();
}

HRESULT CFile::UnlockRange(ULONGLONG ullOffset, ULONGLONG cb) {
  if (!IsOpen()) {
    return FailWith(ERROR_INVALID_HANDLE);
  }
  if (m_pMemFile != nullptr) {
    return NSMemFs::UnlockRange(m_pMemFile, ullOffset, cb);
  }
  BOOL bUnlocked = ::UnlockFile(AsHandle(m_hNative), static_cast<DWORD>(ullOffset),
                                static_cast<DWORD>(ullOffset >> 32), static_cast<DWORD>(cb),
                                static_cast<DWORD>(cb >> 32));
  if (bUnlocked) {
    return S_OK;
  }
  // Only this handle's own locks can be released, so no unlock ever meets a conflict: Wine
  // reports a range this handle does not hold as ERROR_LOCK_VIOLATION, Windows as ERROR_NOT_LOCKED.
  DWORD dwError = ::GetLastError();
  return FailWith(dwError == ERROR_LOCK_VIOLATION ? ERROR_NOT_LOCKED : dwError);
}

// ---------------------------------------------------------------------------------------------
// CFileMapping
// ---------------------------------------------------------------------------------------------

CFileMapping::CFileMapping() : m_pView(nullptr), m_ullSize(0), m_hMapping(0) {}

CFileMapping::~CFileMapping() { Unmap(); }

HRESULT CFileMapping::Map(const CFile& file) {
  Unmap();
  if (!file.IsOpen()) {
    return FailWith(ERROR_INVALID_HANDLE);
  }
  if (file.m_pMemFile != nullptr) {
    const HRESULT hr = NSMemFs::Map(file.m_pMemFile, &m_pMemMapping, &m_pView, &m_ullSize);
    if (SUCCEEDED(hr)) {
      m_strPath = file.GetPath();
    }
    return hr;
  }
  ULONGLONG ullSize = 0;
  HRESULT hr = file.GetSize(&ullSize);
  if (FAILED(hr)) {
    return hr;
  }
  // CreateFileMappingW answers the same for an empty file; checking first keeps the answer
  // independent of how the system words it.
  if (ullSize == 0) {
    return FailWith(ERROR_FILE_INVALID);
  }
  HANDLE hMapping = ::CreateFileMappingW(reinterpret_cast<HANDLE>(file.NativeHandle()), nullptr, PAGE_READWRITE, 0, 0,
                                         nullptr);
  if (hMapping == nullptr) {
    return FailLast();
  }
  void* pView = ::MapViewOfFile(hMapping, FILE_MAP_ALL_ACCESS, 0, 0, 0);
  if (pView == nullptr) {
    DWORD dwError = ::GetLastError();
    ::CloseHandle(hMapping);
    return FailWith(dwError != ERROR_SUCCESS ? dwError : ERROR_NOT_ENOUGH_MEMORY);
  }
  m_strPath = file.GetPath();
  m_hMapping = reinterpret_cast<intptr_t>(hMapping);
  m_pView = pView;
  m_ullSize = ullSize;
  return S_OK;
}

HRESULT CFileMapping::Flush() {
  if (m_pView == nullptr) {
    return FailWith(ERROR_INVALID_HANDLE);
  }
  if (m_pMemMapping != nullptr) {
    return NSMemFs::FlushMapping(m_pMemMapping);
  }
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Flush, m_strPath, nullptr, &dwInjected)) {
    return FailWith(dwInjected);
  }
  return ::FlushViewOfFile(m_pView, 0) ? S_OK : FailLast();
}

void CFileMapping::Unmap() {
  if (m_pMemMapping != nullptr) {
    NSMemFs::Unmap(m_pMemMapping);
    m_pMemMapping = nullptr;
    m_pView = nullptr;
  }
  if (m_pView != nullptr) {
    ::UnmapViewOfFile(m_pView);
    m_pView = nullptr;
  }
  if (m_hMapping != 0) {
    ::CloseHandle(reinterpret_cast<HANDLE>(m_hMapping));
    m_hMapping = 0;
  }
  m_ullSize = 0;
  m_strPath.clear();
}

// ---------------------------------------------------------------------------------------------
// Whole files
// ---------------------------------------------------------------------------------------------

HRESULT RemoveFile(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) {
    return NSMemFs::RemoveFile(pszPath);
  }
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, NWin32::PathOrEmpty(pszPath), nullptr, &dwInjected)) {
    return FailWith(dwInjected);
  }
  return ::DeleteFileW(pszPath) ? S_OK : FailLast();
}

HRESULT RenameFile(const WCHAR* pszFrom, const WCHAR* pszTo) {
  if (NSMemFs::Serves()) {
    return NSMemFs::RenameFile(pszFrom, pszTo);
  }
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, NWin32::PathOrEmpty(pszFrom), nullptr, &dwInjected)) {
    return FailWith(dwInjected);
  }
  return ::MoveFileExW(pszFrom, pszTo, MOVEFILE_REPLACE_EXISTING) ? S_OK : FailLast();
}

HRESULT GetTempDirectory(WString* pstrDirectory) {
  if (NSMemFs::Serves()) {
    return NSMemFs::GetTempDirectory(pstrDirectory);
  }
  WCHAR szPath[MAX_PATH + 1];
  DWORD cch = ::GetTempPathW(MAX_PATH + 1, szPath);
  if (cch == 0) {
    return FailLast();
  }
  if (cch > MAX_PATH) {
    return FailWith(ERROR_FILENAME_EXCED_RANGE);
  }
  pstrDirectory->assign(szPath, cch);
  return S_OK;
}

HRESULT CreateTempFile(const WCHAR* pszDirectory, const WCHAR* pszPrefix, WString* pstrPath) {
  if (NSMemFs::Serves()) {
    return NSMemFs::CreateTempFile(pszDirectory, pszPrefix, pstrPath);
  }
  WCHAR szPath[MAX_PATH];
  if (::GetTempFileNameW(pszDirectory, pszPrefix != nullptr ? pszPrefix : L"", 0, szPath) == 0) {
    return FailLast();
  }
  // The name is made from the directory as given; a relative directory gives a relative name.
  return GetFullPath(szPath, pstrPath);
}

HRESULT GetAttributes(const WCHAR* pszPath, DWORD* pdwAttributes) {
  if (NSMemFs::Serves()) {
    return NSMemFs::GetAttributes(pszPath, pdwAttributes);
  }
  DWORD dwAttributes = ::GetFileAttributesW(pszPath);
  if (dwAttributes == INVALID_FILE_ATTRIBUTES) {
    return FailLast();
  }
  *pdwAttributes = NWin32::PortableAttributes(dwAttributes);
  return S_OK;
}

HRESULT SetAttributes(const WCHAR* pszPath, DWORD dwAttributes) {
  if (NSMemFs::Serves()) {
    return NSMemFs::SetAttributes(pszPath, dwAttributes);
  }
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, NWin32::PathOrEmpty(pszPath), nullptr, &dwInjected)) {
    return FailWith(dwInjected);
  }
  // The directory bit cannot be set or cleared this way; zero would mean "no change" to the file
  // system, so a cleared set of attributes is spelt FILE_ATTRIBUTE_NORMAL.
  dwAttributes &= ~static_cast<DWORD>(FILE_ATTRIBUTE_DIRECTORY);
  if (dwAttributes == 0) {
    dwAttributes = FILE_ATTRIBUTE_NORMAL;
  }
  return ::SetFileAttributesW(pszPath, dwAttributes) ? S_OK : FailLast();
}

}  // namespace NSPlatform
