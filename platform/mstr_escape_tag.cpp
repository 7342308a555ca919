// mstr_escape_tag.cpp - reduces an HTML text to plain text for the pages
// that show mail as text.
//
// Tags go; comments and the contents of script, style and title elements
// go with them; line breaks and the ends of blocks become line feeds; runs
// of white space become one space outside <pre>; the character references
// of the markup characters, of ASCII, of &nbsp; and (where the charset can
// hold them) of other characters are decoded.  The text never grows, so a
// destination of the source's length plus one always suffices, and the
// destination may be the source itself.  Whole characters of the charset
// are copied as they stand; an ISO-2022-JP text is followed through its
// escape sequences, so that the bytes of a two-byte run are never taken
// for markup.

#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <string_view>

#include "tarnplat.h"

namespace {

constexpr unsigned char kEsc = 0x1B;

inline unsigned char lower(unsigned char c) { return c >= 'A' && c <= 'Z' ? static_cast<unsigned char>(c + 32) : c; }
inline bool is_alpha(unsigned char c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; }
inline bool is_space(unsigned char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f'; }

bool one_of(std::string_view name, std::initializer_list<std::string_view> set) {
  for (std::string_view s : set)
    if (name == s) return true;
  return false;
}

// Elements whose start or end begins a new line of text.
bool is_block(std::string_view name) {
  return one_of(name, {"p", "div", "tr", "li", "h1", "h2", "h3", "h4", "h5", "h6", "table", "blockquote", "pre",
                       "ul", "ol", "dl", "dt", "dd", "hr", "center", "address", "form", "section", "article",
                       "header", "footer"});
}

class TagRemover {
 public:
  TagRemover(const char* src, size_t n, char* dst, int charset)
      : s_(reinterpret_cast<const unsigned char*>(src)), n_(n), d_(dst), charset_(charset) {
    const void* nul = std::memchr(s_, 0, n_);
    if (nul != nullptr) n_ = static_cast<size_t>(static_cast<const unsigned char*>(nul) - s_);
  }

  size_t run() {
    while (i_ < n_) {
      const unsigned char c = s_[i_];
      if (c == kEsc && charset_ == MLG_JAPANESE) {
        shift_sequence();
      } else if (jis_double_) {
        emit_raw(1);
      } else if (c == '<') {
        markup();
      } else if (c == '&') {
        entity();
      } else if (is_space(c) && !in_pre_) {
        space_ = true;
        ++i_;
      } else if (c == '\r' && in_pre_) {
        ++i_;
      } else {
        emit_raw(char_length());
      }
    }
    d_[o_] = '\0';
    return o_;
  }

 private:
  // Length of the character at i_, never past the end of the source.
  size_t char_length() const {
    if (s_[i_] < 0x80 || charset_ == 0) return 1;
    unsigned char tmp[5] = {0, 0, 0, 0, 0};
    const size_t left = n_ - i_;
    std::memcpy(tmp, s_ + i_, left < 4 ? left : 4);
    const int k = MLG_CharacterLength(reinterpret_cast<const char*>(tmp), charset_);
    return k > 1 ? static_cast<size_t>(k) : 1;
  }

  bool at_line_start() const { return o_ == 0 || d_[o_ - 1] == '\n'; }

  // A pending run of white space becomes one space before the next text.
  void flush_space() {
    if (space_ && !at_line_start() && d_[o_ - 1] != ' ') put(' ');
    space_ = false;
  }

  // Every write lies behind the read position, which has moved past at
  // least as many bytes; the checks keep that true whatever the input.
  void put(unsigned char c) {
    if (o_ < i_) d_[o_++] = static_cast<char>(c);
  }

  // Copies k bytes of the source as they stand (o_ <= i_ always holds, so
  // the copy never overtakes the reading).
  void emit_raw(size_t k) {
    flush_space();
    std::memmove(d_ + o_, s_ + i_, k);
    o_ += k;
    i_ += k;
  }

  void newline() {
    space_ = false;
    if (!at_line_start()) put('\n');
  }

  // ESC $ ... enters a two-byte run, ESC ( ... leaves it; the sequence is
  // copied with the text.
  void shift_sequence() {
    size_t k = 1;
    if (i_ + 1 < n_ && (s_[i_ + 1] == '$' || s_[i_ + 1] == '(')) {
      jis_double_ = s_[i_ + 1] == '$';
      k = 2;
      while (i_ + k < n_ && k < 4 && s_[i_ + k] >= 0x20 && s_[i_ + k] < 0x30) ++k;  // intermediates
      if (i_ + k < n_) ++k;  // the final byte
    }
    emit_raw(k);
  }

  // Position just after `pat` (compared without case) at or after `from`,
  // or n_ when it does not occur.
  size_t find_after(size_t from, std::string_view pat) const {
    for (size_t j = from; j + pat.size() <= n_; ++j) {
      size_t m = 0;
      while (m < pat.size() && lower(s_[j + m]) == static_cast<unsigned char>(pat[m])) ++m;
      if (m == pat.size()) return j + m;
    }
    return n_;
  }

  // End of a tag that starts at `from`: the byte after its '>' (quoted
  // attribute values may hold '>'), or the end of the text.
  size_t tag_end(size_t from) const {
    unsigned char quote = 0;
    for (size_t j = from + 1; j < n_; ++j) {
      const unsigned char c = s_[j];
      if (quote != 0) {
        if (c == quote) quote = 0;
      } else if (c == '"' || c == '\'') {
        if (s_[j - 1] == '=' || is_space(s_[j - 1])) quote = c;
      } else if (c == '>') {
        return j + 1;
      }
    }
    return n_;
  }

  void markup() {
    const unsigned char next = i_ + 1 < n_ ? s_[i_ + 1] : 0;
    if (next == '!' && i_ + 3 < n_ && s_[i_ + 2] == '-' && s_[i_ + 3] == '-') {
      i_ = find_after(i_ + 4, "-->");
      return;
    }
    if (!is_alpha(next) && next != '/' && next != '!' && next != '?') {
      emit_raw(1);  // a '<' that opens no tag is text
      return;
    }
    const bool closing = next == '/';
    char name[16];
    size_t len = 0;
    for (size_t j = i_ + (closing ? 2 : 1); j < n_ && (is_alpha(s_[j]) || (s_[j] >= '0' && s_[j] <= '9')); ++j)
      if (len < sizeof name) name[len++] = static_cast<char>(lower(s_[j]));
    const std::string_view tag(name, len);
    i_ = tag_end(i_);
    if (!closing && one_of(tag, {"script", "style", "title"})) {
      char close[24] = "</";
      std::memcpy(close + 2, name, len);
      const size_t after = find_after(i_, std::string_view(close, len + 2));
      i_ = after < n_ ? tag_end(after - 1) : n_;
      return;
    }
    if (tag == "br") {
      space_ = false;
      put('\n');
    } else if (tag == "pre") {
      in_pre_ = !closing;
      newline();
    } else if (is_block(tag)) {
      newline();
    } else if (tag == "td" || tag == "th") {
      space_ = true;
    }
  }

  // A character reference: decoded when its character can be written in
  // the text's charset, otherwise kept as it stands.
  void entity() {
    static constexpr struct {
      std::string_view name;
      char c;
    } kNamed[] = {{"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&quot;", '"'}, {"&apos;", '\''}, {"&nbsp;", ' '}};
    const std::string_view rest(reinterpret_cast<const char*>(s_ + i_), n_ - i_);
    for (const auto& e : kNamed) {
      if (rest.size() >= e.name.size() && rest.compare(0, e.name.size(), e.name) == 0) {
        flush_space();
        i_ += e.name.size();
        put(static_cast<unsigned char>(e.c));
        return;
      }
    }
    char tmp[16] = {0};
    std::memcpy(tmp, rest.data(), rest.size() < sizeof tmp - 1 ? rest.size() : sizeof tmp - 1);
    const int k = MUC_IsUnicodeEnt(tmp, 0);
    if (k <= 0) {
      emit_raw(1);
      return;
    }
    const bool hex = tmp[2] == 'x' || tmp[2] == 'X';
    unsigned long cp = 0;
    for (const char* p = tmp + (hex ? 3 : 2); *p != ';'; ++p)
      cp = cp * (hex ? 16 : 10) + static_cast<unsigned long>(*p >= 'a' ? *p - 'a' + 10 : *p >= 'A' ? *p - 'A' + 10 : *p - '0');
    unsigned char out[4];
    size_t m = 0;
    if (cp < 0x80 || (cp < 0x100 && charset_ == MLG_ISO8859_1)) {
      out[m++] = static_cast<unsigned char>(cp);
    } else if (charset_ == MLG_UTF8 && !(cp >= 0xD800 && cp <= 0xDFFF)) {
      if (cp < 0x800) {
        out[m++] = static_cast<unsigned char>(0xC0 | (cp >> 6));
      } else if (cp < 0x10000) {
        out[m++] = static_cast<unsigned char>(0xE0 | (cp >> 12));
        out[m++] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
      } else {
        out[m++] = static_cast<unsigned char>(0xF0 | (cp >> 18));
        out[m++] = static_cast<unsigned char>(0x80 | ((cp >> 12) & 0x3F));
        out[m++] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
      }
      out[m++] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    } else {
      emit_raw(static_cast<size_t>(k));
      return;
    }
    flush_space();
    i_ += static_cast<size_t>(k);
    if (m == 1 && out[0] == 0) return;  // "&#0;" stands for nothing
    for (size_t j = 0; j < m; ++j) put(out[j]);
  }

  const unsigned char* s_;
  size_t n_;
  size_t i_ = 0;
  char* d_;
  size_t o_ = 0;
  int charset_;
  bool jis_double_ = false;
  bool in_pre_ = false;
  bool space_ = false;
};

}  // namespace

extern "C" {

TARNPLAT_API int MSTR_HtmlTagRemove(const char* pszSrc, int nSrcLen, char* pszDst, int* pnDstLen, int nCharset) {
  if (pnDstLen != nullptr) *pnDstLen = 0;
  if (pszSrc == nullptr || pszDst == nullptr || nSrcLen < 0) return -1;
  TagRemover r(pszSrc, static_cast<size_t>(nSrcLen), pszDst, nCharset);
  const int n = static_cast<int>(r.run());
  if (pnDstLen != nullptr) *pnDstLen = n;
  return n;
}

}  // extern "C"
