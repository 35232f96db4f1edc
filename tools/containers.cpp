#include "containers.h"

#include <cerrno>
#include <cstring>

#include "wav_file.h"

namespace quillon::tool {

using namespace TAV;

namespace {

constexpr char kAmrWbMagic[] = "#!AMR-WB\n";
constexpr char kAmrNbMagic[] = "#!AMR\n";
constexpr char kSilkMagic[] = "#!SILK_V3";
constexpr size_t kReadBlock = 16384;
constexpr size_t kMaxPrefixed = 32767;  // a 16-bit signed length prefix

void putPrefixed(std::vector<uint8_t>& out, const uint8_t* data, size_t bytes) {
  out.push_back(static_cast<uint8_t>(bytes & 0xff));
  out.push_back(static_cast<uint8_t>(bytes >> 8));
  out.insert(out.end(), data, data + bytes);
}

// Turns a stream of records into prefixed packets; subclasses fill m_out.
class QueuedSource : public StreamSource {
 public:
  explicit QueuedSource(FILE* f) : m_file(f) {}
  ~QueuedSource() override {
    if (m_file) std::fclose(m_file);
  }
  size_t read(uint8_t* buffer, size_t bytes) override {
    while (m_head == m_out.size() && !m_done) {
      m_out.clear();
      m_head = 0;
      if (!produce()) m_done = true;
    }
    // At the end the queue may be empty, with no storage to copy from.
    const size_t n = std::min(bytes, m_out.size() - m_head);
    if (n == 0) return 0;
    std::memcpy(buffer, m_out.data() + m_head, n);
    m_head += n;
    return n;
  }

 protected:
  // Appends at least one packet to m_out, or returns false at the end.
  virtual bool produce() = 0;
  bool readExact(uint8_t* p, size_t n) { return std::fread(p, 1, n, m_file) == n; }

  FILE* m_file;
  std::vector<uint8_t> m_out;
  size_t m_head = 0;
  bool m_done = false;
};

class RawSource : public StreamSource {
 public:
  explicit RawSource(FILE* f) : m_file(f) {}
  ~RawSource() override { std::fclose(m_file); }
  size_t read(uint8_t* buffer, size_t bytes) override {
    const size_t n = std::fread(buffer, 1, bytes, m_file);
    if (n == 0 && std::ferror(m_file)) m_error = "read error";
    return n;
  }

 private:
  FILE* m_file;
};

class WaveDataSource : public StreamSource {
 public:
  explicit WaveDataSource(std::unique_ptr<WavReader> wav) : m_wav(std::move(wav)) {}
  size_t read(uint8_t* buffer, size_t bytes) override { return m_wav->read(buffer, bytes); }

 private:
  std::unique_ptr<WavReader> m_wav;
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
    if (!readExact(frame + 1, static_cast<size_t>(bytes))) return false;  // a cut last frame is dropped
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

// Ogg pages to Opus packets, the identification and comment headers skipped.
class OggOpusSource : public QueuedSource {
 public:
  using QueuedSource::QueuedSource;

 protected:
  bool produce() override {
    for (;;) {
      while (m_reader.nextPacket(m_packet)) {
        if (m_headers < 2) {
          // OpusHead, then OpusTags (which may span pages).
          m_headers++;
          continue;
        }
        if (m_packet.size() > kMaxPrefixed) {
          m_error = "Opus packet of " + std::to_string(m_packet.size()) + " bytes is too long";
          return false;
        }
        putPrefixed(m_out, m_packet.data(), m_packet.size());
        return true;
      }
      uint8_t block[kReadBlock];
      const size_t n = std::fread(block, 1, sizeof block, m_file);
      if (n == 0) return false;
      if (!m_reader.push(block, n, m_error)) return false;
    }
  }

