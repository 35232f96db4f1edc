#include "codec/trace.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace {
// Null means standard output; the address of `g_discardTag` records an
// explicit null from the host, so that the default is not taken again.
// Decoders on any thread read the sink while the host may set it.
char g_discardTag;
FILE* const kDiscard = reinterpret_cast<FILE*>(&g_discardTag);
std::atomic<FILE*> g_sink{nullptr};
}  // namespace

extern "C" void quillon_set_trace_sink(FILE* sink) { g_sink.store(sink ? sink : kDiscard); }

extern "C" FILE* quillon_trace_sink(void) {
  FILE* sink = g_sink.load();
  if (sink == kDiscard) return nullptr;
  return sink ? sink : stdout;
}

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
