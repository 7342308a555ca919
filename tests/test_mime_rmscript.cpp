// Script and tag removal: the word automaton row for row, the defusing of
// script words in every spelling, element removal with its fallbacks and
// bounded output, hostile bodies, and the public XSS vectors.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "mime_rmscript_internal.h"
#include "support.h"
#include "xss_vectors.h"

namespace {

const std::string kDataDir = tarntest::testdata_dir() + "/rmscript";

// replace_script over an exact-size copy with no terminator after it, so a
// read past nLen is caught by the address checker.
std::string defuse(const std::string& in, int tag_only = 0, int* result = nullptr) {
  std::unique_ptr<char[]> buf(new char[in.size()]);
  std::memcpy(buf.get(), in.data(), in.size());
  const int r = replace_script(buf.get(), static_cast<int>(in.size()), tag_only);
  if (result != nullptr) *result = r;
  return std::string(buf.get(), in.size());
}

struct Removed {
  std::string out;
  int result;
};

// remove_script_block from an exact-size input without terminator into an
// output of out_size bytes (input length + 1 by default).
Removed remove_blocks(const std::string& in, int flags, int out_size = -1) {
  std::unique_ptr<char[]> src(new char[in.size()]);
  std::memcpy(src.get(), in.data(), in.size());
  const size_t n = out_size < 0 ? in.size() + 1 : static_cast<size_t>(out_size);
  std::unique_ptr<char[]> dst(new char[n + 1]);
  std::memset(dst.get(), '#', n + 1);
  const int r = remove_script_block(src.get(), static_cast<int>(in.size()), dst.get(), static_cast<int>(n), flags);
  EXPECT_EQ('#', dst[n]) << "wrote past the output";
  const char* nul = n > 0 ? static_cast<const char*>(std::memchr(dst.get(), '\0', n)) : nullptr;
  if (n > 0) {
    EXPECT_NE(nullptr, nul) << "output not terminated";
  }
  return {nul != nullptr ? std::string(dst.get(), static_cast<size_t>(nul - dst.get())) : std::string(), r};
}

// ---- the tables ----

TEST(RmScriptTables, WordAutomatonMatchesItsRowsOneByOne) {
  std::ifstream in(kDataDir + "/word_automaton.tsv");
  ASSERT_TRUE(in.good());
  std::string line;
  size_t rows = 0;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream f(line);
    size_t row;
    std::string pattern;
    int len, unicode, curr, next;
    ASSERT_TRUE(f >> row >> pattern >> len >> unicode >> curr >> next) << line;
    ASSERT_EQ(rows, row);
    ASSERT_LT(row, kMyFilterRows);
    const element_t& e = g_my_filter[row];
    ASSERT_NE(nullptr, e.pattern) << "row " << row;
    EXPECT_EQ(pattern, e.pattern) << "row " << row;
    EXPECT_EQ(len, e.len) << "row " << row;
    EXPECT_EQ(unicode, e.unicode) << "row " << row;
    EXPECT_EQ(curr, e.curr_status) << "row " << row;
    EXPECT_EQ(next, e.next_status) << "row " << row;
    ++rows;
  }
  EXPECT_EQ(176u, rows);
  EXPECT_EQ(nullptr, g_my_filter[kMyFilterRows].pattern);
  // The two short rows, spelled out.
  EXPECT_STREQ("&#x54", g_my_filter[95].pattern);
  EXPECT_EQ(4, g_my_filter[95].len);
  EXPECT_STREQ("&#x45", g_my_filter[103].pattern);
  EXPECT_EQ(4, g_my_filter[103].len);
}

TEST(RmScriptTables, TagListAndSubstitutes) {
  const struct {
    const char* name;
    int len, casefold, flag, pair;
  } want[] = {{"script", 6, 1, 1, 1}, {"iframe", 6, 1, 2, 1}, {"xml", 3, 1, 4, 1},
              {"object", 6, 1, 8, 1}, {"embed", 5, 1, 16, 0}};
  for (size_t i = 0; i < std::size(want); ++i) {
    EXPECT_STREQ(want[i].name, g_rm_tag_list[i].pattern);
    EXPECT_EQ(want[i].len, g_rm_tag_list[i].len);
    EXPECT_EQ(want[i].casefold, g_rm_tag_list[i].casefold);
    EXPECT_EQ(want[i].flag, g_rm_tag_list[i].flag);
    EXPECT_EQ(want[i].pair, g_rm_tag_list[i].pair);
  }
  EXPECT_EQ(nullptr, g_rm_tag_list[5].pattern);
  const char* subs[] = {"x", "X", "&#120", "&#0000120", "&#x78", "&#88", "&#0000088", "&#58"};
  for (size_t i = 0; i < std::size(subs); ++i) EXPECT_STREQ(subs[i], g_subs_char[i]);
  EXPECT_EQ(nullptr, g_subs_char[8]);
}

