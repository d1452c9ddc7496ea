// An archive: a directory holding one sub-directory per record. The archive hands out record objects
// and keeps them in its record table: the read-write handle of a record ("name-rw") is shared by all
// writers, every reading client gets a reader of its own ("name-client-r").
//
// Records hold a counted reference to their archive and the table holds the records, so an archive
// lives until Free empties the table (the factory calls it when the last client lets go).
#pragma once

#include <kronvale/kronvale.h>

#include <map>

#include "com/ComKit.h"
#include "records/RecordInternal.h"
#include "records/StateControl.h"
#include "support/Lock.h"

namespace NSArchive {

class CArchiveImpl : public NSCom::CComObjectRootEx,
                     public NSCom::CComCoClass<CArchiveImpl>,
                     public IKronvale,
                     public IKronvaleEx,
                     public IKronvaleQuota,
                     public IKronvaleInternal,
                     public NSRecords::CStateControl,
                     public IRecordParent {
 public:
  CArchiveImpl();
  ~CArchiveImpl();

  BEGIN_COM_MAP(CArchiveImpl)
    COM_INTERFACE_ENTRY(IKronvale)
    COM_INTERFACE_ENTRY2(IDescription, IKronvale)
    COM_INTERFACE_ENTRY(IKronvaleEx)
    COM_INTERFACE_ENTRY(IKronvaleQuota)
    COM_INTERFACE_ENTRY(IKronvaleInternal)
    COM_INTERFACE_ENTRY(IStateControl)
    COM_INTERFACE_ENTRY(IRecordParent)
  END_COM_MAP()

  // Opens the archive in the directory strPath (which must exist). A nonzero dwAccess replaces the
  // stored access word.
  HRESULT Open(const WString& strPath, DWORD dwAccess);

  // IDescription
  STDMETHOD(SetDescription)(BSTR szDescription) override;
  STDMETHOD(GetDescription)(BSTR* pszDescription) override;
  STDMETHOD(GetPath)(BSTR* pszPath) override;

  // IKronvale
  STDMETHOD(CreateRecord)(BSTR name, IRecord** ppRecord) override;
  STDMETHOD(OpenRecord)(BSTR name, IRecord** ppRecord) override;
  STDMETHOD(GetRecords)(BSTR** ppszRecordName, DWORD* pdwRecordNameCount) override;
  STDMETHOD(SetQuota)(ULONGLONG ullMinimumFreeDiskSpace, ULONGLONG ullMaximumArchiveSize) override;
  STDMETHOD(SetFlushTimeout)(ULONG ulFlushTimeout) override;
  STDMETHOD(GetInfo)(SArchiveInfo* pArhiveInfo) override;
  STDMETHOD(Free)() override;
  STDMETHOD(DeleteRecord)(BSTR name) override;

  // IKronvaleEx
  STDMETHOD(OpenRecordEx)(BSTR client, BSTR name, ULONG mode, IRecord** ppRecord) override;

  // IKronvaleQuota
  STDMETHOD(SetArchiveQuota)(const SArchiveQuota* pQuota) override;
  STDMETHOD(GetArchiveQuota)(SArchiveQuota* pQuota) override;

  // IKronvaleInternal
  STDMETHOD(CreateRecordInternal)(BSTR name, IRecord** ppRecord, LONG lPublic) override;
  STDMETHOD(OpenRecordInternal)(BSTR client, BSTR name, ULONG mode, IRecord** ppRecord, LONG lPublic) override;

 protected:
  void OnChange(LONG lFirst, LONG lSecond, LONG lState) override;

 private:
  using CSection = NSSystem::CCriticalSection<0, 4000>;
  using CGuard = NSSystem::CSectionGuard<CSection>;

  HRESULT MakeRecord(const WString& strName, DWORD dwMode, const WString& strHandle, IRecord** ppRecord);

  CSection m_section;  // guards everything below
  std::map<WString, NSCom::CComPtr<IRecord>> m_records;  // by handle name
  std::map<WString, ULONGLONG> m_readers;                // reading client -> time of its last open
  WString m_strPath;
  ULONGLONG m_ullMinimumFreeDiskSpace = 0;
  ULONGLONG m_ullMaximumArchiveSize = 0;
  LONG m_lMaximumArchiveHours = 0;
  DWORD m_dwAccess = 0;
  DWORD m_dwFlushTimeout = 0;
};

// A record name is one directory name inside the archive: not empty, not "." or "..", without a
// path separator of either platform.
bool IsValidRecordName(const WString& strName);

}  // namespace NSArchive
