// The body decoding walk: uuencoded blocks cut out of text, retyping,
// Japanese and UTF-8 conversion of bodies and names, messages named after
// their subject, and the files of TNEF bodies linked into the tree.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
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

bool in_buffer(Decoded& d, const char* p) {
  std::less_equal<const char*> le;
  return le(d.buffer(), p) && le(p, d.buffer() + d.size());
}

std::string b64(const std::string& bytes) {
  std::vector<char> out(static_cast<size_t>(MTX_Base64EncSize(static_cast<int>(bytes.size()), 76)));
  MTX_Base64Enc(bytes.data(), static_cast<int>(bytes.size()), out.data(), static_cast<int>(out.size()), 76);
  return out.data();
}

std::string part(const std::string& headers, const std::string& body) { return "--b\n" + headers + "\n\n" + body + "\n"; }
std::string mixed(const std::string& parts) {
  return "Content-Type: multipart/mixed; boundary=b\n\n" + parts + "--b--\n";
}

const char kBlock[] = "#86)C\n`\nend";  // "abc"

TEST(Uuencode, BlocksStandBetweenTheTextAndItsNext) {
  const std::string text = "hello\nbegin 644 a.txt\n" + std::string(kBlock) + "\nmiddle\nbegin 644 \"b.bin\"\r\n" +
                           kBlock + "\r\ntail";
  const std::string msg = mixed(part("Content-Type: text/plain", text) + part("Content-Type: text/plain", "after"));
  Decoded d(msg, generalME);
  ME* t = d.root()->child;
  EXPECT_EQ("hello\n", Decoded::body(t));
  EXPECT_EQ(nullptr, t->h->mime.filename);
  ME* a = t->next;
  ASSERT_NE(nullptr, a);
  ME* b = a->next;
  ASSERT_NE(nullptr, b);
  EXPECT_EQ("after", Decoded::body(b->next));
  EXPECT_EQ(nullptr, b->next->next);
  struct Want {
    ME* me;
    const char* name;
    const char* type;
    int ctype;
    const char* id;
    size_t at;
    int len;
  };
  const Want want[] = {{a, "a.txt", "text/plain", MIME_CT_TEXT, "1A", msg.find("begin 644 a"), 28},
                       {b, "b.bin", "application/octet-stream", MIME_CT_OTHER, "2A", msg.find("begin 644 \""), 31}};
  for (const Want& w : want) {
    EXPECT_EQ("abc", Decoded::body(w.me));
    EXPECT_STREQ(w.name, w.me->h->mime.filename);
    EXPECT_STREQ(w.type, w.me->h->mime.ctype_str);
    EXPECT_EQ(w.ctype, w.me->h->mime.ctype);
    EXPECT_STREQ(w.id, w.me->h->mime.file_id);  // numbered once, when cut
    EXPECT_EQ(static_cast<int>(w.at), w.me->ent_offset);
    EXPECT_EQ(w.len, w.me->ent_len);
    EXPECT_EQ(nullptr, w.me->h->he);
  }
  EXPECT_EQ(1, d.ctx().result.me_info._attachment);
}

