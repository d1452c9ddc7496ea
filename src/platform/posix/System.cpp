// Last error, system message texts, dynamic libraries and machine-wide settings on Linux.
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/os.h"

namespace NSPlatform {

namespace {
thread_local DWORD t_dwLastError = ERROR_SUCCESS;

struct SMessage {
  HRESULT hr;
  const char* pszText;
};

// The texts Windows gives for the codes this engine meets, so that reports read the same on both.
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

// "xmllog.dll" -> "libxmllog.so"; other names are used as they are.
std::string SharedObjectName(const WCHAR* pszName) {
  std::string strName = WideToUtf8(pszName);
  const std::string strDll = ".dll";
  if (strName.size() > strDll.size()) {
    std::string strTail = strName.substr(strName.size() - strDll.size());
    for (char& ch : strTail) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (strTail == strDll && strName.find('/') == std::string::npos)
      return "lib" + strName.substr(0, strName.size() - strDll.size()) + ".so";
  }
  return strName;
}

std::string ExecutableDirectory() {
  char szPath[4096];
  ssize_t cch = readlink("/proc/self/exe", szPath, sizeof(szPath) - 1);
  if (cch <= 0) return std::string();
  std::string strPath(szPath, static_cast<size_t>(cch));
  size_t nSlash = strPath.rfind('/');
  return nSlash == std::string::npos ? std::string() : strPath.substr(0, nSlash);
}

std::string MachineSettingDir(const WCHAR* pszKey) {
  const char* pszRoot = std::getenv("KRONVALE_SETTINGS_ROOT");
  std::string strDir = (pszRoot && *pszRoot) ? pszRoot : "/etc";
  std::string strKey = WideToUtf8(pszKey);
  for (char& ch : strKey)
    if (ch == '\\') ch = '/';
  if (!strKey.empty() && strKey.front() != '/') strDir += '/';
  return strDir + strKey;
}

HRESULT Fail(DWORD dwError) {
  SetLastError(dwError);
  return KvHResultFromWin32(dwError);
}
}  // namespace

DWORD GetLastError() { return t_dwLastError; }
void SetLastError(DWORD dwError) { t_dwLastError = dwError; }

HRESULT HResultFromLastError() {
  DWORD dwError = GetLastError();
  return dwError == ERROR_SUCCESS ? E_FAIL : KvHResultFromWin32(dwError);
}

WString GetSystemErrorText(HRESULT hr) {
  for (const SMessage& message : g_aMessages)
    if (message.hr == hr) return Utf8ToWide(message.pszText);
  return WString();
}

HRESULT LoadDynamicLibrary(const WCHAR* pszName, HMODULE* phModule) {
  *phModule = nullptr;
  const std::string strName = SharedObjectName(pszName);
  void* pHandle = nullptr;
  // The program's own directory first, as LoadLibraryW searches it first; then dlopen's own search
  // (the caller's run path, LD_LIBRARY_PATH, the system).
  if (strName.find('/') == std::string::npos) {
    std::string strExeDir = ExecutableDirectory();
    if (!strExeDir.empty()) pHandle = dlopen((strExeDir + "/" + strName).c_str(), RTLD_NOW | RTLD_LOCAL);
  }
  if (!pHandle) pHandle = dlopen(strName.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!pHandle) return Fail(ERROR_MOD_NOT_FOUND);
  *phModule = pHandle;
  return S_OK;
}

void* GetLibrarySymbol(HMODULE hModule, const char* pszName) {
  void* pSymbol = hModule ? dlsym(hModule, pszName) : nullptr;
  if (!pSymbol) SetLastError(ERROR_PROC_NOT_FOUND);
  return pSymbol;
}

void FreeDynamicLibrary(HMODULE hModule) {
  if (hModule) dlclose(hModule);
}

HRESULT ReadMachineDword(const WCHAR* pszKey, const WCHAR* pszValue, DWORD* pdwValue) {
  std::ifstream file(MachineSettingDir(pszKey) + "/" + WideToUtf8(pszValue));
  if (!file) return Fail(ERROR_FILE_NOT_FOUND);
  std::stringstream text;
  text << file.rdbuf();
  std::string strText = text.str();
  const char* psz = strText.c_str();
  while (*psz == ' ' || *psz == '\t' || *psz == '\n' || *psz == '\r') ++psz;
  if (!*psz || *psz == '-') return Fail(ERROR_INVALID_DATA);
  char* pszEnd = nullptr;
  errno = 0;
  unsigned long long ullValue = std::strtoull(psz, &pszEnd, 0);
  while (*pszEnd == ' ' || *pszEnd == '\t' || *pszEnd == '\n' || *pszEnd == '\r') ++pszEnd;
  if (errno || *pszEnd || ullValue > 0xFFFFFFFFull) return Fail(ERROR_INVALID_DATA);
  *pdwValue = static_cast<DWORD>(ullValue);
  SetLastError(ERROR_SUCCESS);
  return S_OK;
}

HRESULT WriteMachineDword(const WCHAR* pszKey, const WCHAR* pszValue, DWORD dwValue) {
  std::string strDir = MachineSettingDir(pszKey);
  for (size_t nPos = 1; nPos <= strDir.size(); ++nPos) {
    if (nPos == strDir.size() || strDir[nPos] == '/') {
      std::string strPart = strDir.substr(0, nPos);
      if (mkdir(strPart.c_str(), 0755) != 0 && errno != EEXIST) return Fail(ERROR_ACCESS_DENIED);
    }
  }
  std::ofstream file(strDir + "/" + WideToUtf8(pszValue), std::ios::trunc);
  if (!(file << dwValue << '\n')) return Fail(ERROR_ACCESS_DENIED);
  return S_OK;
}

HRESULT DeleteMachineValue(const WCHAR* pszKey, const WCHAR* pszValue) {
  std::string strPath = MachineSettingDir(pszKey) + "/" + WideToUtf8(pszValue);
  if (unlink(strPath.c_str()) != 0) return Fail(errno == ENOENT ? ERROR_FILE_NOT_FOUND : ERROR_ACCESS_DENIED);
  return S_OK;
}

}  // namespace NSPlatform
