// The frames of a crash series: every frame is a pure function of the series' seed and the frame's
// index (time, flags, buffer count, buffer sizes and bytes), so a process that never saw them
// written can check them without anything stored besides the indices that were acknowledged.
#pragma once

#include <kronvale/kronvale.h>

#include <cstdint>
#include <cstring>

namespace NSTest {

constexpr uint64_t kullTicksPerSecond = 10000000ull;
constexpr uint64_t kullTicksPerHour = 3600ull * kullTicksPerSecond;
constexpr uint64_t kullTicksPerSlot = 100000ull;  // the 10 ms grid of an hour's index
constexpr DWORD kcMaxBuffers = 4;
constexpr DWORD kcbMaxBuffer = 256 * 1024;

// SplitMix64's finaliser: a well spread 64-bit hash of a 64-bit number.
inline uint64_t Mix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

struct SFrameShape {
  uint64_t ullTime;  // FILETIME ticks, on the 10 ms grid
  DWORD dwFlags;
  DWORD cBuffers;  // 1 to 4
  DWORD acbSizes[kcMaxBuffers];
};

// Frame i lies i steps after the series' start. The start is three minutes before an hour and the
// step is 20 s to 2.5 min, so a series crosses an hour every few dozen frames. Sizes are spread
// evenly over their binary magnitude from 1 B to 256 KiB: many small frames and some large ones.
class CFrameModel {
 public:
  explicit CFrameModel(uint64_t ullSeed) : m_ullSeed(ullSeed) {
    const uint64_t ullJan2026 = 134116992000000000ull;  // 2026-01-01T00:00:00Z
    m_ullStart = ullJan2026 + (Mix(ullSeed) % 20000) * kullTicksPerHour + 57 * 60 * kullTicksPerSecond;
    m_ullStep = (2000 + Mix(ullSeed ^ 0x5157) % 13000) * kullTicksPerSlot;
  }

  uint64_t Seed() const { return m_ullSeed; }
  uint64_t Time(uint64_t i) const { return m_ullStart + i * m_ullStep; }
  // The index of a frame time, or false for a time that no frame of the series has.
  bool IndexOf(uint64_t ullTime, uint64_t* pi) const {
    if (ullTime < m_ullStart || (ullTime - m_ullStart) % m_ullStep) return false;
    *pi = (ullTime - m_ullStart) / m_ullStep;
    return true;
  }

  SFrameShape Shape(uint64_t i) const {
    const uint64_t h = Mix(m_ullSeed ^ Mix(i));
    SFrameShape shape = {Time(i), static_cast<DWORD>(h >> 40) | 1u, 1 + static_cast<DWORD>(h % kcMaxBuffers), {}};
    for (DWORD b = 0; b < shape.cBuffers; ++b) {
      const uint64_t hb = Mix(h + b);
      const DWORD dwBits = static_cast<DWORD>(hb % 19);  // 2^0 .. 2^18 = 256 KiB
      const DWORD cbLow = 1u << dwBits;
      const DWORD cb = cbLow + static_cast<DWORD>((hb >> 8) % cbLow);
      shape.acbSizes[b] = cb < kcbMaxBuffer ? cb : kcbMaxBuffer;
    }
    return shape;
  }

  // The bytes of buffer b of frame i.
  void Fill(uint64_t i, DWORD b, BYTE* p, DWORD cb) const {
    uint64_t x = Mix(m_ullSeed ^ Mix(i) ^ (0xB0FFull + b));
    DWORD n = 0;
    for (; n + 8 <= cb; n += 8) {
      x = Mix(x);
      std::memcpy(p + n, &x, 8);
    }
    x = Mix(x);
    for (; n < cb; ++n, x >>= 8) p[n] = static_cast<BYTE>(x);
  }
  bool Same(uint64_t i, DWORD b, const BYTE* p, DWORD cb, BYTE* pScratch) const {
    Fill(i, b, pScratch, cb);
    return std::memcmp(p, pScratch, cb) == 0;
  }

 private:
  uint64_t m_ullSeed;
  uint64_t m_ullStart;
  uint64_t m_ullStep;
};

}  // namespace NSTest
