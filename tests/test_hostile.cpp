// Hostile messages: deep nesting, huge header blocks and parameters,
// masses of parts, binary garbage.  Each must decode without a crash,
// without exhausting the stack and in time proportional to its size (a
// walk that rescans the text would take minutes here and time out), and
// leave a tree that keeps the invariants with the error bits the walk
// defines.  The inputs are sized so that the whole program stays well
// under a minute under the sanitizers.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "decode_invariants.h"
#include "support.h"

namespace {

using tarntest::Decoded;

constexpr size_t kMiB = 1024 * 1024;

// Decodes, checks the invariants, and hands the decoding back for the
// case's own expectations.
struct Checked {
  Decoded d;
  size_t entities = 0;
  Checked(const std::string& message, const MIME_DECODE& preset) : d(message, preset) {
    tarntest::TreeChecker checker(d.ctx(), d.buffer(), d.size());
    std::vector<std::string> problems = checker.check(d.error_code());
    EXPECT_TRUE(problems.empty()) << tarntest::join_lines(problems);
    entities = checker.entities();
  }
};

// Length of the longest chain of first children below the root.
int first_child_depth(const ME* me) {
  int depth = 0;
  for (me = me->child; me != nullptr; me = me->child) ++depth;
  return depth;
}

size_t chain_length(const ME* me) {
  size_t n = 0;
  for (; me != nullptr; me = me->next) ++n;
  return n;
}

std::string multipart_header(const std::string& boundary) {
  return "Content-Type: multipart/mixed; boundary=\"" + boundary + "\"\n\n";
}

constexpr int kNesting = 100000;

TEST(Hostile, HundredThousandNestedMultipartsEachWithItsOwnBoundary) {
  std::string m;
  m.reserve(kNesting * 64);
  for (int i = 0; i < kNesting; ++i) m += multipart_header("b" + std::to_string(i)) + "--b" + std::to_string(i) + "\n";
  m += "Content-Type: text/plain\n\ninnermost\n";
  for (int i = kNesting - 1; i >= 0; --i) m += "--b" + std::to_string(i) + "--\n";

  Checked r(m, generalME);
  // Every level is closed by its own delimiter: nothing is missing.
  EXPECT_EQ(0, r.d.error_code());
  // The walk goes down the nesting (a stack guard may stop it somewhere,
  // but not near the top), and nothing after the outermost closing
  // delimiter is left over.
  EXPECT_GE(first_child_depth(r.d.root()), 100);
  EXPECT_LE(r.entities, static_cast<size_t>(kNesting) + 2);
  EXPECT_EQ(nullptr, r.d.root()->next);
  EXPECT_EQ(MIME_CT_MIXED, r.d.root()->h->mime.ctype);
}

TEST(Hostile, HundredThousandNestedMultipartsSharingOneBoundary) {
  std::string m;
  m.reserve(kNesting * 56);
  for (int i = 0; i < kNesting; ++i) m += multipart_header("b") + "--b\n";
  m += "Content-Type: text/plain\n\ninnermost\n";
  for (int i = 0; i < kNesting; ++i) m += "--b--\n";

  Checked r(m, generalME);
  // Each opening delimiter starts a part and each closing one ends a
  // multipart, so no boundary is missing.  A walk that stops descending
  // at a stack guard takes the opening lines below it as sibling parts and
  // is left with surplus closing lines after the outermost multipart:
  // they become a trailing entity without an empty line (bit 2).
  EXPECT_EQ(0, r.d.error_code() & ~MIME_ERR_NO_HEADER_END);
  EXPECT_GE(first_child_depth(r.d.root()), 100);
  EXPECT_LE(r.entities, static_cast<size_t>(kNesting) + 3);
}

TEST(Hostile, HundredThousandNestedMultipartsWithoutClosingDelimiters) {
  std::string m;
  m.reserve(kNesting * 64);
  for (int i = 0; i < kNesting; ++i) m += multipart_header("b" + std::to_string(i)) + "--b" + std::to_string(i) + "\n";
  m += "Content-Type: text/plain\n\ninnermost\n";

  Checked r(m, generalME);
  // No level finds a further delimiter of its own boundary.
  EXPECT_EQ(MIME_ERR_NO_CLOSE_BOUNDARY, r.d.error_code());
  EXPECT_GE(first_child_depth(r.d.root()), 100);
  EXPECT_LE(r.entities, static_cast<size_t>(kNesting) + 2);
}

// Nested multiparts that share one boundary and are never closed: every
// delimiter line of a level is also a delimiter line of each level above
// it.  A level whose part returned without a closing delimiter must not
// walk that part's text again as parts of its own: re-walking doubles the
// work (and the entities) with every level, so that a message of a few
// hundred bytes would never finish.
std::string shared_boundary_without_closing(int levels, const std::string& innermost) {
  std::string m;
  for (int i = 0; i < levels; ++i) m += multipart_header("b") + "--b\n";
  return m + innermost;
}

TEST(Hostile, NestedMultipartsSharingOneBoundaryWithoutClosingDelimiters) {
  // Kept small: a walk that doubles per level makes 2^18 entities here in
  // a second or so, which the count below catches; at 100,000 levels it
  // would exhaust the machine instead.
  constexpr int kLevels = 18;
  Checked r(shared_boundary_without_closing(kLevels, "innermost, no empty line\n"), imapME);
  // The innermost part has no empty line and no part finds a further
  // delimiter.
  EXPECT_EQ(MIME_ERR_NO_CLOSE_BOUNDARY | MIME_ERR_NO_HEADER_END, r.d.error_code());
  // Each stretch of text is walked once: one entity per level and the
  // innermost part, give or take the parts the levels close.
  EXPECT_LE(r.entities, static_cast<size_t>(2 * kLevels + 2));
}

TEST(Hostile, TextWalkedTwiceIsNotDecodedTwice) {
  // The same shape two levels deep with a quoted-printable part inside:
  // when the outer level walks the inner level's text again, two entities
  // own the same bytes and the body decoding undoes the encoding twice in
  // place ("=3D41" becomes "=41", then "A").
  std::string m = shared_boundary_without_closing(
      2, "Content-Type: text/plain\nContent-Transfer-Encoding: quoted-printable\n\n=3D41\n");
  Checked r(m, generalME);
  EXPECT_EQ(MIME_ERR_NO_CLOSE_BOUNDARY, r.d.error_code());
  std::set<const char*> starts;
  for (ME* me : tarntest::walk(r.d.root())) {
    EXPECT_TRUE(starts.insert(me->header_bgn).second) << "two entities start at offset " << me->header_bgn - r.d.buffer();
    if (me->h != nullptr && me->h->mime.enc_type == MIME_ENC_QP) {
      EXPECT_EQ("=41\n", Decoded::body(me));
    }
  }
}

TEST(Hostile, TenMiBHeaderBlockWithoutEmptyLine) {
  std::string m;
  m.reserve(10 * kMiB + 64);
  size_t lines = 0;
  while (m.size() < 10 * kMiB) {
    m += "X-Filler-" + std::to_string(lines++) + ": " + std::string(40, 'v') + "\n";
  }
  Checked r(m, generalME);
  // All the text is header: bit 2, one entity, one field per line and an
  // empty one after the last line break.
  EXPECT_EQ(MIME_ERR_NO_HEADER_END, r.d.error_code());
  EXPECT_EQ(1u, r.entities);
  ASSERT_NE(nullptr, r.d.root()->h);
  size_t fields = 0;
  const HE* last = nullptr;
  for (const HE* he = r.d.root()->h->he; he != nullptr; he = he->next, ++fields) last = he;
  EXPECT_EQ(lines + 1, fields);
  ASSERT_NE(nullptr, last);
  EXPECT_STREQ("", last->ent_name);
  EXPECT_EQ(r.d.buffer() + r.d.size(), r.d.root()->header_end);

  // One line of 10 MiB without any line break: one field.
  std::string line = "X-Long: " + std::string(10 * kMiB, 'w');
  Checked one(line, imapME);
  EXPECT_EQ(MIME_ERR_NO_HEADER_END, one.d.error_code());
  ASSERT_NE(nullptr, one.d.root()->h);
  EXPECT_EQ(1u, one.entities);
  ASSERT_NE(nullptr, one.d.root()->h->he);
  EXPECT_EQ(nullptr, one.d.root()->h->he->next);
  EXPECT_EQ(10 * kMiB, strlen(one.d.root()->h->he->ent_ptr));
}

TEST(Hostile, TenThousandParts) {
  constexpr int kParts = 10000;
  std::string m = "Subject: many parts\n" + multipart_header("sep");
  for (int i = 0; i < kParts; ++i)
    m += "--sep\nContent-Type: text/plain; charset=us-ascii\n\npart " + std::to_string(i) + "\n";
  m += "--sep--\n";

  Checked r(m, generalME);
  EXPECT_EQ(0, r.d.error_code());
  EXPECT_EQ(static_cast<size_t>(kParts) + 1, r.entities);
  ASSERT_EQ(static_cast<size_t>(kParts), chain_length(r.d.root()->child));
  int i = 0;
  for (const ME* part = r.d.root()->child; part != nullptr; part = part->next, ++i) {
    ASSERT_EQ("part " + std::to_string(i), Decoded::body(part));
    ASSERT_EQ(MIME_CT_TEXT, part->h->mime.ctype);
  }
}

// Bytes from a fixed seed: the same garbage on every machine.
std::string garbage(size_t n, uint32_t seed) {
  std::mt19937 gen(seed);
  std::string out(n, '\0');
  for (size_t i = 0; i + 4 <= n; i += 4) {
    uint32_t v = gen();
    memcpy(&out[i], &v, 4);
  }
  return out;
}

TEST(Hostile, FiftyMiBOfBinaryGarbage) {
  std::string m = garbage(50 * kMiB, 20240611u);
  // Where the header block ends: the first LF followed by an empty line.
  size_t lf = 0;
  size_t body = std::string::npos;
  while ((lf = m.find('\n', lf)) != std::string::npos) {
    if (lf == 0) {
      body = 1;
      break;
    }
    if (m.compare(lf + 1, 1, "\n") == 0) {
      body = lf + 2;
      break;
    }
    if (m.compare(lf + 1, 2, "\r\n") == 0) {
      body = lf + 3;
      break;
    }
    ++lf;
  }
  ASSERT_NE(std::string::npos, body) << "the seed gives garbage without an empty line";

  Checked r(m, generalME);
  // No Content-Type among the garbage: one text entity, its body
  // everything after the first empty line.
  EXPECT_EQ(0, r.d.error_code());
  EXPECT_EQ(1u, r.entities);
  EXPECT_EQ(r.d.buffer() + lf, r.d.root()->header_end);
  EXPECT_EQ(MIME_CT_TEXT, r.d.root()->h->mime.ctype);
}

TEST(Hostile, GarbageMadeOfMimeSyntax) {
  // Random sequences of the pieces the walk reacts to: delimiters of a few
  // boundaries, multipart and message headers, empty lines, encodings.
  const char* const pieces[] = {
      "--a\n", "--a--\n", "--b\r\n", "--b--\r\n", "--a-", "\n", "\r\n", "\n\n",
      "Content-Type: multipart/mixed; boundary=a\n", "Content-Type: multipart/digest; boundary=\"b\"\n",
      "Content-Type: message/rfc822\n", "Content-Type: text/plain\n", "Content-Transfer-Encoding: base64\n",
      "Content-Transfer-Encoding: quoted-printable\n", "Content-Type: multipart/alternative; boundary=",
      "begin 644 x.bin\n", "end\n", "M86)C\n", "=41=\n", "Subject: =?utf-8?B?w6k=?=\n", " folded\n", "x", "-"};
  for (uint32_t seed = 1; seed <= 40; ++seed) {
    std::mt19937 gen(seed);
    std::string m;
    while (m.size() < 64 * 1024) m += pieces[gen() % (sizeof pieces / sizeof pieces[0])];
    SCOPED_TRACE("seed " + std::to_string(seed));
    Checked general(m, generalME);
    Checked structure(m, imapME);
    EXPECT_EQ(structure.d.error_code(), general.d.error_code());
  }
}

TEST(Hostile, HundredThousandNestedMessages) {
  std::string m;
  m.reserve(kNesting * 32 + 64);
  for (int i = 0; i < kNesting; ++i) m += "Content-Type: message/rfc822\n\n";
  m += "Subject: deepest\n\nbody\n";

  Checked r(m, generalME);
  // Nine embedded messages are walked; the ninth is parsed for its header
  // only and the depth bit is set.
  EXPECT_EQ(MIME_ERR_TOO_DEEP, r.d.error_code());
  EXPECT_EQ(10u, r.entities);
  EXPECT_EQ(9, first_child_depth(r.d.root()));
}

TEST(Hostile, TenMiBBoundaryParameter) {
  const std::string b(10 * kMiB, 'x');
  const std::string kept = b.substr(0, 255);  // a boundary is cut to 255 bytes
  {
    // Delimiter lines carry the whole parameter: after the 255 bytes kept
    // comes another "x", so no line is a delimiter of the cut boundary.
    // The first part starts inside the first delimiter line (where the
    // cut boundary was found) and runs to the end: bit 1.
    std::string m = multipart_header(b) + "--" + b + "\nContent-Type: text/plain\n\nhello\n--" + b + "--\n";
    Checked r(m, generalME);
    ASSERT_NE(nullptr, r.d.root()->h->boundary);
    EXPECT_EQ(kept, r.d.root()->h->boundary);
    EXPECT_EQ(MIME_ERR_NO_CLOSE_BOUNDARY, r.d.error_code());
    EXPECT_EQ(2u, r.entities);
  }
  {
    // Delimiter lines that carry the cut boundary parse as usual.
    std::string m = multipart_header(b) + "--" + kept + "\nContent-Type: text/plain\n\nhello\n--" + kept + "--\n";
    Checked r(m, generalME);
    EXPECT_EQ(0, r.d.error_code());
    ASSERT_NE(nullptr, r.d.root()->child);
    EXPECT_EQ("hello", Decoded::body(r.d.root()->child));
  }
}

TEST(Hostile, HundredThousandEmptyParts) {
  constexpr int kParts = 100000;
  std::string m = multipart_header("b");
  for (int i = 0; i < kParts; ++i) m += "--b\n";
  m += "--b--\n";

  Checked r(m, generalME);
  // No part has an empty line after its start, so none has a header block
  // (bit 2); the closing delimiter closes the multipart (no bit 1).  The
  // first "--b" opens the first part and each later one a further part.
  EXPECT_EQ(MIME_ERR_NO_HEADER_END, r.d.error_code());
  EXPECT_EQ(static_cast<size_t>(kParts) + 1, r.entities);
  for (const ME* part = r.d.root()->child; part != nullptr; part = part->next) {
    ASSERT_EQ(nullptr, part->h);
    ASSERT_EQ("", Decoded::body(part));
  }
}

}  // namespace
