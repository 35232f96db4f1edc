// AMR-WB decoder: ISF dequantisation, ISF/ISP conversion, ISP to LP
// coefficients, interpolation and the HF envelope extrapolation.
#include <cstring>

#include "engines/amrwb/amrwb_decoder.h"
#include "engines/amrwb/amrwb_tables.h"

namespace quillon::amrwb {

namespace {
constexpr Word16 kPredFactor = 10923;   // 1/3, MA prediction of the ISF residual
constexpr Word16 kConcealKeep = 29491;  // 0.9, weight of the last ISFs on erasure
constexpr Word16 kConcealMean = 32768 - 29491;
constexpr Word16 kSubframeFrac[3] = {14746, 26214, 31457};
}  // namespace

void Dsp::reorderIsf(Word16* isf, Word16 minDist, int n) {
  Word32 floor = minDist;
  for (int i = 0; i < n - 1; i++) {
    if (isf[i] < floor) isf[i] = static_cast<Word16>(floor);
    floor = isf[i] + minDist;
    if (floor > fx::MAX_16) floor = fx::MAX_16;
  }
}

void Dsp::dequantiseIsf(const Word16* ind, Word16* isfQ, Word16* predRes, bool split36) {
  using namespace tables;
  for (int i = 0; i < 9; i++) isfQ[i] = kIsfStage1Low[ind[0] * 9 + i];
  for (int i = 0; i < 7; i++) isfQ[9 + i] = kIsfStage1High[ind[1] * 7 + i];
  if (split36) {
    for (int i = 0; i < 5; i++) isfQ[i] = add(isfQ[i], kIsf36Split1[ind[2] * 5 + i]);
    for (int i = 0; i < 4; i++) isfQ[5 + i] = add(isfQ[5 + i], kIsf36Split2[ind[3] * 4 + i]);
    for (int i = 0; i < 7; i++) isfQ[9 + i] = add(isfQ[9 + i], kIsf36Split3[ind[4] * 7 + i]);
  } else {
    for (int i = 0; i < 3; i++) isfQ[i] = add(isfQ[i], kIsf46Split1[ind[2] * 3 + i]);
    for (int i = 0; i < 3; i++) isfQ[3 + i] = add(isfQ[3 + i], kIsf46Split2[ind[3] * 3 + i]);
    for (int i = 0; i < 3; i++) isfQ[6 + i] = add(isfQ[6 + i], kIsf46Split3[ind[4] * 3 + i]);
    for (int i = 0; i < 3; i++) isfQ[9 + i] = add(isfQ[9 + i], kIsf46Split4[ind[5] * 3 + i]);
    for (int i = 0; i < 4; i++) isfQ[12 + i] = add(isfQ[12 + i], kIsf46Split5[ind[6] * 4 + i]);
  }
  for (int i = 0; i < kOrder; i++) {
    const Word16 residual = isfQ[i];
    isfQ[i] = add(add(residual, kIsfMean[i]), mult(kPredFactor, predRes[i]));
    predRes[i] = residual;
  }
  reorderIsf(isfQ, kIsfGap, kOrder);
}

void Decoder::decodeIsf(const Word16* ind, Word16* isfQ, bool bfi, bool split36) {
  using namespace tables;
  if (!bfi) {
    dequantiseIsf(ind, isfQ, isfPredRes_, split36);
    // Keep the last three good ISF vectors for concealment.
    std::memmove(isfRecent_ + kOrder, isfRecent_, 2 * kOrder * sizeof(Word16));
    std::memcpy(isfRecent_, isfQ, kOrder * sizeof(Word16));
    return;
  }
  Word16 ref[kOrder];
  for (int i = 0; i < kOrder; i++) {
    Word32 acc = L_mult(kIsfMean[i], 8192);
    for (int j = 0; j < 3; j++) acc = L_mac(acc, isfRecent_[j * kOrder + i], 8192);
    ref[i] = round(acc);
  }
  for (int i = 0; i < kOrder; i++) {
    isfQ[i] = add(mult(kConcealKeep, isfPrev_[i]), mult(kConcealMean, ref[i]));
  }
  for (int i = 0; i < kOrder; i++) {
    const Word16 predicted = add(ref[i], mult(isfPredRes_[i], kPredFactor));
    isfPredRes_[i] = shr(sub(isfQ[i], predicted), 1);
  }
  reorderIsf(isfQ, kIsfGap, kOrder);
}

void Dsp::dequantiseNoiseIsf(const Word16* ind, Word16* isf) {
  using namespace tables;
  for (int i = 0; i < 2; i++) isf[i] = kNoiseIsf1[ind[0] * 2 + i];
  for (int i = 0; i < 3; i++) isf[2 + i] = kNoiseIsf2[ind[1] * 3 + i];
  for (int i = 0; i < 3; i++) isf[5 + i] = kNoiseIsf3[ind[2] * 3 + i];
  for (int i = 0; i < 4; i++) isf[8 + i] = kNoiseIsf4[ind[3] * 4 + i];
  for (int i = 0; i < 4; i++) isf[12 + i] = kNoiseIsf5[ind[4] * 4 + i];
  for (int i = 0; i < kOrder; i++) isf[i] = add(isf[i], kNoiseIsfMean[i]);
  reorderIsf(isf, kIsfGap, kOrder);
}

void Dsp::isfToIsp(const Word16* isf, Word16* isp, int m) {
  Word16 v[kOrderHf];
  for (int i = 0; i < m - 1; i++) v[i] = isf[i];
  v[m - 1] = shl(isf[m - 1], 1);
  for (int i = 0; i < m; i++) {
    // Valid frequencies stay below 0.5 (index 127); damaged or random
    // parameters must not read outside the cosine grid.
    int ind = v[i] >> 7;
    if (ind < 0) ind = 0;
    if (ind > 127) ind = 127;
    const Word16 offset = static_cast<Word16>(v[i] & 0x7f);
    const Word32 t = L_mult(sub(tables::kCosineGrid[ind + 1], tables::kCosineGrid[ind]), offset);
    isp[i] = add(tables::kCosineGrid[ind], extract_l(L_shr(t, 8)));
  }
}

// Polynomial of the ISPs of one parity (every second ISP starting at
// isp[0]) in Q23 (unit 1024) or Q21 (unit 256, for order 20).
void Dsp::ispPolynomial(const Word16* isp, Word32* f, int n, Word16 unit) {
  const Word16 step = static_cast<Word16>(unit >> 2);
  f[0] = L_mult(4096, unit);
  f[1] = L_mult(isp[0], negate(step));
  for (int i = 2; i <= n; i++) {
    const Word16 q = isp[2 * (i - 1)];
    f[i] = f[i - 2];
    for (int j = i; j > 1; j--) {
      Word16 hi, lo;
      L_Extract(f[j - 1], hi, lo);
      const Word32 t = L_shl(Mpy_32_16(hi, lo, q), 1);
      f[j] = L_add(L_sub(f[j], t), f[j - 2]);
    }
    f[1] = L_msu(f[1], q, step);
  }
}

void Dsp::ispToLpc(const Word16* isp, Word16* a, int m, bool adaptiveScaling) {
  Word32 f1[11], f2[10];
  const int nc = m >> 1;
  const bool wide = nc > 8;
  ispPolynomial(isp, f1, nc, wide ? 256 : 1024);
  ispPolynomial(isp + 1, f2, nc - 1, wide ? 256 : 1024);
  if (wide) {
    for (int i = 0; i <= nc; i++) f1[i] = L_shl(f1[i], 2);
    for (int i = 0; i <= nc - 1; i++) f2[i] = L_shl(f2[i], 2);
  }
  for (int i = nc - 1; i > 1; i--) f2[i] = L_sub(f2[i], f2[i - 2]);
  const Word16 last = isp[m - 1];
  for (int i = 0; i < nc; i++) {
    Word16 hi, lo;
    L_Extract(f1[i], hi, lo);
    f1[i] = L_add(f1[i], Mpy_32_16(hi, lo, last));
    L_Extract(f2[i], hi, lo);
    f2[i] = L_sub(f2[i], Mpy_32_16(hi, lo, last));
  }
  a[0] = 4096;
  Word32 tmax = 1;
  for (int i = 1, j = m - 1; i < nc; i++, j--) {
    Word32 t = L_add(f1[i], f2[i]);
    tmax |= L_abs(t);
    a[i] = extract_l(L_shr_r(t, 12));
    t = L_sub(f1[i], f2[i]);
    tmax |= L_abs(t);
    a[j] = extract_l(L_shr_r(t, 12));
  }
  Word16 q = adaptiveScaling ? sub(4, norm_l(tmax)) : 0;
  Word16 qSug = 12;
  if (q > 0) {
    qSug = add(12, q);
    for (int i = 1, j = m - 1; i < nc; i++, j--) {
      a[i] = extract_l(L_shr_r(L_add(f1[i], f2[i]), qSug));
      a[j] = extract_l(L_shr_r(L_sub(f1[i], f2[i]), qSug));
    }
    a[0] = shr(a[0], q);
  } else {
    q = 0;
  }
  Word16 hi, lo;
  L_Extract(f1[nc], hi, lo);
  const Word32 t = L_add(f1[nc], Mpy_32_16(hi, lo, last));
  a[nc] = extract_l(L_shr_r(t, qSug));
  a[m] = shr_r(last, add(3, q));
}

void Dsp::interpolateIsp(const Word16* ispOld, const Word16* ispNew, Word16* az) {
  Word16 isp[kOrder];
  for (int k = 0; k < 3; k++) {
    const Word16 facNew = kSubframeFrac[k];
    const Word16 facOld = add(sub(32767, facNew), 1);
    for (int i = 0; i < kOrder; i++) {
      isp[i] = round(L_mac(L_mult(ispOld[i], facOld), ispNew[i], facNew));
    }
    ispToLpc(isp, az, kOrder, false);
    az += kOrder + 1;
  }
  ispToLpc(ispNew, az, kOrder, false);
}

void Dsp::weightLpc(const Word16* a, Word16* ap, Word16 gamma, int m) {
  ap[0] = a[0];
  Word16 fac = gamma;
  for (int i = 1; i < m; i++) {
    ap[i] = round(L_mult(a[i], fac));
    fac = round(L_mult(fac, gamma));
  }
  ap[m] = round(L_mult(a[m], fac));
}

// Extends the 16 ISFs of the 12.8 kHz envelope to the 20 ISFs of the HF
// synthesis filter at 16 kHz (6.60 kbit/s mode) and converts them to ISPs.
void Decoder::extrapolateIsf(Word16* hf) {
  constexpr int M = kOrder, MH = kOrderHf;
  Word16 diff[M - 2];
  hf[MH - 1] = hf[M - 1];
  for (int i = 1; i < M - 1; i++) diff[i - 1] = sub(hf[i], hf[i - 1]);
  Word32 acc = 0;
  for (int i = 3; i < M - 1; i++) acc = L_mac(acc, diff[i - 1], 2731);
  Word16 mean = round(acc);

  Word16 peak = 0;
  for (int i = 0; i < M - 2; i++) {
    if (diff[i] > peak) peak = diff[i];
  }
  Word16 exp = norm_s(peak);
  for (int i = 0; i < M - 2; i++) diff[i] = shl(diff[i], exp);
  mean = shl(mean, exp);

  Word32 corr[3] = {0, 0, 0};
  for (int lag = 2; lag <= 4; lag++) {
    for (int i = 7; i < M - 2; i++) {
      const Word16 a = sub(diff[i], mean);
      const Word16 b = sub(diff[i - lag], mean);
      Word16 hi, lo;
      L_Extract(L_mult(a, b), hi, lo);
      corr[lag - 2] = L_add(corr[lag - 2], Mpy_32(hi, lo, hi, lo));
    }
  }
  int best = corr[0] > corr[1] ? 0 : 1;
  if (corr[2] > corr[best]) best = 2;
  const int maxCorr = best + 1;

  for (int i = M - 1; i < MH - 1; i++) {
    const Word16 d = sub(hf[i - 1 - maxCorr], hf[i - 2 - maxCorr]);
    hf[i] = add(hf[i - 1], d);
  }

  Word16 tmp = sub(hf[2], add(hf[4], hf[3]));
  tmp = add(mult(tmp, 5461), 20390);
  if (tmp > 19456) tmp = 19456;
  tmp = sub(tmp, hf[M - 2]);
  Word16 tmp2 = sub(hf[MH - 2], hf[M - 2]);
  const Word16 exp2 = norm_s(tmp2);
  exp = sub(norm_s(tmp), 1);
  tmp = shl(tmp, exp);
  tmp2 = shl(tmp2, exp2);
  const Word16 coeff = div_s(tmp, tmp2);
  exp = sub(exp2, exp);

  for (int i = M - 1; i < MH - 1; i++) {
    diff[i - (M - 1)] = shl(mult(sub(hf[i], hf[i - 1]), coeff), exp);
  }
  for (int i = M; i < MH - 1; i++) {
    const Word16 s = sub(add(diff[i - (M - 1)], diff[i - M]), 1280);
    if (s < 0) {
      if (diff[i - (M - 1)] > diff[i - M]) {
        diff[i - M] = sub(1280, diff[i - (M - 1)]);
      } else {
        diff[i - (M - 1)] = sub(1280, diff[i - M]);
      }
    }
  }
  for (int i = M - 1; i < MH - 1; i++) hf[i] = add(hf[i - 1], diff[i - (M - 1)]);
  for (int i = 0; i < MH - 1; i++) hf[i] = mult(hf[i], 26214);
  isfToIsp(hf, hf, MH);
}

}  // namespace quillon::amrwb
