// Archives, partitions and the factory through the proxy/stub: the boundary structures, interface
// pointers in and out (and back home), callee-allocated arrays of interfaces, and status codes.
#ifdef _WIN32

#include <climits>
#include <cstring>

#include "marshal/MarshalHarness.h"

using namespace NSTest;
using NSCom::CComBSTR;
using NSCom::CComPtr;

namespace {

CComBSTR PathOf(IKronvale* p) {
  CComBSTR bstr;
  EXPECT_EQ(S_OK, p->GetPath(&bstr));
  return bstr;
}

// Frees a callee-allocated array of partitions.
void FreePartitions(IKronvale** a, DWORD dwCount) {
  for (DWORD i = 0; i < dwCount; ++i) {
    if (a[i] != nullptr) {
      a[i]->Release();
    }
  }
  CoTaskMemFree(a);
}

}  // namespace

// ---- Structures -------------------------------------------------------------------------------------

TEST_F(CMarshalTest, ArchiveInfoQuotaAndScalarsCrossWithEveryBit) {
  m_pArchive->m_info = {0xFFFFFFFFFFFFFFFFull, 0x0123456789ABCDEFull, 0, 0x8000000000000001ull, 0xFFFFFFFFu,
                        0x80000001u};
  SArchiveInfo info;
  std::memset(&info, 0x5A, sizeof(info));
  ASSERT_EQ(S_OK, m_spArchive->GetInfo(&info));
  EXPECT_EQ(0, std::memcmp(&m_pArchive->m_info, &info, sizeof(info)));

  for (ULONGLONG ull : {0ull, 1ull, 0x7FFFFFFFFFFFFFFFull, 0x8000000000000000ull, 0xFFFFFFFFFFFFFFFFull}) {
    ASSERT_EQ(S_OK, m_spArchive->SetQuota(ull, ~ull));
    EXPECT_EQ((std::vector<ULONGLONG>{ull, ~ull}), m_pArchive->m_seen.vUlls);
  }
  for (ULONG ul : {0ul, 1ul, 0x80000000ul, 0xFFFFFFFFul}) {
    ASSERT_EQ(S_OK, m_spArchive->SetFlushTimeout(ul));
    EXPECT_EQ(std::vector<LONG>{static_cast<LONG>(ul)}, m_pArchive->m_seen.vLongs);
  }

  // The quota: in, and in/out (what the caller held reaches the object, the object's answer
  // replaces it).
  CComPtr<IKronvaleQuota> spQuota;
  ASSERT_EQ(S_OK, m_spArchive.QueryInterface(&spQuota));
  const SArchiveQuota quotaIn = {0xFEDCBA9876543210ull, 0xFFFFFFFFFFFFFFFFull, -1, 0x80000000u};
  ASSERT_EQ(S_OK, spQuota->SetArchiveQuota(&quotaIn));
  EXPECT_FALSE(m_pArchive->m_bQuotaNull);
  EXPECT_EQ(0, std::memcmp(&quotaIn, &m_pArchive->m_quotaSeen, sizeof(quotaIn)));
  m_pArchive->m_quotaOut = {1, 0x8000000000000000ull, LONG_MIN, 0xFFFFFFFFu};
  SArchiveQuota quota = {2, 3, 0x7FFFFFFF, 4};
  ASSERT_EQ(S_OK, spQuota->GetArchiveQuota(&quota));
  EXPECT_EQ(2u, m_pArchive->m_quotaSeen.ullMinimumFreeDiskSpace);
  EXPECT_EQ(3u, m_pArchive->m_quotaSeen.ullMaximumArchiveSize);
  EXPECT_EQ(0x7FFFFFFF, m_pArchive->m_quotaSeen.lMaximumArchiveHours);
  EXPECT_EQ(4u, m_pArchive->m_quotaSeen.dwAccess);
  EXPECT_EQ(0, std::memcmp(&m_pArchive->m_quotaOut, &quota, sizeof(quota)));
}

