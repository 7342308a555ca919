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
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tarnmail.h"
#include "tarnmail/filter.h"

namespace {

constexpr size_t kTarget = size_t{10} << 20;

std::string read_all(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void html_bodies_of(ME* me, std::string* out) {
  for (; me != nullptr; me = me->next) {
    if (me->h != nullptr && me->h->mime.ctype == MIME_CT_HTML && me->body_bgn != nullptr && me->datalen > 0)
      out->append(me->body_bgn, static_cast<size_t>(me->datalen));
    html_bodies_of(me->child, out);
  }
}

// Decodes one message and appends its HTML bodies.
void append_html_bodies(const std::string& message, std::string* out) {
  std::vector<char> buf(message.begin(), message.end());
  buf.push_back('\0');
  MIME_DECODE ctx = generalME;
  if (mime_decode_init(&ctx, buf.data(), static_cast<int>(message.size()), nullptr, nullptr) != 0) return;
  mime_decode_run(&ctx);
  html_bodies_of(&ctx.result.me_node, out);
  mime_decode_shutdown(&ctx);
}

size_t& unique_bytes() {
  static size_t n = 0;
  return n;
}

const std::string& corpus_html() {
  static const std::string text = [] {
    namespace fs = std::filesystem;
    const fs::path corpus = TARN_CORPUS_DIR;
    std::vector<fs::path> files;
    std::error_code ec;
    for (auto& e : fs::recursive_directory_iterator(corpus / "mime", ec))
      if (e.is_regular_file()) files.push_back(e.path());
    std::sort(files.begin(), files.end());
    std::string html;
    for (const fs::path& f : files) append_html_bodies(read_all(f), &html);
    for (const char* name : {"htmlbase.txt", "htmlbody.txt", "htmlcom.txt", "htmlxss.txt", "BID-26800.txt"})
      html += read_all(corpus / "bodies" / "roundcube" / name);
    // A decoded NUL would end the text early: the filters stop at one.
    html.erase(std::remove(html.begin(), html.end(), '\0'), html.end());
    if (html.empty()) html = "<p>no corpus</p>";
    unique_bytes() = html.size();
    std::string out;
    out.reserve(kTarget);
    while (out.size() < kTarget) out.append(html, 0, std::min(html.size(), kTarget - out.size()));
    return out;
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
