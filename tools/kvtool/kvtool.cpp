// kvtool: Kronvale from the command line. The client verbs load the library beside the tool
// (kronvale.dll, or libkronvale.so on Linux) exactly as a recorder would, through DllGetClassObject
// and the public interfaces only; verify and repair read the hour files directly and repair them
// with the engine's own hour repair, as a maintenance tool may. `kvtool --help` lists the verbs.
#include <kronvale/kronvale.h>
#include <kronvale/KronvaleClient.h>
#include <kronvale/KronvaleResults.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Maintenance.h"
#include "Timeline.h"
#include "ToolArgs.h"
#include "platform/os.h"
#ifdef KV_WITH_VIDEO
#include "Video.h"
#endif

using namespace NSTool;
using NSKronvale::CBstr;
using NSKronvale::CPtr;
using NSKronvale::CTaskBuffers;

namespace {

constexpr char kszVersion[] = "kvtool 0.1.0";

using PFNGETCLASSOBJECT = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);

// ---- Small owners -------------------------------------------------------------------------------

// A BSTR from UTF-8 text, for one call.
CBstr Bstr(const std::string& str) { return CBstr(NSPlatform::Utf8ToWide(str)); }

// A failed call as a person reads it: what was being done, the system's text and the HRESULT.
void Check(HRESULT hr, const std::string& strWhat) {
  if (FAILED(hr)) throw CToolError(ExitCodeOf(hr), strWhat + ": " + DescribeResult(hr));
}

ULONGLONG Now() {
  FILETIME ft;
  NSPlatform::GetUtcFileTime(&ft);
  return NSPlatform::FileTimeToU64(ft);
}

FILETIME Ft(ULONGLONG ull) { return NSPlatform::U64ToFileTime(ull); }
ULONGLONG Ticks(const FILETIME& ft) { return NSPlatform::FileTimeToU64(ft); }
std::string Quote(const std::string& str) { return "'" + str + "'"; }
WString Wide(const std::string& str) { return NSPlatform::Utf8ToWide(str); }
std::string Utf8(const WString& str) { return NSPlatform::WideToUtf8(str); }

std::string Size(ULONGLONG ullBytes, bool bExact) {
  return bExact ? std::to_string(ullBytes) + " bytes" : FormatSize(ullBytes);
}

// Progress of long work on stderr, only when stderr is a terminal (a person watching), so that
// scripts and tests see nothing of it. One line, rewritten in place, cleared at the end.
bool StderrIsTerminal();

class CProgress {
 public:
  CProgress(const char* pszWhat, ULONGLONG cTotal) : m_pszWhat(pszWhat), m_cTotal(cTotal), m_bShow(StderrIsTerminal()) {}
  ~CProgress() {
    if (m_bShow && m_bShown) std::fprintf(stderr, "\r%60s\r", "");
  }
  void Step(ULONGLONG cDone) {
    if (!m_bShow || m_cTotal == 0) return;
    const ULONGLONG ullNow = NSPlatform::GetTickCount64();
    if (m_bShown && ullNow - m_ullLast < 200) return;
    m_ullLast = ullNow;
    m_bShown = true;
    std::fflush(stdout);
    std::fprintf(stderr, "\r%s: %llu of %llu (%llu%%)   ", m_pszWhat, static_cast<unsigned long long>(cDone),
                 static_cast<unsigned long long>(m_cTotal), static_cast<unsigned long long>(cDone * 100 / m_cTotal));
    std::fflush(stderr);
  }

 private:
  const char* m_pszWhat;
  ULONGLONG m_cTotal;
  bool m_bShow;
  bool m_bShown = false;
  ULONGLONG m_ullLast = 0;
};

// A record name as the archive keeps it: one directory name, no separators, no "..", no NUL.
void CheckRecordName(const std::string& strName) {
  if (strName.empty() || strName == "." || strName == ".." || strName.find_first_of("/\\:") != std::string::npos ||
      strName.find('\0') != std::string::npos)
    throw CToolError(ketUsage, "RECORD: " + Quote(strName) + " is not a record name (one directory name, no separators)");
}

// ---- The library and its archives --------------------------------------------------------------

class CKronvale {
 public:
  CKronvale() {
    HMODULE hModule = nullptr;
    Check(NSPlatform::LoadDynamicLibrary(KV_W("kronvale.dll"), &hModule), "loading the Kronvale library");
    auto pfn = reinterpret_cast<PFNGETCLASSOBJECT>(NSPlatform::GetLibrarySymbol(hModule, "DllGetClassObject"));
    if (!pfn) throw CToolError(ketFailure, "loading the Kronvale library: it has no DllGetClassObject");
    Check(pfn(CLSID_Kronvale, IID_IArchiveFactory, reinterpret_cast<void**>(&m_pFactory)),
          "getting the archive factory");
  }
  IArchiveFactory* Factory() const { return m_pFactory.p; }

 private:
  CPtr<IArchiveFactory> m_pFactory;
};

// Says what is at strPath when it is not an archive the tool can open: nothing, or a directory
// without the archive's settings file. A file is a multipart archive, which the engine checks.
void CheckIsArchive(const std::string& strPath) {
  const WString strWide = Wide(strPath);
  if (!NSPlatform::PathExists(strWide.c_str()))
    throw CToolError(ketNotFound, "opening archive " + Quote(strPath) + ": there is no such file or directory");
  if (!NSPlatform::IsDirectory(strWide.c_str())) return;  // a file: a multipart archive, the engine checks it
  if (!NSPlatform::PathExists(NSPlatform::CombinePath(strWide, KV_W("settings.als")).c_str()))
    throw CToolError(ketNotFound, "opening archive " + Quote(strPath) +
                                      ": the directory is not a Kronvale archive (it holds no settings.als)");
}

// An open archive, freed when the verb ends.
class CArchive {
 public:
  CArchive(CKronvale& kronvale, const std::string& strPath, bool bCreate) : m_strPath(strPath) {
    const WString strWide = Wide(strPath);
    if (bCreate && !NSPlatform::PathExists(strWide.c_str())) {
      Check(kronvale.Factory()->CreateArchive(Bstr(strPath), &m_p), "creating archive " + Quote(strPath));
      return;
    }
    CheckIsArchive(strPath);
    Check(kronvale.Factory()->OpenArchive(Bstr(strPath), &m_p), "opening archive " + Quote(strPath));
  }
  ~CArchive() {
    if (m_p.p) m_p->Free();
  }
  IKronvale* operator->() const { return m_p.p; }
  const std::string& Path() const { return m_strPath; }
  WString RecordPath(const std::string& strRecord) const { return NSPlatform::CombinePath(Wide(m_strPath), Wide(strRecord)); }

  // A reader (bWriter false) or the writer of an existing record; a writer of a new one with bCreate.
  void OpenRecord(const std::string& strRecord, bool bWriter, IRecord** ppRecord, bool bCreate = false) {
    CheckRecordName(strRecord);
    if (!bCreate && !NSPlatform::IsDirectory(RecordPath(strRecord).c_str()))
      throw CToolError(ketNotFound, "opening record " + Quote(strRecord) + ": archive " + Quote(m_strPath) +
                                        " has no such record");
    const std::string strWhat = "opening record " + Quote(strRecord) + " of archive " + Quote(m_strPath);
    if (bWriter) Check(m_p->CreateRecord(Bstr(strRecord), ppRecord), strWhat);
    else Check(m_p->OpenRecord(Bstr(strRecord), ppRecord), strWhat);
  }

  std::vector<std::string> Records() {
    BSTR* pNames = nullptr;
    DWORD cNames = 0;
    Check(m_p->GetRecords(&pNames, &cNames), "listing the records of archive " + Quote(m_strPath));
    std::vector<std::string> v;
    for (DWORD i = 0; i < cNames; ++i) {
      v.push_back(Utf8(WString(pNames[i], SysStringLen(pNames[i]))));
      SysFreeString(pNames[i]);
    }
    CoTaskMemFree(pNames);
    std::sort(v.begin(), v.end());
    return v;
  }

 private:
  std::string m_strPath;
  CPtr<IKronvale> m_p;
};

// ---- Frames -------------------------------------------------------------------------------------

std::string ReadWhat(const std::string& strRecord, ULONGLONG ullTime) {
  return "reading the frame at " + FormatTime(ullTime) + " of record " + Quote(strRecord);
}

// Reads every buffer of the frame at ullTime: the record answers khrInsufficientBuffer when asked
// for more buffers than the frame has and accepts fewer, so the count is found by doubling and
// halving. A frame of no buffers reads as its flags alone.
HRESULT ReadWholeFrame(IRecord* pRecord, ULONGLONG ullTime, DWORD* pdwFlags, CTaskBuffers* pBuffers) {
  auto tryRead = [&](DWORD dwCount) {
    pBuffers->Reset(dwCount);
    const HRESULT hr = pRecord->Read(Ft(ullTime), pdwFlags, pBuffers->data(), dwCount);
    if (FAILED(hr)) pBuffers->Abandon();
    return hr;
  };
  DWORD dwGood = 0, dwBad = 1;  // dwGood buffers read, dwBad too many
  for (;;) {
    const HRESULT hr = tryRead(dwBad);
    if (hr == NSKronvale::khrInsufficientBuffer) break;
    if (FAILED(hr)) return hr;
    dwGood = dwBad;
    if (dwBad >= 0x8000000u) break;
    dwBad *= 2;
  }
  while (dwBad - dwGood > 1) {
    const DWORD dwMid = dwGood + (dwBad - dwGood) / 2;
    const HRESULT hr = tryRead(dwMid);
    if (hr == NSKronvale::khrInsufficientBuffer) dwBad = dwMid;
    else if (FAILED(hr)) return hr;
    else dwGood = dwMid;
  }
  const HRESULT hr = tryRead(dwGood);
  return FAILED(hr) ? hr : S_OK;
}

