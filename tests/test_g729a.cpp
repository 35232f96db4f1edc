// G.729 Annex A decoder: conformance on the shared vectors and the
// TAV::CodecG729A buffer contract.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "codec/trace.h"
#include "engines/g729/decoder.h"
#include "quillon/codecs/codec_g729a.h"
#include "test_support.h"

namespace {

using quillon::g729a::Decoder;
using TAV::uint32;
namespace fs = std::filesystem;

std::vector<int16_t> decodePacked(const std::vector<uint8_t>& stream) {
  auto dec = std::make_unique<Decoder>();
  const size_t frames = stream.size() / Decoder::kFrameBytes;
  std::vector<int16_t> out(frames * Decoder::kFrameSamples);
  for (size_t f = 0; f < frames; f++)
    dec->decode(&stream[f * Decoder::kFrameBytes], &out[f * Decoder::kFrameSamples]);
  return out;
}

// Every NAME.g729 in the folder against NAME.pcm.
void checkFolder(const fs::path& dir, size_t minStreams) {
  size_t checked = 0;
  for (const auto& entry : fs::directory_iterator(dir)) {
    if (entry.path().extension() != ".g729") continue;
    fs::path ref = entry.path();
    ref.replace_extension(".pcm");
    const std::vector<uint8_t> stream = quillon::test::readFile(entry.path());
    ASSERT_EQ(stream.size() % Decoder::kFrameBytes, 0u) << entry.path();
    const std::vector<int16_t> got = decodePacked(stream);
    const std::vector<int16_t> want = quillon::test::readPcm16(ref);
    EXPECT_EQ(quillon::test::firstMismatch(got, want), -1) << entry.path().filename();
    checked++;
  }
  EXPECT_GE(checked, minStreams);
}

TEST(G729ADecoder, ItuAnnexAVectors) {
  QUILLON_REQUIRE_VECTORS(dir, "g729a");
  checkFolder(dir, 8);
}

TEST(G729ADecoder, PeerStreams) {
  QUILLON_REQUIRE_VECTORS(dir, "g729");
  checkFolder(dir, 5);
}

// The ITU serial streams with erased frames (a frame with any bit word 0 is
// lost): the packed format cannot carry them, so they go through the
// erasure entry.
TEST(G729ADecoder, ItuSerialStreamsWithErasures) {
  QUILLON_REQUIRE_VECTORS(dir, "g729a/orig");
  for (const char* name : {"ERASURE", "OVERFLOW"}) {
    const std::vector<uint8_t> bit = quillon::test::readFile(dir / (std::string(name) + ".BIT"));
    const std::vector<int16_t> want = quillon::test::readPcm16(dir / (std::string(name) + ".PST"));
    constexpr size_t kWords = 82;
    const size_t frames = bit.size() / (2 * kWords);
    ASSERT_GT(frames, 0u) << name;
    auto dec = std::make_unique<Decoder>();
    std::vector<int16_t> got(frames * Decoder::kFrameSamples);
    size_t erased = 0;
    for (size_t f = 0; f < frames; f++) {
      const uint8_t* w = &bit[f * 2 * kWords + 4];
      uint8_t packed[Decoder::kFrameBytes] = {};
      bool lost = false;
      for (int k = 0; k < 80; k++) {
        const uint16_t word = static_cast<uint16_t>(w[2 * k] | w[2 * k + 1] << 8);
        if (word == 0) lost = true;
        if (word == 0x0081) packed[k / 8] |= static_cast<uint8_t>(0x80 >> (k % 8));
      }
      if (lost) {
        erased++;
        dec->decodeErased(&got[f * Decoder::kFrameSamples]);
      } else {
        dec->decode(packed, &got[f * Decoder::kFrameSamples]);
      }
    }
    EXPECT_GT(erased, 0u) << name;
    EXPECT_EQ(quillon::test::firstMismatch(got, want), -1) << name;
  }
}

TEST(G729ADecoder, IndependentInstancesMatchOneDecoderAlone) {
  QUILLON_REQUIRE_VECTORS(dir, "g729a");
  const std::vector<uint8_t> a = quillon::test::readFile(dir / "TAME.g729");
  const std::vector<uint8_t> b = quillon::test::readFile(dir / "ALGTHM.g729");
  // Interleave two streams frame by frame on two decoders.
  Decoder da, db;
  std::vector<int16_t> outA(a.size() / 10 * 80), outB(b.size() / 10 * 80);
  const size_t n = std::max(a.size(), b.size()) / 10;
  for (size_t f = 0; f < n; f++) {
    if (f < a.size() / 10) da.decode(&a[f * 10], &outA[f * 80]);
    if (f < b.size() / 10) db.decode(&b[f * 10], &outB[f * 80]);
  }
  EXPECT_EQ(quillon::test::firstMismatch(outA, decodePacked(a)), -1);
  EXPECT_EQ(quillon::test::firstMismatch(outB, decodePacked(b)), -1);
  // reset() returns to the initial state.
  da.reset();
  std::vector<int16_t> again(outA.size());
  for (size_t f = 0; f < a.size() / 10; f++) da.decode(&a[f * 10], &again[f * 80]);
  EXPECT_EQ(quillon::test::firstMismatch(again, outA), -1);
}

TEST(G729ADecoder, UnpackSplitsTheElevenParameters) {
  // All ones: each parameter is its own all-ones value.
  uint8_t ones[10];
  std::fill(std::begin(ones), std::end(ones), 0xff);
  quillon::fx::Word16 prm[11];
  Decoder::unpack(ones, prm);
  const int widths[11] = {8, 10, 8, 1, 13, 4, 7, 5, 13, 4, 7};
  for (int i = 0; i < 11; i++) EXPECT_EQ(prm[i], (1 << widths[i]) - 1) << i;
  // A single bit at the start of each parameter lands in its top bit.
  int bit = 0;
  for (int i = 0; i < 11; i++) {
    uint8_t frame[10] = {};
    frame[bit / 8] = static_cast<uint8_t>(0x80 >> (bit % 8));
    Decoder::unpack(frame, prm);
    for (int k = 0; k < 11; k++) EXPECT_EQ(prm[k], k == i ? 1 << (widths[i] - 1) : 0) << i << " " << k;
    bit += widths[i];
  }
}

// The engine's arithmetic helpers with their diagnostics exposed.
struct DspProbe : quillon::g729a::Dsp {
  using Dsp::div_s;
  using Dsp::lspStabilise;
};

TEST(G729ADecoder, LspStabilityClampsAndWarns) {
  FILE* sink = std::tmpfile();
  ASSERT_NE(sink, nullptr);
  quillon_set_trace_sink(sink);
  DspProbe p;
  quillon::fx::Word16 lsf[10] = {30, 2000, 4000, 6000, 8000, 10000, 12000, 14000, 16000, 26000};
  p.lspStabilise(lsf);
  quillon::fx::Word16 fine[10] = {400, 2000, 4000, 6000, 8000, 10000, 12000, 14000, 16000, 20000};
  p.lspStabilise(fine);
  quillon_set_trace_sink(stdout);
  EXPECT_EQ(lsf[0], 40);
  EXPECT_EQ(lsf[9], 25681);
  std::rewind(sink);
  char text[128] = {};
  const size_t n = std::fread(text, 1, sizeof text - 1, sink);
  std::fclose(sink);
  EXPECT_EQ(std::string(text, n), "lsp_stability warning Low \nlsp_stability warning High \n");
}

TEST(G729ADecoderDeathTest, DivisionErrorsEndTheProcessWithStatusZero) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto divide = [](int a, int b) {
    quillon_set_trace_sink(stderr);
    DspProbe p;
    p.div_s(static_cast<int16_t>(a), static_cast<int16_t>(b));
    std::fputs("survived", stderr);
  };
  EXPECT_EXIT(divide(2, 1), ::testing::ExitedWithCode(0), "^Division Error var1=2  var2=1\n$");
  EXPECT_EXIT(divide(-1, 5), ::testing::ExitedWithCode(0), "^Division Error var1=-1  var2=5\n$");
  EXPECT_EXIT(divide(0, -3), ::testing::ExitedWithCode(0), "^Division Error var1=0  var2=-3\n$");
  EXPECT_EXIT(divide(0, 0), ::testing::ExitedWithCode(0), "^Division by 0, Fatal error \n$");
  DspProbe p;
  EXPECT_EQ(p.div_s(1, 4), 8192);
}

