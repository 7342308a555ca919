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
 * The text is copied run by run between the "=" signs, which memchr finds,
 * so plain stretches cost little more than a memmove.
 */
#include <climits>
#include <cstring>

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

}  // namespace

size_t QPDecode(unsigned char* text, size_t len) {
  const unsigned char* in = text;
  const unsigned char* const end = text + len;
  unsigned char* out = text;

  for (;;) {
    const auto* eq = static_cast<const unsigned char*>(std::memchr(in, '=', static_cast<size_t>(end - in)));
    const unsigned char* run_end = eq != nullptr ? eq : end;
    const auto run = static_cast<size_t>(run_end - in);
    if (out != in) std::memmove(out, in, run);
    out += run;
    if (eq == nullptr) break;

    in = eq + 1;
    if (end - in >= 2) {
      const unsigned hi = kHex.v[in[0]];
      const unsigned lo = kHex.v[in[1]];
      if ((hi | lo) < 16) {  // kNotHex has the high bits set
        *out++ = static_cast<unsigned char>((hi << 4) | lo);
        in += 2;
        continue;
      }
    }
    if (const unsigned char* next = SoftBreakEnd(in, end)) {
      in = next;
      continue;
    }
    *out++ = '=';  // not an escape: the "=" stands, what follows is read as text
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