std::string Hex(const BYTE* pb, DWORD cb) {
  static const char s_szDigits[] = "0123456789abcdef";
  std::string str;
  str.reserve(cb * 2);
  for (DWORD i = 0; i < cb; ++i) {
    str += s_szDigits[pb[i] >> 4];
    str += s_szDigits[pb[i] & 15];
  }
  return str;
}

std::string Printable(const BYTE* pb, DWORD cb, DWORD cbMax) {
  std::string str;
  for (DWORD i = 0; i < cb && i < cbMax; ++i) str += pb[i] >= 32 && pb[i] < 127 ? static_cast<char>(pb[i]) : '.';
  if (cb > cbMax) str += "...";
  return str;
}

// The first frame at or after ullFrom passing pFilter; false when none up to ullTo. GetNext
// answers frames strictly after a slot, so the search starts just before ullFrom's 10 ms slot.
bool FirstFrame(IRecord* pRecord, ULONGLONG ullFrom, ULONGLONG ullTo, const SFrameFilter* pFilter,
                const std::string& strWhat, ULONGLONG* pullFound) {
  ULONGLONG ull = ullFrom / 100000 * 100000;
  FILETIME ft = Ft(ull == 0 ? 0 : ull - 1);
  for (;;) {
    const HRESULT hr = pRecord->GetNext(ft, pFilter, &ft);
    if (hr == NSKronvale::khrNotFound) return false;
    Check(hr, strWhat);
    if (Ticks(ft) > ullTo) return false;
    if (Ticks(ft) >= ullFrom) break;
  }
  *pullFound = Ticks(ft);
  return true;
}

bool NextFrame(IRecord* pRecord, ULONGLONG ullAfter, ULONGLONG ullTo, const SFrameFilter* pFilter,
               const std::string& strWhat, ULONGLONG* pullFound) {
  FILETIME ft;
  const HRESULT hr = pRecord->GetNext(Ft(ullAfter), pFilter, &ft);
  if (hr == NSKronvale::khrNotFound) return false;
  Check(hr, strWhat);
  if (Ticks(ft) > ullTo) return false;
  *pullFound = Ticks(ft);
  return true;
}

// The runs of GetStatistic; empty when the period holds no frame.
std::vector<SRecordStatistic> Statistic(IRecord* pRecord, ULONGLONG ullFrom, ULONGLONG ullTo, ULONGLONG ullResolution,
                                        const SFrameFilter* pFilter, LONG lFlags, const std::string& strWhat) {
  DWORD dwCount = 0;
  SRecordStatistic* pRuns = nullptr;
  const HRESULT hr = pRecord->GetStatistic(Ft(ullFrom), Ft(ullTo), Ft(ullResolution), pFilter, lFlags, &dwCount, &pRuns);
  std::vector<SRecordStatistic> v;
  if (hr == NSKronvale::khrNotFound || hr == NSKronvale::khrFileNotFound) return v;
  Check(hr, strWhat);
  v.assign(pRuns, pRuns + dwCount);
  CoTaskMemFree(pRuns);
  return v;
}

// ---- Options shared by the verbs ------------------------------------------------------------------

// The frames a key-frame search accepts: flag 0x1, as recorders mark them.
constexpr SFrameFilter kKeyFrames = {0x1, efmAny};

struct SFilterOptions {
  std::string strMask, strMode;
  bool bKey = false;  // --key: shorthand for --mask 0x1
  bool Given() const { return bKey || !strMask.empty() || !strMode.empty(); }
  SFrameFilter Get() const {
    SFrameFilter filter = {0, efmAny};
    if (bKey) {
      if (!strMask.empty() || !strMode.empty()) throw CToolError(ketUsage, "--key is --mask 0x1: give one or the other");
      return kKeyFrames;
    }
    if (strMask.empty() && !strMode.empty()) throw CToolError(ketUsage, "--mode needs --mask");
    if (!strMask.empty()) filter.dwMask = static_cast<DWORD>(ParseNumber(strMask, 0, 0xFFFFFFFFu, "--mask"));
    if (!strMode.empty()) filter.eMode = ParseMode(strMode, "--mode");
    return filter;
  }
  void Add(CLI::App* pApp) {
    pApp->add_option("--mask", strMask, "flag bits of the filter (decimal or 0x hex)");
    pApp->add_option("--mode", strMode, "any (default), all, exact or none");
  }
};

struct SPeriodOptions {
  std::string strFrom, strTo;
  void Add(CLI::App* pApp, bool bRequired) {
    auto* pFrom = pApp->add_option("--from", strFrom, "start of the period (2021-03-07T12:00Z, 2021-03-07, -2h, now)");
    auto* pTo = pApp->add_option("--to", strTo, "end of the period, included (default: now)");
    if (bRequired) pFrom->required();
    (void)pTo;
  }
  // [from, to]; without --from the beginning of time, without --to the end of time.
  void Get(ULONGLONG ullNow, ULONGLONG* pullFrom, ULONGLONG* pullTo) const {
    *pullFrom = strFrom.empty() ? 0 : ParseTime(strFrom, ullNow, "--from");
    *pullTo = strTo.empty() ? kullLastTime : ParseTime(strTo, ullNow, "--to");
    CheckPeriod(*pullFrom, *pullTo);
  }
};

// ---- info and du ------------------------------------------------------------------------------------

struct SRecordSummary {
  std::string strName;
  ULONGLONG cFrames = 0;
  bool bAny = false;
  ULONGLONG ullFirst = 0, ullLast = 0;
  size_t cHours = 0;
  ULONGLONG ullBytes = 0;
  std::map<std::string, ULONGLONG> mapDayBytes;  // YYYY-MM-DD -> bytes
};

SRecordSummary SummariseRecord(CArchive& archive, const std::string& strRecord, bool bFrames) {
  SRecordSummary summary;
  summary.strName = strRecord;
  const WString strRecordPath = archive.RecordPath(strRecord);
  std::vector<SHourDir> vHours;
  Check(ListHours(strRecordPath, 0, kullLastTime, &vHours), "listing the hours of record " + Quote(strRecord));
  summary.cHours = vHours.size();
  summary.ullBytes = MeasureTree(strRecordPath);
  for (const auto& hour : vHours) summary.mapDayBytes[FormatTime(hour.ullStart).substr(0, 10)] += MeasureTree(hour.strPath);
  if (!bFrames) return summary;
  CPtr<IRecord> pRecord;
  archive.OpenRecord(strRecord, false, &pRecord);
  const std::string strWhat = "walking record " + Quote(strRecord);
  FILETIME ft;
  HRESULT hr = pRecord->GetNext(Ft(0), nullptr, &ft);
  if (hr == NSKronvale::khrNotFound) return summary;
  Check(hr, strWhat);
  summary.ullFirst = Ticks(ft);
  Check(pRecord->GetPrev(Ft(kullLastTime), nullptr, &ft), strWhat);
  summary.ullLast = Ticks(ft);
  summary.bAny = true;
  // A day's resolution joined without gaps: each run's count adds up to the record's frames.
  for (const auto& run : Statistic(pRecord.p, summary.ullFirst, summary.ullLast, kullTicksPerDay, nullptr, 4, strWhat))
    summary.cFrames += run.dwCount;
  return summary;
}

// An archive without a free-space limit stops recording when its volume fills, where one with a
// limit deletes its oldest hours and goes on: say so while there is still room to act.
void WarnWithoutFreeSpaceLimit(const std::string& strPath, const SArchiveInfo& info) {
  if (info.ullMinimumFreeDiskSpace) return;
  ULONGLONG ullFree = 0, ullTotal = 0;
  if (FAILED(NSPlatform::GetFreeDiskSpace(Wide(strPath).c_str(), &ullFree, &ullTotal, nullptr)) || !ullTotal) return;
  const ULONGLONG ullUsedPercent = (ullTotal - std::min(ullFree, ullTotal)) * 100 / ullTotal;
  if (ullUsedPercent <= 90) return;
  std::fprintf(stderr,
               "kvtool: warning: archive %s has no free-space limit and its volume is %llu%% full; when the disk "
               "is full, recording stops. Set one: kvtool set %s --quota-free 2G\n",
               Quote(strPath).c_str(), static_cast<unsigned long long>(ullUsedPercent), Quote(strPath).c_str());
}

