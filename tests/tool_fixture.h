// A fixture for tests that run the quillon tool: a fresh folder per test,
// commands run in it, files written into it.
#ifndef QUILLON_TOOL_FIXTURE_H
#define QUILLON_TOOL_FIXTURE_H

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace quillon::test {

class ToolFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = std::filesystem::temp_directory_path() /
          ("quillon-tool-" + std::to_string(::getpid()) + "-" +
           ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(dir);
  }
  void TearDown() override { std::filesystem::remove_all(dir); }

  // Runs a shell command line in `dir`; its exit status, stderr in `err`.
  int sh(const std::string& line, std::string* err = nullptr) {
    const std::string errFile = (dir / "stderr.txt").string();
    const std::string cmd = "cd '" + dir.string() + "' && (" + line + ") 2>" + errFile;
    const int status = std::system(cmd.c_str());
    if (err) {
      std::ifstream f(errFile);
      err->assign(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // Runs the tool with `args` (standard output discarded).
  int run(const std::string& args, std::string* err = nullptr) {
    return sh(std::string(QUILLON_TOOL_PATH) + " " + args + " >/dev/null", err);
  }
  // Writes `bytes` to `path` (relative paths are inside `dir`).
  void writeBytes(const std::filesystem::path& path, const std::vector<uint8_t>& bytes) {
    std::ofstream(path.is_relative() ? dir / path : path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }

  // Runs the tool with `args` in a child process (standard error
  // discarded); its exit status (-1 if it did not exit) and peak resident
  // set in KiB.
  static int runMeasured(const std::vector<std::string>& args, long& peakKiB) {
    std::vector<char*> argv = {const_cast<char*>("quillon")};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
      const int null = ::open("/dev/null", O_WRONLY);
      if (null >= 0) dup2(null, 2);
      execv(QUILLON_TOOL_PATH, argv.data());
      _exit(127);
    }
    int status = 0;
    struct rusage usage {};
    if (wait4(pid, &status, 0, &usage) != pid) return -1;
    peakKiB = usage.ru_maxrss;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::filesystem::path dir;
};

}  // namespace quillon::test

#endif
