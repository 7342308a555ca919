// The extension table: file-name extension to MIME type, from mime.types.
//
// Each line of the file names a type, then its extensions; the table
// hashes extensions by their first letter into 27 chains, each kept in the
// file's order, so the first line that lists an extension decides it.

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "mime_magic_internal.h"

namespace tarn_magic {

struct table* hash_buckets[HASH_BUCKETS] = {};

namespace {

// Last entry of each chain, so that appending does not walk it.
struct table* g_tails[HASH_BUCKETS] = {};
bool g_table_loaded = false;

constexpr size_t MAX_TEXT = 127;
constexpr std::string_view kBlanks = " \t";

// One line of mime.types: a type, the first space or tab, extensions.
void load_line(std::string_view line) {
  if (line.empty() || line[0] == '#') return;
  size_t sep = line.find_first_of(kBlanks);
  if (sep == 0 || sep == std::string_view::npos) return;  // no type, or no extension
  std::string type(line.substr(0, sep));
  std::string_view rest = line.substr(sep + 1);
  while (!rest.empty()) {
    size_t start = rest.find_first_not_of(kBlanks);
    if (start == std::string_view::npos) break;
    rest.remove_prefix(start);
    size_t end = rest.find_first_of(kBlanks);
    std::string ext(rest.substr(0, end));
    add_bucket(ext.c_str(), type.c_str());  // too long a text: that entry is left out
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end);
  }
}

}  // namespace

int bucket_of(const char* ext) {
  unsigned char c = static_cast<unsigned char>(ext[0]);
  if (c >= 'a' && c <= 'z') return c - 'a';
  if (c >= 'A' && c <= 'Z') return c - 'A';
  return HASH_BUCKETS - 1;
}

struct table* add_bucket(const char* ext, const char* str) {
  if (std::strlen(ext) > MAX_TEXT || std::strlen(str) > MAX_TEXT) return nullptr;
  auto* t = static_cast<struct table*>(std::calloc(1, sizeof(struct table)));
  if (t == nullptr) return nullptr;
  MSTR_Copy(t->ext, sizeof(t->ext), ext, 0);
  MSTR_Copy(t->mime_type_str, sizeof(t->mime_type_str), str, 0);
  int b = bucket_of(t->ext);
  if (g_tails[b] != nullptr)
    g_tails[b]->next = t;
  else
    hash_buckets[b] = t;
  g_tails[b] = t;
  return t;
}

void ct_reset() {
  for (int b = 0; b < HASH_BUCKETS; ++b) {
    for (struct table* t = hash_buckets[b]; t != nullptr;) {
      struct table* next = t->next;
      std::free(t);
      t = next;
    }
    hash_buckets[b] = nullptr;
    g_tails[b] = nullptr;
  }
  g_table_loaded = false;
}

}  // namespace tarn_magic

using namespace tarn_magic;

extern "C" {

TARNMAIL_API int ct_init(void) {
  FileText file(resolve_path(MIMETYPE_mtypefile));
  if (!file.ok()) return -1;
  ct_reset();  // a second call reads the file afresh rather than doubling the table
  for_each_line(file.text(), load_line);
  g_table_loaded = true;
  return 0;
}

TARNMAIL_API char* ct_check(const char* ext) {
  if (!g_table_loaded && ct_init() != 0) return nullptr;  // tried again next time
  if (ext == nullptr) return nullptr;
  const char* dot = MSTR_RLocChr(ext, '.', 0);
  const char* key = dot != nullptr ? dot + 1 : ext;
  if (*key == '\0') return nullptr;
  for (struct table* t = hash_buckets[bucket_of(key)]; t != nullptr; t = t->next)
    if (MSTR_CaseCmp(t->ext, key) == 0) return t->mime_type_str;
  return nullptr;
}

}  // extern "C"
