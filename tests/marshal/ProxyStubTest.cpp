// The proxy/stub itself: its table carries exactly the interfaces of the catalogue, its factory is
// served under the proxy class identifier, and with it registered every interface crosses
// apartments as a proxy whose calls run on the object's own thread.
#ifdef _WIN32

#include <algorithm>
#include <set>
#include <string>

#include "marshal/MarshalHarness.h"

using namespace NSTest;
using NSCom::CComPtr;

namespace {

std::string Text(const IID& iid) {
  WCHAR sz[40] = {};
  StringFromGUID2(iid, sz, 40);
  return std::string(sz, sz + wcslen(sz));
}

}  // namespace

TEST(ProxyStubTable, ListsTheThirteenInterfacesAndTheirNineAsynchronousTwins) {
  const SProxyStubInfo info = GetProxyStubInfo();
  const std::set<std::string> expected = {
      Text(IID_IDescription),           Text(IID_IKronvale),          Text(IID_IKronvaleEx),
      Text(IID_IKronvaleQuota),         Text(IID_IKronvaleInternal),  Text(IID_IStateControl),
      Text(IID_IRecord),                Text(IID_IRecordEx),          Text(IID_IRecordFastCopy),
      Text(IID_IRecordExtract),         Text(IID_IMultipartArchive),  Text(IID_IArchiveFactory),
      Text(IID_IArchiveFactoryEx),      Text(IID_AsyncIDescription),  Text(IID_AsyncIKronvale),
      Text(IID_AsyncIKronvaleEx),       Text(IID_AsyncIKronvaleQuota), Text(IID_AsyncIKronvaleInternal),
      Text(IID_AsyncIStateControl),     Text(IID_AsyncIRecord),       Text(IID_AsyncIRecordEx),
      Text(IID_AsyncIMultipartArchive)};
  ASSERT_EQ(22u, expected.size());
  std::set<std::string> listed;
  for (const IID& iid : info.vInterfaces) {
    listed.insert(Text(iid));
  }
  EXPECT_EQ(22u, info.vInterfaces.size());
  EXPECT_EQ(expected, listed);
  // The asynchronous identifiers are the catalogue's.
  EXPECT_EQ("{A6613EE7-5B3C-413C-A468-ABD253B92491}", Text(IID_AsyncIRecord));
  EXPECT_EQ("{9C8FC2CA-132D-422A-B8D7-E4E9A27200F8}", Text(IID_AsyncIRecordEx));
  EXPECT_EQ("{C66DC80B-3301-4061-99FE-99165C6B78EF}", Text(IID_AsyncIDescription));
}

TEST(ProxyStubTable, ServesItsFactoryUnderTheProxyClassOnly) {
  ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_MULTITHREADED));
  {
    const SProxyStubInfo info = GetProxyStubInfo();
    CComPtr<IPSFactoryBuffer> spFactory;
    ASSERT_EQ(S_OK, PrxDllGetClassObject(info.clsid, IID_IPSFactoryBuffer, reinterpret_cast<void**>(&spFactory)));
    ASSERT_TRUE(spFactory);
    // A stub for each listed interface; none for an interface the file does not carry.
    CComPtr<IRecordEx> spObject;
    ASSERT_EQ(S_OK, CScriptedRecord::Create(L"r", &spObject));
    CComPtr<IRpcStubBuffer> spStub;
    EXPECT_EQ(S_OK, spFactory->CreateStub(IID_IRecordEx, spObject, &spStub));
    CComPtr<IRpcStubBuffer> spNone;
    EXPECT_TRUE(FAILED(spFactory->CreateStub(IID_IStream, spObject, &spNone)));
    void* pv = reinterpret_cast<void*>(1);
    EXPECT_EQ(CLASS_E_CLASSNOTAVAILABLE, PrxDllGetClassObject(IID_IStream, IID_IPSFactoryBuffer, &pv));
    EXPECT_EQ(nullptr, pv);
  }
  CoUninitialize();
}

TEST_F(CMarshalTest, EveryInterfaceReachesTheObjectThroughAProxyOnItsOwnThread) {
  // Proxies, not the objects.
  EXPECT_NE(static_cast<void*>(static_cast<IRecordEx*>(m_pRecord)), static_cast<void*>(m_spRecord.p));
  EXPECT_NE(static_cast<void*>(static_cast<IMultipartArchive*>(m_pArchive)), static_cast<void*>(m_spArchive.p));
  EXPECT_NE(static_cast<void*>(static_cast<IArchiveFactory*>(m_pFactory)), static_cast<void*>(m_spFactory.p));

  // Each interface of each object, reached by a remote query, runs on the server's thread.
  CComPtr<IRecord> spRecord;
  ASSERT_EQ(S_OK, m_spRecord.QueryInterface(&spRecord));
  CComPtr<IDescription> spDescription;
  ASSERT_EQ(S_OK, m_spRecord.QueryInterface(&spDescription));
  NSCom::CComBSTR bstr;
  EXPECT_EQ(S_OK, spDescription->GetDescription(&bstr));
  EXPECT_STREQ("GetDescription", m_pRecord->m_seen.pszMethod);
  EXPECT_EQ(ServerThreadId(), m_pRecord->m_seen.dwThreadId);
  EXPECT_NE(GetCurrentThreadId(), m_pRecord->m_seen.dwThreadId);
  bstr.Empty();
  EXPECT_EQ(S_OK, spRecord->GetName(&bstr));
  EXPECT_STREQ("GetName", m_pRecord->m_seen.pszMethod);
  EXPECT_EQ(ServerThreadId(), m_pRecord->m_seen.dwThreadId);

  CComPtr<IKronvale> spKronvale;
  ASSERT_EQ(S_OK, m_spArchive.QueryInterface(&spKronvale));
  EXPECT_EQ(S_OK, spKronvale->Free());
  EXPECT_EQ(1, m_pArchive->m_cFree);
  EXPECT_EQ(ServerThreadId(), m_pArchive->m_seen.dwThreadId);
  CComPtr<IKronvaleQuota> spQuota;
  ASSERT_EQ(S_OK, m_spArchive.QueryInterface(&spQuota));
  SArchiveQuota quota{};
  EXPECT_EQ(S_OK, spQuota->GetArchiveQuota(&quota));
  EXPECT_STREQ("GetArchiveQuota", m_pArchive->m_seen.pszMethod);
  EXPECT_EQ(ServerThreadId(), m_pArchive->m_seen.dwThreadId);

  EXPECT_EQ(S_OK, m_spFactory->DeleteArchive(nullptr));
  EXPECT_STREQ("DeleteArchive", m_pFactory->m_seen.pszMethod);
  EXPECT_EQ(ServerThreadId(), m_pFactory->m_seen.dwThreadId);

  // Interfaces the objects do not serve stay unserved across the boundary.
  CComPtr<IRecordFastCopy> spFastCopy;
  EXPECT_EQ(E_NOINTERFACE, m_spRecord.QueryInterface(&spFastCopy));
  CComPtr<IRecordExtract> spExtract;
  EXPECT_EQ(E_NOINTERFACE, m_spRecord.QueryInterface(&spExtract));
  CComPtr<IStateControl> spState;
  EXPECT_EQ(E_NOINTERFACE, m_spArchive.QueryInterface(&spState));
}

#endif  // _WIN32
