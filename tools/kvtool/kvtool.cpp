// kvtool: Kronvale from the command line. It loads the library beside it (kronvale.dll, or
// libkronvale.so on Linux) exactly as a recorder would, through DllGetClassObject and the public
// interfaces only.
//
//   kvtool demo ARCHIVE [MINUTES]           record a synthetic camera stream and show what is stored
//   kvtool info ARCHIVE                     sizes, limits and records of an archive
//   kvtool write ARCHIVE RECORD TIME FLAGS TEXT...   append one frame (one buffer per TEXT)
//   kvtool read ARCHIVE RECORD TIME         the frame stored at TIME
//   kvtool next ARCHIVE RECORD TIME [MASK [MODE]]    the next frame after TIME passing the filter
//   kvtool prev ARCHIVE RECORD TIME [MASK [MODE]]    the previous one
//   kvtool stat ARCHIVE RECORD FROM TO SECONDS [MASK [MODE]]   runs of frames at a resolution
//
// Times are UTC, written 2021-03-07T12:34:56.780Z (the fraction and the Z are optional). MODE is
// any, all, exact or none. An archive is made when ARCHIVE does not exist yet (write, demo).
#include <kronvale/kronvale.h>
#include <kronvale/KronvaleResults.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "platform/os.h"

namespace {

using PFNGETCLASSOBJECT = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);

// ---- Small owners -------------------------------------------------------------------------------

template <class I>
class CPtr {
 public:
  CPtr() = default;
  ~CPtr() {
    if (p) p->Release();
  }
  CPtr(const CPtr&) = delete;
  CPtr& operator=(const CPtr&) = delete;
  I** operator&() { return &p; }
  I* operator->() const { return p; }
  I* p = nullptr;
};

class CBstr {
 public:
  explicit CBstr(const std::string& str) {
    const WString strWide = NSPlatform::Utf8ToWide(str);
    m_bstr = SysAllocStringLen(strWide.data(), static_cast<UINT>(strWide.size()));
  }
  ~CBstr() { SysFreeString(m_bstr); }
  CBstr(const CBstr&) = delete;
  CBstr& operator=(const CBstr&) = delete;
  operator BSTR() const { return m_bstr; }

 private:
  BSTR m_bstr = nullptr;
};

[[noreturn]] void Fail(const char* pszWhat, HRESULT hr) {
  std::fprintf(stderr, "kvtool: %s failed: 0x%08X\n", pszWhat, static_cast<unsigned>(hr));
  std::exit(1);
}

void Check(HRESULT hr, const char* pszWhat) {
  if (FAILED(hr)) Fail(pszWhat, hr);
}

[[noreturn]] void Usage() {
  std::fputs(
      "usage:\n"
      "  kvtool demo ARCHIVE [MINUTES]\n"
      "  kvtool info ARCHIVE\n"
      "  kvtool write ARCHIVE RECORD TIME FLAGS TEXT...\n"
      "  kvtool read ARCHIVE RECORD TIME\n"
      "  kvtool next|prev ARCHIVE RECORD TIME [MASK [MODE]]\n"
      "  kvtool stat ARCHIVE RECORD FROM TO SECONDS [MASK [MODE]]\n"
      "times: 2021-03-07T12:34:56.780Z (UTC); MODE: any, all, exact, none\n",
      stderr);
  std::exit(2);
}

// ---- Times --------------------------------------------------------------------------------------

constexpr ULONGLONG kullTicksPerSecond = 10000000;

ULONGLONG Ticks(const FILETIME& ft) { return NSPlatform::FileTimeToU64(ft); }
FILETIME Time(ULONGLONG ull) { return NSPlatform::U64ToFileTime(ull); }

FILETIME ParseTime(const char* psz) {
  SYSTEMTIME st = {};
  unsigned y, mo, d, h, mi, s, ms = 0;
  char chSep = 0;
  const int n = std::sscanf(psz, "%4u-%2u-%2u%c%2u:%2u:%2u.%3u", &y, &mo, &d, &chSep, &h, &mi, &s, &ms);
  if (n < 7 || (chSep != 'T' && chSep != ' ')) {
    std::fprintf(stderr, "kvtool: not a time: %s\n", psz);
    std::exit(2);
  }
  st = {static_cast<WORD>(y), static_cast<WORD>(mo), 0, static_cast<WORD>(d), static_cast<WORD>(h),
        static_cast<WORD>(mi), static_cast<WORD>(s), static_cast<WORD>(n == 8 ? ms : 0)};
  FILETIME ft = {};
  if (!NSPlatform::SysTimeToFileTime(&st, &ft)) {
    std::fprintf(stderr, "kvtool: not a valid date: %s\n", psz);
    std::exit(2);
  }
  return ft;
}

