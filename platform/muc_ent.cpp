// muc_ent.cpp - recognises numeric character references ("&#233;",
// "&#x20AC;"), the form in which browsers send characters that the page's
// charset cannot hold.
#include "tarnplat.h"

namespace {

constexpr unsigned long kMaxCodePoint = 0x10FFFF;

int digit_value(char c, bool hex) {
  if (c >= '0' && c <= '9') return c - '0';
  if (!hex) return -1;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

extern "C" {

TARNPLAT_API int MUC_IsUnicodeEnt(const char* pszStr, int nFlag) {
  (void)nFlag;
  if (pszStr == nullptr || pszStr[0] != '&' || pszStr[1] != '#') return 0;
  const bool hex = pszStr[2] == 'x' || pszStr[2] == 'X';
  const char* p = pszStr + (hex ? 3 : 2);
  unsigned long cp = 0;
  int digits = 0;
  // Each byte is read only after the one before it was a digit, so the
  // scan never passes the terminator; the code-point bound ends it early.
  for (int v; (v = digit_value(*p, hex)) >= 0; ++p) {
    cp = cp * (hex ? 16 : 10) + static_cast<unsigned long>(v);
    if (cp > kMaxCodePoint) return 0;
    ++digits;
  }
  if (digits == 0 || *p != ';') return 0;
  return static_cast<int>(p + 1 - pszStr);
}

}  // extern "C"
