// The TNEF reader: streams built here attribute by attribute, the real
// files of the corpus, a comparison with the Debian `tnef` unpacker, and
// damaged streams (every truncation, bit flips, lying counts) under the
// sanitizers.

#include <gtest/gtest.h>

#include <sys/wait.h>
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

// ---- building streams --------------------------------------------------

std::string le16(uint16_t v) { return {static_cast<char>(v & 0xFF), static_cast<char>(v >> 8)}; }
std::string le32(uint32_t v) { return le16(static_cast<uint16_t>(v)) + le16(static_cast<uint16_t>(v >> 16)); }
std::string pad4(std::string s) {
  s.resize((s.size() + 3) & ~size_t{3}, '\0');
  return s;
}
// UTF-16LE of an ASCII or Latin-1 text given as UTF-16 code units.
std::string utf16(std::u16string_view text) {
  std::string out;
  for (char16_t c : text) out += le16(static_cast<uint16_t>(c));
  return out;
}

constexpr uint32_t kSignature = 0x223E9F78;
constexpr uint32_t attAttachRenddata = 0x00069002;
constexpr uint32_t attMsgProps = 0x00069003;
constexpr uint32_t attAttachment = 0x00069005;
constexpr uint32_t attOemCodepage = 0x00069007;
constexpr uint32_t attAttachData = 0x0006800F;
constexpr uint32_t attAttachMetaFile = 0x00068011;
constexpr uint32_t attAttachTitle = 0x00018010;
constexpr uint32_t attAttachCreateDate = 0x00038012;
constexpr uint32_t attAttachModifyDate = 0x00038013;
constexpr uint32_t attMessageClass = 0x00078008;

class Stream {
 public:
  explicit Stream(uint32_t signature = kSignature) : s_(le32(signature) + le16(0x1234)) {}
  Stream& attr(uint32_t id, const std::string& data, int checksum_delta = 0) {
    uint32_t sum = 0;
    for (unsigned char c : data) sum += c;
    s_ += std::string(1, static_cast<char>(id >> 16 == 6 ? 2 : 1)) + le32(id) +
          le32(static_cast<uint32_t>(data.size())) + data + le16(static_cast<uint16_t>(sum + checksum_delta));
    return *this;
  }
  Stream& codepage(uint32_t cp, uint32_t second = 0) { return attr(attOemCodepage, le32(cp) + le32(second)); }
  Stream& renddata() { return attr(attAttachRenddata, le16(1) + le32(0xFFFFFFFF) + le16(0) + le16(0) + le32(0)); }
  Stream& title(const std::string& t) { return attr(attAttachTitle, t + '\0'); }
  Stream& data(const std::string& d) { return attr(attAttachData, d); }
  const std::string& str() const { return s_; }

