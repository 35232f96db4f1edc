// TAV::CodecLibAdapter: the codec for compression codes 20 (G.729 Annex A),
// 50-52 (G.722) and 65 (AMR-WB, length-prefixed frames). It holds no speech
// coding of its own; it forwards to the codecLib engine front, converting
// between the framework's byte counts and the engine's sample counts.
#ifndef QUILLON_CODECS_CODEC_LIB_ADAPTER_H
#define QUILLON_CODECS_CODEC_LIB_ADAPTER_H

#include "quillon/codec.h"

namespace quillon::codeclib {

struct HandleRes;

// The codecLib options record: the caller owns it and passes it to every
// engine call. A query without info record clears it and writes the
// engine's defaults.
struct CodecLibOptions {
  TAV::int16 mode;         // G.722 mode (1..3) or AMR-WB mode index
  TAV::int16 badFrame;     // frame-erasure flag for the decoder; > 0 marks a bad frame
  TAV::int16 param;        // engine parameter word
  TAV::int16 dtx;          // AMR-WB encoder DTX switch
  TAV::int32 frameLength;  // G.722 frame in samples
  TAV::int32 engine[12];   // the engines' own fields
};

}  // namespace quillon::codeclib

namespace TAV {

class QUILLON_API CodecLibAdapter : public Codec {
 public:
  CodecLibAdapter();
  ~CodecLibAdapter() override;

  bool open(const AudioFormat& format, bool encoder) override;
  bool close() override;
  bool init() override;
  // Codes 20, 50-52: inBytes returns the coded bytes the engine holds back.
  // Code 65: inBytes returns the bytes not consumed.
  uint32 decode(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) override;
  // inBytes returns twice the samples held back in the engine.
  uint32 encode(const int16* in, uint32& inBytes, uint8* out, uint32 outCapacity) override;

 private:
  CodecLibAdapter(const CodecLibAdapter&) = delete;
  CodecLibAdapter& operator=(const CodecLibAdapter&) = delete;

  uint32 decodeLengthPrefixed(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity);

  int32 m_codecId;
  quillon::codeclib::HandleRes* m_handle;
  quillon::codeclib::CodecLibOptions m_options;
  quillon::codeclib::CodecLibOptions m_spareOptions;  // cleared by open, not read
};

}  // namespace TAV

#endif
