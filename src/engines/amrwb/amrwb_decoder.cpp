// AMR-WB decoder: frame parsing, per-frame control and the ACELP subframe
// loop. Spectral, excitation and synthesis helpers live in the sibling
// files amrwb_lpc.cpp, amrwb_excitation.cpp and amrwb_synthesis.cpp.
#include "engines/amrwb/amrwb_decoder.h"

#include <cstring>

#include "engines/amrwb/amrwb_overflow.h"
#include "engines/amrwb/amrwb_tables.h"

namespace quillon::amrwb {

using namespace overflow;

namespace {

constexpr int16_t kFrameBytes[16] = {18, 24, 33, 37, 41, 47, 51, 59, 61, 6, 6, 0, 0, 0, 1, 1};

// Fractions of the new ISP vector for the four subframes.
constexpr Word16 kSubframeFrac[4] = {14746, 26214, 31457, 32767};


constexpr Word16 kPitMin = 34;
constexpr Word16 kPitFr2 = 128;
constexpr Word16 kPitFr1Hi = 160;   // full-resolution lags start here (9-bit lags)
constexpr Word16 kPitFr1Lo = 92;    // full-resolution lags start here (8-bit lags)
constexpr Word16 kPitMaxLag = 231;
constexpr Word16 kPitSharp = 27853;
constexpr Word16 kQMax = 8;

// Copies the speech bits that follow a ToC byte into `bits`, one byte per
// bit, in codec parameter order.
void unsortBits(const uint8_t* payload, const int16_t* order, int count, uint8_t* bits) {
  for (int i = 0; i < count; i++) {
    bits[order[i]] = static_cast<uint8_t>((payload[i >> 3] >> (7 - (i & 7))) & 1);
  }
}

// Decoder homing frames: the parameter pattern of each mode, 15 bits per
// word, and the number of bits up to the end of the first subframe.
const int16_t* const kHomingPatterns[9] = {
    tables::kHomingMode0, tables::kHomingMode1, tables::kHomingMode2,
    tables::kHomingMode3, tables::kHomingMode4, tables::kHomingMode5,
    tables::kHomingMode6, tables::kHomingMode7, tables::kHomingMode8,
};
constexpr int16_t kHomingFirstSubframeBits[9] = {63, 81, 100, 108, 116, 128, 136, 152, 156};

// True when the unpacked frame carries the homing pattern of `mode`: in its
// first subframe only (`firstSubframe`) or whole. At 23.85 kbit/s the HF
// gain bits are not part of the pattern and the whole frame is compared.
bool isHomingFrame(const uint8_t* bits, int mode, bool firstSubframe) {
  const int16_t* pattern = kHomingPatterns[mode];
  int count = firstSubframe ? kHomingFirstSubframeBits[mode] : tables::kSpeechBits[mode];
  if (mode == 8) count = 31 * 15 + 8;
  for (int b = 0; b < count; b++) {
    const int word = b / 15;
    const int shift = 14 - b % 15;
    if (mode == 8) {
      int mask = 0x7fff;
      if (word == 10) mask = 0x61ff;
      if (word == 17) mask = 0xe0ff;
      if (word == 24) mask = 0x7f0f;
      if (((mask >> shift) & 1) == 0) continue;
    }
    if (((pattern[word] >> shift) & 1) != bits[b]) return false;
  }
  return true;
}

}  // namespace

int frameBytesForType(int frameType) {
  if (frameType < 0 || frameType > 15) return 0;
  return kFrameBytes[frameType];
}

Decoder::Decoder() { reset(); }

void Decoder::reset() {
  resetComfortNoise();
  resetSpeech(true);
  prevMode_ = 0;
  homingPrev_ = true;
}

void Decoder::resetSpeech(bool all) {
  std::memset(excHist_, 0, sizeof excHist_);
  std::memset(isfPredRes_, 0, sizeof isfPredRes_);
  lastLag_ = 64;
  firstFrame_ = 1;
  noiseGainThres_ = 0;
  codeTilt_ = 0;
  std::memset(dispMem_, 0, sizeof dispMem_);
  excScalePrev_ = kQMax;
  for (Word16& q : excScaleHist_) q = kQMax;
  if (!all) return;

  for (Word16& e : pastQuaEn_) e = -14336;
  pastGainPit_ = pastGainCode_ = prevGainCode_ = 0;
  std::memset(pitGainBuf_, 0, sizeof pitGainBuf_);
  std::memset(codeGainBuf_, 0, sizeof codeGainBuf_);
  std::memset(pitGainBuf2_, 0, sizeof pitGainBuf2_);
  std::memset(upMem_, 0, sizeof upMem_);
  std::memset(hp50Mem_, 0, sizeof hp50Mem_);
  std::memset(hfBandMem_, 0, sizeof hfBandMem_);
  std::memset(hfLowMem_, 0, sizeof hfLowMem_);
  std::memset(hp400Mem_, 0, sizeof hp400Mem_);
  for (Word16& l : lagHist_) l = 64;
  std::memcpy(ispPrev_, tables::kIspStart, sizeof ispPrev_);
  std::memcpy(isfPrev_, tables::kIsfStart, sizeof isfPrev_);
  for (int k = 0; k < 3; k++) {
    std::memcpy(isfRecent_ + k * kOrder, tables::kIsfStart, sizeof tables::kIsfStart);
  }
  deemphMem_ = 0;
  seedErasure_ = seedHf_ = seedLag_ = 21845;
  bfiState_ = 0;
  prevBfi_ = 0;
  std::memset(hfSynMem_, 0, sizeof hfSynMem_);
  std::memset(synHi_, 0, sizeof synHi_);
  std::memset(synLo_, 0, sizeof synLo_);
  resetComfortNoise();
  vadHist_ = 0;
}

void Decoder::resetComfortNoise() {
  ComfortNoise& c = cn_;
  c.sinceLastSid = 0;
  c.sidPeriodInv = 1 << 13;
  c.logEn = c.prevLogEn = 3500;
  c.seed = 21845;
  c.histPos = 0;
  std::memcpy(c.isf, tables::kIsfStart, sizeof c.isf);
  std::memcpy(c.prevIsf, tables::kIsfStart, sizeof c.prevIsf);
  for (int i = 0; i < kHist; i++) {
    std::memcpy(c.isfHist + i * kOrder, tables::kIsfStart, sizeof tables::kIsfStart);
    c.logEnHist[i] = 3500;
  }
  c.hangoverCount = 7;
  c.elapsedCount = 32767;
  c.sidFrame = c.validData = c.hangoverAdded = 0;
  c.globalState = kSpeech;
  c.dataUpdated = 0;
  c.ditherSeed = 21845;
  c.dither = 0;
}

int Decoder::decodeFrame(const uint8_t* frame, size_t bytes, int16_t* out, bool badFrame) {
  if (frame == nullptr || bytes == 0) return -1;
  const uint8_t toc = frame[0];
  const int type = frameTypeOf(toc);
  int size = kFrameBytes[type];
  if (size < 1) size = 1;
  if (bytes < static_cast<size_t>(size)) return -1;
  const bool good = ((toc >> 2) & 1) != 0 && !badFrame;

  uint8_t bits[480];
  std::memset(bits, 0, sizeof bits);
  int rxType;
  int mode = prevMode_;
  if (type <= 8) {
    unsortBits(frame + 1, tables::kSortOrders[type], tables::kSpeechBits[type], bits);
    rxType = good ? kRxSpeechGood : kRxSpeechBad;
    mode = type;
  } else if (type == 9) {
    unsortBits(frame + 1, tables::kSortOrderSid, kSidBits, bits);
    const bool update = ((frame[1 + (kSidBits >> 3)] >> (7 - (kSidBits & 7))) & 1) != 0;
    rxType = good ? (update ? kRxSidUpdate : kRxSidFirst) : kRxSidBad;
  } else if (type == 14) {
    rxType = kRxSpeechLost;
  } else {
    rxType = kRxNoData;
  }
  prevMode_ = mode;

  // Homing: a homing frame right after a reset (or another homing frame)
  // outputs the homing pattern; any homing frame resets the decoder after
  // it is decoded.
  const bool hasBits = rxType != kRxNoData && rxType != kRxSpeechLost;
  bool homing = hasBits && homingPrev_ && isHomingFrame(bits, mode, true);
  if (homing) {
    for (int i = 0; i < kFrameSamples; i++) out[i] = 0x0008;
  } else {
    decodeParams(mode, rxType, bits, out);
  }
  if (!homingPrev_ && hasBits) homing = isHomingFrame(bits, mode, false);
  if (homing) resetSpeech(true);
  homingPrev_ = homing;
  for (int i = 0; i < kFrameSamples; i++) out[i] = static_cast<int16_t>(out[i] & 0xfffc);
  return size;
}

void Decoder::decodeParams(int mode, int rxType, const uint8_t* bitArray, int16_t* out) {
  BitCursor prm{bitArray};
  Word16 exc2[kFrame];
  Word16 isf[kOrder];
  Word16 ispNew[kOrder];
  Word16 aq[4 * (kOrder + 1)];
  Word16 isfTmp[kOrder];
  Word16 hfIsf[kOrderHf];

  const int newState = rxDtxState(rxType);
  if (newState != kSpeech) comfortNoiseFrame(exc2, newState, isf, prm);

  bool bfi, unusable;
  if (rxType == kRxSpeechBad) {
    bfi = true;
    unusable = false;
  } else if (rxType == kRxNoData || rxType == kRxSpeechLost) {
    bfi = unusable = true;
  } else {
    bfi = unusable = false;
  }
  if (bfi) {
    bfiState_ = add(bfiState_, 1);
    if (bfiState_ > 6) bfiState_ = 6;
  } else {
    bfiState_ = shr(bfiState_, 1);
  }
  // First speech frame after a comfort-noise period: start the erasure
  // state machine at 5 (muted when the noise itself was muted).
  if (cn_.globalState == kDtx) {
    bfiState_ = 5;
    prevBfi_ = 0;
  } else if (cn_.globalState == kDtxMute) {
    bfiState_ = 5;
    prevBfi_ = 1;
  }

  if (newState == kSpeech) {
    const Word16 vad = prm.take(1);
    if (!bfi) vadHist_ = vad == 0 ? add(vadHist_, 1) : static_cast<Word16>(0);
  }

  if (newState != kSpeech) {
    // Comfort noise: one filter for the whole frame, HF from the noise.
    isfToIsp(isf, ispNew, kOrder);
    ispToLpc(ispNew, aq, kOrder, true);
    std::memcpy(isfTmp, isfPrev_, sizeof isfTmp);
    for (int s = 0; s < 4; s++) {
      for (int i = 0; i < kOrder; i++) {
        Word32 t = L_mult(isfTmp[i], sub(32767, kSubframeFrac[s]));
        t = L_mac(t, isf[i], kSubframeFrac[s]);
        hfIsf[i] = round(t);
      }
      synthesise(aq, exc2 + s * kSub, 0, out + s * kSub16, 1, hfIsf, mode, newState, bfi);
    }
    resetSpeech(false);
    std::memcpy(isfPrev_, isf, sizeof isfPrev_);
    prevBfi_ = bfi;
    cn_.globalState = static_cast<Word16>(newState);
    return;
  }

  // ---- ACELP frame ----
  Word16 excBuf[kFrame + 1 + kExcHist];
  std::memcpy(excBuf, excHist_, sizeof excHist_);
  Word16* exc = excBuf + kExcHist;

  Word16 ind[8];
  if (mode == 0) {
    ind[0] = prm.take(8);
    ind[1] = prm.take(8);
    ind[2] = prm.take(7);
    ind[3] = prm.take(7);
    ind[4] = prm.take(6);
    decodeIsf(ind, isf, bfi, true);
  } else {
    ind[0] = prm.take(8);
    ind[1] = prm.take(8);
    ind[2] = prm.take(6);
    ind[3] = prm.take(7);
    ind[4] = prm.take(7);
    ind[5] = prm.take(5);
    ind[6] = prm.take(5);
    decodeIsf(ind, isf, bfi, false);
  }
  isfToIsp(isf, ispNew, kOrder);
  if (firstFrame_) {
    firstFrame_ = 0;
    std::memcpy(ispPrev_, ispNew, sizeof ispPrev_);
  }
  interpolateIsp(ispPrev_, ispNew, aq);
  std::memcpy(ispPrev_, ispNew, sizeof ispPrev_);

  // Stability of the envelope: distance between old and new ISFs.
  Word32 dist = 0;
  for (int i = 0; i < kOrder - 1; i++) {
    const Word16 d = sub(isf[i], isfPrev_[i]);
    dist = L_mac(dist, d, d);
  }
  Word16 tmp = extract_h(L_shl(dist, 8));
  tmp = mult(tmp, 26214);
  tmp = sub(20480, tmp);
  Word16 stabFac = shl(tmp, 1);
  if (stabFac < 0) stabFac = 0;
  std::memcpy(isfTmp, isfPrev_, sizeof isfTmp);
  std::memcpy(isfPrev_, isf, sizeof isfPrev_);

  const bool lowRate = mode <= 1;  // 8-bit lags, 6-bit gains, no LTP filter bit
  Word16 t0 = 0, t0Frac = 0, t0Min = 0, t0Max;
  Word16 qNew = 0;
  Word16 code[kSub], code2[kSub], excp[kSub];
  const Word16* aSub = aq;

  for (int s = 0; s < 4; s++) {
    const int base = s * kSub;
    const bool absoluteLag = (s == 0) || (s == 2 && mode > 0);

    if (absoluteLag) {
      if (lowRate) {
        Word16 index = prm.take(8);
        if (index < (kPitFr1Lo - kPitMin) * 2) {
          t0 = add(kPitMin, shr(index, 1));
          t0Frac = shl(sub(index, shl(sub(t0, kPitMin), 1)), 1);
        } else {
          t0 = add(index, kPitFr1Lo - (kPitFr1Lo - kPitMin) * 2);
          t0Frac = 0;
        }
      } else {
        Word16 index = prm.take(9);
        if (index < (kPitFr2 - kPitMin) * 4) {
          t0 = add(kPitMin, shr(index, 2));
          t0Frac = sub(index, shl(sub(t0, kPitMin), 2));
        } else if (index < (kPitFr2 - kPitMin) * 4 + (kPitFr1Hi - kPitFr2) * 2) {
          index = sub(index, (kPitFr2 - kPitMin) * 4);
          t0 = add(kPitFr2, shr(index, 1));
          t0Frac = shl(sub(index, shl(sub(t0, kPitFr2), 1)), 1);
        } else {
          t0 = add(index, kPitFr1Hi - (kPitFr2 - kPitMin) * 4 - (kPitFr1Hi - kPitFr2) * 2);
          t0Frac = 0;
        }
      }
      t0Min = sub(t0, 8);
      if (t0Min < kPitMin) t0Min = kPitMin;
      t0Max = add(t0Min, 15);
      if (t0Max > kPitMaxLag) {
        t0Max = kPitMaxLag;
        t0Min = sub(t0Max, 15);
      }
    } else if (lowRate) {
      const Word16 index = prm.take(5);
      t0 = add(t0Min, shr(index, 1));
      t0Frac = shl(sub(index, shl(sub(t0, t0Min), 1)), 1);
    } else {
      const Word16 index = prm.take(6);
      t0 = add(t0Min, shr(index, 2));
      t0Frac = sub(index, shl(sub(t0, t0Min), 2));
    }

    if (bfi) {
      lagConcealment(t0, unusable);
      t0Frac = 0;
    }

    // Adaptive codebook, optionally smoothed by the LTP low-pass filter.
    predictLongTerm(exc + base, t0, t0Frac, kSub + 1, true);
    int ltpFilter;
    if (unusable) {
      ltpFilter = 1;
    } else if (lowRate) {
      ltpFilter = 0;
    } else {
      ltpFilter = prm.take(1);
    }
    if (ltpFilter == 0) {
      for (int i = 0; i < kSub; i++) {
        const int32_t t = (exc[base + i - 1] + exc[base + i + 1]) * 5898 + exc[base + i] * 20972;
        code[i] = roundWrap(wrapShl(t, 1));
      }
      std::memcpy(exc + base, code, sizeof code);
    }

    // Innovation.
    if (unusable) {
      for (int i = 0; i < kSub; i++) code[i] = shr(nextRandom(seedErasure_), 3);
    } else {
      Word16 idx[8];
      switch (mode) {
        case 0:
          decodePulses2Track(prm.take(12), code);
          break;
        case 1:
          for (int i = 0; i < 4; i++) idx[i] = prm.take(5);
          decodePulses4Track(idx, 20, code);
          break;
        case 2:
          for (int i = 0; i < 4; i++) idx[i] = prm.take(9);
          decodePulses4Track(idx, 36, code);
          break;
        case 3:
          idx[0] = prm.take(13);
          idx[1] = prm.take(13);
          idx[2] = prm.take(9);
          idx[3] = prm.take(9);
          decodePulses4Track(idx, 44, code);
          break;
        case 4:
          for (int i = 0; i < 4; i++) idx[i] = prm.take(13);
          decodePulses4Track(idx, 52, code);
          break;
        case 5:
          for (int i = 0; i < 4; i++) idx[i] = prm.take(2);
          for (int i = 4; i < 8; i++) idx[i] = prm.take(14);
          decodePulses4Track(idx, 64, code);
          break;
        case 6:
          idx[0] = prm.take(10);
          idx[1] = prm.take(10);
          idx[2] = prm.take(2);
          idx[3] = prm.take(2);
          idx[4] = prm.take(10);
          idx[5] = prm.take(10);
          idx[6] = prm.take(14);
          idx[7] = prm.take(14);
          decodePulses4Track(idx, 72, code);
          break;
        default:
          for (int i = 0; i < 8; i++) idx[i] = prm.take(11);
          decodePulses4Track(idx, 88, code);
          break;
      }
    }

    // Tilt compensation and pitch sharpening of the innovation.
    // (the filter memory is zero at the start of every subframe)
    for (int i = kSub - 1; i > 0; i--) {
      code[i] = roundWrap(L_msu(L_deposit_h(code[i]), code[i - 1], codeTilt_));
    }
    {
      Word16 lag = t0;
      if (t0Frac > 2) lag = add(lag, 1);
      for (int i = lag; i < kSub; i++) {
        code[i] = roundWrap(L_mac(L_deposit_h(code[i]), code[i - lag], kPitSharp));
      }
    }

    Word16 gainPit;
    Word32 gainCodeL;
    const Word16 gainIndex = prm.take(lowRate ? 6 : 7);
    decodeGains(gainIndex, lowRate ? 6 : 7, code, gainPit, gainCodeL, bfi, unusable);

    // Excitation scaling for this subframe.
    tmp = excScaleHist_[0];
    for (int i = 1; i < 4; i++) {
      if (excScaleHist_[i] < tmp) tmp = excScaleHist_[i];
    }
    if (tmp > kQMax) tmp = kQMax;
    qNew = 0;
    Word32 lt = gainCodeL;
    while (lt < 0x08000000L && qNew < tmp) {
      lt = L_shl(lt, 1);
      qNew = add(qNew, 1);
    }
    Word16 gainCode = roundWrap(lt);
    scaleSignal(exc + base - kExcHist, kExcHist + kSub, sub(qNew, excScalePrev_));
    excScalePrev_ = qNew;

    if (!bfi) {
      for (int i = 4; i > 0; i--) lagHist_[i] = lagHist_[i - 1];
      lagHist_[0] = t0;
      lastLag_ = t0;
    }

    // Voicing and the pitch-enhanced excitation of the low modes.
    for (int i = 0; i < kSub; i++) {
      const Word16 x = exc[base + i];
      exc2[i] = static_cast<Word16>((x + (x != fx::MAX_16 ? 4 : 0)) >> 3);
    }
    Word16 pitSharp = 0;
    if (lowRate) {
      pitSharp = shl(gainPit, 1);
      if (pitSharp > 16384) {
        for (int i = 0; i < kSub; i++) {
          const Word16 t = mult(exc2[i], pitSharp);
          excp[i] = roundWrap(L_shr(L_mult(t, gainPit), 1));
        }
      }
    }
    const Word16 voiceFac = voiceFactor(exc2, -3, gainPit, code, gainCode, true);
    codeTilt_ = add(shr(voiceFac, 2), 8192);

    std::memcpy(exc2, exc + base, kSub * sizeof(Word16));
    for (int i = 0; i < kSub; i++) {
      Word32 t = L_shl(L_mult(code[i], gainCode), 5);
      t = L_mac(t, exc[base + i], gainPit);
      exc[base + i] = roundWrap(L_shl(t, 1));
    }
    Word16 peak = 1;
    for (int i = 0; i < kSub; i++) {
      const Word16 a = abs_s(exc[base + i]);
      if (a > peak) peak = a;
    }
    excScaleHist_[3] = excScaleHist_[2];
    excScaleHist_[2] = excScaleHist_[1];
    excScaleHist_[1] = excScaleHist_[0];
    excScaleHist_[0] = sub(add(norm_s(peak), qNew), 1);

    Word16 gcHi, gcLo;
    L_Extract(gainCodeL, gcHi, gcLo);
    disperse(gcHi, gainPit, code, mode == 0 ? 0 : (mode == 1 ? 1 : 2));

    // Noise enhancer: pull the code gain towards a smoothed threshold.
    tmp = sub(16384, shr(voiceFac, 1));
    const Word16 fac = mult(stabFac, tmp);
    lt = gainCodeL;
    if (lt < noiseGainThres_) {
      lt = L_add(lt, Mpy_32_16(gcHi, gcLo, 6226));
      if (lt > noiseGainThres_) lt = noiseGainThres_;
    } else {
      lt = Mpy_32_16(gcHi, gcLo, 27536);
      if (lt < noiseGainThres_) lt = noiseGainThres_;
    }
    noiseGainThres_ = lt;
    gainCodeL = Mpy_32_16(gcHi, gcLo, sub(32767, fac));
    L_Extract(lt, gcHi, gcLo);
    gainCodeL = L_add(gainCodeL, Mpy_32_16(gcHi, gcLo, fac));

    // Pitch enhancer: high-pass the innovation on voiced frames.
    tmp = add(shr(voiceFac, 3), 4096);
    // (the two neighbours are summed first, in 16 bits)
    code2[0] = roundWrap(L_msu(L_deposit_h(code[0]), code[1], tmp));
    for (int i = 1; i < kSub - 1; i++) {
      const Word16 sides = static_cast<Word16>(code[i + 1] + code[i - 1]);
      code2[i] = roundWrap(L_msu(L_deposit_h(code[i]), sides, tmp));
    }
    code2[kSub - 1] = roundWrap(L_msu(L_deposit_h(code[kSub - 1]), code[kSub - 2], tmp));

    gainCode = roundWrap(L_shl(gainCodeL, qNew));
    for (int i = 0; i < kSub; i++) {
      Word32 t = L_shl(L_mult(code2[i], gainCode), 5);
      t = L_mac(t, exc2[i], gainPit);
      exc2[i] = roundWrap(L_shl(t, 1));
    }
    if (lowRate && pitSharp > 16384) {
      for (int i = 0; i < kSub; i++) excp[i] = add(excp[i], exc2[i]);
      agc(exc2, excp, kSub);
      std::memcpy(exc2, excp, sizeof excp);
    }

    if (mode == 0) {
      for (int i = 0; i < kOrder; i++) {
        Word32 t = L_mult(isfTmp[i], sub(32767, kSubframeFrac[s]));
        t = L_mac(t, isf[i], kSubframeFrac[s]);
        hfIsf[i] = round(t);
      }
    } else {
      std::memset(hfSynMem_, 0, (kOrderHf - kOrder) * sizeof(Word16));
    }

    const Word16 hfGain = (mode == 8) ? prm.take(4) : 0;
    synthesise(aSub, exc2, qNew, out + s * kSub16, hfGain, hfIsf, mode, newState, bfi);
    aSub += kOrder + 1;
  }

  std::memcpy(excHist_, excBuf + kFrame, sizeof excHist_);
  scaleSignal(exc, kFrame, negate(qNew));
  comfortNoiseUpdate(isf, exc);
  cn_.globalState = static_cast<Word16>(newState);
  prevBfi_ = bfi;
}

}  // namespace quillon::amrwb
