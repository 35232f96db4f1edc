// AMR-WB encoder engine: the 3GPP reference-package sequences (tst.inp in
// all nine modes, dtx.inp with DTX) reproduced frame for frame, and round
// trips through the decoder.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "engines/amrwb/amrwb_decoder.h"
#include "engines/amrwb/amrwb_encoder.h"
#include "codeclib/codeclib.h"
#include "quillon/encoders.h"
#include "test_support.h"

namespace fs = std::filesystem;
using quillon::amrwb::Decoder;
using quillon::amrwb::Encoder;
using quillon::test::readFile;
using quillon::test::readPcm16;
using quillon::test::splitFrames;
using namespace quillon::codeclib;

namespace {

// Encodes `pcm` and returns the index of the first frame that differs from
// `expected` (-1 when all match and the counts agree).
long firstBadFrame(const std::vector<int16_t>& pcm, int mode, bool dtx,
                   const std::vector<std::vector<uint8_t>>& expected) {
  Encoder enc;
  uint8_t out[Encoder::kMaxFrameBytes];
  size_t f = 0;
  for (size_t i = 0; i + Encoder::kInputSamples <= pcm.size(); i += Encoder::kInputSamples, f++) {
    const int n = enc.encodeFrame(pcm.data() + i, mode, dtx, out);
    if (f >= expected.size() || n != static_cast<int>(expected[f].size()) ||
        !std::equal(out, out + n, expected[f].begin())) {
      return static_cast<long>(f);
    }
  }
  return f == expected.size() ? -1 : static_cast<long>(f);
}

}  // namespace

TEST(AmrWbEncoder, ReferenceSequencesAllModes) {
  QUILLON_REQUIRE_VECTORS(dir, "amrwb-3gpp");
  const auto input = readPcm16(dir / "orig" / "tst.inp");
  ASSERT_EQ(input.size(), 64000u);
  for (int mode = 0; mode <= 8; mode++) {
    const auto frames = splitFrames(readFile(dir / ("tst_m" + std::to_string(mode) + ".amrwb")));
    EXPECT_EQ(firstBadFrame(input, mode, true, frames), -1) << "mode " << mode;
  }
}

TEST(AmrWbEncoder, ReferenceSequenceDtx) {
  QUILLON_REQUIRE_VECTORS(dir, "amrwb-3gpp");
  const auto input = readPcm16(dir / "orig" / "dtx.inp");
  const auto frames = splitFrames(readFile(dir / "tst_md.amrwb"));
  EXPECT_EQ(firstBadFrame(input, 2, true, frames), -1);
}

// The same sequences through codecLibEncode, fed in uneven chunks: the
// front's leftover buffering must hand the engine the same frames, and the
// written byte count follows the frame actually produced (SID, NO_DATA).
TEST(AmrWbEncoder, CodecLibEncodeBuffersUnevenChunks) {
  QUILLON_REQUIRE_VECTORS(dir, "amrwb-3gpp");
  struct Case {
    const char* input;
    const char* expected;
    int16 mode;
  };
  for (const Case& c : {Case{"tst.inp", "tst_m5.amrwb", 5}, Case{"dtx.inp", "tst_md.amrwb", 2}}) {
    const auto input = readPcm16(dir / "orig" / c.input);
    std::vector<uint8_t> expected;
    for (const auto& f : splitFrames(readFile(dir / c.expected))) {
      expected.insert(expected.end(), f.begin(), f.end());
    }

    HandleRes* h = nullptr;
    ASSERT_EQ(codecLibOpen(&h, kCodecAmrWb, kDirEncoder, 0), 0);
    CodecLibOptions options{};
    ASSERT_EQ(codecLibQuery(&h, kCodecAmrWb, kDirEncoder, nullptr, &options, 0), 0);
    options.mode = c.mode;
    options.dtx = 1;
    std::vector<uint8_t> coded;
    size_t pos = 0, chunk = 1;
    while (pos < input.size()) {
      chunk = chunk * 7 % 997 + 1;
      const size_t n = std::min(chunk, input.size() - pos);
      int32 inSamples = static_cast<int32>(n);
      uint8 out[61 * 5];
      int32 outBytes = sizeof out;
      ASSERT_EQ(codecLibEncode(&h, input.data() + pos, &inSamples, out, &outBytes, &options, 0), 0);
      EXPECT_LT(inSamples, 320);
      coded.insert(coded.end(), out, out + outBytes);
      pos += n;
    }
    EXPECT_EQ(coded, expected) << c.input;
    EXPECT_EQ(codecLibClose(&h, 0), 0);
  }
}

