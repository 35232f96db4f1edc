// AMR-WB encoder: resampling, high-pass filters, LP analysis (window,
// autocorrelation, Levinson-Durbin, LP to ISP), ISF quantisation, the
// open-loop pitch estimate and the basic filters. Saturation follows the
// 3GPP fixed-point reference encoder throughout.
#include <cstring>

#include "engines/amrwb/amrwb_encoder.h"
#include "engines/amrwb/amrwb_tables.h"
#include "primitives/lsp_roots.h"

namespace quillon::amrwb {

namespace {
constexpr Word16 kPredFactor = 10923;  // 1/3, MA prediction of the ISF residual
constexpr int kMaxSurvivors = 4;
constexpr Word16 kPitSharp = 27853;    // 0.85, pitch sharpening of the innovation
}  // namespace

// ---- resampling and high-pass filters ----------------------------------

// 16 kHz -> 12.8 kHz: 4/5 polyphase interpolation, 30 taps per phase.
void Encoder::decimate(const Word16* in, int n, Word16* out, Word16* mem) {
  constexpr int kTaps = 15;
  Word16 sig[kInputSamples + 2 * kTaps];
  std::memcpy(sig, mem, 2 * kTaps * sizeof(Word16));
  std::memcpy(sig + 2 * kTaps, in, static_cast<size_t>(n) * sizeof(Word16));
  const int nOut = mult(static_cast<Word16>(n), 26215);
  const Word16* s = sig + kTaps;
  int pos = 0;
  for (int j = 0; j < nOut; j++) {
    const Word16* x = s + (pos >> 2) - (kTaps - 1);
    const int frac = pos & 3;
    Word32 acc = 0;
    for (int i = 0, k = 3 - frac; i < 2 * kTaps; i++, k += 4) {
      acc = L_mac(acc, x[i], tables::kDecimationFir[k]);
    }
    out[j] = round(L_shl(acc, 1));
    pos += 5;
  }
  std::memcpy(mem, sig + n, 2 * kTaps * sizeof(Word16));
}

namespace {

// Second-order IIR in double precision on `sig`, state in `m`: feedback A1,
// A2 and feedforward B0, B1, B2 (Q12), the sum shifted left by Gain, the
// output by OutShift more.
template <Word16 A1, Word16 A2, Word16 B0, Word16 B1, Word16 B2, Word16 Gain, Word16 OutShift>
void iir2(fx::BasicOps& op, Word16* sig, int n, Word16* m) {
  Word16 y2hi = m[0], y2lo = m[1], y1hi = m[2], y1lo = m[3], x0 = m[4], x1 = m[5];
  for (int i = 0; i < n; i++) {
    const Word16 x2 = x1;
    x1 = x0;
    x0 = sig[i];
    Word32 t = 16384;
    t = op.L_mac(t, y1lo, A1);
    t = op.L_mac(t, y2lo, A2);
    t = op.L_shr(t, 15);
    t = op.L_mac(t, y1hi, A1);
    t = op.L_mac(t, y2hi, A2);
    t = op.L_mac(t, x0, B0);
    t = op.L_mac(t, x1, B1);
    t = op.L_mac(t, x2, B2);
    t = op.L_shl(t, Gain);
    y2hi = y1hi;
    y2lo = y1lo;
    op.L_Extract(t, y1hi, y1lo);
    sig[i] = op.round(OutShift ? op.L_shl(t, OutShift) : t);
  }
  m[0] = y2hi; m[1] = y2lo; m[2] = y1hi; m[3] = y1lo; m[4] = x0; m[5] = x1;
}

}  // namespace

void Encoder::highPass50(Word16* sig, int n, Word16* m) {
  iir2<16211, -8021, 4053, -8106, 4053, 2, 1>(*this, sig, n, m);
}

void Encoder::highPass400(Word16* sig, int n) {
  iir2<29280, -14160, 915, -1830, 915, 1, 0>(*this, sig, n, memHp400_);
}

// 31-tap band-pass 6-7 kHz at 16 kHz (input scaled down by 4).
void Encoder::fir6k7k(Word16* sig, Word16* mem) {
  Word16 x[kSub16 + 30];
  std::memcpy(x, mem, 30 * sizeof(Word16));
  for (int i = 0; i < kSub16; i++) x[30 + i] = shr(sig[i], 2);
  for (int i = 0; i < kSub16; i++) {
    Word32 t = 0;
    for (int j = 0; j < 31; j++) t = L_mac(t, x[i + j], tables::kBandPass6k7k[j]);
    sig[i] = round(t);
  }
  std::memcpy(mem, x + kSub16, 30 * sizeof(Word16));
}

// ---- LP analysis ---------------------------------------------------------

void Encoder::autocorrelation(const Word16* x, Word16* rHi, Word16* rLo) {
  constexpr int kWin = 384;
  Word16 y[kWin];
  for (int i = 0; i < kWin; i++) y[i] = mult_r(x[i], tables::kLpcWindow[i]);
  Word32 sum = L_deposit_h(16);
  for (int i = 0; i < kWin; i++) sum = L_add(sum, L_shr(L_mult(y[i], y[i]), 8));
  Word16 norm = norm_l(sum);
  Word16 shift = sub(4, shr(norm, 1));
  if (shift < 0) shift = 0;
  for (int i = 0; i < kWin; i++) y[i] = shr_r(y[i], shift);
  sum = 1;
  for (int i = 0; i < kWin; i++) sum = L_mac(sum, y[i], y[i]);
  norm = norm_l(sum);
  L_Extract(L_shl(sum, norm), rHi[0], rLo[0]);
  for (int k = 1; k <= kOrder; k++) {
    sum = 0;
    for (int j = 0; j < kWin - k; j++) sum = L_mac(sum, y[j], y[j + k]);
    L_Extract(L_shl(sum, norm), rHi[k], rLo[k]);
  }
}

// Levinson-Durbin in double precision; an unstable result is replaced by
// the last stable filter.
void Encoder::levinson(const Word16* rHi, const Word16* rLo, Word16* a) {
  Word16* oldA = levinsonOld_;
  Word16 aHi[kOrder + 1], aLo[kOrder + 1], nHi[kOrder + 1], nLo[kOrder + 1];
  Word16 kHi, kLo, hi, lo, alpHi, alpLo;

  Word32 t1 = L_Comp(rHi[1], rLo[1]);
  Word32 t0 = Div_32(L_abs(t1), rHi[0], rLo[0]);
  if (t1 > 0) t0 = L_negate(t0);
  L_Extract(t0, kHi, kLo);
  L_Extract(L_shr(t0, 4), aHi[1], aLo[1]);
  t0 = L_abs(Mpy_32(kHi, kLo, kHi, kLo));
  t0 = L_sub(fx::MAX_32, t0);
  L_Extract(t0, hi, lo);
  t0 = Mpy_32(rHi[0], rLo[0], hi, lo);
  Word16 alpExp = norm_l(t0);
  L_Extract(L_shl(t0, alpExp), alpHi, alpLo);

  for (int i = 2; i <= kOrder; i++) {
    t0 = 0;
    for (int j = 1; j < i; j++) t0 = L_add(t0, Mpy_32(rHi[j], rLo[j], aHi[i - j], aLo[i - j]));
    t0 = L_shl(t0, 4);
    t0 = L_add(t0, L_Comp(rHi[i], rLo[i]));
    Word32 t2 = Div_32(L_abs(t0), alpHi, alpLo);
    if (t0 > 0) t2 = L_negate(t2);
    t2 = L_shl(t2, alpExp);
    L_Extract(t2, kHi, kLo);
    if (abs_s(kHi) > 32750) {
      a[0] = 4096;
      for (int j = 0; j < kOrder; j++) a[j + 1] = oldA[j];
      return;
    }
    for (int j = 1; j < i; j++) {
      t0 = Mpy_32(kHi, kLo, aHi[i - j], aLo[i - j]);
      t0 = L_add(t0, L_Comp(aHi[j], aLo[j]));
      L_Extract(t0, nHi[j], nLo[j]);
    }
    L_Extract(L_shr(t2, 4), nHi[i], nLo[i]);
    t0 = L_abs(Mpy_32(kHi, kLo, kHi, kLo));
    t0 = L_sub(fx::MAX_32, t0);
    L_Extract(t0, hi, lo);
    t0 = Mpy_32(alpHi, alpLo, hi, lo);
    const Word16 n = norm_l(t0);
    L_Extract(L_shl(t0, n), alpHi, alpLo);
    alpExp = add(alpExp, n);
    for (int j = 1; j <= i; j++) {
      aHi[j] = nHi[j];
      aLo[j] = nLo[j];
    }
  }
  a[0] = 4096;
  for (int i = 1; i <= kOrder; i++) oldA[i - 1] = a[i] = round(L_shl(L_Comp(aHi[i], aLo[i]), 1));
}

// Chebyshev evaluation of the sum/difference polynomial at x (cosine
// domain), in double precision.
Word16 Encoder::chebyshev(Word16 x, const Word16* f, int n) {
  Word16 b0h, b0l, b1h, b1l, b2h, b2l;
  Word32 t = L_mult(f[0], 4096);
  L_Extract(t, b2h, b2l);
  t = Mpy_32_16(b2h, b2l, x);
  t = L_shl(t, 1);
  t = L_mac(t, f[1], 4096);
  L_Extract(t, b1h, b1l);
  for (int i = 2; i < n; i++) {
    t = Mpy_32_16(b1h, b1l, x);
    t = L_mac(t, b2h, -16384);
    t = L_mac(t, f[i], 2048);
    t = L_shl(t, 1);
    t = L_msu(t, b2l, 1);
    L_Extract(t, b0h, b0l);
    b2l = b1l;
    b2h = b1h;
    b1l = b0l;
    b1h = b0h;
  }
  t = Mpy_32_16(b1h, b1l, x);
  t = L_mac(t, b2h, -32768);
  t = L_msu(t, b2l, 1);
  t = L_mac(t, f[n], 2048);
  t = L_shl(t, 6);
  Word16 c = extract_h(t);
  if (c == -32768) c = -32767;
  return c;
}

// Roots of the ISP polynomials by a grid search with two bisections and a
// linear interpolation; keeps the old ISPs when fewer roots are found.
void Encoder::lpcToIsp(const Word16* a, Word16* isp, const Word16* oldIsp) {
  constexpr int nc = kOrder / 2;
  Word16 f1[nc + 1], f2[nc];
  for (int i = 0; i < nc; i++) {
    const Word32 t = L_mult(a[i], 16384);
    f1[i] = round(L_mac(t, a[kOrder - i], 16384));
    f2[i] = round(L_msu(t, a[kOrder - i], 16384));
  }
  f1[nc] = a[nc];
  for (int i = 2; i < nc; i++) f2[i] = add(f2[i], f2[i - 2]);

  const int nf = fx::findAlternatingRoots(
      *this, tables::kChebyshevGrid, 100, 2, kOrder - 1,
      [&](Word16 x, bool second) { return second ? chebyshev(x, f2, nc - 1) : chebyshev(x, f1, nc); },
      [&](Word16 num, Word16 den) { return div_s(num, den); }, isp);
  if (nf < kOrder - 1) {
    std::memcpy(isp, oldIsp, kOrder * sizeof(Word16));
  } else {
    isp[kOrder - 1] = shl(a[kOrder], 3);
  }
}

void Encoder::ispToIsf(const Word16* isp, Word16* isf) {
  int ind = 127;
  for (int i = kOrder - 1; i >= 0; i--) {
    if (i >= kOrder - 2) ind = 127;
    while (tables::kCosineGrid[ind] < isp[i]) ind--;
    const Word32 t = L_mult(sub(isp[i], tables::kCosineGrid[ind]), tables::kAcosSlope[ind]);
    isf[i] = add(round(L_shl(t, 4)), shl(static_cast<Word16>(ind), 7));
  }
  isf[kOrder - 1] = shr(isf[kOrder - 1], 1);
}

// ---- ISF quantisation ----------------------------------------------------

namespace {

// Best `surv` codewords of a first-stage codebook (sorted by distance).
void firstStage(fx::BasicOps& op, const Word16* x, const int16_t* book, int dim, int size,
                Word16* index, int surv) {
  Word32 best[kMaxSurvivors];
  for (int i = 0; i < surv; i++) {
    best[i] = fx::MAX_32;
    index[i] = static_cast<Word16>(i);
  }
  const int16_t* p = book;
  for (int i = 0; i < size; i++) {
    Word32 dist = 0;
    for (int j = 0; j < dim; j++) {
      const Word16 d = op.sub(x[j], *p++);
      dist = op.L_mac(dist, d, d);
    }
    for (int k = 0; k < surv; k++) {
      if (dist < best[k]) {
        for (int l = surv - 1; l > k; l--) {
          best[l] = best[l - 1];
          index[l] = index[l - 1];
        }
        best[k] = dist;
        index[k] = static_cast<Word16>(i);
        break;
      }
    }
  }
}

// Nearest codeword; `x` is replaced by it.
Word16 subVq(fx::BasicOps& op, Word16* x, const int16_t* book, int dim, int size,
             Word32& distance) {
  Word32 best = fx::MAX_32;
  int index = 0;
  const int16_t* p = book;
  for (int i = 0; i < size; i++) {
    Word32 dist = 0;
    for (int j = 0; j < dim; j++) {
      const Word16 d = op.sub(x[j], *p++);
      dist = op.L_mac(dist, d, d);
    }
    if (dist < best) {
      best = dist;
      index = i;
    }
  }
  distance = best;
  for (int j = 0; j < dim; j++) x[j] = book[index * dim + j];
  return static_cast<Word16>(index);
}

}  // namespace

// Two-stage split VQ with MA prediction: 46 bits (7 indices) or, at
// 6.60 kbit/s, 36 bits (5 indices); four first-stage survivors.
void Encoder::quantiseIsf(const Word16* isfIn, Word16* isfQ, Word16* ind, bool split36) {
  using namespace tables;
  fx::BasicOps& op = *this;
  Word16 isf[kOrder], stage2[kOrder], surv[kMaxSurvivors], tmpInd[3];
  for (int i = 0; i < kOrder; i++) {
    isf[i] = sub(sub(isfIn[i], kIsfMean[i]), mult(kPredFactor, pastIsfQ_[i]));
  }
  Word32 e;
  firstStage(op, isf, kIsfStage1Low, 9, 256, surv, kMaxSurvivors);
  Word32 best = fx::MAX_32;
  for (int k = 0; k < kMaxSurvivors; k++) {
    for (int i = 0; i < 9; i++) stage2[i] = sub(isf[i], kIsfStage1Low[i + surv[k] * 9]);
    Word32 dist;
    if (split36) {
      tmpInd[0] = subVq(op, stage2, kIsf36Split1, 5, 128, e);
      dist = e;
      tmpInd[1] = subVq(op, stage2 + 5, kIsf36Split2, 4, 128, e);
      dist = L_add(dist, e);
    } else {
      tmpInd[0] = subVq(op, stage2, kIsf46Split1, 3, 64, e);
      dist = e;
      tmpInd[1] = subVq(op, stage2 + 3, kIsf46Split2, 3, 128, e);
      dist = L_add(dist, e);
      tmpInd[2] = subVq(op, stage2 + 6, kIsf46Split3, 3, 128, e);
      dist = L_add(dist, e);
    }
    if (dist < best) {
      best = dist;
      ind[0] = surv[k];
      for (int i = 0; i < (split36 ? 2 : 3); i++) ind[2 + i] = tmpInd[i];
    }
  }
  firstStage(op, isf + 9, kIsfStage1High, 7, 256, surv, kMaxSurvivors);
  best = fx::MAX_32;
  for (int k = 0; k < kMaxSurvivors; k++) {
    for (int i = 0; i < 7; i++) stage2[i] = sub(isf[9 + i], kIsfStage1High[i + surv[k] * 7]);
    Word32 dist;
    if (split36) {
      tmpInd[0] = subVq(op, stage2, kIsf36Split3, 7, 64, e);
      dist = e;
    } else {
      tmpInd[0] = subVq(op, stage2, kIsf46Split4, 3, 32, e);
      dist = e;
      tmpInd[1] = subVq(op, stage2 + 3, kIsf46Split5, 4, 32, e);
      dist = L_add(dist, e);
    }
    if (dist < best) {
      best = dist;
      ind[1] = surv[k];
      if (split36) {
        ind[4] = tmpInd[0];
      } else {
        ind[5] = tmpInd[0];
        ind[6] = tmpInd[1];
      }
    }
  }
  dequantiseIsf(ind, isfQ, pastIsfQ_, split36);
}

// ---- open-loop pitch -------------------------------------------------------

void Encoder::lowPassDecimate2(Word16* x, int n) {
  static constexpr Word16 kFir[5] = {4260, 7536, 9175, 7536, 4260};
  Word16 buf[kFrame + 3];
  std::memcpy(buf, memDecim2_, 3 * sizeof(Word16));
  std::memcpy(buf + 3, x, static_cast<size_t>(n) * sizeof(Word16));
  std::memcpy(memDecim2_, x + n - 3, 3 * sizeof(Word16));
  for (int i = 0, j = 0; i < n; i += 2, j++) {
    Word32 t = 0;
    for (int k = 0; k < 5; k++) t = L_mac(t, buf[i + k], kFir[k]);
    x[j] = round(t);
  }
}

void Encoder::highPassWsp(const Word16* wsp, Word16* out, int n) {
  static constexpr Word16 kA[4] = {8192, 21663, -19258, 5734};
  static constexpr Word16 kB[4] = {-3432, 10280, -10280, 3432};
  Word16* m = hpWspMem_;
  Word16 y3hi = m[0], y3lo = m[1], y2hi = m[2], y2lo = m[3], y1hi = m[4], y1lo = m[5];
  Word16 x0 = m[6], x1 = m[7], x2 = m[8];
  for (int i = 0; i < n; i++) {
    const Word16 x3 = x2;
    x2 = x1;
    x1 = x0;
    x0 = wsp[i];
    Word32 t = 16384;
    t = L_mac(t, y1lo, kA[1]);
    t = L_mac(t, y2lo, kA[2]);
    t = L_mac(t, y3lo, kA[3]);
    t = L_shr(t, 15);
    t = L_mac(t, y1hi, kA[1]);
    t = L_mac(t, y2hi, kA[2]);
    t = L_mac(t, y3hi, kA[3]);
    t = L_mac(t, x0, kB[0]);
    t = L_mac(t, x1, kB[1]);
    t = L_mac(t, x2, kB[2]);
    t = L_mac(t, x3, kB[3]);
    t = L_shl(t, 2);
    y3hi = y2hi;
    y3lo = y2lo;
    y2hi = y1hi;
    y2lo = y1lo;
    L_Extract(t, y1hi, y1lo);
    out[i] = round(L_shl(t, 1));
  }
  m[0] = y3hi; m[1] = y3lo; m[2] = y2hi; m[3] = y2lo; m[4] = y1hi; m[5] = y1lo;
  m[6] = x0; m[7] = x1; m[8] = x2;
}

void Encoder::scaleWspFilter(Word16 exp) {
  Word16* m = hpWspMem_;
  for (int i = 0; i < 6; i += 2) L_Extract(L_shl(L_Comp(m[i], m[i + 1]), exp), m[i], m[i + 1]);
  for (int i = 6; i < 9; i++) m[i] = round(L_shl(L_deposit_h(m[i]), exp));
}

// Open-loop lag on the decimated weighted speech: weighted correlation
// maximum (favouring short lags and, when tracking, the previous lag), and
// the normalised correlation of the high-passed signal at that lag.
Word16 Encoder::openLoopPitch(Word16* wsp, int len, Word16 lastLag, Word16& gain) {
  constexpr int lMin = kPitMin / 2, lMax = kPitMax / 2;
  const int16_t* ww = tables::kOpenLoopWeight + 198;
  const int16_t* we = tables::kOpenLoopWeight + 98 + lMax - lastLag;
  Word32 best = fx::MIN_32;
  Word16 lag = 0;
  for (int i = lMax; i > lMin; i--) {
    Word32 r = 0;
    for (int j = 0; j < len; j++) r = L_mac(r, wsp[j], wsp[j - i]);
    Word16 hi, lo;
    L_Extract(r, hi, lo);
    r = Mpy_32_16(hi, lo, *ww--);
    if (lastLag > 0 && olWeightFlag_ > 0) {
      L_Extract(r, hi, lo);
      r = Mpy_32_16(hi, lo, *we--);
    }
    if (r >= best) {
      best = r;
      lag = static_cast<Word16>(i);
    }
  }

  Word16* hp = oldHpWsp_ + lMax;
  highPassWsp(wsp, hp, len);
  Word32 r0 = 0, r1 = 1, r2 = 1;
  for (int j = 0; j < len; j++) {
    r0 = L_mac(r0, hp[j], hp[j - lag]);
    r1 = L_mac(r1, hp[j - lag], hp[j - lag]);
    r2 = L_mac(r2, hp[j], hp[j]);
  }
  Word16 e0 = norm_l(r0);
  r0 = L_shl(r0, e0);
  Word16 e1 = norm_l(r1);
  r1 = L_shl(r1, e1);
  const Word16 e2 = norm_l(r2);
  r2 = L_shl(r2, e2);
  r1 = L_mult(round(r1), round(r2));
  const Word16 n = norm_l(r1);
  r1 = L_shl(r1, n);
  e1 = sub(62, add(add(e1, e2), n));
  isqrtNorm(r1, e1);
  r0 = L_mult(round(r0), round(r1));
  e0 = add(sub(31, e0), e1);
  gain = round(L_shl(r0, e0));
  std::memmove(oldHpWsp_, oldHpWsp_ + len, lMax * sizeof(Word16));
  return lag;
}

// ---- basic filters ---------------------------------------------------------

void Encoder::residual(const Word16* a, const Word16* x, Word16* y, int n) {
  for (int i = 0; i < n; i++) {
    Word32 s = L_mult(x[i], a[0]);
    for (int j = 1; j <= kOrder; j++) s = L_mac(s, a[j], x[i - j]);
    y[i] = round(L_shl(s, 4));
  }
}

void Encoder::synthesisFilter(const Word16* a, int m, const Word16* x, Word16* y, int n,
                              Word16* mem, bool update) {
  Word16 buf[kSub16 + kOrderHf];
  std::memcpy(buf, mem, static_cast<size_t>(m) * sizeof(Word16));
  Word16* yy = buf + m;
  const Word16 s = sub(norm_s(a[0]), 2);
  const Word16 a0 = shr(a[0], 1);
  for (int i = 0; i < n; i++) {
    Word32 t = L_mult(x[i], a0);
    for (int j = 1; j <= m; j++) t = L_msu(t, a[j], yy[i - j]);
    y[i] = yy[i] = round(L_shl(t, add(3, s)));
  }
  if (update) std::memcpy(mem, yy + n - m, static_cast<size_t>(m) * sizeof(Word16));
}

void Encoder::synthesisFilter32(const Word16* a, const Word16* exc, Word16 qNew, Word16* hi,
                                Word16* lo) {
  const Word16 s = sub(norm_s(a[0]), 2);
  const Word16 a0 = shr(a[0], add(4, qNew));
  for (int i = 0; i < kSub; i++) {
    Word32 t = 0;
    for (int j = 1; j <= kOrder; j++) t = L_msu(t, lo[i - j], a[j]);
    t = L_shr(t, 12);
    t = L_mac(t, exc[i], a0);
    for (int j = 1; j <= kOrder; j++) t = L_msu(t, hi[i - j], a[j]);
    t = L_shl(t, add(3, s));
    hi[i] = extract_h(t);
    lo[i] = extract_l(L_msu(L_shr(t, 4), hi[i], 2048));
  }
}

// 1 - mu z^-1 in place (x2 when `doubled`); `mem` is x[-1].
void Encoder::preemphasis(Word16* x, Word16 mu, int n, Word16& mem, bool doubled) {
  for (int i = n - 1; i >= 0; i--) {
    Word32 t = L_msu(L_deposit_h(x[i]), i > 0 ? x[i - 1] : mem, mu);
    if (doubled) t = L_shl(t, 1);
    x[i] = round(t);
  }
}

// 1 / (1 - mu z^-1) with the input halved; `mem` is y[-1] and is updated.
void Encoder::deemphasis2(Word16* x, Word16 mu, int n, Word16& mem) {
  x[0] = round(L_mac(L_mult(x[0], 16384), mem, mu));
  for (int i = 1; i < n; i++) x[i] = round(L_mac(L_mult(x[i], 16384), x[i - 1], mu));
  mem = x[n - 1];
}

void Encoder::scale(Word16* x, int n, Word16 exp) {
  for (int i = 0; i < n; i++) x[i] = round(L_shl(L_deposit_h(x[i]), exp));
}

void Encoder::convolve(const Word16* x, const Word16* h, Word16* y) {
  for (int n = 0; n < kSub; n++) {
    Word32 s = 0;
    for (int i = 0; i <= n; i++) s = L_mac(s, x[i], h[n - i]);
    y[n] = round(s);
  }
}

void Encoder::pitchSharpen(Word16* x, Word16 lag) {
  for (int i = lag; i < kSub; i++) x[i] = round(L_mac(L_deposit_h(x[i]), x[i - lag], kPitSharp));
}

}  // namespace quillon::amrwb
