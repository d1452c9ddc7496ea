// printf-style formatting of wide (UTF-16) text, the same on Windows and Linux.
//
// We do not use the C runtime's wide printf: MSVCRT and glibc disagree on what %s means in a wide
// format, and glibc has no char16_t printf at all. The rules here are those of the Windows wide
// printf family, which is what the engine's format strings are written for:
//
//   %s %ls %ws   wide string (const WCHAR*); a null pointer prints "(null)"
//   %hs %S       narrow string (const char*, UTF-8); a null pointer prints "(null)"
//   %c %lc %wc   one wide code unit (passed as int); %hc one narrow character (a byte)
//   %d %i        signed; %u %x %X %o unsigned
//   %p           a pointer as 16 upper-case hexadecimal digits, as Windows prints it
//   %f %F %e %E %g %G %a %A  double (long double with L), through the narrow snprintf
//   %%           a percent sign
//
// Flags - 0 + space #, a width and a precision (either may be *, taken from the arguments as int;
// a negative width means left-justified, a negative precision is ignored). Length modifiers:
// hh, h, l (32 bits on both platforms: the engine writes l for the Windows long, so pass LONG,
// ULONG, DWORD), ll, I64 (64 bits), I32 (32 bits), z, I, j, t (pointer-sized, 64 bits on x64),
// L (long double). A conversion the formatter does not know is copied to the output as written,
// and consumes no argument. %n is not supported (copied as written).
//
// Precision of a string counts UTF-16 code units of the output.
#pragma once

#include <cstdarg>
#include <cstddef>

#include "platform/wintypes.h"

namespace NSSupport {

// The whole text.
WString FormatWide(const WCHAR* pszFormat, ...);
WString FormatWideV(const WCHAR* pszFormat, va_list args);

// Into pBuffer of cchBuffer characters: at most cchBuffer - 1 characters of the text followed by a
// terminating zero (nothing is written when cchBuffer is 0). Answers the length of the whole text,
// so a result >= cchBuffer means the text was cut. A null format gives an empty text.
size_t FormatWideBuffer(WCHAR* pBuffer, size_t cchBuffer, const WCHAR* pszFormat, ...);
size_t FormatWideBufferV(WCHAR* pBuffer, size_t cchBuffer, const WCHAR* pszFormat, va_list args);

}  // namespace NSSupport
