#include "batch_plan.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>

#include "library_errors.h"

namespace quillon::tool {

namespace fs = std::filesystem;

namespace {

using Visited = std::set<std::pair<dev_t, ino_t>>;

void walk(const fs::path& inDir, const fs::path& relative, const FileIdentity* skip, Visited& visited,
          std::vector<BatchEntry>& entries) {
  const fs::path dir = relative.empty() ? inDir : inDir / relative;
  std::error_code ec;
  std::vector<fs::path> names;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
    names.push_back(it->path().filename());
  if (ec) {
    entries.push_back({relative, {}, false, "cannot read the folder: " + ec.message()});
    return;
  }
  std::sort(names.begin(), names.end());
  for (const fs::path& name : names) {
    const fs::path rel = relative / name;
    const fs::path path = inDir / rel;
    const fs::file_status own = fs::symlink_status(path, ec);
    const fs::file_status target = fs::is_symlink(own) ? fs::status(path, ec) : own;
    if (fs::is_symlink(own) && !fs::exists(target)) {
      entries.push_back({rel, {}, false, "a symbolic link to nothing"});
    } else if (fs::is_directory(target)) {
      FileIdentity id;
      if (!identifyFile(path.string(), id)) continue;
      if (skip && id == *skip) continue;
      if (!visited.insert({id.device, id.inode}).second) continue;
      walk(inDir, rel, skip, visited, entries);
    } else if (fs::is_regular_file(target)) {
      entries.push_back({rel, {}, false, {}});
    }
  }
}

// The reason without the input's path, which the report shows once already.
std::string withoutPath(std::string reason, const std::string& path) {
  for (const std::string& prefix : {path + ": ", path + " "})
    if (reason.compare(0, prefix.size(), prefix) == 0) reason.erase(0, prefix.size());
  for (size_t at; (at = reason.find(" " + path)) != std::string::npos;) reason.erase(at, path.size() + 1);
  return reason;
}

}  // namespace

std::vector<BatchEntry> listBatchInputs(const fs::path& inDir, const FileIdentity* skip) {
  std::vector<BatchEntry> entries;
  Visited visited;
  FileIdentity root;
  if (identifyFile(inDir.string(), root)) visited.insert({root.device, root.inode});
  walk(inDir, {}, skip, visited, entries);
  std::sort(entries.begin(), entries.end(),
            [](const BatchEntry& a, const BatchEntry& b) { return a.input < b.input; });
  return entries;
}

fs::path outputNameFor(const fs::path& input) {
  fs::path name = input.filename();
  if (name.extension().empty()) return name += ".wav";
  return name.replace_extension(".wav");
}

void nameBatchOutputs(std::vector<BatchEntry>& entries) {
  for (BatchEntry& e : entries) {
    e.wholeName = false;
    e.output = e.input.parent_path() / outputNameFor(e.input);
  }
  // A whole file name is unique within its folder, so renaming converges;
  // a renamed output may collide with another's short name, hence the loop.
  for (bool changed = true; changed;) {
    changed = false;
    std::map<fs::path, std::vector<BatchEntry*>> byOutput;
    for (BatchEntry& e : entries)
      if (e.problem.empty()) byOutput[e.output].push_back(&e);
    for (auto& [output, group] : byOutput) {
      if (group.size() < 2) continue;
      for (BatchEntry* e : group) {
        if (e->wholeName) continue;
        e->wholeName = true;
        e->output = e->input.parent_path() / fs::path(e->input.filename()).concat(".wav");
        changed = true;
      }
    }
  }
}

ExistingOutput existingOutput(const fs::path& path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return ExistingOutput::None;
  return S_ISLNK(st.st_mode) ? ExistingOutput::Link : ExistingOutput::File;
}

bool makeOutputFolders(const fs::path& outDir, const fs::path& relative, std::string& error) {
  fs::path current = outDir;
  for (const fs::path& part : relative.parent_path()) {
    current /= part;
    struct stat st;
    if (::lstat(current.c_str(), &st) != 0) {
      if (::mkdir(current.c_str(), 0777) != 0 && errno != EEXIST) {
        error = "cannot create the folder " + current.string() + ": " + std::strerror(errno);
        return false;
      }
      if (::lstat(current.c_str(), &st) != 0) {
        error = "cannot create the folder " + current.string() + ": " + std::strerror(errno);
        return false;
      }
    }
    if (S_ISLNK(st.st_mode)) {
      error = "the output folder " + current.string() + " is a symbolic link; outputs are not written through links";
      return false;
    }
    if (!S_ISDIR(st.st_mode)) {
      error = current.string() + " is in the way of an output folder";
      return false;
    }
  }
  return true;
}

bool checkBatchFolders(const fs::path& inDir, const fs::path& outDir, bool& outInside, std::string& error) {
  outInside = false;
  std::error_code ec;
  FileIdentity in, out;
  if (!identifyFile(inDir.string(), in)) {
    error = "cannot read " + inDir.string();
    return false;
  }
  if (identifyFile(outDir.string(), out)) {
    const fs::path canonicalIn = fs::canonical(inDir, ec);
    for (fs::path p = canonicalIn; !ec; p = p.parent_path()) {
      FileIdentity id;
      if (identifyFile(p.string(), id) && id == out) {
        error = p == canonicalIn ? "OUT_DIR is IN_DIR: give a separate folder for the outputs"
                                 : "IN_DIR lies inside OUT_DIR: give an output folder outside the input";
        return false;
      }
      if (p == p.parent_path()) break;
    }
  }
  const fs::path canonicalOut = fs::weakly_canonical(outDir, ec);
  for (fs::path p = canonicalOut; !ec; p = p.parent_path()) {
    FileIdentity id;
    if (identifyFile(p.string(), id) && id == in) outInside = true;
    if (p == p.parent_path()) break;
  }
  return true;
}

const char* batchStateName(BatchState state) {
  switch (state) {
    case BatchState::Converted: return "converted";
    case BatchState::Skipped: return "skipped";
    case BatchState::Failed: return "failed";
    case BatchState::Interrupted: return "interrupted";
    case BatchState::NotStarted: break;
  }
  return "not started";
}

BatchOutcome convertBatchEntry(const BatchEntry& entry, const fs::path& inDir, const fs::path& outDir,
                               const ConvertOptions& options, bool force) {
  BatchOutcome o;
  o.state = BatchState::Failed;
  if (!entry.problem.empty()) {
    o.reason = entry.problem;
    return o;
  }
  const fs::path input = inDir / entry.input, output = outDir / entry.output;
  const ExistingOutput existing = existingOutput(output);
  if (existing == ExistingOutput::File && !force) {
    o.state = BatchState::Skipped;
    return o;
  }
  if (existing == ExistingOutput::Link && !force) {
    o.reason = "the output is a symbolic link; it is not followed (--force replaces the link)";
    return o;
  }
  std::string error;
  if (!makeOutputFolders(outDir, entry.output, error)) {
    o.reason = error;
    return o;
  }
  try {
    ConvertOptions fileOptions = options;
    fileOptions.replace = force;
    fileOptions.followLinks = false;
    ConvertResult result;
    if (convertFile(input.string(), output.string(), fileOptions, result, error)) {
      o.state = BatchState::Converted;
      o.audioSeconds = result.rate ? static_cast<double>(result.samples) / result.rate : 0;
      return o;
    }
  } catch (const std::exception& e) {
    error = describeFailure(e);
  }
  if (interruptSignal()) o.state = BatchState::Interrupted;
  o.reason = withoutPath(error, input.string());
  return o;
}

std::string batchSummaryLine(const BatchEntry& entry, const BatchOutcome& outcome, const fs::path& inDir,
                             const fs::path& outDir) {
  std::string note = outcome.reason;
  if (entry.wholeName && outcome.state == BatchState::Converted)
    note = "named after the whole file name: " + outputNameFor(entry.input).string() +
           " would be the output of more than one file";
  return std::string(batchStateName(outcome.state)) + "\t" + (inDir / entry.input).string() + "\t" +
         (entry.problem.empty() ? (outDir / entry.output).string() : std::string()) + "\t" + note + "\n";
}

}  // namespace quillon::tool
