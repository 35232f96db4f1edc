// The ITU-T / ETSI fixed-point basic operators (16/32-bit saturating
// arithmetic as the speech-codec reference implementations define it).
//
// The operators are members of BasicOps so that the overflow flag lives
// in the engine that uses it: an engine derives from (or
// holds) a BasicOps and calls add(), L_mult(), ... unqualified. Two engines
// never share a flag. Operators that cannot overflow are static.
#ifndef QUILLON_FIXEDPOINT_BASIC_OPS_H
#define QUILLON_FIXEDPOINT_BASIC_OPS_H

#include <cstdint>

namespace quillon::fx {

using Word16 = int16_t;
using Word32 = int32_t;

constexpr Word16 MAX_16 = 0x7fff;
constexpr Word16 MIN_16 = -0x8000;
constexpr Word32 MAX_32 = 0x7fffffff;
constexpr Word32 MIN_32 = static_cast<Word32>(0x80000000u);

class BasicOps {
 public:
  // Set by any operator that saturated; never cleared by the operators.
  bool Overflow = false;

  // ---- 16-bit -------------------------------------------------------------
  Word16 saturate(Word32 v) {
    if (v > MAX_16) { Overflow = true; return MAX_16; }
    if (v < MIN_16) { Overflow = true; return MIN_16; }
    return static_cast<Word16>(v);
  }
  Word16 add(Word16 a, Word16 b) { return saturate(static_cast<Word32>(a) + b); }
  Word16 sub(Word16 a, Word16 b) { return saturate(static_cast<Word32>(a) - b); }
  static Word16 abs_s(Word16 a) { return a == MIN_16 ? MAX_16 : static_cast<Word16>(a < 0 ? -a : a); }
  static Word16 negate(Word16 a) { return a == MIN_16 ? MAX_16 : static_cast<Word16>(-a); }
  static Word16 extract_h(Word32 L) { return static_cast<Word16>(L >> 16); }
  static Word16 extract_l(Word32 L) { return static_cast<Word16>(L); }
  static Word32 L_deposit_h(Word16 a) { return static_cast<Word32>(static_cast<uint32_t>(static_cast<int32_t>(a)) << 16); }
  static Word32 L_deposit_l(Word16 a) { return a; }

  Word16 shl(Word16 a, Word16 n) {
    if (n < 0) return shr(a, n < -16 ? 16 : static_cast<Word16>(-n));
    if (n > 15) {
      if (a == 0) return 0;
      Overflow = true;
      return a > 0 ? MAX_16 : MIN_16;
    }
    Word32 r = static_cast<Word32>(a) * (static_cast<Word32>(1) << n);
    if (r != static_cast<Word16>(r)) {
      Overflow = true;
      return a > 0 ? MAX_16 : MIN_16;
    }
    return static_cast<Word16>(r);
  }
  Word16 shr(Word16 a, Word16 n) {
    if (n < 0) return shl(a, n < -16 ? 16 : static_cast<Word16>(-n));
    if (n >= 15) return a < 0 ? -1 : 0;
    return static_cast<Word16>(a >> n);  // arithmetic shift
  }
  Word16 shr_r(Word16 a, Word16 n) {
    if (n > 15) return 0;
    Word16 r = shr(a, n);
    if (n > 0 && (a & (1 << (n - 1))) != 0) r++;
    return r;
  }
  Word16 mult(Word16 a, Word16 b) {
    return saturate((static_cast<Word32>(a) * b) >> 15);
  }
  Word16 mult_r(Word16 a, Word16 b) {
    return saturate((static_cast<Word32>(a) * b + 0x4000) >> 15);
  }
  static Word16 norm_s(Word16 a) {
    if (a == 0) return 0;
    if (a == -1) return 15;
    Word32 v = a < 0 ? ~a : a;
    return static_cast<Word16>(__builtin_clz(static_cast<uint32_t>(v)) - 17);
  }

  // ---- 32-bit -------------------------------------------------------------
  Word32 L_add(Word32 a, Word32 b) {
    Word32 s = static_cast<Word32>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
    if (((a ^ b) & MIN_32) == 0 && ((s ^ a) & MIN_32) != 0) {
      Overflow = true;
      return a < 0 ? MIN_32 : MAX_32;
    }
    return s;
  }
  Word32 L_sub(Word32 a, Word32 b) {
    Word32 s = static_cast<Word32>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
    if (((a ^ b) & MIN_32) != 0 && ((s ^ a) & MIN_32) != 0) {
      Overflow = true;
      return a < 0 ? MIN_32 : MAX_32;
    }
    return s;
  }
  static Word32 L_negate(Word32 L) { return L == MIN_32 ? MAX_32 : -L; }
  static Word32 L_abs(Word32 L) { return L == MIN_32 ? MAX_32 : (L < 0 ? -L : L); }
  Word32 L_mult(Word16 a, Word16 b) {
    Word32 p = static_cast<Word32>(a) * b;
    if (p == 0x40000000) { Overflow = true; return MAX_32; }
    return p * 2;
  }
  Word32 L_mac(Word32 acc, Word16 a, Word16 b) { return L_add(acc, L_mult(a, b)); }
  Word32 L_msu(Word32 acc, Word16 a, Word16 b) { return L_sub(acc, L_mult(a, b)); }

