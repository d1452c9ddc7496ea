// Extracts: what the extract operation takes from a record, reading an extract, its statistics
// against the record's, the packet byte for byte, lazy frames, hostile packets, a round trip
// through a second process, and the packet stream itself.
#include <kronvale/KronvaleResults.h>

#include <algorithm>
#include <cstdlib>
#include <map>

#include "common/NotImplemented.h"
#include "common/MemoryStream.h"
#include "records/RecordExtract.h"
#include "records/RecordTestSupport.h"
#include "records/StreamOnFile.h"

using namespace NSKronvale;
using namespace NSTest;
using NSRecords::CRecordExtract;
using NSRecords::CStreamOnFile;

namespace {

using CExtractObject = NSCom::CComObject<CRecordExtract>;

// A new extract, held by the returned pointer.
NSCom::CComPtr<IRecord> NewExtract(CExtractObject** ppObject = nullptr) {
  CExtractObject* p = nullptr;
  EXPECT_EQ(S_OK, CExtractObject::CreateInstance(&p));
  if (ppObject) *ppObject = p;
  return NSCom::CComPtr<IRecord>(static_cast<IRecord*>(p));
}

std::string Bytes(IStream* pStream) {
  STATSTG stat;
  EXPECT_EQ(S_OK, pStream->Stat(&stat, STATFLAG_NONAME));
  LARGE_INTEGER liZero = {};
  EXPECT_EQ(S_OK, pStream->Seek(liZero, STREAM_SEEK_SET, nullptr));
  std::string str(static_cast<size_t>(stat.cbSize.QuadPart), '\0');
  ULONG cbRead = 0;
  EXPECT_EQ(S_OK, pStream->Read(str.data(), static_cast<ULONG>(str.size()), &cbRead));
  str.resize(cbRead);
  return str;
}

// The packet MarshalInterface writes for dwContext.
std::string Packet(IRecord* pExtract, DWORD dwContext = MSHCTX_DIFFERENTMACHINE) {
  auto pMarshal = Query<IMarshal>(pExtract, IID_IMarshal);
  NSTest::CMemoryStream stream;
  EXPECT_EQ(S_OK, pMarshal->MarshalInterface(&stream, IID_IRecord, pExtract, dwContext, nullptr, MSHLFLAGS_NORMAL));
  return stream.Bytes();
}

// Unmarshals a packet; the result, and the extract in *ppExtract on success.
// *pstrRest: what the stream still holds after the call.
HRESULT Unmarshal(const std::string& strPacket, bool bTellsSize, IRecord** ppExtract, std::string* pstrRest = nullptr) {
  auto pShell = NewExtract();
  auto pMarshal = Query<IMarshal>(pShell, IID_IMarshal);
  NSTest::CMemoryStream stream(strPacket, bTellsSize);
  IRecord* p = reinterpret_cast<IRecord*>(0x1);
  const HRESULT hr = pMarshal->UnmarshalInterface(&stream, IID_IRecord, reinterpret_cast<void**>(&p));
  EXPECT_EQ(1u, stream.m_cRef.load());  // nothing keeps the caller's stream
  if (pstrRest) {
    char ach[64];
    ULONG cb = 0;
    pstrRest->clear();
    while (SUCCEEDED(stream.Read(ach, sizeof(ach), &cb)) && cb) pstrRest->append(ach, cb);
  }
  if (FAILED(hr)) {
    EXPECT_EQ(nullptr, p);
    return hr;
  }
  *ppExtract = p;
  return hr;
}

std::string U32(DWORD dw) { return std::string(reinterpret_cast<const char*>(&dw), 4); }
std::string Frame(const FILETIME& ft, DWORD dwFlags, bool bHasData) {
  return U32(ft.dwLowDateTime) + U32(ft.dwHighDateTime) + U32(dwFlags) + std::string(1, bHasData ? '\1' : '\0');
}
std::string Buffer(const std::string& str) { return U32(static_cast<DWORD>(str.size())) + str; }

class ExtractTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pWriter = m_archive.Writer("cam");
    ASSERT_TRUE(m_pWriter);
    // Two buffers a frame, over two hours a day apart, flags alternating.
    for (size_t i = 0; i < std::size(m_aFrames); ++i)
      ASSERT_EQ(S_OK, WriteFrame(m_pWriter, m_aFrames[i], static_cast<DWORD>(i + 1), {"a" + std::to_string(i), "bb" + Show(m_aFrames[i])}));
  }
  NSCom::CComPtr<IRecord> Extract(const FILETIME& ftBegin, const FILETIME& ftSpan, const SFrameFilter* pFilter = nullptr,
                                  LONG lCount = 2) {
    NSCom::CComPtr<IRecord> p;
    EXPECT_EQ(S_OK, m_pWriter->Extract(ftBegin, ftSpan, pFilter, lCount, &p));
    return p;
  }

  NSTest::CTempDir m_dir;
  CTestArchive m_archive{m_dir.Sub(KV_W("arc"))};
  NSCom::CComPtr<IRecordEx> m_pWriter;
  const FILETIME m_aFrames[7] = {Ft(2021, 5, 1, 10, 0, 0, 0),  Ft(2021, 5, 1, 10, 0, 0, 20), Ft(2021, 5, 1, 10, 0, 1, 0),
                                 Ft(2021, 5, 1, 10, 59, 59, 990), Ft(2021, 5, 2, 3, 0, 0, 0),  Ft(2021, 5, 2, 3, 0, 0, 10),
                                 Ft(2021, 5, 2, 3, 30, 0, 0)};
};

