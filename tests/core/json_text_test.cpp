// The JSON text helpers of the core, where no caller in the library reaches every case: appending
// to text already written, and the nesting limit of the document parser.

#include "core/json_text.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "core/json_document.hpp"

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

TEST(JsonDocumentTest, RefusesContainersNestedDeeperThanTheLimit) {
  for (const auto& [text, refused] : {std::pair<std::string, bool>{"[{},[[]]]", false},
                                      {R"({"a":[{}]})", false},
                                      {"[[[[]]]]", true},
                                      {R"({"a":{"b":[{}]}})", true}}) {
    SCOPED_TRACE(text);
    nlohmann::json document;
    const auto refusal = detail::parseJsonDocument(text, 3, document);
    ASSERT_EQ(refusal.has_value(), refused);
    if (refused) {
      EXPECT_EQ(refusal->kind, detail::JsonRefusal::Kind::tooDeep);
      EXPECT_EQ(refusal->frames.size(), 3u);
    } else {
      EXPECT_EQ(document, nlohmann::json::parse(text));
    }
  }
}

}  // namespace
}  // namespace ostrel
