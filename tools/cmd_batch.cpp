// quillon batch: every file of a folder tree to WAVE, in parallel.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "codec_names.h"
#include "commands.h"
#include "convert.h"
#include "resampler_choice.h"

namespace fs = std::filesystem;
using namespace quillon::tool;

namespace {

struct Job {
  fs::path input;
  fs::path output;
};

struct Outcome {
  bool done = false;
  bool ok = false;
  bool skipped = false;
  std::string reason;
  double audioSeconds = 0;
};

int usage(const std::string& message) {
  std::fprintf(stderr, "quillon batch: %s\n(see 'quillon help')\n", message.c_str());
  return 2;
}

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
        options.haveCodec = true;
      }
    } else if (a == "--jobs" && i + 1 < argc) {
      jobs = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
      if (jobs == 0 || jobs > 256) return usage("--jobs needs a number from 1 to 256");
    } else if (a == "--rate" && i + 1 < argc) {
      options.rate = static_cast<uint32_t>(std::strtoul(argv[++i], nullptr, 10));
      if (options.rate == 0) return usage("--rate needs a number of Hz");
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
  const fs::path inDir = dirs[0], outDir = dirs[1];
  std::error_code ec;
  if (!fs::is_directory(inDir, ec)) {
    std::fprintf(stderr, "quillon: %s is not a folder\n", inDir.string().c_str());
    return 1;
  }

  // The work list: every regular file, its output mirrored under OUT_DIR.
  std::vector<Job> work;
  const fs::path outAbs = fs::weakly_canonical(outDir, ec);
  for (auto it = fs::recursive_directory_iterator(inDir, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    if (!it->is_regular_file()) continue;
    const fs::path rel = fs::relative(it->path(), inDir);
    if (fs::weakly_canonical(it->path()).string().rfind(outAbs.string() + "/", 0) == 0) continue;  // our own output
    fs::path out = outDir / rel;
    out.replace_extension(".wav");
    work.push_back({it->path(), out});
  }
  if (ec) {
    std::fprintf(stderr, "quillon: cannot read %s: %s\n", inDir.string().c_str(), ec.message().c_str());
    return 1;
  }

  std::vector<Outcome> outcomes(work.size());
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
    for (size_t i = next++; i < work.size(); i = next++) {
      const Job& job = work[i];
      Outcome& o = outcomes[i];
      std::error_code fsError;
      if (!force && fs::exists(job.output, fsError)) {
        o.skipped = o.ok = true;
      } else {
        fs::create_directories(job.output.parent_path(), fsError);
        // Written under a temporary name and renamed when complete, so a
        // failure never leaves a partial WAVE file behind.
        const fs::path part = fs::path(job.output).concat(".part");
        ConvertResult result;
        std::string error;
        if (convertFile(job.input.string(), part.string(), options, result, error)) {
          fs::rename(part, job.output, fsError);
          o.ok = !fsError;
          if (fsError) o.reason = "cannot rename the output: " + fsError.message();
          o.audioSeconds = result.rate ? static_cast<double>(result.samples) / result.rate : 0;
          audioMillis += static_cast<uint64_t>(o.audioSeconds * 1000);
        } else {
          o.reason = error;
        }
        if (!o.ok) fs::remove(part, fsError);
      }
      o.done = true;
      finished++;
      showProgress(false);
    }
  };
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < std::min<size_t>(jobs, std::max<size_t>(1, work.size())); t++) threads.emplace_back(worker);
  for (std::thread& t : threads) t.join();
  showProgress(true);

  size_t converted = 0, skipped = 0, failed = 0;
  fs::create_directories(outDir, ec);
  FILE* summary = std::fopen((outDir / "quillon-batch-summary.txt").string().c_str(), "w");
  for (size_t i = 0; i < work.size(); i++) {
    const Outcome& o = outcomes[i];
    if (o.skipped) skipped++;
    else if (o.ok) converted++;
    else failed++;
    if (summary)
      std::fprintf(summary, "%s\t%s\t%s\n", o.skipped ? "skipped" : o.ok ? "converted" : "failed",
                   work[i].input.string().c_str(), o.reason.c_str());
    if (!o.ok) std::fprintf(stderr, "failed: %s: %s\n", work[i].input.string().c_str(), o.reason.c_str());
  }
  if (summary) std::fclose(summary);
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%zu converted, %zu skipped (already converted), %zu failed; %.2f h of audio in %.1f s\n", converted,
              skipped, failed, audioMillis.load() / 3.6e6, elapsed);
  std::printf("summary: %s\n", (outDir / "quillon-batch-summary.txt").string().c_str());
  return failed ? 1 : 0;
}
