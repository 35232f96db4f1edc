// Table-interpolated power of two, base-2 logarithm and the inverse square
// root's table step, as the ITU-T, ETSI and 3GPP speech codecs define them.
// They run on the caller's operators, so an overflow lands in the caller's
// flag exactly as with the codec's own copy of the routine.
#ifndef QUILLON_PRIMITIVES_CELP_MATH_H
#define QUILLON_PRIMITIVES_CELP_MATH_H

#include <cstdint>

#include "primitives/basic_ops.h"

namespace quillon::fx {

extern const int16_t kPow2Table[33];      // 2^(i/32) in Q14
extern const int16_t kLog2Table[33];      // log2(1 + i/32) in Q15
extern const int16_t kInvSqrtTable[49];   // 1/sqrt(i/64 + 1/4) in Q14 (i = 16..64)

// table[i] in the high half, minus the step to table[i + 1] times a (Q15).
inline Word32 interpolate(BasicOps& op, const int16_t* table, int i, Word16 a) {
  return op.L_msu(BasicOps::L_deposit_h(table[i]), op.sub(table[i], table[i + 1]), a);
}

// 2^(exponent + fraction / 32768), fraction in 0..32767, as a 32-bit value.
inline Word32 pow2(BasicOps& op, Word16 exponent, Word16 fraction) {
  Word32 x = op.L_mult(fraction, 32);
  const int i = BasicOps::extract_h(x) & 31;  // 0..31 for a fraction in range
  x = op.L_shr(x, 1);
  const Word16 a = static_cast<Word16>(BasicOps::extract_l(x) & 0x7fff);
  return op.L_shr_r(interpolate(op, kPow2Table, i, a), op.sub(30, exponent));
}

// log2(x) split into an integer exponent and a Q15 fraction; both 0 for x <= 0.
inline void log2(BasicOps& op, Word32 x, Word16& exponent, Word16& fraction) {
  if (x <= 0) {
    exponent = 0;
    fraction = 0;
    return;
  }
  const Word16 n = BasicOps::norm_l(x);
  x = op.L_shl(x, n);
  exponent = op.sub(30, n);
  x = op.L_shr(x, 9);
  const int i = BasicOps::extract_h(x) - 32;  // 0..31 for a normalised value
  x = op.L_shr(x, 1);
  const Word16 a = static_cast<Word16>(BasicOps::extract_l(x) & 0x7fff);
  fraction = BasicOps::extract_h(interpolate(op, kLog2Table, i, a));
}

}  // namespace quillon::fx

#endif
