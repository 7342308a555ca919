// The header record: raw header parsing, filling from a decoded tree,
// the preview, the attachment summary and the dump.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "mime_mailhdr_internal.h"
#include "support.h"
#include "tarnmail.h"
#include "tarnmail/mailhdr.h"

namespace {

using Record = std::unique_ptr<mailhdr>;

// ESC $ B "テスト" ESC ( B, its base64 form and its Shift_JIS form.
constexpr std::string_view kJisTesuto = "\x1b$B%F%9%H\x1b(B";
constexpr std::string_view kSjisTesuto = "\x83\x65\x83\x58\x83\x67";

Record parsed(std::string_view msg, const char* cset = "us-ascii", bool raw = false) {
  Record m = std::make_unique<mailhdr>();
  EXPECT_EQ(0, mailhdr_init(m.get(), cset, msg.data(), static_cast<int>(msg.size())));
  EXPECT_EQ(0, raw ? mailhdr_parse_raw(m.get()) : mailhdr_parse(m.get()));
  return m;
}

std::string str(const char* s) { return s != nullptr ? s : "<null>"; }

std::vector<std::string> list(char* const* entries, int n) { return std::vector<std::string>(entries, entries + n); }

std::string hosts(const mailhdr& m) {
  std::string out;
  for (int i = 0; i < m.hostnum; ++i) out += str(m.hosts[i]) + "|";
  return out;
}

TEST(MailHdrParse, FieldsLinesAndAbsentValues) {
  const std::string msg =
      "subject: a\r\n b\r\nTo: first\r\nTO:   second\r\nFrom:\tx@y\r\nTopic: not to\r\n"
      "Message-ID: <id@h>\r\nDate: Mon, 1 Jan 2024\r\nReferences: <r1> <r2>\r\n"
      "Disposition-Notification-To: n@h\r\nContent-Type: text/plain\r\n\r\nbody\r\n";
  Record m = parsed(msg);
  EXPECT_EQ(str(m->subject), "ab");
  EXPECT_EQ(str(m->to), "second");
  EXPECT_EQ(str(m->from), "x@y");
  EXPECT_EQ(str(m->msgid), "<id@h>");
  EXPECT_EQ(str(m->date), "Mon, 1 Jan 2024");
  EXPECT_EQ(str(m->references), "<r1> <r2>");
  EXPECT_EQ(str(m->notification_to), "n@h");
  EXPECT_EQ(str(m->content_type), "text/plain");
  EXPECT_EQ(str(m->text), "body\r\n");
  // Absent decoded fields point at the record's empty string; the four
  // undecoded ones stay null.
  EXPECT_EQ(m->cc, &m->null_buf);
  EXPECT_EQ(m->bcc, &m->null_buf);
  EXPECT_EQ(m->reply_to, &m->null_buf);
  EXPECT_EQ(m->resent_from, &m->null_buf);
  EXPECT_EQ(m->in_reply_to, nullptr);
  EXPECT_EQ(m->important_level, 0);
  EXPECT_EQ(m->tarn_enews_flag, 0);
  EXPECT_EQ(m->size, static_cast<int>(msg.size()));
  EXPECT_EQ(str(m->charset), "us-ascii");
  EXPECT_EQ(str(m->subject_charset), "us-ascii");

  // No blank line: all is header, no preview.
  Record h = parsed("Subject: only\nFrom: f");
  EXPECT_EQ(h->text, nullptr);
  EXPECT_EQ(str(h->subject), "only");
  EXPECT_EQ(str(h->from), "f");
}

TEST(MailHdrParse, PriorityAndNewsletterMark) {
  EXPECT_EQ(parsed("X-Priority: 2 (High)\n\n")->important_level, 2);
  EXPECT_EQ(parsed("X-MSMail-Priority: Low\n\n")->important_level, 5);
  EXPECT_EQ(parsed("X-Priority: 1\nX-MSMail-Priority: Normal\n\n")->important_level, 3);
  EXPECT_EQ(parsed("X-MSMail-Priority: Normal\nX-Priority: 5\n\n")->important_level, 5);
  EXPECT_EQ(parsed("X-MSMail-Priority: normal-high\n\n")->important_level, 1);
  EXPECT_EQ(parsed("X-MSMail-Priority: urgent\n\n")->important_level, 0);
  EXPECT_EQ(parsed("X-Priority: 99999999999999\n\n")->important_level, 2147483647);
  EXPECT_EQ(parsed("X-TARN-Enews:  7\n\n")->tarn_enews_flag, 7);
}

TEST(MailHdrParse, ContentTypeParameters) {
  // The boundary's end cuts the parameters: the charset after it is lost.
  Record a = parsed("Content-Type: multipart/mixed; boundary=b1; charset=big5\n\n--b1\n\nx\n--b1--\n");
  EXPECT_EQ(str(a->content_type), "multipart/mixed");
  EXPECT_EQ(str(a->charset), "us-ascii");
  EXPECT_EQ(str(a->text), "x\n");

  Record b = parsed("Content-Type: \"text/plain\"; charset=\"Big5\"; format=flowed\n\nz");
  EXPECT_EQ(str(b->content_type), "text/plain");
  EXPECT_EQ(str(b->charset), "Big5");

  Record p = parsed(
      "Message-ID: <outer>\nContent-Type: Message/Partial; number=2; total=3;\n id=\"part@host\"\n\nrest");
  EXPECT_EQ(str(p->content_type), "Message/Partial");
  EXPECT_EQ(p->partial_number, 2);
  EXPECT_EQ(p->partial_total, 3);
  EXPECT_EQ(str(p->msgid), "part@host");

  // A charset longer than the field is cut to 31 characters.
  Record l = parsed("Content-Type: text/plain; charset=" + std::string(40, 'c') + "\n\n");
  EXPECT_EQ(std::string(l->charset), std::string(31, 'c'));
}

TEST(MailHdrParse, ReceivedHostsAndEnvelopeSenders) {
  Record m = parsed(
      "Received: from a (b [1.2.3.4]) by c\n"
      "Received: from a by c\n"
      "Received: from lone\n"
      "Received:\n"
      "Received: from x (envelope-from <s@e>) ([5.6.7.8]) by y\n\n");
  EXPECT_EQ(m->hops, 5);
  EXPECT_EQ(hosts(*m), "b|1.2.3.4|a|envelope-from <s@e|");
  ASSERT_EQ(m->envenum, 1);
  EXPECT_EQ(str(m->envelope[0]), "s@e");

  std::string many;
  for (int i = 0; i < 25; ++i)
    many += "Received: from h" + std::to_string(i) + " by z (envelope-from e" + std::to_string(i) + ")\n";
  Record n = parsed(many + "\n");
  EXPECT_EQ(n->hops, 25);
  ASSERT_EQ(n->hostnum, 20);
  EXPECT_EQ(str(n->hosts[19]), "h19");
  ASSERT_EQ(n->envenum, 10);
  EXPECT_EQ(str(n->envelope[9]), "e9");

  // str_receive on its own, and with the counters already full.
  char value[] = "from mx.example (mx.example [10.0.0.1])\n\tby in.example";
  char* h[20] = {};
  char* e[10] = {};
  int hn = 0, en = 0;
  EXPECT_EQ(0, str_receive(value, h, &hn, e, &en));
  EXPECT_EQ(list(h, hn), (std::vector<std::string>{"mx.example", "10.0.0.1"}));
  char full[] = "from q by r (envelope-from <z>)";
  hn = 20;
  en = 10;
  str_receive(full, h, &hn, e, &en);
  EXPECT_EQ(hn, 20);
  EXPECT_EQ(en, 10);
  EXPECT_EQ(-2, str_receive(nullptr, h, &hn, e, &en));
}

TEST(MailHdrParse, PreviewIsTheFirstLeafDecoded) {
  Record m = parsed(
      "Content-Type: multipart/mixed; boundary=\"outer\"\n\npreamble\n--outer\n"
      "Content-Type: multipart/alternative;\n boundary=inner\n\n--inner\r\n"
      "Content-Type: text/plain; charset=\"utf-8\"; format=flowed\r\n"
      "Content-Transfer-Encoding: base64\r\n\r\naMOpbGxv\r\n--inner\n\n<p>html</p>\n--inner--\n--outer--\n");
  EXPECT_EQ(str(m->text), "h\xc3\xa9llo");
  EXPECT_EQ(str(m->charset), "utf-8");

  // A ";" does not end a part's charset; quoted-printable is undone.
  Record q = parsed(
      "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain; charset=koi8-r;x=y\n"
      "Content-Transfer-Encoding: Quoted-Printable\n\na=3Db=\nc\n--b--\n");
  EXPECT_EQ(str(q->charset), "koi8-r;x=y");
  EXPECT_EQ(str(q->text), "a=bc\n");

  // No delimiter line in the body: the preview is empty.
  Record e = parsed("Content-Type: multipart/mixed; boundary=zz\n\nno parts here\n");
  ASSERT_NE(e->text, nullptr);
  EXPECT_EQ(str(e->text), "");

  // A part without a header: its body up to the next delimiter.
  Record n = parsed("Content-Type: multipart/mixed; boundary=zz\n\n--zz\n\nfirst\n--zz\n\nsecond\n");
  EXPECT_EQ(str(n->text), "first\n");
}

TEST(MailHdrParse, EncodedWordsRawAndJapanese) {
  const std::string msg =
      "From: =?utf-8?Q?J=C3=B6rg?= <j@x>\nTo: =?utf-8?B?w6Q=?= <t@x>\n"
      "Subject: =?iso-8859-1?Q?caf=E9?=\n\nbody";
  Record d = parsed(msg);
  EXPECT_EQ(str(d->from), "J\xc3\xb6rg <j@x>");
  EXPECT_EQ(str(d->to), "\xc3\xa4 <t@x>");
  EXPECT_EQ(str(d->subject), "caf\xe9");
  EXPECT_EQ(str(d->subject_charset), "iso-8859-1");

  Record r = parsed(msg, "us-ascii", true);
  EXPECT_EQ(str(r->from), "=?utf-8?Q?J=C3=B6rg?= <j@x>");
  EXPECT_EQ(str(r->to), "=?utf-8?B?w6Q=?= <t@x>");
  EXPECT_EQ(str(r->subject), "caf\xe9");

  // A Japanese subject comes out in Shift_JIS and marks the message.
  Record j = parsed("Subject: =?ISO-2022-JP?B?GyRCJUYlOSVIGyhC?=\n\nplain");
  EXPECT_EQ(str(j->subject), kSjisTesuto);
  EXPECT_EQ(str(j->subject_charset), "ISO-2022-JP");
  EXPECT_EQ(str(j->charset), "iso-2022-jp");

  // JIS and EUC-JP bodies are held in Shift_JIS.
  Record b = parsed("Content-Type: text/plain; charset=iso-2022-jp\n\n" + std::string(kJisTesuto) + "\n");
  EXPECT_EQ(str(b->text), std::string(kSjisTesuto) + "\n");
  Record eu = parsed("Content-Type: text/plain; charset=EUC-JP\n\n\xa5\xc6\xa5\xb9\xa5\xc8");
  EXPECT_EQ(str(eu->text), kSjisTesuto);
  // Every decoded field went through the EUC path, so the message is marked.
  EXPECT_EQ(str(eu->charset), "iso-2022-jp");
  Record cj = parsed(tarntest::read_file(tarntest::corpus_dir() + "/mime/cyrus-cassandane/iso-2022-jp.eml"),
                     "iso-2022-jp");
  EXPECT_EQ(std::string(cj->text).substr(0, 4), "\x83\x56\x83\x6a");  // シニ

  // mailhdr_str_decode answers "iso-2022-jp" for converted Japanese text.
  Record s = parsed("Subject: x\n\n");
  char word[] = "=?euc-jp?B?pcaluaXI?=";
  char* p = word;
  EXPECT_STREQ(mailhdr_str_decode(s.get(), &p, "us-ascii"), "iso-2022-jp");
  EXPECT_EQ(str(p), kSjisTesuto);
  char latin[] = "=?iso-8859-2?Q?x?=";
  p = latin;
  EXPECT_STREQ(mailhdr_str_decode(s.get(), &p, "us-ascii"), "iso-8859-2");
  p = &s->null_buf;
  EXPECT_EQ(mailhdr_str_decode(s.get(), &p, "us-ascii"), nullptr);
}

TEST(MailHdrParse, ConvertedTextLongerThanItsFieldMovesToTheTop) {
  // The preview fills the buffer up to its last byte.
  Record m = parsed("Subject: ab\n\n" + std::string(8178, 'p'));
  char* tail = m->data_tail;
  mailhdr_place_converted(m.get(), &m->subject, "longer text", 2, MLG_JAPANESE);
  EXPECT_EQ(str(m->subject), "longer text");
  EXPECT_EQ(m->subject, tail - 11);
  EXPECT_EQ(m->data_tail, tail - 12);
  EXPECT_EQ(std::strlen(m->text), static_cast<size_t>(m->data_tail - m->text));

  // No room above the preview: cut in place to the old length.
  Record f = parsed("Subject: ab\n\nshort");
  f->data_tail = f->text + 5;
  mailhdr_place_converted(f.get(), &f->subject, "longer text", 2, 0);
  EXPECT_EQ(str(f->subject), "lo");
  EXPECT_EQ(str(f->text), "short");
}

TEST(MailHdrInit, BoundsAndLongHeaders) {
  // At most 8191 bytes are copied; an embedded NUL or len ends the copy.
  std::string big(20000, 'x');
  Record m = std::make_unique<mailhdr>();
  mailhdr_init(m.get(), std::string(50, 'c').c_str(), big.data(), static_cast<int>(big.size()));
  EXPECT_EQ(std::strlen(m->data), 8191u);
  EXPECT_EQ(m->data_tail, m->data + 8191);
  EXPECT_EQ(std::strlen(m->charset), 31u);
  EXPECT_EQ(m->size, 20000);
  mailhdr_init(m.get(), nullptr, "Subject: s\0tail", 15);
  EXPECT_STREQ(m->data, "Subject: s");
  mailhdr_init(m.get(), "x", "Subject: s", 4);
  EXPECT_STREQ(m->data, "Subj");
  EXPECT_EQ(-2, mailhdr_init(nullptr, "x", "y", 1));

  // A header longer than 8192 bytes goes to the heap whole, without the body.
  std::string hdr = "Subject: long\r\nX-Pad: " + std::string(9000, 'p') + "\r\nTo: late@x\r\n";
  std::string msg = hdr + "\r\nthe body\r\n";
  Record l = std::make_unique<mailhdr>();
  mailhdr_init2(l.get(), "utf-8", msg.data(), static_cast<int>(msg.size()));
  ASSERT_NE(l->malloc_data, nullptr);
  EXPECT_EQ(std::strlen(l->malloc_data), hdr.size() - 1);
  mailhdr_parse(l.get());
  EXPECT_EQ(str(l->to), "late@x");
  EXPECT_EQ(str(l->subject), "long");
  EXPECT_EQ(l->text, nullptr);
  mailhdr_free(l.get());
  EXPECT_EQ(l->malloc_data, nullptr);

  // A short header stays in the record, with its preview.
  Record s = std::make_unique<mailhdr>();
  mailhdr_init2(s.get(), "utf-8", "To: a\n\nbody", -1);
  EXPECT_EQ(s->malloc_data, nullptr);
  mailhdr_parse(s.get());
  EXPECT_EQ(str(s->text), "body");
  mailhdr_free(s.get());
}

TEST(MailHdrInternal, UnfoldAndUnquote) {
  char a[] = "A: x\r\n \t y\r\nB: z\n\tw\nC";
  char* end = rfc822_unfold(a, a + sizeof a - 1);
  EXPECT_STREQ(a, "A: xy\nB: zw\nC");
  EXPECT_EQ(end, a + std::strlen(a));

  char q[] = "say \"hi \\\" there\" and";
  char* p = q;
  EXPECT_EQ(1, m_str_unquote(&p, static_cast<int>(std::strlen(q))));
  EXPECT_STREQ(p, "hi \\\" there");
  char open[] = "x\"never closed";
  p = open;
  EXPECT_EQ(0, m_str_unquote(&p, static_cast<int>(std::strlen(open))));
  EXPECT_STREQ(p, "never closed");
}

// ---- from a decoded message ----

const std::string kTreeMsg =
    "Received: from a (b [1.2.3.4])\n\tby c (envelope-from <s@e>)\n"
    "Received: from d by e\n"
    "Message-ID: <m@x>\nFrom: =?utf-8?Q?J=C3=B6rg?= <j@x>\nTo: t@x\nSubject: hi there\n"
    "Resent-From: r@x\nX-Priority: 2\nX-MSMail-Priority: Low\nX-TARN-Enews: 4\n"
    "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=\"B\"\n\n"
    "--B\nContent-Type: text/plain; charset=iso-8859-1\n\nHello <world>\n"
    "--B\nContent-Type: application/pdf; name=\"doc.pdf\"\nContent-Transfer-Encoding: base64\n\nJVBERi0x\n"
    "--B\nContent-Type: image/png\nContent-Disposition: attachment; filename=p.png\n\nraw\n--B--\n";

TEST(MailHdrTree, GetMailHdrBorrowsTheDecodedFields) {
  tarntest::Decoded dec(kTreeMsg, generalME);
  Record m = std::make_unique<mailhdr>();
  ASSERT_EQ(0, get_mail_hdr(&dec.ctx(), m.get(), "big5", 1234));
  EXPECT_EQ(str(m->msgid), "<m@x>");
  EXPECT_EQ(str(m->from), "J\xc3\xb6rg <j@x>");
  EXPECT_EQ(str(m->subject), "hi there");
  EXPECT_EQ(str(m->resent_from), "r@x");
  EXPECT_EQ(m->cc, &m->null_buf);
  EXPECT_EQ(m->in_reply_to, &m->null_buf);
  EXPECT_EQ(str(m->content_type), "multipart/mixed; boundary=\"B\"");
  EXPECT_EQ(m->size, 1234);
  EXPECT_EQ(m->hops, 2);
  EXPECT_EQ(hosts(*m), "b|1.2.3.4|d|");
  ASSERT_EQ(m->envenum, 1);
  EXPECT_EQ(str(m->envelope[0]), "s@e");
  EXPECT_EQ(m->important_level, 5);
  EXPECT_EQ(m->tarn_enews_flag, 4);
  // The text part was converted to UTF-8, which the root took over: value 3.
  EXPECT_EQ(str(m->charset), "utf-8");
  EXPECT_EQ(str(m->attachment), "doc.pdf\n6\napplication/pdf\np.png\n3\nimage/png\n");

  // Without priority headers: normal; a caller's default when the message
  // names no charset.
  tarntest::Decoded plain("Subject: s\n\nbody\n", generalME);
  Record p = std::make_unique<mailhdr>();
  get_mail_hdr(&plain.ctx(), p.get(), "big5", 0);
  EXPECT_EQ(p->important_level, 3);
  EXPECT_EQ(str(p->charset), "big5");
  EXPECT_EQ(str(p->subject_charset), "big5");
  EXPECT_EQ(str(p->attachment), "");
  EXPECT_EQ(-2, get_mail_hdr(nullptr, p.get(), "x", 0));

  // A message without a header: every field reads as absent.
  tarntest::Decoded bare("\nbody only\n", generalME);
  Record b = std::make_unique<mailhdr>();
  get_mail_hdr(&bare.ctx(), b.get(), "utf-8", 0);
  EXPECT_EQ(b->subject, &b->null_buf);
  EXPECT_EQ(b->msgid, &b->null_buf);
  EXPECT_EQ(str(b->content_type), "text/plain");  // the default type
  EXPECT_EQ(b->important_level, 3);
  EXPECT_EQ(b->hops, 0);
}

TEST(MailHdrTree, MessagePartialFromTheTree) {
  tarntest::Decoded dec("Message-ID: <outer>\nContent-Type: message/partial; id=\"abc@h\"; number=1; total=2\n\nx",
                        generalME);
  Record g = std::make_unique<mailhdr>();
  get_mail_hdr(&dec.ctx(), g.get(), nullptr, 0);
  EXPECT_EQ(str(g->msgid), "abc@h");
  EXPECT_EQ(g->partial_number, 1);
  EXPECT_EQ(g->partial_total, 2);

  tarntest::Decoded dec2("Message-ID: <outer>\nContent-Type: message/partial; number=3; total=4; id=q@h\n\nx",
                         generalME);
  Record d = std::make_unique<mailhdr>();
  dup_mail_hdr_ex(&dec2.ctx(), d.get(), nullptr, 0, MAILHDR_DUP_MSGID | MAILHDR_DUP_CTYPE);
  EXPECT_EQ(str(d->msgid), "q@h");
  EXPECT_EQ(str(d->content_type), "message/partial; number=3; total=4; id=q@h");
  EXPECT_EQ(d->partial_number, 3);
  EXPECT_EQ(d->partial_total, 4);
  free_dup_mail_hdr(d.get());
}

TEST(MailHdrTree, DupCopiesWhatTheFlagsSelect) {
  tarntest::Decoded dec(kTreeMsg, generalME);
  Record all = std::make_unique<mailhdr>();
  ASSERT_EQ(0, dup_mail_hdr(&dec.ctx(), all.get(), "big5", 99));
  EXPECT_EQ(str(all->subject), "hi there");
  EXPECT_NE(all->subject, dec.ctx().result.me_node.h->rfc822->subject[0]);
  EXPECT_EQ(str(all->to), "t@x");
  EXPECT_EQ(all->cc, &all->null_buf);
  EXPECT_EQ(hosts(*all), "b|1.2.3.4|d|");
  EXPECT_EQ(all->important_level, 5);
  EXPECT_EQ(str(all->charset), "utf-8");
  EXPECT_EQ(str(all->attachment), "doc.pdf\n6\napplication/pdf\np.png\n3\nimage/png\n");
  // The preview is the text rendering of the message, in the record's buffer.
  ASSERT_EQ(all->text, all->data);
  EXPECT_EQ(str(all->text), "Hello <world>");
  free_dup_mail_hdr(all.get());
  EXPECT_EQ(all->subject, nullptr);
  EXPECT_EQ(all->hosts[0], nullptr);

  Record some = std::make_unique<mailhdr>();
  dup_mail_hdr_ex(&dec.ctx(), some.get(), "big5", 0, MAILHDR_DUP_SUBJECT | 0x10);
  EXPECT_EQ(str(some->subject), "hi there");
  EXPECT_EQ(some->from, nullptr);
  EXPECT_EQ(some->text, nullptr);
  EXPECT_EQ(some->hostnum, 0);
  EXPECT_EQ(some->important_level, 3);
  EXPECT_EQ(some->tarn_enews_flag, 0);
  EXPECT_EQ(str(some->charset), "");
  free_dup_mail_hdr(some.get());

  // A body longer than the record's buffer renders into a heap buffer.
  std::string long_body = "Subject: l\n\n" + std::string(20000, 'w') + "\n";
  tarntest::Decoded big(long_body, generalME);
  Record l = std::make_unique<mailhdr>();
  dup_mail_hdr_ex(&big.ctx(), l.get(), nullptr, 0, MAILHDR_DUP_TEXT);
  ASSERT_NE(l->text, l->data);
  EXPECT_GT(std::strlen(l->text), 8191u);
  free_dup_mail_hdr(l.get());
}

TEST(MailHdrTree, AttachmentSummaryStopsAListThatIsFull) {
  tarntest::Decoded dec(
      "Content-Type: multipart/mixed; boundary=O\n\n--O\nContent-Type: multipart/mixed; boundary=I\n\n"
      "--I\nContent-Type: application/pdf; name=\"a.pdf\"\n\nAAAA\n--I\n"
      "Content-Type: image/gif; name=\"i.gif\"\n\nGIF\n--I--\n"
      "--O\nContent-Type: application/zip; name=\"b.zip\"\n\nBB\n--O--\n",
      mailerdME);
  ME* root = &dec.ctx().result.me_node;
  char att[MAILHDR_ATTACHMENT_SIZE] = {};
  MailHdrGetAttInfo(root, att);
  EXPECT_STREQ(att, "a.pdf\n4\napplication/pdf\ni.gif\n3\nimage/gif\nb.zip\n2\napplication/zip\n");

  // A line that does not fit ends its own list (the image after it is not
  // listed) but not the list around it; lines are cut to 1023 bytes.
  std::string longname(1500, 'n');
  root->child->child->h->mime.filename = longname.data();
  const std::string filler(3500, 'x');
  std::memcpy(att, filler.c_str(), filler.size() + 1);
  MailHdrGetAttInfo(root, att);
  EXPECT_EQ(std::string(att), filler + "b.zip\n2\napplication/zip\n");
  std::memcpy(att, filler.c_str(), 2000);
  att[2000] = '\0';
  MailHdrGetAttInfo(root, att);
  EXPECT_EQ(std::strlen(att), 2000u + 1023u + 18u + 24u);
}

TEST(MailHdrDump, PrintsEveryLine) {
  Record m = parsed(
      "Received: from a (b [1.2.3.4]) by c (envelope-from <s@e>)\nSubject: s\nFrom: f\n"
      "X-Priority: 1\n\n" + std::string(600, 'b'));
  testing::internal::CaptureStdout();
  mailhdr_dump(m.get());
  std::fflush(stdout);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out,
            "Message-ID: '(null)'\nFrom: 'f'\nResent-From: ''\nSubject: 's'\nCC: ''\nTo: ''\nBCC: ''\n"
            "Content-Type: ''\nReply-To:  ''\nIn-Reply-To:  '(null)'\nRefrences:  '(null)'\nDate: ''\n"
            "Charset: 'us-ascii'\nHops: 1\nImportant: 1\nPartial:  0/0\nEnvelope num: 1\nEnvelope 1: 's@e'\n"
            "Hostnum: 2\nHost 1: 'b'\nHost 2: '1.2.3.4'\nText:\n" + std::string(512, 'b') + "\n");
}

