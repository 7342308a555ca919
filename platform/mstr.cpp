// mstr.cpp - bounded string calls of the platform layer.
//
// Every call accepts NULL where a string is expected: a NULL source reads
// as the empty string, a NULL or zero-sized destination is never written.
// Searches build on the C library's vectorised memchr/strchr/strstr; the
// case-insensitive search scans for either case of the pattern's rarest
// byte with memchr over windows whose length strnlen has established, so
// it never reads past a terminator and costs little when the match is near.

#include <algorithm>
#include <array>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "tarnplat.h"

namespace {

// ASCII lower case; every other byte maps to itself.
constexpr std::array<unsigned char, 256> kFold = [] {
  std::array<unsigned char, 256> t{};
  for (int i = 0; i < 256; ++i) t[i] = static_cast<unsigned char>(i >= 'A' && i <= 'Z' ? i + 32 : i);
  return t;
}();

inline unsigned char fold(char c) { return kFold[static_cast<unsigned char>(c)]; }

inline const char* or_empty(const char* s) { return s != nullptr ? s : ""; }

inline int clamp_int(size_t n) { return n > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(n); }

// True when byte c is one of the characters of set (NULL: none).  The
// terminator is never a member, whatever strchr would say about it.
inline bool in_set(char c, const char* set) {
  return c != '\0' && set != nullptr && std::strchr(set, c) != nullptr;
}

// Compares n bytes without regard to ASCII case; a terminator in either
// string ends the comparison like strncasecmp.
int ncase_cmp(const char* a, const char* b, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    int d = fold(a[i]) - fold(b[i]);
    if (d != 0 || a[i] == '\0') return d;
  }
  return 0;
}

// True when text starts with the (non-empty) pattern, ASCII case ignored.
// Stops at the first difference, so it never passes the text's terminator.
inline bool starts_case(const char* text, std::string_view pat) {
  for (size_t i = 0; i < pat.size(); ++i)
    if (fold(text[i]) != fold(pat[i])) return false;
  return true;
}

// How often a byte (letters folded, both cases counted) turns up in mail
// text, on a rough scale: the search anchors on the rarest byte of the
// pattern, so that "content-" is found by scanning for '-', not for 'c'.
constexpr std::array<unsigned char, 256> kCommon = [] {
  std::array<unsigned char, 256> t{};
  for (int i = 0; i < 256; ++i) t[i] = i < 0x20 ? 5 : i < 0x80 ? 10 : 20;
  const char* letters = "etaoinsrhldcumfpgwybvkxjqz";  // most frequent first
  for (int i = 0; letters[i] != '\0'; ++i) {
    auto c = static_cast<unsigned char>(letters[i]);
    t[c] = t[c - 32] = static_cast<unsigned char>(120 - 4 * i);
  }
  for (int d = '0'; d <= '9'; ++d) t[d] = 30;
  for (const char* p = ".,-=\"/:;<>_"; *p != '\0'; ++p) t[static_cast<unsigned char>(*p)] = 25;
  t[' '] = 200;
  t['\n'] = t['\r'] = t['\t'] = 40;
  return t;
}();

size_t anchor_index(std::string_view pat) {
  size_t best = 0;
  for (size_t i = 1; i < pat.size(); ++i)
    if (kCommon[static_cast<unsigned char>(pat[i])] < kCommon[static_cast<unsigned char>(pat[best])])
      best = i;
  return best;
}

// Positions of the bytes lo and up (the two cases of one letter) in a
// NUL-terminated text, in order.  The text is measured window by window
// with strnlen, which never looks past the terminator; inside a window each
// case is found with memchr, and a hit of one case is kept until the scan
// passes it, so that every byte is searched at most once per case.
class EitherScan {
 public:
  EitherScan(const char* p, char lo, char up) : lo_(lo), up_(up) { measure(p); }

  // The next position holding lo or up, or nullptr at the terminator.
  const char* next() {
    for (;;) {
      if (lo_at_ < pos_) lo_at_ = find(lo_);  // passed: look for the next one
      if (up_at_ < pos_) up_at_ = find(up_);
      const char* c = std::min(lo_at_, up_at_);
      if (c < wend_) {
        pos_ = c + 1;
        return c;
      }
      if (last_) return nullptr;
      if (window_ < kMaxWindow) window_ *= 2;
      measure(wend_);
    }
  }

