// File-name extension for a part: its own, or the first one mime.types
// lists for its content type.
//
// The file is read afresh on each call (names are only made up for parts
// that arrive without one, which is rare) and the hash table is not used:
// this lookup runs the other way.

#include <cctype>
#include <cstring>
#include <string_view>

#include "mime_magic_internal.h"

namespace {

constexpr size_t EXT_SIZE = 32;  // 31 characters and the terminator
constexpr std::string_view kBlanks = " \t";

// Does ctype start with type, ignoring case?  Only the line's type length
// is compared, so "text/plain" answers "text/plain; charset=us-ascii" too.
bool starts_with_nocase(const char* ctype, std::string_view type) {
  for (size_t i = 0; i < type.size(); ++i) {
    if (ctype[i] == '\0') return false;
    if (std::tolower(static_cast<unsigned char>(ctype[i])) !=
        std::tolower(static_cast<unsigned char>(type[i])))
      return false;
  }
  return true;
}

// First extension of a mime.types line whose type ctype starts with; empty
// when the line does not answer.
std::string_view extension_for(std::string_view line, const char* ctype) {
  if (line.empty() || line[0] == '#') return {};
  size_t sep = line.find_first_of(kBlanks);
  if (sep == 0 || sep == std::string_view::npos) return {};
  if (!starts_with_nocase(ctype, line.substr(0, sep))) return {};
  std::string_view rest = line.substr(sep);
  size_t start = rest.find_first_not_of(kBlanks);
  if (start == std::string_view::npos) return {};
  rest.remove_prefix(start);
  return rest.substr(0, rest.find_first_of(kBlanks));
}

}  // namespace

using namespace tarn_magic;

extern "C" TARNMAIL_API char* ct2ext(const char* ctype_str, const char* filename) {
  static char ext[EXT_SIZE];
  ext[0] = '\0';

  if (filename != nullptr) {
    const char* dot = MSTR_RLocChr(filename, '.', 0);
    if (dot != nullptr && dot[1] != '\0') {
      MSTR_NCopy(ext, sizeof(ext), dot + 1, EXT_SIZE - 1);
      return ext;
    }
  }
  if (ctype_str == nullptr) return ext;

  FileText file(resolve_path(MIMETYPE_mtypefile));
  if (!file.ok()) return ext;
  bool found = false;
  for_each_line(file.text(), [&](std::string_view line) {
    if (found) return;
    std::string_view e = extension_for(line, ctype_str);
    if (e.empty()) return;
    size_t n = e.size() < EXT_SIZE - 1 ? e.size() : EXT_SIZE - 1;
    std::memcpy(ext, e.data(), n);
    ext[n] = '\0';
    found = true;
  });
  return ext;
}
