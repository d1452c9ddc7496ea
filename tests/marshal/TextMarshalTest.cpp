// BSTRs through the proxy/stub: exact length (embedded zeros), UTF-16 beyond ASCII (Cyrillic, CJK,
// surrogate pairs and lone surrogates), and null kept apart from empty, in both directions. Strings
// are whole UTF-16 units here: Wine's BSTR marshaling rounds an odd byte length up to whole
// characters, so such a string does not come back byte for byte.
#ifdef _WIN32

#include "marshal/MarshalHarness.h"

using namespace NSTest;
using NSCom::CComBSTR;
using NSCom::CComPtr;

namespace {

// An owned BSTR built from raw parts; bNull gives a null one.
struct STextCase {
  const char* pszName;
  bool bNull;
  std::vector<WCHAR> vChars;
  UINT cbBytes;  // SysStringByteLen

  CComBSTR Make() const {
    CComBSTR bstr;
    if (!bNull) {
      bstr.Attach(SysAllocStringByteLen(reinterpret_cast<LPCSTR>(vChars.data()), cbBytes));
    }
    return bstr;
  }
  SBstrContent Content() const {
    SBstrContent content;
    content.bNull = bNull;
    content.vChars.assign(vChars.begin(), vChars.begin() + cbBytes / sizeof(WCHAR));
    content.cbBytes = bNull ? 0 : cbBytes;
    return content;
  }
};

STextCase Chars(const char* pszName, std::vector<WCHAR> v) {
  const UINT cb = static_cast<UINT>(v.size() * sizeof(WCHAR));
  return STextCase{pszName, false, std::move(v), cb};
}

std::vector<STextCase> TextCases() {
  return {
      STextCase{"null", true, {}, 0},
      Chars("empty", {}),
      Chars("ascii", {L'r', L'e', L'c', L'o', L'r', L'd', L'-', L'1'}),
      Chars("embedded zeros", {L'a', 0, L'b', 0, 0, L'c', 0}),
      Chars("only a zero", {0}),
      Chars("cyrillic", {0x0410, 0x0440, 0x0445, 0x0438, 0x0432, L' ', 0x043A, 0x0430, 0x043C, 0x0435, 0x0440}),
      Chars("cjk", {0x6863, 0x6848, 0x8BB0, 0x5F55, 0x3002}),
      Chars("surrogate pair", {L'x', 0xD83D, 0xDE00, L'y', 0xD840, 0xDC0B}),
      Chars("mixed", {0x0416, 0, 0x4E2D, 0xD83C, 0xDFA5, L'\\', 0xFFFF, 0xFEFF}),
      Chars("lone surrogates", {0xDC00, L'a', 0xD800}),
  };
}

}  // namespace

TEST_F(CMarshalTest, DescriptionsCrossExactlyInBothDirections) {
  CComPtr<IDescription> spArchiveDescription;
  ASSERT_EQ(S_OK, m_spArchive.QueryInterface(&spArchiveDescription));
  for (const STextCase& text : TextCases()) {
    SCOPED_TRACE(text.pszName);
    const CComBSTR bstrIn = text.Make();
    const SBstrContent expected = text.Content();

    // Record: in through SetDescription, what the object stored back out through GetDescription.
    ASSERT_EQ(S_OK, m_spRecord->SetDescription(bstrIn));
    EXPECT_EQ(expected, m_pRecord->m_seen.string);
    CComBSTR bstrOut;
    ASSERT_EQ(S_OK, m_spRecord->GetDescription(&bstrOut));
    EXPECT_EQ(expected, ContentOf(bstrOut));

    // Archive, through IDescription itself.
    ASSERT_EQ(S_OK, spArchiveDescription->SetDescription(bstrIn));
    EXPECT_EQ(expected, m_pArchive->m_seen.string);
    CComBSTR bstrArchiveOut;
    ASSERT_EQ(S_OK, spArchiveDescription->GetDescription(&bstrArchiveOut));
    EXPECT_EQ(expected, ContentOf(bstrArchiveOut));
  }
}

