// ITU-T G.726 ADPCM decoder (16, 24, 32 and 40 kbit/s) in the integer
// arithmetic of the recommendation's reference code: one codeword in, one
// sample out, as 16-bit linear PCM or as an A-law / mu-law byte with the
// synchronous coding (tandem) adjustment.
#ifndef QUILLON_CODECS_WAVEFORM_G726_ENGINE_H
#define QUILLON_CODECS_WAVEFORM_G726_ENGINE_H

#include <cstddef>
#include <cstdint>

namespace quillon {

class G726Engine {
 public:
  // How a decoded sample is delivered.
  enum OutputCoding : int {
    kMuLaw = 1,   // a mu-law byte (0..255)
    kALaw = 2,    // an A-law byte (0..255, even bits inverted)
    kLinear = 3,  // 16-bit linear PCM: the reconstructed signal times 4
  };

  // Per-rate constants; one static instance per rate.
  struct RateTables;

  // bitsPerCode: 2 (16 kbit/s), 3 (24), 4 (32) or 5 (40); anything else
  // falls back to 4.
  explicit G726Engine(int bitsPerCode = 4);

  // Selects the rate (2..5 bits per codeword) and resets the state; false
  // and nothing changed for another width.
  bool setBitsPerCode(int bitsPerCode);
  int bitsPerCode() const;

  // The state the recommendation prescribes at start-up.
  void reset();

  // Decodes one codeword (masked to the rate's width). Returns the sample
  // for kLinear, the companded byte for kMuLaw / kALaw, and -1 without
  // touching the state for any other coding.
  int decode(unsigned code, int coding);

  // Linear-output fast path, one codeword. The x4 scaling wraps to 16 bits
  // when the reconstructed signal leaves the 14-bit range, exactly like the
  // widely deployed decoders.
  int16_t decodeLinear(unsigned code);

  // Linear output for n codewords, one per byte in `codes`.
  void decodeLinear(const uint8_t* codes, size_t n, int16_t* out);

  // The adaptive state, named after the recommendation's variables.
  struct State {
    int32_t yl;       // locked (slow) quantizer scale factor
    int16_t yu;       // unlocked (fast) quantizer scale factor
    int16_t dms;      // short-term average of F(I)
    int16_t dml;      // long-term average of F(I)
    int16_t ap;       // speed-control parameter
    int16_t a[2];     // pole predictor coefficients A1, A2
    int16_t b[6];     // zero predictor coefficients B1..B6
    int16_t pk[2];    // signs of the last two partial signals (1 = negative)
    int16_t dq[6];    // last six quantized differences, 4-bit exponent / 6-bit mantissa
    int16_t sr[2];    // last two reconstructed signals, same format
    uint8_t td;       // tone detected
  };
  const State& state() const { return m_s; }

 private:
  struct StepResult {
    int sr;  // reconstructed signal (16-bit range)
    int se;  // signal estimate
    int y;   // quantizer scale factor used
  };

  StepResult step(unsigned code);
  int quantize(int d, int y) const;
  int tandemALaw(int sr, int se, int y, unsigned code) const;
  int tandemMuLaw(int sr, int se, int y, unsigned code) const;

  State m_s;
  const RateTables* m_rate;
  unsigned m_mask;
};

}  // namespace quillon

#endif
