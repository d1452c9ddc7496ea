// A registry held in memory, behind the registrar's target interface: the same answers as the
// Windows registry for what the registrar does (names compared without regard to ASCII case,
// ERROR_FILE_NOT_FOUND for missing keys and values, ERROR_ACCESS_DENIED for deleting a key that has
// subkeys), on both platforms. Tests apply scripts to it, look at the result, and make a chosen
// operation fail. Not thread-safe.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "frame/Registrar.h"

namespace NSFrame {

class CMemoryRegistry : public IRegistryTarget {
 public:
  CMemoryRegistry();
  ~CMemoryRegistry() override;

  KV_IREGISTRYTARGET_METHODS

  // The nNth operation from now (counted from 1) fails with hr and changes nothing; 0 fails none.
  void FailOperation(unsigned nNth, HRESULT hr);
  // Every operation since construction or ClearJournal, failed ones included, as
  // "CreateKey HKCR\Kronvale.Kronvale.1", "SetStringValue HKCR\...\InprocServer32 [ThreadingModel]"
  // (the value name in brackets, "[]" for the default value), "DeleteValue ...", "DeleteKey ...",
  // "DeleteTree ...", "OpenKey ...", "HasSubKeys ...", in UTF-8.
  const std::vector<std::string>& Journal() const { return m_vJournal; }
  void ClearJournal() { m_vJournal.clear(); }

  // The whole content, one line per key and per value, depth-first, names in case-insensitive
  // order, in UTF-8:
  //   HKCR\AppID
  //   HKCR\AppID\Kronvale.DLL [AppID] = '{3E3C0CF5-...}'
  //   HKCR\Kronvale.Kronvale = 'Kronvale Class'        (the default value)
  // A key's own line comes first, then its default value, named values, then its subkeys.
  std::string Dump() const;
  bool KeyExists(ERegistryRoot eRoot, const WString& strKey) const;
  // False when the key or value is missing.
  bool GetValue(ERegistryRoot eRoot, const WString& strKey, const WString& strName, WString* pstrValue) const;

 private:
  struct SNode;
  struct SLess {
    bool operator()(const WString& a, const WString& b) const;
  };
  using NodeMap = std::map<WString, std::unique_ptr<SNode>, SLess>;
  struct SNode {
    NodeMap mapSubKeys;
    std::map<WString, WString, SLess> mapValues;  // the default value under the empty name
  };

  bool Begin(const char* pszOperation, ERegistryRoot eRoot, const WString& strKey, const WString* pstrName,
             HRESULT* phr);
  SNode* Find(ERegistryRoot eRoot, const WString& strKey) const;
  // DeleteKey (bTree false: a key with subkeys is refused) and DeleteTree (bTree true).
  HRESULT RemoveKey(const char* pszOperation, ERegistryRoot eRoot, const WString& strKey, bool bTree);
  static void DumpNode(const SNode& node, const std::string& strPath, std::string* pstrOut);

  std::unique_ptr<SNode> m_apRoots[3];
  std::vector<std::string> m_vJournal;
  unsigned m_nFailCountdown = 0;
  HRESULT m_hrFail = S_OK;
};

}  // namespace NSFrame