std::string FormatTime(const FILETIME& ft) {
  SYSTEMTIME st = {};
  if (!NSPlatform::FileTimeToSysTime(&ft, &st)) return "(invalid)";
  char sz[64];
  std::snprintf(sz, sizeof(sz), "%04u-%02u-%02uT%02u:%02u:%02u.%03uZ", st.wYear, st.wMonth, st.wDay, st.wHour,
                st.wMinute, st.wSecond, st.wMilliseconds);
  return sz;
}

SFrameFilter ParseFilter(int argc, char** argv, int nFirst, bool* pbGiven) {
  SFrameFilter filter = {0, efmAny};
  *pbGiven = argc > nFirst;
  if (!*pbGiven) return filter;
  filter.dwMask = static_cast<DWORD>(std::strtoul(argv[nFirst], nullptr, 0));
  if (argc > nFirst + 1) {
    const std::string strMode = argv[nFirst + 1];
    if (strMode == "any") filter.eMode = efmAny;
    else if (strMode == "all") filter.eMode = efmAll;
    else if (strMode == "exact") filter.eMode = efmExact;
    else if (strMode == "none") filter.eMode = efmNone;
    else Usage();
  }
  return filter;
}

// ---- The library ----------------------------------------------------------------------------------

class CKronvale {
 public:
  CKronvale() {
    HMODULE hModule = nullptr;
    Check(NSPlatform::LoadDynamicLibrary(KV_W("kronvale.dll"), &hModule), "loading the Kronvale library");
    auto pfn = reinterpret_cast<PFNGETCLASSOBJECT>(NSPlatform::GetLibrarySymbol(hModule, "DllGetClassObject"));
    if (!pfn) Fail("finding DllGetClassObject", E_FAIL);
    Check(pfn(CLSID_Kronvale, IID_IArchiveFactory, reinterpret_cast<void**>(&m_pFactory)), "getting the archive factory");
  }
  // Opens the archive at strPath, or makes it when the path does not exist and bCreate is set.
  void Open(const std::string& strPath, bool bCreate, IKronvale** ppArchive) {
    const bool bExists = NSPlatform::PathExists(NSPlatform::Utf8ToWide(strPath).c_str());
    if (!bExists && bCreate)
      Check(m_pFactory->CreateArchive(CBstr(strPath), ppArchive), "creating the archive");
    else
      Check(m_pFactory->OpenArchive(CBstr(strPath), ppArchive), "opening the archive");
  }

 private:
  CPtr<IArchiveFactory> m_pFactory;
};

void PrintStatistic(IRecord* pRecord, const FILETIME& ftFrom, const FILETIME& ftTo, ULONGLONG ullResolution,
                    const SFrameFilter* pFilter) {
  DWORD dwCount = 0;
  SRecordStatistic* pRuns = nullptr;
  const HRESULT hr =
      pRecord->GetStatistic(ftFrom, ftTo, Time(ullResolution), pFilter, 0, &dwCount, &pRuns);
  if (hr == NSKronvale::khrNotFound) {
    std::puts("  (no frames)");
    return;
  }
  Check(hr, "GetStatistic");
  for (DWORD i = 0; i < dwCount; ++i)
    std::printf("  %s .. %s  flags 0x%08X  %u frames\n", FormatTime(pRuns[i].ftBegin).c_str(),
                FormatTime(pRuns[i].ftEnd).c_str(), static_cast<unsigned>(pRuns[i].dwFlags),
                static_cast<unsigned>(pRuns[i].dwCount));
  CoTaskMemFree(pRuns);
}

// ---- Commands ---------------------------------------------------------------------------------------

