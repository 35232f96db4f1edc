// The quillon tool end to end, and its stream pipeline.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <random>

#include "primitives/g711.h"
#include "pipeline.h"
#include "test_support.h"
#include "tool_fixture.h"

namespace fs = std::filesystem;
using namespace TAV;
using quillon::test::readFile;

namespace {

class ToolTest : public quillon::test::ToolFixture {
 protected:
  void writeWav(const fs::path& p, const std::vector<int16_t>& pcm, uint32_t rate, uint16_t channels = 1,
                uint16_t bits = 16) {
    WaveHeader h{};
    AudioFormat(CT_PCM16, channels).fillWaveHeader(h, static_cast<uint32_t>(pcm.size() * 2));
    h.samplesPerSec = rate;
    h.bitsPerSample = bits;
    std::vector<uint8_t> bytes(sizeof h);
    std::memcpy(bytes.data(), &h, sizeof h);
    const uint8_t* s = reinterpret_cast<const uint8_t*>(pcm.data());
    bytes.insert(bytes.end(), s, s + pcm.size() * 2);
    writeBytes(p, bytes);
  }
};

std::vector<int16_t> wavSamples(const std::vector<uint8_t>& file) {
  EXPECT_GE(file.size(), 44u);
  std::vector<int16_t> s((file.size() - 44) / 2);
  std::memcpy(s.data(), file.data() + 44, s.size() * 2);
  return s;
}

}  // namespace

TEST_F(ToolTest, DecodesG711VectorsThroughBothPaths) {
  QUILLON_REQUIRE_VECTORS(vectors, "g711");
  for (const char* name : {"hts12-a.alaw", "hts12-loud-u.ulaw"}) {
    const fs::path in = vectors / name;
    const std::vector<int16_t> expected = quillon::test::readPcm16(fs::path(in).replace_extension(".pcm"));
    const std::string codec = fs::path(name).extension() == ".alaw" ? "alaw" : "ulaw";
    ASSERT_EQ(run("decode --codec " + codec + " " + in.string() + " " + (dir / "t.wav").string()), 0);
    ASSERT_EQ(run("decode --api --codec " + codec + " " + in.string() + " " + (dir / "a.wav").string()), 0);
    ASSERT_EQ(run("decode --raw --codec " + std::to_string(codec == "alaw" ? 1 : 2) + " " + in.string() + " " +
                  (dir / "r.pcm").string()),
              0);
    const std::vector<uint8_t> wav = readFile(dir / "t.wav");
    WaveHeader h;
    std::memcpy(&h, wav.data(), sizeof h);
    EXPECT_EQ(+h.dataLength, expected.size() * 2);
    EXPECT_EQ(+h.riffSize, h.dataLength + 36);
    EXPECT_EQ(+h.samplesPerSec, 8000u);
    EXPECT_EQ(quillon::test::firstMismatch(wavSamples(wav), expected), -1) << name;
    EXPECT_EQ(quillon::test::firstMismatch(wavSamples(readFile(dir / "a.wav")), expected), -1) << name;
    EXPECT_EQ(quillon::test::firstMismatch(quillon::test::readPcm16(dir / "r.pcm"), expected), -1) << name;
  }
}

TEST_F(ToolTest, EncodesWaveInputAndHalves16kHz) {
  std::vector<int16_t> pcm(1000);
  for (size_t i = 0; i < pcm.size(); i++) pcm[i] = static_cast<int16_t>((i * 2654435761u) >> 16);
  writeWav(dir / "in8.wav", pcm, 8000);
  ASSERT_EQ(run("encode --codec ulaw " + (dir / "in8.wav").string() + " " + (dir / "out.wav").string()), 0);
  const std::vector<uint8_t> out = readFile(dir / "out.wav");
  ASSERT_EQ(out.size(), 44 + pcm.size());
  EXPECT_EQ(out[20], 7);  // mu-law format tag
  for (size_t i = 0; i < pcm.size(); i++) ASSERT_EQ(out[44 + i], quillon::g711::ulawCompress(pcm[i])) << i;

  writeWav(dir / "in16.wav", pcm, 16000);
  ASSERT_EQ(run("encode --codec alaw " + (dir / "in16.wav").string() + " " + (dir / "half.wav").string()), 0);
  const std::vector<uint8_t> half = readFile(dir / "half.wav");
  ASSERT_EQ(half.size(), 44 + pcm.size() / 2);
  EXPECT_EQ(half[44 + 3], quillon::g711::alawCompress(static_cast<int16_t>((pcm[6] + pcm[7]) / 2)));
}

