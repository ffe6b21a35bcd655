#include "ostrel/core/field_types.hpp"

#include <gtest/gtest.h>

#include "ostrel/core/errors.hpp"
#include "ostrel/core/values.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

struct NameRow {
  TypeManifest type;
  std::string name;
  ProtoWireType wire;
};

TEST(TypeManifestTest, StringNamesInOrderAndTheirWireTypes) {
  using T = TypeManifest;
  using W = ProtoWireType;
  const std::vector<NameRow> rows = {
      {T::double_, "double", W::fixed64},
      {T::float_, "float", W::fixed32},
      {T::int64, "int64", W::varInt},
      {T::uint64, "uint64", W::varInt},
      {T::int32, "int", W::varInt},
      {T::fixed64, "fixed64", W::fixed64},
      {T::fixed32, "fixed32", W::fixed32},
      {T::bool_, "bool", W::varInt},
      {T::string, "string", W::lengthDelimited},
      {T::message, "schema", W::lengthDelimited},
      {T::bytes, "data", W::lengthDelimited},
      {T::uint32, "uint", W::varInt},
      {T::enum_, "enum", W::varInt},
      {T::sfixed32, "sfixed32", W::fixed32},
      {T::sfixed64, "sfixed64", W::fixed64},
      {T::sint32, "sint32", W::varInt},
      {T::sint64, "sint64", W::varInt},
  };
  ASSERT_EQ(rows.size(), static_cast<size_t>(kTypeManifestCount));
  for (size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i].name);
    EXPECT_EQ(static_cast<size_t>(rows[i].type), i);
    EXPECT_EQ(stringName(rows[i].type), rows[i].name);
    EXPECT_EQ(parseTypeManifest(rows[i].name), rows[i].type);
    EXPECT_EQ(wireType(rows[i].type), rows[i].wire);
  }
}

