// G.711 A-law (code 1) and mu-law (code 2).
#ifndef QUILLON_CODECS_CODEC_G711_H
#define QUILLON_CODECS_CODEC_G711_H

#include "quillon/codec.h"

namespace TAV {

class QUILLON_API CodecG711 : public Codec {
 public:
  CodecG711() = default;
  bool open(const AudioFormat& format, bool encoder) override;
  bool init() override { return true; }
  // Every input byte counts as consumed; out needs room for 2 * inBytes.
  uint32 decode(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) override;
  // inBytes / 2 samples become as many bytes; out needs room for them.
  uint32 encode(const int16* in, uint32& inBytes, uint8* out, uint32 outCapacity) override;
};

}  // namespace TAV

#endif
