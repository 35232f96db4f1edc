// CodecOpus: conformance on the libopus streams, the decode contract
// (prefix accounting, dropped packets), and the stream writer; the packet
// decoder behind stereo Ogg Opus and RTP Opus.
#include <gtest/gtest.h>
#include <opus/opus.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <vector>

#include "opus_stream_writer.h"
#include "quillon/codecs/codec_opus.h"
#include "quillon/opus_packet_decoder.h"
#include "test_support.h"

namespace {

using TAV::AudioFormat;
using TAV::CodecOpus;
using TAV::uint32;

// The system libopus is a floating-point build: on a CPU with other SIMD
// paths than the one that made the references its last bits may differ.
constexpr int kMaxSampleDiff = 2;

std::unique_ptr<CodecOpus> openDecoder() {
  auto c = std::make_unique<CodecOpus>();
  EXPECT_TRUE(c->open(AudioFormat(TAV::CT_OPUS, 1), false));
  return c;
}

// Harmonics with a pitch glide (kept above the VoIP mode's high-pass
// filter) and a slow amplitude envelope, at 16 kHz.
std::vector<int16_t> testClip(size_t samples) {
  std::vector<int16_t> pcm(samples);
  const double kPi = 3.14159265358979323846;
  double phase = 0;
  for (size_t i = 0; i < samples; i++) {
    const double t = static_cast<double>(i) / 16000.0;
    phase += 2 * kPi * (350.0 + 50.0 * std::sin(2 * kPi * 0.7 * t)) / 16000.0;
    double v = 0;
    for (int h = 1; h <= 6; h++) v += std::sin(h * phase) / h;
    pcm[i] = static_cast<int16_t>(std::lround(6000.0 * (0.6 + 0.4 * std::sin(2 * kPi * 1.3 * t)) * v));
  }
  return pcm;
}

// Three 20 ms packets (320 samples each).
std::vector<uint8_t> threePacketStream() {
  const std::vector<int16_t> clip = testClip(3 * 320);
  return quillon::makeOpusStream(clip.data(), clip.size(), {32000});
}

// Byte offset of packet k's prefix.
uint32 packetOffset(const std::vector<uint8_t>& s, int k) {
  uint32 at = 0;
  for (int i = 0; i < k; i++) at += 2u + static_cast<uint32>(s[at] | (s[at + 1] << 8));
  return at;
}

int maxDiff(const std::vector<int16_t>& got, const std::vector<int16_t>& want) {
  int m = 0;
  for (size_t i = 0; i < std::min(got.size(), want.size()); i++) m = std::max(m, std::abs(got[i] - want[i]));
  return m;
}

std::vector<int16_t> readReference(const std::filesystem::path& stream) {
  std::filesystem::path p = stream;
  return quillon::test::readPcm16(p.replace_extension(".pcm"));
}

// The length-prefixed streams of the vectors folder.
std::vector<std::filesystem::path> opusStreams(const std::filesystem::path& dir) {
  std::vector<std::filesystem::path> found;
  for (const auto& e : std::filesystem::directory_iterator(dir))
    if (e.path().extension() == ".opus") found.push_back(e.path());
  EXPECT_FALSE(found.empty());
  return found;
}

TEST(CodecOpusVectors, EveryStreamMatchesItsReference) {
  QUILLON_REQUIRE_VECTORS(dir, "opus");
  for (const auto& path : opusStreams(dir)) {
    SCOPED_TRACE(path.filename().string());
    const std::vector<uint8_t> in = quillon::test::readFile(path);
    const std::vector<int16_t> want = readReference(path);
    ASSERT_FALSE(want.empty());

    auto codec = openDecoder();
    std::vector<int16_t> got(want.size() + CodecOpus::kScratchSamples);
    uint32 inBytes = static_cast<uint32>(in.size());
    ASSERT_EQ(codec->decode(in.data(), inBytes, got.data(), static_cast<uint32>(got.size() * 2)),
              want.size() * 2);
    EXPECT_EQ(inBytes, 0u);
    got.resize(want.size());
    EXPECT_LE(maxDiff(got, want), kMaxSampleDiff);
  }
}

// One packet per call: the decoder state carries across calls.
TEST(CodecOpusVectors, PacketPerCallKeepsDecoderState) {
  QUILLON_REQUIRE_VECTORS(dir, "opus");
  const std::vector<uint8_t> in = quillon::test::readFile(dir / "orig16k-voip-24k-40ms.opus");
  const std::vector<int16_t> want = readReference(dir / "orig16k-voip-24k-40ms.opus");
  ASSERT_FALSE(in.empty());

  auto codec = openDecoder();
  std::vector<int16_t> got(want.size());
  uint32 written = 0;
  for (uint32 at = 0; at < in.size();) {
    const uint32 packet = 2u + static_cast<uint32>(in[at] | (in[at + 1] << 8));
    uint32 inBytes = packet;
    ASSERT_EQ(codec->decode(in.data() + at, inBytes, got.data() + written / 2, 1280), 1280u);  // 40 ms
    ASSERT_EQ(inBytes, 0u);
    written += 1280;
    at += packet;
  }
  ASSERT_EQ(written, want.size() * 2);
  EXPECT_LE(maxDiff(got, want), kMaxSampleDiff);
}

TEST(CodecOpus, LifecycleFactoryAndEncode) {
  CodecOpus c;
  EXPECT_FALSE(c.open(AudioFormat(TAV::CT_SILK_20MS, 1), false));
  EXPECT_TRUE(c.open(AudioFormat(TAV::CT_OPUS, 1), false));
  EXPECT_TRUE(c.close());
  EXPECT_TRUE(c.close());
  const uint8_t bytes[4] = {2, 0, 0x08, 0x00};
  uint32 inBytes = 4;
  int16_t out[320];
  EXPECT_EQ(c.decode(bytes, inBytes, out, sizeof out), 0u);  // closed
  EXPECT_EQ(inBytes, 4u);

  std::unique_ptr<TAV::Codec> dec(TAV::Codec::getCodec(AudioFormat(TAV::CT_OPUS, 1), false));
  ASSERT_NE(dynamic_cast<CodecOpus*>(dec.get()), nullptr);
  EXPECT_TRUE(dec->isDecoder());
  // An encoder opens, but encoding yields nothing.
  std::unique_ptr<TAV::Codec> enc(TAV::Codec::getCodec(AudioFormat(TAV::CT_OPUS, 1), true));
  ASSERT_NE(enc, nullptr);
  const int16_t pcm[320] = {};
  uint8_t coded[1000];
  inBytes = sizeof pcm;
  EXPECT_EQ(enc->encode(pcm, inBytes, coded, sizeof coded), 0u);
}

TEST(CodecOpus, PrefixAccountingOnShortInput) {
  const std::vector<uint8_t> s = threePacketStream();
  std::vector<int16_t> out(960);
  auto codec = openDecoder();

  uint32 inBytes = static_cast<uint32>(s.size());
  EXPECT_EQ(codec->decode(s.data(), inBytes, out.data(), 0), 0u);  // no room
  EXPECT_EQ(inBytes, s.size());
  inBytes = 1;
  EXPECT_EQ(codec->decode(s.data(), inBytes, out.data(), 1920), 0u);  // no whole prefix
  EXPECT_EQ(inBytes, 1u);

  // The first packet, then the second cut one byte short: only its prefix is consumed.
  const uint32 cut = packetOffset(s, 2) - 1;
  inBytes = cut;
  EXPECT_EQ(codec->decode(s.data(), inBytes, out.data(), 1920), 640u);
  EXPECT_EQ(inBytes, cut - packetOffset(s, 1) - 2);

  // Negative lengths (0x8010, 0xFF10) stop the loop once the prefix is taken.
  for (uint8_t high : {0x80, 0xFF}) {
    std::vector<uint8_t> neg(200, 0x55);
    neg[0] = 0x10;
    neg[1] = high;
    inBytes = static_cast<uint32>(neg.size());
    EXPECT_EQ(openDecoder()->decode(neg.data(), inBytes, out.data(), 1920), 0u);
    EXPECT_EQ(inBytes, neg.size() - 2);
  }
}

TEST(CodecOpus, RejectedPacketStopsWithOnlyItsPrefixConsumed) {
  std::vector<uint8_t> s = threePacketStream();
  // Packet 2 becomes a code-3 packet declaring zero frames, which libopus refuses.
  const uint32 second = packetOffset(s, 1);
  s.erase(s.begin() + second, s.begin() + packetOffset(s, 2));
  const uint8_t bad[4] = {2, 0, 0x0B, 0x00};
  s.insert(s.begin() + second, bad, bad + 4);

  std::vector<int16_t> out(960);
  uint32 inBytes = static_cast<uint32>(s.size());
  EXPECT_EQ(openDecoder()->decode(s.data(), inBytes, out.data(), 1920), 640u);
  EXPECT_EQ(inBytes, s.size() - second - 2);
}

TEST(CodecOpus, PacketThatDoesNotFitIsConsumedAndDropped) {
  const std::vector<uint8_t> s = threePacketStream();
  const uint32 twoPackets = packetOffset(s, 2);
  std::vector<int16_t> out(960);
  uint32 inBytes = twoPackets;
  EXPECT_EQ(openDecoder()->decode(s.data(), inBytes, out.data(), 1280), 1280u);
  EXPECT_EQ(inBytes, 0u);

  std::vector<int16_t> dropped(960, 0x1234);
  inBytes = twoPackets;
  EXPECT_EQ(openDecoder()->decode(s.data(), inBytes, dropped.data(), 1000), 640u);
  EXPECT_EQ(inBytes, 0u);  // the second packet is consumed all the same
  EXPECT_TRUE(std::equal(out.begin(), out.begin() + 320, dropped.begin()));
  EXPECT_EQ(dropped[320], 0x1234);

  // Once the room is exactly filled the loop ends, leaving the rest unread.
  inBytes = static_cast<uint32>(s.size());
  EXPECT_EQ(openDecoder()->decode(s.data(), inBytes, out.data(), 640), 640u);
  EXPECT_EQ(inBytes, s.size() - packetOffset(s, 1));
}

// An empty packet reaches libopus as it is, which conceals one second
// (the frame size asked for); kept only when it fits.
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

// Encode, decode through CodecOpus and compare with the input after the
// encoder's look-ahead. Opus is no waveform coder (and its VoIP mode
// filters the low end), so the bounds sit a few dB under what each mode
// reaches here: a sanity check, not a quality measure.
TEST(OpusStreamWriter, RoundTripThroughCodecOpus) {
  using App = quillon::OpusStreamApplication;
  const struct {
    App app;
    double minSnr;
  } cases[] = {{App::Voip, 10.0}, {App::Audio, 20.0}, {App::LowDelay, 19.0}};
  const std::vector<int16_t> clip = testClip(16000 * 2 + 100);  // partial last frame

  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.app));
    quillon::OpusStreamWriter writer;
    ASSERT_TRUE(writer.open({32000, c.app}));
    std::vector<uint8_t> stream;
    for (size_t at = 0; at < clip.size(); at += 777)  // framing must not depend on the pieces
      ASSERT_TRUE(writer.write(clip.data() + at, std::min<size_t>(777, clip.size() - at), stream));
    ASSERT_TRUE(writer.finish(stream));
    EXPECT_EQ(stream, quillon::makeOpusStream(clip.data(), clip.size(), {32000, c.app}));
    EXPECT_GT(stream.size(), 6000u);  // 32 kbit/s for 2 s: about 8000 bytes
    EXPECT_LT(stream.size(), 10000u);

    auto codec = openDecoder();
    std::vector<int16_t> out(101 * 320);  // the last frame padded
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
  EXPECT_TRUE(quillon::makeOpusStream(clip.data(), clip.size(), {-5}).empty());  // bad bitrate
}

}  // namespace

