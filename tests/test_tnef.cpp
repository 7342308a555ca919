// The TNEF reader: streams built here attribute by attribute, the real
// files of the corpus (names, bytes, and what the Debian `tnef` unpacker
// makes of them), and damaged streams under the sanitizers.

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "mime_tnef_internal.h"
#include "support.h"
#include "tarnmail.h"

namespace {

namespace fs = std::filesystem;
using Files = std::vector<std::pair<std::string, std::string>>;  // (name, bytes)

// ---- building streams ----------------------------------------------------

std::string le16(uint16_t v) { return {static_cast<char>(v & 0xFF), static_cast<char>(v >> 8)}; }
std::string le32(uint32_t v) { return le16(static_cast<uint16_t>(v)) + le16(static_cast<uint16_t>(v >> 16)); }
std::string pad4(std::string s) {
  s.resize((s.size() + 3) & ~size_t{3}, '\0');
  return s;
}
std::string utf16(std::u16string_view text) {
  std::string out;
  for (char16_t c : text) out += le16(static_cast<uint16_t>(c));
  return out;
}

enum : uint32_t {
  attAttachRenddata = 0x00069002, attMsgProps = 0x00069003, attAttachment = 0x00069005,
  attOemCodepage = 0x00069007, attAttachData = 0x0006800F, attAttachMetaFile = 0x00068011,
  attAttachTitle = 0x00018010, attAttachCreateDate = 0x00038012, attAttachModifyDate = 0x00038013,
  attMessageClass = 0x00078008,
};

// Property blocks.
std::string tag(uint16_t id, uint16_t type) { return le32(static_cast<uint32_t>(id) << 16 | type); }
std::string block(const std::vector<std::string>& props) {
  std::string out = le32(static_cast<uint32_t>(props.size()));
  for (const auto& p : props) out += p;
  return out;
}
std::string counted(const std::string& bytes) { return le32(static_cast<uint32_t>(bytes.size())) + pad4(bytes); }
std::string str8(uint16_t id, const std::string& text) { return tag(id, 30) + le32(1) + counted(text + '\0'); }
std::string unicode(uint16_t id, std::u16string_view text) { return tag(id, 31) + le32(1) + counted(utf16(text) + le16(0)); }
std::string long3(uint16_t id, uint32_t v) { return tag(id, 3) + le32(v); }

class Stream {
 public:
  explicit Stream(uint32_t signature = 0x223E9F78) : s_(le32(signature) + le16(0x1234)) {}
  Stream& attr(uint32_t id, const std::string& data, int checksum_delta = 0) {
    uint32_t sum = static_cast<uint32_t>(checksum_delta);
    for (unsigned char c : data) sum += c;
    s_ += std::string(1, id >> 16 == 6 ? '\2' : '\1') + le32(id) + le32(static_cast<uint32_t>(data.size())) + data +
          le16(static_cast<uint16_t>(sum));
    return *this;
  }
  Stream& codepage(uint32_t cp, uint32_t second = 0) { return attr(attOemCodepage, le32(cp) + le32(second)); }
  Stream& renddata() { return attr(attAttachRenddata, le16(1) + le32(0xFFFFFFFF) + le16(0) + le16(0) + le32(0)); }
  Stream& title(const std::string& t) { return attr(attAttachTitle, t + '\0'); }
  Stream& data(const std::string& d) { return attr(attAttachData, d); }
  Stream& props(const std::vector<std::string>& p) { return attr(attAttachment, block(p)); }
  const std::string& str() const { return s_; }

 private:
  std::string s_;
};

// ---- reading results ------------------------------------------------------

std::string name_of(const TNEF_Attach* rec, int* utf8 = nullptr) {
  char name[256];
  int flag = -1;
  if (MLC_TNEFFilename(rec, name, sizeof name, &flag) != 0) return "<none>";
  if (utf8 != nullptr) *utf8 = flag;
  return name;
}

// A parse over an exactly sized heap copy of the stream, so that the
// sanitizer reports any read past its end.
struct Parsed {
  explicit Parsed(const std::string& bytes, int stat_in = 0) : buf(bytes.begin(), bytes.end()), status(stat_in) {
    list = MLC_TNEFParse(buf.empty() ? nullptr : buf.data(), static_cast<unsigned>(buf.size()), &status);
  }
  ~Parsed() { MLC_TNEFFree(list); }
  Parsed(const Parsed&) = delete;
  Parsed& operator=(const Parsed&) = delete;

  std::vector<TNEF_Attach*> records() const {
    std::vector<TNEF_Attach*> out;
    for (TNEF_Attach* p = list; p != nullptr; p = p->pstNext) out.push_back(p);
    return out;
  }
  Files files() const {  // records with file data
    Files out;
    for (TNEF_Attach* p : records())
      if (p->pvFileData != nullptr)
        out.emplace_back(name_of(p), std::string(static_cast<const char*>(p->pvFileData), p->unFileLen));
    return out;
  }
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (auto& f : files()) out.push_back(f.first);
    return out;
  }
  size_t offset(const void* p) const { return static_cast<size_t>(static_cast<const char*>(p) - buf.data()); }

  std::vector<char> buf;
  int status;
  TNEF_Attach* list = nullptr;
};

std::string charset_of(const TNEF_Attach* rec) {
  const char* cs = "unset";
  const int rc = MLC_TNEFCharset2(rec, &cs);
  return rc == 0 ? std::string(cs) : "rc" + std::to_string(rc) + ":" + cs;
}

std::string date(const TNEF_Date& d) {
  std::ostringstream o;
  o << d.unYear << '-' << d.unMonth << '-' << d.unDay << ' ' << d.unHour << ':' << d.unMinute << ':' << d.unSecond
    << " w" << d.unWeek;
  return o.str();
}

std::string corpus_tnef(const std::string& rel) { return tarntest::corpus_dir() + "/tnef/" + rel; }
bool corpus_present() { return fs::is_directory(tarntest::corpus_dir() + "/tnef"); }

// ---- the stream -------------------------------------------------------------

