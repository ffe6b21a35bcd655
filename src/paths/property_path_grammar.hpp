#pragma once

// The one grammar of property paths (field names separated by ".", an index in brackets after the
// name of a repeated field), scanned without allocating so that reads by path text cost no heap.
// PropertyPathUtil::parse and the resolution of paths against schemas both use it.

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "ostrel/paths/property_path.hpp"

namespace ostrel::detail {

// Only ASCII counts: property names are protobuf field names, which are ASCII identifiers, and
// the byte-wise test keeps every reported position on a character boundary.
inline bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
inline bool isDigit(char c) { return c >= '0' && c <= '9'; }
inline bool isNameCharacter(char c) { return isLetter(c) || isDigit(c) || c == '_'; }
inline bool isFirstNameCharacter(char c) { return isLetter(c) || c == '_'; }

// Reads an optional sign and decimal digits at `pos`, leaving `pos` after them. No value when
// there are no digits, or when the number does not fit in int64_t: such an index could never
// address an element, and reporting it as a missing index keeps the arrow on the index.
inline std::optional<int64_t> scanIndex(std::string_view path, size_t& pos) {
  size_t cursor = pos;
  bool negative = false;
  if (cursor < path.size() && (path[cursor] == '+' || path[cursor] == '-')) {
    negative = path[cursor] == '-';
    ++cursor;
  }
  const uint64_t limit =
      static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) + (negative ? 1 : 0);
  const size_t digitsStart = cursor;
  uint64_t magnitude = 0;
  for (; cursor < path.size() && isDigit(path[cursor]); ++cursor) {
    const auto digit = static_cast<uint64_t>(path[cursor] - '0');
    if (magnitude > (limit - digit) / 10) return std::nullopt;
    magnitude = magnitude * 10 + digit;
  }
  if (cursor == digitsStart) return std::nullopt;
  pos = cursor;
  if (!negative) return static_cast<int64_t>(magnitude);
  if (magnitude == 0) return 0;
  return -static_cast<int64_t>(magnitude - 1) - 1;
}

// Scans `path` strictly and hands each element to `onElement(name, index)` in order, first element
// outermost: nothing is skipped, names are ASCII letters, digits and "_" not starting with a
// digit, an index is a decimal integer with an optional sign, at most one index per element.
// Throws PropertyPathUtil::Error at the first fault; elements before it have been handed over.
template <typename OnElement>
void scanPropertyPath(std::string_view path, OnElement&& onElement) {
  using Error = PropertyPathUtil::Error;
  if (path.empty()) throw Error::zeroLengthPropertyPath();
  size_t pos = 0;
  while (true) {
    const size_t nameStart = pos;
    while (pos < path.size() && isNameCharacter(path[pos])) ++pos;
    if (pos == nameStart) throw Error::missingPropertyName(std::string(path), pos);
    const std::string_view name = path.substr(nameStart, pos - nameStart);
    // The arrow points at the first character of the name, the one that is wrong.
    if (!isFirstNameCharacter(path[nameStart])) {
      throw Error::propertyNameStartsWithIllegalCharacter(std::string(name), std::string(path),
                                                          nameStart);
    }
    std::optional<int64_t> index;
    if (pos < path.size() && path[pos] == '[') {
      ++pos;
      const size_t indexStart = pos;
      index = scanIndex(path, pos);
      if (!index) throw Error::missingIndex(std::string(path), indexStart);
      // Reported at the sign, the character that makes the index invalid.
      if (*index < 0) throw Error::negativeIndex(*index, std::string(path), indexStart);
      if (pos == path.size() || path[pos] != ']') {
        throw Error::missingClosingBracket(std::string(path), pos);
      }
      ++pos;
    }
    onElement(name, index);
    if (pos == path.size()) return;
    if (path[pos] != '.') throw Error::missingSeparator(std::string(path), pos);
    ++pos;
  }
}

}  // namespace ostrel::detail
