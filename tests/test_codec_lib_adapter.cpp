// TAV::CodecLibAdapter: code mapping, init order, byte/sample conventions
// and the length-prefixed loop of code 65 (on the scripted engine), plus
// code 20 against the shared G.729 Annex A streams.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "codeclib_fake.h"
#include "quillon/codecs/codec_lib_adapter.h"
#include "test_support.h"

using namespace quillon::codeclib;
using quillon::test::FakeSlot;
using quillon::test::g_engine;
using quillon::test::g_fake;
using quillon::test::TraceCapture;
using quillon::test::TraceMuted;
using TAV::AudioFormat;
using TAV::Codec;
using TAV::CodecLibAdapter;

namespace {

std::unique_ptr<Codec> makeCodec(TAV::CompressionType code, bool encoder) {
  return std::unique_ptr<Codec>(Codec::getCodec(AudioFormat(code, 1), encoder));
}

// A code-65 stream: each frame preceded by its 16-bit little-endian length.
std::vector<uint8_t> prefixed(const std::vector<std::vector<uint8_t>>& frames) {
  std::vector<uint8_t> s;
  for (const auto& f : frames) {
    s.push_back(static_cast<uint8_t>(f.size()));
    s.push_back(static_cast<uint8_t>(f.size() >> 8));
    s.insert(s.end(), f.begin(), f.end());
  }
  return s;
}

}  // namespace

TEST(CodecLibAdapter, OpenAcceptsOnlyItsCodesAndDirections) {
  CodecLibAdapter c;
  for (TAV::CompressionType code : {TAV::CT_G711_ALAW, TAV::CT_ICELP48, TAV::CT_TETRA, TAV::CT_OPUS, TAV::CT_PCM16})
    EXPECT_FALSE(c.open(AudioFormat(code, 1), false)) << code;
  for (TAV::CompressionType code : {TAV::CT_G722_MODE2, TAV::CT_G722_MODE3, TAV::CT_AMRWB}) {
    EXPECT_FALSE(c.open(AudioFormat(code, 1), true)) << code;
    EXPECT_FALSE(c.isEncoder());
    EXPECT_EQ(makeCodec(code, true), nullptr) << code;
  }
  EXPECT_NE(makeCodec(TAV::CT_AMRWB, false), nullptr);
}

TEST(CodecLibAdapter, EngineDefaultsReplaceTheModeOpenStores) {
  FakeSlot slot(kCodecAmrWb);
  g_fake.decBytes = 2;
  g_fake.decSamples = 4;
  g_fake.decLeftOver = 64;
  auto c = makeCodec(TAV::CT_AMRWB, false);
  ASSERT_NE(c, nullptr);
  ASSERT_NE(g_engine, nullptr);
  EXPECT_EQ(g_engine->direction, kDirDecoder);
  const std::vector<uint8_t> s = prefixed({{1, 2}});
  std::vector<int16_t> out(64);
  uint32_t n = static_cast<uint32_t>(s.size());
  EXPECT_EQ(c->decode(s.data(), n, out.data(), 64), 8u);
  ASSERT_EQ(g_engine->modes.size(), 1u);
  EXPECT_EQ(g_engine->modes[0], 1);  // not the 8 that open() wrote
  EXPECT_EQ(g_engine->frameLengths[0], 320);
  EXPECT_TRUE(c->close());
  EXPECT_FALSE(c->isDecoder());
  EXPECT_EQ(g_engine, nullptr);  // the handle was released
}

