/*
 * mtx_base64_kernel.h - the block loop shared by the vector base64 kernels.
 *
 * Included by one file per instruction set, after that file has switched
 * the compiler to its instruction set, with a block type V that supplies:
 *   V::kWidth                       characters per block (16 or 32)
 *   V::Vec                          the register type
 *   V::Load(in)                     kWidth characters, unaligned
 *   V::Translate(src, values)       six-bit values into values; returns a
 *                                   bit mask of the non-alphabet positions
 *   V::Store(out, values)           packs the values and stores kWidth bytes,
 *                                   of which the first 3/4 are decoded
 *
 * In place: a block is loaded before its result is stored, and the store
 * starts at the write cursor, which never passes the read cursor; so a
 * full block only overwrites bytes already loaded.  A block cut short
 * keeps its tail for later, so its store must end before that tail.
 *
 * Mail wraps base64 in lines of one length (76 characters and CR LF, as a
 * rule).  Finding each break from the data would make every load wait for
 * the previous block's result; so after a line break the loop assumes that
 * the following lines have the length and break of the line just ended and
 * only checks that they do: the loads of coming lines then do not depend
 * on the data and can run ahead.
 */
#ifndef TARNPLAT_MTX_BASE64_KERNEL_H
#define TARNPLAT_MTX_BASE64_KERNEL_H

#include <cstddef>
#include <cstdint>

#include "mtx_internal.h"

namespace tarnplat::mtx {
namespace {

inline bool IsBreakOrBlank(unsigned char c) { return c == '\n' || c == '\r' || c == ' ' || c == '\t'; }

// Decodes lines of line_len characters (a multiple of 4, at least one block)
// each followed by the brk_len bytes at brk, for as long as the text keeps
// that layout.  Stores go below the read cursor only (the cursors must lie
// a line's output plus a store's slack apart), so a line that turns out to
// hold anything else can be left undone, to be decoded the careful way.
template <class V>
inline void DecodeLines(const unsigned char*& in_ref, unsigned char*& out_ref, const unsigned char* end,
                        size_t line_len, const unsigned char* brk, size_t brk_len) {
  constexpr size_t kW = V::kWidth;
  constexpr size_t kOutW = kW / 4 * 3;
  const size_t blocks = line_len / kW;
  const bool tail = line_len % kW != 0;
  const size_t out_len = line_len / 4 * 3;
  const size_t step = line_len + brk_len;
  const unsigned char b0 = brk[0];
  const unsigned char b1 = brk[brk_len - 1];

  const unsigned char* in = in_ref;
  unsigned char* out = out_ref;
  while (static_cast<size_t>(end - in) >= step && static_cast<size_t>(in - out) >= out_len + kW / 4) {
    if (in[line_len] != b0 || in[step - 1] != b1) break;
    uint32_t bad = 0;
    typename V::Vec values;
    for (size_t k = 0; k < blocks; ++k) {
      bad |= V::Translate(V::Load(in + k * kW), values);
      V::Store(out + k * kOutW, values);
    }
    if (tail) {  // the line's last block, overlapping the one before
      bad |= V::Translate(V::Load(in + line_len - kW), values);
      V::Store(out + out_len - kOutW, values);
    }
    if (bad != 0) break;
    in += step;
    out += out_len;
  }
  in_ref = in;
  out_ref = out;
}

template <class V>
inline void DecodeBlocks(B64Cursor& cur) {
  constexpr size_t kW = V::kWidth;
  if (cur.quad != 0 || cur.done) return;
  const unsigned char* in = cur.in;
  unsigned char* out = cur.out;
  const unsigned char* const end = cur.end;
  const unsigned char* run_start = in;  // where the current run of characters began

  while (static_cast<size_t>(end - in) >= kW) {
    typename V::Vec values;
    const uint32_t bad = V::Translate(V::Load(in), values);
    if (bad == 0) {  // a branch, not a select: the next load must not wait for this block
      V::Store(out, values);
      in += kW;
      out += kW / 4 * 3;
      continue;
    }
    const auto stop = static_cast<size_t>(__builtin_ctz(bad));
    const size_t taken = stop & ~size_t{3};
    if (taken != 0) {
      if (static_cast<size_t>((in + taken) - out) < kW) break;
      V::Store(out, values);
      in += taken;
      out += taken / 4 * 3;
    }
    // Only a line break or blanks at a group boundary are stepped over
    // here; "=", junk, or a break inside a group go to the scalar machine.
    if (taken != stop || !IsBreakOrBlank(*in)) break;
    const unsigned char* const brk = in;
    do {
      ++in;
    } while (in < end && IsBreakOrBlank(*in));
    const auto line_len = static_cast<size_t>(brk - run_start);
    const auto brk_len = static_cast<size_t>(in - brk);
    if (line_len >= kW && brk_len <= 2 && brk[brk_len - 1] == '\n') {
      DecodeLines<V>(in, out, end, line_len, brk, brk_len);
    }
    run_start = in;
  }
  cur.in = in;
  cur.out = out;
}

}  // namespace
}  // namespace tarnplat::mtx

#endif
