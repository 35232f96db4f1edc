// The tool's --resampler option: which factory the library's transcoders
// take their 16 -> 8 kHz resampler from.
#ifndef QUILLON_TOOLS_RESAMPLER_CHOICE_H
#define QUILLON_TOOLS_RESAMPLER_CHOICE_H

#include <string>

namespace quillon::tool {

// "mean" (the library's default pair average) or "halfband"; false for
// any other name. Call before opening transcoders.
bool selectResampler(const std::string& name);

}  // namespace quillon::tool

#endif
