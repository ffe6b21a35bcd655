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

// How many bytes base64DecodeEitherAlphabet writes for `text`; no value for a length no base64
// text has.
std::optional<size_t> base64DecodedSize(std::string_view text) noexcept;

// Writes the bytes of `text`, a text of a length base64DecodedSize accepts, at `out`, which has
// room for base64DecodedSize(text) of them, as ProtoJSON readers take base64: the standard alphabet
// or the URL-safe one ("-" and "_" for "+" and "/"), with its final padding or without it. False
// for anything else (other characters, padding inside the text), having written some bytes or none.
bool base64DecodeEitherAlphabet(std::string_view text, std::byte* out) noexcept;

}  // namespace ostrel::detail
