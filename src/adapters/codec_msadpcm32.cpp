#include "quillon/codecs/codec_msadpcm32.h"

#include <new>

#include "engines/msadpcm/msadpcm_encoder.h"

namespace TAV {

CodecMSADPCM32::CodecMSADPCM32() : m_encoder(new (std::nothrow) quillon::MsAdpcmBlockEncoder()) {}

CodecMSADPCM32::~CodecMSADPCM32() { delete m_encoder; }

bool CodecMSADPCM32::open(const AudioFormat& format, bool encoder) {
  if (format.getCompression() != CT_MSADPCM) return false;
  if (m_encoder) m_encoder->setChannels(format.getChannels());
  return Codec::open(format, encoder);
}

bool CodecMSADPCM32::close() { return Codec::close(); }

bool CodecMSADPCM32::init() { return m_encoder != nullptr; }

uint32 CodecMSADPCM32::decode(const uint8*, uint32&, int16*, uint32) { return 0; }

uint32 CodecMSADPCM32::encode(const int16* in, uint32& inBytes, uint8* out, uint32 outCapacity) {
  if (!m_encoder) return 0;
  return m_encoder->encode(in, inBytes / 2, out, outCapacity);
}

uint32 CodecMSADPCM32::getPendingEncodedData(uint8* out, uint32) {
  return m_encoder ? m_encoder->flush(out) : 0;
}

uint32 CodecMSADPCM32::hasPendingEncodedData() {
  return m_encoder && m_encoder->hasPending() ? quillon::MsAdpcmBlockEncoder::kBlockBytes : 0;
}

}  // namespace TAV
