// The library's one way out of an unrecoverable error.
#ifndef QUILLON_INTERNAL_FATAL_H
#define QUILLON_INTERNAL_FATAL_H

namespace quillon {

// With a host handler installed: calls it with `message` and `status`, then
// throws TAV::FatalError. Otherwise prints `message` and a newline to the
// trace sink and ends the process with `status`.
[[noreturn]] void fatal(int status, const char* message);

}  // namespace quillon

#endif
