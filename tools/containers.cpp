#include "containers.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace quillon::tool {

using namespace TAV;

namespace {

constexpr char kAmrWbMagic[] = "#!AMR-WB\n";
constexpr char kAmrNbMagic[] = "#!AMR\n";
constexpr char kSilkMagic[] = "#!SILK_V3";
constexpr size_t kReadBlock = 16384;
constexpr size_t kMaxPrefixed = 32767;  // a 16-bit signed length prefix
constexpr size_t kSniffBytes = 4096;
constexpr size_t kOggPageMax = 27 + 255 + 255 * 255;

uint32_t le32(const uint8_t* p) { return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24); }

void putPrefixed(std::vector<uint8_t>& out, const uint8_t* data, size_t bytes) {
  out.push_back(static_cast<uint8_t>(bytes & 0xff));
  out.push_back(static_cast<uint8_t>(bytes >> 8));
  out.insert(out.end(), data, data + bytes);
}

// Turns a stream of records into prefixed packets; subclasses fill m_out.
class QueuedSource : public StreamSource {
 public:
  explicit QueuedSource(std::unique_ptr<InputStream> input) : m_input(std::move(input)) {}
  size_t read(uint8_t* buffer, size_t bytes) override {
    while (m_head == m_out.size() && !m_done) {
      m_out.clear();
      m_head = 0;
      if (!produce()) m_done = true;
    }
    const size_t n = std::min(bytes, m_out.size() - m_head);
    if (n) std::memcpy(buffer, m_out.data() + m_head, n);
    m_head += n;
    return n;
  }

 protected:
  // Appends at least one packet to m_out, or returns false at the end.
  virtual bool produce() = 0;
  bool readExact(uint8_t* p, size_t n) { return m_input->read(p, n) == n; }

  std::unique_ptr<InputStream> m_input;
  std::vector<uint8_t> m_out;
  size_t m_head = 0;
  bool m_done = false;
};

class RawSource : public StreamSource {
 public:
  explicit RawSource(std::unique_ptr<InputStream> input) : m_input(std::move(input)) {}
  size_t read(uint8_t* buffer, size_t bytes) override {
    const size_t n = m_input->read(buffer, bytes);
    if (n == 0 && m_input->failed()) m_error = "read error";
    return n;
  }

 private:
  std::unique_ptr<InputStream> m_input;
};

class WaveDataSource : public StreamSource {
 public:
  WaveDataSource(std::unique_ptr<InputStream> input, const WaveFormat& format) {
    m_wav.attach(std::move(input), format);
    if (!format.warning.empty()) m_warnings.push_back(format.warning);
  }
  size_t read(uint8_t* buffer, size_t bytes) override {
    const size_t n = m_wav.read(buffer, bytes);
    if (n == 0 && !m_reported && m_wav.missingBytes() > 0) {
      m_reported = true;
      m_warnings.push_back("the file ends " + std::to_string(m_wav.missingBytes()) +
                           " bytes before the end its data chunk declares (a cut recording)");
    }
    return n;
  }

 private:
  WavReader m_wav;
  bool m_reported = false;
};

// "#!AMR-WB\n" then frames: a table-of-contents byte and its speech bytes.
class AmrWbStorageSource : public QueuedSource {
 public:
  using QueuedSource::QueuedSource;

 protected:
  bool produce() override {
    uint8_t frame[1 + 64];
    if (!readExact(frame, 1)) return false;
    const int bytes = amrWbStorageFrameBytes((frame[0] >> 3) & 0x0f);
    if (bytes < 0) {
      m_error = "AMR-WB storage frame " + std::to_string(m_frames) + " has a reserved frame type";
      return false;
    }
    const size_t got = m_input->read(frame + 1, static_cast<size_t>(bytes));
    if (got < static_cast<size_t>(bytes)) {
      m_warnings.push_back("the last AMR-WB frame (frame " + std::to_string(m_frames) + ") is cut short: " +
                           std::to_string(got) + " of its " + std::to_string(bytes) + " speech bytes; dropped");
      return false;
    }
    putPrefixed(m_out, frame, 1 + static_cast<size_t>(bytes));
    m_frames++;
    return true;
  }

