/*
 * mime_magic_internal.h - what the content-type detection files share.
 * Not installed: the shared library keeps these hidden; tests reach them
 * through the static build.
 */
#ifndef TARNMAIL_MIME_MAGIC_INTERNAL_H
#define TARNMAIL_MIME_MAGIC_INTERNAL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tarnmail.h"

namespace tarn_magic {

/* Flag bits and type codes under the names the loader and matcher use. */
inline constexpr short INDIR = MAGIC_INDIR;
inline constexpr short UNSIGNED = MAGIC_UNSIGNED;
inline constexpr short ADD = MAGIC_ADD;

inline constexpr char BYTE = MAGIC_BYTE;
inline constexpr char SHORT = MAGIC_SHORT;
inline constexpr char LONG = MAGIC_LONG;
inline constexpr char STRING = MAGIC_STRING;
inline constexpr char DATE = MAGIC_DATE;
inline constexpr char BESHORT = MAGIC_BESHORT;
inline constexpr char BELONG = MAGIC_BELONG;
inline constexpr char BEDATE = MAGIC_BEDATE;
inline constexpr char LESHORT = MAGIC_LESHORT;
inline constexpr char LELONG = MAGIC_LELONG;
inline constexpr char LEDATE = MAGIC_LEDATE;

/* Size of the window a value is read through (the value union). */
inline constexpr int VALUE_WINDOW = static_cast<int>(sizeof(union magic_value));
/* Magic-file lines are read into a buffer of this many bytes. */
inline constexpr size_t MAGIC_LINE_BUF = 8193;
/* The entry table's first size and its first growth step. */
inline constexpr int MAGIC_FIRST_ROOM = 5000;
inline constexpr int MAGIC_FIRST_INCR = 256;
/* The per-level end offsets of a match grow by this many at a time. */
inline constexpr size_t LEVEL_STEP = 20;

/* ---- loader (mime_apprentice.cpp) ---- */
/* One magic file into the table: 0, 1 when lines were rejected, -1 when
 * the file could not be read. */
int apprentice_1(const char* fn, int check);
/* One line (NUL-terminated, newline removed) appended to the table as a
 * new entry: 0, or -1 when the line is rejected. */
int parse(char* l, int* nmagicp, int check);
/* The value part of a line into m (for strings, with escapes); advances *p. */
int getvalue(struct magic* m, char** p);
/* A string value with escapes into p (room for plen bytes with the
 * terminator); *slen gets its length.  Returns where reading stopped. */
char* getstr(char* s, char* p, int plen, int* slen);
/* Skips an optional 'u' and size letter after a number. */
void eatsize(char** p);
/* Sign-extends a number by the entry's type unless the entry is unsigned. */
uint32_t signextend(const struct magic* m, uint32_t v);
/* Releases the table. */
void magic_table_free();

/* ---- matcher (mime_softmagic.cpp) ---- */
/* Reads the entry's value from the buffer into p, the entry's offset moved
 * by `base` (the parent's end offset for an ADD entry); *end gets the
 * position the value was read at.  0 when an indirect offset leads out of
 * the buffer. */
int mget(union magic_value* p, const unsigned char* s, const struct magic* m, int nbytes,
         int64_t base, int64_t* where);
/* Puts a value read in a fixed byte order into machine order. */
int mconvert(union magic_value* p, const struct magic* m);
/* Compares a value read with the entry: 1 when it matches. */
int mcheck(const union magic_value* p, const struct magic* m);
/* Appends the entry's description; returns the offset just past the
 * matched value, which was read at `where`. */
int64_t mprint(const union magic_value* p, const struct magic* m, int64_t where);
/* The walk over the table. */
int match(const unsigned char* s, int nbytes);
/* Appends to MIMETYPE_outputstr (bounded to its size). */
void myprintf(const char* desc);
/* Debug output of a string, escaped, on the error stream. */
void showstr(const char* s, int len);
/* Debug output of a value read. */
void mdebug(int64_t offset, const char* str, int len);

/* ---- lookup (mime_file.cpp, mime_internat.cpp, mime_ext.cpp) ---- */
/* Runs the content tests: 's' magic matched, 'i' text, 0 neither. */
int tryit(const unsigned char* buf, int nb);
/* Replaces the result string with fmt (copied as it stands). */
void ctype_printf(const char* fmt);
/* 1 and result "text/plain" when the bytes look like text, else 0. */
int internatmagic(const unsigned char* buf, int nbytes);
/* Bytes allowed in text. */
extern const std::array<bool, 256> maybe_internat;

/* One entry of the extension table. */
struct table {
  char ext[128];
  char mime_type_str[128];
  struct table* next;
};
inline constexpr int HASH_BUCKETS = 27;
extern struct table* hash_buckets[HASH_BUCKETS];
/* New entry appended to its bucket's chain; NULL when a text is too long. */
struct table* add_bucket(const char* ext, const char* str);
/* Bucket of an extension: its first letter, every other start in 26. */
int bucket_of(const char* ext);
/* Empties the extension table; the next lookup reads the file again. */
void ct_reset();

/* Forgets both tables and their once-only flags, so that the next lookup
 * loads them again (tests and tools; the engine never calls it). */
void mime_type_reset();

/* ---- shared helpers ---- */
/* A fixed "/quillnet/..." path as the platform maps it. */
std::string resolve_path(const char* path);

/* Calls f(line) for each line of text (without its LF, a CR before the LF
 * removed too). */
template <typename F>
void for_each_line(std::string_view text, F&& f) {
  while (!text.empty()) {
    size_t nl = text.find('\n');
    std::string_view line = text.substr(0, nl);
    text = nl == std::string_view::npos ? std::string_view{} : text.substr(nl + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    f(line);
  }
}

/* A whole file through the platform's reader, released when done. */
class FileText {
 public:
  explicit FileText(const std::string& path);
  ~FileText();
  FileText(const FileText&) = delete;
  FileText& operator=(const FileText&) = delete;
  bool ok() const { return ok_; }
  int error() const { return errno_; }
  std::string_view text() const { return {data_ != nullptr ? data_ : "", size_}; }

 private:
  char* data_ = nullptr;
  size_t size_ = 0;
  bool ok_ = false;
  int errno_ = 0;
};

}  // namespace tarn_magic

#endif /* TARNMAIL_MIME_MAGIC_INTERNAL_H */
