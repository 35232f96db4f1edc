// The half-band 16 -> 8 kHz resampler: its response and chunking invariance.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "quillon/halfband_resampler.h"

using namespace TAV;

namespace {

std::vector<int16_t> tone(double hz, size_t n, double amplitude = 16000) {
  std::vector<int16_t> s(n);
  for (size_t i = 0; i < n; i++) s[i] = static_cast<int16_t>(std::lround(amplitude * std::sin(2 * M_PI * hz * i / 16000)));
  return s;
}

std::vector<int16_t> run(IResampler& r, const std::vector<int16_t>& in) {
  std::vector<int16_t> out(in.size() / 2 + 1);
  uint32_t outBytes = static_cast<uint32_t>(out.size() * 2);
  r.resample(in.data(), static_cast<uint32_t>(in.size() * 2), out.data(), outBytes);
  out.resize(outBytes / 2);
  return out;
}

// Output level in dB relative to the input amplitude, after the filter settles.
double gainDb(IResampler& r, double hz) {
  const std::vector<int16_t> out = run(r, tone(hz, 8000));
  double energy = 0;
  for (size_t i = 200; i < out.size(); i++) energy += static_cast<double>(out[i]) * out[i];
  const double rms = std::sqrt(energy / (out.size() - 200));
  return 20 * std::log10(rms / (16000 / std::sqrt(2.0)));
}

}  // namespace

TEST(HalfbandResampler, RejectsAliasesAndKeepsTheVoiceBand) {
  HalfbandResamplerFactory halfband;
  IResampler* h = halfband.createResampler(16000, 8000);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(halfband.createResampler(8000, 16000), nullptr);
  IResampler* mean = IResamplerFactory::s_DefaultFactory.load()->createResampler(16000, 8000);
  // A 5 kHz tone would fold to 3 kHz at 8 kHz: the pair mean lets it through
  // at about -5 dB, the half-band filter removes it.
  static_cast<HalfbandResampler16to8*>(h)->reset();
  const double aliasHalfband = gainDb(*h, 5000);
  const double aliasMean = gainDb(*mean, 5000);
  EXPECT_LT(aliasHalfband, -60.0);
  EXPECT_GT(aliasMean, -6.0);
  for (double hz : {300.0, 1000.0, 2000.0, 3000.0, 3400.0}) {
    static_cast<HalfbandResampler16to8*>(h)->reset();
    EXPECT_NEAR(gainDb(*h, hz), 0.0, 0.1) << hz;  // passband ripple
  }
  halfband.releaseResampler(h);
}

TEST(HalfbandResampler, ChunkedInputGivesTheSameOutput) {
  std::vector<int16_t> in(5001);
  std::mt19937 rng(9);
  for (int16_t& s : in) s = static_cast<int16_t>(rng());
  HalfbandResampler16to8 whole, chunked;
  const std::vector<int16_t> expected = run(whole, in);
  std::vector<int16_t> got;
  for (size_t i = 0; i < in.size();) {
    const size_t n = std::min<size_t>(1 + rng() % 9, in.size() - i);
    std::vector<int16_t> part(in.begin() + static_cast<long>(i), in.begin() + static_cast<long>(i + n));
    const std::vector<int16_t> out = run(chunked, part);
    got.insert(got.end(), out.begin(), out.end());
    i += n;
  }
  EXPECT_EQ(got, expected);
  EXPECT_EQ(expected.size(), 2500u);
  // Full-scale input saturates instead of wrapping.
  HalfbandResampler16to8 loud;
  std::vector<int16_t> square(400);
  for (size_t i = 0; i < square.size(); i++) square[i] = (i / 20) % 2 ? -32768 : 32767;
  for (int16_t s : run(loud, square)) ASSERT_GE(s * static_cast<int>(square[0]), -32768 * 32767);
}
