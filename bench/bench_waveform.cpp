// G.711 decode/encode and the 16 -> 8 kHz halving, in samples per second.
#include <benchmark/benchmark.h>

#include <vector>

#include "quillon/quillon.h"

using namespace TAV;

static void transcodeLoop(benchmark::State& state, CompressionType in, CompressionType out, size_t inBytes,
                          size_t samplesPerCall) {
  TransCoder t;
  if (!t.open(AudioFormat(in, 1), AudioFormat(out, 1))) {
    state.SkipWithError("cannot open");
    return;
  }
  std::vector<uint8_t> input(inBytes);
  for (size_t i = 0; i < input.size(); i++) input[i] = static_cast<uint8_t>(i * 37);
  std::vector<uint8_t> output(t.getOutSize(static_cast<uint32_t>(inBytes)) + 16);
  for (auto _ : state) {
    uint32_t n = static_cast<uint32_t>(inBytes);
    benchmark::DoNotOptimize(t.transcode(input.data(), n, output.data(), static_cast<uint32_t>(output.size())));
  }
  state.counters["samples/s"] =
      benchmark::Counter(static_cast<double>(samplesPerCall) * state.iterations(), benchmark::Counter::kIsRate);
}

static void BM_AlawDecode(benchmark::State& s) { transcodeLoop(s, CT_G711_ALAW, CT_PCM16, 8000, 8000); }
static void BM_UlawEncode(benchmark::State& s) { transcodeLoop(s, CT_PCM16, CT_G711_ULAW, 16000, 8000); }
static void BM_Halve16kTo8k(benchmark::State& s) { transcodeLoop(s, CT_PCM16_16K, CT_PCM16, 32000, 16000); }
BENCHMARK(BM_AlawDecode);
BENCHMARK(BM_UlawEncode);
BENCHMARK(BM_Halve16kTo8k);