// A camera at 25 frames per second for the last MINUTES minutes: every 25th frame a key frame (flag
// 0x1), motion (flag 0x2) during the second half of every minute, and a 4 KiB picture per frame.
int Demo(CKronvale& kronvale, const std::string& strPath, unsigned nMinutes) {
  CPtr<IKronvale> pArchive;
  kronvale.Open(strPath, true, &pArchive);
  // Buffered hours, flushed by the archive every second: a recorder's usual choice.
  Check(pArchive->SetFlushTimeout(1000), "SetFlushTimeout");
  CPtr<IRecord> pCamera;
  Check(pArchive->CreateRecord(CBstr("camera1"), &pCamera), "creating record camera1");
  FILETIME ftNow;
  NSPlatform::GetUtcFileTime(&ftNow);
  const ULONGLONG ullStep = kullTicksPerSecond / 25;
  const ULONGLONG ullEnd = Ticks(ftNow) / ullStep * ullStep;
  const ULONGLONG ullStart = ullEnd - nMinutes * 60 * kullTicksPerSecond;
  std::vector<BYTE> vPicture(4096);
  unsigned cFrames = 0;
  const ULONGLONG ullClock = NSPlatform::GetTickCount64();
  for (ULONGLONG t = ullStart; t < ullEnd; t += ullStep, ++cFrames) {
    const ULONGLONG ullSecond = (t / kullTicksPerSecond) % 60;
    const DWORD dwFlags = (cFrames % 25 == 0 ? 0x1u : 0u) | (ullSecond >= 30 ? 0x2u : 0u);
    std::memcpy(vPicture.data(), &t, sizeof(t));
    std::memset(vPicture.data() + sizeof(t), static_cast<int>(cFrames & 0xFF), vPicture.size() - sizeof(t));
    SFrameBuffer buffer = {vPicture.data(), static_cast<DWORD>(vPicture.size())};
    Check(pCamera->Write(Time(t), dwFlags, &buffer, 1), "writing a frame");
  }
  const ULONGLONG ullMs = NSPlatform::GetTickCount64() - ullClock;
  std::printf("archive %s, record camera1: %u frames of 4 KiB written in %llu ms\n", strPath.c_str(), cFrames,
              static_cast<unsigned long long>(ullMs));

  // Read back through a reader object, as a player would.
  CPtr<IRecord> pPlayer;
  Check(pArchive->OpenRecord(CBstr("camera1"), &pPlayer), "opening a reader");
  unsigned cKeyFrames = 0;
  const SFrameFilter key = {0x1, efmAny};
  for (FILETIME ft = Time(ullStart - 1); SUCCEEDED(pPlayer->GetNext(ft, &key, &ft));) ++cKeyFrames;
  std::printf("key frames found by GetNext: %u\n", cKeyFrames);
  SFrameBuffer out = {nullptr, 0};
  DWORD dwFlags = 0;
  Check(pPlayer->Read(Time(ullStart), &dwFlags, &out, 1), "reading the first frame");
  ULONGLONG ullStamp = 0;
  std::memcpy(&ullStamp, out.pData, sizeof(ullStamp));
  std::printf("first frame %s: %u bytes, flags 0x%X, %s\n", FormatTime(Time(ullStart)).c_str(),
              static_cast<unsigned>(out.dwDataSize), static_cast<unsigned>(dwFlags),
              ullStamp == ullStart ? "content verified" : "CONTENT MISMATCH");
  CoTaskMemFree(out.pData);
  std::puts("periods of motion (10 s resolution):");
  const SFrameFilter motion = {0x2, efmAny};
  PrintStatistic(pPlayer.p, Time(ullStart), Time(ullEnd), 10 * kullTicksPerSecond, &motion);
  SArchiveInfo info = {};
  Check(pArchive->GetInfo(&info), "GetInfo");
  std::printf("free on the volume: %llu MiB\n", static_cast<unsigned long long>(info.ullFreeDiskSpace >> 20));
  pArchive->Free();
  return ullStamp == ullStart ? 0 : 1;
}

