#include "engines/g729/postfilter_main.h"

#include <cstring>

#include "engines/g729/tables.h"

namespace quillon::g729a {

namespace {
constexpr Word16 kGammaDen = 22938;     // 0.70, short-term denominator weighting
constexpr Word16 kGammaNum = 18022;     // 0.55, short-term numerator weighting
constexpr Word16 kTiltPlus = 6554;      // tilt weighting when the reflection coefficient is positive
constexpr Word16 kTiltMinus = 29491;    // ... and when it is negative
constexpr Word16 kMinHarmonicGain = 21845;  // 1/(1 + 0.5): harmonic gain bounded to 1
constexpr Word16 kAgc = 32358;          // 0.9875
constexpr Word16 kAgc1 = static_cast<Word16>(32768 - kAgc);
}  // namespace

void MainPostFilter::reset() {
  Overflow = false;
  std::memset(m_res, 0, sizeof m_res);
  std::memset(m_stpMem, 0, sizeof m_stpMem);
  m_gain = 16384;
}

Word16 MainPostFilter::filter(Word16 t0, const Word16* syn, const Word16* a, bool active, Word16* out) {
  Word16 apDen[kOrder1];
  Word16 apNum[kImpulse];
  weightAz(a, kGammaDen, apDen);
  weightAz(a, kGammaNum, apNum);
  std::memset(apNum + kOrder1, 0, (kImpulse - kOrder1) * sizeof(Word16));

  Word16* res = m_res + kResHist;
  residual(apNum, syn, res, kSubframe);

  // sig[0] is the last output of 1/A(z/0.70) of the previous subframe (the
  // tilt filter's memory), sig[1..40] this subframe.
  Word16 sig[kSubframe + 1];
  Word16 voiced = 0;
  if (active) {
    voiced = harmonicFilter(t0, res, sig + 1);
  } else {
    std::memcpy(sig + 1, res, kSubframe * sizeof(Word16));
  }
  sig[0] = m_stpMem[kOrder - 1];
  const Word16 parcor = shortTermGain(apNum, apDen, sig + 1);
  synthesis(apDen, sig + 1, sig + 1, kSubframe, m_stpMem, true);
  tilt(sig, out, parcor);
  gainControl(syn, out);

  std::memmove(m_res, m_res + kSubframe, kResHist * sizeof(Word16));
  return voiced;
}

Word16 MainPostFilter::harmonicFilter(Word16 t0, const Word16* res, Word16* out) {
  // The residual with its history, aligned to 13 significant bits.
  constexpr int kLen = kResHist + kSubframe;
  const Word16* all = res - kResHist;
  Word16 bits = 0;
  for (int i = 0; i < kLen; i++) bits = static_cast<Word16>(bits | abs_s(all[i]));
  const Word16 shift = sub(3, norm_s(bits));
  // A first-subframe lag of 144 (a second-subframe lag of 144 carried into
  // a concealed or parity-failed first subframe) lets the delay reach 146,
  // which puts the long filter's oldest tap one sample before the history:
  // that sample reads as zero.
  Word16 alignedBuf[kLongReach + kLen] = {};
  for (int i = 0; i < kLen; i++) alignedBuf[kLongReach + i] = shr(all[i], shift);
  const Word16* aligned = alignedBuf + kLongReach + kResHist;

  Harmonic h;
  Word16 yUp[(kPhases - 1) * kUpStride];
  searchDelay(t0, aligned, h, yUp);
  if (h.num == 0) {
    std::memcpy(out, res, kSubframe * sizeof(Word16));
    return h.delay;
  }

  // The delayed signal: the residual itself for an integer delay, else the
  // better of the short and long interpolations, back at the residual's scale.
  const Word16* delayed = res - h.delay;
  Word16 num = h.num, den = h.den, shNum = h.shNum, shDen = h.shDen;
  if (h.phase != 0) {
    Word16 num2, den2, shNum2, shDen2;
    longInterpolation(aligned, h.delay, h.phase, out, num2, den2, shNum2, shDen2);
    Word16* interp = yUp + (h.phase - 1) * kUpStride + h.offset;
    if (preferLong(h, num2, den2, shNum2, shDen2)) {
      num = num2;
      den = den2;
      shNum = shNum2;
      shDen = shDen2;
      interp = out;
    }
    for (int i = 0; i < kSubframe; i++) interp[i] = shl(interp[i], shift);
    delayed = interp;
  }

  const Word16 d = sub(shNum, shDen);
  if (d >= 0) {
    den = shr(den, d);
  } else {
    num = shl(num, d);
  }
  Word16 gain;
  if (num >= den) {
    gain = kMinHarmonicGain;
  } else {
    // gain = den / (den + 0.5 num), halved on both sides against overflow.
    num = shr(num, 2);
    den = shr(den, 1);
    gain = div_s(den, add(den, num));
  }
  const Word16 gain1 = add(sub(32767, gain), 1);
  for (int n = 0; n < kSubframe; n++) out[n] = round(L_mac(L_mult(gain, res[n]), gain1, delayed[n]));
  return h.delay;
}

void MainPostFilter::searchDelay(Word16 t0, const Word16* sig, Harmonic& best, Word16* yUp) {
  best = Harmonic{};
  Word32 acc = 0;
  for (int i = 0; i < kSubframe; i++) acc = L_mac(acc, sig[i], sig[i]);
  if (acc == 0) return;
  Word16 shEner = sub(16, norm_l(acc));
  Word16 ener;
  if (shEner > 0) {
    ener = extract_l(L_shr(acc, shEner));
  } else {
    shEner = 0;
    ener = extract_l(acc);
  }

  // Best of the three integer delays t0-1, t0, t0+1.
  Word16 lambda = sub(t0, 1);
  Word32 numInt = -1;
  int iMax = 0;
  for (int i = 0; i < 3; i++) {
    const Word16* past = sig - (lambda + i);
    acc = 0;
    for (int n = 0; n < kSubframe; n++) acc = L_mac(acc, sig[n], past[n]);
    if (acc < 0) acc = 0;
    if (L_sub(acc, numInt) > 0) {
      numInt = acc;
      iMax = i;
    }
  }
  if (numInt == 0) return;
  lambda = add(lambda, static_cast<Word16>(iMax));
  acc = 0;
  {
    const Word16* past = sig - lambda;
    for (int i = 0; i < kSubframe; i++) acc = L_mac(acc, past[i], past[i]);
  }
  if (acc == 0) return;
  const Word32 denInt = acc;

  // Upsampled delayed signal for every phase: y[phi][n] holds the signal
  // delayed by lambda + 1 - phi/8 at n = 0..39 and by lambda - phi/8 at
  // n = 1..40; the energies of both windows.
  Word32 den0[kPhases - 1], den1[kPhases - 1];
  Word32 denMax = denInt;
  const Word16* past0 = sig - (lambda - 1);
  for (int phi = 1; phi < kPhases; phi++) {
    const Word16* h = tab::kPostInterpShort + (phi - 1) * 4;
    Word16* y = yUp + (phi - 1) * kUpStride;
    for (int n = 0; n <= kSubframe; n++) {
      const Word16* p = past0 + n;
      acc = 0;
      for (int i = 0; i < 4; i++) acc = L_mac(acc, h[i], p[-i]);
      y[n] = round(acc);
    }
    acc = 0;
    for (int n = 1; n < kSubframe; n++) acc = L_mac(acc, y[n], y[n]);
    den0[phi - 1] = L_mac(acc, y[0], y[0]);
    den1[phi - 1] = L_mac(acc, y[kSubframe], y[kSubframe]);
    if (abs_s(y[0]) > abs_s(y[kSubframe])) {
      if (L_sub(den0[phi - 1], denMax) > 0) denMax = den0[phi - 1];
    } else {
      if (L_sub(den1[phi - 1], denMax) > 0) denMax = den1[phi - 1];
    }
  }
  if (denMax == 0) return;
  const Word16 shDen = sub(16, norm_l(denMax));
  if (shDen <= 0) return;  // the delay line is far louder than the subframe
  const Word16 shNum = shDen >= shEner ? shDen : shEner;

  // Best num^2/den over the phases, the integer delay first.
  Word16 denBest = extract_l(L_shr(denInt, shDen));
  Word16 numBest = extract_l(L_shr(numInt, shNum));
  Word16 sqHi, sqLo;
  L_Extract(L_mult(numBest, numBest), sqHi, sqLo);
  Word16 phiBest = 0, offBest = 1;
  for (int phi = 1; phi < kPhases; phi++) {
    const Word16* y = yUp + (phi - 1) * kUpStride;
    for (int off = 0; off < 2; off++) {
      acc = 0;
      for (int n = 0; n < kSubframe; n++) acc = L_mac(acc, sig[n], y[n + off]);
      acc = L_shr(acc, shNum);
      const Word16 num = acc < 0 ? Word16{0} : extract_l(acc);
      Word16 hi, lo;
      L_Extract(L_mult(num, num), hi, lo);
      const Word32 t0v = Mpy_32_16(hi, lo, denBest);
      const Word16 den = extract_l(L_shr(off == 0 ? den0[phi - 1] : den1[phi - 1], shDen));
      const Word32 t1v = Mpy_32_16(sqHi, sqLo, den);
      if (L_sub(t0v, t1v) > 0) {
        numBest = num;
        sqHi = hi;
        sqLo = lo;
        denBest = den;
        offBest = static_cast<Word16>(off);
        phiBest = static_cast<Word16>(phi);
      }
    }
  }
  if (numBest == 0 || denBest <= 1) return;

  // Keep the delay when num^2/den > 0.5 energy.
  Word32 lhs = L_Comp(sqHi, sqLo);
  Word32 rhs = L_mult(denBest, ener);
  Word16 s = shl(shNum, 1);
  s = sub(s, shDen);
  s = sub(s, shEner);
  s = add(s, 1);
  if (s < 0) {
    lhs = L_shr(lhs, negate(s));
  } else if (s > 0) {
    rhs = L_shr(rhs, s);
  }
  if (L_sub(lhs, rhs) < 0) return;
  best.delay = sub(add(lambda, 1), offBest);
  best.offset = offBest;
  best.phase = phiBest;
  best.num = numBest;
  best.den = denBest;
  best.shDen = shDen;
  best.shNum = shNum;
}

void MainPostFilter::longInterpolation(const Word16* sig, Word16 delay, Word16 phase, Word16* y, Word16& num,
                                       Word16& den, Word16& shNum, Word16& shDen) {
  const Word16* h = tab::kPostInterpLong + (phase - 1) * 16;
  const Word16* base = sig + 8 - delay;
  for (int n = 0; n < kSubframe; n++) {
    Word32 acc = 0;
    for (int i = 0; i < 16; i++) acc = L_mac(acc, h[i], base[n - i]);
    y[n] = round(acc);
  }
  Word32 acc = 0;
  for (int n = 0; n < kSubframe; n++) acc = L_mac(acc, y[n], sig[n]);
  if (acc < 0) {
    num = 0;
    shNum = 0;
  } else {
    Word16 t = sub(16, norm_l(acc));
    if (t < 0) t = 0;
    num = extract_l(L_shr(acc, t));
    shNum = t;
  }
  acc = 0;
  for (int n = 0; n < kSubframe; n++) acc = L_mac(acc, y[n], y[n]);
  Word16 t = sub(16, norm_l(acc));
  if (t < 0) t = 0;
  den = extract_l(L_shr(acc, t));
  shDen = t;
}

bool MainPostFilter::preferLong(const Harmonic& s, Word16 num2, Word16 den2, Word16 shNum2, Word16 shDen2) {
  if (den2 == 0) return false;
  Word16 hi, lo;
  L_Extract(L_mult(s.num, s.num), hi, lo);
  Word32 c1 = Mpy_32_16(hi, lo, den2);
  L_Extract(L_mult(num2, num2), hi, lo);
  Word32 c2 = Mpy_32_16(hi, lo, s.den);
  Word16 e1 = add(shl(s.shNum, 1), shDen2);
  Word16 e2 = add(shl(shNum2, 1), s.shDen);
  if (sub(e2, e1) > 0) {
    c1 = L_shr(c1, sub(e2, e1));
  } else if (sub(e1, e2) > 0) {
    c2 = L_shr(c2, sub(e1, e2));
  }
  return L_sub(c2, c1) > 0;
}

Word16 MainPostFilter::shortTermGain(const Word16* apNum, const Word16* apDen, Word16* sig) {
  // Impulse response of A(z/0.55)/A(z/0.70), truncated.
  Word16 h[kImpulse];
  Word16 zero[kOrder] = {};
  synthesis(apDen, apNum, h, kImpulse, zero, false);

  // First reflection coefficient of h.
  Word32 acc = 0;
  for (int i = 0; i < kImpulse; i++) acc = L_mac(acc, h[i], h[i]);
  const Word16 sh = norm_l(acc);
  const Word16 acf0 = extract_h(L_shl(acc, sh));
  acc = 0;
  for (int i = 0; i < kImpulse - 1; i++) acc = L_mac(acc, h[i], h[i + 1]);
  const Word16 acf1 = extract_h(L_shl(acc, sh));
  Word16 parcor;
  if (acf0 < abs_s(acf1)) {
    parcor = 0;
  } else {
    parcor = div_s(abs_s(acf1), acf0);
    if (acf1 > 0) parcor = negate(parcor);
  }

  // Input of 1/A(z/0.70) scaled by 1/sum|h| when that sum exceeds 1.
  Word32 sum = 0;
  for (int i = 0; i < kImpulse; i++) sum = L_add(sum, L_deposit_l(abs_s(h[i])));
  const Word16 g0 = extract_h(L_shl(sum, 14));
  if (g0 > 1024) {
    const Word16 inv = div_s(1024, g0);
    for (int i = 0; i < kSubframe; i++) sig[i] = mult_r(sig[i], inv);
  }
  return parcor;
}

void MainPostFilter::tilt(const Word16* in, Word16* out, Word16 parcor) {
  Word16 mu, fact, shift;
  Word32 round1;
  if (parcor > 0) {
    mu = mult_r(parcor, kTiltPlus);
    shift = 15;
    fact = 0x4000;
    round1 = 0x4000;
  } else {
    mu = mult_r(parcor, kTiltMinus);
    shift = 12;
    fact = 0x0800;
    round1 = 0x0800;
  }
  const Word16 mu2 = add(32767, sub(1, abs_s(mu)));  // 2^15 (1 - |mu|)
  const Word16 ga = div_s(fact, mu2);
  mu = shr(mu, 1);
  for (int n = 0; n < kSubframe; n++) {
    Word32 t = L_mac(L_shl(L_deposit_l(in[n + 1]), 15), mu, in[n]);
    t = L_add(t, 0x4000);
    const Word16 v = extract_l(L_shr(t, 15));
    t = L_shr(L_add(L_mult(v, ga), round1), shift);
    out[n] = saturate(t);
  }
}

void MainPostFilter::gainControl(const Word16* in, Word16* out) {
  Word32 acc = 0;
  for (int i = 0; i < kSubframe; i++) acc = L_add(acc, L_abs(L_deposit_l(in[i])));
  Word16 g0;
  if (acc == 0) {
    g0 = 0;
  } else {
    const Word16 scaleIn = norm_l(acc);
    const Word16 gIn = extract_h(L_shl(acc, scaleIn));
    acc = 0;
    for (int i = 0; i < kSubframe; i++) acc = L_add(acc, L_abs(L_deposit_l(out[i])));
    if (acc == 0) {
      m_gain = 0;
      return;
    }
    const Word16 scaleOut = norm_l(acc);
    const Word16 gOut = extract_h(L_shl(acc, scaleOut));
    Word16 sh = sub(add(scaleIn, 1), scaleOut);
    if (gIn < gOut) {
      g0 = div_s(gIn, gOut);  // Q15
    } else {
      g0 = shr(div_s(sub(gIn, gOut), gOut), 1);
      g0 = add(g0, 0x4000);  // Q14
      sh = sub(sh, 1);
    }
    g0 = shr(g0, sh);
    g0 = mult_r(g0, kAgc1);
  }
  Word16 gain = m_gain;
  for (int i = 0; i < kSubframe; i++) {
    gain = add(mult_r(kAgc, gain), g0);
    out[i] = round(L_shl(L_mult(gain, out[i]), 1));
  }
  m_gain = gain;
}

}  // namespace quillon::g729a
