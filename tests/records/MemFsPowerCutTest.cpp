// Power cuts in the engine's maintenance work, on the in-memory file system: while an archive and
// its first record are made, while retention deletes the oldest hours, and while a record merges or
// fast-copies another. Each scenario cuts the power at every changing call of its operation,
// reboots, and checks that the archive comes back usable and lost nothing the operation was not
// taking away.
//
// Retention, merge and copy cut at every third call here; KV_POWER_CUT_SEEDS (environment) cuts at
// every call with that many seeds of the page tearer each (scripts/power-cut.sh).
#include <kronvale/KronvaleResults.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <set>

#include "archive/ArchiveFactory.h"
#include "platform/MemFs.h"
#include "records/RecordTestSupport.h"

using namespace NSKronvale;
using namespace NSTest;

namespace {

namespace NSMem = NSPlatform::NSMemFs;

// Seeds of the page tearer per cut: KV_POWER_CUT_SEEDS when set, else cDefault.
unsigned SeedsPerCut(unsigned cDefault) {
  const char* psz = std::getenv("KV_POWER_CUT_SEEDS");
  const int n = psz ? std::atoi(psz) : 0;
  return n > 0 ? static_cast<unsigned>(n) : cDefault;
}

WString ArchivePath() {
  WString strTemp;
  NSPlatform::GetTempDirectory(&strTemp);
  return NSPlatform::CombinePath(strTemp, KV_W("kv-power-cut-arc"));  // in memory only
}

// A factory with an empty cache, as the next process after the reboot has.
NSCom::CComPtr<IArchiveFactory> NewFactory() {
  NSCom::CComObject<NSArchive::CArchiveFactory>* p = nullptr;
  EXPECT_EQ(S_OK, NSCom::CComObject<NSArchive::CArchiveFactory>::CreateInstance(&p));
  return NSCom::CComPtr<IArchiveFactory>(p);
}

// A scenario: Prepare makes what is on disk before the power is watched (all of it durable), Act is
// the operation during which the power goes, Check looks at what the reboot left (nCut 0: the run
// that was not cut).
struct SScenario {
  std::function<void()> prepare;
  std::function<void()> act;
  std::function<void(unsigned nCut)> check;
};

// Runs the scenario once without a cut to count Act's changing calls, then with the power cut at
// each nStride-th of them (every one in a long run), cSeeds times with other seeds. Answers the
// number of cuts made.
unsigned CutAtEveryCall(const SScenario& scenario, unsigned nStride = 1, unsigned cSeeds = 1) {
  if (std::getenv("KV_POWER_CUT_SEEDS")) nStride = 1;
  unsigned cCalls = 0, cCuts = 0;
  for (unsigned nCut = 0; nCut <= cCalls; nCut += (nCut ? nStride : 1)) {
    for (unsigned nSeed = 0; nSeed < (nCut ? SeedsPerCut(cSeeds) : 1); ++nSeed) {
      NSMem::Install();
      scenario.prepare();
      NSMem::StartPowerCutTracking();
      if (nCut) NSMem::ArmPowerCut(nCut, 7919ull * nCut + nSeed);
      scenario.act();
      if (!nCut) cCalls = NSMem::GetChangingCallCount();
      EXPECT_EQ(nCut != 0, NSMem::HasPowerBeenCut()) << "cut " << nCut;
      EXPECT_EQ(S_OK, NSMem::Reboot(nullptr)) << "cut " << nCut;
      scenario.check(nCut);
      NSMem::Uninstall();
      if (::testing::Test::HasFailure()) return cCuts;
      cCuts += nCut ? 1 : 0;
    }
  }
  EXPECT_GT(cCalls, 0u);
  return cCuts;
}

// Frame i of a record: 2024-05-06 from 08:00 on, n_per_hour frames an hour, at the given second
// offset in the minute (two records can interleave in one hour); bytes that tell record and frame.
struct SStream {
  const char* pszRecord;
  int nFirstHour, cHours, cPerHour, nSecond;
  int Count() const { return cHours * cPerHour; }
  FILETIME Time(int i) const {
    return Ft(2024, 5, 6, static_cast<WORD>(nFirstHour + i / cPerHour), static_cast<WORD>(7 * (i % cPerHour)),
              static_cast<WORD>(nSecond));
  }
  std::string Bytes(int i) const {
    std::string str(700 + (i * 2971) % 6000, static_cast<char>('a' + i % 26));
    const std::string strHead = std::string(pszRecord) + " " + std::to_string(i) + ";";
    return str.replace(0, strHead.size(), strHead);
  }
  std::string Hour(int i) const { return pszRecord + std::string("@") + std::to_string(nFirstHour + i / cPerHour); }
  void WriteAll(IRecord* pWriter) const {
    for (int i = 0; i < Count(); ++i) ASSERT_EQ(S_OK, WriteFrame(pWriter, Time(i), i % 2, {Bytes(i)})) << pszRecord << i;
  }
};

// What reading a stream back found: frames read byte-exact, missing, and read with other bytes.
struct SReadBack {
  std::set<int> present, missing, wrong;
};

SReadBack ReadBack(IRecord* pRecord, const SStream& stream) {
  SReadBack found;
  for (int i = 0; i < stream.Count(); ++i) {
    const std::vector<std::string> v = ReadFrame(pRecord, stream.Time(i), 1);
    if (v.size() == 1 && v[0].rfind("hr=", 0) == 0) {
      found.missing.insert(i);
    } else {
      (v == std::vector<std::string>{stream.Bytes(i)} ? found.present : found.wrong).insert(i);
    }
  }
  return found;
}

bool AllPresent(const SReadBack& found, const SStream& stream) {
  return found.present.size() == static_cast<size_t>(stream.Count());
}

}  // namespace

