// The tool's recording-file readers on arbitrary files: the file is probed
// as the tool does it (RIFF/WAVE, AMR-WB storage, SILK_V3, Ogg Opus or raw)
// and, when it can be opened, its stream is read to the end in pieces of
// varying size (the last input byte picks the piece size).
#include <cstdint>
#include <vector>

#include "containers.h"
#include "fuzz_input_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace quillon::tool;
  const std::string& path = quillon::fuzz::writeScratch(data, size);
  ProbeResult probe;
  std::string error;
  if (!probeFile(path, probe, error)) return 0;
  std::unique_ptr<StreamSource> source = openStream(path, probe, error);
  if (!source) return 0;
  const size_t piece = size ? 1 + data[size - 1] * 13u : 1;
  std::vector<uint8_t> buffer(piece);
  // Packets gain a 2-byte prefix each: the stream can outgrow the file by
  // at most that (one packet per byte at worst, and an empty Opus packet
  // needs a page of its own).
  uint64_t total = 0;
  while (const size_t n = source->read(buffer.data(), buffer.size())) {
    if (n > buffer.size()) __builtin_trap();
    total += n;
    if (total > 3 * static_cast<uint64_t>(size) + 16) __builtin_trap();
  }
  return 0;
}
