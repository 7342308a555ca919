// Type of a part from its name and content.
//
// The name goes first: an extension the mime.types table knows settles
// the type without looking at the bytes.  Otherwise the magic file is
// consulted, then the plain-text test, and what is left is
// application/octet-stream.  Both tables are loaded on first use and kept
// for the life of the process.

#include <cerrno>
#include <cstring>
#include <string>

#include "mime_magic_internal.h"

extern "C" {
TARNMAIL_API char MIMETYPE_mtypefile[MIMETYPE_PATHSIZE] = "/quillnet/httpd/conf/mime.types";
TARNMAIL_API char MIMETYPE_magicfile[MIMETYPE_PATHSIZE] = "/quillnet/httpd/conf/magic";
TARNMAIL_API char MIMETYPE_outputstr[MIMETYPE_OUTSIZE] = "";
}

namespace tarn_magic {
namespace {

// The magic file is tried once: a missing one is not tried again.
bool g_magic_loaded = false;

// Content tests look at no more than this many bytes.
constexpr int MAX_CONTENT_BYTES = 8191;

}  // namespace

std::string resolve_path(const char* path) {
  char buf[4096];
  MSYS_RootPath(path != nullptr ? path : "", buf, sizeof(buf));
  return buf;
}

FileText::FileText(const std::string& path) {
  errno = 0;
  ok_ = MSHM_FileRead(path.c_str(), &size_, &data_, 0) == 0;
  if (!ok_) {
    errno_ = errno;
    data_ = nullptr;
    size_ = 0;
  }
}

FileText::~FileText() {
  if (ok_) MSHM_FileFree(data_, size_);
}

void ctype_printf(const char* fmt) {
  MSTR_Copy(MIMETYPE_outputstr, sizeof(MIMETYPE_outputstr), fmt != nullptr ? fmt : "", 0);
}

int tryit(const unsigned char* buf, int nb) {
  if (softmagic(buf, nb)) return 's';
  if (internatmagic(buf, nb)) return 'i';
  return 0;
}

void mime_type_reset() {
  g_magic_loaded = false;
  magic_table_free();
  ct_reset();
  MIMETYPE_outputstr[0] = '\0';
}

}  // namespace tarn_magic

using namespace tarn_magic;

extern "C" {

TARNMAIL_API int mime_type_init(const char* mtypefile, const char* magicfile) {
  if (mtypefile != nullptr) MSTR_NCopy(MIMETYPE_mtypefile, sizeof(MIMETYPE_mtypefile), mtypefile, 127);
  if (magicfile != nullptr) MSTR_NCopy(MIMETYPE_magicfile, sizeof(MIMETYPE_magicfile), magicfile, 127);
  return 0;
}

TARNMAIL_API char* mime_type_checking(const unsigned char* buf, int nbytes,
                                      const unsigned char* filename) {
  if (char* by_name = ct_check(reinterpret_cast<const char*>(filename))) return by_name;

  MIMETYPE_outputstr[0] = '\0';
  if (!g_magic_loaded) {
    g_magic_loaded = true;
    apprentice(MIMETYPE_magicfile, 1);
  }
  if (buf == nullptr || nbytes < 0) nbytes = 0;
  if (nbytes > MAX_CONTENT_BYTES) nbytes = MAX_CONTENT_BYTES;
  if (tryit(buf, nbytes) == 0) ctype_printf("application/octet-stream");

  // A magic description may say more after a tab; the type ends there.
  if (char* tab = std::strchr(MIMETYPE_outputstr, '\t')) *tab = '\0';
  return MIMETYPE_outputstr;
}

}  // extern "C"
