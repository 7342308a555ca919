// The rendering walk: which bodies reach the content filters, which media
// are embedded and how, the choice among alternatives, the form errors,
// the UTF-7 conversion, and the quiet view walk.
//
// Text and HTML bodies are handed to a disp_func that records them, so the
// walk's decisions are seen apart from what the content filters make of
// the text.  Message headers are left out (MIME_DISP_NO_FORM_HEADER).

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "mime_disp_internal.h"
#include "support.h"

namespace {

std::vector<std::string> g_bodies;
void record_body(char* text) { g_bodies.emplace_back(text != nullptr ? text : "<null>"); }

std::vector<std::string> g_viewed;
char* record_viewer(char* body, char* form, const char* charset) {
  g_viewed.push_back(std::string(body) + "|" + form + "|" + charset);
  return nullptr;
}

// One rendering of a message into a growing buffer.
class Render {
 public:
  explicit Render(const std::string& message, const MIME_DISP& preset = mailreadDE)
      : dec_(message, generalME), d_(preset) {
    d_.disp_flag = (d_.disp_flag & ~MIME_DISP_OUT_STREAM) | MIME_DISP_OUT_GROWING | MIME_DISP_NO_FORM_HEADER;
    mime_disp_set_downfilepath(&d_, (form_dir() + "/dl").c_str(), nullptr);
    mime_disp_init(&d_, &dec_.ctx().result, "", form_dir().c_str());
    MSTR_Copy(d_.attFilePrefix, sizeof d_.attFilePrefix, "P_", 0);
    d_.disp_func = record_body;
    g_bodies.clear();
    g_viewed.clear();
  }
  ~Render() { mime_disp_shutdown(&d_); }

  MIME_DISP& d() { return d_; }
  ME* root() { return dec_.root(); }
  std::vector<ME*> parts() { return tarntest::walk(dec_.root()); }

  std::string run() {
    EXPECT_EQ(0, mime_disp_run(&d_));
    return output();
  }
  std::string output() {
    char* buf = nullptr;
    long n = 0;
    mime_disp_getresult(&d_, &buf, &n);
    return buf != nullptr ? std::string(buf, static_cast<size_t>(n)) : std::string();
  }

  // Forms and saved parts of every rendering live in one temporary
  // directory, removed at exit.
  static const std::string& form_dir() {
    static const struct Dir {
      Dir() {
        char tmpl[] = "/tmp/tarn_ct2disp_XXXXXX";
        path = mkdtemp(tmpl);
        std::ofstream(path + "/card.dat") << "FORM";
        std::ofstream(path + "/view.dat") << "VIEWFORM";
        std::filesystem::create_directory(path + "/dl");
      }
      ~Dir() { std::filesystem::remove_all(path); }
      std::string path;
    } dir;
    return dir.path;
  }

