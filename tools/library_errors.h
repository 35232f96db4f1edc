// The library's fatal errors in the tool: a condition that would end the
// process (a trace line that cannot be written, a division the G.729
// arithmetic cannot do) fails the file being converted instead.
#ifndef QUILLON_TOOLS_LIBRARY_ERRORS_H
#define QUILLON_TOOLS_LIBRARY_ERRORS_H

#include <exception>
#include <string>

namespace quillon::tool {

// Installs the handler: the failing call is abandoned (the C++ classes
// throw TAV::FatalError, the C functions return their error value) and the
// message is kept for the thread that met it.
void installFatalErrorHandler();

// The message of the fatal error this thread met since the last call, ""
// if none; clears it.
std::string takeFatalError();

// What to report for an exception that ended a conversion.
std::string describeFailure(const std::exception& e);

}  // namespace quillon::tool

#endif