FILETIME Frames(DWORD c) { return {c, 0xFFFFFFFFu}; }
FILETIME Duration(LONGLONG llTicks) { return NSPlatform::U64ToFileTime(static_cast<ULONGLONG>(llTicks)); }

TEST_F(ExtractTest, TheExtractOperationTakesTheFramesOfItsSpan) {
  // 4 ms before the start still belongs to the extract; a frame 6 ms before it does not.
  EXPECT_EQ((std::vector<ULONGLONG>{U(m_aFrames[1]), U(m_aFrames[2])}),
            WalkForward(Extract(Plus(m_aFrames[1], 4 * kllMs), Frames(2))));
  EXPECT_EQ((std::vector<ULONGLONG>{U(m_aFrames[2])}), WalkForward(Extract(Plus(m_aFrames[1], 6 * kllMs), Frames(1))));
  // A duration counts from the first frame taken, its end included; it crosses hours and days.
  EXPECT_EQ((std::vector<ULONGLONG>{U(m_aFrames[0]), U(m_aFrames[1])}), WalkForward(Extract(m_aFrames[0], Duration(20 * kllMs))));
  EXPECT_EQ(7u, WalkForward(Extract(m_aFrames[0], Duration(2LL * 24 * 3600 * 1000 * kllMs))).size());
  // The filter chooses the frames; the walk ends at the record's end; 0 frames make an empty extract.
  const SFrameFilter bit2 = {2, efmAny};
  EXPECT_EQ((std::vector<ULONGLONG>{U(m_aFrames[1]), U(m_aFrames[2]), U(m_aFrames[5]), U(m_aFrames[6])}),
            WalkForward(Extract(Ft(2021, 1, 1, 0), Frames(100), &bit2)));
  EXPECT_TRUE(WalkForward(Extract(Ft(2022, 1, 1, 0), Frames(5))).empty());
  EXPECT_TRUE(WalkForward(Extract(m_aFrames[0], Frames(0))).empty());

  // The extract reads what the record reads, and only the buffers it was made with.
  auto pExtract = Extract(m_aFrames[0], Frames(7), nullptr, 1);
  DWORD dwFlags = 0;
  EXPECT_EQ((std::vector<std::string>{"a3"}), ReadFrame(pExtract, m_aFrames[3], 1, &dwFlags));
  EXPECT_EQ(4u, dwFlags);
  {
    NSTest::CLogCapture capture;
    SFrameBuffer aBuffers[2] = {};
    EXPECT_EQ(khrTooManyBuffers, pExtract->Read(m_aFrames[3], &dwFlags, aBuffers, 2));
    EXPECT_EQ(khrNotFound, pExtract->Read(Plus(m_aFrames[3], 1), &dwFlags, aBuffers, 1));
    EXPECT_EQ(S_FALSE, pExtract->CheckFrame(Plus(m_aFrames[3], 1), nullptr));
    EXPECT_EQ((std::vector<WString>{W("dwCount<=m_dwCount\n"), W("it!=m_vFrames.end()\n")}), Texts(capture, "TRASSDO"));
  }
  const SFrameFilter bit4 = {4, efmAll};
  EXPECT_EQ(S_OK, pExtract->CheckFrame(m_aFrames[3], &bit4));
  EXPECT_EQ(S_FALSE, pExtract->CheckFrame(m_aFrames[2], &bit4));
  // Nothing of a recording: no description, path, name, hours, extracts or merges.
  BSTR bstr = reinterpret_cast<BSTR>(0x1);
  EXPECT_EQ(E_NOTIMPL, pExtract->GetPath(&bstr));
  EXPECT_EQ(nullptr, bstr);
  EXPECT_EQ(E_NOTIMPL, pExtract->GetName(&bstr));
  EXPECT_EQ(E_NOTIMPL, pExtract->GetDescription(&bstr));
  EXPECT_EQ(E_NOTIMPL, pExtract->SetDescription(nullptr));
  EXPECT_EQ(E_NOTIMPL, pExtract->RemoveHour(m_aFrames[0]));
  // A record is not an extract; an extract is.
  IUnknown* pMarker = nullptr;
  EXPECT_EQ(E_NOINTERFACE, m_pWriter->QueryInterface(IID_IRecordExtract, reinterpret_cast<void**>(&pMarker)));
  Query<IUnknown>(pExtract, IID_IRecordExtract);
  // Buffer counts out of range are refused before anything is read.
  NSCom::CComPtr<IRecord> pNone;
  EXPECT_EQ(E_INVALIDARG, m_pWriter->Extract(m_aFrames[0], Frames(1), nullptr, 0, &pNone));
  EXPECT_EQ(E_INVALIDARG, m_pWriter->Extract(m_aFrames[0], Frames(1), nullptr, 5000, &pNone));
  // More buffers than the frames have: the record's read fails, and so does the extract.
  EXPECT_EQ(khrInsufficientBuffer, m_pWriter->Extract(m_aFrames[0], Frames(1), nullptr, 3, &pNone));
  EXPECT_EQ(nullptr, pNone.p);
}

