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
  bool replace = true;      // an existing output may be replaced
  bool followLinks = true;  // see OutputRules
};

struct ConvertResult {
  ProbeResult probe;
  TAV::CompressionType code = TAV::CT_NONE;
  uint64_t samples = 0;
  uint32_t rate = 0;
  size_t leftoverBytes = 0;
  bool usage = false;
};

// Decodes `input` into `output` ("-": standard output). The output is
// written under a temporary name and renamed over `output` only when the
// whole input decoded, so a failure leaves nothing and an existing output
// stays as it was. On failure `error` says why, and `result.usage` marks a
// failure in the arguments (an output that is the input, a --rate the codec
// cannot give) rather than the input. Stops with an error when an interrupt
// signal was received (see installInterruptHandlers).
bool convertFile(const std::string& input, const std::string& output, const ConvertOptions& options,
                 ConvertResult& result, std::string& error);

}  // namespace quillon::tool

#endif
