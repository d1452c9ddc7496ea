// A second process beside a recording one: it may read everything the recorder wrote, and it may
// not write, delete or repair. The test program runs itself again as that second process, which
// finds the archive in an environment variable and runs the SecondProcess tests only.
#include <gtest/gtest.h>

#include <kronvale/KronvaleResults.h>
#include <kronvale/kronvale.h>
#include <kronvale/KronvaleClient.h>

#include <cstdlib>
#include <string>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#else
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
extern char** environ;
#endif

#include "common/TempDir.h"
#include "module/Library.h"

using namespace NSKronvale;

namespace {

constexpr char kszArchiveVariable[] = "KV_TEST_SECOND_PROCESS_ARCHIVE";
const FILETIME kftFrame = {0x2A69C000u, 0x01D71234u};

// This test program run again with the tests of one suite only and the archive's path in the
// environment. Wait answers its exit code (0 when every expectation held there, and no sanitizer
// complained).
class CSecondProcess {
 public:
  CSecondProcess(const WString& strArchive, const char* pszSuite) {
    const std::string strFilter = std::string("--gtest_filter=") + pszSuite + ".*";
#ifdef _WIN32
    ::SetEnvironmentVariableA(kszArchiveVariable, NSPlatform::WideToUtf8(strArchive).c_str());
    WCHAR szSelf[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, szSelf, MAX_PATH);
    std::wstring strCommand = L"\"" + std::wstring(szSelf) + L"\" " + NSPlatform::Utf8ToWide(strFilter);
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    PROCESS_INFORMATION pi = {};
    if (::CreateProcessW(szSelf, strCommand.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) {
      ::CloseHandle(pi.hThread);
      m_hProcess = pi.hProcess;
    }
    ::SetEnvironmentVariableA(kszArchiveVariable, nullptr);
#else
    ::setenv(kszArchiveVariable, NSPlatform::WideToUtf8(strArchive).c_str(), 1);
    char szSelf[4096] = {};
    if (::readlink("/proc/self/exe", szSelf, sizeof(szSelf) - 1) > 0) {
      char* apszArgs[] = {szSelf, const_cast<char*>(strFilter.c_str()), nullptr};
      if (::posix_spawn(&m_pid, szSelf, nullptr, nullptr, apszArgs, environ) != 0) m_pid = 0;
    }
    ::unsetenv(kszArchiveVariable);
#endif
  }
  ~CSecondProcess() { Wait(); }
  CSecondProcess(const CSecondProcess&) = delete;
  CSecondProcess& operator=(const CSecondProcess&) = delete;

  int Wait() {
#ifdef _WIN32
    if (!m_hProcess) return m_nExit;
    ::WaitForSingleObject(m_hProcess, INFINITE);
    DWORD dwExit = 1;
    ::GetExitCodeProcess(m_hProcess, &dwExit);
    ::CloseHandle(m_hProcess);
    m_hProcess = nullptr;
    m_nExit = static_cast<int>(dwExit);
#else
    if (!m_pid) return m_nExit;
    int nStatus = 0;
    m_nExit = ::waitpid(m_pid, &nStatus, 0) == m_pid && WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    m_pid = 0;
#endif
    return m_nExit;
  }

 private:
#ifdef _WIN32
  HANDLE m_hProcess = nullptr;
#else
  pid_t m_pid = 0;
#endif
  int m_nExit = -1;
};

int RunSecondProcess(const WString& strArchive, const char* pszSuite = "SecondProcess") {
  return CSecondProcess(strArchive, pszSuite).Wait();
}

// The archive a first process handed this one, and the directory holding it (with its trailing
// separator) where the two processes leave each other their marks; false when this process was not
// started as a second process.
bool SecondProcessArchive(WString* pstrArchive, WString* pstrDirectory = nullptr) {
  const char* pszArchive = std::getenv(kszArchiveVariable);
  if (!pszArchive) return false;
  *pstrArchive = NSPlatform::Utf8ToWide(pszArchive);
  if (pstrDirectory) {
    *pstrDirectory = *pstrArchive;
    while (!pstrDirectory->empty() && !NSPlatform::IsPathSeparator(pstrDirectory->back())) pstrDirectory->pop_back();
  }
  return true;
}

// Waits (at most a minute) for a file another process makes when it reaches a point.
bool WaitForFile(const WString& strPath) {
  for (int i = 0; i < 6000; ++i) {
    if (NSPlatform::PathExists(strPath.c_str())) return true;
    NSPlatform::SleepMs(10);
  }
  return false;
}

// The library's archive factory; null, after a failed expectation, when the library did not load.
void GetFactory(NSTest::CLibrary& library, IArchiveFactory** ppFactory) {
  *ppFactory = nullptr;
  ASSERT_TRUE(library.IsLoaded());
  EXPECT_EQ(S_OK, library.GetClassObject()(CLSID_Kronvale, IID_IArchiveFactory, reinterpret_cast<void**>(ppFactory)));
}

// The second process's factory, from a library kept loaded to the end of the process, as a host
// keeps it: the archive stays in the factory's cache (this process must not delete the recorder's
// archive to empty it).
void GetSecondProcessFactory(IArchiveFactory** ppFactory) {
  static NSTest::CLibrary* s_pLibrary = new NSTest::CLibrary;
  GetFactory(*s_pLibrary, ppFactory);
}

// The recorder's frame, read by pReader.
std::string ReadTheFrame(IRecord* pReader) {
  SFrameBuffer buffer = {nullptr, 0};
  DWORD dwFlags = 0;
  EXPECT_EQ(S_OK, pReader->Read(kftFrame, &dwFlags, &buffer, 1));
  const std::string strFrame(reinterpret_cast<char*>(buffer.pData), buffer.pData ? buffer.dwDataSize : 0);
  CoTaskMemFree(buffer.pData);
  return strFrame;
}

// The first process's side: the library loaded with its factory, and a scratch directory holding
// the archive's path.
class CFirstProcess : public testing::Test {
 protected:
  void SetUp() override {
    GetFactory(m_library, &m_pFactory);
    ASSERT_TRUE(m_pFactory);
  }

