// Bulk memory on Windows: large blocks are committed with VirtualAlloc (large pages need a
// privilege that a recorder's account does not hold, so none are asked for).
#include <cstdlib>

#include "platform/os.h"

namespace NSPlatform {

namespace {
constexpr size_t kcbMapped = 1024 * 1024;
}  // namespace

void* AllocateBulkMemory(size_t cb) {
  if (cb < kcbMapped) return std::malloc(cb ? cb : 1);
  return ::VirtualAlloc(nullptr, cb, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void FreeBulkMemory(void* pv, size_t cb) {
  if (!pv) return;
  if (cb < kcbMapped)
    std::free(pv);
  else
    ::VirtualFree(pv, 0, MEM_RELEASE);
}

void TrimBulkMemory(void* pv, size_t cb, size_t cbKeep) {
  if (!pv || cb < kcbMapped) return;
  SYSTEM_INFO info;
  ::GetSystemInfo(&info);
  const size_t cbPage = info.dwPageSize;
  const size_t cbKept = (cbKeep + cbPage - 1) / cbPage * cbPage;
  // Decommitted pages stay reserved until the block is released whole.
  if (cbKept < cb) ::VirtualFree(static_cast<char*>(pv) + cbKept, cb - cbKept, MEM_DECOMMIT);
}

}  // namespace NSPlatform
