// A client with nothing but the public header and the library: the factory from DllGetClassObject,
// an archive made in an empty directory, records written and read back, the factory's cache.
#include <gtest/gtest.h>

#include <kronvale/kronvale.h>
#include <kronvale/KronvaleClient.h>

#include <string>

#include "common/LogCapture.h"
#include "common/TempDir.h"
#include "module/Library.h"

#ifdef _WIN32
#include <psapi.h>
#endif

using NSKronvale::CBstr;
using NSKronvale::CPtr;

namespace {

class ArchiveClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_library.IsLoaded());
    ASSERT_EQ(S_OK, m_library.GetClassObject()(CLSID_Kronvale, IID_IArchiveFactory, reinterpret_cast<void**>(&m_pFactory)));
  }

  NSTest::CLibrary m_library;
  CPtr<IArchiveFactory> m_pFactory;
  NSTest::CTempDir m_dir;
};

TEST_F(ArchiveClientTest, FramesReachTheDiskThroughThePublicInterfaces) {
  const WString strPath = m_dir.Sub(KV_W("archive"));
  CPtr<IKronvale> pArchive;
  NSTest::CLogCapture capture;
  ASSERT_EQ(S_OK, m_pFactory->CreateArchive(CBstr(strPath), &pArchive));
  CPtr<IRecord> pWriter;
  ASSERT_EQ(S_OK, pArchive->CreateRecord(CBstr(KV_W("gate")), &pWriter));
  BYTE abFrame[] = {1, 2, 3, 4, 5};
  SFrameBuffer buffer = {abFrame, sizeof(abFrame)};
  const FILETIME ft = {0x4F1A0000u, 0x01D71300u};
  ASSERT_EQ(S_OK, pWriter->Write(ft, 0x11, &buffer, 1));

  CPtr<IRecord> pReader;
  ASSERT_EQ(S_OK, pArchive->OpenRecord(CBstr(KV_W("gate")), &pReader));
  EXPECT_NE(pWriter.p, pReader.p);
  CPtr<IRecord> pSameReader;
  ASSERT_EQ(S_OK, pArchive->OpenRecord(CBstr(KV_W("gate")), &pSameReader));
  EXPECT_EQ(pReader.p, pSameReader.p);
  SFrameBuffer out = {nullptr, 0};
  DWORD dwFlags = 0;
  ASSERT_EQ(S_OK, pReader->Read(ft, &dwFlags, &out, 1));
  EXPECT_EQ(0x11u, dwFlags);
  ASSERT_EQ(5u, out.dwDataSize);
  EXPECT_EQ(0, memcmp(abFrame, out.pData, 5));
  CoTaskMemFree(out.pData);

  // The same archive for other spellings of its path; a non-empty directory cannot be made into one.
  CPtr<IKronvale> pSame;
  const WString strOther = m_dir.Sub(KV_W("archive")) + NSPlatform::chPathSeparator + KV_W("gate") +
                           NSPlatform::chPathSeparator + KV_W("..") + NSPlatform::chPathSeparator + KV_W(".");
  ASSERT_EQ(S_OK, m_pFactory->OpenArchive(CBstr(strOther), &pSame));
  EXPECT_EQ(pArchive.p, pSame.p);
#ifdef _WIN32
  CPtr<IKronvale> pUpper;
  WString strUpper = strPath;
  for (WCHAR& ch : strUpper) ch = static_cast<WCHAR>(towupper(ch));
  ASSERT_EQ(S_OK, m_pFactory->OpenArchive(CBstr(strUpper), &pUpper));
  EXPECT_EQ(pArchive.p, pUpper.p);
#else
  // File names keep their case here: another spelling is another directory, hence another archive.
  CPtr<IKronvale> pUpper;
  ASSERT_EQ(S_OK, m_pFactory->CreateArchive(CBstr(m_dir.Sub(KV_W("ARCHIVE"))), &pUpper));
  EXPECT_NE(pArchive.p, pUpper.p);
  ASSERT_EQ(S_OK, m_pFactory->DeleteArchive(CBstr(m_dir.Sub(KV_W("ARCHIVE")))));
#endif
  CPtr<IKronvale> pRefused;
  EXPECT_EQ(static_cast<HRESULT>(0x80070091), m_pFactory->CreateArchive(CBstr(m_dir.Sub(KV_W("archive"))
                                                                                  + NSPlatform::chPathSeparator + KV_W("gate")),
                                                                         &pRefused));
  EXPECT_EQ(static_cast<HRESULT>(0x80070003), m_pFactory->OpenArchive(CBstr(m_dir.Sub(KV_W("none"))), &pRefused));
  EXPECT_EQ(nullptr, pRefused.p);

  bool bFromCache = false;
  for (const NSTest::SLoggedReport& r : capture.Reports(KV_W("message")))
    bFromCache = bFromCache || r.strText == WString(KV_W("Archive opened from cache: ")) + strOther + KV_W("\n");
  EXPECT_TRUE(bFromCache);

  // A freed archive refuses records until the factory opens it again.
  ASSERT_EQ(S_OK, pArchive->Free());
  CPtr<IRecord> pNone;
  EXPECT_EQ(static_cast<HRESULT>(0x8007006C), pArchive->OpenRecord(CBstr(KV_W("gate")), &pNone));
  EXPECT_EQ(static_cast<HRESULT>(0x8007006C), pWriter->Write(ft, 0x11, &buffer, 1));
  CPtr<IKronvale> pRevived;
  ASSERT_EQ(S_OK, m_pFactory->OpenArchive(CBstr(strPath), &pRevived));
  EXPECT_EQ(pArchive.p, pRevived.p);
  CPtr<IRecord> pAgain;
  ASSERT_EQ(S_OK, pRevived->OpenRecord(CBstr(KV_W("gate")), &pAgain));
  EXPECT_EQ(S_FALSE, pAgain->Read(ft, &dwFlags, nullptr, 0));
  // Deleting the archive lets the factory forget it: once the client lets go, nothing of it is left
  // holding the library.
  ASSERT_EQ(S_OK, m_pFactory->DeleteArchive(CBstr(strPath)));
  EXPECT_EQ(static_cast<HRESULT>(0x8007006C), pAgain->Read(ft, &dwFlags, nullptr, 0));
}

