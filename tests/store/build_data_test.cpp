// Messages built field by field through buildData, read back by libprotobuf.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/store/schemas.hpp"
#include "rich.pb.h"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::catchError;

// The manifest of ostrel.test.Leaf, written by hand.
SchemaManifest leafManifest() {
  SchemaManifest manifest;
  MessageManifest& leaf = manifest.messages["ostrel.test.Leaf"];
  leaf.fields["id"] = {.type = TypeManifest::int32, .fieldNumber = 1};
  leaf.fields["label"] = {.type = TypeManifest::string, .fieldNumber = 2};
  leaf.fields["codes"] = {.type = TypeManifest::int32, .fieldNumber = 3, .isRepeated = true};
  return manifest;
}

TEST(BuildDataTest, WritesFieldsThatLibprotobufReadsBack) {
  SchemaStore store(leafManifest());
  const MessageSchema leaf = store.messageSchema("ostrel.test.Leaf");
  std::vector<std::string> asked;
  const SchematizedData data = leaf.buildData([&](const FieldSchema& field) {
    asked.push_back(field.name());
    if (field.name() == "id") return std::vector<AnyValue>{int32_t{-7}};
    if (field.name() == "label") return std::vector<AnyValue>{std::string("h\xC3\xA9llo")};
    return std::vector<AnyValue>{int32_t{1}, int32_t{300}, int32_t{-2}};
  });
  // Fields are asked for, and written, in name order.
  EXPECT_EQ(asked, (std::vector<std::string>{"codes", "id", "label"}));
  EXPECT_EQ(data.messageSchema(), leaf);

  test::Leaf parsed;
  ASSERT_TRUE(parsed.ParseFromArray(data.data().data(), static_cast<int>(data.data().size())));
  EXPECT_EQ(parsed.id(), -7);
  EXPECT_EQ(parsed.label(), "h\xC3\xA9llo");
  EXPECT_EQ(std::vector<int32_t>(parsed.codes().begin(), parsed.codes().end()),
            (std::vector<int32_t>{1, 300, -2}));
  EXPECT_EQ(data.value("label"), AnyValue("h\xC3\xA9llo"));
}

TEST(BuildDataTest, MismatchedIntegerStopsTheBuild) {
  SchemaStore store(leafManifest());
  const MessageSchema leaf = store.messageSchema("ostrel.test.Leaf");
  int asked = 0;
  const auto caught = catchError([&] {
    leaf.buildData([&](const FieldSchema&) {
      ++asked;
      return std::vector<AnyValue>{uint32_t{5}};
    });
  });
  EXPECT_EQ(caught, SerializationError::invalidIntType(
                        detail::AnyValueImpl::uint32(5),
                        TypeSchemaDescription::scalar(TypeSchemaDescription::Case::int32)));
  EXPECT_EQ(asked, 1);  // "codes" failed; "id" and "label" were never asked for
}

}  // namespace
}  // namespace ostrel
