// Address parsing: MLG_FromParse, MEML_FromParse, local part and domain,
// address order.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tarnmail.h"
#include "tarnmail/address.h"

namespace {

struct Parsed {
  int rc;
  std::string email;
  std::string nick;
};

// Input and both outputs live in heap blocks of exactly their sizes, so any
// byte read or written past them trips the address sanitizer.
Parsed parse(std::string_view from, int charset = MIME_CS_UTF8, int email_size = 256,
             int nick_size = 256) {
  auto in = std::make_unique<char[]>(from.size() + 1);
  std::memcpy(in.get(), from.data(), from.size());
  in[from.size()] = '\0';
  auto email = std::make_unique<char[]>(static_cast<size_t>(email_size));
  auto nick = std::make_unique<char[]>(static_cast<size_t>(nick_size));
  int rc = MLG_FromParse(in.get(), email.get(), email_size, nick.get(), nick_size, charset);
  EXPECT_EQ(std::string_view(in.get(), from.size()), from) << "the caller's value is not written";
  return {rc, email.get(), nick.get()};
}

struct Split {
  const char* from;
  int charset;
  const char* email;
  const char* nick;
};

constexpr int U8 = MIME_CS_UTF8;
constexpr Split kSplits[] = {
    // "nick <addr>": the last "<" decides, and only when the value ends with ">".
    {"\"Joe \\\"J\\\" Doe\" <joe@x>", U8, "joe@x", "Joe \"J\" Doe"},
    {" \t Joe <joe@x> \r\n", U8, "joe@x", "Joe"},
    {"Joe  <joe@x>", U8, "joe@x", "Joe "},  // only one blank goes
    {"<joe@x>", U8, "joe@x", ""},
    {"(Joe Doe) <joe@x>", U8, "joe@x", "Joe Doe"},
    {"\"Joe\" Smith <joe@x>", U8, "joe@x", "Joe"},  // the closing quote ends the nick
    {"\"Joe\\ <joe@x>", U8, "joe@x", "Joe"},       // a trailing backslash escapes nothing
    {"\"Joe\\<joe@x>", U8, "joe@x", "Joe"},
    {"Joe <a@b> <c@d>", U8, "c@d", "Joe <a@b>"},
    {"Joe <joe@x> extra", U8, "Joe <joe@x> extra", ""},
    // Decoded nicknames, and quotes that only show after decoding.
    {"=?utf-8?Q?J=C3=B6rg?= <j@x>", U8, "j@x", "J\xC3\xB6rg"},
    {"=?big5?B?pKSk5Q==?= <a@b>", MIME_CS_BIG5, "a@b", "\xA4\xA4\xA4\xE5"},
    {"=?utf-8?Q?=22Joe=22?= <j@x>", U8, "j@x", "Joe"},
    {"j@x (=?utf-8?Q?=22Joe=22?=)", U8, "j@x", "Joe"},
    {"=?utf-8?Q?=22?= <j@x>", U8, "j@x", "\""},  // one lone quote stays
    // "addr (nick)": the byte before the first "(" is cut whatever it is.
    {"joe@x (Joe)", U8, "joe@x", "Joe"},
    {"a@b.c(Nick)", U8, "a@b.", "Nick"},
    {"joe@x (\"Joe \\\"J\\\"\")", U8, "joe@x", "Joe \"J\""},
    {"joe@x (\"Joe)", U8, "joe@x", "Joe"},
    {"joe@x (a) (b)", U8, "joe@x", "a) (b"},
    {"joe@x)", U8, "joe@x", ""},
    {"(Nick)", U8, "(Nick", "Nick"},
    {"joe@x", U8, "joe@x", ""},
    {"   ", U8, "", ""},
    // Multibyte characters move whole, their trail bytes unseen: Big5 0x5C,
    // Shift_JIS lead bytes only, UTF-8 by the lead byte's leading ones, and
    // Korean pairs every high byte.  Single-byte text sees the escapes.
    {"\"\xA5\x5C\" <a@b>", MIME_CS_BIG5, "a@b", "\xA5\x5C"},
    {"\"\xA5\x5C\" <a@b>", MIME_CS_NONE, "a@b", "\xA5\""},
    {"a@b (\"\x95\x5C\xB1\\\"\")", MIME_CS_ISO2022JP, "a@b", "\x95\x5C\xB1\""},
    {"\"\xF8\\\"ab\" <a@b>", U8, "a@b", "\xF8\\\"ab"},
    {"\"\xF8\\\"ab\" <a@b>", MIME_CS_NONE, "a@b", "\xF8\"ab"},
    {"(\xB0\x29x) <a@b>", MIME_CS_EUCKR, "a@b", "\xB0\x29x"},
    {"(\xB0\x29x) <a@b>", MIME_CS_NONE, "a@b", "\xB0"},
    // A lead byte at the end of the quoted text moves only what is there.
    {"\"ab\xA5 <a@b>", MIME_CS_BIG5, "a@b", "ab\xA5"},
    {"\"ab\xA5<a@b>", MIME_CS_BIG5, "a@b", "ab\xA5"},
    {"a@b (\"x\xF8)", U8, "a@b", "x\xF8"},
};

TEST(FromParse, SplitsNickAndAddress) {
  for (const Split& c : kSplits) {
    Parsed p = parse(c.from, c.charset);
    EXPECT_EQ(p.rc, 0) << c.from;
    EXPECT_EQ(p.email, c.email) << c.from;
    EXPECT_EQ(p.nick, c.nick) << c.from;
  }
}

TEST(FromParse, LongValuesStayInBounds) {
  // Over 2 KiB the value is parsed in a heap block of its own size, which a
  // walk past the bound would leave: a lead byte right at the end.
  Parsed p = parse("a@b (\"" + std::string(5000, 'x') + "\xF8)", U8, 16, 8192);
  EXPECT_EQ(p.email, "a@b");
  EXPECT_EQ(p.nick, std::string(5000, 'x') + "\xF8");
  // 100,000 addresses in one value: the last "<" and the first "(" decide.
  std::string list;
  for (int i = 0; i < 100000; ++i) list += "u" + std::to_string(i) + "@x.org, ";
  p = parse(list + "Last <last@x.org>", U8, 64, 64);
  EXPECT_EQ(p.email, "last@x.org");
  EXPECT_EQ(p.nick, list.substr(0, 63));
  p = parse(list + "(Last)", U8, 64, 64);
  EXPECT_EQ(p.email, list.substr(0, 63));
  EXPECT_EQ(p.nick, "Last");
  // 1 MiB of escapes and of Big5 lead bytes.
  p = parse("\"" + std::string(1 << 20, '\\') + "\" <a@b>", MIME_CS_BIG5, 64, 64);
  EXPECT_EQ(p.nick, std::string(63, '\\'));
  p = parse("a@b (\"" + std::string(1 << 20, '\xA4') + ")", MIME_CS_BIG5, 64, 64);
  EXPECT_EQ(p.nick, std::string(62, '\xA4'));
}

TEST(FromParse, ArgumentsAndBoundedCopies) {
  char email[16] = "junk", nick[16] = "junk";
  EXPECT_EQ(MLG_FromParse(nullptr, email, 16, nick, 16, 0), -2);
  EXPECT_STREQ(email, "");
  EXPECT_STREQ(nick, "");
  EXPECT_EQ(MLG_FromParse("", email, 16, nick, 16, 0), -2);
  EXPECT_EQ(MLG_FromParse("a@b", nullptr, 16, nick, 16, 0), -2);
  EXPECT_EQ(MLG_FromParse("a@b", email, 16, nullptr, 16, 0), -2);
  EXPECT_EQ(MEML_FromParse("\"\xA5\x5C\" <a@b>", email, 16, nick, 16), 0);  // Big5
  EXPECT_STREQ(nick, "\xA5\x5C");

  struct Cut {
    const char* from;
    int charset, email_size, nick_size;
    const char *email, *nick;
  };
  const Cut cuts[] = {
      {"Joe <joe@x>", U8, 1, 1, "", ""},
      {"Joe <joe@x>", U8, 6, 4, "joe@x", "Joe"},  // exact fits
      {"Joe <joe@x>", U8, 5, 3, "joe@", "Jo"},
      {"\xA4\xA4\xA4\xE5 <a@b>", MIME_CS_BIG5, 8, 4, "a@b", "\xA4\xA4"},  // whole characters only
      {"\xA4\xA4\xA4\xE5 <a@b>", MIME_CS_NONE, 8, 4, "a@b", "\xA4\xA4\xA4"},
      {"=?utf-8?Q?abc?= <a@b>", U8, 8, 12, "a@b", "a"},  // cut first, then decoded
  };
  for (const Cut& c : cuts) {
    Parsed p = parse(c.from, c.charset, c.email_size, c.nick_size);
    EXPECT_EQ(p.email, c.email) << c.from << " " << c.email_size;
    EXPECT_EQ(p.nick, c.nick) << c.from << " " << c.nick_size;
  }
  char canary[2] = {'x', 'y'};  // size 0 writes nothing
  EXPECT_EQ(MLG_FromParse("Joe <joe@x>", canary, 0, canary + 1, 0, 0), 0);
  EXPECT_EQ(std::string(canary, 2), "xy");
}

TEST(AddressParts, LocalPartAndDomain) {
  struct Part {
    const char* email;
    int size;
    const char *id, *domain;
  };
  const Part parts[] = {
      {"joe@x.org", 16, "joe", "x.org"}, {"a@b@c.org", 16, "a@b", "c.org"},  // the last "@" splits
      {"nobody", 16, "nobody", ""},      {nullptr, 16, "", ""},
      {"joe@x.org", 1, "", ""},          {"joe@x.org", 4, "joe", "x.o"},
      {"joe@x.org", 6, "joe", "x.org"},  {"nobody", 3, "no", ""},
  };
  for (const Part& c : parts) {
    auto id = std::make_unique<char[]>(static_cast<size_t>(c.size));
    auto domain = std::make_unique<char[]>(static_cast<size_t>(c.size));
    EXPECT_EQ(MEML_IDGet(c.email, id.get(), c.size), 0);
    EXPECT_EQ(MEML_DomainGet(c.email, domain.get(), c.size), 0);
    EXPECT_STREQ(id.get(), c.id) << c.size;
    EXPECT_STREQ(domain.get(), c.domain) << c.size;
  }
  EXPECT_EQ(MEML_IDGet("a@b", nullptr, 16), -2);
  EXPECT_EQ(MEML_DomainGet("a@b", nullptr, 16), -2);
}

TEST(AddressParts, DomainWithDefault) {
  const char* deflt = "home.org";
  char buf[16];
  EXPECT_EQ(MEML_DomainGet_s("joe@x.org", deflt, buf, sizeof buf), buf);
  EXPECT_STREQ(buf, "x.org");
  EXPECT_EQ(MEML_DomainGet_s("joe@", deflt, buf, sizeof buf), deflt);
  EXPECT_STREQ(buf, "home.org");
  EXPECT_EQ(MEML_DomainGet_s("joe", deflt, buf, 5), deflt);
  EXPECT_STREQ(buf, "home");
  EXPECT_EQ(MEML_DomainGet_s("joe", nullptr, buf, sizeof buf), nullptr);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(MEML_DomainGet_s("joe@x.org", deflt, buf, 1), buf);  // too small, still the buffer
  EXPECT_STREQ(buf, "");

  char* s = MEML_DomainGet_s("joe@x.org", deflt, nullptr, 0);  // one static buffer
  ASSERT_NE(s, nullptr);
  EXPECT_STREQ(s, "x.org");
  EXPECT_EQ(MEML_DomainGet_s("ann@z.com", deflt, buf, 0), s);  // size 0 is no buffer
  EXPECT_STREQ(s, "z.com");
  EXPECT_EQ(MEML_DomainGet_s("joe", deflt, nullptr, 0), deflt);
  EXPECT_EQ(MEML_DomainGet_s(("a@" + std::string(600, 'd')).c_str(), deflt, nullptr, 0), s);
  EXPECT_EQ(std::string(s), std::string(511, 'd'));
}

TEST(AddressOrder, CmpAndDCmp) {
  EXPECT_EQ(MEML_Cmp("A@X", "a@x", 0), 0);
  EXPECT_LT(MEML_Cmp("A@X", "a@x", 1), 0);
  EXPECT_EQ(MEML_Cmp("joe@X.org", "joe@x.ORG", 1), 0);  // domains never with case
  EXPECT_EQ(MEML_Cmp("b@x", "abcd@x", 0), -3);          // local parts: length first
  EXPECT_EQ(MEML_Cmp("a@b@c", "x@c", 0), 2);
  EXPECT_EQ(MEML_Cmp("Nobody", "nobody", 0), 0);
  EXPECT_EQ(MEML_Cmp(nullptr, "a@b", 0), -1);
  EXPECT_EQ(MEML_DCmp("a@X.org", "bb@x.ORG"), 0);
  EXPECT_EQ(MEML_DCmp(nullptr, "other"), 0);

  const std::vector<std::string> list = {"joe@b.org", "Bob@a.org", "al@a.org", "x",     "bob@A.org",
                                         "W",         "ann@b.org", "zz@a.org", "@a.org"};
  auto sorted = [&](auto less) {
    std::vector<std::string> v = list;
    std::stable_sort(v.begin(), v.end(), less);
    return v;
  };
  using V = std::vector<std::string>;
  EXPECT_EQ(sorted([](const std::string& a, const std::string& b) { return MEML_Cmp(a.c_str(), b.c_str(), 1) < 0; }),
            (V{"W", "x", "@a.org", "al@a.org", "zz@a.org", "Bob@a.org", "bob@A.org", "ann@b.org", "joe@b.org"}));
  EXPECT_EQ(sorted([](const std::string& a, const std::string& b) { return MEML_DCmp(a.c_str(), b.c_str()) < 0; }),
            (V{"x", "W", "Bob@a.org", "al@a.org", "bob@A.org", "zz@a.org", "@a.org", "joe@b.org", "ann@b.org"}));
}

// Differential mode, driven by sh_from_diff.sh: parses one hex-encoded value
// per line of $TARN_FROM_DIFF_IN and writes "rc<TAB>hex(address)<TAB>hex(nick)"
// lines to $TARN_FROM_DIFF_OUT.
std::string unhex(std::string_view hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    out += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
  return out;
}

std::string tohex(std::string_view s) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : s) {
    out += kDigits[c >> 4];
    out += kDigits[c & 15];
  }
  return out;
}

TEST(FromDiff, ParseListedValues) {
  const char* in_path = std::getenv("TARN_FROM_DIFF_IN");
  const char* out_path = std::getenv("TARN_FROM_DIFF_OUT");
  if (in_path == nullptr || out_path == nullptr) GTEST_SKIP() << "run by sh_from_diff.sh";
  std::ifstream in(in_path);
  std::ofstream out(out_path);
  ASSERT_TRUE(in && out);
  std::string line;
  while (std::getline(in, line)) {
    const std::string from = unhex(line);
    std::vector<char> email(from.size() + 1), nick(from.size() + 1);
    const int rc = MLG_FromParse(from.c_str(), email.data(), static_cast<int>(email.size()), nick.data(),
                                 static_cast<int>(nick.size()), MIME_CS_UTF8);
    out << rc << '\t' << tohex(email.data()) << '\t' << tohex(nick.data()) << '\n';
  }
  ASSERT_TRUE(out.good());
}

}  // namespace
