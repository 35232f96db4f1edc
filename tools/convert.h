// Decoding one recording file to a WAVE (or raw PCM) file: the work of
// `quillon decode` and of each file of `quillon batch`.
#ifndef QUILLON_TOOLS_CONVERT_H
#define QUILLON_TOOLS_CONVERT_H

#include <cstdint>
#include <string>

#include "containers.h"
#include "output_file.h"
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
  bool usage = false;
};

// Decodes `input` into `output`, which the caller opened and commits when
// this succeeds. On failure `error` says why; `result.usage` tells
// an option that does not fit the stream (such as --rate) from bad input.
// Stops with an error when an interrupt signal was received.
bool convertFile(const std::string& input, SafeOutput& output, const ConvertOptions& options,
                 ConvertResult& result, std::string& error);
// The same into the file `output` ("-": standard output), written under a
// temporary name and renamed over `output` only when complete. An output
// that is the input is refused (`result.usage`).
bool convertFile(const std::string& input, const std::string& output, const ConvertOptions& options,
                 ConvertResult& result, std::string& error);

}  // namespace quillon::tool

#endif
