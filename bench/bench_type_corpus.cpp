// mime_type_checking, in calls per second, on the heads (up to 8 KiB) of
// the attachments of the corpus messages, by content alone and by content
// and name, with the project's magic and mime.types files.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "bench_corpus.h"
#include "tarnmail.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t kSmallMax = 64 * 1024;
constexpr size_t kHeadBytes = 8192;


// Corpus files below mime/ that the index tags as single messages.
std::vector<std::string> corpus_messages() {
  const fs::path corpus(TARN_CORPUS_DIR);
  std::ifstream index(corpus / "INDEX.tsv");
  std::vector<std::string> out;
  std::string line;
  while (std::getline(index, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string path, bytes, tags;
    std::getline(fields, path, '\t');
    std::getline(fields, bytes, '\t');
    std::getline(fields, tags, '\t');
    if (path.rfind("mime/", 0) != 0 || tags.substr(0, tags.find(' ')) != "msg") continue;
    std::error_code ec;
    if (fs::file_size(corpus / path, ec) >= kSmallMax || ec) continue;
    std::ifstream in(corpus / path, std::ios::binary);
    out.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  return out;
}

// Heads of the decoded attachments of the corpus messages, with names.
struct Head {
  std::string bytes;
  std::string name;
};

const std::vector<Head>& attachment_heads() {
  static const std::vector<Head> heads = [] {
    std::vector<Head> out;
    for (std::string m : corpus_messages()) {
      const size_t size = m.size();
      m.push_back('\0');
      MIME_DECODE ctx = generalME;
      mime_decode_init(&ctx, m.data(), static_cast<int>(size), nullptr, nullptr);
      mime_decode_run(&ctx);
      std::vector<const ME*> stack{&ctx.result.me_node};
      while (!stack.empty()) {
        const ME* me = stack.back();
        stack.pop_back();
        if (me->next != nullptr) stack.push_back(me->next);
        if (me->child != nullptr) stack.push_back(me->child);
        if (me->child != nullptr || me->h == nullptr || me->h->mime.filename == nullptr) continue;
        if (me->body_bgn == nullptr || me->datalen <= 0) continue;
        const size_t n = std::min(static_cast<size_t>(me->datalen), kHeadBytes);
        out.push_back({std::string(me->body_bgn, n), me->h->mime.filename});
      }
      mime_decode_shutdown(&ctx);
    }
    return out;
  }();
  return heads;
}

// One call per attachment head and iteration; items per second are calls.
void BM_TypeChecking(benchmark::State& state, bool with_name) {
  if (!tarnbench::tables_ready()) return state.SkipWithError("the type tables of the source tree cannot be read");
  const std::vector<Head>& heads = attachment_heads();
  if (heads.empty()) return state.SkipWithError("no attachments in the corpus");
  for (auto _ : state)
    for (const Head& h : heads)
      benchmark::DoNotOptimize(mime_type_checking(reinterpret_cast<const unsigned char*>(h.bytes.data()),
                                                  static_cast<int>(h.bytes.size()),
                                                  with_name ? reinterpret_cast<const unsigned char*>(h.name.c_str())
                                                            : nullptr));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(heads.size()));
  state.counters["heads"] = static_cast<double>(heads.size());
}

BENCHMARK_CAPTURE(BM_TypeChecking, by_content, false)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_TypeChecking, by_content_and_name, true)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
