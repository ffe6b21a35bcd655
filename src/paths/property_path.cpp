#include "ostrel/paths/property_path.hpp"

#include <algorithm>
#include <limits>
#include <utility>

#include "core/utf8.hpp"
#include "paths/property_path_grammar.hpp"

namespace ostrel {
namespace {

using Code = PropertyPathUtil::Error::Code;

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
    const size_t length = detail::decodeUtf8At(text, pos, cp);
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
  std::vector<PropertyPathElement> elements;
  detail::scanPropertyPath(path, [&](std::string_view name, std::optional<int64_t> index) {
    elements.push_back({std::string(name), index});
  });
  return elements;
}

}  // namespace ostrel
