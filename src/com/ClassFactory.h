// Class objects: the standard class factory, the creators that make class objects for the object
// map, and the CComCoClass defaults a creatable class inherits.
//
//   class CWidget : public NSCom::CComObjectRootEx, public NSCom::CComCoClass<CWidget>, public IWidget {
//     DECLARE_NOT_AGGREGATABLE(CWidget)      // optional; aggregatable by default
//     DECLARE_CLASSFACTORY_EX(CWidgetFactory)  // optional; CComClassFactory by default
//     ...
//   };
//   NSCom::SObjectMapEntry g_aObjectMap[] = {OBJECT_ENTRY(CLSID_Widget, CWidget, 102)};
#pragma once

#include "com/ComModule.h"
#include "com/ComObject.h"

namespace NSCom {

// The standard class object: creates instances through the creator it was made with.
class CComClassFactory : public CComObjectRootEx, public IClassFactory {
 public:
  BEGIN_COM_MAP(CComClassFactory)
    COM_INTERFACE_ENTRY(IClassFactory)
  END_COM_MAP()

  void SetCreator(PFNCREATEINSTANCE pfnCreateInstance) noexcept { m_pfnCreateInstance = pfnCreateInstance; }

  // E_POINTER for a null ppvObject; with an outer object riid must be IID_IUnknown, else
  // CLASS_E_NOAGGREGATION; a class that cannot be aggregated answers CLASS_E_NOAGGREGATION too.
  STDMETHOD(CreateInstance)(IUnknown* pUnkOuter, REFIID riid, void** ppvObject) override;
  // Adds (fLock) or removes a module lock.
  STDMETHOD(LockServer)(BOOL fLock) override;

 private:
  PFNCREATEINSTANCE m_pfnCreateInstance = nullptr;
};

// Makes a class object of type TClassObject as a cached object, hands it the instance creator
// (through SetCreator, before its FinalConstruct) and answers its riid. A PFNCREATECLASSOBJECT.
template <class TClassObject>
struct CComClassObjectCreator {
  static HRESULT CreateInstance(PFNCREATEINSTANCE pfnCreateInstance, REFIID riid, void** ppv) {
    if (ppv == nullptr) {
      return E_POINTER;
    }
    *ppv = nullptr;
    CComObjectCached<TClassObject>* p;
    HRESULT hr = CComObjectCached<TClassObject>::CreateInstance(
        &p, [pfnCreateInstance](CComObjectCached<TClassObject>* pNew) { pNew->SetCreator(pfnCreateInstance); });
    return FAILED(hr) ? hr : NSDetail::QueryNew(p, riid, ppv);
  }
};

// The defaults of a creatable class: aggregatable, made by the standard class factory.
template <class T>
class CComCoClass {
 public:
  typedef CComAggregatableCreator<T> _CreatorClass;
  typedef CComClassObjectCreator<CComClassFactory> _ClassFactoryCreatorClass;
};

#define DECLARE_AGGREGATABLE(x) \
 public:                        \
  typedef ::NSCom::CComAggregatableCreator<x> _CreatorClass;

#define DECLARE_NOT_AGGREGATABLE(x) \
 public:                            \
  typedef ::NSCom::CComCreator<x> _CreatorClass;

// A class whose class object is of type cf (a class with a COM map that serves IClassFactory).
#define DECLARE_CLASSFACTORY_EX(cf) \
 public:                            \
  typedef ::NSCom::CComClassObjectCreator<cf> _ClassFactoryCreatorClass;

}  // namespace NSCom
