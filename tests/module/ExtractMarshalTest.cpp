// Extracts under the real COM runtime with the library registered: CoMarshalInterface writes the
// by-value packet, a second process unmarshals it with CoUnmarshalInterface and sees the same
// frames, walks and statistics without touching the archive; contexts other than local and remote
// are refused; an extract passed as an [in] argument into another apartment arrives as an extract.
// Windows only (Wine): Linux has no COM runtime.
#ifdef _WIN32
#include <gtest/gtest.h>

#include <kronvale/kronvale.h>

#include <cstdlib>
#include <thread>

#include "com/ComKit.h"
#include "module/Library.h"
#include "records/RecordTestSupport.h"
#include "common/NotImplemented.h"

using namespace NSTest;

namespace {

using NSTest::PFNDLLREGISTERSERVER;

// The child reads "packet.bin" from the directory this variable names and writes "seen.txt".
constexpr char kszChildDirectory[] = "KV_EXTRACT_COM_CHILD_DIR";

std::string StreamBytes(IStream* pStream) {
  HGLOBAL hGlobal = nullptr;
  EXPECT_EQ(S_OK, GetHGlobalFromStream(pStream, &hGlobal));
  ULARGE_INTEGER uliEnd = {};
  LARGE_INTEGER liZero = {};
  EXPECT_EQ(S_OK, pStream->Seek(liZero, STREAM_SEEK_CUR, &uliEnd));
  const char* p = static_cast<const char*>(GlobalLock(hGlobal));
  std::string str(p, static_cast<size_t>(uliEnd.QuadPart));
  GlobalUnlock(hGlobal);
  return str;
}

NSCom::CComPtr<IStream> StreamOver(const std::string& str) {
  NSCom::CComPtr<IStream> pStream;
  EXPECT_EQ(S_OK, CreateStreamOnHGlobal(nullptr, TRUE, &pStream));
  ULONG cb = 0;
  EXPECT_EQ(S_OK, pStream->Write(str.data(), static_cast<ULONG>(str.size()), &cb));
  LARGE_INTEGER liZero = {};
  EXPECT_EQ(S_OK, pStream->Seek(liZero, STREAM_SEEK_SET, nullptr));
  return pStream;
}

// A record of this program's own, living in another apartment: its Merge would describe the
// source it is given, and tell whether it came by value.
class CProbeRecord : public NSCom::CComObjectRootEx, public NSTest::CNotImplementedRecord {
 public:
  BEGIN_COM_MAP(CProbeRecord)
    COM_INTERFACE_ENTRY(IRecord)
  END_COM_MAP()
  STDMETHOD(Merge)(IRecord* pSource, const SFrameFilter*, LONG) override {
    // An extract's own IMarshal names the extract's class; a proxy's would name the standard one.
    NSCom::CComPtr<IMarshal> pMarshal;
    if (FAILED(pSource->QueryInterface(IID_IMarshal, reinterpret_cast<void**>(&pMarshal)))) return E_NOINTERFACE;
    CLSID clsid = {};
    if (FAILED(pMarshal->GetUnmarshalClass(IID_IRecord, pSource, MSHCTX_LOCAL, nullptr, 0, &clsid))) return E_FAIL;
    s_bByValue = IsEqualCLSID(clsid, CLSID_RecordExtract);
    s_strSeen = Describe(pSource, 1);
    return S_OK;
  }
  static inline bool s_bByValue = false;
  static inline std::string s_strSeen;
};

class ExtractMarshalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_library.IsLoaded());
    m_pfnUnregister = m_library.Get<PFNDLLREGISTERSERVER>("DllUnregisterServer");
    ASSERT_EQ(S_OK, m_library.Get<PFNDLLREGISTERSERVER>("DllRegisterServer")());
    ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED));
    m_bInitialized = true;
    ASSERT_EQ(S_OK, CoGetClassObject(CLSID_Kronvale, CLSCTX_INPROC_SERVER, nullptr, IID_IArchiveFactory,
                                     reinterpret_cast<void**>(&m_pFactory)));
    NSCom::CComBSTR bstrPath(m_dir.Sub(KV_W("arc")).c_str());
    ASSERT_EQ(S_OK, m_pFactory->CreateArchive(bstrPath, &m_pArchive));
    NSCom::CComBSTR bstrName(KV_W("cam"));
    ASSERT_EQ(S_OK, m_pArchive->CreateRecord(bstrName, &m_pRecord));
    for (DWORD i = 0; i < 6; ++i) {
      const FILETIME ft = Ft(2021, 5, 1 + i / 3, 10 + i, 0, i, i * 10);
      ASSERT_EQ(S_OK, WriteFrame(m_pRecord, ft, i + 1, {std::string(i * 100, char('a' + i)), Show(ft)}));
    }
    const FILETIME ftAll = {1000, 0xFFFFFFFFu};
    ASSERT_EQ(S_OK, m_pRecord->Extract(Ft(2021, 1, 1, 0), ftAll, nullptr, 2, &m_pExtract));
  }
  void TearDown() override {
    m_pExtract.Release();
    m_pRecord.Release();
    // Deleting the archive makes the factory forget it, so that nothing is left holding the library.
    if (m_pFactory) {
      NSCom::CComBSTR bstrPath(m_dir.Sub(KV_W("arc")).c_str());
      EXPECT_EQ(S_OK, m_pFactory->DeleteArchive(bstrPath));
    }
    m_pArchive.Release();
    m_pFactory.Release();
    if (m_bInitialized) CoUninitialize();
    if (m_pfnUnregister) {
      EXPECT_EQ(S_OK, m_pfnUnregister());
    }
  }

  NSTest::CLibrary m_library;
  PFNDLLREGISTERSERVER m_pfnUnregister = nullptr;
  bool m_bInitialized = false;
  NSTest::CTempDir m_dir;
  NSCom::CComPtr<IArchiveFactory> m_pFactory;
  NSCom::CComPtr<IKronvale> m_pArchive;
  NSCom::CComPtr<IRecord> m_pRecord;
  NSCom::CComPtr<IRecord> m_pExtract;
};

