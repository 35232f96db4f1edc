// G.729 Annex A encoder: bit-exact against the ITU-T reference encoder's
// streams (the Annex A test vectors and the peer folder's reference output).
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "engines/g729/decoder.h"
#include "engines/g729/encoder.h"
#include "test_support.h"

namespace {

using quillon::g729a::Encoder;
namespace fs = std::filesystem;

std::vector<uint8_t> encodeAll(const std::vector<int16_t>& pcm) {
  auto enc = std::make_unique<Encoder>();
  const size_t frames = pcm.size() / Encoder::kFrameSamples;
  std::vector<uint8_t> out(frames * Encoder::kFrameBytes);
  for (size_t f = 0; f < frames; f++) enc->encode(&pcm[f * Encoder::kFrameSamples], &out[f * Encoder::kFrameBytes]);
  return out;
}

// Frame index of the first difference, or -1.
long firstFrameMismatch(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  const size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; i++)
    if (a[i] != b[i]) return static_cast<long>(i / Encoder::kFrameBytes);
  return a.size() == b.size() ? -1 : static_cast<long>(n / Encoder::kFrameBytes);
}

TEST(G729AEncoder, ItuAnnexAVectors) {
  QUILLON_REQUIRE_VECTORS(dir, "g729a");
  int checked = 0;
  for (const char* name : {"ALGTHM", "FIXED", "LSP", "PITCH", "SPEECH", "TAME", "TEST"}) {
    const fs::path in = dir / "orig" / (std::string(name) + ".IN");
    const std::vector<uint8_t> got = encodeAll(quillon::test::readPcm16(in));
    const std::vector<uint8_t> want = quillon::test::readFile(dir / (std::string(name) + ".g729"));
    EXPECT_EQ(firstFrameMismatch(got, want), -1) << name;
    checked++;
  }
  EXPECT_EQ(checked, 7);
}

TEST(G729AEncoder, ReferenceEncoderStreams) {
  QUILLON_REQUIRE_VECTORS(dir, "g729");
  int checked = 0;
  for (const auto& entry : fs::directory_iterator(dir)) {
    if (entry.path().extension() != ".s16") continue;
    fs::path ref = entry.path();
    ref.replace_extension(".enc.g729");
    const std::vector<uint8_t> got = encodeAll(quillon::test::readPcm16(entry.path()));
    EXPECT_EQ(firstFrameMismatch(got, quillon::test::readFile(ref)), -1) << entry.path().filename();
    checked++;
  }
  EXPECT_GE(checked, 2);
}

TEST(G729AEncoder, PackIsTheInverseOfUnpack) {
  const quillon::fx::Word16 prm[11] = {0xa5, 0x2c3, 0x7e, 1, 0x1abc, 0x9, 0x55, 0x13, 0x0f0f, 0x6, 0x2a};
  uint8_t frame[10];
  Encoder::pack(prm, frame);
  quillon::fx::Word16 back[11];
  quillon::g729a::Decoder::unpack(frame, back);
  for (int i = 0; i < 11; i++) EXPECT_EQ(back[i], prm[i]) << i;
}

TEST(G729AEncoder, InterleavedEncodersKeepTheirOwnState) {
  QUILLON_REQUIRE_VECTORS(dir, "g729a");
  const std::vector<int16_t> a = quillon::test::readPcm16(dir / "orig" / "TAME.IN");
  const std::vector<int16_t> b = quillon::test::readPcm16(dir / "orig" / "ALGTHM.IN");
  const size_t n = std::min(a.size(), b.size()) / 80;
  Encoder ea, eb;
  std::vector<uint8_t> outA(n * 10), outB(n * 10);
  for (size_t f = 0; f < n; f++) {
    ea.encode(&a[f * 80], &outA[f * 10]);
    eb.encode(&b[f * 80], &outB[f * 10]);
  }
  std::vector<uint8_t> aloneA = encodeAll(std::vector<int16_t>(a.begin(), a.begin() + n * 80));
  std::vector<uint8_t> aloneB = encodeAll(std::vector<int16_t>(b.begin(), b.begin() + n * 80));
  EXPECT_EQ(outA, aloneA);
  EXPECT_EQ(outB, aloneB);
}

TEST(G729AEncoder, ResetRestartsTheStream) {
  QUILLON_REQUIRE_VECTORS(dir, "g729a");
  const std::vector<int16_t> pcm = quillon::test::readPcm16(dir / "orig" / "TAME.IN");
  ASSERT_GE(pcm.size(), 20u * 80);
  Encoder enc;
  std::vector<uint8_t> a(200), b(200);
  for (int f = 0; f < 20; f++) enc.encode(&pcm[f * 80], &a[f * 10]);
  enc.reset();
  for (int f = 0; f < 20; f++) enc.encode(&pcm[f * 80], &b[f * 10]);
  EXPECT_EQ(a, b);
}

}  // namespace
