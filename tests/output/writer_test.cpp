#include <gtest/gtest.h>

#include <cstdint>
#include <iomanip>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ostrel/core/describing.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/output/protobuf_writing.hpp"
#include "output/field_value_writing.hpp"
#include "store/proto_schema_store.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::bytesOf;
using testing_support::catchError;
using T = TypeManifest;
using V = detail::AnyValueImpl;

std::string hex(ByteView bytes) {
  std::ostringstream out;
  for (size_t i = 0; i < bytes.size(); ++i) {
    out << (i > 0 ? " " : "") << std::hex << std::setw(2) << std::setfill('0')
        << std::to_integer<int>(bytes[i]);
  }
  return out.str();
}

TEST(WireDataWriterTest, DataCanBeTakenRepeatedlyWhileWritingAndAfterAMove) {
  WireDataWriter writer;
  EXPECT_TRUE(writer.data().empty());
  writer.writeInt32(1, 1);
  EXPECT_EQ(writer.data(), bytesOf({0x08, 0x01}));
  EXPECT_EQ(writer.data(), bytesOf({0x08, 0x01}));
  // The largest field number takes a five-byte key.
  writer.writeString("ab", 536870911);
  EXPECT_EQ(hex(writer.data()), "08 01 fa ff ff ff 0f 02 61 62");

  // Enough to outgrow the buffer the stream started with, several times over.
  for (int i = 0; i < 1000; ++i) writer.writeFixed64(static_cast<uint64_t>(i), 3);
  const Bytes all = writer.data();
  ASSERT_EQ(all.size(), 10u + 1000u * 9u);
  EXPECT_EQ(hex(ByteView(all).subspan(all.size() - 9)), "19 e7 03 00 00 00 00 00 00");
  WireDataWriter moved(std::move(writer));
  moved.writeBOOL(false, 2);
  EXPECT_EQ(hex(ByteView(moved.data()).subspan(all.size())), "10 00");
}

// Schemas for the fields writeFieldValue is handed: for each type T a message "w.T" whose field "f"
// (number 1) has that type, enum fields of w.Color, and "w.signed" whose field is of w.Signed.
class WriteFieldValueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SchemaManifest manifest;
    manifest.enums["w.Color"].values = {{"RED", 0}, {"BLUE", 300}};
    manifest.enums["w.Signed"].values = {{"MINUS", -2}};
    for (int i = 0; i < kTypeManifestCount; ++i) {
      const auto type = static_cast<TypeManifest>(i);
      FieldManifest& f = manifest.messages["w." + std::string(stringName(type))].fields["f"];
      f = {.type = type, .fieldNumber = 1};
      if (type == T::enum_) f.typeName = "w.Color";
      if (type == T::message) f.typeName = "w.int";
    }
    manifest.messages["w.signed"].fields["f"] = {
        .type = T::enum_, .typeName = "w.Signed", .fieldNumber = 1};
    store_ = ProtoSchemaStore::make(manifest);
  }

  const FieldSchemaDescribing& field(std::string_view message) {
    return *store_->messageSchema("w." + std::string(message))->fieldNamed("f");
  }
  const FieldSchemaDescribing& field(TypeManifest type) { return field(stringName(type)); }
  std::shared_ptr<EnumSchemaDescribing> color() { return store_->enumSchema("w.Color"); }

  std::shared_ptr<ProtoSchemaStore> store_;
};

