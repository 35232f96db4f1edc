// What a long-running, multi-threaded host relies on: decoders of every
// codec on parallel threads (the engine front's table is filled by whichever
// thread comes first), fatal errors that a host can catch instead of losing
// the process, and a ring that grows without writing past its storage.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>
#include <latch>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "engines/g729/dsp.h"
#include "quillon/audio_format.h"
#include "quillon/codec.h"
#include "quillon/fatal_error.h"
#include "quillon/quillon_c.h"
#include "quillon/ring_buffer.h"
#include "quillon/trace.h"
#include "test_support.h"

namespace fs = std::filesystem;
using namespace TAV;
using quillon::test::firstMismatch;
using quillon::test::readFile;
using quillon::test::readPcm16;

namespace {

// The G.729 arithmetic's division, reachable from the test.
struct DspProbe : quillon::g729a::Dsp {
  using Dsp::div_s;
};

struct Stream {
  int code;
  const char* dir;
  const char* name;
};

// One stream a family, each decodable through the C interface in one call.
const Stream kStreams[] = {
    {1, "g711", "hts12-a.alaw"},        {2, "g711", "hts12-u.ulaw"},   {4, "g726", nullptr},
    {20, "g729", "hts12.g729"},         {40, "tetra", "tetra_hts1a.tet"}, {50, "g722", "orig16k-m1.g722"},
    {65, "amrwb", "orig16k-mode2.amrwb"},
};

// The first file of `dir` ending in `suffix` when `name` is null.
fs::path streamPath(const fs::path& vectors, const Stream& s) {
  const fs::path d = vectors / s.dir;
  if (s.name) return d / s.name;
  for (const auto& e : fs::directory_iterator(d))
    if (e.path().filename().string().ends_with(".g726-32-msb")) return e.path();
  return {};
}

// AMR-WB has no C decoder code; its codec class decodes the whole stream.
std::vector<int16_t> decodeWithCodec(int code, const std::vector<uint8_t>& in) {
  Codec* codec = Codec::getCodec(AudioFormat(static_cast<CompressionType>(code), 1), false);
  if (!codec) return {};
  std::vector<int16_t> out(in.size() * 32 + (1 << 19));
  uint32 bytes = static_cast<uint32>(in.size());
  out.resize(codec->decode(in.data(), bytes, out.data(), static_cast<uint32>(out.size() * 2)) / 2);
  delete codec;
  return out;
}

std::vector<int16_t> decodeWithCApi(int code, const std::vector<uint8_t>& in) {
  const quillon_decoder_handle h = decoder_create(code);
  if (!h) return decodeWithCodec(code, in);
  std::vector<int16_t> out;
  if (decoder_open(h, 100) == 1) {
    std::vector<uint8_t> room(in.size() * 64 + (1 << 20));
    const unsigned n = decode_decode(h, in.data(), room.data(), static_cast<unsigned>(in.size()));
    out.resize(n / 2);
    std::memcpy(out.data(), room.data(), out.size() * 2);
    decoder_close(h);
  }
  decoder_release(h);
  return out;
}

}  // namespace

// Every thread starts its decoders at the same moment, so the first use of
// the engine front happens on several threads at once.
TEST(ParallelDecoders, EveryCodecOnManyThreadsMatchesItsReference) {
  QUILLON_REQUIRE_VECTORS(vectors, "");
  struct Case {
    int code;
    std::vector<uint8_t> in;
    std::vector<int16_t> expected;
  };
  std::vector<Case> cases;
  for (const Stream& s : kStreams) {
    const fs::path p = streamPath(vectors, s);
    ASSERT_TRUE(fs::is_regular_file(p)) << "missing vector " << p;
    Case c{s.code, readFile(p), readPcm16(fs::path(p).replace_extension(".pcm"))};
    ASSERT_FALSE(c.in.empty() || c.expected.empty()) << p;
    cases.push_back(std::move(c));
  }
  // The engine front traces every call; the lines go to one file from all threads.
  FILE* trace = std::tmpfile();
  ASSERT_NE(trace, nullptr);
  quillon_set_trace_sink(trace);
  constexpr int kThreadsPerCodec = 3;
  const size_t total = cases.size() * kThreadsPerCodec;
  std::vector<std::vector<int16_t>> results(total);
  std::latch start(static_cast<std::ptrdiff_t>(total));
  std::vector<std::thread> threads;
  for (size_t i = 0; i < total; i++) {
    threads.emplace_back([&, i] {
      const Case& c = cases[i % cases.size()];
      start.arrive_and_wait();
      results[i] = decodeWithCApi(c.code, c.in);
    });
  }
  for (std::thread& t : threads) t.join();
  quillon_set_trace_sink(nullptr);
  std::fclose(trace);
  for (size_t i = 0; i < total; i++) {
    const Case& c = cases[i % cases.size()];
    EXPECT_EQ(firstMismatch(results[i], c.expected), -1) << "code " << c.code << ", thread " << i;
  }
}

