/*
 * msg_utility_rcpt.cpp - recipient lists.
 *
 * The compose page's To, Cc and Bcc boxes hold whatever the user typed or
 * pasted: quoted names, bare words, angle brackets, comments, CJK names and
 * names written as numeric character references.  build_rcpt_charset cuts
 * such a text into entries with a small state machine that never backs up,
 * so every text, however unbalanced, takes one pass.  Drafts keep their
 * lists as one base64 text (RCPT_SaveToB64) that RCPT_LoadFromB64 reads
 * back through the same parser.
 *
 * The parser's results are long-standing and stored drafts depend on them:
 * a name before "<" keeps its trailing blanks, a quoted local part loses its
 * quotes and blanks, and the first entry with an empty address fills the
 * empty head and is overwritten by the next one.
 */
#include "tarnmail/rcpt.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "msg_utility_rcpt_internal.h"
#include "tarnmail/charset.h"
#include "tarnplat.h"

namespace {

// The charset value that walks characters through the platform (the
// Japanese forms, whose typed text reaches us as Shift_JIS).
constexpr int kPlatformWalkCharset = MIME_CS_ISO2022JP;
// Bytes a token may collect while parsing, and the size of the work buffers.
constexpr std::size_t kTokenMax = 255;
constexpr std::size_t kWorkSize = 256;
// Room for one quoted field when a list is saved.
constexpr int kQuoteSize = 256;
// Bytes per node beyond its texts in the saved form: quotes, " <", ">, ".
constexpr std::size_t kNodeOverhead = 7;

bool in(unsigned char b, unsigned char lo, unsigned char hi) { return b >= lo && b <= hi; }

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool is_digit(char c) { return c >= '0' && c <= '9'; }

bool is_xdigit(char c) {
  return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

const char* or_empty(const char* s) { return s != nullptr ? s : ""; }

// Length of the string inside the first n bytes of s.
std::size_t bounded_len(const char* s, std::size_t n) {
  const void* nul = std::memchr(s, '\0', n);
  return nul != nullptr ? static_cast<std::size_t>(static_cast<const char*>(nul) - s) : n;
}

// Position of the run of characters accepted by `pred` that ends at pcEnd,
// not before pcStart.
template <typename Pred>
const char* run_start(const char* pcStart, const char* pcEnd, Pred pred) {
  const char* p = pcEnd;
  while (p > pcStart && pred(p[-1])) --p;
  return p;
}

// Whether the `prefix` stands right before p, inside [pcStart, p).
bool preceded_by(const char* pcStart, const char* p, std::string_view prefix) {
  if (static_cast<std::size_t>(p - pcStart) < prefix.size()) return false;
  return std::string_view(p - prefix.size(), prefix.size()) == prefix;
}

// Fills a node's texts and kind.
void fill_node(CgiRcpt* node, const char* addr, const char* name, int type) {
  WideCharChkCopy(node->addr, sizeof node->addr, or_empty(addr));
  WideCharChkCopy(node->name, sizeof node->name, or_empty(name));
  node->type = type;
}

// A zero-filled node, or nullptr after the message the mail programs expect.
CgiRcpt* new_node(const char* addr, const char* name, int type) {
  auto* node = static_cast<CgiRcpt*>(std::calloc(1, sizeof(CgiRcpt)));
  if (node == nullptr) {
    std::perror("insertbydn_malloc()");
    return nullptr;
  }
  fill_node(node, addr, name, type);
  return node;
}

// ---- the splitter ----------------------------------------------------------

// A fixed buffer of text collected byte by byte, always terminated.
struct Token {
  std::array<char, kWorkSize> bytes{};
  std::size_t len = 0;

  bool empty() const { return len == 0; }
  void clear() { len = 0, bytes[0] = '\0'; }
  void push(char c) {
    if (len < kTokenMax) bytes[len++] = c, bytes[len] = '\0';
  }
  void push_run(const char* p, std::size_t n) {
    std::memcpy(bytes.data() + len, p, n);
    len += n;
    bytes[len] = '\0';
  }
  bool holds(char c) const { return std::memchr(bytes.data(), c, len) != nullptr; }
  void strip_trailing_blanks() {
    while (len > 0 && is_blank(bytes[len - 1])) bytes[--len] = '\0';
  }
  // Drops every byte equal to `quote` and every blank.
  void drop_quotes_and_blanks(char quote) {
    std::size_t out = 0;
    for (std::size_t i = 0; i < len; ++i)
      if (bytes[i] != quote && !is_blank(bytes[i])) bytes[out++] = bytes[i];
    len = out;
    bytes[len] = '\0';
  }
  // Moves the text into `dst` and empties this token.
  void move_to(Token& dst) {
    dst = *this;
    clear();
  }
};

class Splitter {
 public:
  Splitter(CgiRcpt* list, const char* text, int type, int delimiter, int charset)
      : list_(list), text_(text), p_(text), type_(type),
        delimiter_(static_cast<char>(delimiter)), charset_(charset) {}

  // 1 when every entry was added, 0 when adding failed.
  int run() {
    while (*p_ != '\0' && !failed_) step();
    if (failed_) return 0;
    finish();
    return failed_ ? 0 : 1;
  }

 private:
  // S between entries, A inside "<...>", B inside "...", G inside '...',
  // F after a closing quote, D in a bare word, C in a comment after an address.
  enum class State { S, A, B, G, F, D, C };

  bool is_separator(char c) const {
    return c == ',' || c == ';' || (c != '\0' && c == delimiter_);
  }

  // A ";" that ends "&#123" and the like belongs to the text.
  bool is_entity_end() const { return *p_ == ';' && s_ChkUniSemicolon(text_, p_); }

  // Appends the character at the cursor: a whole double-byte character when
  // it fits, else one byte while there is room; moves the cursor past it.
  void append() {
    const int n = ChkWideChar(p_, charset_);
    if (n > 0 && buf_.len + static_cast<std::size_t>(n) <= kTokenMax) {
      buf_.push_run(p_, static_cast<std::size_t>(n));
      p_ += n;
      return;
    }
    buf_.push(*p_++);
  }

  // Appends the byte after a backslash and moves past both.
  void append_escaped() {
    buf_.push(p_[1]);
    p_ += 2;
  }

  void add_entry() {
    if ((!email_.empty() || !id_.empty()) &&
        cgircpt_add(list_, email_.bytes.data(), id_.bytes.data(), type_) < 0)
      failed_ = true;
    email_.clear();
    id_.clear();
  }

  // A bare word taken as an address loses its trailing blanks.
  void take_word_as_address() {
    buf_.strip_trailing_blanks();
    buf_.move_to(email_);
  }

  void enter_brackets() {
    state_ = State::A;
    paren_open_ = paren_pair_ = false;
  }

  void step() {
    switch (state_) {
      case State::S: between(); break;
      case State::A: in_brackets(); break;
      case State::B: in_quotes('"'); break;
      case State::G: in_quotes('\''); break;
      case State::F: after_quote(); break;
      case State::D: in_word(); break;
      case State::C: in_comment(); break;
    }
  }

  void between() {
    const char c = *p_;
    if (is_separator(c) || is_blank(c)) {
      ++p_;
    } else if (c == '"') {
      ++p_, state_ = State::B;
    } else if (c == '\'') {
      ++p_, state_ = State::G;
    } else if (c == '<') {
      ++p_, enter_brackets();
    } else {
      state_ = State::D;  // read again there
    }
  }

  void in_brackets() {
    const char c = *p_;
    if (c == '>' || is_separator(c)) {
      if (is_entity_end()) return append();
      ++p_;
      buf_.move_to(email_);
      add_entry();
      state_ = State::S;
    } else if (is_blank(c)) {
      // Blanks inside brackets are typing slips, except in a comment's
      // aftermath ("<a(b) c@d>"), which is kept as written.
      if (paren_pair_) return append();
      ++p_;
    } else {
      if (c == '(') paren_open_ = true;
      else if (c == ')' && paren_open_) paren_pair_ = true;
      append();
    }
  }

  void in_quotes(char quote) {
    const char c = *p_;
    if (c == quote) {
      ++p_;
      if (*p_ == '@') {
        // "j d"@x: the quotes held a local part, written without them.
        buf_.drop_quotes_and_blanks(quote);
        state_ = State::D;
      } else {
        buf_.move_to(id_);
        state_ = State::F;
      }
    } else if (c == '\\') {
      if (p_[1] == quote || p_[1] == '\\') return append_escaped();
      ++p_;
    } else {
      append();
    }
  }

  void after_quote() {
    const char c = *p_;
    if (c == '<') {
      ++p_, enter_brackets();
    } else if (is_blank(c)) {
      ++p_;
    } else {
      // "a@b", c@d: the quoted text was the address itself.
      id_.move_to(email_);
      add_entry();
      state_ = State::S;  // read again there
    }
  }

  void in_word() {
    const char c = *p_;
    if (is_separator(c)) {
      if (is_entity_end()) return append();
      ++p_;
      take_word_as_address();
      add_entry();
      state_ = State::S;
    } else if (c == '<') {
      ++p_;
      buf_.move_to(id_);  // the word was a name; its trailing blanks stay
      enter_brackets();
    } else if (c == '(' && buf_.holds('@')) {
      ++p_;
      take_word_as_address();
      state_ = State::C;
    } else {
      append();
    }
  }

  // The first "@" or ")" at or after p (or the terminator).  The cursor only
  // moves forward, so one scan serves every separator before that mark and
  // a comment full of separators stays linear.
  char next_mark(const char* p) {
    if (mark_ == nullptr || mark_ < p) {
      mark_ = p;
      while (*mark_ != '\0' && *mark_ != '@' && *mark_ != ')') ++mark_;
    }
    return *mark_;
  }

  void in_comment() {
    const char c = *p_;
    if (c == ')') {
      ++p_;
      buf_.move_to(id_);
      add_entry();
      state_ = State::S;
    } else if (is_separator(c)) {
      switch (next_mark(p_ + 1)) {
        case '@':  // "a@b (Ann, c@d": the comment was never closed
          ++p_;
          buf_.strip_trailing_blanks();
          buf_.move_to(id_);
          add_entry();
          state_ = State::S;
          break;
        case ')': append(); break;
        default: ++p_; break;
      }
    } else if (c == '"' && (p_[-1] == '(' || p_[1] == ')')) {
      ++p_;  // a comment written as ("Name")
    } else if (c == '\\' && (p_[1] == '"' || p_[1] == ')')) {
      append_escaped();
    } else {
      append();
    }
  }

  void finish() {
    if (!buf_.empty()) {
      if (state_ == State::C) buf_.move_to(id_);
      else if (state_ == State::D) take_word_as_address();
      else buf_.move_to(email_);
    } else if (!id_.empty() && email_.empty()) {
      id_.move_to(email_);  // a name alone stands for the address
    }
    add_entry();
  }

  CgiRcpt* list_;
  const char* text_;
  const char* p_;
  int type_;
  char delimiter_;
  int charset_;
  State state_ = State::S;
  Token buf_, email_, id_;
  bool failed_ = false;
  bool paren_open_ = false, paren_pair_ = false;
  const char* mark_ = nullptr;
};

// ---- the saved form ------------------------------------------------------------

// Appends to a fixed text buffer, never past its end.
struct TextOut {
  char* data;
  std::size_t size;
  std::size_t len = 0;

  void put(std::string_view s) {
    const std::size_t n = std::min(s.size(), size - 1 - len);
    std::memcpy(data + len, s.data(), n);
    len += n;
    data[len] = '\0';
  }
  // A field of a node, read no further than the field even when a caller
  // left it unterminated.
  template <std::size_t N>
  void put_quoted(const char (&field)[N]) {
    char plain[N + 1];
    const std::size_t n = bounded_len(field, N);
    std::memcpy(plain, field, n);
    plain[n] = '\0';
    char quoted[kQuoteSize];
    RCPT_AddQuotChar(quoted, kQuoteSize, plain, 0);
    put(quoted);
  }
};

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};
using HeapText = std::unique_ptr<char, FreeDeleter>;

char* zeroed_text(std::size_t n) { return static_cast<char*>(std::calloc(n, 1)); }

}  // namespace

