// G.722 engine conformance: the ITU-T Appendix II sub-band sequences, the
// STL full-codec verification set and peer streams with reference output.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engines/g722/g722_engine.h"
#include "engines/g722/g722_zero_section.h"
#include "test_support.h"

namespace fs = std::filesystem;
using quillon::g722::Decoder;
using quillon::g722::Encoder;
using quillon::test::firstMismatch;
using quillon::test::readFile;
using quillon::test::readPcm16;

namespace {

std::vector<int16_t> decodeAll(const std::vector<uint8_t>& code, int mode) {
  Decoder dec;
  std::vector<int16_t> out(code.size() * 2);
  dec.decode(code.data(), code.size(), out.data(), mode);
  return out;
}

std::vector<uint8_t> encodeAll(const std::vector<int16_t>& pcm) {
  Encoder enc;
  std::vector<uint8_t> out(pcm.size() / 2);
  enc.encode(pcm.data(), pcm.size(), out.data());
  return out;
}

long firstMismatch8(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  auto r = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  if (r.first == a.end() && r.second == b.end()) return -1;
  return static_cast<long>(r.first - a.begin());
}

}  // namespace

// Appendix II: the ADPCM sub-band decoders with the QMF bypassed, every
// sequence in every mode (lower band per mode, upper band once).
TEST(G722EngineItu, SubBandDecoderSequences) {
  QUILLON_REQUIRE_VECTORS(dir, "g722-itu/appII-subband");
  int runs = 0;
  for (const char* name : {"T2R1", "T2R2", "T1D3"}) {
    const std::vector<uint8_t> code = readFile(dir / (std::string(name) + ".g722"));
    const std::vector<int16_t> high = readPcm16(dir / (std::string(name) + ".high.pcm"));
    ASSERT_FALSE(code.empty()) << name;
    for (int mode = 1; mode <= 3; mode++) {
      const std::vector<int16_t> low =
          readPcm16(dir / (std::string(name) + ".low-m" + std::to_string(mode) + ".pcm"));
      ASSERT_EQ(low.size(), code.size());
      ASSERT_EQ(high.size(), code.size());
      Decoder dec;
      std::vector<int16_t> gotLow(code.size()), gotHigh(code.size());
      for (size_t i = 0; i < code.size(); i++) dec.decodeBands(code[i], mode, gotLow[i], gotHigh[i]);
      EXPECT_EQ(firstMismatch(gotLow, low), -1) << name << " lower band, mode " << mode;
      EXPECT_EQ(firstMismatch(gotHigh, high), -1) << name << " upper band, mode " << mode;
      runs++;
    }
  }
  EXPECT_EQ(runs, 9);
}

// Appendix II: the sub-band encoders with the QMF bypassed; the same input
// value feeds both bands.
TEST(G722EngineItu, SubBandEncoderSequences) {
  QUILLON_REQUIRE_VECTORS(dir, "g722-itu/appII-subband");
  for (auto [input, expected] : {std::pair{"T1C1", "T2R1"}, std::pair{"T1C2", "T2R2"}}) {
    const std::vector<int16_t> x = readPcm16(dir / (std::string(input) + ".enc-input.pcm"));
    const std::vector<uint8_t> ref = readFile(dir / (std::string(expected) + ".g722"));
    ASSERT_EQ(x.size(), ref.size()) << input;
    Encoder enc;
    std::vector<uint8_t> got(x.size());
    for (size_t i = 0; i < x.size(); i++) got[i] = enc.encodeBands(x[i], x[i]);
    EXPECT_EQ(firstMismatch8(got, ref), -1) << input << " -> " << expected;
  }
}

// Full decoder (QMF included) on the Appendix II codewords: heavy clipping,
// so this checks the output saturation.
TEST(G722EngineItu, QmfDecoderSaturates) {
  QUILLON_REQUIRE_VECTORS(dir, "g722-itu/appII-qmf");
  for (const char* name : {"T2R1", "T2R2", "T1D3"}) {
    for (int mode = 1; mode <= 3; mode++) {
      const std::string base = std::string(name) + "-m" + std::to_string(mode);
      const std::vector<int16_t> ref = readPcm16(dir / (base + ".pcm"));
      ASSERT_FALSE(ref.empty()) << base;
      EXPECT_EQ(firstMismatch(decodeAll(readFile(dir / (base + ".g722")), mode), ref), -1) << base;
    }
  }
}

// The STL verification set: encoder input -> codewords, and the codewords
// decoded in all three modes.
TEST(G722EngineItu, StlSpeechEncoderAndDecoder) {
  QUILLON_REQUIRE_VECTORS(dir, "g722-itu/stl");
  const std::vector<uint8_t> code = readFile(dir / "speech-m1.g722");
  ASSERT_EQ(code.size(), 48768u);
  EXPECT_EQ(firstMismatch8(encodeAll(readPcm16(dir / "speech.enc-input.pcm")), code), -1);
  for (int mode = 1; mode <= 3; mode++) {
    const std::string base = "speech-m" + std::to_string(mode);
    EXPECT_EQ(firstMismatch(decodeAll(readFile(dir / (base + ".g722")), mode), readPcm16(dir / (base + ".pcm"))), -1)
        << base;
  }
}

