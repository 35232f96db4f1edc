// TAV::CodecBench: files, printed texts and label pairing, in a scratch
// working directory, with the scripted engine behind descriptor 25.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "codeclib_fake.h"
#include "quillon/codec_bench.h"
#include "test_support.h"

#if defined(__SANITIZE_ADDRESS__)
#define QUILLON_TEST_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QUILLON_TEST_LSAN 1
#endif
#endif
#ifdef QUILLON_TEST_LSAN
#include <sanitizer/lsan_interface.h>
#endif

namespace fs = std::filesystem;
using quillon::test::FakeSlot;

namespace {

// Runs the bench in a fresh scratch directory and returns what it printed.
class BenchRun {
 public:
  BenchRun() : old_(fs::current_path()) {
    dir_ = fs::temp_directory_path() / ("quillon_bench_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
                                        "_" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    fs::current_path(dir_);
  }
  ~BenchRun() {
    fs::current_path(old_);
    fs::remove_all(dir_);
  }
  std::string run(unsigned loops) {
    std::ostringstream captured;
    std::streambuf* saved = std::cout.rdbuf(captured.rdbuf());
    {
#ifdef QUILLON_TEST_LSAN
      __lsan::ScopedDisabler keep;  // the bench never releases its buffers
#endif
      TAV::CodecBench bench;
      bench.testCodecLibG729A(loops);
    }
    std::cout.rdbuf(saved);
    return captured.str();
  }
  fs::path dir_;

 private:
  fs::path old_;
};

// The text with each run of digits after `mark` (and a space) shown as '#'.
std::string withoutDigitsAfter(const std::string& text, char mark) {
  std::string r;
  for (size_t i = 0; i < text.size(); i++) {
    r += text[i];
    if (text[i] != mark) continue;
    if (i + 1 < text.size() && text[i + 1] == ' ') r += text[++i];
    size_t j = i + 1;
    while (j < text.size() && text[j] >= '0' && text[j] <= '9') j++;
    if (j > i + 1) r += '#';
    i = j - 1;
  }
  return r;
}

}  // namespace

TEST(CodecBench, MissingInputPrintsTwoLinesAndWritesNothing) {
  BenchRun r;
  EXPECT_EQ(r.run(3),
            "failed to open testVectors\\sample16.pcm\n"
            "assert that testVectors\\sample16.pcm is in working directory\n");
  EXPECT_TRUE(fs::is_empty(r.dir_));
}

TEST(CodecBench, EncodesOnceAndDecodesTheChosenNumberOfTimes) {
  FakeSlot slot(25);
  quillon::test::TraceMuted mute;
  BenchRun r;
  fs::create_directory("testVectors");
  // 159 samples: one frame, 79 samples held back, so the encoder leaves
  // size1 at 158 and the decoder gets room for 158 samples.
  std::vector<char> pcm(318, 1);
  std::ofstream("testVectors/sample16.pcm", std::ios::binary).write(pcm.data(), pcm.size());

  std::string text = r.run(0);
  EXPECT_EQ(withoutDigitsAfter(text, ':'),
            "Duration testCodecLibG729A Encoding :#\n"
            "size2 10  retsize 0  size1 158\n"
            "Duration testCodecLibG729A Decoding: #\n");
  EXPECT_EQ(quillon::test::readFile("testVectors/outencoded.g729").size(), 10u);
  EXPECT_TRUE(fs::exists("testVectors/testCodecLibG729A.pcm"));
  EXPECT_EQ(fs::file_size("testVectors/testCodecLibG729A.pcm"), 0u);

  // One pass decodes the frame and holds nothing back; a second pass then
  // has 0 bytes to decode.
  text = r.run(1);
  EXPECT_NE(text.find("size2 0  retsize 160  size1 158\n"), std::string::npos) << text;
  EXPECT_EQ(fs::file_size("testVectors/testCodecLibG729A.pcm"), 160u);
  text = r.run(2);
  EXPECT_NE(text.find("size2 0  retsize 0  size1 158\n"), std::string::npos) << text;
  EXPECT_EQ(fs::file_size("testVectors/testCodecLibG729A.pcm"), 0u);

  // A longer file leaves too little room for the frames: zero counts.
  pcm.assign(1000, 1);
  std::ofstream("testVectors/sample16.pcm", std::ios::binary).write(pcm.data(), pcm.size());
  text = r.run(1);
  EXPECT_NE(text.find("size2 0  retsize 0  size1 40\n"), std::string::npos) << text;
  EXPECT_EQ(quillon::test::readFile("testVectors/outencoded.g729").size(), 60u);
}

#ifndef _WIN32
// Without a testVectors folder the names as written are plain files of the
// working directory.
TEST(CodecBench, NamesAsWrittenWithoutTheFolder) {
  FakeSlot slot(25);
  quillon::test::TraceMuted mute;
  BenchRun r;
  std::vector<char> pcm(318, 1);
  std::ofstream("testVectors\\sample16.pcm", std::ios::binary).write(pcm.data(), pcm.size());
  const std::string text = r.run(1);
  EXPECT_NE(text.find("size2 0  retsize 160  size1 158\n"), std::string::npos) << text;
  EXPECT_EQ(fs::file_size("testVectors\\outencoded.g729"), 10u);
  EXPECT_EQ(fs::file_size("testVectors\\testCodecLibG729A.pcm"), 160u);
}
#endif