// ---- byte-level helpers ---------------------------------------------------------

int ChkWideChar(const char* p, int nCharset) {
  if (p == nullptr) return 0;
  if (nCharset == kPlatformWalkCharset) {
    // Our charset values are MIME values; the platform counts in its own numbering.
    const int n = MLG_CharacterLength(p, MLC_MIMEToMLGCharset(nCharset));
    return n > 1 ? n : 0;
  }
  const auto b = [p](int i) { return static_cast<unsigned char>(p[i]); };
  if (b(0) == 0 || b(1) == 0 || !in(b(0), 0x81, 0xFE)) return 0;
  if (in(b(1), 0x40, 0xFE) && b(1) != 0x7F) return 2;
  // GB18030 four-byte form; each byte is tested only after the one before
  // it proved non-zero, so the terminator stops the look.
  if (in(b(1), 0x30, 0x39) && in(b(2), 0x81, 0xFE) && in(b(3), 0x30, 0x39)) return 4;
  return 0;
}

bool s_ChkUniSemicolon(const char* pcStart, const char* pcSemi) {
  if (pcStart == nullptr || pcSemi == nullptr || pcSemi <= pcStart) return false;
  const char* dec = run_start(pcStart, pcSemi, is_digit);
  if (dec < pcSemi && (preceded_by(pcStart, dec, "&#") || preceded_by(pcStart, dec, "&#D")))
    return true;
  const char* hex = run_start(pcStart, pcSemi, is_xdigit);
  return hex < pcSemi && preceded_by(pcStart, hex, "&#x");
}

