// AMR-WB encoder engine speed in 16 kHz input samples per second: the 3GPP
// test input (tst.inp, dtx.inp with DTX) when the vectors are present, else
// a synthetic voiced signal with noise.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "engines/amrwb/amrwb_encoder.h"
#include "test_support.h"

namespace {

std::vector<int16_t> loadInput(bool dtx) {
  const auto dir = quillon::test::vectorsSubdir("amrwb-3gpp");
  if (!dir.empty()) {
    std::vector<int16_t> pcm = quillon::test::readPcm16(dir / "orig" / (dtx ? "dtx.inp" : "tst.inp"));
    if (pcm.size() >= 320) return pcm;
  }
  std::vector<int16_t> pcm(16000 * 4);
  uint32_t x = 1;
  for (size_t i = 0; i < pcm.size(); i++) {
    x ^= x << 13; x ^= x >> 17; x ^= x << 5;
    const double voiced = 6000 * std::sin(2 * M_PI * 140 * static_cast<double>(i) / 16000) *
                          std::sin(2 * M_PI * 3 * static_cast<double>(i) / 16000);
    pcm[i] = static_cast<int16_t>(voiced + static_cast<int16_t>(x) / 32);
  }
  return pcm;
}

void BM_AmrwbEncode(benchmark::State& state) {
  const int mode = static_cast<int>(state.range(0));
  const bool dtx = state.range(1) != 0;
  const std::vector<int16_t> pcm = loadInput(dtx);
  quillon::amrwb::Encoder enc;
  uint8_t out[quillon::amrwb::Encoder::kMaxFrameBytes];
  const size_t frames = pcm.size() / quillon::amrwb::Encoder::kInputSamples;
  int64_t n = 0;
  for (auto _ : state) {
    for (size_t f = 0; f < frames; f++) {
      enc.encodeFrame(pcm.data() + f * quillon::amrwb::Encoder::kInputSamples, mode, dtx, out);
      benchmark::DoNotOptimize(out);
    }
    n += static_cast<int64_t>(frames * quillon::amrwb::Encoder::kInputSamples);
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_AmrwbEncode)->Args({0, 0})->Args({2, 0})->Args({8, 0})->Args({2, 1});

}  // namespace
