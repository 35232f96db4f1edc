// What an engine reports but does not handle itself. The library that links
// the engines defines these two functions and routes them to its trace
// output and its fatal-error handling, so the engines need nothing above
// the primitives.
#ifndef QUILLON_PRIMITIVES_DIAGNOSTICS_H
#define QUILLON_PRIMITIVES_DIAGNOSTICS_H

namespace quillon::diag {

// One line for the library's trace output (the text includes its newline).
void traceLine(const char* line);

// A condition the engine cannot continue from; never returns.
[[noreturn]] void fatal(int status, const char* message);

}  // namespace quillon::diag

#endif