TEST(AmrWbEncoder, DescriptorDirectionsAndQuery) {
  CodecDescriptor* d = codecLibDescriptor(kCodecAmrWb);
  ASSERT_NE(d->encodeFrame, nullptr);
  HandleRes* dec = nullptr;
  ASSERT_EQ(codecLibOpen(&dec, kCodecAmrWb, kDirDecoder, 0), 0);
  CodecLibOptions options{};
  const std::vector<int16_t> silence(320, 0);
  uint8 out[61];
  int32 outBytes = 0;
  EXPECT_EQ(d->encodeFrame(dec, silence.data(), out, &outBytes, &options, 0), 1);
  codecLibClose(&dec, 0);

  HandleRes* enc = nullptr;
  ASSERT_EQ(codecLibOpen(&enc, kCodecAmrWb, kDirEncoder, 0), 0);
  EXPECT_EQ(d->decodeFrame(enc, out, 1, &outBytes, nullptr, &outBytes, &options, 0), 1);
  const int32 sizes[9] = {18, 24, 33, 37, 41, 47, 51, 59, 61};
  for (int16 mode = 0; mode <= 8; mode++) {
    options.mode = mode;
    CodecLibInfo info{};
    ASSERT_EQ(codecLibQuery(&enc, kCodecAmrWb, kDirEncoder, &info, &options, 0), 0);
    EXPECT_EQ(info.outBytesPerFrameTyp, sizes[mode]);
    EXPECT_EQ(info.outBytesPerSecond, 50 * sizes[mode]);
    EXPECT_EQ(info.leftOverSize, 640);
    ASSERT_EQ(d->encodeFrame(enc, silence.data(), out, &outBytes, &options, 0), 0);
    EXPECT_EQ(outBytes, sizes[mode]);
    EXPECT_EQ(out[0], mode << 3 | 4);
  }
  EXPECT_EQ(codecLibReset(&enc), 0);
  codecLibClose(&enc, 0);
}

// Round trips of the shared 16 kHz speech (a G.722 decoding of it) through encoder and decoder in
// every mode: the SNR after delay compensation has to reach a floor that
// grows with the rate (about 1 dB below what the engine reaches; the
// 6.4-7 kHz band is synthesised from noise, which caps the SNR near 10 dB).
TEST(AmrWbEncoder, RoundTripQuality) {
  QUILLON_REQUIRE_VECTORS(dir, "g722");
  const auto speech = readPcm16(dir / "orig16k-m1.pcm");  // 16 kHz speech
  ASSERT_GE(speech.size(), 16000u * 4);
  const size_t len = 16000 * 4;  // 4 s
  const double floorDb[9] = {7, 8, 8.5, 8.5, 8.5, 9, 9, 9, 9};
  for (int mode = 0; mode <= 8; mode++) {
    Encoder enc;
    Decoder dec;
    std::vector<int16_t> out(len);
    uint8_t frame[Encoder::kMaxFrameBytes];
    for (size_t i = 0; i < len; i += 320) {
      const int n = enc.encodeFrame(speech.data() + i, mode, false, frame);
      ASSERT_EQ(dec.decodeFrame(frame, static_cast<size_t>(n), out.data() + i), n);
    }
    // Best alignment within a few samples of the codec delay.
    double best = -100;
    for (int delay = 0; delay < 160; delay++) {
      double sig = 0, err = 0;
      for (size_t i = 1600; i + delay < len; i++) {
        const double s = speech[i];
        const double e = s - out[i + delay];
        sig += s * s;
        err += e * e;
      }
      best = std::max(best, 10 * std::log10(sig / (err + 1)));
    }
    EXPECT_GT(best, floorDb[mode]) << "mode " << mode;
  }
}

