// The archive object: creation and opening, settings, description, records and readers, state.
#include "archive/ArchiveImpl.h"

#include <algorithm>
#include <kronvale/KronvaleResults.h>

#include "hours/KronvaleUtils.h"
#include "records/Record.h"
#include "support/Report.h"

namespace NSArchive {

using namespace NSKronvale;

using NSRecords::klStateHookRan;
using NSRecords::klStateLocked;

namespace {

constexpr WCHAR kszClientGeneric[] = KV_W("GenericReader");
constexpr WCHAR kszClientArchive[] = KV_W("Kronvale");
constexpr DWORD kdwModeKindMask = 0x7;
constexpr DWORD kdwModeRead = 0x1;
constexpr DWORD kdwModeReadWrite = 0x3;
constexpr LONG klStateSaveSettings = 0x80000;
constexpr LONG klStateSaveAtOpen = 0x100000;

constexpr WCHAR kszReaderLimitKey[] = KV_W("software\\morvane\\vistrel");
constexpr WCHAR kszReaderLimitValue[] = KV_W("archive_max_readers_count");
constexpr DWORD kdwDefaultReaderLimit = 100;

std::atomic<DWORD>& ReaderLimit() {
  static std::atomic<DWORD> s_dwLimit{ReadReaderLimit()};
  return s_dwLimit;
}

}  // namespace

DWORD ReadReaderLimit() {
  DWORD dwLimit = 0;
  return SUCCEEDED(NSPlatform::ReadMachineDword(kszReaderLimitKey, kszReaderLimitValue, &dwLimit))
             ? dwLimit
             : kdwDefaultReaderLimit;
}

DWORD GetReaderLimit() { return ReaderLimit().load(); }
void SetReaderLimit(DWORD dwLimit) { ReaderLimit() = dwLimit; }

bool IsValidRecordName(const WString& strName) {
  if (strName.empty() || strName == KV_W(".") || strName == KV_W("..")) return false;
  return std::none_of(strName.begin(), strName.end(), [](WCHAR ch) { return ch == '\\' || ch == '/' || ch == 0; });
}

// The deepest path a record's files take below the record directory: an hour's hash file.
constexpr WCHAR kszDeepestRecordFile[] = KV_W("2000/01/01/00/descriptor.alh");

// ---- Life -----------------------------------------------------------------------------------------

CArchiveImpl::CArchiveImpl() = default;
CArchiveImpl::~CArchiveImpl() = default;

HRESULT CArchiveImpl::FinalConstruct() {
  KV_LOG_MESSAGE(KV_W("begin.\n"));
  m_pWorker = NSSystem::CThread::Create();
  if (m_pWorker) {
    const HRESULT hr = NSSystem::StartPeriodic(m_pWorker, {0, kdwQuotaPeriodMs},
                                               [this, pCell = m_pWorkerCell] { SizeAndQuotaPass(); });
    KV_REPORT_IF_FAILED(hr);
  }
  return S_OK;
}

void CArchiveImpl::FinalRelease() {
  KV_LOG_MESSAGE(KV_W("end.\n"));
  StopFlusher();
  LetThreadGo(m_pWorker, m_pWorkerCell);
}

// Stops a background thread and waits for it; on the thread itself (whose task released the
// archive) the thread is only told to stop and handed to its task's cell, which it outlives.
void CArchiveImpl::LetThreadGo(std::shared_ptr<NSSystem::CThread>& pThread, const std::shared_ptr<SThreadCell>& pCell) {
  if (!pThread) return;
  pThread->Stop();
  if (pCell && pThread->GetThreadId() == NSPlatform::GetCurrentThreadId()) {
    pCell->pThread = std::move(pThread);
    return;
  }
  pThread->Join();
  pThread.reset();
}

// The archive keeps its directory as a full path: records and reports never depend on the
// working directory of the moment.
WString CArchiveImpl::FullPath(const WString& strPath) {
  WString strFull;
  if (strPath.empty() || FAILED(NSPlatform::GetFullPath(strPath.c_str(), &strFull)))
    strFull = NSPlatform::CanonicalizePath(strPath);
  while (strFull.size() > 1 && NSPlatform::IsPathSeparator(strFull.back()) && !(strFull.size() == 3 && strFull[1] == ':'))
    strFull.pop_back();
  return strFull;
}

HRESULT CArchiveImpl::Create(const WString& strPath) {
  KV_FUNC("CArchiveImpl::Create");
  const WString strFull = FullPath(strPath);
  HRESULT hr = NSKronvaleUtils::CreateDirTreeDurably(strFull);
  if (!KV_SUCCEEDED(hr)) return hr;
  // A creation killed half-way left these; they are made anew.
  if (IsInterruptedCreation(strFull)) {
    KV_LOG_WARNING(KV_W("Finishing the interrupted creation of archive %s\n"), strFull.c_str());
    for (const WCHAR* pszName : {kszSettingsNewFile, kszArchiveDescriptionFile, kszArchiveDescriptionNewFile})
      NSPlatform::RemoveFile(NSPlatform::CombinePath(strFull, pszName).c_str());
  }
  {
    CGuard guard(m_section);
    m_strPath = strFull;
  }
  hr = SetDescription(NSCom::CComBSTR(KV_W("")));
  if (!KV_SUCCEEDED(hr)) return hr;
  // The description's name reaches the disk before the settings do: a power cut must not keep the
  // settings' rename and lose the file made before it.
  hr = NSPlatform::FlushDirectory(strFull.c_str());
  if (!KV_SUCCEEDED(hr)) return hr;
  // Last: an archive is a directory with its settings, so a creation cut short before this point
  // leaves a directory that the next creation finishes and no open mistakes for an archive.
  {
    CGuard guard(m_section);
    hr = SerializeSettings(true);
    if (!KV_SUCCEEDED(hr)) return hr;
  }
  StartFlusher(m_settings.dwFlushTimeout);
  return S_OK;
}

bool CArchiveImpl::IsInterruptedCreation(const WString& strDirectory) {
  std::vector<NSPlatform::SDirEntry> vEntries;
  if (FAILED(NSPlatform::ListDir(strDirectory.c_str(), &vEntries)) || vEntries.empty()) return false;
  return std::all_of(vEntries.begin(), vEntries.end(), [](const NSPlatform::SDirEntry& entry) {
    return !entry.IsDirectory() &&
           (entry.strName == kszSettingsNewFile || entry.strName == kszArchiveDescriptionFile ||
            entry.strName == kszArchiveDescriptionNewFile);
  });
}

HRESULT CArchiveImpl::Open(const WString& strPath, DWORD dwAccess) {
  KV_FUNC("CArchiveImpl::Open");
  DWORD dwSetState = 0;
  {
    CGuard guard(m_section);
    m_strPath = FullPath(strPath);
    const HRESULT hr = SerializeSettings(false);
    if (FAILED(hr)) return hr;
    dwSetState = m_settings.dwSetState;
  }
  // A state stored for this open is applied once.
  if (dwSetState) {
    Set(static_cast<LONG>(dwSetState));
    CGuard guard(m_section);
    m_settings.dwSetState = 0;
    KV_SUCCEEDED(SerializeSettings(true));
  }
  if (dwAccess) {
    CGuard guard(m_section);
    m_settings.dwAccess = dwAccess;
    KV_SUCCEEDED(SerializeSettings(true));
  }
  // Every record is opened once, so that a damaged one shows now rather than at its first use.
  BSTR* pNames = nullptr;
  DWORD cNames = 0;
  if (SUCCEEDED(GetRecords(&pNames, &cNames))) {
    NSCom::CComBSTR bstrClient(kszClientArchive);
    for (DWORD i = 0; i < cNames; ++i) {
      NSCom::CComPtr<IRecord> pRecord;
      if (FAILED(OpenRecordInternal(bstrClient, pNames[i], kdwModeRead, &pRecord, 1)))
        KV_LOG_ERROR(KV_W("Failed to open record '%s' in archive '%s'\n"), pNames[i], m_strPath.c_str());
      SysFreeString(pNames[i]);
    }
    CoTaskMemFree(pNames);
  }
  StartFlusher(m_settings.dwFlushTimeout);
  return S_OK;
}

// ---- Settings -------------------------------------------------------------------------------------

// Under the lock.
HRESULT CArchiveImpl::SerializeSettings(bool bSave) {
  const HRESULT hr =
      NSArchive::SerializeSettings(NSPlatform::CombinePath(m_strPath, kszSettingsFileName), bSave, &m_settings);
  if (FAILED(hr) && hr != khrPathNotFound) KV_SUCCEEDED(hr);
  return hr;
}

STDMETHODIMP CArchiveImpl::SetFlushTimeout(ULONG ulFlushTimeout) {
  {
    CGuard guard(m_section);
    if (HasState(klStateLocked)) return khrLocked;
    m_settings.dwFlushTimeout = ulFlushTimeout;
    // The value holds even when it could not be stored.
    SerializeSettings(true);
  }
  StartFlusher(ulFlushTimeout);
  return S_OK;
}

STDMETHODIMP CArchiveImpl::Set(LONG lState) {
  if (lState & klStateSaveSettings) {
    {
      CGuard guard(m_section);
      const HRESULT hr = SerializeSettings(true);
      KV_REPORT_IF_FAILED(hr);
    }
    const LONG lValue = lState & ~klStateSaveSettings;
    const LONG lPrevious = ExchangeState(lValue);
    OnChange(lPrevious, ~0, lValue);
    return S_OK;
  }
  if (lState & klStateSaveAtOpen) {
    {
      CGuard guard(m_section);
      m_settings.dwSetState |= static_cast<DWORD>(klStateSaveSettings);
    }
    lState &= ~klStateSaveAtOpen;
    if (!lState) return S_OK;
  }
  return CStateControl::Set(lState);
}

// ---- Description, path, information ---------------------------------------------------------------

STDMETHODIMP CArchiveImpl::SetDescription(BSTR szDescription) {
  CGuard guard(m_section);
  KV_LOG_MESSAGE(KV_W("%s\n%s\n"), m_strPath.c_str(), szDescription ? szDescription : KV_W(""));
  KV_CHECK_POINTER(szDescription);
  const HRESULT hr = NSKronvaleUtils::WriteDescriptionFile(NSPlatform::CombinePath(m_strPath, kszArchiveDescriptionFile),
                                                           szDescription, FILE_SHARE_READ | FILE_SHARE_DELETE);
  if (!KV_SUCCEEDED(hr)) return hr;
  return S_OK;
}

STDMETHODIMP CArchiveImpl::GetDescription(BSTR* pszDescription) {
  KV_CHECK_POINTER(pszDescription);
  *pszDescription = nullptr;
  CGuard guard(m_section);
  const HRESULT hr =
      NSKronvaleUtils::ReadDescriptionFile(NSPlatform::CombinePath(m_strPath, kszArchiveDescriptionFile), pszDescription);
  if (!KV_SUCCEEDED(hr)) return hr;
  return S_OK;
}

STDMETHODIMP CArchiveImpl::GetPath(BSTR* pszPath) {
  KV_CHECK_POINTER(pszPath);
  CGuard guard(m_section);
  *pszPath = SysAllocStringLen(m_strPath.data(), static_cast<UINT>(m_strPath.size()));
  return *pszPath ? S_OK : E_OUTOFMEMORY;
}

STDMETHODIMP CArchiveImpl::GetInfo(SArchiveInfo* pArhiveInfo) {
  KV_CHECK_POINTER(pArhiveInfo);
  WString strPath;
  SArchiveInfo info = {};
  {
    CGuard guard(m_section);
    strPath = m_strPath;
    info.ullArchiveSize = m_settings.ullArchiveSize + m_ullOpenHoursSize;
    info.ullMinimumFreeDiskSpace = m_settings.ullMinimumFreeDiskSpace;
    info.ullMaximumArchiveSize = m_settings.ullMaximumArchiveSize;
    info.dwFlushTimeout = m_settings.dwFlushTimeout;
    info.dwAccess = m_settings.dwAccess;
  }
  const HRESULT hr = NSPlatform::GetFreeDiskSpace(strPath.c_str(), &info.ullFreeDiskSpace, nullptr, nullptr);
  if (!KV_SUCCEEDED(hr)) return hr;
  *pArhiveInfo = info;
  return S_OK;
}

// ---- State ----------------------------------------------------------------------------------------

STDMETHODIMP CArchiveImpl::Free() {
  {
    CGuard guard(m_section);
    // The hook hands the freed bit on to every record in the table.
    const HRESULT hr = Change(klStateLocked, 0);
    if (!KV_SUCCEEDED(hr)) return hr;
    m_records.clear();
    m_readers.clear();
  }
  StopFlusher();
  return S_OK;
}

void CArchiveImpl::OnChange(LONG, LONG, LONG) {
  CGuard guard(m_section);
  const LONG lState = GetState();
  for (auto& entry : m_records) {
    NSCom::CComPtr<IStateControl> pState;
    HRESULT hr = entry.second.pRecord->QueryInterface(__uuidof(IStateControl), reinterpret_cast<void**>(&pState));
    if (SUCCEEDED(hr)) hr = pState->Change(lState & klStateLocked, ~lState & klStateLocked);
    KV_REPORT_IF_FAILED(hr);
  }
  ClearStateBitsUnlocked(klStateHookRan);
}

void CArchiveImpl::SetOwner(IPartitionOwner* pOwner) {
  CGuard guard(m_section);
  m_pOwner = pOwner;
}

void CArchiveImpl::ReleaseOwner(IPartitionOwner* pOwner) {
  CGuard guard(m_section);
  if (m_pOwner == pOwner) m_pOwner = nullptr;
}

bool CArchiveImpl::HasOwner() {
  CGuard guard(m_section);
  return m_pOwner != nullptr;
}

CArchiveImpl* ArchiveImplOf(IUnknown* p) {
  if (!p) return nullptr;
  IRecordParent* pParent = nullptr;
  if (FAILED(p->QueryInterface(__uuidof(IRecordParent), reinterpret_cast<void**>(&pParent))) || !pParent)
    return nullptr;
  pParent->Release();
  return static_cast<CArchiveImpl*>(pParent);
}

// ---- Records --------------------------------------------------------------------------------------

STDMETHODIMP CArchiveImpl::CreateRecord(BSTR name, IRecord** ppRecord) { return CreateRecordInternal(name, ppRecord, 1); }

STDMETHODIMP CArchiveImpl::OpenRecord(BSTR name, IRecord** ppRecord) {
  NSCom::CComBSTR bstrClient(kszClientGeneric);
  return OpenRecordInternal(bstrClient, name, kdwModeRead, ppRecord, 1);
}

STDMETHODIMP CArchiveImpl::OpenRecordEx(BSTR client, BSTR name, ULONG mode, IRecord** ppRecord) {
  return OpenRecordInternal(client, name, mode, ppRecord, 1);
}

// The answer to a record name a client gave, before anything touches the disk: E_INVALIDARG for a
// name that is empty, "." or "..", or holds a separator or a NUL (it would leave the archive, or the
// file system would see less of it than we did); 0x800700CE for a name whose files the file system
// cannot hold (a record made with it could never be opened). Under the lock.
HRESULT CArchiveImpl::CheckRecordName(const WString& strName) {
  KV_FUNC("CArchiveImpl::CheckRecordName");
  if (!IsValidRecordName(strName)) {
    KV_LOG_ERROR(KV_W("Invalid record name '%s' in archive '%s'\n"), strName.c_str(), m_strPath.c_str());
    return E_INVALIDARG;
  }
  const HRESULT hr =
      NSPlatform::CheckPathFits(NSPlatform::CombinePath(NSPlatform::CombinePath(m_strPath, strName), kszDeepestRecordFile));
  if (FAILED(hr)) {
    KV_LOG_ERROR(KV_W("Record name too long for the file system: '%s' in archive '%s'\n"), strName.c_str(),
                 m_strPath.c_str());
  }
  return hr;
}

STDMETHODIMP CArchiveImpl::CreateRecordInternal(BSTR name, IRecord** ppRecord, LONG /*lPublic*/) {
  const WString strName = NSCom::BstrText(name);
  CGuard guard(m_section);
  KV_LOG_MESSAGE(KV_W("Creating record '%s' in archive '%s'.\n"), strName.c_str(), m_strPath.c_str());
  KV_CHECK_POINTER(ppRecord);
  *ppRecord = nullptr;
  if (HasState(klStateLocked)) return khrLocked;
  HRESULT hr = CheckRecordName(strName);
  if (FAILED(hr)) return hr;
  hr = MakeRecord(strName, WString(), kdwModeReadWrite, strName + KV_W("-rw"), ppRecord);
  KV_REPORT_IF_FAILED(hr);
  return hr;
}

STDMETHODIMP CArchiveImpl::OpenRecordInternal(BSTR client, BSTR name, ULONG mode, IRecord** ppRecord, LONG) {
  const WString strClient = NSCom::BstrText(client);
  const WString strName = NSCom::BstrText(name);
  CGuard guard(m_section);
  if (HasState(klStateLocked)) return khrLocked;
  KV_LOG_MESSAGE(KV_W("Opening record '%s' in archive '%s' for client '%s' in mode 0x%08X.\n"), strName.c_str(),
                 m_strPath.c_str(), strClient.c_str(), static_cast<unsigned>(mode));
  KV_CHECK_POINTER(ppRecord);
  *ppRecord = nullptr;
  if (const HRESULT hrName = CheckRecordName(strName); FAILED(hrName)) return hrName;
  if (!NSPlatform::IsDirectory(NSPlatform::CombinePath(m_strPath, strName).c_str())) return khrPathNotFound;
  if ((mode & kdwModeKindMask) == kdwModeRead) {
    TrimReaders(GetReaderLimit());
    FILETIME ftNow;
    NSPlatform::GetUtcFileTime(&ftNow);
    m_readers[strClient] = NSPlatform::FileTimeToU64(ftNow);
  }
  const bool bShared = (mode & kdwModeKindMask) == kdwModeReadWrite;
  const WString strHandle = bShared ? strName + KV_W("-rw") : strName + KV_W("-") + strClient + KV_W("-r");
  const HRESULT hr = MakeRecord(strName, bShared ? WString() : strClient, mode, strHandle, ppRecord);
  KV_REPORT_IF_FAILED(hr);
  return hr;
}

// Drops the readers of the clients that opened longest ago until no more than dwLimit clients are
// left; the shared read-write handles stay. Under the lock.
void CArchiveImpl::TrimReaders(DWORD dwLimit) {
  if (!dwLimit || m_readers.size() <= dwLimit) return;
  std::vector<std::pair<ULONGLONG, WString>> vByAge;
  for (const auto& reader : m_readers) vByAge.emplace_back(reader.second, reader.first);
  std::sort(vByAge.begin(), vByAge.end());
  for (size_t i = 0; i < vByAge.size() && m_readers.size() > dwLimit; ++i) {
    const WString& strClient = vByAge[i].second;
    m_readers.erase(strClient);
    for (auto it = m_records.begin(); it != m_records.end();) {
      const bool bReaderOfClient = (it->second.dwMode & kdwModeKindMask) != kdwModeReadWrite &&
                                   it->second.strClient == strClient;
      it = bReaderOfClient ? m_records.erase(it) : std::next(it);
    }
  }
}

// The table's object for strHandle, or a new record object entered under it. Under the lock.
HRESULT CArchiveImpl::MakeRecord(const WString& strName, const WString& strClient, DWORD dwMode,
                                 const WString& strHandle, IRecord** ppRecord) {
  const auto it = m_records.find(strHandle);
  if (it != m_records.end()) return it->second.pRecord.CopyTo(ppRecord);
  NSCom::CComObject<NSRecords::CRecord>* pObject = nullptr;
  HRESULT hr = NSCom::CComObject<NSRecords::CRecord>::CreateInstance(&pObject);
  if (FAILED(hr)) return hr;
  NSCom::CComPtr<IRecord> pRecord(pObject);
  hr = pObject->Create(static_cast<IKronvale*>(this), NSPlatform::CombinePath(m_strPath, strName).c_str(),
                       m_settings.dwFlushTimeout, dwMode);
  if (FAILED(hr)) return hr;
  m_records[strHandle] = {pRecord, strClient, dwMode};
  return pRecord.CopyTo(ppRecord);
}

STDMETHODIMP CArchiveImpl::GetRecords(BSTR** ppszRecordName, DWORD* pdwRecordNameCount) {
  KV_CHECK_POINTERS(pdwRecordNameCount && ppszRecordName);
  *ppszRecordName = nullptr;
  *pdwRecordNameCount = 0;
  std::vector<NSPlatform::SDirEntry> vEntries;
  {
    CGuard guard(m_section);
    if (HasState(klStateLocked)) return khrLocked;
    if (FAILED(NSPlatform::ListDir(m_strPath.c_str(), &vEntries, KV_W("*.*")))) return E_FAIL;
  }
  std::vector<const NSPlatform::SDirEntry*> vRecords;
  for (const auto& entry : vEntries)
    if (entry.IsDirectory()) vRecords.push_back(&entry);
  if (vRecords.empty()) return S_OK;
  auto* pNames = static_cast<BSTR*>(CoTaskMemAlloc(vRecords.size() * sizeof(BSTR)));
  if (!pNames) return E_OUTOFMEMORY;
  for (size_t i = 0; i < vRecords.size(); ++i) {
    pNames[i] = SysAllocStringLen(vRecords[i]->strName.data(), static_cast<UINT>(vRecords[i]->strName.size()));
    if (!pNames[i]) {
      while (i > 0) SysFreeString(pNames[--i]);
      CoTaskMemFree(pNames);
      return E_OUTOFMEMORY;
    }
  }
  *ppszRecordName = pNames;
  *pdwRecordNameCount = static_cast<DWORD>(vRecords.size());
  return S_OK;
}

// Locks every object of the record (their clients then get 0x8007006C), drops them from the table
// and deletes the record's directory.
STDMETHODIMP CArchiveImpl::DeleteRecord(BSTR name) {
  const WString strName = NSCom::BstrText(name);
  WString strDirectory;
  {
    CGuard guard(m_section);
    if (HasState(klStateLocked)) return khrLocked;
    if (const HRESULT hrName = CheckRecordName(strName); FAILED(hrName)) return hrName;
    strDirectory = NSPlatform::CombinePath(m_strPath, strName);
    if (!NSPlatform::IsDirectory(strDirectory.c_str())) return khrPathNotFound;
    const WString strPrefix = strName + KV_W("-");
    for (auto it = m_records.begin(); it != m_records.end();) {
      const WString& strHandle = it->first;
      const bool bOfRecord = strHandle == strName + KV_W("-rw") ||
                             ((it->second.dwMode & kdwModeKindMask) != kdwModeReadWrite &&
                              strHandle == strPrefix + it->second.strClient + KV_W("-r"));
      if (!bOfRecord) {
        ++it;
        continue;
      }
      NSCom::CComPtr<IStateControl> spStateControl;
      it->second.pRecord->QueryInterface(__uuidof(IStateControl), reinterpret_cast<void**>(&spStateControl));
      if (KV_ASSERT(spStateControl)) spStateControl->Change(klStateLocked, 0);
      it = m_records.erase(it);
    }
  }
  // A record that another process writes is not deleted under its writer.
  {
    std::shared_ptr<void> pLock;
    const HRESULT hr = NSRecords::LockRecordForWriting(strDirectory, &pLock);
    if (hr == khrSharingViolation) {
      KV_LOG_ERROR(KV_W("Record '%s' is being written by another process\n"), strDirectory.c_str());
      return hr;
    }
  }
  const HRESULT hr = NSKronvaleUtils::DeleteFileSystemObject(strDirectory);
  if (!KV_SUCCEEDED(hr)) return hr;
  return S_OK;
}

}  // namespace NSArchive
