#include "codec/fatal.h"

#include <atomic>
#include <cstdlib>
#include <mutex>

#include "codec/trace.h"
#include "quillon/fatal_error.h"
#include "quillon/quillon_c.h"

namespace {
// The handler is read on every fatal error from whichever thread meets it;
// the mutex only keeps a handler and its context together.
std::atomic<quillon_fatal_handler> g_handler{nullptr};
std::atomic<void*> g_context{nullptr};
std::mutex g_handlerMutex;
}  // namespace

extern "C" QUILLON_API quillon_fatal_handler QUILLON_STDCALL quillon_set_fatal_handler(quillon_fatal_handler handler,
                                                                                       void* context) {
  std::lock_guard<std::mutex> lock(g_handlerMutex);
  g_context.store(context);
  return g_handler.exchange(handler);
}

namespace quillon {

void fatal(int status, const char* message) {
  quillon_fatal_handler handler = nullptr;
  void* context = nullptr;
  {
    std::lock_guard<std::mutex> lock(g_handlerMutex);
    handler = g_handler.load();
    context = g_context.load();
  }
  if (handler) {
    handler(message, status, context);
    throw TAV::FatalError(message, status);
  }
  tracePrintf("%s\n", message);
  std::exit(status);
}

}  // namespace quillon