 private:
  uint64_t m_frames = 0;
};

// "#!SILK_V3" then packets with a 16-bit little-endian length; a negative
// length (some writers end the file with -1) or a cut packet ends it.
class SilkV3Source : public QueuedSource {
 public:
  using QueuedSource::QueuedSource;

 protected:
  bool produce() override {
    uint8_t prefix[2];
    if (!readExact(prefix, 2)) return false;
    const int16_t length = static_cast<int16_t>(prefix[0] | (prefix[1] << 8));
    if (length < 0) return false;
    m_packet.resize(static_cast<size_t>(length));
    if (!readExact(m_packet.data(), m_packet.size())) return false;
    putPrefixed(m_out, m_packet.data(), m_packet.size());
    return true;
  }

 private:
  std::vector<uint8_t> m_packet;
};

// Ogg pages to Opus packets, the identification and comment headers of
// each link read and skipped. Each link of a chained file is a segment;
// its pre-skip and the granule position of its pages give what to keep.
class OggOpusSource : public StreamSource {
 public:
  explicit OggOpusSource(std::unique_ptr<InputStream> input) : m_input(std::move(input)) {}

  size_t read(uint8_t* buffer, size_t bytes) override {
    while (m_head == m_out.size()) {
      m_out.clear();
      m_head = 0;
      if (m_segmentEnded || m_done || !produce()) return 0;
    }
    const size_t n = std::min(bytes, m_out.size() - m_head);
    std::memcpy(buffer, m_out.data() + m_head, n);
    m_head += n;
    return n;
  }

  bool nextSegment() override {
    if (!m_segmentEnded) return false;
    m_segmentEnded = false;
    m_link = m_held.second.link;
    m_headers = 0;
    m_preskip = 0;
    m_limit = UINT64_MAX;
    return true;
  }
  uint64_t leadingSamples48k() const override { return m_preskip; }
  uint64_t segmentLimit48k() const override { return m_limit; }

 private:
  bool nextPacket() {
    if (m_haveHeld) {
      m_haveHeld = false;
      return true;
    }
    for (;;) {
      if (m_reader.nextPacket(m_held.first, m_held.second)) return true;
      uint8_t block[kReadBlock];
      const size_t n = m_input->read(block, sizeof block);
      std::string ignored;
      if (n == 0) {
        if (m_input->failed()) {
          m_error = "read error";
          return false;
        }
        if (!m_reader.hasPartialPage()) return false;
        m_reader.finish();
      } else {
        m_reader.push(block, n, ignored);
      }
      for (; m_warned < m_reader.warnings().size(); m_warned++) m_warnings.push_back(m_reader.warnings()[m_warned]);
    }
  }

  // Appends one audio packet to m_out; false at the end of a segment or of the file.
  bool produce() {
    for (;;) {
      if (!nextPacket()) {
        m_done = true;
        return false;
      }
      std::vector<uint8_t>& packet = m_held.first;
      const OggPacketReader::Info& info = m_held.second;
      if (info.link != m_link) {  // the next link of a chained file
        m_haveHeld = true;
        m_segmentEnded = true;
        return false;
      }
      if (m_headers == 0) {
        if (packet.size() < 19 || std::memcmp(packet.data(), "OpusHead", 8) != 0) {
          m_error = "link " + std::to_string(m_link + 1) + " of the Ogg file is not an Opus stream";
          m_done = true;
          return false;
        }
        m_preskip = packet[10] | (packet[11] << 8);
        m_headers = 1;
        continue;
      }
      if (m_headers == 1) {  // OpusTags
        m_headers = 2;
        continue;
      }
      // The last page's granule position ends the link (earlier pages' are
      // only informative).
      if (info.last && info.granule != UINT64_MAX) m_limit = info.granule;
      if (packet.empty()) {
        if (!m_warnedEmpty) m_warnings.push_back("empty packets in the Ogg Opus stream were skipped");
        m_warnedEmpty = true;
        continue;
      }
      if (packet.size() > kMaxPrefixed) {
        m_error = "Opus packet of " + std::to_string(packet.size()) + " bytes is too long";
        m_done = true;
        return false;
      }
      putPrefixed(m_out, packet.data(), packet.size());
      return true;
    }
  }

