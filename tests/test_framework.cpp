#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <vector>

#include "primitives/g711.h"
#include "quillon/quillon.h"

using namespace TAV;

namespace {
Codec* makeCodec(CompressionType c, bool encoder) { return Codec::getCodec(AudioFormat(c, 1), encoder); }
void destroy(Codec* c) {
  if (c) {
    c->close();
    delete c;
  }
}
std::vector<uint8_t> alawRamp(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; i++) v[i] = static_cast<uint8_t>(i * 7);
  return v;
}
}  // namespace

TEST(CodecFactory, RefusesCodesWithoutCodec) {
  for (int code : {0, 70, 100, 103, 150, 7, 99})
    EXPECT_EQ(makeCodec(static_cast<CompressionType>(code), false), nullptr) << code;
  Codec* g711 = makeCodec(CT_G711_ALAW, false);
  ASSERT_NE(g711, nullptr);
  EXPECT_TRUE(g711->isDecoder());
  EXPECT_FALSE(g711->isEncoder());
  EXPECT_EQ(g711->hasPendingEncodedData(), 0u);
  uint8_t out[4] = {9, 9, 9, 9};
  EXPECT_EQ(g711->getPendingEncodedData(out, 4), 0u);
  EXPECT_EQ(out[0], 9);
  EXPECT_TRUE(g711->close());
  EXPECT_FALSE(g711->isDecoder());
  EXPECT_FALSE(g711->isEncoder());
  EXPECT_TRUE(g711->close());
  delete g711;
  Codec* pcm8 = makeCodec(CT_PCM8, true);
  ASSERT_NE(pcm8, nullptr);
  EXPECT_TRUE(pcm8->isEncoder());
  EXPECT_FALSE(pcm8->open(AudioFormat(CT_G711_ALAW, 1), false));  // other code refused
  destroy(pcm8);
}

TEST(Resampler, DefaultFactoryAndPairMeans) {
  IResamplerFactory* f = IResamplerFactory::s_DefaultFactory;
  ASSERT_NE(f, nullptr);
  IResampler* r = f->createResampler(16000, 8000);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(f->createResampler(16000, 8000), r);
  EXPECT_EQ(f->createResampler(8000, 16000), nullptr);
  EXPECT_EQ(f->createResampler(16000, 16000), nullptr);
  EXPECT_EQ(f->createResampler(48000, 8000), nullptr);
  EXPECT_EQ(r->getOutputCount(321), 160u);

  const int16 in[6] = {100, 101, -3, -4, 32767, 32767};
  int16 out[3] = {};
  uint32 outBytes = sizeof out;
  EXPECT_EQ(r->resample(in, 12, out, outBytes), 0u);
  EXPECT_EQ(outBytes, 6u);
  EXPECT_EQ(out[0], 100);
  EXPECT_EQ(out[1], -3);  // -7 / 2 truncates towards zero
  EXPECT_EQ(out[2], 32767);
  outBytes = 2;
  r->resample(in, 12, out, outBytes);
  EXPECT_EQ(outBytes, 2u);
  outBytes = 6;
  r->resample(in, 1, out, outBytes);
  EXPECT_EQ(outBytes, 0u);
  f->releaseResampler(r);
}

TEST(DecoderBuffer, GrowsOnlyUnlessShrinkAllowed) {
  DecoderBuffer b;
  EXPECT_EQ(b.getBuffer(), nullptr);
  b.setBufferSize(200, false);
  EXPECT_EQ(b.getBufferSize(), 200u);
  b.setBufferSize(100, false);
  EXPECT_EQ(b.getBufferSize(), 200u);
  b.setBufferSize(100, true);
  EXPECT_EQ(b.getBufferSize(), 100u);
  b.setBufferSize(0, true);
  EXPECT_EQ(b.getBufferSize(), 0u);
  EXPECT_EQ(b.getBuffer(), nullptr);
}