 private:
  std::string s_;
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
std::string unicode(uint16_t id, std::u16string_view text) {
  return tag(id, 31) + le32(1) + counted(utf16(text) + le16(0));
}
std::string long3(uint16_t id, uint32_t v) { return tag(id, 3) + le32(v); }

// ---- reading results ---------------------------------------------------

// A parse over an exactly sized heap copy of the stream, so that the
// sanitizer reports any read past its end.
struct Parsed {
  explicit Parsed(const std::string& bytes, int stat_in = 0) : buf(bytes.begin(), bytes.end()) {
    status = stat_in;
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
  // Records with file data, as (name, bytes).
  std::vector<std::pair<std::string, std::string>> files() const;
  size_t offset(const void* p) const { return static_cast<size_t>(static_cast<const char*>(p) - buf.data()); }

  std::vector<char> buf;
  TNEF_Attach* list = nullptr;
  int status = 0;
};

std::string name_of(const TNEF_Attach* rec, int* utf8 = nullptr) {
  char name[256];
  int flag = -1;
  if (MLC_TNEFFilename(rec, name, sizeof name, &flag) != 0) return "<none>";
  if (utf8 != nullptr) *utf8 = flag;
  return name;
}

std::vector<std::pair<std::string, std::string>> Parsed::files() const {
  std::vector<std::pair<std::string, std::string>> out;
  for (TNEF_Attach* p : records())
    if (p->pvFileData != nullptr)
      out.emplace_back(name_of(p), std::string(static_cast<const char*>(p->pvFileData), p->unFileLen));
  return out;
}

std::vector<std::string> names(const Parsed& parsed) {
  std::vector<std::string> out;
  for (auto& [name, bytes] : parsed.files()) out.push_back(name);
  return out;
}

std::string charset_of(const TNEF_Attach* rec) {
  const char* cs = "unset";
  const int rc = MLC_TNEFCharset2(rec, &cs);
  return rc == 0 ? std::string(cs) : "rc" + std::to_string(rc) + ":" + cs;
}

std::string corpus_tnef(const std::string& rel) { return tarntest::corpus_dir() + "/tnef/" + rel; }

bool corpus_present() { return fs::is_directory(tarntest::corpus_dir() + "/tnef"); }

// ---- the stream ----------------------------------------------------------

TEST(TnefStream, AttributesFillTheLastRecord) {
  const std::string date = le16(2024) + le16(2) + le16(29) + le16(23) + le16(59) + le16(58) + le16(4);
  Stream s;
  s.attr(attMessageClass, "IPM.Note\0")
      .codepage(950)
      .attr(attMsgProps, block({str8(0x0037, "Subject")}))
      .attr(attAttachRenddata, le16(1) + le32(0xAABBCCDD) + le16(32) + le16(16) + le32(7))
      .title("a.doc")
      .attr(attAttachCreateDate, date)
      .attr(attAttachModifyDate, date.substr(0, 6))  // short: the rest stays zero
      .attr(attAttachMetaFile, "META")
      .data("file one")
      .attr(attAttachment, block({long3(0x0E20, 8)}));
  Parsed p(s.str());
  EXPECT_EQ(0, p.status);
  auto recs = p.records();
  ASSERT_EQ(2u, recs.size());

  const TNEF_Attach* msg = recs[0];
  EXPECT_EQ(nullptr, msg->pvFileData);
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
  EXPECT_EQ(2024, att->stCreate.unYear);
  EXPECT_EQ(29, att->stCreate.unDay);
  EXPECT_EQ(58, att->stCreate.unSecond);
  EXPECT_EQ(4, att->stCreate.unWeek);
  EXPECT_EQ(2024, att->stModify.unYear);
  EXPECT_EQ(29, att->stModify.unDay);
  EXPECT_EQ(0, att->stModify.unHour);
  EXPECT_EQ(0, att->stAccess.unYear);
  EXPECT_EQ(4u, att->unMetaLen);
  EXPECT_EQ(0, std::memcmp(att->pvMetaFile, "META", 4));
  ASSERT_EQ(8u, att->unFileLen);
  EXPECT_EQ(0, std::memcmp(att->pvFileData, "file one", 8));
  EXPECT_EQ(1u, att->stMAPI.unCount);
  EXPECT_EQ(950u, att->unCodePage);
  EXPECT_EQ(nullptr, att->pstNext);
  // Everything points into the caller's buffer.
  EXPECT_EQ(s.str().find("file one"), p.offset(att->pvFileData));
  EXPECT_EQ(s.str().find("a.doc"), p.offset(att->pszFileName));
}

TEST(TnefStream, OrphanAttributesMakeTheHeadAndCodePageStampsTouchedRecords) {
  // Attachment data before any record: it makes the head.  The code page
  // comes later and reaches only the records made or touched after it.
  Stream s;
  s.data("orphan").renddata().data("second").codepage(1251).title("late.txt").renddata().data("third");
  Parsed p(s.str());
  EXPECT_EQ(0, p.status);
  auto recs = p.records();
  ASSERT_EQ(3u, recs.size());
  EXPECT_EQ(0u, recs[0]->unCodePage);
  EXPECT_EQ(1251u, recs[1]->unCodePage);
  EXPECT_EQ(1251u, recs[2]->unCodePage);
  EXPECT_EQ((std::vector<std::string>{"Untitled", "late.txt", "Untitled"}), names(p));
  EXPECT_EQ("windows-1251", charset_of(recs[1]));
  EXPECT_EQ("rc-6:", charset_of(recs[0]));
}

TEST(TnefStream, WrongSignatureIsParsedAndTraced) {
  Stream good, bad(0x12345678);
  good.renddata().title("x.txt").data("x").attr(0x00099999, "??");
  bad.renddata().title("x.txt").data("x").attr(0x00099999, "??");
  testing::internal::CaptureStdout();
  Parsed pg(good.str(), 1);
  const std::string good_trace = testing::internal::GetCapturedStdout();
  testing::internal::CaptureStdout();
  Parsed pb(bad.str(), 1);
  const std::string bad_trace = testing::internal::GetCapturedStdout();
  EXPECT_EQ(0, pg.status);
  EXPECT_EQ(0, pb.status);
  EXPECT_EQ(names(pg), names(pb));
  EXPECT_EQ(0u, good_trace.rfind("TNEF_SIGNATURE ", 0));
  EXPECT_EQ(0u, bad_trace.rfind("BAD_SIGNATURE ", 0));
  EXPECT_NE(std::string::npos, good_trace.find("Class: 0x99999\n"));

  // Without a status pointer set to 1 nothing is printed.
  testing::internal::CaptureStdout();
  { Parsed quiet(bad.str()); }
  MLC_TNEFFree(MLC_TNEFParse(const_cast<char*>(bad.str().data()), static_cast<unsigned>(bad.str().size()), nullptr));
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST(TnefStream, ChecksumMismatchSkipsTheAttributeOnly) {
  Stream s;
  s.renddata().title("first.bin").attr(attAttachData, "damaged", 1).renddata().title("second.bin").data("intact");
  Parsed p(s.str());
  EXPECT_EQ(-3, p.status);
  auto recs = p.records();
  ASSERT_EQ(2u, recs.size());
  EXPECT_EQ(nullptr, recs[0]->pvFileData);
  EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{"second.bin", "intact"}}), p.files());
}

TEST(TnefStream, ShortAndCutStreams) {
  const std::string full = Stream().renddata().title("a.txt").data("abc").renddata().data("defg").str();
  for (size_t n = 0; n < 4; ++n) {
    Parsed p(full.substr(0, n));
    EXPECT_EQ(-2, p.status) << n;
    EXPECT_EQ(nullptr, p.list);
  }
  for (size_t n = 4; n < 6; ++n) {  // signature without its key
    Parsed p(full.substr(0, n));
    EXPECT_EQ(-3, p.status) << n;
    EXPECT_EQ(nullptr, p.list);
  }
  Parsed empty(full.substr(0, 6));
  EXPECT_EQ(0, empty.status);
  EXPECT_EQ(nullptr, empty.list);

  // Cut inside the second file's data: the first file survives.
  Parsed cut(full.substr(0, full.size() - 3));
  EXPECT_EQ(-3, cut.status);
  EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{"a.txt", "abc"}}), cut.files());
  EXPECT_EQ(2u, cut.records().size());

  // A length far beyond the input.
  std::string liar = Stream().str() + '\2' + le32(attAttachData) + le32(0xFFFFFFF0) + "abc";
  Parsed lp(liar);
  EXPECT_EQ(-3, lp.status);
  EXPECT_EQ(nullptr, lp.list);

  int stat = 5;
  EXPECT_EQ(nullptr, MLC_TNEFParse(nullptr, 100, &stat));
  EXPECT_EQ(-2, stat);
}