TEST(Uuencode, BeginLinesThatDoNotCountAndAMissingEnd) {
  const std::string name127(127, 'n');
  const std::string text = "x\nbegin 0 zero.txt\nbegin 5001 big.txt\nbegin 0000644 wide.txt\n begin 644 indented.txt\n"
                           "begin 644 " + std::string(128, 'l') + "\nbegin 000644 " + name127 + "\n" + kBlock + "\n";
  Decoded d(mixed(part("Content-Type: text/plain", text) + part("Content-Type: text/plain", "after")), generalME);
  ME* t = d.root()->child;
  ASSERT_NE(nullptr, t->next);
  EXPECT_EQ(static_cast<int>(text.find("begin 000644")), t->datalen);
  EXPECT_EQ(name127, t->next->h->mime.filename);
  EXPECT_EQ("after", Decoded::body(t->next->next));

  // An "end" ended by LF alone is taken first, however far it lies.
  const std::string crlf = "begin 644 a\n#86)C\n`\nend\r\nbegin 644 b\n" + std::string(kBlock) + "\n";
  Decoded lf_first(mixed(part("Content-Type: text/plain", crlf)), generalME);
  t = lf_first.root()->child;
  ASSERT_NE(nullptr, t->next);
  EXPECT_EQ("abc", Decoded::body(t->next));
  EXPECT_EQ(static_cast<int>(crlf.size()), t->next->ent_len);
  EXPECT_EQ(nullptr, t->next->next);

  // A block without "end" stops the cutting: the blocks made end the chain.
  const std::string open = "x\nbegin 644 a.txt\n" + std::string(kBlock) + "\nbegin 644 c.txt\n#86)C\n";
  Decoded cut(mixed(part("Content-Type: text/plain", open) + part("Content-Type: text/plain", "lost")), generalME);
  t = cut.root()->child;
  ASSERT_NE(nullptr, t->next);
  EXPECT_STREQ("a.txt", t->next->h->mime.filename);
  EXPECT_EQ(nullptr, t->next->next);
  Decoded none(mixed(part("Content-Type: text/plain", "x\nbegin 644 c.txt\n#86)C\n") +
                     part("Content-Type: text/plain", "kept")),
               generalME);
  EXPECT_EQ("kept", Decoded::body(none.root()->child->next));
}

// Blocks ended by CR LF: a search of the whole rest of the text for each
// of them would turn this second into many minutes.
TEST(Uuencode, ManyBlocksEndedByCrLf) {
  std::string text;
  const int n = 320000;
  for (int i = 0; i < n; ++i) text += "begin 644 " + std::to_string(i) + "\n#86)C\n`\nend\r\n";
  Decoded d("Content-Type: text/plain\n\n" + text, generalME);
  int blocks = 0;
  ME* last = nullptr;
  for (ME* b = d.root()->next; b != nullptr; b = b->next, ++blocks) last = b;
  EXPECT_EQ(n, blocks);
  ASSERT_NE(nullptr, last);
  EXPECT_STREQ("319999", last->h->mime.filename);
  EXPECT_EQ("abc", Decoded::body(last));
}

TEST(Retyping, VcardNamesAndOctetStreamsByContent) {
  const char* octet = "Content-Type: application/octet-stream; name=";
  const std::string msg = mixed(
      part("Content-Type: text/plain; name=card.VCF", "BEGIN:VCARD") +
      part(octet + std::string("photo\nContent-Transfer-Encoding: base64"), "iVBORw0KGgoAAAANSUhEUg==") +
      part(octet + std::string("scan\nContent-Transfer-Encoding: base64"), "SUkqAAgAAAA=") +
      part(octet + std::string("song\nContent-Transfer-Encoding: base64"), "SUQzAwAAAAAAAA==") +
      part(octet + std::string("clip.mp4"), "x") + part(octet + std::string("anim.swf"), "x") +
      part(octet + std::string("empty.png"), "") +
      part("Content-Type: application/x-other; name=photo\nContent-Transfer-Encoding: base64",
           "iVBORw0KGgoAAAANSUhEUg=="));
  const std::vector<int> retyped = {MIME_CT_VCARD, MIME_CT_IMAGE, MIME_CT_TIFF,  MIME_CT_AUDIO,
                                    MIME_CT_VIDEO, MIME_CT_FLASH, MIME_CT_IMAGE, MIME_CT_OTHER};
  const std::vector<int> kept = {MIME_CT_TEXT,  MIME_CT_OTHER, MIME_CT_OTHER, MIME_CT_OTHER,
                                 MIME_CT_OTHER, MIME_CT_OTHER, MIME_CT_OTHER, MIME_CT_OTHER};
  MIME_DECODE off = generalME;
  off.decode_level &= ~MIME_DL_RETYPE;
  for (const MIME_DECODE* preset : {&generalME, &off}) {
    Decoded d(msg, *preset);
    std::vector<int> got;
    for (ME* p = d.root()->child; p != nullptr; p = p->next) got.push_back(p->h->mime.ctype);
    EXPECT_EQ(preset == &off ? kept : retyped, got);
    EXPECT_STREQ("application/octet-stream; name=photo", d.root()->child->next->h->mime.ctype_str);
  }
}

