// quillon batch: every file of a folder tree to WAVE, in parallel.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "batch_plan.h"
#include "codec_names.h"
#include "commands.h"
#include "convert.h"
#include "output_file.h"
#include "resampler_choice.h"

namespace fs = std::filesystem;
using namespace quillon::tool;

namespace {

int usage(const std::string& message) { return usageError("batch", message); }

}  // namespace

int runBatchCommand(int argc, char** argv) {
  ConvertOptions options;
  bool force = false, haveCodecOption = false;
  unsigned jobs = std::max(1u, std::thread::hardware_concurrency());
  std::vector<std::string> dirs;
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    if (a == "--codec" && i + 1 < argc) {
      const std::string c = argv[++i];
      haveCodecOption = true;
      if (c != "auto") {
        if (!parseCodec(c, options.code)) return usage("unknown codec '" + c + "'");
        std::string error;
        if (!checkDecodable(options.code, error)) return usage(error);
        options.haveCodec = true;
      }
    } else if (a == "--jobs" && i + 1 < argc) {
      jobs = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
      if (jobs == 0 || jobs > 256) return usage("--jobs needs a number from 1 to 256");
    } else if (a == "--rate" && i + 1 < argc) {
      options.rate = static_cast<uint32_t>(std::strtoul(argv[++i], nullptr, 10));
      if (options.rate != 8000 && options.rate != 16000) return usage("--rate needs 8000 or 16000");
    } else if (a == "--resampler" && i + 1 < argc) {
      if (!selectResampler(argv[++i])) return usage(std::string("unknown resampler '") + argv[i] + "'");
    } else if (a == "--force") {
      force = true;
    } else if (!a.empty() && a[0] == '-') {
      return usage("unknown or incomplete option '" + a + "'");
    } else {
      dirs.push_back(a);
    }
  }
  if (!haveCodecOption) return usage("--codec CODE or --codec auto is required");
  if (dirs.size() != 2) return usage("expected IN_DIR and OUT_DIR");
  std::string error;
  const fs::path inDir = dirs[0], outDir = dirs[1];
  std::error_code ec;
  if (!fs::is_directory(inDir, ec)) {
    std::fprintf(stderr, "quillon batch: %s is not a folder\n", inDir.string().c_str());
    return 1;
  }
  bool outInside = false;
  if (!checkBatchFolders(inDir, outDir, outInside, error)) return usage(error);
  fs::create_directories(outDir, ec);
  FileIdentity outId;
  if (!identifyFile(outDir.string(), outId) || !fs::is_directory(outDir, ec)) {
    std::fprintf(stderr, "quillon batch: cannot create the folder %s\n", outDir.string().c_str());
    return 1;
  }
  installInterruptHandlers(true);

  // The work list, with every output named before any worker starts.
  std::vector<BatchEntry> work = listBatchInputs(inDir, outInside ? &outId : nullptr);
  nameBatchOutputs(work);

  std::vector<BatchOutcome> outcomes(work.size());
  std::atomic<size_t> next{0}, finished{0};
  std::atomic<uint64_t> audioMillis{0};
  std::mutex progressLock;
  const bool terminal = isatty(STDERR_FILENO);
  const auto start = std::chrono::steady_clock::now();

  auto showProgress = [&](bool last) {
    if (!terminal) return;
    std::lock_guard<std::mutex> lock(progressLock);
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double hours = audioMillis.load() / 3.6e6;
    std::fprintf(stderr, "\r%zu/%zu files, %.2f h of audio, %.0fx real time%s", finished.load(), work.size(), hours,
                 elapsed > 0 ? hours * 3600 / elapsed : 0.0, last ? "\n" : "");
  };

  // One decoder per worker: each file's pipeline lives on its worker's stack.
  auto worker = [&]() {
    for (size_t i = next++; i < work.size() && !interruptSignal(); i = next++) {
      outcomes[i] = convertBatchEntry(work[i], inDir, outDir, options, force);
      audioMillis += static_cast<uint64_t>(outcomes[i].audioSeconds * 1000);
      finished++;
      showProgress(false);
    }
  };
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < std::min<size_t>(jobs, std::max<size_t>(1, work.size())); t++) threads.emplace_back(worker);
  for (std::thread& t : threads) t.join();
  showProgress(true);

  // The summary lists every file dealt with: status, input, output, reason.
  size_t count[5] = {};
  size_t wholeNames = 0;
  const fs::path summaryPath = outDir / "quillon-batch-summary.txt";
  SafeOutput summary;
  if (summary.open(summaryPath.string(), {true, false}, {}, error) != SafeOutput::Status::Ok)
    std::fprintf(stderr, "quillon batch: %s\n", error.c_str());
  for (size_t i = 0; i < work.size(); i++) {
    const BatchOutcome& o = outcomes[i];
    count[static_cast<int>(o.state)]++;
    if (o.state == BatchState::NotStarted) continue;
    if (work[i].wholeName && o.state == BatchState::Converted) wholeNames++;
    if (summary.stream()) std::fputs(batchSummaryLine(work[i], o, inDir, outDir).c_str(), summary.stream());
    if (o.state == BatchState::Failed)
      std::fprintf(stderr, "failed: %s: %s\n", (inDir / work[i].input).string().c_str(), o.reason.c_str());
  }
  const bool summaryWritten = summary.stream() && summary.commit(error);
  if (!summaryWritten) std::fprintf(stderr, "quillon batch: summary not written: %s\n", error.c_str());
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const size_t converted = count[static_cast<int>(BatchState::Converted)], skipped = count[static_cast<int>(BatchState::Skipped)],
               failed = count[static_cast<int>(BatchState::Failed)];
  std::printf("%zu converted, %zu skipped (already converted), %zu failed; %.2f h of audio in %.1f s\n", converted,
              skipped, failed, audioMillis.load() / 3.6e6, elapsed);
  if (wholeNames)
    std::printf("%zu outputs named after their whole file name (such as X.opus.wav), as several inputs share a name\n",
                wholeNames);
  if (summaryWritten) std::printf("summary: %s\n", summaryPath.string().c_str());
  if (const int signal = interruptSignal()) {
    const size_t left = count[static_cast<int>(BatchState::NotStarted)] + count[static_cast<int>(BatchState::Interrupted)];
    std::printf("interrupted by %s: %zu files not converted\n", signal == SIGINT ? "SIGINT" : "SIGTERM", left);
    std::fflush(stdout);
    return 128 + signal;
  }
  return failed ? 1 : 0;
}
