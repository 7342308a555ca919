// Charset numbering, character lengths, safe file names and the Japanese
// converters of the platform layer.
#include <gtest/gtest.h>

#include <iconv.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

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

std::string safe(const std::string& name, int charset, int size = 512) {
  std::vector<char> dst(static_cast<size_t>(size) + 8, 'Z');
  int n = MLG_SafeFileName(name.c_str(), dst.data(), size, charset);
  std::string out(dst.data());
  EXPECT_EQ(static_cast<int>(out.size()), n) << name;
  return out;
}

std::string gmime(const std::string& file) {
  return tarntest::read_file(tarntest::corpus_dir() + "/charsets/gmime/" + file);
}

// glibc iconv as a black box, to build inputs in charsets the corpus lacks.
std::string iconv_peer(const std::string& text, const char* from, const char* to) {
  iconv_t cd = iconv_open(to, from);
  EXPECT_NE(cd, reinterpret_cast<iconv_t>(-1));
  std::string out(text.size() * 4 + 16, '\0');
  char* src = const_cast<char*>(text.data());
  size_t left = text.size();
  char* dst = out.data();
  size_t room = out.size();
  EXPECT_NE(iconv(cd, &src, &left, &dst, &room), static_cast<size_t>(-1));
  out.resize(out.size() - room);
  iconv_close(cd);
  return out;
}

TEST(MlgTable, FixedValuesHaveTheirNames) {
  const char* mime[15] = {"",           "utf-8",      "big5",       "gb2312",    "iso-2022-jp",
                          "euc-kr",     "iso-8859-1", "iso-8859-2", "iso-8859-3", "iso-8859-4",
                          "shift_jis",  "utf-7",      "euc-jp",     "iso-2022-jp", "gb18030"};
  for (int v = 0; v < 15; ++v) EXPECT_STREQ(mime[v], MLG_CharsetToMEncName(v)) << v;
  const char* web[15] = {"",           "utf-8",      "big5",       "gb2312",     "Shift_JIS",
                         "euc-kr",     "iso-8859-1", "iso-8859-2", "iso-8859-3", "iso-8859-4",
                         "Shift_JIS",  "utf-7",      "euc-jp",     "iso-2022-jp", "gb18030"};
  for (int v = 0; v < 15; ++v) EXPECT_STREQ(web[v], MLG_CharsetToWEncName(v)) << v;
  for (int v : {-1, 15, 31, 100000}) {
    EXPECT_STREQ("", MLG_CharsetToMEncName(v));
    EXPECT_STREQ("", MLG_CharsetToWEncName(v));
    EXPECT_EQ(0, MLG_CharsetValToOpt(v));
  }
}

TEST(MlgTable, AliasesResolve) {
  struct Case {
    const char* name;
    int value;
  };
  const Case cases[] = {
      {"utf-8", 1}, {"UTF-8", 1}, {"utf8", 1}, {"Unicode-1-1-UTF-8", 1}, {" utf-8 ", 1},
      {"utf-8*en", 1}, {"big5", 2}, {"BIG5-HKSCS", 2}, {"cn-big5", 2}, {"x-x-big5", 2},
      {"cp950", 2}, {"gb2312", 3}, {"GBK", 3}, {"cp936", 3}, {"x-gbk", 3}, {"euc-cn", 3},
      {"gb18030", 14}, {"iso-2022-jp", 4}, {"ISO-2022-JP-2", 4}, {"euc-jp", 4},
      {"x-euc-jp", 4}, {"shift_jis", 4}, {"Shift-JIS", 4}, {"sjis", 4}, {"x-sjis", 4},
      {"windows-31j", 4}, {"CP932", 4}, {"ms_kanji", 4}, {"euc-kr", 5},
      {"ks_c_5601-1987", 5}, {"KS-C-5601-1987", 5}, {"cp949", 5}, {"korean", 5},
      {"iso-8859-1", 6}, {"ISO_8859-1", 6}, {"iso_8859-1:1987", 6}, {"latin1", 6}, {"l1", 6},
      {"iso-8859-2", 7}, {"latin2", 7}, {"iso-8859-3", 8}, {"iso-8859-4", 9}, {"l4", 9},
      {"utf-7", 11}, {"UTF7", 11},
      // no prefix matching, no guessing
      {"iso-8859-1x", 0}, {"utf-8x", 0}, {"x-unknown", 0}, {"", 0}, {"   ", 0}, {"utf", 0},
  };
  for (const Case& c : cases) EXPECT_EQ(c.value, MLG_CharsetWEncToValue(c.name)) << c.name;
  EXPECT_EQ(0, MLG_CharsetWEncToValue(nullptr));
}

