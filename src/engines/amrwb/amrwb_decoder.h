// AMR-WB speech decoder engine: the 3GPP TS 26.173 fixed-point decoder
// algorithm (ACELP at 6.60 to 23.85 kbit/s, comfort noise, frame-erasure
// concealment, homing frames). Where filters overflow, and in the
// comfort-noise hangover details, it behaves as the fixed-point decoder in
// wide use (opencore-amrwb), so its output matches that decoder sample for
// sample as well as the 3GPP test sequences.
//
// Frames use the RFC 4867 storage layout: one table-of-contents byte
// (frame type in bits 6..3, quality bit in bit 2) followed by the speech
// bits in transmission (importance-sorted) order, octet-aligned. Each call
// decodes one frame into 320 samples of 16 kHz PCM, 14-bit (the two low
// bits cleared). The engine keeps all of its state inside the object,
// allocates nothing while decoding and derives from the shared fixed-point
// toolkit so its overflow flag is its own.
#ifndef QUILLON_AMRWB_DECODER_H
#define QUILLON_AMRWB_DECODER_H

#include <cstddef>
#include <cstdint>

#include "engines/amrwb/amrwb_dsp.h"

namespace quillon::amrwb {

using fx::Word16;
using fx::Word32;

constexpr int kFrameSamples = 320;  // 20 ms at 16 kHz
constexpr int kMaxFrameBytes = 61;  // mode 8 frame including its ToC byte

// Frame type held in bits 6..3 of a ToC byte.
inline int frameTypeOf(uint8_t toc) { return (toc >> 3) & 0x0f; }

// Bytes of a whole storage-layout frame (ToC included) by frame type:
// 18, 24, 33, 37, 41, 47, 51, 59, 61, 6, 6, 0, 0, 0, 1, 1. Type 10 counts
// 6 bytes like the SID frame of type 9.
int frameBytesForType(int frameType);
inline int frameBytesForToc(uint8_t toc) { return frameBytesForType(frameTypeOf(toc)); }

class Decoder : private Dsp {
 public:
  Decoder();

  // Back to the state of a freshly created decoder.
  void reset();

  // Decodes the frame at `frame` (ToC byte first) into `out` (room for 320
  // samples). `badFrame` marks the frame as damaged (as a cleared quality
  // bit does): speech frames go through the erasure concealment, SID frames
  // are treated as bad SIDs. Returns the frame's size in bytes (the input
  // used), or -1 when `bytes` is 0 or shorter than the frame its ToC
  // announces; nothing is written then. Frame types 10..13 decode as
  // NO_DATA; a type whose size is 0 still uses its ToC byte.
  int decodeFrame(const uint8_t* frame, size_t bytes, int16_t* out, bool badFrame = false);

 private:
  static constexpr int kPitMax = 231;
  static constexpr int kInterp = 17;
  static constexpr int kExcHist = kPitMax + kInterp;
  static constexpr int kHist = 8;         // comfort-noise history depth

  enum RxType : int {
    kRxSpeechGood = 0,
    kRxSpeechLost = 2,
    kRxSpeechBad = 3,
    kRxSidFirst = 4,
    kRxSidUpdate = 5,
    kRxSidBad = 6,
    kRxNoData = 7,
  };
  enum DtxState : int { kSpeech = 0, kDtx = 1, kDtxMute = 2 };

  // Serial parameter reader over unpacked bits (one byte per bit).
  struct BitCursor {
    const uint8_t* bit;
    Word16 take(int n) {
      int v = 0;
      for (int i = 0; i < n; i++) v = (v << 1) | *bit++;
      return static_cast<Word16>(v);
    }
  };

  struct ComfortNoise {
    Word16 sinceLastSid, sidPeriodInv, logEn, prevLogEn;
    Word16 isf[kOrder], prevIsf[kOrder];
    Word16 seed;
    Word16 isfHist[kOrder * kHist], logEnHist[kHist];
    Word16 histPos, hangoverCount, elapsedCount;
    Word16 sidFrame, validData, hangoverAdded, globalState, dataUpdated;
    Word16 ditherSeed, dither;
  };

  void resetSpeech(bool all);
  void resetComfortNoise();
  void decodeParams(int mode, int rxType, const uint8_t* bits, int16_t* out);

  // Comfort noise
  int rxDtxState(int rxType);
  void comfortNoiseFrame(Word16* exc, int newState, Word16* isf, BitCursor& bits);
  void comfortNoiseUpdate(const Word16* isf, const Word16* exc);
  void ditherNoise(Word16* isf, Word32& logEn);

  // Spectral envelope
  void decodeIsf(const Word16* ind, Word16* isf, bool bfi, bool split36);
  void extrapolateIsf(Word16* hfIsf);

  // Excitation
  static void decodePulses2Track(Word16 index, Word16* code);
  static void decodePulses4Track(const Word16* index, int nbits, Word16* code);
  void lagConcealment(Word16& t0, bool unusable);
  void decodeGains(Word16 index, int nbits, const Word16* code, Word16& gainPit,
                   Word32& gainCode, bool bfi, bool unusable);
  void disperse(Word16 gainCode, Word16 gainPit, Word16* code, int level);
  void agc(const Word16* sigIn, Word16* sigOut, int n);

  // Synthesis
  void synthesise(const Word16* aq, Word16* exc, Word16 qNew, Word16* out16k, Word16 hfGainIndex,
                  Word16* hfIsf, int mode, int dtxState, bool bfi);
  void lpcSynthesis(const Word16* a, int m, const Word16* x, Word16* y, int len, Word16* mem);
  void lpcSynthesis32(const Word16* a, const Word16* exc, Word16 qNew, Word16* hi, Word16* lo);
  void highPass50(Word16* sig, int n);
  void highPass400(Word16* sig, int n);
  void upsample(const Word16* sig12k8, Word16* sig16k);
  void fir31(Word16* sig, int n, Word16* mem, const int16_t* coef, int inShift);
  void scaleSignal(Word16* x, int n, Word16 exp);

  // Arithmetic helpers

  // ---- state ----
  Word16 excHist_[kExcHist];
  Word16 ispPrev_[kOrder];
  Word16 isfPrev_[kOrder];
  Word16 isfRecent_[3 * kOrder];
  Word16 isfPredRes_[kOrder];
  Word16 codeTilt_;
  Word16 excScalePrev_;
  Word16 excScaleHist_[4];
  Word32 noiseGainThres_;
  Word16 synHi_[kOrder];
  Word16 synLo_[kOrder];
  Word16 deemphMem_;
  Word16 hp50Mem_[6];
  Word16 upMem_[24];
  Word16 hfSynMem_[kOrderHf];
  Word16 hfBandMem_[30];
  Word16 hfLowMem_[30];
  Word16 seedErasure_;
  Word16 seedHf_;
  Word16 lastLag_;
  Word16 lagHist_[5];
  Word16 seedLag_;
  Word16 dispMem_[8];
  Word16 hp400Mem_[6];
  Word16 prevBfi_;
  Word16 bfiState_;
  Word16 firstFrame_;
  Word16 vadHist_;
  // gain decoder memory
  Word16 pastQuaEn_[4];
  Word16 pastGainPit_;
  Word16 pastGainCode_;
  Word16 prevGainCode_;
  Word16 pitGainBuf_[5];
  Word16 codeGainBuf_[5];
  Word16 pitGainBuf2_[5];
  ComfortNoise cn_;
  int prevMode_;
  bool homingPrev_;
};

}  // namespace quillon::amrwb

#endif
