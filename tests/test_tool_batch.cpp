// quillon batch end to end.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "quillon/audio_format.h"
#include "test_support.h"

namespace fs = std::filesystem;
using namespace TAV;

class BatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = fs::temp_directory_path() / ("quillon-batch-" + std::to_string(::getpid()));
    fs::remove_all(root);
    fs::create_directories(root / "in" / "day1" / "room");
  }
  void TearDown() override { fs::remove_all(root); }
  int batch(const std::string& args) {
    const std::string cmd = std::string(QUILLON_TOOL_PATH) + " batch " + args + " >" + (root / "out.txt").string() +
                            " 2>" + (root / "err.txt").string();
    const int status = std::system(cmd.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void writeAlawWave(const fs::path& p, size_t n) {
    WaveHeader h{};
    AudioFormat(CT_G711_ALAW, 1).fillWaveHeader(h, static_cast<uint32_t>(n));
    std::ofstream f(p, std::ios::binary);
    f.write(reinterpret_cast<const char*>(&h), sizeof h);
    std::vector<char> data(n, static_cast<char>(0xd5));
    f.write(data.data(), static_cast<std::streamsize>(n));
  }
  std::string text(const fs::path& p) {
    std::ifstream f(p);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
  }
  fs::path root;
};

TEST_F(BatchTest, MirrorsTheTreeAndReportsFailures) {
  writeAlawWave(root / "in" / "a.wav", 8000);
  writeAlawWave(root / "in" / "day1" / "room" / "b.wav", 16000);
  std::ofstream(root / "in" / "day1" / "notes.txt") << "not audio";
  const fs::path out = root / "out";
  EXPECT_EQ(batch("--codec auto --jobs 3 " + (root / "in").string() + " " + out.string()), 1);
  EXPECT_EQ(fs::file_size(out / "a.wav"), 44u + 16000u);
  EXPECT_EQ(fs::file_size(out / "day1" / "room" / "b.wav"), 44u + 32000u);
  EXPECT_FALSE(fs::exists(out / "day1" / "notes.wav"));
  EXPECT_FALSE(fs::exists(out / "day1" / "notes.wav.part"));
  const std::string summary = text(out / "quillon-batch-summary.txt");
  EXPECT_NE(summary.find("failed\t" + (root / "in" / "day1" / "notes.txt").string()), std::string::npos);
  EXPECT_NE(text(root / "out.txt").find("2 converted, 0 skipped"), std::string::npos);
  EXPECT_NE(text(root / "err.txt").find("--codec"), std::string::npos);

  // Converted files are skipped on the next run unless --force.
  fs::remove(root / "in" / "day1" / "notes.txt");
  fs::resize_file(out / "a.wav", 10);
  EXPECT_EQ(batch("--codec auto " + (root / "in").string() + " " + out.string()), 0);
  EXPECT_NE(text(root / "out.txt").find("0 converted, 2 skipped"), std::string::npos);
  EXPECT_EQ(fs::file_size(out / "a.wav"), 10u);
  EXPECT_EQ(batch("--codec auto --force " + (root / "in").string() + " " + out.string()), 0);
  EXPECT_EQ(fs::file_size(out / "a.wav"), 44u + 16000u);
  EXPECT_EQ(batch("--codec auto " + (root / "missing").string() + " " + out.string()), 1);
  EXPECT_EQ(batch("--jobs 2 " + (root / "in").string() + " " + out.string()), 2);
}