TEST(MlgTable, ExtendedCharsetsAreTheirOwn) {
  const char* names[] = {
      "us-ascii",     "windows-1250", "windows-1251", "windows-1252", "windows-1253",
      "windows-1254", "windows-1255", "windows-1256", "windows-1257", "windows-1258",
      "koi8-r",       "koi8-u",       "iso-8859-5",   "iso-8859-6",   "iso-8859-7",
      "iso-8859-8",   "iso-8859-9",   "iso-8859-10",  "iso-8859-11",  "iso-8859-13",
      "iso-8859-14",  "iso-8859-15",  "iso-8859-16",  "tis-620",      "windows-874",
      "iso-2022-kr",  "hz-gb-2312",   "ibm850",       "ibm437",       "macintosh",
      "utf-16",       "utf-16le",     "utf-16be"};
  std::set<int> seen;
  for (const char* n : names) {
    int v = MLG_CharsetWEncToValue(n);
    EXPECT_GE(v, MLG_EXTENDED) << n;
    EXPECT_TRUE(seen.insert(v).second) << n << " shares its value";
    EXPECT_STREQ(n, MLG_CharsetToMEncName(v));
    EXPECT_EQ(0, MLG_CharsetValToOpt(v)) << n;
  }
  EXPECT_EQ(MLG_CharsetWEncToValue("windows-1251"), MLG_CharsetWEncToValue("CP1251"));
  EXPECT_EQ(MLG_CharsetWEncToValue("iso-8859-15"), MLG_CharsetWEncToValue("latin9"));
  EXPECT_EQ(MLG_CharsetWEncToValue("us-ascii"), MLG_CharsetWEncToValue("ANSI_X3.4-1968"));
}

// Every value the table knows reads its own MIME name back; the Japanese
// forms all come back as the one Japanese value.
TEST(MlgTable, NamesRoundTrip) {
  int known = 0;
  for (int v = 1; v < 256; ++v) {
    const char* name = MLG_CharsetToMEncName(v);
    if (*name == '\0') continue;
    ++known;
    int back = MLG_CharsetWEncToValue(name);
    if (v == MLG_SJIS || v == MLG_EUCJP || v == MLG_ISO2022JP)
      EXPECT_EQ(MLG_JAPANESE, back) << name;
    else
      EXPECT_EQ(v, back) << name;
    EXPECT_NE('\0', *MLG_CharsetToWEncName(v)) << v;
  }
  EXPECT_GE(known, 14 + 33);
}

TEST(MlgTable, LanguageOptions) {
  const int opt[15] = {0, 2, 1, 4, 3, 5, 0, 0, 0, 0, 3, 0, 5, 0, 4};
  for (int v = 0; v < 15; ++v) EXPECT_EQ(opt[v], MLG_CharsetValToOpt(v)) << v;
}

