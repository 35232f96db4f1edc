// The rest of the G.729 family: the full-complexity main-body engines and
// Annex B, conformance on the ITU vectors through the engines.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "engines/g729/decoder.h"
#include "engines/g729/encoder.h"
#include "g729_serial.h"
#include "test_support.h"

namespace {

using quillon::g729a::Decoder;
using quillon::test::readSerial;
using quillon::test::SerialFrame;
namespace fs = std::filesystem;

std::vector<int16_t> decodeMain(const std::vector<uint8_t>& stream) {
  auto dec = std::make_unique<Decoder>(Decoder::Variant::Main);
  const size_t frames = stream.size() / Decoder::kFrameBytes;
  std::vector<int16_t> out(frames * Decoder::kFrameSamples);
  for (size_t f = 0; f < frames; f++)
    dec->decode(&stream[f * Decoder::kFrameBytes], &out[f * Decoder::kFrameSamples]);
  return out;
}

TEST(G729MainDecoder, ItuVectors) {
  QUILLON_REQUIRE_VECTORS(dir, "g729-itu");
  size_t checked = 0;
  for (const auto& entry : fs::directory_iterator(dir)) {
    if (entry.path().extension() != ".g729") continue;
    fs::path ref = entry.path();
    ref.replace_extension(".pcm");
    const std::vector<int16_t> got = decodeMain(quillon::test::readFile(entry.path()));
    EXPECT_EQ(quillon::test::firstMismatch(got, quillon::test::readPcm16(ref)), -1) << entry.path().filename();
    checked++;
  }
  EXPECT_EQ(checked, 7u);
}

// ERASURE and OVERFLOW exist only as serial files: a frame with a zero bit
// word is lost and goes through the concealment entry.
TEST(G729MainDecoder, ItuSerialStreamsWithErasures) {
  QUILLON_REQUIRE_VECTORS(dir, "g729-itu/orig");
  for (const char* name : {"ERASURE", "OVERFLOW", "PARITY"}) {
    const std::vector<SerialFrame> frames = readSerial(dir / (std::string(name) + ".BIT"));
    const std::vector<int16_t> want = quillon::test::readPcm16(dir / (std::string(name) + ".PST"));
    ASSERT_FALSE(frames.empty()) << name;
    auto dec = std::make_unique<Decoder>(Decoder::Variant::Main);
    std::vector<int16_t> got(frames.size() * Decoder::kFrameSamples);
    for (size_t f = 0; f < frames.size(); f++) {
      if (frames[f].zeroWord) {
        dec->decodeErased(&got[f * Decoder::kFrameSamples]);
      } else {
        dec->decode(frames[f].packed, &got[f * Decoder::kFrameSamples]);
      }
    }
    EXPECT_EQ(quillon::test::firstMismatch(got, want), -1) << name;
  }
}

}  // namespace

namespace {

using quillon::g729a::Encoder;

std::vector<uint8_t> encodeMain(const std::vector<int16_t>& pcm) {
  auto enc = std::make_unique<Encoder>(Encoder::Variant::Main);
  const size_t frames = pcm.size() / Encoder::kFrameSamples;
  std::vector<uint8_t> out(frames * Encoder::kFrameBytes);
  for (size_t f = 0; f < frames; f++) enc->encode(&pcm[f * Encoder::kFrameSamples], &out[f * Encoder::kFrameBytes]);
  return out;
}

long firstByteMismatch(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  const size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; i++)
    if (a[i] != b[i]) return static_cast<long>(i);
  return a.size() == b.size() ? -1 : static_cast<long>(n);
}

TEST(G729MainEncoder, ItuVectors) {
  QUILLON_REQUIRE_VECTORS(dir, "g729-itu");
  size_t checked = 0;
  for (const char* name : {"ALGTHM", "FIXED", "LSP", "PITCH", "SPEECH", "TAME"}) {
    const std::vector<int16_t> pcm = quillon::test::readPcm16(dir / "orig" / (std::string(name) + ".IN"));
    const std::vector<uint8_t> want = quillon::test::readFile(dir / (std::string(name) + ".g729"));
    const std::vector<uint8_t> got = encodeMain(pcm);
    const long at = firstByteMismatch(got, want);
    EXPECT_EQ(at, -1) << name << " frame " << at / 10;
    checked++;
  }
  EXPECT_EQ(checked, 6u);
}

}  // namespace

