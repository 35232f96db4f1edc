// Overflow behaviour of the AMR-WB decoder's filters.
//
// Where a filter overflows (loud or damaged frames) this decoder follows the
// widespread fixed-point implementation whose output the peer streams come
// from: sums are exact 32-bit (wrapping) integer sums, saturation happens
// only at the explicit shifts, and the final rounding wraps. For every
// frame that does not overflow the results equal the saturating chain.
#ifndef QUILLON_AMRWB_OVERFLOW_H
#define QUILLON_AMRWB_OVERFLOW_H

#include <cstdint>

#include "primitives/basic_ops.h"

namespace quillon::amrwb::overflow {

using fx::Word16;

inline int32_t wrapAdd(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
inline int32_t wrapSub(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}
inline int32_t wrapShl(int32_t v, int n) { return static_cast<int32_t>(static_cast<uint32_t>(v) << n); }
// Left shift saturating on overflow.
inline int32_t satShl(int32_t v, int n) {
  const int32_t r = wrapShl(v, n);
  return (r >> n) != v ? ((v >> 31) ^ fx::MAX_32) : r;
}
// High half after adding 0x8000, wrapping (except at the maximum).
inline Word16 roundWrap(int32_t v) {
  if (v != fx::MAX_32) v = wrapAdd(v, 0x8000);
  return static_cast<Word16>(v >> 16);
}
// Shift left by n (saturating) or, for n <= 0, right by -n taken modulo 16.
inline int32_t shiftLeft16(int32_t v, int n) {
  if (n > 0) return satShl(v, n);
  return v >> ((-n) & 15);
}
// Shift right by n taken modulo 32, or left (saturating) for n < 0.
inline int32_t shiftRight32(int32_t v, int n) {
  if (n >= 0) return v >> (n & 31);
  return satShl(v, (-n) & 31);
}
// round(v << 1): saturates when the shift overflows, not in the rounding.
inline Word16 shl1RoundWrap(int32_t v) {
  if (wrapShl(v, 1) >> 1 == v) return static_cast<Word16>(wrapAdd(v, 0x4000) >> 15);
  return static_cast<Word16>(((v >> 31) ^ fx::MAX_32) >> 16);
}
}  // namespace quillon::amrwb::overflow

#endif
