// Recipient lists: splitting typed recipient texts, the list calls, quoting,
// the base64 form and its round trip over the corpus headers, hostile texts.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "msg_utility_rcpt_internal.h"
#include "support.h"
#include "tarnmail.h"
#include "tarnmail/rcpt.h"

namespace {

struct Entry {
  std::string addr, name;
  int type = RCPT_TYPE_TO;
  bool operator==(const Entry&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Entry& e) {
  return os << "{\"" << e.addr << "\", \"" << e.name << "\", " << e.type << "}";
}

// A list head that frees its nodes.
struct List {
  CgiRcpt head;
  List() { cgircpt_init(&head); }
  ~List() { cgircpt_free(&head); }
  List(const List&) = delete;
  List& operator=(const List&) = delete;

  std::vector<Entry> entries() const {
    std::vector<Entry> out;
    if (cgircpt_count(&head) == 0) return out;
    for (const CgiRcpt* n = &head; n != nullptr; n = n->next) {
      EXPECT_LT(std::strlen(n->addr), sizeof n->addr);
      EXPECT_LT(std::strlen(n->name), sizeof n->name);
      out.push_back({n->addr, n->name, n->type});
    }
    return out;
  }
};

// A text in a heap block of exactly its size, so a read past its terminator
// trips the address sanitizer.
std::unique_ptr<char[]> exact(std::string_view s) {
  auto p = std::make_unique<char[]>(s.size() + 1);
  std::memcpy(p.get(), s.data(), s.size());
  p[s.size()] = '\0';
  return p;
}

std::vector<Entry> parse(std::string_view text, int delimiter = 0, int charset = 0) {
  List l;
  auto in = exact(text);
  EXPECT_EQ(build_rcpt_charset(&l.head, in.get(), RCPT_TYPE_TO, delimiter, charset), 1) << text;
  return l.entries();
}

std::string saved_text(const CgiRcpt& head) {
  char* b64 = nullptr;
  EXPECT_EQ(RCPT_SaveToB64(&head, &b64), 0);
  if (b64 == nullptr) return "<none>";
  int n = MTX_Base64Dec(b64);
  std::string text(b64, static_cast<size_t>(n));
  std::free(b64);
  return text;
}

// ---- byte-level helpers ------------------------------------------------------

TEST(RcptBytes, WideCharLengths) {
  struct Case {
    const char* bytes;
    int charset, length;
  };
  const Case cases[] = {
      {"ab", 0, 0}, {"\xA4\x40", 0, 2}, {"\xA5\x5C", 0, 2}, {"\x81\xFE", 0, 2},
      {"\xA4\x7F", 0, 0}, {"\xFF\x41", 0, 0}, {"\xA4", 0, 0},  // no trail 0x7F, no lead 0xFF
      {"\x81\x30\x81\x30", 0, 4}, {"\x81\x30\x81", 0, 0}, {"\x81\x30\x7F\x30", 0, 0},  // GB18030
      // Two katakana read as a pair by the lead-byte test, not as Shift_JIS.
      {"\xB1\xB2", 0, 2}, {"\xB1\xB2", MIME_CS_ISO2022JP, 0}, {"\x83\x5C", MIME_CS_ISO2022JP, 2},
      {"\x83", MIME_CS_ISO2022JP, 0}, {"\xE4\xB8\xAD", MIME_CS_BIG5, 2},
  };
  for (const Case& c : cases) {
    auto p = exact(c.bytes);
    EXPECT_EQ(ChkWideChar(p.get(), c.charset), c.length) << c.bytes << " / " << c.charset;
  }
  EXPECT_EQ(ChkWideChar(nullptr, 0), 0);
}

TEST(RcptBytes, NumericEntitySemicolon) {
  struct Case {
    const char* text;
    bool entity;
  };
  const Case cases[] = {
      {"&#20013;", true}, {"x&#1;", true},   {"&#D20013;", true}, {"&#x4E2D;", true},
      {"&#xaf;", true},   {"&#X4E;", false}, {"&#;", false},      {"&#x;", false},
      {"&#D;", false},    {"&#xG;", false},  {"#12;", false},     {"&12;", false},
      {"&# 1;", false},   {";", false},      {"&#12a;", false},
  };
  for (const Case& c : cases) {
    const char* semi = std::strrchr(c.text, ';');
    EXPECT_EQ(s_ChkUniSemicolon(c.text, semi), c.entity) << c.text;
  }
  // The look stops at the start it is given.
  const char* text = "&#12;";
  EXPECT_FALSE(s_ChkUniSemicolon(text + 1, text + 4));
}

// ---- splitting ----------------------------------------------------------------

struct Split {
  const char* text;
  std::vector<Entry> entries;
};

const Split kSplits[] = {
    // Quoted names, brackets, comments.
    {"\"Doe, John\" <jd@x>, ann@y", {{"jd@x", "Doe, John"}, {"ann@y", ""}}},
    {"jd@x (John Doe)", {{"jd@x", "John Doe"}}},
    {"John <jd@x>", {{"jd@x", "John "}}},  // a name before "<" keeps its blanks
    {"Ann (x) <a@b>", {{"a@b", "Ann (x) "}}},
    {"'Ann' <a@b>; 'O\\'Neil' <o@x>", {{"a@b", "Ann"}, {"o@x", "O'Neil"}}},
    {R"("a\"b\\c\d" <x@y>)", {{"x@y", "a\"b\\cd"}}},
    {"a@b  , c@d ", {{"a@b", ""}, {"c@d", ""}}},
    {" ,; a@b,,", {{"a@b", ""}}},
    {"", {}},
    {"<>", {}},
    // Quoted text as a local part or as the address.
    {"\"j d\"@x", {{"jd@x", ""}}},
    {"'j d'@x", {{"jd@x", ""}}},
    {R"("a\"b"@x)", {{"ab@x", ""}}},
    {"\"a@b\", c@d", {{"a@b", ""}, {"c@d", ""}}},
    {"\"a@b\"", {{"a@b", ""}}},
    // Names alone, and texts that stop short.
    {"Bob", {{"Bob", ""}}},
    {"John <", {{"John ", ""}}},
    {"<a@b", {{"a@b", ""}}},
    {"\"Ann <a@b>", {{"Ann <a@b>", ""}}},
    {"a@b (", {{"a@b", ""}}},
    // Inside brackets blanks go, except after a comment there.
    {"< a @ b >", {{"a@b", ""}}},
    {"<a b(c) d@e>", {{"ab(c) d@e", ""}}},
    // Comments: separators, quotes and escapes.
    {"a@b (Ann, c@d)", {{"a@b", "Ann"}, {"c@d)", ""}}},
    {"a@b (Doe, John) , c@d", {{"a@b", "Doe, John"}, {"c@d", ""}}},
    {"a@b (Ann, Bo", {{"a@b", "Ann Bo"}}},
    {"a@b (\"Ann\")", {{"a@b", "Ann"}}},
    {"a@b (A\"n\")", {{"a@b", "A\"n"}}},
    {R"(a@b (x \) y\" z))", {{"a@b", "x ) y\" z"}}},
    {R"(a@b (x \y))", {{"a@b", "x \\y"}}},
    // Numeric character references keep their ";".
    {"&#20013;&#25991; <a@b>", {{"a@b", "&#20013;&#25991; "}}},
    {"&#x4E2D; <a@b>; &#D20013;x <c@d>", {{"a@b", "&#x4E2D; "}, {"c@d", "&#D20013;x "}}},
    {"<&#65;@x>", {{"&#65;@x", ""}}},
    {"&#X41;b@c", {{"&#X41", ""}, {"b@c", ""}}},
    // Duplicates without regard to case; the first spelling stays.
    {"a@b, A@B", {{"a@b", ""}}},
    {"Ann <a@b>, Other <A@b>", {{"a@b", "Ann "}}},
    // An entry without address fills the empty head, and the next one
    // takes the head over.
    {"\"Ann\" <>, b@c", {{"b@c", ""}}},
    {"\"Ann\" <>", {{"", "Ann"}}},
    // Double-byte names: a trail byte is no escape, quote or separator.
    {"\"\xA5\x5C\" <a@b>", {{"a@b", "\xA5\x5C"}}},
    {"\xA5\x5C <a@b>", {{"a@b", "\xA5\x5C "}}},
    {"a@b (\xA5\x5C)", {{"a@b", "\xA5\x5C"}}},
};

