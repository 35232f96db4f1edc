// The library's RTP stream decoder: header parsing, payload formats, the
// reordering buffer and timeline, and each codec's concealment. Decoded
// output is compared with the same frames decoded directly by the codec
// engines.
#include <gtest/gtest.h>
#include <opus/opus.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>
#include <thread>

#include "engines/amrwb/amrwb_decoder.h"
#include "engines/amrwb/amrwb_encoder.h"
#include "engines/g729/decoder.h"
#include "engines/g729/encoder.h"
#include "primitives/g711.h"
#include "quillon/rtp.h"
#include "rtp/waveform_concealer.h"
#include "allocation_counter.h"
#include "rtp_test_support.h"
#include "test_support.h"

using namespace quillon;
using namespace quillon::rtp;
using quillon::test::rtpPacket;
using quillon::test::speechLike;

namespace {

struct Sent {
  std::vector<uint8_t> bytes;
  uint64_t arrival;
};

// Pushes the packets in the given order and returns everything decoded.
std::vector<int16_t> run(RtpStreamDecoder& d, const std::vector<Sent>& packets) {
  std::vector<int16_t> out;
  int16_t buffer[1000];
  for (const Sent& p : packets) {
    EXPECT_TRUE(d.push(p.bytes.data(), p.bytes.size(), p.arrival));
    size_t n;
    while ((n = d.pull(buffer, 1000)) > 0) out.insert(out.end(), buffer, buffer + n);
  }
  d.flush();
  size_t n;
  while ((n = d.pull(buffer, 1000)) > 0) out.insert(out.end(), buffer, buffer + n);
  return out;
}

double rms(const int16_t* p, size_t n) {
  double s = 0;
  for (size_t i = 0; i < n; i++) s += static_cast<double>(p[i]) * p[i];
  return n ? std::sqrt(s / static_cast<double>(n)) : 0;
}

// G.711 mu-law packets of 20 ms.
std::vector<std::vector<uint8_t>> ulawFrames(const std::vector<int16_t>& pcm) {
  std::vector<std::vector<uint8_t>> frames;
  for (size_t i = 0; i + 160 <= pcm.size(); i += 160) {
    std::vector<uint8_t> f(160);
    for (size_t k = 0; k < 160; k++) f[k] = g711::ulawCompress(pcm[i + k]);
    frames.push_back(f);
  }
  return frames;
}

std::vector<Sent> packetise(const std::vector<std::vector<uint8_t>>& payloads, int pt, uint32_t tsStep,
                            uint32_t ssrc = 0x1234) {
  std::vector<Sent> out;
  for (size_t i = 0; i < payloads.size(); i++)
    out.push_back({rtpPacket(pt, static_cast<uint16_t>(65530 + i), static_cast<uint32_t>(1000 + i * tsStep), ssrc,
                             payloads[i]),
                   1000000 + i * 20000});
  return out;
}

}  // namespace

TEST(RtpHeader, ParsesCsrcExtensionAndPadding) {
  std::vector<uint8_t> p = rtpPacket(0, 7, 99, 0xabcdef01, {1, 2, 3, 4, 5});
  // Two CSRCs, a one-word extension and 3 bytes of padding.
  p[0] = 0x80 | 0x20 | 0x10 | 2;
  std::vector<uint8_t> middle = {0, 0, 0, 1, 0, 0, 0, 2, 0xbe, 0xde, 0, 1, 9, 9, 9, 9};
  p.insert(p.begin() + 12, middle.begin(), middle.end());
  p.insert(p.end(), {0, 0, 3});
  RtpPacket r;
  ASSERT_TRUE(parseRtp(p.data(), p.size(), r));
  EXPECT_EQ(r.sequence, 7);
  EXPECT_EQ(r.timestamp, 99u);
  EXPECT_EQ(r.ssrc, 0xabcdef01u);
  EXPECT_EQ(r.csrcCount, 2);
  EXPECT_TRUE(r.hasExtension);
  EXPECT_EQ(r.extensionProfile, 0xbede);
  ASSERT_EQ(r.payloadBytes, 5u);
  EXPECT_EQ(r.payload[0], 1);
  EXPECT_EQ(r.payload[4], 5);

  // Broken variants are refused, not read past their end.
  std::vector<uint8_t> bad = p;
  bad[0] = 0x40;  // version 1
  EXPECT_FALSE(parseRtp(bad.data(), bad.size(), r));
  bad = p;
  bad.back() = 200;  // padding longer than the packet
  EXPECT_FALSE(parseRtp(bad.data(), bad.size(), r));
  bad = p;
  bad[0] = 0x80 | 15;  // 15 CSRCs do not fit
  EXPECT_FALSE(parseRtp(bad.data(), 40, r));
  EXPECT_FALSE(parseRtp(p.data(), 11, r));
  bad = p;
  bad[1] = 0xc8;  // RTCP sender report
  EXPECT_FALSE(parseRtp(bad.data(), bad.size(), r));
  const uint8_t rtcp[8] = {0x80, 200, 0, 1, 0, 0, 0, 0};
  EXPECT_TRUE(looksLikeRtcp(rtcp, 8));
  EXPECT_FALSE(looksLikeRtcp(p.data(), p.size()));
}

