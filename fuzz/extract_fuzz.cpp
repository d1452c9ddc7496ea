// Fuzzes the receiving side of an extract: IMarshal::UnmarshalInterface over arbitrary bytes, from
// an in-memory stream (no file system). The first byte chooses whether the stream tells its size
// (bit 0) and how many buffers the reads of the resulting extract ask for (bits 1-3); the rest is
// the packet, followed in the stream by four more bytes. An extract that unmarshals is then read
// whole: every frame forwards and backwards, its data, a statistic; and the stream must have been
// left just after the packet.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <kronvale/kronvale.h>

#include "com/ComKit.h"
#include "common/MemoryStream.h"
#include "records/RecordExtract.h"

namespace {

using CExtractObject = NSCom::CComObject<NSRecords::CRecordExtract>;

void ReadWhole(IRecord* pExtract, DWORD dwCount) {
  std::vector<SFrameBuffer> v(dwCount);
  FILETIME ft = {0, 0};
  DWORD cFrames = 0;
  while (SUCCEEDED(pExtract->GetNext(ft, nullptr, &ft))) {
    DWORD dwFlags = 0;
    if (SUCCEEDED(pExtract->Read(ft, &dwFlags, v.data(), dwCount)))
      for (SFrameBuffer& buffer : v) CoTaskMemFree(buffer.pData);
    ++cFrames;
  }
  FILETIME ftBack = {0xFFFFFFFFu, 0xFFFFFFFFu};
  const SFrameFilter filter = {1, efmAny};
  while (SUCCEEDED(pExtract->GetPrev(ftBack, &filter, &ftBack))) {
  }
  DWORD cRuns = 0;
  SRecordStatistic* pRuns = nullptr;
  if (cFrames && SUCCEEDED(pExtract->GetStatistic(FILETIME{0, 0}, FILETIME{0xFFFFFFFFu, 0x7FFFFFFFu},
                                                  FILETIME{10000000, 0}, &filter, 0, &cRuns, &pRuns)))
    CoTaskMemFree(pRuns);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t cbData) {
  if (cbData == 0) return 0;
  const bool bTellsSize = pData[0] & 1;
  const DWORD dwCount = (pData[0] >> 1) & 7;
  const std::string strPacket(reinterpret_cast<const char*>(pData + 1), cbData - 1);
  NSTest::CMemoryStream stream(strPacket + "TAIL", bTellsSize);

  CExtractObject* pShell = nullptr;
  if (FAILED(CExtractObject::CreateInstance(&pShell))) std::abort();
  NSCom::CComPtr<IRecord> pHold(static_cast<IRecord*>(pShell));
  IRecord* pExtract = nullptr;
  const HRESULT hr = pShell->UnmarshalInterface(&stream, IID_IRecord, reinterpret_cast<void**>(&pExtract));
  if (stream.m_cRef.load() != 1) std::abort();  // nothing may keep the caller's stream
  if (FAILED(hr)) {
    if (pExtract) std::abort();
    return 0;
  }
  // The stream stands just after the packet: what is left is the end of what the stream held.
  const std::string strAll = strPacket + "TAIL";
  std::string strRest;
  char achRest[256];
  ULONG cbRest = 0;
  while (SUCCEEDED(stream.Read(achRest, sizeof(achRest), &cbRest)) && cbRest) strRest.append(achRest, cbRest);
  if (strRest.size() > strAll.size() - 12 || strAll.compare(strAll.size() - strRest.size(), std::string::npos, strRest) != 0)
    std::abort();
  ReadWhole(pExtract, dwCount);
  pExtract->Release();
  return 0;
}
