// HTML rewriting: the exact HTML written for links, tags, images, event
// attributes and references to saved parts; hostile bodies; and the public
// XSS vectors through the reading pages' switches, with tracked counts.

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "mime_html2disp_internal.h"
#include "support.h"
#include "xss_vectors.h"

// The per-message file prefix is computed by the saved-parts code; when that
// is not part of this program, init goes on without it.
__attribute__((weak)) void init_cache_path(MIME_DISP*) {}

namespace {

const std::string kDataDir = tarntest::testdata_dir() + "/html2disp";

constexpr int kCidParts = 2;
constexpr int kLocParts = 4;

// One display context writing into its growing buffer.
class Page {
 public:
  explicit Page(int html_flags, int attachment_bits = 0) {
    d = mailreadDE;
    d.disp_flag = MIME_DISP_OUT_GROWING;
    d.html2disp_flag = html_flags;
    hme.me_info._attachment = attachment_bits;
    d.showdata = &hme;
  }
  ~Page() { mime_disp_shutdown(&d); }
  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;

  // What html2disp writes for `html` (a NUL-terminated copy of it).
  std::string show(const std::string& html, const char* cbase = nullptr) {
    std::vector<char> buf(html.begin(), html.end());
    buf.push_back('\0');
    const long before = d.pcResult != nullptr ? d.nResultSize : 0;
    html2disp(buf.data(), const_cast<char*>(cbase), &d);
    if (d.pcResult == nullptr) return "";
    return std::string(d.pcResult + before, static_cast<size_t>(d.nResultSize - before));
  }

  // A saved part with a Content-ID ("<" and ">" already gone) or a
  // Content-Location, appended to its list.
  fileCID& add_cid(const char* cid, const char* fileid, const char* filename, const char* ext, int ctype) {
    fileCID& n = append(d._fileCID, cid_nodes, d._fileCID.cid != nullptr, fileid, filename, ext, ctype);
    n.cid = const_cast<char*>(cid);
    return n;
  }
  fileLOC& add_loc(const char* loc, const char* fileid, const char* filename, const char* ext, int ctype) {
    fileLOC& n = append(d._fileLOC, loc_nodes, d._fileLOC.loc != nullptr, fileid, filename, ext, ctype);
    n.loc = const_cast<char*>(loc);
    return n;
  }

  MIME_DISP d;
  HME hme{};

