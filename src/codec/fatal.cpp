#include "codec/fatal.h"

#include <cstdlib>
#include <mutex>

#include "codec/trace.h"
#include "quillon/fatal_error.h"
#include "quillon/quillon_c.h"

namespace TAV {
FatalError::FatalError(const std::string& message, int status) : std::runtime_error(message), m_status(status) {}
FatalError::~FatalError() = default;
}  // namespace TAV

namespace {
// The handler and its context change together, so one lock guards both.
std::mutex g_lock;
quillon_fatal_handler g_handler = nullptr;
void* g_context = nullptr;
}  // namespace

extern "C" QUILLON_API quillon_fatal_handler QUILLON_STDCALL quillon_set_fatal_handler(quillon_fatal_handler handler,
                                                                                     void* context) {
  std::lock_guard<std::mutex> hold(g_lock);
  quillon_fatal_handler previous = g_handler;
  g_handler = handler;
  g_context = handler ? context : nullptr;
  return previous;
}

namespace quillon {

void raiseFatal(int status, const char* message) {
  quillon_fatal_handler handler;
  void* context;
  {
    std::lock_guard<std::mutex> hold(g_lock);
    handler = g_handler;
    context = g_context;
  }
  if (!handler) {
    tracePrintf("%s", message);
    std::exit(status);
  }
  handler(message, status, context);
  throw TAV::FatalError(message, status);
}

}  // namespace quillon
