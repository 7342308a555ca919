// Plain-text rendering speed on 10 MiB of real mail text, in bytes per
// second, with the reading page's switches (mailreadDE: spaces, links,
// line breaks, quoted-line colours, HTML escapes).
//
// The text is the decoded text/plain bodies of the corpus messages and the
// sample plain bodies, joined and repeated until it reaches 10 MiB.  The
// output goes into the growing buffer, released after every iteration, and
// to no stream.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench_corpus.h"
#include "mime_text2disp_internal.h"

// The per-message file prefix belongs to the saved-parts code, which the
// benchmark does not need.
__attribute__((weak)) void init_cache_path(MIME_DISP*) {}

namespace {

constexpr size_t kTarget = size_t{10} << 20;

size_t& unique_bytes() {
  static size_t n = 0;
  return n;
}

const std::string& corpus_text() {
  static const std::string text = [] {
    std::string plain = tarnbench::corpus_bodies(
        MIME_CT_TEXT, {"plainbody.txt", "format-flowed.txt", "format-flowed-unfolded.txt"}, "no corpus\n");
    unique_bytes() = plain.size();
    return tarnbench::repeat_to(plain, kTarget);
  }();
  return text;
}

void run(benchmark::State& state, const MIME_DISP& preset) {
  std::string text = corpus_text();
  size_t out_bytes = 0;
  for (auto _ : state) {
    MIME_DISP d = preset;
    d.disp_flag = MIME_DISP_OUT_GROWING;
    d.nTextCharsetVal = MLG_UTF8;
    text2disp(text.data(), &d);
    out_bytes = static_cast<size_t>(d.nResultSize);
    benchmark::DoNotOptimize(d.pcResult);
    mime_disp_shutdown(&d);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.size()));
  state.counters["unique_input_bytes"] = static_cast<double>(unique_bytes());
  state.counters["output_bytes"] = static_cast<double>(out_bytes);
}

void BM_Text2DispMailread(benchmark::State& state) { run(state, mailreadDE); }
void BM_Text2DispMsgread(benchmark::State& state) { run(state, msgreadDE); }

BENCHMARK(BM_Text2DispMailread)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Text2DispMsgread)->Unit(benchmark::kMillisecond);

}  // namespace