// Every other stream (spandsp, Asterisk, random octets) decoded in the mode
// its name carries.
TEST(G722EnginePeer, EveryStreamMatchesReferenceOutput) {
  QUILLON_REQUIRE_VECTORS(dir, "g722");
  int streams = 0;
  for (const auto& entry : fs::directory_iterator(dir)) {
    const std::string file = entry.path().filename().string();
    // NAME-mK.g722
    const size_t tag = file.rfind("-m");
    if (entry.path().extension() != ".g722" || tag == std::string::npos || tag + 8 != file.size()) continue;
    const int mode = file[tag + 2] - '0';
    fs::path pcm = entry.path();
    pcm.replace_extension(".pcm");
    const std::vector<int16_t> ref = readPcm16(pcm);
    ASSERT_FALSE(ref.empty()) << pcm;
    EXPECT_EQ(firstMismatch(decodeAll(readFile(entry.path()), mode), ref), -1) << file;
    streams++;
  }
  EXPECT_GE(streams, 10);
}

// Frames of any size give the stream's output, and reset() returns to the
// initial state; modes outside 1..3 fall back like the reference.
TEST(G722EngineState, ChunkingResetAndModeFallback) {
  QUILLON_REQUIRE_VECTORS(dir, "g722-itu/stl");
  const std::vector<uint8_t> code = readFile(dir / "speech-m1.g722");
  const std::vector<int16_t> pcm = readPcm16(dir / "speech.enc-input.pcm");
  ASSERT_FALSE(code.empty());
  const std::vector<int16_t> whole = decodeAll(code, 1);

  for (size_t chunk : {size_t{1}, size_t{7}, size_t{160}, size_t{1000}}) {
    Decoder dec;
    std::vector<int16_t> out(code.size() * 2);
    for (size_t i = 0; i < code.size(); i += chunk) {
      const size_t n = std::min(chunk, code.size() - i);
      dec.decode(code.data() + i, n, out.data() + 2 * i, 1);
    }
    EXPECT_EQ(firstMismatch(out, whole), -1) << "decode chunk " << chunk;

    Encoder enc;
    std::vector<uint8_t> bytes(pcm.size() / 2);
    for (size_t i = 0; i < pcm.size(); i += 2 * chunk) {
      const size_t n = std::min(2 * chunk, pcm.size() - i);
      enc.encode(pcm.data() + i, n, bytes.data() + i / 2);
    }
    EXPECT_EQ(firstMismatch8(bytes, code), -1) << "encode chunk " << chunk;
  }

  Decoder dec;
  std::vector<int16_t> scratch(2000);
  dec.decode(code.data() + 5000, 1000, scratch.data(), 2);
  dec.reset();
  std::vector<int16_t> again(code.size() * 2);
  dec.decode(code.data(), code.size(), again.data(), 1);
  EXPECT_EQ(firstMismatch(again, whole), -1) << "decoder after reset";

  Encoder enc;
  std::vector<uint8_t> junk(500);
  enc.encode(pcm.data() + 3000, 1000, junk.data());
  enc.reset();
  std::vector<uint8_t> bytes(pcm.size() / 2);
  enc.encode(pcm.data(), pcm.size(), bytes.data());
  EXPECT_EQ(firstMismatch8(bytes, code), -1) << "encoder after reset";

  EXPECT_EQ(firstMismatch(decodeAll(code, 0), whole), -1) << "mode 0 decodes as mode 1";
  EXPECT_EQ(firstMismatch(decodeAll(code, 9), decodeAll(code, 3)), -1) << "mode 9 decodes as mode 3";
}

// The plain and the SSE2 zero-section kernels agree on random states,
// including coefficient sets whose products make the saturating sum path run.
TEST(G722EngineState, ZeroSectionKernelsAgree) {
#ifndef QUILLON_G722_SSE2
  GTEST_SKIP() << "no SSE2 kernel in this build";
#else
  using quillon::g722::detail::ZeroSectionPlain;
  using quillon::g722::detail::ZeroSectionSse2;
  uint32_t x = 12345;
  auto next = [&x]() { x ^= x << 13; x ^= x >> 17; x ^= x << 5; return x; };
  int saturatedCases = 0;
  for (int n = 0; n < 20000; n++) {
    alignas(16) int16_t b1[8] = {}, d1[8] = {}, b2[8], d2[8];
    const bool wide = n % 2 == 0;
    for (int i = 0; i < 6; i++) {
      b1[i] = static_cast<int16_t>(wide ? next() : next() % 2048 - 1024);
      d1[i] = static_cast<int16_t>(static_cast<int>(next() % 20457) - 10228);
    }
    if (n % 7 == 0) d1[n % 6] = 0;
    const int16_t d0 = n % 5 == 0 ? 0 : static_cast<int16_t>(static_cast<int>(next() % 20457) - 10228);
    std::copy(b1, b1 + 8, b2);
    std::copy(d1, d1 + 8, d2);
    quillon::fx::BasicOps o1, o2;
    const int16_t s1 = ZeroSectionPlain::update(b1, d1, d0, o1);
    const int16_t s2 = ZeroSectionSse2::update(b2, d2, d0, o2);
    ASSERT_EQ(s1, s2) << "case " << n;
    ASSERT_TRUE(std::equal(b1, b1 + 6, b2)) << "case " << n;
    ASSERT_TRUE(std::equal(d1, d1 + 8, d2)) << "case " << n;
    ASSERT_EQ(o1.Overflow, o2.Overflow) << "case " << n;
    saturatedCases += o1.Overflow;
  }
  EXPECT_GT(saturatedCases, 100);
#endif
}
