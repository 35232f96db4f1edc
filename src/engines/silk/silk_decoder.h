// SILK speech decoder (fixed point), the decoder of the original SILK
// bitstream as the SILK SDK 1.0.9 defines it. Three entry points shaped
// like the SDK's: state-size query, initialisation and packet decode with a
// five-field control record. The caller owns the state memory.
#ifndef QUILLON_SILK_DECODER_H
#define QUILLON_SILK_DECODER_H

#include <cstdint>

#include "primitives/basic_ops.h"

namespace quillon::silk {

// Results of decode().
constexpr int kOk = 0;
constexpr int kErrInvalidSampleRate = -10;
constexpr int kErrPayloadTooLarge = -11;
constexpr int kErrPayloadError = -12;

// Decoder control record, in the SDK's field order.
struct DecControl {
  int32_t API_sampleRate;             // in: output rate in Hz (8000..48000)
  int32_t frameSize;                  // out: samples per 20 ms at the output rate
  int32_t framesPerPacket;            // out: frames in the last complete packet
  int32_t moreInternalDecoderFrames;  // out: non-zero while the packet has frames left
  int32_t inBandFECOffset;            // out: packet distance of in-band FEC data (0, 1, 2)
};

// Writes the size in bytes of the decoder state; returns 0.
int getDecoderSize(int32_t* sizeBytes);
// Resets the state; returns 0.
int initDecoder(void* state);
// Decodes the next 20 ms frame of the packet `payload` (nBytes long; the
// first four bytes at `payload` are read even when nBytes is smaller, so
// they must be readable). Call again with the same payload while
// control->moreInternalDecoderFrames is set. Writes *nSamplesOut samples
// (one frame at the output rate) to out, which needs room for 480 samples.
// lost != 0 asks for concealment of a lost packet.
int decode(void* state, DecControl* control, int lost, const uint8_t* payload, int nBytes,
           int16_t* out, int16_t* nSamplesOut);

// ---------------------------------------------------------------------------
// Engine internals, shared by the decoder's source files.

constexpr int kMaxFsKhz = 24;
constexpr int kSubframes = 4;
constexpr int kMaxFrameLength = 20 * kMaxFsKhz;
constexpr int kMaxSubframeLength = kMaxFrameLength / kSubframes;
constexpr int kMaxLpcOrder = 16;
constexpr int kLtpOrder = 5;
constexpr int kMaxPayloadBytes = 1024;
constexpr int kShellBlock = 16;
constexpr int kVoiced = 0;
constexpr int kUnvoiced = 1;

struct RangeDecoder {
  uint32_t base;
  uint32_t range;
  int32_t index;
  int32_t length;
  int32_t error;
  uint8_t data[kMaxPayloadBytes + 4];  // bytes are read 4 behind the copy's start
};

struct PlcState {
  int32_t pitchLagQ8;
  int16_t ltpTapsQ14[kLtpOrder];
  int16_t lpcQ12[kMaxLpcOrder];
  int32_t lastFrameLost;
  int32_t randSeed;
  int16_t randScaleQ14;
  int32_t concEnergy;
  int32_t concEnergyShift;
  int16_t ltpScaleQ14;
  int32_t gainsQ16[kSubframes];
  int32_t fsKhz;
};

struct CngState {
  int32_t excQ10[kMaxFrameLength];
  int32_t nlsfQ15[kMaxLpcOrder];
  int32_t synthState[kMaxLpcOrder];
  int32_t gainQ16;
  int32_t randSeed;
  int32_t fsKhz;
};

// Downsampler (second-order AR, then polyphase FIR) or plain copy.
struct Resampler {
  int32_t iir[2];
  int32_t fir[12];
  int32_t mode;        // 0 unsupported ratio, 1 copy, 2 AR2 + FIR
  int32_t batch;
  int32_t stepQ16;
  int32_t fracs;
  const int16_t* coefs;
};

// Per-frame parameters decoded from the bitstream.
struct FrameParams {
  int32_t pitchLag[kSubframes];
  int32_t gainsQ16[kSubframes];
  int32_t seed;
  int16_t lpcQ12[2][kMaxLpcOrder];
  int16_t ltpTapsQ14[kLtpOrder * kSubframes];
  int32_t ltpScaleQ14;
  int32_t periodicity;
  int32_t rateLevel;
  int32_t offsetType;
  int32_t sigType;
  int32_t nlsfInterpQ2;
};

struct DecoderState {
  RangeDecoder rc;
  int32_t prevInvGainQ16;
  int32_t ltpStateQ16[2 * kMaxFrameLength];
  int32_t lpcStateQ14[kMaxSubframeLength + kMaxLpcOrder];
  int32_t excQ10[kMaxFrameLength];
  int32_t resQ10[kMaxFrameLength];
  int16_t history[2 * kMaxFrameLength];
  int32_t lagPrev;
  int32_t lastGainIndex;
  int32_t typeOffsetPrev;
  int32_t highPassState[2];
  const int16_t* highPass;  // b0 b1 b2 a1 a2, Q13
  int32_t fsKhz;
  int32_t prevApiRate;
  int32_t frameLength;
  int32_t subframeLength;
  int32_t lpcOrder;
  int32_t prevNlsfQ15[kMaxLpcOrder];
  int32_t firstFrameAfterReset;
  int32_t bytesLeft;
  int32_t framesDecoded;
  int32_t framesInPacket;
  int32_t moreFrames;
  int32_t frameTermination;
  Resampler resampler;
  int32_t vadFlag;
  int32_t noFecCounter;
  int32_t fecOffset;
  CngState cng;
  int32_t lossCount;
  int32_t prevSigType;
  PlcState plc;
};

// Range decoder.
void rangeInit(RangeDecoder& rc, const uint8_t* payload, int32_t nBytes);
int32_t rangeDecode(RangeDecoder& rc, const uint16_t* cdf, int32_t start);
int32_t rangeBytesUsed(const RangeDecoder& rc, int32_t* bits);
void rangeCheckTail(RangeDecoder& rc);

// Parameter decoding (silk_parameters.cpp).
void decodeParameters(DecoderState& st, FrameParams& fp, int32_t* pulses, bool full);
void setInternalRate(DecoderState& st, int32_t fsKhz);

// LPC helpers (silk_lpc.cpp).
void nlsfToLpcStable(int16_t* aQ12, const int32_t* nlsfQ15, int order);
int lpcInverseGain(int32_t* invGainQ30, const int16_t* aQ12, int order);
void bandwidthExpand(int16_t* a, int order, int32_t chirpQ16);
void lpcSynthesis(const int16_t* in, const int16_t* aQ12, int32_t gainQ26, int32_t* state,
                  int16_t* out, int len, int order);

// Synthesis, concealment, comfort noise (silk_synthesis.cpp).
void decodeCore(DecoderState& st, FrameParams& fp, int16_t* out, const int32_t* pulses);
void plcReset(DecoderState& st);
void plcProcess(DecoderState& st, FrameParams& fp, int16_t* signal, int len, bool lost);
void plcGlue(DecoderState& st, int16_t* signal, int len);
void cngReset(DecoderState& st);
void cngProcess(DecoderState& st, FrameParams& fp, int16_t* signal, int len);
void highPassFilter(DecoderState& st, int16_t* signal, int len);
void sumSquares(int32_t* energy, int32_t* shift, const int16_t* x, int len);

// Output resampling (silk_resampler.cpp).
int resamplerInit(Resampler& r, int32_t rateIn, int32_t rateOut);
int resamplerRun(Resampler& r, int16_t* out, const int16_t* in, int32_t len);

}  // namespace quillon::silk

#endif
