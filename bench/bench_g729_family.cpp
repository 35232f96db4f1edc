// Speed of the rest of the G.729 family: the full-complexity decoder and
// encoder (descriptor 24) and both Annex B pairs (descriptors 26 and 27) on
// the ITU vectors.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "engines/g729/decoder.h"
#include "engines/g729/encoder.h"
#include "quillon/trace.h"

namespace {

using quillon::g729a::Decoder;
using quillon::g729a::Encoder;

std::vector<uint8_t> loadFile(const std::string& rel) {
  std::filesystem::path dir = QUILLON_VECTORS_DIR;
  if (const char* env = std::getenv("QUILLON_VECTORS")) dir = env;
  std::ifstream f(dir / rel, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

std::vector<int16_t> loadPcm(const std::string& rel) {
  const std::vector<uint8_t> b = loadFile(rel);
  std::vector<int16_t> pcm(b.size() / 2);
  for (size_t i = 0; i < pcm.size(); i++) pcm[i] = static_cast<int16_t>(b[2 * i] | b[2 * i + 1] << 8);
  return pcm;
}

void report(benchmark::State& state, int64_t frames) {
  state.counters["frames/s"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(frames * 80), benchmark::Counter::kIsRate);
}

void BM_G729_Decode_Speech(benchmark::State& state) {
  quillon_set_trace_sink(nullptr);
  const std::vector<uint8_t> stream = loadFile("g729-itu/SPEECH.g729");
  const size_t frames = stream.size() / Decoder::kFrameBytes;
  if (frames == 0) return state.SkipWithError("vectors not found");
  Decoder dec(Decoder::Variant::Main);
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
  report(state, done);
}

void BM_G729_Encode_Speech(benchmark::State& state) {
  quillon_set_trace_sink(nullptr);
  const std::vector<int16_t> pcm = loadPcm("g729-itu/orig/SPEECH.IN");
  const size_t frames = pcm.size() / Encoder::kFrameSamples;
  if (frames == 0) return state.SkipWithError("vectors not found");
  Encoder enc(Encoder::Variant::Main);
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
  report(state, done);
}

// Annex B: encodes tstseq1 (speech with silences) and decodes what it made.
void annexB(benchmark::State& state, bool mainBody, bool decode) {
  quillon_set_trace_sink(nullptr);
  const std::vector<int16_t> pcm = loadPcm("g729b/orig/tstseq1.bin");
  const size_t frames = pcm.size() / Encoder::kFrameSamples;
  if (frames == 0) return state.SkipWithError("vectors not found");
  Encoder enc(mainBody ? Encoder::Variant::Main : Encoder::Variant::AnnexA, true);
  std::vector<uint8_t> coded(frames * Encoder::kFrameBytes);
  std::vector<int> sizes(frames);
  for (size_t f = 0; f < frames; f++) sizes[f] = enc.encode(&pcm[f * 80], &coded[f * 10]);
  Decoder dec(mainBody ? Decoder::Variant::Main : Decoder::Variant::AnnexA, true);
  int16_t out[80];
  int64_t done = 0;
  for (auto _ : state) {
    if (decode) {
      dec.reset();
      for (size_t f = 0; f < frames; f++) {
        if (sizes[f] == 10) {
          dec.decode(&coded[f * 10], out);
        } else if (sizes[f] == 2) {
          dec.decodeSid(&coded[f * 10], out);
        } else {
          dec.decodeUntransmitted(out);
        }
        benchmark::DoNotOptimize(out);
      }
    } else {
      enc.reset();
      for (size_t f = 0; f < frames; f++) {
        benchmark::DoNotOptimize(enc.encode(&pcm[f * 80], &coded[f * 10]));
      }
    }
    done += static_cast<int64_t>(frames);
  }
  report(state, done);
}

void BM_G729B_Encode(benchmark::State& state) { annexB(state, true, false); }
void BM_G729B_Decode(benchmark::State& state) { annexB(state, true, true); }
void BM_G729AB_Encode(benchmark::State& state) { annexB(state, false, false); }
void BM_G729AB_Decode(benchmark::State& state) { annexB(state, false, true); }

}  // namespace

BENCHMARK(BM_G729_Decode_Speech)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_G729_Encode_Speech)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_G729B_Encode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_G729B_Decode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_G729AB_Encode)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_G729AB_Decode)->Unit(benchmark::kMillisecond);
