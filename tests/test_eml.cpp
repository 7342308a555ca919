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

void expect_split(std::string_view from, std::string_view email, std::string_view nick,
                  int charset = MIME_CS_UTF8) {
  Parsed p = parse(from, charset);
  EXPECT_EQ(p.rc, 0) << from;
  EXPECT_EQ(p.email, email) << from;
  EXPECT_EQ(p.nick, nick) << from;
}

TEST(FromParse, NickBeforeAngleAddress) {
  expect_split("\"Joe \\\"J\\\" Doe\" <joe@x>", "joe@x", "Joe \"J\" Doe");
  expect_split("Joe Doe <joe@x>", "joe@x", "Joe Doe");
  expect_split(" \t Joe <joe@x> \r\n", "joe@x", "Joe");
  expect_split("Joe  <joe@x>", "joe@x", "Joe ");  // only one blank goes
  expect_split("Joe<joe@x>", "joe@x", "Joe");
  expect_split("<joe@x>", "joe@x", "");
  expect_split("<>", "", "");
  expect_split("(Joe Doe) <joe@x>", "joe@x", "Joe Doe");
  expect_split("\"Joe\" Smith <joe@x>", "joe@x", "Joe");  // the closing quote ends the nick
  expect_split("\"Joe <joe@x>", "joe@x", "Joe");          // unclosed quote runs to the "<"
  expect_split("\"Joe\\ <joe@x>", "joe@x", "Joe");        // a trailing backslash escapes nothing
  expect_split("\"Joe\\<joe@x>", "joe@x", "Joe");
  // The last "<" decides, and only when the value ends with ">".
  expect_split("Joe <a@b> <c@d>", "c@d", "Joe <a@b>");
  expect_split("Joe <joe@x> extra", "Joe <joe@x> extra", "");
}

TEST(FromParse, NickDecodedAndUnquotedAfterDecoding) {
  expect_split("=?utf-8?Q?J=C3=B6rg?= <j@x>", "j@x", "J\xC3\xB6rg");
  expect_split("=?big5?B?pKSk5Q==?= <a@b>", "a@b", "\xA4\xA4\xA4\xE5", MIME_CS_BIG5);
  expect_split("=?utf-8?Q?=22Joe=22?= <j@x>", "j@x", "Joe");
  expect_split("j@x (=?utf-8?Q?=22Joe=22?=)", "j@x", "Joe");
  expect_split("=?utf-8?Q?=22?= <j@x>", "j@x", "\"");  // one lone quote stays
}

TEST(FromParse, CommentForm) {
  expect_split("joe@x (Joe)", "joe@x", "Joe");
  expect_split("a@b.c(Nick)", "a@b.", "Nick");  // the byte before "(" is cut whatever it is
  expect_split("joe@x (\"Joe \\\"J\\\"\")", "joe@x", "Joe \"J\"");
  expect_split("joe@x (\"Joe)", "joe@x", "Joe");
  expect_split("joe@x (a) (b)", "joe@x", "a) (b");  // the first "(" opens the comment
  expect_split("joe@x)", "joe@x", "");
  expect_split("(Nick)", "(Nick", "Nick");
  expect_split("joe@x", "joe@x", "");
  expect_split("   ", "", "");
}

TEST(FromParse, MultibyteNicknamesAreMovedWhole) {
  // Big5 "\xA5\x5C": its trail byte is a backslash only in single-byte text.
  expect_split("\"\xA5\x5C\" <a@b>", "a@b", "\xA5\x5C", MIME_CS_BIG5);
  expect_split("\"\xA5\x5C\" <a@b>", "a@b", "\xA5\"", MIME_CS_NONE);
  // Shift_JIS (the Japanese charsets) pairs only its lead bytes.
  expect_split("a@b (\"\x95\x5C\xB1\\\"\")", "a@b", "\x95\x5C\xB1\"", MIME_CS_ISO2022JP);
  // UTF-8 moves as many bytes as the lead byte's leading ones, unseen.
  expect_split("\"\xF8\\\"ab\" <a@b>", "a@b", "\xF8\\\"ab", MIME_CS_UTF8);
  expect_split("\"\xF8\\\"ab\" <a@b>", "a@b", "\xF8\"ab", MIME_CS_NONE);
  expect_split("\"\xC3\xA9\\\\\" <a@b>", "a@b", "\xC3\xA9\\", MIME_CS_UTF8);
  // Korean and GB text pair every high byte.
  expect_split("(\xB0\x29x) <a@b>", "a@b", "\xB0\x29x", MIME_CS_EUCKR);
  expect_split("(\xB0\x29x) <a@b>", "a@b", "\xB0", MIME_CS_NONE);
  // A lead byte at the end of the quoted text moves only what is there.
  expect_split("\"ab\xA5 <a@b>", "a@b", "ab\xA5", MIME_CS_BIG5);
  expect_split("\"ab\xA5<a@b>", "a@b", "ab\xA5", MIME_CS_BIG5);
  expect_split("a@b (\"x\xF8)", "a@b", "x\xF8", MIME_CS_UTF8);
}

