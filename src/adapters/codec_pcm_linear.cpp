#include "quillon/codecs/codec_pcm_linear.h"

namespace TAV {

bool CodecPCMLinear::open(const AudioFormat& format, bool encoder) {
  if (format.getCompression() != CT_PCM8) return false;
  return Codec::open(format, encoder);
}

// Excess-128 bytes to signed 16-bit: (b - 128) << 8. Room for 2 * inBytes is
// the caller's to provide.
uint32 CodecPCMLinear::decode(const uint8* in, uint32& inBytes, int16* out, uint32) {
  for (uint32 i = 0; i < inBytes; i++) out[i] = static_cast<int16>((in[i] - 128) * 256);
  return 2 * inBytes;
}

// The high byte with its top bit inverted, truncated.
uint32 CodecPCMLinear::encode(const int16* in, uint32& inBytes, uint8* out, uint32) {
  const uint32 n = inBytes / 2;
  for (uint32 i = 0; i < n; i++) out[i] = static_cast<uint8>((static_cast<uint16>(in[i]) + 0x8000u) >> 8);
  return n;
}

}  // namespace TAV
