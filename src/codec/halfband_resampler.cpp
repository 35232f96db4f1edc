#include "quillon/halfband_resampler.h"

#include <cmath>
#include <cstring>
#include <new>

namespace TAV {

namespace {

constexpr int kHalf = HalfbandResampler16to8::kTaps / 2;  // 31
constexpr int kQ = 15;

// Taps 1, 3, ..., 31 on one side of the centre (a half-band filter's even
// taps are zero and its centre is one half), Q15, from a Kaiser-windowed
// sinc normalised to unit gain at 0 Hz.
struct HalfbandTaps {
  int32_t odd[(kHalf + 1) / 2];
  HalfbandTaps() {
    const double beta = 7.0;
    auto bessel0 = [](double x) {
      double sum = 1, term = 1;
      for (int k = 1; k < 30; k++) {
        term *= (x / (2 * k)) * (x / (2 * k));
        sum += term;
      }
      return sum;
    };
    double raw[(kHalf + 1) / 2];
    double total = 0.5;
    for (int i = 0; i < (kHalf + 1) / 2; i++) {
      const int n = 2 * i + 1;
      const double sinc = std::sin(M_PI * n / 2) / (M_PI * n);
      const double r = static_cast<double>(n) / kHalf;
      raw[i] = sinc * bessel0(beta * std::sqrt(1 - r * r)) / bessel0(beta);
      total += 2 * raw[i];
    }
    for (int i = 0; i < (kHalf + 1) / 2; i++) odd[i] = static_cast<int32_t>(std::lround(raw[i] / total * (1 << kQ)));
  }
};

const HalfbandTaps& taps() {
  static const HalfbandTaps t;
  return t;
}

}  // namespace

HalfbandResampler16to8::HalfbandResampler16to8() { reset(); }

void HalfbandResampler16to8::reset() {
  std::memset(m_history, 0, sizeof m_history);
  m_pos = 0;
  m_odd = false;
}

uint32 HalfbandResampler16to8::getOutputCount(uint32 count) { return count / 2 + 1; }

uint32 HalfbandResampler16to8::resample(const int16* in, uint32 inBytes, int16* out, uint32& outBytes) {
  const HalfbandTaps& h = taps();
  const uint32 n = inBytes / 2;
  const uint32 room = outBytes / 2;
  uint32 written = 0;
  for (uint32 i = 0; i < n; i++) {
    m_pos = (m_pos + 1) & 63;
    m_history[m_pos] = in[i];
    m_odd = !m_odd;
    if (m_odd) continue;
    if (written == room) break;  // no room: the rest of the input is dropped
    // Output at the centre tap, kHalf samples back.
    const uint32 centre = (m_pos - kHalf) & 63;
    int64_t acc = static_cast<int64_t>(m_history[centre]) << (kQ - 1);
    for (int k = 0; k < (kHalf + 1) / 2; k++) {
      const int d = 2 * k + 1;
      acc += static_cast<int64_t>(h.odd[k]) * (m_history[(centre + d) & 63] + m_history[(centre - d) & 63]);
    }
    int64_t y = (acc + (1 << (kQ - 1))) >> kQ;
    if (y > 32767) y = 32767;
    if (y < -32768) y = -32768;
    out[written++] = static_cast<int16>(y);
  }
  outBytes = written * 2;
  return 0;
}

IResampler* HalfbandResamplerFactory::createResampler(uint32 inRate, uint32 outRate) {
  if (inRate != 16000 || outRate != 8000) return nullptr;
  return new (std::nothrow) HalfbandResampler16to8();
}

void HalfbandResamplerFactory::releaseResampler(IResampler* resampler) { delete resampler; }

}  // namespace TAV
