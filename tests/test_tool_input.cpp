// The tool's input side end to end, on files made by ffmpeg, sox and
// opus-tools (or written here byte by byte): pipes, stereo, WAVE variants,
// Ogg Opus trimming and damage, and bounded memory.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>

#include "primitives/g711.h"
#include "quillon/quillon_c.h"
#include "test_support.h"
#include "tool_fixture.h"

namespace fs = std::filesystem;
using quillon::test::readFile;

namespace {

bool have(const char* program) {
  return std::system((std::string("command -v ") + program + " >/dev/null 2>&1").c_str()) == 0;
}

#define REQUIRE_PROGRAMS(...)                                              \
  for (const char* p : {__VA_ARGS__})                                      \
    if (!have(p)) GTEST_SKIP() << p << " is not installed (tools/scripts/install-deps.sh)"

class ToolInput : public quillon::test::ToolFixture {
 protected:
  std::string at(const std::string& name) const { return (dir / name).string(); }
};

struct Wave {
  uint16_t tag = 0, channels = 0, bits = 0;
  uint32_t rate = 0, riffSize = 0, dataSize = 0;
  std::vector<uint8_t> data;
  std::vector<int16_t> samples() const {
    std::vector<int16_t> s(data.size() / 2);
    if (!s.empty()) std::memcpy(s.data(), data.data(), s.size() * 2);
    return s;
  }
};

// Walks the chunks of a RIFF/WAVE file (as ffmpeg and sox write them).
Wave readWave(const fs::path& p) {
  const std::vector<uint8_t> b = readFile(p);
  Wave w;
  auto u32 = [&](size_t i) { return b[i] | (b[i + 1] << 8) | (b[i + 2] << 16) | (uint32_t(b[i + 3]) << 24); };
  auto u16 = [&](size_t i) { return static_cast<uint16_t>(b[i] | (b[i + 1] << 8)); };
  if (b.size() < 12) return w;
  w.riffSize = u32(4);
  for (size_t i = 12; i + 8 <= b.size();) {
    const uint32_t size = u32(i + 4);
    if (std::memcmp(&b[i], "fmt ", 4) == 0) {
      w.tag = u16(i + 8);
      w.channels = u16(i + 10);
      w.rate = u32(i + 12);
      w.bits = u16(i + 22);
    } else if (std::memcmp(&b[i], "data", 4) == 0) {
      w.dataSize = size;
      const size_t n = std::min<size_t>(b.size() - i - 8, size);
      w.data.assign(b.begin() + static_cast<long>(i + 8), b.begin() + static_cast<long>(i + 8 + n));
      break;
    }
    i += 8 + size + (size & 1);
  }
  return w;
}

// Bytes of a WAVE file written here: any fmt chunk body, any chunks before data.
std::vector<uint8_t> waveBytes(const char* riff, const std::vector<uint8_t>& fmt, const std::vector<uint8_t>& extra,
                               uint32_t dataSize, const std::vector<uint8_t>& data) {
  std::vector<uint8_t> b;
  b.reserve(64 + extra.size() + fmt.size() + data.size());
  auto u32 = [&](uint32_t v) { for (int i = 0; i < 4; i++) b.push_back(static_cast<uint8_t>(v >> (8 * i))); };
  auto tag = [&](const char* t) { for (int i = 0; i < 4; i++) b.push_back(static_cast<uint8_t>(t[i])); };
  auto append = [&](const std::vector<uint8_t>& v) { for (uint8_t x : v) b.push_back(x); };
  tag(riff);
  u32(static_cast<uint32_t>(4 + extra.size() + 8 + fmt.size() + (fmt.size() & 1) + 8 + data.size()));
  tag("WAVE");
  append(extra);
  tag("fmt ");
  u32(static_cast<uint32_t>(fmt.size()));
  append(fmt);
  if (fmt.size() & 1) b.push_back(0);
  tag("data");
  u32(dataSize);
  append(data);
  return b;
}

std::vector<uint8_t> fmtBody(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits) {
  std::vector<uint8_t> f;
  auto put = [&](uint32_t v, int n) { for (int i = 0; i < n; i++) f.push_back(static_cast<uint8_t>(v >> (8 * i))); };
  put(tag, 2); put(channels, 2); put(rate, 4); put(rate * channels * bits / 8, 4);
  put(channels * bits / 8, 2); put(bits, 2);
  return f;
}

// The C API's decode of a whole stream in one call: the reference for the tool.
std::vector<int16_t> apiDecode(int code, const std::vector<uint8_t>& in, size_t samples) {
  quillon_decoder_handle h = decoder_create(code);
  EXPECT_NE(h, 0u);
  EXPECT_TRUE(decoder_open(h, 100));
  std::vector<int16_t> out(samples * 2);
  const unsigned n = decode_decode(h, in.data(), reinterpret_cast<uint8_t*>(out.data()), static_cast<unsigned>(in.size()));
  decoder_close(h);
  decoder_release(h);
  out.resize(n / 2);
  return out;
}

// Signal-to-difference ratio of `b` against `a` with `b` shifted by `lag`.
double snrAt(const std::vector<int16_t>& a, const std::vector<int16_t>& b, long lag) {
  double s = 0, e = 0;
  for (size_t i = 200; i + 200 < a.size(); i++) {
    const long j = static_cast<long>(i) + lag;
    if (j < 0 || static_cast<size_t>(j) >= b.size()) continue;
    s += double(a[i]) * a[i];
    e += (double(a[i]) - b[static_cast<size_t>(j)]) * (double(a[i]) - b[static_cast<size_t>(j)]);
  }
  return 10 * std::log10(s / std::max(e, 1.0));
}

}  // namespace