// The extract answers walks and statistics exactly as its record does over the same frames.
TEST_F(ExtractTest, WalksAndStatisticsEqualTheRecords) {
  auto pExtract = Extract(Ft(2021, 1, 1, 0), Frames(100));
  EXPECT_EQ(Describe(m_pWriter, 2), Describe(pExtract, 2));
  // A single frame's run lasts 10 ms; the ends of the period move onto passing frames.
  const SFrameFilter bit4 = {4, efmAll};
  DWORD cRuns = 0;
  SRecordStatistic* pRuns = nullptr;
  ASSERT_EQ(S_OK, pExtract->GetStatistic(Ft(2021, 1, 1, 0), Ft(2021, 5, 1, 11), Duration(1000 * kllMs), &bit4, 0, &cRuns, &pRuns));
  ASSERT_EQ(1u, cRuns);
  EXPECT_EQ(Show(m_aFrames[3]), Show(pRuns[0].ftBegin));
  EXPECT_EQ(Show(Plus(m_aFrames[3], 10 * kllMs)), Show(pRuns[0].ftEnd));
  CoTaskMemFree(pRuns);
  NSTest::CLogCapture capture;
  EXPECT_EQ(E_POINTER, pExtract->GetStatistic(Ft(2021, 1, 1, 0), Ft(2022, 1, 1, 0), Duration(kllMs), nullptr, 0, nullptr, &pRuns));
  EXPECT_EQ((std::vector<WString>{W("pdwCount && ppRecordStatistic\n")}), Texts(capture, "TRASSDO"));
}

TEST_F(ExtractTest, PacketBytesFollowTheLayout) {
  // No frames: context, 0, buffer count.
  {
    auto pEmpty = Extract(Ft(2030, 1, 1, 0), Frames(3), nullptr, 2);
    EXPECT_EQ(U32(0) + U32(0) + U32(2), Packet(pEmpty, MSHCTX_LOCAL));
    auto pRemote = Extract(Ft(2030, 1, 1, 0), Frames(3), nullptr, 1);
    EXPECT_EQ(U32(2) + U32(0) + U32(1), Packet(pRemote, MSHCTX_DIFFERENTMACHINE));
  }
  // Two frames of two buffers, in time order, each whole.
  auto pExtract = Extract(m_aFrames[3], Frames(2));
  const std::string strExpected = U32(2) + U32(2) + U32(2) + Frame(m_aFrames[3], 4, true) + Buffer("a3") +
                                  Buffer("bb" + Show(m_aFrames[3])) + Frame(m_aFrames[4], 5, true) + Buffer("a4") +
                                  Buffer("bb" + Show(m_aFrames[4]));
  auto pMarshal = Query<IMarshal>(pExtract, IID_IMarshal);
  // The size comes from the first call's packet; a later context does not rebuild it.
  DWORD cbSize = 0;
  ASSERT_EQ(S_OK, pMarshal->GetMarshalSizeMax(IID_IRecord, pExtract, MSHCTX_DIFFERENTMACHINE, nullptr, 0, &cbSize));
  EXPECT_EQ(strExpected.size(), cbSize);
  EXPECT_EQ(strExpected, Packet(pExtract, MSHCTX_LOCAL));
  EXPECT_EQ(strExpected, Packet(pExtract, MSHCTX_LOCAL));  // rewound and copied whole again
  CLSID clsid = {};
  EXPECT_EQ(S_OK, pMarshal->GetUnmarshalClass(IID_IRecord, pExtract, MSHCTX_INPROC, nullptr, 0, &clsid));
  EXPECT_TRUE(IsEqualCLSID(CLSID_RecordExtract, clsid));
  EXPECT_EQ(S_OK, pMarshal->ReleaseMarshalData(nullptr));
  EXPECT_EQ(S_OK, pMarshal->DisconnectObject(0));

  // Only local and remote contexts are marshaled by value.
  NSTest::CLogCapture capture;
  auto pOther = Extract(m_aFrames[0], Frames(1));
  auto pOtherMarshal = Query<IMarshal>(pOther, IID_IMarshal);
  NSTest::CMemoryStream stream;
  for (DWORD dwContext : {DWORD{MSHCTX_INPROC}, DWORD{MSHCTX_NOSHAREDMEM}}) {
    EXPECT_EQ(E_INVALIDARG, pOtherMarshal->MarshalInterface(&stream, IID_IRecord, pOther, dwContext, nullptr, 0));
    EXPECT_EQ(E_INVALIDARG, pOtherMarshal->GetMarshalSizeMax(IID_IRecord, pOther, dwContext, nullptr, 0, &cbSize));
  }
  EXPECT_TRUE(stream.Bytes().empty());
  CExtractObject* pObject = nullptr;
  auto pHeld = NewExtract(&pObject);
  EXPECT_EQ(E_POINTER, pObject->MarshalToStream(nullptr, MSHCTX_LOCAL));
  const WString strContext = W("MSHCTX_DIFFERENTMACHINE==dwDestCtx || MSHCTX_LOCAL==dwDestCtx\n");
  EXPECT_EQ((std::vector<WString>{strContext, strContext, strContext, strContext, W("ppStream\n")}), Texts(capture, "TRASSDO"));
}

