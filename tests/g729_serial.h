// ITU-T G.729 serial bitstream files (Annex B aware) for the tests.
#ifndef QUILLON_TESTS_G729_SERIAL_H
#define QUILLON_TESTS_G729_SERIAL_H

#include <cstdint>
#include <filesystem>
#include <vector>

#include "test_support.h"

namespace quillon::test {

// One frame of an ITU serial file: sync word, size word, size bit words.
struct SerialFrame {
  uint16_t sync = 0;
  int bits = 0;               // 80 speech, 16 SID (15 bits and a pad), 0 untransmitted
  bool zeroWord = false;      // a bit word of 0 marks an erased frame
  uint8_t packed[10] = {};    // the bits, most significant first
};

inline std::vector<SerialFrame> readSerial(const std::filesystem::path& p) {
  const std::vector<uint8_t> b = quillon::test::readFile(p);
  auto word = [&](size_t i) { return static_cast<uint16_t>(b[2 * i] | b[2 * i + 1] << 8); };
  std::vector<SerialFrame> frames;
  size_t i = 0;
  const size_t words = b.size() / 2;
  while (i + 2 <= words) {
    SerialFrame f;
    f.sync = word(i);
    f.bits = word(i + 1);
    if (i + 2 + f.bits > words || f.bits > 80) break;
    for (int k = 0; k < f.bits; k++) {
      const uint16_t w = word(i + 2 + k);
      if (w == 0) f.zeroWord = true;
      if (w == 0x0081) f.packed[k / 8] |= static_cast<uint8_t>(0x80 >> (k % 8));
    }
    frames.push_back(f);
    i += 2 + f.bits;
  }
  return frames;
}

}  // namespace quillon::test

#endif