// A raw stream, a WAVE file and an Ogg file through a pipe ("-") decode as
// from the file; standard input works for probe and encode too; a WAVE
// written to a pipe says its sizes are unknown.
TEST_F(ToolInput, PipesInAndOut) {
  REQUIRE_PROGRAMS("sox", "opusenc");
  ASSERT_EQ(sh("sox -n -r 8000 -b 16 -e signed speech.wav synth 1.27 sine 200-3000 vol 0.5"), 0);
  ASSERT_EQ(run("encode --codec g729 speech.wav s.g729"), 0);
  ASSERT_EQ(run("decode --codec g729 s.g729 file.wav"), 0);
  std::string err;
  ASSERT_EQ(sh("cat s.g729 | " + std::string(QUILLON_TOOL_PATH) + " decode --codec g729 - pipe.wav", &err), 0) << err;
  EXPECT_EQ(readFile(dir / "pipe.wav"), readFile(dir / "file.wav"));

  ASSERT_EQ(sh("sox -n -r 8000 -e a-law a.wav synth 0.5 sine 700"), 0);
  ASSERT_EQ(run("decode a.wav a_file.wav"), 0);
  ASSERT_EQ(sh("cat a.wav | " + std::string(QUILLON_TOOL_PATH) + " decode - a_pipe.wav", &err), 0) << err;
  EXPECT_EQ(readFile(dir / "a_pipe.wav"), readFile(dir / "a_file.wav"));

  ASSERT_EQ(sh("sox -n -r 16000 -b 16 -e signed w.wav synth 0.7 sine 500 && opusenc --quiet w.wav w.opus"), 0);
  ASSERT_EQ(run("decode w.opus o_file.wav"), 0);
  ASSERT_EQ(sh("cat w.opus | " + std::string(QUILLON_TOOL_PATH) + " decode - o_pipe.wav", &err), 0) << err;
  EXPECT_EQ(readFile(dir / "o_pipe.wav"), readFile(dir / "o_file.wav"));

  ASSERT_EQ(sh("cat w.opus | " + std::string(QUILLON_TOOL_PATH) + " probe - > probe.txt"), 0);
  const std::vector<uint8_t> probe = readFile(dir / "probe.txt");
  EXPECT_NE(std::string(probe.begin(), probe.end()).find("Ogg Opus"), std::string::npos);
  ASSERT_EQ(sh("cat speech.wav | " + std::string(QUILLON_TOOL_PATH) + " encode --codec g729 - e.g729", &err), 0) << err;
  EXPECT_EQ(readFile(dir / "e.g729"), readFile(dir / "s.g729"));

  // Written into a pipe, the header cannot be completed: its sizes say "unknown".
  ASSERT_EQ(sh(std::string(QUILLON_TOOL_PATH) + " decode a.wav /dev/stdout | cat > piped.wav", &err), 0) << err;
  const Wave piped = readWave(dir / "piped.wav");
  EXPECT_EQ(piped.riffSize, 0xffffffffu);
  EXPECT_EQ(piped.dataSize, 0xffffffffu);
  EXPECT_EQ(piped.data, readWave(dir / "a_file.wav").data);
  // ...and such a file (sox and ffmpeg read it too) decodes to its end.
  ASSERT_EQ(run("decode --codec pcm16 piped.wav again.wav", &err), 0) << err;
  EXPECT_EQ(readWave(dir / "again.wav").data, piped.data);
}