 private:
  static constexpr size_t kMaxWindow = 64 * 1024;

  void measure(const char* p) {
    size_t n = strnlen(p, window_);
    pos_ = p;
    wend_ = p + n;
    last_ = n < window_;
    lo_at_ = find(lo_);
    up_at_ = find(up_);
  }
  // First c in [pos_, wend_), or wend_ when there is none.
  const char* find(char c) const {
    const void* hit = std::memchr(pos_, c, static_cast<size_t>(wend_ - pos_));
    return hit != nullptr ? static_cast<const char*>(hit) : wend_;
  }

  char lo_, up_;
  size_t window_ = 256;
  const char* pos_ = nullptr;   // next byte to examine
  const char* wend_ = nullptr;  // no terminator in [pos_, wend_)
  bool last_ = false;           // the terminator is at wend_
  const char* lo_at_ = nullptr;  // first lo at or after pos_, wend_ when none
  const char* up_at_ = nullptr;  // the same for up
};

// strstr without regard to ASCII case, for a non-empty pattern.  Candidates
// are the places of the anchor byte; each is checked from its pattern start
// (k bytes before it, never before s since the scan starts k bytes in).
const char* find_case(const char* s, std::string_view pat) {
  size_t k = anchor_index(pat);
  if (strnlen(s, k) < k) return nullptr;  // shorter than the part before the anchor
  char lo = static_cast<char>(fold(pat[k]));
  char up = lo >= 'a' && lo <= 'z' ? static_cast<char>(lo - 32) : lo;
  if (lo == up) {
    for (const char* c = s + k; (c = std::strchr(c, lo)) != nullptr; ++c)
      if (starts_case(c - k, pat)) return c - k;
    return nullptr;
  }
  EitherScan scan(s + k, lo, up);
  while (const char* c = scan.next())
    if (starts_case(c - k, pat)) return c - k;
  return nullptr;
}

// ------------------------------------------------------------------------
// Character lengths for cutting copies.  Only the lead byte (and, to tell a
// real multibyte character from stray high bytes, the trail bytes) count;
// a sequence is never taken to run past a terminator.
// ------------------------------------------------------------------------
inline bool is_cont(unsigned char c) { return (c & 0xC0) == 0x80; }

size_t utf8_len(const unsigned char* p) {
  unsigned char c = p[0];
  size_t n = c >= 0xF0 && c <= 0xF7 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
  if (c >= 0xF8) n = 1;
  for (size_t i = 1; i < n; ++i)
    if (!is_cont(p[i])) return 1;
  return n;
}

inline bool in_range(unsigned char c, unsigned lo, unsigned hi) { return c >= lo && c <= hi; }

// Double-byte charsets: a lead byte in 0x81-0xFE opens a pair.
size_t dbcs_len(const unsigned char* p) { return in_range(p[0], 0x81, 0xFE) && p[1] != 0 ? 2 : 1; }

// GB18030 adds four-byte forms: lead, digit, lead, digit.
size_t gb18030_len(const unsigned char* p) {
  if (!in_range(p[0], 0x81, 0xFE) || p[1] == 0) return 1;
  if (in_range(p[1], 0x30, 0x39)) {
    if (in_range(p[2], 0x81, 0xFE) && in_range(p[3], 0x30, 0x39)) return 4;
    return 1;
  }
  return 2;
}

// Shift_JIS proper: half-width katakana (0xA1-0xDF) stand alone.
size_t sjis_len(const unsigned char* p) {
  bool lead = in_range(p[0], 0x81, 0x9F) || in_range(p[0], 0xE0, 0xFC);
  return lead && p[1] != 0 ? 2 : 1;
}

// EUC-JP: SS2 takes one byte after it, SS3 two.
size_t eucjp_len(const unsigned char* p) {
  if (p[0] == 0x8F) return p[1] != 0 && p[2] != 0 ? 3 : 1;
  if (p[0] == 0x8E || in_range(p[0], 0xA1, 0xFE)) return p[1] != 0 ? 2 : 1;
  return 1;
}

