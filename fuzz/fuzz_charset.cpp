// Feeds arbitrary text through CharsetConverter. The first two bytes pick
// the sets and the filter; the rest is the input. The converter grants its
// decoders the whole input length for every character, so (as its callers
// must) the input is followed by a few readable bytes.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "quillon/charset.h"

namespace {

constexpr size_t kSlack = 8;  // longest character (6 bytes) plus margin

// Sets whose decoders cannot fail on such input, so compare() ends.
bool neverFailsToDecode(TAV::Charset set) {
  return set == TAV::CharsetUCS2 || set == TAV::CharsetISO88591 || set == TAV::CharsetISO88592;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const TAV::Charset from = static_cast<TAV::Charset>(data[0] % 9);
  const TAV::Charset to = static_cast<TAV::Charset>((data[0] / 9) % 9);
  const TAV::CharsetFilterMode mode = static_cast<TAV::CharsetFilterMode>(data[1] % 4);
  const TAV::uint32 replacement = data[1] >> 2;
  std::vector<TAV::uint8> in(data + 2, data + size);
  const TAV::uint32 n = static_cast<TAV::uint32>(in.size());
  in.resize(in.size() + kSlack, 0);

  TAV::CharsetConverter converter;
  if (!converter.open(from, to, replacement, mode)) return 0;
  std::vector<TAV::uint8> out(static_cast<size_t>(n) * 6 + kSlack);
  TAV::uint32 inPos = 0, outPos = 0;
  converter.convert(in.data(), inPos, n, out.data(), outPos, static_cast<TAV::uint32>(out.size()));
  if (outPos > out.size()) __builtin_trap();

  TAV::uint32 outBytes = 0;
  converter.getByteByByte(n, in.data(), n, outBytes);
  converter.getCharByByte(n / 2, in.data(), n, from);
  converter.getByteByChar(n / 3, in.data(), n, from);
  if (neverFailsToDecode(from) && neverFailsToDecode(to))
    converter.compare(in.data(), 0, n / 2, from, in.data(), n / 2, n, to, mode);
  return 0;
}
