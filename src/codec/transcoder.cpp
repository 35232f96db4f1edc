#include "quillon/transcoder.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace TAV {

namespace {
bool isPcm16(const AudioFormat& f) {
  return f.getCompression() == CT_PCM16 || f.getCompression() == CT_PCM16_16K;
}
// The frame size in which the input codec must be handed its input, or 0
// when it takes any count of bytes: G.711, 8-bit PCM and G.726 at 32 and
// 16 kbit/s decode byte by byte (a G.726 group of those rates is one byte),
// and the codecLib G.729 codec joins a partial frame to the next call inside
// its engine (it must see each call's input at once to be offered that
// call's room). TETRA, ICELP48 and G.726 at 40 and 24 kbit/s (5- and 3-byte
// groups) need whole frames.
uint32 wholeFrameBytes(const AudioFormat& f, uint32 limit) {
  switch (f.getCompression()) {
    case CT_G711_ALAW: case CT_G711_ULAW: case CT_PCM8:
    case CT_G726_32: case CT_G726_16: case CT_G726_32_LSB: case CT_G726_16_LSB:
    case CT_G729:
      return 0;
    default:
      break;
  }
  const uint32 frame = f.getBytesPerFrame();
  return frame <= 1 || frame > limit ? 0 : frame;
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
      m_outFormat(CT_PCM16, 1),
      m_resamplerFactory(nullptr),
      m_heldCount(0),
      m_held{} {}

TransCoder::TransCoder(const TransCoder& other) = default;
TransCoder& TransCoder::operator=(const TransCoder& other) = default;

TransCoder::~TransCoder() { close(); }

bool TransCoder::open(const AudioFormat& in, const AudioFormat& out) {
  if (in.getSamplesPerSecond() != out.getSamplesPerSecond()) {
    IResamplerFactory* const factory = IResamplerFactory::s_DefaultFactory;
    if (!factory) return false;
    // A pair the factory does not serve leaves no resampler; opening goes on.
    // The resampler goes back to this factory, even if the host has set
    // another default by then.
    m_resamplerFactory = factory;
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
  if (!encoderSide) m_heldCount = 0;
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
  if (m_resampler && m_resamplerFactory) m_resamplerFactory->releaseResampler(m_resampler);
  m_resampler = nullptr;
  m_resamplerFactory = nullptr;
  m_heldCount = 0;
  return true;
}

bool TransCoder::closeIn() {
  destroy(m_inCodec);
  m_heldCount = 0;
  return true;
}

bool TransCoder::closeOut() {
  destroy(m_outCodec);
  return true;
}

bool TransCoder::reopen() { return reopenIn() && reopenOut(); }
bool TransCoder::reopenIn() {
  m_heldCount = 0;
  return m_inCodec ? m_inCodec->init() : true;
}
bool TransCoder::reopenOut() { return m_outCodec ? m_outCodec->init() : true; }

// The input bytes the next decode hands the input codec: the held partial
// frame and inBytes, cut to whole frames where the codec needs them.
uint32 TransCoder::decodableBytes(uint32 inBytes) const {
  const uint32 frame = m_inCodec ? wholeFrameBytes(m_inFormat, kMaxHeldBytes) : 0;
  if (frame == 0) return inBytes;
  const uint64_t whole = (static_cast<uint64_t>(m_heldCount) + inBytes) / frame * frame;
  return static_cast<uint32>(std::min<uint64_t>(whole, UINT32_MAX / frame * frame));
}

// Decodes the held partial frame completed from `in`, then the whole frames
// of the rest of `in`, and keeps the partial frame that remains.
uint32 TransCoder::decodeWholeFrames(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) {
  const uint32 frame = wholeFrameBytes(m_inFormat, kMaxHeldBytes);
  if (frame == 0) return m_inCodec->decode(in, inBytes, out, outCapacity);
  const uint32 given = inBytes;
  uint32 offset = 0;
  uint32 written = 0;
  if (m_heldCount) {
    offset = std::min(frame - m_heldCount, given);
    if (offset) std::memcpy(m_held + m_heldCount, in, offset);
    m_heldCount += offset;
    if (m_heldCount < frame) return 0;
    m_heldCount = 0;
    uint32 count = frame;
    // The room of exactly one frame: some codecs insist on it.
    const uint32 room = std::min(outCapacity, m_inFormat.bytesToSamples(frame) * 2);
    written = m_inCodec->decode(m_held, count, out, room);
    inBytes = count;
  }
  const uint32 whole = (given - offset) / frame * frame;
  if (whole) {
    uint32 count = whole;
    const uint32 room = outCapacity > written ? outCapacity - written : 0;
    written += m_inCodec->decode(in + offset, count, out + written / 2, room);
    inBytes = count;
  }
  m_heldCount = given - offset - whole;
  if (m_heldCount) std::memcpy(m_held, in + offset + whole, m_heldCount);
  return written;
}

// PCM input as samples: the caller's bytes where they sit on a sample
// boundary, else a copy (the PCM buffer is free on the paths without an
// input codec).
const int16* TransCoder::alignedSamples(const uint8* in, uint32 bytes) {
  if (reinterpret_cast<uintptr_t>(in) % alignof(int16) == 0) return reinterpret_cast<const int16*>(in);
  m_pcm.setBufferSize(bytes, false);
  if (!m_pcm.getBuffer()) return nullptr;
  std::memcpy(m_pcm.getBuffer(), in, bytes);
  return reinterpret_cast<const int16*>(m_pcm.getBuffer());
}

uint32 TransCoder::transcode(const uint8* in, uint32& inBytes, uint8* out, uint32 outCapacity) {
  if (m_inCodec && m_outCodec) {
    const uint32 n = m_inFormat.bytesToSamples(decodableBytes(inBytes)) * 2;
    // Codecs without frames of their own decode every byte they are given,
    // whole frames or not: the storage holds that too.
    const uint32 room = std::max(n, m_inFormat.bytesToSamplesUnaligned(decodableBytes(inBytes)) * 2);
    growPcmBuffer(room);
    if (room && !m_pcm.getBuffer()) return 0;
    int16* pcm = reinterpret_cast<int16*>(m_pcm.getBuffer());
    uint32 count = decodeWholeFrames(in, inBytes, pcm, n);
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
    const int16* samples = alignedSamples(in, inBytes);
    if (!samples && inBytes) return 0;
    if (!m_resampler) {
      uint32 count = inBytes;
      return m_outCodec->encode(samples, count, out, outCapacity);
    }
    uint32 m = m_resampler->getOutputCount(m_inFormat.bytesToSamples(inBytes)) * 2;
    m_resampled.setBufferSize(m, false);
    if (m && !m_resampled.getBuffer()) return 0;
    int16* resampled = reinterpret_cast<int16*>(m_resampled.getBuffer());
    m_resampler->resample(samples, inBytes, resampled, m);
    return m_outCodec->encode(resampled, m, out, outCapacity);
  }
  if (m_inCodec) {
    if (!m_resampler) return decodeWholeFrames(in, inBytes, reinterpret_cast<int16*>(out), outCapacity);
    const uint32 n = m_inFormat.bytesToSamples(decodableBytes(inBytes)) * 2;
    growPcmBuffer(n);
    if (n && !m_pcm.getBuffer()) return 0;
    int16* pcm = reinterpret_cast<int16*>(m_pcm.getBuffer());
    const uint32 d = decodeWholeFrames(in, inBytes, pcm, n);
    uint32 produced = outCapacity;
    m_resampler->resample(pcm, d, reinterpret_cast<int16*>(out), produced);
    return produced;
  }
  if (m_resampler) {
    const int16* samples = alignedSamples(in, inBytes);
    if (!samples && inBytes) return 0;
    uint32 produced = outCapacity;
    m_resampler->resample(samples, inBytes, reinterpret_cast<int16*>(out), produced);
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
