// Plain text to HTML for the mail pages.
//
// text2disp_filter runs the context's pre-filters, sizes one output buffer
// from a first pass over the text, renders into it in a second pass, lets
// Filter5 see the result, optionally escapes it for a JavaScript string and
// prints it, turning the highlight marker bytes into spans and links.
//
// What the rendering does is steered by text2disp_flag (T2D_* bits): HTML
// escapes (plain or doubled, for text that is unescaped once more later),
// "&nbsp;" in runs of spaces, "<br>" at line ends, coloured quoted lines,
// a reply sign at every line start, links for URLs and mailto: addresses,
// and dropping ANSI escape sequences.  The first pass counts, per byte,
// the most the second pass can write for it, so the second pass writes
// into one buffer without growing it; its writer still refuses to pass the
// end, so a miscount could only cut the page short.

#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "mime_text2disp_internal.h"

namespace {

constexpr unsigned char kEsc = 27;
// Room for the start of the text (reply sign, a quote fragment), the
// closing "</font>\n" and the terminator.
constexpr size_t kSlack = 512;

bool has(int flags, int bits) { return (flags & bits) != 0; }

// The reply sign as sprintf would print it with no arguments: "%%" is
// one '%'; any other byte stands as it is.
std::string reply_sign_of(const MIME_DISP* d) {
  const size_t n = strnlen(d->reply_sign, sizeof d->reply_sign);
  std::string rs;
  for (size_t i = 0; i < n; ++i) {
    rs += d->reply_sign[i];
    if (d->reply_sign[i] == '%' && i + 1 < n && d->reply_sign[i + 1] == '%') ++i;
  }
  return rs;
}

// A quote mark at the start of a line: the fragment that replaces the line
// feed and the mark, and the mark's length.
struct QuoteMark {
  std::string_view fragment;
  size_t mark_len = 0;
};

QuoteMark quote_mark(const unsigned char* c, int charset) {
  switch (c[0]) {
    case '>': return {"\n<font color=#707070>&gt;", 1};
    case ':': return {"\n<font color=#707070>:", 1};
    case '=': return {"\n<font color=#000060>=", 1};
    default: break;
  }
  // The reference mark U+203B, in UTF-8 and in Big5.  Each byte is read
  // only after the one before it matched, so a NUL ends the test.
  if (charset == 1 && c[0] == 0xE2 && c[1] == 0x80 && c[2] == 0xBB)
    return {"\n<font color=#600000>\xE2\x80\xBB", 3};
  if (charset == 2 && c[0] == 0xA1 && c[1] == 0xB0) return {"\n<font color=#600000>\xA1\xB0", 2};
  return {};
}
// The most a fragment adds beyond the line feed and the mark it replaces.
constexpr size_t kQuoteFragmentExtra = 23;

// The bytes the rendering does more than copy under the given flags.
std::array<bool, 256> special_bytes(int f) {
  std::array<bool, 256> t{};
  t[0] = t['\r'] = t['\n'] = t[kEsc] = true;
  t[' '] = has(f, T2D_NBSP);
  t['"'] = has(f, T2D_QUOT | T2D_QUOT2);
  t['<'] = has(f, T2D_LT | T2D_LT2);
  t['>'] = has(f, T2D_GT | T2D_GT2);
  t['&'] = has(f, T2D_AMP | T2D_AMP2);
  t[':'] = has(f, T2D_LINK);
  return t;
}

#if defined(__SSE2__)
// Sixteen bytes at a time: the fixed extras of the escaped bytes are summed
// in byte lanes (at most 9 a byte, so 28 blocks fit before the lanes are
// folded into the total), and the line feeds and ':' found are handed to
// `each` one by one.  Returns where the blocks stopped.
template <typename Each>
size_t count_blocks(const unsigned char* s, size_t len, const std::array<unsigned char, 256>& extra_of, bool links,
                    size_t& total, Each& each) {
  constexpr unsigned char kEscaped[] = {' ', '"', '<', '>', '&'};
  __m128i byte[5], extra[5];
  for (int k = 0; k < 5; ++k) {
    byte[k] = _mm_set1_epi8(static_cast<char>(kEscaped[k]));
    extra[k] = _mm_set1_epi8(static_cast<char>(extra_of[kEscaped[k]]));
  }
  const __m128i lf = _mm_set1_epi8('\n');
  const __m128i colon = _mm_set1_epi8(links ? ':' : '\n');
  const __m128i zero = _mm_setzero_si128();
  size_t i = 0;
  while (i + 16 <= len) {
    __m128i lanes = zero;
    for (int round = 0; round < 28 && i + 16 <= len; ++round, i += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i));
      for (int k = 0; k < 5; ++k) lanes = _mm_add_epi8(lanes, _mm_and_si128(_mm_cmpeq_epi8(v, byte[k]), extra[k]));
      unsigned m = static_cast<unsigned>(
          _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(v, lf), _mm_cmpeq_epi8(v, colon))));
      for (; m != 0; m &= m - 1) each(i + static_cast<size_t>(__builtin_ctz(m)));
    }
    const __m128i sums = _mm_sad_epu8(lanes, zero);
    total += static_cast<size_t>(_mm_cvtsi128_si32(sums)) + static_cast<size_t>(_mm_extract_epi16(sums, 4));
  }
  return i;
}

