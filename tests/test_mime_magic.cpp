// Magic-file loader and matcher, and the whole-file reader under them.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "mime_magic_internal.h"
#include "support.h"

using namespace std::string_literals;

namespace {

// A scratch directory for magic files, removed with its files at exit.
class Scratch {
 public:
  Scratch() {
    char tmpl[] = "/tmp/tarn_magic_XXXXXX";
    char* d = mkdtemp(tmpl);
    if (d != nullptr) dir_ = d;
  }
  ~Scratch() {
    for (const auto& f : files_) unlink(f.c_str());
    for (auto it = dirs_.rbegin(); it != dirs_.rend(); ++it) rmdir(it->c_str());
    rmdir(dir_.c_str());
  }
  const std::string& dir() const { return dir_; }
  std::string write(const std::string& name, std::string_view text) {
    std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary) << text;
    files_.insert(path);
    return path;
  }
  std::string mkdir(const std::string& name) {
    std::string path = dir_ + "/" + name;
    ::mkdir(path.c_str(), 0700);
    dirs_.push_back(path);
    return path;
  }

 private:
  std::string dir_;
  std::set<std::string> files_;
  std::vector<std::string> dirs_;
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

// Runs the matcher over bytes: the result string, or "<none>" when no
// top-level entry matched.
std::string sniff(std::string_view bytes) {
  MIMETYPE_outputstr[0] = '\0';
  int r = softmagic(reinterpret_cast<const unsigned char*>(bytes.data()),
                    static_cast<int>(bytes.size()));
  return r ? std::string(MIMETYPE_outputstr) : "<none>";
}

// One line of magic against bytes.
std::string one(std::string_view line, std::string_view bytes) {
  EXPECT_EQ(load(std::string(line) + "\n"), 0) << line;
  EXPECT_EQ(MIMETYPE_nmagic, 1) << line;
  return sniff(bytes);
}

const struct magic& entry(int i) { return MIMETYPE_magic[i]; }

std::string read_bytes(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

// ---------------------------------------------------------------- parsing

TEST(MagicParse, PdfHeaderEntryAndMatch) {
  ASSERT_EQ(load("0\tstring\t%PDF-\tapplication/pdf\n"), 0);
  ASSERT_EQ(MIMETYPE_nmagic, 1);
  const struct magic& m = entry(0);
  EXPECT_EQ(m.type, MAGIC_STRING);
  EXPECT_EQ(m.reln, '=');
  EXPECT_EQ(m.vallen, 5);
  EXPECT_EQ(m.cont_level, 0);
  EXPECT_EQ(m.offset, 0);
  EXPECT_EQ(m.flag, 0);
  EXPECT_EQ(m.mask, 0xffffffffu);
  EXPECT_STREQ(m.value.s, "%PDF-");
  EXPECT_STREQ(m.desc, "application/pdf");
  EXPECT_EQ(sniff("%PDF-1.4\n%\xe2\xe3\xcf\xd3\n"), "application/pdf");
  EXPECT_EQ(sniff("%PDF"), "<none>");
  EXPECT_EQ(sniff("x%PDF-"), "<none>");
  EXPECT_EQ(sniff(""), "<none>");
}

TEST(MagicParse, NumbersOffsetsAndSizeLetters) {
  ASSERT_EQ(load("010\tbyte\t0x7f\ta\n"
                 "0x10\tlong\t-1\tb\n"
                 "7\tbelong\t0x1ffffffff\tc\n"
                 "0\tbelong\t0x12345678L\td\n"
                 "0\tbyte\t0377\te\n"
                 "0\tubyte\t-1\tf\n"
                 "-4\tbyte\t0\tg\n"),
            0);
  ASSERT_EQ(MIMETYPE_nmagic, 7);
  EXPECT_EQ(entry(0).offset, 8);        // leading 0: octal
  EXPECT_EQ(entry(0).value.l, 0x7fu);
  EXPECT_EQ(entry(1).offset, 16);
  EXPECT_EQ(entry(1).value.l, 0xffffffffu);  // minus taken modulo 2^32
  EXPECT_EQ(entry(2).value.l, 0xffffffffu);  // too large: all ones
  EXPECT_EQ(entry(3).value.l, 0x12345678u);  // trailing size letter skipped
  EXPECT_STREQ(entry(3).desc, "d");
  EXPECT_EQ(entry(4).value.l, 0xffffffffu);  // sign-extended by the type
  EXPECT_EQ(entry(5).value.l, 0xffffffffu);  // unsigned: kept as read
  EXPECT_EQ(entry(5).flag, MAGIC_UNSIGNED);
  EXPECT_EQ(entry(6).offset, -4);
}

TEST(MagicParse, StringEscapes) {
  ASSERT_EQ(load("0\tstring\t\\n\\t\\v\\r\\b\\f\\\\\\q\\ \ta\n"
                 "0\tstring\t\\x41\\x4g\\x\\xZZ\tb\n"
                 "0\tstring\t\\101\\0\\08\\1234\tc\n"
                 "0\tstring\t!not\td\n"),
            0);
  ASSERT_EQ(MIMETYPE_nmagic, 4);
  EXPECT_EQ(std::string(entry(0).value.s, entry(0).vallen), "\n\t\v\r\b\f\\q "s);
  EXPECT_STREQ(entry(0).desc, "a");
  // \x takes up to two hex digits; without any it stands for 'x'.
  EXPECT_EQ(std::string(entry(1).value.s, entry(1).vallen), "A\x04gxxZZ"s);
  // \ and up to three octal digits.
  EXPECT_EQ(std::string(entry(2).value.s, entry(2).vallen), "A\0\0"s "8\123"s "4");
  EXPECT_EQ(entry(2).vallen, 6);
  // For strings a leading '!' belongs to the value.
  EXPECT_EQ(entry(3).reln, '=');
  EXPECT_STREQ(entry(3).value.s, "!not");
}

TEST(MagicParse, RelationsDescriptionsAndNoSeparatorFlag) {
  ASSERT_EQ(load("0\tbyte\t!5\ta\n"
                 "0\tbyte\t>5\tb\n"
                 "0\tbyte\t<5\tc\n"
                 "0\tbyte\t&5\td\n"
                 "0\tbyte\t^5\te\n"
                 "0\tbyte\t=5\tf\n"
                 "0\tbyte\tx\tg\n"
                 "0\tstring\tx\th\n"
                 "0\tbyte\tx\n"
                 "0\tbyte\t5\t\\bi\n"
                 "0\tbyte\t5\t\bj\n"
                 "0\tbyte\t5\tk  with  blanks \n"
                 "0\tbyte\n"),
            0);
  ASSERT_EQ(MIMETYPE_nmagic, 13);
  EXPECT_EQ(entry(0).reln, '!');
  EXPECT_EQ(entry(1).reln, '>');
  EXPECT_EQ(entry(2).reln, '<');
  EXPECT_EQ(entry(3).reln, '&');
  EXPECT_EQ(entry(4).reln, '^');
  EXPECT_EQ(entry(5).reln, '=');
  for (int i = 0; i < 6; ++i) EXPECT_EQ(entry(i).value.l, 5u) << i;
  EXPECT_EQ(entry(6).reln, 'x');
  EXPECT_STREQ(entry(6).desc, "g");
  EXPECT_EQ(entry(7).reln, 'x');  // "x" and a blank: any value, for strings too
  EXPECT_STREQ(entry(7).desc, "h");
  // An 'x' with nothing after it is no relation: it is read as the value.
  EXPECT_EQ(entry(8).reln, '=');
  EXPECT_EQ(entry(8).value.l, 0u);
  EXPECT_STREQ(entry(9).desc, "i");
  EXPECT_EQ(entry(9).nospflag, 1);
  EXPECT_STREQ(entry(10).desc, "j");
  EXPECT_EQ(entry(10).nospflag, 1);
  EXPECT_EQ(entry(11).nospflag, 0);
  EXPECT_STREQ(entry(11).desc, "k  with  blanks ");
  EXPECT_EQ(entry(12).reln, '=');  // no value at all: 0, and no description
  EXPECT_STREQ(entry(12).desc, "");
}

// ------------------------------------------------------------- matching

TEST(MagicMatch, EveryTypeAndByteOrder) {
  const std::string b = "\x01\x02\x03\x04\x05\x06\x07\x08"s;
  // Plain types are read in machine order (little-endian here).
  EXPECT_EQ(one("0\tbyte\t1\tok", b), "ok");
  EXPECT_EQ(one("1\tbyte\t2\tok", b), "ok");
  EXPECT_EQ(one("0\tshort\t0x0201\tok", b), "ok");
  EXPECT_EQ(one("0\tlong\t0x04030201\tok", b), "ok");
  EXPECT_EQ(one("0\tdate\t0x04030201\tok", b), "ok");
  EXPECT_EQ(one("0\tbeshort\t0x0102\tok", b), "ok");
  EXPECT_EQ(one("0\tbeshort\t0x0201\tok", b), "<none>");
  EXPECT_EQ(one("0\tbelong\t0x01020304\tok", b), "ok");
  EXPECT_EQ(one("4\tbedate\t0x05060708\tok", b), "ok");
  EXPECT_EQ(one("0\tleshort\t0x0201\tok", b), "ok");
  EXPECT_EQ(one("0\tlelong\t0x04030201\tok", b), "ok");
  EXPECT_EQ(one("0\tlelong\t0x01020304\tok", b), "<none>");
  EXPECT_EQ(one("4\tledate\t0x08070605\tok", b), "ok");
  EXPECT_EQ(one("2\tstring\t\\003\\004\\005\tok", b), "ok");
}

TEST(MagicMatch, RelationsSignedAndUnsigned) {
  const std::string hi = "\x80"s, five = "\x05"s, six = "\x06"s;
  EXPECT_EQ(one("0\tbyte\t<0\tneg", hi), "neg");     // 0x80 is -128
  EXPECT_EQ(one("0\tubyte\t<0\tneg", hi), "<none>");
  EXPECT_EQ(one("0\tbyte\t>0x7f\tbig", hi), "<none>");
  EXPECT_EQ(one("0\tubyte\t>0x7f\tbig", hi), "big");
  EXPECT_EQ(one("0\tbyte\t0x80\teq", hi), "eq");    // both sides sign-extended
  EXPECT_EQ(one("0\tubyte\t0x80\teq", hi), "eq");
  EXPECT_EQ(one("0\tbyte\t!5\tne", five), "<none>");
  EXPECT_EQ(one("0\tbyte\t!5\tne", six), "ne");
  EXPECT_EQ(one("0\tbyte\t&0x81\tall", "\x81"s), "all");
  EXPECT_EQ(one("0\tbyte\t&0x81\tall", hi), "<none>");
  EXPECT_EQ(one("0\tbyte\t^0x81\tnotall", hi), "notall");
  EXPECT_EQ(one("0\tbyte\t^0x81\tnotall", "\x81"s), "<none>");
  EXPECT_EQ(one("0\tbelong\tx\tany", ""), "any");
  EXPECT_EQ(one("0\tbeshort\t<0\tneg", "\xff\xfe"s), "neg");
  EXPECT_EQ(one("0\tubeshort\t>0xfffd\tbig", "\xff\xfe"s), "big");
  EXPECT_EQ(one("0\tbelong\t<0\tneg", "\x80\0\0\0"s), "neg");
  EXPECT_EQ(one("0\tubelong\t>0x7fffffff\tbig", "\x80\0\0\0"s), "big");
}

TEST(MagicMatch, Masks) {
  const std::string b = "\x12\x34\x56\x78"s;
  EXPECT_EQ(one("0\tbelong&0xffff0000\t0x12340000\tok", b), "ok");
  EXPECT_EQ(one("0\tbelong&0xffff0000\t0x12345678\tok", b), "<none>");
  EXPECT_EQ(one("0\tbelong&0xffL\t0x78\tok", b), "ok");  // size letter after the mask
  EXPECT_EQ(one("0\tbyte&0x1F\t0x12\tok", b), "ok");
  // A short's mask and value are sign-extended alike.
  EXPECT_EQ(one("0\tbeshort&0xfff6\t0xfff0\tadts", "\xff\xf1"s), "adts");
  EXPECT_EQ(one("0\tbeshort&0xfff6\t0xfff0\tadts", "\xff\xf9"s), "adts");
  EXPECT_EQ(one("0\tbeshort&0xfff6\t0xfff0\tadts", "\xff\xfa"s), "<none>");
  EXPECT_EQ(one("0\tubeshort&0xfffe\t=0xfffa\tmp3", "\xff\xfb"s), "mp3");
  ASSERT_EQ(load("0\tbeshort&0xfff6\t0xfff0\tx\n"), 0);
  EXPECT_EQ(entry(0).mask, 0xfffffff6u);
  EXPECT_EQ(entry(0).value.l, 0xfffffff0u);
  ASSERT_EQ(load("0\tubeshort&0xfff6\t0xfff0\tx\n"), 0);
  EXPECT_EQ(entry(0).mask, 0xfff6u);
}

TEST(MagicMatch, StringComparisons) {
  EXPECT_EQ(one("0\tstring\tabc\tok", "abcdef"), "ok");    // over the value's length
  EXPECT_EQ(one("0\tstring\tabc\tok", "abd"), "<none>");
  EXPECT_EQ(one("0\tstring\t>b\tgt", "c"), "gt");         // first differing byte
  EXPECT_EQ(one("0\tstring\t>b\tgt", "a"), "<none>");
  EXPECT_EQ(one("0\tstring\t>b\tgt", "b"), "<none>");
  EXPECT_EQ(one("0\tstring\t<b\tlt", "a"), "lt");
  EXPECT_EQ(one("0\tstring\t<b\tlt", "\xff"s), "<none>");  // bytes compare unsigned
  EXPECT_EQ(one("0\tstring\t=<ar>\tar", "<ar>"), "ar");
  EXPECT_EQ(one("0\tstring\t!x\tbang", "!x"), "bang");
  EXPECT_EQ(one("257\tstring\tustar\\0\ttar", std::string(257, 'x') + "ustar\0"s + "00"), "tar");
  EXPECT_EQ(one("257\tstring\tustar\\0\ttar", std::string(257, 'x') + "ustar "), "<none>");
  // '&' of a string: all of no bits are set; '^': never.
  EXPECT_EQ(one("0\tstring\t&zz\tamp", "ab"), "amp");
  EXPECT_EQ(one("0\tstring\t^zz\tcaret", "ab"), "<none>");
}

TEST(MagicMatch, ValuesPastTheBufferReadAsZeros) {
  const std::string b = "\x01\x02\x03\x04"s;
  EXPECT_EQ(one("2\tbelong\t0x03040000\tpart", b), "part");
  EXPECT_EQ(one("4\tbelong\t0\tzero", b), "zero");
  EXPECT_EQ(one("100000\tlelong\t0\tzero", b), "zero");
  EXPECT_EQ(one("0x7fffffff\tbyte\t0\tzero", b), "zero");
  EXPECT_EQ(one("-4\tbelong\t0\tzero", b), "zero");   // before the start: zeros too
  EXPECT_EQ(one("-2\tbelong\t0x0102\tpart", b), "part");
  EXPECT_EQ(one("3\tstring\t\\004\\0\\0\tend", b), "end");
  EXPECT_EQ(one("0\tbelong\t0\tzero", ""), "zero");
  // Reads stop at nbytes even when more memory follows.
  ASSERT_EQ(load("2\tbyte\t0\tcut\n"), 0);
  MIMETYPE_outputstr[0] = '\0';
  EXPECT_EQ(softmagic(reinterpret_cast<const unsigned char*>("abcdef"), 2), 1);
  EXPECT_STREQ(MIMETYPE_outputstr, "cut");
  MIMETYPE_outputstr[0] = '\0';
  EXPECT_EQ(softmagic(nullptr, 100), 1);  // no buffer: all zeros
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
  const std::string top = "0\tstring\tPTR\ttop\n";
  auto run = [&](const std::string& cont, const std::string& bytes) {
    EXPECT_EQ(load(top + cont + "\n"), 0) << cont;
    return sniff(bytes);
  };
  std::string b = pointer_buffer(100, 40, "\x28\0\0\0"s);  // 40 as a byte, short and long
  EXPECT_EQ(run(">(4.b)\tstring\tHELLO\t\\b+hit", b), "top+hit");
  EXPECT_EQ(run(">(4.B)\tstring\tHELLO\t\\b+hit", b), "top+hit");
  EXPECT_EQ(run(">(4.c)\tstring\tHELLO\t\\b+hit", b), "top+hit");
  EXPECT_EQ(run(">(4.s)\tstring\tHELLO\t\\b+hit", b), "top+hit");
  EXPECT_EQ(run(">(4.h)\tstring\tHELLO\t\\b+hit", b), "top+hit");
  EXPECT_EQ(run(">(4.l)\tstring\tHELLO\t\\b+hit", b), "top+hit");
  EXPECT_EQ(run(">(4)\tstring\tHELLO\t\\b+hit", b), "top+hit");  // long by default
  EXPECT_EQ(run(">(4.b+2)\tstring\tLLO\t\\b+hit", b), "top+hit");
  EXPECT_EQ(run(">(4.b-2)\tstring\t..HELLO\t\\b+hit", b), "top+hit");
  EXPECT_EQ(run(">(4.b+0x2)\tstring\tLLO\t\\b+hit", b), "top+hit");
  EXPECT_EQ(run(">(4.b)\tstring\tHELLX\t\\b+hit", b), "top");
  // The pointer's size matters: a short 0x0128 points elsewhere.
  std::string wide = pointer_buffer(400, 40, "\x28\x01\0\0"s);
  wide.replace(0x128, 5, "WORLD");
  EXPECT_EQ(run(">(4.b)\tstring\tHELLO\t\\b+byte", wide), "top+byte");
  EXPECT_EQ(run(">(4.s)\tstring\tWORLD\t\\b+short", wide), "top+short");
  // The entry keeps its indirect form.
  ASSERT_EQ(load(top + ">(4.s-3)\tbyte\t1\tx\n"), 0);
  EXPECT_EQ(entry(1).flag, MAGIC_INDIR);
  EXPECT_EQ(entry(1).in.type, MAGIC_SHORT);
  EXPECT_EQ(entry(1).in.offset, -3);
  EXPECT_EQ(entry(1).offset, 4);
}

TEST(MagicMatch, IndirectWindowMustLieInsideTheBuffer) {
  const std::string magic = "0\tstring\tPTR\ttop\n>(4.b)\tbyte\t0x2e\t\\b+dot\n";
  ASSERT_EQ(load(magic), 0);
  // The 32-byte window at the pointer must fit: 68 + 32 = 100 does.
  EXPECT_EQ(sniff(pointer_buffer(100, 10, "\x44"s)), "top+dot");
  // 69 + 32 > 100: no match, although the byte itself is there.
  EXPECT_EQ(sniff(pointer_buffer(100, 10, "\x45"s)), "top");
  EXPECT_EQ(sniff(pointer_buffer(100, 10, "\xff"s)), "top");
  // A pointer that goes before the buffer's start never matches.
  ASSERT_EQ(load("0\tstring\tPTR\ttop\n>(4.b-100)\tbyte\tx\t\\b+any\n"), 0);
  EXPECT_EQ(sniff(pointer_buffer(100, 10, "\x10"s)), "top");
  ASSERT_EQ(load("0\tstring\tPTR\ttop\n>(4.l)\tbyte\tx\t\\b+any\n"), 0);
  EXPECT_EQ(sniff(pointer_buffer(100, 10, "\xff\xff\xff\x7f"s)), "top");
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
}

TEST(MagicMatch, ContinuationsBeforeAnyTopLevelEntry) {
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
  EXPECT_EQ(entry(1).flag, MAGIC_ADD);
  EXPECT_EQ(entry(3).flag, MAGIC_ADD | MAGIC_INDIR);
  EXPECT_EQ(sniff("ABCD!"), "top+cd");        // '!' must be one byte further
  EXPECT_EQ(sniff("ABCDx!"), "top+cd+bang");
  EXPECT_EQ(sniff("xxABCD"), "<none>");
  // ADD with an indirect offset: the pointer is read at 2 + 0, the value
  // at the pointer (absolute).
  std::string b(80, '.');
  b.replace(0, 3, "AB\x28"s);
  b[0x28] = '@';
  EXPECT_EQ(sniff(b), "top+at");
  // The table is left as it was: offsets are not moved for good.
  EXPECT_EQ(entry(1).offset, 0);
  EXPECT_EQ(entry(2).offset, 1);
}

TEST(MagicMatch, AddAfterNumbersAndStrings) {
  // The end of a match: offset + size for numbers, + length for strings.
  ASSERT_EQ(load("0\tbelong\t0x01020304\ttop\n>&0\tbyte\t5\t\\b+5\n"), 0);
  EXPECT_EQ(sniff("\x01\x02\x03\x04\x05"s), "top+5");
  ASSERT_EQ(load("0\tbeshort\t0x0102\ttop\n>&0\tbyte\t3\t\\b+3\n"), 0);
  EXPECT_EQ(sniff("\x01\x02\x03"s), "top+3");
  ASSERT_EQ(load("0\tstring\t>\\0\ttop\n>&0\tbyte\t0x0a\t\\b+nl\n"), 0);
  EXPECT_EQ(sniff("hello\nrest"), "top+nl");  // an empty value: the string ends at a line end
}

TEST(MagicMatch, SeparatorBlankGoesToStandardOutput) {
  ASSERT_EQ(load("0\tstring\tAB\ttop\n>0\tbyte\tx\tcont\n>0\tbyte\tx\tmore\n"), 0);
  testing::internal::CaptureStdout();
  std::string got = sniff("AB");
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(got, "topcontmore");  // the result string never gets the blank
  EXPECT_EQ(out, " ");            // and only one is due
  ASSERT_EQ(load("0\tstring\tAB\ttop\n>0\tbyte\tx\t\\bcont\n>0\tbyte\tx\n"), 0);
  testing::internal::CaptureStdout();
  got = sniff("AB");
  out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(got, "topcont");
  EXPECT_EQ(out, "");
  ASSERT_EQ(load("0\tstring\tAB\n>0\tbyte\tx\tcont\n"), 0);
  testing::internal::CaptureStdout();
  got = sniff("AB");
  out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(got, "cont");
  EXPECT_EQ(out, "");  // nothing was written before it
}

TEST(MagicMatch, DescriptionIsNeverAFormat) {
  EXPECT_EQ(one("0\tbyte\tx\t%s%n%d%%", "\x05"s), "%s%n%d%%");
}

TEST(MagicMatch, ResultStringIsBounded) {
  std::string text = "0\tbyte\tx\t" + std::string(49, 'a') + "\n";
  for (int i = 0; i < 40; ++i) text += ">0\tbyte\tx\t\\b" + std::string(49, 'b') + "\n";
  ASSERT_EQ(load(text), 0);
  testing::internal::CaptureStdout();
  std::string got = sniff("x");
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(got.size(), 1023u);
  EXPECT_EQ(got.substr(0, 49), std::string(49, 'a'));
}

TEST(MagicMatch, DebugTracesComparisons) {
  ASSERT_EQ(load("0\tstring\tAB\tab\n"), 0);
  MIMETYPE_debug = 1;
  testing::internal::CaptureStderr();
  std::string got = sniff("AB\x01"s);
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
  const std::string expected =
      "type bogus\t1\tnever/loaded invalid" + at + "4\n" +
      "type string/B\tAVI\tnever/loaded invalid" + at + "5\n" +
      "offset \tstring\tNOOFFSET\ttext/x-nooffset invalid" + at + "6\n" +
      "string too long: " + std::string(40, 'A') + "\n" +
      "indirect offset type q invalid" + at + "9\n" +
      "missing ')' in indirect offset" + at + "10\n" +
      "offset (4.l)\tbyte\t3\tnever/loaded invalid" + at + "11\n" +
      "type (4.l)\tbyte\t3\tnever/loaded invalid" + at + "11\n" +
      "offset  invalid" + at + "12\n" +
      "type  invalid" + at + "12\n";
  EXPECT_EQ(err, expected);

  ASSERT_EQ(MIMETYPE_nmagic, 9);
  EXPECT_STREQ(entry(0).desc, "text/x-good1");
  EXPECT_STREQ(entry(1).value.s, "NOOFFSET");  // kept, at offset 0
  EXPECT_EQ(entry(1).offset, 0);
  EXPECT_EQ(entry(2).vallen, 31);              // cut to 31 bytes
  EXPECT_EQ(std::string(entry(2).value.s), std::string(31, 'A'));
  EXPECT_STREQ(entry(2).desc, "text/x-long");
  EXPECT_STREQ(entry(3).desc, "");
  EXPECT_EQ(entry(4).in.type, MAGIC_LONG);     // a bad size letter leaves a long
  EXPECT_STREQ(entry(4).desc, "text/x-badsize");
  EXPECT_EQ(entry(5).flag, MAGIC_INDIR);
  EXPECT_STREQ(entry(5).desc, "text/x-noparen");
  EXPECT_STREQ(entry(6).value.s, "ends-with-backslash");
  EXPECT_STREQ(entry(6).desc, "");
  EXPECT_EQ(entry(7).type, MAGIC_BYTE);
  EXPECT_STREQ(entry(8).desc, "a-description-that-is-far-too-long-to-keep-all-of");
  EXPECT_EQ(std::strlen(entry(8).desc), 49u);

  // The good lines work.
  EXPECT_EQ(sniff("GOOD1"), "text/x-good1");
  EXPECT_EQ(sniff("GOOD3"), "a-description-that-is-far-too-long-to-keep-all-of");
}

TEST(MagicLoad, BlankLinesCommentsCrLfAndOverlongLines) {
  std::string text = "# comment\r\n\r\n\n0\tstring\tA\ttext/a\r\n";
  text += "0\tstring\tB\t" + std::string(9000, 'b') + "\n";
  text += std::string(9000, '>') + "\n";   // only its first 8192 bytes are read
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
  std::string a = scratch().write("list-a.magic", "0\tstring\tA\ttext/a\n");
  std::string b = scratch().write("list-b.magic", "0\tstring\tB\ttext/b\n0\tnope\t1\tx\n");
  std::string missing = scratch().dir() + "/no-such.magic";

  std::string list = a + ":" + missing + ":" + b;
  testing::internal::CaptureStderr();
  EXPECT_EQ(apprentice(list.c_str(), 1), 1);  // the highest result of the files
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(MIMETYPE_nmagic, 2);
  EXPECT_EQ(err.find("can't read"), std::string::npos);  // a missing file is no news
  EXPECT_EQ(sniff("B"), "text/b");

  list = a + ":" + missing;
  testing::internal::CaptureStderr();
  EXPECT_EQ(apprentice(list.c_str(), 1), 0);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(MIMETYPE_nmagic, 1);

  testing::internal::CaptureStderr();
  EXPECT_EQ(apprentice(missing.c_str(), 1), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "couldn't find any magic files\n");
  EXPECT_EQ(MIMETYPE_nmagic, 0);
  EXPECT_EQ(sniff("A"), "<none>");

  std::string dir = scratch().mkdir("adir");
  testing::internal::CaptureStderr();
  EXPECT_EQ(apprentice(dir.c_str(), 1), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "can't read magic file " + dir + "\ncouldn't find any magic files\n");

  testing::internal::CaptureStderr();
  EXPECT_EQ(apprentice(nullptr, 1), -1);
  EXPECT_EQ(apprentice("", 1), -1);
  testing::internal::GetCapturedStderr();

  std::string empty = scratch().write("empty.magic", "");
  EXPECT_EQ(apprentice(empty.c_str(), 1), 0);
  EXPECT_EQ(MIMETYPE_nmagic, 0);
}

TEST(MagicLoadDeathTest, WithoutCheckAMissingFileEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::string missing = scratch().dir() + "/gone.magic";
  EXPECT_EXIT(apprentice(missing.c_str(), 0), testing::ExitedWithCode(1),
              "couldn't find any magic files");
}

TEST(MagicLoad, TableGrowsBeyondItsFirstRoom) {
  std::string text;
  for (int i = 0; i < 6000; ++i) text += "0\tbelong\t" + std::to_string(i + 1) + "\tt/" + std::to_string(i) + "\n";
  ASSERT_EQ(load(text), 0);
  ASSERT_EQ(MIMETYPE_nmagic, 6000);
  EXPECT_STREQ(entry(4999).desc, "t/4999");
  EXPECT_STREQ(entry(5999).desc, "t/5999");
  EXPECT_EQ(sniff("\0\0\x17\x70"s), "t/5999");  // 6000
  EXPECT_EQ(sniff("\0\0\0\x01"s), "t/0");
}

TEST(MagicLoad, QuillnetPathsFollowTheRoot) {
  std::string root = scratch().mkdir("root");
  scratch().mkdir("root/httpd");
  scratch().mkdir("root/httpd/conf");
  scratch().write("root/httpd/conf/magic", "0\tstring\tROOT\ttext/x-root\n");
  setenv("QUILLNET_ROOT", root.c_str(), 1);
  int r = apprentice("/quillnet/httpd/conf/magic", 1);
  unsetenv("QUILLNET_ROOT");
  EXPECT_EQ(r, 0);
  EXPECT_EQ(sniff("ROOT"), "text/x-root");
}

// Lines stitched from the pieces of the format, in any order, and random
// buffers of every short length: the loader and matcher must stay inside
// their lines and buffers (the sanitizers watch) and keep their counts.
TEST(MagicLoad, RandomLinesAndBuffers) {
  const char* pieces[] = {">",     ">>",   "&",       "(",      ")",      ".",      "b",    "L",
                          "+",     "-",    "0",       "0x",     "7",      "4",      "\t",   " ",
                          "byte",  "u",    "string",  "belong", "lelong", "date",   "x",    "=",
                          "!",     "<",    "^",       "\\",     "\\x",    "\\1",    "\\b",  "\b",
                          "text/", "a",    "&0xff",   "(4.s)",  "(0.l+",  "string/B"};
  std::mt19937 rng(7);
  std::string text;
  for (int line = 0; line < 3000; ++line) {
    int n = static_cast<int>(rng() % 12);
    for (int k = 0; k < n; ++k) text += pieces[rng() % std::size(pieces)];
    text += '\n';
  }
  std::string err;
  int r = load(text, &err);
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
      std::vector<unsigned char> buf(static_cast<size_t>(len));  // exactly len bytes on the heap
      for (auto& c : buf) c = static_cast<unsigned char>(rng());
      MIMETYPE_outputstr[0] = '\0';
      testing::internal::CaptureStdout();
      softmagic(buf.data(), len);
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
  for (int i = 0; i < size && at + i < b.size(); ++i) {
    int shift = big ? 8 * (size - 1 - i) : 8 * i;
    b[at + i] = static_cast<char>((v >> shift) & 0xff);
  }
}

TEST(MagicDefaultFile, LoadsWithoutComplaint) {
  std::string path = default_magic();
  testing::internal::CaptureStderr();
  EXPECT_EQ(apprentice(path.c_str(), 1), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(MIMETYPE_nrejected, 0);
  EXPECT_EQ(MIMETYPE_nwarned, 0);
  EXPECT_GT(MIMETYPE_nmagic, 150);
  std::set<std::string> types;
  for (int i = 0; i < MIMETYPE_nmagic; ++i)
    if (entry(i).desc[0] != '\0') types.insert(entry(i).desc);
  EXPECT_GE(types.size(), 60u);
  for (const auto& t : types) EXPECT_NE(t.find('/'), std::string::npos) << t;
}

// Every branch of the shipped file ends in exactly one MIME type: for each
// entry with continuations, buffers that carry its value plus random bytes,
// or the value of one of its continuations (and that value plus and minus
// one), must give one type, never none or two run together.
TEST(MagicDefaultFile, BranchesAlwaysEndInOneType) {
  std::string path = default_magic();
  ASSERT_EQ(apprentice(path.c_str(), 1), 0);
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
          ASSERT_NE(got, "") << "entry " << i << " line desc " << entry(c).desc;
          ASSERT_EQ(std::count(got.begin(), got.end(), '/'), 1) << got << " entry " << i;
        }
      }
    }
  }
  EXPECT_GT(checked, 1000);
}