TEST(RingBuffer, WrapAndCountRules) {
  RingBuffer r(10);
  EXPECT_EQ(r.bytesToWrite(), 10u);
  EXPECT_EQ(r.bytesToRead(), 0u);
  uint8_t data[16], got[16];
  std::iota(data, data + 16, 1);
  EXPECT_EQ(r.write(data, 12), 10u);
  EXPECT_EQ(r.bytesToWrite(), 0u);
  EXPECT_EQ(r.bytesToRead(), 10u);
  EXPECT_EQ(r.write(data, 1), 0u);
  EXPECT_EQ(r.read(got, 16), 10u);
  EXPECT_EQ(std::memcmp(got, data, 10), 0);
  EXPECT_EQ(r.read(got, 1), 0u);
  // Emptied: positions back at 0, so a full write needs no wrap.
  EXPECT_EQ(r.write(data, 10), 10u);
  EXPECT_EQ(r.read(got, 10), 10u);

  EXPECT_EQ(r.write(data, 8), 8u);
  EXPECT_EQ(r.read(got, 5), 5u);
  EXPECT_EQ(r.write(data + 8, 4), 4u);  // wraps: write position 2
  EXPECT_EQ(r.bytesToRead(), 13u);
  EXPECT_EQ(r.bytesToWrite(), 4294967293u);
  // Reading the true content back crosses the end of the storage.
  EXPECT_EQ(r.read(got, 7), 7u);
  const uint8_t expect[7] = {6, 7, 8, 9, 10, 11, 12};
  EXPECT_EQ(std::memcmp(got, expect, 7), 0);
}

TEST(RingBuffer, GrowingAndEmptyRings) {
  RingBuffer r(4);
  const uint8_t data[4] = {1, 2, 3, 4};
  r.write(data, 3);
  r.setBufferSize(2);
  EXPECT_EQ(r.bytesToRead(), 3u);
  r.setBufferSize(8);
  EXPECT_EQ(r.bytesToRead(), 0u);  // grown rings read as empty
  EXPECT_EQ(r.bytesToWrite(), 8u);
  RingBuffer none;
  uint8_t out[4];
  EXPECT_EQ(none.write(data, 4), 0u);
  EXPECT_EQ(none.read(out, 4), 0u);
}

TEST(TransCoder, DecodePathWritesIntoCallerBuffer) {
  TransCoder t;
  ASSERT_TRUE(t.open(AudioFormat(CT_G711_ALAW, 1), AudioFormat(CT_PCM16, 1)));
  const std::vector<uint8_t> in = alawRamp(160);
  std::vector<int16> out(160);
  uint32 inBytes = 160;
  EXPECT_EQ(t.transcode(in.data(), inBytes, reinterpret_cast<uint8*>(out.data()), 320), 320u);
  EXPECT_EQ(inBytes, 160u);
  for (size_t i = 0; i < 160; i++) ASSERT_EQ(out[i], quillon::g711::alawExpand(in[i]));
  EXPECT_EQ(t.getOutSize(160), 320u);
  EXPECT_EQ(t.alignConvertibleByteCountNonVBR(17), 16u);
  EXPECT_EQ(t.getPendingEncodedData(nullptr, 0), 0u);
}

TEST(TransCoder, CodecToCodecGrowsItsBuffer) {
  TransCoder t;
  ASSERT_TRUE(t.open(AudioFormat(CT_G711_ALAW, 1), AudioFormat(CT_G711_ULAW, 1)));
  for (size_t n : {16u, 1600u, 80u}) {
    const std::vector<uint8_t> in = alawRamp(n);
    std::vector<uint8_t> out(n);
    uint32 inBytes = static_cast<uint32>(n);
    ASSERT_EQ(t.transcode(in.data(), inBytes, out.data(), static_cast<uint32>(n)), n);
    for (size_t i = 0; i < n; i++)
      ASSERT_EQ(out[i], quillon::g711::ulawCompress(quillon::g711::alawExpand(in[i])));
  }
}

