#pragma once

// The one UTF-8 validator of the library: strict UTF-8 (no overlong forms, no surrogates, nothing
// above U+10FFFF), as JSON text and protobuf strings require it. Decoding, rendering, manifests and
// property paths all go through it, so that they agree on what is valid.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "ostrel/core/utf8.hpp"
#include "ostrel/core/values.hpp"

namespace ostrel::detail {

// What one sequence that starts with a byte of 0x80 or above is: a complete valid sequence of
// `length` bytes, or an invalid one whose maximal subpart (the longest prefix that could still have
// become valid, or else one byte) has `length` bytes.
struct Utf8Step {
  size_t length;
  bool valid;
};

// Classifies the sequence at `p`, of which `available` bytes (at least one) may be read. The second
// byte's range depends on the lead, to rule out overlong forms, surrogates and code points above
// U+10FFFF; later bytes are 80..BF.
inline Utf8Step classifyUtf8(const unsigned char* p, size_t available) noexcept {
  const unsigned char lead = p[0];
  size_t continuations;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    continuations = 1;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    continuations = 2;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    continuations = 3;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return {1, false};
  }
  for (size_t i = 1; i <= continuations; ++i) {
    if (i >= available || p[i] < low || p[i] > high) return {i, false};
    low = 0x80;
    high = 0xBF;
  }
  return {continuations + 1, true};
}

// The length of the longest prefix of p[0, size) made of complete, valid sequences.
size_t validUtf8PrefixLength(const unsigned char* p, size_t size) noexcept;

inline bool isUtf8(std::string_view text) noexcept {
  return validUtf8PrefixLength(reinterpret_cast<const unsigned char*>(text.data()), text.size()) ==
         text.size();
}

// Decodes the sequence at `pos` into `codePoint`; its length in bytes, or 0 when the bytes there
// are not a valid sequence.
size_t decodeUtf8At(std::string_view text, size_t pos, char32_t& codePoint) noexcept;

}  // namespace ostrel::detail
