#include <gtest/gtest.h>

#include "ostrel/manifest/manifest_data.hpp"
#include "ostrel/store/schemas.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::catchError;

// shop.Order: fields numbered out of name order, two oneofs declared out of text order.
SchemaManifest orderManifest() {
  return schemaManifestFromJSON(R"({"messages": {
    "shop.Order": {"oneofs": [{"name": "payment"}, {"name": "delivery"}], "fields": {
      "zeta": {"type": "string", "fieldNumber": 1}, "alpha": {"type": "int", "fieldNumber": 3},
      "mid": {"type": "uint64", "fieldNumber": 2, "oneofIndex": 0},
      "card": {"type": "string", "fieldNumber": 5, "oneofIndex": 0},
      "cash": {"type": "bool", "fieldNumber": 4, "oneofIndex": 1},
      "item": {"type": "schema", "typeName": "shop.Item", "fieldNumber": 6},
      "state": {"type": "enum", "typeName": "shop.State", "fieldNumber": 7}}},
    "shop.Item": {"fields": {"sku": {"type": "string", "fieldNumber": 1}}}, "shop.Empty": {},
    "shop.Broken": {"fields": {
      "dangling": {"type": "schema", "typeName": "shop.Missing", "fieldNumber": 1},
      "untyped": {"type": "schema", "fieldNumber": 2},
      "unnamedEnum": {"type": "enum", "fieldNumber": 3},
      "relative": {"type": "schema", "typeName": ".shop.Item", "fieldNumber": 4}}}},
    "enums": {"shop.State": {"values": {"OPEN": 0, "PAID": 1, "SETTLED": 1}}}})");
}

// Names listed in their fixed orders; fields, oneofs and enum values looked up by name and number,
// or the exact failure.
TEST(MessageSchemaTest, ListsAndLooksUpItsMembers) {
  SchemaStore store(orderManifest());
  const MessageSchema order = store.messageSchema("shop.Order");
  EXPECT_EQ(order.allFieldNames(),
            (std::vector<std::string>{"zeta", "mid", "alpha", "cash", "card", "item", "state"}));
  EXPECT_EQ(order.allOneofNames(), (std::vector<std::string>{"delivery", "payment"}));
  std::vector<std::string> declared;
  for (const OneofSchema& oneof : order.allOneofs()) declared.push_back(oneof.name());
  EXPECT_EQ(declared, (std::vector<std::string>{"payment", "delivery"}));
  std::vector<int64_t> numbers;
  for (const auto& [number, field] : order.fieldsByNumber()) {
    EXPECT_EQ(field.fieldNumber(), number);
    numbers.push_back(number);
  }
  EXPECT_EQ(numbers, (std::vector<int64_t>{1, 2, 3, 4, 5, 6, 7}));

  EXPECT_EQ(catchError([&] { order.fieldNamed("x"); }),
            SchematizerError::fieldNotFound("Schema \"shop.Order\" property with name \"x\""));
  EXPECT_EQ(catchError([&] { order.fieldWithNumber(8); }),
            SchematizerError::fieldNotFound("With number 8"));
  EXPECT_EQ(catchError([&] { order.oneofNamed("nope"); }), SchematizerError::oneofNotFound());
  EXPECT_FALSE(order.findFieldNamed("x"));
  const FieldSchema mid = *order.findFieldNamed("mid");
  EXPECT_EQ(mid.fieldNumber(), 2);
  EXPECT_FALSE(mid.isRepeated());
  EXPECT_TRUE(mid.isOptional());
  EXPECT_EQ(mid.oneofIndex(), 0);
  EXPECT_EQ(mid.type().kind(), TypeSchema::Case::uint64);
  EXPECT_EQ(order.fieldNamed("item").type().messageSchema()->name(), "shop.Item");
  EXPECT_EQ(order.fieldNamed("state").type().enumSchema()->valueNamed("PAID"), 1);
  const OneofSchema payment = order.oneofNamed("payment");
  EXPECT_EQ(payment.allFieldNames(), (std::set<std::string>{"card", "mid"}));
  EXPECT_EQ(payment.allFieldNumbers(), (std::set<int64_t>{2, 5}));
  EXPECT_EQ(payment.fieldNumberNamed("card"), 5);
  EXPECT_EQ(payment.fieldNameFor(2), "mid");
  EXPECT_EQ(catchError([&] { payment.fieldNumberNamed("cash"); }),
            SchematizerError::fieldNotFound("One of property with name: cash"));
  EXPECT_EQ(catchError([&] { payment.fieldNameFor(4); }),
            SchematizerError::fieldNotFound("One of field with field number: 4"));

  const EnumSchema state = store.enumSchema("shop.State");
  EXPECT_EQ(state.valueSet(), (std::set<int64_t>{0, 1}));
  EXPECT_EQ(state.valueNamed("PAID"), 1);
  EXPECT_EQ(state.valueNamed("SETTLED"), 1);
  EXPECT_EQ(state.valueNameFor(1), "PAID");
  EXPECT_EQ(catchError([&] { state.valueNamed("LOST"); }),
            SchematizerError::enumValueNotFound("Enum: shop.State, LOST value"));
  EXPECT_EQ(catchError([&] { state.valueNameFor(-3); }),
            SchematizerError::enumValueNotFound("Enum: shop.State, -3 value"));
}

TEST(MessageSchemaLifetimeTest, MaterialisedMembersOutliveTheStore) {
  std::optional<SchemaStore> store(orderManifest());
  const MessageSchema order = store->messageSchema("shop.Order");
  const FieldSchema zeta = order.fieldNamed("zeta");
  const FieldSchema item = order.fieldNamed("item");
  const FieldSchema state = order.fieldNamed("state");
  state.type();
  const OneofSchema payment = order.oneofNamed("payment");
  store.reset();

  EXPECT_EQ(order.fieldNamed("zeta"), zeta);
  EXPECT_EQ(zeta.fieldNumber(), 1);
  // Even a scalar type is resolved through the store, on first use.
  EXPECT_EQ(catchError([&] { zeta.type(); }),
            SchematizerError::internalError("Store is destroyed"));
  EXPECT_EQ(state.type().enumSchema()->valueNamed("OPEN"), 0);
  EXPECT_EQ(payment.fieldNumberNamed("mid"), 2);
  EXPECT_EQ(catchError([&] { item.type(); }),
            SchematizerError::internalError("Store is destroyed"));
  EXPECT_EQ(catchError([&] { order.fieldNamed("alpha"); }), SchematizerError::notInitialized());
  // Only a missing field is no field: other failures pass through the optional lookup.
  EXPECT_EQ(catchError([&] { order.findFieldNamed("alpha"); }), SchematizerError::notInitialized());
  EXPECT_EQ(catchError([&] { order.fieldWithNumber(3); }), SchematizerError::notInitialized());
  EXPECT_EQ(catchError([&] { order.oneofNamed("delivery"); }), SchematizerError::notInitialized());
  // An unknown name is still an unknown name.
  EXPECT_EQ(catchError([&] { order.fieldNamed("x"); }),
            SchematizerError::fieldNotFound("Schema \"shop.Order\" property with name \"x\""));
}

}  // namespace
}  // namespace ostrel