void WideCharChkCopy(char* pszDst, std::size_t nzDst, const char* pszSrc) {
  if (pszDst == nullptr || nzDst == 0) return;
  const std::size_t limit = nzDst - 1;
  std::size_t out = 0;
  for (const char* p = or_empty(pszSrc); *p != '\0';) {
    const int n = ChkWideChar(p, 0);
    const std::size_t step = n > 0 ? static_cast<std::size_t>(n) : 1;
    if (out + step > limit) break;
    std::memcpy(pszDst + out, p, step);
    out += step;
    p += step;
  }
  pszDst[out] = '\0';
}

// ---- the exported calls -------------------------------------------------------------

extern "C" {

TARNMAIL_API void cgircpt_init(CgiRcpt* rl) {
  if (rl != nullptr) *rl = CgiRcpt{};
}

TARNMAIL_API void cgircpt_free(CgiRcpt* rl) {
  if (rl == nullptr) return;
  for (CgiRcpt* node = rl->next; node != nullptr;) {
    CgiRcpt* next = node->next;
    std::free(node);
    node = next;
  }
  rl->next = rl->tail = nullptr;
  rl->addr[0] = '\0';
}

TARNMAIL_API int cgircpt_empty(const CgiRcpt* rl) {
  return rl == nullptr || rl->addr[0] == '\0' ? 1 : 0;
}

TARNMAIL_API int cgircpt_count(const CgiRcpt* rl) {
  if (rl == nullptr) return 0;
  if (rl->name[0] == '\0' && rl->addr[0] == '\0' && rl->next == nullptr) return 0;
  int n = 0;
  for (const CgiRcpt* node = rl; node != nullptr; node = node->next) ++n;
  return n;
}

TARNMAIL_API int cgircpt_add(CgiRcpt* rl, const char* addr, const char* name, int type) {
  if (rl == nullptr) return -2;
  if (cgircpt_empty(rl)) {
    fill_node(rl, addr, name, type);
    return 1;
  }
  // The comparison sees the address as the node would hold it.
  char key[RCPT_ADDR_SIZE];
  WideCharChkCopy(key, sizeof key, or_empty(addr));
  CgiRcpt* last = rl;
  for (CgiRcpt* node = rl; node != nullptr; node = node->next) {
    if (MSTR_CaseCmp(node->addr, key) == 0) return 1;
    last = node;
  }
  CgiRcpt* node = new_node(addr, name, type);
  if (node == nullptr) return -1;
  last->next = node;
  rl->tail = node;
  return 1;
}

TARNMAIL_API int cgircpt_add_nocheck(CgiRcpt* rl, const char* addr, const char* name, int type) {
  if (rl == nullptr) return -2;
  if (cgircpt_empty(rl)) {
    fill_node(rl, addr, name, type);
    return 1;
  }
  CgiRcpt* node = new_node(addr, name, type);
  if (node == nullptr) return -1;
  CgiRcpt* after = rl->tail != nullptr ? rl->tail : rl;
  node->next = after->next;
  after->next = node;
  rl->tail = node;
  return 1;
}

TARNMAIL_API int build_rcpt_charset(CgiRcpt* cr, const char* addr_list, int type, int delimiter,
                                    int nCharset) {
  if (cr == nullptr) return 0;
  if (addr_list == nullptr) return 1;
  return Splitter(cr, addr_list, type, delimiter, nCharset).run();
}

TARNMAIL_API int build_rcpt(CgiRcpt* cr, const char* addr_list, int type, int delimiter) {
  return build_rcpt_charset(cr, addr_list, type, delimiter, 0);
}

TARNMAIL_API int cgircpt_normalize(CgiRcpt* cr, const char* domain) {
  if (cr == nullptr || domain == nullptr) return -2;
  char suffix[RCPT_ADDR_SIZE];
  MSTR_Printf(suffix, sizeof suffix, "@%s", domain);
  const std::size_t suffix_len = std::strlen(suffix);
  for (CgiRcpt* node = cr; node != nullptr; node = node->next) {
    const std::size_t len = bounded_len(node->addr, sizeof node->addr);
    if (len == 0 || len == sizeof node->addr || std::memchr(node->addr, '@', len) != nullptr)
      continue;
    if (len < sizeof node->addr - suffix_len)
      std::memcpy(node->addr + len, suffix, suffix_len + 1);
  }
  return 0;
}

TARNMAIL_API int RCPT_AddQuotChar(char* psDest, int nSize, const char* pszSrc, int nCharsetVal) {
  if (psDest == nullptr || pszSrc == nullptr || nSize < 1) return -1;
  const std::size_t limit = static_cast<std::size_t>(nSize) - 1;
  std::size_t out = 0;
  for (const char* p = pszSrc; *p != '\0';) {
    const int n = nCharsetVal != kPlatformWalkCharset ? ChkWideChar(p, nCharsetVal) : 0;
    if (n > 0) {
      if (out + static_cast<std::size_t>(n) > limit) break;
      std::memcpy(psDest + out, p, static_cast<std::size_t>(n));
      out += static_cast<std::size_t>(n);
      p += n;
      continue;
    }
    // An escape and its byte go in together: a lone trailing backslash
    // would escape the closing quote of the saved form.
    const bool escape = *p == '\\' || *p == '"';
    if (out + (escape ? 2 : 1) > limit) break;
    if (escape) psDest[out++] = '\\';
    psDest[out++] = *p++;
  }
  psDest[out] = '\0';
  return 0;
}

TARNMAIL_API int RCPT_SaveToB64(const CgiRcpt* pstRcpts, char** ppszStrBuf) {
  if (ppszStrBuf != nullptr) *ppszStrBuf = nullptr;
  if (pstRcpts == nullptr) return -1;

  std::size_t size = 0;
  for (const CgiRcpt* node = pstRcpts; node != nullptr; node = node->next)
    size += bounded_len(node->name, sizeof node->name) +
            bounded_len(node->addr, sizeof node->addr) + kNodeOverhead;
  if (size > static_cast<std::size_t>(INT_MAX) / 4) return 0;

  HeapText text(zeroed_text(size * 2));
  if (!text) return 0;
  TextOut out{text.get(), size * 2};
  for (const CgiRcpt* node = pstRcpts; node != nullptr; node = node->next) {
    if (node->name[0] == '\0' || node->addr[0] == '\0') {
      out.put_quoted(node->addr);
      out.put(", ");
    } else {
      out.put("\"");
      out.put_quoted(node->name);
      out.put("\" <");
      out.put_quoted(node->addr);
      out.put(">, ");
    }
  }

  HeapText b64(zeroed_text(size * 4));
  if (!b64) return 0;
  MTX_Base64Enc(text.get(), static_cast<int>(out.len), b64.get(), static_cast<int>(size * 4), 0);
  if (ppszStrBuf != nullptr) *ppszStrBuf = b64.release();
  return 0;
}

TARNMAIL_API int RCPT_LoadFromB64(const char* pszB64, CgiRcpt* pstRcpts, int nRcptType) {
  if (pszB64 == nullptr || pszB64[0] == '\0' || pstRcpts == nullptr) return -1;
  const std::size_t len = std::strlen(pszB64);
  if (len > static_cast<std::size_t>(INT_MAX)) return -1;
  HeapText copy(static_cast<char*>(std::malloc(len + 1)));
  if (!copy) return -1;
  std::memcpy(copy.get(), pszB64, len + 1);
  const int n = MTX_Base64Dec2(copy.get(), static_cast<int>(len));
  copy.get()[n > 0 ? n : 0] = '\0';  // decoded bytes may hold NULs; the text ends at the first
  return build_rcpt(pstRcpts, copy.get(), nRcptType, 0) == 1 ? 0 : -1;
}

TARNMAIL_API void filter_space(char* str, int len) {
  if (str == nullptr || len <= 0) return;
  std::size_t n = bounded_len(str, static_cast<std::size_t>(len));
  while (n > 0 && is_blank(str[n - 1])) str[--n] = '\0';
}

}  // extern "C"
