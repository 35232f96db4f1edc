#include "codec/trace.h"

#include <cstdarg>
#include <cstdio>

namespace {
// Standard output unless the host chose otherwise; `discard` records an
// explicit null so that the default is not taken again.
FILE* g_sink = nullptr;
bool g_discard = false;
}  // namespace

extern "C" void quillon_set_trace_sink(FILE* sink) {
  g_sink = sink;
  g_discard = sink == nullptr;
}

extern "C" FILE* quillon_trace_sink(void) { return g_discard ? nullptr : (g_sink ? g_sink : stdout); }

namespace quillon {

int tracePrintf(const char* format, ...) {
  FILE* sink = quillon_trace_sink();
  if (!sink) return 0;
  va_list args;
  va_start(args, format);
  int n = std::vfprintf(sink, format, args);
  va_end(args);
  // Some C runtimes only report a failed write when the buffer is flushed.
  if (n >= 0 && (std::fflush(sink) != 0 || std::ferror(sink))) n = -1;
  return n;
}

}  // namespace quillon
