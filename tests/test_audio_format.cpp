#include <gtest/gtest.h>

#include <cstring>

#include "quillon/audio_format.h"

using namespace TAV;

TEST(AudioFormat, FramingTableAndCategories) {
  struct Row { CompressionType code; uint32 rate, bytes, samples; };
  const Row rows[] = {{CT_G711_ALAW, 8000, 8, 8},   {CT_G726_40, 8000, 5, 8},   {CT_G726_16_LSB, 8000, 2, 8},
                      {CT_G729, 8000, 10, 80},      {CT_TETRA, 8000, 18, 240},  {CT_G722_MODE3, 16000, 1, 2},
                      {CT_SILK_60MS, 8000, 0, 480}, {CT_OPUS, 16000, 0, 480},   {CT_PCM16_16K, 16000, 32, 16},
                      {CT_PCM16, 8000, 16, 8},      {CT_MSADPCM, 8000, 256, 500}, {CT_PCM8, 8000, 8, 8}};
  for (const Row& r : rows) {
    AudioFormat f(r.code, 1);
    EXPECT_TRUE(f.isValid()) << r.code;
    EXPECT_EQ(f.getSamplesPerSecond(), r.rate) << r.code;
    EXPECT_EQ(f.getBytesPerFrame(), r.bytes) << r.code;
    EXPECT_EQ(f.getSamplesPerFrame(), r.samples) << r.code;
  }
  EXPECT_EQ(AudioFormat(CT_MSADPCM, 2).getSamplesPerFrame(), 488u);
  EXPECT_EQ(AudioFormat(CT_PCM16, 2).getBytesPerFrame(), 16u);

  for (int code : {0, 7, 12, 17, 21, 66, 103, 150, 200, 201}) {
    AudioFormat f(static_cast<CompressionType>(code), 1);
    EXPECT_FALSE(f.isValid()) << code;
    EXPECT_EQ(f.getSamplesPerSecond(), 8000u);
    EXPECT_EQ(f.getChannels(), 0u);
  }
  EXPECT_TRUE(AudioFormat::isNoCompression(CT_UNCOMPRESSED_150));
  EXPECT_FALSE(AudioFormat::isNoCompression(CT_PCM16));
  EXPECT_TRUE(AudioFormat(CT_AMRWB, 1).isMultiRateCompression());
  EXPECT_FALSE(AudioFormat::isMultiRateCompression(CT_PCM16_16K));
  EXPECT_TRUE(AudioFormat::isScreenCompression(CT_SCREEN_201));
}

TEST(AudioFormat, FailedSetFormatAlwaysClears) {
  AudioFormat f(CT_G711_ALAW, 1);
  EXPECT_FALSE(f.setFormat(CT_G711_ALAW, 3));
  EXPECT_EQ(f.getCompression(), CT_NONE);
  EXPECT_EQ(f.getChannels(), 0u);
  EXPECT_EQ(f.getSamplesPerSecond(), 8000u);
  f = AudioFormat(CT_G722, 1);
  EXPECT_FALSE(f.setFormat(CT_UNCOMPRESSED_150, 1));
  EXPECT_EQ(f.getSamplesPerSecond(), 8000u);
  EXPECT_EQ(f.getBytesPerFrame(), 0u);
}

TEST(AudioFormat, SetChannelsRescalesBytesButNotSamples) {
  AudioFormat f(CT_PCM16, 1);
  EXPECT_TRUE(f.setChannels(2));
  EXPECT_EQ(f.getBytesPerFrame(), 32u);
  EXPECT_EQ(f.getSamplesPerFrame(), 8u);
  EXPECT_TRUE(f == AudioFormat(CT_PCM16, 2));  // framing is not compared
  EXPECT_FALSE(f.setChannels(3));
  EXPECT_EQ(f.getChannels(), 2u);
  AudioFormat m(CT_MSADPCM, 1);
  EXPECT_TRUE(m.setChannels(2));
  EXPECT_EQ(m.getBytesPerFrame(), 512u);
  EXPECT_EQ(m.getSamplesPerFrame(), 500u);
  AudioFormat cleared;
  EXPECT_FALSE(cleared.setChannels(1));
}

