// AMR-WB encoder: closed-loop pitch search, algebraic codebook searches
// (2 tracks at 6.60 kbit/s, 4 tracks with 4 to 24 pulses above), pulse
// position indexing, gain quantisation and the pitch gain clipping test.
#include <cstring>

#include "engines/amrwb/amrwb_encoder.h"
#include "engines/amrwb/amrwb_tables.h"

namespace quillon::amrwb {

namespace {

constexpr int kTracks = 4;
constexpr int kTrackPos = 16;
constexpr int kMaxPulses = 24;
constexpr int kPerTrack = 6;  // at most 6 pulses on one track
constexpr int kNbMax = 8;
constexpr Word16 kDistIsfMaxNarrow = 384;
constexpr Word16 kDistIsfMax = 307;
constexpr Word16 kDistIsfThres = 154;
constexpr Word16 kGainPitThres = 14746;
constexpr Word16 kGainPitMin = 9830;

// Start tracks of the pulse pairs for each search iteration.
constexpr Word16 kTrackOrder[36] = {0, 1, 2, 3, 1, 2, 3, 0, 2, 3, 0, 1, 3, 0, 1, 2, 0, 1,
                                    2, 3, 1, 2, 3, 0, 2, 3, 0, 1, 3, 0, 1, 2, 0, 1, 2, 3};

// ---- pulse position indexing (positions 0..15 on a track, bit 4 = sign)

Word32 index1(int pos, int n) {
  Word32 index = pos & ((1 << n) - 1);
  if (pos & kTrackPos) index += 1 << n;
  return index;
}

Word32 index2(int p1, int p2, int n) {
  const int mask = (1 << n) - 1;
  Word32 index;
  if (((p2 ^ p1) & kTrackPos) == 0) {
    index = p1 <= p2 ? ((p1 & mask) << n) + (p2 & mask) : ((p2 & mask) << n) + (p1 & mask);
    if (p1 & kTrackPos) index += 1 << (2 * n);
  } else if ((p1 & mask) <= (p2 & mask)) {
    index = ((p2 & mask) << n) + (p1 & mask);
    if (p2 & kTrackPos) index += 1 << (2 * n);
  } else {
    index = ((p1 & mask) << n) + (p2 & mask);
    if (p1 & kTrackPos) index += 1 << (2 * n);
  }
  return index;
}

Word32 index3(int p1, int p2, int p3, int n) {
  const int half = 1 << (n - 1);
  Word32 index;
  if (((p1 ^ p2) & half) == 0) {
    index = index2(p1, p2, n - 1) + ((p1 & half) << n) + (index1(p3, n) << (2 * n));
  } else if (((p1 ^ p3) & half) == 0) {
    index = index2(p1, p3, n - 1) + ((p1 & half) << n) + (index1(p2, n) << (2 * n));
  } else {
    index = index2(p2, p3, n - 1) + ((p2 & half) << n) + (index1(p1, n) << (2 * n));
  }
  return index;
}

Word32 index4Plus1(int p1, int p2, int p3, int p4, int n) {
  const int half = 1 << (n - 1);
  Word32 index;
  if (((p1 ^ p2) & half) == 0) {
    index = index2(p1, p2, n - 1) + ((p1 & half) << n) + (index2(p3, p4, n) << (2 * n));
  } else if (((p1 ^ p3) & half) == 0) {
    index = index2(p1, p3, n - 1) + ((p1 & half) << n) + (index2(p2, p4, n) << (2 * n));
  } else {
    index = index2(p2, p3, n - 1) + ((p2 & half) << n) + (index2(p1, p4, n) << (2 * n));
  }
  return index;
}

// Splits positions by their top position bit into a (clear) and b (set).
int splitHalves(const Word16* pos, int count, int n, int* a, int* b) {
  const int half = 1 << (n - 1);
  int na = 0, nb = 0;
  for (int k = 0; k < count; k++) {
    if ((pos[k] & half) == 0) a[na++] = pos[k];
    else b[nb++] = pos[k];
  }
  return na;
}

Word32 index4(const Word16* pos, int n) {
  int a[4], b[4];
  const int na = splitHalves(pos, 4, n, a, b);
  const int n1 = n - 1;
  Word32 index = 0;
  switch (na) {
    case 0: index = (1 << (4 * n - 3)) + index4Plus1(b[0], b[1], b[2], b[3], n1); break;
    case 1: index = (index1(a[0], n1) << (3 * n1 + 1)) + index3(b[0], b[1], b[2], n1); break;
    case 2: index = (index2(a[0], a[1], n1) << (2 * n1 + 1)) + index2(b[0], b[1], n1); break;
    case 3: index = (index3(a[0], a[1], a[2], n1) << n) + index1(b[0], n1); break;
    default: index = index4Plus1(a[0], a[1], a[2], a[3], n1); break;
  }
  return index + ((na & 3) << (4 * n - 2));
}

Word32 index5(const Word16* pos, int n) {
  int a[5], b[5];
  const int na = splitHalves(pos, 5, n, a, b);
  const int n1 = n - 1;
  switch (na) {
    case 0: return (1 << (5 * n - 1)) + (index3(b[0], b[1], b[2], n1) << (2 * n + 1)) + index2(b[3], b[4], n);
    case 1: return (1 << (5 * n - 1)) + (index3(b[0], b[1], b[2], n1) << (2 * n + 1)) + index2(b[3], a[0], n);
    case 2: return (1 << (5 * n - 1)) + (index3(b[0], b[1], b[2], n1) << (2 * n + 1)) + index2(a[0], a[1], n);
    case 3: return (index3(a[0], a[1], a[2], n1) << (2 * n + 1)) + index2(b[0], b[1], n);
    case 4: return (index3(a[0], a[1], a[2], n1) << (2 * n + 1)) + index2(a[3], b[0], n);
    default: return (index3(a[0], a[1], a[2], n1) << (2 * n + 1)) + index2(a[3], a[4], n);
  }
}

Word32 index6(const Word16* pos, int n) {
  int a[6], b[6];
  int na = splitHalves(pos, 6, n, a, b);
  const int n1 = n - 1;
  Word16 a16[6], b16[6];
  for (int i = 0; i < 6; i++) {
    a16[i] = static_cast<Word16>(a[i]);
    b16[i] = static_cast<Word16>(b[i]);
  }
  Word32 index = 0;
  switch (na) {
    case 0:
      index = (1 << (6 * n - 5)) + (index5(b16, n1) << n) + index1(b[5], n1);
      break;
    case 1:
      index = (1 << (6 * n - 5)) + (index5(b16, n1) << n) + index1(a[0], n1);
      break;
    case 2:
      index = (1 << (6 * n - 5)) + (index4(b16, n1) << (2 * n1 + 1)) + index2(a[0], a[1], n1);
      break;
    case 3:
      index = (index3(a[0], a[1], a[2], n1) << (3 * n1 + 1)) + index3(b[0], b[1], b[2], n1);
      break;
    case 4:
      na = 2;
      index = (index4(a16, n1) << (2 * n1 + 1)) + index2(b[0], b[1], n1);
      break;
    case 5:
      na = 1;
      index = (index5(a16, n1) << n) + index1(b[0], n1);
      break;
    default:
      na = 0;
      index = (index5(a16, n1) << n) + index1(a[5], n1);
      break;
  }
  return index + ((na & 3) << (6 * n - 4));
}

}  // namespace

// ---- pitch ----------------------------------------------------------------

Word16 Encoder::pitchSearch(const Word16* exc, const Word16* xn, const Word16* h, Word16 t0Min,
                            Word16 t0Max, Word16& frac, bool first, Word16 t0Fr2, Word16 t0Fr1) {
  constexpr int kHalf = 4;  // half length of the correlation interpolator
  const int tMin = t0Min - kHalf, tMax = t0Max + kHalf;
  Word16 corrBuf[40];  // normalised correlation of lags tMin..tMax
  auto corr = [&](int lag) -> Word16& { return corrBuf[lag - tMin]; };

  // Normalised correlation for every lag of the widened range.
  Word16 excf[kSub];
  int k = -tMin;
  convolve(exc + k, h, excf);
  Word32 t = 1;
  for (int i = 0; i < kSub; i++) t = L_mac(t, xn[i], xn[i]);
  Word16 e = add(sub(30, norm_l(t)), 2);
  const Word16 scl = negate(shr(e, 1));
  for (int lag = tMin; lag <= tMax; lag++) {
    t = 1;
    for (int i = 0; i < kSub; i++) t = L_mac(t, xn[i], excf[i]);
    e = norm_l(t);
    t = L_shl(t, e);
    const Word16 expCorr = sub(30, e);
    const Word16 c = extract_h(t);
    t = 1;
    for (int i = 0; i < kSub; i++) t = L_mac(t, excf[i], excf[i]);
    e = norm_l(t);
    t = L_shl(t, e);
    Word16 expNorm = sub(30, e);
    isqrtNorm(t, expNorm);
    const Word16 norm = extract_h(t);
    t = L_mult(c, norm);
    t = L_shl(t, add(add(expCorr, expNorm), scl));
    corr(lag) = round(t);
    if (lag != tMax) {
      k--;
      for (int i = kSub - 1; i > 0; i--) excf[i] = add(mult(exc[k], h[i]), excf[i - 1]);
      excf[0] = mult(exc[k], h[0]);
    }
  }

  Word16 best = corr(t0Min);
  Word16 t0 = t0Min;
  for (int i = t0Min + 1; i <= t0Max; i++) {
    if (corr(i) >= best) {
      best = corr(i);
      t0 = static_cast<Word16>(i);
    }
  }
  if (first && t0 >= t0Fr1) {
    frac = 0;
    return t0;
  }
  // Fractional refinement by interpolating the correlation.
  auto interp = [&](int fr) {
    const Word16* x = &corr(t0);
    if (fr < 0) {
      fr += 4;
      x--;
    }
    x -= kHalf - 1;
    Word32 s = 0;
    for (int i = 0, j = 3 - fr; i < 2 * kHalf; i++, j += 4) s = L_mac(s, x[i], tables::kPitchCorrInterp[j]);
    return round(L_shl(s, 1));
  };
  int step = 1, fraction = -3;
  if ((first && t0 >= t0Fr2) || t0Fr2 == kPitMin) {
    step = 2;
    fraction = -2;
  }
  if (t0 == t0Min) fraction = 0;
  best = interp(fraction);
  for (int i = fraction + step; i <= 3; i += step) {
    const Word16 v = interp(i);
    if (v > best) {
      best = v;
      fraction = i;
    }
  }
  if (fraction < 0) {
    fraction += 4;
    t0 = sub(t0, 1);
  }
  frac = static_cast<Word16>(fraction);
  return t0;
}

Word16 Encoder::pitchGain(const Word16* xn, const Word16* y, Word16* coeff) {
  Word16 expYy, expXy;
  const Word16 yy = extract_h(dotProduct12(y, y, kSub, expYy));
  Word16 xy = extract_h(dotProduct12(xn, y, kSub, expXy));
  coeff[0] = yy;
  coeff[1] = expYy;
  coeff[2] = xy;
  coeff[3] = expXy;
  if (xy < 0) return 0;
  xy = shr(xy, 1);
  Word16 gain = div_s(xy, yy);
  gain = shl(gain, sub(expXy, expYy));
  if (gain > 19661) gain = 19661;
  return gain;
}

void Encoder::updateTarget(const Word16* x, Word16* x2, const Word16* y, Word16 gain) {
  for (int i = 0; i < kSub; i++) {
    const Word32 t = L_msu(L_mult(x[i], 16384), y[i], gain);
    x2[i] = extract_h(L_shl(t, 1));
  }
}

// Correlation of the target with the impulse response, scaled so that the
// sum of the track maxima stays within 12 bits.
void Encoder::correlateTarget(const Word16* h, const Word16* x, Word16* dn) {
  Word32 y32[kSub];
  Word32 total = 1;
  for (int k = 0; k < kTracks; k++) {
    Word32 peak = 0;
    for (int i = k; i < kSub; i += kTracks) {
      Word32 t = 1;
      for (int j = i; j < kSub; j++) t = L_mac(t, x[j], h[j - i]);
      y32[i] = t;
      t = L_abs(t);
      if (t > peak) peak = t;
    }
    peak = L_shr(peak, 2);
    total = L_add(total, peak);
    total = L_add(total, L_shr(peak, 1));
  }
  const Word16 j = sub(norm_l(total), 4);
  for (int i = 0; i < kSub; i++) dn[i] = round(L_shl(y32[i], j));
}

// ---- algebraic codebook: 2 tracks x 32 positions, one pulse each ---------

void Encoder::searchCodebook2(Word16* dn, const Word16* cn, const Word16* H, Word16* code,
                              Word16* y, Word16& index) {
  constexpr int kPos = 32;
  Word16 sign[kSub], vec[kSub], dn2[kSub];
  Word16 hBuf[4 * kSub];
  Word16 rrDiag[2][kPos];
  Word16 rrCross[kPos * kPos];
  const Word16 alp = 8192;

  Word16 e;
  Word32 s = dotProduct12(cn, cn, kSub, e);
  isqrtNorm(s, e);
  const Word16 kCn = round(L_shl(s, add(e, 5)));
  s = dotProduct12(dn, dn, kSub, e);
  isqrtNorm(s, e);
  Word16 kDn = round(L_shl(s, add(e, 8)));
  kDn = mult_r(alp, kDn);
  for (int i = 0; i < kSub; i++) dn2[i] = extract_h(L_shl(L_mac(L_mult(kCn, cn[i]), kDn, dn[i]), 8));
  for (int i = 0; i < kSub; i++) {
    if (dn2[i] >= 0) {
      sign[i] = 32767;
      vec[i] = -32768;
    } else {
      sign[i] = -32768;
      vec[i] = 32767;
      dn[i] = negate(dn[i]);
    }
  }
  std::memset(hBuf, 0, sizeof hBuf);
  Word16* h = hBuf + kSub;
  Word16* hInv = hBuf + 3 * kSub;
  for (int i = 0; i < kSub; i++) {
    h[i] = H[i];
    hInv[i] = negate(h[i]);
  }

  // Energies of the pulses of each track (in reverse position order).
  Word32 cor = 0x00010000;
  const Word16* ph = h;
  for (int i = 0; i < kPos; i++) {
    cor = L_mac(cor, *ph, *ph);
    ph++;
    rrDiag[1][kPos - 1 - i] = extract_h(cor);
    cor = L_mac(cor, *ph, *ph);
    ph++;
    rrDiag[0][kPos - 1 - i] = extract_h(cor);
  }
  for (int i = 0; i < kPos; i++) {
    rrDiag[0][i] = shr(rrDiag[0][i], 1);
    rrDiag[1][i] = shr(rrDiag[1][i], 1);
  }
  // Cross-correlations of track 0 with track 1.
  int pos = kPos * kPos - 1, pos2 = kPos * kPos - 2;
  const Word16* hf = h + 1;
  for (int k = 0; k < kPos; k++) {
    Word16* p1 = rrCross + pos;
    Word16* p0 = rrCross + pos2;
    cor = 0x00008000;
    const Word16* a = h;
    const Word16* b = hf;
    for (int i = k + 1; i < kPos; i++) {
      cor = L_mac(cor, *a++, *b++);
      *p1 = extract_h(cor);
      cor = L_mac(cor, *a++, *b++);
      *p0 = extract_h(cor);
      p1 -= kPos + 1;
      p0 -= kPos + 1;
    }
    cor = L_mac(cor, *a++, *b++);
    *p1 = extract_h(cor);
    pos -= kPos;
    pos2--;
    hf += 2;
  }
  Word16* p = rrCross;
  for (int i = 0; i < kSub; i += 2) {
    const Word16* ps = sign[i] < 0 ? vec : sign;
    for (int j = 1; j < kSub; j += 2) {
      *p = mult(*p, ps[j]);
      p++;
    }
  }

  // Exhaustive search of the 32 x 32 pairs.
  Word16 psk = -1, alpk = 1;
  int ix = 0, iy = 1;
  const Word16* p0 = rrDiag[0];
  const Word16* p1 = rrDiag[1];
  const Word16* p2 = rrCross;
  for (int i0 = 0; i0 < kSub; i0 += 2) {
    const Word16 ps1 = dn[i0];
    const Word16 alp1 = *p0++;
    int best = -1;
    for (int i1 = 1; i1 < kSub; i1 += 2) {
      const Word16 ps2 = add(ps1, dn[i1]);
      const Word16 alp2 = add(alp1, add(*p1++, *p2++));
      const Word16 sq = mult(ps2, ps2);
      if (L_msu(L_mult(alpk, sq), psk, alp2) > 0) {
        psk = sq;
        alpk = alp2;
        best = i1;
      }
    }
    p1 -= kPos;
    if (best >= 0) {
      ix = i0;
      iy = best;
    }
  }

  std::memset(code, 0, kSub * sizeof(Word16));
  int i0 = ix >> 1, i1 = iy >> 1;
  const Word16* q0;
  const Word16* q1;
  if (sign[ix] > 0) {
    code[ix] = 512;
    q0 = h - ix;
  } else {
    code[ix] = -512;
    i0 += kPos;
    q0 = hInv - ix;
  }
  if (sign[iy] > 0) {
    code[iy] = 512;
    q1 = h - iy;
  } else {
    code[iy] = -512;
    i1 += kPos;
    q1 = hInv - iy;
  }
  index = static_cast<Word16>((i0 << 6) + i1);
  for (int i = 0; i < kSub; i++) y[i] = shr_r(add(q0[i], q1[i]), 3);
}

// ---- algebraic codebook: 4 tracks x 16 positions -------------------------

void Encoder::searchCodebook4(Word16* dn, const Word16* cn, const Word16* H, Word16* code,
                              Word16* y, int nbBits, int mode, Word16* index) {
  Word16 dn2[kSub], sign[kSub], vec[kSub];
  Word16 ind[kPerTrack * kTracks], codvec[kMaxPulses], nbPos[10];
  Word16 corX[kTrackPos], corY[kTrackPos], posMax[kTracks];
  Word16 hBuf[4 * kSub];
  Word16 rrDiag[kTracks][kTrackPos], rrCross[kTracks][kTrackPos * kTrackPos];
  Word16 ipos[kMaxPulses];
  int nbIter, nbPulse;
  Word16 alp;
  switch (nbBits) {
    case 20: nbIter = 4; alp = 8192; nbPulse = 4; nbPos[0] = 4; nbPos[1] = 8; break;
    case 36: nbIter = 4; alp = 4096; nbPulse = 8; nbPos[0] = 4; nbPos[1] = 8; nbPos[2] = 8; break;
    case 44:
      nbIter = 4; alp = 4096; nbPulse = 10;
      nbPos[0] = 4; nbPos[1] = 6; nbPos[2] = 8; nbPos[3] = 8;
      break;
    case 52:
      nbIter = 4; alp = 4096; nbPulse = 12;
      nbPos[0] = 4; nbPos[1] = 6; nbPos[2] = 8; nbPos[3] = 8;
      break;
    case 64:
      nbIter = 3; alp = 3277; nbPulse = 16;
      nbPos[0] = 4; nbPos[1] = 4; nbPos[2] = 6; nbPos[3] = 6; nbPos[4] = 8; nbPos[5] = 8;
      break;
    case 72:
      nbIter = 3; alp = 3072; nbPulse = 18;
      nbPos[0] = 2; nbPos[1] = 3; nbPos[2] = 4; nbPos[3] = 5; nbPos[4] = 6; nbPos[5] = 7;
      nbPos[6] = 8;
      break;
    default:  // 88
      nbIter = mode == 8 ? 1 : 2; alp = 2048; nbPulse = 24;
      nbPos[0] = 2; nbPos[1] = 2; nbPos[2] = 3; nbPos[3] = 4; nbPos[4] = 5; nbPos[5] = 6;
      nbPos[6] = 7; nbPos[7] = 8; nbPos[8] = 8; nbPos[9] = 8;
      break;
  }
  for (int i = 0; i < nbPulse; i++) codvec[i] = static_cast<Word16>(i);

  Word16 e;
  Word32 s = dotProduct12(cn, cn, kSub, e);
  isqrtNorm(s, e);
  const Word16 kCn = round(L_shl(s, add(e, 5)));
  s = dotProduct12(dn, dn, kSub, e);
  isqrtNorm(s, e);
  Word16 kDn = round(L_shl(s, add(e, 8)));
  kDn = mult_r(alp, kDn);
  for (int i = 0; i < kSub; i++) dn2[i] = extract_h(L_shl(L_mac(L_mult(kCn, cn[i]), kDn, dn[i]), 8));
  for (int i = 0; i < kSub; i++) {
    Word16 val = dn[i], ps = dn2[i];
    if (ps >= 0) {
      sign[i] = 32767;
      vec[i] = -32768;
    } else {
      sign[i] = -32768;
      vec[i] = 32767;
      val = negate(val);
      ps = negate(ps);
    }
    dn[i] = val;
    dn2[i] = ps;
  }
  // Keep the 8 best positions of each track (dn2 < 0 marks them).
  int pos = 0;
  for (int i = 0; i < kTracks; i++) {
    for (int k = 0; k < kNbMax; k++) {
      Word16 ps = -1;
      for (int j = i; j < kSub; j += kTracks) {
        if (dn2[j] > ps) {
          ps = dn2[j];
          pos = j;
        }
      }
      dn2[pos] = static_cast<Word16>(k - kNbMax);
      if (k == 0) posMax[i] = static_cast<Word16>(pos);
    }
  }

  std::memset(hBuf, 0, sizeof hBuf);
  Word16* h = hBuf + kSub;
  Word16* hInv = hBuf + 3 * kSub;
  Word32 t = 0;
  for (int i = 0; i < kSub; i++) t = L_mac(t, H[i], H[i]);
  const Word16 hShift = (nbPulse >= 12 && extract_h(t) > 1024) ? 1 : 0;
  for (int i = 0; i < kSub; i++) {
    h[i] = shr(H[i], hShift);
    hInv[i] = negate(h[i]);
  }

  // Pulse energies per track.
  Word32 cor = 0x00008000;
  const Word16* ph = h;
  for (int i = 0; i < kTrackPos; i++) {
    for (int tr = 3; tr >= 0; tr--) {
      cor = L_mac(cor, *ph, *ph);
      ph++;
      rrDiag[tr][kTrackPos - 1 - i] = extract_h(cor);
    }
  }
  // Cross-correlations of neighbouring tracks (0-1, 1-2, 2-3, 3-0), filled
  // along diagonals; indices into the flat table of the four pairs.
  constexpr int kPair = kTrackPos * kTrackPos;
  Word16* flat = &rrCross[0][0];
  const int last = kPair - 1;
  pos = last;
  const Word16* hf = h + 1;
  for (int k = 0; k < kTrackPos; k++) {
    int q3 = 2 * kPair + pos, q2 = kPair + pos, q1 = pos, q0 = 3 * kPair + pos - kTrackPos;
    cor = 0x00008000;
    const Word16* a = h;
    const Word16* b = hf;
    for (int i = k + 1; i < kTrackPos; i++) {
      cor = L_mac(cor, *a++, *b++);
      flat[q3] = extract_h(cor);
      cor = L_mac(cor, *a++, *b++);
      flat[q2] = extract_h(cor);
      cor = L_mac(cor, *a++, *b++);
      flat[q1] = extract_h(cor);
      cor = L_mac(cor, *a++, *b++);
      flat[q0] = extract_h(cor);
      q3 -= kTrackPos + 1;
      q2 -= kTrackPos + 1;
      q1 -= kTrackPos + 1;
      q0 -= kTrackPos + 1;
    }
    cor = L_mac(cor, *a++, *b++);
    flat[q3] = extract_h(cor);
    cor = L_mac(cor, *a++, *b++);
    flat[q2] = extract_h(cor);
    cor = L_mac(cor, *a++, *b++);
    flat[q1] = extract_h(cor);
    pos -= kTrackPos;
    hf += kTracks;
  }
  pos = last;
  hf = h + 3;
  for (int k = 0; k < kTrackPos; k++) {
    int q3 = 3 * kPair + pos, q2 = 2 * kPair + pos - 1, q1 = kPair + pos - 1, q0 = pos - 1;
    cor = 0x00008000;
    const Word16* a = h;
    const Word16* b = hf;
    for (int i = k + 1; i < kTrackPos; i++) {
      cor = L_mac(cor, *a++, *b++);
      flat[q3] = extract_h(cor);
      cor = L_mac(cor, *a++, *b++);
      flat[q2] = extract_h(cor);
      cor = L_mac(cor, *a++, *b++);
      flat[q1] = extract_h(cor);
      cor = L_mac(cor, *a++, *b++);
      flat[q0] = extract_h(cor);
      q3 -= kTrackPos + 1;
      q2 -= kTrackPos + 1;
      q1 -= kTrackPos + 1;
      q0 -= kTrackPos + 1;
    }
    cor = L_mac(cor, *a++, *b++);
    flat[q3] = extract_h(cor);
    pos--;
    hf += kTracks;
  }
  Word16* pc = &rrCross[0][0];
  for (int k = 0; k < kTracks; k++) {
    for (int i = k; i < kSub; i += kTracks) {
      const Word16* ps = sign[i] < 0 ? vec : sign;
      for (int j = (k + 1) % kTracks; j < kSub; j += kTracks) {
        *pc = mult(*pc, ps[j]);
        pc++;
      }
    }
  }

  auto pulseResponse = [&](int p) { return sign[p] < 0 ? hInv - p : h - p; };
  // Correlation of the pulses of one track with the current vector.
  auto corWithVec = [&](int track, Word16* out) {
    for (int i = 0, p = track; i < kTrackPos; i++, p += kTracks) {
      Word32 sum = 0;
      for (int j = p; j < kSub; j++) sum = L_mac(sum, h[j - p], vec[j]);
      const Word16 c = round(L_shl(sum, 1));
      out[i] = add(mult(c, sign[p]), rrDiag[track][i]);
    }
  };

  std::memset(y, 0, kSub * sizeof(Word16));
  Word16 psk = -1, alpk = 1;
  for (int k = 0; k < nbIter; k++) {
    for (int i = 0; i < nbPulse; i++) ipos[i] = kTrackOrder[k * 4 + i];
    Word16 ps;
    int start;
    if (nbBits == 20) {
      start = 0;
      ps = 0;
      alp = 0;
      std::memset(vec, 0, sizeof vec);
    } else if (nbBits == 36 || nbBits == 44) {
      start = 2;
      const int ix = ind[0] = posMax[ipos[0]];
      const int iy = ind[1] = posMax[ipos[1]];
      ps = add(dn[ix], dn[iy]);
      const int i = ix >> 2, j = iy >> 2;
      s = L_mult(rrDiag[ipos[0]][i], 4096);
      s = L_mac(s, rrDiag[ipos[1]][j], 4096);
      s = L_mac(s, rrCross[ipos[0]][(i << 4) + j], 8192);
      alp = round(s);
      const Word16* q0 = pulseResponse(ix);
      const Word16* q1 = pulseResponse(iy);
      for (int n = 0; n < kSub; n++) vec[n] = add(q0[n], q1[n]);
      if (nbBits == 44) {
        ipos[8] = 0;
        ipos[9] = 1;
      }
    } else {
      start = 4;
      for (int n = 0; n < 4; n++) ind[n] = posMax[ipos[n]];
      ps = add(add(add(dn[ind[0]], dn[ind[1]]), dn[ind[2]]), dn[ind[3]]);
      const Word16* q0 = pulseResponse(ind[0]);
      const Word16* q1 = pulseResponse(ind[1]);
      const Word16* q2 = pulseResponse(ind[2]);
      const Word16* q3 = pulseResponse(ind[3]);
      for (int n = 0; n < kSub; n++) vec[n] = add(add(add(q0[n], q1[n]), q2[n]), q3[n]);
      t = 0;
      for (int n = 0; n < kSub; n++) t = L_mac(t, vec[n], vec[n]);
      alp = round(L_shr(t, 3));
      if (nbBits == 72) {
        ipos[16] = 0;
        ipos[17] = 1;
      }
    }

    // Add the remaining pulses two at a time.
    for (int j = start, st = 0; j < nbPulse; j += 2, st++) {
      const int tx = ipos[j], ty = ipos[j + 1];
      corWithVec(tx, corX);
      corWithVec(ty, corY);
      const Word16 thres = static_cast<Word16>(nbPos[st] - kNbMax);
      const Word32 alp0 = L_add(L_deposit_h(alp), 0x00008000);
      Word16 sqk = -1, alpBest = 1;
      int ix = tx, iy = ty;
      const Word16* px = corX;
      const Word16* pxy = rrCross[tx];
      for (int x = tx; x < kSub; x += kTracks) {
        const Word16 ps1 = add(ps, dn[x]);
        const Word32 alp1 = L_mac(alp0, *px++, 4096);
        if (dn2[x] < thres) {
          int bestY = -1;
          const Word16* py = corY;
          for (int yy = ty; yy < kSub; yy += kTracks) {
            const Word16 ps2 = add(ps1, dn[yy]);
            Word32 alp2 = L_mac(alp1, *py++, 4096);
            alp2 = L_mac(alp2, *pxy++, 8192);
            const Word16 a16 = extract_h(alp2);
            const Word16 sq = mult(ps2, ps2);
            if (L_msu(L_mult(alpBest, sq), sqk, a16) > 0) {
              sqk = sq;
              alpBest = a16;
              bestY = yy;
            }
          }
          if (bestY >= 0) {
            ix = x;
            iy = bestY;
          }
        } else {
          pxy += kTrackPos;
        }
      }
      ps = add(ps, add(dn[ix], dn[iy]));
      alp = alpBest;
      ind[j] = static_cast<Word16>(ix);
      ind[j + 1] = static_cast<Word16>(iy);
      const Word16* q0 = pulseResponse(ix);
      const Word16* q1 = pulseResponse(iy);
      for (int n = 0; n < kSub; n++) vec[n] = add(vec[n], add(q0[n], q1[n]));
    }

    ps = mult(ps, ps);
    if (L_msu(L_mult(alpk, ps), psk, alp) > 0) {
      psk = ps;
      alpk = alp;
      std::memcpy(codvec, ind, static_cast<size_t>(nbPulse) * sizeof(Word16));
      std::memcpy(y, vec, kSub * sizeof(Word16));
    }
  }

  // Code vector, filtered code vector and the pulse positions per track.
  for (Word16& v : ind) v = -1;
  std::memset(code, 0, kSub * sizeof(Word16));
  for (int i = 0; i < kSub; i++) y[i] = shr_r(y[i], 3);
  const Word16 val = shr(512, hShift);
  for (int k = 0; k < nbPulse; k++) {
    const int i = codvec[k];
    int p = i >> 2;
    const int track = i & 3;
    if (sign[i] > 0) {
      code[i] = add(code[i], val);
    } else {
      code[i] = sub(code[i], val);
      p += kTrackPos;
    }
    int slot = track * kPerTrack;
    while (ind[slot] >= 0) slot++;
    ind[slot] = static_cast<Word16>(p);
  }

  const Word16* tr = ind;
  switch (nbBits) {
    case 20:
      for (int k = 0; k < 4; k++, tr += kPerTrack) index[k] = static_cast<Word16>(index1(tr[0], 4));
      break;
    case 36:
      for (int k = 0; k < 4; k++, tr += kPerTrack) index[k] = static_cast<Word16>(index2(tr[0], tr[1], 4));
      break;
    case 44:
      for (int k = 0; k < 4; k++, tr += kPerTrack) {
        index[k] = static_cast<Word16>(k < 2 ? index3(tr[0], tr[1], tr[2], 4) : index2(tr[0], tr[1], 4));
      }
      break;
    case 52:
      for (int k = 0; k < 4; k++, tr += kPerTrack) {
        index[k] = static_cast<Word16>(index3(tr[0], tr[1], tr[2], 4));
      }
      break;
    case 64:
      for (int k = 0; k < 4; k++, tr += kPerTrack) {
        const Word32 v = index4(tr, 4);
        index[k] = static_cast<Word16>((v >> 14) & 3);
        index[k + 4] = static_cast<Word16>(v & 0x3fff);
      }
      break;
    case 72:
      for (int k = 0; k < 2; k++, tr += kPerTrack) {
        const Word32 v = index5(tr, 4);
        index[k] = static_cast<Word16>((v >> 10) & 0x3ff);
        index[k + 4] = static_cast<Word16>(v & 0x3ff);
      }
      for (int k = 2; k < 4; k++, tr += kPerTrack) {
        const Word32 v = index4(tr, 4);
        index[k] = static_cast<Word16>((v >> 14) & 3);
        index[k + 4] = static_cast<Word16>(v & 0x3fff);
      }
      break;
    default:
      for (int k = 0; k < 4; k++, tr += kPerTrack) {
        const Word32 v = index6(tr, 4);
        index[k] = static_cast<Word16>((v >> 11) & 0x7ff);
        index[k + 4] = static_cast<Word16>(v & 0x7ff);
      }
      break;
  }
}

// ---- gains -----------------------------------------------------------------

// Joint VQ of the pitch gain and the predicted code gain correction (6 or
// 7 bits), minimising the weighted error from the five correlations.
Word16 Encoder::quantiseGains(const Word16* xn, const Word16* y1, Word16 qXn, const Word16* y2,
                              const Word16* code, const Word16* gCoeff, int nbits,
                              Word16& gainPit, Word32& gainCode, bool clip) {
  static constexpr Word16 kPred[4] = {4096, 3277, 2458, 1638};
  const int16_t* table;
  int minInd = 0, size = 64;
  if (nbits == 6) {
    table = tables::kGainTable6;
    if (clip) size -= 16;
  } else {
    table = tables::kGainTable7;
    int j = 128 - 64;
    if (clip) j -= 27;
    const int16_t* p = table + 64;
    for (int i = 0; i < j; i++, p += 2) {
      if (gainPit > *p) minInd++;
    }
  }
  Word16 coeff[5], coeffLo[5], expCoeff[5], expMax[5], e;
  coeff[0] = gCoeff[0];
  expCoeff[0] = gCoeff[1];
  coeff[1] = negate(gCoeff[2]);
  expCoeff[1] = add(gCoeff[3], 1);
  coeff[2] = extract_h(dotProduct12(y2, y2, kSub, e));
  expCoeff[2] = add(sub(e, 18), shl(qXn, 1));
  coeff[3] = extract_h(L_negate(dotProduct12(xn, y2, kSub, e)));
  expCoeff[3] = add(sub(e, 8), qXn);
  coeff[4] = extract_h(dotProduct12(y1, y2, kSub, e));
  expCoeff[4] = add(sub(e, 8), qXn);

  // Predicted code gain from the innovation energy and past gains.
  Word16 expCode, frac;
  Word32 t = dotProduct12(code, code, kSub, expCode);
  expCode = sub(expCode, 18 + 6 + 31);
  log2(t, e, frac);
  e = add(e, expCode);
  t = Mpy_32_16(e, frac, -24660);
  t = L_mac(t, 30, 8192);
  t = L_shl(t, 10);
  for (int i = 0; i < 4; i++) t = L_mac(t, kPred[i], pastQuaEn_[i]);
  Word16 gcode0 = extract_h(t);
  t = L_shr(L_mult(gcode0, 5443), 8);
  Word16 expGcode0;
  L_Extract(t, expGcode0, frac);
  gcode0 = extract_l(pow2(14, frac));
  expGcode0 = sub(expGcode0, 14);

  expCode = add(expGcode0, 4);
  expMax[0] = sub(expCoeff[0], 13);
  expMax[1] = sub(expCoeff[1], 14);
  expMax[2] = add(expCoeff[2], add(15, shl(expCode, 1)));
  expMax[3] = add(expCoeff[3], expCode);
  expMax[4] = add(expCoeff[4], add(1, expCode));
  Word16 eMax = expMax[0];
  for (int i = 1; i < 5; i++) {
    if (expMax[i] > eMax) eMax = expMax[i];
  }
  for (int i = 0; i < 5; i++) {
    const Word16 j = add(sub(eMax, expMax[i]), 2);
    L_Extract(L_shr(L_deposit_h(coeff[i]), j), coeff[i], coeffLo[i]);
    coeffLo[i] = shr(coeffLo[i], 3);
  }

  Word32 distMin = fx::MAX_32;
  int index = 0;
  const int16_t* p = table + 2 * minInd;
  for (int i = 0; i < size; i++) {
    const Word16 gPitch = *p++;
    Word16 gCode = *p++;
    gCode = mult_r(gCode, gcode0);
    const Word16 g2Pitch = mult_r(gPitch, gPitch);
    const Word16 gPitCod = mult_r(gCode, gPitch);
    Word16 g2Code, g2CodeLo;
    L_Extract(L_mult(gCode, gCode), g2Code, g2CodeLo);
    t = L_shr(L_mult(coeff[2], g2CodeLo), 3);
    t = L_mac(t, coeffLo[0], g2Pitch);
    t = L_mac(t, coeffLo[1], gPitch);
    t = L_mac(t, coeffLo[2], g2Code);
    t = L_mac(t, coeffLo[3], gCode);
    t = L_mac(t, coeffLo[4], gPitCod);
    t = L_shr(t, 12);
    t = L_mac(t, coeff[0], g2Pitch);
    t = L_mac(t, coeff[1], gPitch);
    t = L_mac(t, coeff[2], g2Code);
    t = L_mac(t, coeff[3], gCode);
    t = L_mac(t, coeff[4], gPitCod);
    if (t < distMin) {
      distMin = t;
      index = i;
    }
  }
  index += minInd;
  gainPit = table[2 * index];
  const Word16 gCode = table[2 * index + 1];
  gainCode = L_shl(L_mult(gCode, gcode0), add(expGcode0, 4));

  log2(L_deposit_l(gCode), e, frac);
  e = sub(e, 11);
  t = Mpy_32_16(e, frac, 24660);
  for (int i = 3; i > 0; i--) pastQuaEn_[i] = pastQuaEn_[i - 1];
  pastQuaEn_[0] = extract_l(L_shr(t, 3));
  return static_cast<Word16>(index);
}

// ---- pitch gain clipping (avoids unstable long-term prediction on strong
// resonances) ---------------------------------------------------------------

bool Encoder::pitchClip(int mode) const {
  if (mode <= 1) {
    // thres = 0.9 + 0.1 * dist / dist_max
    const Word32 p = static_cast<Word32>(gpClip_[0]) * (16384 / kDistIsfMaxNarrow) * 2;
    const Word16 d = static_cast<Word16>(p);
    const Word16 thres = static_cast<Word16>(14746 + ((static_cast<Word32>(1638) * d) >> 15));
    return gpClip_[1] > thres;
  }
  return gpClip_[0] < kDistIsfThres && gpClip_[1] > kGainPitThres;
}

void Encoder::pitchClipIsf(int mode, const Word16* isf) {
  Word16 distMin = sub(isf[1], isf[0]);
  for (int i = 2; i < kOrder - 1; i++) {
    const Word16 d = sub(isf[i], isf[i - 1]);
    if (d < distMin) distMin = d;
  }
  Word16 dist = extract_h(L_mac(L_mult(26214, gpClip_[0]), 6554, distMin));
  const Word16 cap = mode <= 1 ? kDistIsfMaxNarrow : kDistIsfMax;
  if (dist > cap) dist = cap;
  gpClip_[0] = dist;
}

void Encoder::pitchClipGain(int mode, Word16 gainPit) {
  const Word32 t = mode <= 1 ? L_mac(L_mult(32113, gpClip_[1]), 655, gainPit)
                             : L_mac(L_mult(29491, gpClip_[1]), 3277, gainPit);
  Word16 g = extract_h(t);
  if (g < kGainPitMin) g = kGainPitMin;
  gpClip_[1] = g;
}

}  // namespace quillon::amrwb
