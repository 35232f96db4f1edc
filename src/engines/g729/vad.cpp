#include "engines/g729/vad.h"

#include <cstring>

#include "engines/g729/tables.h"

namespace quillon::g729a {

namespace {
constexpr int kInitFrames = 32;
constexpr Word16 kInitCount = 20;
constexpr int kZcStart = 120, kZcEnd = 200;

// Smoothing coefficients of the background means after n updates.
struct MeanCoefs {
  Word16 e, e1, zc, zc1, sd, sd1;
};
constexpr MeanCoefs kCoefs[6] = {
    {24576, 8192, 26214, 6554, 19661, 13017}, {31130, 1638, 30147, 2621, 21299, 11469},
    {31785, 983, 30802, 1966, 22938, 9830},   {32440, 328, 31457, 1311, 24576, 8192},
    {32604, 164, 32440, 328, 24576, 8192},    {32604, 164, 32702, 66, 24576, 8192},
};

inline Word16 inc(Word16 v) { return static_cast<Word16>(v + 1); }
}  // namespace

void VoiceActivityDetector::reset() {
  Overflow = false;
  std::memset(m_meanLsf, 0, sizeof m_meanLsf);
  std::memset(m_minBuffer, 0, sizeof m_minBuffer);
  m_prevMin = m_nextMin = 0;
  m_min = fx::MAX_16;
  m_meanE = m_meanSE = m_meanSLE = m_meanSZC = 0;
  m_prevEnergy = 0;
  m_countSil = m_countUpdate = m_countExt = 0;
  m_flag = 1;
  m_vFlag = 0;
  m_lessCount = 0;
}

Word16 VoiceActivityDetector::logEnergy(Word32 acc, Word16 expR0) {
  // 10 log10 of the energy, Q11, offset.
  Word16 exp, frac;
  log2(acc, exp, frac);
  acc = Mpy_32_16(exp, frac, 9864);
  acc = L_mac(acc, 9864, sub(sub(expR0, 1), 1));
  acc = L_shl(acc, 11);
  return sub(extract_h(acc), 4875);
}

bool VoiceActivityDetector::decide(Word16 rc, const Word16* lsf, const Word16* rh, const Word16* rl, Word16 expR0,
                                   const Word16* sig, Word16 frame, bool prev, bool prev2) {
  const Word16 energy = logEnergy(L_Comp(rh[0], rl[0]), expR0);
  Word32 acc = 0;
  for (int i = 1; i <= kAcfOrder; i++) acc = L_mac(acc, rh[i], tab::kVadLowBand[i]);
  acc = L_shl(acc, 1);
  acc = L_mac(acc, rh[0], tab::kVadLowBand[0]);
  const Word16 energyLow = logEnergy(acc, expR0);

  acc = 0;
  for (int i = 0; i < kOrder; i++) {
    const Word16 d = sub(lsf[i], m_meanLsf[i]);
    acc = L_mac(acc, d, d);
  }
  const Word16 sd = extract_h(acc);

  Word16 zc = 0;
  for (int i = kZcStart + 1; i <= kZcEnd; i++)
    if (mult(sig[i - 1], sig[i]) < 0) zc = add(zc, 410);

  // Running minimum of the energy over the last 128 frames.
  if (frame < 129) {
    if (energy < m_min) {
      m_min = energy;
      m_prevMin = energy;
    }
    if ((frame & 7) == 0) {
      m_minBuffer[sub(shr(frame, 3), 1)] = m_min;
      m_min = fx::MAX_16;
    }
  }
  if ((frame & 7) == 0) {
    m_prevMin = m_minBuffer[0];
    for (int i = 1; i < 16; i++)
      if (m_minBuffer[i] < m_prevMin) m_prevMin = m_minBuffer[i];
  }
  if (frame >= 129) {
    if (((frame & 7) ^ 1) == 0) {
      m_min = m_prevMin;
      m_nextMin = fx::MAX_16;
    }
    if (energy < m_min) m_min = energy;
    if (energy < m_nextMin) m_nextMin = energy;
    if ((frame & 7) == 0) {
      for (int i = 0; i < 15; i++) m_minBuffer[i] = m_minBuffer[i + 1];
      m_minBuffer[15] = m_nextMin;
      m_prevMin = m_minBuffer[0];
      for (int i = 1; i < 16; i++)
        if (m_minBuffer[i] < m_prevMin) m_prevMin = m_minBuffer[i];
    }
  }

  bool voice = true;
  if (frame <= kInitFrames) {
    if (energy < 3072) {
      voice = false;
      m_lessCount = inc(m_lessCount);
    } else {
      voice = true;
      m_meanE = extract_h(L_mac(L_deposit_h(m_meanE), energy, 1024));
      m_meanSZC = extract_h(L_mac(L_deposit_h(m_meanSZC), zc, 1024));
      for (int i = 0; i < kOrder; i++) m_meanLsf[i] = extract_h(L_mac(L_deposit_h(m_meanLsf[i]), lsf[i], 1024));
    }
  }
  if (frame >= kInitFrames) {
    if (frame == kInitFrames) {
      const Word16 f = tab::kVadMeanFactor[m_lessCount], s = tab::kVadMeanShift[m_lessCount];
      m_meanE = extract_h(L_shl(L_mult(m_meanE, f), s));
      m_meanSZC = extract_h(L_shl(L_mult(m_meanSZC, f), s));
      for (int i = 0; i < kOrder; i++) m_meanLsf[i] = extract_h(L_shl(L_mult(m_meanLsf[i], f), s));
      m_meanSE = sub(m_meanE, 2048);
      m_meanSLE = sub(m_meanE, 2458);
    }
    const Word16 dSe = sub(m_meanSE, energy);
    const Word16 dSle = sub(m_meanSLE, energyLow);
    const Word16 dSzc = sub(m_meanSZC, zc);
    voice = energy < 3072 ? false : decideFromDistances(dSle, dSe, sd, dSzc);

    // Hangover: keep speech through short dips.
    m_vFlag = 0;
    if (prev && !voice && add(dSe, 410) < 0 && energy > 3072) {
      voice = true;
      m_vFlag = 1;
    }
    if (m_flag == 1) {
      if (prev2 && prev && !voice && sub(abs_s(sub(m_prevEnergy, energy)), 614) <= 0) {
        m_countExt = inc(m_countExt);
        voice = true;
        m_vFlag = 1;
        if (m_countExt <= 4) {
          m_flag = 1;
        } else {
          m_countExt = 0;
          m_flag = 0;
        }
      }
    } else {
      m_flag = 1;
    }
    if (!voice) m_countSil = inc(m_countSil);
    if (voice && m_countSil > 10 && sub(sub(energy, m_prevEnergy), 614) <= 0) {
      voice = false;
      m_countSil = 0;
    }
    if (voice) m_countSil = 0;
    if (sub(sub(energy, 614), m_meanSE) < 0 && frame > 128 && !m_vFlag && rc < 19661) voice = false;

    // Background update on quiet, flat frames.
    if (sub(sub(energy, 614), m_meanSE) < 0 && rc < 24576 && sd < 83) {
      m_countUpdate = inc(m_countUpdate);
      int band;
      if (m_countUpdate < kInitCount) {
        band = 0;
      } else if (m_countUpdate < kInitCount + 10) {
        band = 1;
      } else if (m_countUpdate < kInitCount + 20) {
        band = 2;
      } else if (m_countUpdate < kInitCount + 30) {
        band = 3;
      } else if (m_countUpdate < kInitCount + 40) {
        band = 4;
      } else {
        band = 5;
      }
      const MeanCoefs& k = kCoefs[band];
      m_meanSE = extract_h(L_mac(L_mult(k.e, m_meanSE), k.e1, energy));
      m_meanSLE = extract_h(L_mac(L_mult(k.e, m_meanSLE), k.e1, energyLow));
      m_meanSZC = extract_h(L_mac(L_mult(k.zc, m_meanSZC), k.zc1, zc));
      for (int i = 0; i < kOrder; i++) m_meanLsf[i] = extract_h(L_mac(L_mult(k.sd, m_meanLsf[i]), k.sd1, lsf[i]));
    }
    if (frame > 128 && ((sub(m_meanSE, m_min) < 0 && sd < 83) || sub(m_meanSE, m_min) > 2048)) {
      m_meanSE = m_min;
      m_countUpdate = 0;
    }
  }
  m_prevEnergy = energy;
  return voice;
}

bool VoiceActivityDetector::decideFromDistances(Word16 dSle, Word16 dSe, Word16 sd, Word16 dSzc) {
  // Linear boundaries in the planes of the distance pairs: any side
  // crossed means speech.
  Word32 acc = L_shr(L_mac(L_mult(dSzc, -14680), 8192, -28521), 8);
  if (L_add(acc, L_deposit_h(sd)) > 0) return true;
  acc = L_shr(L_mac(L_mult(dSzc, 19065), 8192, -19446), 7);
  if (L_add(acc, L_deposit_h(sd)) > 0) return true;
  acc = L_shr(L_mac(L_mult(dSzc, 20480), 8192, 16384), 2);
  if (L_add(acc, L_deposit_h(dSe)) < 0) return true;
  acc = L_shr(L_mac(L_mult(dSzc, -16384), 8192, 19660), 2);
  if (L_add(acc, L_deposit_h(dSe)) < 0) return true;
  if (L_mac(L_mult(dSe, 32767), 1024, 30802) < 0) return true;
  acc = L_mac(L_mac(L_mult(sd, -28160), 64, 19988), dSe, 512);
  if (acc < 0) return true;
  if (L_mac(L_mult(sd, 32767), 32, -30199) > 0) return true;
  acc = L_shr(L_mac(L_mult(dSzc, -20480), 8192, 22938), 2);
  if (L_add(acc, L_deposit_h(dSe)) < 0) return true;
  acc = L_shr(L_mac(L_mult(dSzc, 23831), 4096, 31576), 2);
  if (L_add(acc, L_deposit_h(dSe)) < 0) return true;
  if (L_mac(L_mult(dSe, 32767), 2048, 17367) < 0) return true;
  acc = L_mac(L_mac(L_mult(sd, -22400), 32, 25395), dSle, 256);
  if (acc < 0) return true;
  acc = L_add(L_mac(L_mult(dSe, -30427), 256, -29959), L_deposit_h(dSle));
  if (acc > 0) return true;
  acc = L_add(L_mac(L_mult(dSe, -23406), 512, 28087), L_deposit_h(dSle));
  if (acc < 0) return true;
  acc = L_mac(L_mac(L_mult(dSe, 24576), 1024, 29491), dSle, 16384);
  return acc < 0;
}

}  // namespace quillon::g729a
