// ICELP48 decoder engine: 18-byte frames (nine 16-bit words) to 240
// samples, with the frame-level alternation-bit, bit-stream
// synchronisation and comfort-noise logic in front of a CELP synthesis.
#ifndef QUILLON_ICELP48_DECODER_H
#define QUILLON_ICELP48_DECODER_H

#include <cstdint>

#include "primitives/basic_ops.h"
#include "engines/icelp48/icelp48_frame.h"

namespace quillon::icelp48 {

// Seven configuration words; see defaultConfig().
struct Icelp48Config {
  int16_t words[7];
};

enum ConfigWord {
  kCfgForceNoise = 0,     // non-zero: every frame becomes comfort noise
  kCfgAlternationMode = 1,
  kCfgSyncEnable = 2,     // search the bit stream for the frame start
  kCfgNoiseSource = 3,    // comfort-noise flag when synchronisation is off
  kCfgSyncFrames = 4,     // frames searched by the synchronisation
  kCfgThreshold = 5,      // noise-decision span in frames
  kCfgUnused = 6,
};

// {0, 0, 0, 0, 16, 10, 9}
Icelp48Config defaultConfig();

// Most frames the synchronisation search keeps (configurations asking for
// more are clamped; fewer than two cannot hold a shifted frame).
constexpr int kMaxSyncFrames = 64;

class Icelp48Decoder : public fx::BasicOps {
 public:
  explicit Icelp48Decoder(const Icelp48Config& config);

  // Back to the creation state under a (possibly new) configuration.
  void reset(const Icelp48Config& config);
  // One frame of nine words (bit i = bit i%16 of word i/16) to 240 samples.
  void decodeFrame(const uint16_t* frame, int16_t* pcm);

  // Frame-level state, for inspection.
  int expectedAlternation() const { return expectedBit_; }
  int spanCounter() const { return span_; }
  int noiseDecisionCounter() const { return noiseCount_; }
  int runCounter(int i) const { return i == 0 ? run1_ : run2_; }
  int comfortNoiseFlag() const { return comfortNoise_; }
  int outputShift() const { return outputShift_; }
  uint32_t noiseSeed() const { return seed_; }
  int bitOffset() const { return bitOffset_; }
  int syncState() const { return syncState_; }
  // The parameters of the last frame synthesised.
  const FrameParams& lastParams() const { return params_; }

 private:
  static constexpr int kHistory = 160;  // adaptive-codebook history

  void synchronise(const uint16_t* frame, uint16_t* rebuilt);
  void comfortNoise(int16_t* pcm);
  void synthesise(const FrameParams& p, int16_t* pcm);
  void postfilter(const float aq[kOrder + 1], const float* s, float* out);

  // Configuration words 0, 2, 4, 5, 3, 1, then the synchronisation state
  // word (1 once synchronised, cleared when the noise decision fires).
  int16_t forceNoise_, syncEnable_, syncFrames_, threshold_, noiseSource_, alternationMode_, syncState_;

  // Synthesis history.
  float synthMemory_[kOrder];
  float postInMemory_[kOrder];
  float postOutMemory_[kOrder];
  float tiltMemory_;
  float prevLsf_[kOrder];
  float excitation_[kHistory + kSubframeLength];
  int16_t tiltTaps_;      // 16: impulse-response length for the tilt estimate
  float initialLsf_[kOrder];
  int16_t agcUnity_;      // 4096: Q12 unity of the output gain control
  int16_t bitsPerFrame_;  // 144
  // 10: LPC order; 29070 and 11548 (Q15, shift 15): concealment
  // attenuation per bad frame and tilt-compensation strength; 7: bad frames
  // after which the substituted excitation is muted.
  int16_t synthConstants_[5];
  float agcGain_;

  // Substitution memory.
  int lastLag_;
  float lastPitchGain_;
  float lastFixedGain_;
  int badRun_;
  uint32_t concealSeed_;

  // Frame level.
  int16_t expectedBit_;
  int16_t span_;
  int16_t noiseCount_;
  int16_t run1_, run2_;
  int16_t comfortNoise_;
  uint16_t history_[kMaxSyncFrames * kFrameWords];
  int16_t historyFill_;  // frames held, up to the search length
  int16_t bitOffset_;
  int16_t outputShift_;
  uint32_t seed_;

  FrameParams params_;
};

// The C-style engine operations.
Icelp48Decoder* createIcelp48Decoder(const Icelp48Config* config);
int initIcelp48Decoder(Icelp48Decoder* state, const Icelp48Config* config);
int decodeIcelp48Frame(Icelp48Decoder* state, const uint16_t* frame, int16_t* pcm);
void destroyIcelp48Decoder(Icelp48Decoder* state);

}  // namespace quillon::icelp48

#endif
