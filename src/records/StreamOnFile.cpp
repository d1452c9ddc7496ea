// The packet stream: an IStream over a delete-on-close temporary file.
#include "records/StreamOnFile.h"

#include <algorithm>
#include <vector>

#include <kronvale/KronvaleResults.h>

#include <cstring>

namespace NSRecords {

using namespace NSKronvale;

HRESULT CStreamOnFile::Create(CStreamOnFile** ppStream) {
  if (!ppStream) return E_POINTER;
  *ppStream = nullptr;
  auto* pStream = new (std::nothrow) CStreamOnFile();
  if (!pStream) return E_OUTOFMEMORY;
  const HRESULT hr = pStream->Open();
  if (FAILED(hr)) {
    pStream->Release();
    return hr;
  }
  *ppStream = pStream;
  return S_OK;
}

HRESULT CStreamOnFile::Open() {
  WString strDirectory;
  HRESULT hr = NSPlatform::GetTempDirectory(&strDirectory);
  if (FAILED(hr)) return hr;
  WString strPath;
  hr = NSPlatform::CreateTempFile(strDirectory.c_str(), KV_W(""), &strPath);
  if (FAILED(hr)) return hr;
  hr = m_file.Open(strPath.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, OPEN_ALWAYS,
                   FILE_ATTRIBUTE_TEMPORARY | FILE_ATTRIBUTE_NORMAL | FILE_FLAG_DELETE_ON_CLOSE);
  // The empty file made for the unique name is not left behind when it cannot be opened.
  if (FAILED(hr)) NSPlatform::RemoveFile(strPath.c_str());
  return hr;
}

STDMETHODIMP CStreamOnFile::QueryInterface(REFIID riid, void** ppvObject) {
  if (!ppvObject) return E_POINTER;
  *ppvObject = nullptr;
  if (IsEqualIID(riid, __uuidof(IStream)) || IsEqualIID(riid, __uuidof(IStreamOnFile))) {
    *ppvObject = static_cast<IStream*>(this);
    AddRef();
    return S_OK;
  }
  return E_NOINTERFACE;
}

STDMETHODIMP_(ULONG) CStreamOnFile::AddRef() { return static_cast<ULONG>(++m_cRef); }

STDMETHODIMP_(ULONG) CStreamOnFile::Release() {
  const LONG cRef = --m_cRef;
  if (cRef == 0) delete this;  // the file goes with its handle
  return static_cast<ULONG>(cRef);
}

STDMETHODIMP CStreamOnFile::Read(void* pv, ULONG cb, ULONG* pcbRead) {
  if (cb && !pv) return E_POINTER;
  DWORD cbRead = 0;
  const HRESULT hr = m_file.Read(pv, cb, &cbRead);
  if (pcbRead) *pcbRead = cbRead;
  return FAILED(hr) ? E_FAIL : S_OK;
}

STDMETHODIMP CStreamOnFile::Write(const void* pv, ULONG cb, ULONG* pcbWritten) {
  if (m_pReadOnlyOwner) return khrLockViolation;
  if (cb && !pv) return E_POINTER;
  DWORD cbWritten = 0;
  const HRESULT hr = m_file.Write(pv, cb, &cbWritten);
  if (pcbWritten) *pcbWritten = cbWritten;
  return FAILED(hr) ? E_FAIL : S_OK;
}

STDMETHODIMP CStreamOnFile::Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) {
  // STREAM_SEEK_SET, _CUR and _END are FILE_BEGIN, FILE_CURRENT and FILE_END.
  ULONGLONG ullPosition = 0;
  if (FAILED(m_file.Seek(dlibMove.QuadPart, dwOrigin, &ullPosition))) m_file.Seek(0, FILE_CURRENT, &ullPosition);
  if (plibNewPosition) plibNewPosition->QuadPart = ullPosition;
  return S_OK;
}

STDMETHODIMP CStreamOnFile::SetSize(ULARGE_INTEGER libNewSize) {
  if (libNewSize.QuadPart > 0xFFFFFFFFull) return khrStgInvalidFunction;
  if (FAILED(m_file.Seek(static_cast<LONGLONG>(libNewSize.QuadPart), FILE_BEGIN, nullptr))) return E_FAIL;
  return FAILED(m_file.SetEndOfFile()) ? E_FAIL : S_OK;
}

