// Sender parsing and address order: one usual From value, a 1 MiB value and
// a From text holding 100,000 addresses.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "tarnmail.h"
#include "tarnmail/address.h"

namespace {

// Outputs as large as the value: the nickname copy and its decoding then
// run over the whole text, the worst case.
void run(benchmark::State& state, const std::string& value, int charset) {
  std::vector<char> email(value.size() + 1), nick(value.size() + 1);
  const int size = static_cast<int>(value.size() + 1);
  for (auto _ : state) {
    benchmark::DoNotOptimize(MLG_FromParse(value.c_str(), email.data(), size, nick.data(), size, charset));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(value.size()));
}

std::string address_list(int count) {
  std::string s;
  for (int i = 0; i < count; ++i) s += "\"User " + std::to_string(i) + "\" <user" + std::to_string(i) + "@example.org>, ";
  return s;
}

void BM_FromUsual(benchmark::State& state) {
  run(state, "\"=?utf-8?Q?J=C3=B6rg_M=C3=BCller?=\" <joerg.mueller@example.de>", 3);
}
BENCHMARK(BM_FromUsual);

void BM_FromQuoted1MiB(benchmark::State& state) {
  std::string nick;
  while (nick.size() < (1u << 20)) nick += "\\\"\xA4\x5C ab";
  run(state, "\"" + nick + "\" <a@b>", 2);
}
BENCHMARK(BM_FromQuoted1MiB)->Unit(benchmark::kMillisecond);

void BM_FromComment1MiB(benchmark::State& state) {
  run(state, "a@b (\"" + std::string(1u << 20, '\xC3') + ")", 3);
}
BENCHMARK(BM_FromComment1MiB)->Unit(benchmark::kMillisecond);

void BM_FromList100k(benchmark::State& state) {
  run(state, address_list(100000) + "Last <last@example.org>", 3);
}
BENCHMARK(BM_FromList100k)->Unit(benchmark::kMillisecond);

void BM_Cmp(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(MEML_Cmp("Joerg.Mueller@Example.DE", "joerg.mueller@example.de", 0));
    benchmark::DoNotOptimize(MEML_DCmp("a@example.org", "b@example.com"));
  }
}
BENCHMARK(BM_Cmp);

}  // namespace
