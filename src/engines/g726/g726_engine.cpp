#include "engines/g726/g726_engine.h"

#include "primitives/g711.h"

#include <algorithm>
#include <bit>
#include <cstdlib>

#if defined(_MSC_VER)
#define QUILLON_G726_INLINE __forceinline
#else
#define QUILLON_G726_INLINE inline __attribute__((always_inline))
#endif

namespace quillon {

// Everything that differs between the four rates. The per-codeword tables
// are symmetric around the sign bit, so they are written once for the
// magnitude half and mirrored at compile time.
struct G726Engine::RateTables {
  struct Entry {
    int16_t dqln;  // reconstructed normalised log magnitude
    int16_t fi;    // F(I), feeds the short/long-term averages
    int32_t wi;    // W(I), scale-factor multiplier (log domain, x32)
  };
  int bits;
  unsigned signBit;
  int leakShift;   // zero-predictor leakage: 2^-9 at 40 kbit/s, 2^-8 otherwise
  int levelCount;  // decision levels of the forward quantizer
  int16_t levels[15];
  Entry code[32];
};

namespace {

using Rate = G726Engine::RateTables;

constexpr Rate makeRate(int bits, int leakShift, const int16_t* levels, int levelCount,
                        const int16_t* dqln, const int32_t* wi, const int16_t* fi) {
  Rate r{};
  r.bits = bits;
  r.signBit = 1u << (bits - 1);
  r.leakShift = leakShift;
  r.levelCount = levelCount;
  for (int i = 0; i < levelCount; i++) r.levels[i] = levels[i];
  const int half = 1 << (bits - 1);
  for (int c = 0; c < 2 * half; c++) {
    const int m = c < half ? c : 2 * half - 1 - c;
    r.code[c] = {dqln[m], fi[m], wi[m]};
  }
  return r;
}

// 16 kbit/s
constexpr int16_t kLevels16[] = {261};
constexpr int16_t kDqln16[] = {116, 365};
constexpr int32_t kWi16[] = {-704, 14048};
constexpr int16_t kFi16[] = {0x000, 0xE00};
// 24 kbit/s
constexpr int16_t kLevels24[] = {8, 218, 331};
constexpr int16_t kDqln24[] = {-2048, 135, 273, 373};
constexpr int32_t kWi24[] = {-128, 960, 4384, 18624};
constexpr int16_t kFi24[] = {0x000, 0x200, 0x400, 0xE00};
// 32 kbit/s
constexpr int16_t kLevels32[] = {-124, 80, 178, 246, 300, 349, 400};
constexpr int16_t kDqln32[] = {-2048, 4, 135, 213, 273, 323, 373, 425};
constexpr int32_t kWi32[] = {-384, 576, 1312, 2048, 3584, 6336, 11360, 35904};
constexpr int16_t kFi32[] = {0x000, 0x000, 0x000, 0x200, 0x200, 0x200, 0x600, 0xE00};
// 40 kbit/s
constexpr int16_t kLevels40[] = {-122, -16, 68, 139, 198, 250, 298, 339,
                                 378, 413, 445, 475, 502, 528, 553};
constexpr int16_t kDqln40[] = {-2048, -66, 28, 104, 169, 224, 274, 318,
                               358, 395, 429, 459, 488, 514, 539, 566};
constexpr int32_t kWi40[] = {448, 448, 768, 1248, 1280, 1312, 1856, 3200,
                             4512, 5728, 7008, 8960, 11456, 14080, 16928, 22272};
constexpr int16_t kFi40[] = {0x000, 0x000, 0x000, 0x000, 0x000, 0x200, 0x200, 0x200,
                             0x200, 0x200, 0x400, 0x600, 0x800, 0xA00, 0xC00, 0xC00};

constexpr Rate kRates[4] = {
    makeRate(2, 8, kLevels16, 1, kDqln16, kWi16, kFi16),
    makeRate(3, 8, kLevels24, 3, kDqln24, kWi24, kFi24),
    makeRate(4, 8, kLevels32, 7, kDqln32, kWi32, kFi32),
    makeRate(5, 9, kLevels40, 15, kDqln40, kWi40, kFi40),
};

inline int bitWidth(int v) { return std::bit_width(static_cast<unsigned>(v)); }

// Product of a predictor coefficient (already scaled down by 4) and a value
// held in the 11-bit floating format (sign, 4-bit exponent, 6-bit mantissa),
// as the reference computes it: the coefficient is turned into the same
// format, mantissas are multiplied with rounding, exponents added. A zero
// coefficient still counts as mantissa 32, exponent -6 (the reference does
// so, and it is visible in the result).
inline int floatMultiply(int an, int srn) {
  const int anmag = an > 0 ? an : ((-an) & 0x1FFF);
  const int width = bitWidth(anmag);
  const int anmant = anmag == 0 ? 32 : static_cast<int>((static_cast<uint32_t>(anmag) << 16) >> (width + 10));
  const int wanexp = width - 6 + ((srn >> 6) & 0xF) - 13;  // -19..11
  const int wanmant = (anmant * (srn & 0x3F) + 0x30) >> 4;
  // One shift covers both directions: left (then 15-bit wrap) or right.
  const int mag = static_cast<int>(((static_cast<uint64_t>(wanmant) << 32) >> (32 - wanexp)) & 0x7FFF);
  return (an ^ srn) < 0 ? -mag : mag;
}

// A magnitude (0..32767) and sign in the 11-bit floating format; negative
// values are kept as (format - 0x400) so that the int16 sign carries the sign.
inline int16_t toFloat(int mag, bool negative) {
  const int e = bitWidth(mag);
  const int v = mag == 0 ? 32 : (e << 6) + ((mag << 6) >> e);  // zero: exponent 0, mantissa 32
  return static_cast<int16_t>(negative ? v - 0x400 : v);
}

}  // namespace

G726Engine::G726Engine(int bitsPerCode) : m_s{}, m_rate(&kRates[2]), m_mask(15) {
  if (!setBitsPerCode(bitsPerCode)) reset();
}

bool G726Engine::setBitsPerCode(int bitsPerCode) {
  if (bitsPerCode < 2 || bitsPerCode > 5) return false;
  m_rate = &kRates[bitsPerCode - 2];
  m_mask = (1u << bitsPerCode) - 1;
  reset();
  return true;
}

int G726Engine::bitsPerCode() const { return m_rate->bits; }

void G726Engine::reset() {
  m_s = State{};
  m_s.yl = 34816;
  m_s.yu = 544;
  for (int16_t& v : m_s.dq) v = 32;
  m_s.sr[0] = m_s.sr[1] = 32;
}

QUILLON_G726_INLINE G726Engine::StepResult G726Engine::step(unsigned code) {
  State& s = m_s;
  const Rate& rate = *m_rate;

  // Signal estimate: six-zero plus two-pole prediction, with the reference's
  // 16-bit truncations of the partial sums.
  int zeroSum = 0;
  for (int i = 0; i < 6; i++) zeroSum += floatMultiply(s.b[i] >> 2, s.dq[i]);
  const int sezi = static_cast<int16_t>(zeroSum);
  const int poleSum = static_cast<int16_t>(floatMultiply(s.a[1] >> 2, s.sr[1]) + floatMultiply(s.a[0] >> 2, s.sr[0]));
  const int sei = static_cast<int16_t>(sezi + poleSum);
  const int se = sei >> 1;
  const int sez = sezi >> 1;

  // Quantizer scale factor: a mix of the fast and slow factors steered by AP
  // (a negative difference is rounded up, as in the reference).
  int y = s.yu;
  if (s.ap < 256) {
    const int slow = s.yl >> 6;
    const int dif = s.yu - slow;
    y = slow + ((dif * (s.ap >> 2) + (dif < 0 ? 0x3F : 0)) >> 6);
  }

  // Inverse quantizer: log-domain table value plus scale, then antilog.
  const Rate::Entry& e = rate.code[code];
  const bool dqNegative = (code & rate.signBit) != 0;
  const int dql = static_cast<int16_t>(e.dqln + (y >> 2));
  int dqMag = 0;
  if (dql >= 0) dqMag = ((128 + (dql & 127)) << 7) >> (14 - ((dql >> 7) & 15));

  const int sr = static_cast<int16_t>(dqNegative ? se - dqMag : se + dqMag);
  const int dqsez = static_cast<int16_t>(sr + sez - se);
  const int pk0 = dqsez < 0 ? 1 : 0;

  // ---- State adaptation ----------------------------------------------------

  // Transition detector: a tone was seen and the difference is large.
  const int ylInt = s.yl >> 15;
  const int ylFrac = (s.yl >> 10) & 0x1F;
  const int thr = ylInt > 9 ? (31 << 10) : ((32 + ylFrac) << ylInt);
  const bool transition = s.td != 0 && dqMag > ((thr + (thr >> 1)) >> 1);

  // Scale factors.
  const int yu = std::clamp<int>(static_cast<int16_t>(y + ((e.wi - y) >> 5)), 544, 5120);
  s.yu = static_cast<int16_t>(yu);
  s.yl += yu + ((-s.yl) >> 6);

  int a2 = 0;
  if (transition) {
    s.a[0] = s.a[1] = 0;
    for (int16_t& b : s.b) b = 0;
  } else {
    const int pks1 = pk0 ^ s.pk[0];
    const bool moved = dqsez != 0;

    // Second pole coefficient: leak, then (when the partial signal is not
    // zero) a step from A1's sign agreement limited to -256..255 and a
    // +-128 step from PK0 against PK2, kept within +-12288. Written as
    // clamps, which is what the reference's limit cases amount to.
    a2 = s.a[1] - (s.a[1] >> 7);
    const int fa1 = pks1 ? s.a[0] : -s.a[0];
    const int stepped = a2 + std::clamp(fa1 >> 5, -256, 255) + ((pk0 ^ s.pk[1]) ? -128 : 128);
    a2 = moved ? std::clamp(stepped, -12288, 12288) : a2;
    s.a[1] = static_cast<int16_t>(a2);

    // First pole coefficient, limited by the second.
    int a1 = s.a[0] - (s.a[0] >> 8);
    a1 += moved ? (pks1 ? -192 : 192) : 0;
    const int a1Limit = 15360 - a2;
    s.a[0] = static_cast<int16_t>(std::clamp(a1, -a1Limit, a1Limit));

    // Zero coefficients: leak, then step towards the sign agreement.
    const int leak = rate.leakShift;
    if (dqMag != 0) {
      for (int i = 0; i < 6; i++) {
        const int b = s.b[i] - (s.b[i] >> leak);
        s.b[i] = static_cast<int16_t>(b + ((dqNegative == (s.dq[i] < 0)) ? 128 : -128));
      }
    } else {
      for (int i = 0; i < 6; i++) s.b[i] = static_cast<int16_t>(s.b[i] - (s.b[i] >> leak));
    }
  }

  // Delay lines.
  for (int i = 5; i > 0; i--) s.dq[i] = s.dq[i - 1];
  s.dq[0] = toFloat(dqMag, dqNegative);
  s.sr[1] = s.sr[0];
  const bool srNegative = sr < 0;
  const int srMag = srNegative ? (-sr) & 0x7FFF : sr;  // -32768 counts as a negative zero
  s.sr[0] = toFloat(srMag, srNegative);
  s.pk[1] = s.pk[0];
  s.pk[0] = static_cast<int16_t>(pk0);

  // Tone detector and adaptation speed control.
  s.td = (!transition && a2 < -11776) ? 1 : 0;
  s.dms = static_cast<int16_t>(s.dms + ((e.fi - s.dms) >> 5));
  s.dml = static_cast<int16_t>(s.dml + ((static_cast<int16_t>(e.fi << 2) - s.dml) >> 7));
  const bool unsteady = y < 1536 || s.td || std::abs((s.dms << 2) - s.dml) >= (s.dml >> 3);
  const int apTarget = unsteady ? 0x200 : 0;
  s.ap = static_cast<int16_t>(transition ? 256 : s.ap + ((apTarget - s.ap) >> 4));

  return {sr, se, y};
}

int16_t G726Engine::decodeLinear(unsigned code) { return static_cast<int16_t>(step(code & m_mask).sr * 4); }

void G726Engine::decodeLinear(const uint8_t* codes, size_t n, int16_t* out) {
  for (size_t i = 0; i < n; i++) out[i] = static_cast<int16_t>(step(codes[i] & m_mask).sr * 4);
}

int G726Engine::decode(unsigned code, int coding) {
  if (coding < kMuLaw || coding > kLinear) return -1;
  code &= m_mask;
  const StepResult r = step(code);
  switch (coding) {
    case kMuLaw:
      return tandemMuLaw(r.sr, r.se, r.y, code);
    case kALaw:
      return tandemALaw(r.sr, r.se, r.y, code);
    default:
      return static_cast<int16_t>(r.sr * 4);
  }
}

// The forward quantizer, used only to check a companded output against the
// received codeword.
int G726Engine::quantize(int d, int y) const {
  const Rate& rate = *m_rate;
  int dqm = std::abs(d);
  if (dqm > 32767) dqm = 32767;
  const int exp = bitWidth(dqm >> 1);
  const int mant = ((dqm << 7) >> exp) & 0x7F;
  const int dl = (exp << 7) + mant;
  const int dln = static_cast<int16_t>(dl - (y >> 2));
  int i = 0;
  while (i < rate.levelCount && dln >= rate.levels[i]) i++;
  const int top = (1 << rate.bits) - 1;
  if (d < 0) return top - i;
  // A zero magnitude level exists only at 16 kbit/s; elsewhere it maps to
  // the all-ones codeword.
  if (i == 0 && rate.bits != 2) return top;
  return i;
}

// Synchronous coding adjustment: if re-encoding the companded output would
// not give back the received codeword, move the output one companding step
// towards it, so that tandem ADPCM/PCM/ADPCM links do not drift.
int G726Engine::tandemALaw(int sr, int se, int y, unsigned code) const {
  if (sr <= -32768) sr = -1;
  const int sp = g711::alawCompress((sr >> 1) * 8);
  const int dx = static_cast<int16_t>((g711::alawExpand(sp) >> 2) - se);
  const unsigned id = static_cast<unsigned>(quantize(dx, y));
  if (id == code) return sp;
  const unsigned sign = m_rate->signBit;
  const bool positive = (sp & 0x80) != 0;
  // Codes ordered by value: biased so that the most negative is smallest.
  if ((id ^ sign) > (code ^ sign)) {  // one step down
    if (positive) return sp == 0xD5 ? 0x55 : ((sp ^ 0x55) - 1) ^ 0x55;
    return sp == 0x2A ? 0x2A : ((sp ^ 0x55) + 1) ^ 0x55;
  }
  // one step up
  if (positive) return sp == 0xAA ? 0xAA : ((sp ^ 0x55) + 1) ^ 0x55;
  return sp == 0x55 ? 0xD5 : ((sp ^ 0x55) - 1) ^ 0x55;
}

int G726Engine::tandemMuLaw(int sr, int se, int y, unsigned code) const {
  if (sr <= -32768) sr = 0;
  const int sp = g711::ulawCompress(sr * 4);
  const int dx = static_cast<int16_t>((g711::ulawExpand(sp) >> 2) - se);
  const unsigned id = static_cast<unsigned>(quantize(dx, y));
  if (id == code) return sp;
  const unsigned sign = m_rate->signBit;
  const bool positive = (sp & 0x80) != 0;
  if ((id ^ sign) > (code ^ sign)) {  // one step down
    if (positive) return sp == 0xFF ? 0x7E : sp + 1;
    return sp == 0x00 ? 0x00 : sp - 1;
  }
  if (positive) return sp == 0x80 ? 0x80 : sp - 1;
  return sp == 0x7F ? 0xFE : sp + 1;
}

}  // namespace quillon