size_t char_len(const unsigned char* p, int charset) {
  switch (charset) {
    case MLG_UTF8: return utf8_len(p);
    case MLG_BIG5:
    case MLG_GB2312:
    case MLG_JAPANESE:
    case MLG_EUCKR: return dbcs_len(p);
    case MLG_SJIS: return sjis_len(p);
    case MLG_EUCJP: return eucjp_len(p);
    case MLG_GB18030: return gb18030_len(p);
    default: return 1;
  }
}

// Number of bytes of src to copy into `room` bytes.  src is known to hold
// no terminator within its first room + 1 bytes when it does not fit, so
// the walk stays inside the string.
size_t cut_length(const char* src, size_t room, int charset) {
  size_t n = strnlen(src, room + 1);
  if (n <= room || charset == 0) return std::min(n, room);
  const auto* p = reinterpret_cast<const unsigned char*>(src);
  size_t pos = 0;
  while (pos < room) {
    size_t len = char_len(p + pos, charset);
    if (pos + len > room) break;
    pos += len;
  }
  return pos;
}

// Appends the cut of src at dst + used, within a buffer of nz bytes whose
// first `used` bytes are taken (used < nz).  Returns the new length.  The
// source may lie inside the destination (a string moved down in place).
int append(char* dst, size_t nz, size_t used, const char* src, int charset) {
  size_t n = cut_length(or_empty(src), nz - 1 - used, charset);
  std::memmove(dst + used, or_empty(src), n);
  dst[used + n] = '\0';
  return clamp_int(used + n);
}

// p is the byte after a matched name.  When skip characters, one separator
// and skip characters follow, returns the position after them (the value),
// else nullptr.
const char* after_name(const char* p, const char* skip, const char* sep) {
  while (in_set(*p, skip)) ++p;
  if (!in_set(*p, sep)) return nullptr;
  ++p;
  while (in_set(*p, skip)) ++p;
  return p;
}

const char* tok_ptr(const char* text, const char* name, const char* skip, const char* sep,
                    int mode) {
  if (text == nullptr || name == nullptr || *name == '\0') return nullptr;
  std::string_view nm(name);
  bool with_case = (mode & MSTR_TOK_CASE) != 0;
  if (mode & MSTR_TOK_ANCHORED) {
    const char* p = text;
    while (in_set(*p, skip)) ++p;
    bool hit = with_case ? std::strncmp(p, name, nm.size()) == 0 : starts_case(p, nm);
    return hit ? after_name(p + nm.size(), skip, sep) : nullptr;
  }
  for (const char* p = text;; ++p) {
    p = with_case ? std::strstr(p, name) : find_case(p, nm);
    if (p == nullptr) return nullptr;
    // An occurrence not followed by the separator is passed over.
    if (const char* v = after_name(p + nm.size(), skip, sep)) return v;
  }
}

// Copies the value at v into buf (room bytes plus the terminator).
void copy_value(const char* v, const char* term, const char* quote, int esc, char* buf,
                size_t nz) {
  size_t out = 0;
  auto put = [&](char c) {
    if (out + 1 < nz) buf[out++] = c;
  };
  if (in_set(*v, quote)) {
    char q = *v++;
    char e = static_cast<char>(esc);
    for (; *v != '\0' && *v != q; ++v) {
      if (esc != 0 && *v == e && v[1] != '\0') ++v;  // the escaped byte is taken as it is
      put(*v);
    }
  } else {
    for (; *v != '\0' && !in_set(*v, term); ++v) put(*v);
  }
  if (nz > 0) buf[out] = '\0';
}

}  // namespace

