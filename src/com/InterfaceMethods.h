// The methods of the library's interfaces, declared as overrides, for the classes that implement
// them (the record, the extract, the multipart record and archive, the archive, and the tests'
// scripted objects). One list per interface, so that a change to an interface is made in one place.
// Include after <kronvale/kronvale.h>.
#pragma once

#define KV_IDESCRIPTION_METHODS                                     \
  STDMETHOD(SetDescription)(BSTR szDescription) override;          \
  STDMETHOD(GetDescription)(BSTR * pszDescription) override;       \
  STDMETHOD(GetPath)(BSTR * pszPath) override

#define KV_IRECORD_METHODS                                                                                    \
  STDMETHOD(Write)(FILETIME ftFrame, DWORD dwFlags, const SFrameBuffer* pBuff, DWORD dwCount) override;      \
  STDMETHOD(Read)(FILETIME ftFrame, DWORD * pdwFlags, SFrameBuffer * pBuff, DWORD dwCount) override;         \
  STDMETHOD(GetNext)(FILETIME ft, const SFrameFilter* pFilter, FILETIME* pftNextFrameTime) override;         \
  STDMETHOD(GetPrev)(FILETIME ft, const SFrameFilter* pFilter, FILETIME* pftPrevFrameTime) override;         \
  STDMETHOD(GetStatistic)(FILETIME ftBegin, FILETIME ftEnd, FILETIME ftResolution, const SFrameFilter* pFilter, \
                          LONG lFlags, DWORD* pdwCount, SRecordStatistic** ppRecordStatistic) override;      \
  STDMETHOD(RemoveHour)(FILETIME ftHour) override;                                                           \
  STDMETHOD(GetName)(BSTR * pszName) override;                                                               \
  STDMETHOD(Extract)(FILETIME ftBegin, FILETIME ftEnd, const SFrameFilter* pFilter, LONG lCount,             \
                     IRecord** ppExtract) override;                                                          \
  STDMETHOD(Merge)(IRecord * pSource, const SFrameFilter* pFilter, LONG lFlags) override;                    \
  STDMETHOD(CheckFrame)(FILETIME ftFrame, const SFrameFilter* pFilter) override

#define KV_IKRONVALE_METHODS                                                                      \
  STDMETHOD(CreateRecord)(BSTR name, IRecord * *ppRecord) override;                             \
  STDMETHOD(OpenRecord)(BSTR name, IRecord * *ppRecord) override;                               \
  STDMETHOD(GetRecords)(BSTR * *ppszRecordName, DWORD * pdwRecordNameCount) override;           \
  STDMETHOD(SetQuota)(ULONGLONG ullMinimumFreeDiskSpace, ULONGLONG ullMaximumArchiveSize) override; \
  STDMETHOD(SetFlushTimeout)(ULONG ulFlushTimeout) override;                                     \
  STDMETHOD(GetInfo)(SArchiveInfo * pArchiveInfo) override;                                      \
  STDMETHOD(Free)() override;                                                                    \
  STDMETHOD(DeleteRecord)(BSTR name) override

#define KV_IRECORDEX_METHODS                                                                  \
  STDMETHOD(ReservedRange)(FILETIME ftBegin, FILETIME ftEnd) override;                       \
  STDMETHOD(GetStatus)(BSTR * pszStatus) override;                                           \
  STDMETHOD(GetSibling)(LONG bForward, LONG lSteps, FILETIME ft, const SFrameFilter* pFilter, \
                        FILETIME* pftOutFrameTime) override

#define KV_IMULTIPARTARCHIVE_METHODS                                                                \
  STDMETHOD(AddPartition)(IKronvale * pPartition) override;                                        \
  STDMETHOD(RemovePartition)(IKronvale * pPartition) override;                                     \
  STDMETHOD(SetPartitionOptions)(IKronvale * pPartition, const SPartitionOptions* pOptions) override; \
  STDMETHOD(GetPartitionOptions)(IKronvale * pPartition, SPartitionOptions * pOptions) override;     \
  STDMETHOD(GetPartitions)(DWORD * pdwCount, IKronvale * **ppPartitions) override

#define KV_IKRONVALEQUOTA_METHODS                                   \
  STDMETHOD(SetArchiveQuota)(const SArchiveQuota* pQuota) override; \
  STDMETHOD(GetArchiveQuota)(SArchiveQuota * pQuota) override
