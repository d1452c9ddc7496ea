// Large blocks of memory kept for reuse: a block given back is handed out again to the next request
// of its size class instead of going back to the system.
//
// Why: a block of megabytes fresh from the system costs a page fault per 4 KiB on first touch, and on
// a virtual machine a fault costs far more than filling the page. Code that makes and drops blocks of
// the same few sizes over and over (the 1.5 MB index copy of each hour opened, the bytes of the
// in-memory file system's files) pays that at every turn; from the pool it pays it once.
//
// Blocks of at least kcbSmallestPooled bytes are pooled, in size classes eight to a doubling (a
// request is rounded up by at most an eighth); smaller ones go straight to the heap. The pool keeps
// at most kcbMostPooled bytes; what does not fit is freed. Thread-safe. A block is uninitialised
// when taken, whatever it held before. Under AddressSanitizer a pooled block is poisoned until it is
// taken again, so that a use after it was given back is still reported.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

#include "platform/wintypes.h"

namespace NSPlatform {

constexpr size_t kcbSmallestPooled = 64 * 1024;
constexpr size_t kcbMostPooled = 32 * 1024 * 1024;

// A block of at least cb bytes; throws std::bad_alloc like operator new.
void* TakeBlock(size_t cb);
// Gives back a block taken with the same cb.
void GiveBackBlock(void* pv, size_t cb) noexcept;
// The bytes the pool keeps now.
size_t GetPooledBytes();
// Frees every block the pool keeps.
void ReleasePooledBlocks();

// A growable array of bytes in a pooled block, for large storage that is remade often (the bytes
// of a file in memory). What resize adds is zero, as in a std::vector; shrinking keeps the block.
// Element-wise work is left to memcpy and memset: a std::vector over an allocator of its own would
// construct, move and destroy byte by byte.
class CPooledBytes {
 public:
  CPooledBytes() = default;
  CPooledBytes(const CPooledBytes& other) { *this = other; }
  CPooledBytes(CPooledBytes&& other) noexcept { Swap(other); }
  CPooledBytes& operator=(const CPooledBytes& other);
  CPooledBytes& operator=(CPooledBytes&& other) noexcept {
    CPooledBytes taken(std::move(other));
    Swap(taken);
    return *this;
  }
  ~CPooledBytes() { GiveBackBlock(m_pb, m_cbCapacity); }

  size_t size() const { return m_cb; }
  bool empty() const { return m_cb == 0; }
  BYTE* data() { return m_pb; }
  const BYTE* data() const { return m_pb; }
  BYTE* begin() { return m_pb; }
  BYTE* end() { return m_pb + m_cb; }
  const BYTE* begin() const { return m_pb; }
  const BYTE* end() const { return m_pb + m_cb; }
  BYTE& operator[](size_t i) { return m_pb[i]; }
  const BYTE& operator[](size_t i) const { return m_pb[i]; }
  // Throws std::bad_alloc when the block cannot grow; the bytes are then as they were.
  void resize(size_t cb) { resize_for_write(cb, cb); }
  // The same for a write about to store bytes from iWrite to cb: only what is added below iWrite is
  // zeroed, the rest is left for the write.
  void resize_for_write(size_t cb, size_t iWrite);
  void clear() { m_cb = 0; }

 private:
  void Swap(CPooledBytes& other) noexcept;

  BYTE* m_pb = nullptr;
  size_t m_cb = 0;
  size_t m_cbCapacity = 0;
};

}  // namespace NSPlatform
