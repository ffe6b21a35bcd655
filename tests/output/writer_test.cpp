#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/io/coded_stream.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <iomanip>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ostrel/core/describing.hpp"
#include "ostrel/core/errors.hpp"
#include "ostrel/core/field_types.hpp"
#include "ostrel/core/values.hpp"
#include "ostrel/output/protobuf_writing.hpp"
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
// Fakes of the schema interfaces: just enough to hand writeFieldValue a field type and number.

class FakeEnum final : public EnumSchemaDescribing {
 public:
  FakeEnum(std::string name, const std::map<std::string, int64_t>& values)
      : name_(std::move(name)), values_(values.begin(), values.end()) {
    for (const auto& [valueName, number] : values_) {
      numbers_.insert(number);
      names_[number] = valueName;
    }
  }

  const std::string& name() const noexcept override { return name_; }
  std::string typeDescription() const override { return name_ + " enum"; }
  const std::set<int64_t>& valueSet() const noexcept override { return numbers_; }
  const std::optional<SchematizedData>& options() const noexcept override { return options_; }
  const std::map<int64_t, SchematizedData>& valueOptions() const noexcept override {
    return valueOptions_;
  }
  int64_t valueNamed(std::string_view name) const override {
    auto it = values_.find(std::string(name));
    if (it == values_.end()) {
      throw SchematizerError::enumValueNotFound("Enum: " + name_ + ", " + std::string(name) +
                                                " value");
    }
    return it->second;
  }
  const std::map<std::string, int64_t, std::less<>>& allValues() const noexcept override {
    return values_;
  }
  const std::string& valueNameFor(int64_t number) const override {
    if (const std::string* name = findValueNameFor(number)) return *name;
    throw SchematizerError::enumValueNotFound("Enum: " + name_ + ", " + std::to_string(number) +
                                              " value");
  }
  const std::string* findValueNameFor(int64_t number) const noexcept override {
    auto it = names_.find(number);
    return it == names_.end() ? nullptr : &it->second;
  }

 private:
  std::string name_;
  std::map<std::string, int64_t, std::less<>> values_;
  std::map<int64_t, std::string> names_;
  std::set<int64_t> numbers_;
  std::optional<SchematizedData> options_;
  std::map<int64_t, SchematizedData> valueOptions_;
};

class FakeField final : public FieldSchemaDescribing {
 public:
  FakeField(TypeSchemaDescription type, int64_t number) : type_(std::move(type)), number_(number) {}

  // Makes type() or fieldNumber() throw, as a field of a destroyed store does.
  std::optional<SchematizerError> typeError;
  std::optional<SchematizerError> numberError;

  const std::string& name() const noexcept override { return name_; }
  std::string typeDescription() const override { return type_.describe(); }
  bool isRepeated() const noexcept override { return false; }
  bool isOptional() const noexcept override { return true; }
  const std::optional<SchematizedData>& options() const noexcept override { return options_; }
  std::optional<int32_t> oneofIndex() const noexcept override { return std::nullopt; }
  int64_t fieldNumber() const override {
    if (numberError) throw *numberError;
    return number_;
  }
  const TypeSchemaDescription& type() const override {
    if (typeError) throw *typeError;
    return type_;
  }

 private:
  std::string name_ = "f";
  TypeSchemaDescription type_;
  int64_t number_;
  std::optional<SchematizedData> options_;
};

std::shared_ptr<FakeEnum> colorEnum() {
  return std::make_shared<FakeEnum>("a.Color",
                                    std::map<std::string, int64_t>{{"RED", 0}, {"BLUE", 300}});
}

TypeSchemaDescription scalarType(Type kind) { return TypeSchemaDescription::scalar(kind); }

// Records every write as text, so that a test sees which operation a value went through.
class RecordingWriter final : public ProtobufWriting {
 public:
  std::vector<std::string> calls;

