// mbx.cpp - the mailbox store: a user's mailboxes as directories holding
// one file per message and an index of fixed-size records.
//
//   <root>/mbox/<user>/<mailbox>/.index     the MBX_Idx records, in order
//   <root>/mbox/<user>/<mailbox>/.lock      flock: writers exclusive, readers shared
//   <root>/mbox/<user>/<mailbox>/<msgid>    the raw message
//
// Every change takes the mailbox's lock, reads the index, and writes the
// whole new index beside the old one before renaming it into place (see
// mbx_store.cpp), so concurrent writers never lose each other's records and
// a writer killed at any point leaves a whole index behind.  Readers take
// the shared lock so that the record they find and the message file they
// then open belong together.

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mbx_internal.h"

struct MBX {
  std::string dir;
  int mode;
};

namespace {

using namespace tarnplat::mbx;

bool usable_msgid(const char* id) {
  return id != nullptr && *id != '\0' && strnlen(id, kMaxMsgID + 1) <= kMaxMsgID &&
         !encode_name(id).empty();
}

bool writable(const MBX* m) { return (m->mode & (MBX_MODE_UPDATE | MBX_MODE_CREATE)) != 0; }

// The id zero-filled to the field's end: records compare and store byte for
// byte.  The id fits (usable_msgid).
void set_msgid(MBX_Idx& r, const char* id) {
  std::memset(r.szMsgID, 0, sizeof r.szMsgID);
  std::memcpy(r.szMsgID, id, strnlen(id, kMaxMsgID));
}

std::string message_path(const std::string& dir, const char* msgid) {
  return dir + "/" + encode_name(msgid);
}

// Runs a call body, turning an exhausted heap into -1 (nothing may leave
// the C interface as an exception).
template <typename F>
int guarded(F&& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  } catch (...) {
    return -1;
  }
}

// Puts the message file of src into dst under the same name: a hard link
// when the file system allows one, else a copy.  A leftover file of an
// interrupted move is replaced.
int place_message(const std::string& src_dir, const std::string& dst_dir, const std::string& name) {
  const std::string from = src_dir + "/" + name;
  const std::string to = dst_dir + "/" + name;
  int rc = link(from.c_str(), to.c_str());
  if (rc != 0 && errno == EEXIST) {
    if (unlink(to.c_str()) != 0) return -1;
    rc = link(from.c_str(), to.c_str());
  }
  if (rc == 0) return sync_dir(dst_dir);
  if (errno != EXDEV && errno != EPERM && errno != EMLINK && errno != ENOTSUP) return -1;
  std::string bytes;
  if (read_file(from, bytes) != 0) return -1;
  return write_file_atomic(dst_dir, kMessageTemp, name, bytes.data(), bytes.size());
}

bool same_file(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

int move_locked(const std::string& src, const std::string& dst, const char* msgid) {
  std::vector<MBX_Idx> from, to;
  if (read_index(src, from) != 0 || read_index(dst, to) != 0) return -1;
  const long at = find_record(from, msgid);
  if (at < 0) return MBX_ENOTFOUND;
  const std::string name = encode_name(msgid);
  if (find_record(to, msgid) >= 0) {
    // The same file under both names is what a move cut short leaves
    // behind: let this move finish it.  Anything else is a real clash.
    if (!same_file(src + "/" + name, dst + "/" + name)) return MBX_EEXIST;
    from.erase(from.begin() + at);
    if (write_index(src, from) != 0) return -1;
    unlink((src + "/" + name).c_str());
    return 0;
  }
  // The order keeps the message reachable throughout: the file is in both
  // directories before either index changes, and the source lets go last.
  if (place_message(src, dst, name) != 0) return -1;
  to.push_back(from[static_cast<size_t>(at)]);
  if (write_index(dst, to) != 0) return -1;
  from.erase(from.begin() + at);
  if (write_index(src, from) != 0) return -1;
  unlink((src + "/" + name).c_str());  // a file left by a failure here is never listed
  return 0;
}

}  // namespace

