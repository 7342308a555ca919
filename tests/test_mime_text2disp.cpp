// Plain text to HTML: the exact bytes of each rendering switch, the links,
// quoted lines, markers and filters, the output targets, and hostile text.

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "mime_text2disp_internal.h"

// The per-message file prefix is computed by the saved-parts code; when that
// is not part of this program, init goes on without it.
__attribute__((weak)) void init_cache_path(MIME_DISP*) {}

namespace {

const char* const kLink = "\" target=\"new_win\">";

// A context that renders into the growing buffer.
MIME_DISP context(int flags, int charset = 0, const MIME_DISP& preset = mailreadDE) {
  MIME_DISP d = preset;
  d.disp_flag = MIME_DISP_OUT_GROWING;
  d.text2disp_flag = flags;
  d.nTextCharsetVal = charset;
  return d;
}

std::string result_of(MIME_DISP& d) {
  char* r = nullptr;
  long n = 0;
  mime_disp_getresult(&d, &r, &n);
  std::string out = r != nullptr ? std::string(r, static_cast<size_t>(n)) : std::string();
  mime_disp_shutdown(&d);
  return out;
}

std::string render(MIME_DISP d, std::string text, int filter_flags = T2D_FILTER_ALL) {
  text2disp_filter(text.data(), &d, filter_flags);
  return result_of(d);
}

std::string render(std::string text, int flags, int charset = 0) { return render(context(flags, charset), text); }

std::string a(const std::string& href, const std::string& text) {
  return "<a href=\"" + href + kLink + text + "</a>";
}

TEST(Text2Disp, EscapesFollowTheirBitsAndTheDoubledFormsWin) {
  EXPECT_EQ(render("a   b", T2D_NBSP), "a &nbsp;&nbsp;b");
  EXPECT_EQ(render(" x ", T2D_NBSP), " x ");
  EXPECT_EQ(render("\"<>&", 0), "\"<>&");
  EXPECT_EQ(render("\"<>&", T2D_QUOT | T2D_LT | T2D_GT | T2D_AMP), "&quot;&lt;&gt;&amp;");
  EXPECT_EQ(render("\"<>&", T2D_QUOT2 | T2D_LT2 | T2D_GT2 | T2D_AMP2 | T2D_QUOT | T2D_LT | T2D_GT | T2D_AMP),
            "&amp;quot;&amp;lt;&amp;gt;&amp;amp;");
  EXPECT_EQ(render("\"<>", T2D_QUOT2 | T2D_LT2 | T2D_GT2), "&amp;quot;&amp;lt;&amp;gt;");
  // Numeric references stand; named ones and a bare '&' are escaped.
  EXPECT_EQ(render("&#233; &#x20AC; &amp; & &#; &#12", T2D_AMP), "&#233; &#x20AC; &amp;amp; &amp; &amp;#; &amp;#12");
  EXPECT_EQ(render("a&#65;b&c", T2D_AMP2), "a&#65;b&amp;amp;c");
  // One line without a line feed: only the escapes of its bits.
  EXPECT_EQ(render("x > y: z", T2D_GT | T2D_BR | T2D_LINK), "x &gt; y: z");
  // Carriage returns go; line feeds stay without line bits.
  EXPECT_EQ(render("a\r\nb\r", 0), "a\nb");
}

// The copy looks at sixteen bytes at a time: a special byte must be seen
// wherever it falls in a block, and a lone space never is one.
TEST(Text2Disp, SpecialBytesAtEveryPositionOfABlock) {
  for (size_t k = 0; k < 40; ++k) {
    const std::string x(k, 'x');
    const std::string z(k % 7 + 17, 'z');
    EXPECT_EQ(render(x + "  y " + z + "<" + x + "\n" + z + "  ", T2D_NBSP | T2D_LT | T2D_BR),
              x + " &nbsp;y " + z + "&lt;" + x + "<br>\n" + z + " &nbsp;")
        << k;
    EXPECT_EQ(render(x + "\x1b[0m" + z + "\r" + z, 0), x + z + z) << k;
  }
}

TEST(Text2Disp, LineBreaksAndQuotedLineColours) {
  EXPECT_EQ(render("x\n> y", T2D_BR), "x<br>\n<font color=#707070>&gt; y</font>\n");
  EXPECT_EQ(render("x\n> y\nz", T2D_BR), "x<br>\n<font color=#707070>&gt; y</font><br>\nz");
  EXPECT_EQ(render("> a\n>> b\nc", T2D_BR),
            "\n<font color=#707070>&gt; a</font><br>\n<font color=#707070>&gt;> b</font><br>\nc");
  EXPECT_EQ(render("x\n: y\n= z\nw", T2D_BR),
            "x<br>\n<font color=#707070>: y</font><br>\n<font color=#000060>= z</font><br>\nw");
  EXPECT_EQ(render("x\n> y\nz", T2D_QUOTE_COLOUR), "x\n<font color=#707070>&gt; y</font>\nz");
  EXPECT_EQ(render("a\r\nb", T2D_BR), "a<br>\nb");
  EXPECT_EQ(render("a\nb", T2D_BR_XHTML), "a<br/>\nb");
  EXPECT_EQ(render("a\n>b", T2D_BR_XHTML | T2D_BR), "a<br/><br>\n<font color=#707070>&gt;b</font>\n");
  // The reference mark opens a colour only in its own charset.
  EXPECT_EQ(render("a\n\xE2\x80\xBB b", T2D_BR, 1), "a<br>\n<font color=#600000>\xE2\x80\xBB b</font>\n");
  EXPECT_EQ(render("a\n\xE2\x80\xBB b", T2D_BR, 2), "a<br>\n\xE2\x80\xBB b");
  EXPECT_EQ(render("a\n\xA1\xB0 b", T2D_BR, 2), "a<br>\n<font color=#600000>\xA1\xB0 b</font>\n");
  // A text that begins with CR never colours its first line.
  EXPECT_EQ(render("\r> a", T2D_BR), "> a");
  EXPECT_EQ(render("\n> a", T2D_BR), "<br>\n<font color=#707070>&gt; a</font>\n");
}

TEST(Text2Disp, ReplyModePrefixesEveryLineAndColoursOnlyTheFirst) {
  MIME_DISP d = context(T2D_REPLY | T2D_BR | T2D_GT);
  std::strcpy(d.reply_sign, "> ");
  EXPECT_EQ(render(d, "a\n> b\nc"), "> a\n> &gt; b\n> c");
  d = context(T2D_REPLY | T2D_BR | T2D_BR_XHTML);
  std::strcpy(d.reply_sign, "> ");
  EXPECT_EQ(render(d, "> x\ny"), "> \n<font color=#707070>&gt; x\n> y</font>\n");
  // The sign is printed as a format without arguments.
  d = context(T2D_REPLY);
  std::strcpy(d.reply_sign, "%%|");
  EXPECT_EQ(render(d, "a\nb"), "%|a\n%|b");
  // A sign that fills the whole field is read no further.
  d = context(T2D_REPLY);
  std::memset(d.reply_sign, '#', sizeof d.reply_sign);
  EXPECT_EQ(render(d, "a\nb"), std::string(16, '#') + "a\n" + std::string(16, '#') + "b");
}

TEST(Text2Disp, UrlsEndAtDelimitersAndTakeTrailingPunctuation) {
  const int f = T2D_LINK | T2D_LT | T2D_GT | T2D_QUOT;
  EXPECT_EQ(render("see http://ex.com/a?b=1&c=2. next", f),
            "see " + a("http://ex.com/a?b=1&c=2.", "http://ex.com/a?b=1&c=2.") + " next");
  EXPECT_EQ(render("(http://x.org/a)", f), "(" + a("http://x.org/a)", "http://x.org/a)"));
  EXPECT_EQ(render("<http://x.org>", f), "&lt;" + a("http://x.org", "http://x.org") + "&gt;");
  EXPECT_EQ(render("\"http://x.org\"", f), "&quot;" + a("http://x.org", "http://x.org") + "&quot;");
  EXPECT_EQ(render("[http://x.org]{ftp://y}", f), "[" + a("http://x.org", "http://x.org") + "]{" +
                                                     a("ftp://y", "ftp://y") + "}");
  EXPECT_EQ(render("https://s.org/ gopher://g telnet:h wais:w news:n", f),
            a("https://s.org/", "https://s.org/") + " " + a("gopher://g", "gopher://g") + " " +
                a("telnet:h", "telnet:h") + " " + a("wais:w", "wais:w") + " " + a("news:n", "news:n"));
  // Schemes are matched with case, as a suffix of the word before the ':'.
  EXPECT_EQ(render("HTTP://x.org Mailto:a", f), "HTTP://x.org Mailto:a");
  EXPECT_EQ(render("xhttp://a", f), "x" + a("http://a", "http://a"));
  // "http" needs "//"; nothing after the ':' is no link; "ftp://" alone is.
  EXPECT_EQ(render("http:/x http: x", f), "http:/x http: x");
  EXPECT_EQ(render("ftp:// x", f), a("ftp://", "ftp://") + " x");
  // A ':' in the look-back starts the candidate again.
  EXPECT_EQ(render("a:http://x", f), "a:" + a("http://x", "http://x"));
  EXPECT_EQ(render("http:x", f), "http:x");
}

TEST(Text2Disp, MailtoGoesToTheComposeProgram) {
  EXPECT_EQ(render("mail mailto:bob@x.org, please", T2D_LINK),
            "mail " + a("/cgi-bin/genMail?adr=bob@x.org,", "mailto:bob@x.org,") + " please");
  EXPECT_EQ(render("mailto:a@b", T2D_LINK), a("/cgi-bin/genMail?adr=a@b", "mailto:a@b"));
}

TEST(Text2Disp, TokenLengthLimitIs1024BytesAfterTheColon) {
  const std::string fits = "http://" + std::string(1022, 'a');  // 1024 bytes after ':'
  EXPECT_EQ(render(fits + " z", T2D_LINK), a(fits, fits) + " z");
  const std::string too_long = fits + "b";
  EXPECT_EQ(render(too_long + " z", T2D_LINK), too_long + " z");
}

TEST(Text2Disp, UrlsAgainstMultibyteText) {
  // UTF-8: the URL ends before a character that follows a letter or digit.
  EXPECT_EQ(render("http://a.tw/x\xE4\xB8\xAD\xE6\x96\x87 z", T2D_LINK, 1),
            a("http://a.tw/x", "http://a.tw/x") + "\xE4\xB8\xAD\xE6\x96\x87 z");
  EXPECT_EQ(render("http://a.tw/\xE4\xB8\xAD z", T2D_LINK, 1),
            a("http://a.tw/\xE4\xB8\xAD", "http://a.tw/\xE4\xB8\xAD") + " z");
  // Big5 (and every other charset): two bytes a character, so a trail byte
  // ']' does not end the URL.
  EXPECT_EQ(render("http://a.tw/x\xA4\xA4 z", T2D_LINK, 2), a("http://a.tw/x", "http://a.tw/x") + "\xA4\xA4 z");
  EXPECT_EQ(render("http://a.tw/\xA4]b z", T2D_LINK, 2), a("http://a.tw/\xA4]b", "http://a.tw/\xA4]b") + " z");
  // A broken lead byte never carries a quote or '<' into the link.
  EXPECT_EQ(render("http://a/\xA4\"onmouseover=x", T2D_LINK | T2D_QUOT, 2),
            a("http://a/\xA4", "http://a/\xA4") + "&quot;onmouseover=x");
  EXPECT_EQ(render("http://a/\xF8<img", T2D_LINK | T2D_LT, 1), a("http://a/\xF8", "http://a/\xF8") + "&lt;img");
}

TEST(Text2Disp, MarkersInsideUrlsStayInTheTextNotInTheHref) {
  EXPECT_EQ(render("go http://ex\1am\4ple.com now", T2D_LINK),
            "go " + a("http://example.com", "http://ex<font color=\"darkgreen\">am</font>ple.com") + " now");
  // The marker before the scheme stays where it was; the one among its
  // letters moves into the link text.
  EXPECT_EQ(render("\1ht\4tp://x", T2D_LINK), "<font color=\"darkgreen\">" + a("http://x", "ht</font>tp://x"));
}

TEST(Text2Disp, AnsiSequencesDisappear) {
  EXPECT_EQ(render("a\x1b[1;31mred\x1b[0m b", 0), "ared b");
  EXPECT_EQ(render("a\x1b[1 2m b", T2D_NBSP), "a  b");  // a space inside is written and ends nothing
  EXPECT_EQ(render("a\x1b[12", 0), "a");
  EXPECT_EQ(render("\x1b[31mhttp://x", T2D_LINK), a("http://x", "http://x"));
  // The first scheme letter went with the sequence; the link takes the
  // byte before it back, never more than the output holds.
  EXPECT_EQ(render("\x1bhttp://x", T2D_LINK), a("http://x", "http://x"));
  EXPECT_EQ(render("ab\x1bhttp://x", T2D_LINK), "a" + a("http://x", "http://x"));
}

TEST(Text2Disp, ReadingPresetsRenderAsTheirFlagsSay) {
  EXPECT_EQ(mailreadDE.text2disp_flag, 0x3a7);
  EXPECT_EQ(msgreadDE.text2disp_flag, 0x83a7);
  const std::string text = "Hi  <you>\n> \"q\" http://a.b/c\nbye & &#65;";
  MIME_DISP d = mailreadDE;
  d.disp_flag = MIME_DISP_OUT_GROWING;
  EXPECT_EQ(render(d, text),
            "Hi &nbsp;&lt;you&gt;<br>\n<font color=#707070>&gt; &quot;q&quot; " + a("http://a.b/c", "http://a.b/c") +
                "</font><br>\nbye & &#65;");
  d = msgreadDE;
  d.disp_flag = MIME_DISP_OUT_GROWING;
  EXPECT_EQ(render(d, text),
            "Hi &nbsp;&lt;you&gt;<br>\n<font color=#707070>&gt; &quot;q&quot; " + a("http://a.b/c", "http://a.b/c") +
                "</font><br>\nbye &amp; &#65;");
}

TEST(Text2DispPrintout, HighlightsAndSearchLinks) {
  MIME_DISP d = context(0);
  d.Q_link = "/s?q=";
  EXPECT_EQ(render(d, "x\2foo bar\3y"), "x<a href=\"/s?q=foo%20bar\"><font color=\"red\">foo bar</font></a>y");
  // An end marker 2048 or more bytes on opens no link, but still closes.
  const std::string far(2047, 'a');
  EXPECT_EQ(render(d, "\2" + far + "\3"), far + "</font></a>");
  const std::string near(2046, 'a');
  EXPECT_EQ(render(d, "\2" + near + "\3"),
            "<a href=\"/s?q=" + near + "\"><font color=\"red\">" + near + "</font></a>");
  // Markers without their partner print as themselves.
  EXPECT_EQ(render(d, "\4x\1y\1z\3"), "\4x<font color=\"darkgreen\">y\1z\3");
}

char* upper_filter(MIME_DISP* d, char* text, int) {
  std::string s(text);
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  auto* out = static_cast<char*>(mime_disp_alloc(d, s.size() + 1));
  std::memcpy(out, s.c_str(), s.size() + 1);
  return out;
}
char* append_filter(MIME_DISP* d, char* text, int) {
  std::string s = std::string(text) + "+";
  auto* out = static_cast<char*>(mime_disp_alloc(d, s.size() + 1));
  std::memcpy(out, s.c_str(), s.size() + 1);
  return out;
}
char* null_filter(MIME_DISP*, char*, int) { return nullptr; }
char* wrap_filter(MIME_DISP* d, char* text, int) {
  std::string s = "[" + std::string(text) + "]";
  auto* out = static_cast<char*>(mime_disp_alloc(d, s.size() + 1));
  std::memcpy(out, s.c_str(), s.size() + 1);
  return out;
}

TEST(Text2DispFilter, FiltersRunByTheirBitsInOrder) {
  MIME_DISP d = context(T2D_LT);
  mime_disp_setfilter1(&d, append_filter);
  mime_disp_setfilter2(&d, upper_filter);
  mime_disp_setfilter5(&d, wrap_filter);
  EXPECT_EQ(render(d, "a<b"), "[A&lt;B+]");          // 1 then 2 then the rendering then 5
  EXPECT_EQ(render(d, "a<b", 29), "A&lt;B+");         // 29: all but Filter5
  EXPECT_EQ(render(d, "a<b", 2), "a&lt;b");           // 2 selects nothing
  EXPECT_EQ(render(d, "a<b", T2D_FILTER5), "[a&lt;b]");
  mime_disp_setfilter1(&d, null_filter);
  EXPECT_EQ(render(d, "a<b"), "");
  text2disp(nullptr, &d);
  EXPECT_EQ(render(context(0), ""), "");
}

TEST(Text2Disp, JavaScriptStringEscapeOfTheHtml) {
  MIME_DISP d = context(T2D_JS | T2D_LT | T2D_BR);
  EXPECT_EQ(render(d, "it's <b>\n\"x\\"), "it\\x27s \\x26lt;b\\x3E\\x3Cbr\\x3E\\n\\x22x\\\\");
  // Markers are escaped too: no highlight opens inside a string.
  EXPECT_EQ(render(d, "\1x\4"), "\\x01x\\x04");
}

TEST(Text2DispOutput, FixedBufferIsCutAndGrowingBufferHoldsLargeText) {
  char buf[16];
  MIME_DISP d = context(T2D_LT);
  d.disp_flag = MIME_DISP_OUT_FIXED;
  mime_disp_setbuf(&d, buf, sizeof buf);
  std::string text = "<<<<<<<<";
  text2disp(text.data(), &d);
  EXPECT_STREQ(buf, "&lt;&lt;&lt;&lt");
  EXPECT_EQ(d.nTotalBytesRetrict, 0);
  mime_disp_shutdown(&d);

  std::string big;
  std::string expected;
  for (int i = 0; i < 20000; ++i) {
    big += "> line <" + std::to_string(i) + "> mailto:u" + std::to_string(i) + "@x.org\n";
    expected += std::string(i == 0 ? "" : "</font><br>") + "\n<font color=#707070>&gt; line &lt;" +
                std::to_string(i) + "&gt; " +
                a("/cgi-bin/genMail?adr=u" + std::to_string(i) + "@x.org",
                  "mailto:u" + std::to_string(i) + "@x.org");
  }
  expected += "</font><br>\n";
  d = context(T2D_LINK | T2D_LT | T2D_GT | T2D_BR);
  EXPECT_EQ(render(d, big), expected);
}

// The cached token walks answer exactly what a fresh walk would.
TEST(Text2DispSpaceSearch, CachedWalksMatchFreshWalks) {
  std::mt19937 rng(7);
  const char alphabet[] = "ab:/ \"[]\xA4\xE4\xB8\xC0\xFF\x01";
  for (int charset : {0, 1, 2}) {
    for (int round = 0; round < 200; ++round) {
      std::string s;
      const int n = 1 + static_cast<int>(rng() % 3000);
      for (int i = 0; i < n; ++i) s += alphabet[rng() % (sizeof alphabet - 1)];
      t2d::TokenEnds ends(s.c_str(), charset);
      for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != ':') continue;
        char* fresh = spacesearch(s.data() + i, 1, 1026, 1, charset);
        const char* cached = ends.stop_from(s.data() + i, 1026);
        ASSERT_EQ(fresh != nullptr ? fresh + 1 : nullptr, cached) << "charset " << charset << " at " << i;
      }
    }
  }
  char text[] = "x ab]cd";
  EXPECT_EQ(spacesearch(text + 2, 1, 10, 1, 0), text + 3);  // forward: the last byte before ']'
  EXPECT_EQ(spacesearch(text + 6, 0, 10, 1, 0), text + 5);  // backward: the first byte after it
  EXPECT_EQ(spacesearch(text + 2, 1, 1, 1, 0), nullptr);    // the step budget ran out
}

