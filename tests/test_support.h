// Helpers shared by the tests and benchmarks: locating the conformance
// vectors, reading whole files and splitting length-prefixed streams.
#ifndef QUILLON_TEST_SUPPORT_H
#define QUILLON_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace quillon::test {

// The shared vectors folder: $QUILLON_VECTORS, else the one beside the checkout.
inline std::filesystem::path vectorsDir() {
  if (const char* env = std::getenv("QUILLON_VECTORS")) return env;
#ifdef QUILLON_VECTORS_DIR
  return QUILLON_VECTORS_DIR;
#else
  return "../shared/vectors";
#endif
}

// The vectors sub-folder `name`, or an empty path when it is absent.
inline std::filesystem::path vectorsSubdir(const std::string& name) {
  std::filesystem::path p = vectorsDir() / name;
  std::error_code ec;
  return std::filesystem::is_directory(p, ec) ? p : std::filesystem::path();
}

// The whole file. A file that cannot be opened throws (the test fails with
// its name) rather than reading as empty and comparing equal to nothing.
inline std::vector<uint8_t> readFile(const std::filesystem::path& p) {
  std::ifstream f(p, std::ios::binary);
  if (!f) throw std::runtime_error("cannot open " + p.string());
  std::vector<uint8_t> bytes(std::istreambuf_iterator<char>(f), {});
  if (f.bad()) throw std::runtime_error("cannot read " + p.string());
  return bytes;
}

// 16-bit little-endian samples (a trailing odd byte is dropped).
inline std::vector<int16_t> toPcm16(const std::vector<uint8_t>& b) {
  std::vector<int16_t> s(b.size() / 2);
  for (size_t i = 0; i < s.size(); i++) s[i] = static_cast<int16_t>(b[2 * i] | (b[2 * i + 1] << 8));
  return s;
}

inline std::vector<int16_t> readPcm16(const std::filesystem::path& p) { return toPcm16(readFile(p)); }

// Frames of a length-prefixed stream (int16 LE byte count, then the frame),
// up to the first negative or overlong count.
inline std::vector<std::vector<uint8_t>> splitFrames(const std::vector<uint8_t>& s) {
  std::vector<std::vector<uint8_t>> frames;
  size_t p = 0;
  while (p + 2 <= s.size()) {
    const int n = static_cast<int16_t>(s[p] | (s[p + 1] << 8));
    p += 2;
    if (n < 0 || p + static_cast<size_t>(n) > s.size()) break;
    frames.emplace_back(s.begin() + static_cast<long>(p), s.begin() + static_cast<long>(p + n));
    p += static_cast<size_t>(n);
  }
  return frames;
}

// Index of the first differing sample, or -1 when equal (sizes included).
inline long firstMismatch(const std::vector<int16_t>& a, const std::vector<int16_t>& b) {
  size_t n = a.size() < b.size() ? a.size() : b.size();
  for (size_t i = 0; i < n; i++)
    if (a[i] != b[i]) return static_cast<long>(i);
  return a.size() == b.size() ? -1 : static_cast<long>(n);
}

}  // namespace quillon::test

// Declares `dirVar` as the vectors sub-folder `name`. When it is missing the
// test skips, saying so, or fails in a build that requires the vectors
// (QUILLON_VECTORS_REQUIRED, set by -DQUILLON_REQUIRE_VECTORS=ON).
#ifdef QUILLON_VECTORS_REQUIRED
#define QUILLON_MISSING_VECTORS FAIL
#else
#define QUILLON_MISSING_VECTORS GTEST_SKIP
#endif
#define QUILLON_REQUIRE_VECTORS(dirVar, name)                                                       \
  const std::filesystem::path dirVar = ::quillon::test::vectorsSubdir(name);                       \
  if (dirVar.empty())                                                                               \
  QUILLON_MISSING_VECTORS() << "conformance vectors not found: " << (::quillon::test::vectorsDir() / name) \
                            << " (set QUILLON_VECTORS to the vectors folder)"

#endif
