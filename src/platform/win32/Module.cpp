// The module that holds the platform layer, on Windows.
#include "platform/os.h"
#include "platform/win32/Win32Util.h"

namespace NSPlatform {

HRESULT GetOwnModulePath(WString* pstrPath) {
  if (!pstrPath) return NWin32::FailWith(ERROR_INVALID_PARAMETER);
  HMODULE hModule = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          reinterpret_cast<LPCWSTR>(&GetOwnModulePath), &hModule)) {
    return NWin32::FailLast();
  }
  // GetModuleFileNameW truncates silently to the buffer (ERROR_INSUFFICIENT_BUFFER); grow and retry.
  std::vector<WCHAR> vBuffer(MAX_PATH);
  for (;;) {
    ::SetLastError(ERROR_SUCCESS);
    const DWORD cch = GetModuleFileNameW(hModule, vBuffer.data(), static_cast<DWORD>(vBuffer.size()));
    if (cch == 0) return NWin32::FailLast();
    if (cch < vBuffer.size() && ::GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
      pstrPath->assign(vBuffer.data(), cch);
      return S_OK;
    }
    if (vBuffer.size() >= 32768) return NWin32::FailWith(ERROR_FILENAME_EXCED_RANGE);
    vBuffer.resize(vBuffer.size() * 2);
  }
}

}  // namespace NSPlatform