TEST(TnefStream, AttributesFillTheLastRecord) {
  const std::string when = le16(2024) + le16(2) + le16(29) + le16(23) + le16(59) + le16(58) + le16(4);
  Stream s;
  s.attr(attMessageClass, "IPM.Note\0")
      .codepage(950)
      .attr(attMsgProps, block({str8(0x0037, "Subject")}))
      .attr(attAttachRenddata, le16(1) + le32(0xAABBCCDD) + le16(32) + le16(16) + le32(7))
      .title("a.doc")
      .attr(attAttachCreateDate, when)
      .attr(attAttachModifyDate, when.substr(0, 6))  // short: the rest stays zero
      .attr(attAttachMetaFile, "META")
      .data("file one")
      .props({long3(0x0E20, 8)});
  Parsed p(s.str());
  EXPECT_EQ(0, p.status);
  auto recs = p.records();
  ASSERT_EQ(2u, recs.size());

  const TNEF_Attach* msg = recs[0];
  EXPECT_EQ("<none>", name_of(msg));  // the message record holds no file
  EXPECT_EQ(950u, msg->unCodePage);
  ASSERT_EQ(1u, msg->stMAPI.unCount);
  EXPECT_EQ(0x0037, msg->stMAPI.pstProps[0].unID);

  const TNEF_Attach* att = recs[1];
  EXPECT_EQ(1, att->unATYP);
  EXPECT_EQ(0xAABBCCDDu, att->unPosition);
  EXPECT_EQ(32, att->unWidth);
  EXPECT_EQ(16, att->unHeight);
  EXPECT_EQ(7u, att->unFlag);
  EXPECT_STREQ("a.doc", att->pszFileName);
  EXPECT_EQ("2024-2-29 23:59:58 w4", date(att->stCreate));
  EXPECT_EQ("2024-2-29 0:0:0 w0", date(att->stModify));
  EXPECT_EQ("0-0-0 0:0:0 w0", date(att->stAccess));
  EXPECT_EQ("META", std::string(static_cast<const char*>(att->pvMetaFile), att->unMetaLen));
  EXPECT_EQ((Files{{"a.doc", "file one"}}), p.files());
  EXPECT_EQ(1u, att->stMAPI.unCount);
  EXPECT_EQ(950u, att->unCodePage);
  // Everything points into the caller's buffer.
  EXPECT_EQ(s.str().find("file one"), p.offset(att->pvFileData));
  EXPECT_EQ(s.str().find("a.doc"), p.offset(att->pszFileName));
}

TEST(TnefStream, OrphanAttributesMakeTheHeadAndCodePageStampsTouchedRecords) {
  // Attachment data before any record makes the head.  The code page comes
  // later and reaches only the records made or touched after it.
  Parsed p(Stream().data("orphan").renddata().data("second").codepage(1251).title("late.txt").renddata().data("third").str());
  EXPECT_EQ(0, p.status);
  auto recs = p.records();
  ASSERT_EQ(3u, recs.size());
  EXPECT_EQ(0u, recs[0]->unCodePage);
  EXPECT_EQ(1251u, recs[1]->unCodePage);
  EXPECT_EQ(1251u, recs[2]->unCodePage);
  EXPECT_EQ((std::vector<std::string>{"Untitled", "late.txt", "Untitled"}), p.names());
}

