// The archive's limits: quotas, the size-and-quota pass of its worker, the deletion of the oldest
// hours, and the flusher of buffered hours.
#include <algorithm>
#include <functional>
#include <queue>
#include <tuple>
#include <kronvale/KronvaleResults.h>

#include "archive/ArchiveImpl.h"
#include "hours/KronvaleUtils.h"
#include "support/Report.h"

namespace NSArchive {

using namespace NSKronvale;

using NSRecords::klStateLocked;

namespace {

constexpr ULONGLONG kullLargeArchive = 214748364900ull;  // from here on the margin is 1% of the size
constexpr LONGLONG kllSmallMargin = 2147483648ll;        // 2 GiB
constexpr LONGLONG kllMiB = 1048576;

NSCom::CComPtr<IRecordInternal> Internal(IRecord* pRecord) {
  NSCom::CComPtr<IRecordInternal> p;
  pRecord->QueryInterface(__uuidof(IRecordInternal), reinterpret_cast<void**>(&p));
  return p;
}

WString RecordPath(IRecord* pRecord) {
  NSCom::CComBSTR bstr;
  pRecord->GetPath(&bstr);
  return bstr.m_str ? WString(bstr.m_str) : WString();
}

// Bytes of the files under strDirectory; 0 when stop says so before a directory is listed.
template <class TStop>
ULONGLONG TreeSize(const WString& strDirectory, TStop& stop, bool* pbStopped) {
  if (*pbStopped || (*pbStopped = stop())) return 0;
  std::vector<NSPlatform::SDirEntry> vEntries;
  if (FAILED(NSPlatform::ListDir(strDirectory.c_str(), &vEntries))) return 0;
  ULONGLONG ullSize = 0;
  for (const NSPlatform::SDirEntry& entry : vEntries) {
    ullSize += entry.IsDirectory() ? TreeSize(NSPlatform::CombinePath(strDirectory, entry.strName), stop, pbStopped)
                                   : entry.ullSize;
    if (*pbStopped) return 0;
  }
  return ullSize;
}

ULONGLONG HourSize(const WString& strDirectory) {
  bool bStopped = false;
  auto never = [] { return false; };
  return TreeSize(strDirectory, never, &bStopped);
}

// The oldest hour of a record after strAfter ("" for its first), passing over the hour it has open
// and the current hour of the clock: hours being written are never deleted.
WString NextDeletableHour(IRecordInternal* pRecord, const WString& strAfter) {
  WString strOpen;
  pRecord->GetCurrentHourPath(&strOpen);
  WString strHour = strAfter;
  for (;;) {
    WString strNext;
    if (FAILED(pRecord->FindClosestHourPath(strHour, true, &strNext)) || strNext.empty()) return WString();
    strHour = std::move(strNext);
    if (strHour != strOpen && !NSKronvaleUtils::IsCurrentHour(strHour)) return strHour;
  }
}

}  // namespace

// ---- Quotas ---------------------------------------------------------------------------------------

// Under the lock: the owner clears its pointer under this lock before it goes, so the call cannot
// reach an owner that is being destroyed.
void CArchiveImpl::TellOwnerQuotaChanged() {
  if (m_pOwner) m_pOwner->OnPartitionQuotaChanged();
}

STDMETHODIMP CArchiveImpl::SetQuota(ULONGLONG ullMinimumFreeDiskSpace, ULONGLONG ullMaximumArchiveSize) {
  HRESULT hr;
  {
    CGuard guard(m_section);
    if (HasState(klStateLocked)) return khrLocked;
    if (ullMinimumFreeDiskSpace == m_settings.ullMinimumFreeDiskSpace &&
        ullMaximumArchiveSize == m_settings.ullMaximumArchiveSize)
      return S_FALSE;
    m_settings.ullMinimumFreeDiskSpace = ullMinimumFreeDiskSpace;
    m_settings.ullMaximumArchiveSize = ullMaximumArchiveSize;
    hr = SerializeSettings(true);
    TellOwnerQuotaChanged();
  }
  KV_REPORT_IF_FAILED(hr);
  return hr;
}

STDMETHODIMP CArchiveImpl::SetArchiveQuota(const SArchiveQuota* pQuota) {
  KV_CHECK_POINTER(pQuota);
  HRESULT hr;
  {
    CGuard guard(m_section);
    if (HasState(klStateLocked)) return khrLocked;
    if (pQuota->ullMinimumFreeDiskSpace == m_settings.ullMinimumFreeDiskSpace &&
        pQuota->ullMaximumArchiveSize == m_settings.ullMaximumArchiveSize &&
        pQuota->lMaximumArchiveHours == m_settings.lMaximumArchiveHours && pQuota->dwAccess == m_settings.dwAccess)
      return S_FALSE;
    m_settings.ullMinimumFreeDiskSpace = pQuota->ullMinimumFreeDiskSpace;
    m_settings.ullMaximumArchiveSize = pQuota->ullMaximumArchiveSize;
    m_settings.lMaximumArchiveHours = pQuota->lMaximumArchiveHours;
    if (pQuota->dwAccess != m_settings.dwAccess) {
      m_settings.dwAccess = pQuota->dwAccess;
      m_records.clear();
    }
    hr = SerializeSettings(true);
    TellOwnerQuotaChanged();
  }
  KV_REPORT_IF_FAILED(hr);
  return hr;
}

STDMETHODIMP CArchiveImpl::GetArchiveQuota(SArchiveQuota* pQuota) {
  KV_CHECK_POINTER(pQuota);
  CGuard guard(m_section);
  pQuota->ullMinimumFreeDiskSpace = m_settings.ullMinimumFreeDiskSpace;
  pQuota->ullMaximumArchiveSize = m_settings.ullMaximumArchiveSize;
  pQuota->lMaximumArchiveHours = m_settings.lMaximumArchiveHours;
  pQuota->dwAccess = m_settings.dwAccess;
  return S_OK;
}

ULONGLONG CArchiveImpl::GetArchiveSize() {
  CGuard guard(m_section);
  return m_settings.ullArchiveSize;
}

ULONGLONG CArchiveImpl::GetOpenHoursSize() {
  CGuard guard(m_section);
  return m_ullOpenHoursSize;
}

// The shared read-write objects in the table (the records written to).
std::vector<NSCom::CComPtr<IRecord>> CArchiveImpl::OpenWriters() {
  std::vector<NSCom::CComPtr<IRecord>> v;
  CGuard guard(m_section);
  for (const auto& entry : m_records)
    if ((entry.second.dwMode & 0x3) == 0x3) v.push_back(entry.second.pRecord);
  return v;
}

// ---- The pass -------------------------------------------------------------------------------------

// A full volume cannot wait for the period: a recorder would lose up to a period of frames. The
// worker runs its pass at once; a wake that comes while a pass runs gives one more pass right after
// it, which sees the space the failed write wanted.
STDMETHODIMP_(void) CArchiveImpl::OnOutOfSpace() {
  if (m_pWorker) m_pWorker->Wake();
}

void CArchiveImpl::SizeAndQuotaPass() {
  // Released last of all: when the pass held the archive's last records, the archive goes here and
  // nothing after touches it.
  NSCom::CComPtr<IUnknown> pSelf(GetUnknown());
  // A pass already running (the worker's, or one asked for meanwhile) makes this one a no-op.
  if (m_lBusy.exchange(1)) return;
  bool bFreed;
  {
    CGuard guard(m_section);
    bFreed = HasState(klStateLocked);
  }
  if (!bFreed) {
    SizeScan();
    CheckQuota();
  }
  m_lBusy.exchange(0);
}

void CArchiveImpl::SizeScan() {
  WString strPath;
  {
    CGuard guard(m_section);
    strPath = m_strPath;
  }
  if (strPath.empty()) return;
  const std::vector<NSCom::CComPtr<IRecord>> vWriters = OpenWriters();
  auto stop = [this] { return m_pWorker && m_pWorker->IsStopRequested(); };
  ULONGLONG ullOpenHours = 0;
  for (IRecord* pRecord : vWriters) {
    if (stop()) break;
    if (auto pInternal = Internal(pRecord)) ullOpenHours += pInternal->GetCurrentHourSize();
  }
  ULONGLONG ullArchive = 0;
  bool bStopped = false;
  for (IRecord* pRecord : vWriters) ullArchive += TreeSize(RecordPath(pRecord), stop, &bStopped);
  if (bStopped) return;  // a partial sum is no size
  CGuard guard(m_section);
  m_ullOpenHoursSize = ullOpenHours;
  m_settings.ullArchiveSize = ullArchive;
}

HRESULT CArchiveImpl::CheckQuota() {
  WString strPath;
  SArchiveSettings settings;
  {
    CGuard guard(m_section);
    strPath = m_strPath;
    settings = m_settings;
  }
  if (strPath.empty()) return khrInvalidState;
  if (settings.dwAccess & kdwAccessNoRetention) return khrNotEnoughQuota;
  // Each pass frees somewhat more than the bare excess, so that the next write does not trip the
  // limit again at once.
  const LONGLONG llMargin = settings.ullArchiveSize >= kullLargeArchive
                                ? static_cast<LONGLONG>(settings.ullArchiveSize / 100)
                                : kllSmallMargin;
  LONG lExceeded = 0;
  LONGLONG llNeedFree = 0;
  LONGLONG llNeedSize = 0;
  ULONGLONG ullFree = 0;
  if (settings.ullMinimumFreeDiskSpace &&
      SUCCEEDED(NSPlatform::GetFreeDiskSpace(strPath.c_str(), &ullFree, nullptr, nullptr))) {
    llNeedFree = static_cast<LONGLONG>(settings.ullMinimumFreeDiskSpace) - static_cast<LONGLONG>(ullFree) + llMargin;
    if (llNeedFree > 0) lExceeded = 1;
  }
  if (settings.ullMaximumArchiveSize) {
    llNeedSize =
        llMargin - static_cast<LONGLONG>(settings.ullMaximumArchiveSize) + static_cast<LONGLONG>(settings.ullArchiveSize);
    if (llNeedSize > 0) lExceeded = 1;
  }
  LONG lHourLimit = 0;
  if (settings.lMaximumArchiveHours) {
    for (IRecord* pRecord : OpenWriters()) {
      auto pInternal = Internal(pRecord);
      if (pInternal && static_cast<LONGLONG>(pInternal->GetHourCount()) > settings.lMaximumArchiveHours) lExceeded = 1;
    }
    if (lExceeded) lHourLimit = settings.lMaximumArchiveHours;
  }
  m_lQuotaExceeded.exchange(lExceeded);
  if (!lExceeded) return S_FALSE;
  return RemoveOldests(std::max(llNeedFree, llNeedSize), lHourLimit);
}

namespace {

// One record during a deletion: its objects and the next hour it may lose ("" when none is left).
struct SRemovalRecord {
  NSCom::CComPtr<IRecord> pRecord;
  NSCom::CComPtr<IRecordInternal> pInternal;
};

// Deletes hours of records and adds up what they took on disk.
class CHourRemover {
 public:
  // Deletes strHour ("" does nothing) of pRecord; a refusal is reported and not counted.
  void Delete(IRecord* pRecord, const WString& strHour) {
    if (strHour.empty()) return;
    FILETIME ft = {0, 0};
    int nYear = 0, nMonth = 0, nDay = 0, nHour = 0;
    if (NSKronvaleUtils::ScanHourPath(strHour, &nYear, &nMonth, &nDay, &nHour) == 4) {
      const SYSTEMTIME st = {static_cast<WORD>(nYear), static_cast<WORD>(nMonth), 0, static_cast<WORD>(nDay),
                             static_cast<WORD>(nHour), 0, 0, 0};
      NSPlatform::SysTimeToFileTime(&st, &ft);
    }
    const WString strDirectory = NSPlatform::CombinePath(RecordPath(pRecord), strHour);
    const ULONGLONG ullSize = HourSize(strDirectory);
    const HRESULT hr = pRecord->RemoveHour(ft);
    if (FAILED(hr)) {
      KV_LOG_WARNING(KV_W("Failed to delete hour '%s' (0x%X)\n"), strDirectory.c_str(), static_cast<unsigned>(hr));
      return;
    }
    ++m_cDeleted;
    m_llFreed += static_cast<LONGLONG>(ullSize);
  }
  LONGLONG Freed() const { return m_llFreed; }
  unsigned Deleted() const { return m_cDeleted; }

