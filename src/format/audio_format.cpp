#include "quillon/audio_format.h"

#include <cstring>

namespace TAV {

namespace {

struct Framing {
  uint32 samplesPerSecond;
  uint32 bytesPerFrame;
  uint32 samplesPerFrame;
};

// Framing of every code that has one; false for the rest.
bool framingOf(CompressionType code, uint16 channels, Framing& f) {
  switch (code) {
    case CT_G711_ALAW:
    case CT_G711_ULAW: f = {8000, 8, 8}; return true;
    case CT_G726_40:
    case CT_G726_40_LSB: f = {8000, 5, 8}; return true;
    case CT_G726_32:
    case CT_G726_32_LSB: f = {8000, 4, 8}; return true;
    case CT_G726_24:
    case CT_G726_24_LSB: f = {8000, 3, 8}; return true;
    case CT_G726_16:
    case CT_G726_16_LSB: f = {8000, 2, 8}; return true;
    case CT_G729: f = {8000, 10, 80}; return true;
    case CT_ICELP48:
    case CT_TETRA: f = {8000, 18, 240}; return true;
    case CT_G722:
    case CT_G722_MODE2:
    case CT_G722_MODE3: f = {16000, 1, 2}; return true;
    case CT_SILK_20MS: f = {8000, 0, 160}; return true;
    case CT_SILK_30MS: f = {8000, 0, 240}; return true;
    case CT_SILK_40MS: f = {8000, 0, 320}; return true;
    case CT_SILK_60MS: f = {8000, 0, 480}; return true;
    case CT_OPUS:
    case CT_AMRWB: f = {16000, 0, 480}; return true;
    case CT_PCM16_16K: f = {16000, 32, 16}; return true;
    case CT_PCM16: f = {8000, 16, 8}; return true;
    case CT_MSADPCM: f = {8000, 256, 512u - 12u * channels}; return true;
    case CT_PCM8: f = {8000, 8, 8}; return true;
    default: return false;
  }
}

}  // namespace

AudioFormat::AudioFormat() { clear(); }

AudioFormat::AudioFormat(CompressionType compression, uint16 channels) {
  clear();
  setFormat(compression, channels);
}

AudioFormat::AudioFormat(const AudioFormat& other) = default;
AudioFormat& AudioFormat::operator=(const AudioFormat& other) = default;
AudioFormat::~AudioFormat() = default;

bool AudioFormat::operator==(const AudioFormat& other) const {
  return m_compression == other.m_compression && m_channels == other.m_channels;
}

void AudioFormat::clear() {
  m_samplesPerSecond = 8000;
  m_bytesPerFrame = 0;
  m_samplesPerFrame = 0;
  m_channels = 0;
  m_compression = CT_NONE;
}

bool AudioFormat::setFormat(CompressionType compression, uint16 channels) {
  m_compression = compression;
  if (channels != 1 && channels != 2) {
    setFormat(CT_NONE, 1);
    return false;
  }
  m_channels = channels;
  Framing f;
  if (!framingOf(compression, channels, f)) {
    clear();
    return false;
  }
  m_samplesPerSecond = f.samplesPerSecond;
  m_bytesPerFrame = f.bytesPerFrame;
  m_samplesPerFrame = f.samplesPerFrame;
  return true;
}

bool AudioFormat::setChannels(uint16 channels) {
  if (channels == m_channels) return true;
  if (channels != 1 && channels != 2) return false;
  if (m_channels == 0) return false;  // cleared format: nothing to rescale
  m_bytesPerFrame = (m_bytesPerFrame / m_channels) * channels;
  m_channels = channels;
  return true;
}

bool AudioFormat::isNoCompression(CompressionType c) {
  return c == CT_NONE || c == CT_UNCOMPRESSED_150 || c == CT_UNCOMPRESSED_151 || c == CT_UNCOMPRESSED_152;
}

bool AudioFormat::isMultiRateCompression(CompressionType c) { return c >= CT_SILK_20MS && c <= CT_AMRWB; }

bool AudioFormat::isScreenCompression(CompressionType c) { return c == CT_SCREEN_200 || c == CT_SCREEN_201; }

uint64 AudioFormat::bytesToMilliseconds(uint64 bytes) const {
  if (m_bytesPerFrame == 0) return 0;
  return ((bytes / m_bytesPerFrame) * m_samplesPerFrame) / (m_samplesPerSecond / 1000);
}

uint64 AudioFormat::bytesToMillisecondsUnaligned(uint64 bytes) const {
  if (m_bytesPerFrame == 0) return 0;
  return ((bytes * m_samplesPerFrame) / m_bytesPerFrame) / (m_samplesPerSecond / 1000);
}

uint64 AudioFormat::millisecondsToBytes(uint64 ms) const {
  if (m_bytesPerFrame == 0) return 0;
  return ((static_cast<uint64>(m_samplesPerSecond / 1000) * m_bytesPerFrame) * ms) / m_samplesPerFrame;
}

uint32 AudioFormat::bytesToSamples(uint32 bytes) const {
  if (m_bytesPerFrame == 0) return 0;
  return (bytes / m_bytesPerFrame) * m_samplesPerFrame;
}

uint32 AudioFormat::bytesToSamplesUnaligned(uint32 bytes) const {
  if (m_bytesPerFrame == 0) return 0;
  return static_cast<uint32>(m_samplesPerFrame * bytes) / m_bytesPerFrame;
}

uint32 AudioFormat::samplesToBytes(uint32 samples) const {
  if (m_bytesPerFrame == 0) return 0;
  return (samples / m_samplesPerFrame) * m_bytesPerFrame;
}

uint32 AudioFormat::samplesToBytesUnaligned(uint32 samples) const {
  if (m_bytesPerFrame == 0) return 0;
  return static_cast<uint32>(m_bytesPerFrame * samples) / m_samplesPerFrame;
}

bool AudioFormat::getWaveFormat(tWAVEFORMATEX& wfx) const {
  wfx.nChannels = m_channels;
  wfx.nSamplesPerSec = m_samplesPerSecond;
  switch (m_compression) {
    case CT_G711_ALAW:
    case CT_G711_ULAW:
    case CT_PCM8:
      wfx.wFormatTag = m_compression == CT_G711_ALAW ? 6 : m_compression == CT_G711_ULAW ? 7 : 1;
      wfx.wBitsPerSample = 8;
      wfx.nBlockAlign = m_channels;
      wfx.nAvgBytesPerSec = m_channels * m_samplesPerSecond;
      wfx.cbSize = 0;
      return true;
    case CT_PCM16:
    case CT_PCM16_16K:
      wfx.wFormatTag = 1;
      wfx.wBitsPerSample = 16;
      wfx.nBlockAlign = static_cast<uint16>(m_channels * 2);
      wfx.nAvgBytesPerSec = m_channels * m_samplesPerSecond * 2;
      wfx.cbSize = 0;
      return true;
    case CT_MSADPCM:
      // The average byte rate is left alone: the MS ADPCM header derives it.
      wfx.wFormatTag = 2;
      wfx.wBitsPerSample = 4;
      wfx.nBlockAlign = 256;
      wfx.cbSize = 32;
      return true;
    default:
      return false;
  }
}

bool AudioFormat::fillWaveHeader(WaveHeader& header, uint32 dataLength) const {
  tWAVEFORMATEX wfx{};  // zeroed: code 101 would otherwise leave the byte rate undefined
  if (!getWaveFormat(wfx)) return false;
  std::memcpy(header.riff, "RIFF", 4);
  header.riffSize = dataLength + 36;
  std::memcpy(header.wave, "WAVE", 4);
  std::memcpy(header.fmt, "fmt ", 4);
  header.fmtSize = 16;
  header.formatTag = wfx.wFormatTag;
  header.channels = wfx.nChannels;
  header.samplesPerSec = wfx.nSamplesPerSec;
  header.avgBytesPerSec = wfx.nAvgBytesPerSec;
  header.blockAlign = wfx.nBlockAlign;
  header.bitsPerSample = wfx.wBitsPerSample;
  std::memcpy(header.data, "data", 4);
  header.dataLength = dataLength;
  return true;
}

bool AudioFormat::fillWaveHeaderMSADPCM32(WaveHeader_ADPCM32& header, uint32 dataLength) const {
  static const int16 kCoefficients[7][2] = {{256, 0}, {512, -256}, {0, 0}, {192, 64},
                                            {240, 0}, {460, -208}, {392, -232}};
  tWAVEFORMATEX wfx{};
  if (!getWaveFormat(wfx)) return false;
  if (wfx.nChannels == 0 || wfx.wBitsPerSample == 0) return false;
  const uint32 samplesPerBlock =
      ((wfx.nBlockAlign - 7u * wfx.nChannels) * 8u) / (wfx.wBitsPerSample * wfx.nChannels) + 2u;
  std::memcpy(header.riff, "RIFF", 4);
  header.riffSize = dataLength + 82;
  std::memcpy(header.wave, "WAVE", 4);
  std::memcpy(header.fmt, "fmt ", 4);
  header.fmtSize = 50;
  header.formatTag = wfx.wFormatTag;
  header.channels = wfx.nChannels;
  header.samplesPerSec = wfx.nSamplesPerSec;
  header.avgBytesPerSec = wfx.nBlockAlign * wfx.nSamplesPerSec / samplesPerBlock;
  header.blockAlign = wfx.nBlockAlign;
  header.bitsPerSample = wfx.wBitsPerSample;
  header.extraSize = wfx.cbSize;
  header.samplesPerBlock = static_cast<uint16>(samplesPerBlock);
  header.numCoefficients = 7;
  std::memcpy(header.coefficients, kCoefficients, sizeof kCoefficients);
  std::memcpy(header.fact, "fact", 4);
  header.factSize = 4;
  header.factSampleCount = 1;
  std::memcpy(header.data, "data", 4);
  header.dataLength = dataLength;
  return true;
}

}  // namespace TAV
