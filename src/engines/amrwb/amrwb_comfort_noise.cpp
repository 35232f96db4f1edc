// AMR-WB decoder: discontinuous transmission. Receive-state machine, SID
// parameter decoding, comfort noise generation and the speech history the
// noise parameters are averaged from.
#include <cstring>

#include "engines/amrwb/amrwb_decoder.h"

namespace quillon::amrwb {

namespace {
constexpr Word16 kHangConst = 7;
constexpr Word16 kElapsedThresh = 24 + 7 - 1;
constexpr Word16 kMaxEmpty = 50;
constexpr Word16 kIsfDitherGap = 448;
constexpr Word16 kIsfFactorLow = 256;
constexpr Word16 kIsfFactorStep = 2;
constexpr Word16 kGainFactor = 75;
}  // namespace

int Decoder::rxDtxState(int rx) {
  ComfortNoise& c = cn_;
  const bool sid = rx == kRxSidFirst || rx == kRxSidUpdate || rx == kRxSidBad;
  const bool inDtx = c.globalState == kDtx || c.globalState == kDtxMute;
  int next;
  if (sid || (inDtx && (rx == kRxNoData || rx == kRxSpeechBad || rx == kRxSpeechLost))) {
    next = kDtx;
    if (c.globalState == kDtxMute &&
        (rx == kRxSidBad || rx == kRxSidFirst || rx == kRxSpeechLost || rx == kRxNoData)) {
      next = kDtxMute;
    }
    c.sinceLastSid = add(c.sinceLastSid, 1);
    if (c.sinceLastSid > kMaxEmpty) next = kDtxMute;
  } else {
    next = kSpeech;
    c.sinceLastSid = 0;
  }

  if (c.dataUpdated == 0 && rx == kRxSidUpdate) c.elapsedCount = 0;
  c.elapsedCount = add(c.elapsedCount, 1);
  c.hangoverAdded = 0;

  const bool encDtx = sid || rx == kRxNoData;
  if (!encDtx) {
    c.hangoverCount = kHangConst;
  } else if (c.elapsedCount > kElapsedThresh) {
    c.hangoverAdded = 1;
    c.elapsedCount = 0;
    c.hangoverCount = 0;
  } else if (c.hangoverCount == 0) {
    c.elapsedCount = 0;
  } else {
    c.hangoverCount = sub(c.hangoverCount, 1);
  }

  if (next != kSpeech) {
    c.sidFrame = 0;
    c.validData = 0;
    if (rx == kRxSidFirst) {
      c.sidFrame = 1;
    } else if (rx == kRxSidUpdate) {
      c.sidFrame = 1;
      c.validData = 1;
    } else if (rx == kRxSidBad) {
      c.sidFrame = 1;
      c.hangoverAdded = 0;
    }
  }
  return next;
}

void Decoder::comfortNoiseFrame(Word16* exc, int newState, Word16* isf, BitCursor& prm) {
  ComfortNoise& c = cn_;

  if (c.hangoverAdded != 0 && c.sidFrame != 0) {
    // A hangover just ended: the noise parameters are the average of the
    // speech history (the newest entry counted twice).
    int next = c.histPos + 1;
    if (next == kHist) next = 0;
    std::memcpy(c.isfHist + next * kOrder, c.isfHist + c.histPos * kOrder, kOrder * sizeof(Word16));
    c.logEnHist[next] = c.logEnHist[c.histPos];
    Word32 sum[kOrder] = {};
    c.logEn = 0;
    for (int i = 0; i < kHist; i++) {
      c.logEn = add(c.logEn, c.logEnHist[i]);
      for (int j = 0; j < kOrder; j++) sum[j] = L_add(sum[j], c.isfHist[i * kOrder + j]);
    }
    c.logEn = add(shr(c.logEn, 1), 1024);
    if (c.logEn < 0) c.logEn = 0;
    for (int j = 0; j < kOrder; j++) c.isf[j] = extract_l(L_shr(sum[j], 3));
  }

  if (c.sidFrame != 0) {
    std::memcpy(c.prevIsf, c.isf, sizeof c.prevIsf);
    c.prevLogEn = c.logEn;
    if (c.validData != 0) {
      Word16 period = c.sinceLastSid;
      if (period > 32) period = 32;
      c.sidPeriodInv = period >= 2 ? div_s(1 << 10, shl(period, 10)) : static_cast<Word16>(1 << 14);

      Word16 ind[5];
      ind[0] = prm.take(6);
      ind[1] = prm.take(6);
      ind[2] = prm.take(6);
      ind[3] = prm.take(5);
      ind[4] = prm.take(5);
      dequantiseNoiseIsf(ind, c.isf);
      const Word16 logEnIndex = prm.take(6);
      c.dither = prm.take(1);
      c.logEn = mult(shl(logEnIndex, 9), 12483);
      if (c.dataUpdated == 0 || c.globalState == kSpeech) {
        std::memcpy(c.prevIsf, c.isf, sizeof c.prevIsf);
        c.prevLogEn = c.logEn;
      }
    }
  }
  if (c.sidFrame != 0 && c.validData != 0) c.sinceLastSid = 0;

  // Interpolate between the last two SID parameter sets.
  Word16 intFac = mult(shl(c.sinceLastSid, 10), c.sidPeriodInv);
  if (intFac > 1024) intFac = 1024;
  intFac = shl(intFac, 4);
  Word32 logEnInt = L_mult(intFac, c.logEn);
  for (int i = 0; i < kOrder; i++) isf[i] = mult(intFac, c.isf[i]);
  intFac = sub(16384, intFac);
  logEnInt = L_mac(logEnInt, intFac, c.prevLogEn);
  for (int i = 0; i < kOrder; i++) {
    isf[i] = shl(add(isf[i], mult(intFac, c.prevIsf[i])), 1);
  }
  if (c.dither != 0) ditherNoise(isf, logEnInt);

  logEnInt = L_shr(logEnInt, 9);
  Word16 logE = extract_h(logEnInt);
  const Word16 logM = extract_l(L_shr(L_sub(logEnInt, L_deposit_h(logE)), 1));
  logE = add(logE, 15);
  Word32 level32 = pow2(logE, logM);
  Word16 exp0 = norm_l(level32);
  level32 = L_shl(level32, exp0);
  exp0 = sub(15, exp0);
  const Word16 level = extract_h(level32);

  for (int i = 0; i < kFrame; i++) exc[i] = shr(nextRandom(c.seed), 4);
  Word16 exp;
  Word32 ener = dotProduct12(exc, exc, kFrame, exp);
  isqrtNorm(ener, exp);
  const Word16 gain = mult(level, extract_h(ener));
  exp = add(add(exp0, exp), 4);
  for (int i = 0; i < kFrame; i++) exc[i] = shl(mult(exc[i], gain), exp);

  if (newState == kDtxMute) {
    Word16 period = c.sinceLastSid;
    if (period > 32) period = 32;
    c.sidPeriodInv = div_s(1 << 10, shl(period, 10));  // 0 when no frame has passed
    c.sinceLastSid = 0;
    c.prevLogEn = c.logEn;
    c.logEn = sub(c.logEn, 64);
    if (c.logEn < 0) c.logEn = 0;
  }
  if (c.sidFrame != 0 && (c.validData != 0 || c.hangoverAdded != 0)) {
    c.sinceLastSid = 0;
    c.dataUpdated = 1;
  }
}

void Decoder::ditherNoise(Word16* isf, Word32& logEn) {
  Word16& seed = cn_.ditherSeed;
  auto draw = [&]() {
    const Word16 r1 = shr(nextRandom(seed), 1);
    const Word16 r2 = shr(nextRandom(seed), 1);
    return add(r1, r2);
  };
  logEn = L_add(logEn, L_mult(draw(), kGainFactor));
  if (logEn < 0) logEn = 0;

  Word16 fac = kIsfFactorLow;
  Word16 t = add(isf[0], mult_r(draw(), fac));
  isf[0] = t < kIsfGap ? kIsfGap : t;
  for (int i = 1; i < kOrder - 1; i++) {
    fac = add(fac, kIsfFactorStep);
    t = add(isf[i], mult_r(draw(), fac));
    isf[i] = sub(t, isf[i - 1]) < kIsfDitherGap ? add(isf[i - 1], kIsfDitherGap) : t;
  }
  if (isf[kOrder - 2] > 16384) isf[kOrder - 2] = 16384;
}

// Speech frames feed the history the comfort noise is derived from.
void Decoder::comfortNoiseUpdate(const Word16* isf, const Word16* exc) {
  ComfortNoise& c = cn_;
  c.histPos = static_cast<Word16>(c.histPos + 1 == kHist ? 0 : c.histPos + 1);
  std::memcpy(c.isfHist + c.histPos * kOrder, isf, kOrder * sizeof(Word16));
  Word32 en = 0;
  for (int i = 0; i < kFrame; i++) en = L_mac(en, exc[i], exc[i]);
  en = L_shr(en, 1);
  Word16 e, m;
  log2(en, e, m);
  Word16 logEn = add(shl(e, 7), shr(m, 8));
  c.logEnHist[c.histPos] = sub(logEn, 1024);
}

}  // namespace quillon::amrwb