TEST(RtpPayload, DescriptionsFromStaticTypesAndSdp) {
  EXPECT_EQ(describeStaticPayload(0).codec, PayloadCodec::Pcmu);
  EXPECT_EQ(describeStaticPayload(8).codec, PayloadCodec::Pcma);
  const PayloadDescription g722 = describeStaticPayload(9);
  EXPECT_EQ(g722.codec, PayloadCodec::G722);
  EXPECT_EQ(g722.clockRate, 8000u);
  EXPECT_EQ(g722.audioRate, 16000u);
  EXPECT_EQ(describeStaticPayload(18).codec, PayloadCodec::G729);
  EXPECT_EQ(describeStaticPayload(3).codec, PayloadCodec::Unknown);  // GSM: not guessed
  EXPECT_EQ(describeStaticPayload(96).codec, PayloadCodec::Unknown);

  const PayloadDescription amr = describePayload(97, "AMR-WB/16000/1", "mode-set=2; octet-align=1");
  EXPECT_EQ(amr.codec, PayloadCodec::AmrWb);
  EXPECT_TRUE(amr.octetAligned);
  EXPECT_EQ(amr.clockRate, 16000u);
  EXPECT_FALSE(describePayload(97, "AMR-WB/16000", "octet-align=0").octetAligned);
  EXPECT_EQ(describePayload(97, "AMR-WB/16000", "octet-align=1;interleaving=4").codec, PayloadCodec::Unknown);
  const PayloadDescription opus = describePayload(111, "opus/48000/2", nullptr);
  EXPECT_EQ(opus.codec, PayloadCodec::Opus);
  EXPECT_EQ(opus.clockRate, 48000u);
  const PayloadDescription g726 = describePayload(100, "AAL2-G726-24/8000", nullptr);
  EXPECT_EQ(g726.codec, PayloadCodec::G726Aal2);
  EXPECT_EQ(g726.bitsPerCode, 3);
  EXPECT_EQ(describePayload(100, "g726-40/8000", nullptr).bitsPerCode, 5);
  EXPECT_EQ(describePayload(100, "G726-33/8000", nullptr).codec, PayloadCodec::Unknown);
  EXPECT_EQ(describePayload(101, "telephone-event/8000", "0-16").codec, PayloadCodec::TelephoneEvent);
  EXPECT_EQ(describePayload(98, "SILK/16000", nullptr).codec, PayloadCodec::Silk);
  EXPECT_EQ(describePayload(98, "SILK/11025", nullptr).codec, PayloadCodec::Unknown);
  EXPECT_EQ(describePayload(98, "iLBC/8000", nullptr).codec, PayloadCodec::Unknown);
  EXPECT_EQ(RtpStreamDecoder::create(describeStaticPayload(3)), nullptr);
}

// Lossless G.711: the table expansion of every byte, behind the fixed
// delay of the concealment, and nothing lost at the end.
TEST(RtpStreamG711, LosslessIsBitExactBehindTheConcealmentDelay) {
  const auto pcm = speechLike(8000, 8000);
  const auto frames = ulawFrames(pcm);
  auto d = RtpStreamDecoder::create(describeStaticPayload(0));
  ASSERT_NE(d, nullptr);
  const auto out = run(*d, packetise(frames, 0, 160));
  std::vector<int16_t> expected(30, 0);  // 3.75 ms
  for (const auto& f : frames)
    for (uint8_t b : f) expected.push_back(g711::kUlawToLinear[b]);
  EXPECT_EQ(out, expected);
  const StreamStatistics s = d->statistics();
  EXPECT_EQ(s.packets, frames.size());
  EXPECT_EQ(s.lost, 0u);
  EXPECT_EQ(s.reordered, 0u);
}