TEST(Japanese, TextBodiesBecomeShiftJisInTheArena) {
  const std::string jis = "\x1b$B$\"$$\x1b(B\n", euc = "\xa4\xa2\xa4\xa4\n", sjis = "\x82\xa0\x82\xa2\n";
  const std::string msg = mixed(part("Content-Type: text/plain; charset=iso-2022-jp", jis) +
                                part("Content-Type: text/plain; charset=EUC-JP", euc) +
                                part("Content-Type: text/plain; charset=iso-8859-1", jis));  // the bytes say JIS
  Decoded d(msg, mailerdME);
  for (ME* p = d.root()->child; p != nullptr; p = p->next) {
    EXPECT_EQ(sjis, Decoded::body(p));
    EXPECT_FALSE(in_buffer(d, p->body_bgn));
    EXPECT_EQ(p->body_bgn + p->datalen + 1, p->body_end);
  }
  EXPECT_STREQ("iso-2022-jp", d.root()->child->next->next->h->mime.charset_str);

  MIME_DECODE off = mailerdME;
  off.auto_convert = 0;
  Decoded kept(msg, off);
  EXPECT_EQ(jis, Decoded::body(kept.root()->child));
  EXPECT_TRUE(in_buffer(kept, kept.root()->child->body_bgn));

  // UTF-8 display mode with encoded header text: JIS, then UTF-8.
  Decoded utf8("Subject: =?iso-2022-jp?B?GyRCJCIbKEI=?=\nContent-Type: text/plain; charset=iso-2022-jp\n\n" + jis,
               generalME);
  EXPECT_EQ("\xE3\x81\x82\xE3\x81\x84\n", Decoded::body(utf8.root()));
  EXPECT_STREQ("utf-8", utf8.root()->h->mime.charset_str);
}

TEST(Utf8Display, EncodedHeaderTextConvertsFieldsBodyAndName) {
  const std::string tail =
      "X-Note: caf\xE9\nContent-Type: text/plain; charset=iso-8859-1\n"
      "Content-Disposition: attachment; filename=\"caf\xE9.txt\"\nContent-Transfer-Encoding: quoted-printable\n\n"
      "caf=E9 cr=E8me";
  Decoded d("Subject: =?iso-8859-1?Q?caf=E9?=\n" + tail, generalME);
  const MIME_HEADER& m = d.root()->h->mime;
  EXPECT_EQ("caf\xC3\xA9 cr\xC3\xA8me", Decoded::body(d.root()));
  EXPECT_FALSE(in_buffer(d, d.root()->body_bgn));
  EXPECT_STREQ("utf-8", m.charset_str);
  EXPECT_EQ(MIME_CS_UTF8, m.charset);
  EXPECT_STREQ("caf\xC3\xA9.txt", m.filename);
  GET_RFC822_HEADER g;
  mime_get_rfc822_header(&d.ctx(), &g);
  EXPECT_STREQ("caf\xC3\xA9", g.subject);
  const HE* note = d.root()->h->he->next;
  EXPECT_STREQ("caf\xC3\xA9", note->ent_ptr);
  EXPECT_EQ(MLG_UTF8, note->ent_charset);

  // Without encoded words the body keeps its charset; the name alone is
  // shown in UTF-8.
  Decoded plain("Subject: cafe\n" + tail, generalME);
  EXPECT_EQ("caf\xE9 cr\xE8me", Decoded::body(plain.root()));
  EXPECT_STREQ("iso-8859-1", plain.root()->h->mime.charset_str);
  EXPECT_STREQ("caf\xC3\xA9.txt", plain.root()->h->mime.filename);

  // A body labelled ISO-8859-1 that is UTF-8 is taken for what it is.
  Decoded mislabelled("Content-Type: text/plain; charset=iso-8859-1\n\ncaf\xC3\xA9", mailerdME);
  EXPECT_STREQ("utf-8", mislabelled.root()->h->mime.charset_str);
  EXPECT_EQ(MIME_CS_UTF8, mislabelled.root()->h->mime.charset);
  Decoded latin("Content-Type: text/plain; charset=iso-8859-1\n\ncaf\xE9 \xC3", mailerdME);
  EXPECT_STREQ("iso-8859-1", latin.root()->h->mime.charset_str);
}

