#pragma once

// Base64 written through a pointer, for writers that manage their own buffer.

#include <cstddef>
#include <optional>
#include <string_view>

#include "ostrel/core/values.hpp"

namespace ostrel::detail {

constexpr size_t base64Size(size_t size) noexcept { return (size + 2) / 3 * 4; }

// Writes `bytes` as standard base64 with padding at `out`, which has room for
// base64Size(bytes.size()) characters; returns the end.
char* writeBase64(char* out, ByteView bytes) noexcept;

// The bytes of `text` as ProtoJSON readers take base64: the standard alphabet or the URL-safe one
// ("-" and "_" for "+" and "/"), with its final padding or without it; no value for anything else
// (other characters, padding inside the text, a length no base64 text has).
std::optional<Bytes> base64DecodeEitherAlphabet(std::string_view text);

}  // namespace ostrel::detail
