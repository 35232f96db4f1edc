// quillon capture: RTP calls out of pcap / pcapng captures.
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "capture_session.h"
#include "commands.h"

using namespace quillon::tool;

namespace {

int usage(const std::string& message) { return usageError("capture", message); }

}  // namespace

int runCaptureCommand(int argc, char** argv) {
  CaptureOptions options;
  std::vector<std::string> inputs;
  std::vector<std::string> sdpFiles;
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    if (a == "--out" && i + 1 < argc) {
      options.outDir = argv[++i];
    } else if (a == "--split") {
      options.split = true;
    } else if (a == "--dry-run") {
      options.dryRun = true;
    } else if (a == "--force") {
      options.force = true;
    } else if (a == "--report" && i + 1 < argc) {
      options.report = argv[++i];
      if (options.report != "csv" && options.report != "json") return usage("--report takes csv or json");
    } else if (a == "--rate" && i + 1 < argc) {
      const std::string r = argv[++i];
      if (r != "8000" && r != "16000" && r != "48000") return usage("--rate takes 8000, 16000 or 48000");
      options.wideRate = static_cast<uint32_t>(std::stoul(r));
    } else if (a == "--pt" && i + 1 < argc) {
      int pt = 0;
      SdpFormat format;
      if (!parsePayloadOption(argv[++i], pt, format)) return usage(std::string("cannot use --pt ") + argv[i]);
      options.payloadTypes[pt] = format;
    } else if (a == "--sdp" && i + 1 < argc) {
      sdpFiles.push_back(argv[++i]);
    } else if (a == "-" || a.empty() || a[0] != '-') {
      inputs.push_back(a);
    } else {
      return usage("unknown option " + a);
    }
  }
  if (inputs.empty()) return usage("no capture given");
  struct stat st{};
  if (stat(options.outDir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
    return usage("output folder " + options.outDir + " does not exist");
  CaptureSession session(options);
  for (const std::string& f : sdpFiles) {
    std::ifstream in(f, std::ios::binary);
    if (!in) return usage("cannot read " + f);
    std::stringstream text;
    text << in.rdbuf();
    std::string error;
    if (!session.addSdp(text.str(), error)) return usage(f + ": " + error);
  }
  int status = 0;
  for (const std::string& input : inputs) {
    std::string error;
    if (!session.readCapture(input, error)) {
      std::fprintf(stderr, "quillon capture: %s\n", error.c_str());
      status = 1;
    }
  }
  std::string error;
  if (!session.finish(error)) {
    std::fprintf(stderr, "quillon capture: %s\n", error.c_str());
    status = 1;
  }
  for (const std::string& w : session.warnings()) std::fprintf(stderr, "quillon capture: warning: %s\n", w.c_str());
  for (const StreamSummary& s : session.streams()) {
    std::printf("%s %s %s -> %s %s: %llu packets, %llu lost, jitter %.1f ms, MOS %.2f%s%s\n", s.callId.c_str(),
                s.side.c_str(), s.source.text().c_str(), s.destination.text().c_str(), s.codec.c_str(),
                static_cast<unsigned long long>(s.stats.packets), static_cast<unsigned long long>(s.stats.lost),
                s.stats.jitterMs, s.mos, s.file.empty() ? "" : " -> ", s.file.c_str());
  }
  if (session.streams().empty()) std::printf("no RTP streams found\n");
  return status;
}
