// SILK bitstream parsing: range decoder, frame parameters and excitation
// pulses, NLSF dequantisation.
#include <algorithm>
#include <cstring>

#include "engines/silk/silk_decoder.h"
#include "engines/silk/silk_tables.h"

namespace quillon::silk {

using B = fx::BasicOps;

namespace {

// Range-coder failure codes (kept in RangeDecoder::error).
constexpr int32_t kRcCdfOutOfRange = -2;
constexpr int32_t kRcNormalisation = -3;
constexpr int32_t kRcZeroInterval = -4;
constexpr int32_t kRcTailCheck = -5;
constexpr int32_t kRcReadBeyond = -6;
constexpr int32_t kRcBadRate = -7;
constexpr int32_t kRcTooLong = -8;

constexpr int kMaxPulses = 18;
constexpr int kRateLevels = 10;
constexpr int kMinDeltaGain = -4;
constexpr int kNlsfStabiliseLoops = 20;
constexpr int32_t kBweAfterLossQ16 = 63570;

// Gain index to linear gain: 2^(index scaled to Q7 log domain).
int32_t log2lin(int32_t inQ7) {
  if (inQ7 < 0) return 0;
  if (inQ7 >= (31 << 7)) return fx::MAX_32;
  int32_t out = 1 << (inQ7 >> 7);
  int32_t frac = inQ7 & 0x7f;
  int32_t bend = B::sp_smlawb(frac, frac * (128 - frac), -174);
  if (inQ7 < 2048) return out + ((out * bend) >> 7);
  return out + (out >> 7) * bend;
}

void dequantGains(int32_t* gainsQ16, const int32_t* idx, int32_t& prev, bool deltaFirst) {
  // OFFSET and INV_SCALE of the log-gain quantiser (6..86 dB, 64 levels).
  constexpr int32_t kOffset = (6 * 128) / 6 + 16 * 128;
  constexpr int32_t kInvScaleQ16 = (65536 * (((86 - 6) * 128) / 6)) / (64 - 1);
  for (int k = 0; k < kSubframes; k++) {
    if (k == 0 && !deltaFirst)
      prev = idx[k];
    else
      prev += idx[k] + kMinDeltaGain;
    int32_t lg = B::sp_smulwb(kInvScaleQ16, prev) + kOffset;
    gainsQ16[k] = log2lin(lg < 3967 ? lg : 3967);
  }
}

void decodeShellSplit(int32_t* a, int32_t* b, RangeDecoder& rc, int32_t total, const uint16_t* table) {
  if (total > 0) {
    *a = rangeDecode(rc, &table[kShellCdfOffset[total]], total >> 1);
    *b = total - *a;
  } else {
    *a = 0;
    *b = 0;
  }
}

// Splits the pulse count of a 16-sample block recursively into halves.
void decodeShellBlock(int32_t* q, RangeDecoder& rc, int32_t total) {
  int32_t p3[2], p2[4], p1[8];
  decodeShellSplit(&p3[0], &p3[1], rc, total, kShellCdf3);
  for (int i = 0; i < 2; i++) {
    decodeShellSplit(&p2[2 * i], &p2[2 * i + 1], rc, p3[i], kShellCdf2);
    for (int j = 2 * i; j < 2 * i + 2; j++) {
      decodeShellSplit(&p1[2 * j], &p1[2 * j + 1], rc, p2[j], kShellCdf1);
      for (int m = 2 * j; m < 2 * j + 2; m++)
        decodeShellSplit(&q[2 * m], &q[2 * m + 1], rc, p1[m], kShellCdf0);
    }
  }
}

void decodePulses(RangeDecoder& rc, FrameParams& fp, int32_t* q, int frameLength) {
  fp.rateLevel = rangeDecode(rc, &kRateLevelCdf[fp.sigType * kRateLevels], kRateLevelStart);
  const int blocks = frameLength / kShellBlock;
  int32_t sums[kMaxFrameLength / kShellBlock];
  int32_t extraBits[kMaxFrameLength / kShellBlock];
  const uint16_t* cdf = &kPulsesPerBlockCdf[fp.rateLevel * (kMaxPulses + 3)];
  for (int i = 0; i < blocks; i++) {
    extraBits[i] = 0;
    sums[i] = rangeDecode(rc, cdf, kPulsesPerBlockStart);
    while (sums[i] == kMaxPulses + 1) {
      extraBits[i]++;
      sums[i] = rangeDecode(rc, &kPulsesPerBlockCdf[(kRateLevels - 1) * (kMaxPulses + 3)],
                            kPulsesPerBlockStart);
    }
  }
  for (int i = 0; i < blocks; i++) {
    if (sums[i] > 0)
      decodeShellBlock(&q[i * kShellBlock], rc, sums[i]);
    else
      std::memset(&q[i * kShellBlock], 0, kShellBlock * sizeof(int32_t));
  }
  for (int i = 0; i < blocks; i++) {
    if (extraBits[i] == 0) continue;
    int32_t* block = &q[i * kShellBlock];
    for (int k = 0; k < kShellBlock; k++) {
      int32_t v = block[k];
      for (int j = 0; j < extraBits[i]; j++) v = (v << 1) + rangeDecode(rc, kLsbCdf, 1);
      block[k] = v;
    }
  }
  // Signs, with a probability that depends on the frame's class.
  const uint16_t signCdf[3] = {
      0, kSignCdf[(kRateLevels - 1) * ((fp.sigType << 1) + fp.offsetType) + fp.rateLevel], 65535};
  for (int i = 0; i < frameLength; i++) {
    if (q[i] > 0) q[i] *= (rangeDecode(rc, signCdf, 1) << 1) - 1;
  }
}

void decodePitchLags(int32_t lagIndex, int32_t contour, int32_t* lags, int fsKhz) {
  const int32_t lag = 2 * fsKhz + lagIndex;
  if (fsKhz == 8) {
    for (int i = 0; i < kSubframes; i++) lags[i] = lag + kPitchContourNbLags[i * 11 + contour];
  } else {
    for (int i = 0; i < kSubframes; i++) lags[i] = lag + kPitchContourLags[i * 34 + contour];
  }
}

// Enforces the codebook's minimum spacing between sorted NLSFs.
void stabiliseNlsf(int32_t* nlsf, const int32_t* minDelta, int order) {
  int loop;
  for (loop = 0; loop < kNlsfStabiliseLoops; loop++) {
    int32_t minDiff = nlsf[0] - minDelta[0];
    int worst = 0;
    for (int i = 1; i < order; i++) {
      int32_t d = nlsf[i] - (nlsf[i - 1] + minDelta[i]);
      if (d < minDiff) {
        minDiff = d;
        worst = i;
      }
    }
    int32_t top = (1 << 15) - (nlsf[order - 1] + minDelta[order]);
    if (top < minDiff) {
      minDiff = top;
      worst = order;
    }
    if (minDiff >= 0) return;
    if (worst == 0) {
      nlsf[0] = minDelta[0];
    } else if (worst == order) {
      nlsf[order - 1] = (1 << 15) - minDelta[order];
    } else {
      int32_t lowest = 0;
      for (int k = 0; k < worst; k++) lowest += minDelta[k];
      lowest += minDelta[worst] >> 1;
      int32_t highest = 1 << 15;
      for (int k = order; k > worst; k--) highest -= minDelta[k];
      highest -= minDelta[worst] - (minDelta[worst] >> 1);
      int32_t centre = B::sp_rshift_round(nlsf[worst - 1] + nlsf[worst], 1);
      centre = centre > highest ? highest : (centre < lowest ? lowest : centre);
      nlsf[worst - 1] = centre - (minDelta[worst] >> 1);
      nlsf[worst] = nlsf[worst - 1] + minDelta[worst];
    }
  }
  // Fallback: sort, then push apart from both ends.
  for (int i = 1; i < order; i++) {
    int32_t v = nlsf[i];
    int j = i - 1;
    for (; j >= 0 && v < nlsf[j]; j--) nlsf[j + 1] = nlsf[j];
    nlsf[j + 1] = v;
  }
  if (nlsf[0] < minDelta[0]) nlsf[0] = minDelta[0];
  for (int i = 1; i < order; i++)
    if (nlsf[i] < nlsf[i - 1] + minDelta[i]) nlsf[i] = nlsf[i - 1] + minDelta[i];
  if (nlsf[order - 1] > (1 << 15) - minDelta[order]) nlsf[order - 1] = (1 << 15) - minDelta[order];
  for (int i = order - 2; i >= 0; i--)
    if (nlsf[i] > nlsf[i + 1] - minDelta[i + 1]) nlsf[i] = nlsf[i + 1] - minDelta[i + 1];
}

void decodeNlsf(int32_t* nlsf, const NlsfCodebook& cb, const int32_t* idx) {
  const int order = cb.order;
  const int16_t* v = &cb.vectors[idx[0] * order];
  for (int i = 0; i < order; i++) nlsf[i] = v[i];
  int32_t base = cb.stageSize[0];
  for (int s = 1; s < cb.stages; s++) {
    v = &cb.vectors[(base + idx[s]) * order];
    for (int i = 0; i < order; i++) nlsf[i] += v[i];
    base += cb.stageSize[s];
  }
  stabiliseNlsf(nlsf, cb.minDelta, order);
}

}  // namespace

void rangeInit(RangeDecoder& rc, const uint8_t* payload, int32_t nBytes) {
  if (nBytes > kMaxPayloadBytes || nBytes < 0) {
    rc.error = kRcTooLong;
    return;
  }
  std::memcpy(rc.data, payload, static_cast<size_t>(nBytes));
  rc.length = nBytes;
  rc.index = 0;
  // The first four bytes are read whatever the payload length.
  rc.base = (static_cast<uint32_t>(payload[0]) << 24) | (static_cast<uint32_t>(payload[1]) << 16) |
            (static_cast<uint32_t>(payload[2]) << 8) | payload[3];
  rc.range = 0xffff;
  rc.error = 0;
}

int32_t rangeDecode(RangeDecoder& rc, const uint16_t* cdf, int32_t start) {
  if (rc.error) return 0;
  uint32_t base = rc.base;
  uint32_t range = rc.range;
  int32_t idx = start;
  uint32_t hi = cdf[idx];
  uint32_t lo;
  if (range * hi > base) {
    // Walk down until the lower edge is at or below base.
    for (;;) {
      lo = cdf[--idx];
      if (range * lo <= base) break;
      hi = lo;
      if (hi == 0) {
        rc.error = kRcCdfOutOfRange;
        return 0;
      }
    }
  } else {
    for (;;) {
      lo = hi;
      hi = cdf[++idx];
      if (range * hi > base) {
        idx--;
        break;
      }
      if (hi == 0xffff) {
        rc.error = kRcCdfOutOfRange;
        return 0;
      }
    }
  }
  base -= range * lo;
  uint32_t width = range * (hi - lo);
  int32_t pos = rc.index;
  // Payload bytes are read four positions behind the copy's start, as the
  // first four went into base at initialisation.
  const uint8_t* bytes = rc.data + 4;
  if (width & 0xff000000u) {
    range = width >> 16;
  } else {
    if (width & 0xffff0000u) {
      range = width >> 8;
      if (base >> 24) {
        rc.error = kRcNormalisation;
        return 0;
      }
    } else {
      range = width;
      if (base >> 16) {
        rc.error = kRcNormalisation;
        return 0;
      }
      base <<= 8;
      if (pos < rc.length) base |= bytes[pos++];
    }
    base <<= 8;
    if (pos < rc.length) base |= bytes[pos++];
  }
  if (range == 0) {
    rc.error = kRcZeroInterval;
    return 0;
  }
  rc.base = base;
  rc.range = range;
  rc.index = pos;
  return idx;
}

int32_t rangeBytesUsed(const RangeDecoder& rc, int32_t* bits) {
  int32_t nBits = (rc.index << 3) + B::sp_clz32(static_cast<int32_t>(rc.range - 1)) - 14;
  if (bits) *bits = nBits;
  return (nBits + 7) >> 3;
}

void rangeCheckTail(RangeDecoder& rc) {
  int32_t bits;
  int32_t nBytes = rangeBytesUsed(rc, &bits);
  if (nBytes - 1 >= rc.length) {
    rc.error = kRcTailCheck;
    return;
  }
  if (bits & 7) {
    int mask = 0xff >> (bits & 7);
    if ((rc.data[nBytes - 1] & mask) != mask) rc.error = kRcTailCheck;
  }
}

void setInternalRate(DecoderState& st, int32_t fsKhz) {
  if (st.fsKhz == fsKhz) return;
  st.fsKhz = fsKhz;
  st.frameLength = 20 * fsKhz;
  st.subframeLength = 5 * fsKhz;
  st.lpcOrder = fsKhz == 8 ? 10 : 16;
  std::memset(st.lpcStateQ14, 0, kMaxLpcOrder * sizeof(int32_t));
  std::fill_n(st.history, kMaxFrameLength, int16_t{0});  // the previous frame
  std::memset(st.prevNlsfQ15, 0, sizeof(st.prevNlsfQ15));
  st.lagPrev = 100;
  st.lastGainIndex = 1;
  st.prevSigType = 0;
  st.firstFrameAfterReset = 1;
  const int rateIndex = fsKhz == 8 ? 0 : fsKhz == 12 ? 1 : fsKhz == 16 ? 2 : 3;
  st.highPass = &kHighPassQ13[rateIndex * 5];
}

void decodeParameters(DecoderState& st, FrameParams& fp, int32_t* pulses, bool full) {
  RangeDecoder& rc = st.rc;
  const bool firstInPacket = st.framesDecoded == 0;

  if (firstInPacket) {
    int32_t ix = rangeDecode(rc, kInternalRateCdf, kInternalRateStart);
    if (ix < 0 || ix > 3) {
      rc.error = kRcBadRate;
      return;
    }
    setInternalRate(st, kInternalRatesKhz[ix]);
  }

  int32_t ix = firstInPacket ? rangeDecode(rc, kTypeOffsetCdf, kTypeOffsetStart)
                             : rangeDecode(rc, &kTypeOffsetJointCdf[st.typeOffsetPrev * 5], kTypeOffsetStart);
  fp.sigType = ix >> 1;
  fp.offsetType = ix & 1;
  st.typeOffsetPrev = ix;

  int32_t gainIdx[kSubframes];
  gainIdx[0] = firstInPacket ? rangeDecode(rc, &kGainCdf[fp.sigType * 65], kGainStart)
                             : rangeDecode(rc, kDeltaGainCdf, kDeltaGainStart);
  for (int i = 1; i < kSubframes; i++) gainIdx[i] = rangeDecode(rc, kDeltaGainCdf, kDeltaGainStart);
  dequantGains(fp.gainsQ16, gainIdx, st.lastGainIndex, !firstInPacket);

  const NlsfCodebook& cb = st.lpcOrder == 10 ? (fp.sigType ? kNlsfCB1o10 : kNlsfCB0o10)
                                             : (fp.sigType ? kNlsfCB1o16 : kNlsfCB0o16);
  int32_t nlsfIdx[10];
  for (int s = 0; s < cb.stages; s++)
    nlsfIdx[s] = rangeDecode(rc, &cb.cdf[cb.cdfStart[s]], cb.cdfMiddle[s]);
  int32_t nlsf[kMaxLpcOrder];
  decodeNlsf(nlsf, cb, nlsfIdx);

  fp.nlsfInterpQ2 = rangeDecode(rc, kNlsfInterpCdf, kNlsfInterpStart);
  if (st.firstFrameAfterReset == 1) fp.nlsfInterpQ2 = 4;

  const int order = st.lpcOrder;
  if (full) {
    nlsfToLpcStable(fp.lpcQ12[1], nlsf, order);
    if (fp.nlsfInterpQ2 < 4) {
      int32_t mid[kMaxLpcOrder];
      for (int i = 0; i < order; i++)
        mid[i] = st.prevNlsfQ15[i] + ((fp.nlsfInterpQ2 * (nlsf[i] - st.prevNlsfQ15[i])) >> 2);
      nlsfToLpcStable(fp.lpcQ12[0], mid, order);
    } else {
      std::memcpy(fp.lpcQ12[0], fp.lpcQ12[1], order * sizeof(int16_t));
    }
  }
  std::memcpy(st.prevNlsfQ15, nlsf, order * sizeof(int32_t));

  if (st.lossCount) {
    bandwidthExpand(fp.lpcQ12[0], order, kBweAfterLossQ16);
    bandwidthExpand(fp.lpcQ12[1], order, kBweAfterLossQ16);
  }

  if (fp.sigType == kVoiced) {
    int32_t lagIdx, contour;
    switch (st.fsKhz) {
      case 8: lagIdx = rangeDecode(rc, kPitchLagNbCdf, kPitchLagNbStart); break;
      case 12: lagIdx = rangeDecode(rc, kPitchLagMbCdf, kPitchLagMbStart); break;
      case 16: lagIdx = rangeDecode(rc, kPitchLagWbCdf, kPitchLagWbStart); break;
      default: lagIdx = rangeDecode(rc, kPitchLagSwbCdf, kPitchLagSwbStart); break;
    }
    if (st.fsKhz == 8)
      contour = rangeDecode(rc, kPitchContourNbCdf, kPitchContourNbStart);
    else
      contour = rangeDecode(rc, kPitchContourCdf, kPitchContourStart);
    decodePitchLags(lagIdx, contour, fp.pitchLag, st.fsKhz);

    fp.periodicity = rangeDecode(rc, kLtpPeriodicityCdf, kLtpPeriodicityStart);
    static const uint16_t* const kGainCdfs[3] = {kLtpGainCdf0, kLtpGainCdf1, kLtpGainCdf2};
    static const int16_t* const kTaps[3] = {kLtpTaps0Q14, kLtpTaps1Q14, kLtpTaps2Q14};
    for (int k = 0; k < kSubframes; k++) {
      int32_t t = rangeDecode(rc, kGainCdfs[fp.periodicity], kLtpGainStart[fp.periodicity]);
      std::memcpy(&fp.ltpTapsQ14[k * kLtpOrder], &kTaps[fp.periodicity][t * kLtpOrder],
                  kLtpOrder * sizeof(int16_t));
    }
    fp.ltpScaleQ14 = kLtpScaleQ14[rangeDecode(rc, kLtpScaleCdf, kLtpScaleStart)];
  } else {
    std::memset(fp.pitchLag, 0, sizeof(fp.pitchLag));
    std::memset(fp.ltpTapsQ14, 0, sizeof(fp.ltpTapsQ14));
    fp.periodicity = 0;
    fp.ltpScaleQ14 = 0;
  }

  fp.seed = rangeDecode(rc, kSeedCdf, kSeedStart);
  decodePulses(rc, fp, pulses, st.frameLength);
  st.vadFlag = rangeDecode(rc, kVadFlagCdf, kVadFlagStart);
  st.frameTermination = rangeDecode(rc, kFrameTerminationCdf, kFrameTerminationStart);

  st.bytesLeft = rc.length - rangeBytesUsed(rc, nullptr);
  if (st.bytesLeft < 0) rc.error = kRcReadBeyond;
  if (st.bytesLeft == 0) rangeCheckTail(rc);
}

}  // namespace quillon::silk
