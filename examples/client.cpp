// A Kronvale client: makes an archive, writes a frame, reads it back and finds it again.
// Built against the installed kit (find_package(Kronvale), or pkg-config kronvale).
#include <kronvale/kronvale.h>
#include <kronvale/KronvaleResults.h>

#include <cstdio>
#include <cstring>
#include <string>

#ifdef _WIN32
// A registered library (regsvr32 kronvale.dll) is reached with CoGetClassObject; one shipped beside
// the program, as here, through its own export.
HRESULT GetFactory(IArchiveFactory** ppFactory) {
  HMODULE hLibrary = LoadLibraryW(L"kronvale.dll");
  auto pfn = hLibrary ? reinterpret_cast<HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**)>(
                            reinterpret_cast<void*>(GetProcAddress(hLibrary, "DllGetClassObject")))
                      : nullptr;
  return pfn ? pfn(CLSID_Kronvale, IID_IArchiveFactory, reinterpret_cast<void**>(ppFactory)) : E_FAIL;
}
#else
// Linux: no registry and no COM runtime; the client links libkronvale.so and calls its export.
HRESULT GetFactory(IArchiveFactory** ppFactory) {
  return DllGetClassObject(CLSID_Kronvale, IID_IArchiveFactory, reinterpret_cast<void**>(ppFactory));
}
#endif

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: client NEW_ARCHIVE_DIRECTORY\n");
    return 2;
  }
  IArchiveFactory* pFactory = nullptr;
  if (FAILED(GetFactory(&pFactory))) return 1;

  // Strings are BSTRs (UTF-16): SysAllocString and SysFreeString come with the library on Linux.
  std::u16string strPath(argv[1], argv[1] + std::strlen(argv[1]));  // an ASCII path, for brevity
  BSTR bstrPath = SysAllocString(reinterpret_cast<const OLECHAR*>(strPath.c_str()));
  BSTR bstrRecord = SysAllocString(reinterpret_cast<const OLECHAR*>(u"gate"));
  IKronvale* pArchive = nullptr;
  HRESULT hr = pFactory->CreateArchive(bstrPath, &pArchive);  // a new or empty directory
  if (SUCCEEDED(hr)) hr = pArchive->SetFlushTimeout(1000);    // buffered hours, flushed every second

  IRecord* pWriter = nullptr;
  if (SUCCEEDED(hr)) hr = pArchive->CreateRecord(bstrRecord, &pWriter);  // the record's writer
  BYTE abImage[4096];
  std::memset(abImage, 0x5A, sizeof(abImage));
  SFrameBuffer buffers[] = {{abImage, sizeof(abImage)}};
  const FILETIME ft = {0xA2BB5000u, 0x01D71338u};  // 2021-03-07T10:00:00Z, a frame's UTC time
  if (SUCCEEDED(hr)) hr = pWriter->Write(ft, 0x1 /*a key frame*/, buffers, 1);

  IRecord* pReader = nullptr;
  if (SUCCEEDED(hr)) hr = pArchive->OpenRecord(bstrRecord, &pReader);  // a reader object
  SFrameBuffer out = {nullptr, 0};  // null data: the record allocates with CoTaskMemAlloc
  DWORD dwFlags = 0;
  if (SUCCEEDED(hr)) hr = pReader->Read(ft, &dwFlags, &out, 1);
  const bool bSame = SUCCEEDED(hr) && out.dwDataSize == sizeof(abImage) && std::memcmp(out.pData, abImage, sizeof(abImage)) == 0;
  CoTaskMemFree(out.pData);

  SFrameFilter keyFrames = {0x1, efmAny};
  FILETIME ftFound = {};
  const FILETIME ftBefore = {ft.dwLowDateTime - 1, ft.dwHighDateTime};
  if (SUCCEEDED(hr)) hr = pReader->GetNext(ftBefore, &keyFrames, &ftFound);  // the next key frame
  const bool bFound = SUCCEEDED(hr) && ftFound.dwLowDateTime == ft.dwLowDateTime && ftFound.dwHighDateTime == ft.dwHighDateTime;

  if (pReader) pReader->Release();
  if (pWriter) pWriter->Release();
  if (pArchive) {
    pArchive->Free();
    pArchive->Release();
  }
  pFactory->Release();
  SysFreeString(bstrRecord);
  SysFreeString(bstrPath);
  std::printf("client: result 0x%08X, frame %s, key frame %s\n", static_cast<unsigned>(hr), bSame ? "read back" : "WRONG",
              bFound ? "found" : "NOT FOUND");
  return bSame && bFound ? 0 : 1;
}
