#include "core/fatal.hpp"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "ostrel/core/logging.hpp"

namespace ostrel::detail {

void fatal(std::string_view message) noexcept {
  // The log may not be read by whoever watches the process die, so stderr hears it too.
  std::fprintf(stderr, "ostrel: fatal error: %.*s\n", static_cast<int>(message.size()),
               message.data());
  std::fflush(stderr);
  try {
    log("Sch: " + std::string(message));
  } catch (...) {
  }
  std::abort();
}

}  // namespace ostrel::detail