int Info(CKronvale& kronvale, const std::string& strPath) {
  CPtr<IKronvale> pArchive;
  kronvale.Open(strPath, false, &pArchive);
  SArchiveInfo info = {};
  Check(pArchive->GetInfo(&info), "GetInfo");
  std::printf("free on the volume   %llu bytes\n", static_cast<unsigned long long>(info.ullFreeDiskSpace));
  std::printf("archive size         %llu bytes (as last measured)\n", static_cast<unsigned long long>(info.ullArchiveSize));
  std::printf("minimum free space   %llu bytes\n", static_cast<unsigned long long>(info.ullMinimumFreeDiskSpace));
  std::printf("maximum size         %llu bytes\n", static_cast<unsigned long long>(info.ullMaximumArchiveSize));
  std::printf("flush timeout        %u ms\n", static_cast<unsigned>(info.dwFlushTimeout));
  BSTR* pNames = nullptr;
  DWORD cNames = 0;
  Check(pArchive->GetRecords(&pNames, &cNames), "GetRecords");
  for (DWORD i = 0; i < cNames; ++i) {
    std::printf("record %s\n", NSPlatform::WideToUtf8(WString(pNames[i], SysStringLen(pNames[i]))).c_str());
    SysFreeString(pNames[i]);
  }
  CoTaskMemFree(pNames);
  pArchive->Free();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) Usage();
  const std::string strCommand = argv[1];
  const std::string strArchive = argv[2];
  CKronvale kronvale;
  if (strCommand == "demo") return Demo(kronvale, strArchive, argc > 3 ? static_cast<unsigned>(std::atoi(argv[3])) : 5);
  if (strCommand == "info") return Info(kronvale, strArchive);
  if (argc < 5) Usage();
  CPtr<IKronvale> pArchive;
  CPtr<IRecord> pRecord;
  const FILETIME ft = ParseTime(argv[4]);
  if (strCommand == "write") {
    if (argc < 6) Usage();
    kronvale.Open(strArchive, true, &pArchive);
    Check(pArchive->CreateRecord(CBstr(argv[3]), &pRecord), "CreateRecord");
    std::vector<SFrameBuffer> vBuffers;
    for (int i = 6; i < argc; ++i)
      vBuffers.push_back({reinterpret_cast<BYTE*>(argv[i]), static_cast<DWORD>(std::strlen(argv[i]))});
    Check(pRecord->Write(ft, static_cast<DWORD>(std::strtoul(argv[5], nullptr, 0)),
                         vBuffers.empty() ? nullptr : vBuffers.data(), static_cast<DWORD>(vBuffers.size())),
          "Write");
    std::printf("%s written\n", FormatTime(ft).c_str());
  } else {
    kronvale.Open(strArchive, false, &pArchive);
    Check(pArchive->OpenRecord(CBstr(argv[3]), &pRecord), "OpenRecord");
    if (strCommand == "read") {
      SFrameBuffer aBuffers[16] = {};
      DWORD dwFlags = 0;
      // As many buffers as the frame has: ask for fewer until the record agrees.
      DWORD dwCount = 16;
      HRESULT hr;
      while ((hr = pRecord->Read(ft, &dwFlags, aBuffers, dwCount)) == NSKronvale::khrInsufficientBuffer && dwCount > 1)
        --dwCount;
      Check(hr, "Read");
      std::printf("%s flags 0x%08X, %u buffers\n", FormatTime(ft).c_str(), static_cast<unsigned>(dwFlags),
                  static_cast<unsigned>(dwCount));
      for (DWORD i = 0; i < dwCount; ++i) {
        std::printf("  %u bytes: ", static_cast<unsigned>(aBuffers[i].dwDataSize));
        for (DWORD b = 0; b < aBuffers[i].dwDataSize && b < 64; ++b) {
          const BYTE by = aBuffers[i].pData[b];
          std::putchar(by >= 32 && by < 127 ? by : '.');
        }
        std::putchar('\n');
        CoTaskMemFree(aBuffers[i].pData);
      }
    } else if (strCommand == "next" || strCommand == "prev") {
      bool bFilter = false;
      const SFrameFilter filter = ParseFilter(argc, argv, 5, &bFilter);
      FILETIME ftFound;
      const HRESULT hr = strCommand == "next" ? pRecord->GetNext(ft, bFilter ? &filter : nullptr, &ftFound)
                                              : pRecord->GetPrev(ft, bFilter ? &filter : nullptr, &ftFound);
      if (hr == NSKronvale::khrNotFound) {
        std::puts("no such frame");
        return 1;
      }
      Check(hr, strCommand.c_str());
      std::puts(FormatTime(ftFound).c_str());
    } else if (strCommand == "stat") {
      if (argc < 7) Usage();
      bool bFilter = false;
      const SFrameFilter filter = ParseFilter(argc, argv, 7, &bFilter);
      const double dSeconds = std::atof(argv[6]);
      if (dSeconds < 0.001) Usage();
      PrintStatistic(pRecord.p, ft, ParseTime(argv[5]), static_cast<ULONGLONG>(dSeconds * kullTicksPerSecond),
                     bFilter ? &filter : nullptr);
    } else {
      Usage();
    }
  }
  pArchive->Free();
  return 0;
}
