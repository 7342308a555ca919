// Encoded-word decoding: MSTR_Decode, qp_code, base64_code.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support.h"
#include "tarnmail.h"

namespace {

struct Result {
  std::string text;     // the value after decoding
  std::string charset;  // the name returned
};

// Decodes a copy held in a heap block of exactly the input's size, so that
// any read or write past the terminator trips the address sanitizer.
Result decode(std::string_view in) {
  auto buf = std::make_unique<char[]>(in.size() + 1);
  std::memcpy(buf.get(), in.data(), in.size());
  buf[in.size()] = '\0';
  const char* cs = MSTR_Decode(buf.get());
  EXPECT_NE(cs, nullptr);
  return Result{std::string(buf.get()), cs != nullptr ? std::string(cs) : std::string()};
}

std::string decoded(std::string_view in) { return decode(in).text; }

TEST(StrDecodeDigits, HexAndBase64Values) {
  EXPECT_EQ(qp_code('0'), 0);
  EXPECT_EQ(qp_code('9'), 9);
  EXPECT_EQ(qp_code('a'), 10);
  EXPECT_EQ(qp_code('F'), 15);
  for (int x : std::initializer_list<int>{'g', 'G', '/', ':', '@', '`', ' ', 0, -1, 0xC1}) EXPECT_EQ(qp_code(x), -1) << x;

  EXPECT_EQ(base64_code('A'), 0);
  EXPECT_EQ(base64_code('Z'), 25);
  EXPECT_EQ(base64_code('a'), 26);
  EXPECT_EQ(base64_code('z'), 51);
  EXPECT_EQ(base64_code('0'), 52);
  EXPECT_EQ(base64_code('9'), 61);
  EXPECT_EQ(base64_code('+'), 62);
  EXPECT_EQ(base64_code('/'), 63);
  for (int x : std::initializer_list<int>{'=', '-', '_', '"', '?', 0, -1, 256, 0xC1}) EXPECT_EQ(base64_code(x), -1) << x;
  int valid = 0;
  for (int x = 0; x < 256; ++x) valid += base64_code(x) >= 0;
  EXPECT_EQ(valid, 64);
}

TEST(StrDecode, NullAndUntouchedInput) {
  EXPECT_EQ(MSTR_Decode(nullptr), nullptr);

  Result r = decode("plain subject, no words");
  EXPECT_EQ(r.text, "plain subject, no words");
  EXPECT_EQ(r.charset, "");

  // An opener that decodes nothing leaves the text as it was, but the name
  // is still reported.
  r = decode("=?x?Q?" "?=");
  EXPECT_EQ(r.text, "=?x?Q?" "?=");
  EXPECT_EQ(r.charset, "x");

  // The static name is emptied by every call.
  EXPECT_EQ(decode("=?utf-8?Q?a?=").charset, "utf-8");
  EXPECT_EQ(decode("nothing").charset, "");
}

TEST(StrDecode, QAndBWords) {
  Result r = decode("=?big5?B?pKSk5Q==?=");
  EXPECT_EQ(r.text, "\xa4\xa4\xa4\xe5");
  EXPECT_EQ(r.charset, "big5");

  EXPECT_EQ(decoded("=?utf-8?Q?a_b?="), "a b");
  EXPECT_EQ(decoded("=?x?B?QUJD_REVG?="), "ABC DEF");  // "_" is a space in B words too
  EXPECT_EQ(decoded("=?UTF-8?q?caf=C3=A9?="), "caf\xc3\xa9");
  // Hex digits are not checked: a bad digit counts as -1.
  EXPECT_EQ(decoded("=?x?Q?=ZZ?="), "\xff");
  EXPECT_EQ(decoded("=?x?Q?=z4?="), "\xf4");
  EXPECT_EQ(decoded("=?x?Q?=4z?="), "\xff");
  // Q text keeps "?" that does not close the word.
  EXPECT_EQ(decoded("=?x?Q?why?_not?="), "why? not");
  // An unterminated word decodes to the end.
  EXPECT_EQ(decoded("=?x?Q?abc"), "abc");
  EXPECT_EQ(decoded("=?x?B?QUJDREVG"), "ABCDEF");
  // Plain text around words stays.
  EXPECT_EQ(decoded("Re: =?x?Q?a?= tail"), "Re: a tail");
}

TEST(StrDecode, BQuadQuirks) {
  // A double quote in the third or fourth place stands alone.
  EXPECT_EQ(decoded("=?x?B?QUJDQU\"QUJD?="), "ABC\"ABC");
  EXPECT_EQ(decoded("=?x?B?QUJDQUJ\"QUJD?="), "ABC\"ABC");
  // Characters outside the alphabet are written as they stand.
  EXPECT_EQ(decoded("=?x?B?QUJDQ!JD?="), "ABC!");
  EXPECT_EQ(decoded("=?x?B?QUJD!UJD?="), "ABC!");
  EXPECT_EQ(decoded("=?x?B?QUJDQU!D?="), "ABCA!");
  // Padding in third place, a real character in the fourth.
  EXPECT_EQ(decoded("=?x?B?QUJDQU=B?="), "ABCA\xc1");
  // Padding at the start of a group is dropped; padding ends B mode and the
  // rest of the word is plain text.
  EXPECT_EQ(decoded("=?x?B?QUJD==?="), "ABC");
  EXPECT_EQ(decoded("=?x?B?QQ==QUJD?="), "AQUJD");
  // An unpadded last group: "?=" is taken as its last two characters.
  EXPECT_EQ(decode("=?NONE?B?VEVTVA=?=").text, "TEST?=");
  // A group cut by the terminator yields nothing.
  EXPECT_EQ(decoded("=?x?B?QUJDQ"), "ABC");
  EXPECT_EQ(decoded("=?x?B?QUJDQU"), "ABC");
  EXPECT_EQ(decoded("=?x?B?QUJDQUJ"), "ABC");
}

TEST(StrDecode, BlanksBetweenWords) {
  EXPECT_EQ(decoded("=?a?Q?x?= =?a?Q?y?="), "xy");
  EXPECT_EQ(decoded("=?a?Q?x?=   =?a?Q?y?="), "xy");
  EXPECT_EQ(decoded("=?a?Q?x?=\n\t=?a?Q?y?="), "xy");
  EXPECT_EQ(decoded("=?a?Q?x?=\n =?a?Q?y?="), "xy");
  EXPECT_EQ(decoded("=?a?Q?x?= \n\t =?a?Q?y?="), "xy");
  // Blanks before the first decoded word stay.
  EXPECT_EQ(decoded("a =?a?Q?x?="), "a x");
  EXPECT_EQ(decoded("  =?a?Q?x?="), "  x");
  // Once a word produced output, blanks before every later word go, even
  // with plain text in between.
  EXPECT_EQ(decoded("=?a?Q?x?= foo =?a?Q?y?="), "x fooy");
  // Only spaces count as blanks.
  EXPECT_EQ(decoded("=?a?Q?x?=\t=?a?Q?y?="), "x\ty");
}

TEST(StrDecode, LineBreaks) {
  Result r = decode("Subject\nNext: value");
  EXPECT_EQ(r.text, "Subject");
  EXPECT_EQ(r.charset, "");
  EXPECT_EQ(decoded("=?a?Q?x?=\nNext: =?b?Q?y?="), "x");
  EXPECT_EQ(decoded("trailing\n"), "trailing");
  EXPECT_EQ(decoded("a\n\tb"), "ab");
  EXPECT_EQ(decoded("a\n b"), "a b");
  EXPECT_EQ(decoded("a\n\t\tb"), "a\tb");
  EXPECT_EQ(decoded("a\n  b"), "a  b");
  // Folding inside the text of a word.
  EXPECT_EQ(decoded("=?a?Q?x\n\ty?="), "xy");
  // A line break counts as output for the blank rule: after the second
  // break, blanks before a word are removed even though no word came yet.
  EXPECT_EQ(decoded("a\n b =?x?Q?y?="), "a b y");
  EXPECT_EQ(decoded("a\n b\n c =?x?Q?y?="), "a b cy");
}

TEST(StrDecode, MalformedOpeners) {
  // A charset name of 126 characters is fine, 127 is not.
  const std::string n126(126, 'c');
  Result r = decode("=?" + n126 + "?Q?ok?=");
  EXPECT_EQ(r.text, "ok");
  EXPECT_EQ(r.charset, n126);

  const std::string n127(127, 'c');
  const std::string long_word = "=?a?Q?x?= =?" + n127 + "?Q?ok?=";
  r = decode(long_word);
  EXPECT_EQ(r.text, "x=?" + n127 + "?Q?ok?=");
  EXPECT_EQ(r.charset, n127);

  const std::string n300(300, 'd');
  r = decode("=?a?Q?x?= =?" + n300 + "?Q?ok?=");
  EXPECT_EQ(r.text, "x=?" + n300 + "?Q?ok?=");
  EXPECT_EQ(r.charset, std::string(127, 'd'));

  // A byte above 127 in the name.
  r = decode("=?a?Q?x?= =?ut\xe9" "f?Q?a?=");
  EXPECT_EQ(r.text, "x=?ut\xe9" "f?Q?a?=");
  EXPECT_EQ(r.charset, "ut");

  // A bad encoding letter, or a letter not followed by "?".
  r = decode("=?a?Q?x?= =?b?X?y?=");
  EXPECT_EQ(r.text, "x=?b?X?y?=");
  EXPECT_EQ(r.charset, "b");
  EXPECT_EQ(decoded("=?a?Q?x?= =?b?Qy?="), "x=?b?Qy?=");

  // The terminator inside an opener ends the call; what came before stays.
  EXPECT_EQ(decoded("=?a?Q?x?= =?abc"), "x");
  EXPECT_EQ(decoded("=?a?Q?x?= =?abc?"), "x");
  EXPECT_EQ(decoded("=?a?Q?x?= =?abc?Q"), "x");
  // Q escapes cut by the terminator.
  EXPECT_EQ(decoded("=?a?Q?xy=4"), "xy");
  EXPECT_EQ(decoded("=?a?Q?xy="), "xy");
}

TEST(StrDecode, Iso2022JpNameSticks) {
  Result r = decode("=?iso-2022-jp?B?GyRCJCIbKEI=?= =?utf-8?Q?a?=");
  EXPECT_EQ(r.text, "\x1b$B$\"\x1b(Ba");
  EXPECT_EQ(r.charset, "iso-2022-jp");
  EXPECT_EQ(decode("=?utf-8?Q?a?= =?ISO-2022-JP?Q?b?= =?koi8-r?Q?c?=").charset, "ISO-2022-JP");
  EXPECT_EQ(decode("=?iso-2022-jp-2?Q?b?= =?koi8-r?Q?c?=").charset, "iso-2022-jp-2");
  EXPECT_EQ(decode("=?utf-8?Q?a?= =?koi8-r?Q?c?=").charset, "koi8-r");
  EXPECT_EQ(decode("=?iso-2022-j?Q?b?= =?koi8-r?Q?c?=").charset, "koi8-r");
}

// Output is never longer than the input, whatever the bytes.
TEST(StrDecode, ArbitraryBytesStayInBounds) {
  static constexpr char kAlphabet[] = "=?QBqb_\"\n\t aZ09+/\xc3\xff";
  std::uint32_t seed = 12345;
  auto next = [&seed] {
    seed = seed * 1103515245u + 12345u;
    return seed >> 16;
  };
  for (int round = 0; round < 20000; ++round) {
    std::string in;
    const unsigned n = next() % 40;
    for (unsigned i = 0; i < n; ++i) in.push_back(kAlphabet[next() % (sizeof kAlphabet - 1)]);
    if (next() % 3 == 0) in.insert(next() % (in.size() + 1), "=?u?B?");
    if (next() % 3 == 0) in.insert(next() % (in.size() + 1), "=?u?Q?");
    Result r = decode(in);
    ASSERT_LE(r.text.size(), in.size()) << in;
    ASSERT_LE(r.charset.size(), 127u);
  }
}

// --- real headers ---------------------------------------------------------

bool same_name(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

// The value of the first field `name` in a message's header block, with its
// folding kept and CR LF turned into LF, as the header parser leaves it.
std::string header_value(const std::string& message, std::string_view name) {
  std::string text;
  for (char c : message)
    if (c != '\r') text.push_back(c);
  const std::size_t end = text.find("\n\n");
  if (end != std::string::npos) text.resize(end + 1);
  auto line_end = [&text](std::size_t from) {
    const std::size_t nl = text.find('\n', from);
    return nl == std::string::npos ? text.size() : nl;
  };
  for (std::size_t line = 0; line < text.size();) {
    std::size_t stop = line_end(line);
    while (stop + 1 < text.size() && (text[stop + 1] == ' ' || text[stop + 1] == '\t')) stop = line_end(stop + 1);
    const std::size_t colon = text.find(':', line);
    if (colon < stop && same_name(std::string_view(text).substr(line, colon - line), name)) {
      std::size_t v = colon + 1;
      while (v < stop && (text[v] == ' ' || text[v] == '\t' || text[v] == '\n')) ++v;
      return text.substr(v, stop - v);
    }
    line = stop + 1;
  }
  return std::string();
}

// Expected bytes: email.header.decode_header of the same values, joined.
TEST(StrDecodeCorpus, SubjectsMatchReferenceDecoder) {
  struct Case {
    const char* file;
    const char* text;
    const char* charset;
  };
  static const Case kCases[] = {
      {"postal-mime/calendar-event.eml",
       "Invitation: Test event \xe2\x8f\xb0 @ Thu Apr 11, 2024 11am - 12pm (GMT+3) (andris@ethereal.email)",
       "UTF-8"},
      {"spamassassin/nice/unicode2",
       "\xe3\x80\x90\xe9\x87\x8d\xe8\xa6\x81\xe8\xa8\x8a\xe6\x81\xaf\xe3\x80\x91\xe5\x8f\xb0\xe9\x9b\xbb"
       "105\xe5\xb9\xb4" "3\xe6\x9c\x88\xe9\x9b\xbb\xe8\xb2\xbb\xef\xbc\x8c\xe5\xa7\x94\xe8\xa8\x97\xe9\x87"
       "\x91\xe8\x9e\x8d\xe6\xa9\x9f\xe6\xa7\x8b\xe6\x89\xa3\xe7\xb9\xb3\xe6\x88\x90\xe5\x8a\x9f\xe9\x9b\xbb"
       "\xe5\xad\x90\xe7\xb9\xb3\xe8\xb2\xbb\xe6\x86\x91\xe8\xad\x89(\xe9\x9b\xbb\xe8\x99\x9f" "07487616730)",
       "UTF-8"},
      {"mimekit/messages/japanese.txt",
       "\x1b$BF|K\\8l%a!<%k%F%9%H\x1b(B (testing Japanese emails)", "ISO-2022-JP"},
      {"mime4j/mimetools-testmsgs/intl.msg",
       "If you can read this you understand the example... so, cool!", "US-ASCII"},
      {"spamassassin/nice/cjk/gb2312.2", "RE: \xd7\xb0\xd3\xb2\xb5\xfa\xce\xca\xcc\xe2", "GB2312"},
      {"php-mime-mail-parser/m0021",
       "occurs when divided into an array, and the last e of the array! \xcf\xf3\xf2\xb3\xed "
       "\xf5\xf3\xe9\xeb\xee!!!!!!",
       "windows-1251"},
      {"spamscope-mail-parser/mail_test_9",
       "\xce\xd2\xb0\xd1\xbe\xb5\xcd\xb7\xc0\xad\xbd\xfc\xd0\xa9\xa3\xac\xc4\xe3\xc3\xc7\xbf\xb4\xbf\xb4"
       "\xd5\xe2\xb8\xf6\xca\xc7\xca\xb2\xc3\xb4\x8c\xc2\xa3\xac\xd5\xe2\xd6\xd6\xb3\xa1\xba\xcf\xd7\xd4"
       "\xc8\xbb\xc9\xd9\xb2\xbb\xc1\xcb\xc4\xda\xc9\xe4",
       "gb2312"},
      {"mail-gem/rfc2822/example14.eml", "Re: TEST\x1b$B%F%9%H\x1b(B\x1b$B%F%9%H\x1b(B", "ISO-2022-JP"},
      {"thunderbird/extensions-messages/sample04.eml", "\xe1\xcc\xc6\xc1\xd7\xc9\xd4\n", "koi8-r"},
      {"spamassassin/nice/unicode1", "Doma\xe8" "e omre\xc5\xbeje", "Utf-8*SL"},
  };
  for (const Case& c : kCases) {
    const std::string path = tarntest::corpus_dir() + "/mime/" + c.file;
    const std::string value = header_value(tarntest::read_file(path), "Subject");
    ASSERT_NE(value.find("=?"), std::string::npos) << c.file;
    Result r = decode(value);
    EXPECT_EQ(r.text, c.text) << c.file;
    EXPECT_EQ(r.charset, c.charset) << c.file;
  }
}

// Where the blank rules part ways with the reference decoder.
TEST(StrDecodeCorpus, SubjectsWithOwnBlankRules) {
  const std::string quoted = header_value(
      tarntest::read_file(tarntest::corpus_dir() +
                          "/mime/mail-gem/plain_emails/raw_email_with_partially_quoted_subject.eml"),
      "Subject");
  EXPECT_EQ(decoded(quoted), "Re: Test: \"\xe6\xbc\xa2\xe5\xad\x97\" mid\"\xe6\xbc\xa2\xe5\xad\x97\" tail");
  const std::string folded = header_value(
      tarntest::read_file(tarntest::corpus_dir() + "/mime/nodemailer-mailparser/nodemailer.eml"), "Subject");
  EXPECT_EQ(decoded(folded), "Nodemailer is unicode friendly \xe2\x9c\x94 (1476358788189)");
}

// Thousands of encoded words folded into one To field (135 KB).
TEST(StrDecodeCorpus, HugeFoldedRecipientList) {
  const std::string msg = tarntest::read_file(tarntest::corpus_dir() + "/mime/mimekit/messages/stack-overflow.txt");
  const std::string value = header_value(msg, "To");
  ASSERT_GT(value.size(), 130000u);
  std::string expected = "\"test\" <test@test.com>,";
  for (int i = 0; i < 2710; ++i) expected += "date>2017-08-20T10:08:28.617</pr";
  Result r = decode(value);
  EXPECT_EQ(r.text, expected);
  EXPECT_EQ(r.charset, "utf-8");
}

// Every field of every corpus message: no crash, never longer.
TEST(StrDecodeCorpus, EveryHeaderFieldStaysInBounds) {
  const std::vector<std::string> files = tarntest::corpus_files("mime");
  ASSERT_FALSE(files.empty());
  std::size_t fields = 0, changed = 0;
  for (const std::string& path : files) {
    std::string text;
    for (char c : tarntest::read_file(path))
      if (c != '\r') text.push_back(c);
    const std::size_t end = text.find("\n\n");
    if (end != std::string::npos) text.resize(end);
    // Split into fields at line breaks not followed by folding.
    std::size_t start = 0;
    for (std::size_t i = 0; i <= text.size(); ++i) {
      const bool field_end =
          i == text.size() || (text[i] == '\n' && (i + 1 >= text.size() || (text[i + 1] != ' ' && text[i + 1] != '\t')));
      if (!field_end) continue;
      std::string field = text.substr(start, i - start);
      start = i + 1;
      const std::size_t colon = field.find(':');
      if (colon == std::string::npos) continue;
      std::string value = field.substr(colon + 1);
      value.resize(std::strlen(value.c_str()));  // stop at a stray NUL as the engine does
      Result r = decode(value);
      ASSERT_LE(r.text.size(), value.size()) << path;
      ++fields;
      changed += r.text != value;
    }
  }
  EXPECT_GT(fields, 5000u);
  EXPECT_GT(changed, 1000u);  // folded or encoded fields
}

// One MiB of encoded words joined by folds decodes in one pass (a quadratic
// decoder would not finish within the test's time limit).
TEST(StrDecodeLong, MegabyteOfFoldedWords) {
  const std::string word = "=?utf-8?Q?ab=3D_c?=";
  std::string in;
  std::size_t words = 0;
  while (in.size() < (1u << 20)) {
    in += word;
    in += (words % 2 == 0) ? "\n\t" : "\n ";
    ++words;
  }
  in += "=?utf-8?B?QUJD?=";
  Result r = decode(in);
  std::string expected;
  expected.reserve(words * 5 + 3);
  for (std::size_t i = 0; i < words; ++i) expected += "ab= c";
  expected += "ABC";
  EXPECT_EQ(r.text.size(), expected.size());
  EXPECT_EQ(r.text, expected);
  EXPECT_EQ(r.charset, "utf-8");
}

}  // namespace
