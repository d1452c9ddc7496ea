// The module: kronvale.dll (libkronvale.so on Linux) as an in-process COM server. It holds the
// object map, the cached class objects and the lock count behind DllCanUnloadNow (the kit's
// CComModule), the instance handle, and the registration of the module's own registry keys.
//
// The object map, in this order (the first entry with a matching class identifier serves it):
//   CLSID_RecordExtract  script 104
//   CLSID_Kronvale       script 103   (its class object is the archive factory)
//   CLSID_Record         script 102
// The exports themselves (DllGetClassObject...) live in frame/dll, compiled only into the library.
#pragma once

#include <cstddef>

#include "com/ComModule.h"
#include "frame/Registrar.h"
#include "platform/wintypes.h"

namespace NSFrame {

// The application identifier: the replacement for %APPID% in every registrar script.
inline constexpr WCHAR kszAppId[] = KV_W("{3E3C0CF5-0797-458B-A2DD-3574998A4B14}");

class CKronvaleModule : public NSCom::CComModule {
 public:
  // At load (DllMain's process attach on Windows, the library's constructor on Linux): keeps the
  // instance handle and installs the object map. A failure refuses the attach.
  static HRESULT Init(HMODULE hInstance);
  // At unload: releases the cached class objects and forgets the map.
  static void Term();
  // The handle given to Init (null on Linux and before Init).
  static HMODULE GetModuleInstance();

  // The object map (three entries, in the order above). Its entries hold the cached class objects,
  // so only the kit's module code may change them.
  static const NSCom::SObjectMapEntry* GetObjectMapEntries(size_t* pcEntries);

  // Registers (bRegister) or unregisters the module's own keys in target: with the thread locale
  // set to the system default (0x800) for the duration and restored in every case, script 101
  // and then each map entry's script, in map order, with the replacements APPID = kszAppId and
  // MODULE = strModulePath. Stops at the first failing script and answers its HRESULT.
  static HRESULT UpdateRegistry(bool bRegister, IRegistryTarget& target, const WString& strModulePath);
  // The same in the system registry, with the full path of the library file (Windows; Linux has
  // no registry and answers HRESULT(ERROR_NOT_SUPPORTED)).
  static HRESULT UpdateRegistry(bool bRegister);
};

}  // namespace NSFrame
