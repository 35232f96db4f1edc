#include "engines/g729/decoder.h"

#include <algorithm>
#include <cstring>

#include "engines/g729/tables.h"

namespace quillon::g729a {

namespace {
constexpr int kExcHist = kPitchMax + kInterpLen;  // past excitation kept between frames
constexpr int kImpulseLen = 22;                   // truncated impulse response of the tilt estimate
constexpr Word16 kGammaNum = 18022;               // 0.55, formant post-filter numerator
constexpr Word16 kGammaDen = 22938;               // 0.70, formant post-filter denominator
constexpr Word16 kTiltFactor = 26214;             // 0.8
constexpr Word16 kAgcFactor = 29491;              // 0.9
constexpr Word16 kAgcFactor1 = 32767 - kAgcFactor;
constexpr Word16 kPitchGamma = 16384;             // 0.5
constexpr Word16 kPitchInvGamma = 21845;          // 1/(1+0.5)
constexpr Word16 kPitchGamma2 = 10923;            // 0.5/(1+0.5)
constexpr Word16 kCngSeed = 11111;
constexpr Word16 kCngGainKeep = 28672;            // comfort-noise gain smoothing, 0.875
constexpr Word16 kCngGainNew = 4096;
constexpr Word16 kLspSidInit[kOrder] = {31441, 27566, 21458, 13612, 4663, -4663, -13612, -21458, -27566, -31441};
}  // namespace

void Decoder::reset() {
  Overflow = false;
  std::memset(m_excBuf, 0, sizeof m_excBuf);
  std::memset(m_synMem, 0, sizeof m_synMem);
  std::memcpy(m_lspOld, kLspInit, sizeof m_lspOld);
  m_sharp = kSharpMin;
  m_oldT0 = 60;
  m_gainCode = 0;
  m_gainPitch = 0;
  for (auto& row : m_lsfMem) std::memcpy(row, kLsfMemInit, sizeof row);
  m_prevMode = 0;
  std::memcpy(m_prevLsf, kLsfMemInit, sizeof m_prevLsf);
  for (auto& e : m_pastEnergy) e = kGainMemInit;
  m_seed = 21845;
  std::memset(m_synHist, 0, sizeof m_synHist);
  std::memset(m_resBuf, 0, sizeof m_resBuf);
  std::memset(m_scaledResBuf, 0, sizeof m_scaledResBuf);
  std::memset(m_pstMem, 0, sizeof m_pstMem);
  m_tiltMem = 0;
  m_pastGain = 4096;
  m_y1Hi = m_y1Lo = m_y2Hi = m_y2Lo = m_x0 = m_x1 = 0;
  m_mainPost.reset();
  m_voicing = 60;
  m_pastFrameType = 1;
  m_cngSeed = kCngSeed;
  m_sidEnergy = 0;
  m_sidEnergyExp = 1;
  m_sidGain = tab::kSidGain[0];
  m_cngGain = 0;
  std::memcpy(m_lspSid, kLspSidInit, sizeof m_lspSid);
}

void Decoder::unpack(const uint8_t in[kFrameBytes], Word16 prm[kParamCount]) {
  // 80 bits, most significant first: the top 64 in `hi`, the last 16 in `lo`.
  uint64_t hi = 0;
  for (int i = 0; i < 8; i++) hi = (hi << 8) | in[i];
  const uint32_t lo = static_cast<uint32_t>(in[8] << 8 | in[9]);
  int pos = 0;  // bits consumed
  for (int p = 0; p < kParamCount; p++) {
    const int w = tab::kParamBits[p];
    uint32_t v;
    if (pos + w <= 64) {
      v = static_cast<uint32_t>((hi << pos) >> (64 - w));
    } else if (pos >= 64) {
      v = (lo >> (80 - pos - w)) & ((1u << w) - 1);
    } else {
      const int inHi = 64 - pos;
      const uint32_t top = static_cast<uint32_t>(hi & ((uint64_t{1} << inHi) - 1));
      v = (top << (w - inHi)) | (lo >> (16 - (w - inHi)));
    }
    prm[p] = static_cast<Word16>(v);
    pos += w;
  }
}

void Decoder::decode(const uint8_t in[kFrameBytes], int16_t out[kFrameSamples]) {
  Word16 prm[kParamCount];
  unpack(in, prm);
  decodeFrame(prm, false, out);
}

void Decoder::decodeErased(int16_t out[kFrameSamples], bool sized) {
  if (m_annexB && m_pastFrameType != 1) {
    // Lost during silence: more comfort noise.
    const Word16 zeroSid[4] = {};
    decodeComfortNoise(sized && m_variant == Variant::AnnexA ? zeroSid : nullptr, true, out);
    return;
  }
  Word16 prm[kParamCount] = {};
  decodeFrame(prm, true, out);
}

void Decoder::decodeSid(const uint8_t in[kSidBytes], int16_t out[kFrameSamples]) {
  if (!m_annexB) {
    decodeErased(out);
    return;
  }
  const unsigned bits = static_cast<unsigned>(in[0] << 8 | in[1]);
  const Word16 sid[4] = {static_cast<Word16>((bits >> 15) & 1), static_cast<Word16>((bits >> 10) & 31),
                         static_cast<Word16>((bits >> 6) & 15), static_cast<Word16>((bits >> 1) & 31)};
  decodeComfortNoise(sid, false, out);
}

void Decoder::decodeUntransmitted(int16_t out[kFrameSamples]) {
  if (!m_annexB) {
    decodeErased(out);
    return;
  }
  decodeComfortNoise(nullptr, false, out);
}

void Decoder::saveExcitationEnergy() {
  // Energy of the frame's excitation, kept for a SID frame lost right
  // after speech (may saturate: the SID quantiser's top level).
  const Word16* exc = m_excBuf + kPitchMax + kInterpLen;
  Word32 t = 0;
  for (int i = 0; i < kFrame; i++) t = L_mac(t, exc[i], exc[i]);
  const Word16 n = norm_l(t);
  m_sidEnergy = round(L_shl(t, n));
  m_sidEnergyExp = sub(16, n);
}

// One subframe through the synthesis filter; on overflow the whole
// excitation history is scaled down and the subframe synthesised again.
void Decoder::synthesiseSubframe(const Word16* a, const Word16* exc, Word16* syn) {
  Overflow = false;
  synthesis(a, exc, syn, kSubframe, m_synMem, false);
  if (Overflow) {
    for (auto& e : m_excBuf) e = shr(e, 2);
    synthesis(a, exc, syn, kSubframe, m_synMem, true);
  } else {
    std::memcpy(m_synMem, syn + kSubframe - kOrder, sizeof m_synMem);
  }
}

void Decoder::decodeComfortNoise(const Word16* sid, bool erased, int16_t* out) {
  Word16* exc = m_excBuf + kPitchMax + kInterpLen;
  Word16* syn = m_synHist + kOrder;
  const bool afterSpeech = m_pastFrameType == 1;
  if (sid) {
    m_sidGain = tab::kSidGain[sid[3]];
    sidLsfDecode(sid, m_lspSid, m_lsfMem);
  } else if (afterSpeech) {
    // First silent frame without its SID: estimate the level from the
    // last speech frame.
    Word16 enerq;
    m_sidGain = tab::kSidGain[quantiseSidGain(&m_sidEnergy, &m_sidEnergyExp, 0, enerq)];
  }
  if (afterSpeech) {
    m_cngGain = m_sidGain;
  } else {
    m_cngGain = add(mult_r(m_cngGain, kCngGainKeep), mult_r(m_sidGain, kCngGainNew));
  }
  Word16 gp[2], lag[2];
  comfortExcitation(m_cngGain, exc, m_cngSeed, gp, lag);

  Word16 az[2 * kOrder1];
  interpolateAz(m_lspOld, m_lspSid, az);
  std::memcpy(m_lspOld, m_lspSid, sizeof m_lspOld);
  for (int sf = 0; sf < 2; sf++) {
    const int off = sf * kSubframe;
    const Word16* a = az + sf * kOrder1;
    synthesiseSubframe(a, exc + off, syn + off);
  }
  m_sharp = kSharpMin;
  if (!erased) saveExcitationEnergy();
  std::memmove(m_excBuf, m_excBuf + kFrame, kExcHist * sizeof(Word16));
  m_pastFrameType = sid ? 2 : 0;
  const Word16 lags[2] = {m_oldT0, m_oldT0};
  finishFrame(syn, az, lags, false, out);
}

void Decoder::decodeLsp(const Word16* prm, bool erased, Word16* lspNew) {
  Word16 lsf[kOrder];
  if (!erased) {
    const int mode = (prm[0] >> 7) & 1;
    const int code0 = prm[0] & 127;
    const int code1 = (prm[1] >> 5) & 31;
    const int code2 = prm[1] & 31;
    lspDequantise(code0, code1, code2, mode, m_lsfMem, lsf);
    std::memcpy(m_prevLsf, lsf, sizeof lsf);
    m_prevMode = static_cast<Word16>(mode);
  } else {
    // Repeat the last LSF and feed the predictor the element that would
    // have produced it.
    std::memcpy(lsf, m_prevLsf, sizeof lsf);
    Word16 ele[kOrder];
    lspExtract(m_prevLsf, ele, m_prevMode, m_lsfMem);
    lspShiftMemory(ele, m_lsfMem);
  }
  lsfToLsp(lsf, lspNew);
}

void Decoder::decodePitchLag(Word16 index, bool first, Word16& t0, Word16& frac) {
  if (first) {
    if (index < 197) {
      t0 = add(mult(add(index, 2), 10923), 19);
      Word16 i = add(add(t0, t0), t0);
      frac = add(sub(index, i), 58);
    } else {
      t0 = sub(index, 112);
      frac = 0;
    }
  } else {
    Word16 tMin, tMax;
    pitchSearchRange(t0, 5, 9, tMin, tMax);
    Word16 i = sub(mult(add(index, 2), 10923), 1);
    t0 = add(i, tMin);
    i = add(add(i, i), i);
    frac = sub(sub(index, 2), i);
  }
}

void Decoder::decodeGains(Word16 index, const Word16* code, bool erased) {
  if (erased) {
    m_gainPitch = mult(m_gainPitch, 29491);  // x 0.9
    if (m_gainPitch > 29491) m_gainPitch = 29491;
    m_gainCode = mult(m_gainCode, 32111);  // x 0.98
    updateGainMemoryErased(m_pastEnergy);
    return;
  }
  const int i1 = tab::kGainUnmap1[index >> 4];
  const int i2 = tab::kGainUnmap2[index & 15];
  m_gainPitch = add(tab::kGainBook1[i1][0], tab::kGainBook2[i2][0]);
  Word16 gcode0, expGcode0;
  predictGain(m_pastEnergy, code, gcode0, expGcode0);
  Word32 sum = L_add(tab::kGainBook1[i1][1], tab::kGainBook2[i2][1]);  // Q13
  Word16 tmp = extract_l(L_shr(sum, 1));
  Word32 acc = L_mult(tmp, gcode0);
  acc = L_shl(acc, add(negate(expGcode0), -12 - 1 + 1 + 16));
  m_gainCode = extract_h(acc);
  updateGainMemory(m_pastEnergy, sum);
}

void Decoder::decodeFrame(const Word16* prm, bool erased, int16_t* out) {
  Word16 lspNew[kOrder];
  Word16 az[2 * kOrder1];
  Word16 lags[2];
  Word16 code[kSubframe];
  Word16* exc = m_excBuf + kExcHist;
  Word16* syn = m_synHist + kOrder;

  m_cngSeed = kCngSeed;
  decodeLsp(prm, erased, lspNew);
  interpolateAz(m_lspOld, lspNew, az);
  std::memcpy(m_lspOld, lspNew, sizeof lspNew);

  const bool parityError = !erased && pitchParity(prm[2]) != prm[3];
  Word16 t0 = 0, frac = 0;
  for (int sf = 0; sf < 2; sf++) {
    const int off = sf * kSubframe;
    const Word16* p = prm + (sf == 0 ? 2 : 7);  // pitch index of the subframe
    const Word16* rest = sf == 0 ? prm + 4 : prm + 8;  // positions, signs, gains
    const bool badPitch = erased || (sf == 0 && parityError);
    if (!badPitch) {
      decodePitchLag(p[0], sf == 0, t0, frac);
      m_oldT0 = t0;
    } else {
      t0 = m_oldT0;
      frac = 0;
      m_oldT0 = add(m_oldT0, 1);
      if (m_oldT0 > kPitchMax) m_oldT0 = kPitchMax;
    }
    lags[sf] = t0;

    predictLongTerm(exc + off, t0, frac, kSubframe);

    Word16 positions = rest[0], signs = rest[1];
    if (erased) {
      positions = random(m_seed) & 0x1fff;
      signs = random(m_seed) & 0x000f;
    }
    // Four pulses of +-1 (Q13) on the interleaved tracks.
    std::memset(code, 0, sizeof code);
    {
      int idx = positions;
      int pos[4];
      pos[0] = (idx & 7) * 5;
      idx >>= 3;
      pos[1] = (idx & 7) * 5 + 1;
      idx >>= 3;
      pos[2] = (idx & 7) * 5 + 2;
      idx >>= 3;
      const int j = idx & 1;
      idx >>= 1;
      pos[3] = (idx & 7) * 5 + 3 + j;
      for (int k = 0; k < 4; k++) {
        code[pos[k]] = (signs & 1) ? 8191 : -8192;
        signs >>= 1;
      }
    }
    // Pitch sharpening of the code vector.
    const Word16 sharp15 = shl(m_sharp, 1);
    for (int i = t0; i < kSubframe; i++) code[i] = add(code[i], mult(code[i - t0], sharp15));

    decodeGains(rest[2], code, erased);

    m_sharp = m_gainPitch;
    if (m_sharp > kSharpMax) m_sharp = kSharpMax;
    if (m_sharp < kSharpMin) m_sharp = kSharpMin;

    // exc = round(2 (2 exc gp + 2 code gc)) with the saturations of the
    // operator sequence (the pitch gain is never negative, so the first
    // product cannot saturate and the sum saturates once).
    int64_t gp = m_gainPitch, gc = m_gainCode;
    if (erased && m_variant == Variant::Main) {
      // The main body conceals with one codebook only: the adaptive one
      // after a voiced frame, the fixed one after an unvoiced frame.
      if (m_voicing == 0) {
        gp = 0;
      } else {
        gc = 0;
      }
    }
    for (int i = 0; i < kSubframe; i++) {
      const int64_t sum = std::clamp<int64_t>(2 * (exc[off + i] * gp + code[i] * gc), fx::MIN_32, fx::MAX_32);
      const int64_t t = std::clamp<int64_t>(sum * 2, fx::MIN_32, fx::MAX_32);
      exc[off + i] = static_cast<Word16>(std::min<int64_t>(t + 0x8000, fx::MAX_32) >> 16);
    }

    const Word16* a = az + sf * kOrder1;
    synthesiseSubframe(a, exc + off, syn + off);
  }
  if (m_annexB && !erased) saveExcitationEnergy();
  std::memmove(m_excBuf, m_excBuf + kFrame, kExcHist * sizeof(Word16));
  m_pastFrameType = 1;
  finishFrame(syn, az, lags, true, out);
}

void Decoder::finishFrame(Word16* syn, const Word16* az, const Word16* lags, bool active, int16_t* out) {
  Word16 pst[kFrame];
  if (m_variant == Variant::Main) {
    // Both subframes are post-filtered around the first subframe's lag.
    m_voicing = 0;
    for (int sf = 0; sf < 2; sf++) {
      const Word16 v =
          m_mainPost.filter(lags[0], syn + sf * kSubframe, az + sf * kOrder1, active, pst + sf * kSubframe);
      if (v != 0) m_voicing = v;
    }
    std::memcpy(syn - kOrder, syn + kFrame - kOrder, kOrder * sizeof(Word16));
  } else {
    postFilter(syn, az, lags, active, pst);
  }
  highPass(out, pst);
}

void Decoder::postFilter(Word16* syn, const Word16* az, const Word16* lags, bool active, Word16* out) {
  Word16* res = m_resBuf + kPitchMax;
  Word16* scaled = m_scaledResBuf + kPitchMax;
  for (int sf = 0; sf < 2; sf++) {
    const int off = sf * kSubframe;
    const Word16* a = az + sf * kOrder1;
    Word16 t0Min = sub(lags[sf], 3);
    Word16 t0Max = add(t0Min, 6);
    if (t0Max > kPitchMax) {
      t0Max = kPitchMax;
      t0Min = sub(t0Max, 6);
    }
    Word16 apNum[kOrder1], apDen[kOrder1];
    weightAz(a, kGammaNum, apNum);
    weightAz(a, kGammaDen, apDen);

    residual(apNum, syn + off, res, kSubframe);
    for (int j = 0; j < kSubframe; j++) scaled[j] = shr(res[j], 2);

    Word16 resPst[kSubframe];
    if (active) {
      pitchPostFilter(res, scaled, t0Min, t0Max, resPst);
    } else {
      std::memcpy(resPst, res, sizeof resPst);  // no pitch post-filter on comfort noise
    }

    // Tilt of A(z/g2)/A(z/g1) from its truncated impulse response.
    Word16 h[kImpulseLen];
    std::memcpy(h, apNum, sizeof apNum);
    std::memset(h + kOrder1, 0, (kImpulseLen - kOrder1) * sizeof(Word16));
    synthesis(apDen, h, h, kImpulseLen, h + kOrder1, false);
    Word32 t = L_mult(h[0], h[0]);
    for (int i = 1; i < kImpulseLen; i++) t = L_mac(t, h[i], h[i]);
    const Word16 r0 = extract_h(t);
    t = L_mult(h[0], h[1]);
    for (int i = 1; i < kImpulseLen - 1; i++) t = L_mac(t, h[i], h[i + 1]);
    Word16 r1 = extract_h(t);
    if (r1 <= 0) {
      r1 = 0;
    } else {
      r1 = mult(r1, kTiltFactor);
      r1 = div_s(r1, r0);
    }
    tiltCompensate(resPst, r1);

    synthesis(apDen, resPst, out + off, kSubframe, m_pstMem, true);
    gainControl(syn + off, out + off);

    std::memmove(res - kPitchMax, res + kSubframe - kPitchMax, kPitchMax * sizeof(Word16));
    std::memmove(scaled - kPitchMax, scaled + kSubframe - kPitchMax, kPitchMax * sizeof(Word16));
  }
  std::memcpy(syn - kOrder, syn + kFrame - kOrder, kOrder * sizeof(Word16));
}

void Decoder::pitchPostFilter(const Word16* sig, const Word16* scaled, Word16 t0Min, Word16 t0Max, Word16* out) {
  Word32 corMax = fx::MIN_32;
  int t0 = t0Min;
  Word32 ener = 1, ener0 = 1;
  // With every |sample| below 5180, 40 products of two samples (doubled)
  // plus one stay below 2^31, so plain sums equal the saturating ones.
  int maxAbs = 0;
  for (int i = -t0Max; i < kSubframe; i++) maxAbs = std::max(maxAbs, scaled[i] < 0 ? -scaled[i] : +scaled[i]);
  if (maxAbs < 5180) {
    for (int i = t0Min; i <= t0Max; i++) {
      const Word16* d = scaled - i;
      int32_t corr = 0;
      for (int j = 0; j < kSubframe; j++) corr += scaled[j] * d[j];
      corr *= 2;
      if (corr > corMax) {
        corMax = corr;
        t0 = i;
      }
    }
    int32_t e = 0, e0 = 0;
    for (int i = 0; i < kSubframe; i++) {
      e += scaled[i - t0] * scaled[i - t0];
      e0 += scaled[i] * scaled[i];
    }
    ener = 2 * e + 1;
    ener0 = 2 * e0 + 1;
  } else {
    for (int i = t0Min; i <= t0Max; i++) {
      const Word16* d = scaled - i;
      Word32 corr = 0;
      for (int j = 0; j < kSubframe; j++) corr = L_mac(corr, scaled[j], d[j]);
      if (L_sub(corr, corMax) > 0) {
        corMax = corr;
        t0 = i;
      }
    }
    for (int i = 0; i < kSubframe; i++) ener = L_mac(ener, scaled[i - t0], scaled[i - t0]);
    for (int i = 0; i < kSubframe; i++) ener0 = L_mac(ener0, scaled[i], scaled[i]);
  }
  if (corMax < 0) corMax = 0;

  Word32 top = corMax;
  if (ener > top) top = ener;
  if (ener0 > top) top = ener0;
  const Word16 j = norm_l(top);
  Word16 cmax = round(L_shl(corMax, j));
  Word16 en = round(L_shl(ener, j));
  const Word16 en0 = round(L_shl(ener0, j));

  Word32 temp = L_mult(cmax, cmax);
  temp = L_sub(temp, L_shr(L_mult(en, en0), 1));
  if (temp < 0) {  // prediction gain below 3 dB: no pitch post-filtering
    std::memcpy(out, sig, kSubframe * sizeof(Word16));
    return;
  }
  Word16 g0, gain;
  if (cmax > en) {  // pitch gain above 1
    g0 = kPitchInvGamma;
    gain = kPitchGamma2;
  } else {
    cmax = shr(mult(cmax, kPitchGamma), 1);
    en = shr(en, 1);
    const Word16 s = add(cmax, en);
    if (s > 0) {
      gain = div_s(cmax, s);
      g0 = sub(32767, gain);
    } else {
      g0 = 32767;
      gain = 0;
    }
  }
  for (int i = 0; i < kSubframe; i++) out[i] = add(mult(g0, sig[i]), mult(gain, sig[i - t0]));
}

void Decoder::tiltCompensate(Word16* sig, Word16 g) {
  const Word16 last = sig[kSubframe - 1];
  for (int i = kSubframe - 1; i > 0; i--) sig[i] = sub(sig[i], mult(g, sig[i - 1]));
  sig[0] = sub(sig[0], mult(g, m_tiltMem));
  m_tiltMem = last;
}

namespace {
// Saturating sum of (x[i] >> 2)^2 doubled: the terms are never negative, so
// the running sum saturates exactly when the plain total exceeds 2^31 - 1.
Word32 quarterEnergy(const Word16* x) {
  int64_t s = 0;
  for (int i = 0; i < kSubframe; i++) {
    const int32_t v = x[i] >> 2;
    s += v * v;
  }
  s *= 2;
  return s > fx::MAX_32 ? fx::MAX_32 : static_cast<Word32>(s);
}
}  // namespace

void Decoder::gainControl(const Word16* in, Word16* out) {
  Word32 s = quarterEnergy(out);
  if (s == 0) {
    m_pastGain = 0;
    return;
  }
  Word16 exp = sub(norm_l(s), 1);
  const Word16 gainOut = round(L_shl(s, exp));

  s = quarterEnergy(in);
  Word16 g0;
  if (s == 0) {
    g0 = 0;
  } else {
    const Word16 n = norm_l(s);
    const Word16 gainIn = round(L_shl(s, n));
    exp = sub(exp, n);
    s = L_deposit_l(div_s(gainOut, gainIn));
    s = L_shl(s, 7);
    s = L_shr(s, exp);
    s = invSqrt(s);
    const Word16 g = round(L_shl(s, 9));
    g0 = mult(g, kAgcFactor1);
  }
  Word16 gain = m_pastGain;
  for (int i = 0; i < kSubframe; i++) {
    gain = mult(gain, kAgcFactor);
    gain = add(gain, g0);
    out[i] = extract_h(L_shl(L_mult(out[i], gain), 3));
  }
  m_pastGain = gain;
}

void Decoder::highPass(int16_t* out, const Word16* in) {
  // y[n] = b0 x[n] + b1 x[n-1] + b2 x[n-2] + a1 y[n-1] + a2 y[n-2], with the
  // feedback terms in double precision. The two feedback products cannot
  // saturate (|a1|, |a2| < 2^14), nor can their sum; the feed-forward
  // accumulation is checked in 64 bits and redone with the operators when
  // it leaves the 32-bit range.
  const int32_t a1 = tab::kPostHpA[1], a2 = tab::kPostHpA[2];
  const int32_t b0 = tab::kPostHpB[0], b1 = tab::kPostHpB[1], b2 = tab::kPostHpB[2];
  // Largest possible feedback sum, and the input magnitude below which the
  // feed-forward taps cannot push any partial sum out of range.
  constexpr int64_t kMaxFeedback = 2 * (32768LL * 15836 + 15836) + 2 * (32768LL * 7667 + 7667);
  constexpr int64_t kSafeInput = ((int64_t{1} << 31) - 1 - kMaxFeedback) / (2 * (7699 + 15398 + 7699));
  // The state lives in locals: the output stores could otherwise alias it.
  int32_t x0 = m_x0, x1 = m_x1, y1Hi = m_y1Hi, y1Lo = m_y1Lo, y2Hi = m_y2Hi, y2Lo = m_y2Lo;
  int32_t maxX = std::max(x0 < 0 ? -x0 : x0, x1 < 0 ? -x1 : x1);
  for (int i = 0; i < kFrame; i++) maxX = std::max(maxX, in[i] < 0 ? -in[i] : +in[i]);
  const bool plain = maxX <= kSafeInput;
  for (int i = 0; i < kFrame; i++) {
    const int32_t x2 = x1;
    x1 = x0;
    x0 = in[i];
    const int32_t fb = 2 * (y1Hi * a1 + ((y1Lo * a1) >> 15)) + 2 * (y2Hi * a2 + ((y2Lo * a2) >> 15));
    Word32 t;
    if (plain) {
      t = fb + 2 * (x0 * b0 + x1 * b1 + x2 * b2);
    } else {
      t = L_mac(fb, static_cast<Word16>(x0), static_cast<Word16>(b0));
      t = L_mac(t, static_cast<Word16>(x1), static_cast<Word16>(b1));
      t = L_mac(t, static_cast<Word16>(x2), static_cast<Word16>(b2));
    }
    // Two saturating left shifts (by 2, kept as the filter state, then by
    // 1) and rounding to 16 bits.
    t = static_cast<Word32>(std::clamp<int64_t>(int64_t{t} * 4, fx::MIN_32, fx::MAX_32));
    const int64_t t8 = std::clamp<int64_t>(int64_t{t} * 2, fx::MIN_32, fx::MAX_32);
    out[i] = static_cast<Word16>(std::min<int64_t>(t8 + 0x8000, fx::MAX_32) >> 16);
    y2Hi = y1Hi;
    y2Lo = y1Lo;
    y1Hi = t >> 16;
    y1Lo = (t >> 1) & 0x7fff;
  }
  m_x0 = static_cast<Word16>(x0);
  m_x1 = static_cast<Word16>(x1);
  m_y1Hi = static_cast<Word16>(y1Hi);
  m_y1Lo = static_cast<Word16>(y1Lo);
  m_y2Hi = static_cast<Word16>(y2Hi);
  m_y2Lo = static_cast<Word16>(y2Lo);
}

}  // namespace quillon::g729a
