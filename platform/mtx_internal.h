/*
 * mtx_internal.h - the transfer-coding kernels behind the MTX_ calls.
 * Not installed: the shared library keeps these hidden; tests and
 * benchmarks reach them through the static build to compare the vector
 * and scalar base64 paths against each other.
 */
#ifndef TARNPLAT_MTX_INTERNAL_H
#define TARNPLAT_MTX_INTERNAL_H

#include <cstddef>
#include <cstdint>

namespace tarnplat::mtx {

// State of a base64 decoding in place.  The write cursor never passes the
// read cursor: every four characters read give at most three bytes, and a
// kernel only stores over bytes it has already read.
struct B64Cursor {
  const unsigned char* in;   // next byte to read
  const unsigned char* end;  // one past the last byte to read
  unsigned char* out;        // next byte to write (out <= in)
  uint32_t bits = 0;         // bits of the current group not yet written
  int quad = 0;              // characters of the current group seen (0..3)
  int pads = 0;              // "=" seen since the group's last character
  bool done = false;         // padding completed a group: stop reading
};

// The ways a base64 text can be decoded.  All give the same bytes.
enum class B64Kernel { kScalar, kSsse3, kAvx2 };

// True when this processor can run the kernel.
bool Base64KernelAvailable(B64Kernel kernel);
// The fastest kernel this processor runs.
B64Kernel Base64BestKernel();

// Decodes len bytes of text in place with the given kernel (which must be
// available) and returns the decoded byte count.  Writes no terminator.
size_t Base64Decode(unsigned char* text, size_t len, B64Kernel kernel);
// The same over a NUL-terminated text, read no further than its terminator.
size_t Base64DecodeTerminated(unsigned char* text, B64Kernel kernel);

// The scalar machine: reads characters until the text ends or padding
// completes a group.  With yield set it returns early, once it has stepped
// over a byte outside the alphabet and stands at the start of a group
// before an alphabet character, so that a vector kernel can take over.
void Base64Scalar(B64Cursor& cur, bool yield);

#if defined(__x86_64__) || defined(__i386__)
// Vector kernels: decode whole blocks of alphabet characters while the
// cursor stands at the start of a group, stepping over line breaks and
// blanks between groups; they return where they meet anything else, or
// when fewer than a block's bytes remain.
void Base64VectorSsse3(B64Cursor& cur);
void Base64VectorAvx2(B64Cursor& cur);
#endif

// Quoted-printable decoding in place over len bytes; the result is the
// decoded byte count.  No terminator is written.
size_t QPDecode(unsigned char* text, size_t len);

// Decodes the uuencoded lines of [in, end) into out, which lies in the same
// buffer at or before in; the result is the decoded byte count.  Stops at
// an "end" line, a zero-length or empty line, or the end.  No terminator.
size_t UUDecodeLines(unsigned char* out, const unsigned char* in, const unsigned char* end);

}  // namespace tarnplat::mtx

#endif
