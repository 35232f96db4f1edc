// One decoder per RTP payload format: turns a packet's payload into PCM,
// conceals lost audio with the codec's own means and fills the gaps of
// discontinuous transmission. Everything is allocated when it is created.
#ifndef QUILLON_RTP_PAYLOAD_DECODER_H
#define QUILLON_RTP_PAYLOAD_DECODER_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "quillon/rtp.h"

namespace quillon::rtp {

class PayloadDecoder {
 public:
  // The most samples one payload may decode to, and the largest payload.
  static constexpr size_t kMaxPacketSamples = 32768;
  static constexpr size_t kMaxPayloadBytes = 8192;

  virtual ~PayloadDecoder() = default;

  // Output sample rate.
  virtual uint32_t rate() const = 0;
  // Samples of one concealment or gap step (a codec frame; a few ms for
  // waveform codecs).
  virtual size_t stepSamples() const = 0;
  // Decodes one payload into out (room for kMaxPacketSamples); returns the
  // samples written, or -1 when the payload cannot be parsed (nothing
  // written, state unchanged).
  virtual long decode(const uint8_t* payload, size_t bytes, int16_t* out) = 0;
  // One step of concealment for lost packets. `next` (may be null) is the
  // payload that follows the loss, for codecs that carry redundancy;
  // returns the samples written (at most stepSamples()).
  virtual size_t conceal(int16_t* out, const uint8_t* next, size_t nextBytes) = 0;
  // One step of a transmission pause: the codec's comfort noise where it
  // has one, silence otherwise.
  virtual size_t fillPause(int16_t* out) = 0;
  // Samples a decoder holds back (the waveform concealment's delay), given
  // out at the end of the stream; room for stepSamples().
  virtual size_t drain(int16_t*) { return 0; }
  // The decoder's fixed output delay in samples.
  virtual size_t delay() const { return 0; }
  // Back to the state of a new decoder (a new synchronisation source).
  virtual void reset() = 0;
};

// Null for a description the library cannot decode. outputRate 0: the
// codec's own rate.
std::unique_ptr<PayloadDecoder> makePayloadDecoder(const PayloadDescription& payload, uint32_t outputRate);

}  // namespace quillon::rtp

#endif
