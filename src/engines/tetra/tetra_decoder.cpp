#include "engines/tetra/tetra_decoder.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "engines/tetra/tetra_tables.h"
#include "primitives/celp_math.h"

// The synthesis filter's feedback sum and the output doubling use SSE2
// when the target has it (plain C++ otherwise, with the same results).
#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#define QUILLON_TETRA_SSE2 1
#include <emmintrin.h>
#else
#define QUILLON_TETRA_SSE2 0
#endif

namespace quillon::tetra {

namespace {

using fx::MAX_16;
using fx::MAX_32;
using fx::MIN_16;
using fx::MIN_32;
using fx::Word16;
using fx::Word32;

constexpr int kSubframes = kFrameSamples / kSubframeSamples;
constexpr int kLpcSize = kLpcOrder + 1;
constexpr int kMinLag = 20;
constexpr int kLagRangeSpan = 9;
// Zeros kept in front of the shaping filter's impulse response: the pulse
// positions (up to 62) plus the one-sample shift reach that far back.
constexpr int kShapingLead = 64;

constexpr Word16 kHomeLsp[kLpcOrder] = {30000, 26000, 21000, 15000, 8000,
                                        0,     -8000, -15000, -21000, -26000};
constexpr Word16 kShapingFactorNumerator = 24576;    // 0.75 in Q15
constexpr Word16 kShapingFactorDenominator = 27853;  // 0.85 in Q15
// Fixed pitch sharpening of the innovation filter, 0.8 in Q15.
constexpr Word16 kPitchSharpening = 26216;
constexpr Word16 kHomingSample = 8;

// Bit widths of the 23 speech parameters in stream order.
constexpr int kFieldWidths[kSpeechParams] = {8, 9, 9,           //
                                             8, 14, 1, 1, 6,    //
                                             5, 14, 1, 1, 6,    //
                                             5, 14, 1, 1, 6,    //
                                             5, 14, 1, 1, 6};

// The first 136 bits of the decoder homing frame; bit 136 is 1 as well.
constexpr uint8_t kHomingPattern[17] = {0xBF, 0x73, 0xD4, 0xC3, 0x74, 0xF3, 0x80, 0x3F, 0x38,
                                        0x60, 0x04, 0xE7, 0x88, 0x07, 0x28, 0x63, 0xE4};

// Sum of the magnitudes of the interpolation taps: a dot product with
// samples no larger than 2^31 / kTapMagnitude cannot leave 32 bits.
constexpr Word32 kTapMagnitude = [] {
  Word32 s = 0;
  for (int16_t t : kThirdTaps) s += t < 0 ? -t : t;
  return s;
}();
constexpr int kSafeInterpolationInput = static_cast<int>(MAX_32 / kTapMagnitude);
constexpr std::array<int16_t, 32> kThirdTapsReversed = [] {
  std::array<int16_t, 32> r{};
  for (int k = 0; k < 32; k++) r[k] = kThirdTaps[31 - k];
  return r;
}();

inline int magnitude(int v) { return v < 0 ? -v : v; }

// Per-frame decoding work on a decoder state. The arithmetic follows the
// ETSI reference operator by operator where saturation may occur; the hot
// filters take a plain integer path when a bound proves that no
// intermediate 32-bit sum can saturate, and the exact path otherwise.
class FrameDecoder {
 public:
  explicit FrameDecoder(TetraDecoderState& state) : s_(state), op_(state) {}

  void decode(const int16_t params[kUnpackedParams], int16_t speech[kFrameSamples]);

