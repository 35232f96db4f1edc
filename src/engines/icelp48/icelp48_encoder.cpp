#include "engines/icelp48/icelp48_encoder.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "engines/icelp48/icelp48_dsp.h"

namespace quillon::icelp48 {

namespace {

constexpr float kGamma1 = 0.9f;  // weighting numerator
constexpr float kGamma2 = 0.6f;  // weighting denominator
constexpr float kPrevLsfWeight[kSubframes] = {0.5f, 0.25f, 0.0f, 0.0f};  // as the decoder
constexpr float kExcitationLimit = 65536.0f;
constexpr float kSynthesisLimit = 1.0e6f;
constexpr float kPi = 3.14159265358979f;

float clampf(float x, float lim) {
  if (!(x == x)) return 0.0f;
  return x > lim ? lim : (x < -lim ? -lim : x);
}

// y = conv(v, h), both 60 long, truncated to 60.
void convolve(const float* v, const float* h, float* y) {
  for (int n = 0; n < kSubframeLength; n++) {
    float acc = 0;
    for (int k = 0; k <= n; k++) acc += v[k] * h[n - k];
    y[n] = acc;
  }
}

float dot(const float* a, const float* b, int n) {
  float s = 0;
  for (int i = 0; i < n; i++) s += a[i] * b[i];
  return s;
}

}  // namespace

void Icelp48Encoder::reset() {
  initialLsf(prevLsf_);
  initialLsf(prevLsfQ_);
  std::memset(excitation_, 0, sizeof excitation_);
  std::memset(synthMemory_, 0, sizeof synthMemory_);
  std::memset(speechMemory_, 0, sizeof speechMemory_);
  std::memset(weightedMemory_, 0, sizeof weightedMemory_);
  std::memset(errorMemory_, 0, sizeof errorMemory_);
  std::memset(weighted_, 0, sizeof weighted_);
  alternation_ = 0;
  params_ = FrameParams{};
}

void Icelp48Encoder::analyse(const float* s, float lsf[kOrder]) {
  float w[kFrameSamples];
  for (int n = 0; n < kFrameSamples; n++)
    w[n] = s[n] * (0.54f - 0.46f * std::cos(2.0f * kPi * static_cast<float>(n) / (kFrameSamples - 1)));
  float r[kOrder + 1];
  for (int k = 0; k <= kOrder; k++) {
    double acc = 0;
    for (int n = k; n < kFrameSamples; n++) acc += static_cast<double>(w[n]) * w[n - k];
    r[k] = static_cast<float>(acc);
  }
  // White-noise correction and a 60 Hz Gaussian lag window.
  r[0] = r[0] * 1.0001f + 1.0f;
  for (int k = 1; k <= kOrder; k++) {
    const float x = 2.0f * kPi * 60.0f * static_cast<float>(k) / 8000.0f;
    r[k] *= std::exp(-0.5f * x * x);
  }
  float a[kOrder + 1], ae[kOrder + 1];
  if (!levinson(r, a)) {
    std::memcpy(lsf, prevLsf_, sizeof(float) * kOrder);
    return;
  }
  bandwidthExpand(a, 0.994f, ae);
  if (!lpcToLsf(ae, lsf)) std::memcpy(lsf, prevLsf_, sizeof(float) * kOrder);
}

int Icelp48Encoder::openLoopLag(const float* sw) const {
  // Normalised correlation over a half-frame of weighted speech; sw has
  // kMaxLag + 8 samples of history before it.
  constexpr int kLen = 2 * kSubframeLength;
  int best = kMinLag;
  float bestScore = -1e30f;
  for (int t = kMinLag; t <= kMaxLag; t++) {
    float c = 0, e = 0;
    for (int n = 0; n < kLen; n++) {
      c += sw[n] * sw[n - t];
      e += sw[n - t] * sw[n - t];
    }
    const float score = c > 0 ? c * c / (e + 1.0f) : -c * c / (e + 1.0f);
    // A slight preference for shorter lags keeps away from multiples.
    const float weighted = score * (1.0f - 0.0008f * static_cast<float>(t - kMinLag));
    if (weighted > bestScore) {
      bestScore = weighted;
      best = t;
    }
  }
  return best;
}

void Icelp48Encoder::searchSubframe(int sf, const float* sw, const float aq[kOrder + 1], const float a1[kOrder + 1],
                                    const float a2[kOrder + 1], FrameParams& p) {
  constexpr int L = kSubframeLength;

  // Impulse response of A(z/g1) / (Aq(z) A(z/g2)).
  float h[L];
  {
    float u[L], v[L];
    for (int n = 0; n < L; n++) {
      float acc = n <= kOrder ? a1[n] : 0.0f;
      for (int k = 1; k <= kOrder && k <= n; k++) acc -= aq[k] * u[n - k];
      u[n] = acc;
    }
    for (int n = 0; n < L; n++) {
      float acc = u[n];
      for (int k = 1; k <= kOrder && k <= n; k++) acc -= a2[k] * v[n - k];
      v[n] = acc;
    }
    std::memcpy(h, v, sizeof h);
  }

  // Target: weighted input minus the zero-input response of the weighted synthesis.
  float x[L];
  {
    float s0[L], w0[L];
    for (int n = 0; n < L; n++) {
      float acc = 0;
      for (int k = 1; k <= kOrder; k++) acc -= aq[k] * (n - k >= 0 ? s0[n - k] : synthMemory_[kOrder + n - k]);
      s0[n] = acc;
    }
    for (int n = 0; n < L; n++) {
      float acc = s0[n];
      for (int k = 1; k <= kOrder; k++) acc += a1[k] * (n - k >= 0 ? s0[n - k] : synthMemory_[kOrder + n - k]);
      for (int k = 1; k <= kOrder; k++) acc -= a2[k] * (n - k >= 0 ? w0[n - k] : errorMemory_[kOrder + n - k]);
      w0[n] = acc;
    }
    for (int n = 0; n < L; n++) x[n] = sw[n] - w0[n];
  }

  // Adaptive codebook: the lag is chosen on the first subframe of each half.
  const int half = sf / 2;
  if ((sf & 1) == 0) {
    const int center = openLoopLag(sw);
    float bestScore = -1.0f;
    int bestLag = center, bestFraction = 0;
    float trial[kHistory + L];
    float y[L];
    for (int t = center - 6; t <= center + 6; t++) {
      if (t < kMinLag || t > kMaxLag) continue;
      for (int f = 0; f < 4; f++) {
        if (t == kMaxLag && f > 0) continue;
        std::memcpy(trial, excitation_, sizeof(float) * kHistory);
        adaptiveVector(trial + kHistory, t, f);
        convolve(trial + kHistory, h, y);
        const float xy = dot(x, y, L), yy = dot(y, y, L);
        const float score = xy > 0 && yy > 0 ? xy * xy / yy : 0.0f;
        if (score > bestScore) {
          bestScore = score;
          bestLag = t;
          bestFraction = f;
        }
      }
    }
    p.lag[half] = static_cast<int16_t>(bestLag);
    p.lagFraction[half] = static_cast<int16_t>(bestFraction);
  }
  const int lag = p.lag[half];
  const int fraction = p.lagFraction[half];

  float* exc = excitation_ + kHistory;
  adaptiveVector(exc, lag, fraction);
  float y[L];
  convolve(exc, h, y);
  const float xy = dot(x, y, L), yy = dot(y, y, L);
  int gi = 0;
  float bestErr = 0.0f;
  for (int i = 1; i < 16; i++) {
    const float g = kPitchGain[i];
    const float err = g * g * yy - 2.0f * g * xy;
    if (err < bestErr) {
      bestErr = err;
      gi = i;
    }
  }
  p.pitchGain[sf] = static_cast<int16_t>(gi);
  const float gp = kPitchGain[gi];
  float x2[L];
  for (int n = 0; n < L; n++) x2[n] = x[n] - gp * y[n];

  // Pitch sharpening of the fixed vector follows the pitch gain.
  int si = 0;
  if (lag < L) {
    const float want = gp < kSharpening[7] ? gp : kSharpening[7];
    float bestDist = 1e9f;
    for (int i = 0; i < 8; i++) {
      const float d = std::fabs(kSharpening[i] - want);
      if (d < bestDist) {
        bestDist = d;
        si = i;
      }
    }
  }
  p.sharpening[sf] = static_cast<int16_t>(si);
  const float beta = kSharpening[si];
  float hs[L];
  std::memcpy(hs, h, sizeof hs);
  sharpen(hs, lag, beta);

  // Stochastic codebook: backward-filtered target and correlation matrix.
  float d[L];
  for (int i = 0; i < L; i++) {
    float acc = 0;
    for (int n = i; n < L; n++) acc += x2[n] * hs[n - i];
    d[i] = acc;
  }
  float phi[L][L];
  for (int k = 0; k < L; k++) {
    float acc = 0;
    for (int m = 0; m + k < L; m++) {
      acc += hs[m] * hs[m + k];
      const int i = L - 1 - m;
      phi[i][i - k] = acc;
      phi[i - k][i] = acc;
    }
  }
  const int8_t* base = codebookBase();
  int bestIndex = 0;
  float bestNum = -1.0f, bestDen = 1.0f;
  int pos[L];
  int8_t sgn[L];
  for (int idx = 0; idx < kFixedVectors; idx++) {
    const int8_t* c = base + kCodebookShift * idx;
    int m = 0;
    for (int n = 0; n < L; n++)
      if (c[n] != 0) {
        pos[m] = n;
        sgn[m] = c[n];
        m++;
      }
    if (m == 0) continue;
    float corr = 0, energy = 0;
    for (int i = 0; i < m; i++) {
      corr += sgn[i] * d[pos[i]];
      const float* row = phi[pos[i]];
      float cross = 0;
      for (int j = i + 1; j < m; j++) cross += sgn[j] * row[pos[j]];
      energy += row[pos[i]] + 2.0f * sgn[i] * cross;
    }
    if (energy <= 0) continue;
    const float num = corr * corr;
    if (num * bestDen > bestNum * energy) {
      bestNum = num;
      bestDen = energy;
      bestIndex = idx;
    }
  }
  // Joint gain choice: each pitch gain with its best quantised fixed gain.
  const int8_t* best = base + kCodebookShift * bestIndex;
  float code[L], z[L];
  for (int n = 0; n < L; n++) code[n] = best[n];
  sharpen(code, lag, beta);
  convolve(code, h, z);
  const float xz = dot(x, z, L), yz = dot(y, z, L), zz = dot(z, z, L);
  float bestErr2 = 1e30f;
  for (int i = 0; i < 16; i++) {
    const float g = kPitchGain[i];
    const float gcOpt = zz > 0 ? (xz - g * yz) / zz : 0.0f;
    const int code8 = quantiseFixedGain(std::fabs(gcOpt));
    const float gcq = fixedGainValue(code8) * (gcOpt < 0 ? -1.0f : 1.0f);
    const float err = g * g * yy + gcq * gcq * zz - 2.0f * g * xy - 2.0f * gcq * xz + 2.0f * g * gcq * yz;
    if (err < bestErr2) {
      bestErr2 = err;
      p.pitchGain[sf] = static_cast<int16_t>(i);
      p.fixedGain[sf] = static_cast<int16_t>(code8);
      p.fixedSign[sf] = static_cast<int16_t>(gcOpt < 0 ? 1 : 0);
    }
  }
  p.fixedIndex[sf] = static_cast<int16_t>(bestIndex);
  const float gpq = kPitchGain[p.pitchGain[sf]];

  // Local decoder: the excitation exactly as the decoder builds it.
  const float fixedGain = fixedGainValue(p.fixedGain[sf]) * (p.fixedSign[sf] ? -1.0f : 1.0f);
  for (int n = 0; n < L; n++) exc[n] = clampf(gpq * exc[n] + fixedGain * code[n], kExcitationLimit);

  float s[L], w[L];
  for (int n = 0; n < L; n++) {
    float acc = exc[n];
    for (int k = 1; k <= kOrder; k++) acc -= aq[k] * (n - k >= 0 ? s[n - k] : synthMemory_[kOrder + n - k]);
    s[n] = clampf(acc, kSynthesisLimit);
  }
  for (int n = 0; n < L; n++) {
    float acc = s[n];
    for (int k = 1; k <= kOrder; k++) acc += a1[k] * (n - k >= 0 ? s[n - k] : synthMemory_[kOrder + n - k]);
    for (int k = 1; k <= kOrder; k++) acc -= a2[k] * (n - k >= 0 ? w[n - k] : errorMemory_[kOrder + n - k]);
    w[n] = acc;
  }
  for (int k = 0; k < kOrder; k++) {
    synthMemory_[k] = s[L - kOrder + k];
    errorMemory_[k] = w[L - kOrder + k];
  }
  std::memmove(excitation_, excitation_ + L, sizeof(float) * kHistory);
}

void Icelp48Encoder::encode(const int16_t pcm[kFrameSamples], uint8_t frame[kFrameBytes]) {
  float s[kFrameSamples];
  for (int n = 0; n < kFrameSamples; n++) s[n] = pcm[n];

  float lsf[kOrder];
  analyse(s, lsf);
  FrameParams p;
  alternation_ ^= 1;
  p.alternation = static_cast<int16_t>(alternation_);
  p.lsfIndex = encodeLsf(lsf);
  float lsfQ[kOrder];
  decodeLsf(p.lsfIndex, lsfQ);

  // Weighted input for the whole frame (interpolated unquantised filters).
  float a1s[kSubframes][kOrder + 1], a2s[kSubframes][kOrder + 1], aqs[kSubframes][kOrder + 1];
  float* sw = weighted_ + kWeightedHistory;
  for (int sf = 0; sf < kSubframes; sf++) {
    float li[kOrder], lq[kOrder], a[kOrder + 1];
    for (int k = 0; k < kOrder; k++) {
      li[k] = kPrevLsfWeight[sf] * prevLsf_[k] + (1.0f - kPrevLsfWeight[sf]) * lsf[k];
      lq[k] = kPrevLsfWeight[sf] * prevLsfQ_[k] + (1.0f - kPrevLsfWeight[sf]) * lsfQ[k];
    }
    lsfToLpc(li, a);
    lsfToLpc(lq, aqs[sf]);
    bandwidthExpand(a, kGamma1, a1s[sf]);
    bandwidthExpand(a, kGamma2, a2s[sf]);
    const float* in = s + sf * kSubframeLength;
    float* out = sw + sf * kSubframeLength;
    for (int n = 0; n < kSubframeLength; n++) {
      float acc = in[n];
      for (int k = 1; k <= kOrder; k++) acc += a1s[sf][k] * (n - k >= 0 ? in[n - k] : speechMemory_[kOrder + n - k]);
      for (int k = 1; k <= kOrder; k++) acc -= a2s[sf][k] * (n - k >= 0 ? out[n - k] : weightedMemory_[kOrder + n - k]);
      out[n] = acc;
    }
    for (int k = 0; k < kOrder; k++) {
      speechMemory_[k] = in[kSubframeLength - kOrder + k];
      weightedMemory_[k] = out[kSubframeLength - kOrder + k];
    }
  }

  for (int sf = 0; sf < kSubframes; sf++)
    searchSubframe(sf, sw + sf * kSubframeLength, aqs[sf], a1s[sf], a2s[sf], p);

  std::memmove(weighted_, weighted_ + kFrameSamples, sizeof(float) * kWeightedHistory);
  std::memcpy(prevLsf_, lsf, sizeof lsf);
  std::memcpy(prevLsfQ_, lsfQ, sizeof lsfQ);
  params_ = p;

  uint16_t words[kFrameWords];
  packFrame(p, words);
  bytesFromWords(words, frame);
}

}  // namespace quillon::icelp48
