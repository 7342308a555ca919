/*
 * str_decode.cpp - RFC 2047 encoded words in header values.
 *
 * MSTR_Decode rewrites a header value in place: encoded words become the raw
 * bytes of their charset (no conversion happens here) and header folding is
 * removed.  It answers with the charset name it met, kept in one static
 * buffer that the next call overwrites.  The decoder is forgiving on purpose:
 * malformed words stay as text and no input ever fails.  Every read stops at
 * the terminating NUL and the output is never longer than the input.
 */
#include "tarnmail/encword.h"

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

// Charset name of the last encoded word, shared by all calls.
constexpr std::size_t kCharsetSize = 128;
constexpr std::size_t kNameMax = kCharsetSize - 1;
char s_charset[kCharsetSize];

// Mode bits.
constexpr unsigned kInQ = 1;      // inside the text of a Q word
constexpr unsigned kInB = 2;      // inside the text of a B word
constexpr unsigned kChanged = 4;  // output differs from the input: write it back

constexpr unsigned char ascii_lower(unsigned char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c - 'A' + 'a') : c;
}

// The name begins with "iso-2022-jp" in any case.
bool is_iso2022jp(const char* name) {
  static constexpr char kJis[] = "iso-2022-jp";
  for (std::size_t i = 0; i + 1 < sizeof kJis; ++i)
    if (ascii_lower(static_cast<unsigned char>(name[i])) != static_cast<unsigned char>(kJis[i]))
      return false;  // a shorter name fails at its NUL
  return true;
}

// Once an ISO-2022-JP word was met, the call keeps answering with it: the
// text then needs the Japanese conversion whatever else it holds.
void remember_charset(const char* name, std::size_t n) {
  if (is_iso2022jp(s_charset)) return;
  if (n > kNameMax) n = kNameMax;
  std::memcpy(s_charset, name, n);
  s_charset[n] = '\0';
}

constexpr std::array<signed char, 256> make_base64_table() {
  std::array<signed char, 256> t{};
  for (auto& v : t) v = -1;
  for (int i = 0; i < 26; ++i) {
    t['A' + i] = static_cast<signed char>(i);
    t['a' + i] = static_cast<signed char>(26 + i);
  }
  for (int i = 0; i < 10; ++i) t['0' + i] = static_cast<signed char>(52 + i);
  t['+'] = 62;
  t['/'] = 63;
  return t;
}
constexpr auto kBase64 = make_base64_table();

// One pass over a value.  `out` has room for the whole input plus its NUL;
// every step writes at most as many bytes as it consumes.
class WordDecoder {
 public:
  WordDecoder(const char* in, std::size_t len, char* out)
      : start_(reinterpret_cast<const unsigned char*>(in)), p_(start_), len_(len), out_(out), q_(out) {}

  // Runs to the end of the value; returns the number of bytes produced.
  std::size_t run();
  bool changed() const { return (code_ & kChanged) != 0; }

 private:
  enum class Step { kGoOn, kStop };

  Step line_break();
  void end_word();
  Step encoded_text(unsigned char c);
  Step q_byte(unsigned char c);
  Step b_quad();
  Step open_word();
  void plain(unsigned char c);
  void put(unsigned char c) { *q_++ = static_cast<char>(c); }

  const unsigned char* const start_;
  const unsigned char* p_;
  const std::size_t len_;
  char* const out_;
  char* q_;
  unsigned code_ = 0;
  unsigned orig_code_ = 0;  // code_ at the end of the last word or line break
  bool enc_blk_ = false;    // between the second "?" of a word and its "?="
  char* wsp_ = nullptr;     // where the current run of blanks began in the output
};

std::size_t WordDecoder::run() {
  while (*p_ != 0 && static_cast<std::size_t>(p_ - start_) <= len_) {
    const unsigned char c = *p_;
    Step step = Step::kGoOn;
    if (c == '\n') {
      step = line_break();
    } else if (enc_blk_ && c == '?' && p_[1] == '=') {
      end_word();
    } else if (code_ & (kInQ | kInB)) {
      step = encoded_text(c);
    } else if (c == '=' && p_[1] == '?') {
      step = open_word();
    } else {
      plain(c);
    }
    if (step == Step::kStop) break;
  }
  return static_cast<std::size_t>(q_ - out_);
}

// A line break followed by a blank or tab is folding; any other line break
// ends the header value, and whatever follows it is dropped.  "\n\t" leaves
// nothing behind, "\n " leaves its blank, which is then copied as ordinary
// text (and removed like any blank in front of an encoded word).
WordDecoder::Step WordDecoder::line_break() {
  orig_code_ = code_;
  code_ |= kChanged;
  const unsigned char next = p_[1];
  if (next != '\t' && next != ' ') return Step::kStop;
  p_ += (next == '\t') ? 2 : 1;
  return Step::kGoOn;
}

// "?=" closes the word.  When the word's mode was already cleared without any
// output (a B word that opened with padding), the "=" stays as plain text.
void WordDecoder::end_word() {
  wsp_ = nullptr;
  orig_code_ = code_;
  enc_blk_ = false;
  ++p_;
  if (code_ != 0) {
    code_ &= kChanged;
    ++p_;
  }
}

WordDecoder::Step WordDecoder::encoded_text(unsigned char c) {
  if (c == '_') {  // a space in B words too
    put(' ');
    code_ |= kChanged;
    ++p_;
    return Step::kGoOn;
  }
  return (code_ & kInQ) ? q_byte(c) : b_quad();
}