// A source that counts its reads, for frames an extract holds without their data.
class CCountingSource final : public NSTest::CNotImplementedRecord {
 public:
  STDMETHOD(QueryInterface)(REFIID, void** ppv) override { return *ppv = nullptr, E_NOINTERFACE; }
  STDMETHOD_(ULONG, AddRef)() override { return ++m_cRef; }
  STDMETHOD_(ULONG, Release)() override { return --m_cRef; }
  STDMETHOD(Read)(FILETIME ft, DWORD* pdwFlags, SFrameBuffer* pBuff, DWORD dwCount) override {
    ++m_cReads;
    if (U(ft) == m_ullFailing) return khrFileCorrupt;
    *pdwFlags = 0;
    for (DWORD i = 0; i < dwCount; ++i) {
      pBuff[i].pData = static_cast<BYTE*>(CoTaskMemAlloc(1));
      pBuff[i].pData[0] = static_cast<BYTE>('0' + i);
      pBuff[i].dwDataSize = 1;
    }
    return S_OK;
  }
  ULONG m_cRef = 1;
  int m_cReads = 0;
  ULONGLONG m_ullFailing = 0;
};

TEST(ExtractFramesTest, LazyFramesAreLoadedOnceWhileMarshalingAndAppendsAreUnique) {
  CCountingSource source;
  {
    CExtractObject* pObject = nullptr;
    auto pExtract = NewExtract(&pObject);
    ASSERT_EQ(S_OK, pObject->Init(&source, 2));
    EXPECT_EQ(E_UNEXPECTED, pObject->Init(&source, 2));
    const FILETIME ftA = Ft(2021, 5, 1, 10), ftB = Ft(2021, 5, 1, 11);
    ASSERT_EQ(S_OK, pObject->AppendFrame(ftB, 7, nullptr));
    // A duplicate is refused and the caller keeps its blocks.
    SFrameBuffer aOwned[2] = {{static_cast<BYTE*>(CoTaskMemAlloc(2)), 2}, {static_cast<BYTE*>(CoTaskMemAlloc(1)), 1}};
    std::memcpy(aOwned[0].pData, "xy", 2);
    aOwned[1].pData[0] = 'z';
    {
      NSTest::CLogCapture capture;
      EXPECT_EQ(khrAlreadyExists, pObject->AppendFrame(ftB, 1, aOwned));
      const SFrameBuffer written[1] = {{aOwned[0].pData, 2}};
      EXPECT_EQ(khrAlreadyExists, pExtract->Write(ftB, 1, written, 1));
      const WString strDuplicate = W("m_vFrames.find(ftFrameTime)==m_vFrames.end()\n");
      EXPECT_EQ((std::vector<WString>{strDuplicate, strDuplicate}), Texts(capture, "TRASSDO"));
    }
    ASSERT_EQ(S_OK, pObject->AppendFrame(ftA, 6, aOwned));  // taken over, not copied
    EXPECT_EQ(0, source.m_cReads);

    // Marshaling reads the absent frame once; afterwards it is held.
    const std::string strExpected =
        U32(2) + U32(2) + U32(2) + Frame(ftA, 6, true) + Buffer("xy") + Buffer("z") + Frame(ftB, 7, true) + Buffer("0") + Buffer("1");
    EXPECT_EQ(strExpected, Packet(pExtract));
    EXPECT_EQ(1, source.m_cReads);
    EXPECT_EQ((std::vector<std::string>{"0", "1"}), ReadFrame(pExtract, ftB, 2));
    IStream* pStream = nullptr;
    ASSERT_EQ(S_OK, pObject->MarshalToStream(&pStream, MSHCTX_LOCAL));
    EXPECT_EQ(U32(0) + strExpected.substr(4), Bytes(pStream));
    pStream->Release();
    EXPECT_EQ(1, source.m_cReads);

    // A frame the source cannot give fails the packet with the source's result.
    source.m_ullFailing = U(Ft(2021, 5, 1, 12));
    ASSERT_EQ(S_OK, pObject->AppendFrame(Ft(2021, 5, 1, 12), 0, nullptr));
    NSTest::CLogCapture capture;
    EXPECT_EQ(khrFileCorrupt, pObject->MarshalToStream(&pStream, MSHCTX_LOCAL));
    EXPECT_EQ(nullptr, pStream);
    EXPECT_FALSE(Texts(capture, "TRASSDO").empty());
  }
  EXPECT_EQ(1u, source.m_cRef);  // the extract let go of its source
}