// Position of the first byte at or after `from` that the rendering must
// look at (see Renderer::run) within the whole blocks that end before
// `end`, or the first byte after those blocks.
inline const unsigned char* next_special_block(const unsigned char* from, const unsigned char* end,
                                               const __m128i* bytes, bool nbsp) {
  const __m128i space = _mm_set1_epi8(' ');
  // Each block also reads the byte after it (a second space), so it must
  // end before the text's terminator.
  const unsigned char* r = from;
  for (; end - r > 16; r += 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(r));
    __m128i hit = _mm_cmpeq_epi8(v, bytes[0]);
    for (int k = 1; k < 8; ++k) hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, bytes[k]));
    if (nbsp) {
      const __m128i after = _mm_loadu_si128(reinterpret_cast<const __m128i*>(r + 1));
      hit = _mm_or_si128(hit, _mm_and_si128(_mm_cmpeq_epi8(v, space), _mm_cmpeq_epi8(after, space)));
    }
    const unsigned m = static_cast<unsigned>(_mm_movemask_epi8(hit));
    if (m != 0) return r + __builtin_ctz(m);
  }
  return r;
}
#endif

// ---- first pass: the buffer size ----

size_t buffer_size(const unsigned char* s, size_t len, const MIME_DISP* d, size_t sign_len) {
  const int f = d->text2disp_flag;
  std::array<unsigned char, 256> extra_of{};
  extra_of['"'] = has(f, T2D_QUOT2) ? 9 : has(f, T2D_QUOT) ? 5 : 0;   // "&amp;quot;" "&quot;"
  extra_of['<'] = has(f, T2D_LT2) ? 7 : has(f, T2D_LT) ? 3 : 0;       // "&amp;lt;" "&lt;"
  extra_of['>'] = has(f, T2D_GT2) ? 7 : has(f, T2D_GT) ? 3 : 0;
  extra_of['&'] = has(f, T2D_AMP2) ? 8 : has(f, T2D_AMP) ? 4 : 0;     // "&amp;amp;" "&amp;"
  extra_of[' '] = has(f, T2D_NBSP) ? 5 : 0;                           // "&nbsp;"

  const bool reply = has(f, T2D_REPLY);
  const bool colour = has(f, T2D_BR | T2D_QUOTE_COLOUR);
  size_t lf_extra = sign_len;
  if (!reply)
    lf_extra = (has(f, T2D_BR_XHTML) ? 5 : 0) + (colour ? 7 + (has(f, T2D_BR) ? 4 : 0) : 0);  // "<br/>" "</font>" "<br>"
  const bool links = has(f, T2D_LINK);
  t2d::TokenEnds ends(reinterpret_cast<const char*>(s), d->nTextCharsetVal);

  // Bytes that need a look: those with an extra, line feeds, and ':'
  // when links are made.
  std::array<bool, 256> look{};
  for (int b = 0; b < 256; ++b) look[b] = extra_of[b] != 0;
  look['\n'] = true;
  look[':'] = links;

  size_t total = len + 1 + kSlack + sign_len;
  // Line feeds and ':' need a look at their neighbours.
  auto at_line_or_colon = [&](size_t i) {
    if (s[i] == '\n') {
      total += lf_extra;
      if (!reply && colour && quote_mark(s + i + 1, d->nTextCharsetVal).mark_len > 0) total += kQuoteFragmentExtra;
    } else if (links) {
      total += t2d::link_room(reinterpret_cast<const char*>(s), reinterpret_cast<const char*>(s + i), d, ends);
    }
  };
  size_t i = 0;
#if defined(__SSE2__)
  i = count_blocks(s, len, extra_of, links, total, at_line_or_colon);
#endif
  for (; i < len; ++i) {
    const unsigned char b = s[i];
    if (!look[b]) continue;
    total += extra_of[b];
    if (b == '\n' || b == ':') at_line_or_colon(i);
  }
  return total;
}

