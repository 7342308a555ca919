// The tables of script and tag removal.
//
// The word automaton is written as its 22 letter transitions; each one
// becomes eight rows, one per way of writing the letter, at compile time.
// Two rows keep a short compare length on purpose (see kShortHexRows).

#include <cstdint>

#include "mime_rmscript_internal.h"

namespace {

struct Transition {
  unsigned char from;
  char letter;  // lower case
  unsigned char to;
};

// "javascript" and "vbscript" share the states from "script" on; both
// words and "expression" end in kWordSeen.
constexpr Transition kTransitions[] = {
    {0, 'j', 1},   {1, 'a', 2},   {0, 'v', 10},  {10, 'b', 4},  {2, 'v', 3},   {3, 'a', 4},
    {4, 's', 5},   {5, 'c', 6},   {6, 'r', 7},   {7, 'i', 8},   {8, 'p', 9},   {9, 't', kWordSeen},
    {0, 'e', 11},  {11, 'x', 12}, {12, 'p', 13}, {13, 'r', 14}, {14, 'e', 15}, {15, 's', 16},
    {16, 's', 17}, {17, 'i', 18}, {18, 'o', 19}, {19, 'n', kWordSeen},
};
static_assert(std::size(kTransitions) * kFormsPerLetter == kMyFilterRows);

// The forms of a letter, in row order within its group of eight.
enum Form : int {
  kLower,         // "j"
  kUpper,         // "J"
  kDecLower,      // "&#106"
  kPaddedLower,   // "&#0000106"
  kHexLower,      // "&#x6A"
  kDecUpper,      // "&#74"
  kPaddedUpper,   // "&#0000074"
  kHexUpper,      // "&#x4A"
};

// The upper-case hexadecimal forms of the final t and of the first E
// compare one byte less than they are long ("&#x5", "&#x4"), so they also
// take other letters of those rows of the code chart.  Detection depends on
// it; the rows stay as they are.
struct ShortRow {
  unsigned char from;
  char letter;
};
constexpr ShortRow kShortHexRows[] = {{9, 't'}, {0, 'e'}};

struct FormText {
  char text[10];  // the longest form, "&#0000106", and its terminator
  unsigned char len;
};

constexpr FormText make_form(char lower, int form) {
  FormText f{};
  const bool upper = form == kUpper || form >= kDecUpper;
  const int code = upper ? lower - ('a' - 'A') : lower;
  int n = 0;
  auto put = [&](char c) { f.text[n++] = c; };
  if (form == kLower || form == kUpper) {
    put(static_cast<char>(code));
  } else if (form == kHexLower || form == kHexUpper) {
    constexpr char kHex[] = "0123456789ABCDEF";
    put('&'), put('#'), put('x');
    put(kHex[code >> 4]), put(kHex[code & 0xF]);
  } else {
    put('&'), put('#');
    const int width = (form == kPaddedLower || form == kPaddedUpper) ? 7 : (code >= 100 ? 3 : 2);
    int div = 1;
    for (int k = 1; k < width; ++k) div *= 10;
    for (; div > 0; div /= 10) put(static_cast<char>('0' + code / div % 10));
  }
  f.len = static_cast<unsigned char>(n);
  return f;
}

constexpr std::array<FormText, kMyFilterRows> build_forms() {
  std::array<FormText, kMyFilterRows> out{};
  for (size_t t = 0; t < std::size(kTransitions); ++t) {
    for (int form = 0; form < kFormsPerLetter; ++form) {
      FormText f = make_form(kTransitions[t].letter, form);
      for (const ShortRow& s : kShortHexRows)
        if (form == kHexUpper && s.from == kTransitions[t].from && s.letter == kTransitions[t].letter)
          f.len = static_cast<unsigned char>(f.len - 1);
      out[t * kFormsPerLetter + static_cast<size_t>(form)] = f;
    }
  }
  return out;
}

constexpr std::array<FormText, kMyFilterRows> kForms = build_forms();

constexpr std::array<element_t, kMyFilterRows + 1> build_filter() {
  std::array<element_t, kMyFilterRows + 1> out{};
  for (size_t i = 0; i < kMyFilterRows; ++i) {
    const Transition& t = kTransitions[i / kFormsPerLetter];
    const bool entity = i % kFormsPerLetter >= kDecLower;
    out[i] = element_t{kForms[i].text, kForms[i].len, static_cast<unsigned char>(entity ? 1 : 0), t.from, t.to};
  }
  out[kMyFilterRows] = element_t{nullptr, 0, 0, 0, 0};
  return out;
}

}  // namespace

constinit const std::array<element_t, kMyFilterRows + 1> g_my_filter = build_filter();

constinit const std::array<tag_pattern_t, 6> g_rm_tag_list = {{
    {"script", 6, 1, 1, 1},
    {"iframe", 6, 1, 2, 1},
    {"xml", 3, 1, 4, 1},
    {"object", 6, 1, 8, 1},
    {"embed", 5, 1, 16, 0},
    {nullptr, 0, 0, 0, 0},
}};

// The last entry is the decimal entity of ':' where the upper-case
// hexadecimal x would be expected; it is kept so.
const char* const g_subs_char[9] = {
    "x", "X", "&#120", "&#0000120", "&#x78", "&#88", "&#0000088", "&#58", nullptr,
};
