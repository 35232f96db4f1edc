// Helpers shared by the tests: locating the conformance vectors and
// reading whole files.
#ifndef QUILLON_TEST_SUPPORT_H
#define QUILLON_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
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

inline std::vector<uint8_t> readFile(const std::filesystem::path& p) {
  std::ifstream f(p, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

inline std::vector<int16_t> readPcm16(const std::filesystem::path& p) {
  std::vector<uint8_t> b = readFile(p);
  std::vector<int16_t> s(b.size() / 2);
  for (size_t i = 0; i < s.size(); i++) s[i] = static_cast<int16_t>(b[2 * i] | (b[2 * i + 1] << 8));
  return s;
}

// Index of the first differing sample, or -1 when equal (sizes included).
inline long firstMismatch(const std::vector<int16_t>& a, const std::vector<int16_t>& b) {
  size_t n = a.size() < b.size() ? a.size() : b.size();
  for (size_t i = 0; i < n; i++)
    if (a[i] != b[i]) return static_cast<long>(i);
  return a.size() == b.size() ? -1 : static_cast<long>(n);
}

}  // namespace quillon::test

// Skips the current test, saying which vectors are missing.
#define QUILLON_REQUIRE_VECTORS(dirVar, name)                                              \
  const std::filesystem::path dirVar = ::quillon::test::vectorsSubdir(name);              \
  if (dirVar.empty())                                                                      \
    GTEST_SKIP() << "conformance vectors not found: " << (::quillon::test::vectorsDir() / name) \
                 << " (set QUILLON_VECTORS to the vectors folder)"

#endif