  NSTest::CLibrary m_library;
  CPtr<IArchiveFactory> m_pFactory;
  NSTest::CTempDir m_dir;
  const WString m_strArchive = m_dir.Sub(KV_W("arc"));
};
using RecordingProcess = CFirstProcess;
using RepairingProcess = CFirstProcess;

}  // namespace

// The recorder: makes an archive, writes a frame and keeps its writer while the second process
// runs, then writes on and deletes the record itself.
TEST_F(RecordingProcess, ASecondProcessReadsButNeitherWritesNorDeletes) {
  CPtr<IKronvale> pArchive;
  ASSERT_EQ(S_OK, m_pFactory->CreateArchive(CBstr(m_strArchive), &pArchive));
  CPtr<IRecord> pWriter;
  ASSERT_EQ(S_OK, pArchive->CreateRecord(CBstr(KV_W("cam")), &pWriter));
  BYTE abData[] = {'f', 'r', 'a', 'm', 'e'};
  const SFrameBuffer buffer = {abData, sizeof(abData)};
  ASSERT_EQ(S_OK, pWriter->Write(kftFrame, 1, &buffer, 1));

  EXPECT_EQ(0, RunSecondProcess(m_strArchive));

  // The recorder goes on as if nothing had happened.
  const FILETIME ftNext = {kftFrame.dwLowDateTime + 400000u, kftFrame.dwHighDateTime};
  EXPECT_EQ(S_OK, pWriter->Write(ftNext, 1, &buffer, 1));
  DWORD dwFlags = 0;
  EXPECT_EQ(S_FALSE, pWriter->Read(kftFrame, &dwFlags, nullptr, 0));
  // The factory forgets the archive, so that the library holds no object after the test.
  pWriter.Reset();
  pArchive.Reset();
  EXPECT_EQ(S_OK, m_pFactory->DeleteArchive(CBstr(m_strArchive)));
}

// Runs only as the second process (skipped when the variable is not set).
TEST(SecondProcess, ReadsTheRecordingAndIsRefusedItsWriter) {
  WString strArchive;
  if (!SecondProcessArchive(&strArchive)) GTEST_SKIP() << "runs as the second process of RecordingProcess only";
  CPtr<IArchiveFactory> pFactory;
  GetSecondProcessFactory(&pFactory);
  ASSERT_TRUE(pFactory);
  CPtr<IKronvale> pArchive;
  ASSERT_EQ(S_OK, pFactory->OpenArchive(CBstr(strArchive), &pArchive));

  CPtr<IRecord> pReader;
  ASSERT_EQ(S_OK, pArchive->OpenRecord(CBstr(KV_W("cam")), &pReader));
  EXPECT_EQ("frame", ReadTheFrame(pReader.p));

  CPtr<IRecord> pWriter;
  EXPECT_EQ(khrSharingViolation, pArchive->CreateRecord(CBstr(KV_W("cam")), &pWriter));
  EXPECT_EQ(nullptr, pWriter.p);
  EXPECT_EQ(khrSharingViolation, pArchive->DeleteRecord(CBstr(KV_W("cam"))));
  // A record nobody writes is this process's to write.
  CPtr<IRecord> pOther;
  EXPECT_EQ(S_OK, pArchive->CreateRecord(CBstr(KV_W("other")), &pOther));
}

// A process that ends while its archive works (a flusher every millisecond, a size-and-quota pass,
// frames still unflushed) and never releases anything: exit stops the workers before the library's
// static objects go, so the sanitizer presets see no use after free and no race.
TEST(ExitingProcess, EndsCleanlyWhileItsArchiveWorks) {
  NSTest::CTempDir dir;
  EXPECT_EQ(0, RunSecondProcess(dir.Sub(KV_W("arc")), "ExitWhileWorking"));
}

TEST(ExitWhileWorking, ExitsHoldingItsArchive) {
  WString strArchive;
  if (!SecondProcessArchive(&strArchive)) GTEST_SKIP() << "runs as the second process of ExitingProcess only";
  IArchiveFactory* pFactory = nullptr;  // never released: the process ends with it
  GetSecondProcessFactory(&pFactory);
  ASSERT_TRUE(pFactory);
  IKronvale* pArchive = nullptr;
  ASSERT_EQ(S_OK, pFactory->CreateArchive(CBstr(strArchive), &pArchive));
  ASSERT_EQ(S_OK, pArchive->SetFlushTimeout(1));
  ASSERT_EQ(S_OK, pArchive->SetQuota(1ull << 40, 0));  // a limit, so the pass has work to do
  IRecord* pWriter = nullptr;
  ASSERT_EQ(S_OK, pArchive->CreateRecord(CBstr(KV_W("cam")), &pWriter));
  BYTE abData[4096] = {};
  const SFrameBuffer buffer = {abData, sizeof(abData)};
  for (DWORD i = 0; i < 300; ++i) {
    const FILETIME ft = {kftFrame.dwLowDateTime + i * 400000u, kftFrame.dwHighDateTime};
    ASSERT_EQ(S_OK, pWriter->Write(ft, 1, &buffer, 1));
  }
  std::exit(0);
}

// A writer repairs an hour torn by a crash while a reading process has that hour open (its files
// and its index mapped): the repair must neither fail for the reader's handles nor leave the hour
// without its index, and the reader goes on reading what it has.
TEST_F(RepairingProcess, RepairsAnHourThatASecondProcessHoldsOpen) {
  BYTE abData[] = {'f', 'r', 'a', 'm', 'e'};
  const SFrameBuffer buffer = {abData, sizeof(abData)};
  auto at = [](DWORD dwSeconds) {
    const ULONGLONG ull = (ULONGLONG{kftFrame.dwHighDateTime} << 32 | kftFrame.dwLowDateTime) + ULONGLONG{dwSeconds} * 10000000;
    return FILETIME{static_cast<DWORD>(ull), static_cast<DWORD>(ull >> 32)};
  };
  {
    CPtr<IKronvale> pArchive;
    ASSERT_EQ(S_OK, m_pFactory->CreateArchive(CBstr(m_strArchive), &pArchive));
    CPtr<IRecord> pWriter;
    ASSERT_EQ(S_OK, pArchive->CreateRecord(CBstr(KV_W("cam")), &pWriter));
    for (DWORD i = 0; i < 3; ++i) ASSERT_EQ(S_OK, pWriter->Write(at(i), 1, &buffer, 1));
    pWriter.Reset();
    // Its records let go of their files, as a crashed recorder's would.
    ASSERT_EQ(S_OK, pArchive->Free());
  }
  // The crash tore the last frame of the hour.
  std::vector<NSPlatform::SDirEntry> vYears;
  WString strHour = m_strArchive + KV_W("/cam");
  for (int nLevel = 0; nLevel < 4; ++nLevel) {
    std::vector<NSPlatform::SDirEntry> v;
    ASSERT_EQ(S_OK, NSPlatform::ListDir(strHour.c_str(), &v));
    WString strNext;
    for (const auto& entry : v)
      if (entry.IsDirectory()) strNext = entry.strName;
    ASSERT_FALSE(strNext.empty());
    strHour = NSPlatform::CombinePath(strHour, strNext);
  }
  const WString strData = NSPlatform::CombinePath(strHour, KV_W("data.al"));
  std::string strBytes;
  ASSERT_EQ(S_OK, NSTest::ReadFileBytes(strData, &strBytes));
  strBytes.resize(strBytes.size() - 30);
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(strData, strBytes));