TEST(TnefStream, WrongSignatureIsParsedAndTraced) {
  auto traced = [](uint32_t signature, int stat_in, std::vector<std::string>* names) {
    const std::string s = Stream(signature).renddata().title("x.txt").data("x").attr(0x00099999, "??").str();
    testing::internal::CaptureStdout();
    {
      Parsed p(s, stat_in);
      EXPECT_EQ(0, p.status);
      *names = p.names();
    }
    return testing::internal::GetCapturedStdout();
  };
  std::vector<std::string> good, bad, quiet;
  const std::string good_trace = traced(0x223E9F78, 1, &good);
  EXPECT_EQ(0u, good_trace.rfind("TNEF_SIGNATURE ", 0));
  EXPECT_NE(std::string::npos, good_trace.find("Class: 0x99999\n"));
  EXPECT_EQ(0u, traced(0x12345678, 1, &bad).rfind("BAD_SIGNATURE ", 0));
  EXPECT_EQ(good, bad);
  // Without a status of 1 on entry, or without a status pointer, nothing is printed.
  EXPECT_EQ("", traced(0x12345678, 0, &quiet));
  testing::internal::CaptureStdout();
  std::string s = Stream().renddata().data("x").str();
  MLC_TNEFFree(MLC_TNEFParse(s.data(), static_cast<unsigned>(s.size()), nullptr));
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST(TnefStream, DamageStatuses) {
  // A checksum mismatch skips that attribute only.
  Parsed sum(Stream().renddata().title("first.bin").attr(attAttachData, "damaged", 1).renddata().title("second.bin")
                 .data("intact").str());
  EXPECT_EQ(-3, sum.status);
  EXPECT_EQ(2u, sum.records().size());
  EXPECT_EQ((Files{{"second.bin", "intact"}}), sum.files());

  const std::string full = Stream().renddata().data("abc").str();
  for (size_t n = 0; n <= 6; ++n) {  // no signature: -2; no key: -3; nothing after it: 0
    Parsed p(full.substr(0, n));
    EXPECT_EQ(n < 4 ? -2 : n < 6 ? -3 : 0, p.status) << n;
    EXPECT_EQ(nullptr, p.list);
  }
  int stat = 5;
  EXPECT_EQ(nullptr, MLC_TNEFParse(nullptr, 100, &stat));
  EXPECT_EQ(-2, stat);

  // A property-block error ends the parse with its status.
  Parsed bad(Stream().renddata().data("kept").props({tag(0x3707, 0x0099)}).renddata().data("lost").str());
  EXPECT_EQ(-4, bad.status);
  EXPECT_EQ((Files{{"Untitled", "kept"}}), bad.files());
  // A repeated attachment block replaces the first (the leak check sees it freed).
  Parsed twice(Stream().renddata().data("x").props({str8(0x3707, "one.txt")})
                   .props({str8(0x3001, "two.txt"), long3(0x0E20, 1)}).str());
  EXPECT_EQ(0, twice.status);
  EXPECT_EQ(2u, twice.list->stMAPI.unCount);
  EXPECT_EQ((std::vector<std::string>{"two.txt"}), twice.names());
}

// ---- property blocks ---------------------------------------------------------

struct Block {
  explicit Block(const std::string& bytes, unsigned flags = 0) : buf(bytes.begin(), bytes.end()) {
    rc = MLC_MAPIPropsParse(buf.empty() ? nullptr : buf.data(), static_cast<unsigned>(buf.size()), &mapi, flags);
  }
  ~Block() { tnef::mapi_free(&mapi); }
  std::string value(uint32_t prop, uint32_t val = 0) const {
    const MAPI_Val_t& v = mapi.pstProps[prop].pstVals[val];
    return std::string(static_cast<const char*>(v.pvData), v.unSize);
  }
  std::vector<char> buf;
  TNEF_MAPI_t mapi{};
  int rc;
};

TEST(TnefProps, EveryTypeReadsItsWidth) {
  const std::string bytes = block({
      tag(0x0001, 0x0001),                                // null: nothing
      tag(0x0002, 0x0002) + "\x11\x22",                   // short: 2 bytes
      long3(0x0003, 0x44332211),                          // 4 bytes
      tag(0x0004, 0x0040) + "12345678",                   // time: 8 bytes
      tag(0x0005, 0x1003) + le32(2) + le32(7) + le32(9),  // multi-valued long
      tag(0x0006, 0x0102) + le32(1) + counted("bin"),     // binary: size + padded bytes
      tag(0x0007, 0x101E) + le32(2) + counted("ab") + counted("cdefg"),
      tag(0x0008, 0x000D) + le32(1) + le32(9) + le32(0xCAFE) + pad4("12345"),  // object
      tag(0x0009, 0x0048),                                // class id: nothing read
      long3(0x000A, 5),
  });
  testing::internal::CaptureStdout();
  Block b(bytes + "xyz", TNEF_MAPI_TRACE);
  EXPECT_NE(std::string::npos, testing::internal::GetCapturedStdout().find("3 bytes extra after MAPI read\n"));
  ASSERT_EQ(0, b.rc);
  ASSERT_EQ(10u, b.mapi.unCount);
  struct Want {
    uint16_t type;
    uint32_t count;
    std::string first;
  };
  const Want want[] = {
      {0x0001, 1, ""},         {0x0002, 1, "\x11\x22"}, {0x0003, 1, "\x11\x22\x33\x44"}, {0x0040, 1, "12345678"},
      {0x1003, 2, le32(7)},    {0x0102, 1, "bin"},      {0x101E, 2, "ab"},               {0x000D, 1, "12345"},
      {0x0048, 1, ""},         {0x0003, 1, le32(5)},
  };
  const MAPI_Prop_t* pr = b.mapi.pstProps;
  for (uint32_t i = 0; i < 10; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(i + 1, pr[i].unID);
    EXPECT_EQ(want[i].type, pr[i].unType);
    ASSERT_EQ(want[i].count, pr[i].unCount);
    EXPECT_EQ(want[i].first, b.value(i));
    EXPECT_EQ(nullptr, pr[i].pstGUID);
  }
  EXPECT_EQ(le32(9), b.value(4, 1));
  EXPECT_EQ("cdefg", b.value(6, 1));
  EXPECT_EQ(0xCAFEu, pr[7].pstVals[0].unIID);
  // The class id's value points where the next property's tag starts.
  EXPECT_EQ(static_cast<const char*>(pr[8].pstVals[0].pvData) - b.buf.data(),
            static_cast<std::ptrdiff_t>(bytes.find(long3(0x000A, 5))));
}

TEST(TnefProps, NamedProperties) {
  const std::string guid(16, '\x5A');
  Block b(block({
      tag(0x8001, 3) + guid + le32(0) + le32(0x00028123) + le32(77),               // numeric name
      tag(0x8002, 3) + guid + le32(1) + counted(utf16(u"Keywords")) + le32(78),   // string name
      tag(0x8003, 3) + guid + le32(2) + counted("a") + counted("bcdef") + le32(79),
  }));
  ASSERT_EQ(0, b.rc);
  ASSERT_EQ(3u, b.mapi.unCount);
  EXPECT_EQ(0x8123, b.mapi.pstProps[0].unID);  // lower half of the numeric name
  EXPECT_EQ(0x8002, b.mapi.pstProps[1].unID);  // string names leave the id
  EXPECT_EQ(0x8003, b.mapi.pstProps[2].unID);
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(le32(77 + i), b.value(i)) << i;
  EXPECT_EQ(0u, b.mapi.pstProps[1].unNameLen);
}

TEST(TnefProps, FailuresAndLyingCounts) {
  EXPECT_EQ(-2, MLC_MAPIPropsParse(nullptr, 0, nullptr, 0));
  EXPECT_EQ(0, Block(le32(0)).rc);
  EXPECT_EQ(-4, Block(block({tag(1, 0x0099)})).rc);
  EXPECT_EQ(-4, Block(block({tag(1, 0x1099)})).rc);
  const std::string g(16, 'g');
  const std::pair<const char*, std::string> cases[] = {
      {"empty block", ""},
      {"short count", "\1\0\0"},
      {"string size beyond the block", le32(1) + tag(1, 30) + le32(1) + le32(0xFFFFFFFD) + "abcd"},
      {"object smaller than its id", le32(1) + tag(1, 13) + le32(1) + le32(3) + le32(0) + "abcd"},
      {"name length beyond the block", le32(1) + tag(0x9000, 3) + g + le32(1) + le32(0xFFFFFFFF)},
      {"short value", le32(1) + tag(1, 0x0014) + "1234567"},
      {"missing guid", le32(1) + tag(0x8000, 3) + "123"},
  };
  for (const auto& [what, bytes] : cases) {
    Block b(bytes);
    EXPECT_EQ(-3, b.rc) << what;
    EXPECT_LE(b.mapi.unCount, 2u) << what;
  }
  // What was read before the fault stays in the block.
  Block partial(le32(3) + long3(1, 1) + long3(2, 2) + tag(3, 3));
  EXPECT_EQ(-3, partial.rc);
  ASSERT_EQ(3u, partial.mapi.unCount);
  EXPECT_EQ(2, partial.mapi.pstProps[1].unID);
  EXPECT_EQ(0u, partial.mapi.pstProps[2].unCount);
}

// ---- names and charsets ---------------------------------------------------------

TEST(TnefNames, PrioritiesAndConversion) {
  struct Case {
    std::vector<std::string> props;
    const char* title;
    std::string name;
    int utf8;
  };
  const Case cases[] = {
      {{str8(0x3707, "Long name.docx")}, "a.doc", "Long name.docx", 0},
      {{str8(0x3703, ".pdf")}, nullptr, "Untitled.pdf", 0},
      {{str8(0x3703, ".pdf")}, "a.doc", "a.doc", 0},  // the title outranks the extension
      {{str8(0x3703, ".pdf")}, "", "Untitled.pdf", 0},  // an empty title does not
      {{}, nullptr, "Untitled", 0},
      // Long beats display beats short, whatever the order.
      {{str8(0x3704, "SHORT"), str8(0x3707, "long"), str8(0x3001, "display")}, "t", "long", 0},
      {{str8(0x3704, "SHORT"), str8(0x3001, "display")}, "t", "display", 0},
      {{str8(0x3704, "SHORT")}, "t", "SHORT", 0},
      {{str8(0x3001, "first"), str8(0x3001, "second")}, nullptr, "second", 0},  // same rank replaces
      // Once a name is there the extension no longer counts; before, it is
      // appended once and a later name still wins.
      {{str8(0x3703, ".bin"), str8(0x3703, ".two")}, nullptr, "Untitled.bin", 0},
      {{str8(0x3703, ".bin"), str8(0x3704, "n.txt")}, nullptr, "n.txt", 0},
      // A non-text value is copied up to its first NUL; a multi-valued
      // property without values is passed over.
      {{tag(0x3707, 0x0102) + le32(1) + counted(std::string("AB\0CD", 5))}, "t", "AB", 0},
      {{tag(0x3707, 0x101E) + le32(0)}, "t", "t", 0},
      // UTF-16 names are converted and flagged; a later 8-bit name of the
      // same rank is not.
      {{unicode(0x3707, u"r\u00e9sum\u00e9.pdf")}, "RESUME~1.PDF", "r\xC3\xA9sum\xC3\xA9.pdf", 1},
      {{unicode(0x3001, u"wide.pdf"), str8(0x3001, "plain.pdf")}, nullptr, "plain.pdf", 0},
      {{unicode(0x3703, u".txt")}, nullptr, "Untitled.txt", 1},
  };
  for (const auto& c : cases) {
    Stream s;
    s.renddata();
    if (c.title != nullptr) s.title(c.title);
    Parsed p(s.data("d").props(c.props).str());
    ASSERT_EQ(0, p.status) << c.name;
    int utf8 = -1;
    EXPECT_EQ(c.name, name_of(p.list, &utf8));
    EXPECT_EQ(c.utf8, utf8) << c.name;
  }
}

TEST(TnefNames, BoundsAndRefusals) {
  Parsed p(Stream().renddata().data("d").props({unicode(0x3707, u"\u00e9\u00e9\u00e9.txt")}).str());
  char buf[8];
  std::memset(buf, 'X', sizeof buf);
  EXPECT_EQ(0, MLC_TNEFFilename(p.list, buf, 6, nullptr));
  EXPECT_STREQ("\xC3\xA9\xC3\xA9", buf);  // five bytes would split the third character
  EXPECT_EQ('X', buf[6]);
  EXPECT_EQ(0, MLC_TNEFFilename(p.list, buf, 1, nullptr));
  EXPECT_STREQ("", buf);
  Parsed title(Stream().renddata().title("abcdefghij").data("d").str());
  EXPECT_EQ(0, MLC_TNEFFilename(title.list, buf, 4, nullptr));
  EXPECT_STREQ("abc", buf);

  int flag = 7;
  EXPECT_EQ(-2, MLC_TNEFFilename(p.list, nullptr, 10, &flag));
  EXPECT_EQ(-2, MLC_TNEFFilename(p.list, buf, 0, &flag));
  EXPECT_EQ(-2, MLC_TNEFFilename(nullptr, buf, sizeof buf, &flag));
  Parsed nodata(Stream().renddata().title("x.txt").str());
  EXPECT_EQ(-2, MLC_TNEFFilename(nodata.list, buf, sizeof buf, &flag));
  // Zero bytes of data are still a file.
  EXPECT_EQ((Files{{"empty.txt", ""}}), Parsed(Stream().renddata().title("empty.txt").data("").str()).files());
  // A title without a terminator is copied, not read past its data.
  Parsed nonul(Stream().renddata().attr(attAttachTitle, "no-nul.txt").data("d").str());
  EXPECT_STREQ("no-nul.txt", nonul.list->pszFileName);
  EXPECT_GE(nonul.offset(nonul.list->pszFileName), nonul.buf.size());
}

TEST(TnefCharsets, EveryCodePageAndTheBuffers) {
  auto charset_for = [](uint32_t cp, uint32_t second = 0) {
    Parsed p(Stream().codepage(cp, second).renddata().str());
    return charset_of(p.list);
  };
  const std::pair<uint32_t, const char*> table[] = {
      {852, "ibm852"}, {866, "ibm866"}, {874, "windows-874"}, {932, "shift-jis"}, {936, "gb2312"},
      {54936, "gb18030"}, {949, "ks_c_5601"}, {950, "big5"}, {1200, "unicode"}, {1201, "unicodeFEFF"},
      {1250, "windows-1250"}, {1251, "windows-1251"}, {1252, "windows-1252"}, {1253, "windows-1253"},
      {1254, "windows-1254"}, {1255, "windows-1255"}, {1256, "windows-1256"}, {1257, "windows-1257"},
      {1258, "windows-1258"}, {20105, "irv"}, {20106, "DIN_66003"}, {20107, "SEN_850200_B"},
      {20108, "NS_4551-1"}, {20866, "koi8-r"}, {28591, "iso-8859-1"}, {28592, "iso-8859-2"},
      {28593, "iso-8859-3"}, {28594, "iso-8859-4"}, {28595, "iso-8859-5"}, {28596, "iso-8859-6"},
      {28597, "iso-8859-7"}, {28598, "iso-8859-8"}, {50000, "x-user-defined"}, {50220, "iso-2022-jp"},
      {50221, "csISO2022JP"}, {50222, "iso-2022-jp"}, {50225, "iso-2022-kr"}, {50932, "_autodetect"},
      {50949, "_autodetect_kr"}, {51932, "x-euc"}, {51949, "euc-kr"}, {52936, "hz-gb-2312"},
      {65000, "utf-7"}, {65001, "utf-8"},
  };
  for (auto [cp, name] : table) EXPECT_EQ(name, charset_for(cp)) << cp;
  EXPECT_EQ("rc-6:", charset_for(1259));
  EXPECT_EQ("rc-6:", charset_for(950, 1));  // the whole 64-bit number must match
  EXPECT_EQ("rc-6:", charset_for(0));

  Parsed p(Stream().codepage(28591).renddata().str());
  char buf[16];
  EXPECT_EQ(0, MLC_TNEFCharset(p.list, buf, sizeof buf));
  EXPECT_STREQ("iso-8859-1", buf);
  EXPECT_EQ(0, MLC_TNEFCharset(p.list, buf, 5));
  EXPECT_STREQ("iso-", buf);
  EXPECT_EQ(-2, MLC_TNEFCharset(p.list, buf, 0));
  EXPECT_EQ(-2, MLC_TNEFCharset(p.list, nullptr, 5));
  EXPECT_EQ(-2, MLC_TNEFCharset(nullptr, buf, sizeof buf));
  EXPECT_STREQ("", buf);
  const char* cs = "unset";
  EXPECT_EQ(-2, MLC_TNEFCharset2(nullptr, &cs));
  EXPECT_STREQ("", cs);
  EXPECT_EQ(-2, MLC_TNEFCharset2(p.list, nullptr));
  Parsed none(Stream().renddata().str());
  std::strcpy(buf, "old");
  EXPECT_EQ(-6, MLC_TNEFCharset(none.list, buf, sizeof buf));
  EXPECT_STREQ("", buf);
}

TEST(TnefUtf16X, WordStrideAndBounds) {
  // The characters are the 32-bit words at 0, 8, 16, ... bytes.
  std::string in;
  for (uint32_t c : {0x41u, 0xFFFFu, 0x7FEu, 0u, 0x7FFu, 0u, 0x10041u, 0u}) in += le32(c);
  const std::vector<char> exact(in.begin(), in.end());
  // Words at 0, 8, 16, 24: 0x41, 0x7FE, 0x7FF, 0x10041 (low 16 bits kept).
  EXPECT_STREQ("A\xDF\xBE\xE0\x9F\xBF\xE0\x81\x81", s_UTF16XUTF8(static_cast<unsigned>(exact.size()), exact.data()));
  // Stops at the first word that would end past the input.
  EXPECT_STREQ("A\xDF\xBE", s_UTF16XUTF8(19, exact.data()));
  EXPECT_STREQ("", s_UTF16XUTF8(3, exact.data()));
  EXPECT_EQ(nullptr, s_UTF16XUTF8(4, nullptr));
  std::vector<char> big(2731, 'a');
  EXPECT_EQ(nullptr, s_UTF16XUTF8(2731, big.data()));  // 2731 * 3 / 2 = 4096
  const char* longest = s_UTF16XUTF8(2730, big.data());
  ASSERT_NE(nullptr, longest);
  EXPECT_EQ(341u * 3, std::strlen(longest));  // words at 0, 8, ..., 2720, three bytes each
  EXPECT_EQ(nullptr, s_UTF16XUTF8(0xFFFFFFFFu, big.data()));
}

TEST(TnefFree, NullAndLongLists) {
  MLC_TNEFFree(nullptr);
  Stream s;
  for (int i = 0; i < 5000; ++i) s.renddata().props({str8(0x3707, "n" + std::to_string(i))});
  Parsed p(s.str());
  EXPECT_EQ(0, p.status);
  EXPECT_EQ(5000u, p.records().size());
}

// ---- the corpus ------------------------------------------------------------------

// TNEF streams of the corpus (not the expected outputs beside them).
std::vector<std::string> corpus_streams() {
  std::vector<std::string> out;
  for (const auto& path : tarntest::corpus_files("tnef")) {
    const std::string rel = path.substr(tarntest::corpus_dir().size() + 6);
    const std::string ext = fs::path(rel).extension().string();
    if (rel.find("/expected/") == std::string::npos && rel.find("/quick-contents/") == std::string::npos &&
        ext != ".list" && ext != ".txt")
      out.push_back(rel);
  }
  return out;
}

// What the reader makes of every stream of the corpus: status and the
// names of the records with file data.  Where a file falls short of what
// the stream holds, the reason is a property block that the reader cannot
// follow (a class-id value read as zero bytes, a multi-valued short read as
// 2 bytes a value), which ends the parse, or attachments carried as
// embedded objects rather than as attachment data.
const std::map<std::string, std::pair<int, std::vector<std::string>>> kCorpus = {
    {"apache-poi/bug52400-winmail-simple.dat", {-3, {}}},
    {"apache-poi/bug52400-winmail-with-attachments.dat", {-3, {"scion_tc_2007_maintenanceguide.pdf", "Duke_Wave.png"}}},
    {"apache-poi/bug63955-winmail.dat", {-3, {}}}, {"apache-poi/oom.tnef", {-3, {}}},
    {"apache-poi/quick-winmail.dat", {0, {"quick.doc", "quick.html", "quick.pdf", "quick.txt", "quick.xml"}}},
    {"horde-compress/TnefAttachments.tnef", {0, {"hasselhoff_birthday.jpg"}}},
    {"horde-compress/TnefAttachmentsMultiple.tnef", {0, {"Lighthouse.jpg", "Penguins.jpg", "Tulips.jpg"}}},
    {"horde-compress/TnefMeetingRequest.tnef", {-3, {}}},
    {"horde-compress/tnef_vnote.tnef", {0, {"Some important task."}}},
    {"horde-compress/winmail2.dat", {0, {}}}, {"ktnef/mapi_attach_data_obj.tnef", {-3, {}}},
    {"ktnef/umlaut-filename.tnef", {0, {"d\xF6" "cument.pdf"}}},
    {"mimekit/attachments.tnef", {0, {"zappa_av1.jpg", "bookmark.htm"}}},
    {"mimekit/christmas.tnef", {0, {"kitten-playing-with-a-christmas-tree.jpg", "Build a train table", "Christmas Celebration!"}}},
    {"mimekit/panic.tnef", {-3, {}}}, {"mimekit/winmail.tnef", {0, {}}},
    {"node-tnef/badchecksum.dat", {0, {"zappa_av1.jpg", "bookmark.htm"}}},
    {"pytnef/winmail-1.dat", {0, {}}}, {"roundcube/winmail-10193.tnef", {-4, {}}},
    {"tnefdecoder/invalid-checksum.tnef", {-3, {}}},
    {"tnefparse/IPM-DistList.tnef", {-3, {"Untitled Attachment"}}},
    {"tnefparse/bad_checksum.tnef", {-3, {"image001.png"}}},
    {"tnefparse/duplicate_filename.tnef", {-3, {}}}, {"tnefparse/minimal_attachment.tnef", {-3, {}}},
    {"tnefparse/umlaut.tnef", {0, {"TBZ PARIV GmbH.jpg", "image003.jpg", "UmlautAnhang-\xE4\xFC\xF6.txt"}}},
    {"verdammelt-tnef/MAPI_ATTACH_DATA_OBJ.tnef", {0, {}}}, {"verdammelt-tnef/MAPI_OBJECT.tnef", {0, {}}},
    {"verdammelt-tnef/body.tnef", {0, {}}},
    {"verdammelt-tnef/data-before-name.tnef", {0, {"AUTOEXEC.BAT", "CONFIG.SYS", "boot.ini"}}},
    {"verdammelt-tnef/garbage-at-end.tnef", {-3, {}}},
    {"verdammelt-tnef/long-filename.tnef", {0, {"allproductsmar2000.dat"}}},
    {"verdammelt-tnef/missing-filenames.tnef", {0, {"generpts.src", "TechlibDEC99.doc", "TechlibDEC99-JAN00.doc", "TechlibNOV99.doc"}}},
    {"verdammelt-tnef/multi-name-property.tnef", {0, {}}}, {"verdammelt-tnef/multi-value-attribute.tnef", {-4, {}}},
    {"verdammelt-tnef/one-file.tnef", {0, {"AUTHORS"}}},
    {"verdammelt-tnef/rtf.tnef", {0, {}}}, {"verdammelt-tnef/triples.tnef", {0, {}}},
    {"verdammelt-tnef/two-files.tnef", {0, {"AUTHORS", "README"}}},
    {"verdammelt-tnef/unicode-mapi-attr-name.tnef", {0, {"spaconsole2.cfg", "image001.png", "image002.png", "image003.png"}}},
    {"verdammelt-tnef/unicode-mapi-attr.tnef", {0, {"example.dat"}}},
    {"ytnef/ytnef-oob-TNEFVersion-SwapWord", {0, {}}},
};

TEST(TnefCorpus, EveryStreamGivesItsNamesAndStatus) {
  if (!corpus_present()) GTEST_SKIP() << "no corpus";
  const auto streams = corpus_streams();
  EXPECT_EQ(kCorpus.size(), streams.size());  // every stream of the corpus is in the table, and no other
  for (const auto& rel : streams) {
    SCOPED_TRACE(rel);
    ASSERT_EQ(1u, kCorpus.count(rel));
    Parsed p(tarntest::read_file(corpus_tnef(rel)));
    EXPECT_EQ(kCorpus.at(rel).first, p.status);
    EXPECT_EQ(kCorpus.at(rel).second, p.names());
  }
}

// The expected extracted files that come with the corpus.  Their text files
// were stored with LF line ends where the streams hold CR LF, so both sides
// are compared with CR LF pairs made LF.
TEST(TnefCorpus, FileBytesMatchTheExpectedFiles) {
  if (!corpus_present()) GTEST_SKIP() << "no corpus";
  const std::tuple<const char*, const char*, std::vector<std::string>> wants[] = {
      {"apache-poi/quick-winmail.dat", "apache-poi/quick-contents",
       {"quick.doc", "quick.html", "quick.pdf", "quick.txt", "quick.xml"}},
      {"mimekit/attachments.tnef", "mimekit/expected/attachments", {"zappa_av1.jpg", "bookmark.htm"}},
      {"mimekit/christmas.tnef", "mimekit/expected/christmas", {"kitten-playing-with-a-christmas-tree.jpg"}},
      {"verdammelt-tnef/data-before-name.tnef", "mimekit/expected/data-before-name",
       {"AUTOEXEC.BAT", "CONFIG.SYS", "boot.ini"}},
      {"verdammelt-tnef/long-filename.tnef", "mimekit/expected/long-filename", {"allproductsmar2000.dat"}},
      {"verdammelt-tnef/missing-filenames.tnef", "mimekit/expected/missing-filenames",
       {"TechlibDEC99-JAN00.doc", "TechlibDEC99.doc", "TechlibNOV99.doc", "generpts.src"}},
      {"verdammelt-tnef/one-file.tnef", "mimekit/expected/one-file", {"AUTHORS"}},
      {"verdammelt-tnef/two-files.tnef", "mimekit/expected/two-files", {"AUTHORS", "README"}},
      {"verdammelt-tnef/unicode-mapi-attr.tnef", "mimekit/expected/unicode-mapi-attr", {"example.dat"}},
      {"verdammelt-tnef/unicode-mapi-attr-name.tnef", "mimekit/expected/unicode-mapi-attr-name",
       {"image001.png", "image002.png", "image003.png", "spaconsole2.cfg"}},
  };
  auto lf = [](const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i)
      if (!(s[i] == '\r' && i + 1 < s.size() && s[i + 1] == '\n')) out += s[i];
    return out;
  };
  for (const auto& [stream, dir, names] : wants) {
    std::map<std::string, std::string> got;
    for (auto& [name, bytes] : Parsed(tarntest::read_file(corpus_tnef(stream))).files()) got[name] = bytes;
    for (const auto& name : names) {
      ASSERT_EQ(1u, got.count(name)) << stream << ": " << name;
      EXPECT_TRUE(lf(got[name]) == lf(tarntest::read_file(corpus_tnef(std::string(dir) + "/" + name))))
          << stream << ": " << name;
    }
  }
}

