#include "pipeline.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace quillon::tool {

using namespace TAV;

namespace {

// Whole frames per call for the fixed-frame codecs: about 0.5 s of audio.
constexpr uint32_t kSliceTarget = 8000;
// A length prefix counts at most 32767 bytes; more than two packets' worth
// without progress means the stream cannot be decoded further.
constexpr size_t kMaxPacketCarry = 2 * (32767 + 2);
// Output offered per call to the packet codecs. A packet codec drops a
// packet whose output does not fit, so each call gets only as many whole
// packets as surely fit (see packetOutputBound).
constexpr uint32_t kPacketOutCapacity = 256 * 1024;
// Empty Opus packets (a second of concealment each) worth a warning.
constexpr uint64_t kEmptyPacketWarning = 30;

// The most PCM bytes one packet of `length` bytes can yield.
uint32_t packetOutputBound(CompressionType c, int length) {
  if (c == CT_OPUS) return length == 0 ? 32000 : 3840;  // concealment second; 120 ms
  if (c == CT_AMRWB) return 640;                         // one 20 ms frame
  return 1600;                                           // SILK: five 20 ms frames
}

bool isPacketCode(CompressionType c) { return AudioFormat::isMultiRateCompression(c); }
bool isG722(CompressionType c) { return c == CT_G722 || c == CT_G722_MODE2 || c == CT_G722_MODE3; }

}  // namespace

bool Halver::open(std::string& error) {
  if (!m_transcoder.open(AudioFormat(CT_PCM16_16K, 1), AudioFormat(CT_PCM16, 1))) {
    error = "no 16000 -> 8000 Hz resampler is available";
    return false;
  }
  return true;
}

void Halver::process(const int16_t* in, size_t samples, std::vector<int16_t>& out) {
  m_carry.insert(m_carry.end(), in, in + samples);
  const size_t even = m_carry.size() & ~static_cast<size_t>(1);
  if (even == 0) return;
  m_work.resize(even / 2);
  uint32_t inBytes = static_cast<uint32_t>(even * 2);
  const uint32_t produced = m_transcoder.transcode(reinterpret_cast<const uint8_t*>(m_carry.data()), inBytes,
                                                   reinterpret_cast<uint8_t*>(m_work.data()),
                                                   static_cast<uint32_t>(m_work.size() * 2));
  out.insert(out.end(), m_work.begin(), m_work.begin() + produced / 2);
  m_carry.erase(m_carry.begin(), m_carry.begin() + static_cast<std::ptrdiff_t>(even));
}

DecodePipeline::~DecodePipeline() {
  if (m_handle) {
    decoder_close(m_handle);
    decoder_release(m_handle);
  }
}

bool DecodePipeline::open(const DecodeOptions& options, std::string& error) {
  m_options = options;
  m_inFormat = AudioFormat(options.code, 1);
  if (!m_inFormat.isValid()) {
    error = "compression code " + std::to_string(static_cast<int>(options.code)) + " has no framing";
    return false;
  }
  const uint32_t native = m_inFormat.getSamplesPerSecond();
  if (options.rate != 0 && options.rate != native && options.rate != 8000) {
    error = "--rate must be 8000 or the codec's own rate (" + std::to_string(native) + ")";
    return false;
  }
  m_outRate = options.rate ? options.rate : native;
  m_packets = isPacketCode(options.code);
  // The G.722 engine works in 20 ms frames of 160 bytes; whole frames keep
  // every call's output within the room the transcoder offers.
  m_unit = isG722(options.code) ? 160 : m_inFormat.getBytesPerFrame();
  if (options.code == CT_G711_ALAW || options.code == CT_G711_ULAW || options.code == CT_PCM8) m_sampleBytes = 1;
  if (options.code == CT_PCM16 || options.code == CT_PCM16_16K) m_sampleBytes = 2;
  const bool halve = m_outRate != native;

  if (options.channels != 1) {
    if (options.code != CT_OPUS || options.channels != 2) {
      error = "only an Opus stream decodes to two channels";
      return false;
    }
    if (options.useApi) {
      error = "the C decoder API decodes Opus to one channel only";
      return false;
    }
    m_opus = std::make_unique<OpusPacketDecoder>();
    if (!m_opus->open(2, m_outRate)) {
      error = "libopus cannot decode two channels at " + std::to_string(m_outRate) + " Hz";
      return false;
    }
    m_opusOut.resize(2 * m_opus->maxFrames());
    return true;
  }

  if (options.useApi) {
    m_handle = decoder_create(static_cast<int>(options.code));
    if (!m_handle) {
      error = "the C decoder API does not accept compression code " + std::to_string(static_cast<int>(options.code));
      return false;
    }
    if (!decoder_open(m_handle, CT_PCM16)) {
      error = "the C decoder API could not open 16-bit PCM output";
      return false;
    }
    if (halve) {
      m_halver = std::make_unique<Halver>();
      if (!m_halver->open(error)) return false;
    }
    return true;
  }

  m_transcoder = std::make_unique<TransCoder>();
  // Packet streams have no fixed framing for the transcoder to size a
  // resampling buffer from, so they are halved in a second stage.
  const bool transcoderHalves = halve && !m_packets;
  const AudioFormat out(transcoderHalves || native == 8000 ? CT_PCM16 : CT_PCM16_16K, 1);
  if (!m_transcoder->open(m_inFormat, out)) {
    error = "no decoder in this build for compression code " + std::to_string(static_cast<int>(options.code));
    return false;
  }
  if (halve && m_packets) {
    m_halver = std::make_unique<Halver>();
    if (!m_halver->open(error)) return false;
  }
  return true;
}