// ---- real and hostile messages ----

TEST(MailHdrCorpus, RealMessageFields) {
  const std::string msg = tarntest::read_file(tarntest::corpus_dir() + "/mime/spamassassin/spam/001");
  Record m = parsed(msg);
  EXPECT_EQ(str(m->msgid), "<9PS291LhupY>");
  EXPECT_EQ(str(m->subject), "There yours for FREE!");
  EXPECT_EQ(str(m->date), "18 Feb 01 12:29:13 AM");
  EXPECT_EQ(m->hops, 3);
  EXPECT_EQ(hosts(*m),
            "mail.webnote.net|193.120.211.219|USR-157-050.dr.cgocable.ca|24.226.157.50|"
            "max1-45.losangeles.corecomm.net|216.214.106.173|");
  EXPECT_EQ(std::string(m->text).substr(0, 20), "For tests that use t");

  // The same hosts through the decoded tree, where the values keep their folding.
  tarntest::Decoded dec(msg, generalME);
  Record t = std::make_unique<mailhdr>();
  get_mail_hdr(&dec.ctx(), t.get(), nullptr, 0);
  EXPECT_EQ(hosts(*t), hosts(*m));

  const std::string pdf = tarntest::read_file(tarntest::corpus_dir() + "/mime/mail-gem/attachment_emails/attachment_pdf_lf.eml");
  Record a = parsed(pdf);
  EXPECT_EQ(str(a->charset), "ISO-8859-1");
  tarntest::Decoded pdec(pdf, generalME);
  Record d = std::make_unique<mailhdr>();
  dup_mail_hdr(&pdec.ctx(), d.get(), nullptr, 0);
  EXPECT_EQ(str(d->attachment), "00\n127\ntext/plain\nbroken.pdf\n1026\napplication/pdf\n");
  EXPECT_EQ(str(d->text),
            "Just attaching another PDF, here, to see what the message looks like,\n"
            "and to see if I can figure out what is going wrong here.\n");
  EXPECT_EQ(d->hops, 7);
  EXPECT_EQ(str(d->charset), "ISO-8859-1");
  free_dup_mail_hdr(d.get());
}

