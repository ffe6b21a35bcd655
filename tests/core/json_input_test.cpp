// The nesting limit of the core JSON reader's check, which no caller in the library reaches on
// both sides.

#include "core/json_input.hpp"

#include <gtest/gtest.h>

#include <string>

namespace ostrel {
namespace {

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