 private:
  // ---- TETRA flavour of the extended-precision helpers -------------------
  // acc + v * 2^shift, saturated (shift <= 15).
  Word32 addShifted(Word32 acc, Word16 v, int shift) {
    return op_.L_sub(acc, static_cast<Word32>(v) * -(1 << shift));
  }
  // acc - v * 2^shift, saturated.
  Word32 subShifted(Word32 acc, Word16 v, int shift) {
    return op_.L_add(acc, static_cast<Word32>(v) * -(1 << shift));
  }
  // L >> (16 - shift), keeping the low 16 bits.
  Word16 storeHigh(Word32 L, int shift) { return static_cast<Word16>(op_.L_shr(L, static_cast<Word16>(16 - shift))); }
  // TETRA splits a 32-bit value as hi * 2^15 + lo with lo in [0, 32767]
  // (unlike the ITU split hi * 2^16 + lo * 2).
  void split15(Word32 L, Word16& hi, Word16& lo) {
    hi = fx::BasicOps::extract_h(op_.L_shl(L, 1));
    lo = fx::BasicOps::extract_l(op_.L_add(L, static_cast<Word32>(hi) * -32768));
  }
  // (hi * 2^15 + lo) * v / 2^15 for a split value and a 16-bit factor.
  Word32 multiplySplit(Word16 hi, Word16 lo, Word16 v) {
    Word16 low = fx::BasicOps::extract_h(static_cast<Word32>(lo) * v);
    return addShifted(static_cast<Word32>(hi) * v, low, 1);
  }
  void log2(Word32 L, Word16& exponent, Word16& fraction);
  Word32 pow2(Word16 exponent, Word16 fraction);

  // ---- LPC --------------------------------------------------------------
  void decodeLsp(const int16_t* index, Word16 lsp[kLpcOrder]);
  void lspPolynomial(const Word16* lsp, Word32 f[6]);
  void lspToLpc(const Word16 lsp[kLpcOrder], Word16 a[kLpcSize]);
  void interpolateLpc(const Word16 lspNew[kLpcOrder], Word16 a[kSubframes * kLpcSize]);
  void weightLpc(const Word16 a[kLpcSize], const Word16 factors[kLpcOrder], Word16 out[kLpcSize]);

  // 1/A(z) over one subframe: y = x filtered with memory mem (10 past
  // outputs, oldest first); mem is updated when keepMemory is set.
  void synthesise(const Word16 a[kLpcSize], const Word16* x, Word16* y, Word16 mem[kLpcOrder],
                  bool keepMemory);
  Word16 synthesisSampleExact(const Word16 a[kLpcSize], Word16 x, const Word16* past);

  // ---- excitation -------------------------------------------------------
  void adaptiveCodebook(Word16* exc, int lag, int fraction);
  Word16 interpolateExact(const Word16* exc, int at, int fraction);
  void innovation(int index, int sign, int shift, const Word16* filter, Word16 code[kSubframeSamples]);
  void decodeGains(int index, bool bad, const Word16 a[kLpcSize], const Word16* adaptive,
                   const Word16* code, Word16& pitchGain, Word16& codeGain);

  Word32 saturatedEnergy(const Word16* x, int n, Word32 start) {
    int64_t e = start;
    for (int i = 0; i < n; i++) e += static_cast<int32_t>(x[i]) * x[i];
    if (e > MAX_32) {
      op_.Overflow = true;
      return MAX_32;
    }
    return static_cast<Word32>(e);
  }

