// The archive object every archive-level benchmark drives, made in-process as a client holds one.
#pragma once

#include <string>

#include <kronvale/KronvaleResults.h>

#include "BenchSupport.h"
#include "archive/ArchiveImpl.h"
#include "com/ComKit.h"
#include "hours/KronvaleUtils.h"
#include "platform/os.h"

namespace NSBench {

// An archive object on a directory of its own: a directory that holds an archive already is
// opened, otherwise one is made there. Free runs when it goes: until then the archive and its
// records hold each other, and the records keep their hours open.
class CBenchArchive {
 public:
  CBenchArchive(const WString& strPath, ULONG ulFlushTimeout) : m_strPath(strPath) {
    const HRESULT hrDir = NSPlatform::CreateDirTree(strPath.c_str());
    if (FAILED(hrDir) && hrDir != NSKronvale::khrAlreadyExists) Die("creating the archive directory", hrDir);
    NSCom::CComObject<NSArchive::CArchiveImpl>* p = nullptr;
    Check(NSCom::CComObject<NSArchive::CArchiveImpl>::CreateInstance(&p), "creating the archive object");
    m_pArchive = p;
    m_pObject = p;
    const bool bExists = NSPlatform::PathExists(NSPlatform::CombinePath(strPath, KV_W("settings.als")).c_str());
    Check(bExists ? p->Open(strPath, 0) : p->Create(strPath), "opening the archive");
    Check(m_pArchive->SetFlushTimeout(ulFlushTimeout), "IKronvale::SetFlushTimeout");
  }
  ~CBenchArchive() {
    if (m_pArchive) m_pArchive->Free();
  }
  CBenchArchive(const CBenchArchive&) = delete;
  CBenchArchive& operator=(const CBenchArchive&) = delete;

  NSCom::CComPtr<IRecord> Writer(const std::string& strName) {
    NSCom::CComPtr<IRecord> p;
    NSCom::CComBSTR bstrName(NSPlatform::Utf8ToWide(strName.c_str()).c_str());
    Check(m_pArchive->CreateRecord(bstrName, &p), "IKronvale::CreateRecord");
    return p;
  }
  // A reading client's record.
  NSCom::CComPtr<IRecord> Reader(const std::string& strName) {
    NSCom::CComPtr<IKronvaleEx> pEx;
    Check(m_pArchive->QueryInterface(IID_IKronvaleEx, reinterpret_cast<void**>(&pEx)), "QueryInterface(IKronvaleEx)");
    NSCom::CComPtr<IRecord> p;
    NSCom::CComBSTR bstrClient(KV_W("bench"));
    NSCom::CComBSTR bstrName(NSPlatform::Utf8ToWide(strName.c_str()).c_str());
    Check(pEx->OpenRecordEx(bstrClient, bstrName, 1, &p), "IKronvaleEx::OpenRecordEx");
    return p;
  }
  // The directory of a record of this archive, and of its hour holding ullTicks.
  WString RecordPath(const std::string& strName) const {
    return NSPlatform::CombinePath(m_strPath, NSPlatform::Utf8ToWide(strName.c_str()));
  }
  WString HourDirectory(const std::string& strName, ULONGLONG ullTicks) const {
    return NSPlatform::CombinePath(RecordPath(strName), NSKronvaleUtils::FormatHourPath(Breakdown(ullTicks)));
  }
  NSArchive::CArchiveImpl* Object() const { return m_pObject; }

 private:
  WString m_strPath;
  NSCom::CComPtr<IKronvale> m_pArchive;
  NSArchive::CArchiveImpl* m_pObject = nullptr;
};

}  // namespace NSBench
