// Streams fed to the transcoder, the decoder facade and the C interface in
// uneven pieces: partial frames wait for the next call, each call fits the
// room the README gives for it, and the resampler goes back to its factory.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "primitives/g711.h"
#include "quillon/quillon.h"
#include "quillon/quillon_c.h"
#include "quillon/trace.h"
#include "test_support.h"

using namespace TAV;

namespace {

// Chunk sizes that split frames every which way, repeated over the stream.
const uint32 kOddChunks[] = {1, 7, 20, 17, 35, 19, 0, 36, 5, 53, 18, 2};

// G.711, 8-bit PCM and G.726 at 32 and 16 kbit/s decode every byte.
bool decodesByteByByte(CompressionType c) {
  return c == CT_G711_ALAW || c == CT_G711_ULAW || c == CT_PCM8 || c == CT_G726_32 || c == CT_G726_16 ||
         c == CT_G726_32_LSB || c == CT_G726_16_LSB;
}

// The C interface's room for a call of n bytes with `held` bytes kept back:
// two bytes per sample of the whole frames in held + n.
uint32 roomFor(const AudioFormat& format, uint32& held, uint32 n) {
  if (decodesByteByByte(format.getCompression())) return 2 * format.bytesToSamplesUnaligned(n);
  const uint32 frame = format.getBytesPerFrame();
  const uint32 total = held + n;
  held = total % frame;
  return 2 * format.bytesToSamples(total - held);
}

// PCM samples from exactly `room` bytes, whose address is never null (the
// codecLib codes ignore a call with a null output, even one with no room).
struct ExactRoom {
  explicit ExactRoom(uint32 room) : bytes(std::make_unique<uint8_t[]>(room)), size(room) {}
  std::vector<int16_t> samples(uint32 written) const {
    std::vector<int16_t> v(std::min(written, size) / 2);
    if (!v.empty()) std::memcpy(v.data(), bytes.get(), v.size() * 2);
    return v;
  }
  std::unique_ptr<uint8_t[]> bytes;
  uint32 size;
};

uint32 chunkAt(const uint32* chunks, size_t count, size_t k, size_t left) {
  return static_cast<uint32>(std::min<size_t>(chunks[k % count], left));
}

// Decodes `stream` through the C interface in the given repeating chunk
// sizes, each call into a buffer of exactly its room.
std::vector<int16_t> decodeThroughCApi(int code, const std::vector<uint8_t>& stream, const uint32* chunks,
                                       size_t chunkCount) {
  const AudioFormat format(static_cast<CompressionType>(code), 1);
  quillon_decoder_handle h = decoder_create(code);
  EXPECT_NE(h, 0u);
  EXPECT_EQ(decoder_open(h, CT_PCM16), 1);
  std::vector<int16_t> pcm;
  uint32 held = 0;
  for (size_t offset = 0, k = 0; offset < stream.size(); k++) {
    const uint32 n = chunkAt(chunks, chunkCount, k, stream.size() - offset);
    const uint32 room = roomFor(format, held, n);
    const std::vector<uint8_t> in(stream.begin() + static_cast<long>(offset),
                                  stream.begin() + static_cast<long>(offset + n));
    const ExactRoom out(room);
    const uint32 written = decode_decode(h, in.data(), out.bytes.get(), n);
    EXPECT_EQ(written, room) << "code " << code << ", " << n << " bytes at " << offset;
    const std::vector<int16_t> got = out.samples(written);
    pcm.insert(pcm.end(), got.begin(), got.end());
    offset += n;
  }
  decoder_release(h);
  return pcm;
}

std::vector<int16_t> decodeWhole(int code, const std::vector<uint8_t>& stream) {
  const uint32 n = static_cast<uint32>(stream.size());
  return decodeThroughCApi(code, stream, &n, 1);
}

std::vector<uint8_t> randomBytes(size_t n, uint32_t seed) {
  std::vector<uint8_t> v(n);
  for (auto& b : v) {
    seed = seed * 1664525u + 1013904223u;
    b = static_cast<uint8_t>(seed >> 24);
  }
  return v;
}

// Keeps the codecLib trace lines out of the test output while it lives.
struct QuietTrace {
  FILE* saved = quillon_trace_sink();
  QuietTrace() { quillon_set_trace_sink(nullptr); }
  ~QuietTrace() { quillon_set_trace_sink(saved); }
};

class CountingFactory : public IResamplerFactory {
 public:
  IResampler* createResampler(uint32 inRate, uint32 outRate) override {
    return inRate == 16000 && outRate == 8000 ? &m_resampler : nullptr;
  }
  void releaseResampler(IResampler* resampler) override {
    if (resampler == &m_resampler) released++;
  }
  int released = 0;

