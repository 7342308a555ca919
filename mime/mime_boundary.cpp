// New multipart boundaries for the messages that compose and forward build.

#include <cstdlib>
#include <ctime>
#include <string_view>

#include "tarnmail/edit.h"

namespace {

constexpr char kAlphabet[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-=?.:/+(),";
constexpr unsigned kAlphabetLen = sizeof kAlphabet - 1;
static_assert(kAlphabetLen == 72);

constexpr char kPrefix[] = "---";
constexpr int kRandomChars = 27;

char s_szBoundary[31];
// Counts the calls: the seed is the time plus this count, so two calls in
// the same second still give two boundaries.
unsigned s_nCalls = 0;

}  // namespace

extern "C" TARNMAIL_API char* mime_boundary(void) {
  srandom(static_cast<unsigned>(std::time(nullptr)) + s_nCalls++);
  char* p = s_szBoundary;
  for (char c : std::string_view(kPrefix)) *p++ = c;
  for (int i = 0; i < kRandomChars; ++i) *p++ = kAlphabet[static_cast<unsigned long>(random()) % kAlphabetLen];
  *p = '\0';
  return s_szBoundary;
}