TEST(TnefStream, TitleWithoutTerminatorIsCopied) {
  Stream s;
  s.renddata().attr(attAttachTitle, "no-nul.txt").data("d");
  Parsed p(s.str());
  ASSERT_EQ(1u, p.records().size());
  const TNEF_Attach* rec = p.list;
  EXPECT_STREQ("no-nul.txt", rec->pszFileName);
  EXPECT_GE(p.offset(rec->pszFileName), p.buf.size());  // not inside the input
  EXPECT_EQ("no-nul.txt", name_of(rec));
}

TEST(TnefStream, PropertyBlockErrorsEndTheParse) {
  Stream s;
  s.renddata().data("kept").attr(attAttachment, block({tag(0x3707, 0x0099)})).renddata().data("lost");
  Parsed p(s.str());
  EXPECT_EQ(-4, p.status);
  EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{"Untitled", "kept"}}), p.files());

  // A repeated attachment block replaces the first (the leak check sees
  // the first one freed).
  Stream r;
  r.renddata().data("x").attr(attAttachment, block({str8(0x3707, "one.txt")}))
      .attr(attAttachment, block({str8(0x3001, "two.txt"), long3(0x0E20, 1)}));
  Parsed pr(r.str());
  EXPECT_EQ(0, pr.status);
  EXPECT_EQ(2u, pr.list->stMAPI.unCount);
  EXPECT_EQ((std::vector<std::string>{"two.txt"}), names(pr));
}

// ---- property blocks --------------------------------------------------------

struct Block {
  explicit Block(const std::string& bytes, unsigned flags = 0) : buf(bytes.begin(), bytes.end()) {
    rc = MLC_MAPIPropsParse(buf.empty() ? nullptr : buf.data(), static_cast<unsigned>(buf.size()), &mapi, flags);
  }
  ~Block() { tnef::mapi_free(&mapi); }
  size_t offset(const MAPI_Val_t& v) const { return static_cast<size_t>(static_cast<const char*>(v.pvData) - buf.data()); }
  std::vector<char> buf;
  TNEF_MAPI_t mapi{};
  int rc;
};

TEST(TnefProps, EveryTypeReadsItsWidth) {
  const std::string bytes = block({
      tag(0x0001, 0x0001),                                   // null: nothing
      tag(0x0002, 0x0002) + "\x11\x22",                      // short: 2 bytes
      long3(0x0003, 0x44332211),                             // 4 bytes
      tag(0x0004, 0x0040) + "12345678",                      // time: 8 bytes
      tag(0x0005, 0x1003) + le32(2) + le32(7) + le32(9),     // multi-valued long
      tag(0x0006, 0x0102) + le32(1) + counted("bin"),        // binary: size + padded bytes
      tag(0x0007, 0x101E) + le32(2) + counted("ab") + counted("cdefg"),
      tag(0x0008, 0x000D) + le32(1) + le32(9) + le32(0xCAFE) + pad4("12345"),  // object
      tag(0x0009, 0x0048),                                   // class id: nothing read
      long3(0x000A, 5),
  });
  testing::internal::CaptureStdout();
  Block b(bytes + "xyz", TNEF_MAPI_TRACE);
  const std::string trace = testing::internal::GetCapturedStdout();
  ASSERT_EQ(0, b.rc);
  EXPECT_NE(std::string::npos, trace.find("3 bytes extra after MAPI read\n"));
  ASSERT_EQ(10u, b.mapi.unCount);
  const MAPI_Prop_t* pr = b.mapi.pstProps;
  struct Want {
    uint16_t type;
    uint32_t count, size0;
    std::string first;
  };
  const Want want[] = {
      {0x0001, 1, 0, ""},        {0x0002, 1, 2, "\x11\x22"},   {0x0003, 1, 4, "\x11\x22\x33\x44"},
      {0x0040, 1, 8, "12345678"}, {0x1003, 2, 4, le32(7)},     {0x0102, 1, 3, "bin"},
      {0x101E, 2, 2, "ab"},       {0x000D, 1, 5, "12345"},     {0x0048, 1, 0, ""},
      {0x0003, 1, 4, le32(5)},
  };
  for (int i = 0; i < 10; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(i + 1, pr[i].unID);
    EXPECT_EQ(want[i].type, pr[i].unType);
    ASSERT_EQ(want[i].count, pr[i].unCount);
    EXPECT_EQ(want[i].size0, pr[i].pstVals[0].unSize);
    EXPECT_EQ(want[i].first, std::string(static_cast<const char*>(pr[i].pstVals[0].pvData), pr[i].pstVals[0].unSize));
    EXPECT_EQ(nullptr, pr[i].pstGUID);
    EXPECT_EQ(nullptr, pr[i].pszName);
  }
  EXPECT_EQ(le32(9), std::string(static_cast<const char*>(pr[4].pstVals[1].pvData), 4));
  EXPECT_EQ("cdefg", std::string(static_cast<const char*>(pr[6].pstVals[1].pvData), pr[6].pstVals[1].unSize));
  EXPECT_EQ(0xCAFEu, pr[7].pstVals[0].unIID);
  // The class id's value points where the next property's tag starts.
  EXPECT_EQ(b.offset(pr[8].pstVals[0]) + 0, bytes.find(long3(0x000A, 5)));
}

