// libFuzzer target for the RTP stream decoder: the first byte picks a
// payload description, the rest is a series of packets, each preceded by
// a 16-bit little-endian length and a byte of arrival-time step (ms); every
// packet is pushed, and the decoded audio pulled, as a host would.
#include <cstddef>
#include <cstdint>

#include "quillon/rtp.h"

using namespace quillon::rtp;

namespace {

PayloadDescription pick(uint8_t selector) {
  switch (selector % 14) {
    case 0: return describeStaticPayload(0);
    case 1: return describeStaticPayload(8);
    case 2: return describeStaticPayload(9);
    case 3: return describeStaticPayload(18);
    case 4: return describePayload(96, "AMR-WB/16000", nullptr);
    case 5: return describePayload(96, "AMR-WB/16000", "octet-align=1");
    case 6: return describePayload(96, "opus/48000/2", nullptr);
    case 7: return describePayload(96, "SILK/16000", nullptr);
    case 8: return describePayload(96, "SILK/8000", nullptr);
    case 9: return describePayload(96, "G726-16/8000", nullptr);
    case 10: return describePayload(96, "G726-24/8000", nullptr);
    case 11: return describePayload(96, "AAL2-G726-40/8000", nullptr);
    case 12: return describePayload(96, "G726-32/8000", nullptr);
    default: return describeStaticPayload(0);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  PayloadDescription description = pick(data[0]);
  // The stream's payload type is the first packet's, so that any captured
  // stream can seed any codec.
  RtpPacket first;
  if (size > 4 && parseRtp(data + 4, size - 4, first)) description.payloadType = first.payloadType;
  auto decoder = RtpStreamDecoder::create(description, (data[0] & 0x80) ? 48000 : 0);
  if (!decoder) return 0;
  decoder->setEventPayloadType(101);
  size_t at = 1;
  uint64_t time = 0;
  int16_t out[2048];
  while (at + 3 <= size) {
    const size_t n = static_cast<size_t>(data[at] | (data[at + 1] << 8));
    time += static_cast<uint64_t>(data[at + 2]) * 1000;
    at += 3;
    const size_t len = n < size - at ? n : size - at;
    RtpPacket packet;
    parseRtp(data + at, len, packet);
    looksLikeRtcp(data + at, len);
    decoder->push(data + at, len, time);
    while (decoder->pull(out, 2048) > 0) {
    }
    at += len;
  }
  decoder->flush();
  while (decoder->pull(out, 2048) > 0) {
  }
  decoder->statistics();
  return 0;
}
