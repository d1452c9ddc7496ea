// An extract: a detached, in-memory copy of a run of frames of one record, which answers the reading
// half of IRecord and marshals itself by value.
//
// A client gets one from IRecord::Extract (or makes an empty one with CoCreateInstance and fills it
// with Write). Passed to another process or machine, the extract is not proxied: IMarshal writes
// the whole extract into a packet and the receiving side builds its own complete copy from it, so
// the receiver never reaches the archive.
//
// The by-value packet (all integers little-endian, fields back to back, no padding):
//
//   offset  size  field
//   0       4     destination context, as given to the marshaling call
//   4       4     frame count
//   8       4     buffer count (m_dwCount)
//   12      ...   per frame, in ascending time order:
//                   8  frame time (FILETIME, low half first)
//                   4  flags
//                   1  has data: 1 when m_dwCount buffers follow, 0 when none do
//                   per buffer (has data 1 only): 4 size n, then n bytes
//
// So an extract of no frames is exactly 12 bytes. The layout is the interchange format between
// Windows and Linux builds and between versions: never change it; add nothing around it.
//
// A packet is untrusted input (it crosses a process or machine boundary). Unmarshaling refuses a
// truncated packet, counts or sizes beyond what the stream holds, frame times that repeat or go
// backwards, a has-data byte other than 0 or 1, and a buffer count outside 1..kdwMaxBuffers for an
// extract that holds frames; it frees what it read, and never allocates more than the stream can
// back (a stream that cannot tell its size is read in bounded steps as its bytes arrive).
//
// A stream that tells its size is read in blocks of up to 4 MiB that stay in memory as the frames'
// data: a buffer's bytes are used where they were read, with no allocation or copy of their own.
#pragma once

#include <kronvale/kronvale.h>

#include <memory>
#include <new>
#include <vector>

#include "com/InterfaceMethods.h"
#include "com/ComKit.h"
#include "platform/os.h"
#include "support/Lock.h"

