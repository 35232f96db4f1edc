// SILK decoder (compression codes 60-63): length-prefixed SILK packets to
// 16-bit mono PCM at 8000 Hz.
#ifndef QUILLON_CODECS_CODEC_SILK_H
#define QUILLON_CODECS_CODEC_SILK_H

#include "quillon/codec.h"

namespace TAV {

class QUILLON_API CodecSILK : public Codec {
 public:
  // The engine's control record, in its field order.
  struct DecControl {
    int32 API_sampleRate;
    int32 frameSize;
    int32 framesPerPacket;
    int32 moreInternalDecoderFrames;
    int32 inBandFECOffset;
  };

  static const uint32 kScratchBytes = 5120;
  static const int kMaxFramesPerPacket = 5;

  CodecSILK();
  ~CodecSILK() override;

  bool open(const AudioFormat& format, bool encoder) override;
  bool close() override;
  bool init() override;
  // inBytes: bytes available on entry, bytes left unconsumed on return.
  uint32 decode(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) override;
  // Decode-only: always 0.
  uint32 encode(const int16* in, uint32& inBytes, uint8* out, uint32 outCapacity) override;

 private:
  CodecSILK(const CodecSILK&) = delete;
  CodecSILK& operator=(const CodecSILK&) = delete;
  void release();

  void* m_decoderState;
  int16* m_scratch;
  DecControl m_control;
};

}  // namespace TAV

#endif