TEST(MlgCharacterLength, WholeAndBrokenCharacters) {
  struct Case {
    const char* text;
    int charset;
    int len;
  };
  const Case cases[] = {
      {"", 1, 0}, {"a", 1, 1}, {"\xC3\xA9", 1, 2}, {"\xE2\x82\xAC", 1, 3},
      {"\xF0\x9F\x98\x80", 1, 4}, {"\xE2\x82", 1, 1}, {"\xF0\x9F\x98", 1, 1}, {"\xC3", 1, 1},
      {"\xC0\xAF", 1, 1}, {"\xE0\x80\xAF", 1, 1}, {"\xED\xA0\x80", 1, 1},
      {"\xF4\x90\x80\x80", 1, 1}, {"\x80", 1, 1}, {"\xE2\x82\xAC", 0, 1},
      {"\xE9t\xE9", 6, 1},
      {"\x95\x5C", 4, 2}, {"\x95\x5C", 10, 2}, {"\xB1", 4, 1}, {"\x81\x7F", 4, 1},
      {"\x95", 4, 1}, {"\xA4\x40", 2, 2}, {"\xA5\x5C", 2, 2}, {"\xA4\x3F", 2, 1},
      {"\xB0\xA1", 3, 2}, {"\x81\x40", 3, 2}, {"\x81\x30\x81\x30", 14, 4},
      {"\x81\x30\x81\x30", 3, 4}, {"\x81\x30\x81", 14, 1}, {"\x81\x30", 14, 1},
      {"\xB0\xA1", 5, 2}, {"\x81\x41", 5, 2}, {"\x81\x3F", 5, 1},
      {"\xA4\xA2", 12, 2}, {"\x8E\xB1", 12, 2}, {"\x8F\xB0\xA1", 12, 3}, {"\x8F\xB0", 12, 1},
      {"\x1B$B", 13, 1}, {"+ZeV", 11, 1},
  };
  for (const Case& c : cases)
    EXPECT_EQ(c.len, MLG_CharacterLength(c.text, c.charset)) << c.charset << " " << c.text;
  EXPECT_EQ(0, MLG_CharacterLength(nullptr, 1));
}

// Each text sits in a heap block of exactly its size, terminator included:
// a read past the NUL is an AddressSanitizer error.
TEST(MlgCharacterLength, StopsAtTheTerminator) {
  const std::pair<std::string, int> cut[] = {
      {"\xE2", 1},     {"\xE2\x82", 1}, {"\xF0\x9F\x98", 1}, {"\x95", 4},
      {"\xA4", 2},     {"\x81\x30\x81", 14}, {"\x81\x30", 3}, {"\x8F\xB0", 12},
      {"\x8E", 12},    {"\x81", 5}, {"\xC3", 1}};
  for (const auto& [text, charset] : cut) {
    auto buf = std::make_unique<char[]>(text.size() + 1);
    std::memcpy(buf.get(), text.c_str(), text.size() + 1);
    EXPECT_EQ(1, MLG_CharacterLength(buf.get(), charset));
  }
}

TEST(MlgSafeFileName, HostileNames) {
  EXPECT_EQ("_.._etc_passwd", safe("../../etc/passwd", 0));
  EXPECT_EQ("_.._etc_passwd", safe("../../etc/passwd", 1));
  EXPECT_EQ("_.._boot.ini", safe("..\\..\\boot.ini", 0));
  EXPECT_EQ("a_b_c_d.txt", safe("a\tb\x01" "c\x7F" "d.txt", 0));
  EXPECT_EQ("line_break_.txt", safe("line\rbreak\n.txt", 0));
  EXPECT_EQ("con__________x", safe("con:*?\"<>|#%/x", 0));
  EXPECT_EQ("hidden", safe(" .hidden", 0));
  EXPECT_EQ("name", safe("name. . .", 0));
  EXPECT_EQ("a b.txt", safe("a b.txt", 0));
  EXPECT_EQ("_", safe("..", 0));
  EXPECT_EQ("_", safe(". . ", 0));
  EXPECT_EQ("_", safe("", 0));
  char dst[4];
  EXPECT_EQ(1, MLG_SafeFileName(nullptr, dst, sizeof dst, 0));
  EXPECT_STREQ("_", dst);
  EXPECT_EQ(0, MLG_SafeFileName("abc", dst, 1, 0));
  EXPECT_STREQ("", dst);
  EXPECT_EQ(-2, MLG_SafeFileName("abc", nullptr, 4, 0));
  EXPECT_EQ(-1, MLG_SafeFileName("abc", dst, 0, 0));
}

