// Charset values, the MIME/MLG mapping, strip_charset, the charset queries
// over a tree, and header decoding (decode_header).
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "mime_internal.h"
#include "support.h"
#include "tarnmail.h"

namespace {

// The public list, in order; each of its names is found whole, without
// regard to case, and nothing else is.
TEST(CharsetList, NamesValuesAndWholeNameLookup) {
  const std::vector<std::pair<std::string, int>> expected = {
      {"iso-2022-jp", 1}, {"euc-jp", 4}, {"euc-kr", 11},  {"big5", 2},        {"gb2312", 10},
      {"gbk", 10},        {"gb18030", 12}, {"utf-8", 3},  {"utf8", 3},        {"utf-7", 5},
      {"utf7", 5},        {"iso-8859-1", 6}, {"iso-8859-2", 7}, {"iso-8859-3", 8}, {"iso-8859-4", 9},
  };
  std::size_t i = 0;
  for (; g_pstCharsetList[i].pszCharset != nullptr; ++i) {
    ASSERT_LT(i, expected.size());
    EXPECT_EQ(g_pstCharsetList[i].pszCharset, expected[i].first);
    EXPECT_EQ(g_pstCharsetList[i].nValue, expected[i].second);
  }
  EXPECT_EQ(i, expected.size());
  for (auto [name, value] : expected) {
    for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_EQ(MLC_CharsetToMIMEVal(name.c_str()), value) << name;
  }
  for (const char* miss : {static_cast<const char*>(nullptr), "", "iso-8859-15", "utf-8 ", "big", "windows-1252"})
    EXPECT_EQ(MLC_CharsetToMIMEVal(miss), 0) << (miss ? miss : "NULL");
}

TEST(CharsetMapping, EveryPairBothWays) {
  // MIME value -> MLG value.
  const std::vector<std::pair<int, int>> mime_to_mlg = {
      {0, 0}, {1, 4}, {2, 2}, {3, 1},  {4, 4},   {5, 11},  {6, 6},   {7, 7},
      {8, 8}, {9, 9}, {10, 3}, {11, 5}, {12, 14}, {13, 0}, {-1, 0}, {99, 0},
  };
  for (auto [mime, mlg] : mime_to_mlg) EXPECT_EQ(MLC_MIMEToMLGCharset(mime), mlg) << mime;

  // MLG value -> MIME value: Japanese answers ISO-2022-JP, EUC-KR answers 11
  // (the later pair (0, 5) is never reached).
  const std::vector<std::pair<int, int>> mlg_to_mime = {
      {0, 0}, {1, 3}, {2, 2}, {3, 10}, {4, 1},  {5, 11},  {6, 6},   {7, 7},  {8, 8},
      {9, 9}, {10, 0}, {11, 5}, {12, 0}, {13, 0}, {14, 12}, {-1, 0}, {32, 0},
  };
  for (auto [mlg, mime] : mlg_to_mime) EXPECT_EQ(MLC_MLGToMIMECharset(mlg), mime) << mlg;

  // Round trips through the platform's names.
  EXPECT_EQ(MLC_MLGToMIMECharset(MLG_CharsetWEncToValue("euc-jp")), 1);
  EXPECT_EQ(MLC_MLGToMIMECharset(MLG_CharsetWEncToValue("Big5")), 2);
  EXPECT_EQ(MLC_MLGToMIMECharset(MLG_CharsetWEncToValue("gb18030")), 12);
}

// Value and name for a Content-Type text, with the default 99 so it shows.
std::pair<int, std::string> strip(const char* ctype) {
  MIME_DECODE ctx{};
  ctx.default_enc_cset = 99;
  std::string copy = ctype;
  char name[16];
  std::memset(name, 'x', sizeof name);
  const int value = strip_charset(copy.data(), &ctx, name, sizeof name);
  if (std::memchr(name, '\0', sizeof name) == nullptr) return {value, "<unterminated>"};
  return {value, name};
}

TEST(StripCharset, PrefixRuleAndParameterText) {
  const std::vector<std::pair<const char*, int>> cases = {
      {"text/plain; charset=ISO-2022-JP-2", 1}, {"text/plain; charset=EUC-JP", 4},
      {"text/plain; charset=euc-kr", 11},       {"text/plain; charset=big5-hkscs", 2},
      {"text/plain; charset=GB2312", 10},       {"text/plain; charset=gb18030", 12},
      {"text/plain; charset=gb1803", 12},       {"text/plain; charset=gb180", 99},
      {"text/plain; charset=utf-8", 3},         {"text/plain; charset=UTF-7", 5},
      {"text/plain; charset=ISO-8859-15", 6},   {"text/plain; charset=iso-8859-2", 7},
      {"text/plain; charset=iso-8859-3", 8},    {"text/plain; charset=iso-8859-4", 9},
      {"text/plain; charset=iso-8859-5", 99},   {"text/plain; charset=UTF8", 99},
      {"text/plain; charset=gbk", 99},          {"text/plain; charset=utf7", 99},
      {"text/plain; charset=windows-1252", 99}, {"text/plain; charset=", 99},
      {"text/plain; charset=\"\"", 99},
  };
  for (auto [ctype, expected] : cases) EXPECT_EQ(strip(ctype).first, expected) << ctype;

  using R = std::pair<int, std::string>;
  EXPECT_EQ(strip("text/plain; charset=\"ISO-8859-15\"; format=flowed"), R(6, "ISO-8859-15"));
  EXPECT_EQ(strip("text/html;\n\tcharset = \"big5\""), R(2, "big5"));
  EXPECT_EQ(strip("text/plain; CHARSET=utf-8;format=flowed"), R(3, "utf-8"));
  EXPECT_EQ(strip("text/plain"), R(99, ""));
  // The name is cut to the 16-byte field.
  EXPECT_EQ(strip("text/plain; charset=iso-8859-1-with-a-long-tail"), R(6, "iso-8859-1-with"));

  // Missing pieces.
  MIME_DECODE ctx{};
  ctx.default_enc_cset = 1;
  char out[16] = "junk";
  EXPECT_EQ(strip_charset(nullptr, &ctx, out, sizeof out), 1);
  EXPECT_STREQ(out, "");
  char ct[] = "text/plain; charset=utf-8";
  EXPECT_EQ(strip_charset(ct, &ctx, nullptr, 16), 1);
  EXPECT_EQ(strip_charset(ct, nullptr, out, sizeof out), 3);
}

// --- hand-built trees -------------------------------------------------------

// Owns the entities and header blocks of a small tree.
class Tree {
 public:
  ME* entity(const char* charset_str = nullptr, int charset = 0) {
    ME& me = entities_.emplace_back();
    if (charset_str != nullptr) {
      ME_HEADER& h = headers_.emplace_back();
      std::strncpy(h.mime.charset_str, charset_str, sizeof h.mime.charset_str - 1);
      h.mime.charset = charset;
      me.h = &h;
    }
    return &me;
  }
  HE* field(ME* me, const char* name, const char* value) {
    names_.emplace_back(name);
    values_.emplace_back(value);
    HE& he = fields_.emplace_back();
    he.ent_name = names_.back().data();
    he.ent_ptr = values_.back().data();
    he.ent_len = static_cast<int>(values_.back().size());
    HE** link = &me->h->he;
    while (*link != nullptr) link = &(*link)->next;
    *link = &he;
    return &he;
  }

