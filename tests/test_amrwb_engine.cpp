// AMR-WB engine conformance: the 3GPP reference-package sequences and peer
// streams of every mode, DTX and mode switching, decoded frame by frame
// straight through the engine and compared sample for sample.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "engines/amrwb/amrwb_decoder.h"
#include "engines/amrwb/amrwb_overflow.h"
#include "engines/amrwb/amrwb_tables.h"
#include "test_support.h"

namespace fs = std::filesystem;
using quillon::amrwb::Decoder;
using quillon::amrwb::frameBytesForToc;
using quillon::amrwb::frameBytesForType;
using quillon::amrwb::frameTypeOf;
using quillon::amrwb::kFrameSamples;
using quillon::test::firstMismatch;
using quillon::test::readFile;
using quillon::test::readPcm16;
using quillon::test::splitFrames;

namespace {

struct Decoded {
  std::vector<int16_t> pcm;
  int badSizes = 0;  // frames whose length differs from the size table
};

Decoded decodeStream(const fs::path& file) {
  Decoded d;
  Decoder dec;
  int16_t out[kFrameSamples];
  for (const auto& f : splitFrames(readFile(file))) {
    if (f.empty()) continue;
    const int used = dec.decodeFrame(f.data(), f.size(), out);
    if (used != static_cast<int>(f.size())) d.badSizes++;
    if (used > 0) d.pcm.insert(d.pcm.end(), out, out + kFrameSamples);
  }
  return d;
}

// Decodes every NAME.amrwb in `dir` and returns the names that differ from
// NAME.pcm, with the first mismatching sample.
std::vector<std::string> failingStreams(const fs::path& dir, const std::vector<std::string>& names,
                                        int& checked) {
  std::vector<std::string> bad;
  for (const std::string& name : names) {
    const Decoded d = decodeStream(dir / (name + ".amrwb"));
    const std::vector<int16_t> ref = readPcm16(dir / (name + ".pcm"));
    checked++;
    const long at = firstMismatch(d.pcm, ref);
    if (at >= 0 || d.badSizes != 0 || ref.empty()) {
      bad.push_back(name + " (first mismatch at sample " + std::to_string(at) + " of " +
                    std::to_string(ref.size()) + ", frame " + std::to_string(at / kFrameSamples) + ")");
    }
  }
  return bad;
}

std::string join(const std::vector<std::string>& v) {
  std::string s;
  for (const auto& x : v) s += "\n  " + x;
  return s;
}

const std::vector<std::string> kPeerStreams = {
    "orig16k-mode0", "orig16k-mode1", "orig16k-mode2", "orig16k-mode3",
    "orig16k-mode4", "orig16k-mode5", "orig16k-mode6", "orig16k-mode7",
    "orig16k-mode8", "orig16k-quiet-mode8", "orig16k-gaps-dtx-mode2", "orig16k-switch",
    "random",  // random parameters: overflowing filters in every mode
};

}  // namespace

TEST(AmrwbEngine, FrameSizeTable) {
  const int expected[16] = {18, 24, 33, 37, 41, 47, 51, 59, 61, 6, 6, 0, 0, 0, 1, 1};
  for (int t = 0; t < 16; t++) {
    EXPECT_EQ(frameBytesForType(t), expected[t]) << t;
    EXPECT_EQ(frameBytesForToc(static_cast<uint8_t>((t << 3) | 0x04)), expected[t]) << t;
    EXPECT_EQ(frameBytesForToc(static_cast<uint8_t>(0x80 | (t << 3) | 0x03)), expected[t]) << t;
  }
}

TEST(AmrwbEngine, RejectsShortAndEmptyInput) {
  Decoder dec;
  int16_t out[kFrameSamples];
  std::memset(out, 0x55, sizeof out);
  uint8_t frame[61] = {static_cast<uint8_t>((8 << 3) | 0x04)};
  EXPECT_EQ(dec.decodeFrame(frame, 0, out), -1);
  EXPECT_EQ(dec.decodeFrame(nullptr, 61, out), -1);
  EXPECT_EQ(dec.decodeFrame(frame, 60, out), -1);
  EXPECT_EQ(out[0], 0x5555) << "nothing is written for a short frame";
  EXPECT_EQ(dec.decodeFrame(frame, 61, out), 61);
  // NO_DATA and the unused types 11..13 take their ToC byte.
  for (int t : {11, 12, 13, 14, 15}) {
    const uint8_t toc = static_cast<uint8_t>((t << 3) | 0x04);
    EXPECT_EQ(dec.decodeFrame(&toc, 1, out), 1) << t;
  }
}

