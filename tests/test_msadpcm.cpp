// MS ADPCM: blocks from the codec, decoded by a small decoder written here
// from the format's description (all seven standard predictors), checked
// against the input; plus the block and pending-data contract.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "quillon/codecs/codec_msadpcm32.h"
#include "test_support.h"

using namespace TAV;
namespace qt = quillon::test;

namespace {

// Decodes one 256-byte block; for every sample also reports the step that
// quantized it and whether its code was at either end of the range (where
// the error is not bounded by half a step).
struct DecodedBlock {
  std::vector<int16_t> pcm;  // interleaved
  std::vector<int> step;     // 0 for the verbatim header samples
  std::vector<bool> clipped;
  int finalDelta[2] = {0, 0};
  int headerDelta[2] = {0, 0};
};

DecodedBlock decodeBlock(const uint8_t* b, int channels) {
  static const int kCoef[7][2] = {{256, 0}, {512, -256}, {0, 0}, {192, 64}, {240, 0}, {460, -208}, {392, -232}};
  static const int kAdapt[16] = {230, 230, 230, 230, 307, 409, 512, 614, 768, 614, 512, 409, 307, 230, 230, 230};
  auto s16 = [&](int off) { return static_cast<int16_t>(b[off] | (b[off + 1] << 8)); };
  int c1[2], c2[2], delta[2], s1[2], s2[2];
  DecodedBlock d;
  for (int c = 0; c < channels; c++) {
    const int pred = b[c] < 7 ? b[c] : 0;
    c1[c] = kCoef[pred][0];
    c2[c] = kCoef[pred][1];
    delta[c] = d.headerDelta[c] = s16(channels + 2 * c);
    s1[c] = s16(3 * channels + 2 * c);
    s2[c] = s16(5 * channels + 2 * c);
  }
  for (int c = 0; c < channels; c++) d.pcm.push_back(static_cast<int16_t>(s2[c]));
  for (int c = 0; c < channels; c++) d.pcm.push_back(static_cast<int16_t>(s1[c]));
  d.step.assign(d.pcm.size(), 0);
  d.clipped.assign(d.pcm.size(), false);
  for (int i = 7 * channels; i < 256; i++) {
    for (int half = 0; half < 2; half++) {
      const int c = channels == 2 ? half : 0;
      const int nib = half == 0 ? b[i] >> 4 : b[i] & 15;
      const int code = nib >= 8 ? nib - 16 : nib;
      int v = (s1[c] * c1[c] + s2[c] * c2[c]) / 256 + code * delta[c];
      v = v < -32768 ? -32768 : v > 32767 ? 32767 : v;
      d.pcm.push_back(static_cast<int16_t>(v));
      d.step.push_back(delta[c]);
      d.clipped.push_back(code == -8 || code == 7);
      s2[c] = s1[c];
      s1[c] = v;
      delta[c] = std::max(16, (kAdapt[nib] * delta[c]) >> 8);
    }
  }
  for (int c = 0; c < channels; c++) d.finalDelta[c] = delta[c];
  return d;
}

std::unique_ptr<Codec> openEncoder(uint16 channels) {
  return std::unique_ptr<Codec>(Codec::getCodec(AudioFormat(CT_MSADPCM, channels), true));
}

// Encodes everything, flushes, returns the blocks.
std::vector<uint8_t> encodeAll(Codec& codec, const std::vector<int16_t>& pcm) {
  std::vector<uint8_t> out(pcm.size() * 2 + 1024);
  uint32 inBytes = static_cast<uint32>(pcm.size() * 2);
  uint32 n = codec.encode(pcm.data(), inBytes, out.data(), static_cast<uint32>(out.size()));
  EXPECT_EQ(inBytes, pcm.size() * 2);
  n += codec.getPendingEncodedData(out.data() + n, 256);
  out.resize(n);
  return out;
}

// A warbling tone with noise, when no speech is at hand.
std::vector<int16_t> synthetic(size_t n) {
  std::vector<int16_t> s;
  uint32_t r = 1;
  for (size_t i = 0; i < n; i++) {
    r ^= r << 13, r ^= r >> 17, r ^= r << 5;
    s.push_back(static_cast<int16_t>(9000 * std::sin(i * (0.05 + 0.00002 * (i % 4000))) + (int(r % 2001) - 1000)));
  }
  return s;
}

struct ErrorStats {
  double snrDb;
  long violations;  // samples outside the half-step bound
  size_t samples;
};

// Decodes blocks and compares with the input (per channel interleaving as
// in the input); the padding at the end of the last block is skipped.
ErrorStats compare(const std::vector<uint8_t>& blocks, const std::vector<int16_t>& input, int channels) {
  double sig = 0, err = 0;
  long violations = 0;
  size_t pos = 0;
  int carriedDelta[2] = {16, 16};
  for (size_t off = 0; off + 256 <= blocks.size(); off += 256) {
    DecodedBlock d = decodeBlock(&blocks[off], channels);
    for (int c = 0; c < channels; c++) {
      EXPECT_EQ(blocks[off + c], 0);  // predictor index
      EXPECT_EQ(d.headerDelta[c], carriedDelta[c]) << "block " << off / 256;
      carriedDelta[c] = d.finalDelta[c];
    }
    for (size_t i = 0; i < d.pcm.size() && pos < input.size(); i++, pos++) {
      const int e = input[pos] - d.pcm[i];
      sig += double(input[pos]) * input[pos];
      err += double(e) * e;
      if (d.step[i] == 0 ? e != 0 : (!d.clipped[i] && 2 * std::abs(e) > d.step[i])) violations++;
    }
  }
  EXPECT_EQ(pos, input.size());
  return {10 * std::log10(sig / std::max(err, 1.0)), violations, pos};
}

}  // namespace

