// Does a buffer look like text?
//
// Text here is any run of printable bytes, the usual control characters
// of text (backspace to carriage return, and escape for ISO-2022 shifts)
// and bytes of 128 and up, whatever charset they belong to, in lines of no
// more than 300 bytes.  The last byte of the buffer is not looked at:
// bodies handed in usually end with their terminator.

#include <cstring>

#include "mime_magic_internal.h"

namespace tarn_magic {
namespace {

constexpr int MAX_LINE = 300;

constexpr std::array<bool, 256> make_table() {
  std::array<bool, 256> t{};
  for (int c = 8; c <= 13; ++c) t[c] = true;  // BS HT LF VT FF CR
  t[27] = true;                               // ESC
  for (int c = 32; c <= 126; ++c) t[c] = true;
  for (int c = 128; c <= 255; ++c) t[c] = true;
  return t;
}

}  // namespace

const std::array<bool, 256> maybe_internat = make_table();

int internatmagic(const unsigned char* buf, int nbytes) {
  int n = buf != nullptr ? nbytes - 1 : 0;
  for (int i = 0; i < n; ++i)
    if (!maybe_internat[buf[i]]) return 0;

  for (int i = 0; i < n;) {
    const void* nl = std::memchr(buf + i, '\n', static_cast<size_t>(n - i));
    if (nl == nullptr) {
      if (n - i > MAX_LINE) return 0;
      break;
    }
    int len = static_cast<int>(static_cast<const unsigned char*>(nl) - (buf + i));
    if (len > MAX_LINE) return 0;
    i += len + 1;
  }
  ctype_printf("text/plain");
  return 1;
}

}  // namespace tarn_magic
