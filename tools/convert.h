// Decoding one recording file to a WAVE (or raw PCM) file: the work of
// `quillon decode` and of each file of `quillon batch`.
#ifndef QUILLON_TOOLS_CONVERT_H
#define QUILLON_TOOLS_CONVERT_H

#include <cstdint>
#include <string>

#include "containers.h"
#include "pipeline.h"

namespace quillon::tool {

struct ConvertOptions {
  bool haveCodec = false;  // an explicit codec wins over what the file says
  TAV::CompressionType code = TAV::CT_NONE;
  uint32_t rate = 0;
  bool raw = false;
  bool useApi = false;
};

struct ConvertResult {
  ProbeResult probe;
  TAV::CompressionType code = TAV::CT_NONE;
  uint64_t samples = 0;
  uint32_t rate = 0;
  size_t leftoverBytes = 0;
};

// Decodes `input` into `output`. On failure `error` says why; output that
// was already written is kept with a completed header.
bool convertFile(const std::string& input, const std::string& output, const ConvertOptions& options,
                 ConvertResult& result, std::string& error);

}  // namespace quillon::tool

#endif