TEST(ExtractComChild, UnmarshalsThePacketItWasGiven) {
  const char* pszDirectory = std::getenv(kszChildDirectory);
  if (!pszDirectory || !*pszDirectory) GTEST_SKIP() << "run by the cross-process test only";
  const WString strDirectory = W(pszDirectory);
  ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED));
  {
    std::string strPacket;
    ASSERT_EQ(S_OK, NSTest::ReadFileBytes(NSPlatform::CombinePath(strDirectory, KV_W("packet.bin")), &strPacket));
    auto pStream = StreamOver(strPacket);
    NSCom::CComPtr<IUnknown> pMarker;
    ASSERT_EQ(S_OK, CoUnmarshalInterface(pStream, IID_IRecordExtract, reinterpret_cast<void**>(&pMarker)));
    NSCom::CComPtr<IRecord> pExtract;
    ASSERT_EQ(S_OK, pMarker->QueryInterface(IID_IRecord, reinterpret_cast<void**>(&pExtract)));
    ASSERT_EQ(S_OK, NSTest::WriteFileBytes(NSPlatform::CombinePath(strDirectory, KV_W("seen.txt")), Describe(pExtract, 2)));
  }
  CoUninitialize();
}

TEST_F(ExtractMarshalTest, LocalAndRemotePacketsCrossToASecondProcess) {
  const std::string strExpected = Describe(m_pRecord, 2);
  ASSERT_EQ(strExpected, Describe(m_pExtract, 2));
  std::string strFirstPacket;
  for (DWORD dwContext : {DWORD{MSHCTX_LOCAL}, DWORD{MSHCTX_DIFFERENTMACHINE}}) {
    // A fresh extract for each context: the packet is built once per extract.
    NSCom::CComPtr<IRecord> pExtract;
    const FILETIME ftAll = {1000, 0xFFFFFFFFu};
    ASSERT_EQ(S_OK, m_pRecord->Extract(Ft(2021, 1, 1, 0), ftAll, nullptr, 2, &pExtract));
    NSCom::CComPtr<IStream> pStream;
    ASSERT_EQ(S_OK, CreateStreamOnHGlobal(nullptr, TRUE, &pStream));
    ASSERT_EQ(S_OK, CoMarshalInterface(pStream, IID_IRecord, pExtract, dwContext, nullptr, MSHLFLAGS_NORMAL));
    const std::string strMarshaled = StreamBytes(pStream);
    // The runtime's own header, then our packet, whose first field is the context.
    ASSERT_GT(strMarshaled.size(), 12u);
    const WString strDirectory = m_dir.Sub(dwContext == MSHCTX_LOCAL ? KV_W("local") : KV_W("remote"));
    ASSERT_EQ(S_OK, NSPlatform::CreateDir(strDirectory.c_str()));
    ASSERT_EQ(S_OK, NSTest::WriteFileBytes(NSPlatform::CombinePath(strDirectory, KV_W("packet.bin")), strMarshaled));

    WCHAR szProgram[MAX_PATH];
    const DWORD cch = GetModuleFileNameW(nullptr, szProgram, MAX_PATH);
    ASSERT_GT(cch, 0u);
    std::wstring strCommand = L"\"" + std::wstring(szProgram, cch) + L"\" --gtest_filter=ExtractComChild.* --gtest_brief=1";
    SetEnvironmentVariableA(kszChildDirectory, NSPlatform::WideToUtf8(strDirectory).c_str());
    STARTUPINFOW si{};
    si.cb = sizeof(si);
    PROCESS_INFORMATION pi{};
    ASSERT_TRUE(CreateProcessW(nullptr, strCommand.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi));
    SetEnvironmentVariableA(kszChildDirectory, nullptr);
    WaitForSingleObject(pi.hProcess, INFINITE);
    DWORD dwExit = ~0u;
    GetExitCodeProcess(pi.hProcess, &dwExit);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    ASSERT_EQ(0u, dwExit);
    std::string strSeen;
    ASSERT_EQ(S_OK, NSTest::ReadFileBytes(NSPlatform::CombinePath(strDirectory, KV_W("seen.txt")), &strSeen));
    EXPECT_EQ(strExpected, strSeen);
    // Releasing the marshaled data is the extract's no-op.
    LARGE_INTEGER liZero = {};
    ASSERT_EQ(S_OK, pStream->Seek(liZero, STREAM_SEEK_SET, nullptr));
    EXPECT_EQ(S_OK, CoReleaseMarshalData(pStream));
  }
}