TEST(TnefProps, NamedProperties) {
  const std::string guid(16, '\x5A');
  const std::string bytes = block({
      tag(0x8001, 0x0003) + guid + le32(0) + le32(0x00028123) + le32(77),       // numeric name
      tag(0x8002, 0x0003) + guid + le32(1) + counted(utf16(u"Keywords")) + le32(78),  // string name
      tag(0x8003, 0x0003) + guid + le32(2) + counted("a") + counted("bcdef") + le32(79),
  });
  Block b(bytes);
  ASSERT_EQ(0, b.rc);
  ASSERT_EQ(3u, b.mapi.unCount);
  EXPECT_EQ(0x8123, b.mapi.pstProps[0].unID);  // lower half of the numeric name
  EXPECT_EQ(0x8002, b.mapi.pstProps[1].unID);  // string names leave the id
  EXPECT_EQ(0x8003, b.mapi.pstProps[2].unID);
  EXPECT_EQ(le32(77), std::string(static_cast<const char*>(b.mapi.pstProps[0].pstVals[0].pvData), 4));
  EXPECT_EQ(le32(78), std::string(static_cast<const char*>(b.mapi.pstProps[1].pstVals[0].pvData), 4));
  EXPECT_EQ(le32(79), std::string(static_cast<const char*>(b.mapi.pstProps[2].pstVals[0].pvData), 4));
  EXPECT_EQ(0u, b.mapi.pstProps[1].unNameLen);
}

TEST(TnefProps, FailuresAndLyingCounts) {
  EXPECT_EQ(-2, MLC_MAPIPropsParse(nullptr, 0, nullptr, 0));
  EXPECT_EQ(-3, Block("").rc);
  EXPECT_EQ(-3, Block("\1\0\0").rc);
  EXPECT_EQ(0, Block(le32(0)).rc);
  EXPECT_EQ(-4, Block(block({tag(1, 0x0099)})).rc);
  EXPECT_EQ(-4, Block(block({tag(1, 0x1099)})).rc);

  struct Case {
    const char* what;
    std::string bytes;
  };
  const Case cases[] = {
      {"property count beyond the block", le32(0xFFFFFFFF) + long3(1, 1)},
      {"value count beyond the block", le32(1) + tag(1, 0x1003) + le32(0x40000000) + le32(1)},
      {"empty values beyond the block", le32(1) + tag(1, 0x1001) + le32(0xFFFFFFFF)},
      {"string size beyond the block", le32(1) + tag(1, 30) + le32(1) + le32(0xFFFFFFFD) + "abcd"},
      {"object smaller than its id", le32(1) + tag(1, 13) + le32(1) + le32(3) + le32(0) + "abcd"},
      {"name length beyond the block", le32(1) + tag(0x9000, 3) + std::string(16, 'g') + le32(1) + le32(0xFFFFFFFF)},
      {"many names", le32(1) + tag(0x9000, 3) + std::string(16, 'g') + le32(0xFFFFFFFF) + le32(0) + le32(0)},
      {"short value", le32(1) + tag(1, 0x0014) + "1234567"},
      {"missing guid", le32(1) + tag(0x8000, 3) + "123"},
  };
  for (const auto& c : cases) {
    Block b(c.bytes);
    EXPECT_EQ(-3, b.rc) << c.what;
    EXPECT_LE(b.mapi.unCount, 2u) << c.what;
  }
  // What was read before the fault stays in the block.
  Block partial(le32(3) + long3(1, 1) + long3(2, 2) + tag(3, 3));
  EXPECT_EQ(-3, partial.rc);
  ASSERT_EQ(3u, partial.mapi.unCount);
  EXPECT_EQ(2, partial.mapi.pstProps[1].unID);
  EXPECT_EQ(0u, partial.mapi.pstProps[2].unCount);
}

// ---- names and charsets -------------------------------------------------

std::string name_for(const std::vector<std::string>& props, const char* title, int* utf8 = nullptr) {
  Stream s;
  s.renddata();
  if (title != nullptr) s.title(title);
  s.data("d").attr(attAttachment, block(props));
  Parsed p(s.str());
  EXPECT_EQ(0, p.status);
  return name_of(p.list, utf8);
}

TEST(TnefNames, Priorities) {
  EXPECT_EQ("Long name.docx", name_for({str8(0x3707, "Long name.docx")}, "a.doc"));
  EXPECT_EQ("Untitled.pdf", name_for({str8(0x3703, ".pdf")}, nullptr));
  EXPECT_EQ("a.doc", name_for({str8(0x3703, ".pdf")}, "a.doc"));   // the title outranks the extension
  EXPECT_EQ("Untitled.pdf", name_for({str8(0x3703, ".pdf")}, ""));  // an empty title does not
  EXPECT_EQ("Untitled", name_for({}, nullptr));
  // Long beats display beats short, whatever the order.
  EXPECT_EQ("long", name_for({str8(0x3704, "SHORT"), str8(0x3707, "long"), str8(0x3001, "display")}, "t"));
  EXPECT_EQ("display", name_for({str8(0x3704, "SHORT"), str8(0x3001, "display")}, "t"));
  EXPECT_EQ("SHORT", name_for({str8(0x3704, "SHORT")}, "t"));
  // The same priority again replaces the name.
  EXPECT_EQ("second", name_for({str8(0x3001, "first"), str8(0x3001, "second")}, nullptr));
  // Once a name is there, the extension no longer counts; before, it is
  // appended once and a later name still wins.
  EXPECT_EQ("Untitled.bin", name_for({str8(0x3703, ".bin"), str8(0x3703, ".two")}, nullptr));
  EXPECT_EQ("n.txt", name_for({str8(0x3703, ".bin"), str8(0x3704, "n.txt")}, nullptr));
  // A non-text value is copied up to its first NUL.
  EXPECT_EQ(std::string("\x41\x42", 2), name_for({tag(0x3707, 0x0102) + le32(1) + counted(std::string("AB\0CD", 5))}, "t"));
  // A multi-valued property without values is passed over.
  EXPECT_EQ("t", name_for({tag(0x3707, 0x101E) + le32(0)}, "t"));
}

