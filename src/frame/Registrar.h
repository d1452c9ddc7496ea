// The registrar: reads registry scripts and applies them in the register or unregister direction.
//
// Script syntax (the standard registrar syntax, as far as the module's scripts use it):
//
//   script  := { root }
//   root    := ROOTNAME '{' { key } '}'          HKCR HKLM HKCU, or HKEY_CLASSES_ROOT,
//                                                HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER
//   key     := [ 'NoRemove' | 'ForceRemove' ] name [ '=' 's' text ] [ '{' { key | value } '}' ]
//   value   := 'val' name '=' 's' text
//
// Tokens are separated by white space; '{', '}' and '=' are tokens only when they stand alone, so
// "{78AD445A-...}" is a key name. A name or text is a bare word or quoted with single quotes
// ('Kronvale.DLL', 'Kronvale Class'); inside quotes '' is one quote. Keywords (NoRemove,
// ForceRemove, val, s) and root names are matched without regard to case; a quoted word is never a
// keyword. Only string values ('s', REG_SZ) exist. In every name and text, %NAME% becomes the value
// of the replacement NAME (names matched without regard to case) and %% a percent sign; an unknown
// replacement, a lone '%', a key name with '\' and every other departure from the grammar make the
// whole script malformed.
//
// A malformed script is refused before anything is written: khrRegistrarSyntax (DISP_E_EXCEPTION,
// 0x80020009, what registrars answer for script errors), with the line and the reason reported as
// an error ("Registry script error at line %u: %s\n") and available from CRegistrar::GetLastError.
//
// Register: for each key in script order, a ForceRemove key's existing tree is deleted first; then
// the key is created (or opened), its default value set if the script gives one, and its entries
// applied in script order (values set, subkeys registered the same way).
//
// Unregister (roots are never touched; a key is a path under its root):
//   - A key that does not exist is skipped with everything the script lists under it: removing
//     what was never registered succeeds.
//   - A ForceRemove key is deleted with its whole tree; its entries need no visit.
//   - Otherwise its subkeys are unregistered first, in script order, depth-first. Then:
//     a NoRemove key stays; the values it lists with 'val' are deleted (missing ones are fine);
//     a plain key with no subkeys left is deleted with all its values;
//     a plain key that still has subkeys (put there by someone else) stays, and loses the values it
//     lists with 'val', as a NoRemove key does.
//     A key that stays keeps its default value: the script cannot tell whose it is.
//
// Both directions stop at the first failing operation and answer its HRESULT; what was done
// before it stays done. Every failure is reported.
#pragma once

#include <string>
#include <string_view>
#include <vector>
#include <kronvale/KronvaleResults.h>

#include "platform/os.h"

namespace NSFrame {

using NSPlatform::ERegistryRoot;

// What the registrar writes to. Keys are paths under a root, names separated by '\'. A missing key
// is reported as HRESULT(ERROR_FILE_NOT_FOUND) by every operation that needs one.
class IRegistryTarget {
 public:
  virtual ~IRegistryTarget() = default;
  // Creates the key and its missing parents, or opens it.
  virtual HRESULT CreateKey(ERegistryRoot eRoot, const WString& strKey) = 0;
  // S_OK when the key exists.
  virtual HRESULT OpenKey(ERegistryRoot eRoot, const WString& strKey) = 0;
  // An empty name is the key's default value.
  virtual HRESULT SetStringValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName,
                                 const WString& strValue) = 0;
  virtual HRESULT DeleteValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName) = 0;
  // A key without subkeys, with its values; a key with subkeys is refused.
  virtual HRESULT DeleteKey(ERegistryRoot eRoot, const WString& strKey) = 0;
  virtual HRESULT DeleteTree(ERegistryRoot eRoot, const WString& strKey) = 0;
  virtual HRESULT HasSubKeys(ERegistryRoot eRoot, const WString& strKey, bool* pbHasSubKeys) = 0;
};

// The declarations of a registry target's methods, for each implementation.
#define KV_IREGISTRYTARGET_METHODS                                                                      \
  HRESULT CreateKey(ERegistryRoot eRoot, const WString& strKey) override;                               \
  HRESULT OpenKey(ERegistryRoot eRoot, const WString& strKey) override;                                 \
  HRESULT SetStringValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName,            \
                         const WString& strValue) override;                                             \
  HRESULT DeleteValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName) override;     \
  HRESULT DeleteKey(ERegistryRoot eRoot, const WString& strKey) override;                               \
  HRESULT DeleteTree(ERegistryRoot eRoot, const WString& strKey) override;                              \
  HRESULT HasSubKeys(ERegistryRoot eRoot, const WString& strKey, bool* pbHasSubKeys) override;

// The system registry through the platform layer (Windows; every call fails with
// ERROR_NOT_SUPPORTED on Linux).
class CPlatformRegistry : public IRegistryTarget {
 public:
  KV_IREGISTRYTARGET_METHODS
};

// A parsed script, replacements already made.
struct SRegistrarEntry {
  enum class EKind { Key, Value };
  enum class ERemoval { Normal, NoRemove, ForceRemove };

  EKind eKind = EKind::Key;
  ERemoval eRemoval = ERemoval::Normal;  // keys only
  WString strName;
  bool bHasText = false;  // a key's default value is given (always true for a value)
  WString strText;
  std::vector<SRegistrarEntry> vEntries;  // a key's subkeys and values, in script order
};

struct SRegistrarRoot {
  ERegistryRoot eRoot = ERegistryRoot::ClassesRoot;
  std::vector<SRegistrarEntry> vKeys;
};

struct SRegistrarScript {
  std::vector<SRegistrarRoot> vRoots;
};

class CRegistrar {
 public:
  // pTarget must outlive the registrar.
  explicit CRegistrar(IRegistryTarget* pTarget);

  // Adds or replaces the replacement for %NAME% (pszName without the percent signs, not empty).
  HRESULT AddReplacement(const WCHAR* pszName, const WCHAR* pszValue);
  void ClearReplacements();

  // Parses a script (UTF-8, a leading byte order mark skipped) with the current replacements.
  HRESULT Parse(std::string_view strScript, SRegistrarScript* pScript);
  HRESULT Apply(const SRegistrarScript& script, bool bRegister);
  // Parses, then applies: nothing is written when the script is malformed.
  HRESULT Register(std::string_view strScript) { return Run(strScript, true); }
  HRESULT Unregister(std::string_view strScript) { return Run(strScript, false); }
  // The same for a script of the module's resources (frame/Resources.h).
  HRESULT RunResource(UINT nId, bool bRegister);

  // The reason of the last parse failure ("line 3: '{' expected after ..."); empty after a
  // successful parse.
  const WString& GetLastError() const { return m_strLastError; }

 private:
  struct SReplacement {
    WString strName;
    WString strValue;
  };

  HRESULT Run(std::string_view strScript, bool bRegister);
  HRESULT RegisterKey(ERegistryRoot eRoot, const WString& strParent, const SRegistrarEntry& key);
  HRESULT UnregisterKey(ERegistryRoot eRoot, const WString& strParent, const SRegistrarEntry& key);
  HRESULT DeleteListedValues(ERegistryRoot eRoot, const WString& strPath, const SRegistrarEntry& key);

  friend class CRegistrarParser;

  IRegistryTarget* m_pTarget;
  std::vector<SReplacement> m_vReplacements;
  WString m_strLastError;
};

// The name of a root as scripts write it in short form ("HKCR").
const WCHAR* RegistryRootName(ERegistryRoot eRoot);

}  // namespace NSFrame
