// Extracts on the native build: the record's extract operation, marshaling (the packet built in
// its temporary file, then copied into a target stream) and unmarshaling (a new extract read from
// that stream), against a plain copy of a file of the packet's size in the same run (once before
// the workload, on fresh memory, and once after it, on the memory it freed), with the
// process's peak resident memory during each phase beyond what it held when the phase began.
// bench/README.md explains the table. Nothing here asserts a speed or a size.
//
//   kv_extract_bench [MiB of 64 KiB frames, default 1024] [large|small|both, default both] [passes, default 1]
//
// A second pass runs on memory the first one freed, as a long-lived process does: on a virtual
// machine that hands out memory on first touch, its figures compare like with like.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <kronvale/KronvaleResults.h>

#include "BenchSupport.h"
#include "archive/ArchiveImpl.h"
#include "com/ComKit.h"
#include "hours/KronvaleUtils.h"
#include "records/RecordExtract.h"
#include "records/StreamOnFile.h"

// After the COM base: glibc's <fcntl.h> defines LOCK_WRITE, a name of the LOCKTYPE enumeration.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

using namespace NSBench;
using NSRecords::CRecordExtract;
using NSRecords::CStreamOnFile;

namespace {

constexpr ULONG kulFlushTimeout = 1000;  // hours opened buffered
constexpr double kdMiB = 1024.0 * 1024.0;

// VmRSS or VmHWM of this process in bytes (Linux).
double StatusBytes(const char* pszField) {
  std::ifstream status("/proc/self/status");
  std::string strLine;
  while (std::getline(status, strLine))
    if (strLine.rfind(pszField, 0) == 0) return std::atof(strLine.c_str() + std::strlen(pszField) + 1) * 1024.0;
  return 0.0;
}
// Starts a new peak: the high-water mark falls back to the current resident size.
void ResetPeak() {
  const int fd = ::open("/proc/self/clear_refs", O_WRONLY);
  if (fd < 0 || ::write(fd, "5", 1) != 1) Die("resetting the peak resident size", errno);
  ::close(fd);
}
// Measures one phase: seconds, and the peak resident bytes beyond those held at its start.
template <class TFunction>
void Phase(const char* pszName, double dBytes, TFunction fn, double* pdSeconds, double* pdExtraPeak) {
  ::sync();
  // Memory freed by earlier phases goes back to the system, so that a phase's growth shows.
  ::malloc_trim(0);
  ResetPeak();
  const double dBefore = StatusBytes("VmRSS:");
  CStopwatch watch;
  fn();
  *pdSeconds = watch.Seconds();
  *pdExtraPeak = StatusBytes("VmHWM:") - dBefore;
  std::printf("  %-28s %8.3f s %9.1f MiB/s   peak +%8.1f MiB\n", pszName, *pdSeconds, dBytes / kdMiB / *pdSeconds,
              *pdExtraPeak / kdMiB);
}

// A plain copy of a file, 1 MiB at a time.
void CopyFile(const std::string& strFrom, const std::string& strTo) {
  const int fdFrom = ::open(strFrom.c_str(), O_RDONLY);
  const int fdTo = ::open(strTo.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fdFrom < 0 || fdTo < 0) Die("opening the copy's files", errno);
  std::vector<char> v(1 << 20);
  for (;;) {
    const ssize_t n = ::read(fdFrom, v.data(), v.size());
    if (n < 0) Die("reading the copy's source", errno);
    if (n == 0) break;
    WriteAll(fdTo, v.data(), static_cast<size_t>(n), "writing the copy");
  }
  ::close(fdFrom);
  ::close(fdTo);
}

// The baseline: cb bytes copied from one file into another (the source written first, not timed).
void PlainCopy(const WString& strRoot, const char* pszName, DWORD cb, double* pdSeconds) {
  const std::string strFrom = NSPlatform::WideToUtf8(NSPlatform::CombinePath(strRoot, KV_W("copy-from")));
  const std::string strTo = NSPlatform::WideToUtf8(NSPlatform::CombinePath(strRoot, KV_W("copy-to")));
  {
    const int fd = ::open(strFrom.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::vector<char> v(1 << 20, 'x');
    for (DWORD cbLeft = cb; cbLeft;) {
      const DWORD cbPart = std::min<DWORD>(cbLeft, static_cast<DWORD>(v.size()));
      WriteAll(fd, v.data(), cbPart, "writing the copy's source");
      cbLeft -= cbPart;
    }
    ::close(fd);
  }
  double dPeak = 0;
  Phase(pszName, cb, [&] { CopyFile(strFrom, strTo); }, pdSeconds, &dPeak);
  ::unlink(strFrom.c_str());
  ::unlink(strTo.c_str());
}

void Workload(const WString& strRoot, const char* pszName, DWORD cFrames, DWORD cbFrame) {
  std::printf("%s: %u frames of %u bytes (%.1f MiB)\n", pszName, cFrames, cbFrame, double(cFrames) * cbFrame / kdMiB);
  // The baseline first, while the process has touched little memory: on a virtual machine whose
  // host hands out memory on first touch, every phase below meets fresh memory too (the packet's
  // files, the receiver's frames), whereas the copy at the end reuses what they freed.
  const DWORD cbExpected = CRecordExtract::kcbPacketHeader + cFrames * (CRecordExtract::kcbFrameHeader + 4 + cbFrame);
  double dCopyFresh = 0;
  PlainCopy(strRoot, "plain file copy, fresh", cbExpected, &dCopyFresh);
  const WString strArchive = NSPlatform::CombinePath(strRoot, NSPlatform::Utf8ToWide(pszName));
  Check(NSPlatform::CreateDirTree(strArchive.c_str()), "creating the archive directory");
  NSCom::CComObject<NSArchive::CArchiveImpl>* pArchiveObject = nullptr;
  Check(NSCom::CComObject<NSArchive::CArchiveImpl>::CreateInstance(&pArchiveObject), "creating the archive");
  NSCom::CComPtr<IKronvale> pArchive(pArchiveObject);
  Check(pArchiveObject->Create(strArchive), "IKronvale::Create");
  Check(pArchive->SetFlushTimeout(kulFlushTimeout), "IKronvale::SetFlushTimeout");
  NSCom::CComPtr<IRecord> pRecord;
  NSCom::CComBSTR bstrName(KV_W("cam"));
  Check(pArchive->CreateRecord(bstrName, &pRecord), "IKronvale::CreateRecord");
  // One frame every 40 ms from 2021-03-07 00:00 UTC.
  const ULONGLONG ullStart = Ticks(SYSTEMTIME{2021, 3, 0, 7, 0, 0, 0, 0});
  std::vector<BYTE> vData(cbFrame);
  for (DWORD i = 0; i < cFrames; ++i) {
    std::memcpy(vData.data(), &i, sizeof(i));
    const SFrameBuffer buffer = {vData.data(), cbFrame};
    Check(pRecord->Write(NSPlatform::U64ToFileTime(ullStart + ULONGLONG{i} * 400000), i & 3, &buffer, 1), "IRecord::Write");
  }
  const double dData = double(cFrames) * cbFrame;

  double dSeconds = 0, dPeak = 0;
  NSCom::CComPtr<IRecord> pExtract;
  Phase("extract", dData, [&] {
    Check(pRecord->Extract(NSPlatform::U64ToFileTime(ullStart), FILETIME{cFrames, 0xFFFFFFFFu}, nullptr, 1, &pExtract),
          "IRecord::Extract");
  }, &dSeconds, &dPeak);

  NSCom::CComPtr<IMarshal> pMarshal;
  Check(pExtract->QueryInterface(IID_IMarshal, reinterpret_cast<void**>(&pMarshal)), "QueryInterface(IMarshal)");
  CStreamOnFile* pTargetObject = nullptr;
  Check(CStreamOnFile::Create(&pTargetObject), "creating the target stream");
  NSCom::CComPtr<IStream> pTarget;
  pTarget.Attach(pTargetObject);
  double dMarshal = 0, dMarshalPeak = 0, dUnmarshal = 0, dUnmarshalPeak = 0;
  DWORD cbPacket = 0;
  Phase("marshal (build + copy out)", dData, [&] {
    Check(pMarshal->GetMarshalSizeMax(IID_IRecord, pExtract, MSHCTX_DIFFERENTMACHINE, nullptr, 0, &cbPacket),
          "IMarshal::GetMarshalSizeMax");
    Check(pMarshal->MarshalInterface(pTarget, IID_IRecord, pExtract, MSHCTX_DIFFERENTMACHINE, nullptr, 0),
          "IMarshal::MarshalInterface");
  }, &dMarshal, &dMarshalPeak);
  // The sender keeps its extract while the receiver's is made, as two processes would.

  NSCom::CComPtr<IRecord> pCopy;
  Phase("unmarshal", dData, [&] {
    LARGE_INTEGER liZero = {};
    Check(pTarget->Seek(liZero, STREAM_SEEK_SET, nullptr), "IStream::Seek");
    CRecordExtract* pShell = nullptr;
    NSCom::CComObject<CRecordExtract>* pNew = nullptr;
    Check(NSCom::CComObject<CRecordExtract>::CreateInstance(&pNew), "creating an extract");
    pShell = pNew;
    NSCom::CComPtr<IRecord> pHold(static_cast<IRecord*>(pShell));
    Check(pShell->UnmarshalInterface(pTarget, IID_IRecord, reinterpret_cast<void**>(&pCopy)), "IMarshal::UnmarshalInterface");
  }, &dUnmarshal, &dUnmarshalPeak);
  FILETIME ftLast = {};
  Check(pCopy->GetPrev(FILETIME{0xFFFFFFFFu, 0x7FFFFFFFu}, nullptr, &ftLast), "IRecord::GetPrev");
  if (NSPlatform::FileTimeToU64(ftLast) != ullStart + ULONGLONG{cFrames - 1} * 400000) Die("the copy's last frame", 0);
  pCopy.Release();
  pTarget.Release();
  pMarshal.Release();
  pExtract.Release();

  // The baseline again, now that the phases above have freed their memory: the copy reuses it.
  double dCopy = 0;
  PlainCopy(strRoot, "plain file copy", cbPacket, &dCopy);

  const double dRoundTrip = dMarshal + dUnmarshal;
  std::printf("  packet %.1f MiB; marshal+unmarshal %.1f MiB/s = %.0f%% of the copy's %.1f MiB/s (goal >= 50%%); "
              "%.0f%% of the fresh copy's %.1f MiB/s\n",
              cbPacket / kdMiB, cbPacket / kdMiB / dRoundTrip, 100.0 * dCopy / dRoundTrip, cbPacket / kdMiB / dCopy,
              100.0 * dCopyFresh / dRoundTrip, cbExpected / kdMiB / dCopyFresh);
  std::printf("  peak beyond the extract's frames: marshal +%.1f MiB, unmarshal +%.1f MiB beyond its %.1f MiB of frames "
              "(goal: one frame, %.3f MiB, plus a fixed buffer)\n\n",
              dMarshalPeak / kdMiB, (dUnmarshalPeak - dData) / kdMiB, dData / kdMiB, cbFrame / kdMiB);
  pRecord.Release();
  pArchive->Free();
  Check(NSKronvaleUtils::DeleteFileSystemObject(strArchive), "deleting the archive");
}

}  // namespace

int main(int argc, char** argv) {
  ProgramName() = "kv_extract_bench";
  const DWORD cMiB = argc > 1 ? static_cast<DWORD>(std::atoi(argv[1])) : 1024;
  const WString strRoot = MakeRunDirectory();
  const std::string strOnly = argc > 2 && std::strcmp(argv[2], "both") ? argv[2] : "";
  const int cPasses = argc > 3 ? std::max(1, std::atoi(argv[3])) : 1;
  for (int nPass = 1; nPass <= cPasses; ++nPass) {
    if (cPasses > 1) std::printf("=== pass %d of %d\n", nPass, cPasses);
    if (strOnly.empty() || strOnly == "large") Workload(strRoot, "large", cMiB * 16, 64 * 1024);
    if (strOnly.empty() || strOnly == "small") Workload(strRoot, "small", 100000, 256);
  }
  NSKronvaleUtils::DeleteFileSystemObject(strRoot);
  return 0;
}
