// Opus packets (RFC 6716) to 16-bit PCM through the system's libopus, for
// hosts that hold the packets one by one (Ogg pages, RTP payloads): mono or
// stereo, at any rate libopus offers, with libopus's own concealment of
// lost packets. Nothing is allocated after open().
#ifndef QUILLON_OPUS_PACKET_DECODER_H
#define QUILLON_OPUS_PACKET_DECODER_H

#include <cstddef>
#include <cstdint>

#include "quillon/platform.h"

struct OpusDecoder;  // libopus's opaque decoder state

namespace quillon {

class QUILLON_API OpusPacketDecoder {
 public:
  OpusPacketDecoder() = default;
  ~OpusPacketDecoder();
  OpusPacketDecoder(const OpusPacketDecoder&) = delete;
  OpusPacketDecoder& operator=(const OpusPacketDecoder&) = delete;

  // Creates the decoder for 1 or 2 channels at 8000, 12000, 16000, 24000 or
  // 48000 Hz; anything else is refused (false). Opening again starts afresh.
  bool open(unsigned channels, unsigned rate);
  void close();
  bool isOpen() const { return m_decoder != nullptr; }
  unsigned channels() const { return m_channels; }
  unsigned rate() const { return m_rate; }

  // Sample frames (per channel) of the longest packet, 120 ms, at rate().
  size_t maxFrames() const { return m_rate * 120u / 1000u; }

  // Decodes one packet into `out`, interleaved when stereo, with room for
  // `capacityFrames` sample frames. Returns the frames decoded, or -1 for an
  // empty packet, one libopus rejects, or one longer than the room.
  long decode(const uint8_t* packet, size_t bytes, int16_t* out, size_t capacityFrames);

  // Stands in for one lost Opus frame of concealFrames() sample frames:
  // from the in-band redundancy of `next`, the packet after the loss, when
  // it carries some, else by libopus's concealment. Returns the frames
  // written (silence if libopus fails).
  size_t conceal(int16_t* out, size_t capacityFrames, const uint8_t* next = nullptr, size_t nextBytes = 0);

  // Sample frames of one Opus frame of the last packet decoded (a packet
  // holds one or more frames); 20 ms before any packet.
  size_t concealFrames() const { return m_frameSize; }

  // Back to the state of a fresh decoder (same channels and rate).
  void reset();

 private:
  OpusDecoder* m_decoder = nullptr;
  unsigned m_channels = 0;
  unsigned m_rate = 0;
  size_t m_frameSize = 0;
};

}  // namespace quillon

#endif
