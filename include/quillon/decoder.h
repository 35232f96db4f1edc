// The simple decoding face of the library: a decoder for an input format,
// opened with an output format, fed with compressed bytes.
#ifndef QUILLON_DECODER_H
#define QUILLON_DECODER_H

#include "quillon/audio_format.h"
#include "quillon/transcoder.h"

namespace TAV {

class QUILLON_API Decoder {
 public:
  // A new decoder owned by the caller (input side open), or null.
  static Decoder* getDecoder(const AudioFormat& input);
  // Closes and destroys the decoder; accepts null; always true.
  static bool releaseDecoder(Decoder* decoder);

  virtual bool open(const AudioFormat& output) = 0;
  virtual bool close();
  virtual bool reset() = 0;
  virtual uint32 decode(const uint8* in, uint8* out, uint32 inBytes) = 0;

  uint32 getOutputSize(uint32 inBytes) const;
  const AudioFormat& getInputFormat() const { return m_inFormat; }
  const AudioFormat& getOutputFormat() const { return m_outFormat; }

 protected:
  explicit Decoder(const AudioFormat& input);
  Decoder(const Decoder& other);
  Decoder& operator=(const Decoder& other);
  virtual ~Decoder();

  AudioFormat m_inFormat;
  AudioFormat m_outFormat;
};

// The decoder over a TransCoder. It opens the transcoder's two sides
// separately and so never converts the sample rate.
class QUILLON_API CompatDecoder : public Decoder {
 public:
  explicit CompatDecoder(const AudioFormat& input);
  ~CompatDecoder() override;

  bool open(const AudioFormat& output) override;
  bool close() override;
  bool reset() override;
  uint32 decode(const uint8* in, uint8* out, uint32 inBytes) override;

 private:
  friend class Decoder;
  bool openInput() { return m_transcoder.openIn(m_inFormat); }

  TransCoder m_transcoder;
};

}  // namespace TAV

#endif
