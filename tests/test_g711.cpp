#include <gtest/gtest.h>

#include "primitives/g711.h"
#include "quillon/codecs/codec_g711.h"
#include "quillon/codecs/codec_pcm_linear.h"
#include "test_support.h"

using namespace TAV;
using namespace quillon::g711;

TEST(G711, ReferenceValuesAtTheEdges) {
  EXPECT_EQ(alawExpand(0xd5), 8);
  EXPECT_EQ(alawExpand(0x55), -8);
  EXPECT_EQ(alawExpand(0xaa), 32256);
  EXPECT_EQ(alawExpand(0x2a), -32256);
  EXPECT_EQ(alawExpand(0x80), 5504);
  EXPECT_EQ(alawCompress(0), 0xd5);
  EXPECT_EQ(alawCompress(-1), 0x55);
  EXPECT_EQ(alawCompress(32767), 0xaa);
  EXPECT_EQ(alawCompress(-32768), 0x2a);
  EXPECT_EQ(ulawExpand(0xff), 0);
  EXPECT_EQ(ulawExpand(0x7f), 0);
  EXPECT_EQ(ulawExpand(0xfe), 8);
  EXPECT_EQ(ulawExpand(0x80), 32124);
  EXPECT_EQ(ulawExpand(0x00), -32124);
  EXPECT_EQ(ulawCompress(0), 0xff);
  EXPECT_EQ(ulawCompress(32767), 0x80);
  EXPECT_EQ(ulawCompress(-32768), 0x00);
}

TEST(G711, EveryCodeRoundTrips) {
  for (int code = 0; code < 256; code++) {
    EXPECT_EQ(alawCompress(alawExpand(static_cast<uint8_t>(code))), code) << code;
    const uint8_t back = ulawCompress(ulawExpand(static_cast<uint8_t>(code)));
    EXPECT_EQ(back, code == 0x7f ? 0xff : code) << code;
  }
}

TEST(G711, CompressionIsMonotonicOverAllSamples) {
  // Expanding the code of every sample never moves away from the sample
  // by more than half a quantisation step of its segment.
  for (int s = -32768; s <= 32767; s++) {
    const int a = alawExpand(alawCompress(static_cast<int16_t>(s)));
    const int u = ulawExpand(ulawCompress(static_cast<int16_t>(s)));
    ASSERT_LE(std::abs(a - s), 1024) << s;
    ASSERT_LE(std::abs(u - s), 1100) << s;
  }
}

TEST(G711, CodecContract) {
  CodecG711 codec;
  EXPECT_FALSE(codec.open(AudioFormat(CT_PCM8, 1), false));
  ASSERT_TRUE(codec.open(AudioFormat(CT_G711_ALAW, 1), true));
  const int16 pcm[3] = {0, -1, 32767};
  uint8 out[3] = {0, 0, 0};
  uint32 inBytes = 5;
  EXPECT_EQ(codec.encode(pcm, inBytes, out, 0), 2u);
  EXPECT_EQ(inBytes, 5u);
  EXPECT_EQ(out[0], 0xd5);
  EXPECT_EQ(out[1], 0x55);
  EXPECT_EQ(out[2], 0);
}

TEST(G711, ConformanceWithVectors) {
  QUILLON_REQUIRE_VECTORS(dir, "g711");
  int checked = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    const auto ext = entry.path().extension();
    if (ext != ".alaw" && ext != ".ulaw") continue;
    const std::vector<uint8_t> coded = quillon::test::readFile(entry.path());
    const std::vector<int16_t> expected = quillon::test::readPcm16(std::filesystem::path(entry.path()).replace_extension(".pcm"));
    CodecG711 codec;
    ASSERT_TRUE(codec.open(AudioFormat(ext == ".alaw" ? CT_G711_ALAW : CT_G711_ULAW, 1), false));
    std::vector<int16_t> out(coded.size());
    uint32 inBytes = static_cast<uint32>(coded.size());
    ASSERT_EQ(codec.decode(coded.data(), inBytes, out.data(), inBytes * 2), coded.size() * 2);
    EXPECT_EQ(quillon::test::firstMismatch(out, expected), -1) << entry.path();
    checked++;
  }
  EXPECT_GE(checked, 6);
}

TEST(PcmLinear, ExcessOneTwentyEightBothWays) {
  CodecPCMLinear codec;
  EXPECT_FALSE(codec.open(AudioFormat(CT_G711_ALAW, 1), false));
  ASSERT_TRUE(codec.open(AudioFormat(CT_PCM8, 1), false));
  const uint8 bytes[5] = {0x00, 0x7f, 0x80, 0x81, 0xff};
  int16 pcm[5];
  uint32 n = 5;
  EXPECT_EQ(codec.decode(bytes, n, pcm, 0), 10u);
  const int16 expectPcm[5] = {-32768, -256, 0, 256, 32512};
  for (int i = 0; i < 5; i++) EXPECT_EQ(pcm[i], expectPcm[i]);

  const int16 samples[8] = {-32768, -129, -128, -1, 0, 127, 128, 32767};
  uint8 coded[8];
  n = 16;
  EXPECT_EQ(codec.encode(samples, n, coded, 0), 8u);
  const uint8 expectCoded[8] = {0x00, 0x7f, 0x7f, 0x7f, 0x80, 0x80, 0x80, 0xff};
  for (int i = 0; i < 8; i++) EXPECT_EQ(coded[i], expectCoded[i]) << i;
  n = 5;
  EXPECT_EQ(codec.encode(samples, n, coded, 0), 2u);
  EXPECT_EQ(n, 5u);
  for (int b = 0; b < 256; b++) {
    uint8 in = static_cast<uint8>(b), back;
    int16 s;
    uint32 one = 1, two = 2;
    codec.decode(&in, one, &s, 2);
    codec.encode(&s, two, &back, 1);
    ASSERT_EQ(back, in);
  }
}