TEST(TnefNames, Utf16NamesAndTheConversionFlag) {
  int utf8 = -1;
  EXPECT_EQ("r\xC3\xA9sum\xC3\xA9.pdf", name_for({unicode(0x3707, u"r\u00e9sum\u00e9.pdf")}, "RESUME~1.PDF", &utf8));
  EXPECT_EQ(1, utf8);
  // A later 8-bit name of the same rank: no longer converted.
  EXPECT_EQ("plain.pdf", name_for({unicode(0x3001, u"wide.pdf"), str8(0x3001, "plain.pdf")}, nullptr, &utf8));
  EXPECT_EQ(0, utf8);
  EXPECT_EQ("Untitled.txt", name_for({unicode(0x3703, u".txt")}, nullptr, &utf8));
  EXPECT_EQ(1, utf8);
  EXPECT_EQ("t", name_for({}, "t", &utf8));
  EXPECT_EQ(0, utf8);
}

TEST(TnefNames, BoundsAndRefusals) {
  Stream s;
  s.renddata().data("d").attr(attAttachment, block({unicode(0x3707, u"\u00e9\u00e9\u00e9.txt")}));
  Parsed p(s.str());
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
  Parsed emptyfile(Stream().renddata().title("empty.txt").data("").str());
  EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{"empty.txt", ""}}), emptyfile.files());
}

TEST(TnefCharsets, CodePages) {
  auto charset_for = [](uint32_t cp, uint32_t second = 0) {
    Parsed p(Stream().codepage(cp, second).renddata().str());
    return charset_of(p.list);
  };
  EXPECT_EQ("big5", charset_for(950));
  EXPECT_EQ("ibm852", charset_for(852));
  EXPECT_EQ("windows-1250", charset_for(1250));
  EXPECT_EQ("windows-1258", charset_for(1258));
  EXPECT_EQ("iso-8859-8", charset_for(28598));
  EXPECT_EQ("iso-2022-jp", charset_for(50220));
  EXPECT_EQ("iso-2022-jp", charset_for(50222));
  EXPECT_EQ("csISO2022JP", charset_for(50221));
  EXPECT_EQ("utf-8", charset_for(65001));
  EXPECT_EQ("rc-6:", charset_for(1259));
  EXPECT_EQ("rc-6:", charset_for(950, 1));  // the whole 64-bit number must match
  EXPECT_EQ("rc-6:", charset_for(0));

  // Rows of the table: the end row, no name twice except iso-2022-jp.
  std::map<std::string, int> seen;
  size_t rows = 0;
  for (const OEM_CP_t* r = tnef::rg_stCharsetTable; r->unCodePage != 0; ++r, ++rows) {
    ++seen[r->pszCharset];
    EXPECT_NE(nullptr, r->pszDesc);
  }
  EXPECT_EQ(44u, rows);
  EXPECT_EQ(2, seen["iso-2022-jp"]);
  EXPECT_EQ(43u, seen.size());

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
  const char* out = s_UTF16XUTF8(static_cast<unsigned>(exact.size()), exact.data());
  ASSERT_NE(nullptr, out);
  // Words at 0, 8, 16, 24: 0x41, 0x7FE, 0x7FF, 0x10041 (low 16 bits kept).
  EXPECT_STREQ("A\xDF\xBE\xE0\x9F\xBF\xE0\x81\x81", out);
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
  for (int i = 0; i < 5000; ++i) s.renddata().attr(attAttachment, block({str8(0x3707, "n" + std::to_string(i))}));
  Parsed p(s.str());
  EXPECT_EQ(0, p.status);
  EXPECT_EQ(5000u, p.records().size());
}

// ---- the corpus ------------------------------------------------------------

// TNEF streams of the corpus (not the expected outputs beside them).
std::vector<std::string> corpus_streams() {
  std::vector<std::string> out;
  for (const auto& path : tarntest::corpus_files("tnef")) {
    const std::string rel = path.substr(tarntest::corpus_dir().size() + 6);
    if (rel.find("/expected/") != std::string::npos || rel.find("/quick-contents/") != std::string::npos) continue;
    const std::string ext = fs::path(rel).extension().string();
    if (ext == ".list" || ext == ".txt") continue;
    out.push_back(rel);
  }
  return out;
}

struct CorpusWant {
  const char* file;
  int status;
  std::vector<std::string> names;  // records with file data, in order
};