TEST(MagicDefaultFile, RealFilesFromTheCorpus) {
  ASSERT_EQ(apprentice(default_magic().c_str(), 1), 0);
  struct Expect {
    const char* suffix;
    const char* type;
  };
  const Expect expected[] = {
      {".tnef", "application/ms-tnef"}, {"winmail.dat", "application/ms-tnef"},
      {".doc", "application/msword"},   {".jpg", "image/jpeg"},
      {".png", "image/png"},            {".pdf", "application/pdf"},
      {".mp3", "audio/mpeg"},           {".rtf", "application/rtf"},
  };
  int seen = 0;
  std::vector<std::string> files = tarntest::corpus_files("tnef");
  for (const auto& f : tarntest::corpus_files("encodings")) files.push_back(f);
  if (files.empty()) GTEST_SKIP() << "no corpus";
  for (const auto& f : files) {
    for (const auto& e : expected) {
      std::string_view name(f);
      std::string_view suffix(e.suffix);
      if (name.size() < suffix.size() || name.substr(name.size() - suffix.size()) != suffix) continue;
      std::string bytes = read_bytes(f);
      if (bytes.size() > 8191) bytes.resize(8191);
      EXPECT_EQ(sniff(bytes), e.type) << f;
      ++seen;
    }
  }
  EXPECT_GT(seen, 40);
}

