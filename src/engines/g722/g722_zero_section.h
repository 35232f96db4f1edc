// The sixth-order zero section of the G.722 sub-band predictor: sign-sign
// adaptation of the coefficients b1..b6, shift of the difference history
// and the new zero-section estimate. Two interchangeable kernels, a plain
// one and an SSE2 one; ZeroSection is the one the engine uses.
//
// Layout: b and d are 8-lane, 16-byte aligned arrays; lanes 0..5 hold
// b1..b6 and d(n-1)..d(n-6), lanes 6 and 7 of d stay 0 (those of b then
// drift harmlessly and are never used).
#ifndef QUILLON_CODECLIB_G722_ZERO_SECTION_H
#define QUILLON_CODECLIB_G722_ZERO_SECTION_H

#include <cstdint>

#include "primitives/basic_ops.h"

// QUILLON_G722_NO_SIMD selects the plain kernel on SSE2 machines too.
#if !defined(QUILLON_G722_NO_SIMD) && \
    (defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2))
#include <emmintrin.h>
#define QUILLON_G722_SSE2 1
#endif

namespace quillon::g722::detail {

// Sum of the six products with 16-bit saturation after every addition,
// oldest first, when some partial sum may leave the 16-bit range.
inline int16_t saturatedZeroSum(const int* terms, fx::BasicOps& ops) {
  int16_t sz = 0;
  for (int i = 5; i >= 0; i--) sz = ops.add(sz, static_cast<int16_t>(terms[i]));
  return sz;
}

struct ZeroSectionPlain {
  static int16_t update(int16_t* b, int16_t* d, int16_t d0, fx::BasicOps& ops) {
    const int step = d0 == 0 ? 0 : 128;
    for (int i = 0; i < 6; i++) {
      const int differ = (d[i] ^ d0) >> 15;  // -1 when the signs differ
      // b * 32640 >> 15 cannot leave [-32640, 32639]; with +-128 it stays 16-bit.
      b[i] = static_cast<int16_t>(((step ^ differ) - differ) + ((b[i] * 32640) >> 15));
    }
    for (int i = 5; i > 0; i--) d[i] = d[i - 1];
    d[0] = d0;
    // (2d * b) >> 15 with |d| <= 10228: a 16-bit term.
    int terms[6];
    int sum = 0, magnitude = 0;
    for (int i = 0; i < 6; i++) {
      terms[i] = (d[i] * b[i]) >> 14;
      sum += terms[i];
      magnitude += terms[i] < 0 ? -terms[i] : terms[i];
    }
    // When the magnitudes add up to a 16-bit value no partial sum saturates.
    return magnitude <= fx::MAX_16 ? static_cast<int16_t>(sum) : saturatedZeroSum(terms, ops);
  }
};

#ifdef QUILLON_G722_SSE2
struct ZeroSectionSse2 {
  static int16_t update(int16_t* b, int16_t* d, int16_t d0, fx::BasicOps& ops) {
    __m128i vb = _mm_load_si128(reinterpret_cast<const __m128i*>(b));
    __m128i vd = _mm_load_si128(reinterpret_cast<const __m128i*>(d));
    const __m128i v0 = _mm_set1_epi16(d0);
    const __m128i step = _mm_set1_epi16(d0 == 0 ? 0 : 128);
    const __m128i differ = _mm_srai_epi16(_mm_xor_si128(vd, v0), 15);
    const __m128i g = _mm_sub_epi16(_mm_xor_si128(step, differ), differ);
    // b * 32640 >> 15 == b - ceil(b / 256), without leaving 16 bits.
    const __m128i whole = _mm_cmpeq_epi16(_mm_and_si128(vb, _mm_set1_epi16(255)), _mm_setzero_si128());
    const __m128i decay = _mm_sub_epi16(_mm_sub_epi16(vb, _mm_srai_epi16(vb, 8)), _mm_set1_epi16(1));
    vb = _mm_add_epi16(_mm_sub_epi16(decay, whole), g);  // whole: -1 where b is a multiple of 256
    _mm_store_si128(reinterpret_cast<__m128i*>(b), vb);

    // New history: d0 in lane 0, lanes 6 and 7 kept at 0.
    vd = _mm_insert_epi16(_mm_slli_si128(vd, 2), d0, 0);
    vd = _mm_and_si128(vd, _mm_set_epi16(0, 0, -1, -1, -1, -1, -1, -1));
    _mm_store_si128(reinterpret_cast<__m128i*>(d), vd);

    // Terms (d * b) >> 14 from the 32-bit products' halves.
    const __m128i hi = _mm_mulhi_epi16(vd, vb);
    const __m128i lo = _mm_mullo_epi16(vd, vb);
    const __m128i t = _mm_or_si128(_mm_slli_epi16(hi, 2), _mm_srli_epi16(lo, 14));
    const __m128i mag = _mm_max_epi16(t, _mm_sub_epi16(_mm_setzero_si128(), t));
    // Both sums at once: pair sums of t in lanes 0..3, of |t| in lanes 4..7.
    const __m128i ones = _mm_set1_epi16(1);
    __m128i s = _mm_add_epi32(_mm_unpacklo_epi64(_mm_madd_epi16(t, ones), _mm_madd_epi16(mag, ones)),
                              _mm_unpackhi_epi64(_mm_madd_epi16(t, ones), _mm_madd_epi16(mag, ones)));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(2, 3, 0, 1)));
    const int sum = _mm_cvtsi128_si32(s);
    const int magnitude = _mm_cvtsi128_si32(_mm_unpackhi_epi64(s, s));
    if (magnitude <= fx::MAX_16) return static_cast<int16_t>(sum);
    alignas(16) int16_t lanes[8];
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), t);
    int terms[6];
    for (int i = 0; i < 6; i++) terms[i] = lanes[i];
    return saturatedZeroSum(terms, ops);
  }
};
using ZeroSection = ZeroSectionSse2;
#else
using ZeroSection = ZeroSectionPlain;
#endif

}  // namespace quillon::g722::detail

#endif
