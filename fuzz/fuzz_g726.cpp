// Arbitrary bytes as G.726 streams: the first byte picks one of the eight
// compression codes, the rest is decoded in whole groups through the codec;
// the same codewords also go through the engine's companded outputs.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "engines/g726/g726_engine.h"
#include "quillon/codecs/codec_g72x.h"

using namespace TAV;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  static const CompressionType kCodes[8] = {CT_G726_40, CT_G726_32, CT_G726_24, CT_G726_16,
                                            CT_G726_40_LSB, CT_G726_32_LSB, CT_G726_24_LSB, CT_G726_16_LSB};
  static const uint32_t kGroupBytes[8] = {5, 1, 3, 1, 5, 1, 3, 1};
  static const int kBits[8] = {5, 4, 3, 2, 5, 4, 3, 2};
  const int pick = data[0] & 7;
  const int coding = 1 + (data[0] >> 3) % 3;
  data++;
  size--;

  CodecG72X codec;
  if (!codec.open(AudioFormat(kCodes[pick], 1), false)) abort();
  const uint32_t bytes = static_cast<uint32_t>(size / kGroupBytes[pick] * kGroupBytes[pick]);
  std::vector<int16_t> pcm(bytes * 4 + 1);
  uint32_t inBytes = bytes;
  const uint32_t written = codec.decode(data, inBytes, pcm.data(), static_cast<uint32_t>(pcm.size() * 2));
  if (inBytes != bytes / kGroupBytes[pick]) abort();
  if (written != inBytes * kGroupBytes[pick] * 8 / kBits[pick] * 2) abort();

  quillon::G726Engine engine(kBits[pick]);
  for (size_t i = 0; i < size; i++) {
    const int v = engine.decode(data[i], coding);
    if (coding != quillon::G726Engine::kLinear && (v < 0 || v > 255)) abort();
  }
  return 0;
}