TEST(MlgSafeFileName, MultibyteCharactersStayWhole) {
  // Shift_JIS: 0x955C is one character whose trail byte is a backslash;
  // 0x837C one whose trail byte is "|".
  EXPECT_EQ("\x95\x5C.txt", safe("\x95\x5C.txt", MLG_JAPANESE));
  EXPECT_EQ("\x95\x5C\x83\x7C.txt", safe("\x95\x5C\x83\x7C.txt", MLG_SJIS));
  EXPECT_EQ("\x95_.txt", safe("\x95\x5C.txt", 0));  // no charset: a backslash is a backslash
  EXPECT_EQ("\xB1\xB2.txt", safe("\xB1\xB2.txt", MLG_JAPANESE));  // half-width katakana
  EXPECT_EQ("a_", safe("a\x95", MLG_JAPANESE));  // half a character
  EXPECT_EQ("\xA5\x5C.doc", safe("\xA5\x5C.doc", MLG_BIG5));
  EXPECT_EQ("__a", safe("\xA5\x5C" "a", MLG_UTF8));
  EXPECT_EQ("\xC4\xE3\xBA\xC3.txt", safe("\xC4\xE3\xBA\xC3.txt", MLG_GB2312));
  EXPECT_EQ("caf\xE9.txt", safe("caf\xE9.txt", MLG_ISO8859_1));
  // UTF-8: valid characters kept, invalid bytes and invisible controls replaced.
  EXPECT_EQ("r\xC3\xA9sum\xC3\xA9.pdf", safe("r\xC3\xA9sum\xC3\xA9.pdf", MLG_UTF8));
  EXPECT_EQ("a_b_.txt", safe("a\xFF" "b\xC3.txt", MLG_UTF8));
  EXPECT_EQ("_gpj.exe", safe("\xE2\x80\xAEgpj.exe", MLG_UTF8));
  EXPECT_EQ("_x", safe("\xC2\x85x", MLG_UTF8));
  EXPECT_EQ("\xF0\x9F\x98\x80", safe("\xF0\x9F\x98\x80", MLG_UTF8));
  EXPECT_EQ("___", safe("\xED\xA0\x80", MLG_UTF8));  // a surrogate is three bad bytes
}

TEST(MlgSafeFileName, CutsOnCharacterBoundaries) {
  std::string kanji;
  while (kanji.size() < 2000) kanji += "\xE6\x97\xA5";  // U+65E5
  std::string s = safe(kanji, MLG_UTF8, 512);
  EXPECT_EQ(510u, s.size());  // 170 whole characters; 511 would split one
  EXPECT_EQ(0, s.compare(0, s.size(), kanji, 0, s.size()));
  std::string e = "a";
  while (e.size() < 2000) e += "\xC3\xA9";
  EXPECT_EQ(511u, safe(e, MLG_UTF8, 512).size());
  std::string sjis;
  for (int i = 0; i < 300; ++i) sjis += "\x95\x5C";
  std::string cut = safe("x" + sjis, MLG_JAPANESE, 512);
  EXPECT_EQ(511u, cut.size());  // "x" and 255 whole pairs
  EXPECT_EQ(0, cut.compare(1, std::string::npos, sjis, 0, 510));
  // A character that does not fit after the cut never appears in halves,
  // and a name cut to nothing becomes "_".
  EXPECT_EQ("_", safe("\xE6\x97\xA5", MLG_UTF8, 3));
  EXPECT_EQ("ab", safe("ab.\xE6\x97\xA5", MLG_UTF8, 6));
  // The name may be its own destination.
  char buf[32] = "../x:y";
  EXPECT_EQ(4, MLG_SafeFileName(buf, buf, sizeof buf, 0));
  EXPECT_STREQ("_x_y", buf);
}

// Whatever the bytes, the result is a usable name: not empty, no separator
// or control byte, no leading dot or blank, no trailing dot or blank, and a
// backslash only inside a multibyte character.
TEST(MlgSafeFileName, RandomNamesComeOutSafe) {
  std::mt19937 rng(20240601);
  const int charsets[] = {0, MLG_UTF8, MLG_BIG5, MLG_GB2312, MLG_JAPANESE, MLG_EUCKR,
                          MLG_ISO8859_1, MLG_EUCJP, MLG_GB18030, MLG_UTF7};
  const char pool[] = "./\\ :aZ\x01\x1F\x7F\x81\x95\x5C\xA4\xC3\xA9\xE6\x97\xF0\x9F\x30\xFF";
  for (int round = 0; round < 4000; ++round) {
    std::string name;
    size_t len = rng() % 40;
    for (size_t i = 0; i < len; ++i) name += pool[rng() % (sizeof pool - 1)];
    int cs = charsets[round % std::size(charsets)];
    int size = 2 + static_cast<int>(rng() % 30);
    std::string out = safe(name, cs, size);
    ASSERT_FALSE(out.empty());
    ASSERT_LE(out.size(), static_cast<size_t>(size - 1));
    ASSERT_NE('.', out.front());
    ASSERT_NE(' ', out.front());
    ASSERT_NE('.', out.back());
    ASSERT_NE(' ', out.back());
    for (size_t i = 0; i < out.size();) {
      int n = MLG_CharacterLength(out.c_str() + i, cs);
      ASSERT_GE(n, 1);
      unsigned char b = static_cast<unsigned char>(out[i]);
      if (n == 1) {
        ASSERT_FALSE(b < 0x20 || b == 0x7F || b == '/' || b == '\\' || b == ':') << round;
        if (cs == MLG_UTF8) {
          ASSERT_LT(b, 0x80) << round;
        }
      }
      i += static_cast<size_t>(n);
    }
  }
}

