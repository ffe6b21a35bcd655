#pragma once

// Base64 written through a pointer, for writers that manage their own buffer.

#include <cstddef>

#include "ostrel/core/values.hpp"

namespace ostrel::detail {

constexpr size_t base64Size(size_t size) noexcept { return (size + 2) / 3 * 4; }

// Writes `bytes` as standard base64 with padding at `out`, which has room for
// base64Size(bytes.size()) characters; returns the end.
char* writeBase64(char* out, ByteView bytes) noexcept;

}  // namespace ostrel::detail