// Reordering within the window and duplicates change nothing in the output.
TEST(RtpStreamG711, ReorderedAndDuplicatedPacketsDecodeAsInOrder) {
  const auto frames = ulawFrames(speechLike(8000, 8000));
  auto inOrder = RtpStreamDecoder::create(describeStaticPayload(0));
  const auto reference = run(*inOrder, packetise(frames, 0, 160));
  auto packets = packetise(frames, 0, 160);
  std::swap(packets[5], packets[7]);  // across the sequence wrap at 65535
  std::swap(packets[20], packets[21]);
  packets.insert(packets.begin() + 30, packets[28]);  // an old duplicate
  packets.insert(packets.begin() + 40, packets[40]);  // an immediate one
  auto d = RtpStreamDecoder::create(describeStaticPayload(0));
  EXPECT_EQ(run(*d, packets), reference);
  const StreamStatistics s = d->statistics();
  EXPECT_EQ(s.duplicated, 2u);
  EXPECT_EQ(s.reordered, 3u);  // 6 and 5 after 7, 20 after 21
  EXPECT_EQ(s.lost, 0u);
}

// A lost packet keeps the timeline (same length as without loss) and is
// filled by the pitch-repetition concealment, not by silence.
TEST(RtpStreamG711, LossIsConcealedNotSilenced) {
  const auto frames = ulawFrames(speechLike(8000, 8000));
  auto packets = packetise(frames, 0, 160);
  auto full = RtpStreamDecoder::create(describeStaticPayload(0));
  const auto reference = run(*full, packets);
  packets.erase(packets.begin() + 10);
  auto d = RtpStreamDecoder::create(describeStaticPayload(0));
  const auto out = run(*d, packets);
  ASSERT_EQ(out.size(), reference.size());
  const size_t lostAt = 10 * 160 + 30;
  EXPECT_GT(rms(&out[lostAt], 160), 0.3 * rms(&reference[lostAt], 160));
  // Before the loss nothing changes; long after it the output is back.
  EXPECT_TRUE(std::equal(out.begin(), out.begin() + lostAt - 30, reference.begin()));
  EXPECT_TRUE(std::equal(out.begin() + lostAt + 400, out.end(), reference.begin() + lostAt + 400));
  EXPECT_EQ(d->statistics().lost, 1u);
  EXPECT_EQ(d->statistics().concealedSamples, 160u);
}

// The concealment on its own: a steady periodic signal is continued
// closely for the first 10 ms, fades out, and is silent after 60 ms.
TEST(WaveformConcealer, ContinuesPeriodicSignalThenFades) {
  WaveformConcealer c(1);
  std::vector<int16_t> tone(2000);
  for (size_t i = 0; i < tone.size(); i++) tone[i] = static_cast<int16_t>(8000 * std::sin(2 * M_PI * i / 64.0));
  std::vector<int16_t> out(2000);
  c.good(tone.data(), out.data(), 1200);
  std::vector<int16_t> lost(640);
  c.lost(lost.data(), 640);
  // lost[30..] are the first synthetic samples (30 samples of delay).
  double err = 0, sig = 0;
  for (size_t i = 30; i < 110; i++) {
    err += std::pow(lost[i] - tone[1200 + i - 30], 2);
    sig += std::pow(tone[1200 + i - 30], 2);
  }
  EXPECT_GT(10 * std::log10(sig / err), 15.0);
  EXPECT_EQ(rms(&lost[30 + 480], 130), 0.0);
  EXPECT_GT(rms(&lost[30 + 100], 60), 1000.0);
}