// A power cut anywhere in the making of an archive and its first record, through the factory as a
// client makes them: afterwards the path is either a whole archive or no archive at all (0x80070003
// on open), never a directory that refuses both open and creation; creating it again works, and a
// frame whose Write answered S_OK before the cut is there.
TEST(MemFsPowerCut, AnArchiveCutShortInItsCreationIsWholeOrMadeAgain) {
  const SStream cam = {"cam", 10, 1, 1, 0};
  static bool s_bFrameAcknowledged;
  SScenario scenario;
  scenario.prepare = [] { s_bFrameAcknowledged = false; };
  scenario.act = [&] {
    NSCom::CComPtr<IKronvale> pArchive;
    ASSERT_EQ(S_OK, NewFactory()->CreateArchive(NSCom::CComBSTR(ArchivePath()), &pArchive));
    NSCom::CComPtr<IRecord> pWriter;
    EXPECT_EQ(S_OK, pArchive->CreateRecord(NSCom::CComBSTR(KV_W("cam")), &pWriter));
    if (pWriter) {
      const HRESULT hr = WriteFrame(pWriter, cam.Time(0), 0, {cam.Bytes(0)});
      s_bFrameAcknowledged = hr == S_OK && !NSMem::HasPowerBeenCut();
    }
    pWriter = nullptr;
    pArchive->Free();
  };
  scenario.check = [&](unsigned nCut) {
    const NSCom::CComBSTR bstrPath(ArchivePath());
    NSCom::CComPtr<IKronvale> pOpened;
    const HRESULT hrOpen = NewFactory()->OpenArchive(bstrPath, &pOpened);
    ASSERT_TRUE(hrOpen == S_OK || hrOpen == khrPathNotFound) << "cut " << nCut << ": open answered " << std::hex << hrOpen;
    if (pOpened) {
      NSCom::CComBSTR bstrDescription;
      EXPECT_EQ(S_OK, pOpened->GetDescription(&bstrDescription)) << "cut " << nCut;
      NSCom::CComPtr<IRecord> pReader;
      if (SUCCEEDED(pOpened->OpenRecord(NSCom::CComBSTR(KV_W("cam")), &pReader))) {
        EXPECT_TRUE(!s_bFrameAcknowledged || AllPresent(ReadBack(pReader, cam), cam)) << "cut " << nCut;
      } else {
        EXPECT_FALSE(s_bFrameAcknowledged) << "cut " << nCut;
      }
      pReader = nullptr;
      pOpened->Free();
    } else {
      EXPECT_FALSE(s_bFrameAcknowledged) << "cut " << nCut;
    }
    // The next creation finishes or clears what the cut left; a whole archive is not made over.
    NSCom::CComPtr<IKronvale> pCreated;
    EXPECT_EQ(hrOpen == S_OK ? khrDirectoryNotEmpty : S_OK, NewFactory()->CreateArchive(bstrPath, &pCreated))
        << "cut " << nCut;
    if (pCreated) pCreated->Free();
    NSCom::CComPtr<IKronvale> pAgain;
    EXPECT_EQ(S_OK, NewFactory()->OpenArchive(bstrPath, &pAgain)) << "cut " << nCut;
    if (pAgain) pAgain->Free();
  };
  // A creation makes few calls: each is cut with 16 seeds, enough to meet the rare outcome in which
  // the settings' rename survives and the description file made before it does not.
  const unsigned cCuts = CutAtEveryCall(scenario, 1, 16);
  std::printf("power cuts during archive creation: %u\n", cCuts);
}