TEST(CodecLibAdapter, LengthPrefixedFrames) {
  FakeSlot slot(kCodecAmrWb);
  g_fake.decBytes = 2;
  g_fake.decSamples = 4;
  g_fake.decLeftOver = 64;
  auto c = makeCodec(TAV::CT_AMRWB, false);
  ASSERT_NE(c, nullptr);
  std::vector<int16_t> out(256);

  // Whole frames: all consumed.
  std::vector<uint8_t> s = prefixed({{1, 0, 2, 0}, {3, 0, 4, 0}});
  uint32_t n = static_cast<uint32_t>(s.size());
  EXPECT_EQ(c->decode(s.data(), n, out.data(), 256), 32u);
  EXPECT_EQ(n, 0u);
  EXPECT_EQ(out[0], 100);
  EXPECT_EQ(out[4], 200);
  EXPECT_EQ(out[12], 400);

  // The last frame cut short stays, less its prefix.
  s = prefixed({{5, 0, 6, 0}});
  s.insert(s.end(), {4, 0, 7, 0, 8});
  n = static_cast<uint32_t>(s.size());
  EXPECT_EQ(c->decode(s.data(), n, out.data(), 256), 16u);
  EXPECT_EQ(n, 3u);

  // A length with the top bit set stops decoding at that frame.
  s = prefixed({{9, 0, 9, 0}});
  s.insert(s.end(), {0x00, 0x80, 1, 0, 1, 0});
  n = static_cast<uint32_t>(s.size());
  EXPECT_EQ(c->decode(s.data(), n, out.data(), 256), 16u);
  EXPECT_EQ(n, 4u);

  // No room: nothing is read. A lone byte is not a prefix.
  n = static_cast<uint32_t>(s.size());
  EXPECT_EQ(c->decode(s.data(), n, out.data(), 0), 0u);
  EXPECT_EQ(n, static_cast<uint32_t>(s.size()));
  n = 1;
  EXPECT_EQ(c->decode(s.data(), n, out.data(), 256), 0u);
  EXPECT_EQ(n, 1u);

  // The samples a frame produced are the room offered to the next: a
  // longer second frame overflows it and stops the loop.
  c.reset(Codec::getCodec(AudioFormat(TAV::CT_AMRWB, 1), false));
  s = prefixed({{1, 0}, {2, 0, 3, 0}});
  n = static_cast<uint32_t>(s.size());
  EXPECT_EQ(c->decode(s.data(), n, out.data(), 256), 8u);
  EXPECT_EQ(n, 4u);

  // An engine error stops the loop without consuming the frame.
  c.reset(Codec::getCodec(AudioFormat(TAV::CT_AMRWB, 1), false));
  g_fake.failFrame = 1;
  g_fake.failResult = 5;
  s = prefixed({{1, 0}, {2, 0}, {3, 0}});
  n = static_cast<uint32_t>(s.size());
  EXPECT_EQ(c->decode(s.data(), n, out.data(), 256), 8u);
  EXPECT_EQ(n, 6u);
}

TEST(CodecLibAdapter, Code20HandsTheByteCapacityAsSamples) {
  FakeSlot slot(kCodecG729A);
  auto c = makeCodec(TAV::CT_G729, false);
  ASSERT_NE(c, nullptr);
  std::vector<uint8_t> in(30, 1);
  std::vector<int16_t> out(400);
  TraceMuted mute;
  uint32_t n = 20;
  // 160 bytes of room become 160 samples: two frames (320 bytes) fit.
  EXPECT_EQ(c->decode(in.data(), n, out.data(), 160), 320u);
  EXPECT_EQ(n, 0u);
  n = 15;
  EXPECT_EQ(c->decode(in.data(), n, out.data(), 160), 160u);
  EXPECT_EQ(n, 5u);  // held back in the engine
  // Three frames do not fit 160 samples: the engine error gives 0 bytes.
  n = 30;
  EXPECT_EQ(c->decode(in.data(), n, out.data(), 160), 0u);
}

TEST(CodecLibAdapter, Code20DecodingTracesAtLevel4) {
  FakeSlot slot(kCodecG729A);
  auto c = makeCodec(TAV::CT_G729, false);
  ASSERT_NE(c, nullptr);
  TraceCapture capture;
  std::vector<uint8_t> in(10, 1);
  std::vector<int16_t> out(160);
  uint32_t n = 10;
  EXPECT_EQ(c->decode(in.data(), n, out.data(), 160), 160u);
  EXPECT_EQ(capture.take(),
            "In codecLibDecode\n"
            "codecLibDecode:HandleRes->leftOverInpBufCnt=10 inputsToProcess=10\n"
            "codecLibDecode:2SumOutputSz=0 inputsToProcess = 10 inputUsed=10\n"
            "codecLibDecode:leftOverInpBufCnt = 0\n");
}

