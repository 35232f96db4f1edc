// The real engines behind descriptors 16 and 25, reached through the front
// and the adapter with uneven chunking, against the shared vectors.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "codeclib_fake.h"
#include "engines/g722/g722_engine.h"
#include "quillon/codecs/codec_lib_adapter.h"
#include "test_support.h"

using namespace quillon::codeclib;
using quillon::test::TraceMuted;

namespace {

// Next chunk size of a fixed irregular sequence (1..997).
size_t nextChunk(size_t c) { return c * 7 % 997 + 1; }

}  // namespace

// G.722 in each mode: the front decodes whole 160-byte frames and keeps a
// trailing partial frame.
TEST(CodecLibEngines, G722DecodesTheSharedStreamsInEveryMode) {
  QUILLON_REQUIRE_VECTORS(dir, "g722");
  int streams = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().extension() != ".g722") continue;
    const std::string stem = entry.path().stem().string();
    const int mode = stem.back() - '0';
    const std::vector<uint8_t> stream = quillon::test::readFile(entry.path());
    std::vector<int16_t> expected = quillon::test::readPcm16(dir / (stem + ".pcm"));
    expected.resize(stream.size() / 160 * 320);

    HandleRes* h = nullptr;
    ASSERT_EQ(codecLibOpen(&h, kCodecG722, kDirDecoder, 0), 0);
    CodecLibOptions options{};
    ASSERT_EQ(codecLibQuery(&h, kCodecG722, kDirDecoder, nullptr, &options, 0), 0);
    options.frameLength = 320;
    options.mode = static_cast<int16_t>(mode);
    std::vector<int16_t> decoded, out(4096);
    size_t chunk = 3;
    for (size_t pos = 0; pos < stream.size(); pos += chunk, chunk = nextChunk(chunk)) {
      chunk = std::min(chunk, stream.size() - pos);
      int32 n = static_cast<int32>(chunk), room = static_cast<int32>(out.size());
      ASSERT_EQ(codecLibDecode(&h, stream.data() + pos, &n, out.data(), &room, &options, 0), 0);
      decoded.insert(decoded.end(), out.begin(), out.begin() + room);
    }
    EXPECT_EQ(codecLibClose(&h, 0), 0);
    EXPECT_EQ(quillon::test::firstMismatch(decoded, expected), -1) << stem;
    streams++;
  }
  EXPECT_GT(streams, 0);
}

// Codes 50-52 all decode in the engine's default mode 1.
TEST(CodecLibEngines, G722CodesDecodeInMode1) {
  QUILLON_REQUIRE_VECTORS(dir, "g722");
  const std::vector<uint8_t> stream = quillon::test::readFile(dir / "orig16k-m3.g722");
  std::vector<int16_t> expected = quillon::test::readPcm16(dir / "orig16k-m1.pcm");
  expected.resize(stream.size() / 160 * 320);
  TraceMuted mute;
  for (TAV::CompressionType code : {TAV::CT_G722, TAV::CT_G722_MODE2, TAV::CT_G722_MODE3}) {
    std::unique_ptr<TAV::Codec> c(TAV::Codec::getCodec(TAV::AudioFormat(code, 1), false));
    ASSERT_NE(c, nullptr);
    std::vector<int16_t> decoded, out(8192);
    for (size_t pos = 0; pos < stream.size(); pos += 1000) {
      TAV::uint32 n = static_cast<TAV::uint32>(std::min<size_t>(1000, stream.size() - pos));
      const TAV::uint32 bytes = c->decode(stream.data() + pos, n, out.data(), 4096);
      decoded.insert(decoded.end(), out.begin(), out.begin() + bytes / 2);
    }
    EXPECT_EQ(quillon::test::firstMismatch(decoded, expected), -1) << code;
  }
}

