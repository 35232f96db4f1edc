// ICELP48: frame layout and unpacking limits, the alternation-bit counters,
// the noise decision, bit-stream synchronisation, comfort noise and its
// fade-in, the codec adapter, and the quality of an encode/decode round trip.
#include <gtest/gtest.h>

#include <cmath>
#include <algorithm>
#include <complex>
#include <cstring>
#include <vector>

#include "engines/icelp48/icelp48_decoder.h"
#include "engines/icelp48/icelp48_dsp.h"
#include "engines/icelp48/icelp48_encoder.h"
#include "quillon/encoders.h"
#include "quillon/codecs/codec_icelp48.h"
#include "quillon/transcoder.h"
#include "test_support.h"

namespace {

using namespace quillon::icelp48;

using Frame = std::vector<uint8_t>;

// Field writer on bytes, independent of the engine's: bit i is bit i%8 of byte i/8.
void setField(Frame& f, int pos, int width, uint32_t v) {
  for (int b = 0; b < width; b++) {
    const int i = pos + b;
    if ((v >> b) & 1u)
      f[static_cast<size_t>(i / 8)] = static_cast<uint8_t>(f[static_cast<size_t>(i / 8)] | (1u << (i % 8)));
    else
      f[static_cast<size_t>(i / 8)] = static_cast<uint8_t>(f[static_cast<size_t>(i / 8)] & ~(1u << (i % 8)));
  }
}

// A valid frame: lags 40 and 60, moderate gains, the given alternation bit.
Frame validFrame(int alternation, uint32_t salt = 0) {
  Frame f(kFrameBytes, 0);
  setField(f, 0, 1, static_cast<uint32_t>(alternation));
  setField(f, 1, 25, (12345678u + salt * 7919u) % 30000000u);
  setField(f, 26, 7, 22);
  setField(f, 33, 2, 1);
  setField(f, 35, 7, 42);
  setField(f, 42, 2, 3);
  for (int s = 0; s < 4; s++) {
    setField(f, 44 + 4 * s, 4, 8);
    setField(f, 60 + s, 1, s & 1);
    setField(f, 64 + 8 * s, 8, 100 + 10 * static_cast<uint32_t>(s));
    setField(f, 96 + 9 * s, 9, 37 * static_cast<uint32_t>(s) + salt);
    setField(f, 132 + 3 * s, 3, 2);
  }
  return f;
}

std::vector<int16_t> decodeWith(Icelp48Decoder& d, const Frame& f) {
  uint16_t w[kFrameWords];
  wordsFromBytes(f.data(), w);
  std::vector<int16_t> pcm(kFrameSamples);
  d.decodeFrame(w, pcm.data());
  return pcm;
}

FrameParams unpack(const Frame& f) {
  uint16_t w[kFrameWords];
  wordsFromBytes(f.data(), w);
  FrameParams p;
  unpackFrame(w, p);
  return p;
}

Icelp48Config syncConfig() {
  Icelp48Config c = defaultConfig();
  c.words[kCfgSyncEnable] = 1;
  return c;
}

TEST(Icelp48Frame, FieldsSitLeastSignificantBitFirst) {
  Frame f(kFrameBytes, 0);
  setField(f, 0, 1, 1);
  setField(f, 1, 25, 0x1234567);
  setField(f, 26, 7, 0);
  setField(f, 33, 2, 2);
  setField(f, 35, 7, 123);
  setField(f, 42, 2, 1);
  const uint32_t four[4] = {1, 7, 9, 15}, eight[4] = {0, 169, 5, 128}, nine[4] = {511, 0, 256, 3}, three[4] = {7, 0, 4, 1};
  for (int s = 0; s < 4; s++) {
    setField(f, 44 + 4 * s, 4, four[s]);
    setField(f, 60 + s, 1, s == 2);
    setField(f, 64 + 8 * s, 8, eight[s]);
    setField(f, 96 + 9 * s, 9, nine[s]);
    setField(f, 132 + 3 * s, 3, three[s]);
  }
  const FrameParams p = unpack(f);
  EXPECT_EQ(p.badFrame, 0);
  EXPECT_EQ(p.alternation, 1);
  EXPECT_EQ(p.lsfIndex, 0x1234567u);
  EXPECT_EQ(p.lag[0], 18);
  EXPECT_EQ(p.lagFraction[0], 2);
  EXPECT_EQ(p.lag[1], 141);
  EXPECT_EQ(p.lagFraction[1], 1);
  for (int s = 0; s < 4; s++) {
    EXPECT_EQ(p.pitchGain[s], static_cast<int16_t>(four[s]));
    EXPECT_EQ(p.fixedSign[s], s == 2 ? 1 : 0);
    EXPECT_EQ(p.fixedGain[s], static_cast<int16_t>(eight[s]));
    EXPECT_EQ(p.fixedIndex[s], static_cast<int16_t>(nine[s]));
    EXPECT_EQ(p.sharpening[s], static_cast<int16_t>(three[s]));
  }
  // The packer writes the same bits back.
  uint16_t w[kFrameWords];
  packFrame(p, w);
  Frame back(kFrameBytes);
  bytesFromWords(w, back.data());
  EXPECT_EQ(back, f);
}

TEST(Icelp48Frame, UnpackingStopsAtTheFirstInvalidField) {
  for (uint32_t code = 124; code <= 127; code++) {
    Frame f = validFrame(1);
    setField(f, 26, 7, code);
    const FrameParams p = unpack(f);
    EXPECT_EQ(p.badFrame, 1) << code;
    EXPECT_EQ(p.lag[0], 0);
    EXPECT_EQ(p.lag[1], 0);
    EXPECT_EQ(p.pitchGain[0], 0);  // nothing after the stop
  }
  Frame f = validFrame(1);
  setField(f, 35, 7, 124);
  FrameParams p = unpack(f);
  EXPECT_EQ(p.badFrame, 1);
  EXPECT_EQ(p.lag[0], 40);
  EXPECT_EQ(p.lag[1], 40);
  EXPECT_EQ(p.lagFraction[1], 0);

  f = validFrame(1);
  setField(f, 64 + 8 * 2, 8, 170);
  p = unpack(f);
  EXPECT_EQ(p.badFrame, 1);
  EXPECT_EQ(p.fixedGain[0], 100);
  EXPECT_EQ(p.fixedGain[1], 110);
  EXPECT_EQ(p.fixedGain[2], 0);
  EXPECT_EQ(p.fixedGain[3], 0);
  EXPECT_EQ(p.fixedIndex[0], 0);

  f = validFrame(1);
  setField(f, 64 + 8 * 3, 8, 169);
  setField(f, 26, 7, 123);
  setField(f, 35, 7, 123);
  EXPECT_EQ(unpack(f).badFrame, 0);
}

TEST(Icelp48Decoder, BadFramesAreConcealedWithBoundedOutput) {
  Icelp48Decoder d(defaultConfig());
  for (int i = 0; i < 6; i++) decodeWith(d, validFrame((i + 1) & 1, static_cast<uint32_t>(i)));
  Frame bad = validFrame(1);
  setField(bad, 26, 7, 127);
  std::vector<double> energy;
  for (int i = 0; i < 12; i++) {
    const std::vector<int16_t> pcm = decodeWith(d, bad);
    EXPECT_EQ(d.lastParams().badFrame, 1);
    double e = 0;
    for (int16_t s : pcm) e += static_cast<double>(s) * s;
    energy.push_back(e);
  }
  // Long runs of bad frames fade towards silence.
  EXPECT_GT(energy[0], 0.0);
  EXPECT_LT(energy[11], energy[0] / 100);
  EXPECT_LT(energy[11], kFrameSamples * 10.0 * 10.0);
}

TEST(Icelp48Decoder, ComfortNoiseFollowsTheSeedRecurrence) {
  Icelp48Config c = defaultConfig();
  c.words[kCfgForceNoise] = 1;
  Icelp48Decoder d(c);
  uint32_t seed = 0;
  for (int frame = 0; frame < 3; frame++) {
    const std::vector<int16_t> pcm = decodeWith(d, validFrame((frame + 1) & 1));
    for (int i = 0; i < kFrameSamples; i++) {
      int32_t sum = 0;
      for (int j = 0; j < 16; j++) {
        seed = seed * 1664525u + 32767u;
        sum += static_cast<int16_t>(seed >> 16);
      }
      const int32_t expect = ((sum >> 4) * 50) >> 15;
      ASSERT_EQ(pcm[static_cast<size_t>(i)], expect) << frame << ":" << i;
      ASSERT_LE(std::abs(expect), 50);
    }
    EXPECT_EQ(d.outputShift(), -5);
  }
  EXPECT_EQ(d.noiseSeed(), seed);
}

// Feeds `frames` to a synchronising decoder until it locks; returns the
// index of the first frame decoded normally, or -1.
int lockIndex(Icelp48Decoder& d, const std::vector<Frame>& frames, std::vector<std::vector<int16_t>>* out = nullptr) {
  for (size_t i = 0; i < frames.size(); i++) {
    std::vector<int16_t> pcm = decodeWith(d, frames[i]);
    if (out) out->push_back(pcm);
    if (d.comfortNoiseFlag() == 0) return static_cast<int>(i);
  }
  return -1;
}

TEST(Icelp48Decoder, FiveFramesFadeInAfterComfortNoise) {
  std::vector<Frame> frames;
  for (int i = 0; i < 30; i++) frames.push_back(validFrame((i + 1) & 1, static_cast<uint32_t>(i)));
  Icelp48Decoder a(syncConfig());
  std::vector<std::vector<int16_t>> outA;
  const int lock = lockIndex(a, frames, &outA);
  ASSERT_GT(lock, 0);
  EXPECT_EQ(a.bitOffset(), kFrameBits);
  EXPECT_EQ(a.syncState(), 1);
  for (size_t i = static_cast<size_t>(lock) + 1; i < frames.size(); i++) outA.push_back(decodeWith(a, frames[i]));
  EXPECT_EQ(a.comfortNoiseFlag(), 0);
  EXPECT_EQ(a.runCounter(0), 0);

  // Noise frames leave the synthesis untouched, so a fresh plain decoder fed
  // from the locking frame on gives the full-level signal.
  Icelp48Decoder b(defaultConfig());
  for (size_t i = static_cast<size_t>(lock); i < frames.size(); i++) {
    const std::vector<int16_t> full = decodeWith(b, frames[i]);
    const size_t k = i - static_cast<size_t>(lock);
    const int shift = k < 5 ? 5 - static_cast<int>(k) : 0;
    for (int n = 0; n < kFrameSamples; n++)
      ASSERT_EQ(outA[i][static_cast<size_t>(n)], full[static_cast<size_t>(n)] >> shift) << "frame " << k << " sample " << n;
  }
  EXPECT_EQ(a.outputShift(), 0);
}

TEST(Icelp48Decoder, SynchronisationFindsAShiftedFrameStart) {
  constexpr int kShift = 37;
  std::vector<Frame> frames;
  // Salts whose bits do not alternate from frame to frame.
  for (int i = 0; i < 24; i++) frames.push_back(validFrame(i & 1, static_cast<uint32_t>((i * 2654435761u) >> 23)));
  // One bit stream: kShift junk bits, then the frames.
  std::vector<uint8_t> stream(kFrameBytes * (frames.size() + 1), 0);
  auto bitAt = [&](const Frame& f, int i) { return (f[static_cast<size_t>(i / 8)] >> (i % 8)) & 1; };
  for (int i = 0; i < kShift; i++)
    if ((i * 5) % 3 == 1) stream[static_cast<size_t>(i / 8)] = static_cast<uint8_t>(stream[static_cast<size_t>(i / 8)] | (1 << (i % 8)));
  for (size_t f = 0; f < frames.size(); f++)
    for (int i = 0; i < kFrameBits; i++) {
      const size_t g = kShift + f * kFrameBits + static_cast<size_t>(i);
      if (bitAt(frames[f], i)) stream[g / 8] = static_cast<uint8_t>(stream[g / 8] | (1 << (g % 8)));
    }
  std::vector<Frame> chunks;
  for (size_t f = 0; f < frames.size(); f++)
    chunks.emplace_back(stream.begin() + static_cast<long>(f * kFrameBytes), stream.begin() + static_cast<long>((f + 1) * kFrameBytes));

  Icelp48Decoder d(syncConfig());
  const int lock = lockIndex(d, chunks);
  ASSERT_GT(lock, 0);
  EXPECT_EQ(d.bitOffset(), kShift);
  // Chunk `lock` completes frame lock - 1 of the original stream.
  const FrameParams want = unpack(frames[static_cast<size_t>(lock - 1)]);
  EXPECT_EQ(d.lastParams().lsfIndex, want.lsfIndex);
  EXPECT_EQ(d.lastParams().fixedIndex[3], want.fixedIndex[3]);
  EXPECT_EQ(d.lastParams().badFrame, 0);
  decodeWith(d, chunks[static_cast<size_t>(lock + 1)]);
  EXPECT_EQ(d.lastParams().lsfIndex, unpack(frames[static_cast<size_t>(lock)]).lsfIndex);
  EXPECT_EQ(d.runCounter(0), 0);
  EXPECT_EQ(d.spanCounter(), 0);
}

TEST(Icelp48Decoder, NoFalseLockOnAConstantStream) {
  Icelp48Decoder d(syncConfig());
  Frame f = validFrame(1);
  std::vector<Frame> same(40, f);
  // Every position repeats itself: no alternation anywhere... except bits that
  // are constant across frames score the full half; none is accepted.
  EXPECT_EQ(lockIndex(d, same), -1);
  EXPECT_EQ(d.outputShift(), -5);
}

// Locks a synchronising decoder (threshold 10) on an alternating stream and
// returns the alternation bit of the next frame.
int lockOn(Icelp48Decoder& d, int& next) {
  std::vector<Frame> frames;
  for (int i = 0; i < 30; i++) frames.push_back(validFrame((i + 1) & 1, static_cast<uint32_t>(i)));
  const int lock = lockIndex(d, frames);
  next = (lock + 2) & 1;
  return lock;
}

TEST(Icelp48Decoder, MismatchesWithinTheSpanDecideNoise) {
  for (int mismatches : {2, 3}) {
    Icelp48Decoder d(syncConfig());
    int bit = 0;
    ASSERT_GE(lockOn(d, bit), 0);
    // The first mismatch opens the span, which counts every frame after it.
    for (int i = 0; i < 9; i++) {
      const bool wrong = i < mismatches;
      decodeWith(d, validFrame(wrong ? bit ^ 1 : bit));
      bit ^= 1;
      if (i == 0) {
        EXPECT_EQ(d.spanCounter(), 1);
        EXPECT_EQ(d.runCounter(0), 1);
        EXPECT_EQ(d.runCounter(1), 1);
      }
      if (i == mismatches) {  // first match again clears the running counters
        EXPECT_EQ(d.runCounter(0), 0);
        EXPECT_EQ(d.runCounter(1), 0);
      }
      EXPECT_EQ(d.noiseDecisionCounter(), wrong ? i + 1 : mismatches);
      EXPECT_EQ(d.spanCounter(), i + 1);
    }
    // Span reaches 10 on this frame: 4 x 3 >= 10 falls back to noise, 4 x 2 does not.
    decodeWith(d, validFrame(bit));
    EXPECT_EQ(d.spanCounter(), 0);
    EXPECT_EQ(d.noiseDecisionCounter(), 0);
    EXPECT_EQ(d.comfortNoiseFlag(), mismatches == 3 ? 1 : 0) << mismatches;
    EXPECT_EQ(d.syncState(), mismatches == 3 ? 0 : 1);
    EXPECT_EQ(d.outputShift(), mismatches == 3 ? -5 : 0);
  }
}

TEST(Icelp48Decoder, AlternationModeNeverDecidesNoise) {
  Icelp48Config c = syncConfig();
  c.words[kCfgAlternationMode] = 1;
  Icelp48Decoder d(c);
  int bit = 0;
  ASSERT_GE(lockOn(d, bit), 0);
  for (int i = 0; i < 15; i++) {
    decodeWith(d, validFrame(bit ^ 1));
    bit ^= 1;
  }
  EXPECT_EQ(d.noiseDecisionCounter(), 0);
  EXPECT_EQ(d.runCounter(0), 15);
  EXPECT_EQ(d.spanCounter(), 15);  // the span test never fires
  EXPECT_EQ(d.comfortNoiseFlag(), 0);
}

TEST(Icelp48Decoder, WithoutSynchronisationMismatchesCountNothing) {
  Icelp48Decoder d(defaultConfig());
  EXPECT_EQ(d.comfortNoiseFlag(), 1);  // until the first frame copies word 3
  for (int i = 0; i < 12; i++) {
    decodeWith(d, validFrame(0));  // wrong on every other frame
    EXPECT_EQ(d.comfortNoiseFlag(), 0);
    EXPECT_EQ(d.spanCounter(), 0);
    EXPECT_EQ(d.runCounter(0), 0);
    EXPECT_EQ(d.noiseDecisionCounter(), 0);
    EXPECT_EQ(d.expectedAlternation(), (i + 1) & 1);
  }
  // Word 3 makes every frame comfort noise while synchronisation is off.
  Icelp48Config c = defaultConfig();
  c.words[kCfgNoiseSource] = 1;
  EXPECT_EQ(initIcelp48Decoder(&d, &c), 0);
  decodeWith(d, validFrame(1));
  EXPECT_EQ(d.outputShift(), -5);
}

TEST(Icelp48Decoder, EngineOperationsCheckTheirPointers) {
  Icelp48Decoder* d = createIcelp48Decoder(nullptr);
  ASSERT_NE(d, nullptr);
  uint16_t frame[kFrameWords] = {};
  int16_t pcm[kFrameSamples];
  EXPECT_EQ(decodeIcelp48Frame(d, frame, pcm), 0);
  EXPECT_EQ(decodeIcelp48Frame(nullptr, frame, pcm), 1);
  EXPECT_EQ(decodeIcelp48Frame(d, nullptr, pcm), 1);
  EXPECT_EQ(decodeIcelp48Frame(d, frame, nullptr), 1);
  EXPECT_EQ(initIcelp48Decoder(nullptr, nullptr), 1);
  EXPECT_EQ(initIcelp48Decoder(d, nullptr), 0);
  destroyIcelp48Decoder(d);
  destroyIcelp48Decoder(nullptr);
}

TEST(CodecICELP48, BufferContract) {
  using namespace TAV;
  EXPECT_EQ(Codec::getCodec(AudioFormat(CT_ICELP48, 1), true), nullptr);
  Codec* c = Codec::getCodec(AudioFormat(CT_ICELP48, 1), false);
  ASSERT_NE(c, nullptr);
  std::vector<uint8_t> in(3 * kFrameBytes + 1, 0);
  for (int f = 0; f < 3; f++) {
    const Frame v = validFrame((f + 1) & 1, static_cast<uint32_t>(f));
    std::memcpy(in.data() + f * kFrameBytes, v.data(), kFrameBytes);
  }
  std::vector<int16_t> out(3 * kFrameSamples + 16, 0x5a5a);

  uint32 n = 18;
  EXPECT_EQ(c->decode(in.data(), n, out.data(), 480), 480u);
  EXPECT_EQ(n, 18u);
  n = 18;
  EXPECT_EQ(c->decode(in.data(), n, out.data(), 479), 0u);
  EXPECT_EQ(n, 18u);
  n = 0;
  EXPECT_EQ(c->decode(in.data(), n, out.data(), 0), 0u);
  n = 54;
  EXPECT_EQ(c->decode(in.data(), n, out.data(), 1440), 1440u);
  EXPECT_EQ(n, 54u);
  // Odd count: 9 bytes against 240 bytes of room is one (partial) frame.
  std::fill(out.begin(), out.end(), static_cast<int16_t>(0x5a5a));
  n = 9;
  EXPECT_EQ(c->decode(in.data(), n, out.data(), 240), 480u);
  EXPECT_EQ(n, 19u);
  EXPECT_EQ(out[120], 0x5a5a);  // only the room given is written
  uint32 pcmBytes = 480;
  uint8 coded[18];
  EXPECT_EQ(c->encode(out.data(), pcmBytes, coded, sizeof coded), 0u);
  delete c;

  CodecICELP48 direct;
  EXPECT_FALSE(direct.open(AudioFormat(CT_G729, 1), false));
  EXPECT_FALSE(direct.open(AudioFormat(CT_ICELP48, 1), true));
  EXPECT_TRUE(direct.open(AudioFormat(CT_ICELP48, 1), false));
  EXPECT_FALSE(direct.isDecoder());  // init closes first, by design
  n = 18;
  EXPECT_EQ(direct.decode(in.data(), n, out.data(), 480), 480u);
  EXPECT_TRUE(direct.close());
  n = 18;
  EXPECT_EQ(direct.decode(in.data(), n, out.data(), 480), 0u);  // no engine after close
}

TEST(CodecICELP48, TransCoderDecodesWholeFrames) {
  using namespace TAV;
  TransCoder t;
  ASSERT_TRUE(t.open(AudioFormat(CT_ICELP48, 1), AudioFormat(CT_PCM16, 1)));
  std::vector<uint8_t> in;
  for (int f = 0; f < 4; f++) {
    const Frame v = validFrame((f + 1) & 1, static_cast<uint32_t>(f));
    in.insert(in.end(), v.begin(), v.end());
  }
  uint32 n = static_cast<uint32>(in.size());
  const uint32 room = t.getOutSize(n);
  EXPECT_EQ(room, 4u * 480u);
  std::vector<int16_t> out(room / 2);
  EXPECT_EQ(t.transcode(in.data(), n, reinterpret_cast<uint8*>(out.data()), room), room);
  EXPECT_EQ(n, in.size());
}

// ---- round-trip quality --------------------------------------------------

struct Quality {
  double segSnr = 0;  // dB, over active frames
  double lsd = 0;     // dB, log-spectral distance over active frames
};

std::vector<int16_t> roundTrip(const std::vector<int16_t>& x) {
  const size_t frames = x.size() / kFrameSamples;
  Icelp48Encoder enc;
  TAV::Codec* dec = TAV::Codec::getCodec(TAV::AudioFormat(TAV::CT_ICELP48, 1), false);
  std::vector<uint8_t> coded(frames * kFrameBytes);
  for (size_t i = 0; i < frames; i++) enc.encode(&x[i * kFrameSamples], &coded[i * kFrameBytes]);
  std::vector<int16_t> y(frames * kFrameSamples);
  TAV::uint32 n = static_cast<TAV::uint32>(coded.size());
  const TAV::uint32 written = dec->decode(coded.data(), n, y.data(), static_cast<TAV::uint32>(2 * y.size()));
  EXPECT_EQ(written, 2 * y.size());
  delete dec;
  return y;
}

// Power spectrum (bins 1..127 of a 256-point DFT, Hann window) of 240 samples.
std::vector<double> powerSpectrum(const int16_t* a) {
  constexpr int N = 256;
  static const std::vector<std::complex<double>> twiddle = [] {
    std::vector<std::complex<double>> t(static_cast<size_t>(N / 2) * kFrameSamples);
    for (int k = 1; k < N / 2; k++)
      for (int n = 0; n < kFrameSamples; n++)
        t[static_cast<size_t>(k * kFrameSamples + n)] =
            std::polar(0.5 - 0.5 * std::cos(2 * M_PI * n / (kFrameSamples - 1)), -2 * M_PI * k * n / N);
    return t;
  }();
  std::vector<double> p(N / 2, 0.0);
  for (int k = 1; k < N / 2; k++) {
    std::complex<double> acc;
    for (int n = 0; n < kFrameSamples; n++) acc += twiddle[static_cast<size_t>(k * kFrameSamples + n)] * static_cast<double>(a[n]);
    p[static_cast<size_t>(k)] = std::norm(acc);
  }
  return p;
}

// Segmental SNR and log-spectral distance over the frames that carry speech;
// spectra are floored 50 dB below the original frame's peak.
Quality measure(const std::vector<int16_t>& x, const std::vector<int16_t>& y) {
  Quality q;
  int active = 0;
  const size_t frames = y.size() / kFrameSamples;
  for (size_t f = 0; f < frames; f++) {
    const int16_t* a = &x[f * kFrameSamples];
    const int16_t* b = &y[f * kFrameSamples];
    double es = 0, ee = 0;
    for (int n = 0; n < kFrameSamples; n++) {
      es += static_cast<double>(a[n]) * a[n];
      ee += static_cast<double>(a[n] - b[n]) * (a[n] - b[n]);
    }
    if (es < kFrameSamples * 300.0 * 300.0) continue;  // speech frames only
    active++;
    q.segSnr += std::min(35.0, std::max(-10.0, 10 * std::log10((es + 1) / (ee + 1))));
    const std::vector<double> A = powerSpectrum(a), B = powerSpectrum(b);
    double peak = 0;
    for (double v : A) peak = std::max(peak, v);
    const double floor = peak * 1e-5;
    double d2 = 0;
    for (size_t k = 1; k < A.size(); k++) {
      const double diff = 10 * std::log10(std::max(A[k], floor) / std::max(B[k], floor));
      d2 += diff * diff;
    }
    q.lsd += std::sqrt(d2 / static_cast<double>(A.size() - 1));
  }
  if (active > 0) {
    q.segSnr /= active;
    q.lsd /= active;
  }
  return q;
}

TEST(Icelp48RoundTrip, SpeechSurvivesTheRoundTrip) {
  QUILLON_REQUIRE_VECTORS(dir, "g711");
  for (const char* name : {"hts12-a.pcm", "hts12-loud-u.pcm"}) {
    const std::vector<int16_t> x = quillon::test::readPcm16(dir / name);
    ASSERT_GE(x.size(), 24000u) << name;
    const Quality q = measure(x, roundTrip(x));
    std::printf("[ icelp48 ] %s: segmental SNR %.2f dB, log-spectral distance %.2f dB\n", name, q.segSnr, q.lsd);
    EXPECT_GT(q.segSnr, 5.5) << name;
    EXPECT_LT(q.lsd, 8.8) << name;
  }
}

TEST(Icelp48RoundTrip, EncoderAlternatesAndStaysInRange) {
  Icelp48Encoder enc;
  std::vector<int16_t> pcm(kFrameSamples);
  for (int f = 0; f < 20; f++) {
    for (int n = 0; n < kFrameSamples; n++)
      pcm[static_cast<size_t>(n)] = static_cast<int16_t>(12000 * std::sin(0.07 * (f * kFrameSamples + n)) * ((f % 5) == 4 ? 0 : 1));
    uint8_t frame[kFrameBytes];
    enc.encode(pcm.data(), frame);
    const FrameParams p = unpack(Frame(frame, frame + kFrameBytes));
    EXPECT_EQ(p.badFrame, 0);
    EXPECT_EQ(p.alternation, (f + 1) & 1);
    EXPECT_LT(p.lsfIndex, kLsfIndexCount);
  }
}

TEST(Icelp48RoundTrip, StreamEncoderMatchesWholeFrames) {
  std::vector<int16_t> pcm(5 * kFrameSamples + 100);
  for (size_t i = 0; i < pcm.size(); i++) pcm[i] = static_cast<int16_t>(9000 * std::sin(0.031 * i) * std::sin(0.0017 * i));
  Icelp48Encoder whole;
  std::vector<uint8_t> expect;
  std::vector<int16_t> padded(6 * kFrameSamples, 0);
  std::copy(pcm.begin(), pcm.end(), padded.begin());
  for (int f = 0; f < 6; f++) {
    uint8_t b[kFrameBytes];
    whole.encode(&padded[static_cast<size_t>(f * kFrameSamples)], b);
    expect.insert(expect.end(), b, b + kFrameBytes);
  }
  quillon::Icelp48StreamEncoder stream;
  std::vector<uint8_t> got;
  for (size_t i = 0; i < pcm.size(); i += 97) stream.feed(&pcm[i], std::min<size_t>(97, pcm.size() - i), got);
  EXPECT_EQ(got.size(), 5u * kFrameBytes);
  EXPECT_EQ(stream.heldSamples(), 100u);
  stream.flush(got);
  EXPECT_EQ(got, expect);
}

}  // namespace
