#include "capture_packets.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace quillon::tool {

namespace {

// DLT numbers (pcap-linktype.h).
constexpr int kDltNull = 0;
constexpr int kDltEthernet = 1;
constexpr int kDltRaw = 12;      // some systems
constexpr int kDltRawAlt = 14;   // OpenBSD's value
constexpr int kDltLoop = 108;
constexpr int kDltRawIp = 101;
constexpr int kDltLinuxSll = 113;
constexpr int kDltLinuxSll2 = 276;
constexpr int kDltIpv4 = 228;
constexpr int kDltIpv6 = 229;

constexpr size_t kMaxDatagram = 65535 + 40;
constexpr size_t kMaxPending = 256;
constexpr uint64_t kFragmentLifeMicros = 30000000;

uint16_t be16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

int versionFromEtherType(uint16_t type) {
  if (type == 0x0800) return 4;
  if (type == 0x86dd) return 6;
  return 0;
}

}  // namespace

bool Endpoint::operator==(const Endpoint& o) const { return port == o.port && sameAddress(o); }
bool Endpoint::sameAddress(const Endpoint& o) const {
  return v6 == o.v6 && std::memcmp(address, o.address, 16) == 0;
}

std::string Endpoint::addressText() const {
  char text[INET6_ADDRSTRLEN] = {};
  if (!v6) inet_ntop(AF_INET, address + 12, text, sizeof text);
  else inet_ntop(AF_INET6, address, text, sizeof text);
  return text;
}

std::string Endpoint::text() const {
  std::string out;
  if (v6) out += '[';
  out += addressText();
  if (v6) out += ']';
  out += ':';
  out += std::to_string(port);
  return out;
}

bool Endpoint::parseAddress(const std::string& text, Endpoint& out) {
  out = Endpoint{};
  if (inet_pton(AF_INET, text.c_str(), out.address + 12) == 1) {
    out.address[10] = out.address[11] = 0xff;
    return true;
  }
  if (inet_pton(AF_INET6, text.c_str(), out.address) == 1) {
    out.v6 = true;
    return true;
  }
  return false;
}

bool linkTypeSupported(int linkType) {
  switch (linkType) {
    case kDltNull: case kDltEthernet: case kDltRaw: case kDltRawAlt: case kDltLoop: case kDltRawIp:
    case kDltLinuxSll: case kDltLinuxSll2: case kDltIpv4: case kDltIpv6:
      return true;
    default:
      return false;
  }
}

bool PacketDecoder::decode(int linkType, const uint8_t* p, size_t n, uint64_t time, Datagram& out) {
  m_counters.frames++;
  int version = 0;
  switch (linkType) {
    case kDltEthernet: {
      if (n < 14) break;
      uint16_t type = be16(p + 12);
      size_t offset = 14;
      // 802.1Q, 802.1ad and the old QinQ tag types, any depth.
      while ((type == 0x8100 || type == 0x88a8 || type == 0x9100) && offset + 4 <= n) {
        type = be16(p + offset + 2);
        offset += 4;
      }
      version = versionFromEtherType(type);
      if (!version) {
        m_counters.otherLink++;
        return false;
      }
      return decodeIp(p + offset, n - offset, version, time, out);
    }
    case kDltLinuxSll:
      if (n < 16) break;
      version = versionFromEtherType(be16(p + 14));
      if (!version) {
        m_counters.otherLink++;
        return false;
      }
      return decodeIp(p + 16, n - 16, version, time, out);
    case kDltLinuxSll2:
      if (n < 20) break;
      version = versionFromEtherType(be16(p));
      if (!version) {
        m_counters.otherLink++;
        return false;
      }
      return decodeIp(p + 20, n - 20, version, time, out);
    case kDltNull:
    case kDltLoop: {
      if (n < 4) break;
      // The address family in host order of the capturing machine (NULL)
      // or network order (LOOP): IPv4 is 2, IPv6 one of 24, 28, 30.
      uint32_t family = 0;
      std::memcpy(&family, p, 4);
      const uint32_t swapped = __builtin_bswap32(family);
      auto isV6 = [](uint32_t f) { return f == 24 || f == 28 || f == 30; };
      if (family == 2 || swapped == 2) version = 4;
      else if (isV6(family) || isV6(swapped)) version = 6;
      if (!version) {
        m_counters.otherLink++;
        return false;
      }
      return decodeIp(p + 4, n - 4, version, time, out);
    }
    case kDltRaw: case kDltRawAlt: case kDltRawIp: case kDltIpv4: case kDltIpv6:
      if (n < 1) break;
      return decodeIp(p, n, p[0] >> 4, time, out);
    default:
      m_counters.otherLink++;
      return false;
  }
  m_counters.truncated++;
  return false;
}

