// Loading magic files into the process-wide entry table.
//
// One line of a magic file is one entry:
//
//   [>...][&][(]offset[.size[+-n])]  [u]type[&mask]  [relation]value  description
//
// The parser walks a NUL-terminated copy of the line and never steps past
// its terminator.  A line whose type keyword is unknown is dropped; other
// faults (an unreadable offset, a bad indirect size, a missing ')', an
// over-long string value) are reported and the entry is kept as read.

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "mime_magic_internal.h"

extern "C" {
TARNMAIL_API struct magic* MIMETYPE_magic = nullptr;
TARNMAIL_API int MIMETYPE_nmagic = 0;
TARNMAIL_API int MIMETYPE_lineno = 0;
TARNMAIL_API int MIMETYPE_debug = 0;
TARNMAIL_API int MIMETYPE_nrejected = 0;
TARNMAIL_API int MIMETYPE_nwarned = 0;
}

namespace tarn_magic {
namespace {

int g_maxmagic = 0;                  // room in MIMETYPE_magic
int g_incr = MAGIC_FIRST_INCR;       // next growth step; doubles each time
const char* g_file = "";             // file being parsed, for messages
bool g_line_warned = false;          // the current line drew a complaint

void magwarn(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void magwarn(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(stderr, fmt, ap);
  va_end(ap);
  std::fputc('\n', stderr);
  g_line_warned = true;
}

bool is_blank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }
void eatab(char*& l) {
  while (is_blank(*l)) ++l;
}

int digit_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// A number in C notation, read as strtoul(s, end, 0) reads it on the
// 32-bit systems these files were written for: leading blanks and a sign
// allowed, a minus negates modulo 2^32, too large a number gives all ones.
// *end == s when no digit was found.
uint32_t c_number(char* s, char** end) {
  char* p = s;
  while (is_blank(*p)) ++p;
  bool neg = false;
  if (*p == '+' || *p == '-') neg = *p++ == '-';
  int base = 10;
  if (*p == '0') {
    if ((p[1] == 'x' || p[1] == 'X') && digit_value(p[2]) >= 0) {
      base = 16;
      p += 2;
    } else {
      base = 8;
    }
  }
  uint64_t v = 0;
  bool any = false, over = false;
  for (int d; (d = digit_value(*p)) >= 0 && d < base; ++p) {
    any = true;
    v = v * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
    if (v > 0xffffffffu) {
      over = true;
      v = 0xffffffffu;
    }
  }
  if (!any) {
    *end = s;
    return 0;
  }
  *end = p;
  if (over) return 0xffffffffu;
  return neg ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v);
}

bool grow_table(int needed) {
  if (needed < g_maxmagic) return true;
  int64_t want = static_cast<int64_t>(g_maxmagic) + g_incr;
  if (want > (1 << 24)) return false;  // far beyond any real magic file
  void* room = std::realloc(MIMETYPE_magic, static_cast<size_t>(want) * sizeof(struct magic));
  if (room == nullptr) return false;
  MIMETYPE_magic = static_cast<struct magic*>(room);
  std::memset(MIMETYPE_magic + g_maxmagic, 0,
              static_cast<size_t>(want - g_maxmagic) * sizeof(struct magic));
  g_maxmagic = static_cast<int>(want);
  g_incr *= 2;
  return true;
}

bool new_table() {
  magic_table_free();
  MIMETYPE_magic = static_cast<struct magic*>(std::calloc(MAGIC_FIRST_ROOM, sizeof(struct magic)));
  if (MIMETYPE_magic == nullptr) return false;
  g_maxmagic = MAGIC_FIRST_ROOM;
  g_incr = MAGIC_FIRST_INCR;
  return true;
}

struct TypeName {
  std::string_view name;
  char type;
};
constexpr TypeName kTypes[] = {
    {"byte", BYTE},       {"short", SHORT},     {"long", LONG},     {"string", STRING},
    {"date", DATE},       {"beshort", BESHORT}, {"belong", BELONG}, {"bedate", BEDATE},
    {"leshort", LESHORT}, {"lelong", LELONG},   {"ledate", LEDATE},
};

// The type keyword at l ends at a blank, a '&' (mask) or the line's end;
// anything else glued to it ("string/B") makes it a keyword we don't know.
char type_keyword(char*& l) {
  size_t n = 0;
  while (l[n] != '\0' && l[n] != '&' && !is_blank(l[n])) ++n;
  std::string_view word(l, n);
  for (const auto& t : kTypes)
    if (t.name == word) {
      l += n;
      return t.type;
    }
  return 0;
}

// "(offset[.size][+-n])": the offset has been read; l is just past it.
void indirect_tail(struct magic* m, char*& l) {
  m->in.type = LONG;
  m->in.offset = 0;
  if (*l == '.') {
    ++l;
    switch (*l) {
      case 'l': case 'L':
        m->in.type = LONG;
        break;
      case 'h': case 'H': case 's': case 'S':
        m->in.type = SHORT;
        break;
      case 'c': case 'C': case 'b': case 'B':
        m->in.type = BYTE;
        break;
      default:
        magwarn("indirect offset type %c invalid in file %s, line %d", *l != '\0' ? *l : ' ',
                g_file, MIMETYPE_lineno);
        break;
    }
    if (*l != '\0') ++l;
  }
  char* sign = l;
  char* t = l;
  if (*l == '+' || *l == '-') ++l;
  if (std::isdigit(static_cast<unsigned char>(*l))) {
    uint32_t n = c_number(l, &t);
    if (*sign == '-') n = 0u - n;
    m->in.offset = static_cast<int32_t>(n);
  } else {
    t = l;
  }
  if (*t == ')')
    ++t;
  else
    magwarn("missing ')' in indirect offset in file %s, line %d", g_file, MIMETYPE_lineno);
  l = t;
}

void read_relation(struct magic* m, char*& l, bool& any_value) {
  any_value = true;
  switch (*l) {
    case '>': case '<': case '&': case '^': case '=':
      m->reln = static_cast<unsigned char>(*l++);
      return;
    case '!':
      if (m->type != STRING) {  // for strings a '!' is part of the value
        m->reln = static_cast<unsigned char>(*l++);
        return;
      }
      break;
    default:
      break;
  }
  if (*l == 'x' && is_blank(l[1])) {  // "x": any value, and none written
    m->reln = 'x';
    ++l;
    any_value = false;
    return;
  }
  m->reln = '=';
}

void read_description(struct magic* m, char* l) {
  eatab(l);
  if (l[0] == '\b') {
    ++l;
    m->nospflag = 1;
  } else if (l[0] == '\\' && l[1] == 'b') {
    l += 2;
    m->nospflag = 1;
  } else {
    m->nospflag = 0;
  }
  size_t n = strnlen(l, MAGIC_MAXDESC - 1);
  std::memcpy(m->desc, l, n);
  m->desc[n] = '\0';
}

}  // namespace

