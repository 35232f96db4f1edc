// Decoding one recording (a file or standard input) to 16-bit PCM: the work
// of `quillon decode` and of each file of `quillon batch`, and a function
// other front ends can call with a sink of their own.
#ifndef QUILLON_TOOLS_CONVERT_H
#define QUILLON_TOOLS_CONVERT_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "containers.h"
#include "pipeline.h"

namespace quillon::tool {

// What becomes of a stereo recording's two channels.
enum class ChannelMode {
  Keep,   // as the recording has them (stereo stays stereo)
  Stereo, // two channels asked for explicitly (refused where only mono can be had)
  Mix,    // one channel, the mean of the two
  Left,
  Right,
  Split,  // two mono outputs (convertFile writes NAME.left.wav and NAME.right.wav)
};
bool parseChannelMode(const std::string& text, ChannelMode& mode);

struct ConvertOptions {
  bool haveCodec = false;  // a raw stream's codec; a container's codec must agree with it
  TAV::CompressionType code = TAV::CT_NONE;
  uint32_t rate = 0;
  bool raw = false;
  bool useApi = false;
  ChannelMode channels = ChannelMode::Keep;
  bool replace = true;      // an existing output may be replaced
  bool followLinks = true;  // see OutputRules
};

struct ConvertResult {
  ProbeResult probe;
  TAV::CompressionType code = TAV::CT_NONE;
  uint64_t samples = 0;     // sample frames written (per channel)
  uint32_t rate = 0;
  unsigned channels = 1;    // of the PCM handed on (per output with Split)
  size_t leftoverBytes = 0;
  std::vector<std::string> warnings;
  bool usage = false;       // the failure is in the arguments (exit 2), not the input
};

// Picks the codec from what the container says and `options` (a --codec
// the container contradicts is refused, one of the same family yields to
// the container with a warning). False with `error` set when it cannot.
bool chooseCodec(const std::string& input, const ConvertOptions& options, ConvertResult& result,
                 std::string& error);

// Interleaved PCM frames of result.channels channels at result.rate (both
// set before the first call); false stops the decode.
using FrameSink = std::function<bool(const int16_t* pcm, size_t frames)>;

// Decodes `source` (opened from result.probe, codec from chooseCodec) to
// `sink`: each channel by its own decoder, Ogg pre-skip and end trimming
// applied, chained links decoded in turn. Memory stays bounded whatever
// the input; warnings gather in result.warnings.
bool decodeSource(StreamSource& source, const ConvertOptions& options, ConvertResult& result, const FrameSink& sink,
                  std::string& error);

// Decodes `input` ("-": standard input) into `output` ("-": standard
// output). Each output is written under a temporary name and renamed over
// its name only when the whole input decoded, so a failure leaves nothing
// and an existing output stays as it was. On failure `error` says why, and
// `result.usage` marks a failure in the arguments (an output that is the
// input, a --rate the codec cannot give). Stops with an error when an
// interrupt signal was received (see installInterruptHandlers).
bool convertFile(const std::string& input, const std::string& output, const ConvertOptions& options,
                 ConvertResult& result, std::string& error);

}  // namespace quillon::tool

#endif
