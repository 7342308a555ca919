// Arena allocator: handle life cycle, alignment, zero fill, large blocks.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <vector>

#include "tarnplat.h"

namespace {

bool all_zero(const void* p, size_t n) {
  const auto* b = static_cast<const unsigned char*>(p);
  for (size_t i = 0; i < n; ++i)
    if (b[i] != 0) return false;
  return true;
}

bool aligned16(const void* p) { return reinterpret_cast<uintptr_t>(p) % 16 == 0; }

// Frees the arena however the test ends.
struct ArenaHandle {
  void* h = nullptr;
  ~ArenaHandle() { my_Xfree(&h); }
};

TEST(Arena, HandleLifeCycleAndUsage) {
  void* h = nullptr;
  EXPECT_EQ(0u, my_Xused(&h));
  EXPECT_EQ(0u, my_Xused(nullptr));
  my_Xfree(&h);  // a NULL handle is left alone
  my_Xfree(nullptr);
  EXPECT_EQ(nullptr, h);

  void* a = my_Xalloc(&h, 10);
  ASSERT_NE(nullptr, h);
  void* b = my_Xalloc(&h, 0);
  void* c = my_Xalloc(&h, 0);
  void* d = my_Xalloc(&h, 100000);  // a chunk of its own
  EXPECT_NE(nullptr, b);
  EXPECT_NE(b, c);
  EXPECT_NE(a, b);
  EXPECT_NE(c, d);
  EXPECT_EQ(100010u, my_Xused(&h));

  my_Xfree(&h);
  EXPECT_EQ(nullptr, h);
  EXPECT_EQ(0u, my_Xused(&h));
}

TEST(Arena, BlocksAreAlignedZeroedAndDisjoint) {
  ArenaHandle ar;
  struct Block {
    unsigned char* p;
    size_t n;
  };
  std::vector<Block> blocks;
  std::set<void*> seen;
  size_t total = 0;
  // Sizes that walk across many chunk ends, including blocks just under and
  // just over half of the early chunk sizes.
  const size_t sizes[] = {0, 1, 7, 15, 16, 17, 31, 33, 100, 4095, 8191, 8193, 16383, 16385, 40000};
  for (int round = 0; round < 40; ++round) {
    for (size_t n : sizes) {
      auto* p = static_cast<unsigned char*>(my_Xalloc(&ar.h, n));
      ASSERT_TRUE(aligned16(p)) << n;
      ASSERT_TRUE(all_zero(p, n)) << n;
      ASSERT_TRUE(seen.insert(p).second) << "pointer handed out twice";
      std::memset(p, static_cast<int>(blocks.size() & 0xFF) | 1, n);
      blocks.push_back({p, n});
      total += n;
    }
  }
  // No block was written over by a later one.
  for (size_t i = 0; i < blocks.size(); ++i) {
    unsigned char want = static_cast<unsigned char>(i & 0xFF) | 1;
    for (size_t k = 0; k < blocks[i].n; ++k) ASSERT_EQ(want, blocks[i].p[k]) << i;
  }
  EXPECT_EQ(total, my_Xused(&ar.h));
}

TEST(Arena, LargeBlocksAndSmallOnesAround) {
  ArenaHandle ar;
  const size_t big = 20u << 20;
  auto* s1 = static_cast<char*>(my_Xalloc(&ar.h, 24));
  auto* b1 = static_cast<unsigned char*>(my_Xalloc(&ar.h, big));
  auto* s2 = static_cast<char*>(my_Xalloc(&ar.h, 24));
  auto* b2 = static_cast<unsigned char*>(my_Xalloc(&ar.h, big));
  ASSERT_TRUE(aligned16(b1));
  ASSERT_TRUE(aligned16(b2));
  EXPECT_TRUE(all_zero(b1, big));
  EXPECT_TRUE(all_zero(b2, big));
  std::memset(b1, 0xAB, big);
  std::memset(b2, 0xCD, big);
  // A large block does not retire the chunk small blocks are taken from.
  EXPECT_LT(static_cast<size_t>(s2 - s1), 256u);
  EXPECT_TRUE(all_zero(s1, 24));
  EXPECT_TRUE(all_zero(s2, 24));
  EXPECT_EQ(0xAB, b1[big - 1]);
  EXPECT_EQ(0xCD, b2[0]);
  EXPECT_EQ(2 * big + 48, my_Xused(&ar.h));
}

TEST(Arena, ManySmallBlocks) {
  ArenaHandle ar;
  const size_t count = 1000000;
  char* first = nullptr;
  char* last = nullptr;
  for (size_t i = 0; i < count; ++i) {
    auto* p = static_cast<char*>(my_Xalloc(&ar.h, 8));
    if (p[0] != 0 || p[7] != 0) FAIL() << "block " << i << " not zero";
    p[0] = 1;
    p[7] = 2;
    if (i == 0) first = p;
    last = p;
  }
  EXPECT_EQ(8 * count, my_Xused(&ar.h));
  EXPECT_EQ(1, first[0]);
  EXPECT_EQ(2, last[7]);
}

TEST(Arena, FreshArenaAfterFreeIsZeroAgain) {
  // Dirty every block of one arena, free it, and take the same sizes again:
  // the heap hands the memory back, the arena must hand it out clear.
  const size_t sizes[] = {48, 5000, 30000, 200000, 64, 3000000};
  for (int round = 0; round < 3; ++round) {
    void* h = nullptr;
    for (size_t n : sizes) {
      void* p = my_Xalloc(&h, n);
      ASSERT_TRUE(all_zero(p, n)) << "round " << round << " size " << n;
      std::memset(p, 0x5A, n);
    }
    my_Xfree(&h);
    ASSERT_EQ(nullptr, h);
  }
}

TEST(ArenaDeathTest, UnsatisfiableRequestEndsTheProcess) {
  void* h = nullptr;
  EXPECT_DEATH(my_Xalloc(&h, SIZE_MAX - 8), "my_Xalloc: out of memory");
  EXPECT_DEATH(my_Xalloc(nullptr, 8), "my_Xalloc: no arena handle");
}

#if defined(__SANITIZE_ADDRESS__)
TEST(ArenaDeathTest, OverrunIntoNextBlockIsReported) {
  void* h = nullptr;
  auto* p = static_cast<volatile char*>(my_Xalloc(&h, 16));
  my_Xalloc(&h, 16);
  EXPECT_DEATH(p[16] = 1, "AddressSanitizer");
  my_Xfree(&h);
}
#endif

}  // namespace
