// Arbitrary bytes as 16-bit PCM for the MS ADPCM encoder: the first byte
// picks mono or stereo and a chunk size; the input is fed in chunks with
// varying output room, then the pending block is flushed.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "quillon/codecs/codec_msadpcm32.h"

using namespace TAV;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint16_t channels = (data[0] & 1) ? 2 : 1;
  const size_t chunk = 2 * (1 + (data[0] >> 1));  // bytes per encode call
  data++;
  size--;
  std::vector<int16_t> pcm(size / 2);
  if (!pcm.empty()) std::memcpy(pcm.data(), data, pcm.size() * 2);

  CodecMSADPCM32 codec;
  if (!codec.open(AudioFormat(CT_MSADPCM, channels), true)) abort();
  std::vector<uint8_t> out(pcm.size() * 2 + 512);
  size_t at = 0;
  uint32_t room = 0;
  while (at < pcm.size() * 2) {
    const size_t len = std::min(chunk, pcm.size() * 2 - at);
    uint32_t inBytes = static_cast<uint32_t>(len);
    room = (room + 200) % 1000;  // sometimes too small for a block
    const uint32_t n = codec.encode(pcm.data() + at / 2, inBytes, out.data(), room);
    if (n % 256 != 0 || n > room || inBytes != len) abort();
    at += len;
  }
  const uint32_t pending = codec.hasPendingEncodedData();
  const uint32_t flushed = codec.getPendingEncodedData(out.data(), 256);
  if (flushed != pending) abort();
  return 0;
}
