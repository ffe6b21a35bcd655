#pragma once

// How deep messages may nest in what the library reads, renders, encodes and imports. Deeper input
// is refused with a thrown error rather than followed, so that no input can exhaust the stack.

#include <string>

#include "ostrel/core/errors.hpp"

namespace ostrel::detail {

inline constexpr int kMaxMessageNesting = 100;

// Throws the error of a message nested deeper than kMaxMessageNesting.
[[noreturn]] inline void throwNestingTooDeep() {
  throw SchematizerError::protocolBufferError("Nesting deeper than " +
                                              std::to_string(kMaxMessageNesting) + " messages");
}

// Throws that error when a message at `depth` (the outermost message is 0) would nest too deep.
inline void checkNesting(int depth) {
  if (depth >= kMaxMessageNesting) [[unlikely]]
    throwNestingTooDeep();
}

}  // namespace ostrel::detail
