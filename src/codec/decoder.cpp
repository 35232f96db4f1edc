#include "quillon/decoder.h"

#include <new>

namespace TAV {

Decoder::Decoder(const AudioFormat& input) : m_inFormat(input), m_outFormat() {}
Decoder::Decoder(const Decoder& other) = default;
Decoder& Decoder::operator=(const Decoder& other) = default;
Decoder::~Decoder() = default;

bool Decoder::close() {
  m_outFormat.clear();
  return true;
}

uint32 Decoder::getOutputSize(uint32 inBytes) const {
  return m_outFormat.samplesToBytes(m_inFormat.bytesToSamples(inBytes));
}

Decoder* Decoder::getDecoder(const AudioFormat& input) {
  switch (input.getCompression()) {
    case CT_G711_ALAW: case CT_G711_ULAW:
    case CT_G726_40: case CT_G726_32: case CT_G726_24: case CT_G726_16:
    case CT_G726_40_LSB: case CT_G726_32_LSB: case CT_G726_24_LSB: case CT_G726_16_LSB:
    case CT_G729: case CT_ICELP48: case CT_TETRA:
    case CT_G722: case CT_G722_MODE2: case CT_G722_MODE3:
    case CT_PCM16: case CT_PCM8:
      break;
    default:
      return nullptr;
  }
  CompatDecoder* decoder = new (std::nothrow) CompatDecoder(input);
  if (!decoder) return nullptr;
  if (!decoder->openInput()) {
    delete decoder;
    return nullptr;
  }
  return decoder;
}

bool Decoder::releaseDecoder(Decoder* decoder) {
  if (decoder) {
    decoder->close();
    delete decoder;
  }
  return true;
}

CompatDecoder::CompatDecoder(const AudioFormat& input) : Decoder(input) {}
CompatDecoder::~CompatDecoder() = default;

bool CompatDecoder::open(const AudioFormat& output) {
  m_outFormat = output;
  return m_transcoder.openOut(m_outFormat);
}

bool CompatDecoder::close() {
  m_transcoder.closeOut();
  m_outFormat.clear();
  return true;
}

bool CompatDecoder::reset() {
  m_transcoder.closeOut();
  return m_transcoder.openOut(m_outFormat);
}

uint32 CompatDecoder::decode(const uint8* in, uint8* out, uint32 inBytes) {
  const AudioFormat& inFormat = m_transcoder.getInputFormat();
  const uint32 capacity = m_outFormat.samplesToBytes(inFormat.bytesToSamples(inBytes));
  uint32 consumed = inBytes;
  return m_transcoder.transcode(in, consumed, out, capacity);
}

}  // namespace TAV
