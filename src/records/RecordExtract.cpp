// The extract: its frame map, reading it, its statistics, and its by-value packet.
#include "records/RecordExtract.h"

#include <kronvale/KronvaleResults.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "hours/KronvaleUtils.h"
#include "records/RecordStatistic.h"
#include "records/StreamOnFile.h"
#include "support/Report.h"

namespace NSRecords {

using namespace NSKronvale;

using NSPlatform::FileTimeToU64;
using NSPlatform::U64ToFileTime;

namespace {

using CGuard = NSSystem::CSectionGuard<NSSystem::CCriticalSection<0, 4000>>;

constexpr ULONGLONG kullHour = NSKronvaleUtils::kullTicksPerHour;
constexpr ULONGLONG kullSlot = 100000;  // 10 ms
constexpr ULONGLONG kullSecond = 10000000;

bool Passes(const SFrameFilter* pFilter, DWORD dwFlags) {
  return !pFilter || NSKronvaleUtils::IsFrameMatchesFilter(*pFilter, dwFlags);
}

void PutU32(BYTE* p, DWORD dw) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<BYTE>(dw >> (8 * i));
}
DWORD GetU32(const BYTE* p) {
  return DWORD{p[0]} | DWORD{p[1]} << 8 | DWORD{p[2]} << 16 | DWORD{p[3]} << 24;
}

// Writes the packet into a stream through a fixed buffer, so that small fields do not cost a
// write each; blocks larger than the buffer go to the stream directly.
class CPacketWriter {
 public:
  explicit CPacketWriter(IStream* pStream) : m_pStream(pStream) {}
  HRESULT Put(const void* pv, size_t cb) {
    if (cb > sizeof(m_ab) - m_cb) {
      const HRESULT hr = Flush();
      if (FAILED(hr)) return hr;
    }
    if (cb >= sizeof(m_ab)) return WriteAll(pv, cb);
    std::memcpy(m_ab + m_cb, pv, cb);
    m_cb += cb;
    return S_OK;
  }
  HRESULT PutU32(DWORD dw) {
    BYTE ab[4];
    NSRecords::PutU32(ab, dw);
    return Put(ab, sizeof(ab));
  }
  HRESULT Flush() {
    const HRESULT hr = WriteAll(m_ab, m_cb);
    m_cb = 0;
    return hr;
  }

 private:
  HRESULT WriteAll(const void* pv, size_t cb) {
    const BYTE* pb = static_cast<const BYTE*>(pv);
    while (cb > 0) {
      const ULONG cbAsk = static_cast<ULONG>(std::min<size_t>(cb, 0x40000000));
      ULONG cbWritten = 0;
      HRESULT hr = m_pStream->Write(pb, cbAsk, &cbWritten);
      if (SUCCEEDED(hr) && cbWritten == 0) hr = khrWriteFault;
      if (FAILED(hr)) return hr;
      pb += cbWritten;
      cb -= cbWritten;
    }
    return S_OK;
  }

  IStream* m_pStream;
  size_t m_cb = 0;
  BYTE m_ab[64 * 1024];
};

// Reads an untrusted packet. Before any allocation it checks that the stream can still back it:
// the bytes left in the stream are learnt once (Stat and Seek); a stream that cannot tell is read
// in bounded steps, so that memory grows only as bytes actually arrive.
//
// A stream that tells its size is read in large blocks, which GetData hands out in place: the
// blocks go to the extract's list as they are made and back the data of its frames from then on.
// Finish seeks back over what was read ahead and not used, so that the stream is left just after
// the packet, as the COM runtime requires. A stream that cannot tell is read field by field, never
// beyond the packet, and each buffer gets a task-memory block of its own.
class CPacketReader {
 public:
  CPacketReader(IStream* pStream, std::vector<std::unique_ptr<BYTE, CBulkFree>>& vBlocks) : m_pStream(pStream), m_vBlocks(vBlocks) {
    STATSTG stat;
    ULARGE_INTEGER uliPosition = {};
    LARGE_INTEGER liZero = {};
    if (SUCCEEDED(pStream->Stat(&stat, STATFLAG_NONAME)) &&
        SUCCEEDED(pStream->Seek(liZero, STREAM_SEEK_CUR, &uliPosition)) &&
        uliPosition.QuadPart <= stat.cbSize.QuadPart) {
      m_bKnown = true;
      m_ullLeft = stat.cbSize.QuadPart - uliPosition.QuadPart;
    }
  }
  // Whether GetData hands out places in shared packet blocks (else blocks of their own).
  bool SharesBlocks() const { return m_bKnown; }
  // Whether the stream may still hold cb bytes (always true when it cannot tell).
  bool Backs(ULONGLONG cb) const { return !m_bKnown || cb <= m_ullLeft + Pending(); }

  // Exactly cb bytes, or khrReadFault for a packet that ends early.
  HRESULT Get(void* pv, ULONG cb) {
    if (!m_bKnown) return GetDirect(pv, cb);
    const HRESULT hr = Ensure(cb);
    if (FAILED(hr)) return hr;
    std::memcpy(pv, m_pBlock + m_nNext, cb);
    Advance(cb);
    return S_OK;
  }
  HRESULT GetU32(DWORD* pdw) {
    BYTE ab[4];
    const HRESULT hr = Get(ab, sizeof(ab));
    *pdw = NSRecords::GetU32(ab);
    return hr;
  }