TEST(MsAdpcm, BlocksReconstructTheInputWithinHalfAStep) {
  QUILLON_REQUIRE_VECTORS(dir, "g726");
  const std::vector<int16_t> mono = qt::readPcm16(dir / "hts12-40.pcm");  // 12 s of speech
  ASSERT_FALSE(mono.empty());
  std::unique_ptr<Codec> enc = openEncoder(1);
  ASSERT_NE(enc, nullptr);
  const std::vector<uint8_t> blocks = encodeAll(*enc, mono);
  EXPECT_EQ(blocks.size(), (mono.size() + 499) / 500 * 256);
  const ErrorStats m = compare(blocks, mono, 1);
  EXPECT_EQ(m.violations, 0);
  EXPECT_GT(m.snrDb, 18.0) << "mono";
  std::printf("[          ] mono speech SNR %.1f dB over %zu samples\n", m.snrDb, m.samples);

  // Stereo: speech left, the same speech reversed and attenuated right.
  std::vector<int16_t> stereo;
  for (size_t i = 0; i < mono.size(); i++) {
    stereo.push_back(mono[i]);
    stereo.push_back(static_cast<int16_t>(mono[mono.size() - 1 - i] / 3));
  }
  std::unique_ptr<Codec> enc2 = openEncoder(2);
  const std::vector<uint8_t> blocks2 = encodeAll(*enc2, stereo);
  EXPECT_EQ(blocks2.size(), (mono.size() + 243) / 244 * 256);
  const ErrorStats s = compare(blocks2, stereo, 2);
  EXPECT_EQ(s.violations, 0);
  EXPECT_GT(s.snrDb, 18.0) << "stereo";
  std::printf("[          ] stereo speech SNR %.1f dB\n", s.snrDb);

  // Full-scale square wave and clicks: saturating codes and clamped
  // reconstruction, still within the bound wherever the code is not clipped.
  std::vector<int16_t> harsh;
  for (int i = 0; i < 5000; i++) harsh.push_back(static_cast<int16_t>((i / 7) % 2 ? 32767 : -32768));
  for (int i = 0; i < 3000; i++) harsh.push_back(static_cast<int16_t>(i % 300 == 0 ? 30000 : 0));
  std::unique_ptr<Codec> enc3 = openEncoder(1);
  EXPECT_EQ(compare(encodeAll(*enc3, harsh), harsh, 1).violations, 0);
}

