// Decoding speed of the G.729 Annex A engine on the shared speech vectors.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "engines/g729/decoder.h"
#include "engines/g729/encoder.h"
#include "quillon/trace.h"

namespace {

std::vector<uint8_t> loadStream(const char* folder, const char* name) {
  std::filesystem::path dir = QUILLON_VECTORS_DIR;
  if (const char* env = std::getenv("QUILLON_VECTORS")) dir = env;
  std::ifstream f(dir / folder / name, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

void decodeStream(benchmark::State& state, const char* folder, const char* name) {
  using quillon::g729a::Decoder;
  quillon_set_trace_sink(nullptr);
  const std::vector<uint8_t> stream = loadStream(folder, name);
  const size_t frames = stream.size() / Decoder::kFrameBytes;
  if (frames == 0) {
    state.SkipWithError("vectors not found");
    return;
  }
  Decoder dec;
  int16_t pcm[Decoder::kFrameSamples];
  int64_t done = 0;
  for (auto _ : state) {
    dec.reset();
    for (size_t f = 0; f < frames; f++) {
      dec.decode(&stream[f * Decoder::kFrameBytes], pcm);
      benchmark::DoNotOptimize(pcm);
    }
    done += static_cast<int64_t>(frames);
  }
  state.counters["frames/s"] = benchmark::Counter(static_cast<double>(done), benchmark::Counter::kIsRate);
  state.counters["samples/s"] =
      benchmark::Counter(static_cast<double>(done * Decoder::kFrameSamples), benchmark::Counter::kIsRate);
}

void BM_G729A_Decode_Speech(benchmark::State& state) { decodeStream(state, "g729a", "SPEECH.g729"); }
void BM_G729A_Decode_Hts12(benchmark::State& state) { decodeStream(state, "g729", "hts12.enc.g729"); }

void encodeFile(benchmark::State& state, const char* folder, const char* name) {
  using quillon::g729a::Encoder;
  quillon_set_trace_sink(nullptr);
  const std::vector<uint8_t> bytes = loadStream(folder, name);
  std::vector<int16_t> pcm(bytes.size() / 2);
  for (size_t i = 0; i < pcm.size(); i++) pcm[i] = static_cast<int16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
  const size_t frames = pcm.size() / Encoder::kFrameSamples;
  if (frames == 0) {
    state.SkipWithError("vectors not found");
    return;
  }
  Encoder enc;
  uint8_t packed[Encoder::kFrameBytes];
  int64_t done = 0;
  for (auto _ : state) {
    enc.reset();
    for (size_t f = 0; f < frames; f++) {
      enc.encode(&pcm[f * Encoder::kFrameSamples], packed);
      benchmark::DoNotOptimize(packed);
    }
    done += static_cast<int64_t>(frames);
  }
  state.counters["frames/s"] = benchmark::Counter(static_cast<double>(done), benchmark::Counter::kIsRate);
  state.counters["samples/s"] =
      benchmark::Counter(static_cast<double>(done * Encoder::kFrameSamples), benchmark::Counter::kIsRate);
}

void BM_G729A_Encode_Hts12(benchmark::State& state) { encodeFile(state, "g729", "hts12.s16"); }

}  // namespace

BENCHMARK(BM_G729A_Encode_Hts12)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_G729A_Decode_Speech)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_G729A_Decode_Hts12)->Unit(benchmark::kMillisecond);
