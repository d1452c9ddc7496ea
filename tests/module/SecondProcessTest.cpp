// A second process beside a recording one: it may read everything the recorder wrote, and it may
// not write, delete or repair. The test program runs itself again as that second process, which
// finds the archive in an environment variable and runs the SecondProcess tests only.
#include <gtest/gtest.h>

#include <kronvale/KronvaleResults.h>
#include <kronvale/kronvale.h>

#include <cstdlib>
#include <string>

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

class CBstr {
 public:
  explicit CBstr(const WString& str) : m_bstr(SysAllocStringLen(str.data(), static_cast<UINT>(str.size()))) {}
  ~CBstr() { SysFreeString(m_bstr); }
  CBstr(const CBstr&) = delete;
  CBstr& operator=(const CBstr&) = delete;
  operator BSTR() const { return m_bstr; }

 private:
  BSTR m_bstr;
};

template <class I>
struct CPtr {
  CPtr() = default;
  ~CPtr() { Reset(); }
  void Reset() {
    if (p) p->Release();
    p = nullptr;
  }
  CPtr(const CPtr&) = delete;
  CPtr& operator=(const CPtr&) = delete;
  I** operator&() { return &p; }
  I* operator->() const { return p; }
  I* p = nullptr;
};

// Runs this test program again with the tests of one suite only and the archive's path in the
// environment; its exit code (0 when every expectation held there, and no sanitizer complained).
int RunSecondProcess(const WString& strArchive, const char* pszSuite = "SecondProcess") {
  const std::string strFilter = std::string("--gtest_filter=") + pszSuite + ".*";
#ifdef _WIN32
  ::SetEnvironmentVariableA(kszArchiveVariable, NSPlatform::WideToUtf8(strArchive).c_str());
  WCHAR szSelf[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, szSelf, MAX_PATH);
  std::wstring strCommand = L"\"" + std::wstring(szSelf) + L"\" " + NSPlatform::Utf8ToWide(strFilter);
  STARTUPINFOW si = {};
  si.cb = sizeof(si);
  PROCESS_INFORMATION pi = {};
  if (!::CreateProcessW(szSelf, strCommand.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) return -1;
  ::WaitForSingleObject(pi.hProcess, INFINITE);
  DWORD dwExit = 1;
  ::GetExitCodeProcess(pi.hProcess, &dwExit);
  ::CloseHandle(pi.hThread);
  ::CloseHandle(pi.hProcess);
  ::SetEnvironmentVariableA(kszArchiveVariable, nullptr);
  return static_cast<int>(dwExit);
#else
  ::setenv(kszArchiveVariable, NSPlatform::WideToUtf8(strArchive).c_str(), 1);
  char szSelf[4096] = {};
  if (::readlink("/proc/self/exe", szSelf, sizeof(szSelf) - 1) <= 0) return -1;
  char* apszArgs[] = {szSelf, const_cast<char*>(strFilter.c_str()), nullptr};
  pid_t pid = 0;
  const int nSpawn = ::posix_spawn(&pid, szSelf, nullptr, nullptr, apszArgs, environ);
  ::unsetenv(kszArchiveVariable);
  int nStatus = 0;
  if (nSpawn != 0 || ::waitpid(pid, &nStatus, 0) != pid) return -1;
  return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
#endif
}

}  // namespace