 private:
  OggPacketReader m_reader;
  std::vector<uint8_t> m_packet;
  int m_headers = 0;
};

bool startsWith(const std::vector<uint8_t>& head, const char* magic) {
  const size_t n = std::strlen(magic);
  return head.size() >= n && std::memcmp(head.data(), magic, n) == 0;
}

void probeWave(const std::string& path, ProbeResult& r) {
  WavReader wav;
  std::string error;
  r.container = "WAVE";
  if (!wav.open(path, error)) {
    r.refusal = error;
    return;
  }
  char text[160];
  std::snprintf(text, sizeof text, "format tag %u, %u channel(s), %u Hz, %u bits, %u data bytes", wav.formatTag,
                wav.channels, wav.sampleRate, wav.bitsPerSample, wav.dataBytes);
  r.detail = text;
  CompressionType code = CT_NONE;
  switch (wav.formatTag) {
    case 1:
      if (wav.bitsPerSample == 16) code = wav.sampleRate == 16000 ? CT_PCM16_16K : CT_PCM16;
      else if (wav.bitsPerSample == 8) code = CT_PCM8;
      break;
    case 6: code = CT_G711_ALAW; break;
    case 7: code = CT_G711_ULAW; break;
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
    default: break;
  }
  if (code == CT_NONE) {
    r.refusal = "no decoder for WAVE format tag " + std::to_string(wav.formatTag) + " with " +
                std::to_string(wav.bitsPerSample) + " bits per sample";
    return;
  }
  if (wav.channels != 1) {
    r.refusal = "only mono recordings are decoded (" + std::to_string(wav.channels) + " channels)";
    return;
  }
  const AudioFormat format(code, 1);
  if (format.getSamplesPerSecond() != wav.sampleRate) {
    r.refusal = "a " + std::to_string(wav.sampleRate) + " Hz stream of a codec that runs at " +
                std::to_string(format.getSamplesPerSecond()) + " Hz";
    return;
  }
  r.code = code;
}

}  // namespace

int amrWbStorageFrameBytes(unsigned frameType) {
  static const int kBytes[16] = {17, 23, 32, 36, 40, 46, 50, 58, 60, 5, -1, -1, -1, -1, 0, 0};
  return frameType < 16 ? kBytes[frameType] : -1;
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

bool OggPacketReader::push(const uint8_t* data, size_t bytes, std::string& error) {
  m_buffer.insert(m_buffer.end(), data, data + bytes);
  size_t pos = 0;
  while (m_buffer.size() - pos >= 27) {
    const uint8_t* page = m_buffer.data() + pos;
    if (std::memcmp(page, "OggS", 4) != 0 || page[4] != 0) {
      error = "not an Ogg page at byte " + std::to_string(m_offset + pos);
      return false;
    }
    const size_t segments = page[26];
    if (m_buffer.size() - pos < 27 + segments) break;
    size_t body = 0;
    for (size_t i = 0; i < segments; i++) body += page[27 + i];
    const size_t pageBytes = 27 + segments + body;
    if (m_buffer.size() - pos < pageBytes) break;

    std::vector<uint8_t> check(page, page + pageBytes);
    std::memset(check.data() + 22, 0, 4);
    const uint32_t stored = page[22] | (page[23] << 8) | (page[24] << 16) | (static_cast<uint32_t>(page[25]) << 24);
    if (oggCrc(check.data(), check.size()) != stored) {
      error = "corrupt Ogg page (checksum) at byte " + std::to_string(m_offset + pos);
      return false;
    }
    const uint32_t serial = page[14] | (page[15] << 8) | (page[16] << 16) | (static_cast<uint32_t>(page[17]) << 24);
    if (!m_haveSerial) {
      m_serial = serial;
      m_haveSerial = true;
    }
    if (serial == m_serial) {  // pages of other logical streams are skipped
      if (!(page[5] & 0x01)) m_partial.clear();  // no continuation: drop a dangling part
      const uint8_t* p = page + 27 + segments;
      for (size_t i = 0; i < segments; i++) {
        m_partial.insert(m_partial.end(), p, p + page[27 + i]);
        p += page[27 + i];
        if (page[27 + i] < 255) {
          m_ready.push_back(std::move(m_partial));
          m_partial.clear();
        }
      }
    }
    m_pages++;
    pos += pageBytes;
  }
  m_buffer.erase(m_buffer.begin(), m_buffer.begin() + static_cast<std::ptrdiff_t>(pos));
  m_offset += pos;
  return true;
}

bool OggPacketReader::nextPacket(std::vector<uint8_t>& packet) {
  if (m_readyHead == m_ready.size()) {
    m_ready.clear();
    m_readyHead = 0;
    return false;
  }
  packet = std::move(m_ready[m_readyHead++]);
  return true;
}

bool probeFile(const std::string& path, ProbeResult& r, std::string& error) {
  r = ProbeResult();
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  std::vector<uint8_t> head(4096);
  head.resize(std::fread(head.data(), 1, head.size(), f));
  std::fclose(f);

  if (startsWith(head, "RIFF") && head.size() >= 12 && std::memcmp(head.data() + 8, "WAVE", 4) == 0) {
    probeWave(path, r);
  } else if (startsWith(head, kAmrWbMagic)) {
    r.container = "AMR-WB storage";
    r.code = CT_AMRWB;
    r.detail = "RFC 4867 single-channel storage file";
  } else if (startsWith(head, "#!AMR-WB_MC")) {
    r.container = "AMR-WB storage";
    r.refusal = "multi-channel AMR-WB storage files are not decoded";
  } else if (startsWith(head, kAmrNbMagic)) {
    r.container = "AMR storage";
    r.refusal = "AMR narrowband is not a codec of this library";
  } else if (startsWith(head, kSilkMagic) ||
             (head.size() >= 10 && head[0] == 0x02 && std::memcmp(head.data() + 1, kSilkMagic, 9) == 0)) {
    r.container = "SILK_V3";
    r.code = CT_SILK_20MS;
    r.detail = head[0] == 0x02 ? "SILK_V3 file with a leading 0x02 byte" : "SILK_V3 file";
  } else if (startsWith(head, "OggS")) {
    r.container = "Ogg";
    OggPacketReader reader;
    std::vector<uint8_t> first;
    std::string ignored;
    if (reader.push(head.data(), head.size(), ignored) && reader.nextPacket(first) && first.size() >= 19 &&
        std::memcmp(first.data(), "OpusHead", 8) == 0) {
      r.container = "Ogg Opus";
      r.code = CT_OPUS;
      const uint32_t inputRate = first[12] | (first[13] << 8) | (first[14] << 16) | (static_cast<uint32_t>(first[15]) << 24);
      r.detail = std::to_string(first[9]) + " channel(s), input rate " + std::to_string(inputRate) + " Hz";
      if (first[9] > 2) r.refusal = "Opus streams with more than two channels are not decoded";
      if (r.refusal.size()) r.code = CT_NONE;
    } else {
      r.refusal = "an Ogg stream that does not start with an Opus identification header";
    }
  } else {
    r.container = "raw";
  }
  return true;
}

std::unique_ptr<StreamSource> openStream(const std::string& path, const ProbeResult& probe, std::string& error) {
  if (probe.container == "WAVE") {
    auto wav = std::make_unique<WavReader>();
    if (!wav->open(path, error)) return nullptr;
    return std::make_unique<WaveDataSource>(std::move(wav));
  }
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  if (probe.container == "AMR-WB storage") {
    std::fseek(f, static_cast<long>(std::strlen(kAmrWbMagic)), SEEK_SET);
    return std::make_unique<AmrWbStorageSource>(f);
  }
  if (probe.container == "SILK_V3") {
    const int first = std::fgetc(f);
    std::fseek(f, static_cast<long>(std::strlen(kSilkMagic) + (first == 0x02 ? 1 : 0)), SEEK_SET);
    return std::make_unique<SilkV3Source>(f);
  }
  if (probe.container == "Ogg Opus") return std::make_unique<OggOpusSource>(f);
  return std::make_unique<RawSource>(f);
}

}  // namespace quillon::tool
