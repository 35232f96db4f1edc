// The per-stream jitter buffer and play-out timeline.
//
// Packets wait in a small window indexed by extended sequence number. The
// next expected packet plays as soon as it is there; a missing one is
// declared lost once the window is full behind it. Playing a packet first
// fills the timeline up to its timestamp: with a sequence gap the missing
// time is concealed by the codec, without one (discontinuous transmission)
// it is comfort noise or silence.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "quillon/rtp.h"
#include "rtp/payload_decoder.h"

namespace quillon::rtp {

class RtpStreamDecoderImpl {
 public:
  RtpStreamDecoderImpl(const PayloadDescription& payload, std::unique_ptr<PayloadDecoder> decoder)
      : m_payload(payload), m_decoder(std::move(decoder)) {
    m_rate = m_decoder->rate();
    m_ring.assign(static_cast<size_t>(m_rate) * kRingSeconds, 0);
    m_work.assign(PayloadDecoder::kMaxPacketSamples, 0);
    for (Slot& s : m_slots) s.data.assign(PayloadDecoder::kMaxPayloadBytes, 0);
  }

  bool push(const uint8_t* data, size_t bytes, uint64_t arrivalMicros);
  size_t pull(int16_t* out, size_t maxSamples);
  size_t available() const { return m_ringCount + m_pendingSilenceTotal; }
  void flush();

  mutable std::mutex m_mutex;
  PayloadDescription m_payload;
  int m_eventType = -1;
  int m_noiseType = 13;
  StreamStatistics m_stats;
  uint32_t m_rate = 0;

 private:
  static constexpr int kWindow = RtpStreamDecoder::kReorderWindow;
  static constexpr size_t kRingSeconds = 4;
  static constexpr size_t kSilenceMarks = 32;
  // A timestamp step beyond this many seconds is taken as a restart.
  static constexpr int64_t kMaxStepSeconds = 10;

  struct Slot {
    bool used = false;
    int64_t seq = 0;
    uint32_t timestamp = 0;
    uint8_t payloadType = 0;
    uint64_t arrival = 0;
    size_t bytes = 0;
    std::vector<uint8_t> data;
  };
  struct SilenceMark {
    uint64_t at;      // ring write count where the silence goes
    uint64_t samples;
  };

  void restart();
  void playReady(bool all);
  void play(Slot& slot);
  void fill(uint64_t samples, bool lost, const uint8_t* next, size_t nextBytes);
  void emit(const int16_t* samples, size_t n);
  void emitSilence(uint64_t n);
  void comfortNoise(int16_t* out, size_t n);
  void updateJitter(uint32_t timestamp, uint64_t arrivalMicros);

  std::unique_ptr<PayloadDecoder> m_decoder;
  Slot m_slots[kWindow];

  bool m_started = false;
  uint32_t m_ssrc = 0;
  int64_t m_maxSeq = 0;   // highest extended sequence received
  int64_t m_playSeq = 0;  // next extended sequence to play
  uint64_t m_playedMask = 0;  // bit k: m_playSeq - 1 - k was played

  bool m_timelineStarted = false;
  uint32_t m_nextTimestamp = 0;  // where the timeline continues
  uint64_t m_lastArrival = 0;
  int64_t m_lastPlayedSeq = -1;
  uint64_t m_lastPacketSamples = 0;
  bool m_wireResync = false;  // place the next packet by arrival time

  // RFC 3550 jitter state.
  bool m_haveTransit = false;
  int64_t m_lastTransit = 0;
  double m_jitter = 0;

  // Telephone events: the timestamp of the last one counted.
  bool m_haveEvent = false;
  uint32_t m_eventTimestamp = 0;

  // Comfort noise of RFC 3389: active from a CN packet to the next speech.
  bool m_noiseActive = false;
  double m_noiseRms = 0;
  uint32_t m_noiseSeed = 12345;

  std::vector<int16_t> m_ring;
  size_t m_ringRead = 0, m_ringCount = 0;
  uint64_t m_written = 0;  // samples ever put in the ring
  uint64_t m_read = 0;     // samples ever taken from the ring
  SilenceMark m_marks[kSilenceMarks];
  size_t m_markCount = 0;
  uint64_t m_pendingSilenceTotal = 0;

