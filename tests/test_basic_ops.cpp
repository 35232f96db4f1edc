#include <gtest/gtest.h>

#include "primitives/basic_ops.h"

using namespace quillon::fx;

TEST(BasicOps, SixteenBitSaturationSetsOverflowOnlyWhenClamping) {
  BasicOps o;
  EXPECT_EQ(o.add(20000, 12767), 32767);
  EXPECT_FALSE(o.Overflow);
  EXPECT_EQ(o.add(20000, 12768), MAX_16);
  EXPECT_TRUE(o.Overflow);
  BasicOps p;
  EXPECT_EQ(p.sub(-32768, 1), MIN_16);
  EXPECT_TRUE(p.Overflow);
  EXPECT_EQ(BasicOps::abs_s(MIN_16), MAX_16);
  EXPECT_EQ(BasicOps::negate(MIN_16), MAX_16);
  EXPECT_EQ(p.mult(MIN_16, MIN_16), MAX_16);
  EXPECT_EQ(p.mult(-1, 1), -1);  // truncation towards minus infinity
  EXPECT_EQ(p.mult_r(-1, 1), 0);
  EXPECT_EQ(p.mult_r(16384, 16384), 8192);
}

TEST(BasicOps, ShiftsSaturateAndRoundLikeTheReference) {
  BasicOps o;
  EXPECT_EQ(o.shl(0x4000, 1), MAX_16);
  EXPECT_TRUE(o.Overflow);
  EXPECT_EQ(o.shl(-0x4000, 1), MIN_16);
  EXPECT_EQ(o.shl(0, 40), 0);
  EXPECT_EQ(o.shl(1, -20), 0);
  EXPECT_EQ(o.shr(-1, 40), -1);
  EXPECT_EQ(o.shr(-5, 1), -3);
  EXPECT_EQ(o.shr(3, -2), 12);
  EXPECT_EQ(o.shr_r(3, 1), 2);
  EXPECT_EQ(o.shr_r(-3, 1), -1);
  EXPECT_EQ(o.shr_r(MAX_16, 16), 0);
  BasicOps q;
  EXPECT_EQ(q.L_shl(0x40000000, 1), MAX_32);
  EXPECT_TRUE(q.Overflow);
  EXPECT_EQ(q.L_shl(static_cast<Word32>(0xc0000000u), 1), MIN_32);
  EXPECT_EQ(q.L_shl(static_cast<Word32>(0xbfffffffu), 1), MIN_32);
  BasicOps r;
  EXPECT_EQ(r.L_shl(-1, 31), MIN_32);  // fits exactly
  EXPECT_EQ(r.L_shl(0x0fffffff, 3), 0x7ffffff8);
  EXPECT_EQ(r.L_shl(static_cast<Word32>(0xf0000000u), 3), MIN_32);
  EXPECT_EQ(r.L_shl(0, 40), 0);
  EXPECT_FALSE(r.Overflow);
  EXPECT_EQ(r.L_shl(0x10000000, 3), MAX_32);
  EXPECT_TRUE(r.Overflow);
  BasicOps t;
  EXPECT_EQ(t.L_shl(-1, 32), MIN_32);
  EXPECT_TRUE(t.Overflow);
  EXPECT_EQ(q.L_shr(MIN_32, 31), -1);
  EXPECT_EQ(q.L_shr(MIN_32, -1), MIN_32);
  EXPECT_EQ(q.L_shr_r(3, 1), 2);
  EXPECT_EQ(q.L_shr_r(MAX_32, 32), 0);
}

TEST(BasicOps, ThirtyTwoBitArithmetic) {
  BasicOps o;
  EXPECT_EQ(o.L_mult(MIN_16, MIN_16), MAX_32);
  EXPECT_TRUE(o.Overflow);
  BasicOps p;
  EXPECT_EQ(p.L_mult(MIN_16, MAX_16), -2147418112);
  EXPECT_FALSE(p.Overflow);
  EXPECT_EQ(p.L_add(MAX_32, 1), MAX_32);
  EXPECT_EQ(p.L_add(MIN_32, -1), MIN_32);
  EXPECT_EQ(p.L_sub(MIN_32, 1), MIN_32);
  EXPECT_EQ(p.L_sub(0, MIN_32), MAX_32);
  EXPECT_EQ(p.L_sub(-1, MIN_32), MAX_32);
  EXPECT_EQ(BasicOps::L_negate(MIN_32), MAX_32);
  EXPECT_EQ(BasicOps::L_abs(MIN_32), MAX_32);
  EXPECT_EQ(p.L_mac(MAX_32, 1, 1), MAX_32);
  EXPECT_EQ(p.L_msu(MIN_32, 1, 1), MIN_32);
  EXPECT_EQ(p.round(0x7fff8000), MAX_16);
  EXPECT_EQ(p.round(0x00018000), 2);
  EXPECT_EQ(p.round(static_cast<Word32>(0xffff7fffu)), -1);
  EXPECT_EQ(BasicOps::L_deposit_h(-1), static_cast<Word32>(0xffff0000u));
  EXPECT_EQ(BasicOps::extract_h(static_cast<Word32>(0x80000000u)), MIN_16);
  EXPECT_EQ(BasicOps::extract_l(0x12348765), static_cast<Word16>(0x8765));
}

