// Encoded-word decoding: MSTR_Decode, qp_code, base64_code.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <strings.h>

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

TEST(StrDecodeDigits, HexAndBase64ValuesOfEveryByte) {
  const std::string hex = "0123456789abcdefABCDEF";
  const std::string b64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (int x = -1; x <= 256; ++x) {
    const size_t h = x >= 0 && x < 256 ? hex.find(static_cast<char>(x)) : std::string::npos;
    const size_t b = x >= 0 && x < 256 ? b64.find(static_cast<char>(x)) : std::string::npos;
    if (x < 256) {
      EXPECT_EQ(qp_code(x), h == std::string::npos ? -1 : static_cast<int>(h < 16 ? h : h - 6)) << x;
    }
    EXPECT_EQ(base64_code(x), b == std::string::npos ? -1 : static_cast<int>(b)) << x;
  }
}

TEST(StrDecode, Words) {
  const std::string n126(126, 'c'), n127(127, 'c'), n300(300, 'd'), n300_cut(127, 'd');
  const struct {
    std::string in, text;
    const char* charset;  // nullptr: not looked at
  } cases[] = {
      // Untouched input; an opener that decodes nothing leaves the text but
      // still reports the name.
      {"plain subject, no words", "plain subject, no words", ""},
      {"=?x?Q?" "?=", "=?x?Q?" "?=", "x"},
      {"=?big5?B?pKSk5Q==?=", "\xa4\xa4\xa4\xe5", "big5"},
      {"=?utf-8?Q?a_b?=", "a b", "utf-8"},
      {"=?x?B?QUJD_REVG?=", "ABC DEF", nullptr},  // "_" is a space in B words too
      {"=?UTF-8?q?caf=C3=A9?=", "caf\xc3\xa9", nullptr},
      // Hex digits are not checked: a bad digit counts as -1.
      {"=?x?Q?=ZZ?=", "\xff", nullptr},
      {"=?x?Q?=z4?=", "\xf4", nullptr},
      {"=?x?Q?=4z?=", "\xff", nullptr},
      {"=?x?Q?why?_not?=", "why? not", nullptr},  // Q text keeps "?" that does not close the word
      // An unterminated word decodes to the end.
      {"=?x?Q?abc", "abc", nullptr},
      {"=?x?B?QUJDREVG", "ABCDEF", nullptr},
      {"Re: =?x?Q?a?= tail", "Re: a tail", nullptr},
      // B groups: a double quote in the third or fourth place stands alone;
      // characters outside the alphabet are written as they stand.
      {"=?x?B?QUJDQU\"QUJD?=", "ABC\"ABC", nullptr},
      {"=?x?B?QUJDQUJ\"QUJD?=", "ABC\"ABC", nullptr},
      {"=?x?B?QUJDQ!JD?=", "ABC!", nullptr},
      {"=?x?B?QUJD!UJD?=", "ABC!", nullptr},
      {"=?x?B?QUJDQU!D?=", "ABCA!", nullptr},
      {"=?x?B?QUJDQU=B?=", "ABCA\xc1", nullptr},  // padding in third place, a real character in the fourth
      // Padding at the start of a group is dropped; padding ends B mode and
      // the rest of the word is plain text.
      {"=?x?B?QUJD==?=", "ABC", nullptr},
      {"=?x?B?QQ==QUJD?=", "AQUJD", nullptr},
      {"=?NONE?B?VEVTVA=?=", "TEST?=", nullptr},  // an unpadded last group takes "?=" as its last two
      // A group cut by the terminator yields nothing.
      {"=?x?B?QUJDQ", "ABC", nullptr},
      {"=?x?B?QUJDQU", "ABC", nullptr},
      {"=?x?B?QUJDQUJ", "ABC", nullptr},
      // Blanks (spaces and folds) between words go; blanks before the first
      // decoded word stay; once a word produced output, blanks before every
      // later word go, even with plain text in between.  A tab alone is no
      // blank.
      {"=?a?Q?x?= =?a?Q?y?=", "xy", nullptr},
      {"=?a?Q?x?=   =?a?Q?y?=", "xy", nullptr},
      {"=?a?Q?x?=\n\t=?a?Q?y?=", "xy", nullptr},
      {"=?a?Q?x?=\n =?a?Q?y?=", "xy", nullptr},
      {"=?a?Q?x?= \n\t =?a?Q?y?=", "xy", nullptr},
      {"a =?a?Q?x?=", "a x", nullptr},
      {"  =?a?Q?x?=", "  x", nullptr},
      {"=?a?Q?x?= foo =?a?Q?y?=", "x fooy", nullptr},
      {"=?a?Q?x?=\t=?a?Q?y?=", "x\ty", nullptr},
      // Line breaks: one not followed by a blank ends the value; a fold
      // loses the break and a tab after it.
      {"Subject\nNext: value", "Subject", ""},
      {"=?a?Q?x?=\nNext: =?b?Q?y?=", "x", nullptr},
      {"trailing\n", "trailing", nullptr},
      {"a\n\tb", "ab", nullptr},
      {"a\n b", "a b", nullptr},
      {"a\n\t\tb", "a\tb", nullptr},
      {"a\n  b", "a  b", nullptr},
      {"=?a?Q?x\n\ty?=", "xy", nullptr},  // folding inside a word's text
      // A line break counts as output for the blank rule: after the second
      // break, blanks before a word go even though no word came yet.
      {"a\n b =?x?Q?y?=", "a b y", nullptr},
      {"a\n b\n c =?x?Q?y?=", "a b cy", nullptr},
      // Malformed openers stay as text: a charset name of 126 characters is
      // fine, 127 is not (and the name reported is cut to 127).
      {"=?" + n126 + "?Q?ok?=", "ok", n126.c_str()},
      {"=?a?Q?x?= =?" + n127 + "?Q?ok?=", "x=?" + n127 + "?Q?ok?=", n127.c_str()},
      {"=?a?Q?x?= =?" + n300 + "?Q?ok?=", "x=?" + n300 + "?Q?ok?=", n300_cut.c_str()},
      {"=?a?Q?x?= =?ut\xe9" "f?Q?a?=", "x=?ut\xe9" "f?Q?a?=", "ut"},  // a byte above 127 in the name
      {"=?a?Q?x?= =?b?X?y?=", "x=?b?X?y?=", "b"},  // a bad encoding letter
      {"=?a?Q?x?= =?b?Qy?=", "x=?b?Qy?=", nullptr},  // a letter not followed by "?"
      // The terminator inside an opener ends the call; what came before stays.
      {"=?a?Q?x?= =?abc", "x", nullptr},
      {"=?a?Q?x?= =?abc?", "x", nullptr},
      {"=?a?Q?x?= =?abc?Q", "x", nullptr},
      {"=?a?Q?xy=4", "xy", nullptr},  // Q escapes cut by the terminator
      {"=?a?Q?xy=", "xy", nullptr},
      // An ISO-2022-JP name, once seen, is the one reported.
      {"=?iso-2022-jp?B?GyRCJCIbKEI=?= =?utf-8?Q?a?=", "\x1b$B$\"\x1b(Ba", "iso-2022-jp"},
      {"=?utf-8?Q?a?= =?ISO-2022-JP?Q?b?= =?koi8-r?Q?c?=", "ab" "c", "ISO-2022-JP"},
      {"=?iso-2022-jp-2?Q?b?= =?koi8-r?Q?c?=", "bc", "iso-2022-jp-2"},
      {"=?utf-8?Q?a?= =?koi8-r?Q?c?=", "ac", "koi8-r"},
      {"=?iso-2022-j?Q?b?= =?koi8-r?Q?c?=", "bc", "koi8-r"},
  };
  for (const auto& c : cases) {
    const Result r = decode(c.in);
    EXPECT_EQ(r.text, c.text) << c.in;
    EXPECT_TRUE(c.charset == nullptr || r.charset == c.charset) << c.in << " gave the name " << r.charset;
  }
  // The static name is emptied by every call.
  EXPECT_EQ(decode("=?utf-8?Q?a?=").charset, "utf-8");
  EXPECT_EQ(decode("nothing").charset, "");
  EXPECT_EQ(MSTR_Decode(nullptr), nullptr);
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

// The fields of a message's header block as (name, value), the value with
// its folding kept and CR LF turned into LF, as the header parser leaves it.
std::vector<std::pair<std::string, std::string>> header_fields(const std::string& message) {
  std::string text;
  for (char c : message)
    if (c != '\r') text.push_back(c);
  text.resize(std::min(text.size(), text.find("\n\n")));
  std::vector<std::pair<std::string, std::string>> out;
  for (std::size_t start = 0; start < text.size();) {
    std::size_t stop = start;
    do stop = text.find('\n', stop + 1);
    while (stop != std::string::npos && stop + 1 < text.size() && (text[stop + 1] == ' ' || text[stop + 1] == '\t'));
    stop = std::min(stop, text.size());
    const std::size_t colon = text.find(':', start);
    if (colon < stop) {
      const std::size_t v = std::min(stop, text.find_first_not_of(" \t\n", colon + 1));
      out.emplace_back(text.substr(start, colon - start), text.substr(v, stop - v));
    }
    start = stop + 1;
  }
  return out;
}

// The value of the first field `name` (any case) of a corpus message.
std::string header_value(const std::string& file, std::string_view name) {
  for (const auto& [field, value] : header_fields(tarntest::read_file(tarntest::corpus_dir() + "/mime/" + file)))
    if (field.size() == name.size() && strncasecmp(field.data(), name.data(), name.size()) == 0) return value;
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
    const std::string value = header_value(c.file, "Subject");
    ASSERT_NE(value.find("=?"), std::string::npos) << c.file;
    Result r = decode(value);
    EXPECT_EQ(r.text, c.text) << c.file;
    EXPECT_EQ(r.charset, c.charset) << c.file;
  }
  // Where the blank rules part ways with the reference decoder.
  EXPECT_EQ(decoded(header_value("mail-gem/plain_emails/raw_email_with_partially_quoted_subject.eml", "Subject")),
            "Re: Test: \"\xe6\xbc\xa2\xe5\xad\x97\" mid\"\xe6\xbc\xa2\xe5\xad\x97\" tail");
  EXPECT_EQ(decoded(header_value("nodemailer-mailparser/nodemailer.eml", "Subject")),
            "Nodemailer is unicode friendly \xe2\x9c\x94 (1476358788189)");
}

// Every field of every corpus message: no crash, never longer.
TEST(StrDecodeCorpus, EveryHeaderFieldStaysInBounds) {
  const std::vector<std::string> files = tarntest::corpus_files("mime");
  ASSERT_FALSE(files.empty());
  std::size_t fields = 0, changed = 0;
  for (const std::string& path : files) {
    for (auto& [name, value] : header_fields(tarntest::read_file(path))) {
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
  std::string in, expected;
  for (std::size_t words = 0; in.size() < (1u << 20); ++words) {
    in += "=?utf-8?Q?ab=3D_c?=";
    in += (words % 2 == 0) ? "\n\t" : "\n ";
    expected += "ab= c";
  }
  in += "=?utf-8?B?QUJD?=";
  expected += "ABC";
  Result r = decode(in);
  EXPECT_EQ(r.text.size(), expected.size());
  EXPECT_EQ(r.text, expected);
  EXPECT_EQ(r.charset, "utf-8");
}

}  // namespace
