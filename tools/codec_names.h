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

// Accepts a name from the table (in any letter case) or the number of a
// code in the table; false if neither.
bool parseCodec(const std::string& text, TAV::CompressionType& code);

// Whether this build turns the code into PCM (canDecode) or PCM into it
// (canEncode). Some codec classes open in a direction they do not serve and
// write nothing, so each direction is tried once on a short stream.
bool canDecode(TAV::CompressionType code);
bool canEncode(TAV::CompressionType code);
// canDecode/canEncode, with `error` naming the codes this build does serve
// in that direction when the answer is no.
bool checkDecodable(TAV::CompressionType code, std::string& error);
bool checkEncodable(TAV::CompressionType code, std::string& error);

// Whether decoding `code` can give PCM at `rate` Hz (0: the codec's own
// rate; else 8000 or the codec's own rate); false with `error` if not.
bool checkOutputRate(TAV::CompressionType code, uint32_t rate, std::string& error);

// The table's name for a code ("code N" when it has none).
std::string codecName(TAV::CompressionType code);

}  // namespace quillon::tool

#endif