namespace NSRecords {

// An allocator of bulk memory (NSPlatform::AllocateBulkMemory) for the extract's large tables:
// they are filled at once when a packet arrives, so their pages are best committed as they are made.
template <class T>
struct CBulkAllocator {
  using value_type = T;
  CBulkAllocator() = default;
  template <class U>
  CBulkAllocator(const CBulkAllocator<U>&) noexcept {}
  T* allocate(size_t n) {
    if (n > static_cast<size_t>(-1) / sizeof(T)) throw std::bad_array_new_length();
    void* pv = NSPlatform::AllocateBulkMemory(n * sizeof(T));
    if (!pv) throw std::bad_alloc();
    return static_cast<T*>(pv);
  }
  void deallocate(T* p, size_t n) noexcept { NSPlatform::FreeBulkMemory(p, n * sizeof(T)); }
  friend bool operator==(const CBulkAllocator&, const CBulkAllocator&) { return true; }
};

// Frees a block of bulk memory of cb bytes.
struct CBulkFree {
  size_t cb;
  void operator()(BYTE* pb) const noexcept { NSPlatform::FreeBulkMemory(pb, cb); }
};

class CRecordExtract : public NSCom::CComObjectRootEx,
                       public NSCom::CComCoClass<CRecordExtract>,
                       public IRecordExtract,
                       public IRecord,
                       public IMarshal {
 public:
  // The most buffers a frame of an extract may have.
  static constexpr DWORD kdwMaxBuffers = 4096;
  // Bytes of the packet before the first frame, and of each frame before its buffers.
  static constexpr DWORD kcbPacketHeader = 12;
  static constexpr DWORD kcbFrameHeader = 13;

  CRecordExtract() = default;
  ~CRecordExtract() { Clear(); }

  BEGIN_COM_MAP(CRecordExtract)
    COM_INTERFACE_ENTRY(IRecordExtract)
    COM_INTERFACE_ENTRY(IRecord)
    COM_INTERFACE_ENTRY(IMarshal)
  END_COM_MAP()

  void FinalRelease();

  // Fixes the buffer count of every frame (1..kdwMaxBuffers) and the record absent frames are read
  // from (may be null). Called once, before the first frame; E_INVALIDARG for a count out of range,
  // E_UNEXPECTED when the extract already has a buffer count.
  HRESULT Init(IRecord* pSource, DWORD dwCount);

  // Adds a frame. pBuffers is null for a frame whose data stays with the source until it is needed,
  // or m_dwCount buffer records whose data blocks (task memory) the extract owns from then on; the
  // data is not copied. A time already held is refused: the caller keeps its blocks then.
  HRESULT AppendFrame(FILETIME ftFrameTime, DWORD dwFlags, const SFrameBuffer* pBuffers);

  // The packet of the whole extract in a new temporary-file stream (one reference, positioned at
  // its end). Only MSHCTX_LOCAL and MSHCTX_DIFFERENTMACHINE are marshaled by value; any other
  // context is refused with E_INVALIDARG. Frames not loaded yet are read from the source one at a
  // time and kept. A failure leaves *ppStream null and the extract as it was (minus nothing: frames
  // loaded before the failure stay loaded).
  HRESULT MarshalToStream(IStream** ppStream, DWORD dwDestCtx);

  // Reads a packet from pStream (from its current position) into this extract, which must be
  // fresh (no buffer count, no frames). On failure the extract is left empty again.
  HRESULT ReadPacket(IStream* pStream);

  // IRecord: Write fills the extract (a fresh extract takes its buffer count from the first
  // Write); Read, GetNext, GetPrev, GetStatistic and CheckFrame read it. SetDescription,
  // GetDescription, GetPath, RemoveHour and GetName are E_NOTIMPL, as are Extract and Merge: an
  // extract is not a recording.
  KV_IDESCRIPTION_METHODS;
  // Read answers the frame stored at exactly ftFrame: its flags, and its first dwCount buffers, each
  // in a new task-memory block the caller frees (pData on input is not used). dwCount above
  // m_dwCount is HRESULT 0x80072024, an unknown time 0x80070490. A frame not loaded yet is read from
  // the source first. On failure no block of this call is left with the caller.
  KV_IRECORD_METHODS;

  // IMarshal. GetMarshalSizeMax and MarshalInterface build the packet once (with the context of
  // the first call) and share it; MarshalInterface copies it whole into pStm and writes nothing
  // else. UnmarshalInterface reads a packet into a fresh extract and answers its riid.
  STDMETHOD(GetUnmarshalClass)(REFIID riid, void* pv, DWORD dwDestContext, void* pvDestContext, DWORD mshlflags,
                               CLSID* pCid) override;
  STDMETHOD(GetMarshalSizeMax)(REFIID riid, void* pv, DWORD dwDestContext, void* pvDestContext, DWORD mshlflags,
                               DWORD* pSize) override;
  STDMETHOD(MarshalInterface)(IStream* pStm, REFIID riid, void* pv, DWORD dwDestContext, void* pvDestContext,
                              DWORD mshlflags) override;
  STDMETHOD(UnmarshalInterface)(IStream* pStm, REFIID riid, void** ppv) override;
  STDMETHOD(ReleaseMarshalData)(IStream* pStm) override;
  STDMETHOD(DisconnectObject)(DWORD dwReserved) override;

 private:
  // Where a frame's data is. The frame's m_dwCount buffer records are m_vBuffers[iFirst...] unless
  // it is absent.
  enum class EData : BYTE {
    kAbsent,  // still with the source record, read when first needed
    kOwned,   // one task-memory block per buffer, the frame's own (appended, written or loaded)
    kShared,  // inside a packet block of m_vBlocks, beside the data of other unmarshaled frames
  };
  struct SFrame {
    ULONGLONG ullTime;  // the frame time as a tick count
    DWORD dwFlags;
    EData eData;
    size_t iFirst;
  };
  // Frames sorted by time, each time once. Frames arrive in time order from the extract operation
  // and from a packet, so they go on the end; a client's Write before the last frame moves the
  // entries after it.
  using CFrames = std::vector<SFrame, CBulkAllocator<SFrame>>;
  // A block of packet bytes read in place: the data of many unmarshaled frames. Frames are never
  // dropped one at a time (a time is written once and never rewritten), so a block lives as long
  // as the frames it backs: until the extract is cleared.
  using CBlock = std::unique_ptr<BYTE, CBulkFree>;

  CFrames::iterator LowerBound(ULONGLONG ullTime);
  CFrames::iterator UpperBound(ULONGLONG ullTime);
  CFrames::iterator Find(ULONGLONG ullTime);
  SFrameBuffer* BuffersOf(const SFrame& frame) { return m_vBuffers.data() + frame.iFirst; }
  // Adds a frame at its place with m_dwCount records copied from pRecords (null: absent). On
  // failure (E_OUTOFMEMORY) nothing is added and the blocks stay with the caller.
  HRESULT Insert(ULONGLONG ullTime, DWORD dwFlags, EData eData, const SFrameBuffer* pRecords);
  // Frees every frame's own blocks and the packet blocks, and empties the extract.
  void Clear();

  HRESULT WritePacket(IStream** ppStream, DWORD dwDestCtx);
  HRESULT WriteLocked(FILETIME ftFrame, DWORD dwFlags, const SFrameBuffer* pBuff, DWORD dwCount);
  HRESULT StatisticLocked(FILETIME ftBegin, FILETIME ftEnd, FILETIME ftResolution, const SFrameFilter* pFilter,
                          LONG dwFlags, DWORD* pdwCount, SRecordStatistic** ppRecordStatistic);
  HRESULT ReadPacketLocked(IStream* pStream);
  HRESULT LoadFrame(SFrame& frame);
  HRESULT MakePacket(DWORD dwDestCtx);
  HRESULT Step(bool bForward, FILETIME ft, const SFrameFilter* pFilter, FILETIME* pftFound);

  NSSystem::CCriticalSection<0, 4000> m_section;  // guards everything below
  CFrames m_vFrames;
  std::vector<SFrameBuffer, CBulkAllocator<SFrameBuffer>> m_vBuffers;  // records of the frames with data
  std::vector<CBlock> m_vBlocks;  // the packet blocks shared by unmarshaled frames
  DWORD m_dwCount = 0;
  NSCom::CComPtr<IRecord> m_pSource;  // may be null (an unmarshaled or client-filled extract)
  NSCom::CComPtr<IStream> m_pPacket;  // the marshal cache, built on first use
};

}  // namespace NSRecords