// ---- the matchers ----

TEST(RmScriptMatch, FirstRowOfTheStateWinsAndAnEntityTakesItsSemicolon) {
  int idx = 99;
  EXPECT_EQ(1, script_match("java", 4, 0, &idx));
  EXPECT_EQ(0, idx);
  EXPECT_EQ(6, script_match("&#106;x", 7, 0, &idx));  // ';' counted
  EXPECT_EQ(2, idx);
  EXPECT_EQ(5, script_match("&#106x", 6, 0, &idx));
  EXPECT_EQ(6, script_match("&#x4A;", 6, 0, &idx));  // J before the short E row
  EXPECT_EQ(7, idx);
  EXPECT_EQ(4, script_match("&#x4B;", 6, 0, &idx));  // the short E row takes any &#x4.
  EXPECT_EQ(103, idx);
  EXPECT_EQ(0, script_match("&#x6a;", 6, 0, &idx));  // hex digits compare by case
  EXPECT_EQ(-1, idx);
  EXPECT_EQ(0, script_match("a", 1, 0, &idx));  // 'a' only after j or v
  EXPECT_EQ(1, script_match("a", 1, 1, &idx));
  EXPECT_EQ(8, idx);
  EXPECT_EQ(0, script_match("&#106;", 4, 0, &idx));  // cut short by the bytes available
  EXPECT_EQ(5, script_match("&#106;", 5, 0, &idx));  // ';' not available
  EXPECT_EQ(0, script_match("j", 1, 20, &idx));
  EXPECT_EQ(0, script_match("j", 1, 99, &idx));
}

TEST(RmScriptMatch, TagNamesArePrefixesOfSelectedRows) {
  int idx = 99;
  EXPECT_EQ(1, tag_match("<ScRiPtx", 8, 1, &idx));
  EXPECT_EQ(0, idx);
  EXPECT_EQ(0, tag_match("<script", 7, 2 | 4 | 8 | 16, &idx));  // row not selected
  EXPECT_EQ(1, tag_match("<xmlns:o", 8, 4, &idx));
  EXPECT_EQ(2, idx);
  EXPECT_EQ(0, tag_match("<embe", 5, 16, &idx));  // cut by the bytes available
  EXPECT_EQ(0, tag_match("< script", 8, 31, &idx));
  EXPECT_EQ(1, tag_match("<embed", 6, 31, &idx));
  EXPECT_EQ(4, idx);
}

// ---- replace_script ----

TEST(ReplaceScript, LastLetterBecomesXInTheSameForm) {
  const std::pair<const char*, const char*> cases[] = {
      {"JaVaScRiPt:", "JaVaScRiPx:"},
      {"java&#x0A;script", "java&#x0A;scripx"},
      {"&#106;avascript", "&#106;avascripx"},
      {"vbscript:", "vbscripx:"},
      {"VBScripT", "VBScripX"},
      {"expression(", "expressiox("},
      {"javascrip&#116;:", "javascrip&#120;:"},
      {"javascrip&#0000116;", "javascrip&#0000120;"},
      {"javascrip&#x74;", "javascrip&#x78;"},
      {"javascrip&#84;", "javascrip&#88;"},
      {"javascrip&#0000084;", "javascrip&#0000088;"},
      {"expressio&#x4E;", "expressio&#58E;"},  // a shorter substitute leaves the rest
      {"javascrip&#x54;", "javascrip&#584;"},  // the short row matched "&#x5"
      {"javascrip&#x55;", "javascrip&#585;"},  // ... and so takes a U as well
      {"&#x4xpression", "&#x4xpressiox"},      // the short E row
      {"&#x45;xpression", "&#x45;xpression"},  // the short row stops at "&#x4": E is missed
      {"&#69;&#88;&#80;ression", "&#69;&#88;&#80;ressiox"},
      {"javascriptjavascript", "javascripxjavascripx"},
  };
  for (const auto& [in, want] : cases) EXPECT_EQ(want, defuse(in)) << in;
}