  // Saturates exactly when the reference's bit-by-bit loop would: when
  // L * 2^n does not fit in 32 bits.
  Word32 L_shl(Word32 L, Word16 n) {
    if (n <= 0) return L_shr(L, n < -32 ? 32 : static_cast<Word16>(-n));
    if (n >= 32) {
      if (L == 0) return 0;
      Overflow = true;
      return L > 0 ? MAX_32 : MIN_32;
    }
    if (L > (MAX_32 >> n)) { Overflow = true; return MAX_32; }
    if (L < (MIN_32 >> n)) { Overflow = true; return MIN_32; }
    return static_cast<Word32>(static_cast<uint32_t>(L) << n);
  }
  Word32 L_shr(Word32 L, Word16 n) {
    if (n < 0) return L_shl(L, n < -32 ? 32 : static_cast<Word16>(-n));
    if (n >= 31) return L < 0 ? -1 : 0;
    return L >> n;  // arithmetic shift
  }
  Word32 L_shr_r(Word32 L, Word16 n) {
    if (n > 31) return 0;
    Word32 r = L_shr(L, n);
    if (n > 0 && (L & (static_cast<Word32>(1) << (n - 1))) != 0) r++;
    return r;
  }
  static Word16 norm_l(Word32 L) {
    if (L == 0) return 0;
    if (L == -1) return 31;
    Word32 v = L < 0 ? ~L : L;
    return static_cast<Word16>(__builtin_clz(static_cast<uint32_t>(v)) - 1);
  }
  Word16 round(Word32 L) { return extract_h(L_add(L, 0x8000)); }

  // Fractional division num/den for 0 <= num <= den, den > 0 (15-bit
  // quotient). Callers own the check of that precondition: the reference
  // implementations differ in how they fail, and returns 0 here.
  static Word16 div_s(Word16 num, Word16 den) {
    if (num < 0 || den <= 0 || num > den) return 0;
    if (num == 0) return 0;
    if (num == den) return MAX_16;
    Word32 n = num, d = den;
    Word16 q = 0;
    for (int i = 0; i < 15; i++) {
      q = static_cast<Word16>(q << 1);
      n <<= 1;
      if (n >= d) { n -= d; q++; }
    }
    return q;
  }

  // ---- 32-bit values in double-precision (hi, lo) form ----------------------
  // L = hi*2^16 + lo*2, with lo in [0, 16383].
  void L_Extract(Word32 L, Word16& hi, Word16& lo) {
    hi = extract_h(L);
    lo = extract_l(L_msu(L_shr(L, 1), hi, 16384));
  }
  Word32 L_Comp(Word16 hi, Word16 lo) { return L_mac(L_deposit_h(hi), lo, 1); }
  Word32 Mpy_32(Word16 hi1, Word16 lo1, Word16 hi2, Word16 lo2) {
    Word32 L = L_mult(hi1, hi2);
    L = L_mac(L, mult(hi1, lo2), 1);
    return L_mac(L, mult(lo1, hi2), 1);
  }
  Word32 Mpy_32_16(Word16 hi, Word16 lo, Word16 n) {
    Word32 L = L_mult(hi, n);
    return L_mac(L, mult(lo, n), 1);
  }
  // L_num / (denom_hi, denom_lo) for 0 < L_num < denom, denom normalised
  // (denom_hi >= 0x4000): one Newton step on 1/denom, then the product.
  Word32 Div_32(Word32 L_num, Word16 denom_hi, Word16 denom_lo) {
    Word16 approx = div_s(0x3fff, denom_hi);
    Word32 L = Mpy_32_16(denom_hi, denom_lo, approx);
    L = L_sub(MAX_32, L);
    Word16 hi, lo;
    L_Extract(L, hi, lo);
    L = Mpy_32_16(hi, lo, approx);
    L_Extract(L, hi, lo);
    Word16 n_hi, n_lo;
    L_Extract(L_num, n_hi, n_lo);
    L = Mpy_32(n_hi, n_lo, hi, lo);
    return L_shl(L, 2);
  }

