#include "primitives/diagnostics.h"

#include "codec/fatal.h"
#include "codec/trace.h"

namespace quillon::diag {

void traceLine(const char* line) { tracePrintf("%s", line); }

void fatal(int status, const char* message) { raiseFatal(status, message); }

}  // namespace quillon::diag