TEST(SubjectNames, ForwardedMessagesWithBit0x2000) {
  const std::string msg = mixed(
      part("Content-Type: message/rfc822",
           "Subject: =?utf-8?Q?R=C3=A9union?= / plan\nContent-Type: text/plain; charset=utf-8\n\ninner") +
      part("Content-Type: message/rfc822\nContent-Disposition: attachment; filename=fwd.eml", "Subject: kept\n\nx"));
  MIME_DECODE level = generalME;
  level.decode_level |= MIME_DL_SUBJECT_EML;
  MIME_DECODE raw = level;
  raw.decode_level |= MIME_DL_KEEP_RFC822;
  for (const MIME_DECODE* preset : {&level, &raw}) {
    Decoded d(msg, *preset);
    const MIME_HEADER& m = d.root()->child->h->mime;
    EXPECT_STREQ("R\xC3\xA9union _ plan.eml", m.filename);
    EXPECT_STREQ("utf-8", m.charset_str);
    EXPECT_EQ(MIME_CS_UTF8, m.charset);
    EXPECT_STREQ("1A", m.file_id);
    EXPECT_STREQ("fwd.eml", d.root()->child->next->h->mime.filename);
  }
  Decoded plain(msg, generalME);
  EXPECT_STREQ("00.eml", plain.root()->child->h->mime.filename);
}

// The files of a TNEF body, as the reader lists them.
struct TnefFile {
  std::string name, bytes;
};
std::vector<TnefFile> tnef_files(const ME* tnef) {
  std::string copy(tnef->body_bgn, static_cast<size_t>(tnef->datalen));
  TNEF_Attach* list = MLC_TNEFParse(copy.data(), static_cast<unsigned>(copy.size()), nullptr);
  std::vector<TnefFile> out;
  for (const TNEF_Attach* r = list; r != nullptr; r = r->pstNext) {
    char name[512];
    if (MLC_TNEFFilename(r, name, sizeof name, nullptr) == 0)
      out.push_back({name, std::string(static_cast<const char*>(r->pvFileData), r->unFileLen)});
  }
  MLC_TNEFFree(list);
  return out;
}

TEST(Tnef, WinmailFilesBecomeChildren) {
  const std::string path = tarntest::corpus_dir() + "/mime/mimekit/tnef-in-mime/rich-text.eml";
  const std::string msg = tarntest::read_file(path);
  ASSERT_FALSE(msg.empty());
  Decoded d(msg, msgreadME);
  ME* tnef = d.root()->child->next;
  ASSERT_EQ(MIME_CT_TNEF, tnef->h->mime.ctype);
  EXPECT_STREQ("winmail.dat", tnef->h->mime.filename);
  EXPECT_EQ(nullptr, tnef->next);
  const std::vector<TnefFile> want = tnef_files(tnef);
  ASSERT_EQ(3u, want.size());
  EXPECT_EQ("kitten-playing-with-a-christmas-tree.jpg", want[0].name);
  const char* ids[] = {"3A", "5A", "7A"};  // each file is named before the walk numbers it
  size_t i = 0;
  for (ME* f = tnef->child; f != nullptr; f = f->next, ++i) {
    ASSERT_LT(i, want.size());
    EXPECT_EQ(want[i].name, f->h->mime.filename);
    EXPECT_EQ(want[i].bytes, Decoded::body(f));
    EXPECT_STREQ(ids[i], f->h->mime.file_id);
    EXPECT_EQ(tnef->ent_offset, f->ent_offset);
  }
  EXPECT_EQ(want.size(), i);
  EXPECT_EQ(MIME_CT_IMAGE, tnef->child->h->mime.ctype);

  MIME_DECODE off = msgreadME;
  off.decode_level &= ~MIME_DL_TNEF;
  Decoded kept(msg, off);
  EXPECT_EQ(nullptr, kept.root()->child->next->child);
}

