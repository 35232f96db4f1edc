#include "wav_file.h"

#include <cerrno>
#include <cstring>

namespace quillon::tool {

namespace {
uint32_t le32(const uint8_t* p) { return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24); }
uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
}  // namespace

WavReader::~WavReader() {
  if (m_file) std::fclose(m_file);
}

bool WavReader::open(const std::string& path, std::string& error) {
  m_file = std::fopen(path.c_str(), "rb");
  if (!m_file) {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  uint8_t riff[12];
  if (std::fread(riff, 1, 12, m_file) != 12 || std::memcmp(riff, "RIFF", 4) != 0 ||
      std::memcmp(riff + 8, "WAVE", 4) != 0) {
    error = path + " is not a RIFF/WAVE file";
    return false;
  }
  bool haveFormat = false;
  for (;;) {
    uint8_t chunk[8];
    if (std::fread(chunk, 1, 8, m_file) != 8) {
      error = path + ": no data chunk found";
      return false;
    }
    const uint32_t size = le32(chunk + 4);
    if (std::memcmp(chunk, "fmt ", 4) == 0) {
      uint8_t fmt[16];
      if (size < 16 || std::fread(fmt, 1, 16, m_file) != 16) {
        error = path + ": truncated format chunk";
        return false;
      }
      formatTag = le16(fmt);
      channels = le16(fmt + 2);
      sampleRate = le32(fmt + 4);
      blockAlign = le16(fmt + 12);
      bitsPerSample = le16(fmt + 14);
      haveFormat = true;
      if (std::fseek(m_file, static_cast<long>(size - 16 + (size & 1)), SEEK_CUR) != 0) {
        error = path + ": truncated format chunk";
        return false;
      }
    } else if (std::memcmp(chunk, "data", 4) == 0) {
      if (!haveFormat) {
        error = path + ": data chunk before the format chunk";
        return false;
      }
      dataBytes = size;
      m_left = size;
      return true;
    } else if (std::fseek(m_file, static_cast<long>(size + (size & 1)), SEEK_CUR) != 0) {
      error = path + ": truncated chunk";
      return false;
    }
  }
}

size_t WavReader::read(uint8_t* buffer, size_t bytes) {
  if (bytes > m_left) bytes = m_left;
  const size_t n = std::fread(buffer, 1, bytes, m_file);
  m_left -= static_cast<uint32_t>(n);
  return n;
}

OutputFile::~OutputFile() {
  if (m_file) {
    std::string ignored;
    finish(ignored);
  }
}

bool OutputFile::open(const std::string& path, const TAV::AudioFormat& format, uint32_t sampleRate, Header header,
                      std::string& error) {
  m_file = std::fopen(path.c_str(), "wb");
  if (!m_file) {
    error = "cannot create " + path + ": " + std::strerror(errno);
    return false;
  }
  m_ownsFile = true;
  if (open(m_file, format, sampleRate, header, error)) return true;
  error = "cannot write " + path + ": " + std::strerror(errno);
  return false;
}

bool OutputFile::open(FILE* stream, const TAV::AudioFormat& format, uint32_t sampleRate, Header header,
                      std::string& error) {
  if (m_file != stream) m_ownsFile = false;
  m_format = format;
  m_rate = sampleRate;
  m_header = header;
  m_file = stream;
  if (!writeHeader()) {
    error = std::string("cannot write the WAVE header: ") + std::strerror(errno);
    return false;
  }
  return true;
}

// The header comes from the library's own format model; a 16 kHz PCM
// stream is described by code 70 so that its rate is right.
bool OutputFile::writeHeader() {
  const uint32_t length = m_bytes > 0xffffffffu - 90 ? 0xffffffffu - 90 : static_cast<uint32_t>(m_bytes);
  if (m_header == Header::Plain) {
    TAV::WaveHeader h{};
    if (!m_format.fillWaveHeader(h, length)) return false;
    h.samplesPerSec = m_rate;
    h.avgBytesPerSec = m_rate * h.blockAlign;
    return std::fwrite(&h, sizeof h, 1, m_file) == 1;
  }
  if (m_header == Header::MsAdpcm) {
    TAV::WaveHeader_ADPCM32 h{};
    if (!m_format.fillWaveHeaderMSADPCM32(h, length)) return false;
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
  if (m_header != Header::None) {
    ok = std::fseek(m_file, 0, SEEK_SET) == 0 && writeHeader();
  }
  if ((m_ownsFile ? std::fclose(m_file) : std::fflush(m_file)) != 0) ok = false;
  m_file = nullptr;
  if (!ok) error = std::string("cannot finish the output file: ") + std::strerror(errno);
  return ok;
}

}  // namespace quillon::tool
