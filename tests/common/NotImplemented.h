// Interfaces whose every method answers E_NOTIMPL, for test doubles that override the few a test
// needs. IUnknown is left to the double (a COM map, or counting by hand).
#pragma once

#include <kronvale/kronvale.h>

namespace NSTest {

class CNotImplementedRecord : public IRecord {
 public:
  STDMETHOD(SetDescription)(BSTR) override { return E_NOTIMPL; }
  STDMETHOD(GetDescription)(BSTR*) override { return E_NOTIMPL; }
  STDMETHOD(GetPath)(BSTR*) override { return E_NOTIMPL; }
  STDMETHOD(Write)(FILETIME, DWORD, const SFrameBuffer*, DWORD) override { return E_NOTIMPL; }
  STDMETHOD(Read)(FILETIME, DWORD*, SFrameBuffer*, DWORD) override { return E_NOTIMPL; }
  STDMETHOD(GetNext)(FILETIME, const SFrameFilter*, FILETIME*) override { return E_NOTIMPL; }
  STDMETHOD(GetPrev)(FILETIME, const SFrameFilter*, FILETIME*) override { return E_NOTIMPL; }
  STDMETHOD(GetStatistic)(FILETIME, FILETIME, FILETIME, const SFrameFilter*, LONG, DWORD*, SRecordStatistic**) override {
    return E_NOTIMPL;
  }
  STDMETHOD(RemoveHour)(FILETIME) override { return E_NOTIMPL; }
  STDMETHOD(GetName)(BSTR*) override { return E_NOTIMPL; }
  STDMETHOD(Extract)(FILETIME, FILETIME, const SFrameFilter*, LONG, IRecord**) override { return E_NOTIMPL; }
  STDMETHOD(CheckFrame)(FILETIME, const SFrameFilter*) override { return E_NOTIMPL; }
  STDMETHOD(Merge)(IRecord*, const SFrameFilter*, LONG) override { return E_NOTIMPL; }
};

class CNotImplementedArchive : public IKronvale {
 public:
  STDMETHOD(SetDescription)(BSTR) override { return E_NOTIMPL; }
  STDMETHOD(GetDescription)(BSTR*) override { return E_NOTIMPL; }
  STDMETHOD(GetPath)(BSTR*) override { return E_NOTIMPL; }
  STDMETHOD(CreateRecord)(BSTR, IRecord**) override { return E_NOTIMPL; }
  STDMETHOD(OpenRecord)(BSTR, IRecord**) override { return E_NOTIMPL; }
  STDMETHOD(GetRecords)(BSTR**, DWORD*) override { return E_NOTIMPL; }
  STDMETHOD(SetQuota)(ULONGLONG, ULONGLONG) override { return E_NOTIMPL; }
  STDMETHOD(SetFlushTimeout)(ULONG) override { return E_NOTIMPL; }
  STDMETHOD(GetInfo)(SArchiveInfo*) override { return E_NOTIMPL; }
  STDMETHOD(Free)() override { return E_NOTIMPL; }
  STDMETHOD(DeleteRecord)(BSTR) override { return E_NOTIMPL; }
};

}  // namespace NSTest
