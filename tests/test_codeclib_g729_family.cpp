// Descriptors 24, 26 and 27 opened through codecLibOpen as a user would:
// query values, the ITU vectors through the front in both directions, and
// how speech, SID and untransmitted frames travel through the leftover
// buffering.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "codeclib/codeclib.h"
#include "g729_serial.h"
#include "test_support.h"

using namespace quillon::codeclib;
using quillon::test::readSerial;
using quillon::test::SerialFrame;

namespace {

struct Handle {
  Handle(int32 id, int32 dir) {
    result = codecLibOpen(&h, id, dir, 0);
    codecLibQuery(&h, id, dir, nullptr, &options, 0);
  }
  ~Handle() {
    if (h) codecLibClose(&h, 0);
  }
  HandleRes* h = nullptr;
  CodecLibOptions options{};
  int32 result = -1;
};

// Decodes one call's bytes; returns the samples made.
std::vector<int16_t> decodeCall(Handle& d, const uint8_t* data, int32 bytes, int32* result = nullptr) {
  std::vector<int16_t> out(1600);
  int32 n = bytes, room = static_cast<int32>(out.size());
  static const uint8_t kNothing = 0;
  const int32 r = codecLibDecode(&d.h, data ? data : &kNothing, &n, out.data(), &room, &d.options, 0);
  if (result) *result = r;
  out.resize(r == 0 || r == kErrDecodeOutputFull ? room : 0);
  return out;
}

size_t nextChunk(size_t c) { return c * 7 % 97 + 1; }

}  // namespace

TEST(CodecLibG729Family, EveryDescriptorOpensAndAnswersQueries) {
  struct Expect {
    int32 id;
    const char* shortName;
    const char* mime;
  };
  for (const Expect& e : {Expect{kCodecG729, "G729", "audio/G729"}, Expect{kCodecG729AB, "G729AB", "audio/G729AB"},
                          Expect{kCodecG729B, "G729B", "audio/G729B"}}) {
    for (int32 dir : {kDirEncoder, kDirDecoder}) {
      Handle c(e.id, dir);
      ASSERT_EQ(c.result, 0) << e.id;
      EXPECT_EQ(c.options.param, 3);
      EXPECT_EQ(c.options.dtx, -1);
      CodecLibInfo info{};
      ASSERT_EQ(codecLibQuery(&c.h, e.id, dir, &info, &c.options, 0), 0);
      EXPECT_STREQ(info.shortName, e.shortName);
      EXPECT_STREQ(info.mimeName, e.mime);
      EXPECT_EQ(info.codecTag, 307);
      EXPECT_EQ(info.inFrameMs, 10);
      if (dir == kDirEncoder) {
        EXPECT_EQ(info.inBytesPerFrameMax, 160);
        EXPECT_EQ(info.leftOverSize, 160);
        EXPECT_EQ(info.outBytesPerFrameTyp, 10);
        EXPECT_EQ(info.outBytesPerFrameMax, 10);
      } else {
        EXPECT_EQ(info.inBytesPerFrame, 10);
        EXPECT_EQ(info.inBytesPerFrameMax, 10);
        EXPECT_EQ(info.leftOverSize, 10);
        EXPECT_EQ(info.outSamplesPerFrame, 80);
        EXPECT_EQ(info.outBytesPerFrameMax, 160);
      }
    }
  }
}

// Plain G.729 through the front with uneven chunks: whole 10-byte frames
// are decoded and partial ones wait in the leftover.
TEST(CodecLibG729Family, G729DecodesTheItuVectorsInChunks) {
  QUILLON_REQUIRE_VECTORS(dir, "g729-itu");
  for (const char* name : {"ALGTHM", "FIXED", "PARITY", "TAME", "SPEECH"}) {
    const std::vector<uint8_t> stream = quillon::test::readFile(dir / (std::string(name) + ".g729"));
    const std::vector<int16_t> want = quillon::test::readPcm16(dir / (std::string(name) + ".pcm"));
    Handle d(kCodecG729, kDirDecoder);
    ASSERT_EQ(d.result, 0);
    std::vector<int16_t> got;
    size_t chunk = 3;
    for (size_t pos = 0; pos < stream.size(); pos += chunk, chunk = nextChunk(chunk)) {
      chunk = std::min(chunk, stream.size() - pos);
      int32 r = -1;
      const std::vector<int16_t> out = decodeCall(d, stream.data() + pos, static_cast<int32>(chunk), &r);
      ASSERT_EQ(r, 0) << name;
      got.insert(got.end(), out.begin(), out.end());
    }
    EXPECT_EQ(quillon::test::firstMismatch(got, want), -1) << name;
  }
}

