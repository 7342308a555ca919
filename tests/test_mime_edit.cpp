// Message editing: parts cut out of and replaced in stored messages, by
// hand-made ranges and by the ranges of decoded corpus messages, which
// must decode again with the other parts unchanged; new boundaries and
// Content-IDs.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support.h"
#include "tarnmail/edit.h"

namespace {

using tarntest::Decoded;

// Deletes ranges from a copy of `msg`; the list is edited in place.
std::string del(std::string msg, std::vector<SMMIME_DelEntity>& list) {
  int n = MMIME_AttachmentDel(msg.data(), static_cast<int>(msg.size()), list.data(), static_cast<int>(list.size()));
  EXPECT_GE(n, 0);
  return msg.substr(0, n < 0 ? 0 : static_cast<size_t>(n));
}

// Replaces ranges of `msg` into a new buffer; checks its terminator.
std::string rep(const std::string& msg, std::vector<SMMIME_RepEntity>& list) {
  char* buf = const_cast<char*>(msg.c_str());
  int n = MMIME_AttachmentRep(&buf, static_cast<int>(msg.size()), list.data(), static_cast<int>(list.size()));
  EXPECT_GE(n, 0);
  EXPECT_NE(msg.c_str(), buf);
  if (n < 0 || buf == msg.c_str()) return "";
  EXPECT_EQ('\0', buf[n]);
  std::string out(buf, static_cast<size_t>(n));
  std::free(buf);
  return out;
}

tm_off_t at(const std::string& msg, const char* needle) { return static_cast<tm_off_t>(msg.find(needle)); }

// The entity whose body is `body` in a decoding of `msg`: its range.
SMMIME_DelEntity range_of(const std::string& msg, const std::string& body) {
  Decoded d(msg, generalME);
  for (ME* me : tarntest::walk(d.root()))
    if (me->child == nullptr && Decoded::body(me) == body) return {me->ent_offset, me->ent_len};
  ADD_FAILURE() << "no part " << body;
  return {0, 0};
}

const std::string kTwoLF =
    "Content-Type: multipart/mixed; boundary=b\n\n"
    "--b\nContent-Type: text/plain\n\nhello\n"
    "--b\nContent-Type: application/octet-stream; name=a.bin\n\nDATA\n"
    "--b--\n";

TEST(MimeEditDelete, PartWithItsDelimiterLine) {
  // The second part goes with the line break and delimiter line in front of
  // it; the closing delimiter stays.  The list comes back widened.
  std::vector<SMMIME_DelEntity> list{range_of(kTwoLF, "DATA")};
  const SMMIME_DelEntity given = list[0];
  EXPECT_EQ(at(kTwoLF, "Content-Type: application"), given.offset);
  EXPECT_EQ(
      "Content-Type: multipart/mixed; boundary=b\n\n"
      "--b\nContent-Type: text/plain\n\nhello\n--b--\n",
      del(kTwoLF, list));
  EXPECT_EQ(given.offset - 5, list[0].offset);
  EXPECT_EQ(given.len + 5, list[0].len);

  // The first part: the empty line that ends the header loses its LF to the
  // cut, the LF of the header's last line ends it still.
  list = {range_of(kTwoLF, "hello")};
  EXPECT_EQ(
      "Content-Type: multipart/mixed; boundary=b\n\n"
      "--b\nContent-Type: application/octet-stream; name=a.bin\n\nDATA\n--b--\n",
      del(kTwoLF, list));

  // CR LF: the CR in front of the cut stays, so the part before ends in it.
  std::string crlf;
  for (char c : kTwoLF) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
  list = {range_of(crlf, "DATA")};
  EXPECT_EQ(
      "Content-Type: multipart/mixed; boundary=b\r\n\r\n"
      "--b\r\nContent-Type: text/plain\r\n\r\nhello\r\r\n--b--\r\n",
      del(crlf, list));
  Decoded again(del(crlf, list = {range_of(crlf, "DATA")}), generalME);
  EXPECT_EQ("hello\r", Decoded::body(again.root()->child));
  EXPECT_EQ(nullptr, again.root()->child->next);
}

TEST(MimeEditDelete, OverlapsAndOrder) {
  // Ranges here start right after an LF (k = 0): no widening.
  const std::string text = "\n\nAAAA\n\nBBBB\n\nCCCC\n\nDDDD";
  // The second starts inside the first: dropped, not merged; "BB" stays.
  std::vector<SMMIME_DelEntity> list{{2, 8}, {8, 6}, {14, 4}};
  EXPECT_EQ("\n\nBB\n\n\n\nDDDD", del(text, list));
  EXPECT_EQ(14, list[1].offset);  // the third moved down over the dropped one

  // A list out of order: a range before the one in front of it is dropped.
  list = {{14, 4}, {2, 4}};
  EXPECT_EQ("\n\nAAAA\n\nBBBB\n\n\n\nDDDD", del(text, list));

  // Two adjacent ranges both go; a range of length 0 removes nothing.
  list = {{2, 6}, {8, 6}, {20, 0}};
  EXPECT_EQ("\n\nCCCC\n\nDDDD", del(text, list));
}

TEST(MimeEditDelete, RangesReachingOutsideTheMessage) {
  const std::string text = "ab\n--b\nPART\n--b--\n";
  std::vector<SMMIME_DelEntity> list{{7, 1000}};  // past the end: cut to it
  EXPECT_EQ("ab", del(text, list));
  EXPECT_EQ(2, list[0].offset);

  list = {{-5, 7}};  // before the start: no widening, cut from 0
  EXPECT_EQ("\n--b\nPART\n--b--\n", del(text, list));
  list = {{1, 1}};  // the scan would start before the message
  EXPECT_EQ("a\n--b\nPART\n--b--\n", del(text, list));
  list = {{3, 1}};  // no LF between the start and the range: not widened
  EXPECT_EQ("ab\n-b\nPART\n--b--\n", del(text, list));
  list = {{4, 2}};  // the byte two before is the LF: not widened either
  EXPECT_EQ("ab\n-\nPART\n--b--\n", del(text, list));
  list = {{2, -3}, {9, 2}};  // a negative length removes nothing
  EXPECT_EQ("ab\n--b\n--b--\n", del(text, list));
  list = {{500, 4}, {600, 4}};
  EXPECT_EQ(text, del(text, list));

  std::string copy = text;
  SMMIME_DelEntity one{7, 4};
  EXPECT_EQ(-1, MMIME_AttachmentDel(copy.data(), 0, &one, 1));
  EXPECT_EQ(-1, MMIME_AttachmentDel(copy.data(), 18, &one, 0));
  EXPECT_EQ(-2, MMIME_AttachmentDel(nullptr, 18, &one, 1));
  EXPECT_EQ(-2, MMIME_AttachmentDel(copy.data(), 18, nullptr, 1));
  EXPECT_EQ(7, one.offset);  // untouched by the refused calls
}

TEST(MimeEditReplace, BodiesPartsAndTheList) {
  const std::string crlf =
      "--b\r\nContent-Type: text/plain\r\nX-A: 1\r\n\r\nold body\r\n--b\r\nContent-Type: image/gif\r\n\r\nGIF\r\n--b--\r\n";
  const tm_off_t p1 = at(crlf, "Content-Type: text"), p2 = at(crlf, "Content-Type: image");
  const tm_off_t len1 = at(crlf, "\r\n--b\r\nContent-Type: image") - p1, len2 = at(crlf, "\r\n--b--") - p2;
  // Given out of order: sorted, the first keeps its header and the blank
  // line, the second (no data) is deleted whole.
  std::vector<SMMIME_RepEntity> list{{p2, len2, nullptr, 0}, {p1, len1, "NEW", MMIME_REP_BODY}};
  EXPECT_EQ("--b\r\nContent-Type: text/plain\r\nX-A: 1\r\n\r\nNEW\r\n--b\r\n\r\n--b--\r\n", rep(crlf, list));
  EXPECT_EQ(at(crlf, "old body"), list[0].nOffset);
  EXPECT_EQ(8, list[0].nLen);
  EXPECT_EQ(p2, list[1].nOffset);

  // LF blank line; a range without a blank line is replaced whole.
  const std::string lf = "H: 1\nH: 2\n\nbody\n\nmore";
  list = {{0, 15, "X", MMIME_REP_BODY}};
  EXPECT_EQ("H: 1\nH: 2\n\nX\n\nmore", rep(lf, list));
  list = {{0, 9, "X", MMIME_REP_BODY}};
  EXPECT_EQ("X\n\nbody\n\nmore", rep(lf, list));
  // The blank line's last byte just past the range still counts: the range
  // then starts behind its end and replaces nothing, the data goes there.
  list = {{0, 10, "X", MMIME_REP_BODY}};
  EXPECT_EQ("H: 1\nH: 2\n\nXbody\n\nmore", rep(lf, list));
  EXPECT_EQ(-1, list[0].nLen);

  // Overlaps are set aside behind the others; insertions and ranges cut to
  // the message.
  list = {{0, 4, "a", 0}, {2, 4, "b", 0}, {4, 0, "c", 0}, {20, 99, "z", 0}, {1, 1, "d", 0}};
  EXPECT_EQ("ac\nH: 2\n\nbody\n\nmorz", rep(lf, list));
  EXPECT_EQ(4, list[1].nOffset);
  EXPECT_EQ(20, list[2].nOffset);
  std::set<std::string> aside{list[3].pszData, list[4].pszData};
  EXPECT_EQ((std::set<std::string>{"b", "d"}), aside);

  list = {{-10, 12, "<", 0}, {3, -2, ">", 0}, {90, 1, "!", 0}};
  EXPECT_EQ("< >1\nH: 2\n\nbody\n\nmore!", rep(lf, list));

  // Nothing to do: the size, and the caller's pointer as it was.
  char* buf = const_cast<char*>(lf.c_str());
  EXPECT_EQ(21, MMIME_AttachmentRep(&buf, 21, nullptr, 0));
  EXPECT_EQ(lf.c_str(), buf);
  SMMIME_RepEntity one{0, 1, "x", 0};
  EXPECT_EQ(-2, MMIME_AttachmentRep(nullptr, 21, &one, 1));
  EXPECT_EQ(-1, MMIME_AttachmentRep(&buf, -1, &one, 1));
  std::vector<SMMIME_RepEntity> empty_msg{{0, 5, "new", 0}};
  EXPECT_EQ("new", rep("", empty_msg));
}

TEST(MimeEditIdentifiers, Boundary) {
  constexpr std::string_view kAlphabet = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-=?.:/+(),";
  std::set<std::string> seen;
  for (int i = 0; i < 50; ++i) {  // many in one second
    std::string b = mime_boundary();
    ASSERT_EQ(30u, b.size());
    EXPECT_EQ("---", b.substr(0, 3));
    EXPECT_EQ(std::string::npos, b.find_first_not_of(kAlphabet)) << b;
    seen.insert(b);
  }
  EXPECT_EQ(50u, seen.size());
  EXPECT_EQ(mime_boundary(), mime_boundary());  // one static buffer
}

TEST(MimeEditIdentifiers, ContentId) {
  char path[] = "/tmp/tarn_cid_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  struct stat st {};
  ASSERT_EQ(0, stat(path, &st));
  char ino[32];
  std::snprintf(ino, sizeof ino, "%lX", static_cast<unsigned long>(st.st_ino));
  auto expect = [&](long sec, const std::string& email) {
    char secs[32];
    std::snprintf(secs, sizeof secs, "%lX", sec);
    return std::string(secs) + "$" + ino + email;
  };

  std::snprintf(g_stSession.email, sizeof g_stSession.email, "%s", "user@example.com");
  const long before = static_cast<long>(std::time(nullptr));
  const char* cid = gen_cid(path);
  const long after = static_cast<long>(std::time(nullptr));
  ASSERT_NE(nullptr, cid);
  EXPECT_TRUE(cid == expect(before, "user@example.com") || cid == expect(after, "user@example.com")) << cid;

  // An address filling the whole field without a terminator is read up to
  // the field's end.
  std::memset(g_stSession.email, 'e', sizeof g_stSession.email);
  const std::string got = gen_cid(path);
  EXPECT_EQ("$" + std::string(ino) + std::string(sizeof g_stSession.email, 'e'), got.substr(got.find('$')));
  std::memset(g_stSession.email, 0, sizeof g_stSession.email);

  unlink(path);
  EXPECT_EQ(nullptr, gen_cid(path));
  EXPECT_EQ(nullptr, gen_cid(nullptr));
}

}  // namespace
