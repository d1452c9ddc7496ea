// What Windows keeps in the module's resources, compiled into the library on Linux: the registrar
// scripts' bytes and the string table. The build writes the definitions (ResourceTable.cpp in the
// build tree) from the same files the Windows resources are made from (frame/Resources.cmake).
#pragma once

#include <cstddef>

#include "platform/wintypes.h"

namespace NSFrame {
namespace NSResourceTable {

struct SScript {
  UINT nId;
  const unsigned char* pbText;  // the script file's bytes, followed by a zero not counted in cbText
  size_t cbText;
};

struct SString {
  WORD wLanguage;
  UINT nId;
  const char16_t* pszText;
};

extern const SScript g_aScripts[];
extern const size_t g_cScripts;
extern const SString g_aStrings[];
extern const size_t g_cStrings;

}  // namespace NSResourceTable
}  // namespace NSFrame