TEST(CodecLibG729Family, G729EncodesTheItuInputs) {
  QUILLON_REQUIRE_VECTORS(dir, "g729-itu");
  for (const char* name : {"ALGTHM", "FIXED", "TAME", "PITCH"}) {
    const std::vector<int16_t> pcm = quillon::test::readPcm16(dir / "orig" / (std::string(name) + ".IN"));
    const std::vector<uint8_t> want = quillon::test::readFile(dir / (std::string(name) + ".g729"));
    Handle e(kCodecG729, kDirEncoder);
    ASSERT_EQ(e.result, 0);
    std::vector<uint8_t> got, out(4096);
    const size_t usable = pcm.size() / 80 * 80;
    for (size_t pos = 0; pos < usable; pos += 333) {
      int32 n = static_cast<int32>(std::min<size_t>(333, usable - pos)), room = static_cast<int32>(out.size());
      ASSERT_EQ(codecLibEncode(&e.h, pcm.data() + pos, &n, out.data(), &room, &e.options, 0), 0);
      got.insert(got.end(), out.begin(), out.begin() + room);
    }
    EXPECT_EQ(got, want) << name;
  }
}

// Annex B decoding, one frame per call: a speech frame is 10 bytes, a SID
// frame 2, an untransmitted frame a call with no bytes; a lost frame goes
// through the options' bad-frame flag.
void decodeAnnexBThroughFront(int32 codecId, const std::filesystem::path& bit, const std::filesystem::path& ref) {
  const std::vector<SerialFrame> frames = readSerial(bit);
  ASSERT_FALSE(frames.empty()) << bit;
  Handle d(codecId, kDirDecoder);
  ASSERT_EQ(d.result, 0);
  std::vector<int16_t> got;
  for (const SerialFrame& f : frames) {
    int32 bytes = f.bits == 80 ? 10 : f.bits == 16 ? 2 : 0;
    const bool lost = f.zeroWord || (f.bits == 0 && f.sync != 0x6B21);
    if (lost) d.options.badFrame = 1;
    int32 r = -1;
    const std::vector<int16_t> out = decodeCall(d, f.packed, bytes, &r);
    ASSERT_EQ(r, 0);
    ASSERT_EQ(out.size(), 80u);
    EXPECT_EQ(d.h->leftOverInpBufCnt, 0);
    got.insert(got.end(), out.begin(), out.end());
  }
  const long at = quillon::test::firstMismatch(got, quillon::test::readPcm16(ref));
  EXPECT_EQ(at, -1) << bit.filename() << " frame " << at / 80;
}

TEST(CodecLibG729Family, AnnexBDecodesTheItuStreamsFramePerCall) {
  QUILLON_REQUIRE_VECTORS(dir, "g729b/orig");
  for (int n = 1; n <= 6; n++) {
    const std::string s = "tstseq" + std::to_string(n);
    decodeAnnexBThroughFront(kCodecG729B, dir / (s + ".bit"), dir / (s + ".out"));
  }
  for (int n = 1; n <= 6; n++) {
    const std::string s = "tstseq" + std::to_string(n);
    decodeAnnexBThroughFront(kCodecG729AB, dir / (s + (n <= 4 ? "a" : "") + ".bit"), dir / (s + "a.out"));
  }
}