 private:
  LONGLONG m_llFreed = 0;
  unsigned m_cDeleted = 0;
};

// Byte phase: the oldest hour of the whole archive first, whichever record holds it, until
// llBytesToFree bytes went or no record has an hour left to lose. The queue holds each record's
// next hour; between records at the same hour, the one that reached it last goes first, then the
// order of the table.
void FreeOldestBytes(const std::vector<SRemovalRecord>& vRecords, LONGLONG llBytesToFree, CHourRemover& remover) {
  struct SNext {
    WString strHour;
    LONGLONG llTie;
    size_t nRecord;
    bool operator>(const SNext& other) const {
      return std::tie(strHour, llTie) > std::tie(other.strHour, other.llTie);
    }
  };
  std::priority_queue<SNext, std::vector<SNext>, std::greater<SNext>> queue;
  for (size_t i = 0; i < vRecords.size(); ++i) {
    WString strHour = NextDeletableHour(vRecords[i].pInternal, WString());
    if (!strHour.empty()) queue.push({std::move(strHour), static_cast<LONGLONG>(i), i});
  }
  LONGLONG llReached = 0;
  while (!queue.empty()) {
    SNext next = queue.top();
    queue.pop();
    const SRemovalRecord& record = vRecords[next.nRecord];
    remover.Delete(record.pRecord, next.strHour);
    WString strAfter = NextDeletableHour(record.pInternal, next.strHour);
    if (!strAfter.empty()) queue.push({std::move(strAfter), --llReached, next.nRecord});
    if (remover.Freed() >= llBytesToFree) break;
  }
}

// Hour-count phase: each record down to lHourLimit hours, oldest hours first; a record that stays
// above the limit (its hours being written) is reported.
void TrimHourCounts(const std::vector<SRemovalRecord>& vRecords, LONG lHourLimit, CHourRemover& remover) {
  for (const SRemovalRecord& record : vRecords) {
    WString strHour = NextDeletableHour(record.pInternal, WString());
    while (!strHour.empty() && static_cast<LONGLONG>(record.pInternal->GetHourCount()) > lHourLimit) {
      remover.Delete(record.pRecord, strHour);
      strHour = NextDeletableHour(record.pInternal, strHour);
    }
    const DWORD cHours = record.pInternal->GetHourCount();
    // frozen text: "containig" is spelled so on purpose
    if (static_cast<LONGLONG>(cHours) > lHourLimit)
      KV_LOG_WARNING(KV_W("Per record hour count limit of %d hours was exceeded for record '%s' currently containig %d hours\n"),
                     static_cast<int>(lHourLimit), RecordPath(record.pRecord).c_str(), static_cast<int>(cHours));
  }
}

}  // namespace

HRESULT CArchiveImpl::RemoveOldests(LONGLONG llBytesToFree, LONG lHourLimit) {
  WString strPath;
  {
    CGuard guard(m_section);
    // A partition's space is its multipart archive's business.
    if ((llBytesToFree <= 0 && lHourLimit <= 0) || m_pOwner) return S_FALSE;
    strPath = m_strPath;
  }
  if (strPath.empty()) return S_FALSE;
  std::vector<SRemovalRecord> vRecords;
  for (IRecord* pRecord : OpenWriters())
    if (auto pInternal = Internal(pRecord)) vRecords.push_back({pRecord, pInternal});

  CHourRemover remover;
  // An archive over its limit without a record written to has nothing to delete: a failed check.
  if (KV_ASSERT_TEXT(!vRecords.empty(), "vPendingHours.size()\n")) {
    if (llBytesToFree > 0) {
      FreeOldestBytes(vRecords, llBytesToFree, remover);
      if (remover.Freed() > 0 && remover.Freed() < llBytesToFree)
        KV_LOG_WARNING(KV_W("%d MB out of requested %d MB were freed for archive '%s'\n"),
                       static_cast<int>(remover.Freed() / kllMiB), static_cast<int>(llBytesToFree / kllMiB),
                       strPath.c_str());
    }
    if (lHourLimit) TrimHourCounts(vRecords, lHourLimit, remover);
  }
  HRESULT hr = S_OK;
  if (!remover.Deleted()) {
    hr = khrNothingDeleted;
  } else if (remover.Freed()) {
    m_lQuotaExceeded.exchange(remover.Freed() < llBytesToFree ? 1 : 0);
  }
  KV_REPORT_IF_FAILED(hr);
  return hr;
}

// ---- Flushing -------------------------------------------------------------------------------------

void CArchiveImpl::FlushRecords() {
  NSCom::CComPtr<IUnknown> pSelf(GetUnknown());  // released last, as in SizeAndQuotaPass
  bool bFull = false;
  for (IRecord* pRecord : OpenWriters()) {
    if (auto pInternal = Internal(pRecord)) {
      const HRESULT hr = pInternal->FlushCurrentHour();
      bFull = bFull || hr == khrDiskFull || hr == khrHandleDiskFull;
    }
  }
  if (bFull) OnOutOfSpace();
}

void CArchiveImpl::StartFlusher(DWORD dwFlushTimeout) {
  std::lock_guard<std::mutex> lock(m_flusherMutex);
  if (m_pFlusher && m_dwFlusherPeriod == dwFlushTimeout) return;
  LetThreadGo(m_pFlusher, m_pFlusherCell);
  m_dwFlusherPeriod = dwFlushTimeout;
  if (!dwFlushTimeout) return;
  m_pFlusher = NSSystem::CThread::Create();
  if (!m_pFlusher) return;
  m_pFlusherCell = std::make_shared<SThreadCell>();
  const HRESULT hr = NSSystem::StartPeriodic(m_pFlusher, {0, dwFlushTimeout},
                                             [this, pCell = m_pFlusherCell] { FlushRecords(); });
  KV_REPORT_IF_FAILED(hr);
}

void CArchiveImpl::StopFlusher() {
  std::lock_guard<std::mutex> lock(m_flusherMutex);
  LetThreadGo(m_pFlusher, m_pFlusherCell);
  m_dwFlusherPeriod = 0;
}

}  // namespace NSArchive