namespace {

// Runs an Annex B serial stream through a decoder: speech, SID and
// untransmitted frames, with the reference's erasure marks (a zero bit
// word, or a bad sync word on an empty frame).
std::vector<int16_t> decodeAnnexBSerial(Decoder& dec, const std::vector<SerialFrame>& frames) {
  std::vector<int16_t> out(frames.size() * Decoder::kFrameSamples);
  for (size_t f = 0; f < frames.size(); f++) {
    const SerialFrame& fr = frames[f];
    int16_t* o = &out[f * Decoder::kFrameSamples];
    if (fr.bits == 80 && !fr.zeroWord) {
      dec.decode(fr.packed, o);
    } else if (fr.bits == 16 && !fr.zeroWord) {
      dec.decodeSid(fr.packed, o);
    } else if (fr.bits == 0 && fr.sync == 0x6B21) {
      dec.decodeUntransmitted(o);
    } else {
      dec.decodeErased(o, fr.bits != 0);
    }
  }
  return out;
}

TEST(G729AnnexBDecoder, ItuVectorsMainBody) {
  QUILLON_REQUIRE_VECTORS(dir, "g729b/orig");
  for (int n = 1; n <= 6; n++) {
    const std::string name = "tstseq" + std::to_string(n);
    const std::vector<SerialFrame> frames = readSerial(dir / (name + ".bit"));
    ASSERT_FALSE(frames.empty()) << name;
    auto dec = std::make_unique<Decoder>(Decoder::Variant::Main, true);
    const std::vector<int16_t> got = decodeAnnexBSerial(*dec, frames);
    const long at = quillon::test::firstMismatch(got, quillon::test::readPcm16(dir / (name + ".out")));
    EXPECT_EQ(at, -1) << name << " frame " << at / 80;
  }
}

TEST(G729AnnexBDecoder, ItuVectorsAnnexA) {
  QUILLON_REQUIRE_VECTORS(dir, "g729b/orig");
  for (int n = 1; n <= 6; n++) {
    const std::string in = "tstseq" + std::to_string(n) + (n <= 4 ? "a" : "");
    const std::string ref = "tstseq" + std::to_string(n) + "a";
    const std::vector<SerialFrame> frames = readSerial(dir / (in + ".bit"));
    ASSERT_FALSE(frames.empty()) << in;
    auto dec = std::make_unique<Decoder>(Decoder::Variant::AnnexA, true);
    const std::vector<int16_t> got = decodeAnnexBSerial(*dec, frames);
    const long at = quillon::test::firstMismatch(got, quillon::test::readPcm16(dir / (ref + ".out")));
    EXPECT_EQ(at, -1) << in << " frame " << at / 80;
  }
}

}  // namespace

namespace {

// Encodes an 8 kHz input with an Annex B encoder and compares every frame
// (its kind and its bits) with the reference serial stream; returns the
// first differing frame or -1.
long firstAnnexBFrameMismatch(Encoder& enc, const std::vector<int16_t>& pcm, const std::vector<SerialFrame>& want) {
  const size_t frames = pcm.size() / Encoder::kFrameSamples;
  if (frames != want.size()) return static_cast<long>(std::min(frames, want.size()));
  for (size_t f = 0; f < frames; f++) {
    uint8_t out[Encoder::kFrameBytes] = {};
    const int bytes = enc.encode(&pcm[f * Encoder::kFrameSamples], out);
    const int wantBytes = want[f].bits == 80 ? 10 : want[f].bits == 16 ? 2 : 0;
    if (bytes != wantBytes || !std::equal(out, out + bytes, want[f].packed)) return static_cast<long>(f);
  }
  return -1;
}

TEST(G729AnnexBEncoder, ItuVectors) {
  QUILLON_REQUIRE_VECTORS(dir, "g729b/orig");
  for (int n = 1; n <= 4; n++) {
    const std::string name = "tstseq" + std::to_string(n);
    const std::vector<int16_t> pcm = quillon::test::readPcm16(dir / (name + ".bin"));
    auto mainB = std::make_unique<Encoder>(Encoder::Variant::Main, true);
    EXPECT_EQ(firstAnnexBFrameMismatch(*mainB, pcm, readSerial(dir / (name + ".bit"))), -1) << name;
    auto annexAB = std::make_unique<Encoder>(Encoder::Variant::AnnexA, true);
    EXPECT_EQ(firstAnnexBFrameMismatch(*annexAB, pcm, readSerial(dir / (name + "a.bit"))), -1) << name << "a";
  }
}

}  // namespace