TEST(MsAdpcm, ChunkedInputGivesTheSameStream) {
  const std::vector<int16_t> input = synthetic(3001);
  for (uint16 channels : {uint16(1), uint16(2)}) {
    std::unique_ptr<Codec> whole = openEncoder(channels);
    const std::vector<uint8_t> want = encodeAll(*whole, input);
    std::unique_ptr<Codec> parts = openEncoder(channels);
    std::vector<uint8_t> got(want.size() + 512);
    uint32 n = 0;
    size_t at = 0;
    for (size_t chunk = 1; at < input.size(); chunk = chunk % 13 + 2) {
      const size_t len = std::min(chunk, input.size() - at);
      uint32 inBytes = static_cast<uint32>(len * 2);
      n += parts->encode(&input[at], inBytes, got.data() + n, static_cast<uint32>(got.size() - n));
      at += len;
    }
    n += parts->getPendingEncodedData(got.data() + n, 256);
    got.resize(n);
    EXPECT_EQ(got, want) << channels << " channels";
  }
}

TEST(MsAdpcm, BlockCountsAndPendingBlock) {
  std::vector<int16_t> pcm(1001);
  for (size_t i = 0; i < pcm.size(); i++) pcm[i] = static_cast<int16_t>((i * 37) % 2000 - 1000);
  std::vector<uint8_t> out(2048);

  std::unique_ptr<Codec> a = openEncoder(1);
  uint32 inBytes = 2000;
  EXPECT_EQ(a->encode(pcm.data(), inBytes, out.data(), 2048), 512u);
  EXPECT_EQ(inBytes, 2000u);
  EXPECT_EQ(a->hasPendingEncodedData(), 0u);
  EXPECT_EQ(a->getPendingEncodedData(out.data(), 256), 0u);

  std::unique_ptr<Codec> b = openEncoder(1);
  inBytes = 2002;
  EXPECT_EQ(b->encode(pcm.data(), inBytes, out.data(), 2048), 512u);
  EXPECT_NE(b->hasPendingEncodedData(), 0u);

  // Ten samples: nothing emitted; the flushed block starts with them.
  std::unique_ptr<Codec> c = openEncoder(1);
  const int16 ten[10] = {100, -200, 300, 400, 500, 600, 700, 800, 900, 1000};
  inBytes = 20;
  EXPECT_EQ(c->encode(ten, inBytes, out.data(), 2048), 0u);
  EXPECT_NE(c->hasPendingEncodedData(), 0u);
  uint8 block[256];
  ASSERT_EQ(c->getPendingEncodedData(block, 256), 256u);
  EXPECT_EQ(block[0], 0);                              // predictor
  EXPECT_EQ(block[1] | (block[2] << 8), 16);           // delta
  EXPECT_EQ(int16_t(block[3] | (block[4] << 8)), -200);  // sample1: second sample
  EXPECT_EQ(int16_t(block[5] | (block[6] << 8)), 100);   // sample2: first sample
  // The flushed block stays pending and is emitted again by the next encode.
  EXPECT_NE(c->hasPendingEncodedData(), 0u);
  inBytes = 0;
  ASSERT_EQ(c->encode(ten, inBytes, out.data(), 2048), 256u);
  EXPECT_EQ(std::memcmp(out.data(), block, 256), 0);
  EXPECT_EQ(c->hasPendingEncodedData(), 0u);

  // Too little room: the full block stays inside.
  std::unique_ptr<Codec> d = openEncoder(1);
  inBytes = 1200;
  EXPECT_EQ(d->encode(pcm.data(), inBytes, out.data(), 255), 0u);
  EXPECT_NE(d->hasPendingEncodedData(), 0u);
  inBytes = 0;
  EXPECT_EQ(d->encode(pcm.data(), inBytes, out.data(), 256), 256u);
}

TEST(MsAdpcm, OpensOnlyForItsCodeAndDoesNotDecode) {
  CodecMSADPCM32 c;
  EXPECT_FALSE(c.open(AudioFormat(CT_PCM16, 1), true));
  EXPECT_TRUE(c.open(AudioFormat(CT_MSADPCM, 2), true));
  EXPECT_TRUE(c.isEncoder());
  const uint8 in[4] = {1, 2, 3, 4};
  int16 out[8];
  uint32 n = 4;
  EXPECT_EQ(c.decode(in, n, out, sizeof out), 0u);
  EXPECT_TRUE(c.close());
  EXPECT_FALSE(c.isEncoder());
}