// A power cut anywhere in replacing the archive's and a record's descriptions: after the reboot each
// reads back whole, the old text or the new one (the new one once SetDescription answered S_OK),
// never empty or cut short. The texts span several pages, so a torn write would show.
TEST(MemFsPowerCut, ADescriptionCutShortInItsReplacementReadsBackOldOrNew) {
  const WString strOld(5000, u'o'), strNew = WString(1234, u'n') + KV_W("end");
  static bool s_bArchiveAnswered, s_bRecordAnswered;
  const auto Text = [](IUnknown* p) {
    NSCom::CComPtr<IDescription> pDescription;
    EXPECT_EQ(S_OK, p->QueryInterface(IID_IDescription, reinterpret_cast<void**>(&pDescription)));
    NSCom::CComBSTR bstr;
    const HRESULT hr = pDescription ? pDescription->GetDescription(&bstr) : E_NOINTERFACE;
    return hr == S_OK ? WString(bstr.m_str ? bstr.m_str : KV_W(""), bstr.Length()) : WString(KV_W("hr!"));
  };
  SScenario scenario;
  scenario.prepare = [&] {
    s_bArchiveAnswered = s_bRecordAnswered = false;
    CTestArchive archive(ArchivePath());
    ASSERT_EQ(S_OK, archive->SetDescription(NSCom::CComBSTR(strOld)));
    ASSERT_EQ(S_OK, archive.Writer("cam")->SetDescription(NSCom::CComBSTR(strOld)));
  };
  scenario.act = [&] {
    CTestArchive archive(ArchivePath());
    s_bArchiveAnswered = archive->SetDescription(NSCom::CComBSTR(strNew)) == S_OK && !NSMem::HasPowerBeenCut();
    s_bRecordAnswered =
        archive.Writer("cam")->SetDescription(NSCom::CComBSTR(strNew)) == S_OK && !NSMem::HasPowerBeenCut();
  };
  scenario.check = [&](unsigned nCut) {
    CTestArchive archive(ArchivePath());
    const WString strArchive = Text(archive.Get()), strRecord = Text(archive.Reader("cam"));
    EXPECT_TRUE(strArchive == strNew || (!s_bArchiveAnswered && strArchive == strOld)) << "cut " << nCut;
    EXPECT_TRUE(strRecord == strNew || (!s_bRecordAnswered && strRecord == strOld)) << "cut " << nCut;
  };
  std::printf("power cuts while descriptions are replaced: %u\n", CutAtEveryCall(scenario, 1, 4));
}

