#include "ostrel/paths/property_path.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "support/test_support.hpp"

namespace ostrel {

// Found by argument-dependent lookup, so that failures show elements as they are written.
static void PrintTo(const PropertyPathElement& element, std::ostream* os) {
  *os << element.propertyName;
  if (element.index) *os << "[" << *element.index << "]";
}

namespace {

using testing_support::catchError;
using Error = PropertyPathUtil::Error;

PropertyPathElement named(std::string name) { return {std::move(name), std::nullopt}; }
PropertyPathElement indexed(std::string name, int64_t index) { return {std::move(name), index}; }

TEST(PropertyPathParseTest, AcceptsWellFormedPaths) {
  const std::vector<std::tuple<std::string, std::string, std::vector<PropertyPathElement>>> rows = {
      {"underscore only", "_", {named("_")}},
      {"every class of name character",
       "zaAZ_09.Z_.A",
       {named("zaAZ_09"), named("Z_"), named("A")}},
      {"minus zero is zero", "a[-0]", {indexed("a", 0)}},
      {"explicit plus sign and leading zeros", "a[+007]", {indexed("a", 7)}},
      {"largest index",
       "a[9223372036854775807]",
       {indexed("a", std::numeric_limits<int64_t>::max())}},
  };
  for (const auto& [name, path, expected] : rows)
    EXPECT_EQ(PropertyPathUtil::parse(path), expected) << name;
}

TEST(PropertyPathParseTest, RejectsMalformedPathsAtThePosition) {
  const std::vector<std::tuple<std::string, std::string, Error>> rows = {
      {"empty", "", Error::zeroLengthPropertyPath()},
      {"trailing dot", "a.", Error::missingPropertyName("a.", 2)},
      {"leading dot", ".a", Error::missingPropertyName(".a", 0)},
      {"two dots", "a..b", Error::missingPropertyName("a..b", 2)},
      {"non-ASCII letter", "a.\xC3\xA9", Error::missingPropertyName("a.\xC3\xA9", 2)},
      {"name starts with digit", "a.b.9x_y[1]",
       Error::propertyNameStartsWithIllegalCharacter("9x_y", "a.b.9x_y[1]", 4)},
      {"empty index", "a[]", Error::missingIndex("a[]", 2)},
      {"letter as index", "a.b[x]", Error::missingIndex("a.b[x]", 4)},
      {"sign without digits", "a[-]", Error::missingIndex("a[-]", 2)},
      {"two signs", "a[+-1]", Error::missingIndex("a[+-1]", 2)},
      {"bracket at end", "a[", Error::missingIndex("a[", 2)},
      {"index overflows", "a[9223372036854775808]",
       Error::missingIndex("a[9223372036854775808]", 2)},
      {"negative index overflows", "x.a[-9223372036854775809]",
       Error::missingIndex("x.a[-9223372036854775809]", 4)},
      {"negative index", "a[-1]", Error::negativeIndex(-1, "a[-1]", 2)},
      {"smallest index", "b.a[-9223372036854775808]",
       Error::negativeIndex(std::numeric_limits<int64_t>::min(), "b.a[-9223372036854775808]", 4)},
      {"unclosed index at end", "a[1", Error::missingClosingBracket("a[1", 3)},
      {"fraction as index", "a[1.5]", Error::missingClosingBracket("a[1.5]", 3)},
      {"space between names", "a b", Error::missingSeparator("a b", 1)},
      {"name after index", "a[1]b", Error::missingSeparator("a[1]b", 4)},
      {"trailing dot after index", "a[1].", Error::missingPropertyName("a[1].", 5)},
  };
  for (const auto& [name, path, expected] : rows) {
    EXPECT_EQ(catchError([&] { PropertyPathUtil::parse(path); }), expected) << name;
  }
}

// Positions are byte offsets, but the arrow is indented by the characters a person sees before
// it, so multi-byte and composed characters take one column each.
TEST(PropertyPathErrorTest, IndentsTheArrowByUserPerceivedCharacters) {
  // Per row: the text before the offending character, and the column of the arrow.
  const std::vector<std::tuple<std::string, std::string, size_t>> rows = {
      {"ASCII", "ab.", 3},
      {"precomposed letter", "\xC3\xA9.", 2},
      {"letter with combining accent", "e\xCC\x81.", 2},
      {"combining mark for symbols", "x\xE2\x83\x9D", 1},
      // The first and last code point of every range that extends the character before it.
      {"every range's bounds",
       "a\xCC\x80\xCD\xAF\xE1\xAA\xB0\xE1\xAB\xBF\xE1\xB7\x80\xE1\xB7\xBF\xE2\x83\x90\xE2\x83\xBF"
       "\xEF\xB8\xA0\xEF\xB8\xAF\xEF\xB8\x80\xEF\xB8\x8F\xF3\xA0\x84\x80\xF3\xA0\x87\xAF\xF0\x9F"
       "\x8F\xBB"
       "\xF0\x9F\x8F\xBF.",
       2},
      {"emoji outside the BMP", "\xF0\x9F\x98\x80.", 2},
      {"emoji with skin tone", "\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD.", 2},
      {"emoji with variation selector", "\xE2\x9D\xA4\xEF\xB8\x8F.", 2},
      {"emoji joined by ZWJ",
       "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7.", 2},
      {"CR LF", "a\r\nb", 3},
      {"LF CR", "a\n\rb", 4},
      {"LF first", "\na", 2},
      {"malformed bytes", "\xFF\xFE.", 3},
      {"truncated sequence", "\xE6\x97.", 3},
      {"overlong encoding", "\xC0\xAF", 2},
      {"malformed byte after a joiner", "x\xE2\x80\x8D\x80", 2},
  };
  for (const auto& [name, prefix, spaces] : rows) {
    const std::string in = prefix + "[x]";
    EXPECT_EQ(Error::missingSeparator(in, prefix.size()).what(),
              "PropertyPathUtil Error: Missing separator\n" + std::string(spaces, ' ') +
                  "\xE2\x87\xA9 Here\n" + in)
        << name;
  }
  // Only what stands before the position counts: a character the position cuts in two counts
  // byte by byte, whatever follows the position.
  EXPECT_EQ(std::string(Error::missingSeparator("a\xE6\x97\xA5.", 3).what()),
            "PropertyPathUtil Error: Missing separator\n   \xE2\x87\xA9 Here\na\xE6\x97\xA5.");
}

}  // namespace
}  // namespace ostrel
