// Sub-commands of the quillon tool. Each takes the words from the command
// name on (argv[0] is the command name) and returns the process exit code.
#ifndef QUILLON_TOOLS_COMMANDS_H
#define QUILLON_TOOLS_COMMANDS_H

// quillon text --from NAME --to NAME [--filter upper|lower|sort] [IN [OUT]]
int runTextCommand(int argc, char** argv);
// quillon host
int runHostCommand(int argc, char** argv);

#endif