// ---- second pass: the rendering ----

// Writes into [q, end); `end` keeps one byte back for the terminator.
struct Out {
  char* q;
  char* end;
  void put(std::string_view piece) { put(piece.data(), piece.size()); }
  void put(const void* src, size_t n) {
    const size_t room = static_cast<size_t>(end - q);
    if (n > room) n = room;
    std::memcpy(q, src, n);
    q += n;
  }
  void byte(char c) {
    if (q < end) *q++ = c;
  }
};

class Renderer {
 public:
  Renderer(const char* text, size_t len, const MIME_DISP* d, const std::string& sign, char* buf, size_t size)
      : s_(reinterpret_cast<const unsigned char*>(text)),
        len_(len),
        d_(d),
        f_(d->text2disp_flag),
        charset_(d->nTextCharsetVal),
        sign_(sign),
        special_(special_bytes(f_)),
        ends_(text, charset_),
        begin_(buf),
        out_{buf, buf + size - 1} {
#if defined(__SSE2__)
    size_t k = 0;
    for (int b = 1; b < 256; ++b)
      if (special_[b] && b != ' ') block_bytes_[k++] = _mm_set1_epi8(static_cast<char>(b));
    while (k < 8) block_bytes_[k++] = _mm_set1_epi8('\r');
#endif
  }

  void run() {
    const unsigned char* p = s_;
    if (*p != '\r' && *p != '\n') start_of_text(p);
    while (*p != 0) {
      if (!in_ansi_) {
        // Ordinary bytes are copied as runs; a lone space is ordinary
        // even when runs of spaces are not.
        const unsigned char* r = p;
#if defined(__SSE2__)
        r = next_special_block(p, s_ + len_, block_bytes_, has(f_, T2D_NBSP));
#endif
        for (;;) {
          while (!special_[*r]) ++r;
          if (!(r[0] == ' ' && r[1] != ' ')) break;
          ++r;
        }
        out_.put(p, static_cast<size_t>(r - p));
        p = r;
        if (*p == 0) break;
      }
      step(p);
    }
    if (in_quote_) out_.put("</font>\n");
    *out_.q = '\0';
  }

 private:
  // The first line: the reply sign and its quote colour (no line feed).
  void start_of_text(const unsigned char*& p) {
    if (has(f_, T2D_REPLY)) out_.put(sign_);
    if (has(f_, T2D_BR | T2D_QUOTE_COLOUR)) open_quote(p, p);
  }

  // Colours the line that starts at c when it begins with a quote mark;
  // p moves past the mark.
  bool open_quote(const unsigned char*& p, const unsigned char* c) {
    const QuoteMark m = quote_mark(c, charset_);
    if (m.mark_len == 0) return false;
    out_.put(m.fragment);
    in_quote_ = true;
    p = c + m.mark_len;
    return true;
  }

