// Directories, directory trees and path resolution on Windows.

#include "platform/os.h"

#include <shellapi.h>
#include <shlobj.h>
#include <shlwapi.h>

#include <algorithm>

#include "platform/MemFs.h"
#include "platform/win32/Win32Util.h"

namespace NSPlatform {

using NWin32::FailLast;
using NWin32::FailWith;
using NWin32::PathOrEmpty;

namespace {

bool EndsWithSeparator(const WString& str) { return !str.empty() && IsPathSeparator(str.back()); }

// SHFileOperationW answers its own DE_* codes (from the shell's early days) as well as Win32
// codes; this turns the former into the Win32 code a caller can act on.
DWORD Win32ErrorOfShellCopy(int nResult) {
  switch (nResult) {
    case 0x71:  // DE_SAMEFILE
    case 0x7D:  // DE_DESTSAMETREE
    case 0x76:  // DE_DESTSUBTREE
    case 0x72:  // DE_MANYSRC1DEST
    case 0x73:  // DE_DIFFDIR
    case 0x7A:  // DE_MANYDEST
      return ERROR_INVALID_PARAMETER;
    case 0x74:  // DE_ROOTDIR
    case 0x78:  // DE_ACCESSDENIEDSRC
    case 0x86:  // DE_SRC_IS_CDROM
    case 0x87:  // DE_SRC_IS_DVD
      return ERROR_ACCESS_DENIED;
    case 0x75:  // DE_OPCANCELLED
      return ERROR_CANCELLED;
    case 0x79:  // DE_PATHTOODEEP
    case 0x81:  // DE_FILENAMETOOLONG
      return ERROR_FILENAME_EXCED_RANGE;
    case 0x7C:   // DE_INVALIDFILES
    case 0x402:  // an unknown error, usually a missing source or destination path
      return ERROR_PATH_NOT_FOUND;
    case 0x7E:  // DE_FLDDESTISFILE
    case 0x80:  // DE_FILEDESTISFLD
      return ERROR_ALREADY_EXISTS;
    case 0x82:  // DE_DEST_IS_CDROM
    case 0x83:  // DE_DEST_IS_DVD
    case 0x84:  // DE_DEST_IS_CDRECORD
    case 0x88:  // DE_SRC_IS_CDRECORD
      return ERROR_WRITE_PROTECT;
    case 0x85:  // DE_FILE_TOO_LARGE
      return ERROR_FILE_TOO_LARGE;
    case 0xB7:  // DE_ERROR_MAX
    case 0x10000:  // ERRORONDEST
      return ERROR_WRITE_FAULT;
    default:
      // The remaining answers are Win32 codes already (ERROR_ACCESS_DENIED, ERROR_DISK_FULL...).
      return nResult > 0 && nResult < 0x10000 ? static_cast<DWORD>(nResult) : ERROR_WRITE_FAULT;
  }
}

// A double-zero-terminated list of one full path, as SHFileOperationW takes it. The shell resolves
// relative paths against the process's current directory at an unspecified moment; resolving here
// fixes the moment.
HRESULT ShellPathList(const WCHAR* pszPath, WString* pstrList) {
  HRESULT hr = GetFullPath(pszPath, pstrList);
  if (FAILED(hr)) {
    return hr;
  }
  pstrList->push_back(L'\0');
  return S_OK;
}

}  // namespace

HRESULT CreateDir(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) {
    return NSMemFs::CreateDir(pszPath);
  }
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, PathOrEmpty(pszPath), nullptr, &dwInjected)) {
    return FailWith(dwInjected);
  }
  return ::CreateDirectoryW(pszPath, nullptr) ? S_OK : FailLast();
}

HRESULT CreateDirTree(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) {
    return NSMemFs::CreateDirTree(pszPath);
  }
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, PathOrEmpty(pszPath), nullptr, &dwInjected)) {
    return FailWith(dwInjected);
  }
  // It takes full paths only (a relative one is ERROR_BAD_PATHNAME), and answers a Win32 code
  // rather than setting the last error.
  int nResult = ::SHCreateDirectoryExW(nullptr, pszPath, nullptr);
  if (nResult == ERROR_SUCCESS) {
    return S_OK;
  }
  return FailWith(static_cast<DWORD>(nResult));
}

