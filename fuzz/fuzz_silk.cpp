// libFuzzer target: arbitrary bytes as a length-prefixed SILK stream, fed
// to CodecSILK in whole calls with ample output room.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "quillon/codecs/codec_silk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static TAV::CodecSILK* codec = [] {
    auto* c = new TAV::CodecSILK();
    c->open(TAV::AudioFormat(TAV::CT_SILK_20MS, 1), false);
    return c;
  }();
  codec->init();  // fresh state per input
  std::vector<int16_t> out(size * 80 + 1600);
  const uint8_t* p = data;
  uint32_t left = static_cast<uint32_t>(size);
  while (left > 0) {
    const uint32_t before = left;
    codec->decode(p, left, out.data(), static_cast<uint32_t>(out.size() * 2));
    if (left == before) break;
    p += before - left;
  }
  return 0;
}
