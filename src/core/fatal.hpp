#pragma once

#include <string_view>

namespace ostrel::detail {

// Stops the process after logging `message`. Reserved for violated preconditions of the caller
// (never for faults in input bytes, which are thrown as SerializationError).
[[noreturn]] void fatal(std::string_view message) noexcept;

}  // namespace ostrel::detail
