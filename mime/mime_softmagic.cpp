// Matching a buffer against the magic entries.
//
// Entries are tried in file order.  The first top-level entry whose value
// matches wins: its description and those of its matching continuations
// are appended to the result string, and no later top-level entry is
// tried.  Values are read through a 32-byte window; the parts of the
// window that fall outside the buffer read as zeros, so nothing outside
// the buffer is ever touched.

#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "mime_magic_internal.h"

namespace tarn_magic {
namespace {

// The raw bytes of a value read (the union is only ever filled bytewise).
unsigned char* bytes_of(union magic_value* p) { return reinterpret_cast<unsigned char*>(p); }
const unsigned char* bytes_of(const union magic_value* p) {
  return reinterpret_cast<const unsigned char*>(p);
}

uint16_t machine_short(const union magic_value* p) {
  uint16_t h;
  std::memcpy(&h, bytes_of(p), sizeof(h));
  return h;
}
uint32_t machine_long(const union magic_value* p) {
  uint32_t l;
  std::memcpy(&l, bytes_of(p), sizeof(l));
  return l;
}

// Copies the window at offset; bytes outside [0, nbytes) read as zeros.
void window_copy(union magic_value* p, const unsigned char* s, int nbytes, int64_t offset) {
  std::memset(p, 0, sizeof(*p));
  if (s == nullptr) return;
  int64_t from = offset < 0 ? 0 : offset;
  int64_t to = offset + VALUE_WINDOW > nbytes ? nbytes : offset + VALUE_WINDOW;
  if (from < to)
    std::memcpy(bytes_of(p) + (from - offset), s + from, static_cast<size_t>(to - from));
}

bool is_short(char type) { return type == SHORT || type == BESHORT || type == LESHORT; }
bool is_date(char type) { return type == DATE || type == BEDATE || type == LEDATE; }

// Bytes of a string read from the buffer that make up "the string there":
// up to a NUL (or, when the entry's value is empty, a line end).
int64_t string_length_read(const union magic_value* p, const struct magic* m) {
  const unsigned char* b = bytes_of(p);
  int64_t n = 0;
  while (n < VALUE_WINDOW - 1 && b[n] != '\0' && !(m->value.s[0] == '\0' && b[n] == '\n')) ++n;
  return n;
}

// Grows by LEVEL_STEP entries whenever the next level would not fit.
void ensure_level(std::vector<int64_t>& offsets, size_t level) {
  if (level >= offsets.size()) offsets.resize(offsets.size() + LEVEL_STEP, 0);
}

}  // namespace

void showstr(const char* s, int len) {
  for (int i = 0; i < len; ++i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c >= 040 && c <= 0176 && c != '\\')
      std::fputc(c, stderr);
    else
      std::fprintf(stderr, "\\%03o", c);
  }
}

void mdebug(int64_t offset, const char* str, int len) {
  std::fprintf(stderr, "mget @%lld: ", static_cast<long long>(offset));
  showstr(str, len);
  std::fputc('\n', stderr);
}