// What the engine has answered for is durable, names included, when the power goes right after:
// a reboot with no cut keeps only flushed bytes under flushed directories. A new archive, its new
// record, an hour made by a write-through frame, an hour fast-copied into another record and the
// removal of an hour all survive it.
TEST(MemFsPowerCut, EveryAnsweredChangeOfNamesSurvivesAPowerCutRightAfterIt) {
  NSMem::Install();
  NSMem::StartPowerCutTracking();
  const SStream cam = {"cam", 10, 2, 1, 0};
  const NSCom::CComBSTR bstrPath(ArchivePath());
  {
    NSCom::CComPtr<IKronvale> pArchive;
    ASSERT_EQ(S_OK, NewFactory()->CreateArchive(bstrPath, &pArchive));
    ASSERT_EQ(S_OK, pArchive->SetFlushTimeout(0));
    NSCom::CComPtr<IRecord> pCam, pCopy;
    ASSERT_EQ(S_OK, pArchive->CreateRecord(NSCom::CComBSTR(KV_W("cam")), &pCam));
    cam.WriteAll(pCam);
    ASSERT_EQ(S_OK, pArchive->CreateRecord(NSCom::CComBSTR(KV_W("copy")), &pCopy));
    NSCom::CComBSTR bstrCopy;
    ASSERT_EQ(S_OK, pCopy->GetPath(&bstrCopy));
    ASSERT_EQ(S_OK, Query<IRecordFastCopy>(pCam, IID_IRecordFastCopy)
                        ->CopyHoursTo(bstrCopy, cam.Time(0), Ft(2024, 5, 6, 10, 59, 59, 990)));
    ASSERT_EQ(S_OK, pCam->RemoveHour(cam.Time(1)));
    pCam = nullptr;
    pCopy = nullptr;
    pArchive->Free();
  }
  ASSERT_EQ(S_OK, NSMem::Reboot(nullptr));
  {
    NSCom::CComPtr<IKronvale> pArchive;
    ASSERT_EQ(S_OK, NewFactory()->OpenArchive(bstrPath, &pArchive));
    NSCom::CComPtr<IRecord> pCam, pCopy;
    ASSERT_EQ(S_OK, pArchive->OpenRecord(NSCom::CComBSTR(KV_W("cam")), &pCam));
    ASSERT_EQ(S_OK, pArchive->OpenRecord(NSCom::CComBSTR(KV_W("copy")), &pCopy));
    const SReadBack camBack = ReadBack(pCam, cam);
    EXPECT_EQ(std::set<int>{0}, camBack.present);  // hour 11 stays removed
    EXPECT_EQ(std::set<int>{1}, camBack.missing);
    EXPECT_EQ(std::set<int>{0}, ReadBack(pCopy, cam).present);
    pCam = nullptr;
    pCopy = nullptr;
    pArchive->Free();
  }
  NSMem::Uninstall();
}

// Retention over two records, by bytes and by hours per record, with a power cut at every changing
// call of the pass: every hour the pass was not deleting reads back byte-exact, an hour it was
// deleting is whole, gone, or repaired into an hour that opens with only sound frames, and the next
// pass leaves exactly the hours that an uncut pass leaves.
namespace {

class RetentionCut {
 public:
  RetentionCut(DWORD dwFlushTimeout, bool bByBytes) : m_dwFlushTimeout(dwFlushTimeout), m_bByBytes(bByBytes) {}

  SScenario Scenario() {
    SScenario scenario;
    scenario.prepare = [this] { Prepare(); };
    scenario.act = [this] {
      CTestArchive archive(ArchivePath(), m_dwFlushTimeout);
      auto pCam = archive.Writer("cam");
      auto pDoor = archive.Writer("door");
      NSArchive::ArchiveImplOf(archive.Get())->SizeAndQuotaPass();
    };
    scenario.check = [this](unsigned nCut) { Check(nCut); };
    return scenario;
  }

 private:
  const SStream m_cam = {"cam", 8, 5, 3, 1};
  const SStream m_door = {"door", 9, 3, 2, 2};

  void Prepare() {
    CTestArchive archive(ArchivePath(), m_dwFlushTimeout);
    auto pCam = archive.Writer("cam");
    auto pDoor = archive.Writer("door");
    m_cam.WriteAll(pCam);
    m_door.WriteAll(pDoor);
    SArchiveQuota quota = {0, 0, 0, 0};
    if (m_bByBytes) {
      // Each pass frees 2 GiB beyond the excess: a limit that far above the size keeps some 45%.
      NSArchive::CArchiveImpl* pImpl = NSArchive::ArchiveImplOf(archive.Get());
      pImpl->SizeAndQuotaPass();
      quota.ullMaximumArchiveSize = (2ull << 30) + pImpl->GetArchiveSize() * 45 / 100;
    } else {
      quota.lMaximumArchiveHours = 2;
    }
    NSCom::CComPtr<IKronvaleQuota> pQuota = Query<IKronvaleQuota>(archive.Get(), IID_IKronvaleQuota);
    ASSERT_EQ(S_OK, pQuota->SetArchiveQuota(&quota));
  }

