// A multipart archive: one logical archive over several ordinary archives (partitions), typically
// one per disk, kept in one XML file of its own. New frames go to the active partition; when a write
// there fails, the frame and every later one move to the next partition in the partitions' order
// (wrapping from the last to the first), for every open record of the archive at once.
//
//   <?xml version="1.0" encoding="UTF-8"?>
//   <config xmlns:xpt="urn:kronvale:multipart">
//     <description type="BSTR">Gate cameras</description>
//     <archive path="/mnt/disk1/gate">
//       <flags type="ULONG">0</flags>
//       <order type="ULONG">0</order>
//     </archive>
//     ...
//   </config>
//
// The file is rewritten (a new file renamed over the old one) after every change of partitions,
// options or description, so that it is always current and a failed save leaves the previous one
// readable. The namespace declaration marks the file as ours: the factory deletes no file without it.
//
// Lifetime: the archive holds counted references to its partitions, and each partition points back
// to it (uncounted; cleared when the partition leaves or the archive goes). Its multipart records
// hold a counted reference to it; it knows them without a count, and each record leaves that list
// when it goes.
#pragma once

#include <kronvale/kronvale.h>

#include <atomic>
#include <map>
#include <set>
#include <vector>

#include "com/InterfaceMethods.h"
#include "archive/ArchiveImpl.h"
#include "com/ComKit.h"
#include "records/StateControl.h"
#include "support/Lock.h"

namespace NSMultipart {

class CMultipartRecord;

// The most partitions one multipart archive holds (the order is one byte).
constexpr size_t kcMaxPartitions = 256;

// Space-exhausted bit: every partition refused the last frame offered to them. While it is set a
// failed write is not offered to the other partitions again; a partition whose quota changes, a
// partition added and new options clear it.
constexpr LONG klSpaceExhausted = 0x1;

// One frame on its way through the fail-over.
struct SWriteRequest {
  CMultipartRecord* pRecord;
  FILETIME ftFrame;
  DWORD dwFlags;
  const SFrameBuffer* pBuff;
  DWORD dwCount;
};

class CMultipartArchive : public NSCom::CComObjectRootEx,
                          public IMultipartArchive,
                          public NSRecords::CStateControl,
                          public NSArchive::IPartitionOwner {
 public:
  BEGIN_COM_MAP(CMultipartArchive)
    COM_INTERFACE_ENTRY2(IDescription, IMultipartArchive)
    COM_INTERFACE_ENTRY2(IKronvale, IMultipartArchive)
    COM_INTERFACE_ENTRY(IMultipartArchive)
    COM_INTERFACE_ENTRY(IStateControl)
  END_COM_MAP()

  void FinalRelease();

  // Makes a new multipart archive without partitions in the file strPath, which must not exist
  // (0x800700B7 otherwise, nothing written). The file is written at once.
  HRESULT Create(const WString& strPath);
  // Loads the file strPath, opening each partition through pFactory (so that partitions are the
  // factory's cached archives). A file that is not a multipart document (not XML, truncated,
  // another root, without our namespace, an "archive" without "path", options out of range, more
  // than kcMaxPartitions partitions) answers 0x8007000D; nothing is written. A partition whose
  // directory cannot be opened as an archive is reported and skipped, and kept in the file for the
  // day its disk comes back. The first partition in order becomes active.
  HRESULT Load(const WString& strPath, IArchiveFactoryEx* pFactory);
  // Writes the file anew. Under the lock.
  HRESULT Save();

  // Whether the bytes are a multipart document this library wrote (the factory deletes only those).
  static bool IsMultipartDocument(const std::string& strText);

  // The fail-over (called by a record whose write through pFailed's child failed): offers the frame
  // to the partitions after pFailed in order, wrapping, each at most once; the first that takes it
  // becomes active for every record. S_OK when one took it, 0x80072755 when none did.
  HRESULT OnChildRequestChangeActivePartition(IKronvale* pFailed, const SWriteRequest& request);
  // Makes pPartition active and tells every open record. S_FALSE when it already was.
  HRESULT SetActivePartition(IKronvale* pPartition);
  // A record leaves the list of open records (its FinalRelease).
  void ForgetRecord(CMultipartRecord* pRecord);
  // The active partition (counted), or null.
  NSCom::CComPtr<IKronvale> GetActivePartition();
  LONG GetSpaceExhausted() const { return m_lSpaceExhausted.load(); }

  // IDescription
  KV_IDESCRIPTION_METHODS;

  // IKronvale
  // SetQuota is E_NOTIMPL: each partition keeps its own quota. GetInfo sums the partitions' free
  // space, sizes and limits (a maximum size of 0, no limit, in any partition gives 0), and gives the
  // largest flush timeout and the union of the access words.
  KV_IKRONVALE_METHODS;

  // IMultipartArchive
  KV_IMULTIPARTARCHIVE_METHODS;

  // IPartitionOwner
  void OnPartitionQuotaChanged() override;

  // The factory deleted the file: the object refuses further changes (which would write it again);
  // its records go on writing to their partitions.
  void OnFileDeleted();

 protected:
  // Hands the freed bit on to every partition, as an archive does to its records.
  void OnChange(LONG lFirst, LONG lSecond, LONG lState) override;

 private:
  using CSection = NSSystem::CCriticalSection<0, 4000>;
  using CGuard = NSSystem::CSectionGuard<CSection>;

  struct SPartition {
    NSCom::CComPtr<IKronvale> pArchive;
    SPartitionOptions options;
    ULONGLONG ullSequence;  // order of adding: ties of "order" keep it
  };
  // A partition named in the file whose archive could not be opened: written back as it was.
  struct SAbsentPartition {
    WString strPath;
    SPartitionOptions options;
  };

  IKronvale* Key(IKronvale* pPartition);
  std::vector<IKronvale*> PartitionsInOrder();
  HRESULT AddPartitionUnlocked(IKronvale* pPartition, const SPartitionOptions* pOptions);
  HRESULT SetActivePartitionUnlocked(IKronvale* pPartition);
  template <bool bWriter>
  HRESULT MakeRecord(BSTR name, IRecord** ppRecord);
  HRESULT BuildDocument(std::string* pstrText);
  HRESULT ReadDocument(const std::string& strText, IArchiveFactoryEx* pFactory);
  HRESULT RefuseWhenLocked();
  // One change under the lock: refused as RefuseWhenLocked refuses it, else fnChange's result (a
  // change writes the file itself); an exception becomes its HRESULT.
  template <class TChange>
  HRESULT ChangeUnlessLocked(TChange fnChange);

  CSection m_section;  // guards everything below that is not atomic
  WString m_strPath;
  std::map<IKronvale*, SPartition> m_vPartitions;  // by the partition's own IKronvale
  std::vector<SAbsentPartition> m_vAbsent;
  IKronvale* m_pActive = nullptr;  // a key of m_vPartitions, or null
  WString m_szDescrition;
  std::set<CMultipartRecord*> m_records;  // open records, uncounted
  ULONGLONG m_ullNextSequence = 0;
  bool m_bFileDeleted = false;
  std::atomic<LONG> m_lSpaceExhausted{0};
};

}  // namespace NSMultipart
