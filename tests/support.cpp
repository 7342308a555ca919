#include "support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace tarntest {

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.good()) << "cannot read " << path;
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string corpus_dir() { return TARN_CORPUS_DIR; }
std::string testdata_dir() { return TARN_TESTDATA_DIR; }

std::vector<std::string> corpus_files(const std::string& sub) {
  std::vector<std::string> out;
  std::filesystem::path dir = std::filesystem::path(TARN_CORPUS_DIR) / sub;
  std::error_code ec;
  if (!std::filesystem::is_directory(dir, ec)) return out;
  for (auto& e : std::filesystem::recursive_directory_iterator(dir, ec))
    if (e.is_regular_file()) out.push_back(e.path().string());
  std::sort(out.begin(), out.end());
  return out;
}

Decoded::Decoded(std::string_view message, const MIME_DECODE& preset, const char* default_cset)
    : buf_(message.size() + 1, '\0'), size_(message.size()), ctx_(preset), rc_(0) {
  std::copy(message.begin(), message.end(), buf_.begin());
  EXPECT_EQ(0, mime_decode_init(&ctx_, buf_.data(), static_cast<int>(size_), nullptr, default_cset));
  rc_ = mime_decode_run(&ctx_);
}

Decoded::~Decoded() { mime_decode_shutdown(&ctx_); }

std::string Decoded::body(const ME* me) {
  if (me->body_bgn == nullptr || me->datalen <= 0) return std::string();
  return std::string(me->body_bgn, static_cast<size_t>(me->datalen));
}

static void walk_into(ME* me, std::vector<ME*>& out) {
  for (; me != nullptr; me = me->next) {
    out.push_back(me);
    walk_into(me->child, out);
  }
}

std::vector<ME*> walk(ME* root) {
  std::vector<ME*> out;
  walk_into(root, out);
  return out;
}

}  // namespace tarntest
