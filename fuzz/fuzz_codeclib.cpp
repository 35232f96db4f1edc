// The codecLib front under arbitrary chunking: the first byte picks the
// engine (G.722 or G.729 Annex A), the direction and the trace level; then
// each step takes a length byte and feeds that much input (0 flushes the
// encoder or marks a bad frame for the decoder). The leftover must stay
// within its buffer and the results within the documented codes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "codeclib/codeclib.h"
#include "quillon/trace.h"

using namespace quillon::codeclib;

namespace {

bool knownResult(int32 r) {
  return r == kOk || r == kErrOutOfMemory || r == kErrDecodeOutputFull || r == kErrParam || r == kErrEncodeBuffer ||
         r == kErrDecodeBuffer;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  quillon_set_trace_sink(nullptr);
  const uint8_t sel = data[0];
  const int32 codec = (sel & 1) ? kCodecG729A : kCodecG722;
  const int32 direction = (sel >> 1) & 1;
  const int16 trace = (sel & 4) ? 4 : 0;
  HandleRes* h = nullptr;
  if (codecLibOpen(&h, codec, direction, trace) != kOk) {
    codecLibClose(&h, 0);
    return 0;
  }
  CodecLibOptions options{};
  codecLibQuery(&h, codec, direction, nullptr, &options, 0);
  options.frameLength = 320;
  if (sel & 8) options.mode = static_cast<int16>(1 + (sel >> 4) % 3);

  static std::vector<int16> samples(1 << 16);
  static std::vector<uint8> bytes(1 << 17);
  size_t pos = 1;
  while (pos < size) {
    const size_t want = data[pos++];
    const size_t n = want < size - pos ? want : size - pos;
    int32 r;
    if (direction == kDirEncoder) {
      int16 in[128];
      std::memcpy(in, data + pos, n & ~size_t{1});
      int32 count = static_cast<int32>(n / 2);
      int32 room = (sel & 0x40) ? static_cast<int32>(n) : static_cast<int32>(bytes.size());
      r = codecLibEncode(&h, in, &count, bytes.data(), &room, &options, trace);
      if (count < 0 || 2 * count > h->leftOverInpBufSize || room < 0) std::abort();
    } else {
      if (want == 0) options.badFrame = 1;
      int32 count = static_cast<int32>(n);
      int32 room = (sel & 0x40) ? static_cast<int32>(8 * n) : static_cast<int32>(samples.size());
      r = codecLibDecode(&h, data + pos, &count, samples.data(), &room, &options, trace);
      if (count < 0 || count > h->leftOverInpBufSize || room < 0 || options.badFrame != 0) std::abort();
    }
    if (!knownResult(r)) std::abort();
    pos += n;
  }
  codecLibClose(&h, 0);
  return 0;
}