STDMETHODIMP CStreamOnFile::CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* /*pcbRead*/,
                                   ULARGE_INTEGER* /*pcbWritten*/) {
  if (!pstm) return E_POINTER;
  // A target of ours takes the bytes straight into its file; any other through its Write.
  CStreamOnFile* pTarget = nullptr;
  IStream* pOurs = nullptr;
  if (SUCCEEDED(pstm->QueryInterface(__uuidof(IStreamOnFile), reinterpret_cast<void**>(&pOurs)))) {
    pTarget = static_cast<CStreamOnFile*>(pOurs);
    if (pTarget->m_pReadOnlyOwner) {
      pOurs->Release();
      return khrLockViolation;
    }
  }
  // The file is read a block at a time; a target of ours takes each block in one write, any other
  // stream in Writes of at most kcbCopyChunk bytes. After a failed write the position is left just
  // after the bytes the target took.
  std::vector<BYTE> vBlock(static_cast<size_t>(std::min<ULONGLONG>(cb.QuadPart, kcbCopyBlock)));
  HRESULT hr = S_OK;
  for (ULONGLONG ullLeft = cb.QuadPart; ullLeft > 0 && SUCCEEDED(hr);) {
    const DWORD cbAsk = static_cast<DWORD>(std::min<ULONGLONG>(ullLeft, vBlock.size()));
    DWORD cbRead = 0;
    if (FAILED(m_file.Read(vBlock.data(), cbAsk, &cbRead))) {
      hr = E_FAIL;
      break;
    }
    if (cbRead == 0) break;  // the end of this stream
    DWORD cbTaken = 0;
    if (pTarget) {
      DWORD cbWritten = 0;
      if (FAILED(pTarget->m_file.Write(vBlock.data(), cbRead, &cbWritten)) || cbWritten != cbRead) hr = E_FAIL;
      cbTaken = cbWritten;
    } else {
      while (cbTaken < cbRead && SUCCEEDED(hr)) {
        const ULONG cbChunk = std::min<ULONG>(cbRead - cbTaken, kcbCopyChunk);
        ULONG cbWritten = 0;
        hr = pstm->Write(vBlock.data() + cbTaken, cbChunk, &cbWritten);
        if (SUCCEEDED(hr) && cbWritten != cbChunk) hr = STG_E_WRITEFAULT;
        if (SUCCEEDED(hr)) cbTaken += cbChunk;
      }
    }
    if (FAILED(hr) && cbTaken < cbRead) m_file.Seek(-static_cast<LONGLONG>(cbRead - cbTaken), FILE_CURRENT, nullptr);
    ullLeft -= cbRead;
  }
  if (pOurs) pOurs->Release();
  return hr;
}

STDMETHODIMP CStreamOnFile::Commit(DWORD) { return E_NOTIMPL; }

STDMETHODIMP CStreamOnFile::Revert() { return E_NOTIMPL; }

STDMETHODIMP CStreamOnFile::LockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD) {
  return m_file.LockRange(libOffset.QuadPart, cb.QuadPart);
}

STDMETHODIMP CStreamOnFile::UnlockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD) {
  return m_file.UnlockRange(libOffset.QuadPart, cb.QuadPart);
}

STDMETHODIMP CStreamOnFile::Stat(STATSTG* pstatstg, DWORD grfStatFlag) {
  if (!pstatstg) return E_POINTER;
  std::memset(pstatstg, 0, sizeof(*pstatstg));
  if (grfStatFlag != STATFLAG_NONAME) {
    const size_t cbName = (m_strName.size() + 1) * sizeof(WCHAR);
    pstatstg->pwcsName = static_cast<LPOLESTR>(CoTaskMemAlloc(cbName));
    if (!pstatstg->pwcsName) return STG_E_INSUFFICIENTMEMORY;
    std::memcpy(pstatstg->pwcsName, m_strName.c_str(), cbName);
  }
  pstatstg->type = STGTY_STREAM;
  ULONGLONG ullSize = 0;
  if (FAILED(m_file.GetSize(&ullSize)) ||
      FAILED(m_file.GetTimes(&pstatstg->ctime, &pstatstg->atime, &pstatstg->mtime))) {
    CoTaskMemFree(pstatstg->pwcsName);
    pstatstg->pwcsName = nullptr;
    return E_FAIL;
  }
  pstatstg->cbSize.QuadPart = ullSize;
  return S_OK;
}

STDMETHODIMP CStreamOnFile::Clone(IStream** ppstm) {
  if (ppstm) *ppstm = nullptr;
  return E_NOTIMPL;
}

}  // namespace NSRecords
