// IRecord and IRecordEx through the proxy/stub: frame buffers in both directions, frame times at
// the ends of their range, filters of every mode, callee-allocated statistics and 32-bit arguments
// of either sign.
#ifdef _WIN32

#include <climits>

#include "marshal/MarshalHarness.h"

using namespace NSTest;
using NSCom::CComBSTR;
using NSCom::CComPtr;

namespace {

constexpr ULONGLONG kTimes[] = {0, 1, 0x00000000FFFFFFFFull, 0x0000000080000000ull, 0x01D9C0DE80000000ull,
                               0x7FFFFFFFFFFFFFFFull, 0x8000000000000000ull, 0xFFFFFFFFFFFFFFFFull};

SFrameBuffer Buffer(std::vector<BYTE>& v) { return SFrameBuffer{v.empty() ? nullptr : v.data(), DWORD(v.size())}; }

}  // namespace

// ---- Write ------------------------------------------------------------------------------------------

TEST_F(CMarshalTest, WriteCarriesEveryBufferWithItsBytesAndNullness) {
  std::vector<BYTE> v0 = Pattern(1, 0);
  std::vector<BYTE> v2 = Pattern(4099, 2);
  BYTE bZeroLength = 0xAB;
  const SFrameBuffer aBuffers[] = {
      Buffer(v0),
      {nullptr, 0},             // no data
      Buffer(v2),
      {&bZeroLength, 0},        // data, but none of it counted
      {nullptr, 17},            // no data with a stray size: the size still travels
  };
  ASSERT_EQ(S_OK, m_spRecord->Write(Ft(0x01D9C0DE12345678ull), 0xFFFFFFFFu, aBuffers, 5));
  EXPECT_STREQ("Write", m_pRecord->m_seen.pszMethod);
  EXPECT_EQ(std::vector<ULONGLONG>{0x01D9C0DE12345678ull}, m_pRecord->m_seen.vTimes);
  EXPECT_EQ((std::vector<LONG>{-1, 5}), m_pRecord->m_seen.vLongs);
  ASSERT_FALSE(m_pRecord->m_bBuffersNull);
  const auto& seen = m_pRecord->m_vBuffers;
  ASSERT_EQ(5u, seen.size());
  EXPECT_TRUE(seen[0].bData);
  EXPECT_EQ(v0, seen[0].vData);
  EXPECT_FALSE(seen[1].bData);
  EXPECT_EQ(0u, seen[1].dwDataSize);
  EXPECT_TRUE(seen[2].bData);
  EXPECT_EQ(4099u, seen[2].dwDataSize);
  EXPECT_EQ(v2, seen[2].vData);
  EXPECT_TRUE(seen[3].bData);
  EXPECT_EQ(0u, seen[3].dwDataSize);
  EXPECT_FALSE(seen[4].bData);
  EXPECT_EQ(17u, seen[4].dwDataSize);

  // No buffers at all.
  ASSERT_EQ(S_OK, m_spRecord->Write(Ft(0), 0, nullptr, 0));
  EXPECT_TRUE(m_pRecord->m_bBuffersNull);
  EXPECT_EQ((std::vector<LONG>{0, 0}), m_pRecord->m_seen.vLongs);
}

TEST_F(CMarshalTest, WriteCarriesABufferOfSeveralMebibytesByteForByte) {
  std::vector<BYTE> vHead = Pattern(12, 7);
  std::vector<BYTE> vBig = Pattern(6 * 1024 * 1024 + 3, 8);
  const SFrameBuffer aBuffers[] = {Buffer(vHead), Buffer(vBig)};
  ASSERT_EQ(S_OK, m_spRecord->Write(Ft(0x7FFFFFFFFFFFFFFFull), 0x80000001u, aBuffers, 2));
  const auto& seen = m_pRecord->m_vBuffers;
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ(vHead, seen[0].vData);
  ASSERT_EQ(vBig.size(), seen[1].vData.size());
  EXPECT_TRUE(vBig == seen[1].vData);
}