int Info(CKronvale& kronvale, const std::string& strPath, const std::string& strRecord, bool bJson, bool bBytes) {
  CArchive archive(kronvale, strPath, false);
  SArchiveInfo info = {};
  Check(archive->GetInfo(&info), "reading the settings of archive " + Quote(strPath));
  SArchiveQuota quota = {};
  {
    CPtr<IKronvaleQuota> pQuota;
    if (SUCCEEDED(archive->QueryInterface(IID_IKronvaleQuota, reinterpret_cast<void**>(&pQuota))))
      Check(pQuota->GetArchiveQuota(&quota), "reading the quota of archive " + Quote(strPath));
  }
  std::vector<std::string> vRecords;
  if (strRecord.empty()) {
    vRecords = archive.Records();
  } else {
    CheckRecordName(strRecord);
    vRecords.push_back(strRecord);
  }
  std::vector<SRecordSummary> vSummaries;
  for (const auto& strName : vRecords) vSummaries.push_back(SummariseRecord(archive, strName, true));
  const ULONGLONG ullSize = MeasureTree(Wide(strPath));
  WarnWithoutFreeSpaceLimit(strPath, info);
  if (bJson) {
    std::printf("{\"archive\":%s,\"bytes_on_disk\":%llu,\"free_disk_space\":%llu,\"minimum_free_disk_space\":%llu,"
                "\"maximum_archive_size\":%llu,\"maximum_hours\":%ld,\"flush_timeout_ms\":%u,\"records\":[",
                JsonString(strPath).c_str(), static_cast<unsigned long long>(ullSize),
                static_cast<unsigned long long>(info.ullFreeDiskSpace),
                static_cast<unsigned long long>(info.ullMinimumFreeDiskSpace),
                static_cast<unsigned long long>(info.ullMaximumArchiveSize), static_cast<long>(quota.lMaximumArchiveHours),
                static_cast<unsigned>(info.dwFlushTimeout));
    for (size_t i = 0; i < vSummaries.size(); ++i) {
      const auto& s = vSummaries[i];
      std::printf("%s{\"name\":%s,\"frames\":%llu,\"first\":%s,\"last\":%s,\"hours\":%zu,\"bytes_on_disk\":%llu}",
                  i ? "," : "", JsonString(s.strName).c_str(), static_cast<unsigned long long>(s.cFrames),
                  s.bAny ? JsonString(FormatTime(s.ullFirst, true)).c_str() : "null",
                  s.bAny ? JsonString(FormatTime(s.ullLast, true)).c_str() : "null", s.cHours,
                  static_cast<unsigned long long>(s.ullBytes));
    }
    std::printf("]}\n");
    return ketSuccess;
  }
  std::printf("archive            %s\n", strPath.c_str());
  std::printf("size on disk       %s (measured now)\n", Size(ullSize, bBytes).c_str());
  std::printf("free on the volume %s\n", Size(info.ullFreeDiskSpace, bBytes).c_str());
  std::printf("keep free          %s\n", info.ullMinimumFreeDiskSpace ? Size(info.ullMinimumFreeDiskSpace, bBytes).c_str()
                                                                    : "no limit (recording stops when the disk is full: "
                                                                      "kvtool set ARCHIVE --quota-free 2G)");
  std::printf("maximum size       %s\n", info.ullMaximumArchiveSize ? Size(info.ullMaximumArchiveSize, bBytes).c_str() : "no limit");
  std::printf("hours per record   %s\n", quota.lMaximumArchiveHours > 0 ? std::to_string(quota.lMaximumArchiveHours).c_str() : "no limit");
  std::printf("flush timeout      %s\n", info.dwFlushTimeout ? (std::to_string(info.dwFlushTimeout) + " ms").c_str() : "0 (writes through)");
  std::printf("records            %zu\n", vSummaries.size());
  for (const auto& s : vSummaries) {
    std::printf("\nrecord %s\n", s.strName.c_str());
    std::printf("  frames  %llu in %zu hours, %s on disk\n", static_cast<unsigned long long>(s.cFrames), s.cHours,
                Size(s.ullBytes, bBytes).c_str());
    if (s.bAny) std::printf("  first   %s\n  last    %s\n", FormatTime(s.ullFirst).c_str(), FormatTime(s.ullLast).c_str());
  }
  return ketSuccess;
}

int Du(CKronvale& kronvale, const std::string& strPath, bool bJson, bool bBytes) {
  CArchive archive(kronvale, strPath, false);
  std::vector<SRecordSummary> vSummaries;
  for (const auto& strName : archive.Records()) vSummaries.push_back(SummariseRecord(archive, strName, false));
  const ULONGLONG ullSize = MeasureTree(Wide(strPath));
  if (bJson) {
    std::printf("{\"archive\":%s,\"bytes\":%llu,\"records\":[", JsonString(strPath).c_str(),
                static_cast<unsigned long long>(ullSize));
    for (size_t i = 0; i < vSummaries.size(); ++i) {
      std::printf("%s{\"name\":%s,\"bytes\":%llu,\"days\":{", i ? "," : "", JsonString(vSummaries[i].strName).c_str(),
                  static_cast<unsigned long long>(vSummaries[i].ullBytes));
      bool bFirst = true;
      for (const auto& [strDay, ullBytes] : vSummaries[i].mapDayBytes) {
        std::printf("%s%s:%llu", bFirst ? "" : ",", JsonString(strDay).c_str(), static_cast<unsigned long long>(ullBytes));
        bFirst = false;
      }
      std::printf("}}");
    }
    std::printf("]}\n");
    return ketSuccess;
  }
  for (const auto& s : vSummaries) {
    std::printf("%12s  %s\n", Size(s.ullBytes, bBytes).c_str(), s.strName.c_str());
    for (const auto& [strDay, ullBytes] : s.mapDayBytes)
      std::printf("%12s    %s\n", Size(ullBytes, bBytes).c_str(), strDay.c_str());
  }
  std::printf("%12s  total\n", Size(ullSize, bBytes).c_str());
  return ketSuccess;
}

// ---- verify and repair ------------------------------------------------------------------------------

// The records to check: the one named, or every record of the archive (found on disk: a
// maintenance verb does not need the library).
std::vector<std::string> RecordsToCheck(const std::string& strPath, const std::string& strRecord) {
  CheckIsArchive(strPath);
  std::vector<std::string> v;
  if (!strRecord.empty()) {
    CheckRecordName(strRecord);
    if (!NSPlatform::IsDirectory(NSPlatform::CombinePath(Wide(strPath), Wide(strRecord)).c_str()))
      throw CToolError(ketNotFound, "checking record " + Quote(strRecord) + ": archive " + Quote(strPath) +
                                        " has no such record");
    v.push_back(strRecord);
    return v;
  }
  std::vector<WString> vNames;
  Check(ListRecords(Wide(strPath), &vNames), "listing the records of archive " + Quote(strPath));
  for (const auto& str : vNames) v.push_back(Utf8(str));
  return v;
}

int Verify(const std::string& strPath, const std::string& strRecord, const SPeriodOptions& period, bool bJson) {
  ULONGLONG ullFrom, ullTo;
  period.Get(Now(), &ullFrom, &ullTo);
  const auto vRecords = RecordsToCheck(strPath, strRecord);
  std::vector<std::vector<SHourDir>> vvHours(vRecords.size());
  ULONGLONG cAllHours = 0;
  for (size_t i = 0; i < vRecords.size(); ++i) {
    Check(ListHours(NSPlatform::CombinePath(Wide(strPath), Wide(vRecords[i])), ullFrom, ullTo, &vvHours[i]),
          "listing the hours of record " + Quote(vRecords[i]));
    cAllHours += vvHours[i].size();
  }
  CProgress progress("verifying hours", cAllHours);
  ULONGLONG cHours = 0, cFrames = 0, cCorrupt = 0;
  if (bJson) std::printf("{\"archive\":%s,\"corrupt\":[", JsonString(strPath).c_str());
  for (size_t i = 0; i < vRecords.size(); ++i) {
    const std::string& strName = vRecords[i];
    for (const auto& hour : vvHours[i]) {
      progress.Step(cHours);
      const SHourCheck check = CheckHour(hour);
      ++cHours;
      cFrames += check.cFrames;
      if (!check.bCorrupt) continue;
      if (bJson)
        std::printf("%s{\"record\":%s,\"hour\":%s,\"reason\":%s}", cCorrupt ? "," : "", JsonString(strName).c_str(),
                    JsonString(FormatTime(hour.ullStart)).c_str(), JsonString(check.strReason).c_str());
      else
        std::printf("CORRUPT %s hour %s (%s): %s\n", strName.c_str(), FormatTime(hour.ullStart).c_str(),
                    Utf8(hour.strRelative).c_str(), check.strReason.c_str());
      ++cCorrupt;
    }
  }
  if (bJson)
    std::printf("],\"records\":%zu,\"hours\":%llu,\"frames\":%llu}\n", vRecords.size(),
                static_cast<unsigned long long>(cHours), static_cast<unsigned long long>(cFrames));
  else
    std::printf("%zu records, %llu hours, %llu frames checked: %llu corrupt hours\n", vRecords.size(),
                static_cast<unsigned long long>(cHours), static_cast<unsigned long long>(cFrames),
                static_cast<unsigned long long>(cCorrupt));
  return cCorrupt ? ketCorruption : ketSuccess;
}

int Repair(const std::string& strPath, const std::string& strRecord, bool bDryRun, bool bJson) {
  const auto vRecords = RecordsToCheck(strPath, strRecord);
  ULONGLONG cRepaired = 0;
  if (bJson) std::printf("{\"archive\":%s,\"dry_run\":%s,\"hours\":[", JsonString(strPath).c_str(), bDryRun ? "true" : "false");
  for (const auto& strName : vRecords) {
    std::vector<SHourDir> vHours;
    Check(ListHours(NSPlatform::CombinePath(Wide(strPath), Wide(strName)), 0, kullLastTime, &vHours),
          "listing the hours of record " + Quote(strName));
    CProgress progress("checking hours", vHours.size());
    for (size_t k = 0; k < vHours.size(); ++k) {
      const SHourDir& hour = vHours[k];
      progress.Step(k);
      const SHourCheck check = CheckHour(hour);
      if (!check.bCorrupt) continue;
      SRepairResult result;
      if (!bDryRun) {
        std::fflush(stdout);
        Check(RepairHour(hour, &result),
              "repairing hour " + FormatTime(hour.ullStart) + " of record " + Quote(strName) + " of archive " + Quote(strPath));
      }
      if (bJson) {
        std::printf("%s{\"record\":%s,\"hour\":%s,\"reason\":%s", cRepaired ? "," : "", JsonString(strName).c_str(),
                    JsonString(FormatTime(hour.ullStart)).c_str(), JsonString(check.strReason).c_str());
        if (!bDryRun)
          std::printf(",\"frames_before\":%llu,\"frames_kept\":%llu", static_cast<unsigned long long>(result.cBefore),
                      static_cast<unsigned long long>(result.cAfter));
        std::printf("}");
      } else if (bDryRun) {
        std::printf("would repair %s hour %s: %s\n", strName.c_str(), FormatTime(hour.ullStart).c_str(), check.strReason.c_str());
      } else {
        std::printf("repaired %s hour %s: %s; %llu frames kept, %llu index entries dropped\n", strName.c_str(),
                    FormatTime(hour.ullStart).c_str(), check.strReason.c_str(), static_cast<unsigned long long>(result.cAfter),
                    static_cast<unsigned long long>(result.cBefore > result.cAfter ? result.cBefore - result.cAfter : 0));
      }
      ++cRepaired;
    }
  }
  if (bJson) std::printf("]}\n");
  else std::printf("%llu hours %s\n", static_cast<unsigned long long>(cRepaired), bDryRun ? "to repair" : "repaired");
  return ketSuccess;
}

