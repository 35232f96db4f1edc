#include "engines/g722/g722_engine.h"
#include "engines/g722/g722_zero_section.h"

#include <array>
#include <cstring>

// Where a product or sum below is written with plain integer arithmetic
// instead of a saturating operator, its operands are bounded so that the
// operator could not saturate:
//   det   in [32, 16384] (scale table), nb in [0, 22528];
//   |d|   <= 10228 (lower band), <= 3704 (upper band);
//   |a2|  <= 12288, |a1| <= 15360 + 12288;
//   b     stays inside [-32768, 32767] by construction of its update;
//   QMF   sum of |coefficients| is 25928, so a 24-tap sum of 16-bit
//         samples stays below 2^30.
// Products x*y >> 15 with such operands equal the truncating Q15 multiply.

namespace quillon::g722 {

namespace {

using Table16 = std::array<int16_t, 16>;
using Table64 = std::array<int16_t, 64>;

// Scale factor table: 2^(i/32) in 12-bit steps (i = 0..352). The quantizer
// scale is (entry + 1) * 4; the lower band reads it 64 entries further on.
constexpr int16_t kIla[353] = {
    1,    1,    1,    1,    1,    1,    1,    1,    1,    1,    1,    1,    1,    1,    1,    1,
    1,    1,    1,    2,    2,    2,    2,    2,    2,    2,    2,    2,    2,    2,    2,    2,
    3,    3,    3,    3,    3,    3,    3,    3,    3,    3,    3,    4,    4,    4,    4,    4,
    4,    4,    4,    5,    5,    5,    5,    5,    5,    5,    6,    6,    6,    6,    6,    6,
    7,    7,    7,    7,    7,    7,    8,    8,    8,    8,    8,    9,    9,    9,    9,    10,
    10,   10,   10,   11,   11,   11,   11,   12,   12,   12,   13,   13,   13,   13,   14,   14,
    15,   15,   15,   16,   16,   16,   17,   17,   18,   18,   18,   19,   19,   20,   20,   21,
    21,   22,   22,   23,   23,   24,   24,   25,   25,   26,   27,   27,   28,   28,   29,   30,
    31,   31,   32,   33,   33,   34,   35,   36,   37,   37,   38,   39,   40,   41,   42,   43,
    44,   45,   46,   47,   48,   49,   50,   51,   52,   54,   55,   56,   57,   58,   60,   61,
    63,   64,   65,   67,   68,   70,   71,   73,   75,   76,   78,   80,   82,   83,   85,   87,
    89,   91,   93,   95,   97,   99,   102,  104,  106,  109,  111,  113,  116,  118,  121,  124,
    127,  129,  132,  135,  138,  141,  144,  147,  151,  154,  157,  161,  165,  168,  172,  176,
    180,  184,  188,  192,  196,  200,  205,  209,  214,  219,  223,  228,  233,  238,  244,  249,
    255,  260,  266,  272,  278,  284,  290,  296,  303,  310,  316,  323,  331,  338,  345,  353,
    361,  369,  377,  385,  393,  402,  411,  420,  429,  439,  448,  458,  468,  478,  489,  500,
    511,  522,  533,  545,  557,  569,  582,  594,  607,  621,  634,  648,  663,  677,  692,  707,
    723,  739,  755,  771,  788,  806,  823,  841,  860,  879,  898,  918,  938,  958,  979,  1001,
    1023, 1045, 1068, 1092, 1115, 1140, 1165, 1190, 1216, 1243, 1270, 1298, 1327, 1356, 1386, 1416,
    1447, 1479, 1511, 1544, 1578, 1613, 1648, 1684, 1721, 1759, 1797, 1837, 1877, 1918, 1960, 2003,
    2047, 2092, 2138, 2185, 2232, 2281, 2331, 2382, 2434, 2488, 2542, 2598, 2655, 2713, 2773, 2833,
    2895, 2959, 3024, 3090, 3157, 3227, 3297, 3370, 3443, 3519, 3596, 3675, 3755, 3837, 3921, 4007,
    4095};

constexpr std::array<int16_t, 353> makeScaleTable() {
  std::array<int16_t, 353> t{};
  for (int i = 0; i < 353; i++) t[i] = static_cast<int16_t>((kIla[i] + 1) * 4);
  return t;
}
constexpr std::array<int16_t, 353> kScale = makeScaleTable();

constexpr int kLowerNbMax = 18432;
constexpr int kUpperNbMax = 22528;
constexpr int kLowerDetInit = 32;
constexpr int kUpperDetInit = 8;

// ---- Quantizer output levels (magnitudes, in units of det/8) ------------
// The lower-band codes order their magnitudes from the largest code
// downwards; these helpers turn a code into a (magnitude index, negative)
// pair for the 4-, 5- and 6-bit interpretations.
constexpr int16_t kLevels4[8] = {0, 150, 323, 530, 786, 1121, 1612, 2557};
constexpr int16_t kLevels5[16] = {0, 35, 110, 190, 276, 370, 473, 587, 714, 858, 1023, 1219, 1458, 1765, 2195, 2919};
constexpr int16_t kLevels6[31] = {0,   17,  54,  91,  130, 170, 211,  254,  300,  347,  396,
                                  447, 501, 558, 618, 682, 750, 822,  899,  982,  1072, 1170,
                                  1279, 1399, 1535, 1689, 1873, 2088, 2376, 2738, 3101};

// 4-bit code c (0..15): 0 and 15 are the zero level with positive sign,
// 1..7 negative levels 7..1, 8..14 positive levels 7..1.
constexpr int level4(int c) { return c == 0 ? 0 : (c < 8 ? 8 - c : 15 - c); }
constexpr bool negative4(int c) { return c >= 1 && c <= 7; }
// 5-bit code c (0..31): 0, 1, 31 map to level 1 negative; 2..15 negative
// levels 15..2; 16..30 positive levels 15..1.
constexpr int level5(int c) { return c <= 1 || c == 31 ? 1 : (c < 16 ? 17 - c : 31 - c); }
constexpr bool negative5(int c) { return c < 16 || c == 31; }
// 6-bit code c (0..63): 0..3 level 1 negative; 4..31 negative levels 30..3;
// 32..59 positive levels 30..3; 60..63 levels 2, 1, 2, 1, the last two
// negative.
constexpr int level6(int c) {
  if (c < 4) return 1;
  if (c < 32) return 34 - c;
  if (c < 60) return 62 - c;
  return (c & 1) ? 1 : 2;
}
constexpr bool negative6(int c) { return c < 32 || c >= 62; }

constexpr int16_t signedLevel(int16_t magnitude, bool negative) {
  return static_cast<int16_t>(negative ? -magnitude * 8 : magnitude * 8);
}

// Lower band, 4-bit inverse quantizer used by the predictor (index: code >> 2).
constexpr Table16 makeInv4() {
  Table16 t{};
  for (int c = 0; c < 16; c++) t[c] = signedLevel(kLevels4[level4(c)], negative4(c));
  return t;
}
constexpr Table16 kInv4 = makeInv4();

// Lower-band output inverse quantizers per mode, indexed by the full 6-bit code.
constexpr Table64 makeOut6() {
  Table64 t{};
  for (int c = 0; c < 64; c++) t[c] = signedLevel(kLevels6[level6(c)], negative6(c));
  return t;
}
constexpr Table64 makeOut5() {
  Table64 t{};
  for (int c = 0; c < 64; c++) t[c] = signedLevel(kLevels5[level5(c >> 1)], negative5(c >> 1));
  return t;
}
constexpr Table64 makeOut4() {
  Table64 t{};
  for (int c = 0; c < 64; c++) t[c] = kInv4[c >> 2];
  return t;
}
constexpr Table64 kOut64k = makeOut6();
constexpr Table64 kOut56k = makeOut5();
constexpr Table64 kOut48k = makeOut4();

// Lower-band log scale factor increments (index: code >> 2).
constexpr int16_t kLogStep4[8] = {-60, -30, 58, 172, 334, 538, 1198, 3042};
constexpr Table16 makeLowerLog() {
  Table16 t{};
  for (int c = 0; c < 16; c++) t[c] = kLogStep4[level4(c)];
  return t;
}
constexpr Table16 kLowerLog = makeLowerLog();

// Lower-band quantizer decision levels (units of det/8), indices 1..29 used;
// two copies of the last one pad the search to 32 entries.
constexpr int16_t kDecision6[32] = {0,    35,   72,   110,  150,  190,  233,  276,  323,  370,  422,
                                    473,  530,  587,  650,  714,  786,  858,  940,  1023, 1121, 1219,
                                    1339, 1458, 1612, 1765, 1980, 2195, 2557, 2919, 2919, 2919};
// 6-bit code of decision interval m (1..30) for a positive / negative difference.
constexpr int codePositive6(int m) { return 62 - m; }
constexpr int codeNegative6(int m) { return m <= 2 ? 64 - m : 34 - m; }
constexpr std::array<uint8_t, 64> makeCode6() {
  std::array<uint8_t, 64> t{};  // [negative * 32 + m]
  for (int m = 1; m <= 30; m++) {
    t[m] = static_cast<uint8_t>(codePositive6(m));
    t[32 + m] = static_cast<uint8_t>(codeNegative6(m));
  }
  return t;
}
constexpr std::array<uint8_t, 64> kCode6 = makeCode6();

// Upper band: 2-bit codes 0, 1 negative (large, small), 2, 3 positive.
constexpr int16_t kInv2[4] = {-926 * 8, -202 * 8, 926 * 8, 202 * 8};
constexpr int16_t kUpperLog[4] = {798, -214, 798, -214};
constexpr int kDecision2 = 564 * 8;

// QMF coefficients (symmetric, doubled). With the newest sample last in
// the window, odd taps give the first output sample of a pair, even taps
// the second.
constexpr int16_t kQmf[24] = {6,    -22,  -22, 106,  24,  -312, 64,   724,  -420, -1610, 1902, 7752,
                              7752, 1902, -1610, -420, 724, 64,   -312, 24,   106,  -22,   -22,  6};
constexpr std::array<int16_t, 24> maskedQmf(int parity, int otherSign) {
  std::array<int16_t, 24> t{};
  for (int m = 0; m < 24; m++) t[m] = static_cast<int16_t>((m & 1) == parity ? kQmf[m] : otherSign * kQmf[m]);
  return t;
}
alignas(16) constexpr std::array<int16_t, 24> kQmfAll = maskedQmf(1, 1);
alignas(16) constexpr std::array<int16_t, 24> kQmfOdd = maskedQmf(1, 0);
alignas(16) constexpr std::array<int16_t, 24> kQmfEven = maskedQmf(0, 0);
alignas(16) constexpr std::array<int16_t, 24> kQmfOddMinusEven = maskedQmf(1, -1);

inline int32_t dot24(const int16_t* w, const std::array<int16_t, 24>& c) {
  int32_t acc = 0;
  for (int m = 0; m < 24; m++) acc += static_cast<int32_t>(w[m]) * c[m];
  return acc;
}

inline int16_t limit14(int v) { return static_cast<int16_t>(v > 16383 ? 16383 : (v < -16384 ? -16384 : v)); }
inline int sign(int v) { return v >> 15; }  // 0 or -1 for a 16-bit value

const int16_t* lowerOutputTable(int mode) {
  switch (mode) {
    case 0:
    case 1: return kOut64k.data();
    case 2: return kOut56k.data();
    default: return kOut48k.data();
  }
}

}  // namespace

namespace detail {

void SubBandCore::resetCore() {
  low_ = Band{};
  high_ = Band{};
  low_.det = kLowerDetInit;
  high_.det = kUpperDetInit;
  std::memset(qmf_, 0, sizeof qmf_);
  qmfPos_ = kQmfTaps - 2;
  Overflow = false;
}

int16_t* SubBandCore::qmfSlot() {
  if (qmfPos_ + 2 > kHistory) {
    std::memmove(qmf_, qmf_ + qmfPos_ - (kQmfTaps - 2), (kQmfTaps - 2) * sizeof(int16_t));
    qmfPos_ = kQmfTaps - 2;
  }
  int16_t* slot = qmf_ + qmfPos_;
  qmfPos_ += 2;
  return slot;
}

inline int16_t SubBandCore::updatePredictor(Band& bd, int16_t d0) {
  const int16_t p0 = add(d0, bd.sz);
  const int16_t r0 = add(bd.s, d0);

  // Zero section: coefficient adaptation, history shift and its estimate.
  const int16_t sz = ZeroSection::update(bd.b, bd.d, d0, *this);

  // Pole section: a2 first, then a1 bounded by a2.
  const int sp0 = sign(p0), sp1 = sign(bd.p1), sp2 = sign(bd.p2);
  int16_t wa = saturate(bd.a1 * 4);
  if (sp0 == sp1) wa = sub(0, wa);
  int a2 = (wa >> 7) + (sp0 == sp2 ? 128 : -128) + ((bd.a2 * 32512) >> 15);
  if (a2 > 12288) a2 = 12288;
  if (a2 < -12288) a2 = -12288;
  int a1 = (sp0 == sp1 ? 192 : -192) + ((bd.a1 * 32640) >> 15);
  const int bound = 15360 - a2;
  if (a1 > bound) a1 = bound;
  else if (a1 + bound < 0) a1 = -bound;
  bd.a1 = static_cast<int16_t>(a1);
  bd.a2 = static_cast<int16_t>(a2);
  bd.p2 = bd.p1;
  bd.p1 = p0;

  // New estimate: the zero section's plus the poles'.
  bd.sz = sz;
  bd.r2 = bd.r1;
  bd.r1 = r0;
  const int16_t e1 = static_cast<int16_t>((a1 * add(bd.r1, bd.r1)) >> 15);
  const int16_t e2 = static_cast<int16_t>((a2 * add(bd.r2, bd.r2)) >> 15);
  bd.s = add(add(e1, e2), sz);
  return r0;
}

void SubBandCore::adaptLower(int code6) {
  const int c4 = code6 >> 2;
  const int16_t d0 = static_cast<int16_t>((low_.det * kInv4[c4]) >> 15);
  int nb = ((low_.nb * 32512) >> 15) + kLowerLog[c4];
  if (nb < 0) nb = 0;
  if (nb > kLowerNbMax) nb = kLowerNbMax;
  low_.nb = static_cast<int16_t>(nb);
  low_.det = kScale[(nb >> 6) + 64];
  updatePredictor(low_, d0);
}

int16_t SubBandCore::adaptUpper(int code2) {
  const int16_t d0 = static_cast<int16_t>((high_.det * kInv2[code2]) >> 15);
  int nb = ((high_.nb * 32512) >> 15) + kUpperLog[code2];
  if (nb < 0) nb = 0;
  if (nb > kUpperNbMax) nb = kUpperNbMax;
  high_.nb = static_cast<int16_t>(nb);
  high_.det = kScale[nb >> 6];
  return updatePredictor(high_, d0);
}

}  // namespace detail

// ---- Encoder ----------------------------------------------------------------

Encoder::Encoder() { reset(); }

void Encoder::reset() { resetCore(); }

uint8_t Encoder::encodeBands(int16_t xl, int16_t xh) {
  // Lower band: 6-bit quantization of the prediction error.
  const int16_t el = sub(xl, low_.s);
  const int wl = el >= 0 ? el : ~el;
  const int det = low_.det;
  // Interval m = 1 + number of decision levels 1..29 not above wl
  // (levels grow with their index).
  int k = 0;
  for (int step = 16; step > 0; step >>= 1)
    if (((kDecision6[k + step] * 8 * det) >> 15) <= wl) k += step;
  if (k > 29) k = 29;
  const int il = kCode6[(el < 0 ? 32 : 0) + k + 1];
  adaptLower(il);

  // Upper band: 2-bit quantization.
  const int16_t eh = sub(xh, high_.s);
  const int wh = eh >= 0 ? eh : ~eh;
  const bool large = wh >= ((kDecision2 * high_.det) >> 15);
  const int ih = (eh < 0 ? 0 : 2) + (large ? 0 : 1);
  adaptUpper(ih);

  return static_cast<uint8_t>((ih << 6) | il);
}

void Encoder::encode(const int16_t* in, size_t nSamples, uint8_t* out) {
  const size_t pairs = nSamples / 2;
  for (size_t i = 0; i < pairs; i++) {
    int16_t* slot = qmfSlot();
    slot[0] = in[2 * i];
    slot[1] = in[2 * i + 1];
    const int16_t* w = slot + 2 - kQmfTaps;
    const int32_t sum = dot24(w, kQmfAll);            // odd + even taps
    const int32_t diff = dot24(w, kQmfOddMinusEven);  // odd - even taps
    out[i] = encodeBands(limit14(sum >> 15), limit14(diff >> 15));
  }
}

// ---- Decoder ----------------------------------------------------------------

Decoder::Decoder() { reset(); }

void Decoder::reset() { resetCore(); }

inline void Decoder::decodeOne(uint8_t code, const int16_t* lowerTable, int16_t& rl, int16_t& rh) {
  const int il = code & 0x3f;
  const int ih = code >> 6;
  const int16_t dl = static_cast<int16_t>((low_.det * lowerTable[il]) >> 15);
  rl = limit14(add(low_.s, dl));
  adaptLower(il);
  rh = limit14(adaptUpper(ih));
}

void Decoder::decodeBands(uint8_t code, int mode, int16_t& rl, int16_t& rh) {
  decodeOne(code, lowerOutputTable(mode), rl, rh);
}

void Decoder::decode(const uint8_t* in, size_t nBytes, int16_t* out, int mode) {
  const int16_t* table = lowerOutputTable(mode);
  for (size_t i = 0; i < nBytes; i++) {
    int16_t rl, rh;
    decodeOne(in[i], table, rl, rh);
    int16_t* slot = qmfSlot();
    slot[0] = static_cast<int16_t>(rl + rh);  // |rl|, |rh| <= 16384: no overflow
    slot[1] = static_cast<int16_t>(rl - rh);
    const int16_t* w = slot + 2 - kQmfTaps;
    out[2 * i] = saturate(dot24(w, kQmfOdd) >> 12);
    out[2 * i + 1] = saturate(dot24(w, kQmfEven) >> 12);
  }
}

}  // namespace quillon::g722