TEST(RcptSplit, Texts) {
  for (const Split& c : kSplits) EXPECT_EQ(parse(c.text), c.entries) << c.text;
}

TEST(RcptSplit, DelimiterTypeAndCharset) {
  EXPECT_EQ(parse("a@b|c@d", '|'), (std::vector<Entry>{{"a@b", ""}, {"c@d", ""}}));
  EXPECT_EQ(parse("a@b|c@d", 0), (std::vector<Entry>{{"a@b|c@d", ""}}));

  List l;
  ASSERT_EQ(build_rcpt(&l.head, "a@b, c@d", RCPT_TYPE_BCC, 0), 1);
  EXPECT_EQ(l.entries(), (std::vector<Entry>{{"a@b", "", RCPT_TYPE_BCC}, {"c@d", "", RCPT_TYPE_BCC}}));
  EXPECT_EQ(build_rcpt(&l.head, nullptr, RCPT_TYPE_TO, 0), 1);
  EXPECT_EQ(build_rcpt(nullptr, "a@b", RCPT_TYPE_TO, 0), 0);

  // Shift_JIS: a katakana byte stands alone, so the backslash after it
  // escapes the quote; the lead-byte test pairs the two instead.
  const char* text = "\"\xB1\\\"\" <a@b>";
  EXPECT_EQ(parse(text, 0, MIME_CS_ISO2022JP), (std::vector<Entry>{{"a@b", "\xB1\""}}));
  EXPECT_EQ(parse(text, 0, 0), (std::vector<Entry>{{"\xB1\\", ""}, {" <a@b>", ""}}));
  EXPECT_EQ(parse("\"\x83\x5C\" <a@b>", 0, MIME_CS_ISO2022JP),
            (std::vector<Entry>{{"a@b", "\x83\x5C"}}));
}

