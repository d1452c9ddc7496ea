// The archive factory: the class object of CLSID_Kronvale and the library's entry point. It creates,
// opens and deletes archives by path and keeps the archives it opened, so that opening one path
// again hands out the same object (and revives it when a client had freed it). Its own
// IClassFactory::CreateInstance answers E_NOTIMPL: archives are made by path, never bare.
#pragma once

#include <kronvale/kronvale.h>

#include <map>

#include "com/ComKit.h"
#include "support/Lock.h"

namespace NSArchive {

class CArchiveFactory : public NSCom::CComObjectRootEx,
                        public IClassFactory,
                        public IArchiveFactory,
                        public IArchiveFactoryEx,
                        public IStateControl {
 public:
  BEGIN_COM_MAP(CArchiveFactory)
    COM_INTERFACE_ENTRY(IClassFactory)
    COM_INTERFACE_ENTRY(IArchiveFactory)
    COM_INTERFACE_ENTRY(IArchiveFactoryEx)
    COM_INTERFACE_ENTRY(IStateControl)
  END_COM_MAP()

  // IClassFactory
  STDMETHOD(CreateInstance)(IUnknown* pUnkOuter, REFIID riid, void** ppvObject) override;
  STDMETHOD(LockServer)(BOOL fLock) override;

  // IArchiveFactory
  STDMETHOD(CreateArchive)(BSTR path, IKronvale** ppKronvale) override;
  STDMETHOD(OpenArchive)(BSTR path, IKronvale** ppKronvale) override;
  STDMETHOD(DeleteArchive)(BSTR path) override;
  STDMETHOD(CreateMultipartArchive)(BSTR path, IMultipartArchive** ppMultipartArchive) override;

  // IArchiveFactoryEx
  STDMETHOD(OpenArchiveEx)(BSTR path, ULONG access, IKronvale** ppKronvale) override;

  // IStateControl: Set hands a state carrying bit 0x40000 to every cached archive.
  STDMETHOD(Set)(LONG lState) override;
  STDMETHOD(Get)(LONG* pState) override;
  STDMETHOD(Change)(LONG lBitsToSet, LONG lBitsToClear) override;

  // The cache key of a path: absolute and canonical, without a trailing separator, and lower-cased
  // where file names ignore case (Windows).
  static WString CacheKey(const WString& strPath);

 private:
  using CSection = NSSystem::CCriticalSection<0, 0>;
  using CGuard = NSSystem::CSectionGuard<CSection>;

  class CPathCall;

  CSection m_section;  // serialises every method and guards the cache
  std::map<WString, NSCom::CComPtr<IUnknown>> m_cache;
};

}  // namespace NSArchive
