// CodecOpus: conformance on the libopus streams, the decode contract
// (prefix accounting, dropped packets), and the stream writer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <vector>

#include "codecs/speech/opus/opus_stream_writer.h"
#include "quillon/codecs/codec_opus.h"
#include "test_support.h"

namespace {

using TAV::AudioFormat;
using TAV::Codec;
using TAV::CodecOpus;
using TAV::uint32;

// The system libopus is a floating-point build: on another CPU (other SIMD
// paths) its last bits may differ from the machine that made the
// references, so samples may differ by this much.
constexpr int kMaxSampleDiff = 2;

std::unique_ptr<CodecOpus> openDecoder() {
  auto c = std::make_unique<CodecOpus>();
  EXPECT_TRUE(c->open(AudioFormat(TAV::CT_OPUS, 1), false));
  return c;
}

// A 16 kHz test clip: a few harmonics with a slow pitch glide and an
// amplitude envelope. The pitch stays well above the high-pass filter of
// the encoder's VoIP mode.
std::vector<int16_t> testClip(size_t samples) {
  std::vector<int16_t> pcm(samples);
  const double kPi = 3.14159265358979323846;
  double phase = 0;
  for (size_t i = 0; i < samples; i++) {
    const double t = static_cast<double>(i) / 16000.0;
    const double f0 = 350.0 + 50.0 * std::sin(2 * kPi * 0.7 * t);
    phase += 2 * kPi * f0 / 16000.0;
    const double env = 0.6 + 0.4 * std::sin(2 * kPi * 1.3 * t);
    double v = 0;
    for (int h = 1; h <= 6; h++) v += std::sin(h * phase) / h;
    pcm[i] = static_cast<int16_t>(std::lround(6000.0 * env * v));
  }
  return pcm;
}

// Three 20 ms packets (320 samples each) of the test clip, as a stream.
std::vector<uint8_t> threePacketStream() {
  const std::vector<int16_t> clip = testClip(3 * 320);
  return quillon::makeOpusStream(clip.data(), clip.size(), {32000});
}

// Byte offset of packet k (its prefix) in a well-formed stream.
size_t packetOffset(const std::vector<uint8_t>& s, int k) {
  size_t at = 0;
  for (int i = 0; i < k; i++) at += 2 + static_cast<size_t>(s[at] | (s[at + 1] << 8));
  return at;
}

struct VectorResult {
  int maxDiff = 0;
  size_t differing = 0;
};

VectorResult compare(const std::vector<int16_t>& got, const std::vector<int16_t>& want) {
  VectorResult r;
  for (size_t i = 0; i < std::min(got.size(), want.size()); i++) {
    const int d = std::abs(got[i] - want[i]);
    r.maxDiff = std::max(r.maxDiff, d);
    r.differing += d != 0;
  }
  return r;
}

TEST(CodecOpusVectors, EveryStreamMatchesItsReference) {
  QUILLON_REQUIRE_VECTORS(dir, "opus");
  std::vector<std::filesystem::path> streams;
  for (const auto& e : std::filesystem::directory_iterator(dir))
    if (e.path().extension() == ".opus") streams.push_back(e.path());
  std::sort(streams.begin(), streams.end());
  ASSERT_FALSE(streams.empty());

  for (const auto& path : streams) {
    SCOPED_TRACE(path.filename().string());
    const std::vector<uint8_t> in = quillon::test::readFile(path);
    std::filesystem::path refPath = path;
    const std::vector<int16_t> want = quillon::test::readPcm16(refPath.replace_extension(".pcm"));
    ASSERT_FALSE(want.empty());

    // The whole stream in one call, with room to spare.
    auto codec = openDecoder();
    std::vector<int16_t> got(want.size() + CodecOpus::kScratchSamples);
    uint32 inBytes = static_cast<uint32>(in.size());
    const uint32 outBytes =
        codec->decode(in.data(), inBytes, got.data(), static_cast<uint32>(got.size() * 2));
    EXPECT_EQ(inBytes, 0u);
    ASSERT_EQ(outBytes, want.size() * 2);
    got.resize(want.size());
    const VectorResult r = compare(got, want);
    EXPECT_LE(r.maxDiff, kMaxSampleDiff) << r.differing << " samples differ";
    RecordProperty(path.stem().string() + "_max_diff", r.maxDiff);
  }
}

// Packet by packet, each call given exactly one packet: the decoder state
// carries across calls, so the output equals the one-call decode.
TEST(CodecOpusVectors, PacketPerCallKeepsDecoderState) {
  QUILLON_REQUIRE_VECTORS(dir, "opus");
  const std::vector<uint8_t> in = quillon::test::readFile(dir / "orig16k-voip-24k-40ms.opus");
  const std::vector<int16_t> want = quillon::test::readPcm16(dir / "orig16k-voip-24k-40ms.pcm");
  ASSERT_FALSE(in.empty());

  auto codec = openDecoder();
  std::vector<int16_t> got(want.size());
  size_t at = 0;
  uint32 written = 0;
  while (at < in.size()) {
    const uint32 packet = 2 + static_cast<uint32>(in[at] | (in[at + 1] << 8));
    uint32 inBytes = packet;
    const uint32 room = static_cast<uint32>(got.size() * 2) - written;
    const uint32 n = codec->decode(in.data() + at, inBytes, got.data() + written / 2, room);
    ASSERT_EQ(inBytes, 0u) << "at byte " << at;
    ASSERT_EQ(n, 1280u);  // 40 ms at 16 kHz
    written += n;
    at += packet;
  }
  ASSERT_EQ(written, want.size() * 2);
  EXPECT_LE(compare(got, want).maxDiff, kMaxSampleDiff);
}

TEST(CodecOpus, OpenServesCodeSixtyFourOnly) {
  CodecOpus c;
  EXPECT_FALSE(c.open(AudioFormat(TAV::CT_SILK_20MS, 1), false));
  EXPECT_FALSE(c.isDecoder());
  EXPECT_TRUE(c.open(AudioFormat(TAV::CT_OPUS, 1), false));
  EXPECT_TRUE(c.isDecoder());
  EXPECT_TRUE(c.close());
  EXPECT_FALSE(c.isDecoder());
  EXPECT_TRUE(c.close());  // closing twice is harmless

  // Closed: nothing to decode with.
  const uint8_t bytes[4] = {2, 0, 0x08, 0x00};
  uint32 inBytes = 4;
  int16_t out[320];
  EXPECT_EQ(c.decode(bytes, inBytes, out, sizeof out), 0u);
  EXPECT_EQ(inBytes, 4u);
}

TEST(CodecOpus, FactoryMakesDecoderAndEncoderThatEncodesNothing) {
  std::unique_ptr<Codec> dec(Codec::getCodec(AudioFormat(TAV::CT_OPUS, 1), false));
  ASSERT_NE(dec, nullptr);
  EXPECT_TRUE(dec->isDecoder());
  EXPECT_NE(dynamic_cast<CodecOpus*>(dec.get()), nullptr);

  std::unique_ptr<Codec> enc(Codec::getCodec(AudioFormat(TAV::CT_OPUS, 1), true));
  ASSERT_NE(enc, nullptr);
  EXPECT_TRUE(enc->isEncoder());
  int16_t pcm[320] = {};
  uint8_t out[1000];
  uint32 inBytes = sizeof pcm;
  EXPECT_EQ(enc->encode(pcm, inBytes, out, sizeof out), 0u);
  EXPECT_EQ(inBytes, static_cast<uint32>(sizeof pcm));
  EXPECT_EQ(enc->hasPendingEncodedData(), 0u);
}

TEST(CodecOpus, NoOutputRoomOrTooLittleInputConsumesNothing) {
  const std::vector<uint8_t> s = threePacketStream();
  auto codec = openDecoder();
  std::vector<int16_t> out(960);

  uint32 inBytes = static_cast<uint32>(s.size());
  EXPECT_EQ(codec->decode(s.data(), inBytes, out.data(), 0), 0u);
  EXPECT_EQ(inBytes, s.size());

  inBytes = 1;
  EXPECT_EQ(codec->decode(s.data(), inBytes, out.data(), 1920), 0u);
  EXPECT_EQ(inBytes, 1u);
}

TEST(CodecOpus, TruncatedPacketConsumesOnlyItsPrefix) {
  const std::vector<uint8_t> s = threePacketStream();
  const size_t second = packetOffset(s, 1);
  auto codec = openDecoder();
  std::vector<int16_t> out(960);

  // The first packet whole, then the second cut one byte short.
  const size_t cut = packetOffset(s, 2) - 1;
  uint32 inBytes = static_cast<uint32>(cut);
  EXPECT_EQ(codec->decode(s.data(), inBytes, out.data(), 1920), 640u);
  EXPECT_EQ(inBytes, cut - second - 2);

  // Only a prefix that announces more than is there.
  auto fresh = openDecoder();
  inBytes = 2 + 5;
  EXPECT_EQ(fresh->decode(s.data(), inBytes, out.data(), 1920), 0u);
  EXPECT_EQ(inBytes, 5u);
}

TEST(CodecOpus, NegativePrefixStopsAfterConsumingIt) {
  for (uint8_t high : {0x80, 0xFF}) {
    std::vector<uint8_t> s(200, 0x55);
    s[0] = 0x10;
    s[1] = high;  // 0x8010 or 0xFF10: negative
    auto codec = openDecoder();
    std::vector<int16_t> out(960);
    uint32 inBytes = static_cast<uint32>(s.size());
    EXPECT_EQ(codec->decode(s.data(), inBytes, out.data(), 1920), 0u);
    EXPECT_EQ(inBytes, s.size() - 2);
  }
}

TEST(CodecOpus, RejectedPacketStopsWithOnlyItsPrefixConsumed) {
  std::vector<uint8_t> s = threePacketStream();
  // Replace packet 2 by a code-3 packet that declares zero frames, which
  // libopus refuses; packet 3 follows it.
  const size_t second = packetOffset(s, 1);
  const size_t third = packetOffset(s, 2);
  const std::vector<uint8_t> bad = {2, 0, 0x0B, 0x00};
  s.erase(s.begin() + static_cast<long>(second), s.begin() + static_cast<long>(third));
  s.insert(s.begin() + static_cast<long>(second), bad.begin(), bad.end());

  auto codec = openDecoder();
  std::vector<int16_t> out(960);
  uint32 inBytes = static_cast<uint32>(s.size());
  EXPECT_EQ(codec->decode(s.data(), inBytes, out.data(), 1920), 640u);
  EXPECT_EQ(inBytes, s.size() - second - 2);
}

TEST(CodecOpus, PacketThatDoesNotFitIsConsumedAndDropped) {
  const std::vector<uint8_t> s = threePacketStream();
  const size_t twoPackets = packetOffset(s, 2);
  std::vector<int16_t> out(960);

  auto full = openDecoder();
  uint32 inBytes = static_cast<uint32>(twoPackets);
  EXPECT_EQ(full->decode(s.data(), inBytes, out.data(), 1280), 1280u);
  EXPECT_EQ(inBytes, 0u);

  auto shortRoom = openDecoder();
  std::vector<int16_t> dropped(960, 0x1234);
  inBytes = static_cast<uint32>(twoPackets);
  EXPECT_EQ(shortRoom->decode(s.data(), inBytes, dropped.data(), 1000), 640u);
  EXPECT_EQ(inBytes, 0u);  // the second packet is consumed all the same
  EXPECT_TRUE(std::equal(out.begin(), out.begin() + 320, dropped.begin()));
  EXPECT_EQ(dropped[320], 0x1234);

  // The loop ends once the room is exactly filled, leaving the rest unread.
  auto exact = openDecoder();
  inBytes = static_cast<uint32>(s.size());
  EXPECT_EQ(exact->decode(s.data(), inBytes, out.data(), 640), 640u);
  EXPECT_EQ(inBytes, s.size() - packetOffset(s, 1));
}

// An empty packet goes to libopus as it is, which conceals a whole frame
// size's worth: one second, kept only when it fits.
TEST(CodecOpus, EmptyPacketDecodesToOneSecondOfConcealment) {
  const uint8_t empty[2] = {0, 0};
  std::vector<int16_t> out(CodecOpus::kScratchSamples);

  auto codec = openDecoder();
  uint32 inBytes = 2;
  EXPECT_EQ(codec->decode(empty, inBytes, out.data(), 32000), 32000u);
  EXPECT_EQ(inBytes, 0u);

  inBytes = 2;
  EXPECT_EQ(codec->decode(empty, inBytes, out.data(), 31998), 0u);
  EXPECT_EQ(inBytes, 0u);
}

TEST(OpusStreamWriter, StreamDoesNotDependOnHowPcmIsFed) {
  const std::vector<int16_t> clip = testClip(16000 * 2 + 100);  // partial last frame
  quillon::OpusStreamWriter writer;
  ASSERT_TRUE(writer.open({32000}));
  std::vector<uint8_t> stream;
  for (size_t at = 0; at < clip.size(); at += 777)
    ASSERT_TRUE(writer.write(clip.data() + at, std::min<size_t>(777, clip.size() - at), stream));
  ASSERT_TRUE(writer.finish(stream));
  EXPECT_EQ(stream, quillon::makeOpusStream(clip.data(), clip.size(), {32000}));

  // 101 packets of 20 ms (the last padded), each with a sane positive length.
  size_t packets = 0;
  for (size_t at = 0; at < stream.size(); packets++) {
    const int len = static_cast<int16_t>(stream[at] | (stream[at + 1] << 8));
    ASSERT_GT(len, 0);
    at += 2 + static_cast<size_t>(len);
    ASSERT_LE(at, stream.size());
  }
  EXPECT_EQ(packets, 101u);
}

// Encode, decode through CodecOpus, and compare with the input once the
// encoder's look-ahead is allowed for. Opus is not a waveform coder (and
// its VoIP mode filters the low end), so the bounds are loose sanity
// limits, a few dB under what each mode reaches here.
TEST(OpusStreamWriter, RoundTripThroughCodecOpus) {
  using App = quillon::OpusStreamApplication;
  const struct {
    App app;
    double minSnr;
  } cases[] = {{App::Voip, 10.0}, {App::Audio, 20.0}, {App::LowDelay, 19.0}};
  const std::vector<int16_t> clip = testClip(16000 * 2);

  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.app));
    quillon::OpusStreamWriter writer;
    ASSERT_TRUE(writer.open({32000, c.app}));
    std::vector<uint8_t> stream;
    ASSERT_TRUE(writer.write(clip.data(), clip.size(), stream));
    ASSERT_TRUE(writer.finish(stream));
    // Roughly the asked-for rate: 32 kbit/s for 2 s is 8000 bytes.
    EXPECT_GT(stream.size(), 6000u);
    EXPECT_LT(stream.size(), 10000u);

    auto codec = openDecoder();
    std::vector<int16_t> out(clip.size());
    uint32 inBytes = static_cast<uint32>(stream.size());
    ASSERT_EQ(codec->decode(stream.data(), inBytes, out.data(), static_cast<uint32>(out.size() * 2)),
              out.size() * 2);
    EXPECT_EQ(inBytes, 0u);

    const size_t delay = static_cast<size_t>(writer.lookahead());
    double sig = 0, err = 0;
    for (size_t i = 1600; i + delay < clip.size(); i++) {
      const double d = static_cast<double>(out[i + delay]) - clip[i];
      sig += static_cast<double>(clip[i]) * clip[i];
      err += d * d;
    }
    EXPECT_GT(10 * std::log10(sig / err), c.minSnr) << "look-ahead " << delay;
  }
}

TEST(OpusStreamWriter, RefusesBadOptions) {
  quillon::OpusStreamWriter writer;
  std::vector<uint8_t> stream;
  const int16_t pcm[320] = {};
  EXPECT_FALSE(writer.write(pcm, 320, stream));  // not open
  EXPECT_FALSE(writer.open({-5}));
  EXPECT_TRUE(quillon::makeOpusStream(pcm, 320, {-5}).empty());
}

}  // namespace
