// SILK signal reconstruction: excitation, long- and short-term synthesis,
// packet-loss concealment, comfort noise and the output high-pass filter.
#include <cstring>

#include "engines/silk/silk_decoder.h"
#include "engines/silk/silk_tables.h"

namespace quillon::silk {

using B = fx::BasicOps;

namespace {

constexpr int kRandBufSize = 128;
constexpr int32_t kPlcBweQ16 = 64880;
constexpr int32_t kPitchGainMinQ14 = 11469;
constexpr int32_t kPitchGainMaxQ14 = 15565;
constexpr int kMaxPitchLagMs = 18;
constexpr int32_t kPitchDriftQ16 = 655;
constexpr int kInvGainHighLog2 = 3;
constexpr int kInvGainLowLog2 = 8;
constexpr int16_t kHarmonicAttQ15[2] = {32440, 31130};
constexpr int16_t kRandAttVoicedQ15[2] = {31130, 26214};
constexpr int16_t kRandAttUnvoicedQ15[2] = {32440, 29491};
constexpr int32_t kCngGainSmoothQ16 = 4634;
constexpr int32_t kCngNlsfSmoothQ16 = 16348;

// Prediction error filter (MA), used to re-whiten past output for the LTP.
void maPredict(const int16_t* in, const int16_t* b, int32_t* s, int16_t* out, int len, int order) {
  for (int k = 0; k < len; k++) {
    const int32_t x = in[k];
    const int32_t e = B::sp_rshift_round(B::sp_sub(x << 12, s[0]), 12);
    for (int d = 0; d < order - 1; d++) s[d] = B::sp_add(s[d + 1], x * b[d]);
    s[order - 1] = x * b[order - 1];
    out[k] = B::sp_sat16(e);
  }
}

// Short-term synthesis of one subframe; state holds 16 past values (Q14)
// followed by room for the new ones.
template <int Order>
void shortTermSynthesis(int32_t* outQ10, const int32_t* resQ10, int32_t* stateQ14, const int16_t* aQ12, int len) {
  for (int i = 0; i < len; i++) {
    const int32_t* s = &stateQ14[kMaxLpcOrder + i - 1];
    int64_t acc = 0;
    for (int j = 0; j < Order; j++) acc += (static_cast<int64_t>(s[-j]) * aQ12[j]) >> 16;
    const int32_t v = B::sp_add(resQ10[i], static_cast<int32_t>(acc));
    outQ10[i] = v;
    stateQ14[kMaxLpcOrder + i] = B::sp_shl(v, 4);
  }
}

inline int32_t ltpPredict(const int32_t* p, const int16_t* b) {
  int64_t acc = (static_cast<int64_t>(p[0]) * b[0]) >> 16;
  acc += (static_cast<int64_t>(p[-1]) * b[1]) >> 16;
  acc += (static_cast<int64_t>(p[-2]) * b[2]) >> 16;
  acc += (static_cast<int64_t>(p[-3]) * b[3]) >> 16;
  acc += (static_cast<int64_t>(p[-4]) * b[4]) >> 16;
  return static_cast<int32_t>(acc);
}

void plcUpdate(DecoderState& st, const FrameParams& fp) {
  PlcState& plc = st.plc;
  st.prevSigType = fp.sigType;
  int32_t ltpGain = 0;
  if (fp.sigType == kVoiced) {
    // Taps of the latest subframe that still holds a whole pitch period.
    for (int j = 0; j * st.subframeLength < fp.pitchLag[kSubframes - 1]; j++) {
      const int16_t* taps = &fp.ltpTapsQ14[(kSubframes - 1 - j) * kLtpOrder];
      int32_t sum = 0;
      for (int i = 0; i < kLtpOrder; i++) sum += taps[i];
      if (sum > ltpGain) {
        ltpGain = sum;
        std::memcpy(plc.ltpTapsQ14, taps, sizeof(plc.ltpTapsQ14));
        plc.pitchLagQ8 = fp.pitchLag[kSubframes - 1 - j] << 8;
      }
    }
    // Concealment uses a single centre tap carrying the whole gain.
    std::memset(plc.ltpTapsQ14, 0, sizeof(plc.ltpTapsQ14));
    plc.ltpTapsQ14[kLtpOrder / 2] = static_cast<int16_t>(ltpGain);
    if (ltpGain < kPitchGainMinQ14) {
      const int32_t scaleQ10 = (kPitchGainMinQ14 << 10) / (ltpGain > 1 ? ltpGain : 1);
      for (int i = 0; i < kLtpOrder; i++)
        plc.ltpTapsQ14[i] = static_cast<int16_t>(B::sp_smulbb(plc.ltpTapsQ14[i], scaleQ10) >> 10);
    } else if (ltpGain > kPitchGainMaxQ14) {
      const int32_t scaleQ14 = (kPitchGainMaxQ14 << 14) / (ltpGain > 1 ? ltpGain : 1);
      for (int i = 0; i < kLtpOrder; i++)
        plc.ltpTapsQ14[i] = static_cast<int16_t>(B::sp_smulbb(plc.ltpTapsQ14[i], scaleQ14) >> 14);
    }
  } else {
    plc.pitchLagQ8 = (st.fsKhz * 18) << 8;
    std::memset(plc.ltpTapsQ14, 0, sizeof(plc.ltpTapsQ14));
  }
  std::memcpy(plc.lpcQ12, fp.lpcQ12[1], st.lpcOrder * sizeof(int16_t));
  plc.ltpScaleQ14 = static_cast<int16_t>(fp.ltpScaleQ14);
  std::memcpy(plc.gainsQ16, fp.gainsQ16, sizeof(plc.gainsQ16));
}

void plcConceal(DecoderState& st, FrameParams& fp, int16_t* signal) {
  PlcState& plc = st.plc;
  const int fl = st.frameLength;
  const int sl = st.subframeLength;
  std::memcpy(st.ltpStateQ16, &st.ltpStateQ16[fl], fl * sizeof(int32_t));
  bandwidthExpand(plc.lpcQ12, st.lpcOrder, kPlcBweQ16);

  // The quieter of the last two subframes' excitation feeds the noise.
  alignas(4) int16_t exc[kMaxFrameLength];
  for (int k = kSubframes / 2; k < kSubframes; k++)
    for (int i = 0; i < sl; i++)
      exc[(k - kSubframes / 2) * sl + i] =
          static_cast<int16_t>(B::sp_smulww(st.excQ10[i + k * sl], plc.gainsQ16[k]) >> 10);
  int32_t e1, e2, s1, s2;
  sumSquares(&e1, &s1, exc, sl);
  sumSquares(&e2, &s2, &exc[sl], sl);
  const int32_t* noise;
  if ((e1 >> s2) < (e2 >> s1)) {
    noise = &st.excQ10[3 * sl - kRandBufSize > 0 ? 3 * sl - kRandBufSize : 0];
  } else {
    noise = &st.excQ10[fl - kRandBufSize > 0 ? fl - kRandBufSize : 0];
  }

  int16_t* taps = plc.ltpTapsQ14;
  int16_t randScale = plc.randScaleQ14;
  const int att = st.lossCount < 1 ? st.lossCount : 1;
  const int32_t harmGain = kHarmonicAttQ15[att];
  int32_t randGain = st.prevSigType == kVoiced ? kRandAttVoicedQ15[att] : kRandAttUnvoicedQ15[att];

  if (st.lossCount == 0) {
    randScale = 1 << 14;
    if (st.prevSigType == kVoiced) {
      for (int i = 0; i < kLtpOrder; i++) randScale = static_cast<int16_t>(randScale - taps[i]);
      if (randScale < 3277) randScale = 3277;
      randScale = static_cast<int16_t>(B::sp_smulbb(randScale, plc.ltpScaleQ14) >> 14);
    }
    if (st.prevSigType == kUnvoiced) {
      int32_t invGain;
      lpcInverseGain(&invGain, plc.lpcQ12, st.lpcOrder);
      int32_t down = (1 << 30) >> kInvGainHighLog2;
      if (invGain < down) down = invGain;
      if (down < ((1 << 30) >> kInvGainLowLog2)) down = (1 << 30) >> kInvGainLowLog2;
      down = B::sp_shl(down, kInvGainHighLog2);
      randGain = B::sp_smulwb(down, randGain) >> 14;
    }
  }

  int32_t seed = plc.randSeed;
  int32_t lag = B::sp_rshift_round(plc.pitchLagQ8, 8);
  int ltpPos = fl;
  int32_t sigQ10[kMaxFrameLength];
  for (int k = 0; k < kSubframes; k++) {
    const int32_t* p = &st.ltpStateQ16[ltpPos - lag + kLtpOrder / 2];
    for (int i = 0; i < sl; i++) {
      seed = B::sp_rand(seed);
      const int idx = (seed >> 25) & (kRandBufSize - 1);
      const int32_t pred = ltpPredict(p++, taps);
      int32_t e = B::sp_shl(B::sp_smulwb(noise[idx], randScale), 2);
      e = B::sp_add(e, B::sp_rshift_round(pred, 4));
      st.ltpStateQ16[ltpPos++] = B::sp_shl(e, 6);
      sigQ10[k * sl + i] = e;
    }
    for (int j = 0; j < kLtpOrder; j++) taps[j] = static_cast<int16_t>(B::sp_smulbb(harmGain, taps[j]) >> 15);
    randScale = static_cast<int16_t>(B::sp_smulbb(randScale, randGain) >> 15);
    plc.pitchLagQ8 += B::sp_smulwb(plc.pitchLagQ8, kPitchDriftQ16);
    const int32_t maxLag = (kMaxPitchLagMs * st.fsKhz) << 8;
    if (plc.pitchLagQ8 > maxLag) plc.pitchLagQ8 = maxLag;
    lag = B::sp_rshift_round(plc.pitchLagQ8, 8);
  }

  int16_t a[kMaxLpcOrder];
  std::memcpy(a, plc.lpcQ12, sizeof(a));
  for (int k = 0; k < kSubframes; k++) {
    int32_t* sig = &sigQ10[k * sl];
    if (st.lpcOrder == 16)
      shortTermSynthesis<16>(sig, sig, st.lpcStateQ14, a, sl);
    else
      shortTermSynthesis<10>(sig, sig, st.lpcStateQ14, a, sl);
    std::memcpy(st.lpcStateQ14, &st.lpcStateQ14[sl], kMaxLpcOrder * sizeof(int32_t));
  }
  const int32_t g = plc.gainsQ16[kSubframes - 1];
  for (int i = 0; i < fl; i++) signal[i] = B::sp_sat16(B::sp_rshift_round(B::sp_smulww(sigQ10[i], g), 10));

  plc.randSeed = seed;
  plc.randScaleQ14 = randScale;
  for (int i = 0; i < kSubframes; i++) fp.pitchLag[i] = lag;
}

}  // namespace

// Energy of x with the right shift that keeps it in 31 bits; pairs of
// samples are summed as the reference does for 4-byte aligned input.
void sumSquares(int32_t* energy, int32_t* shift, const int16_t* x, int len) {
  uint32_t nrg = 0;
  int sh = 0;
  int i = 0;
  const int last = len - 1;
  while (i < last) {
    nrg += static_cast<uint32_t>(x[i] * x[i]);
    nrg += static_cast<uint32_t>(x[i + 1] * x[i + 1]);
    i += 2;
    if (static_cast<int32_t>(nrg) < 0) {
      nrg >>= 2;
      sh = 2;
      break;
    }
  }
  for (; i < last; i += 2) {
    uint32_t pair = static_cast<uint32_t>(x[i] * x[i]) + static_cast<uint32_t>(x[i + 1] * x[i + 1]);
    nrg += pair >> sh;
    if (static_cast<int32_t>(nrg) < 0) {
      nrg >>= 2;
      sh += 2;
    }
  }
  if (i == last) nrg += static_cast<uint32_t>(x[i] * x[i]) >> sh;
  if (nrg & 0xc0000000u) {
    nrg >>= 2;
    sh += 2;
  }
  *shift = sh;
  *energy = static_cast<int32_t>(nrg);
}

void decodeCore(DecoderState& st, FrameParams& fp, int16_t* out, const int32_t* pulses) {
  const int fl = st.frameLength;
  const int sl = st.subframeLength;
  const int order = st.lpcOrder;
  const int32_t offsetQ10 = kQuantOffsetQ10[fp.sigType * 2 + fp.offsetType];
  const bool interpolated = fp.nlsfInterpQ2 < 4;

  int32_t seed = fp.seed;
  for (int i = 0; i < fl; i++) {
    seed = B::sp_rand(seed);
    const int32_t dither = seed >> 31;
    const int32_t e = (pulses[i] << 10) + offsetQ10;
    st.excQ10[i] = (e ^ dither) - dither;
    seed = B::sp_add(seed, pulses[i]);
  }

  const int32_t* exc = st.excQ10;
  int32_t* res = st.resQ10;
  int16_t* xq = &st.history[fl];
  int ltpPos = fl;
  int16_t whitened[kMaxFrameLength];
  int32_t vecQ10[kMaxSubframeLength];
  int32_t lag = 0;

  for (int k = 0; k < kSubframes; k++) {
    const int16_t* a = fp.lpcQ12[k >> 1];
    int16_t* taps = &fp.ltpTapsQ14[k * kLtpOrder];
    const int32_t gainQ16 = fp.gainsQ16[k];
    int sigType = fp.sigType;

    int32_t invGainQ16 = B::sp_inverse32_varq(gainQ16 > 1 ? gainQ16 : 1, 32);
    if (invGainQ16 > fx::MAX_16) invGainQ16 = fx::MAX_16;
    int32_t adjQ16 = 1 << 16;
    if (invGainQ16 != st.prevInvGainQ16) adjQ16 = B::sp_div32_varq(invGainQ16, st.prevInvGainQ16, 16);

    // After concealing voiced speech, ease into unvoiced decoding.
    if (st.lossCount && st.prevSigType == kVoiced && fp.sigType == kUnvoiced && k < kSubframes / 2) {
      std::memset(taps, 0, kLtpOrder * sizeof(int16_t));
      taps[kLtpOrder / 2] = 1 << 12;
      sigType = kVoiced;
      fp.pitchLag[k] = st.lagPrev;
    }

    if (sigType == kVoiced) {
      lag = fp.pitchLag[k];
      if ((k & (3 - (interpolated ? 2 : 0))) == 0) {
        // Re-whiten the past output with this subframe's LPC filter.
        const int start = fl - lag - order - kLtpOrder / 2;
        int32_t filt[kMaxLpcOrder] = {};
        maPredict(&st.history[start + k * (fl >> 2)], a, filt, whitened + start, fl - start, order);
        int32_t invGainQ32 = B::sp_shl(invGainQ16, 16);
        if (k == 0) invGainQ32 = B::sp_shl(B::sp_smulwb(invGainQ32, fp.ltpScaleQ14), 2);
        for (int i = 0; i < lag + kLtpOrder / 2; i++)
          st.ltpStateQ16[ltpPos - i - 1] = B::sp_smulwb(invGainQ32, whitened[fl - i - 1]);
      } else if (adjQ16 != (1 << 16)) {
        for (int i = 0; i < lag + kLtpOrder / 2; i++)
          st.ltpStateQ16[ltpPos - i - 1] = B::sp_smulww(adjQ16, st.ltpStateQ16[ltpPos - i - 1]);
      }
    }

    for (int i = 0; i < kMaxLpcOrder; i++) st.lpcStateQ14[i] = B::sp_smulww(adjQ16, st.lpcStateQ14[i]);
    st.prevInvGainQ16 = invGainQ16;

    if (sigType == kVoiced) {
      const int32_t* p = &st.ltpStateQ16[ltpPos - lag + kLtpOrder / 2];
      for (int i = 0; i < sl; i++) {
        const int32_t pred = ltpPredict(p++, taps);
        res[i] = B::sp_add(exc[i], B::sp_rshift_round(pred, 4));
        st.ltpStateQ16[ltpPos++] = B::sp_shl(res[i], 6);
      }
    } else {
      std::memcpy(res, exc, sl * sizeof(int32_t));
    }

    if (order == 16)
      shortTermSynthesis<16>(vecQ10, res, st.lpcStateQ14, a, sl);
    else
      shortTermSynthesis<10>(vecQ10, res, st.lpcStateQ14, a, sl);

    for (int i = 0; i < sl; i++) xq[i] = B::sp_sat16(B::sp_rshift_round(B::sp_smulww(vecQ10[i], gainQ16), 10));
    std::memcpy(st.lpcStateQ14, &st.lpcStateQ14[sl], kMaxLpcOrder * sizeof(int32_t));
    exc += sl;
    res += sl;
    xq += sl;
  }
  std::memcpy(out, &st.history[fl], fl * sizeof(int16_t));
}

void plcReset(DecoderState& st) { st.plc.pitchLagQ8 = st.frameLength >> 1; }

void plcProcess(DecoderState& st, FrameParams& fp, int16_t* signal, int len, bool lost) {
  (void)len;
  if (st.fsKhz != st.plc.fsKhz) {
    plcReset(st);
    st.plc.fsKhz = st.fsKhz;
  }
  if (lost) {
    plcConceal(st, fp, signal);
    st.lossCount++;
  } else {
    plcUpdate(st, fp);
  }
}

// Fades a good frame in after concealment when it is louder.
void plcGlue(DecoderState& st, int16_t* signal, int len) {
  PlcState& plc = st.plc;
  if (st.lossCount) {
    sumSquares(&plc.concEnergy, &plc.concEnergyShift, signal, len);
    plc.lastFrameLost = 1;
    return;
  }
  if (plc.lastFrameLost) {
    int32_t energy, shift;
    sumSquares(&energy, &shift, signal, len);
    if (shift > plc.concEnergyShift)
      plc.concEnergy >>= shift - plc.concEnergyShift;
    else if (shift < plc.concEnergyShift)
      energy >>= plc.concEnergyShift - shift;
    if (energy > plc.concEnergy) {
      const int32_t lz = B::sp_clz32(plc.concEnergy) - 1;
      plc.concEnergy = B::sp_shl(plc.concEnergy, lz);
      const int32_t rs = 24 - lz > 0 ? 24 - lz : 0;
      energy >>= rs;
      const int32_t fracQ24 = plc.concEnergy / (energy > 1 ? energy : 1);
      // Square-root approximation of the energy ratio.
      int32_t gainQ12 = 0;
      if (fracQ24 > 0) {
        const int32_t z = B::sp_clz32(fracQ24);
        const uint32_t u = static_cast<uint32_t>(fracQ24);
        const int r = (24 - z) & 31;
        const int32_t fracQ7 = static_cast<int32_t>(r == 0 ? u : ((u >> r) | (u << (32 - r)))) & 0x7f;
        int32_t y = (z & 1) ? 32768 : 46214;
        y >>= z >> 1;
        gainQ12 = B::sp_smlawb(y, y, 213 * fracQ7);
      }
      const int32_t slope = ((1 << 12) - gainQ12) / len;
      for (int i = 0; i < len; i++) {
        signal[i] = static_cast<int16_t>((gainQ12 * signal[i]) >> 12);
        gainQ12 += slope;
        if (gainQ12 > (1 << 12)) gainQ12 = 1 << 12;
      }
    }
  }
  plc.lastFrameLost = 0;
}

void cngReset(DecoderState& st) {
  const int32_t step = fx::MAX_16 / (st.lpcOrder + 1);
  int32_t acc = 0;
  for (int i = 0; i < st.lpcOrder; i++) {
    acc += step;
    st.cng.nlsfQ15[i] = acc;
  }
  st.cng.gainQ16 = 0;
  st.cng.randSeed = 3176576;
}

void cngProcess(DecoderState& st, FrameParams& fp, int16_t* signal, int len) {
  CngState& cng = st.cng;
  if (st.fsKhz != cng.fsKhz) {
    cngReset(st);
    cng.fsKhz = st.fsKhz;
  }
  const int sl = st.subframeLength;
  if (st.lossCount == 0 && st.vadFlag == 0) {
    for (int i = 0; i < st.lpcOrder; i++)
      cng.nlsfQ15[i] += B::sp_smulwb(st.prevNlsfQ15[i] - cng.nlsfQ15[i], kCngNlsfSmoothQ16);
    int32_t maxGain = 0;
    int loudest = 0;
    for (int i = 0; i < kSubframes; i++) {
      if (fp.gainsQ16[i] > maxGain) {
        maxGain = fp.gainsQ16[i];
        loudest = i;
      }
    }
    std::memmove(&cng.excQ10[sl], cng.excQ10, (kSubframes - 1) * sl * sizeof(int32_t));
    std::memcpy(cng.excQ10, &st.excQ10[loudest * sl], sl * sizeof(int32_t));
    for (int i = 0; i < kSubframes; i++) cng.gainQ16 += B::sp_smulwb(fp.gainsQ16[i] - cng.gainQ16, kCngGainSmoothQ16);
  }
  if (st.lossCount) {
    int16_t noise[kMaxFrameLength];
    int mask = 255;
    while (mask > len) mask >>= 1;
    int32_t seed = cng.randSeed;
    for (int i = 0; i < len; i++) {
      seed = B::sp_rand(seed);
      const int idx = (seed >> 24) & mask;
      noise[i] = B::sp_sat16(B::sp_rshift_round(B::sp_smulww(cng.excQ10[idx], cng.gainQ16), 10));
    }
    cng.randSeed = seed;
    int16_t a[kMaxLpcOrder];
    nlsfToLpcStable(a, cng.nlsfQ15, st.lpcOrder);
    lpcSynthesis(noise, a, 1 << 26, cng.synthState, noise, len, st.lpcOrder);
    for (int i = 0; i < len; i++) signal[i] = B::sp_sat16(signal[i] + noise[i]);
  } else {
    std::memset(cng.synthState, 0, st.lpcOrder * sizeof(int32_t));
  }
}

// Second-order high-pass (Q13 coefficients) on the decoded frame.
void highPassFilter(DecoderState& st, int16_t* signal, int len) {
  const int16_t* c = st.highPass;
  int32_t s0 = st.highPassState[0];
  int32_t s1 = st.highPassState[1];
  const int32_t a0 = -c[3];
  const int32_t a1 = -c[4];
  for (int k = 0; k < len; k++) {
    const int32_t x = signal[k];
    const int32_t y = B::sp_add(s0, x * c[0]);
    s0 = B::sp_add(B::sp_add(s1, x * c[1]), B::sp_shl(B::sp_smulwb(y, a0), 3));
    s1 = B::sp_add(B::sp_shl(B::sp_smulwb(y, a1), 3), x * c[2]);
    signal[k] = B::sp_sat16(B::sp_add(B::sp_rshift_round(y, 13), 1));
  }
  st.highPassState[0] = s0;
  st.highPassState[1] = s1;
}

}  // namespace quillon::silk