// ---- Read -------------------------------------------------------------------------------------------

TEST_F(CMarshalTest, ReadFillsCallerBuffersInPlaceAndHandsOverCalleeAllocatedOnes) {
  m_pRecord->m_dwReadFlags = 0x80000003u;
  m_pRecord->m_vReadData = {Pattern(10, 1), Pattern(300, 2), Pattern(8, 3), {}};
  std::vector<BYTE> vCaller(16, 0xEE);
  SFrameBuffer aBuffers[] = {
      {vCaller.data(), 16},  // room for 16, receives 10
      {nullptr, 0},          // the callee allocates 300 bytes
      {nullptr, 0},          // the callee allocates 8 bytes
      {nullptr, 0},          // the callee has nothing for it
  };
  DWORD dwFlags = 0;
  ASSERT_EQ(S_OK, m_spRecord->Read(Ft(0xFFFFFFFFFFFFFFFFull), &dwFlags, aBuffers, 4));

  // What the callee received.
  EXPECT_EQ(std::vector<ULONGLONG>{0xFFFFFFFFFFFFFFFFull}, m_pRecord->m_seen.vTimes);
  EXPECT_EQ(std::vector<LONG>{4}, m_pRecord->m_seen.vLongs);
  ASSERT_EQ(4u, m_pRecord->m_vBuffers.size());
  EXPECT_TRUE(m_pRecord->m_vBuffers[0].bData);
  EXPECT_EQ(16u, m_pRecord->m_vBuffers[0].dwDataSize);
  for (int i = 1; i < 4; ++i) {
    EXPECT_FALSE(m_pRecord->m_vBuffers[i].bData) << i;
  }

  // What came back: the caller's buffer kept, its first 10 bytes replaced and nothing beyond them.
  EXPECT_EQ(0x80000003u, dwFlags);
  EXPECT_EQ(vCaller.data(), aBuffers[0].pData);
  EXPECT_EQ(10u, aBuffers[0].dwDataSize);
  const std::vector<BYTE> vExpected0 = Pattern(10, 1);
  EXPECT_TRUE(std::equal(vExpected0.begin(), vExpected0.end(), vCaller.begin()));
  EXPECT_EQ(std::vector<BYTE>(6, 0xEE), std::vector<BYTE>(vCaller.begin() + 10, vCaller.end()));
  // Task memory of the caller's own, with the callee's bytes.
  ASSERT_NE(nullptr, aBuffers[1].pData);
  ASSERT_EQ(300u, aBuffers[1].dwDataSize);
  EXPECT_EQ(Pattern(300, 2), std::vector<BYTE>(aBuffers[1].pData, aBuffers[1].pData + 300));
  ASSERT_NE(nullptr, aBuffers[2].pData);
  ASSERT_EQ(8u, aBuffers[2].dwDataSize);
  EXPECT_EQ(Pattern(8, 3), std::vector<BYTE>(aBuffers[2].pData, aBuffers[2].pData + 8));
  EXPECT_EQ(nullptr, aBuffers[3].pData);
  EXPECT_EQ(0u, aBuffers[3].dwDataSize);
  CoTaskMemFree(aBuffers[1].pData);
  CoTaskMemFree(aBuffers[2].pData);
}

