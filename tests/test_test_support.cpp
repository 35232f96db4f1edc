// The vector readers: a file that is not there must not read as empty (an
// empty expected output would compare equal to an empty decode).
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "test_support.h"

namespace fs = std::filesystem;

TEST(TestSupport, MissingFilesThrowAndEmptyFilesReadEmpty) {
  const fs::path dir = fs::temp_directory_path() / ("quillon_test_support-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  EXPECT_THROW(quillon::test::readFile(dir / "absent.g729"), std::runtime_error);
  EXPECT_THROW(quillon::test::readPcm16(dir / "absent.pcm"), std::runtime_error);
  EXPECT_THROW(quillon::test::readFile(dir), std::runtime_error);  // a folder is not a file
  std::ofstream(dir / "empty.pcm").close();
  EXPECT_TRUE(quillon::test::readPcm16(dir / "empty.pcm").empty());
  std::ofstream(dir / "two.pcm", std::ios::binary) << std::string("\x01\x80\xff\x7f", 4);
  EXPECT_EQ(quillon::test::readPcm16(dir / "two.pcm"), (std::vector<int16_t>{-32767, 32767}));
  fs::remove_all(dir);
}