// G.711 and PCM streams decode every byte: no samples lost at the end.
TEST_F(ToolInput, ByteStreamsDecodeToTheLastSample) {
  for (int len : {8011, 8015, 7}) {
    std::vector<uint8_t> bytes(static_cast<size_t>(len));
    for (size_t i = 0; i < bytes.size(); i++) bytes[i] = static_cast<uint8_t>(i * 37 + 11);
    writeBytes("x.raw", bytes);
    for (const char* codec : {"alaw", "ulaw", "pcm8"}) {
      std::string err;
      ASSERT_EQ(run(std::string("decode --raw --codec ") + codec + " x.raw x.pcm", &err), 0) << codec << err;
      const int code = std::string(codec) == "alaw" ? 1 : std::string(codec) == "ulaw" ? 2 : 102;
      EXPECT_EQ(quillon::test::readPcm16(dir / "x.pcm"), apiDecode(code, bytes, bytes.size())) << codec << " " << len;
      EXPECT_EQ(err.find("trailing"), std::string::npos) << err;
    }
    std::string err;
    ASSERT_EQ(run("decode --raw --codec pcm16 x.raw x.pcm", &err), 0) << err;
    const std::vector<int16_t> pcm = quillon::test::readPcm16(dir / "x.pcm");
    ASSERT_EQ(pcm.size(), bytes.size() / 2);
    EXPECT_EQ(std::memcmp(pcm.data(), bytes.data(), pcm.size() * 2), 0);
    EXPECT_EQ(err.find("trailing") != std::string::npos, len % 2 == 1) << err;
  }
}

