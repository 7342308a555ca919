// Conversions to UTF-8 (and UTF-7) of the platform layer.
#include <gtest/gtest.h>

#include <iconv.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include "support.h"
#include "tarnplat.h"

namespace {

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};
using HeapStr = std::unique_ptr<char, FreeDeleter>;

std::string take(char* p) {
  HeapStr h(p);
  return h ? std::string(h.get()) : std::string("<null>");
}

std::string gmime(const std::string& file) {
  return tarntest::read_file(tarntest::corpus_dir() + "/charsets/gmime/" + file);
}

int cs(const char* name) {
  int v = MLG_CharsetWEncToValue(name);
  EXPECT_NE(0, v) << name;
  return v;
}

// Text2UTF8 that must convert: a new string, returned as bytes.
std::string to_utf8(const std::string& text, int charset) {
  char* p = MUC_Text2UTF8(text.c_str(), charset);
  EXPECT_NE(p, text.c_str()) << "not converted: " << text;
  if (p == text.c_str()) return text;
  return take(p);
}

// Length-bounded form; NULs inside the text are kept.
std::string to_utf8_n(const std::string& text, int charset) {
  size_t n = 12345;
  HeapStr p(MUC_Text2UTF8N(text.data(), text.size(), charset, &n));
  EXPECT_TRUE(p != nullptr) << "not converted";
  if (!p) return text;
  EXPECT_EQ('\0', p.get()[n]);
  return std::string(p.get(), n);
}

bool valid_utf8(const std::string& s) {
  for (size_t i = 0; i < s.size();) {
    int n = MLG_CharacterLength(s.c_str() + i, MLG_UTF8);
    if (n == 1 && static_cast<unsigned char>(s[i]) >= 0x80) return false;
    i += static_cast<size_t>(n > 0 ? n : 1);
  }
  return true;
}

// glibc's own UTF-7 reader, used as a black box to check the encoder.
std::string iconv_from_utf7(const std::string& text) {
  iconv_t cd = iconv_open("UTF-8", "UTF-7");
  EXPECT_NE(cd, reinterpret_cast<iconv_t>(-1));
  std::string out(text.size() * 4 + 16, '\0');
  char* src = const_cast<char*>(text.data());
  size_t left = text.size();
  char* dst = out.data();
  size_t room = out.size();
  EXPECT_NE(iconv(cd, &src, &left, &dst, &room), static_cast<size_t>(-1)) << text;
  out.resize(out.size() - room);
  iconv_close(cd);
  return out;
}

TEST(MucCorpus, LegacyTextsConvertExactly) {
  const std::string cyrillic = gmime("cyrillic.utf-8.txt");
  EXPECT_EQ(cyrillic, to_utf8(gmime("cyrillic.cp1251.txt"), cs("windows-1251")));
  EXPECT_EQ(cyrillic, to_utf8(gmime("cyrillic.koi8-r.txt"), cs("koi8-r")));
  EXPECT_EQ(cyrillic, to_utf8(gmime("cyrillic.iso-8859-5.txt"), cs("iso-8859-5")));
  const std::string japanese = gmime("japanese.utf-8.txt");
  const std::string sjis = gmime("japanese.shift-jis.txt");
  const std::string jis = gmime("japanese.iso-2022-jp.txt");
  EXPECT_EQ(japanese, to_utf8(sjis, MLG_JAPANESE));
  EXPECT_EQ(japanese, to_utf8(sjis, MLG_SJIS));
  EXPECT_EQ(japanese, to_utf8(jis, MLG_JAPANESE));
  EXPECT_EQ(japanese, to_utf8(jis, MLG_ISO2022JP));
  EXPECT_EQ(japanese, to_utf8_n(jis, MLG_JAPANESE));
}

// The Big5 sample is the UTF-8 text with every character Big5 lacks left
// out: its conversion is exactly that subsequence of the UTF-8 text.
TEST(MucCorpus, Big5IsTheRepresentableSubsequence) {
  const std::string full = gmime("chinese.utf-8.txt");
  const std::string got = to_utf8(gmime("chinese.big5.txt"), MLG_BIG5);
  ASSERT_TRUE(valid_utf8(got));
  size_t chars = 0, skipped = 0, at = 0;
  for (size_t i = 0; i < got.size(); ++chars) {
    size_t n = static_cast<size_t>(MLG_CharacterLength(got.c_str() + i, MLG_UTF8));
    std::string ch = got.substr(i, n);
    size_t found = full.find(ch, at);
    ASSERT_NE(std::string::npos, found) << "character " << chars << " out of order";
    for (size_t k = at; k < found;) {  // count what was left out
      k += static_cast<size_t>(MLG_CharacterLength(full.c_str() + k, MLG_UTF8));
      ++skipped;
    }
    at = found + n;
    i += n;
  }
  EXPECT_EQ(665u, chars);
  EXPECT_EQ(129u, skipped);
  EXPECT_EQ(full.size(), at);
}