  // The next cb bytes as a buffer's data. Never more than the stream can back. From a stream that
  // tells its size: a place in the current packet block. Otherwise a task-memory block the caller
  // owns, which grows by at most kcbStep beyond what has arrived.
  HRESULT GetData(DWORD cb, BYTE** ppData) {
    KV_FUNC("CRecordExtract::UnmarshalInterface");
    *ppData = nullptr;
    if (!Backs(cb)) {
      KV_LOG_ERROR(KV_W("Extract packet claims a buffer of %u bytes at byte %I64u, beyond its end\n"),
                   static_cast<unsigned>(cb), m_ullOffset);
      return khrInvalidData;
    }
    if (!m_bKnown) return GetOwnBlock(cb, ppData);
    const HRESULT hr = Ensure(cb);
    if (FAILED(hr)) return hr;
    *ppData = m_pBlock + m_nNext;
    m_bBlockUsed = true;
    Advance(cb);
    return S_OK;
  }

  // Leaves the stream just after the bytes used, and lets go of a last block that backs nothing.
  HRESULT Finish() {
    KV_FUNC("CRecordExtract::UnmarshalInterface");
    if (Pending() != 0) {
      LARGE_INTEGER liBack;
      liBack.QuadPart = -static_cast<LONGLONG>(Pending());
      const HRESULT hr = m_pStream->Seek(liBack, STREAM_SEEK_CUR, nullptr);
      if (!KV_SUCCEEDED(hr)) return hr;
      m_nNext = m_nEnd;
    }
    if (m_bBlockUsed) NSPlatform::TrimBulkMemory(m_pBlock, m_cbBlock, m_nNext);
    DropUnusedBlock();
    return S_OK;
  }

 private:
  size_t Pending() const { return m_nEnd - m_nNext; }
  void Advance(ULONG cb) {
    m_nNext += cb;
    m_ullOffset += cb;
  }

  // At least cb bytes read and unused at m_pBlock + m_nNext. A block too small for them is
  // followed by a new one, which starts with the bytes of the old one not used yet.
  HRESULT Ensure(ULONG cb) {
    if (Pending() >= cb) return S_OK;
    if (m_nNext + cb > m_cbBlock) {
      const HRESULT hr = NewBlock(cb);
      if (FAILED(hr)) return hr;
    }
    while (Pending() < cb) {
      const ULONG cbAsk = static_cast<ULONG>(std::min<ULONGLONG>(m_cbBlock - m_nEnd, m_ullLeft));
      ULONG cbRead = 0;
      const HRESULT hr = cbAsk ? m_pStream->Read(m_pBlock + m_nEnd, cbAsk, &cbRead) : S_OK;
      if (FAILED(hr)) return Failed(hr);
      if (cbRead == 0 || cbRead > cbAsk) return Short(static_cast<ULONG>(cb - Pending()));
      m_nEnd += cbRead;
      m_ullLeft -= cbRead;
    }
    return S_OK;
  }

  // A block for at least cb bytes: kcbBlock, or less when the stream holds less, or cb when more.
  HRESULT NewBlock(ULONG cb) {
    KV_FUNC("CRecordExtract::UnmarshalInterface");
    const size_t cbPending = Pending();
    const size_t cbBlock = std::max<size_t>(cb, static_cast<size_t>(std::min<ULONGLONG>(kcbBlock, cbPending + m_ullLeft)));
    std::unique_ptr<BYTE, CBulkFree> pBlock(static_cast<BYTE*>(NSPlatform::AllocateBulkMemory(cbBlock)), CBulkFree{cbBlock});
    if (!KV_ASSERT_TEXT(pBlock, "oFrame.pBuff[i].pData\n")) return E_OUTOFMEMORY;
    if (cbPending) std::memcpy(pBlock.get(), m_pBlock + m_nNext, cbPending);
    // What the old block holds beyond its last frame's data now lives in the new one.
    if (m_bBlockUsed) NSPlatform::TrimBulkMemory(m_pBlock, m_cbBlock, m_nNext);
    DropUnusedBlock();
    m_vBlocks.push_back(std::move(pBlock));
    m_nEnd = cbPending;
    m_nNext = 0;
    m_pBlock = m_vBlocks.back().get();
    m_cbBlock = cbBlock;
    m_bBlockUsed = false;
    return S_OK;
  }
  void DropUnusedBlock() {
    if (!m_pBlock || m_bBlockUsed) return;
    m_vBlocks.pop_back();
    m_pBlock = nullptr;
    m_cbBlock = m_nNext = m_nEnd = 0;
  }