TEST_F(CMarshalTest, PartitionOptionsCrossInAndOutWithThePartition) {
  CComPtr<IKronvale> spPart;
  {
    IKronvale** a = nullptr;
    DWORD dwCount = 0;
    ASSERT_EQ(S_OK, m_spArchive->GetPartitions(&dwCount, &a));
    ASSERT_EQ(3u, dwCount);
    spPart = a[1];
    FreePartitions(a, dwCount);
  }
  for (const SPartitionOptions& options : {SPartitionOptions{0, 0}, SPartitionOptions{0xFFFFFFFFu, 0xFF},
                                           SPartitionOptions{0x80000001u, 0x7F}}) {
    ASSERT_EQ(S_OK, m_spArchive->SetPartitionOptions(spPart, &options));
    EXPECT_FALSE(m_pArchive->m_bOptionsNull);
    EXPECT_EQ(options.dwFlags, m_pArchive->m_optionsSeen.dwFlags);
    EXPECT_EQ(options.bOrder, m_pArchive->m_optionsSeen.bOrder);
    // The partition arrives as the object itself: it lives in this apartment.
    EXPECT_EQ(m_pArchive->m_vPartitions[1].p, m_pArchive->m_pPartitionSeen);
    EXPECT_EQ(CComBSTR(L"E:\\part1"), m_pArchive->m_bstrPartitionPath);

    m_pArchive->m_optionsOut = SPartitionOptions{~options.dwFlags, static_cast<BYTE>(~options.bOrder)};
    SPartitionOptions out{0x5A5A5A5A, 0x5A};
    ASSERT_EQ(S_OK, m_spArchive->GetPartitionOptions(spPart, &out));
    EXPECT_EQ(~options.dwFlags, out.dwFlags);
    EXPECT_EQ(static_cast<BYTE>(~options.bOrder), out.bOrder);
    EXPECT_EQ(m_pArchive->m_vPartitions[1].p, m_pArchive->m_pPartitionSeen);
  }
  // Without a partition.
  SPartitionOptions out{};
  ASSERT_EQ(S_OK, m_spArchive->GetPartitionOptions(nullptr, &out));
  EXPECT_EQ(nullptr, m_pArchive->m_pPartitionSeen);
}

// ---- Interface pointers -----------------------------------------------------------------------------

TEST_F(CMarshalTest, PartitionsArriveAsProxiesThatCanBeCalled) {
  IKronvale** a = nullptr;
  DWORD dwCount = 0;
  ASSERT_EQ(S_OK, m_spArchive->GetPartitions(&dwCount, &a));
  ASSERT_EQ(3u, dwCount);
  ASSERT_NE(nullptr, a);
  const WCHAR* apszPaths[] = {L"D:\\part0", L"E:\\part1", L"F:\\part2"};
  for (DWORD i = 0; i < dwCount; ++i) {
    SCOPED_TRACE(i);
    ASSERT_NE(nullptr, a[i]);
    EXPECT_NE(static_cast<IKronvale*>(m_pArchive->m_vPartitions[i].p), a[i]);
    EXPECT_EQ(CComBSTR(apszPaths[i]), PathOf(a[i]));
    // A call through the partition's proxy that returns another proxy.
    CComPtr<IRecord> spRecord;
    ASSERT_EQ(S_OK, a[i]->CreateRecord(CComBSTR(L"cam"), &spRecord));
    CComBSTR bstrName;
    ASSERT_EQ(S_OK, spRecord->GetName(&bstrName));
    EXPECT_EQ(CComBSTR(L"cam"), bstrName);
  }
  FreePartitions(a, dwCount);

  // None: a count of zero and no array.
  m_pArchive->m_vPartitions.clear();
  a = reinterpret_cast<IKronvale**>(1);
  dwCount = 5;
  ASSERT_EQ(S_OK, m_spArchive->GetPartitions(&dwCount, &a));
  EXPECT_EQ(0u, dwCount);
  EXPECT_EQ(nullptr, a);
}