TEST(FromParse, LeadByteAtTheEndOfALongValue) {
  // Over 2 KiB the value is parsed in a heap block of its own size: a walk
  // past the bound would leave that block.
  std::string from = "a@b (\"" + std::string(5000, 'x') + "\xF8)";
  Parsed p = parse(from, MIME_CS_UTF8, 16, 8192);
  EXPECT_EQ(p.email, "a@b");
  EXPECT_EQ(p.nick, std::string(5000, 'x') + "\xF8");
  from = "\"" + std::string(3000, 'y') + "\xA5<a@b>";
  p = parse(from, MIME_CS_BIG5, 16, 8192);
  EXPECT_EQ(p.email, "a@b");
  EXPECT_EQ(p.nick, std::string(3000, 'y') + "\xA5");
}

TEST(FromParse, ArgumentsAndBoundedCopies) {
  char email[16] = "junk";
  char nick[16] = "junk";
  EXPECT_EQ(MLG_FromParse(nullptr, email, 16, nick, 16, 0), -2);
  EXPECT_STREQ(email, "");
  EXPECT_STREQ(nick, "");
  std::strcpy(email, "junk");
  EXPECT_EQ(MLG_FromParse("", email, 16, nick, 16, 0), -2);
  EXPECT_STREQ(email, "");
  EXPECT_EQ(MLG_FromParse("a@b", nullptr, 16, nick, 16, 0), -2);
  EXPECT_EQ(MLG_FromParse("a@b", email, 16, nullptr, 16, 0), -2);

  Parsed p = parse("Joe <joe@x>", MIME_CS_UTF8, 1, 1);
  EXPECT_EQ(p.rc, 0);
  EXPECT_EQ(p.email, "");
  EXPECT_EQ(p.nick, "");
  p = parse("Joe <joe@x>", MIME_CS_UTF8, 6, 4);  // exact fits
  EXPECT_EQ(p.email, "joe@x");
  EXPECT_EQ(p.nick, "Joe");
  p = parse("Joe <joe@x>", MIME_CS_UTF8, 5, 3);
  EXPECT_EQ(p.email, "joe@");
  EXPECT_EQ(p.nick, "Jo");
  // The nickname is cut before decoding, between whole characters of the charset.
  p = parse("\xA4\xA4\xA4\xE5 <a@b>", MIME_CS_BIG5, 8, 4);
  EXPECT_EQ(p.nick, "\xA4\xA4");
  p = parse("\xA4\xA4\xA4\xE5 <a@b>", MIME_CS_NONE, 8, 4);
  EXPECT_EQ(p.nick, "\xA4\xA4\xA4");
  p = parse("=?utf-8?Q?abc?= <a@b>", MIME_CS_UTF8, 8, 12);
  EXPECT_EQ(p.nick, "a");  // "=?utf-8?Q?a" was decoded as an unterminated word

  // Size 0 writes nothing at all.
  char canary[2] = {'x', 'y'};
  EXPECT_EQ(MLG_FromParse("Joe <joe@x>", canary, 0, canary + 1, 0, 0), 0);
  EXPECT_EQ(canary[0], 'x');
  EXPECT_EQ(canary[1], 'y');
}

TEST(FromParse, MEMLFromParseIsBig5) {
  char email[32], nick[32];
  EXPECT_EQ(MEML_FromParse("\"\xA5\x5C\" <a@b>", email, 32, nick, 32), 0);
  EXPECT_STREQ(email, "a@b");
  EXPECT_STREQ(nick, "\xA5\x5C");
  EXPECT_EQ(MEML_FromParse(nullptr, email, 32, nick, 32), -2);
}

