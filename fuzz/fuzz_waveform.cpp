// G.711 and 8-bit PCM through the transcoder in every direction, plus the
// 16 -> 8 kHz resampler, on arbitrary bytes.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "quillon/quillon.h"

using namespace TAV;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  static const CompressionType kCodes[] = {CT_G711_ALAW, CT_G711_ULAW, CT_PCM8, CT_PCM16, CT_PCM16_16K};
  const CompressionType in = kCodes[data[0] % 5];
  const CompressionType out = kCodes[(data[0] / 5) % 5];
  data++;
  size--;
  TransCoder t;
  if (!t.open(AudioFormat(in, 1), AudioFormat(out, 1))) return 0;
  // The caller contract: input in whole frames, output sized by getOutSize.
  uint32_t bytes = t.alignConvertibleByteCountNonVBR(static_cast<uint32_t>(size));
  std::vector<uint8_t> input(data, data + bytes);
  std::vector<uint8_t> output(t.getOutSize(bytes) + 16);
  uint32_t inBytes = bytes;
  t.transcode(input.data(), inBytes, output.data(), static_cast<uint32_t>(output.size()));
  return 0;
}