TEST_F(ExtractMarshalTest, InProcessContextsAreRefused) {
  NSTest::CLogCapture capture;
  for (DWORD dwContext : {DWORD{MSHCTX_INPROC}, DWORD{MSHCTX_NOSHAREDMEM}}) {
    NSCom::CComPtr<IStream> pStream;
    ASSERT_EQ(S_OK, CreateStreamOnHGlobal(nullptr, TRUE, &pStream));
    EXPECT_EQ(E_INVALIDARG, CoMarshalInterface(pStream, IID_IRecord, m_pExtract, dwContext, nullptr, MSHLFLAGS_NORMAL));
  }
  const WString strContext = W("MSHCTX_DIFFERENTMACHINE==dwDestCtx || MSHCTX_LOCAL==dwDestCtx\n");
  const std::vector<WString> vTexts = Texts(capture, "TRASSDO");
  EXPECT_EQ(2, std::count(vTexts.begin(), vTexts.end(), strContext));
}

// Between apartments of one process an [in] extract reaches the callee by value: as an extract of
// the callee's own, not a proxy. (An [out] extract going back to the caller's apartment is marshaled
// with MSHCTX_INPROC and refused; Wine's stub then keeps the callee's extract, so that case is not
// run here.)
TEST_F(ExtractMarshalTest, AnInExtractCrossesApartmentsByValue) {
  // The probe lives in this multithreaded apartment; a single-threaded one calls it.
  NSCom::CComPtr<IRecord> pProbe;
  ASSERT_EQ(S_OK, NSCom::CComObject<CProbeRecord>::CreateInstance(IID_IRecord, reinterpret_cast<void**>(&pProbe)));
  IStream* pProbeStream = nullptr;
  ASSERT_EQ(S_OK, CoMarshalInterThreadInterfaceInStream(IID_IRecord, pProbe, &pProbeStream));
  HRESULT hrCall = E_FAIL, hrCreate = E_FAIL;
  std::string strSent;
  std::thread caller([&] {
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return;
    {
      NSCom::CComPtr<IRecord> pProbeProxy, pIn;
      CoGetInterfaceAndReleaseStream(pProbeStream, IID_IRecord, reinterpret_cast<void**>(&pProbeProxy));
      // An extract of this apartment, filled here, as an [in] argument.
      hrCreate = CoCreateInstance(CLSID_RecordExtract, nullptr, CLSCTX_INPROC_SERVER, IID_IRecord, reinterpret_cast<void**>(&pIn));
      if (SUCCEEDED(hrCreate)) {
        const SFrameBuffer buffer = {reinterpret_cast<BYTE*>(const_cast<char*>("x")), 1};
        hrCreate = pIn->Write(Ft(2021, 1, 1, 0), 1, &buffer, 1);
      }
      if (SUCCEEDED(hrCreate)) strSent = Describe(pIn, 1);
      if (pProbeProxy && SUCCEEDED(hrCreate)) hrCall = pProbeProxy->Merge(pIn, nullptr, 0);
    }
    CoUninitialize();
  });
  caller.join();
  EXPECT_EQ(S_OK, hrCreate);
  EXPECT_EQ(S_OK, hrCall);
  EXPECT_TRUE(CProbeRecord::s_bByValue);
  EXPECT_FALSE(strSent.empty());
  EXPECT_EQ(strSent, CProbeRecord::s_strSeen);
}