TEST_F(CMarshalTest, ReadOfFlagsOnlyAndOfSeveralMebibytes) {
  // (null, 0) asks for the flags alone.
  m_pRecord->m_dwReadFlags = 0xFFFFFFFFu;
  DWORD dwFlags = 0;
  ASSERT_EQ(S_OK, m_spRecord->Read(Ft(0), &dwFlags, nullptr, 0));
  EXPECT_EQ(0xFFFFFFFFu, dwFlags);
  EXPECT_TRUE(m_pRecord->m_bBuffersNull);
  EXPECT_EQ(std::vector<ULONGLONG>{0}, m_pRecord->m_seen.vTimes);
  EXPECT_EQ(std::vector<LONG>{0}, m_pRecord->m_seen.vLongs);

  // A large frame, once into the caller's memory and once into the callee's.
  const std::vector<BYTE> vBig = Pattern(5 * 1024 * 1024 + 1, 9);
  m_pRecord->m_dwReadFlags = 0;
  m_pRecord->m_vReadData = {vBig, vBig};
  std::vector<BYTE> vCaller(vBig.size() + 5, 0);
  SFrameBuffer aBuffers[] = {{vCaller.data(), DWORD(vCaller.size())}, {nullptr, 0}};
  ASSERT_EQ(S_OK, m_spRecord->Read(Ft(0x7FFFFFFFFFFFFFFFull), &dwFlags, aBuffers, 2));
  EXPECT_EQ(0u, dwFlags);
  ASSERT_EQ(vBig.size(), aBuffers[0].dwDataSize);
  EXPECT_TRUE(std::equal(vBig.begin(), vBig.end(), vCaller.begin()));
  ASSERT_NE(nullptr, aBuffers[1].pData);
  ASSERT_EQ(vBig.size(), aBuffers[1].dwDataSize);
  EXPECT_TRUE(std::equal(vBig.begin(), vBig.end(), aBuffers[1].pData));
  CoTaskMemFree(aBuffers[1].pData);
}

// ---- Times ------------------------------------------------------------------------------------------

TEST_F(CMarshalTest, FrameTimesCrossIntactInBothDirectionsAtBothEndsOfTheRange) {
  CComPtr<IRecordEx>& sp = m_spRecord;
  for (ULONGLONG ullIn : kTimes) {
    for (ULONGLONG ullOut : {0ull, 0x7FFFFFFFFFFFFFFFull, 0xFFFFFFFFFFFFFFFFull, ullIn ^ 0x8000000080000000ull}) {
      SCOPED_TRACE(testing::Message() << std::hex << ullIn << " -> " << ullOut);
      m_pRecord->m_ullTimeOut = ullOut;
      FILETIME ft = Ft(0x5555555555555555ull);
      ASSERT_EQ(S_OK, sp->GetNext(Ft(ullIn), nullptr, &ft));
      EXPECT_EQ(std::vector<ULONGLONG>{ullIn}, m_pRecord->m_seen.vTimes);
      EXPECT_EQ(ullOut, U64(ft));
      ft = Ft(0x5555555555555555ull);
      ASSERT_EQ(S_OK, sp->GetPrev(Ft(ullIn), nullptr, &ft));
      EXPECT_EQ(std::vector<ULONGLONG>{ullIn}, m_pRecord->m_seen.vTimes);
      EXPECT_EQ(ullOut, U64(ft));
      ft = Ft(0x5555555555555555ull);
      ASSERT_EQ(S_OK, sp->GetSibling(1, 1, Ft(ullIn), nullptr, &ft));
      EXPECT_EQ(std::vector<ULONGLONG>{ullIn}, m_pRecord->m_seen.vTimes);
      EXPECT_EQ(ullOut, U64(ft));
    }
    // In-only times, several per call, each in its place.
    const ULONGLONG ullOther = ~ullIn;
    ASSERT_EQ(S_OK, sp->RemoveHour(Ft(ullIn)));
    EXPECT_EQ(std::vector<ULONGLONG>{ullIn}, m_pRecord->m_seen.vTimes);
    ASSERT_EQ(S_OK, sp->CheckFrame(Ft(ullIn), nullptr));
    EXPECT_EQ(std::vector<ULONGLONG>{ullIn}, m_pRecord->m_seen.vTimes);
    EXPECT_EQ(E_NOTIMPL, sp->ReservedRange(Ft(ullIn), Ft(ullOther)));
    EXPECT_EQ((std::vector<ULONGLONG>{ullIn, ullOther}), m_pRecord->m_seen.vTimes);
    DWORD dwCount = 1;
    SRecordStatistic* pStats = reinterpret_cast<SRecordStatistic*>(1);
    ASSERT_EQ(S_OK, sp->GetStatistic(Ft(ullIn), Ft(ullOther), Ft(ullIn + 1), nullptr, 0, &dwCount, &pStats));
    EXPECT_EQ((std::vector<ULONGLONG>{ullIn, ullOther, ullIn + 1}), m_pRecord->m_seen.vTimes);
    CComPtr<IRecord> spExtract;
    ASSERT_EQ(S_OK, sp->Extract(Ft(ullOther), Ft(ullIn), nullptr, 0, &spExtract));
    EXPECT_EQ((std::vector<ULONGLONG>{ullOther, ullIn}), m_pRecord->m_seen.vTimes);
  }
}

