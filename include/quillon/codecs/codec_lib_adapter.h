// TAV::CodecLibAdapter: the codec for compression codes 20 (G.729 Annex A),
// 50-52 (G.722) and 65 (AMR-WB, length-prefixed frames). It holds no speech
// coding of its own; it forwards to the codecLib engine front, converting
// between the framework's byte counts and the engine's sample counts.
#ifndef QUILLON_CODECS_CODEC_LIB_ADAPTER_H
#define QUILLON_CODECS_CODEC_LIB_ADAPTER_H

#include "quillon/codec.h"
#include "quillon/codecs/codec_lib_options.h"

namespace quillon::codeclib {
struct HandleRes;  // an open engine handle
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
