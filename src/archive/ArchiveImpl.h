// An archive: a directory holding its settings ("settings.als"), its description ("descriptor.ald")
// and one sub-directory per record. The archive hands out record objects and keeps them in its
// record table: the read-write handle of a record ("name-rw") is shared by all writers, every reading
// client gets a reader of its own ("name-client-r").
//
// Two background threads work for an open archive:
//   - the quota worker measures the archive every kdwQuotaPeriodMs and deletes the oldest hours of
//     its records while a limit (free space, archive size, hours per record) is exceeded;
//   - the flusher, only while FlushTimeout is nonzero (buffered hours), hands the open hour of every
//     record to the disk every FlushTimeout milliseconds, which bounds what a power cut can take.
//
// Records hold a counted reference to their archive and the table holds the records, so an archive
// lives until Free empties the table; the factory keeps the archives it opened and revives a freed
// one when its path is opened again.
#pragma once

#include <kronvale/kronvale.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "com/InterfaceMethods.h"
#include "archive/ArchiveSettings.h"
#include "com/ComKit.h"
#include "records/RecordInternal.h"
#include "records/StateControl.h"
#include "support/Lock.h"
#include "support/Thread.h"

namespace NSArchive {

class CArchiveFactory;

// The multipart archive that holds an archive as a partition, as the partition sees it. Not a COM
// interface: the partition keeps a plain pointer, which its owner clears before it goes.
class IPartitionOwner {
 public:
  // The partition's quota changed: a partition that refused frames may take them again. Called
  // under the partition's lock; the owner must not take a lock that waits for the partition.
  virtual void OnPartitionQuotaChanged() = 0;

 protected:
  ~IPartitionOwner() = default;
};

// Between two size-and-quota passes. A pass walks every file of the archive's records, so it is not
// run often; 30 s of writing at a few tens of MB/s stays inside the 2 GiB margin that each pass
// frees beyond the limit.
constexpr DWORD kdwQuotaPeriodMs = 30000;

// Access bit: the archive never deletes hours by itself.
constexpr DWORD kdwAccessNoRetention = 0x4;

// The most readers the archive caches (registry value "archive_max_readers_count" under
// HKEY_LOCAL_MACHINE\software\morvane\vistrel, read once; 100 when absent, 0 for no limit).
DWORD GetReaderLimit();
// The value as the machine holds it now (uncached).
DWORD ReadReaderLimit();
// Replaces the cached limit (tests).
void SetReaderLimit(DWORD dwLimit);

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

  DECLARE_CLASSFACTORY_EX(CArchiveFactory)

  BEGIN_COM_MAP(CArchiveImpl)
    COM_INTERFACE_ENTRY(IKronvale)
    COM_INTERFACE_ENTRY2(IDescription, IKronvale)
    COM_INTERFACE_ENTRY(IKronvaleEx)
    COM_INTERFACE_ENTRY(IKronvaleQuota)
    COM_INTERFACE_ENTRY(IKronvaleInternal)
    COM_INTERFACE_ENTRY(IStateControl)
    COM_INTERFACE_ENTRY(IRecordParent)
  END_COM_MAP()

  HRESULT FinalConstruct();
  void FinalRelease();

  // Makes a new archive in the directory strPath (created when missing, which must be empty
  // otherwise, or hold only what an interrupted creation left): an empty description, then its
  // settings, whose presence is what makes the directory an archive. Leaves the archive open.
  HRESULT Create(const WString& strPath);
  // The full canonical form of an archive path, without a trailing separator.
  static WString FullPath(const WString& strPath);
  // Whether the directory holds only what a creation killed before its settings were in place
  // leaves behind (its description, a settings file not yet renamed into place), and something.
  static bool IsInterruptedCreation(const WString& strDirectory);
  HRESULT CheckRecordName(const WString& strName);
  // Opens the archive in the directory strPath: loads its settings (0x80070003 without them),
  // replays a stored state, takes a nonzero dwAccess as the new access word, and opens every
  // record once.
  HRESULT Open(const WString& strPath, DWORD dwAccess);

  // IDescription
  KV_IDESCRIPTION_METHODS;

  // IKronvale
  KV_IKRONVALE_METHODS;

  // IKronvaleEx
  STDMETHOD(OpenRecordEx)(BSTR client, BSTR name, ULONG mode, IRecord** ppRecord) override;

  // IKronvaleQuota
  KV_IKRONVALEQUOTA_METHODS;

