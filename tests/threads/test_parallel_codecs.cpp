// Decoding on several threads at once: decoders of every codecLib codec
// (and the standalone G.729 Annex A codec) created and run in parallel from
// a cold start, and the tool's batch conversion of a mixed tree with four
// workers. Built on its own so that the ThreadSanitizer build needs nothing
// else; it checks that the results equal those of one thread.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "quillon/codec.h"
#include "quillon/codecs/codec_g729a.h"
#include "quillon/trace.h"
#include "test_support.h"

namespace fs = std::filesystem;
using TAV::AudioFormat;
using TAV::Codec;
using TAV::CompressionType;

namespace {

struct Stream {
  CompressionType code;
  bool standalone;  // TAV::CodecG729A instead of the factory's codec
  std::vector<uint8_t> coded;
};

// The first `frames` frames of a length-prefixed stream.
std::vector<uint8_t> firstPrefixedFrames(const std::vector<uint8_t>& s, size_t frames) {
  size_t at = 0;
  for (size_t f = 0; f < frames && at + 2 <= s.size(); f++) at += 2 + (s[at] | (s[at + 1] << 8));
  return std::vector<uint8_t>(s.begin(), s.begin() + static_cast<long>(std::min(at, s.size())));
}

std::vector<uint8_t> head(std::vector<uint8_t> s, size_t bytes) {
  s.resize(std::min(bytes, s.size()));
  return s;
}

// Short pieces of the shared streams (the sanitizer builds run them too).
std::vector<Stream> loadStreams() {
  std::vector<Stream> streams;
  const fs::path g729 = quillon::test::vectorsSubdir("g729");
  const fs::path g722 = quillon::test::vectorsSubdir("g722");
  const fs::path amrwb = quillon::test::vectorsSubdir("amrwb");
  if (g729.empty() || g722.empty() || amrwb.empty()) return streams;
  const std::vector<uint8_t> g729Bytes = head(quillon::test::readFile(g729 / "hts12.g729"), 1500);
  streams.push_back({TAV::CT_G729, false, g729Bytes});
  streams.push_back({TAV::CT_G729, true, g729Bytes});
  streams.push_back({TAV::CT_G722, false, head(quillon::test::readFile(g722 / "orig16k-m1.g722"), 6000)});
  streams.push_back({TAV::CT_G722_MODE2, false, head(quillon::test::readFile(g722 / "orig16k-m2.g722"), 6000)});
  streams.push_back({TAV::CT_AMRWB, false, firstPrefixedFrames(quillon::test::readFile(amrwb / "orig16k-mode2.amrwb"), 40)});
  return streams;
}

// Decodes a whole stream from a fresh codec in one call.
std::vector<int16_t> decodeStream(const Stream& s) {
  std::unique_ptr<Codec> codec;
  if (s.standalone) {
    auto g729a = std::make_unique<TAV::CodecG729A>();
    if (!g729a->open(AudioFormat(s.code, 1), false) || !g729a->init()) return {};
    codec = std::move(g729a);
  } else {
    codec.reset(Codec::getCodec(AudioFormat(s.code, 1), false));
  }
  if (!codec) return {};
  std::vector<int16_t> out(s.coded.size() * 20);
  uint32_t n = static_cast<uint32_t>(s.coded.size());
  const uint32_t bytes = codec->decode(s.coded.data(), n, out.data(), static_cast<uint32_t>(out.size()));
  out.resize(std::min<size_t>(bytes / 2, out.size()));
  return out;
}

}  // namespace

TEST(Threads, ParallelDecodersMatchOneThread) {
  const std::vector<Stream> streams = loadStreams();
  if (streams.empty()) GTEST_SKIP() << "conformance vectors not found under " << quillon::test::vectorsDir();
  quillon_set_trace_sink(nullptr);  // codecLib traces every G.729 and G.722 call

  // No codec has been used yet in this process: the threads meet the
  // engine's first use together.
  constexpr int kThreads = 6;
  constexpr int kRounds = 2;
  std::vector<std::vector<std::vector<int16_t>>> results(kThreads);
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      ready++;
      while (ready.load() < kThreads) std::this_thread::yield();
      for (int r = 0; r < kRounds; r++)
        for (size_t i = 0; i < streams.size(); i++) {
          const Stream& s = streams[(i + static_cast<size_t>(t)) % streams.size()];
          results[t].push_back(decodeStream(s));
        }
    });
  }
  for (std::thread& th : threads) th.join();

  for (size_t i = 0; i < streams.size(); i++) {
    const std::vector<int16_t> alone = decodeStream(streams[i]);
    ASSERT_GT(alone.size(), 100u) << "stream " << i;
    for (int t = 0; t < kThreads; t++)
      for (int r = 0; r < kRounds; r++) {
        const size_t k = static_cast<size_t>(r) * streams.size() + (i + streams.size() - static_cast<size_t>(t) % streams.size()) % streams.size();
        EXPECT_EQ(quillon::test::firstMismatch(results[t][k], alone), -1) << "stream " << i << " thread " << t;
      }
  }
}

