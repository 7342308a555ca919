// mstr_escape.cpp - HTML, URI and JavaScript-string escaping, and removal of
// bidirectional override characters from names.
//
// The calls ending in _s hand back a result they keep themselves: each keeps
// its last kRingSize results in heap strings of its own (per thread), so a
// page can put several of them into one print, as in
//   printf("<img src=\"%s\" alt=\"%s\">", MSTR_HTMLEscape_s(a), MSTR_HTMLEscape_s(b));
// A result stays valid until the same call has been made kRingSize more
// times.  The strings grow with the text; one that grew large is given back
// to the heap when its slot comes round again.

#include <array>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include "mstr_escape_internal.h"
#include "tarnplat.h"

namespace tarnplat {

std::string& ring_slot(EscapeRing& ring) {
  std::string& s = ring.slot[ring.next];
  ring.next = (ring.next + 1) % kRingSize;
  s.clear();
  if (s.capacity() > kRingKeep) s.shrink_to_fit();
  return s;
}

}  // namespace tarnplat

namespace {

using tarnplat::EscapeRing;
using tarnplat::ring_slot;

constexpr char kHex[] = "0123456789ABCDEF";

inline const char* or_empty(const char* s) { return s != nullptr ? s : ""; }

// RFC 3986 unreserved characters: the only ones a URI escape keeps.
constexpr std::array<bool, 256> kUnreserved = [] {
  std::array<bool, 256> t{};
  for (int c = 'A'; c <= 'Z'; ++c) t[c] = t[c + 32] = true;
  for (int c = '0'; c <= '9'; ++c) t[c] = true;
  t['-'] = t['_'] = t['.'] = t['~'] = true;
  return t;
}();

// Escape of one byte for HTML text and attribute values; empty: as it is.
std::string_view html_escape_of(unsigned char c) {
  switch (c) {
    case '&': return "&amp;";
    case '<': return "&lt;";
    case '>': return "&gt;";
    case '"': return "&quot;";
    case '\'': return "&#39;";
    default: return {};
  }
}

// Bounded writer: appends whole pieces while they fit in front of the
// terminator, and refuses a piece that does not (so an escape is never cut
// in half).  The text written so far is always terminated.
class Out {
 public:
  Out(char* dst, size_t size) : dst_(dst), room_(size > 0 ? size - 1 : 0) {
    if (size > 0) dst_[0] = '\0';
  }
  bool put(std::string_view piece) {
    if (piece.size() > room_ - len_) {
      full_ = true;
      return false;
    }
    std::memcpy(dst_ + len_, piece.data(), piece.size());
    len_ += piece.size();
    dst_[len_] = '\0';
    return true;
  }
  bool full() const { return full_; }
  size_t length() const { return len_; }

 private:
  char* dst_;
  size_t room_;
  size_t len_ = 0;
  bool full_ = false;
};

// A sink that appends to a std::string (the _s calls), with the same put().
struct StringOut {
  std::string* s;
  bool put(std::string_view piece) {
    s->append(piece);
    return true;
  }
};

template <typename Sink>
void html_escape(std::string_view in, Sink& out) {
  size_t run = 0;
  for (size_t i = 0; i < in.size(); ++i) {
    std::string_view esc = html_escape_of(static_cast<unsigned char>(in[i]));
    if (esc.empty()) continue;
    if (!out.put(in.substr(run, i - run)) || !out.put(esc)) return;
    run = i + 1;
  }
  out.put(in.substr(run));
}

template <typename Sink>
void uri_escape(std::string_view in, Sink& out) {
  for (size_t i = 0; i < in.size(); ++i) {
    auto c = static_cast<unsigned char>(in[i]);
    if (kUnreserved[c]) {
      if (!out.put(in.substr(i, 1))) return;
    } else {
      const char esc[3] = {'%', kHex[c >> 4], kHex[c & 15]};
      if (!out.put(std::string_view(esc, 3))) return;
    }
  }
}

// JavaScript string literal: the text may stand between single or double
// quotes, inside a <script> element or an event attribute, so quotes, the
// backslash, the characters that end an element or begin an entity, every
// control byte and the two Unicode line separators are escaped.  Whole
// multibyte characters of the charset are copied unchanged (a Shift_JIS
// trail byte 0x5C is no backslash).
template <typename Sink>
void js_escape(const char* text, int charset, Sink& out) {
  const auto* p = reinterpret_cast<const unsigned char*>(text);
  while (*p != 0) {
    // The line separators end a string literal in older engines; their
    // UTF-8 bytes are looked for also in text of no declared charset.
    if ((charset == 0 || charset == MLG_UTF8) && p[0] == 0xE2 && p[1] == 0x80 && (p[2] == 0xA8 || p[2] == 0xA9)) {
      if (!out.put(p[2] == 0xA8 ? "\\u2028" : "\\u2029")) return;
      p += 3;
      continue;
    }
    int n = charset != 0 ? MLG_CharacterLength(reinterpret_cast<const char*>(p), charset) : 1;
    if (n < 1) n = 1;
    bool ok;
    if (n > 1) {
      ok = out.put(std::string_view(reinterpret_cast<const char*>(p), static_cast<size_t>(n)));
    } else {
      const unsigned char c = *p;
      switch (c) {
        case '\\': ok = out.put("\\\\"); break;
        case '\n': ok = out.put("\\n"); break;
        case '\r': ok = out.put("\\r"); break;
        case '\t': ok = out.put("\\t"); break;
        default:
          if (c < 0x20 || c == 0x7F || c == '"' || c == '\'' || c == '<' || c == '>' || c == '&' || c == '/') {
            const char esc[4] = {'\\', 'x', kHex[c >> 4], kHex[c & 15]};
            ok = out.put(std::string_view(esc, 4));
          } else {
            ok = out.put(std::string_view(reinterpret_cast<const char*>(p), 1));
          }
      }
    }
    if (!ok) return;
    p += n;
  }
}

// Bidirectional embedding, override and isolate controls (U+202A..U+202E,
// U+2066..U+2069): they let a name such as "gpj.exe" show as "exe.jpg".
bool is_bidi_control(unsigned long cp) {
  return (cp >= 0x202A && cp <= 0x202E) || (cp >= 0x2066 && cp <= 0x2069);
}

// Length of a UTF-8 bidi control at p, or 0.
size_t utf8_bidi_at(const unsigned char* p) {
  if (p[0] != 0xE2) return 0;
  if (p[1] == 0x80 && p[2] >= 0xAA && p[2] <= 0xAE) return 3;
  if (p[1] == 0x81 && p[2] >= 0xA6 && p[2] <= 0xA9) return 3;
  return 0;
}

// Length of a numeric character reference to a bidi control at p, or 0:
// the name is shown as HTML, where "&#8238;" overrides as well as the
// character itself.
size_t entity_bidi_at(const char* p) {
  const int n = MUC_IsUnicodeEnt(p, 0);
  if (n <= 0) return 0;
  const bool hex = p[2] == 'x' || p[2] == 'X';
  unsigned long cp = 0;
  for (const char* d = p + (hex ? 3 : 2); *d != ';'; ++d) {
    const unsigned v = static_cast<unsigned>(*d >= 'a' ? *d - 'a' + 10 : *d >= 'A' ? *d - 'A' + 10 : *d - '0');
    cp = cp * (hex ? 16 : 10) + v;
  }
  return is_bidi_control(cp) ? static_cast<size_t>(n) : 0;
}

}  // namespace

