// TAV::CodecG729A: decode-only codec for compression code 20 (G.729
// Annex A, 10 bytes per 80 samples at 8 kHz) on the library's own
// fixed-point decoder. The factory maps code 20 to the codecLib adapter;
// construct this class directly to use it.
#ifndef QUILLON_CODECS_CODEC_G729A_H
#define QUILLON_CODECS_CODEC_G729A_H

#include "quillon/codec.h"

namespace quillon::g729a {
class Decoder;
}

namespace TAV {

class QUILLON_API CodecG729A : public Codec {
 public:
  CodecG729A();
  ~CodecG729A() override;
  CodecG729A(const CodecG729A&) = delete;
  CodecG729A& operator=(const CodecG729A&) = delete;

  // Accepts code 20 only (either direction; encode produces nothing).
  bool open(const AudioFormat& format, bool encoder) override;
  bool close() override;
  // Resets the decoder to its initial state.
  bool init() override;
  // Decodes n/5 frames rounded up, n = inBytes/2: a trailing partial frame
  // is decoded as a whole one, reading on past the given bytes, and inBytes
  // is raised to cover it. Needs room for 80 samples per started frame
  // (outCapacity is not checked). Returns the PCM bytes written.
  uint32 decode(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) override;
  // Returns 0: this codec does not encode.
  uint32 encode(const int16* in, uint32& inBytes, uint8* out, uint32 outCapacity) override;

 private:
  quillon::g729a::Decoder* m_decoder;
};

}  // namespace TAV

#endif