TEST(MucCorpus, Latin1LabelsReadAsWindows1252) {
  const std::string fable = gmime("french-fable.cp1252.txt");
  for (int v : {cs("windows-1252"), MLG_ISO8859_1}) {
    std::string got = to_utf8(fable, v);
    EXPECT_EQ(0u, got.find("Ma\xC3\xAEtre Corbeau"));
    EXPECT_NE(std::string::npos, got.find("l\xE2\x80\x99odeur"));  // 0x92: right single quote
    EXPECT_NE(std::string::npos, got.find("\xC2\xAB H\xC3\xA9 !"));
    EXPECT_TRUE(valid_utf8(got));
  }
  // A byte windows-1252 leaves undefined keeps its ISO-8859-1 meaning.
  EXPECT_EQ("\xC2\x81x", to_utf8("\x81x", MLG_ISO8859_1));
}

TEST(MucText2UTF8, NoConversionReturnsTheInput) {
  const char* utf8 = "caf\xC3\xA9 \xFF";
  EXPECT_EQ(utf8, MUC_Text2UTF8(utf8, MLG_UTF8));
  const char* ascii = "plain text + ~{ \x1B";
  for (int v : {MLG_ISO8859_1, MLG_BIG5, MLG_GB2312, MLG_EUCKR, MLG_SJIS, cs("koi8-r")})
    EXPECT_EQ(ascii, MUC_Text2UTF8(ascii, v)) << v;
  const char* latin = "caf\xE9";
  EXPECT_EQ(latin, MUC_Text2UTF8(latin, 0));
  EXPECT_EQ(latin, MUC_Text2UTF8(latin, 999));
  EXPECT_EQ(latin, MUC_Text2UTF8(latin, cs("us-ascii")));
  EXPECT_EQ(nullptr, MUC_Text2UTF8(nullptr, MLG_ISO8859_1));
  // 7-bit forms convert only what their own escapes mark.
  const char* words = "no escapes here";
  for (int v : {MLG_JAPANESE, MLG_ISO2022JP, MLG_UTF7, cs("hz-gb-2312"), cs("iso-2022-kr")})
    EXPECT_EQ(words, MUC_Text2UTF8(words, v)) << v;

  size_t n = 0;
  EXPECT_EQ(nullptr, MUC_Text2UTF8N("abc", 3, MLG_ISO8859_1, &n));
  EXPECT_EQ(3u, n);
  EXPECT_EQ(nullptr, MUC_Text2UTF8N("\xC3\xA9", 2, MLG_UTF8, &n));
  EXPECT_EQ(nullptr, MUC_Text2UTF8N(nullptr, 5, MLG_ISO8859_1, &n));
  EXPECT_EQ(0u, n);
}

