// AMR-WB decoder engine speed in 16 kHz output samples per second, on the
// peer streams of each mode (and the DTX stream) when the vectors are
// present, else on random frames.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "engines/amrwb/amrwb_decoder.h"
#include "test_support.h"

namespace {

std::vector<std::vector<uint8_t>> loadFrames(const std::string& name, int mode) {
  std::vector<std::vector<uint8_t>> frames;
  const auto dir = quillon::test::vectorsSubdir("amrwb");
  if (!dir.empty()) {
    frames = quillon::test::splitFrames(quillon::test::readFile(dir / (name + ".amrwb")));
  }
  if (frames.empty()) {
    uint32_t x = 1;
    const int bytes = quillon::amrwb::frameBytesForType(mode < 0 ? 2 : mode);
    for (int f = 0; f < 500; f++) {
      std::vector<uint8_t> fr(static_cast<size_t>(bytes));
      fr[0] = static_cast<uint8_t>(((mode < 0 ? 2 : mode) << 3) | 0x04);
      for (int i = 1; i < bytes; i++) {
        x ^= x << 13; x ^= x >> 17; x ^= x << 5;
        fr[static_cast<size_t>(i)] = static_cast<uint8_t>(x);
      }
      frames.push_back(fr);
    }
  }
  return frames;
}

void BM_AmrwbDecode(benchmark::State& state) {
  const int mode = static_cast<int>(state.range(0));
  const std::string name = mode < 0 ? "orig16k-gaps-dtx-mode2" : "orig16k-mode" + std::to_string(mode);
  const auto frames = loadFrames(name, mode);
  quillon::amrwb::Decoder dec;
  int16_t out[quillon::amrwb::kFrameSamples];
  int64_t n = 0;
  for (auto _ : state) {
    for (const auto& f : frames) {
      dec.decodeFrame(f.data(), f.size(), out);
      benchmark::DoNotOptimize(out);
    }
    n += static_cast<int64_t>(frames.size()) * quillon::amrwb::kFrameSamples;
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_AmrwbDecode)->Arg(0)->Arg(2)->Arg(8)->Arg(-1);

}  // namespace