// G.729 (Annex A with B): several frames per packet, SID frames last in a
// packet, untransmitted frames as timestamp gaps, and lost packets; the
// result equals the engine fed frame by frame with the matching calls.
TEST(RtpStreamG729, PacketsSidGapsAndLossMatchTheEngine) {
  const auto pcm = speechLike(8000 * 4, 8000, true);
  g729a::Encoder encoder(g729a::Encoder::Variant::AnnexA, true);
  struct Frame {
    std::vector<uint8_t> bytes;
  };
  std::vector<Frame> frames;
  for (size_t i = 0; i + 80 <= pcm.size(); i += 80) {
    uint8_t b[10];
    const int n = encoder.encode(&pcm[i], b);
    frames.push_back({std::vector<uint8_t>(b, b + n)});
  }
  // Packets of two frames; a SID closes a packet; empty frames are not sent.
  std::vector<Sent> packets;
  std::vector<std::vector<size_t>> contents;
  uint16_t seq = 100;
  for (size_t i = 0; i < frames.size();) {
    std::vector<uint8_t> payload;
    std::vector<size_t> used;
    const size_t first = i;
    while (i < frames.size() && used.size() < 2 && !frames[i].bytes.empty()) {
      payload.insert(payload.end(), frames[i].bytes.begin(), frames[i].bytes.end());
      used.push_back(i);
      const bool sid = frames[i].bytes.size() == 2;
      i++;
      if (sid) break;
    }
    if (used.empty()) {
      i++;
      continue;
    }
    packets.push_back({rtpPacket(18, seq++, static_cast<uint32_t>(first * 80), 77, payload), first * 10000});
    contents.push_back(used);
  }
  size_t sids = 0, gaps = 0;
  for (const Frame& f : frames) {
    sids += f.bytes.size() == 2;
    gaps += f.bytes.empty();
  }
  ASSERT_GT(sids, 0u);
  ASSERT_GT(gaps, 0u);
  // Lose one speech packet in the middle.
  size_t lostPacket = 0;
  for (size_t k = 10; k < contents.size(); k++)
    if (contents[k].size() == 2 && frames[contents[k][0]].bytes.size() == 10 && contents[k + 1][0] == contents[k][1] + 1) {
      lostPacket = k;
      break;
    }
  ASSERT_GT(lostPacket, 0u);
  std::vector<bool> lostFrame(frames.size(), false);
  for (size_t f : contents[lostPacket]) lostFrame[f] = true;
  packets.erase(packets.begin() + static_cast<long>(lostPacket));

  auto d = RtpStreamDecoder::create(describeStaticPayload(18));
  const auto out = run(*d, packets);

  g729a::Decoder ref(g729a::Decoder::Variant::AnnexA, true);
  std::vector<int16_t> expected;
  // The stream decoder starts at the first packet and ends with the last.
  size_t last = contents.back().back();
  for (size_t i = 0; i <= last; i++) {
    int16_t o[80];
    if (lostFrame[i]) ref.decodeErased(o, true);
    else if (frames[i].bytes.size() == 10) ref.decode(frames[i].bytes.data(), o);
    else if (frames[i].bytes.size() == 2) ref.decodeSid(frames[i].bytes.data(), o);
    else ref.decodeUntransmitted(o);
    expected.insert(expected.end(), o, o + 80);
  }
  EXPECT_EQ(out, expected);
  EXPECT_EQ(d->statistics().lost, 1u);
  EXPECT_EQ(d->statistics().concealedSamples, 160u);
  EXPECT_GT(d->statistics().comfortNoiseSamples, 0u);
}

namespace {

// RFC 4867 packing of storage-layout frames (ToC byte + speech bits) into
// one payload, written independently of the decoder's parser.
std::vector<uint8_t> amrWbPayload(const std::vector<std::vector<uint8_t>>& frames, bool octetAligned) {
  static const int kBits[16] = {132, 177, 253, 285, 317, 365, 397, 461, 477, 40, 0, 0, 0, 0, 0, 0};
  std::vector<int> bits;
  auto put = [&](unsigned v, int n) {
    for (int i = n - 1; i >= 0; i--) bits.push_back((v >> i) & 1);
  };
  put(15, 4);  // CMR: no request
  if (octetAligned) put(0, 4);
  for (size_t i = 0; i < frames.size(); i++) {
    const unsigned type = (frames[i][0] >> 3) & 15;
    put(i + 1 < frames.size() ? 1 : 0, 1);
    put(type, 4);
    put((frames[i][0] >> 2) & 1, 1);
    if (octetAligned) put(0, 2);
  }
  for (const auto& f : frames) {
    const int n = kBits[(f[0] >> 3) & 15];
    for (int k = 0; k < n; k++) bits.push_back((f[1 + k / 8] >> (7 - k % 8)) & 1);
    if (octetAligned)
      while (bits.size() % 8) bits.push_back(0);
  }
  std::vector<uint8_t> out((bits.size() + 7) / 8, 0);
  for (size_t i = 0; i < bits.size(); i++)
    if (bits[i]) out[i / 8] |= static_cast<uint8_t>(0x80 >> (i % 8));
  return out;
}

void amrWbRoundTrip(bool octetAligned) {
  const auto pcm = speechLike(16000 * 3, 16000, true);
  amrwb::Encoder encoder;
  std::vector<std::vector<uint8_t>> frames;
  for (size_t i = 0; i + 320 <= pcm.size(); i += 320) {
    uint8_t b[61];
    const int n = encoder.encodeFrame(&pcm[i], 2, true, b);
    frames.emplace_back(b, b + n);
  }
  // Two frames per packet; NO_DATA frames (type 15) are not sent.
  std::vector<Sent> packets;
  std::vector<bool> sent(frames.size(), false);
  uint16_t seq = 1;
  for (size_t i = 0; i < frames.size();) {
    const bool noData = ((frames[i][0] >> 3) & 15) == 15;
    if (noData) {
      i++;
      continue;
    }
    std::vector<std::vector<uint8_t>> group = {frames[i]};
    sent[i] = true;
    const size_t first = i++;
    if (i < frames.size() && ((frames[i][0] >> 3) & 15) != 15) {
      group.push_back(frames[i]);
      sent[i++] = true;
    }
    packets.push_back({rtpPacket(97, seq++, static_cast<uint32_t>(first * 320), 5, amrWbPayload(group, octetAligned)),
                       first * 20000});
  }
  ASSERT_LT(std::count(sent.begin(), sent.end(), true), static_cast<long>(frames.size()));
  const std::string fmtp = octetAligned ? "octet-align=1" : "";
  auto d = RtpStreamDecoder::create(describePayload(97, "AMR-WB/16000", fmtp.c_str()));
  ASSERT_NE(d, nullptr);
  const auto out = run(*d, packets);
  amrwb::Decoder ref;
  std::vector<int16_t> expected;
  size_t last = frames.size();
  while (!sent[last - 1]) last--;
  for (size_t i = 0; i < last; i++) {
    int16_t o[320];
    const uint8_t noData[1] = {15 << 3 | 4};
    if (sent[i]) ref.decodeFrame(frames[i].data(), frames[i].size(), o);
    else ref.decodeFrame(noData, 1, o);
    expected.insert(expected.end(), o, o + 320);
  }
  EXPECT_EQ(out, expected);
}

}  // namespace

