// Coded streams for the demo's decode-only codecs, made by generators that
// ship with the library; a codec without one is listed without a stream.
#ifndef QUILLON_TOOLS_DEMO_STREAMS_H
#define QUILLON_TOOLS_DEMO_STREAMS_H

#include <cstdint>
#include <vector>

#include "quillon/audio_format.h"

namespace quillon::tool {

// Fills `stream` from the clip (16 kHz mono PCM) for a code whose encoder is
// not a TAV::Codec; false when no generator exists for the code.
bool makeDemoStream(TAV::CompressionType code, const std::vector<int16_t>& clip16k, std::vector<uint8_t>& stream);

}  // namespace quillon::tool

#endif