TEST(RcptSplit, LongEntriesAreCut) {
  // 255 bytes while parsing, 127 in the node, never half a character.
  EXPECT_EQ(parse(std::string(300, 'x')), (std::vector<Entry>{{std::string(127, 'x'), ""}}));
  EXPECT_EQ(parse(std::string(126, 'x') + "\xA4\x40"),
            (std::vector<Entry>{{std::string(126, 'x'), ""}}));
  EXPECT_EQ(parse(std::string(125, 'x') + "\xA4\x40"),
            (std::vector<Entry>{{std::string(125, 'x') + "\xA4\x40", ""}}));
  // A name past 255 bytes: the rest is dropped up to the closing quote.
  std::vector<Entry> e = parse("\"" + std::string(400, 'n') + "\" <a@b>");
  EXPECT_EQ(e, (std::vector<Entry>{{"a@b", std::string(127, 'n')}}));
}

// ---- the list calls --------------------------------------------------------------

TEST(RcptList, AddCountFreeNormalize) {
  List l;
  EXPECT_EQ(cgircpt_count(&l.head), 0);
  // A head with a name and no address counts, yet the list is empty.
  EXPECT_EQ(cgircpt_add(&l.head, "", "Ann", RCPT_TYPE_CC), 1);
  EXPECT_EQ(cgircpt_empty(&l.head), 1);
  EXPECT_EQ(cgircpt_count(&l.head), 1);

  EXPECT_EQ(cgircpt_add(&l.head, "Bob", "B", RCPT_TYPE_TO), 1);  // fills the head
  EXPECT_EQ(cgircpt_add(&l.head, "c@d", nullptr, RCPT_TYPE_CC), 1);
  EXPECT_EQ(cgircpt_add(&l.head, "BOB", "dup", RCPT_TYPE_TO), 1);  // dropped
  EXPECT_EQ(cgircpt_add_nocheck(&l.head, "c@D", "again", RCPT_TYPE_BCC), 1);
  EXPECT_EQ(cgircpt_add(&l.head, std::string(130, 'l').c_str(), "", RCPT_TYPE_TO), 1);
  EXPECT_EQ(cgircpt_count(&l.head), 4);
  EXPECT_STREQ(l.head.tail->addr, std::string(127, 'l').c_str());

  EXPECT_EQ(cgircpt_normalize(&l.head, "example.org"), 0);
  EXPECT_EQ(l.entries(), (std::vector<Entry>{{"Bob@example.org", "B", RCPT_TYPE_TO},
                                             {"c@d", "", RCPT_TYPE_CC},
                                             {"c@D", "again", RCPT_TYPE_BCC},
                                             {std::string(127, 'l'), "", RCPT_TYPE_TO}}));
  cgircpt_free(&l.head);
  EXPECT_EQ(l.entries(), (std::vector<Entry>{{"", "B", RCPT_TYPE_TO}}));  // the name stays

  // A completed address must fit the field whole, else it stays bare; the
  // suffix itself is cut to the field's size.
  List m;
  cgircpt_add(&m.head, "Bob", "", 0);
  cgircpt_add(&m.head, std::string(125, 'u').c_str(), "", 0);
  cgircpt_normalize(&m.head, std::string(200, 'd').c_str());
  EXPECT_STREQ(m.head.addr, "Bob");
  cgircpt_normalize(&m.head, "xy");
  EXPECT_STREQ(m.head.addr, "Bob@xy");
  EXPECT_EQ(std::string(m.head.next->addr), std::string(125, 'u'));  // 128 bytes
  cgircpt_normalize(&m.head, "x");
  EXPECT_EQ(std::string(m.head.next->addr), std::string(125, 'u') + "@x");  // 127 bytes
  List n;  // an empty list stays empty
  cgircpt_normalize(&n.head, "x");
  EXPECT_EQ(cgircpt_empty(&n.head), 1);
}

