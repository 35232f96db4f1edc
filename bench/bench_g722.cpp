// G.722 engine speed: encoding and decoding throughput in 16 kHz samples
// per second, on the STL speech vectors when present (else synthetic input).
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "engines/g722/g722_engine.h"
#include "test_support.h"

namespace {

std::vector<int16_t> speechInput() {
  const auto dir = quillon::test::vectorsSubdir("g722-itu/stl");
  if (!dir.empty()) {
    std::vector<int16_t> pcm = quillon::test::readPcm16(dir / "speech.enc-input.pcm");
    if (!pcm.empty()) return pcm;
  }
  std::vector<int16_t> pcm(96000);
  for (size_t i = 0; i < pcm.size(); i++)
    pcm[i] = static_cast<int16_t>(8000 * std::sin(0.05 * i) + 3000 * std::sin(0.9 * i) + (i * 7919 % 601) - 300);
  return pcm;
}

constexpr size_t kFrame = 320;  // 20 ms, as the codecLib front hands frames over

void BM_G722Encode(benchmark::State& state) {
  std::vector<int16_t> pcm = speechInput();
  pcm.resize(pcm.size() / kFrame * kFrame);
  std::vector<uint8_t> out(pcm.size() / 2);
  quillon::g722::Encoder enc;
  int64_t n = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < pcm.size(); i += kFrame) enc.encode(pcm.data() + i, kFrame, out.data() + i / 2);
    benchmark::DoNotOptimize(out.data());
    n += static_cast<int64_t>(pcm.size());
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_G722Encode);

void BM_G722Decode(benchmark::State& state) {
  const int mode = static_cast<int>(state.range(0));
  std::vector<int16_t> pcm = speechInput();
  pcm.resize(pcm.size() / kFrame * kFrame);
  std::vector<uint8_t> code(pcm.size() / 2);
  quillon::g722::Encoder().encode(pcm.data(), pcm.size(), code.data());
  std::vector<int16_t> out(pcm.size());
  quillon::g722::Decoder dec;
  int64_t n = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < code.size(); i += kFrame / 2) dec.decode(code.data() + i, kFrame / 2, out.data() + 2 * i, mode);
    benchmark::DoNotOptimize(out.data());
    n += static_cast<int64_t>(out.size());
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_G722Decode)->Arg(1)->Arg(2)->Arg(3);

}  // namespace
