// Throughput of CharsetConverter::convert on mixed Latin text.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "quillon/charset.h"

namespace {

std::vector<TAV::uint8> sampleUtf8(size_t bytes) {
  const std::string line = "Caf\xC3\xA9 cr\xC3\xA8me br\xC3\xBBl\xC3\xA9" "e \xE2\x82\xAC 12,50 - Stra\xC3\x9F" "e 7\n";
  std::string text;
  while (text.size() < bytes) text += line;
  return std::vector<TAV::uint8>(text.begin(), text.end());
}

void convertText(benchmark::State& state, TAV::Charset from, TAV::Charset to, TAV::CharsetFilterMode mode) {
  std::vector<TAV::uint8> in = sampleUtf8(64 * 1024);
  TAV::CharsetConverter prepare;
  prepare.open(TAV::CharsetUTF8, from, '?', TAV::FilterNone);
  std::vector<TAV::uint8> source(in.size() * 4 + 8);
  TAV::uint32 inPos = 0, outPos = 0;
  prepare.convert(in.data(), inPos, static_cast<TAV::uint32>(in.size()), source.data(), outPos,
                  static_cast<TAV::uint32>(source.size()));
  source.resize(outPos);

  TAV::CharsetConverter converter;
  converter.open(from, to, '?', mode);
  std::vector<TAV::uint8> out(source.size() * 6 + 8);
  for (auto _ : state) {
    inPos = 0;
    outPos = 0;
    converter.convert(source.data(), inPos, static_cast<TAV::uint32>(source.size()), out.data(), outPos,
                      static_cast<TAV::uint32>(out.size()));
    benchmark::DoNotOptimize(out.data());
  }
  const double n = static_cast<double>(source.size()) * static_cast<double>(state.iterations());
  state.counters["bytes/s"] = benchmark::Counter(n, benchmark::Counter::kIsRate);
}

void BM_CharsetUtf8ToUcs2(benchmark::State& s) { convertText(s, TAV::CharsetUTF8, TAV::CharsetUCS2, TAV::FilterNone); }
void BM_CharsetLatin1ToUtf8Upper(benchmark::State& s) {
  convertText(s, TAV::CharsetISO88591, TAV::CharsetUTF8, TAV::FilterToUpper);
}
void BM_CharsetUtf8SortKeys(benchmark::State& s) {
  convertText(s, TAV::CharsetUTF8, TAV::CharsetUTF8, TAV::FilterToSortChar);
}

}  // namespace

BENCHMARK(BM_CharsetUtf8ToUcs2);
BENCHMARK(BM_CharsetLatin1ToUtf8Upper);
BENCHMARK(BM_CharsetUtf8SortKeys);
