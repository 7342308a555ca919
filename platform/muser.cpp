// muser.cpp - user ids.
//
// One user may be named "Joe", "joe" or " JOE@Example.com ": everything
// that keys data by user (mailbox directories, per-domain configuration)
// goes through MUSER_IDNormalize first, so all of them reach the same
// place.

#include <cstring>
#include <string_view>

#include "tarnplat.h"

namespace {

std::string_view trim(std::string_view s) {
  constexpr std::string_view kBlank = " \t\r\n";
  const size_t first = s.find_first_not_of(kBlank);
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(kBlank) - first + 1);
}

}  // namespace

extern "C" {

TARNPLAT_API int MUSER_IDNormalize(const char* pszID, const char* pszDefDomain, char* pszBuf, size_t nzBuf) {
  if (pszBuf == nullptr || nzBuf == 0) return -2;
  pszBuf[0] = '\0';
  if (pszID == nullptr) return -2;
  const std::string_view id = trim(pszID);
  size_t n = 0;
  auto put = [&](std::string_view text) {
    for (char c : text) {
      if (n + 1 >= nzBuf) break;
      pszBuf[n++] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
    }
  };
  put(id);
  const std::string_view domain = trim(pszDefDomain != nullptr ? pszDefDomain : "");
  if (!id.empty() && id.find('@') == std::string_view::npos && !domain.empty()) {
    put("@");
    put(domain);
  }
  pszBuf[n] = '\0';
  return 0;
}

TARNPLAT_API char* MSYS_GetIDDomain(const char* pszID, char* pszBuf, size_t nzBuf) {
  if (pszBuf == nullptr || nzBuf == 0) return pszBuf;
  const char* at = pszID != nullptr ? std::strrchr(pszID, '@') : nullptr;
  MSTR_Copy(pszBuf, nzBuf, at != nullptr ? at + 1 : "", 0);
  return pszBuf;
}

}  // extern "C"
