#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/store/schemas.hpp"
#include "store/proto_schema_store.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::catchError;

FieldManifest scalar(TypeManifest type, int64_t number) {
  return {.type = type, .fieldNumber = number};
}

SchemaManifest shopManifest() {
  return schemaManifestFromJSON(R"({"messages": {"shop.Order": {"fields": {
      "id": {"type": "uint64", "fieldNumber": 1},
      "item": {"type": "schema", "typeName": "shop.Item", "fieldNumber": 2, "isRepeated": true},
      "state": {"type": "enum", "typeName": "shop.State", "fieldNumber": 3}}},
    "shop.Item": {"fields": {"sku": {"type": "string", "fieldNumber": 1}}}},
    "enums": {"shop.State": {"values": {"OPEN": 0, "PAID": 1}}}})");
}

TEST(SchemaStoreTest, UnknownNamesAreReportedAsAskedFor) {
  SchemaStore store(shopManifest());
  for (const std::string name : {"", ".shop.Order", "shop.order"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(catchError([&] { store.messageSchema(name); }),
              SchematizerError::schemaNotFound(name));
    EXPECT_EQ(catchError([&] { store.enumSchema(name); }), SchematizerError::enumNotFound(name));
    EXPECT_EQ(store.findMessageSchema(name), std::nullopt);
    EXPECT_EQ(store.findEnumSchema(name), std::nullopt);
  }
  EXPECT_EQ(store.findMessageSchema("shop.Order"), store.messageSchema("shop.Order"));
  EXPECT_EQ(store.findEnumSchema("shop.State"), store.enumSchema("shop.State"));
  // Each lookup finds only its own kind.
  EXPECT_EQ(store.findMessageSchema("shop.State"), std::nullopt);
  EXPECT_EQ(store.findEnumSchema("shop.Order"), std::nullopt);
}

// A manifest built by hand is refused as the imports refuse theirs, before the store's own
// invariants could stop the process at a lookup.
TEST(SchemaStoreTest, HandBuiltManifestsAreCheckedAsImportsAre) {
  struct Row {
    std::string name;
    std::function<void(SchemaManifest&)> change;
    std::string refusal;
  };
  const std::vector<Row> rows = {
      {"two oneofs of one name",
       [](SchemaManifest& m) {
         m.messages["a.M"].oneofs = {{.name = "kind"}, {.name = "kind"}};
       },
       R"(Message "a.M": oneof name "kind" occurs twice)"},
      {"field number 0",
       [](SchemaManifest& m) { m.messages["a.M"].fields["f"] = scalar(TypeManifest::bool_, 0); },
       R"(Message "a.M" field "f": field number 0 is outside 1 to 536870911)"},
      {"one number twice",
       [](SchemaManifest& m) {
         m.messages["a.M"].fields["f"] = scalar(TypeManifest::bool_, 1);
         m.messages["a.M"].fields["g"] = scalar(TypeManifest::bool_, 1);
       },
       R"(Message "a.M" field "g": field number 1 is also the number of field "f")"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    SchemaManifest manifest = shopManifest();
    row.change(manifest);
    EXPECT_EQ(catchError([&] { SchemaStore{manifest}; }),
              SchemaManifestJSONError::invalidValueType(row.refusal));
  }
}

TEST(SchemaStoreTest, CallerFieldsAreAddedToTheBuiltInOptionsMessages) {
  SchemaManifest manifest;
  manifest.messages["google.protobuf.FieldOptions"].fields["packed"] =
      scalar(TypeManifest::bool_, 2);
  // A clash with a built-in descriptor field keeps the built-in one.
  manifest.messages["google.protobuf.FileDescriptorSet"].fields["file"] =
      scalar(TypeManifest::int32, 1);
  SchemaStore store(manifest);
  EXPECT_EQ(store.messageSchema("google.protobuf.FieldOptions").allFieldNames(),
            std::vector<std::string>{"packed"});
  EXPECT_EQ(store.messageSchema("google.protobuf.FileDescriptorSet").fieldNamed("file").type(),
            TypeSchema(TypeSchemaDescription::messageType(
                store.messageSchema("google.protobuf.FileDescriptorProto").impl())));
}

}  // namespace
}  // namespace ostrel
