// RTP stream decoding for hosts that receive packets live or read them from
// captures: RTP header parsing (RFC 3550), a small reordering jitter
// buffer, the payload formats of the library's codecs and each codec's own
// loss concealment.
//
// A host creates one RtpStreamDecoder per stream with a payload
// description, pushes every packet with its arrival time and pulls 16-bit
// mono PCM at the decoder's output rate. Each instance locks itself, so
// push and pull may come from different threads; nothing is allocated per
// packet after creation.
#ifndef QUILLON_RTP_H
#define QUILLON_RTP_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "quillon/platform.h"

namespace quillon::rtp {

// The fixed header, CSRC list and header extension of one RTP packet.
struct RtpPacket {
  uint8_t payloadType = 0;
  bool marker = false;
  uint16_t sequence = 0;
  uint32_t timestamp = 0;
  uint32_t ssrc = 0;
  uint8_t csrcCount = 0;
  bool hasExtension = false;
  uint16_t extensionProfile = 0;
  const uint8_t* payload = nullptr;  // points into the parsed bytes
  size_t payloadBytes = 0;
};

// Parses a UDP payload as RTP version 2. False when it is not one: wrong
// version, too short for its CSRC list or extension, padding longer than
// the payload, or a payload type of the RTCP range (72..76 with the marker
// bit, i.e. RTCP packet types 200..204).
QUILLON_API bool parseRtp(const uint8_t* data, size_t bytes, RtpPacket& packet);

// True when the bytes look like an RTCP compound packet (version 2,
// packet type 200..207 in the second byte).
QUILLON_API bool looksLikeRtcp(const uint8_t* data, size_t bytes);

enum class PayloadCodec {
  Unknown,
  Pcmu,            // G.711 mu-law, PT 0
  Pcma,            // G.711 A-law, PT 8
  G722,            // PT 9 (RTP clock 8000, audio 16 kHz)
  G729,            // PT 18, decoded as G.729 Annex A with Annex B
  G726,            // G726-16/24/32/40, RFC 3551 packing (bitsPerCode)
  G726Aal2,        // AAL2-G726-*, the other packing
  AmrWb,           // RFC 4867, bandwidth-efficient or octet-aligned
  Opus,            // RFC 7587
  Silk,            // SILK packets, one per RTP packet
  ComfortNoise,    // RFC 3389, PT 13
  TelephoneEvent,  // RFC 4733: counted, not decoded
};

// What a stream carries: from a static payload type, or from SDP text.
struct PayloadDescription {
  PayloadCodec codec = PayloadCodec::Unknown;
  int payloadType = -1;
  uint32_t clockRate = 0;   // RTP timestamp units per second
  uint32_t audioRate = 0;   // the codec's own sample rate
  int bitsPerCode = 0;      // G.726: 2..5
  bool octetAligned = false;  // AMR-WB: octet-align=1
  int silkFrames = 1;       // unused by the decoder, kept for reports
};

// The description of a static payload type of RFC 3551 (0, 8, 9, 13, 18);
// Unknown for anything else.
QUILLON_API PayloadDescription describeStaticPayload(int payloadType);

// The description from an SDP rtpmap value ("AMR-WB/16000/1") and optional
// fmtp parameters ("octet-align=1; mode-set=2"); Unknown for encodings the
// library does not decode. Static payload types without rtpmap text go
// through describeStaticPayload.
QUILLON_API PayloadDescription describePayload(int payloadType, const char* rtpmap, const char* fmtp);

// A short lower-case name for reports ("pcmu", "g729", "amr-wb", ...).
QUILLON_API const char* payloadCodecName(PayloadCodec codec);

// Counters of one stream, in the sense of RFC 3550 where it defines them.
struct StreamStatistics {
  uint64_t packets = 0;          // RTP packets accepted
  uint64_t lost = 0;             // sequence numbers never received
  uint64_t duplicated = 0;       // packets received twice (dropped)
  uint64_t reordered = 0;        // packets put back in order by the buffer
  uint64_t late = 0;             // packets that came after their slot was played
  uint64_t otherPayload = 0;     // packets of a payload type the stream does not decode
  uint64_t ssrcChanges = 0;      // restarts on a new synchronisation source
  uint64_t timestampJumps = 0;   // timeline restarts on an implausible timestamp step
  uint64_t badPayloads = 0;      // payloads the codec could not parse
  uint64_t events = 0;           // RFC 4733 telephone events (distinct)
  uint64_t concealedSamples = 0; // samples made by loss concealment
  uint64_t comfortNoiseSamples = 0;  // samples of DTX gaps and comfort noise
  uint64_t samples = 0;          // output samples in all
  uint64_t overrunSamples = 0;   // dropped because the host did not pull them in time
  double jitterMs = 0;           // RFC 3550 interarrival jitter, milliseconds
  double maxJitterMs = 0;
};

class RtpStreamDecoderImpl;

class QUILLON_API RtpStreamDecoder {
 public:
  // outputRate 0 takes the codec's own rate; Opus and SILK also decode at
  // 8000, 16000 or 48000 Hz on request (other codecs ignore it). Returns
  // null for an Unknown or telephone-event description.
  static std::unique_ptr<RtpStreamDecoder> create(const PayloadDescription& payload, uint32_t outputRate = 0);
  ~RtpStreamDecoder();

  uint32_t sampleRate() const;

  // One RTP packet (the whole UDP payload) and its arrival time in
  // microseconds. Packets of the stream's telephone-event or comfort-noise
  // payload types are taken too (set them with setEventPayloadType /
  // setComfortNoisePayloadType). False when the bytes are not RTP.
  bool push(const uint8_t* data, size_t bytes, uint64_t arrivalMicros);

  // Moves up to maxSamples decoded samples to out; returns the count.
  size_t pull(int16_t* out, size_t maxSamples);
  // Samples waiting to be pulled.
  size_t available() const;

  // Plays out every packet still held for reordering (end of stream).
  void flush();

  void setEventPayloadType(int payloadType);
  void setComfortNoisePayloadType(int payloadType);

  StreamStatistics statistics() const;

  // The number of packets held for reordering before they are played.
  static constexpr int kReorderWindow = 8;

 private:
  explicit RtpStreamDecoder(std::unique_ptr<RtpStreamDecoderImpl> impl);
  RtpStreamDecoder(const RtpStreamDecoder&) = delete;
  RtpStreamDecoder& operator=(const RtpStreamDecoder&) = delete;
  std::unique_ptr<RtpStreamDecoderImpl> m_impl;
};

}  // namespace quillon::rtp

#endif
