// muprf.cpp - the settings of the user a page is made for.
//
// A CGI process serves one user: once it knows who that is, it loads the
// user's profile (a file of "Name=Value" lines) or sets single values, and
// the engine asks for what it needs ("Timezone" for the dates of a header
// block).  Until a profile is configured the process has none, and the
// time zone is the process's own, from TZ.

#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "tarnplat.h"

namespace {

using Profile = std::map<std::string, std::string, std::less<>>;

std::optional<Profile>& profile() {
  static auto* p = new std::optional<Profile>();  // never destroyed: lives as long as the process
  return *p;
}

std::string_view trim(std::string_view s) {
  constexpr std::string_view kBlank = " \t\r";
  const size_t first = s.find_first_not_of(kBlank);
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(kBlank) - first + 1);
}

Profile parse(std::string_view text) {
  Profile settings;
  while (!text.empty()) {
    const size_t eol = text.find('\n');
    std::string_view line = text.substr(0, eol);
    text = eol == std::string_view::npos ? std::string_view() : text.substr(eol + 1);
    line = trim(line);
    if (line.empty() || line.front() == '#') continue;
    const size_t eq = line.find('=');
    if (eq == std::string_view::npos) continue;
    const std::string_view name = trim(line.substr(0, eq));
    if (name.empty()) continue;
    settings.insert_or_assign(std::string(name), std::string(trim(line.substr(eq + 1))));
  }
  return settings;
}

char* answer(char* buf, size_t nz, const char* value) {
  if (buf != nullptr && nz > 0) MSTR_Copy(buf, nz, value != nullptr ? value : "", 0);
  return value != nullptr ? buf : nullptr;
}

}  // namespace

extern "C" {

TARNPLAT_API int MUPRF_GlobalLoad(const char* pszPath) {
  profile().reset();
  if (pszPath == nullptr) return 0;
  size_t size = 0;
  char* content = nullptr;
  if (MSHM_FileRead(pszPath, &size, &content, 0) != 0) return -1;
  int rc = 0;
  try {
    profile() = parse(std::string_view(content, size));
  } catch (...) {
    rc = -1;  // out of memory: no profile
  }
  MSHM_FileFree(content, size);
  return rc;
}

TARNPLAT_API int MUPRF_GlobalSetStr(const char* pszName, const char* pszValue) {
  if (pszName == nullptr || *pszName == '\0') return -1;
  try {
    std::optional<Profile>& p = profile();
    if (!p) p.emplace();
    if (pszValue == nullptr)
      p->erase(std::string(pszName));
    else
      p->insert_or_assign(pszName, pszValue);
  } catch (...) {
    return -1;
  }
  return 0;
}

TARNPLAT_API char* MUPRF_GlobalGetStr(const char* pszName, char* pszBuf, size_t nzBuf) {
  if (pszName == nullptr || pszBuf == nullptr || nzBuf == 0) return answer(pszBuf, nzBuf, nullptr);
  const std::optional<Profile>& p = profile();
  if (!p) return answer(pszBuf, nzBuf, std::strcmp(pszName, "Timezone") == 0 ? std::getenv("TZ") : nullptr);
  const auto it = p->find(std::string_view(pszName));
  return answer(pszBuf, nzBuf, it != p->end() ? it->second.c_str() : nullptr);
}

}  // extern "C"