// ---- TAV::CodecG729A ------------------------------------------------------

class CodecG729AContract : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(codec.open(TAV::AudioFormat(TAV::CT_G729, 1), false)); }
  TAV::CodecG729A codec;
};

TEST_F(CodecG729AContract, OpenAcceptsCode20Only) {
  TAV::CodecG729A c;
  for (TAV::CompressionType ct : {TAV::CT_G711_ALAW, TAV::CT_PCM16, TAV::CT_TETRA, TAV::CT_ICELP48})
    EXPECT_FALSE(c.open(TAV::AudioFormat(ct, 1), false)) << ct;
  EXPECT_TRUE(c.open(TAV::AudioFormat(TAV::CT_G729, 1), false));
  EXPECT_TRUE(c.isDecoder());
  EXPECT_TRUE(c.open(TAV::AudioFormat(TAV::CT_G729, 1), true));
  EXPECT_TRUE(c.isEncoder());
  int16_t pcm[80] = {};
  uint8_t out[10];
  uint32 in = sizeof pcm;
  EXPECT_EQ(c.encode(pcm, in, out, sizeof out), 0u);
  EXPECT_EQ(in, sizeof pcm);
  EXPECT_TRUE(c.close());
  EXPECT_FALSE(c.isEncoder());
  EXPECT_FALSE(c.isDecoder());
}

