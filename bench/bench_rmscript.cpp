// Content filter speed on 10 MiB of real HTML, in bytes per second.
//
// The text is the decoded text/html bodies of the corpus messages and the
// sample HTML bodies, joined and repeated until it reaches 10 MiB.
// replace_script rewrites in place, so every iteration works on a fresh
// copy made with the timer paused; remove_script_block writes into its own
// buffer and needs none.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "bench_corpus.h"
#include "tarnmail.h"
#include "tarnmail/filter.h"

namespace {

constexpr size_t kTarget = size_t{10} << 20;

size_t& unique_bytes() {
  static size_t n = 0;
  return n;
}

const std::string& corpus_html() {
  static const std::string text = [] {
    std::string html = tarnbench::corpus_bodies(MIME_CT_HTML, tarnbench::kHtmlBodyFiles, "<p>no corpus</p>");
    unique_bytes() = html.size();
    return tarnbench::repeat_to(html, kTarget);
  }();
  return text;
}

void run_replace(benchmark::State& state, int tag_only) {
  const std::string& src = corpus_html();
  std::vector<char> work(src.size());
  for (auto _ : state) {
    state.PauseTiming();
    std::memcpy(work.data(), src.data(), src.size());
    state.ResumeTiming();
    benchmark::DoNotOptimize(replace_script(work.data(), static_cast<int>(work.size()), tag_only));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(src.size()));
  state.counters["distinct_html_KiB"] = static_cast<double>(unique_bytes()) / 1024;
}

// As the HTML display calls it: only text inside tags is looked at.
void BM_ReplaceScript_InTags(benchmark::State& state) { run_replace(state, 1); }
// Over the whole text, as for a style block.
void BM_ReplaceScript_WholeText(benchmark::State& state) { run_replace(state, 0); }

// One removal pass with every element selected.
void BM_RemoveScriptBlock(benchmark::State& state) {
  const std::string& src = corpus_html();
  std::vector<char> out(src.size() + 1);
  for (auto _ : state) {
    benchmark::DoNotOptimize(remove_script_block(src.data(), static_cast<int>(src.size()), out.data(),
                                                 static_cast<int>(out.size()), 1 | 2 | 4 | 8 | 16));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(src.size()));
}

void BM_Copy10MiB(benchmark::State& state) {
  const std::string& src = corpus_html();
  std::vector<char> work(src.size());
  for (auto _ : state) {
    std::memcpy(work.data(), src.data(), src.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(src.size()));
}

BENCHMARK(BM_ReplaceScript_InTags)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReplaceScript_WholeText)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RemoveScriptBlock)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Copy10MiB)->Unit(benchmark::kMillisecond);

}  // namespace
