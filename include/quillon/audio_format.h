// Stream description: compression code, rate, channels and framing, with the
// byte/sample/millisecond conversions and the RIFF/WAVE header writers.
#ifndef QUILLON_AUDIO_FORMAT_H
#define QUILLON_AUDIO_FORMAT_H

#include "quillon/platform.h"

namespace TAV {

enum CompressionType : int32 {
  CT_NONE = 0,
  CT_G711_ALAW = 1,
  CT_G711_ULAW = 2,
  CT_G726_40 = 3,
  CT_G726_32 = 4,
  CT_G726_24 = 5,
  CT_G726_16 = 6,
  CT_G726_40_LSB = 13,
  CT_G726_32_LSB = 14,
  CT_G726_24_LSB = 15,
  CT_G726_16_LSB = 16,
  CT_G729 = 20,
  CT_ICELP48 = 30,
  CT_TETRA = 40,
  CT_G722 = 50,
  CT_G722_MODE2 = 51,
  CT_G722_MODE3 = 52,
  CT_SILK_20MS = 60,
  CT_SILK_30MS = 61,
  CT_SILK_40MS = 62,
  CT_SILK_60MS = 63,
  CT_OPUS = 64,
  CT_AMRWB = 65,
  CT_PCM16_16K = 70,
  CT_PCM16 = 100,
  CT_MSADPCM = 101,
  CT_PCM8 = 102,
  CT_UNCOMPRESSED_150 = 150,
  CT_UNCOMPRESSED_151 = 151,
  CT_UNCOMPRESSED_152 = 152,
  CT_SCREEN_200 = 200,
  CT_SCREEN_201 = 201,
};

#pragma pack(push, 1)
// The Windows WAVEFORMATEX record.
struct tWAVEFORMATEX {
  uint16 wFormatTag;
  uint16 nChannels;
  uint32 nSamplesPerSec;
  uint32 nAvgBytesPerSec;
  uint16 nBlockAlign;
  uint16 wBitsPerSample;
  uint16 cbSize;
};

// 44-byte RIFF/WAVE header of the plain formats.
struct WaveHeader {
  char riff[4];
  uint32 riffSize;
  char wave[4];
  char fmt[4];
  uint32 fmtSize;
  uint16 formatTag;
  uint16 channels;
  uint32 samplesPerSec;
  uint32 avgBytesPerSec;
  uint16 blockAlign;
  uint16 bitsPerSample;
  char data[4];
  uint32 dataLength;
};

// 90-byte RIFF/WAVE header of Microsoft ADPCM (format chunk with the
// coefficient table, then a fact chunk).
struct WaveHeader_ADPCM32 {
  char riff[4];
  uint32 riffSize;
  char wave[4];
  char fmt[4];
  uint32 fmtSize;
  uint16 formatTag;
  uint16 channels;
  uint32 samplesPerSec;
  uint32 avgBytesPerSec;
  uint16 blockAlign;
  uint16 bitsPerSample;
  uint16 extraSize;
  uint16 samplesPerBlock;
  uint16 numCoefficients;
  int16 coefficients[7][2];
  char fact[4];
  uint32 factSize;
  uint32 factSampleCount;
  char data[4];
  uint32 dataLength;
};
#pragma pack(pop)

static_assert(sizeof(tWAVEFORMATEX) == 18, "WAVEFORMATEX layout");
static_assert(sizeof(WaveHeader) == 44, "WAVE header layout");
static_assert(sizeof(WaveHeader_ADPCM32) == 90, "MS ADPCM WAVE header layout");

class QUILLON_API AudioFormat {
 public:
  AudioFormat();
  AudioFormat(CompressionType compression, uint16 channels);
  AudioFormat(const AudioFormat& other);
  AudioFormat& operator=(const AudioFormat& other);
  virtual ~AudioFormat();

  bool operator==(const AudioFormat& other) const;
  bool operator!=(const AudioFormat& other) const { return !(*this == other); }

  bool isValid() const { return m_compression != CT_NONE; }
  void clear();
  bool setFormat(CompressionType compression, uint16 channels);
  bool setChannels(uint16 channels);

  uint32 getSamplesPerSecond() const { return m_samplesPerSecond; }
  uint32 getBytesPerFrame() const { return m_bytesPerFrame; }
  uint32 getSamplesPerFrame() const { return m_samplesPerFrame; }
  uint16 getChannels() const { return m_channels; }
  CompressionType getCompression() const { return m_compression; }

  static bool isNoCompression(CompressionType compression);
  static bool isMultiRateCompression(CompressionType compression);
  static bool isScreenCompression(CompressionType compression);
  bool isNoCompression() const { return isNoCompression(m_compression); }
  bool isMultiRateCompression() const { return isMultiRateCompression(m_compression); }
  bool isScreenCompression() const { return isScreenCompression(m_compression); }

  uint64 bytesToMilliseconds(uint64 bytes) const;
  uint64 bytesToMillisecondsUnaligned(uint64 bytes) const;
  uint64 millisecondsToBytes(uint64 milliseconds) const;
  uint32 bytesToSamples(uint32 bytes) const;
  uint32 bytesToSamplesUnaligned(uint32 bytes) const;
  uint32 samplesToBytes(uint32 samples) const;
  uint32 samplesToBytesUnaligned(uint32 samples) const;

  bool getWaveFormat(tWAVEFORMATEX& wfx) const;
  bool fillWaveHeader(WaveHeader& header, uint32 dataLength) const;
  bool fillWaveHeaderMSADPCM32(WaveHeader_ADPCM32& header, uint32 dataLength) const;

 private:
  uint32 m_samplesPerSecond;
  uint32 m_bytesPerFrame;
  uint32 m_samplesPerFrame;
  uint16 m_channels;
  CompressionType m_compression;
};

}  // namespace TAV

#endif
