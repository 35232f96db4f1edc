#include "quillon/codec.h"

#include <new>

#include "codec/codec_registry.h"

namespace TAV {

Codec::Codec() : m_direction(0), m_format() {}
Codec::Codec(const Codec& other) = default;
Codec& Codec::operator=(const Codec& other) = default;
Codec::~Codec() = default;

bool Codec::open(const AudioFormat& format, bool encoder) {
  m_format = format;
  m_direction = encoder ? 1 : -1;
  return init();
}

bool Codec::close() {
  m_direction = 0;
  return true;
}

uint32 Codec::getPendingEncodedData(uint8*, uint32) { return 0; }
uint32 Codec::hasPendingEncodedData() { return 0; }

Codec* Codec::getCodec(const AudioFormat& format, bool encoder) {
  const CompressionType code = format.getCompression();
  if (code < CT_G711_ALAW || code > CT_PCM8) return nullptr;
  Codec* codec = quillon::createCodecFor(code);
  if (!codec) return nullptr;
  if (!codec->open(format, encoder)) {
    delete codec;
    return nullptr;
  }
  return codec;
}

}  // namespace TAV
