// mfs.cpp - examining and opening files.
//
// Thin wrappers over stat(2) and open(2): the library's callers pass this
// system's own O_* flags and permission bits.  Descriptors are always
// opened close-on-exec, so a CGI program that starts a helper never hands
// it a file it is writing.

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tarnplat.h"

extern "C" {

TARNPLAT_API int MFS_Stat(const char* pszPath, struct stat* pstStat) {
  if (pszPath == nullptr || pstStat == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return stat(pszPath, pstStat) == 0 ? 0 : -1;
}

TARNPLAT_API int MIO_Open(const char* pszPath, int nFlags, int nMode) {
  if (pszPath == nullptr) {
    errno = EINVAL;
    return -1;
  }
  int fd;
  do {
    fd = open(pszPath, nFlags | O_CLOEXEC, static_cast<mode_t>(nMode));
  } while (fd < 0 && errno == EINTR);
  return fd;
}

}  // extern "C"