TEST(MucText2UTF8, CharsetsOfTheTable) {
  struct Case {
    const char* charset;
    std::string in;
    std::string out;
  };
  const Case cases[] = {
      {"gb2312", "\xC4\xE3\xBA\xC3", "\xE4\xBD\xA0\xE5\xA5\xBD"},
      {"gbk", "\x81\x40", "\xE4\xB8\x82"},
      {"gb18030", "\x81\x30\x81\x30", "\xC2\x80"},
      {"euc-kr", "\xC7\xD1", "\xED\x95\x9C"},
      {"ks_c_5601-1987", "\x81\x41", "\xEA\xB0\x82"},  // CP949 extension
      {"big5", "\xA4\x40\xA3\xE1", "\xE4\xB8\x80\xE2\x82\xAC"},  // CP950 euro
      {"big5-hkscs", "\x88\x40", "\xE3\x87\x80"},  // only Big5-HKSCS has it
      {"euc-jp", "\xA4\xA2\xA4\xA4\xA4\xA6", "\xE3\x81\x82\xE3\x81\x84\xE3\x81\x86"},
      {"shift_jis", "\x82\xA0\x82\xA2\x82\xA4", "\xE3\x81\x82\xE3\x81\x84\xE3\x81\x86"},
      {"shift_jis", "\xC3\xBD\xC4", "\xEF\xBE\x83\xEF\xBD\xBD\xEF\xBE\x84"},  // half-width kana
      {"iso-2022-jp", "\x1B$B-!\x1B(B", "\xE2\x91\xA0"},
      {"hz-gb-2312", "~{<:Ky2;S{#,NpJ)l6HK!#~} ~~",
       "\xE5\xB7\xB1\xE6\x89\x80\xE4\xB8\x8D\xE6\xAC\xB2\xEF\xBC\x8C\xE5\x8B\xBF\xE6\x96\xBD"
       "\xE6\x96\xBC\xE4\xBA\xBA\xE3\x80\x82 ~"},
      {"iso-8859-2", "\xB1", "\xC4\x85"},
      {"iso-8859-15", "\xA4", "\xE2\x82\xAC"},
      {"iso-8859-9", "\xFD\x80", "\xC4\xB1\xE2\x82\xAC"},
      {"koi8-u", "\xA4", "\xD1\x94"},
      {"windows-1250", "\x8A", "\xC5\xA0"},
      {"tis-620", "\xA1", "\xE0\xB8\x81"},
      {"ibm850", "\x82", "\xC3\xA9"},
      {"macintosh", "\x8E", "\xC3\xA9"},
      {"utf-7", "Hi Mom -+Jjo--!", "Hi Mom -\xE2\x98\xBA-!"},
      {"iso-2022-kr", "\x1B$)C\x0E" "GQ\x0F", "\xED\x95\x9C"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.out, to_utf8(c.in, cs(c.charset))) << c.charset;
}

// Every charset of the table converts a text with high bytes to valid
// UTF-8 (or, for UTF-8 and US-ASCII, leaves it alone): each iconv name in
// the table is one glibc knows.
TEST(MucText2UTF8, EveryValueConverts) {
  const char* text = "abc\xE9\xA1\xB0\xC4 def \x1B$B$\"\x1B(B +ZeV-";
  for (int v = 1; v < 256; ++v) {
    if (*MLG_CharsetToMEncName(v) == '\0') continue;
    char* p = MUC_Text2UTF8(text, v);
    if (v == MLG_UTF8 || v == cs("us-ascii")) {
      EXPECT_EQ(text, p);
      continue;
    }
    ASSERT_NE(text, p) << MLG_CharsetToMEncName(v);
    EXPECT_TRUE(valid_utf8(take(p))) << MLG_CharsetToMEncName(v);
  }
}

// Random bytes in every charset: valid UTF-8 out, every time, and the
// bounded form reads exactly the bytes it is given (each text sits in a
// heap block of its own size).
TEST(MucText2UTF8, RandomBytesInEveryCharset) {
  std::mt19937 rng(1843);
  const char pool[] =
      "\x1B\x0E\x0F~{}+-$()BJ@AZaz09\r\n \x80\x81\x8E\x8F\xA1\xA4\xC3\xDF\xE0\xFE\xFF";
  for (int v = 1; v < 256; ++v) {
    if (*MLG_CharsetToMEncName(v) == '\0') continue;
    for (int round = 0; round < 150; ++round) {
      size_t len = 1 + rng() % 40;
      auto block = std::make_unique<char[]>(len);
      for (size_t i = 0; i < len; ++i) block[i] = pool[rng() % (sizeof pool - 1)];
      size_t n = 0;
      HeapStr p(MUC_Text2UTF8N(block.get(), len, v, &n));
      if (!p) continue;
      std::string out(p.get(), n);
      ASSERT_TRUE(valid_utf8(out)) << MLG_CharsetToMEncName(v);
    }
  }
}

TEST(MucText2UTF8, InvalidBytesBecomeReplacementsAndConversionGoesOn) {
  EXPECT_EQ("\xE4\xB8\x80\xEF\xBF\xBD\xE4\xB8\x80", to_utf8("\xA4\x40\xFF\xA4\x40", MLG_BIG5));
  EXPECT_EQ("a\xEF\xBF\xBD", to_utf8("a\xA4", MLG_BIG5));  // cut at the end
  EXPECT_EQ("\xEF\xBF\xBD" "A", to_utf8("\xFF" "A", MLG_BIG5));  // the ASCII byte survives
  EXPECT_EQ("\xE3\x81\x82\xEF\xBF\xBD" "a", to_utf8("\x82\xA0\xA0" "a", MLG_SJIS));
  EXPECT_EQ("\xEF\xBF\xBD\xEF\xBF\xBD", to_utf8("\x8F\xA1", MLG_EUCJP));
  // Bytes after a NUL are converted by the bounded form.
  EXPECT_EQ(std::string("a\0\xC3\xA9", 4), to_utf8_n(std::string("a\0\xE9", 3), MLG_ISO8859_1));
  // UTF-16: an unpaired surrogate is one unit, not one byte.
  EXPECT_EQ("A\xEF\xBF\xBD" "B\xF0\x9F\x98\x80",
            to_utf8_n(std::string("A\0\x00\xDC" "B\0\x3D\xD8\x00\xDE", 10), cs("utf-16le")));
}

// Descriptors are kept between calls; a state left by one text must not
// leak into the next.
TEST(MucText2UTF8, NoStateCarriesOver) {
  int utf16 = cs("utf-16");
  EXPECT_EQ("A", to_utf8_n(std::string("\xFF\xFE" "A\0", 4), utf16));  // little-endian mark
  EXPECT_EQ("A", to_utf8_n(std::string("\0A", 2), utf16));            // none: big-endian
  EXPECT_EQ("A", to_utf8_n(std::string("\xFE\xFF\0A", 4), utf16));    // big-endian mark
  EXPECT_EQ("A", to_utf8_n(std::string("\xFF\xFE\0\0A\0\0\0", 8), cs("utf-32")));
  int kr = cs("iso-2022-kr");
  EXPECT_EQ("\xED\x95\x9C", to_utf8("\x1B$)C\x0E" "GQ", kr));  // shifted out at the end
  EXPECT_EQ("GQ\xED\x95\x9C", to_utf8("GQ\x1B$)C\x0E" "GQ\x0F", kr));
}

// Japanese text is told apart by its bytes.
TEST(MucText2UTF8, JapaneseFormsAreDetected) {
  const std::string japanese = gmime("japanese.utf-8.txt");
  const std::string euc = [&] {
    iconv_t cd = iconv_open("EUC-JP", "UTF-8");
    std::string out(japanese.size() * 2, '\0');
    char* src = const_cast<char*>(japanese.data());
    size_t left = japanese.size();
    char* dst = out.data();
    size_t room = out.size();
    iconv(cd, &src, &left, &dst, &room);
    iconv_close(cd);
    out.resize(out.size() - room);
    return out;
  }();
  EXPECT_EQ(japanese, to_utf8(euc, MLG_JAPANESE));
  EXPECT_EQ(japanese, to_utf8(euc, MLG_EUCJP));
  const std::string aiu = "\xE3\x81\x82\xE3\x81\x84\xE3\x81\x86";
  EXPECT_EQ(aiu, to_utf8("\xA4\xA2\xA4\xA4\xA4\xA6", MLG_JAPANESE));  // EUC-JP
  EXPECT_EQ(aiu, to_utf8("\x82\xA0\x82\xA2\x82\xA4", MLG_JAPANESE));  // Shift_JIS
  EXPECT_EQ("\xEF\xBE\x83\xEF\xBD\xBD\xEF\xBE\x84", to_utf8("\xC3\xBD\xC4", MLG_JAPANESE));
  EXPECT_EQ("\xE2\x91\xA0", to_utf8("\xAD\xA1", MLG_JAPANESE));  // reads both ways: EUC-JP
}

TEST(MucUtf7, Decoding) {
  struct Case {
    const char* in;
    const char* out;
  };
  const Case cases[] = {
      {"Hi Mom -+Jjo--!", "Hi Mom -\xE2\x98\xBA-!"},
      {"+ZeVnLIqe-", "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E"},
      {"A+ImIDkQ.", "A\xE2\x89\xA2\xCE\x91."},       // run ended by a non-base64 byte
      {"+ZeVnLIqe", "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E"},  // run ended by the text
      {"1 +- 2", "1 + 2"},
      {"1 + 2", "1 + 2"},                            // a lone "+" stands
      {"a+b", "a+b"},                                // too short to be a run
      {"+", "+"},
      {"+2D3eAA-", "\xF0\x9F\x98\x80"},              // surrogate pair
      {"+2D0-x", "\xEF\xBF\xBDx"},                   // high surrogate alone
      {"+3gA-", "\xEF\xBF\xBD"},                     // low surrogate alone
      {"+2D3YPQ-", "\xEF\xBF\xBD\xEF\xBF\xBD"},      // two highs
      {"+AGF-", "a\xEF\xBF\xBD"},                    // left-over bits that are not zero
      {"+AAA-", "\xEF\xBF\xBD"},                     // U+0000 never ends the text early
      {"caf\xE9", "caf\xEF\xBF\xBD"},                // not 7-bit
      {"", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(c.out, take(MUC_UTF72UTF8(c.in, 1))) << c.in;
  EXPECT_EQ(nullptr, MUC_UTF72UTF8(nullptr, 1));
}

TEST(MucUtf7, EncodingRoundTrips) {
  EXPECT_EQ("1+-1", take(MUC_UTF82UTF7("1+1")));
  EXPECT_EQ("+ZeVnLIqe-", take(MUC_UTF82UTF7("\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E")));
  EXPECT_EQ("<b> & \"q\"", take(MUC_UTF82UTF7("<b> & \"q\"")));  // kept visible
  EXPECT_EQ("+//0-", take(MUC_UTF82UTF7("\xFF")));  // a bad byte is U+FFFD
  EXPECT_EQ("", take(MUC_UTF82UTF7("")));
  EXPECT_EQ(nullptr, MUC_UTF82UTF7(nullptr));
  const char* texts[] = {
      "plain", "a+b-c", "~\\~", "tab\there\r\n", "\xF0\x9F\x98\x80-", "x\xE2\x98\xBA-y",
      "\xC3\xA9\xC3\xA9\xC3\xA9", "\x01\x02\x7F", "mixed \xE6\x97\xA5 and \xF0\x9F\x98\x80.",
  };
  for (const char* t : texts) {
    std::string utf7 = take(MUC_UTF82UTF7(t));
    for (unsigned char c : utf7) ASSERT_LT(c, 0x80) << t;
    EXPECT_EQ(t, take(MUC_UTF72UTF8(utf7.c_str(), 1))) << utf7;
    EXPECT_EQ(t, iconv_from_utf7(utf7)) << utf7;
  }
}

TEST(MucUtf7, RandomInputNeverBreaks) {
  std::mt19937 rng(7);
  const char pool[] = "+-/AZaz09 ~\\\x80\xFF";
  for (int round = 0; round < 3000; ++round) {
    std::string s;
    size_t len = rng() % 30;
    for (size_t i = 0; i < len; ++i) s += pool[rng() % (sizeof pool - 1)];
    std::string out = take(MUC_UTF72UTF8(s.c_str(), 1));
    ASSERT_TRUE(valid_utf8(out)) << s;
    ASSERT_EQ(std::string::npos, out.find('\0'));
    std::string back = take(MUC_UTF72UTF8(take(MUC_UTF82UTF7(out.c_str())).c_str(), 1));
    ASSERT_EQ(out, back) << s;
  }
}

TEST(MucUtf16, SurrogatesAndEnds) {
  auto conv = [](const std::string& b) { return take(MUC_UTF16LE2UTF8(b.data(), b.size())); };
  EXPECT_EQ("AB", conv(std::string("A\0B\0", 4)));
  EXPECT_EQ("A", conv(std::string("A\0\0\0B\0", 6)));  // a NUL unit ends the text
  EXPECT_EQ("A", conv(std::string("A\0B", 3)));          // half a unit is dropped
  EXPECT_EQ("\xC3\xA9\xE6\x97\xA5", conv(std::string("\xE9\0\xE5\x65", 4)));
  EXPECT_EQ("\xF0\x9F\x98\x80", conv(std::string("\x3D\xD8\x00\xDE", 4)));
  EXPECT_EQ("\xEF\xBF\xBD", conv(std::string("\x3D\xD8", 2)));           // high at the end
  EXPECT_EQ("\xEF\xBF\xBD" "A", conv(std::string("\x3D\xD8" "A\0", 4)));  // high, then no low
  EXPECT_EQ("\xEF\xBF\xBD" "A", conv(std::string("\x00\xDE" "A\0", 4)));  // low alone
  EXPECT_EQ("\xEF\xBF\xBD", conv(std::string("\x3D\xD8\0\0\x00\xDE", 6)));  // NUL inside a pair
  EXPECT_EQ("", conv(std::string()));
  EXPECT_EQ(nullptr, MUC_UTF16LE2UTF8(nullptr, 4));
  // nLen bounds the read: the bytes after it are never looked at.
  auto block = std::make_unique<char[]>(3);
  std::memcpy(block.get(), "Z\0Y", 3);
  EXPECT_EQ("Z", take(MUC_UTF16LE2UTF8(block.get(), 3)));
}

}  // namespace
