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

}  // namespace
}  // namespace ostrel