TEST(TransCoder, EncodePathsWithAndWithoutResampler) {
  std::vector<int16> pcm(64);
  for (size_t i = 0; i < pcm.size(); i++) pcm[i] = static_cast<int16>(i * 500 - 16000);
  {
    TransCoder t;
    ASSERT_TRUE(t.open(AudioFormat(CT_PCM16, 1), AudioFormat(CT_G711_ULAW, 1)));
    std::vector<uint8_t> out(64);
    uint32 inBytes = 128;
    EXPECT_EQ(t.transcode(reinterpret_cast<uint8*>(pcm.data()), inBytes, out.data(), 64), 64u);
    EXPECT_EQ(inBytes, 128u);
    EXPECT_EQ(out[5], quillon::g711::ulawCompress(pcm[5]));
  }
  {
    TransCoder t;
    ASSERT_TRUE(t.open(AudioFormat(CT_PCM16_16K, 1), AudioFormat(CT_G711_ALAW, 1)));
    EXPECT_EQ(t.getOutSize(128), 32u);
    std::vector<uint8_t> out(32);
    uint32 inBytes = 128;
    EXPECT_EQ(t.transcode(reinterpret_cast<uint8*>(pcm.data()), inBytes, out.data(), 32), 32u);
    EXPECT_EQ(out[3], quillon::g711::alawCompress(static_cast<int16>((pcm[6] + pcm[7]) / 2)));
  }
}

TEST(TransCoder, PcmToPcmCopiesOrHalves) {
  std::vector<int16> pcm = {10, 20, -5, -6, 7, 9, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5};
  {
    TransCoder t;
    ASSERT_TRUE(t.open(AudioFormat(CT_PCM16_16K, 1), AudioFormat(CT_PCM16, 1)));
    EXPECT_EQ(t.getOutSize(3200), 1600u);
    std::vector<int16> out(8);
    uint32 inBytes = 32;
    EXPECT_EQ(t.transcode(reinterpret_cast<uint8*>(pcm.data()), inBytes, reinterpret_cast<uint8*>(out.data()), 16), 16u);
    EXPECT_EQ(out[0], 15);
    EXPECT_EQ(out[1], -5);
    EXPECT_EQ(out[2], 8);
  }
  for (CompressionType outCode : {CT_PCM16, CT_PCM16_16K}) {
    // 8 -> 16 kHz has no resampler: the input is copied unchanged.
    TransCoder t;
    ASSERT_TRUE(t.open(AudioFormat(CT_PCM16, 1), AudioFormat(outCode, 1)));
    std::vector<int16> out(16);
    uint32 inBytes = 30;
    EXPECT_EQ(t.transcode(reinterpret_cast<uint8*>(pcm.data()), inBytes, reinterpret_cast<uint8*>(out.data()), 0), 30u);
    EXPECT_EQ(std::memcmp(out.data(), pcm.data(), 30), 0);
  }
}

TEST(TransCoder, OpenFailuresAndReopen) {
  TransCoder t;
  EXPECT_FALSE(t.open(AudioFormat(CT_G711_ALAW, 2), AudioFormat(CT_PCM16, 1)));
  EXPECT_FALSE(t.open(AudioFormat(CT_G711_ALAW, 1), AudioFormat(CT_PCM16, 2)));
  EXPECT_FALSE(t.open(AudioFormat(CT_G711_ALAW, 1), AudioFormat(static_cast<CompressionType>(7), 1)));
  uint8_t in[8] = {0xd5, 0xd5, 0xd5, 0xd5, 0xd5, 0xd5, 0xd5, 0xd5};
  uint8_t out[16];
  uint32 inBytes = 8;
  // Nothing open after a failure: PCM-to-PCM copy of the bytes given.
  EXPECT_EQ(t.transcode(in, inBytes, out, 16), 8u);
  ASSERT_TRUE(t.open(AudioFormat(CT_G711_ALAW, 1), AudioFormat(CT_PCM16, 1)));
  ASSERT_TRUE(t.open(AudioFormat(CT_G711_ALAW, 1), AudioFormat(CT_PCM16, 1)));  // re-inits the codec held
  EXPECT_TRUE(t.reopen());
  EXPECT_EQ(t.transcode(in, inBytes, out, 16), 16u);

  IResamplerFactory* saved = IResamplerFactory::s_DefaultFactory;
  IResamplerFactory::s_DefaultFactory = nullptr;
  TransCoder u;
  EXPECT_FALSE(u.open(AudioFormat(CT_PCM16_16K, 1), AudioFormat(CT_PCM16, 1)));
  EXPECT_TRUE(u.open(AudioFormat(CT_PCM16, 1), AudioFormat(CT_G711_ALAW, 1)));
  IResamplerFactory::s_DefaultFactory = saved;
}

