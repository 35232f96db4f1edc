// `quillon text` and `quillon host` through the built tool.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "test_support.h"

namespace {

// Runs the tool with `args`; returns its exit code, stdout in `out`.
int runTool(const std::string& args, std::string& out) {
  // Named per process and test: ctest runs the cases in parallel.
  const std::filesystem::path dir = std::filesystem::temp_directory_path();
  const std::string tag = std::to_string(::getpid()) + "-" +
                          ::testing::UnitTest::GetInstance()->current_test_info()->name();
  const std::filesystem::path outFile = dir / ("quillon_tool_test-" + tag + ".out");
  const std::filesystem::path errFile = dir / ("quillon_tool_test-" + tag + ".err");
  const std::string cmd = std::string("\"") + QUILLON_TOOL_PATH + "\" " + args + " > \"" + outFile.string() +
                          "\" 2> \"" + errFile.string() + "\"";
  const int status = std::system(cmd.c_str());
  const std::vector<uint8_t> bytes = quillon::test::readFile(outFile);
  out.assign(bytes.begin(), bytes.end());
  std::error_code ignored;
  std::filesystem::remove(outFile, ignored);
  std::filesystem::remove(errFile, ignored);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST(CharsetTool, TextCommand) {
  const std::filesystem::path in =
      std::filesystem::temp_directory_path() / ("quillon_text_in-" + std::to_string(::getpid()) + ".txt");
  {
    std::ofstream f(in, std::ios::binary);
    f << "caf\xC3\xA9\n";
  }
  std::string out;
  const int rc = runTool("text --from UTF-8 --to latin1 --filter upper \"" + in.string() + "\"", out);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(out, "CAF\xC9\n");
  EXPECT_EQ(runTool("text --from gb2312 --to UTF-8 \"" + in.string() + "\"", out), 2);
}

TEST(HostInfoTool, HostCommand) {
  std::string out;
  const int rc = runTool("host", out);
  EXPECT_EQ(rc, 0);
  EXPECT_NE(out.find("version:        80.0.0 (0x500000)"), std::string::npos) << out;
  EXPECT_NE(out.find("remote session: no"), std::string::npos) << out;
}
