// Decoding with msgreadME, the preset of the message-reading page: every
// step of the body walk, with the UTF-8 display conversion, retyping by
// content and TNEF expansion.  In bytes of raw message per second:
//
//  - a 20 MiB multipart/mixed message whose attachments are base64 in
//    76-character CR LF lines (target: 1.2 GB/s);
//  - 1,000 typical messages: the corpus messages below 64 KiB, taken again
//    from the start until there are 1,000 (target: 100 MB/s).
//
// Decoding works in place, so each iteration decodes a fresh copy, made
// with the timer paused; BM_Msgread_SmallCopyOnly shows what the copy of
// the small set costs by itself.
//
// And mime_type_checking, in calls per second, on the heads (up to 8 KiB)
// of the attachments of the corpus messages, by content alone and by
// content and name, with the default magic and mime.types files.

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

#include "tarnmail.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t kMiB = 1024 * 1024;
constexpr int kAttachments = 4;
constexpr size_t kAttachmentBytes = 20 * kMiB * 3 / 4 / kAttachments;
constexpr size_t kSmallCount = 1000;
constexpr size_t kSmallMax = 64 * 1024;
constexpr size_t kHeadBytes = 8192;

// The type tables of the source tree, loaded before anything decodes:
// retyping and TNEF files ask them.
bool tables_ready() {
  static const bool ready = [] {
    const std::string types = TARN_SOURCE_DIR "/data/mime.types";
    const std::string magic = TARN_SOURCE_DIR "/data/magic";
    if (types.size() >= MIMETYPE_PATHSIZE || magic.size() >= MIMETYPE_PATHSIZE) return false;
    mime_type_init(types.c_str(), magic.c_str());
    return ct_init() == 0 && apprentice(magic.c_str(), 1) == 0;
  }();
  return ready;
}

std::string base64_lines(const std::string& bytes) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve(bytes.size() * 4 / 3 + bytes.size() / 57 * 2 + 8);
  size_t col = 0;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t n = std::min<size_t>(3, bytes.size() - i);
    uint32_t v = uint32_t{static_cast<uint8_t>(bytes[i])} << 16;
    if (n > 1) v |= uint32_t{static_cast<uint8_t>(bytes[i + 1])} << 8;
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

// About 20 MiB: a text part with an encoded-word subject (so the UTF-8
// display conversion runs) and four base64 attachments of random bytes.
const std::string& big_message() {
  static const std::string message = [] {
    std::mt19937 gen(1204);
    std::string m =
        "From: =?utf-8?Q?J=C3=BCrgen_Sch=C3=B6n?= <juergen@example.org>\r\n"
        "To: Receiver <receiver@example.net>\r\n"
        "Subject: =?utf-8?B?UXVhcnRhbHN6YWhsZW4gZsO8ciBKdW5p?=\r\n"
        "Date: Tue, 4 Jun 2024 09:12:44 +0200\r\n"
        "Message-ID: <big.msgread@example.org>\r\n"
        "MIME-Version: 1.0\r\n"
        "Content-Type: multipart/mixed; boundary=\"=_msgread_0042\"\r\n"
        "\r\n"
        "This is a multi-part message in MIME format.\r\n"
        "\r\n"
        "--=_msgread_0042\r\n"
        "Content-Type: text/plain; charset=iso-8859-1\r\n"
        "Content-Transfer-Encoding: quoted-printable\r\n"
        "\r\n"
        "Hallo,\r\n\r\nanbei die Zahlen f=FCr Juni.\r\n\r\nGr=FC=DFe\r\n"
        "\r\n";
    for (int a = 0; a < kAttachments; ++a) {
      std::string bytes(kAttachmentBytes, '\0');
      for (char& c : bytes) c = static_cast<char>(gen());
      const std::string name = "figures" + std::to_string(a) + ".bin";
      m += "--=_msgread_0042\r\n"
           "Content-Type: application/octet-stream; name=\"" + name + "\"\r\n"
           "Content-Transfer-Encoding: base64\r\n"
           "Content-Disposition: attachment; filename=\"" + name + "\"\r\n"
           "\r\n";
      m += base64_lines(bytes);
    }
    m += "--=_msgread_0042--\r\n";
    return m;
  }();
  return message;
}