namespace {

struct HandlerLog {
  int calls = 0;
  int status = -1;
  std::string message;
};

void QUILLON_STDCALL recordFatal(const char* message, int status, void* context) {
  auto* log = static_cast<HandlerLog*>(context);
  log->calls++;
  log->status = status;
  log->message = message;
}

// Installs the recording handler for one test and takes it away after.
class FatalHook : public ::testing::Test {
 protected:
  void SetUp() override { previous = quillon_set_fatal_handler(recordFatal, &log); }
  void TearDown() override {
    quillon_set_fatal_handler(previous, nullptr);
    quillon_set_trace_sink(nullptr);
  }
  HandlerLog log;
  quillon_fatal_handler previous = nullptr;
};

// Whole G.729 frames of a reference stream and its expected output.
struct G729Stream {
  std::vector<uint8_t> bits;
  std::vector<int16_t> pcm;
};

G729Stream g729Stream(const fs::path& dir) {
  const fs::path p = dir / "hts12.g729";
  G729Stream s{readFile(p), readPcm16(fs::path(p).replace_extension(".pcm"))};
  EXPECT_FALSE(s.bits.empty() || s.pcm.empty()) << "missing vector " << p;
  return s;
}

// /dev/full takes the write and fails it when the line is flushed.
FILE* failingSink() { return std::fopen("/dev/full", "w"); }

}  // namespace

TEST_F(FatalHook, HandlerReturnsThePreviousOneAndNullRestoresTheDefault) {
  EXPECT_EQ(quillon_set_fatal_handler(nullptr, nullptr), recordFatal);
  EXPECT_EQ(quillon_set_fatal_handler(recordFatal, &log), nullptr);
}

TEST_F(FatalHook, DivisionErrorThrowsWithTheMessageAndStatus) {
  try {
    DspProbe().div_s(5, 3);
    FAIL() << "no exception";
  } catch (const FatalError& e) {
    EXPECT_EQ(e.status(), 0);
    EXPECT_STREQ(e.what(), "Division Error var1=5  var2=3\n");
  }
  EXPECT_EQ(log.calls, 1);
  EXPECT_EQ(log.status, 0);
  EXPECT_EQ(log.message, "Division Error var1=5  var2=3\n");
  EXPECT_THROW(DspProbe().div_s(0, 0), FatalError);
  EXPECT_EQ(log.message, "Division by 0, Fatal error \n");
}

// A failed trace write in the middle of a stream fails that call; the codec
// is reset, so the stream decodes from its start as from a new codec.
TEST_F(FatalHook, FailedTraceWriteThrowsThroughTheCodecAndResetsIt) {
  QUILLON_REQUIRE_VECTORS(vectors, "g729");
  const G729Stream s = g729Stream(vectors);
  ASSERT_GE(s.bits.size(), 200u);
  Codec* codec = Codec::getCodec(AudioFormat(CT_G729, 1), false);
  ASSERT_NE(codec, nullptr);
  FILE* good = std::tmpfile();
  ASSERT_NE(good, nullptr);
  quillon_set_trace_sink(good);
  std::vector<int16_t> out(s.bits.size() * 8 + 1024);
  uint32 bytes = 100;
  ASSERT_GT(codec->decode(s.bits.data(), bytes, out.data(), 2000), 0u);

  FILE* full = failingSink();
  ASSERT_NE(full, nullptr);
  quillon_set_trace_sink(full);
  bytes = 100;
  EXPECT_THROW(codec->decode(s.bits.data() + 100, bytes, out.data(), 2000), FatalError);
  EXPECT_EQ(log.status, 1);
  EXPECT_EQ(log.message, "codecLib_printf problem \n");

  quillon_set_trace_sink(good);
  uint32 all = static_cast<uint32>(s.bits.size());
  const uint32 made = codec->decode(s.bits.data(), all, out.data(), static_cast<uint32>(out.size() * 2));
  out.resize(made / 2);
  EXPECT_EQ(firstMismatch(out, s.pcm), -1);
  delete codec;
  quillon_set_trace_sink(nullptr);
  std::fclose(full);
  std::fclose(good);
}