// A client fills an empty extract; a packet comes back as an equal extract.
TEST(ExtractFramesTest, FilledExtractsRoundTripThroughTheirPacket) {
  auto pExtract = NewExtract();
  const std::string strBig(100000, 'q');
  const SFrameBuffer aBuffers[3] = {{reinterpret_cast<BYTE*>(const_cast<char*>(strBig.data())), 100000},
                                    {reinterpret_cast<BYTE*>(const_cast<char*>("k")), 1},
                                    {reinterpret_cast<BYTE*>(const_cast<char*>("j")), 1}};
  ASSERT_EQ(S_OK, pExtract->Write(Ft(2021, 1, 1, 3), 3, aBuffers, 2));  // fixes two buffers a frame
  ASSERT_EQ(S_OK, pExtract->Write(Ft(2021, 1, 1, 1), 1, aBuffers + 1, 1));
  ASSERT_EQ(S_OK, pExtract->Write(Ft(2021, 1, 1, 2), 2, nullptr, 0));
  NSTest::CLogCapture capture;
  EXPECT_EQ(khrTooManyBuffers, pExtract->Write(Ft(2021, 1, 1, 4), 2, aBuffers, 3));
  const SFrameBuffer hollow = {nullptr, 5};
  EXPECT_EQ(E_INVALIDARG, pExtract->Write(Ft(2021, 1, 1, 4), 2, &hollow, 1));
  const std::string strPacket = Packet(pExtract);
  EXPECT_EQ(12u + 3 * 13 + 6 * 4 + 100001 + 1, strPacket.size());
  for (bool bTellsSize : {true, false}) {
    // The stream is left just after the packet, whatever follows it.
    NSCom::CComPtr<IRecord> pCopy;
    std::string strRest;
    ASSERT_EQ(S_OK, Unmarshal(strPacket + "tail", bTellsSize, &pCopy, &strRest));
    EXPECT_EQ("tail", strRest);
    EXPECT_EQ(Describe(pExtract, 2), Describe(pCopy, 2));
    EXPECT_EQ(strPacket, Packet(pCopy));
  }
}

