// The library's exports as a host calls them: class objects through DllGetClassObject, the unload
// check, and proof that each export is the library's own code.
#include <gtest/gtest.h>

#include <kronvale/kronvale.h>

#include <cstring>
#include <set>
#include <string>

#include "common/CountingOuter.h"
#include "module/Library.h"

#ifdef _WIN32
#include <psapi.h>
#else
#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#endif

namespace {

using NSTest::CLibrary;

// {0D63C1B4-6E2A-4F8B-9D7C-2A1E5B3F4C60}: a class no module serves.
const CLSID kclsidUnknown = {0x0D63C1B4, 0x6E2A, 0x4F8B, {0x9D, 0x7C, 0x2A, 0x1E, 0x5B, 0x3F, 0x4C, 0x60}};

class ModuleExportsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_library.IsLoaded());
    m_pfnGetClassObject = m_library.GetClassObject();
    m_pfnCanUnloadNow = m_library.CanUnloadNow();
    ASSERT_NE(nullptr, m_pfnGetClassObject);
    ASSERT_NE(nullptr, m_pfnCanUnloadNow);
  }

  CLibrary m_library;
  NSTest::PFNDLLGETCLASSOBJECT m_pfnGetClassObject = nullptr;
  NSTest::PFNDLLCANUNLOADNOW m_pfnCanUnloadNow = nullptr;
};

TEST_F(ModuleExportsTest, GetClassObjectRefusesWhatItCannotServe) {
  EXPECT_EQ(E_POINTER, m_pfnGetClassObject(CLSID_Kronvale, IID_IClassFactory, nullptr));

  void* pv = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, m_pfnGetClassObject(kclsidUnknown, IID_IClassFactory, &pv));
  EXPECT_EQ(nullptr, pv);

  // The type library's identifier is no class.
  pv = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, m_pfnGetClassObject(LIBID_KronvaleLib, IID_IUnknown, &pv));
  EXPECT_EQ(nullptr, pv);

  // An interface's identifier: the proxy/stub part, asked first, serves its factory buffer for
  // every interface it marshals. Linux has no proxy/stub part.
  IUnknown* pUnknown = nullptr;
#ifdef _WIN32
  ASSERT_EQ(S_OK, m_pfnGetClassObject(IID_IRecord, IID_IPSFactoryBuffer, reinterpret_cast<void**>(&pUnknown)));
  pUnknown->Release();
#else
  EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE,
            m_pfnGetClassObject(IID_IRecord, IID_IUnknown, reinterpret_cast<void**>(&pUnknown)));
  EXPECT_EQ(nullptr, pUnknown);
#endif

  // A class of the library asked for an interface its class object lacks.
  pv = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(E_NOINTERFACE, m_pfnGetClassObject(CLSID_Record, IID_IStream, &pv));
  EXPECT_EQ(nullptr, pv);
}

TEST_F(ModuleExportsTest, EachClassHasOneCachedClassObject) {
  const CLSID* apclsid[] = {&CLSID_RecordExtract, &CLSID_Kronvale, &CLSID_Record};
  std::set<IUnknown*> setIdentities;
  for (const CLSID* pclsid : apclsid) {
    IClassFactory* pFirst = nullptr;
    IClassFactory* pSecond = nullptr;
    ASSERT_EQ(S_OK, m_pfnGetClassObject(*pclsid, IID_IClassFactory, reinterpret_cast<void**>(&pFirst)));
    ASSERT_EQ(S_OK, m_pfnGetClassObject(*pclsid, IID_IClassFactory, reinterpret_cast<void**>(&pSecond)));
    EXPECT_EQ(pFirst, pSecond);
    IUnknown* pIdentity = nullptr;
    ASSERT_EQ(S_OK, m_pfnGetClassObject(*pclsid, IID_IUnknown, reinterpret_cast<void**>(&pIdentity)));
    setIdentities.insert(pIdentity);
    pIdentity->Release();
    pSecond->Release();
    pFirst->Release();
  }
  EXPECT_EQ(3u, setIdentities.size());
}