  std::vector<int16_t> m_work;
};

namespace {

int64_t extend(int64_t reference, uint16_t sequence) {
  const int16_t delta = static_cast<int16_t>(static_cast<uint16_t>(sequence - static_cast<uint16_t>(reference)));
  return reference + delta;
}

}  // namespace

void RtpStreamDecoderImpl::restart() {
  for (Slot& s : m_slots) s.used = false;
  m_started = false;
  m_playedMask = 0;
  m_haveTransit = false;
}

void RtpStreamDecoderImpl::updateJitter(uint32_t timestamp, uint64_t arrivalMicros) {
  const int64_t arrival = static_cast<int64_t>(arrivalMicros * m_payload.clockRate / 1000000u);
  const int64_t transit = arrival - static_cast<int64_t>(timestamp);
  if (m_haveTransit) {
    // Differences taken modulo 2^32 of the timestamp.
    int64_t d = transit - m_lastTransit;
    d = static_cast<int32_t>(static_cast<uint32_t>(d));
    m_jitter += (static_cast<double>(std::llabs(d)) - m_jitter) / 16.0;
    m_stats.jitterMs = m_jitter * 1000.0 / m_payload.clockRate;
    m_stats.maxJitterMs = std::max(m_stats.maxJitterMs, m_stats.jitterMs);
  }
  m_lastTransit = transit;
  m_haveTransit = true;
}

bool RtpStreamDecoderImpl::push(const uint8_t* data, size_t bytes, uint64_t arrivalMicros) {
  RtpPacket packet;
  if (!parseRtp(data, bytes, packet)) return false;
  if (packet.payloadType == m_eventType) {
    // RFC 4733: one event per timestamp, repeated and ended in several packets.
    if (!m_haveEvent || packet.timestamp != m_eventTimestamp) m_stats.events++;
    m_haveEvent = true;
    m_eventTimestamp = packet.timestamp;
    return true;
  }
  if (packet.payloadType != m_payload.payloadType && packet.payloadType != m_noiseType) {
    m_stats.otherPayload++;
    return true;
  }
  if (packet.payloadBytes > PayloadDecoder::kMaxPayloadBytes) {
    m_stats.badPayloads++;
    return true;
  }
  if (m_started && packet.ssrc != m_ssrc) {
    // A new source: play out what the old one left, then start afresh.
    playReady(true);
    restart();
    m_decoder->reset();
    m_stats.ssrcChanges++;
    m_lastPlayedSeq = -1;
    m_wireResync = true;
  }
  int64_t seq;
  if (!m_started) {
    m_started = true;
    m_ssrc = packet.ssrc;
    seq = packet.sequence;
    m_maxSeq = seq;
    m_playSeq = seq;
  } else {
    seq = extend(m_maxSeq, packet.sequence);
    if (seq < m_playSeq - 3000 || seq > m_maxSeq + 3000) {
      // The sequence jumped: a restarted sender. Play out and resync.
      playReady(true);
      restart();
      m_started = true;
      m_ssrc = packet.ssrc;
      seq = packet.sequence;
      m_maxSeq = seq;
      m_playSeq = seq;
      m_lastPlayedSeq = -1;
      m_wireResync = true;
    }
  }
  if (seq < m_playSeq) {
    const int64_t back = m_playSeq - 1 - seq;
    if (back < 64 && (m_playedMask >> back) & 1) m_stats.duplicated++;
    else m_stats.late++;
    return true;
  }
  Slot& slot = m_slots[seq % kWindow];
  if (slot.used && slot.seq == seq) {
    m_stats.duplicated++;
    return true;
  }
  if (packet.payloadType == m_payload.payloadType) updateJitter(packet.timestamp, arrivalMicros);
  m_stats.packets++;
  if (seq < m_maxSeq) m_stats.reordered++;
  // Make room: everything at least a window behind the newest plays now.
  while (seq >= m_playSeq + kWindow) {
    Slot& old = m_slots[m_playSeq % kWindow];
    if (old.used && old.seq == m_playSeq) play(old);
    m_playedMask = (m_playedMask << 1) | (old.used && old.seq == m_playSeq ? 1u : 0u);
    old.used = false;
    m_playSeq++;
  }
  Slot& target = m_slots[seq % kWindow];
  target.used = true;
  target.seq = seq;
  target.timestamp = packet.timestamp;
  target.payloadType = packet.payloadType;
  target.arrival = arrivalMicros;
  target.bytes = packet.payloadBytes;
  std::memcpy(target.data.data(), packet.payload, packet.payloadBytes);
  m_maxSeq = std::max(m_maxSeq, seq);
  playReady(false);
  return true;
}

// Plays packets in order while the next one is there; with `all` also
// steps over holes until the window is empty.
void RtpStreamDecoderImpl::playReady(bool all) {
  while (m_started && m_playSeq <= m_maxSeq) {
    Slot& s = m_slots[m_playSeq % kWindow];
    const bool present = s.used && s.seq == m_playSeq;
    if (!present && !all) break;
    if (present) play(s);
    m_playedMask = (m_playedMask << 1) | (present ? 1u : 0u);
    s.used = false;
    m_playSeq++;
  }
}

void RtpStreamDecoderImpl::play(Slot& slot) {
  const int64_t missing = m_lastPlayedSeq >= 0 ? slot.seq - m_lastPlayedSeq - 1 : 0;
  if (missing > 0) m_stats.lost += static_cast<uint64_t>(missing);
  const uint32_t clock = m_payload.clockRate;
  if (m_timelineStarted) {
    const int32_t step = static_cast<int32_t>(slot.timestamp - m_nextTimestamp);
    const bool implausible = step > static_cast<int64_t>(clock) * kMaxStepSeconds || step < -static_cast<int64_t>(clock);
    if (implausible || m_wireResync) {
      // A new source or an implausible jump: keep the time that passed on
      // the wire.
      if (!m_wireResync) m_stats.timestampJumps++;
      const uint64_t wire = slot.arrival > m_lastArrival ? slot.arrival - m_lastArrival : 0;
      const uint64_t samples = wire * m_rate / 1000000u;
      const uint64_t lastPacket = m_lastPacketSamples;
      if (samples > lastPacket) fill(samples - lastPacket, false, nullptr, 0);
    } else if (step > 0) {
      const uint64_t samples = static_cast<uint64_t>(step) * m_rate / clock;
      fill(samples, missing > 0, slot.payloadType == m_payload.payloadType ? slot.data.data() : nullptr,
           slot.payloadType == m_payload.payloadType ? slot.bytes : 0);
    }
  }
  m_timelineStarted = true;
  m_wireResync = false;
  m_lastArrival = slot.arrival;
  m_lastPlayedSeq = slot.seq;
  if (slot.payloadType != m_payload.payloadType) {
    // RFC 3389 comfort noise: the first byte is the level in -dBov.
    if (slot.bytes >= 1) {
      const int level = slot.data[0] & 0x7f;
      m_noiseRms = 32768.0 / std::sqrt(2.0) * std::pow(10.0, -level / 20.0);
    }
    m_noiseActive = true;
    m_nextTimestamp = slot.timestamp;
    m_lastPacketSamples = 0;
    return;
  }
  const long n = m_decoder->decode(slot.data.data(), slot.bytes, m_work.data());
  if (n < 0) {
    // Unusable: the time it would have covered is concealed when the next
    // packet shows its length.
    m_stats.badPayloads++;
    m_nextTimestamp = slot.timestamp;
    m_lastPacketSamples = 0;
    return;
  }
  m_noiseActive = false;
  emit(m_work.data(), static_cast<size_t>(n));
  m_lastPacketSamples = static_cast<uint64_t>(n);
  m_nextTimestamp = slot.timestamp + static_cast<uint32_t>(static_cast<uint64_t>(n) * clock / m_rate);
}

// Fills `samples` of the timeline before the packet being played: codec
// concealment for a loss (up to kConcealSeconds, then silence), comfort
// noise or the codec's pause frames for a transmission pause.
void RtpStreamDecoderImpl::fill(uint64_t samples, bool lost, const uint8_t* next, size_t nextBytes) {
  const size_t step = m_decoder->stepSamples();
  const uint64_t codecLimit = static_cast<uint64_t>(m_rate) * (lost ? 1 : 30);
  uint64_t left = samples;
  while (left >= (step + 1) / 2 && samples - left < codecLimit) {
    size_t n;
    if (lost) {
      const bool lastStep = left <= step + step / 2;
      n = m_decoder->conceal(m_work.data(), lastStep ? next : nullptr, lastStep ? nextBytes : 0);
      m_stats.concealedSamples += n;
    } else if (m_noiseActive) {
      n = std::min<uint64_t>(step, left);
      comfortNoise(m_work.data(), n);
      m_stats.comfortNoiseSamples += n;
    } else {
      n = m_decoder->fillPause(m_work.data());
      m_stats.comfortNoiseSamples += n;
    }
    if (n == 0) break;
    emit(m_work.data(), n);
    left = left > n ? left - n : 0;
  }
  if (left >= step) emitSilence(left);
}

void RtpStreamDecoderImpl::comfortNoise(int16_t* out, size_t n) {
  // Uniform noise of the announced power (variance of U(-a,a) is a^2/3).
  const double a = m_noiseRms * std::sqrt(3.0);
  for (size_t i = 0; i < n; i++) {
    m_noiseSeed = m_noiseSeed * 1664525u + 1013904223u;
    const double u = (static_cast<double>(m_noiseSeed >> 8) / 16777216.0) * 2.0 - 1.0;
    out[i] = static_cast<int16_t>(std::clamp(u * a, -32768.0, 32767.0));
  }
}

void RtpStreamDecoderImpl::emit(const int16_t* samples, size_t n) {
  m_stats.samples += n;
  const size_t capacity = m_ring.size();
  for (size_t i = 0; i < n; i++) {
    if (m_ringCount == capacity) {
      // The host is not pulling: the oldest sample goes.
      m_stats.overrunSamples++;
      m_ringRead = (m_ringRead + 1) % capacity;
      m_ringCount--;
      m_read++;
    }
    m_ring[(m_ringRead + m_ringCount) % capacity] = samples[i];
    m_ringCount++;
    m_written++;
  }
}

void RtpStreamDecoderImpl::emitSilence(uint64_t n) {
  m_stats.samples += n;
  if (m_markCount > 0 && m_marks[m_markCount - 1].at == m_written) {
    m_marks[m_markCount - 1].samples += n;
  } else if (m_markCount < kSilenceMarks) {
    m_marks[m_markCount++] = {m_written, n};
  } else {
    m_stats.samples -= n;  // no room to remember it: written as zeros below
    int16_t zeros[256] = {};
    while (n > 0) {
      const size_t k = static_cast<size_t>(std::min<uint64_t>(n, 256));
      emit(zeros, k);
      n -= k;
    }
    return;
  }
  m_pendingSilenceTotal += n;
}

size_t RtpStreamDecoderImpl::pull(int16_t* out, size_t maxSamples) {
  size_t done = 0;
  const size_t capacity = m_ring.size();
  while (done < maxSamples) {
    if (m_markCount > 0 && m_marks[0].at <= m_read) {
      const size_t k = static_cast<size_t>(std::min<uint64_t>(m_marks[0].samples, maxSamples - done));
      std::fill(out + done, out + done + k, int16_t{0});
      done += k;
      m_marks[0].samples -= k;
      m_pendingSilenceTotal -= k;
      if (m_marks[0].samples == 0) {
        std::memmove(m_marks, m_marks + 1, (m_markCount - 1) * sizeof(SilenceMark));
        m_markCount--;
      }
      continue;
    }
    if (m_ringCount == 0) break;
    size_t k = std::min(maxSamples - done, m_ringCount);
    if (m_markCount > 0) k = static_cast<size_t>(std::min<uint64_t>(k, m_marks[0].at - m_read));
    k = std::min(k, capacity - m_ringRead);
    std::memcpy(out + done, m_ring.data() + m_ringRead, k * sizeof(int16_t));
    m_ringRead = (m_ringRead + k) % capacity;
    m_ringCount -= k;
    m_read += k;
    done += k;
  }
  return done;
}

void RtpStreamDecoderImpl::flush() {
  playReady(true);
  const size_t n = m_decoder->drain(m_work.data());
  emit(m_work.data(), n);
}

// ---------------------------------------------------------------------------

std::unique_ptr<RtpStreamDecoder> RtpStreamDecoder::create(const PayloadDescription& payload, uint32_t outputRate) {
  if (payload.clockRate == 0) return nullptr;
  auto decoder = makePayloadDecoder(payload, outputRate);
  if (!decoder) return nullptr;
  auto impl = std::make_unique<RtpStreamDecoderImpl>(payload, std::move(decoder));
  return std::unique_ptr<RtpStreamDecoder>(new RtpStreamDecoder(std::move(impl)));
}

RtpStreamDecoder::RtpStreamDecoder(std::unique_ptr<RtpStreamDecoderImpl> impl) : m_impl(std::move(impl)) {}
RtpStreamDecoder::~RtpStreamDecoder() = default;

uint32_t RtpStreamDecoder::sampleRate() const { return m_impl->m_rate; }

bool RtpStreamDecoder::push(const uint8_t* data, size_t bytes, uint64_t arrivalMicros) {
  std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  return m_impl->push(data, bytes, arrivalMicros);
}

size_t RtpStreamDecoder::pull(int16_t* out, size_t maxSamples) {
  std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  return m_impl->pull(out, maxSamples);
}

size_t RtpStreamDecoder::available() const {
  std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  return m_impl->available();
}

void RtpStreamDecoder::flush() {
  std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  m_impl->flush();
}

void RtpStreamDecoder::setEventPayloadType(int payloadType) {
  std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  m_impl->m_eventType = payloadType;
}

void RtpStreamDecoder::setComfortNoisePayloadType(int payloadType) {
  std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  m_impl->m_noiseType = payloadType;
}

StreamStatistics RtpStreamDecoder::statistics() const {
  std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  return m_impl->m_stats;
}

}  // namespace quillon::rtp