TEST_F(CMarshalTest, SiblingStepsAndDirectionKeepTheirSign) {
  const LONG aValues[] = {0, 1, -1, 2, -2, 1000000, LONG_MAX, LONG_MIN};
  for (LONG lForward : {0L, 1L, -1L, 2L}) {
    for (LONG lSteps : aValues) {
      FILETIME ft{};
      ASSERT_EQ(S_OK, m_spRecord->GetSibling(lForward, lSteps, Ft(42), nullptr, &ft));
      EXPECT_EQ((std::vector<LONG>{lForward, lSteps}), m_pRecord->m_seen.vLongs);
    }
  }
  // The other signed arguments of the record.
  DWORD dwCount = 0;
  SRecordStatistic* pStats = nullptr;
  for (LONG l : aValues) {
    ASSERT_EQ(S_OK, m_spRecord->GetStatistic(Ft(0), Ft(1), Ft(2), nullptr, l, &dwCount, &pStats));
    EXPECT_EQ(std::vector<LONG>{l}, m_pRecord->m_seen.vLongs);
    CComPtr<IRecord> spExtract;
    ASSERT_EQ(S_OK, m_spRecord->Extract(Ft(0), Ft(1), nullptr, l, &spExtract));
    EXPECT_EQ(std::vector<LONG>{l}, m_pRecord->m_seen.vLongs);
    ASSERT_EQ(S_OK, m_spRecord->Merge(nullptr, nullptr, l));
    EXPECT_EQ(std::vector<LONG>{l}, m_pRecord->m_seen.vLongs);
  }
}

// ---- Filters ----------------------------------------------------------------------------------------

TEST_F(CMarshalTest, FiltersArriveAbsentOrWithTheirMaskAndModeAtEveryMethod) {
  std::vector<SFilterSeen> vCases = {{false, 0, 0}};
  for (DWORD dwMode : {0u, 1u, 2u, 3u, 7u, 0x7FFFu}) {
    for (DWORD dwMask : {0u, 0x00000001u, 0x80000001u, 0xFFFFFFFFu}) {
      vCases.push_back({true, dwMask, dwMode});
    }
  }
  for (const SFilterSeen& expected : vCases) {
    SCOPED_TRACE(testing::Message() << expected.bPresent << " " << std::hex << expected.dwMask << " "
                                    << expected.dwMode);
    SFrameFilter filter{expected.dwMask, static_cast<EFrameFilterMode>(expected.dwMode)};
    const SFrameFilter* pFilter = expected.bPresent ? &filter : nullptr;
    FILETIME ft{};
    DWORD dwCount = 0;
    SRecordStatistic* pStats = nullptr;
    CComPtr<IRecord> spExtract;

    ASSERT_EQ(S_OK, m_spRecord->GetNext(Ft(1), pFilter, &ft));
    EXPECT_EQ(expected, m_pRecord->m_seen.filter);
    ASSERT_EQ(S_OK, m_spRecord->GetPrev(Ft(1), pFilter, &ft));
    EXPECT_EQ(expected, m_pRecord->m_seen.filter);
    ASSERT_EQ(S_OK, m_spRecord->GetStatistic(Ft(0), Ft(1), Ft(2), pFilter, 0, &dwCount, &pStats));
    EXPECT_EQ(expected, m_pRecord->m_seen.filter);
    ASSERT_EQ(S_OK, m_spRecord->Extract(Ft(0), Ft(1), pFilter, 0, &spExtract));
    EXPECT_EQ(expected, m_pRecord->m_seen.filter);
    ASSERT_EQ(S_OK, m_spRecord->Merge(nullptr, pFilter, 0));
    EXPECT_EQ(expected, m_pRecord->m_seen.filter);
    ASSERT_EQ(S_OK, m_spRecord->CheckFrame(Ft(1), pFilter));
    EXPECT_EQ(expected, m_pRecord->m_seen.filter);
    ASSERT_EQ(S_OK, m_spRecord->GetSibling(1, 1, Ft(1), pFilter, &ft));
    EXPECT_EQ(expected, m_pRecord->m_seen.filter);
    // The caller's filter is an in-parameter only.
    EXPECT_EQ(expected.dwMask, filter.dwMask);
    EXPECT_EQ(expected.dwMode, static_cast<DWORD>(filter.eMode));
  }
}

