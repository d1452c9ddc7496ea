// A multipart archive over three partitions, driven through the public interfaces of a factory:
// writes that fail over from a full disk to the next partition for every record, wrap around and run
// out; the multipart file written, read back and refused when it is not ours; two writers failing
// at once.
#include <atomic>
#include <thread>

#include <kronvale/KronvaleResults.h>

#include "archive/ArchiveFactory.h"
#include "multipart/MultipartArchive.h"
#include "records/RecordTestSupport.h"

using namespace NSTest;
using NSKronvale::khrNoPartition;
using NSKronvale::khrPathNotFound;
namespace NSFault = NSPlatform::NSFault;

namespace {

// The disks of the test: a partition's disk is full when every write under its directory fails.
// The one place that knows the fault seam.
class CDisks {
 public:
  ~CDisks() { NSFault::Reset(); }
  // Only the disks whose paths contain strPart are full from now on.
  void Fill(const WString& strPart) {
    NSFault::SRule rule;
    rule.eOp = NSFault::EOp::Write;
    rule.nNth = 1;
    rule.dwError = ERROR_DISK_FULL;
    rule.bSticky = true;
    rule.strPathContains = strPart;
    NSFault::Arm(rule);
  }
  void FreeAll() { NSFault::Reset(); }
};

// How many partitions the multipart archive answers (none when the call fails); lets go of them.
DWORD PartitionCount(IMultipartArchive* pMultipart) {
  DWORD cPartitions = 0;
  IKronvale** ppPartitions = nullptr;
  EXPECT_EQ(S_OK, pMultipart->GetPartitions(&cPartitions, &ppPartitions));
  if (!ppPartitions) return 0;
  for (DWORD i = 0; i < cPartitions; ++i) ppPartitions[i]->Release();
  CoTaskMemFree(ppPartitions);
  return cPartitions;
}

class MultipartTest : public ::testing::Test {
 protected:
  void SetUp() override { NewFactory(); }
  void TearDown() override { m_pFactory = nullptr; }

  // A factory with an empty cache, as a new process would have.
  void NewFactory() {
    m_pFactory = nullptr;
    NSCom::CComObject<NSArchive::CArchiveFactory>* p = nullptr;
    ASSERT_EQ(S_OK, NSCom::CComObject<NSArchive::CArchiveFactory>::CreateInstance(&p));
    m_pFactory = p;
  }
  WString File() const { return m_dir.Sub(KV_W("site.kvm")); }
  WString Disk(int i) const { return m_dir.Sub(Native(("disk" + std::to_string(i) + "/gate").c_str())); }

  // The multipart file with partitions disk0..disk2 in orders 0, 1, 2.
  NSCom::CComPtr<IMultipartArchive> MakeThree() {
    NSCom::CComPtr<IMultipartArchive> pMultipart;
    EXPECT_EQ(S_OK, m_pFactory->CreateMultipartArchive(NSCom::CComBSTR(File()), &pMultipart));
    for (int i = 0; i < 3; ++i) {
      NSCom::CComPtr<IKronvale> pPartition;
      EXPECT_EQ(S_OK, m_pFactory->CreateArchive(NSCom::CComBSTR(Disk(i)), &pPartition));
      EXPECT_EQ(S_OK, pMultipart->AddPartition(pPartition));
      const SPartitionOptions options = {0x100u + i, static_cast<BYTE>(i)};
      EXPECT_EQ(S_OK, pMultipart->SetPartitionOptions(pPartition, &options));
    }
    return pMultipart;
  }
  NSCom::CComPtr<IKronvale> Open(const WString& strPath) {
    NSCom::CComPtr<IKronvale> p;
    EXPECT_EQ(S_OK, m_pFactory->OpenArchive(NSCom::CComBSTR(strPath), &p));
    return p;
  }
  // Which disks hold the frame of record strName at ft, as "0", "12" or "" (none).
  std::string Holders(const char* pszName, const FILETIME& ft, const std::string& strPayload) {
    std::string strHolders;
    for (int i = 0; i < 3; ++i) {
      NSCom::CComPtr<IRecord> pReader;
      if (FAILED(Open(Disk(i))->OpenRecord(NSCom::CComBSTR(W(pszName).c_str()), &pReader))) continue;
      const std::vector<std::string> v = ReadFrame(pReader, ft, 1);
      if (v.size() == 1 && v[0] == strPayload) strHolders += char('0' + i);
    }
    return strHolders;
  }
  static size_t Count(const std::vector<NSTest::SLoggedReport>& v, const WString& strText) {
    return std::count_if(v.begin(), v.end(), [&](const NSTest::SLoggedReport& r) { return r.strText == strText; });
  }