// ------------------------------------------------ Debian's Apache magic file
//
// The test reads the file named by TARN_APACHE_MAGIC (etc/apache2/magic from
// Debian's apache2 package, unpacked, nothing installed).

std::string apache_magic() {
  const char* p = std::getenv("TARN_APACHE_MAGIC");
  if (p == nullptr || *p == '\0') return "";
  return access(p, R_OK) == 0 ? p : "";
}

// Lines whose type keyword is none of ours ("string/B", "regex", ...).
int count_foreign_lines(const std::string& text) {
  static const std::set<std::string> known = {"byte", "short", "long", "string", "date", "beshort",
                                              "belong", "bedate", "leshort", "lelong", "ledate"};
  int n = 0;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream words(line);
    std::string offset, type;
    words >> offset >> type;
    type = type.substr(0, type.find('&'));
    if (!type.empty() && type[0] == 'u') type.erase(0, 1);
    if (!known.count(type)) ++n;
  }
  return n;
}

std::string sniff_type(std::string_view bytes) {
  std::string got = sniff(bytes);
  return got.substr(0, got.find('\t'));
}

TEST(MagicApacheFile, LoadsAndCountsTheLinesItCannotRead) {
  std::string path = apache_magic();
  if (path.empty()) GTEST_SKIP() << "TARN_APACHE_MAGIC not set";
  testing::internal::CaptureStderr();
  int r = apprentice(path.c_str(), 1);
  std::string err = testing::internal::GetCapturedStderr();
  int foreign = count_foreign_lines(read_bytes(path));
  EXPECT_GT(foreign, 0);
  EXPECT_EQ(r, 1);
  EXPECT_EQ(MIMETYPE_nrejected, foreign);
  EXPECT_NE(err.find("type string/B\tAVI"), std::string::npos);
  EXPECT_GT(MIMETYPE_nmagic, 250);
}