 private:
  DefaultResampler16to8 m_resampler;
};

}  // namespace

TEST(TransCoder, ResamplerGoesBackToTheFactoryThatMadeIt) {
  IResamplerFactory* saved = IResamplerFactory::s_DefaultFactory;
  CountingFactory maker, later;
  IResamplerFactory::s_DefaultFactory = &maker;
  TransCoder t;
  ASSERT_TRUE(t.open(AudioFormat(CT_PCM16_16K, 1), AudioFormat(CT_PCM16, 1)));
  EXPECT_EQ(t.getOutSize(32), 16u);  // the resampler is in place
  IResamplerFactory::s_DefaultFactory = &later;
  t.close();
  IResamplerFactory::s_DefaultFactory = saved;
  EXPECT_EQ(maker.released, 1);
  EXPECT_EQ(later.released, 0);
}

// TETRA decodes whole 18-byte frames only; the facade and the C interface
// keep a partial frame for the next call.
TEST(DecoderChunking, TetraInOddChunksEqualsTheWholeStream) {
  QUILLON_REQUIRE_VECTORS(dir, "tetra");
  const std::vector<uint8_t> stream = quillon::test::readFile(dir / "tetra_kristoff.tet");
  const std::vector<int16_t> expected = quillon::test::readPcm16(dir / "tetra_kristoff.pcm");
  ASSERT_EQ(stream.size() / 18 * 240, expected.size());

  EXPECT_EQ(quillon::test::firstMismatch(decodeThroughCApi(CT_TETRA, stream, kOddChunks, std::size(kOddChunks)),
                                         expected),
            -1);

  const AudioFormat tetra(CT_TETRA, 1);
  Decoder* d = Decoder::getDecoder(tetra);
  ASSERT_NE(d, nullptr);
  ASSERT_TRUE(d->open(AudioFormat(CT_PCM16, 1)));
  std::vector<int16_t> got;
  uint32 held = 0;
  for (size_t offset = 0, k = 0; offset < stream.size(); k++) {
    const uint32 n = chunkAt(kOddChunks, std::size(kOddChunks), k, stream.size() - offset);
    const ExactRoom out(roomFor(tetra, held, n));
    const uint32 written = d->decode(stream.data() + offset, out.bytes.get(), n);
    ASSERT_EQ(written, out.size);
    const std::vector<int16_t> samples = out.samples(written);
    got.insert(got.end(), samples.begin(), samples.end());
    offset += n;
  }
  Decoder::releaseDecoder(d);
  EXPECT_EQ(quillon::test::firstMismatch(got, expected), -1);
}

// The same for the other codes of the C interface that take any chunking:
// odd chunks give the whole-stream output; G.726 at 40 and 24 kbit/s keeps a
// partial group for the next call, the byte-by-byte codes decode every byte.
// G.729 joins partial frames in its engine; each of its calls carries at
// least one frame.
TEST(DecoderChunking, OddChunksEqualTheWholeStreamForEveryWaveformCode) {
  const QuietTrace quiet;
  const uint32 g729Chunks[] = {15, 10, 27, 11, 19, 40};
  for (int code : {1, 2, 3, 4, 5, 6, 13, 14, 15, 16, 20, 102}) {
    const std::vector<uint8_t> stream = randomBytes(2003, static_cast<uint32_t>(code));
    const AudioFormat format(static_cast<CompressionType>(code), 1);
    const std::vector<int16_t> whole = decodeWhole(code, stream);
    uint32 held = 0;
    ASSERT_EQ(whole.size() * 2, roomFor(format, held, static_cast<uint32>(stream.size()))) << code;
    const std::vector<int16_t> pieces =
        code == CT_G729 ? decodeThroughCApi(code, stream, g729Chunks, std::size(g729Chunks))
                        : decodeThroughCApi(code, stream, kOddChunks, std::size(kOddChunks));
    EXPECT_EQ(quillon::test::firstMismatch(pieces, whole), -1) << code;
  }
}

