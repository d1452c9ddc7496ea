// The module's resources, read the same way on both platforms: the registrar scripts (type
// "REGISTRY", ids 101 to 104) and the string table (ids 100 and 101 in seven languages).
//
// Windows reads them from the module that contains this code (kronvale.dll, or a test program the
// resources are compiled into); Linux reads the copies compiled into the library from the same
// sources. Both give the same bytes and the same error codes.
#pragma once

#include <string>

#include "platform/wintypes.h"

namespace NSFrame {

// Registrar scripts.
constexpr UINT kidrAppIdScript = 101;
constexpr UINT kidrRecordScript = 102;
constexpr UINT kidrKronvaleScript = 103;
constexpr UINT kidrRecordExtractScript = 104;

// Strings.
constexpr UINT kidsProjectName = 100;
constexpr UINT kidsRestoringHour = 101;

// The script's bytes as written (UTF-8 text). Unknown id: ERROR_RESOURCE_NAME_NOT_FOUND.
HRESULT GetRegistryScript(UINT nId, std::string* pstrScript);

// A string in a language given by its identifier (1033, 1036...). Unknown id:
// ERROR_RESOURCE_NAME_NOT_FOUND; an id the table has, but not in that language:
// ERROR_RESOURCE_LANG_NOT_FOUND. The answer follows how Windows stores strings: in blocks of 16
// ids (block n holds ids 16n-16 to 16n-1) per language, so an id missing in a block the language
// has is ERROR_RESOURCE_NAME_NOT_FOUND, and any id of a block the language lacks is
// ERROR_RESOURCE_LANG_NOT_FOUND. Language 0 asks for the module's default: on Windows the system's
// choice among the languages present (its neutral-language fallback: the thread's and user's
// languages, then English), on Linux English (1033).
HRESULT LoadModuleString(UINT nId, WORD wLanguage, WString* pstrText);

}  // namespace NSFrame
