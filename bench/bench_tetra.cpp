// Decoding speed of the TETRA engine and of its codec adapter.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "engines/tetra/tetra_decoder.h"
#include "quillon/codecs/codec_tetra.h"

namespace {

using namespace quillon::tetra;

// The named vector stream, or 300 frames of pseudo-random speech bits when
// the vectors are absent.
std::vector<uint8_t> loadStream(const char* name) {
  std::filesystem::path dir = QUILLON_VECTORS_DIR;
  if (const char* env = std::getenv("QUILLON_VECTORS")) dir = env;
  std::ifstream f(dir / "tetra" / name, std::ios::binary);
  std::vector<uint8_t> s((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  s.resize(s.size() / kFrameBytes * kFrameBytes);
  if (s.empty()) {
    uint32_t seed = 12345;
    s.resize(300 * kFrameBytes);
    for (size_t i = 0; i < s.size(); i++) {
      seed = seed * 1664525u + 1013904223u;
      s[i] = static_cast<uint8_t>(seed >> 24);
      if (i % kFrameBytes == kFrameBytes - 1) s[i] &= 0x80;
    }
  }
  return s;
}

void engine(benchmark::State& state, const char* name) {
  const std::vector<uint8_t> stream = loadStream(name);
  const size_t frames = stream.size() / kFrameBytes;
  TetraDecoderState dec;
  int16_t pcm[kFrameSamples];
  int64_t samples = 0;
  for (auto _ : state) {
    resetTetraDecoder(dec);
    for (size_t f = 0; f < frames; f++) {
      decodeTetraFrame(dec, &stream[f * kFrameBytes], pcm);
      benchmark::DoNotOptimize(pcm);
    }
    samples += static_cast<int64_t>(frames) * kFrameSamples;
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(samples), benchmark::Counter::kIsRate);
}

void BM_Tetra_Engine_Speech(benchmark::State& state) { engine(state, "tetra_prompts.tet"); }
void BM_Tetra_Engine_BadFrames(benchmark::State& state) { engine(state, "tetra_prompts_bfi.tet"); }
void BM_Tetra_Engine_RandomBits(benchmark::State& state) { engine(state, "tetra_random.tet"); }

void BM_Tetra_Codec_Speech(benchmark::State& state) {
  const std::vector<uint8_t> stream = loadStream("tetra_prompts.tet");
  std::vector<int16_t> pcm(stream.size() / kFrameBytes * kFrameSamples);
  TAV::CodecTetra codec;
  codec.open(TAV::AudioFormat(TAV::CT_TETRA, 1), false);
  int64_t samples = 0;
  for (auto _ : state) {
    codec.init();
    TAV::uint32 inBytes = static_cast<TAV::uint32>(stream.size());
    benchmark::DoNotOptimize(codec.decode(stream.data(), inBytes, pcm.data(),
                                          static_cast<TAV::uint32>(pcm.size() * 2)));
    samples += static_cast<int64_t>(pcm.size());
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(samples), benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(BM_Tetra_Engine_Speech);
BENCHMARK(BM_Tetra_Engine_BadFrames);
BENCHMARK(BM_Tetra_Engine_RandomBits);
BENCHMARK(BM_Tetra_Codec_Speech);