TEST_F(ArchiveClientTest, FactoryStateAndDeletion) {
  CPtr<IStateControl> pState;
  ASSERT_EQ(S_OK, m_pFactory->QueryInterface(IID_IStateControl, reinterpret_cast<void**>(&pState)));
  EXPECT_EQ(E_INVALIDARG, pState->Set(0x1));
  EXPECT_EQ(S_OK, pState->Set(0x40000));
  LONG l = 0;
  EXPECT_EQ(E_NOTIMPL, pState->Get(&l));
  EXPECT_EQ(E_NOTIMPL, pState->Change(1, 0));

  const WString strPath = m_dir.Sub(KV_W("doomed"));
  {
    CPtr<IKronvale> pArchive;
    ASSERT_EQ(S_OK, m_pFactory->CreateArchive(CBstr(strPath), &pArchive));
    CPtr<IRecord> pWriter;
    ASSERT_EQ(S_OK, pArchive->CreateRecord(CBstr(KV_W("r")), &pWriter));
    SFrameBuffer buffer = {nullptr, 0};
    ASSERT_EQ(S_OK, pWriter->Write(FILETIME{0, 0x01D71300u}, 1, &buffer, 0));
  }
  // A directory that is no archive is never deleted.
  ASSERT_EQ(S_OK, NSPlatform::CreateDirTree(m_dir.Sub(KV_W("plain")).c_str()));
  EXPECT_EQ(E_INVALIDARG, m_pFactory->DeleteArchive(CBstr(m_dir.Sub(KV_W("plain")))));
  EXPECT_TRUE(NSPlatform::IsDirectory(m_dir.Sub(KV_W("plain")).c_str()));
  // The archive goes with its open records' files.
  ASSERT_EQ(S_OK, m_pFactory->DeleteArchive(CBstr(strPath)));
  EXPECT_FALSE(NSPlatform::PathExists(strPath.c_str()));
  EXPECT_EQ(static_cast<HRESULT>(0x80070003), m_pFactory->DeleteArchive(CBstr(strPath)));
}