// Stereo WAVE (as sox writes it) decodes to stereo like sox's own decode;
// --channels picks, mixes or splits; probe reports the channels; a
// --codec the header contradicts is refused.
TEST_F(ToolInput, StereoWaveAndChannelChoices) {
  REQUIRE_PROGRAMS("sox");
  for (const char* enc : {"-e a-law", "-e u-law", "-e signed -b 16", "-e unsigned -b 8"}) {
    SCOPED_TRACE(enc);
    ASSERT_EQ(sh(std::string("sox -n -r 8000 -c 2 ") + enc + " st.wav synth 0.77 sine 440 sine 1300 vol 0.6"), 0);
    ASSERT_EQ(sh("sox st.wav -e signed -b 16 ref.wav"), 0);
    std::string err;
    ASSERT_EQ(run("decode st.wav out.wav", &err), 0) << err;
    const Wave out = readWave(dir / "out.wav"), ref = readWave(dir / "ref.wav");
    EXPECT_EQ(out.channels, 2);
    EXPECT_EQ(out.rate, 8000u);
    ASSERT_EQ(out.samples().size(), ref.samples().size());
    EXPECT_EQ(out.samples(), ref.samples());
  }
  const std::vector<int16_t> both = readWave(dir / "out.wav").samples();
  std::vector<int16_t> left, right, mix;
  for (size_t i = 0; i + 1 < both.size(); i += 2) {
    left.push_back(both[i]);
    right.push_back(both[i + 1]);
    mix.push_back(static_cast<int16_t>((both[i] + both[i + 1]) >> 1));
  }
  ASSERT_EQ(run("decode --channels left st.wav l.wav"), 0);
  EXPECT_EQ(readWave(dir / "l.wav").samples(), left);
  EXPECT_EQ(readWave(dir / "l.wav").channels, 1);
  ASSERT_EQ(run("decode --channels right st.wav r.wav"), 0);
  EXPECT_EQ(readWave(dir / "r.wav").samples(), right);
  ASSERT_EQ(run("decode --channels mix st.wav m.wav"), 0);
  EXPECT_EQ(readWave(dir / "m.wav").samples(), mix);
  ASSERT_EQ(run("decode --channels stereo st.wav s.wav"), 0);
  EXPECT_EQ(readWave(dir / "s.wav").samples(), both);
  ASSERT_EQ(run("decode --channels split st.wav call.wav"), 0);
  EXPECT_EQ(readWave(dir / "call.left.wav").samples(), left);
  EXPECT_EQ(readWave(dir / "call.right.wav").samples(), right);
  EXPECT_FALSE(fs::exists(dir / "call.wav"));

  ASSERT_EQ(sh(std::string(QUILLON_TOOL_PATH) + " probe st.wav > p.txt"), 0);
  const std::vector<uint8_t> p = readFile(dir / "p.txt");
  EXPECT_NE(std::string(p.begin(), p.end()).find("channels:  2"), std::string::npos);

  // A-law stereo forced to mu-law: refused, nothing written.
  ASSERT_EQ(sh("sox -n -r 8000 -c 2 -e a-law al.wav synth 0.2 sine 440"), 0);
  std::string err;
  EXPECT_EQ(run("decode --codec ulaw al.wav bad.wav", &err), 2);
  EXPECT_NE(err.find("alaw"), std::string::npos) << err;
  EXPECT_FALSE(fs::exists(dir / "bad.wav"));
  // The same codec named agrees: still stereo, not interleaved mono.
  ASSERT_EQ(run("decode --codec alaw al.wav same.wav"), 0);
  EXPECT_EQ(readWave(dir / "same.wav").channels, 2);
  EXPECT_EQ(readWave(dir / "same.wav").samples().size(), 2u * 1600u);
  // 16 kHz A-law keeps its rate, with or without --codec.
  ASSERT_EQ(sh("sox -n -r 16000 -e a-law a16.wav synth 0.3 sine 5000 && sox a16.wav -e signed -b 16 a16ref.wav"), 0);
  ASSERT_EQ(run("decode --codec alaw a16.wav a16.out.wav", &err), 0) << err;
  EXPECT_EQ(readWave(dir / "a16.out.wav").rate, 16000u);
  EXPECT_EQ(readWave(dir / "a16.out.wav").samples(), readWave(dir / "a16ref.wav").samples());
  // A raw stream still needs --codec.
  writeBytes("x.raw", std::vector<uint8_t>(100, 0x55));
  EXPECT_EQ(run("decode x.raw x.wav", &err), 1);
  EXPECT_NE(err.find("--codec"), std::string::npos) << err;
}