TEST_F(CodecG729AContract, FrameRoundingAndInBytes) {
  uint8_t in[30] = {};
  int16_t out[3 * 80];
  uint32 n = 10;
  EXPECT_EQ(codec.decode(in, n, out, sizeof out), 160u);
  EXPECT_EQ(n, 10u);
  n = 12;  // one whole frame and a partial one, decoded whole
  EXPECT_EQ(codec.decode(in, n, out, sizeof out), 320u);
  EXPECT_EQ(n, 20u);
  n = 13;  // the odd byte is kept in the count
  EXPECT_EQ(codec.decode(in, n, out, sizeof out), 320u);
  EXPECT_EQ(n, 21u);
  n = 1;
  EXPECT_EQ(codec.decode(in, n, out, sizeof out), 0u);
  EXPECT_EQ(n, 1u);
  n = 0;
  EXPECT_EQ(codec.decode(in, n, out, sizeof out), 0u);
  n = 30;
  EXPECT_EQ(codec.decode(in, n, out, sizeof out), 480u);
  EXPECT_EQ(n, 30u);
}

TEST_F(CodecG729AContract, MatchesTheEngineAndReopenResets) {
  QUILLON_REQUIRE_VECTORS(dir, "g729a");
  const std::vector<uint8_t> stream = quillon::test::readFile(dir / "TEST.g729");
  const std::vector<int16_t> want = quillon::test::readPcm16(dir / "TEST.pcm");
  for (int pass = 0; pass < 2; pass++) {
    // Uneven chunks of whole frames.
    std::vector<int16_t> got(stream.size() / 10 * 80);
    size_t pos = 0, chunk = 10, outPos = 0;
    while (pos < stream.size()) {
      uint32 n = static_cast<uint32>(std::min(chunk, stream.size() - pos));
      const uint32 bytes = codec.decode(&stream[pos], n, &got[outPos], 0);
      ASSERT_EQ(bytes, n / 10 * 160);
      pos += n;
      outPos += bytes / 2;
      chunk = chunk == 50 ? 10 : chunk + 10;
    }
    EXPECT_EQ(quillon::test::firstMismatch(got, want), -1) << "pass " << pass;
    codec.close();
    ASSERT_TRUE(codec.open(TAV::AudioFormat(TAV::CT_G729, 1), false));
  }
}

TEST_F(CodecG729AContract, ClosedCodecDecodesNothing) {
  codec.close();
  uint8_t in[10] = {};
  int16_t out[80];
  uint32 n = 10;
  EXPECT_EQ(codec.decode(in, n, out, sizeof out), 0u);
}

}  // namespace
