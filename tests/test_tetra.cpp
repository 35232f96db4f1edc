#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "engines/tetra/tetra_decoder.h"
#include "quillon/codecs/codec_tetra.h"
#include "test_support.h"

using namespace quillon::tetra;

namespace {

using Frame = std::array<uint8_t, kFrameBytes>;

constexpr Frame kHomingFrame = {0xBF, 0x73, 0xD4, 0xC3, 0x74, 0xF3, 0x80, 0x3F, 0x38,
                                0x60, 0x04, 0xE7, 0x88, 0x07, 0x28, 0x63, 0xE4, 0x80};

std::vector<int16_t> decodeWithEngine(const std::vector<uint8_t>& stream) {
  TetraDecoderState state;
  resetTetraDecoder(state);
  std::vector<int16_t> pcm(stream.size() / kFrameBytes * kFrameSamples);
  for (size_t f = 0; f < stream.size() / kFrameBytes; f++)
    decodeTetraFrame(state, &stream[f * kFrameBytes], &pcm[f * kFrameSamples]);
  return pcm;
}

std::unique_ptr<TAV::Codec> openTetra() {
  return std::unique_ptr<TAV::Codec>(TAV::Codec::getCodec(TAV::AudioFormat(TAV::CT_TETRA, 1), false));
}

// Decodes through the adapter, one call per `chunkFrames` frames.
std::vector<int16_t> decodeWithCodec(TAV::Codec& codec, const std::vector<uint8_t>& stream,
                                     size_t chunkFrames) {
  std::vector<int16_t> pcm(stream.size() / kFrameBytes * kFrameSamples);
  size_t frames = stream.size() / kFrameBytes;
  for (size_t f = 0; f < frames; f += chunkFrames) {
    size_t n = std::min(chunkFrames, frames - f);
    TAV::uint32 inBytes = static_cast<TAV::uint32>(n * kFrameBytes);
    TAV::uint32 written = codec.decode(&stream[f * kFrameBytes], inBytes, &pcm[f * kFrameSamples],
                                       static_cast<TAV::uint32>(n * kFrameSamples * 2));
    EXPECT_EQ(written, n * kFrameSamples * 2);
    EXPECT_EQ(inBytes, 0u);
  }
  return pcm;
}

Frame speechFrame(uint32_t seed) {
  Frame f;
  for (auto& b : f) {
    seed = seed * 1103515245u + 12345u;
    b = static_cast<uint8_t>(seed >> 16);
  }
  f[17] &= 0x80;  // good frame, spare bits clear
  return f;
}

}  // namespace

TEST(TetraConformance, EveryStreamDecodesBitExactly) {
  QUILLON_REQUIRE_VECTORS(dir, "tetra");
  int streams = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().extension() != ".tet") continue;
    auto expectedPath = entry.path();
    expectedPath.replace_extension(".pcm");
    SCOPED_TRACE(entry.path().filename().string());
    const std::vector<uint8_t> stream = quillon::test::readFile(entry.path());
    ASSERT_EQ(stream.size() % kFrameBytes, 0u);
    const std::vector<int16_t> expected = quillon::test::readPcm16(expectedPath);
    const std::vector<int16_t> got = decodeWithEngine(stream);
    long at = quillon::test::firstMismatch(got, expected);
    EXPECT_EQ(at, -1) << "first difference at sample " << at << " (frame " << at / kFrameSamples << ")";
    streams++;
  }
  EXPECT_GT(streams, 0) << "no .tet/.pcm pairs in " << dir;
}

TEST(TetraConformance, AdapterKeepsStateAcrossCalls) {
  QUILLON_REQUIRE_VECTORS(dir, "tetra");
  // Bad frames and homing exercise the state that must survive between calls.
  for (const char* name : {"tetra_prompts_bfi", "tetra_homing"}) {
    SCOPED_TRACE(name);
    const auto tet = dir / (std::string(name) + ".tet");
    const std::vector<uint8_t> stream = quillon::test::readFile(tet);
    const std::vector<int16_t> expected = quillon::test::readPcm16(dir / (std::string(name) + ".pcm"));
    auto codec = openTetra();
    ASSERT_NE(codec, nullptr);
    EXPECT_EQ(quillon::test::firstMismatch(decodeWithCodec(*codec, stream, 7), expected), -1);
    // init() returns to the start state: the same stream decodes the same again.
    ASSERT_TRUE(codec->init());
    EXPECT_EQ(quillon::test::firstMismatch(decodeWithCodec(*codec, stream, 1000), expected), -1);
  }
}