// AMR-WB encoding goes straight to the engine: the 3GPP input gives the
// reference frames byte for byte (length-prefixed), the stream decodes with
// the tool, and any chunking of the pipeline input gives the same stream.
TEST_F(ToolTest, EncodesAmrWbWithModeAndDtx) {
  QUILLON_REQUIRE_VECTORS(ref, "amrwb-3gpp");
  const std::vector<int16_t> pcm = quillon::test::readPcm16(ref / "orig" / "dtx.inp");
  writeWav(dir / "dtx.wav", pcm, 16000);
  const std::string in = (dir / "dtx.wav").string(), out = (dir / "dtx.amrwb").string();
  ASSERT_EQ(run("encode --codec amrwb --mode 2 --dtx " + in + " " + out), 0);
  EXPECT_EQ(readFile(out), readFile(ref / "tst_md.amrwb"));
  ASSERT_EQ(run("decode --codec amrwb " + out + " " + (dir / "back.wav").string()), 0);
  EXPECT_EQ(readFile(dir / "back.wav").size(), 44 + pcm.size() * 2);

  std::string err;
  EXPECT_EQ(run("encode --codec amrwb --mode 9 " + in + " " + out, &err), 2);
  EXPECT_EQ(run("encode --codec ulaw --dtx " + in + " " + out, &err), 2);
  writeWav(dir / "eight.wav", pcm, 8000);
  EXPECT_EQ(run("encode --codec amrwb " + (dir / "eight.wav").string() + " " + out, &err), 1);

  // A partial last frame is padded; chunking does not matter.
  std::vector<uint8_t> whole, chunked;
  quillon::tool::EncodeOptions options;
  options.amrwbMode = 7;
  quillon::tool::EncodePipeline a, b;
  std::string error;
  ASSERT_TRUE(a.open(CT_AMRWB, 16000, error, options));
  ASSERT_TRUE(b.open(CT_AMRWB, 16000, error, options));
  const size_t len = 16000 + 123;
  a.feed(pcm.data(), len, whole);
  a.flush(whole);
  for (size_t pos = 0, c = 1; pos < len; pos += c, c = c * 7 % 997 + 1) b.feed(pcm.data() + pos, std::min(c, len - pos), chunked);
  b.flush(chunked);
  EXPECT_EQ(whole.size(), 51u * (2 + 59));  // 51 frames of mode 7, the last one padded
  EXPECT_EQ(whole, chunked);
}

TEST_F(ToolTest, ReportsBadArgumentsAndInputs) {
  std::string err;
  EXPECT_EQ(run("", &err), 2);
  EXPECT_EQ(run("frobnicate", &err), 2);
  EXPECT_EQ(run("decode --codec nonsense a b", &err), 2);
  EXPECT_NE(err.find("unknown codec"), std::string::npos);
  EXPECT_EQ(run("decode --codec alaw onlyone", &err), 2);
  EXPECT_EQ(run("decode --codec alaw " + (dir / "missing").string() + " " + (dir / "o.wav").string(), &err), 1);
  EXPECT_NE(err.find("cannot open"), std::string::npos);
  EXPECT_FALSE(fs::exists(dir / "o.wav"));
  writeBytes(dir / "empty", {});
  EXPECT_EQ(run("decode --codec alaw " + (dir / "empty").string() + " " + (dir / "o.wav").string(), &err), 1);
  writeBytes(dir / "short.g729", {1, 2, 3});
  EXPECT_NE(run("decode --codec 150 " + (dir / "short.g729").string() + " " + (dir / "o.wav").string(), &err), 0);
  EXPECT_EQ(run("decode --api --codec pcm16-16k " + (dir / "short.g729").string() + " " + (dir / "o.wav").string(), &err), 1);
  EXPECT_NE(err.find("C decoder API"), std::string::npos);

  writeBytes(dir / "notwav.wav", {'R', 'I', 'F', 'X', 0, 0});
  EXPECT_EQ(run("encode --codec alaw " + (dir / "notwav.wav").string() + " " + (dir / "o.bin").string(), &err), 1);
  EXPECT_NE(err.find("not a RIFF/WAVE"), std::string::npos);
  writeWav(dir / "stereo.wav", std::vector<int16_t>(16), 8000, 2);
  EXPECT_EQ(run("encode --codec alaw " + (dir / "stereo.wav").string() + " " + (dir / "o.bin").string(), &err), 1);
  EXPECT_NE(err.find("mono"), std::string::npos);
  writeWav(dir / "eight.wav", std::vector<int16_t>(16), 8000, 1, 8);
  EXPECT_EQ(run("encode --codec alaw " + (dir / "eight.wav").string() + " " + (dir / "o.bin").string(), &err), 1);
  writeWav(dir / "odd.wav", std::vector<int16_t>(16), 11025);
  EXPECT_EQ(run("encode --codec alaw " + (dir / "odd.wav").string() + " " + (dir / "o.bin").string(), &err), 1);
}

TEST_F(ToolTest, DecodesAnHourInBoundedMemory) {
#ifdef QUILLON_SANITIZED
  GTEST_SKIP() << "sanitizer runtimes inflate the resident set; measured in the plain build";
#endif
  const fs::path in = dir / "hour.alaw";
  {
    std::ofstream f(in, std::ios::binary);
    std::vector<char> block(8000 * 60);
    for (size_t i = 0; i < block.size(); i++) block[i] = static_cast<char>(i * 31);
    for (int minute = 0; minute < 60; minute++) f.write(block.data(), static_cast<std::streamsize>(block.size()));
  }
  long peak = 0;
  ASSERT_EQ(runMeasured({"decode", "--codec", "alaw", in.string(), (dir / "hour.wav").string()}, peak), 0);
  EXPECT_EQ(fs::file_size(dir / "hour.wav"), 44u + 2u * 8000u * 3600u);
  EXPECT_LT(peak, 20 * 1024) << "peak resident set in KiB";
}

