// libFuzzer target: arbitrary bytes as a G.729 Annex A stream, through the
// codec adapter in whole frames and through the engine with frame erasures;
// then the same bytes as PCM through the encoder and back.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "engines/g729/decoder.h"
#include "engines/g729/encoder.h"
#include "quillon/codecs/codec_g729a.h"
#include "quillon/trace.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using quillon::g729a::Decoder;
  static const bool quiet = [] {
    quillon_set_trace_sink(nullptr);
    return true;
  }();
  (void)quiet;
  if (size < 1) return 0;
  const uint8_t erasureMask = data[0];
  data++;
  size--;
  const size_t frames = size / Decoder::kFrameBytes;

  TAV::CodecG729A codec;
  if (!codec.open(TAV::AudioFormat(TAV::CT_G729, 1), false)) return 0;
  std::vector<int16_t> out(frames * Decoder::kFrameSamples + 1);
  TAV::uint32 inBytes = static_cast<TAV::uint32>(frames * Decoder::kFrameBytes);
  if (frames > 0) codec.decode(data, inBytes, out.data(), static_cast<TAV::uint32>(out.size() * 2));

  // The engine alone, losing the frames picked by the mask bits.
  Decoder dec;
  for (size_t f = 0; f < frames; f++) {
    if ((erasureMask >> (f % 8)) & 1)
      dec.decodeErased(out.data());
    else
      dec.decode(data + f * Decoder::kFrameBytes, out.data());
  }

  using quillon::g729a::Encoder;
  Encoder enc;
  dec.reset();
  int16_t pcm[Encoder::kFrameSamples];
  uint8_t packed[Encoder::kFrameBytes];
  for (size_t f = 0; f + 1 <= size / (2 * Encoder::kFrameSamples); f++) {
    const uint8_t* p = data + f * 2 * Encoder::kFrameSamples;
    for (int i = 0; i < Encoder::kFrameSamples; i++) pcm[i] = static_cast<int16_t>(p[2 * i] | p[2 * i + 1] << 8);
    enc.encode(pcm, packed);
    dec.decode(packed, out.data());
  }
  return 0;
}
