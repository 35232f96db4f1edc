// Microsoft ADPCM encoder producing 256-byte blocks, mono or stereo. Only
// the first predictor of the standard coefficient set is used (coef1 = 256,
// coef2 = 0), so every block decodes with any standard MS ADPCM decoder.
#ifndef QUILLON_CODECS_WAVEFORM_MSADPCM_ENCODER_H
#define QUILLON_CODECS_WAVEFORM_MSADPCM_ENCODER_H

#include <cstdint>

namespace quillon {

class MsAdpcmBlockEncoder {
 public:
  static constexpr uint32_t kBlockBytes = 256;

  struct ChannelState {
    uint8_t predictor;  // index into the coefficient set
    int16_t sample1;    // newest reconstructed sample
    int16_t sample2;    // the one before
    int16_t coef1;
    int16_t coef2;
    uint16_t delta;     // quantizer step
  };

  // Mono, no block open, every channel field 0 (the first block header
  // raises the step to its floor of 16).
  MsAdpcmBlockEncoder();

  // 1 or 2 (anything else is taken as 1). Keeps the channel states and any
  // open block as they are.
  void setChannels(int channels);
  int channels() const { return m_channels; }

  // Encodes n interleaved samples (left, right for stereo). Completed blocks
  // are copied to out while whole blocks fit in outCapacity bytes; returns
  // the bytes written (a multiple of 256). A block that is begun but not
  // full stays open for the next call. When a full block does not fit, it is
  // kept and the rest of the input is dropped. Samples that do not make up
  // a whole unit (a block header needs two sample frames, a code byte two
  // samples) are held back until the next call or flush().
  uint32_t encode(const int16_t* in, uint32_t n, uint8_t* out, uint32_t outCapacity);

  // Completes the open block with encoded silence and copies it to out
  // (256 bytes of room needed); returns 256, or 0 when nothing is open. The
  // block stays full: the next encode() emits it again first.
  uint32_t flush(uint8_t* out);

  bool hasPending() const { return m_pos != 0 || m_heldCount != 0; }
  uint32_t blockPosition() const { return m_pos; }
  const ChannelState& channel(int c) const { return m_ch[c & 1]; }

 private:
  int encodeSample(ChannelState& ch, int sample);
  void beginBlock(const int16_t* twoFrames);
  void putByte(int first, int second);
  // Moves k samples (held ones first) to dst; false, holding what there
  // is, when fewer than k are available.
  bool take(int16_t* dst, int k, const int16_t*& in, uint32_t& left);

  ChannelState m_ch[2];
  uint8_t m_block[kBlockBytes];
  uint32_t m_pos;
  int m_channels;
  int16_t m_held[4];
  int m_heldCount;
};

}  // namespace quillon

#endif
