// G.729 speech decoder: 10-byte packed frames to 80 samples of 16-bit PCM
// at 8 kHz, bit-exact with the ITU-T fixed-point references (decoder,
// post-filter and output high-pass filter). Annex A and the full-complexity
// main body decode the same bitstream with the same stages and differ only
// in the post-filter and in the excitation of erased frames.
//
// The whole state lives in the object (no allocation, no globals), so any
// number of decoders may run side by side.
#ifndef QUILLON_G729A_DECODER_H
#define QUILLON_G729A_DECODER_H

#include <cstdint>

#include "codecs/speech/g729a/dsp.h"
#include "codecs/speech/g729a/postfilter_main.h"

namespace quillon::g729a {

class Decoder : private Dsp {
 public:
  static constexpr int kFrameSamples = kFrame;
  static constexpr int kFrameBytes = kPacketBytes;

  enum class Variant { AnnexA, Main };

  explicit Decoder(Variant variant = Variant::AnnexA) : m_variant(variant) { reset(); }

  Variant variant() const { return m_variant; }

  // Back to the initial state of a freshly started decoder.
  void reset();

  // Decodes one packed frame: the 80 bits most significant bit first in
  // transmission order (RFC 3551 layout).
  void decode(const uint8_t in[kFrameBytes], int16_t out[kFrameSamples]);

  // Conceals one lost frame (the reference decoder's frame-erasure path).
  void decodeErased(int16_t out[kFrameSamples]);

  // Splits a packed frame into its 11 parameters.
  static void unpack(const uint8_t in[kFrameBytes], Word16 prm[kParamCount]);

  using Dsp::pitchParity;

 private:
  void decodeFrame(const Word16* prm, bool erased, int16_t* out);
  void decodeLsp(const Word16* prm, bool erased, Word16* lspNew);
  void decodePitchLag(Word16 index, bool first, Word16& t0, Word16& frac);
  void decodeGains(Word16 index, const Word16* code, bool erased);
  void postFilter(Word16* syn, const Word16* az, const Word16* lags, Word16* out);
  void pitchPostFilter(const Word16* sig, const Word16* scaled, Word16 t0Min, Word16 t0Max, Word16* out);
  void tiltCompensate(Word16* sig, Word16 g);
  void gainControl(const Word16* in, Word16* out);
  void highPass(int16_t* out, const Word16* in);
  Word16 random();

  const Variant m_variant;
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