// ---- read, next, prev, stat, write ---------------------------------------------------------------

int Read(CKronvale& kronvale, const std::string& strPath, const std::string& strRecord, ULONGLONG ullTime, bool bJson) {
  CArchive archive(kronvale, strPath, false);
  CPtr<IRecord> pRecord;
  archive.OpenRecord(strRecord, false, &pRecord);
  DWORD dwFlags = 0;
  CTaskBuffers buffers;
  Check(ReadWholeFrame(pRecord.p, ullTime, &dwFlags, &buffers), ReadWhat(strRecord, ullTime));
  if (bJson) {
    std::printf("{\"time\":%s,\"flags\":%u,\"buffers\":[", JsonString(FormatTime(ullTime, true)).c_str(),
                static_cast<unsigned>(dwFlags));
    for (size_t i = 0; i < buffers.size(); ++i)
      std::printf("%s{\"size\":%u,\"hex\":\"%s\"}", i ? "," : "", static_cast<unsigned>(buffers[i].dwDataSize),
                  Hex(buffers[i].pData, buffers[i].dwDataSize).c_str());
    std::printf("]}\n");
    return ketSuccess;
  }
  std::printf("%s flags 0x%08X, %u buffers\n", FormatTime(ullTime).c_str(), static_cast<unsigned>(dwFlags),
              static_cast<unsigned>(buffers.size()));
  for (size_t i = 0; i < buffers.size(); ++i)
    std::printf("  buffer %zu: %u bytes: %s\n", i, static_cast<unsigned>(buffers[i].dwDataSize),
                Printable(buffers[i].pData, buffers[i].dwDataSize, 64).c_str());
  return ketSuccess;
}

int Step(CKronvale& kronvale, const std::string& strPath, const std::string& strRecord, ULONGLONG ullTime, bool bNext,
         const SFilterOptions& filterOptions, bool bJson) {
  const SFrameFilter filter = filterOptions.Get();
  CArchive archive(kronvale, strPath, false);
  CPtr<IRecord> pRecord;
  archive.OpenRecord(strRecord, false, &pRecord);
  FILETIME ftFound;
  const SFrameFilter* pFilter = filterOptions.Given() ? &filter : nullptr;
  const HRESULT hr = bNext ? pRecord->GetNext(Ft(ullTime), pFilter, &ftFound) : pRecord->GetPrev(Ft(ullTime), pFilter, &ftFound);
  const std::string strWhat = std::string("finding the ") + (bNext ? "next" : "previous") + " frame " +
                              (bNext ? "after " : "before ") + FormatTime(ullTime) + " in record " + Quote(strRecord);
  if (hr == NSKronvale::khrNotFound) throw CToolError(ketNotFound, strWhat + ": there is none");
  Check(hr, strWhat);
  if (bJson) std::printf("{\"time\":%s}\n", JsonString(FormatTime(Ticks(ftFound), true)).c_str());
  else std::printf("%s\n", FormatTime(Ticks(ftFound)).c_str());
  return ketSuccess;
}

int Stat(CKronvale& kronvale, const std::string& strPath, const std::string& strRecord, const SPeriodOptions& period,
         const std::string& strResolution, const SFilterOptions& filterOptions, bool bJson) {
  ULONGLONG ullFrom, ullTo;
  period.Get(Now(), &ullFrom, &ullTo);
  const ULONGLONG ullResolution = ParseDuration(strResolution, "--resolution");
  const SFrameFilter filter = filterOptions.Get();
  CArchive archive(kronvale, strPath, false);
  CPtr<IRecord> pRecord;
  archive.OpenRecord(strRecord, false, &pRecord);
  const auto vRuns = Statistic(pRecord.p, ullFrom, ullTo, ullResolution, filterOptions.Given() ? &filter : nullptr, 0,
                               "gathering the statistic of record " + Quote(strRecord));
  if (bJson) std::printf("[");
  for (size_t i = 0; i < vRuns.size(); ++i) {
    const auto& run = vRuns[i];
    if (bJson)
      std::printf("%s{\"begin\":%s,\"end\":%s,\"flags\":%u,\"frames\":%u}", i ? "," : "",
                  JsonString(FormatTime(Ticks(run.ftBegin), true)).c_str(), JsonString(FormatTime(Ticks(run.ftEnd), true)).c_str(),
                  static_cast<unsigned>(run.dwFlags), static_cast<unsigned>(run.dwCount));
    else
      std::printf("%s .. %s  flags 0x%08X  %u frames\n", FormatTime(Ticks(run.ftBegin)).c_str(),
                  FormatTime(Ticks(run.ftEnd)).c_str(), static_cast<unsigned>(run.dwFlags), static_cast<unsigned>(run.dwCount));
  }
  if (bJson) std::printf("]\n");
  else if (vRuns.empty()) std::printf("no frames\n");
  return ketSuccess;
}

int Write(CKronvale& kronvale, const std::string& strPath, const std::string& strRecord, ULONGLONG ullTime, DWORD dwFlags,
          const std::vector<std::string>& vTexts, bool bCreate) {
  CheckRecordName(strRecord);
  CArchive archive(kronvale, strPath, bCreate);
  CPtr<IRecord> pRecord;
  archive.OpenRecord(strRecord, true, &pRecord, true);
  std::vector<SFrameBuffer> vBuffers;
  for (const auto& str : vTexts)
    vBuffers.push_back({reinterpret_cast<BYTE*>(const_cast<char*>(str.data())), static_cast<DWORD>(str.size())});
  Check(pRecord->Write(Ft(ullTime), dwFlags, vBuffers.empty() ? nullptr : vBuffers.data(), static_cast<DWORD>(vBuffers.size())),
        "writing a frame at " + FormatTime(ullTime) + " to record " + Quote(strRecord));
  std::printf("%s written to %s: flags 0x%08X, %zu buffers\n", FormatTime(ullTime).c_str(), strRecord.c_str(),
              static_cast<unsigned>(dwFlags), vBuffers.size());
  return ketSuccess;
}

// ---- export -------------------------------------------------------------------------------------------

// File names from a frame's time: 20210307T123456.7800000Z-0.bin sorts by time and names every tick.
std::string FrameFileName(ULONGLONG ullTime, size_t nBuffer, const std::string& strFormat) {
  std::string str = FormatTime(ullTime, true);
  str.erase(std::remove(str.begin(), str.end(), '-'), str.end());
  str.erase(std::remove(str.begin(), str.end(), ':'), str.end());
  return str + "-" + std::to_string(nBuffer) + (strFormat == "hex" ? ".hex" : strFormat == "json" ? ".json" : ".bin");
}

void WriteWholeFile(const WString& strPath, const std::string& strBytes) {
  NSPlatform::CFile file;
  HRESULT hr = file.Open(strPath.c_str(), GENERIC_WRITE, 0, CREATE_ALWAYS, 0);
  DWORD cbWritten = 0;
  if (SUCCEEDED(hr)) hr = file.Write(strBytes.data(), static_cast<DWORD>(strBytes.size()), &cbWritten);
  if (SUCCEEDED(hr) && cbWritten != strBytes.size()) hr = NSKronvale::khrWriteFault;
  Check(hr, "writing " + Quote(Utf8(strPath)));
}

int Export(CKronvale& kronvale, const std::string& strPath, const std::string& strRecord, const SPeriodOptions& period,
           const SFilterOptions& filterOptions, const std::string& strOut, const std::string& strFormat) {
  ULONGLONG ullFrom, ullTo;
  period.Get(Now(), &ullFrom, &ullTo);
  const SFrameFilter filter = filterOptions.Get();
  const bool bStream = strOut == "-";
  WString strOutDir = Wide(strOut);
  if (!bStream) {
    Check(NSPlatform::GetFullPath(Wide(strOut).c_str(), &strOutDir), "exporting to " + Quote(strOut));
    if (NSPlatform::PathExists(strOutDir.c_str()) && !NSPlatform::IsDirectory(strOutDir.c_str()))
      throw CToolError(ketFailure, "exporting to " + Quote(strOut) + ": it is a file, not a directory");
    if (!NSPlatform::IsDirectory(strOutDir.c_str()))
      Check(NSPlatform::CreateDirTree(strOutDir.c_str()), "making the directory " + Quote(strOut));
  }
  CArchive archive(kronvale, strPath, false);
  CPtr<IRecord> pRecord;
  archive.OpenRecord(strRecord, false, &pRecord);
  const SFrameFilter* pFilter = filterOptions.Given() ? &filter : nullptr;
  const std::string strWhat = "walking record " + Quote(strRecord);
  ULONGLONG ullTime = 0, cFrames = 0;
  std::string strIndexFile;  // index.jsonl of the directory
  for (bool bMore = FirstFrame(pRecord.p, ullFrom, ullTo, pFilter, strWhat, &ullTime); bMore;
       bMore = NextFrame(pRecord.p, ullTime, ullTo, pFilter, strWhat, &ullTime), ++cFrames) {
    DWORD dwFlags = 0;
    CTaskBuffers buffers;
    Check(ReadWholeFrame(pRecord.p, ullTime, &dwFlags, &buffers), ReadWhat(strRecord, ullTime));
    // The index line of the frame: on stdout when streaming, in index.jsonl of the directory.
    std::string strIndex = "{\"time\":" + JsonString(FormatTime(ullTime, true)) + ",\"flags\":" + std::to_string(dwFlags) +
                           ",\"buffers\":[";
    for (size_t i = 0; i < buffers.size(); ++i) {
      const auto& buffer = buffers[i];
      std::string strBytes;
      if (strFormat == "raw") strBytes.assign(reinterpret_cast<const char*>(buffer.pData), buffer.dwDataSize);
      else if (strFormat == "hex") strBytes = Hex(buffer.pData, buffer.dwDataSize) + "\n";
      else strBytes = "{\"size\":" + std::to_string(buffer.dwDataSize) + ",\"hex\":\"" + Hex(buffer.pData, buffer.dwDataSize) + "\"}\n";
      strIndex += (i ? "," : "") + std::string("{\"size\":") + std::to_string(buffer.dwDataSize);
      if (bStream) {
        if (strFormat == "raw") {
          // Raw bytes on stdout need their own framing: the index line says the sizes, the bytes follow it.
          strIndex += "}";
          continue;
        }
      } else {
        const std::string strName = FrameFileName(ullTime, i, strFormat);
        WriteWholeFile(NSPlatform::CombinePath(strOutDir, Wide(strName)), strBytes);
        strIndex += ",\"file\":" + JsonString(strName);
      }
      strIndex += "}";
    }
    strIndex += "]}\n";
    if (bStream) {
      std::fwrite(strIndex.data(), 1, strIndex.size(), stdout);
      for (const auto& buffer : buffers) {
        if (strFormat == "raw") std::fwrite(buffer.pData, 1, buffer.dwDataSize, stdout);
        else if (strFormat == "hex") std::printf("%s\n", Hex(buffer.pData, buffer.dwDataSize).c_str());
        else std::printf("{\"size\":%u,\"hex\":\"%s\"}\n", static_cast<unsigned>(buffer.dwDataSize), Hex(buffer.pData, buffer.dwDataSize).c_str());
      }
    } else {
      strIndexFile += strIndex;
    }
  }
  if (!bStream) WriteWholeFile(NSPlatform::CombinePath(strOutDir, KV_W("index.jsonl")), strIndexFile);
  std::fflush(stdout);
  if (!bStream) std::printf("%llu frames of %s exported to %s\n", static_cast<unsigned long long>(cFrames), strRecord.c_str(), strOut.c_str());
  return ketSuccess;
}

