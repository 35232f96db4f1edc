// Constant tables of G.729 Annex A (LSP and gain codebooks, interpolation
// and lag windows, function approximation tables). Shared by the decoder
// and the encoder.
#ifndef QUILLON_G729A_TABLES_H
#define QUILLON_G729A_TABLES_H

#include <cstdint>

namespace quillon::g729a::tab {

extern const int16_t kLpcWindow[240];
extern const int16_t kLagWindowHi[12];  // 10 for LP analysis, 12 for the VAD
extern const int16_t kLagWindowLo[12];
extern const int16_t kCosTable[65];
extern const int16_t kCosSlope[64];
extern const int16_t kCosTable2[64];
extern const int16_t kCosSlope2[64];
extern const int16_t kAcosSlope[64];
extern const int16_t kLspStage1[128][10];
extern const int16_t kLspStage2[32][10];
extern const int16_t kLspMaPred[2][4][10];
extern const int16_t kLspMaSum[2][10];
extern const int16_t kLspMaSumInv[2][10];
extern const int16_t kChebGrid[51];
// The finer root-search grid of the main-body encoder (cos(pi i / 60)).
extern const int16_t kChebGrid60[61];
// 1/3-sample interpolation of normalised correlations (closed-loop pitch).
extern const int16_t kInterp3Corr[13];
extern const int16_t kInterp3[31];
extern const int16_t kGainPred[4];
extern const int16_t kGainBook1[8][2];
extern const int16_t kGainBook2[16][2];
extern const int16_t kGainMap1[8];
extern const int16_t kGainMap2[16];
extern const int16_t kGainCoef[2][2];
extern const int32_t kGainCoefL[2][2];
extern const int16_t kGainThr1[4];
extern const int16_t kGainThr2[8];
extern const int16_t kGainUnmap1[8];
extern const int16_t kGainUnmap2[16];
extern const int16_t kPostHpB[3];
extern const int16_t kPostHpA[3];
extern const int16_t kPreHpB[3];
extern const int16_t kPreHpA[3];
extern const int16_t kTamingZone[153];
// Main-body post-filter: 1/8-sample interpolation filters, phases 1..7
// (4 and 16 taps).
extern const int16_t kPostInterpShort[7 * 4];
extern const int16_t kPostInterpLong[7 * 16];

// Annex B: SID gain levels, SID LSF predictor sums and the codebook
// entries reachable from the SID indices.
extern const int16_t kSidGain[32];
extern const int16_t kNoiseFgSum[2][10];
extern const int16_t kNoiseFgSumInv[2][10];
extern const int16_t kSidStage1[32];
extern const int16_t kSidStage2[2][16];
// The SID LSF predictors: the first MA predictor, and a blend of both.
struct NoisePredictors {
  int16_t fg[2][4][10];
};
const NoisePredictors& noisePredictors();
// Annex B voice activity detector: low-band filter autocorrelation, and the
// scaling of the initial means by the count of quiet start-up frames.
extern const int16_t kVadLowBand[13];
extern const int16_t kVadMeanShift[33];
extern const int16_t kVadMeanFactor[33];
// Weights of the two SID LSF predictors in the first-stage search.
extern const int16_t kSidLsfStage1Weight[2];

// Widths in bits of the 11 frame parameters, in transmission order.
inline constexpr int kParamBits[11] = {8, 10, 8, 1, 13, 4, 7, 5, 13, 4, 7};

}  // namespace quillon::g729a::tab

#endif
