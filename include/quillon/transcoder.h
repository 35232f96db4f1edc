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
  // codec's own count (from its last decode call; unchanged when the input
  // codec was not called). Input codecs that need whole frames are handed
  // whole frames only: a partial frame at the end of `in` is kept and put in
  // front of the next call's input, so a call may decode one frame more than
  // its own input holds.
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
  uint32 decodableBytes(uint32 inBytes) const;
  uint32 decodeWholeFrames(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity);
  const int16* alignedSamples(const uint8* in, uint32 bytes);

  // Largest input frame the transcoder keeps back between calls.
  static constexpr uint32 kMaxHeldBytes = 256;

  DecoderBuffer m_pcm;
  DecoderBuffer m_resampled;
  Codec* m_inCodec;
  Codec* m_outCodec;
  IResampler* m_resampler;
  AudioFormat m_inFormat;
  AudioFormat m_outFormat;
  // The factory that made m_resampler; it gets it back.
  IResamplerFactory* m_resamplerFactory;
  // Input bytes of a partial frame, waiting for the rest of it.
  uint32 m_heldCount;
  uint8 m_held[kMaxHeldBytes];
};

}  // namespace TAV

#endif
