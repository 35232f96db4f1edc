#include "rtp/waveform_concealer.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace quillon::rtp {

namespace {

int16_t clamp16(float v) {
  if (v > 32767.0f) return 32767;
  if (v < -32768.0f) return -32768;
  return static_cast<int16_t>(std::lrint(v));
}

}  // namespace

WaveformConcealer::WaveformConcealer(int scale) : m_scale(scale < 1 ? 1 : (scale > kMaxScale ? kMaxScale : scale)) {
  m_overlapMax = kPitchMax / 4 * m_scale;
  m_history = kHistory * m_scale;
  m_frame = kFrame * m_scale;
  reset();
}

void WaveformConcealer::reset() {
  std::memset(m_hist, 0, sizeof m_hist);
  std::memset(m_pitchBuf, 0, sizeof m_pitchBuf);
  m_losing = false;
  m_lostSamples = 0;
}

// Appends n samples to the history and hands out the n samples that are
// m_overlapMax older than the newest.
void WaveformConcealer::push(const int16_t* in, int16_t* out, size_t n) {
  while (n > 0) {
    const int step = static_cast<int>(std::min<size_t>(n, static_cast<size_t>(m_overlapMax)));
    std::memcpy(out, m_hist + m_history - m_overlapMax, static_cast<size_t>(step) * sizeof(int16_t));
    std::memmove(m_hist, m_hist + step, static_cast<size_t>(m_history - step) * sizeof(int16_t));
    std::memcpy(m_hist + m_history - step, in, static_cast<size_t>(step) * sizeof(int16_t));
    in += step;
    out += step;
    n -= static_cast<size_t>(step);
  }
}

// The lag that maximises the normalised correlation of the newest 20 ms
// with the history one lag earlier: a coarse search on every second lag
// and every second sample, then a fine search around the best one.
int WaveformConcealer::findPitch() const {
  const int corrLength = kCorrLength * m_scale;
  const int minLag = kPitchMin * m_scale;
  const int maxLag = kPitchMax * m_scale;
  const int16_t* recent = m_hist + m_history - corrLength;
  auto score = [&](int lag, int step) {
    double corr = 0, energy = 0;
    const int16_t* past = recent - lag;
    for (int i = 0; i < corrLength; i += step) {
      corr += static_cast<double>(recent[i]) * past[i];
      energy += static_cast<double>(past[i]) * past[i];
    }
    if (corr <= 0 || energy < 1.0) return corr / 1e12;  // negative or tiny: a poor candidate
    return corr / std::sqrt(energy);
  };
  int best = maxLag;
  double bestScore = -1e300;
  for (int lag = minLag; lag <= maxLag; lag += 2) {
    const double s = score(lag, 2);
    if (s > bestScore) {
      bestScore = s;
      best = lag;
    }
  }
  const int from = std::max(minLag, best - 1), to = std::min(maxLag, best + 1);
  bestScore = -1e300;
  int fine = best;
  for (int lag = from; lag <= to; lag++) {
    const double s = score(lag, 1);
    if (s > bestScore) {
      bestScore = s;
      fine = lag;
    }
  }
  return fine;
}

// At the first lost sample: the pitch, a copy of the history to loop over,
// and the blend that makes the loop's end meet its start. The blended
// quarter period replaces the newest history samples, which have not been
// played yet (they are within the output delay).
void WaveformConcealer::startLoss() {
  m_pitch = findPitch();
  m_overlap = m_pitch / 4;
  for (int i = 0; i < m_history; i++) m_pitchBuf[i] = m_hist[i];
  const int end = m_history;
  for (int i = 0; i < m_overlap; i++) {
    const float w = static_cast<float>(i + 1) / static_cast<float>(m_overlap + 1);
    const float blended = (1.0f - w) * m_pitchBuf[end - m_overlap + i] + w * m_pitchBuf[end - m_pitch - m_overlap + i];
    m_hist[end - m_overlap + i] = clamp16(blended);
    m_tail[i] = blended;
  }
  // The loop (the last period) now runs from end - pitch; its last quarter
  // is the blend, so that its end flows into its start.
  for (int i = 0; i < m_overlap; i++) m_pitchBuf[end - m_overlap + i] = m_tail[i];
  m_loopLength = m_pitch;
  m_loopPos = 0;
  m_lostSamples = 0;
  m_losing = true;
}

