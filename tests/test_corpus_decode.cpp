// Every message of the third-party corpus, decoded with each of the four
// presets: the tree obeys its invariants, the structure does not depend on
// the preset, structure-only decoding leaves the caller's buffer as it
// was, and a one-line summary per message stays what it was (the golden
// file tests/data/corpus_decode_summary.tsv; TARN_UPDATE_GOLDEN=1 rewrites
// it after a deliberate change).

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "decode_invariants.h"
#include "support.h"

namespace {

using tarntest::Decoded;
using tarntest::TreeChecker;

struct Preset {
  const char* name;
  const MIME_DECODE* preset;
};
const Preset kPresets[] = {
    {"imapME", &imapME}, {"generalME", &generalME}, {"msgreadME", &msgreadME}, {"mailerdME", &mailerdME}};

struct Message {
  std::string name;  // path below the corpus folder, as in INDEX.tsv
  std::string bytes;
};

// Files of mime/ that INDEX.tsv marks as something other than a message
// (expected outputs of other parsers, notes, attachment originals).
std::set<std::string> non_messages() {
  std::set<std::string> out;
  std::ifstream index(tarntest::corpus_dir() + "/INDEX.tsv");
  std::string line;
  while (std::getline(index, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string path, bytes, tags;
    std::getline(fields, path, '\t');
    std::getline(fields, bytes, '\t');
    std::getline(fields, tags, '\t');
    std::string kind = tags.substr(0, tags.find(' '));
    if (kind == "expected-output" || kind == "expected-attachment-list" || kind == "attachment-data" ||
        kind == "note")
      out.insert(path);
  }
  return out;
}

// The corpus messages, read once for all tests of the program.
const std::vector<Message>& corpus() {
  static const std::vector<Message> messages = [] {
    std::vector<Message> out;
    std::set<std::string> skip = non_messages();
    std::string prefix = tarntest::corpus_dir() + "/";
    for (const std::string& path : tarntest::corpus_files("mime")) {
      std::string name = path.substr(prefix.size());
      if (skip.count(name) == 0) out.push_back({name, tarntest::read_file(path)});
    }
    return out;
  }();
  return messages;
}

bool in_buffer(Decoded& d, const char* p) {
  std::less_equal<const char*> le;
  return p != nullptr && le(d.buffer(), p) && le(p, d.buffer() + d.size());
}

// The structure the walk cut from the buffer: where each entity taken from
// the buffer starts, how deep it stands, and the run's error bits.  Body
// decoding adds entities (uuencoded blocks, TNEF files) but never moves
// these, so every preset must give the same.
std::string structure(Decoded& d) {
  std::ostringstream out;
  out << "err=" << d.error_code();
  std::vector<std::pair<ME*, int>> todo{{d.root(), 0}};
  while (!todo.empty()) {
    auto [me, depth] = todo.back();
    todo.pop_back();
    for (; me != nullptr; me = me->next) {
      if (in_buffer(d, me->header_bgn) && !tarntest::made_by_body_walk(me)) out << ' ' << depth << '@' << (me->header_bgn - d.buffer());
      if (me->child != nullptr) todo.push_back({me->child, depth + 1});
    }
  }
  return out.str();
}

constexpr size_t kShapeMax = 400;

// Content types of the tree in walking order, children in brackets:
// "7[2,6[2,3],4]".  Entities without a header show as "-".
void shape_into(const ME* me, std::string& out, int depth) {
  for (bool first = true; me != nullptr; me = me->next, first = false) {
    if (out.size() > kShapeMax) return;
    if (!first) out += ',';
    out += me->h != nullptr ? std::to_string(me->h->mime.ctype) : "-";
    if (me->child != nullptr) {
      out += '[';
      if (depth < 64) shape_into(me->child, out, depth + 1);
      else out += "...";
      out += ']';
    }
  }
}
std::string shape(const ME* root) {
  std::string out;
  shape_into(root, out, 0);
  if (out.size() > kShapeMax) out = out.substr(0, kShapeMax) + "...";
  return out;
}

std::string golden_path() { return tarntest::testdata_dir() + "/corpus_decode_summary.tsv"; }

std::map<std::string, std::string> read_golden() {
  std::map<std::string, std::string> out;
  std::ifstream in(golden_path());
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    out[line.substr(0, line.find('\t'))] = line;
  }
  return out;
}

// The checker itself: a sound tree passes, and each kind of damage is
// reported.
TEST(CorpusDecode, CheckerReportsBrokenTrees) {
  std::string sample = tarntest::read_file(std::string(TARN_SOURCE_DIR) + "/data/samples/forwarded.eml");
  auto problems_after = [&](auto damage) {
    Decoded d(sample, imapME);
    damage(d);
    TreeChecker checker(d.ctx(), d.buffer(), d.size());
    return tarntest::join_lines(checker.check(d.ctx().error_code));
  };
  EXPECT_EQ("", problems_after([](Decoded&) {}));
  // The root's parts: text/plain, then message/rfc822 with its message.
  EXPECT_NE(std::string::npos, problems_after([](Decoded& d) { d.root()->child->h->mime.ctype = 42; }).find("ctype 42"));
  EXPECT_NE(std::string::npos, problems_after([](Decoded& d) { d.root()->child->h->mime.enc_type = 6; }).find("enc_type 6"));
  EXPECT_NE(std::string::npos,
            problems_after([](Decoded& d) { d.root()->child->next->next = d.root()->child; }).find("cycle"));
  EXPECT_NE(std::string::npos, problems_after([](Decoded& d) {
                                 ME* a = d.root()->child;
                                 ME* b = a->next;
                                 d.root()->child = b;
                                 b->next = a;
                                 a->next = nullptr;
                               }).find("out of message order"));
  EXPECT_NE(std::string::npos,
            problems_after([](Decoded& d) { d.root()->child->next->child = nullptr; }).find("without its embedded"));
  EXPECT_NE(std::string::npos,
            problems_after([](Decoded& d) { d.root()->child->next->child->h->rfc822 = nullptr; }).find("message-level"));
  EXPECT_NE(std::string::npos, problems_after([](Decoded& d) { d.root()->child->h = nullptr; }).find("no parsed header"));
  EXPECT_NE(std::string::npos, problems_after([](Decoded& d) {
                                 ME* text = d.root()->child;
                                 text->body_end = text->body_bgn + 1;
                                 text->datalen = 5;
                               }).find("datalen longer"));
  EXPECT_NE(std::string::npos,
            problems_after([](Decoded& d) { d.root()->child->body_end = d.buffer() + d.size() + 2; }).find("outside"));
  EXPECT_NE(std::string::npos,
            problems_after([](Decoded& d) { d.root()->child->child = d.root()->child->next; }).find("leaf entity"));
  EXPECT_NE(std::string::npos, problems_after([](Decoded& d) { d.ctx().error_code |= 8; }).find("unknown bits"));
#ifdef TARN_CHECK_ASAN
  // A field value in memory the process may not read.
  static char region[32] = "value";
  __asan_poison_memory_region(region, sizeof region);
  std::string found = problems_after([](Decoded& d) { d.root()->h->he->ent_ptr = region; });
  __asan_unpoison_memory_region(region, sizeof region);
  EXPECT_NE(std::string::npos, found.find("not in readable memory")) << found;
#endif
}

TEST(CorpusDecode, CorpusIsThere) {
  if (corpus().empty()) GTEST_SKIP() << "no corpus at " << tarntest::corpus_dir();
  // The tests below are only as good as the number of messages they see.
  EXPECT_GE(corpus().size(), 700u);
}

TEST(CorpusDecode, EveryMessageWithEveryPresetKeepsTheTreeInvariants) {
  for (const Message& m : corpus()) {
    std::string first_structure;
    for (const Preset& p : kPresets) {
      Decoded d(m.bytes, *p.preset);
      TreeChecker checker(d.ctx(), d.buffer(), d.size());
      std::vector<std::string> problems = checker.check(d.error_code());
      if (!problems.empty()) ADD_FAILURE() << m.name << " with " << p.name << ":\n" << tarntest::join_lines(problems);
      std::string s = structure(d);
      if (first_structure.empty()) first_structure = s;
      else if (s != first_structure)
        ADD_FAILURE() << m.name << ": " << p.name << " cut the message differently from " << kPresets[0].name
                      << "\n  " << s.substr(0, 300) << "\n  " << first_structure.substr(0, 300);
    }
  }
}

TEST(CorpusDecode, StructureOnlyDecodingLeavesTheBufferAlone) {
  // imapME copies every header block before splitting it and decodes no
  // body, so the caller's buffer comes back byte for byte.
  for (const Message& m : corpus()) {
    Decoded d(m.bytes, imapME);
    if (std::string_view(d.buffer(), d.size()) != m.bytes) ADD_FAILURE() << m.name << ": buffer changed";
    for (ME* me : tarntest::walk(d.root())) {
      if (me->datalen != 0 && !(me->h && me->h->mime.ctype == MIME_CT_RFC822)) {
        ADD_FAILURE() << m.name << ": a body has datalen " << me->datalen << " without decoding";
        break;
      }
    }
  }
}

TEST(CorpusDecode, SummaryMatchesGoldenFile) {
  if (corpus().empty()) GTEST_SKIP() << "no corpus";
  std::vector<std::string> lines;
  for (const Message& m : corpus()) {
    Decoded d(m.bytes, generalME);
    TreeChecker checker(d.ctx(), d.buffer(), d.size());
    checker.check(d.error_code());
    lines.push_back(m.name + "\t" + std::to_string(checker.entities()) + "\t" + std::to_string(d.error_code()) + "\t" +
                    shape(d.root()));
  }
  const char* update = std::getenv("TARN_UPDATE_GOLDEN");
  if (update != nullptr && std::string(update) == "1") {
    std::ofstream out(golden_path(), std::ios::binary | std::ios::trunc);
    out << "# path\tentities\terror_code\tctype tree (generalME)\n";
    for (const std::string& l : lines) out << l << '\n';
    ASSERT_TRUE(out.good()) << "cannot write " << golden_path();
    std::printf("rewrote %s (%zu messages)\n", golden_path().c_str(), lines.size());
    return;
  }
  std::map<std::string, std::string> golden = read_golden();
  ASSERT_FALSE(golden.empty()) << golden_path() << " missing: run with TARN_UPDATE_GOLDEN=1 to make it";
  std::ostringstream diff;
  int differences = 0;
  for (const std::string& l : lines) {
    std::string name = l.substr(0, l.find('\t'));
    auto it = golden.find(name);
    if (it == golden.end()) {
      if (differences++ < 30) diff << "+ " << l << "\n";
    } else {
      if (it->second != l && differences++ < 30) diff << "- " << it->second << "\n+ " << l << "\n";
      golden.erase(it);
    }
  }
  for (const auto& [name, l] : golden)
    if (differences++ < 30) diff << "- " << l << "\n";
  EXPECT_EQ(0, differences) << "decoding summary differs from " << golden_path()
                            << " (TARN_UPDATE_GOLDEN=1 rewrites it after a deliberate change):\n"
                            << diff.str();
}

}  // namespace