int mconvert(union magic_value* p, const struct magic* m) {
  unsigned char* b = bytes_of(p);
  switch (m->type) {
    case BYTE:
    case SHORT:
    case LONG:
    case DATE:
      return 1;  // already in machine order
    case STRING:
      b[VALUE_WINDOW - 1] = '\0';
      return 1;
    case BESHORT: {
      uint16_t h = static_cast<uint16_t>((b[0] << 8) | b[1]);
      std::memcpy(b, &h, sizeof(h));
      return 1;
    }
    case LESHORT: {
      uint16_t h = static_cast<uint16_t>((b[1] << 8) | b[0]);
      std::memcpy(b, &h, sizeof(h));
      return 1;
    }
    case BELONG:
    case BEDATE: {
      uint32_t l = (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
      std::memcpy(b, &l, sizeof(l));
      return 1;
    }
    case LELONG:
    case LEDATE: {
      uint32_t l = (uint32_t{b[3]} << 24) | (uint32_t{b[2]} << 16) | (uint32_t{b[1]} << 8) | b[0];
      std::memcpy(b, &l, sizeof(l));
      return 1;
    }
    default:
      std::fprintf(stderr, "invalid type %d in mconvert()\n", m->type);
      return 0;
  }
}

int mget(union magic_value* p, const unsigned char* s, const struct magic* m, int nbytes,
         int64_t base, int64_t* where) {
  int64_t offset = static_cast<int64_t>(m->offset) + base;
  window_copy(p, s, nbytes, offset);
  if (MIMETYPE_debug) mdebug(offset, reinterpret_cast<const char*>(bytes_of(p)), VALUE_WINDOW);

  if (m->flag & INDIR) {
    int64_t pointer;
    switch (m->in.type) {
      case BYTE:
        pointer = bytes_of(p)[0];
        break;
      case SHORT:
        pointer = machine_short(p);
        break;
      default:
        pointer = machine_long(p);
        break;
    }
    offset = pointer + m->in.offset;
    // The whole window must lie inside the buffer.
    if (s == nullptr || offset < 0 || offset + VALUE_WINDOW > nbytes) return 0;
    std::memcpy(bytes_of(p), s + offset, VALUE_WINDOW);
    if (MIMETYPE_debug) mdebug(offset, reinterpret_cast<const char*>(bytes_of(p)), VALUE_WINDOW);
  }
  if (where != nullptr) *where = offset;
  return mconvert(p, m);
}

int mcheck(const union magic_value* p, const struct magic* m) {
  uint32_t l = 0;  // what the value read is compared with
  uint32_t v;
  if (m->type == STRING) {
    // The difference of the first differing bytes, compared with 0.
    const unsigned char* a = reinterpret_cast<const unsigned char*>(m->value.s);
    const unsigned char* b = bytes_of(p);
    int len = m->vallen < 0 ? 0 : (m->vallen < VALUE_WINDOW ? m->vallen : VALUE_WINDOW - 1);
    int d = 0;
    for (int i = 0; i < len && d == 0; ++i) d = b[i] - a[i];
    v = static_cast<uint32_t>(d);
  } else {
    l = m->value.l;
    if (m->type == BYTE)
      v = bytes_of(p)[0];
    else if (is_short(m->type))
      v = machine_short(p);
    else
      v = machine_long(p);
    v = signextend(m, v) & m->mask;
  }

  int matched;
  switch (m->reln) {
    case 'x':
      matched = 1;
      break;
    case '!':
      matched = v != l;
      break;
    case '=':
      matched = v == l;
      break;
    case '>':
      matched = (m->flag & UNSIGNED) ? v > l : static_cast<int32_t>(v) > static_cast<int32_t>(l);
      break;
    case '<':
      matched = (m->flag & UNSIGNED) ? v < l : static_cast<int32_t>(v) < static_cast<int32_t>(l);
      break;
    case '&':
      matched = (v & l) == l;
      break;
    case '^':
      matched = (v & l) != l;
      break;
    default:
      std::fprintf(stderr, "mcheck: can't happen: invalid relation %d\n", m->reln);
      matched = 0;
      break;
  }
  if (MIMETYPE_debug) {
    std::fprintf(stderr, "mcheck: type %d %c v=0x%x l=0x%x => %d", m->type, m->reln, v, l,
                 matched);
    if (is_date(m->type)) {
      time_t t = static_cast<int32_t>(machine_long(p));
      char when[32];
      if (ctime_r(&t, when) != nullptr) std::fprintf(stderr, " (%.24s)", when);
    }
    std::fprintf(stderr, " [%s]\n", m->desc);
  }
  return matched;
}

void myprintf(const char* desc) {
  MSTR_Cat(MIMETYPE_outputstr, sizeof(MIMETYPE_outputstr), desc, 0);
}

int64_t mprint(const union magic_value* p, const struct magic* m, int64_t where) {
  // The description is text, never a format: the value is not printed into it.
  myprintf(m->desc);
  if (m->type == BYTE) return where + 1;
  if (is_short(m->type)) return where + 2;
  if (m->type == STRING) return where + (m->reln == '=' ? m->vallen : string_length_read(p, m));
  return where + 4;  // longs and dates
}

int match(const unsigned char* s, int nbytes) {
  const struct magic* tab = MIMETYPE_magic;
  const int n = tab != nullptr ? MIMETYPE_nmagic : 0;
  union magic_value p;
  int64_t where = 0;

  for (int i = 0; i < n; ++i) {
    if (!mget(&p, s, &tab[i], nbytes, 0, &where) || !mcheck(&p, &tab[i])) {
      // No match: skip the entry's continuations with it.
      while (i + 1 < n && tab[i + 1].cont_level != 0) ++i;
      continue;
    }

    // End offset of the match at each level, for ADD entries below it.
    std::vector<int64_t> tmpoff(LEVEL_STEP, 0);
    size_t cont_level = 0;
    tmpoff[cont_level] = mprint(&p, &tab[i], where);
    bool need_separator = tab[i].desc[0] != '\0';
    ensure_level(tmpoff, ++cont_level);

    while (i + 1 < n && tab[i + 1].cont_level != 0) {
      const struct magic& c = tab[++i];
      size_t level = static_cast<size_t>(c.cont_level);
      if (level > cont_level) continue;  // under a continuation that did not match
      cont_level = level;                // back to this entry's level
      int64_t base = (c.flag & ADD) ? tmpoff[cont_level - 1] : 0;
      if (!mget(&p, s, &c, nbytes, base, &where) || !mcheck(&p, &c)) continue;
      if (need_separator && c.nospflag == 0 && c.desc[0] != '\0') {
        // The separating blank goes to standard output, not into the
        // result string; callers have always seen it there.
        std::putchar(' ');
        need_separator = false;
      }
      tmpoff[cont_level] = mprint(&p, &c, where);
      ensure_level(tmpoff, ++cont_level);
    }
    return 1;
  }
  return 0;
}

}  // namespace tarn_magic

extern "C" TARNMAIL_API int softmagic(const unsigned char* buf, int nbytes) {
  if (buf == nullptr || nbytes < 0) nbytes = 0;
  return tarn_magic::match(buf, nbytes) != 0 ? 1 : 0;
}