// What the reader makes of every stream of the corpus.  Where a file falls
// short of what the stream holds, the reason is a property block that the
// reader cannot follow (a class-id value read as zero bytes, a multi-valued
// short read as 2 bytes a value), which ends the parse, or attachments
// carried as embedded objects rather than as attachment data.
const CorpusWant kCorpus[] = {
    {"apache-poi/bug52400-winmail-simple.dat", -3, {}},
    {"apache-poi/bug52400-winmail-with-attachments.dat", -3, {"scion_tc_2007_maintenanceguide.pdf", "Duke_Wave.png"}},
    {"apache-poi/bug63955-winmail.dat", -3, {}},
    {"apache-poi/oom.tnef", -3, {}},
    {"apache-poi/quick-winmail.dat", 0, {"quick.doc", "quick.html", "quick.pdf", "quick.txt", "quick.xml"}},
    {"horde-compress/TnefAttachments.tnef", 0, {"hasselhoff_birthday.jpg"}},
    {"horde-compress/TnefAttachmentsMultiple.tnef", 0, {"Lighthouse.jpg", "Penguins.jpg", "Tulips.jpg"}},
    {"horde-compress/TnefMeetingRequest.tnef", -3, {}},
    {"horde-compress/tnef_vnote.tnef", 0, {"Some important task."}},
    {"horde-compress/winmail2.dat", 0, {}},
    {"ktnef/mapi_attach_data_obj.tnef", -3, {}},
    {"ktnef/umlaut-filename.tnef", 0, {"d\xF6" "cument.pdf"}},
    {"mimekit/attachments.tnef", 0, {"zappa_av1.jpg", "bookmark.htm"}},
    {"mimekit/christmas.tnef", 0, {"kitten-playing-with-a-christmas-tree.jpg", "Build a train table", "Christmas Celebration!"}},
    {"mimekit/panic.tnef", -3, {}},
    {"mimekit/winmail.tnef", 0, {}},
    {"node-tnef/badchecksum.dat", 0, {"zappa_av1.jpg", "bookmark.htm"}},
    {"pytnef/winmail-1.dat", 0, {}},
    {"roundcube/winmail-10193.tnef", -4, {}},
    {"tnefdecoder/invalid-checksum.tnef", -3, {}},
    {"tnefparse/IPM-DistList.tnef", -3, {"Untitled Attachment"}},
    {"tnefparse/bad_checksum.tnef", -3, {"image001.png"}},
    {"tnefparse/duplicate_filename.tnef", -3, {}},
    {"tnefparse/minimal_attachment.tnef", -3, {}},
    {"tnefparse/umlaut.tnef", 0, {"TBZ PARIV GmbH.jpg", "image003.jpg", "UmlautAnhang-\xE4\xFC\xF6.txt"}},
    {"verdammelt-tnef/MAPI_ATTACH_DATA_OBJ.tnef", 0, {}},
    {"verdammelt-tnef/MAPI_OBJECT.tnef", 0, {}},
    {"verdammelt-tnef/body.tnef", 0, {}},
    {"verdammelt-tnef/data-before-name.tnef", 0, {"AUTOEXEC.BAT", "CONFIG.SYS", "boot.ini"}},
    {"verdammelt-tnef/garbage-at-end.tnef", -3, {}},
    {"verdammelt-tnef/long-filename.tnef", 0, {"allproductsmar2000.dat"}},
    {"verdammelt-tnef/missing-filenames.tnef", 0, {"generpts.src", "TechlibDEC99.doc", "TechlibDEC99-JAN00.doc", "TechlibNOV99.doc"}},
    {"verdammelt-tnef/multi-name-property.tnef", 0, {}},
    {"verdammelt-tnef/multi-value-attribute.tnef", -4, {}},
    {"verdammelt-tnef/one-file.tnef", 0, {"AUTHORS"}},
    {"verdammelt-tnef/rtf.tnef", 0, {}},
    {"verdammelt-tnef/triples.tnef", 0, {}},
    {"verdammelt-tnef/two-files.tnef", 0, {"AUTHORS", "README"}},
    {"verdammelt-tnef/unicode-mapi-attr-name.tnef", 0, {"spaconsole2.cfg", "image001.png", "image002.png", "image003.png"}},
    {"verdammelt-tnef/unicode-mapi-attr.tnef", 0, {"example.dat"}},
    {"ytnef/ytnef-oob-TNEFVersion-SwapWord", 0, {}},
};

TEST(TnefCorpus, EveryStreamGivesItsNamesAndStatus) {
  if (!corpus_present()) GTEST_SKIP() << "no corpus";
  std::set<std::string> listed;
  for (const auto& want : kCorpus) {
    SCOPED_TRACE(want.file);
    listed.insert(want.file);
    Parsed p(tarntest::read_file(corpus_tnef(want.file)));
    EXPECT_EQ(want.status, p.status);
    EXPECT_EQ(want.names, names(p));
  }
  // Every stream of the corpus is in the table.
  for (const auto& rel : corpus_streams()) EXPECT_EQ(1u, listed.count(rel)) << rel;
}

TEST(TnefCorpus, CodePagesAndUnicodeNames) {
  if (!corpus_present()) GTEST_SKIP() << "no corpus";
  Parsed gb(tarntest::read_file(corpus_tnef("mimekit/winmail.tnef")));
  ASSERT_NE(nullptr, gb.list);
  EXPECT_EQ("gb2312", charset_of(gb.list));
  Parsed cyr(tarntest::read_file(corpus_tnef("verdammelt-tnef/triples.tnef")));
  ASSERT_NE(nullptr, cyr.list);
  EXPECT_EQ("windows-1251", charset_of(cyr.list));

  Parsed uni(tarntest::read_file(corpus_tnef("verdammelt-tnef/unicode-mapi-attr-name.tnef")));
  for (TNEF_Attach* rec : uni.records()) {
    if (rec->pvFileData == nullptr) continue;
    int utf8 = -1;
    name_of(rec, &utf8);
    EXPECT_EQ(1, utf8);  // the long names are UTF-16
    EXPECT_EQ("windows-1252", charset_of(rec));
  }
  Parsed ansi(tarntest::read_file(corpus_tnef("apache-poi/quick-winmail.dat")));
  int utf8 = -1;
  EXPECT_EQ("quick.html", name_of(ansi.records().at(2), &utf8));
  EXPECT_EQ(0, utf8);
  EXPECT_STREQ("QUICK~1.HTM", ansi.records().at(2)->pszFileName);
}

