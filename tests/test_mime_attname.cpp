// Attachment names and file ids: the parameter reader with its RFC 2231
// segments, generated names, the run's name list and the numbering of
// the parts of a decoded message.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "mime_internal.h"
#include "support.h"

using tarntest::Decoded;

namespace {

class TypeTables : public ::testing::Environment {
 public:
  void SetUp() override { mime_type_init(TARN_SOURCE_DIR "/data/mime.types", TARN_SOURCE_DIR "/data/magic"); }
};
const auto* const kTables = ::testing::AddGlobalTestEnvironment(new TypeTables);

// One call of s_ParamCont on a writable copy of `text`, both buffers
// filled with junk first.
struct Param {
  std::string text;
  std::vector<char> buf;
  char cs[64];
  char* result = nullptr;

  explicit Param(std::string t, int size = 512) : text(std::move(t)), buf(static_cast<size_t>(size), 'x') {
    memset(cs, 'x', sizeof cs);
    result = s_ParamCont(text.data(), "name", buf.data(), size, cs, sizeof cs);
  }
  std::string value() const { return result != nullptr ? result : "(null)"; }
};

TEST(ParamCont, PlainSegmentedAndEncodedValues) {
  struct Case {
    const char* text;
    int size;
    const char* value;  // nullptr: no result
    const char* cs;
    bool in_buf;        // the name buffer, not a place in the text
  };
  const Case cases[] = {
      // plain: the value's place in the text, "name" found inside "filename"
      {"attachment; filename=\"a b.txt\"; size=3", 512, "\"a b.txt\"; size=3", "", false},
      {"application/x-name; name = r.pdf", 512, "r.pdf", "", false},
      {"attachment; size=3", 512, nullptr, "", false},
      // unencoded segments, in the order they stand, each only when it fits whole
      {"attachment; filename*0=\"long \"; filename*1=name.txt; size=1", 512, "long name.txt", "", true},
      {"name*1=b.txt; name*0=a", 512, "b.txta", "", true},
      {"name*0=\"abcd\"; name*1=\"efgh\"; name*2=\"efg\"", 8, "abcdefg", "", true},
      {"name*0=\"abc", 512, "abc", "", true},
      {"name*0=abc", 512, "abc", "", true},
      // two digits end the reading: the plain lookup answers
      {"name*0=a; name*10=b; name=c.txt", 512, "c.txt", "", false},
      {"name*0=a; name*10=b", 512, nullptr, "", false},
      // encoded segments: charset before the second quote (less one byte), %XY unchecked
      {"attachment; filename*=iso-8859-1''caf%E9%20%41%e9.txt", 512, "caf\xE9 A\xE9.txt", "iso-8859-1", true},
      {"name*0*=utf-8''a%41; name*1*=\"%42c\"; name*2=d", 512, "aABcd", "utf-8", true},
      {"name*=utf-8'en'x.txt", 512, "x.txt", "utf-8'e", true},
      {"name*=en'x.txt", 512, "en'x.txt", "en'x.txt", true},
      {"name*=x''%g1%4", 512, "\x01%4", "x", true},
      {"name*=x''abcdef", 4, "abc", "x", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Param p(c.text, c.size);
    if (c.value == nullptr) EXPECT_EQ(nullptr, p.result);
    else EXPECT_EQ(c.value, p.value());
    EXPECT_EQ(c.in_buf, p.result == p.buf.data());
    EXPECT_STREQ(c.cs, p.cs);
  }
  Param none("attachment; size=3");
  EXPECT_EQ('\0', none.buf[0]);
  Param cut("attachment; filename*0=\"long \"; filename*1=name.txt; size=1");
  EXPECT_EQ("attachment; filename*0=\"long ", std::string(cut.text.c_str()));  // cut at its terminators
}

TEST(ParamCont, TenMebibyteValues) {
  const std::string big(10u << 20, 'a');
  Param plain("attachment; filename=" + big);
  EXPECT_EQ(big.size(), strlen(plain.result));
  Param unencoded("attachment; filename*0=" + big + "; filename*1=b.txt");
  EXPECT_EQ("b.txt", unencoded.value());  // the segment that does not fit is left out
  Param encoded("attachment; filename*0*=utf-8''" + big + "; filename*1*=b");
  EXPECT_EQ(std::string(511, 'a'), encoded.value());

  // Over a million first segments, each looking for its charset's quotes.
  std::string many = "attachment";
  while (many.size() < (10u << 20)) many += "; name*=a";
  Param segments(many);
  EXPECT_EQ(std::string(511, 'a'), segments.value());
  EXPECT_STREQ("a", segments.cs);
}

// A context with an arena and no message, for the name functions.
struct Arena {
  char text[2] = "x";
  MIME_DECODE ctx = generalME;
  Arena() { mime_decode_init(&ctx, text, 1, nullptr, nullptr); }
  ~Arena() { mime_decode_shutdown(&ctx); }
};

std::vector<std::string> names(MIME_DECODE& ctx) {
  std::vector<std::string> out;
  if (ctx.result.me_info.fileTMP_ptr == nullptr) return out;
  for (fileTMP* f = &ctx.result.me_info._fileTMP; f != nullptr; f = f->next) out.push_back(f->filename);
  return out;
}

TEST(FileId, Formats) {
  char id[10];
  s_generate_file_id(nullptr, 7, id, sizeof id);
  EXPECT_STREQ("7", id);
  MIME_HEADER mime{};
  s_generate_file_id(&mime, 7, id, sizeof id);
  EXPECT_STREQ("7A", id);
  char empty[] = "", loc[] = "http://x/a", cid[] = "<a@b>";
  mime.contid = empty;
  mime.contLocation = loc;
  s_generate_file_id(&mime, 12, id, sizeof id);
  EXPECT_STREQ("12I", id);
  mime.contLocation = nullptr;
  mime.contid = cid;
  s_generate_file_id(&mime, 2147483647, id, sizeof id);
  EXPECT_STREQ("214748364", id);  // nine characters at most
}

TEST(NameList, OrderNodesAndGeneratedNames) {
  Arena run;
  ME_INFO& info = run.ctx.result.me_info;
  char desc[] = "Report";
  char text_ct[] = "text/plain", png_ct[] = "image/png", odd_ct[] = "x-tarn/odd", pdf[] = "a.pdf";
  MIME_HEADER mime{};
  EXPECT_EQ(desc, des2att_name(desc, &run.ctx));  // kept itself
  EXPECT_EQ(&info._fileTMP, info.fileTMP_ptr);      // first in the embedded node
  char* copy = dup_att_name(pdf, &run.ctx);
  EXPECT_NE(pdf, copy);
  EXPECT_EQ(info._fileTMP.next, info.fileTMP_ptr);

  mime.ctype_str = text_ct;
  EXPECT_STREQ("00.txt", random_att_name(1, &mime, &run.ctx));
  mime.ctype_str = png_ct;
  EXPECT_STREQ("Message_01.png", random_att_name(0, &mime, &run.ctx));
  mime.ctype_str = odd_ct;
  EXPECT_STREQ("02", random_att_name(1, &mime, &run.ctx));
  mime.ctype = MIME_CT_RFC822;  // messages always end in ".eml"
  EXPECT_STREQ("03.eml", random_att_name(1, &mime, &run.ctx));
  mime.filename = pdf;  // the name's own extension wins
  EXPECT_STREQ("04.pdf.eml", random_att_name(1, &mime, &run.ctx));
  EXPECT_EQ(5, info.tmp_i);
  EXPECT_EQ((std::vector<std::string>{"Report", "a.pdf", "00.txt", "Message_01.png", "02", "03.eml", "04.pdf.eml"}),
            names(run.ctx));
  EXPECT_EQ(nullptr, info.fileTMP_ptr->next);
}

const char kParts[] =
    "Content-Type: multipart/mixed; boundary=b\n\n"
    "--b\nContent-Type: text/plain\n\ninline body\n"
    "--b\nContent-Type: text/plain\nContent-Disposition: attachment\n\nnotes\n"
    "--b\nContent-Type: image/png\nContent-Id: <img1>\n\nPNG\n"
    "--b\nContent-Type: application/pdf\nContent-Disposition: attachment; filename=\"r.pdf\"\n\n%PDF\n"
    "--b\nContent-Type: application/octet-stream\nContent-Disposition: inline\n"
    "Content-Description: Quarterly report\n\nhello\n"
    "--b\nContent-Type: message/rfc822\n\nSubject: inner\n\ninner body\n"
    "--b\nContent-Type: text/x-tarn-unknown\n\nodd text\n"
    "--b\nContent-Type: text/html\nContent-Location: http://example.com/a.html\n\n<p>x</p>\n"
    "--b--\n";

TEST(Naming, GeneratedNamesAndIdsInWalkingOrder) {
  Decoded d(kParts, generalME);
  std::vector<ME*> parts;
  for (ME* p = d.root()->child; p != nullptr; p = p->next) parts.push_back(p);
  ASSERT_EQ(8u, parts.size());
  struct Want {
    const char* name;
    const char* id;
  };
  const Want want[] = {{nullptr, ""},        {"00.txt", "1A"}, {"01.png", "2I"}, {"r.pdf", "3A"},
                       {"Quarterly report", "4A"}, {"02.eml", "5A"}, {"03", "6A"},     {"04.html", "7I"}};
  for (size_t i = 0; i < parts.size(); ++i) {
    const MIME_HEADER& m = parts[i]->h->mime;
    SCOPED_TRACE(i);
    if (want[i].name == nullptr) EXPECT_EQ(nullptr, m.filename);
    else EXPECT_STREQ(want[i].name, m.filename);
    EXPECT_STREQ(want[i].id, m.file_id);
    EXPECT_EQ(i == 5 ? 1 : 0, m.file_name_flags);
  }
  EXPECT_EQ(nullptr, parts[5]->child->h->mime.filename);  // the embedded message's text is not a file
  EXPECT_EQ(nullptr, d.root()->h->mime.filename);
  const ME_INFO& info = d.ctx().result.me_info;
  EXPECT_EQ(7, info._attachment);
  EXPECT_EQ(7, info._FILE_ID);
  EXPECT_EQ(5, info.tmp_i);
  EXPECT_EQ((std::vector<std::string>{"00.txt", "01.png", "r.pdf", "Quarterly report", "02.eml", "03", "04.html"}),
            names(d.ctx()));
}

TEST(Naming, ANameAlreadyGivenCountsTwice) {
  const char msg[] =
      "Content-Type: multipart/mixed; boundary=b\n\n"
      "--b\nContent-Type: application/octet-stream\nContent-Transfer-Encoding: x-uuencode\n\n"
      "begin 644 u.bin\n#86)C\n`\nend\n"
      "--b\nContent-Type: application/pdf; name=a b.pdf ; size=10\n\n%PDF\n"
      "--b--\n";
  Decoded d(msg, generalME);
  const MIME_HEADER& uu = d.root()->child->h->mime;
  const MIME_HEADER& pdf = d.root()->child->next->h->mime;
  EXPECT_EQ("abc", Decoded::body(d.root()->child));
  EXPECT_STREQ("u.bin", uu.filename);
  EXPECT_STREQ("2A", uu.file_id);  // numbered when the begin line named it, and again as a named part
  EXPECT_STREQ("a b.pdf", pdf.filename);  // an unquoted value ends at its ";"
  EXPECT_STREQ("3A", pdf.file_id);
  EXPECT_EQ((std::vector<std::string>{"u.bin", "a b.pdf"}), names(d.ctx()));
}

TEST(Naming, ParameterNamesByCharsetAndMadeSafe) {
  const char msg[] =
      "Content-Type: multipart/mixed; boundary=b\n\n"
      "--b\nContent-Type: application/pdf\nContent-Disposition: attachment; filename=\"x;y/../z.pdf\"\n\n1\n"
      "--b\nContent-Type: application/pdf\nContent-Disposition: attachment; filename*=iso-8859-1''caf%E9.pdf\n\n2\n"
      "--b\nContent-Type: application/pdf\n"
      "Content-Disposition: attachment; filename*=iso-2022-jp''%1B%24B%24%22%1B%28B.pdf\n\n3\n"
      "--b--\n";
  Decoded utf8(msg, generalME);
  ME* p = utf8.root()->child;
  EXPECT_STREQ("x;y_.._z.pdf", p->h->mime.filename);
  EXPECT_STREQ("caf\xC3\xA9.pdf", p->next->h->mime.filename);
  EXPECT_STREQ("utf-8", p->next->h->mime.charset_str);  // marked when the part declares none
  EXPECT_STREQ("\xE3\x81\x82.pdf", p->next->next->h->mime.filename);

  Decoded sjis(msg, mailerdME);  // no UTF-8 display: Japanese names become Shift_JIS
  p = sjis.root()->child->next;
  EXPECT_STREQ("caf\xE9.pdf", p->h->mime.filename);
  EXPECT_STREQ("", p->h->mime.charset_str);
  EXPECT_STREQ("\x82\xA0.pdf", p->next->h->mime.filename);
}

}  // namespace