TEST_F(CMarshalTest, PartitionsFromEitherSideGoInAndComeBackAsThemselves) {
  // One made in this apartment: the server calls back into it while adding it.
  CComPtr<IMultipartArchive> spLocal;
  CScriptedArchive* pLocal = nullptr;
  ASSERT_EQ(S_OK, CScriptedArchive::Create(L"G:\\client", &spLocal, &pLocal));
  ASSERT_EQ(S_OK, m_spArchive->AddPartition(spLocal));
  EXPECT_STREQ("AddPartition", m_pArchive->m_seen.pszMethod);
  EXPECT_EQ(S_OK, m_pArchive->m_hrPartitionPath);
  EXPECT_EQ(CComBSTR(L"G:\\client"), m_pArchive->m_bstrPartitionPath);
  EXPECT_STREQ("GetPath", pLocal->m_seen.pszMethod);
  EXPECT_NE(ServerThreadId(), pLocal->m_seen.dwThreadId);
  EXPECT_NE(static_cast<IKronvale*>(pLocal), m_pArchive->m_pPartitionSeen);  // a proxy over there

  // One made by the server's factory, handed back to the server: it arrives as itself.
  CComPtr<IKronvale> spMade;
  ASSERT_EQ(S_OK, m_spFactory->CreateArchive(CComBSTR(L"H:\\made"), &spMade));
  ASSERT_NE(nullptr, m_pFactory->m_pLastMade);
  ASSERT_EQ(S_OK, m_spArchive->AddPartition(spMade));
  EXPECT_EQ(static_cast<IKronvale*>(m_pFactory->m_pLastMade), m_pArchive->m_pPartitionSeen);
  EXPECT_EQ(CComBSTR(L"H:\\made"), m_pArchive->m_bstrPartitionPath);

  // Out again: this apartment's own object is itself, the server's are proxies.
  IKronvale** a = nullptr;
  DWORD dwCount = 0;
  ASSERT_EQ(S_OK, m_spArchive->GetPartitions(&dwCount, &a));
  ASSERT_EQ(5u, dwCount);
  EXPECT_EQ(static_cast<IKronvale*>(spLocal.p), a[3]);
  EXPECT_EQ(spMade.p, a[4]);
  EXPECT_EQ(CComBSTR(L"H:\\made"), PathOf(a[4]));
  FreePartitions(a, dwCount);

  // Removal finds them by identity; a stranger is not found and the object's code arrives.
  ASSERT_EQ(S_OK, m_spArchive->RemovePartition(spLocal));
  CComPtr<IMultipartArchive> spStranger;
  ASSERT_EQ(S_OK, CScriptedArchive::Create(L"Z:\\stranger", &spStranger));
  EXPECT_EQ(E_INVALIDARG, m_spArchive->RemovePartition(spStranger));
  EXPECT_EQ(CComBSTR(L"Z:\\stranger"), m_pArchive->m_bstrPartitionPath);
  ASSERT_EQ(S_OK, m_spArchive->RemovePartition(spMade));
  ASSERT_EQ(S_OK, m_spArchive->GetPartitions(&dwCount, &a));
  EXPECT_EQ(3u, dwCount);
  FreePartitions(a, dwCount);
}

TEST_F(CMarshalTest, MergeSourcesFromEitherSideReachTheRecord) {
  // A record of this apartment: the server reads its name back through it during the call.
  CComPtr<IRecordEx> spLocal;
  CScriptedRecord* pLocal = nullptr;
  ASSERT_EQ(S_OK, CScriptedRecord::Create(L"\x0438\x0441\x0442\x043E\x0447\x043D\x0438\x043A", &spLocal, &pLocal));
  const SFrameFilter filter{0x10, efmAll};
  ASSERT_EQ(S_OK, m_spRecord->Merge(spLocal, &filter, 3));
  EXPECT_EQ(S_OK, m_pRecord->m_hrMergeSourceName);
  EXPECT_EQ(CComBSTR(L"\x0438\x0441\x0442\x043E\x0447\x043D\x0438\x043A"), m_pRecord->m_bstrMergeSourceName);
  EXPECT_NE(nullptr, m_pRecord->m_pMergeSource);
  EXPECT_NE(static_cast<IRecord*>(pLocal), m_pRecord->m_pMergeSource);
  EXPECT_STREQ("GetName", pLocal->m_seen.pszMethod);
  EXPECT_NE(ServerThreadId(), pLocal->m_seen.dwThreadId);
  EXPECT_EQ((SFilterSeen{true, 0x10, efmAll}), m_pRecord->m_seen.filter);
  EXPECT_EQ(std::vector<LONG>{3}, m_pRecord->m_seen.vLongs);

  // An extract the server made, handed back: it arrives as the server's own object.
  CComPtr<IRecord> spExtract;
  ASSERT_EQ(S_OK, m_spRecord->Extract(Ft(0), Ft(1), nullptr, 0, &spExtract));
  ASSERT_TRUE(spExtract);
  CComBSTR bstrName;
  ASSERT_EQ(S_OK, spExtract->GetName(&bstrName));
  EXPECT_EQ(CComBSTR(L"extract"), bstrName);
  ASSERT_EQ(S_OK, m_spRecord->Merge(spExtract, nullptr, 0));
  EXPECT_EQ(CComBSTR(L"extract"), m_pRecord->m_bstrMergeSourceName);

  // No source at all.
  ASSERT_EQ(S_OK, m_spRecord->Merge(nullptr, nullptr, 0));
  EXPECT_EQ(nullptr, m_pRecord->m_pMergeSource);
}