uint32_t signextend(const struct magic* m, uint32_t v) {
  if (m->flag & UNSIGNED) return v;
  switch (m->type) {
    case BYTE:
      return static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(v)));
    case SHORT:
    case BESHORT:
    case LESHORT:
      return static_cast<uint32_t>(static_cast<int32_t>(static_cast<int16_t>(v)));
    default:  // longs, dates: already 32 bits; strings are not numbers
      return v;
  }
}

void eatsize(char** p) {
  char* l = *p;
  if (std::tolower(static_cast<unsigned char>(*l)) == 'u') ++l;
  switch (std::tolower(static_cast<unsigned char>(*l))) {
    case 'l': case 's': case 'h': case 'b': case 'c':
      ++l;
      break;
    default:
      break;
  }
  *p = l;
}

char* getstr(char* s, char* p, int plen, int* slen) {
  char* const origp = p;
  char* const pmax = p + plen - 1;
  char* const origs = s;
  while (*s != '\0' && !is_blank(*s)) {
    if (p >= pmax) {
      size_t tok = 0;
      while (origs[tok] != '\0' && !is_blank(origs[tok])) ++tok;
      magwarn("string too long: %.*s", static_cast<int>(tok), origs);
      s = origs + tok;  // the rest of the value is dropped, not taken as description
      break;
    }
    char c = *s++;
    if (c != '\\') {
      *p++ = c;
      continue;
    }
    c = *s;
    if (c == '\0') break;  // a lone backslash ends the line
    ++s;
    switch (c) {
      case 'n': *p++ = '\n'; break;
      case 'r': *p++ = '\r'; break;
      case 'b': *p++ = '\b'; break;
      case 't': *p++ = '\t'; break;
      case 'f': *p++ = '\f'; break;
      case 'v': *p++ = '\v'; break;
      case '0': case '1': case '2': case '3': case '4': case '5': case '6': case '7': {
        int val = c - '0';
        for (int k = 0; k < 2 && *s >= '0' && *s <= '7'; ++k) val = (val << 3) | (*s++ - '0');
        *p++ = static_cast<char>(val);
        break;
      }
      case 'x': {
        int val = 'x';  // "\x" without digits stands for an x
        int d = digit_value(*s);
        if (d >= 0) {
          val = d;
          ++s;
          d = digit_value(*s);
          if (d >= 0) {
            val = (val << 4) + d;
            ++s;
          }
        }
        *p++ = static_cast<char>(val);
        break;
      }
      default:  // any other escaped character stands for itself
        *p++ = c;
        break;
    }
  }
  *p = '\0';
  *slen = static_cast<int>(p - origp);
  return s;
}

