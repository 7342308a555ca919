// The decode context: presets, init/run/shutdown, header look-ups and the
// body decoding that the run performs.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "mime_internal.h"
#include "support.h"

using tarntest::Decoded;

namespace {

TEST(Presets, TableAsData) {
  struct Row {
    const MIME_DECODE* preset;
    int dup_header, decode_level, auto_convert;
  };
  const Row rows[] = {
      {&imapME, 1, 0, 0}, {&generalME, 1, 0x5af, 1}, {&msgreadME, 1, 0x7af, 1}, {&mailerdME, 1, 0xaf, 1}};
  for (const Row& r : rows) {
    EXPECT_EQ(r.dup_header, r.preset->dup_header);
    EXPECT_EQ(r.decode_level, r.preset->decode_level);
    EXPECT_EQ(r.auto_convert, r.preset->auto_convert);
    EXPECT_STREQ("text/plain", r.preset->result.me_info.default_type);
    // Everything else is zero.
    MIME_DECODE rest = *r.preset;
    rest.dup_header = rest.decode_level = rest.auto_convert = 0;
    memset(rest.result.me_info.default_type, 0, sizeof rest.result.me_info.default_type);
    MIME_DECODE zero{};
    EXPECT_EQ(0, memcmp(&zero, &rest, sizeof zero));
  }
}

TEST(Init, FieldsAndDefaultCharset) {
  char buf[] = "Subject: x\n\nbody";
  MIME_DECODE ctx = generalME;
  ctx.error_code = 99;
  ctx.result.me_info.tmp_i = 5;
  strcpy(ctx.result.me_info.default_type, "text/html");
  const char* path = "/tmp/some/path";
  EXPECT_EQ(0, mime_decode_init(&ctx, buf, 16, path, "ISO-2022-JP"));
  EXPECT_EQ(0, ctx.error_code);
  EXPECT_EQ(0, ctx.result.me_info.tmp_i);
  EXPECT_STREQ("text/plain", ctx.result.me_info.default_type);  // overwritten
  EXPECT_EQ(path, ctx.result.me_info.msgpath);                   // the pointer itself
  EXPECT_EQ(1, ctx.default_enc_cset);
  EXPECT_EQ(buf, ctx.data);
  EXPECT_EQ(buf, ctx.result.me_node.body_bgn);
  EXPECT_EQ(buf + 16, ctx.result.me_node.body_end);
  EXPECT_EQ(0x5af, ctx.decode_level);

  MIME_DECODE kr = generalME;
  kr.default_enc_cset = 7;
  mime_decode_init(&kr, buf, 16, nullptr, "iso-2022-kr");
  EXPECT_EQ(7, kr.default_enc_cset);
  mime_decode_init(&kr, buf, 16, nullptr, "iso-2022-jp-2");  // first 11 characters decide
  EXPECT_EQ(1, kr.default_enc_cset);

  MIME_DECODE none = generalME;
  none.error_code = 5;
  EXPECT_EQ(-1, mime_decode_init(&none, nullptr, 0, path, nullptr));
  EXPECT_EQ(0, none.error_code);
  EXPECT_EQ(nullptr, none.result.me_info.msgpath);
}

TEST(Init, DefaultTypeSetAfterInitIsUsed) {
  std::string msg = "Subject: x\n\n<p>hi</p>";
  std::vector<char> buf(msg.begin(), msg.end());
  buf.push_back('\0');
  MIME_DECODE ctx = imapME;
  mime_decode_init(&ctx, buf.data(), static_cast<int>(msg.size()), nullptr, nullptr);
  strcpy(ctx.result.me_info.default_type, "text/html");
  mime_decode_run(&ctx);
  EXPECT_EQ(MIME_CT_HTML, ctx.result.me_node.h->mime.ctype);
  mime_decode_shutdown(&ctx);
}

TEST(Shutdown, FreesTheArenaOnce) {
  char buf[] = "Subject: x\n\nbody";
  MIME_DECODE ctx = generalME;
  mime_decode_init(&ctx, buf, 16, nullptr, nullptr);
  mime_decode_run(&ctx);
  EXPECT_NE(nullptr, ctx.result.me_info.MIME_ptr);
  EXPECT_EQ(0, mime_decode_shutdown(&ctx));
  EXPECT_EQ(nullptr, ctx.result.me_info.MIME_ptr);
  EXPECT_EQ(0, mime_decode_shutdown(&ctx));
}

const char kHeaders[] =
    "Received: one\n"
    "Topic: not the recipient\n"
    "To: rcpt@x\n"
    "received: two\n"
    "Received-SPF: pass\n"
    "\n"
    "body";

TEST(Lookup, PrefixExactAndArrayRules) {
  Decoded d(kHeaders, imapME);
  MIME_DECODE* ctx = &d.ctx();
  EXPECT_STREQ("not the recipient", mime_get_header_field(ctx, "To"));  // "To" begins "Topic"
  EXPECT_STREQ("rcpt@x", mime_get_header_field2(ctx, "to"));
  EXPECT_STREQ("one", mime_get_header_field(ctx, "received"));
  EXPECT_EQ(nullptr, mime_get_header_field2(ctx, "Receiv"));
  EXPECT_EQ(nullptr, mime_get_header_field(ctx, ""));
  EXPECT_EQ(nullptr, mime_get_header_field(ctx, nullptr));
  EXPECT_EQ(nullptr, mime_get_header_field2(ctx, "Cc"));

  int x = 0;
  EXPECT_STREQ("one", array_get_header_field(ctx, "Received", &x));
  EXPECT_EQ(1, x);
  EXPECT_STREQ("two", array_get_header_field(ctx, "Received", &x));
  EXPECT_STREQ("pass", array_get_header_field(ctx, "Received", &x));
  EXPECT_EQ(3, x);
  EXPECT_EQ(nullptr, array_get_header_field(ctx, "Received", &x));
  EXPECT_EQ(3, x);
}

const char kBase64Mixed[] =
    "Content-Type: multipart/mixed; boundary=b\n"
    "\n"
    "--b\n"
    "Content-Type: text/plain\n"
    "\n"
    "hello\n"
    "--b\n"
    "Content-Type: application/octet-stream; charset=big5\n"
    "Content-Transfer-Encoding: base64\n"
    "\n"
    "aGVsbG8g\n"
    "d29ybGQ=\n"
    "--b\n"
    "Content-Type: text/plain; charset=utf-8\n"
    "Content-Transfer-Encoding: quoted-printable\n"
    "\n"
    "caf=C3=A9 =\n"
    "ok\n"
    "--b--\n";

TEST(Run, DecodesBodiesInPlace) {
  Decoded d(kBase64Mixed, generalME);
  EXPECT_EQ(0, d.error_code());
  ME* text = d.root()->child;
  ME* bin = text->next;
  ME* qp = bin->next;
  EXPECT_EQ("hello", Decoded::body(text));
  EXPECT_EQ('\0', text->body_bgn[5]);  // a NUL stands at the old body end
  EXPECT_EQ("hello world", Decoded::body(bin));
  EXPECT_EQ(11, bin->datalen);
  EXPECT_GE(bin->body_bgn, d.buffer());  // decoded where it stood
  EXPECT_LT(bin->body_bgn, d.buffer() + d.size());
  EXPECT_EQ('\0', *bin->body_end);
  EXPECT_EQ("caf\xC3\xA9 ok", Decoded::body(qp));

  // Offsets and lengths of each entity, from its header to its body's end.
  std::string msg = kBase64Mixed;
  EXPECT_EQ(static_cast<int>(msg.find("Content-Type: application")), bin->ent_offset);
  EXPECT_EQ(static_cast<int>(msg.find("\n--b\nContent-Type: text/plain; charset=utf-8") - msg.find("Content-Type: application")),
            bin->ent_len);
}

TEST(Run, DecodeLevelZeroBuildsTheTreeOnly) {
  Decoded d(kBase64Mixed, imapME);
  ME* bin = d.root()->child->next;
  EXPECT_EQ(0, bin->datalen);
  EXPECT_EQ(0, bin->ent_len);
  EXPECT_EQ(0, memcmp(bin->body_bgn, "aGVsbG8g", 8));
  EXPECT_STREQ("", d.root()->h->mime.charset_str);
  EXPECT_EQ(0, bin->h->mime.charset);
  EXPECT_EQ(nullptr, bin->h->mime.filename);
}

TEST(Run, CharsetsAndTheRootRefill) {
  Decoded d(kBase64Mixed, generalME);
  ME* root = d.root();
  // The root declares none and takes the first one declared in the tree.
  EXPECT_STREQ("big5", root->h->mime.charset_str);
  EXPECT_EQ(MIME_CS_BIG5, root->h->mime.charset);
  EXPECT_EQ(MIME_CS_BIG5, root->child->next->h->mime.charset);
  EXPECT_EQ(MIME_CS_UTF8, root->child->next->next->h->mime.charset);
  // The last entity whose charset differs from the default sets the result.
  EXPECT_EQ(MIME_CS_UTF8, d.ctx().result.me_info.result_cset);

  MIME_DECODE no_refill = generalME;
  no_refill.decode_level |= MIME_DL_NO_REFILL;
  Decoded kept(kBase64Mixed, no_refill);
  EXPECT_STREQ("", kept.root()->h->mime.charset_str);
  EXPECT_EQ(0, kept.root()->h->mime.charset);

  Decoded jp("Content-Type: text/plain\n\nx", generalME, "ISO-2022-JP");
  EXPECT_EQ(MIME_CS_ISO2022JP, jp.root()->h->mime.charset);
  EXPECT_EQ(0, jp.ctx().result.me_info.result_cset);
}

TEST(Run, HeaderWordsDecodeOnlyWithBit0x20) {
  const char msg[] = "Subject: =?utf-8?B?w6l0w6k=?=\nFrom: =?iso-8859-1?Q?Andr=E9?= <a@x>\n\nbody";
  Decoded on(msg, mailerdME);  // decoded, not converted
  GET_RFC822_HEADER g;
  mime_get_rfc822_header(&on.ctx(), &g);
  EXPECT_STREQ("\xC3\xA9t\xC3\xA9", g.subject);
  EXPECT_STREQ("Andr\xE9 <a@x>", g.from);
  EXPECT_STREQ("=?iso-8859-1?Q?Andr=E9?= <a@x>", g.from_raw);
  EXPECT_EQ(MLG_UTF8, on.root()->h->he->ent_charset);
  EXPECT_EQ(MLG_ISO8859_1, on.root()->h->he->next->ent_charset);

  // With 0x400 the fields are converted to UTF-8 and the part says so.
  Decoded utf8(msg, generalME);
  mime_get_rfc822_header(&utf8.ctx(), &g);
  EXPECT_STREQ("Andr\xC3\xA9 <a@x>", g.from);
  EXPECT_EQ(MLG_UTF8, utf8.root()->h->he->next->ent_charset);
  EXPECT_STREQ("utf-8", utf8.root()->h->mime.charset_str);
  EXPECT_EQ(MIME_CS_UTF8, utf8.root()->h->mime.charset);

  MIME_DECODE level = generalME;
  level.decode_level &= ~MIME_DL_HEADERS;
  Decoded off(msg, level);
  mime_get_rfc822_header(&off.ctx(), &g);
  EXPECT_STREQ("=?utf-8?B?w6l0w6k=?=", g.subject);
}

TEST(Run, EmbeddedMessagesStayEncodedWithBit0x1000) {
  const char msg[] =
      "Content-Type: message/rfc822\n\n"
      "Subject: inner\nContent-Transfer-Encoding: base64\n\naGk=\n";
  Decoded decoded(msg, generalME);
  ASSERT_NE(nullptr, decoded.root()->child);
  EXPECT_EQ("hi", Decoded::body(decoded.root()->child));

  MIME_DECODE keep = generalME;
  keep.decode_level |= MIME_DL_KEEP_RFC822;
  Decoded kept(msg, keep);
  EXPECT_EQ(0, memcmp(kept.root()->child->body_bgn, "aGk=", 4));
}

}  // namespace
