// Container recognition and unwrapping, with files made here.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <random>

#include "opus_stream_writer.h"
#include "primitives/g711.h"
#include "containers.h"
#include "convert.h"
#include "test_support.h"

namespace fs = std::filesystem;
using namespace quillon::tool;
using namespace TAV;

namespace {

class Containers : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = fs::temp_directory_path() / ("quillon-containers-" + std::to_string(::getpid()));
    fs::create_directories(dir);
  }
  void TearDown() override { fs::remove_all(dir); }
  fs::path write(const std::string& name, const std::vector<uint8_t>& bytes) {
    const fs::path p = dir / name;
    std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return p;
  }
  std::vector<uint8_t> readAll(const fs::path& p, const ProbeResult& probe, std::string& error) {
    std::unique_ptr<StreamSource> s = openStream(p.string(), probe, error);
    std::vector<uint8_t> out;
    if (!s) return out;
    uint8_t buf[7];  // small reads cross every record boundary
    for (size_t n; (n = s->read(buf, sizeof buf)) > 0;) out.insert(out.end(), buf, buf + n);
    error = s->error();
    return out;
  }
  fs::path dir;
};

std::vector<uint8_t> wave(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits, const std::vector<uint8_t>& data) {
  std::vector<uint8_t> b;
  auto u32 = [&](uint32_t v) { for (int i = 0; i < 4; i++) b.push_back(static_cast<uint8_t>(v >> (8 * i))); };
  auto u16 = [&](uint16_t v) { b.push_back(static_cast<uint8_t>(v)); b.push_back(static_cast<uint8_t>(v >> 8)); };
  auto tag4 = [&](const char* t) { b.insert(b.end(), t, t + 4); };
  tag4("RIFF"); u32(static_cast<uint32_t>(4 + 8 + 16 + 8 + 6 + 8 + data.size())); tag4("WAVE");
  tag4("fmt "); u32(16); u16(tag); u16(channels); u32(rate); u32(rate * channels * bits / 8);
  u16(static_cast<uint16_t>(channels * bits / 8)); u16(bits);
  tag4("LIST"); u32(6); b.insert(b.end(), {'I', 'N', 'F', 'O', 0, 0});  // a chunk to skip
  tag4("data"); u32(static_cast<uint32_t>(data.size())); b.insert(b.end(), data.begin(), data.end());
  return b;
}

void putPrefixed(std::vector<uint8_t>& out, const std::vector<uint8_t>& packet) {
  out.push_back(static_cast<uint8_t>(packet.size()));
  out.push_back(static_cast<uint8_t>(packet.size() >> 8));
  out.insert(out.end(), packet.begin(), packet.end());
}

// A minimal Ogg writer: one packet per page unless it is longer than a page holds.
void oggPage(std::vector<uint8_t>& out, const std::vector<uint8_t>& body, const std::vector<uint8_t>& lacing,
             uint8_t flags, uint32_t seq) {
  std::vector<uint8_t> page = {'O', 'g', 'g', 'S', 0, flags, 0, 0, 0, 0, 0, 0, 0, 0, 0x78, 0x56, 0x34, 0x12};
  for (int i = 0; i < 4; i++) page.push_back(static_cast<uint8_t>(seq >> (8 * i)));
  page.insert(page.end(), {0, 0, 0, 0, static_cast<uint8_t>(lacing.size())});
  page.insert(page.end(), lacing.begin(), lacing.end());
  page.insert(page.end(), body.begin(), body.end());
  const uint32_t crc = oggCrc(page.data(), page.size());
  for (int i = 0; i < 4; i++) page[22 + i] = static_cast<uint8_t>(crc >> (8 * i));
  out.insert(out.end(), page.begin(), page.end());
}

std::vector<uint8_t> oggStream(const std::vector<std::vector<uint8_t>>& packets) {
  std::vector<uint8_t> out;
  uint32_t seq = 0;
  for (size_t i = 0; i < packets.size(); i++) {
    const std::vector<uint8_t>& p = packets[i];
    size_t pos = 0;
    bool continued = false;
    do {  // at most 255 lacing values a page; a longer packet continues on the next
      std::vector<uint8_t> lacing;
      size_t take = 0;
      while (lacing.size() < 255) {
        const size_t seg = std::min<size_t>(255, p.size() - pos - take);
        lacing.push_back(static_cast<uint8_t>(seg));
        take += seg;
        if (seg < 255) break;
      }
      oggPage(out, std::vector<uint8_t>(p.begin() + pos, p.begin() + pos + take), lacing,
              static_cast<uint8_t>((continued ? 1 : 0) | (i == 0 ? 2 : 0)), seq++);
      continued = lacing.back() == 255;
      pos += take;
    } while (continued);
  }
  return out;
}

}  // namespace

