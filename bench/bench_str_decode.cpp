// Encoded-word decoding of header values, from one subject to a huge
// folded recipient list.

#include <benchmark/benchmark.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tarnmail.h"

namespace {

// `count` encoded words of the given kind joined by folds.
std::string folded_words(int count, bool base64) {
  const std::string word = base64 ? "=?utf-8?B?w6lsw6h2ZSBkdSBtb2lz?=" : "=?utf-8?Q?=C3=A9l=C3=A8ve_du_mois?=";
  std::string s;
  for (int i = 0; i < count; ++i) {
    s += word;
    if (i + 1 < count) s += (i % 2 == 0) ? "\n\t" : "\n ";
  }
  return s;
}

// The To field of the corpus message with thousands of encoded words.
std::string corpus_recipients() {
  std::ifstream in(std::string(TARN_CORPUS_DIR) + "/mime/mimekit/messages/stack-overflow.txt",
                   std::ios::binary);
  std::string msg((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const std::size_t to = msg.find("\nTo: ");
  if (to == std::string::npos) return folded_words(2700, false);
  const std::size_t start = to + 5;
  std::size_t end = msg.find('\n', start);
  while (end != std::string::npos && end + 1 < msg.size() && (msg[end + 1] == '\t' || msg[end + 1] == ' '))
    end = msg.find('\n', end + 1);
  return msg.substr(start, (end == std::string::npos ? msg.size() : end) - start);
}

// Each iteration decodes a fresh copy (the decoder works in place).
void run(benchmark::State& state, const std::string& value) {
  std::vector<char> buf(value.size() + 1);
  for (auto _ : state) {
    std::memcpy(buf.data(), value.c_str(), value.size() + 1);
    benchmark::DoNotOptimize(MSTR_Decode(buf.data()));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(value.size()));
}

void BM_Subject(benchmark::State& state) {
  run(state, "Re: =?UTF-8?B?44CQ6YeN6KaB6KiK5oGv44CR5Y+w6Zu7MTA15bm0?= =?UTF-8?Q?caf=C3=A9?=");
}
BENCHMARK(BM_Subject);

void BM_PlainValue(benchmark::State& state) {
  run(state, "John Doe <john.doe@example.com>, Jane Roe <jane.roe@example.org>");
}
BENCHMARK(BM_PlainValue);

void BM_FoldedQ(benchmark::State& state) { run(state, folded_words(static_cast<int>(state.range(0)), false)); }
BENCHMARK(BM_FoldedQ)->Arg(100)->Arg(30000);  // 30000 words: about 1 MiB

void BM_FoldedB(benchmark::State& state) { run(state, folded_words(static_cast<int>(state.range(0)), true)); }
BENCHMARK(BM_FoldedB)->Arg(100)->Arg(30000);

void BM_CorpusRecipients(benchmark::State& state) {
  static const std::string value = corpus_recipients();
  run(state, value);
}
BENCHMARK(BM_CorpusRecipients);

}  // namespace
