// An outer object for aggregation tests: it answers only IUnknown and counts its references, so a
// test sees whether an aggregated object's interfaces count on their outer object.
#pragma once

#include <kronvale/kronvale.h>

namespace NSTest {

class CCountingOuter final : public IUnknown {
 public:
  STDMETHOD(QueryInterface)(REFIID riid, void** ppv) override {
    if (!IsEqualIID(riid, IID_IUnknown)) return *ppv = nullptr, E_NOINTERFACE;
    *ppv = this;
    AddRef();
    return S_OK;
  }
  STDMETHOD_(ULONG, AddRef)() override { return ++m_cRef; }
  STDMETHOD_(ULONG, Release)() override { return --m_cRef; }
  ULONG m_cRef = 1;
};

}  // namespace NSTest
