// Arena: the allocation pattern of a large decoding run.

#include <benchmark/benchmark.h>

#include <cstdlib>

#include "tarnplat.h"

namespace {

// One million small blocks of mixed sizes, then the whole region freed.
void BM_Xalloc_MillionSmall(benchmark::State& state) {
  for (auto _ : state) {
    void* h = nullptr;
    for (int i = 0; i < 1000000; ++i) benchmark::DoNotOptimize(my_Xalloc(&h, 16 + (i % 7) * 8));
    my_Xfree(&h);
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * 1000000);
}
BENCHMARK(BM_Xalloc_MillionSmall)->Unit(benchmark::kMillisecond);

// The same blocks from calloc and free, for comparison.
void BM_calloc_MillionSmall(benchmark::State& state) {
  static void* blocks[1000000];
  for (auto _ : state) {
    for (int i = 0; i < 1000000; ++i) blocks[i] = std::calloc(1, 16 + (i % 7) * 8);
    for (void* p : blocks) std::free(p);
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * 1000000);
}
BENCHMARK(BM_calloc_MillionSmall)->Unit(benchmark::kMillisecond);

// A few 20 MiB working buffers among small blocks; the large blocks are
// written only where the caller writes (the first page here).
void BM_Xalloc_LargeBlocks(benchmark::State& state) {
  for (auto _ : state) {
    void* h = nullptr;
    for (int i = 0; i < 4; ++i) {
      auto* p = static_cast<char*>(my_Xalloc(&h, 20u << 20));
      p[0] = 1;
      for (int k = 0; k < 1000; ++k) benchmark::DoNotOptimize(my_Xalloc(&h, 48));
    }
    my_Xfree(&h);
  }
}
BENCHMARK(BM_Xalloc_LargeBlocks)->Unit(benchmark::kMicrosecond);

}  // namespace
