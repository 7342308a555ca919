// Header blocks: value tags, sections and their else branches, the address
// loops with their compose links, dates in the user's zone, the error
// text, hostile forms and headers, and every form of data/forms rendered
// with a real message through the contexts that name it.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "mime_disp_internal.h"
#include "support.h"

namespace fs = std::filesystem;

namespace {

const std::string kMessage =
    "From: \"Doe, John\" <jd@example.com>\nTo: Ann <ann@example.org>, bob@example.net\nCc: \n"
    "Date: Mon, 05 Jan 2026 10:00:00 +0800\nSubject: Hi <all> & \"you\"\nNewsgroups: comp.mail\n"
    "Resent-From: fwd@example.com\n\nBody\n";

std::string forms_dir() { return std::string(TARN_SOURCE_DIR) + "/data/forms"; }

// One decoded message and a context writing into a growing buffer; saved
// parts go to `dir` under the prefix "P_".
class Page {
 public:
  Page(const std::string& message, const MIME_DISP& preset, const std::string& forms, const std::string& dir)
      : dec_(message, generalME), d_(preset) {
    d_.disp_flag = (d_.disp_flag & ~(MIME_DISP_OUT_STREAM | MIME_DISP_OUT_FIXED)) | MIME_DISP_OUT_GROWING;
    mime_disp_set_downfilepath(&d_, dir.c_str(), nullptr);
    mime_disp_init(&d_, &dec_.ctx().result, "", forms.c_str());
    MSTR_Copy(d_.attFilePrefix, sizeof d_.attFilePrefix, "P_", 0);
  }
  ~Page() { mime_disp_shutdown(&d_); }

  MIME_DISP& d() { return d_; }
  ME* root() { return dec_.root(); }
  std::string header(ME* me = nullptr) {
    show_m_header(me != nullptr ? me : root(), &d_);
    return output();
  }
  std::string output() {
    char* buf = nullptr;
    long n = 0;
    mime_disp_getresult(&d_, &buf, &n);
    return buf != nullptr ? std::string(buf, static_cast<size_t>(n)) : std::string();
  }

 private:
  tarntest::Decoded dec_;
  MIME_DISP d_;
};

class ShowHeader : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/tarn_showhdr_XXXXXX";
    dir_ = mkdtemp(tmpl);
    unsetenv("QUERY_STRING");
    setenv("TZ", "UTC", 1);
    tzset();
    MUPRF_GlobalLoad(nullptr);
  }
  void TearDown() override {
    unsetenv("QUERY_STRING");
    MUPRF_GlobalLoad(nullptr);
    fs::remove_all(dir_);
  }

  // The header block of `message` made with `form`; `tweak` adjusts the
  // context first.
  std::string expand(const std::string& form, const std::string& message = kMessage,
                     void (*tweak)(MIME_DISP&) = nullptr, int flags = 0) {
    std::ofstream(dir_ + "/h.dat", std::ios::binary) << form;
    Page page(message, mailreadDE, dir_, dir_);
    MSTR_Copy(page.d().header_form, sizeof page.d().header_form, "h.dat", 0);
    page.d().disp_flag |= flags;
    if (tweak != nullptr) tweak(page.d());
    return page.header();
  }
  std::string with_flags(const std::string& form, int flags, const std::string& message = kMessage) {
    return expand(form, message, nullptr, flags);
  }

  std::string dir_;
};

TEST_F(ShowHeader, FieldValueTags) {
  EXPECT_EQ("[Hi &lt;all&gt; & &quot;you&quot;|Hi &lt;all&gt; & &quot;you&quot;]", expand("[$_subject|$esub]"));
  EXPECT_EQ("[comp.mail|fwd@example.com|Mon, 05 Jan 2026 02:00:00]", expand("[$_newsgroups|$_xfb|$_date]"));
  // The JavaScript forms escape the rendered HTML once more.
  EXPECT_EQ("[Hi \\x26lt;all\\x26gt; \\x26 \\x26quot;you\\x26quot;|Mon, 05 Jan 2026 02:00:00]",
            expand("[$_subject_js|$_date_js]"));
  EXPECT_EQ("[|||]", expand("[$_subject|$esub|$_xfb|$_newsgroups]", "From: a@b\n\nx\n"));
}

