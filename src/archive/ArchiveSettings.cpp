// The settings file: one list of the values in their file order, walked to write the document and
// to read it back, so that the two directions cannot drift apart.
#include "archive/ArchiveSettings.h"

#include "archive/XmlNames.h"

#include <boost/lexical_cast.hpp>
#include <pugixml.hpp>

#include <cstring>
#include <string>
#include <type_traits>
#include <kronvale/KronvaleResults.h>

#include "hours/KronvaleUtils.h"
#include "platform/os.h"
#include "support/Report.h"

namespace NSArchive {

using namespace NSKronvale;
using namespace NSXml;

namespace {

// A new document starts from this: the root with the namespace prefix our documents declare.
constexpr char kszTemplate[] = "<config xmlns:xpt=\"urn:kronvale:settings\"/>";
constexpr char kszQuotas[] = "Quotas";
constexpr char kszSignedAttribute[] = "signed";
constexpr char kszRealAttribute[] = "real";

// A settings file holds a few hundred bytes; anything this big is not one, and is not read.
constexpr ULONGLONG kcbMaxFile = 1024 * 1024;

// How a value's type is described in the file.
struct SValueType {
  const char* pszName;
  bool bSigned;
  bool bReal;
};
constexpr SValueType kTypeUInt64 = {"UINT64", false, false};
constexpr SValueType kTypeULong = {kszTypeULong, false, false};
constexpr SValueType kTypeLong = {"long", true, false};

// Calls visit(bQuota, pszElement, type, member) for every value in file order and stops at the
// first failure. bQuota: the element lives inside "Quotas" rather than directly under the root.
template <class TSettings, class TVisit>
HRESULT VisitValues(TSettings& settings, TVisit&& visit) {
  HRESULT hr = S_OK;
  if (FAILED(hr = visit(true, "MinimumFreeDiskSpace", kTypeUInt64, settings.ullMinimumFreeDiskSpace))) return hr;
  if (FAILED(hr = visit(true, "MaximumArchiveSize", kTypeUInt64, settings.ullMaximumArchiveSize))) return hr;
  if (FAILED(hr = visit(true, "MaximumArchiveHours", kTypeLong, settings.lMaximumArchiveHours))) return hr;
  if (FAILED(hr = visit(true, "Access", kTypeULong, settings.dwAccess))) return hr;
  if (FAILED(hr = visit(false, "FlushTimeout", kTypeULong, settings.dwFlushTimeout))) return hr;
  if (FAILED(hr = visit(false, "ArchiveSize", kTypeUInt64, settings.ullArchiveSize))) return hr;
  return visit(false, "SetState", kTypeULong, settings.dwSetState);
}

// The decimal text of one value, as a value of the member's type. lexical_cast refuses empty text,
// text that is not a number and numbers out of the type's range, but takes "-1" for an unsigned
// type (wrapping it around), so a sign is refused here first.
template <class T>
bool ParseNumber(const char* pszText, T* pValue) {
  static_assert(std::is_integral_v<T>);
  if (!*pszText) return false;
  if constexpr (std::is_unsigned_v<T>) {
    if (*pszText == '-') return false;
  }
  try {
    *pValue = boost::lexical_cast<T>(pszText);
  } catch (const boost::bad_lexical_cast&) {
    return false;
  }
  return true;
}

// The document's text, UTF-8 with its declaration.
HRESULT BuildDocument(const SArchiveSettings& settings, std::string* pstrText) {
  pugi::xml_document document;
  if (!KV_ASSERT_TEXT(document.load_string(kszTemplate), "document.load_string(kszTemplate)\n")) return E_UNEXPECTED;
  AddDeclaration(document);

  pugi::xml_node root = document.document_element();
  pugi::xml_node quotas;
  const HRESULT hr = VisitValues(settings, [&](bool bQuota, const char* pszElement, const SValueType& type,
                                               const auto& value) -> HRESULT {
    if (bQuota && !quotas) quotas = root.append_child(kszQuotas);
    pugi::xml_node element = (bQuota ? quotas : root).append_child(pszElement);
    if (!element) return E_OUTOFMEMORY;
    element.append_attribute(kszTypeAttribute) = type.pszName;
    element.append_attribute(kszSignedAttribute) = type.bSigned ? "true" : "false";
    element.append_attribute(kszRealAttribute) = type.bReal ? "true" : "false";
    return element.text().set(std::to_string(value).c_str()) ? S_OK : E_OUTOFMEMORY;
  });
  if (FAILED(hr)) return hr;

  *pstrText = DocumentText(document);
  return S_OK;
}

// Reads the values present in the document into *pSettings, which the caller throws away on failure.
HRESULT ReadValues(const pugi::xml_document& document, SArchiveSettings* pSettings) {
  const pugi::xml_node root = document.document_element();
  const pugi::xml_node quotas = root.child(kszQuotas);
  return VisitValues(*pSettings, [&](bool bQuota, const char* pszElement, const SValueType& type,
                                     auto& value) -> HRESULT {
    const pugi::xml_node element = (bQuota ? quotas : root).child(pszElement);
    if (!element) return S_OK;  // not written: the value stays as it is
    if (std::strcmp(element.attribute(kszTypeAttribute).value(), type.pszName) != 0) return E_INVALIDARG;
    return ParseNumber(element.child_value(), &value) ? S_OK : E_INVALIDARG;
  });
}

HRESULT SaveSettings(const WString& strFile, const SArchiveSettings& settings) {
  std::string strText;
  HRESULT hr = BuildDocument(settings, &strText);
  if (!KV_SUCCEEDED(hr)) return hr;
  hr = WriteWholeFile(strFile, strText);
  if (!KV_SUCCEEDED(hr)) return hr;
  return S_OK;
}

HRESULT LoadSettings(const WString& strFile, SArchiveSettings* pSettings) {
  // No file yet is the usual state of a new archive, not worth a report.
  if (!NSPlatform::PathExists(strFile.c_str())) return khrPathNotFound;

  std::string strText;
  HRESULT hr = ReadWholeFile(strFile, &strText);
  if (!KV_SUCCEEDED(hr)) return hr;

  pugi::xml_document document;
  const pugi::xml_parse_result result = document.load_buffer(strText.data(), strText.size());
  if (result.status == pugi::status_out_of_memory) {
    hr = E_OUTOFMEMORY;
  } else if (!result || std::strcmp(document.document_element().name(), kszRootName) != 0) {
    hr = khrInvalidData;
  }
  if (!KV_SUCCEEDED(hr)) return hr;

  SArchiveSettings loaded = *pSettings;
  hr = ReadValues(document, &loaded);
  if (!KV_SUCCEEDED(hr)) return hr;
  *pSettings = loaded;
  return S_OK;
}

}  // namespace

void AddDeclaration(pugi::xml_document& document) {
  pugi::xml_node declaration = document.prepend_child(pugi::node_declaration);
  declaration.append_attribute("version") = "1.0";
  declaration.append_attribute("encoding") = "UTF-8";
}

std::string DocumentText(const pugi::xml_document& document) {
  class CStringWriter : public pugi::xml_writer {
   public:
    void write(const void* pv, size_t cb) override { m_str.append(static_cast<const char*>(pv), cb); }
    std::string m_str;
  } writer;
  document.save(writer, "  ", pugi::format_indent, pugi::encoding_utf8);
  return std::move(writer.m_str);
}

HRESULT WriteWholeFile(const WString& strFile, const std::string& strText) {
  // Through kszSettingsNewFile beside kszSettingsFileName; an archive exists once its settings do,
  // so the new name is durable before the caller is answered.
  return NSKronvaleUtils::ReplaceFileDurably(strFile, strText.data(), static_cast<DWORD>(strText.size()), 0);
}

HRESULT ReadWholeFile(const WString& strFile, std::string* pstrText) {
  NSPlatform::CFile file;
  HRESULT hr = file.Open(strFile.c_str(), GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL);
  if (FAILED(hr)) return hr;
  ULONGLONG ullSize = 0;
  if (FAILED(hr = file.GetSize(&ullSize))) return hr;
  if (ullSize > kcbMaxFile) return khrInvalidData;
  pstrText->assign(static_cast<size_t>(ullSize), '\0');
  size_t cbDone = 0;
  while (cbDone < pstrText->size()) {
    DWORD cbRead = 0;
    hr = file.Read(pstrText->data() + cbDone, static_cast<DWORD>(pstrText->size() - cbDone), &cbRead);
    if (FAILED(hr)) return hr;
    if (!cbRead) break;  // the file shrank meanwhile: parse what there is
    cbDone += cbRead;
  }
  pstrText->resize(cbDone);
  return S_OK;
}

HRESULT SerializeSettings(const WString& strFile, bool bSave, SArchiveSettings* pSettings) {
  KV_CHECK_POINTER(pSettings);
  return bSave ? SaveSettings(strFile, *pSettings) : LoadSettings(strFile, pSettings);
}

}  // namespace NSArchive
