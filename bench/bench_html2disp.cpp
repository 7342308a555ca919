// HTML rewriting speed on 10 MiB of real HTML, in bytes per second.
//
// The text is the decoded text/html bodies of the corpus messages and the
// sample HTML bodies, joined and repeated until it reaches 10 MiB.
// html2disp may rewrite its input in place (style sheets are defused), so
// every iteration works on a fresh copy made with the timer paused; the
// output goes into the context's growing buffer, released with the timer
// paused too.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "bench_corpus.h"
#include "tarnmail.h"
#include "tarnmail/disp.h"
#include "tarnmail/filter.h"

// The per-message file prefix is computed by the saved-parts code; the
// rewriter does not need it.
__attribute__((weak)) void init_cache_path(MIME_DISP*) {}

namespace {

constexpr size_t kTarget = size_t{10} << 20;

const std::string& corpus_html() {
  static const std::string text = tarnbench::repeat_to(
      tarnbench::corpus_bodies(MIME_CT_HTML, tarnbench::kHtmlBodyFiles, "<p>no corpus</p>"), kTarget);
  return text;
}

// html2disp with the switches of a page; attachment_bits says whether the
// message has parts with a Content-ID (2) or a Content-Location (4), which
// makes the rewriter look at every URI attribute.
void run(benchmark::State& state, const MIME_DISP& preset, int attachment_bits) {
  const std::string& src = corpus_html();
  std::vector<char> work(src.size() + 1);
  HME hme{};
  hme.me_info._attachment = attachment_bits;
  fileCID cid{};
  cid.cid = const_cast<char*>("part1@example");
  cid.fileid = const_cast<char*>("1");
  cid.filename = const_cast<char*>("a.gif");
  long out_bytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::memcpy(work.data(), src.data(), src.size());
    work[src.size()] = '\0';
    MIME_DISP d = preset;
    d.disp_flag = MIME_DISP_OUT_GROWING;
    d.showdata = &hme;
    d._fileCID = cid;
    state.ResumeTiming();
    html2disp(work.data(), nullptr, &d);
    benchmark::DoNotOptimize(d.pcResult);
    state.PauseTiming();
    out_bytes = d.nResultSize;
    mime_disp_shutdown(&d);
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(src.size()));
  state.counters["output_MiB"] = static_cast<double>(out_bytes) / (1 << 20);
}

// The message-reading page: removal passes for object and embed, mailto
// and new-window links, meta refresh, placeholders.
void BM_Html2disp_msgreadDE(benchmark::State& state) { run(state, msgreadDE, 0); }
// The mail-reading page.
void BM_Html2disp_mailreadDE(benchmark::State& state) { run(state, mailreadDE, 0); }
// The message-reading page for a message with saved parts to link.
void BM_Html2disp_msgreadDE_Parts(benchmark::State& state) { run(state, msgreadDE, 2 | 4); }

BENCHMARK(BM_Html2disp_msgreadDE)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Html2disp_mailreadDE)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Html2disp_msgreadDE_Parts)->Unit(benchmark::kMillisecond);

}  // namespace
