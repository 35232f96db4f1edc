// The stages of the full-complexity G.729 encoder that differ from Annex A:
// interpolated unquantised LP filters and an adaptive perceptual weighting
// filter A(z/g1)/A(z/g2), the open-loop pitch over all lags, the closed-loop
// pitch from interpolated normalised correlations, and the depth-first
// algebraic codebook search with its iteration budget.
#include <cstring>

#include "engines/g729/encoder.h"
#include "engines/g729/tables.h"

namespace quillon::g729a {

namespace {
constexpr int kExcHist = kPitchMax + kInterpLen;
constexpr int kWindow = 240;
constexpr Word16 kPitchGainClip = 15564;  // pitch gain limit under taming, Q14
constexpr Word16 kSmallLagFavour = 27853;  // 0.85
constexpr Word16 kPulseThreshold = 13107;  // 0.4
constexpr Word16 kSearchBudget = 75;       // fourth-pulse loops per subframe, plus the carry-over

// Log-area-ratio approximation of a reflection coefficient (Q11 segments).
constexpr Word16 kSeg1 = 1299, kSeg2 = 1815, kSeg3 = 1944;
constexpr Word16 kLarA1 = 4567, kLarA2 = 11776, kLarA3 = 27443;
constexpr Word32 kLarB1 = 3271557, kLarB2 = 16357786, kLarB3 = 46808433;
// Hysteresis thresholds of the flat-spectrum decision (Q11).
constexpr Word16 kLarLow1 = -3562, kLarLow2 = -3116, kLarHigh1 = 1336, kLarHigh2 = 890;
constexpr Word16 kGamma1Sharp = 32113, kGamma1Flat = 30802;   // 0.98, 0.94
constexpr Word16 kGamma2Low = 13107, kGamma2High = 22938, kGamma2Flat = 19661;  // 0.4, 0.7, 0.6
constexpr Word16 kSixPi = 19302, kOneQ10 = 1024;
}  // namespace

void Encoder::lspToNormalisedLsf(const Word16* lsp, Word16* lsf) {
  int ind = 63;
  for (int i = kOrder - 1; i >= 0; i--) {
    while (sub(tab::kCosTable[ind], lsp[i]) < 0) ind--;
    const Word32 t = L_mult(sub(lsp[i], tab::kCosTable[ind]), tab::kCosSlope[ind]);
    lsf[i] = add(round(L_shl(t, 3)), shl(static_cast<Word16>(ind), 8));
  }
}

void Encoder::weightingFactors(Word16* lsfInt, Word16* lsfNew, const Word16* rc, Word16* gamma1, Word16* gamma2) {
  for (int k = 0; k < kOrder; k++) {
    lsfInt[k] = shl(lsfInt[k], 1);
    lsfNew[k] = shl(lsfNew[k], 1);
  }
  Word16 lar[4];
  for (int i = 0; i < 2; i++) {
    Word16 r = shr(abs_s(rc[i]), 4);
    Word16 v;
    if (r <= kSeg1) {
      v = r;
    } else {
      Word16 a;
      Word32 b;
      if (r <= kSeg2) {
        a = kLarA1;
        b = kLarB1;
      } else if (r <= kSeg3) {
        a = kLarA2;
        b = kLarB2;
      } else {
        a = kLarA3;
        b = kLarB3;
      }
      r = shr(r, 1);
      v = extract_l(L_shr(L_sub(L_mult(r, a), b), 11));
    }
    if (rc[i] < 0) v = sub(0, v);
    lar[2 + i] = v;
  }
  for (int i = 0; i < 2; i++) {
    lar[i] = shr(add(lar[2 + i], m_larOld[i]), 1);
    m_larOld[i] = lar[2 + i];
  }
  for (int k = 0; k < 2; k++) {
    const Word16 c0 = lar[2 * k], c1 = lar[2 * k + 1];
    if (m_smooth != 0) {
      if (c0 < kLarLow1 && c1 > kLarHigh1) m_smooth = 0;
    } else if (c0 > kLarLow2 || c1 < kLarHigh2) {
      m_smooth = 1;
    }
    if (m_smooth == 0) {
      // gamma2 = 1 - 6 pi dmin, dmin the smallest LSF distance (0..1 range).
      gamma1[k] = kGamma1Sharp;
      const Word16* lsf = k == 0 ? lsfInt : lsfNew;
      Word16 dMin = sub(lsf[1], lsf[0]);
      for (int i = 1; i < kOrder - 1; i++) {
        const Word16 d = sub(lsf[i + 1], lsf[i]);
        if (d < dMin) dMin = d;
      }
      Word16 g = shl(sub(kOneQ10, mult(kSixPi, dMin)), 5);
      if (g > kGamma2High) g = kGamma2High;
      if (g < kGamma2Low) g = kGamma2Low;
      gamma2[k] = g;
    } else {
      gamma1[k] = kGamma1Flat;
      gamma2[k] = kGamma2Flat;
    }
  }
}

Word16 Encoder::strongestLag(const Word16* sig, int lagMax, int lagMin, Word16& corMax) {
  Word32 best = fx::MIN_32;
  int lag = lagMax;
  for (int i = lagMax; i >= lagMin; i--) {
    Word32 t = 0;
    for (int j = 0; j < kFrame; j++) t = L_mac(t, sig[j], sig[j - i]);
    if (L_sub(t, best) >= 0) {
      best = t;
      lag = i;
    }
  }
  Word32 e = 0;
  for (int j = 0; j < kFrame; j++) e = L_mac(e, sig[j - lag], sig[j - lag]);
  e = invSqrt(e);
  Word16 mh, ml, eh, el;
  L_Extract(best, mh, ml);
  L_Extract(e, eh, el);
  corMax = extract_l(Mpy_32(mh, ml, eh, el));
  return static_cast<Word16>(lag);
}

Word16 Encoder::openLoopPitchFull(const Word16* wsp) {
  Word16 scaledBuf[kPitchMax + kFrame];
  Word16* s = scaledBuf + kPitchMax;
  Overflow = false;
  Word32 e = 0;
  for (int i = -kPitchMax; i < kFrame; i++) e = L_mac(e, wsp[i], wsp[i]);
  if (Overflow) {
    for (int i = -kPitchMax; i < kFrame; i++) s[i] = shr(wsp[i], 3);
  } else if (L_sub(e, 1048576) < 0) {
    for (int i = -kPitchMax; i < kFrame; i++) s[i] = shl(wsp[i], 3);
  } else {
    for (int i = -kPitchMax; i < kFrame; i++) s[i] = wsp[i];
  }
  // Three lag ranges without multiples inside one; the shorter lags win
  // unless clearly weaker.
  Word16 max1, max2, max3;
  Word16 p1 = strongestLag(s, kPitchMax, 4 * kPitchMin, max1);
  const Word16 p2 = strongestLag(s, 4 * kPitchMin - 1, 2 * kPitchMin, max2);
  const Word16 p3 = strongestLag(s, 2 * kPitchMin - 1, kPitchMin, max3);
  if (sub(mult(max1, kSmallLagFavour), max2) < 0) {
    max1 = max2;
    p1 = p2;
  }
  if (sub(mult(max1, kSmallLagFavour), max3) < 0) p1 = p3;
  return p1;
}

void Encoder::convolve(const Word16* x, const Word16* h, Word16* y) {
  for (int n = 0; n < kSubframe; n++) {
    Word32 s = 0;
    for (int i = 0; i <= n; i++) s = L_mac(s, x[i], h[n - i]);
    y[n] = extract_h(L_shl(s, 3));
  }
}

Word16 Encoder::interpolateCorrelation(const Word16* x, Word16 frac) {
  if (frac < 0) {
    frac = add(frac, 3);
    x--;
  }
  const Word16* c1 = tab::kInterp3Corr + frac;
  const Word16* c2 = tab::kInterp3Corr + (3 - frac);
  Word32 s = 0;
  for (int i = 0, k = 0; i < 4; i++, k += 3) {
    s = L_mac(s, x[-i], c1[k]);
    s = L_mac(s, x[1 + i], c2[k]);
  }
  return round(s);
}

Word16 Encoder::closedLoopPitchFull(const Word16* exc, const Word16* xn, const Word16* h, Word16 t0Min,
                                    Word16 t0Max, bool first, Word16& frac) {
  // Normalised correlation of the target with the filtered past excitation
  // for every lag of the range widened by the interpolation half-length;
  // the filtered excitation is updated recursively from one lag to the next.
  const Word16 tMin = sub(t0Min, 4);
  const Word16 tMax = add(t0Max, 4);
  // corr[i] holds the lag tMin + i (at most 2 * 4 + 10 lags are searched).
  Word16 corr[40];
  Word16 excf[kSubframe], scaledExcf[kSubframe];
  int k = -tMin;
  convolve(exc + k, h, excf);
  for (int j = 0; j < kSubframe; j++) scaledExcf[j] = shr(excf[j], 2);
  Word32 s = 0;
  for (int j = 0; j < kSubframe; j++) s = L_mac(s, excf[j], excf[j]);
  Word16* f;
  Word16 hShift, scaling;
  if (L_sub(s, 67108864) <= 0) {
    f = excf;
    hShift = 3;
    scaling = 0;
  } else {
    f = scaledExcf;
    hShift = 1;
    scaling = 2;
  }
  for (int t = tMin; t <= tMax; t++) {
    s = 0;
    for (int j = 0; j < kSubframe; j++) s = L_mac(s, f[j], f[j]);
    s = invSqrt(s);
    Word16 nh, nl, ch, cl;
    L_Extract(s, nh, nl);
    s = 0;
    for (int j = 0; j < kSubframe; j++) s = L_mac(s, xn[j], f[j]);
    L_Extract(s, ch, cl);
    s = Mpy_32(ch, cl, nh, nl);
    corr[t - tMin] = extract_h(L_shl(s, 16));
    if (t != tMax) {
      k--;
      for (int j = kSubframe - 1; j > 0; j--) {
        s = L_shl(L_mult(exc[k], h[j]), hShift);
        f[j] = add(extract_h(s), f[j - 1]);
      }
      f[0] = shr(exc[k], scaling);
    }
  }

  Word16 best = corr[t0Min - tMin];
  Word16 lag = t0Min;
  for (Word16 t = static_cast<Word16>(t0Min + 1); t <= t0Max; t++) {
    if (sub(corr[t - tMin], best) >= 0) {
      best = corr[t - tMin];
      lag = t;
    }
  }
  if (first && lag > 84) {
    frac = 0;
    return lag;
  }
  best = interpolateCorrelation(corr + (lag - tMin), -2);
  Word16 f3 = -2;
  for (Word16 i = -1; i <= 2; i++) {
    const Word16 c = interpolateCorrelation(corr + (lag - tMin), i);
    if (sub(c, best) > 0) {
      best = c;
      f3 = i;
    }
  }
  if (f3 == -2) {
    f3 = 1;
    lag = sub(lag, 1);
  }
  if (f3 == 2) {
    f3 = -1;
    lag = add(lag, 1);
  }
  frac = f3;
  return lag;
}

Word16 Encoder::searchCodebookFull(const Word16* x, Word16* h, Word16 t0, bool first, Word16* code, Word16* y,
                                   Word16& sign) {
  const Word16 sharp15 = shl(m_sharp, 1);
  for (int i = t0; i < kSubframe; i++) h[i] = add(h[i], mult(h[i - t0], sharp15));
  Word16 rr[kRrSize];
  pulseCorrelations(h, rr);
  Word16 dn[kSubframe];
  correlateTarget(h, x, dn);
  const Word16 index = searchPulsesDepthFirst(dn, rr, h, first, code, y, sign);
  for (int i = t0; i < kSubframe; i++) code[i] = add(code[i], mult(code[i - t0], sharp15));
  return index;
}

Word16 Encoder::searchPulsesDepthFirst(Word16* dn, Word16* rr, const Word16* h, bool first, Word16* code, Word16* y,
                                       Word16& signOut) {
  constexpr int kPos = 8;
  // rr: diagonals of tracks 0..4, then the blocks (0,1) (0,2) (0,3) (0,4)
  // (1,2) (1,3) (1,4) (2,3) (2,4), entry [a * 8 + c] pairing position
  // x + 5a of the first track with y + 5c of the second.
  Word16* d[5];
  for (int t = 0; t < 5; t++) d[t] = rr + t * kPos;
  Word16* const blocks = rr + 5 * kPos;
  auto blk = [&](int x, int yy) {
    static constexpr int kStart[3] = {0, 4, 7};
    return blocks + (kStart[x] + (yy - x - 1)) * 64;
  };
  if (first) m_searchExtra = 30;

  Word16 sgn[kSubframe];
  for (int i = 0; i < kSubframe; i++) {
    if (dn[i] >= 0) {
      sgn[i] = 0x7fff;
    } else {
      sgn[i] = fx::MIN_16;
      dn[i] = negate(dn[i]);
    }
  }
  // Threshold on the first three pulses for entering the fourth loop.
  Word16 max0 = dn[0], max1 = dn[1], max2 = dn[2];
  for (int i = 5; i < kSubframe; i += 5) {
    if (sub(dn[i], max0) > 0) max0 = dn[i];
    if (sub(dn[i + 1], max1) > 0) max1 = dn[i + 1];
    if (sub(dn[i + 2], max2) > 0) max2 = dn[i + 2];
  }
  max0 = add(add(max0, max1), max2);
  Word32 sum = 0;
  for (int i = 0; i < kSubframe; i += 5) {
    sum = L_mac(sum, dn[i], 1);
    sum = L_mac(sum, dn[i + 1], 1);
    sum = L_mac(sum, dn[i + 2], 1);
  }
  const Word16 average = extract_l(L_shr(sum, 4));
  const Word16 thres = add(mult(sub(max0, average), kPulseThreshold), average);

  // Cross-correlations with the signs folded in.
  for (int x = 0; x < 3; x++) {
    for (int yy = x + 1; yy < 5; yy++) {
      Word16* b = blk(x, yy);
      for (int a = 0; a < kPos; a++)
        for (int c = 0; c < kPos; c++) b[a * kPos + c] = mult(b[a * kPos + c], mult(sgn[x + 5 * a], sgn[yy + 5 * c]));
    }
  }

  Word16* r01 = blk(0, 1);
  Word16* r02 = blk(0, 2);
  Word16* r03 = blk(0, 3);
  Word16* r04 = blk(0, 4);
  Word16* r12 = blk(1, 2);
  Word16* r13 = blk(1, 3);
  Word16* r14 = blk(1, 4);
  Word16* r23 = blk(2, 3);
  Word16* r24 = blk(2, 4);
  int ip[4] = {0, 1, 2, 3};
  Word16 psc = 0, alpha = fx::MAX_16;
  Word16 time = add(kSearchBudget, m_searchExtra);
  for (int a0 = 0; a0 < kPos; a0++) {
    const Word16 ps0 = dn[5 * a0];
    const Word16 alp0 = d[0][a0];
    for (int a1 = 0; a1 < kPos; a1++) {
      const Word16 ps1 = add(ps0, dn[1 + 5 * a1]);
      Word32 alp1 = L_mult(alp0, 1);
      alp1 = L_mac(alp1, d[1][a1], 1);
      alp1 = L_mac(alp1, r01[a0 * kPos + a1], 2);
      for (int a2 = 0; a2 < kPos; a2++) {
        const Word16 ps2 = add(ps1, dn[2 + 5 * a2]);
        Word32 alp2 = L_mac(alp1, d[2][a2], 1);
        alp2 = L_mac(alp2, r02[a0 * kPos + a2], 2);
        alp2 = L_mac(alp2, r12[a1 * kPos + a2], 2);
        if (sub(ps2, thres) <= 0) continue;
        for (int track = 3; track <= 4; track++) {
          const Word16* dd = d[track];
          const Word16* ra = track == 3 ? r03 : r04;
          const Word16* rb = track == 3 ? r13 : r14;
          const Word16* rc = track == 3 ? r23 : r24;
          for (int a3 = 0; a3 < kPos; a3++) {
            const Word16 ps3 = add(ps2, dn[track + 5 * a3]);
            Word32 alp3 = L_mac(alp2, dd[a3], 1);
            alp3 = L_mac(alp3, ra[a0 * kPos + a3], 2);
            alp3 = L_mac(alp3, rb[a1 * kPos + a3], 2);
            alp3 = L_mac(alp3, rc[a2 * kPos + a3], 2);
            const Word16 alp = extract_l(L_shr(alp3, 5));
            const Word16 ps3c = mult(ps3, ps3);
            const Word32 crit = L_msu(L_mult(ps3c, alpha), psc, alp);
            if (crit > 0) {
              psc = ps3c;
              alpha = alp;
              ip[0] = 5 * a0;
              ip[1] = 1 + 5 * a1;
              ip[2] = 2 + 5 * a2;
              ip[3] = track + 5 * a3;
            }
          }
        }
        time = sub(time, 1);
        if (time <= 0) goto done;
      }
    }
  }
done:
  m_searchExtra = time;

  std::memset(code, 0, kSubframe * sizeof(Word16));
  std::memset(y, 0, kSubframe * sizeof(Word16));
  Word16 signs = 0;
  for (int p = 0; p < 4; p++) {
    const Word16 s = sgn[ip[p]];
    code[ip[p]] = shr(s, 2);
    if (s > 0) {
      for (int i = ip[p], j = 0; i < kSubframe; i++, j++) y[i] = add(y[i], h[j]);
      signs = static_cast<Word16>(signs | (1 << p));
    } else {
      for (int i = ip[p], j = 0; i < kSubframe; i++, j++) y[i] = sub(y[i], h[j]);
    }
  }
  signOut = signs;
  const Word16 i0 = mult(static_cast<Word16>(ip[0]), 6554);
  const Word16 i1 = mult(static_cast<Word16>(ip[1]), 6554);
  const Word16 i2 = mult(static_cast<Word16>(ip[2]), 6554);
  const Word16 q3 = mult(static_cast<Word16>(ip[3]), 6554);
  const Word16 r3 = sub(static_cast<Word16>(ip[3]), add(add(q3, shl(q3, 2)), 3));  // ip3 % 5 - 3
  const Word16 i3 = add(shl(q3, 1), r3);
  Word16 index = add(i0, shl(i1, 3));
  index = add(index, shl(i2, 6));
  index = add(index, shl(i3, 9));
  return index;
}

int Encoder::analyseMain(Word16* prm) {
  Word16* speech = m_speech + kWindow - kFrame - 40;
  Word16* wsp = m_wspBuf + kPitchMax;
  Word16* exc = m_excBuf + kExcHist;
  Word16* error = m_errBuf + kOrder;
  Word16 a[2 * kOrder1], aq[2 * kOrder1];
  Word16 gamma1[2], gamma2[2];
  Word16 lspNew[kOrder];
  bool voice = true;

  {
    Word16 rh[VoiceActivityDetector::kAcfOrder + 1], rl[VoiceActivityDetector::kAcfOrder + 1];
    Word16 rawHi[kOrder1], rc[2], expR0;
    autocorrelation(m_speech, rh, rl, m_annexB ? VoiceActivityDetector::kAcfOrder : kOrder, &expR0, rawHi);
    levinson(rh, rl, a + kOrder1, rc);
    azToLsp(a + kOrder1, lspNew, m_lspOld);
    if (m_annexB) voice = detectVoice(rh, rl, expR0, rawHi, rc[1], lspNew);
    // Unquantised filter of the first subframe: midway LSPs.
    Word16 lspMid[kOrder], lsfInt[kOrder], lsfNew[kOrder];
    for (int i = 0; i < kOrder; i++) lspMid[i] = add(shr(lspNew[i], 1), shr(m_lspOld[i], 1));
    lspToAz(lspMid, a);
    lspToNormalisedLsf(lspMid, lsfInt);
    lspToNormalisedLsf(lspNew, lsfNew);
    std::memcpy(m_lspOld, lspNew, sizeof lspNew);
    weightingFactors(lsfInt, lsfNew, rc, gamma1, gamma2);
  }

  // Weighted speech of the whole frame.
  for (int sf = 0; sf < 2; sf++) {
    Word16 ap1[kOrder1], ap2[kOrder1];
    weightAz(a + sf * kOrder1, gamma1[sf], ap1);
    weightAz(a + sf * kOrder1, gamma2[sf], ap2);
    residual(ap1, speech + sf * kSubframe, wsp + sf * kSubframe, kSubframe);
    synthesis(ap2, wsp + sf * kSubframe, wsp + sf * kSubframe, kSubframe, m_memW, true);
  }

  if (!voice) return silentFrameMain(prm, a, gamma1, gamma2);
  if (m_annexB) {
    m_cngSeed = 11111;
    m_ppastVad = m_pastVad;
    m_pastVad = true;
  }
  {
    Word16 lspNewQ[kOrder];
    quantiseLsp(lspNew, lspNewQ, prm);
    interpolateAz(m_lspOldQ, lspNewQ, aq);
    std::memcpy(m_lspOldQ, lspNewQ, sizeof lspNewQ);
  }

  const Word16 tOp = openLoopPitchFull(wsp);
  Word16 t0Min, t0Max;
  pitchSearchRange(tOp, 3, 6, t0Min, t0Max);

  Word16* out = prm + 2;
  for (int sf = 0; sf < 2; sf++) {
    const int off = sf * kSubframe;
    const Word16* aqs = aq + sf * kOrder1;
    Word16 ap1[kOrder1], ap2[kOrder1];
    weightAz(a + sf * kOrder1, gamma1[sf], ap1);
    weightAz(a + sf * kOrder1, gamma2[sf], ap2);
    Word16 h1[kSubframe], xn[kSubframe], xn2[kSubframe], y1[kSubframe], y2[kSubframe], code[kSubframe];

    // Impulse response of W(z)/Aq(z).
    {
      Word16 imp[kSubframe] = {};
      std::memcpy(imp, ap1, sizeof ap1);
      Word16 zero[kOrder] = {};
      synthesis(aqs, imp, h1, kSubframe, zero, false);
      synthesis(ap2, h1, h1, kSubframe, zero, false);
    }
    // Target: the LP residual through 1/Aq(z) with the error memory, then W(z).
    residual(aqs, speech + off, exc + off, kSubframe);
    synthesis(aqs, exc + off, error, kSubframe, m_errBuf, false);
    residual(ap1, error, xn, kSubframe);
    synthesis(ap2, xn, xn, kSubframe, m_memW0, false);

    Word16 frac;
    const Word16 t0 = closedLoopPitchFull(exc + off, xn, h1, t0Min, t0Max, sf == 0, frac);
    const Word16 index = lagIndex(t0, frac, sf == 0, t0Min, t0Max);
    *out++ = index;
    if (sf == 0) *out++ = pitchParity(index);

    predictLongTerm(exc + off, t0, frac, kSubframe);
    convolve(exc + off, h1, y1);
    Word16 gCoeff[4];
    Word16 gainPit = pitchGain(xn, y1, gCoeff);
    const bool taming = needsTaming(t0, frac);
    if (taming && gainPit > kPitchGainClip) gainPit = kPitchGainClip;
    for (int i = 0; i < kSubframe; i++) xn2[i] = sub(xn[i], extract_h(L_shl(L_mult(y1[i], gainPit), 1)));

    Word16 sign;
    *out++ = searchCodebookFull(xn2, h1, t0, sf == 0, code, y2, sign);
    *out++ = sign;

    Word16 gainCode;
    *out++ = applyGains(xn, y1, y2, code, gCoeff, taming, t0, exc + off, gainPit, gainCode);
    Word16 syn[kSubframe];
    synthesis(aqs, exc + off, syn, kSubframe, m_memSyn, true);
    for (int i = kSubframe - kOrder, j = 0; i < kSubframe; i++, j++) m_errBuf[j] = sub(speech[off + i], syn[i]);
    updateWeightingMemory(xn, y1, y2, gainPit, gainCode);
  }
  shiftHistory();
  return 1;
}

int Encoder::silentFrameMain(Word16* sid, const Word16* a, const Word16* gamma1, const Word16* gamma2) {
  Word16 aq[2 * kOrder1];
  const int type = codeComfortNoise(sid, aq);
  m_ppastVad = m_pastVad;
  m_pastVad = false;
  // Keep the synthesis, error and weighting memories in step with the
  // comfort noise.
  Word16* speech = m_speech + kWindow - kFrame - 40;
  Word16* exc = m_excBuf + kExcHist;
  Word16* error = m_errBuf + kOrder;
  for (int sf = 0; sf < 2; sf++) {
    const int off = sf * kSubframe;
    Word16 ap1[kOrder1], ap2[kOrder1], syn[kSubframe], xn[kSubframe];
    weightAz(a + sf * kOrder1, gamma1[sf], ap1);
    weightAz(a + sf * kOrder1, gamma2[sf], ap2);
    synthesis(aq + sf * kOrder1, exc + off, syn, kSubframe, m_memSyn, true);
    for (int i = 0; i < kSubframe; i++) error[i] = sub(speech[off + i], syn[i]);
    residual(ap1, error, xn, kSubframe);
    synthesis(ap2, xn, xn, kSubframe, m_memW0, true);
    std::memcpy(m_errBuf, error + kSubframe - kOrder, kOrder * sizeof(Word16));
  }
  m_sharp = kSharpMin;
  shiftHistory();
  return type;
}

}  // namespace quillon::g729a
