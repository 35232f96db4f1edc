// The C interface on arbitrary input: the first byte picks the input code
// (mostly one the library decodes, sometimes any number), the second the
// output code; then each step takes a length byte and decodes that many
// bytes. The output room is twice what getOutputSize announces plus one
// engine frame, and the answer must stay within it.
#include <algorithm>
#include <cstdint>
#include <memory>

#include "quillon/decoder.h"
#include "quillon/quillon_c.h"
#include "quillon/trace.h"

namespace {

constexpr int kInputCodes[] = {1, 2, 3, 4, 5, 6, 13, 14, 15, 16, 20, 30, 40, 50, 51, 52, 100, 102};
constexpr int kOutputCodes[] = {100, 102, 1, 2, 70};
constexpr uint32_t kEngineFrame = 8192;  // larger than any codec's frame of PCM

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  quillon_set_trace_sink(nullptr);
  if (size < 2) return 0;
  constexpr size_t kCodes = sizeof kInputCodes / sizeof kInputCodes[0];
  const int inCode = data[0] < 8 * kCodes ? kInputCodes[data[0] % kCodes] : data[0] - 8 * static_cast<int>(kCodes);
  const quillon_decoder_handle h = decoder_create(inCode);
  if (h == 0) return 0;
  if (decoder_open(h, kOutputCodes[data[1] % 5]) == 1) {
    const TAV::Decoder* decoder = reinterpret_cast<const TAV::Decoder*>(h);
    size_t pos = 2;
    while (pos < size) {
      const uint32_t n = static_cast<uint32_t>(std::min<size_t>(data[pos], size - pos - 1));
      pos++;
      const uint32_t room = 2 * decoder->getOutputSize(n) + kEngineFrame;
      const auto out = std::make_unique_for_overwrite<uint8_t[]>(room);
      const unsigned written = decode_decode(h, data + pos, out.get(), n);
      if (written > room) __builtin_trap();
      pos += n;
    }
    decoder_close(h);
  }
  decoder_release(h);
  return 0;
}
