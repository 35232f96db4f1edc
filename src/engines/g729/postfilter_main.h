// Adaptive post-filter of the full-complexity G.729 decoder: a harmonic
// filter on the A(z/0.55) residual with a 1/8-sample delay search around
// the transmitted lag, the short-term filter 1/A(z/0.70) with its gain
// normalised by the impulse response, a first-order tilt filter driven by
// the first reflection coefficient, and a sample-by-sample gain control.
// (The Annex A decoder uses its own, simpler post-filter in decoder.cpp.)
#ifndef QUILLON_G729A_POSTFILTER_MAIN_H
#define QUILLON_G729A_POSTFILTER_MAIN_H

#include "engines/g729/dsp.h"

namespace quillon::g729a {

class MainPostFilter : private Dsp {
 public:
  MainPostFilter() { reset(); }
  void reset();

  // Filters one subframe. syn points at the subframe inside the synthesis
  // history (syn[-kOrder..-1] readable), a is the subframe's LP filter, t0
  // the integer lag of the frame's first subframe. Returns the chosen
  // harmonic delay, 0 when the subframe was judged unvoiced.
  Word16 filter(Word16 t0, const Word16* syn, const Word16* a, bool active, Word16* out);

 private:
  static constexpr int kImpulse = 20;                  // truncated impulse response
  static constexpr int kResHist = kPitchMax + 1 + 8;   // residual history (lag + half long filter)
  static constexpr int kLongReach = 1;                 // long filter taps beyond the history (delay 146)
  static constexpr int kUpStride = kSubframe + 1;      // one upsampled phase: 41 samples
  static constexpr int kPhases = 8;                    // delay resolution 1/8

  struct Harmonic {
    Word16 delay = 0, phase = 0, num = 0, den = 1, shNum = 0, shDen = 0, offset = 0;
  };

  Word16 harmonicFilter(Word16 t0, const Word16* res, Word16* out);
  void searchDelay(Word16 t0, const Word16* sig, Harmonic& best, Word16* yUp);
  void longInterpolation(const Word16* sig, Word16 delay, Word16 phase, Word16* y, Word16& num, Word16& den,
                         Word16& shNum, Word16& shDen);
  bool preferLong(const Harmonic& s, Word16 num2, Word16 den2, Word16 shNum2, Word16 shDen2);
  Word16 shortTermGain(const Word16* apNum, const Word16* apDen, Word16* sig);
  void tilt(const Word16* in, Word16* out, Word16 parcor);
  void gainControl(const Word16* in, Word16* out);

  Word16 m_res[kResHist + kSubframe];  // A(z/0.55) residual, history then subframe
  Word16 m_stpMem[kOrder];             // 1/A(z/0.70) memory
  Word16 m_gain;                       // gain of the last sample (Q14)
};

}  // namespace quillon::g729a

#endif