// Each field type written from values of its own kind is compared with libprotobuf in the
// differential suite; these are the pairings a built message never makes.
TEST_F(WriteFieldValueTest, WritesByValueAndFieldType) {
  const auto color = this->color();
  const Bytes nested = bytesOf({0x08, 0x2a});
  const Bytes payload = bytesOf({0x01, 0x02});
  struct Row {
    std::string name;
    V value;
    T fieldType;
    std::string bytes;
  };
  const std::vector<Row> rows = {
      {"int32 to enum as int32", V::int32(-1), T::enum_, "08 ff ff ff ff ff ff ff ff ff 01"},
      {"float to int32, unchecked", V::float_(-0.0f), T::int32, "0d 00 00 00 80"},
      {"double to string, unchecked", V::double_(1.5), T::string, "09 00 00 00 00 00 00 f8 3f"},
      {"bool to uint64, unchecked", V::bool_(false), T::uint64, "08 00"},
      {"string to bytes, unchecked", V::string(""), T::bytes, "0a 00"},
      {"bytes to double, unchecked", V::bytes(payload), T::double_, "0a 02 01 02"},
      {"message to bytes", V::message(UnsafeSchematizedData(nullptr, nested)), T::bytes,
       "0a 02 08 2a"},
      {"enum by name", V::enum_({color, std::string("BLUE")}), T::enum_, "08 ac 02"},
      {"enum zero", V::enum_({color, std::string("RED")}), T::enum_, "08 00"},
      {"enum to int32, unchecked", V::enum_({color, int64_t{5}}), T::int32, "08 05"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    WireDataWriter writer;
    writeFieldValue(row.value, field(row.fieldType), writer);
    EXPECT_EQ(hex(writer.data()), row.bytes);
  }
}

// An integer goes only to a field whose type takes integers of its width and signedness (an enum
// field takes int32); any other pairing is refused before a byte is written.
TEST_F(WriteFieldValueTest, IntegerOfTheWrongTypeThrowsAndWritesNothing) {
  const std::vector<std::pair<V, T>> rows = {
      {V::uint32(1), T::int32},    {V::uint32(1), T::enum_}, {V::uint32(1), T::uint64},
      {V::int32(1), T::uint32},    {V::int32(1), T::int64},  {V::int32(1), T::fixed32},
      {V::int32(1), T::float_},    {V::int32(1), T::string}, {V::int64(1), T::int32},
      {V::int64(1), T::uint64},    {V::int64(1), T::enum_},  {V::uint64(1), T::int64},
      {V::uint64(1), T::sfixed64}, {V::uint64(1), T::bool_}};
  for (const auto& [value, type] : rows) {
    SCOPED_TRACE(value.describe() + " to " + std::string(stringName(type)));
    const FieldSchemaDescribing& f = field(type);
    WireDataWriter writer;
    EXPECT_EQ(catchError([&] { writeFieldValue(value, f, writer); }),
              SerializationError::invalidIntType(AnyValue::from(value), f.type()));
    EXPECT_TRUE(writer.data().empty());
  }
}

TEST_F(WriteFieldValueTest, UnknownEnumNameOrDestroyedStoreThrowsAndWritesNothing) {
  WireDataWriter writer;
  EXPECT_EQ(catchError([&] {
              writeFieldValue(V::enum_({color(), std::string("GREEN")}), field(T::enum_), writer);
            }),
            SchematizerError::enumValueNotFound("Enum: w.Color, GREEN value"));
  // A field whose type is still to be resolved when its store is gone: the type is asked for
  // before anything is written, whatever the value.
  const std::shared_ptr<FieldSchemaDescribing> orphan =
      store_->messageSchema("w.signed")->fieldNamed("f");
  store_.reset();
  for (const V& value : {V::int32(1), V::string("x")}) {
    EXPECT_EQ(catchError([&] { writeFieldValue(value, *orphan, writer); }),
              SchematizerError::internalError("Store is destroyed"));
  }
  EXPECT_TRUE(writer.data().empty());
}

using WriteFieldValueDeathTest = WriteFieldValueTest;

TEST_F(WriteFieldValueDeathTest, NegativeEnumNumberStopsTheProcess) {
  WireDataWriter writer;
  EXPECT_DEATH(writeFieldValue(V::enum_({color(), int64_t{-1}}), field(T::enum_), writer),
               "Negative value is not representable");
  EXPECT_DEATH(writeFieldValue(V::enum_({store_->enumSchema("w.Signed"), std::string("MINUS")}),
                               field("signed"), writer),
               "Negative value is not representable");
}

}  // namespace
}  // namespace ostrel