TEST(MlgJapanese, JisToShiftJis) {
  ASSERT_EQ(0, MLG_JPInit());
  ASSERT_EQ(0, MLG_JPInit());
  const std::string jis = gmime("japanese.iso-2022-jp.txt");
  EXPECT_EQ(gmime("japanese.shift-jis.txt"), take(MLG_JPJis2Sjis2(jis.c_str())));
  EXPECT_EQ(nullptr, MLG_JPJis2Sjis2("plain ASCII, nothing to do"));
  EXPECT_EQ(nullptr, MLG_JPJis2Sjis2(nullptr));
  struct Case {
    const char* jis;
    const char* sjis;
  };
  const Case cases[] = {
      {"a\x1B$B$\"\x1B(Bz", "a\x82\xA0z"},                 // hiragana A
      {"\x1B$B-!-5\x1B(B", "\x87\x40\x87\x54"},            // NEC row 13: circled 1, roman I
      {"\x1B$By!\x1B(B", "\xED\x40"},                      // NEC-selected IBM row 89
      {"\x1B$@$\"\x1B(J~", "\x82\xA0~"},                   // old JIS, JIS-Roman
      {"\x1B(I1\x1B(B1", "\xB1" "1"},                      // JIS X 0201 katakana
      {"\x0E" "1\x0F" "1", "\xB1" "1"},                    // the same by SO/SI
      {"\x1B$(D0!\x1B(B", "\x81\xAC"},                     // JIS X 0212 outside CP932: geta
      {"\x1B$Ay!\x1B(B", "\x81\xAC"},                      // GB2312 has no Shift_JIS form
      {"\x1B$B$\"\r\n$$\x1B(B", "\x82\xA0\r\n\x82\xA2"},   // a line end inside kanji mode
      {"\x1B$B$", "$"},                                    // half a pair at the end
      {"abc\x1B", "abc"},                                  // a lone ESC at the end
      {"\x1B(Zx", "x"},                                    // an unknown set changes nothing
      {"\x1B", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(c.sjis, take(MLG_JPJis2Sjis2(c.jis))) << c.jis;
}

TEST(MlgJapanese, EucToShiftJis) {
  ASSERT_EQ(0, MLG_JPInit());
  std::string euc = iconv_peer(gmime("japanese.utf-8.txt"), "UTF-8", "EUC-JP");
  EXPECT_EQ(gmime("japanese.shift-jis.txt"), take(MLG_JPEuc2Sjis2(euc.c_str())));
  EXPECT_EQ(nullptr, MLG_JPEuc2Sjis2("ASCII only\r\n"));
  EXPECT_EQ(nullptr, MLG_JPEuc2Sjis2(nullptr));
  struct Case {
    const char* euc;
    const char* sjis;
  };
  const Case cases[] = {
      {"\xB4\xC1\xBB\xFA\xA5\xC6", "\x8A\xBF\x8E\x9A\x83\x65"},
      {"\xAD\xA1", "\x87\x40"},     // row 13
      {"\x8E\xB1x", "\xB1x"},       // half-width katakana
      {"\x8F\xF3\xF3", "\xFA\x40"}, // JIS X 0212 (IBM extension) that CP932 has
      {"\x8F\xB0\xA1", "\x81\xAC"}, // one that it lacks
      {"a\xA4", "a?"},              // cut at the end
      {"\xFF\x80z", "??z"},
      {"\x8F\xB0", "??"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.sjis, take(MLG_JPEuc2Sjis2(c.euc))) << c.euc;
}

}  // namespace
