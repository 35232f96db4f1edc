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

  // Prepares writing `path`: "-" is standard output (no temporary file);
  // anything else gets a new temporary file beside it, created exclusively
  // (never through an existing file or link). `inputs` are the files the
  // command reads ("-" for standard input): an output that is one of them,
  // by name, link or hard link, is refused. Unless `replace`, an existing
  // `path` (even a dangling link) is refused, and commit() will not replace
  // one that appears meanwhile.
  Status open(const std::string& path, bool replace, const std::vector<std::string>& inputs, std::string& error);
  // The exit status of a command whose output could not be opened.
  static int exitStatus(Status status) { return status == Status::Refused ? 2 : status == Status::Failed ? 1 : 0; }

  FILE* stream() const { return m_stream; }
  // The name to show in messages: the target path, or "standard output".
  const std::string& name() const { return m_name; }
  // The temporary file ("" for standard output or when not open).
  const std::string& temporaryPath() const { return m_temp; }
  bool isStandardOutput() const { return m_stdout; }

  // Flushes the data to disk and renames the temporary file to the target.
  // On failure the temporary file is removed and `error` says why.
  bool commit(std::string& error);
  // Removes the temporary file; the target is left as it was.
  void abandon();

 private:
  std::string m_path, m_name, m_temp;
  FILE* m_stream = nullptr;
  bool m_stdout = false;
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
