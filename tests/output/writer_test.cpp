#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <iomanip>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ostrel/core/describing.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/output/protobuf_writing.hpp"
#include "store/proto_schema_store.hpp"
#include "support/test_support.hpp"

namespace ostrel {
namespace {

using testing_support::bytesOf;
using testing_support::catchError;
using Type = TypeSchemaDescription::Case;

std::string hex(ByteView bytes) {
  std::ostringstream out;
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i > 0) out << ' ';
    out << std::hex << std::setw(2) << std::setfill('0') << std::to_integer<int>(bytes[i]);
  }
  return out.str();
}

std::string hex(std::string_view text) { return hex(asBytes(text)); }

// ---------------------------------------------------------------------------------------------
// WireDataWriter

TEST(WireDataWriterTest, EmptyWriterHasNoBytes) {
  WireDataWriter writer;
  EXPECT_TRUE(writer.data().empty());
  EXPECT_TRUE(writer.data().empty());
}

TEST(WireDataWriterTest, DataCanBeTakenRepeatedlyWhileWriting) {
  WireDataWriter writer;
  writer.writeInt32(1, 1);
  EXPECT_EQ(writer.data(), bytesOf({0x08, 0x01}));
  EXPECT_EQ(writer.data(), bytesOf({0x08, 0x01}));

  writer.writeString("ab", 2);
  EXPECT_EQ(writer.data(), bytesOf({0x08, 0x01, 0x12, 0x02, 'a', 'b'}));

  // Enough to outgrow the buffer the stream started with, several times over.
  for (int i = 0; i < 1000; ++i) writer.writeFixed64(static_cast<uint64_t>(i), 3);
  const Bytes all = writer.data();
  ASSERT_EQ(all.size(), 6u + 1000u * 9u);
  EXPECT_EQ(hex(ByteView(all).subspan(all.size() - 9)), "19 e7 03 00 00 00 00 00 00");
  EXPECT_EQ(writer.data(), all);
}

TEST(WireDataWriterTest, MovedWriterKeepsItsBytes) {
  WireDataWriter first;
  first.writeBOOL(true, 1);
  WireDataWriter second(std::move(first));
  second.writeBOOL(false, 2);
  EXPECT_EQ(second.data(), bytesOf({0x08, 0x01, 0x10, 0x00}));
}

// ---------------------------------------------------------------------------------------------
// Round trip through libprotobuf: a message with one field of each type, written by
// WireDataWriter, must parse back to the values written and serialize to the same bytes.

namespace pb = google::protobuf;

class LibprotobufRoundTripTest : public ::testing::Test {
 protected:
  void SetUp() override {
    pb::FileDescriptorProto file;
    file.set_name("writer_round_trip.proto");
    file.set_package("rt");
    auto* enumType = file.add_enum_type();
    enumType->set_name("E");
    for (auto [name, number] : {std::pair{"ZERO", 0}, std::pair{"BIG", 300}}) {
      auto* value = enumType->add_value();
      value->set_name(name);
      value->set_number(number);
    }
    auto* message = file.add_message_type();
    message->set_name("All");
    using F = pb::FieldDescriptorProto;
    const std::vector<std::pair<std::string, F::Type>> fields = {
        {"i32", F::TYPE_INT32},     {"u32", F::TYPE_UINT32},    {"s32", F::TYPE_SINT32},
        {"f32", F::TYPE_FIXED32},   {"sf32", F::TYPE_SFIXED32}, {"i64", F::TYPE_INT64},
        {"u64", F::TYPE_UINT64},    {"s64", F::TYPE_SINT64},    {"f64", F::TYPE_FIXED64},
        {"sf64", F::TYPE_SFIXED64}, {"fl", F::TYPE_FLOAT},      {"db", F::TYPE_DOUBLE},
        {"b", F::TYPE_BOOL},        {"s", F::TYPE_STRING},      {"by", F::TYPE_BYTES},
        {"e", F::TYPE_ENUM},        {"big", F::TYPE_INT32},
    };
    int number = 1;
    for (const auto& [name, type] : fields) {
      auto* field = message->add_field();
      field->set_name(name);
      field->set_number(name == "big" ? 536870911 : number++);
      field->set_label(F::LABEL_OPTIONAL);
      field->set_type(type);
      if (type == F::TYPE_ENUM) field->set_type_name(".rt.E");
    }
    file_ = pool_.BuildFile(file);
    ASSERT_NE(file_, nullptr);
    descriptor_ = file_->FindMessageTypeByName("All");
    ASSERT_NE(descriptor_, nullptr);
  }

