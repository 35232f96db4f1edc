// AMR-WB encoder: frame driver (pre-processing, LP analysis, ISF
// quantisation, open-loop pitch, the subframe loop), frame packing and
// homing.
#include "engines/amrwb/amrwb_encoder.h"

#include <cstring>

#include "engines/amrwb/amrwb_decoder.h"
#include "engines/amrwb/amrwb_tables.h"

namespace quillon::amrwb {

namespace {

constexpr Word16 kPreemphFac = 22282;  // 0.68
constexpr Word16 kGamma1 = 30147;      // 0.92, perceptual weighting
constexpr Word16 kTiltFac = 22282;
constexpr Word16 kGpClip = 15565;      // 0.95 in Q14
constexpr Word16 kQMax = 8;
constexpr int kFilt = 12;              // look-ahead samples after decimation
constexpr int kFilt16 = 15;
constexpr int kPitFr2 = 128, kPitFr1Wide = 160, kPitFr1Narrow = 92;

constexpr int kMode7k = 0, kMode9k = 1, kMode24k = 8;

// Pitch search range of 16 lags around `lag`.
void pitchRange(Word16 lag, Word16& lo, Word16& hi) {
  lo = static_cast<Word16>(lag - 8);
  if (lo < 34) lo = 34;
  hi = static_cast<Word16>(lo + 15);
  if (hi > 231) {
    hi = 231;
    lo = static_cast<Word16>(hi - 15);
  }
}

}  // namespace

Encoder::Encoder() { reset(); }

void Encoder::reset() {
  resetSpeech(true);
  sidUpdateCounter_ = 3;
  prevFrameSpeech_ = 1;
}

void Encoder::resetSpeech(bool all) {
  std::memset(oldExc_, 0, sizeof oldExc_);
  std::memset(memSyn_, 0, sizeof memSyn_);
  std::memset(pastIsfQ_, 0, sizeof pastIsfQ_);
  memW0_ = 0;
  tiltCode_ = 0;
  firstFrame_ = 1;
  gpClip_[0] = 307;
  gpClip_[1] = 9830;
  gainCodeThres_ = 0;
  if (!all) return;

  std::memset(oldSpeech_, 0, sizeof oldSpeech_);
  std::memset(oldWsp_, 0, sizeof oldWsp_);
  std::memset(memDecim2_, 0, sizeof memDecim2_);
  std::memset(memDecim_, 0, sizeof memDecim_);
  std::memset(memHpIn_, 0, sizeof memHpIn_);
  std::memset(levinsonOld_, 0, sizeof levinsonOld_);
  for (Word16& e : pastQuaEn_) e = -14336;
  std::memset(hpWspMem_, 0, sizeof hpWspMem_);
  std::memcpy(ispOld_, tables::kIspStart, sizeof ispOld_);
  std::memcpy(ispOldQ_, tables::kIspStart, sizeof ispOldQ_);
  memPreemph_ = 0;
  memWsp_ = 0;
  qOld_ = 15;
  qMax_[0] = qMax_[1] = 15;
  oldWspMax_ = 0;
  oldWspShift_ = 0;
  oldT0Med_ = 40;
  olGain_ = 0;
  adaW_ = 0;
  olWeightFlag_ = 0;
  for (Word16& l : oldOlLag_) l = 40;
  std::memset(oldHpWsp_, 0, sizeof oldHpWsp_);
  std::memset(memSynHf_, 0, sizeof memSynHf_);
  std::memset(synHi_, 0, sizeof synHi_);
  std::memset(synLo_, 0, sizeof synLo_);
  std::memset(memHpOut_, 0, sizeof memHpOut_);
  std::memset(memHf_, 0, sizeof memHf_);
  std::memset(memHp400_, 0, sizeof memHp400_);
  std::memcpy(isfOld_, tables::kIsfStart, sizeof isfOld_);
  memDeemph_ = 0;
  seedHf_ = 21845;
  std::memset(memHf2_, 0, sizeof memHf2_);
  gainAlpha_ = 32767;
  vadHist_ = 0;
  vadReset();
  dtxReset();
}

int Encoder::encodeFrame(const int16_t* pcm, int mode, bool dtx, uint8_t* out) {
  if (mode < 0 || mode > 8) return -1;
  Word16 speech[kInputSamples];
  bool homing = true;
  for (int i = 0; i < kInputSamples; i++) {
    if (pcm[i] != 0x0008) homing = false;
    speech[i] = static_cast<Word16>(pcm[i] & 0xfffc);
  }
  uint8_t bits[480];
  int used = mode;
  encodeSpeech(speech, used, dtx, bits);

  int bytes;
  if (used == kModeDtx) {
    // SID_FIRST right after speech, then an update every 8th frame.
    sidUpdateCounter_--;
    int sid;  // 0 SID_FIRST, 1 SID_UPDATE, 2 NO_DATA
    if (prevFrameSpeech_) {
      sid = 0;
      sidUpdateCounter_ = 3;
    } else if (sidUpdateCounter_ == 0) {
      sid = 1;
      sidUpdateCounter_ = 8;
    } else {
      sid = 2;
    }
    prevFrameSpeech_ = 0;
    bytes = pack(bits, sid == 2 ? 15 : 9, sid, mode, out);
  } else {
    sidUpdateCounter_ = 8;
    prevFrameSpeech_ = 1;
    bytes = pack(bits, used, 0, mode, out);
  }
  // After the homing frame the codec starts afresh; the SID schedule of
  // the transmit side carries on.
  if (homing) resetSpeech(true);
  return bytes;
}

int Encoder::pack(const uint8_t* bits, int frameType, int sidType, int mode, uint8_t* out) {
  out[0] = static_cast<uint8_t>((frameType << 3) | 0x04);
  if (frameType == 15) return 1;
  const bool sid = frameType == 9;
  const int n = sid ? kSidBits : tables::kSpeechBits[frameType];
  const int16_t* order = sid ? tables::kSortOrderSid : tables::kSortOrders[frameType];
  const int total = sid ? kSidBits + 5 : n;
  const int bytes = 1 + (total + 7) / 8;
  std::memset(out + 1, 0, static_cast<size_t>(bytes - 1));
  for (int i = 0; i < n; i++) {
    const int b = (sid && sidType == 0) ? 0 : bits[order[i]];
    if (b) out[1 + i / 8] |= static_cast<uint8_t>(0x80 >> (i % 8));
  }
  if (sid) {
    const int tail = (sidType == 1 ? 0x10 : 0) | (mode & 0x0f);
    for (int i = 0; i < 5; i++) {
      if ((tail >> (4 - i)) & 1) out[1 + (n + i) / 8] |= static_cast<uint8_t>(0x80 >> ((n + i) % 8));
    }
  }
  return bytes;
}

void Encoder::encodeSpeech(Word16* speech16k, int& mode, bool allowDtx, uint8_t* bitArray) {
  const int codecMode = mode;
  BitWriter prm{bitArray};

  Word16 oldSpeech[kTotal];
  Word16 oldWsp[kFrame + kPitMax / 2];  // full-rate weighted speech, then decimated in place
  Word16 oldExc[kFrame + 1 + kPitMax + kInterp];
  Word16* newSpeech = oldSpeech + kTotal - kFrame - kFilt;
  Word16* speech = oldSpeech + kTotal - kFrame - kSub;
  Word16* window = oldSpeech;
  Word16* exc = oldExc + kPitMax + kInterp;
  Word16* wsp = oldWsp + kPitMax / 2;

  Word16 rHi[kOrder + 1], rLo[kOrder + 1];
  Word16 ap[kOrder + 1], ispNew[kOrder], ispNewQ[kOrder], isf[kOrder];
  Word16 a[4 * (kOrder + 1)], aq[4 * (kOrder + 1)];
  Word16 xn[kSub], xn2[kSub], dn[kSub], cn[kSub], h1[kSub], h2[kSub];
  Word16 code[kSub], y1[kSub], y2[kSub], error[kOrder + kSub], exc2[kFrame];
  Word16 code2[kSub], buf[kFrame];
  Word16 gCoeff[4], gCoeff2[4], indices[8];

  std::memcpy(oldSpeech, oldSpeech_, sizeof oldSpeech_);
  std::memcpy(oldWsp, oldWsp_, sizeof oldWsp_);
  std::memcpy(oldExc, oldExc_, sizeof oldExc_);

  // 16 kHz -> 12.8 kHz, then the look-ahead from a zero continuation.
  decimate(speech16k, kInputSamples, newSpeech, memDecim_);
  {
    Word16 mem[30], zeros[kFilt16];
    std::memcpy(mem, memDecim_, sizeof mem);
    std::memset(zeros, 0, sizeof zeros);
    decimate(zeros, kFilt16, newSpeech + kFrame, mem);
  }
  highPass50(newSpeech, kFrame, memHpIn_);
  {
    Word16 mem[6];
    std::memcpy(mem, memHpIn_, sizeof mem);
    highPass50(newSpeech + kFrame, kFilt, mem);
  }

  // Pre-emphasis with the largest scaling that keeps the new samples in
  // range (at most kQMax, and no more than in the two previous frames).
  const Word16 mu = shr(kPreemphFac, 1);
  Word32 lMax = L_abs(L_msu(L_mult(newSpeech[0], 16384), memPreemph_, mu));
  for (int i = 1; i < kFrame + kFilt; i++) {
    const Word32 t = L_abs(L_msu(L_mult(newSpeech[i], 16384), newSpeech[i - 1], mu));
    if (t > lMax) lMax = t;
  }
  Word16 tmp = extract_h(lMax);
  Word16 shift;
  if (tmp == 0) {
    shift = kQMax;
  } else {
    shift = sub(norm_s(tmp), 1);
    if (shift < 0) shift = 0;
    if (shift > kQMax) shift = kQMax;
  }
  Word16 qNew = shift;
  if (qNew > qMax_[0]) qNew = qMax_[0];
  if (qNew > qMax_[1]) qNew = qMax_[1];
  Word16 exp = sub(qNew, qOld_);
  qOld_ = qNew;
  qMax_[1] = qMax_[0];
  qMax_[0] = shift;

  tmp = newSpeech[kFrame - 1];
  for (int i = kFrame + kFilt - 1; i > 0; i--) {
    Word32 t = L_msu(L_mult(newSpeech[i], 16384), newSpeech[i - 1], mu);
    newSpeech[i] = round(L_shl(t, qNew));
  }
  newSpeech[0] = round(L_shl(L_msu(L_mult(newSpeech[0], 16384), memPreemph_, mu), qNew));
  memPreemph_ = tmp;

  scale(oldSpeech, kTotal - kFrame - kFilt, exp);
  scale(oldExc, kPitMax + kInterp, exp);
  scale(memSyn_, kOrder, exp);
  scale(memDecim2_, 3, exp);
  scale(&memWsp_, 1, exp);
  scale(&memW0_, 1, exp);

  // Voice activity on the unscaled pre-emphasised frame.
  std::memcpy(buf, newSpeech, sizeof buf);
  scale(buf, kFrame, sub(1, qNew));
  const Word16 vadFlag = vadDecide(buf);
  vadHist_ = vadFlag == 0 ? add(vadHist_, 1) : 0;
  if (allowDtx) dtxHandler(vadFlag != 0, mode);
  if (mode != kModeDtx) prm.put(vadFlag, 1);

  // LP analysis centred on the 4th subframe.
  autocorrelation(window, rHi, rLo);
  for (int i = 1; i <= kOrder; i++) {
    L_Extract(Mpy_32(rHi[i], rLo[i], tables::kLagWindowHi[i - 1], tables::kLagWindowLo[i - 1]),
              rHi[i], rLo[i]);
  }
  levinson(rHi, rLo, a + 3 * (kOrder + 1));
  lpcToIsp(a + 3 * (kOrder + 1), ispNew, ispOld_);
  interpolateIsp(ispOld_, ispNew, a);
  std::memcpy(ispOld_, ispNew, sizeof ispOld_);
  ispToIsf(ispNew, isf);
  pitchClipIsf(codecMode, isf);

  // Weighted speech and the open-loop pitch on it, decimated by 2.
  for (int s = 0; s < 4; s++) {
    weightLpc(a + s * (kOrder + 1), ap, kGamma1, kOrder);
    residual(ap, speech + s * kSub, wsp + s * kSub, kSub);
  }
  deemphasis2(wsp, kTiltFac, kFrame, memWsp_);
  Word16 peak = 0;
  for (int i = 0; i < kFrame; i++) {
    const Word16 v = abs_s(wsp[i]);
    if (v > peak) peak = v;
  }
  tmp = oldWspMax_;
  if (peak > tmp) tmp = peak;
  oldWspMax_ = peak;
  shift = sub(norm_s(tmp), 3);
  if (shift > 0) shift = 0;
  lowPassDecimate2(wsp, kFrame);
  scale(wsp, kFrame / 2, shift);
  exp = add(exp, sub(shift, oldWspShift_));
  oldWspShift_ = shift;
  scale(oldWsp, kPitMax / 2, exp);
  scale(oldHpWsp_, kPitMax / 2, exp);
  scaleWspFilter(exp);

  const bool single = codecMode == kMode7k;
  auto trackLag = [&](Word16 lag) {
    if (olGain_ > 19661) {
      for (int i = 4; i > 0; i--) oldOlLag_[i] = oldOlLag_[i - 1];
      oldOlLag_[0] = lag;
      // median of the last five open-loop lags
      Word16 v[5];
      std::memcpy(v, oldOlLag_, sizeof v);
      for (int i = 1; i < 5; i++) {
        for (int j = i; j > 0 && v[j] < v[j - 1]; j--) {
          const Word16 t = v[j];
          v[j] = v[j - 1];
          v[j - 1] = t;
        }
      }
      oldT0Med_ = v[2];
      adaW_ = 32767;
    } else {
      adaW_ = mult(adaW_, 29491);
    }
    olWeightFlag_ = adaW_ < 26214 ? 0 : 1;
    vadTone(olGain_);
  };
  Word16 tOp = openLoopPitch(wsp, single ? kFrame / 2 : kFrame / 4, oldT0Med_, olGain_);
  trackLag(tOp);
  tOp = static_cast<Word16>(tOp * 2);
  Word16 tOp2 = tOp;
  if (!single) {
    tOp2 = openLoopPitch(wsp + kFrame / 4, kFrame / 4, oldT0Med_, olGain_);
    trackLag(tOp2);
    tOp2 = static_cast<Word16>(tOp2 * 2);
  }

  if (mode == kModeDtx) {
    // Comfort noise: buffer the parameters, send the SID parameters and
    // keep the synthesis memories running.
    residual(a + 3 * (kOrder + 1), speech, exc, kFrame);
    for (int i = 0; i < kFrame; i++) exc2[i] = shr(exc[i], qNew);
    Word32 e = 0;
    for (int i = 0; i < kFrame; i++) e = L_mac(e, exc2[i], exc2[i]);
    dtxBuffer(isf, L_shr(e, 1), codecMode);
    dtxEncode(isf, exc2, prm);
    isfToIsp(isf, ispNewQ, kOrder);
    ispToLpc(ispNewQ, aq, kOrder, false);
    for (int s = 0; s < kFrame; s += kSub) hfGainIndex(aq, exc2 + s, 0, speech16k + s * 5 / 4);
    std::memcpy(isfOld_, isf, sizeof isfOld_);
    resetSpeech(false);
    std::memcpy(oldSpeech_, oldSpeech + kFrame, sizeof oldSpeech_);
    std::memcpy(oldWsp_, oldWsp + kFrame / 2, sizeof oldWsp_);
    return;
  }

  // ISF quantisation.
  quantiseIsf(isf, isf, indices, single);
  if (single) {
    prm.put(indices[0], 8);
    prm.put(indices[1], 8);
    prm.put(indices[2], 7);
    prm.put(indices[3], 7);
    prm.put(indices[4], 6);
  } else {
    prm.put(indices[0], 8);
    prm.put(indices[1], 8);
    prm.put(indices[2], 6);
    prm.put(indices[3], 7);
    prm.put(indices[4], 7);
    prm.put(indices[5], 5);
    prm.put(indices[6], 5);
  }

  // Stability of the quantised envelope (drives the noise enhancer).
  Word32 lt = 0;
  for (int i = 0; i < kOrder - 1; i++) {
    tmp = sub(isf[i], isfOld_[i]);
    lt = L_mac(lt, tmp, tmp);
  }
  tmp = extract_h(L_shl(lt, 8));
  tmp = mult(tmp, 26214);
  tmp = sub(20480, tmp);
  Word16 stabFac = shl(tmp, 1);
  if (stabFac < 0) stabFac = 0;
  std::memcpy(isfOld_, isf, sizeof isfOld_);

  isfToIsp(isf, ispNewQ, kOrder);
  if (firstFrame_) {
    firstFrame_ = 0;
    std::memcpy(ispOldQ_, ispNewQ, sizeof ispOldQ_);
  }
  interpolateIsp(ispOldQ_, ispNewQ, aq);
  std::memcpy(ispOldQ_, ispNewQ, sizeof ispOldQ_);

  for (int s = 0; s < 4; s++) residual(aq + s * (kOrder + 1), speech + s * kSub, exc + s * kSub, kSub);

  if (vadFlag == 0) {
    for (int i = 0; i < kFrame; i++) exc2[i] = shr(exc[i], qNew);
    Word32 e = 0;
    for (int i = 0; i < kFrame; i++) e = L_mac(e, exc2[i], exc2[i]);
    dtxBuffer(isf, L_shr(e, 1), codecMode);
  }

  Word16 t0Min, t0Max;
  pitchRange(tOp, t0Min, t0Max);

  const Word16* pA = a;
  const Word16* pAq = aq;
  for (int sf = 0; sf < kFrame; sf += kSub, pA += kOrder + 1, pAq += kOrder + 1) {
    bool first = sf == 0;
    if (sf == 2 * kSub && !single) {
      first = true;
      pitchRange(tOp2, t0Min, t0Max);
    }

    // Target signal: weighted speech minus the zero-input response.
    for (int i = 0; i < kOrder; i++) error[i] = sub(speech[i + sf - kOrder], memSyn_[i]);
    residual(pAq, speech + sf, exc + sf, kSub);
    synthesisFilter(pAq, kOrder, exc + sf, error + kOrder, kSub, error, false);
    weightLpc(pA, ap, kGamma1, kOrder);
    residual(ap, error + kOrder, xn, kSub);
    deemphasis2(xn, kTiltFac, kSub, memW0_);

    // Target in the residual domain: first half filtered, second half
    // approximated by the LP residual.
    std::memset(code, 0, kOrder * sizeof(Word16));
    std::memcpy(code + kOrder, xn, kSub / 2 * sizeof(Word16));
    tmp = 0;
    preemphasis(code + kOrder, kTiltFac, kSub / 2, tmp, true);
    weightLpc(pA, ap, kGamma1, kOrder);
    synthesisFilter(ap, kOrder, code + kOrder, code + kOrder, kSub / 2, code, false);
    residual(pAq, code + kOrder, cn, kSub / 2);
    std::memcpy(cn + kSub / 2, exc + sf + kSub / 2, kSub / 2 * sizeof(Word16));

    // Impulse response of the weighted synthesis filter.
    std::memset(error, 0, sizeof error);
    weightLpc(pA, error + kOrder, kGamma1, kOrder);
    for (int i = 0; i < kSub; i++) {
      Word32 t = L_mult(error[i + kOrder], 16384);
      for (int j = 1; j <= kOrder; j++) t = L_msu(t, pAq[j], error[i + kOrder - j]);
      h1[i] = error[i + kOrder] = round(L_shl(t, 3));
    }
    tmp = 0;
    deemphasis2(h1, kTiltFac, kSub, tmp);
    std::memcpy(h2, h1, sizeof h2);
    scale(h2, kSub, -2);
    scale(xn, kSub, shift);
    scale(h1, kSub, add(1, shift));

    // Closed-loop fractional pitch and its index.
    Word16 t0, t0Frac;
    if (codecMode <= kMode9k) {
      t0 = pitchSearch(exc + sf, xn, h1, t0Min, t0Max, t0Frac, first, kPitMin, kPitFr1Narrow);
      if (first) {
        const Word16 index = t0 < kPitFr1Narrow
                                 ? sub(add(shl(t0, 1), shr(t0Frac, 1)), kPitMin * 2)
                                 : add(sub(t0, kPitFr1Narrow), (kPitFr1Narrow - kPitMin) * 2);
        prm.put(index, 8);
        pitchRange(t0, t0Min, t0Max);
      } else {
        prm.put(add(shl(sub(t0, t0Min), 1), shr(t0Frac, 1)), 5);
      }
    } else {
      t0 = pitchSearch(exc + sf, xn, h1, t0Min, t0Max, t0Frac, first, kPitFr2, kPitFr1Wide);
      if (first) {
        Word16 index;
        if (t0 < kPitFr2) {
          index = sub(add(shl(t0, 2), t0Frac), kPitMin * 4);
        } else if (t0 < kPitFr1Wide) {
          index = add(sub(add(shl(t0, 1), shr(t0Frac, 1)), kPitFr2 * 2), (kPitFr2 - kPitMin) * 4);
        } else {
          index = add(add(sub(t0, kPitFr1Wide), (kPitFr2 - kPitMin) * 4),
                      (kPitFr1Wide - kPitFr2) * 2);
        }
        prm.put(index, 9);
        pitchRange(t0, t0Min, t0Max);
      } else {
        prm.put(add(shl(sub(t0, t0Min), 2), t0Frac), 6);
      }
    }

    const bool clip = pitchClip(codecMode);
    predictLongTerm(exc + sf, t0, t0Frac, kSub + 1, false);
    Word16 gain1 = 0;
    if (codecMode > kMode9k) {
      convolve(exc + sf, h1, y1);
      gain1 = pitchGain(xn, y1, gCoeff);
      if (clip && gain1 > kGpClip) gain1 = kGpClip;
      updateTarget(xn, dn, y1, gain1);
    }
    // Same with the low-pass filtered adaptive codebook.
    for (int i = 0; i < kSub; i++) {
      Word32 t = L_mult(5898, exc[i - 1 + sf]);
      t = L_mac(t, 20972, exc[i + sf]);
      t = L_mac(t, 5898, exc[i + 1 + sf]);
      code[i] = round(t);
    }
    convolve(code, h1, y2);
    Word16 gain2 = pitchGain(xn, y2, gCoeff2);
    if (clip && gain2 > kGpClip) gain2 = kGpClip;
    updateTarget(xn, xn2, y2, gain2);

    bool unfiltered = false;
    if (codecMode > kMode9k) {
      Word32 t = 0;
      for (int i = 0; i < kSub; i++) t = L_mac(t, dn[i], dn[i]);
      for (int i = 0; i < kSub; i++) t = L_msu(t, xn2[i], xn2[i]);
      unfiltered = t <= 0;
      prm.put(unfiltered ? 1 : 0, 1);
    }
    Word16 gainPit;
    if (!unfiltered) {
      gainPit = gain2;
      std::memcpy(exc + sf, code, kSub * sizeof(Word16));
      std::memcpy(y1, y2, sizeof y1);
      std::memcpy(gCoeff, gCoeff2, sizeof gCoeff);
    } else {
      gainPit = gain1;
      std::memcpy(xn2, dn, sizeof xn2);
    }

    // Innovation search.
    updateTarget(cn, cn, exc + sf, gainPit);
    scale(cn, kSub, shift);
    tmp = 0;
    preemphasis(h2, tiltCode_, kSub, tmp, false);
    if (t0Frac > 2) t0 = add(t0, 1);
    pitchSharpen(h2, t0);
    correlateTarget(h2, xn2, dn);

    switch (codecMode) {
      case 0: {
        Word16 index;
        searchCodebook2(dn, cn, h2, code, y2, index);
        prm.put(index, 12);
        break;
      }
      case 1:
        searchCodebook4(dn, cn, h2, code, y2, 20, codecMode, indices);
        for (int i = 0; i < 4; i++) prm.put(indices[i], 5);
        break;
      case 2:
        searchCodebook4(dn, cn, h2, code, y2, 36, codecMode, indices);
        for (int i = 0; i < 4; i++) prm.put(indices[i], 9);
        break;
      case 3:
        searchCodebook4(dn, cn, h2, code, y2, 44, codecMode, indices);
        prm.put(indices[0], 13);
        prm.put(indices[1], 13);
        prm.put(indices[2], 9);
        prm.put(indices[3], 9);
        break;
      case 4:
        searchCodebook4(dn, cn, h2, code, y2, 52, codecMode, indices);
        for (int i = 0; i < 4; i++) prm.put(indices[i], 13);
        break;
      case 5:
        searchCodebook4(dn, cn, h2, code, y2, 64, codecMode, indices);
        for (int i = 0; i < 4; i++) prm.put(indices[i], 2);
        for (int i = 4; i < 8; i++) prm.put(indices[i], 14);
        break;
      case 6:
        searchCodebook4(dn, cn, h2, code, y2, 72, codecMode, indices);
        prm.put(indices[0], 10);
        prm.put(indices[1], 10);
        prm.put(indices[2], 2);
        prm.put(indices[3], 2);
        prm.put(indices[4], 10);
        prm.put(indices[5], 10);
        prm.put(indices[6], 14);
        prm.put(indices[7], 14);
        break;
      default:
        searchCodebook4(dn, cn, h2, code, y2, 88, codecMode, indices);
        for (int i = 0; i < 8; i++) prm.put(indices[i], 11);
        break;
    }

    tmp = 0;
    preemphasis(code, tiltCode_, kSub, tmp, false);
    pitchSharpen(code, t0);

    Word32 gainCode;
    const Word16 gIndex = quantiseGains(xn, y1, add(qNew, shift), y2, code, gCoeff,
                                        codecMode <= kMode9k ? 6 : 7, gainPit, gainCode, clip);
    prm.put(gIndex, codecMode <= kMode9k ? 6 : 7);
    pitchClipGain(codecMode, gainPit);
    Word16 gCode = round(L_shl(gainCode, qNew));

    std::memcpy(exc2, exc + sf, kSub * sizeof(Word16));
    scale(exc2, kSub, shift);
    const Word16 voiceFac = voiceFactor(exc2, shift, gainPit, code, gCode, false);
    tiltCode_ = add(shr(voiceFac, 2), 8192);

    // Memories for the next subframe.
    Word32 t = L_mult(gCode, y2[kSub - 1]);
    t = L_shl(t, add(5, shift));
    t = L_negate(t);
    t = L_mac(t, xn[kSub - 1], 16384);
    t = L_msu(t, y1[kSub - 1], gainPit);
    t = L_shl(t, sub(1, shift));
    memW0_ = round(t);

    if (codecMode >= kMode24k) std::memcpy(exc2, exc + sf, kSub * sizeof(Word16));
    for (int i = 0; i < kSub; i++) {
      Word32 v = L_shl(L_mult(gCode, code[i]), 5);
      v = L_mac(v, exc[i + sf], gainPit);
      exc[i + sf] = round(L_shl(v, 1));
    }
    Word16 synth[kSub];
    synthesisFilter(pAq, kOrder, exc + sf, synth, kSub, memSyn_, true);

    if (codecMode >= kMode24k) {
      // Excitation as the decoder builds it (noise and pitch enhancers),
      // for the HF gain estimate.
      Word16 gHi, gLo;
      L_Extract(gainCode, gHi, gLo);
      tmp = sub(16384, shr(voiceFac, 1));
      const Word16 fac = mult(stabFac, tmp);
      Word32 g = gainCode;
      if (g < gainCodeThres_) {
        g = L_add(g, Mpy_32_16(gHi, gLo, 6226));
        if (g > gainCodeThres_) g = gainCodeThres_;
      } else {
        g = Mpy_32_16(gHi, gLo, 27536);
        if (g < gainCodeThres_) g = gainCodeThres_;
      }
      gainCodeThres_ = g;
      Word32 enhanced = Mpy_32_16(gHi, gLo, sub(32767, fac));
      L_Extract(g, gHi, gLo);
      enhanced = L_add(enhanced, Mpy_32_16(gHi, gLo, fac));

      tmp = add(shr(voiceFac, 3), 4096);
      code2[0] = round(L_msu(L_deposit_h(code[0]), code[1], tmp));
      for (int i = 1; i < kSub - 1; i++) {
        Word32 v = L_msu(L_deposit_h(code[i]), code[i + 1], tmp);
        code2[i] = round(L_msu(v, code[i - 1], tmp));
      }
      code2[kSub - 1] = round(L_msu(L_deposit_h(code[kSub - 1]), code[kSub - 2], tmp));

      gCode = round(L_shl(enhanced, qNew));
      for (int i = 0; i < kSub; i++) {
        Word32 v = L_shl(L_mult(code2[i], gCode), 5);
        v = L_mac(v, exc2[i], gainPit);
        exc2[i] = round(L_shl(v, 1));
      }
      prm.put(hfGainIndex(pAq, exc2, qNew, speech16k + sf * 5 / 4), 4);
    }
  }

  std::memcpy(oldSpeech_, oldSpeech + kFrame, sizeof oldSpeech_);
  std::memcpy(oldWsp_, oldWsp + kFrame / 2, sizeof oldWsp_);
  std::memcpy(oldExc_, oldExc + kFrame, sizeof oldExc_);
}

// 23.85 kbit/s HF gain: runs the decoder's 12.8 kHz synthesis and HF noise
// generation, compares the 6-7 kHz energy of the noise with that of the
// input and returns the index of the nearest correction gain.
Word16 Encoder::hfGainIndex(const Word16* aq, Word16* exc, Word16 qNew, const Word16* speech16k) {
  constexpr Word16 kDeemph = 22282;
  Word16 hi[kOrder + kSub], lo[kOrder + kSub], synth[kSub], hf[kSub16], hfIn[kSub16];
  Word16 ap[kOrder + 1];
  std::memcpy(hi, synHi_, sizeof synHi_);
  std::memcpy(lo, synLo_, sizeof synLo_);
  synthesisFilter32(aq, exc, qNew, hi + kOrder, lo + kOrder);
  std::memcpy(synHi_, hi + kSub, sizeof synHi_);
  std::memcpy(synLo_, lo + kSub, sizeof synLo_);
  const Word16 fac = shr(kDeemph, 1);
  Word16 prev = memDeemph_;
  for (int i = 0; i < kSub; i++) {
    Word32 t = L_mac(L_deposit_h(hi[kOrder + i]), lo[kOrder + i], 8);
    t = L_shl(t, 3);
    t = L_mac(t, prev, fac);
    synth[i] = prev = round(L_shl(t, 1));
  }
  memDeemph_ = prev;
  highPass50(synth, kSub, memHpOut_);
  std::memcpy(hfIn, speech16k, sizeof hfIn);

  for (int i = 0; i < kSub16; i++) hf[i] = shr(nextRandom(seedHf_), 3);
  scale(exc, kSub, -3);
  qNew = sub(qNew, 3);
  Word16 expE, e;
  Word16 ener = extract_h(dotProduct12(exc, exc, kSub, expE));
  expE = sub(expE, add(qNew, qNew));
  Word16 tmp = extract_h(dotProduct12(hf, hf, kSub16, e));
  if (tmp > ener) {
    tmp = shr(tmp, 1);
    e = add(e, 1);
  }
  Word32 lt = L_deposit_h(div_s(tmp, ener));
  e = sub(e, expE);
  isqrtNorm(lt, e);
  lt = L_shl(lt, add(e, 1));
  tmp = extract_h(lt);
  for (int i = 0; i < kSub16; i++) hf[i] = mult(hf[i], tmp);

  highPass400(synth, kSub);
  lt = 1;
  for (int i = 0; i < kSub; i++) lt = L_mac(lt, synth[i], synth[i]);
  e = norm_l(lt);
  ener = extract_h(L_shl(lt, e));
  lt = 1;
  for (int i = 1; i < kSub; i++) lt = L_mac(lt, synth[i], synth[i - 1]);
  tmp = extract_h(L_shl(lt, e));
  const Word16 tilt = tmp > 0 ? div_s(tmp, ener) : 0;
  const Word16 gain1 = sub(32767, tilt);
  const Word16 gain2 = shl(mult(sub(32767, tilt), 20480), 1);
  const Word16 w1 = vadHist_ > 0 ? 0 : 32767;
  const Word16 w2 = vadHist_ > 0 ? 32767 : 0;
  tmp = add(mult(w1, gain1), mult(w2, gain2));
  if (tmp != 0) tmp = add(tmp, 1);
  Word16 estGain = tmp;
  if (estGain < 3277) estGain = 3277;

  weightLpc(aq, ap, 19661, kOrder);
  synthesisFilter(ap, kOrder, hf, hf, kSub16, memSynHf_, true);
  fir6k7k(hf, memHf_);
  fir6k7k(hfIn, memHf2_);

  scale(hfIn, kSub16, -1);
  ener = extract_h(dotProduct12(hfIn, hfIn, kSub16, expE));
  tmp = extract_h(dotProduct12(hf, hf, kSub16, e));
  if (tmp > ener) {
    tmp = shr(tmp, 1);
    e = add(e, 1);
  }
  lt = L_deposit_h(div_s(tmp, ener));
  e = sub(e, expE);
  isqrtNorm(lt, e);
  lt = L_shl(lt, e);
  const Word16 calcGain = extract_h(lt);

  lt = L_shl(L_mult(dtx_.hangoverCount, 4681), 15);
  gainAlpha_ = mult(gainAlpha_, extract_h(lt));
  if (dtx_.hangoverCount > 6) gainAlpha_ = 32767;
  estGain = shr(estGain, 1);
  const Word16 corrGain = add(mult(calcGain, gainAlpha_), mult(sub(32767, gainAlpha_), estGain));

  Word16 distMin = 32767, index = 0;
  for (int i = 0; i < 16; i++) {
    const Word16 d = sub(corrGain, tables::kHfGain[i]);
    const Word16 dist = mult(d, d);
    if (distMin > dist) {
      distMin = dist;
      index = static_cast<Word16>(i);
    }
  }
  return index;
}

}  // namespace quillon::amrwb