  NSTest::CTempDir m_dir;
  NSCom::CComPtr<IArchiveFactory> m_pFactory;
  CDisks m_disks;
};

TEST_F(MultipartTest, EachFrameLandsOnTheFirstPartitionAfterTheFullOneForEveryRecord) {
  auto pMultipart = MakeThree();
  NSCom::CComPtr<IRecord> pGate, pYard;
  ASSERT_EQ(S_OK, pMultipart->CreateRecord(NSCom::CComBSTR(KV_W("gate")), &pGate));
  ASSERT_EQ(S_OK, pMultipart->CreateRecord(NSCom::CComBSTR(KV_W("yard")), &pYard));
  const FILETIME ft0 = Ft(2024, 5, 1, 10);
  // Frame i of both records; before frames 3, 6 and 9 one disk fills up and the previous one is
  // emptied, so the walk goes 0 -> 1 -> 2 and wraps to 0; frame 11 finds every disk full.
  const char* apszFull[12] = {nullptr, nullptr, nullptr, "disk0", nullptr, nullptr,
                              "disk1", nullptr, nullptr, "disk2", nullptr, "disk"};
  const char* pszExpected = "00011122200";
  NSTest::CLogCapture capture;
  for (int i = 0; i < 12; ++i) {
    if (apszFull[i]) m_disks.Fill(W(apszFull[i]));
    const HRESULT hrExpected = i == 11 ? khrNoPartition : S_OK;
    EXPECT_EQ(hrExpected, WriteFrame(pGate, Plus(ft0, i * 1000 * kllMs), 1, {"gate" + std::to_string(i)})) << i;
    EXPECT_EQ(hrExpected, WriteFrame(pYard, Plus(ft0, i * 1000 * kllMs), 1, {"yard" + std::to_string(i)})) << i;
  }
  m_disks.FreeAll();
  // Every frame on exactly one disk, none lost, none twice.
  for (int i = 0; i < 11; ++i) {
    const std::string strDisk(1, pszExpected[i]);
    EXPECT_EQ(strDisk, Holders("gate", Plus(ft0, i * 1000 * kllMs), "gate" + std::to_string(i))) << i;
    EXPECT_EQ(strDisk, Holders("yard", Plus(ft0, i * 1000 * kllMs), "yard" + std::to_string(i))) << i;
  }
  EXPECT_EQ("", Holders("gate", Plus(ft0, 11 * 1000 * kllMs), "gate11"));
  const auto vReports = capture.Reports();
  const WString strExhausted =
      W("Every partition of multipart archive '") + File() + W("' refused the frame\n");
  EXPECT_EQ(1u, Count(vReports, strExhausted));
  // The switches: 1, 2, 0; the second record never failed itself.
  std::vector<WString> vSwitches;
  for (const auto& report : capture.Reports(KV_W("warning")))
    if (report.strText.rfind(W("Multipart archive '"), 0) == 0) vSwitches.push_back(report.strText);
  ASSERT_EQ(3u, vSwitches.size());
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(W("Multipart archive '") + File() + W("' writes to partition '") + Disk((i + 1) % 3) + W("' now\n"),
              vSwitches[i]);
}

TEST_F(MultipartTest, ExhaustedPartitionsAreTriedAgainOnlyWhenAQuotaChanges) {
  auto pMultipart = MakeThree();
  NSCom::CComPtr<IRecord> pGate;
  ASSERT_EQ(S_OK, pMultipart->CreateRecord(NSCom::CComBSTR(KV_W("gate")), &pGate));
  const FILETIME ft = Ft(2024, 5, 1, 11);
  m_disks.Fill(KV_W("disk"));
  EXPECT_EQ(khrNoPartition, WriteFrame(pGate, ft, 1, {"a"}));
  // Disk 1 has room again, but nobody said so: the frame is not offered to it.
  m_disks.Fill(KV_W("disk0"));
  EXPECT_EQ(khrNoPartition, WriteFrame(pGate, Plus(ft, kllMs * 20), 1, {"b"}));
  EXPECT_EQ(S_OK, Open(Disk(1))->SetQuota(0, 1ull << 40));
  EXPECT_EQ(S_OK, WriteFrame(pGate, Plus(ft, kllMs * 40), 1, {"c"}));
  m_disks.FreeAll();
  EXPECT_EQ("", Holders("gate", Plus(ft, kllMs * 20), "b"));
  EXPECT_EQ("1", Holders("gate", Plus(ft, kllMs * 40), "c"));

  // A partition over its quota never deletes its hours, not even a closed one: that is the
  // multipart archive's business.
  EXPECT_EQ(S_OK, WriteFrame(pGate, Ft(2024, 5, 1, 12), 1, {"e"}));
  EXPECT_EQ(S_OK, Open(Disk(1))->SetQuota(0, 1));
  NSArchive::CArchiveImpl* pImpl = NSArchive::ArchiveImplOf(Open(Disk(1)));
  ASSERT_NE(nullptr, pImpl);
  // The new quota wakes the archive's worker, and a pass of its own running makes this one a
  // no-op: pass again until one has seen the quota (ten seconds at the most).
  pImpl->SizeAndQuotaPass();
  for (int i = 0; i < 1000 && !pImpl->IsQuotaExceeded(); ++i) {
    NSPlatform::SleepMs(10);
    pImpl->SizeAndQuotaPass();
  }
  EXPECT_TRUE(pImpl->IsQuotaExceeded());
  EXPECT_EQ("1", Holders("gate", Plus(ft, kllMs * 40), "c"));

  // A freed partition is not a full one: 0x8007006C goes back to the writer, nowhere else.
  EXPECT_EQ(S_OK, Open(Disk(1))->Free());
  EXPECT_EQ(static_cast<HRESULT>(0x8007006C), WriteFrame(pGate, Plus(ft, kllMs * 60), 1, {"d"}));
  EXPECT_EQ("", Holders("gate", Plus(ft, kllMs * 60), "d"));
}

TEST_F(MultipartTest, TheFileKeepsPartitionsOptionsDescriptionAndTheActiveChoice) {
  {
    auto pMultipart = MakeThree();
    // Disk 1 first in order, then 2, then 0.
    NSCom::CComPtr<IKronvale> apPartitions[3] = {Open(Disk(0)), Open(Disk(1)), Open(Disk(2))};
    const SPartitionOptions aOptions[3] = {{0xFFFFFFFFu, 255}, {0, 0}, {7, 9}};
    for (int i = 0; i < 3; ++i) EXPECT_EQ(S_OK, pMultipart->SetPartitionOptions(apPartitions[i], &aOptions[i]));
    EXPECT_EQ(S_OK, pMultipart->SetDescription(NSCom::CComBSTR(W("Gate <cams> & \xC3\xA9t\xC3\xA9").c_str())));
    EXPECT_EQ(E_INVALIDARG, pMultipart->SetDescription(NSCom::CComBSTR(2, KV_W("a\0"))));
    EXPECT_EQ(E_NOTIMPL, pMultipart->SetQuota(1, 1));

    std::string strText;
    ASSERT_EQ(S_OK, NSTest::ReadFileBytes(File(), &strText));
    auto archive = [&](int i, const char* pszFlags, const char* pszOrder) {
      return "  <archive path=\"" + NSPlatform::WideToUtf8(Disk(i)) + "\">\n    <flags type=\"ULONG\">" + pszFlags +
             "</flags>\n    <order type=\"ULONG\">" + pszOrder + "</order>\n  </archive>\n";
    };
    // Partitions in map order, which is not fixed: each must appear once, whole.
    EXPECT_EQ(0u, strText.find("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<config xmlns:xpt=\"urn:kronvale:multipart\">\n"
                               "  <description type=\"BSTR\">Gate &lt;cams&gt; &amp; \xC3\xA9t\xC3\xA9</description>\n"))
        << strText;
    EXPECT_NE(std::string::npos, strText.find(archive(0, "4294967295", "255"))) << strText;
    EXPECT_NE(std::string::npos, strText.find(archive(1, "0", "0"))) << strText;
    EXPECT_NE(std::string::npos, strText.find(archive(2, "7", "9"))) << strText;
    EXPECT_EQ(strText.size() - 10, strText.rfind("</config>\n")) << strText;
  }
  NewFactory();
  NSCom::CComPtr<IKronvale> pOpened = Open(File());
  NSCom::CComPtr<IMultipartArchive> pMultipart = Query<IMultipartArchive>(pOpened, IID_IMultipartArchive);
  ASSERT_TRUE(pMultipart);
  EXPECT_EQ(pOpened.p, Open(File()).p);  // from the cache
  // A partition's directory opens as the plain archive that is the partition.
  NSCom::CComPtr<IKronvale> pDisk2 = Open(Disk(2));
  IMultipartArchive* pNot = nullptr;
  EXPECT_EQ(E_NOINTERFACE, pDisk2->QueryInterface(IID_IMultipartArchive, reinterpret_cast<void**>(&pNot)));
  SPartitionOptions options = {};
  ASSERT_EQ(S_OK, pMultipart->GetPartitionOptions(pDisk2, &options));
  EXPECT_EQ(7u, options.dwFlags);
  EXPECT_EQ(9u, options.bOrder);
  EXPECT_EQ(3u, PartitionCount(pMultipart));
  NSCom::CComBSTR bstrDescription;
  ASSERT_EQ(S_OK, pMultipart->GetDescription(&bstrDescription));
  EXPECT_EQ(W("Gate <cams> & \xC3\xA9t\xC3\xA9"), WString(bstrDescription.m_str));
  // The first partition in order is active.
  NSCom::CComPtr<IRecord> pGate;
  ASSERT_EQ(S_OK, pMultipart->CreateRecord(NSCom::CComBSTR(KV_W("gate")), &pGate));
  const FILETIME ft = Ft(2024, 5, 2, 0);
  ASSERT_EQ(S_OK, WriteFrame(pGate, ft, 1, {"x"}));
  EXPECT_EQ("1", Holders("gate", ft, "x"));

  // Deleting the file deletes nothing else.
  pGate = nullptr;
  pMultipart = nullptr;
  pOpened = nullptr;
  EXPECT_EQ(S_OK, m_pFactory->DeleteArchive(NSCom::CComBSTR(File())));
  EXPECT_FALSE(NSPlatform::PathExists(File().c_str()));
  EXPECT_EQ("1", Holders("gate", ft, "x"));
  EXPECT_EQ(khrPathNotFound, m_pFactory->OpenArchive(NSCom::CComBSTR(File()), &pOpened));
}

TEST_F(MultipartTest, FilesThatAreNotOursAreRefusedAndNothingIsDeleted) {
  NSCom::CComPtr<IKronvale> pDisk0;
  ASSERT_EQ(S_OK, m_pFactory->CreateArchive(NSCom::CComBSTR(Disk(0)), &pDisk0));
  const std::string strPath0 = NSPlatform::WideToUtf8(Disk(0));
  const std::string strHead = "<config xmlns:xpt=\"urn:kronvale:multipart\">";
  const std::string strGood = strHead + "<archive path=\"" + strPath0 + "\"><order type=\"ULONG\">3</order></archive></config>";
  const std::string aBad[] = {
      "",
      "not xml at all",
      strGood.substr(0, strGood.size() / 2),                                  // truncated
      "<config xmlns:xpt=\"urn:kronvale:settings\"/>",                        // a settings file
      "<other xmlns:xpt=\"urn:kronvale:multipart\"/>",                        // another root
      strHead + "<archive><order type=\"ULONG\">1</order></archive></config>",  // no path
      strHead + "<archive path=\"" + strPath0 + "\"><order type=\"ULONG\">256</order></archive></config>",
      strHead + "<archive path=\"" + strPath0 + "\"><flags type=\"long\">1</flags></archive></config>",
      strHead + "<description type=\"UINT64\">1</description></config>",
  };
  const WString strFile = File();
  pDisk0 = nullptr;
  for (const std::string& strBad : aBad) {
    NewFactory();
    ASSERT_EQ(S_OK, NSTest::WriteFileBytes(strFile, strBad));
    {
      NSTest::CLogCapture capture;
      NSCom::CComPtr<IKronvale> p;
      EXPECT_EQ(static_cast<HRESULT>(0x8007000D), m_pFactory->OpenArchive(NSCom::CComBSTR(strFile), &p)) << strBad;
      EXPECT_EQ(1u, Count(capture.Reports(KV_W("error")), W("Not a multipart archive file: ") + strFile + KV_W("\n")));
    }
    // A file without our root and namespace is not ours: never deleted.
    const bool bOurs = strBad.rfind(strHead, 0) == 0 && strBad.find("</config>") != std::string::npos;
    EXPECT_EQ(bOurs ? S_OK : E_INVALIDARG, m_pFactory->DeleteArchive(NSCom::CComBSTR(strFile))) << strBad;
    EXPECT_EQ(!bOurs, NSPlatform::PathExists(strFile.c_str())) << strBad;
    NSTest::DeleteTree(strFile);
  }

  // A partition whose disk is gone is skipped, reported, and kept in the file for its return.
  NewFactory();
  const std::string strMissing = NSPlatform::WideToUtf8(m_dir.Sub(KV_W("unplugged")));
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(strFile, strHead + "<archive path=\"" + strMissing + "\"/><archive path=\"" +
                                                        strPath0 + "\"/><archive path=\"" +
                                                        NSPlatform::WideToUtf8(strFile) + "\"/></config>"));
  {
    NSTest::CLogCapture capture;
    NSCom::CComPtr<IMultipartArchive> pMultipart =
        Query<IMultipartArchive>(Open(strFile), IID_IMultipartArchive);
    ASSERT_TRUE(pMultipart);
    EXPECT_EQ(1u, Count(capture.Reports(KV_W("error")), W("Partition '") + W(strMissing.c_str()) +
                                                            W("' of multipart archive '") + strFile +
                                                            W("' cannot be opened (0x80070003); it is skipped\n")));
    ASSERT_EQ(1u, PartitionCount(pMultipart));
    ASSERT_EQ(S_OK, pMultipart->SetDescription(NSCom::CComBSTR(KV_W("saved"))));
    std::string strText;
    ASSERT_EQ(S_OK, NSTest::ReadFileBytes(strFile, &strText));
    EXPECT_NE(std::string::npos, strText.find("<archive path=\"" + strMissing + "\">")) << strText;
  }
  {
    // A multipart archive is no partition, and no directory.
    NSCom::CComPtr<IMultipartArchive> pMultipart = Query<IMultipartArchive>(Open(strFile), IID_IMultipartArchive);
    NSTest::CLogCapture asserts;
    EXPECT_EQ(E_INVALIDARG, pMultipart->AddPartition(pMultipart));
    EXPECT_EQ(E_INVALIDARG, pMultipart->AddPartition(Open(Disk(0))));
    EXPECT_EQ(E_INVALIDARG, pMultipart->RemovePartition(Query<IKronvale>(pMultipart, IID_IKronvale)));
    const auto vAsserts = asserts.Reports(KV_W("TRASSDO"));
    ASSERT_EQ(3u, vAsserts.size());
    EXPECT_EQ(KV_W("pArchiveImpl\n"), vAsserts[0].strText);
    EXPECT_EQ(KV_W("m_vPartitions.end()==m_vPartitions.find(pPartition)\n"), vAsserts[1].strText);
    EXPECT_EQ(KV_W("m_vPartitions.end()!=m_vPartitions.find(pPartition)\n"), vAsserts[2].strText);
  }
  // A file where a directory belongs and the reverse (the cache would hand out what it holds).
  NewFactory();
  NSCom::CComPtr<IKronvale> p;
  EXPECT_EQ(static_cast<HRESULT>(0x80070091), m_pFactory->CreateArchive(NSCom::CComBSTR(strFile), &p));
  NSCom::CComPtr<IMultipartArchive> pOther;
  EXPECT_EQ(static_cast<HRESULT>(0x800700B7), m_pFactory->CreateMultipartArchive(NSCom::CComBSTR(Disk(0)), &pOther));
  EXPECT_TRUE(NSPlatform::PathExists(strFile.c_str()));
  EXPECT_TRUE(NSPlatform::PathExists(NSPlatform::CombinePath(Disk(0), KV_W("settings.als")).c_str()));
}