TEST_F(Containers, WaveTagsSelectTheCodec) {
  std::vector<uint8_t> alaw(800);
  for (size_t i = 0; i < alaw.size(); i++) alaw[i] = static_cast<uint8_t>(i * 13);
  ProbeResult p;
  std::string error;
  ASSERT_TRUE(probeFile(write("a.wav", wave(6, 1, 8000, 8, alaw)).string(), p, error));
  EXPECT_EQ(p.container, "WAVE");
  EXPECT_EQ(p.code, CT_G711_ALAW);
  EXPECT_EQ(readAll(dir / "a.wav", p, error), alaw);

  struct Case { uint16_t tag, channels; uint32_t rate; uint16_t bits; CompressionType code; const char* refusal; };
  const Case cases[] = {{7, 1, 8000, 8, CT_G711_ULAW, nullptr},      {1, 1, 8000, 16, CT_PCM16, nullptr},
                        {1, 1, 16000, 16, CT_PCM16_16K, nullptr},    {1, 1, 8000, 8, CT_PCM8, nullptr},
                        {0x45, 1, 8000, 4, CT_G726_32, nullptr},     {0x64, 1, 8000, 5, CT_G726_40, nullptr},
                        {0x83, 1, 8000, 0, CT_G729, nullptr},        {2, 1, 8000, 4, CT_NONE, "does not decode"},
                        {6, 2, 8000, 8, CT_G711_ALAW, nullptr},      {0x55, 1, 8000, 0, CT_NONE, "format tag 85"},
                        {6, 1, 16000, 8, CT_G711_ALAW, nullptr},     {0x83, 1, 16000, 0, CT_NONE, "16000 Hz"},
                        {0x45, 2, 8000, 4, CT_NONE, "2-channel"},    {0x028f, 1, 16000, 4, CT_G722, nullptr}};
  for (const Case& c : cases) {
    ASSERT_TRUE(probeFile(write("t.wav", wave(c.tag, c.channels, c.rate, c.bits, {1, 2})).string(), p, error));
    EXPECT_EQ(p.code, c.code) << c.tag;
    if (c.refusal) EXPECT_NE(p.refusal.find(c.refusal), std::string::npos) << p.refusal;
    else EXPECT_TRUE(p.refusal.empty()) << p.refusal;
  }
  // A header cut inside the format chunk is recognised but refused.
  std::vector<uint8_t> cut = wave(6, 1, 8000, 8, alaw);
  cut.resize(30);
  ASSERT_TRUE(probeFile(write("cut.wav", cut).string(), p, error));
  EXPECT_EQ(p.code, CT_NONE);
  EXPECT_FALSE(p.refusal.empty());
}

TEST_F(Containers, WaveDecodesLikeTheRawStreamAndCodecMustAgree) {
  std::vector<uint8_t> ulaw(1600);
  for (size_t i = 0; i < ulaw.size(); i++) ulaw[i] = static_cast<uint8_t>(i * 7 + 3);
  const fs::path in = write("u.wav", wave(7, 1, 8000, 8, ulaw));
  ConvertOptions options;
  options.raw = true;
  ConvertResult result;
  std::string error;
  ASSERT_TRUE(convertFile(in.string(), (dir / "u.pcm").string(), options, result, error)) << error;
  const std::vector<int16_t> pcm = quillon::test::readPcm16(dir / "u.pcm");
  ASSERT_EQ(pcm.size(), ulaw.size());
  for (size_t i = 0; i < ulaw.size(); i++) ASSERT_EQ(pcm[i], quillon::g711::ulawExpand(ulaw[i]));
  options.haveCodec = true;  // a codec the header contradicts is refused as a usage error
  options.code = CT_G711_ALAW;
  EXPECT_FALSE(convertFile(in.string(), (dir / "a.pcm").string(), options, result, error));
  EXPECT_TRUE(result.usage);
  EXPECT_FALSE(fs::exists(dir / "a.pcm"));
  // An unknown format tag leaves the data chunk to --codec.
  ASSERT_TRUE(convertFile(write("x.wav", wave(0x55, 1, 8000, 8, ulaw)).string(), (dir / "a.pcm").string(), options,
                          result, error)) << error;
  EXPECT_EQ(quillon::test::readPcm16(dir / "a.pcm")[5], quillon::g711::alawExpand(ulaw[5]));
  // A raw file without --codec is refused with a hint.
  options.haveCodec = false;
  EXPECT_FALSE(convertFile(write("raw.bin", ulaw).string(), (dir / "x.pcm").string(), options, result, error));
  EXPECT_NE(error.find("--codec"), std::string::npos);
}