// G.722 encoding through the front gives the engine's own octets.
TEST(CodecLibEngines, G722EncodeRoundTrip) {
  QUILLON_REQUIRE_VECTORS(dir, "g722");
  const std::vector<int16_t> pcm = quillon::test::readPcm16(dir / "orig16k-m1.pcm");
  std::unique_ptr<TAV::Codec> c(TAV::Codec::getCodec(TAV::AudioFormat(TAV::CT_G722, 1), true));
  ASSERT_NE(c, nullptr);
  std::vector<uint8_t> coded, out(4096);
  for (size_t pos = 0; pos < pcm.size(); pos += 777) {
    TAV::uint32 n = static_cast<TAV::uint32>(2 * std::min<size_t>(777, pcm.size() - pos));
    const TAV::uint32 bytes = c->encode(pcm.data() + pos, n, out.data(), 4096);
    coded.insert(coded.end(), out.begin(), out.begin() + bytes);
  }
  TAV::uint32 none = 0;
  const TAV::uint32 bytes = c->encode(pcm.data(), none, out.data(), 4096);  // flush
  coded.insert(coded.end(), out.begin(), out.begin() + bytes);
  // The same octets as the engine on the whole signal padded to a frame.
  std::vector<int16_t> padded = pcm;
  padded.resize((pcm.size() + 319) / 320 * 320, 0);
  std::vector<uint8_t> expected(padded.size() / 2);
  quillon::g722::Encoder().encode(padded.data(), padded.size(), expected.data());
  EXPECT_EQ(coded, expected);
}

// The G.729 Annex A encoder through code 20 reproduces the reference
// encoder's frames, whatever the chunking, and decodes back to the
// reference decoder's output.
TEST(CodecLibEngines, G729AEncodesLikeTheReference) {
  QUILLON_REQUIRE_VECTORS(dir, "g729");
  int streams = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().extension() != ".s16") continue;
    const std::string stem = entry.path().stem().string();
    const std::vector<int16_t> pcm = quillon::test::readPcm16(entry.path());
    const std::vector<uint8_t> expected = quillon::test::readFile(dir / (stem + ".enc.g729"));
    std::unique_ptr<TAV::Codec> c(TAV::Codec::getCodec(TAV::AudioFormat(TAV::CT_G729, 1), true));
    ASSERT_NE(c, nullptr);
    std::vector<uint8_t> coded, out(2048);
    size_t chunk = 5;
    for (size_t pos = 0; pos < pcm.size(); pos += chunk, chunk = nextChunk(chunk)) {
      chunk = std::min(chunk, pcm.size() - pos);
      TAV::uint32 n = static_cast<TAV::uint32>(2 * chunk);
      const TAV::uint32 bytes = c->encode(pcm.data() + pos, n, out.data(), 2048);
      coded.insert(coded.end(), out.begin(), out.begin() + bytes);
    }
    EXPECT_EQ(coded, expected) << stem;

    // And back through code 20: the reference decoder's output.
    std::unique_ptr<TAV::Codec> d(TAV::Codec::getCodec(TAV::AudioFormat(TAV::CT_G729, 1), false));
    ASSERT_NE(d, nullptr);
    std::vector<int16_t> decoded, pcmOut(16 * 1024);
    TraceMuted mute;
    for (size_t pos = 0; pos < coded.size(); pos += 640) {
      TAV::uint32 n = static_cast<TAV::uint32>(std::min<size_t>(640, coded.size() - pos));
      const TAV::uint32 bytes = d->decode(coded.data() + pos, n, pcmOut.data(), 8 * 1024);
      decoded.insert(decoded.end(), pcmOut.begin(), pcmOut.begin() + bytes / 2);
    }
    EXPECT_EQ(quillon::test::firstMismatch(decoded, quillon::test::readPcm16(dir / (stem + ".enc.pcm"))), -1) << stem;
    streams++;
  }
  EXPECT_GT(streams, 0);
}