TEST(RcptList, QuoteCopy) {
  struct Case {
    const char* src;
    int size, charset;
    const char* out;
  };
  const Case cases[] = {
      {"a\"b\\c", 64, 0, "a\\\"b\\\\c"},
      {"ab\"", 4, 0, "ab"},  // an escape never goes in without its byte
      {"ab\"", 5, 0, "ab\\\""},
      {"\xA5\x5C\"", 64, 0, "\xA5\x5C\\\""},  // a trail byte is not escaped
      {"\xA5\x5C", 64, MIME_CS_ISO2022JP, "\xA5\\\x5C"},
      {"a\xA5\x5C", 3, 0, "a"},  // a character that does not fit stops the copy
      {"abc", 1, 0, ""},
      {"abc", 3, 0, "ab"},
  };
  for (const Case& c : cases) {
    auto out = std::make_unique<char[]>(static_cast<size_t>(c.size));
    EXPECT_EQ(RCPT_AddQuotChar(out.get(), c.size, c.src, c.charset), 0);
    EXPECT_STREQ(out.get(), c.out) << c.src << " / " << c.size;
  }
  char buf[8];
  EXPECT_EQ(RCPT_AddQuotChar(nullptr, 8, "a", 0), -1);
  EXPECT_EQ(RCPT_AddQuotChar(buf, 8, nullptr, 0), -1);
  EXPECT_EQ(RCPT_AddQuotChar(buf, 0, "a", 0), -1);
  std::string filter = "ab \t\r\n ";
  filter_space(filter.data(), 4);
  EXPECT_EQ(std::string(filter.c_str()), "ab");
  EXPECT_EQ(std::string_view(filter.data() + 4, 3), "\r\n ");  // only the first len bytes
}

// ---- the base64 form ----------------------------------------------------------------

