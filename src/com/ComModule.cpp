// The module's object map and class-object cache, the standard class factory and the COM map search.
#include "com/ComModule.h"

#include "com/ClassFactory.h"
#include "com/ComObject.h"

namespace NSCom {

namespace {

// The installed map. Read and written under the module's critical section only.
SObjectMapEntry* g_pObjectMap = nullptr;
size_t g_cObjectMap = 0;

class CModuleSection {
 public:
  CModuleSection() : m_cs(CComModule::GetCriticalSection()) { m_cs.Enter(); }
  ~CModuleSection() { m_cs.Leave(); }
  CModuleSection(const CModuleSection&) = delete;
  CModuleSection& operator=(const CModuleSection&) = delete;

 private:
  NSPlatform::COsCriticalSection& m_cs;
};

}  // namespace

NSPlatform::COsCriticalSection& CComModule::GetCriticalSection() {
  // Never destroyed: objects released during static destruction may still take it.
  static NSPlatform::COsCriticalSection* const s_pcs = new NSPlatform::COsCriticalSection();
  return *s_pcs;
}

void CComModule::Init(SObjectMapEntry* pEntries, size_t cEntries) {
  CModuleSection section;
  g_pObjectMap = pEntries;
  g_cObjectMap = pEntries != nullptr ? cEntries : 0;
}

void CComModule::Term() {
  SObjectMapEntry* pEntries;
  size_t cEntries;
  {
    CModuleSection section;
    pEntries = g_pObjectMap;
    cEntries = g_cObjectMap;
    g_pObjectMap = nullptr;
    g_cObjectMap = 0;
  }
  // Released outside the section: a class object's FinalRelease may do anything.
  for (size_t i = 0; i < cEntries; ++i) {
    IUnknown* pClassObject = pEntries[i].pClassObject;
    pEntries[i].pClassObject = nullptr;
    if (pClassObject != nullptr) {
      pClassObject->Release();
    }
  }
}

bool CComModule::IsInitialized() {
  CModuleSection section;
  return g_pObjectMap != nullptr;
}

const SObjectMapEntry* CComModule::GetObjectMap(size_t* pcEntries) {
  CModuleSection section;
  if (pcEntries != nullptr) {
    *pcEntries = g_cObjectMap;
  }
  return g_pObjectMap;
}

HRESULT CComModule::GetClassObject(REFCLSID rclsid, REFIID riid, void** ppv) {
  if (ppv == nullptr) {
    return E_POINTER;
  }
  *ppv = nullptr;
  IUnknown* pClassObject = nullptr;
  {
    CModuleSection section;
    if (g_pObjectMap == nullptr) {
      return E_UNEXPECTED;
    }
    for (size_t i = 0; i < g_cObjectMap; ++i) {
      SObjectMapEntry& entry = g_pObjectMap[i];
      if (entry.pfnGetClassObject == nullptr || !IsEqualCLSID(*entry.pclsid, rclsid)) {
        continue;
      }
      if (entry.pClassObject == nullptr) {
        HRESULT hr = entry.pfnGetClassObject(entry.pfnCreateInstance, __uuidof(IUnknown),
                                             reinterpret_cast<void**>(&entry.pClassObject));
        if (FAILED(hr)) {
          entry.pClassObject = nullptr;
          return hr;
        }
      }
      // Counted for the query below, so that a concurrent Term cannot destroy it meanwhile.
      pClassObject = entry.pClassObject;
      pClassObject->AddRef();
      break;
    }
  }
  if (pClassObject == nullptr) {
    return CLASS_E_CLASSNOTAVAILABLE;
  }
  HRESULT hr = pClassObject->QueryInterface(riid, ppv);
  pClassObject->Release();
  return hr;
}

STDMETHODIMP CComClassFactory::CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppvObject) {
  if (ppvObject == nullptr) {
    return E_POINTER;
  }
  *ppvObject = nullptr;
  if (pUnkOuter != nullptr && !IsEqualIID(riid, __uuidof(IUnknown))) {
    return CLASS_E_NOAGGREGATION;
  }
  if (m_pfnCreateInstance == nullptr) {
    return E_UNEXPECTED;
  }
  try {
    return m_pfnCreateInstance(pUnkOuter, riid, ppvObject);
  } catch (...) {
    *ppvObject = nullptr;
    return HResultFromCurrentException();
  }
}

STDMETHODIMP CComClassFactory::LockServer(BOOL fLock) {
  if (fLock) {
    CComModule::Lock();
  } else {
    CComModule::Unlock();
  }
  return S_OK;
}

HRESULT CComObjectRootEx::InternalQueryInterface(void* pThis, const SInterfaceEntry* pEntries, REFIID riid,
                                                 void** ppv) {
  if (ppv == nullptr) {
    return E_POINTER;
  }
  *ppv = nullptr;
  if (IsEqualIID(riid, __uuidof(IUnknown))) {
    IUnknown* pUnk = pEntries[0].pfnGet(pThis);
    pUnk->AddRef();
    *ppv = pUnk;
    return S_OK;
  }
  for (; pEntries->piid != nullptr || pEntries->pfnGet != nullptr || pEntries->pfnQuery != nullptr; ++pEntries) {
    if (pEntries->piid != nullptr && !IsEqualIID(*pEntries->piid, riid)) {
      continue;
    }
    if (pEntries->pfnGet != nullptr) {
      IUnknown* pItf = pEntries->pfnGet(pThis);
      pItf->AddRef();
      *ppv = pItf;
      return S_OK;
    }
    HRESULT hr = pEntries->pfnQuery(pThis, riid, ppv);
    if (SUCCEEDED(hr) && *ppv != nullptr) {
      return S_OK;
    }
    *ppv = nullptr;
    if (pEntries->piid != nullptr) {
      // A row for this very IID decides: its failure is the answer.
      return FAILED(hr) ? hr : E_NOINTERFACE;
    }
  }
  return E_NOINTERFACE;
}

}  // namespace NSCom
