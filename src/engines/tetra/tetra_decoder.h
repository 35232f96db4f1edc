// TETRA full-rate speech decoder (ETSI EN 300 395-2 ACELP, 4.567 kbit/s):
// 18-byte frames in, 240 samples of 8 kHz PCM out, bit-exact with the ETSI
// fixed-point decoder followed by its output doubling.
//
// Frame packing: bits are numbered from the most significant bit of byte 0;
// bits 0..136 carry the 23 speech parameters (each most significant bit
// first), bit 137 is the bad-frame indicator, bits 138..143 are ignored.
#ifndef QUILLON_TETRA_DECODER_H
#define QUILLON_TETRA_DECODER_H

#include <cstdint>

#include "primitives/basic_ops.h"

namespace quillon::tetra {

constexpr int kFrameBytes = 18;
constexpr int kFrameSamples = 240;
constexpr int kSubframeSamples = 60;
constexpr int kLpcOrder = 10;
constexpr int kSpeechParams = 23;
// Bad-frame indicator followed by the 23 speech parameters.
constexpr int kUnpackedParams = kSpeechParams + 1;
constexpr int kMaxLag = 143;
// Past excitation the adaptive codebook may reach: the longest lag plus
// the half length of the interpolation filter.
constexpr int kExcitationHistory = kMaxLag + 15;
// A lag of 143 or 144 with a one-third fraction makes the interpolation
// filter read one sample before that history. The reference reads whatever
// precedes its buffer there; we keep one sample that is always zero.
constexpr int kExcitationGuard = 1;

// The overflow flag is the Overflow member of the operators this state
// derives from: set by any saturation, never read by the decoder. (The
// ETSI TETRA operators also clear it after a 16-bit operation that did not
// saturate; since nothing reads it, the sticky convention is kept.)
struct TetraDecoderState : fx::BasicOps {
  // Guard sample, past excitation, then the excitation of the frame being
  // decoded (the history is shifted down after every frame).
  int16_t excitation[kExcitationGuard + kExcitationHistory + kFrameSamples];
  // Memory of the LPC synthesis filter (last 10 outputs, oldest first).
  int16_t synthesisMemory[kLpcOrder];
  // Integer pitch lag of the last subframe; reused on a bad frame.
  int16_t previousLag;
  // Fractional part of that lag; a bad frame always uses fraction 0.
  int16_t previousFraction;
  // Quantised LSPs of the previous frame (cosine domain, Q15).
  int16_t previousLsp[kLpcOrder];
  // Powers of 0.75 and 0.85 (Q15) that weight the LPC coefficients of the
  // innovation shaping filter (numerator and denominator).
  int16_t shapingNumerator[kLpcOrder];
  int16_t shapingDenominator[kLpcOrder];
  // Quantised log energies (Q8) of the adaptive and the innovative
  // excitation; predicted from on good frames, decayed on bad frames.
  int16_t pitchEnergy;
  int16_t codeEnergy;
  // 1 while the decoder is in its home state (nothing decoded since reset).
  uint8_t homing;
  // When non-zero the bad-frame indicator of every frame is forced to 0.
  uint8_t badFrameOverride;

  // State the bad-frame substitution needs beyond the fields above:
  // the 23 parameters of the last good frame, which a bad frame decodes
  // again in place of its own...
  int16_t lastGoodParams[kSpeechParams];
  // ...and the first LSP of the last decoded set. A bad frame repeats the
  // previous LSPs from index 1 on only; LSP 0 keeps this value, which is 0
  // until a good frame has been decoded.
  int16_t lastLspFirst;
};

// Returns the decoder to its initial (home) state.
void resetTetraDecoder(TetraDecoderState& state);

// Decodes one 18-byte frame into 240 samples, including the homing
// procedure (a homing frame received in the home state yields 240 samples
// of 8 and resets; received elsewhere it is decoded, then resets).
void decodeTetraFrame(TetraDecoderState& state, const uint8_t frame[kFrameBytes],
                      int16_t pcm[kFrameSamples]);

// Splits a frame into params[0] = bad-frame indicator and params[1..23] =
// the speech parameters.
void unpackTetraFrame(const uint8_t frame[kFrameBytes], int16_t params[kUnpackedParams]);

// True when the first 137 bits of the frame are the decoder homing frame.
bool isTetraHomingFrame(const uint8_t frame[kFrameBytes]);

}  // namespace quillon::tetra

#endif