// One block for all of a frame's buffers: in the caller's apartment the record lays them out one
// after another in it; across apartments only the first buffer, which brought the block, is filled
// in place, and each following one comes back in a task-memory block of its own that the caller
// frees. The bytes are the same either way.
TEST_F(ExtractMarshalTest, AReadIntoOneBlockIsCarvedOnlyInTheCallersApartment) {
  const FILETIME ft = Ft(2021, 5, 1, 12, 0, 2, 20);
  const std::string strFirst(200, 'c');
  const std::string strSecond = Show(ft);
  auto read = [&](IRecord* pRecord, std::string* pFirst, std::string* pSecond, bool* pbCarved) {
    std::vector<BYTE> vBlock(1024);
    SFrameBuffer aBuffers[2] = {{vBlock.data(), 1024}, {nullptr, 0}};
    DWORD dwFlags = 0;
    const HRESULT hr = pRecord->Read(ft, &dwFlags, aBuffers, 2);
    if (FAILED(hr)) return hr;
    *pFirst = std::string(reinterpret_cast<char*>(aBuffers[0].pData), aBuffers[0].dwDataSize);
    *pSecond = std::string(reinterpret_cast<char*>(aBuffers[1].pData), aBuffers[1].dwDataSize);
    *pbCarved = aBuffers[1].pData == vBlock.data() + 200;
    const bool bInside = aBuffers[1].pData >= vBlock.data() && aBuffers[1].pData < vBlock.data() + vBlock.size();
    if (!bInside) CoTaskMemFree(aBuffers[1].pData);
    return aBuffers[0].pData == vBlock.data() ? hr : E_UNEXPECTED;
  };
  std::string strA, strB;
  bool bCarved = false;
  ASSERT_EQ(S_OK, read(m_pRecord, &strA, &strB, &bCarved));
  EXPECT_EQ(strFirst, strA);
  EXPECT_EQ(strSecond, strB);
  EXPECT_TRUE(bCarved);

  IStream* pStream = nullptr;
  ASSERT_EQ(S_OK, CoMarshalInterThreadInterfaceInStream(IID_IRecord, m_pRecord, &pStream));
  HRESULT hrRead = E_FAIL;
  std::string strC, strD;
  bool bCarvedAcross = true;
  std::thread other([&] {
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return;
    {
      NSCom::CComPtr<IRecord> pProxy;
      if (SUCCEEDED(CoGetInterfaceAndReleaseStream(pStream, IID_IRecord, reinterpret_cast<void**>(&pProxy))))
        hrRead = read(pProxy, &strC, &strD, &bCarvedAcross);
    }
    CoUninitialize();
  });
  other.join();
  ASSERT_EQ(S_OK, hrRead);
  EXPECT_EQ(strFirst, strC);
  EXPECT_EQ(strSecond, strD);
  EXPECT_FALSE(bCarvedAcross);
}

}  // namespace

#endif  // _WIN32
