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
// With Annex B the encoder runs a voice activity detector: speech frames
// are coded as usual (10 bytes), silent frames as a SID frame (2 bytes: 15
// bits most significant first, the 16th bit 0) when the background changed
// enough, or not at all (0 bytes).
//
// The whole state lives in the object (no allocation, no globals).
#ifndef QUILLON_G729A_ENCODER_H
#define QUILLON_G729A_ENCODER_H

#include <cstdint>

#include "engines/g729/dsp.h"
#include "engines/g729/vad.h"

namespace quillon::g729a {

class Encoder : private Dsp {
 public:
  static constexpr int kFrameSamples = kFrame;
  static constexpr int kFrameBytes = kPacketBytes;

  enum class Variant { AnnexA, Main };

  static constexpr int kSidBytes = 2;

  explicit Encoder(Variant variant = Variant::AnnexA, bool annexB = false) : m_variant(variant), m_annexB(annexB) {
    reset();
  }

  Variant variant() const { return m_variant; }
  bool annexB() const { return m_annexB; }

  // Back to the initial state of a freshly started encoder.
  void reset();

  // Encodes one frame of 80 samples: the 80 bits most significant bit
  // first in transmission order (RFC 3551 layout). Returns the bytes
  // written: always 10 without Annex B; with it 10, 2 (SID) or 0.
  int encode(const int16_t pcm[kFrameSamples], uint8_t out[kFrameBytes]);

  // Packs the 11 frame parameters into 10 bytes.
  static void pack(const Word16 prm[kParamCount], uint8_t out[kFrameBytes]);
  // Packs the four SID parameters (predictor, two LSF stages, gain) into
  // 2 bytes.
  static void packSid(const Word16 sid[4], uint8_t out[kSidBytes]);

 private:
  // Correlation matrix of the filtered pulses: the five tracks' diagonals
  // of 8, then nine 8 x 8 blocks between tracks (0,1..4), (1,2..4), (2,3..4).
  static constexpr int kRrSize = 5 * 8 + 9 * 64;

  // Both return the frame type: 1 speech (prm holds 11 parameters), 2 SID
  // (prm holds 4), 0 nothing to send.
  int analyse(Word16* prm);
  void highPass(Word16* signal);
  // Autocorrelations 0..order of the windowed signal, lag-windowed;
  // expR0 gets the exponent of r[0], rawHi r[0..10] before the lag window.
  void autocorrelation(const Word16* x, Word16* rh, Word16* rl, int order = kOrder, Word16* expR0 = nullptr,
                       Word16* rawHi = nullptr);
  // LP filter from the autocorrelations; rc gets the first two reflection
  // coefficients (Q15).
  void levinson(const Word16* rh, const Word16* rl, Word16* a, Word16* rc, Word16* err = nullptr);
  void lsfWeights(const Word16* lsf, Word16* wegt);
  void azToLsp(const Word16* a, Word16* lsp, const Word16* oldLsp);
  Word16 chebyshev(Word16 x, const Word16* f, bool q10);
  void quantiseLsp(const Word16* lsp, Word16* lspQ, Word16* prm);
  Word16 openLoopPitch(const Word16* wsp);
  void correlateTarget(const Word16* h, const Word16* x, Word16* d);
  Word16 applyGains(const Word16* xn, const Word16* y1, const Word16* y2, const Word16* code, const Word16* gCoeff,
                    bool taming, Word16 t0, Word16* exc, Word16& gainPit, Word16& gainCode);
  void updateWeightingMemory(const Word16* xn, const Word16* y1, const Word16* y2, Word16 gainPit, Word16 gainCode);
  void shiftHistory();
  Word16 lagIndex(Word16 t0, Word16 frac, bool firstSubframe, Word16& t0Min, Word16& t0Max);
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
  int analyseMain(Word16* prm);
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

  // Annex B (encoder_dtx.cpp).
  bool detectVoice(const Word16* rh, const Word16* rl, Word16 expR0, const Word16* rawHi, Word16 rc1,
                   const Word16* lspNew);
  int codeComfortNoise(Word16* sid, Word16* aq);
  int silentFrameAnnexA(Word16* sid);
  int silentFrameMain(Word16* sid, const Word16* a, const Word16* gamma1, const Word16* gamma2);
  void updateCngAcf(const Word16* rh, Word16 expR0, bool voice);
  void sumAcf(const Word16* acf, const Word16* shAcf, Word16* sum, Word16& shSum, int n);
  void updateSumAcf();
  void pastFilter(Word16* coeff);
  void filterAutocorrelation(const Word16* coeff, Word16* r, Word16& sh);
  bool filterChanged(const Word16* r, Word16 sh, const Word16* acf, Word16 alpha, Word16 thresh);
  void sidLsfQuantise(const Word16* lsp, Word16* lspQ, Word16* idx);

  const Variant m_variant;
  const bool m_annexB;

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
  // Annex B: the detector, its last two decisions, the comfort-noise seed
  // and the frame counter; the DTX state (autocorrelations of the last
  // frames and their sums, the filter of the last SID, energies, gains).
  VoiceActivityDetector m_vad;
  bool m_pastVad, m_ppastVad;
  Word16 m_cngSeed;
  Word16 m_frameCount;
  Word16 m_lspSidQ[kOrder];
  Word16 m_pastCoeff[kOrder1];
  Word16 m_rCoeff[kOrder1];
  Word16 m_shRCoeff;
  Word16 m_acf[2 * kOrder1];
  Word16 m_shAcf[2];
  Word16 m_sumAcf[3 * kOrder1];
  Word16 m_shSumAcf[3];
  Word16 m_ener[2];
  Word16 m_shEner[2];
  Word16 m_frCur;
  Word16 m_cngGain;
  Word16 m_nbEner;
  Word16 m_sidGain;
  bool m_flagChange;
  Word16 m_prevEnergyQ;
  Word16 m_countFr0;
  Word16 m_pastEnergy[4];
  // Input high-pass filter: y[n-1], y[n-2] in double precision, x[n-1], x[n-2].
  Word16 m_y1Hi, m_y1Lo, m_y2Hi, m_y2Lo, m_x0, m_x1;
};

}  // namespace quillon::g729a

#endif