// WAVE variants recorders write: WAVE_FORMAT_EXTENSIBLE, G.722 (0x028F,
// as ffmpeg writes it), RF64 with a ds64 chunk, a data size of 0 or
// 0xFFFFFFFF (decoded to the end with a warning) and odd-sized chunks.
TEST_F(ToolInput, WaveVariants) {
  std::vector<uint8_t> alaw(1001);
  for (size_t i = 0; i < alaw.size(); i++) alaw[i] = static_cast<uint8_t>(i * 29 + 5);
  std::vector<int16_t> expect(alaw.size());
  for (size_t i = 0; i < alaw.size(); i++) expect[i] = quillon::g711::alawExpand(alaw[i]);

  // Extensible: cbSize 22, valid bits, channel mask, sub-format GUID of A-law (tag 6).
  std::vector<uint8_t> ext = fmtBody(0xfffe, 1, 8000, 8);
  ext.insert(ext.end(), {22, 0, 8, 0, 4, 0, 0, 0, 6, 0, 0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xaa, 0, 0x38, 0x9b, 0x71});
  const std::vector<uint8_t> odd = {'L', 'I', 'S', 'T', 3, 0, 0, 0, 'a', 'b', 'c', 0};  // odd size, pad byte
  writeBytes("ext.wav", waveBytes("RIFF", ext, odd, static_cast<uint32_t>(alaw.size()), alaw));
  std::string err;
  ASSERT_EQ(run("decode ext.wav ext.out.wav", &err), 0) << err;
  EXPECT_EQ(readWave(dir / "ext.out.wav").samples(), expect);
  // A 16-bit PCM one, with an odd-sized format chunk.
  std::vector<uint8_t> pcmExt = fmtBody(0xfffe, 1, 8000, 16);
  pcmExt.insert(pcmExt.end(), {22, 0, 16, 0, 4, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xaa, 0, 0x38, 0x9b, 0x71, 0});
  std::vector<uint8_t> pcm(400);
  for (size_t i = 0; i < pcm.size(); i++) pcm[i] = static_cast<uint8_t>(i * 7);
  writeBytes("pext.wav", waveBytes("RIFF", pcmExt, {}, static_cast<uint32_t>(pcm.size()), pcm));
  ASSERT_EQ(run("decode pext.wav pext.out.wav", &err), 0) << err;
  EXPECT_EQ(readWave(dir / "pext.out.wav").data, pcm);

  // RF64: sizes in the ds64 chunk, 0xFFFFFFFF in the RIFF and data headers.
  std::vector<uint8_t> ds64 = {'d', 's', '6', '4', 28, 0, 0, 0};
  auto put64 = [&](uint64_t v) { for (int i = 0; i < 8; i++) ds64.push_back(static_cast<uint8_t>(v >> (8 * i))); };
  put64(4 + 36 + 24 + 8 + alaw.size());
  put64(alaw.size());
  put64(alaw.size());
  ds64.insert(ds64.end(), {0, 0, 0, 0});
  std::vector<uint8_t> rf64 = waveBytes("RF64", fmtBody(6, 1, 8000, 8), ds64, 0xffffffffu, alaw);
  rf64.insert(rf64.end(), {'L', 'I', 'S', 'T', 4, 0, 0, 0, 'I', 'N', 'F', 'O'});  // after the data: not decoded
  writeBytes("rf64.wav", rf64);
  ASSERT_EQ(run("decode rf64.wav rf64.out.wav", &err), 0) << err;
  EXPECT_EQ(readWave(dir / "rf64.out.wav").samples(), expect);

  // A recorder killed mid-call (size 0) or streaming (0xFFFFFFFF): to the end, with a warning.
  for (uint32_t size : {0u, 0xffffffffu}) {
    writeBytes("cut.wav", waveBytes("RIFF", fmtBody(6, 1, 8000, 8), {}, size, alaw));
    ASSERT_EQ(run("decode cut.wav cut.out.wav", &err), 0) << err;
    EXPECT_NE(err.find("warning"), std::string::npos) << err;
    EXPECT_EQ(readWave(dir / "cut.out.wav").samples(), expect) << size;
  }
  // A data chunk cut short says so.
  std::vector<uint8_t> shortFile = waveBytes("RIFF", fmtBody(6, 1, 8000, 8), {}, 5000, alaw);
  writeBytes("short.wav", shortFile);
  ASSERT_EQ(run("decode short.wav short.out.wav", &err), 0) << err;
  EXPECT_NE(err.find("cut recording"), std::string::npos) << err;
  EXPECT_EQ(readWave(dir / "short.out.wav").samples(), expect);

  // G.722 as ffmpeg writes it decodes like the C API decodes its data chunk.
  if (!have("ffmpeg")) GTEST_SKIP() << "ffmpeg is not installed";
  ASSERT_EQ(sh("ffmpeg -v error -f lavfi -i sine=f=600:d=0.72 -ar 16000 -c:a g722 g722.wav"), 0);
  const Wave g722 = readWave(dir / "g722.wav");
  ASSERT_EQ(g722.tag, 0x028f);
  ASSERT_EQ(g722.data.size() % 160, 0u);  // whole frames, which the C API decodes in one call
  ASSERT_EQ(run("decode g722.wav g722.out.wav", &err), 0) << err;
  const Wave out = readWave(dir / "g722.out.wav");
  EXPECT_EQ(out.rate, 16000u);
  EXPECT_EQ(out.samples(), apiDecode(50, g722.data, g722.data.size() * 2));
  EXPECT_EQ(out.samples().size(), g722.data.size() * 2);
}

