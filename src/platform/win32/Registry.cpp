// The registry and the module's own resources on Windows.
#include "platform/win32/Win32Util.h"

namespace NSPlatform {

using NWin32::FailWith;

namespace {

HKEY RootKey(ERegistryRoot eRoot) {
  switch (eRoot) {
    case ERegistryRoot::ClassesRoot:
      return HKEY_CLASSES_ROOT;
    case ERegistryRoot::LocalMachine:
      return HKEY_LOCAL_MACHINE;
    case ERegistryRoot::CurrentUser:
      return HKEY_CURRENT_USER;
  }
  return nullptr;
}

// Registry calls answer their error instead of setting the last error; this keeps the platform's
// promise that both carry it.
HRESULT Result(LONG lError) {
  if (lError == ERROR_SUCCESS) {
    ::SetLastError(ERROR_SUCCESS);
    return S_OK;
  }
  return FailWith(static_cast<DWORD>(lError));
}

// An open key, closed when the object goes.
class CKey {
 public:
  ~CKey() {
    if (m_hKey) RegCloseKey(m_hKey);
  }
  LONG Open(ERegistryRoot eRoot, const WCHAR* pszKey, REGSAM samDesired) {
    HKEY hRoot = RootKey(eRoot);
    if (!hRoot || !pszKey) return ERROR_INVALID_PARAMETER;
    return RegOpenKeyExW(hRoot, pszKey, 0, samDesired, &m_hKey);
  }
  HKEY Get() const { return m_hKey; }

