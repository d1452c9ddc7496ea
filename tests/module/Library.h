// The library as a host sees it: loaded at run time by its file name from the programs' directory
// (kronvale.dll; libkronvale.so on Linux), its exports reached by name.
#pragma once

#include <gtest/gtest.h>

#include <kronvale/kronvale.h>

#include "platform/os.h"

namespace NSTest {

typedef HRESULT(STDAPICALLTYPE* PFNDLLGETCLASSOBJECT)(REFCLSID rclsid, REFIID riid, void** ppv);
typedef HRESULT(STDAPICALLTYPE* PFNDLLCANUNLOADNOW)();
typedef HRESULT(STDAPICALLTYPE* PFNDLLREGISTERSERVER)();

inline constexpr WCHAR kszLibraryName[] = KV_W("kronvale.dll");

class CLibrary {
 public:
  CLibrary() {
    const HRESULT hr = NSPlatform::LoadDynamicLibrary(kszLibraryName, &m_hModule);
    EXPECT_EQ(S_OK, hr) << "the library must be built beside the test program";
  }
  ~CLibrary() { NSPlatform::FreeDynamicLibrary(m_hModule); }
  CLibrary(const CLibrary&) = delete;
  CLibrary& operator=(const CLibrary&) = delete;

  HMODULE Handle() const { return m_hModule; }
  bool IsLoaded() const { return m_hModule != nullptr; }

  template <class TFunction>
  TFunction Get(const char* pszName) const {
    return reinterpret_cast<TFunction>(NSPlatform::GetLibrarySymbol(m_hModule, pszName));
  }
  PFNDLLGETCLASSOBJECT GetClassObject() const { return Get<PFNDLLGETCLASSOBJECT>("DllGetClassObject"); }
  PFNDLLCANUNLOADNOW CanUnloadNow() const { return Get<PFNDLLCANUNLOADNOW>("DllCanUnloadNow"); }

 private:
  HMODULE m_hModule = nullptr;
};

}  // namespace NSTest
