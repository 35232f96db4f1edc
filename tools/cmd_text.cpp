// quillon text: converts a text file (or standard input) between character sets.
#include <cstdio>
#include <string>
#include <vector>

#include "text_conversion.h"
#include "commands.h"
#include "output_file.h"

namespace {

using quillon::charset::TextOptions;
using quillon::tool::SafeOutput;

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

// Writes `data` to the output that `out` opened and keeps it only if
// `complete`; standard output (or a device) gets whatever there is.
bool writeAll(SafeOutput& out, const std::vector<TAV::uint8>& data, bool complete, std::string& error) {
  if (std::fwrite(data.data(), 1, data.size(), out.stream()) != data.size()) {
    error = "cannot write " + out.name();
    return false;
  }
  if (!complete && !out.writesDirectly()) return true;
  return out.commit(error);
}

}  // namespace

int runTextCommand(int argc, char** argv) {
  using namespace quillon::tool;
  TextOptions options;
  std::string error;
  if (argc < 1 || !quillon::charset::parseTextOptions(argc - 1, argv + 1, options, error)) {
    std::fprintf(stderr, "quillon text: %s\n", error.c_str());
    printTextUsage();
    return 2;
  }
  const std::string inPath = options.inPath.empty() ? "-" : options.inPath;
  if (inputIsFolder(inPath, error)) {
    std::fprintf(stderr, "quillon text: %s\n", error.c_str());
    return 2;
  }
  installInterruptHandlers(false);
  SafeOutput out;
  if (const int status =
          SafeOutput::exitStatus(out.open(options.outPath.empty() ? "-" : options.outPath, OutputRules(), {inPath}, error))) {
    std::fprintf(stderr, "quillon text: %s\n", error.c_str());
    return status;
  }
  std::vector<TAV::uint8> input;
  if (!readAll(options.inPath, input, error)) {
    std::fprintf(stderr, "quillon text: %s\n", error.c_str());
    return 1;
  }
  std::vector<TAV::uint8> output;
  const quillon::charset::TextConversionResult result = quillon::charset::convertText(input, options, output);
  // Standard output still gets what converted before a failure; a file is
  // only written when the whole text converted.
  if (!writeAll(out, output, result.code == TAV::CS_OK, error)) {
    std::fprintf(stderr, "quillon text: %s\n", error.c_str());
    return 1;
  }
  if (result.code != TAV::CS_OK) {
    std::fprintf(stderr, "quillon text: %s\n", quillon::charset::describeFailure(result, options).c_str());
    return 1;
  }
  return 0;
}