// Every way a packet can lie fails cleanly, with nothing left allocated (the sanitizer builds
// check that) and a report saying why.
TEST(ExtractFramesTest, HostilePacketsAreRefused) {
  const FILETIME ftA = Ft(2021, 5, 1, 10), ftB = Ft(2021, 5, 1, 11);
  const std::string strHeader = U32(2) + U32(2) + U32(2);
  const std::string strFrames = Frame(ftA, 1, true) + Buffer("abc") + Buffer("") + Frame(ftB, 2, false);
  const std::string strGood = strHeader + strFrames;
  NSCom::CComPtr<IRecord> pExtract;
  ASSERT_EQ(S_OK, Unmarshal(strGood, true, &pExtract));
  EXPECT_EQ((std::vector<std::string>{"abc", ""}), ReadFrame(pExtract, ftA, 2));
  // A frame sent without data has no source to come from.
  EXPECT_EQ((std::vector<std::string>{"hr=8007139F"}), ReadFrame(pExtract, ftB, 1));

  NSTest::CLogCapture capture;
  // Cut at every byte: a stream that cannot tell its size runs out of bytes; one that can may
  // refuse the counts first.
  for (size_t cb = 0; cb < strGood.size(); ++cb) {
    NSCom::CComPtr<IRecord> p;
    EXPECT_EQ(khrReadFault, Unmarshal(strGood.substr(0, cb), false, &p)) << cb;
    const HRESULT hr = Unmarshal(strGood.substr(0, cb), true, &p);
    EXPECT_TRUE(hr == khrReadFault || hr == khrInvalidData) << cb << " " << hr;
  }
  const std::vector<std::pair<std::string, std::string>> vLies = {
      {"frame count far beyond the stream", U32(0) + U32(0xFFFFFFFF) + U32(1)},
      {"no buffers", U32(0) + U32(1) + U32(0) + Frame(ftA, 1, false)},
      {"millions of buffers", U32(0) + U32(1) + U32(2000000) + Frame(ftA, 1, true)},
      {"a buffer larger than the stream", U32(0) + U32(1) + U32(1) + Frame(ftA, 1, true) + U32(0xFFFFFFF0) + "abc"},
      {"a repeated time", U32(0) + U32(2) + U32(1) + Frame(ftA, 1, false) + Frame(ftA, 1, false)},
      {"a time going back", U32(0) + U32(2) + U32(1) + Frame(ftB, 1, false) + Frame(ftA, 1, false)},
      {"a has-data byte of 2", U32(0) + U32(1) + U32(1) + Frame(ftA, 1, false).substr(0, 12) + "\2" + Buffer("x")},
  };
  for (const auto& lie : vLies) {
    NSCom::CComPtr<IRecord> p;
    EXPECT_EQ(khrInvalidData, Unmarshal(lie.second, true, &p)) << lie.first;
  }
  // Without a size to check against, a huge buffer is read in bounded steps until the bytes end.
  NSCom::CComPtr<IRecord> p;
  EXPECT_EQ(khrReadFault, Unmarshal(vLies[3].second, false, &p));
  const std::vector<WString> vErrors = Texts(capture, "error");
  ASSERT_FALSE(vErrors.empty());
  EXPECT_NE(std::find(vErrors.begin(), vErrors.end(),
                      W("Extract packet refused: 2000000 buffers per frame (1 to 4096 allowed)\n")),
            vErrors.end());
  EXPECT_NE(std::find(vErrors.begin(), vErrors.end(), W("Extract packet ends at byte 0, 4 bytes short of its next field\n")),
            vErrors.end());
}

// A packet of many frames, larger than the blocks the receiver reads it in: buffers of every size
// fall across block ends, and one is larger than a block.
struct SPacketFrame {
  FILETIME ft;
  DWORD dwFlags;
  std::vector<std::string> vBuffers;  // empty: sent without data
};
std::string PacketOf(const std::vector<SPacketFrame>& vFrames, DWORD dwCount) {
  std::string str = U32(2) + U32(static_cast<DWORD>(vFrames.size())) + U32(dwCount);
  for (const SPacketFrame& frame : vFrames) {
    str += Frame(frame.ft, frame.dwFlags, !frame.vBuffers.empty());
    for (const std::string& strBuffer : frame.vBuffers) str += Buffer(strBuffer);
  }
  return str;
}
std::vector<SPacketFrame> ManyFrames() {
  const size_t acbSizes[] = {0, 1, 70000, 300, 255, 4099};
  std::vector<SPacketFrame> v;
  for (DWORD i = 0; i < 400; ++i) {
    const size_t cb = i == 150 ? 5 * 1024 * 1024 + 3 : acbSizes[i % std::size(acbSizes)];
    std::string strData(cb, '\0');
    for (size_t k = 0; k < cb; ++k) strData[k] = static_cast<char>('a' + (i * 7 + k) % 26);
    SPacketFrame frame = {Plus(Ft(2021, 5, 1, 10), i * 40 * kllMs), i, {}};
    if (i % 50 != 7) frame.vBuffers = {strData, std::to_string(i)};
    v.push_back(frame);
  }
  return v;
}

