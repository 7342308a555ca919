// Output sink: where each byte goes and how the counters move, for the
// stream, the fixed buffer, the growing buffer and both at once.  Fixed
// buffers are heap blocks of exactly their size, so AddressSanitizer proves
// that nothing lands outside them.

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "mime_disp_internal.h"

// The per-message file prefix is computed by the saved-parts code; the sink
// does not need it when that is not part of this program.
__attribute__((weak)) void init_cache_path(MIME_DISP*) {}

namespace {

uintptr_t addr(const void* p) { return reinterpret_cast<uintptr_t>(p); }

// A context writing into a fixed heap buffer of exactly `size` bytes.
struct Fixed {
  explicit Fixed(long size, int extra_flags = 0) : buf(new char[size > 0 ? size : 1]), size(size) {
    d = imapDE;
    d.disp_flag = MIME_DISP_OUT_FIXED | extra_flags;
    mime_disp_setbuf(&d, buf.get(), size);
  }
  std::unique_ptr<char[]> buf;
  long size;
  MIME_DISP d;
};

// A context writing into the growing buffer; released at the end.
struct Growing {
  explicit Growing(int extra_flags = 0) {
    d = imapDE;
    d.disp_flag = MIME_DISP_OUT_GROWING | extra_flags;
  }
  ~Growing() { mime_disp_shutdown(&d); }
  std::string text() const { return std::string(d.pcResult, static_cast<size_t>(d.nResultSize)); }
  long capacity() const { return d.nResultSize + d.nTotalBytesRetrict; }
  MIME_DISP d;
};

// A stream that collects what is written to it.
struct Stream {
  Stream() { fp = open_memstream(&data, &len); }
  ~Stream() {
    if (fp != nullptr) std::fclose(fp);
    std::free(data);
  }
  std::string text() {
    std::fflush(fp);
    return std::string(data, len);
  }
  FILE* fp = nullptr;
  char* data = nullptr;
  size_t len = 0;
};

TEST(OutputFixed, CutTextLeavesNinePlusNulAndTheCountNegative) {
  Fixed f(10);
  EXPECT_EQ(MMIME_Fprintf(&f.d, "%s-%d", "abcdefghij", 1234), 15);
  EXPECT_EQ(std::memcmp(f.buf.get(), "abcdefghi", 10), 0);  // 9 characters and the NUL
  EXPECT_EQ(f.d.nTotalBytesRetrict, -5);
  EXPECT_EQ(addr(f.d.pcOutBuf), addr(f.buf.get()) + 15);
  // Nothing more lands in the buffer.
  EXPECT_EQ(MMIME_Fputs(&f.d, "more"), 0);
  EXPECT_EQ(MMIME_Fprintf(&f.d, "x"), 0);
  EXPECT_EQ(MMIME_Fwrite(&f.d, "yy", 2, 1), 0);
  EXPECT_EQ(std::memcmp(f.buf.get(), "abcdefghi", 10), 0);
  EXPECT_EQ(f.d.nTotalBytesRetrict, -5);
  EXPECT_EQ(addr(f.d.pcOutBuf), addr(f.buf.get()) + 15);
}

TEST(OutputFixed, AStreamBesideAFullBufferStillGetsEverything) {
  Stream s;
  Fixed f(10, MIME_DISP_OUT_STREAM);
  f.d.pfOut = s.fp;
  EXPECT_EQ(MMIME_Fprintf(&f.d, "%s", "0123456789ABCDE"), 15);
  FILE* other = std::tmpfile();
  ASSERT_NE(other, nullptr);
  const int fputs_result = std::fputs("tail", other);
  std::fclose(other);
  EXPECT_EQ(MMIME_Fputs(&f.d, "tail"), fputs_result);
  EXPECT_EQ(s.text(), "0123456789ABCDEtail");
  EXPECT_STREQ(f.buf.get(), "012345678");
}

TEST(OutputFixed, OneByteBufferHoldsOnlyTheNul) {
  {
    Fixed f(1);
    EXPECT_EQ(MMIME_Fprintf(&f.d, "abc"), 3);
    EXPECT_EQ(f.buf[0], '\0');
    EXPECT_EQ(f.d.nTotalBytesRetrict, -2);
    EXPECT_EQ(addr(f.d.pcOutBuf), addr(f.buf.get()) + 3);
  }
  {
    Fixed f(1);
    EXPECT_EQ(MMIME_Fputs(&f.d, ""), 0);  // empty text: the room stays
    EXPECT_EQ(f.d.nTotalBytesRetrict, 1);
    EXPECT_EQ(MMIME_Fwrite(&f.d, "abc", 3, 1), 1);
    EXPECT_EQ(f.buf[0], '\0');
    EXPECT_EQ(f.d.nTotalBytesRetrict, 0);
    EXPECT_EQ(addr(f.d.pcOutBuf), addr(f.buf.get()) + 1);
    EXPECT_EQ(MMIME_Fputs(&f.d, "z"), 0);
  }
}

TEST(OutputFixed, PiecesFollowEachOtherAndAnExactFillKeepsTheNulInside) {
  Fixed f(8);
  EXPECT_EQ(MMIME_Fputs(&f.d, "ab"), 2);
  EXPECT_EQ(MMIME_Fprintf(&f.d, "%c", 'c'), 1);
  EXPECT_EQ(MMIME_Fwrite(&f.d, "de", 2, 1), 2);
  EXPECT_STREQ(f.buf.get(), "abcde");
  EXPECT_EQ(f.d.nTotalBytesRetrict, 3);
  EXPECT_EQ(f.d.pcOutBuf, f.buf.get() + 5);
  // Three raw bytes into the last three: the count reaches zero and the
  // text stays terminated inside the buffer.
  EXPECT_EQ(MMIME_Fwrite(&f.d, "fgh", 3, 1), 3);
  EXPECT_EQ(f.d.nTotalBytesRetrict, 0);
  EXPECT_EQ(addr(f.d.pcOutBuf), addr(f.buf.get()) + 8);
  EXPECT_STREQ(f.buf.get(), "abcdefg");
  EXPECT_EQ(MMIME_Fwrite(&f.d, "i", 1, 1), 0);

  // A formatted text of exactly the buffer's size.
  Fixed g(8);
  EXPECT_EQ(MMIME_Fprintf(&g.d, "%s", "12345678"), 8);
  EXPECT_STREQ(g.buf.get(), "1234567");
  EXPECT_EQ(g.d.nTotalBytesRetrict, 0);
  // One byte short of the size fits whole.
  Fixed h(8);
  EXPECT_EQ(MMIME_Fputs(&h.d, "1234567"), 7);
  EXPECT_STREQ(h.buf.get(), "1234567");
  EXPECT_EQ(h.d.nTotalBytesRetrict, 1);
}

TEST(OutputFixed, FwriteTakesSizeNotSizeTimesNmembAndStopsAtTheLimit) {
  Fixed f(32);
  EXPECT_EQ(MMIME_Fwrite(&f.d, "abcdefghijklmnop", 5, 3), 5);
  EXPECT_STREQ(f.buf.get(), "abcde");
  EXPECT_EQ(f.d.nTotalBytesRetrict, 27);

  Fixed g(4);
  EXPECT_EQ(MMIME_Fwrite(&g.d, "abcdefghij", 10, 1), 4);
  EXPECT_STREQ(g.buf.get(), "abc");
  EXPECT_EQ(g.d.nTotalBytesRetrict, 0);
}

TEST(OutputFixed, FixedWinsOverGrowingAndNeedsABuffer) {
  Fixed f(16, MIME_DISP_OUT_GROWING);
  EXPECT_EQ(MMIME_Fputs(&f.d, "fixed"), 5);
  EXPECT_EQ(MMIME_Fwrite(&f.d, "!", 1, 1), 1);
  EXPECT_STREQ(f.buf.get(), "fixed!");
  EXPECT_EQ(f.d.pcResult, nullptr);
  EXPECT_EQ(f.d.nResultSize, 0);
  // Full fixed buffer: the growing one is still not used.
  Fixed g(2, MIME_DISP_OUT_GROWING);
  EXPECT_EQ(MMIME_Fputs(&g.d, "abc"), 3);
  EXPECT_EQ(MMIME_Fputs(&g.d, "abc"), 0);
  EXPECT_EQ(g.d.pcResult, nullptr);

  // The fixed-buffer page context used without a buffer writes nothing.
  MIME_DISP d = mailhdrDE;
  EXPECT_EQ(MMIME_Fputs(&d, "x"), 0);
  EXPECT_EQ(MMIME_Fprintf(&d, "%d", 5), 0);
  EXPECT_EQ(MMIME_Fwrite(&d, "x", 1, 1), 0);
}

TEST(OutputTargets, NoTargetWritesNothingAndTheStreamGetsTheFullRequest) {
  MIME_DISP d = imapDE;
  d.disp_flag = 0;
  EXPECT_EQ(MMIME_Fputs(&d, "abc"), 0);
  EXPECT_EQ(MMIME_Fprintf(&d, "%s", "abc"), 0);
  EXPECT_EQ(MMIME_Fwrite(&d, "abc", 3, 1), 0);

  Stream s;
  d.disp_flag = MIME_DISP_OUT_STREAM;
  d.pfOut = s.fp;
  EXPECT_EQ(MMIME_Fprintf(&d, "<%d:%s>", 42, "ok"), 7);
  EXPECT_EQ(MMIME_Fwrite(&d, "abcdef", 2, 3), 3);  // fwrite's item count
  EXPECT_GE(MMIME_Fputs(&d, "end"), 0);
  EXPECT_EQ(s.text(), "<42:ok>abcdefend");
  EXPECT_EQ(d.pcResult, nullptr);

  // Null texts and contexts are ignored.
  EXPECT_EQ(MMIME_Fputs(&d, nullptr), 0);
  EXPECT_EQ(MMIME_Fputs(nullptr, "x"), 0);
  EXPECT_EQ(MMIME_Fprintf(nullptr, "x"), 0);
  EXPECT_EQ(MMIME_Fwrite(nullptr, "x", 1, 1), 0);
  EXPECT_EQ(s.text(), "<42:ok>abcdefend");
}

TEST(OutputTargets, StreamAndGrowingBufferBothGetTheTextTheStreamResultIsReturned) {
  FILE* ro = std::fopen("/dev/null", "r");  // every write to it fails
  ASSERT_NE(ro, nullptr);
  Growing g(MIME_DISP_OUT_STREAM);
  g.d.pfOut = ro;
  EXPECT_LT(MMIME_Fprintf(&g.d, "%s", "both"), 0);
  EXPECT_EQ(MMIME_Fwrite(&g.d, "12345", 5, 3), 0);  // the stream took no item
  EXPECT_EQ(g.text(), "both12345");
  std::fclose(ro);

  Stream s;
  Growing h(MIME_DISP_OUT_STREAM);
  h.d.pfOut = s.fp;
  EXPECT_EQ(MMIME_Fprintf(&h.d, "%05d", 42), 5);
  EXPECT_EQ(s.text(), "00042");
  EXPECT_EQ(h.text(), "00042");
}

TEST(OutputGrowing, FirstWriteTakes64KiBAndTheTextStaysTerminated) {
  Growing g;
  EXPECT_EQ(MMIME_Fputs(&g.d, "hello"), 5);
  ASSERT_NE(g.d.pcResult, nullptr);
  EXPECT_EQ(g.d.nResultSize, 5);
  EXPECT_EQ(g.d.nTotalBytesRetrict, 65531);
  EXPECT_EQ(g.d.pcOutBuf, g.d.pcResult + 5);
  EXPECT_EQ(MMIME_Fprintf(&g.d, " %s %d", "world", 7), 8);
  EXPECT_EQ(MMIME_Fwrite(&g.d, "!?", 1, 1), 1);
  EXPECT_STREQ(g.d.pcResult, "hello world 7!");
  EXPECT_EQ(g.d.nResultSize, 14);
  EXPECT_EQ(g.capacity(), 65536);

  char* out = nullptr;
  long size = 0;
  mime_disp_getresult(&g.d, &out, &size);
  EXPECT_EQ(out, g.d.pcResult);
  EXPECT_EQ(size, 14);
}

TEST(OutputGrowing, GrowthTakesTheLargerOfBothCandidates) {
  // Filling to 65,530 bytes, then 101 more: 1.7 x 65,631 = 111,572.7 beats
  // 1.7 x 65,536 = 111,411.2.
  Growing g;
  const std::string fill(65530, 'f');
  EXPECT_EQ(MMIME_Fputs(&g.d, fill.c_str()), 65530);
  EXPECT_EQ(g.capacity(), 65536);
  const std::string more(101, 'm');
  EXPECT_EQ(MMIME_Fprintf(&g.d, "%s", more.c_str()), 101);
  EXPECT_EQ(g.capacity(), 111572);
  EXPECT_EQ(g.d.nResultSize, 65631);
  EXPECT_EQ(g.text(), fill + more);
  EXPECT_EQ(g.d.pcResult[g.d.nResultSize], '\0');

  // A text exactly as long as the free room does not fit with its NUL:
  // the tie of the two candidates goes to 1.7 x 65,536.
  Growing t;
  const std::string exact(65536, 'e');
  EXPECT_EQ(MMIME_Fputs(&t.d, exact.c_str()), 65536);
  EXPECT_EQ(t.capacity(), 111411);
  EXPECT_EQ(t.d.nTotalBytesRetrict, 111411 - 65536);

  // Grown directly with a small request, the present capacity wins.
  Growing a;
  ASSERT_NE(s_DynamicBufInit(&a.d), nullptr);
  EXPECT_EQ(s_DynamicBufExt(&a.d, 10), 0);
  EXPECT_EQ(a.capacity(), 111411);
  EXPECT_EQ(a.d.pcOutBuf, a.d.pcResult);
}

TEST(OutputGrowing, MebibyteWritesAccumulateExactly) {
  Growing g;
  std::string expected;
  const std::string mib(1 << 20, 'x');
  EXPECT_EQ(MMIME_Fputs(&g.d, mib.c_str()), 1 << 20);
  expected += mib;
  EXPECT_EQ(g.capacity(), 1782579);  // 1.7 x 1 MiB beats 1.7 x 64 KiB
  std::string raw(1 << 20, '\0');
  for (size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<char>('a' + i % 26);
  EXPECT_EQ(MMIME_Fwrite(&g.d, raw.data(), raw.size(), 1), 1 << 20);
  expected += raw;
  EXPECT_EQ(g.capacity(), 3565158);  // 1.7 x 2 MiB beats 1.7 x 1,782,579
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(MMIME_Fprintf(&g.d, "<%d>", i), i < 10 ? 3 : i < 100 ? 4 : 5);
    expected += "<" + std::to_string(i) + ">";
  }
  const std::string big(3 << 20, 'y');
  EXPECT_EQ(MMIME_Fprintf(&g.d, "[%s]", big.c_str()), (3 << 20) + 2);
  expected += "[" + big + "]";
  EXPECT_EQ(g.d.nResultSize, static_cast<long>(expected.size()));
  EXPECT_TRUE(g.text() == expected);
  EXPECT_EQ(g.d.pcResult[g.d.nResultSize], '\0');
  EXPECT_GT(g.d.nTotalBytesRetrict, 0);
}

TEST(OutputGrowing, LongFormatsReachStreamAndBufferWhole) {
  Stream s;
  Growing g(MIME_DISP_OUT_STREAM);
  g.d.pfOut = s.fp;
  const std::string part(200000, 'p');
  const int n = MMIME_Fprintf(&g.d, "%s|%s|%08x", part.c_str(), part.c_str(), 0xbeef);
  EXPECT_EQ(n, 400010);
  const std::string expected = part + "|" + part + "|0000beef";
  EXPECT_TRUE(s.text() == expected);
  EXPECT_TRUE(g.text() == expected);
}

TEST(OutputGrowing, FwriteGrowsForSizeTimesNmembButTakesSize) {
  Growing g;
  const std::string fill(65530, 'f');
  MMIME_Fputs(&g.d, fill.c_str());
  // 4 x 3 = 12 bytes asked for: more than the 6 free, so the buffer grows
  // to 1.7 x (65,530 + 12) = 111,421.4; only 4 bytes are taken.
  EXPECT_EQ(MMIME_Fwrite(&g.d, "abcdefghijkl", 4, 3), 4);
  EXPECT_EQ(g.capacity(), 111421);
  EXPECT_EQ(g.d.nResultSize, 65534);
  EXPECT_EQ(g.text(), fill + "abcd");
  // No item asked for, yet its bytes are taken: the room must still be there.
  const std::string big(200000, 'b');
  EXPECT_EQ(MMIME_Fwrite(&g.d, big.data(), big.size(), 0), 200000);
  EXPECT_TRUE(g.text() == fill + "abcd" + big);
  EXPECT_EQ(g.d.pcResult[g.d.nResultSize], '\0');
}

TEST(OutputGrowing, FailedGrowthDropsTheBufferAndLaterWritesDoNothing) {
  Growing g;
  ASSERT_EQ(MMIME_Fputs(&g.d, "abc"), 3);
  // A count too large for any buffer: growth is refused.
  g.d.nResultSize = LONG_MAX / 2;
  EXPECT_EQ(s_DynamicBufExt(&g.d, 10), -1);
  EXPECT_EQ(g.d.pcResult, nullptr);
  EXPECT_EQ(g.d.pcOutBuf, nullptr);
  EXPECT_EQ(MMIME_Fputs(&g.d, "more"), 0);
  EXPECT_EQ(MMIME_Fwrite(&g.d, "more", 4, 1), 0);
  EXPECT_EQ(g.d.pcResult, nullptr);
}

TEST(OutputGrowing, AfterShutdownANewBufferStartsBehindTheOldCount) {
  Growing g;
  ASSERT_EQ(MMIME_Fputs(&g.d, "first"), 5);
  mime_disp_shutdown(&g.d);
  EXPECT_EQ(g.d.nResultSize, 5);
  ASSERT_EQ(MMIME_Fputs(&g.d, "xy"), 2);
  EXPECT_EQ(g.d.nResultSize, 7);
  EXPECT_EQ(g.text(), std::string(5, '\0') + "xy");
  EXPECT_EQ(g.d.pcResult[7], '\0');
  EXPECT_EQ(g.d.nTotalBytesRetrict, 65534);
}

}  // namespace