  std::unique_ptr<InputStream> m_input;
  OggPacketReader m_reader;
  size_t m_warned = 0;
  std::pair<std::vector<uint8_t>, OggPacketReader::Info> m_held;
  bool m_haveHeld = false;
  std::vector<uint8_t> m_out;
  size_t m_head = 0;
  bool m_done = false;
  bool m_segmentEnded = false;
  bool m_warnedEmpty = false;
  unsigned m_link = 0;
  int m_headers = 0;
  uint64_t m_preskip = 0;
  uint64_t m_limit = UINT64_MAX;
};

bool startsWith(const uint8_t* head, size_t size, const char* magic) {
  const size_t n = std::strlen(magic);
  return size >= n && std::memcmp(head, magic, n) == 0;
}

std::string waveTagName(uint16_t tag) {
  switch (tag) {
    case 1: return "PCM";
    case 2: return "MS ADPCM";
    case 6: return "A-law";
    case 7: return "mu-law";
    case 0x45: case 0x64: return "G.726";
    case 0x83: return "G.729";
    case 0x028f: return "G.722";
    case 0xfffe: return "extensible, unknown sub-format";
    default: return "tag " + std::to_string(tag);
  }
}

void probeWave(InputStream& input, ProbeResult& r) {
  r.container = "WAVE";
  std::string error;
  if (!readWaveHeader(input, r.wave, error)) {
    r.refusal = error;
    r.wave = WaveFormat();  // no data chunk to read
    return;
  }
  const WaveFormat& wav = r.wave;
  if (wav.rf64) r.container = "WAVE (RF64)";
  r.channels = wav.channels;
  char text[200];
  std::snprintf(text, sizeof text, "format tag %u (%s%s), %u channel(s), %u Hz, %u bits, ", wav.formatTag,
                waveTagName(wav.formatTag).c_str(), wav.extensible ? ", in WAVE_FORMAT_EXTENSIBLE" : "",
                wav.channels, wav.sampleRate, wav.bitsPerSample);
  r.detail = text;
  r.detail += wav.lengthKnown ? std::to_string(wav.dataBytes) + " data bytes" : "data size not given (read to the end)";
  CompressionType code = CT_NONE;
  bool perSample = false;  // a byte-per-sample (or 16-bit) stream: channels interleave per sample
  switch (wav.formatTag) {
    case 1:
      if (wav.bitsPerSample == 16) code = wav.sampleRate == 16000 ? CT_PCM16_16K : CT_PCM16;
      else if (wav.bitsPerSample == 8) code = CT_PCM8;
      perSample = true;
      break;
    case 6: code = CT_G711_ALAW; perSample = true; break;
    case 7: code = CT_G711_ULAW; perSample = true; break;
    case 2:
      r.refusal = "Microsoft ADPCM: the library encodes it but does not decode it";
      return;
    case 0x45:  // G.726, as registered and as ffmpeg writes it: MSB-first packing
    case 0x64:
      switch (wav.bitsPerSample) {
        case 5: code = CT_G726_40; break;
        case 4: code = CT_G726_32; break;
        case 3: code = CT_G726_24; break;
        case 2: code = CT_G726_16; break;
        default: break;
      }
      break;
    case 0x83: code = CT_G729; break;
    case 0x028f: code = CT_G722; break;
    default: break;
  }
  if (code == CT_NONE) {
    r.refusal = "no decoder for WAVE format tag " + std::to_string(wav.formatTag) + " with " +
                std::to_string(wav.bitsPerSample) + " bits per sample";
    return;
  }
  if (wav.channels == 0 || wav.channels > 2 || (wav.channels == 2 && !perSample)) {
    r.refusal = std::to_string(wav.channels) + "-channel " + waveTagName(wav.formatTag) +
                " is not decoded (mono, and stereo of PCM, A-law and mu-law are)";
    return;
  }
  const uint32_t sampleBytes = wav.bitsPerSample == 16 ? 2 : 1;
  if (perSample && wav.blockAlign != wav.channels * sampleBytes) {
    r.refusal = "block align " + std::to_string(wav.blockAlign) + " does not fit " + std::to_string(wav.channels) +
                " channel(s) of " + std::to_string(wav.bitsPerSample) + " bits";
    return;
  }
  // A stream of samples decodes at any rate (the output keeps the file's);
  // a coded stream must be at its codec's rate.
  const AudioFormat format(code, 1);
  if (!perSample && format.getSamplesPerSecond() != wav.sampleRate) {
    r.refusal = "a " + std::to_string(wav.sampleRate) + " Hz stream of a codec that runs at " +
                std::to_string(format.getSamplesPerSecond()) + " Hz";
    return;
  }
  r.code = code;
}