namespace {

// A stereo stream made by libopus: a tone on the left, nothing on the right.
std::vector<std::vector<uint8_t>> stereoPackets(int packets, bool fec) {
  int error = 0;
  OpusEncoder* enc = opus_encoder_create(16000, 2, OPUS_APPLICATION_VOIP, &error);
  EXPECT_EQ(error, OPUS_OK);
  opus_encoder_ctl(enc, OPUS_SET_BITRATE(48000));
  if (fec) {
    opus_encoder_ctl(enc, OPUS_SET_INBAND_FEC(1));
    opus_encoder_ctl(enc, OPUS_SET_PACKET_LOSS_PERC(30));
  }
  const std::vector<int16_t> tone = testClip(static_cast<size_t>(packets) * 320);
  std::vector<std::vector<uint8_t>> out;
  std::vector<int16_t> frame(2 * 320);
  for (int k = 0; k < packets; k++) {
    for (int i = 0; i < 320; i++) {
      frame[2 * i] = tone[static_cast<size_t>(k) * 320 + static_cast<size_t>(i)];
      frame[2 * i + 1] = 0;
    }
    std::vector<uint8_t> packet(1500);
    const int n = opus_encode(enc, frame.data(), 320, packet.data(), static_cast<opus_int32>(packet.size()));
    EXPECT_GT(n, 0);
    packet.resize(static_cast<size_t>(std::max(n, 0)));
    out.push_back(packet);
  }
  opus_encoder_destroy(enc);
  return out;
}

double energy(const std::vector<int16_t>& pcm, size_t first, size_t step) {
  double e = 0;
  for (size_t i = first; i < pcm.size(); i += step) e += double(pcm[i]) * pcm[i];
  return e;
}

}  // namespace