  CSecondProcess reader(m_strArchive, "HoldingReader");
  ASSERT_TRUE(WaitForFile(m_dir.Sub(KV_W("ready"))));
  {
    CPtr<IKronvale> pArchive;
    ASSERT_EQ(S_OK, m_pFactory->OpenArchive(CBstr(m_strArchive), &pArchive));
    CPtr<IRecord> pWriter;
    ASSERT_EQ(S_OK, pArchive->CreateRecord(CBstr(KV_W("cam")), &pWriter));
    DWORD dwFlags = 0;
    EXPECT_EQ(S_FALSE, pWriter->Read(at(1), &dwFlags, nullptr, 0));
    EXPECT_EQ(S_FALSE, pWriter->Read(at(0), &dwFlags, nullptr, 0));
    EXPECT_EQ(khrNotFound, pWriter->Read(at(2), &dwFlags, nullptr, 0));
    EXPECT_EQ(S_OK, pWriter->Write(at(3), 1, &buffer, 1));
    ASSERT_EQ(S_OK, NSTest::WriteFileBytes(m_dir.Sub(KV_W("done")), "done"));
    EXPECT_EQ(0, reader.Wait());
    EXPECT_EQ(S_FALSE, pWriter->Read(at(3), &dwFlags, nullptr, 0));
    pWriter.Reset();
    pArchive.Reset();
  }
  for (const WCHAR* pszName : {KV_W("descriptor.alh"), KV_W("descriptor.ald")})
    EXPECT_TRUE(NSPlatform::PathExists(NSPlatform::CombinePath(strHour, pszName).c_str()));
  EXPECT_EQ(S_OK, m_pFactory->DeleteArchive(CBstr(m_strArchive)));
}

