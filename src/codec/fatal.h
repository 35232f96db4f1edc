// Conditions the library cannot continue from.
#ifndef QUILLON_INTERNAL_FATAL_H
#define QUILLON_INTERNAL_FATAL_H

namespace quillon {

// Hands `message` to the host's fatal-error handler and throws
// TAV::FatalError; with no handler installed, prints the message to the
// trace sink and ends the process with `status`.
[[noreturn]] void raiseFatal(int status, const char* message);

}  // namespace quillon

#endif
