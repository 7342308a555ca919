#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include "cmd_render_parts.h"
#include "mime_disp_internal.h"

namespace tarntool {

namespace {

namespace fs = std::filesystem;

// Longest file name most file systems take.
constexpr size_t kNameMax = 255;

bool fail(const std::string& what, const char* why) {
  fprintf(stderr, "tarnmail: %s: %s\n", what.c_str(), why);
  return false;
}

std::string copy_of(const char* s) { return s != nullptr ? s : ""; }

// The extension the engine gives a saved part of this name.
std::string att_ext(const MIME_HEADER& m, const std::string& name) {
  char ext[32];
  mime_att_ext(m.ctype_str, name.c_str(), ext, sizeof ext);
  return ext;
}

bool copy_file(int from_dir, const std::string& from, int to_dir, const std::string& to) {
  int in = openat(from_dir, from.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (in < 0) return false;
  int out = openat(to_dir, to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (out < 0) {
    int err = errno;
    close(in);
    errno = err;
    return false;
  }
  char buf[65536];
  bool ok = true;
  for (;;) {
    ssize_t n = read(in, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = n == 0;
      break;
    }
    for (ssize_t done = 0; ok && done < n;) {
      ssize_t w = write(out, buf + done, static_cast<size_t>(n - done));
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) ok = false;
      else done += w;
    }
    if (!ok) break;
  }
  int err = errno;
  close(in);
  if (close(out) != 0) ok = false;
  errno = err;
  return ok;
}

}  // namespace

bool plain_file_name(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.size() <= kNameMax &&
         name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

PartsLayout::~PartsLayout() {
  if (staging_fd_ >= 0) close(staging_fd_);
  if (parts_fd_ >= 0) close(parts_fd_);
  if (!staging_.empty()) {
    std::error_code ec;
    fs::remove_all(staging_, ec);
  }
}

bool PartsLayout::open(const std::string& parts_dir) {
  std::error_code ec;
  fs::create_directories(parts_dir, ec);
  if (ec) return fail(parts_dir, ec.message().c_str());
  parts_fd_ = ::open(parts_dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (parts_fd_ < 0) return fail(parts_dir, strerror(errno));
  parts_ = parts_dir;
  std::string tmpl = parts_dir + "/.incoming-" + std::string(6, 'X');  // mkdtemp's template
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) return fail(parts_dir, strerror(errno));
  staging_ = buf.data();
  staging_fd_ = ::open(staging_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (staging_fd_ < 0) return fail(staging_, strerror(errno));
  return true;
}

bool PartsLayout::place(ME* root, const std::string& prefix) {
  bool ok = true;
  // Every entity, children before the next sibling; an explicit stack, so
  // that no nesting depth can exhaust the call stack.
  std::vector<ME*> stack{root};
  while (!stack.empty()) {
    ME* me = stack.back();
    stack.pop_back();
    if (me->next != nullptr) stack.push_back(me->next);
    if (me->child != nullptr) stack.push_back(me->child);
    if (me->h != nullptr && me->h->mime.filename != nullptr && me->h->mime.filename[0] != '\0')
      ok = place_one(me, prefix) && ok;
  }
  return ok;
}

bool PartsLayout::place_one(ME* me, const std::string& prefix) {
  const MIME_HEADER& m = me->h->mime;
  const std::string name = m.filename;
  const std::string staged = prefix + m.file_id + "." + att_ext(m, name);
  struct stat st;
  if (!plain_file_name(staged) || fstatat(staging_fd_, staged.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
      !S_ISREG(st.st_mode))
    return true;  // the engine did not save this part
  // The engine's own links name the part by its safe form.
  const std::string safe = copy_of(MLG_SafeFileName_s(name.c_str(), 0));
  bool ok = link_into(staged, staged, safe);
  // The attachment list names it without direction overrides, URI-escaped,
  // under an extension taken from that name.
  const std::string listed = copy_of(MSTR_RLORemove_s(name.c_str(), MLG_CharsetWEncToValue(m.charset_str)));
  const std::string listed_dir = prefix + m.file_id + "." + att_ext(m, listed);
  if ((listed_dir != staged || listed != safe) && plain_file_name(listed) && plain_file_name(listed_dir))
    ok = link_into(staged, listed_dir, listed) && ok;
  return ok;
}

bool PartsLayout::link_into(const std::string& staged, const std::string& dir, const std::string& name) {
  if (!plain_file_name(name)) return true;
  const std::string where = parts_ + "/" + dir;
  if (mkdirat(parts_fd_, dir.c_str(), 0755) != 0 && errno != EEXIST) return fail(where, strerror(errno));
  int dir_fd = openat(parts_fd_, dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (dir_fd < 0) return fail(where, strerror(errno));
  bool ok = true;
  // A hard link costs nothing; where the file system has none, a copy.
  // Neither replaces a file already there.
  if (linkat(staging_fd_, staged.c_str(), dir_fd, name.c_str(), 0) != 0 && errno != EEXIST &&
      !copy_file(staging_fd_, staged, dir_fd, name) && errno != EEXIST)
    ok = fail(where + "/" + name, strerror(errno));
  close(dir_fd);
  return ok;
}

}  // namespace tarntool
