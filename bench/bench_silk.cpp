// SILK decoding speed through the engine entry points (samples/s at 8 kHz
// output), on conformance streams of each internal rate.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "engines/silk/silk_decoder.h"
#include "test_support.h"

namespace {

void decodeStream(benchmark::State& state, const char* name) {
  const auto dir = quillon::test::vectorsSubdir("silk");
  std::vector<uint8_t> s;
  if (!dir.empty()) s = quillon::test::readFile(dir / (std::string(name) + ".silk"));
  if (s.empty()) {
    state.SkipWithError("SILK vectors not found");
    return;
  }
  const size_t end = s.size();
  s.resize(end + 4, 0);
  int32_t size = 0;
  quillon::silk::getDecoderSize(&size);
  std::vector<uint8_t> mem(static_cast<size_t>(size));
  int16_t out[5 * 160 + 480];
  int64_t samples = 0;
  for (auto _ : state) {
    quillon::silk::initDecoder(mem.data());
    quillon::silk::DecControl ctl{8000, 0, 1, 0, 0};
    size_t pos = 0;
    while (pos + 2 <= end) {
      const int n = static_cast<int16_t>(s[pos] | (s[pos + 1] << 8));
      pos += 2;
      int total = 0;
      do {
        int16_t len = 0;
        quillon::silk::decode(mem.data(), &ctl, 0, &s[pos], n, out + total, &len);
        total += len;
      } while (ctl.moreInternalDecoderFrames != 0);
      samples += total;
      benchmark::DoNotOptimize(out[0]);
      pos += static_cast<size_t>(n);
    }
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(samples), benchmark::Counter::kIsRate);
}

void BM_SilkDecode8k(benchmark::State& s) { decodeStream(s, "o02_hts2_api8k_nb_40ms_10k"); }
void BM_SilkDecode16k(benchmark::State& s) { decodeStream(s, "o05_hts2_api16k_wb_40ms_20k_fec"); }
void BM_SilkDecode24k(benchmark::State& s) { decodeStream(s, "o07_hts1_api24k_swb_60ms_40k_cx0"); }
BENCHMARK(BM_SilkDecode8k);
BENCHMARK(BM_SilkDecode16k);
BENCHMARK(BM_SilkDecode24k);

}  // namespace
