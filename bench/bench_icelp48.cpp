// ICELP48 speed: decoding (and encoding) throughput in 8 kHz samples per
// second, on the G.711 speech vector when present (else synthetic input).
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "engines/icelp48/icelp48_decoder.h"
#include "engines/icelp48/icelp48_encoder.h"
#include "test_support.h"

namespace {

using namespace quillon::icelp48;

std::vector<int16_t> syntheticInput() {
  std::vector<int16_t> pcm(96000);
  for (size_t i = 0; i < pcm.size(); i++)
    pcm[i] = static_cast<int16_t>(8000 * std::sin(0.05 * i) + 3000 * std::sin(0.9 * i) + (i * 7919 % 601) - 300);
  return pcm;
}

std::vector<int16_t> speechInput() {
  const auto dir = quillon::test::vectorsSubdir("g711");
  std::vector<int16_t> pcm = dir.empty() ? syntheticInput() : quillon::test::readPcm16(dir / "hts12-a.pcm");
  if (pcm.size() < static_cast<size_t>(kFrameSamples)) pcm = syntheticInput();
  return std::vector<int16_t>(pcm.begin(), pcm.begin() + static_cast<long>(pcm.size() / kFrameSamples * kFrameSamples));
}

std::vector<uint16_t> encodeAll(const std::vector<int16_t>& pcm) {
  Icelp48Encoder enc;
  std::vector<uint16_t> words(pcm.size() / kFrameSamples * kFrameWords);
  for (size_t f = 0; f < pcm.size() / kFrameSamples; f++) {
    uint8_t bytes[kFrameBytes];
    enc.encode(pcm.data() + f * kFrameSamples, bytes);
    wordsFromBytes(bytes, words.data() + f * kFrameWords);
  }
  return words;
}

void BM_Icelp48Decode(benchmark::State& state) {
  const std::vector<uint16_t> words = encodeAll(speechInput());
  const size_t frames = words.size() / kFrameWords;
  std::vector<int16_t> out(frames * kFrameSamples);
  Icelp48Decoder dec(defaultConfig());
  int64_t n = 0;
  for (auto _ : state) {
    for (size_t f = 0; f < frames; f++) dec.decodeFrame(words.data() + f * kFrameWords, out.data() + f * kFrameSamples);
    benchmark::DoNotOptimize(out.data());
    n += static_cast<int64_t>(out.size());
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Icelp48Decode);

void BM_Icelp48Encode(benchmark::State& state) {
  const std::vector<int16_t> pcm = speechInput();
  Icelp48Encoder enc;
  uint8_t bytes[kFrameBytes];
  int64_t n = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < pcm.size(); i += kFrameSamples) enc.encode(pcm.data() + i, bytes);
    benchmark::DoNotOptimize(bytes);
    n += static_cast<int64_t>(pcm.size());
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Icelp48Encode)->Unit(benchmark::kMillisecond);

}  // namespace