TEST(DecodePipeline, AnyChunkingGivesTheSameOutput) {
  std::vector<uint8_t> stream(4003);
  std::mt19937 rng(7);
  for (uint8_t& b : stream) b = static_cast<uint8_t>(rng());
  for (CompressionType code : {CT_G711_ALAW, CT_PCM8, CT_PCM16}) {
    std::vector<int16_t> whole, chunked;
    std::string error;
    quillon::tool::DecodeOptions options;
    options.code = code;
    quillon::tool::DecodePipeline one, many;
    ASSERT_TRUE(one.open(options, error)) << error;
    ASSERT_TRUE(many.open(options, error)) << error;
    ASSERT_TRUE(one.feed(stream.data(), stream.size(), whole, error));
    for (size_t i = 0; i < stream.size();) {
      const size_t n = std::min<size_t>(1 + rng() % 37, stream.size() - i);
      ASSERT_TRUE(many.feed(stream.data() + i, n, chunked, error));
      i += n;
    }
    EXPECT_EQ(whole, chunked) << code;
    EXPECT_EQ(one.leftoverBytes(), stream.size() % AudioFormat(code, 1).getBytesPerFrame());
  }
}

TEST(DecodePipeline, PacketVectorsDecodeExactlyInAnyChunking) {
  struct Family { const char* dir; const char* ext; CompressionType code; };
  int checked = 0;
  for (const Family& f : {Family{"silk", ".silk", CT_SILK_40MS}, Family{"opus", ".opus", CT_OPUS},
                          Family{"amrwb", ".amrwb", CT_AMRWB}}) {
    QUILLON_REQUIRE_VECTORS(d, f.dir);
    std::mt19937 rng(5);
    for (const auto& entry : fs::directory_iterator(d)) {
      if (entry.path().extension() != f.ext) continue;
      const std::vector<uint8_t> stream = readFile(entry.path());
      const std::vector<int16_t> expected = quillon::test::readPcm16(fs::path(entry.path()).replace_extension(".pcm"));
      quillon::tool::DecodeOptions options;
      options.code = f.code;
      quillon::tool::DecodePipeline pipeline;
      std::string error;
      ASSERT_TRUE(pipeline.open(options, error)) << error;
      std::vector<int16_t> out;
      for (size_t i = 0; i < stream.size();) {
        const size_t n = std::min<size_t>(1 + rng() % 700, stream.size() - i);
        ASSERT_TRUE(pipeline.feed(stream.data() + i, n, out, error)) << error;
        i += n;
      }
      ASSERT_TRUE(pipeline.finish(out, error));
      EXPECT_EQ(quillon::test::firstMismatch(out, expected), -1) << entry.path();
      checked++;
    }
  }
  EXPECT_GT(checked, 0);
}

// Every shared stream the tool can decode bit-exactly, through the
// transcoder and, where the C API accepts the code, through it too.
TEST_F(ToolTest, DecodesSharedVectorsOfEveryFamily) {
  struct Family { const char* dir; const char* suffix; const char* codec; bool api; };
  const Family families[] = {
      {"g729a", ".g729", "g729", true},       {"g729", ".g729", "g729", true},
      {"g722", "-m1.g722", "g722", true},     {"tetra", ".tet", "tetra", true},
      {"g726", ".g726-32-msb", "g726-32", true}, {"g726", ".g726-16-lsb", "g726-16-lsb", true},
      {"silk", ".silk", "silk-60", false},    {"opus", ".opus", "opus", false},
      {"amrwb", ".amrwb", "amrwb", false},
  };
  int checked = 0;
  for (const Family& f : families) {
    QUILLON_REQUIRE_VECTORS(d, f.dir);
    for (const auto& entry : fs::directory_iterator(d)) {
      const std::string name = entry.path().filename().string();
      const std::string suffix = f.suffix;
      if (name.size() <= suffix.size() || name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) continue;
      const std::vector<int16_t> expected = quillon::test::readPcm16(fs::path(entry.path()).replace_extension(".pcm"));
      ASSERT_FALSE(expected.empty()) << name;
      for (bool api : {false, true}) {
        if (api && !f.api) continue;
        const fs::path out = dir / "out.pcm";
        ASSERT_EQ(run(std::string("decode --raw ") + (api ? "--api " : "") + "--codec " + f.codec + " " +
                      entry.path().string() + " " + out.string()),
                  0)
            << name;
        EXPECT_EQ(quillon::test::firstMismatch(quillon::test::readPcm16(out), expected), -1) << name << (api ? " (api)" : "");
        checked++;
      }
    }
  }
  EXPECT_GT(checked, 0);
}
