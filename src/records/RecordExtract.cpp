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
// A stream that tells its size is read ahead through a fixed buffer (small fields would otherwise
// cost a read each); Finish seeks back over what was read ahead and not used, so that the stream is
// left just after the packet, as the COM runtime requires. A stream that cannot tell is read field
// by field, never beyond the packet.
class CPacketReader {
 public:
  explicit CPacketReader(IStream* pStream) : m_pStream(pStream) {
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
  // Whether the stream may still hold cb bytes (always true when it cannot tell).
  bool Backs(ULONGLONG cb) const { return !m_bKnown || cb <= m_ullLeft + (m_nEnd - m_nNext); }

  // Exactly cb bytes, or khrReadFault for a packet that ends early.
  HRESULT Get(void* pv, ULONG cb) {
    BYTE* pb = static_cast<BYTE*>(pv);
    const ULONG cbBuffered = static_cast<ULONG>(std::min<size_t>(cb, m_nEnd - m_nNext));
    std::memcpy(pb, m_ab + m_nNext, cbBuffered);
    m_nNext += cbBuffered;
    m_ullOffset += cbBuffered;
    for (ULONG cbDone = cbBuffered; cbDone < cb;) {
      // Small fields refill the buffer; large blocks are read straight into place.
      const bool bFill = m_bKnown && cb - cbDone < sizeof(m_ab);
      void* pTarget = bFill ? static_cast<void*>(m_ab) : pb + cbDone;
      const ULONG cbAsk = bFill ? static_cast<ULONG>(std::min<ULONGLONG>(sizeof(m_ab), m_ullLeft)) : cb - cbDone;
      ULONG cbRead = 0;
      const HRESULT hr = cbAsk ? m_pStream->Read(pTarget, cbAsk, &cbRead) : S_OK;
      if (FAILED(hr)) return Failed(hr);
      if (cbRead == 0 || cbRead > cbAsk) return Short(cb - cbDone);
      m_ullLeft -= std::min<ULONGLONG>(m_ullLeft, cbRead);
      if (bFill) {
        m_nNext = 0;
        m_nEnd = cbRead;
        const ULONG cbTake = std::min(cbRead, cb - cbDone);
        std::memcpy(pb + cbDone, m_ab, cbTake);
        m_nNext = cbTake;
        cbDone += cbTake;
        m_ullOffset += cbTake;
      } else {
        cbDone += cbRead;
        m_ullOffset += cbRead;
      }
    }
    return S_OK;
  }
  HRESULT GetU32(DWORD* pdw) {
    BYTE ab[4];
    const HRESULT hr = Get(ab, sizeof(ab));
    *pdw = NSRecords::GetU32(ab);
    return hr;
  }

  // A task-memory block holding the next cb bytes. Never more than the stream can back; from a
  // stream that cannot tell its size, the block grows by at most kcbStep beyond what has arrived.
  HRESULT GetBlock(DWORD cb, BYTE** ppData) {
    KV_FUNC("CRecordExtract::UnmarshalInterface");
    *ppData = nullptr;
    if (!Backs(cb)) {
      KV_LOG_ERROR(KV_W("Extract packet claims a buffer of %u bytes at byte %I64u, beyond its end\n"),
                   static_cast<unsigned>(cb), m_ullOffset);
      return khrInvalidData;
    }
    DWORD cbAllocated = m_bKnown ? cb : std::min(cb, kcbStep);
    BYTE* pData = static_cast<BYTE*>(CoTaskMemAlloc(cbAllocated ? cbAllocated : 1));
    if (!KV_ASSERT_TEXT(pData, "oFrame.pBuff[i].pData\n")) return E_OUTOFMEMORY;
    for (DWORD cbDone = 0;;) {
      const HRESULT hr = Get(pData + cbDone, cbAllocated - cbDone);
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

  // Leaves the stream just after the bytes used.
  HRESULT Finish() {
    KV_FUNC("CRecordExtract::UnmarshalInterface");
    if (m_nEnd == m_nNext) return S_OK;
    LARGE_INTEGER liBack;
    liBack.QuadPart = -static_cast<LONGLONG>(m_nEnd - m_nNext);
    const HRESULT hr = m_pStream->Seek(liBack, STREAM_SEEK_CUR, nullptr);
    if (!KV_SUCCEEDED(hr)) return hr;
    m_nNext = m_nEnd = 0;
    return S_OK;
  }

 private:
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
  IStream* m_pStream;
  bool m_bKnown = false;
  ULONGLONG m_ullLeft = 0;    // bytes the stream still holds beyond the buffer, when m_bKnown
  ULONGLONG m_ullOffset = 0;  // bytes of the packet used so far
  size_t m_nNext = 0;         // the read-ahead buffer: next byte to use, end of what it holds
  size_t m_nEnd = 0;
  BYTE m_ab[64 * 1024];
};

}  // namespace

// ---- Frames ---------------------------------------------------------------------------------------

CRecordExtract::CBuffers& CRecordExtract::CBuffers::operator=(CBuffers&& other) noexcept {
  if (this != &other) {
    Free();
    m_v = std::move(other.m_v);
    other.m_v.clear();
  }
  return *this;
}

void CRecordExtract::CBuffers::Free() {
  for (SFrameBuffer& buffer : m_v) CoTaskMemFree(buffer.pData);
  m_v.clear();
}

void CRecordExtract::FinalRelease() {
  CGuard guard(m_section);
  m_vFrames.clear();
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
  if (!KV_ASSERT_TEXT(m_vFrames.find(ullTime) == m_vFrames.end(), "m_vFrames.find(ftFrameTime)==m_vFrames.end()\n"))
    return khrAlreadyExists;
  SFrame frame;
  frame.dwFlags = dwFlags;
  try {
    if (pBuffers) frame.buffers = CBuffers(std::vector<SFrameBuffer>(pBuffers, pBuffers + m_dwCount));
    m_vFrames.emplace(ullTime, std::move(frame));
  } catch (...) {
    // Either the copy of the records or the node could not be made, so the frame was not moved:
    // its blocks go back to the caller unfreed.
    frame.buffers.Forget();
    return E_OUTOFMEMORY;
  }
  m_pPacket.Release();
  return S_OK;
}

// Reads a frame's data from the source into the frame (under the section).
HRESULT CRecordExtract::LoadFrame(ULONGLONG ullTime, SFrame& frame) {
  if (frame.buffers.Present()) return S_OK;
  if (!m_pSource) {
    KV_LOG_ERROR(KV_W("Extract frame at %I64u holds no data and the extract has no source record\n"), ullTime);
    return khrInvalidState;
  }
  std::vector<SFrameBuffer> v(m_dwCount, SFrameBuffer{nullptr, 0});
  DWORD dwFlags = 0;
  // The record hands out task memory for buffers without a block, and keeps none of it on failure.
  const HRESULT hr = m_pSource->Read(U64ToFileTime(ullTime), &dwFlags, v.data(), m_dwCount);
  if (FAILED(hr)) {
    KV_REPORT_IF_FAILED(hr);
    return hr;
  }
  frame.buffers = CBuffers(std::move(v));
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
  if (!KV_ASSERT_TEXT(m_vFrames.find(FileTimeToU64(ftFrame)) == m_vFrames.end(),
                      "m_vFrames.find(ftFrameTime)==m_vFrames.end()\n"))
    return khrAlreadyExists;
  // Buffers the client does not give are stored empty.
  std::vector<SFrameBuffer> v(m_dwCount, SFrameBuffer{nullptr, 0});
  CBuffers buffers;
  for (DWORD i = 0; i < m_dwCount; ++i) {
    const DWORD cb = i < dwCount ? pBuff[i].dwDataSize : 0;
    v[i].pData = static_cast<BYTE*>(CoTaskMemAlloc(cb ? cb : 1));
    if (!KV_ASSERT_TEXT(v[i].pData, "pBuff[i].pData\n")) {
      CBuffers(std::move(v)).Free();
      return E_OUTOFMEMORY;
    }
    if (cb) std::memcpy(v[i].pData, pBuff[i].pData, cb);
    v[i].dwDataSize = cb;
  }
  buffers = CBuffers(std::move(v));
  SFrame frame;
  frame.dwFlags = dwFlags;
  frame.buffers = std::move(buffers);
  m_vFrames.emplace(FileTimeToU64(ftFrame), std::move(frame));
  m_pPacket.Release();
  return S_OK;
}

// ---- IRecord: reading -----------------------------------------------------------------------------

STDMETHODIMP CRecordExtract::Read(FILETIME ftFrame, DWORD* pdwFlags, SFrameBuffer* pBuff, DWORD dwCount) {
  KV_FUNC("CRecordExtract::Read");
  if (dwCount) KV_CHECK_POINTER(pBuff);
  CGuard guard(m_section);
  if (!KV_ASSERT_TEXT(dwCount <= m_dwCount, "dwCount<=m_dwCount\n")) return khrTooManyBuffers;
  auto it = m_vFrames.find(FileTimeToU64(ftFrame));
  if (!KV_ASSERT_TEXT(it != m_vFrames.end(), "it!=m_vFrames.end()\n")) return khrNotFound;
  if (dwCount) {
    const HRESULT hr = LoadFrame(it->first, it->second);
    if (FAILED(hr)) return hr;
    const std::vector<SFrameBuffer>& vStored = it->second.buffers.Get();
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
  if (pdwFlags) *pdwFlags = it->second.dwFlags;
  return S_OK;
}

STDMETHODIMP CRecordExtract::CheckFrame(FILETIME ftFrame, const SFrameFilter* pFilter) {
  DWORD dwFlags = 0;
  {
    // Looked up directly: an unknown time is an ordinary answer here, not a failed check.
    CGuard guard(m_section);
    auto it = m_vFrames.find(FileTimeToU64(ftFrame));
    if (it == m_vFrames.end()) return S_FALSE;
    dwFlags = it->second.dwFlags;
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
    for (auto it = m_vFrames.upper_bound(ullTime); it != m_vFrames.end(); ++it) {
      if (Passes(pFilter, it->second.dwFlags)) {
        *pftFound = U64ToFileTime(it->first);
        return S_OK;
      }
    }
  } else {
    for (auto it = m_vFrames.lower_bound(ullTime); it != m_vFrames.begin();) {
      --it;
      if (Passes(pFilter, it->second.dwFlags)) {
        *pftFound = U64ToFileTime(it->first);
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
  for (auto it = m_vFrames.lower_bound(ullBegin); it != m_vFrames.end() && it->first <= ullEnd; ++it) {
    const ULONGLONG ullTime = it->first;
    const ULONGLONG ullHour = ullTime / kullHour;
    if (ullHour != ullHourChecked) {
      ullHourChecked = ullHour;
      DWORD dwHourFlags = 0;
      for (auto h = m_vFrames.lower_bound(ullHour * kullHour); h != m_vFrames.end() && h->first / kullHour == ullHour; ++h)
        dwHourFlags |= h->second.dwFlags;
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
      for (auto f = m_vFrames.lower_bound(ullSecond * kullSecond); f != m_vFrames.end() && f->first / kullSecond == ullSecond; ++f)
        pCell->record.dwFlags |= f->second.dwFlags;
    }
    if (Passes(pFilter, it->second.dwFlags)) ++pCell->record.dwCount;
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
    if (m_pSource && !it->second.buffers.Present()) {
      hr = LoadFrame(it->first, it->second);
      if (FAILED(hr)) break;
    }
    BYTE abHeader[kcbFrameHeader];
    PutU32(abHeader, static_cast<DWORD>(it->first));
    PutU32(abHeader + 4, static_cast<DWORD>(it->first >> 32));
    PutU32(abHeader + 8, it->second.dwFlags);
    abHeader[12] = it->second.buffers.Present() ? 1 : 0;
    hr = writer.Put(abHeader, sizeof(abHeader));
    if (!abHeader[12]) continue;
    for (const SFrameBuffer& buffer : it->second.buffers.Get()) {
      if (SUCCEEDED(hr)) hr = writer.PutU32(buffer.dwDataSize);
      if (SUCCEEDED(hr) && buffer.dwDataSize) hr = writer.Put(buffer.pData, buffer.dwDataSize);
    }
  }
  if (SUCCEEDED(hr)) hr = writer.Flush();
  if (!KV_SUCCEEDED(hr)) return hr;
  *ppStream = pStream.Detach();
  return S_OK;
}

// The cached packet, built with dwDestCtx when there is none yet (under the section).
HRESULT CRecordExtract::GetPacket(DWORD dwDestCtx, IStream** ppStream) {
  if (!m_pPacket) {
    const HRESULT hr = MarshalToStream(&m_pPacket, dwDestCtx);
    if (FAILED(hr)) return hr;
  }
  *ppStream = m_pPacket;
  (*ppStream)->AddRef();
  return S_OK;
}

HRESULT CRecordExtract::ReadPacket(IStream* pStream) {
  try {
    return ReadPacketLocked(pStream);
  } catch (...) {
    CGuard guard(m_section);
    m_vFrames.clear();
    m_dwCount = 0;
    return NSCom::HResultFromCurrentException();
  }
}

HRESULT CRecordExtract::ReadPacketLocked(IStream* pStream) {
  KV_FUNC("CRecordExtract::UnmarshalInterface");
  CGuard guard(m_section);
  if (m_dwCount != 0 || !m_vFrames.empty()) return E_UNEXPECTED;
  CPacketReader reader(pStream);
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
  auto fail = [&](HRESULT hrFailure) {
    m_vFrames.clear();
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
    SFrame frame;
    frame.dwFlags = GetU32(abHeader + 8);
    if (abHeader[12]) {
      if (!reader.Backs(ULONGLONG{dwCount} * sizeof(DWORD))) {
        KV_LOG_ERROR(KV_W("Extract packet refused: frame %u has %u buffers beyond the stream's end\n"),
                     static_cast<unsigned>(n), static_cast<unsigned>(dwCount));
        return fail(khrInvalidData);
      }
      std::vector<SFrameBuffer> v(dwCount, SFrameBuffer{nullptr, 0});
      for (DWORD i = 0; i < dwCount; ++i) {
        DWORD cb = 0;
        hr = reader.GetU32(&cb);
        if (SUCCEEDED(hr)) hr = reader.GetBlock(cb, &v[i].pData);
        if (FAILED(hr)) {
          CBuffers(std::move(v)).Free();
          return fail(hr);
        }
        v[i].dwDataSize = cb;
      }
      frame.buffers = CBuffers(std::move(v));
    }
    m_vFrames.emplace_hint(m_vFrames.end(), ullTime, std::move(frame));
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
  NSCom::CComPtr<IStream> pPacket;
  HRESULT hr = GetPacket(dwDestContext, &pPacket);
  if (FAILED(hr)) return hr;
  STATSTG stat;
  hr = pPacket->Stat(&stat, STATFLAG_NONAME);
  if (!KV_SUCCEEDED(hr)) return hr;
  *pSize = static_cast<DWORD>(stat.cbSize.QuadPart);
  return S_OK;
}

STDMETHODIMP CRecordExtract::MarshalInterface(IStream* pStm, REFIID, void*, DWORD dwDestContext, void*, DWORD) {
  KV_FUNC("CRecordExtract::MarshalInterface");
  KV_CHECK_POINTER(pStm);
  CGuard guard(m_section);
  NSCom::CComPtr<IStream> pPacket;
  HRESULT hr = GetPacket(dwDestContext, &pPacket);
  if (FAILED(hr)) return hr;
  LARGE_INTEGER liZero = {};
  hr = pPacket->Seek(liZero, STREAM_SEEK_SET, nullptr);
  STATSTG stat;
  if (SUCCEEDED(hr)) hr = pPacket->Stat(&stat, STATFLAG_NONAME);
  if (SUCCEEDED(hr)) hr = pPacket->CopyTo(pStm, stat.cbSize, nullptr, nullptr);
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
