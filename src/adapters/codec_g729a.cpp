#include "quillon/codecs/codec_g729a.h"

#include <new>

#include "engines/g729/decoder.h"

namespace TAV {

CodecG729A::CodecG729A() : m_decoder(nullptr) {}

CodecG729A::~CodecG729A() { delete m_decoder; }

bool CodecG729A::open(const AudioFormat& format, bool encoder) {
  if (format.getCompression() != CT_G729) return false;
  return Codec::open(format, encoder);
}

bool CodecG729A::close() {
  delete m_decoder;
  m_decoder = nullptr;
  return Codec::close();
}

bool CodecG729A::init() {
  if (!m_decoder) m_decoder = new (std::nothrow) quillon::g729a::Decoder();
  if (!m_decoder) return false;
  m_decoder->reset();
  return true;
}

uint32 CodecG729A::decode(const uint8* in, uint32& inBytes, int16* out, uint32 /*outCapacity*/) {
  using quillon::g729a::Decoder;
  if (!m_decoder) return 0;
  const uint32 words = inBytes / 2;
  if (words == 0) return 0;
  const uint32 frames = (words - 1) / 5 + 1;
  try {
    for (uint32 f = 0; f < frames; f++) {
      m_decoder->decode(in, out);
      in += Decoder::kFrameBytes;
      out += Decoder::kFrameSamples;
    }
  } catch (...) {
    // A fatal error mid-stream leaves the decoder as just opened.
    m_decoder->reset();
    throw;
  }
  inBytes += 2 * (5 * frames - words);
  return frames * Decoder::kFrameSamples * 2;
}

uint32 CodecG729A::encode(const int16*, uint32&, uint8*, uint32) { return 0; }

}  // namespace TAV