// The archive factory makes archives by path only: its own CreateInstance answers E_NOTIMPL.
TEST_F(ModuleExportsTest, ArchiveClassObjectMakesNoBareInstances) {
  IClassFactory* pFactory = nullptr;
  ASSERT_EQ(S_OK, m_pfnGetClassObject(CLSID_Kronvale, IID_IClassFactory, reinterpret_cast<void**>(&pFactory)));
  void* pv = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(E_NOTIMPL, pFactory->CreateInstance(nullptr, IID_IUnknown, &pv));
  EXPECT_EQ(nullptr, pv);
  pFactory->Release();
}

// A record made by the class object, plain or aggregated, has no archive behind it and was never
// opened for writing: it answers its interfaces and refuses to write.
TEST_F(ModuleExportsTest, RecordAndExtractClassesMakePlainAndAggregatedObjects) {
  IClassFactory* pFactory = nullptr;
  ASSERT_EQ(S_OK, m_pfnGetClassObject(CLSID_Record, IID_IClassFactory, reinterpret_cast<void**>(&pFactory)));
  IRecordEx* pRecord = nullptr;
  ASSERT_EQ(S_OK, pFactory->CreateInstance(nullptr, IID_IRecordEx, reinterpret_cast<void**>(&pRecord)));
  FILETIME ft = {0, 0x01D00000};
  EXPECT_EQ(E_ACCESSDENIED, pRecord->Write(ft, 0, nullptr, 0));
  EXPECT_EQ(E_NOTIMPL, pRecord->ReservedRange(ft, ft));
  IRecordFastCopy* pCopy = nullptr;
  ASSERT_EQ(S_OK, pRecord->QueryInterface(IID_IRecordFastCopy, reinterpret_cast<void**>(&pCopy)));
  pCopy->Release();
  EXPECT_EQ(0u, pRecord->Release());

  pFactory->Release();

  // An empty extract, by the COM runtime's route for a receiving extract: it answers the reading
  // half of IRecord and its own marker interface, and nothing of a recording.
  ASSERT_EQ(S_OK, m_pfnGetClassObject(CLSID_RecordExtract, IID_IClassFactory, reinterpret_cast<void**>(&pFactory)));
  IRecord* pExtract = nullptr;
  ASSERT_EQ(S_OK, pFactory->CreateInstance(nullptr, IID_IRecord, reinterpret_cast<void**>(&pExtract)));
  IUnknown* pMarker = nullptr;
  ASSERT_EQ(S_OK, pExtract->QueryInterface(IID_IRecordExtract, reinterpret_cast<void**>(&pMarker)));
  pMarker->Release();
  EXPECT_EQ(E_NOINTERFACE, pExtract->QueryInterface(IID_IRecordEx, reinterpret_cast<void**>(&pMarker)));
  EXPECT_EQ(E_NOTIMPL, pExtract->GetPath(nullptr));
  EXPECT_EQ(0u, pExtract->Release());
  pFactory->Release();

  // Both classes aggregate the same way.
  for (const CLSID* pclsid : {&CLSID_Record, &CLSID_RecordExtract}) {
    ASSERT_EQ(S_OK, m_pfnGetClassObject(*pclsid, IID_IClassFactory, reinterpret_cast<void**>(&pFactory)));
    NSTest::CCountingOuter outer;
    void* pv = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(CLASS_E_NOAGGREGATION, pFactory->CreateInstance(&outer, IID_IRecord, &pv));
    EXPECT_EQ(nullptr, pv);
    IUnknown* pInner = nullptr;
    ASSERT_EQ(S_OK, pFactory->CreateInstance(&outer, IID_IUnknown, reinterpret_cast<void**>(&pInner)));
    IRecord* pAggregated = nullptr;
    ASSERT_EQ(S_OK, pInner->QueryInterface(IID_IRecord, reinterpret_cast<void**>(&pAggregated)));
    EXPECT_EQ(2u, outer.m_cRef);  // the interface's reference went to the outer object
    IUnknown* pIdentity = nullptr;
    ASSERT_EQ(S_OK, pAggregated->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&pIdentity)));
    EXPECT_EQ(static_cast<IUnknown*>(&outer), pIdentity);
    pIdentity->Release();
    pAggregated->Release();
    EXPECT_EQ(1u, outer.m_cRef);
    EXPECT_EQ(0u, pInner->Release());
    pFactory->Release();
  }
}

