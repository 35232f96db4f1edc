// Runs a fuzz target's entry point on saved inputs, for builds without
// libFuzzer: every argument is a file, or a folder whose files are run in
// name order. A fault shows as a crash or a sanitizer report, as it would
// under the fuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool runFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::printf("%s (%zu bytes)\n", path.c_str(), bytes.size());
  std::fflush(stdout);
  // A copy of exactly the input's size, so that reads past it are caught.
  std::vector<uint8_t> data(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(data.empty() ? nullptr : data.data(), data.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  bool ok = true;
  for (int i = 1; i < argc; i++) {
    const std::filesystem::path arg(argv[i]);
    if (!std::filesystem::is_directory(arg)) {
      ok = runFile(arg) && ok;
      continue;
    }
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(arg)) {
      if (entry.is_regular_file()) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    for (const auto& f : files) ok = runFile(f) && ok;
  }
  return ok ? 0 : 1;
}
