// mlg_jp.cpp - Japanese text: ISO-2022-JP and EUC-JP to Shift_JIS, and
// telling the three forms apart.
//
// JIS X 0208 maps onto Shift_JIS by arithmetic, so both converters compute
// the double-byte codes themselves instead of asking iconv: that is exact
// for every row, including the NEC special characters of row 13 (circled
// digits, roman numerals) and the NEC-selected IBM rows 89-92 that Windows
// mailers put into ISO-2022-JP and that glibc's ISO-2022-JP and EUC-JP
// converters refuse.  Shift_JIS here means CP932, the form Windows and the
// web use.  Only JIS X 0212 (ESC $ ( D, EUC-JP 8F xx xx) goes through
// iconv, EUC-JP-MS to CP932, which knows the IBM extensions; a character
// CP932 lacks becomes the geta mark (0x81 0xAC), and an invalid EUC byte
// becomes "?".
#include <cerrno>

#include "mlg_internal.h"
#include "tarnplat.h"

namespace tarnplat {
namespace {

constexpr unsigned char kEsc = 0x1B;
constexpr unsigned char kShiftOut = 0x0E;  // JIS X 0201 katakana until SI
constexpr unsigned char kShiftIn = 0x0F;
constexpr std::string_view kGeta = "\x81\xAC";

constexpr bool in(unsigned char b, unsigned lo, unsigned hi) { return b >= lo && b <= hi; }
constexpr bool is_jis_byte(unsigned char b) { return in(b, 0x21, 0x7E); }

// JIS X 0208 row/cell bytes (21-7E each) to the Shift_JIS pair.
void put_sjis_pair(unsigned char j1, unsigned char j2, HeapBuf& out) {
  unsigned s1 = ((j1 + 1u) >> 1) + (j1 < 0x5F ? 0x70u : 0xB0u);
  unsigned s2 = j2 + ((j1 & 1) != 0 ? (j2 < 0x60 ? 0x1Fu : 0x20u) : 0x7Eu);
  char pair[2] = {static_cast<char>(s1), static_cast<char>(s2)};
  out.append(pair, 2);
}

// A JIS X 0212 character (row/cell bytes 21-7E) in CP932, or the geta mark.
void put_jis0212(unsigned char j1, unsigned char j2, HeapBuf& out) {
  char euc[3] = {'\x8F', static_cast<char>(j1 | 0x80), static_cast<char>(j2 | 0x80)};
  char sjis[8];
  iconv_t cd = iconv_for("EUC-JP-MS", "CP932");
  if (iconv_ok(cd)) {
    char* src = euc;
    size_t left = sizeof euc;
    char* dst = sjis;
    size_t room = sizeof sjis;
    if (iconv(cd, &src, &left, &dst, &room) != static_cast<size_t>(-1) && left == 0) {
      out.append(sjis, sizeof sjis - room);
      return;
    }
  }
  out.append(kGeta);
}

enum class JisSet : uint8_t { kAscii, kKana, kJis0208, kJis0212, kOther94x94 };

// Reads the escape sequence at t[i] (an ESC): ESC, intermediate bytes
// 20-2F, one final byte 30-7E.  Sets `set` for the designations that
// matter here and returns the bytes taken; a broken sequence takes the ESC
// alone, and the bytes after it are read as text.
size_t read_escape(Bytes t, size_t i, JisSet& set) {
  size_t j = i + 1;
  while (j < t.size() && in(t[j], 0x20, 0x2F)) ++j;
  if (j >= t.size() || !in(t[j], 0x30, 0x7E)) return 1;
  std::string_view seq(reinterpret_cast<const char*>(t.data()) + i + 1, j - i);
  if (seq == "(B" || seq == "(J" || seq == "(H") {
    set = JisSet::kAscii;  // JIS-Roman differs from ASCII only in glyphs
  } else if (seq == "(I") {
    set = JisSet::kKana;
  } else if (seq == "$@" || seq == "$B" || seq == "$(B" || seq == "$(O" || seq == "$(Q") {
    set = JisSet::kJis0208;  // JIS X 0213 plane 1 extends 0208 in place
  } else if (seq == "$(D") {
    set = JisSet::kJis0212;
  } else if (seq[0] == '$') {
    set = JisSet::kOther94x94;  // GB2312, KS C 5601, 0213 plane 2: no Shift_JIS form
  }
  // Anything else (announcers such as ESC & @, single shifts) changes nothing.
  return j - i + 1;
}

void put_double(JisSet set, unsigned char j1, unsigned char j2, HeapBuf& out) {
  switch (set) {
    case JisSet::kJis0208: put_sjis_pair(j1, j2, out); break;
    case JisSet::kJis0212: put_jis0212(j1, j2, out); break;
    default: out.append(kGeta); break;
  }
}

bool is_double(JisSet set) {
  return set == JisSet::kJis0208 || set == JisSet::kJis0212 || set == JisSet::kOther94x94;
}

void euc_to_sjis(Bytes t, HeapBuf& out) {
  size_t i = 0;
  while (i < t.size()) {
    unsigned char b = t[i];
    size_t rest = t.size() - i;
    if (b < 0x80) {
      out.push(static_cast<char>(b));
      i += 1;
    } else if (b == 0x8E && rest >= 2 && in(t[i + 1], 0xA1, 0xDF)) {
      out.push(static_cast<char>(t[i + 1]));  // half-width katakana
      i += 2;
    } else if (b == 0x8F && rest >= 3 && in(t[i + 1], 0xA1, 0xFE) && in(t[i + 2], 0xA1, 0xFE)) {
      put_jis0212(t[i + 1] & 0x7F, t[i + 2] & 0x7F, out);
      i += 3;
    } else if (in(b, 0xA1, 0xFE) && rest >= 2 && in(t[i + 1], 0xA1, 0xFE)) {
      put_sjis_pair(b & 0x7F, t[i + 1] & 0x7F, out);
      i += 2;
    } else {
      out.push('?');
      i += 1;
    }
  }
}

struct Tally {
  size_t errors = 0;
  size_t doubles = 0;  // multibyte characters
  size_t kana = 0;     // single-byte katakana (Shift_JIS only)
};

Tally tally_sjis(Bytes t) {
  Tally r;
  for (size_t i = 0; i < t.size();) {
    unsigned char b = t[i];
    bool lead = in(b, 0x81, 0x9F) || in(b, 0xE0, 0xFC);
    if (b < 0x80) {
      i += 1;
    } else if (in(b, 0xA1, 0xDF)) {
      ++r.kana;
      i += 1;
    } else if (lead && i + 1 < t.size() && (in(t[i + 1], 0x40, 0x7E) || in(t[i + 1], 0x80, 0xFC))) {
      ++r.doubles;
      i += 2;
    } else {
      ++r.errors;
      i += 1;
    }
  }
  return r;
}

Tally tally_euc(Bytes t) {
  Tally r;
  for (size_t i = 0; i < t.size();) {
    unsigned char b = t[i];
    size_t rest = t.size() - i;
    auto hi = [&](size_t k) { return in(t[i + k], 0xA1, 0xFE); };
    if (b < 0x80) {
      i += 1;
    } else if (b == 0x8E && rest >= 2 && in(t[i + 1], 0xA1, 0xDF)) {
      ++r.doubles;
      i += 2;
    } else if (b == 0x8F && rest >= 3 && hi(1) && hi(2)) {
      ++r.doubles;
      i += 3;
    } else if (hi(0) && rest >= 2 && hi(1)) {
      ++r.doubles;
      i += 2;
    } else {
      ++r.errors;
      i += 1;
    }
  }
  return r;
}

bool has_byte(Bytes t, unsigned char b) {
  for (unsigned char c : t)
    if (c == b) return true;
  return false;
}

bool has_high_byte(Bytes t) {
  for (unsigned char c : t)
    if (c >= 0x80) return true;
  return false;
}

// Input of a JP converter as bytes, or an empty span when it is NULL.
Bytes text_of(const char* psz) {
  return psz != nullptr ? as_bytes(psz, std::strlen(psz)) : Bytes();
}

}  // namespace

void jis_to_sjis(Bytes t, HeapBuf& out) {
  JisSet set = JisSet::kAscii;
  size_t i = 0;
  while (i < t.size()) {
    unsigned char b = t[i];
    if (b == kEsc) {
      i += read_escape(t, i, set);
    } else if (b == kShiftOut) {
      set = JisSet::kKana;
      i += 1;
    } else if (b == kShiftIn) {
      set = JisSet::kAscii;
      i += 1;
    } else if (is_double(set) && is_jis_byte(b) && i + 1 < t.size() && is_jis_byte(t[i + 1])) {
      put_double(set, b, t[i + 1], out);
      i += 2;
    } else if (set == JisSet::kKana && in(b, 0x21, 0x5F)) {
      out.push(static_cast<char>(b + 0x80));
      i += 1;
    } else {
      // Line ends, blanks and bytes the set has no place for pass as they are.
      out.push(static_cast<char>(b));
      i += 1;
    }
  }
}

JpForm detect_japanese(Bytes t) {
  if (has_byte(t, kEsc) || has_byte(t, kShiftOut)) return JpForm::kJis;
  if (!has_high_byte(t)) return JpForm::kAscii;
  Tally sjis = tally_sjis(t);
  Tally euc = tally_euc(t);
  if (sjis.errors != euc.errors) return sjis.errors < euc.errors ? JpForm::kSjis : JpForm::kEucJp;
  // Both read cleanly (or equally badly).  EUC-JP read as Shift_JIS turns
  // mostly into half-width katakana, which real Shift_JIS text seldom uses.
  return sjis.kana > sjis.doubles ? JpForm::kEucJp : JpForm::kSjis;
}

}  // namespace tarnplat

extern "C" {

TARNPLAT_API int MLG_JPInit(void) {
  // The only table is iconv's, for JIS X 0212; open it now.
  (void)tarnplat::iconv_for("EUC-JP-MS", "CP932");
  return 0;
}

TARNPLAT_API char* MLG_JPJis2Sjis2(const char* pszText) {
  tarnplat::Bytes t = tarnplat::text_of(pszText);
  if (!tarnplat::has_byte(t, tarnplat::kEsc) && !tarnplat::has_byte(t, tarnplat::kShiftOut))
    return nullptr;
  tarnplat::HeapBuf out(t.size());
  tarnplat::jis_to_sjis(t, out);
  return out.release();
}

TARNPLAT_API char* MLG_JPEuc2Sjis2(const char* pszText) {
  tarnplat::Bytes t = tarnplat::text_of(pszText);
  if (!tarnplat::has_high_byte(t)) return nullptr;
  tarnplat::HeapBuf out(t.size());
  tarnplat::euc_to_sjis(t, out);
  return out.release();
}

}  // extern "C"