// The encoder homing frame (320 samples of 0x0008): the encoder resets after
// it, and from a reset state it answers with the decoder homing frame, which
// resets the decoder in turn.
TEST(AmrWbEncoder, HomingFrameResetsEncoderAndDecoder) {
  QUILLON_REQUIRE_VECTORS(dir, "amrwb-3gpp");
  const auto speech = readPcm16(dir / "orig" / "tst.inp");
  const std::vector<int16_t> homing(320, 0x0008);
  constexpr size_t kFrames = 20;
  for (int mode = 0; mode <= 8; mode++) {
    Encoder used, fresh;
    uint8_t a[Encoder::kMaxFrameBytes], b[Encoder::kMaxFrameBytes], h[Encoder::kMaxFrameBytes];
    for (size_t f = 0; f < kFrames; f++) used.encodeFrame(speech.data() + f * 320, mode, false, a);
    used.encodeFrame(homing.data(), mode, false, a);
    const int nh = fresh.encodeFrame(homing.data(), mode, false, h);
    fresh.reset();
    Decoder decUsed, decFresh;
    int16_t outUsed[320], outFresh[320];
    for (size_t f = kFrames; f < 2 * kFrames; f++) {
      const int na = used.encodeFrame(speech.data() + f * 320, mode, false, a);
      const int nb = fresh.encodeFrame(speech.data() + f * 320, mode, false, b);
      ASSERT_EQ(na, nb);
      ASSERT_TRUE(std::equal(a, a + na, b)) << "mode " << mode << " frame " << f;
      if (f == kFrames) {
        // A decoder that has run on speech and then gets the homing answer
        // decodes the next frame like a fresh one.
        decUsed.decodeFrame(a, static_cast<size_t>(na), outUsed);
        decUsed.decodeFrame(h, static_cast<size_t>(nh), outUsed);
      } else {
        decUsed.decodeFrame(a, static_cast<size_t>(na), outUsed);
        decFresh.decodeFrame(a, static_cast<size_t>(na), outFresh);
      }
    }
    EXPECT_EQ(std::vector<int16_t>(outUsed, outUsed + 320), std::vector<int16_t>(outFresh, outFresh + 320))
        << "mode " << mode;
  }
}

// The public stream encoder: any chunking gives the engine's frames, each
// behind its 16-bit little-endian length, the last partial frame padded
// with silence; reset() starts afresh.
TEST(AmrWbEncoder, StreamEncoderFramesAnyChunking) {
  QUILLON_REQUIRE_VECTORS(dir, "amrwb-3gpp");
  std::vector<int16_t> speech = readPcm16(dir / "orig" / "tst.inp");
  speech.resize(std::min<size_t>(speech.size(), 50 * 320) - 17);
  std::vector<int16_t> padded = speech;
  padded.resize((speech.size() + 319) / 320 * 320, 0);
  std::vector<uint8_t> want;
  Encoder enc;
  uint8_t frame[Encoder::kMaxFrameBytes];
  for (size_t i = 0; i < padded.size(); i += 320) {
    const int n = enc.encodeFrame(padded.data() + i, 7, true, frame);
    want.push_back(static_cast<uint8_t>(n));
    want.push_back(0);
    want.insert(want.end(), frame, frame + n);
  }
  quillon::AmrWbStreamEncoder stream(7, true);
  for (size_t chunk : {size_t{1000}, size_t{77}, size_t{320}}) {
    std::vector<uint8_t> got;
    for (size_t i = 0; i < speech.size(); i += chunk)
      stream.feed(speech.data() + i, std::min(chunk, speech.size() - i), got);
    EXPECT_EQ(stream.heldSamples(), speech.size() % 320);
    stream.flush(got);
    EXPECT_EQ(got, want) << chunk;
    stream.reset();
  }
  // A mode out of range encodes nothing.
  quillon::AmrWbStreamEncoder bad(9, false);
  std::vector<uint8_t> none;
  bad.feed(speech.data(), 640, none);
  EXPECT_TRUE(none.empty());
}
