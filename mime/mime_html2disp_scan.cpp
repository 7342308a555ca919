// Searches and attribute values for the HTML rewriter.
//
// The rewriter looks ahead from many positions of one body: for the '>'
// that ends a tag, for an end tag, for an attribute inside a tag, for the
// end of a value.  A body made to defeat it (a million "<img" with no '>',
// "href=href=href=...") would make each look-ahead run to the end of the
// text.  Every finder here therefore remembers its last answer: the stretch
// from its last start up to its last hit holds no match, so a search that
// starts inside it is answered at once, and the text is read about once per
// finder.

#include <algorithm>
#include <cstring>

#include "mime_html2disp_internal.h"
#include "tarnplat.h"

namespace {

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : c; }

bool same_nocase(const char* p, std::string_view t) {
  for (size_t i = 0; i < t.size(); ++i)
    if (lower(p[i]) != lower(t[i])) return false;
  return true;
}

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// First occurrence of t (any case) that starts in [a, b) and ends before
// `end`.
const char* find_text(const char* a, const char* b, const char* end, std::string_view t) {
  const size_t n = t.size();
  if (n == 0) return a;
  if (static_cast<size_t>(end - a) < n) return nullptr;
  const char* last = std::min(b, end - n + 1);
  const char lo = lower(t[0]);
  const char up = (lo >= 'a' && lo <= 'z') ? static_cast<char>(lo - ('a' - 'A')) : lo;
  for (const char* p = a; p < last; ++p) {
    if (lo == up) {
      p = static_cast<const char*>(std::memchr(p, lo, static_cast<size_t>(last - p)));
      if (p == nullptr) return nullptr;
    } else if (*p != lo && *p != up) {
      continue;
    }
    if (same_nocase(p + 1, t.substr(1))) return p;
  }
  return nullptr;
}

// The remembered forward search shared by the finders.  [from, hit) is
// known to hold no match and hit is the first one (nullptr: none up to the
// end).  search(a, b) returns the first match that starts in [a, b).
template <typename Search>
const char* remembered(const char*& known_from, const char*& known_hit, const char* from, const char* end,
                       Search search) {
  if (from >= end) return nullptr;
  if (known_from != nullptr && from >= known_from && (known_hit == nullptr || from <= known_hit))
    return known_hit;
  if (known_from != nullptr && from < known_from) {
    // A search that starts further back: only the stretch in front of the
    // known one is new.
    if (const char* h = search(from, known_from)) known_hit = h;
    known_from = from;
    return known_hit;
  }
  known_from = from;
  known_hit = search(from, end);
  return known_hit;
}

// A quoted value: the closing quote ends it; a backslash takes the next
// byte as it is; a double-byte character of the charset mode is taken
// whole, unless its second byte is the closing quote.
const char* copy_quoted(const char* r, const char* limit, char quote, int charset, char* buf, size_t nz,
                        size_t& out) {
  auto put = [&](char c) {
    if (out + 1 < nz) buf[out++] = c;
  };
  while (r < limit && *r != quote) {
    if (*r == '\\' && r + 1 < limit) {
      put(r[1]);
      r += 2;
      continue;
    }
    size_t n = 1;
    if (static_cast<unsigned char>(*r) >= 0x80) {
      const int len = MLG_CharacterLength(r, charset);
      if (len > 1 && static_cast<size_t>(limit - r) >= static_cast<size_t>(len) &&
          std::memchr(r + 1, quote, static_cast<size_t>(len - 1)) == nullptr)
        n = static_cast<size_t>(len);
    }
    for (size_t i = 0; i < n; ++i) put(r[i]);
    r += n;
  }
  return r;
}

AttrValue read_value(const char* v, const char* limit, int charset, TermFinder& term, char* buf, size_t nz) {
  size_t out = 0;
  AttrValue res;
  res.pos = v;
  if (v < limit && (*v == '"' || *v == '\'')) {
    const char* r = copy_quoted(v + 1, limit, *v, charset, buf, nz, out);
    res.after = r < limit ? r + 1 : limit;
  } else {
    const char* t = term.next(v);
    const char* stop = (t == nullptr || t > limit) ? limit : t;
    out = std::min(static_cast<size_t>(stop - v), nz > 0 ? nz - 1 : 0);
    if (out > 0) std::memcpy(buf, v, out);
    res.after = stop;
  }
  if (nz > 0) buf[out] = '\0';
  return res;
}

// After an attribute's name: white space, '=', white space; the value's
// position, or nullptr.
const char* after_equals(const char* p, const char* limit) {
  while (p < limit && is_space(*p)) ++p;
  if (p >= limit || *p != '=') return nullptr;
  ++p;
  while (p < limit && is_space(*p)) ++p;
  return p;
}

}  // namespace

const char* ByteFinder::next(const char* from) {
  return remembered(from_, hit_, from, end_, [this](const char* a, const char* b) {
    return static_cast<const char*>(std::memchr(a, c_, static_cast<size_t>(b - a)));
  });
}

const char* TextFinder::next(const char* from) {
  return remembered(from_, hit_, from, end_,
                    [this](const char* a, const char* b) { return find_text(a, b, end_, text_); });
}

const char* AttrFinder::next(const char* from) {
  return remembered(from_, hit_, from, end_, [this](const char* a, const char* b) -> const char* {
    for (const char* p = a; p < b; ++p) {
      p = find_text(p, b, end_, name_);
      if (p == nullptr) return nullptr;
      if (after_equals(p + name_.size(), end_) != nullptr) return p;
    }
    return nullptr;
  });
}

const char* TermFinder::next(const char* from) {
  return remembered(from_, hit_, from, end_, [](const char* a, const char* b) -> const char* {
    for (const char* p = a; p < b; ++p)
      if (is_space(*p) || *p == '>') return p;
    return nullptr;
  });
}

int html_charset_mode(int nTextCharsetVal) {
  struct Mode {
    const char* name;
    int mode;
  };
  static constexpr Mode kModes[] = {{"utf-8", 1}, {"iso-2022-jp", 4}, {"gb2312", 3}, {"gb18030", 14}};
  for (const Mode& m : kModes)
    if (nTextCharsetVal == MLG_CharsetWEncToValue(m.name)) return m.mode;
  return 2;
}

AttrValue attr_value_at(const char* p, const char* limit, std::string_view name, int charset, TermFinder& term,
                        char* buf, size_t nz) {
  if (nz > 0) buf[0] = '\0';
  if (p >= limit || static_cast<size_t>(limit - p) < name.size() || !same_nocase(p, name)) return {};
  const char* v = after_equals(p + name.size(), limit);
  if (v == nullptr) return {};
  return read_value(v, limit, charset, term, buf, nz);
}

AttrValue find_attr_value(AttrFinder& finder, const char* from, const char* limit, int charset, TermFinder& term,
                          char* buf, size_t nz) {
  if (nz > 0) buf[0] = '\0';
  const char* at = finder.next(from);
  if (at == nullptr || at >= limit) return {};
  return attr_value_at(at, limit, finder.name(), charset, term, buf, nz);
}
