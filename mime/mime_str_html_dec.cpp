// URL decoding in place ("%XX" and '+'), used on form values and links.

#include <cstring>

#include "tarnmail/filter.h"

namespace {

// Value of one digit after '%'.  Nothing is validated: any byte is turned
// into a number by this rule, taken as a signed char as on the system the
// encoded links come from, and the sum is cut to 8 bits by the caller.
int digit_value(char c) {
  const int v = static_cast<signed char>(c);
  return v < 'A' ? v - '0' : (v & ~0x20) - '7';
}

}  // namespace

extern "C" TARNMAIL_API int str_html_dec(char* pszStr) {
  if (pszStr == nullptr) return 0;
  const char* r = pszStr;
  char* w = pszStr;
  while (*r != '\0') {
    if (*r == '%' && r[1] != '\0' && r[2] != '\0') {
      *w++ = static_cast<char>(static_cast<unsigned char>((digit_value(r[1]) * 16 + digit_value(r[2])) & 0xFF));
      r += 3;
    } else if (*r == '+') {
      *w++ = ' ';
      ++r;
    } else {
      // Also a '%' too close to the end to have two digits: kept as it is.
      *w++ = *r++;
    }
  }
  *w = '\0';
  return 0;
}
