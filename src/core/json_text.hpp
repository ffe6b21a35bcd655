#pragma once

// The one writer of JSON strings and numbers: rendering, manifests, error paths and the tool all
// quote text and print numbers through it, so that they agree byte for byte.

#include <charconv>
#include <cmath>
#include <concepts>
#include <string>
#include <string_view>

namespace ostrel::detail {

// Appends `text` as a quoted JSON string. Escapes only what JSON requires (controls, quote,
// backslash), in the forms nlohmann::json writes them; every invalid UTF-8 sequence becomes
// U+FFFD, as the string decoder does it.
void appendJsonString(std::string& out, std::string_view text);

inline std::string jsonString(std::string_view text) {
  std::string out;
  appendJsonString(out, text);
  return out;
}

template <std::integral Integer>
void appendJsonInteger(std::string& out, Integer value) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, result.ptr);
}

// The shortest text that reads back as the same value, in the value's own type (a float prints as
// a float, not as the double it widens to). NaN and the infinities have no JSON number: they
// become the strings protobuf's JSON uses, "NaN", "Infinity" and "-Infinity".
template <std::floating_point Float>
void appendJsonFloat(std::string& out, Float value) {
  if (std::isnan(value)) {
    out += "\"NaN\"";
  } else if (std::isinf(value)) {
    out += value > 0 ? "\"Infinity\"" : "\"-Infinity\"";
  } else if (value == 0 && std::signbit(value)) {
    // "-0" would read back as the integer 0 and lose its sign.
    out += "-0.0";
  } else {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
  }
}

}  // namespace ostrel::detail
