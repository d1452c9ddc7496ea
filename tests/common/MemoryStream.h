// An IStream over bytes in memory, for tests and fuzz targets that feed or catch a packet without
// the file system. It can pretend not to know its size (Stat and Seek fail), as some streams do,
// and counts the calls made to Write.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>

#include "com/ComBase.h"

namespace NSTest {

class CMemoryStream final : public IStream {
 public:
  explicit CMemoryStream(std::string strBytes = {}, bool bTellsSize = true)
      : m_strBytes(std::move(strBytes)), m_bTellsSize(bTellsSize) {}

  const std::string& Bytes() const { return m_strBytes; }
  size_t WriteCalls() const { return m_cWrites; }
  size_t LargestWrite() const { return m_cbLargestWrite; }
  void Rewind() { m_nPosition = 0; }

  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (IsEqualIID(riid, __uuidof(IUnknown)) || IsEqualIID(riid, __uuidof(IStream)) ||
        IsEqualIID(riid, __uuidof(ISequentialStream))) {
      *ppv = static_cast<IStream*>(this);
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  // Lives on the stack of its test: the count is kept for leak checks only.
  STDMETHOD_(ULONG, AddRef)() override { return ++m_cRef; }
  STDMETHOD_(ULONG, Release)() override { return --m_cRef; }

  STDMETHOD(Read)(void* pv, ULONG cb, ULONG* pcbRead) override {
    const size_t cbCopy = std::min<size_t>(cb, m_strBytes.size() - std::min(m_nPosition, m_strBytes.size()));
    if (cbCopy) std::memcpy(pv, m_strBytes.data() + m_nPosition, cbCopy);
    m_nPosition += cbCopy;
    if (pcbRead) *pcbRead = static_cast<ULONG>(cbCopy);
    return S_OK;
  }
  STDMETHOD(Write)(const void* pv, ULONG cb, ULONG* pcbWritten) override {
    ++m_cWrites;
    m_cbLargestWrite = std::max<size_t>(m_cbLargestWrite, cb);
    if (m_strBytes.size() < m_nPosition + cb) m_strBytes.resize(m_nPosition + cb);
    if (cb) std::memcpy(&m_strBytes[m_nPosition], pv, cb);
    m_nPosition += cb;
    if (pcbWritten) *pcbWritten = cb;
    return S_OK;
  }
  STDMETHOD(Seek)(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) override {
    if (!m_bTellsSize) return E_NOTIMPL;
    LONGLONG llBase = dwOrigin == STREAM_SEEK_SET ? 0
                      : dwOrigin == STREAM_SEEK_CUR ? static_cast<LONGLONG>(m_nPosition)
                                                    : static_cast<LONGLONG>(m_strBytes.size());
    if (llBase + dlibMove.QuadPart < 0) return E_INVALIDARG;
    m_nPosition = static_cast<size_t>(llBase + dlibMove.QuadPart);
    if (plibNewPosition) plibNewPosition->QuadPart = m_nPosition;
    return S_OK;
  }
  STDMETHOD(SetSize)(ULARGE_INTEGER) override { return E_NOTIMPL; }
  STDMETHOD(CopyTo)(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override { return E_NOTIMPL; }
  STDMETHOD(Commit)(DWORD) override { return S_OK; }
  STDMETHOD(Revert)() override { return E_NOTIMPL; }
  STDMETHOD(LockRegion)(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
  STDMETHOD(UnlockRegion)(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
  STDMETHOD(Stat)(STATSTG* pstatstg, DWORD) override {
    if (!m_bTellsSize) return E_NOTIMPL;
    std::memset(pstatstg, 0, sizeof(*pstatstg));
    pstatstg->type = STGTY_STREAM;
    pstatstg->cbSize.QuadPart = m_strBytes.size();
    return S_OK;
  }
  STDMETHOD(Clone)(IStream**) override { return E_NOTIMPL; }

  std::atomic<ULONG> m_cRef{1};

 private:
  std::string m_strBytes;
  bool m_bTellsSize;
  size_t m_nPosition = 0;
  size_t m_cWrites = 0;
  size_t m_cbLargestWrite = 0;
};

}  // namespace NSTest
