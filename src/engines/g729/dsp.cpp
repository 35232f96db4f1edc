#include "engines/g729/dsp.h"

#include <algorithm>
#include <cstdio>

#include "primitives/celp_math.h"
#include "primitives/diagnostics.h"
#include "engines/g729/tables.h"

namespace quillon::g729a {

Word16 Dsp::div_s(Word16 num, Word16 den) {
  if (num > den || num < 0 || den < 0) {
    char line[64];
    std::snprintf(line, sizeof line, "Division Error var1=%d  var2=%d\n", num, den);
    diag::fatal(0, line);
  }
  if (den == 0) diag::fatal(0, "Division by 0, Fatal error \n");
  return fx::BasicOps::div_s(num, den);
}

namespace {
inline int32_t absVal(int32_t v) { return v < 0 ? -v : v; }
constexpr int64_t kLimit32 = int64_t{1} << 31;

// Plain dot product of two runs of N samples (the compiler vectorises it).
template <int N>
inline int32_t dot(const Word16* a, const Word16* b) {
  int32_t acc = 0;
  for (int k = 0; k < N; k++) acc += static_cast<int32_t>(a[k]) * b[k];
  return acc;
}
}  // namespace

// The filters below accumulate in plain 32-bit arithmetic whenever a bound
// on the sum of the magnitudes of all terms shows that no partial sum can
// leave the 32-bit range; the saturating operator sequence would then give
// the same result. Otherwise they take the operator sequence itself.

void Dsp::synthesis(const Word16* a, const Word16* x, Word16* y, int lg, Word16* mem, bool update) {
  // mem may lie inside y (impulse responses filtered in place): read it first.
  Word16 hist[kOrder];
  int32_t maxY = 0;
  for (int i = 0; i < kOrder; i++) {
    hist[i] = mem[i];
    maxY = std::max(maxY, absVal(mem[i]));
  }
  int32_t sumA = 0;
  for (int j = 1; j <= kOrder; j++) sumA += absVal(a[j]);
  const int32_t a0 = a[0];
  int32_t maxX = 0;
  for (int n = 0; n < lg; n++) maxX = std::max(maxX, absVal(x[n]));
  // Plain arithmetic is exact while 2 (maxX |a0| + sumA maxY) < 2^31, that
  // is while every output so far stays at or below limY.
  const int64_t room = (kLimit32 - 1) / 2 - int64_t{maxX} * absVal(a0);
  const int64_t limY = sumA == 0 ? (room >= 0 ? 32768 : -1) : (room < 0 ? -1 : room / sumA);
  int n = 0;
  if (maxY <= limY) {
    // The last ten outputs travel in registers: the next output depends on
    // the previous one, and reloading it from memory would stall. x[n] is
    // read before y[n] is written, so x and y may be the same array.
    const int32_t a1 = a[1], a2 = a[2], a3 = a[3], a4 = a[4], a5 = a[5];
    const int32_t a6 = a[6], a7 = a[7], a8 = a[8], a9 = a[9], a10 = a[10];
    int32_t y1 = hist[9], y2 = hist[8], y3 = hist[7], y4 = hist[6], y5 = hist[5];
    int32_t y6 = hist[4], y7 = hist[3], y8 = hist[2], y9 = hist[1], y10 = hist[0];
    bool clipped = false;
    for (; n < lg; n++) {
      const int32_t far = a6 * y6 + a7 * y7 + a8 * y8 + a9 * y9 + a10 * y10;
      const int32_t near = a2 * y2 + a3 * y3 + a4 * y4 + a5 * y5;
      const int32_t acc = a1 * y1 + near + far;
      // round(L_shl(s, 3)): both saturate exactly when 8 s leaves
      // [-2^31, 0x7fff7fff].
      const int64_t v = int64_t{2 * (x[n] * a0 - acc)} * 8;
      const int64_t vc = std::clamp<int64_t>(v, fx::MIN_32, 0x7fff7fff);
      clipped |= v != vc;
      const Word16 out = static_cast<Word16>((vc + 0x8000) >> 16);
      y[n] = out;
      y10 = y9, y9 = y8, y8 = y7, y7 = y6, y6 = y5, y5 = y4, y4 = y3, y3 = y2, y2 = y1, y1 = out;
      if (absVal(out) > limY) {
        n++;
        break;
      }
    }
    if (clipped) Overflow = true;
  }
  if (n < lg) {
    // Exact operator sequence from here on, over a contiguous history.
    Word16 buf[kOrder + kFrame];
    for (int i = 0; i < kOrder; i++) buf[i] = hist[i];
    for (int i = 0; i < n; i++) buf[kOrder + i] = y[i];
    for (int i = 0; i < n; i++) maxY = std::max(maxY, absVal(y[i]));
    Word16* yy = buf + kOrder;
    for (; n < lg; n++) {
      Word32 s;
      if (maxY <= limY) {
        int32_t acc = 0;
        for (int j = 1; j <= kOrder; j++) acc += a[j] * yy[n - j];
        s = 2 * (x[n] * a0 - acc);
      } else {
        s = L_mult(x[n], a[0]);
        for (int j = 1; j <= kOrder; j++) s = L_msu(s, a[j], yy[n - j]);
      }
      s = L_shl(s, 3);
      yy[n] = round(s);
      y[n] = yy[n];
      maxY = std::max(maxY, absVal(yy[n]));
    }
  }
  if (update)
    for (int i = 0; i < kOrder; i++) mem[i] = y[lg - kOrder + i];
}

void Dsp::residual(const Word16* a, const Word16* x, Word16* y, int lg) {
  int32_t maxX = 0;
  for (int n = -kOrder; n < lg; n++) maxX = std::max(maxX, absVal(x[n]));
  int32_t sumA = 0;
  for (int j = 0; j <= kOrder; j++) sumA += absVal(a[j]);
  if (2 * int64_t{sumA} * maxX < kLimit32 && lg <= kFrame) {
    // Tap by tap over the whole block (vectorises across outputs).
    int32_t acc[kFrame] = {};
    for (int j = 0; j <= kOrder; j++) {
      const int32_t c = a[j];
      for (int n = 0; n < lg; n++) acc[n] += c * x[n - j];
    }
    for (int n = 0; n < lg; n++) y[n] = round(L_shl(2 * acc[n], 3));
    return;
  }
  for (int n = 0; n < lg; n++) {
    Word32 s = L_mult(x[n], a[0]);
    for (int j = 1; j <= kOrder; j++) s = L_mac(s, a[j], x[n - j]);
    s = L_shl(s, 3);
    y[n] = round(s);
  }
}

void Dsp::weightAz(const Word16* a, Word16 gamma, Word16* ap) {
  ap[0] = a[0];
  Word16 fac = gamma;
  for (int i = 1; i < kOrder; i++) {
    ap[i] = round(L_mult(a[i], fac));
    fac = round(L_mult(fac, gamma));
  }
  ap[kOrder] = round(L_mult(a[kOrder], fac));
}

namespace {
inline int64_t sat32(int64_t v) { return std::clamp<int64_t>(v, fx::MIN_32, fx::MAX_32); }
// Mpy_32_16 of the double-precision value held in t (hi = t >> 16,
// lo = (t >> 1) & 0x7fff) by q, with L_mult's single saturating case.
inline int64_t mpy32by16(int32_t t, int32_t q) {
  const int32_t hi = t >> 16, lo = (t >> 1) & 0x7fff;
  const int64_t p = (hi == -32768 && q == -32768) ? fx::MAX_32 : 2 * int64_t{hi} * q;
  return sat32(p + 2 * ((lo * q) >> 15));
}
}  // namespace

void Dsp::lspToAz(const Word16* lsp, Word16* a) {
  // Each saturating operator is one clamp of its exact 64-bit result.
  Word32 f1[6], f2[6];
  // F1 from the even LSPs, F2 from the odd ones.
  for (int which = 0; which < 2; which++) {
    Word32* f = which == 0 ? f1 : f2;
    const Word16* l = lsp + which;
    f[0] = 1 << 24;                                   // 1.0 in Q24
    f[1] = static_cast<Word32>(-1024 * int32_t{l[0]});  // -2 lsp[0] in Q24
    for (int i = 2; i <= 5; i++) {
      const int32_t q = l[2 * (i - 1)];
      f[i] = f[i - 2];
      for (int j = i; j > 1; j--) {
        const int64_t t0 = sat32(2 * mpy32by16(f[j - 1], q));
        const int64_t sum = sat32(int64_t{f[j]} + f[j - 2]);
        f[j] = static_cast<Word32>(sat32(sum - t0));
      }
      f[1] = static_cast<Word32>(sat32(int64_t{f[1]} - 1024 * q));
    }
  }
  for (int i = 5; i > 0; i--) {
    f1[i] = static_cast<Word32>(sat32(int64_t{f1[i]} + f1[i - 1]));
    f2[i] = static_cast<Word32>(sat32(int64_t{f2[i]} - f2[i - 1]));
  }
  a[0] = 4096;
  for (int i = 1, j = 10; i <= 5; i++, j--) {
    a[i] = extract_l(L_shr_r(L_add(f1[i], f2[i]), 13));
    a[j] = extract_l(L_shr_r(L_sub(f1[i], f2[i]), 13));
  }
}

void Dsp::interpolateAz(const Word16* lspOld, const Word16* lspNew, Word16* az) {
  Word16 lsp[kOrder];
  for (int i = 0; i < kOrder; i++) lsp[i] = add(shr(lspNew[i], 1), shr(lspOld[i], 1));
  lspToAz(lsp, az);
  lspToAz(lspNew, az + kOrder1);
}

void Dsp::lsfToLsp(const Word16* lsf, Word16* lsp) {
  for (int i = 0; i < kOrder; i++) {
    Word16 freq = mult(lsf[i], 20861);  // 1/(2 pi) in Q17
    Word16 ind = shr(freq, 8);
    Word16 offset = freq & 0x00ff;
    if (ind > 63) ind = 63;
    Word32 t = L_mult(tab::kCosSlope2[ind], offset);
    lsp[i] = add(tab::kCosTable2[ind], extract_l(L_shr(t, 13)));
  }
}

void Dsp::lspToLsf(const Word16* lsp, Word16* lsf) {
  int ind = 63;
  for (int i = kOrder - 1; i >= 0; i--) {
    while (sub(tab::kCosTable2[ind], lsp[i]) < 0) {
      ind--;
      if (ind <= 0) break;
    }
    Word16 offset = sub(lsp[i], tab::kCosTable2[ind]);
    Word32 t = L_mult(tab::kAcosSlope[ind], offset);
    Word16 freq = add(shl(static_cast<Word16>(ind), 9), extract_l(L_shr(t, 12)));
    lsf[i] = mult(freq, 25736);  // 2 pi in Q12
  }
}

void Dsp::predictLongTerm(Word16* exc, int t0, int frac, int n) {
  const Word16* x0 = exc - t0;
  frac = -frac;
  if (frac < 0) {
    frac += 3;
    x0--;
  }
  const Word16* c1 = &tab::kInterp3[frac];
  const Word16* c2 = &tab::kInterp3[3 - frac];
  int32_t sumC = 0;
  for (int k = 0; k < 30; k += 3) sumC += absVal(c1[k]) + absVal(c2[k]);
  // Largest input magnitude so far: the past excitation read by the filter,
  // then each new output as it is produced (outputs may be read back when
  // the delay is short).
  int32_t maxX = 0;
  for (const Word16* p = x0 - 9; p < exc; p++) maxX = std::max(maxX, absVal(*p));
  // The 20 taps in sample order: x0[-9..0] with c1 reversed, x0[1..10] with c2.
  Word16 taps[20];
  for (int i = 0; i < 10; i++) {
    taps[9 - i] = c1[3 * i];
    taps[10 + i] = c2[3 * i];
  }
  // Plain sums are exact while every input read is at most limX.
  const int64_t limX = (kLimit32 - 1) / (2 * int64_t{sumC});
  const Word16* end = x0 + n + 10;  // one past the last input read
  if (end <= exc && maxX <= limX && n <= kFrame) {
    // Long delay: every input is past excitation, already bounded by maxX.
    // Tap by tap over the whole block (vectorises across outputs).
    int32_t acc[kFrame] = {};
    for (int k = 0; k < 20; k++) {
      const int32_t c = taps[k];
      const Word16* src = x0 - 9 + k;
      for (int j = 0; j < n; j++) acc[j] += c * src[j];
    }
    for (int j = 0; j < n; j++) exc[j] = round(2 * acc[j]);
    return;
  }
  for (int j = 0; j < n; j++, x0++) {
    const Word16* x1 = x0;
    const Word16* x2 = x0 + 1;
    Word32 s;
    if (maxX <= limX) {
      s = 2 * dot<20>(taps, x0 - 9);
    } else {
      s = 0;
      for (int i = 0, k = 0; i < 10; i++, k += 3) {
        s = L_mac(s, x1[-i], c1[k]);
        s = L_mac(s, x2[i], c2[k]);
      }
    }
    exc[j] = round(s);
    maxX = std::max(maxX, absVal(exc[j]));
  }
}

Word32 Dsp::pow2(Word16 exponent, Word16 fraction) { return fx::pow2(*this, exponent, fraction); }

void Dsp::log2(Word32 x, Word16& exponent, Word16& fraction) { fx::log2(*this, x, exponent, fraction); }

Word32 Dsp::invSqrt(Word32 x) {
  if (x <= 0) return 0x3fffffff;
  Word16 e = norm_l(x);
  x = L_shl(x, e);
  e = sub(30, e);
  if ((e & 1) == 0) x = L_shr(x, 1);
  e = add(shr(e, 1), 1);
  x = L_shr(x, 9);
  Word16 i = extract_h(x);
  x = L_shr(x, 1);
  Word16 a = extract_l(x) & 0x7fff;
  i = sub(i, 16);
  return L_shr(fx::interpolate(*this, fx::kInvSqrtTable, i, a), e);
}

void Dsp::predictGain(const Word16* pastEnergy, const Word16* code, Word16& gcode0, Word16& expGcode0) {
  Word32 t = 0;
  for (int i = 0; i < kSubframe; i++) t = L_mac(t, code[i], code[i]);
  Word16 e, f;
  log2(t, e, f);
  t = Mpy_32_16(e, f, -24660);
  t = L_mac(t, 32588, 32);
  t = L_shl(t, 10);
  for (int i = 0; i < 4; i++) t = L_mac(t, tab::kGainPred[i], pastEnergy[i]);
  gcode0 = extract_h(t);
  t = L_mult(gcode0, 5439);
  t = L_shr(t, 8);
  L_Extract(t, e, f);
  gcode0 = extract_l(pow2(14, f));
  expGcode0 = sub(14, e);
}

void Dsp::updateGainMemory(Word16* pastEnergy, Word32 gainSum) {
  for (int i = 3; i > 0; i--) pastEnergy[i] = pastEnergy[i - 1];
  Word16 e, f;
  log2(gainSum, e, f);
  Word32 acc = L_Comp(sub(e, 13), f);
  Word16 tmp = extract_h(L_shl(acc, 13));
  pastEnergy[0] = mult(tmp, 24660);
}

void Dsp::updateGainMemoryErased(Word16* pastEnergy) {
  Word32 t = 0;
  for (int i = 0; i < 4; i++) t = L_add(t, L_deposit_l(pastEnergy[i]));
  Word16 av = extract_l(L_shr(t, 2));
  av = sub(av, 4096);
  if (av < -14336) av = -14336;
  for (int i = 3; i > 0; i--) pastEnergy[i] = pastEnergy[i - 1];
  pastEnergy[0] = av;
}

void Dsp::lspExpand(Word16* buf, Word16 gap, int from, int to) {
  for (int j = from; j < to; j++) {
    Word16 diff = sub(buf[j - 1], buf[j]);
    Word16 tmp = shr(add(diff, gap), 1);
    if (tmp > 0) {
      buf[j - 1] = sub(buf[j - 1], tmp);
      buf[j] = add(buf[j], tmp);
    }
  }
}

void Dsp::lspCompose(const Word16* ele, Word16* lsf, const Word16 (*fg)[kOrder], const Word16 (*mem)[kOrder],
                     const Word16* fgSum) {
  for (int j = 0; j < kOrder; j++) {
    Word32 acc = L_mult(ele[j], fgSum[j]);
    for (int k = 0; k < 4; k++) acc = L_mac(acc, mem[k][j], fg[k][j]);
    lsf[j] = extract_h(acc);
  }
}

void Dsp::lspShiftMemory(const Word16* ele, Word16 (*mem)[kOrder]) {
  for (int k = 3; k > 0; k--)
    for (int j = 0; j < kOrder; j++) mem[k][j] = mem[k - 1][j];
  for (int j = 0; j < kOrder; j++) mem[0][j] = ele[j];
}

void Dsp::lspStabilise(Word16* buf) {
  for (int j = 0; j < kOrder - 1; j++) {
    if (L_sub(buf[j + 1], buf[j]) < 0) {
      Word16 t = buf[j + 1];
      buf[j + 1] = buf[j];
      buf[j] = t;
    }
  }
  if (sub(buf[0], 40) < 0) {
    buf[0] = 40;
    diag::traceLine("lsp_stability warning Low \n");
  }
  for (int j = 0; j < kOrder - 1; j++) {
    if (L_sub(L_sub(buf[j + 1], buf[j]), 321) < 0) buf[j + 1] = add(buf[j], 321);
  }
  if (sub(buf[kOrder - 1], 25681) > 0) {
    buf[kOrder - 1] = 25681;
    diag::traceLine("lsp_stability warning High \n");
  }
}

void Dsp::lspExtract(const Word16* lsf, Word16* ele, int mode, const Word16 (*mem)[kOrder]) {
  lspExtract(lsf, ele, tab::kLspMaPred[mode], tab::kLspMaSumInv[mode], mem);
}

void Dsp::lspExtract(const Word16* lsf, Word16* ele, const Word16 (*fg)[kOrder], const Word16* sumInv,
                     const Word16 (*mem)[kOrder]) {
  for (int j = 0; j < kOrder; j++) {
    Word32 t = L_deposit_h(lsf[j]);
    for (int k = 0; k < 4; k++) t = L_msu(t, mem[k][j], fg[k][j]);
    const Word16 tmp = extract_h(t);
    t = L_mult(tmp, sumInv[j]);
    ele[j] = extract_h(L_shl(t, 3));
  }
}

void Dsp::lspDequantise(int code0, int code1, int code2, int mode, Word16 (*mem)[kOrder], Word16* lsfOut) {
  Word16 buf[kOrder];
  for (int j = 0; j < 5; j++) buf[j] = add(tab::kLspStage1[code0][j], tab::kLspStage2[code1][j]);
  for (int j = 5; j < kOrder; j++) buf[j] = add(tab::kLspStage1[code0][j], tab::kLspStage2[code2][j]);
  lspExpand(buf, 10, 1, kOrder);
  lspExpand(buf, 5, 1, kOrder);
  lspCompose(buf, lsfOut, tab::kLspMaPred[mode], mem, tab::kLspMaSum[mode]);
  lspShiftMemory(buf, mem);
  lspStabilise(lsfOut);
}

}  // namespace quillon::g729a
