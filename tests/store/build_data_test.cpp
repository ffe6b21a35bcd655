// Messages built field by field through buildData.

#include <gtest/gtest.h>

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/store/schemas.hpp"
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

// What is built is compared with libprotobuf in the differential suite; here the order of the asks,
// and that a value of the wrong kind stops the build at once.
TEST(BuildDataTest, AsksForFieldsInNameOrderAndStopsAtAMismatch) {
  SchemaStore store(leafManifest());
  const MessageSchema leaf = store.messageSchema("ostrel.test.Leaf");
  std::vector<std::string> asked;
  const SchematizedData data = leaf.buildData([&](const FieldSchema& field) {
    asked.push_back(field.name());
    return field.name() == "label" ? std::vector<AnyValue>{std::string("h")}
                                   : std::vector<AnyValue>{int32_t{7}};
  });
  EXPECT_EQ(asked, (std::vector<std::string>{"codes", "id", "label"}));
  EXPECT_EQ(data.messageSchema(), leaf);
  // Written in the same order: codes (3), id (1), label (2).
  EXPECT_EQ(data.data(), testing_support::bytesOf({0x18, 7, 0x08, 7, 0x12, 1, 'h'}));

  asked.clear();
  EXPECT_EQ(catchError([&] {
              leaf.buildData([&](const FieldSchema& field) {
                asked.push_back(field.name());
                return std::vector<AnyValue>{uint32_t{5}};
              });
            }),
            SerializationError::invalidIntType(
                AnyValue(uint32_t{5}),
                TypeSchemaDescription::scalar(TypeSchemaDescription::Case::int32)));
  EXPECT_EQ(asked, std::vector<std::string>{"codes"});
}

}  // namespace
}  // namespace ostrel
