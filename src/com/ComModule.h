// The module: the process-wide lock count that decides whether the library may be unloaded, the
// lock under which class objects are made, and the object map through which class objects are
// found.
#pragma once

#include <atomic>
#include <cstddef>

#include "com/ComBase.h"
#include "platform/os.h"

namespace NSCom {

// Makes an instance of a class: plain when pOuter is null, else aggregated into pOuter (then riid
// must be IID_IUnknown). Sets *ppv to null on failure.
typedef HRESULT (*PFNCREATEINSTANCE)(IUnknown* pOuter, REFIID riid, void** ppv);
// Makes the class object of a class, which creates instances through pfnCreateInstance.
typedef HRESULT (*PFNCREATECLASSOBJECT)(PFNCREATEINSTANCE pfnCreateInstance, REFIID riid, void** ppv);

// One creatable class. The map is an array in a fixed order; the first entry whose class identifier
// matches a request serves it.
struct SObjectMapEntry {
  const CLSID* pclsid;
  PFNCREATECLASSOBJECT pfnGetClassObject;
  PFNCREATEINSTANCE pfnCreateInstance;
  UINT nRegistryScriptId;
  // Made on first request under the module's lock and kept until CComModule::Term. The module's
  // own reference does not lock the module (the class object is a cached object).
  IUnknown* pClassObject;
};

// An object map entry for a class declared with CComCoClass (or its DECLARE_* overrides).
#define OBJECT_ENTRY(clsid, class_, scriptId)                                                    \
  ::NSCom::SObjectMapEntry {                                                                     \
    &(clsid), &class_::_ClassFactoryCreatorClass::CreateInstance, &class_::_CreatorClass::CreateInstance, \
        (scriptId), nullptr                                                                      \
  }

// All members are static: there is one module per binary (the DLL, or a test program that links
// the kit statically).
class CComModule {
 public:
  // Each live object of the module and each IClassFactory::LockServer(TRUE) holds one lock.
  static LONG Lock() noexcept { return ++s_cLock; }
  static LONG Unlock() noexcept { return --s_cLock; }
  static LONG GetLockCount() noexcept { return s_cLock.load(); }

  // Recursive; guards the object map's cached class objects. Made on first use, so it is ready for
  // code that runs during static initialisation.
  static NSPlatform::COsCriticalSection& GetCriticalSection();

  // Installs the object map (not copied: it lives as long as the module). Until then, and after
  // Term, class objects are refused with E_UNEXPECTED.
  static void Init(SObjectMapEntry* pEntries, size_t cEntries);
  // Releases the cached class objects and forgets the map.
  static void Term();
  static bool IsInitialized();

  // The search behind DllGetClassObject: E_POINTER for a null ppv (else *ppv is set to null first),
  // E_UNEXPECTED before Init, CLASS_E_CLASSNOTAVAILABLE for a class not in the map; otherwise the
  // entry's class object, made once and cached, queried for riid.
  static HRESULT GetClassObject(REFCLSID rclsid, REFIID riid, void** ppv);
  // S_OK when nothing holds the module, else S_FALSE.
  static HRESULT CanUnloadNow() noexcept { return GetLockCount() == 0 ? S_OK : S_FALSE; }

  static const SObjectMapEntry* GetObjectMap(size_t* pcEntries);

 private:
  static inline std::atomic<LONG> s_cLock{0};
};

// Holds one module lock for as long as it lives.
class CModuleLockHolder {
 public:
  CModuleLockHolder() noexcept { CComModule::Lock(); }
  ~CModuleLockHolder() { CComModule::Unlock(); }
  CModuleLockHolder(const CModuleLockHolder&) = delete;
  CModuleLockHolder& operator=(const CModuleLockHolder&) = delete;
};

}  // namespace NSCom