// The receiver keeps the packet's bytes in a few large blocks shared by its frames: every frame
// reads back byte-exact, frames written later sit beside them without disturbing them, and a
// packet that fails half-way lets go of every block it had read.
TEST(ExtractFramesTest, ALargePacketReadInBlocksKeepsEveryFrameExact) {
  std::vector<SPacketFrame> vFrames = ManyFrames();
  const std::string strPacket = PacketOf(vFrames, 2);
  ASSERT_GT(strPacket.size(), 9u * 1024 * 1024);
  for (bool bTellsSize : {true, false}) {
    NSCom::CComPtr<IRecord> pCopy;
    std::string strRest;
    ASSERT_EQ(S_OK, Unmarshal(strPacket + "tail", bTellsSize, &pCopy, &strRest));
    EXPECT_EQ("tail", strRest);
    EXPECT_TRUE(strPacket == Packet(pCopy)) << bTellsSize;
    EXPECT_EQ((std::vector<std::string>{vFrames[150].vBuffers[0], "150"}), ReadFrame(pCopy, vFrames[150].ft, 2));

    // Written frames go before the first, between two, and after the last; a time already held
    // is refused and its frame keeps its bytes.
    const SFrameBuffer given[2] = {{reinterpret_cast<BYTE*>(const_cast<char*>("new")), 3},
                                   {reinterpret_cast<BYTE*>(const_cast<char*>("!")), 1}};
    std::vector<SPacketFrame> vExpected = vFrames;
    for (const FILETIME& ft : {Plus(vFrames[0].ft, -1), Plus(vFrames[200].ft, 1), Plus(vFrames.back().ft, 1)}) {
      ASSERT_EQ(S_OK, pCopy->Write(ft, 9, given, 2));
      vExpected.push_back({ft, 9, {"new", "!"}});
    }
    NSTest::CLogCapture capture;
    EXPECT_EQ(khrAlreadyExists, pCopy->Write(vFrames[151].ft, 9, given, 2));
    std::sort(vExpected.begin(), vExpected.end(),
              [](const SPacketFrame& a, const SPacketFrame& b) { return U(a.ft) < U(b.ft); });
    EXPECT_TRUE(PacketOf(vExpected, 2) == Packet(pCopy)) << bTellsSize;
  }

  // The last frame lies: everything read before it goes (the sanitizer builds see any block kept).
  std::string strBad = strPacket;
  strBad[strBad.size() - Buffer("399").size() - Buffer(vFrames[399].vBuffers[0]).size() - 1] = '\2';
  NSTest::CLogCapture capture;
  NSCom::CComPtr<IRecord> p;
  EXPECT_EQ(khrInvalidData, Unmarshal(strBad, true, &p));
  EXPECT_EQ(khrInvalidData, Unmarshal(strBad, false, &p));
  EXPECT_EQ(khrReadFault, Unmarshal(strPacket.substr(0, strPacket.size() - 2), false, &p));

  // A packet without data keeps no block and still leaves the stream just after itself.
  const std::vector<SPacketFrame> vNone, vHollow = {{vFrames[0].ft, 1, {}}};
  for (const std::string& strHollow : {PacketOf(vNone, 1), PacketOf(vHollow, 1)}) {
    std::string strRest;
    NSCom::CComPtr<IRecord> pHollow;
    ASSERT_EQ(S_OK, Unmarshal(strHollow + "tail", true, &pHollow, &strRest));
    EXPECT_EQ("tail", strRest);
  }
}

// ---- Across processes ------------------------------------------------------------------------------

// The program runs itself with this variable naming a directory: the child unmarshals
// "packet.bin" from there and writes what it sees to "seen.txt".
constexpr char kszChildDirectory[] = "KV_EXTRACT_CHILD_DIR";

std::string ReadText(const WString& strPath) {
  std::string str;
  EXPECT_EQ(S_OK, NSTest::ReadFileBytes(strPath, &str));
  return str;
}

TEST(ExtractChildProcess, UnmarshalsThePacketItWasGiven) {
  const char* pszDirectory = std::getenv(kszChildDirectory);
  if (!pszDirectory || !*pszDirectory) GTEST_SKIP() << "run by the cross-process test only";
  const WString strDirectory = W(pszDirectory);
  NSCom::CComPtr<IRecord> pExtract;
  ASSERT_EQ(S_OK, Unmarshal(ReadText(NSPlatform::CombinePath(strDirectory, KV_W("packet.bin"))), true, &pExtract));
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(NSPlatform::CombinePath(strDirectory, KV_W("seen.txt")), Describe(pExtract, 2)));
}

TEST_F(ExtractTest, APacketCrossesToAnotherProcess) {
  auto pExtract = Extract(Ft(2021, 1, 1, 0), Frames(100));
  const WString strDirectory = m_dir.Sub(KV_W("cross"));
  ASSERT_EQ(S_OK, NSPlatform::CreateDir(strDirectory.c_str()));
  ASSERT_EQ(S_OK, NSTest::WriteFileBytes(NSPlatform::CombinePath(strDirectory, KV_W("packet.bin")), Packet(pExtract)));
  WString strProgram;
  ASSERT_EQ(S_OK, NSPlatform::GetOwnModulePath(&strProgram));
  NSTest::CLogCapture::SetEnvironment(kszChildDirectory, strDirectory);
  const std::string strCommand = "\"" + NSPlatform::WideToUtf8(strProgram) +
                                 "\" --gtest_filter=ExtractChildProcess.* --gtest_brief=1";
#ifdef _WIN32
  const int nExit = std::system(("\"" + strCommand + "\"").c_str());
#else
  const int nExit = std::system(strCommand.c_str());
#endif
  NSTest::CLogCapture::SetEnvironment(kszChildDirectory, WString());
  ASSERT_EQ(0, nExit);
  EXPECT_EQ(Describe(m_pWriter, 2), ReadText(NSPlatform::CombinePath(strDirectory, KV_W("seen.txt"))));
}