// AMR-WB behind descriptor 4: code 65's length-prefixed frames through the
// factory's adapter, fed in uneven chunks that carry the unconsumed tail.
TEST(CodecLibEngines, AmrWbDecodesTheSharedStreamsThroughCode65) {
  QUILLON_REQUIRE_VECTORS(dir, "amrwb");
  int streams = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().extension() != ".amrwb") continue;
    const std::vector<uint8_t> stream = quillon::test::readFile(entry.path());
    const std::vector<int16_t> expected = quillon::test::readPcm16(std::filesystem::path(entry.path()).replace_extension(".pcm"));
    std::unique_ptr<TAV::Codec> codec(TAV::Codec::getCodec(TAV::AudioFormat(TAV::CT_AMRWB, 1), false));
    ASSERT_NE(codec, nullptr);
    // Whole prefixed frames per call (the adapter consumes the prefix of a
    // frame it cannot finish), a varying number of them.
    std::vector<int16_t> out;
    std::vector<int16_t> room(320 * 8);
    size_t chunk = 1;
    for (size_t i = 0; i + 2 <= stream.size();) {
      size_t end = i;
      for (size_t frames = (chunk = nextChunk(chunk)) % 8 + 1; frames > 0 && end + 2 <= stream.size(); frames--)
        end += 2 + (stream[end] | (stream[end + 1] << 8));
      uint32_t inBytes = static_cast<uint32_t>(end - i);
      const uint32_t written = codec->decode(stream.data() + i, inBytes, room.data(), static_cast<uint32_t>(room.size() * 2));
      ASSERT_EQ(inBytes, 0u);
      out.insert(out.end(), room.begin(), room.begin() + written / 2);
      i = end;
    }
    EXPECT_EQ(quillon::test::firstMismatch(out, expected), -1) << entry.path();
    streams++;
  }
  EXPECT_GT(streams, 0);
}

TEST(CodecLibEngines, AmrWbQueryAndReservedFrameTypes) {
  CodecLibOptions options{};
  options.dtx = 5;
  ASSERT_EQ(codecLibQuery(nullptr, kCodecAmrWb, 1, nullptr, &options, 0), 0);
  EXPECT_EQ(options.mode, 1);
  EXPECT_EQ(options.badFrame, 0);
  EXPECT_EQ(options.dtx, 0);
  CodecLibInfo info{};
  ASSERT_EQ(codecLibQuery(nullptr, kCodecAmrWb, 1, &info, &options, 0), 0);
  EXPECT_EQ(info.inBytesPerFrame, 61);
  EXPECT_EQ(info.leftOverSize, 61);
  EXPECT_EQ(info.outBytesPerFrameMax, 640);
  EXPECT_EQ(info.outSampleRate, 16000);
  ASSERT_EQ(codecLibQuery(nullptr, kCodecAmrWb, 0, &info, &options, 0), 0);
  EXPECT_EQ(info.outBytesPerFrameTyp, 24);  // mode 1
  EXPECT_EQ(info.outBytesPerSecond, 1200);

  // A NO_DATA frame (type 15) counts one byte. A reserved type (11) counts
  // none in the frame-size table: the front keeps its byte and decodes
  // nothing more from that handle, as the table has always made it do.
  std::unique_ptr<TAV::Codec> codec(TAV::Codec::getCodec(TAV::AudioFormat(TAV::CT_AMRWB, 1), false));
  ASSERT_NE(codec, nullptr);
  const uint8_t frames[] = {1, 0, 15 << 3 | 4, 1, 0, 11 << 3, 1, 0, 15 << 3 | 4};
  std::vector<int16_t> room(320 * 4);
  uint32_t inBytes = sizeof frames;
  const uint32_t written = codec->decode(frames, inBytes, room.data(), static_cast<uint32_t>(room.size() * 2));
  EXPECT_EQ(written, 640u);
  EXPECT_EQ(inBytes, 1u);  // the frame after the reserved one, less its prefix

  // A damaged prefix that spans many frames stays within the room given.
  std::vector<uint8_t> spanning = {static_cast<uint8_t>(60), 0};
  for (int k = 0; k < 60; k++) spanning.push_back(15 << 3 | 4);
  std::vector<int16_t> guarded(320 * 3 + 16, 0x5a5a);
  inBytes = static_cast<uint32_t>(spanning.size());
  EXPECT_LE(codec->decode(spanning.data(), inBytes, guarded.data(), 320 * 3 * 2), 320u * 3u * 2u);
  for (size_t k = 320 * 3; k < guarded.size(); k++) ASSERT_EQ(guarded[k], 0x5a5a) << k;
}
