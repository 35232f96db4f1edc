// Annex B in the encoder: the voice activity decision, the tracking of the
// background spectrum and level, the choice between a SID frame and no
// transmission, SID quantisation, and the comfort-noise excitation that
// keeps the encoder's memories in step with the decoder's.
#include <cstring>

#include "engines/g729/encoder.h"
#include "engines/g729/tables.h"

namespace quillon::g729a {

namespace {
constexpr int kCurAcf = 2;  // frames summed into the current autocorrelation
constexpr int kSumAcf = 3;  // sums kept for the past filter
constexpr Word16 kMinSidInterval = 3;
constexpr Word16 kFracThresh1 = 4855;
constexpr Word16 kFracThresh2 = 3161;
constexpr Word16 kCngGainKeep = 28672;
constexpr Word16 kCngGainNew = 4096;
constexpr Word16 kLsfLow = 40, kLsfHigh = 25681, kLsfGap = 321;
constexpr int kCandidates = 4;  // first-stage survivors of the SID LSF search
}  // namespace

void Encoder::packSid(const Word16 sid[4], uint8_t out[kSidBytes]) {
  const unsigned bits = static_cast<unsigned>((sid[0] & 1) << 15 | (sid[1] & 31) << 10 | (sid[2] & 15) << 6 |
                                              (sid[3] & 31) << 1);
  out[0] = static_cast<uint8_t>(bits >> 8);
  out[1] = static_cast<uint8_t>(bits);
}

bool Encoder::detectVoice(const Word16* rh, const Word16* rl, Word16 expR0, const Word16* rawHi, Word16 rc1,
                          const Word16* lspNew) {
  Word16 lsf[kOrder];
  lspToNormalisedLsf(lspNew, lsf);
  const bool voice = m_vad.decide(rc1, lsf, rh, rl, expR0, m_speech, m_frameCount, m_pastVad, m_ppastVad);
  updateCngAcf(rawHi, expR0, voice);
  return voice;
}

void Encoder::updateCngAcf(const Word16* rh, Word16 expR0, bool voice) {
  std::memmove(m_acf + kOrder1, m_acf, kOrder1 * sizeof(Word16));
  m_shAcf[1] = m_shAcf[0];
  m_shAcf[0] = negate(add(16, expR0));
  std::memcpy(m_acf, rh, kOrder1 * sizeof(Word16));
  m_frCur = add(m_frCur, 1);
  if (m_frCur == kCurAcf) {
    m_frCur = 0;
    if (voice) updateSumAcf();
  }
}

void Encoder::sumAcf(const Word16* acf, const Word16* shAcf, Word16* sum, Word16& shSum, int n) {
  Word16 sh0 = shAcf[0];
  for (int i = 1; i < n; i++)
    if (shAcf[i] < sh0) sh0 = shAcf[i];
  sh0 = add(sh0, 14);  // two bits of margin
  Word32 tab[kOrder1] = {};
  for (int i = 0; i < n; i++) {
    const Word16 s = sub(sh0, shAcf[i]);
    for (int j = 0; j < kOrder1; j++) tab[j] = L_add(tab[j], L_shl(L_deposit_l(acf[i * kOrder1 + j]), s));
  }
  const Word16 norm = norm_l(tab[0]);
  for (int j = 0; j < kOrder1; j++) sum[j] = extract_h(L_shl(tab[j], norm));
  shSum = add(sh0, sub(norm, 16));
}

void Encoder::updateSumAcf() {
  std::memmove(m_sumAcf + kOrder1, m_sumAcf, (kSumAcf - 1) * kOrder1 * sizeof(Word16));
  for (int i = kSumAcf - 1; i >= 1; i--) m_shSumAcf[i] = m_shSumAcf[i - 1];
  sumAcf(m_acf, m_shAcf, m_sumAcf, m_shSumAcf[0], kCurAcf);
}

void Encoder::pastFilter(Word16* coeff) {
  Word16 s[kOrder1], sh;
  sumAcf(m_sumAcf, m_shSumAcf, s, sh, kSumAcf);
  if (s[0] == 0) {
    coeff[0] = 4096;
    for (int i = 1; i <= kOrder; i++) coeff[i] = 0;
    return;
  }
  const Word16 zero[kOrder1] = {};
  Word16 rc[2], err;
  levinson(s, zero, coeff, rc, &err);
}

void Encoder::filterAutocorrelation(const Word16* coeff, Word16* r, Word16& sh) {
  Word32 acc = 0;
  for (int j = 0; j <= kOrder; j++) acc = L_mac(acc, coeff[j], coeff[j]);
  sh = norm_l(acc);
  r[0] = round(L_shl(acc, sh));
  for (int i = 1; i <= kOrder; i++) {
    acc = 0;
    for (int j = 0; j <= kOrder - i; j++) acc = L_mac(acc, coeff[j], coeff[j + i]);
    r[i] = round(L_shl(acc, sh));
  }
}

bool Encoder::filterChanged(const Word16* r, Word16 shR, const Word16* acf, Word16 alpha, Word16 thresh) {
  // Itakura distance of the filter r on the spectrum acf against the
  // residual energy alpha, with the products scaled down until they fit.
  Word16 sh[2] = {0, 0};
  int which = 1;
  Word32 dist;
  for (;;) {
    Overflow = false;
    dist = L_shr(L_mult(shr(r[0], sh[0]), shr(acf[0], sh[1])), 1);
    for (int i = 1; i <= kOrder; i++) dist = L_mac(dist, shr(r[i], sh[0]), shr(acf[i], sh[1]));
    if (!Overflow) break;
    sh[which] = add(sh[which], 1);
    which = 1 - which;
  }
  Word32 limit = L_add(L_deposit_l(mult_r(alpha, thresh)), L_deposit_l(alpha));
  limit = L_shl(limit, sub(add(shR, 9), add(sh[0], sh[1])));
  return L_sub(dist, limit) > 0;
}

void Encoder::sidLsfQuantise(const Word16* lsp, Word16* lspQ, Word16* idx) {
  Word16 lsf[kOrder];
  lspToLsf(lsp, lsf);
  if (lsf[0] < kLsfLow) lsf[0] = kLsfLow;
  for (int i = 0; i < kOrder - 1; i++)
    if (sub(lsf[i + 1], lsf[i]) < 2 * kLsfGap) lsf[i + 1] = add(lsf[i], 2 * kLsfGap);
  if (lsf[kOrder - 1] > kLsfHigh) lsf[kOrder - 1] = kLsfHigh;
  if (lsf[kOrder - 1] < lsf[kOrder - 2]) lsf[kOrder - 2] = sub(lsf[kOrder - 1], kLsfGap);
  Word16 wegt[kOrder];
  lsfWeights(lsf, wegt);

  const auto& np = tab::noisePredictors();
  Word16 err[2][kOrder];
  for (int mode = 0; mode < 2; mode++) lspExtract(lsf, err[mode], np.fg[mode], tab::kNoiseFgSumInv[mode], m_lsfMem);

  // First stage: the four best (predictor, entry) pairs by weighted plain
  // distance; second stage: the best split entry over those survivors.
  Word16 sum1[2 * 32];
  for (int p = 0; p < 2; p++) {
    for (int m = 0; m < 32; m++) {
      const Word16* cb = tab::kLspStage1[tab::kSidStage1[m]];
      Word32 acc = 0;
      for (int l = 0; l < kOrder; l++) {
        const Word16 t = sub(err[p][l], cb[l]);
        acc = L_mac(acc, t, t);
      }
      sum1[p * 32 + m] = mult(extract_h(acc), tab::kSidLsfStage1Weight[p]);
    }
  }
  Word16 candP[kCandidates], candM[kCandidates], resid[kCandidates][kOrder];
  for (int q = 0; q < kCandidates; q++) {
    Word16 min = fx::MAX_16;
    candP[q] = 0;
    candM[q] = 0;
    for (int p = 0; p < 2; p++)
      for (int m = 0; m < 32; m++)
        if (sub(sum1[p * 32 + m], min) < 0) {
          min = sum1[p * 32 + m];
          candP[q] = static_cast<Word16>(p);
          candM[q] = static_cast<Word16>(m);
        }
    sum1[candP[q] * 32 + candM[q]] = fx::MAX_16;
  }
  for (int q = 0; q < kCandidates; q++) {
    const Word16* cb = tab::kLspStage1[tab::kSidStage1[candM[q]]];
    for (int l = 0; l < kOrder; l++) resid[q][l] = sub(err[candP[q]][l], cb[l]);
  }
  Word16 best = fx::MAX_16;
  int bestQ = 0, bestM = 0;
  for (int q = 0; q < kCandidates; q++) {
    const Word16* fgSum = tab::kNoiseFgSum[candP[q]];
    for (int m = 0; m < 16; m++) {
      Word32 acc = 0;
      for (int l = 0; l < kOrder; l++) {
        const Word16* cb2 = tab::kLspStage2[tab::kSidStage2[l < kOrder / 2 ? 0 : 1][m]];
        Word16 w = extract_h(L_shl(L_mult(fgSum[l], fgSum[l]), 2));
        w = mult(w, wegt[l]);
        const Word16 d = sub(resid[q][l], cb2[l]);
        w = extract_h(L_shl(L_mult(w, d), 3));
        acc = L_mac(acc, w, d);
      }
      const Word16 s = extract_h(acc);
      if (sub(s, best) < 0) {
        best = s;
        bestQ = q;
        bestM = m;
      }
    }
  }
  const int mode = candP[bestQ];
  idx[0] = static_cast<Word16>(mode);
  idx[1] = candM[bestQ];
  idx[2] = static_cast<Word16>(bestM);

  Word16 buf[kOrder];
  const Word16* cb1 = tab::kLspStage1[tab::kSidStage1[idx[1]]];
  for (int l = 0; l < kOrder; l++) buf[l] = cb1[l];
  for (int l = 0; l < kOrder / 2; l++) buf[l] = add(buf[l], tab::kLspStage2[tab::kSidStage2[0][bestM]][l]);
  for (int l = kOrder / 2; l < kOrder; l++) buf[l] = add(buf[l], tab::kLspStage2[tab::kSidStage2[1][bestM]][l]);
  lspExpand(buf, 10, 1, kOrder);
  Word16 lsfQ[kOrder];
  lspCompose(buf, lsfQ, np.fg[mode], m_lsfMem, tab::kNoiseFgSum[mode]);
  lspShiftMemory(buf, m_lsfMem);
  lspStabilise(lsfQ);
  lsfToLsp(lsfQ, lspQ);
}

int Encoder::codeComfortNoise(Word16* sid, Word16* aq) {
  m_ener[1] = m_ener[0];
  m_shEner[1] = m_shEner[0];
  Word16 curAcf[kOrder1], curCoeff[kOrder1];
  sumAcf(m_acf, m_shAcf, curAcf, m_shEner[0], kCurAcf);
  if (curAcf[0] == 0) {
    m_ener[0] = 0;
  } else {
    const Word16 zero[kOrder1] = {};
    Word16 rc[2];
    levinson(curAcf, zero, curCoeff, rc, &m_ener[0]);
  }

  int type;
  Word16 energyQ, gainIndex;
  if (m_pastVad) {
    type = 2;
    m_countFr0 = 0;
    m_nbEner = 1;
    gainIndex = quantiseSidGain(m_ener, m_shEner, m_nbEner, energyQ);
  } else {
    m_nbEner = add(m_nbEner, 1);
    if (m_nbEner > 2) m_nbEner = 2;
    gainIndex = quantiseSidGain(m_ener, m_shEner, m_nbEner, energyQ);
    if (filterChanged(m_rCoeff, m_shRCoeff, curAcf, m_ener[0], kFracThresh1)) m_flagChange = true;
    if (sub(abs_s(sub(m_prevEnergyQ, energyQ)), 2) > 0) m_flagChange = true;
    m_countFr0 = add(m_countFr0, 1);
    if (m_countFr0 < kMinSidInterval) {
      type = 0;
    } else {
      type = m_flagChange ? 2 : 0;
      m_countFr0 = kMinSidInterval;
    }
  }

  if (type == 2) {
    m_countFr0 = 0;
    m_flagChange = false;
    pastFilter(m_pastCoeff);
    filterAutocorrelation(m_pastCoeff, m_rCoeff, m_shRCoeff);
    const Word16* lpc;
    if (!filterChanged(m_rCoeff, m_shRCoeff, curAcf, m_ener[0], kFracThresh2)) {
      lpc = m_pastCoeff;
    } else {
      lpc = curCoeff;
      filterAutocorrelation(curCoeff, m_rCoeff, m_shRCoeff);
    }
    Word16 lspNew[kOrder];
    azToLsp(lpc, lspNew, m_lspOldQ);
    sidLsfQuantise(lspNew, m_lspSidQ, sid);
    m_prevEnergyQ = energyQ;
    sid[3] = gainIndex;
    m_sidGain = tab::kSidGain[gainIndex];
  }

  if (m_pastVad) {
    m_cngGain = m_sidGain;
  } else {
    m_cngGain = add(mult_r(m_cngGain, kCngGainKeep), mult_r(m_sidGain, kCngGainNew));
  }
  Word16 gp[2], lag[2];
  comfortExcitation(m_cngGain, m_excBuf + kPitchMax + kInterpLen, m_cngSeed, gp, lag);
  for (int sf = 0; sf < 2; sf++) updateTaming(gp[sf], lag[sf]);

  interpolateAz(m_lspOldQ, m_lspSidQ, aq);
  std::memcpy(m_lspOldQ, m_lspSidQ, sizeof m_lspOldQ);
  if (m_frCur == 0) updateSumAcf();
  return type;
}

}  // namespace quillon::g729a
