// The tool's sub-commands. Each takes argv from the command name on
// (argv[0] is the command name) and returns the process exit status.
#ifndef QUILLON_TOOLS_COMMANDS_H
#define QUILLON_TOOLS_COMMANDS_H

#include <string>

// Reports a bad argument of `command` on standard error; returns exit status 2.
int usageError(const char* command, const std::string& message);

int runDecodeCommand(int argc, char** argv);
int runEncodeCommand(int argc, char** argv);
int runCodecsCommand(int argc, char** argv);
int runDemoCommand(int argc, char** argv);
int runProbeCommand(int argc, char** argv);
int runBatchCommand(int argc, char** argv);
// quillon text --from NAME --to NAME [--filter upper|lower|sort] [IN [OUT]]
int runTextCommand(int argc, char** argv);
// quillon host
int runHostCommand(int argc, char** argv);
// quillon capture [options] CAPTURE...
int runCaptureCommand(int argc, char** argv);

#endif