// ---- export --mp4 ----------------------------------------------------------------------------------

constexpr char kszMp4Help[] =
    "With --mp4 FILE the period becomes an MP4 clip, the recorded access units as they are (no "
    "re-encoding), timed by their frame times. The clip starts at the last key frame (flag 0x1) at or "
    "before the first frame at or after --from, so that its first picture decodes: --from between key "
    "frames starts a little earlier, --from in a gap starts where recording resumes; a key frame more "
    "than a minute earlier is not taken, the clip then starts at the period's first key frame. It takes every "
    "frame up to the last one at or before --to. A pause in the recording stays a pause in the clip "
    "(the picture before it stays on screen). A period without frames is exit code 1 and writes "
    "nothing; an existing FILE is refused unless --force. The clip is written under a temporary name "
    "and renamed at the end, so a failure leaves nothing under FILE.";

#ifdef KV_WITH_VIDEO
// The last key frame at or before the frame at ullFrame (which may be one itself). GetPrev answers
// frames before a 10 ms slot, so the search starts at the slot after ullFrame's.
bool KeyFrameAtOrBefore(IRecord* pRecord, ULONGLONG ullFrame, const std::string& strWhat, ULONGLONG* pullFound) {
  FILETIME ft = Ft(ullFrame / 100000 * 100000 + 100000);
  for (;;) {
    const HRESULT hr = pRecord->GetPrev(ft, &kKeyFrames, &ft);
    if (hr == NSKronvale::khrNotFound) return false;
    Check(hr, strWhat);
    if (Ticks(ft) <= ullFrame) break;
  }
  *pullFound = Ticks(ft);
  return true;
}

int ExportMp4(CKronvale& kronvale, const std::string& strPath, const std::string& strRecord, ULONGLONG ullFrom,
              ULONGLONG ullTo, const WString& strMp4, const std::string& strShown) {
  CArchive archive(kronvale, strPath, false);
  CPtr<IRecord> pRecord;
  archive.OpenRecord(strRecord, false, &pRecord);
  const std::string strWhat = "walking record " + Quote(strRecord);
  const std::string strPeriod = " record " + Quote(strRecord) + " from " + FormatTime(ullFrom) + " to " + FormatTime(ullTo);
  ULONGLONG ullFirst = 0, ullStart = 0;
  if (!FirstFrame(pRecord.p, ullFrom, ullTo, nullptr, strWhat, &ullFirst))
    throw CToolError(ketNotFound, "exporting" + strPeriod + ": there are no frames in that period; nothing written");
  // The lead-in before --from is only there to decode the first picture: a group of pictures is
  // seconds long, and a person asking for a short clip never gets hours of it.
  constexpr ULONGLONG kullLongestLeadIn = 60 * kullTicksPerSecond;
  if (!KeyFrameAtOrBefore(pRecord.p, ullFirst, strWhat, &ullStart) || ullFirst - ullStart > kullLongestLeadIn) {
    if (!FirstFrame(pRecord.p, ullFirst, ullTo, &kKeyFrames, strWhat, &ullStart))
      throw CToolError(ketNotFound, "exporting" + strPeriod + ": no key frame (flag 0x1) to start a clip at; nothing written");
    std::printf("no key frame in the minute before %s: the clip starts at the period's first, %s\n",
                FormatTime(ullFirst).c_str(), FormatTime(ullStart).c_str());
  }
  // The last frame of the period, for the progress shown on a terminal.
  ULONGLONG ullEnd = ullStart;
  FILETIME ftEnd;
  if (SUCCEEDED(pRecord->GetPrev(Ft(std::min(ullTo, kullLastTime - 100000) / 100000 * 100000 + 100000), nullptr, &ftEnd)))
    ullEnd = std::max(ullStart, Ticks(ftEnd));
  CMp4Writer writer(strMp4);
  ULONGLONG ullTime = ullStart, ullLast = ullStart, ullLongestPause = 0, ullPauseAt = 0;
  CProgress progress("exporting frames", (ullEnd - ullStart) / (kullTicksPerSecond / 25) + 1);  // about, at 25 fps
  for (bool bMore = true; bMore; bMore = NextFrame(pRecord.p, ullTime, ullTo, nullptr, strWhat, &ullTime)) {
    progress.Step(writer.Frames());
    DWORD dwFlags = 0;
    CTaskBuffers buffers;
    Check(ReadWholeFrame(pRecord.p, ullTime, &dwFlags, &buffers), ReadWhat(strRecord, ullTime));
    if (buffers.size() != 1)
      throw CToolError(ketFailure, "exporting" + strPeriod + ": the frame at " + FormatTime(ullTime) + " has " +
                                       std::to_string(buffers.size()) + " buffers, not one access unit; nothing written");
    if (ullTime - ullLast > ullLongestPause) {
      ullLongestPause = ullTime - ullLast;
      ullPauseAt = ullLast;
    }
    writer.Add(ullTime, (dwFlags & kKeyFrames.dwMask) != 0, buffers[0].pData, buffers[0].dwDataSize);
    ullLast = ullTime;
  }
  const std::string strCodec = writer.Commit();
  std::printf("%llu frames of %s from %s to %s (%s) written to %s\n", static_cast<unsigned long long>(writer.Frames()),
              strRecord.c_str(), FormatTime(ullStart).c_str(), FormatTime(ullLast).c_str(), strCodec.c_str(), strShown.c_str());
  if (ullLongestPause > kullTicksPerSecond)
    std::printf("the recording pauses for %.1f s after %s; the clip pauses there too\n",
                static_cast<double>(ullLongestPause) / kullTicksPerSecond, FormatTime(ullPauseAt).c_str());
  return ketSuccess;
}
#endif

// Where an MP4 goes, checked before anything is read or written: a full path, its directory
// there, and no file in the way unless the person said --force.
WString CheckMp4Target(const std::string& strMp4, bool bForce) {
  WString strFull;
  const std::string strWhat = "--mp4 " + Quote(strMp4);
  if (strMp4.empty() || FAILED(NSPlatform::GetFullPath(Wide(strMp4).c_str(), &strFull)))
    throw CToolError(ketUsage, strWhat + ": not a file name");
  if (NSPlatform::IsDirectory(strFull.c_str())) throw CToolError(ketUsage, strWhat + ": it is a directory");
  if (NSPlatform::PathExists(strFull.c_str()) && !bForce)
    throw CToolError(ketUsage, strWhat + ": the file exists (--force replaces it)");
  size_t i = strFull.size();
  while (i > 0 && !NSPlatform::IsPathSeparator(strFull[i - 1])) --i;
  const WString strDir = strFull.substr(0, i > 1 ? i - 1 : i);
  if (!NSPlatform::IsDirectory(strDir.c_str()))
    throw CToolError(ketNotFound, strWhat + ": there is no directory " + Quote(Utf8(strDir)));
  return strFull;
}

// ---- copy, merge, set, rm ------------------------------------------------------------------------------

int Copy(CKronvale& kronvale, const std::string& strPath, const std::string& strRecord, const std::string& strTarget,
         const SPeriodOptions& period) {
  ULONGLONG ullFrom, ullTo;
  period.Get(Now(), &ullFrom, &ullTo);
  CArchive archive(kronvale, strPath, false);
  CArchive target(kronvale, strTarget, true);
  {
    CPtr<IRecord> pTargetRecord;  // the record's directory and description in the target archive
    target.OpenRecord(strRecord, true, &pTargetRecord, true);
  }
  CPtr<IRecord> pRecord;
  archive.OpenRecord(strRecord, true, &pRecord);
  CPtr<IRecordFastCopy> pCopy;
  Check(pRecord->QueryInterface(IID_IRecordFastCopy, reinterpret_cast<void**>(&pCopy)), "asking record " + Quote(strRecord) + " for its fast copy");
  WString strTargetRecord;
  Check(NSPlatform::GetFullPath(target.RecordPath(strRecord).c_str(), &strTargetRecord),
        "copying the hours of record " + Quote(strRecord) + " to archive " + Quote(strTarget));
  Check(pCopy->CopyHoursTo(CBstr(strTargetRecord), Ft(ullFrom), Ft(ullTo)),
        "copying the hours of record " + Quote(strRecord) + " to archive " + Quote(strTarget));
  std::printf("hours of %s from %s to %s copied to %s\n", strRecord.c_str(), FormatTime(ullFrom).c_str(),
              FormatTime(ullTo).c_str(), strTarget.c_str());
  return ketSuccess;
}

