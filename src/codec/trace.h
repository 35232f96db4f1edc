// Printing to the trace sink from inside the library.
#ifndef QUILLON_INTERNAL_TRACE_H
#define QUILLON_INTERNAL_TRACE_H

#include "quillon/trace.h"

namespace quillon {

// printf-style output to the trace sink, flushed at once. Returns what
// vfprintf returned (negative when the line could not be written), or 0
// when the sink is discarding.
int tracePrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace quillon

#endif
