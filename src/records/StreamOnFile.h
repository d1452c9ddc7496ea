// An IStream over a temporary file of its own: the place where an extract assembles its by-value
// packet, so that extracts larger than memory comfortably allows can still be marshaled.
//
// The file is made in the system's temporary directory with a unique name and delete-on-close, so
// it disappears with the stream's last reference (on Linux it is unlinked at once). The stream has
// no lock: one stream is used by one thread at a time.
#pragma once

#include <kronvale/kronvale.h>

#include <atomic>

#include "com/ComBase.h"
#include "platform/os.h"

// Answered only by CStreamOnFile: CopyTo writes straight into the file of a target that has it.
MIDL_INTERFACE("102EF807-7352-4031-9C75-47D6FC0AAA13")
IStreamOnFile : public IUnknown{};
__CRT_UUID_DECL(IStreamOnFile, 0x102EF807, 0x7352, 0x4031, 0x9C, 0x75, 0x47, 0xD6, 0xFC, 0x0A, 0xAA, 0x13)

namespace NSRecords {

class CStreamOnFile final : public IStream {
 public:
  // A new stream over a new empty temporary file, with one reference. On failure (the temporary
  // directory or the file cannot be made) *ppStream is null and the answer is the system's error
  // as an HRESULT.
  static HRESULT Create(CStreamOnFile** ppStream);

  // IUnknown. QueryInterface answers IStream and IStreamOnFile only; IUnknown and
  // ISequentialStream included, every other identifier is E_NOINTERFACE. That narrow answer is
  // intended: nothing but our own code ever asks a packet stream for anything else.
  STDMETHOD(QueryInterface)(REFIID riid, void** ppvObject) override;
  STDMETHOD_(ULONG, AddRef)() override;
  STDMETHOD_(ULONG, Release)() override;

  // ISequentialStream, at the current position. A failed read or write is E_FAIL; a write to a
  // read-only stream is HRESULT(ERROR_LOCK_VIOLATION).
  STDMETHOD(Read)(void* pv, ULONG cb, ULONG* pcbRead) override;
  STDMETHOD(Write)(const void* pv, ULONG cb, ULONG* pcbWritten) override;

  // IStream. Seek never fails (a refused move leaves the position and reports it). SetSize above
  // 0xFFFFFFFF is STG_E_INVALIDFUNCTION with the file as it was; otherwise the file is cut or
  // extended there and the position left at the new size. CopyTo copies cb bytes from the current
  // position, read kcbCopyBlock at a time: straight into the file when the target is one of ours,
  // through the target's Write in chunks of at most kcbCopyChunk otherwise. It does not report the
  // counts. Commit, Revert and Clone are E_NOTIMPL.
  STDMETHOD(Seek)(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) override;
  STDMETHOD(SetSize)(ULARGE_INTEGER libNewSize) override;
  STDMETHOD(CopyTo)(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead, ULARGE_INTEGER* pcbWritten) override;
  STDMETHOD(Commit)(DWORD grfCommitFlags) override;
  STDMETHOD(Revert)() override;
  STDMETHOD(LockRegion)(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD dwLockType) override;
  STDMETHOD(UnlockRegion)(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD dwLockType) override;
  // Clears the whole STATSTG; without STATFLAG_NONAME pwcsName is a task-memory copy of the stream's
  // (empty) name, which the caller frees. Size and times come from the file (E_FAIL when they
  // cannot be read).
  STDMETHOD(Stat)(STATSTG* pstatstg, DWORD grfStatFlag) override;
  STDMETHOD(Clone)(IStream** ppstm) override;

  static constexpr ULONG kcbCopyChunk = 1024;
  static constexpr ULONG kcbCopyBlock = 256 * 1024;

 private:
  CStreamOnFile() = default;
  ~CStreamOnFile() = default;
  HRESULT Open();

  std::atomic<LONG> m_cRef{1};
  NSPlatform::CFile m_file;  // invalid until Open
  WString m_strName;         // always empty
  // Present only when something outside the library makes a read-only view of a stream; no stream
  // the library makes has one.
  IUnknown* m_pReadOnlyOwner = nullptr;
};

}  // namespace NSRecords
