#include "engines/icelp48/icelp48_decoder.h"

#include <cmath>
#include <cstring>
#include <new>

#include "engines/icelp48/icelp48_dsp.h"

namespace quillon::icelp48 {

namespace {

// Weight of the previous frame's lines in each subframe's interpolation.
constexpr float kPrevLsfWeight[kSubframes] = {0.5f, 0.25f, 0.0f, 0.0f};
constexpr float kPostNumerator = 0.6f;
constexpr float kPostDenominator = 0.7f;
constexpr float kExcitationLimit = 65536.0f;
constexpr float kSynthesisLimit = 1.0e6f;

int16_t toPcm(float x) {
  if (!(x == x)) return 0;
  if (x >= 32767.0f) return 32767;
  if (x <= -32768.0f) return -32768;
  return static_cast<int16_t>(std::lround(x));
}

float clampf(float x, float lim) {
  if (!(x == x)) return 0.0f;
  return x > lim ? lim : (x < -lim ? -lim : x);
}

}  // namespace

Icelp48Config defaultConfig() { return Icelp48Config{{0, 0, 0, 0, 16, 10, 9}}; }

Icelp48Decoder::Icelp48Decoder(const Icelp48Config& config) { reset(config); }

void Icelp48Decoder::reset(const Icelp48Config& config) {
  Overflow = false;
  forceNoise_ = config.words[kCfgForceNoise];
  syncEnable_ = config.words[kCfgSyncEnable];
  syncFrames_ = config.words[kCfgSyncFrames];
  threshold_ = config.words[kCfgThreshold];
  noiseSource_ = config.words[kCfgNoiseSource];
  alternationMode_ = config.words[kCfgAlternationMode];
  syncState_ = 0;

  std::memset(synthMemory_, 0, sizeof synthMemory_);
  std::memset(postInMemory_, 0, sizeof postInMemory_);
  std::memset(postOutMemory_, 0, sizeof postOutMemory_);
  tiltMemory_ = 0.0f;
  std::memset(excitation_, 0, sizeof excitation_);
  tiltTaps_ = 16;
  initialLsf(initialLsf_);
  std::memcpy(prevLsf_, initialLsf_, sizeof prevLsf_);
  agcUnity_ = 4096;
  bitsPerFrame_ = kFrameBits;
  const int16_t constants[5] = {10, 29070, 15, 11548, 7};
  std::memcpy(synthConstants_, constants, sizeof synthConstants_);
  agcGain_ = static_cast<float>(agcUnity_) / 4096.0f;

  lastLag_ = kMinLag + 22;
  lastPitchGain_ = 0.0f;
  lastFixedGain_ = 0.0f;
  badRun_ = 0;
  concealSeed_ = 0x5eed;

  expectedBit_ = 0;
  span_ = 0;
  noiseCount_ = 0;
  run1_ = run2_ = 0;
  comfortNoise_ = 1;
  std::memset(history_, 0, sizeof history_);
  historyFill_ = 0;
  bitOffset_ = kFrameBits;
  outputShift_ = 0;
  seed_ = 0;
  params_ = FrameParams{};
}

void Icelp48Decoder::synchronise(const uint16_t* frame, uint16_t* rebuilt) {
  int frames = syncFrames_;
  if (frames < 2) frames = 2;
  if (frames > kMaxSyncFrames) frames = kMaxSyncFrames;
  std::memmove(history_, history_ + kFrameWords, sizeof(uint16_t) * kFrameWords * static_cast<size_t>(frames - 1));
  std::memcpy(history_ + kFrameWords * (frames - 1), frame, sizeof(uint16_t) * kFrameWords);

  if (historyFill_ < frames) historyFill_++;

  // The search waits for a full history.
  if (comfortNoise_ != 0 && historyFill_ >= frames) {
    // Score each start position by the frames whose bit there breaks the
    // alternation (against either phase); the lowest score wins, the
    // earliest position on a tie.
    int best = 0;
    int bestScore = frames + 1;
    for (int p = 0; p < kFrameBits; p++) {
      int score = 0;
      for (int k = 0; k < frames; k++)
        if (frameBit(history_, k * kFrameBits + p) != (k & 1)) score++;
      if (2 * score > frames) score = frames - score;
      if (score < bestScore) {
        bestScore = score;
        best = p;
      }
    }
    if (2 * bestScore < threshold_) {
      comfortNoise_ = 0;
      bitOffset_ = static_cast<int16_t>(best == 0 ? kFrameBits : best);
      const int start = (frames - 2) * kFrameBits + bitOffset_;
      // The toggle before the comparison turns this into the frame's own bit.
      expectedBit_ = static_cast<int16_t>(frameBit(history_, start) ^ 1);
      syncState_ = 1;
    }
  }

  // The frame ending bitOffset_ bits into the newest history frame.
  const int start = (frames - 2) * kFrameBits + bitOffset_;
  std::memset(rebuilt, 0, sizeof(uint16_t) * kFrameWords);
  for (int i = 0; i < kFrameBits; i++)
    if (frameBit(history_, start + i)) rebuilt[i >> 4] = static_cast<uint16_t>(rebuilt[i >> 4] | (1u << (i & 15)));
}

void Icelp48Decoder::comfortNoise(int16_t* pcm) {
  for (int i = 0; i < kFrameSamples; i++) {
    int32_t sum = 0;
    for (int j = 0; j < 16; j++) {
      seed_ = seed_ * 1664525u + 32767u;
      sum += static_cast<int16_t>(seed_ >> 16);
    }
    pcm[i] = mult(static_cast<int16_t>(sum >> 4), 50);
  }
}

void Icelp48Decoder::decodeFrame(const uint16_t* frame, int16_t* pcm) {
  uint16_t rebuilt[kFrameWords];
  const uint16_t* bits = frame;
  if (syncEnable_ != 0) {
    synchronise(frame, rebuilt);
    bits = rebuilt;
  } else {
    comfortNoise_ = noiseSource_;
  }

  if (span_ != 0) {
    span_ = static_cast<int16_t>(span_ + 1);
    if (span_ >= threshold_ && alternationMode_ == 0) {
      span_ = 0;
      run1_ = 0;
      if (4 * static_cast<int32_t>(noiseCount_) >= threshold_) {
        comfortNoise_ = 1;
        syncState_ = 0;
      }
      noiseCount_ = 0;
      run2_ = 0;
    }
  }

  expectedBit_ = static_cast<int16_t>(expectedBit_ ^ 1);

  if (forceNoise_ != 0 || comfortNoise_ != 0) {
    comfortNoise(pcm);
    outputShift_ = -5;
    return;
  }

  int bit = frameBit(bits, 0);
  if (bit == expectedBit_ && noiseSource_ == 0 && syncEnable_ == 0 && alternationMode_ != 0) bit ^= 1;
  const bool match = bit == expectedBit_;
  if (!match && syncEnable_ != 0 && (span_ <= threshold_ || alternationMode_ != 0)) {
    run1_ = static_cast<int16_t>(run1_ + 1);
    run2_ = static_cast<int16_t>(run2_ + 1);
    if (alternationMode_ == 0) noiseCount_ = static_cast<int16_t>(noiseCount_ + 1);
    if (span_ == 0) span_ = 1;
  }
  if (match || syncEnable_ == 0) run1_ = run2_ = 0;

  unpackFrame(bits, params_);
  synthesise(params_, pcm);

  if (outputShift_ != 0) {
    for (int i = 0; i < kFrameSamples; i++)
      pcm[i] = outputShift_ < 0 ? shr(pcm[i], static_cast<int16_t>(-outputShift_)) : shl(pcm[i], outputShift_);
    outputShift_ = static_cast<int16_t>(outputShift_ + 1);
  }
}

void Icelp48Decoder::synthesise(const FrameParams& p, int16_t* pcm) {
  const int order = synthConstants_[0];
  const float scale = 1.0f / static_cast<float>(1 << synthConstants_[2]);
  const float attenuation = static_cast<float>(synthConstants_[1]) * scale;
  const bool bad = p.badFrame != 0;

  float lsf[kOrder];
  if (bad) {
    if (badRun_ < 1000) badRun_++;
    std::memcpy(lsf, prevLsf_, sizeof lsf);
  } else {
    badRun_ = 0;
    decodeLsf(p.lsfIndex, lsf);
  }
  const float fade = bad ? std::pow(attenuation, static_cast<float>(badRun_)) : 1.0f;
  const bool mute = bad && badRun_ > synthConstants_[4];

  for (int sf = 0; sf < kSubframes; sf++) {
    float lsfSub[kOrder], aq[kOrder + 1];
    for (int k = 0; k < kOrder; k++) lsfSub[k] = kPrevLsfWeight[sf] * prevLsf_[k] + (1.0f - kPrevLsfWeight[sf]) * lsf[k];
    lsfToLpc(lsfSub, aq);

    int lag, fraction, index;
    float pitchGain, fixedGain, beta;
    if (!bad) {
      lag = p.lag[sf / 2];
      fraction = p.lagFraction[sf / 2];
      pitchGain = kPitchGain[p.pitchGain[sf]];
      beta = kSharpening[p.sharpening[sf]];
      fixedGain = fixedGainValue(p.fixedGain[sf]) * (p.fixedSign[sf] ? -1.0f : 1.0f);
      index = p.fixedIndex[sf];
      lastLag_ = lag;
      lastPitchGain_ = pitchGain;
      lastFixedGain_ = std::fabs(fixedGain);
    } else {
      // Substitution: last lag, decaying gains, a random codebook vector.
      concealSeed_ = concealSeed_ * 1103515245u + 12345u;
      lag = lastLag_;
      fraction = 0;
      beta = 0.0f;
      pitchGain = mute ? 0.0f : (lastPitchGain_ < 0.9f ? lastPitchGain_ : 0.9f) * fade;
      fixedGain = mute ? 0.0f : lastFixedGain_ * fade * ((concealSeed_ >> 31) ? -1.0f : 1.0f);
      index = static_cast<int>((concealSeed_ >> 16) % kFixedVectors);
    }

    float* exc = excitation_ + kHistory;
    adaptiveVector(exc, lag, fraction);
    float code[kSubframeLength];
    const int8_t* cb = codebookBase() + kCodebookShift * index;
    for (int n = 0; n < kSubframeLength; n++) code[n] = cb[n];
    sharpen(code, lag, beta);
    for (int n = 0; n < kSubframeLength; n++) exc[n] = clampf(pitchGain * exc[n] + fixedGain * code[n], kExcitationLimit);

    float s[kSubframeLength];
    for (int n = 0; n < kSubframeLength; n++) {
      float acc = exc[n];
      for (int k = 1; k <= order; k++) acc -= aq[k] * (n - k >= 0 ? s[n - k] : synthMemory_[kOrder + n - k]);
      s[n] = clampf(acc, kSynthesisLimit);
    }
    for (int k = 0; k < kOrder; k++) synthMemory_[k] = s[kSubframeLength - kOrder + k];

    float out[kSubframeLength];
    postfilter(aq, s, out);
    for (int n = 0; n < kSubframeLength; n++) pcm[sf * kSubframeLength + n] = toPcm(out[n]);

    std::memmove(excitation_, excitation_ + kSubframeLength, sizeof(float) * kHistory);
  }
  std::memcpy(prevLsf_, lsf, sizeof lsf);
}

void Icelp48Decoder::postfilter(const float aq[kOrder + 1], const float* s, float* out) {
  float an[kOrder + 1], ad[kOrder + 1];
  bandwidthExpand(aq, kPostNumerator, an);
  bandwidthExpand(aq, kPostDenominator, ad);

  // Tilt of the formant filter from its truncated impulse response.
  float h[32] = {};
  const int taps = tiltTaps_ < 32 ? tiltTaps_ : 32;
  for (int n = 0; n < taps; n++) {
    float acc = n <= kOrder ? an[n] : 0.0f;
    for (int k = 1; k <= kOrder && k <= n; k++) acc -= ad[k] * h[n - k];
    h[n] = acc;
  }
  float r0 = 0, r1 = 0;
  for (int n = 0; n < taps; n++) {
    r0 += h[n] * h[n];
    if (n + 1 < taps) r1 += h[n] * h[n + 1];
  }
  const float strength = static_cast<float>(synthConstants_[3]) / static_cast<float>(1 << synthConstants_[2]);
  const float k1 = r0 > 0 ? r1 / r0 : 0.0f;
  const float mu = k1 > 0 ? strength * k1 : 0.0f;

  float energyIn = 0, energyOut = 0;
  for (int n = 0; n < kSubframeLength; n++) {
    float r = s[n];
    for (int k = 1; k <= kOrder; k++) r += an[k] * (n - k >= 0 ? s[n - k] : postInMemory_[kOrder + n - k]);
    float y = r;
    for (int k = 1; k <= kOrder; k++) y -= ad[k] * (n - k >= 0 ? out[n - k] : postOutMemory_[kOrder + n - k]);
    y = clampf(y, kSynthesisLimit);
    out[n] = y;
    energyIn += s[n] * s[n];
  }
  for (int k = 0; k < kOrder; k++) {
    postInMemory_[k] = s[kSubframeLength - kOrder + k];
    postOutMemory_[k] = out[kSubframeLength - kOrder + k];
  }
  for (int n = 0; n < kSubframeLength; n++) {
    const float y = out[n];
    out[n] = y - mu * tiltMemory_;
    tiltMemory_ = y;
    energyOut += out[n] * out[n];
  }
  const float target = energyOut > 1e-3f ? std::sqrt(energyIn / energyOut) : 1.0f;
  for (int n = 0; n < kSubframeLength; n++) {
    agcGain_ = 0.9f * agcGain_ + 0.1f * target;
    out[n] *= agcGain_;
  }
}

Icelp48Decoder* createIcelp48Decoder(const Icelp48Config* config) {
  return new (std::nothrow) Icelp48Decoder(config ? *config : defaultConfig());
}

int initIcelp48Decoder(Icelp48Decoder* state, const Icelp48Config* config) {
  if (state == nullptr) return 1;
  state->reset(config ? *config : defaultConfig());
  return 0;
}

int decodeIcelp48Frame(Icelp48Decoder* state, const uint16_t* frame, int16_t* pcm) {
  if (state == nullptr || frame == nullptr || pcm == nullptr) return 1;
  state->decodeFrame(frame, pcm);
  return 0;
}

void destroyIcelp48Decoder(Icelp48Decoder* state) { delete state; }

}  // namespace quillon::icelp48