TEST(FromParse, HugeValuesAndLongAddressLists) {
  // 100,000 addresses in one value: the last "<" and the first "(" decide.
  std::string list;
  for (int i = 0; i < 100000; ++i) list += "u" + std::to_string(i) + "@x.org, ";
  Parsed p = parse(list + "Last <last@x.org>", MIME_CS_UTF8, 64, 64);
  EXPECT_EQ(p.email, "last@x.org");
  EXPECT_EQ(p.nick, list.substr(0, 63));
  p = parse(list + "(Last)", MIME_CS_UTF8, 64, 64);
  EXPECT_EQ(p.email, list.substr(0, 63));
  EXPECT_EQ(p.nick, "Last");

  // 1 MiB of quoting, escapes and lead bytes.
  std::string big = "\"" + std::string(1 << 20, '\\') + "\" <a@b>";
  p = parse(big, MIME_CS_BIG5, 64, 64);
  EXPECT_EQ(p.email, "a@b");
  EXPECT_EQ(p.nick, std::string(63, '\\'));
  big.assign(1 << 20, '\xA4');
  p = parse("a@b (\"" + big + ")", MIME_CS_BIG5, 64, 64);
  EXPECT_EQ(p.nick, std::string(62, '\xA4'));
  p = parse(std::string(1 << 20, '<') + ">", MIME_CS_UTF8, 64, 64);
  EXPECT_EQ(p.email, "");
  EXPECT_EQ(p.nick, std::string(63, '<'));
}