  std::unique_ptr<pb::Message> parse(const Bytes& bytes) {
    std::unique_ptr<pb::Message> message(factory_.GetPrototype(descriptor_)->New());
    EXPECT_TRUE(message->ParseFromString(toString(bytes)));
    return message;
  }

  const pb::FieldDescriptor* field(const char* name) const {
    return descriptor_->FindFieldByName(name);
  }

  pb::DescriptorPool pool_;
  pb::DynamicMessageFactory factory_;
  const pb::FileDescriptor* file_ = nullptr;
  const pb::Descriptor* descriptor_ = nullptr;
};

TEST_F(LibprotobufRoundTripTest, ParsesBackAndMatchesLibprotobufSerialization) {
  struct Values {
    std::string name;
    int32_t i32;
    uint32_t u32;
    int32_t s32;
    uint32_t f32;
    int32_t sf32;
    int64_t i64;
    uint64_t u64;
    int64_t s64;
    uint64_t f64;
    int64_t sf64;
    float fl;
    double db;
    bool b;
    std::string s;
    std::string by;
    int e;
  };
  const std::vector<Values> rows = {
      {"zeros, negative zeros", 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, -0.0f, -0.0, false, "", "", 0},
      {"negatives", -1, 1, -1, 1, -1, -1, 1, -1, 1, -1, -1.25f, -2.5, true, "x", "\x01", 300},
      {"extremes", std::numeric_limits<int32_t>::min(), std::numeric_limits<uint32_t>::max(),
       std::numeric_limits<int32_t>::max(), std::numeric_limits<uint32_t>::max(),
       std::numeric_limits<int32_t>::min(), std::numeric_limits<int64_t>::min(),
       std::numeric_limits<uint64_t>::max(), std::numeric_limits<int64_t>::min(),
       std::numeric_limits<uint64_t>::max(), std::numeric_limits<int64_t>::max(),
       std::numeric_limits<float>::max(), std::numeric_limits<double>::lowest(), true,
       std::string(300, 's'), std::string("\0\xff", 2), 300},
  };

  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    WireDataWriter writer;
    writer.writeInt32(row.i32, 1);
    writer.writeUint32(row.u32, 2);
    writer.writeSint32(row.s32, 3);
    writer.writeFixed32(row.f32, 4);
    writer.writeSfixed32(row.sf32, 5);
    writer.writeInt64(row.i64, 6);
    writer.writeUint64(row.u64, 7);
    writer.writeSint64(row.s64, 8);
    writer.writeFixed64(row.f64, 9);
    writer.writeSfixed64(row.sf64, 10);
    writer.writeFloat(row.fl, 11);
    writer.writeDouble(row.db, 12);
    writer.writeBOOL(row.b, 13);
    writer.writeString(row.s, 14);
    writer.writeData(asBytes(row.by), 15);
    writer.writeUint64(static_cast<uint64_t>(row.e), 16);
    writer.writeInt32(row.i32, 536870911);
    const Bytes bytes = writer.data();

    auto message = parse(bytes);
    const pb::Reflection* r = message->GetReflection();
    EXPECT_EQ(r->GetInt32(*message, field("i32")), row.i32);
    EXPECT_EQ(r->GetUInt32(*message, field("u32")), row.u32);
    EXPECT_EQ(r->GetInt32(*message, field("s32")), row.s32);
    EXPECT_EQ(r->GetUInt32(*message, field("f32")), row.f32);
    EXPECT_EQ(r->GetInt32(*message, field("sf32")), row.sf32);
    EXPECT_EQ(r->GetInt64(*message, field("i64")), row.i64);
    EXPECT_EQ(r->GetUInt64(*message, field("u64")), row.u64);
    EXPECT_EQ(r->GetInt64(*message, field("s64")), row.s64);
    EXPECT_EQ(r->GetUInt64(*message, field("f64")), row.f64);
    EXPECT_EQ(r->GetInt64(*message, field("sf64")), row.sf64);
    EXPECT_EQ(r->GetFloat(*message, field("fl")), row.fl);
    EXPECT_EQ(r->GetDouble(*message, field("db")), row.db);
    EXPECT_EQ(r->GetBool(*message, field("b")), row.b);
    EXPECT_EQ(r->GetString(*message, field("s")), row.s);
    EXPECT_EQ(r->GetString(*message, field("by")), row.by);
    EXPECT_EQ(r->GetEnumValue(*message, field("e")), row.e);
    EXPECT_EQ(r->GetInt32(*message, field("big")), row.i32);
    EXPECT_TRUE(message->GetReflection()->GetUnknownFields(*message).empty());

    // Written in field-number order, so libprotobuf must produce exactly the same bytes.
    EXPECT_EQ(hex(message->SerializeAsString()), hex(bytes));
  }
}

