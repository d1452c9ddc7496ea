// The pool of large blocks (BlockPool.h): free blocks by size class, under one lock.
#include "platform/BlockPool.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KV_POOL_POISONS 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define KV_POOL_POISONS 1
#endif
#ifdef KV_POOL_POISONS
#include <sanitizer/asan_interface.h>
#endif

namespace NSPlatform {

namespace {

// cb rounded up to its class: a multiple of an eighth of the largest power of two not above it.
size_t ClassOf(size_t cb) {
  size_t cbPower = kcbSmallestPooled;
  while (cbPower <= cb / 2) cbPower *= 2;
  const size_t cbStep = cbPower / 8;
  return (cb + cbStep - 1) / cbStep * cbStep;
}

struct SPool {
  std::mutex mutex;
  std::map<size_t, std::vector<void*>> mapFree;  // by class; guarded by mutex
  size_t cbPooled = 0;                           // guarded by mutex
};

// Never destroyed: blocks are given back from static destructors too (files of the in-memory file
// system freed at exit).
SPool& Pool() {
  static SPool* const s_pPool = new SPool;
  return *s_pPool;
}

}  // namespace

void* TakeBlock(size_t cb) {
  if (cb < kcbSmallestPooled) return ::operator new(cb);
  const size_t cbClass = ClassOf(cb);
  SPool& pool = Pool();
  {
    std::lock_guard<std::mutex> lock(pool.mutex);
    auto it = pool.mapFree.find(cbClass);
    if (it != pool.mapFree.end() && !it->second.empty()) {
      void* pv = it->second.back();
      it->second.pop_back();
      pool.cbPooled -= cbClass;
#ifdef KV_POOL_POISONS
      ASAN_UNPOISON_MEMORY_REGION(pv, cbClass);
#endif
      return pv;
    }
  }
  return ::operator new(cbClass);
}

void GiveBackBlock(void* pv, size_t cb) noexcept {
  if (!pv) return;
  if (cb < kcbSmallestPooled) {
    ::operator delete(pv);
    return;
  }
  const size_t cbClass = ClassOf(cb);
  SPool& pool = Pool();
  {
    std::lock_guard<std::mutex> lock(pool.mutex);
    if (pool.cbPooled + cbClass <= kcbMostPooled) {
      try {
        pool.mapFree[cbClass].push_back(pv);
        pool.cbPooled += cbClass;
#ifdef KV_POOL_POISONS
        ASAN_POISON_MEMORY_REGION(pv, cbClass);
#endif
        return;
      } catch (const std::bad_alloc&) {
        // no room to note it: freed below
      }
    }
  }
  ::operator delete(pv);
}

void CPooledBytes::Swap(CPooledBytes& other) noexcept {
  std::swap(m_pb, other.m_pb);
  std::swap(m_cb, other.m_cb);
  std::swap(m_cbCapacity, other.m_cbCapacity);
}

CPooledBytes& CPooledBytes::operator=(const CPooledBytes& other) {
  if (this == &other) return *this;
  if (other.m_cb > m_cbCapacity) {
    CPooledBytes fresh;
    fresh.m_pb = static_cast<BYTE*>(TakeBlock(other.m_cb));
    fresh.m_cbCapacity = other.m_cb;
    Swap(fresh);
  }
  if (other.m_cb) std::memcpy(m_pb, other.m_pb, other.m_cb);
  m_cb = other.m_cb;
  return *this;
}

void CPooledBytes::resize_for_write(size_t cb, size_t iWrite) {
  if (cb > m_cbCapacity) {
    // Doubling, as a std::vector grows: a file written a block at a time is copied a few times only.
    const size_t cbCapacity = std::max(cb, m_cbCapacity * 2);
    CPooledBytes grown;
    grown.m_pb = static_cast<BYTE*>(TakeBlock(cbCapacity));
    grown.m_cbCapacity = cbCapacity;
    if (m_cb) std::memcpy(grown.m_pb, m_pb, m_cb);
    grown.m_cb = m_cb;
    Swap(grown);
  }
  const size_t iZeroEnd = std::min(cb, iWrite);
  if (iZeroEnd > m_cb) std::memset(m_pb + m_cb, 0, iZeroEnd - m_cb);
  m_cb = cb;
}

size_t GetPooledBytes() {
  SPool& pool = Pool();
  std::lock_guard<std::mutex> lock(pool.mutex);
  return pool.cbPooled;
}

void ReleasePooledBlocks() {
  std::map<size_t, std::vector<void*>> mapFree;
  SPool& pool = Pool();
  {
    std::lock_guard<std::mutex> lock(pool.mutex);
    mapFree.swap(pool.mapFree);
    pool.cbPooled = 0;
  }
  for (auto& [cbClass, vBlocks] : mapFree) {
    for (void* pv : vBlocks) {
#ifdef KV_POOL_POISONS
      ASAN_UNPOISON_MEMORY_REGION(pv, cbClass);
#endif
      ::operator delete(pv);
    }
  }
}

}  // namespace NSPlatform