  Bytes data() override { return {}; }
  void writeInt32(int32_t v, int64_t n) override { record("writeInt32", v, n); }
  void writeUint32(uint32_t v, int64_t n) override { record("writeUint32", v, n); }
  void writeSint32(int32_t v, int64_t n) override { record("writeSint32", v, n); }
  void writeFixed32(uint32_t v, int64_t n) override { record("writeFixed32", v, n); }
  void writeSfixed32(int32_t v, int64_t n) override { record("writeSfixed32", v, n); }
  void writeInt64(int64_t v, int64_t n) override { record("writeInt64", v, n); }
  void writeUint64(uint64_t v, int64_t n) override { record("writeUint64", v, n); }
  void writeSint64(int64_t v, int64_t n) override { record("writeSint64", v, n); }
  void writeFixed64(uint64_t v, int64_t n) override { record("writeFixed64", v, n); }
  void writeSfixed64(int64_t v, int64_t n) override { record("writeSfixed64", v, n); }
  void writeFloat(float v, int64_t n) override { record("writeFloat", v, n); }
  void writeDouble(double v, int64_t n) override { record("writeDouble", v, n); }
  void writeBOOL(bool v, int64_t n) override { record("writeBOOL", v ? "true" : "false", n); }
  void writeString(std::string_view v, int64_t n) override {
    record("writeString", std::string("\"").append(v).append("\""), n);
  }
  void writeData(ByteView v, int64_t n) override {
    record("writeData", std::string("[").append(hex(v)).append("]"), n);
  }

 private:
  template <typename T>
  void record(const char* op, const T& value, int64_t number) {
    std::ostringstream out;
    out << op << "(" << value << ", " << number << ")";
    calls.push_back(out.str());
  }
};

// ---------------------------------------------------------------------------------------------
// WireDataWriter: the exact bytes of each operation.

struct WriteRow {
  std::string name;
  std::function<void(ProtobufWriting&)> write;
  Bytes expected;
};