// ---- against the Debian tnef unpacker ----------------------------------------------

// What tnef extracts, by name; a name that tnef numbered because an earlier
// file had it (NAME.1, NAME.2) counts under NAME.
std::multimap<std::string, std::string> tnef_extract(const std::string& stream, const fs::path& dir) {
  fs::remove_all(dir);
  fs::create_directories(dir);
  auto quote = [](const std::string& s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
  };
  const std::string cmd = "tnef --number-backups --ignore-checksum -C " + quote(dir.string()) + " -f " +
                          quote(stream) + " >/dev/null 2>&1";
  (void)!std::system(cmd.c_str());  // tnef gives up on some damaged streams; what it wrote counts
  std::set<std::string> present;
  for (const auto& e : fs::directory_iterator(dir)) present.insert(e.path().filename().string());
  std::multimap<std::string, std::string> out;
  for (const auto& name : present) {
    const size_t dot = name.rfind('.');
    const bool numbered = dot != std::string::npos && dot + 1 < name.size() &&
                          name.find_first_not_of("0123456789", dot + 1) == std::string::npos &&
                          present.count(name.substr(0, dot));
    out.emplace(numbered ? name.substr(0, dot) : name, tarntest::read_file((dir / name).string()));
  }
  fs::remove_all(dir);
  return out;
}

