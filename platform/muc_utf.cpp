// muc_utf.cpp - the Unicode forms with readers of their own: UTF-7 both
// ways (RFC 2152) and UTF-16LE to UTF-8.
#include "mlg_internal.h"
#include "tarnplat.h"

namespace tarnplat {
namespace {

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64_value(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

constexpr bool is_high_surrogate(uint32_t u) { return u >= 0xD800 && u <= 0xDBFF; }
constexpr bool is_low_surrogate(uint32_t u) { return u >= 0xDC00 && u <= 0xDFFF; }
constexpr uint32_t join_surrogates(uint32_t hi, uint32_t lo) {
  return 0x10000 + ((hi - 0xD800) << 10) + (lo - 0xDC00);
}

// Joins UTF-16 code units into characters: a high surrogate waits for the
// low one; anything unpaired becomes U+FFFD.  U+0000 is written as U+FFFD
// too, since the results are NUL-terminated texts.
class Utf16Joiner {
 public:
  explicit Utf16Joiner(HeapBuf& out) : out_(out) {}
  void unit(uint32_t u) {
    if (high_ != 0) {
      uint32_t hi = high_;
      high_ = 0;
      if (is_low_surrogate(u)) {
        out_.append_code_point(join_surrogates(hi, u));
        return;
      }
      out_.append(kReplacement);
    }
    if (is_high_surrogate(u)) {
      high_ = u;
    } else if (is_low_surrogate(u) || u == 0) {
      out_.append(kReplacement);
    } else {
      out_.append_code_point(u);
    }
  }
  // End of a run: a high surrogate still waiting is unpaired.
  void finish() {
    if (high_ != 0) out_.append(kReplacement);
    high_ = 0;
  }

 private:
  HeapBuf& out_;
  uint32_t high_ = 0;
};

// Base64 characters from t[i] on.  A run shorter than three of them holds
// no whole UTF-16 unit: the "+" before it is then taken as written ("a+b").
size_t run_length(Bytes t, size_t i) {
  size_t n = 0;
  while (i + n < t.size() && base64_value(t[i + n]) >= 0) ++n;
  return n;
}

// Reads one base64 run of UTF-7 starting at t[i] (the byte after "+");
// returns the position after the run and its optional closing "-".
size_t utf7_run(Bytes t, size_t i, HeapBuf& out) {
  Utf16Joiner joiner(out);
  uint32_t bits = 0;
  int nbits = 0;
  for (; i < t.size(); ++i) {
    int v = base64_value(t[i]);
    if (v < 0) break;
    bits = (bits << 6) | static_cast<uint32_t>(v);
    nbits += 6;
    if (nbits >= 16) {
      nbits -= 16;
      joiner.unit((bits >> nbits) & 0xFFFF);
      bits &= (1u << nbits) - 1;
    }
  }
  joiner.finish();
  // A run may end with fewer than six zero bits of padding; more bits, or
  // bits that are not zero, are the remains of a broken character.
  if (nbits >= 6 || bits != 0) out.append(kReplacement);
  if (i < t.size() && t[i] == '-') ++i;
  return i;
}

// Characters written as themselves: RFC 2152's sets D and O, blank, tab,
// CR and LF.  Only "+", "\" and "~" among the printable ones are encoded.
// Writing "<", ">", "&" and quotes directly keeps them visible to the HTML
// escaping that follows, instead of hiding them inside base64.
bool is_direct(uint32_t c) {
  if (c == ' ' || c == '\t' || c == '\r' || c == '\n') return true;
  return c > 0x20 && c < 0x7F && c != '+' && c != '\\' && c != '~';
}

class Utf7Writer {
 public:
  explicit Utf7Writer(HeapBuf& out) : out_(out) {}
  void put(uint32_t cp) {
    if (is_direct(cp)) {
      close();
      out_.push(static_cast<char>(cp));
    } else if (cp == '+') {
      close();
      out_.append("+-");
    } else if (cp >= 0x10000) {
      cp -= 0x10000;
      unit(0xD800 + (cp >> 10));
      unit(0xDC00 + (cp & 0x3FF));
    } else {
      unit(cp);
    }
  }
  // Ends an open run: the last bits padded with zeros, then "-" (always
  // written, so the next character can never be read as base64).
  void close() {
    if (!open_) return;
    if (nbits_ > 0) out_.push(kBase64[(bits_ << (6 - nbits_)) & 0x3F]);
    out_.push('-');
    open_ = false;
    bits_ = 0;
    nbits_ = 0;
  }

 private:
  void unit(uint32_t u) {
    if (!open_) {
      out_.push('+');
      open_ = true;
    }
    bits_ = (bits_ << 16) | u;
    nbits_ += 16;
    while (nbits_ >= 6) {
      nbits_ -= 6;
      out_.push(kBase64[(bits_ >> nbits_) & 0x3F]);
    }
    bits_ &= (1u << nbits_) - 1;
  }

  HeapBuf& out_;
  bool open_ = false;
  uint32_t bits_ = 0;
  int nbits_ = 0;
};

// The code point of the valid UTF-8 character at p (n bytes long).
uint32_t decode_utf8(const unsigned char* p, int n) {
  switch (n) {
    case 1: return p[0];
    case 2: return ((p[0] & 0x1Fu) << 6) | (p[1] & 0x3Fu);
    case 3: return ((p[0] & 0x0Fu) << 12) | ((p[1] & 0x3Fu) << 6) | (p[2] & 0x3Fu);
    default:
      return ((p[0] & 0x07u) << 18) | ((p[1] & 0x3Fu) << 12) | ((p[2] & 0x3Fu) << 6) |
             (p[3] & 0x3Fu);
  }
}

}  // namespace

void utf7_to_utf8(Bytes t, HeapBuf& out) {
  size_t i = 0;
  while (i < t.size()) {
    unsigned char b = t[i];
    unsigned char next = i + 1 < t.size() ? t[i + 1] : 0;
    if (b == '+' && next == '-') {
      out.push('+');
      i += 2;
    } else if (b == '+' && run_length(t, i + 1) >= 3) {
      i = utf7_run(t, i + 1, out);
    } else if (b >= 0x80) {
      out.append(kReplacement);  // UTF-7 is 7-bit; a high byte means nothing
      i += 1;
    } else {
      out.push(static_cast<char>(b));  // also a "+" that opens no run
      i += 1;
    }
  }
}

}  // namespace tarnplat

extern "C" {

TARNPLAT_API char* MUC_UTF72UTF8(const char* pszText, int nFlag) {
  (void)nFlag;
  if (pszText == nullptr) return nullptr;
  size_t n = std::strlen(pszText);
  tarnplat::HeapBuf out(n + n / 2 + 16);
  tarnplat::utf7_to_utf8(tarnplat::as_bytes(pszText, n), out);
  return out.release();
}

TARNPLAT_API char* MUC_UTF82UTF7(const char* pszText) {
  if (pszText == nullptr) return nullptr;
  auto p = reinterpret_cast<const unsigned char*>(pszText);
  tarnplat::HeapBuf out(std::strlen(pszText) * 2 + 16);
  tarnplat::Utf7Writer writer(out);
  while (*p != 0) {
    int n = tarnplat::utf8_length(p);
    writer.put(n > 0 ? tarnplat::decode_utf8(p, n) : 0xFFFD);  // a bad byte is one U+FFFD
    p += n > 0 ? n : 1;
  }
  writer.close();
  return out.release();
}

TARNPLAT_API char* MUC_UTF16LE2UTF8(const void* pvText, size_t nLen) {
  if (pvText == nullptr) return nullptr;
  auto p = static_cast<const unsigned char*>(pvText);
  size_t units = nLen / 2;  // an odd last byte is half a unit: dropped
  tarnplat::HeapBuf out(units * 3 + 16);
  tarnplat::Utf16Joiner joiner(out);
  for (size_t k = 0; k < units; ++k) {
    uint32_t u = p[2 * k] | (static_cast<uint32_t>(p[2 * k + 1]) << 8);
    if (u == 0) break;
    joiner.unit(u);
  }
  joiner.finish();
  return out.release();
}

}  // extern "C"