TEST(WireDataWriterTest, EachOperationWritesKeyAndValue) {
  const std::string longText(200, 'x');
  Bytes longExpected = bytesOf({0x0a, 0xc8, 0x01});
  longExpected.insert(longExpected.end(), 200, std::byte{'x'});

  const std::vector<WriteRow> rows = {
      {"int32 zero", [](auto& w) { w.writeInt32(0, 1); }, bytesOf({0x08, 0x00})},
      {"int32 150", [](auto& w) { w.writeInt32(150, 1); }, bytesOf({0x08, 0x96, 0x01})},
      {"int32 -1 takes ten bytes", [](auto& w) { w.writeInt32(-1, 1); },
       bytesOf({0x08, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01})},
      {"int32 min", [](auto& w) { w.writeInt32(std::numeric_limits<int32_t>::min(), 2); },
       bytesOf({0x10, 0x80, 0x80, 0x80, 0x80, 0xf8, 0xff, 0xff, 0xff, 0xff, 0x01})},
      {"uint32 max", [](auto& w) { w.writeUint32(0xffffffffu, 1); },
       bytesOf({0x08, 0xff, 0xff, 0xff, 0xff, 0x0f})},
      {"uint32 1", [](auto& w) { w.writeUint32(1, 3); }, bytesOf({0x18, 0x01})},
      {"sint32 -1", [](auto& w) { w.writeSint32(-1, 1); }, bytesOf({0x08, 0x01})},
      {"sint32 1", [](auto& w) { w.writeSint32(1, 1); }, bytesOf({0x08, 0x02})},
      {"sint32 min", [](auto& w) { w.writeSint32(std::numeric_limits<int32_t>::min(), 1); },
       bytesOf({0x08, 0xff, 0xff, 0xff, 0xff, 0x0f})},
      {"fixed32", [](auto& w) { w.writeFixed32(0x01020304u, 1); },
       bytesOf({0x0d, 0x04, 0x03, 0x02, 0x01})},
      {"sfixed32 -2", [](auto& w) { w.writeSfixed32(-2, 1); },
       bytesOf({0x0d, 0xfe, 0xff, 0xff, 0xff})},
      {"int64 -1", [](auto& w) { w.writeInt64(-1, 1); },
       bytesOf({0x08, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01})},
      {"int64 2^35", [](auto& w) { w.writeInt64(int64_t{1} << 35, 1); },
       bytesOf({0x08, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01})},
      {"uint64 max", [](auto& w) { w.writeUint64(std::numeric_limits<uint64_t>::max(), 1); },
       bytesOf({0x08, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01})},
      {"sint64 -2", [](auto& w) { w.writeSint64(-2, 1); }, bytesOf({0x08, 0x03})},
      {"sint64 max", [](auto& w) { w.writeSint64(std::numeric_limits<int64_t>::max(), 1); },
       bytesOf({0x08, 0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01})},
      {"fixed64", [](auto& w) { w.writeFixed64(0x0102030405060708u, 1); },
       bytesOf({0x09, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01})},
      {"sfixed64 -1", [](auto& w) { w.writeSfixed64(-1, 1); },
       bytesOf({0x09, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff})},
      {"float 1.5", [](auto& w) { w.writeFloat(1.5f, 1); },
       bytesOf({0x0d, 0x00, 0x00, 0xc0, 0x3f})},
      {"float -0", [](auto& w) { w.writeFloat(-0.0f, 1); },
       bytesOf({0x0d, 0x00, 0x00, 0x00, 0x80})},
      {"double 1.5", [](auto& w) { w.writeDouble(1.5, 1); },
       bytesOf({0x09, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xf8, 0x3f})},
      {"bool true", [](auto& w) { w.writeBOOL(true, 1); }, bytesOf({0x08, 0x01})},
      {"bool false", [](auto& w) { w.writeBOOL(false, 1); }, bytesOf({0x08, 0x00})},
      {"string", [](auto& w) { w.writeString("hi", 2); }, bytesOf({0x12, 0x02, 'h', 'i'})},
      {"string utf-8 as given", [](auto& w) { w.writeString("\xc3\xa9", 1); },
       bytesOf({0x0a, 0x02, 0xc3, 0xa9})},
      {"string empty", [](auto& w) { w.writeString("", 1); }, bytesOf({0x0a, 0x00})},
      {"string with two-byte length", [&longText](auto& w) { w.writeString(longText, 1); },
       longExpected},
      {"data",
       [](auto& w) {
         w.writeData(bytesOf({0x00, 0xff, 0x10}), 3);
       },
       bytesOf({0x1a, 0x03, 0x00, 0xff, 0x10})},
      {"data empty", [](auto& w) { w.writeData(ByteView{}, 1); }, bytesOf({0x0a, 0x00})},
      {"field 15, last one-byte key", [](auto& w) { w.writeInt32(1, 15); }, bytesOf({0x78, 0x01})},
      {"field 16, first two-byte key", [](auto& w) { w.writeInt32(1, 16); },
       bytesOf({0x80, 0x01, 0x01})},
      {"field 2047 fixed32", [](auto& w) { w.writeFixed32(0, 2047); },
       bytesOf({0xfd, 0x7f, 0x00, 0x00, 0x00, 0x00})},
      {"largest field number", [](auto& w) { w.writeBOOL(true, 536870911); },
       bytesOf({0xf8, 0xff, 0xff, 0xff, 0x0f, 0x01})},
      {"largest field number, length-delimited", [](auto& w) { w.writeString("", 536870911); },
       bytesOf({0xfa, 0xff, 0xff, 0xff, 0x0f, 0x00})},
  };

  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    WireDataWriter writer;
    row.write(writer);
    EXPECT_EQ(hex(writer.data()), hex(row.expected));
  }
}

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
      {"zeros", 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0.0f, 0.0, false, "", "", 0},
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

TEST(WireDataWriterTest, KeysReadBackWithCodedInputStream) {
  WireDataWriter writer;
  writer.writeSint64(-3, 7);
  writer.writeFloat(2.0f, 100);
  writer.writeData(bytesOf({0xaa}), 536870911);
  const std::string bytes = toString(writer.data());

  using google::protobuf::io::CodedInputStream;
  CodedInputStream in(reinterpret_cast<const uint8_t*>(bytes.data()),
                      static_cast<int>(bytes.size()));
  uint64_t varint = 0;
  uint32_t fixed = 0;
  uint32_t length = 0;
  EXPECT_EQ(in.ReadTag(), (7u << 3) | 0u);
  ASSERT_TRUE(in.ReadVarint64(&varint));
  EXPECT_EQ(varint, 5u);
  EXPECT_EQ(in.ReadTag(), (100u << 3) | 5u);
  ASSERT_TRUE(in.ReadLittleEndian32(&fixed));
  EXPECT_EQ(fixed, 0x40000000u);
  EXPECT_EQ(in.ReadTag(), (536870911u << 3) | 2u);
  ASSERT_TRUE(in.ReadVarint32(&length));
  EXPECT_EQ(length, 1u);
  std::string payload;
  ASSERT_TRUE(in.ReadString(&payload, static_cast<int>(length)));
  EXPECT_EQ(payload, "\xaa");
  EXPECT_EQ(in.ReadTag(), 0u);
}

