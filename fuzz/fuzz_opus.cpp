// Feeds arbitrary bytes to CodecOpus as a length-prefixed packet stream,
// and the same packets to a stereo OpusPacketDecoder (a packet it refuses
// is concealed, with the next packet offered for its redundancy).
// Decoding stops once 60 ms of PCM have come out: libopus's own cost per
// packet, not the codec's bookkeeping, would otherwise set the pace.
#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <vector>

#include "quillon/codecs/codec_opus.h"
#include "quillon/opus_packet_decoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static TAV::CodecOpus* codec = [] {
    auto* c = new TAV::CodecOpus();
    c->open(TAV::AudioFormat(TAV::CT_OPUS, 1), false);
    return c;
  }();
  static std::vector<int16_t> out(4 * TAV::CodecOpus::kScratchSamples);

  // Fresh decoder state per input so findings reproduce from one file.
  codec->close();
  if (!codec->open(TAV::AudioFormat(TAV::CT_OPUS, 1), false)) return 0;

  const uint8_t* in = data;
  TAV::uint32 left = static_cast<TAV::uint32>(size);
  // The first byte picks the output room per call, so the dropped-packet
  // path is reached as well as the plain one.
  const TAV::uint32 rooms[4] = {640, 1920, 3840, 7680};
  TAV::uint32 room = rooms[size ? data[0] & 3 : 0];
  constexpr TAV::uint32 kMaxBytes = 1920;  // 60 ms at 16 kHz
  TAV::uint32 produced = 0;
  while (left >= 2 && produced < kMaxBytes) {
    const TAV::uint32 before = left;
    const TAV::uint32 n = codec->decode(in, left, out.data(), room);
    if (n > room || left > before) __builtin_trap();
    produced += n;
    if (left == before) break;
    in += before - left;
  }

  static quillon::OpusPacketDecoder* stereo = [] {
    auto* d = new quillon::OpusPacketDecoder();
    d->open(2, 16000);
    return d;
  }();
  static std::vector<int16_t> pairs(2 * stereo->maxFrames());
  stereo->reset();
  // The packet at `at`, if a whole one is there.
  auto packetAt = [&](size_t at, const uint8_t*& packet, size_t& length) {
    if (size - at < 2) return false;
    length = static_cast<size_t>(data[at] | (data[at + 1] << 8)) & 0x7fff;
    packet = data + at + 2;
    return size - at - 2 >= length;
  };
  size_t at = 0, frames = 0;
  const uint8_t* packet;
  size_t length;
  while (frames < 960 && packetAt(at, packet, length)) {  // 60 ms, as above
    at += 2 + length;
    long n = stereo->decode(packet, length, pairs.data(), stereo->maxFrames());
    if (n < 0) {
      const uint8_t* next = nullptr;
      size_t nextLength = 0;
      if (!packetAt(at, next, nextLength)) next = nullptr, nextLength = 0;
      n = static_cast<long>(stereo->conceal(pairs.data(), stereo->maxFrames(), next, nextLength));
    }
    if (n <= 0 || static_cast<size_t>(n) > stereo->maxFrames()) __builtin_trap();
    frames += static_cast<size_t>(n);
  }
  return 0;
}