int Merge(CKronvale& kronvale, const std::string& strPath, const std::string& strRecord, const std::string& strSourcePath,
          const std::string& strSourceRecord, const SFilterOptions& filterOptions) {
  const SFrameFilter filter = filterOptions.Get();
  CArchive archive(kronvale, strPath, false);
  CPtr<IRecord> pRecord;
  archive.OpenRecord(strRecord, true, &pRecord, true);
  CArchive source(kronvale, strSourcePath, false);
  CPtr<IRecord> pSource;
  source.OpenRecord(strSourceRecord, false, &pSource);
  // Merge copies dwCount buffers per frame; one is what a camera writes.
  Check(pRecord->Merge(pSource.p, filterOptions.Given() ? &filter : nullptr, 1),
        "merging record " + Quote(strSourceRecord) + " of archive " + Quote(strSourcePath) + " into record " + Quote(strRecord));
  std::printf("%s of %s merged into %s\n", strSourceRecord.c_str(), strSourcePath.c_str(), strRecord.c_str());
  return ketSuccess;
}

struct SSetOptions {
  std::string strQuotaFree, strQuotaSize, strMaxHours, strFlushTimeout;
};

int Set(CKronvale& kronvale, const std::string& strPath, const SSetOptions& options) {
  if (options.strQuotaFree.empty() && options.strQuotaSize.empty() && options.strMaxHours.empty() &&
      options.strFlushTimeout.empty())
    throw CToolError(ketUsage, "set: nothing to set (--quota-free, --quota-size, --max-hours or --flush-timeout)");
  // Everything is read before the archive is touched.
  const ULONGLONG ullFree = options.strQuotaFree.empty() ? 0 : ParseBytes(options.strQuotaFree, "--quota-free");
  const ULONGLONG ullSize = options.strQuotaSize.empty() ? 0 : ParseBytes(options.strQuotaSize, "--quota-size");
  const LONG lHours = options.strMaxHours.empty() ? 0 : static_cast<LONG>(ParseNumber(options.strMaxHours, 0, 0x7FFFFFFF, "--max-hours"));
  const DWORD dwFlush = options.strFlushTimeout.empty() ? 0 : static_cast<DWORD>(ParseNumber(options.strFlushTimeout, 0, 3600000, "--flush-timeout"));
  CArchive archive(kronvale, strPath, false);
  const std::string strWhat = "changing the settings of archive " + Quote(strPath);
  CPtr<IKronvaleQuota> pQuota;
  Check(archive->QueryInterface(IID_IKronvaleQuota, reinterpret_cast<void**>(&pQuota)), strWhat);
  SArchiveQuota quota = {};
  Check(pQuota->GetArchiveQuota(&quota), strWhat);
  if (!options.strQuotaFree.empty()) quota.ullMinimumFreeDiskSpace = ullFree;
  if (!options.strQuotaSize.empty()) quota.ullMaximumArchiveSize = ullSize;
  if (!options.strMaxHours.empty()) quota.lMaximumArchiveHours = lHours;
  if (!options.strQuotaFree.empty() || !options.strQuotaSize.empty() || !options.strMaxHours.empty())
    Check(pQuota->SetArchiveQuota(&quota), strWhat);
  if (!options.strFlushTimeout.empty()) Check(archive->SetFlushTimeout(dwFlush), strWhat);
  std::printf("archive %s: keep free %s, maximum size %s, hours per record %ld, flush timeout %s\n", strPath.c_str(),
              quota.ullMinimumFreeDiskSpace ? FormatSize(quota.ullMinimumFreeDiskSpace).c_str() : "no limit",
              quota.ullMaximumArchiveSize ? FormatSize(quota.ullMaximumArchiveSize).c_str() : "no limit",
              static_cast<long>(quota.lMaximumArchiveHours),
              options.strFlushTimeout.empty() ? "unchanged" : (std::to_string(dwFlush) + " ms").c_str());
  return ketSuccess;
}

int Remove(CKronvale& kronvale, const std::string& strPath, const std::string& strRecord, const std::string& strHour) {
  const ULONGLONG ullHour = strHour.empty() ? 0 : ParseTime(strHour, Now(), "--hour");
  CArchive archive(kronvale, strPath, false);
  if (strHour.empty()) {
    CheckRecordName(strRecord);
    if (!NSPlatform::IsDirectory(archive.RecordPath(strRecord).c_str()))
      throw CToolError(ketNotFound, "removing record " + Quote(strRecord) + ": archive " + Quote(strPath) + " has no such record");
    Check(archive->DeleteRecord(Bstr(strRecord)), "removing record " + Quote(strRecord) + " of archive " + Quote(strPath));
    std::printf("record %s removed from %s\n", strRecord.c_str(), strPath.c_str());
    return ketSuccess;
  }
  CPtr<IRecord> pRecord;
  archive.OpenRecord(strRecord, true, &pRecord);
  std::vector<SHourDir> vHours;
  Check(ListHours(archive.RecordPath(strRecord), ullHour, ullHour, &vHours), "listing the hours of record " + Quote(strRecord));
  if (vHours.empty())
    throw CToolError(ketNotFound, "removing the hour of " + FormatTime(ullHour) + " from record " + Quote(strRecord) +
                                      ": the record has no such hour");
  Check(pRecord->RemoveHour(Ft(ullHour)), "removing the hour of " + FormatTime(ullHour) + " from record " + Quote(strRecord));
  std::printf("hour %s removed from record %s\n", FormatTime(vHours[0].ullStart).c_str(), strRecord.c_str());
  return ketSuccess;
}

// ---- timeline ------------------------------------------------------------------------------------------

int Timeline(CKronvale& kronvale, const std::string& strPath, std::vector<std::string> vRecords, const SPeriodOptions& period,
             const std::string& strOut) {
  CArchive archive(kronvale, strPath, false);
  if (vRecords.empty()) vRecords = archive.Records();
  ULONGLONG ullFrom = 0, ullTo = 0;
  const ULONGLONG ullNow = Now();
  std::vector<STimelineRow> vRows;
  std::vector<CPtr<IRecord>> vOpen(vRecords.size());
  // Without a period, the time between the first and the last frame of all records.
  bool bAny = false;
  for (size_t i = 0; i < vRecords.size(); ++i) {
    archive.OpenRecord(vRecords[i], false, &vOpen[i]);
    FILETIME ftFirst, ftLast;
    if (FAILED(vOpen[i]->GetNext(Ft(0), nullptr, &ftFirst)) || FAILED(vOpen[i]->GetPrev(Ft(kullLastTime), nullptr, &ftLast)))
      continue;
    ullFrom = bAny ? std::min(ullFrom, Ticks(ftFirst)) : Ticks(ftFirst);
    ullTo = bAny ? std::max(ullTo, Ticks(ftLast)) : Ticks(ftLast);
    bAny = true;
  }
  if (!period.strFrom.empty()) ullFrom = ParseTime(period.strFrom, ullNow, "--from");
  if (!period.strTo.empty()) ullTo = ParseTime(period.strTo, ullNow, "--to");
  CheckPeriod(ullFrom, ullTo);
  if (ullTo - ullFrom < 10 * kullTicksPerSecond) ullTo = ullFrom + 10 * kullTicksPerSecond;
  // About one run per pixel of a 1000 pixel wide row.
  const ULONGLONG ullResolution = std::max<ULONGLONG>((ullTo - ullFrom) / 1000, kullTicksPerSecond);
  static const SFrameFilter s_aBands[] = {{0x1, efmAny}, {0x2, efmAny}};
  for (size_t i = 0; i < vRecords.size(); ++i) {
    STimelineRow row;
    row.strName = vRecords[i];
    const std::string strWhat = "gathering the statistic of record " + Quote(vRecords[i]);
    // The statistic splits runs where the flags change (a second with a key frame, one without) and
    // ends each at its last frame; the picture joins runs less than a cell apart, so that a band is
    // one bar until a gap that shows.
    auto add = [ullResolution](CSpans* pv, const SRecordStatistic& run) {
      if (!pv->empty() && Ticks(run.ftBegin) < pv->back().second + ullResolution)
        pv->back().second = std::max(pv->back().second, Ticks(run.ftEnd));
      else pv->push_back({Ticks(run.ftBegin), Ticks(run.ftEnd)});
    };
    for (const auto& run : Statistic(vOpen[i].p, ullFrom, ullTo, ullResolution, nullptr, 0, strWhat)) add(&row.vCoverage, run);
    for (size_t b = 0; b < 2; ++b)
      for (const auto& run : Statistic(vOpen[i].p, ullFrom, ullTo, ullResolution, &s_aBands[b], 0, strWhat))
        add(&row.avBands[b], run);
    vRows.push_back(std::move(row));
  }
  WriteWholeFile(Wide(strOut), RenderTimeline(strPath, vRows, ullFrom, ullTo));
  std::printf("timeline of %zu records from %s to %s written to %s\n", vRows.size(), FormatTime(ullFrom).c_str(),
              FormatTime(ullTo).c_str(), strOut.c_str());
  return ketSuccess;
}

// ---- demo ------------------------------------------------------------------------------------------------

constexpr char kszDemoRecord[] = "camera1";

