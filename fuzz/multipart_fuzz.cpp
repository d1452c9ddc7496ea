// libFuzzer target: a multipart archive file and an archive settings file made from the same
// arbitrary bytes, loaded, saved and loaded again.
//
// Besides the sanitizers, the harness itself stops the run (abort) when
//   - a multipart file that loaded does not save to a file that loads again,
//   - saving what was loaded a second time gives other bytes than the first time (the description
//     and the partitions, absent ones included, must survive the round trip unchanged),
//   - a settings file that loaded does not read back with the same values after a save.
//
// Partitions are opened through a factory that refuses every path, so no input can reach an archive
// on the machine: every partition of the file is reported and kept as absent, which is the path a
// file with unplugged disks takes. The two files live in the platform's in-memory file system
// (platform/MemFs.h): nothing reaches the disk.
#include <cstdlib>
#include <string>

#include "archive/ArchiveSettings.h"
#include "com/ComKit.h"
#include "multipart/MultipartArchive.h"
#include "platform/MemFs.h"
#include "platform/os.h"

namespace {

using NSMultipart::CMultipartArchive;

struct SScratch {
  WString strMultipart;
  WString strSettings;
};

SScratch& Scratch() {
  static SScratch* pScratch = [] {
    NSPlatform::NSMemFs::Install();
    auto* p = new SScratch;
    WString strTemp;
    NSPlatform::GetTempDirectory(&strTemp);
    p->strMultipart = NSPlatform::CombinePath(strTemp, KV_W("site.kvm"));
    p->strSettings = NSPlatform::CombinePath(strTemp, KV_W("settings.als"));
    return p;
  }();
  return *pScratch;
}

// Opens nothing: every partition of an input is "not found".
class CRefusingFactory : public IArchiveFactoryEx {
 public:
  STDMETHOD(QueryInterface)(REFIID, void** ppv) override {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  STDMETHOD_(ULONG, AddRef)() override { return 1; }
  STDMETHOD_(ULONG, Release)() override { return 1; }
  STDMETHOD(OpenArchiveEx)(BSTR, ULONG, IKronvale** ppKronvale) override {
    *ppKronvale = nullptr;
    return static_cast<HRESULT>(0x80070003);
  }
};

void Check(bool bHeld) {
  if (!bHeld) std::abort();
}

std::string ReadBack(const WString& strFile) {
  std::string strText;
  Check(SUCCEEDED(NSArchive::ReadWholeFile(strFile, &strText)));
  return strText;
}

// Loads the multipart file and saves it again (through SetDescription with what was loaded): the
// saved text, or "" when the file did not load.
std::string LoadAndSave(const WString& strFile) {
  static CRefusingFactory s_factory;
  NSCom::CComObject<CMultipartArchive>* pArchive = nullptr;
  Check(SUCCEEDED(NSCom::CComObject<CMultipartArchive>::CreateInstance(&pArchive)));
  NSCom::CComPtr<IMultipartArchive> pHold(pArchive);
  if (FAILED(pArchive->Load(strFile, &s_factory))) return std::string();
  NSCom::CComBSTR bstrDescription;
  Check(pArchive->GetDescription(&bstrDescription) == S_OK);
  DWORD cPartitions = 0;
  IKronvale** ppPartitions = nullptr;
  Check(pArchive->GetPartitions(&cPartitions, &ppPartitions) == S_OK && cPartitions == 0);
  Check(pArchive->SetDescription(bstrDescription) == S_OK);
  return ReadBack(strFile);
}

void FuzzMultipart(const std::string& strInput) {
  const WString& strFile = Scratch().strMultipart;
  Check(SUCCEEDED(NSArchive::WriteWholeFile(strFile, strInput)));
  const std::string strFirst = LoadAndSave(strFile);
  if (strFirst.empty()) return;
  const std::string strSecond = LoadAndSave(strFile);
  Check(strSecond == strFirst);
}

void FuzzSettings(const std::string& strInput) {
  const WString& strFile = Scratch().strSettings;
  Check(SUCCEEDED(NSArchive::WriteWholeFile(strFile, strInput)));
  NSArchive::SArchiveSettings settings;
  if (FAILED(NSArchive::SerializeSettings(strFile, false, &settings))) return;
  Check(SUCCEEDED(NSArchive::SerializeSettings(strFile, true, &settings)));
  NSArchive::SArchiveSettings again;
  again.dwAccess = ~settings.dwAccess;  // every value must come from the file
  Check(SUCCEEDED(NSArchive::SerializeSettings(strFile, false, &again)));
  Check(again.ullMinimumFreeDiskSpace == settings.ullMinimumFreeDiskSpace &&
        again.ullMaximumArchiveSize == settings.ullMaximumArchiveSize &&
        again.lMaximumArchiveHours == settings.lMaximumArchiveHours && again.dwAccess == settings.dwAccess &&
        again.dwFlushTimeout == settings.dwFlushTimeout && again.ullArchiveSize == settings.ullArchiveSize &&
        again.dwSetState == settings.dwSetState);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t cbData) {
  const std::string strInput(reinterpret_cast<const char*>(pData), cbData);
  FuzzMultipart(strInput);
  FuzzSettings(strInput);
  return 0;
}
