// The archive factory.
#include "archive/ArchiveFactory.h"

#include <kronvale/KronvaleResults.h>

#include <optional>

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

// The path a client gave, refused (E_INVALIDARG, with a report) when it is empty or holds a NUL
// character: the file system would see only the part before it, while our checks saw all of it.
HRESULT PathFromBstr(BSTR bstr, WString* pstrPath) {
  KV_FUNC("CArchiveFactory");
  *pstrPath = NSCom::BstrText(bstr);
  if (pstrPath->empty()) return E_INVALIDARG;
  if (NSCom::HasEmbeddedNul(bstr)) {
    KV_LOG_ERROR(KV_W("Refused an archive path holding a NUL character: %s\n"), pstrPath->c_str());
    return E_INVALIDARG;
  }
  return S_OK;
}

// Names what a deletion that stopped at an error took away, and what it left.
void ReportPartialDeletion(const WString& strPath, const std::vector<NSPlatform::SDirEntry>& vBefore, HRESULT hr) {
  KV_FUNC("CArchiveFactory::DeleteArchive");
  WString strRemoved, strLeft;
  for (const NSPlatform::SDirEntry& entry : vBefore) {
    WString& strList = NSPlatform::PathExists(NSPlatform::CombinePath(strPath, entry.strName).c_str()) ? strLeft : strRemoved;
    strList += (strList.empty() ? KV_W("") : KV_W(", ")) + entry.strName;
  }
  KV_LOG_ERROR(KV_W("Deleting archive %s stopped at an error (hr=%0X); removed: %s; left: %s\n"), strPath.c_str(),
               static_cast<unsigned>(hr), strRemoved.c_str(), strLeft.c_str());
}

// A new archive object of class T, brought to life by fnMake (which creates, opens or loads it).
template <class T, class TMake>
HRESULT MakeArchiveObject(TMake fnMake, NSCom::CComPtr<IUnknown>& pHoldOut) {
  NSCom::CComObject<T>* pObject = nullptr;
  HRESULT hr = NSCom::CComObject<T>::CreateInstance(&pObject);
  if (!KV_SUCCEEDED(hr)) return hr;
  NSCom::CComPtr<IUnknown> pHold(pObject->GetUnknown());
  hr = fnMake(pObject);
  if (!KV_SUCCEEDED(hr)) return hr;
  pHoldOut = pHold;
  return S_OK;
}

HRESULT HandOut(IUnknown* pArchive, IKronvale** ppKronvale) {
  return pArchive->QueryInterface(IID_IKronvale, reinterpret_cast<void**>(ppKronvale));
}

}  // namespace

// One factory call on one path: the path checked (see PathFromBstr), the factory locked for the rest
// of the call, and the object the cache holds for the path (null when none). A failed check leaves
// hr failed and the factory unlocked.
class CArchiveFactory::CPathCall {
 public:
  CPathCall(CArchiveFactory& factory, BSTR path) : m_factory(factory) {
    hr = PathFromBstr(path, &strPath);
    if (FAILED(hr)) return;
    m_guard.emplace(factory.m_section);
    m_strKey = CacheKey(strPath);
    const auto it = factory.m_cache.find(m_strKey);
    if (it != factory.m_cache.end()) pCached = it->second;
  }

  // A new archive object of class T, brought to life by fnMake (which creates, opens or loads it),
  // cached for the path and left in pCached; on failure the cache is as it was.
  template <class T, class TMake>
  HRESULT Make(TMake fnMake) {
    NSCom::CComPtr<IUnknown> pHold;
    const HRESULT hrMake = MakeArchiveObject<T>(fnMake, pHold);
    if (FAILED(hrMake)) return hrMake;
    m_factory.m_cache[m_strKey] = pHold;
    pCached = pHold;
    return S_OK;
  }

  HRESULT hr = S_OK;
  WString strPath;
  IUnknown* pCached = nullptr;

 private:
  CArchiveFactory& m_factory;
  std::optional<CGuard> m_guard;
  WString m_strKey;
};

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
  CPathCall call(*this, path);
  if (FAILED(call.hr)) return call.hr;
  const WString& strPath = call.strPath;
  if (!call.pCached) {
    // An empty directory becomes an archive, and so does one that a killed creation left half made.
    if (NSPlatform::PathExists(strPath.c_str()) && !NSPlatform::IsDirectoryEmpty(strPath.c_str()) &&
        !CArchiveImpl::IsInterruptedCreation(CArchiveImpl::FullPath(strPath)))
      return khrDirectoryNotEmpty;
    const HRESULT hr = call.Make<CArchiveImpl>([&](CArchiveImpl* p) { return p->Create(strPath); });
    if (FAILED(hr)) return hr;
  }
  KV_LOG_MESSAGE(KV_W("successfull archive creation: %s\n"), strPath.c_str());
  return HandOut(call.pCached, ppKronvale);
}

