// AMR-WB decoder: algebraic codebook, adaptive codebook, gains, lag
// concealment, excitation post-processing and the shared math helpers.
#include <cstring>

#include "engines/amrwb/amrwb_decoder.h"
#include "engines/amrwb/amrwb_overflow.h"
#include "engines/amrwb/amrwb_tables.h"
#include "primitives/celp_math.h"

namespace quillon::amrwb {

using namespace overflow;

namespace {

// ---- algebraic codebook: pulse position decoding ----------------------
// Positions carry the sign in bit 4 (value 16) of a 5-bit position code.
constexpr int kSignBit = 16;

void onePulse(Word32 index, int n, int offset, int* pos) {
  int p = static_cast<int>(index & ((1 << n) - 1)) + offset;
  if ((index >> n) & 1) p += kSignBit;
  pos[0] = p;
}

void twoPulses(Word32 index, int n, int offset, int* pos) {
  const int mask = (1 << n) - 1;
  int p1 = static_cast<int>((index >> n) & mask) + offset;
  int p2 = static_cast<int>(index & mask) + offset;
  const bool sign = ((index >> (2 * n)) & 1) != 0;
  if (p2 < p1) {
    // Order reversed: the pulses have opposite signs.
    if (sign) p1 += kSignBit; else p2 += kSignBit;
  } else if (sign) {
    p1 += kSignBit;
    p2 += kSignBit;
  }
  pos[0] = p1;
  pos[1] = p2;
}

void threePulses(Word32 index, int n, int offset, int* pos) {
  int half = offset;
  if ((index >> (2 * n - 1)) & 1) half += 1 << (n - 1);
  twoPulses(index & ((1 << (2 * n - 1)) - 1), n - 1, half, pos);
  onePulse((index >> (2 * n)) & ((1 << (n + 1)) - 1), n, offset, pos + 2);
}

void fourPulsesOdd(Word32 index, int n, int offset, int* pos) {
  int half = offset;
  if ((index >> (2 * n - 1)) & 1) half += 1 << (n - 1);
  twoPulses(index & ((1 << (2 * n - 1)) - 1), n - 1, half, pos);
  twoPulses((index >> (2 * n)) & ((1 << (2 * n + 1)) - 1), n, offset, pos + 2);
}

void fourPulses(Word32 index, int n, int offset, int* pos) {
  const int n1 = n - 1;
  const int upper = offset + (1 << n1);
  switch ((index >> (4 * n - 2)) & 3) {
    case 0:
      fourPulsesOdd(index, n1, ((index >> (4 * n1 + 1)) & 1) ? upper : offset, pos);
      break;
    case 1:
      onePulse(index >> (3 * n1 + 1), n1, offset, pos);
      threePulses(index, n1, upper, pos + 1);
      break;
    case 2:
      twoPulses(index >> (2 * n1 + 1), n1, offset, pos);
      twoPulses(index, n1, upper, pos + 2);
      break;
    default:
      threePulses(index >> (n1 + 1), n1, offset, pos);
      onePulse(index, n1, upper, pos + 3);
      break;
  }
}

void fivePulses(Word32 index, int n, int offset, int* pos) {
  const int n1 = n - 1;
  const int upper = offset + (1 << n1);
  const Word32 top = index >> (2 * n + 1);
  threePulses(top, n1, ((index >> (5 * n - 1)) & 1) ? upper : offset, pos);
  twoPulses(index, n, offset, pos + 3);
}

void sixPulses(Word32 index, int n, int offset, int* pos) {
  const int n1 = n - 1;
  const int upper = offset + (1 << n1);
  int offA = upper, offB = upper;
  if (((index >> (6 * n - 5)) & 1) == 0) offA = offset; else offB = offset;
  switch ((index >> (6 * n - 4)) & 3) {
    case 0:
      fivePulses(index >> n, n1, offA, pos);
      onePulse(index, n1, offA, pos + 5);
      break;
    case 1:
      fivePulses(index >> n, n1, offA, pos);
      onePulse(index, n1, offB, pos + 5);
      break;
    case 2:
      fourPulses(index >> (2 * n1 + 1), n1, offA, pos);
      twoPulses(index, n1, offB, pos + 4);
      break;
    default:
      threePulses(index >> (3 * n1 + 1), n1, offset, pos);
      threePulses(index, n1, upper, pos + 3);
      break;
  }
}

void placePulses(const int* pos, int count, int track, Word16* code) {
  for (int k = 0; k < count; k++) {
    const int i = ((pos[k] & 15) << 2) + track;
    code[i] = static_cast<Word16>(code[i] + ((pos[k] & kSignBit) ? -512 : 512));
  }
}

// Gain attenuation per erasure state (bad-frame handling).
constexpr Word16 kPitchDownUnusable[7] = {32767, 31130, 29491, 24576, 7537, 1638, 328};
constexpr Word16 kCodeDownUnusable[7] = {32767, 16384, 8192, 8192, 8192, 4915, 3277};
constexpr Word16 kPitchDownUsable[7] = {32767, 32113, 31457, 24576, 7537, 1638, 328};
constexpr Word16 kCodeDownUsable[7] = {32767, 32113, 32113, 32113, 32113, 32113, 22938};
constexpr Word16 kGainPred[4] = {4096, 3277, 2458, 1638};

Word16 median5(const Word16* v) {
  Word16 s[5];
  std::memcpy(s, v, sizeof s);
  // insertion sort of five values; the middle one is the median
  for (int i = 1; i < 5; i++) {
    const Word16 x = s[i];
    int j = i - 1;
    while (j >= 0 && s[j] > x) {
      s[j + 1] = s[j];
      j--;
    }
    s[j + 1] = x;
  }
  return s[2];
}

void shiftIn(Word16* buf, Word16 v) {
  for (int i = 1; i < 5; i++) buf[i - 1] = buf[i];
  buf[4] = v;
}

}  // namespace

void Decoder::decodePulses2Track(Word16 index, Word16* code) {
  std::memset(code, 0, kSub * sizeof(Word16));
  const int i0 = (index >> 5) & 0x3e;
  const int i1 = ((index & 0x1f) << 1) + 1;
  code[i0] = ((index >> 6) & 32) ? -512 : 512;
  code[i1] = (index & 32) ? -512 : 512;
}

void Decoder::decodePulses4Track(const Word16* index, int nbits, Word16* code) {
  std::memset(code, 0, kSub * sizeof(Word16));
  int pos[6];
  for (int k = 0; k < 4; k++) {
    switch (nbits) {
      case 20:
        onePulse(index[k], 4, 0, pos);
        placePulses(pos, 1, k, code);
        break;
      case 36:
        twoPulses(index[k], 4, 0, pos);
        placePulses(pos, 2, k, code);
        break;
      case 44:
        if (k < 2) {
          threePulses(index[k], 4, 0, pos);
          placePulses(pos, 3, k, code);
        } else {
          twoPulses(index[k], 4, 0, pos);
          placePulses(pos, 2, k, code);
        }
        break;
      case 52:
        threePulses(index[k], 4, 0, pos);
        placePulses(pos, 3, k, code);
        break;
      case 64:
        fourPulses((static_cast<Word32>(index[k]) << 14) + index[k + 4], 4, 0, pos);
        placePulses(pos, 4, k, code);
        break;
      case 72:
        if (k < 2) {
          fivePulses((static_cast<Word32>(index[k]) << 10) + index[k + 4], 4, 0, pos);
          placePulses(pos, 5, k, code);
        } else {
          fourPulses((static_cast<Word32>(index[k]) << 14) + index[k + 4], 4, 0, pos);
          placePulses(pos, 4, k, code);
        }
        break;
      default:  // 88
        sixPulses((static_cast<Word32>(index[k]) << 11) + index[k + 4], 4, 0, pos);
        placePulses(pos, 6, k, code);
        break;
    }
  }
}

// Replaces the lag of a damaged subframe from the lag history.
void Decoder::lagConcealment(Word16& t0, bool unusable) {
  const Word16* gainHist = pitGainBuf2_;
  const Word16 lastGain = gainHist[4];
  const Word16 secLastGain = gainHist[3];
  const Word16 lastLag = lagHist_[0];
  Word16 minLag = lagHist_[0], maxLag = lagHist_[0], minGain = gainHist[0];
  for (int i = 1; i < 5; i++) {
    if (lagHist_[i] < minLag) minLag = lagHist_[i];
    if (lagHist_[i] > maxLag) maxLag = lagHist_[i];
    if (gainHist[i] < minGain) minGain = gainHist[i];
  }
  Word16 lagDif = sub(maxLag, minLag);

  auto estimate = [&]() {
    Word16 sorted[5];
    std::memcpy(sorted, lagHist_, sizeof sorted);
    for (int i = 1; i < 5; i++) {
      const Word16 x = sorted[i];
      int j = i - 1;
      while (j >= 0 && x < sorted[j]) {
        sorted[j + 1] = sorted[j];
        j--;
      }
      sorted[j + 1] = x;
    }
    Word16 spread = sub(sorted[4], sorted[2]);
    if (spread > 40) spread = 40;
    const Word16 d = nextRandom(seedLag_);
    const Word16 jitter = mult(shr(spread, 1), d);
    const Word16 sum = add(add(sorted[2], sorted[3]), sorted[4]);
    return add(mult(sum, 10923), jitter);
  };
  auto clampToHistory = [&]() {
    if (t0 > maxLag) t0 = maxLag;
    if (t0 < minLag) t0 = minLag;
  };

  if (unusable) {
    if (minGain > 8192 && lagDif < 10) {
      t0 = lastLag_;
    } else if (lastGain > 8192 && secLastGain > 8192) {
      t0 = lagHist_[0];
    } else {
      t0 = estimate();
    }
    clampToHistory();
    return;
  }

  Word16 meanLag = 0;
  for (int i = 0; i < 5; i++) meanLag = add(meanLag, lagHist_[i]);
  meanLag = mult(meanLag, 6554);
  const Word16 dMax = sub(t0, maxLag);
  const Word16 dLast = sub(t0, lastLag);
  const bool keep =
      (lagDif < 10 && t0 > sub(minLag, 5) && dMax < 5) ||
      (lastGain > 8192 && secLastGain > 8192 && dLast > -10 && dLast < 10) ||
      (minGain < 6554 && lastGain == minGain && t0 > minLag && t0 < maxLag) ||
      (lagDif < 70 && t0 > minLag && t0 < maxLag) || (t0 > meanLag && t0 < maxLag);
  if (keep) return;
  if (minGain > 8192 && lagDif < 10) {
    t0 = lagHist_[0];
  } else if (lastGain > 8192 && secLastGain > 8192) {
    t0 = lagHist_[0];
  } else {
    t0 = estimate();
  }
  clampToHistory();
}

// Adaptive codebook vector: past excitation at a 1/4-sample lag,
// interpolated with a 32-tap filter. With `wrap` the sum is exact (the
// largest |coefficient| sum of a phase, 35692, keeps it below 2^31) and the
// result is rounded and truncated to 16 bits as in the peer decoder.
void Dsp::predictLongTerm(Word16* exc, Word16 t0, Word16 frac, int len, bool wrap) {
  const Word16* x = exc - t0;
  frac = negate(frac);
  if (frac < 0) {
    frac = add(frac, 4);
    x--;
  }
  x -= 15;
  const int16_t* c = tables::kPitchInterp + (3 - frac);
  for (int j = 0; j < len; j++) {
    if (wrap) {
      int32_t acc = 0x2000;
      for (int i = 0; i < 32; i++) acc += static_cast<int32_t>(x[j + i]) * c[4 * i];
      exc[j] = static_cast<Word16>(acc >> 14);
    } else {
      Word32 acc = 0;
      for (int i = 0; i < 32; i++) acc = L_mac(acc, x[j + i], c[4 * i]);
      exc[j] = round(L_shl(acc, 1));
    }
  }
}

void Decoder::decodeGains(Word16 index, int nbits, const Word16* code, Word16& gainPit,
                          Word32& gainCode, bool bfi, bool unusable) {
  Word16 exp;
  Word32 t = dotProduct12(code, code, kSub, exp);
  exp = sub(exp, 24);
  isqrtNorm(t, exp);
  const Word16 gcodeInov = extract_h(L_shl(t, sub(exp, 3)));

  if (bfi) {
    pastGainPit_ = median5(pitGainBuf_);
    if (pastGainPit_ > 15565) pastGainPit_ = 15565;
    gainPit = mult((unusable ? kPitchDownUnusable : kPitchDownUsable)[bfiState_], pastGainPit_);
    const Word16 med = median5(codeGainBuf_);
    if (vadHist_ > 2) {
      pastGainCode_ = med;
    } else {
      pastGainCode_ = mult((unusable ? kCodeDownUnusable : kCodeDownUsable)[bfiState_], med);
    }
    Word32 acc = L_mult(pastQuaEn_[0], 8192);
    acc = L_mac(acc, pastQuaEn_[1], 8192);
    acc = L_mac(acc, pastQuaEn_[2], 8192);
    acc = L_mac(acc, pastQuaEn_[3], 8192);
    Word16 quaEner = sub(extract_h(acc), 3072);
    if (quaEner < -14336) quaEner = -14336;
    pastQuaEn_[3] = pastQuaEn_[2];
    pastQuaEn_[2] = pastQuaEn_[1];
    pastQuaEn_[1] = pastQuaEn_[0];
    pastQuaEn_[0] = quaEner;
    shiftIn(codeGainBuf_, pastGainCode_);
    shiftIn(pitGainBuf_, pastGainPit_);
    gainCode = L_mult(pastGainCode_, gcodeInov);
    return;
  }

  // Predicted code gain from the past quantised energies (MA, order 4).
  Word32 acc = L_shl(L_deposit_h(30), 8);
  for (int i = 0; i < 4; i++) acc = L_mac(acc, kGainPred[i], pastQuaEn_[i]);
  Word16 gcode0 = extract_h(acc);
  acc = L_shr(L_mult(gcode0, 5443), 8);
  Word16 expGcode0, frac;
  L_Extract(acc, expGcode0, frac);
  gcode0 = extract_l(pow2(14, frac));
  expGcode0 = sub(expGcode0, 14);

  const int16_t* entry = (nbits == 6 ? tables::kGainTable6 : tables::kGainTable7) + 2 * index;
  gainPit = entry[0];
  const Word16 gCode = entry[1];
  gainCode = L_shl(L_mult(gCode, gcode0), add(expGcode0, 4));

  if (prevBfi_ == 1) {
    const Word32 limit = L_mult(prevGainCode_, 5120);
    if (gainCode > limit && gainCode > 6553600) gainCode = limit;
  }
  pastGainCode_ = round(L_shl(gainCode, 3));
  pastGainPit_ = gainPit;
  prevGainCode_ = pastGainCode_;
  shiftIn(codeGainBuf_, pastGainCode_);
  shiftIn(pitGainBuf_, pastGainPit_);
  shiftIn(pitGainBuf2_, pastGainPit_);

  Word16 hi, lo;
  L_Extract(gainCode, hi, lo);
  gainCode = L_shl(Mpy_32_16(hi, lo, gcodeInov), 3);

  Word16 e, f;
  log2(L_deposit_l(gCode), e, f);
  e = sub(e, 11);
  const Word32 q = Mpy_32_16(e, f, 24660);
  pastQuaEn_[3] = pastQuaEn_[2];
  pastQuaEn_[2] = pastQuaEn_[1];
  pastQuaEn_[1] = pastQuaEn_[0];
  pastQuaEn_[0] = extract_l(L_shr(q, 3));
}

Word16 Dsp::voiceFactor(const Word16* exc, Word16 qExc, Word16 gainPit, const Word16* code,
                        Word16 gainCode, bool wrap) {
  Word16 exp1, exp2;
  Word16 ener1 = extract_h(dotProduct12(exc, exc, kSub, exp1));
  exp1 = sub(exp1, add(qExc, qExc));
  Word32 t = L_mult(gainPit, gainPit);
  Word16 exp = norm_l(t);
  Word16 tmp = extract_h(L_shl(t, exp));
  ener1 = mult(ener1, tmp);
  exp1 = sub(sub(exp1, exp), 10);

  Word16 ener2 = extract_h(dotProduct12(code, code, kSub, exp2));
  exp = norm_s(gainCode);
  tmp = shl(gainCode, exp);
  tmp = mult(tmp, tmp);
  ener2 = mult(ener2, tmp);
  exp2 = sub(exp2, add(exp, exp));

  const int d = exp1 - exp2;
  if (!wrap) {
    const Word16 i = sub(exp1, exp2);
    if (i >= 0) {
      ener1 = shr(ener1, 1);
      ener2 = shr(ener2, add(i, 1));
    } else {
      ener1 = shr(ener1, sub(1, i));
      ener2 = shr(ener2, 1);
    }
  } else if (d >= 0) {
    // Alignment shifts count modulo 32, as the peer decoder's do.
    ener1 = static_cast<Word16>(ener1 >> 1);
    ener2 = static_cast<Word16>(ener2 >> ((d + 1) & 31));
  } else {
    ener1 = static_cast<Word16>(ener1 >> ((1 - d) & 31));
    ener2 = static_cast<Word16>(ener2 >> 1);
  }
  tmp = sub(ener1, ener2);
  ener1 = add(add(ener1, ener2), 1);
  if (tmp >= 0) return div_s(tmp, ener1);
  return negate(div_s(negate(tmp), ener1));
}

// Phase dispersion of the innovation at low rates (level 0 high, 1 low,
// 2 off), adapted to the pitch gain history and code gain onsets.
void Decoder::disperse(Word16 gainCode, Word16 gainPit, Word16* code, int level) {
  Word16& prevState = dispMem_[0];
  Word16& prevGainCode = dispMem_[1];
  Word16* prevGainPit = dispMem_ + 2;

  Word16 state = gainPit < 9830 ? 0 : (gainPit < 14746 ? 1 : 2);
  for (int i = 5; i > 0; i--) prevGainPit[i] = prevGainPit[i - 1];
  prevGainPit[0] = gainPit;

  if (sub(sub(gainCode, prevGainCode), shl(prevGainCode, 1)) > 0) {
    if (state < 2) state++;
  } else {
    int low = 0;
    for (int i = 0; i < 6; i++) {
      if (prevGainPit[i] < 9830) low++;
    }
    if (low > 2) state = 0;
    if (state - prevState > 1) state--;
  }
  prevGainCode = gainCode;
  prevState = state;

  state = static_cast<Word16>(state + level);
  if (state >= 2) return;
  const int16_t* imp = state == 0 ? tables::kDispersionLow : tables::kDispersionMid;
  Word16 spread[2 * kSub];
  std::memset(spread, 0, sizeof spread);
  for (int i = 0; i < kSub; i++) {
    if (code[i] == 0) continue;
    for (int j = 0; j < kSub; j++) spread[i + j] = add(spread[i + j], mult_r(code[i], imp[j]));
  }
  for (int i = 0; i < kSub; i++) code[i] = add(spread[i], spread[i + kSub]);
}

// Scales sigOut to the energy of sigIn (rounding and shift counts with the
// peer decoder's overflow behaviour).
void Decoder::agc(const Word16* sigIn, Word16* sigOut, int n) {
  Word16 t = shr(sigOut[0], 2);
  Word32 s = L_mult(t, t);
  for (int i = 1; i < n; i++) {
    t = shr(sigOut[i], 2);
    s = L_mac(s, t, t);
  }
  if (s == 0) return;
  Word16 exp = sub(norm_l(s), 1);
  // A full-scale energy gives exp = -1; the shift count is then taken
  // modulo 32 (a left shift by 31), as the peer decoder does on x86.
  const Word16 gainOut = roundWrap(wrapShl(s, exp & 31));

  t = shr(sigIn[0], 2);
  s = L_mult(t, t);
  for (int i = 1; i < n; i++) {
    t = shr(sigIn[i], 2);
    s = L_mac(s, t, t);
  }
  Word16 g0;
  if (s == 0) {
    g0 = 0;
  } else {
    const Word16 e = norm_l(s);
    const Word16 gainIn = roundWrap(wrapShl(s, e));
    exp = sub(exp, e);
    s = L_deposit_l(div_s(gainOut, gainIn));
    s = shiftRight32(L_shl(s, 7), exp);
    s = isqrt(s);
    g0 = roundWrap(L_shl(s, 9));
  }
  for (int i = 0; i < n; i++) sigOut[i] = extract_h(L_shl(L_mult(sigOut[i], g0), 2));
}

// ---- math helpers ------------------------------------------------------

Word32 Dsp::dotProduct12(const Word16* x, const Word16* y, int n, Word16& exp) {
  Word32 sum = 1;
  for (int i = 0; i < n; i++) sum = L_mac(sum, x[i], y[i]);
  const Word16 sft = norm_l(sum);
  exp = sub(30, sft);
  return L_shl(sum, sft);
}

void Dsp::isqrtNorm(Word32& frac, Word16& exp) {
  if (frac <= 0) {
    exp = 0;
    frac = fx::MAX_32;
    return;
  }
  if (exp & 1) frac = L_shr(frac, 1);
  exp = negate(shr(sub(exp, 1), 1));
  frac = L_shr(frac, 9);
  const Word16 i = sub(extract_h(frac), 16);
  frac = L_shr(frac, 1);
  const Word16 a = static_cast<Word16>(extract_l(frac) & 0x7fff);
  frac = fx::interpolate(*this, fx::kInvSqrtTable, i, a);
}

Word32 Dsp::isqrt(Word32 x) {
  Word16 exp = norm_l(x);
  x = L_shl(x, exp);
  exp = sub(31, exp);
  isqrtNorm(x, exp);
  return shiftLeft16(x, exp);
}

Word32 Dsp::pow2(Word16 exponent, Word16 fraction) { return fx::pow2(*this, exponent, fraction); }

void Dsp::log2(Word32 x, Word16& exponent, Word16& fraction) { fx::log2(*this, x, exponent, fraction); }

}  // namespace quillon::amrwb
