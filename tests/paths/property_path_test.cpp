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
  struct Row {
    std::string name;
    std::string path;
    std::vector<PropertyPathElement> expected;
  };
  const std::vector<Row> rows = {
      {"single name", "a", {named("a")}},
      {"leading underscore", "_x", {named("_x")}},
      {"digits after the first character", "a1", {named("a1")}},
      {"mixed case and underscores", "Field_Name_2", {named("Field_Name_2")}},
      {"underscore only", "_", {named("_")}},
      {"index zero", "a[0]", {indexed("a", 0)}},
      {"dotted names", "a.b.c", {named("a"), named("b"), named("c")}},
      {"index in the middle", "a.b[2].c", {named("a"), indexed("b", 2), named("c")}},
      {"every element indexed",
       "a[1].b[22].c[333]",
       {indexed("a", 1), indexed("b", 22), indexed("c", 333)}},
      {"deep path",
       "level1.level2[3].level3.level4[0].level5.leaf",
       {named("level1"), indexed("level2", 3), named("level3"), indexed("level4", 0),
        named("level5"), named("leaf")}},
      {"minus zero is zero", "a[-0]", {indexed("a", 0)}},
      {"explicit plus sign", "a[+7]", {indexed("a", 7)}},
      {"leading zeros", "a[007]", {indexed("a", 7)}},
      {"largest index",
       "a[9223372036854775807]",
       {indexed("a", std::numeric_limits<int64_t>::max())}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(PropertyPathUtil::parse(row.path), row.expected);
  }
}

TEST(PropertyPathParseTest, RejectsMalformedPathsAtThePosition) {
  struct Row {
    std::string name;
    std::string path;
    Error expected;
  };
  const std::vector<Row> rows = {
      {"empty", "", Error::zeroLengthPropertyPath()},
      {"trailing dot", "a.", Error::missingPropertyName("a.", 2)},
      {"leading dot", ".a", Error::missingPropertyName(".a", 0)},
      {"two dots", "a..b", Error::missingPropertyName("a..b", 2)},
      {"leading space", " a", Error::missingPropertyName(" a", 0)},
      {"non-ASCII letter", "a.\xC3\xA9", Error::missingPropertyName("a.\xC3\xA9", 2)},
      {"bracket without name", "[1]", Error::missingPropertyName("[1]", 0)},
      {"name starts with digit", "1a",
       Error::propertyNameStartsWithIllegalCharacter("1a", "1a", 0)},
      {"later name starts with digit", "a.b.9x_y[1]",
       Error::propertyNameStartsWithIllegalCharacter("9x_y", "a.b.9x_y[1]", 4)},
      {"empty index", "a[]", Error::missingIndex("a[]", 2)},
      {"letter as index", "a.b[x]", Error::missingIndex("a.b[x]", 4)},
      {"space before index", "a[ 1]", Error::missingIndex("a[ 1]", 2)},
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
      {"space before closing bracket", "a[12 ]", Error::missingClosingBracket("a[12 ]", 4)},
      {"fraction as index", "a[1.5]", Error::missingClosingBracket("a[1.5]", 3)},
      {"space between names", "a b", Error::missingSeparator("a b", 1)},
      {"name after index", "a[1]b", Error::missingSeparator("a[1]b", 4)},
      {"second index", "a[1][2]", Error::missingSeparator("a[1][2]", 4)},
      {"trailing space", "a.b ", Error::missingSeparator("a.b ", 3)},
      {"other separator", "a/b", Error::missingSeparator("a/b", 1)},
      {"trailing dot after index", "a[1].", Error::missingPropertyName("a[1].", 5)},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(catchError([&] { PropertyPathUtil::parse(row.path); }), row.expected);
  }
}

TEST(PropertyPathErrorTest, CarriesItsPayload) {
  const Error illegal = Error::propertyNameStartsWithIllegalCharacter("1a", "x.1a", 2);
  EXPECT_EQ(illegal.code(), Error::Code::propertyNameStartsWithIllegalCharacter);
  EXPECT_EQ(illegal.propertyName(), "1a");
  EXPECT_EQ(illegal.in(), "x.1a");
  EXPECT_EQ(illegal.at(), 2u);

  const Error negative = Error::negativeIndex(-3, "a[-3]", 2);
  EXPECT_EQ(negative.code(), Error::Code::negativeIndex);
  EXPECT_EQ(negative.index(), -3);

  EXPECT_EQ(Error::zeroLengthPropertyPath().code(), Error::Code::zeroLengthPropertyPath);
  EXPECT_EQ(Error::zeroLengthPropertyPath(), Error::zeroLengthPropertyPath());
  EXPECT_FALSE(Error::missingIndex("a[x]", 2) == Error::missingIndex("a[x]", 1));
  EXPECT_FALSE(Error::missingIndex("a[x]", 2) == Error::missingClosingBracket("a[x]", 2));
  EXPECT_FALSE(Error::negativeIndex(-1, "a[-1]", 2) == Error::negativeIndex(-2, "a[-1]", 2));
}