// Ogg Opus as opusdec decodes it: pre-skip dropped, end trimmed to the last
// granule position, chained links decoded whole. Both use the system
// libopus, but opusdec decodes at 48 kHz and resamples to 16 kHz where the
// library decodes at 16 kHz: the samples differ (the resampler's phase
// grows with frequency; about 24 dB SNR on a 200-1000 Hz sweep), so the
// test checks the length and that no other alignment fits better.
TEST_F(ToolInput, OggOpusLikeOpusdec) {
  REQUIRE_PROGRAMS("sox", "opusenc", "opusdec");
  ASSERT_EQ(sh("sox -n -r 16000 -b 16 -e signed a.wav synth 2.5 sine 200-1000 vol 0.5 && opusenc --quiet a.wav a.opus"
               " && sox -n -r 16000 -b 16 -e signed b.wav synth 1.3 sine 800 vol 0.4 && opusenc --quiet b.wav b.opus"
               " && cat a.opus b.opus > chain.opus"),
            0);
  for (const char* name : {"a", "chain"}) {
    SCOPED_TRACE(name);
    const std::string n = name;
    ASSERT_EQ(sh("opusdec --quiet --rate 16000 --no-dither " + n + ".opus " + n + ".ref.wav"), 0);
    std::string err;
    ASSERT_EQ(run("decode " + n + ".opus " + n + ".out.wav", &err), 0) << err;
    const std::vector<int16_t> ref = readWave(dir / (n + ".ref.wav")).samples();
    const std::vector<int16_t> out = readWave(dir / (n + ".out.wav")).samples();
    EXPECT_EQ(out.size(), ref.size());
    const double aligned = snrAt(ref, out, 0);
    EXPECT_GT(aligned, 15.0);
    for (long lag : {-104L, -2L, -1L, 1L, 2L, 104L}) EXPECT_GT(aligned, snrAt(ref, out, lag) + 5) << lag;
  }
  EXPECT_EQ(readWave(dir / "a.out.wav").samples().size(), 40000u);  // 2.5 s, as encoded
  EXPECT_EQ(readWave(dir / "chain.out.wav").samples().size(), 40000u + 20800u);

  // A damaged page is skipped with a warning; decoding goes on after it.
  std::vector<uint8_t> damaged = readFile(dir / "a.opus");
  const size_t page = [&] {  // the fourth page: audio
    size_t at = 0;
    for (int k = 0; k < 4; k++) at = static_cast<size_t>(std::search(damaged.begin() + static_cast<long>(at) + 1, damaged.end(),
                                                                       std::begin("OggS"), std::end("OggS") - 1) - damaged.begin());
    return at;
  }();
  ASSERT_LT(page + 100, damaged.size());
  damaged[page + 60] ^= 0x55;
  writeBytes("damaged.opus", damaged);
  std::string err;
  ASSERT_EQ(run("decode damaged.opus damaged.wav", &err), 0) << err;
  EXPECT_NE(err.find("checksum"), std::string::npos) << err;
  EXPECT_GT(readWave(dir / "damaged.wav").samples().size(), 30000u);
  // A missing page is reported and skipped over.
  std::vector<uint8_t> gap = readFile(dir / "a.opus");
  const auto pageAt = [](const std::vector<uint8_t>& b, size_t from) {
    return static_cast<size_t>(std::search(b.begin() + static_cast<long>(from), b.end(), std::begin("OggS"),
                                           std::end("OggS") - 1) - b.begin());
  };
  const size_t fourth = pageAt(gap, pageAt(gap, pageAt(gap, pageAt(gap, 0) + 1) + 1) + 1);
  const size_t fifth = pageAt(gap, fourth + 1);
  ASSERT_LT(fifth, gap.size());
  gap.erase(gap.begin() + static_cast<long>(fourth), gap.begin() + static_cast<long>(fifth));
  writeBytes("gap.opus", gap);
  ASSERT_EQ(run("decode gap.opus gap.wav", &err), 0) << err;
  EXPECT_NE(err.find("missing"), std::string::npos) << err;
  EXPECT_GT(readWave(dir / "gap.wav").samples().size(), 20000u);
  // A damaged page header that claims more bytes than the file has left:
  // the page is dropped, the last page still decoded.
  std::vector<uint8_t> claim = readFile(dir / "a.opus");
  size_t last = 0, before = 0;
  for (size_t at = 0; (at = pageAt(claim, at + 1)) < claim.size();) before = last, last = at;
  ASSERT_GT(before, 0u);
  std::vector<uint8_t> without = claim;
  without.erase(without.begin() + static_cast<long>(before), without.begin() + static_cast<long>(last));
  writeBytes("without.opus", without);
  claim[before + 26] = 255;
  writeBytes("claim.opus", claim);
  ASSERT_EQ(run("decode claim.opus claim.wav", &err), 0) << err;
  EXPECT_NE(err.find("damaged"), std::string::npos) << err;
  ASSERT_EQ(run("decode without.opus without.wav"), 0);
  EXPECT_EQ(readWave(dir / "claim.wav").samples(), readWave(dir / "without.wav").samples());
  // A cut last page is reported.
  std::vector<uint8_t> cut = readFile(dir / "a.opus");
  cut.resize(cut.size() - 20);
  writeBytes("cut.opus", cut);
  ASSERT_EQ(run("decode cut.opus cut.wav", &err), 0) << err;
  EXPECT_NE(err.find("cut short"), std::string::npos) << err;
}

