// Signal-processing routines shared by the G.729 Annex A decoder and
// encoder: LP filtering, LSP conversions, adaptive-codebook interpolation,
// gain prediction and the log/pow/sqrt approximations. All arithmetic goes
// through the basic operators, whose overflow flag belongs to the engine.
#ifndef QUILLON_G729A_DSP_H
#define QUILLON_G729A_DSP_H

#include <cstdint>

#include "primitives/basic_ops.h"

namespace quillon::g729a {

using fx::Word16;
using fx::Word32;

inline constexpr int kFrame = 80;        // samples per 10 ms frame
inline constexpr int kSubframe = 40;     // samples per subframe
inline constexpr int kOrder = 10;        // LP order
inline constexpr int kOrder1 = kOrder + 1;
inline constexpr int kPitchMin = 20;
inline constexpr int kPitchMax = 143;
inline constexpr int kInterpLen = 11;    // half length of the excitation interpolation filter + 1
inline constexpr int kPacketBytes = 10;  // one packed frame
inline constexpr int kParamCount = 11;

inline constexpr Word16 kSharpMax = 13017;  // 0.8 in Q14
inline constexpr Word16 kSharpMin = 3277;   // 0.2 in Q14

// Initial LSP vector (Q15) of both the decoder and the encoder.
inline constexpr Word16 kLspInit[kOrder] = {30000, 26000, 21000, 15000, 8000, 0, -8000, -15000, -21000, -26000};
// Initial MA predictor memory of the LSP quantiser (Q13).
inline constexpr Word16 kLsfMemInit[kOrder] = {2339, 4679, 7018, 9358, 11698, 14037, 16377, 18717, 21056, 23396};
inline constexpr Word16 kGainMemInit = -14336;  // -14 dB in Q10

class Dsp : public fx::BasicOps {
 public:
  // Parity bit sent with the first-subframe pitch index (over its six most
  // significant bits).
  static Word16 pitchParity(Word16 pitchIndex) {
    int sum = 1;
    for (int i = 2; i <= 7; i++) sum += (pitchIndex >> i) & 1;
    return static_cast<Word16>(sum & 1);
  }

 protected:
  // div_s with the fatal exits of the reference arithmetic: a quotient
  // outside [0, 1] or a zero divisor prints a message and ends the process.
  Word16 div_s(Word16 num, Word16 den);

  // 1/A(z) filtering of x into y (lg samples). mem holds the last kOrder
  // outputs; it is refreshed from y when update is set. x and y may alias.
  void synthesis(const Word16* a, const Word16* x, Word16* y, int lg, Word16* mem, bool update);
  // A(z) filtering; x[-kOrder..-1] must be readable.
  void residual(const Word16* a, const Word16* x, Word16* y, int lg);
  // ap[i] = a[i] * gamma^i.
  void weightAz(const Word16* a, Word16 gamma, Word16* ap);
  // LSPs (Q15) to LP coefficients (Q12, a[0] = 4096).
  void lspToAz(const Word16* lsp, Word16* a);
  // Interpolated filter for the first subframe, quantised one for the second.
  void interpolateAz(const Word16* lspOld, const Word16* lspNew, Word16* az);
  // LSF (Q13, 0..pi) to LSP (Q15).
  void lsfToLsp(const Word16* lsf, Word16* lsp);
  // LSP (Q15) to LSF (Q13).
  void lspToLsf(const Word16* lsp, Word16* lsf);
  // Adaptive-codebook vector at fractional delay t0 + frac/3 written over exc[0..n).
  void predictLongTerm(Word16* exc, int t0, int frac, int n);

  // The lags `below` under `center` to `span` above that, kept inside
  // kPitchMin..kPitchMax with the width unchanged.
  void pitchSearchRange(Word16 center, Word16 below, Word16 span, Word16& lo, Word16& hi) {
    lo = sub(center, below);
    if (lo < kPitchMin) lo = kPitchMin;
    hi = add(lo, span);
    if (hi > kPitchMax) {
      hi = kPitchMax;
      lo = sub(hi, span);
    }
  }
  Word32 pow2(Word16 exponent, Word16 fraction);
  void log2(Word32 x, Word16& exponent, Word16& fraction);
  Word32 invSqrt(Word32 x);

  // MA-predicted fixed-codebook gain (Q(exp)) for the code vector.
  void predictGain(const Word16* pastEnergy, const Word16* code, Word16& gcode0, Word16& expGcode0);
  void updateGainMemory(Word16* pastEnergy, Word32 gainSum);
  void updateGainMemoryErased(Word16* pastEnergy);

  // LSP quantiser helpers (Q13 LSF domain).
  void lspExpand(Word16* buf, Word16 gap, int from, int to);
  void lspCompose(const Word16* ele, Word16* lsf, const Word16 (*fg)[kOrder], const Word16 (*mem)[kOrder],
                  const Word16* fgSum);
  static void lspShiftMemory(const Word16* ele, Word16 (*mem)[kOrder]);
  void lspStabilise(Word16* buf);
  // The predictor input that would give lsf with the current memory.
  void lspExtract(const Word16* lsf, Word16* ele, int mode, const Word16 (*mem)[kOrder]);
  // The same with any predictor and inverse predictor sums.
  void lspExtract(const Word16* lsf, Word16* ele, const Word16 (*fg)[kOrder], const Word16* sumInv,
                  const Word16 (*mem)[kOrder]);
  // Builds the quantised LSF from the codebook indices and updates the
  // predictor memory.
  void lspDequantise(int code0, int code1, int code2, int mode, Word16 (*mem)[kOrder], Word16* lsfOut);

  // ---- Annex B (dtx.cpp) ----
  // The reference's pseudo-random generator.
  Word16 random(Word16& seed) {
    seed = extract_l(L_add(L_shr(L_mult(seed, 31821), 1), 13849));
    return seed;
  }
  // Comfort-noise excitation of one frame at the target gain: a random
  // adaptive-codebook vector, a Gaussian vector and four random pulses per
  // subframe. pitchGain and lag receive the random pitch gain and lag of
  // each subframe (the encoder's taming state follows them).
  void comfortExcitation(Word16 gain, Word16* exc, Word16& seed, Word16 pitchGain[2], Word16 lag[2]);
  // SID gain index of the average of n frame energies (value, exponent);
  // n = 0 quantises one saved energy. enerq gets the quantised level in dB.
  Word16 quantiseSidGain(const Word16* ener, const Word16* shEner, int n, Word16& enerq);
  // SID LSF indices (predictor, first, second stage) to LSPs; updates the
  // predictor memory.
  void sidLsfDecode(const Word16* idx, Word16* lsp, Word16 (*mem)[kOrder]);

 private:
  Word16 gauss(Word16& seed);
  Word16 sqrtHalf(Word32 num);
};

}  // namespace quillon::g729a

#endif