TEST_F(MultipartTest, RecordsFollowThePartitionSetAndTheirChildrenAgree) {
  auto pMultipart = MakeThree();
  NSCom::CComPtr<IRecord> pGate;
  ASSERT_EQ(S_OK, pMultipart->CreateRecord(NSCom::CComBSTR(KV_W("gate")), &pGate));
  ASSERT_EQ(S_OK, pGate->SetDescription(NSCom::CComBSTR(KV_W("north gate"))));
  NSCom::CComPtr<IRecord> pChild2;
  ASSERT_EQ(S_OK, Open(Disk(2))->CreateRecord(NSCom::CComBSTR(KV_W("gate")), &pChild2));
  NSCom::CComBSTR bstr;
  ASSERT_EQ(S_OK, pChild2->GetDescription(&bstr));
  EXPECT_EQ(WString(KV_W("north gate")), WString(bstr.m_str));
  {
    NSTest::CLogCapture capture;
    ASSERT_EQ(S_OK, pChild2->SetDescription(NSCom::CComBSTR(KV_W("south gate"))));
    NSCom::CComBSTR bstrSeen;
    EXPECT_EQ(S_OK, pGate->GetDescription(&bstrSeen));
    // The children are read in an order of their own: the first one read is answered, and every
    // later one that differs from it is reported (both others when the odd one came first).
    const bool bOddFirst = WString(bstrSeen.m_str) == KV_W("south gate");
    EXPECT_TRUE(bOddFirst || WString(bstrSeen.m_str) == KV_W("north gate"));
    EXPECT_EQ(bOddFirst ? 2u : 1u, Count(capture.Reports(KV_W("TRASSDO")), KV_W("szPrevDescription==szDescription\n")));
  }
  // A partition added later gains the record; one removed takes its child along, and the active
  // choice moves to the first partition left in order.
  NSCom::CComPtr<IKronvale> pDisk3;
  ASSERT_EQ(S_OK, m_pFactory->CreateArchive(NSCom::CComBSTR(m_dir.Sub(Native("disk3/gate"))), &pDisk3));
  ASSERT_EQ(S_OK, pMultipart->AddPartition(pDisk3));
  EXPECT_TRUE(NSPlatform::IsDirectory(m_dir.Sub(Native("disk3/gate/gate")).c_str()));
  for (int i = 0; i < 3; ++i) ASSERT_EQ(S_OK, pMultipart->RemovePartition(Open(Disk(i))));
  const FILETIME ft = Ft(2024, 5, 3, 0);
  ASSERT_EQ(S_OK, WriteFrame(pGate, ft, 1, {"late"}));
  NSCom::CComPtr<IRecord> pReader;
  ASSERT_EQ(S_OK, pDisk3->OpenRecord(NSCom::CComBSTR(KV_W("gate")), &pReader));
  EXPECT_EQ(std::vector<std::string>{"late"}, ReadFrame(pReader, ft, 1));
  // Without partitions the record has no active child: it answers without touching any.
  ASSERT_EQ(S_OK, pMultipart->RemovePartition(pDisk3));
  NSTest::CLogCapture capture;
  NSCom::CComBSTR bstrName;
  EXPECT_EQ(static_cast<HRESULT>(0x8007139F), pGate->GetName(&bstrName));
  EXPECT_EQ(static_cast<HRESULT>(0x8007139F), WriteFrame(pGate, ft, 1, {"x"}));
  EXPECT_EQ(2u, Count(capture.Reports(KV_W("TRASSDO")), KV_W("m_spActiveRecord\n")));
}

