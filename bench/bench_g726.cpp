// G.726 decoding (32 kbit/s through the codec, plus the engine alone at every
// rate) and MS ADPCM encoding, in samples per second.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "engines/g726/g726_engine.h"
#include "quillon/codecs/codec_g72x.h"
#include "quillon/codecs/codec_msadpcm32.h"
#include "test_support.h"

using namespace TAV;

namespace {

std::vector<uint8_t> g726Stream32() {
  const std::filesystem::path dir = quillon::test::vectorsSubdir("g726");
  std::vector<uint8_t> s;
  if (!dir.empty()) s = quillon::test::readFile(dir / "hts12-32.g726-32-msb");
  if (s.empty()) {
    uint32_t r = 1;
    for (int i = 0; i < 48000; i++) {
      r ^= r << 13, r ^= r >> 17, r ^= r << 5;
      s.push_back(static_cast<uint8_t>(r));
    }
  }
  return s;
}

std::vector<int16_t> speechPcm() {
  const std::filesystem::path dir = quillon::test::vectorsSubdir("g726");
  std::vector<int16_t> s;
  if (!dir.empty()) s = quillon::test::readPcm16(dir / "hts12-32.pcm");
  if (s.empty()) {
    for (int i = 0; i < 96000; i++) s.push_back(static_cast<int16_t>((i * 7919) % 20000 - 10000));
  }
  return s;
}

void BM_G726_32_Decode(benchmark::State& state) {
  const std::vector<uint8_t> stream = g726Stream32();
  std::vector<int16_t> pcm(stream.size() * 2);
  CodecG72X codec;
  codec.open(AudioFormat(CT_G726_32, 1), false);
  int64_t samples = 0;
  for (auto _ : state) {
    codec.close();
    codec.open(AudioFormat(CT_G726_32, 1), false);
    uint32 inBytes = static_cast<uint32>(stream.size());
    samples += codec.decode(stream.data(), inBytes, pcm.data(), static_cast<uint32>(pcm.size() * 2)) / 2;
    benchmark::DoNotOptimize(pcm.data());
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(samples), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_G726_32_Decode)->Unit(benchmark::kMillisecond);

// The engine alone on one codeword per byte, linear output.
void BM_G726_EngineDecode(benchmark::State& state) {
  const int bits = static_cast<int>(state.range(0));
  std::vector<uint8_t> codes(64000);
  uint32_t r = 7;
  for (uint8_t& c : codes) {
    r ^= r << 13, r ^= r >> 17, r ^= r << 5;
    c = static_cast<uint8_t>(r & 3);  // small codes keep the signal speech-like
  }
  std::vector<int16_t> pcm(codes.size());
  quillon::G726Engine engine(bits);
  int64_t samples = 0;
  for (auto _ : state) {
    engine.reset();
    engine.decodeLinear(codes.data(), codes.size(), pcm.data());
    benchmark::DoNotOptimize(pcm.data());
    samples += static_cast<int64_t>(codes.size());
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(samples), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_G726_EngineDecode)->Arg(2)->Arg(3)->Arg(4)->Arg(5)->Unit(benchmark::kMillisecond);

void BM_MsAdpcm_Encode(benchmark::State& state) {
  const std::vector<int16_t> pcm = speechPcm();
  std::vector<uint8_t> out(pcm.size() + 1024);
  int64_t samples = 0;
  for (auto _ : state) {
    CodecMSADPCM32 codec;
    codec.open(AudioFormat(CT_MSADPCM, 1), true);
    uint32 inBytes = static_cast<uint32>(pcm.size() * 2);
    uint32 n = codec.encode(pcm.data(), inBytes, out.data(), static_cast<uint32>(out.size()));
    n += codec.getPendingEncodedData(out.data() + n, 256);
    benchmark::DoNotOptimize(n);
    samples += static_cast<int64_t>(pcm.size());
  }
  state.counters["samples/s"] = benchmark::Counter(static_cast<double>(samples), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_MsAdpcm_Encode)->Unit(benchmark::kMillisecond);

}  // namespace
