// Encoders the TAV codec classes do not offer, for hosts that make coded
// streams: AMR-WB (3GPP TS 26.173, the stream code 65 decodes) and ICELP48
// (code 30). Each takes 16-bit mono PCM of any length, encodes every frame
// as it fills, keeps a partial frame for the next call, and flush() encodes
// what is held padded with silence.
#ifndef QUILLON_ENCODERS_H
#define QUILLON_ENCODERS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "quillon/platform.h"

namespace quillon {

class QUILLON_API StreamEncoder {
 public:
  virtual ~StreamEncoder();
  StreamEncoder(const StreamEncoder&) = delete;
  StreamEncoder& operator=(const StreamEncoder&) = delete;

  // Appends to `out` the coded bytes of every frame `pcm` completes.
  void feed(const int16_t* pcm, size_t samples, std::vector<uint8_t>& out);
  // Encodes the held samples (if any) as a last, zero-padded frame.
  void flush(std::vector<uint8_t>& out);
  // Drops what is held and starts the encoder afresh.
  void reset();
  size_t frameSamples() const { return m_buffer.size(); }
  size_t heldSamples() const { return m_held; }

 protected:
  explicit StreamEncoder(size_t frameSamples);

 private:
  virtual void encodeFrame(const int16_t* frame, std::vector<uint8_t>& out) = 0;
  virtual void restart() = 0;

  std::vector<int16_t> m_buffer;
  size_t m_held = 0;
};

// AMR-WB at 16 kHz, 320 samples a frame, to the length-prefixed stream code
// 65 reads: per frame a 16-bit little-endian byte count, then the frame in
// the storage layout (table-of-contents byte first).
class QUILLON_API AmrWbStreamEncoder final : public StreamEncoder {
 public:
  // `mode` 0..8 (6.60 to 23.85 kbit/s; with another mode nothing is
  // encoded); `dtx`: SID and NO_DATA frames in pauses.
  AmrWbStreamEncoder(int mode, bool dtx);
  ~AmrWbStreamEncoder() override;

 private:
  struct Engine;
  void encodeFrame(const int16_t* frame, std::vector<uint8_t>& out) override;
  void restart() override;
  std::unique_ptr<Engine> m_engine;
  int m_mode;
  bool m_dtx;
};

// ICELP48 at 8 kHz: 240 samples a frame to 18 bytes.
class QUILLON_API Icelp48StreamEncoder final : public StreamEncoder {
 public:
  Icelp48StreamEncoder();
  ~Icelp48StreamEncoder() override;

 private:
  struct Engine;
  void encodeFrame(const int16_t* frame, std::vector<uint8_t>& out) override;
  void restart() override;
  std::unique_ptr<Engine> m_engine;
};

}  // namespace quillon

#endif
