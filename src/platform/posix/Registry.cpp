// The registry and module resources on Linux: neither exists. Registration is a Windows matter
// (a Linux client loads libkronvale.so by name), and what Windows keeps in resources, the
// registrar scripts and the string table, is compiled into the library (frame/Resources.cpp).
#include "platform/posix/Errno.h"

namespace NSPlatform {

using NSPosix::Fail;

HRESULT RegistryCreateKey(ERegistryRoot, const WCHAR*) { return Fail(ERROR_NOT_SUPPORTED); }
HRESULT RegistryOpenKey(ERegistryRoot, const WCHAR*) { return Fail(ERROR_NOT_SUPPORTED); }
HRESULT RegistrySetString(ERegistryRoot, const WCHAR*, const WCHAR*, const WCHAR*) { return Fail(ERROR_NOT_SUPPORTED); }
HRESULT RegistryGetString(ERegistryRoot, const WCHAR*, const WCHAR*, WString*) { return Fail(ERROR_NOT_SUPPORTED); }
HRESULT RegistryDeleteValue(ERegistryRoot, const WCHAR*, const WCHAR*) { return Fail(ERROR_NOT_SUPPORTED); }
HRESULT RegistryDeleteKey(ERegistryRoot, const WCHAR*) { return Fail(ERROR_NOT_SUPPORTED); }
HRESULT RegistryDeleteTree(ERegistryRoot, const WCHAR*) { return Fail(ERROR_NOT_SUPPORTED); }
HRESULT RegistryEnumSubKeys(ERegistryRoot, const WCHAR*, std::vector<WString>* pvNames) {
  if (pvNames) pvNames->clear();
  return Fail(ERROR_NOT_SUPPORTED);
}
HRESULT RegistryCountValues(ERegistryRoot, const WCHAR*, DWORD*) { return Fail(ERROR_NOT_SUPPORTED); }

HRESULT LoadOwnResource(const WCHAR*, UINT, WORD, std::string*) { return Fail(ERROR_NOT_SUPPORTED); }

}  // namespace NSPlatform
