// Whole-file reading shared between processes.
//
// A file is mapped read-only and private, so every CGI process that reads
// the same configuration file shares its pages through the page cache.
// Callers get a NUL after the content: the zero fill of the mapping's last
// page provides it, except when the size is a whole number of pages, where
// there is no room behind the content and a heap copy is made instead.
// How a block was obtained follows from its size alone, which is why
// MSHM_FileFree is given the size.

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tarnplat.h"

namespace {

// The content of an empty file.
char g_empty[1] = {'\0'};

struct Cached {
  char* content;
  size_t size;
};

std::mutex& cache_mutex() {
  static std::mutex m;
  return m;
}

// Files kept for the life of the process (nFlag 1), by path.
std::map<std::string, Cached>& cache() {
  static auto* c = new std::map<std::string, Cached>();  // never destroyed: pointers stay valid at exit
  return *c;
}

size_t page_size() {
  long ps = sysconf(_SC_PAGESIZE);
  return ps > 0 ? static_cast<size_t>(ps) : 4096;
}

bool needs_heap_copy(size_t size) { return size % page_size() == 0; }

// Reads exactly size bytes of fd into a new heap block followed by a NUL.
char* heap_copy(int fd, size_t size) {
  char* buf = static_cast<char*>(std::malloc(size + 1));
  if (buf == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  size_t got = 0;
  while (got < size) {
    ssize_t n = pread(fd, buf + got, size - got, static_cast<off_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {  // shrank under us, or a read error
      int e = n == 0 ? EIO : errno;
      std::free(buf);
      errno = e;
      return nullptr;
    }
    got += static_cast<size_t>(n);
  }
  buf[size] = '\0';
  return buf;
}

// Loads the file; sets errno and returns -1 on failure.
int load(const char* path, size_t* size_out, char** content_out) {
  int fd;
  do {
    fd = open(path, O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return -1;
  struct stat st;
  if (fstat(fd, &st) != 0) {
    int e = errno;
    close(fd);
    errno = e;
    return -1;
  }
  if (!S_ISREG(st.st_mode)) {
    close(fd);
    errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    return -1;
  }
  size_t size = static_cast<size_t>(st.st_size);
  char* content = nullptr;
  if (size == 0) {
    content = g_empty;
  } else if (needs_heap_copy(size)) {
    content = heap_copy(fd, size);
  } else {
    void* map = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    content = map == MAP_FAILED ? nullptr : static_cast<char*>(map);
  }
  int e = errno;
  close(fd);
  if (content == nullptr) {
    errno = e;
    return -1;
  }
  *size_out = size;
  *content_out = content;
  return 0;
}

void release(char* content, size_t size) {
  if (content == nullptr || content == g_empty || size == 0) return;
  if (needs_heap_copy(size))
    std::free(content);
  else
    munmap(content, size);
}

}  // namespace

extern "C" {

TARNPLAT_API int MSHM_FileRead(const char* pszPath, size_t* pnSize, char** ppContent, int nFlag) {
  if (pszPath == nullptr || pnSize == nullptr || ppContent == nullptr) {
    errno = EINVAL;
    return -1;
  }
  if (nFlag == 0) return load(pszPath, pnSize, ppContent);

  std::lock_guard<std::mutex> lock(cache_mutex());
  auto it = cache().find(pszPath);
  if (it == cache().end()) {
    Cached c{};
    if (load(pszPath, &c.size, &c.content) != 0) return -1;
    it = cache().emplace(pszPath, c).first;
  }
  *pnSize = it->second.size;
  *ppContent = it->second.content;
  return 0;
}

TARNPLAT_API void MSHM_FileFree(char* pContent, size_t nSize) {
  if (pContent == nullptr) return;
  {
    // Content kept for the process is never released, whoever asks.
    std::lock_guard<std::mutex> lock(cache_mutex());
    for (const auto& [path, c] : cache())
      if (c.content == pContent) return;
  }
  release(pContent, nSize);
}

}  // extern "C"
