// Path text rules (canonical form, joining, wildcard patterns) and the UTF-16 <-> UTF-8 conversions.
// Paths are written with '/' here and turned into the platform's separator, so one table serves both.
#include <gtest/gtest.h>

#include "platform/os.h"

using namespace NSPlatform;

namespace {

WString P(WStringView str) {
  WString strOut(str);
  for (WCHAR& ch : strOut) {
    if (ch == '/') ch = chPathSeparator;
  }
  return strOut;
}

}  // namespace

TEST(Paths, CanonicalizeResolvesDotsAndKeepsTheRoot) {
  struct SCase {
    const WCHAR* pszIn;
    const WCHAR* pszOut;
  };
  const SCase aCases[] = {
      {KV_W("a/./b/../c"), KV_W("a/c")},
      {KV_W("/x/a/./b/../c"), KV_W("/x/a/c")},
      {KV_W("/name_1/./name_2/./name_3/../name_4/.."), KV_W("/name_1/name_2")},
      {KV_W("a/b/c/../../d"), KV_W("a/d")},
      {KV_W("../a"), KV_W("a")},
      {KV_W("../../a/b"), KV_W("a/b")},
      {KV_W("/.."), KV_W("/")},
      {KV_W("/../../x"), KV_W("/x")},
      {KV_W("/"), KV_W("/")},
      {KV_W("/a/b/"), KV_W("/a/b/")},
      {KV_W("/a/b//"), KV_W("/a/b/")},
      {KV_W("/a//b"), KV_W("/a/b")},
      {KV_W("/a/b/./"), KV_W("/a/b/")},
      {KV_W("/a/b/.."), KV_W("/a")},
      {KV_W("/a/.."), KV_W("/")},
      {KV_W("a/.."), KV_W("")},
      {KV_W(""), KV_W("")},
      {KV_W("/a/..b/.c/..."), KV_W("/a/..b/.c/...")},
  };
  for (const SCase& c : aCases) {
    EXPECT_EQ(WideToUtf8(CanonicalizePath(P(c.pszIn))), WideToUtf8(P(c.pszOut))) << WideToUtf8(c.pszIn);
  }
  // Reading accepts both separators on Windows; the canonical form has only the platform's.
  if (chPathSeparator == '\\') {
    EXPECT_EQ(WideToUtf8(CanonicalizePath(KV_W("C:/a\\./b/..\\c"))), "C:\\a\\c");
    EXPECT_EQ(WideToUtf8(CanonicalizePath(KV_W("C:\\..\\.."))), "C:\\");
    EXPECT_EQ(WideToUtf8(CanonicalizePath(KV_W("\\\\srv\\share\\..\\x"))), "\\\\srv\\share\\x");
    EXPECT_TRUE(IsPathSeparator('/'));
  } else {
    EXPECT_FALSE(IsPathSeparator('\\'));
  }
  EXPECT_TRUE(IsPathSeparator(chPathSeparator));
}

TEST(Paths, CombineAndTrailingSeparator) {
  EXPECT_EQ(CombinePath(P(KV_W("/arc/rec")), KV_W("hour")), P(KV_W("/arc/rec/hour")));
  EXPECT_EQ(CombinePath(P(KV_W("/arc/rec/")), KV_W("hour")), P(KV_W("/arc/rec/hour")));
  EXPECT_EQ(CombinePath(P(KV_W("/arc/rec/2021/03/07/05")), P(KV_W("../../../../record.ald"))),
            P(KV_W("/arc/rec/record.ald")));
  EXPECT_EQ(CombinePath(P(KV_W("/arc/rec")), P(KV_W("/other"))), P(KV_W("/other")));
  EXPECT_EQ(CombinePath(P(KV_W("/arc/rec")), KV_W("")), P(KV_W("/arc/rec")));
  EXPECT_EQ(CombinePath(KV_W(""), P(KV_W("a/./b"))), P(KV_W("a/b")));
  EXPECT_EQ(CombinePath(P(KV_W("/arc")), P(KV_W("sub/"))), P(KV_W("/arc/sub/")));
  if (chPathSeparator == '\\') {
    EXPECT_EQ(WideToUtf8(CombinePath(KV_W("C:\\arc\\rec"), KV_W("\\x"))), "C:\\x");
    EXPECT_EQ(WideToUtf8(CombinePath(KV_W("C:\\arc"), KV_W("D:\\y"))), "D:\\y");
  }

  EXPECT_EQ(AddTrailingSeparator(P(KV_W("/arc"))), P(KV_W("/arc/")));
  EXPECT_EQ(AddTrailingSeparator(P(KV_W("/arc/"))), P(KV_W("/arc/")));
  EXPECT_EQ(AddTrailingSeparator(P(KV_W("/"))), P(KV_W("/")));
  EXPECT_EQ(AddTrailingSeparator(KV_W("")), KV_W(""));
}