TEST(CodecLibAdapter, EncodeCountsSamplesHeldBack) {
  FakeSlot slot(kCodecG729A);
  auto c = makeCodec(TAV::CT_G729, true);
  ASSERT_NE(c, nullptr);
  EXPECT_TRUE(c->isEncoder());
  EXPECT_EQ(g_engine->direction, kDirEncoder);
  std::vector<int16_t> in(200, 7);
  std::vector<uint8_t> out(64);
  uint32_t n = 100;  // 50 samples
  EXPECT_EQ(c->encode(in.data(), n, out.data(), 64), 0u);
  EXPECT_EQ(n, 100u);
  n = 61;  // 30 samples (the odd byte is dropped)
  EXPECT_EQ(c->encode(in.data(), n, out.data(), 64), 10u);
  EXPECT_EQ(n, 0u);
  n = 60;
  EXPECT_EQ(c->encode(in.data(), n, out.data(), 64), 0u);
  n = 0;  // flush
  EXPECT_EQ(c->encode(in.data(), n, out.data(), 64), 10u);
  EXPECT_EQ(n, 0u);
  // Room below one frame: an engine error, 0 bytes, nothing consumed.
  n = 200;
  EXPECT_EQ(c->encode(in.data(), n, out.data(), 9), 0u);
  EXPECT_EQ(n, 0u);
  // Opening again re-creates the engine.
  ASSERT_TRUE(c->open(AudioFormat(TAV::CT_G729, 1), true));
  EXPECT_TRUE(g_engine->encFrames.empty());
}

TEST(CodecLibAdapter, G722CodesShareDescriptor16InMode1) {
  FakeSlot slot(kCodecG722);
  for (TAV::CompressionType code : {TAV::CT_G722, TAV::CT_G722_MODE2, TAV::CT_G722_MODE3}) {
    auto c = makeCodec(code, false);
    ASSERT_NE(c, nullptr) << code;
    std::vector<uint8_t> in(10, 1);
    std::vector<int16_t> out(160);
    uint32_t n = 10;
    TraceMuted mute;
    EXPECT_EQ(c->decode(in.data(), n, out.data(), 160), 160u);
    EXPECT_EQ(g_engine->modes.at(0), 1) << code;
    EXPECT_EQ(g_engine->frameLengths.at(0), 320) << code;
  }
  EXPECT_NE(makeCodec(TAV::CT_G722, true), nullptr);
}

// Code 20 through the factory against the reference output of every shared
// G.729 Annex A stream, fed in uneven chunks.
TEST(CodecLibAdapter, Code20DecodesTheSharedStreams) {
  QUILLON_REQUIRE_VECTORS(itu, "g729a");
  QUILLON_REQUIRE_VECTORS(peer, "g729");
  TraceMuted mute;
  int streams = 0;
  for (const std::filesystem::path& d : {itu, peer}) {
    for (const auto& entry : std::filesystem::directory_iterator(d)) {
      if (entry.path().extension() != ".g729") continue;
      std::filesystem::path ref = entry.path();
      ref.replace_extension(".pcm");
      const std::vector<uint8_t> stream = quillon::test::readFile(entry.path());
      const std::vector<int16_t> expected = quillon::test::readPcm16(ref);
      auto c = makeCodec(TAV::CT_G729, false);
      ASSERT_NE(c, nullptr);
      std::vector<int16_t> decoded;
      std::vector<int16_t> out(16 * 1024);
      size_t pos = 0;
      size_t chunk = 7;
      while (pos < stream.size()) {
        const uint32_t take = static_cast<uint32_t>(std::min(chunk, stream.size() - pos));
        uint32_t n = take;
        const uint32_t bytes = c->decode(stream.data() + pos, n, out.data(), 8 * 1024);
        decoded.insert(decoded.end(), out.begin(), out.begin() + bytes / 2);
        pos += take;
        chunk = chunk * 3 % 997 + 1;
      }
      EXPECT_EQ(quillon::test::firstMismatch(decoded, expected), -1) << entry.path();
      streams++;
    }
  }
  EXPECT_GT(streams, 0);
}
