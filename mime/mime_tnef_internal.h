/*
 * mime_tnef_internal.h - pieces the TNEF reader's files share.
 * Not installed; tests reach them through the static build.
 */
#ifndef TARNMAIL_MIME_TNEF_INTERNAL_H
#define TARNMAIL_MIME_TNEF_INTERNAL_H

#include <cstddef>
#include <cstdint>

#include "tarnmail/tnef.h"

namespace tnef {

/* Little-endian numbers read without alignment; the caller has checked
 * that the bytes are there. */
uint16_t s_ShortFormat(const unsigned char* p);
uint32_t s_IntFormat(const unsigned char* p);
uint64_t s_LLongFormat(const unsigned char* p);

/* A bounded read position over a byte range.  Every read checks the bytes
 * that remain first and fails, leaving the position unchanged, when they
 * are too few; nothing is ever read past the end. */
class Cursor {
 public:
  Cursor(const unsigned char* p, size_t n) : p_(p), left_(n) {}

  size_t left() const { return left_; }
  const unsigned char* pos() const { return p_; }

  bool u16(uint16_t* v) {
    if (left_ < 2) return false;
    *v = s_ShortFormat(p_);
    advance(2);
    return true;
  }
  bool u32(uint32_t* v) {
    if (left_ < 4) return false;
    *v = s_IntFormat(p_);
    advance(4);
    return true;
  }
  /* Takes n bytes in place. */
  bool take(uint64_t n, const unsigned char** out) {
    if (n > left_) return false;
    *out = p_;
    advance(static_cast<size_t>(n));
    return true;
  }
  bool skip(uint64_t n) {
    const unsigned char* unused;
    return take(n, &unused);
  }

 private:
  void advance(size_t n) {
    p_ += n;
    left_ -= n;
  }
  const unsigned char* p_;
  size_t left_;
};

/* n rounded up to a multiple of 4, without overflow. */
constexpr uint64_t pad4(uint64_t n) { return (n + 3) & ~uint64_t{3}; }

/* Releases the arrays of a property block and empties it. */
void mapi_free(TNEF_MAPI_t* block);

/* File-name priorities of MAPI property ids, ended by a zero id. */
struct FileNamePrior {
  uint16_t unID;
  int nPrior;
};
extern const FileNamePrior rg_stFileNamePrior[];

/* Code pages and their charset names, ended by a row with code page 0. */
extern const OEM_CP_t rg_stCharsetTable[];

}  // namespace tnef

#endif /* TARNMAIL_MIME_TNEF_INTERNAL_H */