  TetraDecoderState& s_;
  fx::BasicOps& op_;
};

// ---------------------------------------------------------------------------
// Logarithm and power of two (table interpolation, TETRA tables).

void FrameDecoder::log2(Word32 L, Word16& exponent, Word16& fraction) { fx::log2(op_, L, exponent, fraction); }

Word32 FrameDecoder::pow2(Word16 exponent, Word16 fraction) { return fx::pow2(op_, exponent, fraction); }

// ---------------------------------------------------------------------------
// LSP dequantisation and conversion to LPC coefficients.

void FrameDecoder::decodeLsp(const int16_t* index, Word16 lsp[kLpcOrder]) {
  std::memcpy(&lsp[0], &kLspBookLow[index[0] * 3], 3 * sizeof(Word16));
  std::memcpy(&lsp[3], &kLspBookMid[index[1] * 3], 3 * sizeof(Word16));
  std::memcpy(&lsp[6], &kLspBookHigh[index[2] * 4], 4 * sizeof(Word16));

  // Keep a minimum distance across the two codebook boundaries.
  auto spread = [&](int k, Word16 minGap) {
    Word16 t = op_.add(op_.sub(minGap, lsp[k]), lsp[k + 1]);
    if (t > 0) {
      t = static_cast<Word16>(t >> 1);
      lsp[k] = op_.add(lsp[k], t);
      lsp[k + 1] = op_.sub(lsp[k + 1], t);
    }
  };
  spread(2, 917);   // 50 Hz around 1000 Hz
  spread(5, 1245);  // 50 Hz around 1600 Hz

  // Unordered LSPs would give an unstable filter: repeat the previous set.
  for (int i = 0; i < kLpcOrder - 1; i++) {
    if (lsp[i] <= lsp[i + 1]) {
      std::memcpy(lsp, s_.previousLsp, sizeof(s_.previousLsp));
      return;
    }
  }
}

// Coefficients (Q24) of the product over q = lsp[0], lsp[2], ..., lsp[8] of
// (1 - 2q z^-1 + z^-2), in plain integers. While every coefficient stays below
// 2^28 in magnitude no operator of the exact version can saturate and the
// 15-bit split is a plain shift and mask; returns false when that bound was
// reached, and the caller recomputes with the saturating operators.
bool lspPolynomialPlain(const Word16* lsp, Word32 f[6]) {
  f[0] = 1 << 24;
  f[1] = static_cast<Word32>(lsp[0]) * -1024;
  for (int i = 2; i <= 5; i++) {
    // Each pass reads only values of the previous pass (all below 2^28),
    // so nothing here can leave 32 bits.
    const Word32 q = lsp[2 * (i - 1)];
    f[i] = f[i - 2];
    uint32_t seen = 0;
    for (int k = i; k >= 2; k--) {
      const Word32 v = f[k - 1];
      const Word32 product = (v >> 15) * q + 2 * (((v & 0x7fff) * q) >> 16);
      f[k] = f[k] + f[k - 2] - 2 * product;
      seen |= static_cast<uint32_t>(magnitude(f[k]));
    }
    f[1] -= q * 1024;
    seen |= static_cast<uint32_t>(magnitude(f[1]));
    if (seen >= (1u << 28)) return false;
  }
  return true;
}

// The same with the reference's saturating operators and 15-bit split.
void FrameDecoder::lspPolynomial(const Word16* lsp, Word32 f[6]) {
  if (lspPolynomialPlain(lsp, f)) return;
  f[0] = 1 << 24;
  f[1] = static_cast<Word32>(lsp[0]) * -1024;
  for (int i = 2; i <= 5; i++) {
    const Word16 q = lsp[2 * (i - 1)];
    f[i] = f[i - 2];
    for (int k = i; k >= 2; k--) {
      Word16 hi, lo;
      split15(f[k - 1], hi, lo);
      Word32 t = op_.L_shl(multiplySplit(hi, lo, q), 1);
      f[k] = op_.L_sub(op_.L_add(f[k], f[k - 2]), t);
    }
    f[1] = subShifted(f[1], q, 10);
  }
}

void FrameDecoder::lspToLpc(const Word16 lsp[kLpcOrder], Word16 a[kLpcSize]) {
  Word32 sum[6], diff[6];
  lspPolynomial(&lsp[0], sum);
  lspPolynomial(&lsp[1], diff);
  for (int i = 5; i > 0; i--) {
    sum[i] = op_.L_add(sum[i], sum[i - 1]);
    diff[i] = op_.L_sub(diff[i], diff[i - 1]);
  }
  a[0] = 4096;
  for (int i = 1; i <= 5; i++) {
    a[i] = fx::BasicOps::extract_l(op_.L_shr_r(op_.L_add(sum[i], diff[i]), 13));
    a[kLpcOrder + 1 - i] = fx::BasicOps::extract_l(op_.L_shr_r(op_.L_sub(sum[i], diff[i]), 13));
  }
}

// LPC sets of the four subframes: LSPs weighted 3/4, 1/2, 1/4 towards the
// new frame, then the new LSPs themselves.
void FrameDecoder::interpolateLpc(const Word16 lspNew[kLpcOrder], Word16 a[kSubframes * kLpcSize]) {
  Word16 oldWeight = 24576, newWeight = 8192;
  for (int sf = 0; sf < kSubframes - 1; sf++) {
    Word16 lsp[kLpcOrder];
    for (int i = 0; i < kLpcOrder; i++) {
      Word32 t = op_.L_mac(op_.L_mult(s_.previousLsp[i], oldWeight), lspNew[i], newWeight);
      lsp[i] = fx::BasicOps::extract_h(t);
    }
    lspToLpc(lsp, &a[sf * kLpcSize]);
    oldWeight = static_cast<Word16>(oldWeight - 8192);
    newWeight = static_cast<Word16>(newWeight + 8192);
  }
  lspToLpc(lspNew, &a[(kSubframes - 1) * kLpcSize]);
}

// a[i] * factors[i - 1], rounded Q15 product. The factors are positive
// and below 0.85, so neither the doubling nor the rounding can saturate.
void FrameDecoder::weightLpc(const Word16 a[kLpcSize], const Word16 factors[kLpcOrder],
                             Word16 out[kLpcSize]) {
  out[0] = a[0];
  for (int i = 1; i <= kLpcOrder; i++)
    out[i] = static_cast<Word16>((2 * static_cast<Word32>(a[i]) * factors[i - 1] + 0x8000) >> 16);
}

// ---------------------------------------------------------------------------
// Synthesis filter 1/A(z), coefficients in Q12.

Word16 FrameDecoder::synthesisSampleExact(const Word16 a[kLpcSize], Word16 x, const Word16* past) {
  Word32 s = static_cast<Word32>(x) * 4096;
  for (int j = 1; j <= kLpcOrder; j++) s = op_.L_sub(s, static_cast<Word32>(a[j]) * past[-j]);
  s = op_.L_add(s, 2048);
  return fx::BasicOps::extract_h(op_.L_shl(s, 4));
}

void FrameDecoder::synthesise(const Word16 a[kLpcSize], const Word16* x, Word16* y,
                              Word16 mem[kLpcOrder], bool keepMemory) {
  // The feedback sum runs over 16 taps, the first six of them zero, so that
  // it is two whole vectors of 16-bit products.
  constexpr int kTaps = 16;
  constexpr int kPad = kTaps - kLpcOrder;
  Word16 work[kTaps + kSubframeSamples];
  std::fill(work, work + kPad, Word16{0});
  std::memcpy(work + kPad, mem, kLpcOrder * sizeof(Word16));
  Word16* out = work + kTaps;

  // Coefficients in reverse order so that the sum runs forwards over the
  // last outputs.
  Word16 reversed[kTaps] = {};
  int64_t coefMagnitude = 0;
  for (int j = 1; j <= kLpcOrder; j++) {
    reversed[kTaps - j] = a[j];
    coefMagnitude += magnitude(a[j]);
  }
#if QUILLON_TETRA_SSE2
  const __m128i coefLow = _mm_loadu_si128(reinterpret_cast<const __m128i*>(reversed));
  const __m128i coefHigh = _mm_loadu_si128(reinterpret_cast<const __m128i*>(reversed + 8));
#endif
  auto plainSample = [&](int i) {
    const Word16* past = out + i - kTaps;
#if QUILLON_TETRA_SSE2
    __m128i p = _mm_add_epi32(
        _mm_madd_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(past)), coefLow),
        _mm_madd_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(past + 8)), coefHigh));
    p = _mm_add_epi32(p, _mm_shuffle_epi32(p, 0x4e));
    p = _mm_add_epi32(p, _mm_shuffle_epi32(p, 0xb1));
    Word32 s = static_cast<Word32>(x[i]) * 4096 - _mm_cvtsi128_si32(p);
