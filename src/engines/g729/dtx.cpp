// Annex B stages shared by the decoder and the encoder: comfort-noise
// excitation, SID gain quantisation and SID LSF decoding.
#include <cstring>

#include "engines/g729/dsp.h"
#include "engines/g729/tables.h"

namespace quillon::g729a {

namespace {
constexpr Word16 kFrac1 = 19043;  // sqrt(40) x 0.5 / 2 - 1, Q15
constexpr Word16 kOneMinusAlpha2 = 24576;  // 1 - 0.5^2, Q15
constexpr Word16 kMaxPulseGain = 5000;
constexpr Word16 kSidEnergyFactor[3] = {410, 26, 13};
constexpr Word16 kSidEnergyMargin[3] = {0, 0, 1};
}  // namespace

Word16 Dsp::gauss(Word16& seed) {
  // Sum of 12 uniform values: approximately normal, scaled to 2^12.
  Word32 acc = 0;
  for (int i = 0; i < 12; i++) acc = L_add(acc, L_deposit_l(random(seed)));
  return extract_l(L_shr(acc, 7));
}

Word16 Dsp::sqrtHalf(Word32 num) {
  Word16 root = 0, bit = 0x4000;
  for (int i = 0; i < 14; i++) {
    const Word16 t = add(root, bit);
    if (L_sub(num, L_mult(t, t)) >= 0) root = t;
    bit = shr(bit, 1);
  }
  return root;
}

void Dsp::comfortExcitation(Word16 gain, Word16* exc, Word16& seed, Word16 pitchGain[2], Word16 lag[2]) {
  if (gain == 0) {
    std::memset(exc, 0, kFrame * sizeof(Word16));
    pitchGain[0] = pitchGain[1] = 0;
    lag[0] = lag[1] = kSubframe + 1;
    return;
  }
  for (int sf = 0; sf < 2; sf++) {
    Word16* cur = exc + sf * kSubframe;
    // Random lag, fraction, pulse positions and signs.
    Word16 pos[4], sign[4];
    Word16 r = random(seed);
    Word16 frac = sub(static_cast<Word16>(r & 3), 1);
    if (frac == 2) frac = 0;
    r = shr(r, 2);
    const Word16 t0 = add(static_cast<Word16>(r & 0x3f), 40);
    r = shr(r, 6);
    Word16 v = static_cast<Word16>(r & 7);
    pos[0] = add(shl(v, 2), v);
    r = shr(r, 3);
    sign[0] = static_cast<Word16>(r & 1);
    r = shr(r, 1);
    v = static_cast<Word16>(r & 7);
    pos[1] = add(add(shl(v, 2), v), 1);
    r = shr(r, 3);
    sign[1] = static_cast<Word16>(r & 1);
    r = random(seed);
    v = static_cast<Word16>(r & 7);
    pos[2] = add(add(shl(v, 2), v), 2);
    r = shr(r, 3);
    sign[2] = static_cast<Word16>(r & 1);
    r = shr(r, 1);
    v = static_cast<Word16>(r & 0xf);
    pos[3] = add(static_cast<Word16>(v & 1), 3);
    v = static_cast<Word16>(shr(v, 1) & 7);
    pos[3] = add(pos[3], add(shl(v, 2), v));
    r = shr(r, 4);
    sign[3] = static_cast<Word16>(r & 1);
    Word16 gp = static_cast<Word16>(random(seed) & 0x1fff);  // below 0.5, Q14
    const Word16 gp2 = shl(gp, 1);

    // Gaussian excitation scaled to 0.5 x gain x sqrt(40 / energy).
    Word16 excg[kSubframe], excs[kSubframe];
    Word32 acc = 0;
    for (int i = 0; i < kSubframe; i++) {
      const Word16 g = gauss(seed);
      acc = L_mac(acc, g, g);
      excg[i] = g;
    }
    acc = invSqrt(L_shr(acc, 1));
    Word16 hi, lo;
    L_Extract(acc, hi, lo);
    Word16 t = add(gain, mult_r(gain, kFrac1));
    acc = Mpy_32_16(hi, lo, t);
    Word16 sh = norm_l(acc);
    t = extract_h(L_shl(acc, sh));
    sh = sub(sh, 14);
    for (int i = 0; i < kSubframe; i++) excg[i] = shr_r(mult_r(excg[i], t), sh);

    // Adaptive part plus Gaussian part.
    predictLongTerm(cur, t0, frac, kSubframe);
    Word16 max = 0;
    for (int i = 0; i < kSubframe; i++) {
      const Word16 s = add(mult_r(cur[i], gp2), excg[i]);
      cur[i] = s;
      const Word16 a = abs_s(s);
      if (a > max) max = a;
    }
    if (max == 0) {
      sh = 0;
    } else {
      sh = sub(3, norm_s(max));
      if (sh <= 0) sh = 0;
    }
    for (int i = 0; i < kSubframe; i++) excs[i] = shr(cur[i], sh);

    // Pulse gain x from 4 x^2 + 2 b x + c = 0 so that the frame reaches
    // the target energy.
    Word32 ener = 0;
    for (int i = 0; i < kSubframe; i++) ener = L_mac(ener, excs[i], excs[i]);
    Word16 inter = 0;
    for (int i = 0; i < 4; i++) inter = sign[i] == 0 ? sub(inter, excs[pos[i]]) : add(inter, excs[pos[i]]);
    acc = L_shr(L_mult(gain, kSubframe), 6);
    const Word32 k = L_mult(gain, extract_l(acc));
    acc = L_shr(k, add(1, shl(sh, 1)));
    acc = L_sub(acc, ener);
    inter = shr(inter, 1);
    acc = L_mac(acc, inter, inter);
    sh = add(sh, 1);
    if (acc < 0) {
      // No adaptive part: Gaussian excitation and pulses only.
      std::memcpy(cur, excg, sizeof excg);
      Word16 bits = static_cast<Word16>(abs_s(excg[pos[0]]) | abs_s(excg[pos[1]]));
      bits = static_cast<Word16>(bits | abs_s(excg[pos[2]]) | abs_s(excg[pos[3]]));
      sh = (bits & 0x4000) == 0 ? Word16{1} : Word16{2};
      inter = 0;
      for (int i = 0; i < 4; i++) {
        const Word16 e = shr(excg[pos[i]], sh);
        inter = sign[i] == 0 ? sub(inter, e) : add(inter, e);
      }
      L_Extract(k, hi, lo);
      acc = Mpy_32_16(hi, lo, kOneMinusAlpha2);
      acc = L_shr(acc, sub(shl(sh, 1), 1));
      acc = L_mac(acc, inter, inter);
      gp = 0;
    }
    const Word16 root = sqrtHalf(acc);
    Word16 x1 = sub(root, inter);
    const Word16 x2 = negate(add(inter, root));
    if (sub(abs_s(x2), abs_s(x1)) < 0) x1 = x2;
    Word16 g = shr_r(x1, sub(2, sh));
    if (g >= 0) {
      if (g > kMaxPulseGain) g = kMaxPulseGain;
    } else if (add(g, kMaxPulseGain) < 0) {
      g = negate(kMaxPulseGain);
    }
    for (int i = 0; i < 4; i++) cur[pos[i]] = sign[i] != 0 ? add(cur[pos[i]], g) : sub(cur[pos[i]], g);
    pitchGain[sf] = gp;
    lag[sf] = t0;
  }
}

Word16 Dsp::quantiseSidGain(const Word16* ener, const Word16* shEner, int n, Word16& enerq) {
  Word32 x;
  Word16 sh1;
  Word16 hi, lo;
  if (n == 0) {
    x = L_shl(L_deposit_l(ener[0]), shEner[0]);
    L_Extract(x, hi, lo);
    x = Mpy_32_16(hi, lo, kSidEnergyFactor[0]);
    sh1 = 0;
  } else {
    sh1 = shEner[0];
    for (int i = 1; i < n; i++)
      if (shEner[i] < sh1) sh1 = shEner[i];
    sh1 = add(sh1, static_cast<Word16>(16 - kSidEnergyMargin[n]));
    x = 0;
    for (int i = 0; i < n; i++) x = L_add(x, L_shl(L_deposit_l(ener[i]), sub(sh1, shEner[i])));
    L_Extract(x, hi, lo);
    x = Mpy_32_16(hi, lo, kSidEnergyFactor[n]);
  }
  // Energy in dB, quantised on 32 levels.
  Word16 exp, frac;
  log2(x, exp, frac);
  Word16 e = add(shl(sub(exp, sh1), 10), mult_r(frac, 1024));
  if (sub(e, -2721) <= 0) {  // below -8 dB
    enerq = -12;
    return 0;
  }
  if (sub(e, 22111) > 0) {  // above 65 dB
    enerq = 66;
    return 31;
  }
  Word16 index;
  if (sub(e, 4762) <= 0) {  // up to 14 dB: 4 dB steps
    e = add(e, 3401);
    index = mult(e, 24);
    if (index < 1) index = 1;
    enerq = sub(shl(index, 2), 8);
    return index;
  }
  e = sub(e, 340);  // 2 dB steps
  index = sub(shr(mult(e, 193), 2), 1);
  if (index < 6) index = 6;
  enerq = add(shl(index, 1), 4);
  return index;
}

void Dsp::sidLsfDecode(const Word16* idx, Word16* lsp, Word16 (*mem)[kOrder]) {
  Word16 buf[kOrder], lsf[kOrder];
  const int c1 = tab::kSidStage1[idx[1]];
  for (int j = 0; j < kOrder; j++) buf[j] = tab::kLspStage1[c1][j];
  for (int j = 0; j < kOrder / 2; j++) buf[j] = add(buf[j], tab::kLspStage2[tab::kSidStage2[0][idx[2]]][j]);
  for (int j = kOrder / 2; j < kOrder; j++) buf[j] = add(buf[j], tab::kLspStage2[tab::kSidStage2[1][idx[2]]][j]);
  lspExpand(buf, 10, 1, kOrder);
  const auto& np = tab::noisePredictors();
  lspCompose(buf, lsf, np.fg[idx[0]], mem, tab::kNoiseFgSum[idx[0]]);
  lspShiftMemory(buf, mem);
  lspStabilise(lsf);
  lsfToLsp(lsf, lsp);
}

}  // namespace quillon::g729a
