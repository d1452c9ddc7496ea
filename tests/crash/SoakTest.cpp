// Every thread an archive has, at once, and then the end of the process: writers rolling over hours,
// readers of their own following them, retention deleting the oldest hours under them, the flusher
// of buffered hours every millisecond, archives made, used, released and deleted beside them; then
// the process exits while its archive still works. Run under ThreadSanitizer (the linux-tsan preset)
// any race, use after free or lock-order inversion ends the child process with a report and fails
// the test. KV_SOAK_SECONDS sets the length (scripts/tsan-soak.sh runs a long one).
#include <atomic>
#include <cstdlib>
#include <thread>

#include "records/RecordTestSupport.h"
#include "crash/CrashTestSupport.h"
#include "frame/Module.h"

using namespace NSTest;

namespace {

constexpr int kcWriters = 2;
constexpr int kcReaders = 2;
constexpr LONGLONG kllStep = 45 * 1000 * kllMs;  // 80 frames make an hour

FILETIME FrameTime(int n) { return Plus(Ft(2023, 2, 3, 0), n * kllStep); }

std::vector<std::string> FrameBuffers(int nRecord, int n) {
  const int cBuffers = 1 + n % 3;
  std::vector<std::string> v;
  for (int b = 0; b < cBuffers; ++b) {
    std::string str = std::to_string(nRecord) + "/" + std::to_string(n) + "/" + std::to_string(b) + ":";
    str.resize(16 + (n * 131 + b * 977) % 4000, static_cast<char>('A' + (n + b) % 26));
    v.push_back(str);
  }
  return v;
}

double SoakSeconds() {
  const char* psz = std::getenv("KV_SOAK_SECONDS");
  const double d = psz ? std::atof(psz) : 0;
  return d > 0 ? d : 2;
}

NSCom::CComPtr<IArchiveFactory> Factory() {
  NSCom::CComPtr<IArchiveFactory> p;
  EXPECT_EQ(S_OK, NSFrame::CKronvaleModule::Init(nullptr));
  EXPECT_EQ(S_OK, NSFrame::CKronvaleModule::GetClassObject(CLSID_Kronvale, IID_IArchiveFactory, reinterpret_cast<void**>(&p)));
  return p;
}

}  // namespace

TEST(Soak, EveryThreadOfAnArchiveTogetherThenTheProcessEnds) {
  NSTest::CTempDir dir;
  EXPECT_EQ(0, NSTest::RunChild("SoakProcess", NSPlatform::WideToUtf8(dir.Path())))
      << "the soak failed, or a sanitizer reported (a code above 128 is a signal)";
}

