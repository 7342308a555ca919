// Decoding speed, in bytes of raw message per second.
//
//  - a 20 MiB multipart/mixed message: a short text part and base64
//    attachments of random bytes in 76-character CR LF lines;
//  - 1,000 small typical messages: the corpus messages below 64 KiB (taken
//    again from the start until there are 1,000), all decoded in each
//    iteration.
//
// Each with imapME (the structure walk and header parsing alone: no
// transfer decoding, no charset work), with generalME (everything) and
// with msgreadME (everything and TNEF expansion: the reading page's
// preset).  The type tables are the source tree's, as retyping asks them.
// Decoding works in place, so every iteration decodes a fresh copy; the
// copy is made with the timer paused, and on its own in the *_CopyOnly
// benchmark for reference.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "bench_corpus.h"
#include "tarnmail.h"

namespace {

constexpr size_t kMiB = 1024 * 1024;


std::string base64_lines(const std::string& bytes) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve(bytes.size() * 4 / 3 + bytes.size() / 57 * 2 + 8);
  size_t col = 0;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t v = static_cast<uint8_t>(bytes[i]) << 16;
    size_t n = std::min<size_t>(3, bytes.size() - i);
    if (n > 1) v |= static_cast<uint8_t>(bytes[i + 1]) << 8;
    if (n > 2) v |= static_cast<uint8_t>(bytes[i + 2]);
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += n > 1 ? kAlphabet[(v >> 6) & 63] : '=';
    out += n > 2 ? kAlphabet[v & 63] : '=';
    if ((col += 4) == 76) {
      out += "\r\n";
      col = 0;
    }
  }
  if (col != 0) out += "\r\n";
  return out;
}

constexpr int kAttachments = 4;
constexpr size_t kAttachmentBytes = 20 * kMiB * 3 / 4 / kAttachments;

// The big message: about 20 MiB, almost all of it base64.
const std::string& big_message() {
  static const std::string message = [] {
    std::mt19937 gen(76);
    std::string m =
        "From: Sender <sender@example.org>\r\n"
        "To: Receiver <receiver@example.net>\r\n"
        "Subject: quarterly figures\r\n"
        "Date: Tue, 4 Jun 2024 09:12:44 +0200\r\n"
        "Message-ID: <big.1@example.org>\r\n"
        "MIME-Version: 1.0\r\n"
        "Content-Type: multipart/mixed; boundary=\"=_big_boundary_0042\"\r\n"
        "\r\n"
        "This is a multi-part message in MIME format.\r\n"
        "\r\n"
        "--=_big_boundary_0042\r\n"
        "Content-Type: text/plain; charset=utf-8\r\n"
        "Content-Transfer-Encoding: 7bit\r\n"
        "\r\n"
        "Hello,\r\n\r\nthe figures are attached.\r\n\r\nRegards\r\n"
        "\r\n";
    const size_t raw = kAttachmentBytes;
    for (int a = 0; a < kAttachments; ++a) {
      std::string bytes(raw, '\0');
      for (char& c : bytes) c = static_cast<char>(gen());
      m += "--=_big_boundary_0042\r\n"
           "Content-Type: application/octet-stream; name=\"data" + std::to_string(a) + ".bin\"\r\n"
           "Content-Transfer-Encoding: base64\r\n"
           "Content-Disposition: attachment; filename=\"data" + std::to_string(a) + ".bin\"\r\n"
           "\r\n";
      m += base64_lines(bytes);
    }
    m += "--=_big_boundary_0042--\r\n";
    return m;
  }();
  return message;
}