// ---------------------------------------------------------------------------------------------
// writeFieldValue: which operation each value and field type pairing goes through.

struct DispatchRow {
  std::string name;
  detail::AnyValueImpl value;
  TypeSchemaDescription fieldType;
  std::string expectedCall;
};

TEST(WriteFieldValueTest, ChoosesTheOperationByValueAndFieldType) {
  const Bytes payload = bytesOf({0x01, 0x02});
  const Bytes nested = bytesOf({0x08, 0x2a});
  const auto color = colorEnum();
  const auto enumField = TypeSchemaDescription::enumType(color);

  const std::vector<DispatchRow> rows = {
      {"int32 to int32", detail::AnyValueImpl::int32(-5), scalarType(Type::int32),
       "writeInt32(-5, 7)"},
      {"int32 to enum", detail::AnyValueImpl::int32(3), enumField, "writeInt32(3, 7)"},
      {"int32 to sint32", detail::AnyValueImpl::int32(-5), scalarType(Type::sint32),
       "writeSint32(-5, 7)"},
      {"int32 to sfixed32", detail::AnyValueImpl::int32(-5), scalarType(Type::sfixed32),
       "writeSfixed32(-5, 7)"},
      {"uint32 to uint32", detail::AnyValueImpl::uint32(9), scalarType(Type::uint32),
       "writeUint32(9, 7)"},
      {"uint32 to fixed32", detail::AnyValueImpl::uint32(9), scalarType(Type::fixed32),
       "writeFixed32(9, 7)"},
      {"int64 to int64", detail::AnyValueImpl::int64(-8), scalarType(Type::int64),
       "writeInt64(-8, 7)"},
      {"int64 to sint64", detail::AnyValueImpl::int64(-8), scalarType(Type::sint64),
       "writeSint64(-8, 7)"},
      {"int64 to sfixed64", detail::AnyValueImpl::int64(-8), scalarType(Type::sfixed64),
       "writeSfixed64(-8, 7)"},
      {"uint64 to uint64", detail::AnyValueImpl::uint64(8), scalarType(Type::uint64),
       "writeUint64(8, 7)"},
      {"uint64 to fixed64", detail::AnyValueImpl::uint64(8), scalarType(Type::fixed64),
       "writeFixed64(8, 7)"},
      {"float to float", detail::AnyValueImpl::float_(1.5f), scalarType(Type::float_),
       "writeFloat(1.5, 7)"},
      {"float to int32, unchecked", detail::AnyValueImpl::float_(1.5f), scalarType(Type::int32),
       "writeFloat(1.5, 7)"},
      {"double to double", detail::AnyValueImpl::double_(2.5), scalarType(Type::double_),
       "writeDouble(2.5, 7)"},
      {"double to string, unchecked", detail::AnyValueImpl::double_(2.5), scalarType(Type::string),
       "writeDouble(2.5, 7)"},
      {"bool to bool", detail::AnyValueImpl::bool_(true), scalarType(Type::bool_),
       "writeBOOL(true, 7)"},
      {"bool to uint64, unchecked", detail::AnyValueImpl::bool_(false), scalarType(Type::uint64),
       "writeBOOL(false, 7)"},
      {"string to string", detail::AnyValueImpl::string("hey"), scalarType(Type::string),
       "writeString(\"hey\", 7)"},
      {"string to bytes, unchecked", detail::AnyValueImpl::string("hey"), scalarType(Type::bytes),
       "writeString(\"hey\", 7)"},
      {"bytes to bytes", detail::AnyValueImpl::bytes(payload), scalarType(Type::bytes),
       "writeData([01 02], 7)"},
      {"bytes to double, unchecked", detail::AnyValueImpl::bytes(payload),
       scalarType(Type::double_), "writeData([01 02], 7)"},
      {"message to bytes", detail::AnyValueImpl::message(UnsafeSchematizedData(nullptr, nested)),
       scalarType(Type::bytes), "writeData([08 2a], 7)"},
      {"enum by number to enum", detail::AnyValueImpl::enum_({color, int64_t{300}}), enumField,
       "writeUint64(300, 7)"},
      {"enum by name to enum", detail::AnyValueImpl::enum_({color, std::string("BLUE")}), enumField,
       "writeUint64(300, 7)"},
      {"enum zero to enum", detail::AnyValueImpl::enum_({color, std::string("RED")}), enumField,
       "writeUint64(0, 7)"},
      {"enum to int32, unchecked", detail::AnyValueImpl::enum_({color, int64_t{5}}),
       scalarType(Type::int32), "writeUint64(5, 7)"},
  };

  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FakeField field(row.fieldType, 7);
    RecordingWriter writer;
    writeFieldValue(row.value, field, writer);
    EXPECT_EQ(writer.calls, std::vector<std::string>{row.expectedCall});
  }
}

