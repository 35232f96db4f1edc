// The tool's codec table: names, codes and what each code is.
#ifndef QUILLON_TOOLS_CODEC_NAMES_H
#define QUILLON_TOOLS_CODEC_NAMES_H

#include <string>
#include <vector>

#include "quillon/audio_format.h"

namespace quillon::tool {

struct CodecName {
  const char* name;
  TAV::CompressionType code;
  const char* description;
  const char* framing;
};

const std::vector<CodecName>& codecNames();

// Accepts a name from the table or a compression number; false if neither.
bool parseCodec(const std::string& text, TAV::CompressionType& code);

// The table's name for a code ("code N" when it has none).
std::string codecName(TAV::CompressionType code);

}  // namespace quillon::tool

#endif