TEST_F(CMarshalTest, NamesStatusAndPathsComeBackExactly) {
  for (const STextCase& text : TextCases()) {
    SCOPED_TRACE(text.pszName);
    const SBstrContent expected = text.Content();
    m_pRecord->m_bstrName = text.Make();
    m_pRecord->m_bstrStatus = text.Make();
    m_pRecord->m_bstrPath = text.Make();
    m_pArchive->m_bstrPath = text.Make();
    CComBSTR bstrName, bstrStatus, bstrPath, bstrArchivePath;
    ASSERT_EQ(S_OK, m_spRecord->GetName(&bstrName));
    ASSERT_EQ(S_OK, m_spRecord->GetStatus(&bstrStatus));
    ASSERT_EQ(S_OK, m_spRecord->GetPath(&bstrPath));
    ASSERT_EQ(S_OK, m_spArchive->GetPath(&bstrArchivePath));
    EXPECT_EQ(expected, ContentOf(bstrName));
    EXPECT_EQ(expected, ContentOf(bstrStatus));
    EXPECT_EQ(expected, ContentOf(bstrPath));
    EXPECT_EQ(expected, ContentOf(bstrArchivePath));
  }
}

TEST_F(CMarshalTest, NamesGoInExactlyWithTheirCalls) {
  for (const STextCase& text : TextCases()) {
    SCOPED_TRACE(text.pszName);
    const CComBSTR bstrIn = text.Make();
    const SBstrContent expected = text.Content();
    // The new record answers its name through its own proxy.
    CComPtr<IRecord> spCreated;
    ASSERT_EQ(S_OK, m_spArchive->CreateRecord(bstrIn, &spCreated));
    EXPECT_EQ(expected, m_pArchive->m_seen.string);
    ASSERT_TRUE(spCreated);
    CComBSTR bstrName;
    ASSERT_EQ(S_OK, spCreated->GetName(&bstrName));
    EXPECT_EQ(expected, ContentOf(bstrName));
    CComPtr<IRecord> spOpened;
    ASSERT_EQ(S_OK, m_spArchive->OpenRecord(bstrIn, &spOpened));
    EXPECT_STREQ("OpenRecord", m_pArchive->m_seen.pszMethod);
    EXPECT_EQ(expected, m_pArchive->m_seen.string);
    ASSERT_EQ(S_OK, m_spArchive->DeleteRecord(bstrIn));
    EXPECT_EQ(expected, m_pArchive->m_seen.string);
    // Paths to the factory.
    ASSERT_EQ(S_OK, m_spFactory->DeleteArchive(bstrIn));
    EXPECT_EQ(expected, m_pFactory->m_seen.string);
  }
}

TEST_F(CMarshalTest, RecordNamesArriveAsACalleeAllocatedArrayOfStrings) {
  const std::vector<STextCase> vCases = TextCases();
  for (const STextCase& text : vCases) {
    m_pArchive->m_vRecordNames.push_back(text.Make());
  }
  BSTR* aNames = nullptr;
  DWORD dwCount = 0;
  ASSERT_EQ(S_OK, m_spArchive->GetRecords(&aNames, &dwCount));
  ASSERT_EQ(vCases.size(), dwCount);
  ASSERT_NE(nullptr, aNames);
  for (DWORD i = 0; i < dwCount; ++i) {
    SCOPED_TRACE(vCases[i].pszName);
    EXPECT_EQ(vCases[i].Content(), ContentOf(aNames[i]));
    SysFreeString(aNames[i]);
  }
  CoTaskMemFree(aNames);

  // One name, then none: a count of zero and no array.
  m_pArchive->m_vRecordNames = {CComBSTR(L"solo")};
  ASSERT_EQ(S_OK, m_spArchive->GetRecords(&aNames, &dwCount));
  ASSERT_EQ(1u, dwCount);
  EXPECT_EQ(CComBSTR(L"solo"), CComBSTR(aNames[0]));
  SysFreeString(aNames[0]);
  CoTaskMemFree(aNames);
  m_pArchive->m_vRecordNames.clear();
  aNames = reinterpret_cast<BSTR*>(1);
  dwCount = 7;
  ASSERT_EQ(S_OK, m_spArchive->GetRecords(&aNames, &dwCount));
  EXPECT_EQ(0u, dwCount);
  EXPECT_EQ(nullptr, aNames);
}

#endif  // _WIN32
