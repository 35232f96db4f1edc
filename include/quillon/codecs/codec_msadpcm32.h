// Microsoft ADPCM encoder for compression code 101: 16-bit PCM in, 256-byte
// blocks out, mono or stereo (interleaved input).
#ifndef QUILLON_CODECS_CODEC_MSADPCM32_H
#define QUILLON_CODECS_CODEC_MSADPCM32_H

#include "quillon/codec.h"

namespace quillon {
class MsAdpcmBlockEncoder;
}

namespace TAV {

class QUILLON_API CodecMSADPCM32 : public Codec {
 public:
  CodecMSADPCM32();
  ~CodecMSADPCM32() override;
  CodecMSADPCM32(const CodecMSADPCM32&) = delete;
  CodecMSADPCM32& operator=(const CodecMSADPCM32&) = delete;

  // False unless the code is 101; takes the channel count from the format.
  // Neither open nor close resets the encoder state or an open block.
  bool open(const AudioFormat& format, bool encoder) override;
  bool close() override;
  bool init() override;
  // Not a decoder: writes nothing.
  uint32 decode(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) override;
  // Encodes inBytes / 2 samples; returns the bytes of the whole blocks
  // written (multiples of 256, only while a whole block fits in
  // outCapacity). inBytes is left as it was: all input counts as consumed.
  uint32 encode(const int16* in, uint32& inBytes, uint8* out, uint32 outCapacity) override;
  // Pads the open block with encoded silence and writes it (out needs 256
  // bytes); returns 256, or 0 when no block is open. The block stays
  // pending: a later encode emits it again before anything new.
  uint32 getPendingEncodedData(uint8* out, uint32 outCapacity) override;
  // 256 while a block is open (or samples are held back), else 0.
  uint32 hasPendingEncodedData() override;

 private:
  quillon::MsAdpcmBlockEncoder* m_encoder;
};

}  // namespace TAV

#endif