 private:
  template <typename Node>
  static Node& append(Node& head, std::deque<Node>& more, bool head_used, const char* fileid, const char* filename,
                      const char* ext, int ctype) {
    Node* n = &head;
    if (head_used) {
      while (n->next != nullptr) n = n->next;
      n = n->next = &more.emplace_back();
    }
    n->fileid = const_cast<char*>(fileid);
    n->filename = const_cast<char*>(filename);
    std::snprintf(n->ext, sizeof n->ext, "%s", ext);
    n->ctype = ctype;
    return *n;
  }
  // Stable addresses: the list nodes point at each other.
  std::deque<fileCID> cid_nodes;
  std::deque<fileLOC> loc_nodes;
};

std::string show(int flags, const std::string& html) {
  Page p(flags);
  return p.show(html);
}

// ---- links ----

TEST(Html2dispLinks, MailtoGoesToTheComposeProgramWithItsFields) {
  EXPECT_EQ("<a href=\"/cgi-bin/genMail?adr=bob@x.org&\" target=\"new_win\">Bob</a>",
            show(0x80, "<a href=\"mailto:bob@x.org\">Bob</a>"));
  EXPECT_EQ("<a href=\"/cgi-bin/genMail?adr=b@x&adrcc=c@x&adrbcc=d@x&subject=Hi%20there&content=Body&\" "
            "target=\"new_win\" class=m>",
            show(0x80, "<a href='mailto:b@x?subject=Hi%20there&amp;cc=c@x&#38;bcc=d@x&body=Body' class=m>"));
  // The mailto rewrite takes precedence over the new-window target; the
  // page's base is put in front of the compose link.
  Page p(0x180);
  std::snprintf(p.d.disp_base, sizeof p.d.disp_base, "%s", "https://mail.example");
  EXPECT_EQ("<A href=\"https://mail.example/cgi-bin/genMail?adr=z@y&\" target=\"new_win\">",
            p.show("<A HREF = \"MailTo:z@y\">"));
  // Only a value that begins with the scheme counts; without the switch
  // nothing changes.
  EXPECT_EQ("<a href=\"x-mailto:z\">", show(0x80, "<a href=\"x-mailto:z\">"));
  EXPECT_EQ("<a href=\"mailto:z\">", show(0, "<a href=\"mailto:z\">"));
}

TEST(Html2dispLinks, StrMailtoFindsEachFieldForm) {
  auto field = [](const char* url, const char* pattern, int flag) {
    std::string u(url), p(pattern);
    char* s = str_mailto(u.data(), p.data(), flag);
    std::string out = s != nullptr ? s : "(none)";
    std::free(s);
    return out;
  };
  EXPECT_EQ("a@b", field("mailto:a@b?cc=c", "mailto", kStrMailtoAddress));
  EXPECT_EQ("(none)", field("mailto:a@b?cc=c", "cc=", kStrMailtoAmp));  // only after an ampersand
  for (const char* amp : {"&", "&amp;", "&#38;", "&#x26;", "&#d38;"})
    EXPECT_EQ("c@d", field((std::string("mailto:a?subject=s") + amp + "cc=c@d&x=1").c_str(), "cc=", kStrMailtoAmp))
        << amp;
  EXPECT_EQ("(none)", field("mailto:a?cc=c&subject=s", "?subject=", kStrMailtoLiteral));
  EXPECT_EQ("", field("mailto:?subject=&", "?subject=", kStrMailtoLiteral));
  EXPECT_EQ("(none)", field("http://x", "mailto", kStrMailtoAddress));
}

TEST(Html2dispLinks, DataLinksLoseTheirTargetAndOutsideLinksOpenANewWindow) {
  EXPECT_EQ("<a rel=\"nofollow\">x</a>", show(0, "<a href=\"data:text/html;base64,PHNjcmlwdD4=\">x</a>"));
  EXPECT_EQ("<a target=_blank rel=\"nofollow\" id=1>", show(0x100, "<a href=data:x id=1>"));
  EXPECT_EQ("<a target=_blank href=\"http://x.org/\">", show(0x100, "<a href=\"http://x.org/\">"));
  EXPECT_EQ("<area target=_blank href=x>", show(0x100, "<area href=x>"));  // any tag that begins with a
  // A link inside the page stays in it; tags that do not begin with a keep
  // their href alone.
  EXPECT_EQ("<a href=\"#top\"><a href = '#x'>", show(0x100, "<a href=\"#top\"><a href = '#x'>"));
  EXPECT_EQ("<a target=_blank href=' #x'>", show(0x100, "<a href=' #x'>"));  // one quote is passed over, no more
  EXPECT_EQ("<link href=\"data:x\"><base href=y>", show(0x100, "<link href=\"data:x\"><base href=y>"));
  EXPECT_EQ("<a href=\"database:x\">", show(0, "<a href=\"database:x\">"));
}

TEST(Html2dispLinks, DoubleByteCharactersKeepTheirBackslash) {
  // In a double-byte charset (and in any charset not named) a backslash
  // that ends a character escapes nothing; in UTF-8 it escapes the quote.
  const std::string html = "<a href=\"data:\xA5\\\" title=x>";
  EXPECT_EQ("<a rel=\"nofollow\" title=x>", show(0, html));
  Page utf8(0);
  utf8.d.nTextCharsetVal = MLG_UTF8;
  EXPECT_EQ("<a rel=\"nofollow\"", utf8.show(html));
  EXPECT_EQ(1, html_charset_mode(MLG_UTF8));
  EXPECT_EQ(14, html_charset_mode(MLG_GB18030));
  EXPECT_EQ(2, html_charset_mode(MLG_ISO8859_1));
}

TEST(Html2dispLinks, MetaRefreshLosesItsHttpEquiv) {
  EXPECT_EQ("<meta content=\"0;url=http://evil/\">",
            show(0x2000, "<meta http-equiv=\"Refresh\" content=\"0;url=http://evil/\">"));
  EXPECT_EQ("<meta http-equiv=\"Content-Type\" content=\"text/html\">",
            show(0x2000, "<meta http-equiv=\"Content-Type\" content=\"text/html\">"));
  // The rewrite starts at "meta" and ends after the value: what stands
  // between goes with it.
  EXPECT_EQ("<meta>", show(0x2000, "<meta content=\"5\" http-equiv=refresh>"));
  EXPECT_EQ("<meta http-equiv=\"refresh\" content=\"0\">", show(0, "<meta http-equiv=\"refresh\" content=\"0\">"));
  // The attribute is only looked for inside the tag.
  EXPECT_EQ("<meta name=a><p http-equiv=refresh>", show(0x2000, "<meta name=a><p http-equiv=refresh>"));
}

// ---- tags ----

TEST(Html2dispTags, BodyColoursMoveToAWrappingDiv) {
  EXPECT_EQ("<div width=\"100%\"  style=\"background-color:red\"><x-body />text</x-body></div>",
            show(0x208, "<body bgcolor=red onload=\"x()\">text</body>"));
  EXPECT_EQ("<div width=\"100%\"  style=\"background-image:url(http://x/bg.png; background-color:#fff\">"
            "<x-body /></div>",
            show(0x208, "<BODY background='http://x/bg.png' text=black BGCOLOR=\"#fff\">"));
  EXPECT_EQ("<x-body />a</x-body>", show(0x200, "<body bgcolor=red>a</body>"));
  EXPECT_EQ("<x-body /><x-body />", show(0x208, "<body><body text=red>"));
  // Without a '>' the tag's name is written and the rest copied.
  EXPECT_EQ("<body bgcolor=red", show(0x208, "<BODY bgcolor=red"));
  EXPECT_EQ("</body x", show(0x200, "</BODY x"));
  EXPECT_EQ("<body bgcolor=red>", show(0x8, "<body bgcolor=red>"));
}

TEST(Html2dispTags, DocumentElementsBecomePlaceholders) {
  EXPECT_EQ("<x-html />a</x-html>", show(0x10, "<html lang=en>a</HTML>"));
  EXPECT_EQ("<html", show(0x10, "<html"));
  EXPECT_EQ("<BASE href=\"http://x/\"><x-head />b",
            show(0x20, "<head><title>t</title><BASE href=\"http://x/\"><style>p{}</style></head>b"));
  EXPECT_EQ("<x-head />b", show(0x20, "<head><title>t</title></head>b"));
  EXPECT_EQ("<header>x", show(0x20, "<header>x"));  // no "</head>" after it
  EXPECT_EQ("a<x-style />b", show(0x40, "a<style>p{color:red}</STYLE>b"));
  EXPECT_EQ("a<xstyle>p{}", show(0x40, "a<style>p{}"));
  EXPECT_EQ("<x-iframe />b<xframe src=x>", show(0x400, "<iframe src=x>a</iframe>b<iframe src=x>"));
  EXPECT_EQ("<x-isindex />b<xsindex>", show(0x80000, "<isindex>a</isindex>b<isindex>"));
  EXPECT_EQ("<x-link />b<xlink rel=stylesheet href=x>",
            show(0x40, "<link rel=x></link>b<link rel=stylesheet href=x>"));
  EXPECT_EQ("&lt;/TEXTAREA&gt;>b", show(0x2, "</TextArea>b"));
  EXPECT_EQ("</textarea >", show(0x2, "</textarea >"));
}

TEST(Html2dispTags, StyleSheetsStayDefusedWithoutTheStyleSwitch) {
  EXPECT_EQ("<style>p{width:expressiox(alert(1))}</style>javascript:",
            show(0, "<style>p{width:expression(alert(1))}</style>javascript:"));
  // Nested style tags inside one sheet defuse it once.
  EXPECT_EQ("<style><style>a{b:expressiox()}</style>", show(0, "<style><style>a{b:expression()}</style>"));
}

TEST(Html2dispTags, ScriptLikeElementsAreDropped) {
  EXPECT_EQ("ab", show(0x1, "a<script>alert(1)</script>b"));
  EXPECT_EQ("a<script", show(0x1, "a<script"));
  EXPECT_EQ("ab", show(0x1, "a<SCRIPT src=x>no end tag<b"));  // content up to the last '<' goes
  EXPECT_EQ("a</scriptb", show(0x1, "a<script></scriptb"));
  EXPECT_EQ("ab", show(0x8000, "a<object data=x><param></object>b"));
  EXPECT_EQ("ab</embed>", show(0x10000, "a<embed src=x>b</embed>"));
  EXPECT_EQ("a<x-xml />b", show(0x20000, "a<xml><x/></xml>b"));
  EXPECT_EQ("<script>x</script>", show(0, "<script>x</script>"));
  // The removal passes run before the walk, again until nothing is left.
  EXPECT_EQ("ab", show(0x40001, "a<scr<script>x</script>ipt>alert(1)</script>b"));
  EXPECT_EQ("a<b", show(0x48000, "a<obj<object></object>ect></object><b"));
}

TEST(Html2dispTags, AmpersandsAndBase) {
  EXPECT_EQ("a &amp;amp; b&amp;", show(0x4, "a &amp; b&"));
  Page p(0);
  EXPECT_EQ("<base href=http://b/>x", p.show("x", "http://b/"));
}

// ---- event attributes ----

TEST(Html2dispEvents, EventAttributesAreDisabledOutsideQuotedValues) {
  EXPECT_EQ("<p xonclick=\"a()\" title=\"x onload=y\">", show(0x1, "<p onclick=\"a()\" title=\"x onload=y\">"));
  EXPECT_EQ("<svg/xonload=alert(1)>", show(0x1, "<svg/onload=alert(1)>"));
  EXPECT_EQ("<img src=x xONERROR  =a>", show(0x1, "<img src=x\tONERROR  =a>"));
  EXPECT_EQ("text xon= more", show(0x1, "text on= more"));  // outside tags too
  EXPECT_EQ("a on b", show(0x1, "a on b"));
  EXPECT_EQ("<p onclick=a>", show(0, "<p onclick=a>"));
  // '>' ends a quoted value as it ends the tag.
  EXPECT_EQ("<p title=\"a>  xonclick=b", show(0x1, "<p title=\"a>  onclick=b"));
}

// ---- images and saved parts ----

TEST(Html2dispImages, ExternalImagesAreBlocked) {
  Page p(0x800);
  EXPECT_EQ("<img src=\"/img/rrblk.gif\" width=20 height=8>",
            p.show("<img src=\"http://x/track.gif\" width=20 alt=x onload=y>"));
  EXPECT_EQ(1, p.d.is_block_image);
  EXPECT_EQ("<img src=\"/img/rrblk.gif\" width=8 height=99999>", p.show("<IMG SRC=x.gif height=\"99999px\">"));
  // No src, or no '>': nothing to block.
  Page q(0x800);
  EXPECT_EQ("<img width=3><img src=x", q.show("<img width=3><img src=x"));
  EXPECT_EQ(0, q.d.is_block_image);
  EXPECT_EQ("<img src=x>", show(0, "<img src=x>"));
}

TEST(Html2dispImages, ContentIdReferencesBecomeLinksToSavedParts) {
  Page p(0x800, kCidParts);
  std::snprintf(p.d.attFilePrefix, sizeof p.d.attFilePrefix, "%s", "P1_");
  fileCID& img = p.add_cid("img1@x", "3", "x&y <z>.gif", "gif", MIME_CT_IMAGE);
  fileCID& doc = p.add_cid("doc@x", "4", "d.pdf", "pdf", MIME_CT_OTHER);
  EXPECT_EQ("<img src=\"/cgi-bin/downfile/P1_3.gif/x&amp;y _z_.gif\">",
            p.show("<img src=\"cid:img1@x\">"));
  EXPECT_EQ(0, p.d.is_block_image);
  EXPECT_EQ(1, img.flag);
  EXPECT_EQ(0, doc.flag);
  EXPECT_EQ("<a href='/cgi-bin/downfile/P1_4.pdf/d.pdf'>", p.show("<a href='CID:doc@x'>"));
  EXPECT_EQ(1, doc.flag);
  // An unknown ID stays, and its image is blocked.
  EXPECT_EQ("<img src=\"/img/rrblk.gif\" width=8 height=8>", p.show("<img src=cid:other>"));
  // The key of the page goes into every link.
  p.d.pszVar1 = "k9";
  EXPECT_EQ("<p background=\"/cgi-bin/downfile/P1_3.gif/x&amp;y _z_.gif?ximkey=k9\">",
            p.show("<p background=\"cid:img1@x\">"));
  // With 0x1000 inline pictures show as the blank image.
  p.d.html2disp_flag |= 0x1000;
  EXPECT_EQ("<td background=/img/rrblk.gif>", p.show("<td background=cid:img1@x>"));
  // Only inside tags (or a style sheet's url()).
  EXPECT_EQ("src=cid:img1@x", p.show("src=cid:img1@x"));
}

TEST(Html2dispImages, LocationReferencesAndStyleSheetUrls) {
  Page p(0, kCidParts | kLocParts);
  p.add_cid("bg", "7", "bg.png", "png", MIME_CT_IMAGE);
  p.add_loc("http://site/logo.gif", "5", "logo.gif", "gif", MIME_CT_IMAGE);
  p.add_loc("images/a.gif", "6", "a.gif", "gif", MIME_CT_IMAGE);
  EXPECT_EQ("<img SRC = \"/cgi-bin/downfile/5.gif/logo.gif\">", p.show("<img SRC = \"http://site/logo.gif\">"));
  EXPECT_EQ(1, p.d._MHTML_found);
  EXPECT_EQ("<style>p{background:url(/cgi-bin/downfile/7.png/bg.png)}</style>",
            p.show("<style>p{background:url(cid:bg)}</style>"));
  // In a sheet, a location is only tried at the letters that begin a URI
  // attribute's name.
  EXPECT_EQ("<style>a{b:url(/cgi-bin/downfile/5.gif/logo.gif)} c{d:url(images/a.gif)}</style>",
            p.show("<style>a{b:url(http://site/logo.gif)} c{d:url(images/a.gif)}</style>"));
  // Body backgrounds that name a saved part.
  Page b(0x208, kCidParts);
  b.add_cid("bg", "7", "bg.png", "png", MIME_CT_IMAGE);
  EXPECT_EQ("<div width=\"100%\"  style=\"background-image:url(/cgi-bin/downfile/7.png/bg.png)\"><x-body /></div>",
            b.show("<body background=\"cid:bg\">"));
}

TEST(Html2dispImages, ViewHtmlEntityOnlyLooks) {
  Page p(0x800, kCidParts);
  p.add_cid("in@x", "1", "i.gif", "gif", MIME_CT_IMAGE);
  std::string html = "<p><IMG src=cid:in@x><img alt=x src='http://a/b'>";
  view_html_entity(html.data(), nullptr, &p.d);
  EXPECT_EQ(1, p.d.is_block_image);
  EXPECT_EQ(nullptr, p.d.pcResult);
  for (const char* only_inside : {"<img src=cid:in@x>", "<img alt=1>", "<p src=http://x>"}) {
    Page q(0x800, kCidParts);
    q.add_cid("in@x", "1", "i.gif", "gif", MIME_CT_IMAGE);
    std::string h = only_inside;
    view_html_entity(h.data(), nullptr, &q.d);
    EXPECT_EQ(0, q.d.is_block_image) << only_inside;
  }
  Page off(0);
  view_html_entity(html.data(), nullptr, &off.d);
  EXPECT_EQ(0, off.d.is_block_image);
}

TEST(Html2dispImages, LookaheadUriWritesTheAttributeUpToItsValue) {
  Page p(0);
  int inquote = 0;
  std::string s = "HREF =\t\"' x";
  char* q = s.data();
  EXPECT_EQ(1, lookaheadURI(&q, &p.d, &inquote));
  EXPECT_EQ("x", std::string(q));
  EXPECT_EQ(1, inquote);
  EXPECT_EQ("HREF =\t\"' ", std::string(p.d.pcResult, static_cast<size_t>(p.d.nResultSize)));
  std::string t = "codebase=x";  // the name is spelled "codebse"
  q = t.data();
  EXPECT_EQ(0, lookaheadURI(&q, &p.d, &inquote));
  std::string u = "codebse=x";
  q = u.data();
  EXPECT_EQ(1, lookaheadURI(&q, &p.d, &inquote));
  EXPECT_EQ(1, inquote);
}

// ---- filters ----

char* upper_filter(MIME_DISP*, char* text, int flag) {
  if (flag == 1)
    for (char* p = text; *p; ++p) *p = static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));
  return text;
}
char* tail_filter(MIME_DISP*, char* text, int) { return text + 1; }
char* drop_filter(MIME_DISP*, char*, int) { return nullptr; }

