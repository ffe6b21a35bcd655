#include "ostrel/core/field_types.hpp"

#include <gtest/gtest.h>

#include <tuple>

#include "ostrel/core/errors.hpp"
#include "ostrel/core/values.hpp"
#include "store/proto_schema_store.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::bytesOf;
using C = TypeSchemaDescription::Case;
using D = TypeSchemaDescription;

// Two stores of the same schemas: enums a.E and b.E {Z = 0, ONE = 1}, empty messages a.M and b.M.
std::pair<std::shared_ptr<ProtoSchemaStore>, std::shared_ptr<ProtoSchemaStore>> twoStores() {
  SchemaManifest manifest;
  manifest.enums["a.E"].values = {{"Z", 0}, {"ONE", 1}};
  manifest.enums["b.E"] = manifest.enums["a.E"];
  manifest.messages["a.M"];
  manifest.messages["b.M"];
  return {ProtoSchemaStore::make(manifest), ProtoSchemaStore::make(manifest)};
}

// Enum and message types name their schema, and two of them are equal when they name the same one,
// whichever store it comes from.
TEST(TypeSchemaDescriptionTest, DescribesAndComparesBySchemaName) {
  const auto [store, other] = twoStores();
  const D aE = D::enumType(store->enumSchema("a.E"));
  const D aM = D::messageType(store->messageSchema("a.M"));
  EXPECT_EQ(aE.describe(), "enum(a.E)");
  EXPECT_EQ(aM.describe(), "message(a.M)");
  EXPECT_EQ(D::enumType(nullptr).describe(), "enum");
  EXPECT_EQ(D::messageType(nullptr).describe(), "message");
  EXPECT_EQ(D::scalar(C::sfixed64).describe(), "sfixed64");
  // Without their schema they are no scalars: asking for one is the caller's fault, which stops.
  EXPECT_DEATH(D::scalar(C::enum_), "");
  EXPECT_DEATH(D::scalar(C::message), "");

  const std::vector<std::tuple<D, D, bool>> rows = {
      {aE, D::enumType(other->enumSchema("a.E")), true},
      {aE, D::enumType(store->enumSchema("b.E")), false},
      {aE, D::enumType(nullptr), false},
      {D::enumType(nullptr), aE, false},
      {D::enumType(nullptr), D::enumType(nullptr), true},
      {aM, D::messageType(other->messageSchema("a.M")), true},
      {aM, D::messageType(store->messageSchema("b.M")), false},
      {aM, D::messageType(nullptr), false},
      {aE, aM, false},
      {D::scalar(C::int32), D::scalar(C::int32), true},
      {D::scalar(C::int32), D::scalar(C::uint32), false}};
  for (const auto& [a, b, equal] : rows) {
    EXPECT_EQ(a == b, equal) << a.describe() << " == " << b.describe();
  }
}

TEST(ErrorsTest, EqualityIsByCaseAndTextAndWhatNamesBoth) {
  EXPECT_EQ(SchematizerError::internalError("a"), SchematizerError::internalError("a"));
  EXPECT_FALSE(SchematizerError::internalError("a") == SchematizerError::internalError("b"));
  EXPECT_FALSE(SchematizerError::schemaNotFound("x") == SchematizerError::enumNotFound("x"));
  EXPECT_EQ(SchematizerError::fieldNotFound("t").code(), SchematizerError::Code::fieldNotFound);
  EXPECT_STREQ(SchematizerError::oneofNotFound().what(), "oneofNotFound");

  const auto mismatch =
      SerializationError::typeMismatch(D::scalar(C::fixed32), ProtoWireType::varInt);
  EXPECT_EQ(mismatch.wireType(), ProtoWireType::varInt);
  EXPECT_FALSE(mismatch ==
               SerializationError::typeMismatch(D::scalar(C::fixed32), ProtoWireType::fixed64));
  const auto invalid =
      SerializationError::invalidIntType(AnyValue(uint32_t{5}), D::scalar(C::int32));
  EXPECT_STREQ(invalid.what(), "invalidIntType(uint32(5), int32)");
  EXPECT_EQ(invalid.value()->uint32Value(), 5u);
  // It carries this value and this type, not merely an integer mismatch.
  EXPECT_FALSE(invalid ==
               SerializationError::invalidIntType(AnyValue(uint32_t{6}), D::scalar(C::int32)));
  EXPECT_FALSE(invalid ==
               SerializationError::invalidIntType(AnyValue(uint32_t{5}), D::scalar(C::int64)));
  EXPECT_FALSE(SerializationError::truncated() == SerializationError::malformedProtobuf());
  EXPECT_FALSE(SchemaManifestDSCError::invalidValueType("x") ==
               SchemaManifestDSCError::invalidDescriptor("x"));
  EXPECT_STREQ(SchemaManifestDSCError::cannotLoadDescriptor().what(), "cannotLoadDescriptor");
}

