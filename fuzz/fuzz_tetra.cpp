// Arbitrary bytes through the TETRA codec, within its caller contract:
// whole 18-byte frames and room for 480 output bytes per frame. The first
// byte chooses how many frames go into each decode call.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "quillon/codecs/codec_tetra.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const size_t perCall = 1 + data[0] % 8;
  data++;
  size--;
  const size_t frames = size / TAV::CodecTetra::kFrameBytes;
  if (frames == 0) return 0;

  TAV::CodecTetra codec;
  if (!codec.open(TAV::AudioFormat(TAV::CT_TETRA, 1), false)) __builtin_trap();
  std::vector<int16_t> out(perCall * TAV::CodecTetra::kFrameSamples);
  for (size_t f = 0; f < frames; f += perCall) {
    const size_t n = frames - f < perCall ? frames - f : perCall;
    TAV::uint32 inBytes = static_cast<TAV::uint32>(n * TAV::CodecTetra::kFrameBytes);
    const TAV::uint32 written = codec.decode(data + f * TAV::CodecTetra::kFrameBytes, inBytes, out.data(),
                                             static_cast<TAV::uint32>(out.size() * 2));
    if (written != n * TAV::CodecTetra::kFrameSamples * 2 || inBytes != 0) __builtin_trap();
  }
  return 0;
}
