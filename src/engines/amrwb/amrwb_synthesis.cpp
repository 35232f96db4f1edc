// AMR-WB decoder: 12.8 kHz synthesis, de-emphasis, high-pass, 5/4
// upsampling to 16 kHz and the 6.4-7 kHz band generated from noise.
#include <cstring>

#include "engines/amrwb/amrwb_decoder.h"
#include "engines/amrwb/amrwb_overflow.h"
#include "engines/amrwb/amrwb_tables.h"

namespace quillon::amrwb {

using namespace overflow;

namespace {
constexpr Word16 kDeemphFac = 22282;
}  // namespace

void Decoder::scaleSignal(Word16* x, int n, Word16 exp) {
  if (exp == 0) return;  // round(x << 16) == x
  if (exp < 0) {
    // Rounded right shift; the rounding offset saturates.
    const int e = (-exp) & 15;
    if (e == 0) return;
    for (int i = 0; i < n; i++) x[i] = static_cast<Word16>(add(x[i], static_cast<Word16>(1 << (e - 1))) >> e);
    return;
  }
  for (int i = 0; i < n; i++) x[i] = round(L_shl(L_deposit_h(x[i]), exp));
}

// All-pole filter 1/A(z) of order m (at most 20) over len (at most 80)
// samples; `mem` holds the last m outputs and is updated.
void Decoder::lpcSynthesis(const Word16* a, int m, const Word16* x, Word16* y, int len,
                           Word16* mem) {
  Word16 buf[kSub16 + kOrderHf];
  std::memcpy(buf, mem, m * sizeof(Word16));
  Word16* yy = buf + m;
  // Filter gain a[0] taken as 1.0 (4096); exact sums, one saturating shift.
  for (int i = 0; i < len; i++) {
    int32_t acc = -(static_cast<int32_t>(x[i]) << 11);
    for (int j = 1; j <= m; j++) acc = wrapAdd(acc, static_cast<int32_t>(a[j]) * yy[i - j]);
    acc = satShl(acc, 4);
    y[i] = yy[i] = roundWrap(static_cast<int32_t>(0u - static_cast<uint32_t>(acc)));
  }
  std::memcpy(mem, yy + len - m, m * sizeof(Word16));
}

// Order-16 synthesis in double precision (hi/lo) on one subframe; the
// outputs are written after the M history samples in hi[]/lo[].
void Decoder::lpcSynthesis32(const Word16* a, const Word16* exc, Word16 qNew, Word16* hi,
                             Word16* lo) {
  // The filter gain a[0] is taken as 1.0 (4096 in Q12).
  const int inShift = 9 - qNew;
  for (int i = 0; i < kSub; i++) {
    int32_t sumLo = 0, sumHi = 0;
    for (int j = 1; j <= kOrder; j++) {
      sumLo = wrapAdd(sumLo, static_cast<int32_t>(lo[i - j]) * a[j]);
      sumHi = wrapAdd(sumHi, static_cast<int32_t>(hi[i - j]) * a[j]);
    }
    int32_t acc = static_cast<int32_t>(0u - static_cast<uint32_t>(sumLo)) >> 11;
    acc = wrapAdd(acc, wrapShl(exc[i], inShift));
    acc = wrapAdd(acc, static_cast<int32_t>(0u - static_cast<uint32_t>(wrapShl(sumHi, 1))));
    acc = satShl(acc, 3);
    hi[i] = static_cast<Word16>(acc >> 16);
    lo[i] = static_cast<Word16>((acc >> 4) - (static_cast<int32_t>(hi[i]) << 12));
  }
}

// Second-order IIR high-pass in double precision: 50 Hz cut-off on the
// synthesis (gain x2 in the output), 400 Hz for the tilt estimate.
void Decoder::highPass50(Word16* sig, int n) {
  Word16* m = hp50Mem_;
  Word16 y2hi = m[0], y2lo = m[1], y1hi = m[2], y1lo = m[3], x0 = m[4], x1 = m[5];
  for (int i = 0; i < n; i++) {
    const Word16 x2 = x1;
    x1 = x0;
    x0 = sig[i];
    // b = {4053, -8106, 4053}, a = {16211, -8021} in Q12, doubled
    const int32_t low = 8192 + y1lo * 16211 + y2lo * -8021;
    int32_t high = y1hi * 32422;
    high = wrapAdd(high, y2hi * -16042);
    high = wrapAdd(high, x2 * 8106);
    high = wrapAdd(high, x1 * -16212);
    high = wrapAdd(high, x0 * 8106);
    const int32_t acc = wrapShl(wrapAdd(low >> 14, high), 2);
    y2hi = y1hi;
    y2lo = y1lo;
    y1hi = static_cast<Word16>(acc >> 16);
    y1lo = static_cast<Word16>(wrapSub(acc, wrapShl(y1hi, 16)) >> 1);
    sig[i] = shl1RoundWrap(acc);
  }
  m[0] = y2hi; m[1] = y2lo; m[2] = y1hi; m[3] = y1lo; m[4] = x0; m[5] = x1;
}

void Decoder::highPass400(Word16* sig, int n) {
  Word16* m = hp400Mem_;
  Word16 y2hi = m[0], y2lo = m[1], y1hi = m[2], y1lo = m[3], x0 = m[4], x1 = m[5];
  for (int i = 0; i < n; i++) {
    const Word16 x2 = x1;
    x1 = x0;
    x0 = sig[i];
    // b = {915, -1830, 915}, a = {29280, -14160} in Q12
    const int32_t low = 8192 + y1lo * 29280 + y2lo * -14160;
    int32_t high = y1hi * 29280;
    high = wrapAdd(high, y2hi * -14160);
    high = wrapAdd(high, x2 * 915);
    high = wrapAdd(high, x1 * -1830);
    high = wrapAdd(high, x0 * 915);
    const int32_t acc = wrapAdd(low >> 13, wrapShl(high, 2));
    y2hi = y1hi;
    y2lo = y1lo;
    sig[i] = static_cast<Word16>(wrapAdd(acc, 0x8000) >> 16);
    y1hi = static_cast<Word16>(acc >> 16);
    y1lo = static_cast<Word16>(wrapSub(acc, wrapShl(y1hi, 16)) >> 1);
  }
  m[0] = y2hi; m[1] = y2lo; m[2] = y1hi; m[3] = y1lo; m[4] = x0; m[5] = x1;
}

// 64 samples at 12.8 kHz -> 80 samples at 16 kHz (polyphase, 5 phases of
// 24 taps).
void Decoder::upsample(const Word16* sig12k8, Word16* sig16k) {
  constexpr int kTaps = 12;
  Word16 buf[kSub + 2 * kTaps];
  std::memcpy(buf, upMem_, sizeof upMem_);
  std::memcpy(buf + 2 * kTaps, sig12k8, kSub * sizeof(Word16));
  const Word16* sig = buf + kTaps;
  int pos = 0;
  for (int j = 0; j < kSub16; j++) {
    const int whole = pos / 5;
    const int frac = pos - whole * 5;
    if (frac == 0) {
      sig16k[j] = sig[whole];  // the centre phase is a plain copy
    } else {
      const Word16* x = sig + whole - kTaps + 1;
      const int16_t* c = tables::kUpsampleFir + 4 - frac;
      int32_t acc = 0x2000;  // exact: |sum| stays below 2^31
      for (int i = 0; i < 2 * kTaps; i++) acc += static_cast<int32_t>(x[i]) * c[5 * i];
      sig16k[j] = static_cast<Word16>(satShl(acc, 2) >> 16);
    }
    pos += 4;
  }
  std::memcpy(upMem_, buf + kSub, sizeof upMem_);
}

// 31-tap FIR over n (<= 80) samples, input shifted right by inShift. The
// sum is exact (sum |coef| x 2^15 stays below 2^31 for both filters); the
// rounded result is truncated to 16 bits as in the peer decoder.
void Decoder::fir31(Word16* sig, int n, Word16* mem, const int16_t* coef, int inShift) {
  Word16 x[kSub16 + 30];
  std::memcpy(x, mem, 30 * sizeof(Word16));
  for (int i = 0; i < n; i++) x[30 + i] = static_cast<Word16>(sig[i] >> inShift);
  for (int i = 0; i < n; i++) {
    int32_t acc = 0x4000;
    for (int j = 0; j < 31; j++) acc += static_cast<int32_t>(x[i + j]) * coef[j];
    sig[i] = static_cast<Word16>(acc >> 15);
  }
  std::memcpy(mem, x + n, 30 * sizeof(Word16));
}

void Decoder::synthesise(const Word16* aq, Word16* exc, Word16 qNew, Word16* out16k,
                         Word16 hfGainIndex, Word16* hfIsf, int mode, int dtxState, bool bfi) {
  Word16 hi[kOrder + kSub], lo[kOrder + kSub];
  Word16 synth[kSub];
  Word16 hf[kSub16];
  Word16 ap[kOrderHf + 1];
  Word16 hfA[kOrderHf + 1];

  // Low band: 1/A(z), de-emphasis, 50 Hz high-pass, 5/4 upsampling.
  std::memcpy(hi, synHi_, sizeof synHi_);
  std::memcpy(lo, synLo_, sizeof synLo_);
  lpcSynthesis32(aq, exc, qNew, hi + kOrder, lo + kOrder);
  std::memcpy(synHi_, hi + kSub, sizeof synHi_);
  std::memcpy(synLo_, lo + kSub, sizeof synLo_);

  Word16 prev = deemphMem_;
  for (int i = 0; i < kSub; i++) {
    int32_t acc = wrapAdd(wrapShl(hi[kOrder + i], 16), static_cast<int32_t>(lo[kOrder + i]) * 16);
    acc = satShl(acc, 3);
    acc = wrapAdd(acc, static_cast<int32_t>(prev) * kDeemphFac);
    synth[i] = prev = roundWrap(satShl(acc, 1));
  }
  deemphMem_ = prev;
  highPass50(synth, kSub);
  upsample(synth, out16k);

  // High band: white noise shaped to the excitation energy and the tilt.
  for (int i = 0; i < kSub16; i++) hf[i] = shr(nextRandom(seedHf_), 3);

  for (int i = 0; i < kSub; i++) exc[i] = static_cast<Word16>(add(exc[i], 4) >> 3);
  qNew = sub(qNew, 3);
  Word16 expEner, exp;
  const Word16 ener = extract_h(dotProduct12(exc, exc, kSub, expEner));
  expEner = sub(expEner, add(qNew, qNew));
  Word16 tmp = extract_h(dotProduct12(hf, hf, kSub16, exp));
  if (tmp > ener) {
    tmp = shr(tmp, 1);
    exp = add(exp, 1);
  }
  Word32 lt = L_deposit_h(div_s(tmp, ener));
  exp = sub(exp, expEner);
  isqrtNorm(lt, exp);
  lt = shiftLeft16(lt, exp + 1);
  tmp = extract_h(lt);
  for (int i = 0; i < kSub16; i++) hf[i] = mult(hf[i], tmp);

  highPass400(synth, kSub);
  lt = 1;
  for (int i = 0; i < kSub; i++) lt = L_mac(lt, synth[i], synth[i]);
  exp = norm_l(lt);
  const Word16 r0 = extract_h(L_shl(lt, exp));
  lt = 1;
  for (int i = 1; i < kSub; i++) lt = L_mac(lt, synth[i], synth[i - 1]);
  const Word16 r1 = extract_h(L_shl(lt, exp));
  const Word16 tilt = r1 > 0 ? div_s(r1, r0) : 0;

  const Word16 gain1 = sub(32767, tilt);
  const Word16 gain2 = shl(mult(sub(32767, tilt), 20480), 1);
  const Word16 w1 = vadHist_ > 0 ? 0 : 32767;
  const Word16 w2 = vadHist_ > 0 ? 32767 : 0;
  tmp = add(mult(w1, gain1), mult(w2, gain2));
  if (tmp != 0) tmp = add(tmp, 1);
  if (tmp < 3277) tmp = 3277;

  if (mode == 8 && !bfi) {
    const Word16 corr = tables::kHfGain[hfGainIndex];
    for (int i = 0; i < kSub16; i++) hf[i] = static_cast<Word16>(mult(hf[i], corr) * 2);
  } else {
    for (int i = 0; i < kSub16; i++) hf[i] = mult(hf[i], tmp);
  }

  if (mode == 0 && dtxState == kSpeech) {
    extrapolateIsf(hfIsf);
    ispToLpc(hfIsf, hfA, kOrderHf, false);
    weightLpc(hfA, ap, 29491, kOrderHf);
    lpcSynthesis(ap, kOrderHf, hf, hf, kSub16, hfSynMem_);
  } else {
    weightLpc(aq, ap, 19661, kOrder);
    lpcSynthesis(ap, kOrder, hf, hf, kSub16, hfSynMem_ + (kOrderHf - kOrder));
  }

  fir31(hf, kSub16, hfBandMem_, tables::kBandPass6k7k, 2);
  if (mode == 8) fir31(hf, kSub16, hfLowMem_, tables::kLowPass7k, 0);

  for (int i = 0; i < kSub16; i++) out16k[i] = add(out16k[i], hf[i]);
}

}  // namespace quillon::amrwb