// The expected extracted files that come with the corpus.  Their text
// files were stored with LF line ends where the streams hold CR LF; those
// are compared with the stream's CR LF pairs made LF.
TEST(TnefCorpus, FileBytesMatchTheExpectedFiles) {
  if (!corpus_present()) GTEST_SKIP() << "no corpus";
  struct Want {
    const char* stream;
    const char* dir;
    std::vector<std::string> exact, crlf_stored_as_lf;
  };
  const Want wants[] = {
      {"apache-poi/quick-winmail.dat", "apache-poi/quick-contents",
       {"quick.doc", "quick.html", "quick.pdf", "quick.txt", "quick.xml"}, {}},
      {"mimekit/attachments.tnef", "mimekit/expected/attachments", {"zappa_av1.jpg"}, {"bookmark.htm"}},
      {"mimekit/christmas.tnef", "mimekit/expected/christmas", {"kitten-playing-with-a-christmas-tree.jpg"}, {}},
      {"verdammelt-tnef/data-before-name.tnef", "mimekit/expected/data-before-name",
       {"AUTOEXEC.BAT", "CONFIG.SYS"}, {"boot.ini"}},
      {"verdammelt-tnef/long-filename.tnef", "mimekit/expected/long-filename", {}, {"allproductsmar2000.dat"}},
      {"verdammelt-tnef/missing-filenames.tnef", "mimekit/expected/missing-filenames",
       {"TechlibDEC99-JAN00.doc", "TechlibDEC99.doc", "TechlibNOV99.doc", "generpts.src"}, {}},
      {"verdammelt-tnef/one-file.tnef", "mimekit/expected/one-file", {"AUTHORS"}, {}},
      {"verdammelt-tnef/two-files.tnef", "mimekit/expected/two-files", {"AUTHORS", "README"}, {}},
      {"verdammelt-tnef/unicode-mapi-attr.tnef", "mimekit/expected/unicode-mapi-attr", {"example.dat"}, {}},
      {"verdammelt-tnef/unicode-mapi-attr-name.tnef", "mimekit/expected/unicode-mapi-attr-name",
       {"image001.png", "image002.png", "image003.png"}, {"spaconsole2.cfg"}},
  };
  auto lf = [](std::string s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i)
      if (!(s[i] == '\r' && i + 1 < s.size() && s[i + 1] == '\n')) out += s[i];
    return out;
  };
  for (const auto& w : wants) {
    SCOPED_TRACE(w.stream);
    Parsed p(tarntest::read_file(corpus_tnef(w.stream)));
    std::map<std::string, std::string> got;
    for (auto& [name, bytes] : p.files()) got[name] = bytes;
    for (const auto& name : w.exact) {
      ASSERT_EQ(1u, got.count(name)) << name;
      EXPECT_TRUE(got[name] == tarntest::read_file(corpus_tnef(std::string(w.dir) + "/" + name))) << name;
    }
    for (const auto& name : w.crlf_stored_as_lf) {
      ASSERT_EQ(1u, got.count(name)) << name;
      const std::string expected = tarntest::read_file(corpus_tnef(std::string(w.dir) + "/" + name));
      EXPECT_NE(expected, got[name]) << name;  // the stream really holds CR LF
      EXPECT_TRUE(lf(got[name]) == expected) << name;
    }
  }
}

// ---- against the Debian tnef unpacker ---------------------------------------

bool have_tnef() { return std::system("command -v tnef >/dev/null 2>&1") == 0; }

std::string shell_quote(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// What tnef extracts, by name; a name that tnef numbered because an
// earlier file had it (NAME.1, NAME.2) counts under NAME.
std::multimap<std::string, std::string> tnef_extract(const std::string& stream, const fs::path& dir) {
  fs::remove_all(dir);
  fs::create_directories(dir);
  const std::string cmd = "tnef --number-backups --ignore-checksum -C " + shell_quote(dir.string()) + " -f " +
                          shell_quote(stream) + " >/dev/null 2>&1";
  const int rc = std::system(cmd.c_str());
  (void)rc;  // tnef gives up on some of the damaged streams; what it wrote counts
  std::set<std::string> present;
  for (const auto& e : fs::directory_iterator(dir)) present.insert(e.path().filename().string());
  std::multimap<std::string, std::string> out;
  for (const auto& name : present) {
    std::string key = name;
    const size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot + 1 < name.size() &&
        name.find_first_not_of("0123456789", dot + 1) == std::string::npos && present.count(name.substr(0, dot)))
      key = name.substr(0, dot);
    out.emplace(key, tarntest::read_file((dir / name).string()));
  }
  fs::remove_all(dir);
  return out;
}

// The differences between the reader's files and tnef's, one line each:
// "only-tnef NAME", "only-reader NAME", "renamed READER -> TNEF" (same
// bytes), "bytes NAME" (same name, other bytes).
std::multiset<std::string> differences(std::multimap<std::string, std::string> mine,
                                       std::multimap<std::string, std::string> theirs) {
  std::multiset<std::string> out;
  auto take_pairs = [&](auto same) {
    for (auto m = mine.begin(); m != mine.end();) {
      auto t = std::find_if(theirs.begin(), theirs.end(), [&](const auto& x) { return same(*m, x); });
      if (t == theirs.end()) {
        ++m;
        continue;
      }
      if (m->first != t->first) out.insert("renamed " + m->first + " -> " + t->first);
      else if (m->second != t->second) out.insert("bytes " + m->first);
      theirs.erase(t);
      m = mine.erase(m);
    }
  };
  take_pairs([](const auto& a, const auto& b) { return a.first == b.first && a.second == b.second; });
  take_pairs([](const auto& a, const auto& b) { return a.second == b.second; });
  take_pairs([](const auto& a, const auto& b) { return a.first == b.first; });
  for (const auto& [name, bytes] : mine) out.insert("only-reader " + name);
  for (const auto& [name, bytes] : theirs) out.insert("only-tnef " + name);
  return out;
}

// tests/data/tnef/diff_exceptions.tsv: stream, difference, reason; a
// difference met twice is listed twice.
std::map<std::string, std::multiset<std::string>> load_exceptions() {
  std::map<std::string, std::multiset<std::string>> out;
  std::istringstream in(tarntest::read_file(tarntest::testdata_dir() + "/tnef/diff_exceptions.tsv"));
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    const size_t t1 = line.find('\t'), t2 = line.find('\t', t1 + 1);
    EXPECT_NE(std::string::npos, t2) << "stream, difference and reason: " << line;
    if (t2 == std::string::npos) continue;
    EXPECT_LT(t2 + 1, line.size()) << "no reason given: " << line;
    out[line.substr(0, t1)].insert(line.substr(t1 + 1, t2 - t1 - 1));
  }
  return out;
}

