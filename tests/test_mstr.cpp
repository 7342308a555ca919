// Bounded string calls: compares, searches, cut copies, token extraction.

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>

#include "tarnplat.h"

namespace {

// A heap copy of exactly s.size() + 1 bytes, so that the sanitizer reports
// any read past the terminator.
struct Exact {
  explicit Exact(const std::string& s) : buf(new char[s.size() + 1]) {
    std::memcpy(buf.get(), s.c_str(), s.size() + 1);
  }
  char* get() const { return buf.get(); }
  std::unique_ptr<char[]> buf;
};

int sign(int v) { return (v > 0) - (v < 0); }

TEST(MstrCompare, SignsCaseFoldingAndNull) {
  EXPECT_EQ(0, MSTR_Cmp("abc", "abc"));
  EXPECT_EQ(1, sign(MSTR_Cmp("\x80", "a")));  // bytes compare unsigned
  EXPECT_EQ(-1, sign(MSTR_Cmp(nullptr, "a")));
  EXPECT_EQ(0, MSTR_Cmp(nullptr, ""));
  EXPECT_EQ(0, MSTR_NCmp("abcX", "abcY", 3));
  EXPECT_EQ(-1, sign(MSTR_NCmp("abcX", "abcY", 4)));

  EXPECT_EQ(0, MSTR_CaseCmp("Content-Type", "cONTENT-tYPE"));
  EXPECT_EQ(-1, sign(MSTR_CaseCmp("a", "B")));
  EXPECT_EQ(1, sign(MSTR_CaseCmp("B", "a")));
  EXPECT_EQ(1, sign(MSTR_CaseCmp("abc", "AB")));
  EXPECT_EQ(-1, sign(MSTR_CaseCmp("[", "a")));  // '[' sorts after 'Z' but before 'a'
  EXPECT_NE(0, MSTR_CaseCmp("\xC4", "\xE4"));  // only ASCII letters fold
  EXPECT_EQ(0, MSTR_CaseCmp(nullptr, nullptr));
  EXPECT_EQ(1, sign(MSTR_CaseCmp("x", nullptr)));

  EXPECT_EQ(0, MSTR_NCaseCmp("BOUNDARY=x", "boundary;", 8));
  EXPECT_NE(0, MSTR_NCaseCmp("BOUNDARY=x", "boundary;", 9));
  EXPECT_EQ(0, MSTR_NCaseCmp("ab", "AB", 50));  // stops at the terminators
  EXPECT_EQ(0, MSTR_NCaseCmp("a", "b", 0));
}

TEST(MstrSearch, CharacterAndStringSearch) {
  const char* s = "a/b/c";
  EXPECT_EQ(s + 1, MSTR_LocChr(s, '/'));
  EXPECT_EQ(s + 5, MSTR_LocChr(s, 0));  // the terminator itself
  EXPECT_EQ(nullptr, MSTR_LocChr(s, 'x'));
  EXPECT_EQ(nullptr, MSTR_LocChr(nullptr, 'a'));
  EXPECT_EQ(s + 3, MSTR_RLocChr(s, '/', 0));
  EXPECT_EQ(nullptr, MSTR_RLocChr(nullptr, '/', 0));
  EXPECT_EQ(s + 2, MSTR_LocStr(s, "b/"));
  EXPECT_EQ(s, MSTR_LocStr(s, ""));
  EXPECT_EQ(nullptr, MSTR_LocStr(s, "B/"));
  EXPECT_EQ(nullptr, MSTR_LocStr(nullptr, "a"));
  EXPECT_EQ(nullptr, MSTR_LocStr(s, nullptr));
}

TEST(MstrSearch, LocStrCaseFindsEitherCase) {
  const char* ct = "Multipart/Mixed; xBOUNDAR; BOUNDARY=\"x\"";
  EXPECT_EQ(ct + 27, MSTR_LocStrCase(ct, "boundary", 0));
  EXPECT_EQ(ct + 18, MSTR_LocStrCase(ct, "bOuNdAr", 0));
  const char* html = "<html><HEAD><title>x</title></HeAd>";
  EXPECT_EQ(html + 28, MSTR_LocStrCase(html, "</head>", 0));
  EXPECT_EQ(html, MSTR_LocStrCase(html, "", 0));
  EXPECT_EQ(nullptr, MSTR_LocStrCase(html, "</body>", 0));
  EXPECT_EQ(nullptr, MSTR_LocStrCase(nullptr, "a", 0));
  EXPECT_EQ(nullptr, MSTR_LocStrCase(html, nullptr, 0));
  // High bytes are compared as they are.
  EXPECT_EQ(nullptr, MSTR_LocStrCase("\xE4xyz", "\xC4X", 0));
  const char* hi = "ab\xC4Xyz";
  EXPECT_EQ(hi + 2, MSTR_LocStrCase(hi, "\xC4x", 0));

  // A partial match at the very end must not read beyond the text.
  Exact tail("abcBOUNDAR");
  EXPECT_EQ(nullptr, MSTR_LocStrCase(tail.get(), "boundary", 0));
  Exact tail2("zzzzb");
  EXPECT_EQ(tail2.get() + 4, MSTR_LocStrCase(tail2.get(), "B", 0));
}

// Plain reference: every start position tried in turn.
const char* naive_case(const char* s, const char* pat) {
  size_t n = std::strlen(pat);
  for (const char* p = s;; ++p) {
    size_t i = 0;
    while (i < n && p[i] != '\0' && std::tolower(static_cast<unsigned char>(p[i])) ==
                                        std::tolower(static_cast<unsigned char>(pat[i])))
      ++i;
    if (i == n) return p;
    if (*p == '\0') return nullptr;
  }
}

TEST(MstrSearch, LocStrCaseAgreesWithPlainSearch) {
  // Texts long enough to cross many scan windows, drawn from a small
  // alphabet so that near misses are frequent.
  std::mt19937 rng(7);
  const char alphabet[] = "bBoOuU\xC4-";
  for (int iter = 0; iter < 300; ++iter) {
    size_t len = rng() % (iter < 200 ? 300 : 200000);
    std::string text;
    for (size_t i = 0; i < len; ++i) text += alphabet[rng() % (sizeof alphabet - 1)];
    std::string pat;
    size_t plen = 1 + rng() % 6;
    for (size_t i = 0; i < plen; ++i) pat += alphabet[rng() % (sizeof alphabet - 1)];
    Exact t(text);
    ASSERT_EQ(naive_case(t.get(), pat.c_str()), MSTR_LocStrCase(t.get(), pat.c_str(), 0))
        << "iteration " << iter << " pattern " << pat;
  }
  // A match far behind a long run of first-byte decoys of either case.
  std::string text(150000, 'x');
  for (size_t i = 0; i < text.size(); i += 3) text[i] = (i & 1) ? 'B' : 'b';
  text += "BoUnDaRy";
  Exact t(text);
  EXPECT_EQ(t.get() + 150000, MSTR_LocStrCase(t.get(), "boundary", 0));
}

TEST(MstrCopy, CutsAtSizeMinusOne) {
  char buf[16];
  EXPECT_EQ(5, MSTR_Copy(buf, 6, "hello world", 0));
  EXPECT_STREQ("hello", buf);
  EXPECT_EQ(5, MSTR_Copy(buf, 6, "hello", 0));  // fits exactly
  EXPECT_STREQ("hello", buf);
  EXPECT_EQ(0, MSTR_Copy(buf, 1, "hello", 0));
  EXPECT_STREQ("", buf);
  EXPECT_EQ(0, MSTR_Copy(buf, sizeof buf, nullptr, 0));
  EXPECT_STREQ("", buf);
  EXPECT_EQ(0, MSTR_Copy(nullptr, 10, "x", 0));
  std::strcpy(buf, "keep");
  EXPECT_EQ(0, MSTR_Copy(buf, 0, "x", 0));
  EXPECT_STREQ("keep", buf);
  // Moving a string down inside its own buffer.
  std::strcpy(buf, "  trimmed");
  EXPECT_EQ(7, MSTR_Copy(buf, sizeof buf, buf + 2, 0));
  EXPECT_STREQ("trimmed", buf);
}

struct CutCase {
  const char* src;
  size_t size;
  int charset;
  const char* want;
};

TEST(MstrCopy, MultibyteCutsKeepCharactersWhole) {
  const CutCase cases[] = {
      // UTF-8: a, e-acute; then two three-byte characters.
      {"a\xC3\xA9", 3, MLG_UTF8, "a"},
      {"a\xC3\xA9", 4, MLG_UTF8, "a\xC3\xA9"},
      {"a\xC3\xA9", 3, 0, "a\xC3"},
      {"\xE6\x97\xA5\xE6\x9C\xAC", 6, MLG_UTF8, "\xE6\x97\xA5"},
      {"\xE6\x97\xA5\xE6\x9C\xAC", 4, MLG_UTF8, "\xE6\x97\xA5"},
      {"\xE6\x97\xA5\xE6\x9C\xAC", 6, 0, "\xE6\x97\xA5\xE6\x9C"},
      {"\xF0\x9F\x98\x80!", 4, MLG_UTF8, ""},
      // A lead byte without its trail bytes counts as one byte.
      {"a\xE9" "bc", 4, MLG_UTF8, "a\xE9" "b"},
      // Big5, including a trail byte of 0x5C.
      {"\xA4\xA4\xA4\xE5", 4, MLG_BIG5, "\xA4\xA4"},
      {"a\xA4\xA4", 3, MLG_BIG5, "a"},
      {"\xA5\x5C\xA5\x5C", 4, MLG_BIG5, "\xA5\x5C"},
      {"\xA5\x5C\xA5\x5C", 4, MLG_ISO8859_1, "\xA5\x5C\xA5"},
      {"\xB0\xA1\xB0\xA1", 4, MLG_GB2312, "\xB0\xA1"},
      {"\xB0\xA1\xB0\xA1", 4, MLG_EUCKR, "\xB0\xA1"},
      {"\x82\xA0\x82\xA0", 4, MLG_JAPANESE, "\x82\xA0"},
      // Shift_JIS proper: a half-width katakana byte stands alone.
      {"\xB1\x82\xA0", 3, MLG_SJIS, "\xB1"},
      {"\xB1\xB1\xB1", 3, MLG_SJIS, "\xB1\xB1"},
      // EUC-JP: SS3 opens three bytes, SS2 two.
      {"\x8F\xB0\xA1x", 3, MLG_EUCJP, ""},
      {"\x8E\xB1\x8E\xB1", 4, MLG_EUCJP, "\x8E\xB1"},
      // GB18030 four-byte forms next to two-byte ones.
      {"\x81\x30\x81\x30" "a", 4, MLG_GB18030, ""},
      {"\x81\x30\x81\x30" "a", 5, MLG_GB18030, "\x81\x30\x81\x30"},
      {"a\x81\x30\x81\x30", 5, MLG_GB18030, "a"},
      {"\xB0\xA1\xB0\xA1", 4, MLG_GB18030, "\xB0\xA1"},
  };
  for (const CutCase& c : cases) {
    char buf[16];
    Exact src(c.src);
    int n = MSTR_Copy(buf, c.size, src.get(), c.charset);
    EXPECT_EQ(std::string(c.want), std::string(buf)) << c.src << " size " << c.size;
    EXPECT_EQ(static_cast<int>(std::strlen(c.want)), n);
  }
}

TEST(MstrCopy, NCopyStopsAtCountSizeOrTerminator) {
  char buf[8];
  EXPECT_EQ(3, MSTR_NCopy(buf, sizeof buf, "hello", 3));
  EXPECT_STREQ("hel", buf);
  EXPECT_EQ(5, MSTR_NCopy(buf, sizeof buf, "hello", 100));
  EXPECT_STREQ("hello", buf);
  EXPECT_EQ(2, MSTR_NCopy(buf, 3, "hello", 100));
  EXPECT_STREQ("he", buf);
  EXPECT_EQ(0, MSTR_NCopy(buf, sizeof buf, nullptr, 5));
  EXPECT_STREQ("", buf);
  // A source without a terminator is fine when the count bounds it.
  const char raw[4] = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(4, MSTR_NCopy(buf, sizeof buf, raw, 4));
  EXPECT_STREQ("abcd", buf);
}

TEST(MstrCopy, CatAppendsWithinTheBuffer) {
  char buf[10] = "ab";
  EXPECT_EQ(4, MSTR_Cat(buf, sizeof buf, "cd", 0));
  EXPECT_STREQ("abcd", buf);
  EXPECT_EQ(9, MSTR_Cat(buf, sizeof buf, "efghijkl", 0));
  EXPECT_STREQ("abcdefghi", buf);
  EXPECT_EQ(9, MSTR_Cat(buf, sizeof buf, "z", 0));  // already full
  EXPECT_EQ(9, MSTR_Cat(buf, sizeof buf, nullptr, 0));
  EXPECT_STREQ("abcdefghi", buf);

  char u[4] = "a";
  EXPECT_EQ(1, MSTR_Cat(u, 3, "\xC3\xA9", MLG_UTF8));  // room for one byte only
  EXPECT_STREQ("a", u);
  EXPECT_EQ(3, MSTR_Cat(u, 4, "\xC3\xA9", MLG_UTF8));
  EXPECT_STREQ("a\xC3\xA9", u);

  // A destination without a terminator in its buffer is cut, not overrun.
  char full[4] = {'w', 'x', 'y', 'z'};
  EXPECT_EQ(3, MSTR_Cat(full, sizeof full, "q", 0));
  EXPECT_STREQ("wxy", full);
  EXPECT_EQ(0, MSTR_Cat(nullptr, 4, "q", 0));
}

TEST(MstrPrintf, SnprintfSemantics) {
  char buf[8];
  EXPECT_EQ(5, MSTR_Printf(buf, 4, "%s-%d", "ab", 42));
  EXPECT_STREQ("ab-", buf);
  EXPECT_EQ(5, MSTR_Printf(buf, sizeof buf, "%s-%d", "ab", 42));
  EXPECT_STREQ("ab-42", buf);
  std::strcpy(buf, "keep");
  EXPECT_EQ(5, MSTR_Printf(buf, 0, "%s-%d", "ab", 42));
  EXPECT_STREQ("keep", buf);
  EXPECT_EQ(5, MSTR_Printf(nullptr, 8, "%s-%d", "ab", 42));
  EXPECT_EQ(1, MSTR_Printf(buf, 1, "%c", 'x'));
  EXPECT_STREQ("", buf);
}

TEST(MstrTrim, BothEndsInPlace) {
  char a[] = " \t a b \r\n";
  EXPECT_EQ(a, MSTR_TrimSpace(a));
  EXPECT_STREQ("a b", a);
  char b[] = "\r\n \t";
  EXPECT_STREQ("", MSTR_TrimSpace(b));
  char c[] = "";
  EXPECT_STREQ("", MSTR_TrimSpace(c));
  char d[] = "x\fy\v";  // only blank, tab, CR and LF are trimmed
  EXPECT_STREQ("x\fy\v", MSTR_TrimSpace(d));
  EXPECT_EQ(nullptr, MSTR_TrimSpace(nullptr));
}

// The Content-Type parameter reading of the decoding engine.
std::string param(const char* text, const char* name, size_t size = 256, const char** pos = nullptr) {
  char buf[256];
  std::memset(buf, 'Q', sizeof buf);
  Exact t(text);
  char* p = MSTR_TokVal(t.get(), name, " \n\t", "=", " \n\t;", "\"", 0, 0, buf, size, 0);
  if (pos != nullptr) *pos = p != nullptr ? text + (p - t.get()) : nullptr;
  return p != nullptr ? std::string(buf) : "<none:" + std::string(buf) + ">";
}

TEST(MstrTokVal, ContentTypeParameters) {
  const char* pos = nullptr;
  const char* q = "multipart/mixed; boundary=\"----=_Part_1 x\"; charset=x";
  EXPECT_EQ("----=_Part_1 x", param(q, "boundary", 256, &pos));
  EXPECT_EQ(q + 26, pos);  // at the opening quote
  const char* u = "multipart/mixed; boundary=abc; charset=x";
  EXPECT_EQ("abc", param(u, "boundary", 256, &pos));
  EXPECT_EQ(u + 26, pos);
  EXPECT_EQ("x", param(u, "charset"));

  // Skip characters on both sides of the separator, folded lines included.
  EXPECT_EQ("utf-8", param("text/plain; charset = \"utf-8\"", "charset"));
  EXPECT_EQ("iso-2022-jp", param("text/plain;\n\tcharset\n=\tiso-2022-jp\n", "charset"));
  // The name is found without regard to case; the value is kept as written.
  EXPECT_EQ("Big5", param("TEXT/PLAIN; CHARSET=Big5", "charset"));
  // Occurrences not followed by the separator are passed over.
  EXPECT_EQ("a b", param("multipart/mixed; xboundary; boundary=\"a b\"", "boundary"));
  EXPECT_EQ("x", param("boundaryboundary=x", "boundary"));
  EXPECT_EQ("2", param("boundary ; boundary\t= 2", "boundary"));
  // Anywhere means anywhere: a longer word ending in the name counts.
  EXPECT_EQ("1", param("xboundary=1; boundary=2", "boundary"));
  // A quote inside an unquoted value is copied; an open quote runs to the end.
  EXPECT_EQ("b\"c", param("a=b\"c d", "a"));
  EXPECT_EQ("abc; x=y", param("boundary=\"abc; x=y", "boundary"));
  // Empty values.
  const char* empty = "charset=;";
  EXPECT_EQ("", param(empty, "charset", 256, &pos));
  EXPECT_EQ(empty + 8, pos);
  EXPECT_EQ("", param("charset=", "charset"));
  EXPECT_EQ("", param("charset=\"\"", "charset"));
  // Missing: NULL and an emptied buffer.
  EXPECT_EQ("<none:>", param("text/plain; format=flowed", "charset"));
  EXPECT_EQ("<none:>", param("text/plain; charset", "charset"));
  EXPECT_EQ("<none:>", param("", "charset"));
}

TEST(MstrTokVal, BoundedCopy) {
  // A 256-byte buffer holds 255 bytes of a longer boundary.
  std::string longb(300, 'b');
  std::string ct = "multipart/mixed; boundary=\"" + longb + "\"";
  EXPECT_EQ(std::string(255, 'b'), param(ct.c_str(), "boundary"));
  EXPECT_EQ("abc", param("x=abcdef", "x", 4));
  EXPECT_EQ("abc", param("x=\"abcdef\"", "x", 4));
  EXPECT_EQ("", param("x=abcdef", "x", 1));
}

TEST(MstrTokVal, QuotesEscapesModesAndNull) {
  char buf[32];
  const char* tag = "a href=\"x\\\"y\" title='t 1'>";
  EXPECT_EQ(tag + 7, MSTR_TokVal(tag, "href", " \t", "=", " >", "\"'", '\\', 0, buf, sizeof buf, 0));
  EXPECT_STREQ("x\"y", buf);
  MSTR_TokVal(tag, "href", " \t", "=", " >", "\"'", 0, 0, buf, sizeof buf, 0);
  EXPECT_STREQ("x\\", buf);
  EXPECT_EQ(tag + 20, MSTR_TokVal(tag, "title", " \t", "=", " >", "\"'", '\\', 0, buf, sizeof buf, 0));
  EXPECT_STREQ("t 1", buf);
  // An escape byte ending the text is taken as it is.
  MSTR_TokVal("v=\"ab\\", "v", "", "=", ";", "\"", '\\', 0, buf, sizeof buf, 0);
  EXPECT_STREQ("ab\\", buf);
  // No terminators: the value runs to the end.
  MSTR_TokVal("k=a b;c", "k", nullptr, "=", nullptr, nullptr, 0, 0, buf, sizeof buf, 0);
  EXPECT_STREQ("a b;c", buf);

  // Case-sensitive mode.
  std::strcpy(buf, "junk");
  EXPECT_EQ(nullptr, MSTR_TokVal("CHARSET=x", "charset", " ", "=", ";", "\"", 0, 0, buf, sizeof buf,
                                 MSTR_TOK_CASE));
  EXPECT_STREQ("", buf);
  EXPECT_NE(nullptr, MSTR_TokVal("CHARSET=x; charset=y", "charset", " ", "=", ";", "\"", 0, 0, buf,
                                 sizeof buf, MSTR_TOK_CASE));
  EXPECT_STREQ("y", buf);

  // NULL arguments.
  std::strcpy(buf, "junk");
  EXPECT_EQ(nullptr, MSTR_TokVal(nullptr, "a", " ", "=", ";", "\"", 0, 0, buf, sizeof buf, 0));
  EXPECT_STREQ("", buf);
  EXPECT_EQ(nullptr, MSTR_TokVal("a=1", nullptr, " ", "=", ";", "\"", 0, 0, buf, sizeof buf, 0));
  const char* t = "a=1";
  EXPECT_EQ(t + 2, MSTR_TokVal(t, "a", " ", "=", ";", "\"", 0, 0, nullptr, 10, 0));
  std::strcpy(buf, "keep");
  EXPECT_EQ(t + 2, MSTR_TokVal(t, "a", " ", "=", ";", "\"", 0, 0, buf, 0, 0));
  EXPECT_STREQ("keep", buf);
}

TEST(MstrTokPtr, NameInsideFilenameAndAnchoredMode) {
  const char* cd = "attachment; filename=\"report.pdf\"";
  EXPECT_EQ(cd + 21, MSTR_TokPtr(cd, "name", "* \n\t", "=", 0, 0));
  const char* ext = "attachment; filename*=utf-8''a%20b";
  EXPECT_EQ(ext + 22, MSTR_TokPtr(ext, "name", "* \n\t", "=", 0, 0));
  const char* ct = "application/pdf; NAME =\n\tx.pdf";
  EXPECT_EQ(ct + 25, MSTR_TokPtr(ct, "name", "* \n\t", "=", 0, 0));
  EXPECT_EQ(nullptr, MSTR_TokPtr("application/pdf; name", "name", "* \n\t", "=", 0, 0));

  // Anchored: the name must open the text, after skip characters.
  const char* url = "  MailTo:someone@example.com";
  EXPECT_EQ(url + 9, MSTR_TokPtr(url, "mailto", " ", ":", 0, MSTR_TOK_ANCHORED));
  EXPECT_EQ(nullptr, MSTR_TokPtr(url, "mailto", " ", ":", 0, MSTR_TOK_ANCHORED | MSTR_TOK_CASE));
  const char* later = "x mailto:a";
  EXPECT_EQ(nullptr, MSTR_TokPtr(later, "mailto", " ", ":", 0, MSTR_TOK_ANCHORED));
  EXPECT_EQ(later + 9, MSTR_TokPtr(later, "mailto", " ", ":", 0, 0));
  EXPECT_EQ(nullptr, MSTR_TokPtr("mailto;a", "mailto", " ", ":", 0, MSTR_TOK_ANCHORED));

  // No separator characters: nothing can follow the name as required.
  EXPECT_EQ(nullptr, MSTR_TokPtr("a=1", "a", " ", "", 0, 0));
  EXPECT_EQ(nullptr, MSTR_TokPtr("a=1", "a", " ", nullptr, 0, 0));
  EXPECT_EQ(nullptr, MSTR_TokPtr("a=1", "", " ", "=", 0, 0));
}

}  // namespace
