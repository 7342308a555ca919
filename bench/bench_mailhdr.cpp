// The header record as a mail list fills it: mailhdr_init and mailhdr_parse
// over the corpus messages, one record per message, and the record filled
// from an already decoded message.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "tarnmail.h"
#include "tarnmail/mailhdr.h"

namespace {

// Every corpus message, sorted by path so that runs compare.
const std::vector<std::string>& corpus_messages() {
  static const std::vector<std::string> messages = [] {
    std::vector<std::string> paths;
    std::error_code ec;
    for (auto& e : std::filesystem::recursive_directory_iterator(std::string(TARN_CORPUS_DIR) + "/mime", ec))
      if (e.is_regular_file()) paths.push_back(e.path().string());
    std::sort(paths.begin(), paths.end());
    std::vector<std::string> out;
    for (const std::string& p : paths) {
      std::ifstream in(p, std::ios::binary);
      out.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    return out;
  }();
  return messages;
}

void BM_InitParse(benchmark::State& state) {
  const auto& messages = corpus_messages();
  auto m = std::make_unique<mailhdr>();
  int64_t bytes = 0;
  size_t i = 0;
  for (auto _ : state) {
    const std::string& msg = messages[i];
    i = (i + 1) % messages.size();
    mailhdr_init(m.get(), "iso-8859-1", msg.data(), static_cast<int>(msg.size()));
    mailhdr_parse(m.get());
    benchmark::DoNotOptimize(m->subject);
    bytes += static_cast<int64_t>(std::min<size_t>(msg.size(), MAILHDR_DATA_SIZE - 1));
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(bytes);
  state.counters["messages"] = static_cast<double>(messages.size());
}
BENCHMARK(BM_InitParse);

// Decoding included: what a list page pays when it takes the record from
// the tree instead (dup_mail_hdr with every part, the preview rendered).
void BM_DecodeDup(benchmark::State& state) {
  const auto& messages = corpus_messages();
  auto m = std::make_unique<mailhdr>();
  std::vector<char> buf;
  size_t i = 0;
  for (auto _ : state) {
    const std::string& msg = messages[i];
    i = (i + 1) % messages.size();
    buf.assign(msg.begin(), msg.end());
    buf.push_back('\0');
    MIME_DECODE dec = generalME;
    mime_decode_init(&dec, buf.data(), static_cast<int>(msg.size()), nullptr, nullptr);
    mime_decode_run(&dec);
    dup_mail_hdr(&dec, m.get(), "iso-8859-1", static_cast<int>(msg.size()));
    benchmark::DoNotOptimize(m->text);
    free_dup_mail_hdr(m.get());
    mime_decode_shutdown(&dec);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DecodeDup);

}  // namespace
