// The abstract codec and its factory.
#ifndef QUILLON_CODEC_H
#define QUILLON_CODEC_H

#include "quillon/audio_format.h"

namespace TAV {

class QUILLON_API Codec {
 public:
  virtual ~Codec();

  // Stores the format and direction, then runs init(). Derived classes
  // reject the codes and directions they do not serve before calling it.
  virtual bool open(const AudioFormat& format, bool encoder);
  virtual bool close();
  virtual bool init() = 0;
  // inBytes: coded bytes available on entry; on return a count each codec
  // defines. Returns the PCM bytes written to out (room: outCapacity bytes).
  virtual uint32 decode(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) = 0;
  // inBytes: PCM bytes on entry; returns the coded bytes written to out.
  virtual uint32 encode(const int16* in, uint32& inBytes, uint8* out, uint32 outCapacity) = 0;
  virtual uint32 getPendingEncodedData(uint8* out, uint32 outCapacity);
  virtual uint32 hasPendingEncodedData();

  bool isEncoder() const { return m_direction == 1; }
  bool isDecoder() const { return m_direction == -1; }

  // Returns an open codec owned by the caller, or null.
  static Codec* getCodec(const AudioFormat& format, bool encoder);

 protected:
  Codec();
  Codec(const Codec& other);
  Codec& operator=(const Codec& other);

  int32 m_direction;
  AudioFormat m_format;
};

}  // namespace TAV

#endif