#else
    Word32 s = static_cast<Word32>(x[i]) * 4096;
    for (int j = 0; j < kTaps; j++) s -= static_cast<Word32>(reversed[j]) * past[j];
#endif
    s = (s + 2048) >> 12;
    if (s > MAX_16) {
      op_.Overflow = true;
      return MAX_16;
    }
    if (s < MIN_16) {
      op_.Overflow = true;
      return MIN_16;
    }
    return static_cast<Word16>(s);
  };

  // Every partial sum of a sample is bounded by |x| * 4096 + sum|a| * max|y|
  // (plus 2048 for the rounding); usually the coefficients alone settle it.
  const auto boundHolds = [&](int64_t inputMagnitude, int64_t outputMagnitude) {
    return inputMagnitude * 4096 + coefMagnitude * outputMagnitude + 2048 <= MAX_32;
  };
  const auto largestInput = [&] {
    int m = 0;
    for (int i = 0; i < kSubframeSamples; i++) m = std::max(m, magnitude(x[i]));
    return m;
  };
  if (boundHolds(32768, 32768) || boundHolds(largestInput(), 32768)) {
    for (int i = 0; i < kSubframeSamples; i++) out[i] = plainSample(i);
  } else {
    // Large coefficients: bound each sample with the largest output so far
    // and fall back to the saturating sum when the bound is exceeded.
    int largest = 0;
    for (int j = 0; j < kLpcOrder; j++) largest = std::max(largest, magnitude(mem[j]));
    for (int i = 0; i < kSubframeSamples; i++) {
      const bool plain = boundHolds(magnitude(x[i]), largest);
      const Word16 v = plain ? plainSample(i) : synthesisSampleExact(a, x[i], &out[i]);
      out[i] = v;
      largest = std::max(largest, magnitude(v));
    }
  }
  std::memcpy(y, out, kSubframeSamples * sizeof(Word16));
  if (keepMemory) std::memcpy(mem, out + kSubframeSamples - kLpcOrder, kLpcOrder * sizeof(Word16));
}