// One line per file that the other side lacks with the same name and
// bytes: "only-reader NAME" or "only-tnef NAME".
std::multiset<std::string> differences(const std::multimap<std::string, std::string>& mine,
                                       std::multimap<std::string, std::string> theirs) {
  std::multiset<std::string> out;
  for (const auto& m : mine) {
    auto t = std::find(theirs.begin(), theirs.end(), m);
    if (t == theirs.end()) out.insert("only-reader " + m.first);
    else theirs.erase(t);
  }
  for (const auto& t : theirs) out.insert("only-tnef " + t.first);
  return out;
}

// tests/data/tnef/diff_exceptions.tsv: stream, difference, reason; a
// difference met twice is listed twice.
TEST(TnefDiff, SameFilesAsTheTnefUnpacker) {
  if (std::system("command -v tnef >/dev/null 2>&1") != 0) GTEST_SKIP() << "tnef is not installed";
  if (!corpus_present()) GTEST_SKIP() << "no corpus";
  std::map<std::string, std::multiset<std::string>> exceptions;
  std::istringstream tsv(tarntest::read_file(tarntest::testdata_dir() + "/tnef/diff_exceptions.tsv"));
  for (std::string line; std::getline(tsv, line);) {
    if (line.empty() || line[0] == '#') continue;
    const size_t t1 = line.find('\t'), t2 = line.find('\t', t1 + 1);
    ASSERT_TRUE(t2 != std::string::npos && t2 + 1 < line.size()) << "stream, difference and reason: " << line;
    exceptions[line.substr(0, t1)].insert(line.substr(t1 + 1, t2 - t1 - 1));
  }
  const fs::path work = fs::path(testing::TempDir()) / ("tnef_diff_" + std::to_string(::getpid()));
  size_t compared = 0, agreeing_files = 0;
  for (const auto& rel : corpus_streams()) {
    std::multimap<std::string, std::string> mine;
    for (auto& f : Parsed(tarntest::read_file(corpus_tnef(rel))).files()) mine.insert(f);
    const auto diff = differences(mine, tnef_extract(corpus_tnef(rel), work));
    std::string shown;
    for (const auto& d : diff) shown += rel + "\t" + d + "\n";
    EXPECT_EQ(exceptions[rel], diff) << shown;
    exceptions.erase(rel);
    agreeing_files += mine.size();
    for (const auto& d : diff) agreeing_files -= d.rfind("only-reader ", 0) == 0;
    ++compared;
  }
  for (const auto& e : exceptions) ADD_FAILURE() << "exception for a stream not in the corpus: " << e.first;
  EXPECT_EQ(41u, compared);
  EXPECT_EQ(34u, agreeing_files);
}