TEST(Decoder, FacadeTableAndCalls) {
  for (CompressionType c : {CT_SILK_20MS, CT_OPUS, CT_AMRWB, CT_PCM16_16K, CT_MSADPCM, CT_NONE})
    EXPECT_EQ(Decoder::getDecoder(AudioFormat(c, 1)), nullptr) << c;
  EXPECT_EQ(Decoder::getDecoder(AudioFormat(CT_G711_ALAW, 2)), nullptr);
  EXPECT_TRUE(Decoder::releaseDecoder(nullptr));

  Decoder* d = Decoder::getDecoder(AudioFormat(CT_G711_ULAW, 1));
  ASSERT_NE(d, nullptr);
  ASSERT_TRUE(d->open(AudioFormat(CT_PCM16, 1)));
  EXPECT_EQ(d->getOutputSize(80), 160u);
  std::vector<uint8_t> in(80, 0x80);
  std::vector<int16> out(80);
  EXPECT_EQ(d->decode(in.data(), reinterpret_cast<uint8*>(out.data()), 80), 160u);
  EXPECT_EQ(out[79], 32124);
  EXPECT_TRUE(d->reset());
  EXPECT_TRUE(d->close());
  EXPECT_FALSE(d->getOutputFormat().isValid());
  EXPECT_TRUE(Decoder::releaseDecoder(d));

  Decoder* p = Decoder::getDecoder(AudioFormat(CT_PCM16, 1));
  ASSERT_NE(p, nullptr);
  ASSERT_TRUE(p->open(AudioFormat(CT_PCM16, 1)));
  const int16 samples[8] = {1, -2, 3, -4, 5, -6, 7, -8};
  int16 copy[8] = {};
  EXPECT_EQ(p->decode(reinterpret_cast<const uint8*>(samples), reinterpret_cast<uint8*>(copy), 16), 16u);
  EXPECT_EQ(std::memcmp(copy, samples, 16), 0);
  Decoder::releaseDecoder(p);
}

TEST(CApi, CompressionMappingAndCallSequence) {
  EXPECT_EQ(FileToAPICompression(6), 3);
  EXPECT_EQ(FileToAPICompression(3), 4);
  EXPECT_EQ(FileToAPICompression(16), 13);
  EXPECT_EQ(FileToAPICompression(13), 14);
  EXPECT_EQ(FileToAPICompression(40), 40);
  EXPECT_EQ(FileToAPICompression(100), 0);
  EXPECT_EQ(decoder_create(60), 0u);
  EXPECT_NE(decoder_release(0), 0);

  quillon_decoder_handle h = decoder_create(FileToAPICompression(2));
  ASSERT_NE(h, 0u);
  ASSERT_EQ(decoder_open(h, 100), 1);
  std::vector<uint8_t> in(160, 0xfe), out(320);
  EXPECT_EQ(decode_decode(h, in.data(), out.data(), 160), 320u);
  EXPECT_EQ(out[0] | (out[1] << 8), 8);
  EXPECT_EQ(decoder_close(h), 1);
  EXPECT_EQ(decoder_open(h, 7), 0);  // no codec for the output code
  ASSERT_EQ(decoder_open(h, 100), 1);
  EXPECT_EQ(decode_decode(h, in.data(), out.data(), 160), 320u);
  EXPECT_NE(decoder_release(h), 0);
}

// G.722 decodes in 160-byte engine frames; chunks that split them make the
// engine emit a frame completed by bytes held from the previous call. The
// transcoder's own buffer must hold that (ASan watches this test).
TEST(TransCoder, SplitEngineFramesStayInsideTheBuffers) {
  TransCoder t;
  ASSERT_TRUE(t.open(AudioFormat(CT_G722, 1), AudioFormat(CT_PCM16, 1)));
  std::vector<uint8_t> in(1000);
  for (size_t i = 0; i < in.size(); i++) in[i] = static_cast<uint8_t>(i * 29);
  std::vector<uint8_t> out(2000);
  uint32 total = 0;
  for (size_t i = 0; i < in.size(); i += 100) {
    uint32 n = 100;
    total += t.transcode(in.data() + i, n, out.data(), static_cast<uint32>(out.size()));
  }
  EXPECT_GT(total, 0u);
}