TEST(ReplaceScript, NoiseBetweenLettersIsSkippedOnceOfEachKind) {
  EXPECT_EQ("java\r\n\t\\scripx", defuse("java\r\n\t\\script"));
  EXPECT_EQ("java\n\nscript", defuse("java\n\nscript"));     // a second LF ends the word
  EXPECT_EQ("java\\\rscript", defuse("java\\\rscript"));     // out of order
  EXPECT_EQ("java&#9;&#10;&#13;scripx", defuse("java&#9;&#10;&#13;script"));
  EXPECT_EQ("j&#X0d;a&#x09;vascripx", defuse("j&#X0d;a&#x09;vascript"));
  EXPECT_EQ("java&#x0B;script", defuse("java&#x0B;script"));  // not a skipped control
  EXPECT_EQ("\rjavascripx", defuse("\rjavascript"));
  EXPECT_EQ("javascrip\r", defuse("javascrip\r"));  // noise at the very end
  EXPECT_EQ("javascrip&#9;", defuse("javascrip&#9;"));
}

TEST(ReplaceScript, MismatchedByteIsNotRetriedSoADoubledLetterHidesTheWord) {
  EXPECT_EQ("jjavascript", defuse("jjavascript"));
  EXPECT_EQ("eexpression", defuse("eexpression"));
  EXPECT_EQ("jvbscript", defuse("jvbscript"));
  EXPECT_EQ("&#x6a;avascript", defuse("&#x6a;avascript"));
  EXPECT_EQ("java script", defuse("java script"));
}

TEST(ReplaceScript, ResultAndTagOnlyMode) {
  int r = -1;
  EXPECT_EQ("hello", defuse("hello", 0, &r));  // a lone e matched a row
  EXPECT_EQ(1, r);
  EXPECT_EQ("abc", defuse("abc", 0, &r));
  EXPECT_EQ(0, r);
  EXPECT_EQ("javascript <a href='javascripx:x'>javascript</a> <b\nstyle=expressiox()>",
            defuse("javascript <a href='javascript:x'>javascript</a> <b\nstyle=expression()>", 1, &r));
  EXPECT_EQ(1, r);
  EXPECT_EQ("hello <b>", defuse("hello <b>", 1, &r));
  EXPECT_EQ(0, r);
  EXPECT_EQ(0, replace_script(nullptr, 10, 0));
  char empty[1] = {'j'};
  EXPECT_EQ(0, replace_script(empty, 0, 0));
  EXPECT_EQ(0, replace_script(empty, -5, 0));
}

TEST(ReplaceScript, StopsAtTheLengthAndAtNul) {
  char text[] = "javascript javascript";
  EXPECT_EQ(1, replace_script(text, 9, 0));
  EXPECT_STREQ("javascript javascript", text);
  EXPECT_EQ(1, replace_script(text, 10, 0));
  EXPECT_STREQ("javascripx javascript", text);
  std::string nul("java\0script javascript", 22);
  EXPECT_EQ(nul, defuse(nul));
  std::string after("x\0javascript", 12);
  EXPECT_EQ(after, defuse(after));
  EXPECT_EQ("javascrip&#11", defuse("javascrip&#11"));  // entity cut by the end
}

// ---- remove_script_block ----

