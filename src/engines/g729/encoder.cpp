#include "engines/g729/encoder.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "engines/g729/tables.h"
#include "primitives/lsp_roots.h"

namespace quillon::g729a {

namespace {
constexpr int kExcHist = kPitchMax + kInterpLen;
constexpr int kWindow = 240;
constexpr Word16 kGamma1 = 24576;           // 0.75, perceptual weighting
constexpr Word16 kPitchGainClip = 15564;    // pitch gain limit under taming, Q14
constexpr Word16 kPitchGainClip9 = 481;     // the same in Q9
constexpr Word16 kPitchGainMax = 16383;     // gains at or above it are skipped under taming
constexpr Word32 kTamingThreshold = 983040000;
constexpr int kTracks = 5;
constexpr int kPositions = 8;  // pulse positions per track

// Index of the block holding the correlations of tracks x < y in the pulse
// correlation matrix (after the five diagonals).
constexpr int blockIndex(int x, int y) {
  constexpr int kStart[3] = {0, 4, 7};  // blocks of (0,1..4), (1,2..4), (2,3..4)
  return kStart[x] + (y - x - 1);
}
inline Word16* diag(Word16* rr, int track) { return rr + track * kPositions; }

// For each entry of the pulse correlation matrix (pulses at p and q), the
// index lag * 40 + (39 - max(p, q)) of its running correlation sum.
constexpr int kRrEntries = 5 * 8 + 9 * 64;
constexpr std::array<int16_t, kRrEntries> makeRrSource() {
  std::array<int16_t, kRrEntries> src{};
  auto index = [](int p, int q) {
    const int lag = p > q ? p - q : q - p;
    return static_cast<int16_t>(lag * 40 + 39 - (p > q ? p : q));
  };
  int i = 0;
  for (int t = 0; t < 5; t++)
    for (int a = 0; a < 8; a++, i++) src[i] = index(t + 5 * a, t + 5 * a);
  for (int x = 0; x < 3; x++)
    for (int y = x + 1; y < 5; y++)
      for (int a = 0; a < 8; a++)
        for (int c = 0; c < 8; c++, i++) src[i] = index(x + 5 * a, y + 5 * c);
  return src;
}
constexpr std::array<int16_t, kRrEntries> kRrSource = makeRrSource();
inline Word16* block(Word16* rr, int x, int y) { return rr + kTracks * kPositions + blockIndex(x, y) * 64; }
}  // namespace

void Encoder::reset() {
  Overflow = false;
  std::memset(m_speech, 0, sizeof m_speech);
  std::memset(m_wspBuf, 0, sizeof m_wspBuf);
  std::memset(m_excBuf, 0, sizeof m_excBuf);
  std::memcpy(m_lspOld, kLspInit, sizeof m_lspOld);
  std::memcpy(m_lspOldQ, kLspInit, sizeof m_lspOldQ);
  std::memset(m_memW0, 0, sizeof m_memW0);
  std::memset(m_memW, 0, sizeof m_memW);
  std::memset(m_memZero, 0, sizeof m_memZero);
  m_sharp = kSharpMin;
  for (auto& row : m_lsfMem) std::memcpy(row, kLsfMemInit, sizeof row);
  for (auto& e : m_excErr) e = 0x4000;
  std::memset(m_oldA, 0, sizeof m_oldA);
  m_oldA[0] = 4096;
  m_oldRc[0] = m_oldRc[1] = 0;
  std::memset(m_memSyn, 0, sizeof m_memSyn);
  std::memset(m_errBuf, 0, sizeof m_errBuf);
  m_smooth = 1;
  m_larOld[0] = m_larOld[1] = 0;
  m_searchExtra = 30;
  m_vad.reset();
  m_pastVad = m_ppastVad = true;
  m_cngSeed = 11111;
  m_frameCount = 0;
  std::memset(m_lspSidQ, 0, sizeof m_lspSidQ);
  std::memset(m_pastCoeff, 0, sizeof m_pastCoeff);
  std::memset(m_rCoeff, 0, sizeof m_rCoeff);
  m_shRCoeff = 0;
  std::memset(m_acf, 0, sizeof m_acf);
  m_shAcf[0] = m_shAcf[1] = 40;
  std::memset(m_sumAcf, 0, sizeof m_sumAcf);
  m_shSumAcf[0] = m_shSumAcf[1] = m_shSumAcf[2] = 40;
  m_ener[0] = m_ener[1] = 0;
  m_shEner[0] = m_shEner[1] = 40;
  m_frCur = 0;
  m_cngGain = 0;
  m_nbEner = 0;
  m_sidGain = 0;
  m_flagChange = false;
  m_prevEnergyQ = 0;
  m_countFr0 = 0;
  for (auto& e : m_pastEnergy) e = kGainMemInit;
  m_y1Hi = m_y1Lo = m_y2Hi = m_y2Lo = m_x0 = m_x1 = 0;
}

void Encoder::pack(const Word16 prm[kParamCount], uint8_t out[kFrameBytes]) {
  std::memset(out, 0, kFrameBytes);
  int pos = 0;
  for (int p = 0; p < kParamCount; p++) {
    const int w = tab::kParamBits[p];
    for (int b = w - 1; b >= 0; b--, pos++)
      if ((prm[p] >> b) & 1) out[pos >> 3] |= static_cast<uint8_t>(0x80 >> (pos & 7));
  }
}

int Encoder::encode(const int16_t pcm[kFrameSamples], uint8_t out[kFrameBytes]) {
  Word16* fresh = m_speech + kWindow - kFrame;
  std::memcpy(fresh, pcm, kFrame * sizeof(Word16));
  highPass(fresh);
  if (m_annexB) m_frameCount = m_frameCount == 32767 ? Word16{256} : static_cast<Word16>(m_frameCount + 1);
  Word16 prm[kParamCount];
  const int type = m_variant == Variant::Main ? analyseMain(prm) : analyse(prm);
  if (type == 1) {
    pack(prm, out);
    return kFrameBytes;
  }
  if (type == 2) {
    packSid(prm, out);
    return kSidBytes;
  }
  return 0;
}

void Encoder::highPass(Word16* signal) {
  // y[n] = b0 x[n] + b1 x[n-1] + b2 x[n-2] + a1 y[n-1] + a2 y[n-2] with the
  // feedback in double precision. With these coefficients no partial sum
  // can reach 2^31 (at most about 1.26e9 for any input), so only the final
  // shift by 3 and the rounding saturate.
  const int32_t a1 = tab::kPreHpA[1], a2 = tab::kPreHpA[2];
  const int32_t b0 = tab::kPreHpB[0], b1 = tab::kPreHpB[1], b2 = tab::kPreHpB[2];
  int32_t x0 = m_x0, x1 = m_x1, y1Hi = m_y1Hi, y1Lo = m_y1Lo, y2Hi = m_y2Hi, y2Lo = m_y2Lo;
  for (int i = 0; i < kFrame; i++) {
    const int32_t x2 = x1;
    x1 = x0;
    x0 = signal[i];
    const int32_t t = 2 * (y1Hi * a1 + ((y1Lo * a1) >> 15)) + 2 * (y2Hi * a2 + ((y2Lo * a2) >> 15)) +
                      2 * (x0 * b0 + x1 * b1 + x2 * b2);
    const int64_t t8 = std::clamp<int64_t>(int64_t{t} * 8, fx::MIN_32, fx::MAX_32);
    signal[i] = static_cast<Word16>(std::min<int64_t>(t8 + 0x8000, fx::MAX_32) >> 16);
    y2Hi = y1Hi;
    y2Lo = y1Lo;
    y1Hi = static_cast<int32_t>(t8) >> 16;
    y1Lo = (static_cast<int32_t>(t8) >> 1) & 0x7fff;
  }
  m_x0 = static_cast<Word16>(x0);
  m_x1 = static_cast<Word16>(x1);
  m_y1Hi = static_cast<Word16>(y1Hi);
  m_y1Lo = static_cast<Word16>(y1Lo);
  m_y2Hi = static_cast<Word16>(y2Hi);
  m_y2Lo = static_cast<Word16>(y2Lo);
}

// ---- LP analysis -------------------------------------------------------------

void Encoder::autocorrelation(const Word16* x, Word16* rh, Word16* rl, int order, Word16* expR0, Word16* rawHi) {
  Word16 y[kWindow];
  for (int i = 0; i < kWindow; i++) y[i] = mult_r(x[i], tab::kLpcWindow[i]);
  // The energy terms are never negative, so the saturating sum overflows
  // exactly when the plain total passes 2^31 - 1; once it fits, every lag
  // product sum is bounded by it and needs no saturation either.
  Word32 sum;
  Word16 exp = 1;
  for (;;) {
    int64_t e = 1;
    for (int i = 0; i < kWindow; i++) e += 2 * int64_t{y[i]} * y[i];
    if (e <= fx::MAX_32) {
      sum = static_cast<Word32>(e);
      break;
    }
    for (int i = 0; i < kWindow; i++) y[i] = shr(y[i], 2);
    exp = add(exp, 4);
  }
  const Word16 norm = norm_l(sum);
  if (expR0) *expR0 = sub(exp, norm);
  L_Extract(L_shl(sum, norm), rh[0], rl[0]);
  for (int k = 1; k <= order; k++) {
    int32_t acc = 0;
    for (int j = 0; j < kWindow - k; j++) acc += y[j] * y[j + k];
    L_Extract(L_shl(2 * acc, norm), rh[k], rl[k]);
  }
  if (rawHi) std::memcpy(rawHi, rh, kOrder1 * sizeof(Word16));
  // Lag window.
  for (int k = 1; k <= order; k++) {
    const Word32 t = Mpy_32(rh[k], rl[k], tab::kLagWindowHi[k - 1], tab::kLagWindowLo[k - 1]);
    L_Extract(t, rh[k], rl[k]);
  }
}

void Encoder::levinson(const Word16* rh, const Word16* rl, Word16* a, Word16* rc, Word16* err) {
  Word16 ah[kOrder1], al[kOrder1], anh[kOrder1], anl[kOrder1];
  Word16 kh, kl, hi, lo, alpH, alpL;

  Word32 t1 = L_Comp(rh[1], rl[1]);
  Word32 t2 = L_abs(t1);
  Word32 t0 = Div_32(t2, rh[0], rl[0]);
  if (t1 > 0) t0 = L_negate(t0);
  L_Extract(t0, kh, kl);
  rc[0] = kh;
  t0 = L_shr(t0, 4);
  L_Extract(t0, ah[1], al[1]);
  t0 = Mpy_32(kh, kl, kh, kl);
  t0 = L_abs(t0);
  t0 = L_sub(fx::MAX_32, t0);
  L_Extract(t0, hi, lo);
  t0 = Mpy_32(rh[0], rl[0], hi, lo);
  Word16 alpExp = norm_l(t0);
  t0 = L_shl(t0, alpExp);
  L_Extract(t0, alpH, alpL);

  for (int i = 2; i <= kOrder; i++) {
    t0 = 0;
    for (int j = 1; j < i; j++) t0 = L_add(t0, Mpy_32(rh[j], rl[j], ah[i - j], al[i - j]));
    t0 = L_shl(t0, 4);
    t1 = L_Comp(rh[i], rl[i]);
    t0 = L_add(t0, t1);
    t1 = L_abs(t0);
    t2 = Div_32(t1, alpH, alpL);
    if (t0 > 0) t2 = L_negate(t2);
    t2 = L_shl(t2, alpExp);
    L_Extract(t2, kh, kl);
    if (i <= 2) rc[i - 1] = kh;
    if (abs_s(kh) > 32750) {  // unstable: keep the previous filter
      std::memcpy(a, m_oldA, sizeof m_oldA);
      rc[0] = m_oldRc[0];
      rc[1] = m_oldRc[1];
      return;
    }
    for (int j = 1; j < i; j++) {
      t0 = Mpy_32(kh, kl, ah[i - j], al[i - j]);
      t0 = L_add(t0, L_Comp(ah[j], al[j]));
      L_Extract(t0, anh[j], anl[j]);
    }
    t2 = L_shr(t2, 4);
    L_Extract(t2, anh[i], anl[i]);
    t0 = Mpy_32(kh, kl, kh, kl);
    t0 = L_abs(t0);
    t0 = L_sub(fx::MAX_32, t0);
    L_Extract(t0, hi, lo);
    t0 = Mpy_32(alpH, alpL, hi, lo);
    const Word16 n = norm_l(t0);
    t0 = L_shl(t0, n);
    L_Extract(t0, alpH, alpL);
    alpExp = add(alpExp, n);
    for (int j = 1; j <= i; j++) {
      ah[j] = anh[j];
      al[j] = anl[j];
    }
  }
  if (err) *err = shr(alpH, alpExp);
  a[0] = 4096;
  for (int i = 1; i <= kOrder; i++) m_oldA[i] = a[i] = round(L_shl(L_Comp(ah[i], al[i]), 1));
  m_oldA[0] = 4096;
  m_oldRc[0] = rc[0];
  m_oldRc[1] = rc[1];
}

namespace {
inline int64_t sat32(int64_t v) { return std::clamp<int64_t>(v, fx::MIN_32, fx::MAX_32); }
// L_mult: doubled product, saturating only for -32768 * -32768.
inline int64_t mult2(int32_t a, int32_t b) { return (a == -32768 && b == -32768) ? fx::MAX_32 : 2 * int64_t{a} * b; }
// Mpy_32_16 of the double-precision split of t (hi = t >> 16,
// lo = (t >> 1) & 0x7fff) by q.
inline int64_t mpy32by16(int32_t t, int32_t q) {
  const int32_t hi = t >> 16, lo = (t >> 1) & 0x7fff;
  return sat32(mult2(hi, q) + 2 * ((lo * q) >> 15));
}
}  // namespace

Word16 Encoder::chebyshev(Word16 x, const Word16* f, bool q10) {
  // Evaluates the order-5 Chebyshev series of f at x, in Q24 (or Q23 when
  // the coefficients had to be halved) double precision: b1 and b2 are
  // kept as 32-bit values whose (hi, lo) split the operators use; every
  // saturating operator is one clamp of its exact 64-bit result.
  int32_t b2 = q10 ? (128 << 16) : (256 << 16);
  int32_t b1 = static_cast<int32_t>(sat32(int64_t{x} * (q10 ? 512 : 1024) + 8192 * int64_t{f[1]}));
  // b = 2 x b1 - b2 + f[i] (or x b1 - b2 + f[5] / 2 at the end).
  auto step = [&](bool last, Word16 fi) {
    int64_t t = mpy32by16(b1, x);
    if (!last) t = sat32(2 * t);
    t = sat32(t + mult2(b2 >> 16, -32768));
    t = sat32(t - 2 * ((b2 >> 1) & 0x7fff));
    return sat32(t + (last ? 4096 : 8192) * int64_t{fi});
  };
  for (int i = 2; i < 5; i++) {
    const int32_t b0 = static_cast<int32_t>(step(false, f[i]));
    b2 = b1;
    b1 = b0;
  }
  const int64_t t = sat32(step(true, f[5]) * (q10 ? 128 : 64));
  return static_cast<Word16>(t >> 16);
}

void Encoder::azToLsp(const Word16* a, Word16* lsp, const Word16* oldLsp) {
  Word16 f1[6], f2[6];
  bool halve = false;
  f1[0] = 2048;
  f2[0] = 2048;
  for (int i = 0; i < 5; i++) {
    Overflow = false;
    Word32 t = L_mult(a[i + 1], 16384);
    t = L_mac(t, a[kOrder - i], 16384);
    Word16 x = extract_h(t);
    if (Overflow) halve = true;
    Overflow = false;
    f1[i + 1] = sub(x, f1[i]);
    if (Overflow) halve = true;
    Overflow = false;
    t = L_mult(a[i + 1], 16384);
    t = L_msu(t, a[kOrder - i], 16384);
    x = extract_h(t);
    if (Overflow) halve = true;
    Overflow = false;
    f2[i + 1] = add(x, f2[i]);
    if (Overflow) halve = true;
  }
  if (halve) {
    f1[0] = 1024;
    f2[0] = 1024;
    for (int i = 0; i < 5; i++) {
      Word32 t = L_mult(a[i + 1], 8192);
      t = L_mac(t, a[kOrder - i], 8192);
      f1[i + 1] = sub(extract_h(t), f1[i]);
      t = L_mult(a[i + 1], 8192);
      t = L_msu(t, a[kOrder - i], 8192);
      f2[i + 1] = add(extract_h(t), f2[i]);
    }
  }

  // Annex A scans 50 grid intervals and bisects twice, the main body 60
  // intervals and four times.
  const bool fine = m_variant == Variant::Main;
  const int found = fx::findAlternatingRoots(
      *this, fine ? tab::kChebGrid60 : tab::kChebGrid, fine ? 60 : 50, fine ? 4 : 2, kOrder,
      [&](Word16 x, bool second) { return chebyshev(x, second ? f2 : f1, halve); },
      [this](Word16 num, Word16 den) { return div_s(num, den); }, lsp);
  if (found < kOrder) std::memcpy(lsp, oldLsp, kOrder * sizeof(Word16));
}

// Weights from the distances between neighbouring LSFs (Q13 LSFs).
void Encoder::lsfWeights(const Word16* lsf, Word16* wegt) {
  Word16 buf[kOrder];
  buf[0] = sub(lsf[1], 1029 + 8192);
  for (int i = 1; i < kOrder - 1; i++) buf[i] = sub(sub(lsf[i + 1], lsf[i - 1]), 8192);
  buf[kOrder - 1] = sub(23677 - 8192, lsf[kOrder - 2]);
  for (int i = 0; i < kOrder; i++) {
    if (buf[i] > 0) {
      wegt[i] = 2048;
    } else {
      Word32 t = L_mult(buf[i], buf[i]);
      Word16 tmp = extract_h(L_shl(t, 2));
      t = L_mult(tmp, 10 * (1 << 11));
      tmp = extract_h(L_shl(t, 2));
      wegt[i] = add(tmp, 2048);
    }
  }
  wegt[4] = extract_h(L_shl(L_mult(wegt[4], 19661), 1));
  wegt[5] = extract_h(L_shl(L_mult(wegt[5], 19661), 1));
  Word16 top = 0;
  for (int i = 0; i < kOrder; i++)
    if (wegt[i] > top) top = wegt[i];
  const Word16 sft = norm_s(top);
  for (int i = 0; i < kOrder; i++) wegt[i] = shl(wegt[i], sft);
}

void Encoder::quantiseLsp(const Word16* lsp, Word16* lspQ, Word16* prm) {
  Word16 lsf[kOrder], lsfQ[kOrder];
  lspToLsf(lsp, lsf);

  Word16 wegt[kOrder];
  lsfWeights(lsf, wegt);

  // Both MA predictors: first stage by plain distance, second stage halves
  // by weighted distance, then the weighted distortion of the result.
  Word16 cand[2], idx1[2], idx2[2];
  Word32 dist[2];
  for (int mode = 0; mode < 2; mode++) {
    Word16 target[kOrder];
    lspExtract(lsf, target, mode, m_lsfMem);

    Word32 best = fx::MAX_32;
    int c0 = 0;
    for (int i = 0; i < 128; i++) {
      // Squares only: the saturating sum is the plain one capped at 2^31 - 1,
      // and a partial sum already at the best cannot win any more.
      const Word16* cb = tab::kLspStage1[i];
      int64_t acc = 0;
      for (int k = 0; k < 4; k++) {
        const int32_t t = std::clamp<int32_t>(target[k] - cb[k], fx::MIN_16, fx::MAX_16);
        acc += 2 * int64_t{t} * t;
      }
      if (acc >= best) continue;
      for (int k = 4; k < kOrder; k++) {
        const int32_t t = std::clamp<int32_t>(target[k] - cb[k], fx::MIN_16, fx::MAX_16);
        acc += 2 * int64_t{t} * t;
      }
      const Word32 d = acc > fx::MAX_32 ? fx::MAX_32 : static_cast<Word32>(acc);
      if (L_sub(d, best) < 0) {
        best = d;
        c0 = i;
      }
    }
    cand[mode] = static_cast<Word16>(c0);
    const Word16* first = tab::kLspStage1[c0];

    Word16 cb[kOrder];
    int halfIdx[2];
    for (int half = 0; half < 2; half++) {
      const int from = half * 5, to = from + 5;
      Word16 r[kOrder];
      for (int k = from; k < to; k++) r[k] = sub(target[k], first[k]);
      Word32 dmin = fx::MAX_32;
      int bestIdx = 0;
      for (int i = 0; i < 32; i++) {
        // The weights are never negative, so every term is: the saturating
        // sum is the plain one capped at 2^31 - 1.
        int64_t acc = 0;
        for (int k = from; k < to; k++) {
          const int32_t t = std::clamp<int32_t>(r[k] - tab::kLspStage2[i][k], fx::MIN_16, fx::MAX_16);
          const int32_t t2 = (wegt[k] * t) >> 15;
          acc += 2 * int64_t{t2} * t;
        }
        const Word32 d = acc > fx::MAX_32 ? fx::MAX_32 : static_cast<Word32>(acc);
        if (L_sub(d, dmin) < 0) {
          dmin = d;
          bestIdx = i;
        }
      }
      halfIdx[half] = bestIdx;
      for (int k = from; k < to; k++) cb[k] = add(first[k], tab::kLspStage2[bestIdx][k]);
      lspExpand(cb, 10, half == 0 ? 1 : 5, to);
    }
    idx1[mode] = static_cast<Word16>(halfIdx[0]);
    idx2[mode] = static_cast<Word16>(halfIdx[1]);
    lspExpand(cb, 5, 1, kOrder);

    Word32 td = 0;
    for (int k = 0; k < kOrder; k++) {
      Word16 t = sub(cb[k], target[k]);
      t = mult(t, tab::kLspMaSum[mode][k]);
      const Word32 acc = L_mult(wegt[k], t);
      const Word16 t2 = extract_h(L_shl(acc, 4));
      td = L_mac(td, t2, t);
    }
    dist[mode] = td;
  }
  const int mode = L_sub(dist[1], dist[0]) < 0 ? 1 : 0;
  prm[0] = static_cast<Word16>(mode << 7 | cand[mode]);
  prm[1] = static_cast<Word16>(idx1[mode] << 5 | idx2[mode]);
  lspDequantise(cand[mode], idx1[mode], idx2[mode], mode, m_lsfMem, lsfQ);
  lsfToLsp(lsfQ, lspQ);
}

// ---- Pitch ---------------------------------------------------------------------

Word16 Encoder::openLoopPitch(const Word16* wsp) {
  Word16 scaledBuf[kPitchMax + kFrame];
  Word16* s = scaledBuf + kPitchMax;

  // Squares only: the saturating sum overflows exactly when the plain one
  // passes 2^31 - 1.
  int64_t energy = 0;
  for (int i = -kPitchMax; i < kFrame; i += 2) energy += 2 * int64_t{wsp[i]} * wsp[i];
  if (energy > fx::MAX_32) {
    for (int i = -kPitchMax; i < kFrame; i++) s[i] = shr(wsp[i], 3);
  } else if (energy < 1048576) {
    for (int i = -kPitchMax; i < kFrame; i++) s[i] = shl(wsp[i], 3);
  } else {
    for (int i = -kPitchMax; i < kFrame; i++) s[i] = wsp[i];
  }
  // Every correlation below pairs samples of one parity class with samples
  // of one class; by Cauchy-Schwarz its partial sums are bounded by the
  // larger class energy, so plain sums are exact while that fits.
  int64_t even = 0, odd = 0;
  for (int i = -kPitchMax; i < kFrame; i++) (i & 1 ? odd : even) += 2 * int64_t{s[i]} * s[i];
  const bool plain = std::max(even, odd) < fx::MAX_32;

  auto correlate = [&](int lag) {
    Word32 c = 0;
    if (plain) {
      for (int j = 0; j < kFrame; j += 2) c += s[j] * s[j - lag];
      return 2 * c;
    }
    for (int j = 0; j < kFrame; j += 2) c = L_mac(c, s[j], s[j - lag]);
    return c;
  };
  // The correlation normalised by the energy of the delayed signal.
  auto normalised = [&](Word32 best, int lag) {
    Word32 e = 1;
    if (plain) {
      for (int i = 0; i < kFrame; i += 2) e += 2 * s[i - lag] * s[i - lag];
    } else {
      for (int i = 0; i < kFrame; i += 2) e = L_mac(e, s[i - lag], s[i - lag]);
    }
    e = invSqrt(e);
    Word16 mh, ml, eh, el;
    L_Extract(best, mh, ml);
    L_Extract(e, eh, el);
    return extract_l(Mpy_32(mh, ml, eh, el));
  };
  auto search = [&](int lo, int hi, int step, Word32& best) {
    best = fx::MIN_32;
    int lag = lo;
    for (int i = lo; i < hi; i += step) {
      const Word32 c = correlate(i);
      if (L_sub(c, best) > 0) {
        best = c;
        lag = i;
      }
    }
    return lag;
  };

  Word32 best;
  Word16 t1 = static_cast<Word16>(search(20, 40, 1, best));
  Word16 max1 = normalised(best, t1);
  Word16 t2 = static_cast<Word16>(search(40, 80, 1, best));
  Word16 max2 = normalised(best, t2);
  Word16 t3 = static_cast<Word16>(search(80, 143, 2, best));
  {
    const int centre = t3;
    Word32 c = correlate(centre + 1);
    if (L_sub(c, best) > 0) {
      best = c;
      t3 = static_cast<Word16>(centre + 1);
    }
    c = correlate(centre - 1);
    if (L_sub(c, best) > 0) {
      best = c;
      t3 = static_cast<Word16>(centre - 1);
    }
  }
  const Word16 max3 = normalised(best, t3);

  // Favour submultiples.
  Word16 i = sub(shl(t2, 1), t3);
  if (sub(abs_s(i), 5) < 0) max2 = add(max2, shr(max3, 2));
  i = add(i, t2);
  if (sub(abs_s(i), 7) < 0) max2 = add(max2, shr(max3, 2));
  i = sub(shl(t1, 1), t2);
  if (sub(abs_s(i), 5) < 0) max1 = add(max1, mult(max2, 6554));
  i = add(i, t1);
  if (sub(abs_s(i), 7) < 0) max1 = add(max1, mult(max2, 6554));

  if (sub(max1, max2) < 0) {
    max1 = max2;
    t1 = t2;
  }
  if (sub(max1, max3) < 0) t1 = t3;
  return t1;
}

void Encoder::correlateTarget(const Word16* h, const Word16* x, Word16* d) {
  Word32 y32[kSubframe];
  Word32 top = 0;
  // Plain sums are exact when 2 max|x| sum|h| stays below 2^31.
  int32_t maxX = 0, sumH = 0;
  for (int i = 0; i < kSubframe; i++) {
    maxX = std::max(maxX, x[i] < 0 ? -x[i] : +x[i]);
    sumH += h[i] < 0 ? -h[i] : +h[i];
  }
  const bool plain = 2 * int64_t{maxX} * sumH <= fx::MAX_32;
  for (int i = 0; i < kSubframe; i++) {
    Word32 s = 0;
    if (plain) {
      for (int j = i; j < kSubframe; j++) s += x[j] * h[j - i];
      s *= 2;
    } else {
      for (int j = i; j < kSubframe; j++) s = L_mac(s, x[j], h[j - i]);
    }
    y32[i] = s;
    s = L_abs(s);
    if (L_sub(s, top) > 0) top = s;
  }
  Word16 j = norm_l(top);
  if (j > 16) j = 16;
  j = sub(18, j);
  for (int i = 0; i < kSubframe; i++) d[i] = extract_l(L_shr(y32[i], j));
}

Word16 Encoder::closedLoopPitch(Word16* exc, const Word16* xn, const Word16* h, Word16 t0Min, Word16 t0Max,
                                bool first, Word16& frac) {
  Word16 dn[kSubframe];
  correlateTarget(h, xn, dn);
  // Plain sums are exact while 2 sum|dn| max|exc| < 2^31; the excitation
  // read below lies in exc[-t0Max - 1, 40) and the interpolated vectors
  // never exceed 32768.
  int64_t sumDn = 0;
  for (int i = 0; i < kSubframe; i++) sumDn += dn[i] < 0 ? -dn[i] : dn[i];
  int32_t maxE = 0;
  for (int i = -t0Max - 1; i < kSubframe; i++) maxE = std::max(maxE, exc[i] < 0 ? -exc[i] : +exc[i]);
  const bool plainPast = 2 * sumDn * maxE < (int64_t{1} << 31);
  const bool plainAny = 2 * sumDn * 32768 < (int64_t{1} << 31);
  auto dot = [&](const Word16* v, bool plain) {
    Word32 s = 0;
    if (plain) {
      for (int i = 0; i < kSubframe; i++) s += dn[i] * v[i];
      return 2 * s;
    }
    for (int i = 0; i < kSubframe; i++) s = L_mac(s, dn[i], v[i]);
    return s;
  };
  Word32 best = fx::MIN_32;
  Word16 t0 = t0Min;
  for (Word16 t = t0Min; t <= t0Max; t++) {
    const Word32 c = dot(exc - t, plainPast);
    if (L_sub(c, best) > 0) {
      best = c;
      t0 = t;
    }
  }
  predictLongTerm(exc, t0, 0, kSubframe);
  best = dot(exc, plainAny);
  frac = 0;
  if (first && t0 > 84) return t0;

  Word16 keep[kSubframe];
  std::memcpy(keep, exc, sizeof keep);
  predictLongTerm(exc, t0, -1, kSubframe);
  Word32 c = dot(exc, plainAny);
  if (L_sub(c, best) > 0) {
    best = c;
    frac = -1;
    std::memcpy(keep, exc, sizeof keep);
  }
  predictLongTerm(exc, t0, 1, kSubframe);
  c = dot(exc, plainAny);
  if (L_sub(c, best) > 0) {
    frac = 1;
  } else {
    std::memcpy(exc, keep, sizeof keep);
  }
  return t0;
}

Word16 Encoder::pitchGain(const Word16* xn, const Word16* y1, Word16* gCoeff) {
  Word16 scaled[kSubframe];
  for (int i = 0; i < kSubframe; i++) scaled[i] = shr(y1[i], 2);

  Word16 yy, xy, expYy, expXy;
  Overflow = false;
  Word32 s = 1;
  for (int i = 0; i < kSubframe; i++) s = L_mac(s, y1[i], y1[i]);
  if (!Overflow) {
    expYy = norm_l(s);
    yy = round(L_shl(s, expYy));
  } else {
    s = 1;
    for (int i = 0; i < kSubframe; i++) s = L_mac(s, scaled[i], scaled[i]);
    expYy = norm_l(s);
    yy = round(L_shl(s, expYy));
    expYy = sub(expYy, 4);
  }
  Overflow = false;
  s = 0;
  for (int i = 0; i < kSubframe; i++) s = L_mac(s, xn[i], y1[i]);
  if (!Overflow) {
    expXy = norm_l(s);
    xy = round(L_shl(s, expXy));
  } else {
    s = 0;
    for (int i = 0; i < kSubframe; i++) s = L_mac(s, xn[i], scaled[i]);
    expXy = norm_l(s);
    xy = round(L_shl(s, expXy));
    expXy = sub(expXy, 2);
  }
  gCoeff[0] = yy;
  gCoeff[1] = sub(15, expYy);
  gCoeff[2] = xy;
  gCoeff[3] = sub(15, expXy);
  if (xy <= 0) {
    gCoeff[3] = -15;
    return 0;
  }
  xy = shr(xy, 1);
  Word16 gain = div_s(xy, yy);
  gain = shr(gain, sub(expXy, expYy));
  if (gain > 19661) gain = 19661;  // 1.2 in Q14
  return gain;
}

// ---- Taming ----------------------------------------------------------------------

bool Encoder::needsTaming(Word16 t0, Word16 frac) {
  const Word16 t1 = frac > 0 ? add(t0, 1) : t0;
  Word16 i = sub(t1, kSubframe + 10);
  if (i < 0) i = 0;
  const Word16 zone1 = tab::kTamingZone[i];
  const Word16 zone2 = tab::kTamingZone[add(t1, 10 - 2)];
  Word32 worst = -1;
  for (int k = zone2; k >= zone1; k--)
    if (L_sub(m_excErr[k], worst) > 0) worst = m_excErr[k];
  return L_sub(worst, kTamingThreshold) > 0;
}

void Encoder::updateTaming(Word16 gainPit, Word16 t0) {
  Word32 worst = -1;
  auto grow = [&](Word32 err) {
    Word16 hi, lo;
    L_Extract(err, hi, lo);
    Word32 t = Mpy_32_16(hi, lo, gainPit);
    t = L_shl(t, 1);
    return L_add(0x4000, t);
  };
  const Word16 n = sub(t0, kSubframe);
  if (n < 0) {
    Word32 t = grow(m_excErr[0]);
    if (L_sub(t, worst) > 0) worst = t;
    t = grow(t);
    if (L_sub(t, worst) > 0) worst = t;
  } else {
    const Word16 zone1 = tab::kTamingZone[n];
    const Word16 zone2 = tab::kTamingZone[sub(t0, 1)];
    for (int k = zone1; k <= zone2; k++) {
      const Word32 t = grow(m_excErr[k]);
      if (L_sub(t, worst) > 0) worst = t;
    }
  }
  for (int k = 3; k >= 1; k--) m_excErr[k] = m_excErr[k - 1];
  m_excErr[0] = worst;
}

// ---- Algebraic codebook --------------------------------------------------------------

void Encoder::pulseCorrelations(const Word16* hIn, Word16* rr) {
  // Scale h so that its energy uses the 32-bit range without overflowing:
  // every correlation below then stays in range as well.
  Word16 h[kSubframe];
  Word32 e = 0;
  for (int i = 0; i < kSubframe; i++) e = L_mac(e, hIn[i], hIn[i]);
  if (extract_h(e) > 32000) {
    for (int i = 0; i < kSubframe; i++) h[i] = shr(hIn[i], 1);
  } else {
    const Word16 k = shr(norm_l(e), 1);
    for (int i = 0; i < kSubframe; i++) h[i] = shl(hIn[i], k);
  }
  // Correlation of pulses at p and q: the sum over n <= 39 - max(p, q) of
  // h[n] h[n + |p - q|], accumulated from n = 0 and kept in its high 16
  // bits. Running sums per lag give every entry. When the energy of h is
  // below 2^31 no partial sum can leave the 32-bit range (Cauchy-Schwarz),
  // so plain arithmetic is exact; otherwise the saturating operators run.
  int64_t energy = 0;
  for (int i = 0; i < kSubframe; i++) energy += 2 * int64_t{h[i]} * h[i];
  const bool plain = energy <= fx::MAX_32;
  Word16 cum[kSubframe * kSubframe];  // cum[lag * 40 + last]
  for (int lag = 0; lag < kSubframe; lag++) {
    Word32 s = 0;
    Word16* row = cum + lag * kSubframe;
    if (plain) {
      for (int n = 0; n + lag < kSubframe; n++) {
        s += 2 * h[n] * h[n + lag];
        row[n] = extract_h(s);
      }
    } else {
      for (int n = 0; n + lag < kSubframe; n++) {
        s = L_mac(s, h[n], h[n + lag]);
        row[n] = extract_h(s);
      }
    }
  }
  for (int i = 0; i < kRrSize; i++) rr[i] = cum[kRrSource[i]];
}

Word16 Encoder::searchPulses(Word16* dn, Word16* rr, const Word16* h, Word16* code, Word16* y, Word16& signOut) {
  // Signs follow the target correlation; the search then works on |dn|
  // with the cross-correlations sign-corrected.
  Word16 signDn[kSubframe], signInv[kSubframe];
  for (int i = 0; i < kSubframe; i++) {
    if (dn[i] >= 0) {
      signDn[i] = fx::MAX_16;
      signInv[i] = fx::MIN_16;
    } else {
      signDn[i] = fx::MIN_16;
      signInv[i] = fx::MAX_16;
      dn[i] = negate(dn[i]);
    }
  }
  for (int x = 0; x < kTracks - 2; x++)
    for (int y = x + 1; y < kTracks; y++) {
      Word16* b = block(rr, x, y);
      for (int a = 0; a < kPositions; a++) {
        const Word16* ps = signDn[x + kTracks * a] < 0 ? signInv : signDn;
        for (int c = 0; c < kPositions; c++) {
          // mult() by +-1 in Q15: saturates only for -32768 * -32768.
          const int32_t v = (b[a * 8 + c] * ps[y + kTracks * c]) >> 15;
          b[a * 8 + c] = static_cast<Word16>(std::min(v, 32767));
        }
      }
    }

  constexpr Word16 k1_2 = 16384, k1_4 = 8192, k1_8 = 4096, k1_16 = 2048;
  Word16 psk = -1, alpk = 1;
  int ip0 = 0, ip1 = 1, ip2 = 2, ip3 = 3;
  Word16 ps = 0;
  int ix = 0, iy = 0;
  Word16 tmp[kPositions];

  // Whether sq2/alp16 beats sq/alp. The operators' L_msu(L_mult(alp, sq2),
  // sq, alp16) > 0: neither product can saturate (squares are never
  // -32768), and saturating the difference keeps its sign.
  auto better = [](int32_t sq2, int32_t alp16, int32_t sq, int32_t alp) {
    return int64_t{alp} * sq2 > int64_t{sq} * alp16;
  };
  // add() of 16-bit values.
  auto add16 = [](int32_t a, int32_t b) { return std::clamp(a + b, -32768, 32767); };
  // round() of a value that cannot overflow when rounded.
  auto round16 = [](int32_t v) { return static_cast<Word16>((v + 0x8000) >> 16); };
  // The pulse energies below are sums of table entries (|rr| < 2^15)
  // times 2^12..2^15: only the last addition of the inner loops can leave
  // the 32-bit range, so it alone is clamped.
  auto round16Sat = [](int64_t v) {
    return static_cast<Word16>(std::min<int64_t>(std::clamp<int64_t>(v, fx::MIN_32, fx::MAX_32) + 0x8000, fx::MAX_32) >> 16);
  };
  // The two largest |dn| on a track, each tried in turn.
  auto pick = [&](int track, int prev) {
    Word16 max = -1;
    int at = 0;
    for (int j = track; j < kSubframe; j += kTracks)
      if (sub(dn[j], max) > 0 && prev != j) {
        max = dn[j];
        at = j;
      }
    return at;
  };

  for (int track = 3; track < 5; track++) {
    Word16* dT = diag(rr, track);
    Word16* b0T = block(rr, 0, track);
    Word16* b1T = block(rr, 1, track);
    Word16* b2T = block(rr, 2, track);

    // Pulses on tracks 2 and `track` first, then 0 and 1.
    Word16 sq = -1, alp = 1;
    int prev = -1;
    for (int pass = 0; pass < 2; pass++) {
      const int i0 = pick(2, prev);
      prev = i0;
      const int j = i0 / kTracks;
      const Word16 ps1 = dn[i0];
      const int32_t alp1 = diag(rr, 2)[j] * 2 * k1_4;
      for (int c = 0; c < kPositions; c++) {
        const int i1 = track + kTracks * c;
        const int32_t ps2 = add16(ps1, dn[i1]);
        const int32_t alp2 = alp1 + b2T[j * 8 + c] * 2 * k1_2 + dT[c] * 2 * k1_4;
        const int32_t sq2 = (ps2 * ps2) >> 15;
        const Word16 alp16 = round16(alp2);
        if (better(sq2, alp16, sq, alp)) {
          sq = static_cast<Word16>(sq2);
          ps = static_cast<Word16>(ps2);
          alp = alp16;
          ix = i0;
          iy = i1;
        }
      }
    }
    int i0 = ix, i1 = iy;
    int j0 = i0 / kTracks, j1 = i1 / kTracks;
    Word16 ps0 = ps;
    int32_t alp0 = alp * 2 * k1_4;
    sq = -1;
    alp = 1;
    for (int a = 0; a < kPositions; a++)
      tmp[a] = round16((block(rr, 1, 2)[a * 8 + j0] + b1T[a * 8 + j1]) * 2 * k1_4 + diag(rr, 1)[a] * 2 * k1_8);
    for (int a = 0; a < kPositions; a++) {
      const int i2 = kTracks * a;
      const int32_t ps1 = add16(ps0, dn[i2]);
      const int32_t alp1 =
          alp0 + (block(rr, 0, 2)[a * 8 + j0] + b0T[a * 8 + j1]) * 2 * k1_8 + diag(rr, 0)[a] * 2 * k1_16;
      for (int c = 0; c < kPositions; c++) {
        const int i3 = 1 + kTracks * c;
        const int32_t ps2 = add16(ps1, dn[i3]);
        const int64_t alp2 = int64_t{alp1} + block(rr, 0, 1)[a * 8 + c] * 2 * k1_8 + tmp[c] * 2 * int64_t{k1_2};
        const int32_t sq2 = (ps2 * ps2) >> 15;
        const Word16 alp16 = round16Sat(alp2);
        if (better(sq2, alp16, sq, alp)) {
          sq = static_cast<Word16>(sq2);
          alp = alp16;
          ix = i2;
          iy = i3;
        }
      }
    }
    if (better(sq, alp, psk, alpk)) {
      psk = sq;
      alpk = alp;
      ip2 = i0;
      ip3 = i1;
      ip0 = ix;
      ip1 = iy;
    }

    // Pulses on tracks `track` and 0 first, then 1 and 2.
    sq = -1;
    alp = 1;
    prev = -1;
    for (int pass = 0; pass < 2; pass++) {
      const int p0 = pick(track, prev);
      prev = p0;
      const int j = p0 / kTracks;
      const Word16 ps1 = dn[p0];
      const int32_t alp1 = dT[j] * 2 * k1_4;
      for (int a = 0; a < kPositions; a++) {
        const int p1 = kTracks * a;
        const int32_t ps2 = add16(ps1, dn[p1]);
        const int32_t alp2 = alp1 + b0T[a * 8 + j] * 2 * k1_2 + diag(rr, 0)[a] * 2 * k1_4;
        const int32_t sq2 = (ps2 * ps2) >> 15;
        const Word16 alp16 = round16(alp2);
        if (better(sq2, alp16, sq, alp)) {
          sq = static_cast<Word16>(sq2);
          ps = static_cast<Word16>(ps2);
          alp = alp16;
          ix = p0;
          iy = p1;
        }
      }
    }
    i0 = ix;
    i1 = iy;
    j0 = i0 / kTracks;
    j1 = i1 / kTracks;
    ps0 = ps;
    alp0 = alp * 2 * k1_4;
    sq = -1;
    alp = 1;
    for (int a = 0; a < kPositions; a++)
      tmp[a] = round16((b2T[a * 8 + j0] + block(rr, 0, 2)[j1 * 8 + a]) * 2 * k1_4 + diag(rr, 2)[a] * 2 * k1_8);
    for (int a = 0; a < kPositions; a++) {
      const int i2 = 1 + kTracks * a;
      const int32_t ps1 = add16(ps0, dn[i2]);
      const int32_t alp1 =
          alp0 + (b1T[a * 8 + j0] + block(rr, 0, 1)[j1 * 8 + a]) * 2 * k1_8 + diag(rr, 1)[a] * 2 * k1_16;
      for (int c = 0; c < kPositions; c++) {
        const int i3 = 2 + kTracks * c;
        const int32_t ps2 = add16(ps1, dn[i3]);
        const int64_t alp2 = int64_t{alp1} + block(rr, 1, 2)[a * 8 + c] * 2 * k1_8 + tmp[c] * 2 * int64_t{k1_2};
        const int32_t sq2 = (ps2 * ps2) >> 15;
        const Word16 alp16 = round16Sat(alp2);
        if (better(sq2, alp16, sq, alp)) {
          sq = static_cast<Word16>(sq2);
          alp = alp16;
          ix = i2;
          iy = i3;
        }
      }
    }
    if (better(sq, alp, psk, alpk)) {
      psk = sq;
      alpk = alp;
      ip3 = i0;
      ip0 = i1;
      ip1 = ix;
      ip2 = iy;
    }
  }

  const int pos[4] = {ip0, ip1, ip2, ip3};
  std::memset(code, 0, kSubframe * sizeof(Word16));
  std::memset(y, 0, kSubframe * sizeof(Word16));
  int signs = 0;
  for (int k = 0; k < 4; k++) {
    const Word16 sg = signDn[pos[k]];
    code[pos[k]] = shr(sg, 2);
    if (sg > 0) {
      signs |= 1 << k;
      for (int i = pos[k], j = 0; i < kSubframe; i++, j++) y[i] = add(y[i], h[j]);
    } else {
      for (int i = pos[k], j = 0; i < kSubframe; i++, j++) y[i] = sub(y[i], h[j]);
    }
  }
  signOut = static_cast<Word16>(signs);
  // Track 3 holds positions 3, 8, ... and 4, 9, ...: one extra bit.
  const int q3 = ip3 / kTracks;
  const int t3 = q3 * 2 + (ip3 - q3 * kTracks - 3);
  return static_cast<Word16>(ip0 / kTracks + ((ip1 / kTracks) << 3) + ((ip2 / kTracks) << 6) + (t3 << 9));
}

Word16 Encoder::searchCodebook(const Word16* x, Word16* h, Word16 t0, Word16 sharp, Word16* code, Word16* y,
                               Word16& sign) {
  const Word16 sharp15 = shl(sharp, 1);
  for (int i = t0; i < kSubframe; i++) h[i] = add(h[i], mult(h[i - t0], sharp15));
  Word16 rr[kRrSize];
  pulseCorrelations(h, rr);
  Word16 dn[kSubframe];
  correlateTarget(h, x, dn);
  const Word16 index = searchPulses(dn, rr, h, code, y, sign);
  for (int i = t0; i < kSubframe; i++) code[i] = add(code[i], mult(code[i - t0], sharp15));
  return index;
}

// ---- Gains -------------------------------------------------------------------------------

void Encoder::correlateGains(const Word16* xn, const Word16* y1, const Word16* y2, Word16* g, Word16* expG) {
  Word16 scaled[kSubframe];
  for (int i = 0; i < kSubframe; i++) scaled[i] = shr(y2[i], 3);
  auto normalise = [&](const Word16* a, Word16& value) {
    Word32 s = 1;
    for (int i = 0; i < kSubframe; i++) s = L_mac(s, a[i], scaled[i]);
    const Word16 e = norm_l(s);
    value = round(L_shl(s, e));
    return e;
  };
  Word16 v;
  Word16 e = normalise(scaled, v);
  g[2] = v;
  expG[2] = add(e, 19 - 16);
  e = normalise(xn, v);
  g[3] = negate(v);
  expG[3] = sub(add(e, 10 - 16), 1);
  e = normalise(y1, v);
  g[4] = v;
  expG[4] = sub(add(e, 10 - 16), 1);
}

void Encoder::preselectGains(const Word16* bestGain, Word16& cand1, Word16& cand2, Word16 gcode0) {
  const Word32 cfbg = L_mult(tab::kGainCoef[0][0], bestGain[0]);
  Word32 acc = L_shr(tab::kGainCoefL[1][1], 15);
  acc = L_add(cfbg, acc);
  Word16 accH = extract_h(acc);
  Word32 preg = L_mult(accH, gcode0);
  acc = L_shl(L_deposit_l(bestGain[1]), 7);
  acc = L_sub(acc, preg);
  accH = extract_h(L_shl(acc, 2));
  const Word32 tx = L_mult(accH, -17103);

  acc = L_shr(tab::kGainCoefL[0][1], 10);
  acc = L_sub(cfbg, acc);
  accH = extract_h(acc);
  accH = mult(accH, gcode0);
  const Word32 tmp = L_mult(accH, tab::kGainCoef[1][0]);
  preg = L_mult(tab::kGainCoef[0][0], bestGain[1]);
  acc = L_sub(tmp, L_shr(preg, 3));
  accH = extract_h(L_shl(acc, 2));
  const Word32 ty = L_mult(accH, -17103);

  constexpr Word16 sftY = (14 + 4 + 1) - 16;
  constexpr Word16 sftX = (15 + 4 + 1) - 15;
  cand1 = 0;
  cand2 = 0;
  if (gcode0 > 0) {
    while (cand1 < 4 && L_sub(ty, L_shr(L_mult(tab::kGainThr1[cand1], gcode0), sftY)) > 0) cand1++;
    while (cand2 < 8 && L_sub(tx, L_shr(L_mult(tab::kGainThr2[cand2], gcode0), sftX)) > 0) cand2++;
  } else {
    while (cand1 < 4 && L_sub(ty, L_shr(L_mult(tab::kGainThr1[cand1], gcode0), sftY)) < 0) cand1++;
    while (cand2 < 8 && L_sub(tx, L_shr(L_mult(tab::kGainThr2[cand2], gcode0), sftX)) < 0) cand2++;
  }
}

Word16 Encoder::quantiseGains(const Word16* code, const Word16* g, const Word16* expG, bool taming, Word16& gainPit,
                              Word16& gainCode) {
  Word16 gcode0, expGcode0;
  predictGain(m_pastEnergy, code, gcode0, expGcode0);

  // Optimal unquantised gains by solving the 2 x 2 system.
  Word32 t1 = L_mult(g[0], g[2]);
  Word16 e1 = add(add(expG[0], expG[2]), 1 - 2);
  Word32 t2 = L_mult(g[4], g[4]);
  Word16 e2 = add(add(expG[4], expG[4]), 1);
  Word32 t;
  Word16 e;
  if (sub(e1, e2) > 0) {
    t = L_sub(L_shr(t1, sub(e1, e2)), t2);
    e = e2;
  } else {
    t = L_sub(t1, L_shr(t2, sub(e2, e1)));
    e = e1;
  }
  Word16 sft = norm_l(t);
  const Word16 denom = extract_h(L_shl(t, sft));
  const Word16 expDenom = sub(add(e, sft), 16);
  const Word16 invDenom = negate(div_s(16384, denom));
  const Word16 expInvDenom = sub(14 + 15, expDenom);

  // One numerator of the solution; shiftOut gives the Q of the result.
  auto solve = [&](Word16 ga, Word16 ea, Word16 gb, Word16 gc, Word16 eb, Word16 shiftOut) {
    const Word32 pa = L_mult(g[ga], g[gb]);
    const Word16 x1 = add(expG[ga], ea);
    const Word32 pb = L_mult(g[gc], g[4]);
    const Word16 x2 = add(add(expG[gc], eb), 1);
    Word32 n;
    Word16 en;
    if (sub(x1, x2) > 0) {
      n = L_sub(L_shr(pa, add(sub(x1, x2), 1)), L_shr(pb, 1));
      en = sub(x2, 1);
    } else {
      n = L_sub(L_shr(pa, 1), L_shr(pb, add(sub(x2, x1), 1)));
      en = sub(x1, 1);
    }
    const Word16 s = norm_l(n);
    const Word16 nume = extract_h(L_shl(n, s));
    const Word16 expNume = sub(add(en, s), 16);
    const Word16 shift = sub(add(expNume, expInvDenom), shiftOut);
    return extract_h(L_shr(L_mult(nume, invDenom), shift));
  };
  Word16 best[2];
  best[0] = solve(2, expG[1], 1, 3, expG[4], 9 + 16 - 1);  // Q9
  if (taming && best[0] > kPitchGainClip9) best[0] = kPitchGainClip9;
  best[1] = solve(0, expG[3], 3, 1, expG[4], 2 + 16 - 1);  // Q2

  Word16 gcode0Q4;
  if (sub(expGcode0, 4) >= 0) {
    gcode0Q4 = shr(gcode0, sub(expGcode0, 4));
  } else {
    gcode0Q4 = extract_h(L_shl(L_deposit_l(gcode0), sub(4 + 16, expGcode0)));
  }
  Word16 cand1, cand2;
  preselectGains(best, cand1, cand2, gcode0Q4);

  // Error-energy terms on a common exponent in double precision.
  Word16 expMin[5] = {add(expG[0], 13), add(expG[1], 14), add(expG[2], sub(shl(expGcode0, 1), 21)),
                      add(expG[3], sub(expGcode0, 3)), add(expG[4], sub(expGcode0, 4))};
  Word16 eMin = expMin[0];
  for (int i = 1; i < 5; i++)
    if (sub(expMin[i], eMin) < 0) eMin = expMin[i];
  Word16 coef[5], coefLo[5];
  for (int i = 0; i < 5; i++) L_Extract(L_shr(L_deposit_h(g[i]), sub(expMin[i], eMin)), coef[i], coefLo[i]);

  Word32 distMin = fx::MAX_32;
  int index1 = cand1, index2 = cand2;
  for (int i = 0; i < 4; i++) {
    for (int j = 0; j < 8; j++) {
      const Word16* b1 = tab::kGainBook1[cand1 + i];
      const Word16* b2 = tab::kGainBook2[cand2 + j];
      const Word16 gPitch = add(b1[0], b2[0]);
      if (taming && gPitch >= kPitchGainMax) continue;
      const Word16 tmp = extract_l(L_shr(L_add(b1[1], b2[1]), 1));
      const Word16 gCode = mult(gcode0, tmp);
      const Word16 g2Pitch = mult(gPitch, gPitch);
      const Word16 g2Code = mult(gCode, gCode);
      const Word16 gPitCod = mult(gCode, gPitch);
      const int32_t terms[5] = {g2Pitch, gPitch, g2Code, gCode, gPitCod};
      int64_t d = 0;
      for (int k = 0; k < 5; k++) {
        // Mpy_32_16 (lo is never negative, so mult() cannot saturate),
        // then the saturating L_add.
        const int64_t m = sat32(mult2(coef[k], terms[k]) + 2 * ((coefLo[k] * terms[k]) >> 15));
        d = sat32(d + m);
      }
      if (d < distMin) {
        distMin = static_cast<Word32>(d);
        index1 = cand1 + i;
        index2 = cand2 + j;
      }
    }
  }
  gainPit = add(tab::kGainBook1[index1][0], tab::kGainBook2[index2][0]);
  const Word32 sum = L_add(tab::kGainBook1[index1][1], tab::kGainBook2[index2][1]);
  const Word16 tmp = extract_l(L_shr(sum, 1));
  Word32 acc = L_mult(tmp, gcode0);
  acc = L_shl(acc, add(negate(expGcode0), -12 - 1 + 1 + 16));
  gainCode = extract_h(acc);
  updateGainMemory(m_pastEnergy, sum);
  return static_cast<Word16>(tab::kGainMap1[index1] * 16 + tab::kGainMap2[index2]);
}

// ---- Frame -------------------------------------------------------------------------------

int Encoder::analyse(Word16* prm) {
  Word16* speech = m_speech + kWindow - kFrame - 40;
  Word16* wsp = m_wspBuf + kPitchMax;
  Word16* exc = m_excBuf + kExcHist;
  Word16 aq[2 * kOrder1], ap[2 * kOrder1];

  {
    Word16 rh[VoiceActivityDetector::kAcfOrder + 1], rl[VoiceActivityDetector::kAcfOrder + 1];
    Word16 rawHi[kOrder1], lspNew[kOrder], lspNewQ[kOrder], rc[2], expR0;
    autocorrelation(m_speech, rh, rl, m_annexB ? VoiceActivityDetector::kAcfOrder : kOrder, &expR0, rawHi);
    levinson(rh, rl, ap, rc);
    azToLsp(ap, lspNew, m_lspOld);
    if (m_annexB) {
      if (!detectVoice(rh, rl, expR0, rawHi, rc[1], lspNew)) return silentFrameAnnexA(prm);
      m_cngSeed = 11111;
      m_ppastVad = m_pastVad;
      m_pastVad = true;
    }
    quantiseLsp(lspNew, lspNewQ, prm);
    interpolateAz(m_lspOldQ, lspNewQ, aq);
    weightAz(aq, kGamma1, ap);
    weightAz(aq + kOrder1, kGamma1, ap + kOrder1);
    std::memcpy(m_lspOld, lspNew, sizeof lspNew);
    std::memcpy(m_lspOldQ, lspNewQ, sizeof lspNewQ);
  }

  // LP residual and weighted speech of the whole frame.
  residual(aq, speech, exc, kSubframe);
  residual(aq + kOrder1, speech + kSubframe, exc + kSubframe, kSubframe);
  for (int sf = 0; sf < 2; sf++) {
    const Word16* a = ap + sf * kOrder1;
    Word16 ap1[kOrder1];
    ap1[0] = 4096;
    for (int i = 1; i <= kOrder; i++) ap1[i] = sub(a[i], mult(a[i - 1], 22938));
    synthesis(ap1, exc + sf * kSubframe, wsp + sf * kSubframe, kSubframe, m_memW, true);
  }

  const Word16 tOp = openLoopPitch(wsp);
  Word16 t0Min, t0Max;
  pitchSearchRange(tOp, 3, 6, t0Min, t0Max);

  Word16* out = prm + 2;
  for (int sf = 0; sf < 2; sf++) {
    const int off = sf * kSubframe;
    const Word16* a = ap + sf * kOrder1;
    Word16 h1[kSubframe], xn[kSubframe], xn2[kSubframe], y1[kSubframe], y2[kSubframe], code[kSubframe];

    // Impulse response of the weighted synthesis filter, then the target.
    h1[0] = 4096;
    std::memset(h1 + 1, 0, (kSubframe - 1) * sizeof(Word16));
    synthesis(a, h1, h1, kSubframe, h1 + 1, false);
    synthesis(a, exc + off, xn, kSubframe, m_memW0, false);

    Word16 frac;
    const Word16 t0 = closedLoopPitch(exc + off, xn, h1, t0Min, t0Max, sf == 0, frac);
    const Word16 index = lagIndex(t0, frac, sf == 0, t0Min, t0Max);
    *out++ = index;
    if (sf == 0) *out++ = pitchParity(index);

    synthesis(a, exc + off, y1, kSubframe, m_memZero, false);
    Word16 gCoeff[4];
    Word16 gainPit = pitchGain(xn, y1, gCoeff);
    const bool taming = needsTaming(t0, frac);
    if (taming && gainPit > kPitchGainClip) gainPit = kPitchGainClip;
    for (int i = 0; i < kSubframe; i++) {
      const Word32 t = L_shl(L_mult(y1[i], gainPit), 1);
      xn2[i] = sub(xn[i], extract_h(t));
    }

    Word16 sign;
    *out++ = searchCodebook(xn2, h1, t0, m_sharp, code, y2, sign);
    *out++ = sign;

    Word16 gainCode;
    *out++ = applyGains(xn, y1, y2, code, gCoeff, taming, t0, exc + off, gainPit, gainCode);
    updateWeightingMemory(xn, y1, y2, gainPit, gainCode);
  }
  shiftHistory();
  return 1;
}

int Encoder::silentFrameAnnexA(Word16* sid) {
  Word16 aq[2 * kOrder1];
  const int type = codeComfortNoise(sid, aq);
  m_ppastVad = m_pastVad;
  m_pastVad = false;
  // Keep the weighting filter memories in step with the comfort noise.
  Word16* speech = m_speech + kWindow - kFrame - 40;
  Word16* wsp = m_wspBuf + kPitchMax;
  Word16* exc = m_excBuf + kExcHist;
  for (int sf = 0; sf < 2; sf++) {
    const int off = sf * kSubframe;
    const Word16* a = aq + sf * kOrder1;
    Word16 xn[kSubframe], ap[kOrder1], ap1[kOrder1];
    residual(a, speech + off, xn, kSubframe);
    weightAz(a, kGamma1, ap);
    ap1[0] = 4096;
    for (int i = 1; i <= kOrder; i++) ap1[i] = sub(ap[i], mult(ap[i - 1], 22938));
    synthesis(ap1, xn, wsp + off, kSubframe, m_memW, true);
    for (int i = 0; i < kSubframe; i++) xn[i] = sub(xn[i], exc[off + i]);
    synthesis(ap, xn, xn, kSubframe, m_memW0, true);
  }
  m_sharp = kSharpMin;
  shiftHistory();
  return type;
}

// The gains of a subframe: quantised (the index is returned), then the
// pitch sharpening, the excitation and the taming history follow from them.
Word16 Encoder::applyGains(const Word16* xn, const Word16* y1, const Word16* y2, const Word16* code,
                           const Word16* gCoeff, bool taming, Word16 t0, Word16* exc, Word16& gainPit,
                           Word16& gainCode) {
  Word16 g[5], expG[5];
  g[0] = gCoeff[0];
  expG[0] = negate(gCoeff[1]);
  g[1] = negate(gCoeff[2]);
  expG[1] = negate(add(gCoeff[3], 1));
  correlateGains(xn, y1, y2, g, expG);
  const Word16 index = quantiseGains(code, g, expG, taming, gainPit, gainCode);

  m_sharp = gainPit;
  if (m_sharp > kSharpMax) m_sharp = kSharpMax;
  if (m_sharp < kSharpMin) m_sharp = kSharpMin;

  for (int i = 0; i < kSubframe; i++) {
    Word32 t = L_mult(exc[i], gainPit);
    t = L_mac(t, code[i], gainCode);
    exc[i] = round(L_shl(t, 1));
  }
  updateTaming(gainPit, t0);
  return index;
}

// The weighting filter's memory: the target less both filtered contributions.
void Encoder::updateWeightingMemory(const Word16* xn, const Word16* y1, const Word16* y2, Word16 gainPit,
                                    Word16 gainCode) {
  for (int i = kSubframe - kOrder, j = 0; i < kSubframe; i++, j++) {
    const Word16 tp = extract_h(L_shl(L_mult(y1[i], gainPit), 1));
    const Word16 tc = extract_h(L_shl(L_mult(y2[i], gainCode), 2));
    m_memW0[j] = sub(xn[i], add(tp, tc));
  }
}

// The frame's speech, weighted speech and excitation move into the history.
void Encoder::shiftHistory() {
  std::memmove(m_speech, m_speech + kFrame, (kWindow - kFrame) * sizeof(Word16));
  std::memmove(m_wspBuf, m_wspBuf + kFrame, kPitchMax * sizeof(Word16));
  std::memmove(m_excBuf, m_excBuf + kFrame, kExcHist * sizeof(Word16));
}

// The transmitted pitch lag: absolute in the first subframe (which also
// sets the search range of the second), relative to that range in the second.
Word16 Encoder::lagIndex(Word16 t0, Word16 frac, bool firstSubframe, Word16& t0Min, Word16& t0Max) {
  if (!firstSubframe) {
    Word16 i = sub(t0, t0Min);
    i = add(add(i, i), i);
    return add(add(i, 2), frac);
  }
  const Word16 index = t0 <= 85 ? add(sub(add(add(t0, t0), t0), 58), frac) : add(t0, 112);
  pitchSearchRange(t0, 5, 9, t0Min, t0Max);
  return index;
}

}  // namespace quillon::g729a