TEST(MailHdrCorpus, EveryMessageBothWays) {
  size_t n = 0;
  for (const std::string& path : tarntest::corpus_files("mime")) {
    const std::string msg = tarntest::read_file(path);
    Record m = std::make_unique<mailhdr>();
    mailhdr_init2(m.get(), "us-ascii", msg.data(), static_cast<int>(msg.size()));
    mailhdr_parse(m.get());
    ASSERT_NE(m->subject, nullptr) << path;
    ASSERT_LE(m->hostnum, 20) << path;
    if (m->text != nullptr) {
      ASSERT_LT(std::strlen(m->text), sizeof m->data) << path;
    }
    mailhdr_free(m.get());

    tarntest::Decoded dec(msg, generalME);
    Record d = std::make_unique<mailhdr>();
    dup_mail_hdr(&dec.ctx(), d.get(), "us-ascii", static_cast<int>(msg.size()));
    ASSERT_NE(d->text, nullptr) << path;
    ASSERT_LT(std::strlen(d->attachment), sizeof d->attachment) << path;
    free_dup_mail_hdr(d.get());
    ++n;
  }
  EXPECT_GT(n, 500u);
}

TEST(MailHdrHostile, BrokenInputStaysInside) {
  const std::vector<std::string> inputs = {
      "",
      "\n\n",
      "\r\n\r\n",
      "Content-Type: multipart/mixed; boundary=\n\n--\n\n",
      "Content-Type: multipart/mixed; boundary=a\n\n--a",
      "Content-Type: multipart/mixed; boundary=a\n\n--a\nContent-Type: multipart/x; boundary=a\n\n--a\n",
      "Content-Type: message/partial; id=\n\n",
      "Content-Type: ;;;\"\n\n",
      "Received: from (((([[[[ by \n\n",
      "Received: (envelope-from\n\n",
      "Subject: =?iso-2022-jp?B?GyRC?=\nContent-Type: text/plain; charset=euc-jp\n\n\xa5",
      std::string("Subject: a\0b\n\nc", 15),
      "Content-Type: multipart/mixed; boundary=" + std::string(3000, 'b') + "\n\n--" + std::string(3000, 'b') + "\n\nx",
      std::string(8191, '\n'),
      "Received: from " + std::string(9000, '(') + " by x\n\n",
  };
  for (const std::string& in : inputs) {
    for (bool raw : {false, true}) {
      Record m = std::make_unique<mailhdr>();
      mailhdr_init2(m.get(), "iso-2022-jp", in.data(), static_cast<int>(in.size()));
      raw ? mailhdr_parse_raw(m.get()) : mailhdr_parse(m.get());
      mailhdr_free(m.get());
    }
  }
  // A parse of nested parts that repeat their boundary ends.
  std::string nest = "Content-Type: multipart/mixed; boundary=q\n\n";
  for (int i = 0; i < 500; ++i) nest += "--q\nContent-Type: multipart/mixed; boundary=q\n\n";
  Record m = parsed(nest);
  EXPECT_EQ(str(m->text), "");
}

}  // namespace
