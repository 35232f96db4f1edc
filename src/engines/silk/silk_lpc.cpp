// SILK LPC helpers: NLSF to prediction coefficients, stability test,
// bandwidth expansion and a plain synthesis filter.
#include "engines/silk/silk_decoder.h"
#include "engines/silk/silk_tables.h"

namespace quillon::silk {

using B = fx::BasicOps;

namespace {

constexpr int kLpcStabiliseLoops = 20;
constexpr int32_t kReflectionLimitQ16 = 65520;  // 0.99975

// Builds one of the two symmetric polynomials from every other 2*cos(NLSF).
void nlsfPolynomial(int32_t* out, const int32_t* cosQ20, int half) {
  out[0] = 1 << 20;
  out[1] = -cosQ20[0];
  for (int k = 1; k < half; k++) {
    const int64_t c = cosQ20[2 * k];
    out[k + 1] = B::sp_sub(B::sp_shl(out[k - 1], 1),
                           static_cast<int32_t>(B::sp_rshift_round64(c * out[k], 20)));
    for (int n = k; n > 1; n--)
      out[n] = B::sp_add(out[n], B::sp_sub(out[n - 2], static_cast<int32_t>(B::sp_rshift_round64(c * out[n - 1], 20))));
    out[1] -= static_cast<int32_t>(c);
  }
}

void bandwidthExpand32(int32_t* a, int order, int32_t chirpQ16) {
  int32_t c = chirpQ16;
  for (int i = 0; i < order - 1; i++) {
    a[i] = B::sp_smulww(a[i], c);
    c = B::sp_smulww(chirpQ16, c);
  }
  a[order - 1] = B::sp_smulww(a[order - 1], c);
}

void nlsfToLpc(int16_t* aQ12, const int32_t* nlsfQ15, int order) {
  int32_t cosQ20[kMaxLpcOrder];
  for (int k = 0; k < order; k++) {
    const int32_t i = nlsfQ15[k] >> 8;
    const int32_t frac = nlsfQ15[k] - (i << 8);
    const int32_t c = kCosTableQ12[i];
    cosQ20[k] = (c << 8) + (kCosTableQ12[i + 1] - c) * frac;
  }
  const int half = order >> 1;
  int32_t p[kMaxLpcOrder / 2 + 1], q[kMaxLpcOrder / 2 + 1];
  nlsfPolynomial(p, &cosQ20[0], half);
  nlsfPolynomial(q, &cosQ20[1], half);

  int32_t a[kMaxLpcOrder];
  for (int k = 0; k < half; k++) {
    const int32_t ps = B::sp_add(p[k + 1], p[k]);
    const int32_t qd = B::sp_sub(q[k + 1], q[k]);
    a[k] = -B::sp_rshift_round(B::sp_add(ps, qd), 9);
    a[order - k - 1] = B::sp_rshift_round(B::sp_sub(qd, ps), 9);
  }

  // Shrink the coefficients until all fit in 16 bits.
  int round;
  for (round = 0; round < 10; round++) {
    int32_t maxAbs = 0;
    int at = 0;
    for (int k = 0; k < order; k++) {
      const int32_t v = a[k] > 0 ? a[k] : -a[k];
      if (v > maxAbs) {
        maxAbs = v;
        at = k;
      }
    }
    if (maxAbs <= fx::MAX_16) break;
    if (maxAbs > 98369) maxAbs = 98369;
    const int32_t chirp = 65470 - ((65470 >> 2) * (maxAbs - fx::MAX_16)) / ((maxAbs * (at + 1)) >> 2);
    bandwidthExpand32(a, order, chirp);
  }
  if (round == 10) {
    for (int k = 0; k < order; k++) a[k] = B::sp_sat16(a[k]);
  }
  for (int k = 0; k < order; k++) aQ12[k] = static_cast<int16_t>(a[k]);
}

}  // namespace

void bandwidthExpand(int16_t* a, int order, int32_t chirpQ16) {
  const int32_t step = chirpQ16 - 65536;
  for (int i = 0; i < order - 1; i++) {
    a[i] = static_cast<int16_t>(B::sp_rshift_round(chirpQ16 * a[i], 16));
    chirpQ16 += B::sp_rshift_round(chirpQ16 * step, 16);
  }
  a[order - 1] = static_cast<int16_t>(B::sp_rshift_round(chirpQ16 * a[order - 1], 16));
}

// Step-down recursion on the coefficients in Q16; 1 when unstable.
int lpcInverseGain(int32_t* invGainQ30, const int16_t* aQ12, int order) {
  int32_t buf[2][kMaxLpcOrder];
  int32_t* cur = buf[order & 1];
  for (int k = 0; k < order; k++) cur[k] = static_cast<int32_t>(aQ12[k]) << 4;
  *invGainQ30 = 1 << 30;
  for (int k = order - 1; k > 0; k--) {
    if (cur[k] > kReflectionLimitQ16 || cur[k] < -kReflectionLimitQ16) return 1;
    const int32_t rcQ31 = -B::sp_shl(cur[k], 15);
    const int32_t oneMinusQ30 = (fx::MAX_32 >> 1) - B::sp_smmul(rcQ31, rcQ31);
    int32_t invQ16 = B::sp_inverse32_varq(oneMinusQ30, 46);
    *invGainQ30 = B::sp_shl(B::sp_smmul(*invGainQ30, oneMinusQ30), 2);
    int32_t* prev = cur;
    cur = buf[k & 1];
    const int headroom = B::sp_clz32(invQ16) - 1;
    invQ16 = B::sp_shl(invQ16, headroom);
    for (int n = 0; n < k; n++) {
      const int32_t t = B::sp_sub(prev[n], B::sp_shl(B::sp_smmul(prev[k - n - 1], rcQ31), 1));
      cur[n] = B::sp_shl(B::sp_smmul(t, invQ16), 16 - headroom);
    }
  }
  if (cur[0] > kReflectionLimitQ16 || cur[0] < -kReflectionLimitQ16) return 1;
  const int32_t rcQ31 = -B::sp_shl(cur[0], 15);
  const int32_t oneMinusQ30 = (fx::MAX_32 >> 1) - B::sp_smmul(rcQ31, rcQ31);
  *invGainQ30 = B::sp_shl(B::sp_smmul(*invGainQ30, oneMinusQ30), 2);
  return 0;
}

void nlsfToLpcStable(int16_t* aQ12, const int32_t* nlsfQ15, int order) {
  nlsfToLpc(aQ12, nlsfQ15, order);
  int i;
  for (i = 0; i < kLpcStabiliseLoops; i++) {
    int32_t invGain;
    if (lpcInverseGain(&invGain, aQ12, order) != 1) break;
    bandwidthExpand(aQ12, order, 65536 - (10 + i) * i);
  }
  if (i == kLpcStabiliseLoops) {
    for (int k = 0; k < order; k++) aQ12[k] = 0;
  }
}

// state[order - 1] is the newest output (Q14).
void lpcSynthesis(const int16_t* in, const int16_t* aQ12, int32_t gainQ26, int32_t* state,
                  int16_t* out, int len, int order) {
  for (int n = 0; n < len; n++) {
    int32_t acc = 0;
    for (int j = 0; j < order; j++) acc = B::sp_smlawb(acc, state[order - 1 - j], aQ12[j]);
    for (int j = 0; j < order - 1; j++) state[j] = state[j + 1];
    acc = B::sp_add_sat32(acc, B::sp_smulwb(gainQ26, in[n]));
    out[n] = B::sp_sat16(B::sp_rshift_round(acc, 10));
    state[order - 1] = B::sp_lshift_sat32(acc, 4);
  }
}

}  // namespace quillon::silk
