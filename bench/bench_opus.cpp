// Decoding speed of CodecOpus on the shared Opus streams (or, without
// them, on a stream made here from a synthetic clip).
#include <benchmark/benchmark.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "opus_stream_writer.h"
#include "quillon/codecs/codec_opus.h"
#include "test_support.h"

namespace {

std::vector<uint8_t> syntheticStream() {
  std::vector<int16_t> clip(16000 * 5);
  for (size_t i = 0; i < clip.size(); i++)
    clip[i] = static_cast<int16_t>(8000.0 * std::sin(0.15 * static_cast<double>(i)) *
                                   std::sin(0.0007 * static_cast<double>(i)));
  return quillon::makeOpusStream(clip.data(), clip.size(), {24000});
}

void decodeStream(benchmark::State& state, const std::vector<uint8_t>& stream) {
  if (stream.empty()) {
    state.SkipWithError("no stream");
    return;
  }
  std::vector<int16_t> out(16000 * 120);
  int64_t samples = 0;
  for (auto _ : state) {
    TAV::CodecOpus codec;
    codec.open(TAV::AudioFormat(TAV::CT_OPUS, 1), false);
    TAV::uint32 inBytes = static_cast<TAV::uint32>(stream.size());
    const TAV::uint32 n =
        codec.decode(stream.data(), inBytes, out.data(), static_cast<TAV::uint32>(out.size() * 2));
    benchmark::DoNotOptimize(out.data());
    samples += n / 2;
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(samples), benchmark::Counter::kIsRate);
}

bool registerBenchmarks() {
  const std::filesystem::path dir = quillon::test::vectorsSubdir("opus");
  bool any = false;
  if (!dir.empty()) {
    for (const char* name : {"orig16k-voip-16k-20ms", "orig16k-audio-64k-60ms", "orig16k-lowdelay-32k-20ms"}) {
      std::vector<uint8_t> stream = quillon::test::readFile(dir / (std::string(name) + ".opus"));
      if (stream.empty()) continue;
      benchmark::RegisterBenchmark((std::string("BM_OpusDecode/") + name).c_str(),
                                   [stream](benchmark::State& s) { decodeStream(s, stream); })
          ->Unit(benchmark::kMillisecond);
      any = true;
    }
  }
  if (!any)
    benchmark::RegisterBenchmark("BM_OpusDecode/synthetic",
                                 [](benchmark::State& s) { decodeStream(s, syntheticStream()); })
        ->Unit(benchmark::kMillisecond);
  return true;
}

const bool registered = registerBenchmarks();

}  // namespace
