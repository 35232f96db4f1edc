// libFuzzer target for the AMR-WB decoder engine: the input is cut into
// whole storage-layout frames (each frame's length taken from its ToC byte,
// as the codecLib front does) and decoded; every fourth frame is also
// marked bad so the concealment paths see arbitrary parameters. At most
// kMaxFrames frames are decoded per input: one-byte NO_DATA frames would
// otherwise make a 200-byte input two hundred frames long, and a few frames
// reach every state a longer run reaches.
#include <cstddef>
#include <cstdint>

#include "engines/amrwb/amrwb_decoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  quillon::amrwb::Decoder dec;
  int16_t out[quillon::amrwb::kFrameSamples];
  size_t pos = 0;
  unsigned n = 0;
  constexpr unsigned kMaxFrames = 6;
  while (pos < size && n < kMaxFrames) {
    int need = quillon::amrwb::frameBytesForToc(data[pos]);
    if (need < 1) need = 1;
    if (size - pos < static_cast<size_t>(need)) break;
    const int used = dec.decodeFrame(data + pos, static_cast<size_t>(need), out, (n++ & 3) == 3);
    if (used != need) __builtin_trap();
    pos += static_cast<size_t>(used);
  }
  return 0;
}
