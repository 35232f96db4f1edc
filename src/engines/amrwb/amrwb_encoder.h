// AMR-WB speech encoder engine: the 3GPP TS 26.173 fixed-point encoder
// algorithm (ACELP at 6.60 to 23.85 kbit/s), with voice activity detection
// and discontinuous transmission (SID_FIRST, SID_UPDATE and NO_DATA
// frames) when asked for, and the encoder homing frame.
//
// Each call takes 320 samples of 16 kHz PCM (the two low bits are ignored,
// the codec works on 14 bits) and writes one frame in the RFC 4867 storage
// layout that the decoder reads: a table-of-contents byte (frame type in
// bits 6..3, quality bit set) and the speech bits in importance order,
// octet-aligned. The engine keeps all of its state inside the object,
// allocates nothing and shares the decoder's tables and stages.
#ifndef QUILLON_AMRWB_ENCODER_H
#define QUILLON_AMRWB_ENCODER_H

#include <cstddef>
#include <cstdint>

#include "engines/amrwb/amrwb_dsp.h"

namespace quillon::amrwb {

class Encoder : private Dsp {
 public:
  static constexpr int kInputSamples = 320;
  static constexpr int kMaxFrameBytes = 61;

  Encoder();

  // Back to the state of a freshly created encoder.
  void reset();

  // Encodes 320 samples at `mode` (0..8) into `out` (room for 61 bytes).
  // With `dtx` set, non-speech frames become SID or NO_DATA frames.
  // Returns the frame's size in bytes (ToC included), or -1 for a mode out
  // of range (nothing is written then).
  int encodeFrame(const int16_t* pcm, int mode, bool dtx, uint8_t* out);

 private:
  static constexpr int kTotal = 384;      // speech buffer: past + frame + look-ahead
  static constexpr int kPitMin = 34;
  static constexpr int kPitMax = 231;
  static constexpr int kInterp = 17;
  static constexpr int kHistLen = 8;      // comfort-noise analysis history
  static constexpr int kModeDtx = 9;

  struct Vad {
    Word16 bckrEst[12], aveLevel[12], oldLevel[12], subLevel[12];
    Word16 data5[5][2], data3[6];
    Word16 burstCount, hangCount, statCount, vadReg, toneFlag;
    Word16 spEstCount, spMax, spMaxCount, speechLevel;
    Word32 prevPowSum;
  };
  struct DtxState {
    Word16 isfHist[kOrder * kHistLen];
    Word16 logEnHist[kHistLen];
    Word16 histPtr, logEnIndex, seed, hangoverCount, elapsedCount;
    Word32 dist[28];
    Word32 sumDist[kHistLen];
  };
  // Serial parameter writer: each value most significant bit first.
  struct BitWriter {
    uint8_t* bit;
    void put(int value, int n) {
      for (int i = n - 1; i >= 0; i--) *bit++ = static_cast<uint8_t>((value >> i) & 1);
    }
  };

  void resetSpeech(bool all);
  void encodeSpeech(Word16* speech16k, int& mode, bool dtx, uint8_t* bits);
  static int pack(const uint8_t* bits, int frameType, int sidType, int mode, uint8_t* out);

  // Pre-processing and analysis
  void decimate(const Word16* in, int n, Word16* out, Word16* mem);
  void highPass50(Word16* sig, int n, Word16* mem);
  void highPass400(Word16* sig, int n);
  void autocorrelation(const Word16* x, Word16* rHi, Word16* rLo);
  void levinson(const Word16* rHi, const Word16* rLo, Word16* a);
  void lpcToIsp(const Word16* a, Word16* isp, const Word16* oldIsp);
  Word16 chebyshev(Word16 x, const Word16* f, int n);
  void ispToIsf(const Word16* isp, Word16* isf);
  void quantiseIsf(const Word16* isf, Word16* isfQ, Word16* ind, bool split36);
  Word16 openLoopPitch(Word16* wsp, int len, Word16 lastLag, Word16& gain);
  void highPassWsp(const Word16* wsp, Word16* out, int n);
  void scaleWspFilter(Word16 exp);
  void lowPassDecimate2(Word16* x, int n);