namespace {

void writeFile(const fs::path& p, const std::vector<uint8_t>& header, const std::vector<uint8_t>& body) {
  fs::create_directories(p.parent_path());
  std::ofstream f(p, std::ios::binary);
  f.write(reinterpret_cast<const char*>(header.data()), static_cast<std::streamsize>(header.size()));
  f.write(reinterpret_cast<const char*>(body.data()), static_cast<std::streamsize>(body.size()));
}

void put32(std::vector<uint8_t>& v, uint32_t x) {
  for (int i = 0; i < 4; i++) v.push_back(static_cast<uint8_t>(x >> (8 * i)));
}
void put16(std::vector<uint8_t>& v, uint32_t x) {
  for (int i = 0; i < 2; i++) v.push_back(static_cast<uint8_t>(x >> (8 * i)));
}
void putText(std::vector<uint8_t>& v, const char* s) { v.insert(v.end(), s, s + std::strlen(s)); }

// A WAVE header for G.729 data (format tag 0x83, 8000 Hz mono).
std::vector<uint8_t> g729WaveHeader(uint32_t dataBytes) {
  std::vector<uint8_t> h;
  putText(h, "RIFF");
  put32(h, 36 + dataBytes);
  putText(h, "WAVEfmt ");
  put32(h, 16);
  put16(h, 0x83);
  put16(h, 1);
  put32(h, 8000);
  put32(h, 1000);
  put16(h, 10);
  put16(h, 0);
  putText(h, "data");
  put32(h, dataBytes);
  return h;
}

// The frames of a length-prefixed AMR-WB stream without their prefixes.
std::vector<uint8_t> storageFrames(const std::vector<uint8_t>& s) {
  std::vector<uint8_t> out;
  for (size_t at = 0; at + 2 <= s.size();) {
    const size_t n = s[at] | (s[at + 1] << 8);
    out.insert(out.end(), s.begin() + static_cast<long>(at + 2), s.begin() + static_cast<long>(std::min(at + 2 + n, s.size())));
    at += 2 + n;
  }
  return out;
}

std::vector<uint8_t> bytesOf(const fs::path& p) { return quillon::test::readFile(p); }

class ThreadsBatch : public ::testing::Test {
 protected:
  void SetUp() override {
    root = fs::temp_directory_path() / ("quillon-threads-" + std::to_string(::getpid()));
    fs::remove_all(root);
  }
  void TearDown() override { fs::remove_all(root); }
  int batch(const std::string& args, const std::string& log) {
    const std::string cmd = std::string(QUILLON_TOOL_PATH) + " batch " + args + " >" + (root / log).string() +
                            " 2>&1";
    const int status = std::system(cmd.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  fs::path root;
};

}  // namespace

TEST_F(ThreadsBatch, MixedTreeWithFourWorkersMatchesOneWorker) {
  const std::vector<Stream> streams = loadStreams();
  if (streams.empty()) GTEST_SKIP() << "conformance vectors not found under " << quillon::test::vectorsDir();
  const std::vector<uint8_t>& g729 = streams[0].coded;
  const std::vector<uint8_t>& g722 = streams[2].coded;
  const std::vector<uint8_t> amrwb = storageFrames(streams[4].coded);
  const std::vector<uint8_t> amrMagic = {'#', '!', 'A', 'M', 'R', '-', 'W', 'B', '\n'};
  // Files of the three codecLib codecs side by side, so that the workers
  // start on different codecs at once.
  for (int i = 0; i < 4; i++) {
    const fs::path dir = root / "in" / ("call" + std::to_string(i));
    writeFile(dir / "g729.wav", g729WaveHeader(static_cast<uint32_t>(g729.size())), g729);
    writeFile(dir / "amrwb.awb", amrMagic, amrwb);
    writeFile(root / "g722" / ("call" + std::to_string(i)) / "g722.raw", {}, g722);
  }
  ASSERT_EQ(batch("--codec auto --jobs 4 " + (root / "in").string() + " " + (root / "out4").string(), "log4.txt"), 0)
      << bytesOf(root / "log4.txt").data();
  ASSERT_EQ(batch("--codec auto --jobs 1 " + (root / "in").string() + " " + (root / "out1").string(), "log1.txt"), 0);
  // G.722 has no container the tool recognises: a raw tree with the codec named.
  ASSERT_EQ(batch("--codec g722 --jobs 4 " + (root / "g722").string() + " " + (root / "g722-out4").string(), "log5.txt"), 0);
  ASSERT_EQ(batch("--codec g722 --jobs 1 " + (root / "g722").string() + " " + (root / "g722-out1").string(), "log6.txt"), 0);

  for (int i = 0; i < 4; i++) {
    const fs::path call = fs::path("call" + std::to_string(i));
    for (const char* name : {"g729.wav", "amrwb.wav"}) {
      const std::vector<uint8_t> one = bytesOf(root / "out1" / call / name);
      EXPECT_GT(one.size(), 44u + 1000u) << name;
      EXPECT_EQ(bytesOf(root / "out4" / call / name), one) << call << "/" << name;
    }
    const std::vector<uint8_t> one = bytesOf(root / "g722-out1" / call / "g722.wav");
    EXPECT_GT(one.size(), 44u + 1000u);
    EXPECT_EQ(bytesOf(root / "g722-out4" / call / "g722.wav"), one) << call;
  }
}
