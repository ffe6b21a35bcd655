#include "ostrel/paths/property_path.hpp"

#include <algorithm>
#include <limits>
#include <utility>

namespace ostrel {
namespace {

using Code = PropertyPathUtil::Error::Code;

// Decodes the UTF-8 sequence at `pos` into `out` and returns its length in bytes, or 0 when the
// bytes there are not well-formed UTF-8 (a stray continuation byte, a truncated sequence, an
// overlong form, a surrogate or a value past U+10FFFF).
size_t decodeUtf8(std::string_view text, size_t pos, char32_t& out) {
  const auto byteAt = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byteAt(pos);
  if (lead < 0x80) {
    out = lead;
    return 1;
  }
  size_t length = 0;
  char32_t smallest = 0;
  if ((lead & 0xE0) == 0xC0) {
    length = 2;
    smallest = 0x80;
    out = lead & 0x1F;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3;
    smallest = 0x800;
    out = lead & 0x0F;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4;
    smallest = 0x10000;
    out = lead & 0x07;
  } else {
    return 0;
  }
  if (text.size() - pos < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    const unsigned char next = byteAt(pos + i);
    if ((next & 0xC0) != 0x80) return 0;
    out = (out << 6) | (next & 0x3F);
  }
  if (out < smallest || out > 0x10FFFF || (out >= 0xD800 && out <= 0xDFFF)) return 0;
  return length;
}

// Code points that never start a user-perceived character of their own: combining marks,
// variation selectors, emoji skin-tone modifiers and the zero width joiner.
bool extendsPrevious(char32_t cp) {
  return (cp >= 0x0300 && cp <= 0x036F) || (cp >= 0x1AB0 && cp <= 0x1AFF) ||
         (cp >= 0x1DC0 && cp <= 0x1DFF) || (cp >= 0x20D0 && cp <= 0x20FF) ||
         (cp >= 0xFE20 && cp <= 0xFE2F) || (cp >= 0xFE00 && cp <= 0xFE0F) ||
         (cp >= 0xE0100 && cp <= 0xE01EF) || (cp >= 0x1F3FB && cp <= 0x1F3FF) || cp == 0x200D;
}

// The number of user-perceived characters in `text`, so that the arrow of a description stands
// over the offending character in a terminal. Full grapheme segmentation needs the Unicode
// property tables; this approximation covers what paths and their typos realistically hold:
// accented letters written with combining marks, emoji with variation selectors or skin tones,
// emoji sequences glued by zero width joiners (the code point after a joiner belongs to the same
// character) and CR LF. Bytes that are not well-formed UTF-8 count one each, as a terminal shows
// one replacement character for each.
size_t userPerceivedLength(std::string_view text) {
  size_t count = 0;
  bool afterJoiner = false;
  bool afterCarriageReturn = false;
  for (size_t pos = 0; pos < text.size();) {
    char32_t cp = 0;
    const size_t length = decodeUtf8(text, pos, cp);
    if (length == 0) {
      ++count;
      ++pos;
      afterJoiner = afterCarriageReturn = false;
      continue;
    }
    pos += length;
    if (!afterJoiner && !extendsPrevious(cp) && !(afterCarriageReturn && cp == U'\n')) ++count;
    afterJoiner = cp == 0x200D;
    afterCarriageReturn = cp == U'\r';
  }
  return count;
}

std::string message(Code code, const std::string& propertyName, int64_t index) {
  switch (code) {
    case Code::missingPropertyName:
      return "Missing field name";
    case Code::propertyNameStartsWithIllegalCharacter:
      return "Property name starts with illegal character (fieldName: " + propertyName + ")";
    case Code::missingIndex:
      return "Missing index";
    case Code::negativeIndex:
      return "Index can't be negative (index: " + std::to_string(index) + ")";
    case Code::missingClosingBracket:
      return "Missing closing bracket";
    case Code::missingSeparator:
      return "Missing separator";
    case Code::zeroLengthPropertyPath:
      return "string cannot be zero-length";
  }
  return {};
}

// The message, then, unless there is no path to point into, an arrow line above the path.
std::string description(Code code, const std::string& in, size_t at,
                        const std::string& propertyName, int64_t index) {
  std::string text = "PropertyPathUtil Error: " + message(code, propertyName, index);
  if (code == Code::zeroLengthPropertyPath) return text;
  const size_t column =
      userPerceivedLength(std::string_view(in).substr(0, std::min(at, in.size())));
  text += '\n';
  text.append(column, ' ');
  text += "\xE2\x87\xA9 Here\n";  // U+21E9 DOWNWARDS WHITE ARROW
  text += in;
  return text;
}

// Only ASCII counts: property names are protobuf field names, which are ASCII identifiers, and
// the byte-wise test keeps every reported position on a character boundary.
bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isNameCharacter(char c) { return isLetter(c) || isDigit(c) || c == '_'; }
bool isFirstNameCharacter(char c) { return isLetter(c) || c == '_'; }

// Reads an optional sign and decimal digits at `pos`, leaving `pos` after them. No value when
// there are no digits, or when the number does not fit in int64_t: such an index could never
// address an element, and reporting it as a missing index keeps the arrow on the index.
std::optional<int64_t> scanIndex(std::string_view path, size_t& pos) {
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

}  // namespace

PropertyPathUtil::Error::Error(Code code, std::string in, size_t at, std::string propertyName,
                               int64_t index)
    : ostrel::Error(description(code, in, at, propertyName, index)),
      code_(code),
      in_(std::move(in)),
      at_(at),
      propertyName_(std::move(propertyName)),
      index_(index) {}

PropertyPathUtil::Error PropertyPathUtil::Error::missingPropertyName(std::string in, size_t at) {
  return {Code::missingPropertyName, std::move(in), at, {}, 0};
}

PropertyPathUtil::Error PropertyPathUtil::Error::propertyNameStartsWithIllegalCharacter(
    std::string propertyName, std::string in, size_t at) {
  return {Code::propertyNameStartsWithIllegalCharacter, std::move(in), at, std::move(propertyName),
          0};
}

PropertyPathUtil::Error PropertyPathUtil::Error::missingIndex(std::string in, size_t at) {
  return {Code::missingIndex, std::move(in), at, {}, 0};
}

PropertyPathUtil::Error PropertyPathUtil::Error::negativeIndex(int64_t index, std::string in,
                                                               size_t at) {
  return {Code::negativeIndex, std::move(in), at, {}, index};
}

PropertyPathUtil::Error PropertyPathUtil::Error::missingClosingBracket(std::string in, size_t at) {
  return {Code::missingClosingBracket, std::move(in), at, {}, 0};
}

PropertyPathUtil::Error PropertyPathUtil::Error::missingSeparator(std::string in, size_t at) {
  return {Code::missingSeparator, std::move(in), at, {}, 0};
}

PropertyPathUtil::Error PropertyPathUtil::Error::zeroLengthPropertyPath() {
  return {Code::zeroLengthPropertyPath, {}, 0, {}, 0};
}

std::vector<PropertyPathElement> PropertyPathUtil::parse(std::string_view path) {
  if (path.empty()) throw Error::zeroLengthPropertyPath();
  const std::string in(path);
  std::vector<PropertyPathElement> elements;
  size_t pos = 0;
  while (true) {
    const size_t nameStart = pos;
    while (pos < path.size() && isNameCharacter(path[pos])) ++pos;
    if (pos == nameStart) throw Error::missingPropertyName(in, pos);
    PropertyPathElement element{std::string(path.substr(nameStart, pos - nameStart)), {}};
    // The arrow points at the first character of the name, the one that is wrong.
    if (!isFirstNameCharacter(path[nameStart])) {
      throw Error::propertyNameStartsWithIllegalCharacter(element.propertyName, in, nameStart);
    }
    if (pos < path.size() && path[pos] == '[') {
      ++pos;
      const size_t indexStart = pos;
      const std::optional<int64_t> index = scanIndex(path, pos);
      if (!index) throw Error::missingIndex(in, indexStart);
      // Reported at the sign, the character that makes the index invalid.
      if (*index < 0) throw Error::negativeIndex(*index, in, indexStart);
      if (pos == path.size() || path[pos] != ']') throw Error::missingClosingBracket(in, pos);
      ++pos;
      element.index = index;
    }
    elements.push_back(std::move(element));
    if (pos == path.size()) return elements;
    if (path[pos] != '.') throw Error::missingSeparator(in, pos);
    ++pos;
  }
}

}  // namespace ostrel