// Files of mime/ that the corpus index marks as something else than a
// message.
std::set<std::string> non_messages(const std::filesystem::path& corpus) {
  std::set<std::string> out;
  std::ifstream index(corpus / "INDEX.tsv");
  std::string line;
  while (std::getline(index, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string path, bytes, tags;
    std::getline(fields, path, '\t');
    std::getline(fields, bytes, '\t');
    std::getline(fields, tags, '\t');
    std::string kind = tags.substr(0, tags.find(' '));
    if (kind != "msg" && kind != "mbox" && kind != "other") out.insert(path);
  }
  return out;
}

// A small message of the usual kind, for a machine without the corpus.
std::string synthetic_message(int i) {
  std::string m = "From: a" + std::to_string(i) + "@example.org\r\nTo: b@example.net\r\nSubject: note " +
                  std::to_string(i) + "\r\nMIME-Version: 1.0\r\n";
  if (i % 3 == 0) return m + "Content-Type: text/plain; charset=us-ascii\r\n\r\n" + std::string(2000, 'p') + "\r\n";
  return m + "Content-Type: multipart/alternative; boundary=\"alt\"\r\n\r\n--alt\r\nContent-Type: text/plain; "
             "charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\nCaf=C3=A9 " +
         std::string(1500, 'q') + "\r\n--alt\r\nContent-Type: text/html; charset=utf-8\r\n\r\n<p>" +
         std::string(3000, 'h') + "</p>\r\n--alt--\r\n";
}

// 1,000 small messages laid out one after another, each followed by the
// terminator byte the engine needs.
struct SmallSet {
  std::string pristine;  // the messages and their terminators
  std::vector<std::pair<size_t, size_t>> spans;  // offset and size of each
  size_t bytes = 0;      // message bytes, terminators not counted
};

const SmallSet& small_set() {
  static const SmallSet set = [] {
    constexpr size_t kCount = 1000;
    constexpr size_t kMaxSize = 64 * 1024;
    std::vector<std::string> found;
    std::filesystem::path corpus(TARN_CORPUS_DIR);
    std::error_code ec;
    if (std::filesystem::is_directory(corpus / "mime", ec)) {
      std::set<std::string> skip = non_messages(corpus);
      std::vector<std::filesystem::path> files;
      for (auto& e : std::filesystem::recursive_directory_iterator(corpus / "mime", ec))
        if (e.is_regular_file() && e.file_size() < kMaxSize) files.push_back(e.path());
      std::sort(files.begin(), files.end());
      for (const auto& f : files) {
        if (skip.count(f.lexically_relative(corpus).string()) != 0) continue;
        std::ifstream in(f, std::ios::binary);
        found.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
      }
    }
    if (found.empty())
      for (int i = 0; i < 100; ++i) found.push_back(synthetic_message(i));
    SmallSet s;
    for (size_t i = 0; i < kCount; ++i) {
      const std::string& m = found[i % found.size()];
      s.spans.emplace_back(s.pristine.size(), m.size());
      s.pristine += m;
      s.pristine += '\0';
      s.bytes += m.size();
    }
    return s;
  }();
  return set;
}

void decode_one(const MIME_DECODE& preset, char* buf, size_t size) {
  MIME_DECODE ctx = preset;
  mime_decode_init(&ctx, buf, static_cast<int>(size), nullptr, nullptr);
  benchmark::DoNotOptimize(mime_decode_run(&ctx));
  mime_decode_shutdown(&ctx);
}

// The figures mean something only if the preset really decodes the
// attachments: each must come out at its raw size.
bool big_message_decodes(const MIME_DECODE& preset) {
  const std::string& m = big_message();
  std::vector<char> work(m.begin(), m.end());
  work.push_back('\0');
  MIME_DECODE ctx = preset;
  mime_decode_init(&ctx, work.data(), static_cast<int>(m.size()), nullptr, nullptr);
  bool ok = mime_decode_run(&ctx) == 0 && ctx.result.me_node.child != nullptr;
  int parts = 0;
  for (const ME* part = ctx.result.me_node.child; ok && part != nullptr; part = part->next, ++parts)
    if (parts > 0) ok = part->datalen == static_cast<int>(kAttachmentBytes);
  mime_decode_shutdown(&ctx);
  return ok && parts == kAttachments + 1;
}

void BM_Big(benchmark::State& state, const MIME_DECODE* preset) {
  if (!tarnbench::tables_ready()) return state.SkipWithError("the type tables of the source tree cannot be read");
  const std::string& m = big_message();
  if (preset->decode_level != 0 && !big_message_decodes(*preset)) {
    state.SkipWithError("the 20 MiB message does not decode as built");
    return;
  }
  std::vector<char> work(m.size() + 1);
  for (auto _ : state) {
    state.PauseTiming();
    memcpy(work.data(), m.data(), m.size());
    state.ResumeTiming();
    decode_one(*preset, work.data(), m.size());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(m.size()));
  state.counters["MiB"] = static_cast<double>(m.size()) / kMiB;
}

void BM_Small(benchmark::State& state, const MIME_DECODE* preset) {
  if (!tarnbench::tables_ready()) return state.SkipWithError("the type tables of the source tree cannot be read");
  const SmallSet& s = small_set();
  std::string work(s.pristine.size(), '\0');
  for (auto _ : state) {
    state.PauseTiming();
    memcpy(work.data(), s.pristine.data(), s.pristine.size());
    state.ResumeTiming();
    for (const auto& [offset, size] : s.spans) decode_one(*preset, work.data() + offset, size);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(s.bytes));
  state.counters["messages"] = static_cast<double>(s.spans.size());
}

// What the fresh copy of the small set costs by itself.
void BM_Small_CopyOnly(benchmark::State& state) {
  const SmallSet& s = small_set();
  std::string work(s.pristine.size(), '\0');
  for (auto _ : state) {
    memcpy(work.data(), s.pristine.data(), s.pristine.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(s.bytes));
}

BENCHMARK_CAPTURE(BM_Big, imapME_structure_only, &imapME)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_Big, generalME, &generalME)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_Big, msgreadME, &msgreadME)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_Small, imapME_structure_only, &imapME)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_Small, generalME, &generalME)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_Small, msgreadME, &msgreadME)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Small_CopyOnly)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