HRESULT RemoveDir(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) {
    return NSMemFs::RemoveDir(pszPath);
  }
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, PathOrEmpty(pszPath), nullptr, &dwInjected)) {
    return FailWith(dwInjected);
  }
  return ::RemoveDirectoryW(pszPath) ? S_OK : FailLast();
}

HRESULT ListSubdirectories(const WCHAR* pszDirectory, std::vector<WString>* pvNames) {
  // FindFirstFileW hands out every entry's attributes with its name anyway.
  pvNames->clear();
  std::vector<SDirEntry> vEntries;
  const HRESULT hr = ListDir(pszDirectory, &vEntries);
  for (SDirEntry& entry : vEntries)
    if (entry.IsDirectory()) pvNames->push_back(std::move(entry.strName));
  return hr;
}

HRESULT ListDir(const WCHAR* pszDirectory, std::vector<SDirEntry>* pvEntries, const WCHAR* pszSpec) {
  if (NSMemFs::Serves()) {
    return NSMemFs::ListDir(pszDirectory, pvEntries, pszSpec);
  }
  pvEntries->clear();
  WString strDirectory = PathOrEmpty(pszDirectory);
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, strDirectory, nullptr, &dwInjected)) {
    return FailWith(dwInjected);
  }
  WString strPattern = strDirectory;
  if (!strPattern.empty() && !EndsWithSeparator(strPattern)) {
    strPattern.push_back(L'\\');
  }
  strPattern.push_back(L'*');

  WIN32_FIND_DATAW data;
  HANDLE hFind = ::FindFirstFileW(strPattern.c_str(), &data);
  if (hFind == INVALID_HANDLE_VALUE) {
    DWORD dwError = ::GetLastError();
    // Only the root of a volume lacks "." and "..", so an existing directory that yields nothing is
    // empty. A file named as the directory is ERROR_DIRECTORY, as recent Windows versions answer
    // (Wine says ERROR_INVALID_NAME).
    DWORD dwAttributes = ::GetFileAttributesW(strDirectory.c_str());
    if (dwAttributes != INVALID_FILE_ATTRIBUTES) {
      if ((dwAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        return FailWith(ERROR_DIRECTORY);
      }
      if (dwError == ERROR_FILE_NOT_FOUND || dwError == ERROR_NO_MORE_FILES) {
        return S_OK;
      }
    } else if (dwError == ERROR_FILE_NOT_FOUND || dwError == ERROR_NO_MORE_FILES) {
      dwError = ERROR_PATH_NOT_FOUND;
    }
    return FailWith(dwError);
  }

  std::vector<SDirEntry> vEntries;
  DWORD dwError = ERROR_SUCCESS;
  do {
    const WCHAR* pszName = data.cFileName;
    if (wcscmp(pszName, L".") == 0 || wcscmp(pszName, L"..") == 0) {
      continue;
    }
    if (pszSpec != nullptr && !MatchSpec(pszName, pszSpec)) {
      continue;
    }
    SDirEntry entry;
    entry.strName = pszName;
    entry.dwAttributes = NWin32::PortableAttributes(data.dwFileAttributes);
    entry.ullSize = entry.IsDirectory()
                        ? 0
                        : (static_cast<ULONGLONG>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
    entry.ftLastWrite = data.ftLastWriteTime;
    vEntries.push_back(std::move(entry));
  } while (::FindNextFileW(hFind, &data));
  dwError = ::GetLastError();
  ::FindClose(hFind);
  if (dwError != ERROR_NO_MORE_FILES) {
    return FailWith(dwError != ERROR_SUCCESS ? dwError : ERROR_READ_FAULT);
  }

  // WCHAR is an unsigned 16-bit type, so the string order is the ordinal order of UTF-16 code units.
  std::sort(vEntries.begin(), vEntries.end(),
            [](const SDirEntry& a, const SDirEntry& b) { return a.strName < b.strName; });
  *pvEntries = std::move(vEntries);
  return S_OK;
}

bool PathExists(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) {
    return NSMemFs::PathExists(pszPath);
  }
  return ::PathFileExistsW(pszPath) != FALSE;
}

