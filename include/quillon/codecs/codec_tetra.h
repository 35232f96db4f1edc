// TETRA speech decoding (compression code 40, CT_TETRA): 18-byte frames of
// the ETSI EN 300 395-2 full-rate codec to 240 samples of 8 kHz PCM each.
#ifndef QUILLON_CODECS_CODEC_TETRA_H
#define QUILLON_CODECS_CODEC_TETRA_H

#include "quillon/codec.h"

namespace TAV {

class QUILLON_API CodecTetra : public Codec {
 public:
  CodecTetra();
  CodecTetra(const CodecTetra& other);
  CodecTetra& operator=(const CodecTetra& other);
  ~CodecTetra() override;

  // Accepts code 40 only.
  bool open(const AudioFormat& format, bool encoder) override;
  // Resets the decoder to its home state.
  bool init() override;
  // Decodes whole 18-byte frames until inBytes reaches 0 and returns 480
  // bytes per frame. The caller passes a multiple of 18 bytes and room for
  // all the output; outCapacity is not consulted.
  uint32 decode(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) override;
  // Decode only: always 0.
  uint32 encode(const int16* in, uint32& inBytes, uint8* out, uint32 outCapacity) override;

  static constexpr uint32 kFrameBytes = 18;
  static constexpr uint32 kFrameSamples = 240;

 private:
  // The decoder state, held by value (its type is internal to the library).
  static constexpr uint32 kStateBytes = 1024;
  alignas(8) unsigned char m_state[kStateBytes];
};

}  // namespace TAV

#endif
