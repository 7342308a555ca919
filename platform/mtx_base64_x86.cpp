/*
 * mtx_base64_x86.cpp - SSSE3 and AVX2 kernels of the base64 decoder.
 *
 * Each block of 16 (SSSE3) or 32 (AVX2) characters is translated to six-bit
 * values with nibble lookups, checked against the alphabet in the same
 * step, and packed to 12 or 24 bytes.  The kernels are compiled for their
 * instruction sets with target attributes and chosen at run time, so the
 * library itself runs on any x86-64.
 *
 * In place: a block is loaded whole before its result is stored, and the
 * store (a full vector, of which only the first three quarters are bytes)
 * starts at the write cursor, which never passes the read cursor; so a
 * full block only overwrites bytes already loaded.  A block cut short by a
 * line break keeps its tail for the scalar machine, so its store must end
 * before that tail: it is only done when the cursors lie far enough apart.
 */
#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include "mtx_internal.h"

namespace tarnplat::mtx {
namespace {

// Translation tables (one 16-byte row, repeated for each 128-bit lane).
// kLutLo and kLutHi hold bit sets for the low and high nibble of a byte:
// their AND is zero exactly for the 64 alphabet characters.  kLutRoll
// holds the offset that takes a character to its value, chosen by its high
// nibble ("/" shares its nibble with "+" and gets a row of its own).
#define TARN_B64_LUT_LO                                                                                \
  0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A
#define TARN_B64_LUT_HI                                                                                \
  0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10
#define TARN_B64_LUT_ROLL 0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0
// Gathers the three bytes of each 32-bit lane (built by the multiply-adds
// in big-endian order) into the first twelve bytes of a 128-bit lane.
#define TARN_B64_PACK 2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1

// Write room needed before a shortened block may be stored: the store must
// not reach the characters left after the block's decoded part.
inline bool PartialStoreSafe(const unsigned char* in, size_t taken, const unsigned char* out, size_t width) {
  return static_cast<size_t>((in + taken) - out) >= width;
}

}  // namespace

__attribute__((target("ssse3"))) void Base64VectorSsse3(B64Cursor& cur) {
  const __m128i lut_lo = _mm_setr_epi8(TARN_B64_LUT_LO);
  const __m128i lut_hi = _mm_setr_epi8(TARN_B64_LUT_HI);
  const __m128i lut_roll = _mm_setr_epi8(TARN_B64_LUT_ROLL);
  const __m128i pack = _mm_setr_epi8(TARN_B64_PACK);
  const __m128i mask_2f = _mm_set1_epi8(0x2F);
  const __m128i merge_ab = _mm_set1_epi32(0x01400140);
  const __m128i merge_abc = _mm_set1_epi32(0x00011000);

  const unsigned char* in = cur.in;
  unsigned char* out = cur.out;
  const unsigned char* const end = cur.end;
  if (cur.quad != 0 || cur.done) return;

  while (end - in >= 16) {
    const __m128i src = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const __m128i hi_nibbles = _mm_and_si128(_mm_srli_epi32(src, 4), mask_2f);
    const __m128i lo_nibbles = _mm_and_si128(src, mask_2f);
    const __m128i lo = _mm_shuffle_epi8(lut_lo, lo_nibbles);
    const __m128i hi = _mm_shuffle_epi8(lut_hi, hi_nibbles);
    const __m128i eq_2f = _mm_cmpeq_epi8(src, mask_2f);
    const __m128i roll = _mm_shuffle_epi8(lut_roll, _mm_add_epi8(eq_2f, hi_nibbles));
    const __m128i bad = _mm_and_si128(lo, hi);

    size_t taken = 16;
    const unsigned good = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bad, _mm_setzero_si128())));
    if (good != 0xFFFF) {
      taken = static_cast<size_t>(__builtin_ctz(~good)) & ~size_t{3};
      if (taken == 0 || !PartialStoreSafe(in, taken, out, 16)) break;
    }
    const __m128i values = _mm_add_epi8(src, roll);
    const __m128i ab_bc = _mm_maddubs_epi16(values, merge_ab);
    const __m128i abc = _mm_madd_epi16(ab_bc, merge_abc);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_shuffle_epi8(abc, pack));
    in += taken;
    out += taken / 4 * 3;
    if (taken != 16) break;
  }
  cur.in = in;
  cur.out = out;
}

__attribute__((target("avx2"))) void Base64VectorAvx2(B64Cursor& cur) {
  const __m256i lut_lo = _mm256_setr_epi8(TARN_B64_LUT_LO, TARN_B64_LUT_LO);
  const __m256i lut_hi = _mm256_setr_epi8(TARN_B64_LUT_HI, TARN_B64_LUT_HI);
  const __m256i lut_roll = _mm256_setr_epi8(TARN_B64_LUT_ROLL, TARN_B64_LUT_ROLL);
  const __m256i pack = _mm256_setr_epi8(TARN_B64_PACK, TARN_B64_PACK);
  // Brings the twelve bytes of the upper lane down behind those of the lower.
  const __m256i join = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
  const __m256i mask_2f = _mm256_set1_epi8(0x2F);
  const __m256i merge_ab = _mm256_set1_epi32(0x01400140);
  const __m256i merge_abc = _mm256_set1_epi32(0x00011000);

  const unsigned char* in = cur.in;
  unsigned char* out = cur.out;
  const unsigned char* const end = cur.end;
  if (cur.quad != 0 || cur.done) return;

  while (end - in >= 32) {
    const __m256i src = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in));
    const __m256i hi_nibbles = _mm256_and_si256(_mm256_srli_epi32(src, 4), mask_2f);
    const __m256i lo_nibbles = _mm256_and_si256(src, mask_2f);
    const __m256i lo = _mm256_shuffle_epi8(lut_lo, lo_nibbles);
    const __m256i hi = _mm256_shuffle_epi8(lut_hi, hi_nibbles);
    const __m256i eq_2f = _mm256_cmpeq_epi8(src, mask_2f);
    const __m256i roll = _mm256_shuffle_epi8(lut_roll, _mm256_add_epi8(eq_2f, hi_nibbles));

    size_t taken = 32;
    if (!_mm256_testz_si256(lo, hi)) {
      const __m256i bad = _mm256_and_si256(lo, hi);
      const auto good = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(bad, _mm256_setzero_si256())));
      taken = static_cast<size_t>(__builtin_ctz(~good)) & ~size_t{3};
      if (taken == 0 || !PartialStoreSafe(in, taken, out, 32)) break;
    }
    const __m256i values = _mm256_add_epi8(src, roll);
    const __m256i ab_bc = _mm256_maddubs_epi16(values, merge_ab);
    const __m256i abc = _mm256_madd_epi16(ab_bc, merge_abc);
    const __m256i packed = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(abc, pack), join);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), packed);
    in += taken;
    out += taken / 4 * 3;
    if (taken != 32) break;
  }
  cur.in = in;
  cur.out = out;
}

}  // namespace tarnplat::mtx

#endif
