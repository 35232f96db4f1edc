#include "demo_streams.h"

namespace quillon::tool {

bool makeDemoStream(TAV::CompressionType, const std::vector<int16_t>&, std::vector<uint8_t>&) {
  // Stream generators for decode-only codecs register here as they land.
  return false;
}

}  // namespace quillon::tool
