// Platform escaping: HTML, URI and JavaScript-string escapes, removal of
// bidi controls, numeric references, HTML reduced to text, and the kept
// results of the *_s calls.

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tarnplat.h"

namespace {

std::string bounded(int (*fn)(const char*, char*, size_t), const char* in, size_t size, int* len = nullptr) {
  std::vector<char> buf(size + 1, '@');
  const int n = fn(in, buf.data(), size);
  if (len != nullptr) *len = n;
  EXPECT_EQ(buf[size], '@');  // nothing past the bound
  return buf.data();
}

std::string tag_remove(const std::string& html, int charset) {
  std::vector<char> dst(html.size() + 1, '@');
  int len = -7;
  const int n = MSTR_HtmlTagRemove(html.data(), static_cast<int>(html.size()), dst.data(), &len, charset);
  EXPECT_EQ(n, len);
  EXPECT_GE(n, 0);
  return std::string(dst.data(), static_cast<size_t>(n > 0 ? n : 0));
}

TEST(MstrEscape, HtmlAndUri) {
  EXPECT_STREQ(MSTR_HTMLEscape_s("a<b>&\"'c"), "a&lt;b&gt;&amp;&quot;&#39;c");
  EXPECT_STREQ(MSTR_HTMLEscape_s(nullptr), "");
  EXPECT_STREQ(MSTR_URIEscapeStr("a b/\xC3\xBC~-_.%+"), "a%20b%2F%C3%BC~-_.%25%2B");
  EXPECT_EQ(bounded(MSTR_URIEscape, "a b", 64), "a%20b");
  // Cut only between escapes: "%20%20" does not fit in 5 bytes.
  int len = 0;
  EXPECT_EQ(bounded(MSTR_URIEscape, "  ", 5, &len), "%20");
  EXPECT_EQ(len, 3);
  EXPECT_EQ(MSTR_URIEscape("x", nullptr, 4), -1);
  char one[1] = {'@'};
  EXPECT_EQ(MSTR_URIEscape("x", one, 1), 0);
  EXPECT_EQ(one[0], '\0');
}

TEST(MstrEscape, KeptResultsStayValidForEightCalls) {
  std::vector<const char*> kept;
  for (int i = 0; i < 8; ++i) kept.push_back(MSTR_HTMLEscape_s(std::string(1000 + i, '<').c_str()));
  for (int i = 0; i < 8; ++i) EXPECT_EQ(std::string(kept[i]).size(), 4u * (1000 + i));
  const char* x = MSTR_URIEscapeStr("a b");
  const char* y = MSTR_URIEscapeStr("c d");
  EXPECT_STREQ(x, "a%20b");
  EXPECT_STREQ(y, "c%20d");
}

TEST(MstrEscape, JavaScriptStrings) {
  char out[128];
  const int n = MSTR_Escape("it's \"</script>\" \\\n\r\t\x01\x7f&", out, sizeof out, MSTR_ESC_JS, 0);
  EXPECT_STREQ(out, "it\\x27s \\x22\\x3C\\x2Fscript\\x3E\\x22 \\\\\\n\\r\\t\\x01\\x7F\\x26");
  EXPECT_EQ(n, static_cast<int>(std::strlen(out)));
  // Line separators in UTF-8 (also when no charset is declared).
  MSTR_JSEscape("a\xE2\x80\xA8" "b\xE2\x80\xA9", out, sizeof out);
  EXPECT_STREQ(out, "a\\u2028b\\u2029");
  // A Shift_JIS character whose trail byte is 0x5C stays whole; byte by
  // byte the 0x5C is a backslash.
  MSTR_Escape("\x95\x5C\\", out, sizeof out, MSTR_ESC_JS, MLG_SJIS);
  EXPECT_STREQ(out, "\x95\x5C\\\\");
  MSTR_Escape("\x95\x5C", out, sizeof out, MSTR_ESC_JS, 0);
  EXPECT_STREQ(out, "\x95\\\\");
  // Never half an escape; unknown modes fail.
  EXPECT_EQ(MSTR_Escape("ab'", out, 6, MSTR_ESC_JS, 0), 2);
  EXPECT_STREQ(out, "ab");
  EXPECT_EQ(MSTR_Escape("x", out, sizeof out, 99, 0), -1);
  EXPECT_EQ(MSTR_Escape("<&", out, sizeof out, MSTR_ESC_HTML, 0), 9);
  EXPECT_STREQ(out, "&lt;&amp;");
}

TEST(MstrEscape, BidiControlsAndNumericReferences) {
  const char* name = "a\xE2\x80\xAE" "b&#8238;c&#x202e;d\xE2\x81\xA6" "e&#8237f.txt";
  EXPECT_STREQ(MSTR_RLORemove_s(name, MLG_UTF8), "abcde&#8237f.txt");
  EXPECT_STREQ(MSTR_RLORemove_s(name, MLG_UNKNOWN), "abcde&#8237f.txt");
  // In Big5 the UTF-8 bytes are no character of their own.
  EXPECT_STREQ(MSTR_RLORemove_s(name, MLG_BIG5), "a\xE2\x80\xAE" "bcd\xE2\x81\xA6" "e&#8237f.txt");

  EXPECT_EQ(MUC_IsUnicodeEnt("&#65;", 0), 5);
  EXPECT_EQ(MUC_IsUnicodeEnt("&#x41;x", 0), 6);
  EXPECT_EQ(MUC_IsUnicodeEnt("&#X10FFFF;", 0), 10);
  EXPECT_EQ(MUC_IsUnicodeEnt("&#1114111;", 0), 10);
  EXPECT_EQ(MUC_IsUnicodeEnt("&#0000065;", 0), 10);
  for (const char* no : {"&#x110000;", "&#1114112;", "&#;", "&#x;", "&#65", "&amp;", "& #65;", "&#6a;", ""})
    EXPECT_EQ(MUC_IsUnicodeEnt(no, 0), 0) << no;
  EXPECT_EQ(MUC_IsUnicodeEnt(nullptr, 0), 0);
}

TEST(MstrEscape, SafeFileNameForLinksEqualsTheBoundedCall) {
  EXPECT_STREQ(MLG_SafeFileName_s("", 0), "_");
  EXPECT_STREQ(MLG_SafeFileName_s(nullptr, 0), "_");
  std::mt19937 rng(3);
  const char alphabet[] = "ab. /\\:#%?\"<>|\x01\xE2\x80\xAE\xA4\x5C";
  for (int round = 0; round < 500; ++round) {
    std::string name;
    const int n = static_cast<int>(rng() % 40);
    for (int i = 0; i < n; ++i) name += alphabet[rng() % (sizeof alphabet - 1)];
    for (int charset : {0, MLG_UTF8, MLG_BIG5}) {
      char want[256];
      MLG_SafeFileName(name.c_str(), want, sizeof want, charset);
      EXPECT_STREQ(MLG_SafeFileName_s(name.c_str(), charset), want);
    }
  }
}

TEST(MstrHtmlTagRemove, TextOfAPage) {
  const std::string page =
      "<html><head><title>T</title><style>p{}</style></head><body>"
      "<p class=\"a>b\">Hello&nbsp;<b>world</b> &lt;3 &#65;&#x20AC;</p>"
      "<script>x<y</script>a<br>b <!-- c <p> --> d</body></html>";
  EXPECT_EQ(tag_remove(page, MLG_UTF8), "Hello world <3 A\xE2\x82\xAC\na\nb d");
  // A charset that cannot hold the character keeps the reference.
  EXPECT_EQ(tag_remove("&#x20AC;&#233;&copy;", MLG_BIG5), "&#x20AC;&#233;&copy;");
  EXPECT_EQ(tag_remove("&#233;", MLG_ISO8859_1), "\xE9");
  EXPECT_EQ(tag_remove("<pre>a  b\n c</pre>x  \n y", 0), "a  b\n c\nx y");
  EXPECT_EQ(tag_remove("a < b <3 a<b c", 0), "a < b <3 a");
  EXPECT_EQ(tag_remove("<td>1</td><td>2</td>", 0), "1 2");
  // ISO-2022-JP: the bytes of a two-byte run are no markup.
  EXPECT_EQ(tag_remove("\x1b$B<>\x1b(B<b>x</b>", MLG_JAPANESE), "\x1b$B<>\x1b(Bx");
  // Unterminated script, comment and tag: the rest goes.
  EXPECT_EQ(tag_remove("a<script>b", 0), "a");
  EXPECT_EQ(tag_remove("a<!-- b", 0), "a");
  EXPECT_EQ(tag_remove("a<b title='x>", 0), "a");
  // A NUL ends the text; in place works.
  EXPECT_EQ(tag_remove(std::string("a<i>b\0<c>", 9), 0), "ab");
  std::string in_place = "<b>x</b> &amp; y";
  const int n = MSTR_HtmlTagRemove(in_place.data(), static_cast<int>(in_place.size()), in_place.data(), nullptr, 0);
  EXPECT_EQ(std::string(in_place.c_str()), "x & y");
  EXPECT_EQ(n, 5);
  EXPECT_EQ(MSTR_HtmlTagRemove(nullptr, 3, in_place.data(), nullptr, 0), -1);
}

TEST(MstrHtmlTagRemove, HostileMarkupNeverGrowsTheText) {
  std::mt19937 rng(5);
  const char alphabet[] = "<>/!-=\"' \n&#x;ab1ptrscipyle\x1b$(B\xE2\x82\xAC";
  for (int round = 0; round < 500; ++round) {
    std::string s;
    const int n = static_cast<int>(rng() % 400);
    for (int i = 0; i < n; ++i) s += alphabet[rng() % (sizeof alphabet - 1)];
    for (int charset : {0, MLG_UTF8, MLG_JAPANESE, MLG_ISO8859_1}) EXPECT_LE(tag_remove(s, charset).size(), s.size());
  }
}

}  // namespace