TEST_F(FatalHook, FailedTraceWriteIsAnErrorResultThroughTheCInterface) {
  QUILLON_REQUIRE_VECTORS(vectors, "g729");
  const G729Stream s = g729Stream(vectors);
  FILE* full = failingSink();
  ASSERT_NE(full, nullptr);
  quillon_set_trace_sink(full);
  const quillon_decoder_handle h = decoder_create(20);
  ASSERT_NE(h, 0u);
  ASSERT_EQ(decoder_open(h, 100), 1);
  std::vector<uint8_t> room(s.bits.size() * 16 + 4096);
  EXPECT_EQ(decode_decode(h, s.bits.data(), room.data(), 100), 0u);
  EXPECT_EQ(log.calls, 1);

  quillon_set_trace_sink(nullptr);
  const unsigned n = decode_decode(h, s.bits.data(), room.data(), static_cast<unsigned>(s.bits.size()));
  std::vector<int16_t> pcm(n / 2);
  std::memcpy(pcm.data(), room.data(), n);
  EXPECT_EQ(firstMismatch(pcm, s.pcm), -1);
  EXPECT_EQ(decoder_close(h), 1);
  EXPECT_NE(decoder_release(h), 0);
  std::fclose(full);
}

// Without a handler both paths still end the process as they always have.
TEST(FatalDefault, EndsTheProcessWithTheDocumentedStatus) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(DspProbe().div_s(5, 3), ::testing::ExitedWithCode(0), "");
  QUILLON_REQUIRE_VECTORS(vectors, "g729");
  const G729Stream s = g729Stream(vectors);
  EXPECT_EXIT(
      {
        quillon_set_trace_sink(failingSink());
        std::vector<uint8_t> room(4096);
        const quillon_decoder_handle h = decoder_create(20);
        decoder_open(h, 100);
        decode_decode(h, s.bits.data(), room.data(), 100);
        std::exit(3);
      },
      ::testing::ExitedWithCode(1), "");
}