// The figures mean something only if msgreadME really decodes the
// attachments: each must come out at its raw size.
bool big_message_decodes() {
  const std::string& m = big_message();
  std::vector<char> work(m.begin(), m.end());
  work.push_back('\0');
  MIME_DECODE ctx = msgreadME;
  mime_decode_init(&ctx, work.data(), static_cast<int>(m.size()), nullptr, nullptr);
  bool ok = mime_decode_run(&ctx) == 0 && ctx.result.me_node.child != nullptr;
  int parts = 0;
  for (const ME* part = ctx.result.me_node.child; ok && part != nullptr; part = part->next, ++parts)
    if (parts > 0) ok = part->datalen == static_cast<int>(kAttachmentBytes) && part->h->mime.filename != nullptr;
  mime_decode_shutdown(&ctx);
  return ok && parts == kAttachments + 1;
}

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

// Messages laid out one after another, each followed by the terminator
// byte the engine needs.
struct SmallSet {
  std::string pristine;
  std::vector<std::pair<size_t, size_t>> spans;  // offset and size of each
  size_t bytes = 0;                              // terminators not counted
};

const SmallSet& small_set() {
  static const SmallSet set = [] {
    const std::vector<std::string> found = corpus_messages();
    SmallSet s;
    for (size_t i = 0; !found.empty() && i < kSmallCount; ++i) {
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

void decode_one(char* buf, size_t size) {
  MIME_DECODE ctx = msgreadME;
  mime_decode_init(&ctx, buf, static_cast<int>(size), nullptr, nullptr);
  benchmark::DoNotOptimize(mime_decode_run(&ctx));
  mime_decode_shutdown(&ctx);
}

void BM_Msgread_Big20MiB(benchmark::State& state) {
  if (!tables_ready()) return state.SkipWithError("the type tables of the source tree cannot be read");
  if (!big_message_decodes()) return state.SkipWithError("the 20 MiB message does not decode as built");
  const std::string& m = big_message();
  std::vector<char> work(m.size() + 1);
  for (auto _ : state) {
    state.PauseTiming();
    memcpy(work.data(), m.data(), m.size());
    work[m.size()] = '\0';
    state.ResumeTiming();
    decode_one(work.data(), m.size());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(m.size()));
}

void BM_Msgread_Small1000(benchmark::State& state) {
  if (!tables_ready()) return state.SkipWithError("the type tables of the source tree cannot be read");
  const SmallSet& s = small_set();
  if (s.spans.empty()) return state.SkipWithError("no corpus messages at " TARN_CORPUS_DIR);
  std::string work(s.pristine.size(), '\0');
  for (auto _ : state) {
    state.PauseTiming();
    memcpy(work.data(), s.pristine.data(), s.pristine.size());
    state.ResumeTiming();
    for (const auto& [offset, size] : s.spans) decode_one(work.data() + offset, size);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(s.bytes));
  state.counters["messages"] = static_cast<double>(s.spans.size());
}

void BM_Msgread_SmallCopyOnly(benchmark::State& state) {
  const SmallSet& s = small_set();
  std::string work(s.pristine.size(), '\0');
  for (auto _ : state) {
    memcpy(work.data(), s.pristine.data(), s.pristine.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(s.bytes));
}

// One call per attachment head and iteration; items per second are calls.
void BM_TypeChecking(benchmark::State& state, bool with_name) {
  if (!tables_ready()) return state.SkipWithError("the type tables of the source tree cannot be read");
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

BENCHMARK(BM_Msgread_Big20MiB)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Msgread_Small1000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Msgread_SmallCopyOnly)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_TypeChecking, by_content, false)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_TypeChecking, by_content_and_name, true)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
