#include "quillon/encoders.h"

#include <algorithm>

#include "engines/amrwb/amrwb_encoder.h"
#include "engines/icelp48/icelp48_encoder.h"

namespace quillon {

StreamEncoder::StreamEncoder(size_t frameSamples) : m_buffer(frameSamples, 0) {}

StreamEncoder::~StreamEncoder() = default;

void StreamEncoder::feed(const int16_t* pcm, size_t samples, std::vector<uint8_t>& out) {
  const size_t frame = m_buffer.size();
  while (samples > 0) {
    if (m_held == 0 && samples >= frame) {  // a whole frame straight from the input
      encodeFrame(pcm, out);
      pcm += frame;
      samples -= frame;
      continue;
    }
    const size_t take = std::min(samples, frame - m_held);
    std::copy(pcm, pcm + take, m_buffer.begin() + static_cast<std::ptrdiff_t>(m_held));
    m_held += take;
    pcm += take;
    samples -= take;
    if (m_held == frame) {
      encodeFrame(m_buffer.data(), out);
      m_held = 0;
    }
  }
}

void StreamEncoder::flush(std::vector<uint8_t>& out) {
  if (m_held == 0) return;
  std::fill(m_buffer.begin() + static_cast<std::ptrdiff_t>(m_held), m_buffer.end(), int16_t{0});
  encodeFrame(m_buffer.data(), out);
  m_held = 0;
}

void StreamEncoder::reset() {
  m_held = 0;
  restart();
}

struct AmrWbStreamEncoder::Engine {
  amrwb::Encoder encoder;
};

AmrWbStreamEncoder::AmrWbStreamEncoder(int mode, bool dtx)
    : StreamEncoder(amrwb::Encoder::kInputSamples), m_engine(std::make_unique<Engine>()), m_mode(mode), m_dtx(dtx) {}

AmrWbStreamEncoder::~AmrWbStreamEncoder() = default;

void AmrWbStreamEncoder::encodeFrame(const int16_t* frame, std::vector<uint8_t>& out) {
  uint8_t coded[amrwb::Encoder::kMaxFrameBytes];
  const int n = m_engine->encoder.encodeFrame(frame, m_mode, m_dtx, coded);
  if (n <= 0) return;
  out.push_back(static_cast<uint8_t>(n & 0xff));
  out.push_back(static_cast<uint8_t>(n >> 8));
  out.insert(out.end(), coded, coded + n);
}

void AmrWbStreamEncoder::restart() { m_engine->encoder.reset(); }

struct Icelp48StreamEncoder::Engine {
  icelp48::Icelp48Encoder encoder;
};

Icelp48StreamEncoder::Icelp48StreamEncoder()
    : StreamEncoder(icelp48::kFrameSamples), m_engine(std::make_unique<Engine>()) {}

Icelp48StreamEncoder::~Icelp48StreamEncoder() = default;

void Icelp48StreamEncoder::encodeFrame(const int16_t* frame, std::vector<uint8_t>& out) {
  uint8_t coded[icelp48::kFrameBytes];
  m_engine->encoder.encode(frame, coded);
  out.insert(out.end(), coded, coded + icelp48::kFrameBytes);
}

void Icelp48StreamEncoder::restart() { m_engine->encoder.reset(); }

}  // namespace quillon