  // Filters
  void residual(const Word16* a, const Word16* x, Word16* y, int n);
  void synthesisFilter(const Word16* a, int m, const Word16* x, Word16* y, int n, Word16* mem,
                       bool update);
  void synthesisFilter32(const Word16* a, const Word16* exc, Word16 qNew, Word16* hi,
                         Word16* lo);
  void preemphasis(Word16* x, Word16 mu, int n, Word16& mem, bool doubled);
  void deemphasis2(Word16* x, Word16 mu, int n, Word16& mem);
  void scale(Word16* x, int n, Word16 exp);
  void convolve(const Word16* x, const Word16* h, Word16* y);
  void fir6k7k(Word16* sig, Word16* mem);
  void pitchSharpen(Word16* x, Word16 lag);

  // Subframe search
  Word16 pitchSearch(const Word16* exc, const Word16* xn, const Word16* h, Word16 t0Min,
                     Word16 t0Max, Word16& frac, bool first, Word16 t0Fr2, Word16 t0Fr1);
  Word16 pitchGain(const Word16* xn, const Word16* y, Word16* coeff);
  void updateTarget(const Word16* x, Word16* x2, const Word16* y, Word16 gain);
  void correlateTarget(const Word16* h, const Word16* x, Word16* dn);
  void searchCodebook2(Word16* dn, const Word16* cn, const Word16* h, Word16* code, Word16* y,
                       Word16& index);
  void searchCodebook4(Word16* dn, const Word16* cn, const Word16* h, Word16* code, Word16* y,
                       int nbBits, int mode, Word16* index);
  Word16 quantiseGains(const Word16* xn, const Word16* y1, Word16 qXn, const Word16* y2,
                       const Word16* code, const Word16* coeff, int nbits, Word16& gainPit,
                       Word32& gainCode, bool clip);
  bool pitchClip(int mode) const;
  void pitchClipIsf(int mode, const Word16* isf);
  void pitchClipGain(int mode, Word16 gainPit);
  Word16 hfGainIndex(const Word16* aq, Word16* exc, Word16 qNew, const Word16* speech16k);

  // Voice activity and comfort noise
  void vadReset();
  Word16 vadDecide(const Word16* buf);
  void vadTone(Word16 gain);
  void vadFilterBank(const Word16* in, Word16* level);
  void vadNoiseUpdate(const Word16* level);
  Word16 vadDecision(const Word16* level, Word32 powSum);
  void vadSpeechEstimate(Word16 level);
  Word16 vadLog2(Word16 mant);
  void dtxReset();
  void dtxHandler(bool vad, int& mode);
  void dtxBuffer(const Word16* isf, Word32 energy, int mode);
  void dtxEncode(Word16* isf, Word16* exc, BitWriter& bits);
  void dtxFindIndices(Word16* indices);

  // ---- state ----
  Word16 oldSpeech_[kTotal - kFrame];
  Word16 oldWsp_[kPitMax / 2];
  Word16 oldExc_[kPitMax + kInterp];
  Word16 memDecim_[30];
  Word16 memDecim2_[3];
  Word16 memHpIn_[6];
  Word16 memPreemph_;
  Word16 memSyn_[kOrder];
  Word16 memW0_;
  Word16 memWsp_;
  Word16 ispOld_[kOrder];
  Word16 ispOldQ_[kOrder];
  Word16 isfOld_[kOrder];
  Word16 pastIsfQ_[kOrder];
  Word16 levinsonOld_[kOrder + 2];
  Word16 pastQuaEn_[4];
  Word16 tiltCode_;
  Word16 firstFrame_;
  Word16 gpClip_[2];
  Word32 gainCodeThres_;
  Word16 qOld_, qMax_[2];
  Word16 oldWspMax_, oldWspShift_;
  Word16 oldT0Med_, olGain_, adaW_, olWeightFlag_;
  Word16 oldOlLag_[5];
  Word16 hpWspMem_[9];
  Word16 oldHpWsp_[kFrame / 2 + kPitMax / 2];
  // HF gain estimate (23.85 kbit/s)
  Word16 synHi_[kOrder], synLo_[kOrder];
  Word16 memSynHf_[kOrder];
  Word16 memHpOut_[6];
  Word16 memHp400_[6];
  Word16 memHf_[30], memHf2_[30];
  Word16 memDeemph_;
  Word16 seedHf_;
  Word16 gainAlpha_;
  Word16 vadHist_;
  Vad vad_;
  DtxState dtx_;
  // transmit state
  int sidUpdateCounter_;
  int prevFrameSpeech_;
};

}  // namespace quillon::amrwb

#endif
