// G.726: the engine against the ITU-T Appendix II sequences (companded
// output), the codec against the peer-library streams in both packings,
// and the codec's buffer contract.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "engines/g726/g726_engine.h"
#include "quillon/codecs/codec_g72x.h"
#include "test_support.h"

using namespace TAV;
using quillon::G726Engine;
namespace qt = quillon::test;

namespace {

struct Variant {
  int rate;  // kbit/s
  int bits;
  CompressionType msb;
  CompressionType lsb;
};

const Variant kVariants[] = {
    {16, 2, CT_G726_16, CT_G726_16_LSB},
    {24, 3, CT_G726_24, CT_G726_24_LSB},
    {32, 4, CT_G726_32, CT_G726_32_LSB},
    {40, 5, CT_G726_40, CT_G726_40_LSB},
};

std::vector<int16_t> decodeWithCodec(CompressionType code, const std::vector<uint8_t>& stream) {
  std::unique_ptr<Codec> codec(Codec::getCodec(AudioFormat(code, 1), false));
  EXPECT_NE(codec, nullptr) << "code " << code;
  if (!codec) return {};
  std::vector<int16_t> pcm(stream.size() * 4 + 8);
  uint32 inBytes = static_cast<uint32>(stream.size());
  const uint32 written = codec->decode(stream.data(), inBytes, pcm.data(), static_cast<uint32>(pcm.size() * 2));
  pcm.resize(written / 2);
  return pcm;
}

std::vector<int> decodeCompanded(int bits, const std::vector<uint8_t>& codes, int coding) {
  G726Engine engine(bits);
  std::vector<int> out(codes.size());
  for (size_t i = 0; i < codes.size(); i++) out[i] = engine.decode(codes[i], coding);
  return out;
}

long firstByteMismatch(const std::vector<int>& got, const std::vector<uint8_t>& want) {
  if (got.size() != want.size()) return static_cast<long>(std::min(got.size(), want.size()));
  for (size_t i = 0; i < got.size(); i++)
    if (got[i] != want[i]) return static_cast<long>(i);
  return -1;
}

}  // namespace

// ITU-T G.726 Appendix II, reset set and decoder-only set: every input
// stream decoded to A-law and to mu-law from the reset state, both laws
// against the reference output, all four rates.
TEST(G726Engine, ItuAppendixTwoCompandedOutputsAreBitExact) {
  QUILLON_REQUIRE_VECTORS(dir, "g726-itu");
  int checked = 0;
  for (const Variant& v : kVariants) {
    const std::string rr = std::to_string(v.rate);
    struct Case {
      std::string input, alaw, ulaw;
    };
    const Case cases[] = {
        {"rn" + rr + "fa", "rn" + rr + "fa.alaw", "rn" + rr + "fx.ulaw"},
        {"rn" + rr + "fm", "rn" + rr + "fc.alaw", "rn" + rr + "fm.ulaw"},
        {"rv" + rr + "fa", "rv" + rr + "fa.alaw", "rv" + rr + "fx.ulaw"},
        {"rv" + rr + "fm", "rv" + rr + "fc.alaw", "rv" + rr + "fm.ulaw"},
        {"i" + rr, "ri" + rr + "fa.alaw", "ri" + rr + "fm.ulaw"},
    };
    for (const Case& c : cases) {
      const std::vector<uint8_t> codes = qt::readFile(dir / (c.input + ".codes"));
      ASSERT_FALSE(codes.empty()) << c.input;
      const std::vector<uint8_t> alaw = qt::readFile(dir / c.alaw);
      const std::vector<uint8_t> ulaw = qt::readFile(dir / c.ulaw);
      EXPECT_EQ(firstByteMismatch(decodeCompanded(v.bits, codes, G726Engine::kALaw), alaw), -1) << c.alaw;
      EXPECT_EQ(firstByteMismatch(decodeCompanded(v.bits, codes, G726Engine::kMuLaw), ulaw), -1) << c.ulaw;
      checked += 2;

      // The packed forms of the same codewords, through the codec, agree
      // with the engine's linear output on the unpacked codewords.
      if (c.input[0] == 'i') {
        G726Engine engine(v.bits);
        std::vector<int16_t> linear(codes.size());
        engine.decodeLinear(codes.data(), codes.size(), linear.data());
        const std::string base = c.input + ".g726-" + rr;
        EXPECT_EQ(qt::firstMismatch(decodeWithCodec(v.msb, qt::readFile(dir / (base + "-msb"))), linear), -1) << base;
        EXPECT_EQ(qt::firstMismatch(decodeWithCodec(v.lsb, qt::readFile(dir / (base + "-lsb"))), linear), -1) << base;
      }
    }
  }
  EXPECT_EQ(checked, 40);
}

// Peer-library streams (speech, loud speech with 16-bit wrap-around, random
// codewords): all eight codes, linear output, sample for sample.
TEST(G726Codec, PeerStreamsDecodeBitExactInBothPackings) {
  QUILLON_REQUIRE_VECTORS(dir, "g726");
  int checked = 0;
  for (const Variant& v : kVariants) {
    const std::string rr = std::to_string(v.rate);
    for (const char* source : {"hts12", "hts12-loud", "random"}) {
      const std::string name = std::string(source) + "-" + rr;
      const std::vector<int16_t> want = qt::readPcm16(dir / (name + ".pcm"));
      ASSERT_FALSE(want.empty()) << name;
      const std::string stream = name + ".g726-" + rr;
      EXPECT_EQ(qt::firstMismatch(decodeWithCodec(v.msb, qt::readFile(dir / (stream + "-msb"))), want), -1)
          << stream << "-msb";
      EXPECT_EQ(qt::firstMismatch(decodeWithCodec(v.lsb, qt::readFile(dir / (stream + "-lsb"))), want), -1)
          << stream << "-lsb";
      checked += 2;
    }
  }
  EXPECT_EQ(checked, 24);
}