TEST(Paths, MatchSpecWildcards) {
  struct SCase {
    const WCHAR* pszName;
    const WCHAR* pszSpec;
    bool bMatch;
  };
  const SCase aCases[] = {
      {KV_W("abc"), KV_W("*.*"), true},        {KV_W("a.b"), KV_W("*.*"), true},
      {KV_W(".hidden"), KV_W("*.*"), true},    {KV_W("abc"), KV_W("*"), true},
      {KV_W("data.al"), KV_W("*.al"), true},   {KV_W("DATA.AL"), KV_W("*.al"), true},
      {KV_W("data.al"), KV_W("*.AL"), true},   {KV_W("data.ald"), KV_W("*.al"), false},
      {KV_W("data.al.bak"), KV_W("*.al"), false}, {KV_W("x.al.al"), KV_W("*.al"), true},
      {KV_W("05"), KV_W("??"), true},          {KV_W("5"), KV_W("??"), false},
      {KV_W("005"), KV_W("??"), false},        {KV_W("2021"), KV_W("20?1"), true},
      {KV_W("a.ald"), KV_W("*.al;*.ald"), true}, {KV_W("a.alh"), KV_W("*.al; *.alh"), true},
      {KV_W("a.txt"), KV_W("*.al;*.ald"), false}, {KV_W("abcabd"), KV_W("*abd"), true},
      {KV_W("ab"), KV_W("a*b*"), true},        {KV_W("ba"), KV_W("a*"), false},
      {KV_W("\u00C9t\u00E9"), KV_W("\u00E9T\u00C9"), true}, {KV_W("x"), KV_W(""), false},
  };
  for (const SCase& c : aCases) {
    EXPECT_EQ(MatchSpec(c.pszName, c.pszSpec), c.bMatch) << WideToUtf8(c.pszName) << " ~ " << WideToUtf8(c.pszSpec);
  }
}

TEST(Text, Utf8AndUtf16ConvertBothWaysAndReplaceBadSequences) {
  const WString strWide = KV_W("a\u00E9\u20AC\U0001F600z");
  const std::string strUtf8 = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";
  EXPECT_EQ(WideToUtf8(strWide), strUtf8);
  EXPECT_EQ(Utf8ToWide(strUtf8), strWide);
  EXPECT_EQ(WideLength(strWide.c_str()), 6u);
  EXPECT_EQ(WideLength(KV_W("")), 0u);

  // A lone surrogate becomes U+FFFD (EF BF BD).
  const WCHAR aLone[] = {'x', static_cast<WCHAR>(0xD800), 'y', static_cast<WCHAR>(0xDC00), 0};
  EXPECT_EQ(WideToUtf8(aLone), "x\xEF\xBF\xBDy\xEF\xBF\xBD");
  // Overlong, truncated, surrogate-encoding and out-of-range sequences each become one U+FFFD.
  const WString strBad = Utf8ToWide("\xC0\xAF|\xE2\x82|\xED\xA0\x80|\xF4\x90\x80\x80|\xFF");
  const WCHAR chR = static_cast<WCHAR>(0xFFFD);
  EXPECT_EQ(strBad, (WString{chR, '|', chR, '|', chR, '|', chR, '|', chR}));
}