void probeOgg(InputStream& input, ProbeResult& r) {
  r.container = "Ogg";
  OggPacketReader reader;
  std::vector<uint8_t> first;
  std::string ignored;
  const size_t n = input.peek(kOggPageMax);
  reader.push(input.ahead(), n, ignored);
  if (!reader.nextPacket(first) || first.size() < 19 || std::memcmp(first.data(), "OpusHead", 8) != 0) {
    r.refusal = "an Ogg stream that does not start with an Opus identification header";
    return;
  }
  r.container = "Ogg Opus";
  r.code = r.described = CT_OPUS;
  r.channels = first[9];
  const uint32_t inputRate = le32(first.data() + 12);
  r.detail = std::to_string(first[9]) + " channel(s), input rate " + std::to_string(inputRate) + " Hz, pre-skip " +
             std::to_string(first[10] | (first[11] << 8)) + " samples at 48 kHz";
  if (first[9] > 2) {
    r.refusal = "Opus streams with more than two channels are not decoded";
    r.code = CT_NONE;
  }
}

}  // namespace

int amrWbStorageFrameBytes(unsigned frameType) {
  static const int kBytes[16] = {17, 23, 32, 36, 40, 46, 50, 58, 60, 5, -1, -1, -1, -1, 0, 0};
  return frameType < 16 ? kBytes[frameType] : -1;
}

uint32_t opusPacketSamples48k(const uint8_t* packet, size_t bytes) {
  if (bytes == 0) return 0;
  const unsigned config = packet[0] >> 3;
  uint32_t frame;  // samples per frame at 48 kHz
  if (config < 12) frame = 480u << (config & 3);          // SILK: 10, 20, 40, 60 ms
  else if (config < 16) frame = (config & 1) ? 960 : 480;  // hybrid: 10, 20 ms
  else frame = 120u << (config & 3);                       // CELT: 2.5, 5, 10, 20 ms
  uint32_t frames;
  switch (packet[0] & 3) {
    case 0: frames = 1; break;
    case 1: case 2: frames = 2; break;
    default:
      if (bytes < 2) return 0;
      frames = packet[1] & 0x3f;
      break;
  }
  return frames * frame > 5760 ? 0 : frames * frame;
}

uint32_t oggCrc(const uint8_t* data, size_t bytes) {
  static const auto table = [] {
    std::vector<uint32_t> t(256);
    for (uint32_t i = 0; i < 256; i++) {
      uint32_t r = i << 24;
      for (int k = 0; k < 8; k++) r = (r & 0x80000000u) ? (r << 1) ^ 0x04c11db7u : r << 1;
      t[i] = r;
    }
    return t;
  }();
  uint32_t crc = 0;
  for (size_t i = 0; i < bytes; i++) crc = (crc << 8) ^ table[((crc >> 24) ^ data[i]) & 0xff];
  return crc;
}