// A stereo Ogg Opus file keeps its two channels, each as opusdec decodes it
// (the same 24 dB or so as in mono: opusdec resamples from 48 kHz), left
// on the left; --channels picks, mixes and splits them as for WAVE.
TEST_F(ToolInput, StereoOggOpus) {
  REQUIRE_PROGRAMS("sox", "opusenc", "opusdec");
  ASSERT_EQ(sh("sox -n -r 16000 -c 2 -b 16 -e signed s.wav synth 2 sine 200-1000 sine 700 vol 0.5"
               " && opusenc --quiet s.wav s.opus && opusdec --quiet --rate 16000 --no-dither s.opus ref.wav"),
            0);
  std::string err;
  ASSERT_EQ(sh(std::string(QUILLON_TOOL_PATH) + " probe s.opus > p.txt"), 0);
  const std::vector<uint8_t> p = readFile(dir / "p.txt");
  EXPECT_NE(std::string(p.begin(), p.end()).find("channels:  2"), std::string::npos);
  ASSERT_EQ(run("decode s.opus out.wav", &err), 0) << err;
  const Wave out = readWave(dir / "out.wav"), ref = readWave(dir / "ref.wav");
  ASSERT_EQ(out.channels, 2);
  ASSERT_EQ(ref.channels, 2);
  EXPECT_EQ(out.rate, 16000u);
  ASSERT_EQ(out.data.size(), ref.data.size());
  EXPECT_EQ(out.data.size(), 2u * 2 * 32000);
  const auto channel = [](const Wave& w, int c) {
    const std::vector<int16_t> all = w.samples();
    std::vector<int16_t> one(all.size() / 2);
    for (size_t i = 0; i < one.size(); i++) one[i] = all[2 * i + c];
    return one;
  };
  const std::vector<int16_t> left = channel(out, 0), right = channel(out, 1);
  for (int c = 0; c < 2; c++) {
    SCOPED_TRACE(c);
    const std::vector<int16_t> mine = c ? right : left;
    const double aligned = snrAt(channel(ref, c), mine, 0);
    EXPECT_GT(aligned, 15.0);
    EXPECT_LT(snrAt(channel(ref, 1 - c), mine, 0), 3.0);  // not the other side
    for (long lag : {-104L, -1L, 1L, 104L}) EXPECT_GT(aligned, snrAt(channel(ref, c), mine, lag) + 5) << lag;
  }
  // Picked, mixed and split channels come from the same decode.
  ASSERT_EQ(run("decode --channels split s.opus sp.wav", &err), 0) << err;
  EXPECT_EQ(readWave(dir / "sp.left.wav").samples(), left);
  EXPECT_EQ(readWave(dir / "sp.right.wav").samples(), right);
  ASSERT_EQ(run("decode --channels right s.opus r.wav", &err), 0) << err;
  EXPECT_EQ(readWave(dir / "r.wav").samples(), right);
  ASSERT_EQ(run("decode --channels mix s.opus m.wav", &err), 0) << err;
  const std::vector<int16_t> mixed = readWave(dir / "m.wav").samples();
  ASSERT_EQ(mixed.size(), left.size());
  for (size_t i = 0; i < mixed.size(); i++) ASSERT_EQ(mixed[i], static_cast<int16_t>((left[i] + right[i]) >> 1)) << i;
  // Through a pipe, and at 8 kHz (decoded at that rate by libopus).
  ASSERT_EQ(sh("cat s.opus | " + std::string(QUILLON_TOOL_PATH) + " decode - piped.wav", &err), 0) << err;
  EXPECT_EQ(readWave(dir / "piped.wav").samples(), out.samples());
  ASSERT_EQ(run("decode --rate 8000 s.opus low.wav", &err), 0) << err;
  const Wave low = readWave(dir / "low.wav");
  EXPECT_EQ(low.channels, 2);
  EXPECT_EQ(low.rate, 8000u);
  EXPECT_EQ(low.data.size(), out.data.size() / 2);
  // The C exports decode Opus to one channel: refused as an argument error.
  EXPECT_EQ(run("decode --api s.opus api.wav", &err), 2);
  EXPECT_FALSE(fs::exists(dir / "api.wav"));
}

