// Shared helpers of the test programs.
#ifndef TARN_TESTS_SUPPORT_H
#define TARN_TESTS_SUPPORT_H

#include <string>
#include <string_view>
#include <vector>

#include "tarnmail.h"

namespace tarntest {

// Whole file as bytes; fails the current test when it cannot be read.
std::string read_file(const std::string& path);
// Regular files below TARN_CORPUS_DIR/<sub>, sorted; empty when absent.
std::vector<std::string> corpus_files(const std::string& sub);
std::string corpus_dir();
std::string testdata_dir();

// One decoding of a message: owns a copy of the bytes (with the extra
// terminator byte the engine needs) and a context copied from a preset.
class Decoded {
 public:
  Decoded(std::string_view message, const MIME_DECODE& preset, const char* default_cset = nullptr);
  ~Decoded();
  Decoded(const Decoded&) = delete;
  Decoded& operator=(const Decoded&) = delete;

  MIME_DECODE& ctx() { return ctx_; }
  ME* root() { return &ctx_.result.me_node; }
  int error_code() const { return rc_; }
  char* buffer() { return buf_.data(); }
  size_t size() const { return size_; }
  // Decoded body of an entity as bytes.
  static std::string body(const ME* me);

 private:
  std::vector<char> buf_;
  size_t size_;
  MIME_DECODE ctx_;
  int rc_;
};

// Entities of the tree in walking order (child first, then next).
std::vector<ME*> walk(ME* root);

}  // namespace tarntest

#endif