TEST(RcptBase64, SaveAndLoad) {
  List l;
  ASSERT_EQ(build_rcpt(&l.head, "\"Ann\" <a@b>, c@d", RCPT_TYPE_TO, 0), 1);
  char* b64 = nullptr;
  ASSERT_EQ(RCPT_SaveToB64(&l.head, &b64), 0);
  ASSERT_NE(b64, nullptr);
  EXPECT_STREQ(b64, "IkFubiIgPGFAYj4sIGNAZCwg");  // "\"Ann\" <a@b>, c@d, "
  List back;
  EXPECT_EQ(RCPT_LoadFromB64(b64, &back.head, RCPT_TYPE_CC), 0);
  EXPECT_EQ(back.entries(), (std::vector<Entry>{{"a@b", "Ann", RCPT_TYPE_CC}, {"c@d", "", RCPT_TYPE_CC}}));
  std::free(b64);
  EXPECT_EQ(RCPT_SaveToB64(&l.head, nullptr), 0);

  // Quotes and backslashes are escaped; a node without name or without
  // address is written as its address alone.
  List q;
  cgircpt_add(&q.head, "x@y", "A \"B\" \\C", 0);
  cgircpt_add_nocheck(&q.head, "", "Ghost", 0);
  cgircpt_add(&q.head, "bare@z", "", 0);
  EXPECT_EQ(saved_text(q.head), "\"A \\\"B\\\" \\\\C\" <x@y>, , bare@z, ");
  List q2;
  ASSERT_NE(RCPT_SaveToB64(&q.head, &b64), -1);
  EXPECT_EQ(RCPT_LoadFromB64(b64, &q2.head, 0), 0);
  std::free(b64);
  EXPECT_EQ(q2.entries(), (std::vector<Entry>{{"x@y", "A \"B\" \\C"}, {"bare@z", ""}}));

  List empty;
  EXPECT_EQ(saved_text(empty.head), ", ");
  EXPECT_EQ(RCPT_SaveToB64(nullptr, &b64), -1);
  EXPECT_EQ(b64, nullptr);

  EXPECT_EQ(RCPT_LoadFromB64(nullptr, &back.head, 0), -1);
  EXPECT_EQ(RCPT_LoadFromB64("", &back.head, 0), -1);
  EXPECT_EQ(RCPT_LoadFromB64("YUBi", nullptr, 0), -1);
  // Decoded text ends at its first NUL: "a@b\0c@d".
  List nul;
  EXPECT_EQ(RCPT_LoadFromB64("YUBiAGNAZA==", &nul.head, 0), 0);
  EXPECT_EQ(nul.entries(), (std::vector<Entry>{{"a@b", ""}}));
}

// Header fields of a message: the first field of that name, unfolded.
std::optional<std::string> first_field(const std::string& msg, std::string_view name) {
  size_t pos = 0;
  auto line_at = [&](size_t at, size_t* next) {
    size_t eol = msg.find('\n', at);
    if (eol == std::string::npos) eol = msg.size();
    *next = eol + 1;
    std::string_view line(msg.data() + at, eol - at);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    return line;
  };
  while (pos < msg.size()) {
    size_t next;
    std::string_view line = line_at(pos, &next);
    if (line.empty()) break;  // end of the header block
    if (line.size() > name.size() && line[name.size()] == ':' &&
        strncasecmp(line.data(), name.data(), name.size()) == 0) {
      std::string value(line.substr(name.size() + 1));
      while (next < msg.size() && (msg[next] == ' ' || msg[next] == '\t'))
        value += line_at(next, &next);
      return value;
    }
    pos = next;
  }
  return std::nullopt;
}