bool DecodePipeline::emit(const int16_t* pcm, size_t samples, const PcmSink& sink, std::string& error) {
  if (m_halver) {
    m_halved.clear();
    m_halver->process(pcm, samples, m_halved);
    pcm = m_halved.data();
    samples = m_halved.size();
  }
  if (samples == 0 || sink(pcm, samples)) return true;
  if (error.empty()) error = "the decoded samples could not be written";
  return false;
}

bool DecodePipeline::decodeSlice(const uint8_t* data, uint32_t bytes, const PcmSink& sink, std::string& error) {
  // Exactly the output of these whole frames (some codecs insist on it);
  // the buffer is twice that, as some engines take the byte capacity for a
  // sample count.
  const uint32_t capacity = m_handle ? AudioFormat(CT_PCM16, 1).samplesToBytes(m_inFormat.bytesToSamples(bytes))
                                     : m_transcoder->getOutSize(bytes);
  m_outBuffer.resize(2 * static_cast<size_t>(capacity));
  uint32_t produced;
  if (m_handle) {
    produced = decode_decode(m_handle, data, m_outBuffer.data(), bytes);
  } else {
    uint32_t inBytes = bytes;
    produced = m_transcoder->transcode(data, inBytes, m_outBuffer.data(), capacity);
  }
  m_consumed += bytes;
  return emit(reinterpret_cast<const int16_t*>(m_outBuffer.data()), produced / 2, sink, error);
}

// The end of the longest run of whole packets from `offset` whose output
// surely fits one call. A negative length is handed over alone (the codec
// consumes just its prefix). A SILK packet of length 0 makes the decoder
// read the four bytes after it, so it is never left last in a call while
// more of the stream may follow.
size_t DecodePipeline::packetSliceEnd(size_t offset, bool final) const {
  const CompressionType code = m_options.code;
  size_t end = offset;
  uint64_t bound = 0;
  size_t lastEmpty = SIZE_MAX;
  while (m_pending.size() - end >= 2) {
    const int length = static_cast<int16_t>(m_pending[end] | (m_pending[end + 1] << 8));
    if (length < 0) return end == offset ? end + 2 : end;
    if (m_pending.size() - end - 2 < static_cast<size_t>(length)) break;
    bound += packetOutputBound(code, length);
    if (bound > kPacketOutCapacity / 2 && end > offset) break;
    lastEmpty = length == 0 ? end : SIZE_MAX;
    end += 2 + static_cast<size_t>(length);
  }
  if (!final && lastEmpty != SIZE_MAX && code != CT_OPUS && code != CT_AMRWB) end = lastEmpty;
  return end;
}

// Each empty Opus packet decodes to a second of concealment (the codec's
// documented behaviour): a stream of many is worth a warning.
void DecodePipeline::countEmptyPackets(size_t offset, size_t bytes) {
  const size_t end = offset + bytes;
  while (end - offset >= 2) {
    const int length = static_cast<int16_t>(m_pending[offset] | (m_pending[offset + 1] << 8));
    if (length < 0) break;
    m_packetCount++;
    if (length == 0) m_emptyPackets++;
    offset += 2 + static_cast<size_t>(length);
  }
  if (!m_warnedEmpty && m_emptyPackets >= kEmptyPacketWarning && m_emptyPackets * 2 > m_packetCount) {
    m_warnedEmpty = true;
    m_warnings.push_back("the stream holds at least " + std::to_string(m_emptyPackets) + " empty packets out of " +
                         std::to_string(m_packetCount) +
                         ": each decodes to one second of concealment, so the output may be far longer than the "
                         "input suggests (it is written as it is made)");
  }
}

