// An anti-aliasing alternative to the default 16 kHz -> 8 kHz resampler: a
// 63-tap half-band low-pass (passband to about 3.4 kHz, stopband from about
// 4.6 kHz) before dropping every other sample. Each resampler keeps its
// filter history, so chunked input gives the same output as one call.
// A host installs it with
//   TAV::IResamplerFactory::s_DefaultFactory = &myHalfbandFactory;
#ifndef QUILLON_HALFBAND_RESAMPLER_H
#define QUILLON_HALFBAND_RESAMPLER_H

#include "quillon/resampler.h"

namespace TAV {

class QUILLON_API HalfbandResampler16to8 : public IResampler {
 public:
  static constexpr int kTaps = 63;

  HalfbandResampler16to8();
  // At most one sample more than half the input: a sample carried from the
  // previous call may complete a pair.
  uint32 getOutputCount(uint32 count) override;
  uint32 resample(const int16* in, uint32 inBytes, int16* out, uint32& outBytes) override;
  // Forgets the history (the next stream starts from silence).
  void reset();

 private:
  int16 m_history[64];  // circular, the newest sample at m_pos
  uint32 m_pos;
  bool m_odd;           // one sample of the next pair already taken
};

// Hands out a new resampler for each 16000 -> 8000 Hz request (they hold
// state, so they are not shared) and deletes it when it comes back.
class QUILLON_API HalfbandResamplerFactory : public IResamplerFactory {
 public:
  IResampler* createResampler(uint32 inRate, uint32 outRate) override;
  void releaseResampler(IResampler* resampler) override;
};

}  // namespace TAV

#endif