// Codec to codec: the partial frame waits for the next call as well.
TEST(TransCoder, PartialFramesWaitBetweenTwoCodecs) {
  const std::vector<uint8_t> stream = randomBytes(1800, 40);
  TransCoder whole;
  ASSERT_TRUE(whole.open(AudioFormat(CT_TETRA, 1), AudioFormat(CT_PCM16, 1)));
  std::vector<int16_t> pcm(24000);
  uint32 n = 1800;
  ASSERT_EQ(whole.transcode(stream.data(), n, reinterpret_cast<uint8*>(pcm.data()), 48000), 48000u);
  std::vector<uint8_t> expected(pcm.size());
  for (size_t i = 0; i < pcm.size(); i++) expected[i] = quillon::g711::alawCompress(pcm[i]);

  TransCoder t;
  ASSERT_TRUE(t.open(AudioFormat(CT_TETRA, 1), AudioFormat(CT_G711_ALAW, 1)));
  std::vector<uint8_t> got;
  for (size_t offset = 0, k = 0; offset < stream.size(); k++) {
    const uint32 chunk = std::min<uint32>(3 * kOddChunks[k % std::size(kOddChunks)],
                                          static_cast<uint32>(stream.size() - offset));
    std::vector<uint8_t> out(240 * (chunk / 18 + 1));
    uint32 inBytes = chunk;
    const uint32 written = t.transcode(stream.data() + offset, inBytes, out.data(), static_cast<uint32>(out.size()));
    got.insert(got.end(), out.begin(), out.begin() + written);
    offset += chunk;
  }
  EXPECT_EQ(got, expected);
}

// A G.722 call through the C interface needs room for one 160-byte engine
// frame (a chunk of at least 80 bytes); a smaller call drops what the engine
// held. The tail under one engine frame comes out by feeding filler that
// completes the frame and keeping four bytes per real byte.
TEST(DecoderChunking, G722NeedsRoomForAnEngineFrameAndFlushesWithFiller) {
  QUILLON_REQUIRE_VECTORS(dir, "g722");
  const QuietTrace quiet;
  const std::vector<uint8_t> stream = quillon::test::readFile(dir / "vm-options-m1.g722");
  const std::vector<int16_t> expected = quillon::test::readPcm16(dir / "vm-options-m1.pcm");
  ASSERT_EQ(stream.size() % 160, 74u);

  quillon_decoder_handle h = decoder_create(CT_G722);
  ASSERT_EQ(decoder_open(h, CT_PCM16), 1);
  uint32 held = 0;
  auto feed = [&](const uint8_t* data, uint32 n) {
    const uint32 room = 640 * ((held + n) / 160);
    const uint32 before = held;
    held = (held + n) % 160;
    const ExactRoom out(room);
    const uint32 written = decode_decode(h, data, out.bytes.get(), n);
    EXPECT_EQ(written, room) << n << " bytes after " << before << " held";
    return out.samples(written);
  };
  std::vector<int16_t> got;
  const uint32 chunks[] = {80, 317, 161, 99, 400, 133};
  for (size_t offset = 0, k = 0; offset < stream.size(); k++) {
    const uint32 left = static_cast<uint32>(stream.size() - offset);
    uint32 n = chunkAt(chunks, std::size(chunks), k, left);
    if (left - n < 80) n = left;  // no call under 80 bytes
    const std::vector<int16_t> out = feed(stream.data() + offset, n);
    got.insert(got.end(), out.begin(), out.end());
    offset += n;
  }
  ASSERT_EQ(held, 74u);
  // Filler completes the engine frame (at least 80 bytes in the call); only
  // the samples of the real bytes are kept.
  const uint32 real = held;
  const uint32 fill = 160 - real < 80 ? 320 - real : 160 - real;
  const std::vector<uint8_t> filler(fill, 0);
  const std::vector<int16_t> out = feed(filler.data(), fill);
  got.insert(got.end(), out.begin(), out.begin() + 2 * real);
  EXPECT_EQ(quillon::test::firstMismatch(got, expected), -1);

  // A call under 80 bytes drops the bytes the engine holds: 100 + 20 + 100
  // would complete an engine frame, but nothing comes out.
  std::vector<uint8_t> room(1280);
  EXPECT_EQ(decode_decode(h, stream.data(), room.data(), 100), 0u);
  EXPECT_EQ(decode_decode(h, stream.data() + 100, room.data(), 20), 0u);
  EXPECT_EQ(decode_decode(h, stream.data() + 120, room.data(), 100), 0u);
  decoder_release(h);
}

// G.729 through the C interface: a call of fewer than 10 bytes has no room
// for a frame and drops what the engine held, so 5-byte chunks give nothing.
TEST(DecoderChunking, G729ChunksUnderOneFrameGiveNothing) {
  const QuietTrace quiet;
  const std::vector<uint8_t> stream = randomBytes(60, 20);
  quillon_decoder_handle h = decoder_create(CT_G729);
  ASSERT_EQ(decoder_open(h, CT_PCM16), 1);
  std::vector<uint8_t> out(320);
  for (size_t offset = 0; offset < 45; offset += 5)
    EXPECT_EQ(decode_decode(h, stream.data() + offset, out.data(), 5), 0u) << offset;
  // One frame, not two: the 5 bytes before were dropped.
  EXPECT_EQ(decode_decode(h, stream.data() + 45, out.data(), 15), 160u);
  decoder_release(h);
}