bool IsDirectory(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) {
    return NSMemFs::IsDirectory(pszPath);
  }
  return ::PathIsDirectoryW(pszPath) != FALSE;
}

bool IsDirectoryEmpty(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) {
    return NSMemFs::IsDirectoryEmpty(pszPath);
  }
  return ::PathIsDirectoryEmptyW(pszPath) != FALSE;
}

HRESULT FlushDirectory(const WCHAR* pszPath) {
  if (NSMemFs::Serves()) {
    return NSMemFs::FlushDirectory(pszPath);
  }
  DWORD dwInjected = ERROR_SUCCESS;
  if (NSFault::Intercept(NSFault::EOp::Directory, PathOrEmpty(pszPath), nullptr, &dwInjected)) {
    return FailWith(dwInjected);
  }
  if (pszPath == nullptr || *pszPath == 0) {
    return FailWith(ERROR_PATH_NOT_FOUND);
  }
  // NTFS journals every change of names: there is nothing to flush, only the directory to find.
  const DWORD dwAttributes = ::GetFileAttributesW(pszPath);
  if (dwAttributes == INVALID_FILE_ATTRIBUTES) {
    return FailLast();
  }
  return (dwAttributes & FILE_ATTRIBUTE_DIRECTORY) ? S_OK : FailWith(ERROR_DIRECTORY);
}

HRESULT CopyTree(const WCHAR* pszFrom, const WCHAR* pszTo) {
  if (NSMemFs::Serves()) {
    return NSMemFs::CopyTree(pszFrom, pszTo);
  }
  WString strFrom;
  WString strTo;
  HRESULT hr = ShellPathList(pszFrom, &strFrom);
  if (SUCCEEDED(hr)) {
    hr = ShellPathList(pszTo, &strTo);
  }
  if (FAILED(hr)) {
    return hr;
  }
  // The shell's answer for a missing source varies between versions; the source's own lookup
  // gives the code every other call here would.
  if (::GetFileAttributesW(strFrom.c_str()) == INVALID_FILE_ATTRIBUTES) {
    return FailLast();
  }

  SHFILEOPSTRUCTW op = {};
  op.hwnd = nullptr;
  op.wFunc = FO_COPY;
  op.pFrom = strFrom.c_str();
  op.pTo = strTo.c_str();
  op.fFlags = FOF_SILENT | FOF_NOCONFIRMATION | FOF_NOCONFIRMMKDIR | FOF_NOERRORUI;
  int nResult = ::SHFileOperationW(&op);
  if (nResult != 0) {
    return FailWith(Win32ErrorOfShellCopy(nResult));
  }
  if (op.fAnyOperationsAborted) {
    return FailWith(ERROR_CANCELLED);
  }
  return S_OK;
}

HRESULT GetFullPath(const WCHAR* pszPath, WString* pstrFull) {
  if (pszPath == nullptr) {
    return FailWith(ERROR_INVALID_PARAMETER);
  }
  WCHAR szBuffer[MAX_PATH];
  DWORD cch = ::GetFullPathNameW(pszPath, MAX_PATH, szBuffer, nullptr);
  if (cch == 0) {
    return FailLast();
  }
  if (cch < MAX_PATH) {
    pstrFull->assign(szBuffer, cch);
    return S_OK;
  }
  // Longer than MAX_PATH: cch is the size needed, terminator included.
  WString strFull(cch, L'\0');
  DWORD cchCopied = ::GetFullPathNameW(pszPath, cch, strFull.data(), nullptr);
  if (cchCopied == 0 || cchCopied >= cch) {
    return cchCopied == 0 ? FailLast() : FailWith(ERROR_INSUFFICIENT_BUFFER);
  }
  strFull.resize(cchCopied);
  *pstrFull = std::move(strFull);
  return S_OK;
}

WString FoldPathCase(WStringView strPath) {
  WString strFolded(strPath);
  if (!strFolded.empty()) {
    ::CharLowerBuffW(strFolded.data(), static_cast<DWORD>(strFolded.size()));
  }
  return strFolded;
}

}  // namespace NSPlatform
