// The error the library throws when it meets a fatal error while the host
// has installed a fatal handler (quillon_set_fatal_handler in quillon_c.h).
// Without a handler the library ends the process instead.
#ifndef QUILLON_FATAL_ERROR_H
#define QUILLON_FATAL_ERROR_H

#include <stdexcept>
#include <string>

#include "quillon/platform.h"

namespace TAV {

class QUILLON_API FatalError : public std::runtime_error {
 public:
  FatalError(const std::string& message, int status) : std::runtime_error(message), m_status(status) {}
  // The exit status the process would have ended with.
  int status() const noexcept { return m_status; }

 private:
  int m_status;
};

}  // namespace TAV

#endif