TEST(RemoveScriptBlock, DropsSelectedElements) {
  struct Case {
    const char* in;
    int flags;
    const char* want;
    int result;
  } cases[] = {
      {"<script>a</script>b", 1, "b", 1},
      {"x<SCRIPT type=t>a<b>c</ScRiPt >y", 1, "xy", 1},
      {"<script>a", 1, "a", 1},             // no end tag: content up to the last '<' goes
      {"<script>a<b>c", 1, "b>c", 1},
      {"<script>a</ script>b", 1, "/ script>b", 1},
      {"<script>a</script", 1, "</script", 1},  // end tag without '>'
      {"<script>a</SCRIPT", 1, "</script", 1},  // written back in lower case
      {"<embed src=x>b", 16, "b", 1},
      {"<embed src=x>b</embed>", 16, "b</embed>", 1},
      {"<script", 1, "<script", 0},
      {"<SCRIPT src=x", 1, "<script src=x", 0},
      {"<scripts>a</script>b", 1, "b", 1},
      {"<xmlns:o>a</xml>b", 4, "b", 1},
      {"<objectx>a</object>b", 8, "b", 1},
      {"< script>a</script>b", 1, "< script>a</script>b", 0},
      {"<script>a</script>b", 2 | 4 | 8 | 16, "<script>a</script>b", 0},
      {"<iframe src=x></iframe>b", 2, "b", 1},
      {"<iframe src=x></iframe>b", 1 | 4 | 8 | 16, "<iframe src=x></iframe>b", 0},
      {"a<script>1</script>b<object>2</object>c<embed>d", 1 | 8 | 16, "abcd", 1},
      {"<scr<script>x</script>ipt>alert(1)</script>", 1, "<script>alert(1)</script>", 1},
      {"<script a='>'>x", 1, "'>x", 1},  // quotes mean nothing here
  };
  for (const Case& c : cases) {
    Removed r = remove_blocks(c.in, c.flags);
    EXPECT_EQ(c.want, r.out) << c.in;
    EXPECT_EQ(c.result, r.result) << c.in;
  }
}

TEST(RemoveScriptBlock, OutputIsBoundedAndTerminated) {
  EXPECT_EQ("ab", remove_blocks("abc", 0, 3).out);  // one byte short: the last one goes
  EXPECT_EQ("abc", remove_blocks("abc", 0, 4).out);
  EXPECT_EQ("", remove_blocks("abc", 0, 1).out);
  Removed none = remove_blocks("<script>x</script>abc", 1, 0);  // nothing may be written
  EXPECT_EQ(1, none.result);
  EXPECT_EQ("<", remove_blocks("<script", 1, 4).out);    // the name needs room for itself
  EXPECT_EQ("<script", remove_blocks("<script", 1, 8).out);
  EXPECT_EQ("a</", remove_blocks("a<script>b</script", 1, 8).out);
  Removed cut = remove_blocks("abcdef<script>x</script>", 1, 4);  // reports the removal all the same
  EXPECT_EQ("abc", cut.out);
  EXPECT_EQ(1, cut.result);
  EXPECT_EQ(1, remove_script_block("<embed>", 7, nullptr, 100, 16));
  char out[4] = "zzz";
  EXPECT_EQ(0, remove_script_block(nullptr, 5, out, 4, 1));
  EXPECT_STREQ("", out);
}

TEST(RemoveScriptBlock, StopsAtTheLengthAndAtNul) {
  char out[32];
  EXPECT_EQ(0, remove_script_block("abc<script>x</script>", 3, out, 32, 1));
  EXPECT_STREQ("abc", out);
  EXPECT_EQ(0, remove_script_block("<script>x</script>", 7, out, 32, 1));  // '>' lies beyond
  EXPECT_STREQ("<script", out);
  const char nul[] = "a<script\0>x</script>b";
  EXPECT_EQ(0, remove_script_block(nul, sizeof nul - 1, out, 32, 1));
  EXPECT_STREQ("a<script", out);
  const char body_nul[] = "<script>a\0</script>b";
  EXPECT_EQ(1, remove_script_block(body_nul, sizeof body_nul - 1, out, 32, 1));
  EXPECT_STREQ("a", out);
  EXPECT_EQ(0, remove_script_block("abc", -1, out, 32, 1));
  EXPECT_STREQ("", out);
}

// ---- hostile bodies: each would take minutes if any scan restarted ----