  // From a stream that cannot tell its size: exactly cb bytes, no read-ahead.
  HRESULT GetDirect(void* pv, ULONG cb) {
    BYTE* pb = static_cast<BYTE*>(pv);
    for (ULONG cbDone = 0; cbDone < cb;) {
      ULONG cbRead = 0;
      const HRESULT hr = m_pStream->Read(pb + cbDone, cb - cbDone, &cbRead);
      if (FAILED(hr)) return Failed(hr);
      if (cbRead == 0 || cbRead > cb - cbDone) return Short(cb - cbDone);
      cbDone += cbRead;
      m_ullOffset += cbRead;
    }
    return S_OK;
  }
  HRESULT GetOwnBlock(DWORD cb, BYTE** ppData) {
    KV_FUNC("CRecordExtract::UnmarshalInterface");
    DWORD cbAllocated = std::min(cb, kcbStep);
    BYTE* pData = static_cast<BYTE*>(CoTaskMemAlloc(cbAllocated ? cbAllocated : 1));
    if (!KV_ASSERT_TEXT(pData, "oFrame.pBuff[i].pData\n")) return E_OUTOFMEMORY;
    for (DWORD cbDone = 0;;) {
      const HRESULT hr = GetDirect(pData + cbDone, cbAllocated - cbDone);
      if (FAILED(hr)) {
        CoTaskMemFree(pData);
        return hr;
      }
      cbDone = cbAllocated;
      if (cbDone == cb) break;
      cbAllocated = cb - cbDone > cbDone ? std::min(cb, cbDone * 2) : cb;
      BYTE* pGrown = static_cast<BYTE*>(CoTaskMemRealloc(pData, cbAllocated));
      if (!KV_ASSERT_TEXT(pGrown, "oFrame.pBuff[i].pData\n")) {
        CoTaskMemFree(pData);
        return E_OUTOFMEMORY;
      }
      pData = pGrown;
    }
    *ppData = pData;
    return S_OK;
  }

  HRESULT Failed(HRESULT hr) {
    KV_FUNC("CRecordExtract::UnmarshalInterface");
    KV_REPORT_IF_FAILED(hr);
    return hr;
  }
  HRESULT Short(ULONG cbMissing) {
    KV_FUNC("CRecordExtract::UnmarshalInterface");
    KV_LOG_ERROR(KV_W("Extract packet ends at byte %I64u, %u bytes short of its next field\n"), m_ullOffset,
                 static_cast<unsigned>(cbMissing));
    return khrReadFault;
  }

  static constexpr DWORD kcbStep = 1024 * 1024;
  static constexpr DWORD kcbBlock = 4 * 1024 * 1024;
  IStream* m_pStream;
  std::vector<std::unique_ptr<BYTE, CBulkFree>>& m_vBlocks;  // the extract's; the current block is the last
  bool m_bKnown = false;
  ULONGLONG m_ullLeft = 0;    // bytes the stream still holds beyond those read, when m_bKnown
  ULONGLONG m_ullOffset = 0;  // bytes of the packet used so far
  BYTE* m_pBlock = nullptr;   // the current block: m_cbBlock bytes, read up to m_nEnd, used up to m_nNext
  size_t m_cbBlock = 0;
  size_t m_nNext = 0;
  size_t m_nEnd = 0;
  bool m_bBlockUsed = false;  // whether a frame's data lies in the current block
};

}  // namespace

// ---- Frames ---------------------------------------------------------------------------------------

CRecordExtract::CFrames::iterator CRecordExtract::LowerBound(ULONGLONG ullTime) {
  return std::lower_bound(m_vFrames.begin(), m_vFrames.end(), ullTime,
                          [](const SFrame& frame, ULONGLONG ull) { return frame.ullTime < ull; });
}

CRecordExtract::CFrames::iterator CRecordExtract::UpperBound(ULONGLONG ullTime) {
  return std::upper_bound(m_vFrames.begin(), m_vFrames.end(), ullTime,
                          [](ULONGLONG ull, const SFrame& frame) { return ull < frame.ullTime; });
}

CRecordExtract::CFrames::iterator CRecordExtract::Find(ULONGLONG ullTime) {
  auto it = LowerBound(ullTime);
  return it != m_vFrames.end() && it->ullTime == ullTime ? it : m_vFrames.end();
}

