// For targets whose parser reads a file by name: the input is written to
// one scratch file per process, rewritten for every input.
#ifndef QUILLON_FUZZ_INPUT_FILE_H
#define QUILLON_FUZZ_INPUT_FILE_H

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace quillon::fuzz {

inline const std::string& scratchPath() {
  static const std::string path = [] {
    const char* dir = std::getenv("TMPDIR");
    std::string p = std::string(dir && *dir ? dir : "/tmp") + "/quillon-fuzz-XXXXXX";
    const int fd = mkstemp(p.data());
    if (fd < 0) std::abort();
    close(fd);
    std::atexit([] { std::remove(scratchPath().c_str()); });
    return p;
  }();
  return path;
}

// The scratch file's name after writing `size` bytes to it.
inline const std::string& writeScratch(const uint8_t* data, size_t size) {
  const std::string& path = scratchPath();
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f || (size && std::fwrite(data, 1, size, f) != size) || std::fclose(f) != 0) std::abort();
  return path;
}

}  // namespace quillon::fuzz

#endif
