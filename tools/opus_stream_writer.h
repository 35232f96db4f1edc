// Makes length-prefixed Opus streams (the input format of code 64) from
// 16 kHz mono PCM with libopus's encoder, e.g. for demos and tests.
#ifndef QUILLON_OPUS_STREAM_WRITER_H
#define QUILLON_OPUS_STREAM_WRITER_H

#include <cstddef>
#include <cstdint>
#include <vector>

struct OpusEncoder;  // libopus's opaque encoder state

namespace quillon {

enum class OpusStreamApplication { Voip, Audio, LowDelay };

struct OpusStreamOptions {
  int32_t bitrate = 16000;  // bits per second
  OpusStreamApplication application = OpusStreamApplication::Voip;
  int fecLossPercent = 0;  // > 0: in-band FEC for this expected loss (%)
};

// Encodes 20 ms frames (320 samples at 16000 Hz) and appends each packet to
// a stream as a 16-bit signed little-endian byte count plus the packet.
class OpusStreamWriter {
 public:
  static constexpr size_t kFrameSamples = 320;

  OpusStreamWriter() = default;
  ~OpusStreamWriter();
  OpusStreamWriter(const OpusStreamWriter&) = delete;
  OpusStreamWriter& operator=(const OpusStreamWriter&) = delete;

  // Creates the encoder; false when libopus refuses the options.
  bool open(const OpusStreamOptions& options);
  // Buffers samples and appends a packet for every whole frame gathered.
  // False when the encoder is not open or libopus fails.
  bool write(const int16_t* pcm, size_t samples, std::vector<uint8_t>& stream);
  // Pads a held-back partial frame with silence and appends its packet.
  bool finish(std::vector<uint8_t>& stream);
  // Samples by which the decoded stream lags the input (encoder look-ahead).
  int lookahead() const;

 private:
  bool encodeFrame(std::vector<uint8_t>& stream);

  OpusEncoder* m_encoder = nullptr;
  int16_t m_frame[kFrameSamples] = {};
  size_t m_held = 0;
};

// One call: the whole clip as a stream (a partial last frame is padded with
// silence). Returns an empty vector when libopus refuses the options.
std::vector<uint8_t> makeOpusStream(const int16_t* pcm, size_t samples,
                                    const OpusStreamOptions& options = {});

}  // namespace quillon

#endif