// ---------------------------------------------------------------------------
// Adaptive codebook: the past excitation delayed by lag + fraction / 3.

Word16 FrameDecoder::interpolateExact(const Word16* exc, int at, int fraction) {
  Word32 s = 0;
  if (fraction > 0) {
    const Word16* x = exc + at - 16;
    for (int k = 0; k < 32; k++) s = op_.L_add(s, static_cast<Word32>(x[k]) * kThirdTaps[k]);
  } else {
    const Word16* x = exc + at - 15;
    for (int k = 0; k < 32; k++) s = op_.L_add(s, static_cast<Word32>(x[k]) * kThirdTaps[31 - k]);
  }
  return op_.round(op_.L_add(s, s));
}

void FrameDecoder::adaptiveCodebook(Word16* exc, int lag, int fraction) {
  if (fraction == 0) {
    for (int i = 0; i < kSubframeSamples; i++) exc[i] = exc[i - lag];
    return;
  }
  // The filter reads exc[i - lag - 16 .. i - lag + 15] (one third) or
  // exc[i - lag - 15 .. i - lag + 16] (minus one third, taps reversed);
  // samples written in this subframe are read again when the lag is short.
  const int16_t* taps = fraction > 0 ? kThirdTaps.data() : kThirdTapsReversed.data();
  const int start = -lag - (fraction > 0 ? 16 : 15);
  int largest = 0;
  for (int k = start; k < 0; k++) largest = std::max(largest, magnitude(exc[k]));

  for (int i = 0; i < kSubframeSamples; i++) {
    Word16 v;
    if (largest <= kSafeInterpolationInput) {
      const Word16* x = exc + start + i;
      Word32 s = 0;
      for (int k = 0; k < 32; k++) s += static_cast<Word32>(x[k]) * taps[k];
      // Saturating doubling and rounding to 16 bits.
      int64_t d = static_cast<int64_t>(s) * 2 + 0x8000;
      if (d > MAX_32) {
        op_.Overflow = true;
        v = MAX_16;
      } else if (d < MIN_32) {
        op_.Overflow = true;
        v = MIN_16;
      } else {
        v = static_cast<Word16>(d >> 16);
      }
    } else {
      v = interpolateExact(exc, i - lag, fraction);
    }
    exc[i] = v;
    largest = std::max(largest, magnitude(v));
  }
}

// ---------------------------------------------------------------------------
// Algebraic codebook: four pulses (+sqrt(2), -1, +1, -1) on a grid of even
// positions, optionally shifted by one sample and negated, passed through the
// shaping filter whose impulse response is `filter` (preceded by zeros).

void FrameDecoder::innovation(int index, int sign, int shift, const Word16* filter,
                              Word16 code[kSubframeSamples]) {
  const int pos0 = (index & 31) << 1;
  const int pos1 = ((index >> 5) & 7) * 8 + 2;
  const int pos2 = ((index >> 8) & 7) * 8 + 4;  // 60: pulse unused
  const int pos3 = ((index >> 11) & 7) * 8 + 6;  // 62: pulse unused
  const Word16* f = filter - shift;
  const Word16* p0 = f - pos0;
  const Word16* p1 = f - pos1;
  const Word16* p2 = f - pos2;
  const Word16* p3 = f - pos3;
  // |sum| < 2^29: no saturation; the result keeps the low 16 bits of the
  // Q11 -> Q0 shift like the reference.
  for (int i = 0; i < kSubframeSamples; i++) {
    Word32 t = static_cast<Word32>(p0[i]) * 2896 + (p2[i] - p1[i] - p3[i]) * 2048;
    if (sign != 0) t = -t;
    code[i] = static_cast<Word16>(t >> 11);
  }
}

