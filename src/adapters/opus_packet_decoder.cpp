#include "quillon/opus_packet_decoder.h"

#include <opus.h>

#include <algorithm>

namespace quillon {

OpusPacketDecoder::~OpusPacketDecoder() { close(); }

bool OpusPacketDecoder::open(unsigned channels, unsigned rate) {
  close();
  if (channels != 1 && channels != 2) return false;
  if (rate != 8000 && rate != 12000 && rate != 16000 && rate != 24000 && rate != 48000) return false;
  int error = OPUS_OK;
  OpusDecoder* decoder = opus_decoder_create(static_cast<opus_int32>(rate), static_cast<int>(channels), &error);
  if (error != OPUS_OK || !decoder) {
    if (decoder) opus_decoder_destroy(decoder);
    return false;
  }
  m_decoder = decoder;
  m_channels = channels;
  m_rate = rate;
  m_frameSize = rate / 50;
  return true;
}

void OpusPacketDecoder::close() {
  if (m_decoder) opus_decoder_destroy(m_decoder);
  m_decoder = nullptr;
  m_channels = 0;
  m_rate = 0;
  m_frameSize = 0;
}

long OpusPacketDecoder::decode(const uint8_t* packet, size_t bytes, int16_t* out, size_t capacityFrames) {
  if (!m_decoder || !packet || bytes == 0 || bytes > 0x7fffffff) return -1;
  const opus_int32 length = static_cast<opus_int32>(bytes);
  // libopus checks the packet as well; asking first keeps a packet that
  // would not fit from being decoded at all.
  const int samples = opus_decoder_get_nb_samples(m_decoder, packet, length);
  if (samples <= 0 || static_cast<size_t>(samples) > capacityFrames) return -1;
  const int n = opus_decode(m_decoder, packet, length, out, samples, 0);
  if (n < 0) return -1;
  m_frameSize = static_cast<size_t>(opus_packet_get_samples_per_frame(packet, static_cast<opus_int32>(m_rate)));
  return n;
}

size_t OpusPacketDecoder::conceal(int16_t* out, size_t capacityFrames, const uint8_t* next, size_t nextBytes) {
  const size_t frames = std::min(m_frameSize, capacityFrames);
  if (frames == 0) return 0;
  int n = -1;
  if (m_decoder && next && nextBytes > 0 && nextBytes <= 0x7fffffff)
    n = opus_decode(m_decoder, next, static_cast<opus_int32>(nextBytes), out, static_cast<int>(frames), 1);
  if (n < 0 && m_decoder) n = opus_decode(m_decoder, nullptr, 0, out, static_cast<int>(frames), 0);
  if (n < 0) {
    std::fill(out, out + frames * std::max(m_channels, 1u), int16_t{0});
    n = static_cast<int>(frames);
  }
  return static_cast<size_t>(n);
}

void OpusPacketDecoder::reset() {
  if (m_decoder) opus_decoder_ctl(m_decoder, OPUS_RESET_STATE);
  m_frameSize = m_rate / 50;
}

}  // namespace quillon
