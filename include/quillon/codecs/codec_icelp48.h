// ICELP48 decoding (code 30): 4.8 kbit/s CELP, 18-byte frames of 240
// samples (30 ms) at 8000 Hz.
#ifndef QUILLON_CODECS_CODEC_ICELP48_H
#define QUILLON_CODECS_CODEC_ICELP48_H

#include "quillon/codec.h"

namespace quillon::icelp48 {
class Icelp48Decoder;
}

namespace TAV {

// Decode only: open() refuses an encoder and encode() always yields nothing.
//
// decode() requires outCapacity * 9 == inBytes * 240 (480 output bytes for
// every 18 input bytes) and returns 0 otherwise. It decodes
// (inBytes / 2 - 1) / 9 + 1 frames, a trailing partial frame counting as a
// whole one (its missing bytes read as zero, its samples cut to the room
// left), returns 480 bytes per frame and leaves in inBytes the bytes
// consumed: 18 per frame, plus one when inBytes was odd.
class QUILLON_API CodecICELP48 : public Codec {
 public:
  CodecICELP48() = default;
  ~CodecICELP48() override;

  bool open(const AudioFormat& format, bool encoder) override;
  bool close() override;
  // Closes (through the virtual close) and creates a fresh engine with the
  // default configuration. Returns true even when the engine could not be
  // created; decode() then produces nothing.
  bool init() override;
  uint32 decode(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) override;
  uint32 encode(const int16* in, uint32& inBytes, uint8* out, uint32 outCapacity) override;

 private:
  CodecICELP48(const CodecICELP48&) = delete;
  CodecICELP48& operator=(const CodecICELP48&) = delete;

  quillon::icelp48::Icelp48Decoder* m_engine = nullptr;
};

}  // namespace TAV

#endif