  // The hours ("cam@9") whose frames all read back, after checking each frame against the rule.
  std::set<std::string> CheckFrames(IRecord* pRecord, const SStream& stream, unsigned nCut) {
    const SReadBack found = ReadBack(pRecord, stream);
    EXPECT_TRUE(found.wrong.empty()) << stream.pszRecord << ", cut " << nCut << ": a frame read back with other bytes";
    std::set<std::string> whole, touched;
    for (int i : found.missing) touched.insert(stream.Hour(i));
    for (int i : found.present)
      if (!touched.count(stream.Hour(i))) whole.insert(stream.Hour(i));
    for (int i : found.present) {
      if (nCut == 0) {
        EXPECT_FALSE(touched.count(stream.Hour(i))) << stream.Hour(i) << ": an uncut pass left part of an hour";
      }
    }
    for (const std::string& strHour : touched) {
      if (nCut != 0) {
        EXPECT_FALSE(m_kept.count(strHour)) << strHour << ", cut " << nCut << ": an hour retention was not deleting lost frames";
      }
    }
    return whole;
  }

  void Check(unsigned nCut) {
    CTestArchive archive(ArchivePath(), m_dwFlushTimeout);
    auto pCam = archive.Writer("cam");
    auto pDoor = archive.Writer("door");
    std::set<std::string> whole = CheckFrames(pCam, m_cam, nCut);
    for (const std::string& str : CheckFrames(pDoor, m_door, nCut)) whole.insert(str);
    if (nCut == 0) {
      m_kept = whole;
      EXPECT_FALSE(m_kept.empty());
      EXPECT_LT(m_kept.size(), static_cast<size_t>(m_cam.cHours + m_door.cHours));
      return;
    }
    // The next pass finishes the job.
    NSArchive::ArchiveImplOf(archive.Get())->SizeAndQuotaPass();
    whole = CheckFrames(pCam, m_cam, nCut);
    for (const std::string& str : CheckFrames(pDoor, m_door, nCut)) whole.insert(str);
    EXPECT_EQ(m_kept, whole) << "cut " << nCut << ": the next pass did not leave what an uncut pass leaves";
  }

  DWORD m_dwFlushTimeout;
  bool m_bByBytes;
  std::set<std::string> m_kept;  // what the uncut pass left
};

}  // namespace

TEST(MemFsPowerCut, RetentionCutShortLosesOnlyTheHoursItWasDeleting) {
  for (const DWORD dwFlushTimeout : {0u, 3600000u}) {
    for (const bool bByBytes : {true, false}) {
      RetentionCut retention(dwFlushTimeout, bByBytes);
      const unsigned cCuts = CutAtEveryCall(retention.Scenario(), 3);
      std::printf("power cuts during retention (%s, %s): %u\n", dwFlushTimeout ? "buffered" : "write-through",
                  bByBytes ? "by bytes" : "by hours", cCuts);
    }
  }
}

// A merge of one record into another and a fast copy of its hours into a third record, each with a
// power cut at every changing call: the source reads back untouched, every hour the target held
// before reads back byte-exact, the target opens with only sound frames, and running the operation
// again completes it.
namespace {

class TransferCut {
 public:
  TransferCut(DWORD dwFlushTimeout, bool bMerge) : m_dwFlushTimeout(dwFlushTimeout), m_bMerge(bMerge) {}

  SScenario Scenario() {
    SScenario scenario;
    scenario.prepare = [this] { Prepare(); };
    scenario.act = [this] {
      CTestArchive archive(ArchivePath(), m_dwFlushTimeout);
      Transfer(archive);
    };
    scenario.check = [this](unsigned nCut) { Check(nCut); };
    return scenario;
  }

 private:
  // The source's hours 10 and 11; the target held hours 11 (at other seconds) and 12 before.
  const SStream m_source = {"src", 10, 2, 4, 2};
  const SStream m_target = {"dst", 11, 2, 3, 5};

  void Prepare() {
    CTestArchive archive(ArchivePath(), m_dwFlushTimeout);
    auto pSource = archive.Writer("src");
    auto pTarget = archive.Writer("dst");
    m_source.WriteAll(pSource);
    m_target.WriteAll(pTarget);
  }