TEST(HoldingReader, HoldsTheHourOpenUntilTold) {
  WString strArchive, strDirectory;
  if (!SecondProcessArchive(&strArchive, &strDirectory)) GTEST_SKIP() << "runs as the second process of RepairingProcess only";
  CPtr<IArchiveFactory> pFactory;
  GetSecondProcessFactory(&pFactory);
  ASSERT_TRUE(pFactory);
  CPtr<IKronvale> pArchive;
  ASSERT_EQ(S_OK, pFactory->OpenArchive(CBstr(strArchive), &pArchive));
  CPtr<IRecord> pReader;
  ASSERT_EQ(S_OK, pArchive->OpenRecord(CBstr(KV_W("cam")), &pReader));
  EXPECT_EQ("frame", ReadTheFrame(pReader.p));
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(strDirectory + KV_W("ready"), "ready"));
  ASSERT_TRUE(WaitForFile(strDirectory + KV_W("done")));
  // What it had open still reads.
  EXPECT_EQ("frame", ReadTheFrame(pReader.p));
}

namespace {

// The start of the hour the clock is in, plus dwSeconds.
FILETIME InThisHour(const FILETIME& ftHour, DWORD dwSeconds) {
  const ULONGLONG ull = (ULONGLONG{ftHour.dwHighDateTime} << 32 | ftHour.dwLowDateTime) + ULONGLONG{dwSeconds} * 10000000;
  return FILETIME{static_cast<DWORD>(ull), static_cast<DWORD>(ull >> 32)};
}

std::string ReadAt(IRecord* pReader, const FILETIME& ft) {
  SFrameBuffer buffer = {nullptr, 0};
  DWORD dwFlags = 0;
  if (FAILED(pReader->Read(ft, &dwFlags, &buffer, 1))) return "failed";
  const std::string str(reinterpret_cast<char*>(buffer.pData), buffer.pData ? buffer.dwDataSize : 0);
  CoTaskMemFree(buffer.pData);
  return str;
}

}  // namespace

