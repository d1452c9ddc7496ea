// Last error, system message texts, dynamic libraries and machine-wide settings on Windows.
#include "platform/os.h"

namespace NSPlatform {

namespace {
HRESULT Fail(DWORD dwError) {
  ::SetLastError(dwError);
  return KvHResultFromWin32(dwError);
}
}  // namespace

DWORD GetLastError() { return ::GetLastError(); }
void SetLastError(DWORD dwError) { ::SetLastError(dwError); }

HRESULT HResultFromLastError() {
  DWORD dwError = ::GetLastError();
  return dwError == ERROR_SUCCESS ? E_FAIL : KvHResultFromWin32(dwError);
}

WString GetSystemErrorText(HRESULT hr) {
  DWORD dwSaved = ::GetLastError();
  DWORD dwId = HRESULT_FACILITY(hr) == FACILITY_WIN32 ? HRESULT_CODE(hr) : static_cast<DWORD>(hr);
  WCHAR* pszText = nullptr;
  DWORD cch = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                             nullptr, dwId, 0, reinterpret_cast<WCHAR*>(&pszText), 0, nullptr);
  WString strText;
  if (cch && pszText) {
    strText.assign(pszText, cch);
    while (!strText.empty() && (strText.back() == L'\r' || strText.back() == L'\n' || strText.back() == L' '))
      strText.pop_back();
  }
  if (pszText) LocalFree(pszText);
  if (strText.empty()) strText = GetKnownErrorText(hr);
  ::SetLastError(dwSaved);
  return strText;
}

HRESULT LoadDynamicLibrary(const WCHAR* pszName, HMODULE* phModule) {
  *phModule = LoadLibraryW(pszName);
  if (!*phModule) {
    DWORD dwError = ::GetLastError();
    return Fail(dwError ? dwError : ERROR_MOD_NOT_FOUND);
  }
  return S_OK;
}

void* GetLibrarySymbol(HMODULE hModule, const char* pszName) {
  return hModule ? reinterpret_cast<void*>(::GetProcAddress(hModule, pszName)) : nullptr;
}

void FreeDynamicLibrary(HMODULE hModule) {
  if (hModule) FreeLibrary(hModule);
}

HRESULT ReadMachineDword(const WCHAR* pszKey, const WCHAR* pszValue, DWORD* pdwValue) {
  HKEY hKey = nullptr;
  LONG lError = RegOpenKeyExW(HKEY_LOCAL_MACHINE, pszKey, 0, KEY_READ, &hKey);
  if (lError != ERROR_SUCCESS) return Fail(static_cast<DWORD>(lError));
  DWORD dwType = 0, dwValue = 0, cbValue = sizeof(dwValue);
  lError = RegQueryValueExW(hKey, pszValue, nullptr, &dwType, reinterpret_cast<BYTE*>(&dwValue), &cbValue);
  RegCloseKey(hKey);
  if (lError == ERROR_MORE_DATA) return Fail(ERROR_INVALID_DATA);
  if (lError != ERROR_SUCCESS) return Fail(static_cast<DWORD>(lError));
  if (dwType != REG_DWORD || cbValue != sizeof(DWORD)) return Fail(ERROR_INVALID_DATA);
  *pdwValue = dwValue;
  ::SetLastError(ERROR_SUCCESS);
  return S_OK;
}

HRESULT WriteMachineDword(const WCHAR* pszKey, const WCHAR* pszValue, DWORD dwValue) {
  HKEY hKey = nullptr;
  LONG lError = RegCreateKeyExW(HKEY_LOCAL_MACHINE, pszKey, 0, nullptr, 0, KEY_WRITE, nullptr, &hKey, nullptr);
  if (lError != ERROR_SUCCESS) return Fail(static_cast<DWORD>(lError));
  lError = RegSetValueExW(hKey, pszValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dwValue), sizeof(dwValue));
  RegCloseKey(hKey);
  return lError == ERROR_SUCCESS ? S_OK : Fail(static_cast<DWORD>(lError));
}

HRESULT DeleteMachineValue(const WCHAR* pszKey, const WCHAR* pszValue) {
  HKEY hKey = nullptr;
  LONG lError = RegOpenKeyExW(HKEY_LOCAL_MACHINE, pszKey, 0, KEY_SET_VALUE, &hKey);
  if (lError != ERROR_SUCCESS) return Fail(static_cast<DWORD>(lError));
  lError = RegDeleteValueW(hKey, pszValue);
  RegCloseKey(hKey);
  return lError == ERROR_SUCCESS ? S_OK : Fail(static_cast<DWORD>(lError));
}

}  // namespace NSPlatform
