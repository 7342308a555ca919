// The output sink: every byte a rendering produces goes to the stream, the
// caller's fixed buffer, the context's growing buffer, or the stream and one
// buffer at once.
//
// Counting rules the pages depend on:
//  - fixed buffer: nTotalBytesRetrict counts down by the full length of each
//    text, even past the limit, and pcOutBuf moves with it; once the count
//    is zero or negative nothing more lands in the buffer.  The buffer itself
//    always holds a NUL-terminated text inside its limit.
//  - growing buffer: it always ends in a NUL right after nResultSize bytes.
//  - the fixed buffer wins over the growing one; the stream is independent.

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "mime_disp_internal.h"

namespace {

constexpr long kFirstChunk = 0x10000;
constexpr double kGrowth = 1.7;
// Largest capacity of the growing buffer: the output calls count in int.
constexpr long kMaxCapacity = std::numeric_limits<int>::max();

// A capacity candidate cut towards zero, held to the largest capacity.
long truncate_capacity(double candidate) {
  if (!(candidate > 0)) return 0;
  if (candidate >= static_cast<double>(kMaxCapacity)) return kMaxCapacity;
  return static_cast<long>(candidate);
}

bool has(const MIME_DISP* d, int bit) { return (d->disp_flag & bit) != 0; }

bool to_stream(const MIME_DISP* d) { return has(d, MIME_DISP_OUT_STREAM) && d->pfOut != nullptr; }

// The fixed buffer's write position runs past its end by the length of the
// text that did not fit.  It is never written through again, so it is moved
// as an address rather than by pointer arithmetic outside the buffer.
char* advance(char* p, long n) {
  return reinterpret_cast<char*>(reinterpret_cast<uintptr_t>(p) + static_cast<uintptr_t>(n));
}

// A Producer writes one text into `dst` bounded by `bound` bytes with
// snprintf semantics (cut to fit, always terminated) and returns the length
// of the whole text, or a negative number when it cannot be formed.  It
// yields the same text each time it is called.

// Formats the text into the fixed buffer; the count and the write position
// move by the text's whole length.  Returns the byte count.
template <typename Producer>
long write_fixed(MIME_DISP* d, Producer& produce) {
  if (d->nTotalBytesRetrict <= 0 || d->pcOutBuf == nullptr) return 0;
  const long n = produce(d->pcOutBuf, static_cast<size_t>(d->nTotalBytesRetrict));
  if (n < 0) {
    d->pcOutBuf[0] = '\0';
    return 0;
  }
  d->nTotalBytesRetrict -= n;
  d->pcOutBuf = advance(d->pcOutBuf, n);
  return n;
}

// Formats the text at the end of the growing buffer, growing it until the
// text and its NUL fit.  Returns false when the buffer cannot be had.
template <typename Producer>
bool write_growing(MIME_DISP* d, Producer& produce, long& n) {
  if (d->pcResult == nullptr && s_DynamicBufInit(d) == nullptr) return false;
  for (;;) {
    n = produce(d->pcOutBuf, static_cast<size_t>(d->nTotalBytesRetrict));
    if (n < 0) {
      d->pcOutBuf[0] = '\0';
      return false;
    }
    if (d->nTotalBytesRetrict > n) break;
    if (s_DynamicBufExt(d, n) != 0) return false;
  }
  d->nTotalBytesRetrict -= n;
  d->pcOutBuf += n;
  d->nResultSize += n;
  return true;
}

// The buffer part of MMIME_Fprintf and MMIME_Fputs; returns the byte count.
template <typename Producer>
long to_buffers(MIME_DISP* d, Producer& produce) {
  if (has(d, MIME_DISP_OUT_FIXED)) return write_fixed(d, produce);
  if (has(d, MIME_DISP_OUT_GROWING)) {
    long n = 0;
    return write_growing(d, produce, n) ? n : 0;
  }
  return 0;
}

int clamp_int(long n) {
  return n > std::numeric_limits<int>::max() ? std::numeric_limits<int>::max() : static_cast<int>(n);
}

// Raw bytes into the fixed buffer: at most what is left, and the text stays
// terminated inside the limit (a copy that reaches the limit gives its last
// byte to the NUL, as a formatted text cut at the limit does).
long fwrite_fixed(MIME_DISP* d, const char* src, size_t size) {
  if (d->nTotalBytesRetrict <= 0 || d->pcOutBuf == nullptr) return 0;
  const long left = d->nTotalBytesRetrict;
  const long k = size < static_cast<size_t>(left) ? static_cast<long>(size) : left;
  const long copied = k < left ? k : k - 1;
  if (copied > 0) std::memmove(d->pcOutBuf, src, static_cast<size_t>(copied));
  d->pcOutBuf[copied] = '\0';
  d->nTotalBytesRetrict -= k;
  d->pcOutBuf += k;
  return k;
}

// Raw bytes into the growing buffer.  The buffer grows when fewer than
// size x nmemb bytes (and their NUL) are free; `size` bytes are taken.
long fwrite_growing(MIME_DISP* d, const char* src, size_t size, size_t nmemb) {
  size_t total = 0;
  if (__builtin_mul_overflow(size, nmemb, &total)) return 0;
  // nmemb 0 asks for no room; the `size` bytes still taken need theirs.
  const size_t need = total > size ? total : size;
  if (need >= static_cast<size_t>(kMaxCapacity)) return 0;
  if (d->pcResult == nullptr && s_DynamicBufInit(d) == nullptr) return 0;
  if (d->nTotalBytesRetrict <= static_cast<long>(need) && s_DynamicBufExt(d, static_cast<long>(need)) != 0)
    return 0;
  if (d->nTotalBytesRetrict <= static_cast<long>(size)) return 0;
  if (size > 0) std::memcpy(d->pcOutBuf, src, size);
  d->nResultSize += static_cast<long>(size);
  d->nTotalBytesRetrict -= static_cast<long>(size);
  d->pcOutBuf += size;
  d->pcOutBuf[0] = '\0';
  return static_cast<long>(size);
}

}  // namespace

