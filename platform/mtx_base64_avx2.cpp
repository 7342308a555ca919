/*
 * mtx_base64_avx2.cpp - the AVX2 kernel of the base64 decoder: 32
 * characters per block.
 *
 * This file alone is compiled for AVX2 (everything it includes comes in
 * before the switch); the decoder calls it only when the processor has
 * AVX2, so the library itself runs on any x86-64.
 */
#if defined(__x86_64__) || defined(__i386__)

#include <cstddef>
#include <cstdint>
#include <immintrin.h>

#include "mtx_internal.h"

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif

#include "mtx_base64_lut.h"
#include "mtx_base64_kernel.h"

namespace tarnplat::mtx {
namespace {

struct Avx2Block {
  static constexpr size_t kWidth = 32;
  using Vec = __m256i;

  static Vec Load(const unsigned char* in) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in)); }

  static uint32_t Translate(Vec src, Vec& values) {
    const __m256i lut_lo = _mm256_setr_epi8(TARN_B64_LUT_LO, TARN_B64_LUT_LO);
    const __m256i lut_hi = _mm256_setr_epi8(TARN_B64_LUT_HI, TARN_B64_LUT_HI);
    const __m256i lut_roll = _mm256_setr_epi8(TARN_B64_LUT_ROLL, TARN_B64_LUT_ROLL);
    const __m256i mask_2f = _mm256_set1_epi8(0x2F);
    const __m256i hi_nibbles = _mm256_and_si256(_mm256_srli_epi32(src, 4), mask_2f);
    const __m256i lo_nibbles = _mm256_and_si256(src, mask_2f);
    const __m256i lo = _mm256_shuffle_epi8(lut_lo, lo_nibbles);
    const __m256i hi = _mm256_shuffle_epi8(lut_hi, hi_nibbles);
    const __m256i eq_2f = _mm256_cmpeq_epi8(src, mask_2f);
    const __m256i roll = _mm256_shuffle_epi8(lut_roll, _mm256_add_epi8(eq_2f, hi_nibbles));
    values = _mm256_add_epi8(src, roll);
    if (_mm256_testz_si256(lo, hi)) return 0;
    const __m256i good = _mm256_cmpeq_epi8(_mm256_and_si256(lo, hi), _mm256_setzero_si256());
    return ~static_cast<uint32_t>(_mm256_movemask_epi8(good));
  }

  static void Store(unsigned char* out, Vec values) {
    const __m256i ab_bc = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));
    const __m256i abc = _mm256_madd_epi16(ab_bc, _mm256_set1_epi32(0x00011000));
    const __m256i lanes = _mm256_shuffle_epi8(abc, _mm256_setr_epi8(TARN_B64_PACK, TARN_B64_PACK));
    // Brings the twelve bytes of the upper lane down behind those of the lower.
    const __m256i packed = _mm256_permutevar8x32_epi32(lanes, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), packed);
  }
};

}  // namespace

void Base64VectorAvx2(B64Cursor& cur) { DecodeBlocks<Avx2Block>(cur); }

}  // namespace tarnplat::mtx

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

#endif
