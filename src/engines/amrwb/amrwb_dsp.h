// Signal-processing stages shared by the AMR-WB decoder and encoder: ISF
// dequantisation and ISF/ISP/LP conversions, LP weighting, the adaptive
// codebook interpolation, the voicing factor and the fixed-point math
// helpers (dot product with exponent, inverse square root, log2, pow2).
// Both engines derive from it, so each keeps its own overflow flag.
#ifndef QUILLON_AMRWB_DSP_H
#define QUILLON_AMRWB_DSP_H

#include "primitives/basic_ops.h"

namespace quillon::amrwb {

using fx::Word16;
using fx::Word32;

class Dsp : protected fx::BasicOps {
 protected:
  static constexpr int kOrder = 16;       // LP order at 12.8 kHz
  static constexpr int kOrderHf = 20;     // LP order of the 16 kHz HF synthesis
  static constexpr int kSub = 64;         // subframe at 12.8 kHz
  static constexpr int kSub16 = 80;       // subframe at 16 kHz
  static constexpr int kFrame = 256;      // frame at 12.8 kHz
  static constexpr Word16 kIsfGap = 128;  // minimum ISF spacing
  static constexpr int kSidBits = 35;     // comfort-noise parameters of a SID frame

  // Spectral envelope
  static void reorderIsf(Word16* isf, Word16 minDist, int n);
  // ISFs from the split-VQ indices (7 of 46 bits, or 5 of 36 bits) and the
  // MA prediction from `predRes`, which takes the new residual.
  void dequantiseIsf(const Word16* ind, Word16* isfQ, Word16* predRes, bool split36);
  // Comfort-noise ISFs from the 5 SID indices.
  void dequantiseNoiseIsf(const Word16* ind, Word16* isf);
  void isfToIsp(const Word16* isf, Word16* isp, int m);
  void ispPolynomial(const Word16* isp, Word32* f, int n, Word16 unit);
  void ispToLpc(const Word16* isp, Word16* a, int m, bool adaptiveScaling);
  // LP coefficients of the 4 subframes from the previous and new ISPs.
  void interpolateIsp(const Word16* ispOld, const Word16* ispNew, Word16* az);
  void weightLpc(const Word16* a, Word16* ap, Word16 gamma, int m);

  // Excitation. Where the arithmetic can overflow (loud or damaged input)
  // `wrap` selects the behaviour: true for the decoder, which follows the
  // fixed-point decoder in wide use (exact sums, results truncated, shift
  // counts taken modulo 32), false for the encoder, which follows the
  // saturating operators of the 3GPP reference.
  void predictLongTerm(Word16* exc, Word16 t0, Word16 frac, int len, bool wrap);
  Word16 voiceFactor(const Word16* exc, Word16 qExc, Word16 gainPit, const Word16* code,
                     Word16 gainCode, bool wrap);

  // Arithmetic helpers
  Word32 dotProduct12(const Word16* x, const Word16* y, int n, Word16& exp);
  void isqrtNorm(Word32& frac, Word16& exp);
  Word32 isqrt(Word32 x);
  Word32 pow2(Word16 exponent, Word16 fraction);
  void log2(Word32 x, Word16& exponent, Word16& fraction);
  static Word16 nextRandom(Word16& seed) {
    seed = static_cast<Word16>(seed * 31821 + 13849);
    return seed;
  }
};

}  // namespace quillon::amrwb

#endif