TEST(Text2DispHostile, LongLinesNulsAndColonStormsStayLinearAndInBounds) {
  // 4 MiB without a line feed, a ':' every other byte, and every scheme.
  std::string storm;
  while (storm.size() < (4u << 20)) storm += "a:b:http://c:d mailto:e:";
  const std::string out = render(storm, 0x1ffff & ~T2D_JS);
  const std::string head = ">a:b:" + a("http://c:d", "http://c:d") + " " +
                           a("/cgi-bin/genMail?adr=e:a:b:http://c:d", "mailto:e:a:b:http://c:d");
  EXPECT_EQ(out.substr(0, head.size()), head);
  // One token of 4 MiB with a ':' every other byte makes no link.
  std::string colons(4u << 20, ':');
  EXPECT_EQ(render(colons, T2D_LINK), colons);

  // A NUL inside ends the text.
  std::string with_nul("ab\0cd", 5);
  EXPECT_EQ(render(with_nul, T2D_NBSP), "ab");

  // Random bytes rich in what the rendering treats specially, every flag.
  std::mt19937 rng(11);
  const char alphabet[] = "ab :/\n\r\"<>&#;=\x1b[1m\x01\x02\x03\x04\xE2\x80\xBB\xA1\xB0hptfmailtonews";
  for (int round = 0; round < 300; ++round) {
    std::string s;
    const int n = 1 + static_cast<int>(rng() % 600);
    for (int i = 0; i < n; ++i) s += alphabet[rng() % (sizeof alphabet - 1)];
    const int flags = static_cast<int>(rng() % 0x20000);
    MIME_DISP d = context(flags, static_cast<int>(rng() % 4));
    std::strcpy(d.reply_sign, "%%> ");
    render(d, s);
  }
}

}  // namespace
