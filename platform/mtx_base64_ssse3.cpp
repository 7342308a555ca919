/*
 * mtx_base64_ssse3.cpp - the SSSE3 kernel of the base64 decoder: 16
 * characters per block, for processors without AVX2.
 *
 * This file alone is compiled for SSSE3 (everything it includes comes in
 * before the switch); the decoder calls it only when the processor has
 * SSSE3.
 */
#if defined(__x86_64__) || defined(__i386__)

#include <cstddef>
#include <cstdint>
#include <immintrin.h>

#include "mtx_internal.h"

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("ssse3"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("ssse3")
#endif

#include "mtx_base64_lut.h"
#include "mtx_base64_kernel.h"

namespace tarnplat::mtx {
namespace {

struct Ssse3Block {
  static constexpr size_t kWidth = 16;
  using Vec = __m128i;

  static Vec Load(const unsigned char* in) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(in)); }

  static uint32_t Translate(Vec src, Vec& values) {
    const __m128i lut_lo = _mm_setr_epi8(TARN_B64_LUT_LO);
    const __m128i lut_hi = _mm_setr_epi8(TARN_B64_LUT_HI);
    const __m128i lut_roll = _mm_setr_epi8(TARN_B64_LUT_ROLL);
    const __m128i mask_2f = _mm_set1_epi8(0x2F);
    const __m128i hi_nibbles = _mm_and_si128(_mm_srli_epi32(src, 4), mask_2f);
    const __m128i lo_nibbles = _mm_and_si128(src, mask_2f);
    const __m128i lo = _mm_shuffle_epi8(lut_lo, lo_nibbles);
    const __m128i hi = _mm_shuffle_epi8(lut_hi, hi_nibbles);
    const __m128i eq_2f = _mm_cmpeq_epi8(src, mask_2f);
    const __m128i roll = _mm_shuffle_epi8(lut_roll, _mm_add_epi8(eq_2f, hi_nibbles));
    values = _mm_add_epi8(src, roll);
    const __m128i good = _mm_cmpeq_epi8(_mm_and_si128(lo, hi), _mm_setzero_si128());
    return ~static_cast<uint32_t>(_mm_movemask_epi8(good)) & 0xFFFFu;
  }

  static void Store(unsigned char* out, Vec values) {
    const __m128i ab_bc = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
    const __m128i abc = _mm_madd_epi16(ab_bc, _mm_set1_epi32(0x00011000));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_shuffle_epi8(abc, _mm_setr_epi8(TARN_B64_PACK)));
  }
};

}  // namespace

void Base64VectorSsse3(B64Cursor& cur) { DecodeBlocks<Ssse3Block>(cur); }

}  // namespace tarnplat::mtx

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

#endif