// Mono at 16 kHz, packet by packet, is what CodecOpus gives for the same
// streams.
TEST(OpusPacketDecoder, MonoMatchesCodecOpus) {
  QUILLON_REQUIRE_VECTORS(dir, "opus");
  for (const auto& path : opusStreams(dir)) {
    SCOPED_TRACE(path.filename().string());
    const std::vector<uint8_t> in = quillon::test::readFile(path);
    auto codec = openDecoder();
    std::vector<int16_t> want(in.size() * 1000 + CodecOpus::kScratchSamples);
    uint32 inBytes = static_cast<uint32>(in.size());
    want.resize(codec->decode(in.data(), inBytes, want.data(), static_cast<uint32>(want.size() * 2)) / 2);

    quillon::OpusPacketDecoder dec;
    ASSERT_TRUE(dec.open(1, 16000));
    std::vector<int16_t> got, packetPcm(dec.maxFrames());
    for (size_t at = 0; at + 2 <= in.size();) {
      const size_t length = static_cast<size_t>(in[at] | (in[at + 1] << 8));
      const long n = dec.decode(in.data() + at + 2, length, packetPcm.data(), packetPcm.size());
      ASSERT_GT(n, 0);
      got.insert(got.end(), packetPcm.begin(), packetPcm.begin() + n);
      at += 2 + length;
    }
    EXPECT_EQ(got, want);
  }
}

