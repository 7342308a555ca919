// Script and tag removal: replace_script defuses script words in place,
// remove_script_block copies a body without its script-like elements.
//
// Both stop at the first NUL or at the length they are given, whichever
// comes first, and never look at a byte beyond it.

#include <algorithm>
#include <cstring>

#include "mime_rmscript_internal.h"
#include "tarnplat.h"

namespace {

// End of the text: its first NUL, or p + n.
template <typename Char>
Char* text_end(Char* p, int n) {
  if (n <= 0) return p;
  Char* nul = static_cast<Char*>(std::memchr(p, '\0', static_cast<size_t>(n)));
  return nul != nullptr ? nul : p + n;
}

unsigned char byte_at(const char* p) { return static_cast<unsigned char>(*p); }

// The rows of each state in table order, and the bytes that can begin one
// of them, so that most bytes are dismissed by one look-up.
struct StateIndex {
  unsigned char count[kStates] = {};
  unsigned char row[kStates][3 * kFormsPerLetter] = {};
  bool first[kStates][256] = {};
};

const StateIndex& state_index() {
  static const StateIndex index = [] {
    StateIndex ix;
    for (size_t i = 0; g_my_filter[i].pattern != nullptr; ++i) {
      const element_t& e = g_my_filter[i];
      if (e.curr_status >= kStates || ix.count[e.curr_status] >= std::size(ix.row[0])) continue;
      ix.row[e.curr_status][ix.count[e.curr_status]++] = static_cast<unsigned char>(i);
      ix.first[e.curr_status][byte_at(e.pattern)] = true;
    }
    return ix;
  }();
  return index;
}

// Inside a word, line breaks, tabs and backslashes between letters are
// passed over by browsers, and so they are here.  One of each, in this
// order, is skipped before the next letter; returns the new position.
char* skip_noise_bytes(char* p, const char* end) {
  for (char noise : {'\r', '\n', '\t', '\\'})
    if (p < end && *p == noise) ++p;
  return p;
}

// The same controls written as entities: their length, 0 when none is at p.
size_t noise_entity_len(const char* p, const char* end) {
  static constexpr const char* kNoise[] = {"&#x09;", "&#x0A;", "&#x0D;", "&#9;", "&#10;", "&#13;"};
  const size_t avail = static_cast<size_t>(end - p);
  if (avail < 2 || p[0] != '&' || p[1] != '#') return 0;
  for (const char* n : kNoise) {
    const size_t len = std::strlen(n);
    if (avail >= len && MSTR_NCaseCmp(p, n, len) == 0) return len;
  }
  return 0;
}

// Writes the x of the row's form over the bytes of the match that ended a
// word.  A substitute never outgrows the match it replaces; where it is
// shorter (the 4-byte "&#58" over "&#x4E"), the rest of the match stays.
void defuse_last_letter(char* match, size_t match_len, int row) {
  const char* subs = g_subs_char[row % kFormsPerLetter];
  const size_t n = std::min(std::strlen(subs), match_len);
  std::memcpy(match, subs, n);
}

// Output of remove_script_block: every write keeps one byte free for the
// terminator, and a write that does not fit is dropped whole.
class BoundedOut {
 public:
  BoundedOut(char* dst, int size) : dst_(dst), cap_(dst != nullptr && size > 0 ? static_cast<size_t>(size) : 0) {}
  void put(char c) {
    if (pos_ + 1 < cap_) dst_[pos_++] = c;
  }
  void put(const char* s, size_t n) {
    if (pos_ + n < cap_) {
      std::memcpy(dst_ + pos_, s, n);
      pos_ += n;
    }
  }
  // A run of text byte by byte: what does not fit is dropped.
  void copy(const char* s, size_t n) {
    if (pos_ + 1 >= cap_) return;
    n = std::min(n, cap_ - 1 - pos_);
    std::memcpy(dst_ + pos_, s, n);
    pos_ += n;
  }
  void finish() {
    if (pos_ < cap_) dst_[pos_] = '\0';
  }

 private:
  char* dst_;
  size_t cap_;
  size_t pos_ = 0;
};

// Finds the next '>' for a series of searches whose starts never move
// backwards: a '>' found ahead is reused and a failed search is final, so a
// body full of unclosed tags is still scanned once.
class CloseFinder {
 public:
  explicit CloseFinder(const char* end) : end_(end) {}
  const char* next(const char* from) {
    if (none_) return nullptr;
    if (found_ != nullptr && found_ >= from) return found_;
    found_ = static_cast<const char*>(std::memchr(from, '>', static_cast<size_t>(end_ - from)));
    none_ = found_ == nullptr;
    return found_;
  }

 private:
  const char* end_;
  const char* found_ = nullptr;
  bool none_ = false;
};

bool is_end_tag(const char* lt, const char* end, const tag_pattern_t& tag) {
  return static_cast<size_t>(end - lt) >= 2u + tag.len && lt[1] == '/' &&
         MSTR_NCaseCmp(lt + 2, tag.pattern, tag.len) == 0;
}

// After the start tag of a paired element: drops its content and end tag,
// returns where copying resumes.  Without an end tag everything up to and
// including the last '<' is dropped; an end tag without its '>' is written
// back as "</" and the name, and copying resumes after the name.
const char* skip_element(const char* p, const char* end, const tag_pattern_t& tag, CloseFinder& close,
                         BoundedOut& out) {
  for (;;) {
    const char* lt = static_cast<const char*>(std::memchr(p, '<', static_cast<size_t>(end - p)));
    if (lt == nullptr) return p;
    if (!is_end_tag(lt, end, tag)) {
      p = lt + 1;
      continue;
    }
    const char* after_name = lt + 2 + tag.len;
    if (const char* gt = close.next(after_name)) return gt + 1;
    out.put('<');
    out.put('/');
    out.put(tag.pattern, tag.len);
    return after_name;
  }
}

}  // namespace