TEST(TypeManifestTest, ParsingAcceptsOnlyTheExactNames) {
  for (const std::string name :
       {"int32", "uint32", "message", "bytes", "Double", "INT", " int", "int ", "", "group"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(parseTypeManifest(name), std::nullopt);
  }
}

TEST(TypeSchemaDescriptionTest, ScalarCasesMapByName) {
  using C = TypeSchemaDescription::Case;
  EXPECT_EQ(TypeSchemaDescription::scalarCaseOf(TypeManifest::int32), C::int32);
  EXPECT_EQ(TypeSchemaDescription::scalarCaseOf(TypeManifest::sfixed64), C::sfixed64);
  EXPECT_EQ(TypeSchemaDescription::scalarCaseOf(TypeManifest::bytes), C::bytes);
  EXPECT_EQ(TypeSchemaDescription::scalarCaseOf(TypeManifest::message), std::nullopt);
  EXPECT_EQ(TypeSchemaDescription::scalarCaseOf(TypeManifest::enum_), std::nullopt);
  int scalars = 0;
  for (int i = 0; i < kTypeManifestCount; ++i) {
    const auto type = static_cast<TypeManifest>(i);
    if (const auto kind = TypeSchemaDescription::scalarCaseOf(type)) {
      ++scalars;
      EXPECT_EQ(caseName(*kind), stringName(type) == "int"    ? "int32"
                                 : stringName(type) == "uint" ? "uint32"
                                 : stringName(type) == "data" ? "bytes"
                                                              : stringName(type));
    }
  }
  EXPECT_EQ(scalars, 15);
}

TEST(ErrorsTest, EqualityIsByCaseAndText) {
  EXPECT_EQ(SchematizerError::internalError("a"), SchematizerError::internalError("a"));
  EXPECT_FALSE(SchematizerError::internalError("a") == SchematizerError::internalError("b"));
  EXPECT_EQ(SchematizerError::notInitialized(), SchematizerError::notInitialized());
  EXPECT_FALSE(SchematizerError::schemaNotFound("x") == SchematizerError::enumNotFound("x"));
  EXPECT_EQ(SchematizerError::fieldNotFound("t").code(), SchematizerError::Code::fieldNotFound);
  EXPECT_EQ(SchematizerError::fieldNotFound("t").text(), "t");
  EXPECT_STREQ(SchematizerError::schemaNotFound("a.M").what(), "schemaNotFound: a.M");
  EXPECT_STREQ(SchematizerError::oneofNotFound().what(), "oneofNotFound");
  EXPECT_EQ(static_cast<int>(SchematizerError::Code::nonMessageTypeInKeypath), 14);

  using C = TypeSchemaDescription::Case;
  const auto mismatch = SerializationError::typeMismatch(TypeSchemaDescription::scalar(C::fixed32),
                                                         ProtoWireType::varInt);
  EXPECT_STREQ(mismatch.what(), "typeMismatch(fixed32, varInt)");
  EXPECT_EQ(mismatch.wireType(), ProtoWireType::varInt);
  EXPECT_FALSE(mismatch == SerializationError::typeMismatch(
                               TypeSchemaDescription::scalar(C::fixed32), ProtoWireType::fixed64));
  const auto invalid = SerializationError::invalidIntType(detail::AnyValueImpl::uint32(5),
                                                          TypeSchemaDescription::scalar(C::int32));
  EXPECT_STREQ(invalid.what(), "invalidIntType(uint32(5), int32)");
  EXPECT_EQ(invalid.value()->uint32Value(), 5u);
  EXPECT_EQ(SerializationError::truncated(), SerializationError::truncated());
  EXPECT_FALSE(SerializationError::truncated() == SerializationError::malformedProtobuf());

  EXPECT_EQ(MergeConflict::conflict("Conflict merging FieldManifest").text(),
            "Conflict merging FieldManifest");
  EXPECT_EQ(SchemaManifestDSCError::cannotLoadDescriptor(),
            SchemaManifestDSCError::cannotLoadDescriptor());
  EXPECT_FALSE(SchemaManifestDSCError::invalidValueType("x") ==
               SchemaManifestDSCError::invalidDescriptor("x"));
}

TEST(ValuesTest, PublicValuesOwnWhatInternalValuesBorrow) {
  std::optional<Bytes> buffer = testing_support::bytesOf({1, 2, 3});
  const detail::AnyValueImpl borrowed = detail::AnyValueImpl::bytes(ByteView(*buffer).subspan(1));
  const AnyValue owned = AnyValue::from(borrowed);
  buffer.reset();
  EXPECT_EQ(owned.bytesValue(), testing_support::bytesOf({2, 3}));
  EXPECT_EQ(owned.kind(), AnyValue::Case::bytes);

  const AnyValue text("abc");
  const detail::AnyValueImpl view = text.impl();
  EXPECT_EQ(view.stringValue(), "abc");
}

TEST(DataValueTest, OwnedAndBorrowedContainersCopyExactlyTheirBytes) {
  const Bytes bytes = testing_support::bytesOf({9, 8, 7});
  const BorrowedData borrowed(ByteView(bytes).first(2));
  EXPECT_EQ(borrowed.copy(), testing_support::bytesOf({9, 8}));
  EXPECT_EQ(BorrowedData().copy(), Bytes{});
  const OwnedData owned(bytes);
  const OwnedData shared = owned;
  EXPECT_EQ(shared.view().data(), owned.view().data());
  EXPECT_EQ(owned.copy(), bytes);
  EXPECT_NE(owned.copy().data(), owned.view().data());
}

// Reading a value as another kind is the library's own error, naming both kinds, for the owned
// and the internal form alike.
TEST(AnyValueTest, ReadingAsTheWrongKindNamesBothKinds) {
  const AnyValue number(int64_t{5});
  EXPECT_EQ(testing_support::catchError([&] { number.stringValue(); }),
            SchematizerError::unexpectedType("expected string value, found int64"));
  EXPECT_EQ(testing_support::catchError([&] { number.impl().uint64Value(); }),
            SchematizerError::unexpectedType("expected uint64 value, found int64"));
  EXPECT_EQ(testing_support::catchError([&] { AnyValue("x").messageValue(); }),
            SchematizerError::unexpectedType("expected message value, found string"));
  EXPECT_EQ(number.int64Value(), 5);
}

}  // namespace
}  // namespace ostrel