TEST(Html2dispTags, FiltersRunFirstInOrder) {
  Page p(0x10);
  p.d.Filter2 = upper_filter;
  p.d.Filter4 = tail_filter;
  EXPECT_EQ("<base href=b><x-html />A", p.show("x<html>a", "b"));
  p.d.Filter5 = drop_filter;
  EXPECT_EQ("", p.show("<p>"));
}

// ---- hostile bodies ----

// Each body would take hours if a look-ahead ran to the end of the text
// from every position; here they must simply finish.
TEST(Html2dispHostile, UnclosedConstructsAndHugeValuesStayLinear) {
  const size_t kBig = size_t{1} << 20;
  auto repeat = [&](const std::string& unit) {
    std::string s;
    while (s.size() < kBig) s += unit;
    return s;
  };
  const int kAll = 0xFFFFF;
  Page p(kAll, kCidParts | kLocParts);
  p.add_cid("a", "1", "a.gif", "gif", MIME_CT_IMAGE);
  p.add_loc("aaaa", "2", "b.gif", "gif", MIME_CT_IMAGE);
  const std::string bodies[] = {
      repeat("<img "),
      repeat("<img src=cid:a "),
      "<a " + repeat("href="),
      "<a " + repeat("href='x href=\"y "),
      "<a href=\"" + repeat("href=x "),
      "<p " + repeat("img ") + "src=\"" + std::string(kBig, 'x') + "\">",
      "<p " + repeat("meta ") + "http-equiv=\"" + std::string(kBig, 'r') + "\">",
      repeat("<link"),
      repeat("<head><base"),
      repeat("<style"),
      repeat("<iframe"),
      repeat("<isindex"),
      repeat("<script>"),
      repeat("<xml><"),
      repeat("<body bgcolor="),
      repeat("<!--"),
      repeat("\" onx"),
      "<style>" + repeat("url(a"),
      "<p title='" + std::string(kBig, '\\') + "'>",
      "<img src=\"" + std::string(kBig, 'a') + "\">",
  };
  for (const std::string& body : bodies) {
    const std::string out = p.show(body);
    EXPECT_LE(out.size(), 8 * body.size() + 64) << body.substr(0, 40);
  }
}

