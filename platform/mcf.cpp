// mcf.cpp - configuration files and the global configuration.
//
// A configuration file is made of sections:
//
//   [Global]
//   MYDOMAIN = example.com
//   [DS]
//   MAIL_MOVE_INDEX_UPDATE_DISABLE = 0
//   [DS@example.org]
//   MAIL_MOVE_INDEX_UPDATE_DISABLE = 1
//
// A "[Section@domain]" section overrides its plain section for users of
// that domain.  Files are small and read afresh on every call, so a change
// takes effect with the next request and a long-lived process never serves
// stale values.

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "tarnplat.h"

extern "C" {
TARNPLAT_API MCF_GLOBAL GINI = {0, "", "utf-8"};
}

namespace {

constexpr std::string_view kBlank = " \t\r";

std::string_view trim(std::string_view s) {
  const size_t first = s.find_first_not_of(kBlank);
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(kBlank) - first + 1);
}

bool same_text(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    unsigned char x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
    if (x >= 'A' && x <= 'Z') x = static_cast<unsigned char>(x + 32);
    if (y >= 'A' && y <= 'Z') y = static_cast<unsigned char>(y + 32);
    if (x != y) return false;
  }
  return true;
}

std::string config_path(const char* file) {
  std::string path = file[0] == '/' ? std::string(file) : std::string("/quillnet/etc/") + file;
  char buf[4096];
  MSYS_RootPath(path.c_str(), buf, sizeof buf);
  return buf;
}

// Which section a "[...]" line opens, relative to the one asked for.
enum class Scope { kOther, kPlain, kDomain };

Scope scope_of(std::string_view header, std::string_view section, std::string_view domain) {
  header = trim(header);
  if (same_text(header, section)) return Scope::kPlain;
  const size_t at = header.find('@');
  if (at == std::string_view::npos || domain.empty()) return Scope::kOther;
  return same_text(trim(header.substr(0, at)), section) && same_text(trim(header.substr(at + 1)), domain)
             ? Scope::kDomain
             : Scope::kOther;
}

// The value of key for the domain: its own section's last line for the key,
// else the plain section's.
std::optional<std::string> lookup(std::string_view text, std::string_view section, std::string_view key,
                                  std::string_view domain) {
  std::optional<std::string_view> plain, own;
  Scope scope = Scope::kOther;
  while (!text.empty()) {
    const size_t eol = text.find('\n');
    std::string_view line = trim(text.substr(0, eol));
    text = eol == std::string_view::npos ? std::string_view() : text.substr(eol + 1);
    if (line.empty() || line.front() == '#' || line.front() == ';') continue;
    if (line.front() == '[') {
      const size_t close = line.find(']');
      scope = close == std::string_view::npos ? Scope::kOther : scope_of(line.substr(1, close - 1), section, domain);
      continue;
    }
    const size_t eq = line.find('=');
    if (scope == Scope::kOther || eq == std::string_view::npos || !same_text(trim(line.substr(0, eq)), key))
      continue;
    std::string_view value = trim(line.substr(eq + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
    (scope == Scope::kDomain ? own : plain) = value;
  }
  if (own) return std::string(*own);
  if (plain) return std::string(*plain);
  return std::nullopt;
}

std::optional<std::string> read_value(const char* file, const char* section, const char* key, const char* domain) {
  if (file == nullptr || *file == '\0' || section == nullptr || key == nullptr) return std::nullopt;
  size_t size = 0;
  char* content = nullptr;
  if (MSHM_FileRead(config_path(file).c_str(), &size, &content, 0) != 0) return std::nullopt;
  std::optional<std::string> value;
  try {
    value = lookup(std::string_view(content, size), section, key, domain != nullptr ? domain : "");
  } catch (...) {
    value.reset();  // out of memory: as if absent
  }
  MSHM_FileFree(content, size);
  return value;
}

// A decimal integer with an optional sign and nothing else.
std::optional<long long> parse_int(const std::string& text) {
  if (text.empty()) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || end == text.c_str() || *end != '\0') return std::nullopt;
  return v;
}

}  // namespace

extern "C" {

TARNPLAT_API int MCF_S_IntGet(const char* pszFile, const char* pszSection, const char* pszKey,
                              const char* pszDomain, int nDefault, int nMin, int nMax) {
  const std::optional<std::string> text = read_value(pszFile, pszSection, pszKey, pszDomain);
  if (!text) return nDefault;
  const std::optional<long long> v = parse_int(*text);
  if (!v || *v < nMin || *v > nMax) return nDefault;
  return static_cast<int>(*v);
}

TARNPLAT_API char* MCF_S_StrGet(const char* pszFile, const char* pszSection, const char* pszKey,
                                const char* pszDomain, const char* pszDefault, char* pszBuf, size_t nzBuf) {
  const std::optional<std::string> text = read_value(pszFile, pszSection, pszKey, pszDomain);
  if (pszBuf != nullptr && nzBuf > 0) MSTR_Copy(pszBuf, nzBuf, text ? text->c_str() : pszDefault, 0);
  return text ? pszBuf : nullptr;
}

TARNPLAT_API int MCF_GlobalLoad(const char* pszFile) {
  const char* file = pszFile != nullptr ? pszFile : "tarnapp.conf";
  MCF_S_StrGet(file, "Global", "MYDOMAIN", nullptr, "", GINI.sMYDOMAIN, sizeof GINI.sMYDOMAIN);
  MCF_S_StrGet(file, "Global", "SENT_MAIL_ENCODING", nullptr, "utf-8", GINI.sSENTMAILENC,
               sizeof GINI.sSENTMAILENC);
  GINI.nLoaded = 1;
  return 0;
}

TARNPLAT_API const char* MSLG_GlobalGetSentMailEnc(int /*nFlag*/) {
  static char enc[64];
  if (MUPRF_GlobalGetStr("SentMailEncoding", enc, sizeof enc) != nullptr && enc[0] != '\0') return enc;
  if (GINI.nLoaded == 0) MCF_GlobalLoad(nullptr);
  MSTR_Copy(enc, sizeof enc, GINI.sSENTMAILENC[0] != '\0' ? GINI.sSENTMAILENC : "utf-8", 0);
  return enc;
}

}  // extern "C"
