// muc.cpp - text in any known charset to UTF-8.
//
// Conversions run through glibc's iconv, with descriptors opened once per
// thread and source charset and reset before each use.  A sequence the
// source charset does not define is first offered to the charset's
// fallback converter (Big5-HKSCS behind CP950, ISO-8859-1 behind CP1252,
// ...); what neither reads becomes U+FFFD and the conversion goes on.
// Three forms have readers of their own because iconv lacks them or reads
// them too strictly: ISO-2022-JP (see mlg_jp.cpp), UTF-7 and HZ.
#include <cerrno>

#include "mlg_internal.h"
#include "tarnplat.h"

namespace tarnplat {
namespace {

// ---- descriptor cache ----------------------------------------------------

struct CachedCd {
  const char* from;
  const char* to;
  iconv_t cd;
};

// Room for every pair the charset table can ask for (about two per entry).
class CdCache {
 public:
  ~CdCache() {
    for (size_t i = 0; i < count_; ++i)
      if (iconv_ok(slots_[i].cd)) iconv_close(slots_[i].cd);
  }
  iconv_t get(const char* from, const char* to) {
    for (size_t i = 0; i < count_; ++i)
      if (std::strcmp(slots_[i].from, from) == 0 && std::strcmp(slots_[i].to, to) == 0)
        return slots_[i].cd;
    if (count_ == kSlots) return reinterpret_cast<iconv_t>(-1);
    iconv_t cd = iconv_open(to, from);
    slots_[count_++] = {from, to, cd};  // failures are kept too: asked once
    return cd;
  }

