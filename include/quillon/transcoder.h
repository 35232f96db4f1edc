// Converts a mono stream from one format to another through 16-bit PCM:
// input codec, optional resampler, output codec.
#ifndef QUILLON_TRANSCODER_H
#define QUILLON_TRANSCODER_H

#include "quillon/audio_format.h"
#include "quillon/codec.h"
#include "quillon/decoder_buffer.h"
#include "quillon/resampler.h"

namespace TAV {

class QUILLON_API TransCoder {
 public:
  TransCoder();
  // Member-wise (shallow) copies: the copies share codecs, buffers and
  // resampler, and only one of them may be closed and destroyed.
  TransCoder(const TransCoder& other);
  TransCoder& operator=(const TransCoder& other);
  ~TransCoder();

  bool open(const AudioFormat& in, const AudioFormat& out);
  bool close();
  bool reopen();

  // Returns the bytes written to out; inBytes comes back as the input
  // codec's own count.
  uint32 transcode(const uint8* in, uint32& inBytes, uint8* out, uint32 outCapacity);
  uint32 getOutSize(uint32 inBytes);
  uint32 getOutSizeUnaligned(uint32 inBytes);
  uint32 alignConvertibleByteCountNonVBR(uint32 bytes);
  uint32 hasPendingEncodedData();
  uint32 getPendingEncodedData(uint8* out, uint32 outCapacity);

  const AudioFormat& getInputFormat() const { return m_inFormat; }
  const AudioFormat& getOutputFormat() const { return m_outFormat; }

 protected:
  friend class CompatDecoder;
  bool openIn(const AudioFormat& format);
  bool openOut(const AudioFormat& format);
  bool closeIn();
  bool closeOut();
  bool reopenIn();
  bool reopenOut();

 private:
  bool openSide(const AudioFormat& format, bool encoderSide);
  void growPcmBuffer(uint32 n);

  DecoderBuffer m_pcm;
  DecoderBuffer m_resampled;
  Codec* m_inCodec;
  Codec* m_outCodec;
  IResampler* m_resampler;
  AudioFormat m_inFormat;
  AudioFormat m_outFormat;
};

}  // namespace TAV

#endif