// A length-prefixed Opus stream of empty packets (each a second of
// concealment, as the library documents) is written as it is made: the
// tool's resident set stays small, and it warns once.
TEST_F(ToolInput, EmptyOpusPacketsStreamInBoundedMemory) {
#ifdef QUILLON_SANITIZED
  GTEST_SKIP() << "sanitizer runtimes inflate the resident set; measured in the plain build";
#endif
  writeBytes("empty.opus", std::vector<uint8_t>(2 * 2000, 0));  // 2000 s of concealment, 64 MB of PCM
  long peak = 0;
  EXPECT_EQ(runMeasured({"decode", "--raw", "--codec", "opus", at("empty.opus"), "/dev/null"}, peak), 0);
  EXPECT_LT(peak, 20 * 1024) << "peak resident set in KiB";
  std::string err;
  ASSERT_EQ(run("decode --codec opus empty.opus /dev/null", &err), 0);
  size_t warnings = 0;
  for (size_t at = 0; (at = err.find("empty packets", at)) != std::string::npos; at++) warnings++;
  EXPECT_EQ(warnings, 1u) << err;
}

// The tool's MS ADPCM files say how many samples they hold; a cut last
// AMR-WB storage frame is reported.
TEST_F(ToolInput, AdpcmFactChunkAndCutAmrWbFrame) {
  REQUIRE_PROGRAMS("sox");
  ASSERT_EQ(sh("sox -n -r 8000 -b 16 -e signed s.wav synth 0.6 sine 500 vol 0.5"), 0);
  ASSERT_EQ(run("encode --codec msadpcm s.wav s.adpcm.wav"), 0);
  const std::vector<uint8_t> adpcm = readFile(dir / "s.adpcm.wav");
  ASSERT_GE(adpcm.size(), 90u);
  ASSERT_EQ(std::memcmp(adpcm.data() + 70, "fact", 4), 0);
  EXPECT_EQ(adpcm[78] | (adpcm[79] << 8) | (adpcm[80] << 16), 4800);

  ASSERT_EQ(sh("sox -n -r 16000 -b 16 -e signed w.wav synth 0.5 sine 500 vol 0.5"), 0);
  ASSERT_EQ(run("encode --codec amrwb w.wav w.prefixed"), 0);
  // The length-prefixed frames are storage frames: make a storage file of them.
  const std::vector<uint8_t> prefixed = readFile(dir / "w.prefixed");
  std::vector<uint8_t> storage = {'#', '!', 'A', 'M', 'R', '-', 'W', 'B', '\n'};
  for (size_t i = 0; i + 2 <= prefixed.size();) {
    const size_t n = prefixed[i] | (prefixed[i + 1] << 8);
    storage.insert(storage.end(), prefixed.begin() + static_cast<long>(i + 2), prefixed.begin() + static_cast<long>(i + 2 + n));
    i += 2 + n;
  }
  storage.resize(storage.size() - 7);
  writeBytes("cut.awb", storage);
  std::string err;
  ASSERT_EQ(run("decode cut.awb cut.wav", &err), 0) << err;
  EXPECT_NE(err.find("cut short"), std::string::npos) << err;
}
