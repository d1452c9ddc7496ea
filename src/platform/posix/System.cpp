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

WString GetSystemErrorText(HRESULT hr) { return GetKnownErrorText(hr); }

HRESULT HResultFromLastError() {
  DWORD dwError = GetLastError();
  return dwError == ERROR_SUCCESS ? E_FAIL : KvHResultFromWin32(dwError);
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