TEST(Html2dispHostile, TheTextEndsAtItsFirstNul) {
  Page p(0x807f8);
  std::string html("<a href=\"mailto:x\0<script>", 26);
  EXPECT_EQ("<a href=\"/cgi-bin/genMail?adr=x&\" target=\"new_win\"", p.show(html));
  EXPECT_EQ("", p.show(std::string("\0<b>", 4)));
  html2disp(nullptr, nullptr, &p.d);
  html2disp(const_cast<char*>(""), nullptr, nullptr);
}

// ---- the public XSS vectors ----

TEST(Html2dispXss, EveryVectorThroughTheReadingPagesCountsTracked) {
  if (tarntest::corpus_files("xss").empty()) GTEST_SKIP() << "no XSS corpus";
  const auto vectors = tarntest::xss_vectors();
  EXPECT_EQ(1088u, vectors.size());
  struct Preset {
    const char* name;
    const MIME_DISP* disp;
  };
  const Preset kPresets[] = {{"raw", nullptr}, {"mailreadDE", &mailreadDE}, {"msgreadDE", &msgreadDE}};
  std::map<std::string, std::map<std::string, tarntest::XssCounts>> counts;  // page -> source -> counts
  for (const auto& [source, html] : vectors) {
    for (const Preset& pr : kPresets) {
      std::string out = html.substr(0, html.find('\0'));
      if (pr.disp != nullptr) {
        Page p(pr.disp->html2disp_flag, kCidParts | kLocParts);
        p.add_cid("x", "1", "x.gif", "gif", MIME_CT_IMAGE);
        out = p.show(html);
      }
      counts[pr.name][source].add(out);
      counts[pr.name]["all"].add(out);
    }
  }
  std::ostringstream table;
  table << "# page\tsource\tvectors\t<script\tjavascript:\ton...=\n";
  for (const Preset& pr : kPresets)
    for (const auto& [source, c] : counts[pr.name])
      table << pr.name << '\t' << source << '\t' << c.vectors << '\t' << c.script_tag << '\t' << c.js_url << '\t'
            << c.on_attr << '\n';
  const std::string golden_path = kDataDir + "/xss_counts.tsv";
  const char* update = std::getenv("TARN_UPDATE_GOLDEN");
  if (update != nullptr && std::strcmp(update, "1") == 0) {
    std::ofstream(golden_path, std::ios::binary) << table.str();
    GTEST_SKIP() << "rewrote " << golden_path;
  }
  EXPECT_EQ(tarntest::read_file(golden_path), table.str())
      << "the counts changed; after checking why, run again with TARN_UPDATE_GOLDEN=1";
}

}  // namespace
