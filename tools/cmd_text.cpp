// quillon text: converts a text file (or standard input) between character sets.
#include <cstdio>
#include <string>
#include <vector>

#include "charset/text_conversion.h"
#include "commands.h"

namespace {

using quillon::charset::TextOptions;

void printTextUsage() {
  std::fprintf(stderr,
               "usage: quillon text --from NAME --to NAME [--filter upper|lower|sort] [IN [OUT]]\n"
               "  NAME: %s, ISO-8859-6 (or a set number, 4 for CP1252)\n"
               "  IN/OUT default to standard input/output (\"-\" for either)\n",
               TAV::CharsetConverter::s_OfferedCharsets);
}

bool readAll(const std::string& path, std::vector<TAV::uint8>& data, std::string& error) {
  const bool useStdin = path.empty() || path == "-";
  std::FILE* f = useStdin ? stdin : std::fopen(path.c_str(), "rb");
  if (!f) {
    error = "cannot open " + path;
    return false;
  }
  TAV::uint8 chunk[65536];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) {
    data.insert(data.end(), chunk, chunk + n);
    if (data.size() > quillon::charset::kMaxTextBytes) {
      error = "input larger than 256 MiB";
      break;
    }
  }
  const bool failed = std::ferror(f) != 0;
  if (!useStdin) std::fclose(f);
  if (failed) error = "cannot read " + (useStdin ? std::string("standard input") : path);
  return error.empty();
}

bool writeAll(const std::string& path, const std::vector<TAV::uint8>& data, std::string& error) {
  const bool useStdout = path.empty() || path == "-";
  std::FILE* f = useStdout ? stdout : std::fopen(path.c_str(), "wb");
  if (!f) {
    error = "cannot create " + path;
    return false;
  }
  bool ok = std::fwrite(data.data(), 1, data.size(), f) == data.size();
  ok = (useStdout ? std::fflush(f) : std::fclose(f)) == 0 && ok;
  if (!ok) error = "cannot write " + (useStdout ? std::string("standard output") : path);
  return ok;
}

}  // namespace

int runTextCommand(int argc, char** argv) {
  TextOptions options;
  std::string error;
  if (argc < 1 || !quillon::charset::parseTextOptions(argc - 1, argv + 1, options, error)) {
    std::fprintf(stderr, "quillon text: %s\n", error.c_str());
    printTextUsage();
    return 2;
  }
  std::vector<TAV::uint8> input;
  if (!readAll(options.inPath, input, error)) {
    std::fprintf(stderr, "quillon text: %s\n", error.c_str());
    return 1;
  }
  std::vector<TAV::uint8> output;
  const quillon::charset::TextConversionResult result = quillon::charset::convertText(input, options, output);
  // What converted before a failure is still written out.
  if (!writeAll(options.outPath, output, error)) {
    std::fprintf(stderr, "quillon text: %s\n", error.c_str());
    return 1;
  }
  if (result.code != TAV::CS_OK) {
    std::fprintf(stderr, "quillon text: %s\n", quillon::charset::describeFailure(result, options).c_str());
    return 1;
  }
  return 0;
}
