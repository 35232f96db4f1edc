// Whole-text conversion as the `quillon text` command does it: option
// parsing, set lookup with readable errors, and a conversion that reports
// where it stopped.
#ifndef QUILLON_SRC_CHARSET_TEXT_CONVERSION_H
#define QUILLON_SRC_CHARSET_TEXT_CONVERSION_H

#include <string>
#include <vector>

#include "quillon/charset.h"

namespace quillon::charset {

struct TextOptions {
  TAV::Charset from = TAV::CharsetUnknown;
  TAV::Charset to = TAV::CharsetUnknown;
  TAV::CharsetFilterMode filter = TAV::FilterNone;
  std::string inPath;   // empty or "-": standard input
  std::string outPath;  // empty or "-": standard output
};

// Printable name of a set ("UTF-8", "CP1252", ...).
const char* charsetDisplayName(TAV::Charset set);

// A set given by name (as the converter knows them) or by its number
// (0-8, which also reaches CP1252). Fails for unknown names and for sets
// that have no converter.
bool resolveCharset(const std::string& text, TAV::Charset& set, std::string& error);

// Parses the words after "text": --from NAME --to NAME
// [--filter upper|lower|sort] [IN [OUT]].
bool parseTextOptions(int argc, const char* const* argv, TextOptions& options, std::string& error);

struct TextConversionResult {
  TAV::CSReturnCodes code = TAV::CS_OK;
  TAV::uint32 offset = 0;     // input byte where the conversion stopped
  TAV::uint32 codePoint = 0;  // the character refused by the output set
};

// Converts all of `in` (at most kMaxTextBytes). On failure `out` holds
// the text converted before the character at `offset`.
constexpr size_t kMaxTextBytes = 256u << 20;
TextConversionResult convertText(const std::vector<TAV::uint8>& in, const TextOptions& options,
                                 std::vector<TAV::uint8>& out);

// One line describing a failed result, e.g.
// "byte offset 3: not a valid UTF-8 character".
std::string describeFailure(const TextConversionResult& result, const TextOptions& options);

}  // namespace quillon::charset

#endif
