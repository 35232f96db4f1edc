// Constant tables of the AMR-WB decoder (3GPP TS 26.173 / 26.201 values).
#ifndef QUILLON_AMRWB_TABLES_H
#define QUILLON_AMRWB_TABLES_H

#include <cstdint>

namespace quillon::amrwb::tables {

extern const int16_t kSortOrder660[132];
extern const int16_t kSortOrder885[177];
extern const int16_t kSortOrder1265[253];
extern const int16_t kSortOrder1425[285];
extern const int16_t kSortOrder1585[317];
extern const int16_t kSortOrder1825[365];
extern const int16_t kSortOrder1985[397];
extern const int16_t kSortOrder2305[461];
extern const int16_t kSortOrder2385[477];
extern const int16_t kSortOrderSid[35];
extern const int16_t kIsfMean[16];
extern const int16_t kIsfStage1Low[2304];
extern const int16_t kIsfStage1High[1792];
extern const int16_t kIsf46Split1[192];
extern const int16_t kIsf46Split2[384];
extern const int16_t kIsf46Split3[384];
extern const int16_t kIsf46Split4[96];
extern const int16_t kIsf46Split5[128];
extern const int16_t kIsf36Split1[640];
extern const int16_t kIsf36Split2[512];
extern const int16_t kIsf36Split3[448];
extern const int16_t kNoiseIsfMean[16];
extern const int16_t kNoiseIsf1[128];
extern const int16_t kNoiseIsf2[192];
extern const int16_t kNoiseIsf3[192];
extern const int16_t kNoiseIsf4[128];
extern const int16_t kNoiseIsf5[128];
extern const int16_t kGainTable6[128];
extern const int16_t kGainTable7[256];
extern const int16_t kCosineGrid[129];
extern const int16_t kPitchInterp[128];
extern const int16_t kUpsampleFir[120];
extern const int16_t kBandPass6k7k[31];
extern const int16_t kLowPass7k[31];
extern const int16_t kDispersionLow[64];
extern const int16_t kDispersionMid[64];
extern const int16_t kHomingMode0[9];
extern const int16_t kHomingMode1[12];
extern const int16_t kHomingMode2[17];
extern const int16_t kHomingMode3[19];
extern const int16_t kHomingMode4[22];
extern const int16_t kHomingMode5[25];
extern const int16_t kHomingMode6[27];
extern const int16_t kHomingMode7[31];
extern const int16_t kHomingMode8[32];

// Frame layout and start-up state shared by decoder and encoder
extern const int16_t kSpeechBits[9];          // speech bits per mode
extern const int16_t* const kSortOrders[9];   // bit importance order per mode
extern const int16_t kIspStart[16];           // ISPs and ISFs of a reset codec
extern const int16_t kIsfStart[16];

// Encoder analysis tables
extern const int16_t kLpcWindow[384];
extern const int16_t kLagWindowHi[16];
extern const int16_t kLagWindowLo[16];
extern const int16_t kChebyshevGrid[101];
extern const int16_t kAcosSlope[128];
extern const int16_t kOpenLoopWeight[199];
extern const int16_t kDecimationFir[120];
extern const int16_t kPitchCorrInterp[32];
extern const int16_t kHfGain[16];

}  // namespace quillon::amrwb::tables

#endif
