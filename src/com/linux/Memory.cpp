// The task allocator and BSTRs as Windows lays them out.
//
// A BSTR block is a 16-byte header whose last four bytes hold the byte count, then the characters,
// then a zero character (two zero bytes). The header is 16 bytes rather than 4 so that the
// characters keep the allocator's alignment. SysAllocStringByteLen may give an odd byte count; the
// two zero bytes still follow the last byte.
#include <cstdlib>
#include <cstring>
#include <limits>

#include "com/ComBase.h"

namespace {

constexpr size_t kHeader = 16;
// The byte count is 32-bit; Windows also refuses anything at or over 2^31 bytes.
constexpr size_t kMaxBytes = 0x7FFFFFF0u - kHeader;

char* BlockOf(BSTR bstr) { return reinterpret_cast<char*>(bstr) - kHeader; }

BSTR AllocBytes(const void* pvSource, size_t cb) {
  if (cb > kMaxBytes) {
    return nullptr;
  }
  char* pBlock = static_cast<char*>(std::malloc(kHeader + cb + sizeof(OLECHAR)));
  if (pBlock == nullptr) {
    return nullptr;
  }
  const uint32_t cb32 = static_cast<uint32_t>(cb);
  std::memset(pBlock, 0, kHeader);
  std::memcpy(pBlock + kHeader - sizeof(cb32), &cb32, sizeof(cb32));
  char* pData = pBlock + kHeader;
  if (pvSource != nullptr) {
    std::memcpy(pData, pvSource, cb);
  }
  pData[cb] = 0;
  pData[cb + 1] = 0;
  return reinterpret_cast<BSTR>(pData);
}

size_t CharCount(const OLECHAR* psz) {
  size_t n = 0;
  while (psz[n] != 0) {
    ++n;
  }
  return n;
}

}  // namespace

EXTERN_C void* CoTaskMemAlloc(SIZE_T cb) {
  // A zero-byte request still gives a distinct block, as the Windows allocator does.
  return std::malloc(cb == 0 ? 1 : cb);
}

EXTERN_C void* CoTaskMemRealloc(void* pv, SIZE_T cb) {
  if (pv == nullptr) {
    return CoTaskMemAlloc(cb);
  }
  if (cb == 0) {
    std::free(pv);
    return nullptr;
  }
  return std::realloc(pv, cb);
}

EXTERN_C void CoTaskMemFree(void* pv) { std::free(pv); }

EXTERN_C BSTR SysAllocString(const OLECHAR* psz) {
  if (psz == nullptr) {
    return nullptr;
  }
  return AllocBytes(psz, CharCount(psz) * sizeof(OLECHAR));
}

EXTERN_C BSTR SysAllocStringLen(const OLECHAR* pch, UINT cch) {
  if (cch > kMaxBytes / sizeof(OLECHAR)) {
    return nullptr;
  }
  return AllocBytes(pch, static_cast<size_t>(cch) * sizeof(OLECHAR));
}

EXTERN_C BSTR SysAllocStringByteLen(LPCSTR psz, UINT cb) { return AllocBytes(psz, cb); }

EXTERN_C INT SysReAllocStringLen(BSTR* pbstr, const OLECHAR* pch, UINT cch) {
  if (pbstr == nullptr) {
    return FALSE;
  }
  // The source may lie inside the old string, so the old one goes only after the copy.
  BSTR bstrNew = SysAllocStringLen(pch, cch);
  if (bstrNew == nullptr) {
    return FALSE;
  }
  SysFreeString(*pbstr);
  *pbstr = bstrNew;
  return TRUE;
}

EXTERN_C INT SysReAllocString(BSTR* pbstr, const OLECHAR* psz) {
  if (pbstr == nullptr) {
    return FALSE;
  }
  const size_t cch = psz == nullptr ? 0 : CharCount(psz);
  if (cch > std::numeric_limits<UINT>::max()) {
    return FALSE;
  }
  return SysReAllocStringLen(pbstr, psz, static_cast<UINT>(cch));
}

EXTERN_C UINT SysStringByteLen(BSTR bstr) {
  if (bstr == nullptr) {
    return 0;
  }
  uint32_t cb;
  std::memcpy(&cb, reinterpret_cast<char*>(bstr) - sizeof(cb), sizeof(cb));
  return cb;
}

EXTERN_C UINT SysStringLen(BSTR bstr) { return SysStringByteLen(bstr) / sizeof(OLECHAR); }

EXTERN_C void SysFreeString(BSTR bstr) {
  if (bstr != nullptr) {
    std::free(BlockOf(bstr));
  }
}
