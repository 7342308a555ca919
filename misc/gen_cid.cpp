// Content-IDs for the parts a composed message carries inline.
//
// The time of day in seconds and the inode number of the saved part make
// the ID unique on this host; the user's mail address makes it unique
// across the users of the system.

#include <cstdio>
#include <cstring>

#include <sys/stat.h>
#include <sys/time.h>

#include "tarnmail/edit.h"
#include "tarnplat.h"

namespace {

char s_szCid[512];

}  // namespace

extern "C" TARNMAIL_API char* gen_cid(const char* cidfile) {
  struct timeval tv {};
  gettimeofday(&tv, nullptr);
  struct stat st {};
  if (MFS_Stat(cidfile, &st) != 0) return nullptr;
  // The session record is filled by the caller; read its address only up
  // to the end of the field even when it lacks a terminator.
  const int email_len = static_cast<int>(strnlen(g_stSession.email, sizeof g_stSession.email));
  std::snprintf(s_szCid, sizeof s_szCid, "%lX$%lX%.*s", static_cast<unsigned long>(tv.tv_sec),
                static_cast<unsigned long>(st.st_ino), email_len, g_stSession.email);
  return s_szCid;
}
