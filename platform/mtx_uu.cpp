/*
 * mtx_uu.cpp - uuencode decoding in place.
 *
 * A data line is a length character (" " + count, "`" standing for 0 as
 * well as " ") followed by groups of four characters, each character
 * " " + six bits.  Mail mangles these lines, so the decoder is tolerant:
 * CR LF line ends are fine; characters missing at the end of a short line
 * (blanks stripped on the way) count as zero; a line whose first byte cannot
 * be a length character is skipped.  Decoding stops at an "end" line, a line
 * of length zero, an empty line, or the end of the text.
 *
 * The decoded bytes of a line are written only as far as the bytes already
 * read, so a line too short for its length character cannot make the
 * output overtake the input; only such a damaged line can lose bytes.
 */
#include <algorithm>
#include <climits>
#include <cstring>

#include "mtx_internal.h"
#include "tarnplat.h"

namespace tarnplat::mtx {
namespace {

constexpr size_t kMaxLineBytes = 63;                        // largest length character
constexpr size_t kMaxLineChars = (kMaxLineBytes + 2) / 3 * 4;  // its characters

struct Line {
  const unsigned char* begin;  // first byte
  const unsigned char* end;    // end of the content (before CR LF or LF)
  const unsigned char* next;   // first byte of the next line
};

Line NextLine(const unsigned char* p, const unsigned char* end) {
  const auto* lf = static_cast<const unsigned char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
  Line line{p, lf != nullptr ? lf : end, lf != nullptr ? lf + 1 : end};
  if (line.end > line.begin && line.end[-1] == '\r') --line.end;
  return line;
}

bool IsBlank(unsigned char c) { return c == ' ' || c == '\t'; }

// "end", with blanks allowed around it.
bool IsEndLine(const Line& line) {
  const unsigned char* p = line.begin;
  while (p < line.end && IsBlank(*p)) ++p;
  if (line.end - p < 3 || std::memcmp(p, "end", 3) != 0) return false;
  for (p += 3; p < line.end; ++p) {
    if (!IsBlank(*p)) return false;
  }
  return true;
}

inline uint32_t Sextet(unsigned char c) { return static_cast<uint32_t>(c - 0x20) & 0x3F; }

// Decodes the data of one line (count bytes) into bytes.
void DecodeLine(const Line& line, size_t count, unsigned char* bytes) {
  const size_t groups = (count + 2) / 3;
  unsigned char chars[kMaxLineChars];
  const size_t present = std::min(static_cast<size_t>(line.end - line.begin) - 1, groups * 4);
  std::memcpy(chars, line.begin + 1, present);
  std::memset(chars + present, ' ', groups * 4 - present);
  for (size_t g = 0; g < groups; ++g) {
    const unsigned char* c = chars + 4 * g;
    const uint32_t x = (Sextet(c[0]) << 18) | (Sextet(c[1]) << 12) | (Sextet(c[2]) << 6) | Sextet(c[3]);
    bytes[3 * g] = static_cast<unsigned char>(x >> 16);
    bytes[3 * g + 1] = static_cast<unsigned char>(x >> 8);
    bytes[3 * g + 2] = static_cast<unsigned char>(x);
  }
}

// A "begin MODE NAME" line: MODE in octal digits, NAME up to the line's end.
struct BeginLine {
  const unsigned char* name = nullptr;
  size_t name_len = 0;
  const unsigned char* data = nullptr;  // the line after it
};

bool ParseBegin(const unsigned char* p, const unsigned char* end, BeginLine& begin) {
  if (end - p < 6 || std::memcmp(p, "begin ", 6) != 0) return false;
  const Line line = NextLine(p, end);
  const unsigned char* q = p + 6;
  const unsigned char* const digits = q;
  while (q < line.end && *q >= '0' && *q <= '7') ++q;
  if (q == digits) return false;
  if (q < line.end && *q != ' ') return false;
  begin.name = q < line.end ? q + 1 : q;
  begin.name_len = static_cast<size_t>(line.end - begin.name);
  begin.data = line.next;
  return true;
}

// The begin line at the text's start or after any LF.
bool FindBegin(const unsigned char* p, const unsigned char* end, BeginLine& begin) {
  for (;;) {
    if (ParseBegin(p, end, begin)) return true;
    const auto* lf = static_cast<const unsigned char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
    if (lf == nullptr) return false;
    p = lf + 1;
  }
}

int ClampCount(size_t n) { return n > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(n); }

}  // namespace

size_t UUDecodeLines(unsigned char* out, const unsigned char* in, const unsigned char* end) {
  unsigned char* const start = out;
  while (in < end) {
    const Line line = NextLine(in, end);
    if (line.end == line.begin || IsEndLine(line)) break;
    const unsigned char lead = *line.begin;
    if (lead < 0x20 || lead > 0x60) {  // no length character: not a data line
      in = line.next;
      continue;
    }
    const size_t count = Sextet(lead);
    if (count == 0) break;
    unsigned char bytes[kMaxLineChars];
    DecodeLine(line, count, bytes);
    // Everything before line.next has been read; out may catch up with it.
    const size_t n = std::min(count, static_cast<size_t>(line.next - out));
    std::memcpy(out, bytes, n);
    out += n;
    in = line.next;
  }
  return static_cast<size_t>(out - start);
}

}  // namespace tarnplat::mtx

using tarnplat::mtx::BeginLine;
using tarnplat::mtx::ClampCount;
using tarnplat::mtx::FindBegin;
using tarnplat::mtx::UUDecodeLines;

extern "C" {

TARNPLAT_API int MTX_UUDec(char* pszText) {
  if (pszText == nullptr) return 0;
  auto* text = reinterpret_cast<unsigned char*>(pszText);
  const size_t n = UUDecodeLines(text, text, text + std::strlen(pszText));
  text[n] = '\0';
  return ClampCount(n);
}

TARNPLAT_API int MTX_UUDec2(char* pszText, char* pszName, int nzName) {
  if (pszName != nullptr && nzName > 0) pszName[0] = '\0';
  if (pszText == nullptr) return 0;
  auto* text = reinterpret_cast<unsigned char*>(pszText);
  const unsigned char* const end = text + std::strlen(pszText);
  const unsigned char* data = text;
  BeginLine begin;
  if (FindBegin(text, end, begin)) {
    // The name goes first: the decoded bytes overwrite the begin line.
    if (pszName != nullptr && nzName > 0) {
      const size_t len = std::min(begin.name_len, static_cast<size_t>(nzName) - 1);
      std::memcpy(pszName, begin.name, len);
      pszName[len] = '\0';
    }
    data = begin.data;
  }
  const size_t n = UUDecodeLines(text, data, end);
  text[n] = '\0';
  return ClampCount(n);
}

}  // extern "C"