TEST(AudioFormat, Conversions) {
  const AudioFormat pcm(CT_PCM16, 1);
  EXPECT_EQ(pcm.bytesToMilliseconds(1601), 100u);
  EXPECT_EQ(pcm.bytesToSamples(17), 8u);
  EXPECT_EQ(pcm.bytesToSamplesUnaligned(17), 8u);
  EXPECT_EQ(pcm.millisecondsToBytes(1), 16u);
  EXPECT_EQ(pcm.samplesToBytes(15), 16u);
  EXPECT_EQ(pcm.samplesToBytesUnaligned(15), 30u);
  const AudioFormat g726(CT_G726_40, 1);
  EXPECT_EQ(g726.bytesToMillisecondsUnaligned(7), 1u);
  EXPECT_EQ(g726.bytesToMilliseconds(7), 1u);
  EXPECT_EQ(g726.millisecondsToBytes(3), 15u);
  EXPECT_EQ(g726.bytesToSamplesUnaligned(7), 11u);
  const AudioFormat g722(CT_G722, 1);
  EXPECT_EQ(g722.bytesToMilliseconds(16000), 2000u);
  // 64-bit conversions keep full width; 32-bit unaligned products wrap.
  EXPECT_EQ(pcm.millisecondsToBytes(10000000000ull), 160000000000ull);
  EXPECT_EQ(AudioFormat(CT_G729, 1).bytesToSamplesUnaligned(0x80000000u), (0x80000000u * 80u) / 10u);
  for (const AudioFormat& f : {AudioFormat(CT_SILK_20MS, 1), AudioFormat(CT_OPUS, 1), AudioFormat()}) {
    EXPECT_EQ(f.bytesToMilliseconds(1000), 0u);
    EXPECT_EQ(f.bytesToMillisecondsUnaligned(1000), 0u);
    EXPECT_EQ(f.millisecondsToBytes(1000), 0u);
    EXPECT_EQ(f.bytesToSamples(1000), 0u);
    EXPECT_EQ(f.samplesToBytesUnaligned(1000), 0u);
  }
}

TEST(WaveHeader, PlainHeaderBytes) {
  WaveHeader h;
  ASSERT_TRUE(AudioFormat(CT_PCM16, 1).fillWaveHeader(h, 16000));
  const uint8_t expected[44] = {'R', 'I', 'F', 'F', 0xa4, 0x3e, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ',
                                16,  0,   0,   0,   1,    0,    1, 0, 0x40, 0x1f, 0, 0, 0x80, 0x3e, 0, 0,
                                2,   0,   16,  0,   'd',  'a',  't', 'a', 0x80, 0x3e, 0, 0};
  EXPECT_EQ(std::memcmp(&h, expected, 44), 0);
  ASSERT_TRUE(AudioFormat(CT_PCM16_16K, 1).fillWaveHeader(h, 0));
  EXPECT_EQ(+h.avgBytesPerSec, 32000u);
  ASSERT_TRUE(AudioFormat(CT_G711_ULAW, 2).fillWaveHeader(h, 0));
  EXPECT_EQ(+h.formatTag, 7);
  EXPECT_EQ(+h.blockAlign, 2);
  EXPECT_EQ(+h.avgBytesPerSec, 16000u);
  ASSERT_TRUE(AudioFormat(CT_PCM8, 1).fillWaveHeader(h, 0));
  EXPECT_EQ(+h.bitsPerSample, 8);
}

TEST(WaveHeader, MsAdpcmHeaderAndRefusals) {
  WaveHeader_ADPCM32 h;
  ASSERT_TRUE(AudioFormat(CT_MSADPCM, 1).fillWaveHeaderMSADPCM32(h, 2560));
  EXPECT_EQ(std::memcmp(h.riff, "RIFF", 4), 0);
  EXPECT_EQ(+h.riffSize, 2642u);
  EXPECT_EQ(+h.fmtSize, 50u);
  EXPECT_EQ(+h.formatTag, 2);
  EXPECT_EQ(+h.samplesPerBlock, 500);
  EXPECT_EQ(+h.avgBytesPerSec, 4096u);
  EXPECT_EQ(+h.extraSize, 32);
  EXPECT_EQ(+h.numCoefficients, 7);
  EXPECT_EQ(+h.coefficients[5][0], 460);
  EXPECT_EQ(+h.coefficients[6][1], -232);
  EXPECT_EQ(std::memcmp(h.fact, "fact", 4), 0);
  EXPECT_EQ(+h.factSampleCount, 1u);
  EXPECT_EQ(+h.dataLength, 2560u);
  ASSERT_TRUE(AudioFormat(CT_MSADPCM, 2).fillWaveHeaderMSADPCM32(h, 0));
  EXPECT_EQ(+h.samplesPerBlock, 244);

  WaveHeader plain;
  std::memset(&plain, 0xee, sizeof plain);
  tWAVEFORMATEX wfx{};
  const AudioFormat g729(CT_G729, 1);
  EXPECT_FALSE(g729.getWaveFormat(wfx));
  EXPECT_EQ(wfx.nSamplesPerSec, 8000u);  // written all the same
  EXPECT_FALSE(g729.fillWaveHeader(plain, 10));
  EXPECT_EQ(+plain.riffSize, 0xeeeeeeeeu);  // left untouched
  EXPECT_FALSE(g729.fillWaveHeaderMSADPCM32(h, 10));
}