TEST(RcptBase64, CorpusHeadersRoundTrip) {
  std::istringstream index(tarntest::read_file(tarntest::corpus_dir() + "/INDEX.tsv"));
  int headers = 0, entries = 0;
  for (std::string row; std::getline(index, row);) {
    // path, size, tags: messages only, no mbox files.
    const size_t tab1 = row.find('\t'), tab2 = row.find('\t', tab1 + 1);
    const std::string path = row.substr(0, tab1);
    if (path.rfind("mime/", 0) != 0 || row.compare(tab2 + 1, 4, "msg ") != 0) continue;
    const std::string msg = tarntest::read_file(tarntest::corpus_dir() + "/" + path);
    for (std::string_view field : {"To", "Cc"}) {
      std::optional<std::string> value = first_field(msg, field);
      if (!value) continue;
      List first;
      auto text = exact(*value);
      ASSERT_EQ(build_rcpt(&first.head, text.get(), RCPT_TYPE_CC, 0), 1) << path;
      char* b64 = nullptr;
      ASSERT_EQ(RCPT_SaveToB64(&first.head, &b64), 0);
      ASSERT_NE(b64, nullptr);
      List second;
      EXPECT_EQ(RCPT_LoadFromB64(b64, &second.head, RCPT_TYPE_CC), 0) << path;
      std::free(b64);
      EXPECT_EQ(second.entries(), first.entries()) << path << " " << field << ": " << *value;
      ++headers;
      entries += cgircpt_count(&first.head);
    }
  }
  EXPECT_GT(headers, 600);
  EXPECT_GT(entries, 800);
}

// ---- hostile texts -------------------------------------------------------------------

TEST(RcptHostile, LongUnbalancedTexts) {
  const size_t mib = size_t{1} << 20;
  const std::string shapes[] = {
      std::string(mib, '"'), "\"" + std::string(mib, '\\'), std::string(mib, '<'),
      std::string(mib, '>'), std::string(mib, '('), std::string(mib, '\xA4'),
      "a@b (" + std::string(mib, ','),  // every separator looks ahead to the end
      "a@b (" + std::string(mib, ';') + ")", "&#" + std::string(mib, '1') + std::string(1000, ';'),
      std::string(mib / 2, '\'') + std::string(mib / 2, ' '),
  };
  for (const std::string& s : shapes) {
    List l;
    auto in = exact(s);
    EXPECT_EQ(build_rcpt(&l.head, in.get(), RCPT_TYPE_TO, 0), 1);
    EXPECT_LE(cgircpt_count(&l.head), 2);
    (void)l.entries();
  }
  // Many entries: duplicates are found however long the list grows.
  std::string many;
  for (int i = 0; i < 3000; ++i) many += "u" + std::to_string(i % 1000) + "@x, ";
  List l;
  auto in = exact(many);
  EXPECT_EQ(build_rcpt(&l.head, in.get(), RCPT_TYPE_TO, 0), 1);
  EXPECT_EQ(cgircpt_count(&l.head), 1000);
}

TEST(RcptHostile, RandomTextsAndBase64) {
  // Texts made of the bytes the splitter reacts to, and base64 garbage.
  const std::string alphabet = "\"'<>()@,;\\ &#xD0123a\xA4\x40\x81\x30\xFE";
  std::mt19937 rng(20260101);
  for (int round = 0; round < 4000; ++round) {
    std::string s(rng() % 300, '\0');
    for (char& c : s) c = alphabet[rng() % alphabet.size()];
    List l;
    auto in = exact(s);
    ASSERT_EQ(build_rcpt_charset(&l.head, in.get(), RCPT_TYPE_TO, '|', round % 2), 1) << s;
    (void)l.entries();
    char* b64 = nullptr;
    RCPT_SaveToB64(&l.head, &b64);
    ASSERT_NE(b64, nullptr);
    List back;
    RCPT_LoadFromB64(b64, &back.head, RCPT_TYPE_TO);
    std::free(b64);
    (void)back.entries();

    std::string garbage(rng() % 200 + 1, '\0');
    for (char& c : garbage) c = static_cast<char>(rng() % 255 + 1);
    List g;
    auto gin = exact(garbage);
    RCPT_LoadFromB64(gin.get(), &g.head, RCPT_TYPE_TO);
    (void)g.entries();
  }
}

}  // namespace