// A ring whose writer has wrapped behind its reader reports more readable
// bytes than it stores; growing it must still copy only what fits.
TEST(RingBuffer, GrowingAWrappedRingStaysInsideTheNewStorage) {
  RingBuffer r(10);
  const unsigned char bytes[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  unsigned char sink[16];
  ASSERT_EQ(r.write(bytes, 8), 8u);
  ASSERT_EQ(r.read(sink, 5), 5u);
  ASSERT_EQ(r.write(bytes, 4), 4u);
  ASSERT_EQ(r.bytesToRead(), 13u);
  r.setBufferSize(11);
  EXPECT_EQ(r.bytesToRead(), 0u);
  EXPECT_EQ(r.bytesToWrite(), 11u);
  ASSERT_EQ(r.write(bytes, 11), 11u);
  ASSERT_EQ(r.read(sink, 16), 11u);
  EXPECT_EQ(std::memcmp(sink, bytes, 11), 0);
}

// Random writes, reads and growths; under AddressSanitizer any copy outside
// the storage stops the test.
TEST(RingBuffer, RandomWritesReadsAndGrowthsStayInBounds) {
  std::mt19937 rng(20261123);
  std::vector<unsigned char> data(4096), sink(4096);
  for (size_t i = 0; i < data.size(); i++) data[i] = static_cast<unsigned char>(rng());
  for (int round = 0; round < 200; round++) {
    RingBuffer r(1 + rng() % 64);
    unsigned capacity = r.bytesToWrite();
    for (int step = 0; step < 60; step++) {
      const unsigned n = rng() % 96;
      switch (rng() % 3) {
        case 0: r.write(data.data(), n); break;
        case 1: r.read(sink.data(), n); break;
        default: {
          const unsigned grown = capacity + rng() % 48;
          r.setBufferSize(grown);
          if (grown > capacity) {
            EXPECT_EQ(r.bytesToRead(), 0u);
            capacity = grown;
          }
        }
      }
    }
  }
}

namespace {

void putLe(std::vector<uint8_t>& b, uint32_t v, int bytes) {
  for (int i = 0; i < bytes; i++) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// A WAVE file around coded bytes, as recorders write G.729 and G.722.
void writeCodedWave(const fs::path& p, uint16_t tag, uint32_t rate, uint32_t byteRate, uint16_t align, uint16_t bits,
                    const std::vector<uint8_t>& data) {
  std::vector<uint8_t> b = {'R', 'I', 'F', 'F'};
  putLe(b, static_cast<uint32_t>(36 + data.size()), 4);
  for (char c : std::string("WAVEfmt ")) b.push_back(static_cast<uint8_t>(c));
  putLe(b, 16, 4);
  putLe(b, tag, 2);
  putLe(b, 1, 2);
  putLe(b, rate, 4);
  putLe(b, byteRate, 4);
  putLe(b, align, 2);
  putLe(b, bits, 2);
  for (char c : std::string("data")) b.push_back(static_cast<uint8_t>(c));
  putLe(b, static_cast<uint32_t>(data.size()), 4);
  b.insert(b.end(), data.begin(), data.end());
  std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

// The length-prefixed AMR-WB frames as an AMR-WB storage file.
void writeAmrWbStorage(const fs::path& p, const std::vector<uint8_t>& prefixed) {
  std::vector<uint8_t> b;
  for (char c : std::string("#!AMR-WB\n")) b.push_back(static_cast<uint8_t>(c));
  for (size_t i = 0; i + 2 <= prefixed.size();) {
    const size_t n = static_cast<size_t>(prefixed[i] | (prefixed[i + 1] << 8));
    i += 2;
    b.insert(b.end(), prefixed.begin() + static_cast<long>(i), prefixed.begin() + static_cast<long>(i + n));
    i += n;
  }
  std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

int runTool(const std::string& args, const fs::path& log) {
  const std::string cmd = std::string(QUILLON_TOOL_PATH) + " " + args + " >" + log.string() + " 2>&1";
  const int status = std::system(cmd.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

// Four workers meeting G.729, G.722 and AMR-WB files at the same moment,
// several times over: every file converts, every time, to its reference.
TEST(ParallelBatch, MixedEngineTreeConvertsWhole) {
  QUILLON_REQUIRE_VECTORS(vectors, "");
  const fs::path root = fs::temp_directory_path() / ("quillon-parallel-" + std::to_string(::getpid()));
  fs::remove_all(root);
  fs::create_directories(root / "in");
  const fs::path g729 = vectors / "g729" / "hts12.g729", g722 = vectors / "g722" / "orig16k-m1.g722",
                 amrwb = vectors / "amrwb" / "orig16k-mode2.amrwb";
  struct Expect {
    std::string stem;
    size_t samples;
  };
  std::vector<Expect> expected;
  const std::vector<uint8_t> g729Bits = readFile(g729), g722Bits = readFile(g722), amrBits = readFile(amrwb);
  ASSERT_FALSE(g729Bits.empty() || g722Bits.empty() || amrBits.empty()) << "missing vectors";
  const size_t g729Samples = readPcm16(fs::path(g729).replace_extension(".pcm")).size();
  const size_t g722Samples = readPcm16(fs::path(g722).replace_extension(".pcm")).size();
  const size_t amrSamples = readPcm16(fs::path(amrwb).replace_extension(".pcm")).size();
  for (int i = 0; i < 8; i++) {
    const std::string n = std::to_string(i);
    writeCodedWave(root / "in" / ("g729-" + n + ".wav"), 0x83, 8000, 1000, 10, 0, g729Bits);
    writeCodedWave(root / "in" / ("g722-" + n + ".wav"), 0x028F, 16000, 8000, 1, 4, g722Bits);
    writeAmrWbStorage(root / "in" / ("amrwb-" + n + ".amr"), amrBits);
    expected.push_back({"g729-" + n, g729Samples});
    expected.push_back({"g722-" + n, g722Samples});
    expected.push_back({"amrwb-" + n, amrSamples});
  }
  for (int run = 0; run < 3; run++) {
    ASSERT_EQ(runTool("batch --codec auto --force --jobs 4 " + (root / "in").string() + " " + (root / "out").string(),
                      root / "log.txt"),
              0)
        << "run " << run;
    for (const Expect& e : expected) {
      const fs::path out = root / "out" / (e.stem + ".wav");
      ASSERT_TRUE(fs::exists(out)) << out;
      EXPECT_GE(fs::file_size(out), 44 + 2 * e.samples - 2 * 320) << out;
    }
  }
  fs::remove_all(root);
}
