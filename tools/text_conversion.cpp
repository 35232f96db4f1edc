#include "text_conversion.h"

#include <cstdio>
#include <cstring>

namespace quillon::charset {

using TAV::Charset;
using TAV::CharsetConverter;
using TAV::CSReturnCodes;
using TAV::uint32;
using TAV::uint8;

const char* charsetDisplayName(Charset set) {
  static const char* const kNames[] = {"unknown",  "UCS-4", "UCS-2",  "ISO-8859-1", "CP1252",
                                       "UTF-8",    "GB2312", "ISO-8859-2", "ISO-8859-6"};
  return set < sizeof kNames / sizeof kNames[0] ? kNames[set] : "unknown";
}

bool resolveCharset(const std::string& text, Charset& set, std::string& error) {
  if (text.size() == 1 && text[0] >= '0' && text[0] <= '8') {
    set = static_cast<Charset>(text[0] - '0');
  } else {
    set = CharsetConverter::getCharsetByName(text.c_str());
  }
  if (set == TAV::CharsetUnknown) {
    error = "unknown character set '" + text + "' (known: " + CharsetConverter::s_OfferedCharsets +
            ", ISO-8859-6, or 4 for CP1252)";
    return false;
  }
  if (!CharsetConverter::getInputCharsetFunction(set) || !CharsetConverter::getOutputCharsetFunction(set)) {
    error = std::string("character set '") + text + "' (" + charsetDisplayName(set) +
            ") is known but cannot be converted";
    return false;
  }
  return true;
}

bool parseTextOptions(int argc, const char* const* argv, TextOptions& options, std::string& error) {
  bool haveFrom = false;
  bool haveTo = false;
  std::vector<std::string> files;
  for (int i = 0; i < argc; i++) {
    const std::string arg = argv[i];
    const bool takesValue = arg == "--from" || arg == "--to" || arg == "--filter";
    if (takesValue && i + 1 >= argc) {
      error = "option " + arg + " needs a value";
      return false;
    }
    if (arg == "--from") {
      if (!resolveCharset(argv[++i], options.from, error)) return false;
      haveFrom = true;
    } else if (arg == "--to") {
      if (!resolveCharset(argv[++i], options.to, error)) return false;
      haveTo = true;
    } else if (arg == "--filter") {
      const std::string mode = argv[++i];
      if (mode == "upper") options.filter = TAV::FilterToUpper;
      else if (mode == "lower") options.filter = TAV::FilterToLower;
      else if (mode == "sort") options.filter = TAV::FilterToSortChar;
      else if (mode == "none") options.filter = TAV::FilterNone;
      else {
        error = "unknown filter '" + mode + "' (upper, lower or sort)";
        return false;
      }
    } else if (arg.size() > 1 && arg[0] == '-' && arg != "-") {
      error = "unknown option " + arg;
      return false;
    } else {
      files.push_back(arg);
    }
  }
  if (!haveFrom || !haveTo) {
    error = "both --from and --to are needed";
    return false;
  }
  if (files.size() > 2) {
    error = "at most an input and an output file";
    return false;
  }
  if (files.size() > 0) options.inPath = files[0];
  if (files.size() > 1) options.outPath = files[1];
  return true;
}

TextConversionResult convertText(const std::vector<uint8>& in, const TextOptions& options,
                                 std::vector<uint8>& out) {
  TextConversionResult result;
  out.clear();
  CharsetConverter converter;
  if (!converter.open(options.from, options.to, '?', options.filter)) {
    result.code = TAV::CS_INVALID_INPUT;
    return result;
  }
  const uint32 total = static_cast<uint32>(in.size());

  // The converter grants its decoder the whole input length for every
  // character, so a character cut off at the end would be read past the
  // buffer. Find that point first, decoding with the true bytes left.
  uint32 limit = total;
  CSReturnCodes tail = TAV::CS_OK;
  const bool plainCopy = options.from == options.to && options.filter == TAV::FilterNone;
  if (!plainCopy) {
    const CharsetConverter::FromFunc* decode = CharsetConverter::getInputCharsetFunction(options.from);
    const uint8* p = in.data();
    const uint8* const end = p + total;
    uint32 ch = 0;
    while (p < end) {
      const CSReturnCodes rc = (*decode)(&converter, p, ch, static_cast<uint32>(end - p));
      if (rc == TAV::CS_INPUT_INCOMPLETE) {
        limit = static_cast<uint32>(p - in.data());
        tail = rc;
      }
      if (rc != TAV::CS_OK) break;  // anything else, convert() reports itself
    }
  }

  // Six output bytes per input byte cover every pair of sets, so one call
  // converts everything (the output allowance never runs out).
  out.resize(static_cast<size_t>(limit) * 6 + 8);
  uint32 inPos = 0;
  uint32 outPos = 0;
  result.code = converter.convert(in.data(), inPos, limit, out.data(), outPos, static_cast<uint32>(out.size()));
  out.resize(outPos);
  result.offset = inPos;
  if (result.code == TAV::CS_OK && tail != TAV::CS_OK) result.code = tail;
  if (result.code == TAV::CS_NOT_REPRESENTABLE || result.code == TAV::CS_OUTPUT_FULL) {
    const uint8* p = in.data() + inPos;
    uint32 ch = 0;
    CharsetConverter::getInputCharsetFunction(options.from)->operator()(&converter, p, ch, total - inPos);
    if (const CharsetConverter::FilterFunc* filter = CharsetConverter::getFilterFunction(options.filter))
      ch = (*filter)(ch);
    result.codePoint = ch;
  }
  return result;
}

std::string describeFailure(const TextConversionResult& result, const TextOptions& options) {
  char text[160];
  switch (result.code) {
    case TAV::CS_OK:
      return "ok";
    case TAV::CS_INVALID_INPUT:
      std::snprintf(text, sizeof text, "byte offset %u: not a valid %s character", result.offset,
                    charsetDisplayName(options.from));
      break;
    case TAV::CS_INPUT_INCOMPLETE:
      std::snprintf(text, sizeof text, "byte offset %u: %s character cut off at the end of the input",
                    result.offset, charsetDisplayName(options.from));
      break;
    case TAV::CS_NOT_REPRESENTABLE:
      std::snprintf(text, sizeof text, "byte offset %u: character U+%04X cannot be written in %s",
                    result.offset, result.codePoint, charsetDisplayName(options.to));
      break;
    default:
      std::snprintf(text, sizeof text, "byte offset %u: conversion stopped (code %u)", result.offset,
                    static_cast<unsigned>(result.code));
      break;
  }
  return text;
}

}  // namespace quillon::charset
