#include "wav_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace quillon::tool {

namespace {
uint64_t le64(const uint8_t* p) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; i--) v = (v << 8) | p[i];
  return v;
}
uint32_t le32(const uint8_t* p) { return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24); }
uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

constexpr size_t kReadBlock = 16384;
constexpr uint32_t kUnknownSize = 0xffffffffu;
constexpr uint16_t kExtensible = 0xfffe;
// The GUID tail shared by every KSDATAFORMAT_SUBTYPE_* of a WAVE format tag.
constexpr uint8_t kSubFormatTail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                        0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71};
// Header chunks are read whole; no real one comes near this.
constexpr uint32_t kMaxHeaderChunk = 1u << 20;
}  // namespace

InputStream::~InputStream() {
  if (m_file && m_own) std::fclose(m_file);
}

bool InputStream::open(const std::string& path, std::string& error) {
  m_name = path == "-" ? "standard input" : path;
  if (path == "-") {
    m_file = stdin;
    m_own = false;
    return true;
  }
  m_file = std::fopen(path.c_str(), "rb");
  if (!m_file) {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  m_own = true;
  return true;
}

size_t InputStream::peek(size_t bytes) {
  if (m_head > 0 && m_head == m_ahead.size()) {
    m_ahead.clear();
    m_head = 0;
  }
  while (m_ahead.size() - m_head < bytes) {
    const size_t had = m_ahead.size();
    m_ahead.resize(m_head + bytes);
    const size_t n = std::fread(m_ahead.data() + had, 1, m_ahead.size() - had, m_file);
    m_ahead.resize(had + n);
    if (n == 0) {
      if (std::ferror(m_file)) m_failed = true;
      break;
    }
  }
  return std::min(bytes, m_ahead.size() - m_head);
}

size_t InputStream::read(uint8_t* buffer, size_t bytes) {
  size_t done = 0;
  if (m_head < m_ahead.size()) {
    done = std::min(bytes, m_ahead.size() - m_head);
    if (done) std::memcpy(buffer, m_ahead.data() + m_head, done);
    m_head += done;
    if (m_head == m_ahead.size()) {
      m_ahead.clear();
      m_head = 0;
    }
  }
  while (done < bytes) {
    const size_t n = std::fread(buffer + done, 1, bytes - done, m_file);
    if (n == 0) {
      if (std::ferror(m_file)) m_failed = true;
      break;
    }
    done += n;
  }
  return done;
}

bool InputStream::skip(uint64_t bytes) {
  uint8_t block[kReadBlock];
  while (bytes > 0) {
    const size_t n = read(block, static_cast<size_t>(std::min<uint64_t>(bytes, sizeof block)));
    if (n == 0) return false;
    bytes -= n;
  }
  return true;
}

bool readWaveHeader(InputStream& input, WaveFormat& f, std::string& error) {
  f = WaveFormat();
  const std::string& name = input.name();
  uint8_t riff[12];
  if (input.read(riff, 12) != 12 || std::memcmp(riff + 8, "WAVE", 4) != 0 ||
      (std::memcmp(riff, "RIFF", 4) != 0 && std::memcmp(riff, "RF64", 4) != 0 && std::memcmp(riff, "BW64", 4) != 0)) {
    error = name + " is not a RIFF/WAVE file";
    return false;
  }
  f.rf64 = std::memcmp(riff, "RIFF", 4) != 0;
  bool haveFormat = false;
  uint64_t ds64Data = 0;
  bool haveDs64 = false;
  std::vector<uint8_t> body;
  for (;;) {
    uint8_t chunk[8];
    if (input.read(chunk, 8) != 8) {
      error = name + ": no data chunk found";
      return false;
    }
    const uint32_t size = le32(chunk + 4);
    const bool isFormat = std::memcmp(chunk, "fmt ", 4) == 0;
    const bool isDs64 = std::memcmp(chunk, "ds64", 4) == 0;
    if (std::memcmp(chunk, "data", 4) == 0) {
      if (!haveFormat) {
        error = name + ": data chunk before the format chunk";
        return false;
      }
      if (f.rf64 && size == kUnknownSize && haveDs64) {
        f.dataBytes = ds64Data;
      } else if (size == 0 || size == kUnknownSize) {
        f.lengthKnown = false;
        f.warning = "the data chunk's size is " + std::string(size ? "0xFFFFFFFF" : "0") +
                    " (a recording that was not finished or was written to a pipe): reading to the end of the file";
      } else {
        f.dataBytes = size;
      }
      return true;
    }
    if (!isFormat && !isDs64) {
      if (!input.skip(static_cast<uint64_t>(size) + (size & 1))) {
        error = name + ": truncated chunk";
        return false;
      }
      continue;
    }
    if (size > kMaxHeaderChunk) {
      error = name + ": a " + std::to_string(size) + "-byte header chunk is not plausible";
      return false;
    }
    body.resize(size + (size & 1));
    const size_t got = input.read(body.data(), body.size());
    if (got < size) {
      error = name + (isFormat ? ": truncated format chunk" : ": truncated ds64 chunk");
      return false;
    }
    if (isDs64) {
      if (!f.rf64 || size < 24) {
        error = name + ": a ds64 chunk " + (f.rf64 ? "too short" : "outside an RF64 file");
        return false;
      }
      ds64Data = le64(body.data() + 8);
      haveDs64 = true;
      continue;
    }
    if (size < 16) {
      error = name + ": truncated format chunk";
      return false;
    }
    f.formatTag = le16(body.data());
    f.channels = le16(body.data() + 2);
    f.sampleRate = le32(body.data() + 4);
    f.blockAlign = le16(body.data() + 12);
    f.bitsPerSample = le16(body.data() + 14);
    if (f.formatTag == kExtensible) {
      if (size < 40 || le16(body.data() + 16) < 22) {
        error = name + ": WAVE_FORMAT_EXTENSIBLE format chunk without its sub-format";
        return false;
      }
      f.extensible = true;
      const uint16_t sub = le16(body.data() + 24);
      // An unknown GUID keeps the extensible tag, so it is refused by name.
      if (std::memcmp(body.data() + 26, kSubFormatTail, sizeof kSubFormatTail) == 0) f.formatTag = sub;
    }
    haveFormat = true;
  }
}

bool WavReader::open(const std::string& path, std::string& error) {
  auto input = std::make_unique<InputStream>();
  if (!input->open(path, error)) return false;
  WaveFormat format;
  if (!readWaveHeader(*input, format, error)) return false;
  attach(std::move(input), format);
  return true;
}

void WavReader::attach(std::unique_ptr<InputStream> input, const WaveFormat& format) {
  m_input = std::move(input);
  m_format = format;
  m_left = format.dataBytes;
  m_ended = false;
}

size_t WavReader::read(uint8_t* buffer, size_t bytes) {
  if (m_format.lengthKnown && bytes > m_left) bytes = static_cast<size_t>(m_left);
  if (bytes == 0) return 0;
  const size_t n = m_input->read(buffer, bytes);
  if (n < bytes) m_ended = true;
  if (m_format.lengthKnown) m_left -= n;
  return n;
}

OutputFile::~OutputFile() {
  if (m_file) {
    std::string ignored;
    finish(ignored);
  }
}

bool OutputFile::open(const std::string& path, const TAV::AudioFormat& format, uint32_t sampleRate, Header header,
                      std::string& error, uint16_t channels) {
  m_file = std::fopen(path.c_str(), "wb");
  if (!m_file) {
    error = "cannot create " + path + ": " + std::strerror(errno);
    return false;
  }
  m_own = true;
  if (open(m_file, format, sampleRate, header, error, channels)) return true;
  error = "cannot write " + path + ": " + std::strerror(errno);
  return false;
}

bool OutputFile::open(FILE* stream, const TAV::AudioFormat& format, uint32_t sampleRate, Header header,
                      std::string& error, uint16_t channels) {
  if (m_file != stream) m_own = false;
  m_file = stream;
  m_format = format;
  m_rate = sampleRate;
  m_header = header;
  m_channels = channels;
  m_bytes = 0;
  // A pipe cannot take the header back: it is written once, sizes unknown.
  m_seekable = std::fseek(m_file, 0, SEEK_CUR) == 0;
  if (!writeHeader()) {
    error = std::string("cannot write the WAVE header: ") + std::strerror(errno);
    return false;
  }
  return true;
}

// The header comes from the library's own format model; a 16 kHz PCM
// stream is described by code 70 so that its rate is right.
bool OutputFile::writeHeader() {
  const uint32_t length = !m_seekable                   ? kUnknownSize
                          : m_bytes > kUnknownSize - 90 ? kUnknownSize - 90
                                                        : static_cast<uint32_t>(m_bytes);
  if (m_header == Header::Plain) {
    TAV::WaveHeader h{};
    if (!m_format.fillWaveHeader(h, length)) return false;
    h.channels = m_channels;
    h.blockAlign = static_cast<uint16_t>(m_channels * (h.bitsPerSample / 8));
    h.samplesPerSec = m_rate;
    h.avgBytesPerSec = m_rate * h.blockAlign;
    if (!m_seekable) h.riffSize = kUnknownSize;
    return std::fwrite(&h, sizeof h, 1, m_file) == 1;
  }
  if (m_header == Header::MsAdpcm) {
    TAV::WaveHeader_ADPCM32 h{};
    if (!m_format.fillWaveHeaderMSADPCM32(h, length)) return false;
    if (!m_seekable) h.riffSize = kUnknownSize;
    if (m_frames > 0) h.factSampleCount = static_cast<uint32_t>(std::min<uint64_t>(m_frames, kUnknownSize));
    return std::fwrite(&h, sizeof h, 1, m_file) == 1;
  }
  return true;
}

bool OutputFile::write(const void* data, size_t bytes) {
  if (bytes == 0) return true;
  if (std::fwrite(data, 1, bytes, m_file) != bytes) return false;
  m_bytes += bytes;
  return true;
}

bool OutputFile::finish(std::string& error) {
  if (!m_file) return true;
  bool ok = true;
  if (m_header != Header::None && m_seekable) ok = std::fseek(m_file, 0, SEEK_SET) == 0 && writeHeader();
  if (m_own) {
    if (std::fclose(m_file) != 0) ok = false;
  } else if (std::fflush(m_file) != 0) {
    ok = false;
  }
  m_file = nullptr;
  if (!ok) error = std::string("cannot finish the output file: ") + std::strerror(errno);
  return ok;
}

}  // namespace quillon::tool
