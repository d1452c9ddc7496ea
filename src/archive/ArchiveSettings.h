// The archive's settings file ("settings.als" in the archive directory): quotas, flush timeout, the
// archive's size as last counted and its state word, kept as a small XML document.
//
//   <?xml version="1.0" encoding="UTF-8"?>
//   <config xmlns:xpt="urn:kronvale:settings">
//     <Quotas>
//       <MinimumFreeDiskSpace type="UINT64" signed="false" real="false">1048576</MinimumFreeDiskSpace>
//       <MaximumArchiveSize type="UINT64" signed="false" real="false">0</MaximumArchiveSize>
//       <MaximumArchiveHours type="long" signed="true" real="false">-5</MaximumArchiveHours>
//       <Access type="ULONG" signed="false" real="false">3</Access>
//     </Quotas>
//     <FlushTimeout type="ULONG" signed="false" real="false">1000</FlushTimeout>
//     <ArchiveSize type="UINT64" signed="false" real="false">0</ArchiveSize>
//     <SetState type="ULONG" signed="false" real="false">0</SetState>
//   </config>
//
// Every value is one element holding the number in decimal; its "type" attribute names the type it
// was written with and must match on reading.
#pragma once

#include <string>

#include "platform/wintypes.h"

namespace pugi {
class xml_document;
}

namespace NSArchive {

struct SArchiveSettings {
  ULONGLONG ullMinimumFreeDiskSpace = 0;  // Quotas/MinimumFreeDiskSpace, UINT64
  ULONGLONG ullMaximumArchiveSize = 0;    // Quotas/MaximumArchiveSize, UINT64
  LONG lMaximumArchiveHours = 0;          // Quotas/MaximumArchiveHours, long
  DWORD dwAccess = 0;                     // Quotas/Access, ULONG
  DWORD dwFlushTimeout = 0;               // FlushTimeout, ULONG
  ULONGLONG ullArchiveSize = 0;           // ArchiveSize, UINT64
  DWORD dwSetState = 0;                   // SetState, ULONG
};

// The name of the settings file inside the archive directory.
inline constexpr WCHAR kszSettingsFileName[] = KV_W("settings.als");
// A save writes here first and renames the file into place.
inline constexpr WCHAR kszSettingsNewFile[] = KV_W("settings.als.new");
// The archive's description.
inline constexpr WCHAR kszArchiveDescriptionFile[] = KV_W("descriptor.ald");
inline constexpr WCHAR kszArchiveDescriptionNewFile[] = KV_W("descriptor.ald.new");  // on its way to replace it

// Saves (bSave) or loads the settings file strFile.
//
// Saving writes the whole file anew (replacing an existing one); a failed open or write is reported
// and returned.
//
// Loading: a missing file answers 0x80070003 (ERROR_PATH_NOT_FOUND) without a report. A file that
// is not a settings document (malformed, empty, another root element) answers 0x8007000D
// (ERROR_INVALID_DATA). A value whose element is missing keeps its current member; a value written
// with another type, or whose text is not a number of its type (empty, out of range, negative for
// an unsigned type), answers E_INVALIDARG. Failures other than the missing file are reported. On any
// failure *pSettings is left as it was.
HRESULT SerializeSettings(const WString& strFile, bool bSave, SArchiveSettings* pSettings);

// The two halves of every small document file the engine keeps (settings, multipart archives).
//
// WriteWholeFile replaces strFile with strText. The text goes to strFile + ".new" first, which then
// takes the old file's place, so that a failed save (a full disk) leaves the previous file readable
// and no ".new" file behind.
HRESULT WriteWholeFile(const WString& strFile, const std::string& strText);
// ReadWholeFile reads the whole of strFile; a file larger than 1 MiB is not one of our documents and
// answers 0x8007000D without being read.
HRESULT ReadWholeFile(const WString& strFile, std::string* pstrText);
// Puts the declaration these files begin with (XML 1.0, UTF-8) in front of the document.
void AddDeclaration(pugi::xml_document& document);
// A document as these files hold it: UTF-8, indented by two spaces.
std::string DocumentText(const pugi::xml_document& document);

}  // namespace NSArchive