TEST_F(Containers, AmrWbStorageBecomesLengthPrefixedFrames) {
  std::vector<uint8_t> file = {'#', '!', 'A', 'M', 'R', '-', 'W', 'B', '\n'};
  std::vector<uint8_t> expected;
  std::mt19937 rng(3);
  for (unsigned ft : {2u, 8u, 9u, 15u, 0u, 14u}) {
    std::vector<uint8_t> frame = {static_cast<uint8_t>((ft << 3) | 0x04)};
    for (int i = 0; i < amrWbStorageFrameBytes(ft); i++) frame.push_back(static_cast<uint8_t>(rng()));
    file.insert(file.end(), frame.begin(), frame.end());
    putPrefixed(expected, frame);
  }
  ProbeResult p;
  std::string error;
  ASSERT_TRUE(probeFile(write("s.awb", file).string(), p, error));
  EXPECT_EQ(p.code, CT_AMRWB);
  EXPECT_EQ(readAll(dir / "s.awb", p, error), expected);
  // A frame cut short at the end is dropped; a reserved type stops with an error.
  std::vector<uint8_t> cut = file;
  cut.push_back(2 << 3);
  cut.insert(cut.end(), 5, 0xaa);
  EXPECT_EQ(readAll(write("cut.awb", cut), p, error), expected);
  std::vector<uint8_t> reserved = file;
  reserved.push_back(11 << 3);
  EXPECT_EQ(readAll(write("res.awb", reserved), p, error), expected);
  EXPECT_NE(error.find("reserved"), std::string::npos);
  ASSERT_TRUE(probeFile(write("nb.amr", {'#', '!', 'A', 'M', 'R', '\n', 0}).string(), p, error));
  EXPECT_EQ(p.code, CT_NONE);
  EXPECT_FALSE(p.refusal.empty());
}

TEST_F(Containers, SilkV3WithAndWithoutItsExtras) {
  std::vector<uint8_t> packets;
  std::vector<uint8_t> body;
  for (size_t n : {31u, 0u, 200u, 17u}) {
    std::vector<uint8_t> packet(n, static_cast<uint8_t>(n));
    putPrefixed(packets, packet);
  }
  const std::string magic = "#!SILK_V3";
  for (bool tencent : {false, true})
    for (bool trailer : {false, true}) {
      std::vector<uint8_t> file;
      if (tencent) file.push_back(0x02);
      file.insert(file.end(), magic.begin(), magic.end());
      file.insert(file.end(), packets.begin(), packets.end());
      if (trailer) file.insert(file.end(), {0xff, 0xff, 0xde, 0xad});
      ProbeResult p;
      std::string error;
      ASSERT_TRUE(probeFile(write("s.silk", file).string(), p, error));
      EXPECT_EQ(p.container, "SILK_V3");
      EXPECT_EQ(p.code, CT_SILK_20MS);
      EXPECT_EQ(readAll(dir / "s.silk", p, error), packets) << tencent << trailer;
    }
}

