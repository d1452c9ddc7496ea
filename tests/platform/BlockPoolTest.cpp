// The pool of large blocks and the byte array over it: a block given back is handed out again, and
// the bytes read as a std::vector's would (what grows is zero, shrinking keeps the rest).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/BlockPool.h"

using namespace NSPlatform;

namespace {

std::string Text(const CPooledBytes& bytes) { return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()); }

}  // namespace

TEST(BlockPool, AGivenBackBlockIsHandedOutAgainWithinItsClassAndTheCapHolds) {
  ReleasePooledBlocks();  // what earlier tests left
  EXPECT_EQ(GetPooledBytes(), 0u);
  // 1.5 MB and a little less share a class (an eighth of a doubling): the second gets the first's block.
  void* pv = TakeBlock(1548608);
  GiveBackBlock(pv, 1548608);
  EXPECT_EQ(GetPooledBytes(), 1572864u);
  void* pvAgain = TakeBlock(1548608 - 4096);
  EXPECT_EQ(pvAgain, pv);
  EXPECT_EQ(GetPooledBytes(), 0u);
  std::memset(pvAgain, 0x5A, 1548608 - 4096);  // the whole request is usable
  GiveBackBlock(pvAgain, 1548608 - 4096);

  // Small blocks are the heap's: the pool never holds them.
  const size_t cbPooled = GetPooledBytes();
  GiveBackBlock(TakeBlock(kcbSmallestPooled - 1), kcbSmallestPooled - 1);
  EXPECT_EQ(GetPooledBytes(), cbPooled);

  // Whatever is given back, the pool keeps no more than its cap.
  std::vector<std::pair<void*, size_t>> vBlocks;
  for (size_t cb = 1 << 20; cb <= kcbMostPooled; cb *= 2) vBlocks.emplace_back(TakeBlock(cb), cb);
  vBlocks.emplace_back(TakeBlock(kcbMostPooled), kcbMostPooled);
  for (const auto& [p, cb] : vBlocks) GiveBackBlock(p, cb);
  EXPECT_LE(GetPooledBytes(), kcbMostPooled);
  ReleasePooledBlocks();
  EXPECT_EQ(GetPooledBytes(), 0u);
}

TEST(BlockPool, PooledBytesGrowWithZerosAndKeepTheirContentThroughGrowthCopiesAndMoves) {
  CPooledBytes bytes;
  EXPECT_TRUE(bytes.empty());
  bytes.resize(3);
  EXPECT_EQ(Text(bytes), std::string(3, '\0'));
  std::memcpy(bytes.data(), "abc", 3);
  // Grown into a pooled block, then back into a block that held other bytes: the new part is zero.
  bytes.resize(2 * kcbSmallestPooled);
  EXPECT_EQ(Text(bytes).substr(0, 4), std::string("abc\0", 4));
  EXPECT_EQ(Text(bytes).find_first_not_of('\0', 3), std::string::npos);
  std::memset(bytes.data() + 3, 'x', bytes.size() - 3);
  bytes.resize(5);
  bytes.resize(2 * kcbSmallestPooled);  // shrinking kept the block, growing again zeroes what returns
  EXPECT_EQ(Text(bytes).substr(0, 6), std::string("abcxx\0", 6));
  EXPECT_EQ(Text(bytes).find_first_not_of('\0', 5), std::string::npos);

  // A write past the end: the gap before it is zero, the written part is the write's.
  CPooledBytes file;
  file.resize(4);
  std::memcpy(file.data(), "head", 4);
  file.resize_for_write(4 + 6 + 3 * kcbSmallestPooled, 10);
  std::memset(file.data() + 10, 'w', file.size() - 10);
  EXPECT_EQ(Text(file).substr(0, 12), std::string("head\0\0\0\0\0\0ww", 12));
  EXPECT_EQ(Text(file).find_first_not_of('w', 10), std::string::npos);

  CPooledBytes copy = file;
  EXPECT_EQ(Text(copy), Text(file));
  copy = bytes;  // into the block copy has: the other's size and bytes
  EXPECT_EQ(Text(copy), Text(bytes));
  CPooledBytes moved = std::move(file);
  EXPECT_TRUE(file.empty());
  EXPECT_EQ(Text(moved).substr(0, 4), "head");
  moved = std::move(copy);
  EXPECT_EQ(Text(moved), Text(bytes));
  moved.clear();
  EXPECT_TRUE(moved.empty());
}