// ---- The packet stream ----------------------------------------------------------------------------

TEST(StreamOnFileTest, AnswersOnlyForItselfAndKeepsItsFileWithinFourGiB) {
  CStreamOnFile* pStream = nullptr;
  ASSERT_EQ(S_OK, CStreamOnFile::Create(&pStream));
  void* pv = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(E_NOINTERFACE, pStream->QueryInterface(IID_IUnknown, &pv));
  EXPECT_EQ(nullptr, pv);
  EXPECT_EQ(E_NOINTERFACE, pStream->QueryInterface(IID_ISequentialStream, &pv));
  ASSERT_EQ(S_OK, pStream->QueryInterface(IID_IStream, &pv));
  static_cast<IStream*>(pv)->Release();

  ULONG cb = 0;
  ASSERT_EQ(S_OK, pStream->Write("0123456789", 10, &cb));
  EXPECT_EQ(10u, cb);
  ULARGE_INTEGER uliHuge;
  uliHuge.QuadPart = 0x100000000ull;
  EXPECT_EQ(khrStgInvalidFunction, pStream->SetSize(uliHuge));
  EXPECT_EQ("0123456789", Bytes(pStream));
  ULARGE_INTEGER uliSize;
  uliSize.QuadPart = 4;
  ASSERT_EQ(S_OK, pStream->SetSize(uliSize));
  ULARGE_INTEGER uliPosition = {};
  LARGE_INTEGER liZero = {};
  ASSERT_EQ(S_OK, pStream->Seek(liZero, STREAM_SEEK_CUR, &uliPosition));
  EXPECT_EQ(4u, uliPosition.QuadPart);
  EXPECT_EQ("0123", Bytes(pStream));
  // A refused move is no failure: the position stays and is reported.
  LARGE_INTEGER liBack;
  liBack.QuadPart = -100;
  ASSERT_EQ(S_OK, pStream->Seek(liBack, STREAM_SEEK_END, &uliPosition));
  EXPECT_EQ(4u, uliPosition.QuadPart);

  STATSTG stat;
  ASSERT_EQ(S_OK, pStream->Stat(&stat, STATFLAG_DEFAULT));
  ASSERT_NE(nullptr, stat.pwcsName);
  EXPECT_EQ(0, stat.pwcsName[0]);
  CoTaskMemFree(stat.pwcsName);
  EXPECT_EQ(static_cast<DWORD>(STGTY_STREAM), stat.type);
  EXPECT_EQ(4u, stat.cbSize.QuadPart);
  EXPECT_NE(0u, stat.mtime.dwHighDateTime);
  EXPECT_EQ(E_NOTIMPL, pStream->Commit(0));
  EXPECT_EQ(E_NOTIMPL, pStream->Revert());
  IStream* pClone = reinterpret_cast<IStream*>(0x1);
  EXPECT_EQ(E_NOTIMPL, pStream->Clone(&pClone));
  EXPECT_EQ(nullptr, pClone);

  // CopyTo: straight into another of ours, through Write in 1024-byte chunks into anything else.
  std::string strLong;
  for (int i = 0; i < 3000; ++i) strLong.push_back(static_cast<char>('a' + i % 26));
  ASSERT_EQ(S_OK, pStream->SetSize(ULARGE_INTEGER{}));
  ASSERT_EQ(S_OK, pStream->Write(strLong.data(), 3000, &cb));
  CStreamOnFile* pTarget = nullptr;
  ASSERT_EQ(S_OK, CStreamOnFile::Create(&pTarget));
  ASSERT_EQ(S_OK, pStream->Seek(liZero, STREAM_SEEK_SET, nullptr));
  ULARGE_INTEGER uliCount;
  uliCount.QuadPart = 5000;  // more than there is: stops at the end
  EXPECT_EQ(S_OK, pStream->CopyTo(pTarget, uliCount, nullptr, nullptr));
  EXPECT_EQ(strLong, Bytes(pTarget));
  pTarget->Release();
  NSTest::CMemoryStream memory;
  ASSERT_EQ(S_OK, pStream->Seek(liZero, STREAM_SEEK_SET, nullptr));
  uliCount.QuadPart = 2500;
  EXPECT_EQ(S_OK, pStream->CopyTo(&memory, uliCount, nullptr, nullptr));
  EXPECT_EQ(strLong.substr(0, 2500), memory.Bytes());
  EXPECT_EQ(3u, memory.WriteCalls());
  EXPECT_EQ(1024u, memory.LargestWrite());
  EXPECT_EQ(0u, pStream->Release());
}

}  // namespace