// Stereo Opus, packet by packet at the output rate. A packet libopus
// rejects is skipped (the container's framing says where the next begins).
bool DecodePipeline::decodeOpusPackets(const PcmSink& sink, std::string& error) {
  size_t offset = 0;
  while (m_pending.size() - offset >= 2) {
    const int length = static_cast<int16_t>(m_pending[offset] | (m_pending[offset + 1] << 8));
    if (length < 0) {
      error = "stream cannot be decoded past byte " + std::to_string(m_consumed) + ": a packet length is negative";
      return false;
    }
    const size_t whole = 2 + static_cast<size_t>(length);
    if (m_pending.size() - offset < whole) break;
    const long frames =
        length ? m_opus->decode(m_pending.data() + offset + 2, static_cast<size_t>(length), m_opusOut.data(), m_opus->maxFrames())
               : 0;
    if (frames < 0 && m_rejectedPackets++ == 0)
      m_warnings.push_back("libopus rejected a packet near byte " + std::to_string(m_consumed) +
                           "; it and any other such packet are skipped");
    offset += whole;
    m_consumed += whole;
    if (frames > 0 && !emit(m_opusOut.data(), 2 * static_cast<size_t>(frames), sink, error)) return false;
  }
  m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(offset));
  return true;
}

bool DecodePipeline::decodePackets(const PcmSink& sink, bool final, std::string& error) {
  if (m_opus) return decodeOpusPackets(sink, error);
  m_outBuffer.resize(2 * static_cast<size_t>(kPacketOutCapacity));
  size_t offset = 0;
  for (;;) {
    const size_t end = packetSliceEnd(offset, final);
    if (end == offset) break;
    const uint32_t available = static_cast<uint32_t>(end - offset);
    uint32_t left = available;
    const uint32_t produced =
        m_transcoder->transcode(m_pending.data() + offset, left, m_outBuffer.data(), kPacketOutCapacity);
    const uint32_t used = left <= available ? available - left : 0;
    if (produced == 0 && used == 0) break;
    if (m_options.code == CT_OPUS) countEmptyPackets(offset, used);
    offset += used;
    m_consumed += used;
    if (!emit(reinterpret_cast<const int16_t*>(m_outBuffer.data()), produced / 2, sink, error)) return false;
  }
  m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(offset));
  if (m_pending.size() > kMaxPacketCarry) {
    error = "stream cannot be decoded past byte " + std::to_string(m_consumed) +
            ": no packet boundary found in the next " + std::to_string(m_pending.size()) + " bytes";
    return false;
  }
  return true;
}

bool DecodePipeline::finish(const PcmSink& sink, std::string& error) {
  if (m_packets) return decodePackets(sink, true, error);
  // A stream of samples (or G.722, whose every byte gives two samples) has
  // no partial frame: pad the last engine frame and keep only what the
  // real bytes gave.
  const size_t granule = m_sampleBytes ? m_sampleBytes : isG722(m_options.code) ? 1 : 0;
  const size_t real = granule ? m_pending.size() - m_pending.size() % granule : 0;
  if (real == 0) return true;
  const uint32_t native = m_inFormat.getSamplesPerSecond();
  const size_t nativeSamples = m_sampleBytes ? real / m_sampleBytes : real * 2;
  const size_t keep = nativeSamples * m_outRate / native;
  std::vector<uint8_t> frame(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(real));
  frame.resize(m_unit, 0);
  std::vector<int16_t> tail;
  const PcmSink collect = [&tail](const int16_t* pcm, size_t samples) {
    tail.insert(tail.end(), pcm, pcm + samples);
    return true;
  };
  if (!decodeSlice(frame.data(), m_unit, collect, error)) return false;
  m_consumed -= m_unit - real;
  m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(real));
  const size_t n = std::min(tail.size(), keep);
  if (n == 0 || sink(tail.data(), n)) return true;
  if (error.empty()) error = "the decoded samples could not be written";
  return false;
}

bool DecodePipeline::feed(const uint8_t* data, size_t bytes, std::vector<int16_t>& out, std::string& error) {
  return feed(data, bytes, [&out](const int16_t* pcm, size_t samples) {
    out.insert(out.end(), pcm, pcm + samples);
    return true;
  }, error);
}

bool DecodePipeline::finish(std::vector<int16_t>& out, std::string& error) {
  return finish([&out](const int16_t* pcm, size_t samples) {
    out.insert(out.end(), pcm, pcm + samples);
    return true;
  }, error);
}

