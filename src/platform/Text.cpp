// UTF-16 <-> UTF-8 at the edges of the engine (POSIX system calls, log formatting). Malformed input
// never fails a conversion: each bad sequence becomes one U+FFFD, so a name read from disk can always
// be shown and compared.
#include "platform/os.h"

namespace NSPlatform {

namespace {

constexpr char32_t chReplacement = 0xFFFD;

void AppendUtf8(std::string& str, char32_t ch) {
  if (ch < 0x80) {
    str.push_back(static_cast<char>(ch));
  } else if (ch < 0x800) {
    str.push_back(static_cast<char>(0xC0 | (ch >> 6)));
    str.push_back(static_cast<char>(0x80 | (ch & 0x3F)));
  } else if (ch < 0x10000) {
    str.push_back(static_cast<char>(0xE0 | (ch >> 12)));
    str.push_back(static_cast<char>(0x80 | ((ch >> 6) & 0x3F)));
    str.push_back(static_cast<char>(0x80 | (ch & 0x3F)));
  } else {
    str.push_back(static_cast<char>(0xF0 | (ch >> 18)));
    str.push_back(static_cast<char>(0x80 | ((ch >> 12) & 0x3F)));
    str.push_back(static_cast<char>(0x80 | ((ch >> 6) & 0x3F)));
    str.push_back(static_cast<char>(0x80 | (ch & 0x3F)));
  }
}

void AppendUtf16(WString& str, char32_t ch) {
  if (ch < 0x10000) {
    str.push_back(static_cast<WCHAR>(ch));
  } else {
    ch -= 0x10000;
    str.push_back(static_cast<WCHAR>(0xD800 + (ch >> 10)));
    str.push_back(static_cast<WCHAR>(0xDC00 + (ch & 0x3FF)));
  }
}

bool IsHighSurrogate(char32_t ch) { return ch >= 0xD800 && ch <= 0xDBFF; }
bool IsLowSurrogate(char32_t ch) { return ch >= 0xDC00 && ch <= 0xDFFF; }

// Decodes one UTF-8 sequence at str[i], advancing i past it; overlong forms, surrogates and values
// above U+10FFFF are rejected as a whole, a truncated sequence consumes only its valid prefix.
char32_t DecodeUtf8(std::string_view str, size_t& i) {
  const auto b0 = static_cast<unsigned char>(str[i++]);
  if (b0 < 0x80) return b0;
  int cTrail;
  char32_t ch;
  char32_t chMin;
  if ((b0 & 0xE0) == 0xC0) {
    cTrail = 1, ch = b0 & 0x1F, chMin = 0x80;
  } else if ((b0 & 0xF0) == 0xE0) {
    cTrail = 2, ch = b0 & 0x0F, chMin = 0x800;
  } else if ((b0 & 0xF8) == 0xF0) {
    cTrail = 3, ch = b0 & 0x07, chMin = 0x10000;
  } else {
    return chReplacement;
  }
  for (int n = 0; n < cTrail; ++n) {
    if (i >= str.size() || (static_cast<unsigned char>(str[i]) & 0xC0) != 0x80) return chReplacement;
    ch = (ch << 6) | (static_cast<unsigned char>(str[i++]) & 0x3F);
  }
  if (ch < chMin || ch > 0x10FFFF || (ch >= 0xD800 && ch <= 0xDFFF)) return chReplacement;
  return ch;
}

}  // namespace

std::string WideToUtf8(WStringView str) {
  std::string strOut;
  strOut.reserve(str.size());
  for (size_t i = 0; i < str.size(); ++i) {
    char32_t ch = static_cast<char16_t>(str[i]);
    if (IsHighSurrogate(ch) && i + 1 < str.size() && IsLowSurrogate(static_cast<char16_t>(str[i + 1]))) {
      ch = 0x10000 + ((ch - 0xD800) << 10) + (static_cast<char16_t>(str[i + 1]) - 0xDC00);
      ++i;
    } else if (IsHighSurrogate(ch) || IsLowSurrogate(ch)) {
      ch = chReplacement;
    }
    AppendUtf8(strOut, ch);
  }
  return strOut;
}

WString Utf8ToWide(std::string_view str) {
  WString strOut;
  strOut.reserve(str.size());
  size_t i = 0;
  while (i < str.size()) AppendUtf16(strOut, DecodeUtf8(str, i));
  return strOut;
}

size_t WideLength(const WCHAR* psz) {
  if (!psz) return 0;
  size_t cch = 0;
  while (psz[cch]) ++cch;
  return cch;
}

}  // namespace NSPlatform