TEST(RtpStreamAmrWb, BandwidthEfficientWithDtxMatchesTheEngine) { amrWbRoundTrip(false); }
TEST(RtpStreamAmrWb, OctetAlignedWithDtxMatchesTheEngine) { amrWbRoundTrip(true); }

TEST(RtpStreamAmrWb, MalformedPayloadIsCountedAndConcealed) {
  auto d = RtpStreamDecoder::create(describePayload(97, "AMR-WB/16000", nullptr));
  std::vector<Sent> packets;
  const std::vector<uint8_t> truncated = {0xf1, 0x00};  // ToC of a mode-2 frame, no speech bits
  const std::vector<uint8_t> noData = {0xf7, 0xc0};     // CMR 15, one NO_DATA frame
  packets.push_back({rtpPacket(97, 1, 0, 1, noData), 0});
  packets.push_back({rtpPacket(97, 2, 320, 1, truncated), 20000});
  packets.push_back({rtpPacket(97, 3, 640, 1, noData), 40000});
  const auto out = run(*d, packets);
  EXPECT_EQ(d->statistics().badPayloads, 1u);
  EXPECT_EQ(out.size(), 3u * 320);
}

// G.722: the sub-band decoder's output behind the 16 kHz concealment delay.
TEST(RtpStreamG722, LosslessIsBitExactAtSixteenKilohertz) {
  const auto pcm = speechLike(16000, 16000);
  const auto payloads = quillon::test::g722Payloads(pcm);
  auto d = RtpStreamDecoder::create(describeStaticPayload(9));
  EXPECT_EQ(d->sampleRate(), 16000u);
  const auto out = run(*d, packetise(payloads, 9, 160));  // RTP clock 8000
  g722::Decoder ref;
  std::vector<int16_t> expected(60, 0);
  for (const auto& p : payloads) {
    int16_t o[320];
    ref.decode(p.data(), p.size(), o, 1);
    expected.insert(expected.end(), o, o + 320);
  }
  EXPECT_EQ(out, expected);
}

