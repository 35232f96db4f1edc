// AMR-WB encoder: voice activity detection (12-band filter bank with
// adaptive noise estimate and hangover) and the transmit side of
// discontinuous transmission (hangover handling, parameter history, SID
// parameters and the comfort-noise excitation).
#include <cstring>

#include "engines/amrwb/amrwb_encoder.h"
#include "engines/amrwb/amrwb_tables.h"

namespace quillon::amrwb {

namespace {

constexpr int kBands = 12;
constexpr int kVadFrame = 256;
constexpr Word16 kToneThr = 21298;
constexpr Word16 kAlphaSp = 4915;
constexpr Word16 kNomLevel = 2050;
constexpr Word16 kMinSpeechLevel1 = 129;
constexpr Word16 kMinSpeechLevel2 = 410;
constexpr Word16 kMinSpeechSnr = 4096;
constexpr Word16 kAlphaUp1 = 1638, kAlphaDown1 = 2097, kAlphaUp2 = 491, kAlphaDown2 = 1867;
constexpr Word16 kAlpha3 = 1638, kAlpha4 = 3276, kAlpha5 = 16383;
constexpr Word16 kThrMin = 204, kThrHigh = 768, kThrLow = 217;
constexpr Word16 kNoP1 = 31744, kNoSlope = 1509;
constexpr Word16 kSpChMin = -96, kSpChMax = 96, kSpP1 = 22527, kSpSlope = -1339;
constexpr Word16 kHangHigh = 12, kHangLow = 2, kHangP1 = kThrLow, kHangSlope = -1110;
constexpr Word16 kBurstHigh = 8, kBurstP1 = kThrHigh, kBurstSlope = 297;
constexpr Word16 kStatCount = 20, kStatThrLevel = 184, kStatThr = 1000;
constexpr Word16 kNoiseMin = 40, kNoiseMax = 20000, kNoiseInit = 150;
constexpr Word32 kVadPowLow = 30000;
constexpr Word32 kPowToneThr = 686080;
constexpr Word16 kCoeff3 = 13363, kCoeff51 = 21955, kCoeff52 = 6390;

constexpr int kHangConst = 7;
constexpr int kElapsedThresh = 24 + 7 - 1;
constexpr Word16 kInvMedThresh = 14564;
constexpr Word16 kGainThr = 180;
constexpr Word16 kEnergyAdjust[9] = {230, 179, 141, 128, 122, 115, 115, 115, 115};

}  // namespace

// ---- voice activity detection ----------------------------------------------

void Encoder::vadReset() {
  Vad& v = vad_;
  std::memset(&v, 0, sizeof v);
  for (int i = 0; i < kBands; i++) {
    v.bckrEst[i] = kNoiseInit;
    v.oldLevel[i] = kNoiseInit;
    v.aveLevel[i] = kNoiseInit;
  }
  v.speechLevel = kNomLevel;
}

void Encoder::vadTone(Word16 gain) {
  vad_.toneFlag = shr(vad_.toneFlag, 1);
  if (gain > kToneThr) vad_.toneFlag = static_cast<Word16>(vad_.toneFlag | 0x4000);
}

Word16 Encoder::vadLog2(Word16 mant) {
  if (mant <= 0) mant = 1;
  const Word16 ex = norm_s(mant);
  mant = shl(mant, ex);
  for (int i = 0; i < 3; i++) mant = mult(mant, mant);
  const Word32 t = L_mult(mant, mant);
  const Word16 ex2 = norm_l(t);
  mant = extract_h(L_shl(t, ex2));
  Word16 res = shl(add(ex, 16), 10);
  res = add(res, shl(ex2, 6));
  return sub(add(res, 127), shr(mant, 8));
}

void Encoder::vadFilterBank(const Word16* in, Word16* level) {
  Word16 buf[kVadFrame];
  for (int i = 0; i < kVadFrame; i++) buf[i] = shr(in[i], 1);
  // Two-channel splits: 5th order (two all-pass sections) or 3rd order.
  auto split5 = [&](Word16& in0, Word16& in1, Word16* d) {
    Word16 t0 = sub(in0, mult(kCoeff51, d[0]));
    const Word16 t1 = add(d[0], mult(kCoeff51, t0));
    d[0] = t0;
    t0 = sub(in1, mult(kCoeff52, d[1]));
    const Word16 t2 = add(d[1], mult(kCoeff52, t0));
    d[1] = t0;
    in0 = extract_h(L_shl(L_add(t1, t2), 15));
    in1 = extract_h(L_shl(L_sub(t1, t2), 15));
  };
  auto split3 = [&](Word16& in0, Word16& in1, Word16& d) {
    const Word16 t1 = sub(in1, mult(kCoeff3, d));
    const Word16 t2 = add(d, mult(kCoeff3, t1));
    d = t1;
    in1 = extract_h(L_shl(L_sub(in0, t2), 15));
    in0 = extract_h(L_shl(L_add(in0, t2), 15));
  };
  Vad& v = vad_;
  for (int i = 0; i < kVadFrame / 2; i++) split5(buf[2 * i], buf[2 * i + 1], v.data5[0]);
  for (int i = 0; i < kVadFrame / 4; i++) {
    split5(buf[4 * i], buf[4 * i + 2], v.data5[1]);
    split5(buf[4 * i + 1], buf[4 * i + 3], v.data5[2]);
  }
  for (int i = 0; i < kVadFrame / 8; i++) {
    split5(buf[8 * i], buf[8 * i + 4], v.data5[3]);
    split5(buf[8 * i + 2], buf[8 * i + 6], v.data5[4]);
    split3(buf[8 * i + 3], buf[8 * i + 7], v.data3[0]);
  }
  for (int i = 0; i < kVadFrame / 16; i++) {
    split3(buf[16 * i], buf[16 * i + 8], v.data3[1]);
    split3(buf[16 * i + 4], buf[16 * i + 12], v.data3[2]);
    split3(buf[16 * i + 6], buf[16 * i + 14], v.data3[3]);
  }
  for (int i = 0; i < kVadFrame / 32; i++) {
    split3(buf[32 * i], buf[32 * i + 16], v.data3[4]);
    split3(buf[32 * i + 8], buf[32 * i + 24], v.data3[5]);
  }
  // Band levels: this frame's samples plus the look-back part kept from
  // the previous frame.
  auto bandLevel = [&](int band, int count1, int count2, int step, int first, Word16 scl) {
    Word32 t1 = 0;
    for (int i = count1; i < count2; i++) t1 = L_mac(t1, 1, abs_s(buf[step * i + first]));
    Word32 t2 = L_add(t1, L_shl(v.subLevel[band], sub(16, scl)));
    v.subLevel[band] = extract_h(L_shl(t1, scl));
    for (int i = 0; i < count1; i++) t2 = L_mac(t2, 1, abs_s(buf[step * i + first]));
    level[band] = extract_h(L_shl(t2, scl));
  };
  bandLevel(11, kVadFrame / 4 - 48, kVadFrame / 4, 4, 1, 14);
  bandLevel(10, kVadFrame / 8 - 24, kVadFrame / 8, 8, 7, 15);
  bandLevel(9, kVadFrame / 8 - 24, kVadFrame / 8, 8, 3, 15);
  bandLevel(8, kVadFrame / 8 - 24, kVadFrame / 8, 8, 2, 15);
  bandLevel(7, kVadFrame / 16 - 12, kVadFrame / 16, 16, 14, 16);
  bandLevel(6, kVadFrame / 16 - 12, kVadFrame / 16, 16, 6, 16);
  bandLevel(5, kVadFrame / 16 - 12, kVadFrame / 16, 16, 4, 16);
  bandLevel(4, kVadFrame / 16 - 12, kVadFrame / 16, 16, 12, 16);
  bandLevel(3, kVadFrame / 32 - 6, kVadFrame / 32, 32, 8, 17);
  bandLevel(2, kVadFrame / 32 - 6, kVadFrame / 32, 32, 24, 17);
  bandLevel(1, kVadFrame / 32 - 6, kVadFrame / 32, 32, 16, 17);
  bandLevel(0, kVadFrame / 32 - 6, kVadFrame / 32, 32, 0, 17);
}

// Background noise estimate update, slowed down while the spectrum is
// stationary (or a tone is present).
void Encoder::vadNoiseUpdate(const Word16* level) {
  Vad& v = vad_;
  if ((v.toneFlag & 0x7c00) == 0x7c00) {
    v.statCount = kStatCount;
  } else if ((v.vadReg & 0x7f80) == 0) {
    v.statCount = kStatCount;
  } else {
    Word16 statRat = 0;
    for (int i = 0; i < kBands; i++) {
      Word16 num, den;
      if (level[i] > v.aveLevel[i]) {
        num = level[i];
        den = v.aveLevel[i];
      } else {
        num = v.aveLevel[i];
        den = level[i];
      }
      if (num < kStatThrLevel) num = kStatThrLevel;
      if (den < kStatThrLevel) den = kStatThrLevel;
      const Word16 e = norm_s(den);
      den = shl(den, e);
      const Word16 t = div_s(shr(num, 1), den);
      statRat = add(statRat, shr(t, sub(8, e)));
    }
    if (statRat > kStatThr) {
      v.statCount = kStatCount;
    } else if ((v.vadReg & 0x4000) != 0 && v.statCount != 0) {
      v.statCount = sub(v.statCount, 1);
    }
  }
  Word16 alpha = kAlpha4;
  if (v.statCount == kStatCount) {
    alpha = 32767;
  } else if ((v.vadReg & 0x4000) == 0) {
    alpha = kAlpha5;
  }
  for (int i = 0; i < kBands; i++) {
    v.aveLevel[i] = add(v.aveLevel[i], mult_r(alpha, sub(level[i], v.aveLevel[i])));
  }

  Word16 up, down, bckrAdd = 2;
  if ((0x7800 & v.vadReg) == 0) {
    up = kAlphaUp1;
    down = kAlphaDown1;
  } else if (v.statCount == 0) {
    up = kAlphaUp2;
    down = kAlphaDown2;
  } else {
    up = 0;
    down = kAlpha3;
    bckrAdd = 0;
  }
  for (int i = 0; i < kBands; i++) {
    const Word16 t = sub(v.oldLevel[i], v.bckrEst[i]);
    if (t < 0) {
      v.bckrEst[i] = add(-2, add(v.bckrEst[i], mult_r(down, t)));
      if (v.bckrEst[i] < kNoiseMin) v.bckrEst[i] = kNoiseMin;
    } else {
      v.bckrEst[i] = add(bckrAdd, add(v.bckrEst[i], mult_r(up, t)));
      if (v.bckrEst[i] > kNoiseMax) v.bckrEst[i] = kNoiseMax;
    }
  }
  std::memcpy(v.oldLevel, level, sizeof v.oldLevel);
}

Word16 Encoder::vadDecision(const Word16* level, Word32 powSum) {
  Vad& v = vad_;
  Word32 snrSum = 0;
  for (int i = 0; i < kBands; i++) {
    const Word16 e = norm_s(v.bckrEst[i]);
    Word16 t = shl(v.bckrEst[i], e);
    t = div_s(shr(level[i], 1), t);
    t = shl(t, sub(e, 7 - 1));
    snrSum = L_mac(snrSum, t, t);
  }
  Word32 lt = 0;
  for (int i = 1; i < kBands; i++) lt = L_add(lt, v.bckrEst[i]);
  const Word16 noiseLevel = extract_h(L_shl(lt, 12));
  Word16 t = shl(mult(noiseLevel, kMinSpeechSnr), 3);
  if (v.speechLevel < t) v.speechLevel = t;
  const Word16 logNoise = vadLog2(noiseLevel);
  const Word16 logSpeech = vadLog2(sub(v.speechLevel, t));
  t = add(mult(kNoSlope, sub(logNoise, kNoP1)), kThrHigh);
  Word16 t2 = add(kSpChMin, mult(kSpSlope, sub(logSpeech, kSpP1)));
  if (t2 < kSpChMin) t2 = kSpChMin;
  if (t2 > kSpChMax) t2 = kSpChMax;
  Word16 thr = add(t, t2);
  if (thr < kThrMin) thr = kThrMin;

  v.vadReg = shr(v.vadReg, 1);
  if (snrSum > L_mult(thr, 512 * kBands)) v.vadReg = static_cast<Word16>(v.vadReg | 0x4000);
  const bool lowPower = powSum < kVadPowLow;
  vadNoiseUpdate(level);

  Word16 hangLen = add(mult(kHangSlope, sub(thr, kHangP1)), kHangHigh);
  if (hangLen < kHangLow) hangLen = kHangLow;
  const Word16 burstLen = add(mult(kBurstSlope, sub(thr, kBurstP1)), kBurstHigh);

  if (lowPower) {
    v.burstCount = 0;
    v.hangCount = 0;
    return 0;
  }
  if ((v.vadReg & 0x4000) != 0) {
    v.burstCount = add(v.burstCount, 1);
    if (v.burstCount >= burstLen) v.hangCount = hangLen;
    return 1;
  }
  v.burstCount = 0;
  if (v.hangCount > 0) {
    v.hangCount = sub(v.hangCount, 1);
    return 1;
  }
  return 0;
}

void Encoder::vadSpeechEstimate(Word16 inLevel) {
  Vad& v = vad_;
  if (sub(sub(v.spEstCount, v.spMaxCount), 80 - 25) > 0) {
    v.spEstCount = 0;
    v.spMax = 0;
    v.spMaxCount = 0;
  }
  v.spEstCount = add(v.spEstCount, 1);
  if (((v.vadReg & 0x4000) != 0 || inLevel > v.speechLevel) && inLevel > kMinSpeechLevel1) {
    if (inLevel > v.spMax) v.spMax = inLevel;
    v.spMaxCount = add(v.spMaxCount, 1);
    if (v.spMaxCount >= 25) {
      const Word16 t = shr(v.spMax, 1);
      if (t > kMinSpeechLevel2) v.speechLevel = add(v.speechLevel, mult_r(kAlphaSp, sub(t, v.speechLevel)));
      v.spMax = 0;
      v.spMaxCount = 0;
      v.spEstCount = 0;
    }
  }
}

Word16 Encoder::vadDecide(const Word16* in) {
  Vad& v = vad_;
  Word32 t = 0;
  for (int i = 0; i < kVadFrame; i++) t = L_mac(t, in[i], in[i]);
  const Word32 powSum = L_add(t, v.prevPowSum);
  v.prevPowSum = t;
  if (powSum < kPowToneThr) v.toneFlag = static_cast<Word16>(v.toneFlag & 0x1fff);
  Word16 level[kBands];
  vadFilterBank(in, level);
  const Word16 flag = vadDecision(level, powSum);
  t = 0;
  for (int i = 1; i < kBands; i++) t = L_add(t, level[i]);
  vadSpeechEstimate(extract_h(L_shl(t, 12)));
  return flag;
}

// ---- DTX transmit side ------------------------------------------------------

void Encoder::dtxReset() {
  DtxState& d = dtx_;
  d.histPtr = 0;
  d.logEnIndex = 0;
  for (int i = 0; i < kHistLen; i++) {
    std::memcpy(d.isfHist + i * kOrder, tables::kIsfStart, sizeof tables::kIsfStart);
  }
  d.seed = 21845;
  std::memset(d.logEnHist, 0, sizeof d.logEnHist);
  d.hangoverCount = kHangConst;
  d.elapsedCount = 32767;
  std::memset(d.dist, 0, sizeof d.dist);
  std::memset(d.sumDist, 0, sizeof d.sumDist);
}

// Switches to comfort noise after 7 frames of hangover following speech
// (at once when the decoder analysed noise recently).
void Encoder::dtxHandler(bool vad, int& mode) {
  DtxState& d = dtx_;
  d.elapsedCount = add(d.elapsedCount, 1);
  if (vad) {
    d.hangoverCount = kHangConst;
  } else if (d.hangoverCount == 0) {
    d.elapsedCount = 0;
    mode = kModeDtx;
  } else {
    d.hangoverCount = sub(d.hangoverCount, 1);
    if (sub(add(d.elapsedCount, d.hangoverCount), kElapsedThresh) < 0) mode = kModeDtx;
  }
}

void Encoder::dtxBuffer(const Word16* isf, Word32 energy, int mode) {
  DtxState& d = dtx_;
  d.histPtr = add(d.histPtr, 1);
  if (d.histPtr == kHistLen) d.histPtr = 0;
  std::memcpy(d.isfHist + d.histPtr * kOrder, isf, kOrder * sizeof(Word16));
  Word16 e, m;
  log2(energy, e, m);
  Word16 logEn = shl(e, 7);
  logEn = add(logEn, shr(m, 15 - 7));
  d.logEnHist[d.histPtr] = sub(logEn, add(1024, kEnergyAdjust[mode]));
}

// Indices of the history frames to leave out of the ISF average: the two
// most distant from the rest (if far enough) and the most central one.
void Encoder::dtxFindIndices(Word16* indices) {
  DtxState& d = dtx_;
  Word16 tmp = kHistLen - 1;
  int j = -1;
  for (int i = 0; i < kHistLen - 1; i++) {
    j += tmp;
    d.sumDist[i] = L_sub(d.sumDist[i], d.dist[j]);
    tmp--;
  }
  for (int i = kHistLen - 1; i > 0; i--) d.sumDist[i] = d.sumDist[i - 1];
  d.sumDist[0] = 0;
  tmp = 0;
  for (int i = 27; i >= 12; i -= tmp) {
    tmp++;
    for (int k = tmp; k > 0; k--) d.dist[i - k + 1] = d.dist[i - k - tmp];
  }
  Word16 ptr = d.histPtr;
  for (int i = 1; i < kHistLen; i++) {
    ptr = sub(ptr, 1);
    if (ptr < 0) ptr = kHistLen - 1;
    Word32 t = 0;
    for (int k = 0; k < kOrder; k++) {
      const Word16 v = sub(d.isfHist[d.histPtr * kOrder + k], d.isfHist[ptr * kOrder + k]);
      t = L_mac(t, v, v);
    }
    d.dist[i - 1] = t;
    d.sumDist[0] = L_add(d.sumDist[0], t);
    d.sumDist[i] = L_add(d.sumDist[i], t);
  }
  Word32 sumMax = d.sumDist[0], sumMin = d.sumDist[0];
  indices[0] = 0;
  indices[2] = 0;
  for (int i = 1; i < kHistLen; i++) {
    if (d.sumDist[i] > sumMax) {
      indices[0] = static_cast<Word16>(i);
      sumMax = d.sumDist[i];
    }
    if (d.sumDist[i] < sumMin) {
      indices[2] = static_cast<Word16>(i);
      sumMin = d.sumDist[i];
    }
  }
  Word32 sumMax2 = -2147483647;
  indices[1] = -1;
  for (int i = 0; i < kHistLen; i++) {
    if (d.sumDist[i] > sumMax2 && i != indices[0]) {
      indices[1] = static_cast<Word16>(i);
      sumMax2 = d.sumDist[i];
    }
  }
  for (int i = 0; i < 3; i++) {
    indices[i] = sub(d.histPtr, indices[i]);
    if (indices[i] < 0) indices[i] = add(indices[i], kHistLen);
  }
  const Word16 n = norm_l(sumMax);
  sumMax = L_shl(sumMax, n);
  sumMin = L_shl(sumMin, n);
  if (L_mult(round(sumMax), kInvMedThresh) <= sumMin) indices[0] = -1;
  sumMax2 = L_shl(sumMax2, n);
  if (L_mult(round(sumMax2), kInvMedThresh) <= sumMin) indices[1] = -1;
}

// SID parameters (averaged ISFs and log energy, dithering flag) and the
// comfort-noise excitation for the local synthesis.
void Encoder::dtxEncode(Word16* isf, Word16* exc, BitWriter& prm) {
  DtxState& d = dtx_;
  Word16 logEn = 0;
  for (int i = 0; i < kHistLen; i++) logEn = add(logEn, d.logEnHist[i]);
  Word16 order[3];
  dtxFindIndices(order);

  // Average of the history with the outliers replaced by the central frame.
  Word16 saved[2 * kOrder];
  for (int k = 0; k < 2; k++) {
    if (order[k] != -1) {
      for (int i = 0; i < kOrder; i++) {
        saved[k * kOrder + i] = d.isfHist[order[k] * kOrder + i];
        d.isfHist[order[k] * kOrder + i] = d.isfHist[order[2] * kOrder + i];
      }
    }
  }
  for (int j = 0; j < kOrder; j++) {
    Word32 t = 0;
    for (int i = 0; i < kHistLen; i++) t = L_add(t, d.isfHist[i * kOrder + j]);
    isf[j] = extract_l(L_shr(t, 3));
  }
  for (int k = 0; k < 2; k++) {
    if (order[k] != -1) {
      for (int i = 0; i < kOrder; i++) d.isfHist[order[k] * kOrder + i] = saved[k * kOrder + i];
    }
  }

  logEn = shr(logEn, 2);
  logEn = add(logEn, 512);
  logEn = mult(logEn, 21504);
  d.logEnIndex = shr(logEn, 6);
  if (d.logEnIndex > 63) d.logEnIndex = 63;
  if (d.logEnIndex < 0) d.logEnIndex = 0;

  // Noise ISF quantiser: 5 splits, nearest codeword each.
  static constexpr int kDim[5] = {2, 3, 3, 4, 4};
  static constexpr int kSize[5] = {64, 64, 64, 32, 32};
  static constexpr int kBits[5] = {6, 6, 6, 5, 5};
  const int16_t* books[5] = {tables::kNoiseIsf1, tables::kNoiseIsf2, tables::kNoiseIsf3,
                             tables::kNoiseIsf4, tables::kNoiseIsf5};
  Word16 ind[5];
  Word16 res[kOrder];
  for (int i = 0; i < kOrder; i++) res[i] = sub(isf[i], tables::kNoiseIsfMean[i]);
  for (int s = 0, off = 0; s < 5; off += kDim[s], s++) {
    Word32 best = fx::MAX_32;
    int index = 0;
    for (int c = 0; c < kSize[s]; c++) {
      Word32 dist = 0;
      for (int k = 0; k < kDim[s]; k++) {
        const Word16 v = sub(res[off + k], books[s][c * kDim[s] + k]);
        dist = L_mac(dist, v, v);
      }
      if (dist < best) {
        best = dist;
        index = c;
      }
    }
    ind[s] = static_cast<Word16>(index);
    prm.put(index, kBits[s]);
  }
  dequantiseNoiseIsf(ind, isf);
  prm.put(d.logEnIndex, 6);

  // Dithering flag: large ISF or energy variation over the history.
  Word32 isfDiff = 0;
  for (int i = 0; i < kHistLen; i++) isfDiff = L_add(isfDiff, d.sumDist[i]);
  bool dither = L_shr(isfDiff, 26) > 0;
  Word16 mean = 0;
  for (int i = 0; i < kHistLen; i++) mean = add(mean, d.logEnHist[i]);
  mean = shr(mean, 3);
  Word16 gainDiff = 0;
  for (int i = 0; i < kHistLen; i++) gainDiff = add(gainDiff, abs_s(sub(d.logEnHist[i], mean)));
  if (gainDiff > kGainThr) dither = true;
  prm.put(dither ? 1 : 0, 1);

  // Comfort-noise excitation at the quantised level.
  logEn = shl(d.logEnIndex, 15 - 6);
  logEn = mult(logEn, 12483);
  Word16 logE = shr(logEn, 10);
  Word16 logM = static_cast<Word16>(logEn & 0x3ff);
  logM = shl(logM, 5);
  logE = add(logE, 16 - 1);
  Word32 level32 = pow2(logE, logM);
  Word16 exp0 = norm_l(level32);
  level32 = L_shl(level32, exp0);
  exp0 = sub(15, exp0);
  const Word16 level = extract_h(level32);
  for (int i = 0; i < kFrame; i++) exc[i] = shr(nextRandom(d.seed), 4);
  Word16 e;
  Word32 ener = dotProduct12(exc, exc, kFrame, e);
  isqrtNorm(ener, e);
  Word16 gain = extract_h(ener);
  gain = mult(level, gain);
  e = add(add(exp0, e), 4);
  for (int i = 0; i < kFrame; i++) exc[i] = shl(mult(exc[i], gain), e);
}

}  // namespace quillon::amrwb
