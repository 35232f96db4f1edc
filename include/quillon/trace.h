/* The library's one trace sink. Diagnostic lines that the library prints
 * (engine trace output, decoder warnings) all go through it; it is the
 * process's standard output until the host redirects it. */
#ifndef QUILLON_TRACE_H
#define QUILLON_TRACE_H

#include <stdio.h>

#include "quillon/platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Redirects the trace lines to `sink` (null: discard them). */
QUILLON_API void quillon_set_trace_sink(FILE* sink);
/* The current sink; standard output by default. */
QUILLON_API FILE* quillon_trace_sink(void);

#ifdef __cplusplus
}
#endif

#endif