  // ---- SigProc operators (the SILK family) ---------------------------------
  // Skype's SILK reference arithmetic differs from the ITU set: products are
  // taken as 32x16 or 32x32 bits keeping the upper part, and nothing sets a
  // flag. Sums wrap modulo 2^32 where the reference lets them overflow.
  static Word32 sp_add(Word32 a, Word32 b) {
    return static_cast<Word32>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
  }
  static Word32 sp_sub(Word32 a, Word32 b) {
    return static_cast<Word32>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
  }
  static Word32 sp_mul(Word32 a, Word32 b) {
    return static_cast<Word32>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
  }
  static Word32 sp_shl(Word32 a, int n) { return static_cast<Word32>(static_cast<uint32_t>(a) << n); }
  // (a * low16(b)) >> 16 and (a * high16(b)) >> 16, floor rounding.
  static Word32 sp_smulwb(Word32 a, Word32 b) {
    return static_cast<Word32>((static_cast<int64_t>(a) * static_cast<Word16>(b)) >> 16);
  }
  static Word32 sp_smulwt(Word32 a, Word32 b) {
    return static_cast<Word32>((static_cast<int64_t>(a) * (b >> 16)) >> 16);
  }
  static Word32 sp_smlawb(Word32 acc, Word32 a, Word32 b) { return sp_add(acc, sp_smulwb(a, b)); }
  static Word32 sp_smlawt(Word32 acc, Word32 a, Word32 b) { return sp_add(acc, sp_smulwt(a, b)); }
  // (a * b) >> 16 with both operands 32-bit, wrapped to 32 bits.
  static Word32 sp_smulww(Word32 a, Word32 b) {
    return static_cast<Word32>((static_cast<int64_t>(a) * b) >> 16);
  }
  static Word32 sp_smlaww(Word32 acc, Word32 a, Word32 b) { return sp_add(acc, sp_smulww(a, b)); }
  static Word32 sp_smulbb(Word32 a, Word32 b) {
    return static_cast<Word32>(static_cast<Word16>(a)) * static_cast<Word16>(b);
  }
  static Word32 sp_smlabb(Word32 acc, Word32 a, Word32 b) { return sp_add(acc, sp_smulbb(a, b)); }
  static Word32 sp_smmul(Word32 a, Word32 b) {
    return static_cast<Word32>((static_cast<int64_t>(a) * b) >> 32);
  }
  // Right shift with rounding (shift >= 1).
  static Word32 sp_rshift_round(Word32 a, int shift) {
    return shift == 1 ? (a >> 1) + (a & 1) : ((a >> (shift - 1)) + 1) >> 1;
  }
  static int64_t sp_rshift_round64(int64_t a, int shift) {
    return shift == 1 ? (a >> 1) + (a & 1) : ((a >> (shift - 1)) + 1) >> 1;
  }
  static Word16 sp_sat16(Word32 a) {
    return static_cast<Word16>(a > MAX_16 ? MAX_16 : (a < MIN_16 ? MIN_16 : a));
  }
  static Word32 sp_add_sat32(Word32 a, Word32 b) {
    int64_t s = static_cast<int64_t>(a) + b;
    return s > MAX_32 ? MAX_32 : (s < MIN_32 ? MIN_32 : static_cast<Word32>(s));
  }
  // Clamps a to the range that survives a left shift, then shifts.
  static Word32 sp_lshift_sat32(Word32 a, int shift) {
    Word32 lo = MIN_32 >> shift, hi = MAX_32 >> shift;
    return sp_shl(a < lo ? lo : (a > hi ? hi : a), shift);
  }
  static Word32 sp_clz32(Word32 a) {
    return a == 0 ? 32 : __builtin_clz(static_cast<uint32_t>(a));
  }
  // Linear congruential generator of the SILK reference.
  static Word32 sp_rand(Word32 seed) { return sp_add(907633515, sp_mul(seed, 196314165)); }
  // Approximation of (1 << q) / b (b != 0, q > 0).
  static Word32 sp_inverse32_varq(Word32 b, int q) {
    int headroom = sp_clz32(b > 0 ? b : -b) - 1;
    Word32 bn = sp_shl(b, headroom);
    Word32 inv = (MAX_32 >> 2) / (bn >> 16);
    Word32 result = sp_shl(inv, 16);
    Word32 err = sp_shl(-sp_smulwb(bn, inv), 3);
    result = sp_smlaww(result, err, inv);
    int shift = 61 - headroom - q;
    if (shift <= 0) return sp_lshift_sat32(result, -shift);
    return shift < 32 ? result >> shift : 0;
  }
  // Approximation of (a << q) / b (b != 0, q >= 0).
  static Word32 sp_div32_varq(Word32 a, Word32 b, int q) {
    int aHead = sp_clz32(a > 0 ? a : -a) - 1;
    Word32 an = sp_shl(a, aHead);
    int bHead = sp_clz32(b > 0 ? b : -b) - 1;
    Word32 bn = sp_shl(b, bHead);
    Word32 inv = (MAX_32 >> 2) / (bn >> 16);
    Word32 result = sp_smulwb(an, inv);
    an = sp_sub(an, sp_shl(sp_smmul(bn, result), 3));
    result = sp_smlawb(result, an, inv);
    int shift = 29 + aHead - bHead - q;
    if (shift <= 0) return sp_lshift_sat32(result, -shift);
    return shift < 32 ? result >> shift : 0;
  }
};

}  // namespace quillon::fx

#endif