// ---- damaged streams ----------------------------------------------------------------

// Every pointer a record hands out lies inside the input, with its length;
// the name and charset calls stay inside their buffers.
void check_records(const Parsed& p) {
  const size_t size = p.buf.size();
  auto inside = [&](const void* ptr, uint64_t len) {
    return ptr == nullptr || (p.offset(ptr) <= size && len <= size - p.offset(ptr));
  };
  size_t count = 0;
  for (TNEF_Attach* rec : p.records()) {
    ASSERT_LT(++count, size + 2);
    ASSERT_TRUE(inside(rec->pvFileData, rec->unFileLen));
    ASSERT_TRUE(inside(rec->pvMetaFile, rec->unMetaLen));
    if (rec->pszFileName != nullptr && inside(rec->pszFileName, 1)) {
      ASSERT_NE(nullptr, std::memchr(rec->pszFileName, '\0', size - p.offset(rec->pszFileName)));
    }
    const TNEF_MAPI_t& m = rec->stMAPI;
    ASSERT_TRUE(m.unCount == 0 || m.pstProps != nullptr);
    for (uint32_t i = 0; i < m.unCount; ++i)
      for (uint32_t v = 0; v < m.pstProps[i].unCount; ++v)
        ASSERT_TRUE(inside(m.pstProps[i].pstVals[v].pvData, m.pstProps[i].pstVals[v].unSize));
    char name[64];
    std::memset(name, 'X', sizeof name);
    if (MLC_TNEFFilename(rec, name, 40, nullptr) == 0) {
      ASSERT_TRUE(std::strlen(name) < 40 && name[40] == 'X');
    }
    char cs[8];
    MLC_TNEFCharset(rec, cs, sizeof cs);
    ASSERT_LT(std::strlen(cs), sizeof cs);
  }
}