int getvalue(struct magic* m, char** p) {
  if (m->type == STRING) {
    int slen = 0;
    *p = getstr(*p, m->value.s, static_cast<int>(sizeof(m->value.s)), &slen);
    m->vallen = static_cast<char>(slen);
  } else if (m->reln != 'x') {
    char* t = *p;
    m->value.l = signextend(m, c_number(*p, &t));
    *p = t;
    eatsize(p);
  }
  return 0;
}

int parse(char* l, int* nmagicp, int check) {
  if (!grow_table(*nmagicp + 1)) {
    std::fprintf(stderr, "out of memory\n");
    if (!check) std::exit(1);
    return -1;
  }
  struct magic* m = &MIMETYPE_magic[*nmagicp];
  std::memset(m, 0, sizeof(*m));

  while (*l == '>') {
    ++l;
    if (m->cont_level < SHRT_MAX) ++m->cont_level;
  }
  if (m->cont_level != 0 && *l == '&') {
    ++l;
    m->flag |= ADD;
  }
  if (m->cont_level != 0 && *l == '(') {
    ++l;
    m->flag |= INDIR;
  }

  char* t = l;
  m->offset = static_cast<int32_t>(c_number(l, &t));
  if (t == l) magwarn("offset %s invalid in file %s, line %d", l, g_file, MIMETYPE_lineno);
  l = t;
  if (m->flag & INDIR) indirect_tail(m, l);

  eatab(l);
  char* const type_start = l;
  if (*l == 'u') {
    ++l;
    m->flag |= UNSIGNED;
  }
  m->type = type_keyword(l);
  if (m->type == 0) {
    magwarn("type %s invalid in file %s, line %d", type_start, g_file, MIMETYPE_lineno);
    std::memset(m, 0, sizeof(*m));
    return -1;
  }

  if (*l == '&') {
    ++l;
    m->mask = signextend(m, c_number(l, &t));
    l = t;
    eatsize(&l);
  } else {
    m->mask = ~0u;
  }

  eatab(l);
  bool has_value = true;
  read_relation(m, l, has_value);
  if (has_value) {
    eatab(l);
    getvalue(m, &l);
  }
  read_description(m, l);
  ++*nmagicp;
  return 0;
}

int apprentice_1(const char* fn, int check) {
  std::string path = resolve_path(fn);
  FileText file(path);
  if (!file.ok()) {
    // A file that simply isn't there is not worth a message.
    if (file.error() != ENOENT) std::fprintf(stderr, "can't read magic file %s\n", path.c_str());
    return -1;
  }
  g_file = path.c_str();
  int errs = 0;
  MIMETYPE_lineno = 0;
  static char line[MAGIC_LINE_BUF];
  for_each_line(file.text(), [&](std::string_view text) {
    ++MIMETYPE_lineno;
    if (text.empty() || text[0] == '#') return;
    // The line buffer holds 8192 bytes: the rest of a longer line is lost.
    size_t n = std::min(text.size(), sizeof(line) - 1);
    std::memcpy(line, text.data(), n);
    line[n] = '\0';
    g_line_warned = false;
    if (parse(line, &MIMETYPE_nmagic, check) != 0) {
      errs = 1;
      ++MIMETYPE_nrejected;
    } else if (g_line_warned) {
      ++MIMETYPE_nwarned;
    }
  });
  g_file = "";
  return errs;
}

void magic_table_free() {
  std::free(MIMETYPE_magic);
  MIMETYPE_magic = nullptr;
  MIMETYPE_nmagic = 0;
  g_maxmagic = 0;
  g_incr = MAGIC_FIRST_INCR;
}

}  // namespace tarn_magic

using namespace tarn_magic;

extern "C" TARNMAIL_API int apprentice(const char* fn, int check) {
  MIMETYPE_nrejected = 0;
  MIMETYPE_nwarned = 0;
  if (!new_table()) {
    std::fprintf(stderr, "out of memory\n");
    if (!check) std::exit(1);
    return -1;
  }
  int errs = -1;
  std::string_view list = fn != nullptr ? fn : "";
  if (fn != nullptr) {
    for (;;) {
      size_t colon = list.find(':');
      std::string one(list.substr(0, colon));
      errs = std::max(errs, apprentice_1(one.c_str(), check));
      if (colon == std::string_view::npos) break;
      list.remove_prefix(colon + 1);
    }
  }
  if (errs == -1) std::fprintf(stderr, "couldn't find any magic files\n");
  if (!check && errs < 0) std::exit(1);
  return errs;
}