#ifndef KV_WITH_VIDEO
// What kvtool.exe answers for the verbs that need FFmpeg, which the Windows build does not have.
[[noreturn]] void NotInThisBuild(const char* pszVerb) {
  throw CToolError(ketFailure, std::string(pszVerb) +
                                   " is not in this build: this kvtool is built without the FFmpeg libraries, so it has "
                                   "no video (the Linux build has it)");
}
#else
// A real camera for the nMinutes minutes up to ullUntil: the demo camera's H.264 access units, one
// frame each at 25 frames per second, flag 0x1 on key frames (every 2 s), flag 0x2 on frames whose
// picture moved. The first frame is read back through a reader and compared byte for byte.
int Demo(CKronvale& kronvale, const std::string& strPath, unsigned nMinutes, bool bAppend, ULONGLONG ullUntil,
         const std::string& strTimeline) {
  const WString strWide = Wide(strPath);
  if (NSPlatform::PathExists(strWide.c_str()) && !bAppend) {
    // A fresh archive each run, but only ever in place of an earlier demo's.
    CheckIsArchive(strPath);
    std::vector<WString> vNames;
    Check(ListRecords(strWide, &vNames), "listing the records of archive " + Quote(strPath));
    for (const auto& strName : vNames)
      if (strName != Wide(kszDemoRecord))
        throw CToolError(ketFailure, "replacing archive " + Quote(strPath) + ": it holds record " + Quote(Utf8(strName)) +
                                         ", so it is not a demo archive (use another path, or --append)");
    std::printf("removing the previous demo archive %s\n", strPath.c_str());
    std::fflush(stdout);
    Check(kronvale.Factory()->DeleteArchive(Bstr(strPath)), "removing the previous demo archive " + Quote(strPath));
  }
  int nResult = ketSuccess;
  {
    CArchive archive(kronvale, strPath, true);
    // Buffered hours, flushed by the archive every second: a recorder's usual choice.
    Check(archive->SetFlushTimeout(1000), "setting the flush timeout of archive " + Quote(strPath));
    CPtr<IRecord> pCamera;
    archive.OpenRecord(kszDemoRecord, true, &pCamera, true);
    const ULONGLONG ullStep = CDemoCamera::kullFrameTicks;
    const ULONGLONG ullEnd = ullUntil / ullStep * ullStep;
    const ULONGLONG ullStart = ullEnd - nMinutes * 60ull * kullTicksPerSecond;
    CDemoCamera camera(ullStart);
    std::printf("encoding %u minutes of a %dx%d test picture with a clock as %s, 25 fps, into record %s of %s: a key "
                "frame (flag 0x1) every 2 s, motion (flag 0x2) while the ball goes round in the second half of each "
                "minute\n",
                nMinutes, CDemoCamera::knWidth, CDemoCamera::knHeight, camera.Describe().c_str(), kszDemoRecord,
                strPath.c_str());
    std::fflush(stdout);
    const ULONGLONG cFrames = (ullEnd - ullStart) / ullStep;
    ULONGLONG cWritten = 0, cKey = 0, cMotion = 0, cbWritten = 0;
    std::vector<BYTE> vFirst;
    std::vector<SEncodedFrame> vOut;
    auto write = [&]() {
      for (auto& frame : vOut) {
        const DWORD dwFlags = (frame.bKey ? 0x1u : 0u) | (frame.bMotion ? 0x2u : 0u);
        SFrameBuffer buffer = {frame.vBytes.data(), static_cast<DWORD>(frame.vBytes.size())};
        Check(pCamera->Write(Ft(frame.ullTime), dwFlags, &buffer, 1),
              "writing the frame at " + FormatTime(frame.ullTime) + " to record " + Quote(kszDemoRecord));
        if (cWritten++ == 0) vFirst = frame.vBytes;
        cKey += frame.bKey;
        cMotion += frame.bMotion;
        cbWritten += frame.vBytes.size();
      }
      vOut.clear();
    };
    const ULONGLONG ullClock = NSPlatform::GetTickCount64();
    CProgress progress("encoding frames", cFrames);
    for (ULONGLONG i = 0; i < cFrames; ++i) {
      progress.Step(i);
      camera.EncodeNext(&vOut);
      write();
    }
    camera.Finish(&vOut);
    write();
    std::printf("%llu frames (%s of video, %llu key frames, %llu with motion) encoded and written in %llu ms\n",
                static_cast<unsigned long long>(cWritten), FormatSize(cbWritten).c_str(), static_cast<unsigned long long>(cKey),
                static_cast<unsigned long long>(cMotion), static_cast<unsigned long long>(NSPlatform::GetTickCount64() - ullClock));
    // Read back through a reader object, as a player would.
    CPtr<IRecord> pPlayer;
    archive.OpenRecord(kszDemoRecord, false, &pPlayer);
    DWORD dwFlags = 0;
    CTaskBuffers buffers;
    Check(ReadWholeFrame(pPlayer.p, ullStart, &dwFlags, &buffers), ReadWhat(kszDemoRecord, ullStart));
    const bool bSame = buffers.size() == 1 && buffers[0].dwDataSize == vFirst.size() &&
                       std::equal(vFirst.begin(), vFirst.end(), buffers[0].pData) && dwFlags & 0x1;
    std::printf("first frame %s read back: %s\n", FormatTime(ullStart).c_str(), bSame ? "content verified" : "CONTENT MISMATCH");
    if (!bSame) nResult = ketFailure;
  }
  std::printf("\n");
  Info(kronvale, strPath, "", false, false);
  std::printf("\n");
  SPeriodOptions period;
  Timeline(kronvale, strPath, {}, period, strTimeline);
  std::printf("\na clip: kvtool export %s %s --from %s --to %s --mp4 clip.mp4 (then: ffplay clip.mp4, or any player)\n",
              strPath.c_str(), kszDemoRecord, FormatTime(ullUntil - 20 * kullTicksPerSecond).c_str(),
              FormatTime(ullUntil - 10 * kullTicksPerSecond).c_str());
  return nResult;
}
#endif

// ---- The command line ------------------------------------------------------------------------------------

constexpr char kszExitCodes[] =
    "Exit codes: 0 success, 1 not found (no such archive, record or frame), 2 usage, 3 corruption found, "
    "4 other failure.\nTimes: 2021-03-07T12:34:56.5Z, 2021-03-07T14:34+02:00, 2021-03-07, now, -5m, -2h (UTC "
    "when no zone is given).";

