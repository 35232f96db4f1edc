// Opus decoding (code 64) through the system's libopus.
#ifndef QUILLON_CODECS_CODEC_OPUS_H
#define QUILLON_CODECS_CODEC_OPUS_H

#include "quillon/codec.h"

struct OpusDecoder;  // libopus's opaque decoder state

namespace TAV {

// Decodes a stream of Opus packets, each preceded by its byte count as a
// 16-bit signed little-endian number, to 16-bit mono PCM at 16000 Hz.
// Decode only: encode() always yields nothing.
//
// decode() leaves in inBytes the input bytes not consumed. A packet is
// consumed together with its prefix except in two cases, where only the
// 2-byte prefix counts as consumed and decoding stops: the payload is
// longer than the input left (or the prefix is negative), or libopus
// rejects the packet. A packet whose PCM no longer fits in the output room
// is consumed whole and its samples are dropped; decoding stops there.
class QUILLON_API CodecOpus : public Codec {
 public:
  CodecOpus();
  ~CodecOpus() override;

  // Serves code 64 only; the scratch buffer is allocated here.
  bool open(const AudioFormat& format, bool encoder) override;
  bool close() override;
  // Creates the libopus decoder (16000 Hz, mono).
  bool init() override;
  uint32 decode(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) override;
  uint32 encode(const int16* in, uint32& inBytes, uint8* out, uint32 outCapacity) override;

  // One second of PCM at 16000 Hz: the most a single packet may decode to.
  static constexpr uint32 kScratchSamples = 16000;

 private:
  CodecOpus(const CodecOpus&) = delete;
  CodecOpus& operator=(const CodecOpus&) = delete;

  void releaseDecoder();

  OpusDecoder* m_decoder;
  int16* m_scratch;
};

}  // namespace TAV

#endif