TEST(RmScriptHostile, UnterminatedConstructsStayLinear) {
  const size_t kMiB = size_t{1} << 20;
  std::string unclosed;
  while (unclosed.size() < kMiB) unclosed += "<script";
  Removed r = remove_blocks(unclosed, 31);
  EXPECT_EQ(unclosed, r.out);
  EXPECT_EQ(0, r.result);

  std::string ends;  // each start tag closes, no end tag: content up to the last '<' goes
  while (ends.size() < kMiB) ends += "<script></scrip";
  EXPECT_EQ("/scrip", remove_blocks(ends, 1).out);

  std::string no_end_gt = "<script>";  // end tags that never close
  while (no_end_gt.size() < kMiB) no_end_gt += "</script<script";
  r = remove_blocks(no_end_gt, 1);
  EXPECT_EQ(1, r.result);
  EXPECT_EQ(no_end_gt.substr(8), r.out);

  std::string attr = "<a href=\"" + std::string(kMiB, 'j') + "avascript:x\">";
  EXPECT_EQ("<a href=\"" + std::string(kMiB, 'j') + "avascript:x\">", defuse(attr, 1));
  attr = "<a title='" + std::string(kMiB, 'x') + "javascript:" + std::string(kMiB, '\'');
  std::string want = attr;
  want.replace(10 + kMiB + 9, 1, "x");
  EXPECT_EQ(want, defuse(attr, 1));
  EXPECT_EQ(want, remove_blocks(want, 31).out);

  std::string comment = "<!--" + std::string(kMiB, '-') + "<script";
  EXPECT_EQ(comment, remove_blocks(comment, 31).out);

  std::string words;  // every byte starts or continues a word
  while (words.size() < kMiB) words += "&#106;a&#9;vascrip";
  EXPECT_EQ(words, defuse(words));
}

TEST(RmScriptHostile, NulBytesInsideBodies) {
  std::string body("<script>\0</script><b>javascript</b>", 35);
  EXPECT_EQ(body, defuse(body, 0));
  char out[64];
  EXPECT_EQ(1, remove_script_block(body.data(), static_cast<int>(body.size()), out, 64, 1));
  EXPECT_STREQ("", out);  // the end tag lies beyond the NUL
}

// ---- the public XSS vectors ----

// The removal passes as the HTML display runs them: again on each output
// until a pass removes nothing, at most 34 passes.
std::string removal_passes(std::string text, int flags) {
  for (int pass = 0; pass < 34; ++pass) {
    Removed r = remove_blocks(text, flags);
    if (r.result == 0) break;
    text = r.out;
  }
  return text;
}

TEST(RmScriptXss, EveryVectorThroughBothFiltersCountsTracked) {
  if (tarntest::corpus_files("xss").empty()) GTEST_SKIP() << "no XSS corpus";
  const auto vectors = tarntest::xss_vectors();
  EXPECT_EQ(1088u, vectors.size());
  const char* kFilters[] = {"raw", "replace_script_tag", "replace_script_all", "remove_block_31", "display_passes"};
  std::map<std::string, std::map<std::string, tarntest::XssCounts>> counts;  // filter -> source -> counts
  for (const auto& [source, html] : vectors) {
    const std::string tag_only = defuse(html, 1);
    ASSERT_EQ(html.size(), tag_only.size());
    const std::string all = defuse(html, 0);
    ASSERT_EQ(html.size(), all.size());
    const Removed removed = remove_blocks(html, 31);
    ASSERT_LE(removed.out.size(), html.size());
    const std::string shown = removal_passes(tag_only, 1 | 4 | 8 | 16);
    const std::string results[] = {html, tag_only, all, removed.out, shown};
    for (size_t f = 0; f < std::size(kFilters); ++f) {
      counts[kFilters[f]][source].add(results[f]);
      counts[kFilters[f]]["all"].add(results[f]);
    }
  }
  std::ostringstream table;
  table << "# filter\tsource\tvectors\t<script\tjavascript:\ton...=\n";
  for (const char* f : kFilters)
    for (const auto& [source, c] : counts[f])
      table << f << '\t' << source << '\t' << c.vectors << '\t' << c.script_tag << '\t' << c.js_url << '\t'
            << c.on_attr << '\n';
  const std::string golden_path = kDataDir + "/xss_counts.tsv";
  const char* update = std::getenv("TARN_UPDATE_GOLDEN");
  if (update != nullptr && std::strcmp(update, "1") == 0) {
    std::ofstream(golden_path, std::ios::binary) << table.str();
    GTEST_SKIP() << "rewrote " << golden_path;
  }
  EXPECT_EQ(tarntest::read_file(golden_path), table.str())
      << "the counts changed; after checking why, run again with TARN_UPDATE_GOLDEN=1";
}

}  // namespace
