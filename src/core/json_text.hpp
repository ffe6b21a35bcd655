#pragma once

// The one writer of JSON strings and numbers: rendering, manifests, error paths and the tool all
// quote text and print numbers through it, so that they agree byte for byte.

#include <bit>
#include <charconv>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

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

// The decimal digits of 0 to 99, two characters each.
inline constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324"
    "25262728293031323334353637383940414243444546474849"
    "50515253545556575859606162636465666768697071727374"
    "75767778798081828384858687888990919293949596979899";

// The number of decimal digits of `value`: log10 from log2 (1233 / 4096 is about log10(2)),
// corrected by one comparison, with no loop whose branches mispredict on numbers of mixed sizes.
inline unsigned decimalDigits(uint64_t value) noexcept {
  static constexpr uint64_t kPowers[] = {1u,
                                         10u,
                                         100u,
                                         1000u,
                                         10000u,
                                         100000u,
                                         1000000u,
                                         10000000u,
                                         100000000u,
                                         1000000000u,
                                         10000000000u,
                                         100000000000u,
                                         1000000000000u,
                                         10000000000000u,
                                         100000000000000u,
                                         1000000000000000u,
                                         10000000000000000u,
                                         100000000000000000u,
                                         1000000000000000000u,
                                         10000000000000000000u};
  const unsigned estimate = (static_cast<unsigned>(std::bit_width(value)) * 1233) >> 12;
  return estimate + (value >= kPowers[estimate] ? 1 : 0) + (value == 0 ? 1 : 0);
}

// The eight digits of `value` (below 10^8), zero-padded, at `out`.
inline void writeEightDigits(char* out, uint32_t value) noexcept {
  for (int i = 6; i >= 0; i -= 2) {
    const uint32_t rest = value / 100;
    std::memcpy(out + i, kDigitPairs + 2 * (value - rest * 100), 2);
    value = rest;
  }
}

// The `digits` decimal digits of `value` at `out`, which has room for 16 characters: all ten
// digits are made whatever the length and the wanted ones copied in one 16-byte move, so that
// nothing branches on the length.
inline char* writeDecimal32(char* out, uint32_t value, unsigned digits) noexcept {
  char ten[32] = {};
  const uint32_t high = value / 100000000;
  std::memcpy(ten + 6, kDigitPairs + 2 * high, 2);
  writeEightDigits(ten + 8, value - high * 100000000);
  std::memcpy(out, ten + 16 - digits, 16);
  return out + digits;
}

// The decimal text of `value` at `out`, which has room for 32 characters (what follows the text
// there may be overwritten).
template <std::unsigned_integral Unsigned>
char* writeDecimal(char* out, Unsigned value) noexcept {
  const unsigned digits = decimalDigits(value);
  if (value <= UINT32_MAX) return writeDecimal32(out, static_cast<uint32_t>(value), digits);
  if (digits <= 17) {
    const uint64_t high = value / 100000000;
    writeDecimal32(out, static_cast<uint32_t>(high), digits - 8);
    writeEightDigits(out + digits - 8, static_cast<uint32_t>(value - high * 100000000));
    return out + digits;
  }
  char* p = out + digits;
  while (value >= 100) {
    const Unsigned rest = value / 100;
    p -= 2;
    std::memcpy(p, kDigitPairs + 2 * (value - rest * 100), 2);
    value = rest;
  }
  if (value >= 10) {
    std::memcpy(p - 2, kDigitPairs + 2 * value, 2);
  } else {
    p[-1] = static_cast<char>('0' + value);
  }
  return out + digits;
}

// Writes the decimal text of `value` at `out`, which has room for kMaxJsonNumberSize characters
// (what follows the text there may be overwritten); returns the end of the text.
template <std::integral Integer>
char* writeJsonInteger(char* out, Integer value) noexcept {
  using Unsigned = std::make_unsigned_t<Integer>;
  if constexpr (std::is_signed_v<Integer>) {
    if (value < 0) {
      *out++ = '-';
      return writeDecimal(out, static_cast<Unsigned>(Unsigned{0} - static_cast<Unsigned>(value)));
    }
  }
  return writeDecimal(out, static_cast<Unsigned>(value));
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