// Two channels come out interleaved, left first; every rate libopus offers
// is accepted, other rates and channel counts are not.
TEST(OpusPacketDecoder, StereoKeepsTheChannelsApart) {
  const auto packets = stereoPackets(25, false);
  for (unsigned rate : {8000u, 16000u, 48000u}) {
    SCOPED_TRACE(rate);
    quillon::OpusPacketDecoder dec;
    ASSERT_TRUE(dec.open(2, rate));
    EXPECT_EQ(dec.channels(), 2u);
    EXPECT_EQ(dec.maxFrames(), rate * 120 / 1000);
    std::vector<int16_t> pcm, one(2 * dec.maxFrames());
    for (const auto& p : packets) {
      const long n = dec.decode(p.data(), p.size(), one.data(), dec.maxFrames());
      ASSERT_EQ(n, static_cast<long>(rate / 50));
      pcm.insert(pcm.end(), one.begin(), one.begin() + 2 * n);
    }
    EXPECT_GT(energy(pcm, 0, 2), 1000 * std::max(energy(pcm, 1, 2), 1.0));
  }
  quillon::OpusPacketDecoder dec;
  EXPECT_FALSE(dec.open(3, 16000));
  EXPECT_FALSE(dec.open(2, 44100));
  EXPECT_FALSE(dec.isOpen());
}

// Refused packets leave the output alone; a lost packet is concealed with
// the last frame size, from the next packet's redundancy when it has some.
TEST(OpusPacketDecoder, RefusalsAndConcealment) {
  const auto packets = stereoPackets(12, true);
  quillon::OpusPacketDecoder dec;
  ASSERT_TRUE(dec.open(2, 16000));
  std::vector<int16_t> pcm(2 * dec.maxFrames(), 7);
  EXPECT_EQ(dec.decode(packets[0].data(), 0, pcm.data(), dec.maxFrames()), -1);
  EXPECT_EQ(dec.decode(packets[0].data(), packets[0].size(), pcm.data(), 319), -1);  // 320 frames do not fit
  const uint8_t bad[] = {0x03, 0xff};  // code 3 without a frame count byte's room
  EXPECT_EQ(dec.decode(bad, sizeof bad, pcm.data(), dec.maxFrames()), -1);
  EXPECT_TRUE(std::all_of(pcm.begin(), pcm.end(), [](int16_t v) { return v == 7; }));

  for (size_t k = 0; k < 10; k++) ASSERT_EQ(dec.decode(packets[k].data(), packets[k].size(), pcm.data(), dec.maxFrames()), 320);
  EXPECT_EQ(dec.concealFrames(), 320u);
  // The same state twice: concealed from packet 11's redundancy, and by
  // plain concealment.
  quillon::OpusPacketDecoder twin;
  ASSERT_TRUE(twin.open(2, 16000));
  for (size_t k = 0; k < 10; k++) ASSERT_EQ(twin.decode(packets[k].data(), packets[k].size(), pcm.data(), twin.maxFrames()), 320);
  std::vector<int16_t> fromFec(2 * 320), plain(2 * 320);
  ASSERT_EQ(dec.conceal(fromFec.data(), 320, packets[11].data(), packets[11].size()), 320u);
  ASSERT_EQ(twin.conceal(plain.data(), 320), 320u);
  EXPECT_NE(fromFec, plain);
  EXPECT_GT(energy(fromFec, 0, 2), 0.0);
  // Room for fewer frames than a frame size conceals only that many.
  EXPECT_EQ(twin.conceal(plain.data(), 160), 160u);
}
