// The archive factory.
#include "archive/ArchiveFactory.h"

#include <kronvale/KronvaleResults.h>

#include "archive/ArchiveImpl.h"
#include "archive/ArchiveSettings.h"
#include "hours/KronvaleUtils.h"
#include "multipart/MultipartArchive.h"
#include "support/Report.h"

namespace NSArchive {

using namespace NSKronvale;

using NSRecords::klStateHookRan;
using NSRecords::klStateLocked;

namespace {

using NSMultipart::CMultipartArchive;

// A path from the caller; empty (refused) when it holds a NUL, which the file system would take as
// its end.
WString FromBstr(BSTR bstr) {
  WString str = bstr ? WString(bstr, SysStringLen(bstr)) : WString();
  return str.find(WCHAR(0)) == WString::npos ? str : WString();
}

// The full path that a multipart archive keeps for its file.
WString FullPath(const WString& strPath) {
  WString strFull;
  return SUCCEEDED(NSPlatform::GetFullPath(strPath.c_str(), &strFull)) ? strFull : strPath;
}

// The multipart archive behind a cached object, or null for an archive.
CMultipartArchive* MultipartOf(IUnknown* pObject) {
  IMultipartArchive* pMultipart = nullptr;
  if (!pObject || FAILED(pObject->QueryInterface(IID_IMultipartArchive, reinterpret_cast<void**>(&pMultipart))))
    return nullptr;
  pMultipart->Release();
  return static_cast<CMultipartArchive*>(pMultipart);
}

HRESULT HandOut(IUnknown* pArchive, IKronvale** ppKronvale) {
  return pArchive->QueryInterface(IID_IKronvale, reinterpret_cast<void**>(ppKronvale));
}

}  // namespace

WString CArchiveFactory::CacheKey(const WString& strPath) {
  WString strKey;
  if (strPath.empty() || FAILED(NSPlatform::GetFullPath(strPath.c_str(), &strKey)))
    strKey = NSPlatform::CanonicalizePath(strPath);
  while (strKey.size() > 1 && NSPlatform::IsPathSeparator(strKey.back()) &&
         !(strKey.size() == 3 && strKey[1] == ':'))
    strKey.pop_back();
  return NSPlatform::FoldPathCase(strKey);
}

STDMETHODIMP CArchiveFactory::CreateInstance(IUnknown*, REFIID, void** ppvObject) {
  if (ppvObject) *ppvObject = nullptr;
  return E_NOTIMPL;
}

STDMETHODIMP CArchiveFactory::LockServer(BOOL fLock) {
  if (fLock)
    NSCom::CComModule::Lock();
  else
    NSCom::CComModule::Unlock();
  return S_OK;
}

STDMETHODIMP CArchiveFactory::CreateArchive(BSTR path, IKronvale** ppKronvale) {
  KV_CHECK_POINTER(ppKronvale);
  *ppKronvale = nullptr;
  const WString strPath = FromBstr(path);
  if (strPath.empty()) return E_INVALIDARG;
  CGuard guard(m_section);
  const WString strKey = CacheKey(strPath);
  const auto it = m_cache.find(strKey);
  if (it != m_cache.end()) {
    KV_LOG_MESSAGE(KV_W("successfull archive creation: %s\n"), strPath.c_str());
    return HandOut(it->second, ppKronvale);
  }
  if (NSPlatform::PathExists(strPath.c_str()) && !NSPlatform::IsDirectoryEmpty(strPath.c_str()))
    return khrDirectoryNotEmpty;
  NSCom::CComObject<CArchiveImpl>* pArchive = nullptr;
  HRESULT hr = NSCom::CComObject<CArchiveImpl>::CreateInstance(&pArchive);
  if (!KV_SUCCEEDED(hr)) return hr;
  NSCom::CComPtr<IUnknown> pHold(pArchive->GetUnknown());
  hr = pArchive->Create(strPath);
  if (!KV_SUCCEEDED(hr)) return hr;
  m_cache[strKey] = pHold;
  KV_LOG_MESSAGE(KV_W("successfull archive creation: %s\n"), strPath.c_str());
  return HandOut(pHold, ppKronvale);
}

STDMETHODIMP CArchiveFactory::OpenArchive(BSTR path, IKronvale** ppKronvale) { return OpenArchiveEx(path, 0, ppKronvale); }

STDMETHODIMP CArchiveFactory::OpenArchiveEx(BSTR path, ULONG access, IKronvale** ppKronvale) {
  KV_CHECK_POINTER(ppKronvale);
  *ppKronvale = nullptr;
  const WString strPath = FromBstr(path);
  if (strPath.empty()) return E_INVALIDARG;
  CGuard guard(m_section);
  const WString strKey = CacheKey(strPath);
  const auto it = m_cache.find(strKey);
  if (it != m_cache.end() && it->second) {
    // A cached archive comes back to life if a client had freed it.
    NSCom::CComPtr<IStateControl> pState;
    if (SUCCEEDED(it->second->QueryInterface(IID_IStateControl, reinterpret_cast<void**>(&pState))) &&
        SUCCEEDED(pState->Change(0, klStateLocked))) {
      KV_LOG_MESSAGE(KV_W("Archive opened from cache: %s\n"), strPath.c_str());
      return HandOut(it->second, ppKronvale);
    }
  }
  if (!NSPlatform::PathExists(strPath.c_str())) return khrPathNotFound;
  // An archive in a file is a multipart archive.
  if (!NSPlatform::IsDirectory(strPath.c_str())) {
    NSCom::CComObject<CMultipartArchive>* pMultipart = nullptr;
    HRESULT hr = NSCom::CComObject<CMultipartArchive>::CreateInstance(&pMultipart);
    if (!KV_SUCCEEDED(hr)) return hr;
    NSCom::CComPtr<IUnknown> pHold(pMultipart->GetUnknown());
    hr = pMultipart->Load(FullPath(strPath), static_cast<IArchiveFactoryEx*>(this));
    if (!KV_SUCCEEDED(hr)) return hr;
    m_cache[strKey] = pHold;
    KV_LOG_MESSAGE(KV_W("Archive opened from disk: %s\n"), strPath.c_str());
    return HandOut(pHold, ppKronvale);
  }
  NSCom::CComObject<CArchiveImpl>* pArchive = nullptr;
  HRESULT hr = NSCom::CComObject<CArchiveImpl>::CreateInstance(&pArchive);
  if (!KV_SUCCEEDED(hr)) return hr;
  NSCom::CComPtr<IUnknown> pHold(pArchive->GetUnknown());
  hr = pArchive->Open(strPath, access);
  if (!KV_SUCCEEDED(hr)) {
    pArchive->Free();
    return hr;
  }
  m_cache[strKey] = pHold;
  KV_LOG_MESSAGE(KV_W("Archive opened from disk: %s\n"), strPath.c_str());
  return HandOut(pHold, ppKronvale);
}

// A directory is deleted only when it is an archive (it holds "settings.als"): a wrong path must
// never take a tree that is not ours. A cached archive is freed and forgotten first, which closes
// the files its records hold.
STDMETHODIMP CArchiveFactory::DeleteArchive(BSTR path) {
  const WString strPath = FromBstr(path);
  if (strPath.empty()) return E_INVALIDARG;
  CGuard guard(m_section);
  HRESULT hr;
  if (NSPlatform::IsDirectory(strPath.c_str())) {
    if (!NSPlatform::PathExists(NSPlatform::CombinePath(strPath, KV_W("settings.als")).c_str())) {
      KV_LOG_ERROR(KV_W("Not an archive: %s\n"), strPath.c_str());
      return E_INVALIDARG;
    }
    const auto it = m_cache.find(CacheKey(strPath));
    if (it != m_cache.end()) {
      NSCom::CComPtr<IKronvale> pArchive;
      if (SUCCEEDED(HandOut(it->second, &pArchive))) pArchive->Free();
      m_cache.erase(it);
    }
    hr = NSKronvaleUtils::DeleteFileSystemObject(strPath);
  } else if (NSPlatform::PathExists(strPath.c_str())) {
    // A file is deleted only when it is a multipart archive file we wrote; its partitions stay.
    std::string strText;
    hr = NSArchive::ReadWholeFile(strPath, &strText);
    if (!KV_SUCCEEDED(hr)) return hr;
    if (!CMultipartArchive::IsMultipartDocument(strText)) {
      KV_LOG_ERROR(KV_W("Not a multipart archive file: %s\n"), strPath.c_str());
      return E_INVALIDARG;
    }
    const auto it = m_cache.find(CacheKey(strPath));
    if (it != m_cache.end()) {
      if (CMultipartArchive* pMultipart = MultipartOf(it->second)) pMultipart->OnFileDeleted();
      m_cache.erase(it);
    }
    hr = NSPlatform::RemoveFile(strPath.c_str());
  } else {
    hr = khrPathNotFound;
  }
  if (!KV_SUCCEEDED(hr)) return hr;
  return S_OK;
}

// A path the cache already holds as a multipart archive hands that one out, as CreateArchive does;
// any other existing path answers 0x800700B7 and is left alone.
STDMETHODIMP CArchiveFactory::CreateMultipartArchive(BSTR path, IMultipartArchive** ppMultipartArchive) {
  KV_CHECK_POINTER(ppMultipartArchive);
  *ppMultipartArchive = nullptr;
  const WString strPath = FromBstr(path);
  if (strPath.empty()) return E_INVALIDARG;
  CGuard guard(m_section);
  const WString strKey = CacheKey(strPath);
  const auto it = m_cache.find(strKey);
  if (it != m_cache.end() && MultipartOf(it->second)) {
    KV_LOG_MESSAGE(KV_W("successfull multipart archive creation: %s\n"), strPath.c_str());
    return it->second->QueryInterface(IID_IMultipartArchive, reinterpret_cast<void**>(ppMultipartArchive));
  }
  NSCom::CComObject<CMultipartArchive>* pMultipart = nullptr;
  HRESULT hr = NSCom::CComObject<CMultipartArchive>::CreateInstance(&pMultipart);
  if (!KV_SUCCEEDED(hr)) return hr;
  NSCom::CComPtr<IUnknown> pHold(pMultipart->GetUnknown());
  hr = pMultipart->Create(FullPath(strPath));
  if (!KV_SUCCEEDED(hr)) return hr;
  m_cache[strKey] = pHold;
  KV_LOG_MESSAGE(KV_W("successfull multipart archive creation: %s\n"), strPath.c_str());
  return pHold->QueryInterface(IID_IMultipartArchive, reinterpret_cast<void**>(ppMultipartArchive));
}

STDMETHODIMP CArchiveFactory::Set(LONG lState) {
  if (!(lState & klStateHookRan)) return E_INVALIDARG;
  CGuard guard(m_section);
  for (auto& entry : m_cache) {
    NSCom::CComPtr<IStateControl> pState;
    if (entry.second && SUCCEEDED(entry.second->QueryInterface(IID_IStateControl, reinterpret_cast<void**>(&pState))))
      pState->Set(lState);
  }
  return S_OK;
}

STDMETHODIMP CArchiveFactory::Get(LONG*) { return E_NOTIMPL; }
STDMETHODIMP CArchiveFactory::Change(LONG, LONG) { return E_NOTIMPL; }

}  // namespace NSArchive