struct MismatchRow {
  std::string name;
  detail::AnyValueImpl value;
  TypeSchemaDescription fieldType;
};

TEST(WriteFieldValueTest, IntegerOfTheWrongTypeThrowsAndWritesNothing) {
  const auto enumField = TypeSchemaDescription::enumType(colorEnum());
  std::vector<MismatchRow> rows = {
      {"uint32 to int32", detail::AnyValueImpl::uint32(1), scalarType(Type::int32)},
      {"uint32 to enum", detail::AnyValueImpl::uint32(1), enumField},
      {"uint32 to uint64", detail::AnyValueImpl::uint32(1), scalarType(Type::uint64)},
      {"int32 to uint32", detail::AnyValueImpl::int32(1), scalarType(Type::uint32)},
      {"int32 to int64", detail::AnyValueImpl::int32(1), scalarType(Type::int64)},
      {"int32 to fixed32", detail::AnyValueImpl::int32(1), scalarType(Type::fixed32)},
      {"int32 to float", detail::AnyValueImpl::int32(1), scalarType(Type::float_)},
      {"int32 to string", detail::AnyValueImpl::int32(1), scalarType(Type::string)},
      {"int64 to int32", detail::AnyValueImpl::int64(1), scalarType(Type::int32)},
      {"int64 to uint64", detail::AnyValueImpl::int64(1), scalarType(Type::uint64)},
      {"int64 to enum", detail::AnyValueImpl::int64(1), enumField},
      {"uint64 to int64", detail::AnyValueImpl::uint64(1), scalarType(Type::int64)},
      {"uint64 to sfixed64", detail::AnyValueImpl::uint64(1), scalarType(Type::sfixed64)},
      {"uint64 to bool", detail::AnyValueImpl::uint64(1), scalarType(Type::bool_)},
  };

  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FakeField field(row.fieldType, 4);
    RecordingWriter writer;
    EXPECT_EQ(catchError([&] { writeFieldValue(row.value, field, writer); }),
              SerializationError::invalidIntType(row.value, row.fieldType));
    EXPECT_TRUE(writer.calls.empty());
  }
}

TEST(WriteFieldValueTest, InvalidIntTypeIsNotConfusedWithAnotherValueOrType) {
  // Guards the comparison itself: the error must carry this value and this type.
  FakeField field(scalarType(Type::int32), 4);
  RecordingWriter writer;
  const auto caught =
      catchError([&] { writeFieldValue(detail::AnyValueImpl::uint32(1), field, writer); });
  EXPECT_FALSE(caught == SerializationError::invalidIntType(detail::AnyValueImpl::uint32(2),
                                                            scalarType(Type::int32)));
  EXPECT_FALSE(caught == SerializationError::invalidIntType(detail::AnyValueImpl::uint32(1),
                                                            scalarType(Type::int64)));
  EXPECT_FALSE(caught ==
               SerializationError::typeMismatch(scalarType(Type::int32), ProtoWireType::varInt));
}

TEST(WriteFieldValueTest, UnknownEnumNameThrowsTheEnumErrorAndWritesNothing) {
  const auto color = colorEnum();
  FakeField field(TypeSchemaDescription::enumType(color), 2);
  RecordingWriter writer;
  EXPECT_EQ(
      catchError([&] {
        writeFieldValue(detail::AnyValueImpl::enum_({color, std::string("GREEN")}), field, writer);
      }),
      SchematizerError::enumValueNotFound("Enum: a.Color, GREEN value"));
  EXPECT_TRUE(writer.calls.empty());
}