 private:
  HKEY m_hKey = nullptr;
};

const WCHAR* ValueName(const WCHAR* pszName) { return pszName && *pszName ? pszName : nullptr; }

}  // namespace

HRESULT RegistryCreateKey(ERegistryRoot eRoot, const WCHAR* pszKey) {
  HKEY hRoot = RootKey(eRoot);
  if (!hRoot || !pszKey) return FailWith(ERROR_INVALID_PARAMETER);
  HKEY hKey = nullptr;
  LONG lError = RegCreateKeyExW(hRoot, pszKey, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_READ | KEY_WRITE, nullptr,
                                &hKey, nullptr);
  if (hKey) RegCloseKey(hKey);
  return Result(lError);
}

HRESULT RegistryOpenKey(ERegistryRoot eRoot, const WCHAR* pszKey) {
  CKey key;
  return Result(key.Open(eRoot, pszKey, KEY_READ));
}

HRESULT RegistrySetString(ERegistryRoot eRoot, const WCHAR* pszKey, const WCHAR* pszName, const WCHAR* pszValue) {
  if (!pszValue) return FailWith(ERROR_INVALID_PARAMETER);
  CKey key;
  LONG lError = key.Open(eRoot, pszKey, KEY_SET_VALUE);
  if (lError != ERROR_SUCCESS) return Result(lError);
  const DWORD cbValue = static_cast<DWORD>((wcslen(pszValue) + 1) * sizeof(WCHAR));
  return Result(RegSetValueExW(key.Get(), ValueName(pszName), 0, REG_SZ, reinterpret_cast<const BYTE*>(pszValue),
                               cbValue));
}

HRESULT RegistryGetString(ERegistryRoot eRoot, const WCHAR* pszKey, const WCHAR* pszName, WString* pstrValue) {
  if (!pstrValue) return FailWith(ERROR_INVALID_PARAMETER);
  CKey key;
  LONG lError = key.Open(eRoot, pszKey, KEY_QUERY_VALUE);
  if (lError != ERROR_SUCCESS) return Result(lError);
  // The value may change between the size query and the read; ask again until it fits.
  WString strBuffer;
  for (;;) {
    DWORD dwType = 0;
    DWORD cbValue = 0;
    lError = RegQueryValueExW(key.Get(), ValueName(pszName), nullptr, &dwType, nullptr, &cbValue);
    if (lError != ERROR_SUCCESS) return Result(lError);
    if (dwType != REG_SZ) return FailWith(ERROR_INVALID_DATA);
    strBuffer.assign(cbValue / sizeof(WCHAR) + 1, L'\0');
    DWORD cbRead = static_cast<DWORD>(strBuffer.size() * sizeof(WCHAR));
    lError = RegQueryValueExW(key.Get(), ValueName(pszName), nullptr, &dwType,
                              reinterpret_cast<BYTE*>(strBuffer.data()), &cbRead);
    if (lError == ERROR_MORE_DATA) continue;
    if (lError != ERROR_SUCCESS) return Result(lError);
    if (dwType != REG_SZ) return FailWith(ERROR_INVALID_DATA);
    strBuffer.resize(cbRead / sizeof(WCHAR));
    break;
  }
  while (!strBuffer.empty() && strBuffer.back() == L'\0') strBuffer.pop_back();
  pstrValue->swap(strBuffer);
  return Result(ERROR_SUCCESS);
}

HRESULT RegistryDeleteValue(ERegistryRoot eRoot, const WCHAR* pszKey, const WCHAR* pszName) {
  CKey key;
  LONG lError = key.Open(eRoot, pszKey, KEY_SET_VALUE);
  if (lError != ERROR_SUCCESS) return Result(lError);
  return Result(RegDeleteValueW(key.Get(), ValueName(pszName)));
}

HRESULT RegistryDeleteKey(ERegistryRoot eRoot, const WCHAR* pszKey) {
  HKEY hRoot = RootKey(eRoot);
  if (!hRoot || !pszKey || !*pszKey) return FailWith(ERROR_INVALID_PARAMETER);
  return Result(RegDeleteKeyW(hRoot, pszKey));
}

HRESULT RegistryDeleteTree(ERegistryRoot eRoot, const WCHAR* pszKey) {
  HKEY hRoot = RootKey(eRoot);
  // An empty path would empty the whole root.
  if (!hRoot || !pszKey || !*pszKey) return FailWith(ERROR_INVALID_PARAMETER);
  return Result(RegDeleteTreeW(hRoot, pszKey));
}

HRESULT RegistryEnumSubKeys(ERegistryRoot eRoot, const WCHAR* pszKey, std::vector<WString>* pvNames) {
  if (!pvNames) return FailWith(ERROR_INVALID_PARAMETER);
  pvNames->clear();
  CKey key;
  LONG lError = key.Open(eRoot, pszKey, KEY_ENUMERATE_SUB_KEYS | KEY_QUERY_VALUE);
  if (lError != ERROR_SUCCESS) return Result(lError);
  WCHAR szName[256];  // the longest key name the registry allows is 255 characters
  for (DWORD dwIndex = 0;; ++dwIndex) {
    DWORD cchName = sizeof(szName) / sizeof(szName[0]);
    lError = RegEnumKeyExW(key.Get(), dwIndex, szName, &cchName, nullptr, nullptr, nullptr, nullptr);
    if (lError == ERROR_NO_MORE_ITEMS) break;
    if (lError != ERROR_SUCCESS) return Result(lError);
    pvNames->emplace_back(szName, cchName);
  }
  return Result(ERROR_SUCCESS);
}

HRESULT RegistryCountValues(ERegistryRoot eRoot, const WCHAR* pszKey, DWORD* pcValues) {
  if (!pcValues) return FailWith(ERROR_INVALID_PARAMETER);
  CKey key;
  LONG lError = key.Open(eRoot, pszKey, KEY_QUERY_VALUE);
  if (lError != ERROR_SUCCESS) return Result(lError);
  DWORD cValues = 0;
  lError = RegQueryInfoKeyW(key.Get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &cValues, nullptr,
                            nullptr, nullptr, nullptr);
  if (lError == ERROR_SUCCESS) *pcValues = cValues;
  return Result(lError);
}

HRESULT LoadOwnResource(const WCHAR* pszType, UINT nId, WORD wLanguage, std::string* pBytes) {
  if (!pszType || !pBytes || nId == 0 || nId > 0xFFFF) return FailWith(ERROR_INVALID_PARAMETER);
  // The module that holds this function: the DLL when the platform layer is linked into it, the
  // program otherwise.
  HMODULE hModule = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          reinterpret_cast<LPCWSTR>(&LoadOwnResource), &hModule)) {
    return NWin32::FailLast();
  }
  HRSRC hResource = FindResourceExW(hModule, pszType, MAKEINTRESOURCEW(nId), wLanguage);
  if (!hResource) return NWin32::FailLast();
  HGLOBAL hData = LoadResource(hModule, hResource);
  const DWORD cbData = SizeofResource(hModule, hResource);
  const void* pvData = hData ? LockResource(hData) : nullptr;
  if (!pvData && cbData) return NWin32::FailLast();
  pBytes->assign(static_cast<const char*>(pvData), cbData);
  ::SetLastError(ERROR_SUCCESS);
  return S_OK;
}

}  // namespace NSPlatform