TEST_F(ModuleExportsTest, CanUnloadNowFollowsClientsAndServerLocks) {
  ASSERT_EQ(S_OK, m_pfnCanUnloadNow());

  IClassFactory* pFactory = nullptr;
  ASSERT_EQ(S_OK, m_pfnGetClassObject(CLSID_Record, IID_IClassFactory, reinterpret_cast<void**>(&pFactory)));
  EXPECT_EQ(S_FALSE, m_pfnCanUnloadNow());
  pFactory->Release();
  EXPECT_EQ(S_OK, m_pfnCanUnloadNow());

  // A server lock outlives the client's reference to the class object.
  ASSERT_EQ(S_OK, m_pfnGetClassObject(CLSID_Kronvale, IID_IClassFactory, reinterpret_cast<void**>(&pFactory)));
  ASSERT_EQ(S_OK, pFactory->LockServer(TRUE));
  pFactory->Release();
  EXPECT_EQ(S_FALSE, m_pfnCanUnloadNow());
  ASSERT_EQ(S_OK, m_pfnGetClassObject(CLSID_Kronvale, IID_IClassFactory, reinterpret_cast<void**>(&pFactory)));
  ASSERT_EQ(S_OK, pFactory->LockServer(FALSE));
  EXPECT_EQ(S_FALSE, m_pfnCanUnloadNow());
  pFactory->Release();
  EXPECT_EQ(S_OK, m_pfnCanUnloadNow());
}

#ifdef _WIN32

std::string Narrow(const std::wstring& str) { return NSPlatform::WideToUtf8(str); }

// Where code at pb really runs: an import thunk (jmp qword ptr [rip+disp32], with or without a
// REX prefix) is followed through its import address slot.
const BYTE* FollowImportThunks(const BYTE* pb) {
  for (int i = 0; i < 4; ++i) {
    const BYTE* pbJump = pb[0] == 0x48 ? pb + 1 : pb;
    if (pbJump[0] != 0xFF || pbJump[1] != 0x25) {
      break;
    }
    INT32 nDisplacement;
    memcpy(&nDisplacement, pbJump + 2, sizeof(nDisplacement));
    const BYTE* pbSlot = pbJump + 6 + nDisplacement;
    memcpy(&pb, pbSlot, sizeof(pb));
  }
  return pb;
}

// The export table read from the loaded image: every name, and the code each one runs. A .def
// entry naming a function the library does not define still links: the linker exports the import
// thunk of the system's function of that name (ole32's, rpcrt4's), which lies inside the image
// but jumps out of it. Here that shows as code outside the image, or equal to the system's.
TEST_F(ModuleExportsTest, ExportsAreExactlyTheFourEntryPointsAndAreTheLibrarysOwnCode) {
  const HMODULE hModule = m_library.Handle();
  MODULEINFO info{};
  ASSERT_TRUE(GetModuleInformation(GetCurrentProcess(), hModule, &info, sizeof(info)));
  const BYTE* pbBase = static_cast<const BYTE*>(info.lpBaseOfDll);
  const BYTE* pbEnd = pbBase + info.SizeOfImage;
  ASSERT_EQ(static_cast<const void*>(pbBase), static_cast<const void*>(hModule));

  const auto* pDos = reinterpret_cast<const IMAGE_DOS_HEADER*>(pbBase);
  const auto* pNt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(pbBase + pDos->e_lfanew);
  const IMAGE_DATA_DIRECTORY& dir = pNt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
  ASSERT_NE(0u, dir.VirtualAddress);
  const auto* pExports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(pbBase + dir.VirtualAddress);
  const auto* pdwNames = reinterpret_cast<const DWORD*>(pbBase + pExports->AddressOfNames);
  const auto* pwOrdinals = reinterpret_cast<const WORD*>(pbBase + pExports->AddressOfNameOrdinals);
  const auto* pdwFunctions = reinterpret_cast<const DWORD*>(pbBase + pExports->AddressOfFunctions);

  std::set<std::string> setNames;
  for (DWORD i = 0; i < pExports->NumberOfNames; ++i) {
    const char* pszName = reinterpret_cast<const char*>(pbBase + pdwNames[i]);
    setNames.insert(pszName);
    SCOPED_TRACE(pszName);
    const DWORD dwRva = pdwFunctions[pwOrdinals[i]];
    // A forwarder's address points into the export directory itself.
    EXPECT_FALSE(dwRva >= dir.VirtualAddress && dwRva < dir.VirtualAddress + dir.Size);
    const BYTE* pbExport = pbBase + dwRva;
    EXPECT_EQ(static_cast<const void*>(pbExport), reinterpret_cast<const void*>(GetProcAddress(hModule, pszName)));
    const BYTE* pbFunction = FollowImportThunks(pbExport);
    EXPECT_TRUE(pbFunction >= pbBase && pbFunction < pbEnd) << "runs outside the library";
    for (const WCHAR* pszSystem : {L"ole32.dll", L"rpcrt4.dll", L"oleaut32.dll", L"combase.dll"}) {
      const HMODULE hSystem = GetModuleHandleW(pszSystem);
      if (hSystem != nullptr) {
        EXPECT_NE(reinterpret_cast<const void*>(GetProcAddress(hSystem, pszName)),
                  static_cast<const void*>(pbFunction))
            << Narrow(pszSystem);
      }
    }
  }
  EXPECT_EQ((std::set<std::string>{"DllCanUnloadNow", "DllGetClassObject", "DllRegisterServer",
                                   "DllUnregisterServer"}),
            setNames);
  // The proxy/stub's own entry points and the identifiers stay inside.
  for (const char* pszInternal : {"DllMain", "PrxDllGetClassObject", "PrxDllCanUnloadNow", "GetProxyDllInfo",
                                  "CLSID_Kronvale", "IID_IRecord"}) {
    EXPECT_EQ(nullptr, reinterpret_cast<const void*>(GetProcAddress(hModule, pszInternal))) << pszInternal;
  }
}

