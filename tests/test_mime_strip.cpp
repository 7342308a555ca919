// The structure walk: header ends, multipart delimiters, embedded messages,
// nesting limits and error bits.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mime_internal.h"
#include "support.h"

using tarntest::Decoded;
using tarntest::walk;

namespace {

std::vector<ME*> parts(ME* multipart) {
  std::vector<ME*> out;
  for (ME* p = multipart->child; p != nullptr; p = p->next) out.push_back(p);
  return out;
}

long off(Decoded& d, const char* p) { return p == nullptr ? -1 : p - d.buffer(); }

std::string raw(const char* bgn, const char* end) { return std::string(bgn, static_cast<size_t>(end - bgn)); }

TEST(Strip, SinglePartBodyRunsToTheEnd) {
  std::string msg = "Subject: s\n\nline 1\nline 2\n";
  Decoded d(msg, imapME);
  ME* root = d.root();
  EXPECT_EQ(0, d.error_code());
  EXPECT_EQ(nullptr, root->child);
  EXPECT_EQ(nullptr, root->next);
  EXPECT_EQ(d.buffer(), root->header_bgn);
  EXPECT_EQ(10, off(d, root->header_end));
  EXPECT_EQ(12, off(d, root->body_bgn));
  EXPECT_EQ(static_cast<long>(msg.size()), off(d, root->body_end));
}

TEST(Strip, HeaderEndsAtBlankLineInEveryLineEndStyle) {
  Decoded crlf("A: 1\r\nB: 2\r\n\r\nbody", imapME);
  EXPECT_EQ(11, off(crlf, crlf.root()->header_end));
  EXPECT_EQ(14, off(crlf, crlf.root()->body_bgn));
  Decoded lead("\nbody", imapME);  // an empty line first: an empty header block
  EXPECT_EQ(0, off(lead, lead.root()->header_end));
  EXPECT_EQ(1, off(lead, lead.root()->body_bgn));
  ASSERT_NE(nullptr, lead.root()->h);
}

TEST(Strip, BufferWithoutEmptyLineIsAllHeader) {
  Decoded d("A: 1\nB: 2\nC: 3", imapME);
  EXPECT_EQ(MIME_ERR_NO_HEADER_END, d.error_code());
  ME* root = d.root();
  ASSERT_NE(nullptr, root->h);
  int n = 0;
  for (HE* he = root->h->he; he; he = he->next) ++n;
  EXPECT_EQ(3, n);
  EXPECT_EQ(root->body_end, root->header_end);
  EXPECT_EQ(10, off(d, root->body_bgn));  // left at the start of the last line
}

TEST(Strip, EmptyBufferHasNoHeaderBlock) {
  Decoded d("", imapME);
  EXPECT_EQ(nullptr, d.root()->h);
  GET_RFC822_HEADER g;
  memset(&g, 0x55, sizeof g);
  mime_get_rfc822_header(&d.ctx(), &g);
  GET_RFC822_HEADER zero{};
  EXPECT_EQ(0, memcmp(&zero, &g, sizeof g));
  EXPECT_EQ(nullptr, mime_get_header_field(&d.ctx(), "Subject"));
}

const char kMixed[] =
    "Content-Type: multipart/mixed; boundary=\"XX\"\n"
    "\n"
    "preamble mentions XX-not-a-delimiter\n"
    "--XX\n"
    "Content-Type: text/plain\n"
    "\n"
    "one\n"
    "--XX\n"
    "\n"
    "two\n"
    "--XX--\n";

TEST(Strip, BoundaryInPreambleStartsTheFirstPart) {
  // The first occurrence of the boundary text starts the first part, even
  // inside the preamble.
  Decoded d(kMixed, imapME);
  auto p = parts(d.root());
  ASSERT_EQ(2u, p.size());
  EXPECT_EQ(0, d.error_code() & ~MIME_ERR_NO_HEADER_END);
  std::string first_header = raw(p[0]->header_bgn, p[0]->body_end);
  EXPECT_EQ(0u, first_header.find("not-a-delimiter\n--XX"));
}

TEST(Strip, PartsAreCutAtDelimiterLines) {
  std::string msg =
      "Content-Type: multipart/mixed; boundary=b\n\n"
      "preamble\n"
      "--b\nContent-Type: text/plain\n\none\n"
      "--b\n\ntwo\n"
      "--b\nContent-Type: text/html\n\n<p>3</p>\n"
      "--b--\n";
  Decoded d(msg, imapME);
  EXPECT_EQ(0, d.error_code());
  auto p = parts(d.root());
  ASSERT_EQ(3u, p.size());
  EXPECT_EQ("one", raw(p[0]->body_bgn, p[0]->body_end));
  EXPECT_EQ("two", raw(p[1]->body_bgn, p[1]->body_end));
  EXPECT_EQ("<p>3</p>", raw(p[2]->body_bgn, p[2]->body_end));
  EXPECT_EQ(MIME_CT_TEXT, p[1]->h->mime.ctype);  // headerless part: text/plain
  EXPECT_EQ(MIME_CT_HTML, p[2]->h->mime.ctype);
  EXPECT_NE(nullptr, p[0]->h->rfc822);  // parts of multipart/mixed may start a message
  EXPECT_EQ(nullptr, p[2]->next);
  EXPECT_EQ(nullptr, d.root()->next);
}

TEST(Strip, CrLfMessage) {
  std::string msg =
      "Content-Type: multipart/alternative; boundary=b\r\n\r\n"
      "--b\r\nContent-Type: text/plain\r\n\r\none\r\n"
      "--b\r\nContent-Type: text/html\r\n\r\ntwo\r\n"
      "--b--\r\n";
  Decoded d(msg, imapME);
  EXPECT_EQ(0, d.error_code());
  auto p = parts(d.root());
  ASSERT_EQ(2u, p.size());
  EXPECT_EQ("one", raw(p[0]->body_bgn, p[0]->body_end));
  EXPECT_EQ("two", raw(p[1]->body_bgn, p[1]->body_end));
  EXPECT_EQ(nullptr, p[0]->h->rfc822);  // alternatives never start a message
}

TEST(Strip, ClosingDelimiterWithCrLfLeavesTheEpilogueOnTheLf) {
  std::string msg =
      "Content-Type: multipart/mixed; boundary=b\n\n"
      "--b\n\nbody\n--b--\r\nepilogue text";
  Decoded d(msg, imapME);
  ME* epilogue = d.root()->next;
  ASSERT_NE(nullptr, epilogue);
  EXPECT_EQ(static_cast<long>(msg.find("\nepilogue")), off(d, epilogue->header_bgn));
  // Starting on that LF, the epilogue has an empty header block.
  EXPECT_EQ(0, d.error_code());
  EXPECT_EQ(static_cast<long>(msg.find("epilogue")), off(d, epilogue->body_bgn));
  EXPECT_EQ(nullptr, epilogue->next);

  // Ended by LF alone, the epilogue's own text is its header block.
  std::string lf = "Content-Type: multipart/mixed; boundary=b\n\n--b\n\nbody\n--b--\nepilogue text";
  Decoded plain(lf, imapME);
  ASSERT_NE(nullptr, plain.root()->next);
  EXPECT_EQ(static_cast<long>(lf.find("epilogue")), off(plain, plain.root()->next->header_bgn));
  EXPECT_EQ(MIME_ERR_NO_HEADER_END, plain.error_code());
  EXPECT_STREQ("epilogue text", plain.root()->next->h->he->ent_name);
}

TEST(Strip, LineBreaksAfterTheClosingDelimiterMakeNoEntity) {
  Decoded d("Content-Type: multipart/mixed; boundary=b\n\n--b\n\nx\n--b--\n\n\r\n\n", imapME);
  EXPECT_EQ(nullptr, d.root()->next);
  EXPECT_EQ(0, d.error_code());
}

TEST(Strip, DashesFollowedByOtherTextDoNotClose) {
  std::string msg =
      "Content-Type: multipart/mixed; boundary=b\n\n"
      "--b\n\none\n--b-- \n\nlast\n--b--\n";
  Decoded d(msg, imapME);
  auto p = parts(d.root());
  ASSERT_EQ(2u, p.size());
  EXPECT_EQ("one", raw(p[0]->body_bgn, p[0]->body_end));
  EXPECT_EQ("last", raw(p[1]->body_bgn, p[1]->body_end));
  EXPECT_EQ(static_cast<long>(msg.find("-- \n")), off(d, p[1]->header_bgn));
}

TEST(Strip, MissingDelimitersSetErrorBitOne) {
  Decoded open("Content-Type: multipart/mixed; boundary=b\n\n--b\n\none\n--b\n\ntwo\n", imapME);
  EXPECT_EQ(MIME_ERR_NO_CLOSE_BOUNDARY, open.error_code());
  auto p = parts(open.root());
  ASSERT_EQ(2u, p.size());
  EXPECT_EQ(open.buffer() + open.size(), p[1]->body_end);

  Decoded absent("Content-Type: multipart/mixed; boundary=zz\n\nno delimiters here\n", imapME);
  EXPECT_EQ(0, absent.error_code());
  EXPECT_EQ(nullptr, absent.root()->child);
}

TEST(Strip, DigestPartsDefaultToMessages) {
  std::string msg =
      "Content-Type: multipart/digest; boundary=d\n\n"
      "--d\n\nSubject: inner\n\ntext\n"
      "--d--\n";
  Decoded d(msg, imapME);
  auto p = parts(d.root());
  ASSERT_EQ(1u, p.size());
  EXPECT_STREQ("message/rfc822", p[0]->h->mime.ctype_str);
  EXPECT_EQ(MIME_CT_RFC822, p[0]->h->mime.ctype);
  ASSERT_NE(nullptr, p[0]->child);
  ASSERT_NE(nullptr, p[0]->child->h->rfc822);
  EXPECT_STREQ("inner", *p[0]->child->h->rfc822->subject);
}

TEST(Strip, EmbeddedMessageBecomesOneChild) {
  std::string msg =
      "Content-Type: multipart/mixed; boundary=b\n\n"
      "--b\nContent-Type: message/rfc822\n\n"
      "Subject: inner\n\ninner body\n"
      "--b--\n";
  Decoded d(msg, imapME);
  EXPECT_EQ(0, d.error_code());
  ME* m = d.root()->child;
  ASSERT_NE(nullptr, m);
  ASSERT_NE(nullptr, m->child);
  EXPECT_EQ(nullptr, m->child->next);
  EXPECT_STREQ("inner", *m->child->h->rfc822->subject);
  EXPECT_EQ("inner body", raw(m->child->body_bgn, m->child->body_end));
  EXPECT_EQ(m->body_end, m->child->body_end);
  ASSERT_NE(nullptr, m->h->mime.org_text);
  EXPECT_EQ(0, memcmp(m->h->mime.org_text, "Subject: inner\n\ninner body", 26));
}

TEST(Strip, EncodedEmbeddedMessageIsKeptWholeAndDecodedIntoOrgText) {
  std::string msg =
      "Content-Type: multipart/mixed; boundary=b\n\n"
      "--b\nContent-Type: message/rfc822\nContent-Transfer-Encoding: base64\n\n"
      "U3ViamVjdDogaGkKCmJvZHk=\n"
      "--b--\n";
  Decoded d(msg, imapME);  // structure only: the copy stays encoded
  ME* m = d.root()->child;
  EXPECT_EQ(nullptr, m->child);
  EXPECT_STREQ("U3ViamVjdDogaGkKCmJvZHk=", m->h->mime.org_text);

  MIME_DECODE level = imapME;
  level.decode_level = MIME_DL_BASE64;
  Decoded dec(msg, level);
  ME* m2 = dec.root()->child;
  EXPECT_EQ(nullptr, m2->child);
  EXPECT_STREQ("Subject: hi\n\nbody", m2->h->mime.org_text);
}

TEST(Strip, AttachedMessageStaysOpaqueWithBit0x40) {
  std::string msg =
      "Content-Type: multipart/mixed; boundary=b\n\n"
      "--b\nContent-Type: message/rfc822\nContent-Disposition: attachment\n\n"
      "Subject: inner\n\nbody\n"
      "--b\nContent-Type: message/rfc822\nContent-Disposition: inline; filename=\"m.eml\"\n\n"
      "Subject: inner2\n\nbody\n"
      "--b--\n";
  MIME_DECODE level = imapME;
  level.decode_level = MIME_DL_RFC822_ATT;
  Decoded d(msg, level);
  auto p = parts(d.root());
  ASSERT_EQ(2u, p.size());
  EXPECT_EQ(nullptr, p[0]->child);
  EXPECT_EQ(nullptr, p[1]->child);  // "name" is found inside "filename"
  EXPECT_EQ("Subject: inner\n\nbody", raw(p[0]->body_bgn, p[0]->body_end));

  Decoded parsed(msg, imapME);
  EXPECT_NE(nullptr, parts(parsed.root())[0]->child);
}

std::string nested_messages(int depth) {
  std::string msg;
  for (int i = 0; i < depth; ++i) msg += "Subject: level " + std::to_string(i) + "\nContent-Type: message/rfc822\n\n";
  return msg + "Subject: innermost\n\nbody\n";
}

TEST(Strip, MessageNestingStopsAtNineLevels) {
  Decoded ok(nested_messages(8), imapME);  // eight levels down is still parsed whole
  EXPECT_EQ(0, ok.error_code());

  Decoded deep(nested_messages(9), imapME);
  EXPECT_EQ(MIME_ERR_TOO_DEEP, deep.error_code());
  ME* me = deep.root();
  int level = 0;
  while (me->child != nullptr) {
    me = me->child;
    ++level;
  }
  EXPECT_EQ(9, level);
  ASSERT_NE(nullptr, me->h);  // the deepest keeps its header block only
  EXPECT_STREQ("innermost", *me->h->rfc822->subject);
  EXPECT_EQ(nullptr, me->child);
}

TEST(Strip, DeeplyNestedMultipartsDoNotExhaustTheStack) {
  std::string msg;
  const int depth = 5000;
  for (int i = 0; i < depth; ++i)
    msg += "Content-Type: multipart/mixed; boundary=\"b" + std::to_string(i) + "\"\n\n--b" + std::to_string(i) + "\n";
  msg += "\nleaf\n";
  for (int i = depth - 1; i >= 0; --i) msg += "--b" + std::to_string(i) + "--\n";
  Decoded d(msg, generalME);
  auto all = walk(d.root());
  EXPECT_GT(all.size(), 100u);
  EXPECT_LT(all.size(), static_cast<size_t>(depth));
}

TEST(BoundaryFind, DelimiterLinesOnly) {
  char text[] = "x\n--bnd\n--bnd \n--bndX\r\n--bnd-\n";
  char* end = text + sizeof text - 1;
  char* first = mime_boundary_find(text, end, const_cast<char*>("bnd"), 3);
  EXPECT_EQ(text + 1, first);  // the LF in front of "--bnd" LF
  char* second = mime_boundary_find(text + 3, end, const_cast<char*>("bnd"), 3);
  EXPECT_EQ(text + 21, second);  // the CR in front of the LF before "--bnd-"; "--bnd " and "--bndX" do not qualify
  // A search that starts on "--" and the boundary needs nothing after it,
  // and answers with the byte in front.
  EXPECT_EQ(text + 22, mime_boundary_find(text + 23, end, const_cast<char*>("bnd"), 3));
  EXPECT_EQ(text + 7, mime_boundary_find(text + 8, end, const_cast<char*>("bnd"), 3));
  // The search ends at `end`.
  EXPECT_EQ(nullptr, mime_boundary_find(text + 3, text + 20, const_cast<char*>("bnd"), 3));
}

TEST(BoundaryFind, PrefixCompareOverTheGivenLength) {
  char text[] = "a\n--abcdef\n";
  // Only b_size bytes are compared, and then a line break or "-" must follow.
  EXPECT_EQ(nullptr, mime_boundary_find(text, text + 11, const_cast<char*>("abcXYZ"), 3));
  EXPECT_EQ(nullptr, mime_boundary_find(text, text + 11, const_cast<char*>("abc"), 3));  // 'd' follows
  EXPECT_EQ(text + 1, mime_boundary_find(text, text + 11, const_cast<char*>("abcdef"), 6));
}

}  // namespace