// "=XY" is one byte built from the two digits without checking them: a bad
// digit counts as -1, so "=ZZ" yields 0xFF.
WordDecoder::Step WordDecoder::q_byte(unsigned char c) {
  if (c == '=') {
    if (p_[1] == 0 || p_[2] == 0) return Step::kStop;
    const unsigned hi = static_cast<unsigned>(qp_code(p_[1]));
    const unsigned lo = static_cast<unsigned>(qp_code(p_[2]));
    put(static_cast<unsigned char>(((hi << 4) | lo) & 0xFFu));
    p_ += 3;
  } else {
    put(c);
    ++p_;
  }
  code_ |= kChanged;
  return Step::kGoOn;
}

// One group of four base64 characters.  Padding ends the B mode (the rest of
// the word is then copied as text); a double quote in the third or fourth
// place is written alone and drops the characters before it; a character
// outside the alphabet is written as it stands and ends the group.
WordDecoder::Step WordDecoder::b_quad() {
  const unsigned char c1 = p_[0];
  const unsigned char c2 = p_[1];
  if (c2 == 0) return Step::kStop;  // a lone character before the terminator
  p_ += 2;
  if (c1 == '=' || c2 == '=') {
    code_ &= ~kInB;
    return Step::kGoOn;
  }
  const unsigned char c3 = *p_;
  if (c3 == 0) return Step::kStop;
  ++p_;
  if (c3 == '"') {
    put('"');
    return Step::kGoOn;
  }
  const unsigned char c4 = *p_;
  if (c4 == 0) return Step::kStop;
  ++p_;
  if (c4 == '"') {
    put('"');
    return Step::kGoOn;
  }

  const int v1 = kBase64[c1];
  const int v2 = kBase64[c2];
  if (v2 < 0) {
    put(c2);
    return Step::kGoOn;
  }
  if (v1 < 0) {
    put(c1);
    return Step::kGoOn;
  }
  put(static_cast<unsigned char>((v1 << 2) | ((v2 & 0x30) >> 4)));

  const int v3 = kBase64[c3];  // -1 for "=": its low bits still feed the fourth byte
  if (c3 == '=') {
    code_ &= ~kInB;
  } else if (v3 < 0) {
    put(c3);
    return Step::kGoOn;
  } else {
    put(static_cast<unsigned char>(((v2 & 0x0F) << 4) | ((v3 & 0x3C) >> 2)));
  }
  if (c4 == '=') {
    code_ &= ~kInB;
  } else {
    const int v4 = kBase64[c4];
    if (v4 < 0) {
      put(c4);
      return Step::kGoOn;
    }
    put(static_cast<unsigned char>(((v3 & 0x03) << 6) | v4));
  }
  code_ |= kChanged;
  return Step::kGoOn;
}

// At "=?".  Blanks in front of the word go once any word has produced output
// (bit kChanged of orig_code_ never clears again), even where plain text
// stands between the two words.  A name with a byte above 127, a name of
// 127 bytes or more, or a bad encoding letter leave the opener as text.
WordDecoder::Step WordDecoder::open_word() {
  if ((orig_code_ & kChanged) && wsp_ != nullptr) q_ = wsp_;
  p_ += 2;

  char name[kCharsetSize];
  std::size_t n = 0;
  auto write_back_opener = [&](std::size_t extra) {
    put('=');
    put('?');
    std::memcpy(q_, name, n);
    q_ += n;
    for (std::size_t i = 0; i < extra; ++i) put(p_[i]);
    p_ += extra;
    remember_charset(name, n);
    wsp_ = nullptr;  // the opener is plain, non-blank text now
  };

  for (;;) {
    const unsigned char b = *p_;
    if (b == 0) return Step::kStop;
    if (b > 127 || n >= kNameMax) {
      write_back_opener(1);
      return Step::kGoOn;
    }
    if (b == '?') break;
    name[n++] = static_cast<char>(b);
    ++p_;
  }

  const unsigned char letter = p_[1];
  if (letter == 0) return Step::kStop;
  unsigned kind = 0;
  if (letter == 'Q' || letter == 'q') kind = kInQ;
  if (letter == 'B' || letter == 'b') kind = kInB;
  if (kind != 0 && p_[2] == 0) return Step::kStop;
  if (kind == 0 || p_[2] != '?') {
    write_back_opener(2);  // the "?" and the letter
    return Step::kGoOn;
  }
  code_ = (code_ & kChanged) | kind;
  enc_blk_ = true;
  p_ += 3;
  remember_charset(name, n);
  return Step::kGoOn;
}

void WordDecoder::plain(unsigned char c) {
  if (wsp_ == nullptr) {
    if (c == ' ') wsp_ = q_;
  } else if (c != ' ') {
    wsp_ = nullptr;
  }
  put(c);
  ++p_;
}

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

}  // namespace

extern "C" TARNMAIL_API int qp_code(int x) {
  if (x >= '0' && x <= '9') return x - '0';
  if (x >= 'a' && x <= 'f') return x - 'a' + 10;
  if (x >= 'A' && x <= 'F') return x - 'A' + 10;
  return -1;
}

extern "C" TARNMAIL_API int base64_code(int x) {
  if (x < 0 || x > 255) return -1;
  return kBase64[static_cast<std::size_t>(x)];
}

extern "C" TARNMAIL_API char* MSTR_Decode(char* str) {
  if (str == nullptr) return nullptr;
  s_charset[0] = '\0';
  // Without an opener or a line break nothing can change: spare the copy.
  if (std::strchr(str, '\n') == nullptr && std::strstr(str, "=?") == nullptr) return s_charset;

  const std::size_t len = std::strlen(str);
  std::unique_ptr<char, FreeDeleter> work(static_cast<char*>(std::calloc(len + 20, 1)));
  if (!work) return nullptr;

  WordDecoder decoder(str, len, work.get());
  const std::size_t out_len = decoder.run();
  if (decoder.changed()) {
    std::memcpy(str, work.get(), out_len);
    str[out_len] = '\0';
  }
  return s_charset;
}
