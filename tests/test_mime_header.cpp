// Header blocks: field splitting, MIME facts, message-level record, unquote.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "mime_internal.h"
#include "support.h"

using tarntest::Decoded;

namespace {

struct Field {
  std::string name;
  std::string value;
};

std::vector<Field> fields(const ME_HEADER* h) {
  std::vector<Field> out;
  for (const HE* he = h->he; he != nullptr; he = he->next) out.push_back({he->ent_name, he->ent_ptr});
  return out;
}

// Splits a header block the way the walk does, in a context of its own.
struct Block {
  explicit Block(std::string text, int dup) : buf(text.begin(), text.end()) {
    buf.push_back('\0');
    ctx = imapME;
    ctx.dup_header = dup;
    mime_decode_init(&ctx, buf.data(), static_cast<int>(text.size()), nullptr, nullptr);
    h = static_cast<ME_HEADER*>(mime_alloc(&ctx, sizeof(ME_HEADER)));
    strip_header(h, buf.data(), buf.data() + text.size(), &ctx);
  }
  ~Block() { mime_decode_shutdown(&ctx); }
  std::vector<char> buf;
  MIME_DECODE ctx;
  ME_HEADER* h;
};

TEST(StripHeader, SplitsFieldsKeepsFoldingAndLinesWithoutColon) {
  for (int dup : {0, 1}) {
    Block b("Subject: a\n b\nX-Odd line\nTo:\tx@y\nEmpty:", dup);
    auto f = fields(b.h);
    ASSERT_EQ(4u, f.size()) << "dup=" << dup;
    EXPECT_EQ("Subject", f[0].name);
    EXPECT_EQ("a\n b", f[0].value);
    EXPECT_EQ("X-Odd line", f[1].name);
    EXPECT_EQ("X-Odd line", f[1].value);  // name and value are the same text
    EXPECT_EQ("To", f[2].name);
    EXPECT_EQ("x@y", f[2].value);
    EXPECT_EQ("Empty", f[3].name);
    EXPECT_EQ("", f[3].value);

    const HE* he = b.h->he;
    EXPECT_EQ(0, he->ent_offset);
    EXPECT_EQ(5, he->ent_len);  // "a\n b" and its terminator
    EXPECT_EQ(14, he->next->ent_offset);
    EXPECT_EQ(0, he->next->ent_len);
    EXPECT_EQ(25, he->next->next->ent_offset);
    EXPECT_EQ(4, he->next->next->ent_len);  // blank and tab skipped
  }
}

TEST(StripHeader, InPlaceSplitsTheCallersBufferAndCopiesDropCarriageReturns) {
  Block in_place("A: 1\r\nB: 2\r", 0);
  EXPECT_EQ(in_place.buf.data(), in_place.h->he->ent_name);
  EXPECT_EQ("1\r", fields(in_place.h)[0].value);

  Block copied("A: 1\r\nB: x\ry\r", 1);
  EXPECT_NE(copied.buf.data(), copied.h->he->ent_name);
  auto f = fields(copied.h);
  ASSERT_EQ(2u, f.size());
  EXPECT_EQ("1", f[0].value);
  EXPECT_EQ("xy", f[1].value);  // every CR goes, not only those before LF
  EXPECT_EQ('A', copied.buf[0]);  // the caller's text is untouched
  EXPECT_EQ(':', copied.buf[1]);
}

TEST(StripHeader, EmptyBlockGivesOneEntryWithEmptyName) {
  Block b("", 1);
  ASSERT_NE(nullptr, b.h->he);
  EXPECT_STREQ("", b.h->he->ent_name);
  EXPECT_EQ(nullptr, b.h->he->next);
}

TEST(HeaderText, UnfoldDos2unixAndNulReplacement) {
  char folded[] = "a\n b\n\t \tc";
  mime_unfold(folded);
  EXPECT_STREQ("abc", folded);

  char crs[] = "a\rb\r\nc\r";
  char* end = mime_dos2unix(crs, 7);
  EXPECT_EQ(crs + 4, end);
  EXPECT_EQ(0, memcmp(crs, "ab\nc\0\0\0", 7));

  char value[] = {'a', '\0', 'b', '\0', '\0', 'n'};
  HE he{};
  he.ent_ptr = value;
  he.ent_len = 5;  // "a?b", one trailing NUL, the terminator
  he_convert_null(&he);
  EXPECT_STREQ("a_b", value);
  EXPECT_EQ('\0', value[3]);
}

struct TypeCase {
  const char* type;
  int top;   // code as the message's own type
  int part;  // code as a part's type
  int result;
};

TEST(ContentType, CodesFollowThePrefixTableInOrder) {
  const TypeCase cases[] = {
      {"message/rfc822", 1, 1, 0},
      {"message/delivery-status", 2, 2, 0},
      {"message/partial", 2, 9, 0},
      {"multipart/digest", 8, 8, 0},
      {"multipart/alternative", 6, 6, 0},
      {"multipart/related", 5, 5, 0},
      {"multipart/mixed", 7, 7, 0},
      {"multipart/signed", 5, 5, 0},
      {"multipart/report", 5, 5, 0},
      {"MULTIPART/MIXED; boundary=x", 7, 7, 0},
      {"application/x-pkcs7-signature", 11, 11, 1},
      {"application/pkcs7-signature", 11, 11, 1},
      {"application/x-pkcs7-mime", 12, 12, 1},
      {"application/pkcs7-mime; smime-type=enveloped-data", 12, 12, 1},
      {"video/mp4", 13, 13, 0},
      {"audio/mpeg", 14, 14, 0},
      {"application/x-shockwave-flash", 15, 15, 0},
      {"application/ms-tnef", 17, 17, 0},
      {"text/plain; charset=us-ascii", 2, 2, 0},
      {"TEXT/ENRICHED", 2, 2, 0},
      {"text/enriched-but-odd", 2, 2, 0},
      {"text/html", 3, 3, 0},
      {"text/x-vcard", 10, 10, 0},
      {"text; charset=x", 2, 2, 0},
      {"text\tx", 2, 2, 0},
      {"text", 2, 2, 0},
      {"text/calendar", 9, 9, 0},
      {"textual", 9, 9, 0},
      {"image/TIFF", 16, 16, 0},
      {"image/png", 4, 4, 0},
      {"application/pdf", 2, 9, 0},
      {"application/octet-stream", 2, 9, 0},
  };
  for (const TypeCase& c : cases) {
    ME_HEADER h{};
    h.mime.ctype_str = const_cast<char*>(c.type);
    nFirstTimeStripHeader = 1;
    EXPECT_EQ(c.result, fill_mime_header_ctype(&h)) << c.type;
    EXPECT_EQ(c.top, h.mime.ctype) << c.type;
    nFirstTimeStripHeader = 0;
    fill_mime_header_ctype(&h);
    EXPECT_EQ(c.part, h.mime.ctype) << c.type;
  }
  ME_HEADER none{};
  EXPECT_EQ(0, fill_mime_header_ctype(&none));
  EXPECT_EQ(0, none.mime.ctype);
  EXPECT_EQ(0, fill_mime_header_ctype(nullptr));
}

TEST(ContentType, TopLevelRuleAppliesToTheFirstBlockOfARunOnly) {
  Decoded top("Content-Type: application/pdf\n\n%PDF", imapME);
  EXPECT_EQ(MIME_CT_TEXT, top.root()->h->mime.ctype);
  Decoded part(
      "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: application/pdf\n\n%PDF\n--b--\n",
      imapME);
  ASSERT_NE(nullptr, part.root()->child);
  EXPECT_EQ(MIME_CT_OTHER, part.root()->child->h->mime.ctype);
}

TEST(TransferEncoding, PrefixesInOrder) {
  const std::pair<const char*, int> cases[] = {
      {"quoted-printable", 2}, {"Quoted-Printable; x", 2}, {"base64", 1}, {"BASE64x", 1},
      {"uuencode", 3},         {"x-uuencode", 3},          {"8bit", 4},   {"7BIT", 5},
      {"binary", 0},           {"quoted", 0},
  };
  for (auto [value, code] : cases) {
    std::string msg = std::string("Content-Transfer-Encoding: ") + value + "\n\nx";
    Decoded d(msg, imapME);
    EXPECT_EQ(code, d.root()->h->mime.enc_type) << value;
  }
  Decoded none("Subject: x\n\nbody", imapME);
  EXPECT_EQ(0, none.root()->h->mime.enc_type);
  EXPECT_EQ(nullptr, none.root()->h->mime.enc_type_str);
}

TEST(MimeFields, LastOccurrenceWinsAndDefaultsApply) {
  Decoded d(
      "Content-Type: text/html\n"
      "Content-Type: text/plain; charset=big5\n"
      "Content-Base: http://b/\n"
      "Content-Disposition: inline\n"
      "Content-Description: desc\n"
      "Content-Id: <id@x>\n"
      "Content-Location: loc.html\n"
      "Content-MD5: md5\n"
      "Content-Language: fr\n"
      "X-Brindle-Content-Type: brindle\n"
      "\nbody",
      imapME);
  const MIME_HEADER& m = d.root()->h->mime;
  EXPECT_STREQ("text/plain; charset=big5", m.ctype_str);
  EXPECT_EQ(MIME_CT_TEXT, m.ctype);
  EXPECT_STREQ("http://b/", m.cbase);
  EXPECT_STREQ("inline", m.contdisp);
  EXPECT_STREQ("desc", m.contdes);
  EXPECT_STREQ("<id@x>", m.contid);
  EXPECT_STREQ("loc.html", m.contLocation);
  EXPECT_STREQ("md5", m.body_MD5);
  EXPECT_STREQ("fr", m.body_language);
  EXPECT_STREQ("brindle", m.x_brindle_ctype_str);
  EXPECT_EQ(6, d.ctx().result.me_info._attachment);

  Decoded plain("Subject: x\n\nbody", imapME);
  EXPECT_STREQ("text/plain", plain.root()->h->mime.ctype_str);
  EXPECT_EQ(0, plain.ctx().result.me_info._attachment);
}

TEST(MimeFields, BoundaryIsUnfoldedUnquotedAndBounded) {
  Decoded folded("Content-Type: multipart/mixed;\n\tboundary=\"=_a b\"\n\n", imapME);
  EXPECT_STREQ("=_a b", folded.root()->h->boundary);
  EXPECT_STREQ("multipart/mixed;\n\tboundary=\"=_a b\"", folded.root()->h->mime.ctype_str);

  Decoded unfolded("Content-Type: multipart/mixed; boundary=\n x; y\n\n", imapME);
  EXPECT_STREQ("x", unfolded.root()->h->boundary);

  std::string longb(300, 'q');
  Decoded cut("Content-Type: multipart/mixed; boundary=" + longb + "\n\n", imapME);
  EXPECT_EQ(std::string(255, 'q'), cut.root()->h->boundary);

  Decoded none("Content-Type: multipart/mixed\n\n", imapME);
  EXPECT_EQ(nullptr, none.root()->h->boundary);
}

TEST(Rfc822Fields, FirstOccurrenceFillsTheSlotAndRawCopiesAreCopies) {
  Decoded d(
      "From: first@x\nFrom: second@x\nTo: t@x\nCc: c@x\nBcc: b@x\nReply-To: r@x\n"
      "Subject: =?utf-8?Q?caf=C3=A9?=\nMessage-Id: <m@x>\nDate: Mon, 1 Jan 2024 00:00:00 +0000\n"
      "Sender: s@x\nDisposition-Notification-To: n@x\nIn-Reply-To: <i@x>\nReferences: <r@x>\n"
      "Newsgroups: comp.mail\nOrganization: Org\nResent-From: fwd@x\n\nbody",
      generalME);
  const RFC822_HEADER* r = d.root()->h->rfc822;
  ASSERT_NE(nullptr, r);
  EXPECT_STREQ("first@x", *r->from);
  EXPECT_STREQ("fwd@x", *r->x_forward_by);
  EXPECT_STREQ("first@x", *r->from_raw);
  EXPECT_NE(*r->from, *r->from_raw);
  // Decoding shows through the slot; the raw copy keeps the text as sent.
  EXPECT_STREQ("caf\xC3\xA9", *r->subject);
  EXPECT_EQ(&d.root()->h->he->next->next->next->next->next->next->ent_ptr, r->subject);

  GET_RFC822_HEADER g;
  mime_get_rfc822_header(&d.ctx(), &g);
  EXPECT_STREQ("<m@x>", g.msgid);
  EXPECT_STREQ("t@x", g.to);
  EXPECT_STREQ("t@x", g.to_raw);
  EXPECT_STREQ("c@x", g.cc_raw);
  EXPECT_STREQ("b@x", g.bcc_raw);
  EXPECT_STREQ("r@x", g.reply_to_raw);
  EXPECT_STREQ("Mon, 1 Jan 2024 00:00:00 +0000", g.date);
  EXPECT_STREQ("s@x", g.sender);
  EXPECT_STREQ("n@x", g.notification_to);
  EXPECT_STREQ("<i@x>", g.in_reply_to);
  EXPECT_STREQ("<r@x>", g.references);
  EXPECT_STREQ("comp.mail", g.newsgroups);
  EXPECT_STREQ("Org", g.organization);
}

TEST(Rfc822Fields, OnlyBlocksThatMayStartAMessageGetTheRecord) {
  Decoded d(
      "Content-Type: multipart/alternative; boundary=b\n\n"
      "--b\nContent-Type: text/plain\n\nx\n--b--\n",
      imapME);
  EXPECT_NE(nullptr, d.root()->h->rfc822);
  ASSERT_NE(nullptr, d.root()->child);
  EXPECT_EQ(nullptr, d.root()->child->h->rfc822);
}

TEST(Unquote, QuotedAndLineEndedValues) {
  struct Case {
    const char* in;
    const char* out;
  };
  const Case cases[] = {
      {"  \"abc\" rest", "abc"}, {"\"ab\ncd\"", "ab"}, {"\"abc", "abc"},
      {"abc\ndef", "abc"},       {"\tabc", "\tabc"},  {"", ""},
  };
  for (const Case& c : cases) {
    std::string s = c.in;
    std::vector<char> buf(s.begin(), s.end());
    buf.push_back('\0');
    EXPECT_STREQ(c.out, unquote(buf.data())) << c.in;
  }
  EXPECT_EQ(nullptr, unquote(nullptr));
}

}  // namespace