// ---------------------------------------------------------------------------
// Gains: the energies of the adaptive and innovative excitation filtered by
// 1/A(z) are predicted from the previous quantised energies and corrected by
// the transmitted index.

void FrameDecoder::decodeGains(int index, bool bad, const Word16 a[kLpcSize], const Word16* adaptive,
                               const Word16* code, Word16& pitchGain, Word16& codeGain) {
  // Energy of the impulse response of 1/A(z) over one subframe.
  Word16 impulse[kSubframeSamples] = {1024};
  Word16 zeroMemory[kLpcOrder] = {};
  synthesise(a, impulse, impulse, zeroMemory, false);
  Word32 L = saturatedEnergy(impulse, kSubframeSamples, 0);
  const Word16 lpcExp = fx::BasicOps::norm_l(L);
  const Word16 lpcEnergy = fx::BasicOps::extract_h(op_.L_shl(L, lpcExp));

  Word16 e, frac;
  // Log energy of the adaptive excitation after 1/A(z), Q8.
  L = saturatedEnergy(adaptive, kSubframeSamples, 1);
  Word16 adaptiveExp = fx::BasicOps::norm_l(L);
  Word16 adaptiveEnergy = fx::BasicOps::extract_h(op_.L_shl(L, adaptiveExp));
  L = static_cast<Word32>(adaptiveEnergy) * lpcEnergy;
  adaptiveExp = op_.add(adaptiveExp, lpcExp);
  log2(L, e, frac);
  L = op_.L_msu(0, e, -32768);
  L = addShifted(L, frac, 1);
  L = op_.L_mac(L, adaptiveExp, -32768);
  L = addShifted(L, 1710, 8);
  adaptiveEnergy = fx::BasicOps::extract_l(op_.L_shr(L, 8));

  // Log energy of the innovation after 1/A(z), Q8.
  L = saturatedEnergy(code, kSubframeSamples, 0);
  Word16 codeEnergy = fx::BasicOps::extract_h(L);
  L = static_cast<Word32>(codeEnergy) * lpcEnergy;
  log2(L, e, frac);
  L = op_.L_msu(0, e, -32768);
  L = addShifted(L, frac, 1);
  L = op_.L_mac(L, lpcExp, -32768);
  L = subShifted(L, 4434, 8);
  codeEnergy = fx::BasicOps::extract_l(op_.L_shr(L, 8));

  if (bad) {
    // Lost frame: both energies decay by 0.5 (Q8 128) down to 0.
    s_.pitchEnergy = std::max<Word16>(op_.sub(s_.pitchEnergy, 128), 0);
    s_.codeEnergy = std::max<Word16>(op_.sub(s_.codeEnergy, 128), 0);
  } else {
    // Predictions 0.5 * own + 0.25 * other - 3.0, not below 0.
    Word32 p = addShifted(static_cast<Word32>(s_.pitchEnergy) * 256, s_.codeEnergy, 7);
    p = subShifted(p, 768, 9);
    const Word16 pitchPrediction = storeHigh(std::max<Word32>(p, 0), 7);
    Word32 c = addShifted(static_cast<Word32>(s_.codeEnergy) * 256, s_.pitchEnergy, 7);
    c = subShifted(c, 768, 9);
    const Word16 codePrediction = storeHigh(std::max<Word32>(c, 0), 7);

    s_.pitchEnergy = op_.add(kGainBook[2 * index], pitchPrediction);
    s_.codeEnergy = op_.add(kGainBook[2 * index + 1], codePrediction);
    // Limits against transmission errors: 27 and 25 in Q8.
    if (s_.pitchEnergy > 6912) s_.pitchEnergy = 6912;
    if (s_.codeEnergy > 6400) s_.codeEnergy = 6400;
  }

  // Pitch gain 2^((pitchEnergy - adaptiveEnergy) / 2) in Q12, at most 1.2.
  L = static_cast<Word32>(s_.pitchEnergy) * 64;
  L = subShifted(L, adaptiveEnergy, 6);
  L = addShifted(L, 12, 15);
  split15(L, e, frac);
  L = pow2(e, frac);
  if (L > 4915) L = 4915;
  pitchGain = fx::BasicOps::extract_l(L);

  // Code gain 2^((codeEnergy - innovation energy) / 2), low 16 bits kept.
  L = static_cast<Word32>(s_.codeEnergy) * 64;
  L = subShifted(L, codeEnergy, 6);
  split15(L, e, frac);
  codeGain = fx::BasicOps::extract_l(pow2(e, frac));
}

