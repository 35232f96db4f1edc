// The rules of converting a folder tree: which files are inputs, what each
// output is called and where it goes, and when an existing output is kept.
// `quillon batch` and other archive converters share them.
#ifndef QUILLON_TOOLS_BATCH_PLAN_H
#define QUILLON_TOOLS_BATCH_PLAN_H

#include <filesystem>
#include <string>
#include <vector>

#include "convert.h"
#include "output_file.h"

namespace quillon::tool {

// One input of a batch: its path relative to the input folder as found
// there (a link's own name, never its target), the output path relative to
// the output folder, and why the entry cannot be converted ("" if it can).
struct BatchEntry {
  std::filesystem::path input;
  std::filesystem::path output;
  bool wholeName = false;  // named X.ext.wav because X.wav would collide
  std::string problem;
};

// Every file under `inDir`, sorted by path. Links to files are inputs under
// the link's name; links to folders are followed, each folder is read once
// (so links cannot loop), and the folder `skip` (the output folder when it
// lies inside the input folder) is left out. A link that leads nowhere or a
// folder that cannot be read becomes an entry with its problem. Only
// regular files are inputs (no devices, FIFOs or sockets).
std::vector<BatchEntry> listBatchInputs(const std::filesystem::path& inDir, const FileIdentity* skip);

// "X.ext" -> "X.wav" (a name without extension gets ".wav" appended).
std::filesystem::path outputNameFor(const std::filesystem::path& input);

// Gives each entry its output path. Entries of one folder whose names would
// give the same output (X.wav, X.opus, X.g722) are all named after their
// whole file name instead (X.wav.wav, X.opus.wav, X.g722.wav); a lone file
// keeps the short name.
void nameBatchOutputs(std::vector<BatchEntry>& entries);

// What is at an output path already.
enum class ExistingOutput { None, File, Link };
ExistingOutput existingOutput(const std::filesystem::path& path);

// Creates the folders of `relative` (an output path) under `outDir`. A
// component that is a link or not a folder is refused: outputs never go
// through a link out of the output folder.
bool makeOutputFolders(const std::filesystem::path& outDir, const std::filesystem::path& relative,
                       std::string& error);

// Whether the input folder `inDir` and output folder `outDir` may be used
// together: false if they are the same or the input lies inside the output.
// `outInside` says whether the output lies inside the input (its tree is
// then left out of the inputs). `outDir` need not exist yet.
bool checkBatchFolders(const std::filesystem::path& inDir, const std::filesystem::path& outDir, bool& outInside,
                       std::string& error);

enum class BatchState { NotStarted, Converted, Skipped, Failed, Interrupted };
const char* batchStateName(BatchState state);

struct BatchOutcome {
  BatchState state = BatchState::NotStarted;
  std::string reason;  // why it failed, without the input's path
  double audioSeconds = 0;
};

// Converts one entry to outDir/entry.output. An existing output is skipped
// unless `force`; an output that is a link fails unless `force`, which
// replaces the link (never what it points to). The output is written under
// a temporary name and renamed when complete. An exception (a fatal library
// error) fails this entry only. Interrupted when a signal arrives meanwhile.
BatchOutcome convertBatchEntry(const BatchEntry& entry, const std::filesystem::path& inDir,
                               const std::filesystem::path& outDir, const ConvertOptions& options, bool force);

// The entry's line of the batch summary (with its newline): state, input
// path, output path and the reason or note, separated by tabs.
std::string batchSummaryLine(const BatchEntry& entry, const BatchOutcome& outcome, const std::filesystem::path& inDir,
                             const std::filesystem::path& outDir);

}  // namespace quillon::tool

#endif