bool PacketDecoder::decodeIp(const uint8_t* p, size_t n, int version, uint64_t time, Datagram& out) {
  out = Datagram{};
  out.timeMicros = time;
  if (version == 4) {
    if (n < 20 || (p[0] >> 4) != 4) {
      m_counters.truncated++;
      return false;
    }
    const size_t headerBytes = static_cast<size_t>(p[0] & 0x0f) * 4;
    size_t total = be16(p + 2);
    if (headerBytes < 20 || total < headerBytes || n < headerBytes) {
      m_counters.truncated++;
      return false;
    }
    if (total > n) {
      m_counters.truncated++;
      return false;
    }
    out.source.address[10] = out.source.address[11] = 0xff;
    out.destination.address[10] = out.destination.address[11] = 0xff;
    std::memcpy(out.source.address + 12, p + 12, 4);
    std::memcpy(out.destination.address + 12, p + 16, 4);
    const int protocol = p[9];
    const uint16_t flags = be16(p + 6);
    const size_t offset = static_cast<size_t>(flags & 0x1fff) * 8;
    const bool more = (flags & 0x2000) != 0;
    if (offset != 0 || more) {
      FragmentKey key{};
      std::memcpy(key.data(), p + 12, 8);
      key[8] = p[4];
      key[9] = p[5];
      key[10] = static_cast<uint8_t>(protocol);
      return reassemble(key, offset, p + headerBytes, total - headerBytes, more, protocol, time, out);
    }
    return decodeTransport(protocol, p + headerBytes, total - headerBytes, out);
  }
  if (version == 6) {
    if (n < 40 || (p[0] >> 4) != 6) {
      m_counters.truncated++;
      return false;
    }
    size_t total = 40 + static_cast<size_t>(be16(p + 4));
    if (total > n) {
      m_counters.truncated++;
      return false;
    }
    out.source.v6 = out.destination.v6 = true;
    std::memcpy(out.source.address, p + 8, 16);
    std::memcpy(out.destination.address, p + 24, 16);
    int next = p[6];
    size_t offset = 40;
    // Hop-by-hop, routing and destination options; the fragment header.
    for (int guard = 0; guard < 8; guard++) {
      if (next == 0 || next == 43 || next == 60) {
        if (offset + 8 > total) break;
        const int following = p[offset];
        offset += (static_cast<size_t>(p[offset + 1]) + 1) * 8;
        next = following;
      } else if (next == 44) {
        if (offset + 8 > total) break;
        const int following = p[offset];
        const uint16_t field = be16(p + offset + 2);
        FragmentKey key{};
        std::memcpy(key.data(), p + 8, 32);
        std::memcpy(key.data() + 32, p + offset + 4, 4);
        key[36] = 6;
        offset += 8;
        return reassemble(key, static_cast<size_t>(field & 0xfff8), p + offset, total - offset, (field & 1) != 0,
                          following, time, out);
      } else {
        break;
      }
    }
    if (offset > total) {
      m_counters.truncated++;
      return false;
    }
    return decodeTransport(next, p + offset, total - offset, out);
  }
  m_counters.otherLink++;
  return false;
}

bool PacketDecoder::reassemble(const FragmentKey& key, size_t offset, const uint8_t* p, size_t n, bool more,
                               int protocol, uint64_t time, Datagram& out) {
  m_counters.fragments++;
  // Forget datagrams whose fragments stopped coming.
  for (auto it = m_pending.begin(); it != m_pending.end();) {
    if (time > it->second.firstSeen + kFragmentLifeMicros) {
      m_counters.fragmentsDropped += it->second.count;
      it = m_pending.erase(it);
    } else {
      ++it;
    }
  }
  if (offset + n > kMaxDatagram) {
    m_counters.truncated++;
    return false;
  }
  auto found = m_pending.find(key);
  if (found == m_pending.end()) {
    if (m_pending.size() >= kMaxPending) {
      m_counters.fragmentsDropped++;
      return false;
    }
    found = m_pending.emplace(key, Pending{}).first;
    found->second.firstSeen = time;
    found->second.protocol = protocol;
  }
  Pending& d = found->second;
  if (d.data.size() < offset + n) {
    d.data.resize(offset + n);
    d.have.resize(offset + n, false);
  }
  std::memcpy(d.data.data() + offset, p, n);
  std::fill(d.have.begin() + static_cast<long>(offset), d.have.begin() + static_cast<long>(offset + n), true);
  d.count++;
  if (!more) d.total = offset + n;
  if (d.total == 0 || d.data.size() < d.total ||
      !std::all_of(d.have.begin(), d.have.begin() + static_cast<long>(d.total), [](bool b) { return b; }))
    return false;
  m_assembled.assign(d.data.begin(), d.data.begin() + static_cast<long>(d.total));
  const int proto = d.protocol;
  m_pending.erase(found);
  m_counters.reassembled++;
  return decodeTransport(proto, m_assembled.data(), m_assembled.size(), out);
}

bool PacketDecoder::decodeTransport(int protocol, const uint8_t* p, size_t n, Datagram& out) {
  if (protocol == 17) {
    if (n < 8) {
      m_counters.truncated++;
      return false;
    }
    const size_t length = be16(p + 4);
    if (length < 8 || length > n) {
      m_counters.truncated++;
      return false;
    }
    out.protocol = Datagram::Protocol::Udp;
    out.source.port = be16(p);
    out.destination.port = be16(p + 2);
    out.payload = p + 8;
    out.bytes = length - 8;
    m_counters.udp++;
    return true;
  }
  if (protocol == 6) {
    if (n < 20 || static_cast<size_t>(p[12] >> 4) * 4 > n || (p[12] >> 4) < 5) {
      m_counters.truncated++;
      return false;
    }
    const size_t header = static_cast<size_t>(p[12] >> 4) * 4;
    out.protocol = Datagram::Protocol::Tcp;
    out.source.port = be16(p);
    out.destination.port = be16(p + 2);
    out.payload = p + header;
    out.bytes = n - header;
    m_counters.tcp++;
    return out.bytes > 0;
  }
  m_counters.otherTransport++;
  return false;
}

void PacketDecoder::finish() {
  for (const auto& [key, d] : m_pending) m_counters.fragmentsDropped += d.count;
  m_pending.clear();
}

}  // namespace quillon::tool