TEST_F(ShowHeader, PageAndContextTags) {
  setenv("QUERY_STRING", "msgid=M<1>&mbox=INBOX&m=mg&board=b1&enews=e2", 1);
  EXPECT_EQ("msgid%3DM%3C1%3E%26mbox%3DINBOX%26m%3Dmg%26board%3Db1%26enews%3De2", expand("$Enc_back"));
  // Request variables stand as they came.
  EXPECT_EQ("M<1>|INBOX|mg|b1e2|boardenews", expand("$msg|$mbox|$magic|$board_enews_id|$board_enews"));
  setenv("QUERY_STRING", "enews=e2", 1);
  EXPECT_EQ("[|e2|enews]", expand("[$msg|$board_enews_id|$board_enews]"));

  EXPECT_EQ("P_|>>|v1||v3|/l?a=1&amp;b=&quot;2&quot;|/l?a=1&b=\"2\"|/1234.eml",
            expand("$prefix|$rs|$var1|$var2|$var3|$logo_url_esc|$logo_url|$path", kMessage, [](MIME_DISP& d) {
              mime_disp_setvar(&d, "v1", nullptr, "v3");
              MSTR_Copy(d.logo_url, sizeof d.logo_url, "/l?a=1&b=\"2\"", 0);
              MSTR_Copy(d.reply_sign, sizeof d.reply_sign, ">>", 0);
              d.showdata->me_info.msgpath = "/var/mail/box/1234.eml";
            }));
  EXPECT_EQ("[]", expand("[$path]", kMessage, [](MIME_DISP& d) { d.showdata->me_info.msgpath = "no-slash"; }));
}

TEST_F(ShowHeader, FlagSectionsAndElseBranches) {
  const std::string form =
      "$ifextE$ifext_elseN$$ifext|$iftrustT$$iftrust|$ifsender_inadbA$ifsender_inadb_elseB$$ifsender_inadb|"
      "$if_have_block_imgI$$if_have_block_img|$ifdlL$$ifdl|$ifdcC$$ifdc|$iftextmodeX$iftextmode_elseH$$iftextmode";
  EXPECT_EQ("N||B||||H", with_flags(form, 0));
  EXPECT_EQ("E|T|A|I|L|C|X", with_flags(form, MIME_DISP_IFEXT | MIME_DISP_IFTRUST | MIME_DISP_SENDER_INADB |
                                                    MIME_DISP_IF_BLOCK_IMG | MIME_DISP_IFDL | MIME_DISP_IFDC |
                                                    MIME_DISP_TEXT_MODE));
  // The run-time blocked-image mark is not what the section asks.
  EXPECT_EQ("[]", expand("[$if_have_block_imgI$$if_have_block_img]", kMessage,
                         [](MIME_DISP& d) { d.is_block_image = 1; }));
  EXPECT_EQ("[no]", expand("[$iflogoyes$iflogo_elseno$$iflogo]"));
  EXPECT_EQ("[yes]", expand("[$iflogoyes$iflogo_elseno$$iflogo]", kMessage,
                            [](MIME_DISP& d) { MSTR_Copy(d.logo_url, sizeof d.logo_url, "x", 0); }));
  const std::string page_form = "$1_th\nfirst$$1_th\n|$!1_th\nlater$$!1_th\n|$show\nshown$$show\n";
  EXPECT_EQ("first||", expand(page_form));
  EXPECT_EQ("|later|shown", expand(page_form, kMessage, [](MIME_DISP& d) {
              d.is_first_header = 0;
              d._show = 1;
            }));
}

