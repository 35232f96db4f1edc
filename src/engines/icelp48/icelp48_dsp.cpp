#include "engines/icelp48/icelp48_dsp.h"

#include <array>
#include <cmath>

namespace quillon::icelp48 {

namespace {

constexpr float kPi = 3.14159265358979f;

// Per-line candidate frequencies in Hz, ascending.
constexpr float kLsf1[] = {140, 220, 300, 385, 500};
constexpr float kLsf2[] = {315, 365, 430, 515, 590, 675, 770, 1065};
constexpr float kLsf3[] = {465, 540, 620, 700, 770, 880, 1045, 1345};
constexpr float kLsf4[] = {715, 945, 1110, 1260, 1400, 1580, 1860};
constexpr float kLsf5[] = {1110, 1310, 1485, 1640, 1780, 1940, 2175};
constexpr float kLsf6[] = {1555, 1790, 1945, 2095, 2240, 2465};
constexpr float kLsf7[] = {1980, 2240, 2400, 2555, 2715};
constexpr float kLsf8[] = {2540, 2710, 2865, 3025};
constexpr float kLsf9[] = {2915, 3130, 3285, 3395};
constexpr float kLsf10[] = {3160, 3370, 3500, 3610};
constexpr const float* kLsfTables[kOrder] = {kLsf1, kLsf2, kLsf3, kLsf4, kLsf5, kLsf6, kLsf7, kLsf8, kLsf9, kLsf10};

constexpr uint32_t radixProduct() {
  uint32_t p = 1;
  for (int k = 0; k < kOrder; k++) p *= static_cast<uint32_t>(kLsfLevels[k]);
  return p;
}
static_assert(radixProduct() == kLsfIndexCount);
static_assert(kLsfIndexCount <= (1u << 25));

// Orders the lines and keeps them kLsfMinGap apart inside (40, 3960) Hz.
void stabilise(float* f) {
  for (int i = 1; i < kOrder; i++)
    for (int j = i; j > 0 && f[j] < f[j - 1]; j--) {
      const float t = f[j];
      f[j] = f[j - 1];
      f[j - 1] = t;
    }
  float lo = 40.0f;
  for (int i = 0; i < kOrder; i++) {
    if (f[i] < lo) f[i] = lo;
    lo = f[i] + kLsfMinGap;
  }
  float hi = 3960.0f;
  for (int i = kOrder - 1; i >= 0; i--) {
    if (f[i] > hi) f[i] = hi;
    hi = f[i] - kLsfMinGap;
  }
}

// Ternary codebook from a fixed linear congruential sequence: about one
// sample in four is non-zero.
constexpr std::array<int8_t, kCodebookLength> makeCodebook() {
  std::array<int8_t, kCodebookLength> cb{};
  uint32_t s = 0x1CE1948u;
  for (int i = 0; i < kCodebookLength; i++) {
    s = s * 1103515245u + 12345u;
    const uint32_t r = (s >> 16) & 0x7fff;
    if (r < 0x2000) cb[static_cast<size_t>(i)] = (r & 1) ? 1 : -1;
  }
  return cb;
}
constexpr std::array<int8_t, kCodebookLength> kCodebook = makeCodebook();

struct InterpTaps {
  float tap[3][8];  // fractions 1/4, 2/4, 3/4; taps for k = -3..4
};

InterpTaps makeTaps() {
  InterpTaps t{};
  for (int f = 1; f <= 3; f++) {
    const float a = 1.0f - f / 4.0f;
    float sum = 0;
    for (int k = -3; k <= 4; k++) {
      const float x = static_cast<float>(k) - a;
      const float sinc = std::fabs(x) < 1e-6f ? 1.0f : std::sin(kPi * x) / (kPi * x);
      const float w = 0.5f + 0.5f * std::cos(kPi * x / 4.5f);
      t.tap[f - 1][k + 3] = sinc * w;
      sum += sinc * w;
    }
    for (int k = 0; k < 8; k++) t.tap[f - 1][k] /= sum;
  }
  return t;
}

// A symmetric degree-10 polynomial's real amplitude at angle w.
float amplitude(const float g[11], float w) {
  float v = g[5];
  for (int k = 0; k < 5; k++) v += 2.0f * g[k] * std::cos(static_cast<float>(5 - k) * w);
  return v;
}

}  // namespace

const float kPitchGain[16] = {0.0f, 0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f, 0.68f,
                              0.76f, 0.83f, 0.89f, 0.94f, 0.99f, 1.04f, 1.1f, 1.2f};
const float kSharpening[8] = {0.0f, 0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f, 0.75f};

float fixedGainValue(int code) {
  if (code <= 0) return 0.0f;
  return 2.0f * std::exp2(static_cast<float>(code - 1) / 12.0f);
}

int quantiseFixedGain(float g) {
  if (g < 1.4f) return 0;  // nearer to silence than to the first step
  int code = 1 + static_cast<int>(std::lround(12.0f * std::log2(g / 2.0f)));
  if (code < 1) code = 1;
  if (code > kMaxFixedGainCode) code = kMaxFixedGainCode;
  return code;
}

const int8_t* codebookBase() { return kCodebook.data(); }

void decodeLsf(uint32_t index, float lsfHz[kOrder]) {
  for (int k = 0; k < kOrder; k++) {
    const uint32_t n = static_cast<uint32_t>(kLsfLevels[k]);
    uint32_t d = k == kOrder - 1 ? index : index % n;
    if (d >= n) d = n - 1;
    lsfHz[k] = kLsfTables[k][d];
    index /= n;
  }
  stabilise(lsfHz);
}

uint32_t encodeLsf(const float lsfHz[kOrder]) {
  uint32_t index = 0;
  uint32_t scale = 1;
  for (int k = 0; k < kOrder; k++) {
    int best = 0;
    float bestErr = 1e30f;
    for (int d = 0; d < kLsfLevels[k]; d++) {
      const float e = std::fabs(kLsfTables[k][d] - lsfHz[k]);
      if (e < bestErr) {
        bestErr = e;
        best = d;
      }
    }
    index += static_cast<uint32_t>(best) * scale;
    scale *= static_cast<uint32_t>(kLsfLevels[k]);
  }
  return index;
}

void initialLsf(float lsfHz[kOrder]) {
  for (int k = 0; k < kOrder; k++) lsfHz[k] = 4000.0f * static_cast<float>(k + 1) / (kOrder + 1);
}

void lsfToLpc(const float lsfHz[kOrder], float a[kOrder + 1]) {
  // P(z) = (1 + z^-1) prod over odd lines, Q(z) = (1 - z^-1) prod over even lines.
  double p[12] = {1}, q[12] = {1};
  int np = 0, nq = 0;
  for (int k = 0; k < kOrder; k++) {
    const double c = -2.0 * std::cos(2.0 * 3.14159265358979 * lsfHz[k] / 8000.0);
    double* poly = (k & 1) ? q : p;
    int& n = (k & 1) ? nq : np;
    for (int i = n + 2; i >= 1; i--) poly[i] += c * poly[i - 1] + (i >= 2 ? poly[i - 2] : 0.0);
    n += 2;
  }
  a[0] = 1.0f;
  for (int i = 1; i <= kOrder; i++) {
    const double pi = p[i] + p[i - 1];
    const double qi = q[i] - q[i - 1];
    a[i] = static_cast<float>(0.5 * (pi + qi));
  }
}

bool lpcToLsf(const float a[kOrder + 1], float lsfHz[kOrder]) {
  float g1[11], g2[11];
  float prev1 = 0, prev2 = 0;
  for (int k = 0; k <= kOrder; k++) {
    const float ak = a[k];
    const float ar = a[kOrder + 1 - k <= kOrder ? kOrder + 1 - k : 0] * (k == 0 ? 0.0f : 1.0f);
    const float sum = ak + ar, diff = ak - ar;
    g1[k] = sum - prev1;
    g2[k] = diff + prev2;
    prev1 = g1[k];
    prev2 = g2[k];
  }
  constexpr int kGrid = 512;
  int found = 0;
  float roots[kOrder];
  for (int which = 0; which < 2; which++) {
    const float* g = which == 0 ? g1 : g2;
    float w0 = 0.0f, v0 = amplitude(g, w0);
    for (int i = 1; i <= kGrid && found < kOrder; i++) {
      const float w1 = kPi * static_cast<float>(i) / kGrid;
      const float v1 = amplitude(g, w1);
      if ((v0 <= 0) != (v1 <= 0)) {
        float lo = w0, hi = w1, vlo = v0;
        for (int it = 0; it < 20; it++) {
          const float mid = 0.5f * (lo + hi);
          const float vm = amplitude(g, mid);
          if ((vm <= 0) == (vlo <= 0)) {
            lo = mid;
            vlo = vm;
          } else {
            hi = mid;
          }
        }
        roots[found++] = 0.5f * (lo + hi);
      }
      w0 = w1;
      v0 = v1;
    }
  }
  if (found != kOrder) return false;
  for (int k = 0; k < kOrder; k++) lsfHz[k] = roots[k] * 4000.0f / kPi;
  stabilise(lsfHz);
  return true;
}

bool levinson(const float r[kOrder + 1], float a[kOrder + 1]) {
  if (!(r[0] > 0.0f)) return false;
  float tmp[kOrder + 1];
  a[0] = 1.0f;
  for (int i = 1; i <= kOrder; i++) a[i] = 0.0f;
  float err = r[0];
  for (int i = 1; i <= kOrder; i++) {
    float acc = r[i];
    for (int j = 1; j < i; j++) acc += a[j] * r[i - j];
    float k = -acc / err;
    if (k >= 1.0f || k <= -1.0f) k = k > 0 ? 0.999f : -0.999f;
    for (int j = 0; j <= i; j++) tmp[j] = a[j];
    for (int j = 1; j < i; j++) a[j] = tmp[j] + k * tmp[i - j];
    a[i] = k;
    err *= 1.0f - k * k;
    if (err <= 0.0f) return false;
  }
  return true;
}

void bandwidthExpand(const float a[kOrder + 1], float g, float out[kOrder + 1]) {
  float f = 1.0f;
  for (int k = 0; k <= kOrder; k++) {
    out[k] = a[k] * f;
    f *= g;
  }
}

void adaptiveVector(float* exc, int lag, int fraction) {
  static const InterpTaps taps = makeTaps();
  if (fraction == 0) {
    for (int n = 0; n < kSubframeLength; n++) exc[n] = exc[n - lag];
    return;
  }
  const float* t = taps.tap[fraction - 1];
  for (int n = 0; n < kSubframeLength; n++) {
    const float* base = exc + n - lag - 1;
    float v = 0;
    for (int k = -3; k <= 4; k++) v += base[k] * t[k + 3];
    exc[n] = v;
  }
}

void sharpen(float* v, int lag, float beta) {
  if (beta == 0.0f) return;
  for (int n = lag; n < kSubframeLength; n++) v[n] += beta * v[n - lag];
}

}  // namespace quillon::icelp48
