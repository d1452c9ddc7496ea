// Windows only: names beyond ASCII through the file system, the case folding that makes two spellings
// of a path one, and full paths (drive letters, UNC) written with either separator.
#ifdef _WIN32

#include <gtest/gtest.h>

#include "common/TempDir.h"
#include "platform/os.h"

using NSTest::CTempDir;
using NSTest::ReadFileBytes;
using NSTest::WriteFileBytes;

TEST(Win32Names, FoldPathCaseLowersEveryScript) {
  using NSPlatform::FoldPathCase;
  EXPECT_EQ(FoldPathCase(L"C:\\Archive\\REC-01\\2021"), L"c:\\archive\\rec-01\\2021");
  // Latin-1, Greek and Cyrillic capitals fold; lower case, digits and punctuation stay.
  EXPECT_EQ(FoldPathCase(L"\\\\SRV\\Share\\\u00C4rger\u00DC\\\u03A3\u0391\\\u0416\u044F_9"),
            L"\\\\srv\\share\\\u00E4rger\u00FC\\\u03C3\u03B1\\\u0436\u044F_9");
  EXPECT_EQ(FoldPathCase(L"D:\\\u00C9t\u00E9"), FoldPathCase(L"d:\\\u00E9T\u00C9"));
  EXPECT_EQ(FoldPathCase(L""), L"");
}

TEST(Win32Names, NonAsciiNamesRoundTripAndSortByCodeUnits) {
  CTempDir dir;
  // U+1D11E is stored as the surrogate pair D834 DD1E, so it sorts before U+FF21 although its code
  // point is larger; U+00E9 sorts after every ASCII letter.
  const WString strClef = L"\U0001D11E.al";
  const WString strFullwidth = L"\uFF21.al";
  const WString strAccent = L"\u00E9t\u00E9.al";
  const WString strGreek = L"\u03A3\u03BF\u03C6\u03AF\u03B1";
  for (const WString& strName : {strFullwidth, strAccent, strClef, WString(L"z.al")}) {
    ASSERT_EQ(WriteFileBytes(dir.Sub(strName), NSPlatform::WideToUtf8(strName)), S_OK);
  }
  ASSERT_EQ(NSPlatform::CreateDir(dir.Sub(strGreek).c_str()), S_OK);

  std::vector<NSPlatform::SDirEntry> vEntries;
  ASSERT_EQ(NSPlatform::ListDir(dir.Path().c_str(), &vEntries), S_OK);
  std::vector<WString> vNames;
  for (const NSPlatform::SDirEntry& entry : vEntries) vNames.push_back(entry.strName);
  EXPECT_EQ(vNames, (std::vector<WString>{L"z.al", strAccent, strGreek, strClef, strFullwidth}));

  // The pattern filter compares without case in every script, and each name opens what it listed.
  ASSERT_EQ(NSPlatform::ListDir(dir.Path().c_str(), &vEntries, L"\u00C9T\u00C9.*"), S_OK);
  ASSERT_EQ(vEntries.size(), 1u);
  EXPECT_EQ(vEntries[0].strName, strAccent);
  std::string strBytes;
  ASSERT_EQ(ReadFileBytes(dir.Sub(strClef), &strBytes), S_OK);
  EXPECT_EQ(strBytes, NSPlatform::WideToUtf8(strClef));
  EXPECT_TRUE(NSPlatform::IsDirectory(dir.Sub(strGreek).c_str()));
  EXPECT_TRUE(NSPlatform::PathExists(NSPlatform::FoldPathCase(dir.Sub(strGreek)).c_str()));

  // A tree copy keeps the names.
  const WString strCopy = dir.Sub(L"copy");
  ASSERT_EQ(NSPlatform::CopyTree(dir.Sub(strClef).c_str(), dir.Sub(strGreek).c_str()), S_OK);
  ASSERT_EQ(NSPlatform::CopyTree(dir.Sub(strGreek).c_str(), strCopy.c_str()), S_OK);
  ASSERT_EQ(NSPlatform::ListDir(strCopy.c_str(), &vEntries), S_OK);
  ASSERT_EQ(vEntries.size(), 1u);
  EXPECT_EQ(vEntries[0].strName, strClef);
}

TEST(Win32Names, FullPathsTakeEitherSeparator) {
  WString strFull;
  ASSERT_EQ(NSPlatform::GetFullPath(L"C:/arc/rec/../hour/./x", &strFull), S_OK);
  EXPECT_EQ(strFull, L"C:\\arc\\hour\\x");
  ASSERT_EQ(NSPlatform::GetFullPath(L"\\\\srv\\share\\a\\..\\b", &strFull), S_OK);
  EXPECT_EQ(strFull, L"\\\\srv\\share\\b");
  // A relative path is taken from the current directory of its drive.
  ASSERT_EQ(NSPlatform::GetFullPath(L"rel/x", &strFull), S_OK);
  ASSERT_GT(strFull.size(), 9u);
  EXPECT_EQ(strFull[1], L':');
  EXPECT_EQ(strFull.substr(strFull.size() - 6), L"\\rel\\x");
}

#endif  // _WIN32