TEST_F(ShowHeader, FieldSections) {
  const std::string form =
      "$xfb\nX$$xfb\n$to\nT$$to\n$cc\nC$$cc\n$bcc\nB$$bcc\n$date\nD$$date\n$subject\nS$$subject\n"
      "$newsgroups\nN$$newsgroups\n";
  // An empty Cc is dropped, an empty Subject kept.
  EXPECT_EQ("XTDSN", expand(form));
  EXPECT_EQ("S", expand(form, "From: a@b\nSubject:\nCc:  \n\nx\n"));
  EXPECT_EQ("CB", expand(form, "Cc: c@d\nBcc: e@f\n\nx\n"));
  // Without a From the else branch comes with the newline of its tag.
  const std::string from = "<$from\nF:$_from$id$$loop$from_else\nnone$$from\n>";
  EXPECT_EQ("<F:Doe, John>", expand(from));
  EXPECT_EQ("<\nnone>", expand(from, "To: x@y\n\nbody\n"));
  EXPECT_EQ("<>", expand("<$from\nF$$from\n>", "To: x@y\n\nbody\n"));
}

TEST_F(ShowHeader, AttachmentSectionAndLoop) {
  const std::string mixed =
      "From: a@b\nContent-Type: multipart/mixed; boundary=\"XX\"\n\n--XX\nContent-Type: text/plain\n\nhi\n"
      "--XX\nContent-Type: application/pdf; name=\"r&d.pdf\"\nContent-Transfer-Encoding: base64\n\n"
      "JVBERi0xLjQK\n--XX--\n";
  const std::string form = "$attachment\n[$_attachment<$filename|$name|$prefix$id.$ext|$size>$$loop]\n$$attachment\n";
  EXPECT_EQ("\n[<r&d.pdf|r%26d.pdf|P_1A.pdf|1>]\n\n", expand(form, mixed));
  EXPECT_EQ("%PDF-1.4\n", tarntest::read_file(dir_ + "/P_1A.pdf"));  // saved before the list is made
  // An image that the HTML shows is listed only with the flag for it.
  const std::string related =
      "From: a@b\nContent-Type: multipart/related; boundary=\"XX\"\n\n--XX\nContent-Type: text/html\n\n"
      "<img src=\"cid:p1\">\n--XX\nContent-Type: image/png; name=\"p.png\"\nContent-ID: <p1>\n\nPNG\n--XX--\n";
  EXPECT_EQ("\n", expand(form, related));
  EXPECT_EQ("\n[<p.png|p.png|P_1I.png|1>]\n\n", with_flags(form, MIME_DISP_LIST_SHOWN_IMG, related));
  EXPECT_EQ("\n", expand(form));  // no named part
}

TEST_F(ShowHeader, ScanningRulesAndUnclosedSections) {
  // An unknown "$" stands in the form and goes in an address template.
  EXPECT_EQ("$5 $x $$loop $_SUBJECT $", expand("$5 $x $$loop $_SUBJECT $"));
  EXPECT_EQ("<5 x:ann>", expand("$_to<$5 $x:$id>$$loop", "To: ann@x\n\nb\n"));
  EXPECT_EQ("ab", with_flags("$ifdla$$ifdlb", MIME_DISP_IFDL));
  // A dropped section without its closing tag runs to the end of the form,
  // a loop without "$$loop" too.
  EXPECT_EQ("a", expand("a$ifdlb$ifdc"));
  EXPECT_EQ("aE", expand("a$ifextX$ifext_elseE"));
  EXPECT_EQ("a", expand("a$cc\nnever"));
  EXPECT_EQ("<ann", expand("<$_to$id", "To: ann@x\n\nb\n"));
  EXPECT_EQ("", expand(""));
}

