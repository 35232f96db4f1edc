// G.729 speech encoder: 80 samples of 16-bit PCM at 8 kHz to one 10-byte
// packed frame, bit-exact with the ITU-T fixed-point references (input
// high-pass filter, LP analysis and LSP quantisation, open-loop and
// closed-loop pitch, algebraic codebook search, gain quantisation).
//
// Annex A and the full-complexity main body share the input filter, the LP
// analysis, the LSP and gain quantisers, the taming and the pulse
// correlations; the main body (encoder_main.cpp) adds its adaptive
// perceptual weighting, full pitch searches and the depth-first pulse
// search.
//
// The whole state lives in the object (no allocation, no globals).
#ifndef QUILLON_G729A_ENCODER_H
#define QUILLON_G729A_ENCODER_H

#include <cstdint>

#include "codecs/speech/g729a/dsp.h"

namespace quillon::g729a {

class Encoder : private Dsp {
 public:
  static constexpr int kFrameSamples = kFrame;
  static constexpr int kFrameBytes = kPacketBytes;

  enum class Variant { AnnexA, Main };

  explicit Encoder(Variant variant = Variant::AnnexA) : m_variant(variant) { reset(); }

  Variant variant() const { return m_variant; }

  // Back to the initial state of a freshly started encoder.
  void reset();

  // Encodes one frame of 80 samples into 10 bytes: the 80 bits most
  // significant bit first in transmission order (RFC 3551 layout).
  void encode(const int16_t pcm[kFrameSamples], uint8_t out[kFrameBytes]);

  // Packs the 11 frame parameters into 10 bytes.
  static void pack(const Word16 prm[kParamCount], uint8_t out[kFrameBytes]);

 private:
  // Correlation matrix of the filtered pulses: the five tracks' diagonals
  // of 8, then nine 8 x 8 blocks between tracks (0,1..4), (1,2..4), (2,3..4).
  static constexpr int kRrSize = 5 * 8 + 9 * 64;

  void analyse(Word16* prm);
  void highPass(Word16* signal);
  void autocorrelation(const Word16* x, Word16* rh, Word16* rl);
  // LP filter from the autocorrelations; rc gets the first two reflection
  // coefficients (Q15).
  void levinson(const Word16* rh, const Word16* rl, Word16* a, Word16* rc);
  void azToLsp(const Word16* a, Word16* lsp, const Word16* oldLsp);
  Word16 chebyshev(Word16 x, const Word16* f, bool q10);
  void quantiseLsp(const Word16* lsp, Word16* lspQ, Word16* prm);
  Word16 openLoopPitch(const Word16* wsp);
  void correlateTarget(const Word16* h, const Word16* x, Word16* d);
  Word16 closedLoopPitch(Word16* exc, const Word16* xn, const Word16* h, Word16 t0Min, Word16 t0Max, bool first,
                         Word16& frac);
  Word16 pitchGain(const Word16* xn, const Word16* y1, Word16* gCoeff);
  Word16 searchCodebook(const Word16* x, Word16* h, Word16 t0, Word16 sharp, Word16* code, Word16* y, Word16& sign);
  void pulseCorrelations(const Word16* h, Word16* rr);
  Word16 searchPulses(Word16* dn, Word16* rr, const Word16* h, Word16* code, Word16* y, Word16& sign);
  void correlateGains(const Word16* xn, const Word16* y1, const Word16* y2, Word16* g, Word16* expG);
  Word16 quantiseGains(const Word16* code, const Word16* g, const Word16* expG, bool taming, Word16& gainPit,
                       Word16& gainCode);
  void preselectGains(const Word16* bestGain, Word16& cand1, Word16& cand2, Word16 gcode0);
  bool needsTaming(Word16 t0, Word16 frac);
  void updateTaming(Word16 gainPit, Word16 t0);

  // Main body (encoder_main.cpp).
  void analyseMain(Word16* prm);
  void weightingFactors(Word16* lsfInt, Word16* lsfNew, const Word16* rc, Word16* gamma1, Word16* gamma2);
  void lspToNormalisedLsf(const Word16* lsp, Word16* lsf);
  Word16 openLoopPitchFull(const Word16* wsp);
  Word16 strongestLag(const Word16* sig, int lagMax, int lagMin, Word16& corMax);
  Word16 closedLoopPitchFull(const Word16* exc, const Word16* xn, const Word16* h, Word16 t0Min, Word16 t0Max,
                             bool first, Word16& frac);
  Word16 interpolateCorrelation(const Word16* x, Word16 frac);
  void convolve(const Word16* x, const Word16* h, Word16* y);
  Word16 searchCodebookFull(const Word16* x, Word16* h, Word16 t0, bool first, Word16* code, Word16* y,
                            Word16& sign);
  Word16 searchPulsesDepthFirst(Word16* dn, Word16* rr, const Word16* h, bool first, Word16* code, Word16* y,
                                Word16& sign);

  const Variant m_variant;

  // Speech: 240 samples, the new frame in the last 80 (the analysis window
  // covers all of it; the frame being coded starts 40 samples earlier).
  Word16 m_speech[240];
  Word16 m_wspBuf[kPitchMax + kFrame];
  Word16 m_excBuf[kPitchMax + kInterpLen + kFrame];
  Word16 m_lspOld[kOrder];
  Word16 m_lspOldQ[kOrder];
  Word16 m_memW0[kOrder];
  Word16 m_memW[kOrder];
  Word16 m_memZero[kOrder];
  Word16 m_sharp;
  Word16 m_lsfMem[4][kOrder];
  Word32 m_excErr[4];
  Word16 m_oldA[kOrder1];
  Word16 m_oldRc[2];
  // Main body: synthesis and error-filter memories, the weighting filter's
  // smoothing state and log-area ratios, and the pulse search budget
  // carried from the first subframe to the second.
  Word16 m_memSyn[kOrder];
  Word16 m_errBuf[kOrder + kSubframe];
  Word16 m_smooth;
  Word16 m_larOld[2];
  Word16 m_searchExtra;
  Word16 m_pastEnergy[4];
  // Input high-pass filter: y[n-1], y[n-2] in double precision, x[n-1], x[n-2].
  Word16 m_y1Hi, m_y1Lo, m_y2Hi, m_y2Lo, m_x0, m_x1;
};

}  // namespace quillon::g729a

#endif