TEST(TnefDiff, SameFilesAsTheTnefUnpacker) {
  if (!have_tnef()) GTEST_SKIP() << "tnef is not installed";
  if (!corpus_present()) GTEST_SKIP() << "no corpus";
  auto exceptions = load_exceptions();
  const fs::path work = fs::path(testing::TempDir()) / ("tnef_diff_" + std::to_string(::getpid()));
  size_t compared = 0, agreeing_files = 0;
  for (const auto& rel : corpus_streams()) {
    SCOPED_TRACE(rel);
    Parsed p(tarntest::read_file(corpus_tnef(rel)));
    std::multimap<std::string, std::string> mine;
    for (auto& [name, bytes] : p.files()) mine.emplace(name, bytes);
    auto theirs = tnef_extract(corpus_tnef(rel), work);
    const auto diff = differences(mine, theirs);
    std::string shown;
    for (const auto& d : diff) shown += rel + "\t" + d + "\n";
    EXPECT_EQ(exceptions[rel], diff) << shown;
    exceptions.erase(rel);
    // Each of the reader's files that tnef does not give byte for byte
    // under the same name makes exactly one of these lines.
    size_t unmatched = 0;
    for (const auto& d : diff) unmatched += d.rfind("only-tnef ", 0) != 0;
    agreeing_files += mine.size() - unmatched;
    ++compared;
  }
  for (const auto& [rel, diffs] : exceptions) ADD_FAILURE() << "exception for a stream not in the corpus: " << rel;
  EXPECT_EQ(41u, compared);
  EXPECT_EQ(34u, agreeing_files);
}

// ---- damaged streams ---------------------------------------------------------

// Every pointer a record hands out lies inside the input, with its length;
// the name and charset calls stay inside their buffers.
void check_records(const Parsed& p) {
  const size_t size = p.buf.size();
  auto inside = [&](const void* ptr, uint64_t len) {
    if (ptr == nullptr) return true;
    const size_t off = p.offset(ptr);
    return off <= size && len <= size - off;
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
      ASSERT_LT(std::strlen(name), 40u);
      ASSERT_EQ('X', name[40]);
    }
    char cs[8];
    MLC_TNEFCharset(rec, cs, sizeof cs);
    ASSERT_LT(std::strlen(cs), sizeof cs);
  }
}

const char* const kSmallStreams[] = {
    "verdammelt-tnef/two-files.tnef", "verdammelt-tnef/data-before-name.tnef",
    "verdammelt-tnef/unicode-mapi-attr.tnef", "ktnef/umlaut-filename.tnef", "horde-compress/tnef_vnote.tnef",
};

TEST(TnefDamage, EveryTruncation) {
  if (!corpus_present()) GTEST_SKIP() << "no corpus";
  for (const char* file : kSmallStreams) {
    SCOPED_TRACE(file);
    const std::string full = tarntest::read_file(corpus_tnef(file));
    Parsed whole(full);
    const auto all = whole.files();
    size_t last_files = 0;
    for (size_t len = 0; len < full.size(); ++len) {
      Parsed p(full.substr(0, len));
      check_records(p);
      if (len < 4) {
        ASSERT_EQ(-2, p.status) << len;
      } else {
        ASSERT_TRUE(p.status == 0 || p.status == -3) << len << ": " << p.status;
      }
      // A cut stream yields a prefix of the whole stream's files.
      const auto got = p.files();
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
  const char* const files[] = {"verdammelt-tnef/two-files.tnef", "verdammelt-tnef/unicode-mapi-attr-name.tnef",
                               "ktnef/umlaut-filename.tnef", "horde-compress/tnef_vnote.tnef",
                               "verdammelt-tnef/data-before-name.tnef", "apache-poi/quick-winmail.dat"};
  std::map<int, int> statuses;
  for (const char* file : files) {
    SCOPED_TRACE(file);
    const std::string orig = tarntest::read_file(corpus_tnef(file));
    for (int round = 0; round < 600; ++round) {
      std::string s = orig;
      const int flips = 1 + static_cast<int>(rng() % 8);
      for (int f = 0; f < flips; ++f) s[rng() % s.size()] ^= static_cast<char>(1u << (rng() % 8));
      if (round % 3 == 0) {  // a lying count or length: a whole word set high
        const size_t at = rng() % (s.size() - 4);
        const uint32_t v = (rng() % 2) ? 0xFFFFFFFFu : (rng() | 0x80000000u);
        std::memcpy(&s[at], le32(v).data(), 4);
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
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::stoul(line.substr(6));
  return 0;
}

TEST(TnefDamage, TenMebibytesOfHugeCounts) {
  constexpr size_t kBody = 10u << 20;
  const std::string zeros(kBody, '\0');
  const std::string guid(16, 'g');
  struct Case {
    const char* what;
    std::string props;
  };
  const Case cases[] = {
      {"property count", le32(0xFFFFFFFF) + zeros},
      {"empty multi-values", le32(0xFFFFFFFF) + tag(1, 0x1001) + le32(0xFFFFFFFF) + zeros},
      {"empty multi-values within the budget", le32(0xFFFFFFFF) + tag(1, 0x1001) + le32(kBody / 4) + tag(2, 0x1048) +
                                                   le32(kBody / 4) + zeros},
      {"long multi-values", le32(0xFFFFFFFF) + tag(1, 0x1003) + le32(0xFFFFFFFF) + zeros},
      {"string values", le32(0xFFFFFFFF) + tag(1, 0x101F) + le32(0x7FFFFFFF) + zeros},
      {"names", le32(0xFFFFFFFF) + tag(0x8001, 3) + guid + le32(0xFFFFFFFF) + zeros},
  };
  const size_t rss_before = peak_rss_kib();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Stream s;
    s.attr(attMsgProps, c.props).renddata().data("after");
    Parsed p(s.str());
    EXPECT_EQ(-3, p.status);
    ASSERT_NE(nullptr, p.list);
    EXPECT_LE(p.list->stMAPI.unCount, c.props.size() / 4);
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
