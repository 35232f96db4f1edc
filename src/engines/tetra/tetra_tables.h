// Constant tables of the TETRA speech decoder (values of ETSI EN 300 395-2).
#ifndef QUILLON_TETRA_TABLES_H
#define QUILLON_TETRA_TABLES_H

#include <array>
#include <cstdint>

namespace quillon::tetra {

extern const int16_t kLspBookLow[256 * 3];
extern const int16_t kLspBookMid[512 * 3];
extern const int16_t kLspBookHigh[512 * 4];
extern const int16_t kGainBook[64 * 2];

// 32-tap interpolation filter for a delay of one third of a sample (centre
// taps 13496, 27072); the filter for minus one third is the same taps in
// reverse order.
inline constexpr std::array<int16_t, 32> kThirdTaps = {
    -47,   59,    -84,   125,   -183, 263,   -366,  500,  -672,  893,  -1185,
    1587,  -2182, 3179,  -5287, 13496, 27072, -6669, 3688, -2452, 1758, -1304,
    981,   -739,  553,   -407,  294,   -207,  142,   -96,  66,    -49};

}  // namespace quillon::tetra

#endif
