// msys.cpp - system services of the platform layer.

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "tarnplat.h"

namespace {

constexpr std::string_view kRoot = "/quillnet";

// The installation root from QUILLNET_ROOT without trailing slashes ("/"
// becomes empty, so that "/quillnet/etc" maps to "/etc"); nothing when the
// variable is unset or empty.
bool root_override(std::string_view& root) {
  const char* env = std::getenv("QUILLNET_ROOT");
  if (env == nullptr || *env == '\0') return false;
  root = env;
  while (!root.empty() && root.back() == '/') root.remove_suffix(1);
  return true;
}

// Whether path names something below the compiled-in root: "/quillnet"
// followed by "/" or its end ("/quillnetx" is a different directory).
bool under_root(std::string_view path) {
  return path.substr(0, kRoot.size()) == kRoot &&
         (path.size() == kRoot.size() || path[kRoot.size()] == '/');
}

// Writes a then b into dst, cut to nz - 1 bytes and terminated.  b is
// placed first and with memmove, so that b may lie in dst itself (a path
// rewritten in its own buffer); a never does.
void join(char* dst, size_t nz, std::string_view a, std::string_view b) {
  size_t na = a.size() < nz - 1 ? a.size() : nz - 1;
  size_t nb = b.size() < nz - 1 - na ? b.size() : nz - 1 - na;
  if (nb > 0) std::memmove(dst + na, b.data(), nb);
  if (na > 0) std::memmove(dst, a.data(), na);
  dst[na + nb] = '\0';
}

}  // namespace

extern "C" {

TARNPLAT_API char* MSYS_RootPath(const char* pszPath, char* pszDst, size_t nzDst) {
  if (pszDst == nullptr || nzDst == 0) return pszDst;
  std::string_view path = pszPath != nullptr ? pszPath : "";
  std::string_view root;
  if (!under_root(path) || !root_override(root)) {
    join(pszDst, nzDst, {}, path);
    return pszDst;
  }
  std::string_view rest = path.substr(kRoot.size());
  // An override of "/" applied to "/quillnet" itself still names a directory.
  if (root.empty() && rest.empty()) rest = "/";
  join(pszDst, nzDst, root, rest);
  return pszDst;
}

}  // extern "C"