TEST_F(ShowHeader, AddressLoops) {
  EXPECT_EQ(
      "[1]<a href=\"/cgi-bin/genMail?adr=ann%40example.org\">Ann &lt;ann@example.org&gt;</a>(Ann/Ann/ann@example.org)"
      ", <a href=\"/cgi-bin/genMail?adr=bob%40example.net\">bob@example.net</a>(bob/bob/bob@example.net).",
      expand("$_to$ifnot1\n, $$ifnot1\n$if1\n[1]$$if1\n<a href=\"/cgi-bin/genMail?adr=$Enc_addr\">$ID_ADDR_Enc</a>"
             "($id/$Enc_id/$addr)$$loop."));
  // A comma in a quoted name does not split; leading blanks and line
  // breaks go; an empty entry shows nothing.
  EXPECT_EQ("[Doe%2C%20John|Doe, John &lt;jd@x&gt;][Zed|Zed &lt;z@y&gt;][w|w@v]",
            expand("$_to[$Enc_id|$ID_ADDR_Enc]$$loop", "To: \"Doe, John\" <jd@x>,\n\tZed <z@y>, ,w@v,\n\nb\n"));
  // The sender is one address, unquoted comma or not.
  EXPECT_EQ("[Doe, John|jd@x]", expand("$_from[$id|$addr]$$loop", "From: Doe, John <jd@x>\n\nb\n"));
  EXPECT_EQ("O\\x27Neil \\x26lt;o@x\\x26gt;|O\\x27Neil|https://home",
            expand("$_to$ID_ADDR_Enc_js|$id_js|$hsrv$$loop", "To: O'Neil <o@x>\n\nb\n",
                   [](MIME_DISP& d) { d.homesrv_url = "https://home"; }));
  EXPECT_EQ("[]", expand("[$_to$hsrv$$loop]", "To: o@x\n\nb\n"));
  // 1023 bytes is the longest address; a longer one ends the list.
  const std::string longest(1021, 'a');
  EXPECT_EQ("[" + longest + "][c]", expand("$_to[$id]$$loop", "To: " + longest + "@x, c@d\n\nb\n"));
  EXPECT_EQ("[c]", expand("$_to[$id]$$loop", "To: c@d, " + longest + "b@x, e@f\n\nb\n"));
}

TEST_F(ShowHeader, DatesInTheUsersZone) {
  setenv("TZ", "Asia/Tokyo", 1);
  tzset();
  EXPECT_EQ("[Mon, 05 Jan 2026 11:00:00]", expand("[$_date]"));
  // The profile's zone comes first; without one, the process's zone.
  MUPRF_GlobalSetStr("Timezone", "-0530");
  EXPECT_EQ("[Sun, 04 Jan 2026 20:30:00]", expand("[$_date]"));
  MUPRF_GlobalSetStr("Timezone", nullptr);
  EXPECT_EQ("[Mon, 05 Jan 2026 11:00:00]", expand("[$_date]"));
  // A date that does not parse is shown as written; a blank one not at all
  // (parsed, it would be the last midnight).
  EXPECT_EQ("[sometime &lt;soon&gt;]", expand("[$_date]", "Date: sometime <soon>\n\nb\n"));
  EXPECT_EQ("[|]", expand("[$_date|$_date_js]", "Date:  \n\nb\n"));
}

char* dollar_filter(MIME_DISP* d, char* text, int) {
  std::string s(text);
  for (char& c : s)
    if (c == 'x') c = '$';
  auto* out = static_cast<char*>(mime_disp_alloc(d, s.size() + 1));
  s.copy(out, s.size());
  return out;
}

std::vector<std::string> g_texts;
void record_text(char* text) { g_texts.emplace_back(text); }

TEST_F(ShowHeader, ErrorsFiltersAndCallbacks) {
  Page missing(kMessage, mailreadDE, dir_ + "/nowhere", dir_);
  EXPECT_EQ("Show mail header error!!!\n", missing.header());
  EXPECT_EQ("[Hi]", expand("[x_subject]", "Subject: Hi\n\nb\n", [](MIME_DISP& d) { d.fpFormFilter = dollar_filter; }));

  g_texts.clear();
  EXPECT_EQ("", expand("[$_subject]", "From: a@b\nSubject: S\nCc: \n\nb\n",
                       [](MIME_DISP& d) { d.disp_func = record_text; }));
  EXPECT_EQ(std::vector<std::string>{"From: a@b\nCc: \nSubject: S\n"}, g_texts);

  // Without a form: the parts are saved, nothing is written.
  Page plain("From: a@b\nContent-Type: application/pdf; name=\"r.pdf\"\n\n%PDF\n", mailreadDE, dir_, dir_);
  show_m_noheader(plain.root(), &plain.d());
  EXPECT_EQ("", plain.output());
  EXPECT_EQ("%PDF\n", tarntest::read_file(dir_ + "/P_1A.pdf"));

  // Line breaks, reply signs and quote colours are off in the header only.
  std::ofstream(dir_ + "/h.dat") << "[$_subject]";
  Page page("Subject: > a\n b\n\nx\n", mailreadDE, dir_, dir_);
  MSTR_Copy(page.d().header_form, sizeof page.d().header_form, "h.dat", 0);
  page.d().text2disp_flag |= 0x200c;
  EXPECT_EQ("[&gt; a b]", page.header());
  EXPECT_EQ(mailreadDE.text2disp_flag | 0x200c, page.d().text2disp_flag);
}

