#include "demo_streams.h"

#include "opus_stream_writer.h"

namespace quillon::tool {

bool makeDemoStream(TAV::CompressionType code, const std::vector<int16_t>& clip16k, std::vector<uint8_t>& stream) {
  switch (code) {
    case TAV::CT_OPUS: {
      OpusStreamOptions options;
      options.bitrate = 24000;
      stream = makeOpusStream(clip16k.data(), clip16k.size(), options);
      return !stream.empty();
    }
    default:
      return false;
  }
}

}  // namespace quillon::tool