TEST_F(CMarshalTest, AModeBeyondSixteenBitsIsRefusedBeforeItLeavesTheCaller) {
  // The mode travels as a 16-bit enumeration: values above 0x7FFF cannot be sent, and the call
  // fails in the proxy without reaching the object.
  for (DWORD dwMode : {0x8000u, 0x10000u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(dwMode);
    m_pRecord->m_seen.Reset("none");
    SFrameFilter filter{1, static_cast<EFrameFilterMode>(dwMode)};
    FILETIME ft{};
    EXPECT_EQ(HRESULT_FROM_WIN32(RPC_X_ENUM_VALUE_OUT_OF_RANGE), m_spRecord->GetNext(Ft(1), &filter, &ft));
    EXPECT_EQ(HRESULT_FROM_WIN32(RPC_X_ENUM_VALUE_OUT_OF_RANGE), m_spRecord->CheckFrame(Ft(1), &filter));
    EXPECT_STREQ("none", m_pRecord->m_seen.pszMethod);
  }
}

// ---- Statistics -------------------------------------------------------------------------------------

TEST_F(CMarshalTest, StatisticsArriveAsACalleeAllocatedArrayOfAnyLength) {
  m_pRecord->m_vStatistic = {
      {Ft(0), Ft(0), 0, 0},
      {Ft(0x01D9C0DE00000000ull), Ft(0x01D9C0DEFFFFFFFFull), 0x80000001u, 1},
      {Ft(0x7FFFFFFFFFFFFFFFull), Ft(0xFFFFFFFFFFFFFFFFull), 0xFFFFFFFFu, 0xFFFFFFFFu},
  };
  DWORD dwCount = 0;
  SRecordStatistic* pStats = nullptr;
  ASSERT_EQ(S_OK, m_spRecord->GetStatistic(Ft(0), Ft(0xFFFFFFFFFFFFFFFFull), Ft(36000000000ull), nullptr, 1,
                                           &dwCount, &pStats));
  ASSERT_EQ(3u, dwCount);
  ASSERT_NE(nullptr, pStats);
  for (DWORD i = 0; i < dwCount; ++i) {
    SCOPED_TRACE(i);
    const SRecordStatistic& sent = m_pRecord->m_vStatistic[i];
    EXPECT_EQ(U64(sent.ftBegin), U64(pStats[i].ftBegin));
    EXPECT_EQ(U64(sent.ftEnd), U64(pStats[i].ftEnd));
    EXPECT_EQ(sent.dwFlags, pStats[i].dwFlags);
    EXPECT_EQ(sent.dwCount, pStats[i].dwCount);
  }
  CoTaskMemFree(pStats);

  // None: a count of zero and no array.
  m_pRecord->m_vStatistic.clear();
  dwCount = 99;
  pStats = reinterpret_cast<SRecordStatistic*>(1);
  ASSERT_EQ(S_OK, m_spRecord->GetStatistic(Ft(0), Ft(1), Ft(1), nullptr, 0, &dwCount, &pStats));
  EXPECT_EQ(0u, dwCount);
  EXPECT_EQ(nullptr, pStats);
}

#endif  // _WIN32
