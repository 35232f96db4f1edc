// quillon capture: captures written here with libpcap's own dump
// functions, RTP made by the library's encoders; every decoded channel is
// compared with the same packets decoded by the RTP stream decoder alone.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cmath>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "capture_session.h"
#include "engines/amrwb/amrwb_encoder.h"
#include "primitives/g711.h"
#include "rtp_test_support.h"
#include "test_support.h"
#include "tool_fixture.h"
#include "wav_file.h"

namespace fs = std::filesystem;
using namespace quillon;
using namespace quillon::test;
using quillon::tool::CaptureOptions;
using quillon::tool::CaptureSession;

namespace {

constexpr uint64_t kStart = 1700000000ull * 1000000u;  // 2023-11-14 22:13:20 UTC

struct Packet {
  std::vector<uint8_t> rtp;
  uint64_t time;
};

// 20 ms RTP packets of a payload maker, one every 20 ms from `start`.
template <typename Maker>
std::vector<Packet> stream(int pt, uint32_t ssrc, uint64_t start, size_t count, uint32_t tsStep, Maker make) {
  std::vector<Packet> out;
  for (size_t i = 0; i < count; i++)
    out.push_back({rtpPacket(pt, static_cast<uint16_t>(i + 65500), static_cast<uint32_t>(i * tsStep), ssrc, make(i)),
                   start + i * 20000});
  return out;
}

std::vector<std::vector<uint8_t>> g711Payloads(size_t count, bool alaw, uint32_t seed) {
  const auto pcm = speechLike(count * 160, 8000, false, seed);
  std::vector<std::vector<uint8_t>> out;
  for (size_t i = 0; i < count; i++) {
    std::vector<uint8_t> f(160);
    for (size_t k = 0; k < 160; k++)
      f[k] = alaw ? g711::alawCompress(pcm[i * 160 + k]) : g711::ulawCompress(pcm[i * 160 + k]);
    out.push_back(f);
  }
  return out;
}

// What the library's RTP stream decoder makes of the packets alone.
std::vector<int16_t> decodeDirectly(const rtp::PayloadDescription& d, const std::vector<Packet>& packets,
                                    uint32_t rate = 16000) {
  auto decoder = rtp::RtpStreamDecoder::create(d, rate);
  std::vector<int16_t> out;
  int16_t b[4096];
  for (const Packet& p : packets) decoder->push(p.rtp.data(), p.rtp.size(), p.time);
  decoder->flush();
  size_t n;
  while ((n = decoder->pull(b, 4096)) > 0) out.insert(out.end(), b, b + n);
  return out;
}

struct Wave {
  int channels = 0;
  uint32_t rate = 0;
  std::vector<int16_t> samples;
  std::vector<int16_t> channel(int k) const {
    std::vector<int16_t> c;
    for (size_t i = static_cast<size_t>(k); i < samples.size(); i += static_cast<size_t>(channels)) c.push_back(samples[i]);
    return c;
  }
};

Wave readWave(const fs::path& p) {
  tool::WavReader r;
  std::string error;
  Wave w;
  if (!r.open(p.string(), error)) {
    ADD_FAILURE() << error;
    return w;
  }
  w.channels = r.format().channels;
  w.rate = r.format().sampleRate;
  w.samples.resize(static_cast<size_t>(r.format().dataBytes / 2));
  r.read(reinterpret_cast<uint8_t*>(w.samples.data()), static_cast<size_t>(r.format().dataBytes));
  return w;
}

std::string readText(const fs::path& p) {
  std::ifstream in(p);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::vector<uint8_t> bytes(const std::string& s) { return std::vector<uint8_t>(s.begin(), s.end()); }

std::string sdp(const std::string& address, int port, const std::string& formats, const std::string& attributes) {
  return "v=0\r\no=- 1 1 IN IP4 " + address + "\r\ns=-\r\nc=IN IP4 " + address + "\r\nt=0 0\r\nm=audio " +
         std::to_string(port) + " RTP/AVP " + formats + "\r\n" + attributes;
}

std::string sip(const std::string& firstLine, const std::string& cseq, const std::string& body,
                const std::string& callId = "a84b4c76e66710@pc33.example.com") {
  std::string m = firstLine + "\r\nVia: SIP/2.0/UDP 10.0.0.1:5060\r\nFrom: \"Alice\" <sip:alice@example.com>;tag=1\r\n"
                  "To: <sip:bob@example.com>\r\nCall-ID: " + callId + "\r\nCSeq: " + cseq + "\r\n";
  if (!body.empty()) m += "Content-Type: application/sdp\r\n";
  m += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  return m;
}

// Reads one capture into `session` and finishes it, both without error.
void decodeCapture(CaptureSession& session, const fs::path& capture) {
  std::string error;
  ASSERT_TRUE(session.readCapture(capture.string(), error)) << error;
  ASSERT_TRUE(session.finish(error)) << error;
}

class CaptureTest : public ToolFixture {
 protected:
  void SetUp() override {
    ToolFixture::SetUp();
    fs::create_directories(dir / "out");
  }

  // A session over one capture, read and finished without error; the
  // output folder is the test's own unless the options name one.
  CaptureSession& decode(const fs::path& capture, CaptureOptions options = {}) {
    if (options.outDir == ".") options.outDir = (dir / "out").string();
    m_sessions.push_back(std::make_unique<CaptureSession>(options));
    decodeCapture(*m_sessions.back(), capture);
    return *m_sessions.back();
  }

  std::vector<std::unique_ptr<CaptureSession>> m_sessions;
};

const Address kAlice = v4(10, 0, 0, 1, 5060), kBob = v4(10, 0, 0, 2, 5060);
const Address kAliceMedia = v4(10, 0, 0, 1, 40000), kBobMedia = v4(10, 0, 0, 2, 50000);

}  // namespace

// A SIP call with G.711 both ways: one stereo file named after the call,
// the caller left, the callee right and 200 ms later, each channel the
// stream decoder's own output; events and the report.
TEST_F(CaptureTest, SipCallGivesOneAlignedStereoFileAndReport) {
  const fs::path cap = dir / "call.pcap";
  const auto alicePayloads = g711Payloads(100, false, 1);
  const auto bobPayloads = g711Payloads(90, false, 2);
  const auto alice = stream(0, 0xa11ce, kStart + 100000, 100, 160, [&](size_t i) { return alicePayloads[i]; });
  const auto bob = stream(0, 0xb0b, kStart + 300000, 90, 160, [&](size_t i) { return bobPayloads[i]; });
  {
    PcapWriter w(cap.string(), DLT_EN10MB);
    ASSERT_TRUE(w.ok());
    auto send = [&](const Address& a, const Address& b, const std::vector<uint8_t>& payload, uint64_t t) {
      for (const auto& ip : ipv4(a, b, udp(a, b, payload))) w.add(ethernet(ip), t);
    };
    send(kAlice, kBob, bytes(sip("INVITE sip:bob@example.com SIP/2.0", "1 INVITE",
                                 sdp("10.0.0.1", 40000, "0 101", "a=rtpmap:101 telephone-event/8000\r\n"))), kStart);
    send(kBob, kAlice, bytes(sip("SIP/2.0 200 OK", "1 INVITE", sdp("10.0.0.2", 50000, "0 101", "a=rtpmap:101 telephone-event/8000\r\n"))),
         kStart + 50000);
    send(kAlice, kBob, bytes(sip("ACK sip:bob@example.com SIP/2.0", "1 ACK", "")), kStart + 60000);
    size_t a = 0, b = 0;
    while (a < alice.size() || b < bob.size()) {
      if (b >= bob.size() || (a < alice.size() && alice[a].time <= bob[b].time)) {
        send(kAliceMedia, kBobMedia, alice[a].rtp, alice[a].time);
        if (a == 50) {  // a DTMF event in three packets, and RTCP
          for (int k = 0; k < 3; k++)
            send(kAliceMedia, kBobMedia, rtpPacket(101, static_cast<uint16_t>(2000 + k), 8000, 0xa11ce, {1, 10, 0, 160}),
                 alice[a].time + 1000);
          send(v4(10, 0, 0, 1, 40001), v4(10, 0, 0, 2, 50001), {0x80, 200, 0, 6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                                 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
               alice[a].time + 2000);
        }
        a++;
      } else {
        send(kBobMedia, kAliceMedia, bob[b].rtp, bob[b].time);
        b++;
      }
    }
    send(kAlice, kBob, bytes(sip("BYE sip:bob@example.com SIP/2.0", "2 BYE", "")), kStart + 3000000);
  }
  CaptureOptions options;
  options.report = "json";
  CaptureSession& session = decode(cap, options);
  const fs::path wav = dir / "out" / "20231114-221320_alice_bob_a84b4c76e66710@pc33.example.com.wav";
  ASSERT_TRUE(fs::exists(wav));
  const Wave w = readWave(wav);
  EXPECT_EQ(w.channels, 2);
  EXPECT_EQ(w.rate, 8000u);
  const auto left = decodeDirectly(rtp::describeStaticPayload(0), alice);
  auto right = decodeDirectly(rtp::describeStaticPayload(0), bob);
  right.insert(right.begin(), 1600, 0);  // 200 ms later
  auto l = w.channel(0), r = w.channel(1);
  ASSERT_EQ(l.size(), std::max(left.size(), right.size()));
  EXPECT_TRUE(std::equal(left.begin(), left.end(), l.begin()));
  EXPECT_TRUE(std::equal(right.begin(), right.end(), r.begin()));
  ASSERT_EQ(session.streams().size(), 2u);
  for (const auto& s : session.streams()) {
    EXPECT_EQ(s.codec, "pcmu");
    EXPECT_EQ(s.stats.lost, 0u);
    EXPECT_EQ(s.side, s.ssrc == 0xa11ce ? "caller" : "callee");
    EXPECT_EQ(s.stats.events, s.ssrc == 0xa11ce ? 1u : 0u);
    // No loss; the delay estimate is two 20 ms packets.
    double mos = 0;
    EXPECT_DOUBLE_EQ(s.rFactor, tool::eModelRating(rtp::PayloadCodec::Pcmu, 0, 0, 40, mos));
    EXPECT_DOUBLE_EQ(s.mos, mos);
  }
  EXPECT_EQ(session.rtcpPackets(), 1u);
  EXPECT_EQ(session.sipMessages(), 4u);
  const std::string report = readText(dir / "out" / "quillon-capture-report.json");
  EXPECT_NE(report.find("\"codec\": \"pcmu\""), std::string::npos);
  EXPECT_NE(report.find("\"events\": 1"), std::string::npos);
  EXPECT_NE(report.find("\"jitter_ms\""), std::string::npos);
}

// No signalling: AMR-WB octet-aligned under a dynamic payload type given
// with --pt, behind two VLAN tags; --split gives one mono file per stream.
TEST_F(CaptureTest, DynamicPayloadBehindQinQWithSplit) {
  const auto pcm = speechLike(16000 * 2, 16000);
  amrwb::Encoder encoder;
  std::vector<std::vector<uint8_t>> payloads;
  for (size_t i = 0; i + 320 <= pcm.size(); i += 320) {
    uint8_t f[61];
    const int n = encoder.encodeFrame(&pcm[i], 2, false, f);
    // Octet-aligned: CMR byte, ToC byte (F=0), speech bytes.
    std::vector<uint8_t> p = {0xf0, static_cast<uint8_t>(f[0] & 0x7c)};
    p.insert(p.end(), f + 1, f + n);
    payloads.push_back(p);
  }
  const auto packets = stream(96, 42, kStart, payloads.size(), 320, [&](size_t i) { return payloads[i]; });
  const fs::path cap = dir / "vlan.pcap";
  {
    PcapWriter w(cap.string(), DLT_EN10MB);
    for (const Packet& p : packets)
      for (const auto& ip : ipv4(kAliceMedia, kBobMedia, udp(kAliceMedia, kBobMedia, p.rtp))) w.add(ethernet(ip, 2), p.time);
  }
  CaptureOptions options;
  options.split = true;
  int pt = 0;
  ASSERT_TRUE(tool::parsePayloadOption("96=amrwb-oa", pt, options.payloadTypes[96]));
  CaptureSession& session = decode(cap, options);
  ASSERT_EQ(session.written().size(), 1u);
  const Wave w = readWave(session.written()[0]);
  EXPECT_EQ(w.channels, 1);
  EXPECT_EQ(w.rate, 16000u);
  EXPECT_EQ(w.samples, decodeDirectly(rtp::describePayload(96, "AMR-WB/16000", "octet-align=1"), packets));
  EXPECT_NE(session.written()[0].find("_caller_0000002a.wav"), std::string::npos) << session.written()[0];

  // Without the payload type the stream is reported, not guessed.
  CaptureSession& unknown = decode(cap);
  ASSERT_EQ(unknown.streams().size(), 1u);
  EXPECT_EQ(unknown.streams()[0].codec, "unknown");
  EXPECT_TRUE(unknown.written().empty());
}

// IPv6 in Linux cooked framing, G.722 with a lost, a reordered and a
// duplicated packet; grouped into one call with the reverse PCMA stream.
TEST_F(CaptureTest, Ipv6CookedCaptureWithLossAndReordering) {
  const auto pcm = speechLike(16000 * 2, 16000);
  const auto payloads = quillon::test::g722Payloads(pcm);
  const auto sent = stream(9, 7, kStart, payloads.size(), 160, [&](size_t i) { return payloads[i]; });
  // Packet 40 lost, 61 before 60, 70 twice.
  std::vector<Packet> packets;
  for (size_t i = 0; i < sent.size(); i++) {
    if (i == 40) continue;
    packets.push_back(sent[i == 60 ? 61 : i == 61 ? 60 : i]);
    if (i == 70) packets.push_back(sent[i]);
  }
  const auto back = g711Payloads(100, true, 3);
  const auto reverse = stream(8, 8, kStart + 10000, 100, 160, [&](size_t i) { return back[i]; });
  const Address a = v6(1, 30000), b = v6(2, 30002);
  const fs::path cap = dir / "v6.pcap";
  {
    PcapWriter w(cap.string(), DLT_LINUX_SLL);
    for (size_t i = 0; i < std::max(packets.size(), reverse.size()); i++) {
      if (i < packets.size()) w.add(linuxCooked(ipv6(a, b, udp(a, b, packets[i].rtp))), packets[i].time);
      if (i < reverse.size()) w.add(linuxCooked(ipv6(b, a, udp(b, a, reverse[i].rtp))), reverse[i].time);
    }
  }
  CaptureSession& session = decode(cap);
  ASSERT_EQ(session.written().size(), 1u);
  EXPECT_NE(session.written()[0].find("_2001_db8__1__30000__2001_db8__2__30002_rtp1.wav"), std::string::npos)
      << session.written()[0];
  const Wave w = readWave(session.written()[0]);
  EXPECT_EQ(w.channels, 2);
  EXPECT_EQ(w.rate, 16000u);
  const auto left = decodeDirectly(rtp::describeStaticPayload(9), packets);
  const auto l = w.channel(0);
  EXPECT_TRUE(std::equal(left.begin(), left.end(), l.begin()));
  ASSERT_EQ(session.streams().size(), 2u);
  const auto& g722 = session.streams()[0].codec == "g722" ? session.streams()[0] : session.streams()[1];
  EXPECT_EQ(g722.stats.lost, 1u);
  EXPECT_EQ(g722.stats.reordered, 1u);
  EXPECT_EQ(g722.stats.duplicated, 1u);
  EXPECT_LT(g722.rFactor, 93.2);
}

// An INVITE whose SDP makes the datagram larger than the link: IP
// fragments, delivered out of order. Reassembled, its rtpmap describes the
// dynamic AMR-WB payload.
TEST_F(CaptureTest, FragmentedSipDescribesTheStream) {
  std::string attributes = "a=rtpmap:97 AMR-WB/16000\r\n";
  for (int i = 0; i < 60; i++) attributes += "a=x-padding:" + std::string(30, 'x') + "\r\n";
  const std::string invite = sip("INVITE sip:bob@example.com SIP/2.0", "1 INVITE", sdp("10.0.0.1", 40000, "97", attributes));
  ASSERT_GT(invite.size(), 1500u);
  const auto pcm = speechLike(16000, 16000);
  amrwb::Encoder encoder;
  std::vector<std::vector<uint8_t>> payloads;
  for (size_t i = 0; i + 320 <= pcm.size(); i += 320) {
    uint8_t f[61];
    const int n = encoder.encodeFrame(&pcm[i], 0, false, f);
    // Bandwidth-efficient: CMR(4) F(1) FT(4) Q(1), then the 132 speech bits.
    std::vector<int> bits = {1, 1, 1, 1, 0, 0, 0, 0, 0, 1};
    for (int k = 0; k < 132; k++) bits.push_back((f[1 + k / 8] >> (7 - k % 8)) & 1);
    std::vector<uint8_t> p((bits.size() + 7) / 8, 0);
    for (size_t k = 0; k < bits.size(); k++)
      if (bits[k]) p[k / 8] |= static_cast<uint8_t>(0x80 >> (k % 8));
    (void)n;
    payloads.push_back(p);
  }
  const auto packets = stream(97, 1, kStart + 100000, payloads.size(), 320, [&](size_t i) { return payloads[i]; });
  const fs::path cap = dir / "frag.pcap";
  {
    PcapWriter w(cap.string(), DLT_EN10MB);
    auto fragments = ipv4(kAlice, kBob, udp(kAlice, kBob, bytes(invite)), 99, 1200);
    ASSERT_GE(fragments.size(), 2u);
    std::reverse(fragments.begin(), fragments.end());
    for (const auto& f : fragments) w.add(ethernet(f), kStart);
    for (const Packet& p : packets)
      for (const auto& ip : ipv4(kBobMedia, kAliceMedia, udp(kBobMedia, kAliceMedia, p.rtp))) w.add(ethernet(ip), p.time);
  }
  CaptureSession& session = decode(cap);
  EXPECT_EQ(session.packetCounters().reassembled, 1u);
  ASSERT_EQ(session.streams().size(), 1u);
  EXPECT_EQ(session.streams()[0].codec, "amr-wb");
  EXPECT_EQ(session.streams()[0].side, "callee");
  ASSERT_EQ(session.written().size(), 1u);
  EXPECT_EQ(readWave(session.written()[0]).samples, decodeDirectly(rtp::describePayload(97, "AMR-WB/16000", ""), packets));
}

// Damaged input: garbage datagrams on the RTP ports, a packet cut by the
// snap length, malformed SDP and a capture that ends inside a record.
// Warnings, and every stream still decoded.
TEST_F(CaptureTest, DamagedInputWarnsAndStillDecodes) {
  const auto payloads = g711Payloads(100, false, 4);
  const auto packets = stream(0, 0x55, kStart + 100000, 100, 160, [&](size_t i) { return payloads[i]; });
  const fs::path cap = dir / "bad.pcap";
  uint32_t seed = 99;
  {
    PcapWriter w(cap.string(), DLT_EN10MB);
    const std::string broken = "v=0\r\nc=IN IP4 not-an-address\r\nm=audio port RTP/AVP 0\r\na=rtpmap:x\r\n";
    for (const auto& ip : ipv4(kAlice, kBob, udp(kAlice, kBob, bytes(sip("INVITE sip:bob SIP/2.0", "1 INVITE", broken)))))
      w.add(ethernet(ip), kStart);
    for (size_t i = 0; i < packets.size(); i++) {
      for (const auto& ip : ipv4(kAliceMedia, kBobMedia, udp(kAliceMedia, kBobMedia, packets[i].rtp)))
        w.add(ethernet(ip), packets[i].time);
      if (i % 9 == 4) {
        std::vector<uint8_t> junk(40 + i);
        for (uint8_t& b : junk) {
          seed = seed * 1103515245u + 12345u;
          b = static_cast<uint8_t>(seed >> 16);
        }
        junk[0] = 0x80;  // looks like RTP version 2
        for (const auto& ip : ipv4(kAliceMedia, kBobMedia, udp(kAliceMedia, kBobMedia, junk)))
          w.add(ethernet(ip), packets[i].time + 5000);
      }
      if (i == 50) {
        const auto ip = ipv4(kAliceMedia, kBobMedia, udp(kAliceMedia, kBobMedia, packets[i].rtp))[0];
        w.add(ethernet(ip), packets[i].time + 6000, 60);  // cut by the snap length
      }
    }
  }
  // A second copy cut inside its last record.
  const fs::path cut = dir / "cut.pcap";
  {
    auto all = readFile(cap);
    all.resize(all.size() - 100);
    writeBytes(cut, all);
  }
  const auto clean = decodeDirectly(rtp::describeStaticPayload(0), packets);
  for (const fs::path& input : {cap, cut}) {
    fs::remove_all(dir / "out");
    fs::create_directories(dir / "out");
    CaptureSession& session = decode(input);
    ASSERT_EQ(session.streams().size(), 1u);
    EXPECT_EQ(session.streams()[0].garbage, 11u);  // i % 9 == 4 below 100
    EXPECT_EQ(session.packetCounters().truncated, 1u);
    ASSERT_EQ(session.written().size(), 1u);
    const auto out = readWave(session.written()[0]).samples;
    if (input == cap) {
      EXPECT_EQ(out, clean);
    } else {
      EXPECT_TRUE(std::equal(out.begin(), out.end(), clean.begin()));
      EXPECT_GT(out.size(), clean.size() - 400);
    }
    bool sdpWarning = false, endWarning = false;
    for (const auto& w : session.warnings()) {
      sdpWarning |= w.find("SDP") != std::string::npos;
      endWarning |= w.find("ends early") != std::string::npos;
    }
    EXPECT_TRUE(sdpWarning);
    EXPECT_EQ(endWarning, input == cut);
  }
}

// Outputs are never replaced without --force, never written through a
// link placed under the final name, and no temporary file is left.
TEST_F(CaptureTest, ExistingOutputsNeedForce) {
  const auto payloads = g711Payloads(20, false, 5);
  const auto packets = stream(0, 1, kStart, 20, 160, [&](size_t i) { return payloads[i]; });
  const fs::path cap = dir / "small.pcap";
  {
    PcapWriter w(cap.string(), DLT_EN10MB);
    for (const Packet& p : packets)
      for (const auto& ip : ipv4(kAliceMedia, kBobMedia, udp(kAliceMedia, kBobMedia, p.rtp))) w.add(ethernet(ip), p.time);
  }
  CaptureOptions options;
  options.outDir = (dir / "out").string();
  const fs::path name = dir / "out" / "20231114-221320_10.0.0.1_40000_10.0.0.2_50000_rtp1.wav";
  const fs::path victim = dir / "victim.txt";
  std::ofstream(victim) << "keep";
  fs::create_symlink(victim, name);
  std::string error;
  {
    CaptureSession session(options);
    ASSERT_TRUE(session.readCapture(cap.string(), error));
    EXPECT_FALSE(session.finish(error));
    EXPECT_NE(error.find("exists"), std::string::npos);
  }
  EXPECT_EQ(readText(victim), "keep");
  options.force = true;
  {
    CaptureSession session(options);
    ASSERT_TRUE(session.readCapture(cap.string(), error));
    EXPECT_TRUE(session.finish(error)) << error;
  }
  EXPECT_EQ(readText(victim), "keep");
  EXPECT_FALSE(fs::is_symlink(name));
  EXPECT_EQ(readWave(name).samples.size(), 20u * 160 + 30);
  for (const auto& e : fs::directory_iterator(dir / "out")) EXPECT_EQ(e.path().filename().string().find(".quillon"), std::string::npos);
}

// The command reads a capture from standard input and writes a CSV report.
TEST_F(CaptureTest, ToolReadsStandardInputAndWritesCsv) {
  const auto payloads = g711Payloads(30, true, 6);
  const auto packets = stream(8, 1, kStart, 30, 160, [&](size_t i) { return payloads[i]; });
  const fs::path cap = dir / "in.pcap";
  {
    PcapWriter w(cap.string(), DLT_RAW);
    for (const Packet& p : packets)
      for (const auto& ip : ipv4(kAliceMedia, kBobMedia, udp(kAliceMedia, kBobMedia, p.rtp))) w.add(ip, p.time);
  }
  std::string err;
  ASSERT_EQ(run("capture --out out --report csv - < in.pcap", &err), 0) << err;
  const std::string csv = readText(dir / "out" / "quillon-capture-report.csv");
  EXPECT_EQ(csv.rfind("call_id,side,source,destination,ssrc,payload_type,codec", 0), 0u);
  EXPECT_NE(csv.find("rtp1,caller,10.0.0.1:40000,10.0.0.2:50000,00000001,8,pcma,8000,30,0,0,0,0,0.000,0.000,0.604,"), std::string::npos)
      << csv;
  // A bad option and a missing folder are usage errors.
  EXPECT_EQ(run("capture --report xml in.pcap"), 2);
  EXPECT_EQ(run("capture --out missing in.pcap"), 2);
}

TEST(CaptureEModel, RatingFollowsG107AndG113Values) {
  double mos = 0;
  EXPECT_DOUBLE_EQ(tool::eModelRating(rtp::PayloadCodec::Pcmu, 0, 0, 0, mos), 93.2);
  EXPECT_NEAR(mos, 4.41, 0.01);
  EXPECT_DOUBLE_EQ(tool::eModelRating(rtp::PayloadCodec::G729, 0, 0, 0, mos), 82.2);  // Ie 11
  // 5 % random loss on G.711 with concealment: Ie,eff = 95 * 5 / 30.1.
  EXPECT_NEAR(tool::eModelRating(rtp::PayloadCodec::Pcma, 0, 5, 0, mos), 93.2 - 95.0 * 5 / 30.1, 1e-9);
  // Delay above 177.3 ms costs more.
  const double r150 = tool::eModelRating(rtp::PayloadCodec::Pcmu, 0, 0, 150, mos);
  const double r300 = tool::eModelRating(rtp::PayloadCodec::Pcmu, 0, 0, 300, mos);
  EXPECT_NEAR(r150, 93.2 - 3.6, 1e-9);
  EXPECT_NEAR(r300, 93.2 - 7.2 - 0.11 * (300 - 177.3), 1e-9);
  // G.726 at 16 kbit/s (Ie 50) with heavy loss ends near the bottom of the scale.
  EXPECT_LT(tool::eModelRating(rtp::PayloadCodec::G726, 2, 100, 0, mos), tool::eModelRating(rtp::PayloadCodec::G726, 2, 10, 0, mos));
  EXPECT_LT(mos, 1.5);
}

// RTP from an outside program: ffmpeg's RTP muxer sends G.711 to a
// loopback port; the datagrams received there are written to a capture,
// with ffmpeg's own SDP file as --sdp. The decoded audio must equal
// ffmpeg's own decoding of the same G.711 bytes (behind the concealment's
// 3.75 ms delay).
TEST_F(CaptureTest, FfmpegRtpOverLoopbackMatchesFfmpegDecoding) {
  if (sh("command -v ffmpeg >/dev/null") != 0) GTEST_SKIP() << "ffmpeg not installed";
  const auto pcm = speechLike(8000 * 2, 8000);
  const fs::path raw = dir / "in.raw";
  std::ofstream(raw, std::ios::binary).write(reinterpret_cast<const char*>(pcm.data()), static_cast<long>(pcm.size() * 2));
  for (const std::string codec : {"pcm_mulaw", "pcm_alaw"}) {
    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(sock, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    socklen_t len = sizeof addr;
    getsockname(sock, reinterpret_cast<sockaddr*>(&addr), &len);
    const int buffer = 4 << 20;
    setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    const uint16_t port = ntohs(addr.sin_port);
    const fs::path sdpFile = dir / (codec + ".sdp");
    const std::string send = "timeout 20 ffmpeg -v error -y -f s16le -ar 8000 -ac 1 -i " + raw.string() + " -c:a " +
                             codec + " -rtpflags skip_rtcp -sdp_file " + sdpFile.string() + " -f rtp rtp://127.0.0.1:" +
                             std::to_string(port) + " >/dev/null 2>&1 &";
    ASSERT_EQ(sh(send), 0);
    // Receive until nothing has come for a second (at most 20 s).
    const fs::path cap = dir / (codec + ".pcap");
    {
      PcapWriter w(cap.string(), DLT_RAW);
      const Address to = v4(127, 0, 0, 1, port);
      const auto begin = std::chrono::steady_clock::now();
      bool any = false;
      for (;;) {
        pollfd p{sock, POLLIN, 0};
        if (poll(&p, 1, any ? 1000 : 10000) <= 0) break;
        uint8_t datagram[2048];
        sockaddr_in from{};
        socklen_t fromLength = sizeof from;
        const ssize_t n = recvfrom(sock, datagram, sizeof datagram, 0, reinterpret_cast<sockaddr*>(&from), &fromLength);
        if (n <= 0) break;
        any = true;
        const uint64_t t = kStart + static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                                               std::chrono::steady_clock::now() - begin).count());
        const Address source = v4(127, 0, 0, 1, ntohs(from.sin_port));
        w.add(ipv4(source, to, udp(source, to, std::vector<uint8_t>(datagram, datagram + n)))[0], t);
        if (std::chrono::steady_clock::now() - begin > std::chrono::seconds(20)) break;
      }
    }
    close(sock);
    ASSERT_TRUE(fs::exists(sdpFile));
    // ffmpeg's decoding of its own G.711 bytes.
    const fs::path ref = dir / (codec + ".ref");
    const std::string reference = "ffmpeg -v error -y -f s16le -ar 8000 -ac 1 -i " + raw.string() + " -c:a " + codec +
                               " -f wav - 2>/dev/null | ffmpeg -v error -y -i - -f s16le " + ref.string();
    ASSERT_EQ(sh(reference), 0);
    const auto refBytes = readFile(ref);
    std::vector<int16_t> expected(30, 0);
    for (size_t i = 0; i + 1 < refBytes.size(); i += 2)
      expected.push_back(static_cast<int16_t>(refBytes[i] | (refBytes[i + 1] << 8)));

    fs::remove_all(dir / "out");
    fs::create_directories(dir / "out");
    CaptureOptions options;
    options.outDir = (dir / "out").string();
    options.split = true;
    CaptureSession session(options);
    std::string error;
    ASSERT_TRUE(session.addSdp(readText(sdpFile), error)) << error;
    decodeCapture(session, cap);
    ASSERT_EQ(session.streams().size(), 1u) << codec;
    EXPECT_EQ(session.streams()[0].codec, codec == "pcm_mulaw" ? "pcmu" : "pcma");
    EXPECT_EQ(session.streams()[0].stats.lost, 0u);
    ASSERT_EQ(session.written().size(), 1u);
    EXPECT_EQ(readWave(session.written()[0]).samples, expected) << codec;
  }
}

// SIP over TCP, the INVITE split over two segments, in BSD loopback
// framing: its SDP maps a dynamic payload type to G.722.
TEST_F(CaptureTest, SipOverTcpInLoopbackFraming) {
  const std::string invite = sip("INVITE sip:bob@example.com SIP/2.0", "1 INVITE",
                                 sdp("10.0.0.1", 40000, "98", "a=rtpmap:98 G722/8000\r\n"), "tcp-call");
  const std::string ok = sip("SIP/2.0 200 OK", "1 INVITE", sdp("10.0.0.2", 50000, "98", "a=rtpmap:98 G722/8000\r\n"),
                             "tcp-call");
  const auto payloads = g722Payloads(speechLike(16000, 16000));
  const auto packets = stream(98, 9, kStart + 200000, payloads.size(), 160, [&](size_t i) { return payloads[i]; });
  const fs::path cap = dir / "tcp.pcap";
  {
    PcapWriter w(cap.string(), DLT_NULL);
    auto loop = [](const std::vector<uint8_t>& ip) {
      std::vector<uint8_t> f(4 + ip.size(), 0);
      const uint32_t family = 2;  // AF_INET in the capturing host's order
      std::memcpy(f.data(), &family, 4);
      std::memcpy(f.data() + 4, ip.data(), ip.size());
      return f;
    };
    const size_t half = invite.size() / 2;
    w.add(loop(ipv4(kAlice, kBob, tcp(kAlice, kBob, 1, invite.substr(0, half)), 1, 0, 6)[0]), kStart);
    w.add(loop(ipv4(kAlice, kBob, tcp(kAlice, kBob, 1 + static_cast<uint32_t>(half), invite.substr(half)), 2, 0, 6)[0]),
          kStart + 1000);
    w.add(loop(ipv4(kBob, kAlice, tcp(kBob, kAlice, 1, ok), 3, 0, 6)[0]), kStart + 100000);
    for (const Packet& p : packets) w.add(loop(ipv4(kAliceMedia, kBobMedia, udp(kAliceMedia, kBobMedia, p.rtp))[0]), p.time);
  }
  CaptureSession& session = decode(cap);
  EXPECT_EQ(session.sipMessages(), 2u);
  ASSERT_EQ(session.streams().size(), 1u);
  EXPECT_EQ(session.streams()[0].codec, "g722");
  EXPECT_EQ(session.streams()[0].callId, "tcp-call");
  ASSERT_EQ(session.written().size(), 1u);
  EXPECT_NE(session.written()[0].find("_alice_bob_tcp-call.wav"), std::string::npos);
  EXPECT_EQ(readWave(session.written()[0]).samples, decodeDirectly(rtp::describePayload(98, "G722/8000", nullptr), packets));
}

// A file header whose snap length is smaller than its records (libpcap
// would cut every record to it): the records are read in full, with a
// warning.
TEST_F(CaptureTest, SnapLengthSmallerThanTheRecords) {
  const auto payloads = g711Payloads(20, false, 7);
  const auto packets = stream(0, 1, kStart, 20, 160, [&](size_t i) { return payloads[i]; });
  const fs::path cap = dir / "snap.pcap";
  {
    PcapWriter w(cap.string(), DLT_EN10MB);
    for (const Packet& p : packets)
      w.add(ethernet(ipv4(kAliceMedia, kBobMedia, udp(kAliceMedia, kBobMedia, p.rtp))[0]), p.time);
  }
  auto file = readFile(cap);
  const uint32_t snap = 64;
  std::memcpy(file.data() + 16, &snap, 4);
  writeBytes(cap, file);
  CaptureSession& session = decode(cap);
  EXPECT_EQ(session.packetCounters().truncated, 0u);
  ASSERT_EQ(session.written().size(), 1u);
  EXPECT_EQ(readWave(session.written()[0]).samples, decodeDirectly(rtp::describeStaticPayload(0), packets));
  ASSERT_FALSE(session.warnings().empty());
  EXPECT_NE(session.warnings()[0].find("20 records are longer than the snap length the file declares (64)"), std::string::npos);
}

// IPv6 throughout: a fragmented INVITE (fragments interleaved with media,
// out of order) whose SDP gives an IPv6 media address and a dynamic G.722
// payload type, behind one VLAN tag.
TEST_F(CaptureTest, FragmentedIpv6SipWithIpv6Media) {
  const Address alice = v6(1, 5060), bob = v6(2, 5060), aliceMedia = v6(1, 41000), bobMedia = v6(2, 51000);
  std::string attributes = "a=rtpmap:99 G722/8000\r\n";
  for (int i = 0; i < 40; i++) attributes += "a=x-padding:" + std::string(40, 'y') + "\r\n";
  std::string body = "v=0\r\no=- 1 1 IN IP6 2001:db8::1\r\ns=-\r\nc=IN IP6 2001:db8::1\r\nt=0 0\r\nm=audio 41000 RTP/AVP 99\r\n" +
                     attributes;
  const std::string invite = sip("INVITE sip:bob@example.com SIP/2.0", "1 INVITE", body, "v6-call");
  const auto payloads = g722Payloads(speechLike(16000, 16000));
  const auto packets = stream(99, 4, kStart + 20000, payloads.size(), 160, [&](size_t i) { return payloads[i]; });
  const fs::path cap = dir / "v6frag.pcap";
  {
    PcapWriter w(cap.string(), DLT_EN10MB);
    auto fragments = ipv6Fragments(alice, bob, udp(alice, bob, bytes(invite)), 77, 1000);
    ASSERT_GE(fragments.size(), 2u);
    w.add(ethernet(fragments[1], 1), kStart);
    for (size_t i = 0; i < packets.size(); i++) {
      if (i == 1) w.add(ethernet(fragments[0], 1), kStart + 1000);
      if (i == 1)
        for (size_t k = 2; k < fragments.size(); k++) w.add(ethernet(fragments[k], 1), kStart + 2000);
      w.add(ethernet(ipv6(bobMedia, aliceMedia, udp(bobMedia, aliceMedia, packets[i].rtp)), 1), packets[i].time);
    }
  }
  CaptureSession& session = decode(cap);
  EXPECT_EQ(session.packetCounters().reassembled, 1u);
  ASSERT_EQ(session.streams().size(), 1u);
  EXPECT_EQ(session.streams()[0].codec, "g722");
  EXPECT_EQ(session.streams()[0].callId, "v6-call");
  EXPECT_EQ(session.streams()[0].side, "callee");
  ASSERT_EQ(session.written().size(), 1u);
  EXPECT_EQ(readWave(session.written()[0]).samples, decodeDirectly(rtp::describePayload(99, "G722/8000", nullptr), packets));
}

// pcapng (written here block by block: section header, interface
// description, enhanced packet blocks), from a file and from standard input.
TEST_F(CaptureTest, ReadsPcapng) {
  const auto payloads = g711Payloads(25, true, 8);
  const auto packets = stream(8, 3, kStart, 25, 160, [&](size_t i) { return payloads[i]; });
  std::vector<uint8_t> file;
  auto u32 = [&](uint32_t v) { file.insert(file.end(), reinterpret_cast<uint8_t*>(&v), reinterpret_cast<uint8_t*>(&v) + 4); };
  auto u16 = [&](uint16_t v) { file.insert(file.end(), reinterpret_cast<uint8_t*>(&v), reinterpret_cast<uint8_t*>(&v) + 2); };
  u32(0x0a0d0d0a), u32(28), u32(0x1a2b3c4d), u16(1), u16(0), u32(0xffffffff), u32(0xffffffff), u32(28);
  u32(1), u32(20), u16(DLT_EN10MB), u16(0), u32(0), u32(20);
  for (const Packet& p : packets) {
    const auto frame = ethernet(ipv4(kAliceMedia, kBobMedia, udp(kAliceMedia, kBobMedia, p.rtp))[0]);
    const size_t padded = (frame.size() + 3) / 4 * 4;
    const uint32_t total = static_cast<uint32_t>(32 + padded);
    u32(6), u32(total), u32(0), u32(static_cast<uint32_t>(p.time >> 32)), u32(static_cast<uint32_t>(p.time));
    u32(static_cast<uint32_t>(frame.size())), u32(static_cast<uint32_t>(frame.size()));
    file.insert(file.end(), frame.begin(), frame.end());
    file.resize(file.size() + padded - frame.size(), 0);
    u32(total);
  }
  const fs::path cap = dir / "call.pcapng";
  writeBytes(cap, file);
  CaptureSession& session = decode(cap);
  ASSERT_EQ(session.written().size(), 1u);
  EXPECT_EQ(readWave(session.written()[0]).samples, decodeDirectly(rtp::describeStaticPayload(8), packets));
  EXPECT_TRUE(session.warnings().empty());

  ASSERT_EQ(sh(std::string(QUILLON_TOOL_PATH) + " capture --dry-run - < call.pcapng > stdout.txt"), 0);
  EXPECT_NE(readText(dir / "stdout.txt").find("pcma: 25 packets, 0 lost"), std::string::npos)
      << readText(dir / "stdout.txt");
}

namespace {

// Level of one frequency in a signal (Goertzel), as an amplitude.
double toneAmplitude(const std::vector<int16_t>& x, double frequency, uint32_t rate, size_t from, size_t to) {
  const double w = 2 * M_PI * frequency / rate;
  double s1 = 0, s2 = 0;
  for (size_t i = from; i < to; i++) {
    const double s = x[i] + 2 * std::cos(w) * s1 - s2;
    s2 = s1;
    s1 = s;
  }
  const double power = s1 * s1 + s2 * s2 - 2 * std::cos(w) * s1 * s2;
  return 2 * std::sqrt(std::max(power, 0.0)) / static_cast<double>(to - from);
}

}  // namespace

// The 8 kHz leg of a wideband call: a 3 kHz tone keeps its level and its
// image at 5 kHz is removed.
TEST(CaptureUpsample, IntegerRatioKeepsTheBandAndRemovesImages) {
  std::vector<int16_t> tone(8000);
  for (size_t i = 0; i < tone.size(); i++) tone[i] = static_cast<int16_t>(10000 * std::sin(2 * M_PI * 3000 * i / 8000.0));
  for (uint32_t to : {16000u, 48000u}) {
    const auto up = tool::upsample(tone, 8000, to);
    ASSERT_EQ(up.size(), tone.size() * (to / 8000));
    const size_t a = up.size() / 4, b = up.size() * 3 / 4;
    EXPECT_NEAR(toneAmplitude(up, 3000, to, a, b), 10000, 300) << to;
    EXPECT_LT(toneAmplitude(up, 5000, to, a, b), 100) << to;  // -40 dB
  }
  // Sample L*k is sample k (within the filter's rounding) on a slow signal.
  std::vector<int16_t> slow(800);
  for (size_t i = 0; i < slow.size(); i++) slow[i] = static_cast<int16_t>(8000 * std::sin(2 * M_PI * 200 * i / 8000.0));
  const auto up = tool::upsample(slow, 8000, 16000);
  for (size_t k = 20; k < 780; k += 37) EXPECT_NEAR(up[2 * k], slow[k], 80) << k;
}

// The caller's audio moves to another port mid-call (as after a
// re-INVITE): both of its streams go into the left channel, each at its
// own time.
TEST_F(CaptureTest, SecondCallerStreamJoinsTheLeftChannel) {
  const auto first = g711Payloads(50, false, 11), second = g711Payloads(50, false, 12), back = g711Payloads(150, false, 13);
  const auto a = stream(0, 1, kStart, 50, 160, [&](size_t i) { return first[i]; });
  const auto b = stream(0, 2, kStart + 1500000, 50, 160, [&](size_t i) { return second[i]; });
  const auto c = stream(0, 3, kStart, 150, 160, [&](size_t i) { return back[i]; });
  const Address aliceMoved = v4(10, 0, 0, 1, 40002);
  const fs::path cap = dir / "moved.pcap";
  {
    PcapWriter w(cap.string(), DLT_EN10MB);
    auto send = [&](const Address& from, const Address& to, const std::vector<uint8_t>& payload, uint64_t t) {
      w.add(ethernet(ipv4(from, to, udp(from, to, payload))[0]), t);
    };
    send(kAlice, kBob, bytes(sip("INVITE sip:bob@example.com SIP/2.0", "1 INVITE", sdp("10.0.0.1", 40000, "0", ""), "moved")),
         kStart - 100000);
    send(kBob, kAlice, bytes(sip("SIP/2.0 200 OK", "1 INVITE", sdp("10.0.0.2", 50000, "0", ""), "moved")), kStart - 50000);
    for (size_t i = 0; i < 150; i++) {
      if (i < 50) send(kAliceMedia, kBobMedia, a[i].rtp, a[i].time);
      if (i >= 75 && i < 125) send(aliceMoved, kBobMedia, b[i - 75].rtp, b[i - 75].time);
      send(kBobMedia, kAliceMedia, c[i].rtp, c[i].time + 10);
    }
  }
  CaptureSession& session = decode(cap);
  ASSERT_EQ(session.streams().size(), 3u);
  ASSERT_EQ(session.written().size(), 1u);
  for (const auto& s : session.streams()) EXPECT_EQ(s.side, s.ssrc == 3 ? "callee" : "caller");
  const Wave w = readWave(session.written()[0]);
  const auto left = w.channel(0);
  const auto da = decodeDirectly(rtp::describeStaticPayload(0), a), db = decodeDirectly(rtp::describeStaticPayload(0), b);
  ASSERT_GE(left.size(), 12000 + db.size());
  EXPECT_TRUE(std::equal(da.begin(), da.end(), left.begin()));
  EXPECT_TRUE(std::equal(db.begin(), db.end(), left.begin() + 12000));  // 1.5 s in
}

// A capture written by an outside program: text2pcap (Wireshark's) turns a
// hex dump of G.722 RTP packets, one lost, two swapped, one doubled, into a
// pcapng file with its own Ethernet, IPv4 and UDP headers; the tool's split
// output is the stream decoder's own decoding of those packets.
TEST_F(CaptureTest, Text2pcapCaptureDecodesLikeTheStreamDecoder) {
  if (sh("command -v text2pcap >/dev/null") != 0) GTEST_SKIP() << "text2pcap (wireshark-common) not installed";
  const auto pcm = speechLike(16000 * 2, 16000, false, 11);
  const auto payloads = quillon::test::g722Payloads(pcm);
  const auto sent = stream(9, 0x51a7, kStart, payloads.size(), 160, [&](size_t i) { return payloads[i]; });
  std::vector<Packet> packets;
  for (size_t i = 0; i < sent.size(); i++) {
    if (i == 30) continue;
    packets.push_back(sent[i == 50 ? 51 : i == 51 ? 50 : i]);
    if (i == 80) packets.push_back(sent[i]);
  }
  // text2pcap's dump: a time of day before each packet's first offset.
  {
    std::ofstream dump(dir / "rtp.txt");
    char line[128];
    for (const Packet& p : packets) {
      const uint64_t us = p.time % 86400000000ull;
      for (size_t off = 0; off < p.rtp.size(); off += 16) {
        if (off == 0) {
          std::snprintf(line, sizeof line, "%02u:%02u:%02u.%06u ", static_cast<unsigned>(us / 3600000000ull),
                        static_cast<unsigned>(us / 60000000ull % 60), static_cast<unsigned>(us / 1000000ull % 60),
                        static_cast<unsigned>(us % 1000000ull));
          dump << line;
        }
        std::snprintf(line, sizeof line, "%06zx", off);
        dump << line;
        for (size_t k = off; k < std::min(off + 16, p.rtp.size()); k++) {
          std::snprintf(line, sizeof line, " %02x", p.rtp[k]);
          dump << line;
        }
        dump << '\n';
      }
    }
  }
  std::string err;
  ASSERT_EQ(sh("text2pcap -q -t '%H:%M:%S.%f' -u 41000,51000 -4 192.0.2.1,192.0.2.2 rtp.txt rtp.pcapng", &err), 0)
      << err;
  ASSERT_EQ(run("capture --split --report csv --out out rtp.pcapng", &err), 0) << err;
  std::vector<fs::path> waves;
  for (const auto& e : fs::directory_iterator(dir / "out"))
    if (e.path().extension() == ".wav") waves.push_back(e.path());
  ASSERT_EQ(waves.size(), 1u);
  EXPECT_NE(waves[0].filename().string().find("192.0.2.1_41000_192.0.2.2_51000"), std::string::npos) << waves[0];
  const Wave w = readWave(waves[0]);
  EXPECT_EQ(w.channels, 1);
  EXPECT_EQ(w.rate, 16000u);
  EXPECT_GE(w.samples.size(), pcm.size());
  EXPECT_EQ(w.samples, decodeDirectly(rtp::describeStaticPayload(9), packets, 16000));
  const std::string report = readText(dir / "out" / "quillon-capture-report.csv");
  EXPECT_NE(report.find(",g722,16000,"), std::string::npos) << report;
}
