// ICELP48 encoder engine: analysis by synthesis for the 144-bit frame that
// Icelp48Decoder reads. 240 samples of 8 kHz speech in, 18 bytes out.
#ifndef QUILLON_ICELP48_ENCODER_H
#define QUILLON_ICELP48_ENCODER_H

#include <cstddef>
#include <cstdint>

#include "engines/icelp48/icelp48_frame.h"

namespace quillon::icelp48 {

class Icelp48Encoder {
 public:
  Icelp48Encoder() { reset(); }
  void reset();
  // Encodes one 30 ms frame. The first frame carries alternation bit 1,
  // then the bit alternates, as the decoder expects.
  void encode(const int16_t pcm[kFrameSamples], uint8_t frame[kFrameBytes]);
  // The parameters of the last frame encoded.
  const FrameParams& lastParams() const { return params_; }

 private:
  static constexpr int kHistory = 160;      // adaptive-codebook history (as the decoder's)
  static constexpr int kWeightedHistory = kMaxLag + 8;

  void analyse(const float* s, float lsf[kOrder]);
  int openLoopLag(const float* sw) const;
  void searchSubframe(int sf, const float* sw, const float aq[kOrder + 1], const float a1[kOrder + 1],
                      const float a2[kOrder + 1], FrameParams& p);

  float prevLsf_[kOrder];   // unquantised, for the weighting filter
  float prevLsfQ_[kOrder];  // quantised, as the decoder holds them
  float excitation_[kHistory + kSubframeLength];
  float synthMemory_[kOrder];     // past decoded samples
  float speechMemory_[kOrder];    // past input samples (weighting numerator)
  float weightedMemory_[kOrder];  // past weighted input (weighting denominator)
  float errorMemory_[kOrder];     // past weighted decoded samples (denominator)
  float weighted_[kWeightedHistory + kFrameSamples];  // weighted input, with history
  int alternation_;
  FrameParams params_;
};

}  // namespace quillon::icelp48

#endif
