#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ostrel {

// The one owned byte buffer type of the library.
using Bytes = std::vector<std::byte>;

// A borrowed, read-only range of bytes. Valid while the memory it points into is alive and
// unchanged.
using ByteView = std::span<const std::byte>;

// Views the characters of `text` as bytes; valid while `text` is.
inline ByteView asBytes(std::string_view text) noexcept {
  return {reinterpret_cast<const std::byte*>(text.data()), text.size()};
}

// Views bytes as characters; valid while `bytes` is.
inline std::string_view asText(ByteView bytes) noexcept {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// An owned copy of `bytes`.
inline Bytes toBytes(ByteView bytes) { return Bytes(bytes.begin(), bytes.end()); }
inline Bytes toBytes(std::string_view text) { return toBytes(asBytes(text)); }

// An owned copy of `bytes` as a std::string, the form libprotobuf and most I/O APIs take.
inline std::string toString(ByteView bytes) { return std::string(asText(bytes)); }

}  // namespace ostrel