// A multipart archive through the library's own class object: three partitions, frames written to
// the active one, the file opened from the cache, and deleted without its partitions' frames.
TEST_F(ArchiveClientTest, MultipartArchiveThroughThePublicInterfaces) {
  const WString strFile = m_dir.Sub(KV_W("site.kvm"));
  CPtr<IMultipartArchive> pMultipart;
  NSTest::CLogCapture capture;
  ASSERT_EQ(S_OK, m_pFactory->CreateMultipartArchive(CBstr(strFile), &pMultipart));
  bool bCreated = false;
  for (const NSTest::SLoggedReport& r : capture.Reports(KV_W("message")))
    bCreated = bCreated || r.strText == KV_W("successfull multipart archive creation: ") + strFile + KV_W("\n");
  EXPECT_TRUE(bCreated);
  const WString astrDisks[3] = {m_dir.Sub(KV_W("d0")), m_dir.Sub(KV_W("d1")), m_dir.Sub(KV_W("d2"))};
  for (const WString& strDisk : astrDisks) {
    CPtr<IKronvale> pPartition;
    ASSERT_EQ(S_OK, m_pFactory->CreateArchive(CBstr(strDisk), &pPartition));
    ASSERT_EQ(S_OK, pMultipart->AddPartition(pPartition.p));
  }
  CPtr<IRecord> pWriter;
  ASSERT_EQ(S_OK, pMultipart->CreateRecord(CBstr(KV_W("gate")), &pWriter));
  BYTE abFrame[] = {9, 8, 7};
  SFrameBuffer buffer = {abFrame, sizeof(abFrame)};
  const FILETIME ft = {0x4F1A0000u, 0x01D71300u};
  ASSERT_EQ(S_OK, pWriter->Write(ft, 0x5, &buffer, 1));
  EXPECT_EQ(E_NOTIMPL, pMultipart->SetQuota(0, 0));

  CPtr<IKronvale> pOpened;
  ASSERT_EQ(S_OK, m_pFactory->OpenArchive(CBstr(strFile), &pOpened));
  CPtr<IKronvale> pAsArchive;
  ASSERT_EQ(S_OK, pMultipart->QueryInterface(IID_IKronvale, reinterpret_cast<void**>(&pAsArchive)));
  EXPECT_EQ(pAsArchive.p, pOpened.p);
  DWORD cPartitions = 0;
  IKronvale** ppPartitions = nullptr;
  ASSERT_EQ(S_OK, pMultipart->GetPartitions(&cPartitions, &ppPartitions));
  EXPECT_EQ(3u, cPartitions);
  for (DWORD i = 0; i < cPartitions; ++i) ppPartitions[i]->Release();
  CoTaskMemFree(ppPartitions);

  // The file goes alone; the frame stays on the first partition added, the active one.
  ASSERT_EQ(S_OK, m_pFactory->DeleteArchive(CBstr(strFile)));
  EXPECT_FALSE(NSPlatform::PathExists(strFile.c_str()));
  CPtr<IKronvale> pDisk0;
  ASSERT_EQ(S_OK, m_pFactory->OpenArchive(CBstr(astrDisks[0]), &pDisk0));
  CPtr<IRecord> pReader;
  ASSERT_EQ(S_OK, pDisk0->OpenRecord(CBstr(KV_W("gate")), &pReader));
  DWORD dwFlags = 0;
  EXPECT_EQ(S_FALSE, pReader->Read(ft, &dwFlags, nullptr, 0));
  EXPECT_EQ(0x5u, dwFlags);
  // The partitions are the factory's own archives: deleting them lets the library go.
  for (const WString& strDisk : astrDisks) EXPECT_EQ(S_OK, m_pFactory->DeleteArchive(CBstr(strDisk)));
}

}  // namespace

