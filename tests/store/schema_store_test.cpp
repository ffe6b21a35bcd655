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

TEST(SchemaStoreTest, LookupsMaterialiseOnceAndReturnTheSameObject) {
  const auto store = ProtoSchemaStore::make(shopManifest());
  EXPECT_EQ(store->description(), "MessageSchema store size: 14");
  EXPECT_TRUE(store->messageSchemaNames().contains("shop.Item"));
  const auto first = store->messageSchema("shop.Order");
  EXPECT_EQ(store->messageSchema("shop.Order"), first);

  const auto state = store->enumSchema("shop.State");
  EXPECT_EQ(store->enumSchema("shop.State"), state);
  SchemaStore wrapper(store);
  EXPECT_EQ(wrapper.messageSchema("shop.Order"), wrapper.messageSchema("shop.Order"));
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

TEST(SchemaStoreTest, OptionsAreKeptAsDataOfTheirOptionsMessage) {
  SchemaManifest manifest = shopManifest();
  manifest.messages["shop.Order"].options = testing_support::bytesOf({0x38, 0x01});
  manifest.messages["shop.Order"].fields["id"].options = testing_support::bytesOf({0x10, 0x01});
  manifest.enums["shop.State"].options = Bytes{};
  manifest.enums["shop.State"].valueOptions[1] = testing_support::bytesOf({0x08, 0x01});
  SchemaStore store(manifest);

  const MessageSchema order = store.messageSchema("shop.Order");
  EXPECT_EQ(order.options()->messageSchema().name(), "google.protobuf.MessageOptions");
  EXPECT_EQ(order.options()->data(), testing_support::bytesOf({0x38, 0x01}));
  EXPECT_EQ(order.fieldNamed("id").options()->messageSchema().name(),
            "google.protobuf.FieldOptions");
  EXPECT_FALSE(order.fieldNamed("state").options());

  const EnumSchema state = store.enumSchema("shop.State");
  ASSERT_TRUE(state.options());  // an empty buffer is not the same as no options
  EXPECT_TRUE(state.options()->data().empty());
  ASSERT_EQ(state.valueOptions().size(), 1u);
  EXPECT_EQ(state.valueOptions().at(1).messageSchema().name(), "google.protobuf.EnumValueOptions");
}

TEST(SchemaStoreTest, SchemaThatCannotBeCreatedStaysInManifestForm) {
  // An options message carrying options of its own kind would need itself to be created.
  SchemaManifest manifest;
  manifest.messages["google.protobuf.MessageOptions"].options = Bytes{};
  const auto store = ProtoSchemaStore::make(manifest);
  const auto expected = SchematizerError::internalError(
      "Schema \"google.protobuf.MessageOptions\" needs itself to be created");
  EXPECT_EQ(catchError([&] { store->messageSchema("google.protobuf.MessageOptions"); }), expected);
  EXPECT_EQ(catchError([&] { store->messageSchema("google.protobuf.MessageOptions"); }), expected);
}

// The tool's describe command shows the descriptions of message, enum, integer and string types;
// these are the others.
// Types added later resolve the references that failed before; a materialised schema stays the
// object it was, and a name still in manifest form merges the way construction merges.
TEST(SchemaStoreTest, AddedTypesJoinWithoutChangingMaterialisedOnes) {
  SchemaManifest order;
  order.messages["shop.Order"] = shopManifest().messages["shop.Order"];
  const auto store = ProtoSchemaStore::make(order);
  const auto schema = store->messageSchema("shop.Order");
  EXPECT_EQ(catchError([&] { schema->fieldNamed("item")->type(); }),
            SchematizerError::schemaNotFound("shop.Item"));

  SchemaManifest more = shopManifest();
  more.messages["shop.Order"].fields["late"] = scalar(TypeManifest::string, 9);
  more.messages["google.protobuf.FieldOptions"].fields["tag"] = scalar(TypeManifest::string, 50000);
  store->add(more);
  EXPECT_EQ(store->messageSchema("shop.Order"), schema);
  EXPECT_FALSE(schema->fieldsByNumber().contains(9));
  EXPECT_EQ(schema->fieldNamed("item")->type().messageSchema()->name(), "shop.Item");
  EXPECT_EQ(schema->fieldNamed("state")->type().enumSchema()->valueNamed("PAID"), 1);
  EXPECT_EQ(store->messageSchema("google.protobuf.FieldOptions")->allFieldNames(),
            std::vector<std::string>{"tag"});
}

TEST(TypeSchemaTest, DescriptionsForDeveloperTooling) {
  using C = TypeSchema::Case;
  EXPECT_EQ(TypeSchema(TypeSchemaDescription::scalar(C::double_)).descriptionText(),
            "double floating point");
  EXPECT_EQ(TypeSchema(TypeSchemaDescription::scalar(C::bytes)).descriptionText(), "binary data");
}

}  // namespace
}  // namespace ostrel