// A small TNEF stream: signature, key, code page, then one record per file.
std::string le(uint32_t v, int n) {
  std::string s;
  for (int i = 0; i < n; ++i) s += static_cast<char>((v >> (8 * i)) & 0xFF);
  return s;
}
std::string attr(uint32_t id, const std::string& data) {
  uint32_t sum = 0;
  for (unsigned char c : data) sum += c;
  return std::string(1, static_cast<char>(id >> 16 == 6 ? 2 : 1)) + le(id, 4) + le(static_cast<uint32_t>(data.size()), 4) +
         data + le(sum, 2);
}
std::string tnef_stream(const std::vector<TnefFile>& files, uint32_t codepage = 1252) {
  std::string s = le(0x223E9F78, 4) + le(0x1234, 2) + attr(0x00069007, le(codepage, 4) + le(0, 4));
  for (const TnefFile& f : files)
    s += attr(0x00069002, le(1, 2) + le(0xFFFFFFFF, 4) + le(0, 4) + le(0, 4)) + attr(0x00018010, f.name + '\0') +
         attr(0x0006800F, f.bytes);
  return s;
}

TEST(Tnef, MessageThatIsATnefBody) {
  const std::string notes = "see below\nbegin 644 inner.bin\n" + std::string(kBlock) + "\n";
  const std::string msg = "Content-Type: application/ms-tnef\nContent-Transfer-Encoding: base64\n\n" +
                          b64(tnef_stream({{"notes.txt", notes}, {"caf\xE9.bin", "\x01\x02"}}));
  Decoded d(msg, msgreadME);
  ME* root = d.root();
  ASSERT_EQ(MIME_CT_TNEF, root->h->mime.ctype);
  ME* text = root->child;
  ASSERT_NE(nullptr, text);
  ME* block = text->next;
  ASSERT_NE(nullptr, block);
  ME* cafe = block->next;
  ASSERT_NE(nullptr, cafe);
  EXPECT_EQ(nullptr, cafe->next);
  EXPECT_EQ(0, text->ent_offset);  // where the TNEF part stands
  EXPECT_EQ(root->ent_len, text->ent_len);
  // The uuencoded block of the text file: placed by the file's own bytes.
  EXPECT_EQ("see below\n", Decoded::body(text));
  EXPECT_EQ(nullptr, text->h->mime.filename);  // the text lost its name to the block
  EXPECT_EQ("abc", Decoded::body(block));
  EXPECT_STREQ("inner.bin", block->h->mime.filename);
  EXPECT_STREQ("1A", block->h->mime.file_id);
  EXPECT_EQ(10, block->ent_offset);
  EXPECT_EQ(32, block->ent_len);
  EXPECT_EQ(std::string("\x01\x02"), Decoded::body(cafe));
  EXPECT_STREQ("caf\xC3\xA9.bin", cafe->h->mime.filename);  // code page 1252, shown in UTF-8
  EXPECT_STREQ("3A", cafe->h->mime.file_id);

  // Without the UTF-8 display a name keeps its code page, and the part
  // says which: "\x95\x5C" is one character there, not a separator.
  const std::string sjis = "Content-Type: application/ms-tnef\nContent-Transfer-Encoding: base64\n\n" +
                           b64(tnef_stream({{"\x95\x5C.txt", "x"}}, 932));
  MIME_DECODE level = msgreadME;
  level.decode_level &= ~MIME_DL_UTF8;
  Decoded kept(sjis, level);
  ASSERT_NE(nullptr, kept.root()->child);
  EXPECT_STREQ("\x95\x5C.txt", kept.root()->child->h->mime.filename);
  EXPECT_STREQ("shift-jis", kept.root()->child->h->mime.charset_str);
}

}  // namespace