TEST_F(ShowHeader, HostileFormsAndHeaders) {
  const auto start = std::chrono::steady_clock::now();
  std::string to = "To: ";
  for (int i = 0; i < 100000; ++i) to += "u" + std::to_string(i) + "@x.example, ";
  std::string out = expand("$_to$if1\n<$$if1\n$ifnot1\n,$$ifnot1\n$id$$loop>", to + "\n\nb\n");
  EXPECT_EQ(0u, out.rfind("<u0,u1,u2,", 0));
  EXPECT_EQ(out.size() - 8, out.find(",u99999>"));
  const std::string huge_date(1 << 20, '7');
  EXPECT_EQ("[" + huge_date + "]", expand("[$_date]", "Date: " + huge_date + "\n\nb\n"));
  // A quote that never closes makes the rest one address, too long to show.
  EXPECT_EQ("[]", expand("[$_to$id$$loop]", "To: \"" + std::string(5000, 'q') + ", a@b\n\nb\n"));
  // Many dropped sections: each is searched once, not to the form's end.
  std::string form;
  for (int i = 0; i < 100000; ++i) form += "$ifext<a>$$ifext$from\nF$$from\n";
  EXPECT_EQ("$", expand(form + "$", "To: a@b\n\nb\n"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
}

// ---- the form files, with the forwarded sample: the message's own block,
// the block of its text part (none) and that of the embedded message ----

struct Blocks {
  std::string first, text_part, embedded;
};

Blocks render_blocks(const MIME_DISP& preset, const std::string& dir, int flags = 0) {
  Page page(tarntest::read_file(std::string(TARN_SOURCE_DIR) + "/data/samples/forwarded.eml"), preset, forms_dir(),
            dir);
  page.d().disp_flag |= flags;
  Blocks b;
  b.first = page.header();
  page.d().is_first_header = 0;
  b.text_part = page.header(page.root()->child).substr(b.first.size());
  b.embedded = page.header(page.root()->child->next->child).substr(b.first.size() + b.text_part.size());
  return b;
}

TEST_F(ShowHeader, ReadingForm) {
  setenv("QUERY_STRING", "msgid=7&mbox=INBOX", 1);
  const Blocks b = render_blocks(mailreadDE, dir_, MIME_DISP_IFDL | MIME_DISP_IFDC);
  EXPECT_EQ(
      "<section class=\"tm-header\">\n<h1 class=\"tm-subject\">Fwd: Room booking confirmed</h1>\n"
      "<table class=\"tm-fields\">\n"
      "<tr><th scope=\"row\">From</th><td><a href=\"/cgi-bin/genMail?adr=tom.berg%40example.net\">Tom Berg</a> "
      "<span class=\"tm-addr\">&lt;tom.berg@example.net&gt;</span> <a class=\"tm-addbook\" "
      "href=\"/cgi-bin/addrBook?adr=tom.berg%40example.net&amp;nick=Tom%20Berg\">Add to address book</a></td></tr>\n"
      "<tr><th scope=\"row\">To</th><td><a href=\"/cgi-bin/genMail?adr=ana.silva%40example.org\">Ana Silva</a> "
      "<span class=\"tm-addr\">&lt;ana.silva@example.org&gt;</span></td></tr>\n"
      "<tr><th scope=\"row\">Date</th><td>Wed, 05 Jun 2024 12:22:05</td></tr>\n"
      "<tr><th scope=\"row\">Subject</th><td>Fwd: Room booking confirmed</td></tr>\n"
      "<tr><th scope=\"row\">Attachments</th><td>\n<form method=\"post\" action=\"/cgi-bin/delAtt\">\n"
      "<input type=\"hidden\" name=\"back\" value=\"msgid%3D7%26mbox%3DINBOX\">\n<ul class=\"tm-attachments\">\n"
      "<li><input type=\"checkbox\" name=\"att\" value=\"1A\"> <a href=\"/cgi-bin/downfile/P_1A.eml/00.eml\" "
      "target=\"_blank\" rel=\"noopener\">00.eml</a> <span class=\"tm-size\">(1 KB)</span> <a class=\"tm-download\" "
      "href=\"/cgi-bin/downfile/P_1A.eml/00.eml?download=1\">Download</a></li>\n</ul>\n"
      "<button type=\"submit\">Remove the checked attachments</button>\n</form>\n</td></tr>\n</table>\n"
      "<p class=\"tm-save\"><a href=\"/cgi-bin/downfile?whole=1&amp;back=msgid%3D7%26mbox%3DINBOX\">Save the whole "
      "message</a></p>\n"
      "<p class=\"tm-mode\"><a href=\"?textmode=1&amp;back=msgid%3D7%26mbox%3DINBOX\">Show as plain text</a></p>\n"
      "</section>\n",
      b.first);
  EXPECT_EQ("", b.text_part);
  EXPECT_EQ(
      "<section class=\"tm-header tm-embedded\">\n<h2 class=\"tm-subject\">Attached message</h2>\n"
      "<table class=\"tm-fields\">\n<tr><th scope=\"row\">From</th><td><a "
      "href=\"/cgi-bin/genMail?adr=rooms%40example.net\">Facilities</a> <span "
      "class=\"tm-addr\">&lt;rooms@example.net&gt;</span></td></tr>\n<tr><th scope=\"row\">To</th><td><a "
      "href=\"/cgi-bin/genMail?adr=tom.berg%40example.net\">Tom Berg</a> <span "
      "class=\"tm-addr\">&lt;tom.berg@example.net&gt;</span></td></tr>\n"
      "<tr><th scope=\"row\">Date</th><td>Wed, 05 Jun 2024 09:03:40</td></tr>\n"
      "<tr><th scope=\"row\">Subject</th><td>Room booking confirmed</td></tr>\n</table>\n</section>\n",
      b.embedded);
  // Text mode, a trusted sender in the address book, blocked pictures.
  const std::string flagged =
      render_blocks(mailreadDE, dir_, MIME_DISP_TEXT_MODE | MIME_DISP_IFTRUST | MIME_DISP_SENDER_INADB |
                                          MIME_DISP_IF_BLOCK_IMG).first;
  for (const char* part : {"Tom Berg</a> <span class=\"tm-addr\">&lt;tom.berg@example.net&gt;</span> <span "
                           "class=\"tm-trusted\">Trusted sender</span></td>",
                           "<p class=\"tm-mode\">Formatted text is shown as plain text. <a href=\"?textmode=0&amp;",
                           "<p class=\"tm-blocked\">Pictures from other sites are not shown."})
    EXPECT_NE(std::string::npos, flagged.find(part)) << part;
}

// An empty block, or one that holds `wanted`.
void expect_block(const std::string& wanted, const std::string& block) {
  if (wanted.empty())
    EXPECT_EQ("", block);
  else
    EXPECT_NE(std::string::npos, block.find(wanted)) << block;
}

// Every context's form: what the message's block and the embedded
// message's block hold.
TEST_F(ShowHeader, EveryFormOfEveryContext) {
  const std::string html_attached =
      "<p class=\"tm-embedded\">---------- Attached message ----------<br>\n<b>From:</b> Facilities "
      "&lt;rooms@example.net&gt;<br>\n<b>Date:</b> Wed, 05 Jun 2024 09:03:40<br>\n<b>Subject:</b> Room booking "
      "confirmed</p>\n";
  // The HTML editors' text is escaped twice: once for the text area.
  std::string html_fwd_attached = html_attached;
  html_fwd_attached.replace(html_fwd_attached.find("&lt;"), 4, "&amp;lt;");
  html_fwd_attached.replace(html_fwd_attached.find("&gt;"), 4, "&amp;gt;");
  const std::string html_inc_attached =
      "<p class=\"tm-embedded\">-----Attached Message-----<br>\n<b>From:</b> Facilities "
      "&amp;lt;rooms@example.net&amp;gt;<br>\n<b>Sent:</b> Wed, 05 Jun 2024 09:03:40<br>\n<b>Subject:</b> Room "
      "booking confirmed</p>\n";
  const std::string text_attached =
      "\n---------- Attached message ----------\nFrom: Facilities &lt;rooms@example.net&gt;\n"
      "Date: Wed, 05 Jun 2024 09:03:40\nSubject: Room booking confirmed\n\n";
  const std::string facilities = "<td>Facilities &lt;rooms@example.net&gt;</td>";
  const struct {
    const MIME_DISP* preset;
    std::string first;
    std::string embedded;
  } cases[] = {
      {&mailhdrDE, "From: Tom Berg\nSubject: Fwd: Room booking confirmed\n\n", ""},
      {&imapDE, "<td><a href=\"/cgi-bin/genMail?adr=ana.silva%40example.org\">Ana Silva</a>", "Attached message</h2>"},
      {&msgreadDE, "<h1 class=\"tm-subject\">Fwd: Room booking confirmed</h1>", "Attached message</h2>"},
      {&downfileDE, "<a href=\"/cgi-bin/downfile/P_1A.eml/00.eml\" target", "<td>Wed, 05 Jun 2024 09:03:40</td>"},
      {&mailprnDE, "<h1 class=\"tm-subject\">Fwd: Room booking confirmed</h1>\n", facilities},
      {&mailsendDE, "<p class=\"tm-sent-note\">Your message has been sent.</p>\n<table class=\"tm-fields\">\n<tr><th "
                    "scope=\"row\">To</th><td>Ana Silva &lt;ana.silva@example.org&gt;</td></tr>",
       facilities},
      {&html_incDE, "<b>From:</b> Tom Berg &amp;lt;tom.berg@example.net&amp;gt;<br>\n", html_inc_attached},
      {&html_fwdDE, "<b>Attachments:</b><br>\n00.eml (1 KB)<br>\n</p>\n</div>\n", html_fwd_attached},
      {&html_replyDE,
       "<p class=\"tm-attribution\">On Wed, 05 Jun 2024 12:22:05, Tom Berg &lt;tom.berg@example.net&gt; wrote:</p>\n",
       html_attached},
      {&html_draftDE, "", ""},
      {&show_htmlDE, "", ""},
      {&show_syslogDE, "", ""},
      {&text_incDE,
       "-----Original Message-----\nFrom: Tom Berg &lt;tom.berg@example.net&gt;\nSent: Wed, 05 Jun 2024 12:22:05\n"
       "To: Ana Silva &lt;ana.silva@example.org&gt;\nSubject: Fwd: Room booking confirmed\n\n",
       "\n-----Attached Message-----\nFrom: Facilities &lt;rooms@example.net&gt;\nSent: Wed, 05 Jun 2024 09:03:40\n"
       "Subject: Room booking confirmed\n\n"},
      {&text_fwdDE, "To: Ana Silva &lt;ana.silva@example.org&gt;\n\nAttachments:\n  00.eml (1 KB)\n\n", text_attached},
      {&text_replyDE, "On Wed, 05 Jun 2024 12:22:05, Tom Berg &lt;tom.berg@example.net&gt; wrote:\n", text_attached},
      {&text_draftDE, "", ""},
      {&imodeDE, "From:Tom Berg<br>\nDate:Wed, 05 Jun 2024 12:22:05<br>\n",
       "<hr>\nFrom:Facilities<br>\nSubject:Room booking confirmed<br>\n"},
      {&wapDE, "To: Ana Silva <ana.silva@example.org>\n",
       "\nFrom: Facilities <rooms@example.net>\nSubject: Room booking confirmed\n\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.preset->header_form);
    if (c.preset->vcard_form[0] != '\0') {
      EXPECT_TRUE(fs::exists(forms_dir() + "/" + c.preset->vcard_form));
    }
    const Blocks b = render_blocks(*c.preset, dir_);
    expect_block(c.first, b.first);
    EXPECT_EQ(std::string::npos, b.first.find('$')) << b.first;
    EXPECT_EQ("", b.text_part);
    expect_block(c.embedded, b.embedded);
  }
}

}  // namespace