int script_match(const char* str, size_t avail, int status, int* idx) {
  *idx = -1;
  if (str == nullptr || avail == 0 || status < 0 || status >= kStates) return 0;
  const StateIndex& ix = state_index();
  if (!ix.first[status][byte_at(str)]) return 0;
  for (int k = 0; k < ix.count[status]; ++k) {
    const element_t& e = g_my_filter[ix.row[status][k]];
    const bool match = e.len == 1 ? *str == *e.pattern
                                  : avail >= e.len && MSTR_NCmp(str, e.pattern, e.len) == 0;
    if (!match) continue;
    *idx = ix.row[status][k];
    return e.len + (e.unicode && avail > e.len && str[e.len] == ';' ? 1 : 0);
  }
  return 0;
}

int tag_match(const char* pcPtr, size_t avail, int nFlags, int* pnMatchedIdx) {
  *pnMatchedIdx = -1;
  if (pcPtr == nullptr || avail < 1) return 0;
  for (int i = 0; g_rm_tag_list[i].pattern != nullptr; ++i) {
    const tag_pattern_t& t = g_rm_tag_list[i];
    if ((t.flag & nFlags) == 0 || avail < 1u + t.len) continue;
    const int cmp = t.casefold ? MSTR_NCaseCmp(pcPtr + 1, t.pattern, t.len) : MSTR_NCmp(pcPtr + 1, t.pattern, t.len);
    if (cmp == 0) {
      *pnMatchedIdx = i;
      return 1;
    }
  }
  return 0;
}

// A mismatch sends the automaton back to state 0 without trying the same
// byte again, so a letter doubled in front of a word ("jjavascript") hides
// the word from it.  Callers depend on exactly this result.
extern "C" TARNMAIL_API int replace_script(char* pszContent, int nLen, int bInTagOnly) {
  if (pszContent == nullptr) return 0;
  char* p = pszContent;
  char* const end = text_end(pszContent, nLen);
  const StateIndex& ix = state_index();
  int status = 0;
  bool in_blk = false;
  int result = 0;
  while (p < end) {
    if (in_blk) {
      if (*p == '>') in_blk = false;
    } else if (*p == '<') {
      in_blk = true;
    }
    if (status == 0) {
      // Fast paths that take the same steps as the full one below.
      if (bInTagOnly && !in_blk) {
        char* lt = static_cast<char*>(std::memchr(p + 1, '<', static_cast<size_t>(end - p - 1)));
        p = lt != nullptr ? lt : end;
        continue;
      }
      if (!ix.first[0][byte_at(p)]) {
        ++p;
        continue;
      }
    } else {
      p = skip_noise_bytes(p, end);
      if (const size_t n = noise_entity_len(p, end)) {
        p += n;
        continue;
      }
      if (p == end) break;
    }
    if (bInTagOnly && !in_blk) {
      status = 0;
      ++p;
      continue;
    }
    int row;
    const int n = script_match(p, static_cast<size_t>(end - p), status, &row);
    if (n == 0) {
      status = 0;
      ++p;
      continue;
    }
    result = 1;
    status = g_my_filter[static_cast<size_t>(row)].next_status;
    if (status == kWordSeen) {
      defuse_last_letter(p, static_cast<size_t>(n), row);
      status = 0;
    }
    p += n;
  }
  return result;
}

extern "C" TARNMAIL_API int remove_script_block(const char* pszInput, int nInputBufLen, char* pszOutput,
                                                int nOutputBufSize, int nFlags) {
  BoundedOut out(pszOutput, nOutputBufSize);
  if (pszInput == nullptr) {
    out.finish();
    return 0;
  }
  const char* p = pszInput;
  const char* const end = text_end(pszInput, nInputBufLen);
  CloseFinder close(end);
  int result = 0;
  while (p < end) {
    if (*p != '<') {
      const char* lt = static_cast<const char*>(std::memchr(p, '<', static_cast<size_t>(end - p)));
      const char* run_end = lt != nullptr ? lt : end;
      out.copy(p, static_cast<size_t>(run_end - p));
      p = run_end;
      continue;
    }
    int idx;
    if (!tag_match(p, static_cast<size_t>(end - p), nFlags, &idx)) {
      out.put(*p++);
      continue;
    }
    const tag_pattern_t& tag = g_rm_tag_list[static_cast<size_t>(idx)];
    const char* after_name = p + 1 + tag.len;
    const char* gt = close.next(after_name);
    if (gt == nullptr) {
      // An unclosed start tag stays as text, its name spelt as in the table.
      out.put('<');
      out.put(tag.pattern, tag.len);
      p = after_name;
      continue;
    }
    result = 1;
    p = gt + 1;
    if (tag.pair) p = skip_element(p, end, tag, close, out);
  }
  out.finish();
  return result;
}
