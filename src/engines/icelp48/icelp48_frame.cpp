#include "engines/icelp48/icelp48_frame.h"

namespace quillon::icelp48 {

uint32_t readField(const uint16_t* words, int& pos, int width) {
  uint32_t v = 0;
  for (int b = 0; b < width; b++) v |= static_cast<uint32_t>(frameBit(words, pos + b)) << b;
  pos += width;
  return v;
}

void writeField(uint16_t* words, int& pos, int width, uint32_t value) {
  for (int b = 0; b < width; b++) {
    const int i = pos + b;
    const uint16_t mask = static_cast<uint16_t>(1u << (i & 15));
    if ((value >> b) & 1u)
      words[i >> 4] = static_cast<uint16_t>(words[i >> 4] | mask);
    else
      words[i >> 4] = static_cast<uint16_t>(words[i >> 4] & ~mask);
  }
  pos += width;
}

void unpackFrame(const uint16_t words[kFrameWords], FrameParams& p) {
  p = FrameParams{};
  int pos = 0;
  p.alternation = static_cast<int16_t>(readField(words, pos, 1));
  p.lsfIndex = readField(words, pos, 25);
  const uint32_t lag0 = readField(words, pos, 7);
  if (lag0 >= kLagCodes) {
    p.badFrame = 1;
    return;
  }
  p.lag[0] = static_cast<int16_t>(lag0 + kMinLag);
  p.lagFraction[0] = static_cast<int16_t>(readField(words, pos, 2));
  const uint32_t lag1 = readField(words, pos, 7);
  if (lag1 >= kLagCodes) {
    p.lag[1] = p.lag[0];
    p.badFrame = 1;
    return;
  }
  p.lag[1] = static_cast<int16_t>(lag1 + kMinLag);
  p.lagFraction[1] = static_cast<int16_t>(readField(words, pos, 2));
  for (int s = 0; s < kSubframes; s++) p.pitchGain[s] = static_cast<int16_t>(readField(words, pos, 4));
  for (int s = 0; s < kSubframes; s++) p.fixedSign[s] = static_cast<int16_t>(readField(words, pos, 1));
  for (int s = 0; s < kSubframes; s++) {
    const uint32_t g = readField(words, pos, 8);
    if (g > kMaxFixedGainCode) {
      p.fixedGain[s] = 0;
      p.badFrame = 1;
      return;
    }
    p.fixedGain[s] = static_cast<int16_t>(g);
  }
  for (int s = 0; s < kSubframes; s++) p.fixedIndex[s] = static_cast<int16_t>(readField(words, pos, 9));
  for (int s = 0; s < kSubframes; s++) p.sharpening[s] = static_cast<int16_t>(readField(words, pos, 3));
}

void packFrame(const FrameParams& p, uint16_t words[kFrameWords]) {
  for (int i = 0; i < kFrameWords; i++) words[i] = 0;
  int pos = 0;
  writeField(words, pos, 1, static_cast<uint32_t>(p.alternation & 1));
  writeField(words, pos, 25, p.lsfIndex & 0x1ffffffu);
  for (int h = 0; h < 2; h++) {
    writeField(words, pos, 7, static_cast<uint32_t>(p.lag[h] - kMinLag) & 0x7f);
    writeField(words, pos, 2, static_cast<uint32_t>(p.lagFraction[h]) & 3);
  }
  for (int s = 0; s < kSubframes; s++) writeField(words, pos, 4, static_cast<uint32_t>(p.pitchGain[s]) & 15);
  for (int s = 0; s < kSubframes; s++) writeField(words, pos, 1, static_cast<uint32_t>(p.fixedSign[s]) & 1);
  for (int s = 0; s < kSubframes; s++) writeField(words, pos, 8, static_cast<uint32_t>(p.fixedGain[s]) & 255);
  for (int s = 0; s < kSubframes; s++) writeField(words, pos, 9, static_cast<uint32_t>(p.fixedIndex[s]) & 511);
  for (int s = 0; s < kSubframes; s++) writeField(words, pos, 3, static_cast<uint32_t>(p.sharpening[s]) & 7);
}

}  // namespace quillon::icelp48
