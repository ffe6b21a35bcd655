#pragma once

// Base64 in the standard alphabet with padding, the form in which JSON carries raw bytes (manifest
// options, bytes values of rendered data) and in which the tool reads and writes data.

#include <optional>
#include <string>
#include <string_view>

#include "ostrel/core/bytes.hpp"

namespace ostrel {

// The standard alphabet ("+" and "/"), padded with "=" to a multiple of four characters. An empty
// buffer gives "".
std::string base64Encode(ByteView bytes);
// The same text appended to `out`.
void appendBase64(ByteView bytes, std::string& out);

// The bytes of `text`, or no value unless `text` is exactly what base64Encode writes: a multiple of
// four characters of the standard alphabet, "=" only as one or two final padding characters, and
// zero in the bits that padding leaves unused. No whitespace, no URL-safe alphabet, no missing
// padding. Being this strict gives every buffer a single accepted text, so texts compare as their
// bytes do.
std::optional<Bytes> base64Decode(std::string_view text);

}  // namespace ostrel
