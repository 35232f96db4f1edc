// 8-bit linear PCM (code 102), excess-128 coding.
#ifndef QUILLON_CODECS_CODEC_PCM_LINEAR_H
#define QUILLON_CODECS_CODEC_PCM_LINEAR_H

#include "quillon/codec.h"

namespace TAV {

class QUILLON_API CodecPCMLinear : public Codec {
 public:
  CodecPCMLinear() = default;
  bool open(const AudioFormat& format, bool encoder) override;
  bool init() override { return true; }
  uint32 decode(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) override;
  uint32 encode(const int16* in, uint32& inBytes, uint8* out, uint32 outCapacity) override;
};

}  // namespace TAV

#endif
