// Transfer codings of the platform layer: base64, quoted-printable and
// uuencode decoding in place, base64 encoding.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "../platform/mtx_internal.h"
#include "support.h"
#include "tarnplat.h"

namespace {

using tarnplat::mtx::B64Kernel;

using InPlace = int (*)(char*);

// Runs an in-place decoder on a terminated copy of text; checks that the
// result is terminated and returns the decoded bytes.
std::string Decode(InPlace fn, const std::string& text) {
  std::vector<char> buf(text.begin(), text.end());
  buf.push_back('\0');
  const int n = fn(buf.data());
  EXPECT_GE(n, 0);
  EXPECT_LE(static_cast<size_t>(n), text.size());
  if (n < 0 || static_cast<size_t>(n) > text.size()) return {};
  EXPECT_EQ('\0', buf[static_cast<size_t>(n)]) << "decoded bytes are not terminated";
  return std::string(buf.data(), static_cast<size_t>(n));
}

std::string B64(const std::string& text) { return Decode(MTX_Base64Dec, text); }
std::string QP(const std::string& text) { return Decode(MTX_QPDec, text); }
std::string UU(const std::string& text) { return Decode(MTX_UUDec, text); }

// Decodes with one kernel over exactly the bytes of text (NULs included).
std::string KernelDecode(B64Kernel kernel, const std::string& text) {
  std::vector<unsigned char> buf(text.begin(), text.end());
  const size_t n = tarnplat::mtx::Base64Decode(buf.data(), buf.size(), kernel);
  EXPECT_LE(n, text.size());
  return std::string(reinterpret_cast<const char*>(buf.data()), std::min(n, buf.size()));
}

// Decodes a terminated copy of text with one kernel.
std::string TerminatedDecode(B64Kernel kernel, const std::string& text) {
  std::vector<unsigned char> buf(text.begin(), text.end());
  buf.push_back('\0');
  const size_t n = tarnplat::mtx::Base64DecodeTerminated(buf.data(), kernel);
  EXPECT_LE(n, text.size());
  return std::string(reinterpret_cast<const char*>(buf.data()), std::min(n, text.size()));
}

std::vector<B64Kernel> Kernels() {
  std::vector<B64Kernel> kernels{B64Kernel::kScalar};
  for (B64Kernel k : {B64Kernel::kSsse3, B64Kernel::kAvx2}) {
    if (tarnplat::mtx::Base64KernelAvailable(k)) kernels.push_back(k);
  }
  return kernels;
}

const char* KernelName(B64Kernel k) {
  switch (k) {
    case B64Kernel::kScalar:
      return "scalar";
    case B64Kernel::kSsse3:
      return "ssse3";
    case B64Kernel::kAvx2:
      return "avx2";
  }
  return "?";
}

// Every kernel must give the scalar machine's bytes.
void ExpectKernelsAgree(const std::string& text) {
  const std::string want = KernelDecode(B64Kernel::kScalar, text);
  for (B64Kernel k : Kernels()) {
    ASSERT_EQ(want, KernelDecode(k, text)) << KernelName(k) << " on " << ::testing::PrintToString(text);
  }
  if (text.find('\0') != std::string::npos) return;
  for (B64Kernel k : Kernels()) {
    ASSERT_EQ(want, TerminatedDecode(k, text)) << KernelName(k) << " on " << ::testing::PrintToString(text);
  }
}

std::string Encode(const std::string& data, int line_len) {
  const int size = MTX_Base64EncSize(static_cast<int>(data.size()), line_len);
  EXPECT_GT(size, 0);
  std::string out(static_cast<size_t>(size), 'x');
  const int n = MTX_Base64Enc(data.data(), static_cast<int>(data.size()), out.data(), size, line_len);
  EXPECT_EQ(size - 1, n) << "the size function and the encoder disagree";
  out.resize(n < 0 ? 0 : static_cast<size_t>(n));
  return out;
}

std::string RandomBytes(std::mt19937& rng, size_t n) {
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(rng() & 0xFF);
  return s;
}

std::string Corpus(const std::string& rel) { return tarntest::read_file(tarntest::corpus_dir() + "/encodings/" + rel); }

// ---------------------------------------------------------------- base64

TEST(Base64Dec, StandardVectors) {
  EXPECT_EQ("", B64(""));
  EXPECT_EQ("f", B64("Zg=="));
  EXPECT_EQ("fo", B64("Zm8="));
  EXPECT_EQ("foo", B64("Zm9v"));
  EXPECT_EQ("foob", B64("Zm9vYg=="));
  EXPECT_EQ("fooba", B64("Zm9vYmE="));
  EXPECT_EQ("foobar", B64("Zm9vYmFy"));
  EXPECT_EQ(std::string("\xfb\xff\xbf", 3), B64("+/+/"));
  EXPECT_EQ(std::string("\0\0\0", 3), B64("AAAA"));
}

TEST(Base64Dec, SkipsLineBreaksBlanksAndJunk) {
  EXPECT_EQ("foobar", B64("Zm9v\r\nYmFy\r\n"));
  EXPECT_EQ("foobar", B64("  Zm9v  YmFy  "));
  EXPECT_EQ("foobar", B64("Z\tm-9*v\nY!m\"F.y"));
  EXPECT_EQ("foo", B64("Z\x80m9v\xff"));
  EXPECT_EQ("foo", B64("=Zm9v"));  // "=" before any character of a group counts for nothing
}

TEST(Base64Dec, PaddingEndsDecoding) {
  EXPECT_EQ("f", B64("Zg==Zm9v"));
  EXPECT_EQ("fo", B64("Zm8=\r\nYmFy"));
  EXPECT_EQ("fo", B64("Zm9=v"));
  EXPECT_EQ("f", B64("Zg=\r\n=Zm9v"));  // the two "=" may stand apart
  EXPECT_EQ("f", B64("Zm="));
  EXPECT_EQ("foobar", B64("Zm9vYmFy=="));
  // "=" before the group's second character is ignored, and a character
  // between two "=" restarts the count.
  EXPECT_EQ("foof", B64("Zm9vZ=g="));
  EXPECT_EQ("A\x04", B64("QQ=Q="));
  EXPECT_EQ(std::string("f\x06" "f\xf6"), B64("Zg=Zm9v"));
  EXPECT_EQ("ABCABC", B64("QUJD=QUJD"));
}

TEST(Base64Dec, IncompleteTail) {
  EXPECT_EQ("fooba", B64("Zm9vYmE"));
  EXPECT_EQ("fooba", B64("Zm9vYmE*"));
  EXPECT_EQ("A", B64("QQ"));
  EXPECT_EQ("AB", B64("QUI"));
  EXPECT_EQ("ABC", B64("QUJDR"));  // a lone last character gives nothing
  EXPECT_EQ("", B64("Z"));
  EXPECT_EQ("", B64("\r\n \t"));
}

TEST(Base64Dec, NulEndsTextButNotCountedText) {
  const std::string text("Zm9v\0YmFy", 9);
  EXPECT_EQ("foo", B64(text));

  std::vector<char> buf(text.begin(), text.end());
  ASSERT_EQ(6, MTX_Base64Dec2(buf.data(), 9));
  EXPECT_EQ("foobar", std::string(buf.data(), 6));
  EXPECT_EQ('\0', buf[6]);

  // Only the counted bytes are read: here the second group is outside.
  std::string two = "Zm9vYmFy";
  ASSERT_EQ(3, MTX_Base64Dec2(two.data(), 4));
  EXPECT_EQ(std::string("foo\0YmFy", 8), two);

  char untouched[1] = {'Q'};
  EXPECT_EQ(0, MTX_Base64Dec2(untouched, 0));
  EXPECT_EQ('Q', untouched[0]);
  EXPECT_EQ(0, MTX_Base64Dec2(untouched, -5));
  EXPECT_EQ(0, MTX_Base64Dec(nullptr));
  EXPECT_EQ(0, MTX_Base64Dec2(nullptr, 4));
}

TEST(Base64Dec, CorpusFiles) {
  EXPECT_EQ(Corpus("gmime/photo.jpg"), B64(Corpus("gmime/photo.b64")));
  EXPECT_EQ(Corpus("roundcube/test.pdf"), B64(Corpus("roundcube/test.base64")));
  for (B64Kernel k : Kernels()) {
    EXPECT_EQ(Corpus("gmime/photo.jpg"), KernelDecode(k, Corpus("gmime/photo.b64"))) << KernelName(k);
    EXPECT_EQ(Corpus("gmime/photo.jpg"), TerminatedDecode(k, Corpus("gmime/photo.b64"))) << KernelName(k);
  }
}

// A terminated text is read in windows: groups, line breaks and padding
// that straddle a window's end must decode as anywhere else.
TEST(Base64Kernels, LongTextsAcrossWindows) {
  std::mt19937 rng(11);
  const std::string data = RandomBytes(rng, 400000);
  for (int line_len : {0, 76}) {
    const std::string enc = Encode(data, line_len);
    for (const std::string lead : {"", "\r\n", " ", "\n\n\n"}) {
      for (B64Kernel k : Kernels()) {
        ASSERT_EQ(data, TerminatedDecode(k, lead + enc)) << KernelName(k) << " line " << line_len;
      }
    }
  }
  // Padding right at a window's end stops the decoding there.
  for (size_t at = 65530; at <= 65540; ++at) {
    std::string text(at, 'A');
    text.replace(at - 2, 2, "==");
    text += "QUJD";
    const std::string want = KernelDecode(B64Kernel::kScalar, text);
    for (B64Kernel k : Kernels()) ASSERT_EQ(want, TerminatedDecode(k, text)) << KernelName(k) << " at " << at;
  }
}

// Every byte value at every position of a vector block must be told apart
// from the alphabet exactly as the scalar tables do.
TEST(Base64Kernels, EveryByteAtEveryPosition) {
  const std::string line = "TWFueSBoYW5kcyBtYWtlIGxpZ2h0IHdvcmsuIE1hbnkgaGFuZHMgbWFrZSBsaWdodCB3b3JrLiBN";
  for (int c = 0; c < 256; ++c) {
    for (size_t pos = 0; pos < 40; ++pos) {
      std::string text = line + line;
      text[40 + pos] = static_cast<char>(c);
      ExpectKernelsAgree(text);
      text[pos] = static_cast<char>(c);  // also near the start, where the cursors lie close
      ExpectKernelsAgree(text);
    }
  }
}

TEST(Base64Kernels, RoundTripEveryLengthAndLineLength) {
  std::mt19937 rng(20240611);
  for (size_t len = 0; len <= 300; ++len) {
    const std::string data = RandomBytes(rng, len);
    for (int line_len = 0; line_len <= 80; line_len += 4) {
      const std::string enc = Encode(data, line_len);
      for (B64Kernel k : Kernels()) {
        ASSERT_EQ(data, KernelDecode(k, enc)) << KernelName(k) << " len " << len << " line " << line_len;
      }
    }
    EXPECT_EQ(data, B64(Encode(data, 76)));
  }
}

// Random texts dense with line breaks, junk, NULs and "=": the vector
// kernels must hand over to the scalar machine without losing or
// overwriting a byte.
TEST(Base64Kernels, AgreeOnMessyText) {
  std::mt19937 rng(7);
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const std::string noise[] = {"\r\n", "\n", " ", "\t", std::string(1, '\0'), "\xc3\xa9", "*", "-", "="};
  for (int round = 0; round < 3000; ++round) {
    const int noise_per_mille = static_cast<int>(rng() % 200) + (round % 3 == 0 ? 0 : 1);
    const int eq_allowed = round % 4 == 0;
    const size_t len = rng() % 600;
    std::string text;
    while (text.size() < len) {
      if (static_cast<int>(rng() % 1000) < noise_per_mille) {
        const size_t pick = rng() % (eq_allowed ? 9 : 8);
        text += noise[pick];
      } else {
        text += alphabet[rng() % 64];
      }
    }
    ExpectKernelsAgree(text);
    if (::testing::Test::HasFatalFailure()) return;
  }
  // MIME lines of every length, with the break at every place in a block.
  for (size_t line_len = 1; line_len <= 100; ++line_len) {
    std::string text;
    for (int i = 0; text.size() < 700; ++i) {
      text += alphabet[static_cast<size_t>(i * 7) % 64];
      if (static_cast<size_t>(i + 1) % line_len == 0) text += "\r\n";
    }
    ExpectKernelsAgree(text);
  }
}

// Regular MIME lines with one byte changed anywhere in a late line: the
// kernels' assumption that every line looks like the last must give way.
TEST(Base64Kernels, OneOddByteAmongRegularLines) {
  std::mt19937 rng(5);
  const std::string data = RandomBytes(rng, 57 * 12);
  for (int line_len : {64, 76}) {
    const std::string enc = Encode(data, line_len);
    const size_t line_start = 8 * static_cast<size_t>(line_len + 2);
    for (size_t pos = line_start; pos < line_start + static_cast<size_t>(line_len) + 2; ++pos) {
      for (const char odd : {'*', '=', '\0', ' ', '\n', '\r'}) {
        std::string text = enc;
        text[pos] = odd;
        ExpectKernelsAgree(text);
        text.insert(pos, 1, odd);  // an extra byte shifts the rest
        ExpectKernelsAgree(text);
        text.erase(pos, 2);  // a missing one too
        ExpectKernelsAgree(text);
        if (::testing::Test::HasFatalFailure()) return;
      }
    }
  }
}

// ---------------------------------------------------------------- encode

TEST(Base64Enc, VectorsLinesAndLimits) {
  EXPECT_EQ("", Encode("", 76));
  EXPECT_EQ("Zg==", Encode("f", 0));
  EXPECT_EQ("Zm8=", Encode("fo", 0));
  EXPECT_EQ("Zm9vYmFy", Encode("foobar", 0));
  EXPECT_EQ("Zm9v\r\nYmFy", Encode("foobar", 4));
  EXPECT_EQ("Zm9vYmFy", Encode("foobar", 8));  // no break after the last line
  EXPECT_EQ("Zm9vYmFy\r\nYg==", Encode("foobarb", 8));

  const std::string data(57, 'a');
  EXPECT_EQ(76u, Encode(data, 76).size());
  EXPECT_EQ(76u + 2 + 4, Encode(data + "a", 76).size());

  EXPECT_EQ(9, MTX_Base64EncSize(6, 0));
  EXPECT_EQ(11, MTX_Base64EncSize(6, 4));
  EXPECT_EQ(1, MTX_Base64EncSize(0, 76));
  EXPECT_EQ(-1, MTX_Base64EncSize(-1, 76));
  EXPECT_EQ(-1, MTX_Base64EncSize(0x7FFFFFFF, 76));

  char small[9];
  std::memset(small, 'x', sizeof small);
  EXPECT_EQ(-1, MTX_Base64Enc("foobar", 6, small, 8, 0));  // needs 9 with the terminator
  EXPECT_EQ('\0', small[0]);
  EXPECT_EQ(8, MTX_Base64Enc("foobar", 6, small, 9, 0));
  EXPECT_STREQ("Zm9vYmFy", small);
  EXPECT_EQ(-1, MTX_Base64Enc(nullptr, 3, small, 9, 0));
  EXPECT_EQ('\0', small[0]);
  EXPECT_EQ(-1, MTX_Base64Enc("foo", -1, small, 9, 0));
  EXPECT_EQ(-1, MTX_Base64Enc("foo", 3, nullptr, 9, 0));
}

// ---------------------------------------------------------------- quoted-printable

// Checks a quoted-printable case alone, and again behind escapes that set
// the cursors apart and (unless it is about the text's end) before more
// text, where blocks of text are moved whole.
constexpr bool kAtEnd = true;
void ExpectQP(const std::string& text, const std::string& want, bool at_end = false) {
  EXPECT_EQ(want, QP(text)) << ::testing::PrintToString(text);
  const std::string escapes = "=41=42=43=44=45=46=47=48=49=4A=4B=4C";
  const std::string suffix = at_end ? "" : "ghijklmnopqrstuvwxyzGHIJKL";  // no hex digit
  EXPECT_EQ("ABCDEFGHIJKL" + want + suffix, QP(escapes + text + suffix)) << ::testing::PrintToString(text);
}

TEST(QPDec, EscapesEitherCase) {
  ExpectQP("=41=4a=4A", "AJJ");
  ExpectQP("caf=C3=A9 ok", "caf\xc3\xa9 ok");
  ExpectQP("=00x", std::string("\0x", 2));
  ExpectQP("plain text\r\n", "plain text\r\n", kAtEnd);
  ExpectQP("", "", kAtEnd);
}

TEST(QPDec, SoftLineBreaks) {
  ExpectQP("ab=\r\ncd", "abcd");
  ExpectQP("ab=\ncd", "abcd");
  ExpectQP("ab=  \t\r\ncd", "abcd");
  ExpectQP("ab= \ncd", "abcd");
  ExpectQP("ab=", "ab", kAtEnd);     // at the very end
  ExpectQP("ab=  ", "ab", kAtEnd);   // blanks and then the end
  ExpectQP("ab=\r", "ab", kAtEnd);
  ExpectQP("a=\r\n\r\nb=\n\nc", "a\r\nb\nc");  // only one break goes
}

TEST(QPDec, HardBreaksAndTrailingBlanksStay) {
  ExpectQP("a \r\nb\t\nc", "a \r\nb\t\nc");
  ExpectQP("=41 \r\n", "A \r\n");
}

TEST(QPDec, InvalidEscapesStandAsWritten) {
  ExpectQP("a=zz", "a=zz");
  ExpectQP("a=4g", "a=4g");
  ExpectQP("a=4", "a=4", kAtEnd);
  ExpectQP("a==41", "a=A");
  ExpectQP("a= b", "a= b");
  ExpectQP("a=\rb", "a=\rb");  // a lone CR is no line break
  ExpectQP("1+1=2", "1+1=2");
  ExpectQP("a===b", "a===b");
}

TEST(QPDec, CorpusAndRoundTrip) {
  EXPECT_EQ(Corpus("gmime/wikipedia.txt"), QP(Corpus("gmime/wikipedia.qp")));

  // Random bytes, encoded with escapes for everything but letters and
  // soft breaks every 70 columns, must come back whole.
  std::mt19937 rng(99);
  for (int round = 0; round < 200; ++round) {
    const std::string data = RandomBytes(rng, rng() % 2000);
    std::string enc;
    size_t column = 0;
    for (unsigned char c : data) {
      char piece[4];
      if (std::isalnum(c) != 0) {
        piece[0] = static_cast<char>(c);
        piece[1] = '\0';
      } else {
        std::snprintf(piece, sizeof piece, round % 2 ? "=%02X" : "=%02x", c);
      }
      if (column + std::strlen(piece) > 70) {
        enc += round % 3 ? "=\r\n" : "= \n";
        column = 0;
      }
      enc += piece;
      column += std::strlen(piece);
    }
    ASSERT_EQ(data, QP(enc)) << "round " << round;
  }
}

// ---------------------------------------------------------------- uuencode

TEST(UUDec, Lines) {
  EXPECT_EQ("Cat", UU("#0V%T\n`\nend\n"));
  EXPECT_EQ("Cat", UU("#0V%T\r\n`\r\nend\r\n"));
  EXPECT_EQ("Cat", UU("#0V%T\r\nend\r\n#0V%T\n"));    // nothing after "end"
  EXPECT_EQ("Cat", UU("#0V%T\n \n#0V%T\n"));           // " " is a zero length too
  EXPECT_EQ("Cat", UU("#0V%T\n\n#0V%T\n"));            // and so is an empty line
  EXPECT_EQ("CatCat", UU("#0V%T\n#0V%T"));             // truncated: no end line, no LF
  EXPECT_EQ("CatCat", UU("#0V%T\nhello world\n#0V%T\n`\n"));  // not a data line: skipped
  EXPECT_EQ("", UU(""));
  EXPECT_EQ("", UU("end\n#0V%T\n"));
}

TEST(UUDec, ShortLinesCountMissingCharactersAsZero) {
  // "C" with its zero bits encoded as "``" becomes "0P``"; mail may strip
  // the trailing characters (had they been blanks): same bytes.
  const std::string full = "&0P``0P``\n`\nend\n";
  const std::string cut = "&0P``0P\n`\nend\n";
  EXPECT_EQ(std::string("C\0\0C\0\0", 6), UU(full));
  EXPECT_EQ(std::string("C\0\0C\0\0", 6), UU(cut));
  // A line far shorter than its length cannot write ahead of the bytes
  // read: "M" asks for 45 bytes, only 2 fit where "M\n" stood.
  EXPECT_EQ(std::string(2, '\0'), UU("M\n"));
}

TEST(UUDec2, BeginLineAndName) {
  char name[64] = "stale";
  std::string text = "begin 644 cat.txt\n#0V%T\n`\nend\n";
  ASSERT_EQ(3, MTX_UUDec2(text.data(), name, sizeof name));
  EXPECT_EQ("Cat", std::string(text.data(), 3));
  EXPECT_STREQ("cat.txt", name);

  text = "Some words first\r\nbegin 0600 my file.txt\r\n#0V%T\r\n`\r\nend\r\n";
  ASSERT_EQ(3, MTX_UUDec2(text.data(), name, sizeof name));
  EXPECT_EQ("Cat", std::string(text.data(), 3));
  EXPECT_STREQ("my file.txt", name);

  // Bounded name; a begin line not at a line start or with a bad mode does
  // not count.
  char small[4];
  text = "xbegin 644 no\nbegin 64x no\nbegin 644 photo.jpg\n#0V%T\n";
  ASSERT_EQ(3, MTX_UUDec2(text.data(), small, sizeof small));
  EXPECT_STREQ("pho", small);

  // No begin line: the text is decoded from its start and the name emptied.
  text = "#0V%T\n`\nend\n";
  ASSERT_EQ(3, MTX_UUDec2(text.data(), name, sizeof name));
  EXPECT_STREQ("", name);
  EXPECT_EQ('\0', text[3]);

  text = "begin 644 empty\n";
  EXPECT_EQ(0, MTX_UUDec2(text.data(), name, sizeof name));
  EXPECT_STREQ("empty", name);
  text = "begin 644";
  EXPECT_EQ(0, MTX_UUDec2(text.data(), nullptr, 0));
}

TEST(UUDec2, CorpusFiles) {
  char name[256];
  std::string text = Corpus("gmime/photo.uu");
  int n = MTX_UUDec2(text.data(), name, sizeof name);
  ASSERT_GT(n, 0);
  EXPECT_EQ(Corpus("gmime/photo.jpg"), text.substr(0, static_cast<size_t>(n)));
  EXPECT_STREQ("photo.jpg", name);

  text = Corpus("roundcube/test.uuencode");  // CR LF lines
  n = MTX_UUDec2(text.data(), name, sizeof name);
  ASSERT_GT(n, 0);
  EXPECT_EQ(Corpus("roundcube/test.pdf"), text.substr(0, static_cast<size_t>(n)));
  EXPECT_STREQ("test.pdf", name);
}

// Any bytes at all: every decoder stays inside the text and terminates it.
TEST(Decoders, ArbitraryBytes) {
  std::mt19937 rng(3);
  const std::string pieces[] = {"=", "\r\n", "\n", "begin 644 x\n", "end\n", "M", "`", "QUJD", "=4", " "};
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    const size_t len = rng() % 300;
    while (text.size() < len) {
      if (rng() % 3 == 0) {
        text += pieces[rng() % 10];
      } else {
        text += static_cast<char>(1 + rng() % 255);
      }
    }
    B64(text);
    QP(text);
    UU(text);
    std::vector<char> buf(text.begin(), text.end());
    buf.push_back('\0');
    char name[8];
    const int n = MTX_UUDec2(buf.data(), name, sizeof name);
    ASSERT_GE(n, 0);
    ASSERT_LE(static_cast<size_t>(n), text.size());
    ASSERT_LT(std::strlen(name), sizeof name);
    ExpectKernelsAgree(text);
  }
}

}  // namespace
