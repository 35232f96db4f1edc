// Test helpers for RTP and captures: a speech-like test signal, RTP
// packets, UDP/IP/link framing (with VLAN tags, IPv6 and IP fragments) and
// pcap files written through libpcap's own dump functions.
#ifndef QUILLON_TESTS_RTP_TEST_SUPPORT_H
#define QUILLON_TESTS_RTP_TEST_SUPPORT_H

#include <pcap/pcap.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "engines/g722/g722_engine.h"

namespace quillon::test {

// Voiced sound with a gliding pitch and a syllable envelope; silent
// stretches where `pauses` is set (every other second half).
inline std::vector<int16_t> speechLike(size_t samples, uint32_t rate, bool pauses = false, uint32_t seed = 1) {
  std::vector<int16_t> out(samples);
  uint32_t noise = seed;
  double phase = 0;
  for (size_t i = 0; i < samples; i++) {
    const double t = static_cast<double>(i) / rate;
    if (pauses && std::fmod(t, 1.0) >= 0.5) {
      out[i] = 0;
      continue;
    }
    const double f0 = 110 + 30 * std::sin(2 * M_PI * 0.7 * t);
    phase += 2 * M_PI * f0 / rate;
    double v = 0;
    for (int h = 1; h <= 12 && h * f0 < rate / 2.0; h++) v += std::sin(h * phase) / h;
    noise = noise * 1103515245u + 12345u;
    const double n = (static_cast<double>((noise >> 16) & 0x7fff) / 16384.0 - 1.0) * 0.05;
    const double envelope = 0.55 + 0.45 * std::sin(2 * M_PI * 3 * t);
    out[i] = static_cast<int16_t>(std::lrint(6000 * envelope * (v + n)));
  }
  return out;
}

// 20 ms G.722 payloads (160 octets each) of 16 kHz audio.
inline std::vector<std::vector<uint8_t>> g722Payloads(const std::vector<int16_t>& pcm) {
  g722::Encoder encoder;
  std::vector<std::vector<uint8_t>> payloads;
  for (size_t i = 0; i + 320 <= pcm.size(); i += 320) {
    std::vector<uint8_t> b(160);
    encoder.encode(&pcm[i], 320, b.data());
    payloads.push_back(b);
  }
  return payloads;
}

inline std::vector<uint8_t> rtpPacket(int payloadType, uint16_t sequence, uint32_t timestamp, uint32_t ssrc,
                                      const std::vector<uint8_t>& payload, bool marker = false) {
  std::vector<uint8_t> p(12 + payload.size());
  p[0] = 0x80;
  p[1] = static_cast<uint8_t>((marker ? 0x80 : 0) | payloadType);
  for (int i = 0; i < 2; i++) p[2 + i] = static_cast<uint8_t>(sequence >> (8 - 8 * i));
  for (int i = 0; i < 4; i++) p[4 + i] = static_cast<uint8_t>(timestamp >> (24 - 8 * i));
  for (int i = 0; i < 4; i++) p[8 + i] = static_cast<uint8_t>(ssrc >> (24 - 8 * i));
  if (!payload.empty()) std::memcpy(p.data() + 12, payload.data(), payload.size());
  return p;
}

struct Address {
  bool v6 = false;
  uint8_t bytes[16] = {};
  uint16_t port = 0;
};

inline Address v4(uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint16_t port) {
  Address x;
  x.bytes[0] = a;
  x.bytes[1] = b;
  x.bytes[2] = c;
  x.bytes[3] = d;
  x.port = port;
  return x;
}

inline Address v6(uint16_t last, uint16_t port) {
  Address x;
  x.v6 = true;
  x.bytes[0] = 0x20;
  x.bytes[1] = 0x01;
  x.bytes[2] = 0x0d;
  x.bytes[3] = 0xb8;
  x.bytes[14] = static_cast<uint8_t>(last >> 8);
  x.bytes[15] = static_cast<uint8_t>(last);
  x.port = port;
  return x;
}

inline void put16(std::vector<uint8_t>& v, size_t at, uint16_t x) {
  v[at] = static_cast<uint8_t>(x >> 8);
  v[at + 1] = static_cast<uint8_t>(x);
}

inline std::vector<uint8_t> udp(const Address& from, const Address& to, const std::vector<uint8_t>& payload) {
  std::vector<uint8_t> u(8 + payload.size(), 0);
  put16(u, 0, from.port);
  put16(u, 2, to.port);
  put16(u, 4, static_cast<uint16_t>(8 + payload.size()));
  if (!payload.empty()) std::memcpy(u.data() + 8, payload.data(), payload.size());
  return u;
}

// A TCP segment (ACK/PSH) carrying `payload` at sequence number `seq`.
inline std::vector<uint8_t> tcp(const Address& from, const Address& to, uint32_t seq, const std::string& payload) {
  std::vector<uint8_t> t(20 + payload.size(), 0);
  put16(t, 0, from.port);
  put16(t, 2, to.port);
  put16(t, 4, static_cast<uint16_t>(seq >> 16));
  put16(t, 6, static_cast<uint16_t>(seq));
  t[12] = 5 << 4;
  t[13] = 0x18;
  put16(t, 14, 65535);
  if (!payload.empty()) std::memcpy(t.data() + 20, payload.data(), payload.size());
  return t;
}

// IPv4 packets carrying `transport` (protocol 17 = UDP), split into
// fragments of at most `fragmentBytes` of payload (a multiple of 8) when
// it is not 0.
inline std::vector<std::vector<uint8_t>> ipv4(const Address& from, const Address& to,
                                              const std::vector<uint8_t>& transport, uint16_t id = 1,
                                              size_t fragmentBytes = 0, int protocol = 17) {
  std::vector<std::vector<uint8_t>> out;
  const size_t piece = fragmentBytes ? fragmentBytes : transport.size();
  for (size_t offset = 0; offset < transport.size() || offset == 0; offset += piece) {
    const size_t n = std::min(piece, transport.size() - offset);
    std::vector<uint8_t> h(20 + n, 0);
    h[0] = 0x45;
    put16(h, 2, static_cast<uint16_t>(20 + n));
    put16(h, 4, id);
    const bool more = offset + n < transport.size();
    put16(h, 6, static_cast<uint16_t>((more ? 0x2000 : 0) | (offset / 8)));
    h[8] = 64;
    h[9] = static_cast<uint8_t>(protocol);
    std::memcpy(&h[12], from.bytes, 4);
    std::memcpy(&h[16], to.bytes, 4);
    if (n) std::memcpy(h.data() + 20, transport.data() + offset, n);
    out.push_back(h);
    if (transport.empty()) break;
  }
  return out;
}

inline std::vector<uint8_t> ipv6(const Address& from, const Address& to, const std::vector<uint8_t>& transport,
                                 int protocol = 17) {
  std::vector<uint8_t> h(40 + transport.size(), 0);
  h[0] = 0x60;
  put16(h, 4, static_cast<uint16_t>(transport.size()));
  h[6] = static_cast<uint8_t>(protocol);
  h[7] = 64;
  std::memcpy(&h[8], from.bytes, 16);
  std::memcpy(&h[24], to.bytes, 16);
  if (!transport.empty()) std::memcpy(h.data() + 40, transport.data(), transport.size());
  return h;
}

// IPv6 packets with a fragment header each, `fragmentBytes` (a multiple
// of 8) of `transport` per fragment.
inline std::vector<std::vector<uint8_t>> ipv6Fragments(const Address& from, const Address& to,
                                                       const std::vector<uint8_t>& transport, uint32_t id,
                                                       size_t fragmentBytes, int protocol = 17) {
  std::vector<std::vector<uint8_t>> out;
  for (size_t offset = 0; offset < transport.size(); offset += fragmentBytes) {
    const size_t n = std::min(fragmentBytes, transport.size() - offset);
    std::vector<uint8_t> piece(8 + n, 0);
    piece[0] = static_cast<uint8_t>(protocol);
    const bool more = offset + n < transport.size();
    put16(piece, 2, static_cast<uint16_t>(offset | (more ? 1 : 0)));
    put16(piece, 4, static_cast<uint16_t>(id >> 16));
    put16(piece, 6, static_cast<uint16_t>(id));
    std::memcpy(piece.data() + 8, transport.data() + offset, n);
    out.push_back(ipv6(from, to, piece, 44));
  }
  return out;
}

// Ethernet framing with `tags` 802.1Q tags (the outer one 802.1ad when
// there are two).
inline std::vector<uint8_t> ethernet(const std::vector<uint8_t>& ip, int tags = 0) {
  const size_t header = 14 + 4 * static_cast<size_t>(tags);
  std::vector<uint8_t> f(header + ip.size(), 0);
  for (int i = 0; i < 12; i++) f[static_cast<size_t>(i)] = static_cast<uint8_t>(i % 6 + (i == 11));
  for (int i = 0; i < tags; i++) {
    const size_t at = 12 + 4 * static_cast<size_t>(i);
    put16(f, at, (tags == 2 && i == 0) ? 0x88a8 : 0x8100);
    put16(f, at + 2, static_cast<uint16_t>(10 + i));
  }
  put16(f, header - 2, (ip[0] >> 4) == 6 ? 0x86dd : 0x0800);
  std::memcpy(f.data() + header, ip.data(), ip.size());
  return f;
}

// Linux cooked capture v1 header.
inline std::vector<uint8_t> linuxCooked(const std::vector<uint8_t>& ip) {
  std::vector<uint8_t> f(16 + ip.size(), 0);
  f[1] = 4;  // sent by us
  put16(f, 14, (ip[0] >> 4) == 6 ? 0x86dd : 0x0800);
  std::memcpy(f.data() + 16, ip.data(), ip.size());
  return f;
}

// A pcap file written with libpcap (pcap_open_dead + pcap_dump).
class PcapWriter {
 public:
  PcapWriter(const std::string& path, int linkType, int snapLength = 65535) {
    m_pcap = pcap_open_dead(linkType, snapLength);
    m_dump = pcap_dump_open(m_pcap, path.c_str());
  }
  ~PcapWriter() { close(); }
  bool ok() const { return m_dump != nullptr; }
  void add(const std::vector<uint8_t>& frame, uint64_t timeMicros, size_t captured = SIZE_MAX) {
    struct pcap_pkthdr h{};
    h.ts.tv_sec = static_cast<time_t>(timeMicros / 1000000u);
    h.ts.tv_usec = static_cast<suseconds_t>(timeMicros % 1000000u);
    h.caplen = static_cast<bpf_u_int32>(std::min(captured, frame.size()));
    h.len = static_cast<bpf_u_int32>(frame.size());
    pcap_dump(reinterpret_cast<u_char*>(m_dump), &h, frame.data());
  }
  void close() {
    if (m_dump) pcap_dump_close(m_dump);
    if (m_pcap) pcap_close(m_pcap);
    m_dump = nullptr;
    m_pcap = nullptr;
  }

 private:
  pcap_t* m_pcap = nullptr;
  pcap_dumper_t* m_dump = nullptr;
};

}  // namespace quillon::test

#endif
