#include "engines/msadpcm/msadpcm_encoder.h"

#include <cstring>

namespace quillon {

namespace {

// Step adaptation factors (x256) of the Microsoft ADPCM format, by nibble.
constexpr int kAdaptation[16] = {230, 230, 230, 230, 307, 409, 512, 614,
                                 768, 614, 512, 409, 307, 230, 230, 230};

void putLe16(uint8_t* p, int v) {
  p[0] = static_cast<uint8_t>(v & 0xFF);
  p[1] = static_cast<uint8_t>((v >> 8) & 0xFF);
}

}  // namespace

MsAdpcmBlockEncoder::MsAdpcmBlockEncoder() : m_ch{}, m_block{}, m_pos(0), m_channels(1), m_held{}, m_heldCount(0) {}

void MsAdpcmBlockEncoder::setChannels(int channels) { m_channels = channels == 2 ? 2 : 1; }

int MsAdpcmBlockEncoder::encodeSample(ChannelState& ch, int sample) {
  const int prediction = (ch.sample1 * ch.coef1 + ch.sample2 * ch.coef2) / 256;
  const int error = sample - prediction;
  const int delta = ch.delta;
  const int half = delta / 2;
  int code = (error + (error >= 0 ? half : -half)) / delta;  // nearest step
  if (code < -8) code = -8;
  if (code > 7) code = 7;
  int rebuilt = prediction + code * delta;
  if (rebuilt < -32768) rebuilt = -32768;
  if (rebuilt > 32767) rebuilt = 32767;
  ch.sample2 = ch.sample1;
  ch.sample1 = static_cast<int16_t>(rebuilt);
  const int nibble = code & 0x0F;
  int next = (kAdaptation[nibble] * delta) >> 8;
  if (next < 16) next = 16;
  ch.delta = static_cast<uint16_t>(next);
  return nibble;
}

void MsAdpcmBlockEncoder::beginBlock(const int16_t* twoFrames) {
  const int nc = m_channels;
  uint8_t* p = m_block;
  for (int c = 0; c < nc; c++) {
    ChannelState& ch = m_ch[c];
    ch.predictor = 0;
    ch.coef1 = 256;
    ch.coef2 = 0;
    *p++ = 0;
  }
  for (int c = 0; c < nc; c++, p += 2) {
    if (m_ch[c].delta < 16) m_ch[c].delta = 16;
    putLe16(p, m_ch[c].delta);
  }
  // The block starts with two verbatim samples per channel: the second
  // frame is sample1, the first frame sample2 (decoders emit sample2 first).
  for (int c = 0; c < nc; c++, p += 2) {
    m_ch[c].sample1 = twoFrames[nc + c];
    putLe16(p, m_ch[c].sample1);
  }
  for (int c = 0; c < nc; c++, p += 2) {
    m_ch[c].sample2 = twoFrames[c];
    putLe16(p, m_ch[c].sample2);
  }
  m_pos = static_cast<uint32_t>(p - m_block);
}

void MsAdpcmBlockEncoder::putByte(int first, int second) {
  const int high = encodeSample(m_ch[0], first);
  const int low = encodeSample(m_ch[m_channels - 1], second);
  m_block[m_pos++] = static_cast<uint8_t>((high << 4) | low);
}

bool MsAdpcmBlockEncoder::take(int16_t* dst, int k, const int16_t*& in, uint32_t& left) {
  if (static_cast<uint32_t>(m_heldCount) + left < static_cast<uint32_t>(k)) {
    while (left != 0) {
      m_held[m_heldCount++] = *in++;
      left--;
    }
    return false;
  }
  int i = 0;
  for (; i < m_heldCount; i++) dst[i] = m_held[i];
  m_heldCount = 0;
  for (; i < k; i++, left--) dst[i] = *in++;
  return true;
}

uint32_t MsAdpcmBlockEncoder::encode(const int16_t* in, uint32_t n, uint8_t* out, uint32_t outCapacity) {
  uint32_t written = 0;
  uint32_t left = n;
  for (;;) {
    if (m_pos == kBlockBytes) {
      if (static_cast<uint64_t>(written) + kBlockBytes > outCapacity) break;
      std::memcpy(out + written, m_block, kBlockBytes);
      written += kBlockBytes;
      m_pos = 0;
    }
    if (left == 0) break;
    int16_t unit[4];
    if (m_pos == 0 && !take(unit, 2 * m_channels, in, left)) break;
    if (m_pos == 0) beginBlock(unit);
    if (m_heldCount != 0) {
      if (!take(unit, 2, in, left)) break;
      putByte(unit[0], unit[1]);
    }
    // Whole code bytes straight from the input.
    uint32_t bytes = (kBlockBytes - m_pos);
    if (bytes > left / 2) bytes = left / 2;
    for (uint32_t i = 0; i < bytes; i++, in += 2) putByte(in[0], in[1]);
    left -= 2 * bytes;
    if (m_pos < kBlockBytes) {
      if (left != 0) take(unit, 2, in, left);  // one odd sample: held back
      break;
    }
  }
  return written;
}

uint32_t MsAdpcmBlockEncoder::flush(uint8_t* out) {
  if (!hasPending()) return 0;
  int16_t unit[4] = {0, 0, 0, 0};
  if (m_pos == 0) {
    for (int i = 0; i < m_heldCount; i++) unit[i] = m_held[i];
    m_heldCount = 0;
    beginBlock(unit);
  }
  if (m_heldCount != 0 && m_pos < kBlockBytes) {
    putByte(m_held[0], 0);
    m_heldCount = 0;
  }
  while (m_pos < kBlockBytes) putByte(0, 0);
  std::memcpy(out, m_block, kBlockBytes);
  return kBlockBytes;
}

}  // namespace quillon