  // IKronvaleInternal
  STDMETHOD(CreateRecordInternal)(BSTR name, IRecord** ppRecord, LONG lPublic) override;
  STDMETHOD(OpenRecordInternal)(BSTR client, BSTR name, ULONG mode, IRecord** ppRecord, LONG lPublic) override;

  // IStateControl: bit 0x80000 saves the settings now, bit 0x100000 defers that to the next open.
  STDMETHOD(Set)(LONG lState) override;

  // IRecordParent: wakes the worker for a pass now (a pass already running is not started twice).
  STDMETHOD_(void, OnOutOfSpace)() override;

  // One measurement of the archive and, when a limit is exceeded, the deletion of the oldest hours.
  // Does nothing when a pass is already running or the archive is freed.
  virtual void SizeAndQuotaPass();
  // The quota check of a pass (after the size scan): S_FALSE when every limit holds.
  HRESULT CheckQuota();
  // Deletes the oldest hours across the records until llBytesToFree bytes are freed, then the
  // oldest hours of every record holding more than lHourLimit hours.
  HRESULT RemoveOldests(LONGLONG llBytesToFree, LONG lHourLimit);
  // Flushes the open hour of every record (the flusher's task).
  void FlushRecords();

  // What the last size scan found, and whether the last quota check found a limit exceeded.
  ULONGLONG GetArchiveSize();
  ULONGLONG GetOpenHoursSize();
  bool IsQuotaExceeded() const { return m_lQuotaExceeded.load() != 0; }
  // The multipart archive holding this archive as a partition (not counted); null when alone. A
  // partition never deletes hours by itself and tells its owner when its quota changes.
  void SetOwner(IPartitionOwner* pOwner);
  // Clears the owner link when pOwner is the owner (an owner letting go never clears another's).
  void ReleaseOwner(IPartitionOwner* pOwner);
  bool HasOwner();

 protected:
  void OnChange(LONG lFirst, LONG lSecond, LONG lState) override;

 private:
  using CSection = NSSystem::CCriticalSection<0, 4000>;
  using CGuard = NSSystem::CSectionGuard<CSection>;

  struct SRecordEntry {
    NSCom::CComPtr<IRecord> pRecord;
    WString strClient;
    DWORD dwMode;
  };
  using CRecordTable = std::map<WString, SRecordEntry>;

  HRESULT SerializeSettings(bool bSave);
  HRESULT MakeRecord(const WString& strName, const WString& strClient, DWORD dwMode, const WString& strHandle,
                     IRecord** ppRecord);
  void TrimReaders(DWORD dwLimit);
  void TellOwnerQuotaChanged();
  std::vector<NSCom::CComPtr<IRecord>> OpenWriters();
  void SizeScan();
  void StartFlusher(DWORD dwFlushTimeout);
  void StopFlusher();

  CSection m_section;  // guards everything below that is not atomic
  CRecordTable m_records;                // by handle name
  std::map<WString, ULONGLONG> m_readers;  // reading client -> time of its last open
  WString m_strPath;
  SArchiveSettings m_settings;
  ULONGLONG m_ullOpenHoursSize = 0;
  std::atomic<LONG> m_lQuotaExceeded{0};
  std::atomic<LONG> m_lBusy{0};
  IPartitionOwner* m_pOwner = nullptr;
  std::shared_ptr<NSSystem::CThread> m_pWorker;
  // The flusher is started and stopped outside the archive lock (its task takes that lock).
  std::mutex m_flusherMutex;
  std::shared_ptr<NSSystem::CThread> m_pFlusher;
  DWORD m_dwFlusherPeriod = 0;
  // Where a background thread that releases the archive's last reference itself (its task held
  // the last records) is kept until its body has ended; the thread's task owns the cell.
  struct SThreadCell {
    std::shared_ptr<NSSystem::CThread> pThread;
  };
  std::shared_ptr<SThreadCell> m_pWorkerCell = std::make_shared<SThreadCell>();
  std::shared_ptr<SThreadCell> m_pFlusherCell;
  static void LetThreadGo(std::shared_ptr<NSSystem::CThread>& pThread, const std::shared_ptr<SThreadCell>& pCell);
};

// The archive object behind p when p is one of this library's archives (it answers IRecordParent),
// else null. Adds no reference: the caller holds p.
CArchiveImpl* ArchiveImplOf(IUnknown* p);

// A record name is one directory name inside the archive: not empty, not "." or "..", without a
// path separator of either platform.
bool IsValidRecordName(const WString& strName);

}  // namespace NSArchive
