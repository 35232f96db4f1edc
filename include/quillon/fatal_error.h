// The error the library raises, through its C++ interface, when it meets a
// condition it cannot continue from and the host has installed a fatal-error
// handler (quillon_set_fatal_handler). Without a handler such a condition
// still ends the process as it always has.
#ifndef QUILLON_FATAL_ERROR_H
#define QUILLON_FATAL_ERROR_H

#include <stdexcept>
#include <string>

#include "quillon/platform.h"

namespace TAV {

class QUILLON_API FatalError : public std::runtime_error {
 public:
  FatalError(const std::string& message, int status);
  ~FatalError() override;
  // The exit status the process would have ended with.
  int status() const noexcept { return m_status; }

 private:
  int m_status;
};

}  // namespace TAV

#endif