char* s_DynamicBufInit(MIME_DISP* disp_info) {
  // A count left from an earlier buffer (the count survives its release)
  // keeps its place: the new free bytes start behind it, and the bytes
  // before them read as NULs.
  if (disp_info->nResultSize < 0) disp_info->nResultSize = 0;
  const size_t lead = static_cast<size_t>(disp_info->nResultSize);
  char* buf = nullptr;
  if (disp_info->nResultSize <= kMaxCapacity - kFirstChunk)
    buf = static_cast<char*>(std::malloc(lead + kFirstChunk));
  disp_info->pcResult = buf;
  if (buf == nullptr) {
    disp_info->pcOutBuf = nullptr;
    disp_info->nTotalBytesRetrict = 0;
    return nullptr;
  }
  std::memset(buf, 0, lead + 1);
  disp_info->nTotalBytesRetrict = kFirstChunk;
  disp_info->pcOutBuf = buf + lead;
  return buf;
}

int s_DynamicBufExt(MIME_DISP* disp_info, long nDataSize) {
  const long used = disp_info->nResultSize;
  const double a = (static_cast<double>(used) + static_cast<double>(disp_info->nTotalBytesRetrict)) * kGrowth;
  const double b = (static_cast<double>(used) + static_cast<double>(nDataSize)) * kGrowth;
  // Candidates are cut towards zero; the tie goes to the one for the data.
  const long ca = truncate_capacity(a);
  const long cb = truncate_capacity(b);
  const long capacity = ca > cb ? ca : cb;
  char* grown = nullptr;
  // The new room must hold the data and its NUL, or the growth has failed.
  if (used >= 0 && nDataSize >= 0 && capacity - used > nDataSize)
    grown = static_cast<char*>(std::realloc(disp_info->pcResult, static_cast<size_t>(capacity)));
  if (grown == nullptr) {
    // The text so far is given up with its buffer.
    std::free(disp_info->pcResult);
    disp_info->pcResult = nullptr;
    disp_info->pcOutBuf = nullptr;
    disp_info->nTotalBytesRetrict = 0;
    return -1;
  }
  disp_info->pcResult = grown;
  disp_info->nTotalBytesRetrict = capacity - used;
  disp_info->pcOutBuf = grown + used;
  return 0;
}

extern "C" {

int MMIME_Fprintf(MIME_DISP* disp_info, const char* fmt, ...) {
  if (disp_info == nullptr || fmt == nullptr) return 0;
  va_list args;
  va_start(args, fmt);
  auto produce = [&](char* dst, size_t bound) -> long {
    va_list again;
    va_copy(again, args);
    const int n = std::vsnprintf(dst, bound, fmt, again);
    va_end(again);
    return n;
  };
  long count = to_buffers(disp_info, produce);
  int result = clamp_int(count);
  if (to_stream(disp_info)) {
    va_list again;
    va_copy(again, args);
    result = std::vfprintf(disp_info->pfOut, fmt, again);
    va_end(again);
  }
  va_end(args);
  return result;
}

int MMIME_Fputs(MIME_DISP* disp_info, const char* str) {
  if (disp_info == nullptr || str == nullptr) return 0;
  const size_t len = std::strlen(str);
  if (len > static_cast<size_t>(std::numeric_limits<int>::max())) return 0;
  // The same scheme as a "%s" print: cut to fit, always terminated, the
  // whole length reported.
  auto produce = [&](char* dst, size_t bound) -> long {
    if (dst != nullptr && bound > 0) {
      const size_t take = len < bound ? len : bound - 1;
      std::memcpy(dst, str, take);
      dst[take] = '\0';
    }
    return static_cast<long>(len);
  };
  const long count = to_buffers(disp_info, produce);
  if (to_stream(disp_info)) return std::fputs(str, disp_info->pfOut);
  return clamp_int(count);
}

int MMIME_Fwrite(MIME_DISP* disp_info, const void* ptr, size_t size, size_t nmemb) {
  if (disp_info == nullptr || (ptr == nullptr && size > 0)) return 0;
  const auto* src = static_cast<const char*>(ptr);
  long count = 0;
  if (has(disp_info, MIME_DISP_OUT_FIXED))
    count = fwrite_fixed(disp_info, src, size);
  else if (has(disp_info, MIME_DISP_OUT_GROWING))
    count = fwrite_growing(disp_info, src, size, nmemb);
  if (to_stream(disp_info)) {
    if (ptr == nullptr) return 0;
    return clamp_int(static_cast<long>(std::fwrite(ptr, size, nmemb, disp_info->pfOut)));
  }
  return clamp_int(count);
}

}  // extern "C"
