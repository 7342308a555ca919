// mlg_safe_s.cpp - MLG_SafeFileName with a result kept by the call itself,
// for names that go straight into a link.
#include <cstring>
#include <string>

#include "mstr_escape_internal.h"
#include "tarnplat.h"

extern "C" {

TARNPLAT_API const char* MLG_SafeFileName_s(const char* pszName, int nCharset) {
  thread_local tarnplat::EscapeRing ring;
  std::string& s = tarnplat::ring_slot(ring);
  const char* name = pszName != nullptr ? pszName : "";
  // The safe form is never longer than the name, except that an empty
  // result becomes "_": the name's length plus the "_" and the terminator.
  s.resize(std::strlen(name) + 2);
  const int n = MLG_SafeFileName(name, s.data(), static_cast<int>(s.size() > 0x7fffffff ? 0x7fffffff : s.size()),
                                 nCharset);
  s.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return s.c_str();
}

}  // extern "C"