// ---------------------------------------------------------------------------------------------
// writeFieldValue: the operation each value and field type pairing goes through, seen in the bytes.

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
      if (type == TypeManifest::enum_) f.typeName = "w.Color";
      if (type == TypeManifest::message) f.typeName = "w.int";
    }
    manifest.messages["w.signed"].fields["f"] = {
        .type = TypeManifest::enum_, .typeName = "w.Signed", .fieldNumber = 1};
    store_ = ProtoSchemaStore::make(manifest);
  }

  const FieldSchemaDescribing& field(std::string_view message) {
    return *store_->messageSchema("w." + std::string(message))->fieldNamed("f");
  }
  const FieldSchemaDescribing& field(TypeManifest type) { return field(stringName(type)); }
  std::shared_ptr<EnumSchemaDescribing> color() { return store_->enumSchema("w.Color"); }

  std::shared_ptr<ProtoSchemaStore> store_;
};

TEST_F(WriteFieldValueTest, WritesByValueAndFieldType) {
  using V = detail::AnyValueImpl;
  using T = TypeManifest;
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
      {"int32 to int32", V::int32(-5), T::int32, "08 fb ff ff ff ff ff ff ff ff 01"},
      {"int32 to enum as int32", V::int32(-1), T::enum_, "08 ff ff ff ff ff ff ff ff ff 01"},
      {"int32 to sint32", V::int32(-5), T::sint32, "08 09"},
      {"int32 to sfixed32", V::int32(-5), T::sfixed32, "0d fb ff ff ff"},
      {"uint32 to uint32", V::uint32(9), T::uint32, "08 09"},
      {"uint32 to fixed32", V::uint32(9), T::fixed32, "0d 09 00 00 00"},
      {"int64 to int64", V::int64(-8), T::int64, "08 f8 ff ff ff ff ff ff ff ff 01"},
      {"int64 to sint64", V::int64(-8), T::sint64, "08 0f"},
      {"int64 to sfixed64", V::int64(-8), T::sfixed64, "09 f8 ff ff ff ff ff ff ff"},
      {"uint64 to uint64", V::uint64(8), T::uint64, "08 08"},
      {"uint64 to fixed64", V::uint64(8), T::fixed64, "09 08 00 00 00 00 00 00 00"},
      {"float to float", V::float_(1.5f), T::float_, "0d 00 00 c0 3f"},
      {"float to int32, unchecked", V::float_(1.5f), T::int32, "0d 00 00 c0 3f"},
      {"double to double", V::double_(2.5), T::double_, "09 00 00 00 00 00 00 04 40"},
      {"double to string, unchecked", V::double_(1.5), T::string, "09 00 00 00 00 00 00 f8 3f"},
      {"bool to bool", V::bool_(true), T::bool_, "08 01"},
      {"bool to uint64, unchecked", V::bool_(false), T::uint64, "08 00"},
      {"string to string", V::string("hey"), T::string, "0a 03 68 65 79"},
      {"string to bytes, unchecked", V::string("hey"), T::bytes, "0a 03 68 65 79"},
      {"bytes to bytes", V::bytes(payload), T::bytes, "0a 02 01 02"},
      {"bytes to double, unchecked", V::bytes(payload), T::double_, "0a 02 01 02"},
      {"message to bytes", V::message(UnsafeSchematizedData(nullptr, nested)), T::bytes,
       "0a 02 08 2a"},
      {"enum by number as uint64", V::enum_({color, int64_t{300}}), T::enum_, "08 ac 02"},
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

TEST_F(WriteFieldValueTest, IntegerOfTheWrongTypeThrowsAndWritesNothing) {
  using V = detail::AnyValueImpl;
  using T = TypeManifest;
  struct Row {
    std::string name;
    V value;
    T fieldType;
  };
  const std::vector<Row> rows = {
      {"uint32 to int32", V::uint32(1), T::int32},
      {"uint32 to enum", V::uint32(1), T::enum_},
      {"uint32 to uint64", V::uint32(1), T::uint64},
      {"int32 to uint32", V::int32(1), T::uint32},
      {"int32 to int64", V::int32(1), T::int64},
      {"int32 to fixed32", V::int32(1), T::fixed32},
      {"int32 to float", V::int32(1), T::float_},
      {"int32 to string", V::int32(1), T::string},
      {"int64 to int32", V::int64(1), T::int32},
      {"int64 to uint64", V::int64(1), T::uint64},
      {"int64 to enum", V::int64(1), T::enum_},
      {"uint64 to int64", V::uint64(1), T::int64},
      {"uint64 to sfixed64", V::uint64(1), T::sfixed64},
      {"uint64 to bool", V::uint64(1), T::bool_},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const FieldSchemaDescribing& f = field(row.fieldType);
    WireDataWriter writer;
    EXPECT_EQ(catchError([&] { writeFieldValue(row.value, f, writer); }),
              SerializationError::invalidIntType(row.value, f.type()));
    EXPECT_TRUE(writer.data().empty());
  }
  // The error carries this value and this type, not merely an integer mismatch.
  const auto caught = catchError([&] {
    WireDataWriter writer;
    writeFieldValue(V::uint32(1), field(T::int32), writer);
  });
  EXPECT_FALSE(caught == SerializationError::invalidIntType(V::uint32(2), field(T::int32).type()));
  EXPECT_FALSE(caught == SerializationError::invalidIntType(V::uint32(1), field(T::int64).type()));
}

TEST_F(WriteFieldValueTest, UnknownEnumNameThrowsTheEnumErrorAndWritesNothing) {
  WireDataWriter writer;
  EXPECT_EQ(catchError([&] {
              writeFieldValue(detail::AnyValueImpl::enum_({color(), std::string("GREEN")}),
                              field(TypeManifest::enum_), writer);
            }),
            SchematizerError::enumValueNotFound("Enum: w.Color, GREEN value"));
  EXPECT_TRUE(writer.data().empty());
}

// A field whose type is still to be resolved when its store is gone: writeFieldValue asks for the
// type before it writes anything, whatever the value.
TEST_F(WriteFieldValueTest, FieldOfADestroyedStoreThrowsAndWritesNothing) {
  const std::shared_ptr<FieldSchemaDescribing> field =
      store_->messageSchema("w.enum")->fieldNamed("f");
  store_.reset();
  for (const detail::AnyValueImpl& value :
       {detail::AnyValueImpl::int32(1), detail::AnyValueImpl::string("x")}) {
    SCOPED_TRACE(value.describe());
    WireDataWriter writer;
    EXPECT_EQ(catchError([&] { writeFieldValue(value, *field, writer); }),
              SchematizerError::internalError("Store is destroyed"));
    EXPECT_TRUE(writer.data().empty());
  }
}

using WriteFieldValueDeathTest = WriteFieldValueTest;

TEST_F(WriteFieldValueDeathTest, NegativeEnumNumberStopsTheProcess) {
  WireDataWriter writer;
  EXPECT_DEATH(writeFieldValue(detail::AnyValueImpl::enum_({color(), int64_t{-1}}),
                               field(TypeManifest::enum_), writer),
               "Negative value is not representable");
  EXPECT_DEATH(writeFieldValue(detail::AnyValueImpl::enum_(
                                   {store_->enumSchema("w.Signed"), std::string("MINUS")}),
                               field("signed"), writer),
               "Negative value is not representable");
}

}  // namespace
}  // namespace ostrel