// Two writers whose frames fail on the same full disk at once: the archive switches once, and the
// writer that comes second writes to the partition the first one chose.
TEST_F(MultipartTest, TwoWritersFailingTogetherSwitchOnce) {
  auto pMultipart = MakeThree();
  NSCom::CComPtr<IRecord> apRecords[2];
  ASSERT_EQ(S_OK, pMultipart->CreateRecord(NSCom::CComBSTR(KV_W("gate")), &apRecords[0]));
  ASSERT_EQ(S_OK, pMultipart->CreateRecord(NSCom::CComBSTR(KV_W("yard")), &apRecords[1]));
  const FILETIME ft0 = Ft(2024, 5, 4, 0);
  m_disks.Fill(KV_W("disk0"));
  NSTest::CLogCapture capture;
  std::atomic<int> nReady{0};
  std::atomic<int> anFailed[2] = {0, 0};
  auto writer = [&](int iRecord) {
    ++nReady;
    while (nReady.load() < 2) std::this_thread::yield();
    for (int i = 0; i < 20; ++i)
      if (WriteFrame(apRecords[iRecord], Plus(ft0, i * 10 * kllMs), 1, {std::to_string(iRecord * 100 + i)}) != S_OK)
        ++anFailed[iRecord];
  };
  std::thread a(writer, 0), b(writer, 1);
  a.join();
  b.join();
  m_disks.FreeAll();
  EXPECT_EQ(0, anFailed[0].load());
  EXPECT_EQ(0, anFailed[1].load());
  EXPECT_EQ(1u, Count(capture.Reports(KV_W("warning")),
                      W("Multipart archive '") + File() + W("' writes to partition '") + Disk(1) + W("' now\n")));
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ("1", Holders("gate", Plus(ft0, i * 10 * kllMs), std::to_string(i))) << i;
    EXPECT_EQ("1", Holders("yard", Plus(ft0, i * 10 * kllMs), std::to_string(100 + i))) << i;
  }
}

}  // namespace
