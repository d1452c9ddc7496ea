// One record of a multipart archive: a child record in each partition where the record exists, of
// which the active partition's child (m_spActiveRecord) takes the writes and answers the reads.
//
// Write fails over: when the active child refuses a frame, the record hands the frame to its
// archive, which offers it to the following partitions in order and makes the one that takes it
// active for every record. 0x8007006C (the partition was freed) is never failed over. Writers are
// serialised only for the choice of the child; the child's write runs outside the record's lock.
#pragma once

#include <kronvale/kronvale.h>

#include <map>

#include "com/InterfaceMethods.h"
#include "com/ComKit.h"
#include "support/Lock.h"

namespace NSMultipart {

class CMultipartArchive;

class CMultipartRecord : public NSCom::CComObjectRootEx, public IRecord {
 public:
  BEGIN_COM_MAP(CMultipartRecord)
    COM_INTERFACE_ENTRY(IRecord)
    COM_INTERFACE_ENTRY2(IDescription, IRecord)
  END_COM_MAP()

  void FinalRelease();

  // Called once right after construction: the archive (counted), the record's name and whether it
  // writes (children are writers) or reads (children are "GenericReader" readers).
  void Init(CMultipartArchive* pOwner, const WString& strName, bool bWriter);
  const WString& GetRecordName() const { return m_strName; }
  bool IsWriter() const { return m_bWriter; }

  // Adds the child of one partition (replacing an earlier child of it).
  HRESULT AddRecord(IRecord* pRecord, IKronvale* pArchive);
  // Removes a child, found by record or by partition ("pRecord || pArchive\n" when neither is
  // given). The active child may be removed: the record then has none until SetActivePartition.
  HRESULT RemoveRecord(IRecord* pRecord, IKronvale* pArchive);
  // Makes pArchive's child active. Without one, "m_spActiveRecord\n" is reported, the active child
  // stays as it was and E_UNEXPECTED is answered.
  HRESULT SetActivePartition(IKronvale* pArchive);
  // Writes through pArchive's child: E_UNEXPECTED ("spRecord\n") when there is none.
  HRESULT RetryWrite(IKronvale* pArchive, FILETIME ftFrame, DWORD dwFlags, const SFrameBuffer* pBuff, DWORD dwCount);
  // Whether pArchive has a child here.
  bool HasChild(IKronvale* pArchive);

  // IDescription: set on every child; read from every child, which must agree.
  KV_IDESCRIPTION_METHODS;

  // IRecord: Write with fail-over; everything else forwarded to the active child.
  KV_IRECORD_METHODS;

 private:
  using CSection = NSSystem::CCriticalSection<0, 4000>;
  using CGuard = NSSystem::CSectionGuard<CSection>;

  struct SChild {
    NSCom::CComPtr<IKronvale> pArchive;
    NSCom::CComPtr<IRecord> pRecord;
  };

  // The active child with a reference taken, or null after the report "m_spActiveRecord\n".
  NSCom::CComPtr<IRecord> Active();

  NSCom::CComPtr<IMultipartArchive> m_pOwnerHold;  // keeps the archive alive
  CMultipartArchive* m_pOwner = nullptr;
  WString m_strName;
  bool m_bWriter = false;
  CSection m_section;                      // guards the two below
  std::map<IKronvale*, SChild> m_children;  // by partition
  NSCom::CComPtr<IRecord> m_spActiveRecord;
};

}  // namespace NSMultipart
