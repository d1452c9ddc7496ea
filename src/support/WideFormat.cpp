#include "support/WideFormat.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "platform/os.h"

namespace NSSupport {
namespace {

// Where formatted text goes. Both sinks count every character offered, kept or not, so that the
// buffer form can answer the length of the whole text.
class CStringSink {
 public:
  explicit CStringSink(WString* pstr) : m_pstr(pstr) {}
  void Put(const WCHAR* pch, size_t cch) { m_pstr->append(pch, cch); }
  void Repeat(WCHAR ch, size_t cch) { m_pstr->append(cch, ch); }
  size_t Total() const { return m_pstr->size(); }

 private:
  WString* m_pstr;
};

class CBufferSink {
 public:
  // cchRoom: characters that may be stored, the terminator not counted.
  CBufferSink(WCHAR* pBuffer, size_t cchRoom) : m_pBuffer(pBuffer), m_cchRoom(cchRoom) {}
  void Put(const WCHAR* pch, size_t cch) {
    size_t cchKeep = Room(cch);
    if (cchKeep) std::memcpy(m_pBuffer + m_cchUsed, pch, cchKeep * sizeof(WCHAR));
    m_cchUsed += cchKeep;
    m_cchTotal += cch;
  }
  void Repeat(WCHAR ch, size_t cch) {
    size_t cchKeep = Room(cch);
    for (size_t i = 0; i < cchKeep; ++i) m_pBuffer[m_cchUsed + i] = ch;
    m_cchUsed += cchKeep;
    m_cchTotal += cch;
  }
  size_t Total() const { return m_cchTotal; }
  size_t Used() const { return m_cchUsed; }

 private:
  size_t Room(size_t cch) const { return cch < m_cchRoom - m_cchUsed ? cch : m_cchRoom - m_cchUsed; }