extern "C" {

TARNPLAT_API MBX* MBX_Open(const char* pszUserID, const char* pszMBox, int nMode) {
  try {
    const std::string dir = mailbox_dir(pszUserID, pszMBox);
    if (dir.empty() || (nMode & (MBX_MODE_READ | MBX_MODE_UPDATE | MBX_MODE_CREATE)) == 0) {
      errno = EINVAL;
      return nullptr;
    }
    struct stat st;
    if (stat(dir.c_str(), &st) != 0) {
      if (errno != ENOENT || (nMode & MBX_MODE_CREATE) == 0 || make_dirs(dir) != 0) return nullptr;
      Lock lock;  // leaves the lock file behind: readers lock from now on
      if (lock.acquire(dir, true) != 0) return nullptr;
    } else if (!S_ISDIR(st.st_mode)) {
      errno = ENOTDIR;
      return nullptr;
    }
    return new MBX{dir, nMode};
  } catch (...) {
    errno = ENOMEM;
    return nullptr;
  }
}

TARNPLAT_API int MBX_Close(MBX* pstMbx) {
  delete pstMbx;
  return 0;
}

TARNPLAT_API int MBX_IdxUpd(MBX* pstMbx, const char* pszMsgID, const MBX_Idx* pstIdx) {
  if (pstMbx == nullptr || pstIdx == nullptr || !usable_msgid(pszMsgID)) return -2;
  if (!writable(pstMbx)) {
    errno = EBADF;
    return -1;
  }
  return guarded([&] {
    Lock lock;
    std::vector<MBX_Idx> records;
    if (lock.acquire(pstMbx->dir, true) != 0 || read_index(pstMbx->dir, records) != 0) return -1;
    const long at = find_record(records, pszMsgID);
    if (at < 0) return MBX_ENOTFOUND;
    MBX_Idx& r = records[static_cast<size_t>(at)];
    r = *pstIdx;
    set_msgid(r, pszMsgID);
    return write_index(pstMbx->dir, records);
  });
}

TARNPLAT_API int MBX_MsgAppend(MBX* pstMbx, const char* pszMsgID, const char* pContent, size_t nSize,
                               const MBX_Idx* pstIdx) {
  if (pstMbx == nullptr || !usable_msgid(pszMsgID) || (pContent == nullptr && nSize > 0)) return -2;
  if (!writable(pstMbx)) {
    errno = EBADF;
    return -1;
  }
  return guarded([&] {
    Lock lock;
    std::vector<MBX_Idx> records;
    if (lock.acquire(pstMbx->dir, true) != 0 || read_index(pstMbx->dir, records) != 0) return -1;
    if (find_record(records, pszMsgID) >= 0) return MBX_EEXIST;
    MBX_Idx r;
    if (pstIdx != nullptr) r = *pstIdx;
    else std::memset(&r, 0, sizeof r);
    set_msgid(r, pszMsgID);
    r.nMailSize = static_cast<uint32_t>(nSize);
    if (r.tCreateTime == 0) r.tCreateTime = static_cast<int64_t>(std::time(nullptr));
    if (write_file_atomic(pstMbx->dir, kMessageTemp, encode_name(pszMsgID), pContent != nullptr ? pContent : "",
                          nSize) != 0)
      return -1;
    records.push_back(r);
    return write_index(pstMbx->dir, records);
  });
}

TARNPLAT_API int MBX_IdxList(MBX* pstMbx, MBX_Idx** ppList, size_t* pnCount) {
  if (pstMbx == nullptr || ppList == nullptr || pnCount == nullptr) return -2;
  *ppList = nullptr;
  *pnCount = 0;
  return guarded([&] {
    Lock lock;
    std::vector<MBX_Idx> records;
    if (lock.acquire(pstMbx->dir, false) != 0 || read_index(pstMbx->dir, records) != 0) return -1;
    if (records.empty()) return 0;
    auto* list = static_cast<MBX_Idx*>(std::malloc(records.size() * sizeof(MBX_Idx)));
    if (list == nullptr) return -1;
    std::memcpy(list, records.data(), records.size() * sizeof(MBX_Idx));
    *ppList = list;
    *pnCount = records.size();
    return 0;
  });
}

TARNPLAT_API int MBX_MsgMove(const char* pszUserID, const char* pszSrcMBox, const char* pszDesMBox,
                             const char* pszMsgID) {
  if (!usable_msgid(pszMsgID)) return -2;
  return guarded([&] {
    const std::string src = mailbox_dir(pszUserID, pszSrcMBox);
    const std::string dst = mailbox_dir(pszUserID, pszDesMBox);
    if (src.empty() || dst.empty() || src == dst) return -2;
    struct stat st;
    if (stat(src.c_str(), &st) != 0 || stat(dst.c_str(), &st) != 0) return -1;
    // Two movers in opposite directions take the locks in the same order.
    Lock first, second;
    const bool src_first = src < dst;
    if (first.acquire(src_first ? src : dst, true) != 0 || second.acquire(src_first ? dst : src, true) != 0)
      return -1;
    return move_locked(src, dst, pszMsgID);
  });
}

TARNPLAT_API int MSG_Read(const char* pszUserID, const char* pszMBox, const char* pszMsgID, char** ppContent,
                          size_t* pnSize, MBX_Idx* pstIdx) {
  if (ppContent == nullptr || pnSize == nullptr || !usable_msgid(pszMsgID)) return -2;
  *ppContent = nullptr;
  *pnSize = 0;
  return guarded([&] {
    const std::string dir = mailbox_dir(pszUserID, pszMBox);
    if (dir.empty()) return -2;
    Lock lock;
    std::vector<MBX_Idx> records;
    if (lock.acquire(dir, false) != 0 || read_index(dir, records) != 0) return -1;
    const long at = find_record(records, pszMsgID);
    if (at < 0) return MBX_ENOTFOUND;
    std::string bytes;
    if (read_file(message_path(dir, pszMsgID), bytes) != 0) return -1;
    char* copy = static_cast<char*>(std::malloc(bytes.size() + 1));
    if (copy == nullptr) return -1;
    std::memcpy(copy, bytes.data(), bytes.size());
    copy[bytes.size()] = '\0';
    *ppContent = copy;
    *pnSize = bytes.size();
    if (pstIdx != nullptr) *pstIdx = records[static_cast<size_t>(at)];
    return 0;
  });
}

}  // extern "C"
