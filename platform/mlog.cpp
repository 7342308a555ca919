// mlog.cpp - log files.
//
// Many short-lived CGI processes write the same log.  Each line goes out
// in a single write(2) on a descriptor opened with O_APPEND: the kernel
// places every such write at the current end of the file as one piece, so
// lines of different processes follow each other but never mix.  A line
// is never written in two parts (a short write is not completed by a
// second one, which could land after another process's line).

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tarnplat.h"

namespace {

int open_log(const std::string& path) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND;
  int fd = MIO_Open(path.c_str(), kFlags, 0644);
  if (fd >= 0 || errno != ENOENT) return fd;
  const size_t slash = path.find_last_of('/');  // a fresh installation: make the log directory
  if (slash == std::string::npos || slash == 0) return -1;
  if (mkdir(path.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) return -1;
  return MIO_Open(path.c_str(), kFlags, 0644);
}

}  // namespace

extern "C" {

TARNPLAT_API int LOG_FileLine(const char* pszPath, const char* pszFormat, ...) {
  if (pszPath == nullptr || pszFormat == nullptr) return -1;
  try {
    va_list ap;
    va_start(ap, pszFormat);
    va_list again;
    va_copy(again, ap);
    const int len = std::vsnprintf(nullptr, 0, pszFormat, ap);
    va_end(ap);
    if (len < 0) {
      va_end(again);
      return -1;
    }
    std::string line(static_cast<size_t>(len) + 1, '\0');
    std::vsnprintf(line.data(), line.size(), pszFormat, again);
    va_end(again);
    // Values from outside (user ids, mailbox names) must not start lines of their own.
    for (char& c : line)
      if (c == '\n' || c == '\r') c = ' ';
    line.back() = '\n';
    char path[4096];
    MSYS_RootPath(pszPath, path, sizeof path);
    const int fd = open_log(path);
    if (fd < 0) return -1;
    ssize_t w;
    do {
      w = write(fd, line.data(), line.size());
    } while (w < 0 && errno == EINTR);
    close(fd);
    return w == static_cast<ssize_t>(line.size()) ? 0 : -1;
  } catch (...) {
    return -1;
  }
}

}  // extern "C"
