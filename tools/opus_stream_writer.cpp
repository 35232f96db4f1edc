#include "opus_stream_writer.h"

#include <opus.h>

#include <algorithm>
#include <cstring>

namespace quillon {

namespace {

constexpr opus_int32 kSampleRate = 16000;
// Large enough for any single Opus packet, and below the prefix's 32767.
constexpr int kMaxPacket = 4000;

int applicationCode(OpusStreamApplication app) {
  switch (app) {
    case OpusStreamApplication::Audio:
      return OPUS_APPLICATION_AUDIO;
    case OpusStreamApplication::LowDelay:
      return OPUS_APPLICATION_RESTRICTED_LOWDELAY;
    case OpusStreamApplication::Voip:
    default:
      return OPUS_APPLICATION_VOIP;
  }
}

}  // namespace

OpusStreamWriter::~OpusStreamWriter() {
  if (m_encoder) opus_encoder_destroy(m_encoder);
}

bool OpusStreamWriter::open(const OpusStreamOptions& options) {
  if (m_encoder) {
    opus_encoder_destroy(m_encoder);
    m_encoder = nullptr;
  }
  m_held = 0;
  int error = OPUS_OK;
  OpusEncoder* enc = opus_encoder_create(kSampleRate, 1, applicationCode(options.application), &error);
  if (error != OPUS_OK || !enc) return false;
  bool ok = opus_encoder_ctl(enc, OPUS_SET_BITRATE(options.bitrate)) == OPUS_OK;
  if (ok && options.fecLossPercent > 0) {
    ok = opus_encoder_ctl(enc, OPUS_SET_INBAND_FEC(1)) == OPUS_OK &&
         opus_encoder_ctl(enc, OPUS_SET_PACKET_LOSS_PERC(options.fecLossPercent)) == OPUS_OK;
  }
  if (!ok) {
    opus_encoder_destroy(enc);
    return false;
  }
  m_encoder = enc;
  return true;
}

bool OpusStreamWriter::encodeFrame(std::vector<uint8_t>& stream) {
  const size_t at = stream.size();
  stream.resize(at + 2 + kMaxPacket);
  const opus_int32 len = opus_encode(m_encoder, m_frame, static_cast<int>(kFrameSamples),
                                     stream.data() + at + 2, kMaxPacket);
  if (len < 0) {
    stream.resize(at);
    return false;
  }
  stream[at] = static_cast<uint8_t>(len & 0xFF);
  stream[at + 1] = static_cast<uint8_t>((len >> 8) & 0xFF);
  stream.resize(at + 2 + static_cast<size_t>(len));
  m_held = 0;
  return true;
}

bool OpusStreamWriter::write(const int16_t* pcm, size_t samples, std::vector<uint8_t>& stream) {
  if (!m_encoder) return false;
  while (samples > 0) {
    const size_t take = std::min(samples, kFrameSamples - m_held);
    std::memcpy(m_frame + m_held, pcm, take * sizeof(int16_t));
    m_held += take;
    pcm += take;
    samples -= take;
    if (m_held == kFrameSamples && !encodeFrame(stream)) return false;
  }
  return true;
}

bool OpusStreamWriter::finish(std::vector<uint8_t>& stream) {
  if (!m_encoder) return false;
  if (m_held == 0) return true;
  std::fill(m_frame + m_held, m_frame + kFrameSamples, int16_t{0});
  return encodeFrame(stream);
}

int OpusStreamWriter::lookahead() const {
  opus_int32 samples = 0;
  if (!m_encoder || opus_encoder_ctl(m_encoder, OPUS_GET_LOOKAHEAD(&samples)) != OPUS_OK) return 0;
  return samples;
}

std::vector<uint8_t> makeOpusStream(const int16_t* pcm, size_t samples, const OpusStreamOptions& options) {
  std::vector<uint8_t> stream;
  OpusStreamWriter writer;
  if (!writer.open(options) || !writer.write(pcm, samples, stream) || !writer.finish(stream)) return {};
  return stream;
}

}  // namespace quillon