TEST(MagicApacheFile, CommonSamples) {
  std::string path = apache_magic();
  if (path.empty()) GTEST_SKIP() << "TARN_APACHE_MAGIC not set";
  testing::internal::CaptureStderr();
  apprentice(path.c_str(), 1);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(sniff_type("%PDF-1.5\n"), "application/pdf");
  EXPECT_EQ(sniff_type("\x89PNG\r\n\x1a\n\0\0\0\rIHDR"s), "image/png");
  EXPECT_EQ(sniff_type("GIF89a\x01\0\x01\0"s), "image/gif");
  EXPECT_EQ(sniff_type("\xff\xd8\xff\xe0\0\x10JFIF\0"s), "image/jpeg");
  EXPECT_EQ(sniff_type("PK\x03\x04\x14\0\0\0"s), "application/x-zip");
  EXPECT_EQ(sniff_type("RIFF\x24\0\0\0WAVEfmt "s), "audio/x-wav");
  EXPECT_EQ(sniff_type("%!PS-Adobe-3.0\n"), "application/postscript");
  EXPECT_EQ(sniff_type("{\\rtf1\\ansi"), "text/rtf");
  EXPECT_EQ(sniff_type("ID3\x03\0\0\0\0\0\0"s), "audio/mpeg");
  std::string tar(512, '\0');
  tar.replace(0, 5, "a.txt");
  tar.replace(257, 8, "ustar\0" "00"s);
  EXPECT_EQ(sniff_type(tar), "application/x-tar");
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
    EXPECT_EQ(got_size, size);
    EXPECT_EQ(std::string(content, got_size), text);
    EXPECT_EQ(content[size], '\0');
    MSHM_FileFree(content, got_size);
  }
}