#ifdef _WIN32
namespace {

// Bytes of memory this process has committed now: a reader's index copy is touched only where it
// is read, so a lost one shows here rather than in the working set.
SIZE_T Committed() {
  PROCESS_MEMORY_COUNTERS counters = {};
  counters.cb = sizeof(counters);
  return K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters)) ? counters.PagefileUsage : 0;
}

}  // namespace

// A host that loads the library, reads through many hours and frees the library again (as
// CoFreeUnusedLibraries does) finds it unloaded, its workers stopped, and gets back what it kept for
// reuse: a reader's index copies (1.5 MB an hour) wait in a pool of up to 32 MiB, and an unload must
// hand them back, or every turn loses what the pool held.
TEST(LibraryUnloadTest, EachUnloadGivesBackWhatTheLibraryKeptForReuse) {
  NSTest::CTempDir dir;
  constexpr int kcHours = 30;
  constexpr int kcTurns = 4;
  SIZE_T cbAfterFirst = 0;
  for (int nTurn = 0; nTurn < kcTurns; ++nTurn) {
    {
      NSTest::CLibrary library;
      ASSERT_TRUE(library.IsLoaded());
      CPtr<IArchiveFactory> pFactory;
      ASSERT_EQ(S_OK, library.GetClassObject()(CLSID_Kronvale, IID_IArchiveFactory, reinterpret_cast<void**>(&pFactory)));
      const WString strPath = dir.Sub(KV_W("turn")) + static_cast<WCHAR>(u'0' + nTurn);
      {
        CPtr<IKronvale> pArchive;
        ASSERT_EQ(S_OK, pFactory->CreateArchive(CBstr(strPath), &pArchive));
        // Buffered, and under a quota it will never reach: the flusher and the retention worker run.
        ASSERT_EQ(S_OK, pArchive->SetFlushTimeout(100));
        ASSERT_EQ(S_OK, pArchive->SetQuota(0, 1ull << 40));
        CPtr<IRecord> pWriter, pReader;
        ASSERT_EQ(S_OK, pArchive->CreateRecord(CBstr(KV_W("cam")), &pWriter));
        BYTE abFrame[64] = {7};
        SFrameBuffer buffer = {abFrame, sizeof(abFrame)};
        const ULONGLONG ullStart = 0x01D7130000000000ull;  // 2021, on a whole hour or not: any hour will do
        auto time = [&](int n) {
          const ULONGLONG ull = ullStart + ULONGLONG{36000000000} * static_cast<ULONGLONG>(n);
          return FILETIME{static_cast<DWORD>(ull), static_cast<DWORD>(ull >> 32)};
        };
        for (int n = 0; n < kcHours; ++n) ASSERT_EQ(S_OK, pWriter->Write(time(n), 0, &buffer, 1));
        ASSERT_EQ(S_OK, pArchive->OpenRecord(CBstr(KV_W("cam")), &pReader));
        for (int n = 0; n < kcHours; ++n) {
          SFrameBuffer out = {nullptr, 0};
          ASSERT_EQ(S_OK, pReader->Read(time(n), nullptr, &out, 1));
          CoTaskMemFree(out.pData);
        }
      }
      ASSERT_EQ(S_OK, pFactory->DeleteArchive(CBstr(strPath)));
      pFactory.Reset();
      ASSERT_EQ(S_OK, library.CanUnloadNow()());
    }
    // The last FreeLibrary unloads it: nothing the library did (a thread_local with a destructor,
    // say) has pinned it in memory.
    ASSERT_EQ(nullptr, GetModuleHandleW(NSTest::kszLibraryName)) << "turn " << nTurn << ": the library stays loaded";
    if (nTurn == 0) cbAfterFirst = Committed();
  }
  ASSERT_NE(0u, cbAfterFirst);
  // Without the hand-back each later turn keeps some 8 MB more (the copies of the hours the reader
  // had cached when it was released); with it the turns after the first keep well under 1 MB.
  EXPECT_LT(Committed(), cbAfterFirst + 12 * 1024 * 1024) << "after " << kcTurns << " turns";
}
#endif