TEST(SoakProcess, EveryThreadTogetherThenExit) {
  const char* pszDirectory = NSTest::ChildDirectory();
  if (!pszDirectory) GTEST_SKIP() << "runs as the child process of Soak only";
  const std::string strDirectory = pszDirectory;
  auto pFactory = Factory();
  ASSERT_TRUE(pFactory);
  NSCom::CComPtr<IKronvale> pArchive;
  ASSERT_EQ(S_OK, pFactory->CreateArchive(NSCom::CComBSTR(W((strDirectory + "/arc").c_str()).c_str()), &pArchive));
  ASSERT_EQ(S_OK, pArchive->SetFlushTimeout(1));
  // Three hours per record: retention deletes an hour each time a writer rolls over.
  const SArchiveQuota quota = {0, 0, 3, 0};
  ASSERT_EQ(S_OK, Query<IKronvaleQuota>(pArchive, IID_IKronvaleQuota)->SetArchiveQuota(&quota));

  std::atomic<bool> bStop{false};
  std::atomic<int> acWritten[kcWriters] = {};
  std::atomic<int> cWrong{0}, cReads{0}, cPasses{0}, cArchives{0};
  std::vector<std::thread> vThreads;

  // Writers: one record each, frames 45 s apart, buffered.
  for (int w = 0; w < kcWriters; ++w) {
    vThreads.emplace_back([&, w] {
      NSCom::CComPtr<IRecord> pWriter;
      if (FAILED(pArchive->CreateRecord(NSCom::CComBSTR(W(("cam" + std::to_string(w)).c_str()).c_str()), &pWriter))) {
        ++cWrong;
        return;
      }
      for (int n = 0; !bStop; ++n) {
        if (FAILED(WriteFrame(pWriter, FrameTime(n), static_cast<DWORD>(n), FrameBuffers(w, n)))) ++cWrong;
        acWritten[w] = n + 1;
      }
    });
  }
  // Readers with objects of their own: a frame just written reads back as written, unless retention
  // took its hour already (then it is not there at all); walks go forward from it.
  for (int r = 0; r < kcReaders; ++r) {
    vThreads.emplace_back([&, r] {
      NSCom::CComPtr<IKronvaleEx> pEx = Query<IKronvaleEx>(pArchive, IID_IKronvaleEx);
      NSCom::CComPtr<IRecord> apReaders[kcWriters];
      for (int w = 0; w < kcWriters; ++w) {
        const std::string strClient = "reader" + std::to_string(r);
        while (!bStop && FAILED(pEx->OpenRecordEx(NSCom::CComBSTR(W(strClient.c_str()).c_str()),
                                                  NSCom::CComBSTR(W(("cam" + std::to_string(w)).c_str()).c_str()), 1,
                                                  &apReaders[w])))
          std::this_thread::yield();
      }
      unsigned u = 17u + static_cast<unsigned>(r);
      while (!bStop) {
        u = u * 1103515245u + 12345u;
        const int w = static_cast<int>(u >> 16) % kcWriters;
        const int cDone = acWritten[w].load();
        if (!cDone || !apReaders[w]) continue;
        const int n = cDone - 1 - static_cast<int>((u >> 4) % 8) % cDone;
        const std::vector<std::string> v = ReadFrame(apReaders[w], FrameTime(n), static_cast<DWORD>(FrameBuffers(w, n).size()));
        if (v.size() != 1 || v[0].rfind("hr=", 0) != 0) {
          if (v != FrameBuffers(w, n)) ++cWrong;
        }
        ++cReads;
        FILETIME ft;
        for (int k = 0; k < 4 && SUCCEEDED(apReaders[w]->GetNext(FrameTime(n), nullptr, &ft)); ++k) {
        }
      }
    });
  }
  // Retention as often as it can run, beside the archive's own worker.
  auto* pImpl = static_cast<NSArchive::CArchiveImpl*>(pArchive.p);
  vThreads.emplace_back([&] {
    while (!bStop) {
      pImpl->SizeAndQuotaPass();
      ++cPasses;
    }
  });
  // Archives made, written, read and let go beside the first: their release stops their flusher and
  // worker while they run.
  vThreads.emplace_back([&] {
    for (int k = 0; !bStop; ++k) {
      const NSCom::CComBSTR bstrPath(W((strDirectory + "/side" + std::to_string(k)).c_str()).c_str());
      {
        NSCom::CComPtr<IKronvale> pSide;
        if (FAILED(pFactory->CreateArchive(bstrPath, &pSide))) {
          ++cWrong;
          return;
        }
        pSide->SetFlushTimeout(1);
        NSCom::CComPtr<IRecord> pWriter, pReader;
        pSide->CreateRecord(NSCom::CComBSTR(KV_W("cam")), &pWriter);
        for (int n = 0; pWriter && n < 50; ++n) WriteFrame(pWriter, FrameTime(n), 1, FrameBuffers(9, n));
        pSide->OpenRecord(NSCom::CComBSTR(KV_W("cam")), &pReader);
        if (pReader && ReadFrame(pReader, FrameTime(49), 1) != std::vector<std::string>{FrameBuffers(9, 49)[0]}) ++cWrong;
        if (k % 2) pSide->Free();
      }
      if (FAILED(pFactory->DeleteArchive(bstrPath))) ++cWrong;
      ++cArchives;
    }
  });

  std::this_thread::sleep_for(std::chrono::duration<double>(SoakSeconds()));
  bStop = true;
  for (std::thread& thread : vThreads) thread.join();
  EXPECT_EQ(0, cWrong.load());
  EXPECT_GT(cReads.load(), 0);
  EXPECT_GT(cPasses.load(), 0);
  EXPECT_GT(cArchives.load(), 0);
  std::printf("soak: %d and %d frames written, %d reads, %d retention passes, %d side archives\n", acWritten[0].load(),
              acWritten[1].load(), cReads.load(), cPasses.load(), cArchives.load());

  // The end of the process, as a host that never lets go: the archive is cached, a writer holds its
  // record with frames not yet flushed, the flusher and the worker run. Exit stops them before the
  // library's static objects go.
  NSCom::CComPtr<IRecord> pWriter;
  ASSERT_EQ(S_OK, pArchive->CreateRecord(NSCom::CComBSTR(KV_W("last")), &pWriter));
  for (int n = 0; n < 100; ++n) ASSERT_EQ(S_OK, WriteFrame(pWriter, FrameTime(n), 1, FrameBuffers(7, n)));
  pWriter->AddRef();
  pArchive->AddRef();
  std::exit(::testing::Test::HasFailure() ? 1 : 0);
}
