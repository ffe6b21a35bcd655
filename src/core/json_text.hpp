#pragma once

// The one writer of JSON strings and numbers: rendering, manifests, error paths and the tool all
// quote text and print numbers through it, so that they agree byte for byte.

#include <charconv>
#include <cmath>
#include <concepts>
#include <string>
#include <string_view>

namespace ostrel::detail {

// The most text writeJsonString writes for `size` bytes: every byte a six-character escape, and
// the quotes.
constexpr size_t maxJsonStringSize(size_t size) noexcept { return 6 * size + 2; }

// Writes `text` quoted and escaped as appendJsonString does, at `out`, which has room for
// maxJsonStringSize(text.size()) characters; returns the end of what it wrote, or null (with
// garbage written) when `text` is not valid UTF-8.
char* writeJsonString(char* out, std::string_view text) noexcept;

// Appends `text` as a quoted JSON string. Escapes only what JSON requires (controls, quote,
// backslash), in the forms nlohmann::json writes them; every invalid UTF-8 sequence becomes
// U+FFFD, as the string decoder does it.
void appendJsonString(std::string& out, std::string_view text);

// protoc's JSON name of a field that declares none: underscores dropped, the letter after each
// one upper-cased.
std::string jsonName(std::string_view fieldName);

inline std::string jsonString(std::string_view text) {
  std::string out;
  appendJsonString(out, text);
  return out;
}

// The most characters writeJsonInteger and writeJsonFloat write.
inline constexpr size_t kMaxJsonNumberSize = 32;

template <std::integral Integer>
char* writeJsonInteger(char* out, Integer value) noexcept {
  return std::to_chars(out, out + kMaxJsonNumberSize, value).ptr;
}

template <std::integral Integer>
void appendJsonInteger(std::string& out, Integer value) {
  char buffer[kMaxJsonNumberSize];
  out.append(buffer, writeJsonInteger(buffer, value));
}

// The shortest text that reads back as the same value, in the value's own type (a float prints as
// a float, not as the double it widens to). NaN and the infinities have no JSON number: they
// become the strings protobuf's JSON uses, "NaN", "Infinity" and "-Infinity".
template <std::floating_point Float>
char* writeJsonFloat(char* out, Float value) noexcept {
  const auto put = [&](std::string_view text) {
    for (const char c : text) *out++ = c;
    return out;
  };
  if (std::isnan(value)) return put("\"NaN\"");
  if (std::isinf(value)) return put(value > 0 ? "\"Infinity\"" : "\"-Infinity\"");
  // "-0" would read back as the integer 0 and lose its sign.
  if (value == 0 && std::signbit(value)) return put("-0.0");
  return std::to_chars(out, out + kMaxJsonNumberSize, value).ptr;
}

template <std::floating_point Float>
void appendJsonFloat(std::string& out, Float value) {
  char buffer[kMaxJsonNumberSize];
  out.append(buffer, writeJsonFloat(buffer, value));
}

}  // namespace ostrel::detail
