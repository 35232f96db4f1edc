// Constant tables of the SILK decoder: entropy-coding CDFs, codebooks,
// filter coefficients. The numbers are those of the published SILK codec.
#ifndef QUILLON_SILK_TABLES_H
#define QUILLON_SILK_TABLES_H

#include <cstdint>

namespace quillon::silk {

// Multi-stage NLSF vector codebook.
struct NlsfCodebook {
  int32_t stages;
  int32_t order;
  const int32_t* stageSize;   // vectors per stage
  const int16_t* vectors;     // all stages back to back, `order` values each (Q15)
  const int32_t* minDelta;    // minimum spacing, order + 1 values (Q15)
  const uint16_t* cdf;        // all stage CDFs back to back
  const int32_t* cdfStart;    // first CDF entry of each stage
  const int32_t* cdfMiddle;   // search start of each stage
};

// Entries of kQuantOffsetQ10 are [signal type][offset type]; kHighPassQ13
// holds per internal rate (8, 12, 16, 24 kHz) the MA taps b0 b1 b2, then a1 a2.
// kPitchContour*Lags are [subframe][contour index]; kLtpTaps*Q14 hold five
// taps per entry.
extern const uint16_t kTypeOffsetCdf[5];
extern const uint16_t kTypeOffsetJointCdf[20];
constexpr int32_t kTypeOffsetStart = 2;
extern const uint16_t kGainCdf[130];
constexpr int32_t kGainStart = 32;
extern const uint16_t kDeltaGainCdf[46];
constexpr int32_t kDeltaGainStart = 5;
extern const uint16_t kPitchLagNbCdf[130];
constexpr int32_t kPitchLagNbStart = 43;
extern const uint16_t kPitchLagMbCdf[194];
constexpr int32_t kPitchLagMbStart = 64;
extern const uint16_t kPitchLagWbCdf[258];
constexpr int32_t kPitchLagWbStart = 86;
extern const uint16_t kPitchLagSwbCdf[386];
constexpr int32_t kPitchLagSwbStart = 128;
extern const uint16_t kPitchContourCdf[35];
constexpr int32_t kPitchContourStart = 17;
extern const uint16_t kPitchContourNbCdf[12];
constexpr int32_t kPitchContourNbStart = 5;
extern const uint16_t kPulsesPerBlockCdf[210];
constexpr int32_t kPulsesPerBlockStart = 6;
extern const uint16_t kRateLevelCdf[20];
constexpr int32_t kRateLevelStart = 4;
extern const uint16_t kShellCdf0[33];
extern const uint16_t kShellCdf1[52];
extern const uint16_t kShellCdf2[102];
extern const uint16_t kShellCdf3[207];
extern const uint16_t kShellCdfOffset[19];
extern const uint16_t kSignCdf[36];
extern const uint16_t kLtpPeriodicityCdf[4];
constexpr int32_t kLtpPeriodicityStart = 1;
extern const uint16_t kLtpGainCdf0[11];
extern const uint16_t kLtpGainCdf1[21];
extern const uint16_t kLtpGainCdf2[41];
extern const int32_t kLtpGainStart[3];
extern const int16_t kLtpTaps0Q14[50];
extern const int16_t kLtpTaps1Q14[100];
extern const int16_t kLtpTaps2Q14[200];
extern const uint16_t kLsbCdf[3];
extern const uint16_t kLtpScaleCdf[4];
constexpr int32_t kLtpScaleStart = 2;
extern const int16_t kLtpScaleQ14[3];
extern const uint16_t kVadFlagCdf[3];
constexpr int32_t kVadFlagStart = 1;
extern const int32_t kInternalRatesKhz[4];
extern const uint16_t kInternalRateCdf[5];
constexpr int32_t kInternalRateStart = 2;
extern const uint16_t kNlsfInterpCdf[6];
constexpr int32_t kNlsfInterpStart = 4;
extern const uint16_t kFrameTerminationCdf[5];
constexpr int32_t kFrameTerminationStart = 2;
extern const uint16_t kSeedCdf[5];
constexpr int32_t kSeedStart = 2;
extern const int16_t kQuantOffsetQ10[4];
extern const int16_t kHighPassQ13[20];
extern const int16_t kPitchContourNbLags[44];
extern const int16_t kPitchContourLags[136];
extern const int32_t kCosTableQ12[129];
extern const int16_t kDown2of3Coefs[14];
extern const int16_t kDown1of2Coefs[8];
extern const int16_t kDown1of3Coefs[8];
extern const NlsfCodebook kNlsfCB0o10;
extern const NlsfCodebook kNlsfCB1o10;
extern const NlsfCodebook kNlsfCB0o16;
extern const NlsfCodebook kNlsfCB1o16;

}  // namespace quillon::silk

#endif
