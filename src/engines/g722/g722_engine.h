// ITU-T G.722 wideband speech coder: 16 kHz input/output, two-band QMF
// split, 6-bit ADPCM in the lower band and 2-bit ADPCM in the upper band,
// one octet per pair of input samples (upper-band code in bits 7-6,
// lower-band code in bits 5-0).
//
// The arithmetic is bit-exact with the ITU-T G.722 fixed-point reference.
// The decoder runs in mode 1 (64 kbit/s), 2 (56 kbit/s: the lowest bit of
// the lower-band code is ignored) or 3 (48 kbit/s: the lowest two bits are
// ignored); the encoder always produces 64 kbit/s octets, which carry the
// 56 and 48 kbit/s codes in their high bits.
//
// Encoder and Decoder are independent objects with their own state (and
// their own overflow flag); neither allocates.
#ifndef QUILLON_CODECLIB_G722_ENGINE_H
#define QUILLON_CODECLIB_G722_ENGINE_H

#include <cstddef>
#include <cstdint>

#include "primitives/basic_ops.h"

namespace quillon::g722 {

namespace detail {

// State of one ADPCM sub-band: the adaptive quantizer scale and the
// two-pole, six-zero adaptive predictor.
struct Band {
  int16_t det;        // quantizer scale factor
  int16_t nb;         // its logarithm
  int16_t s;          // signal estimate for the next sample
  int16_t sz;         // zero-section part of that estimate
  int16_t a1, a2;     // pole coefficients
  int16_t p1, p2;     // past partially reconstructed signals
  int16_t r1, r2;     // past reconstructed signals
  // Zero section, padded to 8 lanes so the loops over it vectorize; the
  // padding lanes of d stay 0, so those of b never contribute.
  alignas(16) int16_t b[8];  // zero coefficients b1..b6
  alignas(16) int16_t d[8];  // past quantized differences d(n-1)..d(n-6)
};

// What encoder and decoder share: both bands' predictor adaptation, which
// uses the saturating operators of the fixed-point toolkit, and the QMF
// history (input samples for the encoder, sum/difference signals for the
// decoder). The history is a linear buffer moved back only every
// kQmfBlock pairs, so the 24-tap window is always contiguous.
class SubBandCore : protected fx::BasicOps {
 protected:
  static constexpr int kQmfTaps = 24;
  static constexpr int kQmfBlock = 120;
  static constexpr int kHistory = kQmfTaps - 2 + 2 * kQmfBlock;

  void resetCore();
  // Next free history slot pair; makes room when the buffer is full.
  int16_t* qmfSlot();

  // Lower band after its difference code: scale factor adaptation and
  // predictor update (the 4 most significant code bits drive both).
  void adaptLower(int code6);
  // Upper band likewise; returns the reconstructed signal (unlimited).
  int16_t adaptUpper(int code2);

  Band low_{};
  Band high_{};
  alignas(16) int16_t qmf_[kHistory]{};
  int qmfPos_ = kQmfTaps - 2;

 private:
  // Common predictor update with quantized difference d0; returns the
  // reconstructed signal s + d0.
  int16_t updatePredictor(Band& band, int16_t d0);
};

}  // namespace detail

class Encoder : private detail::SubBandCore {
 public:
  Encoder();
  void reset();
  // nSamples 16 kHz samples (even; an odd last sample is ignored) ->
  // nSamples/2 octets.
  void encode(const int16_t* in, size_t nSamples, uint8_t* out);
  // The two sub-band ADPCM coders alone, QMF bypassed: one lower-band and
  // one upper-band sample in, one octet out.
  uint8_t encodeBands(int16_t xl, int16_t xh);

  bool overflow() const { return Overflow; }
};

class Decoder : private detail::SubBandCore {
 public:
  Decoder();
  void reset();
  // mode 1, 2, 3 (64/56/48 kbit/s); 0 decodes as mode 1 and any other
  // value as mode 3. nBytes octets -> 2*nBytes samples.
  void decode(const uint8_t* in, size_t nBytes, int16_t* out, int mode);
  // The two sub-band ADPCM decoders alone, QMF bypassed: one octet in, the
  // limited lower-band and upper-band reconstructed samples out.
  void decodeBands(uint8_t code, int mode, int16_t& rl, int16_t& rh);

  bool overflow() const { return Overflow; }

 private:
  void decodeOne(uint8_t code, const int16_t* lowerTable, int16_t& rl, int16_t& rh);
};

}  // namespace quillon::g722

#endif