// The recorder: makes an archive, writes a frame and keeps its writer while the second process
// runs, then writes on and deletes the record itself.
TEST(RecordingProcess, ASecondProcessReadsButNeitherWritesNorDeletes) {
  NSModuleTest::CLibrary library;
  ASSERT_TRUE(library.IsLoaded());
  CPtr<IArchiveFactory> pFactory;
  ASSERT_EQ(S_OK, library.GetClassObject()(CLSID_Kronvale, IID_IArchiveFactory, reinterpret_cast<void**>(&pFactory)));
  NKvTest::CTempDir dir;
  const WString strArchive = dir.Sub(KV_W("arc"));
  CPtr<IKronvale> pArchive;
  ASSERT_EQ(S_OK, pFactory->CreateArchive(CBstr(strArchive), &pArchive));
  CPtr<IRecord> pWriter;
  ASSERT_EQ(S_OK, pArchive->CreateRecord(CBstr(KV_W("cam")), &pWriter));
  BYTE abData[] = {'f', 'r', 'a', 'm', 'e'};
  const SFrameBuffer buffer = {abData, sizeof(abData)};
  ASSERT_EQ(S_OK, pWriter->Write(kftFrame, 1, &buffer, 1));

  EXPECT_EQ(0, RunSecondProcess(strArchive));

  // The recorder goes on as if nothing had happened.
  const FILETIME ftNext = {kftFrame.dwLowDateTime + 400000u, kftFrame.dwHighDateTime};
  EXPECT_EQ(S_OK, pWriter->Write(ftNext, 1, &buffer, 1));
  DWORD dwFlags = 0;
  EXPECT_EQ(S_FALSE, pWriter->Read(kftFrame, &dwFlags, nullptr, 0));
  // The factory forgets the archive, so that the library holds no object after the test.
  pWriter.Reset();
  pArchive.Reset();
  EXPECT_EQ(S_OK, pFactory->DeleteArchive(CBstr(strArchive)));
}

// Runs only as the second process (skipped when the variable is not set).
TEST(SecondProcess, ReadsTheRecordingAndIsRefusedItsWriter) {
  const char* pszArchive = std::getenv(kszArchiveVariable);
  if (!pszArchive) GTEST_SKIP() << "runs as the second process of RecordingProcess only";
  const WString strArchive = NSPlatform::Utf8ToWide(pszArchive);
  // Kept loaded to the end of the process, as a host keeps it: the archive stays in the factory's
  // cache (this process must not delete the recorder's archive to empty it).
  static NSModuleTest::CLibrary* s_pLibrary = new NSModuleTest::CLibrary;
  ASSERT_TRUE(s_pLibrary->IsLoaded());
  CPtr<IArchiveFactory> pFactory;
  ASSERT_EQ(S_OK, s_pLibrary->GetClassObject()(CLSID_Kronvale, IID_IArchiveFactory, reinterpret_cast<void**>(&pFactory)));
  CPtr<IKronvale> pArchive;
  ASSERT_EQ(S_OK, pFactory->OpenArchive(CBstr(strArchive), &pArchive));

  CPtr<IRecord> pReader;
  ASSERT_EQ(S_OK, pArchive->OpenRecord(CBstr(KV_W("cam")), &pReader));
  SFrameBuffer buffer = {nullptr, 0};
  DWORD dwFlags = 0;
  ASSERT_EQ(S_OK, pReader->Read(kftFrame, &dwFlags, &buffer, 1));
  EXPECT_EQ("frame", std::string(reinterpret_cast<char*>(buffer.pData), buffer.dwDataSize));
  CoTaskMemFree(buffer.pData);

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
  NKvTest::CTempDir dir;
  EXPECT_EQ(0, RunSecondProcess(dir.Sub(KV_W("arc")), "ExitWhileWorking"));
}

TEST(ExitWhileWorking, ExitsHoldingItsArchive) {
  const char* pszArchive = std::getenv(kszArchiveVariable);
  if (!pszArchive) GTEST_SKIP() << "runs as the second process of ExitingProcess only";
  static NSModuleTest::CLibrary* s_pLibrary = new NSModuleTest::CLibrary;  // never unloaded: the process ends with it
  ASSERT_TRUE(s_pLibrary->IsLoaded());
  IArchiveFactory* pFactory = nullptr;
  ASSERT_EQ(S_OK, s_pLibrary->GetClassObject()(CLSID_Kronvale, IID_IArchiveFactory, reinterpret_cast<void**>(&pFactory)));
  IKronvale* pArchive = nullptr;
  ASSERT_EQ(S_OK, pFactory->CreateArchive(CBstr(NSPlatform::Utf8ToWide(pszArchive)), &pArchive));
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
