// Conversions to UTF-8 on about 4 MiB of text built from the charset
// samples of the corpus: the per-call cost of the cached descriptors, the
// Japanese detection, and the fallback path on text full of bytes the
// first converter refuses.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "tarnplat.h"

namespace {

constexpr size_t kTarget = size_t{4} << 20;

std::string Sample(const char* name) {
  std::ifstream in(std::string(TARN_CORPUS_DIR) + "/charsets/gmime/" + name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string Repeat(const std::string& s) {
  std::string out;
  if (s.empty()) return out;
  while (out.size() < kTarget) out += s;
  return out;
}

void Convert(benchmark::State& state, const std::string& text, int charset) {
  if (text.empty()) {
    state.SkipWithError("corpus sample missing");
    return;
  }
  for (auto _ : state) {
    size_t n = 0;
    char* p = MUC_Text2UTF8N(text.data(), text.size(), charset, &n);
    benchmark::DoNotOptimize(p);
    std::free(p);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text.size()));
}

void BM_Windows1251(benchmark::State& state) {
  static const std::string text = Repeat(Sample("cyrillic.cp1251.txt"));
  Convert(state, text, MLG_CharsetWEncToValue("windows-1251"));
}

void BM_Big5(benchmark::State& state) {
  static const std::string text = Repeat(Sample("chinese.big5.txt"));
  Convert(state, text, MLG_BIG5);
}

void BM_JapaneseDetectedShiftJis(benchmark::State& state) {
  static const std::string text = Repeat(Sample("japanese.shift-jis.txt"));
  Convert(state, text, MLG_JAPANESE);
}

void BM_JapaneseDetectedJis(benchmark::State& state) {
  static const std::string text = Repeat(Sample("japanese.iso-2022-jp.txt"));
  Convert(state, text, MLG_JAPANESE);
}

// Every other byte is one CP1252 leaves undefined: each goes through the
// ISO-8859-1 fallback.
void BM_Latin1Fallback(benchmark::State& state) {
  static const std::string text = Repeat("a\x81");
  Convert(state, text, MLG_ISO8859_1);
}

// Short texts, as header values are: the cost of one call.
void BM_ShortLatin1(benchmark::State& state) {
  const std::string text = "Re: r\xE9union du comit\xE9";
  for (auto _ : state) {
    char* p = MUC_Text2UTF8(text.c_str(), MLG_ISO8859_1);
    benchmark::DoNotOptimize(p);
    std::free(p);
  }
}

}  // namespace

BENCHMARK(BM_Windows1251)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Big5)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JapaneseDetectedShiftJis)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JapaneseDetectedJis)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Latin1Fallback)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ShortLatin1);
