// Magic-file loader and matcher, and the whole-file reader under them.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include "mime_magic_internal.h"
#include "support.h"

using namespace std::string_literals;

namespace {

// A scratch directory for magic files, removed with its files at exit.
struct Scratch {
  Scratch() {
    char tmpl[] = "/tmp/tarn_magic_XXXXXX";
    if (mkdtemp(tmpl) != nullptr) dir = tmpl;
  }
  ~Scratch() { std::filesystem::remove_all(dir); }
  std::string write(const std::string& name, std::string_view text) const {
    std::filesystem::create_directories(std::filesystem::path(dir + "/" + name).parent_path());
    std::ofstream(dir + "/" + name, std::ios::binary) << text;
    return dir + "/" + name;
  }
  std::string dir;
};

Scratch& scratch() {
  static Scratch s;
  return s;
}

// Loads magic text as a file of its own; the loader's messages go to *err.
int load(std::string_view text, std::string* err = nullptr) {
  static int n = 0;
  std::string path = scratch().write("m" + std::to_string(++n) + ".magic", text);
  testing::internal::CaptureStderr();
  int r = apprentice(path.c_str(), 1);
  std::string msgs = testing::internal::GetCapturedStderr();
  if (err != nullptr) *err = msgs;
  return r;
}

// Runs the matcher over an exactly sized heap copy of the bytes (so that the
// sanitizer sees any read outside them): the result string, or "<none>"
// when no top-level entry matched.
std::string sniff(std::string_view bytes) {
  const std::vector<unsigned char> copy(bytes.begin(), bytes.end());
  MIMETYPE_outputstr[0] = '\0';
  int r = softmagic(copy.data(), static_cast<int>(copy.size()));
  return r ? std::string(MIMETYPE_outputstr) : "<none>";
}

// One line of magic against bytes.
std::string one(std::string_view line, std::string_view bytes) {
  EXPECT_EQ(load(std::string(line) + "\n"), 0) << line;
  EXPECT_EQ(MIMETYPE_nmagic, 1) << line;
  return sniff(bytes);
}

const struct magic& entry(int i) { return MIMETYPE_magic[i]; }
std::string value(int i) { return std::string(entry(i).value.s, entry(i).vallen); }

// ---------------------------------------------------------------- parsing

TEST(MagicParse, StringEscapesRelationsAndDescriptions) {
  ASSERT_EQ(load("0\tstring\t\\n\\t\\v\\r\\b\\f\\\\\\q\\ \ta\n"
                 "0\tstring\t\\x41\\x4g\\x\\xZZ\tb\n"
                 "0\tstring\t\\101\\0\\08\\1234\tc\n"
                 "0\tstring\t!not\td\n"
                 "0\tbyte\t5\t\\bi\n"
                 "0\tbyte\t5\t\bj\n"
                 "0\tbyte\t5\tk  with  blanks \n"),
            0);
  ASSERT_EQ(MIMETYPE_nmagic, 7);
  EXPECT_EQ(value(0), "\n\t\v\r\b\f\\q "s);
  EXPECT_STREQ(entry(0).desc, "a");
  EXPECT_EQ(value(1), "A\x04gxxZZ"s);  // \x takes up to two hex digits; without any it stands for 'x'
  EXPECT_EQ(value(2), "A\0\0"s "8\123"s "4");  // \ and up to three octal digits
  EXPECT_EQ(value(3), "!not");  // for strings a leading '!' belongs to the value
  EXPECT_EQ(entry(3).reln, '=');
  // "\b" or a backspace: no separating blank; other blanks are kept.
  EXPECT_EQ(entry(4).nospflag * 100 + entry(5).nospflag * 10 + entry(6).nospflag, 110);
  EXPECT_STREQ(entry(4).desc, "i");
  EXPECT_STREQ(entry(5).desc, "j");
  EXPECT_STREQ(entry(6).desc, "k  with  blanks ");
  // An 'x' with nothing after it is no relation: the value reads as 0 and
  // the 'x' stays for the description.  A line without a value compares
  // with 0 too, and has no description.
  EXPECT_EQ(one("0\tbyte\tx", "\0"s), "x");
  EXPECT_EQ(one("0\tbyte\tx", "\1"s), "<none>");
  EXPECT_EQ(one("0\tbyte", "\0"s), "");
  EXPECT_EQ(one("0\tbyte", "\1"s), "<none>");
}

// ------------------------------------------------------------- matching

TEST(MagicMatch, SingleLines) {
  const std::string b8 = "\x01\x02\x03\x04\x05\x06\x07\x08"s, hi = "\x80"s, b4 = "\x12\x34\x56\x78"s;
  const struct {
    const char* line;
    std::string bytes;
    const char* want;
  } cases[] = {
      {"0\tstring\t%PDF-\tapplication/pdf", "%PDF-1.4\n%\xe2\xe3\xcf\xd3\n", "application/pdf"},
      {"0\tstring\t%PDF-\tapplication/pdf", "%PDF", "<none>"},
      {"0\tstring\t%PDF-\tapplication/pdf", "x%PDF-", "<none>"},
      // Numbers: a leading 0 is octal, a minus is taken modulo 2^32, too
      // large a number is all ones, a size letter after it is skipped; values
      // are sign-extended by the type unless it is unsigned.
      {"010\tbyte\t0x7f\tok", "01234567\x7f", "ok"},
      {"0x10\tlong\t-1\tok", std::string(16, '.') + "\xff\xff\xff\xff", "ok"},
      {"0\tbelong\t0x100000005\tok", "\xff\xff\xff\xff", "ok"},
      {"0\tbelong\t0x12345678L\tok", b4, "ok"},
      {"0\tbyte\t0377\tok", "\xff", "ok"},
      {"0\tubyte\t-1\tok", "\xff", "<none>"},
      // Every type; plain types are read in machine order (little-endian here).
      {"1\tbyte\t2\tok", b8, "ok"},
      {"0\tshort\t0x0201\tok", b8, "ok"},
      {"0\tlong\t0x04030201\tok", b8, "ok"},
      {"0\tdate\t0x04030201\tok", b8, "ok"},
      {"0\tbeshort\t0x0102\tok", b8, "ok"},
      {"0\tbelong\t0x01020304\tok", b8, "ok"},
      {"4\tbedate\t0x05060708\tok", b8, "ok"},
      {"0\tleshort\t0x0201\tok", b8, "ok"},
      {"0\tlelong\t0x04030201\tok", b8, "ok"},
      {"4\tledate\t0x08070605\tok", b8, "ok"},
      {"2\tstring\t\\003\\004\\005\tok", b8, "ok"},
      // Relations, signed and unsigned.
      {"0\tbyte\t<0\tneg", hi, "neg"},  // 0x80 is -128
      {"0\tubyte\t<0\tneg", hi, "<none>"},
      {"0\tbyte\t>0x7f\tbig", hi, "<none>"},
      {"0\tubyte\t>0x7f\tbig", hi, "big"},
      {"0\tbyte\t0x80\teq", hi, "eq"},  // both sides sign-extended
      {"0\tubyte\t0x80\teq", hi, "eq"},
      {"0\tbyte\t!5\tne", "\x05", "<none>"},
      {"0\tbyte\t!5\tne", "\x06", "ne"},
      {"0\tbyte\t=5\teq", "\x05", "eq"},
      {"0\tbyte\t&0x81\tall", "\x81", "all"},
      {"0\tbyte\t&0x81\tall", hi, "<none>"},
      {"0\tbyte\t^0x81\tnotall", hi, "notall"},
      {"0\tbyte\t^0x81\tnotall", "\x81", "<none>"},
      {"0\tbelong\tx\tany", "", "any"},
      {"0\tbeshort\t<0\tneg", "\xff\xfe", "neg"},
      {"0\tubeshort\t>0xfffd\tbig", "\xff\xfe", "big"},
      {"0\tbelong\t<0\tneg", "\x80\0\0\0"s, "neg"},
      {"0\tubelong\t>0x7fffffff\tbig", "\x80\0\0\0"s, "big"},
      // Masks; a short's mask and value are sign-extended alike.
      {"0\tbelong&0xffff0000\t0x12340000\tok", b4, "ok"},
      {"0\tbelong&0xffff0000\t0x12345678\tok", b4, "<none>"},
      {"0\tbelong&0xffL\t0x78\tok", b4, "ok"},  // size letter after the mask
      {"0\tbyte&0x1F\t0x12\tok", b4, "ok"},
      {"0\tbeshort&0xfff6\t0xfff0\tadts", "\xff\xf1", "adts"},
      {"0\tbeshort&0xfff6\t0xfff0\tadts", "\xff\xfa", "<none>"},
      {"0\tubeshort&0xfffe\t=0xfffa\tmp3", "\xff\xfb", "mp3"},
      // Strings: compared over the value's length, '<' and '>' at the first
      // differing byte, bytes unsigned; '&' of a string: all of no bits are
      // set; '^': never.
      {"0\tstring\tabc\tok", "abcdef", "ok"},
      {"0\tstring\tabc\tok", "abd", "<none>"},
      {"0\tstring\t>b\tgt", "c", "gt"},
      {"0\tstring\t>b\tgt", "a", "<none>"},
      {"0\tstring\t>b\tgt", "b", "<none>"},
      {"0\tstring\t<b\tlt", "a", "lt"},
      {"0\tstring\t<b\tlt", "\xff", "<none>"},
      {"0\tstring\t=<ar>\tar", "<ar>", "ar"},
      {"0\tstring\t!x\tbang", "!x", "bang"},
      {"0\tstring\tx\tany", "zzz", "any"},
      {"257\tstring\tustar\\0\ttar", std::string(257, 'x') + "ustar\0"s + "00", "tar"},
      {"257\tstring\tustar\\0\ttar", std::string(257, 'x') + "ustar ", "<none>"},
      {"0\tstring\t&zz\tamp", "ab", "amp"},
      {"0\tstring\t^zz\tcaret", "ab", "<none>"},
      // Values past either end of the buffer read as zeros.
      {"2\tbelong\t0x03040000\tpart", "\x01\x02\x03\x04", "part"},
      {"4\tbelong\t0\tzero", "\x01\x02\x03\x04", "zero"},
      {"100000\tlelong\t0\tzero", "\x01\x02\x03\x04", "zero"},
      {"0x7fffffff\tbyte\t0\tzero", "\x01\x02\x03\x04", "zero"},
      {"-4\tbelong\t0\tzero", "\x01\x02\x03\x04", "zero"},
      {"-2\tbelong\t0x0102\tpart", "\x01\x02\x03\x04", "part"},
      {"3\tstring\t\\004\\0\\0\tend", "\x01\x02\x03\x04", "end"},
      {"0\tbelong\t0\tzero", "", "zero"},
      // The description is copied, never used as a format.
      {"0\tbyte\tx\t%s%n%d%%", "\x05", "%s%n%d%%"},
  };
  for (const auto& c : cases) EXPECT_EQ(one(c.line, c.bytes), c.want) << c.line;

  // Reads stop at nbytes even when more memory follows; no buffer reads as zeros.
  ASSERT_EQ(load("2\tbyte\t0\tcut\n"), 0);
  MIMETYPE_outputstr[0] = '\0';
  EXPECT_EQ(softmagic(reinterpret_cast<const unsigned char*>("abcdef"), 2), 1);
  EXPECT_STREQ(MIMETYPE_outputstr, "cut");
  EXPECT_EQ(softmagic(nullptr, 100), 1);
  EXPECT_EQ(softmagic(reinterpret_cast<const unsigned char*>("x"), -5), 1);
}

// A buffer with "PTR" at 0, a pointer at 4 and "HELLO" somewhere.
std::string pointer_buffer(size_t size, size_t hello_at, const std::string& pointer) {
  std::string b(size, '.');
  b.replace(0, 3, "PTR");
  b.replace(4, pointer.size(), pointer);
  b.replace(hello_at, 5, "HELLO");
  return b;
}

TEST(MagicMatch, IndirectOffsets) {
  auto run = [](const std::string& cont, const std::string& bytes) {
    EXPECT_EQ(load("0\tstring\tPTR\ttop\n" + cont + "\n"), 0) << cont;
    return sniff(bytes);
  };
  // The pointer's size: 0x28 as a byte, 0x128 as a short, 0x10128 as a
  // long (past the buffer); long by default.
  std::string wide = pointer_buffer(400, 40, "\x28\x01\x01\0"s);
  wide.replace(0x128, 5, "WORLD");
  for (std::string size : {".b", ".B", ".c", ".C"})
    EXPECT_EQ(run(">(4" + size + ")\tstring\tHELLO\t\\b+byte", wide), "top+byte") << size;
  for (std::string size : {".s", ".S", ".h", ".H"})
    EXPECT_EQ(run(">(4" + size + ")\tstring\tWORLD\t\\b+short", wide), "top+short") << size;
  for (std::string size : {".l", ".L", ""})
    EXPECT_EQ(run(">(4" + size + ")\tbyte\tx\t\\b+long", wide), "top") << size;
  const std::string b = pointer_buffer(100, 40, "\x28\0\0\0"s);
  EXPECT_EQ(run(">(4.b+2)\tstring\tLLO\t\\b+hit", b), "top+hit");
  EXPECT_EQ(run(">(4.b-2)\tstring\t..HELLO\t\\b+hit", b), "top+hit");
  EXPECT_EQ(run(">(4.b+0x2)\tstring\tLLO\t\\b+hit", b), "top+hit");
  EXPECT_EQ(run(">(4.b)\tstring\tHELLX\t\\b+hit", b), "top");

  // The 32-byte window at the pointer must fit: 68 + 32 = 100 does, 69 + 32
  // does not, although the byte itself is there.
  EXPECT_EQ(run(">(4.b)\tbyte\t0x2e\t\\b+dot", pointer_buffer(100, 10, "\x44"s)), "top+dot");
  EXPECT_EQ(sniff(pointer_buffer(100, 10, "\x45"s)), "top");
  EXPECT_EQ(sniff(pointer_buffer(100, 10, "\xff"s)), "top");
  // A pointer that goes before the buffer's start never matches.
  EXPECT_EQ(run(">(4.b-100)\tbyte\tx\t\\b+any", pointer_buffer(100, 10, "\x10"s)), "top");
  EXPECT_EQ(run(">(4.l)\tbyte\tx\t\\b+any", pointer_buffer(100, 10, "\xff\xff\xff\x7f"s)), "top");
  EXPECT_EQ(sniff(pointer_buffer(100, 10, "\xf0\xff\xff\xff"s)), "top");
}

TEST(MagicMatch, ContinuationLevels) {
  ASSERT_EQ(load("0\tstring\tAB\ttop\n"
                 ">2\tbyte\t1\t\\b-one\n"
                 ">>3\tbyte\t2\t\\b-two\n"
                 ">>3\tbyte\t3\t\\b-three\n"
                 ">>>4\tbyte\t5\t\\b-deep\n"
                 ">2\tbyte\t9\t\\b-nine\n"
                 ">>3\tbyte\t2\t\\b-nine-two\n"
                 ">4\tbyte\t5\t\\b-five\n"
                 "0\tstring\tAB\tsecond-top\n"
                 "0\tstring\tXY\txy\n"
                 ">0\tbyte\tx\t\\b-always\n"
                 "0\tstring\tX\tx-only\n"),
            0);
  EXPECT_EQ(sniff("AB\x01\x02\x05"s), "top-one-two-five");
  EXPECT_EQ(sniff("AB\x01\x03\x05"s), "top-one-three-deep-five");
  EXPECT_EQ(sniff("AB\x01\x03\x06"s), "top-one-three");
  // Entries below a continuation that did not match are passed over.
  EXPECT_EQ(sniff("AB\x07\x03\x05"s), "top-five");
  EXPECT_EQ(sniff("AB\x09\x02\x05"s), "top-nine-nine-two-five");
  EXPECT_EQ(sniff("AB"), "top");  // the first matching top-level entry alone
  EXPECT_EQ(sniff("XY"), "xy-always");
  // A top-level entry that fails takes its continuations with it.
  EXPECT_EQ(sniff("XZ"), "x-only");
  // A file that starts with a continuation: that entry is tried as a
  // top-level one.
  ASSERT_EQ(load(">0\tstring\tQ\tq\n>>1\tbyte\tx\t\\b-q\n0\tstring\tR\tr\n"), 0);
  EXPECT_EQ(sniff("Q"), "q");
  EXPECT_EQ(sniff("R"), "r");
}

TEST(MagicMatch, AddOffsetsCountFromTheParentMatch) {
  ASSERT_EQ(load("0\tstring\tAB\ttop\n"
                 ">&0\tstring\tCD\t\\b+cd\n"
                 ">>&1\tbyte\t0x21\t\\b+bang\n"
                 ">&(0.b)\tbyte\t0x40\t\\b+at\n"),
            0);
  EXPECT_EQ(sniff("ABCD!"), "top+cd");  // '!' must be one byte further
  EXPECT_EQ(sniff("ABCDx!"), "top+cd+bang");
  EXPECT_EQ(sniff("xxABCD"), "<none>");
  // ADD with an indirect offset: the pointer is read at 2 + 0, the value at
  // the pointer (absolute).
  std::string b(80, '.');
  b.replace(0, 3, "AB\x28"s);
  b[0x28] = '@';
  EXPECT_EQ(sniff(b), "top+at");
  // The table is left as it was: offsets are not moved for good.
  EXPECT_EQ(entry(1).offset, 0);
  EXPECT_EQ(entry(2).offset, 1);

  // The end of a match: offset + size for numbers, + length for strings.
  ASSERT_EQ(load("0\tbelong\t0x01020304\ttop\n>&0\tbyte\t5\t\\b+5\n"), 0);
  EXPECT_EQ(sniff("\x01\x02\x03\x04\x05"s), "top+5");
  ASSERT_EQ(load("0\tbeshort\t0x0102\ttop\n>&0\tbyte\t3\t\\b+3\n"), 0);
  EXPECT_EQ(sniff("\x01\x02\x03"s), "top+3");
  ASSERT_EQ(load("0\tstring\t>\\0\ttop\n>&0\tbyte\t0x0a\t\\b+nl\n"), 0);
  EXPECT_EQ(sniff("hello\nrest"), "top+nl");  // an empty value: the string ends at a line end
}

TEST(MagicMatch, SeparatorBlankGoesToStandardOutput) {
  // The result string never gets the blank; standard output gets one, and
  // only when something was written before and the entry has no "\b".
  auto run = [](const char* magic) {
    EXPECT_EQ(load(magic), 0);
    testing::internal::CaptureStdout();
    std::string got = sniff("AB");
    return got + "|" + testing::internal::GetCapturedStdout();
  };
  EXPECT_EQ(run("0\tstring\tAB\ttop\n>0\tbyte\tx\tcont\n>0\tbyte\tx\tmore\n"), "topcontmore| ");
  EXPECT_EQ(run("0\tstring\tAB\ttop\n>0\tbyte\tx\t\\bcont\n>0\tbyte\tx\n"), "topcont|");
  EXPECT_EQ(run("0\tstring\tAB\n>0\tbyte\tx\tcont\n"), "cont|");
}

TEST(MagicMatch, ResultStringIsBoundedAndDebugTraces) {
  std::string text = "0\tbyte\tx\t" + std::string(49, 'a') + "\n";
  for (int i = 0; i < 40; ++i) text += ">0\tbyte\tx\t\\b" + std::string(49, 'b') + "\n";
  ASSERT_EQ(load(text), 0);
  testing::internal::CaptureStdout();
  std::string got = sniff("x");
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(got, std::string(49, 'a') + std::string(1023 - 49, 'b'));

  ASSERT_EQ(load("0\tstring\tAB\tab\n"), 0);
  MIMETYPE_debug = 1;
  testing::internal::CaptureStderr();
  got = sniff("AB\x01"s);
  std::string err = testing::internal::GetCapturedStderr();
  MIMETYPE_debug = 0;
  EXPECT_EQ(got, "ab");
  EXPECT_NE(err.find("mget @0: AB\\001"), std::string::npos) << err;
  EXPECT_NE(err.find("=> 1 [ab]"), std::string::npos) << err;
}

// ---------------------------------------------------------------- loading

TEST(MagicLoad, EveryKindOfBrokenLine) {
  const std::string path = tarntest::testdata_dir() + "/magic/broken.magic";
  testing::internal::CaptureStderr();
  int r = apprentice(path.c_str(), 1);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(r, 1);
  EXPECT_EQ(MIMETYPE_nrejected, 4);
  EXPECT_EQ(MIMETYPE_nwarned, 4);
  const std::string at = " in file " + path + ", line ";
  EXPECT_EQ(err, "type bogus\t1\tnever/loaded invalid" + at + "4\n" +
                     "type string/B\tAVI\tnever/loaded invalid" + at + "5\n" +
                     "offset \tstring\tNOOFFSET\ttext/x-nooffset invalid" + at + "6\n" +
                     "string too long: " + std::string(40, 'A') + "\n" +
                     "indirect offset type q invalid" + at + "9\n" +
                     "missing ')' in indirect offset" + at + "10\n" +
                     "offset (4.l)\tbyte\t3\tnever/loaded invalid" + at + "11\n" +
                     "type (4.l)\tbyte\t3\tnever/loaded invalid" + at + "11\n" +
                     "offset  invalid" + at + "12\n" +
                     "type  invalid" + at + "12\n");

  ASSERT_EQ(MIMETYPE_nmagic, 9);
  EXPECT_STREQ(entry(1).value.s, "NOOFFSET");  // kept, at offset 0
  EXPECT_EQ(entry(1).offset, 0);
  EXPECT_EQ(value(2), std::string(31, 'A'));  // cut to 31 bytes
  EXPECT_STREQ(entry(2).desc, "text/x-long");
  EXPECT_STREQ(entry(3).desc, "");
  EXPECT_EQ(entry(4).in.type, MAGIC_LONG);  // a bad size letter leaves a long
  EXPECT_STREQ(entry(4).desc, "text/x-badsize");
  EXPECT_EQ(entry(5).flag, MAGIC_INDIR);
  EXPECT_STREQ(entry(5).desc, "text/x-noparen");
  EXPECT_STREQ(entry(6).value.s, "ends-with-backslash");
  EXPECT_EQ(entry(7).type, MAGIC_BYTE);
  // The good lines work, the last with its description cut to 49 bytes.
  EXPECT_EQ(sniff("GOOD1"), "text/x-good1");
  EXPECT_EQ(sniff("GOOD3"), "a-description-that-is-far-too-long-to-keep-all-of");
}

TEST(MagicLoad, BlankLinesCommentsCrLfAndOverlongLines) {
  std::string text = "# comment\r\n\r\n\n0\tstring\tA\ttext/a\r\n";
  text += "0\tstring\tB\t" + std::string(9000, 'b') + "\n";
  text += std::string(9000, '>') + "\n";  // only its first 8192 bytes are read
  text += "0\tstring\tC\ttext/c\n";
  std::string err;
  EXPECT_EQ(load(text, &err), 1);
  EXPECT_EQ(MIMETYPE_nrejected, 1);
  ASSERT_EQ(MIMETYPE_nmagic, 3);
  EXPECT_STREQ(entry(0).desc, "text/a");  // no CR left on it
  EXPECT_EQ(std::strlen(entry(1).desc), 49u);
  EXPECT_STREQ(entry(2).desc, "text/c");
  EXPECT_NE(err.find(", line 6\n"), std::string::npos) << err.substr(0, 200);
  EXPECT_EQ(MIMETYPE_lineno, 7);
}

TEST(MagicLoad, FileListsAndUnreadableFiles) {
  const std::string a = scratch().write("list-a.magic", "0\tstring\tA\ttext/a\n");
  const std::string b = scratch().write("list-b.magic", "0\tstring\tB\ttext/b\n0\tnope\t1\tx\n");
  const std::string missing = scratch().dir + "/no-such.magic";
  auto run = [](const std::string& list, std::string* err = nullptr) {
    testing::internal::CaptureStderr();
    int r = apprentice(list.c_str(), 1);
    std::string msgs = testing::internal::GetCapturedStderr();
    if (err != nullptr) *err = msgs;
    return r;
  };
  std::string err;
  EXPECT_EQ(run(a + ":" + missing + ":" + b, &err), 1);  // the highest result of the files
  EXPECT_EQ(MIMETYPE_nmagic, 2);
  EXPECT_EQ(err.find("can't read"), std::string::npos);  // a missing file is no news
  EXPECT_EQ(sniff("B"), "text/b");
  EXPECT_EQ(run(a + ":" + missing), 0);
  EXPECT_EQ(MIMETYPE_nmagic, 1);

  EXPECT_EQ(run(missing, &err), -1);
  EXPECT_EQ(err, "couldn't find any magic files\n");
  EXPECT_EQ(MIMETYPE_nmagic, 0);
  EXPECT_EQ(sniff("A"), "<none>");
  EXPECT_EQ(run(scratch().dir, &err), -1);
  EXPECT_EQ(err, "can't read magic file " + scratch().dir + "\ncouldn't find any magic files\n");
  EXPECT_EQ(run(""), -1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(apprentice(nullptr, 1), -1);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(run(scratch().write("empty.magic", "")), 0);
  EXPECT_EQ(MIMETYPE_nmagic, 0);
}

TEST(MagicLoadDeathTest, WithoutCheckAMissingFileEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::string missing = scratch().dir + "/gone.magic";
  EXPECT_EXIT(apprentice(missing.c_str(), 0), testing::ExitedWithCode(1), "couldn't find any magic files");
}

TEST(MagicLoad, TableGrowsAndPathsFollowTheRoot) {
  std::string text;
  for (int i = 0; i < 6000; ++i) text += "0\tbelong\t" + std::to_string(i + 1) + "\tt/" + std::to_string(i) + "\n";
  ASSERT_EQ(load(text), 0);
  ASSERT_EQ(MIMETYPE_nmagic, 6000);
  EXPECT_STREQ(entry(4999).desc, "t/4999");
  EXPECT_EQ(sniff("\0\0\x17\x70"s), "t/5999");  // 6000
  EXPECT_EQ(sniff("\0\0\0\x01"s), "t/0");

  scratch().write("root/httpd/conf/magic", "0\tstring\tROOT\ttext/x-root\n");
  setenv("QUILLNET_ROOT", (scratch().dir + "/root").c_str(), 1);
  int r = apprentice("/quillnet/httpd/conf/magic", 1);
  unsetenv("QUILLNET_ROOT");
  EXPECT_EQ(r, 0);
  EXPECT_EQ(sniff("ROOT"), "text/x-root");
}

// Lines stitched from the pieces of the format, in any order, and random
// buffers of every short length: the loader and matcher must stay inside
// their lines and buffers (the sanitizers watch) and keep their counts.
TEST(MagicLoad, RandomLinesAndBuffers) {
  const char* pieces[] = {">",     ">>",   "&",      "(",      ")",      ".",    "b",    "L",    "+",    "-",
                          "0",     "0x",   "7",      "4",      "\t",     " ",    "byte", "u",    "string",
                          "belong", "lelong", "date", "x",     "=",      "!",    "<",    "^",    "\\",   "\\x",
                          "\\1",   "\\b",  "\b",     "text/",  "a",      "&0xff", "(4.s)", "(0.l+", "string/B"};
  std::mt19937 rng(7);
  std::string text;
  for (int line = 0; line < 3000; ++line) {
    for (int k = static_cast<int>(rng() % 12); k > 0; --k) text += pieces[rng() % std::size(pieces)];
    text += '\n';
  }
  int r = load(text);
  EXPECT_TRUE(r == 0 || r == 1);
  EXPECT_EQ(r == 1, MIMETYPE_nrejected > 0);
  EXPECT_GT(MIMETYPE_nmagic, 0);
  for (int i = 0; i < MIMETYPE_nmagic; ++i) {
    EXPECT_GE(entry(i).vallen, 0);
    EXPECT_LT(entry(i).vallen, MAGIC_MAXSTRING);
    EXPECT_LT(std::strlen(entry(i).desc), static_cast<size_t>(MAGIC_MAXDESC));
  }
  for (int len = 0; len < 80; ++len) {
    for (int trial = 0; trial < 20; ++trial) {
      std::string buf(static_cast<size_t>(len), '\0');
      for (auto& c : buf) c = static_cast<char>(rng());
      testing::internal::CaptureStdout();
      sniff(buf);
      testing::internal::GetCapturedStdout();
      EXPECT_LT(std::strlen(MIMETYPE_outputstr), sizeof(MIMETYPE_outputstr));
    }
  }
}

// ------------------------------------------------- the shipped magic file

std::string default_magic() { return std::string(TARN_SOURCE_DIR) + "/data/magic"; }

// Writes the entry's value where the entry reads it (direct offsets only).
void plant(std::string& b, const struct magic& m, int64_t delta = 0) {
  if (m.flag & MAGIC_INDIR) return;
  size_t at = static_cast<size_t>(m.offset);
  if (m.type == MAGIC_STRING) {
    std::string v(m.value.s, m.vallen);
    if (delta != 0 && !v.empty()) v.back() = static_cast<char>(v.back() + delta);
    if (at + v.size() <= b.size()) b.replace(at, v.size(), v);
    return;
  }
  uint32_t v = m.value.l + static_cast<uint32_t>(delta);
  int size = m.type == MAGIC_BYTE ? 1 : (m.type == MAGIC_SHORT || m.type == MAGIC_BESHORT || m.type == MAGIC_LESHORT) ? 2 : 4;
  bool big = m.type == MAGIC_BESHORT || m.type == MAGIC_BELONG || m.type == MAGIC_BEDATE;
  for (int i = 0; i < size && at + i < b.size(); ++i) b[at + i] = static_cast<char>(v >> (big ? 8 * (size - 1 - i) : 8 * i));
}

TEST(MagicDefaultFile, LoadsWithoutComplaint) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(apprentice(default_magic().c_str(), 1), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(MIMETYPE_nrejected + MIMETYPE_nwarned, 0);
  EXPECT_GT(MIMETYPE_nmagic, 150);
  for (int i = 0; i < MIMETYPE_nmagic; ++i)
    EXPECT_TRUE(entry(i).desc[0] == '\0' || std::strchr(entry(i).desc, '/') != nullptr) << entry(i).desc;
}

// Every branch of the shipped file ends in exactly one MIME type: for each
// entry with continuations, buffers that carry its value plus random bytes,
// or the value of one of its continuations (and that value plus and minus
// one), must give one type, never none or two run together.
TEST(MagicDefaultFile, BranchesAlwaysEndInOneType) {
  ASSERT_EQ(apprentice(default_magic().c_str(), 1), 0);
  std::mt19937 rng(12345);
  int checked = 0;
  for (int i = 0; i < MIMETYPE_nmagic; ++i) {
    if (entry(i).cont_level != 0) continue;
    int end = i + 1;
    while (end < MIMETYPE_nmagic && entry(end).cont_level != 0) ++end;
    if (end == i + 1) continue;
    for (int trial = 0; trial < 60; ++trial) {
      for (int c = i; c < end; ++c) {
        for (int64_t delta : {0, 1, -1}) {
          std::string b(1024, '\0');
          for (auto& ch : b) ch = static_cast<char>(rng() & 0xff);
          if (trial % 2) plant(b, entry(c), delta);
          plant(b, entry(i));
          std::string got = sniff(b);
          ++checked;
          ASSERT_EQ(std::count(got.begin(), got.end(), '/'), 1) << got << " entry " << i;
        }
      }
    }
  }
  EXPECT_GT(checked, 1000);
}

TEST(MagicDefaultFile, RealFilesFromTheCorpus) {
  ASSERT_EQ(apprentice(default_magic().c_str(), 1), 0);
  const std::pair<std::string_view, const char*> expected[] = {
      {".tnef", "application/ms-tnef"}, {"winmail.dat", "application/ms-tnef"}, {".doc", "application/msword"},
      {".jpg", "image/jpeg"}, {".png", "image/png"}, {".pdf", "application/pdf"}, {".mp3", "audio/mpeg"},
      {".rtf", "application/rtf"},
  };
  int seen = 0;
  std::vector<std::string> files = tarntest::corpus_files("tnef");
  for (const auto& f : tarntest::corpus_files("encodings")) files.push_back(f);
  if (files.empty()) GTEST_SKIP() << "no corpus";
  for (const auto& f : files) {
    for (const auto& [suffix, type] : expected) {
      if (!std::string_view(f).ends_with(suffix)) continue;
      EXPECT_EQ(sniff(tarntest::read_file(f).substr(0, 8191)), type) << f;
      ++seen;
    }
  }
  EXPECT_GT(seen, 40);
}

// ------------------------------------------------ Debian's Apache magic file
//
// The tests read the file named by TARN_APACHE_MAGIC (etc/apache2/magic from
// Debian's apache2 package, unpacked, nothing installed).

std::string apache_magic() {
  const char* p = std::getenv("TARN_APACHE_MAGIC");
  return p != nullptr && *p != '\0' && access(p, R_OK) == 0 ? p : "";
}

std::string sniff_type(std::string_view bytes) {
  std::string got = sniff(bytes);
  return got.substr(0, got.find('\t'));
}

TEST(MagicApacheFile, LoadsAndCountsTheLinesItCannotRead) {
  const std::string path = apache_magic();
  if (path.empty()) GTEST_SKIP() << "TARN_APACHE_MAGIC not set";
  // Lines whose type keyword is none of ours ("string/B", "regex", ...).
  static const std::set<std::string> known = {"byte", "short", "long", "string", "date", "beshort",
                                              "belong", "bedate", "leshort", "lelong", "ledate"};
  int foreign = 0;
  std::istringstream in(tarntest::read_file(path));
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::string offset, type;
    std::istringstream(line) >> offset >> type;
    type = type.substr(0, type.find('&'));
    if (type.starts_with('u')) type.erase(0, 1);
    foreign += known.count(type) == 0;
  }
  testing::internal::CaptureStderr();
  EXPECT_EQ(apprentice(path.c_str(), 1), 1);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_GT(foreign, 0);
  EXPECT_EQ(MIMETYPE_nrejected, foreign);
  EXPECT_NE(err.find("type string/B\tAVI"), std::string::npos);
  EXPECT_GT(MIMETYPE_nmagic, 250);

  EXPECT_EQ(sniff_type("GIF89a\x01\0\x01\0"s), "image/gif");
  EXPECT_EQ(sniff_type("\xff\xd8\xff\xe0\0\x10JFIF\0"s), "image/jpeg");
  EXPECT_EQ(sniff_type("PK\x03\x04\x14\0\0\0"s), "application/x-zip");
  EXPECT_EQ(sniff_type("%!PS-Adobe-3.0\n"), "application/postscript");
  EXPECT_EQ(sniff_type("{\\rtf1\\ansi"), "text/rtf");
  EXPECT_EQ(sniff_type("ID3\x03\0\0\0\0\0\0"s), "audio/mpeg");
  // Its AVI line was dropped ("string/B"), so a RIFF AVI file stops at the
  // RIFF entry, which has no description of its own.
  EXPECT_EQ(sniff("RIFF\x24\0\0\0AVI LIST"s), "");
}

// ------------------------------------------------------ whole-file reading

TEST(Mshm, ReadsWholeFilesWithATerminatorAtEverySize) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  for (size_t size : {size_t{0}, size_t{1}, page - 1, page, page + 1, 2 * page}) {
    std::string text(size, 'x');
    for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + i % 26);
    std::string path = scratch().write("whole" + std::to_string(size), text);
    size_t got_size = 12345;
    char* content = nullptr;
    ASSERT_EQ(MSHM_FileRead(path.c_str(), &got_size, &content, 0), 0) << size;
    ASSERT_NE(content, nullptr);
    EXPECT_EQ(std::string(content, got_size), text);
    EXPECT_EQ(content[size], '\0');
    MSHM_FileFree(content, got_size);
  }
}