// Annex B encoding through the front: each call of one frame reports that
// frame's size (10, 2 or 0) and the bytes equal the reference frames.
TEST(CodecLibG729Family, AnnexBEncodesTheItuInputs) {
  QUILLON_REQUIRE_VECTORS(dir, "g729b/orig");
  for (int32 id : {kCodecG729B, kCodecG729AB}) {
    for (int n = 1; n <= 4; n++) {
      const std::string s = "tstseq" + std::to_string(n) + (id == kCodecG729AB ? "a" : "");
      const std::vector<int16_t> pcm = quillon::test::readPcm16(dir / ("tstseq" + std::to_string(n) + ".bin"));
      const std::vector<SerialFrame> want = readSerial(dir / (s + ".bit"));
      ASSERT_EQ(pcm.size() / 80, want.size()) << s;
      Handle e(id, kDirEncoder);
      ASSERT_EQ(e.result, 0);
      size_t mismatches = 0, sids = 0, empty = 0;
      for (size_t f = 0; f < want.size(); f++) {
        uint8_t out[10];
        int32 samples = 80, room = 10;
        ASSERT_EQ(codecLibEncode(&e.h, &pcm[f * 80], &samples, out, &room, &e.options, 0), 0);
        EXPECT_EQ(samples, 0);
        const int32 wantBytes = want[f].bits == 80 ? 10 : want[f].bits == 16 ? 2 : 0;
        if (room != wantBytes || std::memcmp(out, want[f].packed, static_cast<size_t>(room)) != 0) mismatches++;
        sids += room == 2;
        empty += room == 0;
      }
      EXPECT_EQ(mismatches, 0u) << s;
      EXPECT_GT(sids, 0u) << s;
      EXPECT_GT(empty, 0u) << s;
    }
  }
}

// The leftover and the frame-size report with variable frames.
TEST(CodecLibG729Family, AnnexBFrameSizesThroughTheLeftover) {
  Handle d(kCodecG729B, kDirDecoder);
  ASSERT_EQ(d.result, 0);
  uint8_t packet[12] = {};
  packet[0] = 0x12;  // any speech frame, then a SID frame
  packet[10] = 0x84;
  // No bytes and nothing buffered: one untransmitted frame.
  EXPECT_EQ(decodeCall(d, nullptr, 0).size(), 80u);
  // A speech frame followed by a SID frame in one call: two frames.
  EXPECT_EQ(decodeCall(d, packet, 12).size(), 160u);
  EXPECT_EQ(d.h->leftOverInpBufCnt, 0);
  // A partial speech frame waits; the rest completes it.
  EXPECT_EQ(decodeCall(d, packet, 5).size(), 0u);
  EXPECT_EQ(d.h->leftOverInpBufCnt, 5);
  EXPECT_EQ(decodeCall(d, nullptr, 0).size(), 0u);  // a partial frame is not an empty one
  EXPECT_EQ(decodeCall(d, packet + 5, 5).size(), 80u);
  EXPECT_EQ(d.h->leftOverInpBufCnt, 0);
  // Two speech frames and a SID frame.
  std::vector<uint8_t> three(22, 0x55);
  EXPECT_EQ(decodeCall(d, three.data(), 22).size(), 240u);

  // Without Annex B an empty call makes nothing and 2 bytes wait.
  Handle g(kCodecG729, kDirDecoder);
  ASSERT_EQ(g.result, 0);
  EXPECT_EQ(decodeCall(g, nullptr, 0).size(), 0u);
  EXPECT_EQ(decodeCall(g, packet, 2).size(), 0u);
  EXPECT_EQ(g.h->leftOverInpBufCnt, 2);

  // The encoder side: a silent input gives SID frames, then nothing.
  Handle e(kCodecG729B, kDirEncoder);
  ASSERT_EQ(e.result, 0);
  std::vector<int16_t> silence(80 * 40, 0);
  std::vector<uint8_t> out(400);
  int32 n = static_cast<int32>(silence.size()), room = static_cast<int32>(out.size());
  ASSERT_EQ(codecLibEncode(&e.h, silence.data(), &n, out.data(), &room, &e.options, 0), 0);
  EXPECT_LT(room, 40 * 10);
  EXPECT_EQ(n, 0);
}
