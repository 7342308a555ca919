// mcgi.cpp - CGI request variables.
//
// A CGI program learns its request from QUERY_STRING and, for a POST, from
// a form body on standard input that the program reads itself and hands
// over with MCGI_SetPostBody.  Both are "name=value" pairs joined by '&'
// (';' is accepted as well), URL-encoded.  The pairs are parsed into one
// table when a variable is first asked for; the table is parsed again when
// QUERY_STRING no longer holds the text it was built from, so a program (or
// a test) that changes its environment is never answered from a stale
// request.

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarnplat.h"

namespace {

struct Request {
  bool parsed = false;
  bool have_query = false;   // QUERY_STRING was set when the table was built
  std::string query;         // its text then
  std::string post;          // the POST body handed over, if any
  std::vector<std::pair<std::string, std::string>> vars;
};

Request& request() {
  static auto* r = new Request();  // never destroyed: values stay valid at exit
  return *r;
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// URL decoding: '+' is a space, "%XX" one byte; a '%' not followed by two
// hex digits stands for itself.  The result is cut at a decoded NUL, since
// callers read it as a C string.
std::string url_decode(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    char c = s[i];
    if (c == '+') {
      c = ' ';
    } else if (c == '%' && i + 2 < s.size() && hex_value(s[i + 1]) >= 0 && hex_value(s[i + 2]) >= 0) {
      c = static_cast<char>(hex_value(s[i + 1]) * 16 + hex_value(s[i + 2]));
      i += 2;
    }
    if (c == '\0') break;
    out.push_back(c);
  }
  return out;
}

// Appends the pairs of one encoded text; NUL bytes separate pairs too.
void parse_pairs(std::string_view text, std::vector<std::pair<std::string, std::string>>& vars) {
  while (!text.empty()) {
    size_t end = text.find_first_of(std::string_view("&;\0", 3));
    std::string_view pair = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (pair.empty()) continue;
    size_t eq = pair.find('=');
    std::string name = url_decode(pair.substr(0, eq));
    if (name.empty()) continue;
    std::string value = eq == std::string_view::npos ? std::string() : url_decode(pair.substr(eq + 1));
    vars.emplace_back(std::move(name), std::move(value));
  }
}

void reparse(Request& r) {
  const char* qs = std::getenv("QUERY_STRING");
  r.have_query = qs != nullptr;
  r.query = qs != nullptr ? qs : "";
  r.vars.clear();
  parse_pairs(r.query, r.vars);
  parse_pairs(r.post, r.vars);
  r.parsed = true;
}

bool query_changed(const Request& r) {
  const char* qs = std::getenv("QUERY_STRING");
  if ((qs != nullptr) != r.have_query) return true;
  return qs != nullptr && r.query != qs;
}

}  // namespace

extern "C" {

TARNPLAT_API const char* MCGI_VarStrGet(const char* pszName) {
  if (pszName == nullptr || *pszName == '\0') return nullptr;
  Request& r = request();
  try {
    if (!r.parsed || query_changed(r)) reparse(r);
  } catch (...) {
    // Out of memory while parsing: answer as for a request without
    // variables, and try again on the next call.
    r.parsed = false;
    r.vars.clear();
    return nullptr;
  }
  for (const auto& [name, value] : r.vars)
    if (name == pszName) return value.c_str();
  return nullptr;
}

TARNPLAT_API int MCGI_SetPostBody(const char* pBody, size_t nLen) {
  Request& r = request();
  r.parsed = false;
  r.vars.clear();
  r.post.clear();
  if (pBody == nullptr) return 0;
  try {
    r.post.assign(pBody, nLen);
  } catch (...) {
    r.post.clear();
    return -1;
  }
  return 0;
}

}  // extern "C"
