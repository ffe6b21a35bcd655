// The JSON text helpers of the core, where no caller in the library reaches every case: appending
// to text already written, and the nesting limit of the JSON reader's check.

#include "core/json_text.hpp"

#include <gtest/gtest.h>

#include <string>

#include "core/json_input.hpp"

namespace ostrel {
namespace {

TEST(JsonTextTest, AppendsAfterWhatTheStringHolds) {
  for (const auto& [text, quoted] :
       {std::pair<std::string, std::string>{"a\"\x01", R"("a\"\u0001")"},
        {"\xC3\x28", "\"\xEF\xBF\xBD(\""}}) {
    std::string out = "x:";
    detail::appendJsonString(out, text);
    EXPECT_EQ(out, "x:" + quoted);
  }
}

TEST(JsonInputTest, RefusesContainersNestedDeeperThanTheLimit) {
  for (const auto& [text, refused] : {std::pair<std::string, bool>{"[{},[[]]]", false},
                                      {R"({"a":[{}]})", false},
                                      {"[[[[]]]]", true},
                                      {R"({"a":{"b":[{}]}})", true}}) {
    SCOPED_TRACE(text);
    detail::JsonInput input(text, 3);
    const auto refusal = input.firstFault();
    ASSERT_EQ(refusal.has_value(), refused);
    if (refused) {
      EXPECT_EQ(refusal->kind, detail::JsonRefusal::Kind::tooDeep);
      EXPECT_EQ(refusal->frames.size(), 3u);
    }
  }
}

}  // namespace
}  // namespace ostrel
