// Realistic benchmark input: the decoded bodies of the corpus messages.
#ifndef TARN_BENCH_CORPUS_H
#define TARN_BENCH_CORPUS_H

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include "tarnmail.h"

namespace tarnbench {

// The type tables of the source tree, loaded before anything decodes
// (retyping and TNEF files ask them).
inline bool tables_ready() {
  static const bool ready = [] {
    const std::string types = TARN_SOURCE_DIR "/data/mime.types";
    const std::string magic = TARN_SOURCE_DIR "/data/magic";
    if (types.size() >= MIMETYPE_PATHSIZE || magic.size() >= MIMETYPE_PATHSIZE) return false;
    mime_type_init(types.c_str(), magic.c_str());
    return ct_init() == 0 && apprentice(magic.c_str(), 1) == 0;
  }();
  return ready;
}

inline std::string read_all(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void bodies_of(ME* me, int ctype, std::string* out) {
  for (; me != nullptr; me = me->next) {
    if (me->h != nullptr && me->h->mime.ctype == ctype && me->body_bgn != nullptr && me->datalen > 0)
      out->append(me->body_bgn, static_cast<size_t>(me->datalen));
    bodies_of(me->child, ctype, out);
  }
}

// Decodes one message with generalME and appends its bodies of class `ctype`.
inline void append_bodies(const std::string& message, int ctype, std::string* out) {
  std::vector<char> buf(message.begin(), message.end());
  buf.push_back('\0');
  MIME_DECODE ctx = generalME;
  if (mime_decode_init(&ctx, buf.data(), static_cast<int>(message.size()), nullptr, nullptr) != 0) return;
  mime_decode_run(&ctx);
  bodies_of(&ctx.result.me_node, ctype, out);
  mime_decode_shutdown(&ctx);
}

// The bodies of class `ctype` of every corpus message, then the named body
// files of the corpus, without NULs (the filters stop at one); `fallback`
// when the corpus is missing.
inline std::string corpus_bodies(int ctype, std::initializer_list<const char*> body_files, const char* fallback) {
  namespace fs = std::filesystem;
  const fs::path corpus = TARN_CORPUS_DIR;
  std::vector<fs::path> files;
  std::error_code ec;
  for (auto& e : fs::recursive_directory_iterator(corpus / "mime", ec))
    if (e.is_regular_file()) files.push_back(e.path());
  std::sort(files.begin(), files.end());
  std::string text;
  for (const fs::path& f : files) append_bodies(read_all(f), ctype, &text);
  for (const char* name : body_files) text += read_all(corpus / "bodies" / "roundcube" / name);
  text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
  return text.empty() ? std::string(fallback) : text;
}

// The text repeated until it is `target` bytes long.
inline std::string repeat_to(const std::string& text, size_t target) {
  std::string out;
  out.reserve(target + 1);
  while (out.size() < target) out.append(text, 0, std::min(text.size(), target - out.size()));
  return out;
}

constexpr std::initializer_list<const char*> kHtmlBodyFiles = {"htmlbase.txt", "htmlbody.txt", "htmlcom.txt",
                                                               "htmlxss.txt", "BID-26800.txt"};

}  // namespace tarnbench

#endif