TEST(TetraEngine, UnpacksFieldsMostSignificantBitFirst) {
  int16_t params[kUnpackedParams];
  unpackTetraFrame(kHomingFrame.data(), params);
  const int16_t expected[kUnpackedParams] = {0,  191, 231,   339, 13, 13555, 1, 0, 0, 7, 14787, 0,
                                             0,  0,   4,     14818, 0, 0,   1, 25, 4295, 1, 1, 9};
  for (int i = 0; i < kUnpackedParams; i++) EXPECT_EQ(params[i], expected[i]) << "param " << i;

  Frame f{};
  f[17] = 0x40;  // bit 137: bad frame
  unpackTetraFrame(f.data(), params);
  EXPECT_EQ(params[0], 1);
  f[17] = 0x3f;  // bits 138..143 are ignored
  unpackTetraFrame(f.data(), params);
  EXPECT_TRUE(std::all_of(params, params + kUnpackedParams, [](int16_t v) { return v == 0; }));
}

TEST(TetraEngine, HomingFrameIsRecognisedByItsFirst137Bits) {
  EXPECT_TRUE(isTetraHomingFrame(kHomingFrame.data()));
  Frame f = kHomingFrame;
  f[17] = 0xff;  // bad-frame bit and spare bits are not compared
  EXPECT_TRUE(isTetraHomingFrame(f.data()));
  f[17] = 0x7f;  // bit 136 clear
  EXPECT_FALSE(isTetraHomingFrame(f.data()));
  f = kHomingFrame;
  f[9] ^= 0x01;
  EXPECT_FALSE(isTetraHomingFrame(f.data()));
}

TEST(TetraEngine, HomingProcedure) {
  TetraDecoderState state;
  resetTetraDecoder(state);
  std::array<int16_t, kFrameSamples> pcm;
  const auto allEight = [&] { return std::all_of(pcm.begin(), pcm.end(), [](int16_t v) { return v == 8; }); };

  // Directly after reset: every homing frame yields the fixed output.
  for (int i = 0; i < 2; i++) {
    pcm.fill(0);
    decodeTetraFrame(state, kHomingFrame.data(), pcm.data());
    EXPECT_TRUE(allEight());
  }

  // After speech a homing frame is decoded as speech, then resets: the
  // next homing frame yields the fixed output and the next speech frame
  // decodes as from a fresh decoder.
  const Frame speech = speechFrame(7);
  TetraDecoderState fresh;
  resetTetraDecoder(fresh);
  std::array<int16_t, kFrameSamples> reference;
  decodeTetraFrame(fresh, speech.data(), reference.data());

  decodeTetraFrame(state, speech.data(), pcm.data());
  EXPECT_EQ(pcm, reference);
  decodeTetraFrame(state, kHomingFrame.data(), pcm.data());
  EXPECT_FALSE(allEight());
  EXPECT_EQ(state.homing, 1);
  decodeTetraFrame(state, kHomingFrame.data(), pcm.data());
  EXPECT_TRUE(allEight());
  decodeTetraFrame(state, speech.data(), pcm.data());
  EXPECT_EQ(pcm, reference);
  EXPECT_EQ(state.homing, 0);

  // The pattern with bit 136 clear is ordinary speech, even in the home state.
  Frame nearly = kHomingFrame;
  nearly[17] = 0x00;
  resetTetraDecoder(state);
  decodeTetraFrame(state, nearly.data(), pcm.data());
  EXPECT_FALSE(allEight());
  EXPECT_EQ(state.homing, 0);
}

TEST(TetraEngine, BadFrameOverrideDecodesTheSpeechBits) {
  Frame bad = speechFrame(11);
  Frame good = bad;
  bad[17] |= 0x40;
  std::array<int16_t, kFrameSamples> a, b;
  TetraDecoderState s1, s2;
  resetTetraDecoder(s1);
  resetTetraDecoder(s2);
  s1.badFrameOverride = 1;
  decodeTetraFrame(s1, bad.data(), a.data());
  decodeTetraFrame(s2, good.data(), b.data());
  EXPECT_EQ(a, b);
}

