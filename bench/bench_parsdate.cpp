// parsedate calls per second: the Date fields of the corpus messages, and a
// few single forms that take different paths (zone names, no zone, relative
// items, the current time).

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tarnmail.h"
#include "tarnmail/date.h"

namespace {

constexpr time_t kNow = 1767607200;  // 2026-01-05 10:00 UTC

// The first Date field of a message's header block, unfolded; "" if none.
std::string first_date(const std::string& msg) {
  std::size_t end = msg.find("\n\n");
  const std::size_t crlf = msg.find("\r\n\r\n");
  if (crlf != std::string::npos && (end == std::string::npos || crlf < end)) end = crlf;
  const std::string header = msg.substr(0, end);
  for (std::size_t line = 0; line < header.size();) {
    std::size_t next = header.find('\n', line);
    if (next == std::string::npos) next = header.size();
    if (header.compare(line, 5, "Date:") == 0 || header.compare(line, 5, "date:") == 0) {
      std::string value;
      std::size_t pos = line + 5;
      for (;;) {
        std::size_t eol = header.find('\n', pos);
        if (eol == std::string::npos) eol = header.size();
        value.append(header, pos, eol - pos);
        if (!value.empty() && value.back() == '\r') value.pop_back();
        if (eol + 1 >= header.size() || (header[eol + 1] != ' ' && header[eol + 1] != '\t')) break;
        pos = eol + 1;
      }
      return value;
    }
    line = next + 1;
  }
  return {};
}

const std::vector<std::string>& corpus_dates() {
  static const std::vector<std::string> dates = [] {
    std::vector<std::string> out;
    const std::filesystem::path root = std::filesystem::path(TARN_CORPUS_DIR) / "mime";
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(root, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
      if (!it->is_regular_file()) continue;
      std::ifstream in(it->path(), std::ios::binary);
      const std::string msg((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      std::string date = first_date(msg);
      if (!date.empty()) out.push_back(std::move(date));
    }
    std::sort(out.begin(), out.end());
    return out;
  }();
  return dates;
}

void BM_CorpusDates(benchmark::State& state) {
  const std::vector<std::string>& dates = corpus_dates();
  if (dates.empty()) {
    state.SkipWithError("no Date fields found under the corpus");
    return;
  }
  std::size_t i = 0;
  TIMEINFO now{kNow, 0, 0};
  for (auto _ : state) {
    benchmark::DoNotOptimize(parsedate(dates[i].c_str(), &now));
    if (++i == dates.size()) i = 0;
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  state.counters["dates"] = static_cast<double>(dates.size());
}
BENCHMARK(BM_CorpusDates);

void run(benchmark::State& state, const char* text, TIMEINFO* now) {
  for (auto _ : state) benchmark::DoNotOptimize(parsedate(text, now));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void BM_NumericZone(benchmark::State& state) {
  TIMEINFO now{kNow, 0, 0};
  run(state, "Mon, 05 Jan 2026 10:00:00 +0800 (CST)", &now);
}
BENCHMARK(BM_NumericZone);

void BM_ZoneName(benchmark::State& state) {
  TIMEINFO now{kNow, 0, 0};
  run(state, "Mon, 05 Jan 2026 10:00:00 NZDT", &now);
}
BENCHMARK(BM_ZoneName);

// No zone: the local clock is asked whether daylight time applies.
void BM_NoZone(benchmark::State& state) {
  TIMEINFO now{kNow, 0, 0};
  run(state, "12/25/99 10:00pm", &now);
}
BENCHMARK(BM_NoZone);

void BM_Relative(benchmark::State& state) {
  TIMEINFO now{kNow, 0, 0};
  run(state, "+3 days 2 hours", &now);
}
BENCHMARK(BM_Relative);

// now NULL: the current time through GetTimeInfo.
void BM_CurrentTime(benchmark::State& state) { run(state, "Mon, 05 Jan 2026 10:00:00 GMT", nullptr); }
BENCHMARK(BM_CurrentTime);

void BM_RFC822Str(benchmark::State& state) {
  char buf[64];
  const time_t t = kNow;
  for (auto _ : state) benchmark::DoNotOptimize(MTM_RFC822Str2(buf, sizeof buf, &t));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_RFC822Str);

}  // namespace