#else  // !_WIN32

std::string RealPath(const char* pszPath) {
  char szResolved[PATH_MAX];
  return realpath(pszPath, szResolved) != nullptr ? std::string(szResolved) : std::string();
}

// A Linux client links libkronvale.so alone: besides the two entry points it exports the COM base a
// client needs for strings and returned memory, each the library's own code.
TEST_F(ModuleExportsTest, ExportsAreTheEntryPointsAndTheClientsComBaseAllTheLibrarysOwnCode) {
  const std::string strLibrary = RealPath(KV_TEST_BIN_DIR "/libkronvale.so");
  ASSERT_FALSE(strLibrary.empty());
  for (const char* pszName : {"DllGetClassObject", "DllCanUnloadNow", "SysAllocString", "SysAllocStringLen",
                              "SysAllocStringByteLen", "SysReAllocString", "SysReAllocStringLen", "SysStringLen",
                              "SysStringByteLen", "SysFreeString", "CoTaskMemAlloc", "CoTaskMemRealloc",
                              "CoTaskMemFree"}) {
    SCOPED_TRACE(pszName);
    void* pSymbol = m_library.Get<void*>(pszName);
    ASSERT_NE(nullptr, pSymbol);
    Dl_info info{};
    ASSERT_NE(0, dladdr(pSymbol, &info));
    EXPECT_EQ(strLibrary, RealPath(info.dli_fname));
  }
  // The library's string functions agree with each other and with the BSTR layout.
  auto pfnAlloc = m_library.Get<BSTR (*)(const OLECHAR*)>("SysAllocString");
  auto pfnLen = m_library.Get<UINT (*)(BSTR)>("SysStringLen");
  auto pfnByteLen = m_library.Get<UINT (*)(BSTR)>("SysStringByteLen");
  auto pfnFree = m_library.Get<void (*)(BSTR)>("SysFreeString");
  ASSERT_TRUE(pfnAlloc && pfnLen && pfnByteLen && pfnFree);
  BSTR bstr = pfnAlloc(u"gate");
  ASSERT_NE(nullptr, bstr);
  EXPECT_EQ(4u, pfnLen(bstr));
  EXPECT_EQ(8u, pfnByteLen(bstr));
  EXPECT_EQ(8u, reinterpret_cast<const uint32_t*>(bstr)[-1]);
  EXPECT_EQ(0, bstr[4]);
  pfnFree(bstr);
  // No registration on Linux, and nothing of the library's insides is visible.
  for (const char* pszInternal : {"DllRegisterServer", "DllUnregisterServer", "DllMain", "CLSID_Kronvale",
                                  "IID_IRecord", "GUID_NULL"}) {
    EXPECT_EQ(nullptr, m_library.Get<void*>(pszInternal)) << pszInternal;
  }
}

#endif  // _WIN32

}  // namespace
