// RTP header parsing (RFC 3550 section 5.1) and payload descriptions from
// static payload types (RFC 3551) or SDP rtpmap/fmtp text.
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "quillon/rtp.h"

namespace quillon::rtp {

namespace {

uint16_t read16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
uint32_t read32(const uint8_t* p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

bool equalsNoCase(const char* a, size_t n, const char* b) {
  if (std::strlen(b) != n) return false;
  for (size_t i = 0; i < n; i++)
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) return false;
  return true;
}

// The value of `name` in an fmtp parameter list ("a=1; b=2"), or null.
const char* fmtpValue(const char* fmtp, const char* name, size_t& length) {
  if (!fmtp) return nullptr;
  const char* p = fmtp;
  while (*p) {
    while (*p == ' ' || *p == ';' || *p == '\t') p++;
    const char* key = p;
    while (*p && *p != '=' && *p != ';') p++;
    size_t keyLength = static_cast<size_t>(p - key);
    while (keyLength > 0 && key[keyLength - 1] == ' ') keyLength--;
    if (*p != '=') continue;
    p++;
    while (*p == ' ') p++;
    const char* value = p;
    while (*p && *p != ';') p++;
    length = static_cast<size_t>(p - value);
    while (length > 0 && (value[length - 1] == ' ' || value[length - 1] == '\r' || value[length - 1] == '\n'))
      length--;
    if (equalsNoCase(key, keyLength, name)) return value;
  }
  return nullptr;
}

}  // namespace

bool parseRtp(const uint8_t* data, size_t bytes, RtpPacket& packet) {
  if (!data || bytes < 12) return false;
  if ((data[0] >> 6) != 2) return false;
  packet = RtpPacket{};
  packet.marker = (data[1] & 0x80) != 0;
  packet.payloadType = data[1] & 0x7f;
  // Payload types 72..76 with the marker set are RTCP's 200..204.
  if (packet.payloadType >= 72 && packet.payloadType <= 76) return false;
  packet.csrcCount = data[0] & 0x0f;
  packet.sequence = read16(data + 2);
  packet.timestamp = read32(data + 4);
  packet.ssrc = read32(data + 8);
  size_t offset = 12 + 4u * packet.csrcCount;
  if (offset > bytes) return false;
  if (data[0] & 0x10) {
    if (offset + 4 > bytes) return false;
    packet.hasExtension = true;
    packet.extensionProfile = read16(data + offset);
    offset += 4 + 4u * read16(data + offset + 2);
    if (offset > bytes) return false;
  }
  size_t end = bytes;
  if (data[0] & 0x20) {
    const size_t padding = data[bytes - 1];
    if (padding == 0 || padding > end - offset) return false;
    end -= padding;
  }
  packet.payload = data + offset;
  packet.payloadBytes = end - offset;
  return true;
}

bool looksLikeRtcp(const uint8_t* data, size_t bytes) {
  if (!data || bytes < 8 || (data[0] >> 6) != 2) return false;
  if (data[1] < 200 || data[1] > 207) return false;
  // The first packet's length field (32-bit words minus one) must fit.
  return (static_cast<size_t>(read16(data + 2)) + 1) * 4 <= bytes;
}

PayloadDescription describeStaticPayload(int payloadType) {
  PayloadDescription d;
  d.payloadType = payloadType;
  d.clockRate = 8000;
  d.audioRate = 8000;
  switch (payloadType) {
    case 0: d.codec = PayloadCodec::Pcmu; break;
    case 8: d.codec = PayloadCodec::Pcma; break;
    case 9: d.codec = PayloadCodec::G722; d.audioRate = 16000; break;
    case 13: d.codec = PayloadCodec::ComfortNoise; break;
    case 18: d.codec = PayloadCodec::G729; break;
    default: d = PayloadDescription{}; d.payloadType = payloadType; break;
  }
  return d;
}

PayloadDescription describePayload(int payloadType, const char* rtpmap, const char* fmtp) {
  if (!rtpmap || !*rtpmap) return describeStaticPayload(payloadType);
  PayloadDescription d;
  d.payloadType = payloadType;
  const char* slash = std::strchr(rtpmap, '/');
  const size_t nameLength = slash ? static_cast<size_t>(slash - rtpmap) : std::strlen(rtpmap);
  const char* name = rtpmap;
  d.clockRate = slash ? static_cast<uint32_t>(std::strtoul(slash + 1, nullptr, 10)) : 0;
  auto is = [&](const char* n) { return equalsNoCase(name, nameLength, n); };
  if (is("PCMU")) {
    d.codec = PayloadCodec::Pcmu;
  } else if (is("PCMA")) {
    d.codec = PayloadCodec::Pcma;
  } else if (is("G722")) {
    d.codec = PayloadCodec::G722;
    d.clockRate = 8000;  // RFC 3551: the clock stays 8000 for historical reasons
    d.audioRate = 16000;
  } else if (is("G729") || is("G729A") || is("G729B") || is("G729AB")) {
    d.codec = PayloadCodec::G729;
  } else if (nameLength > 5 && (equalsNoCase(name, 5, "G726-") || (nameLength > 10 && equalsNoCase(name, 10, "AAL2-G726-")))) {
    const bool aal2 = equalsNoCase(name, 5, "AAL2-");
    const int kbit = std::atoi(name + (aal2 ? 10 : 5));
    if (kbit == 16 || kbit == 24 || kbit == 32 || kbit == 40) {
      d.codec = aal2 ? PayloadCodec::G726Aal2 : PayloadCodec::G726;
      d.bitsPerCode = kbit / 8;
    }
  } else if (is("AMR-WB")) {
    d.codec = PayloadCodec::AmrWb;
    size_t n = 0;
    const char* v = fmtpValue(fmtp, "octet-align", n);
    d.octetAligned = v && n == 1 && *v == '1';
    // Interleaving and CRCs (RFC 4867 section 4.4.2) are not decoded.
    if (fmtpValue(fmtp, "interleaving", n) || (fmtpValue(fmtp, "crc", n) && n == 1 && *fmtpValue(fmtp, "crc", n) == '1') ||
        (fmtpValue(fmtp, "robust-sorting", n) && n == 1 && *fmtpValue(fmtp, "robust-sorting", n) == '1'))
      d.codec = PayloadCodec::Unknown;
  } else if (is("opus")) {
    d.codec = PayloadCodec::Opus;
    d.clockRate = 48000;  // RFC 7587: always 48000 whatever the audio bandwidth
    d.audioRate = 48000;
  } else if (is("SILK")) {
    if (d.clockRate == 8000 || d.clockRate == 12000 || d.clockRate == 16000 || d.clockRate == 24000)
      d.codec = PayloadCodec::Silk;
  } else if (is("CN")) {
    d.codec = PayloadCodec::ComfortNoise;
  } else if (is("telephone-event")) {
    d.codec = PayloadCodec::TelephoneEvent;
  }
  if (d.codec == PayloadCodec::Unknown || d.clockRate == 0) {
    PayloadDescription unknown;
    unknown.payloadType = payloadType;
    return unknown;
  }
  if (d.audioRate == 0) d.audioRate = d.codec == PayloadCodec::AmrWb ? 16000 : d.clockRate;
  return d;
}

const char* payloadCodecName(PayloadCodec codec) {
  switch (codec) {
    case PayloadCodec::Pcmu: return "pcmu";
    case PayloadCodec::Pcma: return "pcma";
    case PayloadCodec::G722: return "g722";
    case PayloadCodec::G729: return "g729";
    case PayloadCodec::G726: return "g726";
    case PayloadCodec::G726Aal2: return "aal2-g726";
    case PayloadCodec::AmrWb: return "amr-wb";
    case PayloadCodec::Opus: return "opus";
    case PayloadCodec::Silk: return "silk";
    case PayloadCodec::ComfortNoise: return "cn";
    case PayloadCodec::TelephoneEvent: return "telephone-event";
    case PayloadCodec::Unknown: break;
  }
  return "unknown";
}

}  // namespace quillon::rtp