// Output of a fresh decoder is a function of the frames only: reset()
// brings it back exactly.
TEST(AmrwbEngine, ResetRestartsTheStream) {
  QUILLON_REQUIRE_VECTORS(dir, "amrwb");
  const auto frames = splitFrames(readFile(dir / "orig16k-switch.amrwb"));
  ASSERT_GE(frames.size(), 40u);
  Decoder dec;
  std::vector<int16_t> first, second;
  int16_t out[kFrameSamples];
  for (int pass = 0; pass < 2; pass++) {
    auto& dst = pass == 0 ? first : second;
    for (size_t i = 0; i < 40; i++) {
      ASSERT_GT(dec.decodeFrame(frames[i].data(), frames[i].size(), out), 0);
      dst.insert(dst.end(), out, out + kFrameSamples);
    }
    dec.reset();
  }
  EXPECT_EQ(first, second);
}

TEST(AmrwbEngine, ThreeGppSequencesBitExact) {
  QUILLON_REQUIRE_VECTORS(dir, "amrwb-3gpp");
  std::vector<std::string> names;
  for (int m = 0; m <= 8; m++) names.push_back("tst_m" + std::to_string(m));
  names.push_back("tst_md");
  int checked = 0;
  const auto bad = failingStreams(dir, names, checked);
  EXPECT_EQ(checked, 10);
  EXPECT_TRUE(bad.empty()) << "streams differing from the 3GPP output:" << join(bad);
}

TEST(AmrwbEngine, PeerStreamsBitExact) {
  QUILLON_REQUIRE_VECTORS(dir, "amrwb");
  int checked = 0;
  const auto bad = failingStreams(dir, kPeerStreams, checked);
  EXPECT_EQ(checked, static_cast<int>(kPeerStreams.size()));
  EXPECT_TRUE(bad.empty()) << "streams differing from the peer output:" << join(bad);
}

namespace {

std::vector<int16_t> decodeWithErasures(const std::vector<std::vector<uint8_t>>& frames,
                                        size_t from, size_t to, bool viaQualityBit) {
  Decoder dec;
  std::vector<int16_t> pcm;
  int16_t out[kFrameSamples];
  for (size_t i = 0; i < frames.size(); i++) {
    std::vector<uint8_t> f = frames[i];
    const bool erased = i >= from && i < to;
    if (erased && viaQualityBit) f[0] = static_cast<uint8_t>(f[0] & ~0x04);
    EXPECT_EQ(dec.decodeFrame(f.data(), f.size(), out, erased && !viaQualityBit),
              static_cast<int>(f.size()));
    pcm.insert(pcm.end(), out, out + kFrameSamples);
  }
  return pcm;
}

double energy(const std::vector<int16_t>& pcm, size_t frame) {
  double e = 0;
  for (size_t i = frame * kFrameSamples; i < (frame + 1) * kFrameSamples; i++) e += double(pcm[i]) * pcm[i];
  return e;
}

}  // namespace

// The badFrame argument takes the same path as a cleared quality bit; a
// long erasure run fades the output, and good frames after it decode to
// speech again.
TEST(AmrwbEngine, ErasureConcealment) {
  QUILLON_REQUIRE_VECTORS(dir, "amrwb");
  for (const char* name : {"orig16k-mode2", "orig16k-mode8", "orig16k-mode0"}) {
    const auto frames = splitFrames(readFile(dir / (std::string(name) + ".amrwb")));
    ASSERT_GE(frames.size(), 200u) << name;
    const std::vector<int16_t> clean = readPcm16(dir / (std::string(name) + ".pcm"));
    const auto a = decodeWithErasures(frames, 100, 120, false);
    const auto b = decodeWithErasures(frames, 100, 120, true);
    EXPECT_EQ(a, b) << name;
    // Identical until the first erased frame, different during the run.
    EXPECT_EQ(std::vector<int16_t>(a.begin(), a.begin() + 100 * kFrameSamples),
              std::vector<int16_t>(clean.begin(), clean.begin() + 100 * kFrameSamples))
        << name;
    EXPECT_NE(std::vector<int16_t>(a.begin() + 100 * kFrameSamples, a.begin() + 101 * kFrameSamples),
              std::vector<int16_t>(clean.begin() + 100 * kFrameSamples,
                                   clean.begin() + 101 * kFrameSamples))
        << name;
    // Muted by the end of a 20-frame erasure.
    double late = energy(a, 118) + energy(a, 119);
    double speech = 0;
    for (size_t f = 80; f < 100; f++) speech += energy(clean, f);
    EXPECT_LT(late, speech / 10 / 1000) << name;
    // Recovers: 40 frames later the output has speech energy again.
    double after = 0;
    for (size_t f = 160; f < 200; f++) after += energy(a, f);
    double cleanAfter = 0;
    for (size_t f = 160; f < 200; f++) cleanAfter += energy(clean, f);
    EXPECT_GT(after, cleanAfter / 4) << name;
  }
}

