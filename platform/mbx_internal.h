// mbx_internal.h - the file-level pieces of the mailbox store: names,
// paths, the mailbox lock, durable writes and the index file.  Not
// installed; shared by mbx.cpp (the calls) and mbx_store.cpp.
#ifndef TARNPLAT_MBX_INTERNAL_H
#define TARNPLAT_MBX_INTERNAL_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tarnplat.h"

namespace tarnplat::mbx {

// File names inside a mailbox directory.  They start with "." and encoded
// names never do, so a message can never be mistaken for one of them.
inline constexpr const char* kIndexName = ".index";
inline constexpr const char* kIndexTemp = ".index.new";
inline constexpr const char* kLockName = ".lock";
inline constexpr const char* kMessageTemp = ".msg.new";

// Longest message id a record can hold (szMsgID less its terminator).
inline constexpr size_t kMaxMsgID = sizeof(MBX_Idx::szMsgID) - 1;

// One path component for a user id, mailbox name or message id: bytes other
// than A-Z a-z 0-9 - _ . @ + = as "%XX", a leading "." too.  Distinct names
// give distinct components.  Empty when the name is empty or its encoding
// would exceed the 255 bytes a directory entry may have.
std::string encode_name(std::string_view name);

// The directory of a user's mailbox, "" when a name cannot be used.  The
// user id is normalised with the global configuration's domain.
std::string mailbox_dir(const char* user, const char* mbox);

// Creates a directory and its missing parents (mode 0700).  0 or -1.
int make_dirs(const std::string& path);

// The mailbox lock: flock on the ".lock" file, exclusive for writers and
// shared for readers, released when the object goes (or the process dies:
// a killed writer never leaves a mailbox locked).
class Lock {
 public:
  Lock() = default;
  ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  // 0, or -1 (errno set).  A shared lock of a mailbox that has no lock file
  // yet (nobody ever wrote to it) succeeds without locking anything.
  int acquire(const std::string& dir, bool exclusive);

 private:
  int fd_ = -1;
};

// Whether writes are flushed to the disk (TARN_MBX_NOFSYNC=1 turns it off).
bool sync_enabled();

// Writes a whole file under a temporary name, flushes it and renames it
// into place, then flushes the directory: the name shows the old content
// or the new, never a part.  The caller holds the mailbox lock, which makes
// the temporary name its own.  0 or -1.
int write_file_atomic(const std::string& dir, const char* temp_name, const std::string& name,
                      const void* data, size_t size);

// Reads a whole file.  0, or -1 (errno ENOENT when it does not exist).
int read_file(const std::string& path, std::string& out);

// Flushes a directory's entries (after a rename or link).  0 or -1.
int sync_dir(const std::string& dir);

// The index of a mailbox in file order.  A missing index is empty; a size
// that is no multiple of the record (never written so) keeps its whole
// records.  0 or -1.
int read_index(const std::string& dir, std::vector<MBX_Idx>& out);
// Replaces the index (lock held).  0 or -1.
int write_index(const std::string& dir, const std::vector<MBX_Idx>& records);

// A record as stored: every text field terminated inside its size, the
// padding zero.
MBX_Idx clean_record(const MBX_Idx& in);

// Position of the record with this message id, or -1.
long find_record(const std::vector<MBX_Idx>& records, std::string_view msgid);

}  // namespace tarnplat::mbx

#endif
