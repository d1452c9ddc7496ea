// The wide printf formatter: the same output on both platforms, whatever the C runtime does.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>

#include "platform/os.h"
#include "support/WideFormat.h"

using NSSupport::FormatWide;
using NSSupport::FormatWideBuffer;

namespace {

std::string Fmt(const WString& str) { return NSPlatform::WideToUtf8(str); }

TEST(WideFormat, StringsWideAndNarrow) {
  const WCHAR* pszPath = KV_W("C:\\Archive\\Zürich");
  EXPECT_EQ(Fmt(FormatWide(KV_W("Archive opened from cache: %s\n"), pszPath)),
            "Archive opened from cache: C:\\Archive\\Zürich\n");
  EXPECT_EQ(Fmt(FormatWide(KV_W("[%ls|%ws]"), KV_W("a"), KV_W("b"))), "[a|b]");
  // Narrow arguments are UTF-8.
  EXPECT_EQ(Fmt(FormatWide(KV_W("[%hs|%S]"), "Zürich €", "n")), "[Zürich €|n]");
  EXPECT_EQ(FormatWide(KV_W("%hs"), "\xF0\x9F\x98\x80"), WString(KV_W("\U0001F600")));
  EXPECT_EQ(Fmt(FormatWide(KV_W("%s %hs"), static_cast<const WCHAR*>(nullptr), static_cast<const char*>(nullptr))),
            "(null) (null)");
  EXPECT_EQ(Fmt(FormatWide(KV_W("[%6s|%-6s|%.2s|%*s|%-*s|%.*s]"), KV_W("ab"), KV_W("ab"), KV_W("abc"), 3, KV_W("x"),
                           3, KV_W("y"), 1, KV_W("zz"))),
            "[    ab|ab    |ab|  x|y  |z]");
  EXPECT_EQ(Fmt(FormatWide(KV_W("%.3hs"), "abcdef")), "abc");
  // A precision lets the argument be unterminated.
  const WCHAR unterminated[2] = {'o', 'k'};
  EXPECT_EQ(Fmt(FormatWide(KV_W("%.2s"), unterminated)), "ok");
}

TEST(WideFormat, IntegersWithFlagsWidthAndPrecision) {
  EXPECT_EQ(Fmt(FormatWide(KV_W("%d %i %u"), -42, 7, static_cast<unsigned>(-1))), "-42 7 4294967295");
  // The engine's HRESULT forms: "%0X" has no width, so it is plain %X.
  EXPECT_EQ(Fmt(FormatWide(KV_W("Failed to delete %s, hr=%0X\n"), KV_W("x"), E_POINTER)),
            "Failed to delete x, hr=80004003\n");
  EXPECT_EQ(Fmt(FormatWide(KV_W("mode 0x%08X."), 3u)), "mode 0x00000003.");
  EXPECT_EQ(Fmt(FormatWide(KV_W("(0x%X) %x"), 0x8007000Eu, 0xABCu)), "(0x8007000E) abc");
  EXPECT_EQ(Fmt(FormatWide(KV_W("%#x %#X %#o %#x %o"), 255u, 255u, 8u, 0u, 8u)), "0xff 0XFF 010 0 10");
  EXPECT_EQ(Fmt(FormatWide(KV_W("[%+d|% d|%+d|%5d|%-5d|%05d|%-05d]"), 5, 5, -5, 42, 42, -42, 42)),
            "[+5| 5|-5|   42|42   |-0042|42   ]");
  EXPECT_EQ(Fmt(FormatWide(KV_W("[%.3d|%8.3d|%08.3d|%.0d|%.0x]"), 7, -7, 7, 0, 0u)), "[007|    -007|     007||]");
  EXPECT_EQ(Fmt(FormatWide(KV_W("[%*d|%-*d]"), -4, 1, 4, 2)), "[1   |2   ]");
  EXPECT_EQ(Fmt(FormatWide(KV_W("%04d\\%02d\\%02d\\%02d"), 2021, 3, 7, 5)), "2021\\03\\07\\05");
  EXPECT_EQ(Fmt(FormatWide(KV_W("%d %d"), INT_MIN, INT_MAX)), "-2147483648 2147483647");
  EXPECT_EQ(Fmt(FormatWide(KV_W(" (%d%%)"), 45)), " (45%)");
}

TEST(WideFormat, LengthModifiers) {
  const ULONGLONG ullMax = UINT64_MAX;
  EXPECT_EQ(Fmt(FormatWide(KV_W("%I64u %llu %I64X"), ullMax, ullMax, 0x123456789ABCDEF0ull)),
            "18446744073709551615 18446744073709551615 123456789ABCDEF0");
  EXPECT_EQ(Fmt(FormatWide(KV_W("%lld %I64d"), static_cast<long long>(INT64_MIN), -1ll)), "-9223372036854775808 -1");
  // l is the Windows long: 32 bits on both platforms.
  EXPECT_EQ(Fmt(FormatWide(KV_W("%lu %ld %lX %I32u"), static_cast<ULONG>(0xFFFFFFFFu), static_cast<LONG>(-3),
                           static_cast<DWORD>(0xBEEF), 9u)),
            "4294967295 -3 BEEF 9");
  EXPECT_EQ(Fmt(FormatWide(KV_W("%zu %Iu"), static_cast<size_t>(1) << 40, static_cast<size_t>(3))), "1099511627776 3");
  EXPECT_EQ(Fmt(FormatWide(KV_W("%hd %hu %hhu %hhd"), 70000, 70000, 300, 255)), "4464 4464 44 -1");
  // The arguments after a 64-bit one are still found.
  EXPECT_EQ(Fmt(FormatWide(KV_W("%llu|%s|%d"), 1ull << 33, KV_W("z"), 3)), "8589934592|z|3");
}

TEST(WideFormat, CharactersPointersFloatsAndUnknownConversions) {
  EXPECT_EQ(Fmt(FormatWide(KV_W("%c%c%hc%3c"), 'a', 0x00FC, 'b', 'c')), "aüb  c");
  EXPECT_EQ(Fmt(FormatWide(KV_W("%p"), reinterpret_cast<void*>(static_cast<uintptr_t>(0x12FF7C)))),
            "000000000012FF7C");
  EXPECT_EQ(Fmt(FormatWide(KV_W("%p"), static_cast<void*>(nullptr))), "0000000000000000");
  EXPECT_EQ(Fmt(FormatWide(KV_W("%.2f %g %e %5.1f|%-6.1f|"), 3.14159, 0.5, 1234.5, 2.25, 1.0)),
            "3.14 0.5 1.234500e+03   2.2|1.0   |");
  EXPECT_EQ(Fmt(FormatWide(KV_W("%.*f"), 3, 1.0 / 3)), "0.333");
  // Unknown conversions are copied as written and take no argument; so is a trailing '%'.
  EXPECT_EQ(Fmt(FormatWide(KV_W("%y %d %5k %"), 5)), "%y 5 %5k %");
  EXPECT_EQ(Fmt(FormatWide(KV_W("%n%d"), 6)), "%n6");
  EXPECT_EQ(FormatWide(nullptr), WString());
}

TEST(WideFormat, BufferIsCutAtItsCapacity) {
  // The report buffer: 1025 zero-filled characters, text beyond 1024 cut.
  WString strLong(2000, 'q');
  strLong[1023] = 'L';
  strLong[1024] = 'X';
  WCHAR buffer[1025 + 4];
  for (WCHAR& ch : buffer) ch = '#';
  EXPECT_EQ(FormatWideBuffer(buffer, 1025, KV_W("%s"), strLong.c_str()), 2000u);
  EXPECT_EQ(WString(buffer), strLong.substr(0, 1024));
  EXPECT_EQ(buffer[1023], 'L');
  EXPECT_EQ(buffer[1024], 0);
  EXPECT_EQ(buffer[1025], '#') << "wrote past the capacity";

  WCHAR small[6] = {'#', '#', '#', '#', '#', '#'};
  EXPECT_EQ(FormatWideBuffer(small, 5, KV_W("ab%dcd%s"), 12, KV_W("xyz")), 9u);
  EXPECT_EQ(Fmt(small), "ab12");
  EXPECT_EQ(small[5], '#');
  // Padding and zeros are cut the same way.
  EXPECT_EQ(FormatWideBuffer(small, 5, KV_W("%08X"), 0x1Fu), 8u);
  EXPECT_EQ(Fmt(small), "0000");
  EXPECT_EQ(FormatWideBuffer(small, 1, KV_W("abc")), 3u);
  EXPECT_EQ(small[0], 0);
  EXPECT_EQ(FormatWideBuffer(small, 0, KV_W("abc")), 3u);
  EXPECT_EQ(small[0], 0);
  // Text that fits exactly.
  EXPECT_EQ(FormatWideBuffer(small, 5, KV_W("abcd")), 4u);
  EXPECT_EQ(Fmt(small), "abcd");
}

}  // namespace