extern "C" {

TARNPLAT_API const char* MSTR_HTMLEscape_s(const char* pszStr) {
  thread_local EscapeRing ring;
  std::string& s = ring_slot(ring);
  StringOut out{&s};
  html_escape(or_empty(pszStr), out);
  return s.c_str();
}

TARNPLAT_API int MSTR_URIEscape(const char* pszSrc, char* pszDst, size_t nzDst) {
  if (pszDst == nullptr || nzDst == 0) return -1;
  Out out(pszDst, nzDst);
  uri_escape(or_empty(pszSrc), out);
  return static_cast<int>(out.length());
}

TARNPLAT_API const char* MSTR_URIEscapeStr(const char* pszStr) {
  thread_local EscapeRing ring;
  std::string& s = ring_slot(ring);
  StringOut out{&s};
  uri_escape(or_empty(pszStr), out);
  return s.c_str();
}

TARNPLAT_API int MSTR_Escape(const char* pszIn, char* pszOut, size_t nzOut, int nMode, int nCharset) {
  if (pszOut == nullptr || nzOut == 0) return -1;
  Out out(pszOut, nzOut);
  const char* in = or_empty(pszIn);
  switch (nMode) {
    case MSTR_ESC_HTML: html_escape(in, out); break;
    case MSTR_ESC_URI: uri_escape(in, out); break;
    case MSTR_ESC_JS: js_escape(in, nCharset, out); break;
    default: return -1;
  }
  return static_cast<int>(out.length());
}

TARNPLAT_API int MSTR_JSEscape(const char* pszSrc, char* pszDst, size_t nzDst) {
  return MSTR_Escape(pszSrc, pszDst, nzDst, MSTR_ESC_JS, 0);
}

TARNPLAT_API const char* MSTR_RLORemove_s(const char* pszStr, int nCharset) {
  thread_local EscapeRing ring;
  std::string& s = ring_slot(ring);
  const char* text = or_empty(pszStr);
  // Undeclared text (0) is most often UTF-8; in the other multibyte
  // charsets the byte pattern could be part of two real characters.
  const bool utf8 = nCharset == MLG_UTF8 || nCharset == MLG_UNKNOWN;
  const auto* p = reinterpret_cast<const unsigned char*>(text);
  while (*p != 0) {
    size_t skip = utf8 ? utf8_bidi_at(p) : 0;
    if (skip == 0 && *p == '&') skip = entity_bidi_at(reinterpret_cast<const char*>(p));
    if (skip > 0) {
      p += skip;
      continue;
    }
    int n = utf8 ? 1 : MLG_CharacterLength(reinterpret_cast<const char*>(p), nCharset);
    if (n < 1) n = 1;
    s.append(reinterpret_cast<const char*>(p), static_cast<size_t>(n));
    p += n;
  }
  return s.c_str();
}

}  // extern "C"
