// mlg_text.cpp - character lengths by charset, and safe file names.
#include "mlg_internal.h"
#include "tarnplat.h"

namespace tarnplat {
namespace {

constexpr bool in(unsigned char b, unsigned lo, unsigned hi) { return b >= lo && b <= hi; }

// Each test reads a byte only after every byte before it matched a
// non-NUL range, so a NUL ends the character and nothing past it is read.
int big5_length(const unsigned char* p) {
  return in(p[0], 0x81, 0xFE) && (in(p[1], 0x40, 0x7E) || in(p[1], 0xA1, 0xFE)) ? 2 : 1;
}

int gb_length(const unsigned char* p) {
  if (!in(p[0], 0x81, 0xFE)) return 1;
  if (in(p[1], 0x40, 0x7E) || in(p[1], 0x80, 0xFE)) return 2;
  if (in(p[1], 0x30, 0x39) && in(p[2], 0x81, 0xFE) && in(p[3], 0x30, 0x39)) return 4;
  return 1;
}

int sjis_length(const unsigned char* p) {
  bool lead = in(p[0], 0x81, 0x9F) || in(p[0], 0xE0, 0xFC);
  return lead && (in(p[1], 0x40, 0x7E) || in(p[1], 0x80, 0xFC)) ? 2 : 1;
}

int eucjp_length(const unsigned char* p) {
  if (p[0] == 0x8E) return in(p[1], 0xA1, 0xDF) ? 2 : 1;
  if (p[0] == 0x8F) return in(p[1], 0xA1, 0xFE) && in(p[2], 0xA1, 0xFE) ? 3 : 1;
  return in(p[0], 0xA1, 0xFE) && in(p[1], 0xA1, 0xFE) ? 2 : 1;
}

int uhc_length(const unsigned char* p) {
  bool trail = in(p[1], 0x41, 0x5A) || in(p[1], 0x61, 0x7A) || in(p[1], 0x81, 0xFE);
  return in(p[0], 0x81, 0xFE) && trail ? 2 : 1;
}

int euctw_length(const unsigned char* p) {
  if (p[0] == 0x8E)
    return in(p[1], 0xA1, 0xB0) && in(p[2], 0xA1, 0xFE) && in(p[3], 0xA1, 0xFE) ? 4 : 1;
  return in(p[0], 0xA1, 0xFE) && in(p[1], 0xA1, 0xFE) ? 2 : 1;
}

Family family_of(int nCharset) {
  const Charset* c = charset_of(nCharset);
  return c != nullptr ? c->family : Family::kSingle;
}

// A high byte that is no part of a whole character of the charset: half a
// double-byte character, a stray trail byte, invalid UTF-8.  Shift_JIS
// keeps its single-byte katakana; single-byte charsets keep every byte.
bool is_stray(unsigned char b, Family family) {
  if (b < 0x80) return false;
  switch (family) {
    case Family::kSingle:
    case Family::kSevenBit:
    case Family::kWide: return false;
    case Family::kSjis: return !in(b, 0xA1, 0xDF);
    default: return true;
  }
}

// UTF-8 characters that must not reach a file name although they are
// valid: C1 controls, line and paragraph separators, and the bidirectional
// overrides and isolates that make "gpj.exe" look like "exe.jpg".
bool is_unsafe_utf8(const unsigned char* p, int n) {
  if (n == 2) return p[0] == 0xC2 && p[1] < 0xA0;
  if (n != 3 || p[0] != 0xE2) return false;
  if (p[1] == 0x80) return in(p[2], 0xA8, 0xAE);  // U+2028..U+202E
  if (p[1] == 0x81) return in(p[2], 0xA6, 0xA9);  // U+2066..U+2069
  return false;
}

// Bytes that separate paths, are special to shells and file systems, or
// would end or escape a URL path ("#" and "%").
bool is_reserved(unsigned char b) {
  if (b < 0x20 || b == 0x7F) return true;
  switch (b) {
    case '/': case '\\': case ':': case '*': case '?': case '"':
    case '<': case '>': case '|': case '#': case '%': return true;
    default: return false;
  }
}

}  // namespace

int utf8_length(const unsigned char* p) {
  unsigned char b = p[0];
  if (b < 0x80) return 1;
  auto tail = [](unsigned char t) { return in(t, 0x80, 0xBF); };
  if (in(b, 0xC2, 0xDF)) return tail(p[1]) ? 2 : 0;
  if (in(b, 0xE0, 0xEF)) {
    unsigned lo = b == 0xE0 ? 0xA0 : 0x80;
    unsigned hi = b == 0xED ? 0x9F : 0xBF;  // no surrogates
    return in(p[1], lo, hi) && tail(p[2]) ? 3 : 0;
  }
  if (in(b, 0xF0, 0xF4)) {
    unsigned lo = b == 0xF0 ? 0x90 : 0x80;
    unsigned hi = b == 0xF4 ? 0x8F : 0xBF;  // nothing above U+10FFFF
    return in(p[1], lo, hi) && tail(p[2]) && tail(p[3]) ? 4 : 0;
  }
  return 0;
}

int char_length(const unsigned char* p, Family family) {
  if (p[0] == 0) return 0;
  if (p[0] < 0x80) return 1;
  switch (family) {
    case Family::kUtf8: {
      int n = utf8_length(p);
      return n > 0 ? n : 1;
    }
    case Family::kBig5: return big5_length(p);
    case Family::kGb: return gb_length(p);
    case Family::kSjis: return sjis_length(p);
    case Family::kEucJp: return eucjp_length(p);
    case Family::kUhc: return uhc_length(p);
    case Family::kEucTw: return euctw_length(p);
    default: return 1;
  }
}

namespace {

// Writes the safe form of the name into dst (room for `limit` bytes plus
// the terminator); returns its length.
size_t safe_name(const unsigned char* p, char* dst, size_t limit, Family family) {
  while (*p == '.' || *p == ' ') ++p;  // no hidden files, no "..", no leading blanks
  size_t out = 0;
  while (*p != 0) {
    int n = char_length(p, family);
    if (n > 1 && !(family == Family::kUtf8 && is_unsafe_utf8(p, n))) {
      if (out + static_cast<size_t>(n) > limit) break;  // never half a character
      std::memmove(dst + out, p, static_cast<size_t>(n));  // dst may be the name itself
      out += static_cast<size_t>(n);
    } else {
      if (out + 1 > limit) break;
      unsigned char b = *p;
      bool bad = n > 1 || is_reserved(b) || is_stray(b, family);
      dst[out++] = bad ? '_' : static_cast<char>(b);
    }
    p += n;
  }
  // A trailing dot or blank can never be a trail byte: every trail range
  // of the multibyte charsets lies above them.
  while (out > 0 && (dst[out - 1] == '.' || dst[out - 1] == ' ')) --out;
  if (out == 0 && limit > 0) dst[out++] = '_';
  dst[out] = '\0';
  return out;
}

}  // namespace
}  // namespace tarnplat

extern "C" {

TARNPLAT_API int MLG_CharacterLength(const char* p, int nCharset) {
  if (p == nullptr) return 0;
  return tarnplat::char_length(reinterpret_cast<const unsigned char*>(p),
                               tarnplat::family_of(nCharset));
}

TARNPLAT_API int MLG_SafeFileName(const char* pszName, char* pszDst, int nzDst, int nCharset) {
  if (pszDst == nullptr) return -2;
  if (nzDst < 1) return -1;
  const char* name = pszName != nullptr ? pszName : "";
  size_t n = tarnplat::safe_name(reinterpret_cast<const unsigned char*>(name), pszDst,
                                 static_cast<size_t>(nzDst) - 1, tarnplat::family_of(nCharset));
  return static_cast<int>(n);
}

}  // extern "C"