TEST(TetraEngine, LongestLagsWithFractionsAreReproducible) {
  // Lag 143 (+1/3) and 144 (-1/3) make the interpolation reach the oldest
  // excitation sample; the result must depend on the stream only.
  auto setField = [](Frame& f, int firstBit, int width, int value) {
    for (int k = 0; k < width; k++) {
      const int bit = firstBit + k;
      const uint8_t mask = static_cast<uint8_t>(0x80 >> (bit & 7));
      if ((value >> (width - 1 - k)) & 1) f[bit >> 3] |= mask;
      else f[bit >> 3] = static_cast<uint8_t>(f[bit >> 3] & ~mask);
    }
  };
  std::vector<uint8_t> stream;
  for (uint32_t s = 1; s <= 40; s++) {
    Frame f = speechFrame(s);
    setField(f, 26, 8, 255);  // subframe 1: lag 143
    setField(f, 56, 5, 31);   // subframe 2: lag 144, fraction -1/3
    setField(f, 83, 5, 30);   // subframe 3: lag 143, fraction +1/3
    stream.insert(stream.end(), f.begin(), f.end());
  }
  const std::vector<int16_t> first = decodeWithEngine(stream);
  EXPECT_EQ(decodeWithEngine(stream), first);
  EXPECT_TRUE(std::any_of(first.begin(), first.end(), [](int16_t v) { return v != 0; }));
}

TEST(CodecTetraAdapter, FactoryAndOpen) {
  auto codec = openTetra();
  ASSERT_NE(codec, nullptr);
  EXPECT_NE(dynamic_cast<TAV::CodecTetra*>(codec.get()), nullptr);
  EXPECT_TRUE(codec->isDecoder());

  // Opening for encoding is accepted; encoding just produces nothing.
  std::unique_ptr<TAV::Codec> encoder(TAV::Codec::getCodec(TAV::AudioFormat(TAV::CT_TETRA, 1), true));
  ASSERT_NE(encoder, nullptr);
  EXPECT_TRUE(encoder->isEncoder());

  TAV::CodecTetra tetra;
  EXPECT_FALSE(tetra.open(TAV::AudioFormat(TAV::CT_ICELP48, 1), false));
  EXPECT_FALSE(tetra.isDecoder());
  EXPECT_TRUE(tetra.open(TAV::AudioFormat(TAV::CT_TETRA, 1), false));
  EXPECT_TRUE(tetra.close());
  EXPECT_FALSE(tetra.isDecoder());
  EXPECT_FALSE(tetra.isEncoder());
}

TEST(CodecTetraAdapter, DecodeContract) {
  auto codec = openTetra();
  ASSERT_NE(codec, nullptr);
  std::vector<int16_t> out(2 * kFrameSamples, 0x5555);

  TAV::uint32 inBytes = 0;
  EXPECT_EQ(codec->decode(kHomingFrame.data(), inBytes, out.data(), 0), 0u);
  EXPECT_EQ(out[0], 0x5555);

  // Two homing frames right after open: 960 bytes of samples 8, all input used.
  std::vector<uint8_t> two(kHomingFrame.begin(), kHomingFrame.end());
  two.insert(two.end(), kHomingFrame.begin(), kHomingFrame.end());
  inBytes = 36;
  EXPECT_EQ(codec->decode(two.data(), inBytes, out.data(), 960), 960u);
  EXPECT_EQ(inBytes, 0u);
  EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](int16_t v) { return v == 8; }));

  TAV::uint32 pcmBytes = 480;
  std::array<uint8_t, 16> coded{};
  EXPECT_EQ(codec->encode(out.data(), pcmBytes, coded.data(), 16), 0u);
  EXPECT_EQ(codec->hasPendingEncodedData(), 0u);
}

TEST(CodecTetraAdapter, CopiesCarryTheDecoderState) {
  TAV::CodecTetra a;
  ASSERT_TRUE(a.open(TAV::AudioFormat(TAV::CT_TETRA, 1), false));
  const Frame f1 = speechFrame(3), f2 = speechFrame(4);
  std::array<int16_t, kFrameSamples> out1, out2;
  TAV::uint32 n = kFrameBytes;
  a.decode(f1.data(), n, out1.data(), sizeof(out1));
  TAV::CodecTetra b(a);
  n = kFrameBytes;
  a.decode(f2.data(), n, out1.data(), sizeof(out1));
  n = kFrameBytes;
  b.decode(f2.data(), n, out2.data(), sizeof(out2));
  EXPECT_EQ(out1, out2);
}
