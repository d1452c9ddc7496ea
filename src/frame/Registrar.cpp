// The registrar: script reader and the two directions of applying a script.
#include "frame/Registrar.h"

#include <kronvale/KronvaleResults.h>

#include "frame/Resources.h"
#include "support/Report.h"

namespace NSFrame {

using namespace NSKronvale;

namespace {

// Deeper nesting than any real script; keeps a hostile script from exhausting the stack.
constexpr unsigned kcMaxDepth = 64;

bool IsSpace(WCHAR ch) { return ch == ' ' || ch == '\t' || ch == '\r' || ch == '\n'; }

WCHAR AsciiLower(WCHAR ch) { return ch >= 'A' && ch <= 'Z' ? static_cast<WCHAR>(ch - 'A' + 'a') : ch; }

bool EqualsNoCase(const WString& strA, const WString& strB) {
  if (strA.size() != strB.size()) return false;
  for (size_t i = 0; i < strA.size(); ++i) {
    if (AsciiLower(strA[i]) != AsciiLower(strB[i])) return false;
  }
  return true;
}

bool EqualsNoCase(const WString& str, const char* pszAscii) {
  size_t i = 0;
  for (; i < str.size() && pszAscii[i]; ++i) {
    if (AsciiLower(str[i]) != AsciiLower(static_cast<WCHAR>(pszAscii[i]))) return false;
  }
  return i == str.size() && !pszAscii[i];
}

WString JoinKey(const WString& strParent, const WString& strName) {
  return strParent.empty() ? strName : strParent + KV_W("\\") + strName;
}

}  // namespace

const WCHAR* RegistryRootName(ERegistryRoot eRoot) {
  switch (eRoot) {
    case ERegistryRoot::ClassesRoot:
      return KV_W("HKCR");
    case ERegistryRoot::LocalMachine:
      return KV_W("HKLM");
    case ERegistryRoot::CurrentUser:
      return KV_W("HKCU");
  }
  return KV_W("?");
}

// ---------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------

class CRegistrarParser {
 public:
  CRegistrarParser(const CRegistrar& registrar, WStringView strText) : m_registrar(registrar), m_strText(strText) {}

  // False with m_strError and m_nErrorLine set on the first error.
  bool ParseScript(SRegistrarScript* pScript);

  const WString& GetError() const { return m_strError; }
  unsigned GetErrorLine() const { return m_nErrorLine; }

 private:
  struct SToken {
    WString strText;  // quotes removed, '' made one quote; no replacement made yet
    bool bQuoted = false;
    unsigned nLine = 0;
  };

  bool Next(SToken* pToken);
  bool Peek(SToken* pToken);
  bool Fail(unsigned nLine, const WString& strReason);
  bool FailAt(const SToken& token, const char* pszReason);
  bool IsBare(const SToken& token, const char* pszWord) const {
    return !token.bQuoted && EqualsNoCase(token.strText, pszWord);
  }
  static bool IsPunctuation(const SToken& token) {
    return !token.bQuoted && (token.strText == KV_W("{") || token.strText == KV_W("}") || token.strText == KV_W("="));
  }
  bool Expand(const SToken& token, WString* pstrOut);
  bool ParseRoot(SRegistrarRoot* pRoot);
  bool ParseBlock(SRegistrarEntry* pKey, unsigned nDepth);
  bool ParseEntry(const SToken& first, bool bAllowValue, SRegistrarEntry* pEntry, unsigned nDepth);
  bool ParseStringText(const WString& strWhat, WString* pstrText);

