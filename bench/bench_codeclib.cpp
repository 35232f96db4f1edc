// The codecLib front's overhead: G.729 Annex A (and G.722 when its engine
// is built in) through codecLibDecode/codecLibEncode in call-sized chunks,
// and through the code-20 adapter as the factory builds it.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "codeclib/codeclib.h"
#include "quillon/codec.h"
#include "quillon/trace.h"

using namespace quillon::codeclib;

namespace {

std::vector<uint8_t> loadVector(const char* folder, const char* name) {
  std::filesystem::path dir = QUILLON_VECTORS_DIR;
  if (const char* env = std::getenv("QUILLON_VECTORS")) dir = env;
  std::ifstream f(dir / folder / name, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// Decodes the whole stream per iteration, `chunk` bytes per call.
void frontDecode(benchmark::State& state, int32 codec, const char* folder, const char* name, int32 samplesPerByte) {
  quillon_set_trace_sink(nullptr);
  const std::vector<uint8_t> stream = loadVector(folder, name);
  if (stream.empty()) return state.SkipWithError("vectors not found");
  if (!codecLibDescriptor(codec)->decodeFrame) return state.SkipWithError("engine not built in");
  const int32 chunk = static_cast<int32>(state.range(0));
  std::vector<int16_t> out(static_cast<size_t>(chunk + 1024) * samplesPerByte);
  int64_t samples = 0;
  for (auto _ : state) {
    HandleRes* h = nullptr;
    CodecLibOptions options{};
    codecLibOpen(&h, codec, kDirDecoder, 0);
    codecLibQuery(&h, codec, kDirDecoder, nullptr, &options, 0);
    options.frameLength = 320;
    for (size_t pos = 0; pos < stream.size(); pos += chunk) {
      int32 n = static_cast<int32>(std::min<size_t>(chunk, stream.size() - pos));
      int32 room = static_cast<int32>(out.size());
      codecLibDecode(&h, stream.data() + pos, &n, out.data(), &room, &options, 0);
      samples += room;
      benchmark::DoNotOptimize(out.data());
    }
    codecLibClose(&h, 0);
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(samples), benchmark::Counter::kIsRate);
}

void frontEncode(benchmark::State& state, int32 codec, const char* folder, const char* name) {
  quillon_set_trace_sink(nullptr);
  const std::vector<uint8_t> raw = loadVector(folder, name);
  if (raw.empty()) return state.SkipWithError("vectors not found");
  if (!codecLibDescriptor(codec)->encodeFrame) return state.SkipWithError("engine not built in");
  std::vector<int16_t> pcm(raw.size() / 2);
  for (size_t i = 0; i < pcm.size(); i++) pcm[i] = static_cast<int16_t>(raw[2 * i] | (raw[2 * i + 1] << 8));
  const int32 chunk = static_cast<int32>(state.range(0));
  std::vector<uint8_t> out(static_cast<size_t>(chunk) + 1024);
  int64_t samples = 0;
  for (auto _ : state) {
    HandleRes* h = nullptr;
    CodecLibOptions options{};
    codecLibOpen(&h, codec, kDirEncoder, 0);
    codecLibQuery(&h, codec, kDirEncoder, nullptr, &options, 0);
    options.frameLength = 320;
    for (size_t pos = 0; pos < pcm.size(); pos += chunk) {
      int32 n = static_cast<int32>(std::min<size_t>(chunk, pcm.size() - pos));
      int32 room = static_cast<int32>(out.size());
      codecLibEncode(&h, pcm.data() + pos, &n, out.data(), &room, &options, 0);
      benchmark::DoNotOptimize(out.data());
    }
    samples += static_cast<int64_t>(pcm.size());
    codecLibClose(&h, 0);
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(samples), benchmark::Counter::kIsRate);
}

// Code 20 through the factory: the adapter decodes at trace level 4 (the
// lines go to the discarded sink here, but are still formatted).
void BM_CodecLib_G729A_Adapter_Decode(benchmark::State& state) {
  quillon_set_trace_sink(nullptr);
  const std::vector<uint8_t> stream = loadVector("g729a", "SPEECH.g729");
  if (stream.empty()) return state.SkipWithError("vectors not found");
  std::vector<int16_t> out(16 * 1024);
  int64_t samples = 0;
  for (auto _ : state) {
    std::unique_ptr<TAV::Codec> c(TAV::Codec::getCodec(TAV::AudioFormat(TAV::CT_G729, 1), false));
    if (!c) return state.SkipWithError("no code-20 decoder");
    for (size_t pos = 0; pos < stream.size(); pos += 800) {
      TAV::uint32 n = static_cast<TAV::uint32>(std::min<size_t>(800, stream.size() - pos));
      samples += c->decode(stream.data() + pos, n, out.data(), 8 * 1024) / 2;
    }
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(samples), benchmark::Counter::kIsRate);
}

void BM_CodecLib_G729A_Decode(benchmark::State& state) { frontDecode(state, kCodecG729A, "g729a", "SPEECH.g729", 8); }
void BM_CodecLib_G729A_Encode(benchmark::State& state) { frontEncode(state, kCodecG729A, "g729", "hts12.s16"); }
void BM_CodecLib_G722_Decode(benchmark::State& state) { frontDecode(state, kCodecG722, "g722", "orig16k-m1.g722", 2); }

}  // namespace

BENCHMARK(BM_CodecLib_G729A_Decode)->Arg(10)->Arg(160)->Arg(4000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CodecLib_G729A_Encode)->Arg(80)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CodecLib_G729A_Adapter_Decode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CodecLib_G722_Decode)->Arg(160)->Arg(4000)->Unit(benchmark::kMillisecond);
