// TAV::CodecSILK: the packet loop and buffer contract around the engine.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "quillon/codecs/codec_silk.h"
#include "test_support.h"

namespace {

using namespace TAV;

std::unique_ptr<Codec> openSilk(CompressionType code = CT_SILK_20MS) {
  return std::unique_ptr<Codec>(Codec::getCodec(AudioFormat(code, 1), false));
}

// Decodes a stream in calls of whole packets, about `chunk` input bytes
// each. A call must hold whole packets: a cut packet loses its prefix. The
// output room covers the worst case (an empty 2-byte packet gives 320 bytes).
std::vector<int16_t> decodeAll(Codec& c, const std::vector<uint8_t>& s, size_t chunk) {
  std::vector<int16_t> pcm;
  std::vector<int16_t> out((s.size() + 2) * 80 + 800);
  size_t pos = 0;
  while (pos < s.size()) {
    size_t len = 0;
    while (pos + len + 2 <= s.size() && (len == 0 || len < chunk))
      len += 2 + static_cast<size_t>(s[pos + len] | (s[pos + len + 1] << 8));
    uint32 left = static_cast<uint32>(len);
    const uint32 got = c.decode(&s[pos], left, out.data(), static_cast<uint32>(out.size() * 2));
    EXPECT_EQ(left, 0u);
    pcm.insert(pcm.end(), out.begin(), out.begin() + got / 2);
    pos += len;
  }
  return pcm;
}

TEST(CodecSILK, FactoryServesTheFourCodesForDecodingOnly) {
  for (CompressionType code : {CT_SILK_20MS, CT_SILK_30MS, CT_SILK_40MS, CT_SILK_60MS}) {
    auto c = openSilk(code);
    ASSERT_TRUE(c) << code;
    EXPECT_TRUE(c->isDecoder());
    int16 pcm[4] = {};
    uint32 n = sizeof(pcm);
    uint8 buf[16];
    EXPECT_EQ(c->encode(pcm, n, buf, sizeof(buf)), 0u);
    EXPECT_TRUE(c->close());
    EXPECT_FALSE(c->isDecoder());
    EXPECT_TRUE(c->close());  // twice is harmless
    EXPECT_TRUE(c->open(AudioFormat(code, 1), false));
  }
  CodecSILK direct;
  EXPECT_FALSE(direct.open(AudioFormat(CT_OPUS, 1), false));
  EXPECT_FALSE(direct.isDecoder());
}

TEST(CodecSILK, StreamDecodesBitExactAndFramesPerPacketGiveTheOutputSize) {
  QUILLON_REQUIRE_VECTORS(dir, "silk");
  struct Case {
    const char* name;
    uint32 bytesPerPacket;
  };
  for (const Case& k : {Case{"o01_hts1_api8k_nb_20ms_6k_cx0", 320}, Case{"o03_ast_api8k_nb_60ms_14k_fec", 960},
                        Case{"o13_hts2_api16k_wb_60ms_18k_dtx_fec", 0}}) {
    const auto s = quillon::test::readFile(dir / (std::string(k.name) + ".silk"));
    const auto expected = quillon::test::readPcm16(dir / (std::string(k.name) + ".pcm"));
    ASSERT_FALSE(s.empty());
    if (k.bytesPerPacket) {
      // One packet, room for exactly its output.
      auto c = openSilk();
      std::vector<int16_t> out(k.bytesPerPacket / 2);
      const uint32 n = static_cast<uint32>(s[0] | (s[1] << 8));
      uint32 left = 2 + n;
      EXPECT_EQ(c->decode(s.data(), left, out.data(), k.bytesPerPacket), k.bytesPerPacket) << k.name;
      EXPECT_EQ(left, 0u);
    }
    auto c = openSilk(CT_SILK_40MS);
    EXPECT_EQ(quillon::test::firstMismatch(decodeAll(*c, s, s.size()), expected), -1) << k.name;
    if (k.bytesPerPacket) {  // (with empty packets the bytes after a call's end would matter)
      auto d = openSilk(CT_SILK_60MS);
      EXPECT_EQ(quillon::test::firstMismatch(decodeAll(*d, s, 777), expected), -1) << k.name << " in small calls";
    }
  }
}

TEST(CodecSILK, BufferContractEdges) {
  QUILLON_REQUIRE_VECTORS(dir, "silk");
  const auto s = quillon::test::readFile(dir / "o02_hts2_api8k_nb_40ms_10k.silk");  // 2 frames = 640 bytes a packet
  ASSERT_GT(s.size(), 100u);
  const uint32 first = 2 + static_cast<uint32>(s[0] | (s[1] << 8));
  std::vector<int16_t> out(4000);

  auto c = openSilk();
  uint32 left = static_cast<uint32>(s.size());
  EXPECT_EQ(c->decode(s.data(), left, out.data(), 0), 0u);
  EXPECT_EQ(left, s.size());

  // Too little room: the first packet is consumed, its samples dropped.
  left = static_cast<uint32>(s.size());
  EXPECT_EQ(c->decode(s.data(), left, out.data(), 639), 0u);
  EXPECT_EQ(left, s.size() - first);

  // Output fills packet by packet and stops once the room is used up.
  auto d = openSilk();
  left = static_cast<uint32>(s.size());
  EXPECT_EQ(d->decode(s.data(), left, out.data(), 1300), 1280u);
  const uint32 second = 2 + static_cast<uint32>(s[first] | (s[first + 1] << 8));
  const uint32 third = 2 + static_cast<uint32>(s[first + second] | (s[first + second + 1] << 8));
  EXPECT_EQ(left, s.size() - first - second - third);  // the third did not fit but is consumed

  // A truncated packet: only its 2-byte prefix is taken.
  auto e = openSilk();
  left = first - 1;
  EXPECT_EQ(e->decode(s.data(), left, out.data(), 8000), 0u);
  EXPECT_EQ(left, first - 3);
  // A lone byte is not even a prefix.
  left = 1;
  EXPECT_EQ(e->decode(s.data(), left, out.data(), 8000), 0u);
  EXPECT_EQ(left, 1u);
}

TEST(CodecSILK, EmptyPacketsYieldOneConcealedFrameEach) {
  auto c = openSilk();
  const uint8 stream[] = {0, 0, 0, 0, 0, 0};
  std::vector<int16_t> out(1000);
  uint32 left = sizeof(stream);
  EXPECT_EQ(c->decode(stream, left, out.data(), 2000), 3 * 320u);
  EXPECT_EQ(left, 0u);
  // An oversized payload is concealed as well (one frame).
  std::vector<uint8> big(2 + 1100, 0x5a);
  big[0] = static_cast<uint8>(1100 & 0xff);
  big[1] = static_cast<uint8>(1100 >> 8);
  left = static_cast<uint32>(big.size());
  EXPECT_EQ(c->decode(big.data(), left, out.data(), 2000), 320u);
  EXPECT_EQ(left, 0u);
}

TEST(CodecSILK, FiveFramePacketsNeedTheirWholeOutputRoom) {
  QUILLON_REQUIRE_VECTORS(dir, "silk");
  const auto s = quillon::test::readFile(dir / "o09_hts2_api16k_wb_100ms_16k.silk");  // 100 ms packets
  ASSERT_GT(s.size(), 2u);
  const uint32 first = 2 + static_cast<uint32>(s[0] | (s[1] << 8));
  std::vector<int16_t> out(800);
  auto c = openSilk();
  uint32 left = first;
  EXPECT_EQ(c->decode(s.data(), left, out.data(), 1599), 0u);
  EXPECT_EQ(left, 0u);
  auto d = openSilk();
  left = first;
  EXPECT_EQ(d->decode(s.data(), left, out.data(), 1600), 1600u);
  // A closed codec decodes nothing.
  EXPECT_TRUE(d->close());
  left = first;
  EXPECT_EQ(d->decode(s.data(), left, out.data(), 1600), 0u);
}

}  // namespace