// G.726 in its two packings: the same codewords give the same audio.
TEST(RtpStreamG726, Rfc3551AndAal2PackingsAgree) {
  for (int bits : {2, 3, 4, 5}) {
    std::vector<std::vector<uint8_t>> lsb, msb;
    uint32_t seed = 7;
    for (int p = 0; p < 20; p++) {
      std::vector<unsigned> codes(160);
      for (unsigned& c : codes) {
        seed = seed * 1664525u + 1013904223u;
        c = (seed >> 20) & ((1u << bits) - 1);
      }
      std::vector<uint8_t> a(160 * static_cast<size_t>(bits) / 8, 0), m(a.size(), 0);
      for (size_t k = 0; k < codes.size(); k++)
        for (int b = 0; b < bits; b++) {
          const size_t lsbBit = k * static_cast<size_t>(bits) + static_cast<size_t>(b);  // code bit b, LSB first
          if ((codes[k] >> b) & 1) a[lsbBit / 8] |= static_cast<uint8_t>(1u << (lsbBit % 8));
          const size_t msbBit = k * static_cast<size_t>(bits) + static_cast<size_t>(bits - 1 - b);
          if ((codes[k] >> b) & 1) m[msbBit / 8] |= static_cast<uint8_t>(0x80u >> (msbBit % 8));
        }
      lsb.push_back(a);
      msb.push_back(m);
    }
    const std::string name = "G726-" + std::to_string(bits * 8) + "/8000";
    auto d1 = RtpStreamDecoder::create(describePayload(100, name.c_str(), nullptr));
    auto d2 = RtpStreamDecoder::create(describePayload(100, ("AAL2-" + name).c_str(), nullptr));
    ASSERT_NE(d1, nullptr);
    ASSERT_NE(d2, nullptr);
    const auto o1 = run(*d1, packetise(lsb, 100, 160));
    const auto o2 = run(*d2, packetise(msb, 100, 160));
    EXPECT_EQ(o1.size(), 20u * 160 + 30) << bits;
    EXPECT_EQ(o1, o2) << bits;
    EXPECT_GT(rms(o1.data(), o1.size()), 10.0);
  }
}

namespace {

std::vector<std::vector<uint8_t>> opusPackets(const std::vector<int16_t>& pcm, bool fec) {
  int error = 0;
  OpusEncoder* e = opus_encoder_create(16000, 1, OPUS_APPLICATION_VOIP, &error);
  opus_encoder_ctl(e, OPUS_SET_BITRATE(24000));
  if (fec) {
    opus_encoder_ctl(e, OPUS_SET_INBAND_FEC(1));
    opus_encoder_ctl(e, OPUS_SET_PACKET_LOSS_PERC(20));
  }
  std::vector<std::vector<uint8_t>> out;
  for (size_t i = 0; i + 320 <= pcm.size(); i += 320) {
    uint8_t b[400];
    const int n = opus_encode(e, &pcm[i], 320, b, sizeof b);
    out.emplace_back(b, b + n);
  }
  opus_encoder_destroy(e);
  return out;
}

}  // namespace

// Opus: RTP clock 48000, decoded at 16 kHz; a lost packet is rebuilt from
// the next packet's redundancy exactly as libopus does it when asked.
TEST(RtpStreamOpus, LosslessAndFecMatchLibopus) {
  const auto pcm = speechLike(16000 * 2, 16000);
  const auto payloads = opusPackets(pcm, true);
  auto packets = packetise(payloads, 111, 960);
  packets.erase(packets.begin() + 30);
  auto d = RtpStreamDecoder::create(describePayload(111, "opus/48000/2", nullptr), 16000);
  ASSERT_NE(d, nullptr);
  const auto out = run(*d, packets);

  int error = 0;
  OpusDecoder* ref = opus_decoder_create(16000, 1, &error);
  std::vector<int16_t> expected;
  for (size_t i = 0; i < payloads.size(); i++) {
    int16_t o[960];
    int n;
    if (i == 30) n = opus_decode(ref, payloads[31].data(), static_cast<opus_int32>(payloads[31].size()), o, 320, 1);
    else n = opus_decode(ref, payloads[i].data(), static_cast<opus_int32>(payloads[i].size()), o, 960, 0);
    ASSERT_GT(n, 0);
    expected.insert(expected.end(), o, o + n);
  }
  opus_decoder_destroy(ref);
  EXPECT_EQ(out, expected);
  EXPECT_EQ(d->statistics().lost, 1u);
}

