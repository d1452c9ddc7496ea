// The module's resources: Windows resources of the own module, or the tables compiled in on Linux.
#include "frame/Resources.h"

#include <cstring>

#include "platform/os.h"
#include "support/Report.h"

#ifndef _WIN32
#include "frame/ResourceTable.h"
#endif

namespace NSFrame {

namespace {

HRESULT Fail(DWORD dwError) {
  NSPlatform::SetLastError(dwError);
  return KvHResultFromWin32(dwError);
}

// Strings are stored in blocks of 16 ids; block n holds ids 16n-16 to 16n-1.
constexpr UINT kcStringsPerBlock = 16;
UINT StringBlock(UINT nId) { return nId / kcStringsPerBlock + 1; }

#ifdef _WIN32

constexpr WORD kwResourceTypeString = 6;

// A block is 16 entries, each a WORD count of UTF-16 units followed by that many units (no
// terminating zero); an empty entry is an id the block does not define.
HRESULT StringFromBlock(const std::string& strBlock, UINT nId, WString* pstrText) {
  const size_t cUnits = strBlock.size() / sizeof(WCHAR);
  const UINT nIndex = nId % kcStringsPerBlock;
  size_t iUnit = 0;
  for (UINT n = 0; n <= nIndex; ++n) {
    if (iUnit >= cUnits) return Fail(ERROR_RESOURCE_NAME_NOT_FOUND);
    WORD cch = 0;
    std::memcpy(&cch, strBlock.data() + iUnit * sizeof(WCHAR), sizeof(cch));
    ++iUnit;
    if (cch > cUnits - iUnit) return Fail(ERROR_INVALID_DATA);
    if (n == nIndex) {
      if (cch == 0) return Fail(ERROR_RESOURCE_NAME_NOT_FOUND);
      pstrText->resize(cch);
      std::memcpy(pstrText->data(), strBlock.data() + iUnit * sizeof(WCHAR), cch * sizeof(WCHAR));
      return S_OK;
    }
    iUnit += cch;
  }
  return Fail(ERROR_RESOURCE_NAME_NOT_FOUND);
}

#else  // !_WIN32

constexpr WORD kwDefaultLanguage = 1033;

bool LanguageHasBlock(WORD wLanguage, UINT nBlock) {
  for (size_t i = 0; i < NSResourceTable::g_cStrings; ++i) {
    const NSResourceTable::SString& entry = NSResourceTable::g_aStrings[i];
    if (entry.wLanguage == wLanguage && StringBlock(entry.nId) == nBlock) return true;
  }
  return false;
}

bool AnyLanguageHasBlock(UINT nBlock) {
  for (size_t i = 0; i < NSResourceTable::g_cStrings; ++i) {
    if (StringBlock(NSResourceTable::g_aStrings[i].nId) == nBlock) return true;
  }
  return false;
}

#endif  // _WIN32

}  // namespace

HRESULT GetRegistryScript(UINT nId, std::string* pstrScript) {
  KV_CHECK_POINTER(pstrScript);
#ifdef _WIN32
  // The scripts are language-neutral resources.
  return NSPlatform::LoadOwnResource(KV_W("REGISTRY"), nId, 0, pstrScript);
#else
  for (size_t i = 0; i < NSResourceTable::g_cScripts; ++i) {
    const NSResourceTable::SScript& script = NSResourceTable::g_aScripts[i];
    if (script.nId == nId) {
      pstrScript->assign(reinterpret_cast<const char*>(script.pbText), script.cbText);
      NSPlatform::SetLastError(ERROR_SUCCESS);
      return S_OK;
    }
  }
  return Fail(ERROR_RESOURCE_NAME_NOT_FOUND);
#endif
}

HRESULT LoadModuleString(UINT nId, WORD wLanguage, WString* pstrText) {
  KV_CHECK_POINTER(pstrText);
  if (nId > 0xFFFF) return Fail(ERROR_RESOURCE_NAME_NOT_FOUND);
#ifdef _WIN32
  std::string strBlock;
  HRESULT hr =
      NSPlatform::LoadOwnResource(NSPlatform::KvResourceType(kwResourceTypeString), StringBlock(nId), wLanguage, &strBlock);
  if (FAILED(hr)) return hr;
  WString strText;
  hr = StringFromBlock(strBlock, nId, &strText);
  if (FAILED(hr)) return hr;
  pstrText->swap(strText);
  NSPlatform::SetLastError(ERROR_SUCCESS);
  return S_OK;
#else
  if (wLanguage == 0) wLanguage = kwDefaultLanguage;
  const UINT nBlock = StringBlock(nId);
  if (!LanguageHasBlock(wLanguage, nBlock)) {
    return Fail(AnyLanguageHasBlock(nBlock) ? ERROR_RESOURCE_LANG_NOT_FOUND : ERROR_RESOURCE_NAME_NOT_FOUND);
  }
  for (size_t i = 0; i < NSResourceTable::g_cStrings; ++i) {
    const NSResourceTable::SString& entry = NSResourceTable::g_aStrings[i];
    if (entry.wLanguage == wLanguage && entry.nId == nId && entry.pszText[0] != u'\0') {
      pstrText->assign(entry.pszText);
      NSPlatform::SetLastError(ERROR_SUCCESS);
      return S_OK;
    }
  }
  return Fail(ERROR_RESOURCE_NAME_NOT_FOUND);
#endif
}

}  // namespace NSFrame
