#include "ostrel/core/fatal.hpp"

#include <cstdio>
#include <cstdlib>

namespace ostrel::detail {

void fatal(std::string_view message) noexcept {
  std::fprintf(stderr, "ostrel: fatal error: %.*s\n", static_cast<int>(message.size()),
               message.data());
  std::fflush(stderr);
  std::abort();
}

}  // namespace ostrel::detail