int Run(int argc, char** argv) {
  CLI::App app("kvtool: look into, check, repair and export Kronvale archives", "kvtool");
  app.footer(kszExitCodes);
  app.set_version_flag("--version", kszVersion);
  app.require_subcommand(1);
  app.allow_windows_style_options(false);  // an argument starting with / is a path, on Windows too

  // Every verb's options; only the chosen verb's are read.
  std::string strArchive, strRecord, strTime, strFlags, strOut, strFormat = "raw", strResolution, strTarget;
  std::string strSourceArchive, strSourceRecord, strHour, strMinutes, strTimeline;
  std::vector<std::string> vTexts, vRecords;
  std::string strMp4, strUntil;
  bool bJson = false, bBytes = false, bDryRun = false, bAppend = false, bCreate = false, bForce = false;
  SFilterOptions filter;
  SPeriodOptions period;
  SSetOptions set;

  auto archiveArg = [&](CLI::App* p) { p->add_option("ARCHIVE", strArchive, "the archive's directory")->required(); };
  auto recordArg = [&](CLI::App* p, bool bRequired) {
    auto* pOption = p->add_option("RECORD", strRecord, "a record of the archive");
    if (bRequired) pOption->required();
  };
  auto jsonFlag = [&](CLI::App* p) { p->add_flag("--json", bJson, "print JSON instead of text"); };

  auto* pInfo = app.add_subcommand("info", "sizes, limits and records of an archive (frames, first and last, hours, bytes)");
  archiveArg(pInfo);
  recordArg(pInfo, false);
  jsonFlag(pInfo);
  pInfo->add_flag("--bytes", bBytes, "exact byte counts instead of KiB, MiB, GiB");

  auto* pDu = app.add_subcommand("du", "bytes on disk per record and per day");
  archiveArg(pDu);
  jsonFlag(pDu);
  pDu->add_flag("--bytes", bBytes, "exact byte counts");

  auto* pVerify = app.add_subcommand("verify", "check every hour (read-only); exit code 3 when any is corrupt");
  archiveArg(pVerify);
  recordArg(pVerify, false);
  period.Add(pVerify, false);
  jsonFlag(pVerify);

  auto* pRepair = app.add_subcommand("repair", "repair the hours verify finds corrupt (no recorder may write meanwhile)");
  archiveArg(pRepair);
  recordArg(pRepair, false);
  pRepair->add_flag("--dry-run", bDryRun, "say what would be repaired, change nothing");
  jsonFlag(pRepair);

  auto* pRead = app.add_subcommand("read", "the frame stored at TIME, every buffer");
  archiveArg(pRead);
  recordArg(pRead, true);
  pRead->add_option("TIME", strTime, "the frame's time")->required();
  jsonFlag(pRead);

  CLI::App* apStep[2];
  for (int i = 0; i < 2; ++i) {
    apStep[i] = app.add_subcommand(i == 0 ? "next" : "prev", i == 0 ? "the first frame after TIME passing the filter"
                                                                     : "the last frame before TIME passing the filter");
    archiveArg(apStep[i]);
    recordArg(apStep[i], true);
    apStep[i]->add_option("TIME", strTime, "where the search starts")->required();
    filter.Add(apStep[i]);
    apStep[i]->add_flag("--key", filter.bKey, "key frames only (flag 0x1): where a player can start decoding");
    jsonFlag(apStep[i]);
  }

  auto* pStat = app.add_subcommand("stat", "runs of frames in a period at a resolution");
  archiveArg(pStat);
  recordArg(pStat, true);
  period.Add(pStat, true);
  pStat->add_option("--resolution", strResolution, "10s, 1m, 1h, 0.5 (seconds)")->required();
  filter.Add(pStat);
  jsonFlag(pStat);

  auto* pWrite = app.add_subcommand("write", "append one frame (one buffer per TEXT; none is allowed)");
  archiveArg(pWrite);
  recordArg(pWrite, true);
  pWrite->add_option("TIME", strTime, "the frame's time")->required();
  pWrite->add_option("TEXT", vTexts, "the buffers");
  pWrite->add_option("--flags", strFlags, "the frame's 32 flag bits (decimal or 0x hex; default 0)");
  pWrite->add_flag("--create", bCreate, "make the archive when ARCHIVE does not exist");

  auto* pExport = app.add_subcommand("export", "frames of a period as files named by their time, a stream, or an MP4 clip");
  pExport->alias("cat");
  archiveArg(pExport);
  recordArg(pExport, true);
  period.Add(pExport, true);
  filter.Add(pExport);
  auto* pOutOption =
      pExport->add_option("--out", strOut, "a directory, or - for stdout (an index line per frame, then its buffers)");
  pExport->add_option("--format", strFormat, "raw (default), hex or json")->check(CLI::IsMember({"raw", "hex", "json"}));
  pExport->add_option("--mp4", strMp4, "an MP4 clip of the period's video (see below)")->type_name("FILE")->excludes(pOutOption);
  pExport->add_flag("--force", bForce, "with --mp4: replace FILE when it exists");
  pExport->footer(std::string(kszMp4Help) + "\n\n" + kszExitCodes);

  auto* pCopy = app.add_subcommand("copy", "copy the hours of a record to another archive, whole");
  archiveArg(pCopy);
  recordArg(pCopy, true);
  pCopy->add_option("TARGET", strTarget, "the archive to copy into (made when missing)")->required();
  period.Add(pCopy, false);

  auto* pMerge = app.add_subcommand("merge", "write the frames of another record passing a filter into a record");
  archiveArg(pMerge);
  recordArg(pMerge, true);
  pMerge->add_option("SOURCE_ARCHIVE", strSourceArchive, "the archive to read")->required();
  pMerge->add_option("SOURCE_RECORD", strSourceRecord, "its record")->required();
  filter.Add(pMerge);

  auto* pTimeline = app.add_subcommand("timeline", "an SVG picture of what is recorded: coverage, key frames, motion, gaps");
  archiveArg(pTimeline);
  pTimeline->add_option("RECORD", vRecords, "records to draw (default: all)");
  period.Add(pTimeline, false);
  pTimeline->add_option("-o,--out", strOut, "the SVG file to write")->required();

  auto* pSet = app.add_subcommand("set", "change an archive's limits and flush timeout");
  archiveArg(pSet);
  pSet->add_option("--quota-free", set.strQuotaFree, "bytes to keep free on the volume (512M, 2G; 0: no limit)");
  pSet->add_option("--quota-size", set.strQuotaSize, "largest size of the archive (0: no limit)");
  pSet->add_option("--max-hours", set.strMaxHours, "hours kept per record (0: no limit)");
  pSet->add_option("--flush-timeout", set.strFlushTimeout, "milliseconds between flushes (0: write through)");

  auto* pRm = app.add_subcommand("rm", "remove a record, or one hour of it with --hour");
  archiveArg(pRm);
  recordArg(pRm, true);
  pRm->add_option("--hour", strHour, "a time inside the hour to remove");

  auto* pDemo = app.add_subcommand("demo", "record a camera's H.264 video into a fresh archive and show it");
  archiveArg(pDemo);
  pDemo->add_option("MINUTES", strMinutes, "minutes of frames up to now (default 5, at most 1440)");
  pDemo->add_option("--until", strUntil, "record the minutes up to this time instead of now (the same time gives the same video)");
  pDemo->add_flag("--append", bAppend, "add to the archive instead of starting afresh");
  pDemo->add_option("--timeline", strTimeline, "where the picture goes (default: ARCHIVE.svg)");

  // An unknown verb is named as such, not as an unexpected argument.
  if (argc > 1 && argv[1][0] != '-') {
    bool bKnown = false;
    for (const auto* pSub : app.get_subcommands({})) bKnown = bKnown || pSub->check_name(argv[1]);
    if (!bKnown) throw CToolError(ketUsage, "unknown verb " + Quote(argv[1]) + " (kvtool --help lists them)");
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) {  // --help, --version: on stdout
      std::ostringstream out, err;
      app.exit(e, out, err);
      std::fputs(out.str().c_str(), stdout);
      return ketSuccess;
    }
    throw CToolError(ketUsage, std::string(e.what()) + " (kvtool " +
                                   (app.get_subcommands().empty() ? std::string("") : app.get_subcommands()[0]->get_name() + " ") +
                                   "--help says more)");
  }

  const ULONGLONG ullNow = Now();
  CLI::App* pVerb = app.get_subcommands()[0];
  // The maintenance verbs read the files directly.
  if (pVerb == pVerify) return Verify(strArchive, strRecord, period, bJson);
  if (pVerb == pRepair) return Repair(strArchive, strRecord, bDryRun, bJson);
  // Everything typed is read before the library is loaded or anything touches the disk.
  const ULONGLONG ullTime = strTime.empty() ? 0 : ParseTime(strTime, ullNow, "TIME");
  unsigned nMinutes = 5;
  if (pVerb == pDemo) {
    if (!strMinutes.empty()) {
      nMinutes = static_cast<unsigned>(ParseNumber(strMinutes, 1, ~0u, "MINUTES"));
      if (nMinutes > 1440)
        throw CToolError(ketUsage, "MINUTES: a demo records at most a day (1440 minutes), not " + strMinutes);
    }
    if (strTimeline.empty()) strTimeline = strArchive + ".svg";
  }
  const ULONGLONG ullUntil = strUntil.empty() ? ullNow : ParseTime(strUntil, ullNow, "--until");
  if (ullUntil < nMinutes * 60ull * kullTicksPerSecond) throw CToolError(ketUsage, "--until: " + Quote(strUntil) + " is too early");
  // export --mp4 reads the period and checks where the clip goes; the directory forms are checked as before.
  WString strMp4Full;
  ULONGLONG ullFrom = 0, ullTo = 0;
  const bool bMp4 = pVerb == pExport && pExport->count("--mp4") > 0;
  if (pVerb == pExport) {
    if (bMp4) {
      if (filter.Given()) throw CToolError(ketUsage, "--mp4 takes every frame (a clip needs them all to decode): no --mask or --mode");
      if (pExport->count("--format")) throw CToolError(ketUsage, "--mp4 writes MP4: no --format");
      period.Get(ullNow, &ullFrom, &ullTo);
      strMp4Full = CheckMp4Target(strMp4, bForce);
    } else {
      if (pExport->count("--out") == 0) throw CToolError(ketUsage, "export needs --out or --mp4 (kvtool export --help says more)");
      if (bForce) throw CToolError(ketUsage, "--force goes with --mp4");
    }
  }
#ifndef KV_WITH_VIDEO
  if (pVerb == pDemo) NotInThisBuild("demo");
  if (bMp4) NotInThisBuild("export --mp4");
#endif
  const DWORD dwFlags = strFlags.empty() ? 0 : static_cast<DWORD>(ParseNumber(strFlags, 0, 0xFFFFFFFFu, "--flags"));
  if (pVerb == pMerge || pVerb == pExport || pVerb == apStep[0] || pVerb == apStep[1] || pVerb == pStat) filter.Get();
  if (!strRecord.empty()) CheckRecordName(strRecord);

  CKronvale kronvale;
  if (pVerb == pInfo) return Info(kronvale, strArchive, strRecord, bJson, bBytes);
  if (pVerb == pDu) return Du(kronvale, strArchive, bJson, bBytes);
  if (pVerb == pRead) return Read(kronvale, strArchive, strRecord, ullTime, bJson);
  if (pVerb == apStep[0] || pVerb == apStep[1]) return Step(kronvale, strArchive, strRecord, ullTime, pVerb == apStep[0], filter, bJson);
  if (pVerb == pStat) return Stat(kronvale, strArchive, strRecord, period, strResolution, filter, bJson);
  if (pVerb == pWrite) return Write(kronvale, strArchive, strRecord, ullTime, dwFlags, vTexts, bCreate);
#ifdef KV_WITH_VIDEO
  if (bMp4) return ExportMp4(kronvale, strArchive, strRecord, ullFrom, ullTo, strMp4Full, strMp4);
#endif
  if (pVerb == pExport) return Export(kronvale, strArchive, strRecord, period, filter, strOut, strFormat);
  if (pVerb == pCopy) return Copy(kronvale, strArchive, strRecord, strTarget, period);
  if (pVerb == pMerge) return Merge(kronvale, strArchive, strRecord, strSourceArchive, strSourceRecord, filter);
  if (pVerb == pTimeline) return Timeline(kronvale, strArchive, vRecords, period, strOut);
  if (pVerb == pSet) return Set(kronvale, strArchive, set);
  if (pVerb == pRm) return Remove(kronvale, strArchive, strRecord, strHour);
#ifdef KV_WITH_VIDEO
  return Demo(kronvale, strArchive, nMinutes, bAppend, ullUntil, strTimeline);
#else
  NotInThisBuild("demo");
#endif
}

}  // namespace

namespace {

int Main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const CToolError& e) {
    std::fflush(stdout);
    std::fprintf(stderr, "kvtool: %s\n", e.what());
    return e.ExitCode();
  } catch (const std::exception& e) {
    std::fflush(stdout);
    std::fprintf(stderr, "kvtool: %s\n", e.what());
    return ketFailure;
  }
}

}  // namespace

// The tool's only calls to the C runtime below stdio: whether stderr is a terminal, and (Windows)
// the arguments in UTF-16 and a binary stdout.
#ifdef _WIN32
#include <fcntl.h>
#include <io.h>

namespace {
bool StderrIsTerminal() { return _isatty(_fileno(stderr)) != 0; }
}  // namespace

// Windows hands the arguments over as UTF-16 (wmain, linked with -municode); the tool reads UTF-8
// as on Linux. stdout is binary, so that exported bytes and line ends come out as they are.
int wmain(int argc, wchar_t** wargv) {
  _setmode(_fileno(stdout), _O_BINARY);
  std::vector<std::string> vArgs;
  for (int i = 0; i < argc; ++i)
    vArgs.push_back(NSPlatform::WideToUtf8(WString(reinterpret_cast<const WCHAR*>(wargv[i]))));
  std::vector<char*> vArgv;
  for (auto& str : vArgs) vArgv.push_back(str.data());
  vArgv.push_back(nullptr);
  return Main(argc, vArgv.data());
}
#else
#include <unistd.h>

namespace {
bool StderrIsTerminal() { return isatty(fileno(stderr)) != 0; }
}  // namespace

int main(int argc, char** argv) { return Main(argc, argv); }
#endif