// ---------------------------------------------------------------------------

void FrameDecoder::decode(const int16_t params[kUnpackedParams], int16_t speech[kFrameSamples]) {
  const bool bad = params[0] != 0;
  const int16_t* prm;
  Word16 lspNew[kLpcOrder];
  if (!bad) {
    prm = params + 1;
    decodeLsp(prm, lspNew);
    std::memcpy(s_.lastGoodParams, prm, sizeof(s_.lastGoodParams));
    s_.lastLspFirst = lspNew[0];
  } else {
    // Decode the last good frame's parameters again with the previous LSPs
    // (from index 1 on; see lastLspFirst).
    prm = s_.lastGoodParams;
    lspNew[0] = s_.lastLspFirst;
    std::memcpy(&lspNew[1], &s_.previousLsp[1], (kLpcOrder - 1) * sizeof(Word16));
  }

  Word16 lpc[kSubframes * kLpcSize];
  interpolateLpc(lspNew, lpc);
  std::memcpy(s_.previousLsp, lspNew, sizeof(s_.previousLsp));

  Word16* exc = s_.excitation + kExcitationGuard + kExcitationHistory;
  int lag = s_.previousLag, fraction = 0, lagLow = 0;
  const int16_t* sub = prm + 3;
  for (int sf = 0; sf < kSubframes; sf++, sub += 5) {
    const Word16* a = &lpc[sf * kLpcSize];
    Word16* subExc = exc + sf * kSubframeSamples;
    const int lagIndex = sub[0];

    // Pitch lag in thirds of a sample.
    if (sf == 0) {
      if (!bad) {
        if (lagIndex < 197) {
          lag = (lagIndex + 2) / 3 + 19;
          fraction = lagIndex - 3 * lag + 58;
        } else {
          lag = lagIndex - 112;
          fraction = 0;
        }
      } else {
        lag = s_.previousLag;
        fraction = 0;
      }
      lagLow = std::max(lag - 5, kMinLag);
      if (lagLow + kLagRangeSpan > kMaxLag) lagLow = kMaxLag - kLagRangeSpan;
    } else if (!bad) {
      const int steps = (lagIndex + 2) / 3 - 1;
      lag = lagLow + steps;
      fraction = lagIndex - 2 - 3 * steps;
    }

    adaptiveCodebook(subExc, lag, fraction);

    // Innovation shaping filter A(z/0.75) / A(z/0.85) followed by a pitch
    // sharpening of 0.8 at the integer lag.
    Word16 numerator[kLpcSize], denominator[kLpcSize];
    weightLpc(a, s_.shapingNumerator, numerator);
    weightLpc(a, s_.shapingDenominator, denominator);
    Word16 shapingBuffer[kShapingLead + kSubframeSamples] = {};
    Word16* shaping = shapingBuffer + kShapingLead;
    std::memcpy(shaping, numerator, sizeof(numerator));
    Word16 zeroMemory[kLpcOrder] = {};
    synthesise(denominator, shaping, shaping, zeroMemory, false);
    for (int i = lag; i < kSubframeSamples; i++)
      shaping[i] = op_.saturate(shaping[i] + ((shaping[i - lag] * kPitchSharpening) >> 15));

    Word16 code[kSubframeSamples];
    innovation(sub[1], sub[2], sub[3], shaping, code);

    Word16 pitchGain, codeGain;
    decodeGains(sub[4], bad, a, subExc, code, pitchGain, codeGain);

    // Total excitation: adaptive (Q0) * pitch gain (Q12) + code (Q12) *
    // code gain (Q0), back to Q0 with rounding; the reference stores the low
    // 16 bits of the rounded value. The pitch gain is 0..4915, so the sum
    // stays below 2^15 * 4915 + 2^30 and its saturating add never clips.
    for (int i = 0; i < kSubframeSamples; i++) {
      const Word32 t = static_cast<Word32>(subExc[i]) * pitchGain + static_cast<Word32>(code[i]) * codeGain;
      subExc[i] = static_cast<Word16>((t >> 12) + ((t >> 11) & 1));
    }

    synthesise(a, subExc, &speech[sf * kSubframeSamples], s_.synthesisMemory, true);
  }

  std::memmove(s_.excitation + kExcitationGuard, s_.excitation + kExcitationGuard + kFrameSamples,
               kExcitationHistory * sizeof(Word16));
  s_.previousLag = static_cast<int16_t>(lag);
  s_.previousFraction = static_cast<int16_t>(fraction);
}

