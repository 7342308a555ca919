/*
 * mtx_qp.cpp - quoted-printable decoding in place.
 *
 * "=XY" with two hex digits of either case becomes one byte.  "=" followed
 * by blanks or tabs and then LF, CR LF or the end of the text is a soft line
 * break: the "=", the blanks and the line break vanish.  Any other "=" is
 * kept as written, and so is everything else: hard line breaks keep their
 * form (CR LF stays CR LF) and blanks at the end of a line stay, as common
 * mail readers keep them.
 *
 * The text is copied run by run between the "=" signs, which memchr finds
 * (or, once the cursors lie apart, a 16-byte compare), so plain stretches
 * cost little more than a memmove.
 */
#include <climits>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "mtx_internal.h"
#include "tarnplat.h"

namespace tarnplat::mtx {
namespace {

constexpr unsigned char kNotHex = 0xFF;

struct HexTable {
  unsigned char v[256];
};

constexpr HexTable MakeHexTable() {
  HexTable t{};
  for (unsigned c = 0; c < 256; ++c) {
    if (c >= '0' && c <= '9') {
      t.v[c] = static_cast<unsigned char>(c - '0');
    } else if (c >= 'A' && c <= 'F') {
      t.v[c] = static_cast<unsigned char>(c - 'A' + 10);
    } else if (c >= 'a' && c <= 'f') {
      t.v[c] = static_cast<unsigned char>(c - 'a' + 10);
    } else {
      t.v[c] = kNotHex;
    }
  }
  return t;
}

constexpr HexTable kHex = MakeHexTable();

// If a soft line break starts at p (just after its "="), returns the
// position after it; otherwise nullptr.
const unsigned char* SoftBreakEnd(const unsigned char* p, const unsigned char* end) {
  while (p < end && (*p == ' ' || *p == '\t')) ++p;
  if (p == end) return p;
  if (*p == '\n') return p + 1;
  if (*p == '\r') {
    if (p + 1 == end) return p + 1;
    if (p[1] == '\n') return p + 2;
  }
  return nullptr;
}

// Decodes what follows an "=" at in (the byte after it); returns where to
// read on.
const unsigned char* DecodeEscape(const unsigned char* in, const unsigned char* end, unsigned char*& out) {
  if (end - in >= 2) {
    const unsigned hi = kHex.v[in[0]];
    const unsigned lo = kHex.v[in[1]];
    if ((hi | lo) < 16) {  // kNotHex has the high bits set
      *out++ = static_cast<unsigned char>((hi << 4) | lo);
      return in + 2;
    }
  }
  if (const unsigned char* next = SoftBreakEnd(in, end)) return next;
  *out++ = '=';  // not an escape: the "=" stands, what follows is read as text
  return in;
}

}  // namespace

size_t QPDecode(unsigned char* text, size_t len) {
  const unsigned char* in = text;
  const unsigned char* const end = text + len;
  unsigned char* out = text;

  while (in < end) {
#if defined(__SSE2__)
    // Once each escape has put the write cursor 16 bytes behind the read
    // cursor, text moves in whole 16-byte blocks: the store cannot reach
    // bytes not yet read.  Short runs between escapes, the rule in
    // accented text, then cost no library call.
    if (end - in >= 16 && in - out >= 16) {
      const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
      const auto eq = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(block, _mm_set1_epi8('='))));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out), block);
      if (eq == 0) {
        in += 16;
        out += 16;
        continue;
      }
      const auto run = static_cast<size_t>(__builtin_ctz(eq));
      in += run;
      out += run;
    } else
#endif
    {
      const auto* eq = static_cast<const unsigned char*>(std::memchr(in, '=', static_cast<size_t>(end - in)));
      const unsigned char* run_end = eq != nullptr ? eq : end;
      const auto run = static_cast<size_t>(run_end - in);
      if (out != in) std::memmove(out, in, run);
      out += run;
      in = run_end;
      if (eq == nullptr) break;
    }
    in = DecodeEscape(in + 1, end, out);
  }
  return static_cast<size_t>(out - text);
}

}  // namespace tarnplat::mtx

extern "C" TARNPLAT_API int MTX_QPDec(char* pszText) {
  if (pszText == nullptr) return 0;
  auto* text = reinterpret_cast<unsigned char*>(pszText);
  const size_t n = tarnplat::mtx::QPDecode(text, std::strlen(pszText));
  text[n] = '\0';
  return n > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(n);
}