TEST_F(Containers, OggPagesReassemblePacketsInAnyChunking) {
  std::vector<std::vector<uint8_t>> packets;
  std::mt19937 rng(11);
  for (size_t n : {19u, 30u, 255u, 0u, 600u, 70000u, 3u}) {
    std::vector<uint8_t> p(n);
    for (uint8_t& b : p) b = static_cast<uint8_t>(rng());
    packets.push_back(p);
  }
  const std::vector<uint8_t> ogg = oggStream(packets);
  for (size_t chunk : {size_t{1}, size_t{13}, size_t{4096}, ogg.size()}) {
    OggPacketReader reader;
    std::string error;
    std::vector<std::vector<uint8_t>> got;
    std::vector<uint8_t> p;
    for (size_t i = 0; i < ogg.size(); i += chunk) {
      ASSERT_TRUE(reader.push(ogg.data() + i, std::min(chunk, ogg.size() - i), error)) << error;
      while (reader.nextPacket(p)) got.push_back(p);
    }
    EXPECT_EQ(got, packets) << chunk;
    EXPECT_FALSE(reader.hasPartialPage());
  }
  // A page with a bad checksum is skipped (its packet lost), the rest read.
  std::vector<uint8_t> corrupt = ogg;
  corrupt[40] ^= 1;
  OggPacketReader reader;
  std::string error;
  EXPECT_TRUE(reader.push(corrupt.data(), corrupt.size(), error));
  std::vector<std::vector<uint8_t>> got;
  for (std::vector<uint8_t> p; reader.nextPacket(p);) got.push_back(p);
  EXPECT_EQ(got, std::vector<std::vector<uint8_t>>(packets.begin() + 1, packets.end()));
  ASSERT_FALSE(reader.warnings().empty());
  EXPECT_NE(reader.warnings()[0].find("checksum"), std::string::npos);
}

TEST_F(Containers, OggOpusDecodesLikeItsPackets) {
  std::vector<int16_t> pcm(16000);
  for (size_t i = 0; i < pcm.size(); i++) pcm[i] = static_cast<int16_t>(8000 * std::sin(i * 0.05) * std::sin(i * 0.001));
  const std::vector<uint8_t> prefixed = quillon::makeOpusStream(pcm.data(), pcm.size());
  ASSERT_FALSE(prefixed.empty());
  std::vector<std::vector<uint8_t>> packets = {
      {'O', 'p', 'u', 's', 'H', 'e', 'a', 'd', 1, 1, 0x38, 1, 0x80, 0x3e, 0, 0, 0, 0, 0},
      {'O', 'p', 'u', 's', 'T', 'a', 'g', 's', 0, 0, 0, 0, 0, 0, 0, 0}};
  for (size_t i = 0; i + 2 <= prefixed.size();) {
    const size_t n = prefixed[i] | (prefixed[i + 1] << 8);
    packets.emplace_back(prefixed.begin() + static_cast<long>(i + 2), prefixed.begin() + static_cast<long>(i + 2 + n));
    i += 2 + n;
  }
  const fs::path ogg = write("o.opus", oggStream(packets));
  ProbeResult p;
  std::string error;
  ASSERT_TRUE(probeFile(ogg.string(), p, error));
  EXPECT_EQ(p.container, "Ogg Opus");
  EXPECT_EQ(p.code, CT_OPUS);
  EXPECT_EQ(readAll(ogg, p, error), prefixed);

  ConvertOptions options;
  options.raw = true;
  ConvertResult fromOgg, fromRaw;
  ASSERT_TRUE(convertFile(ogg.string(), (dir / "ogg.pcm").string(), options, fromOgg, error)) << error;
  options.haveCodec = true;
  options.code = CT_OPUS;
  ASSERT_TRUE(convertFile(write("o.raw", prefixed).string(), (dir / "raw.pcm").string(), options, fromRaw, error));
  // The header's pre-skip (312 at 48 kHz) is dropped; these pages give no end.
  const std::vector<int16_t> fromPackets = quillon::test::readPcm16(dir / "raw.pcm");
  EXPECT_EQ(quillon::test::readPcm16(dir / "ogg.pcm"), std::vector<int16_t>(fromPackets.begin() + 104, fromPackets.end()));
  EXPECT_EQ(fromOgg.samples, 16000u - 104u);

  std::vector<uint8_t> vorbis = oggStream({{1, 'v', 'o', 'r', 'b', 'i', 's'}});
  ASSERT_TRUE(probeFile(write("v.ogg", vorbis).string(), p, error));
  EXPECT_EQ(p.code, CT_NONE);
  EXPECT_FALSE(p.refusal.empty());
}