// Lost-speech frames (type 14) and NO_DATA in the middle of speech use the
// concealment with unusable parameters; output stays bounded and stable.
TEST(AmrwbEngine, LostAndMissingFrames) {
  QUILLON_REQUIRE_VECTORS(dir, "amrwb");
  const auto frames = splitFrames(readFile(dir / "orig16k-mode4.amrwb"));
  ASSERT_GE(frames.size(), 60u);
  for (uint8_t type : {uint8_t{14}, uint8_t{15}}) {
    Decoder dec, ref;
    int16_t out[kFrameSamples], outRef[kFrameSamples];
    const uint8_t toc = static_cast<uint8_t>((type << 3) | 0x04);
    int differing = 0;
    for (size_t i = 0; i < 60; i++) {
      const bool lost = i >= 30 && i < 33;
      if (lost) {
        ASSERT_EQ(dec.decodeFrame(&toc, 1, out), 1);
      } else {
        ASSERT_EQ(dec.decodeFrame(frames[i].data(), frames[i].size(), out),
                  static_cast<int>(frames[i].size()));
      }
      ref.decodeFrame(frames[i].data(), frames[i].size(), outRef);
      if (i < 30) {
        ASSERT_EQ(std::memcmp(out, outRef, sizeof out), 0) << i;
      } else if (std::memcmp(out, outRef, sizeof out) != 0) {
        differing++;
      }
    }
    EXPECT_GE(differing, 3) << int(type);
  }
}

// Comfort noise with every SID damaged: the decoder keeps the last noise
// parameters, then mutes once no valid SID has arrived for 50 frames.
TEST(AmrwbEngine, DamagedSidsMuteTheComfortNoise) {
  QUILLON_REQUIRE_VECTORS(dir, "amrwb");
  const auto frames = splitFrames(readFile(dir / "orig16k-gaps-dtx-mode2.amrwb"));
  const std::vector<int16_t> clean = readPcm16(dir / "orig16k-gaps-dtx-mode2.pcm");
  ASSERT_EQ(frames.size(), 740u);
  // Frames 650..739 are the trailing noise gap (SID_FIRST, updates, NO_DATA).
  Decoder dec;
  std::vector<int16_t> pcm;
  int16_t out[kFrameSamples];
  int sids = 0;
  for (size_t i = 0; i < frames.size(); i++) {
    const bool damage = i >= 650 && frameTypeOf(frames[i][0]) == 9;
    sids += damage;
    ASSERT_EQ(dec.decodeFrame(frames[i].data(), frames[i].size(), out, damage),
              static_cast<int>(frames[i].size()));
    pcm.insert(pcm.end(), out, out + kFrameSamples);
  }
  EXPECT_GE(sids, 8);
  const long gapStart = 650 * kFrameSamples;
  EXPECT_EQ(std::vector<int16_t>(pcm.begin(), pcm.begin() + gapStart),
            std::vector<int16_t>(clean.begin(), clean.begin() + gapStart));
  EXPECT_NE(pcm, clean);
  double early = 0, late = 0;
  for (size_t f = 650; f < 670; f++) early += energy(pcm, f);
  for (size_t f = 720; f < 740; f++) late += energy(pcm, f);
  EXPECT_GT(early, 0.0);
  EXPECT_LT(late, early / 4);
}