// A new SSRC restarts the decoder and places its audio by arrival time; a
// timestamp jump does the same; telephone events are counted, not played.
TEST(RtpStreamTimeline, SsrcChangeTimestampJumpAndEvents) {
  const auto frames = ulawFrames(speechLike(8000, 8000));
  auto packets = packetise(frames, 0, 160);
  // From packet 20 on: another source, other numbering, 40 ms later.
  for (size_t i = 20; i < packets.size(); i++) {
    packets[i].bytes = rtpPacket(0, static_cast<uint16_t>(5000 + i), static_cast<uint32_t>(900000 + i * 160), 0x999,
                                 frames[i]);
    packets[i].arrival += 40000;
  }
  // Packet 35 on: a timestamp jump of an hour, same numbering.
  for (size_t i = 35; i < packets.size(); i++) {
    packets[i].bytes = rtpPacket(0, static_cast<uint16_t>(5000 + i), static_cast<uint32_t>(900000 + 28800000 + i * 160),
                                 0x999, frames[i]);
    packets[i].arrival += 60000;
  }
  // Three packets of one telephone event, and a second event.
  const std::vector<uint8_t> event = {5, 10, 0, 160};
  packets.insert(packets.begin() + 10, {rtpPacket(101, 1, 0, 0x1234, event), 1190000});
  packets.insert(packets.begin() + 11, {rtpPacket(101, 2, 0, 0x1234, event), 1195000});
  packets.insert(packets.begin() + 12, {rtpPacket(101, 3, 800, 0x1234, event), 1196000});
  auto d = RtpStreamDecoder::create(describeStaticPayload(0));
  d->setEventPayloadType(101);
  const auto out = run(*d, packets);
  const StreamStatistics s = d->statistics();
  EXPECT_EQ(s.ssrcChanges, 1u);
  EXPECT_EQ(s.timestampJumps, 1u);
  EXPECT_EQ(s.events, 2u);
  EXPECT_EQ(s.lost, 0u);
  // 50 packets of audio plus the 40 ms and 60 ms gaps on the wire.
  EXPECT_EQ(out.size(), 50u * 160 + 320 + 480 + 30);
}

// RFC 3389 comfort noise fills a pause at the announced level; without it
// a pause is silence.
TEST(RtpStreamTimeline, ComfortNoiseAtTheAnnouncedLevel) {
  const auto frames = ulawFrames(speechLike(1600, 8000));
  std::vector<Sent> packets;
  packets.push_back({rtpPacket(0, 1, 0, 1, frames[0]), 0});
  packets.push_back({rtpPacket(13, 2, 160, 1, {30}), 20000});  // -30 dBov
  packets.push_back({rtpPacket(0, 3, 160 + 8000, 1, frames[1]), 1020000});
  auto d = RtpStreamDecoder::create(describeStaticPayload(0));
  const auto out = run(*d, packets);
  ASSERT_EQ(out.size(), 160u + 8000 + 160 + 30);
  const double level = 20 * std::log10(rms(&out[400], 7000) / (32768 / std::sqrt(2.0)));
  EXPECT_NEAR(level, -30.0, 1.0);
  EXPECT_EQ(d->statistics().comfortNoiseSamples, 8000u);
}

TEST(RtpStreamTimeline, InterarrivalJitterFollowsRfc3550) {
  const auto frames = ulawFrames(speechLike(16000, 8000));
  auto steady = packetise(frames, 0, 160);
  auto d1 = RtpStreamDecoder::create(describeStaticPayload(0));
  run(*d1, steady);
  EXPECT_EQ(d1->statistics().jitterMs, 0.0);
  // Every other packet 10 ms late: |D| is 10 ms for every pair, so J
  // approaches 10 ms.
  auto jittery = steady;
  for (size_t i = 1; i < jittery.size(); i += 2) jittery[i].arrival += 10000;
  auto d2 = RtpStreamDecoder::create(describeStaticPayload(0));
  run(*d2, jittery);
  EXPECT_NEAR(d2->statistics().jitterMs, 10.0, 0.5);
}

// Push on one thread, pull on another: the same samples come out.
TEST(RtpStreamTimeline, PushAndPullFromTwoThreads) {
  const auto frames = ulawFrames(speechLike(80000, 8000));
  const auto packets = packetise(frames, 0, 160);
  auto single = RtpStreamDecoder::create(describeStaticPayload(0));
  const auto reference = run(*single, packets);
  auto d = RtpStreamDecoder::create(describeStaticPayload(0));
  std::vector<int16_t> out;
  std::atomic<bool> done{false};
  std::thread reader([&] {
    int16_t b[97];
    for (;;) {
      const bool last = done.load();
      size_t n;
      while ((n = d->pull(b, 97)) > 0) out.insert(out.end(), b, b + n);
      if (last) break;
      std::this_thread::yield();
    }
  });
  for (const Sent& p : packets) {
    // A live host pulls in time; the buffer holds a few seconds.
    while (d->available() > 8000) std::this_thread::yield();
    d->push(p.bytes.data(), p.bytes.size(), p.arrival);
  }
  d->flush();
  done = true;
  reader.join();
  EXPECT_EQ(out, reference);
}