  void line_feed(const unsigned char*& p) {
    const unsigned char* c = p + 1;
    if (has(f_, T2D_REPLY)) {
      // Reply mode: the following lines get neither breaks nor colours.
      out_.byte('\n');
      out_.put(sign_);
      p = c;
      return;
    }
    if (has(f_, T2D_BR_XHTML)) out_.put("<br/>");
    if (has(f_, T2D_BR | T2D_QUOTE_COLOUR)) {
      if (in_quote_) {
        out_.put("</font>");
        in_quote_ = false;
      }
      if (has(f_, T2D_BR)) out_.put("<br>");
      if (open_quote(p, c)) return;
    }
    out_.byte('\n');
    p = c;
  }

  // One byte the fast copy stopped at.
  void step(const unsigned char*& p) {
    const unsigned char b = *p;
    switch (b) {
      case '\r': ++p; return;
      case '\n': line_feed(p); return;
      case ' ':
        if (has(f_, T2D_NBSP)) {
          out_.byte(' ');
          for (++p; *p == ' '; ++p) out_.put("&nbsp;");
          return;
        }
        break;
      case '"':
        if (escape(p, T2D_QUOT2, "&amp;quot;", T2D_QUOT, "&quot;")) return;
        break;
      case '<':
        if (escape(p, T2D_LT2, "&amp;lt;", T2D_LT, "&lt;")) return;
        break;
      case '>':
        if (escape(p, T2D_GT2, "&amp;gt;", T2D_GT, "&gt;")) return;
        break;
      case '&':
        if (has(f_, T2D_AMP | T2D_AMP2) && MUC_IsUnicodeEnt(reinterpret_cast<const char*>(p), 0) == 0 &&
            escape(p, T2D_AMP2, "&amp;amp;", T2D_AMP, "&amp;"))
          return;
        break;
      case ':':
        if (has(f_, T2D_LINK)) {
          if (!link(p)) {
            out_.byte(':');  // copied even inside an ANSI sequence
            ++p;
          }
          return;
        }
        break;
      default: break;
    }
    if (b == kEsc) {
      in_ansi_ = true;
    } else if (in_ansi_) {
      // The sequence ends with (and drops) its first byte that is not a
      // parameter byte, the final letter.
      if (std::strchr(ansicode, b) == nullptr) in_ansi_ = false;
    } else {
      out_.byte(static_cast<char>(b));
    }
    ++p;
  }

  bool escape(const unsigned char*& p, int bit2, std::string_view doubled, int bit, std::string_view plain) {
    if (has(f_, bit2))
      out_.put(doubled);
    else if (has(f_, bit))
      out_.put(plain);
    else
      return false;
    ++p;
    return true;
  }

  bool link(const unsigned char*& p) {
    const char* in = reinterpret_cast<const char*>(p);
    const t2d::LinkOut where{begin_, out_.end};
    if (t2d::link_at(reinterpret_cast<const char*>(s_), len_ + 1, &in, &out_.q, d_, ends_, where) == 0) return false;
    p = reinterpret_cast<const unsigned char*>(in);
    return true;
  }

  const unsigned char* s_;
  size_t len_;
  const MIME_DISP* d_;
  int f_;
  int charset_;
  const std::string& sign_;
  std::array<bool, 256> special_;
#if defined(__SSE2__)
  // The bytes special_ holds, but a single space, for the block search;
  // unused places repeat the carriage return.
  __m128i block_bytes_[8];
#endif
  t2d::TokenEnds ends_;
  char* begin_;
  Out out_;
  bool in_quote_ = false;
  bool in_ansi_ = false;
};

// Runs Filter1..Filter4 as selected; a filter that returns NULL ends the
// chain with nothing to show.
char* pre_filters(char* text, MIME_DISP* d, int filter_flags) {
  static constexpr struct {
    int bit;
    filter_func_ptr MIME_DISP::*field;
  } kPre[] = {{T2D_FILTER1, &MIME_DISP::Filter1},
              {T2D_FILTER2, &MIME_DISP::Filter2},
              {T2D_FILTER3, &MIME_DISP::Filter3},
              {T2D_FILTER4, &MIME_DISP::Filter4}};
  for (const auto& step : kPre) {
    filter_func_ptr fn = d->*step.field;
    if (has(filter_flags, step.bit) && fn != nullptr) text = fn(d, text, 0);
    if (text == nullptr) return nullptr;
  }
  return text;
}

