#include "library_errors.h"

#include "quillon/fatal_error.h"
#include "quillon/quillon_c.h"

namespace quillon::tool {

namespace {

thread_local std::string t_fatal;

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

void QUILLON_STDCALL keepFatalError(const char* message, int, void*) { t_fatal = trimmed(message ? message : ""); }

}  // namespace

void installFatalErrorHandler() { quillon_set_fatal_handler(keepFatalError, nullptr); }

std::string takeFatalError() {
  std::string message;
  message.swap(t_fatal);
  return message;
}

std::string describeFailure(const std::exception& e) {
  takeFatalError();
  if (dynamic_cast<const TAV::FatalError*>(&e)) return "the library stopped: " + trimmed(e.what());
  return e.what();
}

}  // namespace quillon::tool
