// The four G.711 conversions on single values, in the integer form of the
// ITU-T reference (segment search over a table of segment ends). The G.726
// engine uses them for its companded input/output as well.
#ifndef QUILLON_WAVEFORM_G711_H
#define QUILLON_WAVEFORM_G711_H

#include <array>
#include <cstdint>

namespace quillon::g711 {

constexpr int16_t alawExpand(uint8_t code) {
  const int v = code ^ 0x55;
  int t = (v & 0x0f) << 4;
  const int segment = (v >> 4) & 0x07;
  if (segment == 0) t += 8;
  else if (segment == 1) t += 0x108;
  else t = (t + 0x108) << (segment - 1);
  return static_cast<int16_t>((v & 0x80) ? t : -t);
}

// The sample may lie outside 16 bits (the G.726 tandem check passes such
// values); the segment search then saturates to the largest code.
constexpr uint8_t alawCompress(int sample) {
  constexpr int16_t kSegmentEnd[8] = {0x1f, 0x3f, 0x7f, 0xff, 0x1ff, 0x3ff, 0x7ff, 0xfff};
  int p = sample >> 3;
  int mask = 0xd5;
  if (p < 0) {
    mask = 0x55;
    p = -p - 1;
  }
  int s = 0;
  while (s < 8 && p > kSegmentEnd[s]) s++;
  if (s == 8) return static_cast<uint8_t>(0x7f ^ mask);
  const int mantissa = (s < 2 ? (p >> 1) : (p >> s)) & 0x0f;
  return static_cast<uint8_t>(((s << 4) | mantissa) ^ mask);
}

constexpr int16_t ulawExpand(uint8_t code) {
  const int u = ~code & 0xff;
  const int t = (((u & 0x0f) << 3) + 0x84) << ((u >> 4) & 0x07);
  return static_cast<int16_t>((u & 0x80) ? (0x84 - t) : (t - 0x84));
}

constexpr uint8_t ulawCompress(int sample) {
  constexpr int16_t kSegmentEnd[8] = {0x3f, 0x7f, 0xff, 0x1ff, 0x3ff, 0x7ff, 0xfff, 0x1fff};
  int p = sample >> 2;
  int mask = 0xff;
  if (p < 0) {
    mask = 0x7f;
    p = -p;
  }
  if (p > 8159) p = 8159;
  p += 33;
  int s = 0;
  while (s < 8 && p > kSegmentEnd[s]) s++;
  if (s == 8) return static_cast<uint8_t>(0x7f ^ mask);
  return static_cast<uint8_t>(((s << 4) | ((p >> (s + 1)) & 0x0f)) ^ mask);
}

namespace detail {
template <int16_t (*Expand)(uint8_t)>
constexpr std::array<int16_t, 256> expansionTable() {
  std::array<int16_t, 256> t{};
  for (int i = 0; i < 256; i++) t[i] = Expand(static_cast<uint8_t>(i));
  return t;
}
}  // namespace detail

// Whole-byte expansion tables for the decoding loops.
inline constexpr std::array<int16_t, 256> kAlawToLinear = detail::expansionTable<alawExpand>();
inline constexpr std::array<int16_t, 256> kUlawToLinear = detail::expansionTable<ulawExpand>();

}  // namespace quillon::g711

#endif