bool OggPacketReader::push(const uint8_t* data, size_t bytes, std::string&) {
  if (bytes) m_buffer.insert(m_buffer.end(), data, data + bytes);
  size_t pos = 0;
  // Skips to the next "OggS" after `from` (or keeps a tail that may begin one).
  auto resync = [&](size_t from) {
    size_t next = from;
    while (next + 4 <= m_buffer.size() && std::memcmp(m_buffer.data() + next, "OggS", 4) != 0) next++;
    if (next + 4 > m_buffer.size()) next = std::max(from, m_buffer.size() >= 3 ? m_buffer.size() - 3 : 0);
    return next;
  };
  while (m_buffer.size() - pos >= 27) {
    const uint8_t* page = m_buffer.data() + pos;
    if (std::memcmp(page, "OggS", 4) != 0 || page[4] != 0) {
      if (!m_skipping)
        m_warnings.push_back("bytes that are no Ogg page at byte " + std::to_string(m_offset + pos) +
                             " were skipped");
      m_skipping = true;
      m_lost = true;
      const size_t next = resync(pos + 1);
      if (next == pos) break;
      pos = next;
      continue;
    }
    const size_t segments = page[26];
    if (m_buffer.size() - pos < 27 + segments) break;
    size_t body = 0;
    for (size_t i = 0; i < segments; i++) body += page[27 + i];
    const size_t pageBytes = 27 + segments + body;
    if (m_buffer.size() - pos < pageBytes) break;

    m_check.assign(page, page + pageBytes);
    std::memset(m_check.data() + 22, 0, 4);
    if (oggCrc(m_check.data(), m_check.size()) != le32(page + 22)) {
      if (!m_skipping)
        m_warnings.push_back("the Ogg page at byte " + std::to_string(m_offset + pos) +
                             " has a bad checksum: skipped, decoding goes on at the next page");
      m_skipping = true;
      m_lost = true;
      pos = resync(pos + 1);
      continue;
    }
    m_skipping = false;
    const uint32_t serial = le32(page + 14);
    const uint32_t sequence = le32(page + 18);
    const bool bos = page[5] & 0x02;
    if (!m_haveSerial) {
      m_serial = serial;
      m_haveSerial = true;
      m_lost = false;
    } else if (serial != m_serial && bos && (m_ended || m_sawData)) {
      // The next link of a chained file.
      m_serial = serial;
      m_link++;
      m_partial.clear();
      m_ended = m_sawData = m_lost = false;
    }
    if (serial == m_serial) {  // pages of other logical streams are skipped
      const uint64_t granule = static_cast<uint64_t>(le32(page + 6)) | (static_cast<uint64_t>(le32(page + 10)) << 32);
      if (!bos) m_sawData = true;
      const bool gap = m_havePage && sequence != m_sequence + 1 && !bos;
      if (gap && !m_lost)  // damage already reported is not reported again
        m_warnings.push_back("Ogg page(s) missing before byte " + std::to_string(m_offset + pos) +
                             ": the packets they held are lost");
      m_lost = m_lost || gap;
      if (m_lost) m_partial.clear();
      // A continued packet whose start was lost (or that continues nothing) is dropped.
      bool dropping = (page[5] & 0x01) && (m_lost || m_partial.empty());
      if (!(page[5] & 0x01)) m_partial.clear();
      const uint8_t* p = page + 27 + segments;
      for (size_t i = 0; i < segments; i++) {
        if (!dropping) m_partial.insert(m_partial.end(), p, p + page[27 + i]);
        p += page[27 + i];
        if (page[27 + i] < 255) {
          if (!dropping) m_ready.push_back({std::move(m_partial), {granule, m_link, (page[5] & 0x04) != 0}});
          m_partial.clear();
          dropping = false;
        }
      }
      m_sequence = sequence;
      m_havePage = true;
      m_lost = false;
      if (page[5] & 0x04) m_ended = true;
    }
    m_pages++;
    pos += pageBytes;
  }
  m_buffer.erase(m_buffer.begin(), m_buffer.begin() + static_cast<std::ptrdiff_t>(pos));
  m_offset += pos;
  return true;
}

void OggPacketReader::finish() {
  std::string ignored;
  while (!m_buffer.empty()) {
    const uint8_t* next = nullptr;
    for (size_t i = 1; i + 4 <= m_buffer.size() && !next; i++)
      if (std::memcmp(m_buffer.data() + i, "OggS", 4) == 0) next = m_buffer.data() + i;
    const size_t drop = next ? static_cast<size_t>(next - m_buffer.data()) : m_buffer.size();
    m_warnings.push_back("the Ogg page at byte " + std::to_string(m_offset) + (next ? " is damaged" : " is cut short") +
                         " (" + std::to_string(drop) + " bytes): its packets are lost");
    m_buffer.erase(m_buffer.begin(), m_buffer.begin() + static_cast<std::ptrdiff_t>(drop));
    m_offset += drop;
    m_lost = true;
    push(nullptr, 0, ignored);
  }
}

