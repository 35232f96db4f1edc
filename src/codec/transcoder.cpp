#include "quillon/transcoder.h"

#include <cstring>

namespace TAV {

namespace {
bool isPcm16(const AudioFormat& f) {
  return f.getCompression() == CT_PCM16 || f.getCompression() == CT_PCM16_16K;
}
void destroy(Codec*& codec) {
  if (codec) {
    codec->close();
    delete codec;
    codec = nullptr;
  }
}
}  // namespace

TransCoder::TransCoder()
    : m_inCodec(nullptr),
      m_outCodec(nullptr),
      m_resampler(nullptr),
      m_inFormat(CT_PCM16, 1),
      m_outFormat(CT_PCM16, 1) {}

TransCoder::TransCoder(const TransCoder& other) = default;
TransCoder& TransCoder::operator=(const TransCoder& other) = default;

TransCoder::~TransCoder() { close(); }

bool TransCoder::open(const AudioFormat& in, const AudioFormat& out) {
  if (in.getSamplesPerSecond() != out.getSamplesPerSecond()) {
    IResamplerFactory* const factory = IResamplerFactory::s_DefaultFactory;
    if (!factory) return false;
    // A pair the factory does not serve leaves no resampler; opening goes on.
    m_resampler = factory->createResampler(in.getSamplesPerSecond(), out.getSamplesPerSecond());
  }
  if (openIn(in) && openOut(out)) return true;
  close();
  return false;
}

bool TransCoder::openSide(const AudioFormat& format, bool encoderSide) {
  if (format.getChannels() != 1) return false;
  Codec*& codec = encoderSide ? m_outCodec : m_inCodec;
  AudioFormat& sideFormat = encoderSide ? m_outFormat : m_inFormat;
  // Same code and channels: restart the engine already held.
  if (codec && sideFormat == format) return codec->init();
  destroy(codec);
  sideFormat = format;
  if (isPcm16(format)) return true;
  codec = Codec::getCodec(format, encoderSide);
  return codec != nullptr;
}

// The decoder is offered n bytes, but the codecLib codecs take that count
// as samples (their decode may emit a frame completed by bytes held from an
// earlier call), so the storage is twice n.
void TransCoder::growPcmBuffer(uint32 n) { m_pcm.setBufferSize(2 * n, false); }

bool TransCoder::openIn(const AudioFormat& format) { return openSide(format, false); }
bool TransCoder::openOut(const AudioFormat& format) { return openSide(format, true); }

bool TransCoder::close() {
  destroy(m_inCodec);
  destroy(m_outCodec);
  IResamplerFactory* const factory = IResamplerFactory::s_DefaultFactory;
  if (m_resampler && factory) factory->releaseResampler(m_resampler);
  m_resampler = nullptr;
  return true;
}

bool TransCoder::closeIn() {
  destroy(m_inCodec);
  return true;
}

bool TransCoder::closeOut() {
  destroy(m_outCodec);
  return true;
}

bool TransCoder::reopen() { return reopenIn() && reopenOut(); }
bool TransCoder::reopenIn() { return m_inCodec ? m_inCodec->init() : true; }
bool TransCoder::reopenOut() { return m_outCodec ? m_outCodec->init() : true; }

uint32 TransCoder::transcode(const uint8* in, uint32& inBytes, uint8* out, uint32 outCapacity) {
  if (m_inCodec && m_outCodec) {
    const uint32 n = m_inFormat.bytesToSamples(inBytes) * 2;
    growPcmBuffer(n);
    if (n && !m_pcm.getBuffer()) return 0;
    int16* pcm = reinterpret_cast<int16*>(m_pcm.getBuffer());
    uint32 count = m_inCodec->decode(in, inBytes, pcm, n);
    if (m_resampler) {
      uint32 m = m_resampler->getOutputCount(count);
      m_resampled.setBufferSize(m, false);
      if (m && !m_resampled.getBuffer()) return 0;
      int16* resampled = reinterpret_cast<int16*>(m_resampled.getBuffer());
      // The whole buffer is handed on here, not just the decoded part.
      m_resampler->resample(pcm, n, resampled, m);
      pcm = resampled;
      count = m;
    }
    return m_outCodec->encode(pcm, count, out, outCapacity);
  }
  if (m_outCodec) {
    if (!m_resampler) {
      uint32 count = inBytes;
      return m_outCodec->encode(reinterpret_cast<const int16*>(in), count, out, outCapacity);
    }
    uint32 m = m_resampler->getOutputCount(m_inFormat.bytesToSamples(inBytes)) * 2;
    m_resampled.setBufferSize(m, false);
    if (m && !m_resampled.getBuffer()) return 0;
    int16* resampled = reinterpret_cast<int16*>(m_resampled.getBuffer());
    m_resampler->resample(reinterpret_cast<const int16*>(in), inBytes, resampled, m);
    return m_outCodec->encode(resampled, m, out, outCapacity);
  }
  if (m_inCodec) {
    if (!m_resampler) return m_inCodec->decode(in, inBytes, reinterpret_cast<int16*>(out), outCapacity);
    const uint32 n = m_inFormat.bytesToSamples(inBytes) * 2;
    growPcmBuffer(n);
    if (n && !m_pcm.getBuffer()) return 0;
    int16* pcm = reinterpret_cast<int16*>(m_pcm.getBuffer());
    const uint32 d = m_inCodec->decode(in, inBytes, pcm, n);
    uint32 produced = outCapacity;
    m_resampler->resample(pcm, d, reinterpret_cast<int16*>(out), produced);
    return produced;
  }
  if (m_resampler) {
    uint32 produced = outCapacity;
    m_resampler->resample(reinterpret_cast<const int16*>(in), inBytes, reinterpret_cast<int16*>(out), produced);
    return produced;
  }
  if (inBytes) std::memcpy(out, in, inBytes);
  return inBytes;
}

uint32 TransCoder::getOutSize(uint32 inBytes) {
  uint32 s = m_inFormat.bytesToSamples(inBytes);
  if (m_resampler) s = m_resampler->getOutputCount(s);
  return m_outFormat.samplesToBytes(s);
}

uint32 TransCoder::getOutSizeUnaligned(uint32 inBytes) {
  uint32 s = m_inFormat.bytesToSamplesUnaligned(inBytes);
  if (m_resampler) s = m_resampler->getOutputCount(s);
  return m_outFormat.samplesToBytesUnaligned(s);
}

uint32 TransCoder::alignConvertibleByteCountNonVBR(uint32 bytes) {
  const uint32 frame = m_inFormat.getBytesPerFrame();
  return frame == 0 ? bytes : bytes - bytes % frame;
}

uint32 TransCoder::hasPendingEncodedData() { return m_outCodec ? m_outCodec->hasPendingEncodedData() : 0; }

uint32 TransCoder::getPendingEncodedData(uint8* out, uint32 outCapacity) {
  return m_outCodec ? m_outCodec->getPendingEncodedData(out, outCapacity) : 0;
}

}  // namespace TAV
