// Writing an output file without ever losing what was there: the data goes
// to a new temporary file beside the target, which is renamed over the
// target only when everything was written. The inputs are never written to,
// and an interrupted run leaves no temporary file behind.
#ifndef QUILLON_TOOLS_OUTPUT_FILE_H
#define QUILLON_TOOLS_OUTPUT_FILE_H

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

namespace quillon::tool {

// The device and inode a path names (through links), or of standard input
// for "-". False if the path does not exist.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const FileIdentity& o) const { return device == o.device && inode == o.inode; }
};
bool identifyFile(const std::string& path, FileIdentity& identity);

// True, with `error` saying so, when an input file name is a folder.
bool inputIsFolder(const std::string& path, std::string& error);

// How an existing output is treated.
struct OutputRules {
  bool replace = true;  // an existing output may be replaced
  // An output that is a symbolic link is written where the link points (an
  // explicit OUTPUT, /dev/stdout); without, the link itself is replaced and
  // never followed (outputs inside an output folder), and an output that is
  // a device or FIFO is refused.
  bool followLinks = true;
};

class SafeOutput {
 public:
  enum class Status {
    Ok,
    Refused,  // the arguments are wrong: the output is an input, a folder, or exists and may not be replaced
    Failed,   // the temporary file could not be created
  };

  SafeOutput() = default;
  SafeOutput(const SafeOutput&) = delete;
  SafeOutput& operator=(const SafeOutput&) = delete;
  // An output neither committed nor abandoned is abandoned.
  ~SafeOutput();

  // Prepares writing `path`: "-" is standard output, and a device, FIFO or
  // socket (/dev/null, /dev/stdout) is written directly, as neither can be
  // replaced by a rename. Anything else gets a new temporary file beside it
  // (beside the link's target when a followed link), created exclusively
  // (never through an existing file or link). `inputs` are the files the
  // command reads ("-" for standard input): an output that is one of them,
  // by name, link or hard link, is refused. Without `rules.replace` an
  // existing `path` is refused, and commit() will not replace one that
  // appears meanwhile.
  Status open(const std::string& path, const OutputRules& rules, const std::vector<std::string>& inputs,
              std::string& error);
  // The exit status of a command whose output could not be opened.
  static int exitStatus(Status status) { return status == Status::Refused ? 2 : status == Status::Failed ? 1 : 0; }

  FILE* stream() const { return m_stream; }
  // The name to show in messages: the target path, or "standard output".
  const std::string& name() const { return m_name; }
  // The temporary file ("" when written directly or not open).
  const std::string& temporaryPath() const { return m_temp; }
  // Standard output or a device: what is written is there at once, and
  // abandon() cannot take it back.
  bool writesDirectly() const { return m_direct; }

  // Flushes the data to disk and renames the temporary file to the target
  // (a direct output is flushed and closed).
  // On failure the temporary file is removed and `error` says why.
  bool commit(std::string& error);
  // Removes the temporary file; the target is left as it was.
  void abandon();

 private:
  std::string m_path, m_name, m_temp;
  FILE* m_stream = nullptr;
  bool m_direct = false;
  bool m_ownsStream = false;
  bool m_replace = true;
  int m_slot = -1;
};

// SIGINT and SIGTERM handling for commands that write files. In immediate
// mode a signal removes every open temporary file and ends the process with
// status 128 + signal number. In deferred mode (batch) the first signal only
// sets a flag that the work polls (interruptSignal()); the command then
// finishes cleanly itself, and a second signal acts as in immediate mode.
void installInterruptHandlers(bool deferred);
// The signal received in deferred mode, 0 if none.
int interruptSignal();

}  // namespace quillon::tool

#endif