 private:
  static constexpr size_t kSlots = 160;
  CachedCd slots_[kSlots] = {};
  size_t count_ = 0;
};

thread_local CdCache t_cds;

// ---- iconv with fallback and U+FFFD --------------------------------------

// Bytes taken as one unreadable unit at src: a code unit of UTF-16/32;
// else the character the bytes form in the charset's byte structure (a
// well-formed pair the converter does not define goes as a whole), or one
// byte when they form none, so that a bad lead byte never swallows the
// ASCII byte after it.
size_t bad_unit(const Charset& cs, const char* src, size_t left) {
  size_t n = cs.unit;
  if (cs.family != Family::kWide) {
    unsigned char probe[5] = {};  // NUL-terminated copy for char_length
    std::memcpy(probe, src, left < 4 ? left : 4);
    n = static_cast<size_t>(char_length(probe, cs.family));
    if (n == 0) n = 1;  // a NUL byte the converter refused
  }
  return n < left ? n : left;
}

// Converts exactly `n` bytes at src with the fallback converter; true when
// it read all of them.
bool try_fallback(iconv_t fb, const char* src, size_t n, HeapBuf& out) {
  if (!iconv_ok(fb) || !out.make_room(32)) return false;
  iconv(fb, nullptr, nullptr, nullptr, nullptr);
  char* in = const_cast<char*>(src);
  size_t left = n;
  char* dst = out.tail();
  size_t room = out.room();
  size_t r = iconv(fb, &in, &left, &dst, &room);
  if (r == static_cast<size_t>(-1) || left != 0) return false;
  iconv(fb, nullptr, nullptr, &dst, &room);  // a character it held back
  out.advance(out.room() - room);
  return true;
}

bool iconv_to_utf8(Bytes text, const Charset& cs, HeapBuf& out) {
  iconv_t cd = iconv_for(cs.iconv, "UTF-8");
  if (!iconv_ok(cd)) return false;
  iconv_t fb = cs.fallback != nullptr ? iconv_for(cs.fallback, "UTF-8")
                                      : reinterpret_cast<iconv_t>(-1);
  char* src = const_cast<char*>(reinterpret_cast<const char*>(text.data()));
  size_t left = text.size();
  size_t want = left + left / 2 + 16;  // grows on E2BIG
  while (left > 0) {
    if (!out.make_room(want)) return false;
    char* dst = out.tail();
    size_t room = out.room();
    size_t r = iconv(cd, &src, &left, &dst, &room);
    int err = errno;
    out.advance(out.room() - room);
    if (r != static_cast<size_t>(-1)) break;
    if (err == E2BIG) {
      want = out.room() * 2 + 64;
      continue;
    }
    // EILSEQ, or EINVAL for a sequence cut off by the end of the text.
    size_t n = bad_unit(cs, src, left);
    if (!try_fallback(fb, src, n, out)) out.append(kReplacement);
    src += n;
    left -= n;
    want = left + left / 2 + 16;
  }
  // Stateful sources may hold a character back until the end.
  if (!out.make_room(64)) return false;
  char* dst = out.tail();
  size_t room = out.room();
  iconv(cd, nullptr, nullptr, &dst, &room);
  out.advance(out.room() - room);
  return out.ok();
}

// ---- HZ (RFC 1843) --------------------------------------------------------

constexpr bool is_gl(unsigned char b) { return b >= 0x21 && b <= 0x7E; }

// HZ to EUC-CN: "~{" opens GB2312 pairs written as 7-bit bytes, "~}"
// closes them, "~~" is a tilde, "~" before a line end joins the lines.  A
// line end also closes GB mode (HZ text must not carry it across lines, and
// a sender who forgets "~}" loses one line, not the rest of the text).
void hz_to_euc(Bytes t, HeapBuf& out) {
  bool gb = false;
  size_t i = 0;
  while (i < t.size()) {
    unsigned char b = t[i];
    unsigned char next = i + 1 < t.size() ? t[i + 1] : 0;
    if (b == '~' && (next == '~' || next == '{' || next == '}' || next == '\n')) {
      if (next == '~') out.push('~');
      if (next == '{') gb = true;
      if (next == '}') gb = false;
      i += 2;
    } else if (gb && is_gl(b) && is_gl(next)) {
      char pair[2] = {static_cast<char>(b | 0x80), static_cast<char>(next | 0x80)};
      out.append(pair, 2);
      i += 2;
    } else {
      if (b == '\n') gb = false;
      out.push(static_cast<char>(b));
      i += 1;
    }
  }
}

// ---- what needs converting ------------------------------------------------

bool has_any(Bytes t, std::string_view set) {
  for (unsigned char c : t)
    if (c >= 0x80 || set.find(static_cast<char>(c)) != std::string_view::npos) return true;
  return false;
}

// False when the text reads the same in UTF-8: no byte of the charset's
// own that could mean anything but ASCII.
bool needs_conversion(Bytes t, const Charset& cs) {
  switch (cs.decoder) {
    case Decoder::kNone:
    case Decoder::kIdentity: return false;
    case Decoder::kUtf7: return has_any(t, "+");
    case Decoder::kHz: return has_any(t, "~");
    case Decoder::kJis:
    case Decoder::kJapanese: return has_any(t, "\x1B\x0E");
    case Decoder::kIconv:
    case Decoder::kByteOrder: break;
  }
  if (cs.family == Family::kWide) return !t.empty();
  if (cs.family == Family::kSevenBit) return has_any(t, "\x1B\x0E\x0F");
  return has_any(t, "");
}

// Converts text of charset `cs` (which needs it) into out.
bool convert(Bytes t, const Charset& cs, HeapBuf& out);

bool convert_via(Bytes t, int value, HeapBuf& out) {
  const Charset* cs = charset_of(value);
  return cs != nullptr && iconv_to_utf8(t, *cs, out);
}

bool convert_jis(Bytes t, HeapBuf& out) {
  HeapBuf sjis(t.size());
  jis_to_sjis(t, sjis);
  return sjis.ok() && convert_via(as_bytes(sjis.data(), sjis.size()), MLG_SJIS, out);
}

// UTF-16 or UTF-32 in the order its byte order mark states (the mark
// itself is dropped), big-endian when it has none.
bool convert_marked(Bytes t, const Charset& cs, HeapBuf& out) {
  const bool wide32 = cs.unit == 4;
  static constexpr unsigned char kLe16[] = {0xFF, 0xFE}, kBe16[] = {0xFE, 0xFF};
  static constexpr unsigned char kLe32[] = {0xFF, 0xFE, 0, 0}, kBe32[] = {0, 0, 0xFE, 0xFF};
  Bytes le = wide32 ? Bytes(kLe32) : Bytes(kLe16);
  Bytes be = wide32 ? Bytes(kBe32) : Bytes(kBe16);
  auto starts = [&](Bytes mark) {
    return t.size() >= mark.size() && std::memcmp(t.data(), mark.data(), mark.size()) == 0;
  };
  Charset ordered = cs;
  ordered.iconv = wide32 ? "UTF-32BE" : "UTF-16BE";
  if (starts(le)) {
    ordered.iconv = wide32 ? "UTF-32LE" : "UTF-16LE";
    t = t.subspan(le.size());
  } else if (starts(be)) {
    t = t.subspan(be.size());
  }
  return iconv_to_utf8(t, ordered, out);
}

bool convert(Bytes t, const Charset& cs, HeapBuf& out) {
  switch (cs.decoder) {
    case Decoder::kIconv: return iconv_to_utf8(t, cs, out);
    case Decoder::kByteOrder: return convert_marked(t, cs, out);
    case Decoder::kJis: return convert_jis(t, out);
    case Decoder::kUtf7:
      utf7_to_utf8(t, out);
      return out.ok();
    case Decoder::kHz: {
      HeapBuf euc(t.size());
      hz_to_euc(t, euc);
      return euc.ok() && iconv_to_utf8(as_bytes(euc.data(), euc.size()), cs, out);
    }
    case Decoder::kJapanese:
      switch (detect_japanese(t)) {
        case JpForm::kJis: return convert_jis(t, out);
        case JpForm::kEucJp: return convert_via(t, MLG_EUCJP, out);
        default: return convert_via(t, MLG_SJIS, out);
      }
    default: return false;
  }
}

// The UTF-8 form of the text as a new heap string, or nullptr when the
// text needs no change or cannot be converted.
char* to_utf8(Bytes t, int nCharset, size_t* pnOutLen) {
  const Charset* cs = charset_of(nCharset);
  if (cs == nullptr || !needs_conversion(t, *cs)) return nullptr;
  HeapBuf out(t.size() + t.size() / 2 + 16);
  if (!convert(t, *cs, out)) return nullptr;
  size_t n = out.size();
  char* p = out.release();
  if (p != nullptr && pnOutLen != nullptr) *pnOutLen = n;
  return p;
}

}  // namespace

iconv_t iconv_for(const char* from, const char* to) {
  iconv_t cd = t_cds.get(from, to);
  if (iconv_ok(cd)) iconv(cd, nullptr, nullptr, nullptr, nullptr);
  return cd;
}

bool HeapBuf::reserve(size_t need) {
  if (failed_) return false;
  if (need < cap_) return true;  // cap_ counts the terminator's byte
  if (need > (static_cast<size_t>(-1) >> 2)) {
    failed_ = true;
    return false;
  }
  size_t cap = cap_ * 2 > need + 1 ? cap_ * 2 : need + 1;
  void* p = std::realloc(data_, cap);
  if (p == nullptr) {
    failed_ = true;
    return false;
  }
  data_ = static_cast<char*>(p);
  cap_ = cap;
  return true;
}

void HeapBuf::append_code_point(uint32_t cp) {
  if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    append(kReplacement);
    return;
  }
  char b[4];
  size_t n;
  if (cp < 0x80) {
    b[0] = static_cast<char>(cp);
    n = 1;
  } else if (cp < 0x800) {
    b[0] = static_cast<char>(0xC0 | (cp >> 6));
    b[1] = static_cast<char>(0x80 | (cp & 0x3F));
    n = 2;
  } else if (cp < 0x10000) {
    b[0] = static_cast<char>(0xE0 | (cp >> 12));
    b[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    b[2] = static_cast<char>(0x80 | (cp & 0x3F));
    n = 3;
  } else {
    b[0] = static_cast<char>(0xF0 | (cp >> 18));
    b[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    b[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    b[3] = static_cast<char>(0x80 | (cp & 0x3F));
    n = 4;
  }
  append(b, n);
}

}  // namespace tarnplat

extern "C" {

TARNPLAT_API char* MUC_Text2UTF8(const char* pszText, int nCharset) {
  if (pszText == nullptr) return nullptr;
  char* p = tarnplat::to_utf8(tarnplat::as_bytes(pszText, std::strlen(pszText)), nCharset, nullptr);
  return p != nullptr ? p : const_cast<char*>(pszText);
}

TARNPLAT_API char* MUC_Text2UTF8N(const char* pText, size_t nLen, int nCharset, size_t* pnOutLen) {
  if (pnOutLen != nullptr) *pnOutLen = pText != nullptr ? nLen : 0;
  if (pText == nullptr) return nullptr;
  return tarnplat::to_utf8(tarnplat::as_bytes(pText, nLen), nCharset, pnOutLen);
}

}  // extern "C"
