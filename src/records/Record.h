// A record: one named stream of frames, kept on disk as a directory holding "record.ald" (its
// description) and a tree of hour directories year/month/day/hour, each one CHourManager.
//
// The archive makes a record as a writer (access 3) or as a reader object; both may use the same
// directories at once, each with its own open hour. A record has one writer object across every
// process on the machine (the writer keeps a lock on "record.lck"); reader objects, in any process,
// never change anything on disk: they neither repair nor erase directories. A record keeps exactly one hour open: reading
// or writing another hour closes the open one first. Every public operation holds the record lock
// for its whole duration; the lock is recursive, so operations built from others (statistics,
// merge, fast copy) call the public ones.
#pragma once

#include <kronvale/kronvale.h>

#include <atomic>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "com/InterfaceMethods.h"
#include "com/ComKit.h"
#include "hours/HourManager.h"
#include "records/RecordInternal.h"
#include "records/RecordStatistic.h"
#include "records/StateControl.h"
#include "support/Lock.h"

namespace NSRecords {

// Access mode bits.
constexpr DWORD kdwAccessMask = 0x3;
constexpr DWORD kdwAccessReadWrite = 0x3;
constexpr DWORD kdwAccessQuotaExceeded = 0x4;

// The file of a record directory whose first byte the record's writer keeps locked.
inline constexpr WCHAR kszWriterLockFile[] = KV_W("record.lck");

// Takes this process's hold on the writer lock of the record directory strRecordPath (shared by the
// process's writer objects of the record; released with the last reference). A writer in another
// process holds it: 0x80070020 (sharing violation).
HRESULT LockRecordForWriting(const WString& strRecordPath, std::shared_ptr<void>* ppLock);

class CRecord : public NSCom::CComObjectRootEx,
                public NSCom::CComCoClass<CRecord>,
                public IRecordEx,
                public IRecordFastCopy,
                public CStateControl,
                public IRecordInternal,
                public NSHours::IProgress {
 public:
  CRecord();
  ~CRecord();

  BEGIN_COM_MAP(CRecord)
    COM_INTERFACE_ENTRY2(IDescription, IRecordEx)
    COM_INTERFACE_ENTRY2(IRecord, IRecordEx)
    COM_INTERFACE_ENTRY(IStateControl)
    COM_INTERFACE_ENTRY(IRecordEx)
    COM_INTERFACE_ENTRY(IRecordFastCopy)
    COM_INTERFACE_ENTRY(IRecordInternal)
  END_COM_MAP()

  void FinalRelease();

  // IDescription
  KV_IDESCRIPTION_METHODS;

  // IRecord
  KV_IRECORD_METHODS;

  // IRecordEx
  KV_IRECORDEX_METHODS;

  // IRecordFastCopy
  STDMETHOD(CopyHoursTo)(BSTR bstrTargetPath, FILETIME ftBegin, FILETIME ftEnd) override;

  // IRecordInternal
  STDMETHOD(Create)(IKronvale* pParent, const WCHAR* pszPath, DWORD dwHourOpenOptions, DWORD dwAccessMode) override;
  STDMETHOD_(DWORD, GetAccessMode)() override { return m_dwAccessMode.load(); }
  STDMETHOD_(ULONGLONG, GetCurrentHourSize)() override;
  STDMETHOD(FlushCurrentHour)() override;
  STDMETHOD_(DWORD, GetHourCount)() override;
  STDMETHOD(GetCurrentHourPath)(WString* pstrHourPath) override;
  STDMETHOD(FindClosestHourPath)(const WString& strHourPath, bool bForward, WString* pstrFound) override;
  STDMETHOD(RepairHour)(const WCHAR* pszHourPath) override;
  STDMETHOD_(LONG, EnterBusy)() override { return ++m_lBusy; }
  STDMETHOD_(LONG, LeaveBusy)() override { return --m_lBusy; }

  // IProgress (of a repair)
  void SetPercent(BYTE byPercent) override;
  bool IsStopped() override;

  // Makes strHourPath the open hour (closing the previous one) and hands out its manager. Runs
  // under the caller's record lock. bSeen: the caller has just seen the hour's directory exist.
  HRESULT GetHourManager(const WString& strHourPath, bool bCreate, std::shared_ptr<NSHours::CHourManager>* ppHour,
                         bool bSeen = false);

 protected:
  void OnChange(LONG lFirst, LONG lSecond, LONG lState) override;

 private:
  using CHourPtr = std::shared_ptr<NSHours::CHourManager>;

  bool IsWriter() const { return (m_dwAccessMode.load() & kdwAccessMask) == kdwAccessReadWrite; }
  HRESULT RefuseReader();
  // Answers hr, first telling the archive when it says the volume is full.
  HRESULT WakeRetentionWhenFull(HRESULT hr);
  HRESULT OpenHour(const WString& strHourPath, bool bCreate, CHourPtr* ppHour);
  void CloseCurrentHour(bool bReport);
  WString HourDirectory(const WString& strHourPath) const;
  HRESULT Step(bool bForward, FILETIME ft, const SFrameFilter* pFilter, FILETIME* pftFound);
  HRESULT CollectStatistic(ULONGLONG ullBegin, ULONGLONG ullEnd, ULONGLONG ullResolution, const SFrameFilter* pFilter,
                           std::vector<SStatisticCell>* pvCells);
  bool InCurrentHour(ULONGLONG ullTime, SYSTEMTIME* pst) const;
  bool FindHourSummary(ULONGLONG ullHour, const WString& strDirectory, std::vector<NSHours::SHourCell>* pvCells);
  void KeepHourSummary(ULONGLONG ullHour, NSHours::CHourManager& hour, const std::vector<NSHours::SHourCell>& vCells);
  HRESULT FindFromLevel(const WString* astrParts, int nStart, bool bForward, WString* pstrFound);
  // The names of year (nLevel 0), month, day or hour directories in strDirectory, in ascending order.
  std::vector<WString> Listing(const WString& strDirectory, int nLevel);
  bool ListedDirectory(const WString& strDirectory, int nLevel, const WString& strName);
  // Whether the hour directory of strHourPath exists (relative to the record directory).
  bool IsHourDirectory(const WString& strHourPath);
  bool SearchDown(const WString& strDirectory, const WString& strRelative, int nLevel, bool bForward,
                  WString* pstrFound, bool* pbFailed);
  bool EraseEmptyDirectory(const WString& strDirectory, const WString& strRelative);
  void SetStatus(const WString& strStatus);

  // Guards everything below it that is not atomic; shared with the hour managers this record makes.
  std::shared_ptr<NSSystem::SLock> m_pLock;
  WString m_strPath;             // the record directory, canonical, without a trailing separator
  WString m_strCurrentHourPath;  // relative hour path of the open hour; empty when none
  CHourPtr m_pCurrentHour;
  // Recently used closed hours: the private index copy each left when it was closed, most recent
  // first, at most kcCachedHours of them (1.5 MB each). Opening one of them again costs no copy.
  // They hold memory only, no file, so nothing here keeps an hour from being deleted. A copy is used
  // only while no hour changed in this process since it was taken (NSKronvaleUtils::HourChangeEpoch,
  // advanced by repair, RemoveHour, retention, record deletion and fast copy) and descriptor.ald has
  // the size it had; a writer's appends (this record's, another object's, or a merge's) grow that
  // size, and only the frames appended since are then copied in.
  static constexpr size_t kcCachedHours = 4;
  std::vector<std::pair<WString, NSHours::SHourSnapshot>> m_vCachedHours;
  // What a statistic without a filter at one-hour resolution or above takes from a whole hour: its
  // one cell (none for an hour without frames), with the size of descriptor.ald and the hour-change
  // epoch of the copy it came from. Used again, without opening the hour, only while the epoch is
  // the same and descriptor.ald has that size: a closed hour changes only by appends (which grow
  // it) or by what advances the epoch. Memory only, at most kcMostSummaries (a year of hours, about
  // 64 bytes each); the whole set is dropped when it is full.
  struct SHourSummary {
    ULONGLONG ullDescriptorSize;
    ULONGLONG ullEpoch;
    bool bEmpty;
    NSHours::SHourCell cell;
  };
  static constexpr size_t kcMostSummaries = 24 * 366;
  std::unordered_map<ULONGLONG, SHourSummary> m_mapSummaries;  // by hour (hours since 1601)
  // The directory listings one search of a reader has made (Step), so that a walk over a sparse
  // year lists each month once; empty outside a search. A reader erases nothing, so a listing stays
  // what the directory held when the search began; hours made later are found by the next search.
  bool m_bKeepListings = false;
  std::map<WString, std::vector<WString>> m_mapListings;
  bool m_bCurrentHourCreated = false;  // the open hour was opened by a write
  // The open hour as a number of hours since 1601 and as a UTC breakdown (minutes and below 0), so
  // that frames of the open hour need no path to be formatted.
  ULONGLONG m_ullCurrentHourIndex = 0;
  SYSTEMTIME m_stCurrentHour = {};
  DWORD m_dwHourOpenOptions = 0;
  NSCom::CComPtr<IKronvale> m_pParent;
  std::shared_ptr<void> m_pWriterLock;  // a writer's hold on "record.lck"; none for readers
  bool m_bParentIsArchive = false;
  IRecordParent* m_pArchiveParent = nullptr;  // m_pParent as an archive of ours (held through m_pParent)
  std::atomic<LONG> m_lBusy{0};
  std::atomic<DWORD> m_dwAccessMode{0};

  // The maintenance running now and its progress, under their own section so that GetStatus
  // answers while a repair holds the record lock.
  NSSystem::CCriticalSection<0, 4000> m_statusSection;
  WString m_strStatus;
  std::atomic<BYTE> m_byPercent{0};
};

}  // namespace NSRecords
