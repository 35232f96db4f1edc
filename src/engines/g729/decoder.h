// G.729 speech decoder: 10-byte packed frames to 80 samples of 16-bit PCM
// at 8 kHz, bit-exact with the ITU-T fixed-point references (decoder,
// post-filter and output high-pass filter). Annex A and the full-complexity
// main body decode the same bitstream with the same stages and differ only
// in the post-filter and in the excitation of erased frames.
//
// With Annex B (discontinuous transmission) a frame is one of three kinds:
// a 10-byte speech frame, a 2-byte SID frame (15 bits, most significant
// first, the 16th bit unused) that updates the comfort-noise description,
// or an untransmitted frame (no bytes) during which the decoder keeps
// generating comfort noise. Every kind yields 80 samples.
//
// The whole state lives in the object (no allocation, no globals), so any
// number of decoders may run side by side.
#ifndef QUILLON_G729A_DECODER_H
#define QUILLON_G729A_DECODER_H

#include <cstdint>

#include "engines/g729/dsp.h"
#include "engines/g729/postfilter_main.h"

namespace quillon::g729a {

class Decoder : private Dsp {
 public:
  static constexpr int kFrameSamples = kFrame;
  static constexpr int kFrameBytes = kPacketBytes;

  enum class Variant { AnnexA, Main };

  static constexpr int kSidBytes = 2;

  explicit Decoder(Variant variant = Variant::AnnexA, bool annexB = false) : m_variant(variant), m_annexB(annexB) {
    reset();
  }

  Variant variant() const { return m_variant; }
  bool annexB() const { return m_annexB; }

  // Back to the initial state of a freshly started decoder.
  void reset();

  // Decodes one packed frame: the 80 bits most significant bit first in
  // transmission order (RFC 3551 layout).
  void decode(const uint8_t in[kFrameBytes], int16_t out[kFrameSamples]);

  // Conceals one lost frame (the reference decoder's frame-erasure path).
  // With Annex B a loss after speech is concealed as speech, a loss during
  // silence continues the comfort noise. sized: the lost frame carried bits
  // (speech or SID size, not an empty frame); during silence the Annex A + B
  // reference then decodes it as a SID frame whose bits are all zero (the
  // main-body reference does not).
  void decodeErased(int16_t out[kFrameSamples], bool sized = false);

  // Annex B: a SID frame (15 bits in 2 bytes) and an untransmitted frame.
  // Without Annex B both are concealed as lost frames.
  void decodeSid(const uint8_t in[kSidBytes], int16_t out[kFrameSamples]);
  void decodeUntransmitted(int16_t out[kFrameSamples]);

  // Splits a packed frame into its 11 parameters.
  static void unpack(const uint8_t in[kFrameBytes], Word16 prm[kParamCount]);

  using Dsp::pitchParity;

 private:
  void decodeFrame(const Word16* prm, bool erased, int16_t* out);
  // Annex B: one frame of comfort noise; sid holds the four SID parameters
  // of a SID frame, null otherwise.
  void decodeComfortNoise(const Word16* sid, bool erased, int16_t* out);
  void saveExcitationEnergy();
  void synthesiseSubframe(const Word16* a, const Word16* exc, Word16* syn);
  void finishFrame(Word16* syn, const Word16* az, const Word16* lags, bool active, int16_t* out);
  void decodeLsp(const Word16* prm, bool erased, Word16* lspNew);
  void decodePitchLag(Word16 index, bool first, Word16& t0, Word16& frac);
  void decodeGains(Word16 index, const Word16* code, bool erased);
  void postFilter(Word16* syn, const Word16* az, const Word16* lags, bool active, Word16* out);
  void pitchPostFilter(const Word16* sig, const Word16* scaled, Word16 t0Min, Word16 t0Max, Word16* out);
  void tiltCompensate(Word16* sig, Word16 g);
  void gainControl(const Word16* in, Word16* out);
  void highPass(int16_t* out, const Word16* in);

  const Variant m_variant;
  const bool m_annexB;
  // Annex B: last frame type (1 speech, 2 SID, 0 untransmitted), the
  // comfort-noise seed, the energy of the last good frame's excitation
  // (value and exponent), the SID gain, the running comfort-noise gain and
  // the LSPs of the last SID frame.
  Word16 m_pastFrameType;
  Word16 m_cngSeed;
  Word16 m_sidEnergy, m_sidEnergyExp;
  Word16 m_sidGain, m_cngGain;
  Word16 m_lspSid[kOrder];
  // Main body: the post-filter, and the voicing of the last frame (the
  // harmonic delay it found, 0 when unvoiced) that selects the excitation
  // of an erased frame.
  MainPostFilter m_mainPost;
  Word16 m_voicing;
  // Excitation: the kPitchMax + kInterpLen past samples, then the frame.
  Word16 m_excBuf[kPitchMax + kInterpLen + kFrame];
  Word16 m_synMem[kOrder];
  Word16 m_lspOld[kOrder];
  Word16 m_sharp;
  Word16 m_oldT0;
  Word16 m_gainCode;
  Word16 m_gainPitch;
  // LSP quantiser: MA predictor memory, last mode and last quantised LSF.
  Word16 m_lsfMem[4][kOrder];
  Word16 m_prevMode;
  Word16 m_prevLsf[kOrder];
  Word16 m_pastEnergy[4];
  Word16 m_seed;
  // Post-filter: synthesis history, residual histories (plain and scaled
  // by 1/4), the 1/A(z/g1) memory, tilt filter memory and AGC gain.
  Word16 m_synHist[kOrder + kFrame];
  Word16 m_resBuf[kPitchMax + kSubframe];
  Word16 m_scaledResBuf[kPitchMax + kSubframe];
  Word16 m_pstMem[kOrder];
  Word16 m_tiltMem;
  Word16 m_pastGain;
  // Output high-pass filter: y[n-1], y[n-2] in double precision, x[n-1], x[n-2].
  Word16 m_y1Hi, m_y1Lo, m_y2Hi, m_y2Lo, m_x0, m_x1;
};

}  // namespace quillon::g729a

#endif