TEST(Mshm, KeptFilesAreCachedByPath) {
  std::string path = scratch().write("kept", "kept content");
  size_t s1 = 0, s2 = 0;
  char *c1 = nullptr, *c2 = nullptr;
  ASSERT_EQ(MSHM_FileRead(path.c_str(), &s1, &c1, 1), 0);
  std::string next = scratch().write("kept.new", "changed later");
  ASSERT_EQ(rename(next.c_str(), path.c_str()), 0);
  ASSERT_EQ(MSHM_FileRead(path.c_str(), &s2, &c2, 1), 0);
  EXPECT_EQ(c1, c2);
  EXPECT_EQ(s2, s1);
  MSHM_FileFree(c1, s1);  // ignored for kept content
  EXPECT_EQ(std::string(c2, s2), "kept content");
  // Without the flag the file is read as it is now.
  size_t s3 = 0;
  char* c3 = nullptr;
  ASSERT_EQ(MSHM_FileRead(path.c_str(), &s3, &c3, 0), 0);
  EXPECT_EQ(std::string(c3, s3), "changed later");
  MSHM_FileFree(c3, s3);
}

TEST(Mshm, FailuresLeaveErrno) {
  size_t size = 0;
  char* content = nullptr;
  std::string missing = scratch().dir() + "/absent";
  EXPECT_EQ(MSHM_FileRead(missing.c_str(), &size, &content, 0), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(MSHM_FileRead(missing.c_str(), &size, &content, 1), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(MSHM_FileRead(scratch().dir().c_str(), &size, &content, 0), -1);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(MSHM_FileRead(nullptr, &size, &content, 0), -1);
  MSHM_FileFree(nullptr, 10);
}

}  // namespace