// A viewer in another process follows the hour being recorded: what the recorder appends after
// the viewer's last look shows at the viewer's next step, also after the viewer has been to an old
// hour and come back. (An hour that ended long ago may be taken as settled; this one may not.)
TEST(LiveRecordingProcess, AReaderInASecondProcessFollowsTheCurrentHour) {
  NSTest::CLibrary library;
  CPtr<IArchiveFactory> pFactory;
  GetFactory(library, &pFactory);
  ASSERT_TRUE(pFactory);
  NSTest::CTempDir dir;
  const WString strArchive = dir.Sub(KV_W("arc"));
  CPtr<IKronvale> pArchive;
  ASSERT_EQ(S_OK, pFactory->CreateArchive(CBstr(strArchive), &pArchive));
  CPtr<IRecord> pWriter;
  ASSERT_EQ(S_OK, pArchive->CreateRecord(CBstr(KV_W("cam")), &pWriter));
  FILETIME ftNow;
  NSPlatform::GetUtcFileTime(&ftNow);
  const ULONGLONG ullHour = (ULONGLONG{ftNow.dwHighDateTime} << 32 | ftNow.dwLowDateTime) / 36000000000ull * 36000000000ull;
  const FILETIME ftHour = {static_cast<DWORD>(ullHour), static_cast<DWORD>(ullHour >> 32)};
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(dir.Sub(KV_W("hour")), std::to_string(ullHour)));
  auto put = [&](const FILETIME& ft, std::string str) {
    const SFrameBuffer buffer = {reinterpret_cast<BYTE*>(str.data()), static_cast<DWORD>(str.size())};
    EXPECT_EQ(S_OK, pWriter->Write(ft, 1, &buffer, 1));
  };
  put(kftFrame, "old");
  put(InThisHour(ftHour, 1), "one");

  CSecondProcess viewer(strArchive, "FollowingReader");
  ASSERT_TRUE(WaitForFile(dir.Sub(KV_W("looked"))));
  put(InThisHour(ftHour, 2), "two");
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(dir.Sub(KV_W("two")), "two"));
  ASSERT_TRUE(WaitForFile(dir.Sub(KV_W("away"))));
  put(InThisHour(ftHour, 3), "three");
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(dir.Sub(KV_W("three")), "three"));
  EXPECT_EQ(0, viewer.Wait());
  pWriter.Reset();
  pArchive.Reset();
  EXPECT_EQ(S_OK, pFactory->DeleteArchive(CBstr(strArchive)));
}

TEST(FollowingReader, SeesEachNewFrameAtItsNextStep) {
  WString strArchive, strDirectory;
  if (!SecondProcessArchive(&strArchive, &strDirectory)) GTEST_SKIP() << "runs as the second process of LiveRecordingProcess only";
  std::string strHour;
  ASSERT_EQ(S_OK, NSTest::ReadFileBytes(strDirectory + KV_W("hour"), &strHour));
  const ULONGLONG ullHour = std::stoull(strHour);
  const FILETIME ftHour = {static_cast<DWORD>(ullHour), static_cast<DWORD>(ullHour >> 32)};
  auto secondOf = [&](const FILETIME& ft) {
    return static_cast<long long>(((ULONGLONG{ft.dwHighDateTime} << 32 | ft.dwLowDateTime) - ullHour) / 10000000);
  };
  CPtr<IArchiveFactory> pFactory;
  GetSecondProcessFactory(&pFactory);
  ASSERT_TRUE(pFactory);
  CPtr<IKronvale> pArchive;
  ASSERT_EQ(S_OK, pFactory->OpenArchive(CBstr(strArchive), &pArchive));
  CPtr<IRecord> pReader;
  ASSERT_EQ(S_OK, pArchive->OpenRecord(CBstr(KV_W("cam")), &pReader));

  FILETIME ftFound = {0, 0};
  ASSERT_EQ(S_OK, pReader->GetNext(ftHour, nullptr, &ftFound));
  EXPECT_EQ(1, secondOf(ftFound));
  EXPECT_EQ(khrNotFound, pReader->GetNext(InThisHour(ftHour, 1), nullptr, &ftFound));
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(strDirectory + KV_W("looked"), "looked"));

  ASSERT_TRUE(WaitForFile(strDirectory + KV_W("two")));
  ASSERT_EQ(S_OK, pReader->GetNext(InThisHour(ftHour, 1), nullptr, &ftFound));
  EXPECT_EQ(2, secondOf(ftFound));
  EXPECT_EQ("two", ReadAt(pReader.p, ftFound));

  // Off to an old hour, while the recorder appends to this one.
  EXPECT_EQ("old", ReadAt(pReader.p, kftFrame));
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(strDirectory + KV_W("away"), "away"));
  ASSERT_TRUE(WaitForFile(strDirectory + KV_W("three")));
  ASSERT_EQ(S_OK, pReader->GetNext(InThisHour(ftHour, 2), nullptr, &ftFound));
  EXPECT_EQ(3, secondOf(ftFound));
  EXPECT_EQ("three", ReadAt(pReader.p, ftFound));
}
