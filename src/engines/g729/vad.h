// Voice activity detector of G.729 Annex B: per frame it compares the full-
// and low-band energies, the zero-crossing rate and the LSF distance with
// running means of the background noise and decides speech or noise.
#ifndef QUILLON_G729A_VAD_H
#define QUILLON_G729A_VAD_H

#include "engines/g729/dsp.h"

namespace quillon::g729a {

class VoiceActivityDetector : private Dsp {
 public:
  static constexpr int kAcfOrder = 12;  // autocorrelations the detector reads

  VoiceActivityDetector() { reset(); }
  void reset();

  // Decision for one frame (true: speech). rc: second reflection
  // coefficient; lsf: normalised LSFs (Q15); rh, rl: the lag-windowed
  // autocorrelations 0..12 and expR0 their exponent; sig: the 240-sample
  // analysis window; frame: frame counter from 1 (wrapping 32767 -> 256);
  // prev, prev2: the last two decisions.
  bool decide(Word16 rc, const Word16* lsf, const Word16* rh, const Word16* rl, Word16 expR0, const Word16* sig,
              Word16 frame, bool prev, bool prev2);

 private:
  bool decideFromDistances(Word16 dSle, Word16 dSe, Word16 sd, Word16 dSzc);
  Word16 logEnergy(Word32 acc, Word16 expR0);

  Word16 m_meanLsf[kOrder];
  Word16 m_minBuffer[16];
  Word16 m_prevMin, m_nextMin, m_min;
  Word16 m_meanE, m_meanSE, m_meanSLE, m_meanSZC;
  Word16 m_prevEnergy;
  Word16 m_countSil, m_countUpdate, m_countExt;
  Word16 m_flag, m_vFlag, m_lessCount;
};

}  // namespace quillon::g729a

#endif
