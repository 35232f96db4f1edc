// From captured link-layer frames to UDP datagrams and TCP segments:
// Ethernet (with 802.1Q / QinQ tags), Linux cooked v1 and v2, raw IPv4 /
// IPv6 and BSD loopback framing; IPv4 and IPv6 with fragment reassembly.
// Anything else is counted and skipped.
#ifndef QUILLON_TOOLS_CAPTURE_PACKETS_H
#define QUILLON_TOOLS_CAPTURE_PACKETS_H

#include <cstddef>
#include <cstdint>
#include <array>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace quillon::tool {

// An IP address and port, IPv4 addresses held as IPv4-mapped IPv6.
struct Endpoint {
  uint8_t address[16] = {};
  uint16_t port = 0;
  bool v6 = false;

  bool operator<(const Endpoint& o) const {
    return std::tie(v6, port) < std::tie(o.v6, o.port) ||
           (v6 == o.v6 && port == o.port && std::lexicographical_compare(address, address + 16, o.address, o.address + 16));
  }
  bool operator==(const Endpoint& o) const;
  bool sameAddress(const Endpoint& o) const;
  // "192.0.2.1:4000" or "[2001:db8::1]:4000".
  std::string text() const;
  std::string addressText() const;
  // Parses an address (no port) as written in SDP; false if it is neither.
  static bool parseAddress(const std::string& text, Endpoint& out);
};

struct Datagram {
  enum class Protocol { Udp, Tcp } protocol = Protocol::Udp;
  Endpoint source, destination;
  uint64_t timeMicros = 0;
  const uint8_t* payload = nullptr;  // valid until the next decode()
  size_t bytes = 0;
};

struct PacketCounters {
  uint64_t frames = 0;
  uint64_t udp = 0;
  uint64_t tcp = 0;
  uint64_t otherLink = 0;      // link types or ether types not handled
  uint64_t otherTransport = 0; // IP protocols other than UDP and TCP
  uint64_t truncated = 0;      // frames cut short by the snap length or damaged
  uint64_t fragments = 0;      // IP fragments seen
  uint64_t reassembled = 0;    // datagrams rebuilt from fragments
  uint64_t fragmentsDropped = 0;  // fragments of datagrams never completed
};

// The link types handled (DLT numbers of libpcap).
bool linkTypeSupported(int linkType);

class PacketDecoder {
 public:
  // One captured frame; true with `out` set when it completes a UDP
  // datagram or carries a TCP segment with data.
  bool decode(int linkType, const uint8_t* frame, size_t captured, uint64_t timeMicros, Datagram& out);
  // Counts fragments of datagrams that never completed.
  void finish();
  const PacketCounters& counters() const { return m_counters; }

 private:
  bool decodeIp(const uint8_t* p, size_t n, int version, uint64_t time, Datagram& out);
  bool decodeTransport(int protocol, const uint8_t* p, size_t n, Datagram& out);
  // Addresses, identification and protocol of a fragmented datagram.
  using FragmentKey = std::array<uint8_t, 40>;
  bool reassemble(const FragmentKey& key, size_t offset, const uint8_t* p, size_t n, bool more,
                  int protocol, uint64_t time, Datagram& out);

  struct Pending {
    std::vector<uint8_t> data;
    std::vector<bool> have;
    size_t total = 0;  // known once the last fragment came
    int protocol = 0;
    size_t count = 0;
    uint64_t firstSeen = 0;
  };
  std::map<FragmentKey, Pending> m_pending;
  std::vector<uint8_t> m_assembled;
  PacketCounters m_counters;
};

}  // namespace quillon::tool

#endif