extern "C" {

TARNPLAT_API int MSTR_Cmp(const char* a, const char* b) { return std::strcmp(or_empty(a), or_empty(b)); }

TARNPLAT_API int MSTR_NCmp(const char* a, const char* b, size_t n) {
  return std::strncmp(or_empty(a), or_empty(b), n);
}

TARNPLAT_API int MSTR_CaseCmp(const char* a, const char* b) {
  return ncase_cmp(or_empty(a), or_empty(b), SIZE_MAX);
}

TARNPLAT_API int MSTR_NCaseCmp(const char* a, const char* b, size_t n) {
  return ncase_cmp(or_empty(a), or_empty(b), n);
}

TARNPLAT_API char* MSTR_LocChr(const char* s, int c) {
  return s != nullptr ? const_cast<char*>(std::strchr(s, static_cast<char>(c))) : nullptr;
}

TARNPLAT_API char* MSTR_RLocChr(const char* s, int c, int /*nFlag*/) {
  return s != nullptr ? const_cast<char*>(std::strrchr(s, static_cast<char>(c))) : nullptr;
}

TARNPLAT_API char* MSTR_LocStr(const char* s, const char* pattern) {
  if (s == nullptr || pattern == nullptr) return nullptr;
  return const_cast<char*>(std::strstr(s, pattern));
}

TARNPLAT_API char* MSTR_LocStrCase(const char* s, const char* pattern, int /*nFlag*/) {
  if (s == nullptr || pattern == nullptr) return nullptr;
  if (*pattern == '\0') return const_cast<char*>(s);
  return const_cast<char*>(find_case(s, pattern));
}

TARNPLAT_API int MSTR_Copy(char* pszDst, size_t nzDst, const char* pszSrc, int nCharset) {
  if (pszDst == nullptr || nzDst == 0) return 0;
  return append(pszDst, nzDst, 0, pszSrc, nCharset);
}

TARNPLAT_API int MSTR_NCopy(char* pszDst, size_t nzDst, const char* pszSrc, size_t nCount) {
  if (pszDst == nullptr || nzDst == 0) return 0;
  const char* src = or_empty(pszSrc);
  size_t n = strnlen(src, std::min(nCount, nzDst - 1));
  std::memmove(pszDst, src, n);
  pszDst[n] = '\0';
  return clamp_int(n);
}

TARNPLAT_API int MSTR_Cat(char* pszDst, size_t nzDst, const char* pszSrc, int nCharset) {
  if (pszDst == nullptr || nzDst == 0) return 0;
  size_t used = strnlen(pszDst, nzDst);
  if (used == nzDst) {  // not terminated inside its buffer: cut it, append nothing
    pszDst[nzDst - 1] = '\0';
    return clamp_int(nzDst - 1);
  }
  return append(pszDst, nzDst, used, pszSrc, nCharset);
}

TARNPLAT_API int MSTR_Printf(char* pszDst, size_t nzDst, const char* pszFormat, ...) {
  if (pszDst == nullptr) nzDst = 0;
  if (pszFormat == nullptr) {
    if (nzDst > 0) pszDst[0] = '\0';
    return 0;
  }
  va_list ap;
  va_start(ap, pszFormat);
  int n = std::vsnprintf(nzDst > 0 ? pszDst : nullptr, nzDst, pszFormat, ap);
  va_end(ap);
  if (n < 0 && nzDst > 0) pszDst[0] = '\0';  // an encoding error leaves an empty string
  return n;
}

TARNPLAT_API char* MSTR_TokPtr(const char* pszText, const char* pszName, const char* pszSkip,
                               const char* pszSep, int /*nEsc*/, int nMode) {
  return const_cast<char*>(tok_ptr(pszText, pszName, pszSkip, pszSep, nMode));
}

TARNPLAT_API char* MSTR_TokVal(const char* pszText, const char* pszName, const char* pszSkip,
                               const char* pszSep, const char* pszTerm, const char* pszQuote,
                               int nEsc, int /*nFlag*/, char* pszBuf, size_t nzBuf, int nMode) {
  if (pszBuf == nullptr) nzBuf = 0;
  const char* v = tok_ptr(pszText, pszName, pszSkip, pszSep, nMode);
  if (v == nullptr) {
    if (nzBuf > 0) pszBuf[0] = '\0';
    return nullptr;
  }
  copy_value(v, pszTerm, pszQuote, nEsc, pszBuf, nzBuf);
  return const_cast<char*>(v);
}

TARNPLAT_API char* MSTR_TrimSpace(char* pszStr) {
  if (pszStr == nullptr) return nullptr;
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  size_t len = std::strlen(pszStr);
  size_t bgn = 0;
  while (bgn < len && blank(pszStr[bgn])) ++bgn;
  while (len > bgn && blank(pszStr[len - 1])) --len;
  std::memmove(pszStr, pszStr + bgn, len - bgn);
  pszStr[len - bgn] = '\0';
  return pszStr;
}

}  // extern "C"