HRESULT CRecordExtract::Insert(ULONGLONG ullTime, DWORD dwFlags, EData eData, const SFrameBuffer* pRecords) {
  try {
    // Room first, so that nothing below can fail half-way.
    if (m_vFrames.size() == m_vFrames.capacity()) m_vFrames.reserve(std::max<size_t>(64, m_vFrames.size() * 2));
    const size_t iFirst = m_vBuffers.size();
    if (pRecords) m_vBuffers.insert(m_vBuffers.end(), pRecords, pRecords + m_dwCount);
    const SFrame frame = {ullTime, dwFlags, pRecords ? eData : EData::kAbsent, iFirst};
    if (m_vFrames.empty() || m_vFrames.back().ullTime < ullTime)
      m_vFrames.push_back(frame);
    else
      m_vFrames.insert(UpperBound(ullTime), frame);
  } catch (...) {
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

void CRecordExtract::Clear() {
  for (const SFrame& frame : m_vFrames) {
    if (frame.eData != EData::kOwned) continue;
    const SFrameBuffer* pBuffers = BuffersOf(frame);
    for (DWORD i = 0; i < m_dwCount; ++i) CoTaskMemFree(pBuffers[i].pData);
  }
  m_vFrames.clear();
  m_vBuffers.clear();
  m_vBlocks.clear();
}

void CRecordExtract::FinalRelease() {
  CGuard guard(m_section);
  Clear();
  m_pPacket.Release();
  m_pSource.Release();
}

HRESULT CRecordExtract::Init(IRecord* pSource, DWORD dwCount) {
  if (dwCount == 0 || dwCount > kdwMaxBuffers) return E_INVALIDARG;
  CGuard guard(m_section);
  if (m_dwCount != 0 || !m_vFrames.empty()) return E_UNEXPECTED;
  m_dwCount = dwCount;
  m_pSource = pSource;
  return S_OK;
}

HRESULT CRecordExtract::AppendFrame(FILETIME ftFrameTime, DWORD dwFlags, const SFrameBuffer* pBuffers) {
  KV_FUNC("CRecordExtract::AppendFrame");
  CGuard guard(m_section);
  const ULONGLONG ullTime = FileTimeToU64(ftFrameTime);
  if (!KV_ASSERT_TEXT(Find(ullTime) == m_vFrames.end(), "m_vFrames.find(ftFrameTime)==m_vFrames.end()\n"))
    return khrAlreadyExists;
  // When the frame cannot be added, its blocks go back to the caller unfreed.
  const HRESULT hr = Insert(ullTime, dwFlags, EData::kOwned, pBuffers);
  if (FAILED(hr)) return hr;
  m_pPacket.Release();
  return S_OK;
}

// Reads a frame's data from the source into the frame (under the section).
HRESULT CRecordExtract::LoadFrame(SFrame& frame) {
  if (frame.eData != EData::kAbsent) return S_OK;
  if (!m_pSource) {
    KV_LOG_ERROR(KV_W("Extract frame at %I64u holds no data and the extract has no source record\n"), frame.ullTime);
    return khrInvalidState;
  }
  const size_t iFirst = m_vBuffers.size();
  try {
    m_vBuffers.resize(iFirst + m_dwCount, SFrameBuffer{nullptr, 0});
  } catch (...) {
    return E_OUTOFMEMORY;
  }
  DWORD dwFlags = 0;
  // The record hands out task memory for buffers without a block, and keeps none of it on failure.
  const HRESULT hr = m_pSource->Read(U64ToFileTime(frame.ullTime), &dwFlags, m_vBuffers.data() + iFirst, m_dwCount);
  if (FAILED(hr)) {
    m_vBuffers.resize(iFirst);
    KV_REPORT_IF_FAILED(hr);
    return hr;
  }
  frame.eData = EData::kOwned;
  frame.iFirst = iFirst;
  return S_OK;
}

// ---- IRecord: filling -----------------------------------------------------------------------------

STDMETHODIMP CRecordExtract::Write(FILETIME ftFrame, DWORD dwFlags, const SFrameBuffer* pBuff, DWORD dwCount) {
  KV_FUNC("CRecordExtract::Write");
  if (dwCount) KV_CHECK_POINTER(pBuff);
  for (DWORD i = 0; i < dwCount; ++i)
    if (!pBuff[i].pData && pBuff[i].dwDataSize) return E_INVALIDARG;
  try {
    return WriteLocked(ftFrame, dwFlags, pBuff, dwCount);
  } catch (...) {
    return NSCom::HResultFromCurrentException();
  }
}

HRESULT CRecordExtract::WriteLocked(FILETIME ftFrame, DWORD dwFlags, const SFrameBuffer* pBuff, DWORD dwCount) {
  KV_FUNC("CRecordExtract::Write");
  CGuard guard(m_section);
  // A fresh extract takes its buffer count from its first frame.
  if (m_dwCount == 0 && m_vFrames.empty()) {
    if (dwCount == 0 || dwCount > kdwMaxBuffers) return E_INVALIDARG;
    m_dwCount = dwCount;
  }
  if (!KV_ASSERT_TEXT(dwCount <= m_dwCount, "dwCount<=m_dwCount\n")) return khrTooManyBuffers;
  const ULONGLONG ullTime = FileTimeToU64(ftFrame);
  if (!KV_ASSERT_TEXT(Find(ullTime) == m_vFrames.end(), "m_vFrames.find(ftFrameTime)==m_vFrames.end()\n"))
    return khrAlreadyExists;
  // Buffers the client does not give are stored empty.
  std::vector<SFrameBuffer> v(m_dwCount, SFrameBuffer{nullptr, 0});
  auto freeAll = [&] {
    for (SFrameBuffer& buffer : v) CoTaskMemFree(buffer.pData);
  };
  for (DWORD i = 0; i < m_dwCount; ++i) {
    const DWORD cb = i < dwCount ? pBuff[i].dwDataSize : 0;
    v[i].pData = static_cast<BYTE*>(CoTaskMemAlloc(cb ? cb : 1));
    if (!KV_ASSERT_TEXT(v[i].pData, "pBuff[i].pData\n")) {
      freeAll();
      return E_OUTOFMEMORY;
    }
    if (cb) std::memcpy(v[i].pData, pBuff[i].pData, cb);
    v[i].dwDataSize = cb;
  }
  const HRESULT hr = Insert(ullTime, dwFlags, EData::kOwned, v.data());
  if (FAILED(hr)) {
    freeAll();
    return hr;
  }
  m_pPacket.Release();
  return S_OK;
}

// ---- IRecord: reading -----------------------------------------------------------------------------

STDMETHODIMP CRecordExtract::Read(FILETIME ftFrame, DWORD* pdwFlags, SFrameBuffer* pBuff, DWORD dwCount) {
  KV_FUNC("CRecordExtract::Read");
  if (dwCount) KV_CHECK_POINTER(pBuff);
  CGuard guard(m_section);
  if (!KV_ASSERT_TEXT(dwCount <= m_dwCount, "dwCount<=m_dwCount\n")) return khrTooManyBuffers;
  auto it = Find(FileTimeToU64(ftFrame));
  if (!KV_ASSERT_TEXT(it != m_vFrames.end(), "it!=m_vFrames.end()\n")) return khrNotFound;
  if (dwCount) {
    const HRESULT hr = LoadFrame(*it);
    if (FAILED(hr)) return hr;
    const SFrameBuffer* vStored = BuffersOf(*it);
    for (DWORD i = 0; i < dwCount; ++i) {
      const DWORD cb = vStored[i].dwDataSize;
      pBuff[i].pData = static_cast<BYTE*>(CoTaskMemAlloc(cb ? cb : 1));
      if (!KV_ASSERT_TEXT(pBuff[i].pData, "pBuff[i].pData\n")) {
        for (DWORD j = 0; j < i; ++j) {
          CoTaskMemFree(pBuff[j].pData);
          pBuff[j].pData = nullptr;
        }
        return E_OUTOFMEMORY;
      }
      if (cb) std::memcpy(pBuff[i].pData, vStored[i].pData, cb);
      pBuff[i].dwDataSize = cb;
    }
  }
  if (pdwFlags) *pdwFlags = it->dwFlags;
  return S_OK;
}

STDMETHODIMP CRecordExtract::CheckFrame(FILETIME ftFrame, const SFrameFilter* pFilter) {
  DWORD dwFlags = 0;
  {
    // Looked up directly: an unknown time is an ordinary answer here, not a failed check.
    CGuard guard(m_section);
    auto it = Find(FileTimeToU64(ftFrame));
    if (it == m_vFrames.end()) return S_FALSE;
    dwFlags = it->dwFlags;
  }
  return Passes(pFilter, dwFlags) ? S_OK : S_FALSE;
}

STDMETHODIMP CRecordExtract::GetNext(FILETIME ft, const SFrameFilter* pFilter, FILETIME* pftNextFrameTime) {
  KV_CHECK_POINTER(pftNextFrameTime);
  return Step(true, ft, pFilter, pftNextFrameTime);
}

STDMETHODIMP CRecordExtract::GetPrev(FILETIME ft, const SFrameFilter* pFilter, FILETIME* pftPrevFrameTime) {
  KV_CHECK_POINTER(pftPrevFrameTime);
  return Step(false, ft, pFilter, pftPrevFrameTime);
}

// The nearest frame strictly after (before) ft whose flags pass the filter.
HRESULT CRecordExtract::Step(bool bForward, FILETIME ft, const SFrameFilter* pFilter, FILETIME* pftFound) {
  CGuard guard(m_section);
  const ULONGLONG ullTime = FileTimeToU64(ft);
  if (bForward) {
    for (auto it = UpperBound(ullTime); it != m_vFrames.end(); ++it) {
      if (Passes(pFilter, it->dwFlags)) {
        *pftFound = U64ToFileTime(it->ullTime);
        return S_OK;
      }
    }
  } else {
    for (auto it = LowerBound(ullTime); it != m_vFrames.begin();) {
      --it;
      if (Passes(pFilter, it->dwFlags)) {
        *pftFound = U64ToFileTime(it->ullTime);
        return S_OK;
      }
    }
  }
  return khrNotFound;
}

// ---- IRecord: statistics --------------------------------------------------------------------------

// The record's rules with the frame map in place of the hour tree: the ends move onto passing
// frames, cells of the resolution unit gather the frames of each hour (an hour whose flags fail
// the filter gives none), then runs are joined and their ends made exact.
STDMETHODIMP CRecordExtract::GetStatistic(FILETIME ftBegin, FILETIME ftEnd, FILETIME ftResolution,
                                          const SFrameFilter* pFilter, LONG dwFlags, DWORD* pdwCount,
                                          SRecordStatistic** ppRecordStatistic) {
  KV_FUNC("CRecordExtract::GetStatistic");
  KV_CHECK_POINTERS(pdwCount && ppRecordStatistic);
  *pdwCount = 0;
  *ppRecordStatistic = nullptr;
  try {
    return StatisticLocked(ftBegin, ftEnd, ftResolution, pFilter, dwFlags, pdwCount, ppRecordStatistic);
  } catch (...) {
    return NSCom::HResultFromCurrentException();
  }
}

HRESULT CRecordExtract::StatisticLocked(FILETIME ftBegin, FILETIME ftEnd, FILETIME ftResolution,
                                        const SFrameFilter* pFilter, LONG dwFlags, DWORD* pdwCount,
                                        SRecordStatistic** ppRecordStatistic) {
  KV_FUNC("CRecordExtract::GetStatistic");
  CGuard guard(m_section);
  NSKronvaleUtils::ConformantFileTime(ftBegin);
  NSKronvaleUtils::ConformantFileTime(ftEnd);
  const ULONGLONG ullResolution = FileTimeToU64(ftResolution);
  DWORD cSlotsPerCell = 0;
  try {
    switch (NSKronvaleUtils::SpanToDatePart(ullResolution)) {
      case file_time::edMSec: cSlotsPerCell = 1; break;
      case file_time::edSec: cSlotsPerCell = 100; break;
      case file_time::edMin: cSlotsPerCell = 6000; break;
      default: cSlotsPerCell = 0; break;
    }
  } catch (const std::exception&) {
    return E_INVALIDARG;
  }
  HRESULT hr = MoveSpanOntoFrames(static_cast<IRecord*>(this), pFilter, &ftBegin, &ftEnd);
  if (!KV_SUCCEEDED(hr)) return hr;
  const ULONGLONG ullBegin = FileTimeToU64(ftBegin), ullEnd = FileTimeToU64(ftEnd);
  if (!KV_ASSERT_TEXT(ullEnd >= ullBegin, "ftEnd>=ftBegin\n")) return E_INVALIDARG;

  // Cells: of seconds or minutes (10 ms slots under a second) counted from the hour's start, or one
  // per hour for an hour or coarser.
  std::vector<SStatisticCell> vCells;
  const ULONGLONG ullCell = cSlotsPerCell ? ULONGLONG{cSlotsPerCell} * kullSlot : kullHour;
  ULONGLONG ullHourChecked = ~ULONGLONG{0};
  bool bHourPasses = true;
  SStatisticCell* pCell = nullptr;
  ULONGLONG ullCellIndex = ~ULONGLONG{0};
  ULONGLONG ullSecondAdded = ~ULONGLONG{0};
  for (auto it = LowerBound(ullBegin); it != m_vFrames.end() && it->ullTime <= ullEnd; ++it) {
    const ULONGLONG ullTime = it->ullTime;
    const ULONGLONG ullHour = ullTime / kullHour;
    if (ullHour != ullHourChecked) {
      ullHourChecked = ullHour;
      DWORD dwHourFlags = 0;
      for (auto h = LowerBound(ullHour * kullHour); h != m_vFrames.end() && h->ullTime / kullHour == ullHour; ++h)
        dwHourFlags |= h->dwFlags;
      bHourPasses = !pFilter || Passes(pFilter, dwHourFlags);
    }
    if (!bHourPasses) continue;
    if (ullTime / ullCell != ullCellIndex || !pCell) {
      ullCellIndex = ullTime / ullCell;
      vCells.push_back({});
      pCell = &vCells.back();
      const ULONGLONG ullCellStart = ullCellIndex * ullCell;
      pCell->record.ftBegin = U64ToFileTime(cSlotsPerCell ? ullCellStart : ullTime);
      pCell->record.ftEnd = U64ToFileTime(cSlotsPerCell ? ullCellStart + ullResolution : ullTime);
      pCell->record.dwFlags = 0;
      pCell->record.dwCount = 0;
      pCell->ullFirstFrame = ullTime;
      ullSecondAdded = ~ULONGLONG{0};
    }
    pCell->ullLastFrame = ullTime;
    if (!cSlotsPerCell) pCell->record.ftEnd = U64ToFileTime(ullTime);
    // As an hour keeps flag counters per second, a cell's flags are those of its seconds whole.
    const ULONGLONG ullSecond = ullTime / kullSecond;
    if (ullSecond != ullSecondAdded) {
      ullSecondAdded = ullSecond;
      for (auto f = LowerBound(ullSecond * kullSecond); f != m_vFrames.end() && f->ullTime / kullSecond == ullSecond; ++f)
        pCell->record.dwFlags |= f->dwFlags;
    }
    if (Passes(pFilter, it->dwFlags)) ++pCell->record.dwCount;
  }
  // A cell whose flags together fail the filter is left out.
  if (pFilter)
    vCells.erase(std::remove_if(vCells.begin(), vCells.end(),
                                [&](const SStatisticCell& cell) { return !Passes(pFilter, cell.record.dwFlags); }),
                 vCells.end());

  std::vector<SStatisticCell> vRuns = JoinStatisticRuns(vCells, ullResolution, pFilter, dwFlags);
  ExactEnds(static_cast<IRecord*>(this), vRuns, pFilter, ullResolution < kullHour);
  return HandOutStatistic(vRuns, S_OK, pdwCount, ppRecordStatistic);
}

// ---- IRecord: what an extract does not do -----------------------------------------------------------

STDMETHODIMP CRecordExtract::SetDescription(BSTR) { return E_NOTIMPL; }

STDMETHODIMP CRecordExtract::GetDescription(BSTR* pszDescription) {
  if (pszDescription) *pszDescription = nullptr;
  return E_NOTIMPL;
}

STDMETHODIMP CRecordExtract::GetPath(BSTR* pszPath) {
  if (pszPath) *pszPath = nullptr;
  return E_NOTIMPL;
}

STDMETHODIMP CRecordExtract::RemoveHour(FILETIME) { return E_NOTIMPL; }

STDMETHODIMP CRecordExtract::GetName(BSTR* pszName) {
  if (pszName) *pszName = nullptr;
  return E_NOTIMPL;
}

STDMETHODIMP CRecordExtract::Extract(FILETIME, FILETIME, const SFrameFilter*, LONG, IRecord** ppExtract) {
  if (ppExtract) *ppExtract = nullptr;
  return E_NOTIMPL;
}

STDMETHODIMP CRecordExtract::Merge(IRecord*, const SFrameFilter*, LONG) { return E_NOTIMPL; }

// ---- The packet ---------------------------------------------------------------------------------

HRESULT CRecordExtract::MarshalToStream(IStream** ppStream, DWORD dwDestCtx) {
  KV_FUNC("CRecordExtract::MarshalToStream");
  KV_CHECK_POINTER(ppStream);
  *ppStream = nullptr;
  try {
    return WritePacket(ppStream, dwDestCtx);
  } catch (...) {
    return NSCom::HResultFromCurrentException();
  }
}

HRESULT CRecordExtract::WritePacket(IStream** ppStream, DWORD dwDestCtx) {
  KV_FUNC("CRecordExtract::MarshalToStream");
  if (!KV_ASSERT_TEXT(MSHCTX_DIFFERENTMACHINE == dwDestCtx || MSHCTX_LOCAL == dwDestCtx,
                      "MSHCTX_DIFFERENTMACHINE==dwDestCtx || MSHCTX_LOCAL==dwDestCtx\n"))
    return E_INVALIDARG;
  CGuard guard(m_section);
  if (m_vFrames.size() > 0xFFFFFFFFull) return E_UNEXPECTED;
  CStreamOnFile* pFile = nullptr;
  HRESULT hr = CStreamOnFile::Create(&pFile);
  if (!KV_SUCCEEDED(hr)) return hr;
  NSCom::CComPtr<IStream> pStream;
  pStream.Attach(pFile);
  CPacketWriter writer(pStream);
  hr = writer.PutU32(dwDestCtx);
  if (SUCCEEDED(hr)) hr = writer.PutU32(static_cast<DWORD>(m_vFrames.size()));
  if (SUCCEEDED(hr)) hr = writer.PutU32(m_dwCount);
  for (auto it = m_vFrames.begin(); it != m_vFrames.end() && SUCCEEDED(hr); ++it) {
    // A frame not loaded yet is read now, one at a time, and kept.
    if (m_pSource && it->eData == EData::kAbsent) {
      hr = LoadFrame(*it);
      if (FAILED(hr)) break;
    }
    BYTE abHeader[kcbFrameHeader];
    PutU32(abHeader, static_cast<DWORD>(it->ullTime));
    PutU32(abHeader + 4, static_cast<DWORD>(it->ullTime >> 32));
    PutU32(abHeader + 8, it->dwFlags);
    abHeader[12] = it->eData != EData::kAbsent ? 1 : 0;
    hr = writer.Put(abHeader, sizeof(abHeader));
    if (!abHeader[12]) continue;
    const SFrameBuffer* pBuffers = BuffersOf(*it);
    for (DWORD i = 0; i < m_dwCount && SUCCEEDED(hr); ++i) {
      hr = writer.PutU32(pBuffers[i].dwDataSize);
      if (SUCCEEDED(hr) && pBuffers[i].dwDataSize) hr = writer.Put(pBuffers[i].pData, pBuffers[i].dwDataSize);
    }
  }
  if (SUCCEEDED(hr)) hr = writer.Flush();
  if (!KV_SUCCEEDED(hr)) return hr;
  *ppStream = pStream.Detach();
  return S_OK;
}

// Builds the cached packet m_pPacket with dwDestCtx when there is none yet (under the section).
HRESULT CRecordExtract::MakePacket(DWORD dwDestCtx) {
  if (m_pPacket) return S_OK;
  return MarshalToStream(&m_pPacket, dwDestCtx);
}

HRESULT CRecordExtract::ReadPacket(IStream* pStream) {
  try {
    return ReadPacketLocked(pStream);
  } catch (...) {
    CGuard guard(m_section);
    Clear();
    m_dwCount = 0;
    return NSCom::HResultFromCurrentException();
  }
}

HRESULT CRecordExtract::ReadPacketLocked(IStream* pStream) {
  KV_FUNC("CRecordExtract::UnmarshalInterface");
  CGuard guard(m_section);
  if (m_dwCount != 0 || !m_vFrames.empty()) return E_UNEXPECTED;
  CPacketReader reader(pStream, m_vBlocks);
  DWORD dwContext = 0, cFrames = 0, dwCount = 0;
  HRESULT hr = reader.GetU32(&dwContext);  // read and not otherwise needed
  if (SUCCEEDED(hr)) hr = reader.GetU32(&cFrames);
  if (SUCCEEDED(hr)) hr = reader.GetU32(&dwCount);
  if (FAILED(hr)) return hr;
  if (cFrames && (dwCount == 0 || dwCount > kdwMaxBuffers)) {
    KV_LOG_ERROR(KV_W("Extract packet refused: %u buffers per frame (1 to %u allowed)\n"), static_cast<unsigned>(dwCount),
                 static_cast<unsigned>(kdwMaxBuffers));
    return khrInvalidData;
  }
  if (!reader.Backs(ULONGLONG{cFrames} * kcbFrameHeader)) {
    KV_LOG_ERROR(KV_W("Extract packet refused: %u frames cannot fit in what the stream holds\n"),
                 static_cast<unsigned>(cFrames));
    return khrInvalidData;
  }
  m_dwCount = dwCount;
  // The stream backs every frame's header, so a stream that tells its size has room made at once;
  // and room for the buffer records too when it could back them for every frame.
  if (reader.SharesBlocks()) {
    m_vFrames.reserve(cFrames);
    if (reader.Backs(ULONGLONG{cFrames} * (kcbFrameHeader + ULONGLONG{dwCount} * sizeof(DWORD))))
      m_vBuffers.reserve(size_t{cFrames} * dwCount);
  }
  const EData eData = reader.SharesBlocks() ? EData::kShared : EData::kOwned;
  auto fail = [&](HRESULT hrFailure) {
    Clear();
    m_dwCount = 0;
    return hrFailure;
  };
  ULONGLONG ullPrevious = 0;
  for (DWORD n = 0; n < cFrames; ++n) {
    BYTE abHeader[kcbFrameHeader];
    hr = reader.Get(abHeader, sizeof(abHeader));
    if (FAILED(hr)) return fail(hr);
    const ULONGLONG ullTime = ULONGLONG{GetU32(abHeader)} | ULONGLONG{GetU32(abHeader + 4)} << 32;
    if (n > 0 && ullTime <= ullPrevious) {
      KV_LOG_ERROR(KV_W("Extract packet refused: frame %u at %I64u does not follow the frame at %I64u\n"),
                   static_cast<unsigned>(n), ullTime, ullPrevious);
      return fail(khrInvalidData);
    }
    ullPrevious = ullTime;
    if (abHeader[12] > 1) {
      KV_LOG_ERROR(KV_W("Extract packet refused: frame %u has a has-data byte of %u\n"), static_cast<unsigned>(n),
                   static_cast<unsigned>(abHeader[12]));
      return fail(khrInvalidData);
    }
    SFrame frame = {ullTime, GetU32(abHeader + 8), EData::kAbsent, m_vBuffers.size()};
    // Room for the frame and its records first: nothing may throw once blocks of its own exist.
    if (m_vFrames.size() == m_vFrames.capacity()) m_vFrames.reserve(std::max<size_t>(64, m_vFrames.size() * 2));
    if (abHeader[12]) {
      if (!reader.Backs(ULONGLONG{dwCount} * sizeof(DWORD))) {
        KV_LOG_ERROR(KV_W("Extract packet refused: frame %u has %u buffers beyond the stream's end\n"),
                     static_cast<unsigned>(n), static_cast<unsigned>(dwCount));
        return fail(khrInvalidData);
      }
      m_vBuffers.resize(frame.iFirst + dwCount, SFrameBuffer{nullptr, 0});
      SFrameBuffer* pBuffers = m_vBuffers.data() + frame.iFirst;
      for (DWORD i = 0; i < dwCount; ++i) {
        DWORD cb = 0;
        hr = reader.GetU32(&cb);
        if (SUCCEEDED(hr)) hr = reader.GetData(cb, &pBuffers[i].pData);
        if (FAILED(hr)) {
          // The blocks of a frame not in the list yet are freed here; Clear frees the others.
          if (eData == EData::kOwned)
            for (DWORD j = 0; j < i; ++j) CoTaskMemFree(pBuffers[j].pData);
          return fail(hr);
        }
        pBuffers[i].dwDataSize = cb;
      }
      frame.eData = eData;
    }
    m_vFrames.push_back(frame);
  }
  hr = reader.Finish();
  return FAILED(hr) ? fail(hr) : S_OK;
}

// ---- IMarshal -----------------------------------------------------------------------------------

STDMETHODIMP CRecordExtract::GetUnmarshalClass(REFIID, void*, DWORD, void*, DWORD, CLSID* pCid) {
  KV_CHECK_POINTER(pCid);
  *pCid = CLSID_RecordExtract;
  return S_OK;
}

STDMETHODIMP CRecordExtract::GetMarshalSizeMax(REFIID, void*, DWORD dwDestContext, void*, DWORD, DWORD* pSize) {
  KV_FUNC("CRecordExtract::GetMarshalSizeMax");
  KV_CHECK_POINTER(pSize);
  *pSize = 0;
  CGuard guard(m_section);
  HRESULT hr = MakePacket(dwDestContext);
  if (FAILED(hr)) return hr;
  STATSTG stat;
  hr = m_pPacket->Stat(&stat, STATFLAG_NONAME);
  if (!KV_SUCCEEDED(hr)) return hr;
  *pSize = static_cast<DWORD>(stat.cbSize.QuadPart);
  return S_OK;
}

STDMETHODIMP CRecordExtract::MarshalInterface(IStream* pStm, REFIID, void*, DWORD dwDestContext, void*, DWORD) {
  KV_FUNC("CRecordExtract::MarshalInterface");
  KV_CHECK_POINTER(pStm);
  CGuard guard(m_section);
  HRESULT hr = MakePacket(dwDestContext);
  if (FAILED(hr)) return hr;
  LARGE_INTEGER liZero = {};
  hr = m_pPacket->Seek(liZero, STREAM_SEEK_SET, nullptr);
  STATSTG stat;
  if (SUCCEEDED(hr)) hr = m_pPacket->Stat(&stat, STATFLAG_NONAME);
  if (SUCCEEDED(hr)) hr = m_pPacket->CopyTo(pStm, stat.cbSize, nullptr, nullptr);
  KV_REPORT_IF_FAILED(hr);
  return hr;
}

STDMETHODIMP CRecordExtract::UnmarshalInterface(IStream* pStm, REFIID riid, void** ppv) {
  KV_FUNC("CRecordExtract::UnmarshalInterface");
  KV_CHECK_POINTER(ppv);
  *ppv = nullptr;
  KV_CHECK_POINTER(pStm);
  NSCom::CComObject<CRecordExtract>* pExtract = nullptr;
  HRESULT hr = NSCom::CComObject<CRecordExtract>::CreateInstance(&pExtract);
  if (!KV_SUCCEEDED(hr)) return hr;
  NSCom::CComPtr<IUnknown> pHold(pExtract->GetUnknown());
  hr = pExtract->ReadPacket(pStm);
  if (FAILED(hr)) return hr;
  return pHold->QueryInterface(riid, ppv);
}

STDMETHODIMP CRecordExtract::ReleaseMarshalData(IStream*) { return S_OK; }

STDMETHODIMP CRecordExtract::DisconnectObject(DWORD) { return S_OK; }

}  // namespace NSRecords
