#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "ostrel/core/field_types.hpp"

namespace ostrel {

// The one owned byte buffer type of the library.
using Bytes = std::vector<std::byte>;

// A borrowed, read-only range of bytes. Valid while the memory it points into is alive and
// unchanged.
using ByteView = std::span<const std::byte>;

// Views the characters of `text` as bytes; valid while `text` is.
inline ByteView asBytes(std::string_view text) noexcept {
  return {reinterpret_cast<const std::byte*>(text.data()), text.size()};
}

// Views bytes as characters; valid while `bytes` is.
inline std::string_view asText(ByteView bytes) noexcept {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// An owned copy of `bytes`.
inline Bytes toBytes(ByteView bytes) { return Bytes(bytes.begin(), bytes.end()); }
inline Bytes toBytes(std::string_view text) { return toBytes(asBytes(text)); }

// An owned copy of `bytes` as a std::string, the form libprotobuf and most I/O APIs take.
inline std::string toString(ByteView bytes) { return std::string(asText(bytes)); }

// A byte container from which an owned copy of the bytes can be taken.
class DataValueDescribing {
 public:
  virtual ~DataValueDescribing() = default;

  // The bytes held. Valid while this container (and, for a borrowed one, its buffer) is alive.
  virtual ByteView view() const noexcept = 0;

  // An owned copy of exactly the bytes held; an empty container gives an empty buffer.
  Bytes copy() const { return toBytes(view()); }
};

// A borrowed view of someone else's bytes; valid while that buffer is alive and unchanged.
class BorrowedData final : public DataValueDescribing {
 public:
  BorrowedData() = default;
  explicit BorrowedData(ByteView bytes) noexcept : bytes_(bytes) {}
  ByteView view() const noexcept override { return bytes_; }

 private:
  ByteView bytes_;
};

// An owned, immutable buffer. Copies share the buffer.
class OwnedData final : public DataValueDescribing {
 public:
  OwnedData() : bytes_(std::make_shared<const Bytes>()) {}
  explicit OwnedData(Bytes bytes) : bytes_(std::make_shared<const Bytes>(std::move(bytes))) {}
  ByteView view() const noexcept override { return *bytes_; }
  const Bytes& bytes() const noexcept { return *bytes_; }

 private:
  std::shared_ptr<const Bytes> bytes_;
};

class EnumSchemaDescribing;
class FieldSchemaDescribing;
class MessageSchemaDescribing;
class MessageSchema;
class AnyValue;
struct FieldPathAndType;

// Which answer a read by path gives when the bytes hold a singular field more than once (records
// merged by concatenation, "append to update"), which canonical encoders never write.
enum class ReadMode : uint8_t {
  // The first occurrence at every step of the path. The search stops there, which is what makes a
  // read near the front of a large record cheap; an index counts the tagged elements met first and
  // then the elements of the first packed run.
  first,
  // Protobuf's parse of the whole record: the last occurrence of a scalar; the occurrences of a
  // message merged (later scalars win, repeated fields concatenated, recursively); of a oneof's
  // members the last one present, the others absent; an index counting every element of every
  // packed run and tagged element. Every message on the path is read to its end, and any field in
  // it running past the end of the bytes fails the read (SerializationError::truncated).
  exact,
};

// Encoded bytes paired with the schema of the message they hold, as seen by the library's
// internals.
class SchematizedDataDescribing {
 public:
  virtual ~SchematizedDataDescribing() = default;

  // The encoded message, borrowed; valid while this object and the buffer it refers to are alive.
  virtual ByteView bytes() const noexcept = 0;
  virtual const std::shared_ptr<MessageSchemaDescribing>& messageSchema() const noexcept = 0;
  // An owned copy of the encoded message.
  virtual Bytes data() const { return toBytes(bytes()); }
};

// A borrowing view: encoded bytes in someone else's buffer paired with their message schema, made
// by MessageSchema::view (or met as a nested message inside its parent's buffer). Nothing is
// copied; valid only while the borrowed buffer is alive and unchanged, and it never frees it.
// SchematizedData is the owning form.
class UnsafeSchematizedData final : public SchematizedDataDescribing {
 public:
  UnsafeSchematizedData(std::shared_ptr<MessageSchemaDescribing> schema, ByteView bytes) noexcept
      : schema_(std::move(schema)), bytes_(bytes) {}

  ByteView bytes() const noexcept override { return bytes_; }
  const std::shared_ptr<MessageSchemaDescribing>& messageSchema() const noexcept override {
    return schema_;
  }

  // Reads the value at a property path such as "a.b[2].c"; no value when the bytes do not hold
  // it, an index past the last element included (for packed runs too). Throws
  // PropertyPathUtil::Error for a malformed path, SchematizerError for a path the schema does not
  // have, SerializationError for malformed bytes.
  std::optional<AnyValue> value(std::string_view propertyPath,
                                ReadMode mode = ReadMode::first) const;
  // Reads the value at a field path resolved beforehand (see resolvePropertyPath), skipping the
  // resolution: the fast way to read one path from many records.
  std::optional<AnyValue> value(const FieldPathAndType& path,
                                ReadMode mode = ReadMode::first) const;

 private:
  std::shared_ptr<MessageSchemaDescribing> schema_;
  ByteView bytes_;
};

// An owning record: encoded bytes paired with their message schema, the bytes held in a buffer of
// its own (MessageSchema::schematizedData copies them in). Copies share the buffer.
class SchematizedData {
 public:
  SchematizedData(std::shared_ptr<MessageSchemaDescribing> schema, Bytes data)
      : schema_(std::move(schema)), data_(std::move(data)) {}
  // Takes the schema and an owned copy of the bytes of any schematized data.
  explicit SchematizedData(const SchematizedDataDescribing& other)
      : SchematizedData(other.messageSchema(), other.data()) {}

  const std::shared_ptr<MessageSchemaDescribing>& messageSchemaImpl() const noexcept {
    return schema_;
  }
  // The public wrapper of the message schema.
  MessageSchema messageSchema() const;
  const Bytes& data() const noexcept { return data_.bytes(); }
  ByteView bytes() const noexcept { return data_.view(); }

  // A borrowing view of this data, valid while this object (or a copy of it) is alive.
  UnsafeSchematizedData unsafe() const noexcept { return {schema_, data_.view()}; }

  // The reads of UnsafeSchematizedData::value, over this data's own buffer.
  std::optional<AnyValue> value(std::string_view propertyPath,
                                ReadMode mode = ReadMode::first) const;
  std::optional<AnyValue> value(const FieldPathAndType& path,
                                ReadMode mode = ReadMode::first) const;

  // Same schema name and the same bytes.
  friend bool operator==(const SchematizedData& a, const SchematizedData& b);

 private:
  std::shared_ptr<MessageSchemaDescribing> schema_;
  OwnedData data_;
};

// ---------------------------------------------------------------------------------------------
// Internal: the value forms the library's own code works with (they borrow from the buffer they
// were decoded from). They appear here only because the schema interfaces and a few conversions of
// the public types name them; users read AnyValue and EnumValue.
namespace detail {

// Throws SchematizerError::unexpectedType naming both kinds, for an accessor of one value kind
// called on a value of another: "expected a string value, found int64".
[[noreturn]] void throwWrongValueKind(uint8_t wanted, uint8_t found);

// The payload of alternative I of `variant` (const or not), or the wrong-kind error.
template <size_t I, typename Variant>
auto& checkedGet(Variant& variant) {
  if (variant.index() != I) {
    throwWrongValueKind(static_cast<uint8_t>(I), static_cast<uint8_t>(variant.index()));
  }
  return *std::get_if<I>(&variant);
}

// An enum value as the library handles it internally: the enum's schema and either a value name
// or a value number.
struct EnumValueImpl {
  using Container = std::variant<std::string, int64_t>;

  std::shared_ptr<EnumSchemaDescribing> type;
  Container container;

  // The number: held, or looked up by name in the enum schema (which throws
  // SchematizerError::enumValueNotFound for an unknown name).
  int64_t number() const;
};

// A typed value as the library's internals handle it. Bytes and nested messages borrow from the
// buffer they were decoded from; only strings are copied.
class AnyValueImpl {
 public:
  enum class Case : uint8_t {
    int32,
    uint32,
    int64,
    uint64,
    float_,
    double_,
    bool_,
    enum_,
    string,
    bytes,
    message,
  };

  static AnyValueImpl int32(int32_t v) { return AnyValueImpl(std::in_place_index<0>, v); }
  static AnyValueImpl uint32(uint32_t v) { return AnyValueImpl(std::in_place_index<1>, v); }
  static AnyValueImpl int64(int64_t v) { return AnyValueImpl(std::in_place_index<2>, v); }
  static AnyValueImpl uint64(uint64_t v) { return AnyValueImpl(std::in_place_index<3>, v); }
  static AnyValueImpl float_(float v) { return AnyValueImpl(std::in_place_index<4>, v); }
  static AnyValueImpl double_(double v) { return AnyValueImpl(std::in_place_index<5>, v); }
  static AnyValueImpl bool_(bool v) { return AnyValueImpl(std::in_place_index<6>, v); }
  static AnyValueImpl enum_(EnumValueImpl v) {
    return AnyValueImpl(std::in_place_index<7>, std::move(v));
  }
  static AnyValueImpl string(std::string v) {
    return AnyValueImpl(std::in_place_index<8>, std::move(v));
  }
  static AnyValueImpl bytes(ByteView v) { return AnyValueImpl(std::in_place_index<9>, v); }
  static AnyValueImpl message(UnsafeSchematizedData v) {
    return AnyValueImpl(std::in_place_index<10>, std::move(v));
  }

  Case kind() const noexcept { return static_cast<Case>(value_.index()); }

  // Accessors of the payload; one of another kind throws SchematizerError::unexpectedType.
  int32_t int32Value() const { return detail::checkedGet<0>(value_); }
  uint32_t uint32Value() const { return detail::checkedGet<1>(value_); }
  int64_t int64Value() const { return detail::checkedGet<2>(value_); }
  uint64_t uint64Value() const { return detail::checkedGet<3>(value_); }
  float floatValue() const { return detail::checkedGet<4>(value_); }
  double doubleValue() const { return detail::checkedGet<5>(value_); }
  bool boolValue() const { return detail::checkedGet<6>(value_); }
  const EnumValueImpl& enumValue() const { return detail::checkedGet<7>(value_); }
  const std::string& stringValue() const { return detail::checkedGet<8>(value_); }
  std::string& stringValue() { return detail::checkedGet<8>(value_); }
  const DataValueDescribing& bytesValue() const { return detail::checkedGet<9>(value_); }
  const UnsafeSchematizedData& messageValue() const { return detail::checkedGet<10>(value_); }

  // A short rendering for error texts and test output, for example "int32(5)".
  std::string describe() const;

 private:
  template <size_t I, typename T>
  AnyValueImpl(std::in_place_index_t<I> index, T&& v) : value_(index, std::forward<T>(v)) {}

  std::variant<int32_t, uint32_t, int64_t, uint64_t, float, double, bool, EnumValueImpl,
               std::string, BorrowedData, UnsafeSchematizedData>
      value_;
};

}  // namespace detail
// ---------------------------------------------------------------------------------------------

// An enum value handed to library users.
class EnumValue {
 public:
  explicit EnumValue(detail::EnumValueImpl impl) : impl_(std::move(impl)) {}

  const detail::EnumValueImpl& impl() const noexcept { return impl_; }
  // The number; a value held by name is looked up (throws enumValueNotFound when unknown).
  int64_t number() const { return impl_.number(); }
  // The name; a value held by number is looked up (throws enumValueNotFound when unknown).
  std::string name() const;
  // The name, or no value when the enum does not know the number.
  std::optional<std::string> findName() const;

  // Same enum name and the same number.
  friend bool operator==(const EnumValue& a, const EnumValue& b);

 private:
  detail::EnumValueImpl impl_;
};

// A typed value handed to library users; it owns everything it holds.
class AnyValue {
 public:
  using Case = detail::AnyValueImpl::Case;

  AnyValue(int32_t v) : value_(std::in_place_index<0>, v) {}
  AnyValue(uint32_t v) : value_(std::in_place_index<1>, v) {}
  AnyValue(int64_t v) : value_(std::in_place_index<2>, v) {}
  AnyValue(uint64_t v) : value_(std::in_place_index<3>, v) {}
  AnyValue(float v) : value_(std::in_place_index<4>, v) {}
  AnyValue(double v) : value_(std::in_place_index<5>, v) {}
  AnyValue(bool v) : value_(std::in_place_index<6>, v) {}
  AnyValue(EnumValue v) : value_(std::in_place_index<7>, std::move(v)) {}
  AnyValue(std::string v) : value_(std::in_place_index<8>, std::move(v)) {}
  AnyValue(const char* v) : value_(std::in_place_index<8>, v) {}
  AnyValue(Bytes v) : value_(std::in_place_index<9>, std::move(v)) {}
  AnyValue(SchematizedData v) : value_(std::in_place_index<10>, std::move(v)) {}

  // The owned form of an internal value: bytes and nested messages are copied.
  static AnyValue from(const detail::AnyValueImpl& impl);
  // The same, moving a string instead of copying it.
  static AnyValue from(detail::AnyValueImpl&& impl);
  // The internal form, borrowing this value's bytes and nested message; valid while this value
  // is alive and unchanged.
  detail::AnyValueImpl impl() const;

  Case kind() const noexcept { return static_cast<Case>(value_.index()); }

  int32_t int32Value() const { return detail::checkedGet<0>(value_); }
  uint32_t uint32Value() const { return detail::checkedGet<1>(value_); }
  int64_t int64Value() const { return detail::checkedGet<2>(value_); }
  uint64_t uint64Value() const { return detail::checkedGet<3>(value_); }
  float floatValue() const { return detail::checkedGet<4>(value_); }
  double doubleValue() const { return detail::checkedGet<5>(value_); }
  bool boolValue() const { return detail::checkedGet<6>(value_); }
  const EnumValue& enumValue() const { return detail::checkedGet<7>(value_); }
  const std::string& stringValue() const { return detail::checkedGet<8>(value_); }
  const Bytes& bytesValue() const { return detail::checkedGet<9>(value_); }
  const SchematizedData& messageValue() const { return detail::checkedGet<10>(value_); }

  // A short rendering for messages and test output, for example "string(\"x\")".
  std::string describe() const;

  friend bool operator==(const AnyValue& a, const AnyValue& b) = default;

 private:
  std::variant<int32_t, uint32_t, int64_t, uint64_t, float, double, bool, EnumValue, std::string,
               Bytes, SchematizedData>
      value_;
};

// The case name of a value case, for example "uint64".
std::string_view caseName(detail::AnyValueImpl::Case kind) noexcept;

// The standard alphabet ("+" and "/"), padded with "=" to a multiple of four characters. An empty
// buffer gives "".
std::string base64Encode(ByteView bytes);
// The same text appended to `out`.
void appendBase64(ByteView bytes, std::string& out);

// The bytes of `text`, or no value unless `text` is exactly what base64Encode writes: a multiple of
// four characters of the standard alphabet, "=" only as one or two final padding characters, and
// zero in the bits that padding leaves unused. No whitespace, no URL-safe alphabet, no missing
// padding. Being this strict gives every buffer a single accepted text, so texts compare as their
// bytes do.
std::optional<Bytes> base64Decode(std::string_view text);

}  // namespace ostrel