// Two, then three pitch periods after 10 and 20 ms of loss: the loop
// reaches one period further back, entered at the same phase, with a
// quarter-period blend from the old position into the new one.
void WaveformConcealer::widenLoop() {
  const int newLength = m_loopLength + m_pitch;
  if (newLength > 3 * m_pitch) return;
  const int end = m_history;
  const int oldStart = end - m_loopLength;
  const int newStart = end - newLength;
  const int phase = m_loopPos % m_pitch;
  for (int i = 0; i < m_overlap; i++) {
    const float w = static_cast<float>(i + 1) / static_cast<float>(m_overlap + 1);
    const int o = oldStart + (m_loopPos + i) % m_loopLength;
    const int n = newStart + (phase + i) % newLength;
    m_tail[i] = (1.0f - w) * m_pitchBuf[o] + w * m_pitchBuf[n];
  }
  // The blend is played through a small detour: write it over the new
  // loop's samples at the entry point.
  for (int i = 0; i < m_overlap; i++) m_pitchBuf[newStart + (phase + i) % newLength] = m_tail[i];
  m_loopLength = newLength;
  m_loopPos = phase;
}

float WaveformConcealer::nextSynthetic() {
  const size_t frame = static_cast<size_t>(m_frame);
  if (m_lostSamples == frame || m_lostSamples == 2 * frame) widenLoop();
  const float v = m_pitchBuf[m_history - m_loopLength + m_loopPos];
  m_loopPos = (m_loopPos + 1) % m_loopLength;
  // Full level for 10 ms, then 20 % less per 10 ms, linearly.
  float gain = 1.0f;
  if (m_lostSamples >= frame) {
    gain = 1.0f - 0.2f * static_cast<float>(m_lostSamples - frame) / static_cast<float>(frame);
    if (gain < 0) gain = 0;
  }
  m_lostSamples++;
  return v * gain;
}

void WaveformConcealer::lost(int16_t* out, size_t n) {
  if (!m_losing) startLoss();
  int16_t chunk[64];
  while (n > 0) {
    const size_t step = std::min<size_t>(n, sizeof chunk / sizeof chunk[0]);
    for (size_t i = 0; i < step; i++) chunk[i] = clamp16(nextSynthetic());
    push(chunk, out, step);
    out += step;
    n -= step;
  }
}

void WaveformConcealer::good(const int16_t* in, int16_t* out, size_t n) {
  if (m_losing && n > 0) {
    // Blend the synthetic continuation into the first good samples.
    const size_t frames = m_lostSamples / static_cast<size_t>(m_frame);
    size_t blend = static_cast<size_t>(32 * m_scale) + (frames > 0 ? frames - 1 : 0) * static_cast<size_t>(32 * m_scale);
    blend = std::min({blend, static_cast<size_t>(m_frame), n});
    int16_t mixed[160];
    for (size_t i = 0; i < blend; i++) {
      const float w = static_cast<float>(i + 1) / static_cast<float>(blend + 1);
      mixed[i] = clamp16((1.0f - w) * nextSynthetic() + w * in[i]);
    }
    push(mixed, out, blend);
    in += blend;
    out += blend;
    n -= blend;
    m_losing = false;
  }
  push(in, out, n);
}

size_t WaveformConcealer::drain(int16_t* out) {
  const size_t n = static_cast<size_t>(m_overlapMax);
  std::memcpy(out, m_hist + m_history - m_overlapMax, n * sizeof(int16_t));
  std::memset(m_hist, 0, sizeof m_hist);
  m_losing = false;
  return n;
}

}  // namespace quillon::rtp
