// libFuzzer target for the AMR-WB encoder engine: the first byte picks the
// starting mode and DTX, the rest is 16-bit PCM cut into 320-sample frames;
// every frame also takes a mode and DTX switch from its own first sample so
// mode changes and SID/NO_DATA transitions are exercised. Each frame must
// come out with the size its ToC byte announces.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "engines/amrwb/amrwb_decoder.h"
#include "engines/amrwb/amrwb_encoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  using quillon::amrwb::Encoder;
  const uint8_t control = data[0];
  data++;
  size--;
  Encoder enc;
  quillon::amrwb::Decoder dec;
  int16_t pcm[Encoder::kInputSamples];
  int16_t back[quillon::amrwb::kFrameSamples];
  uint8_t out[Encoder::kMaxFrameBytes];
  const size_t frameBytes = sizeof pcm;
  for (size_t pos = 0; pos + frameBytes <= size; pos += frameBytes) {
    std::memcpy(pcm, data + pos, frameBytes);
    const int mode = (control & 0x80) ? (pcm[0] & 0xff) % 9 : control % 9;
    const bool dtx = (control & 0x40) ? (pcm[0] & 0x100) != 0 : (control & 0x10) != 0;
    const int n = enc.encodeFrame(pcm, mode, dtx, out);
    if (n != quillon::amrwb::frameBytesForToc(out[0])) __builtin_trap();
    if (dec.decodeFrame(out, static_cast<size_t>(n), back) != n) __builtin_trap();
  }
  // Out-of-range modes are refused.
  if (enc.encodeFrame(pcm, 9, false, out) != -1) __builtin_trap();
  return 0;
}