TEST(G726Engine, OutputCodingGuardAndCodewordMask) {
  G726Engine e(3);
  const G726Engine::State before = e.state();
  EXPECT_EQ(e.decode(1, 0), -1);
  EXPECT_EQ(e.decode(1, 4), -1);
  EXPECT_EQ(std::memcmp(&before, &e.state(), sizeof before), 0);  // untouched
  EXPECT_FALSE(e.setBitsPerCode(6));
  EXPECT_EQ(e.bitsPerCode(), 3);
  // Wider codewords are masked to the rate's width.
  G726Engine a(4), b(4);
  for (unsigned c = 0; c < 64; c++) EXPECT_EQ(a.decode(c | 0xF0, G726Engine::kLinear), b.decodeLinear(c));
}

TEST(G726Codec, PackingsMirrorEachOther) {
  std::vector<int16_t> msb = decodeWithCodec(CT_G726_32, {0x1E});
  std::vector<int16_t> lsb = decodeWithCodec(CT_G726_32_LSB, {0xE1});
  ASSERT_EQ(msb.size(), 2u);
  EXPECT_EQ(msb, lsb);
  // 16 kbit/s: four codewords per byte; 0b00011011 read from the top is
  // 0,1,2,3, from the bottom 3,2,1,0.
  EXPECT_EQ(decodeWithCodec(CT_G726_16, {0x1B}), decodeWithCodec(CT_G726_16_LSB, {0xE4}));
}

TEST(G726Codec, ReportsGroupsNotBytes) {
  for (CompressionType code : {CT_G726_40, CT_G726_40_LSB, CT_G726_24, CT_G726_24_LSB}) {
    std::unique_ptr<Codec> c(Codec::getCodec(AudioFormat(code, 1), false));
    ASSERT_NE(c, nullptr);
    const uint8 in[15] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0, 1, 2, 3, 4, 5, 6, 7};
    const uint32 groupBytes = (code == CT_G726_40 || code == CT_G726_40_LSB) ? 5 : 3;
    int16 out[64];
    uint32 inBytes = groupBytes;
    EXPECT_EQ(c->decode(in, inBytes, out, sizeof out), 16u);
    EXPECT_EQ(inBytes, 1u);
    inBytes = 15;
    EXPECT_EQ(c->decode(in, inBytes, out, sizeof out), 15 / groupBytes * 16u);
    EXPECT_EQ(inBytes, 15 / groupBytes);
    inBytes = 0;
    EXPECT_EQ(c->decode(in, inBytes, out, sizeof out), 0u);
    EXPECT_EQ(inBytes, 0u);
  }
  // A trailing partial group still counts as a group (its missing bytes
  // read as zero bits).
  std::unique_ptr<Codec> c(Codec::getCodec(AudioFormat(CT_G726_40, 1), false));
  const uint8 in[7] = {1, 2, 3, 4, 5, 6, 7};
  int16 out[16];
  uint32 inBytes = 7;
  EXPECT_EQ(c->decode(in, inBytes, out, sizeof out), 32u);
  EXPECT_EQ(inBytes, 2u);
}

TEST(G726Codec, OpensForDecodingOnlyAndRejectsOtherCodes) {
  for (const Variant& v : kVariants) {
    for (CompressionType code : {v.msb, v.lsb}) {
      CodecG72X c;
      EXPECT_FALSE(c.open(AudioFormat(code, 1), true));
      EXPECT_FALSE(c.isEncoder());
      EXPECT_EQ(Codec::getCodec(AudioFormat(code, 1), true), nullptr);
      EXPECT_TRUE(c.open(AudioFormat(code, 1), false));
      EXPECT_TRUE(c.isDecoder());
      uint32 n = 4;
      const int16 pcm[2] = {1, 2};
      uint8 out[8];
      EXPECT_EQ(c.encode(pcm, n, out, sizeof out), 0u);
      EXPECT_EQ(c.hasPendingEncodedData(), 0u);
      EXPECT_TRUE(c.close());
      EXPECT_FALSE(c.isDecoder());
    }
  }
  CodecG72X c;
  EXPECT_FALSE(c.open(AudioFormat(CT_G711_ALAW, 1), false));
  EXPECT_FALSE(c.open(AudioFormat(CT_PCM16, 1), false));
}

TEST(G726Codec, InitOutsideTheTableThrowsInvalidCodec) {
  CodecG72X c;  // never opened: its format is the cleared one
  try {
    c.init();
    FAIL() << "no exception";
  } catch (const char* what) {
    EXPECT_STREQ(what, "invalid codec");
  }
}

TEST(G726Codec, StateCarriesAcrossCallsAndReopenResets) {
  CodecG72X c;
  ASSERT_TRUE(c.open(AudioFormat(CT_G726_32, 1), false));
  const uint8 in[4] = {0x77, 0x77, 0x77, 0x77};
  int16 first[8], second[8], again[8];
  uint32 n = 4;
  c.decode(in, n, first, sizeof first);
  n = 4;
  c.decode(in, n, second, sizeof second);
  EXPECT_NE(std::memcmp(first, second, sizeof first), 0);
  c.close();
  ASSERT_TRUE(c.open(AudioFormat(CT_G726_32, 1), false));
  n = 4;
  c.decode(in, n, again, sizeof again);
  EXPECT_EQ(std::memcmp(first, again, sizeof first), 0);
}