  // A merge writes frame by frame; a fast copy copies whole hour directories (an hour the target
  // has already is left alone, so only the source's hour 10 is copied).
  HRESULT Transfer(CTestArchive& archive) {
    auto pSource = archive.Reader("src");
    auto pTarget = archive.Writer("dst");
    if (m_bMerge) return pTarget->Merge(pSource, nullptr, 1);
    NSCom::CComBSTR bstrTarget;
    pTarget->GetPath(&bstrTarget);
    auto pCopy = Query<IRecordFastCopy>(pSource, IID_IRecordFastCopy);
    const HRESULT hr = pCopy->CopyHoursTo(bstrTarget, Ft(2024, 5, 6, 10), Ft(2024, 5, 6, 10, 59, 59, 990));
    return hr;
  }

  // The source's frames the target must hold once the transfer is complete.
  bool Transfers(int i) const { return m_bMerge || i < m_source.cPerHour; }

  // Frames go over in time order, so a cut leaves the first ones. A write-through merge may bring
  // back the frame in flight with torn bytes (its Write had not answered: an hour's repair cannot
  // tell its bytes from sound ones); a buffered one may do so for any frame not yet flushed. A
  // copied hour is whole or absent.
  void CheckTransferred(const SReadBack& moved, unsigned nCut) {
    std::set<int> arrived = moved.present;
    arrived.insert(moved.wrong.begin(), moved.wrong.end());
    if (arrived.empty()) return;
    if (!m_bMerge) {
      EXPECT_TRUE(moved.wrong.empty()) << "cut " << nCut << ": a copied frame read back with other bytes";
      return;
    }
    if (m_dwFlushTimeout == 0) {
      EXPECT_EQ(static_cast<size_t>(*arrived.rbegin() + 1), arrived.size()) << "cut " << nCut << ": a hole in the merged frames";
      EXPECT_TRUE(moved.wrong.empty() || (moved.wrong.size() == 1 && *moved.wrong.begin() == *arrived.rbegin()))
          << "cut " << nCut << ": a merged frame other than the one in flight read back with other bytes";
    }
    m_cTornInFlight += moved.wrong.size();
  }

  void Check(unsigned nCut) {
    CTestArchive archive(ArchivePath(), m_dwFlushTimeout);
    {
      auto pSource = archive.Reader("src");
      EXPECT_TRUE(AllPresent(ReadBack(pSource, m_source), m_source)) << "cut " << nCut << ": the source was touched";
      auto pTarget = archive.Writer("dst");
      EXPECT_TRUE(AllPresent(ReadBack(pTarget, m_target), m_target)) << "cut " << nCut << ": the target lost its own frames";
      const SReadBack moved = ReadBack(pTarget, m_source);
      CheckTransferred(moved, nCut);
      // Uncut, a buffered merge's frames are still younger than the flush period at the reboot.
      if (nCut == 0 && (m_dwFlushTimeout == 0 || !m_bMerge)) {
        for (int i = 0; i < m_source.Count(); ++i) EXPECT_EQ(Transfers(i), moved.present.count(i) == 1) << i;
      }
    }
    // Once more to the end: then the target has everything. (A fast copy refuses an hour the
    // target has already.)
    const HRESULT hr = Transfer(archive);
    if (m_bMerge) {
      EXPECT_EQ(S_OK, hr) << "cut " << nCut;
    }
    auto pTarget = archive.Writer("dst");
    const SReadBack moved = ReadBack(pTarget, m_source);
    for (int i = 0; i < m_source.Count(); ++i) {
      if (Transfers(i)) {
        EXPECT_EQ(1u, moved.present.count(i)) << "cut " << nCut << ", frame " << i;
      }
    }
    EXPECT_TRUE(AllPresent(ReadBack(pTarget, m_target), m_target)) << "cut " << nCut;
  }

  DWORD m_dwFlushTimeout;
  bool m_bMerge;

 public:
  size_t m_cTornInFlight = 0;  // merged frames read back torn, all of them unacknowledged
};

}  // namespace

TEST(MemFsPowerCut, AMergeOrFastCopyCutShortLeavesSourceAndTargetWhole) {
  for (const DWORD dwFlushTimeout : {0u, 3600000u}) {
    for (const bool bMerge : {true, false}) {
      TransferCut transfer(dwFlushTimeout, bMerge);
      const unsigned cCuts = CutAtEveryCall(transfer.Scenario(), 3);
      std::printf("power cuts during %s (%s): %u; frames in flight read back torn: %zu\n", bMerge ? "merge" : "fast copy",
                  dwFlushTimeout ? "buffered" : "write-through", cCuts, transfer.m_cTornInFlight);
    }
  }
}