TEST(Mshm, KeptFilesAreCachedByPath) {
  std::string path = scratch().write("kept", "kept content");
  size_t s1 = 0, s2 = 0, s3 = 0;
  char *c1 = nullptr, *c2 = nullptr, *c3 = nullptr;
  ASSERT_EQ(MSHM_FileRead(path.c_str(), &s1, &c1, 1), 0);
  ASSERT_EQ(rename(scratch().write("kept.new", "changed later").c_str(), path.c_str()), 0);
  ASSERT_EQ(MSHM_FileRead(path.c_str(), &s2, &c2, 1), 0);
  EXPECT_EQ(c1, c2);
  MSHM_FileFree(c1, s1);  // ignored for kept content
  EXPECT_EQ(std::string(c2, s2), "kept content");
  // Without the flag the file is read as it is now.
  ASSERT_EQ(MSHM_FileRead(path.c_str(), &s3, &c3, 0), 0);
  EXPECT_EQ(std::string(c3, s3), "changed later");
  MSHM_FileFree(c3, s3);
}

TEST(Mshm, FailuresLeaveErrno) {
  size_t size = 0;
  char* content = nullptr;
  std::string missing = scratch().dir + "/absent";
  EXPECT_EQ(MSHM_FileRead(missing.c_str(), &size, &content, 0), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(MSHM_FileRead(missing.c_str(), &size, &content, 1), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(MSHM_FileRead(scratch().dir.c_str(), &size, &content, 0), -1);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(MSHM_FileRead(nullptr, &size, &content, 0), -1);
  MSHM_FileFree(nullptr, 10);
}

}  // namespace