TEST(TnefDamage, EveryTruncation) {
  if (!corpus_present()) GTEST_SKIP() << "no corpus";
  for (const char* file : {"verdammelt-tnef/two-files.tnef", "verdammelt-tnef/data-before-name.tnef",
                           "verdammelt-tnef/unicode-mapi-attr.tnef", "ktnef/umlaut-filename.tnef",
                           "horde-compress/tnef_vnote.tnef"}) {
    SCOPED_TRACE(file);
    const std::string full = tarntest::read_file(corpus_tnef(file));
    const Files all = Parsed(full).files();
    size_t last_files = 0;
    for (size_t len = 0; len < full.size(); ++len) {
      Parsed p(full.substr(0, len));
      check_records(p);
      ASSERT_TRUE(len < 4 ? p.status == -2 : p.status == 0 || p.status == -3) << len << ": " << p.status;
      // A cut stream yields a prefix of the whole stream's files.
      const Files got = p.files();
      ASSERT_LE(got.size(), all.size()) << len;
      ASSERT_GE(got.size(), last_files) << len;
      for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(all[i].second, got[i].second) << len << " file " << i;
      last_files = got.size();
    }
    EXPECT_EQ(all.size(), last_files);
  }
}

TEST(TnefDamage, DeterministicBitFlipsAndWords) {
  if (!corpus_present()) GTEST_SKIP() << "no corpus";
  std::mt19937 rng(20240229u);
  std::map<int, int> statuses;
  for (const char* file : {"verdammelt-tnef/two-files.tnef", "verdammelt-tnef/unicode-mapi-attr-name.tnef",
                           "ktnef/umlaut-filename.tnef", "horde-compress/tnef_vnote.tnef",
                           "verdammelt-tnef/data-before-name.tnef", "apache-poi/quick-winmail.dat"}) {
    SCOPED_TRACE(file);
    const std::string orig = tarntest::read_file(corpus_tnef(file));
    for (int round = 0; round < 600; ++round) {
      std::string s = orig;
      const int flips = 1 + static_cast<int>(rng() % 8);
      for (int f = 0; f < flips; ++f) s[rng() % s.size()] ^= static_cast<char>(1u << (rng() % 8));
      if (round % 3 == 0) {  // a lying count or length: a whole word set high
        const uint32_t v = (rng() % 2) ? 0xFFFFFFFFu : (rng() | 0x80000000u);
        std::memcpy(&s[rng() % (s.size() - 4)], le32(v).data(), 4);
      }
      Parsed p(s);
      check_records(p);
      ++statuses[p.status];
    }
  }
  // The damage is seen, not only survived.
  EXPECT_GT(statuses[-3], 1000);
  EXPECT_GT(statuses[0] + statuses[-4] + statuses[-1], 0);
}

