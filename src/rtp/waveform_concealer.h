// Packet loss concealment for waveform codecs by pitch-period repetition,
// after ITU-T G.711 Appendix I: the output runs a fixed 3.75 ms behind the
// input so that the start of a loss can be blended into the signal already
// decoded; a loss is filled by repeating the last pitch period (two, then
// three periods as it goes on), fading out by 20 % per 10 ms after the
// first 10 ms and reaching silence after 60 ms; the first good samples
// after a loss are blended with the synthetic signal over 4 ms plus 4 ms
// per further 10 ms lost.
//
// Works at 8 kHz (scale 1) or 16 kHz (scale 2: every length doubled). No
// allocation: all buffers are members.
#ifndef QUILLON_RTP_WAVEFORM_CONCEALER_H
#define QUILLON_RTP_WAVEFORM_CONCEALER_H

#include <cstddef>
#include <cstdint>

namespace quillon::rtp {

class WaveformConcealer {
 public:
  explicit WaveformConcealer(int scale = 1);
  void reset();

  // The delay between input and output, in samples.
  int delay() const { return m_overlapMax; }

  // Good samples in, as many delayed samples out.
  void good(const int16_t* in, int16_t* out, size_t n);
  // n samples of a loss: synthetic samples go into the history, delayed
  // samples come out.
  void lost(int16_t* out, size_t n);
  // The samples still held back by the delay (delay() of them); the
  // history is cleared as if those samples had been played.
  size_t drain(int16_t* out);

 private:
  static constexpr int kMaxScale = 2;
  static constexpr int kPitchMin = 40;    // 200 Hz at 8 kHz
  static constexpr int kPitchMax = 120;   // 66.7 Hz
  static constexpr int kFrame = 80;       // 10 ms
  static constexpr int kCorrLength = 160; // 20 ms of correlation window
  static constexpr int kHistory = 3 * kPitchMax + kPitchMax / 4;

  void push(const int16_t* in, int16_t* out, size_t n);
  int findPitch() const;
  void startLoss();
  float nextSynthetic();
  void widenLoop();

  int m_scale;
  int m_overlapMax;   // kPitchMax / 4, scaled: the output delay
  int m_history;      // kHistory, scaled
  int m_frame;
  int16_t m_hist[kHistory * kMaxScale];
  float m_pitchBuf[kHistory * kMaxScale];
  float m_tail[kPitchMax / 4 * kMaxScale];  // blend of the loop's end
  bool m_losing = false;
  int m_pitch = 0;
  int m_overlap = 0;     // a quarter pitch period
  int m_loopLength = 0;  // 1, 2 or 3 periods
  int m_loopPos = 0;
  size_t m_lostSamples = 0;
};

}  // namespace quillon::rtp

#endif