TEST(BasicOps, Normalisation) {
  EXPECT_EQ(BasicOps::norm_s(0), 0);
  EXPECT_EQ(BasicOps::norm_s(-1), 15);
  EXPECT_EQ(BasicOps::norm_s(1), 14);
  EXPECT_EQ(BasicOps::norm_s(MAX_16), 0);
  EXPECT_EQ(BasicOps::norm_s(MIN_16), 0);
  EXPECT_EQ(BasicOps::norm_s(-16385), 0);
  EXPECT_EQ(BasicOps::norm_s(-16384), 1);
  EXPECT_EQ(BasicOps::norm_l(0), 0);
  EXPECT_EQ(BasicOps::norm_l(-1), 31);
  EXPECT_EQ(BasicOps::norm_l(1), 30);
  EXPECT_EQ(BasicOps::norm_l(MIN_32), 0);
  EXPECT_EQ(BasicOps::norm_l(0x40000000), 0);
  EXPECT_EQ(BasicOps::norm_l(0x3fffffff), 1);
}

TEST(BasicOps, DivisionAndDoublePrecision) {
  EXPECT_EQ(BasicOps::div_s(0, 100), 0);
  EXPECT_EQ(BasicOps::div_s(100, 100), MAX_16);
  EXPECT_EQ(BasicOps::div_s(1, 2), 16384);
  EXPECT_EQ(BasicOps::div_s(1, 3), 10922);
  EXPECT_EQ(BasicOps::div_s(16383, 16384), 32766);
  BasicOps o;
  Word16 hi, lo;
  o.L_Extract(0x12345678, hi, lo);
  EXPECT_EQ(hi, 0x1234);
  EXPECT_EQ(lo, 0x5678 >> 1);
  EXPECT_EQ(o.L_Comp(hi, lo), 0x12345678);
  o.L_Extract(-0x12345678, hi, lo);
  EXPECT_EQ(o.L_Comp(hi, lo), -0x12345678);
  // 0.5 * 0.5 in Q31
  o.L_Extract(0x40000000, hi, lo);
  EXPECT_EQ(o.Mpy_32(hi, lo, hi, lo), 0x20000000);
  EXPECT_EQ(o.Mpy_32_16(hi, lo, 16384), 0x20000000);
  // 0.25 / 0.5 = 0.5 (Q31, within the last bits of the approximation)
  Word16 dhi, dlo;
  o.L_Extract(0x40000000, dhi, dlo);
  Word32 q = o.Div_32(0x20000000, dhi, dlo);
  EXPECT_NEAR(static_cast<double>(q), 1073741824.0, 1e5);
  EXPECT_FALSE(o.Overflow);
}

TEST(BasicOps, FlagsBelongToEachInstance) {
  BasicOps a, b;
  a.add(MAX_16, 1);
  EXPECT_TRUE(a.Overflow);
  EXPECT_FALSE(b.Overflow);
}

// The SigProc (SILK) family: floor products, wrap-around sums, saturating
// shift and the approximate divisions at their edges.
TEST(BasicOps, SigProcOperatorsAtTheirEdges) {
  EXPECT_EQ(BasicOps::sp_smulwb(-1, 1), -1);                       // floor, not truncation
  EXPECT_EQ(BasicOps::sp_smulwb(0x7fffffff, 0x18000), -1073741824);  // b taken as int16
  EXPECT_EQ(BasicOps::sp_smulwt(65536, 3 << 16), 3);
  EXPECT_EQ(BasicOps::sp_smulww(MAX_32, MAX_32), static_cast<Word32>((static_cast<int64_t>(MAX_32) * MAX_32) >> 16));
  EXPECT_EQ(BasicOps::sp_smlawb(MAX_32, 65536, 1), MIN_32);        // wraps
  EXPECT_EQ(BasicOps::sp_smmul(MIN_32, MIN_32), 0x40000000);
  EXPECT_EQ(BasicOps::sp_rshift_round(-3, 1), -1);
  EXPECT_EQ(BasicOps::sp_rshift_round(5, 2), 1);
  EXPECT_EQ(BasicOps::sp_rshift_round(6, 2), 2);
  EXPECT_EQ(BasicOps::sp_lshift_sat32(0x10000000, 4), static_cast<Word32>(0x7ffffff0));
  EXPECT_EQ(BasicOps::sp_lshift_sat32(-0x10000000, 4), MIN_32);
  EXPECT_EQ(BasicOps::sp_add_sat32(MAX_32, 1), MAX_32);
  EXPECT_EQ(BasicOps::sp_add_sat32(MIN_32, -1), MIN_32);
  EXPECT_EQ(BasicOps::sp_sat16(40000), MAX_16);
  EXPECT_EQ(BasicOps::sp_clz32(0), 32);
  EXPECT_EQ(BasicOps::sp_clz32(-1), 0);
  EXPECT_EQ(BasicOps::sp_rand(0), 907633515);
  EXPECT_NEAR(BasicOps::sp_inverse32_varq(65536, 32), 65536, 1);
  EXPECT_GE(BasicOps::sp_inverse32_varq(1, 32), MAX_32 - 1);      // saturates
  EXPECT_NEAR(BasicOps::sp_div32_varq(3 << 16, 1 << 16, 16), 3 << 16, 1);
  EXPECT_EQ(BasicOps::sp_div32_varq(1, 1 << 30, 0), 0);
}