 private:
  tarntest::Decoded dec_;
  MIME_DISP d_;
};

std::string multipart(const std::string& type, const std::vector<std::string>& parts) {
  std::string m = "From: a@b\nSubject: t\nMIME-Version: 1.0\nContent-Type: multipart/" + type +
                  "; boundary=\"BB\"\n\npreamble\n";
  for (const auto& p : parts) m += "--BB\n" + p + "\n";
  return m + "--BB--\n";
}

// Path mapping: a sub-directory per message prefix.
char* web_subdir(char* prefix, char* path, int flag, ...) {
  static std::string s;
  s = std::string(path) + "/" + prefix + std::to_string(flag);
  return s.data();
}

const std::string kPlain = "Content-Type: text/plain\n\nPLAIN";
const std::string kHtml = "Content-Type: text/html\n\n<b>HTML</b>";
const std::string kImage =
    "Content-Type: image/gif; name=\"pic one.gif\"\nContent-Transfer-Encoding: base64\n\nR0lGODlhAQABAAAAACw=";

TEST(Ct2Disp, AlternativeChoice) {
  const std::string msg = multipart("alternative", {kPlain, kHtml});
  struct Case {
    int alt_flag;
    std::vector<std::string> bodies;
  } cases[] = {{3, {"<b>HTML</b>"}}, {1, {"<b>HTML</b>"}}, {2, {"PLAIN"}}, {0, {"PLAIN"}}};
  for (const auto& c : cases) {
    Render r(msg);
    r.d().disp_alt_flag = c.alt_flag;
    EXPECT_EQ("", r.run());
    EXPECT_EQ(c.bodies, g_bodies) << "disp_alt_flag " << c.alt_flag;
  }
  {
    // The alternative after the chosen one keeps its skip mark.
    Render r(msg);
    r.d().disp_alt_flag = 2;
    r.run();
    ME* alt_plain = r.root()->child;
    EXPECT_EQ(1, alt_plain->next->me_flag & 1);
  }
  {
    // Only an application part and an image: the image, embedded by link.
    Render r(multipart("alternative", {"Content-Type: application/x-foo; name=\"f.foo\"\n\nFOO", kImage}));
    r.d().disp_alt_flag = 1;
    EXPECT_EQ("\n<BR><center><img src=\"/cgi-bin/downfile/P_2A.gif/pic one.gif\" alt=\"pic one.gif\"></center><BR>\n",
              r.run());
  }
  {
    // disp_alt_flag 4: the other alternatives go to a matching viewer
    // first; the chosen one follows.
    Render r(multipart("alternative", {"Content-Type: application/x-foo\n\nFOO", kPlain}));
    mime_disp_setattshow(&r.d(), "application/x-FOO", "view.dat", record_viewer, 0, 0);
    r.d().disp_alt_flag = 6;
    r.d().nDispCharsetVal = MLG_UTF8;
    EXPECT_EQ("", r.run());
    EXPECT_EQ(std::vector<std::string>{"FOO|VIEWFORM|utf-8"}, g_viewed);
    EXPECT_EQ(std::vector<std::string>{"PLAIN"}, g_bodies);
  }
}

TEST(Ct2Disp, AttachmentSizeAndDispositionRules) {
  auto text_att = [](size_t n) {
    return multipart("mixed", {kPlain, "Content-Type: text/plain\nContent-Disposition: attachment; filename=\"a.txt\"\n\n" +
                                           std::string(n, 'x')});
  };
  {
    Render r(text_att(20480));
    r.run();
    ASSERT_EQ(2u, g_bodies.size());
    EXPECT_EQ(20480u, g_bodies[1].size());
  }
  {
    Render r(text_att(20481));
    r.run();
    EXPECT_EQ(std::vector<std::string>{"PLAIN"}, g_bodies);
  }
  {
    Render r(text_att(10));
    r.d().disp_flag |= MIME_DISP_NO_INLINE_TEXT_ATT;
    r.run();
    EXPECT_EQ(std::vector<std::string>{"PLAIN"}, g_bodies);
  }
  {
    Render r(text_att(10));
    r.d().disp_flag |= MIME_DISP_NO_INLINE_ATT;
    r.run();
    EXPECT_EQ(std::vector<std::string>{"PLAIN"}, g_bodies);
  }
  // A message attachment larger than txt_show_size is still shown, unless
  // MIME_DISP_RFC822_INLINE is set.
  const std::string inner = "Subject: in\n\n" + std::string(30000, 'm');
  const std::string big_msg =
      multipart("mixed", {kPlain, "Content-Type: message/rfc822\nContent-Disposition: attachment\n\n" + inner});
  {
    Render r(big_msg);
    r.run();
    ASSERT_EQ(2u, g_bodies.size());
    EXPECT_EQ(std::string(30000, 'm'), g_bodies[1]);
  }
  {
    Render r(big_msg);
    r.d().disp_flag |= MIME_DISP_RFC822_INLINE;
    r.run();
    EXPECT_EQ(std::vector<std::string>{"PLAIN"}, g_bodies);
  }
}

TEST(Ct2Disp, MessagePartsUnderTheInlineSwitch) {
  auto with_disp = [](const std::string& disp) {
    return multipart("mixed", {kPlain, "Content-Type: message/rfc822\n" + disp + "\nSubject: in\n\nINNER"});
  };
  struct Case {
    std::string disp;
    int flag;
    std::vector<std::string> bodies;
  } cases[] = {
      {"", MIME_DISP_RFC822_INLINE, {"PLAIN"}},
      {"Content-Disposition: inline\n", MIME_DISP_RFC822_INLINE, {"PLAIN", "INNER"}},
      {"", 0, {"PLAIN", "INNER"}},
  };
  for (const auto& c : cases) {
    Render r(with_disp(c.disp));
    r.d().disp_flag |= c.flag;
    r.run();
    EXPECT_EQ(c.bodies, g_bodies) << c.disp << c.flag;
  }
}

TEST(Ct2Disp, ImageLinksAndEmbeds) {
  const std::string msg = multipart("mixed", {kPlain, kImage});
  auto render = [&](auto&& adjust) {
    Render r(msg);
    adjust(r.d());
    return r.run();
  };
  EXPECT_EQ("\n<BR><center><img src=\"/cgi-bin/downfile/P_1A.gif/pic one.gif\" alt=\"pic one.gif\"></center><BR>\n",
            render([](MIME_DISP&) {}));
  EXPECT_EQ("\n<BR><center><img src=\"http://h/cgi-bin/downfile/arg/P_1A.gif/pic one.gif?ximkey=K\" alt=\"pic one.gif\">"
            "</center><BR>\n",
            render([](MIME_DISP& d) {
              MSTR_Copy(d.disp_base, sizeof d.disp_base, "http://h", 0);
              mime_disp_setdownfile_arg(&d, "arg");
              d.pszVar1 = "K";
            }));
  EXPECT_EQ("", render([](MIME_DISP& d) { d.disp_flag |= MIME_DISP_NO_INLINE_ATT; }));

  // TIFF, video and audio go in as embedded objects under the web path.
  const std::string media = multipart(
      "mixed", {"Content-Type: image/tiff; name=\"s.tif\"\n\nII*", "Content-Type: video/mpeg; name=\"v.mpg\"\n\nV",
                "Content-Type: audio/basic; name=\"a.au\"\n\nA"});
  {
    Render r(media);
    EXPECT_EQ("<hr><EMBED WIDTH=\"100%\" HEIGHT=\"100%\" SRC=\"/filedownload/P_1A.tif\"></EMBED>"
              "<hr><EMBED SRC=\"/filedownload/P_2A.mpg\"></EMBED><hr><EMBED SRC=\"/filedownload/P_3A.au\"></EMBED>",
              r.run());
  }
  {
    Render r(media);
    r.d().disp_image_flag = MIME_DISP_IMG_AUDIO;
    r.d().filename2path = web_subdir;
    EXPECT_EQ("<hr><EMBED SRC=\"/filedownload/P_1/P_3A.au\"></EMBED>", r.run());
  }
}

TEST(Ct2Disp, ImagesShownByReferenceAreNotEmbeddedAgain) {
  const std::string msg = multipart(
      "related", {kHtml, "Content-Type: image/gif; name=\"i.gif\"\nContent-ID: <img1@x>\n\nGIF",
                  "Content-Type: image/png; name=\"j.png\"\nContent-Location: http://x/j.png\n\nPNG"});
  const std::string both =
      "\n<BR><center><img src=\"/cgi-bin/downfile/P_1I.gif/i.gif\" alt=\"i.gif\"></center><BR>\n"
      "\n<BR><center><img src=\"/cgi-bin/downfile/P_2I.png/j.png\" alt=\"j.png\"></center><BR>\n";
  {
    Render r(msg);
    mime_view_run(&r.d());  // registers the Content-ID and the location
    EXPECT_EQ("", r.output());
    EXPECT_STREQ("img1@x", r.d()._fileCID.cid);
    EXPECT_STREQ("http://x/j.png", r.d()._fileLOC.loc);
    EXPECT_EQ(both, r.run());
  }
  {
    // The HTML body referenced both: neither is embedded below it.
    Render r(msg);
    mime_view_run(&r.d());
    r.d()._fileCID.flag = 1;
    r.d()._fileLOC.flag = 1;
    EXPECT_EQ("", r.run());
    EXPECT_EQ(std::vector<std::string>{"<b>HTML</b>"}, g_bodies);
  }
  {
    // With the rewriter showing referenced images blank, they count as
    // shown whether or not a body referenced them.
    Render r(msg);
    mime_view_run(&r.d());
    r.d().html2disp_flag |= 0x1000;
    EXPECT_EQ("", r.run());
  }
}

TEST(Ct2Disp, ShowedLookups) {
  MIME_DISP d = mailreadDE;
  char cid1[] = "<a@x>", cid2[] = "<>", loc[] = "http://x/a";
  char name[] = "a.gif", id[] = "1I", ct[] = "image/gif", cs[] = "";
  cid2link(cid2, name, id, ct, MIME_CT_IMAGE, cs, &d);  // empty after stripping: names nothing
  cid2link(cid1, name, id, ct, MIME_CT_TEXT, cs, &d);
  loc2link(loc, name, id, ct, MIME_CT_IMAGE, cs, &d);
  d._fileCID.next->flag = 1;
  EXPECT_EQ(1, showed_CID("<a@x.org>", &d));  // the stored id is compared over its own length
  EXPECT_EQ(0, showed_CID("a@x", &d));        // the first character is taken for "<"
  EXPECT_EQ(0, showed_CID("", &d));
  EXPECT_EQ(0, showed_LOC("http://x/a", &d));
  d.html2disp_flag = 0x1000;
  EXPECT_EQ(1, showed_contentdisp("<zz>", "http://x/a", &d));
  mime_disp_shutdown(&d);
}

TEST(Ct2Disp, FormErrorsEndTheChain) {
  const std::string card = "Content-Type: text/x-vcard; name=\"c.vcf\"\n\nBEGIN:VCARD\r\nFN:A & <B>\r\nEND:VCARD";
  const std::string msg = multipart("mixed", {card, "Content-Type: text/plain\n\nAFTER"});
  {
    Render r(msg);
    MSTR_Copy(r.d().vcard_form, sizeof r.d().vcard_form, "missing.dat", 0);
    EXPECT_EQ("vcard internal form read error!!!\n", r.run());
    EXPECT_TRUE(g_bodies.empty());
  }
  {
    Render r(msg);
    MSTR_Copy(r.d().vcard_form, sizeof r.d().vcard_form, "card.dat", 0);
    EXPECT_EQ("BEGIN:VCARD<br>\nFN:A &amp; &lt;B&gt;<br>\nEND:VCARD<br>\n", r.run());
    EXPECT_EQ(std::vector<std::string>{"AFTER"}, g_bodies);
  }
  {
    Render r(msg);
    r.d().vcard_form[0] = '\0';  // vCards not rendered: the part is plain text
    mime_disp_setattshow(&r.d(), "text/plain", "nothere.dat", record_viewer, 0, 0);
    EXPECT_EQ("attshow internal form read error!!!(" + Render::form_dir() + "/nothere.dat)\n", r.run());
    EXPECT_EQ(std::vector<std::string>{"AFTER"}, g_bodies);  // the body comes before the viewer
  }
}

TEST(Ct2Disp, Utf7TextIsShownAsUtf8) {
  const std::string msg = "Content-Type: text/plain; charset=utf-7\n\nHi +AKM-1";
  {
    Render r(msg);
    r.d().disp_flag |= MIME_DISP_UTF7;
    r.run();
    EXPECT_EQ(1, MMIME_ConvertUtf72Utf8);
    EXPECT_EQ(MIME_CS_UTF8, r.d().showdata->me_info.result_cset);
    EXPECT_EQ(std::vector<std::string>{"Hi \xC2\xA3" "1"}, g_bodies);
    EXPECT_EQ(MLG_UTF8, r.d().nTextCharsetVal);
    EXPECT_EQ(nullptr, r.root()->body_bgn);  // the converted body does not outlive the rendering
  }
  {
    Render r(msg);
    r.run();
    EXPECT_EQ(0, MMIME_ConvertUtf72Utf8);
    EXPECT_EQ(std::vector<std::string>{"Hi +AKM-1"}, g_bodies);
  }
}

TEST(Ct2Disp, BodiesThroughTheTextRenderer) {
  {
    // text2disp_flag 0x20 closes every plain-text body with a line break.
    Render r("Content-Type: text/plain\n\nx<y");
    r.d().disp_func = nullptr;
    r.d().text2disp_flag = 0x120;
    EXPECT_EQ("x&lt;y<br>\n", r.run());
  }
  {
    // Text mode: the HTML body loses its tags and is shown as text.
    Render r("Content-Type: text/html\n\n<p>a&amp;b</p><p>c<b>d</b></p>");
    r.d().disp_func = nullptr;
    r.d().disp_flag |= MIME_DISP_TEXT_MODE;
    r.d().text2disp_flag = 0x100;
    EXPECT_EQ("a&b\ncd\n", r.run());
  }
  {
    // A UTF-7 HTML body on a page that does not convert UTF-7 is reduced
    // as UTF-8 and handed on in UTF-7 again.
    Render r("Content-Type: text/html; charset=utf-7\n\n<p>+AKM-</p>");
    r.d().disp_flag |= MIME_DISP_TEXT_MODE;
    r.run();
    EXPECT_EQ(std::vector<std::string>{"+AKM-\n"}, g_bodies);
  }
}

TEST(Ct2Disp, HtmlBodyShowsItsImageOnce) {
  // The HTML body links the image by its Content-ID; the image part below
  // it is then not embedded a second time.
  Render r(multipart("related", {"Content-Type: text/html\n\n<p><img src=\"cid:img1@x\"></p>",
                                 "Content-Type: image/gif; name=\"i.gif\"\nContent-ID: <img1@x>\n\nGIF"}));
  r.d().disp_func = nullptr;
  prepare_attachment(r.root(), &r.d());  // what the header block does first
  EXPECT_EQ("<p><img src=\"/cgi-bin/downfile/P_1I.gif/i.gif\"></p>", r.run());
  EXPECT_EQ(1, r.d()._fileCID.flag);
}

TEST(Ct2Disp, ManyPartsAndDeepNesting) {
  {
    std::vector<std::string> parts(20000, "Content-Type: text/plain\n\np");
    Render r(multipart("mixed", parts));
    r.run();
    EXPECT_EQ(20000u, g_bodies.size());
  }
  {
    std::string msg = "Content-Type: text/plain\n\ndeep";
    for (int i = 0; i < 150; ++i)
      msg = "Content-Type: multipart/mixed; boundary=\"L" + std::to_string(i) + "\"\n\n--L" + std::to_string(i) + "\n" +
            msg + "\n--L" + std::to_string(i) + "--\n";
    Render r(msg);
    r.run();
    EXPECT_EQ(std::vector<std::string>{"deep"}, g_bodies);
  }
}

TEST(Ct2Disp, HeaderWithoutTheFormStillSavesTheParts) {
  const std::string msg = multipart("related", {kHtml, "Content-Type: image/gif; name=\"i.gif\"\nContent-ID: <img1@x>\n\nGIF"});
  const std::string tag = "\n<BR><center><img src=\"/cgi-bin/downfile/P_1I.gif/i.gif\" alt=\"i.gif\"></center><BR>\n";
  {
    Render r(msg);
    r.d().disp_flag |= MIME_DISP_PLAIN_HEADER;
    EXPECT_EQ(tag, r.run());
    EXPECT_STREQ("img1@x", r.d()._fileCID.cid);
    EXPECT_EQ("GIF", tarntest::read_file(Render::form_dir() + "/dl/P_1I.gif"));
  }
  {
    Render r(msg);
    EXPECT_EQ(tag, r.run());
    EXPECT_EQ(nullptr, r.d()._fileCID.cid);
  }
}

}  // namespace
