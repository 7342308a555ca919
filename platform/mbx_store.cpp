// mbx_store.cpp - files of the mailbox store: names, paths, locks, durable
// writes and the index file.
//
// The index file is a bare array of MBX_Idx records.  It is never changed
// in place: a writer holding the mailbox lock writes the whole new array to
// ".index.new", flushes it and renames it over ".index".  rename(2) swaps
// the name in one step, so a reader (or a process coming after a writer
// killed half way) finds either the old array or the new one, whole.

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mbx_internal.h"

namespace tarnplat::mbx {

// The on-disk layout: the fields in their order with no gap, four bytes of
// padding after nIdx.  Files written by one build must read in every other.
static_assert(offsetof(MBX_Idx, nFlags) == 8 && offsetof(MBX_Idx, nMailSize) == 12);
static_assert(offsetof(MBX_Idx, nCharset) == 16 && offsetof(MBX_Idx, nBucketNo) == 19);
static_assert(offsetof(MBX_Idx, szFile) == 20 && offsetof(MBX_Idx, szSenderEmail) == 40);
static_assert(offsetof(MBX_Idx, szSenderNick) == 80 && offsetof(MBX_Idx, szMsgID) == 104);
static_assert(offsetof(MBX_Idx, szSubject) == 184 && offsetof(MBX_Idx, nStorageType) == 256);
static_assert(offsetof(MBX_Idx, szReserved1) == 258 && offsetof(MBX_Idx, szReserved2) == 264);
static_assert(offsetof(MBX_Idx, nIdx) == 296 && sizeof(MBX_Idx) == 304);
constexpr size_t kRecordEnd = offsetof(MBX_Idx, nIdx) + sizeof(uint32_t);

namespace {

bool plain_byte(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_' || c == '.' || c == '@' || c == '+' || c == '=';
}

int write_all(int fd, const char* p, size_t n) {
  while (n > 0) {
    ssize_t w = write(fd, p, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    p += w;
    n -= static_cast<size_t>(w);
  }
  return 0;
}

template <size_t N>
void terminate(char (&field)[N]) {
  field[N - 1] = '\0';
}

}  // namespace

std::string encode_name(std::string_view name) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (size_t i = 0; i < name.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(name[i]);
    if (plain_byte(c) && !(i == 0 && c == '.')) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    }
  }
  if (out.size() > 255) out.clear();
  return out;
}

std::string mailbox_dir(const char* user, const char* mbox) {
  if (user == nullptr || mbox == nullptr) return {};
  if (GINI.nLoaded == 0) MCF_GlobalLoad(nullptr);
  char id[1024];
  if (MUSER_IDNormalize(user, GINI.sMYDOMAIN, id, sizeof id) != 0) return {};
  const std::string user_part = encode_name(id);
  const std::string mbox_part = encode_name(mbox);
  if (user_part.empty() || mbox_part.empty()) return {};
  char root[4096];
  MSYS_RootPath("/quillnet/mbox", root, sizeof root);
  return std::string(root) + "/" + user_part + "/" + mbox_part;
}

int make_dirs(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return 0;
    errno = ENOTDIR;
    return -1;
  }
  const size_t slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0 && make_dirs(path.substr(0, slash)) != 0) return -1;
  if (mkdir(path.c_str(), 0700) == 0 || errno == EEXIST) return 0;  // EEXIST: another process won
  return -1;
}

Lock::~Lock() {
  if (fd_ >= 0) close(fd_);  // closing the last descriptor releases the flock
}

int Lock::acquire(const std::string& dir, bool exclusive) {
  const std::string path = dir + "/" + kLockName;
  fd_ = MIO_Open(path.c_str(), exclusive ? O_RDWR | O_CREAT : O_RDONLY, 0600);
  if (fd_ < 0) return !exclusive && errno == ENOENT ? 0 : -1;
  int rc;
  do {
    rc = flock(fd_, exclusive ? LOCK_EX : LOCK_SH);
  } while (rc != 0 && errno == EINTR);
  return rc;
}

bool sync_enabled() {
  const char* e = std::getenv("TARN_MBX_NOFSYNC");
  return e == nullptr || std::strcmp(e, "1") != 0;
}

int sync_dir(const std::string& dir) {
  if (!sync_enabled()) return 0;
  const int fd = MIO_Open(dir.c_str(), O_RDONLY | O_DIRECTORY, 0);
  if (fd < 0) return -1;
  const int rc = fsync(fd);
  close(fd);
  return rc;
}

int write_file_atomic(const std::string& dir, const char* temp_name, const std::string& name,
                      const void* data, size_t size) {
  const std::string temp = dir + "/" + temp_name;
  const int fd = MIO_Open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0) return -1;
  bool ok = write_all(fd, static_cast<const char*>(data), size) == 0;
  ok = ok && (!sync_enabled() || fsync(fd) == 0);
  ok = close(fd) == 0 && ok;
  ok = ok && rename(temp.c_str(), (dir + "/" + name).c_str()) == 0;
  if (!ok) {
    const int saved = errno;
    unlink(temp.c_str());
    errno = saved;
    return -1;
  }
  return sync_dir(dir);
}

int read_file(const std::string& path, std::string& out) {
  const int fd = MIO_Open(path.c_str(), O_RDONLY, 0);
  if (fd < 0) return -1;
  struct stat st;
  int rc = fstat(fd, &st);
  if (rc == 0) {
    out.resize(static_cast<size_t>(st.st_size));
    size_t got = 0;
    while (got < out.size()) {
      ssize_t r = read(fd, out.data() + got, out.size() - got);
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) break;  // a file that shrank under us: keep what was read
      got += static_cast<size_t>(r);
    }
    out.resize(got);
  }
  const int saved = errno;
  close(fd);
  errno = saved;
  return rc;
}

int read_index(const std::string& dir, std::vector<MBX_Idx>& out) {
  out.clear();
  std::string bytes;
  if (read_file(dir + "/" + kIndexName, bytes) != 0) return errno == ENOENT ? 0 : -1;
  const size_t count = bytes.size() / sizeof(MBX_Idx);
  out.resize(count);
  if (count > 0) std::memcpy(out.data(), bytes.data(), count * sizeof(MBX_Idx));
  for (MBX_Idx& r : out) r = clean_record(r);
  return 0;
}

int write_index(const std::string& dir, const std::vector<MBX_Idx>& records) {
  std::string bytes(records.size() * sizeof(MBX_Idx), '\0');
  for (size_t i = 0; i < records.size(); ++i) {
    const MBX_Idx r = clean_record(records[i]);
    std::memcpy(bytes.data() + i * sizeof(MBX_Idx), &r, kRecordEnd);  // padding stays zero
  }
  return write_file_atomic(dir, kIndexTemp, kIndexName, bytes.data(), bytes.size());
}

MBX_Idx clean_record(const MBX_Idx& in) {
  MBX_Idx r = in;
  terminate(r.szFile);
  terminate(r.szSenderEmail);
  terminate(r.szSenderNick);
  terminate(r.szMsgID);
  terminate(r.szSubject);
  return r;
}

long find_record(const std::vector<MBX_Idx>& records, std::string_view msgid) {
  for (size_t i = 0; i < records.size(); ++i) {
    const char* id = records[i].szMsgID;
    if (std::string_view(id, strnlen(id, sizeof records[i].szMsgID)) == msgid) return static_cast<long>(i);
  }
  return -1;
}

}  // namespace tarnplat::mbx