// Enum values and messages compare by the name of their schema, not its object, then by number
// (whether held by name or by number) or by bytes.
TEST(ValuesTest, EnumsAndMessagesCompareBySchemaNameAndContent) {
  const auto [store, other] = twoStores();
  const auto e = [](const std::shared_ptr<EnumSchemaDescribing>& type,
                    detail::EnumValueImpl::Container held) {
    return EnumValue(detail::EnumValueImpl{type, std::move(held)});
  };
  const auto m = [](const std::shared_ptr<MessageSchemaDescribing>& type, Bytes bytes) {
    return SchematizedData(type, std::move(bytes));
  };
  const auto aE = store->enumSchema("a.E");
  const auto aM = store->messageSchema("a.M");
  const std::vector<std::tuple<AnyValue, AnyValue, bool>> rows = {
      {e(aE, int64_t{1}), e(other->enumSchema("a.E"), int64_t{1}), true},
      {e(aE, int64_t{1}), e(aE, std::string("ONE")), true},
      {e(aE, std::string("Z")), e(aE, std::string("Z")), true},
      {e(aE, int64_t{1}), e(aE, int64_t{0}), false},
      {e(aE, int64_t{1}), e(store->enumSchema("b.E"), int64_t{1}), false},
      {e(aE, int64_t{1}), e(nullptr, int64_t{1}), false},
      {e(nullptr, int64_t{1}), e(aE, int64_t{1}), false},
      {e(nullptr, int64_t{7}), e(nullptr, int64_t{7}), true},
      {m(aM, bytesOf({8, 1})), m(other->messageSchema("a.M"), bytesOf({8, 1})), true},
      {m(aM, bytesOf({8, 1})), m(aM, bytesOf({8, 2})), false},
      {m(aM, bytesOf({8, 1})), m(store->messageSchema("b.M"), bytesOf({8, 1})), false},
      {m(aM, {}), m(nullptr, {}), false},
      {m(nullptr, {}), m(aM, {}), false},
      {m(nullptr, bytesOf({1})), m(nullptr, bytesOf({1})), true}};
  for (size_t i = 0; i < rows.size(); ++i) {
    const auto& [a, b, equal] = rows[i];
    EXPECT_EQ(a == b, equal) << "row " << i;
  }
}

TEST(ValuesTest, PublicValuesOwnWhatInternalValuesBorrow) {
  std::optional<Bytes> buffer = bytesOf({1, 2, 3});
  const AnyValue owned = AnyValue::from(detail::AnyValueImpl::bytes(ByteView(*buffer).subspan(1)));
  buffer.reset();
  EXPECT_EQ(owned.bytesValue(), bytesOf({2, 3}));
  EXPECT_EQ(owned.kind(), AnyValue::Case::bytes);
  EXPECT_EQ(AnyValue("abc").impl().stringValue(), "abc");

  const Bytes bytes = bytesOf({9, 8, 7});
  EXPECT_EQ(BorrowedData(ByteView(bytes).first(2)).copy(), bytesOf({9, 8}));
  EXPECT_EQ(BorrowedData().copy(), Bytes{});
  const OwnedData data(bytes);
  const OwnedData shared = data;
  EXPECT_EQ(shared.view().data(), data.view().data());
  EXPECT_EQ(data.copy(), bytes);
  EXPECT_NE(data.copy().data(), data.view().data());
}

// Reading a value as another kind is the library's own error, naming both kinds, for the owned
// and the internal form alike.
TEST(ValuesTest, ReadingAsTheWrongKindNamesBothKinds) {
  using testing_support::catchError;
  const AnyValue number(int64_t{5});
  EXPECT_EQ(catchError([&] { number.stringValue(); }),
            SchematizerError::unexpectedType("expected string value, found int64"));
  EXPECT_EQ(catchError([&] { number.impl().uint64Value(); }),
            SchematizerError::unexpectedType("expected uint64 value, found int64"));
  EXPECT_EQ(catchError([&] { AnyValue("x").messageValue(); }),
            SchematizerError::unexpectedType("expected message value, found string"));
  EXPECT_EQ(number.int64Value(), 5);
}

}  // namespace
}  // namespace ostrel
