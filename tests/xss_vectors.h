// The public XSS vectors of the corpus (xss/*/vectors.jsonl) and the raw
// strings whose survival after filtering the tests count.
#ifndef TARN_TESTS_XSS_VECTORS_H
#define TARN_TESTS_XSS_VECTORS_H

#include <gtest/gtest.h>
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support.h"

namespace tarntest {

// One JSON string from the opening quote at s[*i]; *i ends past the close.
inline std::string json_string(const std::string& s, size_t* i) {
  std::string out;
  auto put_utf8 = [&out](unsigned cp) {
    const int extra = cp < 0x80 ? 0 : cp < 0x800 ? 1 : cp < 0x10000 ? 2 : 3;
    static const unsigned char kLead[] = {0x00, 0xC0, 0xE0, 0xF0};
    out += static_cast<char>(kLead[extra] | (cp >> (6 * extra)));
    for (int k = extra - 1; k >= 0; --k) out += static_cast<char>(0x80 | ((cp >> (6 * k)) & 0x3F));
  };
  auto hex4 = [&s](size_t at) { return static_cast<unsigned>(std::stoul(s.substr(at, 4), nullptr, 16)); };
  for (++*i; *i < s.size() && s[*i] != '"'; ++*i) {
    if (s[*i] != '\\' || *i + 1 >= s.size()) {
      out += s[*i];
      continue;
    }
    const char e = s[++*i];
    if (e != 'u') {
      const char* from = "ntrbf";
      const char* to = "\n\t\r\b\f";
      const char* k = std::strchr(from, e);
      out += k != nullptr ? to[k - from] : e;
      continue;
    }
    unsigned cp = hex4(*i + 1);
    *i += 4;
    if (cp >= 0xD800 && cp < 0xDC00 && s.compare(*i + 1, 2, "\\u") == 0) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (hex4(*i + 3) - 0xDC00);
      *i += 6;
    }
    put_utf8(cp);
  }
  ++*i;
  return out;
}

// The string members of one JSON object line, by key; nested values are
// passed over.
inline std::map<std::string, std::string> json_members(const std::string& s) {
  std::map<std::string, std::string> out;
  std::string key;
  int depth = 0;
  for (size_t i = 0; i < s.size();) {
    const char c = s[i];
    if (c == '"') {
      std::string str = json_string(s, &i);
      size_t j = s.find_first_not_of(" \t", i);
      if (depth == 1 && j != std::string::npos && s[j] == ':') {
        key = str;
        i = j + 1;
      } else if (depth == 1 && !key.empty()) {
        out[key] = str;
      }
      continue;
    }
    depth += (c == '{' || c == '[') - (c == '}' || c == ']');
    ++i;
  }
  return out;
}

inline bool contains_nocase(const std::string& s, const char* needle) {
  const size_t n = std::strlen(needle);
  for (size_t i = 0; i + n <= s.size(); ++i)
    if (strncasecmp(s.data() + i, needle, n) == 0) return true;
  return false;
}

inline bool is_letter(char c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; }

// An event-handler attribute: "on" and letters after a separator, then
// '=' behind optional blanks.
inline bool has_on_attribute(const std::string& s) {
  for (size_t i = 1; i + 2 < s.size(); ++i) {
    const char sep = s[i - 1];
    if (!(sep == ' ' || sep == '\t' || sep == '\n' || sep == '\r' || sep == '\f' || sep == '/' || sep == '"' ||
          sep == '\''))
      continue;
    if ((s[i] | 0x20) != 'o' || (s[i + 1] | 0x20) != 'n') continue;
    size_t j = i + 2;
    if (j >= s.size() || !is_letter(s[j])) continue;
    while (j < s.size() && is_letter(s[j])) ++j;
    while (j < s.size() && (s[j] == ' ' || s[j] == '\t' || s[j] == '\n' || s[j] == '\r')) ++j;
    if (j < s.size() && s[j] == '=') return true;
  }
  return false;
}

// How many texts still hold "<script", "javascript:" or an event-handler
// attribute.
struct XssCounts {
  int vectors = 0, script_tag = 0, js_url = 0, on_attr = 0;
  void add(const std::string& s) {
    ++vectors;
    script_tag += contains_nocase(s, "<script");
    js_url += contains_nocase(s, "javascript:");
    on_attr += has_on_attribute(s);
  }
};

// Every vector as (source folder, bytes); "html_b64" holds the bytes of
// the vectors that are not valid UTF-8.
inline std::vector<std::pair<std::string, std::string>> xss_vectors() {
  std::vector<std::pair<std::string, std::string>> out;
  for (const std::string& path : corpus_files("xss")) {
    const std::string kName = "/vectors.jsonl";
    if (!path.ends_with(kName)) continue;
    const std::string dir = path.substr(0, path.size() - kName.size());
    const std::string source = dir.substr(dir.rfind('/') + 1);
    std::istringstream lines(read_file(path));
    std::string line;
    while (std::getline(lines, line)) {
      if (line.empty()) continue;
      const auto j = json_members(line);
      if (j.count("html_b64")) {
        std::string b = j.at("html_b64");
        const int n = MTX_Base64Dec(b.data());
        out.emplace_back(source, b.substr(0, static_cast<size_t>(std::max(n, 0))));
      } else {
        EXPECT_TRUE(j.count("html")) << path << ": " << line.substr(0, 80);
        if (j.count("html")) out.emplace_back(source, j.at("html"));
      }
    }
  }
  return out;
}

}  // namespace tarntest

#endif
