// Shared ICELP48 synthesis pieces: the line spectral quantiser, the gain
// tables, the stochastic codebook, the adaptive-codebook interpolation and
// the LPC <-> line spectral frequency conversions. The decoder and the
// encoder use the same functions so that the encoder's local synthesis is
// the decoder's.
#ifndef QUILLON_ICELP48_DSP_H
#define QUILLON_ICELP48_DSP_H

#include <cstdint>

#include "engines/icelp48/icelp48_frame.h"

namespace quillon::icelp48 {

// ---- line spectral quantiser --------------------------------------------
// The 25-bit index is a mixed-radix number: digit k (least significant
// first) selects one of kLsfLevels[k] frequencies for the k-th line.
constexpr int kLsfLevels[kOrder] = {5, 8, 8, 7, 7, 6, 5, 4, 4, 4};
// The product of the radices; indices at or above it use the clamped top digit.
constexpr uint32_t kLsfIndexCount = 30105600u;
// Smallest distance kept between neighbouring lines (Hz).
constexpr float kLsfMinGap = 60.0f;

// Decodes a 25-bit index to ten ascending frequencies in Hz.
void decodeLsf(uint32_t index, float lsfHz[kOrder]);
// Chooses the index of the nearest codebook frequencies.
uint32_t encodeLsf(const float lsfHz[kOrder]);
// The start-up frequencies (evenly spread over the band).
void initialLsf(float lsfHz[kOrder]);

// a[0] = 1, a[1..10]: A(z) = 1 + sum a[k] z^-k.
void lsfToLpc(const float lsfHz[kOrder], float a[kOrder + 1]);
// Returns false when the ten lines could not all be found.
bool lpcToLsf(const float a[kOrder + 1], float lsfHz[kOrder]);
// Levinson-Durbin on r[0..10]; returns false for a non-positive r[0].
bool levinson(const float r[kOrder + 1], float a[kOrder + 1]);
// a_out[k] = a[k] * g^k.
void bandwidthExpand(const float a[kOrder + 1], float g, float out[kOrder + 1]);

// ---- gains ---------------------------------------------------------------
extern const float kPitchGain[16];
extern const float kSharpening[8];
// Fixed-codebook gain of a code 0..169 (0: silence; then 0.5 dB steps).
float fixedGainValue(int code);
int quantiseFixedGain(float g);

// ---- codebooks -----------------------------------------------------------
constexpr int kFixedVectors = 512;
constexpr int kCodebookShift = 2;
constexpr int kCodebookLength = kSubframeLength + kCodebookShift * (kFixedVectors - 1);
// Ternary samples (-1, 0, +1); vector i is samples 2i .. 2i+59.
const int8_t* codebookBase();

// Builds the adaptive-codebook vector for a subframe in place: exc points at
// the subframe start inside a history holding at least kMaxLag + 4 samples
// before it. Lag lag + fraction/4 (fraction 0..3).
void adaptiveVector(float* exc, int lag, int fraction);

// Applies 1/(1 - beta z^-lag) to a 60-sample vector (no effect for lag >= 60).
void sharpen(float* v, int lag, float beta);

}  // namespace quillon::icelp48

#endif