bool DecodePipeline::feed(const uint8_t* data, size_t bytes, const PcmSink& sink, std::string& error) {
  if (m_packets) {
    m_pending.insert(m_pending.end(), data, data + bytes);
    return decodePackets(sink, false, error);
  }
  const uint32_t slice = std::max<uint32_t>(1, kSliceTarget / m_unit) * m_unit;
  // Complete the frame held back from the previous call first.
  if (!m_pending.empty()) {
    const size_t need = std::min<size_t>(m_unit - m_pending.size(), bytes);
    m_pending.insert(m_pending.end(), data, data + need);
    data += need;
    bytes -= need;
    if (m_pending.size() < m_unit) return true;
    if (!decodeSlice(m_pending.data(), m_unit, sink, error)) return false;
    m_pending.clear();
  }
  while (bytes >= m_unit) {
    const uint32_t n = static_cast<uint32_t>(std::min<size_t>(slice, bytes - bytes % m_unit));
    if (!decodeSlice(data, n, sink, error)) return false;
    data += n;
    bytes -= n;
  }
  m_pending.assign(data, data + bytes);
  return true;
}

bool EncodePipeline::open(CompressionType code, uint32_t inRate, std::string& error,
                          const EncodeOptions& options) {
  const AudioFormat out(code, 1);
  if (!out.isValid()) {
    error = "compression code " + std::to_string(static_cast<int>(code)) + " has no framing";
    return false;
  }
  if (inRate != 8000 && inRate != 16000) {
    error = "input must be 8000 or 16000 Hz, not " + std::to_string(inRate);
    return false;
  }
  const uint32_t rate = out.getSamplesPerSecond();
  if (inRate < rate) {
    error = "this codec needs " + std::to_string(rate) + " Hz input, the file is " + std::to_string(inRate) + " Hz";
    return false;
  }
  if (inRate != rate) {
    m_halver = std::make_unique<Halver>();
    if (!m_halver->open(error)) return false;
  }
  if (code == CT_ICELP48) {
    m_frames = std::make_unique<Icelp48StreamEncoder>();
    return true;
  }
  if (code == CT_AMRWB) {
    if (options.amrwbMode < 0 || options.amrwbMode > 8) {
      error = "AMR-WB mode must be 0 to 8, not " + std::to_string(options.amrwbMode);
      return false;
    }
    m_frames = std::make_unique<AmrWbStreamEncoder>(options.amrwbMode, options.amrwbDtx);
    return true;
  }
  // PCM straight into the encoder: it holds back partial frames itself.
  if (!m_transcoder.open(AudioFormat(rate == 16000 ? CT_PCM16_16K : CT_PCM16, 1), out)) {
    error = "no encoder in this build for compression code " + std::to_string(static_cast<int>(code));
    return false;
  }
  return true;
}

void EncodePipeline::feed(const int16_t* pcm, size_t samples, std::vector<uint8_t>& out) {
  if (!m_halver) return encode(pcm, samples, out);
  m_halved.clear();
  m_halver->process(pcm, samples, m_halved);
  encode(m_halved.data(), m_halved.size(), out);
}

void EncodePipeline::encode(const int16_t* pcm, size_t samples, std::vector<uint8_t>& out) {
  if (samples == 0) return;
  if (m_frames) return m_frames->feed(pcm, samples, out);
  uint32_t inBytes = static_cast<uint32_t>(samples * 2);
  // Room for this input plus whatever the encoder held back before.
  const uint32_t capacity = inBytes + 65536;
  m_outBuffer.resize(capacity);
  const uint32_t n =
      m_transcoder.transcode(reinterpret_cast<const uint8_t*>(pcm), inBytes, m_outBuffer.data(), capacity);
  out.insert(out.end(), m_outBuffer.begin(), m_outBuffer.begin() + n);
}

void EncodePipeline::flush(std::vector<uint8_t>& out) {
  if (m_frames) return m_frames->flush(out);
  // An empty call asks frame encoders to pad and emit a partial last frame.
  uint32_t none = 0;
  m_outBuffer.resize(65536);
  const uint32_t n = m_transcoder.transcode(reinterpret_cast<const uint8_t*>(m_outBuffer.data()), none,
                                            m_outBuffer.data(), static_cast<uint32_t>(m_outBuffer.size()));
  out.insert(out.end(), m_outBuffer.begin(), m_outBuffer.begin() + n);
  const uint32_t pending = m_transcoder.hasPendingEncodedData();
  if (pending) {
    m_outBuffer.resize(pending);
    const uint32_t k = m_transcoder.getPendingEncodedData(m_outBuffer.data(), pending);
    out.insert(out.end(), m_outBuffer.begin(), m_outBuffer.begin() + k);
  }
}

}  // namespace quillon::tool