  WCHAR* m_pBuffer;
  size_t m_cchRoom;
  size_t m_cchUsed = 0;
  size_t m_cchTotal = 0;
};

enum EFlag : unsigned {
  kLeft = 1,      // -
  kZero = 2,      // 0
  kPlus = 4,      // +
  kSpace = 8,     // space
  kAlternate = 16 // #
};

enum class ELength { None, Char, Short, Long32, Long64, Size, LongDouble };

// One conversion as parsed from the format.
struct SConversion {
  unsigned nFlags = 0;
  int nWidth = 0;       // 0: none
  int nPrecision = -1;  // -1: none
  ELength eLength = ELength::None;
  bool bNarrowText = false;  // h on %s/%c, or %S
};

const WCHAR kNull[] = {'(', 'n', 'u', 'l', 'l', ')'};

template <class TSink>
void PadAndPut(TSink& sink, const SConversion& conv, const WCHAR* pch, size_t cch) {
  size_t cchPad = conv.nWidth > 0 && static_cast<size_t>(conv.nWidth) > cch ? conv.nWidth - cch : 0;
  if (!(conv.nFlags & kLeft)) sink.Repeat(' ', cchPad);
  sink.Put(pch, cch);
  if (conv.nFlags & kLeft) sink.Repeat(' ', cchPad);
}

template <class TSink>
void PutWideText(TSink& sink, const SConversion& conv, const WCHAR* psz) {
  if (!psz) {
    psz = kNull;
    size_t cch = sizeof(kNull) / sizeof(kNull[0]);
    if (conv.nPrecision >= 0 && static_cast<size_t>(conv.nPrecision) < cch) cch = conv.nPrecision;
    PadAndPut(sink, conv, psz, cch);
    return;
  }
  size_t cch = 0;
  // With a precision the text need not be terminated within reach.
  while ((conv.nPrecision < 0 || cch < static_cast<size_t>(conv.nPrecision)) && psz[cch]) ++cch;
  PadAndPut(sink, conv, psz, cch);
}

template <class TSink>
void PutNarrowText(TSink& sink, const SConversion& conv, const char* psz) {
  if (!psz) {
    PutWideText(sink, conv, nullptr);
    return;
  }
  size_t cb = 0;
  // The precision counts output characters; no UTF-8 character is longer than 4 bytes per unit.
  size_t cbLimit = conv.nPrecision < 0 ? SIZE_MAX : static_cast<size_t>(conv.nPrecision) * 4;
  while (cb < cbLimit && psz[cb]) ++cb;
  WString str = NSPlatform::Utf8ToWide(std::string_view(psz, cb));
  if (conv.nPrecision >= 0 && str.size() > static_cast<size_t>(conv.nPrecision)) str.resize(conv.nPrecision);
  PadAndPut(sink, conv, str.data(), str.size());
}

// Digits of an unsigned value in base 8, 10 or 16.
size_t ToDigits(uint64_t ull, unsigned nBase, bool bUpper, char* pEnd) {
  const char* pszDigits = bUpper ? "0123456789ABCDEF" : "0123456789abcdef";
  size_t cch = 0;
  while (ull) {
    *--pEnd = pszDigits[ull % nBase];
    ull /= nBase;
    ++cch;
  }
  return cch;
}

template <class TSink>
void PutInteger(TSink& sink, const SConversion& conv, WCHAR chConversion, uint64_t ullMagnitude, bool bNegative) {
  unsigned nBase = 10;
  if (chConversion == 'x' || chConversion == 'X' || chConversion == 'p') nBase = 16;
  if (chConversion == 'o') nBase = 8;
  bool bSigned = chConversion == 'd' || chConversion == 'i';

  char digits[32];
  char* pEnd = digits + sizeof(digits);
  size_t cchDigits = ToDigits(ullMagnitude, nBase, chConversion != 'x', pEnd);
  const char* pDigits = pEnd - cchDigits;

  // The minimum number of digits: the precision, 1 by default; "%.0d" of 0 prints no digit.
  size_t cchMin = conv.nPrecision >= 0 ? static_cast<size_t>(conv.nPrecision) : 1;
  size_t cchZeros = cchMin > cchDigits ? cchMin - cchDigits : 0;
  if (nBase == 8 && (conv.nFlags & kAlternate) && cchZeros == 0 && (cchDigits == 0 || pDigits[0] != '0')) cchZeros = 1;

  WCHAR prefix[2];
  size_t cchPrefix = 0;
  if (bSigned) {
    if (bNegative) prefix[cchPrefix++] = '-';
    else if (conv.nFlags & kPlus) prefix[cchPrefix++] = '+';
    else if (conv.nFlags & kSpace) prefix[cchPrefix++] = ' ';
  } else if (nBase == 16 && chConversion != 'p' && (conv.nFlags & kAlternate) && ullMagnitude) {
    prefix[cchPrefix++] = '0';
    prefix[cchPrefix++] = static_cast<WCHAR>(chConversion);
  }

  size_t cchBody = cchPrefix + cchZeros + cchDigits;
  size_t cchPad = conv.nWidth > 0 && static_cast<size_t>(conv.nWidth) > cchBody ? conv.nWidth - cchBody : 0;
  // '0' pads with zeros after the sign, unless left-justified or a precision is given.
  bool bZeroPad = (conv.nFlags & kZero) && !(conv.nFlags & kLeft) && conv.nPrecision < 0;
  if (bZeroPad) {
    cchZeros += cchPad;
    cchPad = 0;
  }

  if (!(conv.nFlags & kLeft)) sink.Repeat(' ', cchPad);
  sink.Put(prefix, cchPrefix);
  sink.Repeat('0', cchZeros);
  WCHAR wide[32];
  for (size_t i = 0; i < cchDigits; ++i) wide[i] = static_cast<WCHAR>(pDigits[i]);
  sink.Put(wide, cchDigits);
  if (conv.nFlags & kLeft) sink.Repeat(' ', cchPad);
}

template <class TSink>
void PutFloat(TSink& sink, const SConversion& conv, WCHAR chConversion, va_list& args) {
  char format[32];
  char* p = format;
  *p++ = '%';
  if (conv.nFlags & kLeft) *p++ = '-';
  if (conv.nFlags & kZero) *p++ = '0';
  if (conv.nFlags & kPlus) *p++ = '+';
  if (conv.nFlags & kSpace) *p++ = ' ';
  if (conv.nFlags & kAlternate) *p++ = '#';
  *p++ = '*';
  *p++ = '.';
  *p++ = '*';
  if (conv.eLength == ELength::LongDouble) *p++ = 'L';
  *p++ = static_cast<char>(chConversion);
  *p = 0;

  long double ld = 0;
  double d = 0;
  if (conv.eLength == ELength::LongDouble) ld = va_arg(args, long double);
  else d = va_arg(args, double);

  // A negative precision passed through * means "none", as for our own conversions.
  std::string text(128, '\0');
  for (int nAttempt = 0; nAttempt < 2; ++nAttempt) {
    int cch = conv.eLength == ELength::LongDouble
                  ? std::snprintf(text.data(), text.size(), format, conv.nWidth, conv.nPrecision, ld)
                  : std::snprintf(text.data(), text.size(), format, conv.nWidth, conv.nPrecision, d);
    if (cch < 0) return;
    if (static_cast<size_t>(cch) < text.size()) {
      text.resize(cch);
      break;
    }
    text.assign(static_cast<size_t>(cch) + 1, '\0');
  }
  WString wide(text.begin(), text.end());  // snprintf writes ASCII only
  sink.Put(wide.data(), wide.size());
}

uint64_t ReadUnsigned(ELength eLength, va_list& args) {
  switch (eLength) {
    case ELength::Char: return static_cast<unsigned char>(va_arg(args, unsigned int));
    case ELength::Short: return static_cast<uint16_t>(va_arg(args, unsigned int));
    case ELength::Long64: return va_arg(args, unsigned long long);
    case ELength::Size: return static_cast<uint64_t>(va_arg(args, size_t));
    default: return va_arg(args, unsigned int);
  }
}

int64_t ReadSigned(ELength eLength, va_list& args) {
  switch (eLength) {
    case ELength::Char: return static_cast<signed char>(va_arg(args, int));
    case ELength::Short: return static_cast<int16_t>(va_arg(args, int));
    case ELength::Long64: return va_arg(args, long long);
    case ELength::Size: return static_cast<int64_t>(va_arg(args, ptrdiff_t));
    default: return va_arg(args, int);
  }
}

// A decimal number (width or precision), held below a bound so that it cannot overflow.
const WCHAR* ParseNumber(const WCHAR* p, int* pn) {
  int n = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    if (n < 100000000) n = n * 10 + (*p - '0');
  }
  *pn = n;
  return p;
}

// Parses the length modifier at p; answers the first character after it.
const WCHAR* ParseLength(const WCHAR* p, SConversion* pSpec) {
  switch (*p) {
    case 'h':
      if (p[1] == 'h') {
        pSpec->eLength = ELength::Char;
        return p + 2;
      }
      pSpec->eLength = ELength::Short;
      pSpec->bNarrowText = true;
      return p + 1;
    case 'l':
      if (p[1] == 'l') {
        pSpec->eLength = ELength::Long64;
        return p + 2;
      }
      pSpec->eLength = ELength::Long32;
      return p + 1;
    case 'w':
      pSpec->eLength = ELength::Long32;
      return p + 1;
    case 'L':
      pSpec->eLength = ELength::LongDouble;
      return p + 1;
    case 'q':
      pSpec->eLength = ELength::Long64;
      return p + 1;
    case 'z':
    case 'j':
    case 't':
      pSpec->eLength = ELength::Size;
      return p + 1;
    case 'I':
      if (p[1] == '6' && p[2] == '4') {
        pSpec->eLength = ELength::Long64;
        return p + 3;
      }
      if (p[1] == '3' && p[2] == '2') {
        pSpec->eLength = ELength::Long32;
        return p + 3;
      }
      pSpec->eLength = ELength::Size;
      return p + 1;
    default:
      return p;
  }
}

template <class TSink>
void Format(TSink& sink, const WCHAR* pszFormat, va_list& args) {
  if (!pszFormat) return;
  const WCHAR* p = pszFormat;
  while (*p) {
    if (*p != '%') {
      const WCHAR* pRun = p;
      while (*p && *p != '%') ++p;
      sink.Put(pRun, p - pRun);
      continue;
    }
    const WCHAR* pStart = p++;
    if (*p == '%') {
      sink.Put(p, 1);
      ++p;
      continue;
    }

    SConversion conv;
    for (;; ++p) {
      if (*p == '-') conv.nFlags |= kLeft;
      else if (*p == '0') conv.nFlags |= kZero;
      else if (*p == '+') conv.nFlags |= kPlus;
      else if (*p == ' ') conv.nFlags |= kSpace;
      else if (*p == '#') conv.nFlags |= kAlternate;
      else break;
    }
    // Arguments taken by * are consumed as we meet them, as printf does; an unknown conversion
    // after a * has still consumed them.
    if (*p == '*') {
      int n = va_arg(args, int);
      if (n < 0) {
        conv.nFlags |= kLeft;
        n = n == INT32_MIN ? INT32_MAX : -n;
      }
      conv.nWidth = n;
      ++p;
    } else {
      p = ParseNumber(p, &conv.nWidth);
    }
    if (*p == '.') {
      ++p;
      if (*p == '*') {
        int n = va_arg(args, int);
        conv.nPrecision = n < 0 ? -1 : n;
        ++p;
      } else {
        p = ParseNumber(p, &conv.nPrecision);
      }
    }
    p = ParseLength(p, &conv);

    WCHAR ch = *p;
    switch (ch) {
      case 's':
        if (conv.bNarrowText) PutNarrowText(sink, conv, va_arg(args, const char*));
        else PutWideText(sink, conv, va_arg(args, const WCHAR*));
        break;
      case 'S':
        if (conv.eLength == ELength::Long32) PutWideText(sink, conv, va_arg(args, const WCHAR*));
        else PutNarrowText(sink, conv, va_arg(args, const char*));
        break;
      case 'c':
      case 'C': {
        unsigned n = va_arg(args, unsigned int);
        bool bNarrow = ch == 'C' ? conv.eLength != ELength::Long32 : conv.bNarrowText;
        WCHAR wch = bNarrow ? static_cast<WCHAR>(static_cast<unsigned char>(n)) : static_cast<WCHAR>(n);
        PadAndPut(sink, conv, &wch, 1);
        break;
      }
      case 'd':
      case 'i': {
        int64_t ll = ReadSigned(conv.eLength, args);
        uint64_t ullMagnitude = ll < 0 ? 0 - static_cast<uint64_t>(ll) : static_cast<uint64_t>(ll);
        PutInteger(sink, conv, ch, ullMagnitude, ll < 0);
        break;
      }
      case 'u':
      case 'x':
      case 'X':
      case 'o':
        PutInteger(sink, conv, ch, ReadUnsigned(conv.eLength, args), false);
        break;
      case 'p': {
        SConversion pointer = conv;
        pointer.nPrecision = 2 * sizeof(void*);
        pointer.nFlags &= ~(kZero | kAlternate);
        PutInteger(sink, pointer, ch, reinterpret_cast<uintptr_t>(va_arg(args, void*)), false);
        break;
      }
      case 'f':
      case 'F':
      case 'e':
      case 'E':
      case 'g':
      case 'G':
      case 'a':
      case 'A':
        PutFloat(sink, conv, ch, args);
        break;
      default:
        // Unknown (or the format ended inside the conversion): the conversion as written.
        if (ch) ++p;
        sink.Put(pStart, p - pStart);
        continue;
    }
    ++p;
  }
}

}  // namespace

WString FormatWideV(const WCHAR* pszFormat, va_list args) {
  WString str;
  CStringSink sink(&str);
  va_list copy;
  va_copy(copy, args);
  Format(sink, pszFormat, copy);
  va_end(copy);
  return str;
}

WString FormatWide(const WCHAR* pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  WString str = FormatWideV(pszFormat, args);
  va_end(args);
  return str;
}

size_t FormatWideBufferV(WCHAR* pBuffer, size_t cchBuffer, const WCHAR* pszFormat, va_list args) {
  if (!pBuffer || cchBuffer == 0) {
    // Only the length is wanted.
    WString str = FormatWideV(pszFormat, args);
    return str.size();
  }
  CBufferSink sink(pBuffer, cchBuffer - 1);
  va_list copy;
  va_copy(copy, args);
  Format(sink, pszFormat, copy);
  va_end(copy);
  pBuffer[sink.Used()] = 0;
  return sink.Total();
}

size_t FormatWideBuffer(WCHAR* pBuffer, size_t cchBuffer, const WCHAR* pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  size_t cch = FormatWideBufferV(pBuffer, cchBuffer, pszFormat, args);
  va_end(args);
  return cch;
}

}  // namespace NSSupport
