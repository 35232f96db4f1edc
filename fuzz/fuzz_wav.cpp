// The tool's WAVE reader on arbitrary files: the header is checked, then
// the data chunk is read to its end in pieces of varying size (the last
// input byte picks the piece size, the file is all of the input).
#include <cstdint>
#include <vector>

#include "fuzz_input_file.h"
#include "wav_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  quillon::tool::WavReader wav;
  std::string error;
  if (!wav.open(quillon::fuzz::writeScratch(data, size), error)) return 0;
  const size_t piece = size ? 1 + data[size - 1] * 17u : 1;
  std::vector<uint8_t> buffer(piece);
  uint64_t total = 0;
  while (const size_t n = wav.read(buffer.data(), buffer.size())) {
    if (n > buffer.size()) __builtin_trap();
    total += n;
  }
  const quillon::tool::WaveFormat& format = wav.format();
  if (total > size || (format.lengthKnown && total > format.dataBytes)) __builtin_trap();
  return 0;
}