bool OggPacketReader::nextPacket(std::vector<uint8_t>& packet) {
  Info ignored;
  return nextPacket(packet, ignored);
}

bool OggPacketReader::nextPacket(std::vector<uint8_t>& packet, Info& info) {
  if (m_readyHead == m_ready.size()) {
    m_ready.clear();
    m_readyHead = 0;
    return false;
  }
  packet = std::move(m_ready[m_readyHead].data);
  info = m_ready[m_readyHead++].info;
  return true;
}

bool probeInput(InputStream& input, ProbeResult& r, std::string& error) {
  r = ProbeResult();
  const size_t size = input.peek(kSniffBytes);
  if (input.failed()) {
    error = "cannot read " + input.name();
    return false;
  }
  const uint8_t* head = input.ahead();
  const bool riff = startsWith(head, size, "RIFF") || startsWith(head, size, "RF64") || startsWith(head, size, "BW64");
  if (riff && size >= 12 && std::memcmp(head + 8, "WAVE", 4) == 0) {
    probeWave(input, r);
  } else if (startsWith(head, size, kAmrWbMagic)) {
    r.container = "AMR-WB storage";
    r.code = CT_AMRWB;
    r.detail = "RFC 4867 single-channel storage file";
  } else if (startsWith(head, size, "#!AMR-WB_MC")) {
    r.container = "AMR-WB storage";
    r.refusal = "multi-channel AMR-WB storage files are not decoded";
  } else if (startsWith(head, size, kAmrNbMagic)) {
    r.container = "AMR storage";
    r.refusal = "AMR narrowband is not a codec of this library";
  } else if (startsWith(head, size, kSilkMagic) ||
             (size >= 10 && head[0] == 0x02 && std::memcmp(head + 1, kSilkMagic, 9) == 0)) {
    r.container = "SILK_V3";
    r.code = CT_SILK_20MS;
    r.detail = head[0] == 0x02 ? "SILK_V3 file with a leading 0x02 byte" : "SILK_V3 file";
  } else if (startsWith(head, size, "OggS")) {
    probeOgg(input, r);
  } else {
    r.container = "raw";
  }
  if (r.described == CT_NONE) r.described = r.code;
  return true;
}

std::unique_ptr<StreamSource> openStream(std::unique_ptr<InputStream> input, const ProbeResult& probe,
                                         std::string& error) {
  if (probe.container.rfind("WAVE", 0) == 0) {
    if (!probe.refusal.empty() && probe.wave.formatTag == 0) {
      error = input->name() + ": " + probe.refusal;
      return nullptr;
    }
    return std::make_unique<WaveDataSource>(std::move(input), probe.wave);
  }
  if (probe.container == "AMR-WB storage") {
    input->skip(std::strlen(kAmrWbMagic));
    return std::make_unique<AmrWbStorageSource>(std::move(input));
  }
  if (probe.container == "SILK_V3") {
    input->peek(1);
    input->skip(std::strlen(kSilkMagic) + (input->ahead()[0] == 0x02 ? 1 : 0));
    return std::make_unique<SilkV3Source>(std::move(input));
  }
  if (probe.container == "Ogg Opus") return std::make_unique<OggOpusSource>(std::move(input));
  return std::make_unique<RawSource>(std::move(input));
}

bool probeFile(const std::string& path, ProbeResult& result, std::string& error) {
  InputStream input;
  if (!input.open(path, error)) return false;
  return probeInput(input, result, error);
}

std::unique_ptr<StreamSource> openStream(const std::string& path, const ProbeResult& probe, std::string& error) {
  auto input = std::make_unique<InputStream>();
  if (!input->open(path, error)) return nullptr;
  ProbeResult again;
  if (!probeInput(*input, again, error)) return nullptr;
  // The container as `probe` says, read from where this probe left the input.
  if (again.container != probe.container) {
    input = std::make_unique<InputStream>();
    if (!input->open(path, error)) return nullptr;
  }
  return openStream(std::move(input), probe, error);
}

}  // namespace quillon::tool