TEST(AddressParts, LocalPartAndDomain) {
  char buf[16];
  EXPECT_EQ(MEML_IDGet("joe@x.org", buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "joe");
  EXPECT_EQ(MEML_IDGet("a@b@c", buf, sizeof buf), 0);  // the last "@" splits
  EXPECT_STREQ(buf, "a@b");
  EXPECT_EQ(MEML_IDGet("nobody", buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "nobody");
  EXPECT_EQ(MEML_IDGet(nullptr, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(MEML_IDGet("a@b", nullptr, 16), -2);

  EXPECT_EQ(MEML_DomainGet("a@b@c.org", buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "c.org");
  EXPECT_EQ(MEML_DomainGet("nobody", buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(MEML_DomainGet("a@b", nullptr, 16), -2);

  // Bounded copies: size 1, exact fit, one short.
  EXPECT_EQ(MEML_IDGet("joe@x", buf, 1), 0);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(MEML_IDGet("joe@x", buf, 4), 0);
  EXPECT_STREQ(buf, "joe");
  EXPECT_EQ(MEML_IDGet("joe@x", buf, 3), 0);
  EXPECT_STREQ(buf, "jo");
  EXPECT_EQ(MEML_IDGet("nobody", buf, 3), 0);
  EXPECT_STREQ(buf, "no");
  EXPECT_EQ(MEML_DomainGet("a@x.org", buf, 1), 0);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(MEML_DomainGet("a@x.org", buf, 6), 0);
  EXPECT_STREQ(buf, "x.org");
  EXPECT_EQ(MEML_DomainGet("a@x.org", buf, 5), 0);
  EXPECT_STREQ(buf, "x.or");
}

TEST(AddressParts, DomainWithDefault) {
  const char* deflt = "home.org";
  char buf[16];
  EXPECT_EQ(MEML_DomainGet_s("joe@x.org", deflt, buf, sizeof buf), buf);
  EXPECT_STREQ(buf, "x.org");
  EXPECT_EQ(MEML_DomainGet_s("joe", deflt, buf, sizeof buf), deflt);
  EXPECT_STREQ(buf, "home.org");
  EXPECT_EQ(MEML_DomainGet_s("joe@", deflt, buf, sizeof buf), deflt);
  EXPECT_STREQ(buf, "home.org");
  EXPECT_EQ(MEML_DomainGet_s("joe", nullptr, buf, sizeof buf), nullptr);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(MEML_DomainGet_s("joe", deflt, buf, 5), deflt);
  EXPECT_STREQ(buf, "home");
  // A buffer too small for the domain still answers with the buffer.
  EXPECT_EQ(MEML_DomainGet_s("joe@x.org", deflt, buf, 1), buf);
  EXPECT_STREQ(buf, "");

  // Without a buffer: one static buffer, or the default itself.
  char* s = MEML_DomainGet_s("joe@x.org", deflt, nullptr, 0);
  ASSERT_NE(s, nullptr);
  EXPECT_STREQ(s, "x.org");
  EXPECT_EQ(MEML_DomainGet_s("ann@y.net", deflt, nullptr, 0), s);
  EXPECT_STREQ(s, "y.net");
  EXPECT_EQ(MEML_DomainGet_s("joe", deflt, nullptr, 0), deflt);
  EXPECT_EQ(MEML_DomainGet_s(nullptr, nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(MEML_DomainGet_s("ann@z.com", deflt, buf, 0), s);  // size 0 is no buffer
  EXPECT_STREQ(s, "z.com");
  const std::string long_domain(600, 'd');
  EXPECT_EQ(MEML_DomainGet_s(("a@" + long_domain).c_str(), deflt, nullptr, 0), s);
  EXPECT_EQ(std::string(s), long_domain.substr(0, 511));
}

int sign(int v) { return (v > 0) - (v < 0); }

TEST(AddressOrder, CmpRules) {
  EXPECT_EQ(MEML_Cmp("A@X", "a@x", 0), 0);
  EXPECT_LT(MEML_Cmp("A@X", "a@x", 1), 0);
  EXPECT_EQ(MEML_Cmp("joe@X.org", "joe@x.ORG", 1), 0);  // domains never with case
  EXPECT_LT(MEML_Cmp("zed@a.org", "al@b.org", 0), 0);   // domain first
  EXPECT_EQ(MEML_Cmp("ab@x", "b@x", 0), 1);             // then the local part's length
  EXPECT_EQ(MEML_Cmp("b@x", "abcd@x", 0), -3);
  EXPECT_EQ(MEML_Cmp("a@b@c", "x@c", 0), 2);            // the last "@" splits
  EXPECT_LT(MEML_Cmp("abc@x", "abd@x", 0), 0);
  EXPECT_EQ(MEML_Cmp("nobody", "a@b", 0), -1);
  EXPECT_EQ(MEML_Cmp("a@b", "nobody", 1), 1);
  EXPECT_EQ(MEML_Cmp("Nobody", "nobody", 0), 0);
  EXPECT_LT(MEML_Cmp("Nobody", "nobody", 1), 0);
  EXPECT_GT(MEML_Cmp("nobodyz", "nobody", 0), 0);
  EXPECT_EQ(MEML_Cmp(nullptr, nullptr, 0), 0);
  EXPECT_EQ(MEML_Cmp(nullptr, "a@b", 0), -1);

  EXPECT_EQ(MEML_DCmp("a@X.org", "bb@x.ORG"), 0);
  EXPECT_LT(MEML_DCmp("z@a.org", "a@b.org"), 0);
  EXPECT_EQ(sign(MEML_DCmp("a@b.org", "z@a.org")), 1);
  EXPECT_EQ(MEML_DCmp("a@b", "nobody"), 1);
  EXPECT_EQ(MEML_DCmp("nobody", "a@b"), -1);
  EXPECT_EQ(MEML_DCmp("nobody", "other"), 0);
  EXPECT_EQ(MEML_DCmp(nullptr, "a@b"), -1);
}

TEST(AddressOrder, SortingAList) {
  const std::vector<std::string> list = {"joe@b.org", "Bob@a.org", "al@a.org", "x",       "bob@A.org",
                                         "W",         "ann@b.org", "zz@a.org", "@a.org"};
  std::vector<std::string> by_address = list;
  std::stable_sort(by_address.begin(), by_address.end(), [](const std::string& a, const std::string& b) {
    return MEML_Cmp(a.c_str(), b.c_str(), 1) < 0;
  });
  EXPECT_EQ(by_address, (std::vector<std::string>{"W", "x", "@a.org", "al@a.org", "zz@a.org", "Bob@a.org",
                                                  "bob@A.org", "ann@b.org", "joe@b.org"}));
  std::vector<std::string> by_domain = list;
  std::stable_sort(by_domain.begin(), by_domain.end(), [](const std::string& a, const std::string& b) {
    return MEML_DCmp(a.c_str(), b.c_str()) < 0;
  });
  EXPECT_EQ(by_domain, (std::vector<std::string>{"x", "W", "Bob@a.org", "al@a.org", "bob@A.org", "zz@a.org",
                                                 "@a.org", "joe@b.org", "ann@b.org"}));
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