size_t peak_rss_kib() {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind("VmHWM:", 0) == 0) return std::stoul(line.substr(6));
  return 0;
}

TEST(TnefDamage, TenMebibytesOfHugeCounts) {
  constexpr size_t kBody = 10u << 20;
  const std::string zeros(kBody, '\0'), guid(16, 'g'), all_rows = le32(0xFFFFFFFF);
  const std::pair<const char*, std::string> cases[] = {
      {"property count", all_rows + zeros},
      {"empty multi-values", all_rows + tag(1, 0x1001) + le32(0xFFFFFFFF) + zeros},
      {"empty multi-values within the budget",
       all_rows + tag(1, 0x1001) + le32(kBody / 4) + tag(2, 0x1048) + le32(kBody / 4) + zeros},
      {"long multi-values", all_rows + tag(1, 0x1003) + le32(0xFFFFFFFF) + zeros},
      {"string values", all_rows + tag(1, 0x101F) + le32(0x7FFFFFFF) + zeros},
      {"names", all_rows + tag(0x8001, 3) + guid + le32(0xFFFFFFFF) + zeros},
  };
  const size_t rss_before = peak_rss_kib();
  for (const auto& [what, props] : cases) {
    SCOPED_TRACE(what);
    Parsed p(Stream().attr(attMsgProps, props).renddata().data("after").str());
    EXPECT_EQ(-3, p.status);
    ASSERT_NE(nullptr, p.list);
    EXPECT_LE(p.list->stMAPI.unCount, props.size() / 4);
    EXPECT_EQ(nullptr, p.list->pstNext);  // the block's failure ends the parse
  }
  // A data length far past the 10 MiB that follow it.
  Parsed lying(Stream().renddata().str() + '\2' + le32(attAttachData) + le32(0xFFFFFFFF) + zeros);
  EXPECT_EQ(-3, lying.status);
  EXPECT_EQ(nullptr, lying.list->pvFileData);
  // The arrays grow with the input, never with the counts it declares.
  EXPECT_LT(peak_rss_kib() - rss_before, size_t{1} << 20) << "KiB";
}

}  // namespace
