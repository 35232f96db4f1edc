// ICELP48 frame layout: 144 bits (18 bytes, nine little-endian 16-bit
// words) for 240 samples, every field least significant bit first.
#ifndef QUILLON_ICELP48_FRAME_H
#define QUILLON_ICELP48_FRAME_H

#include <cstdint>

namespace quillon::icelp48 {

constexpr int kFrameBits = 144;
constexpr int kFrameWords = 9;
constexpr int kFrameBytes = 18;
constexpr int kFrameSamples = 240;
constexpr int kSubframes = 4;
constexpr int kSubframeLength = 60;
constexpr int kOrder = 10;

constexpr int kMinLag = 18;
constexpr int kLagCodes = 124;  // lag codes 0..123 give lags 18..141
constexpr int kMaxLag = kMinLag + kLagCodes - 1;
constexpr int kMaxFixedGainCode = 169;

// The unpacked parameters of one frame. Lags hold the lag itself
// (code + 18), or 0 when unpacking stopped before them.
struct FrameParams {
  int16_t badFrame = 0;
  int16_t alternation = 0;
  uint32_t lsfIndex = 0;          // 25 bits
  int16_t lag[2] = {0, 0};        // per half-frame
  int16_t lagFraction[2] = {0, 0};  // 2-bit pitch parameter: quarter-sample fraction
  int16_t pitchGain[4] = {};      // 4-bit, per subframe
  int16_t fixedSign[4] = {};      // 1-bit, per subframe
  int16_t fixedGain[4] = {};      // 8-bit, valid up to 169
  int16_t fixedIndex[4] = {};     // 9-bit
  int16_t sharpening[4] = {};     // 3-bit
};

// Bit i of a frame: bit (i mod 16) of word (i div 16).
inline int frameBit(const uint16_t* words, int i) { return (words[i >> 4] >> (i & 15)) & 1; }

// Reads `width` bits starting at bit `pos` (least significant first) and
// advances pos.
uint32_t readField(const uint16_t* words, int& pos, int width);
void writeField(uint16_t* words, int& pos, int width, uint32_t value);

// Unpacks a frame. Stops at the first invalid field and sets badFrame:
// a first lag code of 124 or more (both lags stay 0), a second lag code of
// 124 or more (the second lag becomes the first), a fixed-gain code above
// 169 (that subframe's code becomes 0). Fields after the stop stay 0.
void unpackFrame(const uint16_t words[kFrameWords], FrameParams& p);
// Packs valid parameters (lags 18..141) into a frame.
void packFrame(const FrameParams& p, uint16_t words[kFrameWords]);

inline void wordsFromBytes(const uint8_t* bytes, uint16_t words[kFrameWords]) {
  for (int i = 0; i < kFrameWords; i++) words[i] = static_cast<uint16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
}
inline void bytesFromWords(const uint16_t words[kFrameWords], uint8_t* bytes) {
  for (int i = 0; i < kFrameWords; i++) {
    bytes[2 * i] = static_cast<uint8_t>(words[i] & 0xff);
    bytes[2 * i + 1] = static_cast<uint8_t>(words[i] >> 8);
  }
}

}  // namespace quillon::icelp48

#endif