void powersOf(fx::BasicOps& op, Word16 factor, Word16 out[kLpcOrder]) {
  out[0] = factor;
  for (int i = 1; i < kLpcOrder; i++) out[i] = op.round(op.L_mult(out[i - 1], factor));
}

}  // namespace

void resetTetraDecoder(TetraDecoderState& state) {
  std::memset(state.excitation, 0, sizeof(state.excitation));
  std::memset(state.synthesisMemory, 0, sizeof(state.synthesisMemory));
  state.previousLag = 60;
  state.previousFraction = 0;
  std::memcpy(state.previousLsp, kHomeLsp, sizeof(kHomeLsp));
  powersOf(state, kShapingFactorNumerator, state.shapingNumerator);
  powersOf(state, kShapingFactorDenominator, state.shapingDenominator);
  state.pitchEnergy = 0;
  state.codeEnergy = 0;
  state.Overflow = false;
  state.homing = 1;
  state.badFrameOverride = 0;
  std::memset(state.lastGoodParams, 0, sizeof(state.lastGoodParams));
  state.lastLspFirst = 0;
}

void unpackTetraFrame(const uint8_t frame[kFrameBytes], int16_t params[kUnpackedParams]) {
  // Bit reader, most significant bit first: the low `have` bits of `bits`
  // are the next unread ones.
  const uint8_t* next = frame;
  uint64_t bits = 0;
  int have = 0;
  auto take = [&](int width) {
    while (have < width) {
      bits = (bits << 8) | *next++;
      have += 8;
    }
    have -= width;
    return static_cast<int16_t>((bits >> have) & ((1u << width) - 1));
  };
  for (int i = 0; i < kSpeechParams; i++) params[i + 1] = take(kFieldWidths[i]);
  params[0] = take(1);  // bit 137
}

bool isTetraHomingFrame(const uint8_t frame[kFrameBytes]) {
  return std::memcmp(frame, kHomingPattern, sizeof(kHomingPattern)) == 0 && (frame[17] & 0x80) != 0;
}

void decodeTetraFrame(TetraDecoderState& state, const uint8_t frame[kFrameBytes],
                      int16_t pcm[kFrameSamples]) {
  const bool homingFrame = isTetraHomingFrame(frame);
  if (homingFrame && state.homing) {
    std::fill(pcm, pcm + kFrameSamples, kHomingSample);
    resetTetraDecoder(state);
    return;
  }

  int16_t params[kUnpackedParams];
  unpackTetraFrame(frame, params);
  if (state.badFrameOverride) params[0] = 0;

  FrameDecoder(state).decode(params, pcm);
  // The reference's last step: every sample doubled with saturation.
  bool clipped = false;
#if QUILLON_TETRA_SSE2
  __m128i differs = _mm_setzero_si128();
  for (int i = 0; i < kFrameSamples; i += 8) {
    __m128i* p = reinterpret_cast<__m128i*>(pcm + i);
    const __m128i v = _mm_loadu_si128(p);
    const __m128i doubled = _mm_adds_epi16(v, v);
    differs = _mm_or_si128(differs, _mm_xor_si128(doubled, _mm_add_epi16(v, v)));
    _mm_storeu_si128(p, doubled);
  }
  clipped = _mm_movemask_epi8(_mm_cmpeq_epi16(differs, _mm_setzero_si128())) != 0xffff;
#else
  for (int i = 0; i < kFrameSamples; i++) {
    const int v = 2 * pcm[i];
    clipped |= v > MAX_16 || v < MIN_16;
    pcm[i] = static_cast<int16_t>(std::clamp(v, static_cast<int>(MIN_16), static_cast<int>(MAX_16)));
  }
#endif
  if (clipped) state.Overflow = true;

  state.homing = 0;
  if (homingFrame) resetTetraDecoder(state);
}

}  // namespace quillon::tetra
