// Links in plain text: the end of a URL-like token, and the anchor built at
// a ':' that follows one of the known schemes.
//
// A token runs to the first delimiter (blank, line end, quote, bracket,
// brace, angle bracket, backquote, apostrophe or NUL).  Multibyte
// characters are passed whole (UTF-8 by its lead byte, every other charset
// as two bytes), so that a trail byte such as ']' does not end a URL; but a
// character never swallows a byte that cannot be a trail byte of any
// charset (NUL, blank, line end, a quote, '<' or '>'), nor a ':'.  Without
// the first rule a broken lead byte could carry a quote or '<' into the
// unescaped link; the second makes every walk from an earlier ':' land on
// each later ':' of the same token, which lets one walk answer them all.

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>

#include "mime_text2disp_internal.h"

const WWW_HEAD www_link[] = {
    {"http://", 4, 7},   {"https://", 5, 8}, {"gopher://", 6, 9}, {"ftp://", 3, 6},
    {"mailto:", 6, 7},   {"telnet:", 6, 7},  {"wais:", 4, 5},     {"news:", 4, 5},
    {"", 0, 0},
};

const char* const ansicode = "[0123456789;,";

namespace {

constexpr long kNone = LONG_MIN;
// A link is made only when the token ends at most this far after the ':'.
constexpr long kMaxTokenAfterColon = 1024;
// The candidate: 9 bytes of look-back, the ':' and 1024 bytes after it.
constexpr long kLookBack = 9;
constexpr size_t kCandidateSize = kLookBack + 1 + kMaxTokenAfterColon + 16;

constexpr std::array<bool, 256> make_set(const char* bytes, bool nul) {
  std::array<bool, 256> t{};
  for (const char* b = bytes; *b != '\0'; ++b) t[static_cast<unsigned char>(*b)] = true;
  t[0] = nul;
  return t;
}

// Bytes that end a token.
constexpr auto kDelim = make_set("\t\n\r\" []{}<>`'", true);
// Bytes a multibyte character never takes as a trail byte.
constexpr auto kNoTrail = make_set("\t\n\r\" '<>:", true);

inline bool is_alnum(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

inline unsigned char u(char c) { return static_cast<unsigned char>(c); }

// Bytes of the input read by index (the look-behind of the walk reads the
// two bytes before the current one).
struct RawAt {
  const unsigned char* base;
  unsigned char operator()(long i) const { return base[i]; }
};

// The candidate: the input from the look-back start to the token's end
// without the highlight markers, copied as far as a walk asks for it.
class Candidate {
 public:
  Candidate(const char* from, const char* last, char mark_begin, char mark_end)
      : src_(from), last_(last), mb_(mark_begin), me_(mark_end) {}

  unsigned char operator()(long i) {
    if (i < 0) return 0;
    while (filled_ <= i && src_ <= last_ && filled_ < static_cast<long>(kCandidateSize) - 1) {
      if (*src_ != mb_ && *src_ != me_) buf_[filled_++] = *src_;
      ++src_;
    }
    return i < filled_ ? u(buf_[i]) : 0;
  }
  const char* text(long i) { return buf_ + i; }

 private:
  const char* src_;
  const char* last_;
  char mb_, me_;
  char buf_[kCandidateSize];
  long filled_ = 0;
};

// How far the walk passes at i: one byte, or a whole multibyte character
// that stops short of a byte it never takes as a trail.
template <typename At>
long pass_len(At& at, long i, int charset) {
  const unsigned char b = at(i);
  if (b < 0x80) return 1;
  const long n = charset == 1 ? std::countl_one(b) : 2;
  for (long k = 1; k < n; ++k)
    if (kNoTrail[at(i + k)]) return k;
  return n;
}

// The forward walk: index of the token's last byte, or kNone when `len`
// steps ran out (a character of n bytes costs n steps).
template <typename At>
long walk_forward(At& at, long i, long len, bool pass_2_byte, int charset) {
  for (;;) {
    if (len <= 0) return kNone;
    const unsigned char b = at(i);
    if (kDelim[b]) return i - 1;
    // A URL written directly against CJK text ends at its last ASCII
    // letter or digit.
    if (!pass_2_byte && b >= 0x80 && at(i - 2) < 127 && is_alnum(at(i - 1))) return i - 1;
    const long n = pass_len(at, i, charset);
    i += n;
    len -= n;
  }
}

// Pointer arithmetic that may step one byte before a buffer without the
// address being used to read it there.
char* offset(char* p, long n) {
  return reinterpret_cast<char*>(reinterpret_cast<uintptr_t>(p) + static_cast<uintptr_t>(n));
}

int charset_of(const MIME_DISP* d) { return d->nTextCharsetVal; }

// The candidate for the ':' at x: look back at most 9 bytes, starting after
// the last ':' among them; *colon gets the index of x's ':' in it.
Candidate candidate_at(const char* data, const char* x, const char* end, const MIME_DISP* d, long* colon) {
  const char* from = x - std::min<long>(kLookBack, x - data);
  for (const char* c = from; c < x; ++c)
    if (*c == ':') from = c + 1;
  long n = 0;
  for (const char* c = from; c < x; ++c)
    if (*c != d->mark_begin && *c != d->mark_end) ++n;
  *colon = n;
  return Candidate(from, end, d->mark_begin, d->mark_end);
}

// The first scheme row whose name stands around the candidate's ':'.
int match_row(Candidate& cand, long colon) {
  for (int r = 0; www_link[r].name[0] != '\0'; ++r) {
    const WWW_HEAD& w = www_link[r];
    if (w.pre_len > colon) continue;
    const long first = colon - w.pre_len;
    int k = 0;
    while (k < w.len && cand(first + k) == u(w.name[k])) ++k;
    if (k == w.len) return r;
  }
  return -1;
}

// Output buffer writer: whole pieces only, inside [q, end).
struct Writer {
  char* q;
  char* end;
  void put(const char* s, size_t n) {
    std::memcpy(q, s, n);
    q += n;
  }
  void put(const char* s) { put(s, std::strlen(s)); }
};

}  // namespace

namespace t2d {

const char* TokenEnds::stop_from(const char* x, size_t limit) {
  if (start_ == nullptr || x < start_ || x > front_) {
    start_ = front_ = x;
    stopped_ = false;
  }
  RawAt at{reinterpret_cast<const unsigned char*>(s_)};
  while (!stopped_ && static_cast<size_t>(front_ - x) < limit) {
    if (kDelim[u(*front_)]) {
      stopped_ = true;
      break;
    }
    front_ += pass_len(at, front_ - s_, charset_);
  }
  return stopped_ && static_cast<size_t>(front_ - x) < limit ? front_ : nullptr;
}

size_t link_room(const char* data, const char* x, const MIME_DISP* d, TokenEnds& ends) {
  const char* stop = ends.stop_from(x, kMaxTokenAfterColon + 2);
  if (stop == nullptr || stop - 1 == x) return 0;
  long colon = 0;
  Candidate cand = candidate_at(data, x, stop - 1, d, &colon);
  if (match_row(cand, colon) < 0) return 0;
  // Link tags, the compose prefix, the look-back and the scheme twice.
  return 64 + static_cast<size_t>(stop - x);
}

int link_at(const char* data, size_t datasize, const char** p, char** q, const MIME_DISP* d, TokenEnds& ends,
            const LinkOut& out) {
  const char* x = *p;
  const size_t remain = datasize - static_cast<size_t>(x - data);
  const char* stop = ends.stop_from(x, std::min<size_t>(remain, kMaxTokenAfterColon + 2));
  if (stop == nullptr || stop - 1 == x) return 0;
  const char* end = stop - 1;

  long colon = 0;
  Candidate cand = candidate_at(data, x, end, d, &colon);
  const int row = match_row(cand, colon);
  if (row < 0) return 0;
  const WWW_HEAD& w = www_link[row];
  const int charset = charset_of(d);

  // The scheme letters were copied to the output already, with any
  // highlight markers among them: find where they begin.
  const char* first = x;
  long letters = 0, markers = 0;
  while (letters < w.pre_len && first > data) {
    --first;
    if (*first == d->mark_begin || *first == d->mark_end)
      ++markers;
    else
      ++letters;
  }

  const long cfirst = colon - w.pre_len;
  const long cend = walk_forward(cand, cfirst + w.len, static_cast<long>(kCandidateSize), false, charset);
  const char* istart = first + w.len;
  if (cend == kNone || istart > stop) return 0;
  RawAt at{reinterpret_cast<const unsigned char*>(data)};
  const long iend = walk_forward(at, istart - data, stop - istart + 1, false, charset);
  if (iend == kNone) return 0;

  const long href_from = row == kMailtoRow ? cfirst + w.len : cfirst;
  const size_t href_len = cend >= href_from ? static_cast<size_t>(cend - href_from + 1) : 0;
  const size_t text_len = static_cast<size_t>(data + iend - first + 1);

  // Pull the output back over the copied scheme, never before its start.
  const long back = w.pre_len + markers;
  char* from = *q - std::min<long>(back, *q - out.begin);
  static constexpr char kOpen[] = "<a href=\"";
  static constexpr char kCompose[] = "/cgi-bin/genMail?adr=";
  static constexpr char kMid[] = "\" target=\"new_win\">";
  static constexpr char kClose[] = "</a>";
  const size_t need = (sizeof kOpen - 1) + (sizeof kCompose - 1) + href_len + (sizeof kMid - 1) + text_len +
                      (sizeof kClose - 1) + 1;
  if (static_cast<size_t>(out.end - from) < need) return 0;

  Writer wr{from, out.end};
  wr.put(kOpen, sizeof kOpen - 1);
  if (row == kMailtoRow) wr.put(kCompose, sizeof kCompose - 1);
  if (href_len > 0) wr.put(cand.text(href_from), href_len);
  wr.put(kMid, sizeof kMid - 1);
  wr.put(first, text_len);
  wr.put(kClose, sizeof kClose - 1);
  *wr.q = '\0';
  *p = data + iend + 1;
  *q = wr.q;
  return 1;
}

}  // namespace t2d

char* spacesearch(char* data, int way, int len, int pass_2_byte, int charset) {
  if (data == nullptr) return nullptr;
  const auto* s = reinterpret_cast<const unsigned char*>(data);
  if (way == 1) {
    RawAt at{s};
    const long r = walk_forward(at, 0, len, pass_2_byte != 0, charset);
    return r == kNone ? nullptr : offset(data, r);
  }
  // Backward: one byte a step.
  for (long i = 0;; --i) {
    if (len <= 0) return nullptr;
    const unsigned char b = s[i];
    if (kDelim[b]) return offset(data, i + 1);
    if (pass_2_byte == 0 && b >= 0x80 && s[i - 2] < 127 && is_alnum(s[i - 1])) return offset(data, i + 2);
    --len;
  }
}

int url_process(char* data, int datasize, char** p, char** q, MIME_DISP* disp_info) {
  if (data == nullptr || p == nullptr || q == nullptr || *p == nullptr || *q == nullptr || disp_info == nullptr ||
      datasize <= 0 || **p != ':')
    return 0;
  t2d::TokenEnds ends(data, charset_of(disp_info));
  const t2d::LinkOut out{*q - (*p - data), *q + T2D_LINK_ROOM};
  const char* in = *p;
  const int r = t2d::link_at(data, static_cast<size_t>(datasize), &in, q, disp_info, ends, out);
  if (r == 1) *p = data + (in - data);
  return r;
}