STDMETHODIMP CArchiveFactory::OpenArchive(BSTR path, IKronvale** ppKronvale) { return OpenArchiveEx(path, 0, ppKronvale); }

STDMETHODIMP CArchiveFactory::OpenArchiveEx(BSTR path, ULONG access, IKronvale** ppKronvale) {
  KV_CHECK_POINTER(ppKronvale);
  *ppKronvale = nullptr;
  CPathCall call(*this, path);
  if (FAILED(call.hr)) return call.hr;
  const WString& strPath = call.strPath;
  // A cached archive comes back to life if a client had freed it.
  NSCom::CComPtr<IStateControl> pState;
  if (call.pCached && SUCCEEDED(call.pCached->QueryInterface(IID_IStateControl, reinterpret_cast<void**>(&pState))) &&
      SUCCEEDED(pState->Change(0, klStateLocked))) {
    KV_LOG_MESSAGE(KV_W("Archive opened from cache: %s\n"), strPath.c_str());
    return HandOut(call.pCached, ppKronvale);
  }
  if (!NSPlatform::PathExists(strPath.c_str())) return khrPathNotFound;
  HRESULT hr = S_OK;
  if (!NSPlatform::IsDirectory(strPath.c_str())) {
    // An archive in a file is a multipart archive.
    hr = call.Make<CMultipartArchive>(
        [&](CMultipartArchive* p) { return p->Load(FullPath(strPath), static_cast<IArchiveFactoryEx*>(this)); });
  } else {
    hr = call.Make<CArchiveImpl>(
        [&](CArchiveImpl* p) {
          const HRESULT hrOpen = p->Open(strPath, access);
          if (FAILED(hrOpen)) p->Free();
          return hrOpen;
        });
  }
  if (FAILED(hr)) return hr;
  KV_LOG_MESSAGE(KV_W("Archive opened from disk: %s\n"), strPath.c_str());
  return HandOut(call.pCached, ppKronvale);
}

// A directory is deleted only when it is an archive (it holds "settings.als", or only what a killed
// creation left): a wrong path must never take a tree that is not ours. The path is made canonical
// once, and the same path is checked and deleted. A cached archive is freed and forgotten first,
// which closes the files its records hold. A deletion that stops at an error says what it removed.
STDMETHODIMP CArchiveFactory::DeleteArchive(BSTR path) {
  KV_FUNC("CArchiveFactory::DeleteArchive");
  WString strGiven;
  HRESULT hr = PathFromBstr(path, &strGiven);
  if (FAILED(hr)) return hr;
  const WString strPath = CArchiveImpl::FullPath(strGiven);
  CGuard guard(m_section);
  if (NSPlatform::IsDirectory(strPath.c_str())) {
    if (!NSPlatform::PathExists(NSPlatform::CombinePath(strPath, kszSettingsFileName).c_str()) &&
        !CArchiveImpl::IsInterruptedCreation(strPath)) {
      KV_LOG_ERROR(KV_W("Not an archive: %s\n"), strPath.c_str());
      return E_INVALIDARG;
    }
    const auto it = m_cache.find(CacheKey(strPath));
    if (it != m_cache.end()) {
      NSCom::CComPtr<IKronvale> pArchive;
      if (SUCCEEDED(HandOut(it->second, &pArchive))) pArchive->Free();
      m_cache.erase(it);
    }
    std::vector<NSPlatform::SDirEntry> vBefore;
    NSPlatform::ListDir(strPath.c_str(), &vBefore);
    hr = NSKronvaleUtils::DeleteFileSystemObject(strPath);
    if (FAILED(hr)) ReportPartialDeletion(strPath, vBefore, hr);
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
  CPathCall call(*this, path);
  if (FAILED(call.hr)) return call.hr;
  if (!MultipartOf(call.pCached)) {
    const HRESULT hr = call.Make<CMultipartArchive>(
        [&](CMultipartArchive* p) { return p->Create(FullPath(call.strPath)); });
    if (FAILED(hr)) return hr;
  }
  KV_LOG_MESSAGE(KV_W("successfull multipart archive creation: %s\n"), call.strPath.c_str());
  return call.pCached->QueryInterface(IID_IMultipartArchive, reinterpret_cast<void**>(ppMultipartArchive));
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
