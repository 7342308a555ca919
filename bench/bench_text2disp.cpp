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
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "mime_text2disp_internal.h"

// The per-message file prefix belongs to the saved-parts code, which the
// benchmark does not need.
__attribute__((weak)) void init_cache_path(MIME_DISP*) {}

namespace {

constexpr size_t kTarget = size_t{10} << 20;

std::string read_all(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void text_bodies_of(ME* me, std::string* out) {
  for (; me != nullptr; me = me->next) {
    if (me->h != nullptr && me->h->mime.ctype == MIME_CT_TEXT && me->body_bgn != nullptr && me->datalen > 0)
      out->append(me->body_bgn, static_cast<size_t>(me->datalen));
    text_bodies_of(me->child, out);
  }
}

void append_text_bodies(const std::string& message, std::string* out) {
  std::vector<char> buf(message.begin(), message.end());
  buf.push_back('\0');
  MIME_DECODE ctx = generalME;
  if (mime_decode_init(&ctx, buf.data(), static_cast<int>(message.size()), nullptr, nullptr) != 0) return;
  mime_decode_run(&ctx);
  text_bodies_of(&ctx.result.me_node, out);
  mime_decode_shutdown(&ctx);
}

size_t& unique_bytes() {
  static size_t n = 0;
  return n;
}

const std::string& corpus_text() {
  static const std::string text = [] {
    namespace fs = std::filesystem;
    const fs::path corpus = TARN_CORPUS_DIR;
    std::vector<fs::path> files;
    std::error_code ec;
    for (auto& e : fs::recursive_directory_iterator(corpus / "mime", ec))
      if (e.is_regular_file()) files.push_back(e.path());
    std::sort(files.begin(), files.end());
    std::string plain;
    for (const fs::path& f : files) append_text_bodies(read_all(f), &plain);
    for (const char* name : {"plainbody.txt", "format-flowed.txt", "format-flowed-unfolded.txt"})
      plain += read_all(corpus / "bodies" / "roundcube" / name);
    // A decoded NUL would end the text early.
    plain.erase(std::remove(plain.begin(), plain.end(), '\0'), plain.end());
    if (plain.empty()) plain = "no corpus\n";
    unique_bytes() = plain.size();
    std::string out;
    out.reserve(kTarget + 1);
    while (out.size() < kTarget) out.append(plain, 0, std::min(plain.size(), kTarget - out.size()));
    return out;
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