  const CRegistrar& m_registrar;
  WStringView m_strText;
  size_t m_iPos = 0;
  unsigned m_nLine = 1;
  unsigned m_nLastTokenLine = 1;  // where the script's last token so far is, for errors at its end
  bool m_bPeeked = false;
  SToken m_peeked;
  WString m_strError;
  unsigned m_nErrorLine = 0;
};

bool CRegistrarParser::Fail(unsigned nLine, const WString& strReason) {
  if (m_strError.empty()) {
    m_strError = strReason;
    m_nErrorLine = nLine;
  }
  return false;
}

bool CRegistrarParser::FailAt(const SToken& token, const char* pszReason) {
  WString strReason = NSPlatform::Utf8ToWide(pszReason);
  if (!token.strText.empty() || token.bQuoted) strReason += KV_W(" at '") + token.strText + KV_W("'");
  return Fail(token.nLine, strReason);
}

// False at the end of the text (m_strError empty) or on a malformed token (m_strError set).
bool CRegistrarParser::Next(SToken* pToken) {
  if (m_bPeeked) {
    m_bPeeked = false;
    *pToken = std::move(m_peeked);
    return true;
  }
  while (m_iPos < m_strText.size() && IsSpace(m_strText[m_iPos])) {
    if (m_strText[m_iPos] == '\n') ++m_nLine;
    ++m_iPos;
  }
  if (m_iPos >= m_strText.size()) return false;
  *pToken = SToken();
  pToken->nLine = m_nLine;
  m_nLastTokenLine = m_nLine;
  if (m_strText[m_iPos] == '\'') {
    pToken->bQuoted = true;
    ++m_iPos;
    for (;;) {
      if (m_iPos >= m_strText.size()) return Fail(pToken->nLine, KV_W("quoted text not closed"));
      const WCHAR ch = m_strText[m_iPos++];
      if (ch == '\n') ++m_nLine;
      if (ch != '\'') {
        pToken->strText += ch;
      } else if (m_iPos < m_strText.size() && m_strText[m_iPos] == '\'') {
        pToken->strText += ch;
        ++m_iPos;
      } else {
        break;
      }
    }
    if (m_iPos < m_strText.size() && !IsSpace(m_strText[m_iPos])) {
      return Fail(m_nLine, KV_W("white space expected after quoted text '") + pToken->strText + KV_W("'"));
    }
    return true;
  }
  while (m_iPos < m_strText.size() && !IsSpace(m_strText[m_iPos])) {
    if (m_strText[m_iPos] == '\'') return Fail(m_nLine, KV_W("quote inside a word after '") + pToken->strText + KV_W("'"));
    pToken->strText += m_strText[m_iPos++];
  }
  return true;
}

bool CRegistrarParser::Peek(SToken* pToken) {
  if (!m_bPeeked) {
    if (!Next(&m_peeked)) return false;
    m_bPeeked = true;
  }
  *pToken = m_peeked;
  return true;
}

bool CRegistrarParser::Expand(const SToken& token, WString* pstrOut) {
  pstrOut->clear();
  const WString& str = token.strText;
  for (size_t i = 0; i < str.size(); ++i) {
    if (str[i] != '%') {
      *pstrOut += str[i];
      continue;
    }
    const size_t iClose = str.find('%', i + 1);
    if (iClose == WString::npos) return Fail(token.nLine, KV_W("'%' without its closing '%' in '") + str + KV_W("'"));
    if (iClose == i + 1) {
      *pstrOut += '%';
    } else {
      const WString strName = str.substr(i + 1, iClose - i - 1);
      const WString* pstrValue = nullptr;
      for (const CRegistrar::SReplacement& replacement : m_registrar.m_vReplacements) {
        if (EqualsNoCase(replacement.strName, strName)) {
          pstrValue = &replacement.strValue;
          break;
        }
      }
      if (!pstrValue) return Fail(token.nLine, KV_W("unknown replacement %") + strName + KV_W("%"));
      *pstrOut += *pstrValue;
    }
    i = iClose;
  }
  return true;
}

bool CRegistrarParser::ParseScript(SRegistrarScript* pScript) {
  pScript->vRoots.clear();
  SToken token;
  while (Peek(&token)) {
    SRegistrarRoot root;
    if (!ParseRoot(&root)) return false;
    pScript->vRoots.push_back(std::move(root));
  }
  return m_strError.empty();
}

bool CRegistrarParser::ParseRoot(SRegistrarRoot* pRoot) {
  SToken token;
  Next(&token);
  if (IsBare(token, "HKCR") || IsBare(token, "HKEY_CLASSES_ROOT")) {
    pRoot->eRoot = ERegistryRoot::ClassesRoot;
  } else if (IsBare(token, "HKLM") || IsBare(token, "HKEY_LOCAL_MACHINE")) {
    pRoot->eRoot = ERegistryRoot::LocalMachine;
  } else if (IsBare(token, "HKCU") || IsBare(token, "HKEY_CURRENT_USER")) {
    pRoot->eRoot = ERegistryRoot::CurrentUser;
  } else {
    return FailAt(token, "root key expected (HKCR, HKLM, HKCU)");
  }
  SToken open;
  if (!Next(&open)) return m_strError.empty() ? Fail(token.nLine, KV_W("'{' expected after the root key")) : false;
  if (!IsBare(open, "{")) return FailAt(open, "'{' expected after the root key");
  for (;;) {
    SToken entryToken;
    if (!Next(&entryToken)) return m_strError.empty() ? Fail(m_nLastTokenLine, KV_W("'}' missing at the end of the script")) : false;
    if (IsBare(entryToken, "}")) return true;
    SRegistrarEntry key;
    if (!ParseEntry(entryToken, false, &key, 1)) return false;
    pRoot->vKeys.push_back(std::move(key));
  }
}

bool CRegistrarParser::ParseStringText(const WString& strWhat, WString* pstrText) {
  SToken type;
  if (!Next(&type)) return m_strError.empty() ? Fail(m_nLastTokenLine, KV_W("value type expected after '=' of ") + strWhat) : false;
  if (!IsBare(type, "s")) return FailAt(type, "only string values ('s') are supported");
  SToken text;
  if (!Next(&text)) return m_strError.empty() ? Fail(m_nLastTokenLine, KV_W("quoted text expected after 's' of ") + strWhat) : false;
  if (!text.bQuoted) return FailAt(text, "quoted text expected after 's'");
  return Expand(text, pstrText);
}

bool CRegistrarParser::ParseEntry(const SToken& first, bool bAllowValue, SRegistrarEntry* pEntry, unsigned nDepth) {
  if (nDepth > kcMaxDepth) return FailAt(first, "keys nested too deeply");
  SToken token = first;
  if (IsBare(token, "val")) {
    if (!bAllowValue) return FailAt(token, "a value needs a key to hold it");
    pEntry->eKind = SRegistrarEntry::EKind::Value;
    SToken name;
    if (!Next(&name)) return m_strError.empty() ? Fail(m_nLastTokenLine, KV_W("value name expected after 'val'")) : false;
    if (IsPunctuation(name)) return FailAt(name, "value name expected after 'val'");
    if (!Expand(name, &pEntry->strName)) return false;
    SToken equals;
    if (!Next(&equals)) return m_strError.empty() ? Fail(m_nLastTokenLine, KV_W("'=' expected after the value name")) : false;
    if (!IsBare(equals, "=")) return FailAt(equals, "'=' expected after the value name");
    pEntry->bHasText = true;
    return ParseStringText(KV_W("value ") + pEntry->strName, &pEntry->strText);
  }

  pEntry->eKind = SRegistrarEntry::EKind::Key;
  if (IsBare(token, "NoRemove") || IsBare(token, "ForceRemove")) {
    pEntry->eRemoval =
        IsBare(token, "NoRemove") ? SRegistrarEntry::ERemoval::NoRemove : SRegistrarEntry::ERemoval::ForceRemove;
    if (!Next(&token)) return m_strError.empty() ? Fail(m_nLastTokenLine, KV_W("key name expected after ") + first.strText) : false;
    if (IsBare(token, "NoRemove") || IsBare(token, "ForceRemove")) return FailAt(token, "a key takes one of NoRemove and ForceRemove");
    if (IsBare(token, "val")) return FailAt(token, "NoRemove and ForceRemove apply to keys");
  }
  if (IsPunctuation(token)) return FailAt(token, "key name expected");
  if (!Expand(token, &pEntry->strName)) return false;
  if (pEntry->strName.empty()) return FailAt(token, "empty key name");
  if (pEntry->strName.find('\\') != WString::npos) return FailAt(token, "a key name may not contain '\\'");

  SToken next;
  if (Peek(&next) && IsBare(next, "=")) {
    Next(&next);
    pEntry->bHasText = true;
    if (!ParseStringText(KV_W("key ") + pEntry->strName, &pEntry->strText)) return false;
  }
  if (!m_strError.empty()) return false;
  if (Peek(&next) && IsBare(next, "{")) {
    Next(&next);
    return ParseBlock(pEntry, nDepth);
  }
  return m_strError.empty();
}

bool CRegistrarParser::ParseBlock(SRegistrarEntry* pKey, unsigned nDepth) {
  for (;;) {
    SToken token;
    if (!Next(&token)) {
      return m_strError.empty() ? Fail(m_nLastTokenLine, KV_W("'}' missing for key ") + pKey->strName) : false;
    }
    if (IsBare(token, "}")) return true;
    SRegistrarEntry entry;
    if (!ParseEntry(token, true, &entry, nDepth + 1)) return false;
    pKey->vEntries.push_back(std::move(entry));
  }
}

// ---------------------------------------------------------------------------------------------
// The registrar
// ---------------------------------------------------------------------------------------------

CRegistrar::CRegistrar(IRegistryTarget* pTarget) : m_pTarget(pTarget) {}

HRESULT CRegistrar::AddReplacement(const WCHAR* pszName, const WCHAR* pszValue) {
  KV_CHECK_POINTERS(pszName && pszValue);
  const WString strName(pszName);
  if (strName.empty() || strName.find('%') != WString::npos) return E_INVALIDARG;
  for (SReplacement& replacement : m_vReplacements) {
    if (EqualsNoCase(replacement.strName, strName)) {
      replacement.strValue = pszValue;
      return S_OK;
    }
  }
  m_vReplacements.push_back({strName, WString(pszValue)});
  return S_OK;
}

void CRegistrar::ClearReplacements() { m_vReplacements.clear(); }

HRESULT CRegistrar::Parse(std::string_view strScript, SRegistrarScript* pScript) {
  KV_CHECK_POINTER(pScript);
  if (strScript.size() >= 3 && strScript.substr(0, 3) == "\xEF\xBB\xBF") strScript.remove_prefix(3);
  const WString strText = NSPlatform::Utf8ToWide(strScript);
  CRegistrarParser parser(*this, strText);
  if (parser.ParseScript(pScript)) {
    m_strLastError.clear();
    return S_OK;
  }
  pScript->vRoots.clear();
  m_strLastError = KV_W("line ") + NSPlatform::Utf8ToWide(std::to_string(parser.GetErrorLine())) + KV_W(": ") +
                   parser.GetError();
  KV_LOG_ERROR(KV_W("Registry script error at line %u: %s\n"), parser.GetErrorLine(), parser.GetError().c_str());
  return khrRegistrarSyntax;
}

HRESULT CRegistrar::Run(std::string_view strScript, bool bRegister) {
  SRegistrarScript script;
  const HRESULT hr = Parse(strScript, &script);
  if (FAILED(hr)) return hr;
  return Apply(script, bRegister);
}

HRESULT CRegistrar::RunResource(UINT nId, bool bRegister) {
  std::string strScript;
  KV_RETURN_IF_FAILED(GetRegistryScript(nId, &strScript));
  return Run(strScript, bRegister);
}

HRESULT CRegistrar::Apply(const SRegistrarScript& script, bool bRegister) {
  KV_CHECK_POINTER(m_pTarget);
  for (const SRegistrarRoot& root : script.vRoots) {
    for (const SRegistrarEntry& key : root.vKeys) {
      const HRESULT hr = bRegister ? RegisterKey(root.eRoot, WString(), key) : UnregisterKey(root.eRoot, WString(), key);
      if (FAILED(hr)) return hr;
    }
  }
  return S_OK;
}

namespace {

// Reports a failed registry operation with the key it was about.
HRESULT Reported(HRESULT hr, const WCHAR* pszOperation, ERegistryRoot eRoot, const WString& strPath) {
  KV_FUNC("CRegistrar::Apply");
  if (FAILED(hr)) {
    KV_REPORT_IF_FAILED(hr);
    KV_LOG_ERROR(KV_W("Registrar: %s %s\\%s failed\n"), pszOperation, RegistryRootName(eRoot), strPath.c_str());
  }
  return hr;
}

}  // namespace

HRESULT CRegistrar::RegisterKey(ERegistryRoot eRoot, const WString& strParent, const SRegistrarEntry& key) {
  const WString strPath = JoinKey(strParent, key.strName);
  HRESULT hr = S_OK;
  if (key.eRemoval == SRegistrarEntry::ERemoval::ForceRemove) {
    hr = m_pTarget->DeleteTree(eRoot, strPath);
    if (hr != khrFileNotFound && FAILED(Reported(hr, KV_W("deleting"), eRoot, strPath))) return hr;
  }
  hr = Reported(m_pTarget->CreateKey(eRoot, strPath), KV_W("creating"), eRoot, strPath);
  if (FAILED(hr)) return hr;
  if (key.bHasText) {
    hr = Reported(m_pTarget->SetStringValue(eRoot, strPath, WString(), key.strText), KV_W("setting the value of"),
                  eRoot, strPath);
    if (FAILED(hr)) return hr;
  }
  for (const SRegistrarEntry& entry : key.vEntries) {
    if (entry.eKind == SRegistrarEntry::EKind::Value) {
      hr = Reported(m_pTarget->SetStringValue(eRoot, strPath, entry.strName, entry.strText), KV_W("setting a value of"),
                    eRoot, strPath + KV_W(" ") + entry.strName);
    } else {
      hr = RegisterKey(eRoot, strPath, entry);
    }
    if (FAILED(hr)) return hr;
  }
  return S_OK;
}

HRESULT CRegistrar::UnregisterKey(ERegistryRoot eRoot, const WString& strParent, const SRegistrarEntry& key) {
  const WString strPath = JoinKey(strParent, key.strName);
  HRESULT hr = m_pTarget->OpenKey(eRoot, strPath);
  if (hr == khrFileNotFound) return S_OK;
  if (FAILED(Reported(hr, KV_W("opening"), eRoot, strPath))) return hr;

  if (key.eRemoval == SRegistrarEntry::ERemoval::ForceRemove) {
    hr = m_pTarget->DeleteTree(eRoot, strPath);
    return hr == khrFileNotFound ? S_OK : Reported(hr, KV_W("deleting"), eRoot, strPath);
  }
  for (const SRegistrarEntry& entry : key.vEntries) {
    if (entry.eKind == SRegistrarEntry::EKind::Key) {
      hr = UnregisterKey(eRoot, strPath, entry);
      if (FAILED(hr)) return hr;
    }
  }
  if (key.eRemoval == SRegistrarEntry::ERemoval::NoRemove) return DeleteListedValues(eRoot, strPath, key);

  bool bHasSubKeys = false;
  hr = Reported(m_pTarget->HasSubKeys(eRoot, strPath, &bHasSubKeys), KV_W("listing"), eRoot, strPath);
  if (FAILED(hr)) return hr;
  if (bHasSubKeys) return DeleteListedValues(eRoot, strPath, key);
  hr = m_pTarget->DeleteKey(eRoot, strPath);
  return hr == khrFileNotFound ? S_OK : Reported(hr, KV_W("deleting"), eRoot, strPath);
}

HRESULT CRegistrar::DeleteListedValues(ERegistryRoot eRoot, const WString& strPath, const SRegistrarEntry& key) {
  for (const SRegistrarEntry& entry : key.vEntries) {
    if (entry.eKind != SRegistrarEntry::EKind::Value) continue;
    const HRESULT hr = m_pTarget->DeleteValue(eRoot, strPath, entry.strName);
    if (hr != khrFileNotFound && FAILED(Reported(hr, KV_W("deleting a value of"), eRoot, strPath + KV_W(" ") + entry.strName))) {
      return hr;
    }
  }
  return S_OK;
}

// ---------------------------------------------------------------------------------------------
// The system registry
// ---------------------------------------------------------------------------------------------

HRESULT CPlatformRegistry::CreateKey(ERegistryRoot eRoot, const WString& strKey) {
  return NSPlatform::RegistryCreateKey(eRoot, strKey.c_str());
}

HRESULT CPlatformRegistry::OpenKey(ERegistryRoot eRoot, const WString& strKey) {
  return NSPlatform::RegistryOpenKey(eRoot, strKey.c_str());
}

HRESULT CPlatformRegistry::SetStringValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName,
                                          const WString& strValue) {
  return NSPlatform::RegistrySetString(eRoot, strKey.c_str(), strName.c_str(), strValue.c_str());
}

HRESULT CPlatformRegistry::DeleteValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName) {
  return NSPlatform::RegistryDeleteValue(eRoot, strKey.c_str(), strName.c_str());
}

HRESULT CPlatformRegistry::DeleteKey(ERegistryRoot eRoot, const WString& strKey) {
  return NSPlatform::RegistryDeleteKey(eRoot, strKey.c_str());
}

HRESULT CPlatformRegistry::DeleteTree(ERegistryRoot eRoot, const WString& strKey) {
  return NSPlatform::RegistryDeleteTree(eRoot, strKey.c_str());
}

HRESULT CPlatformRegistry::HasSubKeys(ERegistryRoot eRoot, const WString& strKey, bool* pbHasSubKeys) {
  KV_CHECK_POINTER(pbHasSubKeys);
  std::vector<WString> vNames;
  const HRESULT hr = NSPlatform::RegistryEnumSubKeys(eRoot, strKey.c_str(), &vNames);
  if (SUCCEEDED(hr)) *pbHasSubKeys = !vNames.empty();
  return hr;
}

}  // namespace NSFrame