TEST(PropertyPathErrorTest, DescribesTheFaultWithAnArrow) {
  struct Row {
    std::string name;
    Error error;
    std::string description;
  };
  const std::vector<Row> rows = {
      {"missing index", Error::missingIndex("a.b[x]", 4),
       "PropertyPathUtil Error: Missing index\n    \xE2\x87\xA9 Here\na.b[x]"},
      {"missing name", Error::missingPropertyName("a.", 2),
       "PropertyPathUtil Error: Missing field name\n  \xE2\x87\xA9 Here\na."},
      {"at the first character", Error::missingPropertyName(".a", 0),
       "PropertyPathUtil Error: Missing field name\n\xE2\x87\xA9 Here\n.a"},
      {"illegal first character", Error::propertyNameStartsWithIllegalCharacter("1a", "x.1a", 2),
       "PropertyPathUtil Error: Property name starts with illegal character (fieldName: 1a)\n"
       "  \xE2\x87\xA9 Here\nx.1a"},
      {"negative index", Error::negativeIndex(-12, "a[-12]", 2),
       "PropertyPathUtil Error: Index can't be negative (index: -12)\n  \xE2\x87\xA9 Here\na[-12]"},
      {"missing closing bracket", Error::missingClosingBracket("a[1", 3),
       "PropertyPathUtil Error: Missing closing bracket\n   \xE2\x87\xA9 Here\na[1"},
      {"missing separator", Error::missingSeparator("a b", 1),
       "PropertyPathUtil Error: Missing separator\n \xE2\x87\xA9 Here\na b"},
      {"zero length has no arrow", Error::zeroLengthPropertyPath(),
       "PropertyPathUtil Error: string cannot be zero-length"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(std::string(row.error.what()), row.description);
  }
}

// Positions are byte offsets, but the arrow is indented by the characters a person sees before
// it, so multi-byte and composed characters take one column each.
TEST(PropertyPathErrorTest, IndentsTheArrowByUserPerceivedCharacters) {
  struct Row {
    std::string name;
    std::string prefix;  // the text before the offending character
    size_t spaces;
  };
  const std::vector<Row> rows = {
      {"ASCII", "ab.", 3},
      {"precomposed letter", "\xC3\xA9.", 2},
      {"letter with combining accent", "e\xCC\x81.", 2},
      {"two combining marks", "a\xCC\x81\xCC\xA3x", 2},
      {"combining mark for symbols", "x\xE2\x83\x9D", 1},
      {"CJK", "\xE6\x97\xA5\xE6\x9C\xAC", 2},
      {"emoji outside the BMP", "\xF0\x9F\x98\x80.", 2},
      {"emoji with skin tone", "\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD.", 2},
      {"emoji with variation selector", "\xE2\x9D\xA4\xEF\xB8\x8F.", 2},
      {"emoji joined by ZWJ",
       "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7.", 2},
      {"CR LF", "a\r\nb", 3},
      {"LF CR", "a\n\rb", 4},
      {"malformed bytes", "\xFF\xFE.", 3},
      {"truncated sequence", "\xE6\x97.", 3},
      {"overlong encoding", "\xC0\xAF", 2},
      {"malformed byte after a joiner", "x\xE2\x80\x8D\x80", 2},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string in = row.prefix + "[x]";
    const Error error = Error::missingSeparator(in, row.prefix.size());
    EXPECT_EQ(std::string(error.what()), "PropertyPathUtil Error: Missing separator\n" +
                                             std::string(row.spaces, ' ') + "\xE2\x87\xA9 Here\n" +
                                             in);
  }  // Only what stands before the position counts: a character the position cuts in two counts
  // byte by byte, whatever follows the position.
  EXPECT_EQ(std::string(Error::missingSeparator("a\xE6\x97\xA5.", 3).what()),
            "PropertyPathUtil Error: Missing separator\n   \xE2\x87\xA9 Here\na\xE6\x97\xA5.");
}

}  // namespace
}  // namespace ostrel