// The finished HTML as the body of a JavaScript string, then printed.
// Each byte grows to at most four ("\xHH"), so the block always holds the
// whole escape.
void print_js(const char* html, MIME_DISP* d) {
  const int charset = d->nTextCharsetVal != 0 ? d->nTextCharsetVal : d->nDefTextCharsetVal;
  const size_t size = 4 * std::strlen(html) + 1;
  std::unique_ptr<char[]> block(new (std::nothrow) char[size]);
  if (block == nullptr) return;
  block[0] = '\0';
  MSTR_Escape(html, block.get(), size, MSTR_ESC_JS, charset);
  printout(block.get(), d);
}

}  // namespace

extern "C" {

void text2disp(char* data, MIME_DISP* disp_info) { text2disp_filter(data, disp_info, T2D_FILTER_ALL); }

void text2disp_filter(char* data, MIME_DISP* disp_info, int filter_flags) {
  if (data == nullptr || disp_info == nullptr) return;
  char* str = pre_filters(data, disp_info, filter_flags);
  if (str == nullptr || str[0] == '\0') return;

  const size_t len = std::strlen(str);
  const std::string sign = has(disp_info->text2disp_flag, T2D_REPLY) ? reply_sign_of(disp_info) : std::string();
  const size_t size = buffer_size(reinterpret_cast<const unsigned char*>(str), len, disp_info, sign.size());
  auto* buf = static_cast<char*>(mime_disp_alloc(disp_info, size));
  Renderer(str, len, disp_info, sign, buf, size).run();

  char* html = buf;
  if (has(filter_flags, T2D_FILTER5) && disp_info->Filter5 != nullptr) html = disp_info->Filter5(disp_info, buf, 0);
  if (html == nullptr) return;
  if (has(disp_info->text2disp_flag, T2D_JS))
    print_js(html, disp_info);
  else
    printout(html, disp_info);
}

}  // extern "C"

void printout(char* buf, MIME_DISP* disp_info) {
  if (buf == nullptr || disp_info == nullptr) return;
  MIME_DISP* d = disp_info;
  // The marker bytes, for strcspn: runs between them are printed whole.
  char markers[5] = {0};
  size_t n_markers = 0;
  for (char m : {d->mark_begin, d->mark_end, d->Q_mark_begin, d->Q_mark_end})
    if (m != '\0' && std::memchr(markers, m, n_markers) == nullptr) markers[n_markers++] = m;
  const char* q_link = d->Q_link != nullptr ? d->Q_link : "";
  const char* q_colour = d->Q_mark_color != nullptr ? d->Q_mark_color : "";
  const char* colour = d->mark_color != nullptr ? d->mark_color : "";

  bool in_q = false, in_mark = false;
  const char* run = buf;
  const char* p = buf;
  for (;; ++p) {
    p += std::strcspn(p, markers);
    const auto b = static_cast<unsigned char>(*p);
    if (p > run) MMIME_Fwrite(d, run, static_cast<size_t>(p - run), 1);
    if (b == 0) return;
    run = p + 1;
    const char c = static_cast<char>(b);
    if (c == d->Q_mark_begin && !in_q) {
      in_q = true;
      // The search link is opened only when its end marker follows within
      // 2048 bytes; the text between is its query.
      const size_t span = strnlen(p, 2048);
      const auto* e = static_cast<const char*>(std::memchr(p, d->Q_mark_end, span));
      if (e != nullptr) {
        const std::string query = e > p ? std::string(p + 1, e) : std::string();
        MMIME_Fprintf(d, "<a href=\"%s%s\"><font color=\"%s\">", q_link, MSTR_URIEscapeStr(query.c_str()), q_colour);
      }
    } else if (c == d->Q_mark_end && in_q) {
      in_q = false;
      MMIME_Fputs(d, "</font></a>");
    } else if (c == d->mark_begin && !in_mark) {
      in_mark = true;
      MMIME_Fprintf(d, "<font color=\"%s\">", colour);
    } else if (c == d->mark_end && in_mark) {
      in_mark = false;
      MMIME_Fputs(d, "</font>");
    } else {
      run = p;  // an unpaired marker prints as itself
    }
  }
}