TEST(WriteFieldValueTest, FieldSchemaErrorsPassThroughAndNothingIsWritten) {
  const SchematizerError destroyed = SchematizerError::internalError("Store is destroyed");
  struct Row {
    std::string name;
    bool typeFails;
    bool numberFails;
    detail::AnyValueImpl value;
  };
  const std::vector<Row> rows = {
      {"type fails, integer value", true, false, detail::AnyValueImpl::int32(1)},
      {"type fails, unchecked value", true, false, detail::AnyValueImpl::string("x")},
      {"number fails, integer value", false, true, detail::AnyValueImpl::int32(1)},
      {"number fails, unchecked value", false, true, detail::AnyValueImpl::double_(1.0)},
      {"number fails, mismatched integer", false, true, detail::AnyValueImpl::uint64(1)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FakeField field(scalarType(Type::int32), 1);
    if (row.typeFails) field.typeError = destroyed;
    if (row.numberFails) field.numberError = destroyed;
    RecordingWriter writer;
    EXPECT_EQ(catchError([&] { writeFieldValue(row.value, field, writer); }), destroyed);
    EXPECT_TRUE(writer.calls.empty());
  }
}

// The same pairings through the real writer, checked to the byte.
TEST(WriteFieldValueTest, WritesTheExpectedBytes) {
  const auto color = colorEnum();
  const Bytes nested = bytesOf({0x08, 0x2a});
  struct Row {
    std::string name;
    detail::AnyValueImpl value;
    TypeSchemaDescription fieldType;
    Bytes expected;
  };
  const std::vector<Row> rows = {
      {"float to int32 field as fixed32", detail::AnyValueImpl::float_(1.5f),
       scalarType(Type::int32), bytesOf({0x0d, 0x00, 0x00, 0xc0, 0x3f})},
      {"double to string field as fixed64", detail::AnyValueImpl::double_(1.5),
       scalarType(Type::string), bytesOf({0x09, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xf8, 0x3f})},
      {"int32 -1 to enum field as int32 varint", detail::AnyValueImpl::int32(-1),
       TypeSchemaDescription::enumType(color),
       bytesOf({0x08, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01})},
      {"int32 -1 to sint32 field", detail::AnyValueImpl::int32(-1), scalarType(Type::sint32),
       bytesOf({0x08, 0x01})},
      {"enum by name as uint64 varint", detail::AnyValueImpl::enum_({color, std::string("BLUE")}),
       TypeSchemaDescription::enumType(color), bytesOf({0x08, 0xac, 0x02})},
      {"message as length-delimited",
       detail::AnyValueImpl::message(UnsafeSchematizedData(nullptr, nested)),
       scalarType(Type::bytes), bytesOf({0x0a, 0x02, 0x08, 0x2a})},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FakeField field(row.fieldType, 1);
    WireDataWriter writer;
    writeFieldValue(row.value, field, writer);
    EXPECT_EQ(hex(writer.data()), hex(row.expected));
  }
}

TEST(WriteFieldValueDeathTest, NegativeEnumNumberStopsTheProcess) {
  const auto color = colorEnum();
  FakeField field(TypeSchemaDescription::enumType(color), 1);
  WireDataWriter writer;
  EXPECT_DEATH(writeFieldValue(detail::AnyValueImpl::enum_({color, int64_t{-1}}), field, writer),
               "Negative value is not representable");
}

TEST(WriteFieldValueDeathTest, NegativeEnumNumberByNameStopsTheProcess) {
  const auto signedEnum =
      std::make_shared<FakeEnum>("a.Signed", std::map<std::string, int64_t>{{"MINUS", -2}});
  FakeField field(TypeSchemaDescription::enumType(signedEnum), 1);
  WireDataWriter writer;
  EXPECT_DEATH(writeFieldValue(detail::AnyValueImpl::enum_({signedEnum, std::string("MINUS")}),
                               field, writer),
               "Negative value is not representable");
}

}  // namespace
}  // namespace ostrel
