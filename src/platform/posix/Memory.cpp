// Bulk memory on Linux: an anonymous mapping, asked for transparent huge pages and populated in one
// call. A fresh page otherwise costs a fault on first touch, and on a virtual machine a fault costs
// far more than filling the page; a populated block of huge pages costs one call for megabytes.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/os.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KV_BULK_ON_HEAP 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KV_BULK_ON_HEAP 1
#endif

namespace NSPlatform {

namespace {
// Smaller blocks come from the heap: a mapping of its own is not worth a system call there.
constexpr size_t kcbMapped = 1024 * 1024;
bool OnHeap(size_t cb) {
#ifdef KV_BULK_ON_HEAP
  (void)cb;
  return true;
#else
  return cb < kcbMapped;
#endif
}
}  // namespace

void* AllocateBulkMemory(size_t cb) {
  if (OnHeap(cb)) return std::malloc(cb ? cb : 1);
  void* pv = ::mmap(nullptr, cb, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pv == MAP_FAILED) return nullptr;
  // Both are hints: a kernel without them leaves the pages to fault in one at a time.
#ifdef MADV_HUGEPAGE
  ::madvise(pv, cb, MADV_HUGEPAGE);
#endif
#ifdef MADV_POPULATE_WRITE
  ::madvise(pv, cb, MADV_POPULATE_WRITE);
#endif
  return pv;
}

void FreeBulkMemory(void* pv, size_t cb) {
  if (!pv) return;
  if (OnHeap(cb))
    std::free(pv);
  else
    ::munmap(pv, cb);
}

void TrimBulkMemory(void* pv, size_t cb, size_t cbKeep) {
  if (!pv || OnHeap(cb)) return;
  const size_t cbPage = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  const size_t cbKept = (cbKeep + cbPage - 1) / cbPage * cbPage;
  // The block is freed whole later: unmapping a range again is harmless.
  if (cbKept < cb) ::munmap(static_cast<char*>(pv) + cbKept, cb - cbKept);
}

}  // namespace NSPlatform
