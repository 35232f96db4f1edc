// The codecLib front: descriptor table, leftover buffering, result codes,
// options/info records and trace lines, driven through a scripted engine.
#include <gtest/gtest.h>

#include <filesystem>

#include <cstdio>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "codeclib/codeclib.h"
#include "codeclib_fake.h"

using namespace quillon::codeclib;
using quillon::test::FakeSlot;
using quillon::test::g_engine;
using quillon::test::g_fake;
using quillon::test::TraceCapture;

namespace {

constexpr int32 kSlot = 40;  // an empty descriptor slot for the scripted engine

std::vector<int16> ramp(int n, int start = 1) {
  std::vector<int16> v(n);
  std::iota(v.begin(), v.end(), static_cast<int16>(start));
  return v;
}

std::string handleLine(const HandleRes* h) {
  char line[64];
  std::snprintf(line, sizeof line, "HandleRes = %x\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(h)));
  return line;
}

// An open handle on the scripted engine.
struct Fixture {
  explicit Fixture(int32 direction) : slot(kSlot) {
    EXPECT_EQ(codecLibOpen(&handle, kSlot, direction, 0), 0);
    EXPECT_EQ(codecLibQuery(&handle, kSlot, direction, nullptr, &options, 0), 0);
  }
  ~Fixture() { codecLibClose(&handle, 0); }
  int32 encode(const int16* in, int32& samples, std::vector<uint8>& out, int32& outBytes) {
    return codecLibEncode(&handle, in, &samples, out.data(), &outBytes, &options, 0);
  }
  int32 decode(const uint8* in, int32& bytes, std::vector<int16>& out, int32& outSamples) {
    return codecLibDecode(&handle, in, &bytes, out.data(), &outSamples, &options, 0);
  }
  FakeSlot slot;
  HandleRes* handle = nullptr;
  CodecLibOptions options{};
};

}  // namespace

TEST(CodecLibFront, CodecNumbersAbove45AndEmptyEntriesAreRefused) {
  HandleRes* h = nullptr;
  CodecLibOptions options{};
  EXPECT_EQ(codecLibQuery(nullptr, 46, 0, nullptr, &options, 0), kErrQuery);
  EXPECT_EQ(codecLibQuery(nullptr, -1, 0, nullptr, &options, 0), kErrQuery);
  EXPECT_EQ(codecLibOpen(&h, 46, 0, 0), kErrOpen);
  EXPECT_EQ(h, nullptr);
  for (int32 id : {0, 5, 45}) {
    EXPECT_EQ(codecLibQuery(nullptr, id, 1, nullptr, &options, 0), kErrQuery) << id;
    EXPECT_EQ(codecLibOpen(&h, id, 1, 0), kErrOpen) << id;
    EXPECT_EQ(h, nullptr) << id;
  }
  EXPECT_EQ(codecLibClose(&h, 0), 0);
}

TEST(CodecLibFront, OpenWithoutOpenEntryFails) {
  FakeSlot slot(kSlot);
  codecLibDescriptor(kSlot)->open = nullptr;
  HandleRes* h = nullptr;
  EXPECT_EQ(codecLibOpen(&h, kSlot, 0, 0), kErrOpen);
  EXPECT_EQ(h, nullptr);
}

TEST(CodecLibFront, QueryWithoutInfoWritesDefaults) {
  CodecLibOptions o;
  std::memset(&o, 0x5A, sizeof o);
  ASSERT_EQ(codecLibQuery(nullptr, kCodecG729A, 0, nullptr, &o, 0), 0);
  EXPECT_EQ(o.mode, 0);
  EXPECT_EQ(o.badFrame, 0);
  EXPECT_EQ(o.param, 3);
  EXPECT_EQ(o.dtx, -1);
  EXPECT_EQ(o.frameLength, 0);
  EXPECT_EQ(o.engine[11], 0);

  std::memset(&o, 0x5A, sizeof o);
  ASSERT_EQ(codecLibQuery(nullptr, kCodecG722, 1, nullptr, &o, 0), 0);
  EXPECT_EQ(o.mode, 1);
  EXPECT_EQ(o.badFrame, -1);
  EXPECT_EQ(o.param, 4);
  EXPECT_EQ(o.dtx, -1);
  EXPECT_EQ(o.frameLength, 1024);
  EXPECT_EQ(o.engine[0], 0);

  CodecLibInfo info{};
  EXPECT_EQ(codecLibQuery(nullptr, kCodecG729A, 2, &info, &o, 0), 1);
  EXPECT_EQ(codecLibQuery(nullptr, kCodecG722, -1, nullptr, &o, 0), 1);
}

TEST(CodecLibFront, G729AInfo) {
  CodecLibOptions o{};
  CodecLibInfo e{}, d{};
  ASSERT_EQ(codecLibQuery(nullptr, kCodecG729A, 0, &e, &o, 0), 0);
  ASSERT_EQ(codecLibQuery(nullptr, kCodecG729A, 1, &d, &o, 0), 0);
  for (const CodecLibInfo* i : {&e, &d}) {
    EXPECT_STREQ(i->shortName, "G729A");
    EXPECT_STREQ(i->mimeName, "audio/G729A");
    EXPECT_EQ(i->codecTag, 307);
    EXPECT_EQ(i->modeCount, 1);
    EXPECT_EQ(i->packingCount, 1);
    EXPECT_EQ(i->inChannels, 1);
    EXPECT_EQ(i->outChannels, 1);
    EXPECT_EQ(i->inFrameMs, 10);
    EXPECT_EQ(i->outFrameMs, 10);
  }
  const std::vector<int32> encoder = {e.inBytesPerSecond, e.inBytesPerFrame, e.inSampleRate, e.inSamplesPerFrame,
                                      e.inBytesPerFrameMax, e.leftOverSize, e.outBytesPerSecond, e.outSampleRate,
                                      e.outSamplesPerFrame, e.outBytesPerFrameTyp, e.outBytesPerFrameMax,
                                      e.inBitsPerSample};
  EXPECT_EQ(encoder, (std::vector<int32>{16000, 160, 8000, 80, 160, 160, 1000, 0, 0, 10, 10, 16}));
  const std::vector<int32> decoder = {d.inBytesPerSecond, d.inBytesPerFrame, d.inSampleRate, d.inSamplesPerFrame,
                                      d.inBytesPerFrameMax, d.leftOverSize, d.outBytesPerSecond, d.outSampleRate,
                                      d.outSamplesPerFrame, d.outBytesPerFrameTyp, d.outBytesPerFrameMax,
                                      d.outBitsPerSample};
  EXPECT_EQ(decoder, (std::vector<int32>{1000, 10, 8000, 10, 10, 10, 16000, 8000, 80, 160, 160, 16}));
}

TEST(CodecLibFront, G722InfoFollowsFrameLength) {
  CodecLibOptions o{};
  ASSERT_EQ(codecLibQuery(nullptr, kCodecG722, 0, nullptr, &o, 0), 0);
  o.frameLength = 320;
  CodecLibInfo e{}, d{};
  ASSERT_EQ(codecLibQuery(nullptr, kCodecG722, 0, &e, &o, 0), 0);
  ASSERT_EQ(codecLibQuery(nullptr, kCodecG722, 1, &d, &o, 0), 0);
  EXPECT_STREQ(d.shortName, "G722");
  EXPECT_STREQ(d.mimeName, "audio/G722");
  EXPECT_EQ(d.codecTag, 101);
  const std::vector<int32> decoder = {d.inBytesPerSecond, d.inBytesPerFrame, d.inSampleRate, d.inSamplesPerFrame,
                                      d.inBytesPerFrameMax, d.leftOverSize, d.outBytesPerSecond, d.outSampleRate,
                                      d.outSamplesPerFrame, d.outBytesPerFrameTyp, d.outBytesPerFrameMax,
                                      d.inFrameMs, d.outFrameMs};
  EXPECT_EQ(decoder, (std::vector<int32>{8000, 160, 16000, 320, 160, 160, 32000, 16000, 320, 640, 640, 20, 20}));
  const std::vector<int32> encoder = {e.inBytesPerSecond, e.inBytesPerFrame, e.inSampleRate, e.inSamplesPerFrame,
                                      e.inBytesPerFrameMax, e.leftOverSize, e.outBytesPerSecond, e.outSampleRate,
                                      e.outSamplesPerFrame, e.outBytesPerFrameTyp, e.outBytesPerFrameMax,
                                      e.inFrameMs, e.outFrameMs};
  EXPECT_EQ(encoder, (std::vector<int32>{32000, 640, 16000, 320, 640, 640, 8000, 16000, 320, 160, 160, 20, 20}));
}

TEST(CodecLibFront, OpenSizesTheLeftOverFromTheEngineDefaults) {
  Fixture f(0);
  EXPECT_EQ(f.handle->codecId, kSlot);
  EXPECT_EQ(f.handle->direction, 0);
  EXPECT_EQ(f.handle->leftOverInpBufSize, 2 * 160);
  EXPECT_EQ(f.handle->leftOverInpBufCnt, 0);
  ASSERT_NE(g_engine, nullptr);
  EXPECT_EQ(f.handle->engineState, g_engine);
}

// Encoding: counts in samples, leftover in samples.

TEST(CodecLibFront, EncoderKeepsPartialFrames) {
  Fixture f(0);
  const std::vector<int16> in = ramp(80);
  std::vector<uint8> out(64);
  int32 n = 50, room = 64;
  ASSERT_EQ(f.encode(in.data(), n, out, room), 0);
  EXPECT_EQ(room, 0);
  EXPECT_EQ(n, 50);
  n = 30;
  room = 64;
  ASSERT_EQ(f.encode(in.data() + 50, n, out, room), 0);
  EXPECT_EQ(room, 10);
  EXPECT_EQ(n, 0);
  ASSERT_EQ(g_engine->encFrames.size(), 1u);
  EXPECT_EQ(g_engine->encFrames[0], in);
  EXPECT_EQ(out[0], 1);
}

TEST(CodecLibFront, EncoderFlushPadsWithZeros) {
  Fixture f(0);
  std::vector<uint8> out(64);
  int32 n = 0, room = 64;
  ASSERT_EQ(f.encode(nullptr, n, out, room), 0);  // nothing buffered: nothing to flush
  EXPECT_EQ(room, 0);
  EXPECT_EQ(n, 0);
  const std::vector<int16> in = ramp(30);
  n = 30;
  ASSERT_EQ(f.encode(in.data(), n, out, room), 0);
  n = 0;
  room = 64;
  ASSERT_EQ(f.encode(nullptr, n, out, room), 0);
  EXPECT_EQ(room, 10);
  EXPECT_EQ(n, 0);
  ASSERT_EQ(g_engine->encFrames.size(), 1u);
  std::vector<int16> expected = in;
  expected.resize(80, 0);
  EXPECT_EQ(g_engine->encFrames[0], expected);
}

TEST(CodecLibFront, EncoderTakesWholeFramesAndCarriesTheRest) {
  Fixture f(0);
  const std::vector<int16> in = ramp(320);
  std::vector<uint8> out(100);
  int32 n = 250, room = 100;
  ASSERT_EQ(f.encode(in.data(), n, out, room), 0);
  EXPECT_EQ(room, 30);
  EXPECT_EQ(n, 10);
  n = 70;
  room = 100;
  ASSERT_EQ(f.encode(in.data() + 250, n, out, room), 0);
  EXPECT_EQ(room, 10);
  EXPECT_EQ(n, 0);
  ASSERT_EQ(g_engine->encFrames.size(), 4u);
  for (size_t k = 0; k < 4; k++)
    EXPECT_EQ(g_engine->encFrames[k], std::vector<int16>(in.begin() + 80 * k, in.begin() + 80 * (k + 1))) << k;
}

TEST(CodecLibFront, EncoderOutputFullKeepsOneFrameAndFlushDropsThePadding) {
  Fixture f(0);
  const std::vector<int16> in = ramp(240);
  std::vector<uint8> out(20);
  int32 n = 240, room = 20;
  ASSERT_EQ(f.encode(in.data(), n, out, room), 0);
  EXPECT_EQ(room, 20);
  EXPECT_EQ(n, 80);
  // The flush pads a whole frame of zeros behind the kept frame, encodes
  // the kept frame and drops the padding.
  n = 0;
  room = 20;
  ASSERT_EQ(f.encode(nullptr, n, out, room), 0);
  EXPECT_EQ(room, 10);
  EXPECT_EQ(n, 0);
  ASSERT_EQ(g_engine->encFrames.size(), 3u);
  EXPECT_EQ(g_engine->encFrames[2], std::vector<int16>(in.begin() + 160, in.end()));
}

TEST(CodecLibFront, EncoderLeftOverOverflowDropsTheRest) {
  Fixture f(0);
  const std::vector<int16> in = ramp(250);
  std::vector<uint8> out(20);
  int32 n = 250, room = 20;
  EXPECT_EQ(f.encode(in.data(), n, out, room), kErrEncodeBuffer);
  EXPECT_EQ(room, 20);
  EXPECT_EQ(n, 0);
  n = 0;
  ASSERT_EQ(f.encode(nullptr, n, out, room), 0);
  EXPECT_EQ(room, 0);
  EXPECT_EQ(g_engine->encFrames.size(), 2u);
}

TEST(CodecLibFront, EncoderOutputBelowOneFrameConsumesNothing) {
  Fixture f(0);
  const std::vector<int16> in = ramp(90);
  std::vector<uint8> out(16);
  int32 n = 30, room = 16;
  ASSERT_EQ(f.encode(in.data(), n, out, room), 0);
  n = 60;
  room = 9;
  EXPECT_EQ(f.encode(in.data() + 30, n, out, room), kErrEncodeBuffer);
  EXPECT_EQ(n, 30);
  EXPECT_EQ(room, 9);
  EXPECT_TRUE(g_engine->encFrames.empty());
  n = 60;
  room = 10;
  ASSERT_EQ(f.encode(in.data() + 30, n, out, room), 0);
  EXPECT_EQ(n, 10);
  ASSERT_EQ(g_engine->encFrames.size(), 1u);
  EXPECT_EQ(g_engine->encFrames[0], std::vector<int16>(in.begin(), in.begin() + 80));
}

TEST(CodecLibFront, EncoderNullAndNegativeArguments) {
  Fixture f(0);
  const std::vector<int16> in = ramp(30);
  std::vector<uint8> out(16);
  int32 n = 30, room = 16;
  ASSERT_EQ(f.encode(in.data(), n, out, room), 0);
  n = 10;
  EXPECT_EQ(codecLibEncode(&f.handle, in.data(), &n, nullptr, &room, &f.options, 0), kErrParam);
  EXPECT_EQ(room, 0);
  EXPECT_EQ(n, 30);
  room = 16;
  EXPECT_EQ(codecLibEncode(&f.handle, in.data(), nullptr, out.data(), &room, &f.options, 0), kErrParam);
  EXPECT_EQ(room, 0);
  n = -1;
  room = 16;
  EXPECT_EQ(f.encode(in.data(), n, out, room), kErrParam);
  EXPECT_EQ(n, 30);
  EXPECT_EQ(room, 16);
  EXPECT_EQ(f.handle->leftOverInpBufCnt, 30);  // kept
}

TEST(CodecLibFront, EncoderEngineErrorIsReturnedAfterTheLoop) {
  Fixture f(0);
  g_fake.failFrame = 1;
  g_fake.failResult = 7;
  const std::vector<int16> in = ramp(250);
  std::vector<uint8> out(64);
  int32 n = 250, room = 64;
  EXPECT_EQ(f.encode(in.data(), n, out, room), 7);
  EXPECT_EQ(g_engine->encFrames.size(), 3u);
  EXPECT_EQ(n, 10);
  EXPECT_EQ(room, 64);  // not updated on an engine error
}

// Decoding: input in bytes, output in samples.

TEST(CodecLibFront, DecoderKeepsPartialFrames) {
  Fixture f(1);
  std::vector<uint8> in(20);
  std::iota(in.begin(), in.end(), uint8{1});
  std::vector<int16> out(200);
  int32 n = 15, room = 200;
  ASSERT_EQ(f.decode(in.data(), n, out, room), 0);
  EXPECT_EQ(room, 80);
  EXPECT_EQ(n, 5);
  EXPECT_EQ(out[0], 100);
  EXPECT_EQ(out[79], 179);
  n = 5;
  room = 200;
  ASSERT_EQ(f.decode(in.data() + 15, n, out, room), 0);
  EXPECT_EQ(room, 80);
  EXPECT_EQ(n, 0);
  ASSERT_EQ(g_engine->decFrames.size(), 2u);
  EXPECT_EQ(g_engine->decFrames[1], std::vector<uint8>(in.begin() + 10, in.end()));
  EXPECT_EQ(out[0], 1100);
}

TEST(CodecLibFront, DecoderOutputBelowOneFrameDropsTheLeftOver) {
  Fixture f(1);
  std::vector<uint8> in(20, 3);
  std::vector<int16> out(200);
  int32 n = 5, room = 200;
  ASSERT_EQ(f.decode(in.data(), n, out, room), 0);
  n = 10;
  room = 79;
  EXPECT_EQ(f.decode(in.data(), n, out, room), kErrDecodeBuffer);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(room, 0);
  n = 5;
  room = 80;
  ASSERT_EQ(f.decode(in.data(), n, out, room), 0);
  EXPECT_EQ(room, 0);
  EXPECT_EQ(n, 5);
  EXPECT_TRUE(g_engine->decFrames.empty());
}

TEST(CodecLibFront, DecoderOutputFullKeepsWhatFitsTheLeftOver) {
  Fixture f(1);
  std::vector<uint8> in(40);
  std::iota(in.begin(), in.end(), uint8{0});
  std::vector<int16> out(200);
  int32 n = 30, room = 160;
  EXPECT_EQ(f.decode(in.data(), n, out, room), kErrDecodeOutputFull);
  EXPECT_EQ(room, 160);
  EXPECT_EQ(n, 10);
  n = 0;
  room = 80;
  ASSERT_EQ(f.decode(in.data(), n, out, room), 0);
  EXPECT_EQ(room, 80);
  EXPECT_EQ(out[0], 100 * 20);
  // More than the leftover can hold: everything is dropped.
  n = 40;
  room = 160;
  EXPECT_EQ(f.decode(in.data(), n, out, room), kErrDecodeBuffer);
  EXPECT_EQ(room, 0);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(f.handle->leftOverInpBufCnt, 0);
}

TEST(CodecLibFront, DecoderErasurePathAndBadFrameReset) {
  Fixture f(1);
  std::vector<uint8> in(30, 2);
  std::vector<int16> out(300);
  f.options.badFrame = 1;
  int32 n = 25, room = 300;
  ASSERT_EQ(f.decode(in.data(), n, out, room), 0);
  EXPECT_EQ(room, 80);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(out[0], -1);
  EXPECT_EQ(f.options.badFrame, 0);
  EXPECT_EQ(f.handle->leftOverInpBufCnt, 0);
  // A negative flag is a normal frame; it is cleared all the same.
  f.options.badFrame = -1;
  n = 20;
  room = 300;
  ASSERT_EQ(f.decode(in.data(), n, out, room), 0);
  EXPECT_EQ(room, 160);
  EXPECT_EQ(out[0], 200);
  EXPECT_EQ(f.options.badFrame, 0);
  f.options.badFrame = 1;
  n = -1;
  EXPECT_EQ(f.decode(in.data(), n, out, room), kErrParam);
  EXPECT_EQ(f.options.badFrame, 0);
}

TEST(CodecLibFront, DecoderEngineTakingMoreThanBufferedFails) {
  Fixture f(1);
  g_fake.usedExtra = 1;
  std::vector<uint8> in(10, 1);
  std::vector<int16> out(200);
  int32 n = 10, room = 200;
  EXPECT_EQ(f.decode(in.data(), n, out, room), kErrOutOfMemory);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(room, 0);
  EXPECT_EQ(f.handle->leftOverInpBufCnt, 0);
}

TEST(CodecLibFront, DecoderNullNegativeAndEngineErrors) {
  Fixture f(1);
  std::vector<uint8> in(30, 4);
  std::vector<int16> out(200);
  int32 n = 5, room = 200;
  ASSERT_EQ(f.decode(in.data(), n, out, room), 0);
  n = 10;
  EXPECT_EQ(codecLibDecode(&f.handle, in.data(), &n, nullptr, &room, &f.options, 0), kErrParam);
  EXPECT_EQ(room, 0);
  EXPECT_EQ(n, 5);
  room = 200;
  EXPECT_EQ(codecLibDecode(&f.handle, nullptr, &n, out.data(), &room, &f.options, 0), kErrParam);
  EXPECT_EQ(codecLibDecode(&f.handle, in.data(), nullptr, out.data(), &room, &f.options, 0), kErrParam);
  EXPECT_EQ(f.handle->leftOverInpBufCnt, 5);  // kept
  n = -3;
  room = 200;
  EXPECT_EQ(f.decode(in.data(), n, out, room), kErrParam);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(room, 0);
  EXPECT_EQ(f.handle->leftOverInpBufCnt, 0);

  g_fake.failFrame = 0;
  g_fake.failResult = 3;
  n = 20;
  room = 200;
  EXPECT_EQ(f.decode(in.data(), n, out, room), 3);
  EXPECT_EQ(room, 160);
  EXPECT_EQ(n, 0);
}

TEST(CodecLibFront, ResetEmptiesTheLeftOverAndResetsTheEngine) {
  Fixture f(1);
  std::vector<uint8> in(10, 1);
  std::vector<int16> out(200);
  int32 n = 5, room = 200;
  ASSERT_EQ(f.decode(in.data(), n, out, room), 0);
  EXPECT_EQ(codecLibReset(&f.handle), 0);
  EXPECT_EQ(g_engine->resets, 1);
  n = 5;
  room = 200;
  ASSERT_EQ(f.decode(in.data(), n, out, room), 0);
  EXPECT_EQ(room, 0);
  EXPECT_EQ(n, 5);
}

TEST(CodecLibFront, CompandedEntryPointsWrapTheLinearOnes) {
  Fixture f(0);
  std::vector<uint8> alaw(80, 0xD5);  // A-law code for +8
  std::vector<uint8> out(16);
  int32 n = 80, room = 16;
  ASSERT_EQ(codecLibEncodeCompanded(&f.handle, alaw.data(), &n, out.data(), &room, &f.options, 0, 0), 0);
  EXPECT_EQ(room, 10);
  ASSERT_EQ(g_engine->encFrames.size(), 1u);
  EXPECT_EQ(g_engine->encFrames[0], std::vector<int16>(80, 8));
  std::vector<uint8> ulaw(80, 0x80);  // mu-law code for +32124
  n = 80;
  room = 16;
  ASSERT_EQ(codecLibEncodeCompanded(&f.handle, ulaw.data(), &n, out.data(), &room, &f.options, 1, 0), 0);
  EXPECT_EQ(g_engine->encFrames[1], std::vector<int16>(80, 32124));

  Fixture d(1);
  std::vector<uint8> coded(10, 0);  // decodes to 0, 1, 2, ...
  std::vector<uint8> pcmu(80);
  n = 10;
  room = 80;
  ASSERT_EQ(codecLibDecodeCompanded(&d.handle, coded.data(), &n, pcmu.data(), &room, &d.options, 1, 0), 0);
  ASSERT_EQ(room, 80);
  EXPECT_EQ(pcmu[0], 0xFF);
  n = 10;
  ASSERT_EQ(codecLibDecodeCompanded(&d.handle, coded.data(), &n, pcmu.data(), &room, &d.options, 0, 0), 0);
  EXPECT_EQ(pcmu[0], 0xD5);
  EXPECT_EQ(pcmu[79], 0xD5 ^ 0x04);  // 79 >> 3 = 9: segment 0, step 4
}

// Trace lines.

TEST(CodecLibFront, TraceOfInitOpenQueryAndClose) {
  TraceCapture capture;
  CodecMngInit(4);
  EXPECT_EQ(capture.take(), " codecLib Version 37.2.16 \nIn CodecMngInit\n");
  CodecMngInit(3);
  EXPECT_EQ(capture.take(), "");

  FakeSlot slot(kSlot);
  HandleRes* h = nullptr;
  ASSERT_EQ(codecLibOpen(&h, kSlot, 0, 4), 0);
  char pointer[64];
  std::snprintf(pointer, sizeof pointer, "codecLibOpen:pointer=%p\n",
                reinterpret_cast<void*>(codecLibDescriptor(kSlot)->open));
  EXPECT_EQ(capture.take(), "In codecLibOpen\n" + handleLine(h) + pointer);
  CodecLibOptions o{};
  ASSERT_EQ(codecLibQuery(&h, kSlot, 0, nullptr, &o, 4), 0);
  EXPECT_EQ(capture.take(), "In codecLibQuery\n");
  ASSERT_EQ(codecLibClose(&h, 4), 0);
  EXPECT_EQ(capture.take(), "In codecLibClose\n");
  HandleRes* none = nullptr;
  EXPECT_EQ(codecLibOpen(&none, 46, 0, 4), kErrOpen);
  EXPECT_EQ(capture.take(), "In codecLibOpen\n");
}

TEST(CodecLibFront, TraceOfEncoding) {
  Fixture f(0);
  TraceCapture capture;
  const std::vector<int16> in = ramp(330);
  std::vector<uint8> out(20);
  const std::string head = "In codecLibEncode\n" + handleLine(f.handle) +
                           "codecLibEncode:InSamplesPerFrame=80 OutBytesPerFrame=10\n";
  int32 n = 50, room = 20;
  ASSERT_EQ(codecLibEncode(&f.handle, in.data(), &n, out.data(), &room, &f.options, 4), 0);
  EXPECT_EQ(capture.take(), head +
                                "In codecLibEncode:not enough data\n"
                                "In codecLibEncode:leftOverInpBufCnt = 100\n");
  n = 30;
  room = 20;
  ASSERT_EQ(codecLibEncode(&f.handle, in.data(), &n, out.data(), &room, &f.options, 4), 0);
  EXPECT_EQ(capture.take(), head +
                                "In codecLibEncode:enough data\n"
                                "codecLibEncode:HandleRes->leftOverInpBufCnt=80 inputsToProcess=80\n"
                                "In codecLibEncode:2SumOutputSz=10 inputsToProcess = 0\n"
                                "In codecLibEncode:leftOverInpBufCnt = 0\n");
  n = 250;
  room = 20;
  EXPECT_EQ(codecLibEncode(&f.handle, in.data(), &n, out.data(), &room, &f.options, 4), kErrEncodeBuffer);
  EXPECT_EQ(capture.take(), head +
                                "In codecLibEncode:enough data\n"
                                "codecLibEncode:HandleRes->leftOverInpBufCnt=80 inputsToProcess=250\n"
                                "In codecLibEncode:2SumOutputSz=10 inputsToProcess = 170\n"
                                "In codecLibEncode:2SumOutputSz=20 inputsToProcess = 90\n"
                                "Input left over data (180) larger than left over buffer (160)"
                                "In codecLibEncode:leftOverInpBufCnt = 180\n");
  EXPECT_EQ(codecLibEncode(&f.handle, in.data(), &n, nullptr, &room, &f.options, 4), kErrParam);
  EXPECT_EQ(capture.take(), "In codecLibEncode\n" + handleLine(f.handle) + "codecLibEncode: NULL parameters\n");
  n = -1;
  EXPECT_EQ(codecLibEncode(&f.handle, in.data(), &n, out.data(), &room, &f.options, 4), kErrParam);
  EXPECT_EQ(capture.take(), "In codecLibEncode\n" + handleLine(f.handle) + "codecLibEncode: negative inputSize\n");
  n = 10;
  EXPECT_EQ(codecLibEncode(&f.handle, in.data(), &n, out.data(), &room, &f.options, 3), 0);
  EXPECT_EQ(capture.take(), "");
}

TEST(CodecLibFront, TraceOfDecoding) {
  Fixture f(1);
  TraceCapture capture;
  std::vector<uint8> in(40, 1);
  std::vector<int16> out(400);
  int32 n = 15, room = 400;
  ASSERT_EQ(codecLibDecode(&f.handle, in.data(), &n, out.data(), &room, &f.options, 4), 0);
  EXPECT_EQ(capture.take(),
            "In codecLibDecode\n"
            "codecLibDecode:HandleRes->leftOverInpBufCnt=10 inputsToProcess=15\n"
            "codecLibDecode:2SumOutputSz=0 inputsToProcess = 15 inputUsed=10\n"
            "codecLibDecode:leftOverInpBufCnt = 5\n");
  n = 35;
  room = 160;
  EXPECT_EQ(codecLibDecode(&f.handle, in.data(), &n, out.data(), &room, &f.options, 4), kErrDecodeBuffer);
  EXPECT_EQ(capture.take(),
            "In codecLibDecode\n"
            "codecLibDecode:HandleRes->leftOverInpBufCnt=15 inputsToProcess=40\n"
            "codecLibDecode:2SumOutputSz=0 inputsToProcess = 40 inputUsed=10\n"
            "codecLibDecode:2SumOutputSz=80 inputsToProcess = 30 inputUsed=10\n"
            "Input left over data (20) larger than left over buffer (10)");
  EXPECT_EQ(codecLibDecode(&f.handle, in.data(), &n, nullptr, &room, &f.options, 4), kErrParam);
  EXPECT_EQ(capture.take(), "In codecLibDecode\ncodecLibDecode: NULL parameters\n");
  n = -1;
  EXPECT_EQ(codecLibDecode(&f.handle, in.data(), &n, out.data(), &room, &f.options, 4), kErrParam);
  EXPECT_EQ(capture.take(), "In codecLibDecode\ncodecLibDecode: negative inputSize\n");
}

// A trace line that cannot be printed ends the process with status 1.
TEST(CodecLibFrontDeathTest, FailedTracePrintExits) {
  // A stream opened for reading only: every write to it fails.
  const std::filesystem::path path = std::filesystem::temp_directory_path() / "quillon-trace-readonly";
  std::fclose(std::fopen(path.string().c_str(), "w"));
  EXPECT_EXIT(
      {
        FILE* readOnly = std::fopen(path.string().c_str(), "r");
        quillon_set_trace_sink(readOnly);
        CodecMngInit(4);
      },
      ::testing::ExitedWithCode(1), "");
  std::filesystem::remove(path);
}