TEST_F(CMarshalTest, TheFactoryHandsOutArchivesAsProxies) {
  CComPtr<IKronvale> spCreated;
  ASSERT_EQ(S_OK, m_spFactory->CreateArchive(CComBSTR(L"C:\\\x6863\x6848"), &spCreated));
  EXPECT_STREQ("CreateArchive", m_pFactory->m_seen.pszMethod);
  ASSERT_TRUE(spCreated);
  EXPECT_NE(static_cast<IKronvale*>(m_pFactory->m_pLastMade), spCreated.p);
  EXPECT_EQ(CComBSTR(L"C:\\\x6863\x6848"), PathOf(spCreated));
  // A proxy of the new archive serves its other interfaces too.
  CComPtr<IMultipartArchive> spMultipart;
  EXPECT_EQ(S_OK, spCreated.QueryInterface(&spMultipart));

  CComPtr<IKronvale> spOpened;
  ASSERT_EQ(S_OK, m_spFactory->OpenArchive(CComBSTR(L"D:\\open"), &spOpened));
  EXPECT_STREQ("OpenArchive", m_pFactory->m_seen.pszMethod);
  EXPECT_EQ(CComBSTR(L"D:\\open"), PathOf(spOpened));

  CComPtr<IMultipartArchive> spMade;
  ASSERT_EQ(S_OK, m_spFactory->CreateMultipartArchive(CComBSTR(L"E:\\multi"), &spMade));
  EXPECT_STREQ("CreateMultipartArchive", m_pFactory->m_seen.pszMethod);
  EXPECT_EQ(CComBSTR(L"E:\\multi"), PathOf(spMade));
  ASSERT_EQ(S_OK, spMade->AddPartition(spOpened));
  EXPECT_EQ(CComBSTR(L"D:\\open"), m_pFactory->m_pLastMade->m_bstrPartitionPath);
}

// ---- Status codes -----------------------------------------------------------------------------------

TEST_F(CMarshalTest, TheObjectsStatusCodesArriveUnchanged) {
  const HRESULT aCodes[] = {S_FALSE,
                            static_cast<HRESULT>(0x00041234),  // another success code
                            E_FAIL,
                            E_INVALIDARG,
                            HRESULT_FROM_WIN32(ERROR_DISK_FULL),
                            HRESULT_FROM_WIN32(ERROR_HANDLE_EOF),
                            static_cast<HRESULT>(0x80040200),   // an interface-defined code
                            static_cast<HRESULT>(0xA0041234)};  // customer bit set
  for (HRESULT hr : aCodes) {
    SCOPED_TRACE(testing::Message() << std::hex << hr);
    m_pRecord->m_hrResult = hr;
    m_pArchive->m_hrResult = hr;
    m_pFactory->m_hrResult = hr;
    std::vector<BYTE> v = Pattern(3, 1);
    const SFrameBuffer buffer{v.data(), 3};
    EXPECT_EQ(hr, m_spRecord->Write(Ft(1), 0, &buffer, 1));
    DWORD dwFlags = 0;
    EXPECT_EQ(hr, m_spRecord->Read(Ft(1), &dwFlags, nullptr, 0));
    EXPECT_EQ(hr, m_spRecord->CheckFrame(Ft(1), nullptr));
    FILETIME ft{};
    EXPECT_EQ(hr, m_spRecord->GetSibling(-1, -1, Ft(1), nullptr, &ft));
    CComBSTR bstr;
    EXPECT_EQ(hr, m_spRecord->GetName(&bstr));
    if (FAILED(hr)) {
      EXPECT_EQ(nullptr, bstr.m_str);
    }
    CComPtr<IRecord> spExtract;
    EXPECT_EQ(hr, m_spRecord->Extract(Ft(0), Ft(1), nullptr, 0, &spExtract));
    EXPECT_EQ(FAILED(hr), !spExtract);
    SArchiveInfo info{};
    EXPECT_EQ(hr, m_spArchive->GetInfo(&info));
    EXPECT_EQ(hr, m_spArchive->Free());
    CComPtr<IKronvale> spArchive;
    EXPECT_EQ(hr, m_spFactory->CreateArchive(CComBSTR(L"x"), &spArchive));
    EXPECT_EQ(FAILED(hr), !spArchive);
  }
  // The fixed answer of the reserved method.
  m_pRecord->m_hrResult = S_OK;
  EXPECT_EQ(E_NOTIMPL, m_spRecord->ReservedRange(Ft(0), Ft(1)));
}

#endif  // _WIN32