// A host that does not pull loses the oldest samples, and is told so.
TEST(RtpStreamTimeline, UnpulledAudioIsDroppedOldestFirstAndCounted) {
  const auto frames = ulawFrames(speechLike(80000, 8000));
  auto d = RtpStreamDecoder::create(describeStaticPayload(0));
  for (const Sent& p : packetise(frames, 0, 160)) d->push(p.bytes.data(), p.bytes.size(), p.arrival);
  const size_t held = d->available();
  EXPECT_EQ(held + d->statistics().overrunSamples, d->statistics().samples);
  EXPECT_GT(d->statistics().overrunSamples, 0u);
  std::vector<int16_t> tail(held);
  ASSERT_EQ(d->pull(tail.data(), held), held);
  // What is left is the newest audio: the end of the last packet.
  EXPECT_EQ(tail.back(), g711::kUlawToLinear[frames.back()[160 - 31]]);
}

// SILK: the conformance streams, one SILK packet per RTP packet, decode to
// the reference output.
TEST(RtpStreamSilk, ConformanceStreamsAsRtpMatchTheReference) {
  QUILLON_REQUIRE_VECTORS(dir, "silk");
  for (const auto& [name, msPerPacket] : {std::pair<const char*, uint32_t>{"o01_hts1_api8k_nb_20ms_6k_cx0", 20},
                                          {"o02_hts2_api8k_nb_40ms_10k", 40}}) {
    const auto coded = quillon::test::readFile(dir / (std::string(name) + ".silk"));
    const auto expected = quillon::test::readPcm16(dir / (std::string(name) + ".pcm"));
    std::vector<Sent> packets;
    size_t at = 0;
    uint16_t seq = 0;
    while (at + 2 <= coded.size()) {
      const size_t n = static_cast<size_t>(coded[at] | (coded[at + 1] << 8));
      ASSERT_GT(n, 0u);
      std::vector<uint8_t> payload(coded.begin() + static_cast<long>(at + 2), coded.begin() + static_cast<long>(at + 2 + n));
      packets.push_back({rtpPacket(98, seq, seq * msPerPacket * 8, 3, payload), seq * msPerPacket * 1000ull});
      seq++;
      at += 2 + n;
    }
    auto d = RtpStreamDecoder::create(describePayload(98, "SILK/8000", nullptr), 8000);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(run(*d, packets), expected) << name;
  }
}

// After creation nothing is allocated: packets with loss, reordering,
// duplicates, pauses and comfort noise, for every payload format.
TEST(RtpStreamTimeline, NoAllocationPerPacket) {
  {
    // The counter sees what it should.
    quillon::test::AllocationCounter counter;
    auto decoder = RtpStreamDecoder::create(describeStaticPayload(0));
    EXPECT_GT(counter.count(), 0u);
  }
  const auto pcm = speechLike(16000, 8000, true);
  const auto ulaw = ulawFrames(pcm);
  struct Case {
    PayloadDescription description;
    uint32_t tsStep;
  };
  const Case cases[] = {{describeStaticPayload(0), 160},  {describeStaticPayload(9), 160},
                        {describeStaticPayload(18), 160}, {describePayload(96, "AMR-WB/16000", nullptr), 320},
                        {describePayload(96, "G726-32/8000", nullptr), 160},
                        {describePayload(96, "opus/48000/2", nullptr), 960},
                        {describePayload(96, "SILK/16000", nullptr), 320}};
  for (const Case& c : cases) {
    auto d = RtpStreamDecoder::create(c.description);
    ASSERT_NE(d, nullptr);
    d->setEventPayloadType(101);
    // Payloads need not be valid for the codec: unusable ones take the
    // concealment path, which must not allocate either.
    std::vector<Sent> packets = packetise(ulaw, c.description.payloadType, c.tsStep);
    for (size_t i = 0; i < packets.size(); i += 9) packets[i].bytes[1] = 13;  // comfort noise
    packets.erase(packets.begin() + 20);
    std::swap(packets[30], packets[31]);
    packets.push_back(packets[40]);
    int16_t out[512];
    quillon::test::AllocationCounter counter;
    for (const Sent& p : packets) {
      d->push(p.bytes.data(), p.bytes.size(), p.arrival);
      while (d->pull(out, 512) > 0) {
      }
    }
    d->flush();
    while (d->pull(out, 512) > 0) {
    }
    EXPECT_EQ(counter.count(), 0u) << payloadCodecName(c.description.codec);
  }
}