 private:
  std::deque<ME> entities_;
  std::deque<ME_HEADER> headers_;
  std::deque<HE> fields_;
  std::deque<std::string> names_, values_;
};

TEST(CharsetQueries, GetAndHasWalkChildBeforeNext) {
  Tree t;
  ME* root = t.entity("");
  ME* part1 = t.entity("");
  ME* inner = t.entity("big5", 2);
  ME* part2 = t.entity("utf-8", 3);
  ME* bare = t.entity();  // no header block
  root->child = part1;
  part1->child = inner;
  part1->next = part2;
  part2->next = bare;

  EXPECT_EQ(mime_get_charset(root), inner->h->mime.charset_str);
  EXPECT_EQ(mime_get_charset(part2), part2->h->mime.charset_str);
  EXPECT_EQ(mime_get_charset(bare), nullptr);
  EXPECT_EQ(mime_get_charset(nullptr), nullptr);

  EXPECT_EQ(mime_has_charset(root, 2), 1);
  EXPECT_EQ(mime_has_charset(root, 3), 1);
  EXPECT_EQ(mime_has_charset(root, 5), 0);
  EXPECT_EQ(mime_has_charset(root, 0), 0);  // a zero charset never matches
  EXPECT_EQ(mime_has_charset(part2, 2), 0);  // only at and after the start
  EXPECT_EQ(mime_has_charset(nullptr, 2), 0);

  // A failed search answers like the last entity it looked at: its empty
  // name, or NULL when it has no header block.
  std::strcpy(inner->h->mime.charset_str, "");
  std::strcpy(part2->h->mime.charset_str, "");
  EXPECT_EQ(mime_get_charset(root), nullptr);
  ME* d = t.entity("");
  bare->child = d;
  EXPECT_EQ(mime_get_charset(root), d->h->mime.charset_str);
  bare->child = nullptr;
  part2->next = nullptr;
  EXPECT_EQ(mime_get_charset(root), part2->h->mime.charset_str);
}

TEST(CharsetQueries, LongNextChains) {
  Tree t;
  ME* root = t.entity("");
  ME* prev = nullptr;
  for (int i = 0; i < 200000; ++i) {
    ME* part = i + 1 < 200000 ? t.entity() : t.entity("");
    if (prev == nullptr) root->child = part; else prev->next = part;
    prev = part;
  }
  std::strcpy(prev->h->mime.charset_str, "koi8-r");
  prev->h->mime.charset = 7;
  EXPECT_EQ(mime_get_charset(root), prev->h->mime.charset_str);
  EXPECT_EQ(mime_has_charset(root, 7), 1);
  EXPECT_EQ(mime_diff_charset(root, const_cast<char*>("utf-8")), 1);
}

TEST(CharsetQueries, DiffCharset) {
  Tree t;
  ME* root = t.entity("UTF-8", 3);
  ME* a = t.entity("x-unknown-cs");
  ME* b = t.entity("");
  root->child = a;
  a->next = b;
  char utf8[] = "utf-8", big5[] = "big5", unknown[] = "x-none", empty[] = "";
  EXPECT_EQ(mime_diff_charset(root, utf8), 0);  // unknown and empty names do not count
  EXPECT_EQ(mime_diff_charset(root, big5), 1);
  EXPECT_EQ(mime_diff_charset(root, unknown), 0);
  EXPECT_EQ(mime_diff_charset(root, empty), 0);
  EXPECT_EQ(mime_diff_charset(root, nullptr), 0);
  EXPECT_EQ(mime_diff_charset(a, big5), 0);  // the root is not after a
  std::strcpy(b->h->mime.charset_str, "big5");
  EXPECT_EQ(mime_diff_charset(a, utf8), 1);
}

TEST(CharsetQueries, RefillOnlyAnEmptyRoot) {
  Tree t;
  ME* root = t.entity("");
  ME* part = t.entity("");
  root->child = part;
  char big5[] = "Big5";
  EXPECT_EQ(mime_refill_charset(root, big5), 0);
  EXPECT_STREQ(root->h->mime.charset_str, "Big5");
  EXPECT_EQ(root->h->mime.charset, 2);
  EXPECT_STREQ(part->h->mime.charset_str, "");

  char utf8[] = "utf-8";
  EXPECT_EQ(mime_refill_charset(root, utf8), 0);  // already has one
  EXPECT_STREQ(root->h->mime.charset_str, "Big5");
  EXPECT_EQ(root->h->mime.charset, 2);

  ME* other = t.entity("");
  char jp[] = "EUC-JP";
  mime_refill_charset(other, jp);
  EXPECT_EQ(other->h->mime.charset, 1);  // Japanese maps back to ISO-2022-JP
  ME* loose = t.entity("");
  char longname[] = "iso-8859-2-but-much-longer";
  mime_refill_charset(loose, longname);
  EXPECT_STREQ(loose->h->mime.charset_str, "iso-8859-2-but-");
  EXPECT_EQ(mime_refill_charset(t.entity(), utf8), 0);  // no header block
}

TEST(CharsetQueries, SubjectCharset) {
  Tree t;
  ME* me = t.entity("");
  t.field(me, "Subjects", "x")->ent_charset = MLG_UTF8;
  EXPECT_STREQ(mime_get_subject_charset(me), "");
  t.field(me, "SUBJECT", "y")->ent_charset = MLG_BIG5;
  t.field(me, "Subject", "z")->ent_charset = MLG_UTF8;  // the first match counts
  const std::string big5 = MLG_CharsetToMEncName(MLG_BIG5);
  ASSERT_FALSE(big5.empty());
  EXPECT_EQ(mime_get_subject_charset(me), big5);
  EXPECT_STREQ(mime_get_subject_charset(t.entity()), "");  // cleared by each call
}

// --- header decoding ---------------------------------------------------------

TEST(DecodeHeader, FieldsDecodedInPlace) {
  Tree t;
  ME* me = t.entity("utf-8");
  HE* subject = t.field(me, "Subject", "=?big5?B?pKSk5Q==?=");
  HE* to = t.field(me, "To", "a@b.c,\n\tc@d.e");
  HE* plain = t.field(me, "X-Plain", "plain =? text");
  HE* cr = t.field(me, "Cc", "x@y.z,\r\n y@z.a");
  HE* colonless = t.field(me, "=?utf-8?Q?x?=", "");
  colonless->ent_ptr = colonless->ent_name;
  char** slot = &subject->ent_ptr;  // as an RFC822_HEADER slot holds it

  EXPECT_EQ(decode_header(me->h, me->h->mime.charset_str, 16, nullptr), 1);
  EXPECT_STREQ(*slot, "\xa4\xa4\xa4\xe5");
  EXPECT_EQ(subject->ent_len, 5);  // counts the terminator, as when the block was split
  EXPECT_EQ(subject->ent_charset, MLG_BIG5);
  EXPECT_STREQ(to->ent_ptr, "a@b.c,c@d.e");
  EXPECT_EQ(to->ent_len, 12);
  EXPECT_EQ(to->ent_charset, MLG_UTF8);  // the entity's own charset
  EXPECT_STREQ(plain->ent_ptr, "plain =? text");
  EXPECT_STREQ(cr->ent_ptr, "x@y.z, y@z.a");
  EXPECT_STREQ(colonless->ent_name, "=?utf-8?Q?x?=");
}

TEST(DecodeHeader, NoEncodedWords) {
  Tree t;
  ME* me = t.entity("x-unknown");
  HE* to = t.field(me, "To", "a\n b");
  char cs[16] = "x-unknown";
  EXPECT_EQ(decode_header(me->h, cs, sizeof cs, nullptr), 0);
  EXPECT_STREQ(to->ent_ptr, "a b");
  EXPECT_EQ(to->ent_charset, 0);
  // A malformed word still reports its name: the field held encoded text.
  HE* bad = t.field(me, "Subject", "=?koi8-r?X?y?=");
  EXPECT_EQ(decode_header(me->h, nullptr, 0, nullptr), 1);
  EXPECT_STREQ(bad->ent_ptr, "=?koi8-r?X?y?=");
  EXPECT_EQ(bad->ent_charset, MLG_CharsetWEncToValue("koi8-r"));
  EXPECT_EQ(decode_header(nullptr, cs, sizeof cs, nullptr), 0);
}

// --- through the engine --------------------------------------------------------

TEST(CharsetEngine, DefaultAndRefill) {
  const std::string msg =
      "From: a@b.c\nSubject: =?utf-8?Q?caf=C3=A9?=\nMIME-Version: 1.0\n"
      "Content-Type: multipart/mixed; boundary=\"XX\"\n\n"
      "--XX\nContent-Type: text/plain\n\none\n"
      "--XX\nContent-Type: text/plain; charset=\"big5\"\n\ntwo\n--XX--\n";
  {
    tarntest::Decoded d(msg, mailerdME);
    ME* root = d.root();
    ASSERT_NE(root->h, nullptr);
    EXPECT_STREQ(root->h->mime.charset_str, "big5");
    EXPECT_EQ(root->h->mime.charset, 2);
    ASSERT_NE(root->child, nullptr);
    EXPECT_EQ(root->child->h->mime.charset, mailerdME.default_enc_cset);
    GET_RFC822_HEADER hdr;
    mime_get_rfc822_header(&d.ctx(), &hdr);
    ASSERT_NE(hdr.subject, nullptr);
    EXPECT_STREQ(hdr.subject, "caf\xc3\xa9");
    EXPECT_STREQ(mime_get_subject_charset(root), MLG_CharsetToMEncName(MLG_UTF8));
  }
  {
    tarntest::Decoded d(msg, mailerdME, "ISO-2022-JP");
    ASSERT_NE(d.root()->child, nullptr);
    EXPECT_EQ(d.root()->child->h->mime.charset, 1);
  }
  {
    MIME_DECODE no_refill = mailerdME;
    no_refill.decode_level |= MIME_DL_NO_REFILL;
    tarntest::Decoded d(msg, no_refill);
    EXPECT_STREQ(d.root()->h->mime.charset_str, "");
  }
}

// Root header fields of a message as the engine should leave them when they
// hold no encoded word: folding removed ("\n\t" vanishes, "\n " leaves its
// blank), nothing else changed.  Pairs of name and expected value.
std::vector<std::pair<std::string, std::string>> plain_fields(const std::string& message) {
  std::string text;
  for (char c : message)
    if (c != '\r') text.push_back(c);
  text.resize(std::min(text.size(), text.find("\n\n")));
  std::vector<std::pair<std::string, std::string>> out;
  for (std::size_t i = 0, start = 0; i <= text.size(); ++i) {
    if (i < text.size() && (text[i] != '\n' || (i + 1 < text.size() && (text[i + 1] == ' ' || text[i + 1] == '\t'))))
      continue;
    const std::string field = text.substr(start, i - start);
    start = i + 1;
    const std::size_t colon = field.find(':');
    const std::size_t from = colon == std::string::npos ? field.size() : colon + 1;
    std::string value;
    for (std::size_t k = field.find_first_not_of(" \t\n", from); k < field.size(); ++k) {
      if (field[k] == '\n')
        k += field[k + 1] == '\t';  // a line break inside a field is always followed by a blank
      else
        value.push_back(field[k]);
    }
    out.emplace_back(field.substr(0, colon), value);
  }
  return out;
}

// Every corpus message through the engine: root header fields without
// encoded words come out unfolded and otherwise unchanged, and the charset
// queries answer on every tree.
TEST(CharsetEngine, CorpusHeadersUnfolded) {
  const std::vector<std::string> files = tarntest::corpus_files("mime");
  ASSERT_FALSE(files.empty());
  std::size_t compared = 0, decoded_subjects = 0;
  for (const std::string& path : files) {
    const std::string message = tarntest::read_file(path);
    if (message.find('\0') != std::string::npos) continue;
    tarntest::Decoded d(message, mailerdME);
    ME* root = d.root();
    if (root->h == nullptr) continue;  // text without a header block
    const auto expected = plain_fields(message);
    std::size_t i = 0;
    for (HE* he = root->h->he; he != nullptr && i < expected.size(); he = he->next, ++i) {
      if (he->ent_ptr == he->ent_name) continue;
      const auto& [name, value] = expected[i];
      ASSERT_EQ(name, he->ent_name) << path;
      // Content-Type is unfolded by the header parser itself, without blanks.
      if (value.find("=?") != std::string::npos ||
          MSTR_CaseCmp(name.c_str(), "Content-Type") == 0)
        continue;
      EXPECT_EQ(value, he->ent_ptr) << path << ": " << name;
      ++compared;
    }
    if (root->h->rfc822 != nullptr && root->h->rfc822->subject != nullptr &&
        mime_get_subject_charset(root)[0] != '\0')
      ++decoded_subjects;
    for (int cs = 0; cs <= 12; ++cs) mime_has_charset(root, cs);
    mime_get_charset(root);
  }
  EXPECT_GT(compared, 5000u);
  EXPECT_GT(decoded_subjects, 60u);
}

// The recipient list of thousands of encoded words, decoded by the engine.
TEST(CharsetEngine, HugeEncodedRecipientList) {
  tarntest::Decoded d(tarntest::read_file(tarntest::corpus_dir() + "/mime/mimekit/messages/stack-overflow.txt"),
                      mailerdME);
  GET_RFC822_HEADER hdr;
  mime_get_rfc822_header(&d.ctx(), &hdr);
  ASSERT_NE(hdr.to, nullptr);
  std::string expected = "\"test\" <test@test.com>,";
  for (int i = 0; i < 2710; ++i) expected += "date>2017-08-20T10:08:28.617</pr";
  EXPECT_EQ(hdr.to, expected);
  ASSERT_NE(hdr.to_raw, nullptr);
  EXPECT_EQ(std::strncmp(hdr.to_raw, "\"test\" <test@test.com>,\n\t=?utf-8?Q?", 35), 0);
}

}  // namespace