namespace {

// Packs the homing pattern of `mode` (15 parameter bits per table word)
// into a storage-layout frame, using the transmission order of the mode.
std::vector<uint8_t> homingFrame(int mode) {
  using namespace quillon::amrwb::tables;
  const int16_t* patterns[9] = {kHomingMode0, kHomingMode1, kHomingMode2, kHomingMode3, kHomingMode4,
                                kHomingMode5, kHomingMode6, kHomingMode7, kHomingMode8};
  const int16_t* orders[9] = {kSortOrder660,  kSortOrder885,  kSortOrder1265, kSortOrder1425, kSortOrder1585,
                              kSortOrder1825, kSortOrder1985, kSortOrder2305, kSortOrder2385};
  const int bits[9] = {132, 177, 253, 285, 317, 365, 397, 461, 477};
  std::vector<uint8_t> f(static_cast<size_t>(frameBytesForType(mode)), 0);
  f[0] = static_cast<uint8_t>((mode << 3) | 0x04);
  for (int i = 0; i < bits[mode]; i++) {
    const int b = orders[mode][i];  // parameter bit carried at position i
    const int word = b / 15;
    const int bit = (patterns[mode][word] >> (14 - b % 15)) & 1;
    if (bit) f[1 + i / 8] = static_cast<uint8_t>(f[1 + i / 8] | (0x80 >> (i % 8)));
  }
  return f;
}

}  // namespace

// Decoder homing: a homing frame after a reset outputs the homing pattern
// (0x0008 in every sample); a homing frame inside a stream resets the
// decoder, so the stream that follows decodes as from a fresh decoder.
TEST(AmrwbEngine, HomingFrames) {
  QUILLON_REQUIRE_VECTORS(dir, "amrwb");
  for (int mode : {0, 2, 8}) {
    const auto frames = splitFrames(readFile(dir / ("orig16k-mode" + std::to_string(mode) + ".amrwb")));
    const std::vector<int16_t> clean = readPcm16(dir / ("orig16k-mode" + std::to_string(mode) + ".pcm"));
    const std::vector<uint8_t> home = homingFrame(mode);
    Decoder dec;
    int16_t out[kFrameSamples];
    ASSERT_EQ(dec.decodeFrame(home.data(), home.size(), out), static_cast<int>(home.size()));
    for (int16_t v : out) ASSERT_EQ(v, 8) << mode;
    for (size_t i = 0; i < 50; i++) dec.decodeFrame(frames[i].data(), frames[i].size(), out);
    dec.decodeFrame(home.data(), home.size(), out);  // decoded, then reset
    std::vector<int16_t> pcm;
    for (size_t i = 0; i < 30; i++) {
      dec.decodeFrame(frames[i].data(), frames[i].size(), out);
      pcm.insert(pcm.end(), out, out + kFrameSamples);
    }
    EXPECT_EQ(pcm, std::vector<int16_t>(clean.begin(), clean.begin() + 30 * kFrameSamples)) << mode;
  }
}

// The overflow conventions the filters follow, at their edges.
TEST(AmrwbEngine, OverflowHelpers) {
  using namespace quillon::amrwb::overflow;
  EXPECT_EQ(satShl(0x20000000, 1), 0x40000000);
  EXPECT_EQ(satShl(0x40000000, 1), 0x7fffffff);
  EXPECT_EQ(satShl(-0x40000001, 1), static_cast<int32_t>(0x80000000u));
  EXPECT_EQ(roundWrap(0x7fff7fff), 32767);
  EXPECT_EQ(roundWrap(0x7fff8000), -32768);  // wraps
  EXPECT_EQ(roundWrap(0x7fffffff), 32767);   // the maximum is kept
  EXPECT_EQ(shl1RoundWrap(0x3fffc000), -32768);
  EXPECT_EQ(shl1RoundWrap(0x40000000), 32767);
  EXPECT_EQ(shl1RoundWrap(-0x40000001), -32768);
  EXPECT_EQ(shiftLeft16(0x10000, -4), 0x1000);
  EXPECT_EQ(shiftLeft16(0x10000, -20), 0x1000);  // count modulo 16
  EXPECT_EQ(shiftRight32(0x10000, 36), 0x1000);  // count modulo 32
  EXPECT_EQ(shiftRight32(0x10000, -16), 0x7fffffff);
}
