// Searches and token extraction over real mail text.

#include <benchmark/benchmark.h>
#include <cstring>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tarnplat.h"

namespace {

// About 4 MiB of the corpus messages (NUL bytes removed), repeated as needed.
const std::string& mail_text() {
  static const std::string text = [] {
    std::string all;
    std::error_code ec;
    std::filesystem::path dir = std::filesystem::path(TARN_CORPUS_DIR) / "mime";
    for (auto& e : std::filesystem::recursive_directory_iterator(dir, ec)) {
      if (!e.is_regular_file()) continue;
      std::ifstream in(e.path(), std::ios::binary);
      all.append(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
      if (all.size() > (4u << 20)) break;
    }
    all.erase(std::remove(all.begin(), all.end(), '\0'), all.end());
    if (all.empty()) all = "Content-Type: text/plain; charset=us-ascii\n\nThe quick brown fox.\n";
    while (all.size() < (4u << 20)) all += all;
    all.resize(4u << 20);
    return all;
  }();
  return text;
}

// A pattern that never occurs: the whole text is scanned.
void BM_LocStrCase_Absent(benchmark::State& state, const char* pattern) {
  const std::string& t = mail_text();
  for (auto _ : state) benchmark::DoNotOptimize(MSTR_LocStrCase(t.c_str(), pattern, 0));
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(t.size()));
}
BENCHMARK_CAPTURE(BM_LocStrCase_Absent, rare_first_byte, "<x-nowhere-tag>");
BENCHMARK_CAPTURE(BM_LocStrCase_Absent, frequent_first_letter, "the-nowhere-word");
BENCHMARK_CAPTURE(BM_LocStrCase_Absent, frequent_letters_only, "thisorthat");

void BM_strcasestr_Absent(benchmark::State& state, const char* pattern) {
  const std::string& t = mail_text();
  for (auto _ : state) benchmark::DoNotOptimize(strcasestr(t.c_str(), pattern));
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(t.size()));
}
BENCHMARK_CAPTURE(BM_strcasestr_Absent, frequent_first_letter, "the-nowhere-word");
BENCHMARK_CAPTURE(BM_strcasestr_Absent, frequent_letters_only, "thisorthat");

// Every occurrence in turn, each search starting after the last hit: the
// pattern of a rewriter walking a body.
void BM_LocStrCase_EveryHit(benchmark::State& state, const char* pattern) {
  const std::string& t = mail_text();
  size_t hits = 0;
  for (auto _ : state) {
    hits = 0;
    for (const char* p = t.c_str(); (p = MSTR_LocStrCase(p, pattern, 0)) != nullptr; ++p) ++hits;
  }
  state.counters["hits"] = double(hits);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(t.size()));
}
BENCHMARK_CAPTURE(BM_LocStrCase_EveryHit, content_dash, "content-");
BENCHMARK_CAPTURE(BM_LocStrCase_EveryHit, a_href, "<a href");

void BM_LocStr_Absent(benchmark::State& state) {
  const std::string& t = mail_text();
  for (auto _ : state) benchmark::DoNotOptimize(MSTR_LocStr(t.c_str(), "\n--nowhere-boundary"));
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(t.size()));
}
BENCHMARK(BM_LocStr_Absent);

void BM_TokVal_ContentType(benchmark::State& state) {
  const char* ct =
      "multipart/alternative;\n\tcharset=\"utf-8\"; format=flowed;\n\t"
      "boundary=\"----=_NextPart_000_0012_01D7A2B3.4C5D6E70\"";
  char buf[256];
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        MSTR_TokVal(ct, "boundary", " \n\t", "=", " \n\t;", "\"", 0, 0, buf, sizeof buf, 0));
    benchmark::DoNotOptimize(
        MSTR_TokVal(ct, "charset", " \n\t", "=", " \n\t;", "\"", 0, 0, buf, sizeof buf, 0));
  }
}
BENCHMARK(BM_TokVal_ContentType);

void BM_Copy_Utf8Cut(benchmark::State& state) {
  std::string src;
  while (src.size() < 4096) src += "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E text ";
  char buf[1024];
  for (auto _ : state) benchmark::DoNotOptimize(MSTR_Copy(buf, sizeof buf, src.c_str(), MLG_UTF8));
}
BENCHMARK(BM_Copy_Utf8Cut);

}  // namespace
