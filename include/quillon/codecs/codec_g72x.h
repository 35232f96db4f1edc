// G.726 ADPCM decoder for compression codes 3-6 (codewords packed from the
// most significant bit) and 13-16 (packed from the least significant bit).
#ifndef QUILLON_CODECS_CODEC_G72X_H
#define QUILLON_CODECS_CODEC_G72X_H

#include "quillon/codec.h"

namespace quillon {
class G726Engine;
}

namespace TAV {

class QUILLON_API CodecG72X : public Codec {
 public:
  CodecG72X();
  ~CodecG72X() override;
  CodecG72X(const CodecG72X&) = delete;
  CodecG72X& operator=(const CodecG72X&) = delete;

  // Decoding only: false for an encoder or a code outside 3-6, 13-16.
  bool open(const AudioFormat& format, bool encoder) override;
  bool close() override;
  // Selects rate and packing from the format and resets the decoder state.
  // Throws the C string "invalid codec" when the format's code is not a
  // G.726 one.
  bool init() override;
  // Decodes whole groups (see the group table in the .cpp); on return
  // inBytes holds the number of groups decoded, not bytes. outCapacity is
  // not consulted: out needs room for every codeword of every group.
  uint32 decode(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) override;
  // Not an encoder: writes nothing.
  uint32 encode(const int16* in, uint32& inBytes, uint8* out, uint32 outCapacity) override;

 private:
  quillon::G726Engine* m_engine;
  uint32 m_bytesPerGroup;
  uint32 m_bitsPerCode;
  uint32 m_codesPerGroup;
  uint8 m_codeMask;
  bool m_lsbFirst;
};

}  // namespace TAV

#endif
